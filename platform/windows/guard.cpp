// PlatformGuardedCall for texprt.sys: Routine(Context) under structured
// exception handling, without a compiler that knows __try/__except and
// without a C runtime.
//
// On both architectures the guard behaves like
//     __try { Routine(Context); return TRUE; }
//     __except (EXCEPTION_EXECUTE_HANDLER) { *ExceptionCode = GetExceptionCode(); return FALSE; }
// Frames between the fault and the guard (system routines with their own
// __try/__finally, nested guards that were left by the fault) are unwound
// through the kernel's unwinder before the guard resumes, so their
// termination handlers run and no stale registration outlives its frame.
//
// Nothing here can be run on the build machine; the host build has its own
// guard. What can be checked here is checked by scripts/check-image (the
// image does not claim NO_SEH; x64 keeps its exception directory).
#include "platform/nt.h"

namespace {

// Exception flags that mark a handler call as part of an unwind rather than
// of the search for a handler (unwinding, exit unwind, target unwind,
// collided unwind): our handler has nothing to do then.
constexpr ULONG GuardUnwindFlags = 0x66;

}  // namespace

#if defined(__i386__)

// ---------------------------------------------------------------------------
// x86: frame-based SEH. fs:[0] (KPCR.NtTib.ExceptionList in kernel mode)
// heads a chain of EXCEPTION_REGISTRATION records that live on the stack;
// on an exception the kernel's dispatcher calls each record's handler, most
// recent first, until one handles it.
//
// The guard pushes its own record for the duration of the call. Our handler
// accepts every exception: it records the code, has RtlUnwind run the
// handlers of and pop every record registered after ours (leaving ours at
// the head), then resumes the guard with __builtin_longjmp, which restores
// the guard's stack and frame pointers; the guard pops its record and
// returns FALSE. Everything between the fault and the guard, including the
// dispatcher's own frames, is abandoned, exactly as after an __except.

extern "C" DECLSPEC_IMPORT VOID NTAPI RtlUnwind(PVOID TargetFrame, PVOID TargetIp, PEXCEPTION_RECORD ExceptionRecord,
                                               PVOID ReturnValue);

namespace {

// The first two fields are the kernel's EXCEPTION_REGISTRATION_RECORD; the
// handler finds the rest because EstablisherFrame points at Next.
struct GuardRegistration {
    GuardRegistration *Next;
    PVOID Handler;
    // __builtin_setjmp's buffer: frame pointer, resume address, stack
    // pointer, and room the compiler may use.
    PVOID Resume[5];
    NTSTATUS Code;
};

inline GuardRegistration *ExceptionListHead() {
    GuardRegistration *Head;
    __asm__ __volatile__("movl %%fs:0, %0" : "=r"(Head) : : "memory");
    return Head;
}

inline void SetExceptionListHead(GuardRegistration *Head) {
    __asm__ __volatile__("movl %0, %%fs:0" : : "r"(Head) : "memory");
}

}  // namespace

// Called by the dispatcher as handlers always are on x86 (cdecl, four
// arguments; the dispatcher restores the stack itself, so the convention of
// the callee does not matter to it). Never returns when it handles.
extern "C" __attribute__((used, noinline)) EXCEPTION_DISPOSITION __cdecl PlatformGuardHandler(
    PEXCEPTION_RECORD ExceptionRecord, PVOID EstablisherFrame, PCONTEXT ContextRecord, PVOID DispatcherContext) {
    UNREFERENCED_PARAMETER(ContextRecord);
    UNREFERENCED_PARAMETER(DispatcherContext);
    if (ExceptionRecord->ExceptionFlags & GuardUnwindFlags) return ExceptionContinueSearch;

    GuardRegistration *Frame = static_cast<GuardRegistration *>(EstablisherFrame);
    Frame->Code = ExceptionRecord->ExceptionCode;

    // RtlUnwind(Frame, TargetIp, ExceptionRecord, 0), with TargetIp the
    // address right after the call: the documented contract continues at
    // TargetIp once the unwind is done, and that is also where a plain
    // return would land, so either reading of it brings us back here. The
    // continuation comes from a context the unwinder captured and restores,
    // so only the stack pointer is to be trusted afterwards (it is stdcall
    // and pops its four arguments): ebp and the other callee-saved
    // registers are kept on the stack around the call, as the compiler's
    // own unwind helpers do, and eax, ecx, edx are lost.
    PVOID Unwind = reinterpret_cast<PVOID>(&RtlUnwind);
    __asm__ __volatile__(
        "pushl %%ebp\n\t"
        "pushl %%ebx\n\t"
        "pushl %%esi\n\t"
        "pushl %%edi\n\t"
        "pushl $0\n\t"
        "pushl %1\n\t"
        "pushl $1f\n\t"
        "pushl %0\n\t"
        "call *%2\n"
        "1:\n\t"
        "popl %%edi\n\t"
        "popl %%esi\n\t"
        "popl %%ebx\n\t"
        "popl %%ebp"
        :
        : "r"(EstablisherFrame), "r"(ExceptionRecord), "r"(Unwind)
        : "eax", "ecx", "edx", "memory", "cc");

    // Our record now heads fs:[0] again. Back into PlatformGuardedCall.
    __builtin_longjmp(Frame->Resume, 1);
}

