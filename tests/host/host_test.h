// Shared bits of hostkernel's own tests.
#pragma once

#include "support/machine.h"

#include <hk/hk.h>

#include <thread>

namespace host_test {

using texprt_test::MachineTest;

constexpr int64_t kSecond = hk::kTicksPerSecond;

inline LARGE_INTEGER Ticks(int64_t ticks) {
    LARGE_INTEGER value;
    value.QuadPart = ticks;
    return value;
}

inline NTSTATUS Wait(PVOID object, int64_t timeout) {
    LARGE_INTEGER t = Ticks(timeout);
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, &t);
}

// Until `count` threads sit in a kernel wait, so that a test moves the clock
// or signals only once the other side is really waiting.
inline void WaitUntilBlocked(size_t count) {
    while (hk::WaitingThreads() < count) std::this_thread::yield();
}

// Expects exactly one complaint so far, mentioning `what`, and takes it.
inline void ExpectComplaint(const std::string &what) {
    const auto complaints = hk::VerifierComplaints();
    ASSERT_EQ(complaints.size(), 1u) << texprt_test::Joined(complaints);
    EXPECT_NE(complaints[0].find(what), std::string::npos) << complaints[0];
    hk::ClearVerifierComplaints();
}

}  // namespace host_test
