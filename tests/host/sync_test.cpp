// IRQL, spin locks, fast mutexes, executive resources and floating-point saves.
#include "host_test.h"

#include <atomic>

using namespace host_test;

namespace {

class Sync : public MachineTest {};
// Locks contended from other threads. The ctest label "concurrency" comes with
// the suite's name (see tests/CMakeLists.txt).
class SyncConcurrency : public MachineTest {};

TEST_F(Sync, IrqlMustRiseWhenRaisedAndFallWhenLoweredApcsFollowIt) {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(old, PASSIVE_LEVEL);
    EXPECT_TRUE(KeAreApcsDisabled());
    KeRaiseIrql(APC_LEVEL, &old);
    ExpectComplaint("KfRaiseIrql");
    KeLowerIrql(DISPATCH_LEVEL);
    ExpectComplaint("KfLowerIrql");
    KeLowerIrql(PASSIVE_LEVEL);
    EXPECT_FALSE(KeAreApcsDisabled());
    KeEnterCriticalRegion();
    EXPECT_TRUE(KeAreApcsDisabled());
    KeLeaveCriticalRegion();
    KeLeaveCriticalRegion();
    ExpectComplaint("KeLeaveCriticalRegion");
}

TEST_F(SyncConcurrency, SpinLocksRaiseToDispatchLevelAndCatchReleasesOfLocksNotHeld) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    std::atomic<bool> other_got_it{false};
    std::thread other([&] {
        KIRQL o;
        KeAcquireSpinLock(&lock, &o);
        other_got_it = true;
        KeReleaseSpinLock(&lock, o);
    });
    EXPECT_FALSE(other_got_it);
    KeReleaseSpinLock(&lock, old);
    other.join();
    EXPECT_TRUE(other_got_it);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeReleaseSpinLockFromDpcLevel(&lock);
    KeLowerIrql(old);
    ExpectComplaint("not held");
}

TEST_F(SyncConcurrency, FastMutexRaisesToApcLevelAndExcludesOtherThreads) {
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    ExAcquireFastMutex(&mutex);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    EXPECT_EQ(mutex.OldIrql, ULONG(PASSIVE_LEVEL));
    std::thread([&] {
        EXPECT_FALSE(ExTryToAcquireFastMutex(&mutex));
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        ExReleaseFastMutex(&mutex);
    }).join();
    ExpectComplaint("not owned");
    ExReleaseFastMutex(&mutex);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    std::thread([&] {
        EXPECT_TRUE(ExTryToAcquireFastMutex(&mutex));
        ExReleaseFastMutex(&mutex);
    }).join();
}

// Executive resources, shared and exclusive across threads. The ctest label
// "concurrency" comes with the suite's name (see tests/CMakeLists.txt).
class ResourcesConcurrency : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        KeEnterCriticalRegion();
    }
    void TearDown() override {
        KeLeaveCriticalRegion();
        MachineTest::TearDown();
    }
    // Runs `body` on another thread inside a critical region and waits for it.
    template <typename Body>
    static void OnOtherThread(Body body) {
        std::thread([&] {
            KeEnterCriticalRegion();
            body();
            KeLeaveCriticalRegion();
        }).join();
    }
    ERESOURCE resource{};  // zero-filled is a free resource
};

TEST_F(ResourcesConcurrency, TwoThreadsHoldItSharedAtOnceAndAWriterWaitsForBoth) {
    ASSERT_TRUE(ExAcquireResourceSharedLite(&resource, TRUE));
    OnOtherThread([&] {
        EXPECT_FALSE(ExAcquireResourceExclusiveLite(&resource, FALSE));
        EXPECT_TRUE(ExAcquireResourceSharedLite(&resource, FALSE)) << "a second reader gets in at once";
        ExReleaseResourceLite(&resource);
    });
    std::atomic<bool> writer_in{false};
    std::thread writer([&] {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(&resource, TRUE);
        writer_in = true;
        EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource));
        ExReleaseResourceLite(&resource);
        KeLeaveCriticalRegion();
    });
    while (std::atomic_ref<LONG>(resource.ExclusiveWaiters).load() == 0) std::this_thread::yield();
    EXPECT_FALSE(writer_in);
    OnOtherThread([&] { EXPECT_FALSE(ExAcquireResourceSharedLite(&resource, FALSE)) << "a waiting writer goes first"; });
    EXPECT_TRUE(ExAcquireResourceSharedLite(&resource, FALSE)) << "but an owner may recurse";
    ExReleaseResourceLite(&resource);
    ExReleaseResourceLite(&resource);
    writer.join();
    EXPECT_TRUE(writer_in);
}

