// The image's entry point. An export driver is loaded as a DLL for the
// drivers that import it, and the kernel then calls DllInitialize, never
// DriverEntry; the image format still wants an entry point, and this is
// what runs should the image ever be started as a driver of its own.
#include "platform/nt.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    UNREFERENCED_PARAMETER(DriverObject);
    UNREFERENCED_PARAMETER(RegistryPath);
    return STATUS_SUCCESS;
}
