// The process table on the library's own objects: entries and their
// references, the roads out of the table, what is captured from a process,
// the enumeration, and the actor blocks with their cache.
#include "platform/nt.h"

#include "base/workqueue.h"
#include "diagnostics/eventlog.h"
#include "include/texprt.h"
#include "process/table.h"
#include "support/concurrency.h"
#include "support/machine.h"

#include <cstring>
#include <functional>
#include <thread>
#include <vector>

using namespace texprt_test;

namespace {

constexpr const char *kNotepad = "\\Device\\HarddiskVolume2\\Windows\\System32\\notepad.exe";

class ProcessTableTest : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        ASSERT_EQ(DllInitialize(nullptr), STATUS_SUCCESS);
        ASSERT_EQ(TcSystemsInitializePhase0(hk::CreateDriverObject("\\Driver\\tmon"), TRUE), STATUS_SUCCESS);
        hk::ClearEventLog();
    }
    void TearDown() override {
        // Phase 1 never ran: the table is emptied here, as a failed phase 1
        // or the unload after it would.
        StopProcessTable();
        EXPECT_EQ(DllUnload(), STATUS_SUCCESS);
        MachineTest::TearDown();
    }

    static uint32_t Start(const std::string &command_line = "notepad.exe C:\\a.txt", uint32_t parent = 4) {
        hk::ProcessSpec spec;
        spec.image_file_name = kNotepad;
        spec.image_path_name = "C:\\Windows\\System32\\notepad.exe";
        spec.command_line = command_line;
        spec.parent_id = parent;
        return hk::CreateProcess(spec);
    }
    static ULONG TableSize() {
        FastMutexGuardForTest guard;
        return RtlNumberGenericTableElements(&ProcessTable);
    }
    static ULONG DeferredNodes() {
        FastMutexGuardForTest guard;
        ULONG count = 0;
        for (PLIST_ENTRY link = DeferredDeleteList.Flink; link != &DeferredDeleteList; link = link->Flink) ++count;
        return count;
    }
    // Everything queued on the library's work queue so far has run.
    static void DrainWorkQueue() {
        KEVENT done;
        KeInitializeEvent(&done, NotificationEvent, FALSE);
        WorkItem *item = NewWorkItem();
        ASSERT_NE(item, nullptr);
        PrepareWorkItem(item, [](PVOID event) { KeSetEvent(static_cast<PKEVENT>(event), 0, FALSE); }, nullptr, &done);
        QueueWorkItem(item, &LibraryWorkQueue);
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    }

    // A forced dereference of System's entry while it is referenced: its
    // node, and a worker run that goes through every node.
    static void QueueWorkerForSystem() {
        ASSERT_NE(FindOrCreateProcessEntry(4), nullptr);
        ASSERT_NE(FindOrCreateProcessEntry(4), nullptr);
        DereferenceProcess(4, 1);
        DrainWorkQueue();
    }

    struct FastMutexGuardForTest {
        FastMutexGuardForTest() { ExAcquireFastMutex(&ProcessTableLock); }
        ~FastMutexGuardForTest() { ExReleaseFastMutex(&ProcessTableLock); }
    };
};

TEST_F(ProcessTableTest, ANewEntryHoldsWhatTheProcessSaysAndOneReference) {
    const uint32_t pid = Start("\"C:\\Windows\\System32\\notepad.exe\" C:\\a.txt", 4);
    ProcessEntry *entry = FindOrCreateProcessEntry(pid);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->ReferenceCount, 1);
    EXPECT_EQ(entry->ProcessId, pid);
    EXPECT_EQ(entry->ParentProcessId, 4u);
    EXPECT_EQ(Text(&entry->ImageFileName), kNotepad);
    EXPECT_EQ(entry->ImageFileName.Buffer[entry->ImageFileName.Length / 2], 0) << "NUL-terminated";
    EXPECT_EQ(Text(&entry->Win32ImagePath), "C:\\Windows\\System32\\notepad.exe");
    EXPECT_EQ(Text(&entry->CommandLine), "C:\\a.txt") << "the arguments alone";
    EXPECT_EQ(entry->CreateTime.QuadPart, hk::SystemTime());
    EXPECT_NE(entry->ProcessObject, nullptr);
    EXPECT_NE(entry->ActorLock, nullptr);
    EXPECT_EQ(entry->Terminated, 0);
    EXPECT_EQ(entry->ParentCreateTime.QuadPart, 0);

    EXPECT_EQ(FindOrCreateProcessEntry(pid), entry);
    EXPECT_EQ(FindProcessEntry(pid), entry);
    EXPECT_EQ(entry->ReferenceCount, 3);
    for (int i = 0; i < 3; ++i) DereferenceProcess(pid, 0);
    // Live and unreferenced: the entry waits for the rundown.
    EXPECT_EQ(entry->ReferenceCount, 0);
    EXPECT_EQ(TableSize(), 1u);
}

