// The monitor policy loader: filter compiles, the rule bodies and their
// quirks, the container's walks, refusals of files that say more than they
// hold, and every allocation of a load failing in turn.
#include "base/strings.h"
#include "diagnostics/eventlog.h"
#include "policy/monitor.h"
#include "support/library_test.h"
#include "tpol.h"

#include <cstring>
#include <functional>

using namespace texprt_test;

namespace {

class MonitorPolicyTest : public LibraryTest {
protected:
    void TearDown() override {
        Release();
        LibraryTest::TearDown();
    }
    // The image the file reader would give: the file and pool bytes behind it.
    static std::vector<uint8_t> Image(const std::string &yaml) { return Padded(tpol::CompileText(yaml)); }
    static std::vector<uint8_t> Padded(std::vector<uint8_t> bytes) {
        bytes.resize(bytes.size() + 3, 0xC5);
        return bytes;
    }
    NTSTATUS Parse(std::vector<uint8_t> &image) {
        Release();
        return ParseMonitorPolicy(image.data(), &edr, &fim, &whitelist);
    }
    NTSTATUS ParseYaml(const std::string &yaml) {
        image_ = Image(yaml);
        return Parse(image_);
    }
    void Release() {
        FreeMonitorRuleSets(&edr);
        FreeMonitorRuleSets(&fim);
        if (whitelist) FreeMonitorWhiteListRuleSet(whitelist);
        whitelist = nullptr;
    }
    std::vector<std::string> Events() {
        std::vector<std::string> out;
        for (auto &e : hk::EventLog()) {
            char id[16];
            std::snprintf(id, sizeof id, "%08X", unsigned(e.id));
            std::string line = id;
            for (auto &s : e.strings) line += " " + hk::Utf8(s);
            out.push_back(line);
        }
        return out;
    }

