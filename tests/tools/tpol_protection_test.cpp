// tpol and self-protection policies: the bytes of a rule of each kind at
// offsets worked out by hand, round trips through dump, errors that name the
// line, and check's findings at their offsets.
#include "tpol.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

uint64_t Read(const tpol::Bytes &b, size_t at, int width) {
    uint64_t v = 0;
    for (int i = width - 1; i >= 0; --i) v = v << 8 | b.at(at + i);
    return v;
}

void Write(tpol::Bytes &b, size_t at, int width, uint64_t v) {
    for (int i = 0; i < width; ++i) b.at(at + i) = uint8_t(v >> (8 * i));
}

// One rule of each kind. The directory rule stands at 28 (body 44, path
// text 76, second path text 82, list A's filter 86 with its pattern at 102,
// list B's filter 118 with its pattern at 134), the registry rule at 153
// (body 169, path text 193) and the process rule at 197 (body 213, path text
// 249, its name at 253); the records end at 277.
const char *kEveryKind = R"(
protection:
  mask: 0x5
  registry_count: 9
  directories:
    - type: 2
      path: '\A'
      second_path: 'B'
      depth: 3
      include: [{value: 7, patterns: ['*']}]
      exclude: [{patterns: [{text: 'C', max_length: 7}]}]
  registry:
    - type: 4
      path: 'R'
  processes:
    - type: 6
      path: 'P'
      depth: -1
      process_names: ['N.EXE']
)";

// The agent's layout, worked out by hand: the writer and the parser share
// one description of it, so only a test that knows the bytes on its own
// notices when that description moves a field.
TEST(TpolProtection, EveryRecordStandsWhereTheLoaderReadsIt) {
    const auto binary = tpol::CompileText(kEveryKind);
    ASSERT_EQ(binary.size(), 278u);
    struct Field {
        size_t at;
        int width;
        uint64_t value;
    } fields[] = {
        // The header: the registry count before the directory count.
        {0, 4, 0x54505003}, {4, 4, tpol::Checksum(binary.data() + 28, 249)}, {8, 4, 249}, {12, 4, 5}, {16, 4, 9},
        {20, 4, 1}, {24, 4, 1},
        // The directory rule: its record, the body's two string headers with
        // their text reference slots left 0, then depth and list counts.
        {28, 4, 0x50524802}, {32, 4, 125}, {36, 4, 0}, {40, 4, 2}, {44, 4, 0x50524602}, {48, 2, 4}, {50, 2, 6},
        {52, 4, 0}, {56, 2, 2}, {58, 2, 4}, {60, 4, 0}, {64, 4, 3}, {68, 4, 1}, {72, 4, 1},
        // Its texts, each with its NUL, the second one right behind the first.
        {76, 2, '\\'}, {78, 2, 'A'}, {80, 2, 0}, {82, 2, 'B'}, {84, 2, 0},
        // List A: a filter (reserved word 0) and its pattern.
        {86, 4, 0x50464801}, {90, 4, 0}, {94, 4, 7}, {98, 4, 1}, {102, 4, 0x50504801}, {106, 2, 2}, {108, 2, 4},
        {110, 4, 0}, {114, 2, '*'}, {116, 2, 0},
        // List B: a pattern of MaximumLength 7, padded with zeros.
        {118, 4, 0x50464801}, {126, 4, 0}, {130, 4, 1}, {134, 4, 0x50504801}, {138, 2, 2}, {140, 2, 7},
        {146, 2, 'C'}, {148, 4, 0}, {152, 1, 0},
        // The registry rule, its depth any (-2) by default.
        {153, 4, 0x50524802}, {157, 4, 44}, {161, 4, 1}, {165, 4, 4}, {169, 4, 0x50525201}, {173, 2, 2},
        {175, 2, 4}, {181, 4, 0xFFFFFFFE}, {185, 4, 0}, {189, 4, 0}, {193, 2, 'R'}, {195, 2, 0},
        // The process rule: eight reserved bytes between path and depth.
        {197, 4, 0x50524802}, {201, 4, 80}, {205, 4, 2}, {209, 4, 6}, {213, 4, 0x50525001}, {217, 2, 2},
        {219, 2, 4}, {225, 8, 0}, {233, 4, 0xFFFFFFFF}, {237, 4, 1}, {241, 4, 0}, {245, 4, 0}, {249, 2, 'P'},
        {253, 4, 0x50504501}, {257, 2, 10}, {259, 2, 12}, {265, 2, 'N'}, {273, 2, 'E'}, {275, 2, 0},
        // The byte behind the records, which the checksum covers.
        {277, 1, 0},
    };
    for (const auto &f : fields) EXPECT_EQ(Read(binary, f.at, f.width), f.value) << "offset " << f.at;
    EXPECT_TRUE(tpol::Check(binary).empty());
}

