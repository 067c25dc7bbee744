// Inspection entries of the host image: what texprt-sim and the tests show
// of the library's internal state. texprt.sys leaves them out: its exports
// are the monitors' interface alone.
#include "platform/nt.h"

#if !defined(_WIN32)

#include "include/texprt.h"
#include "rules/store.h"

TEXPRT_EXPORT VOID NTAPI TexprtInspectMonitorStore(MonitorStoreSnapshot *Snapshot) { SnapshotMonitorStore(Snapshot); }

#endif
