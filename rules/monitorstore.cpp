// The monitor store: two families of sets and the whitelist set, the masks
// derived from them, and their swap. Matchers read the sets under
// MonitorRuleLock shared; only the swap here writes them.
#include "rules/store.h"

#include "base/locks.h"
#include "base/strings.h"
#include "base/trace.h"
#include "diagnostics/eventlog.h"

namespace {

// The eleven slots of the store and what replaces them, old values kept.
struct MonitorStoreSlots {
    MonitorRuleSets Edr;
    MonitorRuleSets Fim;
    MonitorWhiteListRuleSet *WhiteList;
};

template <typename Set>
Set *ExchangeSet(Set **Slot, Set *Value) {
    return (Set *)InterlockedExchangePointer((PVOID volatile *)Slot, Value);
}

VOID ExchangeFamily(MonitorRuleSets *Live, MonitorRuleSets *Sets) {
    Sets->File = ExchangeSet(&Live->File, Sets->File);
    Sets->Registry = ExchangeSet(&Live->Registry, Sets->Registry);
    Sets->Process = ExchangeSet(&Live->Process, Sets->Process);
    Sets->System = ExchangeSet(&Live->System, Sets->System);
    Sets->Network = ExchangeSet(&Live->Network, Sets->Network);
}

// Swaps the slots with the live store; Slots receives the old sets.
VOID ExchangeStore(MonitorStoreSlots *Slots) {
    ExchangeFamily(&EdrRuleSets, &Slots->Edr);
    ExchangeFamily(&FimRuleSets, &Slots->Fim);
    Slots->WhiteList = ExchangeSet(&MonitorWhiteListSet, Slots->WhiteList);
}

template <typename Set, typename Field>
ULONG OrOverRules(const Set *Rules, Field Read) {
    ULONG Mask = 0;
    if (Rules != nullptr)
        for (ULONG Index = 0; Index < Rules->RuleCount; ++Index) Mask |= Read(Rules->Rules[Index]);
    return Mask;
}

// Rebuilt from the live sets under the exclusive lock. Each mask is cleared
// first and then built, so a lock-free reader may see it half built for a
// moment, and sees a bit clear if anything.
VOID RebuildNotifyMasks() {
    PlatformWriteWord(&RegKeyNotifyMask, 0);
    PlatformWriteWord(&RegValNotifyMask, 0);
    auto KeyMask = [](const RegistryRuleBody &Rule) { return Rule.OperationMask; };
    auto ValueMask = [](const RegistryRuleBody &Rule) { return Rule.OperationMask2; };
    PlatformWriteWord(&RegKeyNotifyMask, OrOverRules(EdrRuleSets.Registry, KeyMask) | OrOverRules(FimRuleSets.Registry, KeyMask));
    PlatformWriteWord(&RegValNotifyMask,
                      OrOverRules(EdrRuleSets.Registry, ValueMask) | OrOverRules(FimRuleSets.Registry, ValueMask));
    PlatformWriteWord(&DiskNotifyMask, 0);
    auto DiskMask = [](const FileRuleBody &Rule) { return Rule.OperationMask | Rule.OperationMask2; };
    PlatformWriteWord(&DiskNotifyMask, OrOverRules(EdrRuleSets.File, DiskMask) | OrOverRules(FimRuleSets.File, DiskMask));
    // Only the EDR family's network rules are ever matched.
    PlatformWriteWord(&NetworkNotifyMask, 0);
    PlatformWriteWord(&NetworkNotifyMask,
                      OrOverRules(EdrRuleSets.Network, [](const NetworkRuleBody &Rule) { return Rule.OperationMask; }));
}

VOID ClearNotifyMasks() {
    PlatformWriteWord(&RegKeyNotifyMask, 0);
    PlatformWriteWord(&RegValNotifyMask, 0);
    PlatformWriteWord(&DiskNotifyMask, 0);
    PlatformWriteWord(&NetworkNotifyMask, 0);
}

VOID SetCaptureBits(const MonitorStoreSlots &Slots) {
    InterlockedExchange(&CaptureMask, 0);
    auto Either = [&Slots](auto Select) { return Select(Slots.Edr) != nullptr || Select(Slots.Fim) != nullptr; };
    if (Either([](const MonitorRuleSets &Sets) { return (PVOID)Sets.System; })) InterlockedOr(&CaptureMask, CaptureSystem);
    if (Either([](const MonitorRuleSets &Sets) { return (PVOID)Sets.Process; })) InterlockedOr(&CaptureMask, CaptureProcess);
    if (Either([](const MonitorRuleSets &Sets) { return (PVOID)Sets.File; })) InterlockedOr(&CaptureMask, CaptureFile);
    if (Either([](const MonitorRuleSets &Sets) { return (PVOID)Sets.Registry; }))
        InterlockedOr(&CaptureMask, CaptureRegistry);
    if (Slots.WhiteList != nullptr) InterlockedOr(&CaptureMask, CaptureWhiteList);
    if (Either([](const MonitorRuleSets &Sets) { return (PVOID)Sets.Network; })) InterlockedOr(&CaptureMask, CaptureNetwork);
}

VOID FreeStoreSlots(MonitorStoreSlots *Slots) {
    FreeMonitorRuleSets(&Slots->Edr);
    FreeMonitorRuleSets(&Slots->Fim);
    if (Slots->WhiteList != nullptr) FreeMonitorWhiteListRuleSet(Slots->WhiteList);
    Slots->WhiteList = nullptr;
}

enum class MasksOnRemoval { Clear, Keep };

// Empties the store under the exclusive lock and frees behind the release.
VOID EmptyMonitorStore(MasksOnRemoval Masks) {
    MonitorStoreSlots Slots = {};
    {
        ExclusiveResourceGuard Guard(&MonitorRuleLock);
        InterlockedExchange(&CaptureMask, 0);
        ExchangeStore(&Slots);
        if (Masks == MasksOnRemoval::Clear) ClearNotifyMasks();
    }
    FreeStoreSlots(&Slots);
}

ULONG SumRules(const MonitorRuleSets &Sets) {
    ULONG Sum = 0;
    if (Sets.File != nullptr) Sum += Sets.File->RuleCount;
    if (Sets.Registry != nullptr) Sum += Sets.Registry->RuleCount;
    if (Sets.Process != nullptr) Sum += Sets.Process->RuleCount;
    if (Sets.System != nullptr) Sum += Sets.System->RuleCount;
    if (Sets.Network != nullptr) Sum += Sets.Network->RuleCount;
    return Sum;
}

}  // namespace

