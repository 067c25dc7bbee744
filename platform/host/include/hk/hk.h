// The machine model of hostkernel: what tests, benchmarks and texprt-sim use
// to set up and inspect the simulated Windows machine. The library never
// includes this header.
#pragma once

#include <hk/message_table.h>
#include <hk/ntkernel.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace hk {

// ------------------------------------------------------------ whole machine

// Returns the machine to its boot state: empty registry, manual clock at its
// start, no injected failures, empty event log and trace, no complaints.
// Pool allocations still outstanding are kept (and reported) so that a leak
// is not hidden by a reset.
void Reset();

// ------------------------------------------------------------ verifier

struct PoolAllocation {
    const void *address;
    size_t size;
    uint32_t tag;
    int pool_type;
};

size_t OutstandingPoolBytes();
size_t OutstandingPoolCount();
std::vector<PoolAllocation> OutstandingAllocations();
// One line per tag: "Tag 'Tcfr': 2 allocations, 48 bytes". Empty when clean.
std::string LeakReport();
// The tag as four printable characters, as pool tools show it.
std::string TagText(uint32_t tag);
constexpr uint32_t MakeTag(const char (&text)[5]) {
    return uint32_t(uint8_t(text[0])) | uint32_t(uint8_t(text[1])) << 8 | uint32_t(uint8_t(text[2])) << 16 |
           uint32_t(uint8_t(text[3])) << 24;
}

// Pool allocations made since boot (successful or injected failures).
uint64_t PoolAllocationCalls();
// Fails the n-th pool allocation from now (1 = the next one); 0 disarms.
void FailNthAllocation(uint64_t n);
// Fails every allocation with this tag until cleared.
void FailAllocationsWithTag(uint32_t tag);
void ClearAllocationFailures();
// The pool's size: an allocation that would take the outstanding total past
// it is refused (512 MiB after a reset).
void SetPoolLimit(size_t bytes);
// Number of allocations that injection has failed since boot.
uint64_t InjectedFailures();

std::vector<std::string> VerifierComplaints();
void ClearVerifierComplaints();
// When fatal, a complaint aborts the process at once with its message.
void SetVerifierFatal(bool fatal);

// Makes KeSaveFloatingPointState fail with this status (STATUS_SUCCESS: never).
void FailFloatingPointSave(NTSTATUS status);

// ------------------------------------------------------------ clock

// The clock starts manual, at 2026-01-01 00:00:00 UTC. A manual clock moves
// only through AdvanceClock, which fires every timer that falls due and runs
// its DPC before it returns, in due-time order.
void UseManualClock(int64_t system_time = 0);
// A real clock follows the host's monotonic clock from the current value;
// timers fire on a timer thread.
void UseRealClock();
bool ClockIsManual();
void AdvanceClock(int64_t ticks);  // 100 ns units
int64_t SystemTime();
// Bias of local time against UTC, in 100 ns units (UTC = local + bias, as
// Windows keeps it): a machine at UTC+2 has a bias of -2 hours.
void SetTimeZoneBias(int64_t bias);
constexpr int64_t kTicksPerSecond = 10'000'000;
// 2026-01-01 00:00:00 UTC.
constexpr int64_t kDefaultBootTime = 134116992000000000LL;

// Runs DPCs queued with KeInsertQueueDpc (manual clock; the real clock runs
// them on its timer thread).
void RunPendingDpcs();
// Waits until the system work queue (ExQueueWorkItem) has run everything
// queued so far.
void DrainSystemWorkQueue();
// Threads blocked in a kernel wait right now (KeWaitFor*, KeRemoveQueue,
// KeDelayExecutionThread): lets a test know that another thread has reached
// its wait before it moves the clock or signals.
size_t WaitingThreads();

// ------------------------------------------------------------ registry

// Paths are full registry paths such as
// \REGISTRY\MACHINE\SYSTEM\CurrentControlSet\Services\tmon\Parameters; names
// are case-insensitive, as in Windows.
struct RegistryValue {
    uint32_t type = REG_NONE;
    std::vector<uint8_t> data;
};
void RegistryCreateKey(const std::string &path);  // with its parents
bool RegistryDeleteKey(const std::string &path);   // with its subkeys
bool RegistryKeyExists(const std::string &path);
void RegistrySetValue(const std::string &path, const std::string &name, const RegistryValue &value);
void RegistrySetDword(const std::string &path, const std::string &name, uint32_t value);
void RegistrySetQword(const std::string &path, const std::string &name, uint64_t value);
// REG_SZ, stored with its terminating NUL as Windows stores it.
void RegistrySetString(const std::string &path, const std::string &name, const std::string &utf8,
                       uint32_t type = REG_SZ);
