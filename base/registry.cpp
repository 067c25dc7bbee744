// Registry helpers.
#include "base/registry.h"

#include "base/strings.h"

namespace {

const WCHAR ServiceKeyText[] = WIDE("\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\tmon");
constexpr ULONG KeyAttributes = OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE;

}  // namespace

VOID BuildServiceKeyPath() {
    if (ServiceKeyPath != nullptr) return;
    UNICODE_STRING Literal = CONST_UNICODE_STRING(ServiceKeyText);
    ServiceKeyPath = NewCountedString(&Literal, TagFrame);
}

VOID FreeServiceKeyPath() {
    PoolFree(ServiceKeyPath);
    ServiceKeyPath = nullptr;
}

NTSTATUS OpenConfigurationKey(PHANDLE Handle, HANDLE Root, PUNICODE_STRING Name) {
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, Name, KeyAttributes, Root, nullptr);
    return ZwOpenKey(Handle, ConfigurationKeyAccess, &Attributes);
}

NTSTATUS OpenServiceKey(PHANDLE Handle) { return OpenConfigurationKey(Handle, nullptr, ServiceKeyPath); }

NTSTATUS OpenParametersKey(HANDLE ServiceKey, PHANDLE Handle) {
    UNICODE_STRING Name = CONST_UNICODE_STRING(WIDE("Parameters"));
    return OpenConfigurationKey(Handle, ServiceKey, &Name);
}
