// The actor of an event: the acting process's identity as one flat block a
// monitor attaches to its events, built from the process table entry, the
// process's security descriptor and its user's SID, and cached on the entry
// for good once built.
#include "process/table.h"

#include "base/exports.h"
#include "base/locks.h"
#include "base/strings.h"
#include "base/trace.h"

TEXPRT_ASSERT_LAYOUT32(sizeof(ActorInformation) == 32);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ActorInformation, CreateTime) == 12);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ActorInformation, Win32ImagePathLength) == 20);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ActorInformation, SecurityDescriptorLength) == 24);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(ActorInformation, SidLength) == 28);

namespace {

constexpr ULONG TagActor = MakePoolTag("TcAc");
constexpr ULONG AllSecurityInformation = 15;  // owner, group, DACL, SACL
constexpr ACCESS_MASK TokenRead = 0x20008;
constexpr ULONG TokenStatisticsSize = 56;
constexpr ULONG FailedTokenWord = 0xFFFFFFFF;

// What the block is built from besides the entry.
struct ActorParts {
    HANDLE Process;
    HANDLE Token;
    ULONG SecurityInformation;
    PVOID Descriptor;
    ULONG DescriptorLength;  // may be non-zero with no descriptor
    PTOKEN_USER User;
    UCHAR SidLength;
    NTSTATUS TokenStatus;
};

// The security data of a process, each part as far as it can be had: a
// process that cannot be opened gives none and no failure, a token that
// cannot be opened gives its status.
VOID GatherActorParts(ULONG ProcessId, ActorParts *Parts) {
    RtlZeroMemory(Parts, sizeof(*Parts));
    Parts->TokenStatus = STATUS_SUCCESS;
    Parts->Process = OpenProcess(ProcessId);
    if (Parts->Process == nullptr) {
        TRACE_MESSAGE("the process cannot be opened");
        return;
    }
    Parts->Descriptor =
        ProcessGetSecurityDescriptor(Parts->Process, &Parts->SecurityInformation, &Parts->DescriptorLength);
    if (Parts->Descriptor == nullptr) TRACE_MESSAGE("no security descriptor");
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    Parts->TokenStatus = ZwOpenProcessTokenEx(Parts->Process, TokenRead, OBJ_KERNEL_HANDLE, &Parts->Token);
    if (!NT_SUCCESS(Parts->TokenStatus)) {
        TRACE_STATUS(Parts->TokenStatus);
        Parts->Token = nullptr;
        return;
    }
    Parts->User = (PTOKEN_USER)ProcessGetTokenInformation(Parts->Token, nullptr, nullptr, nullptr, nullptr, nullptr);
    // The length is cut to its low byte, here and in the block's size.
    if (Parts->User != nullptr) Parts->SidLength = (UCHAR)RtlLengthSid(Parts->User->User.Sid);
}

VOID ReleaseActorParts(ActorParts *Parts) {
    if (Parts->Token != nullptr) ZwClose(Parts->Token);
    if (Parts->Process != nullptr) ZwClose(Parts->Process);
    PoolFree(Parts->User);
    PoolFree(Parts->Descriptor);
    RtlZeroMemory(Parts, sizeof(*Parts));
}

// Nothing in the block is aligned: the texts, the descriptor (when there is
// one; its room is kept, zeroed, when only its length came back) and the SID
// follow each other.
ULONG ActorBlockSize(const ProcessEntry *Entry, const ActorParts &Parts) {
    return sizeof(ActorInformation) + Entry->Win32ImagePath.Length + Entry->ImageFileName.Length +
           Parts.DescriptorLength + Parts.SidLength;
}

ActorInformation *BuildActorBlock(const ProcessEntry *Entry, const ActorParts &Parts, ULONG Size) {
    auto *Block = (ActorInformation *)PoolAlloc(DefaultPool, Size, TagActor);
    if (Block == nullptr) return nullptr;
    RtlZeroMemory(Block, Size);
    Block->ProcessId = Entry->ProcessId;
    Block->CreateTime = Entry->CreateTime;
    // A cached block keeps the id of the thread that built it.
    Block->ThreadId = (ULONG)(ULONG_PTR)PsGetCurrentThreadId();
    Block->SecurityInformation = Parts.SecurityInformation;
    Block->Win32ImagePathLength = Entry->Win32ImagePath.Length;
    Block->ImageFileNameLength = Entry->ImageFileName.Length;
    PUCHAR Cursor = (PUCHAR)(Block + 1);
    if (Entry->Win32ImagePath.Length != 0) RtlCopyMemory(Cursor, Entry->Win32ImagePath.Buffer, Entry->Win32ImagePath.Length);
    Cursor += Entry->Win32ImagePath.Length;
    if (Entry->ImageFileName.Length != 0) RtlCopyMemory(Cursor, Entry->ImageFileName.Buffer, Entry->ImageFileName.Length);
    Cursor += Entry->ImageFileName.Length;
    if (Parts.DescriptorLength != 0 && Parts.Descriptor != nullptr) {
        RtlCopyMemory(Cursor, Parts.Descriptor, Parts.DescriptorLength);
        Block->SecurityDescriptorLength = Parts.DescriptorLength;
    }
    Cursor += Parts.DescriptorLength;
    if (Parts.SidLength != 0) {
        RtlCopyMemory(Cursor, Parts.User->User.Sid, Parts.SidLength);
        Block->SidLength = Parts.SidLength;
    }
    return Block;
}

// A copy of the cached block, if there is one. *Cached says whether there
// was; a failed copy leaves *Copy null.
ActorInformation *CopyCachedBlock(ProcessEntry *Entry, ULONG *Size, BOOLEAN *Cached) {
    FastMutexGuard Guard(Entry->ActorLock);
    *Cached = Entry->ActorRecord != nullptr && Entry->ActorRecordSize != 0;
    if (!*Cached) return nullptr;
    auto *Copy = (ActorInformation *)PoolAlloc(DefaultPool, Entry->ActorRecordSize, TagActor);
    if (Copy == nullptr) return nullptr;
    RtlCopyMemory(Copy, Entry->ActorRecord, Entry->ActorRecordSize);
    *Size = Entry->ActorRecordSize;
    return Copy;
}

BOOLEAN IsCached(ProcessEntry *Entry) {
    FastMutexGuard Guard(Entry->ActorLock);
    return Entry->ActorRecord != nullptr && Entry->ActorRecordSize != 0;
}

// Stores the block as the entry's cache unless another thread was quicker;
// TRUE when Block went into the cache.
BOOLEAN CacheBlock(ProcessEntry *Entry, ActorInformation *Block, ULONG Size) {
    FastMutexGuard Guard(Entry->ActorLock);
    if (Entry->ActorRecord != nullptr) return FALSE;
    Entry->ActorRecord = Block;
    Entry->ActorRecordSize = Size;
    return TRUE;
}

// Stores a copy of the block as the cache if it is still empty; a copy
// that cannot be made leaves it empty, unreported.
VOID CacheCopy(ProcessEntry *Entry, const ActorInformation *Block, ULONG Size) {
    FastMutexGuard Guard(Entry->ActorLock);
    if (Entry->ActorRecord != nullptr) return;
    auto *Copy = (ActorInformation *)PoolAlloc(DefaultPool, Size, TagActor);
    if (Copy == nullptr) return;
    RtlCopyMemory(Copy, Block, Size);
    Entry->ActorRecord = Copy;
    Entry->ActorRecordSize = Size;
}

// A token query of one 32-bit word; a failure gives -1.
VOID QueryTokenWord(HANDLE Token, TOKEN_INFORMATION_CLASS Class, PULONG Word) {
    ULONG Returned = 0;
    if (!NT_SUCCESS(ZwQueryInformationToken(Token, Class, Word, sizeof(ULONG), &Returned))) *Word = FailedTokenWord;
}

// The two-step query: the size, then a pool block of it. Null on a failure.
PVOID QueryTokenBlock(HANDLE Token, TOKEN_INFORMATION_CLASS Class, BOOLEAN *SizeKnown) {
    ULONG Size = 0;
    *SizeKnown = FALSE;
    if (ZwQueryInformationToken(Token, Class, nullptr, 0, &Size) != STATUS_BUFFER_TOO_SMALL) return nullptr;
    *SizeKnown = TRUE;
    PVOID Block = PoolAlloc(DefaultPool, Size, TagActor);
    if (Block == nullptr) return nullptr;
    if (!NT_SUCCESS(ZwQueryInformationToken(Token, Class, Block, Size, &Size))) {
        PoolFree(Block);
        return nullptr;
    }
    return Block;
}

BOOLEAN MarkProcessAsTrusted(ULONG ProcessId) {
    ProcessEntry *Entry = FindOrCreateProcessEntry(ProcessId);
    if (Entry == nullptr) {
        TRACE_STATUS(STATUS_OBJECTID_NOT_FOUND);
        return FALSE;
    }
    // Set without the table lock, and never cleared: the entry's removal
    // ends it.
    InterlockedOr((volatile LONG *)&Entry->ProcessFlags, TEXPRT_PROCESS_TRUSTED);
    DereferenceProcess(Entry->ProcessId, 0);
    return TRUE;
}

}  // namespace

