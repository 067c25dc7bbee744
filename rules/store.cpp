// What the three stores share: their place in the lock order, and the
// tear-down of all of them.
#include "rules/store.h"

#include "base/locks.h"

VOID InitializeRuleStores() {
    PlatformRankLock(&MonitorRuleLock, LockRankRuleStore, "MonitorRuleLock");
    PlatformRankLock(&ProtectionRuleLock, LockRankRuleStore, "ProtectionRuleLock");
    PlatformRankLock(&AppBlockingRuleLock, LockRankRuleStore, "AppBlockingRuleLock");
}

NTSTATUS ClearAllRuleSets() {
    ClearMonitorRuleSets();
    ClearAppBlockingRuleSet();
    return STATUS_SUCCESS;
}
