// The policy update procedure shared by the three stores: read the file's
// path from the configuration, skip a file name that is already loaded,
// hand the file to its store to load and install, revoke when the agent
// withdrew the policy, report the outcome. It stands above the stores
// because an install has consequences beyond its store: a new monitor
// policy refreshes the whitelist state of the process table.
#pragma once

#include "platform/nt.h"

// The last file names loaded, the last path component alone.
extern PUNICODE_STRING LastEdrPolicyName;
extern PUNICODE_STRING LastProtectionPolicyName;
extern PUNICODE_STRING LastAppBlockingPolicyName;

NTSTATUS ReadPolicyPath(PCWSTR ValueName, PUNICODE_STRING *Path);
NTSTATUS SplitPolicyPath(PCUNICODE_STRING Path, PUNICODE_STRING Directory, PUNICODE_STRING FileName);
VOID RememberPolicyFileName(PCUNICODE_STRING Path, BOOLEAN IsEdr);

// Frees the remembered names (DllUnload).
VOID FreeRememberedPolicyNames();
