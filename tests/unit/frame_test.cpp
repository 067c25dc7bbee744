// The frame's start, stop and configuration, on the library's own objects.
#include "platform/nt.h"

#include "base/filter.h"
#include "base/registry.h"
#include "base/strings.h"
#include "base/workqueue.h"
#include "diagnostics/counters.h"
#include "diagnostics/eventlog.h"
#include "eventstream/globals.h"
#include "frame/config.h"
#include "frame/frame.h"
#include "hashblock/globals.h"
#include "include/texprt.h"
#include "support/machine.h"

using namespace texprt_test;

namespace {

class FrameTest : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        system_monitor_ = hk::CreateDriverObject("\\Driver\\tmon");
        network_monitor_ = hk::CreateDriverObject("\\Driver\\tnmon");
        ASSERT_EQ(DllInitialize(nullptr), STATUS_SUCCESS);
    }
    void TearDown() override {
        if (loaded_) Unload();
        MachineTest::TearDown();
    }
    void Unload() {
        EXPECT_EQ(DllUnload(), STATUS_SUCCESS);
        loaded_ = false;
        // Image defaults for the next load in this process.
        MaxCacheSize.QuadPart = DefaultMaxCacheSize;
        HbbMaxAppCacheSize = DefaultHbbMaxAppCacheSize;
        PerfCountersEnabled = 0;
        SystemRootDeviceString = {};
        MonitorObjects[PreferredMonitorObject] = MonitorObjects[OtherMonitorObject] = nullptr;
        FilterHandle = nullptr;
        FilterAvailable = 0;
    }
    PDRIVER_OBJECT system_monitor_ = nullptr, network_monitor_ = nullptr;
    bool loaded_ = true;
};

