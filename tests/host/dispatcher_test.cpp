// Events, waits and the clock.
#include "host_test.h"

#include <atomic>
#include <chrono>
#include <functional>

using namespace host_test;

namespace {

class Dispatcher : public MachineTest {};
// Waits released from other threads, and the real clock. The ctest label
// "concurrency" comes with the suite's name (see tests/CMakeLists.txt).
class DispatcherConcurrency : public MachineTest {};

TEST_F(Dispatcher, SynchronizationEventsResetOnWaitNotificationEventsStaySignalled) {
    const struct {
        EVENT_TYPE type;
        NTSTATUS second_wait;
        LONG state_after;
    } cases[] = {{NotificationEvent, STATUS_SUCCESS, 1}, {SynchronizationEvent, STATUS_TIMEOUT, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.type);
        KEVENT event;
        KeInitializeEvent(&event, c.type, FALSE);
        EXPECT_EQ(Wait(&event, 0), STATUS_TIMEOUT);
        EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
        EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 1);
        EXPECT_EQ(Wait(&event, 0), STATUS_SUCCESS);
        EXPECT_EQ(Wait(&event, 0), c.second_wait);
        EXPECT_EQ(KeReadStateEvent(&event), c.state_after);
        EXPECT_EQ(KeResetEvent(&event), c.state_after);
        EXPECT_EQ(KeReadStateEvent(&event), 0);
    }
}

TEST_F(DispatcherConcurrency, SettingAnEventReleasesOneSynchronizationWaiterOrAllNotificationWaiters) {
    for (EVENT_TYPE type : {SynchronizationEvent, NotificationEvent}) {
        KEVENT event;
        KeInitializeEvent(&event, type, FALSE);
        std::atomic<int> released{0};
        auto waiter = [&] {
            EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
            ++released;
        };
        std::thread a(waiter), b(waiter);
        WaitUntilBlocked(2);
        KeSetEvent(&event, 0, FALSE);
        // The waiter that has waited longest takes a synchronization event
        // as it is set: nobody else can see it signalled.
        EXPECT_EQ(KeReadStateEvent(&event), type == NotificationEvent ? 1 : 0);
        if (type == SynchronizationEvent) {
            while (released < 1) std::this_thread::yield();
            EXPECT_EQ(hk::WaitingThreads(), 1u);
            KeSetEvent(&event, 0, FALSE);
        }
        a.join();
        b.join();
        EXPECT_EQ(released, 2);
    }
}

TEST_F(DispatcherConcurrency, WaitAnyReturnsTheIndexWaitAllNeedsEveryObject) {
    KEVENT events[3];
    PVOID objects[3];
    for (int i = 0; i < 3; ++i) {
        KeInitializeEvent(&events[i], SynchronizationEvent, FALSE);
        objects[i] = &events[i];
    }
    LARGE_INTEGER poll = Ticks(0);
    EXPECT_EQ(KeWaitForMultipleObjects(3, objects, WaitAny, Executive, KernelMode, FALSE, &poll, nullptr),
              STATUS_TIMEOUT);
    KeSetEvent(&events[2], 0, FALSE);
    EXPECT_EQ(KeWaitForMultipleObjects(3, objects, WaitAny, Executive, KernelMode, FALSE, &poll, nullptr),
              STATUS_WAIT_0 + 2);
    KeSetEvent(&events[0], 0, FALSE);
    KeSetEvent(&events[1], 0, FALSE);
    EXPECT_EQ(KeWaitForMultipleObjects(3, objects, WaitAll, Executive, KernelMode, FALSE, &poll, nullptr),
              STATUS_TIMEOUT);
    EXPECT_EQ(KeReadStateEvent(&events[0]), 1) << "a WaitAll that is not satisfied takes nothing";
    std::thread setter([&] {
        WaitUntilBlocked(1);
        KeSetEvent(&events[2], 0, FALSE);
    });
    EXPECT_EQ(KeWaitForMultipleObjects(3, objects, WaitAll, Executive, KernelMode, FALSE, nullptr, nullptr),
              STATUS_SUCCESS);
    setter.join();
    for (auto &event : events) EXPECT_EQ(KeReadStateEvent(&event), 0);
}

