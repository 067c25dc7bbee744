// What an entry captures from its process: the kernel image name, and from
// the process's own parameter block its image path and command line; the
// processes that already run when a monitor starts; a thread's exit status.
// The parameter block is user memory of another process, open to change by
// it: the readers attach to the process and read under the fault guard.
#include "process/table.h"

#include "base/exports.h"
#include "base/strings.h"
#include "base/trace.h"
#include "diagnostics/eventlog.h"

namespace {

constexpr ULONG TagCapture = MakePoolTag("TcPc");
constexpr ACCESS_MASK ProcessAllAccess = 0x1FFFFF;
constexpr ULONG ParametersNormalized = 0x1;  // RTL_USER_PROC_PARAMS_NORMALIZED
constexpr ULONG SystemProcessIdentifier = 4;
const WCHAR SystemImageName[] = WIDE("SYSTEM");

// Runs a callable under the platform's fault guard.
template <typename Routine>
VOID NTAPI CallRoutine(PVOID Context) {
    (*(Routine *)Context)();
}
template <typename Routine>
BOOLEAN Guarded(Routine &Read, NTSTATUS *ExceptionCode) {
    return PlatformGuardedCall(CallRoutine<Routine>, &Read, ExceptionCode);
}

// Where a parameter block's string stands: an address once the block is
// normalised, an offset from the block before.
const UCHAR *StringAddress(const RTL_USER_PROCESS_PARAMETERS *Parameters, const UNICODE_STRING &String,
                           BOOLEAN HonourNormalized) {
    if (HonourNormalized && (Parameters->Flags & ParametersNormalized) == 0)
        return (const UCHAR *)Parameters + (ULONG_PTR)String.Buffer;
    return (const UCHAR *)String.Buffer;
}

// The frame of the three readers: the process object referenced, its
// address space attached, the parameter block found, and Read run on it
// under the guard. A fault frees and clears the out string.
template <typename Reader>
NTSTATUS ReadProcessParameters(HANDLE Process, PVOID Peb, PUNICODE_STRING Out, Reader &&Read) {
    if (Peb == nullptr) return STATUS_INVALID_PARAMETER;
    PVOID Object = nullptr;
    NTSTATUS Status = ObReferenceObjectByHandle(Process, 0, nullptr, KernelMode, &Object, nullptr);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        return Status;
    }
    KAPC_STATE ApcState;
    KeStackAttachProcess((PRKPROCESS)Object, &ApcState);
    NTSTATUS ExceptionCode = STATUS_SUCCESS;
    auto Body = [&] {
        const RTL_USER_PROCESS_PARAMETERS *Parameters = ((const PEB *)Peb)->ProcessParameters;
        Status = Parameters == nullptr ? STATUS_UNSUCCESSFUL : Read(Parameters);
    };
    if (!Guarded(Body, &ExceptionCode)) {
        TRACE_STATUS(ExceptionCode);
        FreeUnicodeString(Out);
        Status = STATUS_BREAKPOINT;
    }
    KeUnstackDetachProcess(&ApcState);
    ObfDereferenceObject(Object);
    return Status;
}

