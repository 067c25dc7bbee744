// Floating-point state saves. Each thread keeps its saves as a stack: a
// restore must name the most recent save made on the same thread, at the
// IRQL it was made, or the verifier complains (INVALID_FLOATING_POINT_STATE
// on Windows). The host really saves and restores the FPU environment, so
// that a library routine that changes the rounding mode leaves no trace.
#include "ke/dispatcher.h"

#include <hk/hk.h>

#include <cfenv>

using namespace hk::detail;

namespace {

struct FloatingSave {
    PKFLOATING_SAVE save;
    KIRQL irql;
    fenv_t environment;
};

std::vector<FloatingSave> &Saves() {
    thread_local std::vector<FloatingSave> saves;
    return saves;
}

}  // namespace

void hk::FailFloatingPointSave(NTSTATUS status) { Ke().fp_save_failure = status; }

NTSTATUS NTAPI KeSaveFloatingPointState(PKFLOATING_SAVE FloatSave) {
    CheckIrql(DISPATCH_LEVEL, "KeSaveFloatingPointState");
    const NTSTATUS failure = Ke().fp_save_failure;
    if (failure != STATUS_SUCCESS) return failure;
    FloatingSave entry{FloatSave, KeGetCurrentIrql(), {}};
    fegetenv(&entry.environment);
    Saves().push_back(entry);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI KeRestoreFloatingPointState(PKFLOATING_SAVE FloatSave) {
    auto &saves = Saves();
    auto it = saves.end();
    while (it != saves.begin() && (it - 1)->save != FloatSave) --it;
    if (it == saves.begin()) {
        Complainf("KeRestoreFloatingPointState: %p was not saved on this thread", static_cast<void *>(FloatSave));
        return STATUS_ILLEGAL_FLOAT_CONTEXT;
    }
    const FloatingSave entry = *(it - 1);
    NTSTATUS status = STATUS_SUCCESS;
    if (it != saves.end()) {
        Complainf("KeRestoreFloatingPointState: %p restored before the %zu saves made after it",
                  static_cast<void *>(FloatSave), size_t(saves.end() - it));
        status = STATUS_ILLEGAL_FLOAT_CONTEXT;
    }
    if (entry.irql != KeGetCurrentIrql()) {
        Complainf("KeRestoreFloatingPointState: saved at IRQL %u, restored at IRQL %u", unsigned(entry.irql),
                  unsigned(KeGetCurrentIrql()));
        status = STATUS_ILLEGAL_FLOAT_CONTEXT;
    }
    saves.erase(it - 1);
    fesetenv(&entry.environment);
    return status;
}
