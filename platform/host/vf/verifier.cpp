// The verifier: complaints in the spirit of Driver Verifier, IRQL checks,
// and the machine reset that runs every component's reset hook.
#include "internal.h"

#include <hk/hk.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace hk::detail {
namespace {

struct VerifierState {
    std::mutex lock;
    std::vector<std::string> complaints;
    bool fatal = false;
    std::vector<std::function<void()>> resets;
};

VerifierState &State() {
    static VerifierState *state = new VerifierState;  // outlives static destructors
    return *state;
}

}  // namespace

void Complain(const std::string &message) {
    auto &state = State();
    bool fatal;
    {
        std::lock_guard guard(state.lock);
        state.complaints.push_back(message);
        fatal = state.fatal;
    }
    std::fprintf(stderr, "hostkernel verifier: %s\n", message.c_str());
    if (fatal) std::abort();
}

void CheckIrql(KIRQL max_irql, const char *routine) {
    const KIRQL irql = CurrentThreadState().irql;
    if (irql > max_irql)
        Complain(std::string(routine) + " called at IRQL " + std::to_string(irql) + ", above its maximum of " +
                 std::to_string(max_irql));
}

void RegisterReset(std::function<void()> reset) {
    auto &state = State();
    std::lock_guard guard(state.lock);
    state.resets.push_back(std::move(reset));
}

}  // namespace hk::detail

namespace hk {

std::vector<std::string> VerifierComplaints() {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    return state.complaints;
}

void ClearVerifierComplaints() {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    state.complaints.clear();
}

void SetVerifierFatal(bool fatal) {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    state.fatal = fatal;
}

void Reset() {
    std::vector<std::function<void()>> resets;
    {
        auto &state = detail::State();
        std::lock_guard guard(state.lock);
        resets = state.resets;
        state.complaints.clear();
    }
    for (auto &reset : resets) reset();
}

}  // namespace hk
