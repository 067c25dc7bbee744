// The verifier's lock-order check: locks given a rank may be taken only in
// rank order, outermost first; an acquisition against the order is reported
// naming both locks, whichever kind they are.
#include "host_test.h"

using namespace host_test;

namespace {

class LockOrder : public MachineTest {
public:
    enum Lock { Spin, Outer, A, B, Inner };

protected:
    void SetUp() override {
        MachineTest::SetUp();
        KeInitializeSpinLock(&spin_);
        ExInitializeFastMutex(&outer_mutex_);
        ExInitializeFastMutex(&inner_mutex_);
        ASSERT_EQ(ExInitializeResourceLite(&resource_a_), STATUS_SUCCESS);
        ASSERT_EQ(ExInitializeResourceLite(&resource_b_), STATUS_SUCCESS);
        HkVerifierRankLock(&spin_, HkLockSpinLock, 1, "SpinFirst");
        HkVerifierRankLock(&outer_mutex_, HkLockFastMutex, 2, "OuterMutex");
        HkVerifierRankLock(&resource_a_, HkLockResource, 3, "ResourceA");
        HkVerifierRankLock(&resource_b_, HkLockResource, 3, "ResourceB");
        HkVerifierRankLock(&inner_mutex_, HkLockFastMutex, 4, "InnerMutex");
    }
    void TearDown() override {
        HkVerifierRankLock(&spin_, HkLockSpinLock, 0, nullptr);
        ExDeleteResourceLite(&resource_a_);
        ExDeleteResourceLite(&resource_b_);
        MachineTest::TearDown();
    }

    // Acquire and release through one interface, whatever the kind.
    void Take(Lock lock) {
        switch (lock) {
            case Spin: KeAcquireSpinLock(&spin_, &spin_irql_); break;
            case Outer: ExAcquireFastMutex(&outer_mutex_); break;
            case A: KeEnterCriticalRegion(); ExAcquireResourceSharedLite(&resource_a_, TRUE); break;
            case B: KeEnterCriticalRegion(); ExAcquireResourceExclusiveLite(&resource_b_, TRUE); break;
            case Inner: ExAcquireFastMutex(&inner_mutex_); break;
        }
    }
    void Give(Lock lock) {
        switch (lock) {
            case Spin: KeReleaseSpinLock(&spin_, spin_irql_); break;
            case Outer: ExReleaseFastMutex(&outer_mutex_); break;
            case A: ExReleaseResourceLite(&resource_a_); KeLeaveCriticalRegion(); break;
            case B: ExReleaseResourceLite(&resource_b_); KeLeaveCriticalRegion(); break;
            case Inner: ExReleaseFastMutex(&inner_mutex_); break;
        }
    }

