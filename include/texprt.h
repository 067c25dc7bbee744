/*
 * texprt: the shared kernel-mode library of the Tolvex Agent monitors.
 *
 * This is the library's whole interface: the records that cross its
 * boundary and its exported functions. A monitor driver includes its DDK
 * headers (ntddk.h or ntifs.h, and fltKernel.h) first, then this header, and
 * links against the import library of texprt.sys. Usable from C and C++.
 *
 * Calling order expected of a monitor, from load to unload:
 *   TcSystemsInitializePhase0(DriverObject, Preferred)
 *   TcEventWriteDriverStart(...)            its start message
 *   TcSetMiniFilterPointer(Filter)          System Monitor only
 *   TcSystemsInitializePhase1()             once the file system can be used
 *   ... events, policy updates, state queries ...
 *   TcClearMiniFilterPointer(); TcNotifyDriverUnload(Preferred)
 * The kernel calls DllInitialize before the first importer starts and
 * DllUnload after the last one has gone.
 */
#ifndef TEXPRT_H
#define TEXPRT_H

#ifndef NTAPI
#error "include the kernel headers (ntddk.h / ntifs.h) before texprt.h"
#endif

#ifndef TEXPRT_API
#define TEXPRT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------ records */

/* The verdict of an app-blocking match. Matched and the identity fields are
 * those of the last rule visited: a digest listed only in an earlier rule
 * reports Matched 0. RuleSeen is 1 once any rule was visited. */
typedef struct _AppBlockingResult {
    UCHAR Matched;
    ULONG RuleSeen;
    ULONG PolicyTag;
    ULONG RuleId[4];
    UCHAR Reserved;
} AppBlockingResult;

/* ------------------------------------------------------------------ lifecycle */

TEXPRT_API NTSTATUS NTAPI DllInitialize(PUNICODE_STRING RegistryPath);
TEXPRT_API NTSTATUS NTAPI DllUnload(VOID);

/* Registers the monitor; the first monitor to arrive also builds the shared
 * state and loads configuration and policies. A policy that cannot be read
 * does not fail it. Preferred selects the driver object that event log
 * entries name while it is registered. */
TEXPRT_API NTSTATUS NTAPI TcSystemsInitializePhase0(PDRIVER_OBJECT DriverObject, BOOLEAN Preferred);
/* Second phase, once the file system can be used; a later caller gets
 * STATUS_SUCCESS at once. */
TEXPRT_API NTSTATUS NTAPI TcSystemsInitializePhase1(VOID);
TEXPRT_API NTSTATUS NTAPI TcNotifyDriverUnload(BOOLEAN Preferred);

/* ------------------------------------------------------------------ filter access */

TEXPRT_API NTSTATUS NTAPI TcSetMiniFilterPointer(PFLT_FILTER Filter);
TEXPRT_API VOID NTAPI TcClearMiniFilterPointer(VOID);
TEXPRT_API UCHAR NTAPI TcNotifyFilterAvailabilility(UCHAR Available);
TEXPRT_API VOID NTAPI TcAcquireFilterLock(VOID);
TEXPRT_API VOID NTAPI TcReleaseFilterLock(VOID);

/* ------------------------------------------------------------------ state queries
 * Lock-free reads of the live policy masks, for hot paths. The capture
 * queries answer 0 or 1; the protection queries answer their masked bit as
 * it stands (test for non-zero); the notify queries answer the low byte of
 * the mask ANDed with Operation. */

