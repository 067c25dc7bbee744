// The comparisons and conditions that every monitor matcher shares, and the
// frame a match runs in.
#include "platform/nt.h"

#include "base/trace.h"
#include "rules/match.h"

namespace {

constexpr WCHAR Backslash = WIDE('\\');

// Both sides are upper-cased copies: an exact comparison is the lengths,
// then the bytes.
BOOLEAN EqualExact(PCUNICODE_STRING Left, PCUNICODE_STRING Right) {
    return Left->Length == Right->Length && RtlEqualMemory(Left->Buffer, Right->Buffer, Left->Length);
}

// Pattern text against one piece of a name: by the wildcard rules when the
// pattern has wildcards, else exactly.
BOOLEAN PatternEquals(PCUNICODE_STRING Pattern, BOOLEAN Wildcards, PCUNICODE_STRING Text) {
    if (Wildcards) return IsNameInExpressionGuarded(Pattern, Text, FALSE, nullptr);
    return EqualExact(Pattern, Text);
}

// The part of a name below a base: from the base's length on, without one
// leading backslash. A base longer than the name leaves an empty tail.
UNICODE_STRING TailBelow(PCUNICODE_STRING Name, PCUNICODE_STRING Base) {
    const USHORT Skip = Base->Length < Name->Length ? (USHORT)(Base->Length & ~1) : (USHORT)(Name->Length & ~1);
    UNICODE_STRING Tail;
    Tail.Buffer = Name->Buffer + Skip / sizeof(WCHAR);
    Tail.Length = (USHORT)(Name->Length - Skip);
    if (Tail.Length >= sizeof(WCHAR) && Tail.Buffer[0] == Backslash) {
        ++Tail.Buffer;
        Tail.Length -= sizeof(WCHAR);
    }
    Tail.MaximumLength = Tail.Length;
    return Tail;
}

// Walks the components of a tail from the front. The tail's text is
// followed by a NUL or by a backslash that belongs to it, so the search
// stops at the tail's end.
struct ComponentWalk {
    const WCHAR *Next;
    const WCHAR *End;
    BOOLEAN Done;

    explicit ComponentWalk(const UNICODE_STRING &Tail)
        : Next(Tail.Buffer), End(Tail.Buffer + Tail.Length / sizeof(WCHAR)), Done(FALSE) {}

    // The next component; FALSE once the last one was handed out. An empty
    // tail has one empty component.
    BOOLEAN Take(UNICODE_STRING *Component) {
        if (Done) return FALSE;
        const WCHAR *Stop = Next;
        while (Stop < End && *Stop != Backslash) ++Stop;
        Component->Buffer = const_cast<PWCH>(Next);
        Component->Length = (USHORT)((Stop - Next) * sizeof(WCHAR));
        Component->MaximumLength = Component->Length;
        if (Stop < End) {
            Next = Stop + 1;
        } else {
            Done = TRUE;
        }
        return TRUE;
    }
};

// A pattern of several components (no leading backslash) against a run of
// consecutive components of the tail, one component at a time: a wildcard
// never crosses a backslash. A mismatch after a partial match restarts the
// pattern on the same component.
BOOLEAN MatchesComponentRun(const FilterPatternElement *Pattern, const UNICODE_STRING &Tail) {
    const BOOLEAN Wildcards = (Pattern->PatternFlags & PatternWildcards) != 0;
    UNICODE_STRING First, Rest;
    FsRtlDissectName(Pattern->Text, &First, &Rest);
    BOOLEAN Partial = FALSE;
    ComponentWalk Walk(Tail);
    UNICODE_STRING Component;
    BOOLEAN Have = Walk.Take(&Component);
    while (Have) {
        if (PatternEquals(&First, Wildcards, &Component)) {
            if (Rest.Length == 0) return TRUE;
            Partial = TRUE;
            const UNICODE_STRING Remaining = Rest;
            FsRtlDissectName(Remaining, &First, &Rest);
            Have = Walk.Take(&Component);
        } else if (Partial) {
            Partial = FALSE;
            FsRtlDissectName(Pattern->Text, &First, &Rest);
        } else {
            Have = Walk.Take(&Component);
        }
    }
    return FALSE;
}

BOOLEAN MatchesOnePattern(const FilterPatternElement *Pattern, const UNICODE_STRING &Tail) {
    const BOOLEAN Wildcards = (Pattern->PatternFlags & PatternWildcards) != 0;
    // Several components is tested ahead of rooted.
    if (Pattern->PatternFlags & PatternRelativePath) return MatchesComponentRun(Pattern, Tail);
    // Rooted: the expression sees the whole tail, so a wildcard there can
    // cross a backslash.
    if (Pattern->PatternFlags & PatternRooted) return PatternEquals(&Pattern->Text, Wildcards, &Tail);
    ComponentWalk Walk(Tail);
    UNICODE_STRING Component;
    while (Walk.Take(&Component))
        if (PatternEquals(&Pattern->Text, Wildcards, &Component)) return TRUE;
    return FALSE;
}

struct ExpressionCall {
    PUNICODE_STRING Expression;
    PUNICODE_STRING Name;
    BOOLEAN IgnoreCase;
    PWCH UpcaseTable;
    BOOLEAN Result;
};

VOID NTAPI CallIsNameInExpression(PVOID Context) {
    auto *Call = (ExpressionCall *)Context;
    Call->Result = FsRtlIsNameInExpression(Call->Expression, Call->Name, Call->IgnoreCase, Call->UpcaseTable);
}

LONGLONG SecondsOfDay(const TimeOfDay &Time) {
    return (LONGLONG)Time.Hour * 3600 + (LONGLONG)Time.Minute * 60 + (LONGLONG)Time.Second;
}

}  // namespace

