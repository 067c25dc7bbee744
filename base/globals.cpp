// The static state of the bottom layer. All of it is zero at load and lives
// as long as the image.
#include "base/filter.h"
#include "base/registry.h"
#include "base/workqueue.h"

// The library's one work queue and its thread count per priority class,
// touched only at load and unload (workqueue.cpp).
WorkQueue LibraryWorkQueue;
ULONG WorkThreadCount[WorkQueueClassCount];

// Where the configuration lives; built by phase 0 (registry.cpp).
PUNICODE_STRING ServiceKeyPath;

// The minifilter handle (filter.h).
PFLT_FILTER FilterHandle;
volatile UCHAR FilterAvailable;
FAST_MUTEX FilterLock;
