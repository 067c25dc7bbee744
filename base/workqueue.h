// The library's deferred work queue: one kernel queue served by one system
// thread, for work that cannot run where it arises (a DPC at DISPATCH_LEVEL,
// or a caller that holds a lock the work needs).
#pragma once

#include "platform/nt.h"

typedef VOID NTAPI WORK_ROUTINE(PVOID Context);

struct WorkItem {
    LIST_ENTRY Entry;       // owned by the queue while queued
    WORK_ROUTINE *Routine;  // the work
    PVOID Context;          // passed to Routine or Cleanup
    WORK_ROUTINE *Cleanup;  // called instead of Routine for an item that never ran; may be null
};
TEXPRT_ASSERT_LAYOUT32(sizeof(WorkItem) == 20);

struct WorkQueue {
    ULONG Initialized;  // 1 once creation has ended, even with a failure
    KQUEUE Queue;
    ULONG PriorityClass;
};

// Class 1 is the library's queue; class 2 marks a queue with no threads to stop.
constexpr ULONG WorkQueueClassLibrary = 1;
constexpr ULONG WorkQueueClassNoThreads = 2;
constexpr ULONG WorkQueueClassCount = 3;

extern WorkQueue LibraryWorkQueue;
extern ULONG WorkThreadCount[WorkQueueClassCount];

NTSTATUS InitializeWorkQueue(ULONG Count, ULONG PriorityClass, WorkQueue *Queue);
NTSTATUS StartWorkThread(WorkQueue *Queue, ULONG PriorityClass);
_IRQL_requires_max_(DISPATCH_LEVEL) WorkItem *NewWorkItem();
_IRQL_requires_max_(DISPATCH_LEVEL) VOID PrepareWorkItem(WorkItem *Item, WORK_ROUTINE *Routine,
                                                        WORK_ROUTINE *Cleanup, PVOID Context);
_IRQL_requires_max_(DISPATCH_LEVEL) LONG QueueWorkItem(WorkItem *Item, WorkQueue *Queue);
VOID RundownWorkQueue(WorkQueue *Queue);
