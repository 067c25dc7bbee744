// Processes and threads as the NT API shows them: opening by client id,
// ZwQueryInformationProcess and ZwQueryInformationThread with their length
// protocols, exits that signal, ids that stay taken while an object holds
// them, running code as a thread of a process, and the process list.
#include "process_helpers.h"

#include "internal.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <thread>

using namespace host_test;

namespace {

class Processes : public MachineTest {};

constexpr const char *kNotepad = "\\Device\\HarddiskVolume2\\Windows\\System32\\notepad.exe";

hk::ProcessSpec Notepad() {
    hk::ProcessSpec spec;
    spec.parent_id = 4;
    spec.image_file_name = kNotepad;
    spec.image_path_name = "C:\\Windows\\System32\\notepad.exe";
    spec.command_line = "notepad.exe C:\\Users\\Bob\\todo.txt";
    return spec;
}

// ------------------------------------------------------------ after boot

TEST_F(Processes, AfterResetOnlyTheIdleProcessAndSystemRun) {
    EXPECT_EQ(hk::RunningProcesses(), (std::vector<uint32_t>{0, 4}));
    ProcessHandle system(4);
    ASSERT_EQ(system.status(), STATUS_SUCCESS);
    const PROCESS_BASIC_INFORMATION basic = BasicInformation(system.get());
    EXPECT_EQ(basic.UniqueProcessId, 4u);
    EXPECT_EQ(basic.InheritedFromUniqueProcessId, 0u);
    EXPECT_EQ(basic.PebBaseAddress, nullptr) << "System has no PEB";
    EXPECT_EQ(basic.ExitStatus, STATUS_PENDING);
    EXPECT_EQ(ProcessTimesOf(system.get()).CreateTime.QuadPart, 0) << "System reports no creation time";
    EXPECT_EQ(ImageFileNameOf(system.get()), "") << "System has no image file";
    EXPECT_EQ(Wait(hk::ProcessObject(4), 0), STATUS_TIMEOUT);
}

// The idle process has no client id; the low two bits of an id do not
// count when it is looked up, as on Windows.
TEST_F(Processes, OpeningByIdFollowsTheClientIdTable) {
    const uint32_t notepad = hk::CreateProcess(Notepad());
    const struct {
        uint32_t id;
        NTSTATUS status;
        uint32_t opened;
    } cases[] = {
        {0, STATUS_INVALID_CID, 0},         {4, STATUS_SUCCESS, 4},
        {5, STATUS_SUCCESS, 4},             {7, STATUS_SUCCESS, 4},
        {notepad, STATUS_SUCCESS, notepad}, {notepad + 3, STATUS_SUCCESS, notepad},
        {4000, STATUS_INVALID_CID, 0},      {notepad + 4000, STATUS_INVALID_CID, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.id);
        HANDLE handle = nullptr;
        EXPECT_EQ(OpenProcessById(c.id, &handle), c.status);
        if (c.status != STATUS_SUCCESS) {
            EXPECT_EQ(handle, nullptr);
            continue;
        }
        EXPECT_EQ(BasicInformation(handle).UniqueProcessId, c.opened);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    }
}

TEST_F(Processes, OpeningChecksItsArgumentsAsNtOpenProcessDoes) {
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle = nullptr;
    EXPECT_EQ(ZwOpenProcess(&handle, PROCESS_ALL_ACCESS, &oa, nullptr), STATUS_INVALID_PARAMETER_MIX)
        << "neither a name nor a client id";
    Wide name("\\BaseNamedObjects\\x");
    InitializeObjectAttributes(&oa, &name.us, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    CLIENT_ID cid{Id(4), nullptr};
    EXPECT_EQ(ZwOpenProcess(&handle, PROCESS_ALL_ACCESS, &oa, &cid), STATUS_INVALID_PARAMETER_MIX) << "both";
}

// By a thread's id too: the thread must belong to the process named.
TEST_F(Processes, OpeningAProcessByOneOfItsThreads) {
    hk::ProcessSpec spec = Notepad();
    spec.threads = {hk::ThreadSpec{.id = 1200}};
    const uint32_t notepad = hk::CreateProcess(spec);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle = nullptr;
    CLIENT_ID by_thread{nullptr, Id(1200)};
    ASSERT_EQ(ZwOpenProcess(&handle, PROCESS_ALL_ACCESS, &oa, &by_thread), STATUS_SUCCESS);
    EXPECT_EQ(BasicInformation(handle).UniqueProcessId, notepad);
    ZwClose(handle);
    CLIENT_ID mismatched{Id(4), Id(1200)};
    EXPECT_EQ(ZwOpenProcess(&handle, PROCESS_ALL_ACCESS, &oa, &mismatched), STATUS_INVALID_CID);
}

// ------------------------------------------------------------ queries

TEST_F(Processes, ANewProcessAnswersWhatItsSpecSaid) {
    hk::AdvanceClock(5 * kSecond);
    hk::ProcessSpec spec = Notepad();
    spec.parent_id = 1000;
    spec.threads = {hk::ThreadSpec{.kernel_time = 30, .user_time = 70}, hk::ThreadSpec{.kernel_time = 5}};
    const uint32_t id = hk::CreateProcess(spec);
    EXPECT_EQ(id % 4, 0u);
    EXPECT_GT(id, 4u);
    EXPECT_TRUE(hk::IdInUse(id));
    ProcessHandle process(id);
    ASSERT_EQ(process.status(), STATUS_SUCCESS);
    const PROCESS_BASIC_INFORMATION basic = BasicInformation(process.get());
    EXPECT_EQ(basic.UniqueProcessId, id);
    EXPECT_EQ(basic.InheritedFromUniqueProcessId, 1000u) << "the parent need not be alive";
    EXPECT_EQ(basic.ExitStatus, STATUS_PENDING);
    EXPECT_EQ(basic.PebBaseAddress, hk::ProcessPeb(id));
    EXPECT_NE(basic.PebBaseAddress, nullptr);
    const KERNEL_USER_TIMES times = ProcessTimesOf(process.get());
    EXPECT_EQ(times.CreateTime.QuadPart, hk::kDefaultBootTime + 5 * kSecond) << "the clock when it was made";
    EXPECT_EQ(times.ExitTime.QuadPart, 0);
    EXPECT_EQ(times.KernelTime.QuadPart, 35) << "its threads' times together";
    EXPECT_EQ(times.UserTime.QuadPart, 70);
    EXPECT_EQ(ImageFileNameOf(process.get()), kNotepad);

    spec = Notepad();
    spec.create_time = 0;
    const uint32_t timeless = hk::CreateProcess(spec);
    ProcessHandle handle(timeless);
    EXPECT_EQ(ProcessTimesOf(handle.get()).CreateTime.QuadPart, 0) << "no creation time, as System";
}

// ProcessImageFileName: a UNICODE_STRING and its text, terminated; asked
// with too little room it says how much it needs.
TEST_F(Processes, TheImageFileNameComesWithItsLengthProtocol) {
    const uint32_t id = hk::CreateProcess(Notepad());
    ProcessHandle process(id);
    const ULONG text = ULONG((std::string(kNotepad).size() + 1) * 2);
    const ULONG needed = ULONG(sizeof(UNICODE_STRING)) + text;
    std::vector<uint64_t> buffer(needed / 8 + 2);
    for (ULONG length : {0u, 2u, ULONG(sizeof(UNICODE_STRING)), needed - 1}) {
        SCOPED_TRACE(length);
        ULONG returned = 0;
        EXPECT_EQ(ZwQueryInformationProcess(process.get(), ProcessImageFileName, length ? buffer.data() : nullptr,
                                            length, &returned),
                  STATUS_INFO_LENGTH_MISMATCH);
        EXPECT_EQ(returned, needed);
    }
    ULONG returned = 0;
    ASSERT_EQ(ZwQueryInformationProcess(process.get(), ProcessImageFileName, buffer.data(), needed + 8, &returned),
              STATUS_SUCCESS);
    EXPECT_EQ(returned, needed);
    auto *name = reinterpret_cast<UNICODE_STRING *>(buffer.data());
    EXPECT_EQ(name->Buffer, reinterpret_cast<PWCH>(name + 1)) << "the text follows the string";
    EXPECT_EQ(name->Length, text - 2);
    EXPECT_EQ(name->MaximumLength, text);
    EXPECT_EQ(name->Buffer[name->Length / 2], 0) << "terminated";
    EXPECT_EQ(texprt_test::Text(name), kNotepad);
}

// The fixed-size classes take exactly their structure's size; the length
// is checked before the handle.
TEST_F(Processes, FixedSizeClassesTakeExactlyTheirSize) {
    ProcessHandle process(hk::CreateProcess(Notepad()));
    uint8_t buffer[256] = {};
    const struct {
        PROCESSINFOCLASS information_class;
        ULONG size;
    } classes[] = {{ProcessBasicInformation, sizeof(PROCESS_BASIC_INFORMATION)},
                   {ProcessTimes, sizeof(KERNEL_USER_TIMES)}};
    for (const auto &c : classes) {
        SCOPED_TRACE(c.information_class);
        for (ULONG length : {0u, c.size - 1, c.size + 1}) {
            EXPECT_EQ(ZwQueryInformationProcess(process.get(), c.information_class, buffer, length, nullptr),
                      STATUS_INFO_LENGTH_MISMATCH);
            EXPECT_EQ(ZwQueryInformationProcess(nullptr, c.information_class, buffer, length, nullptr),
                      STATUS_INFO_LENGTH_MISMATCH);
        }
        EXPECT_EQ(ZwQueryInformationProcess(nullptr, c.information_class, buffer, c.size, nullptr),
                  STATUS_INVALID_HANDLE);
        EXPECT_EQ(ZwQueryInformationProcess(process.get(), c.information_class, nullptr, c.size, nullptr),
                  STATUS_ACCESS_VIOLATION);
    }
    EXPECT_EQ(ZwQueryInformationProcess(process.get(), MaxProcessInfoClass, buffer, 4, nullptr),
              STATUS_INVALID_INFO_CLASS);
}

// Each query can be made to fail, from the spec or later; the others are
// not touched.
TEST_F(Processes, EachProcessQueryCanBeMadeToFail) {
    const PROCESSINFOCLASS classes[] = {ProcessBasicInformation, ProcessTimes, ProcessImageFileName};
    for (PROCESSINFOCLASS failing : classes) {
        SCOPED_TRACE(failing);
        hk::ProcessSpec spec = Notepad();
        spec.query_failures[failing] = STATUS_ACCESS_DENIED;
        const uint32_t id = hk::CreateProcess(spec);
        ProcessHandle process(id);
        for (PROCESSINFOCLASS c : classes) {
            std::vector<uint64_t> buffer(64);
            ULONG returned = 0;
            const ULONG length = c == ProcessBasicInformation ? sizeof(PROCESS_BASIC_INFORMATION)
                                 : c == ProcessTimes          ? sizeof(KERNEL_USER_TIMES)
                                                              : 512;
            EXPECT_EQ(ZwQueryInformationProcess(process.get(), c, buffer.data(), length, &returned),
                      c == failing ? STATUS_ACCESS_DENIED : STATUS_SUCCESS);
        }
        hk::FailProcessQuery(id, failing, STATUS_SUCCESS);
        EXPECT_EQ(BasicInformation(process.get()).UniqueProcessId, id);
        hk::FailProcessQuery(id, ProcessTimes, STATUS_INSUFFICIENT_RESOURCES);
        KERNEL_USER_TIMES times;
        EXPECT_EQ(ZwQueryInformationProcess(process.get(), ProcessTimes, &times, sizeof times, nullptr),
                  STATUS_INSUFFICIENT_RESOURCES);
    }
    EXPECT_THROW(hk::FailProcessQuery(4000, ProcessTimes, STATUS_ACCESS_DENIED), std::invalid_argument);
}

// ------------------------------------------------------------ exits and ids

// An exit signals the process object, records the status and the time, and
// takes the process out of the list; its object still answers.
TEST_F(Processes, AnExitSignalsTheProcessAndItStillAnswers) {
    const uint32_t id = hk::CreateProcess(Notepad());
    ProcessHandle process(id);
    PVOID object = nullptr;
    ASSERT_EQ(ObReferenceObjectByHandle(process.get(), SYNCHRONIZE, *PsProcessType, KernelMode, &object, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(object, hk::ProcessObject(id));
    EXPECT_EQ(Wait(object, 0), STATUS_TIMEOUT);
    hk::AdvanceClock(kSecond);
    ASSERT_TRUE(hk::ExitProcess(id, 0xC0000409));
    EXPECT_FALSE(hk::ExitProcess(id, 1)) << "only once";
    EXPECT_EQ(Wait(object, 0), STATUS_SUCCESS);
    EXPECT_EQ(KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS) << "and stays so";
    const PROCESS_BASIC_INFORMATION basic = BasicInformation(process.get());
    EXPECT_EQ(basic.ExitStatus, NTSTATUS(0xC0000409));
    EXPECT_EQ(ProcessTimesOf(process.get()).ExitTime.QuadPart, hk::kDefaultBootTime + kSecond);
    EXPECT_EQ(ImageFileNameOf(process.get()), kNotepad);
    EXPECT_EQ(hk::RunningProcesses(), (std::vector<uint32_t>{0, 4}));
    EXPECT_EQ(Find(ProcessList(), id), nullptr) << "an ended process is not listed";
    ObfDereferenceObject(object);
}

// On Windows a process that has ended can still be opened by its id while
// its object lives (while anyone holds a handle or a reference).
TEST_F(Processes, AnEndedProcessOpensByIdWhileItsObjectLives) {
    const uint32_t id = hk::CreateProcess(Notepad());
    HANDLE kept = nullptr;
    ASSERT_EQ(OpenProcessById(id, &kept), STATUS_SUCCESS);
    hk::ExitProcess(id, 7);
    HANDLE again = nullptr;
    ASSERT_EQ(OpenProcessById(id, &again), STATUS_SUCCESS);
    EXPECT_EQ(BasicInformation(again).ExitStatus, 7);
    ZwClose(again);
    ZwClose(kept);
    EXPECT_FALSE(hk::IdInUse(id));
    EXPECT_EQ(OpenProcessById(id, &again), STATUS_INVALID_CID) << "gone with its last handle";
}

// Windows does not hand out an id while an object holds it: not to a new
// process, not to a new thread. Once the object is gone a test may name the
// id again.
TEST_F(Processes, AnIdStaysTakenWhileItsObjectIsReferenced) {
    const uint32_t id = hk::CreateProcess(Notepad());
    PVOID object = nullptr;
    {
        ProcessHandle process(id);
        ASSERT_EQ(ObReferenceObjectByHandle(process.get(), 0, nullptr, KernelMode, &object, nullptr), STATUS_SUCCESS);
    }
    hk::ExitProcess(id, 0);
    EXPECT_TRUE(hk::IdInUse(id)) << "the reference keeps it";
    for (int i = 0; i < 50; ++i) {
        const uint32_t other = hk::CreateProcess(Notepad());
        EXPECT_NE(other, id);
        hk::ExitProcess(other, 0);
    }
    hk::ProcessSpec named = Notepad();
    named.id = id;
    EXPECT_THROW(hk::CreateProcess(named), std::invalid_argument);
    ObfDereferenceObject(object);
    EXPECT_FALSE(hk::IdInUse(id));
    EXPECT_EQ(hk::CreateProcess(named), id);
    ProcessHandle reborn(id);
    EXPECT_EQ(BasicInformation(reborn.get()).ExitStatus, STATUS_PENDING) << "a new process";
}

TEST_F(Processes, NamedIdsMustBeFreeAndMultiplesOfFour) {
    hk::ProcessSpec spec = Notepad();
    spec.id = 4;
    EXPECT_THROW(hk::CreateProcess(spec), std::invalid_argument) << "System's";
    spec.id = 1002;
    EXPECT_THROW(hk::CreateProcess(spec), std::invalid_argument);
    spec.id = 1000;
    spec.threads = {hk::ThreadSpec{.id = 1000}};
    EXPECT_THROW(hk::CreateProcess(spec), std::invalid_argument) << "one space for processes and threads";
    spec.threads = {hk::ThreadSpec{.id = 1004}, hk::ThreadSpec{}};
    EXPECT_EQ(hk::CreateProcess(spec), 1000u);
    EXPECT_TRUE(hk::IdInUse(1004));
    spec.id = 0;
    spec.threads = {hk::ThreadSpec{.id = 1004}};
    EXPECT_THROW(hk::CreateProcess(spec), std::invalid_argument) << "a thread's id is taken too";
    spec.threads = {};
    spec.token.user_sid = "S-1-5-x";
    EXPECT_THROW(hk::CreateProcess(spec), std::invalid_argument) << "not a SID";
}

// When the last thread of a process ends, the process ends with its status.
TEST_F(Processes, TheLastThreadToEndTakesItsProcessWithIt) {
    hk::ProcessSpec spec = Notepad();
    spec.threads = {hk::ThreadSpec{.id = 2000}, hk::ThreadSpec{.id = 2004}};
    const uint32_t id = hk::CreateProcess(spec);
    EXPECT_TRUE(hk::ExitThread(id, 2000, 1));
    EXPECT_FALSE(hk::ExitThread(id, 2000, 1)) << "ended already";
    EXPECT_EQ(Wait(hk::ProcessObject(id), 0), STATUS_TIMEOUT);
    ProcessHandle process(id);
    EXPECT_TRUE(hk::ExitThread(id, 2004, 0x2A));
    EXPECT_EQ(Wait(hk::ProcessObject(id), 0), STATUS_SUCCESS);
    EXPECT_EQ(BasicInformation(process.get()).ExitStatus, 0x2A);
}

TEST_F(Processes, ResetEndsEveryProcessButTheIdleProcessAndSystem) {
    const uint32_t id = hk::CreateProcess(Notepad());
    hk::Reset();
    EXPECT_EQ(hk::RunningProcesses(), (std::vector<uint32_t>{0, 4}));
    EXPECT_FALSE(hk::IdInUse(id));
}

// ------------------------------------------------------------ objects

TEST_F(Processes, ProcessHandlesReferenceProcessObjects) {
    const uint32_t id = hk::CreateProcess(Notepad());
    ProcessHandle process(id);
    const struct {
        POBJECT_TYPE type;
        NTSTATUS status;
    } cases[] = {{*PsProcessType, STATUS_SUCCESS}, {nullptr, STATUS_SUCCESS}, {*PsThreadType, STATUS_OBJECT_TYPE_MISMATCH}};
    for (const auto &c : cases) {
        PVOID object = nullptr;
        EXPECT_EQ(ObReferenceObjectByHandle(process.get(), PROCESS_QUERY_INFORMATION, c.type, KernelMode, &object,
                                            nullptr),
                  c.status);
        if (c.status != STATUS_SUCCESS) continue;
        EXPECT_EQ(object, hk::ProcessObject(id));
        EXPECT_EQ(PsGetProcessId(static_cast<PEPROCESS>(object)), Id(id));
        ObfDereferenceObject(object);
    }
    PEPROCESS looked_up = nullptr;
    ASSERT_EQ(PsLookupProcessByProcessId(Id(id), &looked_up), STATUS_SUCCESS);
    EXPECT_EQ(looked_up, hk::ProcessObject(id));
    ObfDereferenceObject(looked_up);
    EXPECT_EQ(PsLookupProcessByProcessId(Id(4000), &looked_up), STATUS_INVALID_PARAMETER);
}

// ------------------------------------------------------------ threads

TEST_F(Processes, ThreadsOpenByClientIdAndAnswerTheirQueries) {
    hk::ProcessSpec spec = Notepad();
    spec.threads = {hk::ThreadSpec{.id = 3000, .create_time = 1234, .kernel_time = 10, .user_time = 20},
                    hk::ThreadSpec{.id = 3004}};
    const uint32_t id = hk::CreateProcess(spec);
    HANDLE thread = nullptr;
    ASSERT_EQ(OpenThreadById(id, 3000, &thread), STATUS_SUCCESS);
    THREAD_BASIC_INFORMATION basic{};
    ULONG returned = 0;
    ASSERT_EQ(ZwQueryInformationThread(thread, ThreadBasicInformation, &basic, sizeof basic, &returned),
              STATUS_SUCCESS);
    EXPECT_EQ(returned, sizeof basic);
    EXPECT_EQ(basic.ExitStatus, STATUS_PENDING) << "still running";
    EXPECT_EQ(basic.ClientId.UniqueProcess, Id(id));
    EXPECT_EQ(basic.ClientId.UniqueThread, Id(3000));
    KERNEL_USER_TIMES times{};
    ASSERT_EQ(ZwQueryInformationThread(thread, ThreadTimes, &times, sizeof times, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(times.CreateTime.QuadPart, 1234);
    EXPECT_EQ(times.ExitTime.QuadPart, 0);
    EXPECT_EQ(times.KernelTime.QuadPart, 10);
    EXPECT_EQ(times.UserTime.QuadPart, 20);
    EXPECT_EQ(ZwQueryInformationThread(thread, ThreadTimes, &times, sizeof times - 1, nullptr),
              STATUS_INFO_LENGTH_MISMATCH);

    hk::AdvanceClock(kSecond);
    ASSERT_TRUE(hk::ExitThread(id, 3000, 0x55));
    ASSERT_EQ(ZwQueryInformationThread(thread, ThreadBasicInformation, &basic, sizeof basic, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(basic.ExitStatus, 0x55);
    ASSERT_EQ(ZwQueryInformationThread(thread, ThreadTimes, &times, sizeof times, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(times.ExitTime.QuadPart, hk::kDefaultBootTime + kSecond);
    PVOID object = nullptr;
    ASSERT_EQ(ObReferenceObjectByHandle(thread, SYNCHRONIZE, *PsThreadType, KernelMode, &object, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(Wait(object, 0), STATUS_SUCCESS) << "an ended thread is signalled";
    ObfDereferenceObject(object);
    ZwClose(thread);

    const struct {
        uint32_t process;
        uint32_t thread;
        NTSTATUS status;
    } cases[] = {{id, 3004, STATUS_SUCCESS}, {0, 3004, STATUS_SUCCESS}, {4, 3004, STATUS_INVALID_CID},
                 {id, 0, STATUS_INVALID_CID}, {id, 3008, STATUS_INVALID_CID}, {id, id, STATUS_INVALID_CID}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.process << "/" << c.thread);
        EXPECT_EQ(OpenThreadById(c.process, c.thread, &thread), c.status);
        if (thread != nullptr) ZwClose(thread);
    }
}

TEST_F(Processes, ThreadQueriesCanBeMadeToFailAndTheRoutineHidden) {
    const uint32_t id = hk::CreateProcess(Notepad());
    const uint32_t tid = hk::CreateThread(id, hk::ThreadSpec{.query_failures = {{ThreadTimes, STATUS_ACCESS_DENIED}}});
    HANDLE thread = nullptr;
    ASSERT_EQ(OpenThreadById(id, tid, &thread), STATUS_SUCCESS);
    KERNEL_USER_TIMES times;
    EXPECT_EQ(ZwQueryInformationThread(thread, ThreadTimes, &times, sizeof times, nullptr), STATUS_ACCESS_DENIED);
    THREAD_BASIC_INFORMATION basic;
    hk::FailThreadQuery(id, tid, ThreadBasicInformation, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(ZwQueryInformationThread(thread, ThreadBasicInformation, &basic, sizeof basic, nullptr),
              STATUS_UNSUCCESSFUL);
    hk::FailThreadQuery(id, tid, ThreadBasicInformation, STATUS_SUCCESS);
    EXPECT_EQ(ZwQueryInformationThread(thread, ThreadBasicInformation, &basic, sizeof basic, nullptr),
              STATUS_SUCCESS);
    ZwClose(thread);

    for (const char *routine : {"ZwQueryInformationThread", "ZwOpenProcessTokenEx", "ZwQueryInformationProcess"}) {
        SCOPED_TRACE(routine);
        Wide name(routine);
        EXPECT_NE(MmGetSystemRoutineAddress(&name.us), nullptr);
        hk::HideSystemRoutine(routine);
        EXPECT_EQ(MmGetSystemRoutineAddress(&name.us), nullptr);
        hk::HideSystemRoutine(routine, false);
    }
    Wide name("ZwQueryInformationThread");
    EXPECT_EQ(MmGetSystemRoutineAddress(&name.us), reinterpret_cast<PVOID>(&ZwQueryInformationThread));
}

// ------------------------------------------------------------ running as a thread of a process

TEST_F(Processes, CodeRunsAsSystemUnlessToldOtherwise) {
    EXPECT_EQ(PsGetCurrentProcessId(), Id(4));
    EXPECT_EQ(PsGetCurrentProcess(), hk::ProcessObject(4));
    EXPECT_EQ(ULONG_PTR(PsGetCurrentThreadId()) % 4, 0u);
    HANDLE thread = nullptr;
    ASSERT_EQ(OpenThreadById(4, uint32_t(ULONG_PTR(PsGetCurrentThreadId())), &thread), STATUS_SUCCESS)
        << "a host thread is a thread of System, with a client id";
    ZwClose(thread);
    EXPECT_THROW(hk::AsThread(4, 0), std::invalid_argument) << "System's threads are the host's own";
}

TEST_F(Processes, RunningAsAThreadNestsAndComesBack) {
    hk::ProcessSpec spec = Notepad();
    spec.threads = {hk::ThreadSpec{.id = 4000}, hk::ThreadSpec{.id = 4004}};
    const uint32_t id = hk::CreateProcess(spec);
    const uint32_t other = hk::CreateProcess(Notepad());
    const HANDLE own_thread = PsGetCurrentThreadId();
    {
        hk::AsThread as(id, 4004);
        EXPECT_EQ(PsGetCurrentProcessId(), Id(id));
        EXPECT_EQ(PsGetCurrentThreadId(), Id(4004));
        EXPECT_EQ(PsGetCurrentProcess(), hk::ProcessObject(id));
        hk::RunAs(other, 0, [&] {
            EXPECT_EQ(PsGetCurrentProcessId(), Id(other));
            EXPECT_NE(PsGetCurrentThreadId(), Id(4004));
        });
        EXPECT_EQ(PsGetCurrentThreadId(), Id(4004));
        EXPECT_THROW(hk::AsThread(id, 4004), std::invalid_argument) << "a thread runs on one host thread at a time";
    }
    EXPECT_EQ(PsGetCurrentProcessId(), Id(4));
    EXPECT_EQ(PsGetCurrentThreadId(), own_thread);
    EXPECT_THROW(hk::AsThread(4000, 0), std::invalid_argument);
    EXPECT_THROW(hk::AsThread(id, 4008), std::invalid_argument);
    hk::ExitThread(id, 4000, 0);
    EXPECT_THROW(hk::AsThread(id, 4000), std::invalid_argument) << "not running";
}

// PsGetCurrentProcess follows an attach; PsGetCurrentProcessId stays with
// the thread's own process, as on Windows.
TEST_F(Processes, AttachingMovesTheCurrentProcessButNotTheCurrentProcessId) {
    const uint32_t id = hk::CreateProcess(Notepad());
    const uint32_t other = hk::CreateProcess(Notepad());
    hk::RunAs(id, 0, [&] {
        KAPC_STATE apc;
        KeStackAttachProcess(reinterpret_cast<PRKPROCESS>(hk::ProcessObject(other)), &apc);
        EXPECT_EQ(PsGetCurrentProcess(), hk::ProcessObject(other));
        EXPECT_EQ(PsGetCurrentProcessId(), Id(id));
        PVOID object = nullptr;
        ASSERT_EQ(ObReferenceObjectByHandle(NtCurrentProcess(), 0, *PsProcessType, KernelMode, &object, nullptr),
                  STATUS_SUCCESS);
        EXPECT_EQ(object, hk::ProcessObject(other)) << "NtCurrentProcess() is the process attached to";
        ObfDereferenceObject(object);
        KeUnstackDetachProcess(&apc);
        EXPECT_EQ(PsGetCurrentProcess(), hk::ProcessObject(id));
    });
}

// A handle opened without OBJ_KERNEL_HANDLE in another process's context
// would go to that process: a complaint. In System's context it is a
// kernel handle anyway.
TEST_F(Processes, AHandleWithoutObjKernelHandleOutsideSystemIsAComplaint) {
    const uint32_t id = hk::CreateProcess(Notepad());
    HANDLE handle = nullptr;
    ASSERT_EQ(OpenProcessById(id, &handle, 0), STATUS_SUCCESS);
    ZwClose(handle);
    EXPECT_TRUE(hk::VerifierComplaints().empty());
    hk::RunAs(id, 0, [&] {
        ASSERT_EQ(OpenProcessById(4, &handle, 0), STATUS_SUCCESS);
        ZwClose(handle);
    });
    ExpectComplaint("OBJ_KERNEL_HANDLE");
}

// ------------------------------------------------------------ the process list

TEST_F(Processes, TheProcessListStartsWithTheIdleProcessAndSystem) {
    hk::AdvanceClock(kSecond);
    hk::ProcessSpec spec = Notepad();
    spec.parent_id = 4;
    spec.session_id = 2;
    spec.threads = {hk::ThreadSpec{.id = 5000, .kernel_time = 3}, hk::ThreadSpec{.id = 5004, .user_time = 9},
                    hk::ThreadSpec{.id = 5008}};
    const uint32_t notepad = hk::CreateProcess(spec);
    hk::ProcessSpec nameless;
    const uint32_t second = hk::CreateProcess(nameless);
    hk::ExitThread(notepad, 5008, 0);

    const auto list = ProcessList();
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(list[0].id, 0u);
    EXPECT_EQ(list[0].name, "") << "the idle process has no name";
    EXPECT_EQ(list[1].id, 4u);
    EXPECT_EQ(list[1].name, "System");
    EXPECT_EQ(list[1].create_time, 0);
    EXPECT_EQ(list[2].id, notepad);
    EXPECT_EQ(list[2].parent_id, 4u);
    EXPECT_EQ(list[2].name, "notepad.exe") << "the last component of the image file name";
    EXPECT_EQ(list[2].create_time, hk::kDefaultBootTime + kSecond);
    EXPECT_EQ(list[2].session_id, 2u);
    EXPECT_EQ(list[2].kernel_time, 3);
    EXPECT_EQ(list[2].user_time, 9);
    ASSERT_EQ(list[2].threads.size(), 2u) << "running threads only";
    EXPECT_EQ(list[2].threads[0].UniqueThread, Id(5000));
    EXPECT_EQ(list[2].threads[1].UniqueThread, Id(5004));
    EXPECT_EQ(list[2].threads[1].UniqueProcess, Id(notepad));
    EXPECT_EQ(list[3].id, second);
    EXPECT_EQ(list[3].name, "");
}

TEST_F(Processes, TheProcessListRecordLayoutIsWindows) {
    EXPECT_EQ(offsetof(SYSTEM_PROCESS_INFORMATION, CreateTime), 0x20u);
    EXPECT_EQ(offsetof(SYSTEM_PROCESS_INFORMATION, ImageName), 0x38u);
    EXPECT_EQ(offsetof(SYSTEM_PROCESS_INFORMATION, UniqueProcessId), sizeof(void *) == 8 ? 0x50u : 0x44u);
    EXPECT_EQ(offsetof(SYSTEM_PROCESS_INFORMATION, InheritedFromUniqueProcessId), sizeof(void *) == 8 ? 0x58u : 0x48u);
    EXPECT_EQ(sizeof(SYSTEM_PROCESS_INFORMATION), sizeof(void *) == 8 ? 0x100u : 0xB8u);
    EXPECT_EQ(sizeof(SYSTEM_THREAD_INFORMATION), sizeof(void *) == 8 ? 0x50u : 0x40u);
    EXPECT_EQ(sizeof(SYSTEM_TIMEOFDAY_INFORMATION), 48u);
    EXPECT_EQ(sizeof(TOKEN_STATISTICS), 56u);
    EXPECT_EQ(sizeof(KERNEL_USER_TIMES), 32u);
}

TEST_F(Processes, AProcessListThatDoesNotFitSaysHowMuchItNeeds) {
    hk::CreateProcess(Notepad());
    ULONG needed = 0;
    EXPECT_EQ(ZwQuerySystemInformation(SystemProcessInformation, nullptr, 0, &needed), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_GE(needed, 3 * sizeof(SYSTEM_PROCESS_INFORMATION));
    std::vector<uint64_t> buffer(needed / 8 + 1);
    ULONG returned = 0;
    EXPECT_EQ(ZwQuerySystemInformation(SystemProcessInformation, buffer.data(), needed - 1, &returned),
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(returned, needed);
    EXPECT_EQ(ZwQuerySystemInformation(SystemProcessInformation, buffer.data(), needed, &returned), STATUS_SUCCESS);
    EXPECT_EQ(returned, needed);
}

// The list may grow between a caller's size query and its real query; the
// real query then fails again, saying the new length.
TEST_F(Processes, TheListCanGrowBetweenTheSizeQueryAndTheRealQuery) {
    hk::OnProcessListQuery([](int call) {
        if (call == 2) hk::CreateProcess(Notepad());
    });
    ULONG needed = 0;
    ASSERT_EQ(ZwQuerySystemInformation(SystemProcessInformation, nullptr, 0, &needed), STATUS_INFO_LENGTH_MISMATCH);
    std::vector<uint64_t> buffer(needed);
    ULONG grown = 0;
    EXPECT_EQ(ZwQuerySystemInformation(SystemProcessInformation, buffer.data(), needed, &grown),
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_GT(grown, needed);
    EXPECT_EQ(ZwQuerySystemInformation(SystemProcessInformation, buffer.data(), grown, &needed), STATUS_SUCCESS);
}

TEST_F(Processes, SystemQueriesCanBeMadeToFail) {
    hk::FailSystemQuery(SystemProcessInformation, STATUS_INSUFFICIENT_RESOURCES);
    ULONG needed = 0;
    EXPECT_EQ(ZwQuerySystemInformation(SystemProcessInformation, nullptr, 0, &needed), STATUS_INSUFFICIENT_RESOURCES);
    SYSTEM_TIMEOFDAY_INFORMATION time_of_day;
    EXPECT_EQ(ZwQuerySystemInformation(SystemTimeOfDayInformation, &time_of_day, sizeof time_of_day, nullptr),
              STATUS_SUCCESS);
    hk::FailSystemQuery(SystemProcessInformation, STATUS_SUCCESS);
    hk::FailSystemQuery(SystemTimeOfDayInformation, STATUS_ACCESS_DENIED);
    EXPECT_EQ(ZwQuerySystemInformation(SystemTimeOfDayInformation, &time_of_day, sizeof time_of_day, nullptr),
              STATUS_ACCESS_DENIED);
    EXPECT_EQ(ZwQuerySystemInformation(SystemProcessInformation, nullptr, 0, &needed), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(ZwQuerySystemInformation(SYSTEM_INFORMATION_CLASS(200), nullptr, 0, &needed), STATUS_INVALID_INFO_CLASS);
}

// ------------------------------------------------------------ the time of day

TEST_F(Processes, TheTimeOfDaySaysWhenTheMachineBooted) {
    hk::AdvanceClock(90 * kSecond);
    hk::SetTimeZoneBias(-2 * 3600 * kSecond);
    SYSTEM_TIMEOFDAY_INFORMATION information{};
    ULONG returned = 0;
    ASSERT_EQ(ZwQuerySystemInformation(SystemTimeOfDayInformation, &information, sizeof information, &returned),
              STATUS_SUCCESS);
    EXPECT_EQ(returned, sizeof information);
    EXPECT_EQ(information.BootTime.QuadPart, hk::kDefaultBootTime);
    EXPECT_EQ(information.CurrentTime.QuadPart, hk::kDefaultBootTime + 90 * kSecond);
    EXPECT_EQ(information.TimeZoneBias.QuadPart, -2 * 3600 * kSecond);
    EXPECT_EQ(information.BootTimeBias, 0u);
    EXPECT_EQ(information.SleepTimeBias, 0u);
    hk::SetBootTimeBias(12345);
    ASSERT_EQ(ZwQuerySystemInformation(SystemTimeOfDayInformation, &information, sizeof information, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(information.BootTimeBias, 12345u);
}

// Any length up to the structure's is answered with that many bytes; more
// is a mismatch. (As Windows answers it since Windows 2000.)
TEST_F(Processes, TheTimeOfDayTakesAnyLengthUpToItsOwn) {
    const struct {
        ULONG length;
        NTSTATUS status;
    } cases[] = {{0, STATUS_SUCCESS}, {24, STATUS_SUCCESS}, {32, STATUS_SUCCESS}, {48, STATUS_SUCCESS},
                 {49, STATUS_INFO_LENGTH_MISMATCH}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.length);
        uint8_t buffer[64];
        std::fill(std::begin(buffer), std::end(buffer), 0xEE);
        ULONG returned = 0xDEAD;
        EXPECT_EQ(ZwQuerySystemInformation(SystemTimeOfDayInformation, buffer, c.length, &returned), c.status);
        if (c.status != STATUS_SUCCESS) continue;
        EXPECT_EQ(returned, c.length);
        EXPECT_EQ(buffer[c.length], 0xEE) << "nothing past the length asked for";
    }
}

// ------------------------------------------------------------ threads at work

class ProcessesConcurrency : public MachineTest {};

// Some threads open, query, reference, wait on and close processes while
// others create them and end them.
TEST_F(ProcessesConcurrency, QueriesRunWhileProcessesComeAndGo) {
    const size_t handles_before = hk::detail::OpenHandleCount();
    std::atomic<bool> stop{false};
    std::atomic<uint32_t> newest{4};
    std::atomic<int> opened{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < 2; ++w) {
        workers.emplace_back([&, w] {
            // Until the readers have had their turn, however the host schedules them.
            for (int round = 0; round < 300 || (opened < 50 && round < 1000000); ++round) {
                const uint32_t id = hk::CreateProcess(Notepad());
                const uint32_t thread = hk::CreateThread(id);
                newest = id;
                if (round % 2 == w) hk::ExitThread(id, thread, 0);
                hk::ExitProcess(id, round);
            }
        });
    }
    for (int r = 0; r < 3; ++r) {
        workers.emplace_back([&] {
            while (!stop) {
                const uint32_t id = newest;
                HANDLE handle = nullptr;
                if (OpenProcessById(id, &handle) != STATUS_SUCCESS) continue;
                ++opened;
                PROCESS_BASIC_INFORMATION basic;
                EXPECT_EQ(ZwQueryInformationProcess(handle, ProcessBasicInformation, &basic, sizeof basic, nullptr),
                          STATUS_SUCCESS);
                std::vector<uint64_t> name(64);
                EXPECT_EQ(ZwQueryInformationProcess(handle, ProcessImageFileName, name.data(), 512, nullptr),
                          STATUS_SUCCESS);
                PVOID object = nullptr;
                if (ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsProcessType, KernelMode, &object, nullptr) ==
                    STATUS_SUCCESS) {
                    const NTSTATUS waited = Wait(object, 0);
                    EXPECT_TRUE(waited == STATUS_SUCCESS || waited == STATUS_TIMEOUT);
                    ObfDereferenceObject(object);
                }
                ZwClose(handle);
                ULONG needed = 0;
                ZwQuerySystemInformation(SystemProcessInformation, nullptr, 0, &needed);
            }
        });
    }
    workers[0].join();
    workers[1].join();
    stop = true;
    for (size_t i = 2; i < workers.size(); ++i) workers[i].join();
    EXPECT_GE(opened, 50);
    EXPECT_EQ(hk::RunningProcesses(), (std::vector<uint32_t>{0, 4}));
    EXPECT_EQ(hk::detail::OpenHandleCount(), handles_before);
}

}  // namespace
