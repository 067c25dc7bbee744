// The slice of the NT kernel, HAL and filter manager API that the library
// calls, declared for the Linux host. Names, signatures and layouts follow the
// DDK; where a layout is the host's own (dispatcher objects, ERESOURCE) the
// library only ever passes pointers to it.
//
// This header is included by library code, so it uses nothing but the
// compiler's freestanding headers.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#define NTAPI
#define NTKERNELAPI extern "C"
#define NTHALAPI extern "C"
#define FASTCALL
#define DECLSPEC_NORETURN [[noreturn]]

typedef void VOID, *PVOID;
typedef char CHAR, *PCHAR;
typedef const char *PCSTR, *PCSZ;
typedef uint8_t UCHAR, *PUCHAR, BOOLEAN, *PBOOLEAN, KIRQL, *PKIRQL, KPROCESSOR_MODE;
typedef int16_t SHORT, CSHORT;
typedef uint16_t USHORT, *PUSHORT;
typedef int32_t LONG, *PLONG, NTSTATUS, KPRIORITY;
typedef uint32_t ULONG, *PULONG, ACCESS_MASK, DWORD;
typedef int64_t LONGLONG, LONG64;
typedef uint64_t ULONGLONG, ULONG64, *PULONG64;
typedef uintptr_t ULONG_PTR, *PULONG_PTR, KSPIN_LOCK, *PKSPIN_LOCK, KAFFINITY;
typedef intptr_t LONG_PTR;
typedef size_t SIZE_T, *PSIZE_T;
typedef char16_t WCHAR, *PWCHAR, *PWCH, *PWSTR;
typedef const char16_t *PCWSTR, *PCWCH;
typedef void *HANDLE, **PHANDLE;

#define TRUE 1
#define FALSE 0
#define ANYSIZE_ARRAY 1
#define UNREFERENCED_PARAMETER(P) ((void)(P))
#ifndef FIELD_OFFSET
#define FIELD_OFFSET(Type, Field) ((LONG)offsetof(Type, Field))
#endif
#define CONTAINING_RECORD(Address, Type, Field) \
    ((Type *)((PUCHAR)(Address) - (ULONG_PTR)offsetof(Type, Field)))

// Wide literals: WCHAR is 16 bits on every target; on the host that is
// char16_t, so wide text is written through this macro.
#define WIDE(s) u##s

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID, *LPGUID;
typedef const GUID *LPCGUID;

// ---------------------------------------------------------------- statuses

#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)
#define STATUS_SUCCESS ((NTSTATUS)0x00000000L)
#define STATUS_WAIT_0 ((NTSTATUS)0x00000000L)
#define STATUS_ABANDONED ((NTSTATUS)0x00000080L)
#define STATUS_USER_APC ((NTSTATUS)0x000000C0L)
#define STATUS_ALERTED ((NTSTATUS)0x00000101L)
#define STATUS_TIMEOUT ((NTSTATUS)0x00000102L)
#define STATUS_PENDING ((NTSTATUS)0x00000103L)
#define STATUS_REPARSE ((NTSTATUS)0x00000104L)
#define STATUS_MORE_ENTRIES ((NTSTATUS)0x00000105L)
#define STATUS_BREAKPOINT ((NTSTATUS)0x80000003L)
#define STATUS_BUFFER_OVERFLOW ((NTSTATUS)0x80000005L)
#define STATUS_NO_MORE_FILES ((NTSTATUS)0x80000006L)
#define STATUS_NO_MORE_ENTRIES ((NTSTATUS)0x8000001AL)
#define STATUS_UNSUCCESSFUL ((NTSTATUS)0xC0000001L)
#define STATUS_NOT_IMPLEMENTED ((NTSTATUS)0xC0000002L)
#define STATUS_INFO_LENGTH_MISMATCH ((NTSTATUS)0xC0000004L)
#define STATUS_ACCESS_VIOLATION ((NTSTATUS)0xC0000005L)
#define STATUS_INVALID_HANDLE ((NTSTATUS)0xC0000008L)
#define STATUS_INVALID_PARAMETER ((NTSTATUS)0xC000000DL)
#define STATUS_NO_SUCH_DEVICE ((NTSTATUS)0xC000000EL)
#define STATUS_NO_SUCH_FILE ((NTSTATUS)0xC000000FL)
#define STATUS_INVALID_DEVICE_REQUEST ((NTSTATUS)0xC0000010L)
#define STATUS_END_OF_FILE ((NTSTATUS)0xC0000011L)
#define STATUS_NO_MEMORY ((NTSTATUS)0xC0000017L)
#define STATUS_ACCESS_DENIED ((NTSTATUS)0xC0000022L)
#define STATUS_BUFFER_TOO_SMALL ((NTSTATUS)0xC0000023L)
#define STATUS_OBJECT_TYPE_MISMATCH ((NTSTATUS)0xC0000024L)
#define STATUS_DATA_ERROR ((NTSTATUS)0xC000003EL)
#define STATUS_OBJECT_NAME_INVALID ((NTSTATUS)0xC0000033L)
#define STATUS_OBJECT_NAME_NOT_FOUND ((NTSTATUS)0xC0000034L)
#define STATUS_OBJECT_NAME_COLLISION ((NTSTATUS)0xC0000035L)
#define STATUS_OBJECT_PATH_INVALID ((NTSTATUS)0xC0000039L)
#define STATUS_OBJECT_PATH_NOT_FOUND ((NTSTATUS)0xC000003AL)
#define STATUS_OBJECT_PATH_SYNTAX_BAD ((NTSTATUS)0xC000003BL)
#define STATUS_SHARING_VIOLATION ((NTSTATUS)0xC0000043L)
#define STATUS_DELETE_PENDING ((NTSTATUS)0xC0000056L)
#define STATUS_DISK_FULL ((NTSTATUS)0xC000007FL)
#define STATUS_FILE_INVALID ((NTSTATUS)0xC0000098L)
#define STATUS_INSUFFICIENT_RESOURCES ((NTSTATUS)0xC000009AL)
#define STATUS_FILE_IS_A_DIRECTORY ((NTSTATUS)0xC00000BAL)
#define STATUS_NOT_SUPPORTED ((NTSTATUS)0xC00000BBL)
#define STATUS_INTERNAL_ERROR ((NTSTATUS)0xC00000E5L)
#define STATUS_NOT_A_DIRECTORY ((NTSTATUS)0xC0000103L)
#define STATUS_CANCELLED ((NTSTATUS)0xC0000120L)
#define STATUS_INVALID_DEVICE_STATE ((NTSTATUS)0xC0000184L)
#define STATUS_NOT_FOUND ((NTSTATUS)0xC0000225L)
#define STATUS_OBJECTID_NOT_FOUND ((NTSTATUS)0xC00002F0L)
#define STATUS_FLOAT_INVALID_OPERATION ((NTSTATUS)0xC0000090L)
#define STATUS_ILLEGAL_FLOAT_CONTEXT ((NTSTATUS)0xC000014AL)

// ---------------------------------------------------------------- lists

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY *Flink;
    struct _LIST_ENTRY *Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY *Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

NTKERNELAPI DECLSPEC_NORETURN VOID NTAPI KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR P1, ULONG_PTR P2,
                                                      ULONG_PTR P3, ULONG_PTR P4);
#define FAST_FAIL_CORRUPT_LIST_ENTRY 3
#define KERNEL_SECURITY_CHECK_FAILURE 0x139
// The kernel's list macros check their links and fail fast on corruption.
static inline void RtlFailFast(ULONG Code) { KeBugCheckEx(KERNEL_SECURITY_CHECK_FAILURE, Code, 0, 0, 0); }
static inline void InitializeListHead(PLIST_ENTRY Head) { Head->Flink = Head->Blink = Head; }
static inline BOOLEAN IsListEmpty(const LIST_ENTRY *Head) { return (BOOLEAN)(Head->Flink == Head); }
static inline void InsertTailList(PLIST_ENTRY Head, PLIST_ENTRY Entry) {
    PLIST_ENTRY Blink = Head->Blink;
    if (Blink->Flink != Head) RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    Entry->Flink = Head;
    Entry->Blink = Blink;
    Blink->Flink = Entry;
    Head->Blink = Entry;
}
static inline void InsertHeadList(PLIST_ENTRY Head, PLIST_ENTRY Entry) {
    PLIST_ENTRY Flink = Head->Flink;
    if (Flink->Blink != Head) RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    Entry->Flink = Flink;
    Entry->Blink = Head;
    Flink->Blink = Entry;
    Head->Flink = Entry;
}
static inline BOOLEAN RemoveEntryList(PLIST_ENTRY Entry) {
    PLIST_ENTRY Flink = Entry->Flink, Blink = Entry->Blink;
    if (Flink->Blink != Entry || Blink->Flink != Entry) RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    Blink->Flink = Flink;
    Flink->Blink = Blink;
    return (BOOLEAN)(Flink == Blink);
}
static inline PLIST_ENTRY RemoveHeadList(PLIST_ENTRY Head) {
    PLIST_ENTRY Entry = Head->Flink, Flink = Entry->Flink;
    if (Entry->Blink != Head || Flink->Blink != Entry) RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    Head->Flink = Flink;
    Flink->Blink = Head;
    return Entry;
}

// ---------------------------------------------------------------- strings

typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWCH Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING *PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, ANSI_STRING, *PANSI_STRING, *PSTRING;
typedef const STRING *PCANSI_STRING;

NTKERNELAPI VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING Destination, PCWSTR Source);
NTKERNELAPI VOID NTAPI RtlInitAnsiString(PANSI_STRING Destination, PCSZ Source);
NTKERNELAPI VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
NTKERNELAPI NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
NTKERNELAPI NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);
NTKERNELAPI LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                               BOOLEAN CaseInSensitive);
NTKERNELAPI BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                                BOOLEAN CaseInSensitive);
NTKERNELAPI BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                                 BOOLEAN CaseInSensitive);
NTKERNELAPI NTSTATUS NTAPI RtlUpcaseUnicodeString(PUNICODE_STRING Destination, PCUNICODE_STRING Source,
                                                  BOOLEAN AllocateDestinationString);
