// The kernel API for the texprt.sys build: mingw-w64's DDK, plus the pieces
// the library relies on that those headers leave out or get wrong for us.
// Everything here mirrors a name that platform/host/include/hk/ntkernel.h
// declares for the host build, so that library code sees one API on both.
//
// Included only through platform/nt.h. Keep it to declarations: anything
// with a body must be inline and must not pull in a C runtime routine that
// ntoskrnl does not export.
#pragma once

#if !defined(_WIN32)
#error "platform/windows/ntwin.h is for the texprt.sys build"
#endif

// --------------------------------------------------------------------------
// Before the DDK.

// mingw-w64's intrin-impl.h defines InterlockedBitTestAndSet/Reset as
// intrinsics, and wdm.h defines them again as static inline functions; in C++
// the second definition is an error. Claiming the intrinsic versions are
// already defined leaves wdm.h's, which do the same lock bts/btr.
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset

#if defined(__x86_64__)
// The intrinsic version is built on the SSE sfence builtin, which does not
// exist under -mgeneral-regs-only (the image must not touch vector state:
// the kernel does not save it for us). A locked read-modify-write of the
// stack is a full fence too, and is what the kernel's own headers use.
#define __INTRINSIC_DEFINED___faststorefence
extern "C" inline __attribute__((always_inline)) void __faststorefence(void) {
    __asm__ __volatile__("lock orl $0, (%%rsp)" ::: "memory");
}
#endif

// The DDK reads the processor control region through these (the current
// thread, the processor number). mingw-w64 builds them on a memory operand
// at the constant offset cast to a pointer, which gcc 12 takes for an access
// to the null page and rejects under -Werror (-Warray-bounds) wherever they
// are inlined. The same instructions, with the offset in a register.
#define TEXPRT_SEGMENT_READ(Name, Type, Segment, Suffix)                                          \
    extern "C" inline __attribute__((always_inline)) Type Name(unsigned long Offset) {         \
        Type Value;                                                                           \
        __asm__ __volatile__("mov" Suffix " %%" Segment ":(%1), %0"                           \
                             : "=r"(Value)                                                    \
                             : "r"((__SIZE_TYPE__)Offset)                                     \
                             : "memory");                                                     \
        return Value;                                                                         \
    }
#if defined(__x86_64__)
#define __INTRINSIC_DEFINED___readgsbyte
#define __INTRINSIC_DEFINED___readgsword
#define __INTRINSIC_DEFINED___readgsdword
#define __INTRINSIC_DEFINED___readgsqword
TEXPRT_SEGMENT_READ(__readgsbyte, unsigned char, "gs", "b")
TEXPRT_SEGMENT_READ(__readgsword, unsigned short, "gs", "w")
TEXPRT_SEGMENT_READ(__readgsdword, unsigned long, "gs", "l")
TEXPRT_SEGMENT_READ(__readgsqword, unsigned long long, "gs", "q")
#else
#define __INTRINSIC_DEFINED___readfsbyte
#define __INTRINSIC_DEFINED___readfsword
#define __INTRINSIC_DEFINED___readfsdword
TEXPRT_SEGMENT_READ(__readfsbyte, unsigned char, "fs", "b")
TEXPRT_SEGMENT_READ(__readfsword, unsigned short, "fs", "w")
TEXPRT_SEGMENT_READ(__readfsdword, unsigned long, "fs", "l")
#endif
#undef TEXPRT_SEGMENT_READ

// mingw-w64's list routines do not check their links. The library relies on
// the checked behaviour of current kernels (a corrupt list fails fast instead
// of being written through), so the DDK's unchecked bodies are parked under
// other names here and checked ones take the real names below.
#define InsertTailList TexprtDdkUncheckedInsertTailList
#define InsertHeadList TexprtDdkUncheckedInsertHeadList
#define RemoveEntryList TexprtDdkUncheckedRemoveEntryList
#define RemoveHeadList TexprtDdkUncheckedRemoveHeadList
#define RemoveTailList TexprtDdkUncheckedRemoveTailList

#include <ntifs.h>

#undef InsertTailList
#undef InsertHeadList
#undef RemoveEntryList
#undef RemoveHeadList
#undef RemoveTailList

// --------------------------------------------------------------------------
// Basic types and text.

static_assert(sizeof(WCHAR) == 2, "the library's text is 16-bit");
static_assert(sizeof(ULONG) == 4 && sizeof(LONG) == 4, "ULONG and LONG are 32-bit on every NT target");

