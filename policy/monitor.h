// The monitor policy: the agent's binary file of file, registry, process,
// system, network and whitelist rules, and the in-memory rule sets it is
// parsed into. The sets are built privately at load and are read-only once
// the store has swapped them in; matchers read them under MonitorRuleLock.
#pragma once

#include "platform/nt.h"

#include "base/strings.h"
#include "base/trace.h"
#include "policy/format/monitor.h"
#include "policy/records.h"

// ---------------------------------------------------------------- the file
// The layouts, magic words and offsets are in policy/format/monitor.h; the
// library's own names for the few that reach beyond the parsers follow.

constexpr ULONG MonitorPolicyMagic = MonitorFormat::PolicyMagic;
constexpr ULONG MonitorPolicyHeaderSize = MonitorFormat::PolicyHeader::Size;

// The two list words of the first context entry.
constexpr ULONG RuleListFim = MonitorFormat::ListFim;
constexpr ULONG RuleListEdr = MonitorFormat::ListEdr;

enum MonitorRuleCategory : ULONG {
    CategorySystem = MonitorFormat::CategorySystem,
    CategoryProcess = MonitorFormat::CategoryProcess,
    CategoryFile = MonitorFormat::CategoryFile,
    CategoryRegistry = MonitorFormat::CategoryRegistry,
    CategoryWhiteList = MonitorFormat::CategoryWhiteList,
    CategoryNetwork = MonitorFormat::CategoryNetwork,
    CategoryCount = MonitorFormat::CategoryCount,
};

// The head of a rule record as the walks read it: the record's words, the
// context block's, and the list word of the first context entry.
#pragma pack(push, 1)
struct RuleRecordHeader {
    ULONG RuleMagic;
    ULONG RecordSize;
    ULONG RuleCategory;
    ULONG RuleType;
    ULONG ContextMagic;
    ULONG ContextCount;
    ULONG RuleList;
};
#pragma pack(pop)
static_assert(FIELD_OFFSET(RuleRecordHeader, RuleMagic) == MonitorFormat::RuleRecord::Magic);
static_assert(FIELD_OFFSET(RuleRecordHeader, RecordSize) == MonitorFormat::RuleRecord::RecordSize);
static_assert(FIELD_OFFSET(RuleRecordHeader, RuleCategory) == MonitorFormat::RuleRecord::RuleCategory);
static_assert(FIELD_OFFSET(RuleRecordHeader, RuleType) == MonitorFormat::RuleRecord::RuleType);
static_assert(FIELD_OFFSET(RuleRecordHeader, ContextMagic) ==
              MonitorFormat::RuleRecord::Contexts + MonitorFormat::ContextHeader::Magic);
static_assert(FIELD_OFFSET(RuleRecordHeader, ContextCount) == MonitorFormat::RuleRecord::ContextCount);
static_assert(FIELD_OFFSET(RuleRecordHeader, RuleList) == MonitorFormat::RuleRecord::FirstRuleList);
static_assert(sizeof(RuleRecordHeader) == MonitorFormat::RuleRecord::FirstRuleList + sizeof(ULONG));

// ---------------------------------------------------------------- memory

// One context of a rule: the five words of the file entry, then a word that
// the matchers fill when they hand the entry out.
struct RuleContextEntry {
    ULONG RuleList;
    ULONG RuleId[4];
    ULONG Extra;
};
static_assert(sizeof(RuleContextEntry) == 24);
// The file entry is copied whole into the front of the memory one.
static_assert(FIELD_OFFSET(RuleContextEntry, RuleList) == MonitorFormat::ContextEntry::RuleList);
static_assert(FIELD_OFFSET(RuleContextEntry, RuleId) == MonitorFormat::ContextEntry::RuleId);
static_assert(FIELD_OFFSET(RuleContextEntry, Extra) == MonitorFormat::ContextEntry::Size);

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
constexpr ULONG ConditionObjectKind = MonitorFormat::ConditionObjectKind;
constexpr ULONG ConditionPatterns = MonitorFormat::ConditionPatterns;
constexpr ULONG ConditionAttributes = MonitorFormat::ConditionAttributes;
constexpr ULONG ConditionSize = MonitorFormat::ConditionSize;
constexpr ULONG ConditionActorProcess = MonitorFormat::ConditionActorProcess;
constexpr ULONG ConditionActorUsername = MonitorFormat::ConditionActorUsername;
constexpr ULONG ConditionTime = MonitorFormat::ConditionTime;
constexpr ULONG ConditionArguments = MonitorFormat::ConditionArguments;
constexpr ULONG ConditionParentProcess = MonitorFormat::ConditionParentProcess;
constexpr ULONG ConditionFilterValue = MonitorFormat::ConditionFilterValue;
// NetworkRuleFilter Conditions bits beyond the actor, username and time ones.
constexpr ULONG ConditionLocalAddress = MonitorFormat::ConditionLocalAddress;
constexpr ULONG ConditionRemoteAddress = MonitorFormat::ConditionRemoteAddress;
constexpr ULONG ConditionLocalPort = MonitorFormat::ConditionLocalPort;
constexpr ULONG ConditionRemotePort = MonitorFormat::ConditionRemotePort;
constexpr ULONG ConditionProtocol = MonitorFormat::ConditionProtocol;

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

// A policy string's text as the compiles read it. A text stands at whatever
// offset its record gives, so it may lie at an odd address of the image,
// where a 16-bit read is undefined and no kernel routine may be handed it:
// such a text is read through an aligned copy of its MaximumLength bytes,
// which lives as long as this object. View points into the image, or into
// the copy.
class PolicyText {
public:
    PolicyText() = default;
    ~PolicyText() { PoolFree(Copy); }
    PolicyText(const PolicyText &) = delete;
    PolicyText &operator=(const PolicyText &) = delete;

    UNICODE_STRING View = {};
    PVOID Copy = nullptr;
};

// Reads a file string header and makes a view of its text, which starts at
// Text and may use TextAvailable bytes: Length within MaximumLength, both
// even, all of it inside the record, and, when Terminated, a NUL within
// MaximumLength (the compiles search the file's text for it). The header's
// reference slot takes the text's address in the image.
NTSTATUS ReadPolicyString(PUCHAR Header, PUCHAR Text, ULONG TextAvailable, BOOLEAN Terminated, PolicyText *Out);

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
