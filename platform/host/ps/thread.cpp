// Kernel threads. Every host thread that enters the kernel is given a
// thread object on first need: threads made by PsCreateSystemThread at
// birth, others (the test's main thread, hostkernel's own workers) lazily.
// A thread object is a dispatcher object, signalled when the thread ends,
// and a referenced object: the running thread holds one reference of its
// own, dropped as it ends. These are System's threads; the threads of the
// machine model's other processes are made in ps/process.cpp, and a host
// thread acts as one of them only inside hk::AsThread.
//
// PsTerminateSystemThread must not return into the caller. It throws a type
// of hostkernel's own, caught by the thread's trampoline; library frames in
// between are compiled without exceptions but carry unwind tables, so the
// unwind passes through them.
#include "ps/ps.h"

#include <cstdlib>
#include <system_error>

namespace hk::detail {

void ThreadTerminated(HostThread *thread) {
    {
        std::lock_guard guard(Ps().lock);
        if (thread->running) {
            thread->running = false;
            thread->exit_time = NowSystemTime();
        }
    }
    {
        KeState &ke = Ke();
        std::lock_guard guard(ke.lock);
        thread->Header.SignalState = 1;
        ObjectSignalled(&thread->Header);
    }
    ObjectDereference(thread);
}

HostProcess *CurrentOwnProcess() {
    return reinterpret_cast<HostThread *>(KeGetCurrentThread())->process;
}

}  // namespace hk::detail

using namespace hk::detail;

namespace {

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

// A kernel thread of the System process: one made by PsCreateSystemThread,
// or a host thread that entered the kernel (the test's main thread,
// hostkernel's own workers). Its id comes from the machine's client ids.
HostThread *NewThread(bool system_thread) {
    auto *thread = new HostThread;
    InitializeHeader(&thread->Header, kThreadObject, 0);
    thread->system_thread = system_thread;
    thread->process = SystemProcess();
    thread->create_time = NowSystemTime();
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    while (ps.cids.count(ps.next_id)) ps.next_id += 4;
    const ULONG_PTR id = ps.next_id;
    ps.next_id += 4;
    thread->id = reinterpret_cast<HANDLE>(id);
    ps.cids[id] = ClientIdEntry{thread, false};
    thread->process->threads.push_back(thread);
    ObjectReference(thread->process);
    ObjectCreated(thread, ObjectKind::Thread, [](void *object) {
        auto *t = static_cast<HostThread *>(object);
        HostProcess *process = t->process;
        {
            std::lock_guard guard(Ps().lock);
            Ps().cids.erase(reinterpret_cast<ULONG_PTR>(t->id));
            std::erase(process->threads, t);
            process->gone_kernel_time += t->kernel_time;
            process->gone_user_time += t->user_time;
        }
        delete t;
        ObjectDereference(process);
    });
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
        std::lock_guard guard(Ps().lock);
        thread->exit_status = status;
    }
    ThreadTerminated(thread);
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
        ClientId->UniqueProcess = reinterpret_cast<HANDLE>(thread->process->id);
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

// The thread's own process, even while it is attached to another: the
// process id comes from the thread's client id, as on Windows.
HANDLE NTAPI PsGetCurrentProcessId(VOID) { return reinterpret_cast<HANDLE>(Current()->process->id); }

// The process whose address space the thread is in: the one it is attached
// to, if any, as IoGetCurrentProcess answers on Windows.
PEPROCESS NTAPI PsGetCurrentProcess(VOID) {
    HostThread *thread = Current();
    return reinterpret_cast<PEPROCESS>(thread->attached_process != nullptr
                                           ? static_cast<void *>(thread->attached_process)
                                           : static_cast<void *>(thread->process));
}

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

// Attaching moves the thread into the process's address space: from then
// until the matching detach PsGetCurrentProcess answers that process (while
// PsGetCurrentProcessId still answers the thread's own), and the caller may
// read the process's PEB through its pointers, inside the fault guard.
// Every simulated process lives in the host's one address space, so what
// attaching really changes is which process the kernel says is current;
// memory the machine made unmapped faults whether attached or not, and
// reading another process's memory without attaching is not caught.
VOID NTAPI KeStackAttachProcess(PRKPROCESS Process, PRKAPC_STATE ApcState) {
    CheckIrql(APC_LEVEL, "KeStackAttachProcess");
    ObjectKind kind;
    if (Process == nullptr || !ObjectKnown(Process, &kind) || kind != ObjectKind::Process) {
        Complainf("KeStackAttachProcess: %p is not a process object", static_cast<void *>(Process));
        return;
    }
    if (ApcState == nullptr) {
        Complain("KeStackAttachProcess: ApcState is null");
        return;
    }
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
