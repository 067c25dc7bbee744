// texprt-sim's expect matching: every scenario test is only as strict as
// this comparison, so it must catch what differs and pass only a true subset.
#include "sim.h"

#include <gtest/gtest.h>

namespace {

using sim::json;

json Yaml(const char *text) { return sim::ToJson(YAML::Load(text)); }

TEST(SimExpect, ScalarsKeepTheirTypes) {
    const json v = Yaml(R"({a: 12, b: 0x1F, c: -3, d: '12', e: true, f: ~, g: text,
                          h: 0000000000000000000000000000000000000000000000000000000000000000, i: 018})");
    EXPECT_TRUE(v["a"].is_number_unsigned());
    EXPECT_EQ(v["b"], 31);
    EXPECT_EQ(v["c"], -3);
    EXPECT_TRUE(v["d"].is_string());  // quoted: text
    EXPECT_EQ(v["e"], true);
    EXPECT_TRUE(v["f"].is_null());
    EXPECT_EQ(v["g"], "text");
    EXPECT_TRUE(v["h"].is_string());  // a digest is not the number 0
    EXPECT_TRUE(v["i"].is_string());
}

TEST(SimExpect, SubsetMatch) {
    const json actual = json::parse(R"({"step": 3, "status": "STATUS_SUCCESS", "status_code": "0x00000000",
        "result": {"Matched": 1, "RuleSeen": 1, "PolicyTag": "0x0000002A"},
        "eventlog": [{"id": "0x40060015", "text": "done"}]})");
    struct Case {
        const char *expect;
        const char *mismatch;  // "" when it must pass
    } cases[] = {
        {"{status: STATUS_SUCCESS}", ""},
        {"{result: {Matched: 1}}", ""},
        {"{result: {PolicyTag: 42}}", ""},  // a number against hex text
        {"{status_code: 0}", ""},
        {"{eventlog: [{id: 0x40060015}]}", ""},
        {"{status: STATUS_DATA_ERROR}", "status: expected"},
        {"{result: {Matched: 0}}", "result.Matched: expected 0, got 1"},
        {"{result: {Missing: 0}}", "result.Missing: expected 0, got nothing"},
        {"{eventlog: []}", "eventlog: expected 0 entries"},
        {"{eventlog: [{id: 0x40060015}, {id: 0x40060016}]}", "eventlog: expected 2 entries"},
        {"{eventlog: [{id: 0x40060016}]}", "eventlog[0].id"},
        {"{result: {PolicyTag: '42'}}", "result.PolicyTag"},  // quoted text is compared as text
        {"{result: 1}", "result: expected"},
    };
    for (const auto &c : cases) {
        const std::string m = sim::SubsetMismatch(Yaml(c.expect), actual, "");
        if (*c.mismatch == 0) EXPECT_EQ(m, "") << c.expect;
        else EXPECT_NE(m.find(c.mismatch), std::string::npos) << c.expect << " gave: " << m;
    }
}

}  // namespace
