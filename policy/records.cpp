// What every policy format shares.
#include "policy/records.h"

#include "diagnostics/eventlog.h"
#include "policy/format/appblocking.h"
#include "policy/format/monitor.h"

static_assert(MonitorFormat::MagicVersionMask == PolicyMagicVersionMask &&
              AppBlockingFormat::MagicVersionMask == PolicyMagicVersionMask);

VOID ReportPolicyRecordMismatch(PCWSTR Label, ULONG Found, ULONG Expected) {
    ReportPolicyVersionMismatch(Label, (USHORT)(Found & PolicyMagicVersionMask), (USHORT)Expected);
}
