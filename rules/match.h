// What every monitor matcher shares: the name comparisons, the conditions
// that read alike in every rule family, the exclude-then-include order, the
// frame around a match and the way a matched rule is written into a
// FilterResult.
//
// Nothing here copies a string or allocates, except AppendRuleContexts: the
// comparisons work on string heads that point into the event's and the
// rule's buffers, and rely on the NUL that both keep behind their text.
#pragma once

#include "platform/nt.h"

#include "base/exports.h"
#include "base/trace.h"
#include "include/texprt.h"
#include "policy/monitor.h"
#include "rules/store.h"

// ---------------------------------------------------------------- results

constexpr ULONG ExclusionSeenBit = 0x01;

NTSTATUS ResetFilterResult(FilterResult *Result);
// Appends one rule's contexts, each with the flag byte and the result's
// current ExclusionSeen. Reallocates every time; on failure the result keeps
// what it had.
NTSTATUS AppendRuleContexts(FilterResult *Result, ULONG Count, const RuleContextEntry *Contexts, UCHAR Flag);
VOID ClearWhiteListState(WhiteListState *State);
NTSTATUS CopyWhiteListState(WhiteListState *Destination, const WhiteListState *Source);
NTSTATUS MergeWhiteListState(WhiteListState *Destination, const WhiteListState *Source);

// ExemptMasks bits, one per monitor kind.
constexpr ULONG ExemptProcess = 0x01;
constexpr ULONG ExemptSystem = 0x02;
constexpr ULONG ExemptFile = 0x04;
constexpr ULONG ExemptNetwork = 0x08;
constexpr ULONG ExemptRegistry = 0x10;

// Words 0 and 1 exempt a process from the EDR sets, 2 and 3 from the FIM sets.
static inline BOOLEAN IsExemptFromEdr(const WhiteListState *State, ULONG Bit) {
    return ((State->ExemptMasks[0] | State->ExemptMasks[1]) & Bit) != 0;
}
static inline BOOLEAN IsExemptFromFim(const WhiteListState *State, ULONG Bit) {
    return ((State->ExemptMasks[2] | State->ExemptMasks[3]) & Bit) != 0;
}

// ---------------------------------------------------------------- names

// Is Child the Parent itself or a path below it? One trailing backslash on
// either side is ignored. A null string gives FALSE.
BOOLEAN IsSubPath(PCUNICODE_STRING Parent, PCUNICODE_STRING Child, BOOLEAN IgnoreCase);
// Do the path's components agree, one by one, with those of First (or, per
// component, with those of Second) up to First's end? Case-sensitive.
BOOLEAN MatchComponents(PCUNICODE_STRING Path, PCUNICODE_STRING First, PCUNICODE_STRING Second);
// The text behind the last backslash, one trailing backslash ignored; the
// whole path when there is none.
NTSTATUS GetLastComponent(PCUNICODE_STRING Path, PUNICODE_STRING Component);
// Does the name lie at most Depth directories below Base? Depth -2: any.
BOOLEAN IsWithinDepth(PCUNICODE_STRING Name, PCUNICODE_STRING Base, LONG Depth);
// Does any pattern match the part of Name below Base?
BOOLEAN MatchesNamePatterns(PCUNICODE_STRING Name, PCUNICODE_STRING Base, ULONG Count,
                            const FilterPatternElement *Patterns);
// As MatchesNamePatterns on the key, but a filter of kind 8 (values)
// compares each pattern with the whole value name.
BOOLEAN MatchesRegistryPatterns(PCUNICODE_STRING KeyName, PCUNICODE_STRING ValueName, PCUNICODE_STRING Base,
                                ULONG Kind, ULONG Count, const FilterPatternElement *Patterns);
// 1 when the path's last component equals one of the strings, else 0.
ULONG IsLastComponentListed(PCUNICODE_STRING Path, ULONG Count, const UNICODE_STRING *Strings);
// FsRtlIsNameInExpression under the exception guard: a fault is no match.
BOOLEAN IsNameInExpressionGuarded(PCUNICODE_STRING Expression, PCUNICODE_STRING Name, BOOLEAN IgnoreCase,
                                  PWCH UpcaseTable);

// ---------------------------------------------------------------- conditions

TimeOfDay *TimeOfDayFromTicks(TimeOfDay *Out, ULONGLONG Time);

// The acting process's image path (Conditions 0x10): does an element match
// its last component, or the whole path for an element with a backslash?
BOOLEAN ActorProcessHolds(const EventInfo *Event, ULONG Count, const ActorProcessElement *Elements);
// Conditions 0x20: the policy writer's verdict, any non-zero byte.
BOOLEAN ActorUsernameHolds(ULONG Count, const UCHAR *Usernames);
// Conditions 0x40: the event's local time of day within [Start, End]; no
// wrap over midnight.
BOOLEAN TimeOfDayHolds(const EventInfo *Event, const TimeOfDay *Start, const TimeOfDay *End);