// ---------------------------------------------------------------- names

BOOLEAN IsSubPath(PCUNICODE_STRING Parent, PCUNICODE_STRING Child, BOOLEAN IgnoreCase) {
    if (Parent == nullptr || Child == nullptr) return FALSE;
    UNICODE_STRING Above = *Parent;
    UNICODE_STRING Below = *Child;
    if (Above.Length >= sizeof(WCHAR) && Above.Buffer[Above.Length / sizeof(WCHAR) - 1] == Backslash)
        Above.Length -= sizeof(WCHAR);
    if (Below.Length >= sizeof(WCHAR) && Below.Buffer[Below.Length / sizeof(WCHAR) - 1] == Backslash)
        Below.Length -= sizeof(WCHAR);
    if (Below.Length < Above.Length) return FALSE;
    if (Below.Length == Above.Length) return RtlCompareUnicodeString(&Above, &Below, IgnoreCase) == 0;
    const USHORT ChildLength = Below.Length;
    Below.Length = Above.Length;
    if (RtlCompareUnicodeString(&Above, &Below, IgnoreCase) != 0) return FALSE;
    // \A\BC is not below \A: the parent must end at a component boundary.
    return Above.Length / sizeof(WCHAR) < ChildLength / sizeof(WCHAR) &&
           Below.Buffer[Above.Length / sizeof(WCHAR)] == Backslash;
}

BOOLEAN MatchComponents(PCUNICODE_STRING Path, PCUNICODE_STRING First, PCUNICODE_STRING Second) {
    if (Path == nullptr || Path->Length == 0 || First == nullptr || First->Length == 0) return FALSE;
    if (Second != nullptr && Second->Length == 0) return FALSE;
    UNICODE_STRING PathRest = *Path, FirstRest = *First, SecondRest = {};
    if (Second != nullptr) SecondRest = *Second;
    UNICODE_STRING PathPart, FirstPart, SecondPart = {};
    // The first round compares the leading components; each later round
    // dissects the rests, which may already be empty.
    for (BOOLEAN Leading = TRUE;; Leading = FALSE) {
        UNICODE_STRING Remaining = PathRest;
        FsRtlDissectName(Remaining, &PathPart, &PathRest);
        Remaining = FirstRest;
        FsRtlDissectName(Remaining, &FirstPart, &FirstRest);
        if (Second != nullptr) {
            Remaining = SecondRest;
            FsRtlDissectName(Remaining, &SecondPart, &SecondRest);
        }
        if (RtlCompareUnicodeString(&PathPart, &FirstPart, FALSE) != 0) {
            if (Second == nullptr || RtlCompareUnicodeString(&PathPart, &SecondPart, FALSE) != 0) return FALSE;
        }
        if (Leading) continue;
        if (FirstRest.Length == 0) return TRUE;
        if (PathRest.Length == 0) return FALSE;
    }
}

