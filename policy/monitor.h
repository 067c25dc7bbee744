// The monitor policy: the agent's binary file of file, registry, process,
// system, network and whitelist rules, and the in-memory rule sets it is
// parsed into. The sets are built privately at load and are read-only once
// the store has swapped them in; matchers read them under MonitorRuleLock.
#pragma once

#include "platform/nt.h"

#include "base/strings.h"
#include "base/trace.h"
#include "policy/records.h"

// ---------------------------------------------------------------- the file
// All numbers little-endian. Every magic word is compared whole; its low
// byte is the version of its record.

constexpr ULONG MonitorPolicyMagic = 0x54425003;  // version 3
constexpr ULONG MonitorPolicyVersion = 3;
constexpr ULONG MonitorPolicyHeaderSize = 36;

constexpr ULONG RuleRecordMagic = 0x52480001;
constexpr ULONG RuleContextMagic = 0x52434801;
constexpr ULONG RuleRecordFixedSize = 24;    // up to the first context entry
constexpr ULONG RuleContextFileEntrySize = 20;

// The two list words of the first context entry.
constexpr ULONG RuleListFim = 1;
constexpr ULONG RuleListEdr = 2;

enum MonitorRuleCategory : ULONG {
    CategorySystem = 0,
    CategoryProcess = 1,
    CategoryFile = 2,
    CategoryRegistry = 3,
    CategoryWhiteList = 4,
    CategoryNetwork = 5,
    CategoryCount = 6,
};

#pragma pack(push, 1)
struct MonitorPolicyHeader {
    ULONG Magic;
    ULONG BodyChecksum;  // over BodyLength + 1 bytes from offset 36
    ULONG BodyLength;
    ULONG Reserved[4];
    ULONG WhiteListRuleCapacity;
    ULONG Reserved2;
};
struct RuleRecordHeader {
    ULONG RuleMagic;
    ULONG RecordSize;
    ULONG RuleCategory;
    ULONG RuleType;
    ULONG ContextMagic;
    ULONG ContextCount;
    ULONG RuleList;  // the first word of the first context entry
};
// A counted string as the file holds it; the text follows.
struct PolicyStringHeader {
    USHORT Length;
    USHORT MaximumLength;
    ULONG TextReference;  // overwritten at load; its file value means nothing
};
#pragma pack(pop)
static_assert(sizeof(MonitorPolicyHeader) == MonitorPolicyHeaderSize);
static_assert(sizeof(PolicyStringHeader) == 8);

// ---------------------------------------------------------------- memory

// One context of a rule: the five words of the file entry, then a word that
// the matchers fill when they hand the entry out.
struct RuleContextEntry {
    ULONG RuleList;
    ULONG RuleId[4];
    ULONG Extra;
};
static_assert(sizeof(RuleContextEntry) == 24);

// PatternFlags.
constexpr ULONG PatternRooted = 0x1;         // began with a backslash, now removed
constexpr ULONG PatternWildcards = 0x2;      // goes through FsRtlIsNameInExpression
constexpr ULONG PatternRelativePath = 0x4;   // no leading backslash, several components
constexpr ULONG PatternHasBackslash = 0x8;   // compare with the whole path, not the final name

struct FilterPatternElement {
    UNICODE_STRING Text;  // upper-cased, NUL behind the text
    ULONG SeparatorCount;
    ULONG PatternFlags;
};
typedef FilterPatternElement ActorProcessElement;

struct TextFilterElement {  // arguments, parent processes and network addresses
    UNICODE_STRING Text;
    ULONG PatternFlags;
};

// Signed, as the matchers compare times of day as signed numbers.
struct TimeOfDay {
    SHORT Hour;
    SHORT Minute;
    SHORT Second;
};