TEST(TpolProtection, EverySeedAndExampleDumpsToSourceThatCompilesToTheSameBytes) {
    int sources = 0;
    const std::string root = TEXPRT_SOURCE_DIR;
    std::vector<std::filesystem::path> paths = {root + "/examples/policies/protection.yaml"};
    for (const auto &entry : std::filesystem::directory_iterator(root + "/fuzz/seeds/protection"))
        if (entry.path().extension() == ".yaml") paths.push_back(entry.path());
    for (const auto &path : paths) {
        ++sources;
        const auto binary = tpol::CompileFile(path.string());
        const std::string dumped = tpol::Dump(binary);
        EXPECT_EQ(tpol::CompileText(dumped, "dump"), binary) << path << "\n" << dumped;
        for (const auto &f : tpol::Check(binary))
            EXPECT_EQ(f.severity, tpol::Finding::Warning) << path << ": " << f.offset << ": " << f.message;
    }
    EXPECT_GE(sources, 4);
    // The example loads without a word.
    EXPECT_TRUE(tpol::Check(tpol::CompileFile(paths[0].string())).empty());
}

TEST(TpolProtection, OddButSealedSourcesRoundTrip) {
    const std::string odd[] = {
        // Records in another order, kinds that are not their body's, a kind
        // the loader refuses, RecordSize and counts that are not the real ones.
        R"(
protection:
  mask: 0
  directory_count: 0
  process_count: 4
  rules:
    - {kind: process, type: 6, path: 'P', process_names: [{text: 'A', max_length: 9}, '']}
    - {kind: 7, body: registry, type: 4, path: 'R'}
    - {kind: directory, body: process, type: 9, path: 'D', record_size: 60}
    - {kind: registry, type: 4, path: '', include: [{patterns: []}, {value: 0xFFFFFFFF, patterns: ['A', 'B']}]}
)",
        // Kinds overridden in the three lists, which stay in their order.
        R"(
protection:
  mask: 0xFFFFFFFF
  directories: [{kind: 2, type: 3, path: 'D', second_path: {text: '', max_length: 0}, depth: 0x7FFFFFFF}]
  registry: []
  processes: [{kind: registry, type: 6, path: {text: 'P', max_length: 5}, depth: -2147483648}]
)",
        "protection:\n  mask: 1\n",
        "protection:\n  mask: 1\n  rules: []\n",
        "protection:\n  mask: 1\n  directories: [{type: 3, path: \"\\x01\\\"'\\u2028\", second_path: '😀'}]\n",
    };
    for (const auto &source : odd) {
        const auto binary = tpol::CompileText(source);
        const std::string dumped = tpol::Dump(binary);
        EXPECT_EQ(tpol::CompileText(dumped, "dump"), binary) << source << "\n" << dumped;
    }
    // An empty second path without its NUL takes no bytes at all.
    const auto bare = tpol::CompileText(
        "protection:\n  mask: 1\n  directories: [{type: 3, path: '', second_path: {text: '', max_length: 0}}]\n");
    EXPECT_EQ(bare.size(), 28u + 16 + 32 + 2 + 1);
    EXPECT_EQ(Read(bare, 28 + 16 + 14, 2), 0u);
}