TEST_F(ProcessTableTest, NoProcessNoEntry) {
    EXPECT_EQ(FindOrCreateProcessEntry(4000), nullptr);
    EXPECT_EQ(FindOrCreateProcessEntry(0), nullptr) << "the idle process never has an entry";
    EXPECT_EQ(FindProcessEntry(Start()), nullptr) << "FindProcessEntry never makes one";
    DereferenceProcess(4000, 0);
    DereferenceProcess(4000, 1);
    EXPECT_EQ(TableSize(), 0u);
    EXPECT_EQ(DeferredNodes(), 0u);
}

TEST_F(ProcessTableTest, TheSystemProcessIsCalledByItsNameAndStartsAtBoot) {
    ProcessEntry *entry = FindOrCreateProcessEntry(4);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(Text(&entry->ImageFileName), "SYSTEM");
    EXPECT_EQ(entry->ImageFileName.MaximumLength, 14);
    EXPECT_EQ(entry->CreateTime.QuadPart, hk::kDefaultBootTime);
    EXPECT_EQ(entry->Win32ImagePath.Length, 0);
    EXPECT_EQ(entry->CommandLine.Length, 0);
    EXPECT_EQ(entry->ParentProcessId, 0u);
    DereferenceProcess(4, 0);
}

TEST_F(ProcessTableTest, AnEndedProcessLeavesWithItsLastReference) {
    const uint32_t pid = Start();
    ASSERT_NE(FindOrCreateProcessEntry(pid), nullptr);
    ASSERT_NE(FindProcessEntry(pid), nullptr);
    ASSERT_TRUE(hk::ExitProcess(pid, 0));
    // Still referenced: Terminated, a deferred node, and a worker that
    // leaves the node where it is.
    DereferenceProcess(pid, 0);
    ProcessEntry *entry = FindProcessEntry(pid);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->Terminated, 1);
    DereferenceProcess(pid, 0);
    DrainWorkQueue();
    EXPECT_EQ(DeferredNodes(), 2u);
    // The last reference deletes the entry on the spot; the nodes stay until
    // the next worker run.
    DereferenceProcess(pid, 0);
    EXPECT_EQ(TableSize(), 0u);
    EXPECT_EQ(DeferredNodes(), 2u);
    // The next worker, queued for another entry, frees them.
    QueueWorkerForSystem();
    EXPECT_EQ(DeferredNodes(), 1u) << "System's own node, its entry still referenced";
    DereferenceProcess(4, 0);
}

TEST_F(ProcessTableTest, AForcedDereferenceMarksTheEntryEndedWhateverTheProcessSays) {
    const uint32_t pid = Start();
    ASSERT_NE(FindOrCreateProcessEntry(pid), nullptr);
    ASSERT_NE(FindOrCreateProcessEntry(pid), nullptr);
    DereferenceProcess(pid, 1);
    ProcessEntry *entry = FindProcessEntry(pid);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->Terminated, 1);
    EXPECT_EQ(DeferredNodes(), 1u);
    DereferenceProcess(pid, 0);
    DereferenceProcess(pid, 0);
    EXPECT_EQ(TableSize(), 0u);
    // The node goes with the next worker run.
    QueueWorkerForSystem();
    EXPECT_EQ(DeferredNodes(), 1u) << "System's own";
    DereferenceProcess(4, 0);
}

