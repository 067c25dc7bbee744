// The monitor policy's records one by one: every record kind reports its own
// label and version when its magic is wrong, every string bound holds, and
// the file reader works on real files of every shape.
#include "policy/monitor.h"
#include "support/library_test.h"
#include "tpol.h"

#include <cstring>
#include <filesystem>

using namespace texprt_test;

namespace {

class MonitorRecordsTest : public LibraryTest {
protected:
    void TearDown() override {
        Release();
        LibraryTest::TearDown();
    }
    NTSTATUS Parse(std::vector<uint8_t> bytes) {
        Release();
        bytes.resize(bytes.size() + 3, 0xC5);  // the reader's BodyLength + 40
        return ParseMonitorPolicy(bytes.data(), &edr, &fim, &whitelist);
    }
    void Release() {
        FreeMonitorRuleSets(&edr);
        FreeMonitorRuleSets(&fim);
        if (whitelist) FreeMonitorWhiteListRuleSet(whitelist);
        whitelist = nullptr;
    }
    static std::vector<std::string> MismatchEvents() {
        std::vector<std::string> out;
        for (auto &e : hk::EventLog()) {
            if (e.id != 0x80060010) continue;
            std::string line;
            for (auto &s : e.strings) line += (line.empty() ? "" : " ") + hk::Utf8(s);
            out.push_back(line);
        }
        return out;
    }

    MonitorRuleSets edr{}, fim{};
    MonitorWhiteListRuleSet *whitelist = nullptr;
};

// One rule of every category, between them holding every record kind once
// or more; the first occurrence of each magic is the one a test patches.
const char kEveryRecord[] = R"(
monitor:
  rules:
    - {category: file, type: 2, operations: 1, contexts: [{id: 11111111111111111111111111111111}], path: F,
       include: [{conditions: [patterns, actor_process, actor_username], patterns: [p], actor_processes: [a],
                  actor_usernames: [1]}]}
    - {category: registry, type: 4, operations: 1, contexts: [{id: 22222222222222222222222222222222}], path: R,
       include: [{conditions: [patterns], patterns: [q]}]}
    - {category: process, type: 6, operations: 1, contexts: [{id: 33333333333333333333333333333333}], path: P,
       include: [{conditions: [value], value: 1}]}
    - {category: system, type: 7, operations: 1, contexts: [{id: 44444444444444444444444444444444}], path: S,
       include: [{conditions: [patterns], patterns: [s]}]}
    - {category: network, type: 10, operations: 1, contexts: [{id: 55555555555555555555555555555555}],
       include: [{conditions: [local_address], local: {addresses: [h], ports: [1], port_ranges: [[2, 3]]}}]}
    - {category: whitelist, type: 8, contexts: [{id: 66666666666666666666666666666666}], path: W,
       include: [{conditions: [arguments, parents], arguments: [g], parents: [x]}]}
)";

size_t FindMagic(const std::vector<uint8_t> &bytes, uint32_t magic) {
    uint8_t pattern[4];
    std::memcpy(pattern, &magic, 4);
    for (size_t at = 36; at + 4 <= bytes.size(); ++at)
        if (std::memcmp(&bytes[at], pattern, 4) == 0) return at;
    return 0;
}

