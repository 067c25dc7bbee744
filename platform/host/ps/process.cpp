// The machine's processes: the client id table, the process objects with
// their threads and their user address space, hk::'s process API, and the
// process manager's routines (ZwOpenProcess, ZwQueryInformationProcess,
// ZwOpenThread, ZwQueryInformationThread).
//
// What Windows does and the host keeps:
// - process and thread ids come from one table, multiples of 4, and the low
//   two bits of an id are ignored when it is looked up; an id stays taken
//   while the object holding it lives, after its process or thread ended;
// - an ended process can still be opened by id while its object lives, and
//   still answers queries (its exit status, its exit time, its image name),
//   but it has left the process list and its address space is gone;
// - the idle process has no client id (opening id 0 fails with
//   STATUS_INVALID_CID); System reports no creation time, no PEB and no
//   image file name;
// - a thread object references its process, so a process object lives at
//   least as long as any of its thread objects.
#include "ps/ps.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>

namespace hk::detail {
namespace {

constexpr ULONG_PTR kSystemId = 4;

size_t PageSize() { return size_t(sysconf(_SC_PAGESIZE)); }
size_t PagesFor(size_t bytes) { return (bytes + PageSize() - 1) / PageSize(); }

std::u16string LastComponent(const std::u16string &path) {
    const size_t slash = path.rfind(u'\\');
    return slash == std::u16string::npos ? path : path.substr(slash + 1);
}

void RegisterCid(PsState &ps, ULONG_PTR id, void *object, bool process) {
    ps.cids[id] = ClientIdEntry{object, process};
}

ULONG_PTR AllocateIdLocked(PsState &ps) {
    while (ps.cids.count(ps.next_id) != 0) ps.next_id += 4;
    const ULONG_PTR id = ps.next_id;
    ps.next_id += 4;
    return id;
}

void DestroyProcess(void *object) {
    auto *process = static_cast<HostProcess *>(object);
    {
        std::lock_guard guard(Ps().lock);
        Ps().cids.erase(process->id);
    }
    delete process;
}

void DestroySimulatedThread(void *object) {
    auto *thread = static_cast<HostThread *>(object);
    HostProcess *process = thread->process;
    {
        std::lock_guard guard(Ps().lock);
        if (thread->id != nullptr) Ps().cids.erase(reinterpret_cast<ULONG_PTR>(thread->id));
        std::erase(process->threads, thread);
        process->gone_kernel_time += thread->kernel_time;
        process->gone_user_time += thread->user_time;
    }
    delete thread;
    ObjectDereference(process);
}

// A thread of the machine model, not yet known to anyone. Lock held; the
// thread takes a reference to its process.
HostThread *NewSimulatedThreadLocked(PsState &ps, HostProcess *process, ULONG_PTR id, const hk::ThreadSpec &spec,
                                     int64_t default_create_time) {
    auto *thread = new HostThread;
    InitializeHeader(&thread->Header, kThreadObject, 0);
    thread->id = reinterpret_cast<HANDLE>(id);
    thread->process = process;
    thread->simulated = true;
    thread->create_time = spec.create_time.value_or(default_create_time);
    thread->kernel_time = spec.kernel_time;
    thread->user_time = spec.user_time;
    thread->query_failures = spec.query_failures;
    process->threads.push_back(thread);
    if (id != 0) RegisterCid(ps, id, thread, false);
    ObjectReference(process);
    ObjectCreated(thread, ObjectKind::Thread, DestroySimulatedThread);
    return thread;
}

HostProcess *NewProcessObject(ULONG_PTR id) {
    auto *process = new HostProcess;
    InitializeHeader(&process->Header, kProcessObject, 0);
    process->id = id;
    return process;
}

// The idle process and System as the machine boots them.
void BootProcess(HostProcess *process) {
    const bool system = process->id == kSystemId;
    process->parent_id = 0;
    process->create_time = 0;
    process->list_name = system ? u"System" : u"";
    process->SetShortName(process->list_name);
    process->session_id = 0;
    process->base_priority = system ? 8 : 0;
    process->token = MakeTokenState(hk::TokenSpec{});
    process->security_descriptor = DefaultProcessDescriptor(process->token->user_sid);
    process->security_query_status = STATUS_SUCCESS;
    process->query_failures.clear();
}

// What ending threads and processes leaves to do once the lock is gone:
// signal their objects and drop the references their running held.
struct Endings {
    std::vector<HostThread *> threads;
    std::vector<HostProcess *> processes;

