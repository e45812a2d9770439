// The ledger of rules the agent added, against real files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "process_collect/AuditRuleLedger.h"
#include "support/TempDir.h"

using Engine::AuditRuleLedger;
using Engine::AuditWatchRule;

namespace {

class LedgerTest : public ::testing::Test {
protected:
    TestSupport::TempDir tmp_{"tw-ledger"};
    const std::string dir = tmp_.Path();
};

TEST_F(LedgerTest, SavedRulesComeBackAndAMissingFileIsAnEmptyList) {
    AuditRuleLedger ledger(dir + "/state/sub/rules.json");
    std::vector<AuditWatchRule> rules;
    std::string error;
    ASSERT_TRUE(ledger.Load(rules, error)) << error;
    EXPECT_TRUE(rules.empty());
    AuditWatchRule rule{"/var/lib/docker/overlay2/x y/merged", "wa", "cid:abc", true};
    ASSERT_TRUE(ledger.Save({rule, AuditWatchRule{"/f", "w", "other", false}}, error)) << error;
    ASSERT_TRUE(ledger.Load(rules, error)) << error;
    ASSERT_EQ(2u, rules.size());
    EXPECT_TRUE(rules[0].SameRule(rule));
    EXPECT_TRUE(rules[0].directory);
    EXPECT_EQ("wa", rules[0].perms);
    EXPECT_FALSE(rules[1].directory);
    EXPECT_NE(0, ::access((dir + "/state/sub/rules.json.new").c_str(), F_OK));
}

TEST_F(LedgerTest, DamagedFileIsRefusedAndForeignEntriesSkipped) {
    std::vector<AuditWatchRule> rules;
    std::string error;
    EXPECT_FALSE(AuditRuleLedger::Parse("[{\"path\":", rules, error));
    EXPECT_FALSE(AuditRuleLedger::Parse("{\"path\":\"/a\"}", rules, error));
    ASSERT_TRUE(AuditRuleLedger::Parse(
        "[1, {\"path\":\"rel\",\"key\":\"k\"}, {\"path\":\"/a\"}, {\"path\":\"/b\",\"key\":\"k\"}]",
        rules, error));
    ASSERT_EQ(1u, rules.size());
    EXPECT_EQ("/b", rules[0].path);
}

}  // namespace
