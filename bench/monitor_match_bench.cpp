// Matching one event against the monitor rule sets: a generated policy of N
// file, registry or network rules, each on its own directory, key or remote
// address, installed in the live store as a policy update leaves it. Two
// events per kind and size: a miss that passes every rule's operation test
// and shares the rules' leading text, so that each rule costs a real name
// comparison, and a hit on exactly one rule. The event is built once; the
// timed loop is a match and the cleanup of its result, as a monitor does per
// event.
//
// Reports the time per rule, which should stay flat as the set grows, and
// the pool allocations per event: none for a miss, one (the matched
// contexts) for a hit. Beside them: one rule's path comparison alone, with
// and without case folding, and the file miss matched from one and from two
// threads at once, to show that readers of the store do not hold each other
// up.
#include "diagnostics/eventlog.h"
#include "include/texprt.h"
#include "policy/monitor.h"
#include "rules/store.h"
#include "tpol.h"

#include <benchmark/benchmark.h>
#include <hk/hk.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>

namespace {

enum class Kind { File, Registry, Network };

// Rule i of a set of one kind. Numbers are zero-padded, so that every rule's
// text has the same length and the miss below shares the same prefix with
// each of them.
std::string RuleSource(Kind kind, int i) {
    std::ostringstream r;
    char id[40], number[8];
    std::snprintf(id, sizeof id, "%08x-0000-4000-8000-%012x", i, i);
    std::snprintf(number, sizeof number, "%05d", i);
    r << "    - {contexts: [{id: " << id << "}], ";
    switch (kind) {
        case Kind::File:
            // Office documents written anywhere below one project directory,
            // except Word's lock files.
            r << "category: file, type: 3, path: '\\DEVICE\\HARDDISKVOLUME2\\DATA\\PROJECTS\\P" << number
              << "', depth: any, operations: 0x6, include: [{patterns: ['*.DOCX', '*.XLSX']}], "
                 "exclude: [{patterns: ['~$*']}]";
            break;
        case Kind::Registry:
            // One application's key and everything below it, changed by the
            // registry tools.
            r << "category: registry, type: 4, path: '\\REGISTRY\\MACHINE\\SOFTWARE\\VENDOR\\APP" << number
              << "', depth: any, operations: 0xc, operations2: 0x4, "
                 "include: [{actor_processes: ['REGEDIT.EXE', 'REG.EXE']}]";
            break;
        case Kind::Network:
            // Outbound TLS to one host.
            r << "category: network, type: 10, operations: 0x1, include: [{remote: {addresses: ['10.20." << i / 250
              << "." << i % 250 + 1 << "'], ports: [443, 8443]}}]";
            break;
    }
    r << "}\n";
    return r.str();
}

const std::vector<uint8_t> &Policy(Kind kind, int rules) {
    static std::map<std::pair<Kind, int>, std::vector<uint8_t>> cache;
    auto &bytes = cache[{kind, rules}];
    if (bytes.empty()) {
        std::string yaml = "monitor:\n  rules:\n";
        for (int i = 0; i < rules; ++i) yaml += RuleSource(kind, i);
        bytes = tpol::CompileText(yaml, "generated");
        bytes.resize(bytes.size() + 3, 0);  // the reader's image is BodyLength + 40 bytes
    }
    return bytes;
}

// Loads the policy into the live store, unless it is there already: the
// benchmark function runs several times per size, and its hit and miss
// share one policy.
bool Install(Kind kind, int rules) {
    static std::pair<Kind, int> installed{Kind::File, 0};
    if (installed == std::make_pair(kind, rules)) return true;
    std::vector<uint8_t> image(Policy(kind, rules));
    MonitorRuleSets edr{}, fim{};
    MonitorWhiteListRuleSet *whitelist = nullptr;
    if (ParseMonitorPolicy(image.data(), &edr, &fim, &whitelist) != STATUS_SUCCESS) return false;
    if (InstallMonitorRuleSets(&edr, &fim, whitelist) != STATUS_SUCCESS) {
        FreeMonitorRuleSets(&edr);
        FreeMonitorRuleSets(&fim);
        if (whitelist) FreeMonitorWhiteListRuleSet(whitelist);
        return false;
    }
    installed = {kind, rules};
    return true;
}

// A rule's number as its text spells it.
std::string Number(int i) {
    char text[8];
    std::snprintf(text, sizeof text, "%05d", i);
    return text;
}

// A UNICODE_STRING over text this side owns.
struct Wide {
    explicit Wide(const std::string &utf8) : text(hk::Utf16(utf8)) {
        us.Buffer = text.data();
        us.Length = USHORT(text.size() * 2);
        us.MaximumLength = USHORT(text.size() * 2);
    }
    std::u16string text;
    UNICODE_STRING us{};
};

// The acting process as a monitor passes it: the 32-byte fixed part, then
// the Win32 image path and the NT image file name, no security descriptor
// and no SID.
class Actor {
public:
    Actor(const std::string &win32_path, const std::string &image_file_name) {
        const std::u16string win32 = hk::Utf16(win32_path), image = hk::Utf16(image_file_name);
        size_ = ULONG(sizeof(ActorInformation) + (win32.size() + image.size()) * 2);
        storage_.assign((size_ + 7) / 8, 0);
        auto *info = Block();
        info->ProcessId = 4712;
        info->ThreadId = 4716;
        info->CreateTime.QuadPart = hk::kDefaultBootTime;
        info->Win32ImagePathLength = USHORT(win32.size() * 2);
        info->ImageFileNameLength = USHORT(image.size() * 2);
        auto *text = reinterpret_cast<char *>(info + 1);
        std::memcpy(text, win32.data(), win32.size() * 2);
        std::memcpy(text + win32.size() * 2, image.data(), image.size() * 2);
    }
    ActorInformation *Block() { return reinterpret_cast<ActorInformation *>(storage_.data()); }
    ULONG Size() const { return size_; }

private:
    std::vector<uint64_t> storage_;
    ULONG size_ = 0;
};

// An hour into the machine's first day.
constexpr ULONGLONG kEventTime = hk::kDefaultBootTime + 3600 * hk::kTicksPerSecond;
constexpr ULONG kTimeLow = ULONG(kEventTime), kTimeHigh = ULONG(kEventTime >> 32);

// One event of each kind, built as its monitor builds it and released when
// it goes. Names are given in mixed case: the copies are upper-cased. A hit
// falls under the rule in the middle of the set.
struct FileEvent {
    static constexpr Kind kKind = Kind::File;
    static std::string Target(bool hit, int rules) {
        return "\\Device\\HarddiskVolume2\\Data\\Projects\\P" + Number(hit ? rules / 2 : 99999) +
               "\\Reports\\Q3 Review.docx";
    }
    explicit FileEvent(const std::string &target)
        : actor("C:\\Program Files\\Microsoft Office\\root\\Office16\\WINWORD.EXE",
                "\\Device\\HarddiskVolume2\\Program Files\\Microsoft Office\\root\\Office16\\WINWORD.EXE") {
        Wide name(target);
        const USHORT volume = USHORT(std::string("\\Device\\HarddiskVolume2").size() * 2);
        status = TcTFeInitializeFileObject(&object, &name.us, volume, TEXPRT_OBJECT_FILE, FILE_ATTRIBUTE_ARCHIVE,
                                           48 * 1024, 0);
        if (NT_SUCCESS(status))
            status = TcTFeAddFileEventInfo(&object, kTimeLow, kTimeHigh, actor.Block(), actor.Size(), 0x2);
    }
    ~FileEvent() { TcTFeCleanupFileObject(&object); }
    NTSTATUS Match(WhiteListState *state, FilterResult *result) {
        return TcTFeMatchesMonitorFileRuleSet(&object, state, result);
    }
    Actor actor;
    FileObject object{};
    NTSTATUS status;
};

struct RegistryEvent {
    static constexpr Kind kKind = Kind::Registry;
    static std::string Target(bool hit, int rules) {
        return "\\Registry\\Machine\\Software\\Vendor\\App" + Number(hit ? rules / 2 : 99999) + "\\Settings";
    }
    explicit RegistryEvent(const std::string &target)
        : actor("C:\\Windows\\regedit.exe", "\\Device\\HarddiskVolume2\\Windows\\regedit.exe") {
        Wide key(target);
        status = TcTFeInitializeRegistryObject(&object, &key.us, nullptr, TEXPRT_OBJECT_REGISTRY_KEY);
        if (NT_SUCCESS(status))
            status = TcTFeAddRegistryEventInfo(&object, kTimeLow, kTimeHigh, actor.Block(), actor.Size(), 0x4);
    }
    ~RegistryEvent() { TcTFeCleanupRegistryObject(&object); }
    NTSTATUS Match(WhiteListState *state, FilterResult *result) {
        return TcTFeMatchesMonitorRegistryRuleSet(&object, state, result);
    }
    Actor actor;
    RegistryObject object{};
    NTSTATUS status;
};

struct NetworkEvent {
    static constexpr Kind kKind = Kind::Network;
    // The miss shares "10.20." with every rule's address.
    static std::string Target(bool hit, int rules) {
        const int i = rules / 2;
        return hit ? "10.20." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1) : "10.20.99.99";
    }
    explicit NetworkEvent(const std::string &target)
        : actor("C:\\Program Files\\Tolvex\\Sync\\SYNC.EXE",
                "\\Device\\HarddiskVolume2\\Program Files\\Tolvex\\Sync\\SYNC.EXE") {
        Wide local("192.168.1.20"), remote(target);
        status = TcTFeInitializeNetworkObject(&object, 50123, 443, &local.us, &remote.us);
        if (NT_SUCCESS(status))
            status = TcTFeAddNetworkEventInfo(&object, kTimeLow, kTimeHigh, actor.Block(), actor.Size(), 0x1);
        object.ProtocolBits = 0x1;
    }
    ~NetworkEvent() { TcTFeCleanupNetworkObject(&object); }
    NTSTATUS Match(WhiteListState *state, FilterResult *result) {
        return TcTFeMatchesMonitorNetworkRuleSet(&object, state, result);
    }
    Actor actor;
    NetworkObject object{};
    NTSTATUS status;
};