TEXPRT_EXPORT PVOID NTAPI ProcessGetSecurityDescriptor(HANDLE Process, PULONG SecurityInformation, PULONG Length) {
    EXPORT_ENTRY(ProcessGetSecurityDescriptor);
    if (SecurityInformation == nullptr || Length == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return nullptr;
    }
    *SecurityInformation = AllSecurityInformation;
    NTSTATUS Status = ZwQuerySecurityObject(Process, AllSecurityInformation, nullptr, *Length, Length);
    if (Status != STATUS_BUFFER_TOO_SMALL) return nullptr;
    PVOID Descriptor = PoolAlloc(DefaultPool, *Length, TagActor);
    if (Descriptor == nullptr) return nullptr;
    // A failed second query keeps the length the first one reported.
    Status = ZwQuerySecurityObject(Process, AllSecurityInformation, Descriptor, *Length, Length);
    if (!NT_SUCCESS(Status)) {
        PoolFree(Descriptor);
        return nullptr;
    }
    return Descriptor;
}

TEXPRT_EXPORT PVOID NTAPI ProcessGetTokenInformation(HANDLE Token, PVOID Statistics, PULONG Virtualization,
                                                     PVOID *IntegrityLevel, PULONG Elevation, PULONG ElevationType) {
    EXPORT_ENTRY(ProcessGetTokenInformation);
    BOOLEAN SizeKnown;
    PVOID User = QueryTokenBlock(Token, TokenUser, &SizeKnown);
    // Each further answer is asked for whether or not the user was.
    if (Statistics != nullptr) {
        ULONG Returned = 0;
        ZwQueryInformationToken(Token, TokenStatistics, Statistics, TokenStatisticsSize, &Returned);
    }
    if (Virtualization != nullptr) QueryTokenWord(Token, TokenVirtualizationEnabled, Virtualization);
    if (IntegrityLevel != nullptr) {
        PVOID Label = QueryTokenBlock(Token, TokenIntegrityLevel, &SizeKnown);
        // A query that did not even give a size leaves the pointer as it was.
        if (Label != nullptr || SizeKnown) *IntegrityLevel = Label;
    }
    if (Elevation != nullptr) QueryTokenWord(Token, TokenElevation, Elevation);
    if (ElevationType != nullptr) QueryTokenWord(Token, TokenElevationType, ElevationType);
    return User;
}

