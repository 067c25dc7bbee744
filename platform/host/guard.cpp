// The structured exception guard on the host: a fault (SIGSEGV, SIGBUS)
// inside the guarded routine returns to the guard with
// STATUS_ACCESS_VIOLATION, as an __except block would catch it.
#include "internal.h"

#include <csetjmp>
#include <csignal>
#include <cstring>

#if defined(__SANITIZE_THREAD__)
#define HK_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define HK_THREAD_SANITIZER 1
#endif
#endif

namespace {

thread_local sigjmp_buf *active_guard = nullptr;
struct sigaction previous_segv, previous_bus;

void OnFault(int signal, siginfo_t *info, void *context) {
    if (active_guard != nullptr) {
#ifdef HK_THREAD_SANITIZER
        // ThreadSanitizer installs its own handler in place of ours and
        // calls ours from it, and it runs every handler with all signals
        // blocked whatever sa_mask and SA_NODEFER say. Leaving by siglongjmp
        // (which it supports: it unwinds its own shadow stack to the
        // sigsetjmp) would keep SIGSEGV blocked, and the next fault in a
        // guard would kill the process. So put back the mask the faulting
        // code ran with, which is what the handler itself would have run
        // with outside the sanitizer. This costs a system call per fault,
        // never per guard. No runtime flag helps: handle_segv and
        // allow_user_segv_handler decide whose handler runs, not its mask.
        // (Its wrapper also leaves errno as it set it for our handler; no
        // guarded caller reads errno.)
        pthread_sigmask(SIG_SETMASK, &static_cast<ucontext_t *>(context)->uc_sigmask, nullptr);
#endif
        siglongjmp(*active_guard, 1);
    }
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