bool RegistryDeleteValue(const std::string &path, const std::string &name);
std::optional<RegistryValue> RegistryGetValue(const std::string &path, const std::string &name);
std::vector<std::string> RegistrySubkeys(const std::string &path);
std::vector<std::string> RegistryValueNames(const std::string &path);

// ------------------------------------------------------------ system routines

// Hides (or shows again) a routine from MmGetSystemRoutineAddress, so that a
// test can take the path where an older system lacks it.
void HideSystemRoutine(const std::string &name, bool hidden = true);
// The build number RtlGetVersion reports.
void SetBuildNumber(uint32_t build);

// ------------------------------------------------------------ driver objects

// A driver object such as a monitor's, named like \Driver\tmon. Owned by the
// machine until Reset.
PDRIVER_OBJECT CreateDriverObject(const std::string &name);

// ------------------------------------------------------------ event log

using MessageTableEntry = ::HkMessageTableEntry;

struct EventLogEntry {
    uint32_t id = 0;                      // ErrorCode
    int32_t final_status = 0;
    uint16_t number_of_strings = 0;       // as the packet claims
    uint16_t string_offset = 0;
    uint16_t dump_data_size = 0;
    std::vector<std::u16string> strings;  // strings found in the packet
    std::vector<uint8_t> packet;          // the packet as written
    std::string source;                   // driver name, %1
    std::string text;                     // rendered as the event viewer shows it (UTF-8)
};

// The message table of a loaded image, keyed by the source's driver name
// ("" is the fallback for any source).
void RegisterMessageTable(const std::string &source, const MessageTableEntry *entries, size_t count);
std::vector<EventLogEntry> EventLog();
void ClearEventLog();
// Renders a message id with insertion strings the way the event viewer
// does: %2 is the first string, %1 the source; %n is a line break, %%, %r,
// %t, %b, %. and %! are the message compiler's escapes, %0 ends the text.
// A missing insertion string is shown as its own %N.
std::string RenderMessage(uint32_t id, const std::vector<std::u16string> &strings, const std::string &source);
// Messages in the registered tables.
std::optional<std::u16string> MessageText(uint32_t id);

// ------------------------------------------------------------ tracing

// Lines written through EtwWriteString by registered providers.
std::vector<std::string> TraceLines();
void ClearTrace();
// Providers registered with EtwRegister and not yet unregistered.
size_t TraceRegistrations();

// ------------------------------------------------------------ library images

// Loads a library image the way the kernel loads an export driver: a fresh
// copy of its static storage, and its message table registered under
// `source`. Loading does not call DllInitialize: the caller does, as the
// kernel would.
class Image {
public:
    Image() = default;
    Image(const Image &) = delete;
    Image &operator=(const Image &) = delete;
    Image(Image &&other) noexcept;
    Image &operator=(Image &&other) noexcept;
    ~Image();

    // Returns an empty string on success, else what went wrong.
    std::string Load(const std::string &path, const std::string &source = "texprt");
    void Unload();
    bool Loaded() const { return handle_ != nullptr; }
    void *Symbol(const char *name) const;
    template <typename Fn>
    Fn *Function(const char *name) const {
        return reinterpret_cast<Fn *>(Symbol(name));
    }

private:
    void *handle_ = nullptr;
};

// ------------------------------------------------------------ volumes, files and the object namespace

// A volume is a device object in the object namespace (\Device\HarddiskVolume2)
// whose files live in a host directory the test owns. Reset removes volumes
// and links but leaves the host directories and their files alone.
struct VolumeOptions {
    uint32_t device_type = FILE_DEVICE_DISK;  // as FileFsDeviceInformation reports it
    uint32_t characteristics = 0;             // FILE_REMOVABLE_MEDIA, FILE_REMOTE_DEVICE, ...
    std::string file_system = "NTFS";         // as FileFsAttributeInformation names it
    bool disk_full = false;                   // see SetDiskFull
};
void AddVolume(const std::string &device_name, const std::string &host_directory, const VolumeOptions &options = {});
// While set, a write or size change that would grow a file fails with
// STATUS_DISK_FULL; writes within the current size still succeed.
void SetDiskFull(const std::string &device_name, bool full);

