// Timers and DPCs. With the manual clock, AdvanceClock is the clock
// interrupt: it fires timers in due order on the calling thread and runs
// their DPCs there at DISPATCH_LEVEL. With the real clock a timer thread
// plays that part. A DPC routine never runs with the dispatcher lock held,
// so it may set timers, signal events and queue DPCs as on Windows.
#include "ke/dispatcher.h"

#include <hk/hk.h>

#include <algorithm>

namespace hk::detail {
namespace {

constexpr UCHAR kDpcObject = 0x13;
constexpr UCHAR kMediumImportance = 1;

bool ManualLocked(KeState &ke) {
    std::lock_guard clock(ke.clock_lock);
    return ke.manual;
}

bool RemoveTimer(KeState &ke, KTIMER *timer) {
    auto it = ke.timer_keys.find(timer);
    if (it == ke.timer_keys.end()) return false;
    ke.timers.erase(it->second);
    ke.timer_keys.erase(it);
    timer->Header.Inserted = 0;
    return true;
}

void InsertTimer(KeState &ke, KTIMER *timer, int64_t due) {
    const TimerKey key{due, ++ke.timer_sequence};
    ke.timers.emplace(key, timer);
    ke.timer_keys[timer] = key;
    timer->DueTime = due;
    timer->Header.Inserted = 1;
}

bool QueueDpc(KeState &ke, KDPC *dpc, PVOID argument1, PVOID argument2) {
    if (std::find(ke.dpcs.begin(), ke.dpcs.end(), dpc) != ke.dpcs.end()) return false;
    dpc->SystemArgument1 = argument1;
    dpc->SystemArgument2 = argument2;
    dpc->DpcData = &ke;  // non-null while queued, as Windows marks it
    ke.dpcs.push_back(dpc);
    ke.timer_wake.notify_all();
    return true;
}

bool RemoveDpc(KeState &ke, KDPC *dpc) {
    auto it = std::find(ke.dpcs.begin(), ke.dpcs.end(), dpc);
    if (it == ke.dpcs.end()) return false;
    ke.dpcs.erase(it);
    dpc->DpcData = nullptr;
    ke.dpcs_idle.notify_all();
    return true;
}

// The timer falls due: it is signalled, a periodic timer goes back in the
// queue one period on, and its DPC is queued with the time in its system
// arguments, as the clock interrupt hands it over.
void ExpireTimer(KeState &ke, KTIMER *timer, int64_t now) {
    timer->Header.SignalState = 1;
    ObjectSignalled(&timer->Header);
    if (timer->Period > 0) InsertTimer(ke, timer, timer->DueTime + int64_t(timer->Period) * kTicksPerMillisecond);
    if (timer->Dpc != nullptr)
        QueueDpc(ke, timer->Dpc, reinterpret_cast<PVOID>(ULONG_PTR(uint64_t(now) & 0xFFFFFFFFu)),
                 reinterpret_cast<PVOID>(ULONG_PTR(uint64_t(now) >> 32)));
}

// Runs the first queued DPC on this thread at DISPATCH_LEVEL. The routine
// runs without the dispatcher lock; the DPC is out of the queue before it
// starts, so it may queue itself again.
void RunOneDpc(KeState &ke, DispatcherGuard &guard) {
    KDPC *dpc = ke.dpcs.front();
    ke.dpcs.pop_front();
    dpc->DpcData = nullptr;
    const PKDEFERRED_ROUTINE routine = dpc->DeferredRoutine;
    PVOID context = dpc->DeferredContext, argument1 = dpc->SystemArgument1, argument2 = dpc->SystemArgument2;
    ++ke.dpcs_running;
    guard.unlock();
    ThreadState &state = CurrentThreadState();
    const KIRQL old_irql = state.irql;
    state.irql = DISPATCH_LEVEL;
    if (routine == nullptr)
        Complainf("DPC %p has no deferred routine", static_cast<void *>(dpc));
    else
        routine(dpc, context, argument1, argument2);
    if (state.irql != DISPATCH_LEVEL)
        Complainf("DPC routine %p returned at IRQL %u instead of DISPATCH_LEVEL",
                  reinterpret_cast<void *>(routine), unsigned(state.irql));
    state.irql = old_irql;
    guard.lock();
    --ke.dpcs_running;
    ke.dpcs_idle.notify_all();
}

// Runs DPCs until none is queued or running anywhere. With the manual clock
// nobody else would run them, so the caller does.
void DrainDpcs() {
    KeState &ke = Ke();
    DispatcherGuard guard(ke.lock);
    for (;;) {
        if (!ke.dpcs.empty() && ManualLocked(ke)) {
            RunOneDpc(ke, guard);
        } else if (ke.dpcs.empty() && ke.dpcs_running == 0) {
            return;
        } else {
            ke.dpcs_idle.wait(guard);
        }
    }
}

void TimerThreadMain(uint64_t generation) {
    KeState &ke = Ke();
    DispatcherGuard guard(ke.lock);
    while (ke.timer_generation == generation) {
        bool manual;
        int64_t now;
        {
            std::lock_guard clock(ke.clock_lock);
            manual = ke.manual;
            now = NowSystemTimeLocked(ke);
        }
        if (manual) {
            ke.timer_wake.wait(guard);
            continue;
        }
        auto first = ke.timers.begin();
        if (first != ke.timers.end() && first->first.first <= now) {
            KTIMER *timer = first->second;
            RemoveTimer(ke, timer);
            ExpireTimer(ke, timer, now);
        } else if (!ke.dpcs.empty()) {
            RunOneDpc(ke, guard);
        } else if (first == ke.timers.end()) {
            ke.timer_wake.wait(guard);
        } else {
            ke.timer_wake.wait_until(guard, RealDeadline(first->first.first));
        }
    }
}

// The timer thread is joined when the image of hostkernel goes away rather
// than left to run into a half torn-down process.
std::atomic<bool> timer_thread_started{false};
struct TimerThreadReaper {
    ~TimerThreadReaper() {
        if (timer_thread_started) StopTimerThread();
    }
} timer_thread_reaper;

}  // namespace

void AdvanceManualClock(int64_t ticks) {
    KeState &ke = Ke();
    DispatcherGuard guard(ke.lock);
    int64_t target;
    {
        std::lock_guard clock(ke.clock_lock);
        ticks = std::max<int64_t>(ticks, 0);
        target = ticks > kInfinite - ke.manual_time ? kInfinite : ke.manual_time + ticks;
    }
    for (;;) {
        if (!ke.dpcs.empty()) {
            RunOneDpc(ke, guard);
            continue;
        }
        // A DPC may have switched to the real clock; its timer thread takes over.
        if (!ManualLocked(ke)) return;
        auto first = ke.timers.begin();
        if (first == ke.timers.end() || first->first.first > target) break;
        KTIMER *timer = first->second;
        const int64_t due = first->first.first;
        RemoveTimer(ke, timer);
        SetManualTime(ke, due);
        WakeBlocked();
        ExpireTimer(ke, timer, NowSystemTime());
    }
    SetManualTime(ke, target);
    WakeBlocked();
}

void StartTimerThread(DispatcherGuard &guard) {
    KeState &ke = Ke();
    if (ke.timer_thread.joinable()) return;
    timer_thread_started = true;
    ke.timer_thread = std::thread(TimerThreadMain, ke.timer_generation);
}

void StopTimerThread() {
    KeState &ke = Ke();
    std::thread thread;
    {
        std::lock_guard guard(ke.lock);
        if (!ke.timer_thread.joinable()) return;
        ++ke.timer_generation;
        ke.timer_wake.notify_all();
        thread = std::move(ke.timer_thread);
    }
    // A DPC that switches the clock back to manual stops its own thread.
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
    else
        thread.join();
}

void DropTimersAndDpcs() {
    // The timers' memory is not touched: it may be an unloaded image's.
    KeState &ke = Ke();
    ke.timers.clear();
    ke.timer_keys.clear();
    ke.dpcs.clear();
    ke.dpcs_idle.notify_all();
}

}  // namespace hk::detail