    KSPIN_LOCK spin_;
    KIRQL spin_irql_ = PASSIVE_LEVEL;
    FAST_MUTEX outer_mutex_, inner_mutex_;
    ERESOURCE resource_a_, resource_b_;
};

struct OrderCase {
    const char *name;
    LockOrder::Lock first, second;
    const char *complaint;  // nullptr: the order is kept
};

class LockOrderCases : public LockOrder, public ::testing::WithParamInterface<OrderCase> {};

TEST_P(LockOrderCases, ASecondLockIsCheckedAgainstTheFirst) {
    const OrderCase &c = GetParam();
    Take(c.first);
    Take(c.second);
    Give(c.second);
    Give(c.first);
    if (c.complaint == nullptr) {
        EXPECT_TRUE(hk::VerifierComplaints().empty()) << texprt_test::Joined(hk::VerifierComplaints());
    } else {
        ExpectComplaint(c.complaint);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Orders, LockOrderCases,
    ::testing::Values(
        OrderCase{"outer_then_resource", LockOrder::Outer, LockOrder::A, nullptr},
        OrderCase{"resource_then_inner", LockOrder::B, LockOrder::Inner, nullptr},
        OrderCase{"outer_then_inner", LockOrder::Outer, LockOrder::Inner, nullptr},
        OrderCase{"inner_then_outer",
                  LockOrder::Inner, LockOrder::Outer,
                  "ExAcquireFastMutex: lock order: OuterMutex acquired while this thread holds InnerMutex, which "
                  "comes after it"},
        OrderCase{"inner_then_resource", LockOrder::Inner, LockOrder::A,
                  "ExAcquireResourceSharedLite: lock order: ResourceA acquired while this thread holds InnerMutex"},
        OrderCase{"two_of_one_rank", LockOrder::A, LockOrder::B,
                  "ExAcquireResourceExclusiveLite: lock order: ResourceB acquired while this thread holds "
                  "ResourceA; locks of one rank are never held together"},
        OrderCase{"a_spin_lock_under_a_mutex", LockOrder::Outer, LockOrder::Spin,
                  "KeAcquireSpinLock: lock order: SpinFirst acquired while this thread holds OuterMutex"}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(LockOrder, RecursionOnAResourceIsNoOrderQuestion) {
    Take(A);
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(&resource_a_, TRUE);
    ExReleaseResourceLite(&resource_a_);
    KeLeaveCriticalRegion();
    // Still held once: a lock of a later rank is fine, one of the same is not.
    Take(Inner);
    Give(Inner);
    Take(B);
    Give(B);
    Give(A);
    ExpectComplaint("ResourceB acquired while this thread holds ResourceA");
}

TEST_F(LockOrder, AReleasedLockNoLongerCountsAndReleasesMayComeInAnyOrder) {
    Take(Outer);
    Take(A);
    Give(Outer);  // out of order: allowed
    Take(Inner);
    Give(Inner);
    Give(A);
    Take(Inner);
    Give(Inner);
    Take(Outer);
    Give(Outer);
    EXPECT_TRUE(hk::VerifierComplaints().empty()) << texprt_test::Joined(hk::VerifierComplaints());
}

TEST_F(LockOrder, ATryAcquisitionCannotWaitAndIsNotChecked) {
    Take(Inner);
    ASSERT_TRUE(ExTryToAcquireFastMutex(&outer_mutex_));
    ExReleaseFastMutex(&outer_mutex_);
    Give(Inner);
    EXPECT_TRUE(hk::VerifierComplaints().empty()) << texprt_test::Joined(hk::VerifierComplaints());
}

TEST_F(LockOrder, UnrankedLocksAndReinitialisedOnesAreLeftAlone) {
    FAST_MUTEX plain;
    ExInitializeFastMutex(&plain);
    Take(Inner);
    ExAcquireFastMutex(&plain);
    ExReleaseFastMutex(&plain);
    Give(Inner);
    // Initialising a mutex again makes a new one, without the old rank.
    ExInitializeFastMutex(&outer_mutex_);
    Take(Inner);
    Take(Outer);
    Give(Outer);
    Give(Inner);
    EXPECT_TRUE(hk::VerifierComplaints().empty()) << texprt_test::Joined(hk::VerifierComplaints());
}

TEST_F(LockOrder, EachThreadHasItsOwnHeldLocks) {
    Take(Inner);
    std::thread other([this] {
        Take(Outer);
        Give(Outer);
    });
    other.join();
    Give(Inner);
    EXPECT_TRUE(hk::VerifierComplaints().empty()) << texprt_test::Joined(hk::VerifierComplaints());
}

TEST_F(LockOrder, AnExportCalledAboveItsMaximumIrqlIsReported) {
    HkVerifierCheckExportIrql(APC_LEVEL, "TcSomething");
    EXPECT_TRUE(hk::VerifierComplaints().empty());
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    HkVerifierCheckExportIrql(DISPATCH_LEVEL, "TcSomething");
    EXPECT_TRUE(hk::VerifierComplaints().empty());
    HkVerifierCheckExportIrql(APC_LEVEL, "TcSomething");
    KeLowerIrql(old);
    ExpectComplaint("TcSomething called at IRQL 2, above its maximum of 1");
}

}  // namespace
