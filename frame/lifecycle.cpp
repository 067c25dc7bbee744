// Library lifecycle: load, the two-phase start that both monitors call, and
// unload. One set of global state serves both monitors; whichever monitor
// arrives first at a phase does that phase's shared work, through the table
// of the subsystems' entry points (subsystems.cpp).
#include "platform/nt.h"

#include "base/exports.h"
#include "base/locks.h"
#include "base/registry.h"
#include "base/strings.h"
#include "base/trace.h"
#include "base/workqueue.h"
#include "diagnostics/eventlog.h"
#include "eventstream/globals.h"
#include "frame/frame.h"
#include "frame/housekeeping.h"
#include "frame/policyupdate.h"
#include "frame/subsystems.h"

namespace {

const WCHAR AgentExeText[] = WIDE("\\Program Files\\Tolvex\\TolvexAgent\\TolvexAgent.exe");
// The system root is taken to end in an eight-character folder name and its
// backslash ("\WINDOWS"), whatever the folder is called.
constexpr USHORT SystemFolderBytes = 16;

// Claims a phase: returns the byte as it was and sets it.
UCHAR ClaimPhase(UCHAR *Started) {
    SpinLockGuard Guard(&StartLock);
    const UCHAR Was = *Started;
    *Started = 1;
    return Was;
}

VOID ReleasePhase(UCHAR *Started) {
    SpinLockGuard Guard(&StartLock);
    *Started = 0;
}

}  // namespace

TEXPRT_EXPORT NTSTATUS NTAPI DllInitialize(PUNICODE_STRING RegistryPath) {
    EXPORT_ENTRY(DllInitialize);
    TraceInitialize();
    KeInitializeSpinLock(&StartLock);
    PlatformRankLock(&StartLock, LockRankStart, "StartLock");
    RunLifecycleSteps(LoadSteps);
    const NTSTATUS Status = InitializeWorkQueue(1, WorkQueueClassLibrary, &LibraryWorkQueue);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        TraceShutdown();
        return Status;
    }
    KeInitializeTimer(&HousekeepingTimer);
    KeInitializeDpc(&HousekeepingDpc, HousekeepingTimerRoutine, nullptr);
    return STATUS_SUCCESS;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcSystemsInitializePhase0(PDRIVER_OBJECT DriverObject, BOOLEAN Preferred) {
    EXPORT_ENTRY(TcSystemsInitializePhase0);
    if (DriverObject == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    // Both monitors register, before anything else.
    SetMonitorObject(Preferred, DriverObject);

    if (ClaimPhase(&Phase0Started)) return STATUS_SUCCESS;

    const NTSTATUS Status = RunLifecycleSteps(Phase0Steps);
    if (NT_SUCCESS(Status)) return Status;
    // Undo. The monitor's slot, the service key path and any rule sets that
    // were installed stay; a later call retries from the claim.
    ReleasePhase(&Phase0Started);
    KeCancelTimer(&HousekeepingTimer);
    RunLifecycleSteps(Phase0StopSteps);
    return Status;
}

NTSTATUS BuildAgentExePath() {
    if (SystemRootDeviceString.Buffer == nullptr) return STATUS_INVALID_PARAMETER;
    UNICODE_STRING Literal = CONST_UNICODE_STRING(AgentExeText);
    TolvexAgentExePath.Length = (USHORT)(SystemRootDeviceString.Length + Literal.Length - SystemFolderBytes);
    TolvexAgentExePath.MaximumLength = (USHORT)(TolvexAgentExePath.Length + sizeof(WCHAR));
    TolvexAgentExePath.Buffer =
        (PWCH)PoolAlloc(DefaultPool, (ULONG)TolvexAgentExePath.Length + sizeof(WCHAR), TagFrame);
    if (TolvexAgentExePath.Buffer == nullptr) {
        TolvexAgentExePath.Length = 0;
        TolvexAgentExePath.MaximumLength = 0;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    TolvexAgentExePath.Buffer[TolvexAgentExePath.Length / sizeof(WCHAR)] = 0;
    RtlCopyUnicodeString(&TolvexAgentExePath, &SystemRootDeviceString);
    TolvexAgentExePath.Length = (USHORT)((TolvexAgentExePath.Length - SystemFolderBytes) & ~1u);
    return RtlAppendUnicodeStringToString(&TolvexAgentExePath, &Literal);
}

VOID FreeAgentExePath() {
    PoolFree(TolvexAgentExePath.Buffer);
    TolvexAgentExePath.Buffer = nullptr;
    TolvexAgentExePath.Length = 0;
    TolvexAgentExePath.MaximumLength = 0;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcSystemsInitializePhase1() {
    EXPORT_ENTRY(TcSystemsInitializePhase1);
    if (ClaimPhase(&Phase1Started)) return STATUS_SUCCESS;

    const NTSTATUS Status = RunLifecycleSteps(Phase1Steps);
    if (NT_SUCCESS(Status)) return Status;

    // Undo. The timer is left alone: its next firing finds Phase1Started
    // clear and stops.
    ReleasePhase(&Phase1Started);
    RunLifecycleSteps(Phase1StopSteps);
    return Status;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcNotifyDriverUnload(BOOLEAN Preferred) {
    EXPORT_ENTRY(TcNotifyDriverUnload);
    SetMonitorObject(Preferred, nullptr);
    return STATUS_SUCCESS;
}

TEXPRT_EXPORT NTSTATUS NTAPI DllUnload() {
    EXPORT_ENTRY(DllUnload);
    UCHAR WasPhase0, WasPhase1;
    {
        SpinLockGuard Guard(&StartLock);
        WasPhase0 = Phase0Started;
        WasPhase1 = Phase1Started;
    }

    // Every step runs whatever the one before returned.
    if (WasPhase1) RunLifecycleSteps(Phase1StopSteps);
    if (WasPhase0) RunLifecycleSteps(Phase0StopSteps);

    {
        SpinLockGuard Guard(&StartLock);
        Phase0Started = 0;
        Phase1Started = 0;
        KeCancelTimer(&HousekeepingTimer);
        KeRemoveQueueDpc(&HousekeepingDpc);
    }

    FreeServiceKeyPath();
    FreeRememberedPolicyNames();

    RundownWorkQueue(&LibraryWorkQueue);

    FreeAgentExePath();

    TraceShutdown();
    return STATUS_SUCCESS;
}
