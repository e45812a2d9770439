#include <gtest/gtest.h>
#include <linux/audit.h>

#include "process_collect/AuditWatchRule.h"

using Engine::AuditWatchRule;

namespace {

TEST(AuditWatchRuleParse, PathAndPermissionsTravelAsOneString) {
    AuditWatchRule rule;
    std::string error;
    ASSERT_TRUE(AuditWatchRule::Parse("/srv/c1/merged -p wa", "cid:abc", rule, error)) << error;
    EXPECT_EQ("/srv/c1/merged", rule.path);
    EXPECT_EQ("wa", rule.perms);
    EXPECT_EQ("cid:abc", rule.key);
    EXPECT_EQ(AUDIT_PERM_WRITE | AUDIT_PERM_ATTR, rule.PermMask());
}

TEST(AuditWatchRuleParse, BlanksInThePathAndTrailingSlashes) {
    AuditWatchRule rule;
    std::string error;
    ASSERT_TRUE(AuditWatchRule::Parse("/srv/my root/ -p wa", "cid:a", rule, error)) << error;
    EXPECT_EQ("/srv/my root", rule.path);
    ASSERT_TRUE(AuditWatchRule::Parse("/srv/x", "cid:a", rule, error)) << error;
    EXPECT_EQ("rwxa", rule.perms);
    ASSERT_TRUE(AuditWatchRule::Parse("/ -p w", "cid:a", rule, error)) << error;
    EXPECT_EQ("/", rule.path);
}

TEST(AuditWatchRuleParse, BadArgumentsAreRefused) {
    AuditWatchRule rule;
    std::string error;
    EXPECT_FALSE(AuditWatchRule::Parse(" -p wa", "cid:a", rule, error));  // empty root path
    EXPECT_FALSE(AuditWatchRule::Parse("relative -p wa", "cid:a", rule, error));
    EXPECT_FALSE(AuditWatchRule::Parse("/x -p wz", "cid:a", rule, error));
    EXPECT_FALSE(AuditWatchRule::Parse("/x -p ", "cid:a", rule, error));
    EXPECT_FALSE(AuditWatchRule::Parse("/x -p wa", "", rule, error));
    EXPECT_FALSE(
        AuditWatchRule::Parse("/x -p wa", std::string(AUDIT_MAX_KEY_LEN + 1, 'k'), rule, error));
    EXPECT_FALSE(AuditWatchRule::Parse("/" + std::string(5000, 'a'), "cid:a", rule, error));
}

}  // namespace
