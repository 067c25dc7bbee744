// The live rule stores and the masks derived from them. The masks are read
// without a lock by the state queries on the monitors' hot paths; only a
// store swap writes them.
#pragma once

#include "platform/nt.h"

#include "policy/monitor.h"

// CaptureMask bits.
constexpr ULONG CaptureSystem = 0x01;
constexpr ULONG CaptureProcess = 0x02;
constexpr ULONG CaptureFile = 0x04;
constexpr ULONG CaptureRegistry = 0x08;
constexpr ULONG CaptureWhiteList = 0x10;
constexpr ULONG CaptureNetwork = 0x20;

// ProtectionMask bits.
constexpr ULONG ProtectDirectory = 0x01;
constexpr ULONG ProtectRegistry = 0x02;
constexpr ULONG ProtectProcess = 0x04;
constexpr ULONG ProtectDriver = 0x08;

extern volatile LONG CaptureMask;
extern volatile ULONG ProtectionMask;
extern volatile ULONG RegKeyNotifyMask;
extern volatile ULONG RegValNotifyMask;
extern volatile ULONG DiskNotifyMask;
extern volatile ULONG NetworkNotifyMask;

// The monitor store. Readers: KeEnterCriticalRegion, MonitorRuleLock
// shared, read and test the pointers, match, release, leave; nothing of a
// set is kept past the release.
extern MonitorRuleSets EdrRuleSets;
extern MonitorRuleSets FimRuleSets;
extern MonitorWhiteListRuleSet *MonitorWhiteListSet;
extern ERESOURCE MonitorRuleLock;

// Takes ownership of the sets on success; null group pointers install null
// sets. All three null is refused.
NTSTATUS InstallMonitorRuleSets(MonitorRuleSets *Edr, MonitorRuleSets *Fim, MonitorWhiteListRuleSet *WhiteList);
// Revocation: the sets go, and all masks clear.
VOID RemoveMonitorRuleSets();
// Tear-down: the sets go and CaptureMask clears; the notify masks stay.
VOID ClearMonitorRuleSets();
VOID CountMonitorRules(ULONG *Fim, ULONG *Edr, ULONG *WhiteList);
// Load, install, report: the monitor store's step of a policy update.
NTSTATUS UpdateMonitorRuleSets(PUNICODE_STRING Path);

// What the store holds, for diagnostics: per family (0 EDR, 1 FIM) the sets
// File, Registry, Process, System, Network, then the whitelist set.
struct MonitorSetSnapshot {
    BOOLEAN Present;
    ULONG RuleCount;
    ULONG Capacity;
};
struct MonitorStoreSnapshot {
    MonitorSetSnapshot Families[2][5];
    MonitorSetSnapshot WhiteList;
    ULONG CaptureMask;
    ULONG RegKeyNotifyMask;
    ULONG RegValNotifyMask;
    ULONG DiskNotifyMask;
    ULONG NetworkNotifyMask;
};
VOID SnapshotMonitorStore(MonitorStoreSnapshot *Snapshot);