// RuleFilter Conditions bits.
constexpr ULONG ConditionObjectKind = 0x01;
constexpr ULONG ConditionPatterns = 0x02;
constexpr ULONG ConditionAttributes = 0x04;
constexpr ULONG ConditionSize = 0x08;
constexpr ULONG ConditionActorProcess = 0x10;
constexpr ULONG ConditionActorUsername = 0x20;
constexpr ULONG ConditionTime = 0x40;
constexpr ULONG ConditionArguments = 0x80;
constexpr ULONG ConditionParentProcess = 0x100;
constexpr ULONG ConditionFilterValue = 0x8000;
// NetworkRuleFilter Conditions bits beyond the actor, username and time ones.
constexpr ULONG ConditionLocalAddress = 0x200;
constexpr ULONG ConditionRemoteAddress = 0x400;
constexpr ULONG ConditionLocalPort = 0x800;
constexpr ULONG ConditionRemotePort = 0x1000;
constexpr ULONG ConditionProtocol = 0x2000;

// One condition set of a rule. A zeroed filter is a valid empty one.
struct RuleFilter {
    ULONG Conditions;
    ULONG ObjectKind;
    ULONG AttributeMask;
    ULONG SizeOperator;  // 1 >, 2 >=, 3 ==, 4 <=, 5 <; the event's size on the left
    ULONGLONG SizeOperand;
    USHORT FilterValue;
    TimeOfDay StartTime;
    TimeOfDay EndTime;
    ULONG FilterPatternCount;
    ULONG ActorProcessCount;
    ULONG ActorUsernameCount;
    ULONG ArgumentCount;
    ULONG ParentProcessCount;
    FilterPatternElement *FilterPatterns;
    ActorProcessElement *ActorProcesses;
    UCHAR *ActorUsernames;
    TextFilterElement *Arguments;
    TextFilterElement *ParentProcesses;
};

struct PortRange {
    USHORT Low;
    USHORT High;
};

// Address, port and range lists come in two groups: 0 for the local end of
// a connection, 1 for the remote end.
struct NetworkRuleFilter {
    ULONG Conditions;
    ULONG ObjectKind;  // protocol bits
    TimeOfDay StartTime;
    TimeOfDay EndTime;
    ULONG ActorProcessCount;
    ULONG ActorUsernameCount;
    ULONG AddressCount[2];
    ULONG PortCount0;
    ULONG PortRangeCount0;
    ULONG PortCount1;
    ULONG PortRangeCount1;
    ActorProcessElement *ActorProcesses;
    UCHAR *ActorUsernames;
    TextFilterElement *Addresses[2];
    USHORT *Ports0;
    PortRange *PortRanges0;
    USHORT *Ports1;
    PortRange *PortRanges1;
};

struct FileRuleBody {
    ULONG RuleCategory;
    ULONG RuleType;
    ULONG ContextCount;
    RuleContextEntry *Contexts;
    LONG Depth;  // -2: any depth
    UNICODE_STRING Path;
    ULONG IncludeCount;
    RuleFilter *IncludeFilters;
    ULONG ExcludeCount;
    RuleFilter *ExcludeFilters;
    ULONG OperationMask;
    ULONG OperationMask2;
    UCHAR RuleFlags;
};
TEXPRT_ASSERT_LAYOUT32(sizeof(FileRuleBody) == 56);

struct RegistryRuleBody {
    ULONG RuleCategory;
    ULONG RuleType;
    ULONG ContextCount;
    RuleContextEntry *Contexts;
    LONG Depth;
    UNICODE_STRING Path;
    UNICODE_STRING ValueName;  // empty when the rule names no value
    ULONG IncludeCount;
    RuleFilter *IncludeFilters;
    ULONG ExcludeCount;
    RuleFilter *ExcludeFilters;
    ULONG OperationMask;
    ULONG OperationMask2;
};
TEXPRT_ASSERT_LAYOUT32(sizeof(RegistryRuleBody) == 60);

