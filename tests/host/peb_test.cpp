// A process's environment block as a driver reads it: attached to the
// process, through the pointers, inside the fault guard. The layout is
// Windows' for the build's pointer size; what the machine made unmapped
// faults, and the guard turns the fault into STATUS_ACCESS_VIOLATION.
#include "process_helpers.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <thread>

// The library's own declaration lives in platform/nt.h, which these tests do
// not see.
extern "C" BOOLEAN NTAPI PlatformGuardedCall(void (*Routine)(PVOID), PVOID Context, NTSTATUS *ExceptionCode);

using namespace host_test;

namespace {

class Peb : public MachineTest {};

// What a driver copies out of the PEB. The guarded routine owns nothing
// that a fault would leave behind, as kernel code in an __try block: it
// copies into buffers that live outside it.
struct PebRead {
    PPEB peb = nullptr;
    bool has_parameters = false;
    ULONG flags = 0;
    WCHAR image_path[256] = {};
    WCHAR command_line[256] = {};
    ULONG_PTR image_path_buffer = 0;
};

void Copy(const UNICODE_STRING &s, const RTL_USER_PROCESS_PARAMETERS *parameters, WCHAR (&out)[256]) {
    // Before normalisation Buffer is an offset from the parameter block.
    const PWCH text = (parameters->Flags & RTL_USER_PROC_PARAMS_NORMALIZED)
                          ? s.Buffer
                          : reinterpret_cast<PWCH>(reinterpret_cast<ULONG_PTR>(parameters) +
                                                   reinterpret_cast<ULONG_PTR>(s.Buffer));
    const size_t length = std::min<size_t>(s.Length / sizeof(WCHAR), 255);
    for (size_t i = 0; i < length; ++i) out[i] = text[i];
    out[length] = 0;
}

VOID NTAPI ReadPeb(PVOID context) {
    auto *read = static_cast<PebRead *>(context);
    const PRTL_USER_PROCESS_PARAMETERS parameters = read->peb->ProcessParameters;
    read->has_parameters = parameters != nullptr;
    if (parameters == nullptr) return;
    read->flags = parameters->Flags;
    read->image_path_buffer = reinterpret_cast<ULONG_PTR>(parameters->ImagePathName.Buffer);
    Copy(parameters->ImagePathName, parameters, read->image_path);
    Copy(parameters->CommandLine, parameters, read->command_line);
}

// Opens the process, finds its PEB, attaches and reads inside the guard, as
// the library does.
NTSTATUS ReadProcessPeb(uint32_t process_id, PebRead *read) {
    ProcessHandle process(process_id);
    EXPECT_EQ(process.status(), STATUS_SUCCESS);
    read->peb = BasicInformation(process.get()).PebBaseAddress;
    if (read->peb == nullptr) return STATUS_NOT_FOUND;
    PVOID object = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(process.get(), PROCESS_VM_READ, *PsProcessType, KernelMode, &object, nullptr),
              STATUS_SUCCESS);
    KAPC_STATE apc;
    KeStackAttachProcess(static_cast<PRKPROCESS>(object), &apc);
    NTSTATUS code = STATUS_SUCCESS;
    const BOOLEAN completed = PlatformGuardedCall(ReadPeb, read, &code);
    KeUnstackDetachProcess(&apc);
    ObfDereferenceObject(object);
    return completed ? STATUS_SUCCESS : code;
}

hk::ProcessSpec Spec() {
    hk::ProcessSpec spec;
    spec.image_file_name = "\\Device\\HarddiskVolume2\\Tools\\copy.exe";
    spec.image_path_name = "C:\\Tools\\copy.exe";
    spec.command_line = "copy.exe /y a.txt \"b c.txt\"";
    return spec;
}

TEST_F(Peb, TheLayoutIsWindowsForThePointerSize) {
    const bool x64 = sizeof(void *) == 8;
    EXPECT_EQ(offsetof(PEB, BeingDebugged), 2u);
    EXPECT_EQ(offsetof(PEB, Ldr), x64 ? 0x18u : 0x0Cu);
    EXPECT_EQ(offsetof(PEB, ProcessParameters), x64 ? 0x20u : 0x10u);
    EXPECT_EQ(offsetof(RTL_USER_PROCESS_PARAMETERS, MaximumLength), 0u);
    EXPECT_EQ(offsetof(RTL_USER_PROCESS_PARAMETERS, Length), 4u);
    EXPECT_EQ(offsetof(RTL_USER_PROCESS_PARAMETERS, Flags), 8u);
    EXPECT_EQ(offsetof(RTL_USER_PROCESS_PARAMETERS, ImagePathName), x64 ? 0x60u : 0x38u);
    EXPECT_EQ(offsetof(RTL_USER_PROCESS_PARAMETERS, CommandLine), x64 ? 0x70u : 0x40u);
    EXPECT_EQ(RTL_USER_PROC_PARAMS_NORMALIZED, 1);
}