    void Finish() {
        for (HostProcess *process : processes) process->memory.Tear();
        {
            KeState &ke = Ke();
            std::lock_guard guard(ke.lock);
            for (HostThread *thread : threads) {
                thread->Header.SignalState = 1;
                ObjectSignalled(&thread->Header);
            }
            for (HostProcess *process : processes) {
                process->Header.SignalState = 1;
                ObjectSignalled(&process->Header);
            }
        }
        for (HostThread *thread : threads) ObjectDereference(thread);
        for (HostProcess *process : processes) ObjectDereference(process);
    }
};

void EndThreadLocked(HostThread *thread, NTSTATUS status, int64_t now, Endings *endings) {
    thread->running = false;
    thread->exit_status = status;
    thread->exit_time = now;
    endings->threads.push_back(thread);
}

void EndProcessLocked(PsState &ps, HostProcess *process, NTSTATUS status, int64_t now, Endings *endings) {
    process->running = false;
    process->exit_status = status;
    process->exit_time = now;
    std::erase(ps.active, process);
    for (HostThread *thread : process->threads)
        if (thread->running) EndThreadLocked(thread, status, now, endings);
    endings->processes.push_back(process);
}

HostProcess *FindProcessLocked(PsState &ps, ULONG_PTR id) {
    auto it = ps.cids.find(id & ~ULONG_PTR(3));
    if (it == ps.cids.end() || !it->second.process) return nullptr;
    return static_cast<HostProcess *>(it->second.object);
}

HostThread *FindThreadLocked(PsState &ps, ULONG_PTR id) {
    auto it = ps.cids.find(id & ~ULONG_PTR(3));
    if (it == ps.cids.end() || it->second.process) return nullptr;
    return static_cast<HostThread *>(it->second.object);
}

HostProcess *RunningProcessLocked(PsState &ps, uint32_t id) {
    if (id == 0) return ps.idle;
    HostProcess *process = FindProcessLocked(ps, id);
    return process != nullptr && process->running && process->id == id ? process : nullptr;
}

[[noreturn]] void Refuse(const std::string &what) { throw std::invalid_argument("hk::" + what); }

void CheckId(uint32_t id, const char *what) {
    if (id % 4 != 0) Refuse(std::string(what) + ": id " + std::to_string(id) + " is not a multiple of 4");
}

}  // namespace

PsState &Ps() {
    static PsState *state = [] {
        auto *ps = new PsState;
        ps->idle = NewProcessObject(0);
        ps->system = NewProcessObject(kSystemId);
        BootProcess(ps->idle);
        BootProcess(ps->system);
        // Neither ever ends: their one reference is never dropped.
        ObjectCreated(ps->idle, ObjectKind::Process, [](void *) {});
        ObjectCreated(ps->system, ObjectKind::Process, [](void *) {});
        RegisterCid(*ps, kSystemId, ps->system, true);
        ps->active = {ps->idle, ps->system};
        // The idle thread; like its process it has no client id of its own.
        NewSimulatedThreadLocked(*ps, ps->idle, 0, hk::ThreadSpec{}, 0);
        RegisterReset([] {
            PsState &p = Ps();
            Endings endings;
            {
                std::lock_guard guard(p.lock);
                const int64_t now = NowSystemTime();
                const std::vector<HostProcess *> active = p.active;
                for (HostProcess *process : active)
                    if (process != p.idle && process != p.system) EndProcessLocked(p, process, STATUS_SUCCESS, now, &endings);
                BootProcess(p.idle);
                BootProcess(p.system);
                p.next_id = 8;
                p.list_hook = nullptr;
                p.list_queries = 0;
                p.system_failures.clear();
                p.boot_time_bias = 0;
            }
            endings.Finish();
        });
        return ps;
    }();
    return *state;
}

HostProcess *SystemProcess() { return Ps().system; }
HostProcess *IdleProcess() { return Ps().idle; }

HostProcess *ReferenceProcessById(ULONG_PTR id) {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    HostProcess *process = FindProcessLocked(ps, id);
    return process != nullptr && ObjectTryReference(process) ? process : nullptr;
}

HostThread *ReferenceThreadById(ULONG_PTR id) {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    HostThread *thread = FindThreadLocked(ps, id);
    return thread != nullptr && ObjectTryReference(thread) ? thread : nullptr;
}

HostProcess *ReferenceProcessByHandle(HANDLE handle, NTSTATUS *status) {
    PVOID object = nullptr;
    *status = ObReferenceObjectByHandle(handle, 0, *PsProcessType, KernelMode, &object, nullptr);
    return NT_SUCCESS(*status) ? static_cast<HostProcess *>(object) : nullptr;
}

// ------------------------------------------------------------ the address space

ProcessMemory::~ProcessMemory() {
    if (base_ != nullptr) munmap(base_, size_);
}

bool ProcessMemory::Build(const hk::ProcessSpec &spec) {
    if (spec.peb == hk::PebKind::None) return true;
    const std::u16string image = ToU16(spec.image_path_name);
    const std::u16string command = ToU16(spec.command_line);
    const size_t page = PageSize();
    // The PEB, the parameter block, then each string's text on pages of its
    // own, so that each can be made to fault by itself.
    const size_t image_pages = PagesFor((image.size() + 1) * sizeof(char16_t));
    const size_t command_pages = PagesFor((command.size() + 1) * sizeof(char16_t));
    const size_t parameter_pages = PagesFor(sizeof(RTL_USER_PROCESS_PARAMETERS));
    const bool parameters = spec.peb == hk::PebKind::Present;
    size_ = page * (PagesFor(sizeof(PEB)) + (parameters ? parameter_pages + image_pages + command_pages : 0));
    void *base = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) return false;
    base_ = base;
    auto *bytes = static_cast<uint8_t *>(base_);
    peb_ = reinterpret_cast<PPEB>(bytes);
    peb_->SessionId = spec.session_id;
    if (!parameters) return true;