// Process and system rules share one layout.
struct ProcessRuleBody {
    ULONG RuleCategory;
    ULONG RuleType;
    ULONG ContextCount;
    RuleContextEntry *Contexts;
    UNICODE_STRING Path;
    LONG Depth;
    ULONG IncludeCount;
    RuleFilter *IncludeFilters;
    ULONG ExcludeCount;
    RuleFilter *ExcludeFilters;
    ULONG OperationMask;
};
typedef ProcessRuleBody SystemRuleBody;
TEXPRT_ASSERT_LAYOUT32(sizeof(ProcessRuleBody) == 48);

struct WhiteListRuleBody {
    ULONG RuleCategory;
    ULONG RuleType;
    ULONG ContextCount;
    RuleContextEntry *Contexts;
    UNICODE_STRING Path;  // keeps a trailing backslash
    ULONG IncludeCount;
    RuleFilter *IncludeFilters;
    ULONG OperationMask;
};
TEXPRT_ASSERT_LAYOUT32(sizeof(WhiteListRuleBody) == 36);

struct NetworkRuleBody {
    ULONG RuleCategory;
    ULONG RuleType;
    ULONG ContextCount;
    RuleContextEntry *Contexts;
    ULONG IncludeCount;
    NetworkRuleFilter *IncludeFilters;
    ULONG ExcludeCount;
    NetworkRuleFilter *ExcludeFilters;
    ULONG OperationMask;
};
TEXPRT_ASSERT_LAYOUT32(sizeof(NetworkRuleBody) == 36);

// A set: RuleCount records added so far, room for Capacity + 1.
template <typename Body>
struct MonitorRuleSet {
    ULONG RuleCount;
    ULONG Capacity;
    Body Rules[1];
};
typedef MonitorRuleSet<SystemRuleBody> MonitorSystemRuleSet;
typedef MonitorRuleSet<ProcessRuleBody> MonitorProcessRuleSet;
typedef MonitorRuleSet<FileRuleBody> MonitorFileRuleSet;
typedef MonitorRuleSet<RegistryRuleBody> MonitorRegistryRuleSet;
typedef MonitorRuleSet<WhiteListRuleBody> MonitorWhiteListRuleSet;
typedef MonitorRuleSet<NetworkRuleBody> MonitorNetworkRuleSet;

// One family of sets, as a load produces it; any pointer may be null.
struct MonitorRuleSets {
    MonitorFileRuleSet *File;
    MonitorRegistryRuleSet *Registry;
    MonitorProcessRuleSet *Process;
    MonitorSystemRuleSet *System;
    MonitorNetworkRuleSet *Network;
};

// ---------------------------------------------------------------- loading
//
// The loader verifies the checksum and then walks the records with every
// count, stride and string held against the record it belongs to and the
// record area: a file that says more than it holds is refused with
// STATUS_DATA_ERROR before anything is read outside it.

NTSTATUS LoadMonitorPolicy(PUNICODE_STRING Path, MonitorRuleSets *EdrSets, MonitorRuleSets *FimSets,
                           MonitorWhiteListRuleSet **WhiteListSet);
NTSTATUS ReadMonitorPolicyFile(PUNICODE_STRING Path, PUCHAR *Image, ULONG *BodyLength);
// Parses an image of at least BodyLength + 40 bytes, as the reader gives it.
// The image is written to: string text references are filled in.
NTSTATUS ParseMonitorPolicy(PUCHAR Image, MonitorRuleSets *EdrSets, MonitorRuleSets *FimSets,
                            MonitorWhiteListRuleSet **WhiteListSet);
// Block: the context magic word; Available: bytes from there to the record's end.
NTSTATUS ParseRuleContext(const UCHAR *Block, ULONG Available, RuleContextEntry **Entries, ULONG *Count);
NTSTATUS AllocateRuleContextEntries(ULONG Count, RuleContextEntry **Entries);
// Frees every set of the family in the order System, File, Process,
// Registry, Network and clears the pointers.
VOID FreeMonitorRuleSets(MonitorRuleSets *Sets);

