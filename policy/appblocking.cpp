// The app-blocking policy: reading, checking and parsing the agent's file
// into a rule set.
#include "policy/appblocking.h"

#include "base/strings.h"
#include "base/trace.h"
#include "policy/policyfile.h"
#include "policy/records.h"

namespace {

namespace Format = AppBlockingFormat;

VOID ReportMismatch(PCWSTR Label, ULONG Found) { ReportPolicyRecordMismatch(Label, Found, Format::FormatVersion); }

UCHAR NarrowLower(UCHAR Character) { return (Character >= 'A' && Character <= 'Z') ? Character + 0x20 : Character; }

}  // namespace

NTSTATUS ReadAppBlockingPolicyFile(PUNICODE_STRING Path, PUCHAR *ImageOut, ULONG *SizeOut) {
    if (Path == nullptr || ImageOut == nullptr || SizeOut == nullptr) return STATUS_INVALID_PARAMETER;
    ULONG Found = 0;
    const NTSTATUS Status = ReadPolicyFileImage(Path, AppBlockingPolicyMagic, TagAppBlocking, ImageOut, SizeOut, &Found);
    if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
    return Status;
}

NTSTATUS CreateAppBlockingRuleSet(ULONG Count, ProcessAppBlockingRuleSet **SetOut) {
    if (SetOut == nullptr || Count == 0) return STATUS_INVALID_PARAMETER;
    *SetOut = nullptr;
    const ULONGLONG Bytes = FIELD_OFFSET(ProcessAppBlockingRuleSet, Rules) + ((ULONGLONG)Count + 1) * sizeof(AppBlockingRule);
    if (Bytes > 0xFFFFFFFFu) return STATUS_INSUFFICIENT_RESOURCES;
    auto *Set = (ProcessAppBlockingRuleSet *)PoolAlloc(DefaultPool, (ULONG)Bytes, TagAppBlocking);
    if (Set == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(Set, (SIZE_T)Bytes);
    Set->Capacity = Count;
    *SetOut = Set;
    return STATUS_SUCCESS;
}

NTSTATUS InitAppBlockingRule(AppBlockingRule *Rule, ULONG RuleType, const ULONG RuleId[4], ULONG PolicyTag) {
    if (Rule == nullptr || RuleId == nullptr) return STATUS_INVALID_PARAMETER;
    RtlZeroMemory(Rule, sizeof(*Rule));
    Rule->RuleType = RuleType;
    RtlCopyMemory(Rule->RuleId, RuleId, sizeof(Rule->RuleId));
    Rule->PolicyTag = PolicyTag;
    return STATUS_SUCCESS;
}

NTSTATUS FreeAppBlockingRule(AppBlockingRule *Rule) {
    if (Rule == nullptr) return STATUS_INVALID_PARAMETER;
    if (Rule->HashesBorrowed == 0) {
        if (Rule->Hashes != nullptr) {
            for (ULONG Index = 0; Index < Rule->HashCount; ++Index) {
                PoolFree(Rule->Hashes[Index]);
                Rule->Hashes[Index] = nullptr;
            }
            PoolFree(Rule->Hashes);
            Rule->Hashes = nullptr;
        }
        Rule->HashCount = 0;
    }
    Rule->HashesBorrowed = 0;
    Rule->RuleType = 0;
    return STATUS_SUCCESS;
}

NTSTATUS FreeAppBlockingRuleSet(ProcessAppBlockingRuleSet *Set) {
    if (Set == nullptr) return STATUS_INVALID_PARAMETER;
    for (ULONG Index = 0; Index < Set->RuleCount; ++Index) FreeAppBlockingRule(&Set->Rules[Index]);
    PoolFree(Set);
    return STATUS_SUCCESS;
}

NTSTATUS AddAppBlockingHash(AppBlockingRule *Rule, const WCHAR *Text, ULONG Characters, PUCHAR **SlotOut) {
    if (Rule == nullptr || Text == nullptr || SlotOut == nullptr) return STATUS_INVALID_PARAMETER;
    *SlotOut = nullptr;
    // The array grows by one slot per digest; the old one goes only once
    // everything else has worked, so a failure leaves the rule as it was.
    PUCHAR *Hashes = (PUCHAR *)PoolAlloc(DefaultPool, (Rule->HashCount + 1) * sizeof(PUCHAR), TagAppBlocking);
    if (Hashes == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    for (ULONG Index = 0; Index < Rule->HashCount; ++Index) Hashes[Index] = Rule->Hashes[Index];
    if (Characters == 0) {
        PoolFree(Hashes);
        return STATUS_INVALID_PARAMETER;
    }
    PUCHAR Narrow = (PUCHAR)PoolAlloc(DefaultPool, Characters + 1, TagAppBlocking);
    if (Narrow == nullptr) {
        PoolFree(Hashes);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // The text lies in the file image at whatever offset its record gives, so
    // it may be unaligned: each character is copied out, not loaded in place.
    for (ULONG Index = 0; Index < Characters; ++Index) {
        WCHAR Character;
        RtlCopyMemory(&Character, (const UCHAR *)Text + Index * sizeof(WCHAR), sizeof(Character));
        Narrow[Index] = (UCHAR)Character;
    }
    Narrow[Characters] = 0;
    PUCHAR Digest = (PUCHAR)PoolAlloc(DefaultPool, AppBlockingDigestBytes + 1, TagAppBlocking);
    if (Digest == nullptr) {
        PoolFree(Narrow);
        PoolFree(Hashes);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Digest[AppBlockingDigestBytes] = 0;
    // No character is refused: one that is not hexadecimal folds into some
    // value, and a text that ends early leaves the rest of the digest as the
    // pool gave it. Both are tolerated as they always were.
    ULONG Out = 0;
    for (ULONG Index = 0; Index + 1 <= Characters && Narrow[Index] != 0 && Out < AppBlockingDigestBytes;
         Index += 2, ++Out) {
        UCHAR High = Narrow[Index];
        if (High > '9') High = (UCHAR)(NarrowLower(High) - 7);
        UCHAR Byte = (UCHAR)(High << 4);
        UCHAR Low = Narrow[Index + 1];
        Low = Low > '9' ? (UCHAR)(NarrowLower(Low) - 0x57) : (UCHAR)(Low - 0x30);
        Digest[Out] = Byte | Low;
    }
    PoolFree(Narrow);
    Hashes[Rule->HashCount] = Digest;
    PoolFree(Rule->Hashes);
    Rule->Hashes = Hashes;
    *SlotOut = &Hashes[Rule->HashCount];
    Rule->HashCount += 1;
    return STATUS_SUCCESS;
}

NTSTATUS ParseAppBlockingPolicy(PUCHAR Image, ULONGLONG *FlagsOut, ProcessAppBlockingRuleSet **SetOut) {
    if (Image == nullptr || FlagsOut == nullptr || SetOut == nullptr) return STATUS_INVALID_PARAMETER;
    *FlagsOut = 0;
    *SetOut = nullptr;
    NTSTATUS Status = STATUS_UNSUCCESSFUL;
    Format::HeaderLayout Header;
    RtlCopyMemory(&Header, Image, sizeof(Header));
    PUCHAR Records = Image + Format::Header::Size;
    const ULONG DataSize = Header.DataSize;

    if (ComputePolicyChecksum(Records, DataSize) != Header.Checksum) {
        TRACE_STATUS(STATUS_DATA_ERROR);
        return STATUS_DATA_ERROR;
    }

    ProcessAppBlockingRuleSet *Set = nullptr;
    if (Header.RuleCount != 0) Status = CreateAppBlockingRuleSet(Header.RuleCount, &Set);
    // With no rules announced there is no set, and any record is an error.
    if (DataSize != 0 && (Header.RuleCount == 0 || NT_SUCCESS(Status))) {
        // Every record, its entries and the number of rules are held against
        // what the image and the set really hold before anything is read,
        // and a file that claims more is refused.
        Status = WalkPolicyRecords(
            Records, DataSize, Format::RuleRecord::Size, Format::RuleMagic,
            WIDE("App Blocking Process Rule Magic Number"), [&](PUCHAR Record, ULONG Offset, ULONG *Size) {
                AppBlockingRuleRecord Rule;
                RtlCopyMemory(&Rule, Record, sizeof(Rule));
                if (Rule.RuleCategory != Format::RuleCategoryProcess) return STATUS_INVALID_PARAMETER;
                if (Set == nullptr) return STATUS_DATA_ERROR;
                if (Rule.BodyMagic != Format::BodyMagic) {
                    ReportMismatch(WIDE("App Blocking Process Rule Body Header"), Rule.BodyMagic);
                    return STATUS_INVALID_PARAMETER;
                }
                const ULONGLONG EntriesEnd =
                    Format::RuleRecord::Size + (ULONGLONG)Rule.HashCount * Format::HashEntry::Size;
                if (Rule.RecordSize == 0 || !PolicyFits(Offset, Rule.RecordSize, DataSize) ||
                    EntriesEnd > Rule.RecordSize || Set->RuleCount >= Set->Capacity)
                    return STATUS_DATA_ERROR;
                *Size = Rule.RecordSize;
                AppBlockingRule *Slot = &Set->Rules[Set->RuleCount];
                NTSTATUS RuleStatus = InitAppBlockingRule(Slot, Rule.RuleType, Rule.RuleId, Header.PolicyTag);
                if (!NT_SUCCESS(RuleStatus)) return RuleStatus;
                Set->RuleCount += 1;
                for (ULONG Entry = 0; Entry < Rule.HashCount; ++Entry) {
                    PUCHAR EntryBytes = Record + Format::RuleRecord::Size + Entry * Format::HashEntry::Size;
                    const ULONG EntryMagic = PolicyUlong(EntryBytes + Format::HashEntry::Magic);
                    if (EntryMagic != Format::HashMagic) {
                        ReportMismatch(WIDE("App Blocking SHA256 rule"), EntryMagic);
                        return STATUS_INVALID_PARAMETER;
                    }
                    // The text reference slot takes the text's address, as the
                    // format says; only its low 32 bits fit on a 64-bit host.
                    const WCHAR *Text = (const WCHAR *)(EntryBytes + Format::HashEntry::Digest);
                    PolicyWriteUlong(EntryBytes + Format::HashEntry::TextReference, (ULONG)(ULONG_PTR)Text);
                    PUCHAR *NewSlot = nullptr;
                    RuleStatus = AddAppBlockingHash(Slot, Text, Format::DigestChars, &NewSlot);
                    if (!NT_SUCCESS(RuleStatus)) return RuleStatus;
                }
                return STATUS_SUCCESS;
            });
    }
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        if (Set != nullptr) FreeAppBlockingRuleSet(Set);
        return Status;
    }
    *FlagsOut = Header.PolicyFlags;
    *SetOut = Set;
    return Status;
}

NTSTATUS LoadAppBlockingPolicy(PUNICODE_STRING Path, ULONGLONG *FlagsOut, ProcessAppBlockingRuleSet **SetOut) {
    if (Path == nullptr || FlagsOut == nullptr || SetOut == nullptr) return STATUS_INVALID_PARAMETER;
    *FlagsOut = 0;
    *SetOut = nullptr;
    PUCHAR Image = nullptr;
    ULONG DataSize = 0;
    NTSTATUS Status = ReadAppBlockingPolicyFile(Path, &Image, &DataSize);
    if (!NT_SUCCESS(Status)) return Status;
    Status = ParseAppBlockingPolicy(Image, FlagsOut, SetOut);
    PoolFree(Image);
    return Status;
}
