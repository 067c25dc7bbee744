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

/* Each export carries the highest IRQL it may be called at, as the kernel's
 * own headers annotate their routines; the DDK's driverspecs.h defines the
 * annotation for static analysis. */
#ifndef _IRQL_requires_max_
#define _IRQL_requires_max_(irql)
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

/* The acting process of an event, as one flat block: the fixed part below,
 * then without any alignment the texts of Win32ImagePath and ImageFileName
 * (UTF-16, no terminator), the self-relative security descriptor and the
 * user SID. Its size is 32 plus the four lengths. */
#pragma pack(push, 4)
typedef struct _ActorInformation {
    ULONG ProcessId;
    ULONG ThreadId;
    ULONG SecurityInformation;
    LARGE_INTEGER CreateTime;
    USHORT Win32ImagePathLength;
    USHORT ImageFileNameLength;
    ULONG SecurityDescriptorLength;
    UCHAR SidLength;
    UCHAR Reserved[3];
} ActorInformation;
#pragma pack(pop)

/* ------------------------------------------------------------------ filter event objects
 * The matcher's view of one event. The caller owns the object and zero-fills
 * it; Initialize stores the target, Add the time and the actor, a
 * TcTFeMatches... call gives the verdict, and Cleanup frees what the library
 * hung off the object (never the object). Every name is an upper-cased
 * private copy with a NUL behind it. */

/* ObjectType values, one bit each. */
#define TEXPRT_OBJECT_FILE 0x01
#define TEXPRT_OBJECT_DIRECTORY 0x02
#define TEXPRT_OBJECT_REGISTRY_KEY 0x04
#define TEXPRT_OBJECT_REGISTRY_VALUE 0x08
#define TEXPRT_OBJECT_PROCESS 0x10
#define TEXPRT_OBJECT_SYSTEM 0x20
#define TEXPRT_OBJECT_NETWORK 0x80

/* When and who. File, registry and system objects borrow the caller's actor
 * block, which must outlive the match; process and network objects own a
 * copy. */
typedef struct _EventInfo {
    ULONGLONG EventTime; /* system time, 100 ns units */
    ULONG ActorInfoSize;
    ActorInformation *ActorInfo;
} EventInfo;

typedef struct _FileObject {
    UNICODE_STRING Name; /* one trailing backslash removed */
    ULONG ObjectType;
    ULONG Attributes;
    ULONGLONG Size;
    struct _EventInfo EventInfo;
    USHORT Operation;
    /* A view of the first PrefixLength bytes of Name: the volume, which a
     * rule path of "*" stands for. Not owned. */
    UNICODE_STRING VolumePrefix;
} FileObject;

typedef struct _RegistryObject {
    UNICODE_STRING KeyName; /* one trailing backslash removed */
    UNICODE_STRING ValueName; /* empty for a key event */
    ULONG ObjectType;
    struct _EventInfo EventInfo;
    USHORT Operation;
    /* The monitor's own string; Cleanup frees its buffer when ExtraNameOwned
     * is non-zero. The library never writes either. */
    UNICODE_STRING ExtraName;
    UCHAR ExtraNameOwned;
} RegistryObject;

typedef struct _ProcessObject {
    UNICODE_STRING Name; /* keeps a trailing backslash */
    ULONG ObjectType;
    struct _EventInfo EventInfo;
    USHORT Operation;
    /* Written by the monitor: 0 for ordinary matching, else the code that
     * code filters compare with. */
    USHORT ProcessCode;
} ProcessObject;

typedef struct _SystemObject {
    UNICODE_STRING Name; /* one trailing backslash removed */
    ULONG ObjectType;
    struct _EventInfo EventInfo;
} SystemObject;

typedef struct _NetworkObject {
    ULONG ObjectType;
    struct _EventInfo EventInfo;
    USHORT Operation;    /* 1, 2 or 4 */
    USHORT ProtocolBits; /* written by the monitor */
    USHORT LocalPort;
    USHORT RemotePort;
    UNICODE_STRING LocalAddress;
    UNICODE_STRING RemoteAddress; /* empty when none was given */
} NetworkObject;

