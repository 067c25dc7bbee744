// The app-blocking set: digest conversion, the parser under every
// allocation failure, and matches and the SHA-256 query running against
// swaps.
#include "base/strings.h"
#include "diagnostics/eventlog.h"
#include "policy/appblocking.h"
#include "rules/store.h"
#include "fuzz/fuzz_support.h"
#include "support/concurrency.h"
#include "support/library_test.h"
#include "tpol.h"

#include <atomic>
#include <fstream>
#include <cstring>
#include <thread>

using namespace texprt_test;

namespace {

class AppBlockingTest : public LibraryTest {
protected:
    void TearDown() override {
        ClearAppBlockingRuleSet();
        LibraryTest::TearDown();
    }
    // The image the file reader would give: the file and pool bytes behind it.
    static std::vector<uint8_t> Image(const std::string &yaml) {
        auto bytes = tpol::CompileText(yaml);
        bytes.resize(bytes.size() + 7, 0xC5);
        return bytes;
    }
    static AppBlockingRule EmptyRule() {
        AppBlockingRule rule{};
        const ULONG id[4] = {1, 2, 3, 4};
        InitAppBlockingRule(&rule, AppBlockingProcessRuleType, id, 7);
        return rule;
    }
};

const char kTwoRules[] = R"(
app_blocking:
  flags: 0x1
  tag: 0x2a
  rules:
    - id: 6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10
      sha256: [9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08]
    - id: 0d6e3c1a-57b2-4c8e-a1f0-3e9d2b7c6a45
      sha256:
        - 60303AE22B998861BCE3B28F33EEC1BE758A213C86C93C076DBE9F558C11C752
        - 2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824
)";

TEST_F(AppBlockingTest, DigestTextBecomesBytes) {
    struct Case {
        std::u16string text;
        std::vector<uint8_t> first_bytes;
    } cases[] = {
        {u"9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08", {0x9f, 0x86, 0xd0, 0x81}},
        {u"9F86D081884C7D659A2FEAA0C55AD015A3BF4F1B2B0B822CD15D6C15B0F00A08", {0x9f, 0x86, 0xd0, 0x81}},
        // Not hexadecimal, and folded all the same: 'g' - 7 is 0x60, whose
        // low nibble is 0; 'z' - 0x57 is 0x23.
        {u"gz00000000000000000000000000000000000000000000000000000000000000", {0x23, 0x00}},
    };
    for (auto &c : cases) {
        AppBlockingRule rule = EmptyRule();
        PUCHAR *slot = nullptr;
        ASSERT_EQ(AddAppBlockingHash(&rule, c.text.c_str(), 64, &slot), STATUS_SUCCESS);
        ASSERT_EQ(rule.HashCount, 1u);
        EXPECT_EQ(slot, &rule.Hashes[0]);
        EXPECT_EQ(rule.Hashes[0][32], 0);
        for (size_t i = 0; i < c.first_bytes.size(); ++i) EXPECT_EQ(rule.Hashes[0][i], c.first_bytes[i]) << i;
        FreeAppBlockingRule(&rule);
    }
}

// A record of odd size puts the next digest text at an odd address in the
// image; it is read all the same.
TEST_F(AppBlockingTest, DigestTextAtAnOddAddressIsReadAsWell) {
    const std::u16string text = u"9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08";
    std::vector<uint8_t> image(1 + text.size() * 2 + 1);
    std::memcpy(image.data() + 1, text.data(), text.size() * 2);
    AppBlockingRule rule = EmptyRule();
    PUCHAR *slot = nullptr;
    ASSERT_EQ(AddAppBlockingHash(&rule, reinterpret_cast<const WCHAR *>(image.data() + 1), 64, &slot),
              STATUS_SUCCESS);
    EXPECT_EQ(rule.Hashes[0][0], 0x9f);
    EXPECT_EQ(rule.Hashes[0][31], 0x08);
    FreeAppBlockingRule(&rule);
}

