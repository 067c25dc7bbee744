// tpol and monitor policies: the bytes of one rule of each category at
// offsets worked out by hand, round trips through dump, errors that name the
// line, and check's findings at their offsets.
#include "tpol.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

const char *kId = "6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10";

uint64_t Read(const tpol::Bytes &b, size_t at, int width) {
    uint64_t v = 0;
    for (int i = width - 1; i >= 0; --i) v = v << 8 | b.at(at + i);
    return v;
}

void Write(tpol::Bytes &b, size_t at, int width, uint64_t v) {
    for (int i = 0; i < width; ++i) b.at(at + i) = uint8_t(v >> (8 * i));
}

// A policy of one rule; lines 1 to 6 (5 without a path), then `more`.
std::string Rule(const std::string &category, const std::string &more = "", const std::string &path = "'A'") {
    return "monitor:\n  rules:\n    - category: " + category + "\n      type: 2\n      contexts: [{id: " + kId + "}]\n" +
           (path.empty() ? "" : "      path: " + path + "\n") + more;
}

// Every rule below starts at 36 and has one context, so its body is at 80.
const char *kFileRule = R"(
    - category: file
      type: 2
      contexts: [{id: 6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10}]
      flags: 0x2
      path: '\A'
      depth: 3
      operations: 0x1
      operations2: 0x4
      include:
        - patterns: ['*.EXE']
          size: {op: '<', value: 10}
)";
const char *kWhiteListRule = R"(
    - category: whitelist
      type: 9
      contexts: [{id: 6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10}]
      path: 'W'
      operations: 0x10
      include:
        - arguments: ['-x']
          parents: ['P']
)";

TEST(TpolMonitor, EachCategoryLaysOutItsRecordAsTheLoaderReadsIt) {
    struct Field {
        size_t at;
        int width;
        uint64_t value;
    };
    struct Case {
        std::string rule;
        uint32_t record_size;
        std::vector<Field> fields;
    } cases[] = {
        {kFileRule, 182, {{0, 4, 0x54425003}, {28, 4, 0}, {36, 4, 0x52480001}, {44, 4, 2}, {48, 4, 2}, {52, 4, 0x52434801},
                          {56, 4, 1}, {60, 4, 2}, {64, 4, 0x6B1F3A52}, {80, 4, 0x52424602}, {84, 4, 2}, {88, 2, 4},
                          {90, 2, 6}, {92, 4, 0}, {96, 4, 3}, {100, 4, 1}, {104, 4, 0}, {108, 4, 1}, {112, 4, 4},
                          {116, 2, '\\'}, {118, 2, 'A'}, {120, 2, 0}, {122, 4, 0x52464602}, {126, 4, 0xA}, {134, 4, 1},
                          {154, 4, 5}, {162, 8, 10}, {194, 4, 0x46504801}, {198, 2, 10}, {200, 2, 12}, {206, 2, '*'},
                          {216, 2, 0}}},
        {R"(
    - category: registry
      type: 5
      list: fim
      contexts: [{id: 6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10}]
      path: '\R'
      value_name: 'V'
      operations: 0x2
)",
         94, {{44, 4, 3}, {48, 4, 5}, {60, 4, 1}, {80, 4, 0x52425201}, {84, 2, 4}, {86, 2, 6}, {92, 2, 2}, {94, 2, 4},
              {100, 4, 0xFFFFFFFE}, {104, 8, 0}, {112, 4, 2}, {116, 4, 0}, {120, 2, '\\'}, {126, 2, 'V'}, {128, 2, 0}}},
        {R"(
    - category: process
      type: 6
      contexts: [{id: 6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10}]
      path: 'P'
      operations: 0x1
      exclude:
        - value: 0x1234
          actor_usernames: [0x102]
)",
         156, {{44, 4, 1}, {80, 4, 0x52425002}, {84, 2, 2}, {86, 2, 4}, {96, 4, 0}, {100, 4, 1}, {104, 4, 1}, {108, 2, 'P'},
               {112, 4, 0x52504603}, {116, 4, 0x8020}, {132, 4, 1}, {140, 2, 0x1234}, {184, 4, 0x46415501}, {188, 4, 0x102}}},
        {R"(
    - category: system
      type: 0
      contexts: [{id: 6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10}]
      path: 'S'
      operations: 0x1
      include:
        - time: {start: '01:02:03', end: 0x123456}
)",
         148, {{44, 4, 0}, {80, 4, 0x52425301}, {112, 4, 0x52505302}, {116, 4, 0x40}, {160, 8, 0x010203}, {168, 8, 0x123456}}},
        {R"(
    - category: network
      type: 1
      contexts: [{id: 6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10}]
      operations: 0x4
      include:
        - protocol: 6
          local: {ports: [443]}
          remote: {addresses: ['10.*'], port_ranges: [[1000, 2000]]}
)",
         162, {{44, 4, 5}, {80, 4, 0x52424E01}, {84, 4, 1}, {88, 4, 0}, {92, 4, 4}, {96, 4, 0x524E4601}, {100, 4, 0x3C00},
               {104, 4, 6}, {108, 8, 0}, {116, 4, 0}, {120, 4, 1}, {124, 4, 0}, {128, 4, 1}, {132, 4, 0}, {136, 4, 1},
               {160, 4, 0x46787801}, {164, 4, 443}, {168, 4, 0x46786501}, {172, 2, 8}, {174, 2, 10}, {180, 2, '1'},
               {188, 2, 0}, {190, 4, 0x46788201}, {194, 2, 1000}, {196, 2, 2000}}},
        {kWhiteListRule, 174, {{28, 4, 1}, {44, 4, 4}, {48, 4, 9}, {60, 4, 0}, {80, 4, 0x52425702}, {84, 2, 2}, {86, 2, 4},
                               {92, 4, 1}, {96, 4, 0x10}, {100, 2, 'W'}, {104, 4, 0x52505701}, {108, 4, 0x180},
                               {168, 4, 1}, {172, 4, 1}, {176, 4, 0x46414801}, {180, 2, 4}, {182, 2, 6}, {188, 2, '-'},
                               {194, 4, 0x46505001}, {198, 2, 2}, {200, 2, 4}, {206, 2, 'P'}, {208, 2, 0}}},
    };
    for (const auto &c : cases) {
        const auto binary = tpol::CompileText("monitor:\n  rules:" + c.rule);
        ASSERT_EQ(binary.size(), 36u + c.record_size + 1) << c.rule;
        EXPECT_EQ(Read(binary, 8, 4), c.record_size);
        EXPECT_EQ(Read(binary, 40, 4), c.record_size);
        EXPECT_EQ(Read(binary, 4, 4), tpol::Checksum(binary.data() + 36, c.record_size));
        for (const auto &f : c.fields) EXPECT_EQ(Read(binary, f.at, f.width), f.value) << "offset " << f.at << c.rule;
        EXPECT_TRUE(tpol::Check(binary).empty()) << c.rule;
    }
}