NTKERNELAPI WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter);
NTKERNELAPI NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING Destination, PCANSI_STRING Source,
                                                        BOOLEAN AllocateDestinationString);
NTKERNELAPI VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
NTKERNELAPI SIZE_T NTAPI RtlCompareMemory(const VOID *Source1, const VOID *Source2, SIZE_T Length);

// The C runtime routines that ntoskrnl exports. The memory routines come in
// as compiler builtins, which call the host's own where they are not inlined.
extern "C" int _vsnwprintf(WCHAR *Buffer, size_t Count, const WCHAR *Format, va_list Args);
#define RtlCopyMemory(D, S, L) __builtin_memcpy((D), (S), (L))
#define RtlMoveMemory(D, S, L) __builtin_memmove((D), (S), (L))
#define RtlZeroMemory(D, L) __builtin_memset((D), 0, (L))
#define RtlFillMemory(D, L, F) __builtin_memset((D), (F), (L))
#define RtlEqualMemory(A, B, L) (__builtin_memcmp((A), (B), (L)) == 0)

// ---------------------------------------------------------------- file system run-time library

// The DOS wildcards that Win32 writes into the patterns it hands down, next
// to * and ?.
#define DOS_STAR (u'<')
#define DOS_QM (u'>')
#define DOS_DOT (u'"')

NTKERNELAPI VOID NTAPI FsRtlDissectName(UNICODE_STRING Path, PUNICODE_STRING FirstName,
                                        PUNICODE_STRING RemainingName);
NTKERNELAPI BOOLEAN NTAPI FsRtlDoesNameContainWildCards(PUNICODE_STRING Name);
NTKERNELAPI BOOLEAN NTAPI FsRtlIsNameInExpression(PUNICODE_STRING Expression, PUNICODE_STRING Name,
                                                  BOOLEAN IgnoreCase, PWCH UpcaseTable);

// ---------------------------------------------------------------- pool

typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    NonPagedPoolExecute = 0,
    PagedPool = 1,
    NonPagedPoolMustSucceed = 2,
    NonPagedPoolNx = 512,
} POOL_TYPE;

NTKERNELAPI PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
NTKERNELAPI VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);

// ---------------------------------------------------------------- interlocked
// Full-barrier atomic operations, as the kernel's intrinsics are.

static inline LONG InterlockedExchange(volatile LONG *Target, LONG Value) {
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
static inline LONG InterlockedCompareExchange(volatile LONG *Destination, LONG Exchange, LONG Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}
static inline LONG64 InterlockedCompareExchange64(volatile LONG64 *Destination, LONG64 Exchange, LONG64 Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}
static inline LONG InterlockedOr(volatile LONG *Destination, LONG Value) {
    return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST);
}
static inline LONG InterlockedAnd(volatile LONG *Destination, LONG Value) {
    return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST);
}
static inline LONG InterlockedIncrement(volatile LONG *Addend) { return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
static inline LONG InterlockedDecrement(volatile LONG *Addend) { return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
static inline LONG InterlockedExchangeAdd(volatile LONG *Addend, LONG Value) {
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}
static inline PVOID InterlockedExchangePointer(PVOID volatile *Target, PVOID Value) {
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
static inline PVOID InterlockedCompareExchangePointer(PVOID volatile *Destination, PVOID Exchange, PVOID Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}

// ---------------------------------------------------------------- IRQL

#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 31

NTKERNELAPI KIRQL NTAPI KeGetCurrentIrql(VOID);
NTHALAPI KIRQL FASTCALL KfRaiseIrql(KIRQL NewIrql);
NTHALAPI VOID FASTCALL KfLowerIrql(KIRQL NewIrql);
#define KeRaiseIrql(NewIrql, OldIrql) (*(OldIrql) = KfRaiseIrql(NewIrql))
#define KeLowerIrql(NewIrql) KfLowerIrql(NewIrql)
NTKERNELAPI KIRQL NTAPI KeRaiseIrqlToDpcLevel(VOID);

// ---------------------------------------------------------------- objects

typedef struct _OBJECT_TYPE *POBJECT_TYPE;
typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD;
typedef struct _ETHREAD *PETHREAD;
typedef struct _KPROCESS *PKPROCESS, *PRKPROCESS;
typedef struct _EPROCESS *PEPROCESS;
typedef struct _DEVICE_OBJECT DEVICE_OBJECT, *PDEVICE_OBJECT;
typedef struct _FILE_OBJECT *PFILE_OBJECT;

typedef struct _DRIVER_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;
    ULONG Flags;
    PVOID DriverStart;
    ULONG DriverSize;
    PVOID DriverSection;
    PVOID DriverExtension;
    UNICODE_STRING DriverName;
} DRIVER_OBJECT, *PDRIVER_OBJECT;

struct _DEVICE_OBJECT {
    CSHORT Type;
    USHORT Size;
    LONG ReferenceCount;
    PDRIVER_OBJECT DriverObject;
};

#define IO_TYPE_DRIVER 4
#define IO_TYPE_DEVICE 3

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define OBJ_INHERIT 0x00000002L
#define OBJ_PERMANENT 0x00000010L
#define OBJ_EXCLUSIVE 0x00000020L
#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_OPENIF 0x00000080L
#define OBJ_OPENLINK 0x00000100L
#define OBJ_KERNEL_HANDLE 0x00000200L
#define OBJ_FORCE_ACCESS_CHECK 0x00000400L

#define InitializeObjectAttributes(p, n, a, r, s)  \
    do {                                           \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);   \
        (p)->RootDirectory = (r);                  \
        (p)->Attributes = (a);                     \
        (p)->ObjectName = (n);                     \
        (p)->SecurityDescriptor = (s);             \
        (p)->SecurityQualityOfService = nullptr;   \
    } while (0)

typedef enum _MODE { KernelMode, UserMode } MODE;

NTKERNELAPI NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess,
                                                     POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                                                     PVOID *Object, PVOID HandleInformation);
NTKERNELAPI LONG_PTR FASTCALL ObfReferenceObject(PVOID Object);
NTKERNELAPI LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object);
#define ObReferenceObject(o) ObfReferenceObject(o)
#define ObDereferenceObject(o) ObfDereferenceObject(o)
NTKERNELAPI NTSTATUS NTAPI ZwClose(HANDLE Handle);

extern "C" POBJECT_TYPE *PsThreadType;
extern "C" POBJECT_TYPE *PsProcessType;

// ---------------------------------------------------------------- dispatcher objects
//
// Host layouts. Every waitable object starts with this header so that the
// host's wait routines can treat them alike.

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Absolute;
    UCHAR Size;
    UCHAR Inserted;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER;

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _TIMER_TYPE { NotificationTimer, SynchronizationTimer } TIMER_TYPE;
typedef enum _KWAIT_REASON { Executive = 0, UserRequest = 6, WrQueue = 15 } KWAIT_REASON;
typedef enum _WAIT_TYPE { WaitAll, WaitAny } WAIT_TYPE;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

struct _KDPC;
typedef VOID NTAPI KDEFERRED_ROUTINE(struct _KDPC *Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                                     PVOID SystemArgument2);
typedef KDEFERRED_ROUTINE *PKDEFERRED_ROUTINE;

typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    USHORT Number;
    LIST_ENTRY DpcListEntry;
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    PVOID DpcData;
} KDPC, *PKDPC, *PRKDPC;

typedef struct _KTIMER {
    DISPATCHER_HEADER Header;
    LONGLONG DueTime;  // absolute system time, 100 ns units
    LIST_ENTRY TimerListEntry;
    PKDPC Dpc;
    LONG Period;
} KTIMER, *PKTIMER;

typedef struct _KQUEUE {
    DISPATCHER_HEADER Header;
    LIST_ENTRY EntryListHead;
    ULONG CurrentCount;
    ULONG MaximumCount;
    LIST_ENTRY ThreadListHead;
    UCHAR RunDown;
} KQUEUE, *PKQUEUE, *PRKQUEUE;

// A fast mutex raises to APC_LEVEL while it is held.
typedef struct _FAST_MUTEX {
    LONG Count;  // 1 free, 0 owned; as in the kernel's own layout
    PKTHREAD Owner;
    ULONG Contention;
    KEVENT Event;
    ULONG OldIrql;
    ULONG VerifierRank;          // 0, or the rank HkVerifierRankLock gave it
    const char *VerifierName;
} FAST_MUTEX, *PFAST_MUTEX;

// ERESOURCE on the host: a zero-filled one is a valid free lock, as the
// library relies on. Fields are manipulated atomically by the host.
typedef struct _ERESOURCE {
    LONG State;             // bit 31: owned exclusive; low bits: shared owner count
    LONG ExclusiveWaiters;  // threads waiting for exclusive access
    PKTHREAD Owner;         // exclusive owner
    LONG Recursion;         // exclusive recursion depth
    ULONG Generation;       // bumped on every release, for waiters
    ULONG VerifierRank;     // 0, or the rank HkVerifierRankLock gave it
    const char *VerifierName;
} ERESOURCE, *PERESOURCE;

typedef struct _KFLOATING_SAVE {
    ULONG Dummy[8];
} KFLOATING_SAVE, *PKFLOATING_SAVE;

typedef struct _KAPC_STATE {
    LIST_ENTRY ApcListHead[2];
    PKPROCESS Process;
    UCHAR InProgressFlags;
    BOOLEAN KernelApcPending;
    BOOLEAN UserApcPendingAll;
} KAPC_STATE, *PKAPC_STATE, *PRKAPC_STATE;

NTKERNELAPI VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
NTKERNELAPI LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
NTKERNELAPI VOID NTAPI KeClearEvent(PRKEVENT Event);
NTKERNELAPI LONG NTAPI KeResetEvent(PRKEVENT Event);
NTKERNELAPI LONG NTAPI KeReadStateEvent(PRKEVENT Event);
NTKERNELAPI NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                                 BOOLEAN Alertable, PLARGE_INTEGER Timeout);
typedef struct _KWAIT_BLOCK *PKWAIT_BLOCK;
#define THREAD_WAIT_OBJECTS 3
#define MAXIMUM_WAIT_OBJECTS 64
NTKERNELAPI NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType,
                                                    KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                                    BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                                    PKWAIT_BLOCK WaitBlockArray);