// Normalised or not, the parameters lead to the same text; not normalised,
// the Buffer fields hold offsets from the block.
TEST_F(Peb, TheParametersReadTheSameNormalisedOrNot) {
    for (bool normalized : {true, false}) {
        SCOPED_TRACE(normalized);
        hk::ProcessSpec spec = Spec();
        spec.normalized = normalized;
        const uint32_t id = hk::CreateProcess(spec);
        PebRead read;
        ASSERT_EQ(ReadProcessPeb(id, &read), STATUS_SUCCESS);
        EXPECT_EQ(read.peb, hk::ProcessPeb(id));
        ASSERT_TRUE(read.has_parameters);
        EXPECT_EQ(read.flags & RTL_USER_PROC_PARAMS_NORMALIZED, normalized ? 1u : 0u);
        EXPECT_EQ(hk::Utf8(read.image_path), "C:\\Tools\\copy.exe");
        EXPECT_EQ(hk::Utf8(read.command_line), "copy.exe /y a.txt \"b c.txt\"");
        const ULONG_PTR block = reinterpret_cast<ULONG_PTR>(read.peb->ProcessParameters);
        if (normalized)
            EXPECT_GT(read.image_path_buffer, block) << "a pointer";
        else
            EXPECT_LT(read.image_path_buffer, ULONG_PTR(read.peb->ProcessParameters->Length)) << "an offset within the block";
    }
}

TEST_F(Peb, AProcessMayHaveNoPebOrAPebWithoutParameters) {
    hk::ProcessSpec spec = Spec();
    spec.peb = hk::PebKind::None;
    PebRead read;
    EXPECT_EQ(ReadProcessPeb(hk::CreateProcess(spec), &read), STATUS_NOT_FOUND) << "PebBaseAddress is null";
    spec.peb = hk::PebKind::NoParameters;
    read = PebRead{};
    ASSERT_EQ(ReadProcessPeb(hk::CreateProcess(spec), &read), STATUS_SUCCESS);
    EXPECT_FALSE(read.has_parameters);
}

// Memory made unmapped faults when read; the guard catches it.
TEST_F(Peb, UnmappedMemoryFaultsInsideTheGuard) {
    const struct {
        const char *name;
        hk::UnmappedMemory unmapped;
    } cases[] = {
        {"the parameter block", {.parameters = true}},
        {"the image path", {.image_path = true}},
        {"the command line", {.command_line = true}},
    };
    for (bool normalized : {true, false}) {
        for (const auto &c : cases) {
            SCOPED_TRACE(testing::Message() << c.name << (normalized ? ", normalised" : ", not normalised"));
            hk::ProcessSpec spec = Spec();
            spec.normalized = normalized;
            spec.unmapped = c.unmapped;
            PebRead read;
            EXPECT_EQ(ReadProcessPeb(hk::CreateProcess(spec), &read), STATUS_ACCESS_VIOLATION);
            if (!c.unmapped.parameters) EXPECT_TRUE(read.has_parameters) << "the block itself was readable";
        }
    }
}

// An ended process's address space is gone: its PEB faults from then on.
TEST_F(Peb, AnEndedProcesssPebFaults) {
    const uint32_t id = hk::CreateProcess(Spec());
    ProcessHandle kept(id);
    PebRead read;
    ASSERT_EQ(ReadProcessPeb(id, &read), STATUS_SUCCESS);
    hk::ExitProcess(id, 0);
    read = PebRead{};
    EXPECT_EQ(ReadProcessPeb(id, &read), STATUS_ACCESS_VIOLATION);
}

