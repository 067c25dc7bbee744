// The dispatcher: one lock for every dispatcher object, as NT has, events,
// and the wait routines. A blocked thread sleeps on its own condition
// variable and is woken by whoever satisfies its wait, so that a
// synchronization event set once releases exactly one waiter, the one that
// waited longest, as on Windows.
#include "ke/dispatcher.h"

#include <hk/hk.h>

#include <algorithm>

namespace hk::detail {

KeState &Ke() {
    static KeState *state = [] {
        auto *ke = new KeState;
        ke->manual_time = kDefaultBootTime;
        ke->boot_time = kDefaultBootTime;
        RegisterReset([] {
            // The timer thread goes first: it may be in the middle of a DPC
            // and must not find its timers gone when it comes back.
            StopTimerThread();
            KeState &k = Ke();
            DispatcherGuard guard(k.lock);
            DropTimersAndDpcs();
            {
                std::lock_guard clock(k.clock_lock);
                k.manual = true;
                k.manual_time = kDefaultBootTime;
                k.boot_time = kDefaultBootTime;
                k.bias = 0;
            }
            k.fp_save_failure = STATUS_SUCCESS;
            WakeBlocked();
        });
        return ke;
    }();
    return *state;
}

namespace {

bool IsDispatcherType(UCHAR type) {
    switch (type) {
    case kEventNotificationObject:
    case kEventSynchronizationObject:
    case kProcessObject:
    case kQueueObject:
    case kThreadObject:
    case kTimerNotificationObject:
    case kTimerSynchronizationObject:
        return true;
    default:
        return false;
    }
}

bool Signalled(const DISPATCHER_HEADER *header) { return header->SignalState > 0; }

// What satisfying a wait does to the object: synchronization objects let one
// waiter through and reset; the others stay signalled.
void Satisfy(DISPATCHER_HEADER *header) {
    if (header->Type == kEventSynchronizationObject || header->Type == kTimerSynchronizationObject)
        header->SignalState = 0;
}

bool TrySatisfy(ObjectWait &w) {
    if (w.type == WaitAny) {
        for (ULONG i = 0; i < w.count; ++i) {
            if (Signalled(w.objects[i])) {
                Satisfy(w.objects[i]);
                w.status = STATUS_WAIT_0 + NTSTATUS(i);
                return true;
            }
        }
        return false;
    }
    for (ULONG i = 0; i < w.count; ++i)
        if (!Signalled(w.objects[i])) return false;
    for (ULONG i = 0; i < w.count; ++i) Satisfy(w.objects[i]);
    w.status = STATUS_SUCCESS;
    return true;
}

void Register(KeState &ke, ObjectWait &w) {
    for (ULONG i = 0; i < w.count; ++i) {
        auto &list = ke.object_waiters[w.objects[i]];
        if (std::find(list.begin(), list.end(), &w) == list.end()) list.push_back(&w);
    }
}

void Unregister(KeState &ke, ObjectWait &w) {
    for (ULONG i = 0; i < w.count; ++i) {
        auto it = ke.object_waiters.find(w.objects[i]);
        if (it == ke.object_waiters.end()) continue;
        std::erase(it->second, &w);
        if (it->second.empty()) ke.object_waiters.erase(it);
    }
}

NTSTATUS WaitForObjects(ULONG count, DISPATCHER_HEADER *const *objects, WAIT_TYPE type,
                        const LARGE_INTEGER *timeout, const char *routine) {
    timeout = CheckWaitIrql(timeout, routine);
    KeState &ke = Ke();
    const int64_t deadline = DeadlineFromTimeout(timeout);
    DispatcherGuard guard(ke.lock);
    for (ULONG i = 0; i < count; ++i) {
        if (objects[i] == nullptr || !IsDispatcherType(objects[i]->Type)) {
            Complainf("%s: object %p is not a dispatcher object", routine, static_cast<void *>(objects[i]));
            return STATUS_INVALID_PARAMETER;
        }
    }
    ObjectWait w;
    w.count = count;
    w.objects = objects;
    w.type = type;
    if (TrySatisfy(w)) return w.status;
    Register(ke, w);
    if (BlockUntil(guard, w, deadline)) return w.status;
    Unregister(ke, w);
    return STATUS_TIMEOUT;
}

}  // namespace

void InitializeHeader(DISPATCHER_HEADER *header, UCHAR type, LONG state) {
    header->Type = type;
    header->Absolute = 0;
    header->Size = 0;
    header->Inserted = 0;
    header->SignalState = state;
    InitializeListHead(&header->WaitListHead);
}

void ObjectSignalled(DISPATCHER_HEADER *header) {
    KeState &ke = Ke();
    auto it = ke.object_waiters.find(header);
    if (it == ke.object_waiters.end()) return;
    const std::vector<ObjectWait *> waiters = it->second;  // satisfying edits the table
    for (ObjectWait *w : waiters) {
        if (!Signalled(header)) break;
        if (w->done || !TrySatisfy(*w)) continue;
        w->done = true;
        Unregister(ke, *w);
        w->cv.notify_one();
    }
}

void WakeBlocked() {
    for (Blocked *b : Ke().blocked) b->cv.notify_all();
}

bool BlockUntil(DispatcherGuard &guard, Blocked &b, int64_t deadline) {
    KeState &ke = Ke();
    ke.blocked.insert(&b);
    while (!b.done) {
        bool manual;
        int64_t now;
        {
            std::lock_guard clock(ke.clock_lock);
            manual = ke.manual;
            now = NowSystemTimeLocked(ke);
        }
        if (now >= deadline) break;
        // A manual clock moves only through AdvanceClock, which wakes us.
        if (manual || deadline == kInfinite)
            b.cv.wait(guard);
        else
            b.cv.wait_until(guard, RealDeadline(deadline));
    }
    ke.blocked.erase(&b);
    return b.done;
}

int64_t DeadlineFromTimeout(const LARGE_INTEGER *timeout) {
    if (timeout == nullptr) return kInfinite;
    const int64_t t = timeout->QuadPart;
    if (t > 0) return t;
    const int64_t now = NowSystemTime();
    if (t == 0) return now;
    if (t == INT64_MIN || -t > kInfinite - now) return kInfinite;
    return now - t;
}

const LARGE_INTEGER *CheckWaitIrql(const LARGE_INTEGER *timeout, const char *routine) {
    static const LARGE_INTEGER poll{};
    const KIRQL irql = CurrentThreadState().irql;
    const bool zero = timeout != nullptr && timeout->QuadPart == 0;
    if (irql > DISPATCH_LEVEL) {
        Complainf("%s called at IRQL %u; waits are allowed up to DISPATCH_LEVEL with a zero timeout", routine,
                  unsigned(irql));
        return &poll;
    }
    if (irql == DISPATCH_LEVEL && !zero) {
        Complainf("%s called at DISPATCH_LEVEL with a non-zero timeout; only APC_LEVEL and below may block",
                  routine);
        return &poll;
    }
    return timeout;
}

}  // namespace hk::detail

