// State queries: one plain load of a mask each, no lock, so that a monitor's
// hot path pays a single memory read. A query may see a mask a moment before
// or after a policy swap.
#include "platform/nt.h"

#include "include/texprt.h"

#include "eventstream/datadir.h"
#include "frame/config.h"
#include "frame/frame.h"
#include "rules/store.h"

namespace {

UCHAR CaptureBit(ULONG Bit) { return (PlatformReadWord((volatile ULONG *)&CaptureMask) & Bit) ? 1 : 0; }

ULONG Mask(volatile ULONG *Word) { return PlatformReadWord(Word); }

}  // namespace

TEXPRT_EXPORT UCHAR NTAPI TcIsSystemCaptureEnabled() { return CaptureBit(CaptureSystem); }
TEXPRT_EXPORT UCHAR NTAPI TcIsProcessCaptureEnabled() { return CaptureBit(CaptureProcess); }
TEXPRT_EXPORT UCHAR NTAPI TcIsFileSystemCaptureEnabled() { return CaptureBit(CaptureFile); }
TEXPRT_EXPORT UCHAR NTAPI TcIsRegistryCaptureEnabled() { return CaptureBit(CaptureRegistry); }
TEXPRT_EXPORT UCHAR NTAPI TcIsWhitelistMonitorEnabled() { return CaptureBit(CaptureWhiteList); }
TEXPRT_EXPORT UCHAR NTAPI TcIsNetworkCaptureEnabled() { return CaptureBit(CaptureNetwork); }

// The protection queries answer the masked bit as it stands; callers test
// for non-zero.
TEXPRT_EXPORT UCHAR NTAPI TcIsDirectoryProtectionEnabled() { return (UCHAR)(Mask(&ProtectionMask) & ProtectDirectory); }
TEXPRT_EXPORT UCHAR NTAPI TcIsRegistryProtectionEnabled() { return (UCHAR)(Mask(&ProtectionMask) & ProtectRegistry); }
TEXPRT_EXPORT UCHAR NTAPI TcIsProcessProtectionEnabled() { return (UCHAR)(Mask(&ProtectionMask) & ProtectProcess); }
TEXPRT_EXPORT UCHAR NTAPI TcIsDriverProtectionEnabled() { return (UCHAR)(Mask(&ProtectionMask) & ProtectDriver); }

// The notify queries look at the low eight bits of their mask only, whatever
// width the rules' operation bits have.
TEXPRT_EXPORT UCHAR NTAPI TcIsRegKeyNotify(UCHAR Operation) { return (UCHAR)Mask(&RegKeyNotifyMask) & Operation; }
TEXPRT_EXPORT UCHAR NTAPI TcIsRegValNotify(UCHAR Operation) { return (UCHAR)Mask(&RegValNotifyMask) & Operation; }
TEXPRT_EXPORT UCHAR NTAPI TcIsDiskRuleNotify(UCHAR Operation) { return (UCHAR)Mask(&DiskNotifyMask) & Operation; }
TEXPRT_EXPORT UCHAR NTAPI TcIsNetworkRuleNotify(UCHAR Operation) { return (UCHAR)Mask(&NetworkNotifyMask) & Operation; }

TEXPRT_EXPORT BOOLEAN NTAPI TcIsPerformanceFlagSet() { return PerfCountersEnabled; }

TEXPRT_EXPORT PUNICODE_STRING NTAPI TcGetTolvexAgentExeLocation() { return &TolvexAgentExePath; }

TEXPRT_EXPORT PUNICODE_STRING NTAPI TcGetSystemRootDeviceString() { return &SystemRootDeviceString; }