TEXPRT_EXPORT NTSTATUS NTAPI GetActorInformation(ActorInformation **Actor, PULONG Size) {
    EXPORT_ENTRY(GetActorInformation);
    if (Actor == nullptr || Size == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    *Actor = nullptr;
    *Size = 0;
    ProcessEntry *Entry = FindOrCreateProcessEntry((ULONG)(ULONG_PTR)PsGetCurrentProcessId());
    if (Entry == nullptr) {
        TRACE_STATUS(STATUS_OBJECTID_NOT_FOUND);
        return STATUS_OBJECTID_NOT_FOUND;
    }
    const ULONG ProcessId = Entry->ProcessId;
    NTSTATUS Status = STATUS_SUCCESS;
    BOOLEAN Cached = FALSE;
    ULONG CopySize = 0;
    ActorInformation *Copy = CopyCachedBlock(Entry, &CopySize, &Cached);
    if (Cached) {
        if (Copy == nullptr) {
            TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
            Status = STATUS_INSUFFICIENT_RESOURCES;
        } else {
            *Actor = Copy;
            *Size = CopySize;
        }
        DereferenceProcess(ProcessId, 0);
        return Status;
    }

    ActorParts Parts;
    GatherActorParts(ProcessId, &Parts);
    const ULONG BlockSize = ActorBlockSize(Entry, Parts);
    ActorInformation *Block = BuildActorBlock(Entry, Parts, BlockSize);
    if (Block == nullptr) {
        TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
        Status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        CacheCopy(Entry, Block, BlockSize);
        // A token that could not be opened fails this call, but the block
        // without a SID stays cached, and later calls succeed with it.
        Status = Parts.TokenStatus;
        if (NT_SUCCESS(Status)) {
            *Actor = Block;
            *Size = BlockSize;
            Block = nullptr;
        }
    }
    PoolFree(Block);
    ReleaseActorParts(&Parts);
    DereferenceProcess(ProcessId, 0);
    return Status;
}

TEXPRT_EXPORT NTSTATUS NTAPI GetActorProcessReference(ULONG ProcessId, ProcessEntry **Entry) {
    EXPORT_ENTRY(GetActorProcessReference);
    if (ProcessId == 0 || Entry == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    ProcessEntry *Found = FindOrCreateProcessEntry(ProcessId);
    if (Found == nullptr) {
        TRACE_STATUS(STATUS_OBJECTID_NOT_FOUND);
        return STATUS_OBJECTID_NOT_FOUND;
    }
    // From here on the caller holds a reference, whatever the status.
    *Entry = Found;
    if (IsCached(Found)) return STATUS_SUCCESS;

    ActorParts Parts;
    GatherActorParts(ProcessId, &Parts);
    const ULONG BlockSize = ActorBlockSize(Found, Parts);
    ActorInformation *Block = BuildActorBlock(Found, Parts, BlockSize);
    NTSTATUS Status;
    if (Block == nullptr) {
        TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
        Status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        // Stored first: no token status takes the cache away again.
        if (!CacheBlock(Found, Block, BlockSize)) PoolFree(Block);
        Status = Parts.TokenStatus;
    }
    ReleaseActorParts(&Parts);
    return Status;
}

TEXPRT_EXPORT BOOLEAN NTAPI IsActorWhiteListed(PULONG ProcessId) {
    EXPORT_ENTRY(IsActorWhiteListed);
    ProcessEntry *Entry = FindOrCreateProcessEntry(ProcessId != nullptr ? *ProcessId
                                                                        : (ULONG)(ULONG_PTR)PsGetCurrentProcessId());
    if (Entry == nullptr) {
        TRACE_STATUS(STATUS_OBJECTID_NOT_FOUND);
        return FALSE;
    }
    const BOOLEAN WhiteListed = Entry->OwnWhiteList.WhiteListHeader != 0 || Entry->OwnWhiteList.UnknownRuleSeen != 0;
    DereferenceProcess(Entry->ProcessId, 0);
    return WhiteListed;
}

TEXPRT_EXPORT BOOLEAN NTAPI TcMarkProcessAsTrusted(PULONG ProcessId) {
    EXPORT_ENTRY(TcMarkProcessAsTrusted);
    return MarkProcessAsTrusted(*ProcessId);
}
