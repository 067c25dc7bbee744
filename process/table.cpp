// The process table: entries made the first time a process is seen, their
// references, and the three roads out of the table. Everything that touches
// a process runs without ProcessTableLock; the lock covers only the table's
// own work, so that an entry becomes visible to other threads fully built.
#include "process/table.h"

#include "base/exports.h"
#include "base/locks.h"
#include "base/strings.h"
#include "base/trace.h"
#include "base/workqueue.h"
#include "eventstream/globals.h"

// The monitors read ProcessEntry in place: its layout is a contract.
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, ProcessObject) == 4);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, CreateTime) == 8);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, ProcessId) == 16);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, ParentCreateTime) == 24);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, ImageFileName) == 32);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, CommandLine) == 48);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, Terminated) == 56);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, ActorLock) == 60);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, ActorRecord) == 68);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, AncestorImages) == 72);
TEXPRT_ASSERT_LAYOUT32(sizeof(AncestorImageList) == 8 + 56);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, AncestorsCollected) == 136);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, OwnWhiteList) == 140);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, ParentWhiteList) == 160);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, WhiteListResolved) == 180);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, ProcessFlags) == 184);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ProcessEntry, ProtectionValue) == 188);
TEXPRT_ASSERT_LAYOUT32(sizeof(ProcessEntry) == 192);