TEST_F(ResourcesConcurrency, ExclusiveOwnerMayRecurseSharedAndExclusive) {
    ASSERT_TRUE(ExAcquireResourceExclusiveLite(&resource, TRUE));
    ASSERT_TRUE(ExAcquireResourceExclusiveLite(&resource, TRUE));
    ASSERT_TRUE(ExAcquireResourceSharedLite(&resource, TRUE));
    EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource));
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 3u);
    OnOtherThread([&] {
        EXPECT_FALSE(ExAcquireResourceSharedLite(&resource, FALSE));
        EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 0u);
    });
    for (int i = 0; i < 3; ++i) ExReleaseResourceLite(&resource);
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource));
    OnOtherThread([&] {
        EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource, FALSE));
        ExReleaseResourceLite(&resource);
    });
    ExReleaseResourceLite(&resource);
    ExpectComplaint("not owned");
}

TEST_F(ResourcesConcurrency, AcquiringWithKernelApcsEnabledIsAComplaint) {
    KeLeaveCriticalRegion();
    const struct {
        KIRQL irql;
        bool critical_region;
        bool complaint;
    } cases[] = {{PASSIVE_LEVEL, false, true}, {PASSIVE_LEVEL, true, false}, {APC_LEVEL, false, false}};
    for (const auto &c : cases) {
        KIRQL old;
        KeRaiseIrql(c.irql, &old);
        if (c.critical_region) KeEnterCriticalRegion();
        ExAcquireResourceSharedLite(&resource, TRUE);
        ExReleaseResourceLite(&resource);
        if (c.critical_region) KeLeaveCriticalRegion();
        KeLowerIrql(old);
        if (c.complaint)
            ExpectComplaint("KeEnterCriticalRegion");
        else
            EXPECT_TRUE(hk::VerifierComplaints().empty()) << texprt_test::Joined(hk::VerifierComplaints());
    }
    KeEnterCriticalRegion();
}

TEST_F(ResourcesConcurrency, WritersExcludeEveryoneUnderLoadAndFastMutexesSerialize) {
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    std::atomic<int> readers{0}, writers{0};
    std::atomic<bool> overlap{false};
    long guarded = 0;  // only ever touched under the fast mutex
    auto body = [&](int seed) {
        KeEnterCriticalRegion();
        for (int i = 0; i < 2000; ++i) {
            const bool exclusive = (i + seed) % 5 == 0;
            exclusive ? ExAcquireResourceExclusiveLite(&resource, TRUE) : ExAcquireResourceSharedLite(&resource, TRUE);
            std::atomic<int> &mine = exclusive ? writers : readers;
            ++mine;
            if (writers > 1 || (writers == 1 && readers > 0)) overlap = true;
            --mine;
            ExReleaseResourceLite(&resource);
            ExAcquireFastMutex(&mutex);
            ++guarded;
            ExReleaseFastMutex(&mutex);
        }
        KeLeaveCriticalRegion();
    };
    std::thread threads[4];
    for (int t = 0; t < 4; ++t) threads[t] = std::thread(body, t);
    for (auto &t : threads) t.join();
    EXPECT_FALSE(overlap);
    EXPECT_EQ(guarded, 8000);
}

TEST_F(Sync, FloatingPointSavesPairLastInFirstOutAndCanBeMadeToFail) {
    KFLOATING_SAVE outer, inner;
    ASSERT_EQ(KeSaveFloatingPointState(&outer), STATUS_SUCCESS);
    ASSERT_EQ(KeSaveFloatingPointState(&inner), STATUS_SUCCESS);
    EXPECT_EQ(KeRestoreFloatingPointState(&inner), STATUS_SUCCESS);
    EXPECT_EQ(KeRestoreFloatingPointState(&outer), STATUS_SUCCESS);
    EXPECT_TRUE(hk::VerifierComplaints().empty());
    KeRestoreFloatingPointState(&outer);
    ExpectComplaint("not saved");
    ASSERT_EQ(KeSaveFloatingPointState(&outer), STATUS_SUCCESS);
    ASSERT_EQ(KeSaveFloatingPointState(&inner), STATUS_SUCCESS);
    KeRestoreFloatingPointState(&outer);
    ExpectComplaint("before");
    KeRestoreFloatingPointState(&inner);
    hk::FailFloatingPointSave(STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(KeSaveFloatingPointState(&outer), STATUS_INSUFFICIENT_RESOURCES);
    hk::Reset();
    EXPECT_EQ(KeSaveFloatingPointState(&outer), STATUS_SUCCESS);
    KeRestoreFloatingPointState(&outer);
}

}  // namespace