// Wide literals: WCHAR is wchar_t here (16-bit on Windows); the host spells
// the same literal with u"", hence the macro.
#define WIDE(s) L##s

#ifndef _DWORD_DEFINED
#define _DWORD_DEFINED
typedef ULONG DWORD;
#endif

// mingw-w64 spells this as a self-assignment, which fails on a const local;
// the kernel's headers (and the host) just evaluate the name.
#undef UNREFERENCED_PARAMETER
#define UNREFERENCED_PARAMETER(P) ((void)(P))

// Names the host header uses that mingw-w64's DDK does not define.
typedef struct _KPROCESS *PRKPROCESS;
#ifndef THREAD_QUERY_INFORMATION
#define THREAD_QUERY_INFORMATION 0x0040
#endif

#if defined(_WIN64)
// On x64 these do nothing in the kernel's own headers (the system preserves
// the x87/SSE state a driver uses); mingw-w64 declares them for x86 only.
// Kept so that the library's save/restore brackets compile unchanged.
FORCEINLINE NTSTATUS KeSaveFloatingPointState(PKFLOATING_SAVE FloatSave) {
    UNREFERENCED_PARAMETER(FloatSave);
    return STATUS_SUCCESS;
}
FORCEINLINE NTSTATUS KeRestoreFloatingPointState(PKFLOATING_SAVE FloatSave) {
    UNREFERENCED_PARAMETER(FloatSave);
    return STATUS_SUCCESS;
}
// The DDK lowers IRQL on x64 by writing CR8 inline and has no KfLowerIrql;
// the host (like x86) has one.
FORCEINLINE VOID KfLowerIrql(KIRQL NewIrql) { KeLowerIrql(NewIrql); }
#endif

// x86: the DDK maps the 32-bit interlocked routines to compiler intrinsics
// but leaves the 64-bit compare-exchange out; the kernel's headers map it to
// the cmpxchg8b intrinsic too (the x64 DDK already does).
#if !defined(_WIN64) && !defined(InterlockedCompareExchange64)
#define InterlockedCompareExchange64 _InterlockedCompareExchange64
#endif

// ntoskrnl exports this C runtime routine; the DDK declares it only through
// the C library's headers, which a driver does not include.
extern "C" int __cdecl _vsnwprintf(WCHAR *Buffer, size_t Count, const WCHAR *Format, va_list Args);

// --------------------------------------------------------------------------
// Fail fast and checked lists.

#ifndef FAST_FAIL_CORRUPT_LIST_ENTRY
#define FAST_FAIL_CORRUPT_LIST_ENTRY 3
#endif
#ifndef KERNEL_SECURITY_CHECK_FAILURE
#define KERNEL_SECURITY_CHECK_FAILURE 0x139
#endif

// int 29h with the code in ecx/rcx: the kernel turns it into bug check
// KERNEL_SECURITY_CHECK_FAILURE with the code as first parameter, without
// running anything on the (possibly corrupt) state that led here.
DECLSPEC_NORETURN static inline __attribute__((always_inline)) void RtlFailFast(ULONG Code) {
    __asm__ __volatile__("int $0x29" : : "c"((ULONG_PTR)Code) : "memory");
    __builtin_unreachable();
}

FORCEINLINE VOID InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
    PLIST_ENTRY OldBlink = ListHead->Blink;
    if (OldBlink->Flink != ListHead) RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    Entry->Flink = ListHead;
    Entry->Blink = OldBlink;
    OldBlink->Flink = Entry;
    ListHead->Blink = Entry;
}

FORCEINLINE VOID InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
    PLIST_ENTRY OldFlink = ListHead->Flink;
    if (OldFlink->Blink != ListHead) RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    Entry->Flink = OldFlink;
    Entry->Blink = ListHead;
    OldFlink->Blink = Entry;
    ListHead->Flink = Entry;
}

FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY Entry) {
    PLIST_ENTRY OldFlink = Entry->Flink;
    PLIST_ENTRY OldBlink = Entry->Blink;
    if (OldFlink->Blink != Entry || OldBlink->Flink != Entry) RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    OldBlink->Flink = OldFlink;
    OldFlink->Blink = OldBlink;
    return (BOOLEAN)(OldFlink == OldBlink);
}

FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead) {
    PLIST_ENTRY Entry = ListHead->Flink;
    PLIST_ENTRY Flink = Entry->Flink;
    if (Entry->Blink != ListHead || Flink->Blink != Entry) RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    ListHead->Flink = Flink;
    Flink->Blink = ListHead;
    return Entry;
}

FORCEINLINE PLIST_ENTRY RemoveTailList(PLIST_ENTRY ListHead) {
    PLIST_ENTRY Entry = ListHead->Blink;
    PLIST_ENTRY Blink = Entry->Blink;
    if (Entry->Flink != ListHead || Blink->Flink != Entry) RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    ListHead->Blink = Blink;
    Blink->Flink = ListHead;
    return Entry;
}

// --------------------------------------------------------------------------
// Tracing. The library binds the ETW routines at run time with
// MmGetSystemRoutineAddress (they are not on every system it loads on), so it
// needs their types, not their imports, and the types are ours to spell.
// The enable callback is declared as on the host, with the filter data
// untyped: the kernel passes an EVENT_FILTER_DESCRIPTOR pointer there, which
// the library does not read, and either type is one pointer to the calling
// convention. (The DDK's PETWENABLECALLBACK has the typed parameter and is
// left as it is.)

typedef VOID NTAPI ETWENABLECALLBACK(LPCGUID SourceId, ULONG ControlCode, UCHAR Level, ULONGLONG MatchAnyKeyword,
                                     ULONGLONG MatchAllKeyword, PVOID FilterData, PVOID CallbackContext);

typedef NTSTATUS NTAPI ETW_REGISTER_ROUTINE(LPCGUID ProviderId, ETWENABLECALLBACK *EnableCallback,
                                            PVOID CallbackContext, PREGHANDLE RegHandle);
typedef NTSTATUS NTAPI ETW_UNREGISTER_ROUTINE(REGHANDLE RegHandle);
typedef NTSTATUS NTAPI ETW_WRITE_STRING_ROUTINE(REGHANDLE RegHandle, UCHAR Level, ULONGLONG Keyword,
                                                LPCGUID ActivityId, PCWSTR String);

// --------------------------------------------------------------------------
// Filter manager. mingw-w64 has no fltKernel.h; these are the filter
// manager's documented types and routines that the library may use, as
// FLTMGR.SYS exports them (platform/windows/fltmgr.def builds the import
// library). Objects the library only passes around stay opaque.

#ifndef FLTAPI
#define FLTAPI NTAPI
#endif

typedef struct _FLT_FILTER *PFLT_FILTER;
typedef struct _FLT_INSTANCE *PFLT_INSTANCE;
typedef struct _FLT_VOLUME *PFLT_VOLUME;
typedef struct _FLT_CALLBACK_DATA *PFLT_CALLBACK_DATA;
typedef struct _FLT_FILE_NAME_INFORMATION *PFLT_FILE_NAME_INFORMATION;
typedef struct _FLT_REGISTRATION FLT_REGISTRATION, *PFLT_REGISTRATION;
typedef PVOID PFLT_CONTEXT;
typedef ULONG FLT_FILE_NAME_OPTIONS;

typedef VOID FLTAPI FLT_COMPLETED_ASYNC_IO_CALLBACK(PFLT_CALLBACK_DATA CallbackData, PFLT_CONTEXT Context);
typedef FLT_COMPLETED_ASYNC_IO_CALLBACK *PFLT_COMPLETED_ASYNC_IO_CALLBACK;

// FltCreateFile Flags.
#define IO_IGNORE_SHARE_ACCESS_CHECK 0x0800
// FltReadFile / FltWriteFile Flags.
#define FLTFL_IO_OPERATION_NON_CACHED 0x00000001
#define FLTFL_IO_OPERATION_PAGING 0x00000002
#define FLTFL_IO_OPERATION_DO_NOT_UPDATE_BYTE_OFFSET 0x00000004

#define FLTMGR_API extern "C" DECLSPEC_IMPORT

FLTMGR_API NTSTATUS FLTAPI FltRegisterFilter(PDRIVER_OBJECT Driver, const FLT_REGISTRATION *Registration,
                                             PFLT_FILTER *RetFilter);
FLTMGR_API VOID FLTAPI FltUnregisterFilter(PFLT_FILTER Filter);
FLTMGR_API NTSTATUS FLTAPI FltStartFiltering(PFLT_FILTER Filter);
FLTMGR_API NTSTATUS FLTAPI FltGetFilterFromName(PCUNICODE_STRING FilterName, PFLT_FILTER *RetFilter);

