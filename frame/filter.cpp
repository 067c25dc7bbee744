// Filter access: the System Monitor lends the library its minifilter handle
// (base/filter.h) so that it can open files through the filter without
// seeing its own I/O.
#include "platform/nt.h"

#include "base/exports.h"
#include "base/filter.h"
#include "base/locks.h"
#include "base/trace.h"

TEXPRT_EXPORT NTSTATUS NTAPI TcSetMiniFilterPointer(PFLT_FILTER Filter) {
    EXPORT_ENTRY(TcSetMiniFilterPointer);
    if (Filter == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    FastMutexGuard Guard(&FilterLock);
    FilterHandle = Filter;
    FilterAvailable = 1;
    return STATUS_SUCCESS;
}

// These two write without FilterLock; a monitor that needs them ordered
// against a reader wraps them in TcAcquireFilterLock/TcReleaseFilterLock.
TEXPRT_EXPORT VOID NTAPI TcClearMiniFilterPointer() {
    EXPORT_ENTRY(TcClearMiniFilterPointer);
    FilterHandle = nullptr;
    FilterAvailable = 0;
}

TEXPRT_EXPORT UCHAR NTAPI TcNotifyFilterAvailabilility(UCHAR Available) {
    EXPORT_ENTRY(TcNotifyFilterAvailabilility);
    FilterAvailable = Available;
    return Available;
}

TEXPRT_EXPORT VOID NTAPI TcAcquireFilterLock() {
    EXPORT_ENTRY(TcAcquireFilterLock);
    ExAcquireFastMutex(&FilterLock);
}

TEXPRT_EXPORT VOID NTAPI TcReleaseFilterLock() {
    EXPORT_ENTRY(TcReleaseFilterLock);
    ExReleaseFastMutex(&FilterLock);
}
