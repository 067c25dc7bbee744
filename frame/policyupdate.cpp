// The policy update procedure and the revocation exports.
#include "frame/policyupdate.h"

#include "base/exports.h"
#include "base/registry.h"
#include "base/strings.h"
#include "base/trace.h"
#include "diagnostics/eventlog.h"
#include "rules/store.h"

namespace {

// What differs between the three stores' updates.
struct PolicyUpdateKind {
    PCWSTR ValueName;
    PUNICODE_STRING *ComparedName;
    NTSTATUS (*LoadAndInstall)(PUNICODE_STRING Path);
    VOID (*AfterInstall)();  // may be null
    BOOLEAN RememberAsEdr;
    VOID (*Revoke)();
    VOID (*ReportFailure)(NTSTATUS Status);
};

VOID RevokeEdr() {
    RemoveMonitorRuleSets();
    ReportEvent(MsgProductPolicyRevoked);
}

// The whitelist flags of running processes are refreshed after a monitor
// install once the process table exists; until then there is nothing to do.
const PolicyUpdateKind EdrUpdate = {
    WIDE("PolicyFilePath"), &LastEdrPolicyName, UpdateMonitorRuleSets, nullptr, TRUE, RevokeEdr,
    ReportPolicyReadFailure,
};

VOID RevokeAppBlocking() {
    RemoveAppBlockingRuleSet();
    ReportEvent(MsgAppBlockingPolicyRevoked);
}

// The app-blocking update compares with its own remembered name, but
// remembers as a non-EDR policy, in the protection policy's slot: its own
// slot is never written, so its file is read afresh at every call, and the
// next protection update finds a different name and reloads as well. Both
// are long-standing behaviour that the agent relies on and that is kept.
const PolicyUpdateKind AppBlockingUpdate = {
    WIDE("AppBlockingPolicyFilePath"), &LastAppBlockingPolicyName, UpdateAppBlockingRuleSet, nullptr, FALSE,
    RevokeAppBlocking, ReportAppBlockingReadFailure,
};

NTSTATUS UpdatePolicy(const PolicyUpdateKind &Kind) {
    PUNICODE_STRING Path = nullptr;
    NTSTATUS Status = ReadPolicyPath(Kind.ValueName, &Path);
    if (NT_SUCCESS(Status)) {
        BOOLEAN Unchanged = FALSE;
        if (Path->Length != 0 && Path->Buffer != nullptr) {
            UNICODE_STRING Directory, FileName;
            const NTSTATUS SplitStatus = SplitPolicyPath(Path, &Directory, &FileName);
            if (!NT_SUCCESS(SplitStatus)) {
                TRACE_STATUS(SplitStatus);
            } else if (*Kind.ComparedName != nullptr &&
                       RtlCompareUnicodeString(*Kind.ComparedName, &FileName, TRUE) == 0) {
                // Only the file name counts: new content under the same name,
                // or the same name in another directory, is unchanged.
                Unchanged = TRUE;
            }
        }
        if (Unchanged) {
            PoolFree(Path);
            return STATUS_SUCCESS;
        }
        Status = Kind.LoadAndInstall(Path);
        if (NT_SUCCESS(Status)) {
            if (Kind.AfterInstall != nullptr) Kind.AfterInstall();
            RememberPolicyFileName(Path, Kind.RememberAsEdr);
        } else {
            TRACE_STATUS(Status);
        }
    }
    // A value missing from the registry or a file that is gone both mean
    // that the agent withdrew the policy.
    if (Status == STATUS_OBJECT_NAME_NOT_FOUND) {
        Kind.Revoke();
    } else if (!NT_SUCCESS(Status)) {
        Kind.ReportFailure(Status);
    }
    PoolFree(Path);
    return Status;
}

}  // namespace

