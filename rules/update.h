// The policy update procedure shared by the three stores: read the file's
// path from the registry, skip a file name that is already loaded, load and
// install, revoke when the agent withdrew the policy, report the outcome.
#pragma once

#include "platform/nt.h"

// The last file names loaded, the last path component alone.
extern PUNICODE_STRING LastEdrPolicyName;
extern PUNICODE_STRING LastProtectionPolicyName;
extern PUNICODE_STRING LastAppBlockingPolicyName;

NTSTATUS ReadPolicyPath(PCWSTR ValueName, PUNICODE_STRING *Path);
NTSTATUS SplitPolicyPath(PCUNICODE_STRING Path, PUNICODE_STRING Directory, PUNICODE_STRING FileName);
VOID RememberPolicyFileName(PCUNICODE_STRING Path, BOOLEAN IsEdr);
NTSTATUS UpdateAppBlockingRuleSet(PUNICODE_STRING Path);

// Frees the remembered names (DllUnload).
VOID FreeRememberedPolicyNames();
// Tear-down of every store, under each store's own lock.
NTSTATUS ClearAllRuleSets();
