// The library's locks: their order, and guards that pair every acquisition
// with its release.
//
// Locks, outermost first. A thread that holds one of them takes only locks
// further down the list; locks of one rank are never held together. The
// host's verifier is told each lock's rank when the lock is made and
// reports an acquisition out of this order.
//
//   StartLock            spin lock      Phase0Started, Phase1Started; never
//                                       taken under another library lock
//   ProcessTableLock     fast mutex     the process table and its deferred
//                                       deletions, whitelist and protection
//                                       fields of the entries
//   AncestorImages       resource       one per process entry
//   MonitorRuleLock,     resources      the three rule stores: shared across
//   ProtectionRuleLock,                 a match, exclusive across a swap;
//   AppBlockingRuleLock                 none is held across a file, registry,
//                                       free or event log call
//   EventBufferLock      fast mutex     the event stream's buffers
//   VolumeListLock       fast mutex     the volume list
//   FilterLock           fast mutex     the minifilter handle; exported
//   MonitorObjectLock    fast mutex     the monitors' driver objects and the
//                                       internal event log writes
//   ActorLock            fast mutex     one per process entry; nothing is
//                                       taken under it
#pragma once

#include "platform/nt.h"

enum LockRank : ULONG {
    LockRankStart = 1,
    LockRankProcessTable,
    LockRankAncestorImages,
    LockRankRuleStore,
    LockRankEventBuffer,
    LockRankVolumeList,
    LockRankFilter,
    LockRankMonitorObject,
    LockRankActor,
};

// A resource inside a critical region, so that a suspended owner cannot hold
// up the system. The release leaves the region after the resource.
template <bool Exclusive>
class ResourceGuard {
public:
    explicit ResourceGuard(PERESOURCE Lock) : Resource(Lock) {
        KeEnterCriticalRegion();
        if constexpr (Exclusive) {
            ExAcquireResourceExclusiveLite(Lock, TRUE);
        } else {
            ExAcquireResourceSharedLite(Lock, TRUE);
        }
    }
    ~ResourceGuard() {
        ExReleaseResourceLite(Resource);
        KeLeaveCriticalRegion();
    }
    ResourceGuard(const ResourceGuard &) = delete;
    ResourceGuard &operator=(const ResourceGuard &) = delete;

private:
    PERESOURCE Resource;
};
using SharedResourceGuard = ResourceGuard<false>;
using ExclusiveResourceGuard = ResourceGuard<true>;

class FastMutexGuard {
public:
    explicit FastMutexGuard(PFAST_MUTEX Lock) : Mutex(Lock) { ExAcquireFastMutex(Lock); }
    ~FastMutexGuard() { ExReleaseFastMutex(Mutex); }
    FastMutexGuard(const FastMutexGuard &) = delete;
    FastMutexGuard &operator=(const FastMutexGuard &) = delete;

private:
    PFAST_MUTEX Mutex;
};

class SpinLockGuard {
public:
    explicit SpinLockGuard(PKSPIN_LOCK SpinLock) : Lock(SpinLock) { KeAcquireSpinLock(SpinLock, &OldIrql); }
    ~SpinLockGuard() { KeReleaseSpinLock(Lock, OldIrql); }
    SpinLockGuard(const SpinLockGuard &) = delete;
    SpinLockGuard &operator=(const SpinLockGuard &) = delete;

private:
    PKSPIN_LOCK Lock;
    KIRQL OldIrql;
};