typedef struct _WhiteListObject {
    UNICODE_STRING ImagePath;
    UNICODE_STRING CommandLine;     /* optional */
    UNICODE_STRING ParentImagePath; /* optional */
} WhiteListObject;

/* A process's whitelist standing. ExemptMasks bits: 1 process, 2 system,
 * 4 file, 8 network, 16 registry. Words 0 and 1 exempt from the EDR rule
 * sets, words 2 and 3 from the FIM rule sets. */
typedef struct _WhiteListState {
    UCHAR WhiteListHeader;
    UCHAR UnknownRuleSeen;
    ULONG ExemptMasks[4];
} WhiteListState;

/* ------------------------------------------------------------------ process table
 * One entry per process, made the first time the process is seen. A monitor
 * gets a pointer with one reference taken and gives it back with
 * DereferenceProcess(entry->ProcessId, 0); while it holds the reference the
 * entry stays where it is. Fields written after the entry was made change
 * under the library's table lock, so a monitor reads those as hints. */

/* The image paths of a process's ancestors, oldest first: a list of
 * AncestorImageNode, guarded by its own resource. */
typedef struct _AncestorImageList {
    LIST_ENTRY Head;
    ERESOURCE Lock;
} AncestorImageList;

/* ProcessFlags bits. */
#define TEXPRT_PROCESS_PROTECTED 0x01 /* the process matches the process protection rules */
#define TEXPRT_PROCESS_TRUSTED 0x02   /* marked by TcMarkProcessAsTrusted */

typedef struct _ProcessEntry {
    volatile LONG ReferenceCount; /* may go below zero if references do not balance */
    PVOID ProcessObject;          /* the process object, referenced; may be null */
    LARGE_INTEGER CreateTime;
    ULONG ProcessId;
    ULONG ParentProcessId;          /* 0 when it could not be read */
    LARGE_INTEGER ParentCreateTime; /* set only for entries made by GetExisitingProcesses */
    UNICODE_STRING ImageFileName;   /* kernel device path, NUL-terminated */
    UNICODE_STRING Win32ImagePath;  /* as the process parameters state it; may be empty */
    UNICODE_STRING CommandLine;     /* the arguments alone, or for an enumerated process the whole line */
    UCHAR Terminated;
    PFAST_MUTEX ActorLock;
    ULONG ActorRecordSize;
    ActorInformation *ActorRecord; /* the cached actor block, or null */
    AncestorImageList AncestorImages;
    UCHAR AncestorsCollected;
    struct _WhiteListState OwnWhiteList;
    struct _WhiteListState ParentWhiteList;
    UCHAR WhiteListResolved;
    ULONG ProcessFlags;
    UCHAR ProtectionValue;
} ProcessEntry;

/* One context of a matched rule: the rule's list word and 16-byte rule id,
 * its flag byte (file rules only) and the event's ExclusionSeen at the time
 * the rule matched. */
typedef struct _MatchedContext {
    ULONG RuleList;
    ULONG RuleId[4];
    UCHAR RuleFlags;
    UCHAR ExclusionSeen;
    UCHAR Reserved[2];
} MatchedContext;

/* The verdict of a match: Status is STATUS_SUCCESS when any rule matched and
 * STATUS_UNSUCCESSFUL otherwise (the call's own status only says whether
 * matching ran). The masks are the union over the matched rules; Contexts
 * lists every matched rule's contexts in rule order and is freed by
 * TcTFeCleanupResult. Zero-fill a result before its first use, and reuse it
 * only for matches of the same kind. */
typedef struct _FilterResult {
    NTSTATUS Status;
    ULONG FileOperations;
    ULONG DirectoryOperations;
    ULONG KeyOperations;
    ULONG ValueOperations;
    ULONG ProcessOperations;
    ULONG SystemOperations;
    ULONG NetworkOperations;
    ULONG ContextCount;
    MatchedContext *Contexts;
    WhiteListState WhiteList;
    UCHAR RuleFlags;     /* OR of the matched file rules' flags */
    UCHAR ExclusionSeen; /* bit 0: an exclude filter with the username test matched */
} FilterResult;