// A symbolic link in the object namespace, e.g. \??\C: -> \Device\HarddiskVolume2
// or \SystemRoot -> \Device\HarddiskVolume2\Windows. \?? is the same
// directory as \GLOBAL?? (the system process's device map). Replaces an
// existing link of that name; missing object directories are created.
void CreateSymbolicLink(const std::string &link_name, const std::string &target);
bool DeleteSymbolicLink(const std::string &link_name);

// Convenience access to files through the same namespace, for tests and the
// scenario runner. Paths are NT paths (\??\C:\x, \SystemRoot\x,
// \Device\HarddiskVolume2\x) or DOS paths (C:\x, mapped through \??\C:),
// looked up case-insensitively. These bypass share access, as a tool
// working on the disk from outside would.
// Creates the parent directories as needed; false if the path is not on a volume.
bool WriteFile(const std::string &path, const std::string &bytes);
std::optional<std::string> ReadFile(const std::string &path);
// Removes a file, or a directory with everything in it.
bool DeleteFile(const std::string &path);
bool FileExists(const std::string &path);
// Where a path lives on the host ("" when it is not on a volume); existing
// components are spelt as on the host, missing ones as given.
std::string HostPathOf(const std::string &path);

// ------------------------------------------------------------ processes and threads
//
// The machine's processes, as the NT API shows them (ZwOpenProcess,
// ZwQueryInformationProcess, ZwQuerySystemInformation, tokens, the PEB read
// while attached). After Reset the idle process (0) and System (4) exist.
// Process and thread ids come from one space, multiples of 4; an id stays
// taken while any object holding it lives, even after its process or thread
// has ended, as on Windows, and the machine never hands it out again until
// then. A test may name an id itself once it is free.
//
// Every simulated process's memory lives in the host's one address space.
// What was made unmapped faults when read; anything else stays readable
// without attaching, which Windows would not allow and the host cannot catch.

// What a process's primary token answers.
struct TokenSpec {
    std::string user_sid = "S-1-5-18";                 // TokenUser, as S-1-... text
    // TokenStatistics, reported as given: by default a primary token of the
    // system logon session (AuthenticationId 0x3e7).
    TOKEN_STATISTICS statistics{{0x3e8, 0}, {0x3e7, 0}, {}, TokenPrimary, SecurityAnonymous, 0, 0, 0, 0, {0x3e9, 0}};
    bool virtualization_enabled = false;               // TokenVirtualizationEnabled
    std::string integrity_level_sid = "S-1-16-16384";  // TokenIntegrityLevel (system)
    bool elevated = true;                              // TokenElevation
    TOKEN_ELEVATION_TYPE elevation_type = TokenElevationTypeDefault;  // TokenElevationType
    // Injected failures: ZwOpenProcessTokenEx fails with open_status unless
    // it is STATUS_SUCCESS; ZwQueryInformationToken with the status given
    // for its class.
    NTSTATUS open_status = STATUS_SUCCESS;
    std::map<TOKEN_INFORMATION_CLASS, NTSTATUS> query_failures;
};

struct ThreadSpec {
    uint32_t id = 0;                     // 0: the machine picks a free id
    // Unset: the process's creation time for the threads a process is made
    // with, the clock for a thread added later.
    std::optional<int64_t> create_time;
    int64_t kernel_time = 0;             // ThreadTimes and the process's totals, 100 ns units
    int64_t user_time = 0;
    std::map<THREADINFOCLASS, NTSTATUS> query_failures;  // ZwQueryInformationThread fails so
};

// What a process's environment block looks like.
enum class PebKind {
    Present,       // a PEB with its process parameters
    None,          // no PEB at all: PebBaseAddress is null, as for System
    NoParameters,  // a PEB whose ProcessParameters is null
};

// Parts of the PEB's memory that are not mapped: reading them faults.
struct UnmappedMemory {
    bool parameters = false;    // the RTL_USER_PROCESS_PARAMETERS block
    bool image_path = false;    // the ImagePathName text
    bool command_line = false;  // the CommandLine text
};

