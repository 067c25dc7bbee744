// PlatformGuardedCall for the x64 texprt.sys; the handler and the reasoning
// are in guard.cpp. Written here because its unwind information must name a
// handler and carry handler data, which only the assembler lets us spell.
//
//   BOOLEAN PlatformGuardedCall(Routine [rcx], Context [rdx], ExceptionCode [r8])
//
// Frame, from the stack pointer after the prologue (= the establisher frame
// the dispatcher hands to PlatformGuardHandler):
//   0x00..0x1f  home space for Routine's register arguments
//   0x20        ExceptionCode, kept for the recovery path
//   0x28        our return address
// 0x28 bytes keep rsp 16-byte aligned at the call, as the ABI requires.
#if defined(__x86_64__)

        .text
        .p2align 4
        .globl  PlatformGuardedCall
        .def    PlatformGuardedCall; .scl 2; .type 32; .endef
        .seh_proc PlatformGuardedCall
PlatformGuardedCall:
        subq    $0x28, %rsp
        .seh_stackalloc 0x28
        .seh_endprologue
        // Exceptions that reach this frame go to PlatformGuardHandler
        // (dispatch only: nothing to do when a frame is unwound through).
        // Its data is the RVA of the recovery code below.
        .seh_handler PlatformGuardHandler, @except
        .seh_handlerdata
        .rva    .Lrecover
        .text

        movq    %r8, 0x20(%rsp)
        movq    %rcx, %rax
        movq    %rdx, %rcx
        callq   *%rax
        // Not an epilogue instruction: the return address of the call must
        // not look like one to the unwinder.
        movl    $1, %eax
        addq    $0x28, %rsp
        retq

        // RtlUnwindEx resumes here with rsp as after the prologue, the
        // non-volatile registers as they were at the call, and eax the
        // exception code.
.Lrecover:
        movq    0x20(%rsp), %rcx
        movl    %eax, (%rcx)
        xorl    %eax, %eax
        addq    $0x28, %rsp
        retq
        .seh_endproc

#endif