// A fuzz input whose records put a digest text at an odd offset of the
// image, made into the image the reader would make of it: it parses without
// an undefined read, and each digest is the text that stands there.
TEST_F(AppBlockingTest, TheOddDigestTextFindingParses) {
    std::ifstream in(std::string(TEXPRT_SOURCE_DIR) + "/fuzz/seeds/appblocking/odd-digest-text.bin", std::ios::binary);
    ASSERT_TRUE(in);
    const std::vector<uint8_t> input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    PUCHAR image = fuzz_support::PolicyImage(input.data(), input.size(), AppBlockingPolicyMagic,
                                             AppBlockingHeaderSize, TagAppBlocking);
    ASSERT_NE(image, nullptr);
    ULONGLONG flags = 0;
    ProcessAppBlockingRuleSet *set = nullptr;
    const NTSTATUS status = ParseAppBlockingPolicy(image, &flags, &set);
    EXPECT_EQ(status, STATUS_DATA_ERROR);
    EXPECT_EQ(set, nullptr);
    PoolFree(image);
    hk::ClearEventLog();
}

TEST_F(AppBlockingTest, AShortDigestLeavesTheRestAsAllocated) {
    AppBlockingRule rule = EmptyRule();
    std::u16string text = u"abcd";
    text.resize(64, 0);
    PUCHAR *slot = nullptr;
    ASSERT_EQ(AddAppBlockingHash(&rule, text.c_str(), 64, &slot), STATUS_SUCCESS);
    EXPECT_EQ(rule.Hashes[0][0], 0xab);
    EXPECT_EQ(rule.Hashes[0][1], 0xcd);
    EXPECT_EQ(rule.Hashes[0][2], 0xC5);  // the host pool's fill: not cleared
    FreeAppBlockingRule(&rule);
}

TEST_F(AppBlockingTest, AFailedAddLeavesTheRuleAsItWas) {
    AppBlockingRule rule = EmptyRule();
    const std::u16string text(64, u'a');
    PUCHAR *slot = nullptr;
    ASSERT_EQ(AddAppBlockingHash(&rule, text.c_str(), 64, &slot), STATUS_SUCCESS);
    PUCHAR *array = rule.Hashes;
    EXPECT_EQ(AddAppBlockingHash(&rule, text.c_str(), 0, &slot), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(slot, nullptr);
    for (int n = 1; n <= 3; ++n) {  // the array, the narrowed text, the digest
        hk::FailNthAllocation(n);
        EXPECT_EQ(AddAppBlockingHash(&rule, text.c_str(), 64, &slot), STATUS_INSUFFICIENT_RESOURCES) << n;
        EXPECT_EQ(rule.HashCount, 1u);
        EXPECT_EQ(rule.Hashes, array);
    }
    FreeAppBlockingRule(&rule);
    EXPECT_EQ(rule.Hashes, nullptr);
    EXPECT_EQ(rule.RuleType, 0u);
    EXPECT_EQ(rule.PolicyTag, 7u);  // left as it was
}

TEST_F(AppBlockingTest, EveryAllocationOfAParseCanFail) {
    auto image = Image(kTwoRules);
    ULONGLONG flags = 0;
    ProcessAppBlockingRuleSet *set = nullptr;
    const uint64_t before = hk::PoolAllocationCalls();
    ASSERT_EQ(ParseAppBlockingPolicy(image.data(), &flags, &set), STATUS_SUCCESS);
    const uint64_t allocations = hk::PoolAllocationCalls() - before;
    EXPECT_EQ(flags, 1u);
    ASSERT_EQ(set->RuleCount, 2u);
    EXPECT_EQ(set->Capacity, 2u);
    EXPECT_EQ(set->Rules[1].HashCount, 2u);
    EXPECT_EQ(set->Rules[1].PolicyTag, 0x2au);
    FreeAppBlockingRuleSet(set);
    for (uint64_t n = 1; n <= allocations; ++n) {
        auto fresh = Image(kTwoRules);
        hk::FailNthAllocation(n);
        set = reinterpret_cast<ProcessAppBlockingRuleSet *>(1);
        flags = 5;
        EXPECT_EQ(ParseAppBlockingPolicy(fresh.data(), &flags, &set), STATUS_INSUFFICIENT_RESOURCES) << n;
        EXPECT_EQ(set, nullptr);
        EXPECT_EQ(flags, 0u);
        EXPECT_EQ(hk::OutstandingPoolCount(), 0u) << hk::LeakReport();
    }
}

TEST_F(AppBlockingTest, TheByteBehindTheRecordsIsChecksummed) {
    auto image = Image(kTwoRules);
    const uint32_t data_size = image[8] | image[9] << 8;
    image[32 + data_size] ^= 1;
    ULONGLONG flags;
    ProcessAppBlockingRuleSet *set;
    EXPECT_EQ(ParseAppBlockingPolicy(image.data(), &flags, &set), STATUS_DATA_ERROR);
}

// Matches, queries and swaps on several threads at once. The ctest label
// "concurrency" comes with the suite's name (see tests/CMakeLists.txt).
class AppBlockingConcurrency : public AppBlockingTest {
protected:
    static void Install(const char *yaml) {
        auto image = Image(yaml);
        ULONGLONG flags;
        ProcessAppBlockingRuleSet *set;
        ASSERT_EQ(ParseAppBlockingPolicy(image.data(), &flags, &set), STATUS_SUCCESS);
        ASSERT_EQ(InstallAppBlockingRuleSet(flags, set), STATUS_SUCCESS);
    }
};

// An edition without flags that lists one digest of kTwoRules.
const char kOneRuleNoFlags[] = R"(
app_blocking:
  rules:
    - id: 00112233445566778899aabbccddeeff
      sha256: [2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824]
)";

