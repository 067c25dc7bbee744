// Kernel queues.
#include "host_test.h"

using namespace host_test;

namespace {

// Kernel queues: what the work queues and their threads stand on. The ctest
// label "concurrency" comes with the suite's name (see tests/CMakeLists.txt).
class QueuesConcurrency : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        KeInitializeQueue(&queue, 1);
    }
    NTSTATUS Status(PLIST_ENTRY entry) { return NTSTATUS(ULONG_PTR(entry)); }
    PLIST_ENTRY Remove(int64_t timeout) {
        LARGE_INTEGER t = Ticks(timeout);
        return KeRemoveQueue(&queue, KernelMode, &t);
    }
    KQUEUE queue;
    LIST_ENTRY entries[4];
};

TEST_F(QueuesConcurrency, EntriesComeOutFirstInFirstOutAndHeadInsertsJumpTheLine) {
    EXPECT_EQ(KeInsertQueue(&queue, &entries[0]), 0);
    EXPECT_EQ(KeInsertQueue(&queue, &entries[1]), 1);
    EXPECT_EQ(KeInsertHeadQueue(&queue, &entries[2]), 2);
    EXPECT_EQ(KeReadStateQueue(&queue), 3);
    EXPECT_EQ(Remove(0), &entries[2]);
    EXPECT_EQ(Remove(0), &entries[0]);
    EXPECT_EQ(Remove(0), &entries[1]);
    EXPECT_EQ(Status(Remove(0)), STATUS_TIMEOUT);
    EXPECT_EQ(KeReadStateQueue(&queue), 0);
}

TEST_F(QueuesConcurrency, AnEntryInsertedWhileAThreadWaitsGoesToThatThread) {
    PLIST_ENTRY got = nullptr;
    std::thread waiter([&] { got = KeRemoveQueue(&queue, KernelMode, nullptr); });
    WaitUntilBlocked(1);
    EXPECT_EQ(KeInsertQueue(&queue, &entries[0]), 0);
    waiter.join();
    EXPECT_EQ(got, &entries[0]);
    EXPECT_EQ(KeReadStateQueue(&queue), 0);
}

TEST_F(QueuesConcurrency, RundownReturnsTheRemainingEntriesAsARingWithoutTheHead) {
    for (int i = 0; i < 3; ++i) KeInsertQueue(&queue, &entries[i]);
    PLIST_ENTRY first = KeRundownQueue(&queue);
    ASSERT_EQ(first, &entries[0]);
    PLIST_ENTRY e = first;
    for (int i = 0; i < 3; ++i, e = e->Flink) {
        EXPECT_EQ(e, &entries[i]);
        EXPECT_EQ(e->Flink->Blink, e);
        EXPECT_NE(e->Flink, &queue.EntryListHead);
    }
    EXPECT_EQ(e, first);
    EXPECT_EQ(KeReadStateQueue(&queue), 0);
    EXPECT_EQ(Status(Remove(0)), STATUS_ABANDONED);
    KeInsertQueue(&queue, &entries[3]);
    ExpectComplaint("run down");
}

TEST_F(QueuesConcurrency, RundownOfAnEmptyQueueReleasesWaitersWithAbandoned) {
    PLIST_ENTRY got[2] = {};
    std::thread a([&] { got[0] = KeRemoveQueue(&queue, KernelMode, nullptr); });
    std::thread b([&] { got[1] = Remove(-60 * kSecond); });
    WaitUntilBlocked(2);
    EXPECT_EQ(KeRundownQueue(&queue), nullptr);
    a.join();
    b.join();
    EXPECT_EQ(Status(got[0]), STATUS_ABANDONED);
    EXPECT_EQ(Status(got[1]), STATUS_ABANDONED);
}

}  // namespace
