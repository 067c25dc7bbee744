// Registry, process and system monitor matching: the shape of the file
// matcher (the same frame, the same two families, the same union of every
// matching rule), each with its own rule tests and filter conditions.
#include "platform/nt.h"

#include "base/trace.h"
#include "include/texprt.h"
#include "rules/match.h"
#include "rules/store.h"

namespace {

constexpr ULONG KeyRuleType = 4;
constexpr ULONG ValueRuleType = 5;

// A registry event with this bit passes every rule's operation test.
constexpr USHORT PrivilegedRegistryOperation = 0x02;

// A code filter's FilterValue that stands for every non-zero code.
constexpr USHORT AnyProcessCode = 3;

BOOLEAN StartsWithStar(PCUNICODE_STRING Path) { return Path->Length != 0 && Path->Buffer[0] == WIDE('*'); }

// A process or system filter: patterns below the rule path, then the actor,
// username and time conditions, each tested whatever the earlier ones gave.
BOOLEAN EveryConditionMatches(const RuleFilter *Filter, PCUNICODE_STRING Name, PCUNICODE_STRING Base,
                              const EventInfo *Event) {
    ConditionTally Tally = {};
    if (Filter->Conditions & ConditionPatterns)
        Tally.Record(ConditionPatterns,
                     MatchesNamePatterns(Name, Base, Filter->FilterPatternCount, Filter->FilterPatterns));
    TallyActorConditions(Filter, Event, FALSE, &Tally);
    return Tally.Matches();
}

// ---------------------------------------------------------------- registry

BOOLEAN RegistryFilterMatches(const RuleFilter *Filter, const RegistryRuleBody *Rule, const RegistryObject *Object) {
    ConditionTally Tally = {};
    const ULONG Conditions = Filter->Conditions;
    if (Conditions & ConditionObjectKind) {
        // A key filter takes the key's values too.
        const BOOLEAN Holds = Filter->ObjectKind == TEXPRT_OBJECT_REGISTRY_KEY
                                  ? (Object->ObjectType == TEXPRT_OBJECT_REGISTRY_KEY ||
                                     Object->ObjectType == TEXPRT_OBJECT_REGISTRY_VALUE)
                                  : Object->ObjectType == Filter->ObjectKind;
        if (!Holds) return FALSE;
        Tally.Record(ConditionObjectKind, TRUE);
    }
    if ((Conditions & ConditionPatterns) && Tally.AllMet())
        Tally.Record(ConditionPatterns,
                     MatchesRegistryPatterns(&Object->KeyName, &Object->ValueName, &Rule->Path, Filter->ObjectKind,
                                             Filter->FilterPatternCount, Filter->FilterPatterns));
    TallyActorConditions(Filter, &Object->EventInfo, TRUE, &Tally);
    return Tally.Matches();
}

// A value rule covers the values below its key whose names begin with its
// value name; a key rule covers keys and values down to its depth.
BOOLEAN RegistryRuleApplies(const RegistryRuleBody *Rule, const RegistryObject *Object) {
    const BOOLEAN Privileged = (Object->Operation & PrivilegedRegistryOperation) != 0;
    if (Rule->RuleType == ValueRuleType && Object->ObjectType == TEXPRT_OBJECT_REGISTRY_VALUE) {
        if (!Privileged && (Rule->OperationMask2 & Object->Operation) == 0) return FALSE;
        if (Object->ValueName.Length < Rule->ValueName.Length) return FALSE;
        if (!IsSubPath(&Rule->Path, &Object->KeyName, TRUE)) return FALSE;
        return Rule->ValueName.Length == 0 ||
               RtlEqualMemory(Object->ValueName.Buffer, Rule->ValueName.Buffer, Rule->ValueName.Length);
    }
    if (Rule->RuleType == KeyRuleType && (Object->ObjectType == TEXPRT_OBJECT_REGISTRY_KEY ||
                                          Object->ObjectType == TEXPRT_OBJECT_REGISTRY_VALUE)) {
        if (!Privileged) {
            const ULONG Mask =
                Object->ObjectType == TEXPRT_OBJECT_REGISTRY_KEY ? Rule->OperationMask : Rule->OperationMask2;
            if ((Mask & Object->Operation) == 0) return FALSE;
        }
        if (!IsSubPath(&Rule->Path, &Object->KeyName, TRUE)) return FALSE;
        return IsWithinDepth(&Object->KeyName, &Rule->Path, Rule->Depth);
    }
    // Any other rule type, or a key event under a value rule: passed over.
    return FALSE;
}

NTSTATUS WalkRegistryRules(const MonitorRegistryRuleSet *Set, const RegistryObject *Object, FilterResult *Result) {
    for (ULONG Index = 0; Index < Set->RuleCount; ++Index) {
        const RegistryRuleBody *Rule = &Set->Rules[Index];
        if (!RegistryRuleApplies(Rule, Object)) continue;
        auto Test = [&](const RuleFilter *Filter, BOOLEAN) { return RegistryFilterMatches(Filter, Rule, Object); };
        if (!RulePassesFilters(Rule->ExcludeCount, Rule->ExcludeFilters, Rule->IncludeCount, Rule->IncludeFilters,
                               Result, Test))
            continue;
        Result->KeyOperations |= Rule->OperationMask;
        Result->ValueOperations |= Rule->OperationMask2;
        const NTSTATUS Status = WriteRuleVerdict(Result, Rule->ContextCount, Rule->Contexts, 0);
        if (!NT_SUCCESS(Status)) return Status;
    }
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------- process

// An event with a process code is matched by code filters alone; an
// ordinary event by every condition of the filter, each tested whatever the
// earlier ones gave.
BOOLEAN ProcessFilterMatches(const RuleFilter *Filter, const ProcessRuleBody *Rule, const ProcessObject *Object) {
    if (Object->ProcessCode != 0)
        return (Filter->Conditions & ConditionFilterValue) != 0 &&
               (Filter->FilterValue == AnyProcessCode || Filter->FilterValue == Object->ProcessCode);
    return EveryConditionMatches(Filter, &Object->Name, &Rule->Path, &Object->EventInfo);
}

NTSTATUS WriteProcessVerdict(const ProcessRuleBody *Rule, FilterResult *Result) {
    Result->ProcessOperations |= Rule->OperationMask;
    return WriteRuleVerdict(Result, Rule->ContextCount, Rule->Contexts, 0);
}

NTSTATUS WalkProcessRules(const MonitorProcessRuleSet *Set, const ProcessObject *Object, FilterResult *Result) {
    for (ULONG Index = 0; Index < Set->RuleCount; ++Index) {
        const ProcessRuleBody *Rule = &Set->Rules[Index];
        if ((Rule->OperationMask & Object->Operation) == 0) continue;
        // A path beginning with "*" applies to every name; the depth still
        // counts from the rule path's own length.
        if (!StartsWithStar(&Rule->Path) && !IsSubPath(&Rule->Path, &Object->Name, TRUE)) continue;
        if (!IsWithinDepth(&Object->Name, &Rule->Path, Rule->Depth)) continue;

        BOOLEAN Excluded = FALSE;
        for (ULONG Filter = 0; Filter < Rule->ExcludeCount; ++Filter) {
            if (!ProcessFilterMatches(&Rule->ExcludeFilters[Filter], Rule, Object)) continue;
            if (Rule->ExcludeFilters[Filter].Conditions & ConditionActorUsername) {
                Result->ExclusionSeen |= ExclusionSeenBit;
            } else {
                Excluded = TRUE;
            }
            break;
        }
        if (Excluded) continue;

        // Include filters of the kind that does not apply to this event do
        // not bind it: the closing test writes a verdict when the rule has
        // none of the applying kind ahead of the first match.
        ULONG CodeFilters = 0, PlainFilters = 0;
        NTSTATUS Status = STATUS_SUCCESS;
        for (ULONG Filter = 0; Filter < Rule->IncludeCount; ++Filter) {
            const RuleFilter *Include = &Rule->IncludeFilters[Filter];
            if (Include->Conditions & ConditionFilterValue) {
                ++CodeFilters;
            } else {
                ++PlainFilters;
            }
            if (ProcessFilterMatches(Include, Rule, Object)) {
                Status = WriteProcessVerdict(Rule, Result);
                break;
            }
        }
        // Also after a verdict, and after a failed one: a code filter that
        // matched an ordinary event with no plain filter ahead of it lists
        // the rule's contexts twice.
        if ((Object->ProcessCode != 0 && CodeFilters == 0) || (Object->ProcessCode == 0 && PlainFilters == 0)) {
            const NTSTATUS Closing = WriteProcessVerdict(Rule, Result);
            if (NT_SUCCESS(Status)) Status = Closing;
        }
        if (!NT_SUCCESS(Status)) return Status;
    }
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------- system

// No operation and no depth test: a system rule is its path and filters.
NTSTATUS WalkSystemRules(const MonitorSystemRuleSet *Set, const SystemObject *Object, FilterResult *Result) {
    for (ULONG Index = 0; Index < Set->RuleCount; ++Index) {
        const SystemRuleBody *Rule = &Set->Rules[Index];
        if (!StartsWithStar(&Rule->Path) && !IsSubPath(&Rule->Path, &Object->Name, TRUE)) continue;
        auto Test = [&](const RuleFilter *Filter, BOOLEAN) {
            return EveryConditionMatches(Filter, &Object->Name, &Rule->Path, &Object->EventInfo);
        };
        if (!RulePassesFilters(Rule->ExcludeCount, Rule->ExcludeFilters, Rule->IncludeCount, Rule->IncludeFilters,
                               Result, Test))
            continue;
        Result->SystemOperations |= Rule->OperationMask;
        const NTSTATUS Status = WriteRuleVerdict(Result, Rule->ContextCount, Rule->Contexts, 0);
        if (!NT_SUCCESS(Status)) return Status;
    }
    return STATUS_SUCCESS;
}

NTSTATUS RefuseNull() {
    TRACE_STATUS(STATUS_INVALID_PARAMETER);
    return STATUS_INVALID_PARAMETER;
}

}  // namespace

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeMatchesMonitorRegistryRuleSet(RegistryObject *Object, WhiteListState *State,
                                                                FilterResult *Result) {
    EXPORT_ENTRY(TcTFeMatchesMonitorRegistryRuleSet);
    if (Object == nullptr || State == nullptr || Result == nullptr) return RefuseNull();
    return MatchEdrThenFim(&MonitorRuleSets::Registry, State, ExemptRegistry, Result,
                           [&](const MonitorRegistryRuleSet *Set) { return WalkRegistryRules(Set, Object, Result); });
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeMatchesMonitorProcessRuleSet(ProcessObject *Object, WhiteListState *State,
                                                               FilterResult *Result) {
    EXPORT_ENTRY(TcTFeMatchesMonitorProcessRuleSet);
    if (Object == nullptr || State == nullptr || Result == nullptr) return RefuseNull();
    return MatchEdrThenFim(&MonitorRuleSets::Process, State, ExemptProcess, Result,
                           [&](const MonitorProcessRuleSet *Set) { return WalkProcessRules(Set, Object, Result); });
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeMatchesMonitorSystemRuleSet(SystemObject *Object, WhiteListState *State,
                                                              FilterResult *Result) {
    EXPORT_ENTRY(TcTFeMatchesMonitorSystemRuleSet);
    if (Object == nullptr || State == nullptr || Result == nullptr) return RefuseNull();
    return MatchEdrThenFim(&MonitorRuleSets::System, State, ExemptSystem, Result,
                           [&](const MonitorSystemRuleSet *Set) { return WalkSystemRules(Set, Object, Result); });
}
