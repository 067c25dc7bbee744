// The app-blocking policy: SHA-256 digests of executables that the agent
// wants blocked, read from the agent's binary file into a non-paged rule set
// that a monitor queries on the path of process creation. The store that
// holds the live set, and its match, are in rules/.
#pragma once

#include "platform/nt.h"

#include "include/texprt.h"
#include "policy/format/appblocking.h"

// The file's layouts, magic words and offsets are in
// policy/format/appblocking.h; the library's own names for the few that
// reach beyond the parser follow.
constexpr ULONG AppBlockingPolicyMagic = AppBlockingFormat::PolicyMagic;
constexpr ULONG AppBlockingHeaderSize = AppBlockingFormat::Header::Size;
constexpr ULONG AppBlockingProcessRuleType = AppBlockingFormat::RuleTypeProcess;

// A rule record's fixed part as the parser copies it, with its rule id in
// the words the rule keeps.
#pragma pack(push, 1)
struct AppBlockingRuleRecord {
    ULONG Magic;
    ULONG RecordSize;
    ULONG RuleCategory;
    ULONG RuleType;
    ULONG RuleId[4];
    ULONG BodyMagic;
    ULONG HashCount;
};
#pragma pack(pop)
static_assert(FIELD_OFFSET(AppBlockingRuleRecord, Magic) == AppBlockingFormat::RuleRecord::Magic);
static_assert(FIELD_OFFSET(AppBlockingRuleRecord, RecordSize) == AppBlockingFormat::RuleRecord::RecordSize);
static_assert(FIELD_OFFSET(AppBlockingRuleRecord, RuleCategory) == AppBlockingFormat::RuleRecord::RuleCategory);
static_assert(FIELD_OFFSET(AppBlockingRuleRecord, RuleType) == AppBlockingFormat::RuleRecord::RuleType);
static_assert(FIELD_OFFSET(AppBlockingRuleRecord, RuleId) == AppBlockingFormat::RuleRecord::RuleId);
static_assert(FIELD_OFFSET(AppBlockingRuleRecord, BodyMagic) == AppBlockingFormat::RuleRecord::BodyMagic);
static_assert(FIELD_OFFSET(AppBlockingRuleRecord, HashCount) == AppBlockingFormat::RuleRecord::HashCount);
static_assert(sizeof(AppBlockingRuleRecord) == AppBlockingFormat::RuleRecord::Size);

// A digest as the match compares it: 32 raw bytes and a NUL, two of the
// file's hexadecimal characters to a byte.
constexpr ULONG AppBlockingDigestBytes = 32;
static_assert(AppBlockingDigestBytes * 2 == AppBlockingFormat::DigestChars);

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
