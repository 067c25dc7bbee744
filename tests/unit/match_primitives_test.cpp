// The comparisons every monitor matcher is built from: sub-paths, component
// walks, depth, the three pattern forms, the actor and time conditions, the
// way a matched rule's contexts are appended to a result, and the guard
// around the one call that may fault.
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "base/strings.h"
#include "policy/monitor.h"
#include "rules/match.h"
#include "support/machine.h"

using namespace texprt_test;

namespace {

class MatchPrimitivesTest : public MachineTest {};

// Compiled pattern elements, as the policy loader would make them from text.
struct Patterns {
    template <typename Compile>
    Patterns(std::initializer_list<const char *> texts, Compile compile) {
        for (const char *text : texts) {
            Wide source(text);
            FilterPatternElement element{};
            EXPECT_EQ(compile(&element, &source.us), STATUS_SUCCESS) << text;
            elements.push_back(element);
        }
    }
    explicit Patterns(std::initializer_list<const char *> texts) : Patterns(texts, CompileFilterPattern) {}
    ~Patterns() {
        for (auto &e : elements) FreeUnicodeString(&e.Text);
    }
    ULONG Count() const { return ULONG(elements.size()); }
    const FilterPatternElement *Data() const { return elements.data(); }
    std::vector<FilterPatternElement> elements;
};

Patterns ActorPatterns(std::initializer_list<const char *> texts) { return Patterns(texts, CompileActorProcessFilter); }

// ------------------------------------------------------------ paths

TEST_F(MatchPrimitivesTest, IsSubPathComparesAtComponentBoundaries) {
    struct Case {
        const char *parent, *child;
        BOOLEAN ignore_case, expected;
    } cases[] = {
        {"\\A", "\\A", FALSE, TRUE},
        {"\\A\\", "\\A", FALSE, TRUE},
        {"\\A", "\\A\\", FALSE, TRUE},
        {"\\A\\\\", "\\A", FALSE, FALSE},  // only one trailing backslash is ignored
        {"\\A", "\\A\\\\", FALSE, TRUE},   // \A\ is below \A
        {"\\A", "\\A\\B", FALSE, TRUE},
        {"\\A\\", "\\A\\B", FALSE, TRUE},
        {"\\A", "\\AB", FALSE, FALSE},
        {"\\A\\B", "\\A\\BC", FALSE, FALSE},
        {"\\A\\B", "\\A", FALSE, FALSE},
        {"", "\\X\\Y", FALSE, TRUE},
        {"", "X", FALSE, FALSE},
        {"", "", FALSE, TRUE},
        {"\\A\\B", "\\a\\b\\c", FALSE, FALSE},
        {"\\A\\B", "\\a\\b\\c", TRUE, TRUE},
        {"\\a", "\\A", TRUE, TRUE},
    };
    for (const auto &c : cases) {
        Wide parent(c.parent), child(c.child);
        EXPECT_EQ(IsSubPath(&parent.us, &child.us, c.ignore_case), c.expected)
            << "parent " << c.parent << " child " << c.child << " ignore case " << int(c.ignore_case);
    }
    Wide some("\\A");
    EXPECT_FALSE(IsSubPath(nullptr, &some.us, TRUE));
    EXPECT_FALSE(IsSubPath(&some.us, nullptr, TRUE));
    EXPECT_FALSE(TcTFeIsSubPathOfRulePath(nullptr, &some.us, TRUE));
    EXPECT_TRUE(TcTFeIsSubPathOfRulePath(&some.us, &some.us, FALSE));
}

TEST_F(MatchPrimitivesTest, MatchComponentsWalksBothReferencesInLockstep) {
    struct Case {
        const char *path, *first, *second;  // second: nullptr for none
        bool expected;
    } cases[] = {
        {"\\A\\B\\C", "\\A\\B", nullptr, true},
        {"\\A", "\\A", nullptr, true},
        // The repeat runs once even on empty rests: the path's B meets the
        // reference's empty second component.
        {"\\A\\B", "\\A", nullptr, false},
        {"\\A", "\\A\\B", nullptr, false},
        {"\\A\\B\\C", "\\A\\X", nullptr, false},
        {"\\a\\B", "\\A\\B", nullptr, false},  // case-sensitive
        // Either reference may answer for each component.
        {"\\A\\Y\\C", "\\A\\B\\C", "\\X\\Y\\Z", true},
        {"\\X\\B", "\\A\\B", "\\X\\Q", true},
        {"\\A\\Q\\C", "\\A\\B\\C", "\\X\\Y\\Z", false},
        // The second reference's end does not end the walk...
        {"\\X\\B\\C", "\\A\\B\\C", "\\X", true},
        // ...only the first's does; a path that runs out first fails.
        {"\\X\\Y", "\\A\\B\\C", "\\X\\Y", false},
        // Empty strings are refused outright.
        {"", "\\A", nullptr, false},
        {"\\A", "", nullptr, false},
        {"\\A", "\\A", "", false},
    };
    for (const auto &c : cases) {
        Wide path(c.path), first(c.first), second(c.second ? c.second : "");
        EXPECT_EQ(MatchComponents(&path.us, &first.us, c.second ? &second.us : nullptr), c.expected)
            << c.path << " against " << c.first << " / " << (c.second ? c.second : "(none)");
    }
    Wide a("\\A");
    EXPECT_FALSE(MatchComponents(nullptr, &a.us, nullptr));
    EXPECT_FALSE(MatchComponents(&a.us, nullptr, nullptr));
}

TEST_F(MatchPrimitivesTest, GetLastComponentTakesTheTextBehindTheLastBackslash) {
    struct Case {
        const char *path, *component;
        USHORT maximum;
    } cases[] = {
        {"\\", "\\", 2},  // a single backslash is its own last component
        {"A", "A", 2},          {"\\A\\", "A", 4}, {"\\A\\BC", "BC", 6},
        {"\\A\\BC\\", "BC", 6}, {"A\\", "A\\", 4},  // no backslash before the ignored one: the path as given
    };
    for (const auto &c : cases) {
        Wide path(c.path);
        UNICODE_STRING component{};
        ASSERT_EQ(GetLastComponent(&path.us, &component), STATUS_SUCCESS) << c.path;
        EXPECT_EQ(Text(&component), c.component) << c.path;
        EXPECT_EQ(component.MaximumLength, c.maximum) << c.path;
        EXPECT_GE(component.Buffer, path.us.Buffer) << "a view into the path, not a copy";
    }
    Wide empty("");
    UNICODE_STRING component{};
    EXPECT_EQ(GetLastComponent(&empty.us, &component), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(GetLastComponent(nullptr, &component), STATUS_INVALID_PARAMETER);
}

TEST_F(MatchPrimitivesTest, IsWithinDepthCountsDirectoriesBelowTheBase) {
    struct Case {
        const char *name, *base;
        LONG depth;
        bool expected;
    } cases[] = {
        {"\\A", "\\A", -1, true},  // equal lengths pass whatever the depth
        {"\\A", "\\A", -7, true},
        {"\\A\\B", "\\A", 0, true},
        {"\\A\\B\\C", "\\A", 0, false},
        {"\\A\\B", "\\A", 1, true},
        {"\\A\\B\\C", "\\A", 1, true},
        {"\\A\\B\\C\\D", "\\A", 1, false},
        {"\\A\\B\\C\\D\\E", "\\A", -2, true},
        {"\\A\\B", "\\A", -1, false},
        {"\\A\\B", "\\A", -3, false},
        {"\\A\\B\\C", "\\A\\", 0, false},
        {"\\A\\B", "\\A\\", 0, true},
        // A base longer than the name leaves nothing below it.
        {"\\A", "\\A\\B\\C", 0, true},
    };
    for (const auto &c : cases) {
        Wide name(c.name), base(c.base);
        EXPECT_EQ(IsWithinDepth(&name.us, &base.us, c.depth), c.expected)
            << c.name << " below " << c.base << " depth " << c.depth;
    }
}

// ------------------------------------------------------------ patterns

struct PatternCase {
    const char *name, *base, *pattern;
    bool expected;
};

TEST_F(MatchPrimitivesTest, NamePatternsOfEachForm) {
    const PatternCase cases[] = {
        // Several components: a run of consecutive components of the tail.
        {"\\R\\A\\B\\X\\B\\C", "\\R", "B\\C", true},  // X restarts the pattern and is tried again
        {"\\R\\B\\B\\C", "\\R", "B\\C", true},        // the second B restarts and then matches
        {"\\R\\B\\X\\C", "\\R", "B\\C", false},
        {"\\R\\C\\B", "\\R", "B\\C", false},
        {"\\R\\A\\B\\C", "\\R", "A\\B\\C", true},
        // Rooted: the whole tail.
        {"\\R\\A\\B", "\\R", "\\B", false},
        {"\\R\\A\\B", "\\R", "B", true},
        {"\\R\\A\\B", "\\R", "\\A\\B", true},
        {"\\R\\A\\B", "\\R\\", "\\A\\B", true},
        {"\\R\\A\\B", "\\R", "\\A", false},
        // One component, anywhere in the tail, never the base.
        {"\\R\\A\\B", "\\R", "A", true},
        {"\\R\\A\\B", "\\R", "R", false},
        {"\\R\\AB", "\\R", "A", false},
        // Wildcards: a rooted pattern's expression sees the whole tail and
        // crosses backslashes; several components match one at a time.
        {"\\R\\AB\\X\\C", "\\R", "\\A*\\C", true},
        {"\\R\\AB\\X\\C", "\\R", "A*\\C", false},
        {"\\R\\AB\\C", "\\R", "A*\\C", true},
        {"\\R\\X\\Y.TMP", "\\R", "*.TMP", true},
        {"\\R\\X.TMP\\Y", "\\R", "*.TMP", true},
        {"\\R\\X\\Y.TXT", "\\R", "*.TMP", false},
        {"\\R\\X\\Y.TMP", "\\R", "\\*.TMP", true},
        // Name equal to the base: one empty component, one empty tail.
        {"\\R", "\\R", "", true},
        {"\\R", "\\R", "\\", true},
        {"\\R", "\\R", "X", false},
        {"\\R", "\\R", "*", false},  // an empty name matches no expression
        // A base longer than the name leaves an empty tail.
        {"\\R", "\\R\\LONGER", "", true},
    };
    for (const auto &c : cases) {
        Wide name(c.name), base(c.base);
        Patterns p({c.pattern});
        EXPECT_EQ(MatchesNamePatterns(&name.us, &base.us, p.Count(), p.Data()), c.expected)
            << "pattern " << c.pattern << " on " << c.name << " below " << c.base;
    }
}

TEST_F(MatchPrimitivesTest, NamePatternsTryEveryPatternAndTestSeveralComponentsFirst) {
    Wide name("\\R\\A\\B\\C"), base("\\R");
    Patterns p({"Q", "\\Z", "X\\Y", "C"});
    EXPECT_FALSE(MatchesNamePatterns(&name.us, &base.us, 3, p.Data()));
    EXPECT_TRUE(MatchesNamePatterns(&name.us, &base.us, 4, p.Data()));
    EXPECT_FALSE(MatchesNamePatterns(&name.us, &base.us, 0, p.Data()));

    // A pattern flagged both ways is a run of components: B\C would not be
    // the whole tail A\B\C.
    Patterns run({"B\\C"});
    run.elements[0].PatternFlags |= PatternRooted;
    EXPECT_TRUE(MatchesNamePatterns(&name.us, &base.us, 1, run.Data()));
}

TEST_F(MatchPrimitivesTest, RegistryPatternsOfAValueFilterSeeTheWholeValueName) {
    struct Case {
        const char *value, *pattern;
        ULONG kind;
        bool expected;
    } cases[] = {
        {"OTHER", "RUN", 4, true},  // a key filter looks at the key's tail
        {"OTHER", "RUN", 8, false},   {"RUN", "RUN", 8, true},   {"RUNONCE", "RUN*", 8, true},
        {"RUNONCE", "RUN", 8, false}, {"A\\B", "A\\B", 8, true},  // compared as a whole, not by components
        {"A\\B", "B", 8, false},      {"X\\B", "\\B", 8, false}, {"", "", 8, true},
    };
    Wide key("\\REGISTRY\\MACHINE\\SOFTWARE\\RUN"), base("\\REGISTRY\\MACHINE");
    for (const auto &c : cases) {
        Wide value(c.value);
        Patterns p({c.pattern});
        EXPECT_EQ(MatchesRegistryPatterns(&key.us, &value.us, &base.us, c.kind, p.Count(), p.Data()), c.expected)
            << "pattern " << c.pattern << " value " << c.value << " kind " << c.kind;
    }
}

TEST_F(MatchPrimitivesTest, IsLastComponentListedComparesExactly) {
    Wide calc("CALC.EXE"), notepad("NOTEPAD.EXE"), lower("notepad.exe");
    const UNICODE_STRING listed[] = {calc.us, notepad.us};
    const UNICODE_STRING other[] = {lower.us, calc.us};
    struct Case {
        const char *path;
        const UNICODE_STRING *array;
        ULONG count;
        ULONG expected;
    } cases[] = {
        {"\\W\\NOTEPAD.EXE", listed, 2, 1}, {"\\W\\NOTEPAD.EXE\\", listed, 2, 1}, {"NOTEPAD.EXE", listed, 2, 1},
        {"\\W\\NOTEPAD.EXE", listed, 1, 0}, {"\\W\\NOTEPAD.EXE", other, 2, 0},  // no case folding
        {"\\W\\NOTEPAD.EX", listed, 2, 0},  {"\\W\\NOTEPAD.EXE", listed, 0, 0},   {"", listed, 2, 0},
    };
    for (const auto &c : cases) {
        Wide path(c.path);
        EXPECT_EQ(IsLastComponentListed(&path.us, c.count, c.array), c.expected) << c.path << " count " << c.count;
    }
}

// ------------------------------------------------------------ conditions

constexpr ULONGLONG kTicksPerSecond = 10'000'000;
constexpr ULONGLONG kTicksPerDay = 86'400 * kTicksPerSecond;

TEST_F(MatchPrimitivesTest, TimeOfDayFromTicksTakesTheRemainderOfTheDay) {
    struct Case {
        ULONGLONG ticks;
        SHORT hour, minute, second;
    } cases[] = {
        {0, 0, 0, 0},
        {kTicksPerDay, 0, 0, 0},
        {kTicksPerDay - 1, 23, 59, 59},
        {(3600 + 2 * 60 + 3) * kTicksPerSecond + 9'999'999, 1, 2, 3},
        {155228 * kTicksPerDay + 16 * 3600 * kTicksPerSecond, 16, 0, 0},
        // Unsigned: a time with the top bit set is not a negative number.
        {0x8000000000000000ull, 2, 48, 5},
        {0xFFFFFFFFFFFFFFFFull, 5, 36, 10},
    };
    for (const auto &c : cases) {
        TimeOfDay out{-1, -1, -1};
        EXPECT_EQ(TimeOfDayFromTicks(&out, c.ticks), &out);
        EXPECT_EQ(out.Hour, c.hour) << c.ticks;
        EXPECT_EQ(out.Minute, c.minute) << c.ticks;
        EXPECT_EQ(out.Second, c.second) << c.ticks;
    }
}

TEST_F(MatchPrimitivesTest, TimeOfDayHoldsOnLocalTimeWithoutWrappingMidnight) {
    // A machine at UTC+2; the events are given in UTC.
    hk::SetTimeZoneBias(-2 * 3600 * int64_t(kTicksPerSecond));
    const ULONGLONG midnight_utc = 155228 * kTicksPerDay;
    auto utc = [&](int h, int m, int s) { return midnight_utc + ULONGLONG(h * 3600 + m * 60 + s) * kTicksPerSecond; };
    struct Case {
        ULONGLONG event;
        TimeOfDay start, end;
        bool expected;
    } cases[] = {
        {utc(10, 0, 0), {11, 0, 0}, {13, 0, 0}, true},  // 12:00 local
        {utc(10, 0, 0), {9, 0, 0}, {11, 0, 0}, false},  // would hold in UTC
        {utc(10, 0, 0), {12, 0, 0}, {12, 0, 0}, true},  // both ends inclusive
        {utc(9, 59, 59), {12, 0, 0}, {12, 0, 0}, false},
        {utc(23, 0, 0), {0, 0, 0}, {1, 0, 0}, true},  // 01:00 local, the next day
        // 22:00 to 06:00 never holds, not even at 23:00 or 03:00 local.
        {utc(21, 0, 0), {22, 0, 0}, {6, 0, 0}, false},
        {utc(1, 0, 0), {22, 0, 0}, {6, 0, 0}, false},
        {utc(20, 0, 0), {22, 0, 0}, {6, 0, 0}, false},
        {utc(4, 0, 0), {22, 0, 0}, {6, 0, 0}, false},
    };
    for (const auto &c : cases) {
        EventInfo event{c.event, 0, nullptr};
        EXPECT_EQ(TimeOfDayHolds(&event, &c.start, &c.end), c.expected)
            << "event " << c.event << " span " << c.start.Hour << ":" << c.start.Minute << " to " << c.end.Hour << ":"
            << c.end.Minute;
    }
}

TEST_F(MatchPrimitivesTest, ActorUsernameHoldsOnAnyNonZeroByte) {
    const UCHAR bytes[] = {0, 0, 7};
    EXPECT_FALSE(ActorUsernameHolds(0, bytes));
    EXPECT_FALSE(ActorUsernameHolds(2, bytes));
    EXPECT_TRUE(ActorUsernameHolds(3, bytes));
}

// An actor block: the fixed part, then the Win32 path and the image path.
std::vector<uint8_t> ActorBlock(const std::string &win32, const std::string &image) {
    const std::u16string w = hk::Utf16(win32), i = hk::Utf16(image);
    ActorInformation header{};
    header.Win32ImagePathLength = USHORT(w.size() * 2);
    header.ImageFileNameLength = USHORT(i.size() * 2);
    std::vector<uint8_t> block(sizeof header + w.size() * 2 + i.size() * 2);
    std::memcpy(block.data(), &header, sizeof header);
    std::memcpy(block.data() + sizeof header, w.data(), w.size() * 2);
    std::memcpy(block.data() + sizeof header + w.size() * 2, i.data(), i.size() * 2);
    return block;
}

ActorInformation *Header(std::vector<uint8_t> &block) { return reinterpret_cast<ActorInformation *>(block.data()); }

TEST_F(MatchPrimitivesTest, ActorProcessHoldsOnTheLastComponentOrTheWholePath) {
    auto block = ActorBlock("C:\\Windows\\Notepad.exe", "\\Device\\HarddiskVolume2\\Windows\\Notepad.exe");
    const EventInfo event{1, ULONG(block.size()), Header(block)};
    struct Case {
        const char *element;
        bool expected;
    } cases[] = {
        {"notepad.exe", true},  // last component, any case
        {"NOTEPAD.EXE", true},
        {"pad.exe", false},
        {"note*.exe", true},
        {"*.dll", false},
        {"windows\\notepad.exe", false},  // a backslash asks for the whole path
        {"\\device\\harddiskvolume2\\windows\\notepad.exe", true},
        {"\\device\\*\\notepad.exe", false},  // the wildcard is not in the final name
        {"\\device\\harddiskvolume2\\windows\\*.exe", true},
        {"C:\\Windows\\Notepad.exe", false},  // the Win32 path is not looked at
    };
    for (const auto &c : cases) {
        Patterns p = ActorPatterns({c.element});
        EXPECT_EQ(ActorProcessHolds(&event, p.Count(), p.Data()), c.expected) << c.element;
    }
    Patterns several = ActorPatterns({"calc.exe", "notepad.exe"});
    EXPECT_TRUE(ActorProcessHolds(&event, 2, several.Data()));
    EXPECT_FALSE(ActorProcessHolds(&event, 1, several.Data()));
    EXPECT_FALSE(ActorProcessHolds(&event, 0, several.Data()));
}

TEST_F(MatchPrimitivesTest, ActorProcessRefusesAMalformedActorBlock) {
    Patterns p = ActorPatterns({"*"});
    struct Case {
        const char *what;
        void (*spoil)(std::vector<uint8_t> &, EventInfo &);
        bool expected;
    } cases[] = {
        {"well formed", [](std::vector<uint8_t> &, EventInfo &) {}, true},
        {"no block", [](std::vector<uint8_t> &, EventInfo &e) { e.ActorInfo = nullptr; }, false},
        {"size below the fixed part", [](std::vector<uint8_t> &, EventInfo &e) { e.ActorInfoSize = 31; }, false},
        {"image path past the size", [](std::vector<uint8_t> &, EventInfo &e) { e.ActorInfoSize -= 2; }, false},
        {"image path length past the block",
         [](std::vector<uint8_t> &b, EventInfo &) { Header(b)->ImageFileNameLength += 2; }, false},
        {"odd image path offset",
         [](std::vector<uint8_t> &b, EventInfo &) {
             Header(b)->Win32ImagePathLength -= 1;
             Header(b)->ImageFileNameLength -= 2;
         },
         false},
        {"empty image path", [](std::vector<uint8_t> &b, EventInfo &) { Header(b)->ImageFileNameLength = 0; }, false},
    };
    for (const auto &c : cases) {
        auto block = ActorBlock("C:\\X.EXE", "\\D\\X.EXE");
        EventInfo event{1, ULONG(block.size()), Header(block)};
        c.spoil(block, event);
        EXPECT_EQ(ActorProcessHolds(&event, p.Count(), p.Data()), c.expected) << c.what;
    }
}

// ------------------------------------------------------------ guarded expression

TEST_F(MatchPrimitivesTest, AFaultInNameMatchingIsNoMatch) {
    const long page = sysconf(_SC_PAGESIZE);
    auto *mapping =
        static_cast<char *>(mmap(nullptr, page * 2, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(mapping, MAP_FAILED);
    ASSERT_EQ(mprotect(mapping + page, page, PROT_NONE), 0);
    // "AB" at the end of the readable page; the name claims four more
    // characters on the protected one.
    auto *text = reinterpret_cast<WCHAR *>(mapping + page - 4);
    text[0] = u'A';
    text[1] = u'B';
    UNICODE_STRING readable{4, 4, text};
    UNICODE_STRING faulting{12, 12, text};
    Wide expression("A*Z");
    Wide prefix("A*");
    EXPECT_TRUE(IsNameInExpressionGuarded(&prefix.us, &readable, FALSE, nullptr));
    EXPECT_FALSE(IsNameInExpressionGuarded(&expression.us, &faulting, FALSE, nullptr));
    EXPECT_FALSE(IsNameInExpressionGuarded(&expression.us, &faulting, TRUE, nullptr));

    // Through a value filter: the faulting pattern is no match, and the call
    // goes on to the next pattern ("*" alone never reads the name).
    Patterns p({"A*Z", "*"});
    Wide key("\\K"), base("\\K");
    EXPECT_FALSE(MatchesRegistryPatterns(&key.us, &faulting, &base.us, 8, 1, p.Data()));
    EXPECT_TRUE(MatchesRegistryPatterns(&key.us, &faulting, &base.us, 8, 2, p.Data()));
    munmap(mapping, page * 2);
}

// ------------------------------------------------------------ results

RuleContextEntry Context(ULONG list, ULONG id) {
    return RuleContextEntry{list, {id, id + 1, id + 2, id + 3}, 0xEEEEEEEE};
}

void ExpectEntry(const MatchedContext &entry, const RuleContextEntry &from, UCHAR flag, UCHAR exclusion) {
    EXPECT_EQ(std::memcmp(&entry, &from, 20), 0) << "the first 20 bytes are the rule context's";
    EXPECT_EQ(reinterpret_cast<const UCHAR *>(&entry)[20], flag);
    EXPECT_EQ(reinterpret_cast<const UCHAR *>(&entry)[21], exclusion);
}

TEST_F(MatchPrimitivesTest, AppendRuleContextsGrowsByOneRuleAtATime) {
    const size_t pool = hk::OutstandingPoolCount();
    const uint64_t injected = hk::InjectedFailures();
    FilterResult result{};
    const RuleContextEntry first[] = {Context(2, 10), Context(1, 20)};
    const RuleContextEntry second[] = {Context(2, 30)};

    ASSERT_EQ(AppendRuleContexts(&result, 2, first, 0x05), STATUS_SUCCESS);
    ASSERT_EQ(result.ContextCount, 2u);
    EXPECT_EQ(hk::OutstandingPoolCount(), pool + 1);
    const MatchedContext *before = result.Contexts;

    result.ExclusionSeen = 1;
    ASSERT_EQ(AppendRuleContexts(&result, 1, second, 0x00), STATUS_SUCCESS);
    ASSERT_EQ(result.ContextCount, 3u);
    EXPECT_NE(result.Contexts, before) << "every append reallocates";
    EXPECT_EQ(hk::OutstandingPoolCount(), pool + 1) << "the old array is freed";
    ExpectEntry(result.Contexts[0], first[0], 0x05, 0);
    ExpectEntry(result.Contexts[1], first[1], 0x05, 0);
    ExpectEntry(result.Contexts[2], second[0], 0x00, 1);

    // A refused allocation leaves the result as it was.
    const MatchedContext *kept = result.Contexts;
    hk::FailNthAllocation(1);
    EXPECT_EQ(AppendRuleContexts(&result, 2, first, 0x7F), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(hk::InjectedFailures(), injected + 1);
    EXPECT_EQ(result.ContextCount, 3u);
    EXPECT_EQ(result.Contexts, kept);
    ExpectEntry(result.Contexts[2], second[0], 0x00, 1);

    EXPECT_EQ(TcTFeCleanupResult(&result), STATUS_SUCCESS);
    EXPECT_EQ(result.Contexts, nullptr);
    EXPECT_EQ(result.ContextCount, 0u);
    EXPECT_EQ(hk::OutstandingPoolCount(), pool);
}

TEST_F(MatchPrimitivesTest, AResetDropsContextsWithoutFreeingThem) {
    const size_t pool = hk::OutstandingPoolCount();
    FilterResult result{};
    std::memset(&result, 0x5A, sizeof result);
    result.ContextCount = 0;
    const RuleContextEntry one[] = {Context(2, 1)};
    ASSERT_EQ(AppendRuleContexts(&result, 1, one, 0), STATUS_SUCCESS);
    MatchedContext *held = result.Contexts;

    EXPECT_EQ(ResetFilterResult(&result), STATUS_SUCCESS);
    EXPECT_EQ(result.Status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(result.FileOperations, 0u);
    EXPECT_EQ(result.DirectoryOperations, 0u);
    EXPECT_EQ(result.ContextCount, 0u);
    EXPECT_EQ(result.Contexts, nullptr);
    EXPECT_EQ(result.RuleFlags, 0);
    const WhiteListState cleared{};
    EXPECT_EQ(std::memcmp(&result.WhiteList, &cleared, sizeof cleared), 0);
    // What the reset has no code for stays as it was.
    EXPECT_EQ(result.KeyOperations, 0x5A5A5A5Au);
    EXPECT_EQ(result.NetworkOperations, 0x5A5A5A5Au);
    EXPECT_EQ(result.ExclusionSeen, 0x5A);
    EXPECT_EQ(hk::OutstandingPoolCount(), pool + 1) << "the dropped array is still allocated";
    PoolFree(held);

    EXPECT_EQ(ResetFilterResult(nullptr), STATUS_INVALID_PARAMETER);
}

TEST_F(MatchPrimitivesTest, WhiteListStatesAreClearedCopiedAndMerged) {
    const WhiteListState source{0x11, 0, {0x1, 0x2, 0x4, 0x8}};
    WhiteListState destination{0x22, 1, {0x10, 0x10, 0x10, 0x10}};

    WhiteListState merged = destination;
    EXPECT_EQ(MergeWhiteListState(&merged, &source), STATUS_SUCCESS);
    EXPECT_EQ(merged.WhiteListHeader, 0x22) << "the header stays";
    EXPECT_EQ(merged.UnknownRuleSeen, 0) << "copied, even when it clears";
    const ULONG ored[] = {0x11, 0x12, 0x14, 0x18};
    for (int w = 0; w < 4; ++w) EXPECT_EQ(merged.ExemptMasks[w], ored[w]) << "word " << w;

    WhiteListState copied = destination;
    EXPECT_EQ(CopyWhiteListState(&copied, &source), STATUS_SUCCESS);
    EXPECT_EQ(copied.WhiteListHeader, 0x11);
    EXPECT_EQ(copied.UnknownRuleSeen, 0);
    for (int w = 0; w < 4; ++w) EXPECT_EQ(copied.ExemptMasks[w], source.ExemptMasks[w]) << "word " << w;

    ClearWhiteListState(&copied);
    const WhiteListState zero{};
    EXPECT_EQ(std::memcmp(&copied, &zero, sizeof zero), 0);

    EXPECT_EQ(CopyWhiteListState(nullptr, &source), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CopyWhiteListState(&copied, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(MergeWhiteListState(nullptr, &source), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(MergeWhiteListState(&copied, nullptr), STATUS_INVALID_PARAMETER);
}

// ------------------------------------------------------------ frame

TEST_F(MatchPrimitivesTest, ARefusedFloatingPointSaveTakesNoLock) {
    ERESOURCE lock;
    ASSERT_EQ(ExInitializeResourceLite(&lock), STATUS_SUCCESS);
    {
        MatchFrame frame(&lock, MatchFrame::Shared);
        ASSERT_EQ(frame.Status(), STATUS_SUCCESS);
        EXPECT_NE(ExIsResourceAcquiredSharedLite(&lock), 0u);
    }
    // The frame's end gave the lock back and left the critical region.
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&lock), 0u);
    EXPECT_EQ(KeAreApcsDisabled(), FALSE);
    hk::FailFloatingPointSave(STATUS_ILLEGAL_FLOAT_CONTEXT);
    {
        MatchFrame frame(&lock, MatchFrame::Exclusive);
        EXPECT_EQ(frame.Status(), STATUS_ILLEGAL_FLOAT_CONTEXT);
        EXPECT_EQ(ExIsResourceAcquiredSharedLite(&lock), 0u);
        EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&lock));
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    }
    EXPECT_EQ(KeAreApcsDisabled(), FALSE);
    hk::FailFloatingPointSave(STATUS_SUCCESS);
    ExDeleteResourceLite(&lock);
}

}  // namespace