extern "C" BOOLEAN NTAPI PlatformGuardedCall(PLATFORM_GUARDED_ROUTINE *Routine, PVOID Context,
                                             NTSTATUS *ExceptionCode) {
    GuardRegistration Frame;
    Frame.Handler = reinterpret_cast<PVOID>(&PlatformGuardHandler);
    Frame.Code = STATUS_SUCCESS;

    // __builtin_setjmp (unlike the C library's setjmp) is the compiler's
    // own: it needs no runtime, and the compiler saves every callee-saved
    // register of this function itself, so our caller's registers survive
    // the longjmp.
    if (__builtin_setjmp(Frame.Resume) == 0) {
        Frame.Next = ExceptionListHead();
        SetExceptionListHead(&Frame);
        Routine(Context);
        SetExceptionListHead(Frame.Next);
        return TRUE;
    }

    // Resumed by the handler, after the unwind: our record is the head. The
    // handler wrote the record behind the compiler's back; read it as such.
    const volatile GuardRegistration *Seen = &Frame;
    SetExceptionListHead(Seen->Next);
    *ExceptionCode = Seen->Code;
    return FALSE;
}

#elif defined(__x86_64__)

// ---------------------------------------------------------------------------
// x64: table-based SEH. PlatformGuardedCall itself is in guard_x64.S: a
// small frame whose unwind information names PlatformGuardHandler as its
// exception handler (UNW_FLAG_EHANDLER), with the RVA of its recovery code
// as handler data. The kernel's dispatcher finds the guard's frame by
// virtually unwinding from the fault, which works because every function in
// the image keeps its .pdata/.xdata (x64 is built with unwind tables).
//
// Our handler accepts every exception and calls RtlUnwindEx with the guard's
// frame as target, the recovery code as target IP and the exception code as
// return value. RtlUnwindEx runs the termination handlers of the frames in
// between, then restores the guard's context at the call site (its stack
// pointer, the non-volatile registers as they were there) with rip at the
// recovery code and rax holding the exception code.

namespace {

// The dispatcher context handed to language handlers on x64.
struct GuardDispatcherContext {
    ULONG64 ControlPc;
    ULONG64 ImageBase;
    PVOID FunctionEntry;
    ULONG64 EstablisherFrame;
    ULONG64 TargetIp;
    PCONTEXT ContextRecord;
    PVOID LanguageHandler;
    PVOID HandlerData;
    PVOID HistoryTable;
    ULONG ScopeIndex;
    ULONG Fill0;
};

}  // namespace

extern "C" DECLSPEC_IMPORT VOID NTAPI RtlUnwindEx(PVOID TargetFrame, PVOID TargetIp,
                                                 PEXCEPTION_RECORD ExceptionRecord, PVOID ReturnValue,
                                                 PCONTEXT ContextRecord, PVOID HistoryTable);

extern "C" __attribute__((used)) EXCEPTION_DISPOSITION PlatformGuardHandler(PEXCEPTION_RECORD ExceptionRecord,
                                                                            PVOID EstablisherFrame,
                                                                            PCONTEXT ContextRecord,
                                                                            PVOID DispatcherContext) {
    UNREFERENCED_PARAMETER(ContextRecord);
    if (ExceptionRecord->ExceptionFlags & GuardUnwindFlags) return ExceptionContinueSearch;

    auto *Dispatch = static_cast<GuardDispatcherContext *>(DispatcherContext);
    // Handler data: one 32-bit RVA, of the guard's recovery code.
    const ULONG RecoveryRva = *static_cast<const ULONG *>(Dispatch->HandlerData);
    PVOID Recovery = reinterpret_cast<PVOID>(Dispatch->ImageBase + RecoveryRva);

    RtlUnwindEx(EstablisherFrame, Recovery, ExceptionRecord,
                reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(static_cast<ULONG>(ExceptionRecord->ExceptionCode))),
                Dispatch->ContextRecord, Dispatch->HistoryTable);
    // RtlUnwindEx does not come back when it succeeds.
    return ExceptionContinueSearch;
}

#else
#error "PlatformGuardedCall: unsupported architecture"
#endif