TEST_F(ProcessTableTest, TheRundownTakesUnreferencedEndedProcessesAndRestartsAfterEachDelete) {
    std::vector<uint32_t> ids;
    for (int i = 0; i < 5; ++i) ids.push_back(Start());
    for (uint32_t pid : ids) {
        ASSERT_NE(FindOrCreateProcessEntry(pid), nullptr);
        DereferenceProcess(pid, 0);
    }
    // One still referenced, one below zero, three unreferenced; all ended.
    ASSERT_NE(FindProcessEntry(ids[0]), nullptr);
    DereferenceProcess(ids[1], 0);
    for (uint32_t pid : ids) ASSERT_TRUE(hk::ExitProcess(pid, 0));
    SweepProcessTable();
    EXPECT_EQ(TableSize(), 2u);
    ProcessEntry *negative = FindProcessEntry(ids[1]);
    ASSERT_NE(negative, nullptr);
    EXPECT_EQ(negative->ReferenceCount, 0) << "-1, and one more for this look-up";
    DereferenceProcess(ids[1], 0);
    SweepProcessTable();
    EXPECT_EQ(TableSize(), 2u) << "an entry below zero is skipped for good";
    DereferenceProcess(ids[0], 0);  // the last reference of an ended process
    EXPECT_EQ(TableSize(), 1u);
}

TEST_F(ProcessTableTest, AStaleDeferredNodeRemovesAnUnreferencedEntryOfAReusedId) {
    const uint32_t pid = Start();
    ASSERT_NE(FindOrCreateProcessEntry(pid), nullptr);
    ASSERT_NE(FindOrCreateProcessEntry(pid), nullptr);
    DereferenceProcess(pid, 1);  // node, worker queued
    DrainWorkQueue();            // the worker ran while the entry was referenced: the node stays
    DereferenceProcess(pid, 0);  // last reference: deleted
    ASSERT_EQ(DeferredNodes(), 1u);
    // The id comes back as a new process (possible once the old object is
    // gone) before any worker runs again.
    ASSERT_TRUE(hk::ExitProcess(pid, 0));
    hk::ProcessSpec spec;
    spec.id = pid;
    spec.image_file_name = kNotepad;
    ASSERT_EQ(hk::CreateProcess(spec), pid);
    ULONG again_id = pid;
    EXPECT_TRUE(TcMarkProcessAsTrusted(&again_id));
    ASSERT_EQ(TableSize(), 1u);
    QueueWorkerForSystem();
    EXPECT_EQ(TableSize(), 1u) << "the stale node took the new entry with it; System's stays";
    DereferenceProcess(4, 0);
    ProcessEntry *again = FindOrCreateProcessEntry(pid);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->ProcessFlags & TEXPRT_PROCESS_TRUSTED, 0u) << "the mark went with the old entry";
    DereferenceProcess(pid, 0);
}

struct SplitCase {
    const char *name;
    std::u16string line;
    std::u16string program, arguments;
    bool has_arguments;
};

class SplitCommandLineTest : public ::testing::TestWithParam<SplitCase> {};

TEST_P(SplitCommandLineTest, GivesTheProgramAndTheArgumentsAsViews) {
    const SplitCase &c = GetParam();
    std::u16string line = c.line;
    UNICODE_STRING string{USHORT(line.size() * 2), USHORT(line.size() * 2), line.data()};
    UNICODE_STRING program, arguments;
    SplitCommandLine(&string, &program, &arguments);
    EXPECT_EQ(std::u16string(program.Buffer ? program.Buffer : u"", program.Length / 2), c.program);
    EXPECT_EQ(program.MaximumLength, program.Length);
    EXPECT_EQ(arguments.Buffer != nullptr, c.has_arguments);
    EXPECT_EQ(std::u16string(arguments.Buffer ? arguments.Buffer : u"", arguments.Length / 2), c.arguments);
    EXPECT_EQ(arguments.MaximumLength, arguments.Length);
    if (program.Buffer) EXPECT_TRUE(program.Buffer >= line.data() && program.Buffer <= line.data() + line.size());
}