    uint8_t *block = bytes + page * PagesFor(sizeof(PEB));
    auto *image_text = reinterpret_cast<char16_t *>(block + page * parameter_pages);
    auto *command_text = reinterpret_cast<char16_t *>(block + page * (parameter_pages + image_pages));
    std::memcpy(image_text, image.c_str(), (image.size() + 1) * sizeof(char16_t));
    std::memcpy(command_text, command.c_str(), (command.size() + 1) * sizeof(char16_t));
    auto *parameters_block = reinterpret_cast<PRTL_USER_PROCESS_PARAMETERS>(block);
    const ULONG block_size = ULONG(reinterpret_cast<uint8_t *>(command_text + command.size() + 1) - block);
    parameters_block->MaximumLength = block_size;
    parameters_block->Length = block_size;
    parameters_block->Flags = spec.normalized ? RTL_USER_PROC_PARAMS_NORMALIZED : 0;
    // Before normalisation a string's Buffer is its offset in the block.
    auto place = [&](UNICODE_STRING *s, char16_t *text, size_t length) {
        s->Length = USHORT(length * sizeof(char16_t));
        s->MaximumLength = USHORT(s->Length + sizeof(char16_t));
        s->Buffer = spec.normalized ? text
                                    : reinterpret_cast<PWCH>(ULONG_PTR(reinterpret_cast<uint8_t *>(text) - block));
    };
    place(&parameters_block->ImagePathName, image_text, image.size());
    place(&parameters_block->CommandLine, command_text, command.size());
    peb_->ProcessParameters = parameters_block;

    if (spec.unmapped.parameters) mprotect(block, page * parameter_pages, PROT_NONE);
    if (spec.unmapped.image_path) mprotect(image_text, page * image_pages, PROT_NONE);
    if (spec.unmapped.command_line) mprotect(command_text, page * command_pages, PROT_NONE);
    return true;
}

void ProcessMemory::Tear() {
    if (base_ != nullptr) mprotect(base_, size_, PROT_NONE);
}

}  // namespace hk::detail

using namespace hk::detail;

// ------------------------------------------------------------ hk::

