// The static state of the event stream. Lives as long as the image.
#include "eventstream/globals.h"

UNICODE_STRING SystemRootDeviceString;
LARGE_INTEGER MaxCacheSize = {{(ULONG)DefaultMaxCacheSize, (LONG)(DefaultMaxCacheSize >> 32)}};
ULONG SystemProcessId;