NTSTATUS GetLastComponent(PCUNICODE_STRING Path, PUNICODE_STRING Component) {
    if (Path == nullptr || Component == nullptr || Path->Length < sizeof(WCHAR) || Path->Buffer == nullptr)
        return STATUS_INVALID_PARAMETER;
    USHORT End = Path->Length / sizeof(WCHAR);
    if (Path->Buffer[End - 1] == Backslash) --End;
    for (USHORT Index = End; Index > 0; --Index) {
        if (Path->Buffer[Index - 1] != Backslash) continue;
        Component->Buffer = Path->Buffer + Index;
        Component->Length = (USHORT)((End - Index) * sizeof(WCHAR));
        Component->MaximumLength = (USHORT)(Component->Length + sizeof(WCHAR));
        return STATUS_SUCCESS;
    }
    // No backslash, or the path was a single one: the whole path as given.
    *Component = *Path;
    return STATUS_SUCCESS;
}

BOOLEAN IsWithinDepth(PCUNICODE_STRING Name, PCUNICODE_STRING Base, LONG Depth) {
    if (Depth == -2 || Name->Length == Base->Length) return TRUE;
    // A negative depth other than -2 lets nothing below the base through:
    // the test below fails before the first step.
    const USHORT Start = Base->Length < Name->Length ? Base->Length : Name->Length;
    const WCHAR *Cursor = Name->Buffer + Start / sizeof(WCHAR);
    if (*Cursor == Backslash) ++Cursor;
    for (;;) {
        if (Depth < 0) return FALSE;
        Cursor = PlatformWcschr(Cursor, Backslash);
        if (Cursor == nullptr) return TRUE;
        ++Cursor;
        --Depth;
    }
}

BOOLEAN MatchesNamePatterns(PCUNICODE_STRING Name, PCUNICODE_STRING Base, ULONG Count,
                            const FilterPatternElement *Patterns) {
    for (ULONG Index = 0; Index < Count; ++Index) {
        const UNICODE_STRING Tail = TailBelow(Name, Base);
        if (MatchesOnePattern(&Patterns[Index], Tail)) return TRUE;
    }
    return FALSE;
}

BOOLEAN MatchesRegistryPatterns(PCUNICODE_STRING KeyName, PCUNICODE_STRING ValueName, PCUNICODE_STRING Base,
                                ULONG Kind, ULONG Count, const FilterPatternElement *Patterns) {
    if (Kind != TEXPRT_OBJECT_REGISTRY_VALUE) return MatchesNamePatterns(KeyName, Base, Count, Patterns);
    for (ULONG Index = 0; Index < Count; ++Index) {
        const BOOLEAN Wildcards = (Patterns[Index].PatternFlags & PatternWildcards) != 0;
        if (PatternEquals(&Patterns[Index].Text, Wildcards, ValueName)) return TRUE;
    }
    return FALSE;
}

ULONG IsLastComponentListed(PCUNICODE_STRING Path, ULONG Count, const UNICODE_STRING *Strings) {
    UNICODE_STRING Last;
    const NTSTATUS Status = GetLastComponent(Path, &Last);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        return 0;
    }
    for (ULONG Index = 0; Index < Count; ++Index)
        if (EqualExact(&Last, &Strings[Index])) return 1;
    return 0;
}

BOOLEAN IsNameInExpressionGuarded(PCUNICODE_STRING Expression, PCUNICODE_STRING Name, BOOLEAN IgnoreCase,
                                  PWCH UpcaseTable) {
    ExpressionCall Call = {const_cast<PUNICODE_STRING>(Expression), const_cast<PUNICODE_STRING>(Name), IgnoreCase,
                           UpcaseTable, FALSE};
    NTSTATUS ExceptionCode = STATUS_SUCCESS;
    if (!PlatformGuardedCall(CallIsNameInExpression, &Call, &ExceptionCode)) {
        TRACE_STATUS(ExceptionCode);
        return FALSE;
    }
    return Call.Result;
}

// ---------------------------------------------------------------- conditions

TimeOfDay *TimeOfDayFromTicks(TimeOfDay *Out, ULONGLONG Time) {
    const ULONGLONG Seconds = Time / 10000000ull;
    const ULONG OfDay = (ULONG)(Seconds % 86400ull);
    Out->Hour = (SHORT)(OfDay / 3600);
    Out->Minute = (SHORT)((OfDay % 3600) / 60);
    Out->Second = (SHORT)((OfDay % 3600) % 60);
    return Out;
}