TEST(TpolMonitor, EverySeedAndExampleDumpsToSourceThatCompilesToTheSameBytes) {
    int sources = 0;
    for (const char *dir : {"/fuzz/seeds/monitor", "/examples/policies"}) {
        for (const auto &entry : std::filesystem::directory_iterator(std::string(TEXPRT_SOURCE_DIR) + dir)) {
            if (entry.path().extension() != ".yaml") continue;
            ++sources;
            const auto binary = tpol::CompileFile(entry.path().string());
            const std::string dumped = tpol::Dump(binary);
            EXPECT_EQ(tpol::CompileText(dumped, "dump"), binary) << entry.path() << "\n" << dumped;
            for (const auto &f : tpol::Check(binary)) EXPECT_EQ(f.severity, tpol::Finding::Warning) << entry.path() << f.message;
        }
    }
    EXPECT_GE(sources, 7);
}

TEST(TpolMonitor, OddButSealedSourcesRoundTrip) {
    const std::string odd[] = {
        Rule("file", "      record_size: 24\n      list: 9\n      depth: -7\n"),
        "monitor:\n  whitelist_capacity: 0\n  rules:\n    - {category: 0, type: 1, contexts: [], path: ''}\n",
        Rule("file", "      include:\n        - {conditions: 0x10000, time: {start: 0x1122334455667788, end: '255:0:9'}}\n"),
        Rule("system", "      include:\n        - {conditions: [0x1, patterns], patterns: [\"\\x01\\\"\\\\\\u2028\", {text: '', max_length: 9}]}\n"),
        Rule("network", "      include:\n        - {local: {ports: [0xFFFFFFFF], port_ranges: [{low: 9, high: 1}]}}\n", ""),
    };
    for (const auto &source : odd) {
        const auto binary = tpol::CompileText(source);
        const std::string dumped = tpol::Dump(binary);
        EXPECT_EQ(tpol::CompileText(dumped, "dump"), binary) << source << "\n" << dumped;
    }
}