NTSTATUS InstallMonitorRuleSets(MonitorRuleSets *Edr, MonitorRuleSets *Fim, MonitorWhiteListRuleSet *WhiteList) {
    if (Edr == nullptr && Fim == nullptr && WhiteList == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    MonitorStoreSlots Slots = {};
    if (Edr != nullptr) Slots.Edr = *Edr;
    if (Fim != nullptr) Slots.Fim = *Fim;
    Slots.WhiteList = WhiteList;

    {
        // Waits until every reader of the old sets has left.
        ExclusiveResourceGuard Guard(&MonitorRuleLock);
        SetCaptureBits(Slots);
        ExchangeStore(&Slots);
        RebuildNotifyMasks();
    }
    // No reader can hold the old sets now: new ones find the new pointers.
    FreeStoreSlots(&Slots);
    return STATUS_SUCCESS;
}

VOID RemoveMonitorRuleSets() { EmptyMonitorStore(MasksOnRemoval::Clear); }

VOID ClearMonitorRuleSets() { EmptyMonitorStore(MasksOnRemoval::Keep); }

VOID CountMonitorRules(ULONG *Fim, ULONG *Edr, ULONG *WhiteList) {
    *Fim = *Edr = *WhiteList = 0;
    SharedResourceGuard Guard(&MonitorRuleLock);
    *Edr = SumRules(EdrRuleSets);
    *Fim = SumRules(FimRuleSets);
    if (MonitorWhiteListSet != nullptr) *WhiteList = MonitorWhiteListSet->RuleCount;
}

NTSTATUS UpdateMonitorRuleSets(PUNICODE_STRING Path) {
    MonitorRuleSets Edr = {}, Fim = {};
    MonitorWhiteListRuleSet *WhiteList = nullptr;
    NTSTATUS Status = LoadMonitorPolicy(Path, &Edr, &Fim, &WhiteList);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
    } else {
        Status = InstallMonitorRuleSets(&Edr, &Fim, WhiteList);
        if (!NT_SUCCESS(Status)) {
            TRACE_STATUS(Status);
        } else {
            ULONG FimCount, EdrCount, WhiteListCount;
            CountMonitorRules(&FimCount, &EdrCount, &WhiteListCount);
            ReportPolicyUpdated(FimCount, EdrCount, WhiteListCount);
            // The store owns the sets now.
            RtlZeroMemory(&Edr, sizeof(Edr));
            RtlZeroMemory(&Fim, sizeof(Fim));
            WhiteList = nullptr;
        }
    }
    FreeMonitorRuleSets(&Edr);
    FreeMonitorRuleSets(&Fim);
    if (WhiteList != nullptr) FreeMonitorWhiteListRuleSet(WhiteList);
    return Status;
}

VOID SnapshotMonitorStore(MonitorStoreSnapshot *Snapshot) {
    RtlZeroMemory(Snapshot, sizeof(*Snapshot));
    auto Take = [](MonitorSetSnapshot *Into, const auto *Set) {
        if (Set == nullptr) return;
        Into->Present = TRUE;
        Into->RuleCount = Set->RuleCount;
        Into->Capacity = Set->Capacity;
    };
    {
        SharedResourceGuard Guard(&MonitorRuleLock);
        const MonitorRuleSets *Families[2] = {&EdrRuleSets, &FimRuleSets};
        for (ULONG Family = 0; Family < 2; ++Family) {
            MonitorSetSnapshot *Sets = Snapshot->Families[Family];
            Take(&Sets[0], Families[Family]->File);
            Take(&Sets[1], Families[Family]->Registry);
            Take(&Sets[2], Families[Family]->Process);
            Take(&Sets[3], Families[Family]->System);
            Take(&Sets[4], Families[Family]->Network);
        }
        Take(&Snapshot->WhiteList, MonitorWhiteListSet);
    }
    Snapshot->CaptureMask = PlatformReadWord((volatile ULONG *)&CaptureMask);
    Snapshot->RegKeyNotifyMask = PlatformReadWord(&RegKeyNotifyMask);
    Snapshot->RegValNotifyMask = PlatformReadWord(&RegValNotifyMask);
    Snapshot->DiskNotifyMask = PlatformReadWord(&DiskNotifyMask);
    Snapshot->NetworkNotifyMask = PlatformReadWord(&NetworkNotifyMask);
}