namespace hk {

uint32_t CreateProcess(const ProcessSpec &spec) {
    CheckId(spec.id, "CreateProcess");
    for (const ThreadSpec &thread : spec.threads) CheckId(thread.id, "CreateProcess: a thread");
    if (spec.image_file_name.size() > 32766 || spec.image_path_name.size() > 32766 || spec.command_line.size() > 32766)
        Refuse("CreateProcess: a string longer than a UNICODE_STRING holds");
    std::shared_ptr<TokenState> token = MakeTokenState(spec.token);  // throws on a SID that is not one
    std::vector<uint8_t> descriptor = spec.security_descriptor;
    if (descriptor.empty())
        descriptor = DefaultProcessDescriptor(token->user_sid);
    else if (!ValidSelfRelativeDescriptor(descriptor))
        Refuse("CreateProcess: the security descriptor is not a valid self-relative one");

    auto *process = NewProcessObject(0);
    process->parent_id = spec.parent_id;
    process->create_time = spec.create_time.value_or(NowSystemTime());
    process->image_file_name = ToU16(spec.image_file_name);
    process->list_name = LastComponent(process->image_file_name);
    process->SetShortName(process->list_name);
    process->session_id = spec.session_id;
    process->token = std::move(token);
    process->security_descriptor = std::move(descriptor);
    process->security_query_status = spec.security_query_status;
    process->query_failures = spec.query_failures;
    if (!process->memory.Build(spec)) {
        delete process;
        Refuse("CreateProcess: the host has no memory for the process's PEB");
    }

    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    // Explicit ids first, so that a picked id never takes one named here.
    std::vector<ULONG_PTR> named;
    if (spec.id != 0) named.push_back(spec.id);
    for (const ThreadSpec &thread : spec.threads)
        if (thread.id != 0) named.push_back(thread.id);
    for (size_t i = 0; i < named.size(); ++i) {
        if (ps.cids.count(named[i]) != 0 || named[i] == kSystemId ||
            std::count(named.begin(), named.end(), named[i]) > 1) {
            delete process;
            Refuse("CreateProcess: id " + std::to_string(named[i]) + " is taken");
        }
    }
    auto pick = [&](uint32_t id) {
        if (id != 0) return ULONG_PTR(id);
        while (std::count(named.begin(), named.end(), ps.next_id) != 0 || ps.cids.count(ps.next_id) != 0)
            ps.next_id += 4;
        return AllocateIdLocked(ps);
    };
    process->id = pick(spec.id);
    RegisterCid(ps, process->id, process, true);
    ObjectCreated(process, ObjectKind::Process, DestroyProcess);  // the reference its running holds
    for (const ThreadSpec &thread : spec.threads)
        NewSimulatedThreadLocked(ps, process, pick(thread.id), thread, process->create_time);
    ps.active.push_back(process);
    return uint32_t(process->id);
}

uint32_t CreateThread(uint32_t process_id, const ThreadSpec &spec) {
    CheckId(spec.id, "CreateThread");
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    HostProcess *process = RunningProcessLocked(ps, process_id);
    if (process == nullptr || process == ps.idle)
        Refuse("CreateThread: no running process " + std::to_string(process_id));
    if (spec.id != 0 && ps.cids.count(spec.id) != 0) Refuse("CreateThread: id " + std::to_string(spec.id) + " is taken");
    const ULONG_PTR id = spec.id != 0 ? ULONG_PTR(spec.id) : AllocateIdLocked(ps);
    NewSimulatedThreadLocked(ps, process, id, spec, NowSystemTime());
    return uint32_t(id);
}

bool ExitThread(uint32_t process_id, uint32_t thread_id, NTSTATUS exit_status) {
    PsState &ps = Ps();
    Endings endings;
    {
        std::lock_guard guard(ps.lock);
        HostProcess *process = RunningProcessLocked(ps, process_id);
        if (process == nullptr || process == ps.idle) return false;
        auto it = std::find_if(process->threads.begin(), process->threads.end(), [&](HostThread *t) {
            return t->simulated && t->running && reinterpret_cast<ULONG_PTR>(t->id) == thread_id;
        });
        if (it == process->threads.end()) return false;
        const int64_t now = NowSystemTime();
        EndThreadLocked(*it, exit_status, now, &endings);
        // The last thread to end takes its process with it.
        const bool others = std::any_of(process->threads.begin(), process->threads.end(),
                                        [](HostThread *t) { return t->running; });
        if (!others && process != ps.system) EndProcessLocked(ps, process, exit_status, now, &endings);
    }
    endings.Finish();
    return true;
}

bool ExitProcess(uint32_t process_id, NTSTATUS exit_status) {
    PsState &ps = Ps();
    Endings endings;
    {
        std::lock_guard guard(ps.lock);
        HostProcess *process = RunningProcessLocked(ps, process_id);
        if (process == nullptr || process == ps.idle || process == ps.system) return false;
        EndProcessLocked(ps, process, exit_status, NowSystemTime(), &endings);
    }
    endings.Finish();
    return true;
}

std::vector<uint32_t> RunningProcesses() {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    std::vector<uint32_t> ids;
    for (HostProcess *process : ps.active) ids.push_back(uint32_t(process->id));
    std::sort(ids.begin(), ids.end());
    return ids;
}

bool IdInUse(uint32_t id) {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    return ps.cids.count(id) != 0;
}

PPEB ProcessPeb(uint32_t process_id) {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    HostProcess *process = process_id == 0 ? ps.idle : FindProcessLocked(ps, process_id);
    return process == nullptr ? nullptr : process->memory.Peb();
}

PEPROCESS ProcessObject(uint32_t process_id) {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    return reinterpret_cast<PEPROCESS>(process_id == 0 ? ps.idle : FindProcessLocked(ps, process_id));
}

namespace {

template <typename Key>
void SetFailure(std::map<Key, NTSTATUS> &failures, Key key, NTSTATUS status) {
    if (status == STATUS_SUCCESS)
        failures.erase(key);
    else
        failures[key] = status;
}

HostProcess *KnownProcessLocked(PsState &ps, uint32_t process_id, const char *routine) {
    HostProcess *process = process_id == 0 ? ps.idle : FindProcessLocked(ps, process_id);
    if (process == nullptr) Refuse(std::string(routine) + ": no process " + std::to_string(process_id));
    return process;
}

}  // namespace

void FailProcessQuery(uint32_t process_id, PROCESSINFOCLASS information_class, NTSTATUS status) {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    SetFailure(KnownProcessLocked(ps, process_id, "FailProcessQuery")->query_failures, information_class, status);
}

void FailThreadQuery(uint32_t process_id, uint32_t thread_id, THREADINFOCLASS information_class, NTSTATUS status) {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    HostProcess *process = KnownProcessLocked(ps, process_id, "FailThreadQuery");
    for (HostThread *thread : process->threads) {
        if (reinterpret_cast<ULONG_PTR>(thread->id) == thread_id) {
            SetFailure(thread->query_failures, information_class, status);
            return;
        }
    }
    Refuse("FailThreadQuery: process " + std::to_string(process_id) + " has no thread " + std::to_string(thread_id));
}

void FailTokenOpen(uint32_t process_id, NTSTATUS status) {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    KnownProcessLocked(ps, process_id, "FailTokenOpen")->token->open_status = status;
}

void FailTokenQuery(uint32_t process_id, TOKEN_INFORMATION_CLASS information_class, NTSTATUS status) {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    SetFailure(KnownProcessLocked(ps, process_id, "FailTokenQuery")->token->query_failures, information_class, status);
}

void FailSecurityQuery(uint32_t process_id, NTSTATUS status) {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    KnownProcessLocked(ps, process_id, "FailSecurityQuery")->security_query_status = status;
}

void FailSystemQuery(SYSTEM_INFORMATION_CLASS information_class, NTSTATUS status) {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    SetFailure(ps.system_failures, information_class, status);
}

void OnProcessListQuery(std::function<void(int call)> hook) {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    ps.list_hook = std::move(hook);
    ps.list_queries = 0;
}

void SetBootTimeBias(uint64_t bias) {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    ps.boot_time_bias = bias;
}

AsThread::AsThread(uint32_t process_id, uint32_t thread_id) : previous_(nullptr), thread_(nullptr) {
    PsState &ps = Ps();
    HostThread *thread = nullptr;
    {
        std::lock_guard guard(ps.lock);
        HostProcess *process = process_id == 0 ? ps.idle : FindProcessLocked(ps, process_id);
        if (process != nullptr && process->running) {
            for (HostThread *t : process->threads) {
                if (!t->running || !t->simulated) continue;
                if (thread_id == 0 || reinterpret_cast<ULONG_PTR>(t->id) == thread_id) {
                    thread = t;
                    break;
                }
            }
        }
        if (thread == nullptr)
            Refuse("AsThread: process " + std::to_string(process_id) + " has no running thread " +
                   std::to_string(thread_id));
        if (thread->run_as)
            Refuse("AsThread: another host thread runs as thread " +
                   std::to_string(reinterpret_cast<ULONG_PTR>(thread->id)));
        thread->run_as = true;
        ObjectReference(thread);
    }
    ThreadState &state = CurrentThreadState();
    previous_ = state.thread;
    thread_ = thread;
    state.thread = thread;
}

AsThread::~AsThread() {
    auto *thread = static_cast<HostThread *>(thread_);
    ThreadState &state = CurrentThreadState();
    if (state.thread != thread) Complain("hk::AsThread guards ended out of order");
    state.thread = static_cast<HostThread *>(previous_);
    if (thread->attach_depth != 0) {
        Complainf("thread %p ran as by hk::AsThread is still attached to a process", static_cast<void *>(thread));
        thread->attach_depth = 0;
        thread->attached_process = nullptr;
    }
    {
        std::lock_guard guard(Ps().lock);
        thread->run_as = false;
    }
    ObjectDereference(thread);
}

}  // namespace hk