NTKERNELAPI NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                                  PLARGE_INTEGER Interval);


NTKERNELAPI VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
NTKERNELAPI VOID NTAPI KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql);
NTKERNELAPI VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
NTKERNELAPI VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
NTKERNELAPI VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);

NTKERNELAPI VOID NTAPI ExInitializeFastMutex(PFAST_MUTEX FastMutex);
NTKERNELAPI VOID FASTCALL ExAcquireFastMutex(PFAST_MUTEX FastMutex);
NTKERNELAPI VOID FASTCALL ExReleaseFastMutex(PFAST_MUTEX FastMutex);
NTKERNELAPI BOOLEAN FASTCALL ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex);

NTKERNELAPI NTSTATUS NTAPI ExInitializeResourceLite(PERESOURCE Resource);
NTKERNELAPI NTSTATUS NTAPI ExDeleteResourceLite(PERESOURCE Resource);
NTKERNELAPI BOOLEAN NTAPI ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait);
NTKERNELAPI BOOLEAN NTAPI ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait);
NTKERNELAPI VOID FASTCALL ExReleaseResourceLite(PERESOURCE Resource);
NTKERNELAPI BOOLEAN NTAPI ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource);
NTKERNELAPI ULONG NTAPI ExIsResourceAcquiredSharedLite(PERESOURCE Resource);

NTKERNELAPI VOID NTAPI KeEnterCriticalRegion(VOID);
NTKERNELAPI VOID NTAPI KeLeaveCriticalRegion(VOID);
NTKERNELAPI BOOLEAN NTAPI KeAreApcsDisabled(VOID);

NTKERNELAPI VOID NTAPI KeInitializeTimer(PKTIMER Timer);
NTKERNELAPI VOID NTAPI KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type);
NTKERNELAPI BOOLEAN NTAPI KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
NTKERNELAPI BOOLEAN NTAPI KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc);
NTKERNELAPI BOOLEAN NTAPI KeCancelTimer(PKTIMER Timer);
NTKERNELAPI BOOLEAN NTAPI KeReadStateTimer(PKTIMER Timer);

NTKERNELAPI VOID NTAPI KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
NTKERNELAPI BOOLEAN NTAPI KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2);
NTKERNELAPI BOOLEAN NTAPI KeRemoveQueueDpc(PRKDPC Dpc);
NTKERNELAPI VOID NTAPI KeFlushQueuedDpcs(VOID);

NTKERNELAPI VOID NTAPI KeInitializeQueue(PRKQUEUE Queue, ULONG Count);
NTKERNELAPI LONG NTAPI KeInsertQueue(PRKQUEUE Queue, PLIST_ENTRY Entry);
NTKERNELAPI LONG NTAPI KeInsertHeadQueue(PRKQUEUE Queue, PLIST_ENTRY Entry);
NTKERNELAPI PLIST_ENTRY NTAPI KeRemoveQueue(PRKQUEUE Queue, KPROCESSOR_MODE WaitMode, PLARGE_INTEGER Timeout);
NTKERNELAPI PLIST_ENTRY NTAPI KeRundownQueue(PRKQUEUE Queue);
NTKERNELAPI LONG NTAPI KeReadStateQueue(PRKQUEUE Queue);

NTKERNELAPI NTSTATUS NTAPI KeSaveFloatingPointState(PKFLOATING_SAVE FloatSave);
NTKERNELAPI NTSTATUS NTAPI KeRestoreFloatingPointState(PKFLOATING_SAVE FloatSave);

NTKERNELAPI PKTHREAD NTAPI KeGetCurrentThread(VOID);
NTKERNELAPI KPRIORITY NTAPI KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority);
NTKERNELAPI LONG NTAPI KeSetBasePriorityThread(PKTHREAD Thread, LONG Increment);
NTKERNELAPI VOID NTAPI KeStackAttachProcess(PRKPROCESS Process, PRKAPC_STATE ApcState);
NTKERNELAPI VOID NTAPI KeUnstackDetachProcess(PRKAPC_STATE ApcState);

// ---------------------------------------------------------------- time

NTKERNELAPI VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
NTKERNELAPI ULONGLONG NTAPI KeQueryInterruptTime(VOID);
NTKERNELAPI VOID NTAPI ExSystemTimeToLocalTime(PLARGE_INTEGER SystemTime, PLARGE_INTEGER LocalTime);

// ---------------------------------------------------------------- threads and work items

typedef VOID NTAPI KSTART_ROUTINE(PVOID StartContext);
typedef KSTART_ROUTINE *PKSTART_ROUTINE;
typedef struct _CLIENT_ID {
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

#define THREAD_ALL_ACCESS 0x1F03FF
#define THREAD_QUERY_INFORMATION 0x0040
#define THREAD_SET_INFORMATION 0x0020
#define SYNCHRONIZE 0x00100000L

NTKERNELAPI NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess,
                                                POBJECT_ATTRIBUTES ObjectAttributes, HANDLE ProcessHandle,
                                                PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                                                PVOID StartContext);
NTKERNELAPI DECLSPEC_NORETURN NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus);
NTKERNELAPI HANDLE NTAPI PsGetCurrentThreadId(VOID);
NTKERNELAPI HANDLE NTAPI PsGetCurrentProcessId(VOID);
NTKERNELAPI PEPROCESS NTAPI PsGetCurrentProcess(VOID);
#define IoGetCurrentProcess PsGetCurrentProcess

typedef enum _WORK_QUEUE_TYPE { CriticalWorkQueue, DelayedWorkQueue, HyperCriticalWorkQueue } WORK_QUEUE_TYPE;
typedef VOID NTAPI WORKER_THREAD_ROUTINE(PVOID Parameter);
typedef WORKER_THREAD_ROUTINE *PWORKER_THREAD_ROUTINE;
typedef struct _WORK_QUEUE_ITEM {
    LIST_ENTRY List;
    PWORKER_THREAD_ROUTINE WorkerRoutine;
    PVOID Parameter;
} WORK_QUEUE_ITEM, *PWORK_QUEUE_ITEM;
#define ExInitializeWorkItem(Item, Routine, Context) \
    do {                                             \
        (Item)->WorkerRoutine = (Routine);           \
        (Item)->Parameter = (Context);               \
        (Item)->List.Flink = nullptr;                \
    } while (0)
NTKERNELAPI VOID NTAPI ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType);

// ---------------------------------------------------------------- system routines

NTKERNELAPI PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);

typedef struct _OSVERSIONINFOW {
    ULONG dwOSVersionInfoSize;
    ULONG dwMajorVersion;
    ULONG dwMinorVersion;
    ULONG dwBuildNumber;
    ULONG dwPlatformId;
    WCHAR szCSDVersion[128];
} RTL_OSVERSIONINFOW, *PRTL_OSVERSIONINFOW;
NTKERNELAPI NTSTATUS NTAPI RtlGetVersion(PRTL_OSVERSIONINFOW VersionInformation);

// ---------------------------------------------------------------- registry

#define KEY_QUERY_VALUE 0x0001
#define KEY_SET_VALUE 0x0002
#define KEY_CREATE_SUB_KEY 0x0004
#define KEY_ENUMERATE_SUB_KEYS 0x0008
#define KEY_NOTIFY 0x0010
#define KEY_READ 0x20019
#define KEY_WRITE 0x20006
#define KEY_ALL_ACCESS 0xF003F

#define REG_NONE 0
#define REG_SZ 1
#define REG_EXPAND_SZ 2
#define REG_BINARY 3
#define REG_DWORD 4
#define REG_MULTI_SZ 7
#define REG_QWORD 11

#define REG_OPTION_NON_VOLATILE 0
#define REG_OPTION_VOLATILE 1
#define REG_CREATED_NEW_KEY 1
#define REG_OPENED_EXISTING_KEY 2

typedef enum _KEY_VALUE_INFORMATION_CLASS {
    KeyValueBasicInformation,
    KeyValueFullInformation,
    KeyValuePartialInformation,
} KEY_VALUE_INFORMATION_CLASS;

typedef struct _KEY_VALUE_PARTIAL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataLength;
    UCHAR Data[1];
} KEY_VALUE_PARTIAL_INFORMATION, *PKEY_VALUE_PARTIAL_INFORMATION;

typedef struct _KEY_VALUE_BASIC_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG NameLength;
    WCHAR Name[1];
} KEY_VALUE_BASIC_INFORMATION, *PKEY_VALUE_BASIC_INFORMATION;

typedef struct _KEY_VALUE_FULL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataOffset;
    ULONG DataLength;
    ULONG NameLength;
    WCHAR Name[1];
} KEY_VALUE_FULL_INFORMATION, *PKEY_VALUE_FULL_INFORMATION;

NTKERNELAPI NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess,
                                     POBJECT_ATTRIBUTES ObjectAttributes);
NTKERNELAPI NTSTATUS NTAPI ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess,
                                       POBJECT_ATTRIBUTES ObjectAttributes, ULONG TitleIndex,
                                       PUNICODE_STRING Class, ULONG CreateOptions, PULONG Disposition);
NTKERNELAPI NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                                           KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                           PVOID KeyValueInformation, ULONG Length, PULONG ResultLength);
NTKERNELAPI NTSTATUS NTAPI ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex,
                                         ULONG Type, PVOID Data, ULONG DataSize);
NTKERNELAPI NTSTATUS NTAPI ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName);

// ---------------------------------------------------------------- event log

typedef struct _IO_ERROR_LOG_PACKET {
    UCHAR MajorFunctionCode;
    UCHAR RetryCount;
    USHORT DumpDataSize;
    USHORT NumberOfStrings;
    USHORT StringOffset;
    USHORT EventCategory;
    NTSTATUS ErrorCode;
    ULONG UniqueErrorValue;
    NTSTATUS FinalStatus;
    ULONG SequenceNumber;
    ULONG IoControlCode;
    LARGE_INTEGER DeviceOffset;
    ULONG DumpData[1];
} IO_ERROR_LOG_PACKET, *PIO_ERROR_LOG_PACKET;

// The 32-bit system's limit; the host plays a 32-bit Windows.
#define ERROR_LOG_MAXIMUM_SIZE 152

