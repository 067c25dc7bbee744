// Fast mutexes and executive resources, built on atomics in the caller's
// structure so that a lock costs no dispatcher round trip and readers of a
// resource never serialize on a host mutex.
//
// Fast mutex: Count is 1 when free, 0 when owned; waiters sleep on Count.
//
// Resource: State bit 31 is exclusive ownership, the low bits count the
// threads that own it shared. Waiters sleep on Generation, which a release
// that may let someone in bumps after it has changed State; a waiter reads
// Generation before it looks at State, so no wake-up is lost. Which
// resources a thread owns, and how often, lives in a small per-thread table:
// that is what makes recursion work and a release by a non-owner visible.
#include "ke/dispatcher.h"

#include <cstdlib>
#include <cstring>

using namespace hk::detail;

// ------------------------------------------------------------ fast mutexes

namespace {

PKTHREAD Me() { return KeGetCurrentThread(); }

std::atomic_ref<PKTHREAD> OwnerOf(PFAST_MUTEX mutex) { return std::atomic_ref<PKTHREAD>(mutex->Owner); }

// Raises to APC_LEVEL, as acquiring a fast mutex does; a caller already
// above it has had its complaint and is left where it is.
KIRQL RaiseToApcLevel() {
    const KIRQL irql = KeGetCurrentIrql();
    if (irql > APC_LEVEL) return irql;
    return KfRaiseIrql(APC_LEVEL);
}

void TakeOwnership(PFAST_MUTEX mutex, KIRQL old_irql) {
    OwnerOf(mutex).store(Me(), std::memory_order_relaxed);
    mutex->OldIrql = old_irql;
    if (mutex->VerifierRank != 0) LockAcquired(mutex, mutex->VerifierRank, mutex->VerifierName);
}

}  // namespace

VOID NTAPI ExInitializeFastMutex(PFAST_MUTEX FastMutex) {
    std::atomic_ref<LONG>(FastMutex->Count).store(1, std::memory_order_relaxed);
    OwnerOf(FastMutex).store(nullptr, std::memory_order_relaxed);
    std::atomic_ref<ULONG>(FastMutex->Contention).store(0, std::memory_order_relaxed);
    KeInitializeEvent(&FastMutex->Event, SynchronizationEvent, FALSE);
    FastMutex->OldIrql = PASSIVE_LEVEL;
    // A new mutex: whatever rank the memory had is gone.
    FastMutex->VerifierRank = 0;
    FastMutex->VerifierName = nullptr;
}

VOID FASTCALL ExAcquireFastMutex(PFAST_MUTEX FastMutex) {
    CheckIrql(APC_LEVEL, "ExAcquireFastMutex");
    if (OwnerOf(FastMutex).load(std::memory_order_relaxed) == Me()) {
        Complainf("ExAcquireFastMutex: fast mutex %p is already owned by this thread; fast mutexes do not "
                  "recurse and it would wait for itself for ever",
                  static_cast<void *>(FastMutex));
        abort();
    }
    if (FastMutex->VerifierRank != 0)
        LockAcquiring(FastMutex, FastMutex->VerifierRank, FastMutex->VerifierName, "ExAcquireFastMutex");
    const KIRQL old_irql = RaiseToApcLevel();
    std::atomic_ref<LONG> count(FastMutex->Count);
    for (;;) {
        LONG free = 1;
        if (count.compare_exchange_strong(free, 0, std::memory_order_acquire)) break;
        std::atomic_ref<ULONG>(FastMutex->Contention).fetch_add(1, std::memory_order_relaxed);
        count.wait(0, std::memory_order_relaxed);
    }
    TakeOwnership(FastMutex, old_irql);
}

BOOLEAN FASTCALL ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex) {
    CheckIrql(APC_LEVEL, "ExTryToAcquireFastMutex");
    const KIRQL old_irql = RaiseToApcLevel();
    LONG free = 1;
    if (!std::atomic_ref<LONG>(FastMutex->Count).compare_exchange_strong(free, 0, std::memory_order_acquire)) {
        KfLowerIrql(old_irql);
        return FALSE;
    }
    TakeOwnership(FastMutex, old_irql);
    return TRUE;
}

