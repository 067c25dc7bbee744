// The library frame: start state, monitor registration, filter access and
// the paths that both monitors share.
#pragma once

#include "platform/nt.h"

// Start state. StartLock guards both bytes and nothing else, apart from the
// timer cancel in DllUnload; it is a spin lock because the housekeeping DPC
// takes it.
extern KSPIN_LOCK StartLock;
extern UCHAR Phase0Started;
extern UCHAR Phase1Started;

// Monitor registration, under MonitorObjectLock, which is also held across
// every internal event log write so that a driver object cannot go away
// under it.
enum MonitorSlot { PreferredMonitorObject = 0, OtherMonitorObject = 1 };
extern PDRIVER_OBJECT MonitorObjects[2];
extern FAST_MUTEX MonitorObjectLock;

// The System Monitor's minifilter, lent to the library.
extern PFLT_FILTER FilterHandle;
extern volatile UCHAR FilterAvailable;
extern FAST_MUTEX FilterLock;

extern PUNICODE_STRING ServiceKeyPath;
extern UNICODE_STRING TolvexAgentExePath;

extern KTIMER HousekeepingTimer;
extern KDPC HousekeepingDpc;
// Half a second, relative.
constexpr LONGLONG HousekeepingPeriod = -5000000;

// Re-arms the housekeeping timer if phase 1 is still claimed.
VOID RearmHousekeepingTimer();

NTSTATUS BuildAgentExePath();
