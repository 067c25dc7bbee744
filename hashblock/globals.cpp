// The static state of hash blocking. Lives as long as the image.
#include "hashblock/globals.h"

ULONG HbbMaxAppCacheSize = DefaultHbbMaxAppCacheSize;