INSTANTIATE_TEST_SUITE_P(
    Lines, SplitCommandLineTest,
    ::testing::Values(
        SplitCase{"empty", u"", u"", u"", false},
        SplitCase{"a_word_alone", u"notepad.exe", u"notepad.exe", u"", false},
        SplitCase{"a_word_and_arguments", u"cmd.exe /c dir x", u"cmd.exe", u"/c dir x", true},
        SplitCase{"one_leading_blank", u" cmd.exe /c", u"cmd.exe", u"/c", true},
        SplitCase{"two_leading_blanks", u"  cmd.exe", u"", u"cmd.exe", true},
        SplitCase{"a_trailing_blank", u"cmd.exe ", u"cmd.exe", u"", false},
        SplitCase{"quoted_with_blank_and_switch", u"\"C:\\Program Files\\a.exe\" -v", u"C:\\Program Files\\a.exe",
                  u"-v", true},
        SplitCase{"quoted_alone", u"\"C:\\a b\\a.exe\"", u"C:\\a b\\a.exe", u"", false},
        SplitCase{"quoted_with_one_blank_behind", u"\"a.exe\" ", u"a.exe", u"", false},
        SplitCase{"quoted_with_any_separator", u"\"a.exe\"x-v", u"a.exe", u"-v", true},
        SplitCase{"an_unclosed_quote", u"\"a b -v", u"a b -v", u"", false},
        SplitCase{"a_tab_separates_nothing", u"a.exe\t-v", u"a.exe\t-v", u"", false},
        SplitCase{"a_quote_inside_a_word", u"a\"b.exe c", u"a\"b.exe", u"c", true}),
    [](const auto &info) { return std::string(info.param.name); });

struct CaptureCase {
    const char *name;
    hk::PebKind peb;
    hk::UnmappedMemory unmapped;
    bool normalized;
    const char *path, *arguments;
};

class ProcessCaptureTest : public ProcessTableTest, public ::testing::WithParamInterface<CaptureCase> {};

