// Performance counters: published only on a machine whose service key has
// the subkey "PerFlagOn", which phase 0 reads into PerfCountersEnabled. The
// event stream asks the same flag before it counts what it drops.
#pragma once

#include "platform/nt.h"

extern UCHAR PerfCountersEnabled;