using namespace hk::detail;

void hk::RunPendingDpcs() { DrainDpcs(); }

// ------------------------------------------------------------ timers

VOID NTAPI KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type) {
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    // A timer initialised again while queued would leave a stale entry.
    RemoveTimer(ke, Timer);
    InitializeHeader(&Timer->Header,
                     Type == SynchronizationTimer ? kTimerSynchronizationObject : kTimerNotificationObject, 0);
    Timer->DueTime = 0;
    InitializeListHead(&Timer->TimerListEntry);
    Timer->Dpc = nullptr;
    Timer->Period = 0;
}

VOID NTAPI KeInitializeTimer(PKTIMER Timer) { KeInitializeTimerEx(Timer, NotificationTimer); }

BOOLEAN NTAPI KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc) {
    CheckIrql(DISPATCH_LEVEL, "KeSetTimerEx");
    if (Period < 0) {
        Complainf("KeSetTimerEx: negative period %ld", static_cast<long>(Period));
        Period = 0;
    }
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    const bool was_queued = RemoveTimer(ke, Timer);
    const int64_t now = NowSystemTime();
    int64_t due = DueTime.QuadPart;
    if (due < 0) due = (due == INT64_MIN || -due > kInfinite - now) ? kInfinite : now - due;
    Timer->Header.SignalState = 0;
    Timer->Header.Absolute = DueTime.QuadPart >= 0;
    Timer->Dpc = Dpc;
    Timer->Period = Period;
    if (due <= now) {
        // Already due: it expires at once, as Windows does for a due time in
        // the past; its DPC runs as queued DPCs do.
        Timer->DueTime = due;
        ExpireTimer(ke, Timer, now);
    } else {
        InsertTimer(ke, Timer, due);
        ke.timer_wake.notify_all();
    }
    return was_queued;
}

BOOLEAN NTAPI KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc) {
    return KeSetTimerEx(Timer, DueTime, 0, Dpc);
}

BOOLEAN NTAPI KeCancelTimer(PKTIMER Timer) {
    CheckIrql(DISPATCH_LEVEL, "KeCancelTimer");
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    return RemoveTimer(ke, Timer);
}

BOOLEAN NTAPI KeReadStateTimer(PKTIMER Timer) {
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    return Timer->Header.SignalState > 0;
}

// ------------------------------------------------------------ DPCs

VOID NTAPI KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext) {
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    RemoveDpc(ke, Dpc);
    Dpc->Type = kDpcObject;
    Dpc->Importance = kMediumImportance;
    Dpc->Number = 0;
    InitializeListHead(&Dpc->DpcListEntry);
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
    Dpc->SystemArgument1 = nullptr;
    Dpc->SystemArgument2 = nullptr;
    Dpc->DpcData = nullptr;
}

BOOLEAN NTAPI KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2) {
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    return QueueDpc(ke, Dpc, SystemArgument1, SystemArgument2);
}

BOOLEAN NTAPI KeRemoveQueueDpc(PRKDPC Dpc) {
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    return RemoveDpc(ke, Dpc);
}

VOID NTAPI KeFlushQueuedDpcs(VOID) {
    CheckIrql(PASSIVE_LEVEL, "KeFlushQueuedDpcs");
    // From a DPC it would wait for itself.
    if (CurrentThreadState().irql >= DISPATCH_LEVEL) return;
    DrainDpcs();
}
