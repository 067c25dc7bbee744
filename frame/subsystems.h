// How the frame starts and stops the rest of the library: one table of the
// subsystems' entry points, in the order in which each phase runs them. The
// lifecycle exports walk these lists and reach the subsystems through them
// alone, so the order of a start or a stop is read in one place.
#pragma once

#include "platform/nt.h"

struct LifecycleStep {
    const char *Name;  // what the trace calls the step
    NTSTATUS (*Run)();
    // A failure of this step fails the phase, and the steps behind it are
    // passed over unless they run after a failure too. A failure of any
    // other step is traced and the phase goes on.
    BOOLEAN FailsPhase;
    BOOLEAN RunsAfterFailure;
};

struct LifecycleSteps {
    const LifecycleStep *Steps;
    ULONG Count;
};

// At load, before any phase: the pieces that live as long as the image.
extern const LifecycleSteps LoadSteps;
// The shared work of phase 0, and what undoes it: after a failed phase 0,
// and at unload once phase 0 has run.
extern const LifecycleSteps Phase0Steps;
extern const LifecycleSteps Phase0StopSteps;
// The shared work of phase 1, and what undoes it: after a failed phase 1,
// and at unload once phase 1 has run.
extern const LifecycleSteps Phase1Steps;
extern const LifecycleSteps Phase1StopSteps;

// Runs the steps in order and returns the first failure of a step that
// fails the phase, else STATUS_SUCCESS.
NTSTATUS RunLifecycleSteps(const LifecycleSteps &Steps);
