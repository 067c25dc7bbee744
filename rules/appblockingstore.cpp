// The app-blocking store: the live set and the policy's flags word, their
// swap, and the store's step of a policy update.
#include "rules/store.h"

#include "base/locks.h"
#include "base/trace.h"
#include "diagnostics/eventlog.h"

namespace {

// 64-bit store that keeps both halves together for lock-free readers on a
// 32-bit machine.
VOID ExchangePolicyFlags(ULONGLONG Flags) {
    LONG64 Old;
    do {
        Old = PolicyFlags;
    } while (InterlockedCompareExchange64(&PolicyFlags, (LONG64)Flags, Old) != Old);
}

enum class FlagsWritten { InsideLock, AfterRelease };

// The one swap of the store: the set pointer changes under the exclusive
// lock, which waits for running matches; the old set is freed behind the
// release. Where the flags change differs between an install, a removal
// and the tear-down, and each keeps its own order.
VOID SwapAppBlockingRuleSet(ProcessAppBlockingRuleSet *Set, ULONGLONG Flags, FlagsWritten When) {
    ProcessAppBlockingRuleSet *Old;
    {
        ExclusiveResourceGuard Guard(&AppBlockingRuleLock);
        Old = (ProcessAppBlockingRuleSet *)InterlockedExchangePointer((PVOID volatile *)&AppBlockingRuleSet, Set);
        if (When == FlagsWritten::InsideLock) ExchangePolicyFlags(Flags);
    }
    if (When == FlagsWritten::AfterRelease) ExchangePolicyFlags(Flags);
    if (Old != nullptr) FreeAppBlockingRuleSet(Old);
}

}  // namespace

NTSTATUS InstallAppBlockingRuleSet(ULONGLONG Flags, ProcessAppBlockingRuleSet *Set) {
    if (Set == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    SwapAppBlockingRuleSet(Set, Flags, FlagsWritten::InsideLock);
    return STATUS_SUCCESS;
}

// The flags follow the set out after the release, so the SHA-256 query may
// answer yes for a moment with no set present.
VOID RemoveAppBlockingRuleSet() { SwapAppBlockingRuleSet(nullptr, 0, FlagsWritten::AfterRelease); }

VOID ClearAppBlockingRuleSet() { SwapAppBlockingRuleSet(nullptr, 0, FlagsWritten::InsideLock); }

NTSTATUS UpdateAppBlockingRuleSet(PUNICODE_STRING Path) {
    ULONGLONG Flags = 0;
    ProcessAppBlockingRuleSet *Set = nullptr;
    NTSTATUS Status = LoadAppBlockingPolicy(Path, &Flags, &Set);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
    } else {
        Status = InstallAppBlockingRuleSet(Flags, Set);
        if (!NT_SUCCESS(Status)) {
            TRACE_STATUS(Status);
        } else {
            ReportEvent(MsgAppBlockingPolicyUpdated);
            Set = nullptr;  // the store owns it now
        }
    }
    if (Set != nullptr) FreeAppBlockingRuleSet(Set);
    return Status;
}