// The bit sets of one filter test: a condition's bit goes into Wanted
// before it is tested and into Met when it holds. A filter matches when
// something was wanted and all of it was met.
struct ConditionTally {
    ULONG Wanted;
    ULONG Met;

    VOID Want(ULONG Bit) { Wanted |= Bit; }
    VOID Record(ULONG Bit, BOOLEAN Holds) {
        Wanted |= Bit;
        if (Holds) Met |= Bit;
    }
    BOOLEAN AllMet() const { return (Wanted & ~Met) == 0; }
    BOOLEAN Matches() const { return Wanted != 0 && AllMet(); }
};

// The common conditions of a RuleFilter (actor, username, time), in that
// order. StopOnFailure: a condition runs only while everything wanted so
// far was met.
VOID TallyActorConditions(const RuleFilter *Filter, const EventInfo *Event, BOOLEAN StopOnFailure,
                          ConditionTally *Tally);

// The exclude-then-include order of every monitor rule that passed its own
// tests. Test(Filter, Include) says whether one filter matches. An exclude
// filter with the username condition marks the event (ExclusionSeen) and
// does not drop the rule.
template <typename Filter, typename FilterTest>
BOOLEAN RulePassesFilters(ULONG ExcludeCount, const Filter *Excludes, ULONG IncludeCount, const Filter *Includes,
                          FilterResult *Result, FilterTest &&Test) {
    for (ULONG Index = 0; Index < ExcludeCount; ++Index) {
        if (!Test(&Excludes[Index], FALSE)) continue;
        if ((Excludes[Index].Conditions & ConditionActorUsername) == 0) return FALSE;
        Result->ExclusionSeen |= ExclusionSeenBit;
        break;
    }
    if (IncludeCount == 0) return TRUE;
    for (ULONG Index = 0; Index < IncludeCount; ++Index)
        if (Test(&Includes[Index], TRUE)) return TRUE;
    return FALSE;
}

// A matched rule's verdict: Status to success, then its contexts.
static inline NTSTATUS WriteRuleVerdict(FilterResult *Result, ULONG ContextCount, const RuleContextEntry *Contexts,
                                        UCHAR Flag) {
    if (Result->Status < 0) Result->Status = STATUS_SUCCESS;
    return AppendRuleContexts(Result, ContextCount, Contexts, Flag);
}

// ---------------------------------------------------------------- the frame

// Around every read of the monitor rule sets: the floating-point state is
// saved at APC_LEVEL, then the lock is taken inside a critical region; the
// frame's end undoes both in reverse order. A refused save means no
// matching: Status() gives its status, no lock is taken, and the frame's end
// has nothing to undo.
class MatchFrame {
public:
    enum LockMode { Shared, Exclusive };

    MatchFrame(PERESOURCE Lock, LockMode Mode);
    ~MatchFrame();
    MatchFrame(const MatchFrame &) = delete;
    MatchFrame &operator=(const MatchFrame &) = delete;

    NTSTATUS Status() const { return EnterStatus; }

private:
    KFLOATING_SAVE FloatSave;
    PERESOURCE Lock = nullptr;
    NTSTATUS EnterStatus;
};

// The outer call of the path matchers: reset the result, enter the frame,
// walk the EDR set of the kind unless the process is exempt from it, then,
// unless that walk failed, the FIM set likewise; the FIM walk's status
// replaces the EDR walk's.
template <typename RuleSet, typename SetWalk>
NTSTATUS MatchEdrThenFim(RuleSet *MonitorRuleSets::*Kind, const WhiteListState *State, ULONG ExemptBit,
                         FilterResult *Result, SetWalk &&Walk) {
    ResetFilterResult(Result);
    NTSTATUS Status;
    {
        MatchFrame Frame(&MonitorRuleLock, MatchFrame::Shared);
        Status = Frame.Status();
        if (!NT_SUCCESS(Status)) return Status;
        // The set pointers are read under the lock: a swap cannot free them now.
        const RuleSet *Edr = EdrRuleSets.*Kind;
        if (Edr != nullptr && !IsExemptFromEdr(State, ExemptBit)) Status = Walk(Edr);
        const RuleSet *Fim = FimRuleSets.*Kind;
        if (NT_SUCCESS(Status) && Fim != nullptr && !IsExemptFromFim(State, ExemptBit)) Status = Walk(Fim);
    }
    if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
    return Status;
}
