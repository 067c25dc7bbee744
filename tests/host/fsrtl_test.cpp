// FsRtl's name routines: splitting a path, spotting wildcards and matching
// names against expressions, held to the answers Windows gives.
#include "host_test.h"

#include <fstream>
#include <sstream>
#include <vector>

using host_test::ExpectComplaint;
using host_test::MachineTest;
using texprt_test::Text;
using texprt_test::Wide;

namespace {

class FsRtlTest : public MachineTest {};

UNICODE_STRING Counted(const std::u16string &text) {
    EXPECT_LE(text.size(), 32767u) << "longer than a counted string can be";
    return UNICODE_STRING{USHORT(text.size() * 2), USHORT(text.size() * 2), const_cast<PWCH>(text.data())};
}

bool Match(const std::u16string &expression, const std::u16string &name, bool ignore_case,
           PWCH upcase_table = nullptr) {
    UNICODE_STRING e = Counted(expression), n = Counted(name);
    return FsRtlIsNameInExpression(&e, &n, ignore_case ? TRUE : FALSE, upcase_table) != FALSE;
}

// Checks every row of a table under tests/host/data/: expression, name,
// ignore_case and expected, tab separated, UTF-8; lines starting with # are
// comments. Returns how many rows it checked.
size_t CheckExpressionTable(const std::string &file_name) {
    const std::string path = std::string(TEXPRT_SOURCE_DIR) + "/tests/host/data/" + file_name;
    std::ifstream in(path);
    EXPECT_TRUE(in.is_open()) << "cannot read " << path;
    size_t rows = 0, line_number = 0;
    for (std::string line; std::getline(in, line);) {
        ++line_number;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> fields;
        std::stringstream split(line);
        for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
        if (line.back() == '\t') fields.push_back("");
        const std::string where = file_name + ":" + std::to_string(line_number);
        if (fields.size() != 4 || (fields[2] != "0" && fields[2] != "1") || (fields[3] != "0" && fields[3] != "1")) {
            ADD_FAILURE() << where << ": not expression<TAB>name<TAB>0|1<TAB>0|1: " << line;
            continue;
        }
        const bool ignore_case = fields[2] == "1", expected = fields[3] == "1";
        EXPECT_EQ(Match(hk::Utf16(fields[0]), hk::Utf16(fields[1]), ignore_case), expected)
            << where << ": expression \"" << fields[0] << "\" name \"" << fields[1] << "\" ignore_case "
            << ignore_case;
        ++rows;
    }
    return rows;
}

TEST_F(FsRtlTest, IsNameInExpressionAgreesWithWindows) {
    EXPECT_GE(CheckExpressionTable("fsrtl_expression_windows.tsv"), 50u);
}

TEST_F(FsRtlTest, IsNameInExpressionWildcardsCaseAndBackslashes) {
    EXPECT_GE(CheckExpressionTable("fsrtl_expression_extra.tsv"), 100u);
}

// Counted strings reach 32767 characters; neither a long name nor a long
// expression may make the match slow or unbounded.
TEST_F(FsRtlTest, IsNameInExpressionAtTheLongestLengths) {
    const std::u16string as(32766, u'a'), longest(32767, u'x'), questions(32767, u'?');
    struct Case {
        std::u16string expression, name;
        bool ignore_case, expected;
    } cases[] = {
        {u"*b", as + u"b", false, true},
        {u"a*a*b", as + u"b", false, true},
        {u"*a*b", as + u"a", false, false},
        {u"*a*a*a*a*a*a*a*a*b", as + u"a", false, false},
        {u"<.b", as.substr(1) + u".b", false, true},
        {u"<.b", as + u"b", false, false},
        {questions, longest, false, true},
        {questions, longest.substr(1), false, false},
        {questions.substr(1) + u"*", longest, false, true},
        {std::u16string(32767, u'*'), u"abc", false, true},
        {std::u16string(200, u'>'), std::u16string(199, u'x'), false, true},
        {std::u16string(200, u'>'), std::u16string(199, u'x') + u".", false, true},  // the last one takes the period
        {std::u16string(200, u'>'), std::u16string(199, u'x') + u".x", false, false},
        {std::u16string(200, u'>') + u".X", std::u16string(150, u'x') + u".x", false, false},
        {std::u16string(200, u'>') + u".X", std::u16string(150, u'x') + u".x", true, true},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto &c = cases[i];
        EXPECT_EQ(Match(c.expression, c.name, c.ignore_case), c.expected) << "case " << i;
    }
}

TEST_F(FsRtlTest, IsNameInExpressionFoldsWithTheCallersTable) {
    std::vector<WCHAR> table(0x10000);
    for (size_t c = 0; c < table.size(); ++c) table[c] = WCHAR(c);
    table[u'a'] = u'Z';  // folds unlike the system's table
    EXPECT_TRUE(Match(u"Z?", u"ab", true, table.data()));
    EXPECT_FALSE(Match(u"A?", u"ab", true, table.data()));
    EXPECT_TRUE(Match(u"*Z", u"xa", true, table.data()));  // the tail comparison folds too
    EXPECT_TRUE(Match(u"A?", u"ab", true));                 // null: the system's table
    EXPECT_FALSE(Match(u"Z?", u"ab", false, table.data()));  // no folding without IgnoreCase
}

TEST_F(FsRtlTest, DissectNameSplitsOffTheFirstComponent) {
    // first_at and rest_at: where each output points into the path; -1 for
    // an output left as the cleared empty string with no buffer.
    struct Case {
        const char *path, *first, *rest;
        int first_at, rest_at;
    } cases[] = {
        {"", "", "", -1, -1},
        {"A", "A", "", 0, -1},
        {"A\\B\\C\\D\\E", "A", "B\\C\\D\\E", 0, 2},
        {"*A?", "*A?", "", 0, -1},
        {"\\A", "A", "", 1, -1},
        {"A[,]", "A[,]", "", 0, -1},
        {"A\\\\B+;\\C", "A", "\\B+;\\C", 0, 2},
        {"\\\\A", "", "A", 1, 2},  // only one leading backslash is skipped
        {"A\\", "A", "", 0, 2},    // a trailing separator leaves an empty rest past it
        {"\\", "", "", 1, -1},
        {"\\\\", "", "", 1, 2},
        {"\\A\\", "A", "", 1, 3},
        {"\\Device\\HarddiskVolume1\\x.txt", "Device", "HarddiskVolume1\\x.txt", 1, 8},
        {"\xc3\xa9t\xc3\xa9\\\xc3\xa0", "\xc3\xa9t\xc3\xa9", "\xc3\xa0", 0, 4},
    };
    for (const auto &c : cases) {
        Wide path(c.path);
        UNICODE_STRING first{7, 9, path.text.data()}, rest{7, 9, path.text.data()};
        FsRtlDissectName(path.us, &first, &rest);
        EXPECT_EQ(Text(&first), c.first) << c.path;
        EXPECT_EQ(Text(&rest), c.rest) << c.path;
        EXPECT_EQ(first.MaximumLength, first.Length) << c.path;
        EXPECT_EQ(rest.MaximumLength, rest.Length) << c.path;
        EXPECT_EQ(first.Buffer, c.first_at < 0 ? nullptr : path.us.Buffer + c.first_at) << c.path;
        EXPECT_EQ(rest.Buffer, c.rest_at < 0 ? nullptr : path.us.Buffer + c.rest_at) << c.path;
    }
}

TEST_F(FsRtlTest, DoesNameContainWildCardsLooksAtTheFinalComponent) {
    struct Case {
        const char *name;
        bool expected;
    } cases[] = {
        {"", false},          {"abc", false},        {"a.b", false},         {"[]|+;,=/:", false},
        {"*", true},          {"a?c", true},         {"a<", true},           {">", true},
        {"a\"b", true},       {"\\dir\\fi*le", true}, {"\\*", true},          {"\\dir*\\file", false},
        {"a*\\", false},      {"*\\", false},        {"?\\a\\b", false},     {"a/b*", true},
    };
    for (const auto &c : cases) {
        Wide name(c.name);
        EXPECT_EQ(FsRtlDoesNameContainWildCards(&name.us) != FALSE, c.expected) << c.name;
    }
}

TEST_F(FsRtlTest, NameRoutinesRunAtPassiveLevelOnly) {
    Wide text("\\a\\*");
    UNICODE_STRING first, rest;
    const char *routines[] = {"FsRtlDissectName", "FsRtlDoesNameContainWildCards", "FsRtlIsNameInExpression"};
    for (int which = 0; which < 3; ++which) {
        KIRQL old_irql;
        KeRaiseIrql(APC_LEVEL, &old_irql);
        if (which == 0) FsRtlDissectName(text.us, &first, &rest);
        if (which == 1) FsRtlDoesNameContainWildCards(&text.us);
        if (which == 2) FsRtlIsNameInExpression(&text.us, &text.us, FALSE, nullptr);
        KeLowerIrql(old_irql);
        ExpectComplaint(routines[which]);
    }
}

}  // namespace
