// The half-second housekeeping chain: a timer DPC hands the work to the
// library's work queue, and the work re-arms the timer when it is done.
#pragma once

#include "platform/nt.h"

KDEFERRED_ROUTINE HousekeepingTimerRoutine;
VOID NTAPI ProcessSweepWork(PVOID Context);

// Arms the timer for another half second.
VOID ArmHousekeepingTimer();
// Re-arms it if phase 1 is still claimed.
VOID RearmHousekeepingTimer();
