// Loads the library image and drives it as the System Monitor and the
// Network Monitor do, from DllInitialize to DllUnload; then again with an
// allocation failure injected at each allocation in turn.
#include <hk/ntkernel.h>

#include "include/texprt.h"
#include "support/machine.h"

using namespace texprt_test;

namespace {

struct Library {
    explicit Library(hk::Image &image) {
#define BIND(name) name = image.Function<decltype(::name)>(#name)
        BIND(DllInitialize);
        BIND(DllUnload);
        BIND(TcSystemsInitializePhase0);
        BIND(TcSystemsInitializePhase1);
        BIND(TcNotifyDriverUnload);
        BIND(TcEventWriteDriverStart);
        BIND(TcEventWrite);
        BIND(TcIsFileSystemCaptureEnabled);
#undef BIND
    }
    decltype(&::DllInitialize) DllInitialize;
    decltype(&::DllUnload) DllUnload;
    decltype(&::TcSystemsInitializePhase0) TcSystemsInitializePhase0;
    decltype(&::TcSystemsInitializePhase1) TcSystemsInitializePhase1;
    decltype(&::TcNotifyDriverUnload) TcNotifyDriverUnload;
    decltype(&::TcEventWriteDriverStart) TcEventWriteDriverStart;
    decltype(&::TcEventWrite) TcEventWrite;
    decltype(&::TcIsFileSystemCaptureEnabled) TcIsFileSystemCaptureEnabled;
};

struct Statuses {
    NTSTATUS initialize, system_phase0, network_phase0, system_start, network_start, phase1, unload;
};

// One boot and shutdown of both monitors. `fail_at` (0: none) arms the
// allocation failure once the image is loaded.
Statuses BootAndStop(uint64_t fail_at) {
    hk::Image image;
    const std::string error = image.Load(TEXPRT_IMAGE_PATH);
    EXPECT_EQ(error, "");
    Library lib(image);
    PDRIVER_OBJECT system_monitor = hk::CreateDriverObject("\\Driver\\tmon");
    PDRIVER_OBJECT network_monitor = hk::CreateDriverObject("\\Driver\\tnmon");
    if (fail_at) hk::FailNthAllocation(fail_at);

    Statuses s{};
    s.initialize = lib.DllInitialize(nullptr);
    if (!NT_SUCCESS(s.initialize)) return s;  // the load fails; no DllUnload follows
    s.system_phase0 = lib.TcSystemsInitializePhase0(system_monitor, TRUE);
    s.system_start = lib.TcEventWriteDriverStart(TEXPRT_MSG_SYSTEM_MONITOR_STARTING, "5.2.1.17", system_monitor);
    s.network_phase0 = lib.TcSystemsInitializePhase0(network_monitor, FALSE);
    s.network_start =
        lib.TcEventWriteDriverStart(TEXPRT_MSG_NETWORK_MONITOR_STARTING_VERSION, "3.0.4", network_monitor);
    s.phase1 = lib.TcSystemsInitializePhase1();
    EXPECT_EQ(lib.TcIsFileSystemCaptureEnabled(), 0);
    hk::AdvanceClock(hk::kTicksPerSecond);  // let the housekeeping timer run
    lib.TcEventWrite(TEXPRT_MSG_NETWORK_MONITOR_STOPPING, 0, 0, nullptr, nullptr, 0, network_monitor);
    EXPECT_EQ(lib.TcNotifyDriverUnload(FALSE), STATUS_SUCCESS);
    lib.TcEventWrite(TEXPRT_MSG_SYSTEM_MONITOR_STOPPING, 0, 0, nullptr, nullptr, 0, system_monitor);
    EXPECT_EQ(lib.TcNotifyDriverUnload(TRUE), STATUS_SUCCESS);
    s.unload = lib.DllUnload();
    hk::ClearAllocationFailures();
    return s;
}

class LifecycleTest : public MachineTest {
protected:
    void ExpectCleanMachine() {
        EXPECT_EQ(hk::OutstandingPoolBytes(), 0u) << hk::LeakReport();
        EXPECT_TRUE(hk::VerifierComplaints().empty()) << Joined(hk::VerifierComplaints());
        EXPECT_EQ(hk::TraceRegistrations(), 0u);
    }
};

TEST_F(LifecycleTest, BothMonitorsStartAndStop) {
    hk::RegistrySetDword(kParametersKey, "MaxCacheSize", 200);
    const Statuses s = BootAndStop(0);
    EXPECT_EQ(s.initialize, STATUS_SUCCESS);
    EXPECT_EQ(s.system_phase0, STATUS_SUCCESS);
    EXPECT_EQ(s.network_phase0, STATUS_SUCCESS);
    EXPECT_EQ(s.system_start, STATUS_SUCCESS);
    EXPECT_EQ(s.network_start, STATUS_SUCCESS);
    // The agent's path is built from the system root, which phase 1 cannot
    // have before the data directory is resolved: phase 1 reports it and
    // unwinds.
    EXPECT_EQ(s.phase1, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(s.unload, STATUS_SUCCESS);

    std::vector<std::string> texts;
    for (auto &e : hk::EventLog()) texts.push_back(e.source + ": " + e.text);
    // No policy path is configured: phase 0 finds both policies withdrawn.
    EXPECT_EQ(texts, (std::vector<std::string>{
                         "tmon: Tolvex Agent product policy is revoked.\r\n",
                         "tmon: Tolvex Agent successfully revoked hash based application blocking policy.\r\n",
                         "tmon: Tolvex Agent System Monitor is starting (version 5.2.1.17).\r\n",
                         "tnmon: Tolvex Agent Network Monitor is starting (version 3.0.4).\r\n",
                         "tnmon: Tolvex Agent Network Monitor is stopping.\r\n",
                         "tmon: Tolvex Agent System Monitor is stopping.\r\n",
                     }));
    // First start: the default app cache size is published for the agent.
    EXPECT_TRUE(hk::RegistryGetValue(kParametersKey, "HBBMaxAppCacheSize").has_value());
    ExpectCleanMachine();
}

TEST_F(LifecycleTest, EveryAllocationCanFail) {
    hk::RegistrySetDword(kParametersKey, "MaxCacheSize", 200);
    const uint64_t before = hk::PoolAllocationCalls();
    BootAndStop(0);
    const uint64_t allocations = hk::PoolAllocationCalls() - before;
    ASSERT_GT(allocations, 3u);

    for (uint64_t n = 1; n <= allocations; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n) + " of " + std::to_string(allocations) + " fails");
        hk::Reset();
        hk::RegistrySetDword(kParametersKey, "MaxCacheSize", 200);
        const uint64_t injected = hk::InjectedFailures();
        const Statuses s = BootAndStop(n);
        EXPECT_EQ(hk::InjectedFailures() - injected, 1u);
        EXPECT_EQ(s.initialize, STATUS_SUCCESS);
        EXPECT_EQ(s.system_phase0, STATUS_SUCCESS);
        EXPECT_EQ(s.network_phase0, STATUS_SUCCESS);
        // Only the conversion of a start message can fail its caller; a lost
        // packet is lost without a sign.
        for (NTSTATUS start : {s.system_start, s.network_start})
            EXPECT_TRUE(start == STATUS_SUCCESS || start == STATUS_NO_MEMORY) << std::hex << start;
        EXPECT_EQ(s.phase1, STATUS_INVALID_PARAMETER);
        EXPECT_EQ(s.unload, STATUS_SUCCESS);
        ExpectCleanMachine();
    }
}

TEST_F(LifecycleTest, EachLoadStartsFromFreshStorage) {
    hk::RegistryCreateKey(kParametersKey);
    BootAndStop(0);
    ASSERT_TRUE(hk::RegistryDeleteValue(kParametersKey, "HBBMaxAppCacheSize"));
    // Only a phase 0 that finds its start byte clear publishes the default
    // again: the second life must not see the first one's storage.
    BootAndStop(0);
    EXPECT_TRUE(hk::RegistryGetValue(kParametersKey, "HBBMaxAppCacheSize").has_value());
    ExpectCleanMachine();
}

}  // namespace
