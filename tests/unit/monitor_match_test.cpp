// The monitor matchers against installed policies: what a walk keeps when it
// ends early, the network-path question, the baseline flag clear, the frame's
// refused save, and matchers running side by side while policies are swapped
// and flags cleared under them.
#include "rules/match.h"
#include "rules/store.h"
#include "support/monitor_test.h"
#include "tpol.h"

#include <atomic>
#include <thread>

using namespace texprt_test;

namespace {

class MonitorMatchTest : public MonitorStoreFixture {};

// A file event and its result, released at the end of the scope.
struct FileEvent {
    ActorInformation actor{};
    FileObject object{};
    FilterResult result{};
    WhiteListState state{};

    explicit FileEvent(const char *name, USHORT operation = 0x2, ULONG type = TEXPRT_OBJECT_FILE) {
        Wide wide(name);
        EXPECT_EQ(TcTFeInitializeFileObject(&object, &wide.us, 0, type, 0, 0, 0), STATUS_SUCCESS);
        EXPECT_EQ(TcTFeAddFileEventInfo(&object, 1, 1, &actor, sizeof(actor), operation), STATUS_SUCCESS);
    }
    ~FileEvent() {
        TcTFeCleanupResult(&result);
        TcTFeCleanupFileObject(&object);
    }
    NTSTATUS Match() { return TcTFeMatchesMonitorFileRuleSet(&object, &state, &result); }
    // The last word of each context's rule id, in order.
    std::vector<ULONG> Ids() const {
        std::vector<ULONG> ids;
        for (ULONG i = 0; i < result.ContextCount; ++i) ids.push_back(result.Contexts[i].RuleId[3] >> 24);
        return ids;
    }
};

std::string Rule(const char *category, int type, int id, const char *path, const char *extra = "",
                 const char *list = "edr") {
    char text[512];
    std::snprintf(text, sizeof text,
                  "    - {category: %s, type: %d, list: %s, contexts: [{id: 000000000000000000000000000000%02x}], "
                  "path: '%s', operations: 0x2%s}\n",
                  category, type, list, id, path, extra);
    return text;
}

std::string Policy(std::initializer_list<std::string> rules) {
    std::string text = "monitor:\n  rules:\n";
    for (const auto &rule : rules) text += rule;
    return text;
}

TEST_F(MonitorMatchTest, AnUnknownFileRuleTypeEndsTheWalkKeepingEarlierMatches) {
    Install(Policy({Rule("file", 2, 1, "\\A\\F"), Rule("file", 3, 2, "\\A"), Rule("file", 4, 3, "\\A"),
                    Rule("file", 3, 4, "\\A"), Rule("file", 3, 5, "\\A", "", "fim")}));
    FileEvent event("\\a\\f");
    EXPECT_EQ(event.Match(), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(event.result.Status, STATUS_SUCCESS);
    // Rules 4 and the FIM rule are never reached: a failed EDR walk skips
    // the FIM set too.
    EXPECT_EQ(event.Ids(), (std::vector<ULONG>{1, 2}));
}

TEST_F(MonitorMatchTest, TheNetworkPathQuestionStopsAtAnUnknownRuleType) {
    struct Case {
        std::string policy;
        bool expected;
    } cases[] = {
        {Policy({Rule("file", 3, 1, "\\DEVICE\\MUP")}), true},
        {Policy({Rule("file", 2, 1, "\\Device\\Mup\\Server\\Share\\x.txt")}), true},
        {Policy({Rule("file", 3, 1, "\\DEVICE\\MUPX\\SERVER")}), false},
        {Policy({Rule("file", 3, 1, "\\DEVICE\\HARDDISKVOLUME2")}), false},
        // The test of a set ends at a rule type it does not know...
        {Policy({Rule("file", 5, 1, "\\A"), Rule("file", 3, 2, "\\DEVICE\\MUP\\S")}), false},
        // ...and goes on to the FIM set when the EDR set gave no.
        {Policy({Rule("file", 5, 1, "\\A"), Rule("file", 3, 2, "\\DEVICE\\MUP\\S", "", "fim")}), true},
    };
    for (const auto &c : cases) {
        Install(c.policy);
        EXPECT_EQ(bool(TcTFeIsMonitorFileRuleSetHasUNCRule()), c.expected) << c.policy;
    }
    RemoveMonitorRuleSets();
    EXPECT_FALSE(TcTFeIsMonitorFileRuleSetHasUNCRule());
}

// The FIM file rules' flag bytes, in rule order.
std::vector<int> FimFlags() {
    std::vector<int> flags;
    for (ULONG i = 0; i < FimRuleSets.File->RuleCount; ++i) flags.push_back(FimRuleSets.File->Rules[i].RuleFlags);
    return flags;
}

TEST_F(MonitorMatchTest, TheBaselineClearTouchesTheFirstFimFileRuleOfEachIdOnly) {
    const std::string policy = Policy({
        Rule("file", 2, 1, "\\A\\ONE", ", flags: 0x3", "fim"),
        Rule("file", 3, 2, "\\A", ", flags: 0x2", "fim"),   // directory rules keep theirs
        Rule("file", 2, 2, "\\A\\TWO", ", flags: 0x2", "fim"),
        Rule("file", 2, 2, "\\A\\SAME", ", flags: 0x2", "fim"),  // a second rule with id 2
        Rule("file", 2, 1, "\\A\\ONE", ", flags: 0x2", "edr"),   // the EDR set never changes
    });
    auto entry = [](int id) {
        MatchedContext context{};
        context.RuleId[3] = ULONG(id) << 24;
        return context;
    };
    MatchedContext entries[2] = {entry(1), entry(2)};
    struct Case {
        ULONG size;
        std::vector<int> flags;
    } cases[] = {
        {0, {3, 2, 2, 2}},
        {23, {3, 2, 2, 2}},  // less than one entry: nothing
        {24, {1, 2, 2, 2}},
        {47, {1, 2, 2, 2}},
        {48, {1, 2, 0, 2}},
    };
    for (const auto &c : cases) {
        Install(policy);
        EXPECT_EQ(TcTFeUnsetBaselineFlagFileRuleSet(entries, c.size), STATUS_SUCCESS);
        EXPECT_EQ(FimFlags(), c.flags) << "size " << c.size;
        EXPECT_EQ(EdrRuleSets.File->Rules[0].RuleFlags, 2);
    }
    EXPECT_EQ(TcTFeUnsetBaselineFlagFileRuleSet(nullptr, 24), STATUS_INVALID_PARAMETER);
    RemoveMonitorRuleSets();
    EXPECT_EQ(TcTFeUnsetBaselineFlagFileRuleSet(entries, 48), STATUS_SUCCESS);
}

TEST_F(MonitorMatchTest, ARefusedFloatingPointSaveMeansNoMatching) {
    Install(Policy({Rule("file", 3, 1, "\\DEVICE\\MUP")}));
    FileEvent event("\\device\\mup\\s\\x");
    event.result.ContextCount = 7;  // a stale count: the reset clears it before anything else
    hk::FailFloatingPointSave(STATUS_ILLEGAL_FLOAT_CONTEXT);
    EXPECT_EQ(event.Match(), STATUS_ILLEGAL_FLOAT_CONTEXT);
    EXPECT_FALSE(TcTFeIsMonitorFileRuleSetHasUNCRule());
    MatchedContext entry{};
    EXPECT_EQ(TcTFeUnsetBaselineFlagFileRuleSet(&entry, sizeof entry), STATUS_ILLEGAL_FLOAT_CONTEXT);
    hk::FailFloatingPointSave(STATUS_SUCCESS);
    EXPECT_EQ(event.result.Status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(event.result.ContextCount, 0u);
    EXPECT_EQ(event.result.Contexts, nullptr);
    // The lock was never taken: an install can go ahead at once.
    Install(Policy({Rule("file", 3, 2, "\\DEVICE\\MUP")}));
    EXPECT_EQ(event.Match(), STATUS_SUCCESS);
    EXPECT_EQ(event.Ids(), std::vector<ULONG>{2});
}

TEST_F(MonitorMatchTest, EveryAppendFailureEndsTheWalkWithTheVerdictAlreadyWritten) {
    Install(Policy({Rule("file", 2, 1, "\\A\\F", ", flags: 0x4"), Rule("file", 3, 2, "\\A")}));
    // Fail each of the two appends in turn: the first leaves the file rule's
    // masks, status and flags, the second keeps the first rule's contexts.
    for (int failing = 1; failing <= 2; ++failing) {
        FileEvent event("\\A\\F");
        hk::FailNthAllocation(failing);
        EXPECT_EQ(event.Match(), STATUS_INSUFFICIENT_RESOURCES);
        hk::ClearAllocationFailures();
        EXPECT_EQ(event.result.Status, STATUS_SUCCESS);
        EXPECT_EQ(event.result.FileOperations, 0x2u);
        EXPECT_EQ(event.result.RuleFlags, 0x4);
        EXPECT_EQ(event.Ids(), failing == 1 ? std::vector<ULONG>{} : std::vector<ULONG>{1});
    }
}

// Matching on several threads while policies change. The ctest label
// "concurrency" comes with the suite's name (see tests/CMakeLists.txt).
class MonitorMatchConcurrency : public MonitorMatchTest {};

TEST_F(MonitorMatchConcurrency, MatchersRunSideBySideWhilePoliciesAndFlagsChangeUnderThem) {
    // Two editions whose rules all match the event: a reader sees all of one
    // edition's contexts or all of the other's, never a mixture.
    const std::string one = Policy({Rule("file", 3, 1, "\\A", ", flags: 0x2", "fim"), Rule("file", 3, 2, "\\A")});
    const std::string two = Policy({Rule("file", 3, 3, "\\A"), Rule("file", 3, 4, "\\A"), Rule("file", 3, 5, "\\A")});
    Install(one);
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0}, matched{0};
    auto reader = [&] {
        while (!stop.load()) {
            FileEvent event("\\A\\B\\C");
            if (event.Match() != STATUS_SUCCESS) ++torn;
            const auto ids = event.Ids();
            if (ids != std::vector<ULONG>{2, 1} && ids != std::vector<ULONG>{3, 4, 5}) ++torn;
            ++matched;
        }
    };
    std::thread first(reader), second(reader);
    MatchedContext entry{};
    entry.RuleId[3] = 1u << 24;
    for (int round = 0; round < 200; ++round) {
        Install(round % 2 ? one : two);
        EXPECT_EQ(TcTFeUnsetBaselineFlagFileRuleSet(&entry, sizeof entry), STATUS_SUCCESS);
    }
    stop = true;
    first.join();
    second.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_GT(matched.load(), 0);
}

}  // namespace
