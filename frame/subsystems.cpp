// The table of the library's start and stop, in the order the phases run
// its steps. A later subsystem adds its entry points here, each in its
// place, and nowhere else.
#include "frame/subsystems.h"

#include "base/filter.h"
#include "base/registry.h"
#include "base/trace.h"
#include "diagnostics/eventlog.h"
#include "frame/config.h"
#include "frame/frame.h"
#include "frame/housekeeping.h"
#include "process/table.h"
#include "rules/store.h"

namespace {

// An entry point that reports nothing, as a step that cannot fail.
template <VOID (*Routine)()>
NTSTATUS Always() {
    Routine();
    return STATUS_SUCCESS;
}

const LifecycleStep Load[] = {
    {"filter access", Always<InitializeFilterAccess>, TRUE, FALSE},
    {"event log", Always<InitializeEventLog>, TRUE, FALSE},
    {"rule stores", Always<InitializeRuleStores>, TRUE, FALSE},
};

const LifecycleStep Phase0[] = {
    // The path is not tested: a failure leaves it null, and every key then
    // fails to open.
    {"service key path", Always<BuildServiceKeyPath>, FALSE, FALSE},
    {"process table", InitializeProcessGlobals, TRUE, FALSE},
    // The digest cache table comes here, before the configuration.
    {"configuration and policies", LoadConfigurationAndPolicies, FALSE, FALSE},
    // The event stream's phase 0 comes last; its failure fails the phase.
};

const LifecycleStep Phase1[] = {
    // From here on the timer keeps itself alive.
    {"housekeeping timer", Always<ArmHousekeepingTimer>, FALSE, FALSE},
    // The counter sets (when enabled) and the event stream's phase 1 come
    // here; each failure fails the phase and passes over the agent path.
    {"agent path", BuildAgentExePath, TRUE, FALSE},
    // The trusted images come last and run after a failure too.
};

const LifecycleStep Phase1Stop[] = {
    {"process table", StopProcessTable, FALSE, TRUE},
    {"rule sets", ClearAllRuleSets, FALSE, TRUE},
    // The trusted images and the digest cache follow them.
};

}  // namespace

const LifecycleSteps LoadSteps = {Load, ARRAYSIZE_OF(Load)};
const LifecycleSteps Phase0Steps = {Phase0, ARRAYSIZE_OF(Phase0)};
// The event stream and the counter sets stop here once they exist.
const LifecycleSteps Phase0StopSteps = {nullptr, 0};
const LifecycleSteps Phase1Steps = {Phase1, ARRAYSIZE_OF(Phase1)};
const LifecycleSteps Phase1StopSteps = {Phase1Stop, ARRAYSIZE_OF(Phase1Stop)};

NTSTATUS RunLifecycleSteps(const LifecycleSteps &Steps) {
    NTSTATUS Status = STATUS_SUCCESS;
    for (ULONG Index = 0; Index < Steps.Count; ++Index) {
        const LifecycleStep &Step = Steps.Steps[Index];
        if (!NT_SUCCESS(Status) && !Step.RunsAfterFailure) continue;
        const NTSTATUS StepStatus = Step.Run();
        if (NT_SUCCESS(StepStatus)) continue;
        TraceStatus(Step.Name, StepStatus);
        if (Step.FailsPhase && NT_SUCCESS(Status)) Status = StepStatus;
    }
    return Status;
}
