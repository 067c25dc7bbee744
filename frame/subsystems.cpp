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
#include "rules/store.h"

namespace {

// Adapters for the entry points that report nothing.
NTSTATUS InitializeFilterAccessStep() {
    InitializeFilterAccess();
    return STATUS_SUCCESS;
}
NTSTATUS InitializeEventLogStep() {
    InitializeEventLog();
    return STATUS_SUCCESS;
}
NTSTATUS InitializeRuleStoresStep() {
    InitializeRuleStores();
    return STATUS_SUCCESS;
}
// The path is not tested: a failure leaves it null, and every key then
// fails to open.
NTSTATUS BuildServiceKeyPathStep() {
    BuildServiceKeyPath();
    return STATUS_SUCCESS;
}
// From here on the timer keeps itself alive.
NTSTATUS ArmHousekeepingTimerStep() {
    ArmHousekeepingTimer();
    return STATUS_SUCCESS;
}

const LifecycleStep Load[] = {
    {"filter access", InitializeFilterAccessStep, TRUE, FALSE},
    {"event log", InitializeEventLogStep, TRUE, FALSE},
    {"rule stores", InitializeRuleStoresStep, TRUE, FALSE},
};

const LifecycleStep Phase0[] = {
    {"service key path", BuildServiceKeyPathStep, FALSE, FALSE},
    // The process table's globals and the digest cache table come here,
    // in that order, before the configuration.
    {"configuration and policies", LoadConfigurationAndPolicies, FALSE, FALSE},
    // The event stream's phase 0 comes last; its failure fails the phase.
};

const LifecycleStep Phase1[] = {
    {"housekeeping timer", ArmHousekeepingTimerStep, FALSE, FALSE},
    // The counter sets (when enabled) and the event stream's phase 1 come
    // here; each failure fails the phase and passes over the agent path.
    {"agent path", BuildAgentExePath, TRUE, FALSE},
    // The trusted images come last and run after a failure too.
};

const LifecycleStep Phase1Stop[] = {
    // The process table stops first, then the rule sets; the trusted images
    // and the digest cache follow them.
    {"rule sets", ClearAllRuleSets, FALSE, TRUE},
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