TEST(TpolMonitor, SourceErrorsNameTheLine) {
    struct Case {
        std::string source;
        int line;
        const char *message;
    } cases[] = {
        {"monitor:\n  rulez: []\n", 2, "unknown key 'rulez' in monitor"},
        {Rule("registry", "      flags: 1\n"), 7, "unknown key 'flags' in a registry rule"},
        {Rule("network"), 6, "unknown key 'path' in a network rule"},
        {Rule("whitelist", "      exclude: []\n"), 7, "unknown key 'exclude' in a whitelist rule"},
        {Rule("file", "      include:\n        - value: 1\n"), 8, "unknown key 'value' in a file filter"},
        {Rule("whitelist", "      include:\n        - patterns: ['A']\n"), 8, "unknown key 'patterns' in a whitelist filter"},
        {Rule("files"), 3, "category must be one of system, process"},
        {Rule("7"), 3, "category 7 is out of range"},
        {Rule("file", "      list: edx\n"), 7, "list must be one of none, fim, edr"},
        {Rule("file", "      depth: deep\n"), 7, "depth must be a number or 'any'"},
        {Rule("file", "      depth: -2147483649\n"), 7, "depth -2147483649 is out of range"},
        {Rule("file", "      include:\n        - time: {start: '25:61:256'}\n"), 8, "time start must be HH:MM:SS"},
        {Rule("file", "      include:\n        - size: {op: '=>', value: 1}\n"), 8, "size op must be one of >, >="},
        {Rule("file", "      include:\n        - patterns: [{text: 'AB', max_length: 4}]\n"), 8, "max_length 4 leaves no room"},
        {Rule("file", "      include:\n        - conditions: [patterns, protocol]\n"), 8, "a condition must be one of"},
        {Rule("file", "      include:\n        - actor_usernames: [-1]\n"), 8, "must be a number"},
        {Rule("network", "      include:\n        - remote: {port_ranges: [[1, 65536]]}\n", ""), 7, "out of range"},
        {"monitor:\n  rules:\n    - category: file\n      type: 2\n      path: 'A'\n", 3, "a file rule needs 'contexts'"},
        {"monitor:\n  rules:\n    - category: file\n      type: 2\n      contexts: [{id: 12}]\n", 5, "id must be GUID text"},
    };
    for (const auto &c : cases) {
        try {
            tpol::CompileText(c.source, "m.yaml");
            ADD_FAILURE() << "compiled: " << c.source;
        } catch (const tpol::SourceError &e) {
            EXPECT_EQ(e.file(), "m.yaml");
            EXPECT_EQ(e.line(), c.line) << e.what();
            EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        }
    }
}