using namespace hk::detail;

size_t hk::WaitingThreads() {
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    return ke.blocked.size();
}

// ------------------------------------------------------------ events

VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
    InitializeHeader(&Event->Header, Type == SynchronizationEvent ? kEventSynchronizationObject
                                                                  : kEventNotificationObject,
                     State ? 1 : 0);
}

LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait) {
    CheckIrql(DISPATCH_LEVEL, "KeSetEvent");
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    const LONG previous = Event->Header.SignalState;
    if (previous == 0) {
        Event->Header.SignalState = 1;
        ObjectSignalled(&Event->Header);
    }
    return previous;
}

LONG NTAPI KeResetEvent(PRKEVENT Event) {
    CheckIrql(DISPATCH_LEVEL, "KeResetEvent");
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    const LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return previous;
}

VOID NTAPI KeClearEvent(PRKEVENT Event) {
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    Event->Header.SignalState = 0;
}

LONG NTAPI KeReadStateEvent(PRKEVENT Event) {
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    return Event->Header.SignalState;
}

// ------------------------------------------------------------ waits

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                     BOOLEAN Alertable, PLARGE_INTEGER Timeout) {
    DISPATCHER_HEADER *header = static_cast<DISPATCHER_HEADER *>(Object);
    return WaitForObjects(1, &header, WaitAny, Timeout, "KeWaitForSingleObject");
}

NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON WaitReason,
                                        KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                        PKWAIT_BLOCK WaitBlockArray) {
    if (Count > MAXIMUM_WAIT_OBJECTS || (Count > THREAD_WAIT_OBJECTS && WaitBlockArray == nullptr)) {
        // MAXIMUM_WAIT_OBJECTS_EXCEEDED on Windows.
        Complainf("KeWaitForMultipleObjects: %lu objects %s", static_cast<unsigned long>(Count),
                  Count > MAXIMUM_WAIT_OBJECTS ? "is more than MAXIMUM_WAIT_OBJECTS"
                                               : "need a caller-supplied wait block array");
        if (Count > MAXIMUM_WAIT_OBJECTS) return STATUS_INVALID_PARAMETER;
    }
    if (WaitType != WaitAny && WaitType != WaitAll) {
        Complainf("KeWaitForMultipleObjects: wait type %d is neither WaitAny nor WaitAll", int(WaitType));
        return STATUS_INVALID_PARAMETER;
    }
    return WaitForObjects(Count, reinterpret_cast<DISPATCHER_HEADER *const *>(Object), WaitType, Timeout,
                          "KeWaitForMultipleObjects");
}