NTKERNELAPI PVOID NTAPI IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize);
NTKERNELAPI VOID NTAPI IoWriteErrorLogEntry(PVOID ElEntry);
NTKERNELAPI VOID NTAPI IoFreeErrorLogEntry(PVOID ElEntry);

// ---------------------------------------------------------------- tracing (bound at run time)

typedef ULONGLONG REGHANDLE, *PREGHANDLE;
typedef VOID NTAPI ETWENABLECALLBACK(LPCGUID SourceId, ULONG ControlCode, UCHAR Level,
                                     ULONGLONG MatchAnyKeyword, ULONGLONG MatchAllKeyword,
                                     PVOID FilterData, PVOID CallbackContext);
typedef ETWENABLECALLBACK *PETWENABLECALLBACK;
typedef NTSTATUS NTAPI ETW_REGISTER_ROUTINE(LPCGUID ProviderId, PETWENABLECALLBACK EnableCallback,
                                            PVOID CallbackContext, PREGHANDLE RegHandle);
typedef NTSTATUS NTAPI ETW_UNREGISTER_ROUTINE(REGHANDLE RegHandle);
typedef NTSTATUS NTAPI ETW_WRITE_STRING_ROUTINE(REGHANDLE RegHandle, UCHAR Level, ULONGLONG Keyword,
                                                LPCGUID ActivityId, PCWSTR String);

// ---------------------------------------------------------------- files and the object namespace
//
// The I/O manager's file routines, the object manager's symbolic links and
// the structures they fill in, as the DDK declares them.

#define STATUS_INVALID_INFO_CLASS ((NTSTATUS)0xC0000003L)
#define STATUS_NOT_SAME_DEVICE ((NTSTATUS)0xC00000D4L)
#define STATUS_DIRECTORY_NOT_EMPTY ((NTSTATUS)0xC0000101L)
#define STATUS_CANNOT_DELETE ((NTSTATUS)0xC0000121L)
#define STATUS_VOLUME_DISMOUNTED ((NTSTATUS)0xC000026EL)

typedef char CCHAR;
typedef ULONG DEVICE_TYPE;

#define DELETE 0x00010000L
#define READ_CONTROL 0x00020000L
#define WRITE_DAC 0x00040000L
#define WRITE_OWNER 0x00080000L
#define STANDARD_RIGHTS_REQUIRED 0x000F0000L
#define STANDARD_RIGHTS_READ READ_CONTROL
#define STANDARD_RIGHTS_WRITE READ_CONTROL
#define STANDARD_RIGHTS_EXECUTE READ_CONTROL
#define STANDARD_RIGHTS_ALL 0x001F0000L
#define SPECIFIC_RIGHTS_ALL 0x0000FFFFL
#define ACCESS_SYSTEM_SECURITY 0x01000000L
#define MAXIMUM_ALLOWED 0x02000000L
#define GENERIC_READ 0x80000000L
#define GENERIC_WRITE 0x40000000L
#define GENERIC_EXECUTE 0x20000000L
#define GENERIC_ALL 0x10000000L

#define FILE_READ_DATA 0x00000001
#define FILE_LIST_DIRECTORY 0x00000001
#define FILE_WRITE_DATA 0x00000002
#define FILE_ADD_FILE 0x00000002
#define FILE_APPEND_DATA 0x00000004
#define FILE_ADD_SUBDIRECTORY 0x00000004
#define FILE_READ_EA 0x00000008
#define FILE_WRITE_EA 0x00000010
#define FILE_EXECUTE 0x00000020
#define FILE_TRAVERSE 0x00000020
#define FILE_DELETE_CHILD 0x00000040
#define FILE_READ_ATTRIBUTES 0x00000080
#define FILE_WRITE_ATTRIBUTES 0x00000100
#define FILE_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x1FF)
#define FILE_GENERIC_READ (STANDARD_RIGHTS_READ | FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA | SYNCHRONIZE)
#define FILE_GENERIC_WRITE                                                                              \
    (STANDARD_RIGHTS_WRITE | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA | FILE_APPEND_DATA | \
     SYNCHRONIZE)
#define FILE_GENERIC_EXECUTE (STANDARD_RIGHTS_EXECUTE | FILE_READ_ATTRIBUTES | FILE_EXECUTE | SYNCHRONIZE)

#define FILE_SHARE_READ 0x00000001
#define FILE_SHARE_WRITE 0x00000002
#define FILE_SHARE_DELETE 0x00000004
#define FILE_SHARE_VALID_FLAGS 0x00000007

#define FILE_ATTRIBUTE_READONLY 0x00000001
#define FILE_ATTRIBUTE_HIDDEN 0x00000002
#define FILE_ATTRIBUTE_SYSTEM 0x00000004
#define FILE_ATTRIBUTE_DIRECTORY 0x00000010
#define FILE_ATTRIBUTE_ARCHIVE 0x00000020
#define FILE_ATTRIBUTE_DEVICE 0x00000040
#define FILE_ATTRIBUTE_NORMAL 0x00000080
#define FILE_ATTRIBUTE_TEMPORARY 0x00000100
#define FILE_ATTRIBUTE_SPARSE_FILE 0x00000200
#define FILE_ATTRIBUTE_REPARSE_POINT 0x00000400
#define FILE_ATTRIBUTE_COMPRESSED 0x00000800
#define FILE_ATTRIBUTE_OFFLINE 0x00001000
#define FILE_ATTRIBUTE_NOT_CONTENT_INDEXED 0x00002000
#define FILE_ATTRIBUTE_ENCRYPTED 0x00004000
#define FILE_ATTRIBUTE_VALID_FLAGS 0x00007fb7
#define FILE_ATTRIBUTE_VALID_SET_FLAGS 0x000031a7

// CreateDisposition
#define FILE_SUPERSEDE 0x00000000
#define FILE_OPEN 0x00000001
#define FILE_CREATE 0x00000002
#define FILE_OPEN_IF 0x00000003
#define FILE_OVERWRITE 0x00000004
#define FILE_OVERWRITE_IF 0x00000005
#define FILE_MAXIMUM_DISPOSITION 0x00000005

// CreateOptions
#define FILE_DIRECTORY_FILE 0x00000001
#define FILE_WRITE_THROUGH 0x00000002
#define FILE_SEQUENTIAL_ONLY 0x00000004
#define FILE_NO_INTERMEDIATE_BUFFERING 0x00000008
#define FILE_SYNCHRONOUS_IO_ALERT 0x00000010
#define FILE_SYNCHRONOUS_IO_NONALERT 0x00000020
#define FILE_NON_DIRECTORY_FILE 0x00000040
#define FILE_CREATE_TREE_CONNECTION 0x00000080
#define FILE_COMPLETE_IF_OPLOCKED 0x00000100
#define FILE_NO_EA_KNOWLEDGE 0x00000200
#define FILE_OPEN_REMOTE_INSTANCE 0x00000400
#define FILE_RANDOM_ACCESS 0x00000800
#define FILE_DELETE_ON_CLOSE 0x00001000
#define FILE_OPEN_BY_FILE_ID 0x00002000
#define FILE_OPEN_FOR_BACKUP_INTENT 0x00004000
#define FILE_NO_COMPRESSION 0x00008000
#define FILE_RESERVE_OPFILTER 0x00100000
#define FILE_OPEN_REPARSE_POINT 0x00200000
#define FILE_OPEN_NO_RECALL 0x00400000
#define FILE_OPEN_FOR_FREE_SPACE_QUERY 0x00800000
#define FILE_VALID_OPTION_FLAGS 0x00ffffff

// IO_STATUS_BLOCK.Information after a create
#define FILE_SUPERSEDED 0x00000000
#define FILE_OPENED 0x00000001
#define FILE_CREATED 0x00000002
#define FILE_OVERWRITTEN 0x00000003
#define FILE_EXISTS 0x00000004
#define FILE_DOES_NOT_EXIST 0x00000005

// ByteOffset.LowPart values (HighPart -1) for ZwReadFile / ZwWriteFile
#define FILE_USE_FILE_POINTER_POSITION 0xfffffffe
#define FILE_WRITE_TO_END_OF_FILE 0xffffffff

#define FILE_DEVICE_CD_ROM 0x00000002
#define FILE_DEVICE_CD_ROM_FILE_SYSTEM 0x00000003
#define FILE_DEVICE_DISK 0x00000007
#define FILE_DEVICE_DISK_FILE_SYSTEM 0x00000008
#define FILE_DEVICE_FILE_SYSTEM 0x00000009
#define FILE_DEVICE_NETWORK 0x00000012
#define FILE_DEVICE_NETWORK_FILE_SYSTEM 0x00000014
#define FILE_DEVICE_UNKNOWN 0x00000022
#define FILE_DEVICE_VIRTUAL_DISK 0x00000024

// Device characteristics
#define FILE_REMOVABLE_MEDIA 0x00000001
#define FILE_READ_ONLY_DEVICE 0x00000002
#define FILE_FLOPPY_DISKETTE 0x00000004
#define FILE_WRITE_ONCE_MEDIA 0x00000008
#define FILE_REMOTE_DEVICE 0x00000010
#define FILE_DEVICE_IS_MOUNTED 0x00000020
#define FILE_VIRTUAL_VOLUME 0x00000040

// FILE_FS_ATTRIBUTE_INFORMATION.FileSystemAttributes
#define FILE_CASE_SENSITIVE_SEARCH 0x00000001
#define FILE_CASE_PRESERVED_NAMES 0x00000002
#define FILE_UNICODE_ON_DISK 0x00000004
#define FILE_PERSISTENT_ACLS 0x00000008

#define SYMBOLIC_LINK_QUERY 0x0001
#define SYMBOLIC_LINK_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | 0x1)

