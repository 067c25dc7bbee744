// The dispatcher's private contract, shared by the ke, ex, ps and ob parts of
// hostkernel that block threads or signal objects: the one dispatcher lock,
// the wait machinery, the clock as the dispatcher needs it, timers and DPCs.
#pragma once

#include "internal.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace hk::detail {

// DISPATCHER_HEADER.Type, numbered as NT numbers its dispatcher objects so
// that a debugger-minded reader recognises them.
enum DispatcherType : UCHAR {
    kEventNotificationObject = 0,
    kEventSynchronizationObject = 1,
    kProcessObject = 3,
    kQueueObject = 4,
    kThreadObject = 6,
    kTimerNotificationObject = 8,
    kTimerSynchronizationObject = 9,
};

constexpr int64_t kInfinite = INT64_MAX;
constexpr int64_t kTicksPerMillisecond = 10'000;

// A thread blocked in the dispatcher. Whoever satisfies its wait sets `done`
// and notifies `cv`, both under the dispatcher lock.
struct Blocked {
    std::condition_variable cv;
    bool done = false;
};

// A thread in KeWaitForSingleObject / KeWaitForMultipleObjects.
struct ObjectWait : Blocked {
    ULONG count = 0;
    DISPATCHER_HEADER *const *objects = nullptr;
    WAIT_TYPE type = WaitAny;
    NTSTATUS status = STATUS_TIMEOUT;
};

// A thread in KeRemoveQueue; `entry` is what it was handed.
struct QueueWait : Blocked {
    PLIST_ENTRY entry = nullptr;
};

using DispatcherGuard = std::unique_lock<std::mutex>;
using TimerKey = std::pair<int64_t, uint64_t>;  // due time, then arming order

// Everything the dispatcher owns. Allocated once and never freed, so that
// threads still blocked or firing timers while the process exits never see
// it destroyed under them.
struct KeState {
    // NT has one dispatcher lock; so has the host. Guards every dispatcher
    // object's state, the waiter tables, timers and DPCs.
    std::mutex lock;

    // Waiters, keyed by what they wait on. Kept beside the objects rather
    // than in their WaitListHead so that memory the caller reuses or zeroes
    // can never corrupt the dispatcher.
    std::unordered_map<DISPATCHER_HEADER *, std::vector<ObjectWait *>> object_waiters;
    std::unordered_map<KQUEUE *, std::deque<QueueWait *>> queue_waiters;
    std::unordered_set<Blocked *> blocked;  // every blocked thread, for clock moves

    // The clock. Written under `lock` and `clock_lock`; read under either,
    // so that NowSystemTime works from anywhere without the dispatcher lock.
    std::mutex clock_lock;
    bool manual = true;
    int64_t manual_time = 0;
    int64_t real_base_system = 0;
    std::chrono::steady_clock::time_point real_base_steady;
    int64_t boot_time = 0;
    int64_t bias = 0;

    // Timers in due order, and where each queued timer sits in that order.
    std::map<TimerKey, KTIMER *> timers;
    std::unordered_map<KTIMER *, TimerKey> timer_keys;
    uint64_t timer_sequence = 0;

    // DPCs queued and not yet started; how many are running right now.
    std::deque<KDPC *> dpcs;
    int dpcs_running = 0;
    std::condition_variable dpcs_idle;

    // The real clock's timer thread; it runs while `timer_generation` is the
    // one it was started with.
    std::thread timer_thread;
    uint64_t timer_generation = 0;
    std::condition_variable timer_wake;

    std::atomic<NTSTATUS> fp_save_failure{STATUS_SUCCESS};
};
KeState &Ke();

// ------------------------------------------------------------ waits (dispatcher.cpp)

// Blocks with the dispatcher lock held in `guard` until `b.done` or until the
// clock reaches `deadline` (system time; kInfinite never comes). Returns
// b.done.
bool BlockUntil(DispatcherGuard &guard, Blocked &b, int64_t deadline);
// The deadline a wait routine's Timeout argument means: null is infinite,
// negative is relative in 100 ns units, positive is an absolute system time.
int64_t DeadlineFromTimeout(const LARGE_INTEGER *timeout);
// Checks the IRQL for a wait. Returns the timeout to use: a thread at
// DISPATCH_LEVEL or above cannot block, so after the complaint its wait
// becomes a poll rather than a hang.
const LARGE_INTEGER *CheckWaitIrql(const LARGE_INTEGER *timeout, const char *routine);
// After an object's SignalState went up: satisfies waiters it can satisfy,
// in the order they began waiting. Lock held.
void ObjectSignalled(DISPATCHER_HEADER *header);
void InitializeHeader(DISPATCHER_HEADER *header, UCHAR type, LONG state);
// Wakes every blocked thread so that it looks at the clock again. Lock held.
void WakeBlocked();

// ------------------------------------------------------------ clock (clock.cpp)

int64_t NowSystemTimeLocked(KeState &ke);  // clock_lock held
// Moves the manual clock forward to `time` (never back). The caller holds
// the dispatcher lock, so that no waiter misses the move.
void SetManualTime(KeState &ke, int64_t time);
// Where on the host's steady clock the real clock reaches `system_time`.
std::chrono::steady_clock::time_point RealDeadline(int64_t system_time);

// ------------------------------------------------------------ timers and DPCs (timer.cpp)

// Moves the manual clock `ticks` forward, firing timers and running DPCs on
// the calling thread as they fall due.
void AdvanceManualClock(int64_t ticks);
// Starts the real clock's timer thread if it isn't running. Lock held.
void StartTimerThread(DispatcherGuard &guard);
// Stops it and waits for it to end. Lock not held.
void StopTimerThread();
// Drops queued timers and DPCs, for a reset. Lock held.
void DropTimersAndDpcs();

// ------------------------------------------------------------ threads (ps/thread.cpp)

// The thread object is signalled and its running reference dropped.
void ThreadTerminated(HostThread *thread);

// ------------------------------------------------------------ helpers

// A verifier complaint, printf style.
[[gnu::format(printf, 1, 2)]] inline void Complainf(const char *format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    Complain(text);
}

}  // namespace hk::detail
