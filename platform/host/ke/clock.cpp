// The machine's clock: manual (moved only by the test, through AdvanceClock)
// or real (following the host's monotonic clock from wherever the manual
// clock stood). System time is kept in 100 ns units since 1601; interrupt
// time counts from boot and is not moved by setting the system time, as on
// Windows.
#include "ke/dispatcher.h"

#include <hk/hk.h>

#include <algorithm>

namespace hk::detail {

int64_t NowSystemTimeLocked(KeState &ke) {
    if (ke.manual) return ke.manual_time;
    const auto elapsed = std::chrono::steady_clock::now() - ke.real_base_steady;
    return ke.real_base_system + std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() / 100;
}

int64_t NowSystemTime() {
    KeState &ke = Ke();
    std::lock_guard clock(ke.clock_lock);
    return NowSystemTimeLocked(ke);
}

void SetManualTime(KeState &ke, int64_t time) {
    std::lock_guard clock(ke.clock_lock);
    ke.manual_time = std::max(ke.manual_time, time);
}

std::chrono::steady_clock::time_point RealDeadline(int64_t system_time) {
    // Relative to now and bounded, so that a far-off absolute deadline
    // cannot overflow the steady clock; a waiter that wakes early just
    // waits again.
    constexpr int64_t kLongestSleep = 3600 * hk::kTicksPerSecond;
    const int64_t delta = std::clamp<int64_t>(system_time - NowSystemTime(), 0, kLongestSleep);
    return std::chrono::steady_clock::now() + std::chrono::nanoseconds(delta * 100);
}

}  // namespace hk::detail

using namespace hk::detail;

void hk::UseManualClock(int64_t system_time) {
    // The timer thread fires timers only by the real clock.
    StopTimerThread();
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    {
        std::lock_guard clock(ke.clock_lock);
        const int64_t now = NowSystemTimeLocked(ke);
        ke.manual = true;
        ke.manual_time = now;
        if (system_time != 0) {
            // Setting the clock is not time passing: boot moves with it.
            ke.boot_time += system_time - now;
            ke.manual_time = system_time;
        }
    }
    WakeBlocked();
}

void hk::UseRealClock() {
    KeState &ke = Ke();
    DispatcherGuard guard(ke.lock);
    {
        std::lock_guard clock(ke.clock_lock);
        if (ke.manual) {
            ke.real_base_system = ke.manual_time;
            ke.real_base_steady = std::chrono::steady_clock::now();
            ke.manual = false;
        }
    }
    StartTimerThread(guard);
    WakeBlocked();
    ke.timer_wake.notify_all();
}

bool hk::ClockIsManual() {
    KeState &ke = Ke();
    std::lock_guard clock(ke.clock_lock);
    return ke.manual;
}

void hk::AdvanceClock(int64_t ticks) {
    if (ClockIsManual()) return AdvanceManualClock(ticks);
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    {
        std::lock_guard clock(ke.clock_lock);
        ke.real_base_system += std::max<int64_t>(ticks, 0);
    }
    WakeBlocked();
    ke.timer_wake.notify_all();
}

int64_t hk::SystemTime() { return NowSystemTime(); }

void hk::SetTimeZoneBias(int64_t bias) {
    KeState &ke = Ke();
    std::lock_guard clock(ke.clock_lock);
    ke.bias = bias;
}

VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime) { CurrentTime->QuadPart = NowSystemTime(); }

ULONGLONG NTAPI KeQueryInterruptTime(VOID) {
    KeState &ke = Ke();
    std::lock_guard clock(ke.clock_lock);
    return ULONGLONG(NowSystemTimeLocked(ke) - ke.boot_time);
}

VOID NTAPI ExSystemTimeToLocalTime(PLARGE_INTEGER SystemTime, PLARGE_INTEGER LocalTime) {
    KeState &ke = Ke();
    int64_t bias;
    {
        std::lock_guard clock(ke.clock_lock);
        bias = ke.bias;
    }
    LocalTime->QuadPart = SystemTime->QuadPart - bias;
}

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval) {
    if (Interval == nullptr) {
        Complain("KeDelayExecutionThread: Interval is null");
        return STATUS_INVALID_PARAMETER;
    }
    const LARGE_INTEGER *interval = CheckWaitIrql(Interval, "KeDelayExecutionThread");
    if (interval->QuadPart == 0) {
        std::this_thread::yield();
        return STATUS_SUCCESS;
    }
    const int64_t deadline = DeadlineFromTimeout(interval);
    KeState &ke = Ke();
    DispatcherGuard guard(ke.lock);
    Blocked nothing;
    BlockUntil(guard, nothing, deadline);
    return STATUS_SUCCESS;
}