typedef struct _IO_STATUS_BLOCK {
    union {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef VOID(NTAPI *PIO_APC_ROUTINE)(PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG Reserved);

typedef enum _FILE_INFORMATION_CLASS {
    FileDirectoryInformation = 1,
    FileFullDirectoryInformation,
    FileBothDirectoryInformation,
    FileBasicInformation,
    FileStandardInformation,
    FileInternalInformation,
    FileEaInformation,
    FileAccessInformation,
    FileNameInformation,
    FileRenameInformation,
    FileLinkInformation,
    FileNamesInformation,
    FileDispositionInformation,
    FilePositionInformation,
    FileFullEaInformation,
    FileModeInformation,
    FileAlignmentInformation,
    FileAllInformation,
    FileAllocationInformation,
    FileEndOfFileInformation,
    FileAlternateNameInformation,
    FileStreamInformation,
    FilePipeInformation,
    FilePipeLocalInformation,
    FilePipeRemoteInformation,
    FileMailslotQueryInformation,
    FileMailslotSetInformation,
    FileCompressionInformation,
    FileObjectIdInformation,
    FileCompletionInformation,
    FileMoveClusterInformation,
    FileQuotaInformation,
    FileReparsePointInformation,
    FileNetworkOpenInformation,
    FileAttributeTagInformation,
    FileTrackingInformation,
    FileIdBothDirectoryInformation,
    FileIdFullDirectoryInformation,
    FileValidDataLengthInformation,
    FileShortNameInformation,
    FileMaximumInformation
} FILE_INFORMATION_CLASS, *PFILE_INFORMATION_CLASS;

typedef enum _FSINFOCLASS {
    FileFsVolumeInformation = 1,
    FileFsLabelInformation,
    FileFsSizeInformation,
    FileFsDeviceInformation,
    FileFsAttributeInformation,
    FileFsControlInformation,
    FileFsFullSizeInformation,
    FileFsObjectIdInformation,
    FileFsDriverPathInformation,
    FileFsVolumeFlagsInformation,
    FileFsMaximumInformation
} FS_INFORMATION_CLASS, *PFS_INFORMATION_CLASS;

typedef struct _FILE_BASIC_INFORMATION {
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    ULONG FileAttributes;
} FILE_BASIC_INFORMATION, *PFILE_BASIC_INFORMATION;

typedef struct _FILE_STANDARD_INFORMATION {
    LARGE_INTEGER AllocationSize;
    LARGE_INTEGER EndOfFile;
    ULONG NumberOfLinks;
    BOOLEAN DeletePending;
    BOOLEAN Directory;
} FILE_STANDARD_INFORMATION, *PFILE_STANDARD_INFORMATION;

typedef struct _FILE_POSITION_INFORMATION {
    LARGE_INTEGER CurrentByteOffset;
} FILE_POSITION_INFORMATION, *PFILE_POSITION_INFORMATION;

typedef struct _FILE_NAME_INFORMATION {
    ULONG FileNameLength;
    WCHAR FileName[1];
} FILE_NAME_INFORMATION, *PFILE_NAME_INFORMATION;

typedef struct _FILE_END_OF_FILE_INFORMATION {
    LARGE_INTEGER EndOfFile;
} FILE_END_OF_FILE_INFORMATION, *PFILE_END_OF_FILE_INFORMATION;

typedef struct _FILE_ALLOCATION_INFORMATION {
    LARGE_INTEGER AllocationSize;
} FILE_ALLOCATION_INFORMATION, *PFILE_ALLOCATION_INFORMATION;

typedef struct _FILE_DISPOSITION_INFORMATION {
    BOOLEAN DeleteFile;
} FILE_DISPOSITION_INFORMATION, *PFILE_DISPOSITION_INFORMATION;

typedef struct _FILE_RENAME_INFORMATION {
    BOOLEAN ReplaceIfExists;
    HANDLE RootDirectory;
    ULONG FileNameLength;
    WCHAR FileName[1];
} FILE_RENAME_INFORMATION, *PFILE_RENAME_INFORMATION;

typedef struct _FILE_DIRECTORY_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER EndOfFile;
    LARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG FileNameLength;
    WCHAR FileName[1];
} FILE_DIRECTORY_INFORMATION, *PFILE_DIRECTORY_INFORMATION;

typedef struct _FILE_FULL_DIR_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER EndOfFile;
    LARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG FileNameLength;
    ULONG EaSize;
    WCHAR FileName[1];
} FILE_FULL_DIR_INFORMATION, *PFILE_FULL_DIR_INFORMATION;

typedef struct _FILE_BOTH_DIR_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER EndOfFile;
    LARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG FileNameLength;
    ULONG EaSize;
    CCHAR ShortNameLength;
    WCHAR ShortName[12];
    WCHAR FileName[1];
} FILE_BOTH_DIR_INFORMATION, *PFILE_BOTH_DIR_INFORMATION;

typedef struct _FILE_NAMES_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    ULONG FileNameLength;
    WCHAR FileName[1];
} FILE_NAMES_INFORMATION, *PFILE_NAMES_INFORMATION;

typedef struct _FILE_FS_SIZE_INFORMATION {
    LARGE_INTEGER TotalAllocationUnits;
    LARGE_INTEGER AvailableAllocationUnits;
    ULONG SectorsPerAllocationUnit;
    ULONG BytesPerSector;
} FILE_FS_SIZE_INFORMATION, *PFILE_FS_SIZE_INFORMATION;

typedef struct _FILE_FS_FULL_SIZE_INFORMATION {
    LARGE_INTEGER TotalAllocationUnits;
    LARGE_INTEGER CallerAvailableAllocationUnits;
    LARGE_INTEGER ActualAvailableAllocationUnits;
    ULONG SectorsPerAllocationUnit;
    ULONG BytesPerSector;
} FILE_FS_FULL_SIZE_INFORMATION, *PFILE_FS_FULL_SIZE_INFORMATION;

typedef struct _FILE_FS_DEVICE_INFORMATION {
    DEVICE_TYPE DeviceType;
    ULONG Characteristics;
} FILE_FS_DEVICE_INFORMATION, *PFILE_FS_DEVICE_INFORMATION;

typedef struct _FILE_FS_ATTRIBUTE_INFORMATION {
    ULONG FileSystemAttributes;
    ULONG MaximumComponentNameLength;
    ULONG FileSystemNameLength;
    WCHAR FileSystemName[1];
} FILE_FS_ATTRIBUTE_INFORMATION, *PFILE_FS_ATTRIBUTE_INFORMATION;

NTKERNELAPI NTSTATUS NTAPI ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                                        POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                                        PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                                        ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                                        ULONG EaLength);
NTKERNELAPI NTSTATUS NTAPI ZwOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                                      POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                                      ULONG ShareAccess, ULONG OpenOptions);
NTKERNELAPI NTSTATUS NTAPI ZwReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                      PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,
                                      ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key);
NTKERNELAPI NTSTATUS NTAPI ZwWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                       PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,
                                       ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key);
NTKERNELAPI NTSTATUS NTAPI ZwQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                                                  PVOID FileInformation, ULONG Length,
                                                  FILE_INFORMATION_CLASS FileInformationClass);
NTKERNELAPI NTSTATUS NTAPI ZwSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                                                PVOID FileInformation, ULONG Length,
                                                FILE_INFORMATION_CLASS FileInformationClass);
NTKERNELAPI NTSTATUS NTAPI ZwQueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                                PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock,
                                                PVOID FileInformation, ULONG Length,
                                                FILE_INFORMATION_CLASS FileInformationClass,
                                                BOOLEAN ReturnSingleEntry, PUNICODE_STRING FileName,
                                                BOOLEAN RestartScan);
NTKERNELAPI NTSTATUS NTAPI ZwQueryVolumeInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                                                        PVOID FsInformation, ULONG Length,
                                                        FS_INFORMATION_CLASS FsInformationClass);
NTKERNELAPI NTSTATUS NTAPI ZwFlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock);
NTKERNELAPI NTSTATUS NTAPI ZwDeleteFile(POBJECT_ATTRIBUTES ObjectAttributes);
NTKERNELAPI NTSTATUS NTAPI ZwOpenSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                                    POBJECT_ATTRIBUTES ObjectAttributes);
NTKERNELAPI NTSTATUS NTAPI ZwQuerySymbolicLinkObject(HANDLE LinkHandle, PUNICODE_STRING LinkTarget,
                                                     PULONG ReturnedLength);

// ---------------------------------------------------------------- filter manager

typedef struct _FLT_FILTER *PFLT_FILTER;
typedef struct _FLT_INSTANCE *PFLT_INSTANCE;

// ---------------------------------------------------------------- generic tables
//
// The run-time library's splay-tree tables, as the DDK declares them. The
// table allocates each element's node through the caller's allocate
// routine: its own links first, the caller's data after them.

typedef ULONG CLONG;

typedef enum _TABLE_SEARCH_RESULT {
    TableEmptyTree,
    TableFoundNode,
    TableInsertAsLeft,
    TableInsertAsRight
} TABLE_SEARCH_RESULT;

typedef enum _RTL_GENERIC_COMPARE_RESULTS {
    GenericLessThan,
    GenericGreaterThan,
    GenericEqual
} RTL_GENERIC_COMPARE_RESULTS;

typedef struct _RTL_SPLAY_LINKS {
    struct _RTL_SPLAY_LINKS *Parent;
    struct _RTL_SPLAY_LINKS *LeftChild;
    struct _RTL_SPLAY_LINKS *RightChild;
} RTL_SPLAY_LINKS, *PRTL_SPLAY_LINKS;

struct _RTL_GENERIC_TABLE;
typedef RTL_GENERIC_COMPARE_RESULTS NTAPI RTL_GENERIC_COMPARE_ROUTINE(struct _RTL_GENERIC_TABLE *Table,
                                                                      PVOID FirstStruct, PVOID SecondStruct);
typedef RTL_GENERIC_COMPARE_ROUTINE *PRTL_GENERIC_COMPARE_ROUTINE;
typedef PVOID NTAPI RTL_GENERIC_ALLOCATE_ROUTINE(struct _RTL_GENERIC_TABLE *Table, CLONG ByteSize);
typedef RTL_GENERIC_ALLOCATE_ROUTINE *PRTL_GENERIC_ALLOCATE_ROUTINE;
typedef VOID NTAPI RTL_GENERIC_FREE_ROUTINE(struct _RTL_GENERIC_TABLE *Table, PVOID Buffer);
typedef RTL_GENERIC_FREE_ROUTINE *PRTL_GENERIC_FREE_ROUTINE;