TEST_F(FrameTest, PhaseZeroWithNoConfigurationSucceedsWithDefaults) {
    EXPECT_EQ(TcSystemsInitializePhase0(system_monitor_, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(MaxCacheSize.QuadPart, 104857600);
    EXPECT_EQ(HbbMaxAppCacheSize, 1024u);
    EXPECT_EQ(TcIsPerformanceFlagSet(), 0);
    for (auto query : {TcIsSystemCaptureEnabled, TcIsProcessCaptureEnabled, TcIsFileSystemCaptureEnabled,
                       TcIsRegistryCaptureEnabled, TcIsWhitelistMonitorEnabled, TcIsNetworkCaptureEnabled,
                       TcIsDirectoryProtectionEnabled, TcIsRegistryProtectionEnabled, TcIsProcessProtectionEnabled,
                       TcIsDriverProtectionEnabled})
        EXPECT_EQ(query(), 0);
    EXPECT_EQ(TcIsDiskRuleNotify(0xFF), 0);
    // Without a Parameters key there is nowhere to publish the default.
    EXPECT_FALSE(hk::RegistryKeyExists(kParametersKey));
}

struct ConfigCase {
    const char *what;
    void (*setup)();
    LONGLONG max_cache_size;
    ULONG hbb_size;
    UCHAR perf;
};

void PrintTo(const ConfigCase &c, std::ostream *os) { *os << c.what; }

class ConfigurationTest : public FrameTest, public ::testing::WithParamInterface<ConfigCase> {};

TEST_P(ConfigurationTest, PhaseZeroReadsTheRegistry) {
    GetParam().setup();
    ASSERT_EQ(TcSystemsInitializePhase0(system_monitor_, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(MaxCacheSize.QuadPart, GetParam().max_cache_size);
    EXPECT_EQ(HbbMaxAppCacheSize, GetParam().hbb_size);
    EXPECT_EQ(TcIsPerformanceFlagSet(), GetParam().perf);
}

INSTANTIATE_TEST_SUITE_P(
    Values, ConfigurationTest,
    ::testing::Values(
        ConfigCase{"200 MiB", [] { hk::RegistrySetDword(kParametersKey, "MaxCacheSize", 200); }, 209715200, 1024, 0},
        ConfigCase{"zero is taken as zero", [] { hk::RegistrySetDword(kParametersKey, "MaxCacheSize", 0); }, 0, 1024,
                   0},
        ConfigCase{"a QWORD fills both halves", [] { hk::RegistrySetQword(kParametersKey, "MaxCacheSize", 4096); },
                   4294967296LL, 1024, 0},
        ConfigCase{"more than 12 bytes of data overflow and keep the default",
                   [] { hk::RegistrySetString(kParametersKey, "MaxCacheSize", "1234567"); }, 104857600, 1024, 0},
        ConfigCase{"HBBMaxAppCacheSize", [] { hk::RegistrySetDword(kParametersKey, "HBBMaxAppCacheSize", 50); },
                   104857600, 50, 0},
        ConfigCase{"HBBMaxAppCacheSize as a QWORD gives its low half",
                   [] { hk::RegistrySetQword(kParametersKey, "HBBMaxAppCacheSize", 0x100000032ull); }, 104857600,
                   50, 0},
        ConfigCase{"HBBMaxAppCacheSize of more than 8 bytes keeps the default",
                   [] { hk::RegistrySetString(kParametersKey, "HBBMaxAppCacheSize", "1234"); }, 104857600, 1024,
                   0},
        ConfigCase{"a PerFlagOn subkey with no values turns counters on",
                   [] { hk::RegistryCreateKey(std::string(kServiceKey) + "\\PerFlagOn"); }, 104857600, 1024, 1},
        ConfigCase{"a PerFlagOn value does nothing",
                   [] { hk::RegistrySetDword(kServiceKey, "PerFlagOn", 1); }, 104857600, 1024, 0}),
    [](const auto &info) {
        std::string name;
        for (char c : std::string(info.param.what)) name += std::isalnum((unsigned char)c) ? c : '_';
        return name;
    });

TEST_F(FrameTest, FirstStartPublishesTheAppCacheDefault) {
    hk::RegistryCreateKey(kParametersKey);
    ASSERT_EQ(TcSystemsInitializePhase0(system_monitor_, TRUE), STATUS_SUCCESS);
    auto value = hk::RegistryGetValue(kParametersKey, "HBBMaxAppCacheSize");
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(value->type, uint32_t(REG_DWORD));
    ASSERT_EQ(value->data.size(), 4u);
    EXPECT_EQ(*reinterpret_cast<uint32_t *>(value->data.data()), 1024u);
}

TEST_F(FrameTest, MaxCacheSizeIsReadAgainOnRequest) {
    hk::RegistrySetDword(kParametersKey, "MaxCacheSize", 1);
    ASSERT_EQ(TcSystemsInitializePhase0(system_monitor_, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(MaxCacheSize.QuadPart, 1 << 20);
    hk::RegistrySetDword(kParametersKey, "MaxCacheSize", 3);
    EXPECT_EQ(TcUpdateMaxCacheSize(), STATUS_SUCCESS);
    EXPECT_EQ(MaxCacheSize.QuadPart, 3 << 20);
    // A value that disappears leaves the last one in force.
    hk::RegistryDeleteValue(kParametersKey, "MaxCacheSize");
    EXPECT_EQ(TcUpdateMaxCacheSize(), STATUS_SUCCESS);
    EXPECT_EQ(MaxCacheSize.QuadPart, 3 << 20);
}

TEST_F(FrameTest, SecondMonitorOnlyRegisters) {
    hk::RegistryCreateKey(kParametersKey);
    ASSERT_EQ(TcSystemsInitializePhase0(system_monitor_, TRUE), STATUS_SUCCESS);
    // Had the second monitor run the shared work, it would publish this again.
    hk::RegistryDeleteValue(kParametersKey, "HBBMaxAppCacheSize");
    EXPECT_EQ(TcSystemsInitializePhase0(network_monitor_, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(MonitorObjects[PreferredMonitorObject], system_monitor_);
    EXPECT_EQ(MonitorObjects[OtherMonitorObject], network_monitor_);
    EXPECT_FALSE(hk::RegistryGetValue(kParametersKey, "HBBMaxAppCacheSize").has_value());
}

TEST_F(FrameTest, PhaseZeroWithoutDriverObjectChangesNothing) {
    EXPECT_EQ(TcSystemsInitializePhase0(nullptr, TRUE), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(MonitorObjects[PreferredMonitorObject], nullptr);
    EXPECT_EQ(MonitorObjects[OtherMonitorObject], nullptr);
    EXPECT_EQ(Phase0Started, 0);
    EXPECT_EQ(ServiceKeyPath, nullptr);
}

TEST_F(FrameTest, NotifyDriverUnloadClearsOneSlot) {
    ASSERT_EQ(TcSystemsInitializePhase0(system_monitor_, TRUE), STATUS_SUCCESS);
    ASSERT_EQ(TcSystemsInitializePhase0(network_monitor_, FALSE), STATUS_SUCCESS);
    hk::ClearEventLog();
    EXPECT_EQ(TcNotifyDriverUnload(TRUE), STATUS_SUCCESS);
    EXPECT_EQ(MonitorObjects[PreferredMonitorObject], nullptr);
    EXPECT_EQ(MonitorObjects[OtherMonitorObject], network_monitor_);
    // Internal messages now name the other monitor.
    ReportEvent(MsgProductPolicyRevoked);
    ASSERT_EQ(hk::EventLog().size(), 1u);
    EXPECT_EQ(hk::EventLog()[0].source, "tnmon");
}

TEST_F(FrameTest, PhaseOneWithoutSystemRootFailsAndUnwinds) {
    ASSERT_EQ(TcSystemsInitializePhase0(system_monitor_, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(TcSystemsInitializePhase1(), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Phase1Started, 0);
    EXPECT_EQ(TcGetTolvexAgentExeLocation()->Buffer, nullptr);
    // The timer armed before the failure fires once, finds phase 1 released
    // and stops: one work item, and nothing after it.
    const uint64_t before = hk::PoolAllocationCalls();
    hk::AdvanceClock(hk::kTicksPerSecond / 2);
    hk::AdvanceClock(hk::kTicksPerSecond * 5);
    EXPECT_EQ(hk::PoolAllocationCalls() - before, 1u);
}

// The housekeeping chain runs as a timer's DPC that queues a work item to
// the library's worker thread. The ctest label "concurrency" comes with the
// suite's name (see tests/CMakeLists.txt).
class FrameConcurrency : public FrameTest {};

TEST_F(FrameConcurrency, PhaseOneBuildsTheAgentPathAndKeepsHousekeepingAlive) {
    static WCHAR root[] = u"\\Device\\HarddiskVolume2\\WINDOWS";
    RtlInitUnicodeString(&SystemRootDeviceString, root);
    ASSERT_EQ(TcSystemsInitializePhase0(system_monitor_, TRUE), STATUS_SUCCESS);
    ASSERT_EQ(TcSystemsInitializePhase1(), STATUS_SUCCESS);
    EXPECT_EQ(TcSystemsInitializePhase1(), STATUS_SUCCESS);  // the second caller returns at once
    PUNICODE_STRING path = TcGetTolvexAgentExeLocation();
    EXPECT_EQ(Text(path), "\\Device\\HarddiskVolume2\\Program Files\\Tolvex\\TolvexAgent\\TolvexAgent.exe");
    EXPECT_EQ(path->Length, SystemRootDeviceString.Length + 98 - 16);
    EXPECT_EQ(path->MaximumLength, path->Length + 2);
    EXPECT_EQ(path->Buffer[path->Length / 2], 0);
    EXPECT_EQ(TcGetSystemRootDeviceString(), &SystemRootDeviceString);

    // Each half second the chain runs once and re-arms.
    for (int round = 1; round <= 3; ++round) {
        const uint64_t before = hk::PoolAllocationCalls();
        hk::AdvanceClock(hk::kTicksPerSecond / 2);
        hk::AdvanceClock(0);
        // The work item is freed by the worker thread; wait for the re-arm.
        for (int spin = 0; spin < 2000 && hk::OutstandingPoolCount() > 2; ++spin) usleep(1000);
        EXPECT_EQ(hk::PoolAllocationCalls() - before, 1u) << "round " << round;
    }
    // Without a work item the DPC re-arms the timer itself.
    hk::FailAllocationsWithTag(TagWorkItem);
    const uint64_t failed = hk::InjectedFailures();
    hk::AdvanceClock(hk::kTicksPerSecond / 2);
    hk::AdvanceClock(hk::kTicksPerSecond / 2);
    EXPECT_EQ(hk::InjectedFailures() - failed, 2u);
    hk::ClearAllocationFailures();
}

TEST_F(FrameTest, AgentPathAllocationFailureUnwindsPhaseOne) {
    static WCHAR root[] = u"\\Device\\HarddiskVolume2\\WINDOWS";
    RtlInitUnicodeString(&SystemRootDeviceString, root);
    ASSERT_EQ(TcSystemsInitializePhase0(system_monitor_, TRUE), STATUS_SUCCESS);
    hk::FailAllocationsWithTag(TagFrame);
    EXPECT_EQ(TcSystemsInitializePhase1(), STATUS_INSUFFICIENT_RESOURCES);
    hk::ClearAllocationFailures();
    EXPECT_EQ(Phase1Started, 0);
    EXPECT_EQ(TolvexAgentExePath.Length, 0);
    EXPECT_EQ(TolvexAgentExePath.MaximumLength, 0);
    EXPECT_EQ(TolvexAgentExePath.Buffer, nullptr);
    // A retry claims the phase again and succeeds.
    EXPECT_EQ(TcSystemsInitializePhase1(), STATUS_SUCCESS);
}

TEST_F(FrameTest, FilterPointer) {
    auto *filter = reinterpret_cast<PFLT_FILTER>(0x1000);
    EXPECT_EQ(TcSetMiniFilterPointer(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(FilterHandle, nullptr);
    EXPECT_EQ(TcSetMiniFilterPointer(filter), STATUS_SUCCESS);
    EXPECT_EQ(FilterHandle, filter);
    EXPECT_EQ(FilterAvailable, 1);
    EXPECT_EQ(TcSetMiniFilterPointer(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(FilterHandle, filter);
    EXPECT_EQ(TcNotifyFilterAvailabilility(0), 0);
    EXPECT_EQ(FilterAvailable, 0);
    EXPECT_EQ(FilterHandle, filter);
    TcAcquireFilterLock();
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);  // a fast mutex holder runs at APC_LEVEL
    TcReleaseFilterLock();
    TcClearMiniFilterPointer();
    EXPECT_EQ(FilterHandle, nullptr);
    EXPECT_EQ(FilterAvailable, 0);
}

TEST_F(FrameTest, LoadsWithoutTracingRoutines) {
    Unload();
    hk::HideSystemRoutine("EtwRegister");
    ASSERT_EQ(DllInitialize(nullptr), STATUS_SUCCESS);
    loaded_ = true;
    EXPECT_EQ(hk::TraceRegistrations(), 0u);
    EXPECT_EQ(TcSetMiniFilterPointer(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(hk::TraceLines().empty());
}

TEST_F(FrameTest, FailuresAreTraced) {
    EXPECT_EQ(hk::TraceRegistrations(), 1u);
    EXPECT_EQ(TcSetMiniFilterPointer(nullptr), STATUS_INVALID_PARAMETER);
    ASSERT_FALSE(hk::TraceLines().empty());
    EXPECT_EQ(hk::TraceLines().back(), "TcSetMiniFilterPointer: status 0xC000000D");
    Unload();
    EXPECT_EQ(hk::TraceRegistrations(), 0u);
}

}  // namespace
