// The app-blocking policy: SHA-256 digests of executables that the agent
// wants blocked, read from the agent's binary file into a non-paged rule set
// that a monitor queries on the path of process creation. The store that
// holds the live set, and its match, are in rules/.
#pragma once

#include "platform/nt.h"

#include "include/texprt.h"

// File format. All numbers little-endian.
constexpr ULONG AppBlockingPolicyMagic = 0x54425001;  // version 1
constexpr ULONG AppBlockingRuleMagic = 0x42524801;
constexpr ULONG AppBlockingBodyMagic = 0x42525001;
constexpr ULONG AppBlockingHashMagic = 0x42465301;
constexpr ULONG AppBlockingFormatVersion = 1;

constexpr ULONG AppBlockingHeaderSize = 32;
constexpr ULONG AppBlockingRecordFixedSize = 40;
constexpr ULONG AppBlockingHashEntrySize = 138;
constexpr ULONG AppBlockingDigestChars = 64;
constexpr ULONG AppBlockingProcessRuleType = 6;

#pragma pack(push, 1)
struct AppBlockingFileHeader {
    ULONG Magic;
    ULONG Checksum;  // over DataSize + 1 bytes from offset 32
    ULONG DataSize;
    ULONG Reserved;
    ULONGLONG PolicyFlags;
    ULONG RuleCount;
    ULONG PolicyTag;
};
struct AppBlockingRuleRecord {
    ULONG Magic;
    ULONG RecordSize;
    ULONG RuleCategory;
    ULONG RuleType;
    ULONG RuleId[4];
    ULONG BodyMagic;
    ULONG HashCount;
};
struct AppBlockingHashEntry {
    ULONG Magic;
    ULONG TextReference;  // overwritten in the image with the text's address
    WCHAR Digest[AppBlockingDigestChars];
    WCHAR Terminator;
};
#pragma pack(pop)
static_assert(sizeof(AppBlockingFileHeader) == AppBlockingHeaderSize);
static_assert(sizeof(AppBlockingRuleRecord) == AppBlockingRecordFixedSize);
static_assert(sizeof(AppBlockingHashEntry) == AppBlockingHashEntrySize);

// A digest as the match compares it: 32 raw bytes and a NUL.
constexpr ULONG AppBlockingDigestBytes = 32;

struct AppBlockingRule {
    ULONG HashesBorrowed;  // non-zero: the free leaves the digest list alone
    ULONG RuleType;
    ULONG RuleId[4];
    ULONG PolicyTag;
    ULONG HashCount;
    PUCHAR *Hashes;  // HashCount pointers to 33-byte digest buffers
};
TEXPRT_ASSERT_LAYOUT32(sizeof(AppBlockingRule) == 36);

struct ProcessAppBlockingRuleSet {
    ULONG RuleCount;
    ULONG Capacity;
    AppBlockingRule Rules[1];  // room for Capacity + 1
};

NTSTATUS LoadAppBlockingPolicy(PUNICODE_STRING Path, ULONGLONG *FlagsOut, ProcessAppBlockingRuleSet **SetOut);
NTSTATUS ReadAppBlockingPolicyFile(PUNICODE_STRING Path, PUCHAR *ImageOut, ULONG *SizeOut);
// Parses an image of at least DataSize + 40 bytes, as the reader gives it.
NTSTATUS ParseAppBlockingPolicy(PUCHAR Image, ULONGLONG *FlagsOut, ProcessAppBlockingRuleSet **SetOut);
NTSTATUS CreateAppBlockingRuleSet(ULONG Count, ProcessAppBlockingRuleSet **SetOut);
NTSTATUS FreeAppBlockingRuleSet(ProcessAppBlockingRuleSet *Set);
NTSTATUS InitAppBlockingRule(AppBlockingRule *Rule, ULONG RuleType, const ULONG RuleId[4], ULONG PolicyTag);
NTSTATUS FreeAppBlockingRule(AppBlockingRule *Rule);
NTSTATUS AddAppBlockingHash(AppBlockingRule *Rule, const WCHAR *Text, ULONG Characters, PUCHAR **SlotOut);