// A copy of Length bytes of a parameter block string, with room for two
// more; Length and MaximumLength as the process states them.
NTSTATUS CopyParameterString(const UNICODE_STRING &String, const UCHAR *Text, PUNICODE_STRING Out) {
    if (String.Length == 0) return STATUS_SUCCESS;
    Out->Buffer = (PWCH)PoolAlloc(DefaultPool, (ULONG)String.Length + sizeof(WCHAR), TagCapture);
    if (Out->Buffer == nullptr) {
        TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Out->Length = 0;
    Out->MaximumLength = 0;
    RtlMoveMemory(Out->Buffer, Text, String.Length);
    Out->Length = String.Length;
    Out->MaximumLength = String.MaximumLength;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS CaptureImageFileName(HANDLE Process, ULONG ProcessId, PUNICODE_STRING ImageFileName) {
    ULONG Size = 0;
    NTSTATUS Status = ZwQueryInformationProcess(Process, ProcessImageFileName, nullptr, 0, &Size);
    if (Status != STATUS_INFO_LENGTH_MISMATCH) {
        TRACE_STATUS(Status);
        return Status;
    }
    auto *Buffer = (PUNICODE_STRING)PoolAlloc(DefaultPool, Size, TagCapture);
    if (Buffer == nullptr) {
        TRACE_STATUS(STATUS_NO_MEMORY);
        return STATUS_NO_MEMORY;
    }
    Status = ZwQueryInformationProcess(Process, ProcessImageFileName, Buffer, Size, &Size);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        PoolFree(Buffer);
        return Status;
    }
    UNICODE_STRING Name = *Buffer;
    // The system process has no image file; it is called by its name.
    if (ProcessId == SystemProcessIdentifier && Name.Length == 0) Name = CONST_UNICODE_STRING(SystemImageName);
    // An empty name of any other process is refused here, and the process
    // gets no entry: every match needs the name.
    Status = DuplicateUnicodeString(ImageFileName, &Name, TagCapture);
    if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
    PoolFree(Buffer);
    return Status;
}

NTSTATUS CaptureWin32ImagePath(HANDLE Process, PVOID Peb, PUNICODE_STRING Path) {
    return ReadProcessParameters(Process, Peb, Path, [&](const RTL_USER_PROCESS_PARAMETERS *Parameters) {
        // The image path is taken as an address whatever the block's state.
        const UNICODE_STRING String = Parameters->ImagePathName;
        return CopyParameterString(String, StringAddress(Parameters, String, FALSE), Path);
    });
}

NTSTATUS CaptureCommandLine(HANDLE Process, PVOID Peb, PUNICODE_STRING CommandLine) {
    return ReadProcessParameters(Process, Peb, CommandLine, [&](const RTL_USER_PROCESS_PARAMETERS *Parameters) {
        const UNICODE_STRING String = Parameters->CommandLine;
        return CopyParameterString(String, StringAddress(Parameters, String, TRUE), CommandLine);
    });
}

NTSTATUS CaptureCommandLineArguments(HANDLE Process, PVOID Peb, PUNICODE_STRING Arguments) {
    RtlZeroMemory(Arguments, sizeof(*Arguments));
    return ReadProcessParameters(Process, Peb, Arguments, [&](const RTL_USER_PROCESS_PARAMETERS *Parameters) {
        UNICODE_STRING Line = Parameters->CommandLine;
        const ULONG Size = (ULONG)Line.Length + sizeof(WCHAR);
        Arguments->Buffer = (PWCH)PoolAlloc(DefaultPool, Size, TagCapture);
        if (Arguments->Buffer == nullptr) {
            TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        RtlZeroMemory(Arguments->Buffer, Size);
        Arguments->Length = 0;
        Arguments->MaximumLength = (USHORT)Size;
        Line.Buffer = (PWCH)StringAddress(Parameters, Line, TRUE);
        UNICODE_STRING Program, Rest;
        SplitCommandLine(&Line, &Program, &Rest);
        if (Rest.Length != 0 && Rest.Buffer != nullptr) {
            RtlCopyUnicodeString(Arguments, &Rest);
            Arguments->MaximumLength = Line.MaximumLength;
        } else {
            // A process started without arguments has an empty line.
            FreeUnicodeString(Arguments);
        }
        return STATUS_SUCCESS;
    });
}

VOID SplitCommandLine(PCUNICODE_STRING CommandLine, PUNICODE_STRING Program, PUNICODE_STRING Arguments) {
    RtlZeroMemory(Program, sizeof(*Program));
    RtlZeroMemory(Arguments, sizeof(*Arguments));
    const ULONG Count = CommandLine->Length / sizeof(WCHAR);
    if (Count == 0) return;
    const WCHAR *Text = CommandLine->Buffer;
    // A quoted program runs to the next quote, an unquoted one to the next
    // blank; the delimiter at index 0 only opens the token. Tabs separate
    // nothing, and a quote inside an unquoted token means nothing.
    const BOOLEAN Quoted = Text[0] == '"';
    const WCHAR Delimiter = Quoted ? '"' : ' ';
    const ULONG Start = Text[0] == Delimiter ? 1 : 0;
    ULONG End = Count;
    for (ULONG Index = 1; Index < Count; ++Index) {
        if (Text[Index] == Delimiter) {
            End = Index;
            break;
        }
    }
    Program->Buffer = (PWCH)Text + Start;
    Program->Length = Program->MaximumLength = (USHORT)((End - Start) * sizeof(WCHAR));
    // Behind a closing quote the arguments start after one more character,
    // the separator, whatever it is.
    const ULONG ArgumentsStart = End + (Quoted ? 2 : 1);
    if (End >= Count || ArgumentsStart >= Count) return;
    Arguments->Buffer = (PWCH)Text + ArgumentsStart;
    Arguments->Length = Arguments->MaximumLength = (USHORT)((Count - ArgumentsStart) * sizeof(WCHAR));
}

BOOLEAN QueryBootTime(PLARGE_INTEGER Time) {
    SYSTEM_TIMEOFDAY_INFORMATION TimeOfDay;
    RtlZeroMemory(&TimeOfDay, sizeof(TimeOfDay));
    const NTSTATUS Status =
        ZwQuerySystemInformation(SystemTimeOfDayInformation, &TimeOfDay, sizeof(TimeOfDay), nullptr);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        return FALSE;
    }
    Time->QuadPart = TimeOfDay.BootTime.QuadPart - (LONGLONG)TimeOfDay.BootTimeBias;
    return TRUE;
}

VOID FreeProcessCapture(ProcessCapture *Capture) {
    if (Capture->Handle != nullptr) ZwClose(Capture->Handle);
    if (Capture->ProcessObject != nullptr) ObfDereferenceObject(Capture->ProcessObject);
    FreeUnicodeString(&Capture->ImageFileName);
    FreeUnicodeString(&Capture->Win32ImagePath);
    FreeUnicodeString(&Capture->CommandLine);
    RtlZeroMemory(Capture, sizeof(*Capture));
}

TEXPRT_EXPORT HANDLE NTAPI OpenProcess(ULONG ProcessId) {
    EXPORT_ENTRY(OpenProcess);
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    CLIENT_ID Client;
    Client.UniqueProcess = (HANDLE)(ULONG_PTR)ProcessId;
    Client.UniqueThread = nullptr;
    HANDLE Handle = nullptr;
    if (!NT_SUCCESS(ZwOpenProcess(&Handle, ProcessAllAccess, &Attributes, &Client))) return nullptr;
    return Handle;
}

TEXPRT_EXPORT NTSTATUS NTAPI GetExisitingProcesses() {
    EXPORT_ENTRY(GetExisitingProcesses);
    ReportEvent(MsgProcessEnumerationStarting);
    ULONG Size = 0;
    NTSTATUS Status = ZwQuerySystemInformation(SystemProcessInformation, nullptr, 0, &Size);
    if (Status != STATUS_INFO_LENGTH_MISMATCH) return Status;
    PUCHAR Buffer = (PUCHAR)PoolAlloc(DefaultPool, Size, TagCapture);
    if (Buffer == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    // One try only: a list that grew since the size was asked fails the
    // whole call.
    Status = ZwQuerySystemInformation(SystemProcessInformation, Buffer, Size, &Size);
    if (!NT_SUCCESS(Status)) {
        PoolFree(Buffer);
        return Status;
    }
    // The first record is the idle process, which never has an entry.
    auto *Record = (const SYSTEM_PROCESS_INFORMATION *)Buffer;
    while (Record->NextEntryOffset != 0) {
        Record = (const SYSTEM_PROCESS_INFORMATION *)((const UCHAR *)Record + Record->NextEntryOffset);
        AddExistingProcess(Record);
    }
    PoolFree(Buffer);
    ReportEvent(MsgProcessEnumerationCompleted);
    ReportEvent(MsgWhiteListUpdateStarting);
    ResolveExistingProcesses();
    ReportEvent(MsgWhiteListUpdateCompleted);
    return STATUS_SUCCESS;
}

TEXPRT_EXPORT NTSTATUS NTAPI GetThreadExitStatus(ULONG ProcessId, ULONG ThreadId, PVOID Times) {
    EXPORT_ENTRY(GetThreadExitStatus);
    if (Times != nullptr) RtlZeroMemory(Times, sizeof(KERNEL_USER_TIMES));
    if (QueryInformationThread == nullptr) return 0;
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    CLIENT_ID Client;
    Client.UniqueProcess = (HANDLE)(ULONG_PTR)ProcessId;
    Client.UniqueThread = (HANDLE)(ULONG_PTR)ThreadId;
    HANDLE Thread = nullptr;
    if (!NT_SUCCESS(ZwOpenThread(&Thread, 0, &Attributes, &Client))) return 0;
    THREAD_BASIC_INFORMATION Basic;
    RtlZeroMemory(&Basic, sizeof(Basic));
    const NTSTATUS Status = QueryInformationThread(Thread, ThreadBasicInformation, &Basic, sizeof(Basic), nullptr);
    if (Times != nullptr) QueryInformationThread(Thread, ThreadTimes, Times, sizeof(KERNEL_USER_TIMES), nullptr);
    ZwClose(Thread);
    return NT_SUCCESS(Status) ? Basic.ExitStatus : 0;
}
