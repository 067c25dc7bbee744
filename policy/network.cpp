// Network monitor rules: no object name, only the operations watched and
// filters that speak of actors, addresses, ports and protocol. Group 0 of a
// filter's address and port lists is the local end, group 1 the remote end.
#include "policy/monitor.h"

#include "base/strings.h"
#include "base/trace.h"
#include "diagnostics/eventlog.h"

namespace {

namespace Format = MonitorFormat;

NTSTATUS AppendNetworkFilter(NetworkRuleFilter **List, ULONG *Count, ULONG Conditions, ULONG ObjectKind,
                             NetworkRuleFilter **Added) {
    const NTSTATUS Status = AppendElement(
        List, Count, [&](NetworkRuleFilter *Filter) { return InitNetworkRuleFilter(Filter, Conditions, ObjectKind); });
    if (NT_SUCCESS(Status)) *Added = &(*List)[*Count - 1];
    return Status;
}

typedef NTSTATUS NetworkListLoader(NetworkRuleFilter *, PUCHAR, ULONG, ULONG, ULONG, ULONG *);

// One list of Count filters; only the first filter's magic is tested, as
// for every rule family.
NTSTATUS LoadNetworkFilterList(NetworkRuleFilter **List, ULONG *ListCount, PUCHAR Cursor, ULONG Count,
                               ULONG Available, ULONG *SizeOut) {
    *SizeOut = 0;
    if (Count == 0) return STATUS_SUCCESS;
    if (!PolicyFits(0, sizeof(ULONG), Available)) return STATUS_DATA_ERROR;
    const ULONG Magic = PolicyUlong(Cursor + Format::NetworkFilter::Magic);
    if (Magic != Format::NetworkFilterMagic) {
        ReportPolicyRecordMismatch(WIDE("Network Rule Filter Header"), Magic,
                                   Format::NetworkFilterMagic & Format::MagicVersionMask);
        return STATUS_INVALID_PARAMETER;
    }
    ULONG Offset = 0;
    for (ULONG Index = 0; Index < Count; ++Index) {
        if (!PolicyFits(Offset, Format::NetworkFilter::Size, Available)) return STATUS_DATA_ERROR;
        PUCHAR Header = Cursor + Offset;
        NetworkRuleFilter *Filter = nullptr;
        NTSTATUS Status = AppendNetworkFilter(List, ListCount, PolicyUlong(Header + Format::NetworkFilter::Conditions),
                                              PolicyUlong(Header + Format::NetworkFilter::ObjectKind), &Filter);
        if (!NT_SUCCESS(Status)) return Status;
        Filter->StartTime = DecodeTimeOfDay(PolicyUlonglong(Header + Format::NetworkFilter::StartTime));
        Filter->EndTime = DecodeTimeOfDay(PolicyUlonglong(Header + Format::NetworkFilter::EndTime));
        ULONG Consumed = Format::NetworkFilter::Size, Size = 0;
        // The eight lists in file order: actors, then per group addresses,
        // ports and ranges.
        const ULONG Actors = PolicyUlong(Header + Format::NetworkFilter::ActorProcessCount),
                    Usernames = PolicyUlong(Header + Format::NetworkFilter::ActorUsernameCount);
        if (Actors != 0) {
            Status = LoadActorProcessFilters(Filter, CategoryNetwork, Header + Consumed, Actors,
                                             Available - Offset - Consumed, &Size);
            if (!NT_SUCCESS(Status)) return Status;
            Consumed += Size;
        }
        if (Usernames != 0) {
            Status = LoadActorUsernameFilters(Filter, CategoryNetwork, Header + Consumed, Usernames,
                                              Available - Offset - Consumed, &Size);
            if (!NT_SUCCESS(Status)) return Status;
            Consumed += Size;
        }
        NetworkListLoader *const Loaders[3] = {LoadNetworkAddressFilters, LoadNetworkPortNumberFilters,
                                               LoadNetworkPortRangeFilters};
        const ULONG CountOffsets[3] = {Format::NetworkGroup::AddressCount, Format::NetworkGroup::PortCount,
                                       Format::NetworkGroup::PortRangeCount};
        for (ULONG Group = 0; Group < 2; ++Group) {
            PUCHAR Counts = Header + Format::NetworkFilter::Groups + Group * Format::NetworkGroup::Size;
            for (ULONG Kind = 0; Kind < 3; ++Kind) {
                const ULONG ListLength = PolicyUlong(Counts + CountOffsets[Kind]);
                if (ListLength == 0) continue;
                Status = Loaders[Kind](Filter, Header + Consumed, Group, ListLength, Available - Offset - Consumed, &Size);
                if (!NT_SUCCESS(Status)) return Status;
                Consumed += Size;
            }
        }
        Offset += Consumed;
    }
    *SizeOut = Offset;
    return STATUS_SUCCESS;
}

VOID FreeNetworkFilterArray(NetworkRuleFilter **List, ULONG *Count) {
    if (*List != nullptr) {
        for (ULONG Index = 0; Index < *Count; ++Index) FreeNetworkRuleFilter(&(*List)[Index]);
        PoolFree(*List);
        *List = nullptr;
    }
    *Count = 0;
}

}  // namespace

