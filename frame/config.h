// Configuration: the registry values under the System Monitor's service key.
#pragma once

#include "platform/nt.h"

constexpr ULONGLONG DefaultMaxCacheSize = 100ull << 20;  // 100 MiB
constexpr ULONG DefaultHbbMaxAppCacheSize = 1024;

// The access every configuration key is opened with.
constexpr ACCESS_MASK ConfigurationKeyAccess = 0x2001F;

extern UCHAR PerfCountersEnabled;
// Written as two 32-bit halves without a lock; the stream thread may read one
// half new and one old.
extern LARGE_INTEGER MaxCacheSize;
extern ULONG HbbMaxAppCacheSize;

UCHAR ReadPerfFlag();
VOID ReadHbbCacheSize();
// Phase 0's reading of the registry and first load of the policies. Always
// succeeds: a policy that cannot be read is only reported.
NTSTATUS LoadConfigurationAndPolicies();

// Opens the service key, or "Parameters" relative to it.
NTSTATUS OpenServiceKey(PHANDLE Handle);
NTSTATUS OpenParametersKey(HANDLE ServiceKey, PHANDLE Handle);
