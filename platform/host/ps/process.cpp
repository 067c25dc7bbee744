// Processes (first cut: the routines link and report that they are not
// there yet).
#include "internal.h"

#include <hk/hk.h>

#include <stdexcept>

NTSTATUS NTAPI ZwOpenProcess(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES, PCLIENT_ID) { return STATUS_NOT_IMPLEMENTED; }
NTSTATUS NTAPI ZwQueryInformationProcess(HANDLE, PROCESSINFOCLASS, PVOID, ULONG, PULONG) {
    return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS NTAPI ZwOpenThread(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES, PCLIENT_ID) { return STATUS_NOT_IMPLEMENTED; }
NTSTATUS NTAPI ZwQueryInformationThread(HANDLE, THREADINFOCLASS, PVOID, ULONG, PULONG) {
    return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS NTAPI PsLookupProcessByProcessId(HANDLE, PEPROCESS *) { return STATUS_NOT_IMPLEMENTED; }
HANDLE NTAPI PsGetProcessId(PEPROCESS) { return nullptr; }
NTSTATUS NTAPI ZwQuerySystemInformation(SYSTEM_INFORMATION_CLASS, PVOID, ULONG, PULONG) {
    return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS NTAPI ZwOpenProcessTokenEx(HANDLE, ACCESS_MASK, ULONG, PHANDLE) { return STATUS_NOT_IMPLEMENTED; }
NTSTATUS NTAPI ZwQueryInformationToken(HANDLE, TOKEN_INFORMATION_CLASS, PVOID, ULONG, PULONG) {
    return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS NTAPI ZwQuerySecurityObject(HANDLE, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR, ULONG, PULONG) {
    return STATUS_NOT_IMPLEMENTED;
}
ULONG NTAPI RtlLengthSid(PSID Sid) {
    return ULONG(sizeof(SID) - sizeof(ULONG) + static_cast<SID *>(Sid)->SubAuthorityCount * sizeof(ULONG));
}
BOOLEAN NTAPI RtlValidSid(PSID) { return FALSE; }
BOOLEAN NTAPI RtlEqualSid(PSID, PSID) { return FALSE; }
NTSTATUS NTAPI RtlCopySid(ULONG, PSID, PSID) { return STATUS_NOT_IMPLEMENTED; }
NTSTATUS NTAPI RtlConvertSidToUnicodeString(PUNICODE_STRING, PSID, BOOLEAN) { return STATUS_NOT_IMPLEMENTED; }
ULONG NTAPI RtlLengthSecurityDescriptor(PSECURITY_DESCRIPTOR) { return 0; }
BOOLEAN NTAPI RtlValidRelativeSecurityDescriptor(PSECURITY_DESCRIPTOR, ULONG, SECURITY_INFORMATION) { return FALSE; }

namespace hk {
namespace {
[[noreturn]] void NotYet() { throw std::logic_error("hostkernel: processes are not modelled yet"); }
}  // namespace
uint32_t CreateProcess(const ProcessSpec &) { NotYet(); }
uint32_t CreateThread(uint32_t, const ThreadSpec &) { NotYet(); }
bool ExitThread(uint32_t, uint32_t, NTSTATUS) { NotYet(); }
bool ExitProcess(uint32_t, NTSTATUS) { NotYet(); }
std::vector<uint32_t> RunningProcesses() { return {0, 4}; }
bool IdInUse(uint32_t id) { return id == 0 || id == 4; }
PPEB ProcessPeb(uint32_t) { return nullptr; }
PEPROCESS ProcessObject(uint32_t) { return nullptr; }
void FailProcessQuery(uint32_t, PROCESSINFOCLASS, NTSTATUS) { NotYet(); }
void FailThreadQuery(uint32_t, uint32_t, THREADINFOCLASS, NTSTATUS) { NotYet(); }
void FailTokenOpen(uint32_t, NTSTATUS) { NotYet(); }
void FailTokenQuery(uint32_t, TOKEN_INFORMATION_CLASS, NTSTATUS) { NotYet(); }
void FailSecurityQuery(uint32_t, NTSTATUS) { NotYet(); }
void FailSystemQuery(SYSTEM_INFORMATION_CLASS, NTSTATUS) { NotYet(); }
void OnProcessListQuery(std::function<void(int)>) {}
void SetBootTimeBias(uint64_t) {}
AsThread::AsThread(uint32_t, uint32_t) : previous_(nullptr), thread_(nullptr) { NotYet(); }
AsThread::~AsThread() = default;
}  // namespace hk
