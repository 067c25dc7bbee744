// Shared internals of hostkernel: the object and handle model, the state each
// host thread carries as a kernel thread, and the verifier's hooks. Not seen
// by the library.
#pragma once

#include <hk/ntkernel.h>

#include <cstdint>
#include <functional>
#include <string>

namespace hk::detail {

// ------------------------------------------------------------ verifier

// Records a verifier complaint (Driver Verifier's bug check, in spirit). When
// the verifier is fatal (the default for tests that don't ask otherwise is
// not fatal) the process aborts with the message.
void Complain(const std::string &message);

// Records a complaint when the current IRQL is above `max_irql`.
void CheckIrql(KIRQL max_irql, const char *routine);

// The lock-order check, for the acquire and release routines of ranked
// locks (rank 0: not ranked, nothing to do). Acquiring checks the lock
// against the ranked locks this thread holds and then records it; a
// try-acquire records without the check, as it cannot wait. Released
// forgets it again.
void LockAcquiring(const void *lock, ULONG rank, const char *name, const char *routine);
void LockAcquired(const void *lock, ULONG rank, const char *name);
void LockReleased(const void *lock, ULONG rank);
// The rank and name given to a spin lock (which has no room of its own).
ULONG SpinLockRank(const void *lock, const char **name);
// Forgets every ranked spin lock, when the image that owns them goes.
void ForgetSpinLockRanks();

// ------------------------------------------------------------ pool

// Tracked allocation, as ExAllocatePoolWithTag does it; also used by the
// kernel's own routines that allocate on a caller's behalf
// (RtlAnsiStringToUnicodeString). Honours failure injection.
void *PoolAllocate(POOL_TYPE type, size_t size, ULONG tag);
void PoolFree(void *p, ULONG tag, const char *routine);

// ------------------------------------------------------------ threads

struct HostThread;  // the KTHREAD behind a host thread, see ps/thread.cpp

// Per host thread kernel state. Threads that hostkernel did not create (the
// test's main thread) get one on first use and act as a thread of the System
// process at PASSIVE_LEVEL.
struct ThreadState {
    KIRQL irql = PASSIVE_LEVEL;
    int kernel_apc_disable = 0;  // KeEnterCriticalRegion depth
    HostThread *thread = nullptr;
};
ThreadState &CurrentThreadState();

// ------------------------------------------------------------ objects and handles

enum class ObjectKind { Thread, Process, Token, Key, File, SymbolicLink, Directory, Event, Device, Driver };
const char *ObjectKindName(ObjectKind kind);

// Registers a kernel object with one reference. `destroy` runs when the last
// reference goes.
void ObjectCreated(void *object, ObjectKind kind, std::function<void(void *)> destroy);
// Adds or drops a reference; returns the new count. Unknown objects are a
// verifier complaint.
long ObjectReference(void *object);
long ObjectDereference(void *object);
// Takes a reference only if the object is still alive (its last reference
// not yet gone); no complaint when it is not, as ObReferenceObjectSafe.
bool ObjectTryReference(void *object);
bool ObjectKnown(void *object, ObjectKind *kind = nullptr);

// Opens a handle to `object` (takes a reference). `on_close` runs when the
// handle is closed, before its reference is dropped.
HANDLE HandleCreate(void *object, ObjectKind kind, ACCESS_MASK access, std::function<void()> on_close = {});
// Looks a handle up without taking a reference. Returns null and sets
// *status to STATUS_INVALID_HANDLE or STATUS_OBJECT_TYPE_MISMATCH.
void *HandleLookup(HANDLE handle, ObjectKind kind, NTSTATUS *status);
size_t OpenHandleCount();

// ------------------------------------------------------------ clock

// Current system time in 100 ns units since 1601, from the manual or real clock.
int64_t NowSystemTime();

// ------------------------------------------------------------ strings

// The tag of the strings the run-time library allocates for its callers,
// which RtlFreeUnicodeString frees.
constexpr ULONG kStringTag = ULONG('S') | ULONG('t') << 8 | ULONG('r') << 16 | ULONG('g') << 24;

std::u16string ToU16(const std::string &utf8);
std::string ToUtf8(const std::u16string &text);
std::u16string FromUnicodeString(PCUNICODE_STRING s);
// Case-insensitive comparison of object names, with the kernel's upcase table.
bool NamesEqualInsensitive(const std::u16string &a, const std::u16string &b);
std::u16string Upcase(const std::u16string &text);
char16_t UpcaseChar(char16_t c);
char16_t AnsiToUnicode(unsigned char c);

// ------------------------------------------------------------ tracing

size_t EtwRegistrationCount();

// Makes a routine resolvable through MmGetSystemRoutineAddress.
void RegisterSystemRoutine(const std::string &name, void *address);

// ------------------------------------------------------------ reset hooks

// Each component registers how to return to a fresh machine; hk::Reset runs them.
void RegisterReset(std::function<void()> reset);

}  // namespace hk::detail
