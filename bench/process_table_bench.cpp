// The process table's hot path: every event a monitor sees costs it one
// FindProcessEntry and one DereferenceProcess. The table holds N entries
// (ids 4 apart, as the system hands them out), looked up in one of two
// orders:
//   scattered  every event from another process, drawn at random: the
//              worst case for a splay tree, which then restructures a full
//              path on every look-up and misses the cache on most nodes;
//   bursts     events in runs of 16 from one process, the process drawn at
//              random: how a monitor's stream looks (a process reads or
//              writes many files in a row), where the splay tree keeps the
//              busy entry at its root.
// Reported per look-up pair; growth with N should be logarithmic.
//
// The entries are made the way the enumeration makes them, but without
// processes behind them: the machine need not hold a hundred thousand
// processes to measure a table of that size. An entry without a process
// object is never polled, which is what a dereference of a live process
// costs anyway (its poll times out at once).
#include "base/locks.h"
#include "diagnostics/eventlog.h"
#include "include/texprt.h"
#include "process/table.h"

#include <benchmark/benchmark.h>
#include <hk/hk.h>

#include <vector>

namespace {

int loaded_entries = -1;

void Fill(int entries) {
    if (loaded_entries == entries) return;
    if (loaded_entries < 0) {
        InitializeEventLog();
        InitializeProcessGlobals();
    }
    StopProcessTable();
    FastMutexGuard guard(&ProcessTableLock);
    for (int i = 0; i < entries; ++i) {
        ProcessEntry fresh{};
        fresh.ProcessId = ULONG(8 + 4 * i);
        BOOLEAN inserted = FALSE;
        auto *entry =
            static_cast<ProcessEntry *>(RtlInsertElementGenericTable(&ProcessTable, &fresh, sizeof(fresh), &inserted));
        if (entry == nullptr || !inserted) std::abort();
        InitializeAncestorImageList(&entry->AncestorImages);
    }
    loaded_entries = entries;
}

enum Pattern { Scattered = 0, Bursts = 1 };
constexpr size_t kBurst = 16;

// A fixed sequence of ids, drawn at random, each repeated for a burst.
std::vector<ULONG> Order(int entries, Pattern pattern) {
    const size_t run = pattern == Bursts ? kBurst : 1;
    std::vector<ULONG> ids;
    ids.reserve(size_t(entries) * run);
    uint64_t x = 0x9E3779B97F4A7C15ull;
    for (int i = 0; i < entries; ++i) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        ids.insert(ids.end(), run, ULONG(8 + 4 * (x % uint64_t(entries))));
    }
    return ids;
}

void BM_FindAndDereference(benchmark::State &state) {
    const int entries = int(state.range(0));
    if (state.thread_index() == 0) Fill(entries);
    const auto ids = Order(entries, Pattern(state.range(1)));
    size_t next = size_t(state.thread_index()) * 7919 * kBurst;
    for (auto _ : state) {
        const ULONG id = ids[next++ % ids.size()];
        ProcessEntry *entry = FindProcessEntry(id);
        benchmark::DoNotOptimize(entry);
        DereferenceProcess(id, 0);
    }
    state.counters["lookups_per_second"] =
        benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK(BM_FindAndDereference)
    ->ArgNames({"entries", "bursts"})
    ->ArgsProduct({{100, 1000, 10000, 100000}, {Scattered, Bursts}})
    ->Threads(1)
    ->Threads(2)
    ->UseRealTime();

}  // namespace

int main(int argc, char **argv) {
    hk::Reset();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    StopProcessTable();
    benchmark::Shutdown();
    return 0;
}