namespace {

constexpr ULONG TagProcess = MakePoolTag("TcPt");
// The search for the process name in the current process object.
constexpr ULONG ProcessObjectScanBytes = 12288;
// ZwOpenProcessTokenEx is bound from this build on.
constexpr ULONG OpenProcessTokenExMinimumBuild = 3790;

RTL_GENERIC_COMPARE_RESULTS NTAPI CompareProcessEntries(PRTL_GENERIC_TABLE Table, PVOID First, PVOID Second) {
    const ULONG A = ((const ProcessEntry *)First)->ProcessId, B = ((const ProcessEntry *)Second)->ProcessId;
    if (A < B) return GenericLessThan;
    if (A > B) return GenericGreaterThan;
    return GenericEqual;
}

PVOID NTAPI AllocateProcessTableNode(PRTL_GENERIC_TABLE Table, CLONG ByteSize) {
    PVOID Node = PoolAlloc(DefaultPool, ByteSize, TagProcess);
    if (Node != nullptr) RtlZeroMemory(Node, ByteSize);
    return Node;
}

VOID NTAPI FreeProcessTableNode(PRTL_GENERIC_TABLE Table, PVOID Buffer) { PoolFree(Buffer); }

ProcessEntry *LookUp(ULONG ProcessId) {
    ProcessEntry Key;
    RtlZeroMemory(&Key, sizeof(Key));
    Key.ProcessId = ProcessId;
    return (ProcessEntry *)RtlLookupElementGenericTable(&ProcessTable, &Key);
}

BOOLEAN Delete(ULONG ProcessId) {
    ProcessEntry Key;
    RtlZeroMemory(&Key, sizeof(Key));
    Key.ProcessId = ProcessId;
    return RtlDeleteElementGenericTable(&ProcessTable, &Key);
}

// A zero-timeout poll: anything but a time-out means the process has ended.
BOOLEAN HasEnded(PVOID ProcessObject) {
    LARGE_INTEGER Zero;
    Zero.QuadPart = 0;
    return KeWaitForSingleObject(ProcessObject, Executive, KernelMode, FALSE, &Zero) != STATUS_TIMEOUT;
}

VOID ReleaseProcessEntryContents(ProcessEntry *Entry) {
    if (Entry->ProcessObject != nullptr) ObfDereferenceObject(Entry->ProcessObject);
    Entry->ProcessObject = nullptr;
    FreeUnicodeString(&Entry->Win32ImagePath);
    FreeUnicodeString(&Entry->ImageFileName);
    FreeUnicodeString(&Entry->CommandLine);
    PoolFree(Entry->ActorLock);
    Entry->ActorLock = nullptr;
    if (Entry->ActorRecordSize != 0 && Entry->ActorRecord != nullptr) PoolFree(Entry->ActorRecord);
    Entry->ActorRecord = nullptr;
    Entry->ActorRecordSize = 0;
    DeleteAncestorImageList(&Entry->AncestorImages);
}

VOID NTAPI DeferredDeleteWorker(PVOID Context) {
    FastMutexGuard Guard(&ProcessTableLock);
    for (PLIST_ENTRY Link = DeferredDeleteList.Flink; Link != &DeferredDeleteList;) {
        PLIST_ENTRY Next = Link->Flink;
        DeferredDeleteNode *Node = CONTAINING_RECORD(Link, DeferredDeleteNode, Link);
        ProcessEntry *Entry = LookUp(Node->ProcessId);
        BOOLEAN Done = Entry == nullptr;
        if (Entry != nullptr && Entry->ReferenceCount == 0) {
            // Whether the process has ended is not asked again: the node
            // says it has, even when the id has come back meanwhile.
            ReleaseProcessEntryContents(Entry);
            Done = Delete(Node->ProcessId);
        }
        if (Done) {
            RemoveEntryList(Link);
            PoolFree(Node);
        }
        Link = Next;
    }
}

// A dereferenced entry that cannot go yet: a node for the worker, and the
// worker queued. Either allocation may fail; the entry then waits for the
// next dereference that sets Terminated, or for cleanup.
VOID DeferDelete(ULONG ProcessId) {
    auto *Node = (DeferredDeleteNode *)PoolAlloc(DefaultPool, sizeof(DeferredDeleteNode), TagProcess);
    if (Node != nullptr) {
        Node->ProcessId = ProcessId;
        InsertTailList(&DeferredDeleteList, &Node->Link);
    } else {
        TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
    }
    WorkItem *Item = NewWorkItem();
    if (Item == nullptr) {
        TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
        return;
    }
    PrepareWorkItem(Item, DeferredDeleteWorker, nullptr, nullptr);
    QueueWorkItem(Item, &LibraryWorkQueue);
}

// Where the two roads into the table differ.
enum class EntryRoad { Lookup, Enumeration };

// Reads everything an entry holds from the live process, with no lock held.
// FALSE: no entry is to be made.
BOOLEAN CaptureProcess(ULONG ProcessId, EntryRoad Road, const SYSTEM_PROCESS_INFORMATION *Record,
                       ProcessCapture *Capture) {
    RtlZeroMemory(Capture, sizeof(*Capture));
    Capture->Handle = OpenProcess(ProcessId);
    if (Capture->Handle == nullptr) return FALSE;
    NTSTATUS Status = CaptureImageFileName(Capture->Handle, ProcessId, &Capture->ImageFileName);
    if (!NT_SUCCESS(Status)) return FALSE;

    KERNEL_USER_TIMES Times;
    RtlZeroMemory(&Times, sizeof(Times));
    Status = ZwQueryInformationProcess(Capture->Handle, ProcessTimes, &Times, sizeof(Times), nullptr);
    if (Road == EntryRoad::Enumeration) {
        if (!NT_SUCCESS(Status)) return FALSE;
        if (Record->CreateTime.QuadPart == 0) {
            if (!QueryBootTime(&Times.CreateTime)) return FALSE;
        } else if (Times.CreateTime.QuadPart != Record->CreateTime.QuadPart) {
            // The id was given to another process between the snapshot and
            // the open.
            return FALSE;
        }
    } else if (Times.CreateTime.QuadPart == 0 && !QueryBootTime(&Times.CreateTime)) {
        // The system process reports no creation time; without the boot
        // time it stays 0.
        Times.CreateTime.QuadPart = 0;
    }
    Capture->CreateTime = Times.CreateTime;

    PROCESS_BASIC_INFORMATION Basic;
    RtlZeroMemory(&Basic, sizeof(Basic));
    Status = ZwQueryInformationProcess(Capture->Handle, ProcessBasicInformation, &Basic, sizeof(Basic), nullptr);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        if (Road == EntryRoad::Enumeration) return FALSE;
    } else {
        if (Basic.PebBaseAddress != nullptr) {
            Status = CaptureWin32ImagePath(Capture->Handle, Basic.PebBaseAddress, &Capture->Win32ImagePath);
            if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
            Status = Road == EntryRoad::Lookup
                         ? CaptureCommandLineArguments(Capture->Handle, Basic.PebBaseAddress, &Capture->CommandLine)
                         : CaptureCommandLine(Capture->Handle, Basic.PebBaseAddress, &Capture->CommandLine);
            if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
        }
        Capture->ParentProcessId = (ULONG)Basic.InheritedFromUniqueProcessId;
    }

