// Kernel threads. Every host thread that enters the kernel is given a
// thread object on first need: threads made by PsCreateSystemThread at
// birth, others (the test's main thread, hostkernel's own workers) lazily.
// A thread object is a dispatcher object, signalled when the thread ends,
// and a referenced object: the running thread holds one reference of its
// own, dropped as it ends.
//
// PsTerminateSystemThread must not return into the caller. It throws a type
// of hostkernel's own, caught by the thread's trampoline; library frames in
// between are compiled without exceptions but carry unwind tables, so the
// unwind passes through them.
#include "ke/dispatcher.h"

#include <cstdlib>
#include <system_error>

namespace hk::detail {

struct HostThread {
    DISPATCHER_HEADER Header;  // first: PKTHREAD and PETHREAD point here
    HANDLE id = nullptr;
    bool system_thread = false;  // made by PsCreateSystemThread
    KPRIORITY priority = 8;      // what PsCreateSystemThread gives a thread
    LONG base_increment = 0;
    NTSTATUS exit_status = STATUS_PENDING;
    int attach_depth = 0;
    PRKPROCESS attached_process = nullptr;
};

void ThreadTerminated(HostThread *thread) {
    {
        KeState &ke = Ke();
        std::lock_guard guard(ke.lock);
        thread->Header.SignalState = 1;
        ObjectSignalled(&thread->Header);
    }
    ObjectDereference(thread);
}

}  // namespace hk::detail

using namespace hk::detail;

namespace {

constexpr ULONG_PTR kSystemProcessId = 4;

struct HostProcess {
    DISPATCHER_HEADER Header;
    HANDLE id;
};

// Object types are compared by address only; a name helps in a debugger.
struct ObjectTypeTag {
    const char *name;
};
ObjectTypeTag thread_type_tag{"Thread"}, process_type_tag{"Process"};
POBJECT_TYPE thread_type = reinterpret_cast<POBJECT_TYPE>(&thread_type_tag);
POBJECT_TYPE process_type = reinterpret_cast<POBJECT_TYPE>(&process_type_tag);

struct ThreadTermination {
    NTSTATUS status;
};

HostThread *NewThread(bool system_thread) {
    // Thread ids come from the same space as process ids, after System's 4.
    static std::atomic<ULONG_PTR> next_id{8};
    auto *thread = new HostThread;
    InitializeHeader(&thread->Header, kThreadObject, 0);
    thread->id = reinterpret_cast<HANDLE>(next_id.fetch_add(4));
    thread->system_thread = system_thread;
    ObjectCreated(thread, ObjectKind::Thread, [](void *object) { delete static_cast<HostThread *>(object); });
    return thread;
}

// Ends the thread object of a thread hostkernel did not create when the
// host thread ends.
struct ForeignThread {
    HostThread *thread = nullptr;
    ~ForeignThread() {
        if (thread == nullptr) return;
        CurrentThreadState().thread = nullptr;
        ThreadTerminated(thread);
    }
};
thread_local ForeignThread foreign_thread;

HostThread *Current() { return reinterpret_cast<HostThread *>(KeGetCurrentThread()); }

HostThread *FromKThread(PKTHREAD thread, const char *routine) {
    ObjectKind kind;
    if (thread == nullptr || !ObjectKnown(thread, &kind) || kind != ObjectKind::Thread) {
        Complainf("%s: %p is not a thread object", routine, static_cast<void *>(thread));
        return nullptr;
    }
    return reinterpret_cast<HostThread *>(thread);
}

void SystemThreadMain(HostThread *thread, PKSTART_ROUTINE routine, PVOID context) {
    ThreadState &state = CurrentThreadState();
    state.thread = thread;
    state.irql = PASSIVE_LEVEL;
    NTSTATUS status = STATUS_SUCCESS;
    try {
        routine(context);
    } catch (const ThreadTermination &termination) {
        status = termination.status;
    }
    if (state.irql != PASSIVE_LEVEL || state.kernel_apc_disable != 0)
        Complainf("system thread %p ended at IRQL %u with critical region depth %d", static_cast<void *>(thread),
                  unsigned(state.irql), state.kernel_apc_disable);
    state.thread = nullptr;
    {
        std::lock_guard guard(Ke().lock);
        thread->exit_status = status;
    }
    ThreadTerminated(thread);
}

HostProcess &SystemProcess() {
    static HostProcess *process = [] {
        static HostProcess system{};
        InitializeHeader(&system.Header, kProcessObject, 0);
        system.id = reinterpret_cast<HANDLE>(kSystemProcessId);
        // System never ends: its one reference is never dropped.
        ObjectCreated(&system, ObjectKind::Process, [](void *) {});
        return &system;
    }();
    return *process;
}

}  // namespace

