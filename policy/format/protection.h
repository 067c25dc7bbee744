// The self-protection policy file: the directories, registry keys and
// processes of the agent that the monitors defend, and who may touch them
// regardless. The one description of its bytes: the library's parser and
// tpol both take every magic word, record layout and field offset from here,
// so the writer and the reader cannot part ways.
//
// Compiled unchanged into texprt.sys (i686 and x64), the host library and
// tpol: it includes nothing, names no kernel type and holds constants and
// layouts only. Its words are its own fixed-width types, built from the
// builtin ones that have one width on every target (unsigned long does not:
// 32 bits under mingw, 64 on Linux).
#pragma once

namespace ProtectionFormat {

using u8 = unsigned char;
using u16 = unsigned short;
using u32 = unsigned int;
using i32 = int;
using u64 = unsigned long long;
static_assert(sizeof(u8) == 1 && sizeof(u16) == 2 && sizeof(u32) == 4 && sizeof(i32) == 4 && sizeof(u64) == 8);

// ---------------------------------------------------------------- words
//
// All numbers are little-endian. A magic word is compared whole; its low
// byte is the version of its record.

constexpr u32 MagicVersionMask = 0xFF;

constexpr u32 PolicyMagic = 0x54505003;
constexpr u32 PolicyVersion = PolicyMagic & MagicVersionMask;
constexpr u32 RuleMagic = 0x50524802;
constexpr u32 DirectoryBodyMagic = 0x50524602;
constexpr u32 RegistryBodyMagic = 0x50525201;
constexpr u32 ProcessBodyMagic = 0x50525001;
constexpr u32 ProcessNameMagic = 0x50504501;
constexpr u32 FilterMagic = 0x50464801;
constexpr u32 PatternMagic = 0x50504801;

// The versions a wrong magic word is reported against. The rule record and
// the three bodies are all reported against version 2, although the
// registry and process bodies are of version 1 themselves; the names, the
// filters and the patterns against their own 1.
constexpr u32 ReportedRuleVersion = 2;
constexpr u32 ReportedBodyVersion = 2;
constexpr u32 ReportedListVersion = 1;

// ProtectionKind of a rule record.
constexpr u32 KindDirectory = 0;
constexpr u32 KindRegistry = 1;
constexpr u32 KindProcess = 2;
constexpr u32 KindCount = 3;

// What every filter's Conditions word is in memory: patterns.
constexpr u32 FilterConditionPatterns = 2;

// A rule's Depth that reaches any level below its path.
constexpr i32 DepthAny = -2;

// ---------------------------------------------------------------- layouts
//
// Each record as a packed structure, and the offsets of its fields, taken
// from the structure so that the two cannot differ.

#pragma pack(push, 1)

// A counted string as the file holds it; its text follows where the record
// says, MaximumLength bytes of it.
struct StringHeaderLayout {
    u16 Length;
    u16 MaximumLength;
    u32 TextReference;  // a slot the loader fills with the text's address; its file value means nothing
};

// The file header; the records follow, DataSize bytes, then one byte that
// the checksum covers too.
struct HeaderLayout {
    u32 Magic;
    u32 Checksum;  // over DataSize + 1 bytes from the end of the header
    u32 DataSize;
    u32 ProtectionMask;
    u32 RegistryRuleCount;
    u32 DirectoryRuleCount;
    u32 ProcessRuleCount;
};

// One rule: this, then the body of its kind.
struct RuleRecordLayout {
    u32 Magic;
    u32 RecordSize;
    u32 ProtectionKind;
    u32 RuleType;
};

// Behind the fixed part: the path text, the second path's text (its
// MaximumLength even when its Length is 0), list A, list B.
struct DirectoryBodyLayout {
    u32 Magic;
    StringHeaderLayout Path;
    StringHeaderLayout SecondPath;
    i32 Depth;
    u32 ListACount;
    u32 ListBCount;
};

// Behind the fixed part: the path text, list A, list B.
struct RegistryBodyLayout {
    u32 Magic;
    StringHeaderLayout Path;
    i32 Depth;
    u32 ListACount;
    u32 ListBCount;
};

// Behind the fixed part: the path text, the process name records, list A,
// list B.
struct ProcessBodyLayout {
    u32 Magic;
    StringHeaderLayout Path;
    u32 Reserved[2];  // never read
    i32 Depth;
    u32 ProcessNameCount;
    u32 ListACount;
    u32 ListBCount;
};

// A filter of list A or B: this, then PatternCount pattern records.
struct FilterLayout {
    u32 Magic;
    u32 Reserved;  // never read
    u32 Value;
    u32 PatternCount;
};

// A process name or a pattern: the magic, the string header, the text.
struct TextRecordLayout {
    u32 Magic;
    StringHeaderLayout Text;
};

#pragma pack(pop)

namespace StringHeader {
constexpr u32 Length = __builtin_offsetof(StringHeaderLayout, Length);
constexpr u32 MaximumLength = __builtin_offsetof(StringHeaderLayout, MaximumLength);
constexpr u32 TextReference = __builtin_offsetof(StringHeaderLayout, TextReference);
constexpr u32 Size = sizeof(StringHeaderLayout);
}  // namespace StringHeader

namespace Header {
constexpr u32 Magic = __builtin_offsetof(HeaderLayout, Magic);
constexpr u32 Checksum = __builtin_offsetof(HeaderLayout, Checksum);
constexpr u32 DataSize = __builtin_offsetof(HeaderLayout, DataSize);
constexpr u32 ProtectionMask = __builtin_offsetof(HeaderLayout, ProtectionMask);
constexpr u32 RegistryRuleCount = __builtin_offsetof(HeaderLayout, RegistryRuleCount);
constexpr u32 DirectoryRuleCount = __builtin_offsetof(HeaderLayout, DirectoryRuleCount);
constexpr u32 ProcessRuleCount = __builtin_offsetof(HeaderLayout, ProcessRuleCount);
constexpr u32 Size = sizeof(HeaderLayout);
// The reader takes this much of the file first, and this much more than
// DataSize in all.
constexpr u32 ReadExtra = 32;
}  // namespace Header

namespace RuleRecord {
constexpr u32 Magic = __builtin_offsetof(RuleRecordLayout, Magic);
constexpr u32 RecordSize = __builtin_offsetof(RuleRecordLayout, RecordSize);
constexpr u32 ProtectionKind = __builtin_offsetof(RuleRecordLayout, ProtectionKind);
constexpr u32 RuleType = __builtin_offsetof(RuleRecordLayout, RuleType);
constexpr u32 Size = sizeof(RuleRecordLayout);  // where the body starts
}  // namespace RuleRecord

namespace DirectoryBody {
constexpr u32 Magic = __builtin_offsetof(DirectoryBodyLayout, Magic);
constexpr u32 Path = __builtin_offsetof(DirectoryBodyLayout, Path);
constexpr u32 SecondPath = __builtin_offsetof(DirectoryBodyLayout, SecondPath);
constexpr u32 Depth = __builtin_offsetof(DirectoryBodyLayout, Depth);
constexpr u32 ListACount = __builtin_offsetof(DirectoryBodyLayout, ListACount);
constexpr u32 ListBCount = __builtin_offsetof(DirectoryBodyLayout, ListBCount);
constexpr u32 Size = sizeof(DirectoryBodyLayout);  // where the path text stands
}  // namespace DirectoryBody

namespace RegistryBody {
constexpr u32 Magic = __builtin_offsetof(RegistryBodyLayout, Magic);
constexpr u32 Path = __builtin_offsetof(RegistryBodyLayout, Path);
constexpr u32 Depth = __builtin_offsetof(RegistryBodyLayout, Depth);
constexpr u32 ListACount = __builtin_offsetof(RegistryBodyLayout, ListACount);
constexpr u32 ListBCount = __builtin_offsetof(RegistryBodyLayout, ListBCount);
constexpr u32 Size = sizeof(RegistryBodyLayout);
}  // namespace RegistryBody

namespace ProcessBody {
constexpr u32 Magic = __builtin_offsetof(ProcessBodyLayout, Magic);
constexpr u32 Path = __builtin_offsetof(ProcessBodyLayout, Path);
constexpr u32 Reserved = __builtin_offsetof(ProcessBodyLayout, Reserved);
constexpr u32 Depth = __builtin_offsetof(ProcessBodyLayout, Depth);
constexpr u32 ProcessNameCount = __builtin_offsetof(ProcessBodyLayout, ProcessNameCount);
constexpr u32 ListACount = __builtin_offsetof(ProcessBodyLayout, ListACount);
constexpr u32 ListBCount = __builtin_offsetof(ProcessBodyLayout, ListBCount);
constexpr u32 Size = sizeof(ProcessBodyLayout);
}  // namespace ProcessBody

namespace Filter {
constexpr u32 Magic = __builtin_offsetof(FilterLayout, Magic);
constexpr u32 Reserved = __builtin_offsetof(FilterLayout, Reserved);
constexpr u32 Value = __builtin_offsetof(FilterLayout, Value);
constexpr u32 PatternCount = __builtin_offsetof(FilterLayout, PatternCount);
constexpr u32 Size = sizeof(FilterLayout);  // where its first pattern record stands
}  // namespace Filter

namespace TextRecord {
constexpr u32 Magic = __builtin_offsetof(TextRecordLayout, Magic);
constexpr u32 Text = __builtin_offsetof(TextRecordLayout, Text);
constexpr u32 Size = sizeof(TextRecordLayout);  // where the text stands
}  // namespace TextRecord

// The sizes the agent's writer has always produced: a layout above that
// changed one of them would change the format.
static_assert(Header::Size == 28 && RuleRecord::Size == 16 && DirectoryBody::Size == 32 && RegistryBody::Size == 24 &&
              ProcessBody::Size == 36 && Filter::Size == 16 && TextRecord::Size == 12);

}  // namespace ProtectionFormat
