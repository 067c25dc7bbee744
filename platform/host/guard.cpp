// The structured exception guard on the host: a fault (SIGSEGV, SIGBUS)
// inside the guarded routine returns to the guard with
// STATUS_ACCESS_VIOLATION, as an __except block would catch it.
#include "internal.h"

#include <csetjmp>
#include <csignal>
#include <cstring>

namespace {

thread_local sigjmp_buf *active_guard = nullptr;
struct sigaction previous_segv, previous_bus;

void OnFault(int signal, siginfo_t *info, void *context) {
    if (active_guard != nullptr) siglongjmp(*active_guard, 1);
    // Not ours: hand the fault to whoever handled it before.
    struct sigaction &previous = signal == SIGSEGV ? previous_segv : previous_bus;
    if (previous.sa_flags & SA_SIGINFO) {
        if (previous.sa_sigaction) return previous.sa_sigaction(signal, info, context);
    } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        return previous.sa_handler(signal);
    }
    sigaction(signal, &previous, nullptr);
    raise(signal);
}

void InstallHandlers() {
    static const bool installed = [] {
        struct sigaction action;
        std::memset(&action, 0, sizeof action);
        action.sa_sigaction = OnFault;
        action.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigemptyset(&action.sa_mask);
        sigaction(SIGSEGV, &action, &previous_segv);
        sigaction(SIGBUS, &action, &previous_bus);
        return true;
    }();
    (void)installed;
}

}  // namespace

extern "C" BOOLEAN NTAPI PlatformGuardedCall(void (*Routine)(PVOID), PVOID Context, NTSTATUS *ExceptionCode) {
    InstallHandlers();
    sigjmp_buf here;
    sigjmp_buf *outer = active_guard;
    // The handler runs with SA_NODEFER, so a fault leaves the signal mask as
    // it was: no need to save it, which would cost a system call per guard.
    if (sigsetjmp(here, 0) != 0) {
        active_guard = outer;
        if (ExceptionCode) *ExceptionCode = STATUS_ACCESS_VIOLATION;
        return FALSE;
    }
    active_guard = &here;
    Routine(Context);
    active_guard = outer;
    return TRUE;
}