// Times per event and per rule, and pool allocations per event.
template <typename Event>
void BM_Match(benchmark::State &state) {
    const int rules = int(state.range(0));
    const bool hit = state.range(1) != 0;
    if (!Install(Event::kKind, rules)) {
        state.SkipWithError("the generated policy did not install");
        return;
    }
    Event event(Event::Target(hit, rules));
    if (!NT_SUCCESS(event.status)) {
        state.SkipWithError("the event object could not be built");
        return;
    }
    WhiteListState exempt{};  // a process the whitelist says nothing about
    FilterResult result{};
    // One match ahead of the loop: the event must get the verdict it was made
    // for, or the figures measure something else.
    if (event.Match(&exempt, &result) != STATUS_SUCCESS ||
        result.Status != (hit ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL) || result.ContextCount != (hit ? 1u : 0u)) {
        TcTFeCleanupResult(&result);
        state.SkipWithError(hit ? "the hit did not match exactly one rule" : "the miss matched a rule");
        return;
    }
    TcTFeCleanupResult(&result);

    const uint64_t allocations_before = hk::PoolAllocationCalls();
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        benchmark::DoNotOptimize(event.Match(&exempt, &result));
        benchmark::DoNotOptimize(result.Status);
        TcTFeCleanupResult(&result);
    }
    const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - start;
    const uint64_t allocations = hk::PoolAllocationCalls() - allocations_before;

    // Plain numbers rather than rate counters, so that the console and the
    // JSON output both show nanoseconds.
    const double events = double(state.iterations());
    state.counters["rules"] = rules;
    state.counters["ns_per_rule"] = elapsed.count() / events / rules;
    state.counters["allocs_per_event"] = double(allocations) / events;
}

