// The app-blocking policy file: SHA-256 digests of executables that the
// agent wants blocked. The one description of its bytes: the library's
// parser and tpol both take every magic word, record layout and field
// offset from here, so the writer and the reader cannot part ways.
//
// Compiled unchanged into texprt.sys (i686 and x64), the host library and
// tpol: it includes nothing, names no kernel type and holds constants and
// layouts only. Its words are its own fixed-width types, built from the
// builtin ones that have one width on every target (unsigned long does not:
// 32 bits under mingw, 64 on Linux).
#pragma once

namespace AppBlockingFormat {

using u8 = unsigned char;
using u16 = unsigned short;
using u32 = unsigned int;
using u64 = unsigned long long;
static_assert(sizeof(u8) == 1 && sizeof(u16) == 2 && sizeof(u32) == 4 && sizeof(u64) == 8);

// ---------------------------------------------------------------- words
//
// All numbers are little-endian. A magic word is compared whole; its low
// byte is the version of its record, 1 for every record of this format.

constexpr u32 MagicVersionMask = 0xFF;

constexpr u32 PolicyMagic = 0x54425001;
constexpr u32 RuleMagic = 0x42524801;
constexpr u32 BodyMagic = 0x42525001;
constexpr u32 HashMagic = 0x42465301;
constexpr u32 FormatVersion = PolicyMagic & MagicVersionMask;
static_assert((RuleMagic & MagicVersionMask) == FormatVersion && (BodyMagic & MagicVersionMask) == FormatVersion &&
              (HashMagic & MagicVersionMask) == FormatVersion);

// The one category and the one rule type that the format holds.
constexpr u32 RuleCategoryProcess = 0;
constexpr u32 RuleTypeProcess = 6;

// A digest is written as 64 hexadecimal UTF-16 characters and a NUL.
constexpr u32 DigestChars = 64;

// ---------------------------------------------------------------- layouts
//
// Each record as a packed structure, and the offsets of its fields, taken
// from the structure so that the two cannot differ.

#pragma pack(push, 1)

// The file header; the records follow, DataSize bytes, then one byte that
// the checksum covers too.
struct HeaderLayout {
    u32 Magic;
    u32 Checksum;  // over DataSize + 1 bytes from the end of the header
    u32 DataSize;
    u32 Reserved;
    u64 PolicyFlags;
    u32 RuleCount;
    u32 PolicyTag;
};

// One rule: this, then HashCount digest entries.
struct RuleRecordLayout {
    u32 Magic;
    u32 RecordSize;
    u32 RuleCategory;
    u32 RuleType;
    u8 RuleId[16];
    u32 BodyMagic;
    u32 HashCount;
};

struct HashEntryLayout {
    u32 Magic;
    u32 TextReference;  // a slot the loader fills with the text's address; its file value means nothing
    u16 Digest[DigestChars];
    u16 Terminator;
};

#pragma pack(pop)

namespace Header {
constexpr u32 Magic = __builtin_offsetof(HeaderLayout, Magic);
constexpr u32 Checksum = __builtin_offsetof(HeaderLayout, Checksum);
constexpr u32 DataSize = __builtin_offsetof(HeaderLayout, DataSize);
constexpr u32 Reserved = __builtin_offsetof(HeaderLayout, Reserved);
constexpr u32 PolicyFlags = __builtin_offsetof(HeaderLayout, PolicyFlags);
constexpr u32 RuleCount = __builtin_offsetof(HeaderLayout, RuleCount);
constexpr u32 PolicyTag = __builtin_offsetof(HeaderLayout, PolicyTag);
constexpr u32 Size = sizeof(HeaderLayout);
}  // namespace Header

namespace RuleRecord {
constexpr u32 Magic = __builtin_offsetof(RuleRecordLayout, Magic);
constexpr u32 RecordSize = __builtin_offsetof(RuleRecordLayout, RecordSize);
constexpr u32 RuleCategory = __builtin_offsetof(RuleRecordLayout, RuleCategory);
constexpr u32 RuleType = __builtin_offsetof(RuleRecordLayout, RuleType);
constexpr u32 RuleId = __builtin_offsetof(RuleRecordLayout, RuleId);
constexpr u32 BodyMagic = __builtin_offsetof(RuleRecordLayout, BodyMagic);
constexpr u32 HashCount = __builtin_offsetof(RuleRecordLayout, HashCount);
constexpr u32 Size = sizeof(RuleRecordLayout);  // where the first digest entry stands
}  // namespace RuleRecord

namespace HashEntry {
constexpr u32 Magic = __builtin_offsetof(HashEntryLayout, Magic);
constexpr u32 TextReference = __builtin_offsetof(HashEntryLayout, TextReference);
constexpr u32 Digest = __builtin_offsetof(HashEntryLayout, Digest);
constexpr u32 Terminator = __builtin_offsetof(HashEntryLayout, Terminator);
constexpr u32 Size = sizeof(HashEntryLayout);
}  // namespace HashEntry

// The sizes the agent's writer has always produced: a layout above that
// changed one of them would change the format.
static_assert(Header::Size == 32 && RuleRecord::Size == 40 && HashEntry::Size == 138);

}  // namespace AppBlockingFormat
