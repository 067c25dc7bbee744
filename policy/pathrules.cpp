// The path-based monitor rules: file, registry, process and system bodies,
// each a named object, the operations watched on it, and two lists of
// filters (alternatives to include, and exclusions tested first by the
// matchers). The four are one family and differ only where the table of
// kinds below says.
#include "policy/monitor.h"

#include "base/strings.h"
#include "base/trace.h"
#include "diagnostics/eventlog.h"

namespace {

namespace Format = MonitorFormat;

// Which fields of the filter header a kind keeps.
enum class FilterFields { All, ObjectKind, FilterValue, None };

struct PathRuleKind {
    ULONG Category;
    ULONG BodyMagic;
    PCWSTR BodyLabel;
    ULONG FilterMagic;
    PCWSTR FilterLabel;
    FilterFields Fields;
    ULONG BodyFixedSize;  // bytes before the path text
    ULONG PathHeader;     // offset of the path's string header in the body
    ULONG IncludeCount, ExcludeCount;  // offsets of the two list counts
};

const PathRuleKind FileKind = {CategoryFile,
                               Format::FileBodyMagic,
                               WIDE("File Rule Body Header"),
                               Format::FileFilterMagic,
                               WIDE("File Rule Filter Header"),
                               FilterFields::All,
                               Format::FileBody::Size,
                               Format::FileBody::Path,
                               Format::FileBody::IncludeCount,
                               Format::FileBody::ExcludeCount};
const PathRuleKind RegistryKind = {CategoryRegistry,
                                   Format::RegistryBodyMagic,
                                   WIDE("Registry Rule Body Header"),
                                   Format::RegistryFilterMagic,
                                   WIDE("Registry Rule Filter Header"),
                                   FilterFields::ObjectKind,
                                   Format::RegistryBody::Size,
                                   Format::RegistryBody::Path,
                                   Format::RegistryBody::IncludeCount,
                                   Format::RegistryBody::ExcludeCount};
const PathRuleKind ProcessKind = {CategoryProcess,
                                  Format::ProcessBodyMagic,
                                  WIDE("Process Rule Body Header"),
                                  Format::ProcessFilterMagic,
                                  WIDE("Process Rule Filter Header"),
                                  FilterFields::FilterValue,
                                  Format::ProcessBody::Size,
                                  Format::ProcessBody::Path,
                                  Format::ProcessBody::IncludeCount,
                                  Format::ProcessBody::ExcludeCount};
const PathRuleKind SystemKind = {CategorySystem,
                                 Format::SystemBodyMagic,
                                 WIDE("System Rule Body Header"),
                                 Format::SystemFilterMagic,
                                 WIDE("System Rule Filter Header"),
                                 FilterFields::None,
                                 Format::SystemBody::Size,
                                 Format::SystemBody::Path,
                                 Format::SystemBody::IncludeCount,
                                 Format::SystemBody::ExcludeCount};

NTSTATUS InitKindFilter(const PathRuleKind &Kind, RuleFilter *Filter, ULONG Conditions, ULONG ObjectKind) {
    switch (Kind.Fields) {
        case FilterFields::All: return InitFileRuleFilter(Filter, Conditions, ObjectKind);
        case FilterFields::FilterValue: return InitProcessRuleFilter(Filter, Conditions);
        case FilterFields::ObjectKind: return InitRuleFilter(Filter, Conditions, ObjectKind);
        default: return InitRuleFilter(Filter, Conditions, 0);
    }
}

// Appends one filter to a list; a failure leaves the list as it was.
NTSTATUS AppendFilter(const PathRuleKind &Kind, RuleFilter **List, ULONG *Count, ULONG Conditions,
                      ULONG ObjectKind, RuleFilter **Added) {
    const NTSTATUS Status = AppendElement(
        List, Count, [&](RuleFilter *Filter) { return InitKindFilter(Kind, Filter, Conditions, ObjectKind); });
    if (NT_SUCCESS(Status)) *Added = &(*List)[*Count - 1];
    return Status;
}

// One list of Count filters from Cursor. Only the first filter's magic is
// tested: the writer guarantees the rest, and a loop-wide test would change
// which files load.
NTSTATUS LoadFilterList(const PathRuleKind &Kind, RuleFilter **List, ULONG *ListCount, PUCHAR Cursor, ULONG Count,
                        ULONG Available, ULONG *SizeOut) {
    *SizeOut = 0;
    if (Count == 0) return STATUS_SUCCESS;
    if (!PolicyFits(0, sizeof(ULONG), Available)) return STATUS_DATA_ERROR;
    const ULONG Magic = PolicyUlong(Cursor + Format::RuleFilter::Magic);
    if (Magic != Kind.FilterMagic) {
        ReportPolicyRecordMismatch(Kind.FilterLabel, Magic, Kind.FilterMagic & Format::MagicVersionMask);
        return STATUS_INVALID_PARAMETER;
    }
    ULONG Offset = 0;
    for (ULONG Index = 0; Index < Count; ++Index) {
        if (!PolicyFits(Offset, Format::RuleFilter::Size, Available)) return STATUS_DATA_ERROR;
        PUCHAR Header = Cursor + Offset;
        RuleFilter *Filter = nullptr;
        NTSTATUS Status = AppendFilter(Kind, List, ListCount, PolicyUlong(Header + Format::RuleFilter::Conditions),
                                       PolicyUlong(Header + Format::RuleFilter::ObjectKind), &Filter);
        if (!NT_SUCCESS(Status)) return Status;
        if (Kind.Fields == FilterFields::All) {
            Filter->AttributeMask = PolicyUlong(Header + Format::RuleFilter::AttributeMask);
            Filter->SizeOperator = PolicyUlong(Header + Format::RuleFilter::SizeOperator);
            Filter->SizeOperand = PolicyUlonglong(Header + Format::RuleFilter::SizeOperand);
        } else if (Kind.Fields == FilterFields::FilterValue) {
            Filter->FilterValue = PolicyUshort(Header + Format::RuleFilter::FilterValue);
        }
        Filter->StartTime = DecodeTimeOfDay(PolicyUlonglong(Header + Format::RuleFilter::StartTime));
        Filter->EndTime = DecodeTimeOfDay(PolicyUlonglong(Header + Format::RuleFilter::EndTime));
        const ULONG Patterns = PolicyUlong(Header + Format::RuleFilter::PatternCount),
                    Actors = PolicyUlong(Header + Format::RuleFilter::ActorProcessCount),
                    Usernames = PolicyUlong(Header + Format::RuleFilter::ActorUsernameCount);
        ULONG Consumed = Format::RuleFilter::Size, Size = 0;
        if (Patterns != 0) {
            Status = LoadFilterPatterns(Filter, Cursor + Offset + Consumed, Patterns, Available - Offset - Consumed, &Size);
            if (!NT_SUCCESS(Status)) return Status;
            Consumed += Size;
        }
        if (Actors != 0) {
            Status = LoadActorProcessFilters(Filter, Kind.Category, Cursor + Offset + Consumed, Actors,
                                             Available - Offset - Consumed, &Size);
            if (!NT_SUCCESS(Status)) return Status;
            Consumed += Size;
        }
        if (Usernames != 0) {
            Status = LoadActorUsernameFilters(Filter, Kind.Category, Cursor + Offset + Consumed, Usernames,
                                              Available - Offset - Consumed, &Size);
            if (!NT_SUCCESS(Status)) return Status;
            Consumed += Size;
        }
        Offset += Consumed;
    }
    *SizeOut = Offset;
    return STATUS_SUCCESS;
}

template <typename Body>
NTSTATUS LoadIncludeExclude(const PathRuleKind &Kind, Body *Rule, PUCHAR Cursor, ULONG Available, ULONG Includes,
                            ULONG Excludes) {
    ULONG Size = 0;
    NTSTATUS Status = LoadFilterList(Kind, &Rule->IncludeFilters, &Rule->IncludeCount, Cursor, Includes, Available, &Size);
    // The exclude list starts exactly behind what the include list consumed.
    if (NT_SUCCESS(Status))
        Status = LoadFilterList(Kind, &Rule->ExcludeFilters, &Rule->ExcludeCount, Cursor + Size, Excludes,
                                Available - Size, &Size);
    return Status;
}

template <typename Body>
VOID FreeFilterLists(Body *Rule, ULONG Category) {
    if (Rule->IncludeFilters != nullptr) {
        for (ULONG Index = 0; Index < Rule->IncludeCount; ++Index) FreeRuleFilter(&Rule->IncludeFilters[Index], Category);
        PoolFree(Rule->IncludeFilters);
    }
    if (Rule->ExcludeFilters != nullptr) {
        for (ULONG Index = 0; Index < Rule->ExcludeCount; ++Index) FreeRuleFilter(&Rule->ExcludeFilters[Index], Category);
        PoolFree(Rule->ExcludeFilters);
    }
    Rule->IncludeFilters = Rule->ExcludeFilters = nullptr;
    Rule->IncludeCount = Rule->ExcludeCount = 0;
}

// What every body holds: its own copy of the contexts and of the path,
// upper-cased, optionally without one trailing backslash. On a failure
// nothing is left allocated.
NTSTATUS InitBodyCommon(const RuleContextEntry *Contexts, ULONG ContextCount, PCUNICODE_STRING Path,
                        BOOLEAN DropTrailingBackslash, RuleContextEntry **ContextsOut, PUNICODE_STRING PathOut) {
    NTSTATUS Status = CopyRuleContexts(Contexts, ContextCount, ContextsOut);
    if (!NT_SUCCESS(Status)) return Status;
    Status = CompilePolicyText(PathOut, Path);
    if (!NT_SUCCESS(Status)) {
        PoolFree(*ContextsOut);
        *ContextsOut = nullptr;
        return Status;
    }
    const USHORT Chars = PathOut->Length / sizeof(WCHAR);
    if (DropTrailingBackslash && Chars != 0 && PathOut->Buffer[Chars - 1] == '\\') {
        PathOut->Buffer[Chars - 1] = 0;
        PathOut->Length -= sizeof(WCHAR);
    }
    return STATUS_SUCCESS;
}

// The four parsers: one plan, the kind's add, and where the lists start.
template <typename Set, typename RuleBody, typename AddRoutine>
NTSTATUS ParsePathRule(const PathRuleKind &Kind, Set *Target, PUCHAR Record, ULONG RecordSize, AddRoutine Add) {
    if (Target == nullptr || Record == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    ParsedRecord Parsed;
    NTSTATUS Status = ParseRecordHead(Record, RecordSize, Kind.BodyMagic, Kind.BodyLabel, Kind.BodyFixedSize, &Parsed);
    PolicyText Path, Value;
    ULONG ListsOffset = 0;
    if (NT_SUCCESS(Status)) {
        PUCHAR Body = Parsed.Body;
        Status = ReadPolicyString(Body + Kind.PathHeader, Body + Kind.BodyFixedSize,
                                  Parsed.BodyAvailable - Kind.BodyFixedSize, FALSE, &Path);
        ListsOffset = Kind.BodyFixedSize + Path.View.MaximumLength;
        // A registry rule's value name follows the path text, taking its
        // MaximumLength even when empty; only a named value gets a reference.
        if (NT_SUCCESS(Status) && Kind.Category == CategoryRegistry) {
            PUCHAR ValueName = Body + Format::RegistryBody::ValueName;
            if (PolicyUshort(ValueName + Format::StringHeader::Length) != 0) {
                Status = ReadPolicyString(ValueName, Body + ListsOffset, Parsed.BodyAvailable - ListsOffset, FALSE,
                                          &Value);
            } else if (PolicyUshort(ValueName + Format::StringHeader::MaximumLength) >
                       Parsed.BodyAvailable - ListsOffset) {
                Status = STATUS_DATA_ERROR;
            } else {
                Value.View.Buffer = (PWCH)(Body + ListsOffset);
            }
            ListsOffset += PolicyUshort(ValueName + Format::StringHeader::MaximumLength);
        }
    }
    RuleBody *Rule = nullptr;
    if (NT_SUCCESS(Status)) Status = Add(Target, Parsed, &Path.View, &Value.View, &Rule);
    if (NT_SUCCESS(Status)) {
        PUCHAR Fields = Parsed.Body;
        Status = LoadIncludeExclude(Kind, Rule, Parsed.Body + ListsOffset, Parsed.BodyAvailable - ListsOffset,
                                    PolicyUlong(Fields + Kind.IncludeCount), PolicyUlong(Fields + Kind.ExcludeCount));
        // A file rule whose filters fail is released in place; it stays in
        // the set, cleared and counted. The other kinds keep what they have
        // until the set goes.
        if (!NT_SUCCESS(Status) && Kind.Category == CategoryFile) FreeFileRuleBody((FileRuleBody *)Rule);
    }
    PoolFree(Parsed.Contexts);
    if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
    return Status;
}

template <typename Set>
BOOLEAN AddArgumentsValid(Set *Target, const RuleContextEntry *Contexts, ULONG ContextCount, PCUNICODE_STRING Path,
                          PVOID Rule) {
    return Target != nullptr && ContextCount != 0 && Contexts != nullptr && Path != nullptr && Rule != nullptr;
}

}  // namespace

// ---------------------------------------------------------------- file

VOID FreeFileRuleBody(FileRuleBody *Rule) {
    if (Rule == nullptr) return;
    PoolFree(Rule->Contexts);
    FreeFilterLists(Rule, CategoryFile);
    FreeUnicodeString(&Rule->Path);
    RtlZeroMemory(Rule, sizeof(*Rule));
}

NTSTATUS AddMonitorFileRule(MonitorFileRuleSet *Set, ULONG RuleCategory, ULONG RuleType,
                            const RuleContextEntry *Contexts, ULONG ContextCount, LONG Depth, PCUNICODE_STRING Path,
                            ULONG OperationMask, ULONG OperationMask2, UCHAR RuleFlags, FileRuleBody **Rule) {
    if (!AddArgumentsValid(Set, Contexts, ContextCount, Path, Rule) || Set->RuleCount >= Set->Capacity) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    // A file rule must watch an operation that a file has; a directory rule
    // may watch one of either mask. Other types are not judged here.
    if ((RuleType == Format::FileRuleTypeFile && (OperationMask & Format::FileOperations) == 0) ||
        (RuleType == Format::FileRuleTypeDirectory && (OperationMask2 & Format::DirectoryOperations2) == 0 &&
         (OperationMask & Format::FileOperations) == 0)) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    return AddRuleBody(Set, Rule, [&](FileRuleBody *Body) {
        const NTSTATUS Status = InitBodyCommon(Contexts, ContextCount, Path, TRUE, &Body->Contexts, &Body->Path);
        Body->RuleCategory = RuleCategory;
        Body->RuleType = RuleType;
        Body->ContextCount = ContextCount;
        Body->Depth = Depth;
        Body->OperationMask = OperationMask;
        Body->OperationMask2 = OperationMask2;
        Body->RuleFlags = RuleFlags;
        return Status;
    });
}

NTSTATUS ParseMonitorFileRule(MonitorFileRuleSet *Set, PUCHAR Record, ULONG RecordSize) {
    return ParsePathRule<MonitorFileRuleSet, FileRuleBody>(
        FileKind, Set, Record, RecordSize,
        [](MonitorFileRuleSet *Target, const ParsedRecord &Parsed, PCUNICODE_STRING Path, PCUNICODE_STRING,
           FileRuleBody **Rule) {
            const PUCHAR Body = Parsed.Body;
            return AddMonitorFileRule(Target, Parsed.Category, Parsed.RuleType, Parsed.Contexts, Parsed.ContextCount,
                                      (LONG)PolicyUlong(Body + Format::FileBody::Depth), Path,
                                      PolicyUlong(Body + Format::FileBody::OperationMask),
                                      PolicyUlong(Body + Format::FileBody::OperationMask2),
                                      (UCHAR)PolicyUlong(Body + Format::FileBody::RuleFlags), Rule);
        });
}

// ---------------------------------------------------------------- registry

VOID FreeRegistryRuleBody(RegistryRuleBody *Rule) {
    if (Rule == nullptr) return;
    PoolFree(Rule->Contexts);
    FreeFilterLists(Rule, CategoryRegistry);
    FreeUnicodeString(&Rule->Path);
    FreeUnicodeString(&Rule->ValueName);
    RtlZeroMemory(Rule, sizeof(*Rule));
}

NTSTATUS AddMonitorRegistryRule(MonitorRegistryRuleSet *Set, ULONG RuleCategory, ULONG RuleType,
                                const RuleContextEntry *Contexts, ULONG ContextCount, LONG Depth,
                                PCUNICODE_STRING Path, PCUNICODE_STRING ValueName, ULONG OperationMask,
                                ULONG OperationMask2, RegistryRuleBody **Rule) {
    if (!AddArgumentsValid(Set, Contexts, ContextCount, Path, Rule) ||
        (RuleType == Format::RegistryRuleTypeValue && ValueName == nullptr)) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    if (Set->RuleCount >= Set->Capacity) return STATUS_BUFFER_OVERFLOW;
    if (((OperationMask | OperationMask2) & Format::RegistryOperations) == 0) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    return AddRuleBody(Set, Rule, [&](RegistryRuleBody *Body) {
        NTSTATUS Status = InitBodyCommon(Contexts, ContextCount, Path, TRUE, &Body->Contexts, &Body->Path);
        if (NT_SUCCESS(Status) && ValueName != nullptr && ValueName->Length != 0) {
            Status = CompilePolicyText(&Body->ValueName, ValueName);
            if (!NT_SUCCESS(Status)) {
                PoolFree(Body->Contexts);
                FreeUnicodeString(&Body->Path);
            }
        }
        Body->RuleCategory = RuleCategory;
        Body->RuleType = RuleType;
        Body->ContextCount = ContextCount;
        Body->Depth = Depth;
        Body->OperationMask = OperationMask;
        Body->OperationMask2 = OperationMask2;
        return Status;
    });
}

NTSTATUS ParseMonitorRegistryRule(MonitorRegistryRuleSet *Set, PUCHAR Record, ULONG RecordSize) {
    return ParsePathRule<MonitorRegistryRuleSet, RegistryRuleBody>(
        RegistryKind, Set, Record, RecordSize,
        [](MonitorRegistryRuleSet *Target, const ParsedRecord &Parsed, PCUNICODE_STRING Path,
           PCUNICODE_STRING Value, RegistryRuleBody **Rule) {
            const PUCHAR Body = Parsed.Body;
            return AddMonitorRegistryRule(Target, Parsed.Category, Parsed.RuleType, Parsed.Contexts,
                                          Parsed.ContextCount, (LONG)PolicyUlong(Body + Format::RegistryBody::Depth),
                                          Path, Value, PolicyUlong(Body + Format::RegistryBody::OperationMask),
                                          PolicyUlong(Body + Format::RegistryBody::OperationMask2), Rule);
        });
}

// ---------------------------------------------------------------- process and system

VOID FreeProcessRuleBody(ProcessRuleBody *Rule, ULONG Category) {
    if (Rule == nullptr) return;
    PoolFree(Rule->Contexts);
    FreeFilterLists(Rule, Category);
    FreeUnicodeString(&Rule->Path);
    RtlZeroMemory(Rule, sizeof(*Rule));
}

namespace {

NTSTATUS AddProcessLikeRule(MonitorRuleSet<ProcessRuleBody> *Set, ULONG RuleCategory, ULONG RuleType,
                            const RuleContextEntry *Contexts, ULONG ContextCount, LONG Depth, PCUNICODE_STRING Path,
                            ULONG OperationMask, BOOLEAN IsSystem, ProcessRuleBody **Rule) {
    if (!AddArgumentsValid(Set, Contexts, ContextCount, Path, Rule) || (IsSystem && Path->Length == 0)) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    if (Set->RuleCount >= Set->Capacity) {
        if (IsSystem) TRACE_STATUS(STATUS_BUFFER_OVERFLOW);
        return STATUS_BUFFER_OVERFLOW;
    }
    if ((OperationMask & (IsSystem ? Format::SystemOperations : Format::ProcessOperations)) == 0) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    return AddRuleBody(Set, Rule, [&](ProcessRuleBody *Body) {
        // A process rule keeps a trailing backslash; a system rule drops one.
        const NTSTATUS Status = InitBodyCommon(Contexts, ContextCount, Path, IsSystem, &Body->Contexts, &Body->Path);
        Body->RuleCategory = RuleCategory;
        Body->RuleType = RuleType;
        Body->ContextCount = ContextCount;
        Body->Depth = Depth;
        Body->OperationMask = OperationMask;
        return Status;
    });
}

template <typename Set>
NTSTATUS ParseProcessLikeRule(const PathRuleKind &Kind, Set *Target, PUCHAR Record, ULONG RecordSize) {
    const BOOLEAN IsSystem = Kind.Category == CategorySystem;
    return ParsePathRule<Set, ProcessRuleBody>(
        Kind, Target, Record, RecordSize,
        [IsSystem](Set *Into, const ParsedRecord &Parsed, PCUNICODE_STRING Path, PCUNICODE_STRING,
                   ProcessRuleBody **Rule) {
            // Process and system bodies share one layout.
            const PUCHAR Body = Parsed.Body;
            return AddProcessLikeRule(Into, Parsed.Category, Parsed.RuleType, Parsed.Contexts, Parsed.ContextCount,
                                      (LONG)PolicyUlong(Body + Format::ProcessBody::Depth), Path,
                                      PolicyUlong(Body + Format::ProcessBody::OperationMask), IsSystem, Rule);
        });
}

}  // namespace

NTSTATUS AddMonitorProcessRule(MonitorProcessRuleSet *Set, ULONG RuleCategory, ULONG RuleType,
                               const RuleContextEntry *Contexts, ULONG ContextCount, LONG Depth,
                               PCUNICODE_STRING Path, ULONG OperationMask, ProcessRuleBody **Rule) {
    return AddProcessLikeRule(Set, RuleCategory, RuleType, Contexts, ContextCount, Depth, Path, OperationMask, FALSE,
                              Rule);
}

NTSTATUS AddMonitorSystemRule(MonitorSystemRuleSet *Set, ULONG RuleCategory, ULONG RuleType,
                              const RuleContextEntry *Contexts, ULONG ContextCount, LONG Depth,
                              PCUNICODE_STRING Path, ULONG OperationMask, SystemRuleBody **Rule) {
    return AddProcessLikeRule(Set, RuleCategory, RuleType, Contexts, ContextCount, Depth, Path, OperationMask, TRUE,
                              Rule);
}

NTSTATUS ParseMonitorProcessRule(MonitorProcessRuleSet *Set, PUCHAR Record, ULONG RecordSize) {
    return ParseProcessLikeRule(ProcessKind, Set, Record, RecordSize);
}

NTSTATUS ParseMonitorSystemRule(MonitorSystemRuleSet *Set, PUCHAR Record, ULONG RecordSize) {
    return ParseProcessLikeRule(SystemKind, Set, Record, RecordSize);
}
