// The event stream's shared state that other parts of the library read or
// set: the system root it resolves and the quota the configuration gives it.
#pragma once

#include "platform/nt.h"

// The device form of the system root, e.g. \Device\HarddiskVolume2\Windows.
// Its buffer stays null until the data directory has been resolved.
extern UNICODE_STRING SystemRootDeviceString;

// The quota of the stream's files in bytes: "MaxCacheSize" under Parameters
// gives it in MiB. Written as two 32-bit halves without a lock; the stream
// thread may read one half new and one old.
constexpr ULONGLONG DefaultMaxCacheSize = 100ull << 20;  // 100 MiB
extern LARGE_INTEGER MaxCacheSize;

// The system process's id, recorded by phase 0: file work asked for by a
// caller outside it goes to a system worker.
extern ULONG SystemProcessId;
