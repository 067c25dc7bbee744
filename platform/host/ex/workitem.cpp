// The system work queues behind ExQueueWorkItem: one worker thread per
// queue type, started on first use, running items in order at PASSIVE_LEVEL.
// A worker that gets its item back at a raised IRQL or inside a critical
// region is a bug check on Windows (WORKER_THREAD_RETURNED_AT_BAD_IRQL and
// friends); here it is a complaint, and the worker is put right.
#include "ke/dispatcher.h"

#include <hk/hk.h>

#include <algorithm>

using namespace hk::detail;

namespace {

constexpr int kQueueTypes = 3;

struct WorkQueue {
    std::deque<PWORK_QUEUE_ITEM> items;
    bool started = false;
    uint64_t queued = 0;
    uint64_t done = 0;
};

struct WorkState {
    std::mutex lock;
    std::condition_variable work;  // an item was queued
    std::condition_variable idle;  // an item was done
    WorkQueue queues[kQueueTypes];
};

// Never freed: workers sleep on it until the process ends.
WorkState &Work() {
    static WorkState *state = new WorkState;
    return *state;
}

thread_local bool is_worker = false;

const char *QueueName(int type) {
    static const char *const names[] = {"CriticalWorkQueue", "DelayedWorkQueue", "HyperCriticalWorkQueue"};
    return names[type];
}

void WorkerMain(int type) {
    is_worker = true;
    WorkState &w = Work();
    WorkQueue &queue = w.queues[type];
    std::unique_lock guard(w.lock);
    for (;;) {
        w.work.wait(guard, [&] { return !queue.items.empty(); });
        PWORK_QUEUE_ITEM item = queue.items.front();
        queue.items.pop_front();
        // The routine commonly frees the item; nothing of it is read after.
        const PWORKER_THREAD_ROUTINE routine = item->WorkerRoutine;
        const PVOID parameter = item->Parameter;
        guard.unlock();
        routine(parameter);
        ThreadState &state = CurrentThreadState();
        if (state.irql != PASSIVE_LEVEL || state.kernel_apc_disable != 0) {
            Complainf("work item routine %p (%s) returned at IRQL %u with critical region depth %d",
                      reinterpret_cast<void *>(routine), QueueName(type), unsigned(state.irql),
                      state.kernel_apc_disable);
            state.irql = PASSIVE_LEVEL;
            state.kernel_apc_disable = 0;
        }
        guard.lock();
        ++queue.done;
        w.idle.notify_all();
    }
}

}  // namespace

VOID NTAPI ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType) {
    CheckIrql(DISPATCH_LEVEL, "ExQueueWorkItem");
    int type = int(QueueType);
    if (type < 0 || type >= kQueueTypes) {
        Complainf("ExQueueWorkItem: queue type %d does not exist", type);
        type = DelayedWorkQueue;
    }
    if (WorkItem->WorkerRoutine == nullptr) {
        Complainf("ExQueueWorkItem: work item %p has no routine", static_cast<void *>(WorkItem));
        return;
    }
    WorkState &w = Work();
    std::lock_guard guard(w.lock);
    for (const WorkQueue &queue : w.queues) {
        if (std::find(queue.items.begin(), queue.items.end(), WorkItem) != queue.items.end()) {
            Complainf("ExQueueWorkItem: work item %p is already queued", static_cast<void *>(WorkItem));
            return;
        }
    }
    WorkQueue &queue = w.queues[type];
    queue.items.push_back(WorkItem);
    ++queue.queued;
    if (!queue.started) {
        queue.started = true;
        std::thread(WorkerMain, type).detach();
    }
    w.work.notify_all();
}

void hk::DrainSystemWorkQueue() {
    if (is_worker) {
        Complain("DrainSystemWorkQueue called from a system worker thread, which would wait for itself");
        return;
    }
    WorkState &w = Work();
    std::unique_lock guard(w.lock);
    uint64_t targets[kQueueTypes];
    for (int i = 0; i < kQueueTypes; ++i) targets[i] = w.queues[i].queued;
    w.idle.wait(guard, [&] {
        for (int i = 0; i < kQueueTypes; ++i)
            if (w.queues[i].done < targets[i]) return false;
        return true;
    });
}
