// The host image's inspection entry for the process table: what texprt-sim
// and the tests show of it. texprt.sys leaves it out.
#include "platform/nt.h"

#if !defined(_WIN32)

#include "base/locks.h"
#include "process/inspect.h"
#include "process/table.h"

TEXPRT_EXPORT VOID NTAPI TexprtInspectProcessTable(ProcessTableInspection *Inspection) {
    Inspection->EntryCount = 0;
    Inspection->DeferredCount = 0;
    FastMutexGuard Guard(&ProcessTableLock);
    PVOID Restart = nullptr;
    for (auto *Entry = (ProcessEntry *)RtlEnumerateGenericTableWithoutSplaying(&ProcessTable, &Restart);
         Entry != nullptr; Entry = (ProcessEntry *)RtlEnumerateGenericTableWithoutSplaying(&ProcessTable, &Restart)) {
        ++Inspection->EntryCount;
        if (Inspection->VisitEntry == nullptr) continue;
        // The ancestors and the actor cache stand still while they are read.
        SharedResourceGuard Ancestors(&Entry->AncestorImages.Lock);
        FastMutexGuard Actor(Entry->ActorLock);
        Inspection->VisitEntry(Inspection->Context, Entry);
    }
    for (PLIST_ENTRY Link = DeferredDeleteList.Flink; Link != &DeferredDeleteList; Link = Link->Flink) {
        ++Inspection->DeferredCount;
        if (Inspection->VisitDeferred != nullptr)
            Inspection->VisitDeferred(Inspection->Context, CONTAINING_RECORD(Link, DeferredDeleteNode, Link)->ProcessId);
    }
}

#endif
