// Loading a monitor policy: a generated policy of N mixed rules (all six
// categories, with filters of every list kind) parsed into its rule sets.
// Reports the time per rule, so that growth beyond linear shows as a rising
// figure, and the non-paged bytes the finished sets hold.
#include "base/strings.h"
#include "diagnostics/eventlog.h"
#include "policy/monitor.h"
#include "tpol.h"

#include <benchmark/benchmark.h>
#include <hk/hk.h>

#include <map>
#include <sstream>

namespace {

// Rule i of the mix: a file, registry, process, system, network or
// whitelist rule, in turn, each with a filter or two.
std::string RuleSource(int i) {
    std::ostringstream r;
    char id[40];
    std::snprintf(id, sizeof id, "%08x-0000-4000-8000-%012x", i, i);
    r << "    - {contexts: [{id: " << id << ", list: " << (i % 7 == 3 ? "fim" : "edr") << "}], ";
    switch (i % 6) {
        case 0:
            r << "category: file, type: 2, operations: 0x3, path: '\\DEVICE\\HARDDISKVOLUME2\\DATA\\D" << i
              << "', include: [{conditions: [patterns, actor_process], patterns: ['*.DOCX', 'REPORTS\\Q" << i
              << "\\*'], actor_processes: ['WINWORD.EXE']}], exclude: [{conditions: [patterns], patterns: ['~$*']}]";
            break;
        case 1:
            r << "category: registry, type: 5, operations2: 0x2, path: '\\REGISTRY\\MACHINE\\SOFTWARE\\K" << i
              << "', value_name: 'V" << i << "', include: [{conditions: [actor_process], actor_processes: ['REG.EXE']}]";
            break;
        case 2:
            r << "category: process, type: 6, operations: 0x1, path: '\\DEVICE\\HARDDISKVOLUME2\\TOOLS\\P" << i
              << ".EXE', include: [{conditions: [actor_username], actor_usernames: [1, 2]}]";
            break;
        case 3:
            r << "category: system, type: 7, operations: 0x1, path: 'S" << i << "'";
            break;
        case 4:
            r << "category: network, type: 10, operations: 0x2, include: [{conditions: [remote_address, remote_port], "
                 "remote: {addresses: ['10.1.*'], ports: [443], port_ranges: [[8000, 8100]]}}]";
            break;
        default:
            r << "category: whitelist, type: 8, operations: 0x3, path: 'C:\\AGENT\\W" << i
              << ".EXE', include: [{conditions: [arguments], arguments: ['--quiet']}]";
    }
    r << "}\n";
    return r.str();
}

const std::vector<uint8_t> &Policy(int rules) {
    static std::map<int, std::vector<uint8_t>> cache;
    auto &bytes = cache[rules];
    if (bytes.empty()) {
        std::string yaml = "monitor:\n  rules:\n";
        for (int i = 0; i < rules; ++i) yaml += RuleSource(i);
        bytes = tpol::CompileText(yaml, "generated");
        bytes.resize(bytes.size() + 3, 0);  // the reader's image is BodyLength + 40 bytes
    }
    return bytes;
}

void FreeAll(MonitorRuleSets &edr, MonitorRuleSets &fim, MonitorWhiteListRuleSet *&whitelist) {
    FreeMonitorRuleSets(&edr);
    FreeMonitorRuleSets(&fim);
    if (whitelist) FreeMonitorWhiteListRuleSet(whitelist);
    whitelist = nullptr;
}

void BM_LoadMonitorPolicy(benchmark::State &state) {
    hk::Reset();
    InitializeEventLog();
    MonitorObjects[PreferredMonitorObject] = hk::CreateDriverObject("\\Driver\\tmon");
    const int rules = int(state.range(0));
    const auto &source = Policy(rules);
    std::vector<uint8_t> image(source);
    MonitorRuleSets edr{}, fim{};
    MonitorWhiteListRuleSet *whitelist = nullptr;
    size_t held = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::copy(source.begin(), source.end(), image.begin());
        state.ResumeTiming();
        const size_t before = hk::OutstandingPoolBytes();
        if (ParseMonitorPolicy(image.data(), &edr, &fim, &whitelist) != STATUS_SUCCESS) {
            state.SkipWithError("the generated policy did not load");
            break;
        }
        held = hk::OutstandingPoolBytes() - before;
        state.PauseTiming();
        FreeAll(edr, fim, whitelist);
        state.ResumeTiming();
    }
    state.SetComplexityN(rules);
    state.counters["rules"] = rules;
    state.counters["time_per_rule"] =
        benchmark::Counter(double(rules), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["nonpaged_bytes"] = double(held);
    state.counters["bytes_per_rule"] = double(held) / rules;
    state.counters["file_bytes"] = double(source.size());
}

BENCHMARK(BM_LoadMonitorPolicy)->Arg(1000)->Arg(2000)->Arg(5000)->Arg(10000)->Unit(benchmark::kMillisecond)->Complexity();

}  // namespace

BENCHMARK_MAIN();
