// The structured exception guard: a fault inside the guarded routine comes
// back as STATUS_ACCESS_VIOLATION, as often as it happens, on every thread,
// and leaves the thread as the routine had it.
#include "host_test.h"

#include <atomic>
#include <csignal>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

// The library's own declaration lives in platform/nt.h, which these tests do
// not see.
extern "C" BOOLEAN NTAPI PlatformGuardedCall(void (*Routine)(PVOID), PVOID Context, NTSTATUS *ExceptionCode);

using namespace host_test;

namespace {

// One page that faults on every read.
class Unreadable {
public:
    Unreadable() {
        page_ = mmap(nullptr, PageSize(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(page_, MAP_FAILED);
    }
    ~Unreadable() { munmap(page_, PageSize()); }
    volatile char *Bytes() const { return static_cast<volatile char *>(page_); }
    static size_t PageSize() { return size_t(sysconf(_SC_PAGESIZE)); }

private:
    void *page_;
};

struct Probe {
    volatile char *address = nullptr;
    bool reached_end = false;
};

VOID NTAPI Read(PVOID context) {
    auto *probe = static_cast<Probe *>(context);
    (void)*probe->address;
    probe->reached_end = true;
}

BOOLEAN Guarded(Probe *probe, NTSTATUS *code) {
    probe->reached_end = false;
    return PlatformGuardedCall(Read, probe, code);
}

class Guard : public MachineTest {};

TEST_F(Guard, ARoutineThatEndsIsTrueAndLeavesTheCodeAlone) {
    char readable = 'x';
    Probe probe{&readable};
    NTSTATUS code = STATUS_PENDING;
    EXPECT_TRUE(Guarded(&probe, &code));
    EXPECT_TRUE(probe.reached_end);
    EXPECT_EQ(code, STATUS_PENDING);
    EXPECT_TRUE(PlatformGuardedCall(Read, &probe, nullptr)) << "the code is optional";
}

// Every fault, not only the first: a guard that caught one fault must be
// ready for the next on the same thread.
TEST_F(Guard, EveryFaultIsAnAccessViolationNotOnlyTheFirst) {
    Unreadable page;
    Probe probe{page.Bytes()};
    for (int round = 0; round < 5; ++round) {
        NTSTATUS code = STATUS_SUCCESS;
        EXPECT_FALSE(Guarded(&probe, &code)) << "round " << round;
        EXPECT_FALSE(probe.reached_end);
        EXPECT_EQ(code, STATUS_ACCESS_VIOLATION);
    }
}

// A mapped file cut short raises a bus error rather than a segmentation
// fault; to the caller it is the same access violation.
TEST_F(Guard, ABusErrorIsAnAccessViolationToo) {
    char name[] = "/tmp/texprt-guard-XXXXXX";
    const int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    unlink(name);
    ASSERT_EQ(ftruncate(fd, off_t(Unreadable::PageSize())), 0);
    void *map = mmap(nullptr, Unreadable::PageSize(), PROT_READ, MAP_SHARED, fd, 0);
    ASSERT_NE(map, MAP_FAILED);
    ASSERT_EQ(ftruncate(fd, 0), 0);
    Probe probe{static_cast<volatile char *>(map)};
    for (int round = 0; round < 2; ++round) {
        NTSTATUS code = STATUS_SUCCESS;
        EXPECT_FALSE(Guarded(&probe, &code));
        EXPECT_EQ(code, STATUS_ACCESS_VIOLATION);
    }
    munmap(map, Unreadable::PageSize());
    close(fd);
}

// The fault returns with the signal mask the routine ran with: nothing that
// was open is left blocked, nothing that was blocked is opened.
TEST_F(Guard, AFaultLeavesTheSignalMaskAsItWas) {
    Unreadable page;
    Probe probe{page.Bytes()};
    sigset_t blocked, before, after;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, &before), 0);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &before), 0);
    EXPECT_FALSE(Guarded(&probe, nullptr));
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &after), 0);
    for (int signal = 1; signal < NSIG; ++signal)
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << "signal " << signal;
    EXPECT_EQ(sigismember(&after, SIGSEGV), 0);
    pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
}

struct Nested {
    Probe inner;
    BOOLEAN inner_result = TRUE;
    NTSTATUS inner_code = STATUS_SUCCESS;
    bool after_inner = false;
};

VOID NTAPI Outer(PVOID context) {
    auto *nested = static_cast<Nested *>(context);
    nested->inner_result = Guarded(&nested->inner, &nested->inner_code);
    nested->after_inner = true;
}

TEST_F(Guard, AnInnerGuardCatchesItsOwnFaultAndTheOuterRoutineGoesOn) {
    Unreadable page;
    Nested nested;
    nested.inner.address = page.Bytes();
    NTSTATUS code = STATUS_PENDING;
    EXPECT_TRUE(PlatformGuardedCall(Outer, &nested, &code));
    EXPECT_FALSE(nested.inner_result);
    EXPECT_EQ(nested.inner_code, STATUS_ACCESS_VIOLATION);
    EXPECT_TRUE(nested.after_inner);
    EXPECT_EQ(code, STATUS_PENDING);
    // And the outer guard still catches a fault of its own afterwards.
    Probe probe{page.Bytes()};
    EXPECT_FALSE(Guarded(&probe, &code));
    EXPECT_EQ(code, STATUS_ACCESS_VIOLATION);
}

// The ctest label "concurrency" comes with the suite's name (see
// tests/CMakeLists.txt).
class GuardConcurrency : public MachineTest {};

// Guards are per thread: threads faulting at the same time each come back
// to their own guard, between guarded reads that do not fault.
TEST_F(GuardConcurrency, ThreadsFaultingAtOnceEachReturnToTheirOwnGuard) {
    constexpr int kThreads = 4, kRounds = 200;
    Unreadable page;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            char readable = char(t);
            for (int round = 0; round < kRounds; ++round) {
                const bool faults = (round + t) % 3 != 0;
                Probe probe{faults ? page.Bytes() : &readable};
                NTSTATUS code = STATUS_PENDING;
                const BOOLEAN ended = Guarded(&probe, &code);
                if (ended == faults || probe.reached_end == faults ||
                    code != (faults ? STATUS_ACCESS_VIOLATION : STATUS_PENDING))
                    ++wrong;
            }
        });
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
