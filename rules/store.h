// The live rule stores: the monitor store (two families of sets and the
// whitelist set), the app-blocking store, and the protection store's lock
// and mask; the masks derived from them; and their swap.
//
// Every store changes the same way. A new policy is parsed into private
// sets with no lock held. The store's resource, taken exclusive, waits until
// every running match has left; under it the set pointers are exchanged and
// the masks rebuilt, nothing else. The old sets are freed behind the
// release. Readers take the resource shared inside a critical region, read
// the set pointers under it, and keep nothing of a set past the release. No
// two store locks are ever held together.
//
// The masks are read without a lock by the state queries on the monitors'
// hot paths; only a swap writes them.
#pragma once

#include "platform/nt.h"

#include "policy/appblocking.h"
#include "policy/monitor.h"

// Ranks the stores' locks; at load, before any use.
VOID InitializeRuleStores();
// Tear-down of every store, each under its own lock.
NTSTATUS ClearAllRuleSets();

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

// ---------------------------------------------------------------- monitor store

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

// ---------------------------------------------------------------- app-blocking store

extern ProcessAppBlockingRuleSet *volatile AppBlockingRuleSet;
// The policy's flags word; bit 0 answers TcIsHBBProcessSHA256SupportEnabled.
extern volatile LONG64 PolicyFlags;
extern ERESOURCE AppBlockingRuleLock;

// Takes ownership of Set on success.
NTSTATUS InstallAppBlockingRuleSet(ULONGLONG Flags, ProcessAppBlockingRuleSet *Set);
// Revocation: the set goes, and the flags follow it after the release.
VOID RemoveAppBlockingRuleSet();
// Tear-down: clears the set and the flags under the lock.
VOID ClearAppBlockingRuleSet();
// Load, install, report: the app-blocking store's step of a policy update.
NTSTATUS UpdateAppBlockingRuleSet(PUNICODE_STRING Path);
NTSTATUS MatchAppBlockingRuleSet(const UCHAR *Digest, const ProcessAppBlockingRuleSet *Set,
                                 AppBlockingResult *Result);

// ---------------------------------------------------------------- protection store

// The self-protection policy's store joins here: its lock is ranked with the
// other two, and ProtectionMask answers the four protection queries.
extern ERESOURCE ProtectionRuleLock;

// ---------------------------------------------------------------- inspection

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
