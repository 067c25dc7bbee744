// The live rule stores.
#include "rules/store.h"

volatile LONG CaptureMask;
volatile ULONG ProtectionMask;
volatile ULONG RegKeyNotifyMask;
volatile ULONG RegValNotifyMask;
volatile ULONG DiskNotifyMask;
volatile ULONG NetworkNotifyMask;