NTSTATUS ReadPolicyPath(PCWSTR ValueName, PUNICODE_STRING *Path) {
    *Path = nullptr;
    HANDLE ServiceKey = nullptr, Parameters = nullptr;
    PUCHAR Buffer = nullptr;
    NTSTATUS Status = OpenServiceKey(&ServiceKey);
    if (NT_SUCCESS(Status)) Status = OpenParametersKey(ServiceKey, &Parameters);
    if (NT_SUCCESS(Status)) {
        UNICODE_STRING Name;
        RtlInitUnicodeString(&Name, ValueName);
        ULONG Size = 0;
        Status = ZwQueryValueKey(Parameters, &Name, KeyValuePartialInformation, nullptr, 0, &Size);
        if (Status == STATUS_BUFFER_OVERFLOW || Status == STATUS_BUFFER_TOO_SMALL) {
            // Twenty spare zero bytes: the text is measured up to a NUL
            // whatever type the value has.
            const ULONG BufferSize = Size + 20;
            Buffer = BufferSize > Size ? (PUCHAR)PoolAlloc(DefaultPool, BufferSize, TagConfig) : nullptr;
            if (Buffer == nullptr) {
                Status = STATUS_INSUFFICIENT_RESOURCES;
            } else {
                RtlZeroMemory(Buffer, BufferSize);
                Status = ZwQueryValueKey(Parameters, &Name, KeyValuePartialInformation, Buffer, BufferSize, &Size);
                if (NT_SUCCESS(Status)) {
                    auto *Information = (PKEY_VALUE_PARTIAL_INFORMATION)Buffer;
                    UNICODE_STRING Text;
                    RtlInitUnicodeString(&Text, (PCWSTR)Information->Data);
                    if (Text.Length == 0) {
                        Status = STATUS_UNSUCCESSFUL;
                    } else {
                        *Path = NewCountedString(&Text, TagConfig);
                        if (*Path == nullptr) Status = STATUS_INSUFFICIENT_RESOURCES;
                    }
                }
            }
        }
    }
    if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
    if (Parameters != nullptr) ZwClose(Parameters);
    if (ServiceKey != nullptr) ZwClose(ServiceKey);
    PoolFree(Buffer);
    return Status;
}

NTSTATUS SplitPolicyPath(PCUNICODE_STRING Path, PUNICODE_STRING Directory, PUNICODE_STRING FileName) {
    if (Path == nullptr || Directory == nullptr || FileName == nullptr || Path->Length == 0 || Path->Buffer == nullptr)
        return STATUS_INVALID_PARAMETER;
    const USHORT Chars = Path->Length / sizeof(WCHAR);
    USHORT Slash = Chars;
    for (USHORT Index = Chars; Index > 0; --Index) {
        if (Path->Buffer[Index - 1] == '\\') {
            Slash = (USHORT)(Index - 1);
            break;
        }
    }
    if (Slash == Chars) return STATUS_UNSUCCESSFUL;
    FileName->Buffer = Path->Buffer + Slash + 1;
    FileName->Length = FileName->MaximumLength = (USHORT)((Chars - Slash - 1) * sizeof(WCHAR));
    Directory->Buffer = Path->Buffer;
    Directory->Length = (USHORT)((Slash + 1) * sizeof(WCHAR));
    // A volume root in an object-manager path keeps its backslash
    // (\DEVICE\HARDDISKVOLUME1\ has three); deeper directories lose it.
    ULONG Backslashes = 0;
    for (USHORT Index = 0; Index <= Slash && Backslashes < 4; ++Index)
        if (Directory->Buffer[Index] == '\\') ++Backslashes;
    if (Backslashes >= 4) Directory->Length -= sizeof(WCHAR);
    Directory->MaximumLength = Directory->Length;
    return STATUS_SUCCESS;
}

VOID RememberPolicyFileName(PCUNICODE_STRING Path, BOOLEAN IsEdr) {
    UNICODE_STRING Directory, FileName;
    NTSTATUS Status = SplitPolicyPath(Path, &Directory, &FileName);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        return;
    }
    PUNICODE_STRING Name = NewCountedString(&FileName, TagConfig);
    if (Name == nullptr) {
        TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
        return;
    }
    PUNICODE_STRING *Slot = IsEdr ? &LastEdrPolicyName : &LastProtectionPolicyName;
    PoolFree(*Slot);
    *Slot = Name;
}

VOID FreeRememberedPolicyNames() {
    PoolFree(LastEdrPolicyName);
    PoolFree(LastProtectionPolicyName);
    PoolFree(LastAppBlockingPolicyName);
    LastEdrPolicyName = LastProtectionPolicyName = LastAppBlockingPolicyName = nullptr;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcUpdateEDRPolicies() {
    EXPORT_ENTRY(TcUpdateEDRPolicies);
    return UpdatePolicy(EdrUpdate);
}

TEXPRT_EXPORT VOID NTAPI TcRevokeEDRPolicies() {
    EXPORT_ENTRY(TcRevokeEDRPolicies);
    RevokeEdr();
}

TEXPRT_EXPORT NTSTATUS NTAPI TcUpdateAppBlockingPolicy() {
    EXPORT_ENTRY(TcUpdateAppBlockingPolicy);
    return UpdatePolicy(AppBlockingUpdate);
}

TEXPRT_EXPORT VOID NTAPI TcRevokeAppBlockingPolicy() {
    EXPORT_ENTRY(TcRevokeAppBlockingPolicy);
    RevokeAppBlocking();
}