VOID FreeNetworkRuleBody(NetworkRuleBody *Rule) {
    if (Rule == nullptr) return;
    PoolFree(Rule->Contexts);
    FreeNetworkFilterArray(&Rule->IncludeFilters, &Rule->IncludeCount);
    FreeNetworkFilterArray(&Rule->ExcludeFilters, &Rule->ExcludeCount);
    RtlZeroMemory(Rule, sizeof(*Rule));
}

NTSTATUS AddMonitorNetworkRule(MonitorNetworkRuleSet *Set, ULONG RuleCategory, ULONG RuleType,
                               const RuleContextEntry *Contexts, ULONG ContextCount, ULONG OperationMask,
                               NetworkRuleBody **Rule) {
    if (Set == nullptr || ContextCount == 0 || Contexts == nullptr || Rule == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    if (Set->RuleCount >= Set->Capacity) return STATUS_BUFFER_OVERFLOW;
    // A rule must watch one of the three network operations.
    if ((OperationMask & Format::NetworkOperations) == 0) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    return AddRuleBody(Set, Rule, [&](NetworkRuleBody *Body) {
        Body->RuleCategory = RuleCategory;
        Body->RuleType = RuleType;
        Body->ContextCount = ContextCount;
        Body->OperationMask = OperationMask;
        return CopyRuleContexts(Contexts, ContextCount, &Body->Contexts);
    });
}

NTSTATUS ParseMonitorNetworkRule(MonitorNetworkRuleSet *Set, PUCHAR Record, ULONG RecordSize) {
    if (Set == nullptr || Record == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    ParsedRecord Parsed;
    NetworkRuleBody *Rule = nullptr;
    NTSTATUS Status = ParseRecordHead(Record, RecordSize, Format::NetworkBodyMagic, WIDE("Network Rule Body Header"),
                                      Format::NetworkBody::Size, &Parsed);
    if (NT_SUCCESS(Status))
        Status = AddMonitorNetworkRule(Set, Parsed.Category, Parsed.RuleType, Parsed.Contexts, Parsed.ContextCount,
                                       PolicyUlong(Parsed.Body + Format::NetworkBody::OperationMask), &Rule);
    if (NT_SUCCESS(Status)) {
        // The exclude list starts exactly behind what the include list consumed.
        PUCHAR Lists = Parsed.Body + Format::NetworkBody::Size;
        const ULONG ListsAvailable = Parsed.BodyAvailable - Format::NetworkBody::Size;
        ULONG Size = 0;
        Status = LoadNetworkFilterList(&Rule->IncludeFilters, &Rule->IncludeCount, Lists,
                                       PolicyUlong(Parsed.Body + Format::NetworkBody::IncludeCount), ListsAvailable,
                                       &Size);
        if (NT_SUCCESS(Status))
            Status = LoadNetworkFilterList(&Rule->ExcludeFilters, &Rule->ExcludeCount, Lists + Size,
                                           PolicyUlong(Parsed.Body + Format::NetworkBody::ExcludeCount),
                                           ListsAvailable - Size, &Size);
    }
    PoolFree(Parsed.Contexts);
    if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
    return Status;
}
