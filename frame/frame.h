// The library frame: start state, the housekeeping timer and the paths that
// both monitors share.
#pragma once

#include "platform/nt.h"

// Start state. StartLock guards both bytes and nothing else, apart from the
// timer cancel in DllUnload; it is a spin lock because the housekeeping DPC
// takes it.
extern KSPIN_LOCK StartLock;
extern UCHAR Phase0Started;
extern UCHAR Phase1Started;

// Built by phase 1 from the system root; its buffer is null until then.
extern UNICODE_STRING TolvexAgentExePath;

extern KTIMER HousekeepingTimer;
extern KDPC HousekeepingDpc;
// Half a second, relative.
constexpr LONGLONG HousekeepingPeriod = -5000000;

NTSTATUS BuildAgentExePath();
VOID FreeAgentExePath();
