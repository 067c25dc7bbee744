// The System Monitor's minifilter handle, lent to the library so that it can
// open files through the filter without seeing its own I/O.
#include "platform/nt.h"

#include "include/texprt.h"

#include "diagnostics/trace.h"
#include "frame/frame.h"

PFLT_FILTER FilterHandle;
volatile UCHAR FilterAvailable;
FAST_MUTEX FilterLock;

TEXPRT_EXPORT NTSTATUS NTAPI TcSetMiniFilterPointer(PFLT_FILTER Filter) {
    if (Filter == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    ExAcquireFastMutex(&FilterLock);
    FilterHandle = Filter;
    FilterAvailable = 1;
    ExReleaseFastMutex(&FilterLock);
    return STATUS_SUCCESS;
}

// These two write without FilterLock; a monitor that needs them ordered
// against a reader wraps them in TcAcquireFilterLock/TcReleaseFilterLock.
TEXPRT_EXPORT VOID NTAPI TcClearMiniFilterPointer() {
    FilterHandle = nullptr;
    FilterAvailable = 0;
}

TEXPRT_EXPORT UCHAR NTAPI TcNotifyFilterAvailabilility(UCHAR Available) {
    FilterAvailable = Available;
    return Available;
}

TEXPRT_EXPORT VOID NTAPI TcAcquireFilterLock() { ExAcquireFastMutex(&FilterLock); }

TEXPRT_EXPORT VOID NTAPI TcReleaseFilterLock() { ExReleaseFastMutex(&FilterLock); }
