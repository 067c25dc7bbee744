// The live rule stores and the masks derived from them. The masks are read
// without a lock by the state queries on the monitors' hot paths; only a
// store swap writes them.
#pragma once

#include "platform/nt.h"

// CaptureMask bits.
constexpr ULONG CaptureSystem = 0x01;
constexpr ULONG CaptureProcess = 0x02;
constexpr ULONG CaptureFile = 0x04;
constexpr ULONG CaptureRegistry = 0x08;
constexpr ULONG CaptureWhiteList = 0x10;
constexpr ULONG CaptureNetwork = 0x20;

// ProtectionMask bits.
constexpr ULONG ProtectDirectory = 0x01;
constexpr ULONG ProtectRegistry = 0x02;
constexpr ULONG ProtectProcess = 0x04;
constexpr ULONG ProtectDriver = 0x08;

extern volatile LONG CaptureMask;
extern volatile ULONG ProtectionMask;
extern volatile ULONG RegKeyNotifyMask;
extern volatile ULONG RegValNotifyMask;
extern volatile ULONG DiskNotifyMask;
extern volatile ULONG NetworkNotifyMask;
