// ZwQuerySystemInformation: the process list and the time of day.
//
// The process list is Windows' SYSTEM_PROCESS_INFORMATION chain: one record
// per running process, in the order the processes were created (the idle
// process first, then System), each followed by its running threads'
// SYSTEM_THREAD_INFORMATION records and then by its image name, the last
// component of its image file name ("System" for System, nothing for the
// idle process), terminated; NextEntryOffset leads to the next record,
// 8-byte aligned, and is 0 in the last. Processes that have ended are not
// listed, even while their objects live. A buffer too small for the whole
// list gets STATUS_INFO_LENGTH_MISMATCH and, in ReturnLength, the length the
// list needs now; the list may have grown by the time the caller asks again.
//
// The time of day takes any length up to its structure's and answers that
// many bytes of it; a longer buffer is STATUS_INFO_LENGTH_MISMATCH.
#include "ps/ps.h"

#include <cstring>

using namespace hk::detail;

namespace {

constexpr ULONG kThreadWaiting = 5;

ULONG_PTR Align8(ULONG_PTR n) { return (n + 7) & ~ULONG_PTR(7); }

struct Record {
    SYSTEM_PROCESS_INFORMATION process{};
    std::vector<SYSTEM_THREAD_INFORMATION> threads;
    std::u16string name;
    size_t Size() const {
        return Align8(sizeof process + threads.size() * sizeof(SYSTEM_THREAD_INFORMATION) +
                      (name.empty() ? 0 : (name.size() + 1) * sizeof(char16_t)));
    }
};

std::vector<Record> ProcessList() {
    PsState &ps = Ps();
    std::lock_guard guard(ps.lock);
    std::vector<Record> records;
    for (HostProcess *process : ps.active) {
        Record record;
        SYSTEM_PROCESS_INFORMATION &p = record.process;
        int64_t kernel = process->gone_kernel_time, user = process->gone_user_time;
        for (HostThread *thread : process->threads) {
            kernel += thread->kernel_time;
            user += thread->user_time;
            if (!thread->running) continue;
            SYSTEM_THREAD_INFORMATION t{};
            t.KernelTime.QuadPart = thread->kernel_time;
            t.UserTime.QuadPart = thread->user_time;
            t.CreateTime.QuadPart = thread->create_time;
            t.ClientId.UniqueProcess = reinterpret_cast<HANDLE>(process->id);
            t.ClientId.UniqueThread = thread->id;
            t.Priority = thread->priority.load();
            t.BasePriority = 8;
            t.ThreadState = kThreadWaiting;
            t.WaitReason = UserRequest;
            record.threads.push_back(t);
        }
        p.NumberOfThreads = ULONG(record.threads.size());
        p.NumberOfThreadsHighWatermark = p.NumberOfThreads;
        p.CreateTime.QuadPart = process->create_time;
        p.UserTime.QuadPart = user;
        p.KernelTime.QuadPart = kernel;
        p.BasePriority = process->base_priority;
        p.UniqueProcessId = reinterpret_cast<HANDLE>(process->id);
        p.InheritedFromUniqueProcessId = reinterpret_cast<HANDLE>(process->parent_id);
        p.SessionId = process->session_id;
        p.UniqueProcessKey = process->id;
        record.name = process->list_name;
        records.push_back(std::move(record));
    }
    return records;
}

NTSTATUS QueryProcessList(PVOID buffer, ULONG length, PULONG return_length) {
    PsState &ps = Ps();
    std::function<void(int)> hook;
    int call;
    {
        std::lock_guard guard(ps.lock);
        hook = ps.list_hook;
        call = ++ps.list_queries;
    }
    if (hook) hook(call);
    const std::vector<Record> records = ProcessList();
    size_t needed = 0;
    for (const Record &record : records) needed += record.Size();
    if (return_length != nullptr) *return_length = ULONG(needed);
    if (length < needed) return STATUS_INFO_LENGTH_MISMATCH;
    if (buffer == nullptr) return STATUS_ACCESS_VIOLATION;
    auto *out = static_cast<uint8_t *>(buffer);
    for (size_t i = 0; i < records.size(); ++i) {
        const Record &record = records[i];
        SYSTEM_PROCESS_INFORMATION p = record.process;
        p.NextEntryOffset = i + 1 < records.size() ? ULONG(record.Size()) : 0;
        uint8_t *threads = out + sizeof p;
        auto *name = reinterpret_cast<char16_t *>(threads + record.threads.size() * sizeof(SYSTEM_THREAD_INFORMATION));
        if (!record.name.empty()) {
            p.ImageName.Length = USHORT(record.name.size() * sizeof(char16_t));
            p.ImageName.MaximumLength = USHORT(p.ImageName.Length + sizeof(char16_t));
            p.ImageName.Buffer = name;
            std::memcpy(name, record.name.c_str(), p.ImageName.MaximumLength);
        }
        std::memcpy(out, &p, sizeof p);
        if (!record.threads.empty())
            std::memcpy(threads, record.threads.data(), record.threads.size() * sizeof(SYSTEM_THREAD_INFORMATION));
        out += record.Size();
    }
    return STATUS_SUCCESS;
}

NTSTATUS QueryTimeOfDay(PVOID buffer, ULONG length, PULONG return_length) {
    if (length > sizeof(SYSTEM_TIMEOFDAY_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
    SYSTEM_TIMEOFDAY_INFORMATION information{};
    {
        KeState &ke = Ke();
        std::lock_guard clock(ke.clock_lock);
        information.BootTime.QuadPart = ke.boot_time;
        information.CurrentTime.QuadPart = NowSystemTimeLocked(ke);
        information.TimeZoneBias.QuadPart = ke.bias;
    }
    {
        std::lock_guard guard(Ps().lock);
        information.BootTimeBias = Ps().boot_time_bias;
    }
    if (length > 0 && buffer == nullptr) return STATUS_ACCESS_VIOLATION;
    if (length > 0) std::memcpy(buffer, &information, length);
    if (return_length != nullptr) *return_length = length;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS NTAPI ZwQuerySystemInformation(SYSTEM_INFORMATION_CLASS SystemInformationClass, PVOID SystemInformation,
                                        ULONG SystemInformationLength, PULONG ReturnLength) {
    CheckIrql(PASSIVE_LEVEL, "ZwQuerySystemInformation");
    switch (SystemInformationClass) {
    case SystemProcessInformation:
    case SystemTimeOfDayInformation:
        break;
    case SystemBasicInformation:
    case SystemProcessorInformation:
    case SystemPerformanceInformation:
    case SystemProcessorPerformanceInformation:
    case SystemHandleInformation:
    case SystemPagefileInformation:
    case SystemInterruptInformation:
    case SystemExceptionInformation:
    case SystemRegistryQuotaInformation:
    case SystemLookasideInformation:
        Complainf("ZwQuerySystemInformation: information class %d is not modelled", int(SystemInformationClass));
        return STATUS_NOT_IMPLEMENTED;
    default:
        return STATUS_INVALID_INFO_CLASS;
    }
    {
        PsState &ps = Ps();
        std::lock_guard guard(ps.lock);
        auto failure = ps.system_failures.find(SystemInformationClass);
        if (failure != ps.system_failures.end()) return failure->second;
    }
    if (SystemInformationClass == SystemProcessInformation)
        return QueryProcessList(SystemInformation, SystemInformationLength, ReturnLength);
    return QueryTimeOfDay(SystemInformation, SystemInformationLength, ReturnLength);
}
