// The lock-order check: the library gives each of its locks a rank in its
// lock order (outermost first), and the verifier complains when a thread
// that holds a ranked lock acquires one of the same or an earlier rank, the
// acquisition that can deadlock against a thread taking the two in order.
// As Driver Verifier's deadlock detection, it catches the order being
// broken on any run, not only on the unlucky one that hangs.
#include "ke/dispatcher.h"

#include <array>
#include <atomic>
#include <mutex>

using namespace hk::detail;

namespace {

// Spin locks are a bare word, with no room for a rank: a small table keyed
// by address. The library has one or two, so a scan is all it takes.
struct RankedSpinLock {
    std::atomic<const void *> lock{nullptr};
    std::atomic<ULONG> rank{0};
    std::atomic<const char *> name{nullptr};
};
std::array<RankedSpinLock, 32> spin_lock_ranks;
std::atomic<size_t> spin_lock_rank_count{0};
std::mutex spin_lock_rank_lock;

// The ranked locks a thread holds, in the order it took them.
struct HeldLock {
    const void *lock;
    ULONG rank;
    const char *name;
};
constexpr int kMaxHeldLocks = 16;
struct HeldLocks {
    HeldLock locks[kMaxHeldLocks];
    int count;
};
thread_local HeldLocks held [[gnu::tls_model("initial-exec")]];

}  // namespace

namespace hk::detail {

void LockAcquiring(const void *lock, ULONG rank, const char *name, const char *routine) {
    for (int i = 0; i < held.count; ++i) {
        const HeldLock &other = held.locks[i];
        if (other.lock == lock || other.rank < rank) continue;
        if (other.rank == rank)
            Complainf("%s: lock order: %s acquired while this thread holds %s; locks of one rank are never held "
                      "together",
                      routine, name, other.name);
        else
            Complainf("%s: lock order: %s acquired while this thread holds %s, which comes after it in the "
                      "library's lock order",
                      routine, name, other.name);
    }
}

void LockAcquired(const void *lock, ULONG rank, const char *name) {
    if (held.count == kMaxHeldLocks) {
        Complainf("lock order: %s acquired while this thread holds %d ranked locks already", name, kMaxHeldLocks);
        return;
    }
    held.locks[held.count++] = {lock, rank, name};
}

void LockReleased(const void *lock, ULONG rank) {
    // Locks are mostly released in reverse order; any order is allowed.
    for (int i = held.count - 1; i >= 0; --i) {
        if (held.locks[i].lock != lock) continue;
        for (int j = i; j + 1 < held.count; ++j) held.locks[j] = held.locks[j + 1];
        --held.count;
        return;
    }
}

ULONG SpinLockRank(const void *lock, const char **name) {
    const size_t count = spin_lock_rank_count.load(std::memory_order_acquire);
    for (size_t i = 0; i < count; ++i) {
        if (spin_lock_ranks[i].lock.load(std::memory_order_acquire) != lock) continue;
        *name = spin_lock_ranks[i].name.load(std::memory_order_relaxed);
        return spin_lock_ranks[i].rank.load(std::memory_order_relaxed);
    }
    return 0;
}

void ForgetSpinLockRanks() {
    std::lock_guard guard(spin_lock_rank_lock);
    for (auto &entry : spin_lock_ranks) entry.lock.store(nullptr, std::memory_order_release);
    spin_lock_rank_count.store(0, std::memory_order_release);
}

}  // namespace hk::detail

VOID NTAPI HkVerifierRankLock(PVOID Lock, ULONG Kind, ULONG Rank, const char *Name) {
    switch (Kind) {
        case HkLockFastMutex: {
            auto *mutex = static_cast<PFAST_MUTEX>(Lock);
            mutex->VerifierRank = Rank;
            mutex->VerifierName = Name;
            return;
        }
        case HkLockResource: {
            auto *resource = static_cast<PERESOURCE>(Lock);
            resource->VerifierRank = Rank;
            resource->VerifierName = Name;
            return;
        }
        case HkLockSpinLock: {
            std::lock_guard guard(spin_lock_rank_lock);
            const size_t count = spin_lock_rank_count.load(std::memory_order_relaxed);
            for (size_t i = 0; i < count; ++i) {
                if (spin_lock_ranks[i].lock.load(std::memory_order_relaxed) != Lock) continue;
                // Ranked again (or forgotten): the entry keeps its place, so
                // that a reader scanning the table never sees it move.
                spin_lock_ranks[i].name.store(Name, std::memory_order_relaxed);
                spin_lock_ranks[i].rank.store(Rank, std::memory_order_relaxed);
                return;
            }
            if (Rank == 0) return;
            if (count == spin_lock_ranks.size()) {
                Complainf("HkVerifierRankLock: more than %zu ranked spin locks", spin_lock_ranks.size());
                return;
            }
            spin_lock_ranks[count].name.store(Name, std::memory_order_relaxed);
            spin_lock_ranks[count].rank.store(Rank, std::memory_order_relaxed);
            spin_lock_ranks[count].lock.store(Lock, std::memory_order_release);
            spin_lock_rank_count.store(count + 1, std::memory_order_release);
            return;
        }
        default:
            Complainf("HkVerifierRankLock: %s is of an unknown lock kind %lu", Name, static_cast<unsigned long>(Kind));
    }
}

VOID NTAPI HkVerifierCheckExportIrql(KIRQL MaximumIrql, const char *Export) {
    const KIRQL irql = CurrentThreadState().irql;
    if (irql > MaximumIrql)
        Complainf("%s called at IRQL %u, above its maximum of %u", Export, unsigned(irql), unsigned(MaximumIrql));
}
