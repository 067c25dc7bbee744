// tpol: errors that name the line, round trips through dump, and check's
// findings at their offsets.
#include "tpol.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

TEST(Tpol, SourceErrorsNameTheLine) {
    struct Case {
        const char *source;
        int line;
        const char *message;
    } cases[] = {
        {"app_blocking:\n  flags: 1\n  rulez: []\n", 3, "unknown key 'rulez' in app_blocking"},
        {"app_blocking:\n  rules:\n    - id: 12\n", 3, "id must be GUID text"},
        {"app_blocking:\n  rules:\n    - id: 00112233445566778899aabbccddeeff\n      sha256: [abc]\n", 4,
         "a SHA-256 digest is 64 hexadecimal digits"},
        {"app_blocking:\n  tag: 0x100000000\n", 2, "out of range"},
        {"app_blocking:\n  flags: -1\n", 2, "must be a number"},
        {"monitorr: {}\n", 1, "unknown policy kind 'monitorr'"},
        {"app_blocking: [\n", 2, ""},
    };
    for (const auto &c : cases) {
        try {
            tpol::CompileText(c.source, "p.yaml");
            ADD_FAILURE() << "compiled: " << c.source;
        } catch (const tpol::SourceError &e) {
            EXPECT_EQ(e.file(), "p.yaml");
            EXPECT_EQ(e.line(), c.line) << e.what();
            EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        }
    }
}

TEST(Tpol, EverySeedDumpsToSourceThatCompilesToTheSameBytes) {
    int seeds = 0;
    for (const auto &entry :
         std::filesystem::recursive_directory_iterator(std::string(TEXPRT_SOURCE_DIR) + "/fuzz/seeds")) {
        if (entry.path().extension() != ".yaml") continue;
        ++seeds;
        const auto binary = tpol::CompileFile(entry.path().string());
        const std::string dumped = tpol::Dump(binary);
        EXPECT_EQ(tpol::CompileText(dumped, "dump"), binary) << entry.path() << "\n" << dumped;
        EXPECT_TRUE(tpol::Check(binary).empty() ||
                    tpol::Check(binary)[0].severity == tpol::Finding::Warning)
            << entry.path();
    }
    EXPECT_GT(seeds, 0);
}

TEST(Tpol, CheckNamesTheOffset) {
    auto binary = tpol::CompileText(R"(
app_blocking:
  rules:
    - id: 00112233445566778899aabbccddeeff
      sha256: [9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08]
)");
    ASSERT_TRUE(tpol::Check(binary).empty());
    struct Case {
        size_t offset;
        uint8_t value;
        bool reseal;
        uint64_t reported_at;
        const char *message;
    } cases[] = {
        {0x50, 'X', false, 0x4, "checksum"},
        {0x20, 0x02, true, 0x20, "rule magic"},
        {0x44, 0x02, true, 0x44, "HashCount 2 runs past the record"},
        {0x48, 0x07, true, 0x48, "digest entry magic"},
        {0x50, 'X', true, 0x50, "is not 64 hex digits"},
        {0x2C, 0x07, true, 0x2C, "rule type 7"},
        {0x18, 0x00, true, 0x20, "more records than RuleCount 0"},
    };
    for (const auto &c : cases) {
        auto bad = binary;
        bad[c.offset] = c.value;
        if (c.reseal) tpol::Reseal(bad);
        const auto findings = tpol::Check(bad);
        bool found = false;
        for (const auto &f : findings)
            found = found || (f.offset == c.reported_at && f.message.find(c.message) != std::string::npos);
        EXPECT_TRUE(found) << "patched offset " << c.offset << "; findings: " << findings.size();
    }
    EXPECT_THROW(tpol::Dump({1, 2, 3, 4}), std::runtime_error);
}

uint64_t Read(const tpol::Bytes &b, size_t at, int width) {
    uint64_t v = 0;
    for (int i = width - 1; i >= 0; --i) v = v << 8 | b.at(at + i);
    return v;
}

// The agent's layout, worked out by hand: the writer and the parser share
// one description of it, so only a test that knows the bytes on its own
// notices when that description moves a field.
TEST(Tpol, AppBlockingFieldsStandWhereTheAgentPutsThem) {
    const auto binary = tpol::CompileText(R"(
app_blocking:
  flags: 0x1122334455667788
  tag: 0x2a
  reserved: 0x5
  rule_count: 3
  rules:
    - id: 00112233445566778899aabbccddeeff
      category: 0x9
      type: 0x7
      sha256: [9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08]
)");
    ASSERT_EQ(binary.size(), 32u + 40 + 138 + 1);
    struct Field {
        size_t at;
        int width;
        uint64_t value;
    } fields[] = {
        // The header.
        {0, 4, 0x54425001}, {4, 4, tpol::Checksum(binary.data() + 32, 178)}, {8, 4, 178}, {12, 4, 5},
        {16, 8, 0x1122334455667788}, {24, 4, 3}, {28, 4, 0x2a},
        // The rule record, its id in the order of its bytes.
        {32, 4, 0x42524801}, {36, 4, 178}, {40, 4, 9}, {44, 4, 7}, {48, 8, 0x7766554433221100},
        {56, 8, 0xFFEEDDCCBBAA9988}, {64, 4, 0x42525001}, {68, 4, 1},
        // Its one digest entry, then the byte behind the records.
        {72, 4, 0x42465301}, {76, 4, 0}, {80, 2, '9'}, {82, 2, 'f'}, {206, 2, '8'}, {208, 2, 0}, {210, 1, 0},
    };
    for (const auto &f : fields) EXPECT_EQ(Read(binary, f.at, f.width), f.value) << "offset " << f.at;
}

TEST(Tpol, RuleIdsReadAsGuidsOrAsBytes) {
    uint8_t a[16], b[16];
    ASSERT_TRUE(tpol::ParseRuleId("6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10", a));
    ASSERT_TRUE(tpol::ParseRuleId("523a1f6b0e8c7a4f9d210c5e7b9a3f10", b));
    EXPECT_EQ(std::vector<uint8_t>(a, a + 16), std::vector<uint8_t>(b, b + 16));
    EXPECT_EQ(tpol::RuleIdText(a), "6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10");
    EXPECT_FALSE(tpol::ParseRuleId("6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f1", a));
    EXPECT_FALSE(tpol::ParseRuleId("zz1f3a528c0e4f7a9d210c5e7b9a3f10", a));
}

}  // namespace
