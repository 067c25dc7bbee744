// What the host image's inspection entry shows of the process table, for
// texprt-sim and the tests: every entry and the deferred delete list, read
// where they live rather than copied, so that nothing an entry holds is left
// out and the library has no copy to keep in step with ProcessEntry.
//
// texprt.sys leaves the entry out, as it leaves out the monitor store's: its
// exports are the monitors' interface alone. On the host image:
//
//     VOID NTAPI TexprtInspectProcessTable(ProcessTableInspection *Inspection);
//
// The routines are called with ProcessTableLock held for the whole walk, and
// for each entry with its ancestor list's resource held shared and its
// ActorLock held as well (the lock order allows all three in this order), so
// that everything an entry holds stands still while it is read. A routine
// reads only: it calls nothing of the library and keeps no pointer it is
// handed once it returns. The walk splays nothing, so that looking does not
// reshape the table it looks at.
#pragma once

#include "platform/nt.h"

#include "include/texprt.h"

#ifdef __cplusplus
extern "C" {
#endif

// One entry of the table, in process id order.
typedef VOID NTAPI PROCESS_TABLE_ENTRY_ROUTINE(PVOID Context, const ProcessEntry *Entry);
// One node of the deferred delete list, oldest first: the process id it
// waits to remove (the same id may stand more than once).
typedef VOID NTAPI PROCESS_TABLE_DEFERRED_ROUTINE(PVOID Context, ULONG ProcessId);

typedef struct _ProcessTableInspection {
    PVOID Context;                                  // in: handed to both routines
    PROCESS_TABLE_ENTRY_ROUTINE *VisitEntry;        // in: may be null
    PROCESS_TABLE_DEFERRED_ROUTINE *VisitDeferred;  // in: may be null
    ULONG EntryCount;                               // out: entries in the table
    ULONG DeferredCount;                            // out: nodes in the deferred delete list
} ProcessTableInspection;

#ifdef __cplusplus
}
#endif
