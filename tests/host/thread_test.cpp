// System threads, thread objects and handles, and the system work queue.
#include "host_test.h"

#include "internal.h"

#include <atomic>
#include <set>

using namespace host_test;

namespace {

class Threads : public MachineTest {};
// System threads and work items that really run. The ctest label "concurrency"
// comes with the suite's name (see tests/CMakeLists.txt).
class ThreadsConcurrency : public MachineTest {};

struct ThreadContext {
    KEVENT go;
    std::atomic<bool> after_terminate{false};
    KIRQL irql = HIGH_LEVEL;
    HANDLE id = nullptr;
};

// The termination comes from a frame below the start routine, as from
// library code: the thread must end without returning through it.
[[gnu::noinline]] void EndThread(ThreadContext *context) {
    PsTerminateSystemThread(STATUS_CANCELLED);
    context->after_terminate = true;
}

VOID NTAPI Body(PVOID c) {
    auto *context = static_cast<ThreadContext *>(c);
    context->irql = KeGetCurrentIrql();
    context->id = PsGetCurrentThreadId();
    KeWaitForSingleObject(&context->go, Executive, KernelMode, FALSE, nullptr);
    EndThread(context);
    context->after_terminate = true;
}

TEST_F(ThreadsConcurrency, SystemThreadEndsThroughPsTerminateSystemThreadAndSignalsItsObject) {
    ThreadContext context;
    KeInitializeEvent(&context.go, NotificationEvent, FALSE);
    HANDLE handle = nullptr;
    CLIENT_ID client{};
    const size_t handles_before = hk::detail::OpenHandleCount();
    ASSERT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, &client, Body, &context),
              STATUS_SUCCESS);
    EXPECT_EQ(ULONG_PTR(handle) % 4, 0u);
    EXPECT_EQ(client.UniqueProcess, HANDLE(4));
    PVOID thread = nullptr;
    ASSERT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(hk::detail::OpenHandleCount(), handles_before);
    EXPECT_EQ(Wait(thread, 0), STATUS_TIMEOUT) << "still running";
    KeSetEvent(&context.go, 0, FALSE);
    EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_FALSE(context.after_terminate);
    EXPECT_EQ(context.irql, PASSIVE_LEVEL);
    EXPECT_EQ(context.id, client.UniqueThread);
    EXPECT_NE(context.id, PsGetCurrentThreadId());
    EXPECT_EQ(ULONG_PTR(context.id) % 4, 0u);
    // The ending thread drops its own reference just after it signals.
    EXPECT_LE(ObfDereferenceObject(thread), 1);
}

TEST_F(ThreadsConcurrency, ReferencingAHandleChecksItsTypeAndClosingABadHandleIsAComplaint) {
    ThreadContext context;
    KeInitializeEvent(&context.go, NotificationEvent, FALSE);
    HANDLE handle = nullptr;
    ASSERT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Body, &context),
              STATUS_SUCCESS);
    PVOID object = nullptr;
    const struct {
        HANDLE handle;
        POBJECT_TYPE type;
        NTSTATUS expected;
    } cases[] = {
        {handle, *PsProcessType, STATUS_OBJECT_TYPE_MISMATCH},
        {HANDLE(ULONG_PTR(handle) + 4), *PsThreadType, STATUS_INVALID_HANDLE},
        {nullptr, *PsThreadType, STATUS_INVALID_HANDLE},
        {handle, *PsThreadType, STATUS_SUCCESS},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(ObReferenceObjectByHandle(c.handle, 0, c.type, KernelMode, &object, nullptr), c.expected);
        EXPECT_EQ(object == nullptr, c.expected != STATUS_SUCCESS);
    }
    EXPECT_EQ(ObfReferenceObject(object), 4) << "the handle's, the running thread's, ours and this one";
    EXPECT_EQ(ObfDereferenceObject(object), 3);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(handle), STATUS_INVALID_HANDLE);
    ExpectComplaint("ZwClose");
    KeSetEvent(&context.go, 0, FALSE);
    KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr);
    ObfDereferenceObject(object);
}

TEST_F(Threads, HandlesAreDistinctMultiplesOfFourWhileOpen) {
    std::set<HANDLE> handles;
    for (int i = 0; i < 8; ++i)
        handles.insert(hk::detail::HandleCreate(KeGetCurrentThread(), hk::detail::ObjectKind::Thread, 0));
    EXPECT_EQ(handles.size(), 8u);
    for (HANDLE h : handles) {
        EXPECT_TRUE(h != nullptr && ULONG_PTR(h) % 4 == 0) << h;
        EXPECT_EQ(ZwClose(h), STATUS_SUCCESS);
    }
    EXPECT_EQ(KeSetBasePriorityThread(KeGetCurrentThread(), 4), 0);
    EXPECT_EQ(KeSetBasePriorityThread(KeGetCurrentThread(), 0), 4);
}

TEST_F(ThreadsConcurrency, WorkItemsRunAtPassiveLevelOnAnotherThread) {
    struct Context {
        WORK_QUEUE_ITEM item;
        KIRQL irql = HIGH_LEVEL;
        std::thread::id thread;
    } contexts[2];
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);  // queueing from DISPATCH_LEVEL is allowed
    for (auto &c : contexts) {
        ExInitializeWorkItem(
            &c.item,
            [](PVOID p) {
                auto *ctx = static_cast<Context *>(p);
                ctx->irql = KeGetCurrentIrql();
                ctx->thread = std::this_thread::get_id();
            },
            &c);
        ExQueueWorkItem(&c.item, &c == &contexts[0] ? DelayedWorkQueue : CriticalWorkQueue);
    }
    KeLowerIrql(old);
    hk::DrainSystemWorkQueue();
    for (const auto &c : contexts) {
        EXPECT_EQ(c.irql, PASSIVE_LEVEL);
        EXPECT_NE(c.thread, std::thread::id());
        EXPECT_NE(c.thread, std::this_thread::get_id());
    }
}

}  // namespace