    // Without the object the entry has no rundown; the status is not asked.
    PVOID Object = nullptr;
    if (NT_SUCCESS(ObReferenceObjectByHandle(Capture->Handle, 0, nullptr, KernelMode, &Object, nullptr)))
        Capture->ProcessObject = Object;
    ZwClose(Capture->Handle);
    Capture->Handle = nullptr;
    // The protection verdict of the image joins here with the protection
    // rule set.
    return TRUE;
}

// Makes the entry of a process, or finds the one another thread made while
// this one captured. Lookup: the entry with one reference taken. Enumeration:
// an entry found is left alone, a new one has no reference; null either way.
ProcessEntry *MakeProcessEntry(ULONG ProcessId, EntryRoad Road, const SYSTEM_PROCESS_INFORMATION *Record) {
    {
        FastMutexGuard Guard(&ProcessTableLock);
        ProcessEntry *Entry = LookUp(ProcessId);
        if (Entry != nullptr) {
            if (Road == EntryRoad::Enumeration) return nullptr;
            InterlockedIncrement(&Entry->ReferenceCount);
            return Entry;
        }
    }

    ProcessCapture Capture;
    if (!CaptureProcess(ProcessId, Road, Record, &Capture)) {
        FreeProcessCapture(&Capture);
        return nullptr;
    }

    ProcessEntry *Made = nullptr;
    {
        FastMutexGuard Guard(&ProcessTableLock);
        ProcessEntry *Entry = LookUp(ProcessId);
        if (Entry != nullptr) {
            // Another thread was quicker: its entry stands.
            if (Road == EntryRoad::Lookup) {
                InterlockedIncrement(&Entry->ReferenceCount);
                Made = Entry;
            }
        } else {
            auto *ActorLock = (PFAST_MUTEX)PoolAlloc(DefaultPool, sizeof(FAST_MUTEX), TagProcess);
            if (ActorLock == nullptr) {
                TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
            } else {
                ExInitializeFastMutex(ActorLock);
                PlatformRankLock(ActorLock, LockRankActor, "ActorLock");
                ProcessEntry Fresh;
                RtlZeroMemory(&Fresh, sizeof(Fresh));
                Fresh.ProcessId = ProcessId;
                Fresh.ActorLock = ActorLock;
                BOOLEAN Inserted = FALSE;
                Entry = (ProcessEntry *)RtlInsertElementGenericTable(&ProcessTable, &Fresh, sizeof(Fresh), &Inserted);
                if (Entry == nullptr || !Inserted) {
                    TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
                    PoolFree(ActorLock);
                } else {
                    Entry->CreateTime = Capture.CreateTime;
                    const NTSTATUS Status = DuplicateUnicodeString(&Entry->ImageFileName, &Capture.ImageFileName,
                                                                   TagProcess);
                    if (!NT_SUCCESS(Status)) {
                        TRACE_STATUS(Status);
                        Delete(ProcessId);
                        PoolFree(ActorLock);
                    } else {
                        // Handed over without a copy.
                        Entry->Win32ImagePath = Capture.Win32ImagePath;
                        Entry->CommandLine = Capture.CommandLine;
                        Entry->ProcessObject = Capture.ProcessObject;
                        RtlZeroMemory(&Capture.Win32ImagePath, sizeof(UNICODE_STRING));
                        RtlZeroMemory(&Capture.CommandLine, sizeof(UNICODE_STRING));
                        Capture.ProcessObject = nullptr;
                        Entry->ParentProcessId = Capture.ParentProcessId;
                        Entry->AncestorsCollected = 0;
                        Entry->WhiteListResolved = 0;
                        Entry->ParentCreateTime.QuadPart = 0;
                        InitializeAncestorImageList(&Entry->AncestorImages);
                        RtlZeroMemory(&Entry->OwnWhiteList, sizeof(Entry->OwnWhiteList));
                        RtlZeroMemory(&Entry->ParentWhiteList, sizeof(Entry->ParentWhiteList));
                        // The ancestors and the whitelist state of a new entry
                        // are resolved here, still under the lock, once the
                        // whitelist propagation joins the table.
                        if (Road == EntryRoad::Lookup) {
                            InterlockedIncrement(&Entry->ReferenceCount);
                            Made = Entry;
                        }
                    }
                }
            }
        }
    }
    FreeProcessCapture(&Capture);
    return Made;
}

}  // namespace

