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

constexpr ULONG RuleFilterHeaderSize = 72;

// Which fields of the 72-byte filter header a kind keeps.
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

const PathRuleKind FileKind = {CategoryFile, 0x52424602, WIDE("File Rule Body Header"), 0x52464602,
                               WIDE("File Rule Filter Header"), FilterFields::All, 36, 8, 20, 24};
const PathRuleKind RegistryKind = {CategoryRegistry, 0x52425201, WIDE("Registry Rule Body Header"), 0x52524602,
                                   WIDE("Registry Rule Filter Header"), FilterFields::ObjectKind, 40, 4, 24, 28};
const PathRuleKind ProcessKind = {CategoryProcess, 0x52425002, WIDE("Process Rule Body Header"), 0x52504603,
                                  WIDE("Process Rule Filter Header"), FilterFields::FilterValue, 28, 4, 16, 20};
const PathRuleKind SystemKind = {CategorySystem, 0x52425301, WIDE("System Rule Body Header"), 0x52505302,
                                 WIDE("System Rule Filter Header"), FilterFields::None, 28, 4, 16, 20};

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
    const ULONG Magic = PolicyUlong(Cursor);
    if (Magic != Kind.FilterMagic) {
        ReportPolicyRecordMismatch(Kind.FilterLabel, Magic, Kind.FilterMagic & 0xFF);
        return STATUS_INVALID_PARAMETER;
    }
    ULONG Offset = 0;
    for (ULONG Index = 0; Index < Count; ++Index) {
        if (!PolicyFits(Offset, RuleFilterHeaderSize, Available)) return STATUS_DATA_ERROR;
        PUCHAR Header = Cursor + Offset;
        RuleFilter *Filter = nullptr;
        NTSTATUS Status = AppendFilter(Kind, List, ListCount, PolicyUlong(Header + 4), PolicyUlong(Header + 8), &Filter);
        if (!NT_SUCCESS(Status)) return Status;
        if (Kind.Fields == FilterFields::All) {
            Filter->AttributeMask = PolicyUlong(Header + 24);
            Filter->SizeOperator = PolicyUlong(Header + 32);
            Filter->SizeOperand = PolicyUlonglong(Header + 40);
        } else if (Kind.Fields == FilterFields::FilterValue) {
            Filter->FilterValue = PolicyUshort(Header + 28);
        }
        Filter->StartTime = DecodeTimeOfDay(PolicyUlonglong(Header + 48));
        Filter->EndTime = DecodeTimeOfDay(PolicyUlonglong(Header + 56));
        const ULONG Patterns = PolicyUlong(Header + 12), Actors = PolicyUlong(Header + 16),
                    Usernames = PolicyUlong(Header + 20);
        ULONG Consumed = RuleFilterHeaderSize, Size = 0;
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
    UNICODE_STRING Path = {}, Value = {};
    ULONG ListsOffset = 0;
    if (NT_SUCCESS(Status)) {
        PUCHAR Body = Parsed.Body;
        Status = ReadPolicyString(Body + Kind.PathHeader, Body + Kind.BodyFixedSize,
                                  Parsed.BodyAvailable - Kind.BodyFixedSize, FALSE, &Path);
        ListsOffset = Kind.BodyFixedSize + Path.MaximumLength;
        // A registry rule's value name follows the path text, taking its
        // MaximumLength even when empty; only a named value gets a reference.
        if (NT_SUCCESS(Status) && Kind.Category == CategoryRegistry) {
            if (PolicyUshort(Body + 12) != 0) {
                Status = ReadPolicyString(Body + 12, Body + ListsOffset, Parsed.BodyAvailable - ListsOffset, FALSE,
                                          &Value);
            } else if (PolicyUshort(Body + 14) > Parsed.BodyAvailable - ListsOffset) {
                Status = STATUS_DATA_ERROR;
            } else {
                Value.Buffer = (PWCH)(Body + ListsOffset);
            }
            ListsOffset += PolicyUshort(Body + 14);
        }
    }
    RuleBody *Rule = nullptr;
    if (NT_SUCCESS(Status)) Status = Add(Target, Parsed, &Path, &Value, &Rule);
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
    if ((RuleType == 2 && (OperationMask & 0x1BF) == 0) ||
        (RuleType == 3 && (OperationMask2 & 0x137) == 0 && (OperationMask & 0x1BF) == 0)) {
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
                                      (LONG)PolicyUlong(Body + 16), Path, PolicyUlong(Body + 28),
                                      PolicyUlong(Body + 32), (UCHAR)PolicyUlong(Body + 4), Rule);
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
    if (!AddArgumentsValid(Set, Contexts, ContextCount, Path, Rule) || (RuleType == 5 && ValueName == nullptr)) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    if (Set->RuleCount >= Set->Capacity) return STATUS_BUFFER_OVERFLOW;
    if (((OperationMask | OperationMask2) & 0xFF) == 0) {
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
                                          Parsed.ContextCount, (LONG)PolicyUlong(Body + 20), Path, Value,
                                          PolicyUlong(Body + 32), PolicyUlong(Body + 36), Rule);
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
    if ((OperationMask & (IsSystem ? 0x01 : 0x7F)) == 0) {
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
            const PUCHAR Body = Parsed.Body;
            return AddProcessLikeRule(Into, Parsed.Category, Parsed.RuleType, Parsed.Contexts, Parsed.ContextCount,
                                      (LONG)PolicyUlong(Body + 12), Path, PolicyUlong(Body + 24), IsSystem, Rule);
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