NTSTATUS CreateMonitorSystemRuleSet(ULONG Count, MonitorSystemRuleSet **Set);
NTSTATUS CreateMonitorProcessRuleSet(ULONG Count, MonitorProcessRuleSet **Set);
NTSTATUS CreateMonitorFileRuleSet(ULONG Count, MonitorFileRuleSet **Set);
NTSTATUS CreateMonitorRegistryRuleSet(ULONG Count, MonitorRegistryRuleSet **Set);
NTSTATUS CreateMonitorWhiteListRuleSet(ULONG Count, MonitorWhiteListRuleSet **Set);
NTSTATUS CreateMonitorNetworkRuleSet(ULONG Count, MonitorNetworkRuleSet **Set);
NTSTATUS FreeMonitorSystemRuleSet(MonitorSystemRuleSet *Set);
NTSTATUS FreeMonitorProcessRuleSet(MonitorProcessRuleSet *Set);
NTSTATUS FreeMonitorFileRuleSet(MonitorFileRuleSet *Set);
NTSTATUS FreeMonitorRegistryRuleSet(MonitorRegistryRuleSet *Set);
NTSTATUS FreeMonitorWhiteListRuleSet(MonitorWhiteListRuleSet *Set);
NTSTATUS FreeMonitorNetworkRuleSet(MonitorNetworkRuleSet *Set);

// Category parsers: the record and the bytes it may use (its RecordSize,
// already held against the record area).
NTSTATUS ParseMonitorSystemRule(MonitorSystemRuleSet *Set, PUCHAR Record, ULONG RecordSize);
NTSTATUS ParseMonitorProcessRule(MonitorProcessRuleSet *Set, PUCHAR Record, ULONG RecordSize);
NTSTATUS ParseMonitorFileRule(MonitorFileRuleSet *Set, PUCHAR Record, ULONG RecordSize);
NTSTATUS ParseMonitorRegistryRule(MonitorRegistryRuleSet *Set, PUCHAR Record, ULONG RecordSize);
NTSTATUS ParseMonitorWhiteListRule(MonitorWhiteListRuleSet *Set, PUCHAR Record, ULONG RecordSize);
NTSTATUS ParseMonitorNetworkRule(MonitorNetworkRuleSet *Set, PUCHAR Record, ULONG RecordSize);

// ---------------------------------------------------------------- rule bodies

NTSTATUS AddMonitorFileRule(MonitorFileRuleSet *Set, ULONG RuleCategory, ULONG RuleType,
                            const RuleContextEntry *Contexts, ULONG ContextCount, LONG Depth, PCUNICODE_STRING Path,
                            ULONG OperationMask, ULONG OperationMask2, UCHAR RuleFlags, FileRuleBody **Rule);
NTSTATUS AddMonitorRegistryRule(MonitorRegistryRuleSet *Set, ULONG RuleCategory, ULONG RuleType,
                                const RuleContextEntry *Contexts, ULONG ContextCount, LONG Depth,
                                PCUNICODE_STRING Path, PCUNICODE_STRING ValueName, ULONG OperationMask,
                                ULONG OperationMask2, RegistryRuleBody **Rule);
NTSTATUS AddMonitorProcessRule(MonitorProcessRuleSet *Set, ULONG RuleCategory, ULONG RuleType,
                               const RuleContextEntry *Contexts, ULONG ContextCount, LONG Depth,
                               PCUNICODE_STRING Path, ULONG OperationMask, ProcessRuleBody **Rule);
NTSTATUS AddMonitorSystemRule(MonitorSystemRuleSet *Set, ULONG RuleCategory, ULONG RuleType,
                              const RuleContextEntry *Contexts, ULONG ContextCount, LONG Depth,
                              PCUNICODE_STRING Path, ULONG OperationMask, SystemRuleBody **Rule);
NTSTATUS AddMonitorWhiteListRule(MonitorWhiteListRuleSet *Set, ULONG RuleCategory, ULONG RuleType,
                                 const RuleContextEntry *Contexts, ULONG ContextCount, PCUNICODE_STRING Path,
                                 ULONG OperationMask, WhiteListRuleBody **Rule);
