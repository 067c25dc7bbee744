// Spin locks. The lock word holds its owner while held, so that releasing a
// lock this thread does not hold is caught, as the verifier catches it. A
// host thread holding a spin lock can be preempted, which a processor at
// DISPATCH_LEVEL cannot; waiters therefore yield after a short spin instead
// of burning the other core.
#include "ke/dispatcher.h"

#include <cstdlib>

using namespace hk::detail;

namespace {

ULONG_PTR OwnerTag() { return reinterpret_cast<ULONG_PTR>(&CurrentThreadState()); }

void Acquire(PKSPIN_LOCK lock, const char *routine) {
    const char *name = nullptr;
    const ULONG rank = SpinLockRank(lock, &name);
    if (rank != 0) LockAcquiring(lock, rank, name, routine);
    std::atomic_ref<ULONG_PTR> word(*lock);
    const ULONG_PTR me = OwnerTag();
    if (word.load(std::memory_order_relaxed) == me) {
        // SPIN_LOCK_ALREADY_OWNED: it would spin for ever.
        Complainf("%s: spin lock %p is already held by this thread", routine, static_cast<void *>(lock));
        abort();
    }
    for (unsigned spins = 0;; ++spins) {
        ULONG_PTR expected = 0;
        if (word.compare_exchange_weak(expected, me, std::memory_order_acquire, std::memory_order_relaxed)) {
            if (rank != 0) LockAcquired(lock, rank, name);
            return;
        }
        if (spins >= 64) std::this_thread::yield();
    }
}

bool Release(PKSPIN_LOCK lock, const char *routine) {
    std::atomic_ref<ULONG_PTR> word(*lock);
    const ULONG_PTR owner = word.load(std::memory_order_relaxed);
    if (owner != OwnerTag()) {
        // SPIN_LOCK_NOT_OWNED.
        Complainf("%s: spin lock %p is %s", routine, static_cast<void *>(lock),
                  owner == 0 ? "not held" : "held by another thread");
        return false;
    }
    const char *name = nullptr;
    const ULONG rank = SpinLockRank(lock, &name);
    if (rank != 0) LockReleased(lock, rank);
    word.store(0, std::memory_order_release);
    return true;
}

}  // namespace

VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock) {
    std::atomic_ref<ULONG_PTR>(*SpinLock).store(0, std::memory_order_relaxed);
}

VOID NTAPI KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql) {
    CheckIrql(DISPATCH_LEVEL, "KeAcquireSpinLock");
    const KIRQL old_irql = KfRaiseIrql(DISPATCH_LEVEL);
    Acquire(SpinLock, "KeAcquireSpinLock");
    *OldIrql = old_irql;
}

VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
    Release(SpinLock, "KeReleaseSpinLock");
    KfLowerIrql(NewIrql);
}

VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
    if (KeGetCurrentIrql() != DISPATCH_LEVEL)
        Complainf("KeAcquireSpinLockAtDpcLevel called at IRQL %u", unsigned(KeGetCurrentIrql()));
    Acquire(SpinLock, "KeAcquireSpinLockAtDpcLevel");
}

VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) {
    if (KeGetCurrentIrql() != DISPATCH_LEVEL)
        Complainf("KeReleaseSpinLockFromDpcLevel called at IRQL %u", unsigned(KeGetCurrentIrql()));
    Release(SpinLock, "KeReleaseSpinLockFromDpcLevel");
}
