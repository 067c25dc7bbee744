// Filter event objects: the matcher's view of one event, built by the
// monitor in two calls and released by a third. The objects are the
// caller's memory; the library fills and frees only what hangs off them.
// Every name is an upper-cased private copy with a NUL behind it, so that a
// rule's upper-cased strings compare with it byte for byte and the name can
// be searched with wcschr.
#include "platform/nt.h"

#include "base/strings.h"
#include "base/trace.h"
#include "include/texprt.h"
#include "rules/match.h"

TEXPRT_ASSERT_LAYOUT32(sizeof(ActorInformation) == 32);
TEXPRT_ASSERT_LAYOUT32(sizeof(MatchedContext) == 24);
TEXPRT_ASSERT_LAYOUT32(sizeof(WhiteListState) == 20);
TEXPRT_ASSERT_LAYOUT32(sizeof(EventInfo) == 16);
TEXPRT_ASSERT_LAYOUT32(sizeof(FilterResult) == 64);
static_assert(sizeof(ActorInformation) == 32, "the actor block's fixed part is 32 bytes on every target");
static_assert(sizeof(MatchedContext) == 24, "matched contexts are 24-byte array elements");

namespace {

enum class TrailingBackslash { Keep, Drop };

// The one name copy of every Initialize: MaximumLength is Length + 2 in
// 16-bit arithmetic, a NUL stands behind the text, and the copy is
// upper-cased. Drop takes off one trailing backslash; MaximumLength stays.
NTSTATUS CopyObjectName(PUNICODE_STRING Destination, PCUNICODE_STRING Source, TrailingBackslash Trailing) {
    if (Source->Buffer == nullptr && Source->Length != 0) return STATUS_INVALID_PARAMETER;
    Destination->Length = Source->Length;
    Destination->MaximumLength = (USHORT)(Source->Length + sizeof(WCHAR));
    Destination->Buffer = (PWCH)PoolAlloc(DefaultPool, Destination->MaximumLength, TagEventObject);
    if (Destination->Buffer == nullptr) {
        RtlZeroMemory(Destination, sizeof(*Destination));
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const USHORT Chars = Source->Length / sizeof(WCHAR);
    // The caller's text is copied byte for byte and upcased in its new,
    // aligned place: a name at an odd address is read like any other, and
    // the upcase never sees the caller's buffer. The destination is large
    // enough and nothing is allocated, so the upcase cannot fail.
    if (Source->Length != 0) RtlCopyMemory(Destination->Buffer, Source->Buffer, Source->Length);
    Destination->Buffer[Chars] = 0;
    (void)RtlUpcaseUnicodeString(Destination, Destination, FALSE);
    if (Trailing == TrailingBackslash::Drop && Chars != 0 && Destination->Buffer[Chars - 1] == WIDE('\\')) {
        Destination->Buffer[Chars - 1] = 0;
        Destination->Length -= sizeof(WCHAR);
    }
    return STATUS_SUCCESS;
}

// An optional string: a null pointer or an empty one leaves the field empty.
BOOLEAN IsGiven(PCUNICODE_STRING Source) { return Source != nullptr && Source->Length != 0; }

// A required name and an optional second one: when the second cannot be
// copied, the first is released again.
NTSTATUS CopyNameWithOptional(PUNICODE_STRING First, PCUNICODE_STRING FirstSource, TrailingBackslash Trailing,
                              PUNICODE_STRING Second, PCUNICODE_STRING SecondSource) {
    NTSTATUS Status = CopyObjectName(First, FirstSource, Trailing);
    if (!NT_SUCCESS(Status) || !IsGiven(SecondSource)) return Status;
    Status = CopyObjectName(Second, SecondSource, TrailingBackslash::Keep);
    if (!NT_SUCCESS(Status)) FreeUnicodeString(First);
    return Status;
}

ULONGLONG JoinTime(ULONG Low, ULONG High) { return (ULONGLONG)High << 32 | Low; }

// Process and network objects own a copy of the actor block, so matching
// does not depend on the caller's buffer.
NTSTATUS CaptureEventInfo(EventInfo *Event, ULONG TimeLow, ULONG TimeHigh, const ActorInformation *Actor,
                          ULONG ActorSize) {
    if (Event == nullptr || JoinTime(TimeLow, TimeHigh) == 0 || Actor == nullptr || ActorSize == 0)
        return STATUS_INVALID_PARAMETER;
    auto *Copy = (ActorInformation *)PoolAlloc(DefaultPool, ActorSize, TagEventObject);
    if (Copy == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    RtlCopyMemory(Copy, Actor, ActorSize);
    Event->ActorInfo = Copy;
    Event->EventTime = JoinTime(TimeLow, TimeHigh);
    Event->ActorInfoSize = ActorSize;
    return STATUS_SUCCESS;
}

NTSTATUS ReleaseEventInfo(EventInfo *Event) {
    if (Event == nullptr) return STATUS_INVALID_PARAMETER;
    PoolFree(Event->ActorInfo);
    RtlZeroMemory(Event, sizeof(*Event));
    return STATUS_SUCCESS;
}

VOID BorrowEventInfo(EventInfo *Event, ULONG TimeLow, ULONG TimeHigh, ActorInformation *Actor, ULONG ActorSize) {
    Event->EventTime = JoinTime(TimeLow, TimeHigh);
    Event->ActorInfoSize = ActorSize;
    Event->ActorInfo = Actor;
}

// ---------------------------------------------------------------- workers

NTSTATUS InitializeFileObject(FileObject *Object, PCUNICODE_STRING Name, USHORT PrefixLength, ULONG ObjectType,
                              ULONG Attributes, ULONG SizeLow, ULONG SizeHigh) {
    const NTSTATUS Status = CopyObjectName(&Object->Name, Name, TrailingBackslash::Drop);
    if (!NT_SUCCESS(Status)) return Status;
    Object->ObjectType = ObjectType;
    Object->Attributes = Attributes;
    Object->Size = JoinTime(SizeLow, SizeHigh);
    // The prefix is not adjusted for a backslash taken off the name. It is
    // held to the copied text, so that a prefix longer than the name never
    // reaches past the buffer.
    if (PrefixLength > Name->Length) PrefixLength = Name->Length;
    Object->VolumePrefix.Buffer = Object->Name.Buffer;
    Object->VolumePrefix.Length = PrefixLength;
    Object->VolumePrefix.MaximumLength = PrefixLength;
    return STATUS_SUCCESS;
}

NTSTATUS InitializeRegistryObject(RegistryObject *Object, PCUNICODE_STRING KeyName, PCUNICODE_STRING ValueName,
                                  ULONG ObjectType) {
    const NTSTATUS Status =
        CopyNameWithOptional(&Object->KeyName, KeyName, TrailingBackslash::Drop, &Object->ValueName, ValueName);
    if (!NT_SUCCESS(Status)) return Status;
    Object->ObjectType = ObjectType;
    return STATUS_SUCCESS;
}

NTSTATUS InitializeNetworkObject(NetworkObject *Object, USHORT LocalPort, USHORT RemotePort,
                                 PCUNICODE_STRING LocalAddress, PCUNICODE_STRING RemoteAddress) {
    if (Object == nullptr || LocalAddress == nullptr || LocalAddress->MaximumLength == 0)
        return STATUS_INVALID_PARAMETER;
    if (IsGiven(RemoteAddress) && RemoteAddress->MaximumLength == 0) return STATUS_INVALID_PARAMETER;
    Object->LocalPort = LocalPort;
    Object->RemotePort = RemotePort;
    const NTSTATUS Status = CopyNameWithOptional(&Object->LocalAddress, LocalAddress, TrailingBackslash::Keep,
                                                 &Object->RemoteAddress, RemoteAddress);
    if (!NT_SUCCESS(Status)) return Status;
    Object->ObjectType = TEXPRT_OBJECT_NETWORK;
    return STATUS_SUCCESS;
}

NTSTATUS InitializeWhiteListObject(WhiteListObject *Object, PCUNICODE_STRING ImagePath, PCUNICODE_STRING CommandLine,
                                   PCUNICODE_STRING ParentImagePath) {
    // A failure on a later string leaves the earlier ones for the caller's
    // Cleanup.
    NTSTATUS Status = CopyObjectName(&Object->ImagePath, ImagePath, TrailingBackslash::Keep);
    if (NT_SUCCESS(Status) && IsGiven(CommandLine))
        Status = CopyObjectName(&Object->CommandLine, CommandLine, TrailingBackslash::Keep);
    if (NT_SUCCESS(Status) && IsGiven(ParentImagePath))
        Status = CopyObjectName(&Object->ParentImagePath, ParentImagePath, TrailingBackslash::Keep);
    return Status;
}

// A checked export's worker status comes back as it is, traced when it is a
// failure; a refused argument is traced and reported without a worker call.
NTSTATUS Traced(NTSTATUS Status) {
    if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
    return Status;
}

NTSTATUS Refused() {
    TRACE_STATUS(STATUS_INVALID_PARAMETER);
    return STATUS_INVALID_PARAMETER;
}

BOOLEAN IsRequired(PCUNICODE_STRING String) { return String != nullptr && String->Length != 0; }

// Every Add: an object, a non-zero event time, an actor block and its size.
BOOLEAN AddArgumentsValid(const VOID *Object, ULONG TimeLow, ULONG TimeHigh, const ActorInformation *Actor,
                          ULONG ActorSize) {
    return Object != nullptr && JoinTime(TimeLow, TimeHigh) != 0 && Actor != nullptr && ActorSize != 0;
}

// Add for the objects that borrow the actor block: the values are stored as
// they are.
template <typename Object>
NTSTATUS AddBorrowedEventInfo(Object *Target, ULONG TimeLow, ULONG TimeHigh, ActorInformation *Actor,
                              ULONG ActorSize, USHORT Operation) {
    if (!AddArgumentsValid(Target, TimeLow, TimeHigh, Actor, ActorSize)) return Refused();
    BorrowEventInfo(&Target->EventInfo, TimeLow, TimeHigh, Actor, ActorSize);
    Target->Operation = Operation;
    return STATUS_SUCCESS;
}

// Add for the objects that own a copy of it; the operation is stored only
// once the copy is made. A second Add replaces the copy's pointer without
// freeing the first copy: the monitor adds once.
template <typename Object>
NTSTATUS AddCapturedEventInfo(Object *Target, ULONG TimeLow, ULONG TimeHigh, const ActorInformation *Actor,
                              ULONG ActorSize, USHORT Operation) {
    if (!AddArgumentsValid(Target, TimeLow, TimeHigh, Actor, ActorSize)) return Refused();
    const NTSTATUS Status = CaptureEventInfo(&Target->EventInfo, TimeLow, TimeHigh, Actor, ActorSize);
    if (NT_SUCCESS(Status)) Target->Operation = Operation;
    return Traced(Status);
}

}  // namespace

// ---------------------------------------------------------------- results

NTSTATUS ResetFilterResult(FilterResult *Result) {
    if (Result == nullptr) return STATUS_INVALID_PARAMETER;
    // The other masks and ExclusionSeen are left as they are: a result is
    // zero-filled once and reused for matches of one kind.
    Result->Status = STATUS_UNSUCCESSFUL;
    Result->FileOperations = 0;
    Result->DirectoryOperations = 0;
    Result->ContextCount = 0;
    Result->Contexts = nullptr;
    Result->RuleFlags = 0;
    ClearWhiteListState(&Result->WhiteList);
    return STATUS_SUCCESS;
}

NTSTATUS AppendRuleContexts(FilterResult *Result, ULONG Count, const RuleContextEntry *Contexts, UCHAR Flag) {
    const ULONGLONG Total = (ULONGLONG)Result->ContextCount + Count;
    const ULONGLONG Bytes = Total * sizeof(MatchedContext);
    auto *Array = Bytes <= 0xFFFFFFFFu ? (MatchedContext *)PoolAlloc(DefaultPool, (ULONG)Bytes, TagFilter) : nullptr;
    if (Array == nullptr) {
        TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const ULONG Kept = Result->ContextCount;
    if (Kept != 0) {
        RtlCopyMemory(Array, Result->Contexts, Kept * sizeof(MatchedContext));
        PoolFree(Result->Contexts);
        Result->ContextCount = 0;
    }
    for (ULONG Index = 0; Index < Count; ++Index) {
        MatchedContext *Entry = &Array[Kept + Index];
        RtlCopyMemory(Entry, &Contexts[Index], 20);
        Entry->RuleFlags = Flag;
        Entry->ExclusionSeen = Result->ExclusionSeen;
    }
    Result->Contexts = Array;
    Result->ContextCount = (ULONG)Total;
    return STATUS_SUCCESS;
}

VOID ClearWhiteListState(WhiteListState *State) { RtlZeroMemory(State, sizeof(*State)); }

NTSTATUS CopyWhiteListState(WhiteListState *Destination, const WhiteListState *Source) {
    if (Destination == nullptr || Source == nullptr) return STATUS_INVALID_PARAMETER;
    Destination->WhiteListHeader = Source->WhiteListHeader;
    Destination->UnknownRuleSeen = Source->UnknownRuleSeen;
    for (ULONG Word = 0; Word < 4; ++Word) Destination->ExemptMasks[Word] = Source->ExemptMasks[Word];
    return STATUS_SUCCESS;
}

NTSTATUS MergeWhiteListState(WhiteListState *Destination, const WhiteListState *Source) {
    if (Destination == nullptr || Source == nullptr) return STATUS_INVALID_PARAMETER;
    Destination->UnknownRuleSeen = Source->UnknownRuleSeen;
    for (ULONG Word = 0; Word < 4; ++Word) Destination->ExemptMasks[Word] |= Source->ExemptMasks[Word];
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------- exports

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeInitializeFileObject(FileObject *Object, PCUNICODE_STRING Name,
                                                       USHORT PrefixLength, ULONG ObjectType, ULONG Attributes,
                                                       ULONG SizeLow, ULONG SizeHigh) {
    EXPORT_ENTRY(TcTFeInitializeFileObject);
    if (Object == nullptr || !IsRequired(Name) || (ObjectType & (TEXPRT_OBJECT_FILE | TEXPRT_OBJECT_DIRECTORY)) == 0)
        return Refused();
    return Traced(InitializeFileObject(Object, Name, PrefixLength, ObjectType, Attributes, SizeLow, SizeHigh));
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeAddFileEventInfo(FileObject *Object, ULONG TimeLow, ULONG TimeHigh,
                                                   ActorInformation *Actor, ULONG ActorSize, USHORT Operation) {
    EXPORT_ENTRY(TcTFeAddFileEventInfo);
    return AddBorrowedEventInfo(Object, TimeLow, TimeHigh, Actor, ActorSize, Operation);
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeCleanupFileObject(FileObject *Object) {
    EXPORT_ENTRY(TcTFeCleanupFileObject);
    if (Object == nullptr) return Refused();
    // Operation and VolumePrefix stay; the prefix now points at freed
    // memory, and nothing reads it after the cleanup.
    FreeUnicodeString(&Object->Name);
    Object->ObjectType = 0;
    Object->Attributes = 0;
    Object->Size = 0;
    RtlZeroMemory(&Object->EventInfo, sizeof(Object->EventInfo));
    return STATUS_SUCCESS;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeInitializeRegistryObject(RegistryObject *Object, PCUNICODE_STRING KeyName,
                                                           PCUNICODE_STRING ValueName, ULONG ObjectType) {
    EXPORT_ENTRY(TcTFeInitializeRegistryObject);
    if (Object == nullptr || !IsRequired(KeyName) ||
        (ObjectType & (TEXPRT_OBJECT_REGISTRY_KEY | TEXPRT_OBJECT_REGISTRY_VALUE)) == 0)
        return Refused();
    return Traced(InitializeRegistryObject(Object, KeyName, ValueName, ObjectType));
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeAddRegistryEventInfo(RegistryObject *Object, ULONG TimeLow, ULONG TimeHigh,
                                                       ActorInformation *Actor, ULONG ActorSize, USHORT Operation) {
    EXPORT_ENTRY(TcTFeAddRegistryEventInfo);
    return AddBorrowedEventInfo(Object, TimeLow, TimeHigh, Actor, ActorSize, Operation);
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeCleanupRegistryObject(RegistryObject *Object) {
    EXPORT_ENTRY(TcTFeCleanupRegistryObject);
    if (Object == nullptr) return Refused();
    // EventInfo and Operation stay.
    FreeUnicodeString(&Object->KeyName);
    FreeUnicodeString(&Object->ValueName);
    if (Object->ExtraNameOwned) FreeUnicodeString(&Object->ExtraName);
    Object->ObjectType = 0;
    return STATUS_SUCCESS;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeInitializeProcessObject(ProcessObject *Object, PCUNICODE_STRING Name) {
    EXPORT_ENTRY(TcTFeInitializeProcessObject);
    if (Object == nullptr || !IsRequired(Name)) return Refused();
    // An image path keeps a trailing backslash.
    const NTSTATUS Status = CopyObjectName(&Object->Name, Name, TrailingBackslash::Keep);
    if (NT_SUCCESS(Status)) Object->ObjectType = TEXPRT_OBJECT_PROCESS;
    return Traced(Status);
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeAddProcessEventInfo(ProcessObject *Object, ULONG TimeLow, ULONG TimeHigh,
                                                      ActorInformation *Actor, ULONG ActorSize, USHORT Operation) {
    EXPORT_ENTRY(TcTFeAddProcessEventInfo);
    return AddCapturedEventInfo(Object, TimeLow, TimeHigh, Actor, ActorSize, Operation);
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeCleanupProcessObject(ProcessObject *Object) {
    EXPORT_ENTRY(TcTFeCleanupProcessObject);
    if (Object == nullptr) return Refused();
    FreeUnicodeString(&Object->Name);
    Object->ObjectType = 0;
    ReleaseEventInfo(&Object->EventInfo);
    return STATUS_SUCCESS;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeInitializeSystemObject(SystemObject *Object, PCUNICODE_STRING Name) {
    EXPORT_ENTRY(TcTFeInitializeSystemObject);
    if (Object == nullptr || !IsRequired(Name)) return Refused();
    const NTSTATUS Status = CopyObjectName(&Object->Name, Name, TrailingBackslash::Drop);
    if (NT_SUCCESS(Status)) Object->ObjectType = TEXPRT_OBJECT_SYSTEM;
    return Traced(Status);
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeAddSystemEventInfo(SystemObject *Object, ULONG TimeLow, ULONG TimeHigh,
                                                     ActorInformation *Actor, ULONG ActorSize) {
    EXPORT_ENTRY(TcTFeAddSystemEventInfo);
    if (!AddArgumentsValid(Object, TimeLow, TimeHigh, Actor, ActorSize)) return Refused();
    BorrowEventInfo(&Object->EventInfo, TimeLow, TimeHigh, Actor, ActorSize);
    return STATUS_SUCCESS;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeCleanupSystemObject(SystemObject *Object) {
    EXPORT_ENTRY(TcTFeCleanupSystemObject);
    if (Object == nullptr) return Refused();
    // EventInfo stays.
    FreeUnicodeString(&Object->Name);
    Object->ObjectType = 0;
    return STATUS_SUCCESS;
}

// No argument test of its own: the worker makes them.
TEXPRT_EXPORT NTSTATUS NTAPI TcTFeInitializeNetworkObject(NetworkObject *Object, USHORT LocalPort, USHORT RemotePort,
                                                          PCUNICODE_STRING LocalAddress,
                                                          PCUNICODE_STRING RemoteAddress) {
    EXPORT_ENTRY(TcTFeInitializeNetworkObject);
    return Traced(InitializeNetworkObject(Object, LocalPort, RemotePort, LocalAddress, RemoteAddress));
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeAddNetworkEventInfo(NetworkObject *Object, ULONG TimeLow, ULONG TimeHigh,
                                                      ActorInformation *Actor, ULONG ActorSize, USHORT Operation) {
    EXPORT_ENTRY(TcTFeAddNetworkEventInfo);
    return AddCapturedEventInfo(Object, TimeLow, TimeHigh, Actor, ActorSize, Operation);
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeCleanupNetworkObject(NetworkObject *Object) {
    EXPORT_ENTRY(TcTFeCleanupNetworkObject);
    if (Object == nullptr) return Refused();
    FreeUnicodeString(&Object->LocalAddress);
    FreeUnicodeString(&Object->RemoteAddress);
    ReleaseEventInfo(&Object->EventInfo);
    Object->ObjectType = 0;
    Object->LocalPort = 0;
    Object->RemotePort = 0;
    return STATUS_SUCCESS;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeInitializeWhiteListObject(WhiteListObject *Object, PCUNICODE_STRING ImagePath,
                                                            PCUNICODE_STRING CommandLine,
                                                            PCUNICODE_STRING ParentImagePath) {
    EXPORT_ENTRY(TcTFeInitializeWhiteListObject);
    if (Object == nullptr || !IsRequired(ImagePath)) return Refused();
    return Traced(InitializeWhiteListObject(Object, ImagePath, CommandLine, ParentImagePath));
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeCleanupWhiteListObject(WhiteListObject *Object) {
    EXPORT_ENTRY(TcTFeCleanupWhiteListObject);
    if (Object == nullptr) return Refused();
    FreeUnicodeString(&Object->ImagePath);
    FreeUnicodeString(&Object->CommandLine);
    FreeUnicodeString(&Object->ParentImagePath);
    return STATUS_SUCCESS;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcTFeCleanupResult(FilterResult *Result) {
    EXPORT_ENTRY(TcTFeCleanupResult);
    if (Result == nullptr) return Refused();
    PoolFree(Result->Contexts);
    return ResetFilterResult(Result);
}