TEST_F(MonitorRecordsTest, EveryRecordKindReportsItsOwnLabelAndVersion) {
    const auto pristine = tpol::CompileText(kEveryRecord);
    ASSERT_EQ(Parse(pristine), STATUS_SUCCESS);
    struct Case {
        uint32_t magic;
        const char *label;
        NTSTATUS status;
    } cases[] = {
        {0x52480001, "Rule Magic Number", STATUS_DATA_ERROR},
        {0x52434801, "Rule Context Header", STATUS_INVALID_PARAMETER},
        {0x52424602, "File Rule Body Header", STATUS_INVALID_PARAMETER},
        {0x52464602, "File Rule Filter Header", STATUS_INVALID_PARAMETER},
        {0x52425201, "Registry Rule Body Header", STATUS_INVALID_PARAMETER},
        {0x52524602, "Registry Rule Filter Header", STATUS_INVALID_PARAMETER},
        {0x52425002, "Process Rule Body Header", STATUS_INVALID_PARAMETER},
        {0x52504603, "Process Rule Filter Header", STATUS_INVALID_PARAMETER},
        {0x52425301, "System Rule Body Header", STATUS_INVALID_PARAMETER},
        {0x52505302, "System Rule Filter Header", STATUS_INVALID_PARAMETER},
        {0x52424E01, "Network Rule Body Header", STATUS_INVALID_PARAMETER},
        {0x524E4601, "Network Rule Filter Header", STATUS_INVALID_PARAMETER},
        {0x52425702, "Whitelist Rule Body Header", STATUS_INVALID_PARAMETER},
        {0x52505701, "Whitelist Rule Filter Header", STATUS_INVALID_PARAMETER},
        {0x46504801, "Filter Pattern Header", STATUS_INVALID_PARAMETER},
        {0x46415001, "Actor Process Filter Header", STATUS_INVALID_PARAMETER},
        {0x46415501, "Actor Username Filter Header", STATUS_INVALID_PARAMETER},
        {0x46414801, "Argument Filter Header", STATUS_INVALID_PARAMETER},
        {0x46505001, "Parent Process Filter Header", STATUS_INVALID_PARAMETER},
        {0x46786501, "Network Address Filter Header", STATUS_INVALID_PARAMETER},
        {0x46787801, "Network Port Number Filter Header", STATUS_INVALID_PARAMETER},
        {0x46788201, "Network Port Range Filter Header", STATUS_INVALID_PARAMETER},
    };
    for (const auto &c : cases) {
        auto bytes = pristine;
        const size_t at = FindMagic(bytes, c.magic);
        ASSERT_NE(at, 0u) << c.label;
        bytes[at] = 0x07;  // a version nobody wrote
        tpol::Reseal(bytes);
        hk::ClearEventLog();
        EXPECT_EQ(Parse(bytes), c.status) << c.label;
        char expected[16];
        std::snprintf(expected, sizeof expected, " 0x7 0x%X", unsigned(c.magic & 0xFF));
        EXPECT_EQ(MismatchEvents(), std::vector<std::string>{c.label + std::string(expected)}) << c.label;
        EXPECT_EQ(whitelist, nullptr) << c.label;
    }
}

TEST_F(MonitorRecordsTest, PolicyStringsStayInsideTheirRecord) {
    struct Case {
        const char *what;
        USHORT length, maximum;
        std::u16string text;
        ULONG available;
        bool terminated, misaligned;
        NTSTATUS status;
    } cases[] = {
        {"exactly fits", 4, 6, {u'a', u'b', 0}, 6, true, false, STATUS_SUCCESS},
        {"room beyond MaximumLength", 4, 6, {u'a', u'b', 0, u'z'}, 8, true, false, STATUS_SUCCESS},
        {"MaximumLength past the record", 4, 6, {u'a', u'b', 0}, 4, true, false, STATUS_DATA_ERROR},
        {"Length above MaximumLength", 6, 4, {u'a', u'b', u'c'}, 8, false, false, STATUS_DATA_ERROR},
        {"odd Length", 3, 6, {u'a', u'b', 0}, 6, false, false, STATUS_DATA_ERROR},
        {"odd MaximumLength", 2, 5, {u'a', 0, 0}, 6, false, false, STATUS_DATA_ERROR},
        {"no NUL where one is needed", 4, 4, {u'a', u'b'}, 4, true, false, STATUS_DATA_ERROR},
        {"no NUL where none is needed", 4, 4, {u'a', u'b'}, 4, false, false, STATUS_SUCCESS},
        {"an early NUL will do", 4, 6, {0, u'b', u'c'}, 6, true, false, STATUS_SUCCESS},
        {"text at an odd address", 2, 4, {u'a', 0}, 4, false, true, STATUS_SUCCESS},
        {"text at an odd address, needing its NUL", 4, 6, {u'a', u'b', 0}, 6, true, true, STATUS_SUCCESS},
        {"text at an odd address without a NUL", 4, 4, {u'a', u'b'}, 4, true, true, STATUS_DATA_ERROR},
        {"empty", 0, 0, {}, 0, false, false, STATUS_SUCCESS},
    };
    for (const auto &c : cases) {
        std::vector<uint8_t> record(8 + 2 + c.text.size() * 2 + 2, 0);
        std::memcpy(&record[0], &c.length, 2);
        std::memcpy(&record[2], &c.maximum, 2);
        const size_t text_at = c.misaligned ? 9 : 8;
        if (!c.text.empty()) std::memcpy(&record[text_at], c.text.data(), c.text.size() * 2);
        PolicyText text;
        EXPECT_EQ(ReadPolicyString(record.data(), record.data() + text_at, c.available, c.terminated, &text), c.status)
            << c.what;
        if (c.status != STATUS_SUCCESS) continue;
        const UNICODE_STRING &view = text.View;
        EXPECT_EQ(view.Length, c.length) << c.what;
        EXPECT_EQ(view.MaximumLength, c.maximum) << c.what;
        if (c.misaligned) {
            // Read through an aligned copy of all MaximumLength bytes.
            EXPECT_EQ(uintptr_t(view.Buffer) & 1, 0u) << c.what;
            EXPECT_EQ(std::memcmp(view.Buffer, record.data() + text_at, c.maximum), 0) << c.what;
        } else {
            EXPECT_EQ(static_cast<void *>(view.Buffer), record.data() + text_at) << c.what;
        }
        uint32_t reference;
        std::memcpy(&reference, &record[4], 4);
        EXPECT_EQ(reference, uint32_t(uintptr_t(record.data() + text_at))) << c.what;
    }
}