TEST(TpolProtection, SourceErrorsNameTheLine) {
    const std::string head = "protection:\n  mask: 1\n";
    struct Case {
        std::string source;
        int line;
        const char *message;
    } cases[] = {
        {head + "  direcories: []\n", 3, "unknown key 'direcories' in protection"},
        {"protection:\n  directories: []\n", 2, "protection needs 'mask'"},
        {"protection:\n  mask: -1\n", 2, "mask must be a number"},
        {head + "  directory_count: 0x100000000\n", 3, "directory_count 0x100000000 is out of range"},
        {head + "  directories:\n    - type: 3\n      path: 'A'\n      process_names: []\n", 6,
         "unknown key 'process_names' in a directory rule"},
        {head + "  registry:\n    - type: 4\n      path: 'A'\n      second_path: 'B'\n", 6,
         "unknown key 'second_path' in a registry rule"},
        {head + "  processes:\n    - type: 6\n      depth: 0\n", 4, "a process rule needs 'path'"},
        {head + "  processes:\n    - path: 'A'\n", 4, "a process rule needs 'type'"},
        {head + "  directories:\n    - type: 3\n      path: 'A'\n      depth: deep\n", 6, "depth must be a number or 'any'"},
        {head + "  directories:\n    - type: 3\n      path: 'A'\n      body: process\n", 6, "body stands only in rules"},
        {head + "  directories:\n    - type: 3\n      path: 'A'\n      kind: folder\n", 6,
         "kind must be directory, registry, process or a number, not 'folder'"},
        {head + "  directories: []\n  rules: []\n", 3, "directories cannot stand beside rules"},
        {head + "  rules:\n    - type: 3\n      path: 'A'\n", 4, "a rule of rules needs 'kind'"},
        {head + "  rules:\n    - {type: 3, path: 'A', kind: 3}\n", 4, "a rule of kind 3 needs 'body'"},
        {head + "  rules:\n    - {type: 3, path: 'A', kind: 3,\n       body: 1}\n", 5,
         "body must be directory, registry or process, not '1'"},
        {head + "  rules: {}\n", 3, "rules must be a list"},
        {head + "  directories:\n    - type: 3\n      path: 'A'\n      second_path: {text: 'B', max_length: 3}\n", 6,
         "max_length 3 leaves no room for the text and its NUL (4 bytes)"},
        {head + "  directories:\n    - type: 3\n      path: {text: '', max_length: 0}\n", 5, "max_length 0 leaves no room"},
        {head + "  processes:\n    - type: 6\n      path: 'A'\n      process_names: [{text: 'B', max_length: 1}]\n", 6,
         "max_length 1 leaves no room"},
        {head + "  registry:\n    - type: 4\n      path: 'A'\n      include:\n        - {value: 8, conditions: 2}\n", 7,
         "unknown key 'conditions' in a filter (expected one of: value, patterns)"},
        {head + "  registry:\n    - type: 4\n      path: 'A'\n      exclude:\n        - {value: -8}\n", 7, "value must be a number"},
        {head + "  registry:\n    - type: 4\n      path: 'A'\n      exclude: [{patterns: 'A'}]\n", 6, "patterns must be a list"},
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

TEST(TpolProtection, CheckNamesWhatTheLoaderRefusesAtItsOffset) {
    const std::string base = kEveryKind;
    ASSERT_TRUE(tpol::Check(tpol::CompileText(base)).empty());
    const std::string head = "protection:\n  mask: 1\n";
    const std::string all_kinds = "  registry: [{type: 4, path: 'R'}]\n  processes: [{type: 6, path: 'P'}]\n";
    // Its directory rule at 28 (body 44, path text 76), list A behind it: a
    // filter at 80, its pattern at 96, the second filter at 112.
    const std::string two_filters =
        head + "  directories:\n    - {type: 3, path: 'A', second_path: {text: '', max_length: 0},\n" +
        "       include: [{patterns: ['X']}, {patterns: ['Y']}]}\n" + all_kinds;
    constexpr auto E = tpol::Finding::Error, W = tpol::Finding::Warning;
    struct Case {
        std::string source;
        size_t at;
        int width;
        uint64_t value;
        uint64_t reported_at;
        tpol::Finding::Severity severity;
        const char *message;
        bool reseal = true;  // a DataSize past the end cannot be sealed
    } cases[] = {
        // The header.
        {base, 0, 4, 0x54505002, 0, E, "magic 0x54505002, expected 0x54505003"},
        {base, 8, 4, 1000, 8, E, "DataSize 1000 needs a file of 1029 bytes; the file has 278", false},
        {base, 8, 4, 8, 28, E, "a record's fixed 16 bytes run past DataSize"},
        {base, 16, 4, 0, 16, W, "RegistryRuleCount 0: the loader makes no registry set"},
        {base, 16, 4, 0, 161, E, "a registry rule, and RegistryRuleCount is 0: the loader has no set"},
        {base, 24, 4, 0, 24, W, "store installs all three sets or none"},
        {base, 24, 4, 0, 205, E, "a process rule, and ProcessRuleCount is 0"},
        {head + "  directory_count: 0\n  registry_count: 0\n  process_count: 0\n", 0, 0, 0, 16, E,
         "all three rule counts are 0"},
        // The rule records.
        {base, 28, 4, 0x50524801, 28, E, "rule magic 0x50524801, expected 0x50524802"},
        {base, 28, 4, 0x50524801, 28, E, "'Self-Protection Rule Magic Number', version 1, expected 2"},
        {base, 32, 4, 0, 32, E, "RecordSize 0: the loader's walk never ends"},
        {base, 32, 4, 1000, 32, E, "RecordSize 1000 runs past DataSize"},
        {base, 36, 4, 3, 36, E, "ProtectionKind 3: the loader refuses anything above 2"},
        {base, 40, 4, 4, 40, W, "RuleType 4 in the directory set: it loads, but every match that reaches it fails"},
        {base, 165, 4, 3, 165, W, "RuleType 3 in the registry set"},
        {base, 209, 4, 2, 209, W, "(the matcher takes 6)"},
        {base, 205, 4, 1, 213, E, "registry rule body magic 0x50525001, expected 0x50525201"},
        {head + "  directory_count: 1\n  directories: [{type: 3, path: 'A'}, {type: 3, path: 'B'}]\n" + all_kinds, 0,
         0, 0, 82, W, "directory rule 2 is more than DirectoryRuleCount 1: the loader does not notice, and writes it beyond the set's capacity"},
        // The bodies: a process body is reported under the registry label.
        {base, 44, 4, 0x50524601, 44, E,
         "directory rule body magic 0x50524601, expected 0x50524602: the loader reports 'Self-Protection "
         "Directory Rule Body Header', version 1, expected 2"},
        {base, 169, 4, 0x50525202, 169, E, "'Self-Protection Registry Rule Body Header', version 2, expected 2"},
        {base, 213, 4, 0x50525002, 213, E,
         "process rule body magic 0x50525002, expected 0x50525001: the loader reports 'Self-Protection Registry "
         "Rule Body Header', version 2, expected 2"},
        // Texts.
        {base, 48, 2, 6, 48, E, "the text of Length 6 has no NUL behind it within MaximumLength 6"},
        {base, 50, 2, 2, 50, E, "MaximumLength 2 is less than Length 4"},
        {base, 48, 2, 3, 48, W, "odd Length 3"},
        {base, 58, 2, 0xFFFF, 58, E, "MaximumLength 65535 runs past the end of the record"},
        {base, 173, 2, 4, 173, E, "has no NUL"},
        {base, 257, 2, 12, 257, E, "has no NUL"},
        // Counts and lists.
        {base, 68, 4, 5, 68, E, "ListACount 5 runs past the end of the record"},
        {base, 72, 4, 0, 118, W, "35 bytes behind the rule's last filter, inside its RecordSize, are never read"},
        {base, 130, 4, 2, 130, E, "PatternCount 2 runs past"},
        {base, 237, 4, 2, 237, E, "ProcessNameCount 2 runs past"},
        {base, 86, 4, 0x50464802, 86, E, "filter magic 0x50464802, expected 0x50464801: the loader reports "
                                         "'Self-Protection Rule Filter Header', version 2, expected 1"},
        {base, 118, 4, 0, 118, E, "filter magic 0x0"},
        {two_filters, 112, 4, 0, 112, W, "the loader tests only the first filter of a list and takes this one on trust"},
        {base, 102, 4, 0x50504802, 102, E, "pattern magic 0x50504802, expected 0x50504801: the loader reports "
                                           "'Self-Protection Filter Pattern Header', version 2, expected 1"},
        {base, 253, 4, 0x50504502, 253, E, "process name magic 0x50504502, expected 0x50504501: the loader reports "
                                           "'Self-Protection Process Name', version 2, expected 1"},
        {head + "  directories: [{type: 3, path: 'A', include: [{value: 1}]}]\n" + all_kinds, 0, 0, 0, 94, W,
         "a filter without patterns never holds"},
    };
    for (const auto &c : cases) {
        auto bad = tpol::CompileText(c.source);
        if (c.width) Write(bad, c.at, c.width, c.value);
        if (c.width && c.reseal) tpol::Reseal(bad);
        bool found = false;
        std::string all;
        for (const auto &f : tpol::Check(bad)) {
            found = found || (f.offset == c.reported_at && f.severity == c.severity &&
                              f.message.find(c.message) != std::string::npos);
            all += "\n  " + std::to_string(f.offset) + (f.severity == E ? " error: " : " warning: ") + f.message;
        }
        EXPECT_TRUE(found) << c.message << " at " << c.reported_at << "; findings:" << all;
    }
    // A second path of Length 0 is never read, whatever its bytes.
    auto empty_second = tpol::CompileText(base);
    Write(empty_second, 56, 2, 0);
    tpol::Reseal(empty_second);
    EXPECT_TRUE(tpol::Check(empty_second).empty());
    // Without a reseal the checksum is all there is to say first.
    auto unsealed = tpol::CompileText(base);
    unsealed[78] = 'B';
    ASSERT_FALSE(tpol::Check(unsealed).empty());
    EXPECT_EQ(tpol::Check(unsealed)[0].offset, 4u);
    EXPECT_EQ(tpol::Check(unsealed)[0].severity, E);
}

TEST(TpolProtection, DumpRefusesWhatNoSourceSaysAndNamesTheOffset) {
    struct Case {
        size_t at;
        int width;
        uint64_t value;
        const char *prefix;
    } cases[] = {
        {0, 4, 0x54505002, "offset 0x0:"},     // another version of the format
        {52, 1, 1, "offset 0x34:"},            // text reference slot of the path
        {84, 2, 'x', "offset 0x38:"},          // the second path's NUL, named at its header
        {90, 1, 1, "offset 0x5A:"},            // a filter's reserved word
        {229, 1, 1, "offset 0xE5:"},           // the process body's reserved bytes
        {150, 1, 1, "offset 0x96:"},           // padding behind a pattern's NUL
        {86, 4, 0, "offset 0x56:"},            // a filter magic
        {253, 4, 0, "offset 0xFD:"},           // a process name magic
        {169, 4, 0x50525202, "offset 0xA9:"},  // a body of none of the three magics
        {106, 2, 3, "offset 0x6A:"},           // odd Length
        {76, 2, 0xDC00, "offset 0x4C:"},       // unpaired surrogate
        {278, 1, 0, "offset 0x115:"},          // a byte behind the sealing zero
    };
    for (const auto &c : cases) {
        auto bad = tpol::CompileText(kEveryKind);
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
    // Later filters of a list are not tested by the loader, but a source
    // cannot write a wrong magic: dump refuses too.
    auto later = tpol::CompileText(
        "protection:\n  mask: 1\n  registry: [{type: 4, path: '', include: [{patterns: []}, {patterns: []}]}]\n");
    Write(later, 28 + 16 + 24 + 2 + 16, 4, 0);
    tpol::Reseal(later);
    EXPECT_THROW(tpol::Dump(later), std::runtime_error);
}

}  // namespace