NTSTATUS InitializeProcessGlobals() {
    InitializeListHead(&DeferredDeleteList);
    RtlInitializeGenericTable(&ProcessTable, CompareProcessEntries, AllocateProcessTableNode, FreeProcessTableNode,
                              nullptr);
    ExInitializeFastMutex(&ProcessTableLock);
    PlatformRankLock(&ProcessTableLock, LockRankProcessTable, "ProcessTableLock");

    // The name's place in the process object, for the debugger's eye: phase
    // 0 runs in the system process, whose object names it "System".
    const UCHAR *Object = (const UCHAR *)PsGetCurrentProcess();
    static const char Name[] = "System";
    ProcessNameOffset = 0;
    for (ULONG Offset = 0; Offset + sizeof(Name) - 1 <= ProcessObjectScanBytes; ++Offset) {
        if (RtlCompareMemory(Object + Offset, Name, sizeof(Name) - 1) == sizeof(Name) - 1) {
            ProcessNameOffset = Offset;
            break;
        }
    }
    SystemProcessId = (ULONG)(ULONG_PTR)PsGetCurrentProcessId();

    UNICODE_STRING Routine = CONST_UNICODE_STRING(WIDE("ZwQueryInformationThread"));
    QueryInformationThread = (ZW_QUERY_INFORMATION_THREAD *)MmGetSystemRoutineAddress(&Routine);
    RTL_OSVERSIONINFOW Version;
    RtlZeroMemory(&Version, sizeof(Version));
    Version.dwOSVersionInfoSize = sizeof(Version);
    if (NT_SUCCESS(RtlGetVersion(&Version)) && Version.dwBuildNumber >= OpenProcessTokenExMinimumBuild) {
        UNICODE_STRING TokenRoutine = CONST_UNICODE_STRING(WIDE("ZwOpenProcessTokenEx"));
        OpenProcessTokenExRoutine = MmGetSystemRoutineAddress(&TokenRoutine);
    }
    return STATUS_SUCCESS;
}

NTSTATUS StopProcessTable() {
    FastMutexGuard Guard(&ProcessTableLock);
    PVOID Restart = nullptr;
    auto *Entry = (ProcessEntry *)RtlEnumerateGenericTableWithoutSplaying(&ProcessTable, &Restart);
    while (Entry != nullptr) {
        ReleaseProcessEntryContents(Entry);
        // The walk's place is the next entry before this one goes.
        auto *Next = (ProcessEntry *)RtlEnumerateGenericTableWithoutSplaying(&ProcessTable, &Restart);
        Delete(Entry->ProcessId);
        Entry = Next;
    }
    while (!IsListEmpty(&DeferredDeleteList)) {
        PLIST_ENTRY Link = RemoveHeadList(&DeferredDeleteList);
        PoolFree(CONTAINING_RECORD(Link, DeferredDeleteNode, Link));
    }
    return STATUS_SUCCESS;
}

VOID SweepProcessTable() {
    FastMutexGuard Guard(&ProcessTableLock);
    PVOID Restart = nullptr;
    for (auto *Entry = (ProcessEntry *)RtlEnumerateGenericTableWithoutSplaying(&ProcessTable, &Restart);
         Entry != nullptr; Entry = (ProcessEntry *)RtlEnumerateGenericTableWithoutSplaying(&ProcessTable, &Restart)) {
        // An entry with references, or below zero, or with no object to
        // poll, is not the rundown's.
        if (Entry->ReferenceCount != 0 || Entry->ProcessObject == nullptr || !HasEnded(Entry->ProcessObject)) continue;
        const ULONG ProcessId = Entry->ProcessId;
        ReleaseProcessEntryContents(Entry);
        // A delete reshapes the tree under the walk: start again from the
        // first entry.
        if (Delete(ProcessId)) Restart = nullptr;
    }
}

VOID AddExistingProcess(const SYSTEM_PROCESS_INFORMATION *Record) {
    MakeProcessEntry((ULONG)(ULONG_PTR)Record->UniqueProcessId, EntryRoad::Enumeration, Record);
}

