// The work queue's thread, rundown and the clean-up of items that never ran.
#include "base/workqueue.h"
#include "support/machine.h"

#include <atomic>
#include <thread>

using namespace texprt_test;

namespace {

// Every case runs the queue's own worker thread, so the whole suite carries
// the ctest label "concurrency" (see tests/CMakeLists.txt).
class WorkQueueConcurrency : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        queue_ = {};
        ASSERT_EQ(InitializeWorkQueue(1, WorkQueueClassLibrary, &queue_), STATUS_SUCCESS);
        EXPECT_EQ(queue_.Initialized, 1u);
        EXPECT_EQ(WorkThreadCount[WorkQueueClassLibrary], 1u);
        KeInitializeEvent(&release_, NotificationEvent, FALSE);
    }
    void TearDown() override {
        if (queue_.Initialized) RundownWorkQueue(&queue_);
        EXPECT_EQ(WorkThreadCount[WorkQueueClassLibrary], 0u);
        MachineTest::TearDown();
    }
    void Queue(WORK_ROUTINE *routine, WORK_ROUTINE *cleanup, PVOID context) {
        WorkItem *item = NewWorkItem();
        ASSERT_NE(item, nullptr);
        PrepareWorkItem(item, routine, cleanup, context);
        QueueWorkItem(item, &queue_);
    }
    // A routine that holds the worker until release_ is set.
    static VOID NTAPI Blocker(PVOID context) {
        auto *self = static_cast<WorkQueueConcurrency *>(context);
        self->blocker_running_ = true;
        KeWaitForSingleObject(&self->release_, Executive, KernelMode, FALSE, nullptr);
        self->blocker_done_ = true;
    }
    static VOID NTAPI Count(PVOID context) { ++*static_cast<std::atomic<int> *>(context); }
    struct Tally {
        std::atomic<int> runs{0}, cleanups{0};
    };
    static VOID NTAPI Ran(PVOID context) { ++static_cast<Tally *>(context)->runs; }
    static VOID NTAPI CleanedUp(PVOID context) { ++static_cast<Tally *>(context)->cleanups; }
    void WaitFor(const std::atomic<bool> &flag) {
        for (int i = 0; i < 5000 && !flag; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_TRUE(flag);
    }

    WorkQueue queue_{};
    KEVENT release_;
    std::atomic<bool> blocker_running_{false}, blocker_done_{false};
};

TEST_F(WorkQueueConcurrency, ItemsRunInOrderAndAreFreed) {
    std::atomic<int> runs{0};
    for (int i = 0; i < 5; ++i) Queue(Count, nullptr, &runs);
    RundownWorkQueue(&queue_);
    queue_.Initialized = 0;
    EXPECT_EQ(runs, 5);
}

TEST_F(WorkQueueConcurrency, NewWorkItemWorksAtDispatchLevel) {
    std::atomic<int> runs{0};
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    WorkItem *item = NewWorkItem();
    PrepareWorkItem(item, Count, nullptr, &runs);
    QueueWorkItem(item, &queue_);
    KeLowerIrql(old);
    RundownWorkQueue(&queue_);
    queue_.Initialized = 0;
    EXPECT_EQ(runs, 1);
}

TEST_F(WorkQueueConcurrency, ALongRoutineDelaysTheRundown) {
    Queue(Blocker, nullptr, this);
    WaitFor(blocker_running_);
    std::atomic<bool> rundown_done{false};
    std::thread stopper([&] {
        RundownWorkQueue(&queue_);
        rundown_done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(rundown_done);
    KeSetEvent(&release_, 0, FALSE);
    stopper.join();
    EXPECT_TRUE(blocker_done_);
    queue_.Initialized = 0;
}

TEST_F(WorkQueueConcurrency, AnItemLeftBehindTheStopItemIsCleanedUpNotRun) {
    Queue(Blocker, nullptr, this);
    WaitFor(blocker_running_);
    std::thread stopper([&] { RundownWorkQueue(&queue_); });
    // Wait until the stop item stands in the queue, then queue behind it.
    for (int i = 0; i < 5000 && KeReadStateQueue(&queue_.Queue) == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(KeReadStateQueue(&queue_.Queue), 1);
    Tally tally;
    Queue(Ran, CleanedUp, &tally);
    Queue(Ran, nullptr, &tally);  // no clean-up: only freed
    KeSetEvent(&release_, 0, FALSE);
    stopper.join();
    queue_.Initialized = 0;
    EXPECT_EQ(tally.runs, 0);
    EXPECT_EQ(tally.cleanups, 1);
}

TEST_F(WorkQueueConcurrency, RundownOfAnUncreatedQueueTouchesNothing) {
    WorkQueue never{};
    RundownWorkQueue(&never);  // a KQUEUE never initialised would upset the host
    WorkQueue no_threads{};
    no_threads.Initialized = 1;
    no_threads.PriorityClass = WorkQueueClassNoThreads;
    RundownWorkQueue(&no_threads);
}

TEST_F(WorkQueueConcurrency, ZeroThreadsIsSuccessAndNullIsRefused) {
    WorkQueue empty{};
    EXPECT_EQ(InitializeWorkQueue(0, WorkQueueClassNoThreads, &empty), STATUS_SUCCESS);
    EXPECT_EQ(empty.Initialized, 1u);
    EXPECT_EQ(InitializeWorkQueue(1, WorkQueueClassLibrary, nullptr), STATUS_INVALID_PARAMETER);
}

}  // namespace