typedef struct _RTL_GENERIC_TABLE {
    PRTL_SPLAY_LINKS TableRoot;
    LIST_ENTRY InsertOrderList;
    PLIST_ENTRY OrderedPointer;
    ULONG WhichOrderedElement;
    ULONG NumberGenericTableElements;
    PRTL_GENERIC_COMPARE_ROUTINE CompareRoutine;
    PRTL_GENERIC_ALLOCATE_ROUTINE AllocateRoutine;
    PRTL_GENERIC_FREE_ROUTINE FreeRoutine;
    PVOID TableContext;
} RTL_GENERIC_TABLE, *PRTL_GENERIC_TABLE;

NTKERNELAPI VOID NTAPI RtlInitializeGenericTable(PRTL_GENERIC_TABLE Table, PRTL_GENERIC_COMPARE_ROUTINE CompareRoutine,
                                                 PRTL_GENERIC_ALLOCATE_ROUTINE AllocateRoutine,
                                                 PRTL_GENERIC_FREE_ROUTINE FreeRoutine, PVOID TableContext);
NTKERNELAPI PVOID NTAPI RtlInsertElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                                     PBOOLEAN NewElement);
NTKERNELAPI PVOID NTAPI RtlInsertElementGenericTableFull(PRTL_GENERIC_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                                         PBOOLEAN NewElement, PVOID NodeOrParent,
                                                         TABLE_SEARCH_RESULT SearchResult);
NTKERNELAPI BOOLEAN NTAPI RtlDeleteElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer);
NTKERNELAPI PVOID NTAPI RtlLookupElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer);
NTKERNELAPI PVOID NTAPI RtlLookupElementGenericTableFull(PRTL_GENERIC_TABLE Table, PVOID Buffer,
                                                         PVOID *NodeOrParent, TABLE_SEARCH_RESULT *SearchResult);
NTKERNELAPI PVOID NTAPI RtlEnumerateGenericTable(PRTL_GENERIC_TABLE Table, BOOLEAN Restart);
NTKERNELAPI PVOID NTAPI RtlEnumerateGenericTableWithoutSplaying(PRTL_GENERIC_TABLE Table, PVOID *RestartKey);
NTKERNELAPI PVOID NTAPI RtlGetElementGenericTable(PRTL_GENERIC_TABLE Table, ULONG I);
NTKERNELAPI ULONG NTAPI RtlNumberGenericTableElements(PRTL_GENERIC_TABLE Table);
NTKERNELAPI BOOLEAN NTAPI RtlIsGenericTableEmpty(PRTL_GENERIC_TABLE Table);

// The splay links underneath, with the DDK's macros.
NTKERNELAPI PRTL_SPLAY_LINKS NTAPI RtlSplay(PRTL_SPLAY_LINKS Links);
NTKERNELAPI PRTL_SPLAY_LINKS NTAPI RtlDelete(PRTL_SPLAY_LINKS Links);
NTKERNELAPI VOID NTAPI RtlDeleteNoSplay(PRTL_SPLAY_LINKS Links, PRTL_SPLAY_LINKS *Root);
NTKERNELAPI PRTL_SPLAY_LINKS NTAPI RtlSubtreeSuccessor(PRTL_SPLAY_LINKS Links);
NTKERNELAPI PRTL_SPLAY_LINKS NTAPI RtlSubtreePredecessor(PRTL_SPLAY_LINKS Links);
NTKERNELAPI PRTL_SPLAY_LINKS NTAPI RtlRealSuccessor(PRTL_SPLAY_LINKS Links);
NTKERNELAPI PRTL_SPLAY_LINKS NTAPI RtlRealPredecessor(PRTL_SPLAY_LINKS Links);

#define RtlInitializeSplayLinks(Links)                      \
    do {                                                    \
        PRTL_SPLAY_LINKS _SplayLinks = (PRTL_SPLAY_LINKS)(Links); \
        _SplayLinks->Parent = _SplayLinks;                  \
        _SplayLinks->LeftChild = nullptr;                   \
        _SplayLinks->RightChild = nullptr;                  \
    } while (0)
#define RtlParent(Links) ((PRTL_SPLAY_LINKS)(Links)->Parent)
#define RtlLeftChild(Links) ((PRTL_SPLAY_LINKS)(Links)->LeftChild)
#define RtlRightChild(Links) ((PRTL_SPLAY_LINKS)(Links)->RightChild)
#define RtlIsRoot(Links) ((RtlParent(Links) == (PRTL_SPLAY_LINKS)(Links)))
#define RtlIsLeftChild(Links) ((RtlLeftChild(RtlParent(Links)) == (PRTL_SPLAY_LINKS)(Links)))
#define RtlIsRightChild(Links) ((RtlRightChild(RtlParent(Links)) == (PRTL_SPLAY_LINKS)(Links)))
#define RtlInsertAsLeftChild(ParentLinks, ChildLinks)                 \
    do {                                                              \
        PRTL_SPLAY_LINKS _SplayParent = (PRTL_SPLAY_LINKS)(ParentLinks); \
        PRTL_SPLAY_LINKS _SplayChild = (PRTL_SPLAY_LINKS)(ChildLinks);   \
        _SplayParent->LeftChild = _SplayChild;                        \
        _SplayChild->Parent = _SplayParent;                           \
    } while (0)
#define RtlInsertAsRightChild(ParentLinks, ChildLinks)                \
    do {                                                              \
        PRTL_SPLAY_LINKS _SplayParent = (PRTL_SPLAY_LINKS)(ParentLinks); \
        PRTL_SPLAY_LINKS _SplayChild = (PRTL_SPLAY_LINKS)(ChildLinks);   \
        _SplayParent->RightChild = _SplayChild;                       \
        _SplayChild->Parent = _SplayParent;                           \
    } while (0)

// ---------------------------------------------------------------- security: SIDs, tokens, descriptors

#define STATUS_INVALID_CID ((NTSTATUS)0xC000000BL)
#define STATUS_INVALID_SID ((NTSTATUS)0xC0000078L)
#define STATUS_INVALID_SECURITY_DESCR ((NTSTATUS)0xC0000079L)
#define STATUS_NO_TOKEN ((NTSTATUS)0xC000007CL)
#define STATUS_PROCESS_IS_TERMINATING ((NTSTATUS)0xC000010AL)
#define STATUS_INVALID_PARAMETER_MIX ((NTSTATUS)0xC0000030L)

typedef PVOID PSID;

typedef struct _SID_IDENTIFIER_AUTHORITY {
    UCHAR Value[6];
} SID_IDENTIFIER_AUTHORITY, *PSID_IDENTIFIER_AUTHORITY;

typedef struct _SID {
    UCHAR Revision;
    UCHAR SubAuthorityCount;
    SID_IDENTIFIER_AUTHORITY IdentifierAuthority;
    ULONG SubAuthority[ANYSIZE_ARRAY];
} SID, *PISID;

#define SID_REVISION 1
#define SID_MAX_SUB_AUTHORITIES 15
#define SECURITY_MAX_SID_SIZE (sizeof(SID) - sizeof(ULONG) + (SID_MAX_SUB_AUTHORITIES * sizeof(ULONG)))

typedef struct _SID_AND_ATTRIBUTES {
    PSID Sid;
    ULONG Attributes;
} SID_AND_ATTRIBUTES, *PSID_AND_ATTRIBUTES;

#define SE_GROUP_INTEGRITY 0x00000020L
#define SE_GROUP_INTEGRITY_ENABLED 0x00000040L

typedef struct _LUID {
    ULONG LowPart;
    LONG HighPart;
} LUID, *PLUID;

NTKERNELAPI ULONG NTAPI RtlLengthSid(PSID Sid);
NTKERNELAPI BOOLEAN NTAPI RtlValidSid(PSID Sid);
NTKERNELAPI BOOLEAN NTAPI RtlEqualSid(PSID Sid1, PSID Sid2);
NTKERNELAPI NTSTATUS NTAPI RtlCopySid(ULONG DestinationSidLength, PSID DestinationSid, PSID SourceSid);
NTKERNELAPI NTSTATUS NTAPI RtlConvertSidToUnicodeString(PUNICODE_STRING UnicodeString, PSID Sid,
                                                        BOOLEAN AllocateDestinationString);

typedef enum _TOKEN_INFORMATION_CLASS : int {
    TokenUser = 1,
    TokenGroups,
    TokenPrivileges,
    TokenOwner,
    TokenPrimaryGroup,
    TokenDefaultDacl,
    TokenSource,
    TokenType,
    TokenImpersonationLevel,
    TokenStatistics,
    TokenRestrictedSids,
    TokenSessionId,
    TokenGroupsAndPrivileges,
    TokenSessionReference,
    TokenSandBoxInert,
    TokenAuditPolicy,
    TokenOrigin,
    TokenElevationType,
    TokenLinkedToken,
    TokenElevation,
    TokenHasRestrictions,
    TokenAccessInformation,
    TokenVirtualizationAllowed,
    TokenVirtualizationEnabled,
    TokenIntegrityLevel,
    TokenUIAccess,
    TokenMandatoryPolicy,
    TokenLogonSid,
    MaxTokenInfoClass
} TOKEN_INFORMATION_CLASS, *PTOKEN_INFORMATION_CLASS;

typedef enum _TOKEN_TYPE { TokenPrimary = 1, TokenImpersonation } TOKEN_TYPE, *PTOKEN_TYPE;

typedef enum _SECURITY_IMPERSONATION_LEVEL {
    SecurityAnonymous,
    SecurityIdentification,
    SecurityImpersonation,
    SecurityDelegation
} SECURITY_IMPERSONATION_LEVEL, *PSECURITY_IMPERSONATION_LEVEL;

typedef enum _TOKEN_ELEVATION_TYPE {
    TokenElevationTypeDefault = 1,
    TokenElevationTypeFull,
    TokenElevationTypeLimited
} TOKEN_ELEVATION_TYPE, *PTOKEN_ELEVATION_TYPE;

typedef struct _TOKEN_USER {
    SID_AND_ATTRIBUTES User;
} TOKEN_USER, *PTOKEN_USER;