/* FileObject rule flag bit: the rule is in its baseline phase. */
#define TEXPRT_RULE_FLAG_BASELINE 0x02

/* ------------------------------------------------------------------ lifecycle */

_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI DllInitialize(PUNICODE_STRING RegistryPath);
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI DllUnload(VOID);

/* Registers the monitor; the first monitor to arrive also builds the shared
 * state and loads configuration and policies. A policy that cannot be read
 * does not fail it. Preferred selects the driver object that event log
 * entries name while it is registered. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcSystemsInitializePhase0(PDRIVER_OBJECT DriverObject, BOOLEAN Preferred);
/* Second phase, once the file system can be used; a later caller gets
 * STATUS_SUCCESS at once. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcSystemsInitializePhase1(VOID);
_IRQL_requires_max_(APC_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcNotifyDriverUnload(BOOLEAN Preferred);

/* ------------------------------------------------------------------ filter access */

_IRQL_requires_max_(APC_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcSetMiniFilterPointer(PFLT_FILTER Filter);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API VOID NTAPI TcClearMiniFilterPointer(VOID);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcNotifyFilterAvailabilility(UCHAR Available);
_IRQL_requires_max_(APC_LEVEL)
TEXPRT_API VOID NTAPI TcAcquireFilterLock(VOID);
_IRQL_requires_max_(APC_LEVEL)
TEXPRT_API VOID NTAPI TcReleaseFilterLock(VOID);

/* ------------------------------------------------------------------ state queries
 * Lock-free reads of the live policy masks, for hot paths. The capture
 * queries answer 0 or 1; the protection queries answer their masked bit as
 * it stands (test for non-zero); the notify queries answer the low byte of
 * the mask ANDed with Operation. */

_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsSystemCaptureEnabled(VOID);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsProcessCaptureEnabled(VOID);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsFileSystemCaptureEnabled(VOID);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsRegistryCaptureEnabled(VOID);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsWhitelistMonitorEnabled(VOID);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsNetworkCaptureEnabled(VOID);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsDirectoryProtectionEnabled(VOID);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsRegistryProtectionEnabled(VOID);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsProcessProtectionEnabled(VOID);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsDriverProtectionEnabled(VOID);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsRegKeyNotify(UCHAR Operation);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsRegValNotify(UCHAR Operation);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsDiskRuleNotify(UCHAR Operation);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsNetworkRuleNotify(UCHAR Operation);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API BOOLEAN NTAPI TcIsPerformanceFlagSet(VOID);
/* The head of the library's own string, not a copy; its buffer is null
 * until phase 1 has built it. */
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API PUNICODE_STRING NTAPI TcGetTolvexAgentExeLocation(VOID);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API PUNICODE_STRING NTAPI TcGetSystemRootDeviceString(VOID);

/* ------------------------------------------------------------------ configuration */

/* Re-reads "MaxCacheSize" (MiB) under the service's Parameters key. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcUpdateMaxCacheSize(VOID);

/* ------------------------------------------------------------------ policy */

/* Re-read a policy whose file path stands under Parameters. A missing value
 * or file revokes the policy and returns STATUS_OBJECT_NAME_NOT_FOUND; a bad
 * file leaves the running policy in force. A monitor policy whose file
 * name is the one loaded last is not read again: the agent gives a new
 * policy a new name. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcUpdateEDRPolicies(VOID);
_IRQL_requires_max_(APC_LEVEL)
TEXPRT_API VOID NTAPI TcRevokeEDRPolicies(VOID);
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcUpdateAppBlockingPolicy(VOID);
_IRQL_requires_max_(APC_LEVEL)
TEXPRT_API VOID NTAPI TcRevokeAppBlockingPolicy(VOID);

/* ------------------------------------------------------------------ app blocking */

/* Digest: 32 raw SHA-256 bytes. The status says whether matching ran; the
 * verdict is Result->Matched. */
_IRQL_requires_max_(APC_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeMatchesProcessAppBlockingRuleSet(const UCHAR *Digest, AppBlockingResult *Result);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API UCHAR NTAPI TcIsHBBProcessSHA256SupportEnabled(VOID);

/* ------------------------------------------------------------------ filter event objects */

/* ObjectType must have bit 0 or 1 set. PrefixLength: bytes of the name that
 * name the volume. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeInitializeFileObject(FileObject *Object, PCUNICODE_STRING Name, USHORT PrefixLength,
                                                    ULONG ObjectType, ULONG Attributes, ULONG SizeLow,
                                                    ULONG SizeHigh);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeAddFileEventInfo(FileObject *Object, ULONG TimeLow, ULONG TimeHigh,
                                                ActorInformation *Actor, ULONG ActorSize, USHORT Operation);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeCleanupFileObject(FileObject *Object);
/* ObjectType must have bit 2 or 3 set. ValueName may be null. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeInitializeRegistryObject(RegistryObject *Object, PCUNICODE_STRING KeyName,
                                                        PCUNICODE_STRING ValueName, ULONG ObjectType);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeAddRegistryEventInfo(RegistryObject *Object, ULONG TimeLow, ULONG TimeHigh,
                                                    ActorInformation *Actor, ULONG ActorSize, USHORT Operation);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeCleanupRegistryObject(RegistryObject *Object);
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeInitializeProcessObject(ProcessObject *Object, PCUNICODE_STRING Name);
/* Copies the actor block: the caller's may go once this returns. */
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeAddProcessEventInfo(ProcessObject *Object, ULONG TimeLow, ULONG TimeHigh,
                                                   ActorInformation *Actor, ULONG ActorSize, USHORT Operation);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeCleanupProcessObject(ProcessObject *Object);
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeInitializeSystemObject(SystemObject *Object, PCUNICODE_STRING Name);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeAddSystemEventInfo(SystemObject *Object, ULONG TimeLow, ULONG TimeHigh,
                                                  ActorInformation *Actor, ULONG ActorSize);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeCleanupSystemObject(SystemObject *Object);
/* LocalAddress is required; RemoteAddress may be null. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeInitializeNetworkObject(NetworkObject *Object, USHORT LocalPort, USHORT RemotePort,
                                                       PCUNICODE_STRING LocalAddress,
                                                       PCUNICODE_STRING RemoteAddress);
/* Copies the actor block: the caller's may go once this returns. */
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeAddNetworkEventInfo(NetworkObject *Object, ULONG TimeLow, ULONG TimeHigh,
                                                   ActorInformation *Actor, ULONG ActorSize, USHORT Operation);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeCleanupNetworkObject(NetworkObject *Object);
/* CommandLine and ParentImagePath may be null. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeInitializeWhiteListObject(WhiteListObject *Object, PCUNICODE_STRING ImagePath,
                                                         PCUNICODE_STRING CommandLine,
                                                         PCUNICODE_STRING ParentImagePath);
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeCleanupWhiteListObject(WhiteListObject *Object);
/* Frees Contexts and resets the result for its next match. */
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeCleanupResult(FilterResult *Result);

/* ------------------------------------------------------------------ monitor matching
 * Every rule of the EDR and then the FIM set of the kind is visited, unless
 * State exempts the process from that family; the result is the union of
 * all matching rules. The status says whether matching ran; the verdict is
 * Result->Status. At PASSIVE_LEVEL: the name comparisons go through
 * FsRtlIsNameInExpression and RtlCompareUnicodeString. */

_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeMatchesMonitorFileRuleSet(FileObject *Object, WhiteListState *State,
                                                         FilterResult *Result);
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeMatchesMonitorRegistryRuleSet(RegistryObject *Object, WhiteListState *State,
                                                             FilterResult *Result);
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeMatchesMonitorProcessRuleSet(ProcessObject *Object, WhiteListState *State,
                                                            FilterResult *Result);
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeMatchesMonitorSystemRuleSet(SystemObject *Object, WhiteListState *State,
                                                           FilterResult *Result);
/* The EDR network set only. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeMatchesMonitorNetworkRuleSet(NetworkObject *Object, WhiteListState *State,
                                                            FilterResult *Result);
/* Is any file rule's path at or below \device\mup (a network share)? */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API BOOLEAN NTAPI TcTFeIsMonitorFileRuleSetHasUNCRule(VOID);
/* Clears the baseline flag of the FIM file rules named by the entries (the
 * first file rule carrying each entry's rule id). Size is in bytes. */
_IRQL_requires_max_(APC_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcTFeUnsetBaselineFlagFileRuleSet(MatchedContext *Entries, ULONG Size);
/* Is Name the rule path itself or a path below it? One trailing backslash
 * on either side is ignored. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API BOOLEAN NTAPI TcTFeIsSubPathOfRulePath(PCUNICODE_STRING RulePath, PCUNICODE_STRING Name,
                                                  BOOLEAN IgnoreCase);

/* ------------------------------------------------------------------ process table */

/* The entry of a process, made if there is none yet; null when the process
 * cannot be opened or its image name read. One reference is taken. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API ProcessEntry *NTAPI FindOrCreateProcessEntry(ULONG ProcessId);
/* The entry of a process if there is one; never makes one. One reference. */
_IRQL_requires_max_(APC_LEVEL)
TEXPRT_API ProcessEntry *NTAPI FindProcessEntry(ULONG ProcessId);
/* Gives a reference back. Force: the caller knows the process has ended. */
_IRQL_requires_max_(APC_LEVEL)
TEXPRT_API VOID NTAPI DereferenceProcess(ULONG ProcessId, UCHAR Force);
/* Enters every process that runs already; once, when a monitor starts. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI GetExisitingProcesses(VOID);
/* A kernel handle with all access, or null. The caller closes it. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API HANDLE NTAPI OpenProcess(ULONG ProcessId);
/* The thread's exit status (STATUS_PENDING while it runs), 0 when it cannot
 * be read; Times receives its KERNEL_USER_TIMES (32 bytes), zeroed first. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI GetThreadExitStatus(ULONG ProcessId, ULONG ThreadId, PVOID Times);

/* ------------------------------------------------------------------ actor information */

/* The actor block of the current process: a new pool block the caller frees
 * with ExFreePoolWithTag(block, 0), and its size. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI GetActorInformation(ActorInformation **Actor, PULONG Size);
/* Fills the entry's cached actor block and hands the entry out. Whenever
 * *Entry is set a reference is held, also on a failure status. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI GetActorProcessReference(ULONG ProcessId, ProcessEntry **Entry);
/* ProcessId null: the current process. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API BOOLEAN NTAPI IsActorWhiteListed(PULONG ProcessId);
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API BOOLEAN NTAPI TcMarkProcessAsTrusted(PULONG ProcessId);
/* The process's self-relative security descriptor in a new pool block, or
 * null; *Length must be 0 on entry and receives the size. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API PVOID NTAPI ProcessGetSecurityDescriptor(HANDLE Process, PULONG SecurityInformation, PULONG Length);
/* TOKEN_USER in a new pool block, or null; each optional output is filled
 * when given (Statistics: 56 bytes; a failed 32-bit query gives -1). */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API PVOID NTAPI ProcessGetTokenInformation(HANDLE Token, PVOID Statistics, PULONG Virtualization,
                                                  PVOID *IntegrityLevel, PULONG Elevation, PULONG ElevationType);

/* ------------------------------------------------------------------ event log */

/* Writes one I/O error log packet: MessageId with StringCount insertion
 * strings (%2 onwards; null or empty slots add nothing to the packet) and
 * optional dump data. A packet above 152 bytes is dropped silently. */
_IRQL_requires_max_(DISPATCH_LEVEL)
TEXPRT_API VOID NTAPI TcEventWrite(ULONG MessageId, ULONG FinalStatus, USHORT StringCount, PCWSTR *Strings,
                                   PVOID DumpData, ULONG DumpSize, PVOID IoObject);
/* Writes a monitor's start message with its version text as %2. */
_IRQL_requires_max_(PASSIVE_LEVEL)
TEXPRT_API NTSTATUS NTAPI TcEventWriteDriverStart(ULONG MessageId, PCSZ VersionText, PVOID IoObject);
_IRQL_requires_max_(APC_LEVEL)
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