// Whatever the parameter block holds, the entry is made; what cannot be
// read stays empty.
TEST_P(ProcessCaptureTest, ReadsWhatTheParameterBlockLetsItRead) {
    const CaptureCase &c = GetParam();
    hk::ProcessSpec spec;
    spec.image_file_name = kNotepad;
    spec.image_path_name = "C:\\Tools\\tool.exe";
    spec.command_line = "tool.exe -x";
    spec.peb = c.peb;
    spec.unmapped = c.unmapped;
    spec.normalized = c.normalized;
    const uint32_t pid = hk::CreateProcess(spec);
    ProcessEntry *entry = FindOrCreateProcessEntry(pid);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(Text(&entry->Win32ImagePath), c.path);
    EXPECT_EQ(Text(&entry->CommandLine), c.arguments);
    EXPECT_EQ(Text(&entry->ImageFileName), kNotepad);
    DereferenceProcess(pid, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Blocks, ProcessCaptureTest,
    ::testing::Values(CaptureCase{"normalized", hk::PebKind::Present, {}, true, "C:\\Tools\\tool.exe", "-x"},
                      CaptureCase{"offsets", hk::PebKind::Present, {}, false, "", "-x"},
                      CaptureCase{"no_peb", hk::PebKind::None, {}, true, "", ""},
                      CaptureCase{"no_parameters", hk::PebKind::NoParameters, {}, true, "", ""},
                      CaptureCase{"unmapped_parameters", hk::PebKind::Present, {true, false, false}, true, "", ""},
                      CaptureCase{"unmapped_path", hk::PebKind::Present, {false, true, false}, true, "", "-x"},
                      CaptureCase{"unmapped_command_line", hk::PebKind::Present, {false, false, true}, true,
                                  "C:\\Tools\\tool.exe", ""}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(ProcessTableTest, TheEnumerationEntersEveryProcessWithItsWholeLineAndNoReference) {
    const uint32_t parent = Start("parent.exe");
    hk::AdvanceClock(hk::kTicksPerSecond);
    const uint32_t child = Start("child.exe -a", parent);
    hk::AdvanceClock(hk::kTicksPerSecond);
    // A process whose "parent" id is younger than itself has none.
    const uint32_t orphan = Start("orphan.exe", child + 400);
    hk::ProcessSpec late;
    late.id = child + 400;
    late.image_file_name = kNotepad;
    hk::CreateProcess(late);
    ASSERT_EQ(GetExisitingProcesses(), STATUS_SUCCESS);
    ASSERT_EQ(hk::EventLog().size(), 4u);
    EXPECT_EQ(hk::EventLog()[0].id, 0x40060009u);
    EXPECT_EQ(hk::EventLog()[3].id, 0x4006000Cu);
    EXPECT_EQ(TableSize(), hk::RunningProcesses().size() - 1) << "all but the idle process";
    ProcessEntry *entry = FindProcessEntry(child);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->ReferenceCount, 1) << "0 from the enumeration";
    EXPECT_EQ(Text(&entry->CommandLine), "child.exe -a") << "the whole line";
    ProcessEntry *parent_entry = FindProcessEntry(parent);
    ASSERT_NE(parent_entry, nullptr);
    EXPECT_EQ(entry->ParentCreateTime.QuadPart, parent_entry->CreateTime.QuadPart);
    ProcessEntry *orphan_entry = FindProcessEntry(orphan);
    ASSERT_NE(orphan_entry, nullptr);
    EXPECT_EQ(orphan_entry->ParentCreateTime.QuadPart, 0);
    for (uint32_t pid : {child, parent, orphan}) DereferenceProcess(pid, 0);
    hk::ClearEventLog();
}

TEST_F(ProcessTableTest, AProcessListThatGrowsBetweenTheTwoQueriesFailsTheEnumeration) {
    hk::OnProcessListQuery([](int call) {
        if (call == 2) Start();  // after the size was asked, before the list is read
    });
    EXPECT_EQ(GetExisitingProcesses(), STATUS_INFO_LENGTH_MISMATCH);
    ASSERT_EQ(hk::EventLog().size(), 1u) << "the completion is never reported";
    EXPECT_EQ(TableSize(), 0u);
    hk::ClearEventLog();
}

// ------------------------------------------------------------ actors

std::vector<uint8_t> Bytes(const ActorInformation *block, ULONG size) {
    return std::vector<uint8_t>(reinterpret_cast<const uint8_t *>(block), reinterpret_cast<const uint8_t *>(block) + size);
}

TEST_F(ProcessTableTest, AnActorBlockIsTheFixedPartThenTextsDescriptorAndSid) {
    hk::ProcessSpec spec;
    spec.image_file_name = kNotepad;
    spec.image_path_name = "C:\\n.exe";
    spec.token.user_sid = "S-1-5-21-1111-2222-3333-1001";  // 28 bytes
    const uint32_t pid = hk::CreateProcess(spec);
    ActorInformation *block = nullptr;
    ULONG size = 0;
    {
        hk::AsThread as(pid);
        ASSERT_EQ(GetActorInformation(&block, &size), STATUS_SUCCESS);
    }
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->ProcessId, pid);
    EXPECT_EQ(block->SecurityInformation, 15u);
    EXPECT_EQ(block->Win32ImagePathLength, 16);
    EXPECT_EQ(block->ImageFileNameLength, std::strlen(kNotepad) * 2);
    EXPECT_EQ(block->SidLength, 28);
    EXPECT_NE(block->SecurityDescriptorLength, 0u);
    EXPECT_EQ(size, 32u + block->Win32ImagePathLength + block->ImageFileNameLength + block->SecurityDescriptorLength +
                        block->SidLength);
    const auto bytes = Bytes(block, size);
    EXPECT_EQ(bytes[size - 28], 1) << "the SID's revision";
    ExFreePoolWithTag(block, 0);
    ProcessEntry *entry = FindProcessEntry(pid);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->ReferenceCount, 1) << "GetActorInformation gave its reference back";
    EXPECT_EQ(entry->ActorRecordSize, size);
    DereferenceProcess(pid, 0);
}

TEST_F(ProcessTableTest, ACachedBlockKeepsTheThreadThatBuiltIt) {
    hk::ProcessSpec spec;
    spec.image_file_name = kNotepad;
    spec.threads = {hk::ThreadSpec{9000}, hk::ThreadSpec{9004}};
    const uint32_t pid = hk::CreateProcess(spec);
    ActorInformation *first = nullptr, *second = nullptr;
    ULONG size = 0;
    {
        hk::AsThread as(pid, 9000);
        ASSERT_EQ(GetActorInformation(&first, &size), STATUS_SUCCESS);
    }
    std::thread other([&] {
        hk::AsThread as(pid, 9004);
        EXPECT_EQ(GetActorInformation(&second, &size), STATUS_SUCCESS);
    });
    other.join();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(first->ThreadId, 9000u);
    EXPECT_EQ(second->ThreadId, 9000u) << "the cached block keeps its builder's thread";
    EXPECT_EQ(Bytes(first, size), Bytes(second, size));
    ExFreePoolWithTag(first, 0);
    ExFreePoolWithTag(second, 0);
}

