// Configuration: the registry values under the System Monitor's service key.
// Each value lands in the part of the library that uses it: the counter
// flag in diagnostics, the stream's quota in the event stream, the digest
// cache's limit in hash blocking.
#pragma once

#include "platform/nt.h"

UCHAR ReadPerfFlag();
VOID ReadHbbCacheSize();
// Phase 0's reading of the registry and first load of the policies. Always
// succeeds: a policy that cannot be read is only reported.
NTSTATUS LoadConfigurationAndPolicies();