TEST(TpolMonitor, CheckNamesWhatTheLoaderRefusesAtItsOffset) {
    // The file rule at 36 (body 80, filter 122, pattern 194), then the
    // whitelist rule at 218 (body 262, filter 286).
    const std::string base = std::string("monitor:\n  rules:") + kFileRule + kWhiteListRule;
    ASSERT_TRUE(tpol::Check(tpol::CompileText(base)).empty());
    const std::string two_filters = Rule("process", "      operations: 0x1\n      include: [{conditions: 0x10}, {conditions: 0x10}]\n");
    constexpr auto E = tpol::Finding::Error, W = tpol::Finding::Warning;
    struct Case {
        std::string source;
        size_t at;
        int width;
        uint64_t value;
        uint64_t reported_at;
        tpol::Finding::Severity severity;
        const char *message;
    } cases[] = {
        {base, 36, 4, 0x52480002, 36, E, "rule magic 0x52480002"},
        {base, 40, 4, 0, 40, E, "RecordSize 0"},
        {base, 40, 4, 0x1000, 40, E, "RecordSize 4096 runs past BodyLength"},
        {base, 44, 4, 6, 44, E, "RuleCategory 6"},
        {base, 48, 4, 7, 48, W, "file rule type 7"},
        {base, 52, 4, 0, 52, E, "RuleContext magic 0x0"},
        {base, 56, 4, 0, 56, E, "context count 0"},
        {base, 56, 4, 100, 56, E, "context count 100 runs past"},
        {base, 60, 4, 3, 60, W, "RuleList 3 is neither"},
        {base, 80, 4, 0x52424601, 80, E, "file rule body magic 0x52424601"},
        {base, 88, 4, 0x00040006, 90, E, "MaximumLength 4 is less than Length 6"},
        {base, 120, 2, 'x', 88, E, "has no NUL"},
        {base, 100, 4, 2, 100, E, "IncludeCount 2 runs past"},
        {base, 108, 4, 0x40, 108, E, "type 2 needs a bit of 0x1BF"},
        {base, 122, 4, 0, 122, E, "file filter magic 0x0"},
        {base, 126, 4, 0x10000, 126, E, "none of the low 16 bits"},
        {base, 126, 4, 0x1, 130, E, "low byte of ObjectKind is 0"},
        {base, 134, 4, 50, 134, E, "FilterPatternCount 50 runs past"},
        {base, 194, 4, 0, 194, E, "filter pattern record magic 0x0"},
        {base, 200, 2, 0xFFFF, 200, E, "MaximumLength 65535 runs past"},
        {base, 28, 4, 0, 218, E, "WhiteListRuleCapacity is 0"},
        {base, 298, 4, 1, 298, E, "FilterPatternCount 1 in a whitelist filter"},
        {two_filters, 184, 4, 0, 184, W, "takes this one on trust"},
        {Rule("whitelist") + kWhiteListRule + "  whitelist_capacity: 1\n", 0, 0, 0, 104, E, "more than WhiteListRuleCapacity 1"},
        {Rule("network", "      operations: 0x8\n", ""), 0, 0, 0, 92, E, "needs a bit of 0x7"},
        {Rule("registry", "      operations2: 0x100\n"), 0, 0, 0, 112, E, "low byte of OperationMask or OperationMask2"},
        {Rule("process", "      operations: 0x80\n"), 0, 0, 0, 104, E, "needs a bit of 0x7F"},
        {Rule("system", "      operations: 0x1\n", "''"), 0, 0, 0, 84, E, "a system rule needs a path"},
        {Rule("system", "      operations: 0x1\n      include: [{conditions: []}]\n"), 0, 0, 0, 116, E, "Conditions 0x0"},
        {Rule("file", "      record_size: 24\n"), 0, 0, 0, 60, E, "rule magic"},
    };
    for (const auto &c : cases) {
        auto bad = tpol::CompileText(c.source);
        if (c.width) Write(bad, c.at, c.width, c.value), tpol::Reseal(bad);
        bool found = false;
        std::string all;
        for (const auto &f : tpol::Check(bad)) {
            found = found || (f.offset == c.reported_at && f.severity == c.severity && f.message.find(c.message) != std::string::npos);
            all += "\n  " + std::to_string(f.offset) + ": " + f.message;
        }
        EXPECT_TRUE(found) << c.message << " at " << c.reported_at << "; findings:" << all;
    }
    // The loader takes a process filter whatever its Conditions say, and so
    // does the check.
    EXPECT_TRUE(tpol::Check(tpol::CompileText(Rule("process", "      operations: 0x1\n      include: [{conditions: []}]\n")))
                    .empty());
    auto unsealed = tpol::CompileText(base);
    unsealed[118] = 'B';
    ASSERT_FALSE(tpol::Check(unsealed).empty());
    EXPECT_EQ(tpol::Check(unsealed)[0].offset, 4u);
}

TEST(TpolMonitor, DumpRefusesWhatNoSourceSaysAndNamesTheOffset) {
    const std::string base = std::string("monitor:\n  rules:") + kFileRule + kWhiteListRule;
    struct Case {
        size_t at;
        int width;
        uint64_t value;
        const char *prefix;
    } cases[] = {
        {12, 1, 1, "offset 0xC:"},         // reserved header word
        {92, 1, 1, "offset 0x5C:"},        // text reference slot of the path
        {294, 1, 1, "offset 0x126:"},      // ObjectKind, which a whitelist filter does not read
        {122, 4, 0, "offset 0x7A:"},       // filter magic
        {118, 2, 0xD800, "offset 0x76:"},  // unpaired surrogate
        {198, 2, 9, "offset 0xC6:"},       // odd Length
        {393, 1, 0, "offset 0x188:"},      // a byte behind the sealing zero
    };
    for (const auto &c : cases) {
        auto bad = tpol::CompileText(base);
        if (c.at >= bad.size()) bad.resize(c.at + 1);
        Write(bad, c.at, c.width, c.value);
        tpol::Reseal(bad);
        try {
            tpol::Dump(bad);
            ADD_FAILURE() << "dumped a file patched at " << c.at;
        } catch (const std::runtime_error &e) {
            EXPECT_EQ(std::string(e.what()).rfind(c.prefix, 0), 0u) << e.what();
        }
    }
}

}  // namespace
