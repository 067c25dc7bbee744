// Kernel queues. Entries are the caller's LIST_ENTRYs, linked into the
// queue's own EntryListHead as on Windows, so that KeRundownQueue can hand
// back what is left exactly as Windows does: the first entry of a circular
// list with the head taken out. An entry inserted while a thread waits goes
// straight to the thread that has waited longest.
//
// The concurrency limit is not modelled: a waiting thread is given an entry
// whatever the number of threads already active on the queue. Order is FIFO.
#include "ke/dispatcher.h"

#include <algorithm>

using namespace hk::detail;

namespace {

PLIST_ENTRY StatusEntry(NTSTATUS status) { return reinterpret_cast<PLIST_ENTRY>(ULONG_PTR(status)); }

// Hands the entry to the longest waiter, if any. Lock held.
bool HandToWaiter(KeState &ke, PRKQUEUE queue, PLIST_ENTRY entry) {
    auto it = ke.queue_waiters.find(queue);
    if (it == ke.queue_waiters.end()) return false;
    QueueWait *w = it->second.front();
    it->second.pop_front();
    if (it->second.empty()) ke.queue_waiters.erase(it);
    w->entry = entry;
    w->done = true;
    w->cv.notify_one();
    return true;
}

LONG Insert(PRKQUEUE queue, PLIST_ENTRY entry, bool at_head, const char *routine) {
    CheckIrql(DISPATCH_LEVEL, routine);
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    if (queue->RunDown) {
        Complainf("%s: queue %p has been run down", routine, static_cast<void *>(queue));
        return queue->Header.SignalState;
    }
    const LONG previous = queue->Header.SignalState;
    if (HandToWaiter(ke, queue, entry)) return previous;
    if (at_head)
        InsertHeadList(&queue->EntryListHead, entry);
    else
        InsertTailList(&queue->EntryListHead, entry);
    ++queue->Header.SignalState;
    ObjectSignalled(&queue->Header);
    return previous;
}

}  // namespace

VOID NTAPI KeInitializeQueue(PRKQUEUE Queue, ULONG Count) {
    InitializeHeader(&Queue->Header, kQueueObject, 0);
    InitializeListHead(&Queue->EntryListHead);
    Queue->CurrentCount = 0;
    Queue->MaximumCount = Count != 0 ? Count : std::max(1u, std::thread::hardware_concurrency());
    InitializeListHead(&Queue->ThreadListHead);
    Queue->RunDown = 0;
}

LONG NTAPI KeInsertQueue(PRKQUEUE Queue, PLIST_ENTRY Entry) { return Insert(Queue, Entry, false, "KeInsertQueue"); }

LONG NTAPI KeInsertHeadQueue(PRKQUEUE Queue, PLIST_ENTRY Entry) {
    return Insert(Queue, Entry, true, "KeInsertHeadQueue");
}

PLIST_ENTRY NTAPI KeRemoveQueue(PRKQUEUE Queue, KPROCESSOR_MODE WaitMode, PLARGE_INTEGER Timeout) {
    const LARGE_INTEGER *timeout = CheckWaitIrql(Timeout, "KeRemoveQueue");
    KeState &ke = Ke();
    const int64_t deadline = DeadlineFromTimeout(timeout);
    DispatcherGuard guard(ke.lock);
    if (Queue->RunDown) return StatusEntry(STATUS_ABANDONED);
    if (!IsListEmpty(&Queue->EntryListHead)) {
        --Queue->Header.SignalState;
        return RemoveHeadList(&Queue->EntryListHead);
    }
    QueueWait w;
    ke.queue_waiters[Queue].push_back(&w);
    if (BlockUntil(guard, w, deadline)) return w.entry;
    auto it = ke.queue_waiters.find(Queue);
    if (it != ke.queue_waiters.end()) {
        std::erase(it->second, &w);
        if (it->second.empty()) ke.queue_waiters.erase(it);
    }
    return StatusEntry(STATUS_TIMEOUT);
}

PLIST_ENTRY NTAPI KeRundownQueue(PRKQUEUE Queue) {
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    Queue->RunDown = 1;
    PLIST_ENTRY first = Queue->EntryListHead.Flink;
    if (first == &Queue->EntryListHead) {
        first = nullptr;
    } else {
        // Taking the head out of the ring leaves the entries linked to each
        // other in a circle.
        RemoveEntryList(&Queue->EntryListHead);
        InitializeListHead(&Queue->EntryListHead);
    }
    Queue->Header.SignalState = 0;
    auto it = ke.queue_waiters.find(Queue);
    if (it != ke.queue_waiters.end()) {
        for (QueueWait *w : it->second) {
            w->entry = StatusEntry(STATUS_ABANDONED);
            w->done = true;
            w->cv.notify_one();
        }
        ke.queue_waiters.erase(it);
    }
    return first;
}

LONG NTAPI KeReadStateQueue(PRKQUEUE Queue) {
    KeState &ke = Ke();
    std::lock_guard guard(ke.lock);
    return Queue->Header.SignalState;
}
