// Whitebox tests of library code that reports to the event log: a fresh
// machine with the System Monitor registered as the preferred monitor, as
// phase 0 leaves it.
#pragma once

#include "diagnostics/eventlog.h"
#include "support/machine.h"

namespace texprt_test {

class LibraryTest : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        InitializeEventLog();
        MonitorObjects[PreferredMonitorObject] = hk::CreateDriverObject("\\Driver\\tmon");
    }
    void TearDown() override {
        MonitorObjects[PreferredMonitorObject] = nullptr;
        MachineTest::TearDown();
    }
};

}  // namespace texprt_test