VOID FASTCALL ExReleaseFastMutex(PFAST_MUTEX FastMutex) {
    if (OwnerOf(FastMutex).load(std::memory_order_relaxed) != Me()) {
        Complainf("ExReleaseFastMutex: fast mutex %p is not owned by this thread", static_cast<void *>(FastMutex));
        return;
    }
    const KIRQL old_irql = KIRQL(FastMutex->OldIrql);
    if (FastMutex->VerifierRank != 0) LockReleased(FastMutex, FastMutex->VerifierRank);
    OwnerOf(FastMutex).store(nullptr, std::memory_order_relaxed);
    std::atomic_ref<LONG> count(FastMutex->Count);
    count.store(1, std::memory_order_release);
    count.notify_one();
    KfLowerIrql(old_irql);
}

// ------------------------------------------------------------ resources

namespace {

constexpr LONG kExclusive = INT32_MIN;  // bit 31

struct Ownership {
    PERESOURCE resource;
    ULONG count;
    bool exclusive;
};

std::vector<Ownership> &Owned() {
    thread_local std::vector<Ownership> owned;
    return owned;
}

struct Fields {
    explicit Fields(PERESOURCE r)
        : state(r->State), waiters(r->ExclusiveWaiters), owner(r->Owner), recursion(r->Recursion),
          generation(r->Generation) {}
    std::atomic_ref<LONG> state, waiters;
    std::atomic_ref<PKTHREAD> owner;
    std::atomic_ref<LONG> recursion;
    std::atomic_ref<ULONG> generation;

    void WakeWaiters() {
        generation.fetch_add(1);
        generation.notify_all();
    }
};

// This thread's entry for the resource. An entry the resource contradicts
// (it was reinitialised under a leaked ownership) is dropped.
Ownership *Find(PERESOURCE resource) {
    auto &owned = Owned();
    for (size_t i = 0; i < owned.size(); ++i) {
        if (owned[i].resource != resource) continue;
        Fields f(resource);
        const LONG state = f.state.load();
        const bool valid = owned[i].exclusive ? (state & kExclusive) && f.owner.load() == Me()
                                              : !(state & kExclusive) && (state & ~kExclusive) > 0;
        if (valid) return &owned[i];
        owned.erase(owned.begin() + ptrdiff_t(i));
        return nullptr;
    }
    return nullptr;
}

void Forget(PERESOURCE resource) {
    std::erase_if(Owned(), [resource](const Ownership &o) { return o.resource == resource; });
}

// Driver Verifier insists that normal kernel APCs be disabled around a
// resource, or a suspended owner could hold up the system.
void CheckAcquire(const char *routine) {
    CheckIrql(APC_LEVEL, routine);
    const ThreadState &state = CurrentThreadState();
    if (state.kernel_apc_disable == 0 && state.irql < APC_LEVEL)
        Complainf("%s called with normal kernel APCs enabled; call KeEnterCriticalRegion first", routine);
}

}  // namespace

