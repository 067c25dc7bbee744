// Configuration read from the registry.
#include "frame/config.h"

#include "base/exports.h"
#include "base/registry.h"
#include "base/strings.h"
#include "base/trace.h"
#include "diagnostics/counters.h"
#include "eventstream/globals.h"
#include "hashblock/globals.h"

namespace {

// KEY_VALUE_PARTIAL_INFORMATION: the data start behind three words.
constexpr ULONG PartialInformationDataOffset = 12;

}  // namespace

UCHAR ReadPerfFlag() {
    HANDLE ServiceKey = nullptr;
    if (!NT_SUCCESS(OpenServiceKey(&ServiceKey))) return 0;
    // Only the subkey's existence counts; a value of the same name does not.
    UNICODE_STRING Name = CONST_UNICODE_STRING(WIDE("PerFlagOn"));
    HANDLE FlagKey = nullptr;
    const NTSTATUS Status = OpenConfigurationKey(&FlagKey, ServiceKey, &Name);
    if (NT_SUCCESS(Status)) ZwClose(FlagKey);
    ZwClose(ServiceKey);
    return NT_SUCCESS(Status) ? 1 : 0;
}

TEXPRT_EXPORT NTSTATUS NTAPI TcUpdateMaxCacheSize() {
    EXPORT_ENTRY(TcUpdateMaxCacheSize);
    HANDLE ServiceKey = nullptr, Parameters = nullptr;
    NTSTATUS Status = OpenServiceKey(&ServiceKey);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        return STATUS_SUCCESS;
    }
    Status = OpenParametersKey(ServiceKey, &Parameters);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        ZwClose(ServiceKey);
        return STATUS_SUCCESS;
    }
    // Room for eight bytes of data: a 4-byte value reads with a zero upper
    // half from the zeroed buffer, and anything longer than 12 bytes of data
    // overflows and counts as a failure.
    constexpr ULONG BufferSize = 24;
    PUCHAR Buffer = (PUCHAR)PoolAlloc(DefaultPool, BufferSize, TagConfig);
    BOOLEAN Read = FALSE;
    if (Buffer != nullptr) {
        RtlZeroMemory(Buffer, BufferSize);
        UNICODE_STRING Name = CONST_UNICODE_STRING(WIDE("MaxCacheSize"));
        ULONG ResultLength = 0;
        Status = ZwQueryValueKey(Parameters, &Name, KeyValuePartialInformation, Buffer, BufferSize, &ResultLength);
        if (NT_SUCCESS(Status)) {
            ULONGLONG Mebibytes;
            RtlCopyMemory(&Mebibytes, Buffer + PartialInformationDataOffset, sizeof(Mebibytes));
            const ULONGLONG Bytes = Mebibytes << 20;
            // Two plain stores; the reader on the stream thread takes no lock.
            MaxCacheSize.LowPart = (ULONG)Bytes;
            MaxCacheSize.HighPart = (LONG)(Bytes >> 32);
            Read = TRUE;
        } else {
            TRACE_STATUS(Status);
        }
        PoolFree(Buffer);
    } else {
        TRACE_STATUS(STATUS_INSUFFICIENT_RESOURCES);
    }
    // The Parameters handle is closed only on this path's success; a failed
    // read leaves it open, a long-standing trait that is kept.
    if (Read) ZwClose(Parameters);
    ZwClose(ServiceKey);
    return STATUS_SUCCESS;
}

VOID ReadHbbCacheSize() {
    HANDLE ServiceKey = nullptr, Parameters = nullptr;
    NTSTATUS Status = OpenServiceKey(&ServiceKey);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        return;
    }
    Status = OpenParametersKey(ServiceKey, &Parameters);
    if (!NT_SUCCESS(Status)) {
        TRACE_STATUS(Status);
        ZwClose(ServiceKey);
        return;
    }
    ULONG Buffer[5] = {};  // 20 bytes: the partial information and a DWORD
    UNICODE_STRING Name = CONST_UNICODE_STRING(WIDE("HBBMaxAppCacheSize"));
    ULONG ResultLength = 0;
    Status = ZwQueryValueKey(Parameters, &Name, KeyValuePartialInformation, Buffer, sizeof(Buffer), &ResultLength);
    if (NT_SUCCESS(Status)) {
        HbbMaxAppCacheSize = Buffer[PartialInformationDataOffset / sizeof(ULONG)];
    } else if (Status == STATUS_OBJECT_NAME_NOT_FOUND) {
        // Publish the default so that the agent can see what is in force.
        ULONG Default = HbbMaxAppCacheSize;
        Status = ZwSetValueKey(Parameters, &Name, 0, REG_DWORD, &Default, sizeof(Default));
        if (!NT_SUCCESS(Status)) TRACE_STATUS(Status);
    }
    ZwClose(Parameters);
    ZwClose(ServiceKey);
}

NTSTATUS LoadConfigurationAndPolicies() {
    PerfCountersEnabled = ReadPerfFlag();
    TcUpdateMaxCacheSize();
    // A policy that cannot be read does not stop the library: the update
    // reports it, and the library starts without that policy.
    TcUpdateEDRPolicies();
    TcUpdateAppBlockingPolicy();
    ReadHbbCacheSize();
    return STATUS_SUCCESS;
}
