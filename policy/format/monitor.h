// The monitor policy file: the agent's binary file of file, registry,
// process, system, network and whitelist rules. The one description of its
// bytes: the library's parsers and tpol both take every magic word, record
// layout, field offset and tested mask from here, so the writer and the
// reader cannot part ways.
//
// Compiled unchanged into texprt.sys (i686 and x64), the host library and
// tpol: it includes nothing, names no kernel type and holds constants and
// layouts only. Its words are its own fixed-width types, built from the
// builtin ones that have one width on every target (unsigned long does not:
// 32 bits under mingw, 64 on Linux).
#pragma once

namespace MonitorFormat {

using u8 = unsigned char;
using u16 = unsigned short;
using u32 = unsigned int;
using i32 = int;
using u64 = unsigned long long;
static_assert(sizeof(u8) == 1 && sizeof(u16) == 2 && sizeof(u32) == 4 && sizeof(i32) == 4 && sizeof(u64) == 8);

// ---------------------------------------------------------------- words
//
// All numbers are little-endian. A magic word is compared whole; its low
// byte is the version of its record, which a mismatch reports.

constexpr u32 MagicVersionMask = 0xFF;

constexpr u32 PolicyMagic = 0x54425003;
constexpr u32 PolicyVersion = PolicyMagic & MagicVersionMask;
constexpr u32 RuleMagic = 0x52480001;
constexpr u32 ContextMagic = 0x52434801;

// Each category has a body and a filter header of its own.
constexpr u32 SystemBodyMagic = 0x52425301;
constexpr u32 SystemFilterMagic = 0x52505302;
constexpr u32 ProcessBodyMagic = 0x52425002;
constexpr u32 ProcessFilterMagic = 0x52504603;
constexpr u32 FileBodyMagic = 0x52424602;
constexpr u32 FileFilterMagic = 0x52464602;
constexpr u32 RegistryBodyMagic = 0x52425201;
constexpr u32 RegistryFilterMagic = 0x52524602;
constexpr u32 WhiteListBodyMagic = 0x52425702;
constexpr u32 WhiteListFilterMagic = 0x52505701;
constexpr u32 NetworkBodyMagic = 0x52424E01;
constexpr u32 NetworkFilterMagic = 0x524E4601;

// The records of a filter's lists.
constexpr u32 PatternMagic = 0x46504801;
constexpr u32 ActorProcessMagic = 0x46415001;
constexpr u32 ActorUsernameMagic = 0x46415501;
constexpr u32 ArgumentMagic = 0x46414801;
constexpr u32 ParentProcessMagic = 0x46505001;
constexpr u32 NetworkAddressMagic = 0x46786501;
constexpr u32 NetworkPortMagic = 0x46787801;
constexpr u32 NetworkPortRangeMagic = 0x46788201;

// RuleCategory.
constexpr u32 CategorySystem = 0;
constexpr u32 CategoryProcess = 1;
constexpr u32 CategoryFile = 2;
constexpr u32 CategoryRegistry = 3;
constexpr u32 CategoryWhiteList = 4;
constexpr u32 CategoryNetwork = 5;
constexpr u32 CategoryCount = 6;

// The list word of a context: which family of sets takes the rule.
constexpr u32 ListNone = 0;
constexpr u32 ListFim = 1;
constexpr u32 ListEdr = 2;

// RuleType values that the loader or the matchers tell apart.
constexpr u32 FileRuleTypeFile = 2;          // the path is one file
constexpr u32 FileRuleTypeDirectory = 3;     // the path is a tree, bounded by Depth
constexpr u32 RegistryRuleTypeKey = 4;
constexpr u32 RegistryRuleTypeValue = 5;     // names a value as well
constexpr u32 WhiteListRuleTypeEdr = 8;      // grants against the EDR sets
constexpr u32 WhiteListRuleTypeFim = 9;      // grants against the FIM sets

// Depth: how far below its path a rule reaches.
constexpr i32 DepthAny = -2;

// The operations a rule must watch at least one of, or the loader refuses
// it. A file rule needs one that a file has; a directory rule may name one
// of either mask, OperationMask2 holding the directory's own operations.
constexpr u32 FileOperations = 0x1BF;
constexpr u32 DirectoryOperations2 = 0x137;
constexpr u32 RegistryOperations = 0xFF;  // of OperationMask and OperationMask2 together
constexpr u32 ProcessOperations = 0x7F;
constexpr u32 SystemOperations = 0x01;
constexpr u32 NetworkOperations = 0x7;

// Conditions of a filter: which of its fields and lists apply.
constexpr u32 ConditionObjectKind = 0x01;
constexpr u32 ConditionPatterns = 0x02;
constexpr u32 ConditionAttributes = 0x04;
constexpr u32 ConditionSize = 0x08;
constexpr u32 ConditionActorProcess = 0x10;
constexpr u32 ConditionActorUsername = 0x20;
constexpr u32 ConditionTime = 0x40;
constexpr u32 ConditionArguments = 0x80;
constexpr u32 ConditionParentProcess = 0x100;
constexpr u32 ConditionLocalAddress = 0x200;
constexpr u32 ConditionRemoteAddress = 0x400;
constexpr u32 ConditionLocalPort = 0x800;
constexpr u32 ConditionRemotePort = 0x1000;
constexpr u32 ConditionProtocol = 0x2000;
constexpr u32 ConditionFilterValue = 0x8000;
// A filter must ask for one condition of these, or the loader refuses it
// (a process filter excepted).
constexpr u32 FilterConditions = 0xFFFF;
// An object-kind condition must name a kind in the low byte of ObjectKind
// (file filters).
constexpr u32 ObjectKindMask = 0xFF;

// SizeOperator: the event's size on the left, SizeOperand on the right.
constexpr u32 SizeGreater = 1;
constexpr u32 SizeGreaterOrEqual = 2;
constexpr u32 SizeEqual = 3;
constexpr u32 SizeLessOrEqual = 4;
constexpr u32 SizeLess = 5;

// A time of day is a 64-bit word: byte 0 the seconds, byte 1 the minutes,
// byte 2 the hours; the loader ignores the rest.
constexpr u32 TimeSecondShift = 0;
constexpr u32 TimeMinuteShift = 8;
constexpr u32 TimeHourShift = 16;
constexpr u32 TimePartMask = 0xFF;

// ---------------------------------------------------------------- layouts
//
// Each record's fixed part as a packed structure, and the offsets of its
// fields, taken from the structure so that the two cannot differ. Size is
// the fixed part's length; what a record holds beyond it (text, entries,
// lists) follows it directly, in the order its comment gives.

#pragma pack(push, 1)

// A counted UTF-16 string as the file holds it. Its text, MaximumLength
// bytes, follows at a place the record that holds the header gives.
struct StringHeaderLayout {
    u16 Length;
    u16 MaximumLength;
    u32 TextReference;  // a slot the loader fills with the text's address; its file value means nothing
};

// The file header; the record area follows, BodyLength bytes, then one
// byte that the checksum covers too.
struct PolicyHeaderLayout {
    u32 Magic;
    u32 BodyChecksum;  // over BodyLength + 1 bytes from the end of the header
    u32 BodyLength;
    u32 Reserved[4];
    u32 WhiteListRuleCapacity;
    u32 Reserved2;
};

// The context block of a rule: its header, then Count entries.
struct ContextHeaderLayout {
    u32 Magic;
    u32 Count;
};
struct ContextEntryLayout {
    u32 RuleList;
    u8 RuleId[16];
};

// A rule record: this, its context entries, then its category's body.
struct RuleRecordLayout {
    u32 Magic;
    u32 RecordSize;
    u32 RuleCategory;
    u32 RuleType;
    ContextHeaderLayout Contexts;
};

// The bodies. Path text follows the fixed part; a registry rule's value
// name text follows the path's MaximumLength bytes. The include filters,
// then the exclude filters, follow the text.
struct FileBodyLayout {
    u32 Magic;
    u32 RuleFlags;
    StringHeaderLayout Path;
    i32 Depth;
    u32 IncludeCount;
    u32 ExcludeCount;
    u32 OperationMask;
    u32 OperationMask2;
};
struct RegistryBodyLayout {
    u32 Magic;
    StringHeaderLayout Path;
    StringHeaderLayout ValueName;
    i32 Depth;
    u32 IncludeCount;
    u32 ExcludeCount;
    u32 OperationMask;
    u32 OperationMask2;
};
// Process and system rules share one layout.
struct ProcessBodyLayout {
    u32 Magic;
    StringHeaderLayout Path;
    i32 Depth;
    u32 IncludeCount;
    u32 ExcludeCount;
    u32 OperationMask;
};
// One list of filters.
struct WhiteListBodyLayout {
    u32 Magic;
    StringHeaderLayout Path;
    u32 IncludeCount;
    u32 OperationMask;
};
// No name: the filters follow the fixed part.
struct NetworkBodyLayout {
    u32 Magic;
    u32 IncludeCount;
    u32 ExcludeCount;
    u32 OperationMask;
};

// The filter header of the file, registry, process, system and whitelist
// rules, each category with its own magic. Its lists follow it in the
// order of their counts: patterns, actor processes, actor usernames,
// arguments, parent processes.
struct RuleFilterLayout {
    u32 Magic;
    u32 Conditions;
    u32 ObjectKind;
    u32 PatternCount;
    u32 ActorProcessCount;
    u32 ActorUsernameCount;
    u32 AttributeMask;
    u16 FilterValue;
    u16 Reserved;
    u32 SizeOperator;
    u32 Reserved2;
    u64 SizeOperand;
    u64 StartTime;
    u64 EndTime;
    u32 ArgumentCount;
    u32 ParentProcessCount;
};

// The counts of one end of a connection: group 0 the local end, group 1
// the remote end.
struct NetworkGroupLayout {
    u32 AddressCount;
    u32 PortCount;
    u32 PortRangeCount;
};
// The filter header of a network rule. Its lists follow it: actor
// processes, actor usernames, then per group addresses, ports and ranges.
struct NetworkFilterLayout {
    u32 Magic;
    u32 Conditions;
    u32 ObjectKind;  // protocol bits
    u32 ActorProcessCount;
    u32 ActorUsernameCount;
    NetworkGroupLayout Groups[2];
    u32 Reserved;
    u64 StartTime;
    u64 EndTime;
};

// The list records. Patterns, actor processes, arguments, parent processes
// and network addresses are text records, the text following the header;
// actor usernames and ports are number records; ranges have their own.
struct TextRecordLayout {
    u32 Magic;
    StringHeaderLayout Text;
};
struct NumberRecordLayout {
    u32 Magic;
    u32 Value;  // a username keeps its low byte, a port its low 16 bits
};
struct PortRangeRecordLayout {
    u32 Magic;
    u16 Low;
    u16 High;
};

#pragma pack(pop)

namespace StringHeader {
constexpr u32 Length = __builtin_offsetof(StringHeaderLayout, Length);
constexpr u32 MaximumLength = __builtin_offsetof(StringHeaderLayout, MaximumLength);
constexpr u32 TextReference = __builtin_offsetof(StringHeaderLayout, TextReference);
constexpr u32 Size = sizeof(StringHeaderLayout);
}  // namespace StringHeader

namespace PolicyHeader {
constexpr u32 Magic = __builtin_offsetof(PolicyHeaderLayout, Magic);
constexpr u32 BodyChecksum = __builtin_offsetof(PolicyHeaderLayout, BodyChecksum);
constexpr u32 BodyLength = __builtin_offsetof(PolicyHeaderLayout, BodyLength);
constexpr u32 Reserved = __builtin_offsetof(PolicyHeaderLayout, Reserved);
constexpr u32 WhiteListRuleCapacity = __builtin_offsetof(PolicyHeaderLayout, WhiteListRuleCapacity);
constexpr u32 Reserved2 = __builtin_offsetof(PolicyHeaderLayout, Reserved2);
constexpr u32 Size = sizeof(PolicyHeaderLayout);
}  // namespace PolicyHeader

namespace ContextHeader {
constexpr u32 Magic = __builtin_offsetof(ContextHeaderLayout, Magic);
constexpr u32 Count = __builtin_offsetof(ContextHeaderLayout, Count);
constexpr u32 Size = sizeof(ContextHeaderLayout);
}  // namespace ContextHeader

namespace ContextEntry {
constexpr u32 RuleList = __builtin_offsetof(ContextEntryLayout, RuleList);
constexpr u32 RuleId = __builtin_offsetof(ContextEntryLayout, RuleId);
constexpr u32 Size = sizeof(ContextEntryLayout);
}  // namespace ContextEntry

namespace RuleRecord {
constexpr u32 Magic = __builtin_offsetof(RuleRecordLayout, Magic);
constexpr u32 RecordSize = __builtin_offsetof(RuleRecordLayout, RecordSize);
constexpr u32 RuleCategory = __builtin_offsetof(RuleRecordLayout, RuleCategory);
constexpr u32 RuleType = __builtin_offsetof(RuleRecordLayout, RuleType);
constexpr u32 Contexts = __builtin_offsetof(RuleRecordLayout, Contexts);  // the context block
constexpr u32 ContextCount = __builtin_offsetof(RuleRecordLayout, Contexts.Count);
constexpr u32 Size = sizeof(RuleRecordLayout);  // where the first context entry stands
// The first context's list word, which decides the rule's family.
constexpr u32 FirstRuleList = Size + ContextEntry::RuleList;
}  // namespace RuleRecord

namespace FileBody {
constexpr u32 Magic = __builtin_offsetof(FileBodyLayout, Magic);
constexpr u32 RuleFlags = __builtin_offsetof(FileBodyLayout, RuleFlags);
constexpr u32 Path = __builtin_offsetof(FileBodyLayout, Path);
constexpr u32 Depth = __builtin_offsetof(FileBodyLayout, Depth);
constexpr u32 IncludeCount = __builtin_offsetof(FileBodyLayout, IncludeCount);
constexpr u32 ExcludeCount = __builtin_offsetof(FileBodyLayout, ExcludeCount);
constexpr u32 OperationMask = __builtin_offsetof(FileBodyLayout, OperationMask);
constexpr u32 OperationMask2 = __builtin_offsetof(FileBodyLayout, OperationMask2);
constexpr u32 Size = sizeof(FileBodyLayout);
}  // namespace FileBody

namespace RegistryBody {
constexpr u32 Magic = __builtin_offsetof(RegistryBodyLayout, Magic);
constexpr u32 Path = __builtin_offsetof(RegistryBodyLayout, Path);
constexpr u32 ValueName = __builtin_offsetof(RegistryBodyLayout, ValueName);
constexpr u32 Depth = __builtin_offsetof(RegistryBodyLayout, Depth);
constexpr u32 IncludeCount = __builtin_offsetof(RegistryBodyLayout, IncludeCount);
constexpr u32 ExcludeCount = __builtin_offsetof(RegistryBodyLayout, ExcludeCount);
constexpr u32 OperationMask = __builtin_offsetof(RegistryBodyLayout, OperationMask);
constexpr u32 OperationMask2 = __builtin_offsetof(RegistryBodyLayout, OperationMask2);
constexpr u32 Size = sizeof(RegistryBodyLayout);
}  // namespace RegistryBody

namespace ProcessBody {
constexpr u32 Magic = __builtin_offsetof(ProcessBodyLayout, Magic);
constexpr u32 Path = __builtin_offsetof(ProcessBodyLayout, Path);
constexpr u32 Depth = __builtin_offsetof(ProcessBodyLayout, Depth);
constexpr u32 IncludeCount = __builtin_offsetof(ProcessBodyLayout, IncludeCount);
constexpr u32 ExcludeCount = __builtin_offsetof(ProcessBodyLayout, ExcludeCount);
constexpr u32 OperationMask = __builtin_offsetof(ProcessBodyLayout, OperationMask);
constexpr u32 Size = sizeof(ProcessBodyLayout);
}  // namespace ProcessBody
namespace SystemBody = ProcessBody;

namespace WhiteListBody {
constexpr u32 Magic = __builtin_offsetof(WhiteListBodyLayout, Magic);
constexpr u32 Path = __builtin_offsetof(WhiteListBodyLayout, Path);
constexpr u32 IncludeCount = __builtin_offsetof(WhiteListBodyLayout, IncludeCount);
constexpr u32 OperationMask = __builtin_offsetof(WhiteListBodyLayout, OperationMask);
constexpr u32 Size = sizeof(WhiteListBodyLayout);
}  // namespace WhiteListBody

namespace NetworkBody {
constexpr u32 Magic = __builtin_offsetof(NetworkBodyLayout, Magic);
constexpr u32 IncludeCount = __builtin_offsetof(NetworkBodyLayout, IncludeCount);
constexpr u32 ExcludeCount = __builtin_offsetof(NetworkBodyLayout, ExcludeCount);
constexpr u32 OperationMask = __builtin_offsetof(NetworkBodyLayout, OperationMask);
constexpr u32 Size = sizeof(NetworkBodyLayout);
}  // namespace NetworkBody

namespace RuleFilter {
constexpr u32 Magic = __builtin_offsetof(RuleFilterLayout, Magic);
constexpr u32 Conditions = __builtin_offsetof(RuleFilterLayout, Conditions);
constexpr u32 ObjectKind = __builtin_offsetof(RuleFilterLayout, ObjectKind);
constexpr u32 PatternCount = __builtin_offsetof(RuleFilterLayout, PatternCount);
constexpr u32 ActorProcessCount = __builtin_offsetof(RuleFilterLayout, ActorProcessCount);
constexpr u32 ActorUsernameCount = __builtin_offsetof(RuleFilterLayout, ActorUsernameCount);
constexpr u32 AttributeMask = __builtin_offsetof(RuleFilterLayout, AttributeMask);
constexpr u32 FilterValue = __builtin_offsetof(RuleFilterLayout, FilterValue);
constexpr u32 SizeOperator = __builtin_offsetof(RuleFilterLayout, SizeOperator);
constexpr u32 SizeOperand = __builtin_offsetof(RuleFilterLayout, SizeOperand);
constexpr u32 StartTime = __builtin_offsetof(RuleFilterLayout, StartTime);
constexpr u32 EndTime = __builtin_offsetof(RuleFilterLayout, EndTime);
constexpr u32 ArgumentCount = __builtin_offsetof(RuleFilterLayout, ArgumentCount);
constexpr u32 ParentProcessCount = __builtin_offsetof(RuleFilterLayout, ParentProcessCount);
constexpr u32 Size = sizeof(RuleFilterLayout);
}  // namespace RuleFilter

namespace NetworkGroup {
constexpr u32 AddressCount = __builtin_offsetof(NetworkGroupLayout, AddressCount);
constexpr u32 PortCount = __builtin_offsetof(NetworkGroupLayout, PortCount);
constexpr u32 PortRangeCount = __builtin_offsetof(NetworkGroupLayout, PortRangeCount);
constexpr u32 Size = sizeof(NetworkGroupLayout);
}  // namespace NetworkGroup

namespace NetworkFilter {
constexpr u32 Magic = __builtin_offsetof(NetworkFilterLayout, Magic);
constexpr u32 Conditions = __builtin_offsetof(NetworkFilterLayout, Conditions);
constexpr u32 ObjectKind = __builtin_offsetof(NetworkFilterLayout, ObjectKind);
constexpr u32 ActorProcessCount = __builtin_offsetof(NetworkFilterLayout, ActorProcessCount);
constexpr u32 ActorUsernameCount = __builtin_offsetof(NetworkFilterLayout, ActorUsernameCount);
constexpr u32 Groups = __builtin_offsetof(NetworkFilterLayout, Groups);  // group g at Groups + g * NetworkGroup::Size
constexpr u32 Reserved = __builtin_offsetof(NetworkFilterLayout, Reserved);
constexpr u32 StartTime = __builtin_offsetof(NetworkFilterLayout, StartTime);
constexpr u32 EndTime = __builtin_offsetof(NetworkFilterLayout, EndTime);
constexpr u32 Size = sizeof(NetworkFilterLayout);
}  // namespace NetworkFilter

namespace TextRecord {
constexpr u32 Magic = __builtin_offsetof(TextRecordLayout, Magic);
constexpr u32 Text = __builtin_offsetof(TextRecordLayout, Text);  // the string header
constexpr u32 Size = sizeof(TextRecordLayout);                     // where the text stands
}  // namespace TextRecord

namespace NumberRecord {
constexpr u32 Magic = __builtin_offsetof(NumberRecordLayout, Magic);
constexpr u32 Value = __builtin_offsetof(NumberRecordLayout, Value);
constexpr u32 Size = sizeof(NumberRecordLayout);
}  // namespace NumberRecord

namespace PortRangeRecord {
constexpr u32 Magic = __builtin_offsetof(PortRangeRecordLayout, Magic);
constexpr u32 Low = __builtin_offsetof(PortRangeRecordLayout, Low);
constexpr u32 High = __builtin_offsetof(PortRangeRecordLayout, High);
constexpr u32 Size = sizeof(PortRangeRecordLayout);
}  // namespace PortRangeRecord

// The sizes the agent's writer has always produced: a layout above that
// changed one of them would change the format.
static_assert(StringHeader::Size == 8);
static_assert(PolicyHeader::Size == 36);
static_assert(ContextHeader::Size == 8 && ContextEntry::Size == 20);
static_assert(RuleRecord::Size == 24);
static_assert(FileBody::Size == 36 && RegistryBody::Size == 40 && ProcessBody::Size == 28);
static_assert(WhiteListBody::Size == 20 && NetworkBody::Size == 16);
static_assert(RuleFilter::Size == 72 && NetworkFilter::Size == 64 && NetworkGroup::Size == 12);
static_assert(TextRecord::Size == 12 && NumberRecord::Size == 8 && PortRangeRecord::Size == 8);

}  // namespace MonitorFormat