typedef struct _TOKEN_STATISTICS {
    LUID TokenId;
    LUID AuthenticationId;
    LARGE_INTEGER ExpirationTime;
    TOKEN_TYPE TokenType;
    SECURITY_IMPERSONATION_LEVEL ImpersonationLevel;
    ULONG DynamicCharged;
    ULONG DynamicAvailable;
    ULONG GroupCount;
    ULONG PrivilegeCount;
    LUID ModifiedId;
} TOKEN_STATISTICS, *PTOKEN_STATISTICS;

typedef struct _TOKEN_ELEVATION {
    ULONG TokenIsElevated;
} TOKEN_ELEVATION, *PTOKEN_ELEVATION;

typedef struct _TOKEN_MANDATORY_LABEL {
    SID_AND_ATTRIBUTES Label;
} TOKEN_MANDATORY_LABEL, *PTOKEN_MANDATORY_LABEL;

#define TOKEN_ASSIGN_PRIMARY 0x0001
#define TOKEN_DUPLICATE 0x0002
#define TOKEN_IMPERSONATE 0x0004
#define TOKEN_QUERY 0x0008
#define TOKEN_QUERY_SOURCE 0x0010
#define TOKEN_ADJUST_PRIVILEGES 0x0020
#define TOKEN_ADJUST_GROUPS 0x0040
#define TOKEN_ADJUST_DEFAULT 0x0080
#define TOKEN_ADJUST_SESSIONID 0x0100
#define TOKEN_READ (STANDARD_RIGHTS_READ | TOKEN_QUERY)
#define TOKEN_ALL_ACCESS                                                                                  \
    (STANDARD_RIGHTS_REQUIRED | TOKEN_ASSIGN_PRIMARY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE | TOKEN_QUERY | \
     TOKEN_QUERY_SOURCE | TOKEN_ADJUST_PRIVILEGES | TOKEN_ADJUST_GROUPS | TOKEN_ADJUST_DEFAULT |          \
     TOKEN_ADJUST_SESSIONID)

typedef ULONG SECURITY_INFORMATION, *PSECURITY_INFORMATION;
typedef PVOID PSECURITY_DESCRIPTOR;
typedef USHORT SECURITY_DESCRIPTOR_CONTROL, *PSECURITY_DESCRIPTOR_CONTROL;

#define OWNER_SECURITY_INFORMATION 0x00000001L
#define GROUP_SECURITY_INFORMATION 0x00000002L
#define DACL_SECURITY_INFORMATION 0x00000004L
#define SACL_SECURITY_INFORMATION 0x00000008L
#define LABEL_SECURITY_INFORMATION 0x00000010L

#define SECURITY_DESCRIPTOR_REVISION 1
#define SE_OWNER_DEFAULTED 0x0001
#define SE_GROUP_DEFAULTED 0x0002
#define SE_DACL_PRESENT 0x0004
#define SE_DACL_DEFAULTED 0x0008
#define SE_SACL_PRESENT 0x0010
#define SE_SACL_DEFAULTED 0x0020
#define SE_SELF_RELATIVE 0x8000

typedef struct _SECURITY_DESCRIPTOR_RELATIVE {
    UCHAR Revision;
    UCHAR Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    ULONG Owner;
    ULONG Group;
    ULONG Sacl;
    ULONG Dacl;
} SECURITY_DESCRIPTOR_RELATIVE, *PISECURITY_DESCRIPTOR_RELATIVE;

typedef struct _ACL {
    UCHAR AclRevision;
    UCHAR Sbz1;
    USHORT AclSize;
    USHORT AceCount;
    USHORT Sbz2;
} ACL, *PACL;

NTKERNELAPI ULONG NTAPI RtlLengthSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor);
NTKERNELAPI BOOLEAN NTAPI RtlValidRelativeSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptorInput,
                                                             ULONG SecurityDescriptorLength,
                                                             SECURITY_INFORMATION RequiredInformation);

NTKERNELAPI NTSTATUS NTAPI ZwOpenProcessTokenEx(HANDLE ProcessHandle, ACCESS_MASK DesiredAccess,
                                                ULONG HandleAttributes, PHANDLE TokenHandle);
NTKERNELAPI NTSTATUS NTAPI ZwQueryInformationToken(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                                   PVOID TokenInformation, ULONG Length, PULONG ResultLength);
NTKERNELAPI NTSTATUS NTAPI ZwQuerySecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                                                 PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length,
                                                 PULONG LengthNeeded);

// ---------------------------------------------------------------- processes and threads
//
// The information classes are ints underneath, so that a class this header
// does not name (a newer system's) is still a value a caller can pass.
//
// The process environment block and its parameter block, as winternl.h
// documents them (the fields nobody documents are reserved arrays), so that
// the offsets are Windows' own for the build's pointer size: ProcessParameters
// at 0x10 (x86) or 0x20 (x64); ImagePathName at 0x38/0x60 and CommandLine at
// 0x40/0x70 of the parameter block. Until the block is normalised, the
// strings' Buffer fields hold offsets from the start of the block.

#define PROCESS_TERMINATE 0x0001
#define PROCESS_CREATE_THREAD 0x0002
#define PROCESS_SET_SESSIONID 0x0004
#define PROCESS_VM_OPERATION 0x0008
#define PROCESS_VM_READ 0x0010
#define PROCESS_VM_WRITE 0x0020
#define PROCESS_DUP_HANDLE 0x0040
#define PROCESS_CREATE_PROCESS 0x0080
#define PROCESS_SET_QUOTA 0x0100
#define PROCESS_SET_INFORMATION 0x0200
#define PROCESS_QUERY_INFORMATION 0x0400
#define PROCESS_SUSPEND_RESUME 0x0800
#define PROCESS_QUERY_LIMITED_INFORMATION 0x1000
#define PROCESS_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)
#define THREAD_QUERY_LIMITED_INFORMATION 0x0800

#define NtCurrentProcess() ((HANDLE)(LONG_PTR)-1)
#define ZwCurrentProcess() NtCurrentProcess()
#define NtCurrentThread() ((HANDLE)(LONG_PTR)-2)
#define ZwCurrentThread() NtCurrentThread()

typedef struct _PEB_LDR_DATA *PPEB_LDR_DATA;
typedef VOID(NTAPI *PPS_POST_PROCESS_INIT_ROUTINE)(VOID);

#define RTL_USER_PROC_PARAMS_NORMALIZED 0x00000001

typedef struct _RTL_USER_PROCESS_PARAMETERS {
    ULONG MaximumLength;
    ULONG Length;
    ULONG Flags;
    ULONG DebugFlags;
    PVOID Reserved2[10];
    UNICODE_STRING ImagePathName;
    UNICODE_STRING CommandLine;
} RTL_USER_PROCESS_PARAMETERS, *PRTL_USER_PROCESS_PARAMETERS;

typedef struct _PEB {
    UCHAR Reserved1[2];
    UCHAR BeingDebugged;
    UCHAR Reserved2[1];
    PVOID Reserved3[2];
    PPEB_LDR_DATA Ldr;
    PRTL_USER_PROCESS_PARAMETERS ProcessParameters;
    PVOID Reserved4[3];
    PVOID AtlThunkSListPtr;
    PVOID Reserved5;
    ULONG Reserved6;
    PVOID Reserved7;
    ULONG Reserved8;
    ULONG AtlThunkSListPtr32;
    PVOID Reserved9[45];
    UCHAR Reserved10[96];
    PPS_POST_PROCESS_INIT_ROUTINE PostProcessInitRoutine;
    UCHAR Reserved11[128];
    PVOID Reserved12[1];
    ULONG SessionId;
} PEB, *PPEB;

static_assert(offsetof(PEB, ProcessParameters) == (sizeof(void *) == 8 ? 0x20 : 0x10), "PEB layout");
static_assert(offsetof(RTL_USER_PROCESS_PARAMETERS, Flags) == 8, "RTL_USER_PROCESS_PARAMETERS layout");
static_assert(offsetof(RTL_USER_PROCESS_PARAMETERS, ImagePathName) == (sizeof(void *) == 8 ? 0x60 : 0x38),
              "RTL_USER_PROCESS_PARAMETERS layout");
static_assert(offsetof(RTL_USER_PROCESS_PARAMETERS, CommandLine) == (sizeof(void *) == 8 ? 0x70 : 0x40),
              "RTL_USER_PROCESS_PARAMETERS layout");

typedef enum _PROCESSINFOCLASS : int {
    ProcessBasicInformation,
    ProcessQuotaLimits,
    ProcessIoCounters,
    ProcessVmCounters,
    ProcessTimes,
    ProcessBasePriority,
    ProcessRaisePriority,
    ProcessDebugPort,
    ProcessExceptionPort,
    ProcessAccessToken,
    ProcessLdtInformation,
    ProcessLdtSize,
    ProcessDefaultHardErrorMode,
    ProcessIoPortHandlers,
    ProcessPooledUsageAndLimits,
    ProcessWorkingSetWatch,
    ProcessUserModeIOPL,
    ProcessEnableAlignmentFaultFixup,
    ProcessPriorityClass,
    ProcessWx86Information,
    ProcessHandleCount,
    ProcessAffinityMask,
    ProcessPriorityBoost,
    ProcessDeviceMap,
    ProcessSessionInformation,
    ProcessForegroundInformation,
    ProcessWow64Information,
    ProcessImageFileName,
    ProcessLUIDDeviceMapsEnabled,
    ProcessBreakOnTermination,
    ProcessDebugObjectHandle,
    ProcessDebugFlags,
    ProcessHandleTracing,
    ProcessIoPriority,
    ProcessExecuteFlags,
    ProcessTlsInformation,
    ProcessCookie,
    ProcessImageInformation,
    ProcessCycleTime,
    ProcessPagePriority,
    ProcessInstrumentationCallback,
    ProcessThreadStackAllocation,
    ProcessWorkingSetWatchEx,
    ProcessImageFileNameWin32,
    ProcessImageFileMapping,
    ProcessAffinityUpdateMode,
    ProcessMemoryAllocationMode,
    ProcessGroupInformation,
    ProcessTokenVirtualizationEnabled,
    ProcessConsoleHostProcess,
    ProcessWindowInformation,
    MaxProcessInfoClass
} PROCESSINFOCLASS;

