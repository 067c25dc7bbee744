// The System Monitor's minifilter, lent to the library so that it can open
// files through the filter without seeing its own I/O. The monitors set and
// clear it through the filter access exports; the library's file work reads
// it.
#pragma once

#include "platform/nt.h"

extern PFLT_FILTER FilterHandle;
// Non-zero while file operations may go through the filter. Written with
// and without FilterLock, as the exports say.
extern volatile UCHAR FilterAvailable;
// Held only for the handle's store and the read of FilterAvailable, and by
// a monitor that must keep the filter from going away.
extern FAST_MUTEX FilterLock;

VOID InitializeFilterAccess();
