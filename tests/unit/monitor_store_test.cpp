// The monitor store: what an install, a removal and the tear-down do to the
// sets and the masks, and readers under the shared lock while policies are
// swapped under them.
#include "diagnostics/eventlog.h"
#include "include/texprt.h"
#include "base/locks.h"
#include "rules/store.h"
#include "support/concurrency.h"
#include "support/monitor_test.h"
#include "tpol.h"

#include <atomic>
#include <thread>

using namespace texprt_test;

namespace {

class MonitorStoreTest : public MonitorStoreFixture {};

const char kEdition1[] = R"(
monitor:
  rules:
    - {category: file, type: 2, contexts: [{id: 00000000000000000000000000000001}], path: '\ONE', operations: 0x81}
    - {category: registry, type: 4, list: fim, contexts: [{id: 00000000000000000000000000000002}], path: '\K',
       operations: 0x300, operations2: 0x4}
    - {category: network, type: 10, list: fim, contexts: [{id: 00000000000000000000000000000003}], operations: 0x4}
)";
const char kEdition2[] = R"(
monitor:
  rules:
    - {category: file, type: 3, contexts: [{id: 00000000000000000000000000000004}], path: '\TWO', operations2: 0x20}
    - {category: whitelist, type: 8, contexts: [{id: 00000000000000000000000000000005}], path: 'W'}
)";

TEST_F(MonitorStoreTest, AnInstallRebuildsEveryMaskFromTheNewRules) {
    Install(kEdition1);
    EXPECT_EQ(CaptureMask, LONG(CaptureFile | CaptureRegistry | CaptureNetwork));
    EXPECT_EQ(RegKeyNotifyMask, 0x300u);
    EXPECT_EQ(RegValNotifyMask, 0x4u);
    EXPECT_EQ(DiskNotifyMask, 0x81u);
    // The FIM family's network rules capture, but nothing notifies for them.
    EXPECT_EQ(NetworkNotifyMask, 0u);
    ULONG fim, edr, whitelist;
    CountMonitorRules(&fim, &edr, &whitelist);
    EXPECT_EQ(fim, 2u);
    EXPECT_EQ(edr, 1u);
    EXPECT_EQ(whitelist, 0u);

    Install(kEdition2);
    EXPECT_EQ(CaptureMask, LONG(CaptureFile | CaptureWhiteList));
    EXPECT_EQ(RegKeyNotifyMask | RegValNotifyMask | NetworkNotifyMask, 0u);
    EXPECT_EQ(DiskNotifyMask, 0x20u);
    EXPECT_EQ(FimRuleSets.Registry, nullptr);  // nothing is carried over
}

TEST_F(MonitorStoreTest, RemovalClearsTheMasksAndTearDownLeavesTheNotifyMasks) {
    MonitorRuleSets none{};
    EXPECT_EQ(InstallMonitorRuleSets(nullptr, nullptr, nullptr), STATUS_INVALID_PARAMETER);
    Install(kEdition1);
    ClearMonitorRuleSets();
    EXPECT_EQ(CaptureMask, 0);
    EXPECT_EQ(EdrRuleSets.File, nullptr);
    EXPECT_EQ(DiskNotifyMask, 0x81u);
    Install(kEdition1);
    RemoveMonitorRuleSets();
    EXPECT_EQ(CaptureMask, 0);
    EXPECT_EQ(RegKeyNotifyMask | RegValNotifyMask | DiskNotifyMask | NetworkNotifyMask, 0u);
    // An install of empty groups is a policy without rules.
    EXPECT_EQ(InstallMonitorRuleSets(&none, &none, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(CaptureMask, 0);
}

// Readers and lock-free queries on other threads while the store is swapped.
// The ctest label "concurrency" comes with the suite's name (see
// tests/CMakeLists.txt).
class MonitorStoreConcurrency : public MonitorStoreFixture {};

TEST_F(MonitorStoreConcurrency, ReadersSeeOneWholePolicyWhileItIsSwapped) {
    Install(kEdition1);
    const ReadTally tally = ReadWhileWriting(
        3, 200,
        [] {
            SharedResourceGuard guard(&MonitorRuleLock);
            // Edition 1 has a FIM registry set and edition 2 a whitelist
            // set; a reader must never see both, nor neither.
            const MonitorFileRuleSet *file = EdrRuleSets.File;
            const bool one = FimRuleSets.Registry != nullptr, two = MonitorWhiteListSet != nullptr;
            return file != nullptr && one != two &&
                   Text(&file->Rules[0].Path) == (one ? std::string("\\ONE") : std::string("\\TWO"));
        },
        [](int round) { Install(round % 2 ? kEdition1 : kEdition2); });
    EXPECT_EQ(tally.wrong, 0);
    EXPECT_GT(tally.reads, 0);
}

// The monitors' state queries read one mask each with no lock, on their
// hot paths, while the agent installs: each answer is one edition's, or a
// bit still clear while its mask is rebuilt, never a bit of neither edition.
TEST_F(MonitorStoreConcurrency, StateQueriesAnswerWithoutALockWhilePoliciesAreSwapped) {
    Install(kEdition1);
    const ReadTally tally = ReadWhileWriting(
        2, 200,
        [] {
            const UCHAR disk = TcIsDiskRuleNotify(0xFF);
            bool good = disk == 0 || disk == 0x81 || disk == 0x20;
            good = good && (TcIsRegValNotify(0xFF) & ~0x4) == 0 && TcIsNetworkRuleNotify(0xFF) == 0;
            good = good && !TcIsSystemCaptureEnabled() && !TcIsProcessCaptureEnabled();
            (void)TcIsFileSystemCaptureEnabled();
            (void)TcIsWhitelistMonitorEnabled();
            return good;
        },
        [](int round) {
            if (round % 5 == 4)
                RemoveMonitorRuleSets();
            else
                Install(round % 2 ? kEdition1 : kEdition2);
        });
    EXPECT_EQ(tally.wrong, 0);
    EXPECT_GT(tally.reads, 0);
}

}  // namespace