TEST_F(AppBlockingConcurrency, MatchesRunWhileThePolicyIsSwapped) {
    // Two editions that both list the same digest: whichever set a match
    // sees, it must find it, and no set may be freed under a match.
    const char *editions[] = {kTwoRules, kOneRuleNoFlags};
    const UCHAR digest[32] = {0x2c, 0xf2, 0x4d, 0xba, 0x5f, 0xb0, 0xa3, 0x0e, 0x26, 0xe8, 0x3b,
                              0x2a, 0xc5, 0xb9, 0xe2, 0x9e, 0x1b, 0x16, 0x1e, 0x5c, 0x1f, 0xa7,
                              0x42, 0x5e, 0x73, 0x04, 0x33, 0x62, 0x93, 0x8b, 0x98, 0x24};
    Install(editions[0]);
    const ReadTally tally = ReadWhileWriting(
        3, 200,
        [&] {
            AppBlockingResult result{};
            return TcTFeMatchesProcessAppBlockingRuleSet(digest, &result) == STATUS_SUCCESS && result.Matched;
        },
        [&](int round) { Install(editions[round % 2]); });
    EXPECT_EQ(tally.wrong, 0);
    EXPECT_GT(tally.reads, 0);
}

// The monitors ask whether SHA-256 digests are wanted on their process
// creation path, with no lock, while the agent installs and withdraws
// policies: every answer is one edition's flag.
TEST_F(AppBlockingConcurrency, TheSha256QueryAnswersWithoutALockWhileThePolicyIsSwapped) {
    const ReadTally tally = ReadWhileWriting(
        2, 200,
        [] {
            const UCHAR answer = TcIsHBBProcessSHA256SupportEnabled();
            return answer == 0 || answer == 1;
        },
        [&](int round) {
            if (round % 3 == 2)
                RemoveAppBlockingRuleSet();
            else
                Install(round % 3 ? kOneRuleNoFlags : kTwoRules);
        });
    EXPECT_EQ(tally.wrong, 0);
    EXPECT_GT(tally.reads, 0);
}

}  // namespace
