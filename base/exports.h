// What every export does first: check that it was called at or below its
// maximum IRQL. The maximum comes from the export list, which also gives
// include/texprt.h its annotations, so the check and the contract cannot
// drift apart.
#pragma once

#include "platform/nt.h"

#include "include/texprt.h"

namespace ExportIrql {
#define TEXPRT_EXPORT_ENTRY(Name, MaximumIrql, ...) constexpr KIRQL Name = MaximumIrql;
#include "include/texprt_exports.inc"
#undef TEXPRT_EXPORT_ENTRY
}  // namespace ExportIrql

// The first statement of every export's body.
#define EXPORT_ENTRY(Name) PlatformCheckExportIrql(ExportIrql::Name, #Name)