FLTMGR_API NTSTATUS FLTAPI FltCreateFile(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle,
                                         ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                         PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize,
                                         ULONG FileAttributes, ULONG ShareAccess, ULONG CreateDisposition,
                                         ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength, ULONG Flags);
FLTMGR_API NTSTATUS FLTAPI FltCreateFileEx(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle,
                                           PFILE_OBJECT *FileObject, ACCESS_MASK DesiredAccess,
                                           POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                                           PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                                           ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                                           ULONG EaLength, ULONG Flags);
FLTMGR_API NTSTATUS FLTAPI FltClose(HANDLE FileHandle);
FLTMGR_API NTSTATUS FLTAPI FltReadFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject,
                                       PLARGE_INTEGER ByteOffset, ULONG Length, PVOID Buffer, ULONG Flags,
                                       PULONG BytesRead, PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine,
                                       PVOID CallbackContext);
FLTMGR_API NTSTATUS FLTAPI FltWriteFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject,
                                        PLARGE_INTEGER ByteOffset, ULONG Length, PVOID Buffer, ULONG Flags,
                                        PULONG BytesWritten, PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine,
                                        PVOID CallbackContext);
FLTMGR_API NTSTATUS FLTAPI FltQueryInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                                   PVOID FileInformation, ULONG Length,
                                                   FILE_INFORMATION_CLASS FileInformationClass,
                                                   PULONG LengthReturned);
FLTMGR_API NTSTATUS FLTAPI FltSetInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                                 PVOID FileInformation, ULONG Length,
                                                 FILE_INFORMATION_CLASS FileInformationClass);

FLTMGR_API NTSTATUS FLTAPI FltEnumerateVolumes(PFLT_FILTER Filter, PFLT_VOLUME *VolumeList, ULONG VolumeListSize,
                                               PULONG NumberVolumesReturned);
FLTMGR_API NTSTATUS FLTAPI FltEnumerateInstances(PFLT_VOLUME Volume, PFLT_FILTER Filter,
                                                 PFLT_INSTANCE *InstanceList, ULONG InstanceListSize,
                                                 PULONG NumberInstancesReturned);
FLTMGR_API NTSTATUS FLTAPI FltGetVolumeName(PFLT_VOLUME Volume, PUNICODE_STRING VolumeName,
                                            PULONG BufferSizeNeeded);
FLTMGR_API NTSTATUS FLTAPI FltGetVolumeGuidName(PFLT_VOLUME Volume, PUNICODE_STRING VolumeGuidName,
                                                PULONG BufferSizeNeeded);
FLTMGR_API NTSTATUS FLTAPI FltGetDiskDeviceObject(PFLT_VOLUME Volume, PDEVICE_OBJECT *DiskDeviceObject);
FLTMGR_API NTSTATUS FLTAPI FltGetVolumeFromName(PFLT_FILTER Filter, PCUNICODE_STRING VolumeName,
                                                PFLT_VOLUME *RetVolume);
FLTMGR_API NTSTATUS FLTAPI FltGetVolumeInstanceFromName(PFLT_FILTER Filter, PFLT_VOLUME Volume,
                                                        PCUNICODE_STRING InstanceName, PFLT_INSTANCE *RetInstance);
FLTMGR_API NTSTATUS FLTAPI FltGetVolumeFromInstance(PFLT_INSTANCE Instance, PFLT_VOLUME *RetVolume);
FLTMGR_API NTSTATUS FLTAPI FltIsVolumeWritable(PVOID FltObject, PBOOLEAN IsWritable);

FLTMGR_API NTSTATUS FLTAPI FltGetFileNameInformationUnsafe(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance,
                                                           FLT_FILE_NAME_OPTIONS NameOptions,
                                                           PFLT_FILE_NAME_INFORMATION *FileNameInformation);
FLTMGR_API VOID FLTAPI FltReleaseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation);

FLTMGR_API NTSTATUS FLTAPI FltObjectReference(PVOID FltObject);
FLTMGR_API VOID FLTAPI FltObjectDereference(PVOID FltObject);

#undef FLTMGR_API

// --------------------------------------------------------------------------
// Processes: what the DDK leaves to winternl.h or does not describe. The
// layouts are the documented ones, for the build's pointer size.