// The guard keeps working while attached and after many faults; attaching
// nests and comes back.
TEST_F(Peb, AttachesNestAndFaultsLeaveTheThreadAsItWas) {
    hk::ProcessSpec spec = Spec();
    spec.unmapped.command_line = true;
    const uint32_t faulting = hk::CreateProcess(spec);
    const uint32_t fine = hk::CreateProcess(Spec());
    for (int round = 0; round < 20; ++round) {
        PebRead read;
        EXPECT_EQ(ReadProcessPeb(faulting, &read), STATUS_ACCESS_VIOLATION);
        read = PebRead{};
        EXPECT_EQ(ReadProcessPeb(fine, &read), STATUS_SUCCESS);
    }
    EXPECT_EQ(PsGetCurrentProcess(), hk::ProcessObject(4));
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    KAPC_STATE outer, inner;
    KeStackAttachProcess(reinterpret_cast<PRKPROCESS>(hk::ProcessObject(fine)), &outer);
    KeStackAttachProcess(reinterpret_cast<PRKPROCESS>(hk::ProcessObject(faulting)), &inner);
    EXPECT_EQ(PsGetCurrentProcess(), hk::ProcessObject(faulting));
    KeUnstackDetachProcess(&inner);
    EXPECT_EQ(PsGetCurrentProcess(), hk::ProcessObject(fine));
    KeUnstackDetachProcess(&outer);
    EXPECT_EQ(PsGetCurrentProcess(), hk::ProcessObject(4));
}

TEST_F(Peb, AttachingToWhatIsNotAProcessIsAComplaint) {
    int not_a_process = 0;
    KAPC_STATE apc;
    KeStackAttachProcess(reinterpret_cast<PRKPROCESS>(&not_a_process), &apc);
    ExpectComplaint("not a process object");
    KeUnstackDetachProcess(&apc);
    ExpectComplaint("without a matching KeStackAttachProcess");
}

class PebConcurrency : public MachineTest {};

// Threads of several processes read their own or each other's PEB attached
// and guarded while the processes end under them: every read either sees
// the parameters whole or faults, never anything else.
TEST_F(PebConcurrency, ReadsRaceExitsAndEitherSucceedOrFault) {
    constexpr int kProcesses = 6;
    std::vector<uint32_t> ids;
    for (int i = 0; i < kProcesses; ++i) {
        hk::ProcessSpec spec = Spec();
        spec.normalized = i % 2 == 0;
        spec.threads = {hk::ThreadSpec{}, hk::ThreadSpec{}};
        ids.push_back(hk::CreateProcess(spec));
    }
    // The readers are threads of a process of their own, which stays.
    hk::ProcessSpec reader_spec = Spec();
    reader_spec.threads = {};
    const uint32_t reader_process = hk::CreateProcess(reader_spec);
    std::vector<uint32_t> reader_threads;
    for (int r = 0; r < 3; ++r) reader_threads.push_back(hk::CreateThread(reader_process));
    std::atomic<int> reads{0}, faults{0}, done{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&, r] {
            hk::RunAs(reader_process, reader_threads[r], [&] {
                for (int round = 0; round < 200; ++round) {
                    PebRead read;
                    ProcessHandle process(ids[(r + round) % kProcesses]);
                    if (process.status() != STATUS_SUCCESS) continue;
                    const PPEB peb = BasicInformation(process.get()).PebBaseAddress;
                    PVOID object = nullptr;
                    ASSERT_EQ(ObReferenceObjectByHandle(process.get(), 0, *PsProcessType, KernelMode, &object, nullptr),
                              STATUS_SUCCESS);
                    read.peb = peb;
                    KAPC_STATE apc;
                    KeStackAttachProcess(static_cast<PRKPROCESS>(object), &apc);
                    NTSTATUS code = STATUS_SUCCESS;
                    const BOOLEAN completed = PlatformGuardedCall(ReadPeb, &read, &code);
                    KeUnstackDetachProcess(&apc);
                    ObfDereferenceObject(object);
                    if (completed) {
                        ++reads;
                        EXPECT_EQ(hk::Utf8(read.image_path), "C:\\Tools\\copy.exe");
                    } else {
                        ++faults;
                        EXPECT_EQ(code, STATUS_ACCESS_VIOLATION);
                    }
                }
            });
            ++done;
        });
    }
    std::thread ender([&] {
        while (reads < 30 && done < 3) std::this_thread::yield();
        for (int i = kProcesses - 1; i >= 0; --i) hk::ExitProcess(ids[i], 0);
    });
    for (auto &reader : readers) reader.join();
    ender.join();
    EXPECT_GE(reads, 30);
    EXPECT_EQ(hk::RunningProcesses(), (std::vector<uint32_t>{0, 4, reader_process}));
}

}  // namespace
