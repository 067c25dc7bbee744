// What each host thread carries as a kernel thread: its IRQL and its
// critical region depth. IRQL on the host is bookkeeping only (a thread at
// DISPATCH_LEVEL can still be preempted by the host), but every rule that
// depends on it is checked as Driver Verifier would.
#include "ke/dispatcher.h"

#include <cstdio>
#include <cstdlib>

namespace hk::detail {

// Every kernel routine asks for the current thread's state, most of them
// several times. hostkernel is loaded with the program, never dlopen'ed
// after start, so its thread-local storage can sit in the static block and
// be reached without a call into the dynamic loader.
ThreadState &CurrentThreadState() {
    thread_local ThreadState state [[gnu::tls_model("initial-exec")]];
    return state;
}

}  // namespace hk::detail

using namespace hk::detail;

KIRQL NTAPI KeGetCurrentIrql(VOID) { return CurrentThreadState().irql; }

KIRQL FASTCALL KfRaiseIrql(KIRQL NewIrql) {
    ThreadState &state = CurrentThreadState();
    const KIRQL old_irql = state.irql;
    if (NewIrql > HIGH_LEVEL) Complainf("KfRaiseIrql: IRQL %u is not an IRQL", unsigned(NewIrql));
    if (NewIrql < old_irql)
        // IRQL_NOT_GREATER_OR_EQUAL on Windows.
        Complainf("KfRaiseIrql: raising to IRQL %u from the higher IRQL %u", unsigned(NewIrql), unsigned(old_irql));
    state.irql = NewIrql;
    return old_irql;
}

VOID FASTCALL KfLowerIrql(KIRQL NewIrql) {
    ThreadState &state = CurrentThreadState();
    if (NewIrql > state.irql)
        // IRQL_NOT_LESS_OR_EQUAL on Windows.
        Complainf("KfLowerIrql: lowering to IRQL %u from the lower IRQL %u", unsigned(NewIrql),
                  unsigned(state.irql));
    state.irql = NewIrql;
}

KIRQL NTAPI KeRaiseIrqlToDpcLevel(VOID) { return KfRaiseIrql(DISPATCH_LEVEL); }

VOID NTAPI KeEnterCriticalRegion(VOID) { ++CurrentThreadState().kernel_apc_disable; }

VOID NTAPI KeLeaveCriticalRegion(VOID) {
    ThreadState &state = CurrentThreadState();
    if (state.kernel_apc_disable <= 0) {
        Complain("KeLeaveCriticalRegion without a matching KeEnterCriticalRegion");
        return;
    }
    --state.kernel_apc_disable;
}

BOOLEAN NTAPI KeAreApcsDisabled(VOID) {
    const ThreadState &state = CurrentThreadState();
    return state.kernel_apc_disable > 0 || state.irql >= APC_LEVEL;
}

VOID NTAPI KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR P1, ULONG_PTR P2, ULONG_PTR P3, ULONG_PTR P4) {
    fprintf(stderr, "*** STOP 0x%08X (0x%llX, 0x%llX, 0x%llX, 0x%llX)\n", unsigned(BugCheckCode),
            static_cast<unsigned long long>(P1), static_cast<unsigned long long>(P2),
            static_cast<unsigned long long>(P3), static_cast<unsigned long long>(P4));
    fflush(stderr);
    abort();
}
