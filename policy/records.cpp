// What every policy format shares.
#include "policy/records.h"

#include "diagnostics/eventlog.h"

VOID ReportPolicyRecordMismatch(PCWSTR Label, ULONG Found, ULONG Expected) {
    ReportPolicyVersionMismatch(Label, (USHORT)(Found & 0xFF), (USHORT)Expected);
}
