// The static state of the frame. All of it is zero at load and lives as
// long as the image.
#include "frame/frame.h"
#include "frame/policyupdate.h"

// Start state (lifecycle.cpp), under StartLock.
KSPIN_LOCK StartLock;
UCHAR Phase0Started;
UCHAR Phase1Started;

// The agent's executable, built by phase 1 (lifecycle.cpp).
UNICODE_STRING TolvexAgentExePath;

// The half-second housekeeping chain (housekeeping.cpp).
KTIMER HousekeepingTimer;
KDPC HousekeepingDpc;

// The last policy file names loaded, the last path component alone
// (policyupdate.cpp); freed by DllUnload.
PUNICODE_STRING LastEdrPolicyName;
PUNICODE_STRING LastProtectionPolicyName;
PUNICODE_STRING LastAppBlockingPolicyName;