extern "C" {
POBJECT_TYPE *PsThreadType = &thread_type;
POBJECT_TYPE *PsProcessType = &process_type;
}

PKTHREAD NTAPI KeGetCurrentThread(VOID) {
    ThreadState &state = CurrentThreadState();
    if (state.thread == nullptr) {
        state.thread = NewThread(false);
        foreign_thread.thread = state.thread;
    }
    return reinterpret_cast<PKTHREAD>(state.thread);
}

NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                    HANDLE ProcessHandle, PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                                    PVOID StartContext) {
    CheckIrql(PASSIVE_LEVEL, "PsCreateSystemThread");
    if (ThreadHandle == nullptr || StartRoutine == nullptr) {
        Complain("PsCreateSystemThread: ThreadHandle and StartRoutine are required");
        return STATUS_INVALID_PARAMETER;
    }
    HostThread *thread = NewThread(true);  // its one reference is the running thread's
    const HANDLE handle = HandleCreate(thread, ObjectKind::Thread, DesiredAccess);
    try {
        std::thread(SystemThreadMain, thread, StartRoutine, StartContext).detach();
    } catch (const std::system_error &) {
        ZwClose(handle);
        ObjectDereference(thread);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *ThreadHandle = handle;
    if (ClientId != nullptr) {
        ClientId->UniqueProcess = reinterpret_cast<HANDLE>(kSystemProcessId);
        ClientId->UniqueThread = thread->id;
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus) {
    const ThreadState &state = CurrentThreadState();
    if (state.thread == nullptr || !state.thread->system_thread) {
        Complain("PsTerminateSystemThread called on a thread that PsCreateSystemThread did not create");
        fprintf(stderr, "PsTerminateSystemThread: not a system thread; there is no way to end it\n");
        abort();
    }
    CheckIrql(PASSIVE_LEVEL, "PsTerminateSystemThread");
    throw ThreadTermination{ExitStatus};
}

HANDLE NTAPI PsGetCurrentThreadId(VOID) { return Current()->id; }

HANDLE NTAPI PsGetCurrentProcessId(VOID) { return reinterpret_cast<HANDLE>(kSystemProcessId); }

PEPROCESS NTAPI PsGetCurrentProcess(VOID) { return reinterpret_cast<PEPROCESS>(&SystemProcess()); }

LONG NTAPI KeSetBasePriorityThread(PKTHREAD Thread, LONG Increment) {
    HostThread *thread = FromKThread(Thread, "KeSetBasePriorityThread");
    if (thread == nullptr) return 0;
    std::lock_guard guard(Ke().lock);
    const LONG previous = thread->base_increment;
    thread->base_increment = Increment;
    return previous;
}

KPRIORITY NTAPI KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority) {
    HostThread *thread = FromKThread(Thread, "KeSetPriorityThread");
    if (thread == nullptr) return 0;
    if (Priority < 1 || Priority > 31) Complainf("KeSetPriorityThread: priority %ld is out of range", long(Priority));
    std::lock_guard guard(Ke().lock);
    const KPRIORITY previous = thread->priority;
    thread->priority = Priority;
    return previous;
}

// There is one process on the host, so attaching changes nothing but the
// bookkeeping that pairs attach with detach.
VOID NTAPI KeStackAttachProcess(PRKPROCESS Process, PRKAPC_STATE ApcState) {
    CheckIrql(APC_LEVEL, "KeStackAttachProcess");
    HostThread *thread = Current();
    ApcState->Process = thread->attached_process;
    thread->attached_process = Process;
    ++thread->attach_depth;
}

VOID NTAPI KeUnstackDetachProcess(PRKAPC_STATE ApcState) {
    CheckIrql(APC_LEVEL, "KeUnstackDetachProcess");
    HostThread *thread = Current();
    if (thread->attach_depth == 0) {
        Complain("KeUnstackDetachProcess without a matching KeStackAttachProcess");
        return;
    }
    --thread->attach_depth;
    thread->attached_process = ApcState->Process;
}
