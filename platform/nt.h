// The one header through which library code reaches the kernel. On Windows it
// is the DDK (with platform/windows/ filling what mingw-w64's headers lack);
// on the host it is hostkernel's declaration of the same API.
#pragma once

#if defined(_WIN32)
#include "platform/windows/ntwin.h"
#else
#include <hk/ntkernel.h>
#endif

// Exports: undecorated C names. The Windows image takes its export list from
// texprt.def; the host image marks them visible.
#if defined(_WIN32)
#define TEXPRT_API
#else
#define TEXPRT_API __attribute__((visibility("default")))
#endif
#define TEXPRT_EXPORT extern "C" TEXPRT_API

// Structured exception guard: runs Routine(Context) and reports whether it
// ran to its end. When it raised an exception (an access violation reading
// a buffer that faults, a fault inside a system routine), the guard returns
// FALSE with the exception code in *ExceptionCode, and the routine's work is
// abandoned. Real SEH on Windows, a fault-catching guard on the host.
typedef VOID NTAPI PLATFORM_GUARDED_ROUTINE(PVOID Context);
extern "C" BOOLEAN NTAPI PlatformGuardedCall(PLATFORM_GUARDED_ROUTINE *Routine, PVOID Context,
                                             NTSTATUS *ExceptionCode);

// wcschr over the library's 16-bit text, whatever wchar_t is on the build host.
static inline const WCHAR *PlatformWcschr(const WCHAR *Text, WCHAR Character) {
    for (;; ++Text) {
        if (*Text == Character) return Text;
        if (*Text == 0) return nullptr;
    }
}

// Layout contracts are checked for the primary, 32-bit target.
#if defined(_WIN32) && !defined(_WIN64)
#define TEXPRT_ASSERT_LAYOUT32(condition) static_assert(condition, #condition)
#else
#define TEXPRT_ASSERT_LAYOUT32(condition) static_assert(true, "")
#endif

static inline SIZE_T PlatformWcslen(const WCHAR *Text) {
    SIZE_T Count = 0;
    while (Text[Count] != 0) ++Count;
    return Count;
}

#define ARRAYSIZE_OF(Array) (sizeof(Array) / sizeof((Array)[0]))

// The verifier's view of the library's contracts: each lock's rank in the
// lock order, and each export's maximum IRQL, checked at entry. The host's
// verifier enforces both; the kernel image leaves them to Driver Verifier
// and to static analysis of the _IRQL_requires_max_ annotations.
#if defined(_WIN32)
static inline VOID PlatformRankLock(PKSPIN_LOCK, ULONG, const char *) {}
static inline VOID PlatformRankLock(PFAST_MUTEX, ULONG, const char *) {}
static inline VOID PlatformRankLock(PERESOURCE, ULONG, const char *) {}
static inline VOID PlatformCheckExportIrql(KIRQL, const char *) {}
#else
static inline VOID PlatformRankLock(PKSPIN_LOCK Lock, ULONG Rank, const char *Name) {
    HkVerifierRankLock(Lock, HkLockSpinLock, Rank, Name);
}
static inline VOID PlatformRankLock(PFAST_MUTEX Lock, ULONG Rank, const char *Name) {
    HkVerifierRankLock(Lock, HkLockFastMutex, Rank, Name);
}
static inline VOID PlatformRankLock(PERESOURCE Lock, ULONG Rank, const char *Name) {
    HkVerifierRankLock(Lock, HkLockResource, Rank, Name);
}
static inline VOID PlatformCheckExportIrql(KIRQL MaximumIrql, const char *Export) {
    HkVerifierCheckExportIrql(MaximumIrql, Export);
}
#endif

// Lock-free reads and writes of one aligned word (the policy masks): plain
// accesses in the kernel image, where they are single instructions; marked
// atomic on the host so that ThreadSanitizer knows the race is meant.
static inline ULONG PlatformReadWord(const volatile ULONG *Word) {
#if defined(_WIN32)
    return *Word;
#else
    return __atomic_load_n(Word, __ATOMIC_RELAXED);
#endif
}
static inline VOID PlatformWriteWord(volatile ULONG *Word, ULONG Value) {
#if defined(_WIN32)
    *Word = Value;
#else
    __atomic_store_n(Word, Value, __ATOMIC_RELAXED);
#endif
}
// The same for one byte of a word that its writers change as a whole (the
// low byte of the app-blocking policy flags).
static inline UCHAR PlatformReadByte(const volatile UCHAR *Byte) {
#if defined(_WIN32)
    return *Byte;
#else
    return __atomic_load_n(Byte, __ATOMIC_RELAXED);
#endif
}
