// Network monitor matching: one connection event against the EDR network
// set. There is no path: rules select by operation, and filters by actor,
// time, addresses, ports and protocol. Group 0 of a filter's lists belongs
// to the local end of the connection, group 1 to the remote end.
#include "platform/nt.h"

#include "base/trace.h"
#include "include/texprt.h"
#include "rules/match.h"
#include "rules/store.h"

namespace {

// Operation 2 names only the local end: the protocol and remote conditions
// are not tested for it, and an include filter with nothing left to test
// admits it.
constexpr USHORT LocalOnlyOperation = 2;

BOOLEAN AddressHolds(ULONG Count, const TextFilterElement *Elements, PCUNICODE_STRING Address) {
    for (ULONG Index = 0; Index < Count; ++Index) {
        const TextFilterElement *Element = &Elements[Index];
        const BOOLEAN Holds = (Element->PatternFlags & PatternWildcards)
                                  ? IsNameInExpressionGuarded(&Element->Text, Address, TRUE, nullptr)
                                  : RtlCompareUnicodeString(&Element->Text, Address, TRUE) == 0;
        if (Holds) return TRUE;
    }
    return FALSE;
}

// The ranges are tried first, then the single ports. A range whose low end
// lies above its high end holds nothing.
BOOLEAN PortHolds(USHORT Port, ULONG RangeCount, const PortRange *Ranges, ULONG PortCount, const USHORT *Ports) {
    for (ULONG Index = 0; Index < RangeCount; ++Index)
        if (Ranges[Index].Low <= Port && Port <= Ranges[Index].High) return TRUE;
    for (ULONG Index = 0; Index < PortCount; ++Index)
        if (Ports[Index] == Port) return TRUE;
    return FALSE;
}

// A protocol condition holds when the event's bits and the filter's share
// exactly one of 1, 2 and 4.
BOOLEAN ProtocolHolds(USHORT ProtocolBits, ULONG ObjectKind) {
    const ULONG Shared = ProtocolBits & ObjectKind;
    return Shared == 1 || Shared == 2 || Shared == 4;
}

// Every condition runs, whatever the earlier ones gave.
BOOLEAN NetworkFilterMatches(const NetworkRuleFilter *Filter, const NetworkObject *Object, BOOLEAN Include) {
    ConditionTally Tally = {};
    const ULONG Conditions = Filter->Conditions;
    const EventInfo *Event = &Object->EventInfo;
    if (Conditions & ConditionActorProcess)
        Tally.Record(ConditionActorProcess,
                     ActorProcessHolds(Event, Filter->ActorProcessCount, Filter->ActorProcesses));
    if (Conditions & ConditionActorUsername)
        Tally.Record(ConditionActorUsername, ActorUsernameHolds(Filter->ActorUsernameCount, Filter->ActorUsernames));
    if (Conditions & ConditionTime)
        Tally.Record(ConditionTime, TimeOfDayHolds(Event, &Filter->StartTime, &Filter->EndTime));
    if (Conditions & ConditionLocalAddress)
        Tally.Record(ConditionLocalAddress,
                     AddressHolds(Filter->AddressCount[0], Filter->Addresses[0], &Object->LocalAddress));
    if (Conditions & ConditionLocalPort)
        Tally.Record(ConditionLocalPort, PortHolds(Object->LocalPort, Filter->PortRangeCount0, Filter->PortRanges0,
                                                   Filter->PortCount0, Filter->Ports0));
    if (Object->Operation != LocalOnlyOperation) {
        if (Conditions & ConditionProtocol)
            Tally.Record(ConditionProtocol, ProtocolHolds(Object->ProtocolBits, Filter->ObjectKind));
        if (Conditions & ConditionRemoteAddress)
            Tally.Record(ConditionRemoteAddress,
                         AddressHolds(Filter->AddressCount[1], Filter->Addresses[1], &Object->RemoteAddress));
        if (Conditions & ConditionRemotePort)
            Tally.Record(ConditionRemotePort, PortHolds(Object->RemotePort, Filter->PortRangeCount1,
                                                        Filter->PortRanges1, Filter->PortCount1, Filter->Ports1));
    }
    if (Include && Tally.Wanted == 0 && Object->Operation == LocalOnlyOperation) return TRUE;
    return Tally.Matches();
}

NTSTATUS WalkNetworkRules(const MonitorNetworkRuleSet *Set, const NetworkObject *Object, FilterResult *Result) {
    for (ULONG Index = 0; Index < Set->RuleCount; ++Index) {
        const NetworkRuleBody *Rule = &Set->Rules[Index];
        // No privileged operation here.
        if ((Rule->OperationMask & Object->Operation) == 0) continue;
        auto Test = [&](const NetworkRuleFilter *Filter, BOOLEAN Include) {
            return NetworkFilterMatches(Filter, Object, Include);
        };
        if (!RulePassesFilters(Rule->ExcludeCount, Rule->ExcludeFilters, Rule->IncludeCount, Rule->IncludeFilters,
                               Result, Test))
            continue;
        Result->NetworkOperations |= Rule->OperationMask;
        const NTSTATUS Status = WriteRuleVerdict(Result, Rule->ContextCount, Rule->Contexts, 0);
        if (!NT_SUCCESS(Status)) return Status;
    }
    return STATUS_SUCCESS;
}

}  // namespace

// The EDR network set only: the FIM family's network set is not matched.
TEXPRT_EXPORT NTSTATUS NTAPI TcTFeMatchesMonitorNetworkRuleSet(NetworkObject *Object, WhiteListState *State,
                                                               FilterResult *Result) {
    EXPORT_ENTRY(TcTFeMatchesMonitorNetworkRuleSet);
    NTSTATUS Status = ResetFilterResult(Result);
    if (NT_SUCCESS(Status) && (Object == nullptr || State == nullptr)) Status = STATUS_INVALID_PARAMETER;
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        return Status;
    }
    {
        MatchFrame Frame(&MonitorRuleLock, MatchFrame::Shared);
        Status = Frame.Status();
        if (!NT_SUCCESS(Status)) return Status;
        const MonitorNetworkRuleSet *Set = EdrRuleSets.Network;
        if (Set != nullptr && !IsExemptFromEdr(State, ExemptNetwork)) Status = WalkNetworkRules(Set, Object, Result);
    }
    if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
    return Status;
}