    MonitorRuleSets edr{}, fim{};
    MonitorWhiteListRuleSet *whitelist = nullptr;
    std::vector<uint8_t> image_;
};

constexpr char kId[] = "6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10";

std::string Rule(const std::string &body, const std::string &list = "edr") {
    return "    - {list: " + list + ", contexts: [{id: " + kId + "}], " + body + "}\n";
}
std::string Policy(const std::string &rules, const std::string &extra = "") {
    return "monitor:\n" + extra + "  rules:\n" + rules;
}

// ------------------------------------------------------------ filter compiles

TEST_F(MonitorPolicyTest, FilterTextsCompileToTheirForms) {
    enum Kind { Pattern, Actor, Argument, Address };
    struct Case {
        Kind kind;
        const char *text;
        const char *stored;
        ULONG flags;
        ULONG separators;
    } cases[] = {
        {Pattern, "\\WINDOWS\\SYSTEM32\\*.EXE", "WINDOWS\\SYSTEM32\\*.EXE", PatternRooted | PatternWildcards, 2},
        {Pattern, "windows\\system32", "WINDOWS\\SYSTEM32", PatternRelativePath, 1},
        {Pattern, "notepad.exe", "NOTEPAD.EXE", 0, 0},
        {Pattern, "*.tmp", "*.TMP", PatternWildcards, 0},
        // The first component with a wildcard decides, whatever follows.
        {Pattern, "\\temp*\\logs\\today", "TEMP*\\LOGS\\TODAY", PatternRooted | PatternWildcards, 2},
        {Pattern, "cache<\\x", "CACHE<\\X", PatternWildcards | PatternRelativePath, 1},
        {Pattern, "\\", "", PatternRooted, 0},
        {Pattern, "\xc3\xa9t\xc3\xa9.txt", "\xc3\x89T\xc3\x89.TXT", 0, 0},
        {Actor, "\\a\\b", "\\A\\B", PatternHasBackslash, 1},
        {Actor, "power*.exe", "POWER*.EXE", PatternWildcards, 0},
        // The whole-text wildcard test looks at the final component only.
        {Actor, "c:\\tools*\\x.exe", "C:\\TOOLS*\\X.EXE", PatternHasBackslash, 2},
        {Argument, "-enc ?", "-ENC ?", PatternWildcards, 0},
        {Argument, "\\Windows\\explorer.exe", "\\WINDOWS\\EXPLORER.EXE", PatternHasBackslash, 0},
        {Address, "10.0.0.*", "10.0.0.*", PatternWildcards, 0},
        {Address, "192.168.1.1", "192.168.1.1", 0, 0},
    };
    for (const auto &c : cases) {
        // The file's text is NUL-terminated behind its Length.
        std::u16string text = hk::Utf16(c.text);
        UNICODE_STRING file{USHORT(text.size() * 2), USHORT(text.size() * 2 + 2), nullptr};
        text.push_back(0);
        file.Buffer = text.data();
        FilterPatternElement element{};
        NTSTATUS status;
        switch (c.kind) {
            case Pattern: status = CompileFilterPattern(&element, &file); break;
            case Actor: status = CompileActorProcessFilter(&element, &file); break;
            default: {
                TextFilterElement text{};
                status = c.kind == Argument ? CompileArgumentFilter(&text, &file)
                                            : CompileNetworkAddressFilter(&text, &file);
                element.Text = text.Text;
                element.PatternFlags = text.PatternFlags;
            }
        }
        ASSERT_EQ(status, STATUS_SUCCESS) << c.text;
        EXPECT_EQ(Text(&element.Text), c.stored) << c.text;
        EXPECT_EQ(element.Text.MaximumLength, element.Text.Length + 2) << c.text;
        EXPECT_EQ(element.Text.Buffer[element.Text.Length / 2], 0) << c.text;
        EXPECT_EQ(element.PatternFlags, c.flags) << c.text;
        EXPECT_EQ(element.SeparatorCount, c.separators) << c.text;
        FreeUnicodeString(&element.Text);
    }
}

TEST_F(MonitorPolicyTest, ALengthOf0xFFFEWrapsAndFailsTheCompile) {
    std::u16string text(0x7FFF, u'A');
    text.back() = 0;
    UNICODE_STRING source{0xFFFE, 0xFFFE, text.data()};
    FilterPatternElement element{};
    EXPECT_EQ(CompileFilterPattern(&element, &source), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(element.Text.Buffer, nullptr);
}

TEST_F(MonitorPolicyTest, TimeWordsTakeTheirBytesUnchecked) {
    const TimeOfDay t = DecodeTimeOfDay(0xFFFFFFFFFF123456ull);
    EXPECT_EQ(t.Hour, 0x12);
    EXPECT_EQ(t.Minute, 0x34);
    EXPECT_EQ(t.Second, 0x56);
    const TimeOfDay zero = DecodeTimeOfDay(0);
    EXPECT_EQ(zero.Hour + zero.Minute + zero.Second, 0);
}

// ------------------------------------------------------------ bodies

TEST_F(MonitorPolicyTest, PathsAreStoredAsEachKindKeepsThem) {
    struct Case {
        const char *category;
        const char *extra;
        const char *path;
        const char *stored;
    } cases[] = {
        {"file", "type: 2, operations: 0x1", "\\Device\\X\\Users\\", "\\DEVICE\\X\\USERS"},
        {"file", "type: 2, operations: 0x1", "\\a\\\\", "\\A\\"},
        {"registry", "type: 4, operations: 0x1", "\\Registry\\Machine\\", "\\REGISTRY\\MACHINE"},
        {"process", "type: 6, operations: 0x1", "C:\\Tools\\", "C:\\TOOLS\\"},
        {"system", "type: 7, operations: 0x1", "\\x\\", "\\X"},
        {"whitelist", "type: 8, operations: 0", "C:\\Agent\\", "C:\\AGENT\\"},
    };
    for (const auto &c : cases) {
        const std::string body = std::string("category: ") + c.category + ", " + c.extra + ", path: '" + c.path + "'";
        ASSERT_EQ(ParseYaml(Policy(Rule(body))), STATUS_SUCCESS) << body;
        PCUNICODE_STRING path = edr.File       ? &edr.File->Rules[0].Path
                                : edr.Registry ? &edr.Registry->Rules[0].Path
                                : edr.Process  ? &edr.Process->Rules[0].Path
                                : edr.System   ? &edr.System->Rules[0].Path
                                               : &whitelist->Rules[0].Path;
        EXPECT_EQ(Text(path), c.stored) << body;
    }
}

TEST_F(MonitorPolicyTest, RulesAreRefusedOrTakenAsTheirKindSays) {
    struct Case {
        const char *body;
        NTSTATUS status;
    } cases[] = {
        {"category: file, type: 3, operations: 0, operations2: 0x100, path: x", STATUS_SUCCESS},
        {"category: file, type: 2, operations: 0, operations2: 0x100, path: x", STATUS_INVALID_PARAMETER},
        {"category: file, type: 2, operations: 0x40, path: x", STATUS_INVALID_PARAMETER},
        {"category: file, type: 9, operations: 0, path: x", STATUS_SUCCESS},  // other types go unjudged
        {"category: registry, type: 5, operations: 0x100, operations2: 0x200, path: x", STATUS_INVALID_PARAMETER},
        {"category: registry, type: 5, operations2: 0x2, path: x, value_name: Run", STATUS_SUCCESS},
        {"category: process, type: 6, operations: 0x80, path: x", STATUS_INVALID_PARAMETER},
        {"category: system, type: 7, operations: 0x2, path: x", STATUS_INVALID_PARAMETER},
        {"category: system, type: 7, operations: 0x1, path: ''", STATUS_INVALID_PARAMETER},
        {"category: network, type: 10, operations: 0x8", STATUS_INVALID_PARAMETER},
        {"category: whitelist, type: 8, operations: 0, path: x", STATUS_SUCCESS},
        {"category: file, type: 2, operations: 1, path: x, include: [{conditions: [object_kind], object_kind: 0x100}]",
         STATUS_INVALID_PARAMETER},
        {"category: registry, type: 4, operations: 1, path: x, include: [{conditions: 0x10000}]",
         STATUS_INVALID_PARAMETER},
        {"category: process, type: 6, operations: 1, path: x, include: [{conditions: 0x10000}]", STATUS_SUCCESS},
    };
    for (const auto &c : cases) EXPECT_EQ(ParseYaml(Policy(Rule(c.body))), c.status) << c.body;
}

TEST_F(MonitorPolicyTest, AFileRuleKeepsEveryFilterField) {
    ASSERT_EQ(ParseYaml(Policy(Rule(R"(category: file, type: 3, flags: 0x1FF, depth: 4, operations: 0x3,
      operations2: 0x10, path: '\D',
      include: [{conditions: [object_kind, attributes, size, patterns, actor_process, actor_username, time],
                 object_kind: 1, attributes: 0x20, size: {op: '>=', value: 0x100000000},
                 patterns: ['\W\*.EXE', b], actor_processes: [x.exe], actor_usernames: [0x1FF],
                 time: {start: '08:30:05', end: '18:00:00'}},
                {conditions: [patterns], patterns: ['*']}],
      exclude: [{conditions: [patterns], patterns: [tmp]}])"))),
              STATUS_SUCCESS);
    ASSERT_NE(edr.File, nullptr);
    const FileRuleBody &rule = edr.File->Rules[0];
    EXPECT_EQ(rule.RuleFlags, 0xFF);
    EXPECT_EQ(rule.Depth, 4);
    EXPECT_EQ(rule.ContextCount, 1u);
    EXPECT_EQ(rule.Contexts[0].RuleList, RuleListEdr);
    EXPECT_EQ(rule.Contexts[0].RuleId[0], 0x6b1f3a52u);
    EXPECT_EQ(rule.Contexts[0].Extra, 0u);
    ASSERT_EQ(rule.IncludeCount, 2u);
    ASSERT_EQ(rule.ExcludeCount, 1u);
    const RuleFilter &f = rule.IncludeFilters[0];
    EXPECT_EQ(f.Conditions, 0x7Fu);
    EXPECT_EQ(f.ObjectKind, 1u);
    EXPECT_EQ(f.AttributeMask, 0x20u);
    EXPECT_EQ(f.SizeOperator, 2u);
    EXPECT_EQ(f.SizeOperand, 0x100000000ull);
    EXPECT_EQ(f.StartTime.Hour, 8);
    EXPECT_EQ(f.StartTime.Minute, 30);
    EXPECT_EQ(f.StartTime.Second, 5);
    EXPECT_EQ(f.EndTime.Hour, 18);
    ASSERT_EQ(f.FilterPatternCount, 2u);
    EXPECT_EQ(Text(&f.FilterPatterns[0].Text), "W\\*.EXE");
    EXPECT_EQ(Text(&f.FilterPatterns[1].Text), "B");
    ASSERT_EQ(f.ActorUsernameCount, 1u);
    EXPECT_EQ(f.ActorUsernames[0], 0xFF);
    EXPECT_EQ(Text(&rule.ExcludeFilters[0].FilterPatterns[0].Text), "TMP");
}

TEST_F(MonitorPolicyTest, NetworkFiltersKeepTheirGroupsInFileOrder) {
    ASSERT_EQ(ParseYaml(Policy(Rule(R"(category: network, type: 10, operations: 0x2,
      include: [{conditions: 0x10, protocol: 6, local: {addresses: ['10.*'], ports: [0x10050], port_ranges: [[90, 80]]},
                 remote: {ports: [443, 8443]}},
                {conditions: [time]}],
      exclude: [{conditions: [remote_address], remote: {addresses: [1.2.3.4]}}])"))),
              STATUS_SUCCESS);
    ASSERT_NE(edr.Network, nullptr);
    const NetworkRuleBody &rule = edr.Network->Rules[0];
    ASSERT_EQ(rule.IncludeCount, 2u);
    const NetworkRuleFilter &f = rule.IncludeFilters[0];
    EXPECT_EQ(f.ObjectKind, 6u);
    ASSERT_EQ(f.AddressCount[0], 1u);
    EXPECT_EQ(f.Addresses[0][0].PatternFlags, PatternWildcards);
    ASSERT_EQ(f.PortCount0, 1u);
    EXPECT_EQ(f.Ports0[0], 0x50);  // the low 16 bits of the word
    ASSERT_EQ(f.PortRangeCount0, 1u);
    EXPECT_EQ(f.PortRanges0[0].Low, 90);  // stored as it stands
    EXPECT_EQ(f.PortRanges0[0].High, 80);
    ASSERT_EQ(f.PortCount1, 2u);
    EXPECT_EQ(f.Ports1[1], 8443);
    // A filter with no lists is its 64-byte header, and the exclude list
    // starts right behind it.
    EXPECT_EQ(rule.IncludeFilters[1].Conditions, 0x40u);
    ASSERT_EQ(rule.ExcludeCount, 1u);
    EXPECT_EQ(Text(&rule.ExcludeFilters[0].Addresses[1][0].Text), "1.2.3.4");
    EXPECT_EQ(rule.ExcludeFilters[0].Addresses[1][0].PatternFlags, 0u);
}

TEST_F(MonitorPolicyTest, WhiteListFiltersHoldArgumentsAndParentsButNoTimes) {
    ASSERT_EQ(ParseYaml(Policy(Rule(R"(category: whitelist, type: 9, operations: 0x3, path: 'C:\A\agent.exe',
      include: [{conditions: [arguments, parents], arguments: ['--service', '*'], parents: ['\services.exe']}])",
                                    "fim"))),
              STATUS_SUCCESS);
    ASSERT_NE(whitelist, nullptr);
    EXPECT_EQ(fim.File, nullptr);  // kept whatever its list, and counted by no list
    const RuleFilter &f = whitelist->Rules[0].IncludeFilters[0];
    EXPECT_EQ(f.ArgumentCount, 2u);
    EXPECT_EQ(f.Arguments[1].PatternFlags, PatternWildcards);
    EXPECT_EQ(Text(&f.ParentProcesses[0].Text), "\\SERVICES.EXE");
    EXPECT_EQ(f.ParentProcesses[0].PatternFlags, PatternHasBackslash);
    EXPECT_EQ(f.StartTime.Hour + f.EndTime.Hour, 0);
}

// ------------------------------------------------------------ the container

TEST_F(MonitorPolicyTest, AnEmptyBodyGivesElevenNullSets) {
    ASSERT_EQ(ParseYaml("monitor: {rules: []}"), STATUS_SUCCESS);
    for (auto *family : {&edr, &fim}) {
        MonitorRuleSets none{};
        EXPECT_EQ(std::memcmp(family, &none, sizeof none), 0);
    }
    EXPECT_EQ(whitelist, nullptr);
}

TEST_F(MonitorPolicyTest, TheTwoListsBuildTwoFamilies) {
    const std::string rules = Rule("category: file, type: 2, operations: 1, path: a") +
                              Rule("category: file, type: 2, operations: 1, path: b", "fim") +
                              Rule("category: registry, type: 4, operations: 1, path: c", "fim") +
                              Rule("category: process, type: 6, operations: 1, path: d", "3") +
                              Rule("category: whitelist, type: 8, path: e");
    ASSERT_EQ(ParseYaml(Policy(rules, "  whitelist_capacity: 3\n")), STATUS_SUCCESS);
    ASSERT_NE(edr.File, nullptr);
    EXPECT_EQ(edr.File->RuleCount, 1u);
    EXPECT_EQ(Text(&fim.File->Rules[0].Path), "B");
    EXPECT_EQ(fim.Registry->Capacity, 1u);
    EXPECT_EQ(edr.Registry, nullptr);
    EXPECT_EQ(edr.Process, nullptr);  // list 3 belongs to neither
    EXPECT_EQ(fim.Process, nullptr);
    EXPECT_EQ(whitelist->RuleCount, 1u);
    EXPECT_EQ(whitelist->Capacity, 3u);
}

TEST_F(MonitorPolicyTest, BadFilesAreRefusedAndReported) {
    const std::string one = Rule("category: file, type: 2, operations: 1, path: a");
    struct Case {
        const char *what;
        std::string yaml;
        std::function<void(std::vector<uint8_t> &)> patch;
        NTSTATUS status;
        std::string event;
        bool reseal = true;  // sealed as a writer would seal it
    } cases[] = {
        // Not resealed: the checksum catches these.
        {"a body byte", Policy(one), [](auto &b) { b[60] ^= 1; }, STATUS_DATA_ERROR, "", false},
        {"the byte behind the records", Policy(one), [](auto &b) { b.back() ^= 1; }, STATUS_DATA_ERROR, "", false},
        {"list 3 with category 9", Policy(Rule("category: process, type: 6, path: a", "3")),
         [](auto &b) { b[44] = 9; }, STATUS_INVALID_PARAMETER, ""},
        {"a whitelist filter with usernames",
         Policy(Rule("category: whitelist, type: 8, path: a, include: [{conditions: 0x80}]")),
         [](auto &b) { b[124] = 1; }, STATUS_INVALID_PARAMETER, ""},
        {"a whitelist rule without capacity", Policy(Rule("category: whitelist, type: 8, path: a"),
                                                     "  whitelist_capacity: 0\n"),
         nullptr, STATUS_DATA_ERROR, ""},
        {"more whitelist rules than capacity",
         Policy(Rule("category: whitelist, type: 8, path: a") + Rule("category: whitelist, type: 8, path: b"),
                "  whitelist_capacity: 1\n"),
         nullptr, STATUS_BUFFER_OVERFLOW, ""},
        {"a rule magic", Policy(one), [](auto &b) { b[36] = 7; }, STATUS_DATA_ERROR,
         "80060010 Rule Magic Number 0x7 0x1"},
        {"a context magic", Policy(one), [](auto &b) { b[52] = 2; }, STATUS_INVALID_PARAMETER,
         "80060010 Rule Context Header 0x2 0x1"},
        {"a body magic", Policy(one), [](auto &b) { b[36 + 44] = 1; }, STATUS_INVALID_PARAMETER,
         "80060010 File Rule Body Header 0x1 0x2"},
        {"no contexts", Policy(one), [](auto &b) { b[56] = 0; }, STATUS_INVALID_PARAMETER, ""},
        {"a RecordSize of 0", Policy(one), [](auto &b) { std::memset(&b[40], 0, 4); }, STATUS_DATA_ERROR, ""},
        {"a RecordSize past the end", Policy(one), [](auto &b) { b[40] += 2; }, STATUS_DATA_ERROR, ""},
        {"a context count past the record", Policy(one), [](auto &b) { b[56] = 0x40; }, STATUS_DATA_ERROR, ""},
        {"a path MaximumLength past the record", Policy(one), [](auto &b) { b[36 + 44 + 10] = 0xF0; },
         STATUS_DATA_ERROR, ""},
        {"a Length above MaximumLength", Policy(one), [](auto &b) { b[36 + 44 + 8] = 6; }, STATUS_DATA_ERROR, ""},
        {"an include count past the record", Policy(one), [](auto &b) { b[36 + 44 + 20] = 1; }, STATUS_DATA_ERROR,
         ""},
    };
    for (auto &c : cases) {
        auto bytes = tpol::CompileText(c.yaml);
        if (c.patch) {
            c.patch(bytes);
            if (c.reseal) tpol::Reseal(bytes);
        }
        hk::Reset();
        InitializeEventLog();
        MonitorObjects[PreferredMonitorObject] = hk::CreateDriverObject("\\Driver\\tmon");
        auto image = Padded(bytes);
        EXPECT_EQ(Parse(image), c.status) << c.what;
        EXPECT_EQ(edr.File, nullptr) << c.what;
        EXPECT_EQ(whitelist, nullptr) << c.what;
        const auto events = Events();
        if (c.event.empty()) {
            EXPECT_TRUE(events.empty()) << c.what << ": " << Joined(events);
        } else {
            EXPECT_EQ(events, std::vector<std::string>{c.event}) << c.what;
        }
        EXPECT_EQ(hk::OutstandingPoolCount(), 0u) << c.what << hk::LeakReport();
    }
}

TEST_F(MonitorPolicyTest, OnlyTheFirstFilterOfAListHasItsMagicTested) {
    auto bytes = tpol::CompileText(Policy(Rule(
        "category: registry, type: 4, operations: 1, path: a, include: [{conditions: 2}, {conditions: 2}]")));
    const size_t second = bytes.size() - 1 - 72;  // the last filter, behind the first
    ASSERT_EQ(bytes[second], 0x02);
    bytes[second] = 0x77;
    tpol::Reseal(bytes);
    auto image = Padded(bytes);
    ASSERT_EQ(Parse(image), STATUS_SUCCESS);
    EXPECT_EQ(edr.Registry->Rules[0].IncludeCount, 2u);
}

TEST_F(MonitorPolicyTest, EveryAllocationOfALoadCanFail) {
    const std::string rules =
        Rule("category: file, type: 2, operations: 1, path: a, include: [{conditions: [patterns, actor_process, "
             "actor_username], patterns: [x, y], actor_processes: [p], actor_usernames: [1]}], exclude: "
             "[{conditions: 2, patterns: [z]}]") +
        Rule("category: registry, type: 5, operations2: 1, path: r, value_name: v, include: [{conditions: 0x10, "
             "actor_processes: [q]}]",
             "fim") +
        Rule("category: process, type: 6, operations: 1, path: p") + Rule("category: system, type: 7, operations: 1, path: s") +
        Rule("category: network, type: 10, operations: 1, include: [{conditions: 0x10, actor_processes: [n], "
             "actor_usernames: [2], local: {addresses: [a], ports: [1], port_ranges: [[1, 2]]}, remote: {addresses: "
             "[b], ports: [3], port_ranges: [[4, 5]]}}]") +
        Rule("category: whitelist, type: 8, path: w, include: [{conditions: 0x180, arguments: [g], parents: [h]}]");
    const auto yaml = Policy(rules);
    const uint64_t before = hk::PoolAllocationCalls();
    ASSERT_EQ(ParseYaml(yaml), STATUS_SUCCESS);
    const uint64_t allocations = hk::PoolAllocationCalls() - before;
    ASSERT_GT(allocations, 40u);
    Release();
    for (uint64_t n = 1; n <= allocations; ++n) {
        auto image = Image(yaml);
        hk::FailNthAllocation(n);
        EXPECT_EQ(Parse(image), STATUS_INSUFFICIENT_RESOURCES) << n;
        EXPECT_EQ(whitelist, nullptr);
        EXPECT_EQ(hk::OutstandingPoolCount(), 0u) << n << hk::LeakReport();
    }
}

}  // namespace