BOOLEAN ActorProcessHolds(const EventInfo *Event, ULONG Count, const ActorProcessElement *Elements) {
    const ActorInformation *Actor = Event->ActorInfo;
    if (Count == 0 || Actor == nullptr || Event->ActorInfoSize < sizeof(ActorInformation)) return FALSE;
    // The image path is read where the block's own lengths place it, and
    // only when the block the monitor gave holds all of it.
    const ULONG PathOffset = sizeof(ActorInformation) + Actor->Win32ImagePathLength;
    if ((PathOffset & 1) || PathOffset + Actor->ImageFileNameLength > Event->ActorInfoSize) return FALSE;
    UNICODE_STRING Image;
    Image.Length = Actor->ImageFileNameLength;
    Image.MaximumLength = Actor->ImageFileNameLength;
    Image.Buffer = (PWCH)((PUCHAR)Actor + PathOffset);
    UNICODE_STRING Last;
    if (!NT_SUCCESS(GetLastComponent(&Image, &Last))) return FALSE;
    for (ULONG Index = 0; Index < Count; ++Index) {
        const ActorProcessElement *Element = &Elements[Index];
        PCUNICODE_STRING Text = (Element->PatternFlags & PatternHasBackslash) ? &Image : &Last;
        const BOOLEAN Holds = (Element->PatternFlags & PatternWildcards)
                                  ? IsNameInExpressionGuarded(&Element->Text, Text, TRUE, nullptr)
                                  : RtlCompareUnicodeString(&Element->Text, Text, TRUE) == 0;
        if (Holds) return TRUE;
    }
    return FALSE;
}

BOOLEAN ActorUsernameHolds(ULONG Count, const UCHAR *Usernames) {
    for (ULONG Index = 0; Index < Count; ++Index)
        if (Usernames[Index] != 0) return TRUE;
    return FALSE;
}

BOOLEAN TimeOfDayHolds(const EventInfo *Event, const TimeOfDay *Start, const TimeOfDay *End) {
    LARGE_INTEGER System, Local;
    System.QuadPart = (LONGLONG)Event->EventTime;
    ExSystemTimeToLocalTime(&System, &Local);
    TimeOfDay Now;
    TimeOfDayFromTicks(&Now, (ULONGLONG)Local.QuadPart);
    const LONGLONG At = SecondsOfDay(Now);
    return SecondsOfDay(*Start) <= At && At <= SecondsOfDay(*End);
}

VOID TallyActorConditions(const RuleFilter *Filter, const EventInfo *Event, BOOLEAN StopOnFailure,
                          ConditionTally *Tally) {
    const ULONG Conditions = Filter->Conditions;
    if ((Conditions & ConditionActorProcess) && (!StopOnFailure || Tally->AllMet()))
        Tally->Record(ConditionActorProcess,
                      ActorProcessHolds(Event, Filter->ActorProcessCount, Filter->ActorProcesses));
    if ((Conditions & ConditionActorUsername) && (!StopOnFailure || Tally->AllMet()))
        Tally->Record(ConditionActorUsername, ActorUsernameHolds(Filter->ActorUsernameCount, Filter->ActorUsernames));
    if ((Conditions & ConditionTime) && (!StopOnFailure || Tally->AllMet()))
        Tally->Record(ConditionTime, TimeOfDayHolds(Event, &Filter->StartTime, &Filter->EndTime));
}

// ---------------------------------------------------------------- the frame

MatchFrame::MatchFrame(PERESOURCE Resource, LockMode Mode) {
    KIRQL OldIrql;
    KeRaiseIrql(APC_LEVEL, &OldIrql);
    EnterStatus = KeSaveFloatingPointState(&FloatSave);
    KeLowerIrql(OldIrql);
    if (!NT_SUCCESS(EnterStatus)) {
        TRACE_STATUS(EnterStatus);
        return;
    }
    Lock = Resource;
    KeEnterCriticalRegion();
    if (Mode == Exclusive) {
        ExAcquireResourceExclusiveLite(Lock, TRUE);
    } else {
        ExAcquireResourceSharedLite(Lock, TRUE);
    }
}

MatchFrame::~MatchFrame() {
    if (Lock == nullptr) return;
    ExReleaseResourceLite(Lock);
    KeLeaveCriticalRegion();
    KIRQL OldIrql;
    KeRaiseIrql(APC_LEVEL, &OldIrql);
    const NTSTATUS Status = KeRestoreFloatingPointState(&FloatSave);
    KeLowerIrql(OldIrql);
    if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
}
