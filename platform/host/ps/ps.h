// The process manager's private contract, shared by ps/, se/ and ex/: the
// thread and process objects, the client id table and the lock that guards
// the machine's processes.
//
// Locking. Ps().lock guards everything below that is not immutable after
// creation. While it is held the object manager's lock may be taken (to
// reference an object found in the client id table), the clock read and a
// complaint made, all of which take no other lock; the dispatcher lock is
// never taken under it: an ending thread or process is signalled after it
// is released. Nothing takes Ps().lock while holding another lock.
#pragma once

#include "ke/dispatcher.h"

#include <hk/hk.h>

#include <map>
#include <memory>
#include <vector>

namespace hk::detail {

struct HostProcess;

struct HostThread {
    DISPATCHER_HEADER Header;  // first: PKTHREAD and PETHREAD point here
    HANDLE id = nullptr;
    HostProcess *process = nullptr;  // set at birth; the thread holds a reference to it
    bool system_thread = false;      // made by PsCreateSystemThread
    bool simulated = false;          // a thread of the machine model, run only through hk::AsThread
    std::atomic<KPRIORITY> priority{8};  // what PsCreateSystemThread gives a thread
    LONG base_increment = 0;
    // The thread's own; only the host thread running as it touches them.
    int attach_depth = 0;
    PRKPROCESS attached_process = nullptr;
    // Under Ps().lock.
    bool running = true;
    NTSTATUS exit_status = STATUS_PENDING;
    int64_t create_time = 0;
    int64_t exit_time = 0;
    int64_t kernel_time = 0;
    int64_t user_time = 0;
    std::map<THREADINFOCLASS, NTSTATUS> query_failures;
    bool run_as = false;  // a host thread runs as it (hk::AsThread)
};

// What a primary token answers; shared by its process and the token objects
// opened on it, so that a failure injected later reaches open handles too.
// Under Ps().lock.
struct TokenState {
    std::vector<uint8_t> user_sid;
    std::vector<uint8_t> integrity_sid;
    TOKEN_STATISTICS statistics{};
    bool virtualization_enabled = false;
    bool elevated = false;
    TOKEN_ELEVATION_TYPE elevation_type = TokenElevationTypeDefault;
    NTSTATUS open_status = STATUS_SUCCESS;
    std::map<TOKEN_INFORMATION_CLASS, NTSTATUS> query_failures;
};

// A simulated process's user address space: pages in the host's address
// space holding its PEB and process parameters.
class ProcessMemory {
public:
    ProcessMemory() = default;
    ProcessMemory(const ProcessMemory &) = delete;
    ProcessMemory &operator=(const ProcessMemory &) = delete;
    ~ProcessMemory();
    // Lays the PEB out as the spec says; false when the host has no memory.
    bool Build(const hk::ProcessSpec &spec);
    PPEB Peb() const { return peb_; }
    // The process ended: its address space goes, so every read faults.
    void Tear();

private:
    void *base_ = nullptr;
    size_t size_ = 0;
    PPEB peb_ = nullptr;
};

struct HostProcess {
    DISPATCHER_HEADER Header;  // first: PEPROCESS and PKPROCESS point here
    // Immutable after creation.
    ULONG_PTR id = 0;
    ULONG_PTR parent_id = 0;
    int64_t create_time = 0;
    std::u16string image_file_name;  // ProcessImageFileName
    std::u16string list_name;        // the process list's ImageName
    ULONG session_id = 0;
    KPRIORITY base_priority = 8;
    std::shared_ptr<TokenState> token;
    ProcessMemory memory;
    // Under Ps().lock.
    bool running = true;
    NTSTATUS exit_status = STATUS_PENDING;
    int64_t exit_time = 0;
    std::vector<uint8_t> security_descriptor;
    NTSTATUS security_query_status = STATUS_SUCCESS;
    std::map<PROCESSINFOCLASS, NTSTATUS> query_failures;
    std::vector<HostThread *> threads;  // thread objects alive, in creation order
    int64_t gone_kernel_time = 0;       // of threads whose objects are gone
    int64_t gone_user_time = 0;

    // The object's own bytes. A Windows process object is a few kilobytes
    // and keeps the process's short name (15 characters, ANSI) inside, where
    // drivers look for it by searching the object for "System" from their
    // DriverEntry, which runs in System; such a search reads well beyond the
    // name. The host's object is as large as any such search reads, with
    // the name where recent x64 kernels keep it.
    static constexpr size_t kObjectBytes = 12288;
    static constexpr size_t kShortNameOffset = 0x5a8;
    static constexpr size_t kShortNameChars = 15;
    unsigned char object_bytes[kObjectBytes] = {};
    void SetShortName(const std::u16string &name) {
        for (size_t i = 0; i < kShortNameChars; ++i)
            object_bytes[kShortNameOffset + i] = i < name.size() ? (unsigned char)(name[i] & 0x7F) : 0;
    }
};

struct ClientIdEntry {
    void *object = nullptr;
    bool process = false;
};

struct PsState {
    std::mutex lock;
    // Client ids: every process and thread object alive, by id.
    std::map<ULONG_PTR, ClientIdEntry> cids;
    ULONG_PTR next_id = 8;
    HostProcess *idle = nullptr;
    HostProcess *system = nullptr;
    std::vector<HostProcess *> active;  // running processes, in creation order (idle and System first)
    std::function<void(int)> list_hook;
    int list_queries = 0;
    std::map<SYSTEM_INFORMATION_CLASS, NTSTATUS> system_failures;
    uint64_t boot_time_bias = 0;
};
PsState &Ps();

// The System process and the idle process, which never end.
HostProcess *SystemProcess();
HostProcess *IdleProcess();

// Looks a client id up (the low two bits do not count, as on Windows) and
// references the process or thread object that holds it, if that is still
// alive. Null when there is none.
HostProcess *ReferenceProcessById(ULONG_PTR id);
HostThread *ReferenceThreadById(ULONG_PTR id);

// A referenced process object from a handle (or the current-process
// pseudo-handle), or null with the status ObReferenceObjectByHandle gave.
HostProcess *ReferenceProcessByHandle(HANDLE handle, NTSTATUS *status);

// The process the calling thread belongs to, and the one whose address
// space it is attached to (the same unless KeStackAttachProcess moved it).
HostProcess *CurrentOwnProcess();

// Text of a SID (S-1-...) as its bytes; empty when the text is not a SID.
std::vector<uint8_t> SidFromText(const std::string &text);
// A self-relative descriptor, checked; empty when not valid.
bool ValidSelfRelativeDescriptor(const std::vector<uint8_t> &descriptor);
// The descriptor a process gets when the spec gives none.
std::vector<uint8_t> DefaultProcessDescriptor(const std::vector<uint8_t> &user_sid);

// Tokens (se/token.cpp).
std::shared_ptr<TokenState> MakeTokenState(const hk::TokenSpec &spec);

}  // namespace hk::detail
