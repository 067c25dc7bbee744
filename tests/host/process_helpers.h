// Shared bits of the process tests: opening processes and threads by id as
// a driver does, and reading what the queries answer.
#pragma once

#include "host_test.h"

#include <string>
#include <vector>

namespace host_test {

using texprt_test::Wide;

inline HANDLE Id(uint32_t id) { return reinterpret_cast<HANDLE>(ULONG_PTR(id)); }

inline NTSTATUS OpenProcessById(uint32_t process_id, HANDLE *handle, ULONG attributes = OBJ_KERNEL_HANDLE) {
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, nullptr, attributes, nullptr, nullptr);
    CLIENT_ID cid{Id(process_id), nullptr};
    *handle = nullptr;
    return ZwOpenProcess(handle, PROCESS_ALL_ACCESS, &oa, &cid);
}

inline NTSTATUS OpenThreadById(uint32_t process_id, uint32_t thread_id, HANDLE *handle) {
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    CLIENT_ID cid{Id(process_id), Id(thread_id)};
    *handle = nullptr;
    return ZwOpenThread(handle, THREAD_ALL_ACCESS, &oa, &cid);
}

// A process handle that closes itself.
class ProcessHandle {
public:
    explicit ProcessHandle(uint32_t process_id) { status_ = OpenProcessById(process_id, &handle_); }
    ~ProcessHandle() {
        if (handle_ != nullptr) ZwClose(handle_);
    }
    ProcessHandle(const ProcessHandle &) = delete;
    ProcessHandle &operator=(const ProcessHandle &) = delete;
    HANDLE get() const { return handle_; }
    NTSTATUS status() const { return status_; }

private:
    HANDLE handle_ = nullptr;
    NTSTATUS status_;
};

inline PROCESS_BASIC_INFORMATION BasicInformation(HANDLE process) {
    PROCESS_BASIC_INFORMATION basic{};
    ULONG length = 0;
    EXPECT_EQ(ZwQueryInformationProcess(process, ProcessBasicInformation, &basic, sizeof basic, &length),
              STATUS_SUCCESS);
    EXPECT_EQ(length, sizeof basic);
    return basic;
}

inline KERNEL_USER_TIMES ProcessTimesOf(HANDLE process) {
    KERNEL_USER_TIMES times{};
    EXPECT_EQ(ZwQueryInformationProcess(process, ProcessTimes, &times, sizeof times, nullptr), STATUS_SUCCESS);
    return times;
}

// ProcessImageFileName the way a driver asks: the length first, then the name.
inline std::string ImageFileNameOf(HANDLE process) {
    ULONG needed = 0;
    EXPECT_EQ(ZwQueryInformationProcess(process, ProcessImageFileName, nullptr, 0, &needed),
              STATUS_INFO_LENGTH_MISMATCH);
    std::vector<uint64_t> buffer((needed + 7) / 8 + 1);
    ULONG length = 0;
    EXPECT_EQ(ZwQueryInformationProcess(process, ProcessImageFileName, buffer.data(), needed, &length),
              STATUS_SUCCESS);
    EXPECT_EQ(length, needed);
    return texprt_test::Text(reinterpret_cast<UNICODE_STRING *>(buffer.data()));
}

// The process list, as records copied out of the chain.
struct ListedProcess {
    uint32_t id = 0;
    uint32_t parent_id = 0;
    std::string name;
    int64_t create_time = 0;
    int64_t kernel_time = 0;
    int64_t user_time = 0;
    ULONG session_id = 0;
    std::vector<CLIENT_ID> threads;
};

inline std::vector<ListedProcess> ProcessList() {
    ULONG needed = 0;
    EXPECT_EQ(ZwQuerySystemInformation(SystemProcessInformation, nullptr, 0, &needed), STATUS_INFO_LENGTH_MISMATCH);
    std::vector<uint64_t> buffer(needed / 8 + 1);
    ULONG length = 0;
    EXPECT_EQ(ZwQuerySystemInformation(SystemProcessInformation, buffer.data(), needed, &length), STATUS_SUCCESS);
    EXPECT_EQ(length, needed);
    std::vector<ListedProcess> list;
    auto *bytes = reinterpret_cast<uint8_t *>(buffer.data());
    for (size_t offset = 0;;) {
        auto *p = reinterpret_cast<SYSTEM_PROCESS_INFORMATION *>(bytes + offset);
        ListedProcess listed;
        listed.id = uint32_t(ULONG_PTR(p->UniqueProcessId));
        listed.parent_id = uint32_t(ULONG_PTR(p->InheritedFromUniqueProcessId));
        listed.name = texprt_test::Text(&p->ImageName);
        listed.create_time = p->CreateTime.QuadPart;
        listed.kernel_time = p->KernelTime.QuadPart;
        listed.user_time = p->UserTime.QuadPart;
        listed.session_id = p->SessionId;
        auto *threads = reinterpret_cast<SYSTEM_THREAD_INFORMATION *>(p + 1);
        for (ULONG i = 0; i < p->NumberOfThreads; ++i) listed.threads.push_back(threads[i].ClientId);
        list.push_back(listed);
        if (p->NextEntryOffset == 0) break;
        EXPECT_EQ(p->NextEntryOffset % 8, 0u);
        offset += p->NextEntryOffset;
        EXPECT_LT(offset, needed);
    }
    return list;
}

inline const ListedProcess *Find(const std::vector<ListedProcess> &list, uint32_t id) {
    for (const auto &p : list)
        if (p.id == id) return &p;
    return nullptr;
}

}  // namespace host_test
