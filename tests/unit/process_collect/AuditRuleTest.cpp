// Watch rules as subscribers ask for them, and the ledger of the rules the agent added.
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <unistd.h>

#include "process_collect/AuditRuleLedger.h"
#include "process_collect/AuditWatchRule.h"
#include "support/TempDir.h"

using Engine::AuditRuleLedger;
using Engine::AuditWatchRule;

namespace {

TEST(AuditWatchRuleParse, PathAndPermissionsTravelAsOneString) {
    AuditWatchRule rule;
    std::string error;
    // Blanks in the path stay, trailing slashes go.
    ASSERT_TRUE(AuditWatchRule::Parse("/srv/my root/ -p wa", "cid:abc", rule, error)) << error;
    EXPECT_EQ("/srv/my root", rule.path);
    EXPECT_EQ(AUDIT_PERM_WRITE | AUDIT_PERM_ATTR, rule.PermMask());
    // Without -p every permission is watched.
    ASSERT_TRUE(AuditWatchRule::Parse("/", "cid:a", rule, error)) << error;
    EXPECT_EQ("/", rule.path);
    EXPECT_EQ("rwxa", rule.perms);

    EXPECT_FALSE(AuditWatchRule::Parse("relative -p wa", "cid:a", rule, error));
    EXPECT_FALSE(AuditWatchRule::Parse("/" + std::string(5000, 'a'), "cid:a", rule, error));
    EXPECT_FALSE(AuditWatchRule::Parse("/x -p wz", "cid:a", rule, error));
    EXPECT_FALSE(
        AuditWatchRule::Parse("/x -p wa", std::string(AUDIT_MAX_KEY_LEN + 1, 'k'), rule, error));
}

// A damaged file is refused, entries the agent cannot have written are skipped.
TEST(AuditRuleLedger, SavedRulesComeBackMissingFileIsEmptyDamagedOneRefused) {
    TestSupport::TempDir tmp("tw-ledger");
    AuditRuleLedger ledger(tmp.Path() + "/state/sub/rules.json");
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
    EXPECT_NE(0, ::access((ledger.Path() + ".new").c_str(), F_OK));

    EXPECT_FALSE(AuditRuleLedger::Parse("[{\"path\":", rules, error));
    EXPECT_FALSE(AuditRuleLedger::Parse("{\"path\":\"/a\"}", rules, error));
    ASSERT_TRUE(AuditRuleLedger::Parse(
        "[1, {\"path\":\"rel\",\"key\":\"k\"}, {\"path\":\"/a\"}, {\"path\":\"/b\",\"key\":\"k\"}]",
        rules, error));
    ASSERT_EQ(1u, rules.size());
    EXPECT_EQ("/b", rules[0].path);
}

}  // namespace
