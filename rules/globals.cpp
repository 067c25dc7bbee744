// The static state of the rule engine: the three stores, their locks, and
// the masks derived from them. All of it is zero at load and lives as long
// as the image. Zero-filled static storage is a valid free resource: the
// three store locks are never initialised or deleted, only ranked at load.
#include "rules/store.h"

// The masks, read without a lock by the state queries (store.h).
volatile LONG CaptureMask;
volatile ULONG ProtectionMask;
volatile ULONG RegKeyNotifyMask;
volatile ULONG RegValNotifyMask;
volatile ULONG DiskNotifyMask;
volatile ULONG NetworkNotifyMask;

// The monitor store (monitorstore.cpp).
MonitorRuleSets EdrRuleSets;
MonitorRuleSets FimRuleSets;
MonitorWhiteListRuleSet *MonitorWhiteListSet;
ERESOURCE MonitorRuleLock;

// The app-blocking store (appblockingstore.cpp).
ProcessAppBlockingRuleSet *volatile AppBlockingRuleSet;
volatile LONG64 PolicyFlags;
ERESOURCE AppBlockingRuleLock;

// The protection store.
ERESOURCE ProtectionRuleLock;