typedef enum _SYSTEM_INFORMATION_CLASS {
    SystemTimeOfDayInformation = 3,
    SystemProcessInformation = 5,
    SystemModuleInformation = 11,
} SYSTEM_INFORMATION_CLASS;

extern "C" NTSYSAPI NTSTATUS NTAPI ZwQuerySystemInformation(SYSTEM_INFORMATION_CLASS SystemInformationClass,
                                                            PVOID SystemInformation, ULONG SystemInformationLength,
                                                            PULONG ReturnLength);

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
    SIZE_T PrivatePageCount;
    LARGE_INTEGER ReadOperationCount;
    LARGE_INTEGER WriteOperationCount;
    LARGE_INTEGER OtherOperationCount;
    LARGE_INTEGER ReadTransferCount;
    LARGE_INTEGER WriteTransferCount;
    LARGE_INTEGER OtherTransferCount;
} SYSTEM_PROCESS_INFORMATION, *PSYSTEM_PROCESS_INFORMATION;

typedef struct _SYSTEM_TIMEOFDAY_INFORMATION {
    LARGE_INTEGER BootTime;
    LARGE_INTEGER CurrentTime;
    LARGE_INTEGER TimeZoneBias;
    ULONG TimeZoneId;
    ULONG Reserved;
    ULONGLONG BootTimeBias;
    ULONGLONG SleepTimeBias;
} SYSTEM_TIMEOFDAY_INFORMATION, *PSYSTEM_TIMEOFDAY_INFORMATION;

typedef struct _THREAD_BASIC_INFORMATION {
    NTSTATUS ExitStatus;
    PVOID TebBaseAddress;
    CLIENT_ID ClientId;
    KAFFINITY AffinityMask;
    KPRIORITY Priority;
    KPRIORITY BasePriority;
} THREAD_BASIC_INFORMATION, *PTHREAD_BASIC_INFORMATION;

// The head of a process's parameter block and environment block, as far
// as the documented fields go.
typedef struct _RTL_USER_PROCESS_PARAMETERS {
    ULONG MaximumLength;
    ULONG Length;
    ULONG Flags;
    ULONG DebugFlags;
    PVOID Reserved2[10];
    UNICODE_STRING ImagePathName;
    UNICODE_STRING CommandLine;
} RTL_USER_PROCESS_PARAMETERS, *PRTL_USER_PROCESS_PARAMETERS;

struct _PEB {
    UCHAR Reserved1[2];
    UCHAR BeingDebugged;
    UCHAR Reserved2[1];
    PVOID Reserved3[2];
    PVOID Ldr;
    PRTL_USER_PROCESS_PARAMETERS ProcessParameters;
};
typedef struct _PEB PEB;

#if defined(_WIN64)
static_assert(FIELD_OFFSET(PEB, ProcessParameters) == 0x20, "PEB.ProcessParameters");
static_assert(FIELD_OFFSET(RTL_USER_PROCESS_PARAMETERS, ImagePathName) == 0x60, "ImagePathName");
static_assert(FIELD_OFFSET(RTL_USER_PROCESS_PARAMETERS, CommandLine) == 0x70, "CommandLine");
static_assert(FIELD_OFFSET(SYSTEM_PROCESS_INFORMATION, UniqueProcessId) == 0x50, "UniqueProcessId");
#else
static_assert(FIELD_OFFSET(PEB, ProcessParameters) == 0x10, "PEB.ProcessParameters");
static_assert(FIELD_OFFSET(RTL_USER_PROCESS_PARAMETERS, ImagePathName) == 0x38, "ImagePathName");
static_assert(FIELD_OFFSET(RTL_USER_PROCESS_PARAMETERS, CommandLine) == 0x40, "CommandLine");
static_assert(FIELD_OFFSET(SYSTEM_PROCESS_INFORMATION, UniqueProcessId) == 0x44, "UniqueProcessId");
static_assert(sizeof(THREAD_BASIC_INFORMATION) == 28, "THREAD_BASIC_INFORMATION");
#endif

// --------------------------------------------------------------------------
// Source annotations: only some of them come with mingw-w64's headers.

#ifndef _IRQL_requires_max_
#define _IRQL_requires_max_(irql)
#endif
#ifndef _IRQL_requires_
#define _IRQL_requires_(irql)
#endif
#ifndef _IRQL_raises_
#define _IRQL_raises_(irql)
#endif
#ifndef _Use_decl_annotations_
#define _Use_decl_annotations_
#endif