void Sizes(benchmark::internal::Benchmark *b) {
    b->ArgNames({"rules", "hit"})->ArgsProduct({{10, 100, 1000, 10000}, {0, 1}});
}

BENCHMARK_TEMPLATE(BM_Match, FileEvent)->Name("BM_FileMatch")->Apply(Sizes);
BENCHMARK_TEMPLATE(BM_Match, RegistryEvent)->Name("BM_RegistryMatch")->Apply(Sizes);
BENCHMARK_TEMPLATE(BM_Match, NetworkEvent)->Name("BM_NetworkMatch")->Apply(Sizes);

// One rule's name comparison alone, as the file and registry walks make it
// for the miss above: the whole shared prefix, then a differing digit. Both
// texts are upper-cased, as the rule's and the event's copies are; the
// argument says whether the comparison folds case all the same.
void BM_RulePathComparison(benchmark::State &state) {
    const Wide rule("\\DEVICE\\HARDDISKVOLUME2\\DATA\\PROJECTS\\P00500");
    const Wide name("\\DEVICE\\HARDDISKVOLUME2\\DATA\\PROJECTS\\P99999\\REPORTS\\Q3 REVIEW.DOCX");
    const BOOLEAN ignore_case = state.range(0) != 0;
    for (auto _ : state) benchmark::DoNotOptimize(TcTFeIsSubPathOfRulePath(&rule.us, &name.us, ignore_case));
}

