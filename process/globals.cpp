// The static state of the process table. Zero at load; made by phase 0 and
// emptied by unload or a failed phase 1.
#include "process/table.h"

// The table, its lock and the deferred delete list (table.cpp).
RTL_GENERIC_TABLE ProcessTable;
FAST_MUTEX ProcessTableLock;
LIST_ENTRY DeferredDeleteList;
ULONG ProcessNameOffset;

// Routines bound at phase 0 (table.cpp): null where the system lacks them.
ZW_QUERY_INFORMATION_THREAD *QueryInformationThread;
PVOID OpenProcessTokenExRoutine;
