// Hash blocking's shared state: the limit of its digest cache, which the
// configuration reads at phase 0.
#pragma once

#include "platform/nt.h"

// Entries the digest cache may hold: "HBBMaxAppCacheSize" under
// Parameters, written back with this default when it is missing.
constexpr ULONG DefaultHbbMaxAppCacheSize = 1024;
extern ULONG HbbMaxAppCacheSize;
