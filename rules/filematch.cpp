// File monitor matching: which rules of the EDR and FIM file sets does one
// file event fall under? Every rule is visited and every match is merged
// into the result, in rule order. The walk tests numbers before strings:
// object type and operation first, then the path, and within a filter the
// numeric conditions ahead of the name patterns, with the time of day, which
// calls into the kernel, last.
#include "platform/nt.h"

#include "base/strings.h"
#include "base/trace.h"
#include "include/texprt.h"
#include "rules/match.h"
#include "rules/store.h"

namespace {

constexpr ULONG FileRuleType = 2;       // Path is one file
constexpr ULONG DirectoryRuleType = 3;  // Path is a tree, bounded by Depth

// An event with either bit passes every rule's operation test.
constexpr USHORT PrivilegedFileOperations = 0x01 | 0x40;

BOOLEAN SizeHolds(ULONG Operator, ULONGLONG Size, ULONGLONG Operand) {
    switch (Operator) {
    case 1: return Size > Operand;
    case 2: return Size >= Operand;
    case 3: return Size == Operand;
    case 4: return Size <= Operand;
    case 5: return Size < Operand;
    default: return FALSE;
    }
}

BOOLEAN FileObjectKindHolds(ULONG ObjectKind, ULONG ObjectType) {
    // A directory filter takes files too.
    if (ObjectKind == TEXPRT_OBJECT_DIRECTORY)
        return ObjectType == TEXPRT_OBJECT_DIRECTORY || ObjectType == TEXPRT_OBJECT_FILE;
    return ObjectType == ObjectKind;
}

// One filter: a failed object kind ends the test at once; after the
// attributes, each condition runs only while everything wanted so far held.
BOOLEAN FileFilterMatches(const RuleFilter *Filter, const FileObject *Object, PCUNICODE_STRING Base) {
    ConditionTally Tally = {};
    const ULONG Conditions = Filter->Conditions;
    if (Conditions & ConditionObjectKind) {
        if (!FileObjectKindHolds(Filter->ObjectKind, Object->ObjectType)) return FALSE;
        Tally.Record(ConditionObjectKind, TRUE);
    }
    if (Conditions & ConditionAttributes)
        Tally.Record(ConditionAttributes, (Object->Attributes & Filter->AttributeMask) == Filter->AttributeMask);
    if ((Conditions & ConditionSize) && Tally.AllMet())
        Tally.Record(ConditionSize, SizeHolds(Filter->SizeOperator, Object->Size, Filter->SizeOperand));
    if ((Conditions & ConditionPatterns) && Tally.AllMet())
        Tally.Record(ConditionPatterns,
                     MatchesNamePatterns(&Object->Name, Base, Filter->FilterPatternCount, Filter->FilterPatterns));
    TallyActorConditions(Filter, &Object->EventInfo, TRUE, &Tally);
    return Tally.Matches();
}

// The rule's own tests, ahead of its filters. Base receives the path that
// patterns and depth count from.
BOOLEAN FileRuleApplies(const FileRuleBody *Rule, const FileObject *Object, UNICODE_STRING *Base) {
    const BOOLEAN Privileged = (Object->Operation & PrivilegedFileOperations) != 0;
    if (Rule->RuleType == FileRuleType) {
        if (Object->ObjectType != TEXPRT_OBJECT_FILE) return FALSE;
        if (!Privileged && (Rule->OperationMask & Object->Operation) == 0) return FALSE;
        // The whole name, case-sensitive: both sides are upper-cased.
        if (RtlCompareUnicodeString(&Rule->Path, &Object->Name, FALSE) != 0) return FALSE;
        *Base = Rule->Path;
        return TRUE;
    }
    if (Object->ObjectType != TEXPRT_OBJECT_FILE && Object->ObjectType != TEXPRT_OBJECT_DIRECTORY) return FALSE;
    if (!Privileged) {
        const ULONG Mask =
            Object->ObjectType == TEXPRT_OBJECT_DIRECTORY ? Rule->OperationMask2 : Rule->OperationMask;
        if ((Mask & Object->Operation) == 0) return FALSE;
    }
    // A path beginning with "*" stands for any volume: the event's own.
    *Base = (Rule->Path.Length != 0 && Rule->Path.Buffer[0] == WIDE('*')) ? Object->VolumePrefix : Rule->Path;
    if (!IsSubPath(Base, &Object->Name, TRUE)) return FALSE;
    return IsWithinDepth(&Object->Name, Base, Rule->Depth);
}

NTSTATUS WalkFileRules(const MonitorFileRuleSet *Set, const FileObject *Object, FilterResult *Result) {
    for (ULONG Index = 0; Index < Set->RuleCount; ++Index) {
        const FileRuleBody *Rule = &Set->Rules[Index];
        if (Rule->RuleType != FileRuleType && Rule->RuleType != DirectoryRuleType) {
            TRACE_STATUS(STATUS_INVALID_PARAMETER);
            return STATUS_INVALID_PARAMETER;
        }
        UNICODE_STRING Base;
        if (!FileRuleApplies(Rule, Object, &Base)) continue;
        auto Test = [&](const RuleFilter *Filter, BOOLEAN) { return FileFilterMatches(Filter, Object, &Base); };
        if (!RulePassesFilters(Rule->ExcludeCount, Rule->ExcludeFilters, Rule->IncludeCount, Rule->IncludeFilters,
                               Result, Test))
            continue;
        Result->FileOperations |= Rule->OperationMask;
        Result->DirectoryOperations |= Rule->OperationMask2;
        const NTSTATUS Status = WriteRuleVerdict(Result, Rule->ContextCount, Rule->Contexts, Rule->RuleFlags);
        // A file rule's flags go into the result as well, even when its
        // contexts could not be added; a directory rule's flags travel only
        // in its contexts.
        if (Rule->RuleType == FileRuleType) Result->RuleFlags |= Rule->RuleFlags;
        if (!NT_SUCCESS(Status)) return Status;
    }
    return STATUS_SUCCESS;
}

// Is some rule's path at or below the network redirector? An unknown rule
// type ends the search of the set.
BOOLEAN SetHasNetworkRule(const MonitorFileRuleSet *Set) {
    const UNICODE_STRING Mup = CONST_UNICODE_STRING(WIDE("\\device\\mup"));
    for (ULONG Index = 0; Index < Set->RuleCount; ++Index) {
        const FileRuleBody *Rule = &Set->Rules[Index];
        if (Rule->RuleType != FileRuleType && Rule->RuleType != DirectoryRuleType) return FALSE;
        if (IsSubPath(&Mup, &Rule->Path, TRUE)) return TRUE;
    }
    return FALSE;
}

}  // namespace

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeMatchesMonitorFileRuleSet(FileObject *Object, WhiteListState *State,
                                                            FilterResult *Result) {
    EXPORT_ENTRY(TcTFeMatchesMonitorFileRuleSet);
    if (Object == nullptr || State == nullptr || Result == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    return MatchEdrThenFim(&MonitorRuleSets::File, State, ExemptFile, Result,
                           [&](const MonitorFileRuleSet *Set) { return WalkFileRules(Set, Object, Result); });
}

TEXPRT_EXPORT BOOLEAN NTAPI TcTFeIsMonitorFileRuleSetHasUNCRule() {
    EXPORT_ENTRY(TcTFeIsMonitorFileRuleSetHasUNCRule);
    MatchFrame Frame(&MonitorRuleLock, MatchFrame::Shared);
    if (!NT_SUCCESS(Frame.Status())) return FALSE;
    BOOLEAN Found = FALSE;
    if (EdrRuleSets.File != nullptr) Found = SetHasNetworkRule(EdrRuleSets.File);
    if (!Found && FimRuleSets.File != nullptr) Found = SetHasNetworkRule(FimRuleSets.File);
    return Found;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeUnsetBaselineFlagFileRuleSet(MatchedContext *Entries, ULONG Size) {
    EXPORT_ENTRY(TcTFeUnsetBaselineFlagFileRuleSet);
    if (Entries == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    // The one place where the match path writes into a live rule: the lock
    // is taken exclusive.
    MatchFrame Frame(&MonitorRuleLock, MatchFrame::Exclusive);
    const NTSTATUS Status = Frame.Status();
    if (!NT_SUCCESS(Status)) return Status;
    MonitorFileRuleSet *Set = FimRuleSets.File;
    if (Set != nullptr) {
        for (ULONG Entry = 0; Entry < Size / sizeof(MatchedContext); ++Entry) {
            const ULONG *RuleId = Entries[Entry].RuleId;
            BOOLEAN Found = FALSE;
            for (ULONG Index = 0; Index < Set->RuleCount && !Found; ++Index) {
                FileRuleBody *Rule = &Set->Rules[Index];
                if (Rule->RuleType != FileRuleType) continue;
                for (ULONG Context = 0; Context < Rule->ContextCount; ++Context) {
                    const ULONG *Id = Rule->Contexts[Context].RuleId;
                    if (Id[0] == RuleId[0] && Id[1] == RuleId[1] && Id[2] == RuleId[2] && Id[3] == RuleId[3]) {
                        Rule->RuleFlags &= (UCHAR)~TEXPRT_RULE_FLAG_BASELINE;
                        Found = TRUE;
                        break;
                    }
                }
            }
        }
    }
    return Status;
}

TEXPRT_EXPORT BOOLEAN NTAPI TcTFeIsSubPathOfRulePath(PCUNICODE_STRING RulePath, PCUNICODE_STRING Name,
                                                     BOOLEAN IgnoreCase) {
    EXPORT_ENTRY(TcTFeIsSubPathOfRulePath);
    return IsSubPath(RulePath, Name, IgnoreCase);
}
