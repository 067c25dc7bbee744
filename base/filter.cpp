// The minifilter handle lent by the System Monitor.
#include "base/filter.h"

#include "base/locks.h"

VOID InitializeFilterAccess() {
    ExInitializeFastMutex(&FilterLock);
    PlatformRankLock(&FilterLock, LockRankFilter, "FilterLock");
}