TEST_F(ProcessTableTest, ATokenThatCannotBeOpenedFailsOnceAndCachesABlockWithoutSid) {
    hk::ProcessSpec spec;
    spec.image_file_name = kNotepad;
    spec.peb = hk::PebKind::None;
    spec.token.open_status = STATUS_ACCESS_DENIED;
    const uint32_t pid = hk::CreateProcess(spec);
    hk::AsThread as(pid);
    ActorInformation *block = reinterpret_cast<ActorInformation *>(1);
    ULONG size = 1;
    EXPECT_EQ(GetActorInformation(&block, &size), STATUS_ACCESS_DENIED);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(size, 0u);
    ASSERT_EQ(GetActorInformation(&block, &size), STATUS_SUCCESS);
    EXPECT_EQ(block->SidLength, 0);
    EXPECT_EQ(block->Win32ImagePathLength, 0);
    // No PEB: the image name stands right behind the fixed part.
    EXPECT_EQ(std::memcmp(reinterpret_cast<const char *>(block) + 32, hk::Utf16(kNotepad).data(), 8), 0);
    ExFreePoolWithTag(block, 0);
}

TEST_F(ProcessTableTest, ActorQuestionsWithoutAProcess) {
    ActorInformation *block = nullptr;
    ULONG size = 0;
    EXPECT_EQ(GetActorInformation(nullptr, &size), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(GetActorInformation(&block, nullptr), STATUS_INVALID_PARAMETER);
    ProcessEntry *entry = reinterpret_cast<ProcessEntry *>(1);
    EXPECT_EQ(GetActorProcessReference(4000, &entry), STATUS_OBJECTID_NOT_FOUND);
    EXPECT_EQ(entry, reinterpret_cast<ProcessEntry *>(1));
    EXPECT_EQ(GetActorProcessReference(0, &entry), STATUS_INVALID_PARAMETER);
    ULONG missing = 4000;
    EXPECT_FALSE(IsActorWhiteListed(&missing));
    EXPECT_FALSE(TcMarkProcessAsTrusted(&missing));
    EXPECT_EQ(TableSize(), 0u);
}

TEST_F(ProcessTableTest, MarkingAProcessTrustedMakesItsEntryAndKeepsIt) {
    ULONG pid = Start();
    EXPECT_TRUE(TcMarkProcessAsTrusted(&pid));
    ProcessEntry *entry = FindProcessEntry(pid);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->ProcessFlags, ULONG(TEXPRT_PROCESS_TRUSTED));
    EXPECT_EQ(entry->ReferenceCount, 1);
    EXPECT_FALSE(IsActorWhiteListed(&pid));
    DereferenceProcess(pid, 0);
}

TEST_F(ProcessTableTest, AReferenceFromGetActorProcessReferenceIsHeldEvenWhenTheBlockFails) {
    const ULONG pid = Start();
    ProcessEntry *entry = nullptr;
    ASSERT_NE(FindOrCreateProcessEntry(pid), nullptr);  // the entry exists; only the block is built now
    hk::FailAllocationsWithTag(hk::MakeTag("TcAc"));
    EXPECT_EQ(GetActorProcessReference(pid, &entry), STATUS_INSUFFICIENT_RESOURCES);
    hk::ClearAllocationFailures();
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->ReferenceCount, 2);
    EXPECT_EQ(entry->ActorRecord, nullptr);
    EXPECT_EQ(GetActorProcessReference(pid, &entry), STATUS_SUCCESS);
    EXPECT_NE(entry->ActorRecord, nullptr);
    for (int i = 0; i < 3; ++i) DereferenceProcess(pid, 0);
}