struct ProcessSpec {
    uint32_t id = 0;                     // 0: the machine picks a free id
    uint32_t parent_id = 4;              // InheritedFromUniqueProcessId
    std::optional<int64_t> create_time;  // unset: the clock now; 0: none, as System reports
    // ProcessImageFileName: a device path such as
    // \Device\HarddiskVolume2\Windows\System32\notepad.exe. The process
    // list's ImageName is its last component.
    std::string image_file_name;
    TokenSpec token;
    // Self-relative, returned by ZwQuerySecurityObject. Empty: owner
    // S-1-5-18, group S-1-5-18 and an empty DACL.
    std::vector<uint8_t> security_descriptor;
    NTSTATUS security_query_status = STATUS_SUCCESS;  // ZwQuerySecurityObject fails with it when set
    PebKind peb = PebKind::Present;
    std::string image_path_name;  // ProcessParameters->ImagePathName (usually a Win32 path)
    std::string command_line;     // ProcessParameters->CommandLine
    // A normalised block holds pointers; one that is not holds each
    // string's offset from the block in its Buffer, as a new process's
    // block does until the loader normalises it.
    bool normalized = true;
    UnmappedMemory unmapped;
    uint32_t session_id = 1;
    std::vector<ThreadSpec> threads = {ThreadSpec{}};  // one thread unless told
    std::map<PROCESSINFOCLASS, NTSTATUS> query_failures;  // ZwQueryInformationProcess fails so
};

constexpr uint32_t kIdleProcessId = 0;
constexpr uint32_t kSystemProcessId = 4;

// Creates a running process and returns its id. Throws
// std::invalid_argument when the spec cannot be: an id that is taken or not
// a multiple of 4, a SID that is not S-1-... text, a security descriptor
// that is not a valid self-relative one.
uint32_t CreateProcess(const ProcessSpec &spec);
// Adds a running thread to a running process; returns its id.
uint32_t CreateThread(uint32_t process_id, const ThreadSpec &spec = {});
// Ends a thread. When it was its process's last running thread, the process
// exits with the same status, as on Windows. False if no such running thread.
bool ExitThread(uint32_t process_id, uint32_t thread_id, NTSTATUS exit_status);
// Ends a process: its running threads end with the status, its address
// space goes (reading its PEB faults from then on), its object is
// signalled, and it leaves the process list. Its id stays taken while its
// object is referenced. False if no such running process.
bool ExitProcess(uint32_t process_id, NTSTATUS exit_status);
// Processes that are running, idle and System included, in id order.
std::vector<uint32_t> RunningProcesses();
// True while a process or thread object holds the id.
bool IdInUse(uint32_t id);
// The PEB's address in the process's memory (null when it has none).
PPEB ProcessPeb(uint32_t process_id);
// The process's object, for tests that compare what PsGetCurrentProcess
// or ObReferenceObjectByHandle give (null when the id is not held by a
// process).
PEPROCESS ProcessObject(uint32_t process_id);

// Failure injection after creation; STATUS_SUCCESS clears.
void FailProcessQuery(uint32_t process_id, PROCESSINFOCLASS information_class, NTSTATUS status);
void FailThreadQuery(uint32_t process_id, uint32_t thread_id, THREADINFOCLASS information_class, NTSTATUS status);
void FailTokenOpen(uint32_t process_id, NTSTATUS status);
void FailTokenQuery(uint32_t process_id, TOKEN_INFORMATION_CLASS information_class, NTSTATUS status);
void FailSecurityQuery(uint32_t process_id, NTSTATUS status);
void FailSystemQuery(SYSTEM_INFORMATION_CLASS information_class, NTSTATUS status);

// Runs at the start of every SystemProcessInformation query, before the
// answer is built: a test makes the list grow between a caller's size query
// and its real query (the call number counts from 1). Reset clears it.
void OnProcessListQuery(std::function<void(int call)> hook);
// SYSTEM_TIMEOFDAY_INFORMATION.BootTimeBias (0 after Reset).
void SetBootTimeBias(uint64_t bias);

// Runs the calling host thread as thread `thread_id` of process
// `process_id` until the guard goes: PsGetCurrentProcessId,
// PsGetCurrentThreadId, PsGetCurrentProcess and KeGetCurrentThread answer
// for it. Without a guard a host thread is a thread of System. A thread id
// of 0 means the process's first running thread. Throws
// std::invalid_argument for a thread that is not running, or that another
// host thread is running as. Guards nest.
class AsThread {
public:
    AsThread(uint32_t process_id, uint32_t thread_id = 0);
    ~AsThread();
    AsThread(const AsThread &) = delete;
    AsThread &operator=(const AsThread &) = delete;

private:
    void *previous_;
    void *thread_;
};

template <typename Fn>
void RunAs(uint32_t process_id, uint32_t thread_id, Fn &&fn) {
    AsThread as(process_id, thread_id);
    fn();
}

// ------------------------------------------------------------ text helpers

std::u16string Utf16(const std::string &utf8);
std::string Utf8(const std::u16string &text);
std::string StatusName(NTSTATUS status);  // "STATUS_DATA_ERROR", or "" when unknown

}  // namespace hk
