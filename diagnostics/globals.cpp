// The static state of diagnostics. Zero at load; lives as long as the image.
#include "diagnostics/counters.h"
#include "diagnostics/eventlog.h"

// The monitors' driver objects, and the lock over them and every internal
// event log write (eventlog.cpp).
PDRIVER_OBJECT MonitorObjects[2];
FAST_MUTEX MonitorObjectLock;

// Whether the counter sets are published; read once by phase 0.
UCHAR PerfCountersEnabled;
