// The monitor policy container: reading the file, the walks over its one
// run of records that build two families of rule sets and the whitelist
// set, the rule contexts, and the sets' allocation and release.
#include "policy/monitor.h"

#include "base/strings.h"
#include "base/trace.h"
#include "diagnostics/eventlog.h"
#include "policy/policyfile.h"

namespace {

namespace Format = MonitorFormat;

template <typename Set>
NTSTATUS CreateSet(ULONG Count, Set **SetOut) {
    if (SetOut == nullptr || Count == 0) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    *SetOut = nullptr;
    // Room for Capacity + 1 records, in one zeroed allocation.
    const ULONGLONG Bytes = FIELD_OFFSET(Set, Rules) + ((ULONGLONG)Count + 1) * sizeof(((Set *)nullptr)->Rules[0]);
    auto *Created = Bytes <= 0xFFFFFFFFu ? (Set *)PoolAlloc(DefaultPool, (ULONG)Bytes, TagRules) : nullptr;
    if (Created == nullptr) {
        TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(Created, (SIZE_T)Bytes);
    Created->Capacity = Count;
    *SetOut = Created;
    return STATUS_SUCCESS;
}

// Frees what the parser added, whatever Capacity says.
template <typename Set, typename FreeBody>
NTSTATUS FreeSet(Set *Target, FreeBody Free) {
    if (Target == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    for (ULONG Index = 0; Index < Target->RuleCount; ++Index) Free(&Target->Rules[Index]);
    PoolFree(Target);
    return STATUS_SUCCESS;
}

// Every record of the area, in file order, with its head read: the walk
// has checked the magic; here the size is held against the area before
// anything else of the record is read. A RecordSize of 0 would hold the walk
// in place, and one that runs past the area would lead it out.
template <typename Visitor>
NTSTATUS WalkRuleRecords(PUCHAR Records, ULONG BodyLength, Visitor &&Visit) {
    // The walk needs the magic and the size word.
    constexpr ULONG SizedHead = Format::RuleRecord::RecordSize + sizeof(ULONG);
    return WalkPolicyRecords(Records, BodyLength, SizedHead, Format::RuleMagic, WIDE("Rule Magic Number"),
                             [&](PUCHAR Record, ULONG Offset, ULONG *Size) {
                                 RuleRecordHeader Header;
                                 Header.RecordSize = PolicyUlong(Record + Format::RuleRecord::RecordSize);
                                 if (Header.RecordSize < sizeof(RuleRecordHeader) ||
                                     !PolicyFits(Offset, Header.RecordSize, BodyLength))
                                     return STATUS_DATA_ERROR;
                                 RtlCopyMemory(&Header, Record, sizeof(Header));
                                 *Size = Header.RecordSize;
                                 return Visit(Header, Record);
                             });
}

// One list's count walk: the categories of the records whose first context
// names List. WhiteList records are counted by the header, not here.
NTSTATUS CountList(PUCHAR Records, ULONG BodyLength, ULONG List, ULONG Counts[CategoryCount]) {
    return WalkRuleRecords(Records, BodyLength, [&](const RuleRecordHeader &Header, PUCHAR) {
        if (Header.RuleList == List) {
            if (Header.RuleCategory >= CategoryCount) return STATUS_INVALID_PARAMETER;
            if (Header.RuleCategory != CategoryWhiteList) Counts[Header.RuleCategory] += 1;
        }
        return STATUS_SUCCESS;
    });
}

NTSTATUS CreateFamily(const ULONG Counts[CategoryCount], MonitorRuleSets *Sets) {
    NTSTATUS Status = STATUS_SUCCESS;
    if (Counts[CategoryFile] != 0) Status = CreateMonitorFileRuleSet(Counts[CategoryFile], &Sets->File);
    if (NT_SUCCESS(Status) && Counts[CategoryRegistry] != 0)
        Status = CreateMonitorRegistryRuleSet(Counts[CategoryRegistry], &Sets->Registry);
    if (NT_SUCCESS(Status) && Counts[CategoryProcess] != 0)
        Status = CreateMonitorProcessRuleSet(Counts[CategoryProcess], &Sets->Process);
    if (NT_SUCCESS(Status) && Counts[CategorySystem] != 0)
        Status = CreateMonitorSystemRuleSet(Counts[CategorySystem], &Sets->System);
    if (NT_SUCCESS(Status) && Counts[CategoryNetwork] != 0)
        Status = CreateMonitorNetworkRuleSet(Counts[CategoryNetwork], &Sets->Network);
    return Status;
}

// Hands one record to the parser of its category's set in this family.
NTSTATUS ParseIntoFamily(MonitorRuleSets *Sets, const RuleRecordHeader &Header, PUCHAR Record) {
    switch (Header.RuleCategory) {
        case CategorySystem:
            return Sets->System ? ParseMonitorSystemRule(Sets->System, Record, Header.RecordSize) : STATUS_DATA_ERROR;
        case CategoryProcess:
            return Sets->Process ? ParseMonitorProcessRule(Sets->Process, Record, Header.RecordSize)
                                 : STATUS_DATA_ERROR;
        case CategoryFile:
            return Sets->File ? ParseMonitorFileRule(Sets->File, Record, Header.RecordSize) : STATUS_DATA_ERROR;
        case CategoryRegistry:
            return Sets->Registry ? ParseMonitorRegistryRule(Sets->Registry, Record, Header.RecordSize)
                                  : STATUS_DATA_ERROR;
        case CategoryWhiteList:
            return STATUS_SUCCESS;  // the whitelist pass takes these
        case CategoryNetwork:
            return Sets->Network ? ParseMonitorNetworkRule(Sets->Network, Record, Header.RecordSize)
                                 : STATUS_DATA_ERROR;
        default:
            return STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS BuildFamily(PUCHAR Records, ULONG BodyLength, ULONG List, const ULONG Counts[CategoryCount],
                     MonitorRuleSets *Sets) {
    const NTSTATUS Status = CreateFamily(Counts, Sets);
    if (!NT_SUCCESS(Status)) return Status;
    return WalkRuleRecords(Records, BodyLength, [&](const RuleRecordHeader &Header, PUCHAR Record) {
        return Header.RuleList == List ? ParseIntoFamily(Sets, Header, Record) : STATUS_SUCCESS;
    });
}

// Whitelist rules are kept whatever list their first context names.
NTSTATUS BuildWhiteList(PUCHAR Records, ULONG BodyLength, MonitorWhiteListRuleSet *Set) {
    return WalkRuleRecords(Records, BodyLength, [&](const RuleRecordHeader &Header, PUCHAR Record) {
        if (Header.RuleCategory >= CategoryCount) return STATUS_INVALID_PARAMETER;
        if (Header.RuleCategory != CategoryWhiteList) return STATUS_SUCCESS;
        if (Set == nullptr) return STATUS_DATA_ERROR;
        return ParseMonitorWhiteListRule(Set, Record, Header.RecordSize);
    });
}

}  // namespace

NTSTATUS CreateMonitorSystemRuleSet(ULONG Count, MonitorSystemRuleSet **Set) { return CreateSet(Count, Set); }
NTSTATUS CreateMonitorProcessRuleSet(ULONG Count, MonitorProcessRuleSet **Set) { return CreateSet(Count, Set); }
NTSTATUS CreateMonitorFileRuleSet(ULONG Count, MonitorFileRuleSet **Set) { return CreateSet(Count, Set); }
NTSTATUS CreateMonitorRegistryRuleSet(ULONG Count, MonitorRegistryRuleSet **Set) { return CreateSet(Count, Set); }
NTSTATUS CreateMonitorWhiteListRuleSet(ULONG Count, MonitorWhiteListRuleSet **Set) { return CreateSet(Count, Set); }
NTSTATUS CreateMonitorNetworkRuleSet(ULONG Count, MonitorNetworkRuleSet **Set) { return CreateSet(Count, Set); }

NTSTATUS FreeMonitorSystemRuleSet(MonitorSystemRuleSet *Set) {
    return FreeSet(Set, [](SystemRuleBody *Rule) { FreeProcessRuleBody(Rule, CategorySystem); });
}
NTSTATUS FreeMonitorProcessRuleSet(MonitorProcessRuleSet *Set) {
    return FreeSet(Set, [](ProcessRuleBody *Rule) { FreeProcessRuleBody(Rule, CategoryProcess); });
}
NTSTATUS FreeMonitorFileRuleSet(MonitorFileRuleSet *Set) { return FreeSet(Set, FreeFileRuleBody); }
NTSTATUS FreeMonitorRegistryRuleSet(MonitorRegistryRuleSet *Set) { return FreeSet(Set, FreeRegistryRuleBody); }
NTSTATUS FreeMonitorWhiteListRuleSet(MonitorWhiteListRuleSet *Set) { return FreeSet(Set, FreeWhiteListRuleBody); }
NTSTATUS FreeMonitorNetworkRuleSet(MonitorNetworkRuleSet *Set) { return FreeSet(Set, FreeNetworkRuleBody); }

VOID FreeMonitorRuleSets(MonitorRuleSets *Sets) {
    if (Sets->System != nullptr) FreeMonitorSystemRuleSet(Sets->System);
    if (Sets->File != nullptr) FreeMonitorFileRuleSet(Sets->File);
    if (Sets->Process != nullptr) FreeMonitorProcessRuleSet(Sets->Process);
    if (Sets->Registry != nullptr) FreeMonitorRegistryRuleSet(Sets->Registry);
    if (Sets->Network != nullptr) FreeMonitorNetworkRuleSet(Sets->Network);
    RtlZeroMemory(Sets, sizeof(*Sets));
}

NTSTATUS AllocateRuleContextEntries(ULONG Count, RuleContextEntry **Entries) {
    if (Count == 0 || Entries == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    const ULONGLONG Bytes = (ULONGLONG)Count * sizeof(RuleContextEntry);
    auto *Array = Bytes <= 0xFFFFFFFFu ? (RuleContextEntry *)PoolAlloc(DefaultPool, (ULONG)Bytes, TagRules) : nullptr;
    if (Array == nullptr) {
        TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(Array, (SIZE_T)Bytes);
    *Entries = Array;
    return STATUS_SUCCESS;
}

NTSTATUS CopyRuleContexts(const RuleContextEntry *Contexts, ULONG Count, RuleContextEntry **Copy) {
    const NTSTATUS Status = AllocateRuleContextEntries(Count, Copy);
    if (NT_SUCCESS(Status)) RtlCopyMemory(*Copy, Contexts, (SIZE_T)Count * sizeof(RuleContextEntry));
    return Status;
}

NTSTATUS ParseRecordHead(PUCHAR Record, ULONG RecordSize, ULONG BodyMagic, PCWSTR BodyLabel, ULONG FixedSize,
                         ParsedRecord *Parsed) {
    RtlZeroMemory(Parsed, sizeof(*Parsed));
    Parsed->Category = PolicyUlong(Record + Format::RuleRecord::RuleCategory);
    Parsed->RuleType = PolicyUlong(Record + Format::RuleRecord::RuleType);
    NTSTATUS Status = ParseRuleContext(Record + Format::RuleRecord::Contexts, RecordSize - Format::RuleRecord::Contexts,
                                       &Parsed->Contexts, &Parsed->ContextCount);
    if (!NT_SUCCESS(Status)) return Status;
    const ULONG BodyOffset = Format::RuleRecord::Size + Parsed->ContextCount * Format::ContextEntry::Size;
    if (!PolicyFits(BodyOffset, sizeof(ULONG), RecordSize)) return STATUS_DATA_ERROR;
    Parsed->Body = Record + BodyOffset;
    Parsed->BodyAvailable = RecordSize - BodyOffset;
    const ULONG Magic = PolicyUlong(Parsed->Body);
    if (Magic != BodyMagic) {
        ReportPolicyRecordMismatch(BodyLabel, Magic, BodyMagic & Format::MagicVersionMask);
        return STATUS_INVALID_PARAMETER;
    }
    if (!PolicyFits(0, FixedSize, Parsed->BodyAvailable)) return STATUS_DATA_ERROR;
    return STATUS_SUCCESS;
}

NTSTATUS ParseRuleContext(const UCHAR *Block, ULONG Available, RuleContextEntry **Entries, ULONG *Count) {
    if (Block == nullptr || Entries == nullptr || Count == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    *Entries = nullptr;
    *Count = 0;
    if (!PolicyFits(0, Format::ContextHeader::Size, Available)) return STATUS_DATA_ERROR;
    const ULONG Magic = PolicyUlong(Block + Format::ContextHeader::Magic);
    if (Magic != Format::ContextMagic) {
        ReportPolicyRecordMismatch(WIDE("Rule Context Header"), Magic, Format::ContextMagic & Format::MagicVersionMask);
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG EntryCount = PolicyUlong(Block + Format::ContextHeader::Count);
    if (EntryCount != 0 &&
        !PolicyFits(Format::ContextHeader::Size, (ULONGLONG)EntryCount * Format::ContextEntry::Size, Available))
        return STATUS_DATA_ERROR;
    RuleContextEntry *Array = nullptr;
    const NTSTATUS Status = AllocateRuleContextEntries(EntryCount, &Array);
    if (!NT_SUCCESS(Status)) return Status;
    // Each file entry fills the front of its memory entry, which has the
    // file's layout there.
    for (ULONG Index = 0; Index < EntryCount; ++Index)
        RtlCopyMemory(&Array[Index], Block + Format::ContextHeader::Size + Index * Format::ContextEntry::Size,
                      Format::ContextEntry::Size);
    *Entries = Array;
    *Count = EntryCount;
    return STATUS_SUCCESS;
}

NTSTATUS ReadMonitorPolicyFile(PUNICODE_STRING Path, PUCHAR *Image, ULONG *BodyLength) {
    if (Path == nullptr || Image == nullptr || BodyLength == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    ULONG Found = 0;
    const NTSTATUS Status = ReadPolicyFileImage(Path, MonitorPolicyMagic, TagPolicy, Image, BodyLength, &Found);
    if (Status == STATUS_FILE_INVALID)
        ReportPolicyVersionMismatch(WIDE("Policy Magic Number"), (USHORT)(Found & Format::MagicVersionMask),
                                    (USHORT)Format::PolicyVersion);
    return Status;
}

NTSTATUS ParseMonitorPolicy(PUCHAR Image, MonitorRuleSets *EdrSets, MonitorRuleSets *FimSets,
                            MonitorWhiteListRuleSet **WhiteListSet) {
    if (Image == nullptr || EdrSets == nullptr || FimSets == nullptr || WhiteListSet == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    *WhiteListSet = nullptr;
    Format::PolicyHeaderLayout Header;
    RtlCopyMemory(&Header, Image, sizeof(Header));
    PUCHAR Records = Image + Format::PolicyHeader::Size;
    const ULONG BodyLength = Header.BodyLength;

    if (ComputePolicyChecksum(Records, BodyLength) != Header.BodyChecksum) {
        TRACE_STATUS(STATUS_DATA_ERROR);
        return STATUS_DATA_ERROR;
    }
    ULONG EdrCounts[CategoryCount] = {}, FimCounts[CategoryCount] = {};
    NTSTATUS Status = CountList(Records, BodyLength, RuleListEdr, EdrCounts);
    if (NT_SUCCESS(Status)) Status = CountList(Records, BodyLength, RuleListFim, FimCounts);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        return Status;
    }

    MonitorRuleSets Edr = {}, Fim = {};
    MonitorWhiteListRuleSet *WhiteList = nullptr;
    if (Header.WhiteListRuleCapacity != 0)
        Status = CreateMonitorWhiteListRuleSet(Header.WhiteListRuleCapacity, &WhiteList);
    if (NT_SUCCESS(Status)) Status = BuildFamily(Records, BodyLength, RuleListEdr, EdrCounts, &Edr);
    if (NT_SUCCESS(Status)) Status = BuildFamily(Records, BodyLength, RuleListFim, FimCounts, &Fim);
    if (NT_SUCCESS(Status)) Status = BuildWhiteList(Records, BodyLength, WhiteList);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        // The partly built family goes first; nothing of the file survives.
        FreeMonitorRuleSets(&Fim);
        FreeMonitorRuleSets(&Edr);
        if (WhiteList != nullptr) FreeMonitorWhiteListRuleSet(WhiteList);
        return Status;
    }
    *EdrSets = Edr;
    *FimSets = Fim;
    *WhiteListSet = WhiteList;
    return STATUS_SUCCESS;
}

NTSTATUS LoadMonitorPolicy(PUNICODE_STRING Path, MonitorRuleSets *EdrSets, MonitorRuleSets *FimSets,
                           MonitorWhiteListRuleSet **WhiteListSet) {
    if (Path == nullptr || EdrSets == nullptr || FimSets == nullptr || WhiteListSet == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    *WhiteListSet = nullptr;
    PUCHAR Image = nullptr;
    ULONG BodyLength = 0;
    NTSTATUS Status = ReadMonitorPolicyFile(Path, &Image, &BodyLength);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        return Status;
    }
    Status = ParseMonitorPolicy(Image, EdrSets, FimSets, WhiteListSet);
    PoolFree(Image);
    return Status;
}
