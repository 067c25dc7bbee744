// The housekeeping chain. It runs in three stages so that the work itself is
// done at PASSIVE_LEVEL: the timer's DPC queues a work item, the work item
// runs on the work queue thread, and re-arms the timer at its end while
// phase 1 is claimed. The period is therefore half a second plus one pass.
#include "frame/housekeeping.h"

#include "base/locks.h"
#include "base/pool.h"
#include "base/workqueue.h"
#include "frame/frame.h"
#include "process/table.h"

VOID ArmHousekeepingTimer() {
    LARGE_INTEGER DueTime;
    DueTime.QuadPart = HousekeepingPeriod;
    KeSetTimer(&HousekeepingTimer, DueTime, &HousekeepingDpc);
}

VOID RearmHousekeepingTimer() {
    SpinLockGuard Guard(&StartLock);
    if (Phase1Started) ArmHousekeepingTimer();
}

VOID NTAPI HousekeepingTimerRoutine(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                                    PVOID SystemArgument2) {
    WorkItem *Item = NewWorkItem();
    if (Item == nullptr) {
        // No work item to be had: try again in another half second.
        RearmHousekeepingTimer();
        return;
    }
    PrepareWorkItem(Item, ProcessSweepWork, nullptr, nullptr);
    QueueWorkItem(Item, &LibraryWorkQueue);
}

VOID NTAPI ProcessSweepWork(PVOID Context) {
    // The table lock is released before the start lock is taken.
    SweepProcessTable();
    RearmHousekeepingTimer();
    PoolFree(Context);
}