BENCHMARK(BM_RulePathComparison)->ArgName("ignore_case")->Arg(1)->Arg(0);

// The file miss from several threads at once: each has its own event and
// result, and all read the one store under its shared lock. Host threads
// need no set-up to call the kernel routines the match uses: hostkernel
// adopts a thread it did not create on its first call, with its own IRQL,
// critical region depth and floating-point saves.
void InstallFileRules(const benchmark::State &state) {
    if (Install(Kind::File, int(state.range(0)))) return;
    std::fprintf(stderr, "the generated policy did not install\n");
    std::abort();
}

void BM_FileMissThreads(benchmark::State &state) {
    FileEvent event(FileEvent::Target(false, int(state.range(0))));
    if (!NT_SUCCESS(event.status)) {
        state.SkipWithError("the event object could not be built");
        return;
    }
    WhiteListState exempt{};
    FilterResult result{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(event.Match(&exempt, &result));
        benchmark::DoNotOptimize(result.Status);
        TcTFeCleanupResult(&result);
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_FileMissThreads)
    ->ArgName("rules")
    ->Arg(1000)
    ->Setup(InstallFileRules)
    ->Threads(1)
    ->Threads(2)
    ->UseRealTime();

}  // namespace

// The machine as phase 0 leaves it, with the System Monitor registered; at
// the end, the store is emptied and anything left in the pool or any rule
// of the kernel broken on the way is reported.
int main(int argc, char **argv) {
    hk::Reset();
    InitializeEventLog();
    MonitorObjects[PreferredMonitorObject] = hk::CreateDriverObject("\\Driver\\tmon");
    const size_t pool_at_start = hk::OutstandingPoolBytes();

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    RemoveMonitorRuleSets();
    int failed = 0;
    for (const auto &complaint : hk::VerifierComplaints()) {
        std::fprintf(stderr, "verifier: %s\n", complaint.c_str());
        failed = 1;
    }
    if (hk::OutstandingPoolBytes() != pool_at_start) {
        std::fprintf(stderr, "pool left behind:\n%s", hk::LeakReport().c_str());
        failed = 1;
    }
    return failed;
}