// The texts of every rule as the sets hold them, in set order.
std::vector<std::string> Texts(const MonitorRuleSets &family, const MonitorWhiteListRuleSet *whitelist) {
    std::vector<std::string> out;
    auto patterns = [&](const RuleFilter *filters, ULONG count) {
        for (ULONG f = 0; f < count; ++f) {
            for (ULONG p = 0; p < filters[f].FilterPatternCount; ++p) out.push_back(Text(&filters[f].FilterPatterns[p].Text));
            for (ULONG a = 0; a < filters[f].ActorProcessCount; ++a) out.push_back(Text(&filters[f].ActorProcesses[a].Text));
            for (ULONG a = 0; a < filters[f].ArgumentCount; ++a) out.push_back(Text(&filters[f].Arguments[a].Text));
            for (ULONG a = 0; a < filters[f].ParentProcessCount; ++a)
                out.push_back(Text(&filters[f].ParentProcesses[a].Text));
        }
    };
    auto paths = [&](const auto *set) {
        if (set == nullptr) return;
        for (ULONG r = 0; r < set->RuleCount; ++r) {
            out.push_back(Text(&set->Rules[r].Path));
            patterns(set->Rules[r].IncludeFilters, set->Rules[r].IncludeCount);
        }
    };
    paths(family.File);
    paths(family.Registry);
    paths(family.Process);
    paths(family.System);
    if (family.Network != nullptr)
        for (ULONG g = 0; g < 2; ++g)
            for (ULONG a = 0; a < family.Network->Rules[0].IncludeFilters[0].AddressCount[g]; ++a)
                out.push_back(Text(&family.Network->Rules[0].IncludeFilters[0].Addresses[g][a].Text));
    paths(whitelist);
    return out;
}

// A writer may leave a record of odd size; every text behind it then stands
// at an odd offset of the image. The texts read as they would at an even
// one, and the policy loads the same rules.
TEST_F(MonitorRecordsTest, TextsBehindARecordOfOddSizeReadAsWritten) {
    const auto even = tpol::CompileText(kEveryRecord);
    ASSERT_EQ(Parse(even), STATUS_SUCCESS);
    const auto expected = Texts(edr, whitelist);
    ASSERT_GE(expected.size(), 12u);

    // One more byte at the end of the first record, which says so.
    auto odd = even;
    uint32_t record_size, body_length;
    std::memcpy(&record_size, &odd[36 + 4], 4);
    std::memcpy(&body_length, &odd[8], 4);
    odd.insert(odd.begin() + 36 + record_size, 0);
    ++record_size;
    ++body_length;
    std::memcpy(&odd[36 + 4], &record_size, 4);
    std::memcpy(&odd[8], &body_length, 4);
    tpol::Reseal(odd);
    ASSERT_EQ(Parse(odd), STATUS_SUCCESS);
    EXPECT_EQ(Texts(edr, whitelist), expected);
}

