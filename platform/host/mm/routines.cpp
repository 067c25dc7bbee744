// MmGetSystemRoutineAddress over the routines that hostkernel exports, with
// the means to hide one, so that a test can take the path an older system
// would take. Also the version that RtlGetVersion reports.
#include "internal.h"

#include <hk/hk.h>

#include <map>
#include <mutex>
#include <set>

extern "C" {
NTSTATUS NTAPI EtwRegister(LPCGUID, PETWENABLECALLBACK, PVOID, PREGHANDLE);
NTSTATUS NTAPI EtwUnregister(REGHANDLE);
NTSTATUS NTAPI EtwWriteString(REGHANDLE, UCHAR, ULONGLONG, LPCGUID, PCWSTR);
}

namespace hk::detail {
namespace {

struct RoutineState {
    std::mutex lock;
    std::map<std::string, void *> routines;
    std::set<std::string> hidden;
    uint32_t build = 19045;
};

// Routines that drivers customarily bind at run time; every other export of
// the host is linked directly.
RoutineState &State() {
    static RoutineState *state = [] {
        auto *s = new RoutineState;
        s->routines = {
            {"EtwRegister", reinterpret_cast<void *>(&EtwRegister)},
            {"EtwUnregister", reinterpret_cast<void *>(&EtwUnregister)},
            {"EtwWriteString", reinterpret_cast<void *>(&EtwWriteString)},
            {"RtlGetVersion", reinterpret_cast<void *>(&RtlGetVersion)},
            {"KeQuerySystemTime", reinterpret_cast<void *>(&KeQuerySystemTime)},
            {"ExAllocatePoolWithTag", reinterpret_cast<void *>(&ExAllocatePoolWithTag)},
            {"ExFreePoolWithTag", reinterpret_cast<void *>(&ExFreePoolWithTag)},
            {"ZwQueryValueKey", reinterpret_cast<void *>(&ZwQueryValueKey)},
            {"ZwQueryInformationProcess", reinterpret_cast<void *>(&ZwQueryInformationProcess)},
            {"ZwQueryInformationThread", reinterpret_cast<void *>(&ZwQueryInformationThread)},
            {"ZwOpenProcessTokenEx", reinterpret_cast<void *>(&ZwOpenProcessTokenEx)},
        };
        RegisterReset([s] {
            std::lock_guard guard(s->lock);
            s->hidden.clear();
            s->build = 19045;
        });
        return s;
    }();
    return *state;
}

}  // namespace

// Lets other components (processes, counters) add the routines they own.
void RegisterSystemRoutine(const std::string &name, void *address) {
    auto &state = State();
    std::lock_guard guard(state.lock);
    state.routines[name] = address;
}

}  // namespace hk::detail

extern "C" PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName) {
    hk::detail::CheckIrql(PASSIVE_LEVEL, "MmGetSystemRoutineAddress");
    if (SystemRoutineName == nullptr) return nullptr;
    const std::string name = hk::detail::ToUtf8(hk::detail::FromUnicodeString(SystemRoutineName));
    auto &state = hk::detail::State();
    std::lock_guard guard(state.lock);
    if (state.hidden.count(name)) return nullptr;
    auto it = state.routines.find(name);
    return it == state.routines.end() ? nullptr : it->second;
}

extern "C" NTSTATUS NTAPI RtlGetVersion(PRTL_OSVERSIONINFOW VersionInformation) {
    if (VersionInformation == nullptr) return STATUS_INVALID_PARAMETER;
    auto &state = hk::detail::State();
    std::lock_guard guard(state.lock);
    VersionInformation->dwMajorVersion = 10;
    VersionInformation->dwMinorVersion = 0;
    VersionInformation->dwBuildNumber = state.build;
    VersionInformation->dwPlatformId = 2;
    VersionInformation->szCSDVersion[0] = 0;
    return STATUS_SUCCESS;
}

namespace hk {

void HideSystemRoutine(const std::string &name, bool hidden) {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    if (hidden) state.hidden.insert(name);
    else state.hidden.erase(name);
}

void SetBuildNumber(uint32_t build) {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    state.build = build;
}

}  // namespace hk
