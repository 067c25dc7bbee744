// Whitebox tests against the live monitor store: a policy source compiled
// with tpol, parsed and installed as an update would; the store is emptied
// after each test.
#pragma once

#include "rules/store.h"
#include "support/library_test.h"
#include "tpol.h"

namespace texprt_test {

class MonitorStoreFixture : public LibraryTest {
protected:
    void TearDown() override {
        RemoveMonitorRuleSets();
        LibraryTest::TearDown();
    }
    static void Install(const std::string &yaml) {
        auto image = tpol::CompileText(yaml);
        // The reader's image holds the byte behind the record area too.
        image.resize(image.size() + 3);
        MonitorRuleSets edr{}, fim{};
        MonitorWhiteListRuleSet *whitelist = nullptr;
        ASSERT_EQ(ParseMonitorPolicy(image.data(), &edr, &fim, &whitelist), STATUS_SUCCESS);
        ASSERT_EQ(InstallMonitorRuleSets(&edr, &fim, whitelist), STATUS_SUCCESS);
    }
};

}  // namespace texprt_test