typedef enum _THREADINFOCLASS : int {
    ThreadBasicInformation,
    ThreadTimes,
    ThreadPriority,
    ThreadBasePriority,
    ThreadAffinityMask,
    ThreadImpersonationToken,
    ThreadDescriptorTableEntry,
    ThreadEnableAlignmentFaultFixup,
    ThreadEventPair_Reusable,
    ThreadQuerySetWin32StartAddress,
    ThreadZeroTlsCell,
    ThreadPerformanceCount,
    ThreadAmILastThread,
    ThreadIdealProcessor,
    ThreadPriorityBoost,
    ThreadSetTlsArrayAddress,
    ThreadIsIoPending,
    ThreadHideFromDebugger,
    ThreadBreakOnTermination,
    ThreadSwitchLegacyState,
    ThreadIsTerminated,
    ThreadLastSystemCall,
    ThreadIoPriority,
    ThreadCycleTime,
    ThreadPagePriority,
    ThreadActualBasePriority,
    ThreadTebInformation,
    ThreadCSwitchMon,
    ThreadCSwitchPmu,
    ThreadWow64Context,
    ThreadGroupInformation,
    ThreadUmsInformation,
    ThreadCounterProfiling,
    ThreadIdealProcessorEx,
    MaxThreadInfoClass
} THREADINFOCLASS;

typedef struct _PROCESS_BASIC_INFORMATION {
    NTSTATUS ExitStatus;
    PPEB PebBaseAddress;
    ULONG_PTR AffinityMask;
    KPRIORITY BasePriority;
    ULONG_PTR UniqueProcessId;
    ULONG_PTR InheritedFromUniqueProcessId;
} PROCESS_BASIC_INFORMATION, *PPROCESS_BASIC_INFORMATION;

typedef struct _KERNEL_USER_TIMES {
    LARGE_INTEGER CreateTime;
    LARGE_INTEGER ExitTime;
    LARGE_INTEGER KernelTime;
    LARGE_INTEGER UserTime;
} KERNEL_USER_TIMES, *PKERNEL_USER_TIMES;

typedef struct _THREAD_BASIC_INFORMATION {
    NTSTATUS ExitStatus;
    PVOID TebBaseAddress;
    CLIENT_ID ClientId;
    KAFFINITY AffinityMask;
    KPRIORITY Priority;
    KPRIORITY BasePriority;
} THREAD_BASIC_INFORMATION, *PTHREAD_BASIC_INFORMATION;

NTKERNELAPI NTSTATUS NTAPI ZwOpenProcess(PHANDLE ProcessHandle, ACCESS_MASK DesiredAccess,
                                         POBJECT_ATTRIBUTES ObjectAttributes, PCLIENT_ID ClientId);
NTKERNELAPI NTSTATUS NTAPI ZwQueryInformationProcess(HANDLE ProcessHandle, PROCESSINFOCLASS ProcessInformationClass,
                                                     PVOID ProcessInformation, ULONG ProcessInformationLength,
                                                     PULONG ReturnLength);
NTKERNELAPI NTSTATUS NTAPI ZwOpenThread(PHANDLE ThreadHandle, ACCESS_MASK DesiredAccess,
                                        POBJECT_ATTRIBUTES ObjectAttributes, PCLIENT_ID ClientId);
NTKERNELAPI NTSTATUS NTAPI ZwQueryInformationThread(HANDLE ThreadHandle, THREADINFOCLASS ThreadInformationClass,
                                                    PVOID ThreadInformation, ULONG ThreadInformationLength,
                                                    PULONG ReturnLength);
NTKERNELAPI NTSTATUS NTAPI PsLookupProcessByProcessId(HANDLE ProcessId, PEPROCESS *Process);
NTKERNELAPI HANDLE NTAPI PsGetProcessId(PEPROCESS Process);

// The routines' types, for binding them through MmGetSystemRoutineAddress.
typedef NTSTATUS NTAPI ZW_QUERY_INFORMATION_THREAD(HANDLE ThreadHandle, THREADINFOCLASS ThreadInformationClass,
                                                   PVOID ThreadInformation, ULONG ThreadInformationLength,
                                                   PULONG ReturnLength);
typedef NTSTATUS NTAPI ZW_OPEN_PROCESS_TOKEN_EX(HANDLE ProcessHandle, ACCESS_MASK DesiredAccess,
                                                ULONG HandleAttributes, PHANDLE TokenHandle);

// ---------------------------------------------------------------- system information
//
// Not in the DDK; the layouts are those winternl.h and the native API's
// public documentation give, for the build's pointer size.

typedef enum _SYSTEM_INFORMATION_CLASS : int {
    SystemBasicInformation = 0,
    SystemProcessorInformation = 1,
    SystemPerformanceInformation = 2,
    SystemTimeOfDayInformation = 3,
    SystemProcessInformation = 5,
    SystemProcessorPerformanceInformation = 8,
    SystemHandleInformation = 16,
    SystemPagefileInformation = 18,
    SystemInterruptInformation = 23,
    SystemExceptionInformation = 33,
    SystemRegistryQuotaInformation = 37,
    SystemLookasideInformation = 45
} SYSTEM_INFORMATION_CLASS;

typedef struct _SYSTEM_TIMEOFDAY_INFORMATION {
    LARGE_INTEGER BootTime;
    LARGE_INTEGER CurrentTime;
    LARGE_INTEGER TimeZoneBias;
    ULONG TimeZoneId;
    ULONG Reserved;
    ULONGLONG BootTimeBias;
    ULONGLONG SleepTimeBias;
} SYSTEM_TIMEOFDAY_INFORMATION, *PSYSTEM_TIMEOFDAY_INFORMATION;

typedef struct _VM_COUNTERS {
    SIZE_T PeakVirtualSize;
    SIZE_T VirtualSize;
    ULONG PageFaultCount;
    SIZE_T PeakWorkingSetSize;
    SIZE_T WorkingSetSize;
    SIZE_T QuotaPeakPagedPoolUsage;
    SIZE_T QuotaPagedPoolUsage;
    SIZE_T QuotaPeakNonPagedPoolUsage;
    SIZE_T QuotaNonPagedPoolUsage;
    SIZE_T PagefileUsage;
    SIZE_T PeakPagefileUsage;
} VM_COUNTERS, *PVM_COUNTERS;

typedef struct _IO_COUNTERS {
    ULONGLONG ReadOperationCount;
    ULONGLONG WriteOperationCount;
    ULONGLONG OtherOperationCount;
    ULONGLONG ReadTransferCount;
    ULONGLONG WriteTransferCount;
    ULONGLONG OtherTransferCount;
} IO_COUNTERS, *PIO_COUNTERS;

typedef struct _SYSTEM_THREAD_INFORMATION {
    LARGE_INTEGER KernelTime;
    LARGE_INTEGER UserTime;
    LARGE_INTEGER CreateTime;
    ULONG WaitTime;
    PVOID StartAddress;
    CLIENT_ID ClientId;
    KPRIORITY Priority;
    LONG BasePriority;
    ULONG ContextSwitches;
    ULONG ThreadState;
    ULONG WaitReason;
} SYSTEM_THREAD_INFORMATION, *PSYSTEM_THREAD_INFORMATION;

// One record per process, chained by NextEntryOffset (0 in the last), each
// followed by NumberOfThreads SYSTEM_THREAD_INFORMATION records.
typedef struct _SYSTEM_PROCESS_INFORMATION {
    ULONG NextEntryOffset;
    ULONG NumberOfThreads;
    LARGE_INTEGER WorkingSetPrivateSize;
    ULONG HardFaultCount;
    ULONG NumberOfThreadsHighWatermark;
    ULONGLONG CycleTime;
    LARGE_INTEGER CreateTime;
    LARGE_INTEGER UserTime;
    LARGE_INTEGER KernelTime;
    UNICODE_STRING ImageName;
    KPRIORITY BasePriority;
    HANDLE UniqueProcessId;
    HANDLE InheritedFromUniqueProcessId;
    ULONG HandleCount;
    ULONG SessionId;
    ULONG_PTR UniqueProcessKey;
    VM_COUNTERS VirtualMemoryCounters;
    SIZE_T PrivatePageCount;
    IO_COUNTERS IoCounters;
} SYSTEM_PROCESS_INFORMATION, *PSYSTEM_PROCESS_INFORMATION;

static_assert(sizeof(SYSTEM_PROCESS_INFORMATION) == (sizeof(void *) == 8 ? 0x100 : 0xB8),
              "SYSTEM_PROCESS_INFORMATION layout");
static_assert(sizeof(SYSTEM_THREAD_INFORMATION) == (sizeof(void *) == 8 ? 0x50 : 0x40),
              "SYSTEM_THREAD_INFORMATION layout");

NTKERNELAPI NTSTATUS NTAPI ZwQuerySystemInformation(SYSTEM_INFORMATION_CLASS SystemInformationClass,
                                                    PVOID SystemInformation, ULONG SystemInformationLength,
                                                    PULONG ReturnLength);


// ---------------------------------------------------------------- verifier hooks
// What the library tells the host's verifier about its own contracts. The
// kernel image has no counterpart: there Driver Verifier and static analysis
// of the annotations do this work.

enum HK_LOCK_KIND { HkLockSpinLock = 1, HkLockFastMutex = 2, HkLockResource = 3 };
// Gives a lock its rank in the library's lock order (1 is outermost; 0
// forgets the lock). From then on, acquiring it while this thread holds a
// ranked lock of the same or a later rank is a complaint naming both. A
// fast mutex or resource keeps its rank until it is initialised again.
NTKERNELAPI VOID NTAPI HkVerifierRankLock(PVOID Lock, ULONG Kind, ULONG Rank, const char *Name);
// Complains when the current IRQL is above an export's maximum.
NTKERNELAPI VOID NTAPI HkVerifierCheckExportIrql(KIRQL MaximumIrql, const char *Export);

// ---------------------------------------------------------------- annotations

#define _IRQL_requires_max_(irql)
#define _IRQL_requires_(irql)
#define _IRQL_raises_(irql)
#define _Use_decl_annotations_
#define _In_
#define _In_opt_
#define _Out_
#define _Out_opt_
#define _Inout_
#define _Inout_opt_
