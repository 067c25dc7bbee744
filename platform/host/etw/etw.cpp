// Event tracing for a provider: registrations and the strings written, kept
// as lines that tests and texprt-sim can read. Bound by the library at run
// time through MmGetSystemRoutineAddress, like the kernel's own routines.
#include "internal.h"

#include <hk/hk.h>

#include <map>
#include <mutex>

namespace hk::detail {
namespace {

struct EtwState {
    std::mutex lock;
    REGHANDLE next = 1;
    std::map<REGHANDLE, GUID> providers;
    std::vector<std::string> lines;
};

EtwState &State() {
    static EtwState *state = [] {
        auto *s = new EtwState;
        RegisterReset([s] {
            std::lock_guard guard(s->lock);
            s->lines.clear();
        });
        return s;
    }();
    return *state;
}

}  // namespace

size_t EtwRegistrationCount() {
    auto &state = State();
    std::lock_guard guard(state.lock);
    return state.providers.size();
}

}  // namespace hk::detail

using namespace hk::detail;

extern "C" {

NTSTATUS NTAPI EtwRegister(LPCGUID ProviderId, PETWENABLECALLBACK EnableCallback, PVOID CallbackContext,
                           PREGHANDLE RegHandle) {
    CheckIrql(PASSIVE_LEVEL, "EtwRegister");
    if (ProviderId == nullptr || RegHandle == nullptr) return STATUS_INVALID_PARAMETER;
    {
        auto &state = State();
        std::lock_guard guard(state.lock);
        *RegHandle = state.next++;
        state.providers[*RegHandle] = *ProviderId;
    }
    // A trace session is always listening on the host, at verbose level.
    if (EnableCallback) EnableCallback(ProviderId, 1, 5, ~0ull, 0, nullptr, CallbackContext);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI EtwUnregister(REGHANDLE RegHandle) {
    CheckIrql(PASSIVE_LEVEL, "EtwUnregister");
    auto &state = State();
    std::lock_guard guard(state.lock);
    if (!state.providers.erase(RegHandle)) return STATUS_INVALID_HANDLE;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI EtwWriteString(REGHANDLE RegHandle, UCHAR Level, ULONGLONG Keyword, LPCGUID ActivityId,
                              PCWSTR String) {
    auto &state = State();
    std::lock_guard guard(state.lock);
    if (!state.providers.count(RegHandle)) return STATUS_INVALID_HANDLE;
    std::u16string text;
    for (const char16_t *p = String; p && *p; ++p) text += *p;
    state.lines.push_back(ToUtf8(text));
    return STATUS_SUCCESS;
}

}  // extern "C"

namespace hk {

std::vector<std::string> TraceLines() {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    return state.lines;
}

void ClearTrace() {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    state.lines.clear();
}

}  // namespace hk

namespace hk {
size_t TraceRegistrations() { return detail::EtwRegistrationCount(); }
}  // namespace hk