TEXPRT_API UCHAR NTAPI TcIsSystemCaptureEnabled(VOID);
TEXPRT_API UCHAR NTAPI TcIsProcessCaptureEnabled(VOID);
TEXPRT_API UCHAR NTAPI TcIsFileSystemCaptureEnabled(VOID);
TEXPRT_API UCHAR NTAPI TcIsRegistryCaptureEnabled(VOID);
TEXPRT_API UCHAR NTAPI TcIsWhitelistMonitorEnabled(VOID);
TEXPRT_API UCHAR NTAPI TcIsNetworkCaptureEnabled(VOID);
TEXPRT_API UCHAR NTAPI TcIsDirectoryProtectionEnabled(VOID);
TEXPRT_API UCHAR NTAPI TcIsRegistryProtectionEnabled(VOID);
TEXPRT_API UCHAR NTAPI TcIsProcessProtectionEnabled(VOID);
TEXPRT_API UCHAR NTAPI TcIsDriverProtectionEnabled(VOID);
TEXPRT_API UCHAR NTAPI TcIsRegKeyNotify(UCHAR Operation);
TEXPRT_API UCHAR NTAPI TcIsRegValNotify(UCHAR Operation);
TEXPRT_API UCHAR NTAPI TcIsDiskRuleNotify(UCHAR Operation);
TEXPRT_API UCHAR NTAPI TcIsNetworkRuleNotify(UCHAR Operation);
TEXPRT_API BOOLEAN NTAPI TcIsPerformanceFlagSet(VOID);
/* The head of the library's own string, not a copy; its buffer is null
 * until phase 1 has built it. */
TEXPRT_API PUNICODE_STRING NTAPI TcGetTolvexAgentExeLocation(VOID);
TEXPRT_API PUNICODE_STRING NTAPI TcGetSystemRootDeviceString(VOID);

/* ------------------------------------------------------------------ configuration */

/* Re-reads "MaxCacheSize" (MiB) under the service's Parameters key. */
TEXPRT_API NTSTATUS NTAPI TcUpdateMaxCacheSize(VOID);

/* ------------------------------------------------------------------ policy */

/* Re-read a policy whose file path stands under Parameters. A missing value
 * or file revokes the policy and returns STATUS_OBJECT_NAME_NOT_FOUND; a bad
 * file leaves the running policy in force. A monitor policy whose file
 * name is the one loaded last is not read again: the agent gives a new
 * policy a new name. */
TEXPRT_API NTSTATUS NTAPI TcUpdateEDRPolicies(VOID);
TEXPRT_API VOID NTAPI TcRevokeEDRPolicies(VOID);
TEXPRT_API NTSTATUS NTAPI TcUpdateAppBlockingPolicy(VOID);
TEXPRT_API VOID NTAPI TcRevokeAppBlockingPolicy(VOID);

/* ------------------------------------------------------------------ app blocking */

/* Digest: 32 raw SHA-256 bytes. The status says whether matching ran; the
 * verdict is Result->Matched. */
TEXPRT_API NTSTATUS NTAPI TcTFeMatchesProcessAppBlockingRuleSet(const UCHAR *Digest, AppBlockingResult *Result);
TEXPRT_API UCHAR NTAPI TcIsHBBProcessSHA256SupportEnabled(VOID);

/* ------------------------------------------------------------------ event log */

/* Writes one I/O error log packet: MessageId with StringCount insertion
 * strings (%2 onwards; null or empty slots add nothing to the packet) and
 * optional dump data. A packet above 152 bytes is dropped silently. */
TEXPRT_API VOID NTAPI TcEventWrite(ULONG MessageId, ULONG FinalStatus, USHORT StringCount, PCWSTR *Strings,
                                   PVOID DumpData, ULONG DumpSize, PVOID IoObject);
/* Writes a monitor's start message with its version text as %2. */
TEXPRT_API NTSTATUS NTAPI TcEventWriteDriverStart(ULONG MessageId, PCSZ VersionText, PVOID IoObject);
TEXPRT_API VOID NTAPI EventWriteEventHBBWLFailure(NTSTATUS Status);

/* Message ids a monitor writes itself. */
#define TEXPRT_MSG_SYSTEM_MONITOR_STARTING ((ULONG)0x40060001)
#define TEXPRT_MSG_SYSTEM_MONITOR_STOPPING ((ULONG)0x40060002)
#define TEXPRT_MSG_NETWORK_MONITOR_STARTING ((ULONG)0x4006000D)
#define TEXPRT_MSG_NETWORK_MONITOR_STOPPING ((ULONG)0x4006000E)
#define TEXPRT_MSG_NETWORK_MONITOR_STARTING_VERSION ((ULONG)0x40060012)

#ifdef __cplusplus
}
#endif

#endif /* TEXPRT_H */