NTSTATUS NTAPI ExInitializeResourceLite(PERESOURCE Resource) {
    Forget(Resource);
    Fields f(Resource);
    f.state.store(0);
    f.waiters.store(0);
    f.owner.store(nullptr);
    f.recursion.store(0);
    f.generation.store(0);
    Resource->VerifierRank = 0;
    Resource->VerifierName = nullptr;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ExDeleteResourceLite(PERESOURCE Resource) {
    Fields f(Resource);
    const LONG state = f.state.load();
    if (state != 0 || f.waiters.load() != 0)
        Complainf("ExDeleteResourceLite: resource %p is still %s", static_cast<void *>(Resource),
                  state & kExclusive ? "owned exclusive" : state != 0 ? "owned shared" : "waited for");
    Forget(Resource);
    return STATUS_SUCCESS;
}

BOOLEAN NTAPI ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait) {
    CheckAcquire("ExAcquireResourceSharedLite");
    Fields f(Resource);
    if (Ownership *o = Find(Resource)) {
        // Recursion, shared or under an exclusive ownership, is granted at once.
        ++o->count;
        if (o->exclusive) f.recursion.fetch_add(1, std::memory_order_relaxed);
        return TRUE;
    }
    if (Resource->VerifierRank != 0 && Wait)
        LockAcquiring(Resource, Resource->VerifierRank, Resource->VerifierName, "ExAcquireResourceSharedLite");
    for (;;) {
        const ULONG generation = f.generation.load();
        LONG state = f.state.load();
        if (!(state & kExclusive) && f.waiters.load() == 0) {
            if (f.state.compare_exchange_weak(state, state + 1)) break;
            continue;
        }
        if (!Wait) return FALSE;
        f.generation.wait(generation);
    }
    Owned().push_back({Resource, 1, false});
    if (Resource->VerifierRank != 0) LockAcquired(Resource, Resource->VerifierRank, Resource->VerifierName);
    return TRUE;
}

BOOLEAN NTAPI ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait) {
    CheckAcquire("ExAcquireResourceExclusiveLite");
    Fields f(Resource);
    if (Ownership *o = Find(Resource)) {
        if (!o->exclusive) {
            Complainf("ExAcquireResourceExclusiveLite: resource %p is owned shared by this thread, which would "
                      "wait for itself for ever",
                      static_cast<void *>(Resource));
            abort();
        }
        ++o->count;
        f.recursion.fetch_add(1, std::memory_order_relaxed);
        return TRUE;
    }
    if (Resource->VerifierRank != 0 && Wait)
        LockAcquiring(Resource, Resource->VerifierRank, Resource->VerifierName, "ExAcquireResourceExclusiveLite");
    LONG free = 0;
    if (!f.state.compare_exchange_strong(free, kExclusive)) {
        if (!Wait) return FALSE;
        // Counted as a waiter, it holds back new shared owners so that it is
        // not starved by a stream of readers.
        f.waiters.fetch_add(1);
        for (;;) {
            const ULONG generation = f.generation.load();
            free = 0;
            if (f.state.compare_exchange_strong(free, kExclusive)) break;
            f.generation.wait(generation);
        }
        f.waiters.fetch_sub(1);
    }
    f.owner.store(Me());
    f.recursion.store(1);
    Owned().push_back({Resource, 1, true});
    if (Resource->VerifierRank != 0) LockAcquired(Resource, Resource->VerifierRank, Resource->VerifierName);
    return TRUE;
}

VOID FASTCALL ExReleaseResourceLite(PERESOURCE Resource) {
    CheckIrql(DISPATCH_LEVEL, "ExReleaseResourceLite");
    Ownership *o = Find(Resource);
    if (o == nullptr) {
        // RESOURCE_NOT_OWNED on Windows.
        Complainf("ExReleaseResourceLite: resource %p is not owned by this thread", static_cast<void *>(Resource));
        return;
    }
    Fields f(Resource);
    const bool exclusive = o->exclusive;
    if (exclusive) f.recursion.fetch_sub(1, std::memory_order_relaxed);
    if (--o->count > 0) return;
    Forget(Resource);
    if (Resource->VerifierRank != 0) LockReleased(Resource, Resource->VerifierRank);
    if (exclusive) {
        f.owner.store(nullptr);
        f.state.store(0);
        f.WakeWaiters();
    } else if (f.state.fetch_sub(1) == 1 && f.waiters.load() != 0) {
        // Only an exclusive waiter waits for the last reader to leave; when
        // none is counted, one that arrives later finds the resource free.
        f.WakeWaiters();
    }
}

BOOLEAN NTAPI ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource) {
    const Ownership *o = Find(Resource);
    return o != nullptr && o->exclusive;
}

ULONG NTAPI ExIsResourceAcquiredSharedLite(PERESOURCE Resource) {
    const Ownership *o = Find(Resource);
    return o != nullptr ? o->count : 0;
}
