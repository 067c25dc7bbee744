// The library's contracts as the host's verifier sees them: every export
// checks its IRQL at entry against the export list, and the library's locks
// carry their rank in the lock order, so that an acquisition against it is
// reported whichever thread makes it.
#include "platform/nt.h"

#include "base/locks.h"
#include "diagnostics/eventlog.h"
#include "include/texprt.h"
#include "rules/store.h"
#include "support/machine.h"

#include <functional>

using namespace texprt_test;

namespace {

class ContractsTest : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        ASSERT_EQ(DllInitialize(nullptr), STATUS_SUCCESS);
        ASSERT_EQ(TcSystemsInitializePhase0(hk::CreateDriverObject("\\Driver\\tmon"), TRUE), STATUS_SUCCESS);
    }
    void TearDown() override {
        EXPECT_EQ(DllUnload(), STATUS_SUCCESS);
        MachineTest::TearDown();
    }
    // The complaints that name `what`; the others are taken too.
    static std::vector<std::string> TakeComplaints(const std::string &what) {
        std::vector<std::string> found;
        for (const auto &c : hk::VerifierComplaints())
            if (c.find(what) != std::string::npos) found.push_back(c);
        hk::ClearVerifierComplaints();
        return found;
    }
};

struct IrqlCase {
    const char *name;
    KIRQL maximum;
    std::function<void()> call;  // arguments that make the export return at once
};

class ExportIrqlTest : public ContractsTest, public ::testing::WithParamInterface<IrqlCase> {};

// Runs the call at `irql` (raised from PASSIVE_LEVEL, lowered again after).
void CallAt(KIRQL irql, const std::function<void()> &call) {
    KIRQL old = PASSIVE_LEVEL;
    if (irql != PASSIVE_LEVEL) KeRaiseIrql(irql, &old);
    call();
    if (irql != PASSIVE_LEVEL) KeLowerIrql(old);
}

TEST_P(ExportIrqlTest, AtItsMaximumItIsQuietAndAboveItTheEntryIsReported) {
    const IrqlCase &c = GetParam();
    CallAt(c.maximum, c.call);
    EXPECT_TRUE(hk::VerifierComplaints().empty()) << Joined(hk::VerifierComplaints());
    CallAt(KIRQL(c.maximum + 1), c.call);
    const auto found = TakeComplaints(std::string(c.name) + " called at IRQL " + std::to_string(c.maximum + 1) +
                                      ", above its maximum of " + std::to_string(c.maximum));
    EXPECT_EQ(found.size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Exports, ExportIrqlTest,
    ::testing::Values(
        IrqlCase{"TcTFeMatchesMonitorFileRuleSet", PASSIVE_LEVEL,
                 [] { TcTFeMatchesMonitorFileRuleSet(nullptr, nullptr, nullptr); }},
        IrqlCase{"TcTFeInitializeFileObject", PASSIVE_LEVEL,
                 [] { TcTFeInitializeFileObject(nullptr, nullptr, 0, 0, 0, 0, 0); }},
        IrqlCase{"TcTFeIsSubPathOfRulePath", PASSIVE_LEVEL, [] { TcTFeIsSubPathOfRulePath(nullptr, nullptr, FALSE); }},
        IrqlCase{"TcTFeUnsetBaselineFlagFileRuleSet", APC_LEVEL,
                 [] { TcTFeUnsetBaselineFlagFileRuleSet(nullptr, 0); }},
        IrqlCase{"TcTFeMatchesProcessAppBlockingRuleSet", APC_LEVEL,
                 [] { TcTFeMatchesProcessAppBlockingRuleSet(nullptr, nullptr); }},
        IrqlCase{"TcSetMiniFilterPointer", APC_LEVEL, [] { TcSetMiniFilterPointer(nullptr); }}),
    [](const auto &info) { return std::string(info.param.name); });

// A state query is a load: it may be called from a DPC.
TEST_F(ContractsTest, TheStateQueriesMayBeCalledAtDispatchLevel) {
    CallAt(DISPATCH_LEVEL, [] {
        TcIsFileSystemCaptureEnabled();
        TcIsDiskRuleNotify(0xFF);
        TcIsHBBProcessSHA256SupportEnabled();
        TcGetSystemRootDeviceString();
        TcNotifyFilterAvailabilility(1);
    });
    EXPECT_TRUE(hk::VerifierComplaints().empty()) << Joined(hk::VerifierComplaints());
}

// A monitor that holds the filter lock across a match breaks the order: the
// rule stores come before the filter lock.
TEST_F(ContractsTest, AMatchUnderTheFilterLockIsReported) {
    UCHAR digest[32] = {};
    AppBlockingResult result{};
    TcAcquireFilterLock();
    TcTFeMatchesProcessAppBlockingRuleSet(digest, &result);
    TcReleaseFilterLock();
    const auto found = TakeComplaints("AppBlockingRuleLock acquired while this thread holds FilterLock");
    EXPECT_EQ(found.size(), 1u);
    // In the order of the table the same two are quiet: an event log write
    // (the innermost lock) under the filter lock.
    TcAcquireFilterLock();
    EventWriteEventHBBWLFailure(STATUS_UNSUCCESSFUL);
    TcReleaseFilterLock();
    EXPECT_TRUE(hk::VerifierComplaints().empty()) << Joined(hk::VerifierComplaints());
    hk::ClearEventLog();
}

TEST_F(ContractsTest, TwoRuleStoresAreNeverHeldTogether) {
    {
        SharedResourceGuard guard(&MonitorRuleLock);
        TcRevokeAppBlockingPolicy();
    }
    const auto found = TakeComplaints(
        "AppBlockingRuleLock acquired while this thread holds MonitorRuleLock; locks of one rank are never held "
        "together");
    EXPECT_EQ(found.size(), 1u);
    hk::ClearEventLog();
}

}  // namespace
