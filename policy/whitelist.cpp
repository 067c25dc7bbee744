// Whitelist rules: a process image whose operations the agent stops
// watching, under which command-line arguments and parent processes. One
// filter list, whose filters use the argument and parent lists only, and no
// time of day.
#include "policy/monitor.h"

#include "base/strings.h"
#include "base/trace.h"
#include "diagnostics/eventlog.h"

namespace {

namespace Format = MonitorFormat;

}  // namespace

VOID FreeWhiteListRuleBody(WhiteListRuleBody *Rule) {
    if (Rule == nullptr) return;
    PoolFree(Rule->Contexts);
    if (Rule->IncludeFilters != nullptr) {
        for (ULONG Index = 0; Index < Rule->IncludeCount; ++Index)
            FreeRuleFilter(&Rule->IncludeFilters[Index], CategoryWhiteList);
        PoolFree(Rule->IncludeFilters);
    }
    FreeUnicodeString(&Rule->Path);
    RtlZeroMemory(Rule, sizeof(*Rule));
}

NTSTATUS AddMonitorWhiteListRule(MonitorWhiteListRuleSet *Set, ULONG RuleCategory, ULONG RuleType,
                                 const RuleContextEntry *Contexts, ULONG ContextCount, PCUNICODE_STRING Path,
                                 ULONG OperationMask, WhiteListRuleBody **Rule) {
    if (Set == nullptr || ContextCount == 0 || Contexts == nullptr || Path == nullptr || Rule == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    if (Set->RuleCount >= Set->Capacity) return STATUS_BUFFER_OVERFLOW;
    // Any OperationMask is taken, 0 included, and the path keeps a trailing
    // backslash.
    return AddRuleBody(Set, Rule, [&](WhiteListRuleBody *Body) {
        NTSTATUS Status = CopyRuleContexts(Contexts, ContextCount, &Body->Contexts);
        if (NT_SUCCESS(Status)) {
            Status = CompilePolicyText(&Body->Path, Path);
            if (!NT_SUCCESS(Status)) PoolFree(Body->Contexts);
        }
        Body->RuleCategory = RuleCategory;
        Body->RuleType = RuleType;
        Body->ContextCount = ContextCount;
        Body->OperationMask = OperationMask;
        return Status;
    });
}

NTSTATUS AddWhiteListFilter(WhiteListRuleBody *Rule, ULONG Conditions, RuleFilter **FilterOut) {
    if (Rule == nullptr || FilterOut == nullptr) return STATUS_INVALID_PARAMETER;
    const NTSTATUS Status = AppendElement(&Rule->IncludeFilters, &Rule->IncludeCount,
                                          [Conditions](RuleFilter *Filter) { return InitRuleFilter(Filter, Conditions, 0); });
    if (NT_SUCCESS(Status)) *FilterOut = &Rule->IncludeFilters[Rule->IncludeCount - 1];
    return Status;
}

NTSTATUS LoadWhiteListFilters(WhiteListRuleBody *Rule, PUCHAR Records, ULONG Count, ULONG Reserved,
                              ULONG Available, ULONG *SizeOut) {
    if (Rule == nullptr || Records == nullptr || SizeOut == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    *SizeOut = 0;
    if (Count == 0) return STATUS_SUCCESS;
    NTSTATUS Status = STATUS_SUCCESS;
    ULONG Offset = 0;
    if (!PolicyFits(0, sizeof(ULONG), Available)) {
        Status = STATUS_DATA_ERROR;
    } else if (PolicyUlong(Records + Format::RuleFilter::Magic) != Format::WhiteListFilterMagic) {
        // The first filter alone is tested, as in every rule family.
        ReportPolicyRecordMismatch(WIDE("Whitelist Rule Filter Header"), PolicyUlong(Records + Format::RuleFilter::Magic),
                                   Format::WhiteListFilterMagic & Format::MagicVersionMask);
        Status = STATUS_INVALID_PARAMETER;
    }
    for (ULONG Index = 0; NT_SUCCESS(Status) && Index < Count; ++Index) {
        if (Reserved != 0) {
            Status = STATUS_INVALID_PARAMETER;
            break;
        }
        if (!PolicyFits(Offset, Format::RuleFilter::Size, Available)) {
            Status = STATUS_DATA_ERROR;
            break;
        }
        PUCHAR Header = Records + Offset;
        RuleFilter *Filter = nullptr;
        Status = AddWhiteListFilter(Rule, PolicyUlong(Header + Format::RuleFilter::Conditions), &Filter);
        if (!NT_SUCCESS(Status)) break;
        // Patterns, actors and usernames have no meaning for a whitelist rule.
        if (PolicyUlong(Header + Format::RuleFilter::PatternCount) != 0 ||
            PolicyUlong(Header + Format::RuleFilter::ActorProcessCount) != 0 ||
            PolicyUlong(Header + Format::RuleFilter::ActorUsernameCount) != 0) {
            Status = STATUS_INVALID_PARAMETER;
            break;
        }
        ULONG Consumed = Format::RuleFilter::Size, Size = 0;
        const ULONG Arguments = PolicyUlong(Header + Format::RuleFilter::ArgumentCount),
                    Parents = PolicyUlong(Header + Format::RuleFilter::ParentProcessCount);
        if (Arguments != 0) {
            Status = LoadArgumentFilters(Filter, Header + Consumed, Arguments, Available - Offset - Consumed, &Size);
            if (!NT_SUCCESS(Status)) break;
            Consumed += Size;
        }
        if (Parents != 0) {
            Status = LoadParentProcessFilters(Filter, Header + Consumed, Parents, Available - Offset - Consumed, &Size);
            if (!NT_SUCCESS(Status)) break;
            Consumed += Size;
        }
        Offset += Consumed;
    }
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        // The rule is released whole; it stays in the set, cleared and counted.
        FreeWhiteListRuleBody(Rule);
        return Status;
    }
    *SizeOut = Offset;
    return STATUS_SUCCESS;
}

NTSTATUS ParseMonitorWhiteListRule(MonitorWhiteListRuleSet *Set, PUCHAR Record, ULONG RecordSize) {
    if (Set == nullptr || Record == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    ParsedRecord Parsed;
    PolicyText Path;
    WhiteListRuleBody *Rule = nullptr;
    NTSTATUS Status = ParseRecordHead(Record, RecordSize, Format::WhiteListBodyMagic,
                                      WIDE("Whitelist Rule Body Header"), Format::WhiteListBody::Size, &Parsed);
    if (NT_SUCCESS(Status))
        Status = ReadPolicyString(Parsed.Body + Format::WhiteListBody::Path, Parsed.Body + Format::WhiteListBody::Size,
                                  Parsed.BodyAvailable - Format::WhiteListBody::Size, FALSE, &Path);
    if (NT_SUCCESS(Status))
        Status = AddMonitorWhiteListRule(Set, Parsed.Category, Parsed.RuleType, Parsed.Contexts, Parsed.ContextCount,
                                         &Path.View, PolicyUlong(Parsed.Body + Format::WhiteListBody::OperationMask),
                                         &Rule);
    if (NT_SUCCESS(Status)) {
        const ULONG ListsOffset = Format::WhiteListBody::Size + Path.View.MaximumLength;
        ULONG Size = 0;
        Status = LoadWhiteListFilters(Rule, Parsed.Body + ListsOffset,
                                      PolicyUlong(Parsed.Body + Format::WhiteListBody::IncludeCount), 0,
                                      Parsed.BodyAvailable - ListsOffset, &Size);
    }
    PoolFree(Parsed.Contexts);
    if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
    return Status;
}