VOID ResolveExistingProcesses() {
    FastMutexGuard Guard(&ProcessTableLock);
    PVOID Restart = nullptr;
    for (auto *Entry = (ProcessEntry *)RtlEnumerateGenericTableWithoutSplaying(&ProcessTable, &Restart);
         Entry != nullptr; Entry = (ProcessEntry *)RtlEnumerateGenericTableWithoutSplaying(&ProcessTable, &Restart)) {
        // The ancestors and the whitelist state of each entry are resolved
        // here once the whitelist propagation joins the table.
        const ProcessEntry *Parent = LookUp(Entry->ParentProcessId);
        // A "parent" that is not older than its child is another process
        // that has the parent's old id.
        Entry->ParentCreateTime.QuadPart =
            Parent != nullptr && Parent->CreateTime.QuadPart < Entry->CreateTime.QuadPart ? Parent->CreateTime.QuadPart
                                                                                           : 0;
    }
}

VOID InitializeAncestorImageList(AncestorImageList *List) {
    ExInitializeResourceLite(&List->Lock);
    PlatformRankLock(&List->Lock, LockRankAncestorImages, "AncestorImages");
    InitializeListHead(&List->Head);
}

NTSTATUS AppendAncestorImage(AncestorImageList *List, PCUNICODE_STRING Image) {
    auto *Node = (AncestorImageNode *)PoolAlloc(DefaultPool, sizeof(AncestorImageNode), TagProcess);
    if (Node == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(Node, sizeof(*Node));
    if (!NT_SUCCESS(DuplicateUnicodeString(&Node->Image, Image, TagProcess))) {
        PoolFree(Node);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ExclusiveResourceGuard Guard(&List->Lock);
    InsertTailList(&List->Head, &Node->Link);
    return STATUS_SUCCESS;
}

NTSTATUS CopyAncestorImages(AncestorImageList *Destination, AncestorImageList *Source) {
    SharedResourceGuard Guard(&Source->Lock);
    for (PLIST_ENTRY Link = Source->Head.Flink; Link != &Source->Head; Link = Link->Flink) {
        const NTSTATUS Status =
            AppendAncestorImage(Destination, &CONTAINING_RECORD(Link, AncestorImageNode, Link)->Image);
        if (!NT_SUCCESS(Status)) return Status;
    }
    return STATUS_SUCCESS;
}

VOID DeleteAncestorImageList(AncestorImageList *List) {
    {
        ExclusiveResourceGuard Guard(&List->Lock);
        while (!IsListEmpty(&List->Head)) {
            auto *Node = CONTAINING_RECORD(RemoveHeadList(&List->Head), AncestorImageNode, Link);
            FreeUnicodeString(&Node->Image);
            PoolFree(Node);
        }
    }
    ExDeleteResourceLite(&List->Lock);
}

TEXPRT_EXPORT ProcessEntry *NTAPI FindProcessEntry(ULONG ProcessId) {
    EXPORT_ENTRY(FindProcessEntry);
    FastMutexGuard Guard(&ProcessTableLock);
    ProcessEntry *Entry = LookUp(ProcessId);
    if (Entry != nullptr) InterlockedIncrement(&Entry->ReferenceCount);
    return Entry;
}

TEXPRT_EXPORT ProcessEntry *NTAPI FindOrCreateProcessEntry(ULONG ProcessId) {
    EXPORT_ENTRY(FindOrCreateProcessEntry);
    return MakeProcessEntry(ProcessId, EntryRoad::Lookup, nullptr);
}

TEXPRT_EXPORT VOID NTAPI DereferenceProcess(ULONG ProcessId, UCHAR Force) {
    EXPORT_ENTRY(DereferenceProcess);
    FastMutexGuard Guard(&ProcessTableLock);
    ProcessEntry *Entry = LookUp(ProcessId);
    if (Entry == nullptr) return;
    if (Force != 0) {
        Entry->Terminated = 1;
    } else if (Entry->ProcessObject != nullptr && HasEnded(Entry->ProcessObject)) {
        Entry->Terminated = 1;
    }
    const LONG Count = InterlockedDecrement(&Entry->ReferenceCount);
    if (Entry->Terminated != 1) return;  // the entry stays; the rundown sees to it
    if (Count == 0) {
        ReleaseProcessEntryContents(Entry);
        if (Delete(ProcessId)) return;
    }
    // Terminated but still referenced, or its delete failed.
    DeferDelete(ProcessId);
}
