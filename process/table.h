// The process table: one ProcessEntry per process, kept in a generic table
// keyed by process id, with its references, the three roads by which an
// entry leaves (the last dereference, the half-second rundown, the deferred
// delete list), and what the entries capture from their processes.
#pragma once

#include "platform/nt.h"

#include "include/texprt.h"

// The table and everything it guards. ProcessTableLock covers the table, the
// deferred delete list and every field of an entry written after insertion,
// except the actor cache (ActorLock) and the ancestor list (its resource).
extern RTL_GENERIC_TABLE ProcessTable;
extern FAST_MUTEX ProcessTableLock;
extern LIST_ENTRY DeferredDeleteList;
// Where the current process object holds the text "System", found at phase
// 0 (kept for diagnostics; nothing reads it).
extern ULONG ProcessNameOffset;

// A process id that a dereference could not remove yet: the entry was still
// referenced, or its delete failed. The same id may stand more than once.
struct DeferredDeleteNode {
    ULONG ProcessId;
    LIST_ENTRY Link;
};

struct AncestorImageNode {
    UNICODE_STRING Image;
    LIST_ENTRY Link;
};

// Phase 0: the table, its lock, the deferred list, the bindings the capture
// needs. Always succeeds.
NTSTATUS InitializeProcessGlobals();
// Unload and a failed phase 1: every entry's contents and node go, whatever
// its references; every pointer a monitor still holds is dead from then on.
NTSTATUS StopProcessTable();
// The rundown's pass over the table, on the work queue thread: an entry that
// nobody references and whose process has ended leaves.
VOID SweepProcessTable();

// Enumeration: one record of the system's process list (takes no reference).
VOID AddExistingProcess(const SYSTEM_PROCESS_INFORMATION *Record);
// The second half of every enumerated entry, once all are in the table.
VOID ResolveExistingProcesses();

// The ancestor image list of an entry.
VOID InitializeAncestorImageList(AncestorImageList *List);
NTSTATUS AppendAncestorImage(AncestorImageList *List, PCUNICODE_STRING Image);
NTSTATUS CopyAncestorImages(AncestorImageList *Destination, AncestorImageList *Source);
VOID DeleteAncestorImageList(AncestorImageList *List);

// What a new entry takes over from the capture.
struct ProcessCapture {
    HANDLE Handle;
    UNICODE_STRING ImageFileName;
    UNICODE_STRING Win32ImagePath;
    UNICODE_STRING CommandLine;
    LARGE_INTEGER CreateTime;
    ULONG ParentProcessId;
    PVOID ProcessObject;
};

// The capture routines (capture.cpp).
enum class CommandLineForm { Arguments, Whole };
NTSTATUS CaptureImageFileName(HANDLE Process, ULONG ProcessId, PUNICODE_STRING ImageFileName);
NTSTATUS CaptureWin32ImagePath(HANDLE Process, PVOID Peb, PUNICODE_STRING Path);
NTSTATUS CaptureCommandLine(HANDLE Process, PVOID Peb, PUNICODE_STRING CommandLine);
NTSTATUS CaptureCommandLineArguments(HANDLE Process, PVOID Peb, PUNICODE_STRING Arguments);
// Views into CommandLine: the program token and the arguments.
VOID SplitCommandLine(PCUNICODE_STRING CommandLine, PUNICODE_STRING Program, PUNICODE_STRING Arguments);
// The boot time as the system reports it, less its bias; FALSE if the query
// fails.
BOOLEAN QueryBootTime(PLARGE_INTEGER Time);
VOID FreeProcessCapture(ProcessCapture *Capture);

// ZwQueryInformationThread, bound at phase 0 when the system has it.
typedef NTSTATUS NTAPI ZW_QUERY_INFORMATION_THREAD(HANDLE ThreadHandle, THREADINFOCLASS ThreadInformationClass,
                                                   PVOID ThreadInformation, ULONG ThreadInformationLength,
                                                   PULONG ReturnLength);
extern ZW_QUERY_INFORMATION_THREAD *QueryInformationThread;
extern PVOID OpenProcessTokenExRoutine;
