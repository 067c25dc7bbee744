// Deferred work queue and its system thread.
#include "base/workqueue.h"

#include "base/pool.h"

namespace {

constexpr ACCESS_MASK WorkThreadAccess = 0x1F03FF;  // THREAD_ALL_ACCESS
constexpr ACCESS_MASK WorkThreadReferenceAccess = 0x20;

// A stop request, built on the stack of the thread that runs the queue down.
struct ThreadStopRecord {
    KEVENT Stopped;
    PKTHREAD Thread;
};

VOID NTAPI WorkThreadRoutine(PVOID Context) {
    WorkQueue *Queue = (WorkQueue *)Context;
    for (;;) {
        PLIST_ENTRY Entry = KeRemoveQueue(&Queue->Queue, KernelMode, nullptr);
        const NTSTATUS Status = (NTSTATUS)(ULONG_PTR)Entry;
        if (Status == STATUS_ABANDONED) return;
        if (Status == STATUS_TIMEOUT || Status == STATUS_USER_APC) continue;
        WorkItem *Item = CONTAINING_RECORD(Entry, WorkItem, Entry);
        Item->Routine(Item->Context);
        PoolFree(Item);
    }
}

// Runs on the worker as the last item it takes: hands the thread object to
// the waiter and ends the thread, so the waiter can be sure that no code of
// this image still runs on it.
VOID NTAPI ThreadStopRoutine(PVOID Context) {
    ThreadStopRecord *Record = (ThreadStopRecord *)Context;
    Record->Thread = KeGetCurrentThread();
    ObfReferenceObject(Record->Thread);
    KeSetEvent(&Record->Stopped, 0, FALSE);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

VOID DrainWorkItems(PLIST_ENTRY First) {
    // What KeRundownQueue hands back is a circular list without a head.
    if (First == nullptr) return;
    PLIST_ENTRY Entry = First;
    do {
        PLIST_ENTRY Next = Entry->Flink;
        WorkItem *Item = CONTAINING_RECORD(Entry, WorkItem, Entry);
        if (Item->Cleanup != nullptr) Item->Cleanup(Item->Context);
        PoolFree(Item);
        Entry = Next;
    } while (Entry != First);
}

}  // namespace

NTSTATUS StartWorkThread(WorkQueue *Queue, ULONG PriorityClass) {
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, nullptr, 0, nullptr, nullptr);
    HANDLE Handle = nullptr;
    NTSTATUS Status =
        PsCreateSystemThread(&Handle, WorkThreadAccess, &Attributes, nullptr, nullptr, WorkThreadRoutine, Queue);
    if (!NT_SUCCESS(Status)) return Status;
    PVOID Thread = nullptr;
    Status = ObReferenceObjectByHandle(Handle, WorkThreadReferenceAccess, *PsThreadType, KernelMode, &Thread,
                                       nullptr);
    if (NT_SUCCESS(Status)) {
        KeSetBasePriorityThread((PKTHREAD)Thread, PriorityClass != 0 ? 4 : 5);
        ObfDereferenceObject(Thread);
    }
    ZwClose(Handle);
    // The thread runs on even when the reference failed.
    return Status;
}

NTSTATUS InitializeWorkQueue(ULONG Count, ULONG PriorityClass, WorkQueue *Queue) {
    if (Queue == nullptr) return STATUS_INVALID_PARAMETER;
    KeInitializeQueue(&Queue->Queue, Count);
    Queue->PriorityClass = PriorityClass;
    NTSTATUS Status = STATUS_SUCCESS;
    for (ULONG Index = 0; Index < Count; ++Index) {
        Status = StartWorkThread(Queue, PriorityClass);
        if (!NT_SUCCESS(Status)) break;
        ++WorkThreadCount[PriorityClass];
    }
    Queue->Initialized = 1;
    return Status;
}

WorkItem *NewWorkItem() { return (WorkItem *)PoolAlloc(DefaultPool, sizeof(WorkItem), TagWorkItem); }

VOID PrepareWorkItem(WorkItem *Item, WORK_ROUTINE *Routine, WORK_ROUTINE *Cleanup, PVOID Context) {
    Item->Entry.Flink = nullptr;
    Item->Routine = Routine;
    Item->Cleanup = Cleanup;
    Item->Context = Context;
}

LONG QueueWorkItem(WorkItem *Item, WorkQueue *Queue) { return KeInsertQueue(&Queue->Queue, &Item->Entry); }

VOID RundownWorkQueue(WorkQueue *Queue) {
    if (Queue->PriorityClass == WorkQueueClassNoThreads || Queue->Initialized == 0) return;
    const ULONG Class = Queue->PriorityClass;
    for (ULONG Index = WorkThreadCount[Class]; Index > 0; --Index) {
        // The stop item waits its turn behind the queued work, so a routine
        // that is running delays the unload until it is done.
        ThreadStopRecord Record;
        Record.Thread = nullptr;
        WorkItem StopItem;
        PrepareWorkItem(&StopItem, ThreadStopRoutine, nullptr, &Record);
        KeInitializeEvent(&Record.Stopped, NotificationEvent, FALSE);
        KeClearEvent(&Record.Stopped);
        KeInsertQueue(&Queue->Queue, &StopItem.Entry);
        KeWaitForSingleObject(&Record.Stopped, Executive, KernelMode, FALSE, nullptr);
        KeWaitForSingleObject(Record.Thread, Executive, KernelMode, FALSE, nullptr);
        ObfDereferenceObject(Record.Thread);
        --WorkThreadCount[Class];
    }
    DrainWorkItems(KeRundownQueue(&Queue->Queue));
}
