// Timers and DPCs on the manual clock, and once on the real one.
#include "host_test.h"

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

using namespace host_test;

namespace {

class Timers : public MachineTest {};
// Waiters on other threads, and the timer thread of the real clock. The ctest
// label "concurrency" comes with the suite's name (see tests/CMakeLists.txt).
class TimersConcurrency : public MachineTest {};

struct Firing {
    std::string name;
    KIRQL irql;
    int64_t at;  // seconds after boot
};

// A timer with a DPC that records when and at what IRQL it ran, and can
// re-arm its own timer a number of times.
struct Recorded {
    KTIMER timer;
    KDPC dpc;
    std::string name;
    std::vector<Firing> *log;
    int rearms = 0;

    Recorded(const char *n, std::vector<Firing> *l) : name(n), log(l) {
        KeInitializeTimer(&timer);
        KeInitializeDpc(&dpc, Routine, this);
    }
    static VOID NTAPI Routine(PKDPC, PVOID context, PVOID, PVOID) {
        auto *self = static_cast<Recorded *>(context);
        self->log->push_back({self->name, KeGetCurrentIrql(), (hk::SystemTime() - hk::kDefaultBootTime) / kSecond});
        if (self->rearms > 0 && self->rearms--) KeSetTimer(&self->timer, Ticks(-kSecond), &self->dpc);
    }
};

std::string Names(const std::vector<Firing> &log) {
    std::string out;
    for (const auto &f : log) out += f.name + "@" + std::to_string(f.at) + " ";
    return out;
}

TEST_F(Timers, FireInDueOrderWithTheirDpcsAtDispatchLevel) {
    std::vector<Firing> log;
    Recorded three("three", &log), one("one", &log), two("two", &log), absolute("absolute", &log);
    EXPECT_FALSE(KeSetTimer(&three.timer, Ticks(-3 * kSecond), &three.dpc));
    EXPECT_FALSE(KeSetTimer(&one.timer, Ticks(-1 * kSecond), &one.dpc));
    EXPECT_FALSE(KeSetTimer(&two.timer, Ticks(-2 * kSecond), &two.dpc));
    EXPECT_FALSE(KeSetTimer(&absolute.timer, Ticks(hk::kDefaultBootTime + 4 * kSecond), &absolute.dpc));
    hk::AdvanceClock(kSecond / 2);
    EXPECT_TRUE(log.empty());
    hk::AdvanceClock(3 * kSecond);
    EXPECT_EQ(Names(log), "one@1 two@2 three@3 ");
    for (const auto &f : log) EXPECT_EQ(f.irql, DISPATCH_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(hk::SystemTime(), hk::kDefaultBootTime + 35 * kSecond / 10);
    EXPECT_TRUE(KeReadStateTimer(&one.timer));
    EXPECT_FALSE(KeReadStateTimer(&absolute.timer));
    hk::AdvanceClock(kSecond);
    EXPECT_EQ(Names(log), "one@1 two@2 three@3 absolute@4 ");
}

TEST_F(Timers, DpcThatRearmsItsTimerFiresAgainInTheSameAdvance) {
    std::vector<Firing> log;
    Recorded rearming("r", &log);
    rearming.rearms = 2;
    KeSetTimer(&rearming.timer, Ticks(-kSecond), &rearming.dpc);
    hk::AdvanceClock(10 * kSecond);
    EXPECT_EQ(Names(log), "r@1 r@2 r@3 ");

    log.clear();
    Recorded periodic("p", &log);
    KeSetTimerEx(&periodic.timer, Ticks(-kSecond), 1000, &periodic.dpc);
    hk::AdvanceClock(35 * kSecond / 10);
    EXPECT_EQ(Names(log), "p@11 p@12 p@13 ");
    EXPECT_TRUE(KeCancelTimer(&periodic.timer));
}

TEST_F(Timers, SetAndCancelReportWhetherTheTimerWasQueued) {
    std::vector<Firing> log;
    Recorded t("t", &log);
    EXPECT_FALSE(KeCancelTimer(&t.timer)) << "never set";
    EXPECT_FALSE(KeSetTimer(&t.timer, Ticks(-kSecond), &t.dpc));
    EXPECT_TRUE(KeSetTimer(&t.timer, Ticks(-2 * kSecond), &t.dpc)) << "set again while queued";
    EXPECT_TRUE(KeCancelTimer(&t.timer));
    EXPECT_FALSE(KeCancelTimer(&t.timer)) << "already cancelled";
    KeSetTimer(&t.timer, Ticks(-kSecond), &t.dpc);
    hk::AdvanceClock(kSecond);
    EXPECT_EQ(log.size(), 1u);
    EXPECT_FALSE(KeCancelTimer(&t.timer)) << "already fired";
}

TEST_F(TimersConcurrency, AWaiterOnATimerIsReleasedWhenItFires) {
    KTIMER timer;
    KeInitializeTimerEx(&timer, SynchronizationTimer);
    KeSetTimer(&timer, Ticks(-kSecond), nullptr);
    std::thread waiter([&] { EXPECT_EQ(Wait(&timer, -60 * kSecond), STATUS_SUCCESS); });
    WaitUntilBlocked(1);
    hk::AdvanceClock(kSecond);
    waiter.join();
    EXPECT_FALSE(KeReadStateTimer(&timer)) << "the wait took a synchronization timer's signal";
}

TEST_F(Timers, QueuedDpcsRunOnceOnRequestAndCanBeRemoved) {
    static int runs;
    static PVOID argument;
    runs = 0;
    KDPC dpc;
    KeInitializeDpc(
        &dpc,
        [](PKDPC, PVOID, PVOID a, PVOID) {
            runs += KeGetCurrentIrql() == DISPATCH_LEVEL;  // only runs at the right IRQL count
            argument = a;
        },
        nullptr);
    int token;
    EXPECT_TRUE(KeInsertQueueDpc(&dpc, &token, nullptr));
    EXPECT_FALSE(KeInsertQueueDpc(&dpc, nullptr, nullptr)) << "already queued";
    EXPECT_EQ(runs, 0) << "the manual machine runs DPCs only when asked";
    hk::RunPendingDpcs();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(argument, &token);
    EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    EXPECT_TRUE(KeRemoveQueueDpc(&dpc));
    EXPECT_FALSE(KeRemoveQueueDpc(&dpc));
    KeFlushQueuedDpcs();
    EXPECT_EQ(runs, 1);
}

TEST_F(Timers, ResetDropsQueuedTimersAndDpcs) {
    std::vector<Firing> log;
    Recorded t("t", &log);
    KeSetTimer(&t.timer, Ticks(-kSecond), &t.dpc);
    KeInsertQueueDpc(&t.dpc, nullptr, nullptr);
    hk::Reset();
    hk::AdvanceClock(10 * kSecond);
    EXPECT_TRUE(log.empty());
    EXPECT_FALSE(KeCancelTimer(&t.timer));
}

// One bounded test against the host's own clock: the timer thread fires.
TEST_F(TimersConcurrency, RealClockFiresTimersOnTheTimerThread) {
    hk::UseRealClock();
    struct Context {
        KEVENT fired;
        std::thread::id thread;
        KIRQL irql;
    } context;
    KeInitializeEvent(&context.fired, NotificationEvent, FALSE);
    KTIMER timer;
    KDPC dpc;
    KeInitializeTimer(&timer);
    KeInitializeDpc(
        &dpc,
        [](PKDPC, PVOID c, PVOID, PVOID) {
            auto *ctx = static_cast<Context *>(c);
            ctx->thread = std::this_thread::get_id();
            ctx->irql = KeGetCurrentIrql();
            KeSetEvent(&ctx->fired, 0, FALSE);
        },
        &context);
    const auto start = std::chrono::steady_clock::now();
    KeSetTimer(&timer, Ticks(-20 * 10'000), &dpc);  // 20 ms
    ASSERT_EQ(Wait(&context.fired, -10 * kSecond), STATUS_SUCCESS);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
    EXPECT_NE(context.thread, std::this_thread::get_id());
    EXPECT_EQ(context.irql, DISPATCH_LEVEL);
    EXPECT_TRUE(KeReadStateTimer(&timer));
    hk::UseManualClock();
}

}  // namespace