NTSTATUS AddMonitorNetworkRule(MonitorNetworkRuleSet *Set, ULONG RuleCategory, ULONG RuleType,
                               const RuleContextEntry *Contexts, ULONG ContextCount, ULONG OperationMask,
                               NetworkRuleBody **Rule);

VOID FreeFileRuleBody(FileRuleBody *Rule);
VOID FreeRegistryRuleBody(RegistryRuleBody *Rule);
VOID FreeProcessRuleBody(ProcessRuleBody *Rule, ULONG Category);  // process or system
VOID FreeWhiteListRuleBody(WhiteListRuleBody *Rule);
VOID FreeNetworkRuleBody(NetworkRuleBody *Rule);

NTSTATUS LoadWhiteListFilters(WhiteListRuleBody *Rule, PUCHAR Records, ULONG Count, ULONG Reserved,
                              ULONG Available, ULONG *SizeOut);
NTSTATUS AddWhiteListFilter(WhiteListRuleBody *Rule, ULONG Conditions, RuleFilter **FilterOut);

// Copies a policy string into its own non-paged buffer, upper-cased, with a
// NUL behind the text: MaximumLength is Length + 2, in 16-bit arithmetic.
NTSTATUS CompilePolicyText(PUNICODE_STRING Destination, PCUNICODE_STRING Source);

// ---------------------------------------------------------------- filters

// Decodes a file time-of-day word: byte 0 seconds, 1 minutes, 2 hours.
TimeOfDay DecodeTimeOfDay(ULONGLONG Word);

NTSTATUS InitRuleFilter(RuleFilter *Filter, ULONG Conditions, ULONG ObjectKind);
NTSTATUS InitFileRuleFilter(RuleFilter *Filter, ULONG Conditions, ULONG ObjectKind);
NTSTATUS InitProcessRuleFilter(RuleFilter *Filter, ULONG Conditions);
NTSTATUS InitNetworkRuleFilter(NetworkRuleFilter *Filter, ULONG Conditions, ULONG ObjectKind);
// Category 5 releases a NetworkRuleFilter, any other a RuleFilter.
VOID FreeRuleFilter(PVOID Filter, ULONG Category);
VOID FreeNetworkRuleFilter(NetworkRuleFilter *Filter);

// Element compiles: Text upper-cased with a NUL, and the flags above.
NTSTATUS CompileFilterPattern(FilterPatternElement *Element, PCUNICODE_STRING Source);
NTSTATUS CompileActorProcessFilter(ActorProcessElement *Element, PCUNICODE_STRING Source);
NTSTATUS CompileArgumentFilter(TextFilterElement *Element, PCUNICODE_STRING Source);
NTSTATUS CompileParentProcessFilter(TextFilterElement *Element, PCUNICODE_STRING Source);
NTSTATUS CompileNetworkAddressFilter(TextFilterElement *Element, PCUNICODE_STRING Source);

// List loaders: Records is the first record of the list, Available the bytes
// that the list may use; SizeOut receives the bytes consumed.
NTSTATUS LoadFilterPatterns(RuleFilter *Filter, PUCHAR Records, ULONG Count, ULONG Available, ULONG *SizeOut);
NTSTATUS LoadActorProcessFilters(PVOID Filter, ULONG Category, PUCHAR Records, ULONG Count, ULONG Available,
                                 ULONG *SizeOut);
NTSTATUS LoadActorUsernameFilters(PVOID Filter, ULONG Category, PUCHAR Records, ULONG Count, ULONG Available,
                                  ULONG *SizeOut);
NTSTATUS LoadArgumentFilters(RuleFilter *Filter, PUCHAR Records, ULONG Count, ULONG Available, ULONG *SizeOut);
NTSTATUS LoadParentProcessFilters(RuleFilter *Filter, PUCHAR Records, ULONG Count, ULONG Available,
                                  ULONG *SizeOut);