class MonitorFileTest : public MonitorRecordsTest {
protected:
    void SetUp() override {
        MonitorRecordsTest::SetUp();
        std::string pattern = (std::filesystem::temp_directory_path() / "monitorfileXXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        host_ = pattern;
        hk::AddVolume("\\Device\\HarddiskVolume2", host_);
        hk::CreateSymbolicLink("\\??\\C:", "\\Device\\HarddiskVolume2");
    }
    void TearDown() override {
        std::filesystem::remove_all(host_);
        MonitorRecordsTest::TearDown();
    }
    NTSTATUS Load(const std::string &path) {
        Release();
        Wide name(path);
        return LoadMonitorPolicy(&name.us, &edr, &fim, &whitelist);
    }
    static void Write(const std::string &path, const std::vector<uint8_t> &bytes) {
        ASSERT_TRUE(hk::WriteFile(path, std::string(bytes.begin(), bytes.end())));
    }
    std::string host_;
};

TEST_F(MonitorFileTest, TheReaderTakesWhatTheHeaderSaysAndNoMore) {
    const auto policy = tpol::CompileText(kEveryRecord);
    Write("C:\\Agent\\policy.bin", policy);
    EXPECT_EQ(Load("\\??\\C:\\Agent\\policy.bin"), STATUS_SUCCESS);
    EXPECT_NE(edr.Network, nullptr);
    EXPECT_EQ(whitelist->RuleCount, 1u);

    // The name is case-sensitive to the object manager, and a missing file
    // or directory gives the open's own status.
    EXPECT_EQ(Load("\\??\\C:\\Agent\\POLICY.BIN"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Load("\\??\\C:\\Agent\\other.bin"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Load("\\??\\C:\\Elsewhere\\policy.bin"), STATUS_OBJECT_PATH_NOT_FOUND);

    // Without the byte behind the records, the checksum reads pool fill.
    Write("C:\\Agent\\short.bin", std::vector<uint8_t>(policy.begin(), policy.end() - 1));
    EXPECT_EQ(Load("\\??\\C:\\Agent\\short.bin"), STATUS_DATA_ERROR);

    // Bytes behind what BodyLength names are never read.
    auto longer = policy;
    longer.insert(longer.end(), 100, 0xEE);
    Write("C:\\Agent\\long.bin", longer);
    EXPECT_EQ(Load("\\??\\C:\\Agent\\long.bin"), STATUS_SUCCESS);

    // A BodyLength that would wrap the image size cannot be read at all.
    auto wrapping = policy;
    std::memset(&wrapping[8], 0xFF, 4);
    Write("C:\\Agent\\wrap.bin", wrapping);
    EXPECT_EQ(Load("\\??\\C:\\Agent\\wrap.bin"), STATUS_DATA_ERROR);

    // A file shorter than the header is zero beyond its end: a wrong magic.
    Write("C:\\Agent\\tiny.bin", {0x03, 0x50});
    hk::ClearEventLog();
    EXPECT_EQ(Load("\\??\\C:\\Agent\\tiny.bin"), STATUS_FILE_INVALID);
    EXPECT_EQ(MismatchEvents(), std::vector<std::string>{"Policy Magic Number 0x3 0x3"});
    EXPECT_EQ(edr.File, nullptr);
}

TEST_F(MonitorFileTest, EveryAllocationOfAFileLoadCanFail) {
    Write("C:\\Agent\\policy.bin", tpol::CompileText(kEveryRecord));
    const uint64_t before = hk::PoolAllocationCalls();
    ASSERT_EQ(Load("\\??\\C:\\Agent\\policy.bin"), STATUS_SUCCESS);
    const uint64_t allocations = hk::PoolAllocationCalls() - before;
    Release();
    const size_t outstanding = hk::OutstandingPoolCount();
    for (uint64_t n = 1; n <= allocations; ++n) {
        hk::FailNthAllocation(n);
        const NTSTATUS status = Load("\\??\\C:\\Agent\\policy.bin");
        hk::ClearAllocationFailures();
        // The file system's own allocations fail as the open or the read.
        EXPECT_FALSE(NT_SUCCESS(status)) << n;
        EXPECT_EQ(whitelist, nullptr) << n;
        EXPECT_EQ(hk::OutstandingPoolCount(), outstanding) << n << hk::LeakReport();
    }
}

}  // namespace
