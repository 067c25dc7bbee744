// Library lifecycle: load, the two-phase start that both monitors call, and
// unload. One set of global state serves both monitors; whichever monitor
// arrives first at a phase does that phase's shared work.
#include "platform/nt.h"

#include "include/texprt.h"

#include "diagnostics/trace.h"
#include "eventstream/datadir.h"
#include "frame/config.h"
#include "frame/frame.h"
#include "frame/helpers.h"
#include "frame/workqueue.h"
#include "process/housekeeping.h"
#include "rules/update.h"

KSPIN_LOCK StartLock;
UCHAR Phase0Started;
UCHAR Phase1Started;

PDRIVER_OBJECT MonitorObjects[2];
FAST_MUTEX MonitorObjectLock;

PUNICODE_STRING ServiceKeyPath;
UNICODE_STRING TolvexAgentExePath;

KTIMER HousekeepingTimer;
KDPC HousekeepingDpc;

namespace {

const WCHAR ServiceKeyText[] = WIDE("\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\tmon");
const WCHAR AgentExeText[] = WIDE("\\Program Files\\Tolvex\\TolvexAgent\\TolvexAgent.exe");
// The system root is taken to end in an eight-character folder name and its
// backslash ("\WINDOWS"), whatever the folder is called.
constexpr USHORT SystemFolderBytes = 16;

// Claims a phase: returns the byte as it was and sets it.
UCHAR ClaimPhase(UCHAR *Started) {
    KIRQL OldIrql;
    KeAcquireSpinLock(&StartLock, &OldIrql);
    const UCHAR Was = *Started;
    *Started = 1;
    KeReleaseSpinLock(&StartLock, OldIrql);
    return Was;
}

VOID ReleasePhase(UCHAR *Started) {
    KIRQL OldIrql;
    KeAcquireSpinLock(&StartLock, &OldIrql);
    *Started = 0;
    KeReleaseSpinLock(&StartLock, OldIrql);
}

VOID ArmHousekeepingTimer() {
    LARGE_INTEGER DueTime;
    DueTime.QuadPart = HousekeepingPeriod;
    KeSetTimer(&HousekeepingTimer, DueTime, &HousekeepingDpc);
}

}  // namespace

VOID RearmHousekeepingTimer() {
    KIRQL OldIrql;
    KeAcquireSpinLock(&StartLock, &OldIrql);
    if (Phase1Started) ArmHousekeepingTimer();
    KeReleaseSpinLock(&StartLock, OldIrql);
}

TEXPRT_EXPORT NTSTATUS NTAPI DllInitialize(PUNICODE_STRING RegistryPath) {
    TraceInitialize();
    KeInitializeSpinLock(&StartLock);
    ExInitializeFastMutex(&FilterLock);
    ExInitializeFastMutex(&MonitorObjectLock);
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
    if (DriverObject == nullptr) {
        TRACE_STATUS(STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    // Both monitors register, before anything else.
    ExAcquireFastMutex(&MonitorObjectLock);
    MonitorObjects[Preferred ? PreferredMonitorObject : OtherMonitorObject] = DriverObject;
    ExReleaseFastMutex(&MonitorObjectLock);

    if (ClaimPhase(&Phase0Started)) return STATUS_SUCCESS;

    // A retry after a failed phase 0 finds the path still built: it lives
    // until DllUnload.
    if (ServiceKeyPath == nullptr) {
        UNICODE_STRING Literal = CONST_UNICODE_STRING(ServiceKeyText);
        ServiceKeyPath = NewCountedString(&Literal, TagFrame);
    }
    LoadConfigurationAndPolicies();
    return STATUS_SUCCESS;
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

TEXPRT_EXPORT NTSTATUS NTAPI TcSystemsInitializePhase1() {
    if (ClaimPhase(&Phase1Started)) return STATUS_SUCCESS;

    // From here on the timer keeps itself alive.
    ArmHousekeepingTimer();

    NTSTATUS Status = BuildAgentExePath();
    if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);

    if (NT_SUCCESS(Status)) return Status;

    // Undo. The timer is left alone: its next firing finds Phase1Started
    // clear and stops.
    ReleasePhase(&Phase1Started);
    ClearAllRuleSets();
    return Status;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcNotifyDriverUnload(BOOLEAN Preferred) {
    ExAcquireFastMutex(&MonitorObjectLock);
    MonitorObjects[Preferred ? PreferredMonitorObject : OtherMonitorObject] = nullptr;
    ExReleaseFastMutex(&MonitorObjectLock);
    return STATUS_SUCCESS;
}

TEXPRT_EXPORT NTSTATUS NTAPI DllUnload() {
    KIRQL OldIrql;
    KeAcquireSpinLock(&StartLock, &OldIrql);
    const UCHAR WasPhase0 = Phase0Started, WasPhase1 = Phase1Started;
    KeReleaseSpinLock(&StartLock, OldIrql);
    UNREFERENCED_PARAMETER(WasPhase0);

    if (WasPhase1) {
        const NTSTATUS Status = ClearAllRuleSets();
        if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
    }

    KeAcquireSpinLock(&StartLock, &OldIrql);
    Phase0Started = 0;
    Phase1Started = 0;
    KeCancelTimer(&HousekeepingTimer);
    KeRemoveQueueDpc(&HousekeepingDpc);
    KeReleaseSpinLock(&StartLock, OldIrql);

    PoolFree(ServiceKeyPath);
    ServiceKeyPath = nullptr;
    FreeRememberedPolicyNames();

    RundownWorkQueue(&LibraryWorkQueue);

    PoolFree(TolvexAgentExePath.Buffer);
    TolvexAgentExePath.Buffer = nullptr;
    TolvexAgentExePath.Length = 0;
    TolvexAgentExePath.MaximumLength = 0;

    TraceShutdown();
    return STATUS_SUCCESS;
}