NTSTATUS LoadNetworkAddressFilters(NetworkRuleFilter *Filter, PUCHAR Records, ULONG Group, ULONG Count,
                                   ULONG Available, ULONG *SizeOut);
NTSTATUS LoadNetworkPortNumberFilters(NetworkRuleFilter *Filter, PUCHAR Records, ULONG Group, ULONG Count,
                                      ULONG Available, ULONG *SizeOut);
NTSTATUS LoadNetworkPortRangeFilters(NetworkRuleFilter *Filter, PUCHAR Records, ULONG Group, ULONG Count,
                                     ULONG Available, ULONG *SizeOut);

// Reads a file string header and makes a view of its text, which starts at
// Text and may use TextAvailable bytes: Length within MaximumLength, both
// even, the text aligned, all of it inside the record, and, when Terminated,
// a NUL within MaximumLength (the compiles search the file's text for it).
// The header's reference slot takes the text's address.
NTSTATUS ReadPolicyString(PUCHAR Header, PUCHAR Text, ULONG TextAvailable, BOOLEAN Terminated,
                          PUNICODE_STRING View);

// The parts of a record that every rule family finds the same way.
struct ParsedRecord {
    ULONG Category;
    ULONG RuleType;
    RuleContextEntry *Contexts;  // temporary: the caller frees it when its parse ends
    ULONG ContextCount;
    PUCHAR Body;
    ULONG BodyAvailable;  // bytes from Body to the record's end
};
// The contexts, then the body's magic (reported with Label on a mismatch)
// and its FixedSize bytes, all held against the record.
NTSTATUS ParseRecordHead(PUCHAR Record, ULONG RecordSize, ULONG BodyMagic, PCWSTR BodyLabel, ULONG FixedSize,
                         ParsedRecord *Parsed);

// Appends one element to an exact-sized array: a new array of Count + 1,
// zeroed, the old elements copied across, the new last one filled by Fill.
// If Fill fails the new array goes and the list stands as it was. Growth
// by one costs an allocation and a copy, which only a load pays.
template <typename Element, typename FillRoutine>
NTSTATUS AppendElement(Element **Array, ULONG *Count, FillRoutine Fill) {
    const ULONGLONG Bytes = ((ULONGLONG)*Count + 1) * sizeof(Element);
    Element *Grown = Bytes <= 0xFFFFFFFFu ? (Element *)PoolAlloc(DefaultPool, (ULONG)Bytes, TagFilter) : nullptr;
    if (Grown == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(Grown, (SIZE_T)Bytes);
    if (*Count != 0) RtlCopyMemory(Grown, *Array, (SIZE_T)*Count * sizeof(Element));
    const NTSTATUS Status = Fill(&Grown[*Count]);
    if (!NT_SUCCESS(Status)) {
        PoolFree(Grown);
        return Status;
    }
    PoolFree(*Array);
    *Array = Grown;
    *Count += 1;
    return STATUS_SUCCESS;
}

// Adds a body at the set's RuleCount: Init fills the zeroed slot and, when
// it fails, must leave nothing allocated; the slot is cleared again and the
// set unchanged. The caller has checked the set's room.
template <typename Set, typename Body, typename InitRoutine>
NTSTATUS AddRuleBody(Set *Target, Body **Rule, InitRoutine Init) {
    Body *Slot = &Target->Rules[Target->RuleCount];
    RtlZeroMemory(Slot, sizeof(*Slot));
    const NTSTATUS Status = Init(Slot);
    if (!NT_SUCCESS(Status)) {
        RtlZeroMemory(Slot, sizeof(*Slot));
        TRACE_STATUS(Status);
        return Status;
    }
    Target->RuleCount += 1;
    *Rule = Slot;
    return STATUS_SUCCESS;
}

// A body's own copy of its contexts.
NTSTATUS CopyRuleContexts(const RuleContextEntry *Contexts, ULONG Count, RuleContextEntry **Copy);