// ------------------------------------------------------------ the process manager's routines

namespace {

// A handle made without OBJ_KERNEL_HANDLE goes into the current process's
// handle table; outside System that hands the handle to a user process.
void CheckKernelHandle(ULONG attributes, const char *routine) {
    if ((attributes & OBJ_KERNEL_HANDLE) == 0 && CurrentOwnProcess() != SystemProcess())
        Complainf("%s without OBJ_KERNEL_HANDLE in the context of process %lu: the handle goes to that process",
                  routine, static_cast<unsigned long>(CurrentOwnProcess()->id));
}

// The checks NtOpenProcess and NtOpenThread make on their arguments.
NTSTATUS CheckOpenArguments(PHANDLE handle, POBJECT_ATTRIBUTES attributes, PCLIENT_ID client_id,
                            const char *routine) {
    if (handle == nullptr || attributes == nullptr) {
        Complainf("%s: the handle and the object attributes are required", routine);
        return STATUS_ACCESS_VIOLATION;
    }
    // Exactly one of a name and a client id.
    if ((attributes->ObjectName != nullptr) == (client_id != nullptr)) return STATUS_INVALID_PARAMETER_MIX;
    if (client_id == nullptr) {
        Complainf("%s: opening by name is not modelled", routine);
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    CheckKernelHandle(attributes->Attributes, routine);
    return STATUS_SUCCESS;
}

ACCESS_MASK GrantedProcessAccess(ACCESS_MASK desired) {
    return (desired & MAXIMUM_ALLOWED) != 0 ? ACCESS_MASK(PROCESS_ALL_ACCESS) : desired;
}

NTSTATUS InjectedFailure(const std::map<PROCESSINFOCLASS, NTSTATUS> &failures, PROCESSINFOCLASS key) {
    auto it = failures.find(key);
    return it == failures.end() ? STATUS_SUCCESS : it->second;
}

}  // namespace

NTSTATUS NTAPI ZwOpenProcess(PHANDLE ProcessHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                             PCLIENT_ID ClientId) {
    CheckIrql(PASSIVE_LEVEL, "ZwOpenProcess");
    NTSTATUS status = CheckOpenArguments(ProcessHandle, ObjectAttributes, ClientId, "ZwOpenProcess");
    if (!NT_SUCCESS(status)) return status;
    HostProcess *process = nullptr;
    if (ClientId->UniqueThread != nullptr) {
        // By thread: the thread must belong to the process named, if one is.
        HostThread *thread = ReferenceThreadById(reinterpret_cast<ULONG_PTR>(ClientId->UniqueThread));
        if (thread == nullptr) return STATUS_INVALID_CID;
        const ULONG_PTR wanted = reinterpret_cast<ULONG_PTR>(ClientId->UniqueProcess) & ~ULONG_PTR(3);
        if (wanted == 0 || thread->process->id == wanted) {
            process = thread->process;
            ObjectReference(process);
        }
        ObjectDereference(thread);
    } else {
        process = ReferenceProcessById(reinterpret_cast<ULONG_PTR>(ClientId->UniqueProcess));
    }
    if (process == nullptr) return STATUS_INVALID_CID;
    *ProcessHandle = HandleCreate(process, ObjectKind::Process, GrantedProcessAccess(DesiredAccess));
    ObjectDereference(process);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwOpenThread(PHANDLE ThreadHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                            PCLIENT_ID ClientId) {
    CheckIrql(PASSIVE_LEVEL, "ZwOpenThread");
    NTSTATUS status = CheckOpenArguments(ThreadHandle, ObjectAttributes, ClientId, "ZwOpenThread");
    if (!NT_SUCCESS(status)) return status;
    HostThread *thread = ReferenceThreadById(reinterpret_cast<ULONG_PTR>(ClientId->UniqueThread));
    if (thread == nullptr) return STATUS_INVALID_CID;
    const ULONG_PTR wanted = reinterpret_cast<ULONG_PTR>(ClientId->UniqueProcess) & ~ULONG_PTR(3);
    if (wanted != 0 && thread->process->id != wanted) {
        ObjectDereference(thread);
        return STATUS_INVALID_CID;
    }
    const ACCESS_MASK access = (DesiredAccess & MAXIMUM_ALLOWED) != 0 ? ACCESS_MASK(THREAD_ALL_ACCESS) : DesiredAccess;
    *ThreadHandle = HandleCreate(thread, ObjectKind::Thread, access);
    ObjectDereference(thread);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwQueryInformationProcess(HANDLE ProcessHandle, PROCESSINFOCLASS ProcessInformationClass,
                                         PVOID ProcessInformation, ULONG ProcessInformationLength,
                                         PULONG ReturnLength) {
    CheckIrql(PASSIVE_LEVEL, "ZwQueryInformationProcess");
    // The fixed-size classes take exactly their structure's size, checked
    // before the handle.
    ULONG fixed = 0;
    switch (ProcessInformationClass) {
    case ProcessBasicInformation: fixed = sizeof(PROCESS_BASIC_INFORMATION); break;
    case ProcessTimes: fixed = sizeof(KERNEL_USER_TIMES); break;
    case ProcessImageFileName: break;
    default:
        if (ULONG(ProcessInformationClass) >= ULONG(MaxProcessInfoClass)) return STATUS_INVALID_INFO_CLASS;
        Complainf("ZwQueryInformationProcess: information class %d is not modelled", int(ProcessInformationClass));
        return STATUS_NOT_IMPLEMENTED;
    }
    if (fixed != 0 && ProcessInformationLength != fixed) return STATUS_INFO_LENGTH_MISMATCH;
    NTSTATUS status;
    HostProcess *process = ReferenceProcessByHandle(ProcessHandle, &status);
    if (process == nullptr) return status;
    PsState &ps = Ps();
    std::unique_lock guard(ps.lock);
    status = InjectedFailure(process->query_failures, ProcessInformationClass);
    if (!NT_SUCCESS(status)) {
        guard.unlock();
        ObjectDereference(process);
        return status;
    }
    ULONG written = fixed;
    if (fixed != 0 && ProcessInformation == nullptr) {
        status = STATUS_ACCESS_VIOLATION;
    } else if (ProcessInformationClass == ProcessBasicInformation) {
        auto *basic = static_cast<PROCESS_BASIC_INFORMATION *>(ProcessInformation);
        *basic = PROCESS_BASIC_INFORMATION{};
        basic->ExitStatus = process->exit_status;
        basic->PebBaseAddress = process->memory.Peb();
        basic->AffinityMask = 1;
        basic->BasePriority = process->base_priority;
        basic->UniqueProcessId = process->id;
        basic->InheritedFromUniqueProcessId = process->parent_id;
    } else if (ProcessInformationClass == ProcessTimes) {
        auto *times = static_cast<KERNEL_USER_TIMES *>(ProcessInformation);
        int64_t kernel = process->gone_kernel_time, user = process->gone_user_time;
        for (HostThread *thread : process->threads) {
            kernel += thread->kernel_time;
            user += thread->user_time;
        }
        times->CreateTime.QuadPart = process->create_time;
        times->ExitTime.QuadPart = process->exit_time;
        times->KernelTime.QuadPart = kernel;
        times->UserTime.QuadPart = user;
    } else {
        // A UNICODE_STRING followed by its text, terminated; the name of a
        // process with no image file (System) is empty.
        const std::u16string &name = process->image_file_name;
        const ULONG text = name.empty() ? 0 : ULONG((name.size() + 1) * sizeof(char16_t));
        written = ULONG(sizeof(UNICODE_STRING)) + text;
        if (ProcessInformationLength < written) {
            status = STATUS_INFO_LENGTH_MISMATCH;
        } else if (ProcessInformation == nullptr) {
            status = STATUS_ACCESS_VIOLATION;
        } else {
            auto *s = static_cast<UNICODE_STRING *>(ProcessInformation);
            s->Length = USHORT(name.size() * sizeof(char16_t));
            s->MaximumLength = USHORT(text);
            s->Buffer = name.empty() ? nullptr : reinterpret_cast<PWCH>(s + 1);
            if (!name.empty()) std::memcpy(s + 1, name.c_str(), text);
        }
    }
    guard.unlock();
    ObjectDereference(process);
    if (ReturnLength != nullptr && (NT_SUCCESS(status) || status == STATUS_INFO_LENGTH_MISMATCH)) *ReturnLength = written;
    return status;
}

NTSTATUS NTAPI ZwQueryInformationThread(HANDLE ThreadHandle, THREADINFOCLASS ThreadInformationClass,
                                        PVOID ThreadInformation, ULONG ThreadInformationLength,
                                        PULONG ReturnLength) {
    CheckIrql(PASSIVE_LEVEL, "ZwQueryInformationThread");
    ULONG fixed = 0;
    switch (ThreadInformationClass) {
    case ThreadBasicInformation: fixed = sizeof(THREAD_BASIC_INFORMATION); break;
    case ThreadTimes: fixed = sizeof(KERNEL_USER_TIMES); break;
    default:
        if (ULONG(ThreadInformationClass) >= ULONG(MaxThreadInfoClass)) return STATUS_INVALID_INFO_CLASS;
        Complainf("ZwQueryInformationThread: information class %d is not modelled", int(ThreadInformationClass));
        return STATUS_NOT_IMPLEMENTED;
    }
    if (ThreadInformationLength != fixed) return STATUS_INFO_LENGTH_MISMATCH;
    PVOID object = nullptr;
    NTSTATUS status = ObReferenceObjectByHandle(ThreadHandle, 0, *PsThreadType, KernelMode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    auto *thread = static_cast<HostThread *>(object);
    {
        std::lock_guard guard(Ps().lock);
        auto failure = thread->query_failures.find(ThreadInformationClass);
        if (failure != thread->query_failures.end()) {
            status = failure->second;
        } else if (ThreadInformation == nullptr) {
            status = STATUS_ACCESS_VIOLATION;
        } else if (ThreadInformationClass == ThreadBasicInformation) {
            auto *basic = static_cast<THREAD_BASIC_INFORMATION *>(ThreadInformation);
            *basic = THREAD_BASIC_INFORMATION{};
            basic->ExitStatus = thread->exit_status;
            basic->ClientId.UniqueProcess = reinterpret_cast<HANDLE>(thread->process->id);
            basic->ClientId.UniqueThread = thread->id;
            basic->AffinityMask = 1;
            basic->Priority = thread->priority.load();
            basic->BasePriority = 8;
        } else {
            auto *times = static_cast<KERNEL_USER_TIMES *>(ThreadInformation);
            times->CreateTime.QuadPart = thread->create_time;
            times->ExitTime.QuadPart = thread->exit_time;
            times->KernelTime.QuadPart = thread->kernel_time;
            times->UserTime.QuadPart = thread->user_time;
        }
    }
    ObjectDereference(thread);
    if (ReturnLength != nullptr && NT_SUCCESS(status)) *ReturnLength = fixed;
    return status;
}

NTSTATUS NTAPI PsLookupProcessByProcessId(HANDLE ProcessId, PEPROCESS *Process) {
    CheckIrql(APC_LEVEL, "PsLookupProcessByProcessId");
    HostProcess *process = ReferenceProcessById(reinterpret_cast<ULONG_PTR>(ProcessId));
    if (process == nullptr) return STATUS_INVALID_PARAMETER;
    *Process = reinterpret_cast<PEPROCESS>(process);
    return STATUS_SUCCESS;
}

HANDLE NTAPI PsGetProcessId(PEPROCESS Process) {
    return reinterpret_cast<HANDLE>(reinterpret_cast<HostProcess *>(Process)->id);
}