TEST_F(DispatcherConcurrency, TimeoutsOnTheManualClockEndOnlyWhenTheClockPassesThem) {
    KEVENT event;
    KQUEUE queue;
    const struct {
        const char *name;
        std::function<NTSTATUS(PLARGE_INTEGER)> wait;
        NTSTATUS expected;
    } waits[] = {
        {"KeWaitForSingleObject",
         [&](PLARGE_INTEGER t) { return KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, t); },
         STATUS_TIMEOUT},
        {"KeDelayExecutionThread", [](PLARGE_INTEGER t) { return KeDelayExecutionThread(KernelMode, FALSE, t); },
         STATUS_SUCCESS},
        {"KeRemoveQueue",
         [&](PLARGE_INTEGER t) { return NTSTATUS(ULONG_PTR(KeRemoveQueue(&queue, KernelMode, t))); },
         STATUS_TIMEOUT},
    };
    const int64_t deadline = hk::kDefaultBootTime + 10 * kSecond;
    for (const auto &w : waits) {
        for (int64_t timeout : {-10 * kSecond, deadline}) {
            SCOPED_TRACE(std::string(w.name) + (timeout < 0 ? " relative" : " absolute"));
            hk::Reset();
            KeInitializeEvent(&event, NotificationEvent, FALSE);
            KeInitializeQueue(&queue, 1);
            std::atomic<int64_t> returned_at{0};
            NTSTATUS status = STATUS_PENDING;
            std::thread waiter([&] {
                LARGE_INTEGER t = Ticks(timeout);
                status = w.wait(&t);
                returned_at = hk::SystemTime();
            });
            WaitUntilBlocked(1);
            hk::AdvanceClock(10 * kSecond - 1);
            EXPECT_EQ(returned_at, 0);
            hk::AdvanceClock(1);
            waiter.join();
            EXPECT_EQ(status, w.expected);
            EXPECT_GE(returned_at, deadline);
        }
    }
}

TEST_F(Dispatcher, WaitingAtDispatchLevelIsAComplaintUnlessItPolls) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(Wait(&event, 0), STATUS_TIMEOUT);
    EXPECT_TRUE(hk::VerifierComplaints().empty());
    EXPECT_EQ(Wait(&event, -kSecond), STATUS_TIMEOUT) << "it cannot block, so it polls";
    KeLowerIrql(old);
    ExpectComplaint("DISPATCH_LEVEL");
}

TEST_F(Dispatcher, ClockTimeZoneAndInterruptTime) {
    LARGE_INTEGER now, local;
    KeQuerySystemTime(&now);
    EXPECT_EQ(now.QuadPart, hk::kDefaultBootTime);
    EXPECT_EQ(KeQueryInterruptTime(), 0u);
    hk::AdvanceClock(3 * kSecond);
    EXPECT_EQ(KeQueryInterruptTime(), ULONGLONG(3 * kSecond));
    hk::SetTimeZoneBias(-2 * 3600 * kSecond);  // UTC+2
    KeQuerySystemTime(&now);
    ExSystemTimeToLocalTime(&now, &local);
    EXPECT_EQ(local.QuadPart - now.QuadPart, 2 * 3600 * kSecond);
    hk::UseManualClock(hk::kDefaultBootTime + 100 * kSecond);
    EXPECT_EQ(hk::SystemTime(), hk::kDefaultBootTime + 100 * kSecond);
    EXPECT_EQ(KeQueryInterruptTime(), ULONGLONG(3 * kSecond)) << "setting the clock is not time passing";
    hk::Reset();
    EXPECT_EQ(hk::SystemTime(), hk::kDefaultBootTime);
    KeQuerySystemTime(&now);
    ExSystemTimeToLocalTime(&now, &local);
    EXPECT_EQ(local.QuadPart, now.QuadPart);
}

// One bounded test against the host's own clock.
TEST_F(DispatcherConcurrency, RealClockTimeoutsFollowTheHostClock) {
    hk::UseRealClock();
    EXPECT_FALSE(hk::ClockIsManual());
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    const auto start = std::chrono::steady_clock::now();
    const int64_t system_start = hk::SystemTime();
    EXPECT_EQ(Wait(&event, -50 * 10'000), STATUS_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_GE(hk::SystemTime() - system_start, 50 * 10'000);
    hk::UseManualClock();
    EXPECT_TRUE(hk::ClockIsManual());
}

}  // namespace