// Every allocation of the exports failing in turn: a status or a null as
// the calls allow, nothing left behind, and the next try works.
TEST_F(ProcessTableTest, EveryAllocationFailingInTurn) {
    struct Call {
        const char *name;
        std::function<void(uint32_t pid)> run;
    } calls[] = {
        {"FindOrCreateProcessEntry",
         [](uint32_t pid) {
             if (ProcessEntry *e = FindOrCreateProcessEntry(pid)) DereferenceProcess(e->ProcessId, 1);
         }},
        {"GetActorInformation",
         [](uint32_t pid) {
             hk::AsThread as(pid);
             ActorInformation *block = nullptr;
             ULONG size = 0;
             const NTSTATUS status = GetActorInformation(&block, &size);
             EXPECT_EQ(block != nullptr, NT_SUCCESS(status));
             if (block) ExFreePoolWithTag(block, 0);
             DereferenceProcess(pid, 1);
         }},
        {"GetActorProcessReference",
         [](uint32_t pid) {
             ProcessEntry *entry = nullptr;
             GetActorProcessReference(pid, &entry);
             if (entry) DereferenceProcess(pid, 1);
         }},
        {"GetExisitingProcesses",
         [](uint32_t) {
             GetExisitingProcesses();
             StopProcessTable();
         }},
    };
    for (const auto &call : calls) {
        for (uint64_t n = 1;; ++n) {
            const uint32_t pid = Start();
            const uint64_t before = hk::InjectedFailures();
            hk::FailNthAllocation(n);
            call.run(pid);
            hk::ClearAllocationFailures();
            DrainWorkQueue();
            StopProcessTable();
            hk::ClearEventLog();
            ASSERT_TRUE(hk::VerifierComplaints().empty()) << call.name << " n=" << n << Joined(hk::VerifierComplaints());
            hk::ExitProcess(pid, 0);
            if (hk::InjectedFailures() == before) break;  // the call made fewer than n allocations
            ASSERT_LT(n, 200u) << call.name;
        }
    }
}

// ------------------------------------------------------------ threads

class ProcessTableConcurrency : public ProcessTableTest {};

TEST_F(ProcessTableConcurrency, TwoThreadsCreatingOneEntryShareIt) {
    for (int round = 0; round < 50; ++round) {
        const uint32_t pid = Start();
        ProcessEntry *got[2] = {};
        std::atomic<int> ready{0};
        std::thread threads[2];
        for (int t = 0; t < 2; ++t)
            threads[t] = std::thread([&, t] {
                ++ready;
                while (ready < 2) std::this_thread::yield();
                got[t] = FindOrCreateProcessEntry(pid);
            });
        for (auto &t : threads) t.join();
        ASSERT_NE(got[0], nullptr);
        ASSERT_EQ(got[0], got[1]);
        EXPECT_EQ(got[0]->ReferenceCount, 2);
        hk::ExitProcess(pid, 0);
        DereferenceProcess(pid, 0);
        DereferenceProcess(pid, 0);
        ASSERT_EQ(TableSize(), 0u);
    }
    DrainWorkQueue();
}

// Several threads find, make and give back overlapping ids while processes
// end and the rundown runs; at the end, with every process ended and one
// more pass, nothing is left.
TEST_F(ProcessTableConcurrency, FindCreateAndDereferenceWhileProcessesEnd) {
    std::vector<uint32_t> ids;
    for (int i = 0; i < 12; ++i) ids.push_back(Start());
    std::atomic<bool> stop{false};
    std::vector<std::thread> workers;
    for (int t = 0; t < 3; ++t)
        workers.emplace_back([&, t] {
            for (unsigned i = 0; !stop; ++i) {
                const uint32_t pid = ids[(i * 7 + t) % ids.size()];
                ProcessEntry *entry = (i % 3 == 0) ? FindProcessEntry(pid) : FindOrCreateProcessEntry(pid);
                if (entry != nullptr) DereferenceProcess(pid, UCHAR(i % 11 == 0));
            }
        });
    for (size_t i = 0; i < ids.size(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        hk::ExitProcess(ids[i], 0);
        SweepProcessTable();
    }
    stop = true;
    for (auto &w : workers) w.join();
    DrainWorkQueue();
    SweepProcessTable();
    DrainWorkQueue();
    EXPECT_EQ(TableSize(), 0u);
    EXPECT_EQ(DeferredNodes(), 0u);
}

}  // namespace
