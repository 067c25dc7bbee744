// State queries: one plain load of a mask each, no lock, so that a monitor's
// hot path pays a single memory read. A query may see a mask a moment before
// or after a policy swap.
#include "platform/nt.h"

#include "base/exports.h"
#include "diagnostics/counters.h"
#include "eventstream/globals.h"
#include "frame/frame.h"
#include "rules/store.h"

namespace {

UCHAR CaptureBit(ULONG Bit) { return (PlatformReadWord((volatile ULONG *)&CaptureMask) & Bit) ? 1 : 0; }

ULONG Mask(volatile ULONG *Word) { return PlatformReadWord(Word); }

}  // namespace

TEXPRT_EXPORT UCHAR NTAPI TcIsSystemCaptureEnabled() {
    EXPORT_ENTRY(TcIsSystemCaptureEnabled);
    return CaptureBit(CaptureSystem);
}
TEXPRT_EXPORT UCHAR NTAPI TcIsProcessCaptureEnabled() {
    EXPORT_ENTRY(TcIsProcessCaptureEnabled);
    return CaptureBit(CaptureProcess);
}
TEXPRT_EXPORT UCHAR NTAPI TcIsFileSystemCaptureEnabled() {
    EXPORT_ENTRY(TcIsFileSystemCaptureEnabled);
    return CaptureBit(CaptureFile);
}
TEXPRT_EXPORT UCHAR NTAPI TcIsRegistryCaptureEnabled() {
    EXPORT_ENTRY(TcIsRegistryCaptureEnabled);
    return CaptureBit(CaptureRegistry);
}
TEXPRT_EXPORT UCHAR NTAPI TcIsWhitelistMonitorEnabled() {
    EXPORT_ENTRY(TcIsWhitelistMonitorEnabled);
    return CaptureBit(CaptureWhiteList);
}
TEXPRT_EXPORT UCHAR NTAPI TcIsNetworkCaptureEnabled() {
    EXPORT_ENTRY(TcIsNetworkCaptureEnabled);
    return CaptureBit(CaptureNetwork);
}

// The protection queries answer the masked bit as it stands; callers test
// for non-zero.
TEXPRT_EXPORT UCHAR NTAPI TcIsDirectoryProtectionEnabled() {
    EXPORT_ENTRY(TcIsDirectoryProtectionEnabled);
    return (UCHAR)(Mask(&ProtectionMask) & ProtectDirectory);
}
TEXPRT_EXPORT UCHAR NTAPI TcIsRegistryProtectionEnabled() {
    EXPORT_ENTRY(TcIsRegistryProtectionEnabled);
    return (UCHAR)(Mask(&ProtectionMask) & ProtectRegistry);
}
TEXPRT_EXPORT UCHAR NTAPI TcIsProcessProtectionEnabled() {
    EXPORT_ENTRY(TcIsProcessProtectionEnabled);
    return (UCHAR)(Mask(&ProtectionMask) & ProtectProcess);
}
TEXPRT_EXPORT UCHAR NTAPI TcIsDriverProtectionEnabled() {
    EXPORT_ENTRY(TcIsDriverProtectionEnabled);
    return (UCHAR)(Mask(&ProtectionMask) & ProtectDriver);
}

// The notify queries look at the low eight bits of their mask only, whatever
// width the rules' operation bits have.
TEXPRT_EXPORT UCHAR NTAPI TcIsRegKeyNotify(UCHAR Operation) {
    EXPORT_ENTRY(TcIsRegKeyNotify);
    return (UCHAR)Mask(&RegKeyNotifyMask) & Operation;
}
TEXPRT_EXPORT UCHAR NTAPI TcIsRegValNotify(UCHAR Operation) {
    EXPORT_ENTRY(TcIsRegValNotify);
    return (UCHAR)Mask(&RegValNotifyMask) & Operation;
}
TEXPRT_EXPORT UCHAR NTAPI TcIsDiskRuleNotify(UCHAR Operation) {
    EXPORT_ENTRY(TcIsDiskRuleNotify);
    return (UCHAR)Mask(&DiskNotifyMask) & Operation;
}
TEXPRT_EXPORT UCHAR NTAPI TcIsNetworkRuleNotify(UCHAR Operation) {
    EXPORT_ENTRY(TcIsNetworkRuleNotify);
    return (UCHAR)Mask(&NetworkNotifyMask) & Operation;
}

TEXPRT_EXPORT BOOLEAN NTAPI TcIsPerformanceFlagSet() {
    EXPORT_ENTRY(TcIsPerformanceFlagSet);
    return PerfCountersEnabled;
}

TEXPRT_EXPORT PUNICODE_STRING NTAPI TcGetTolvexAgentExeLocation() {
    EXPORT_ENTRY(TcGetTolvexAgentExeLocation);
    return &TolvexAgentExePath;
}

TEXPRT_EXPORT PUNICODE_STRING NTAPI TcGetSystemRootDeviceString() {
    EXPORT_ENTRY(TcGetSystemRootDeviceString);
    return &SystemRootDeviceString;
}

TEXPRT_EXPORT UCHAR NTAPI TcIsHBBProcessSHA256SupportEnabled() {
    EXPORT_ENTRY(TcIsHBBProcessSHA256SupportEnabled);
    // The low byte of the app-blocking policy's flags word, read with no lock.
    return PlatformReadByte((volatile const UCHAR *)&PolicyFlags) & 1;
}
