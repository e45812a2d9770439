#include <gtest/gtest.h>

#include "AuditTestData.h"
#include "process_collect/AuditRecordParser.h"

using Engine::AuditRecord;
using Engine::AuditRecordParser;

namespace {

class CapturedRecords : public ::testing::TestWithParam<const char*> {};

TEST_P(CapturedRecords, EveryKernelRecordParses) {
    const auto lines = AuditTestData::Load(GetParam());
    ASSERT_GT(lines.size(), 10u);
    for (const auto& line : lines) {
        AuditRecord record;
        std::string error;
        EXPECT_TRUE(AuditRecordParser::Parse(line.type, line.text, record, error))
            << line.text << ": " << error;
        EXPECT_GT(record.serial, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(AuditData, CapturedRecords,
                         ::testing::Values("host_events.txt", "container_events.txt"));

TEST(AuditRecordParse, SplitsHeaderAndKeepsRawValues) {
    AuditRecord record;
    std::string error;
    ASSERT_TRUE(AuditRecordParser::Parse(
        1302,
        "audit(1795391830.899:7): item=1 name=2F746D702F78207920 inode=10952851 "
        "nametype=CREATE\n",
        record, error));
    EXPECT_EQ("1795391830.899", record.timestamp);
    EXPECT_EQ(7u, record.serial);
    EXPECT_EQ("1", record.Raw("item"));
    EXPECT_EQ("/tmp/x y ", AuditRecordParser::DecodeUntrusted(record.Raw("name")));
    EXPECT_EQ("CREATE", record.Raw("nametype"));
    EXPECT_EQ(nullptr, record.Find("missing"));
}

TEST(AuditRecordParse, QuotedValuesMayHoldBlanksInSingleQuotes) {
    AuditRecord record;
    std::string error;
    ASSERT_TRUE(AuditRecordParser::Parse(
        1107, "audit(1.2:3): pid=1 msg='op=x exe=\"/bin/y\" res=success' extra", record, error));
    EXPECT_EQ("'op=x exe=\"/bin/y\" res=success'", record.Raw("msg"));
    EXPECT_EQ(2u, record.fields.size());
}

TEST(AuditUntrustedText, QuotedHexAndNull) {
    bool isNull = false;
    EXPECT_EQ("cid:abc", AuditRecordParser::DecodeUntrusted("\"cid:abc\"", &isNull));
    EXPECT_FALSE(isNull);
    EXPECT_EQ("", AuditRecordParser::DecodeUntrusted("(null)", &isNull));
    EXPECT_TRUE(isNull);
    EXPECT_EQ("a b", AuditRecordParser::DecodeUntrusted("612062"));
    EXPECT_EQ("a b", AuditRecordParser::DecodeUntrusted("612062", &isNull));
    // Odd length or non-hex text is not an encoding: kept as it stands.
    EXPECT_EQ("abc", AuditRecordParser::DecodeUntrusted("abc"));
    EXPECT_EQ("6g", AuditRecordParser::DecodeUntrusted("6g"));
}

struct Malformed {
    const char* text;
};

class MalformedRecord : public ::testing::TestWithParam<Malformed> {};

TEST_P(MalformedRecord, IsRejectedWithAReason) {
    AuditRecord record;
    std::string error;
    EXPECT_FALSE(AuditRecordParser::Parse(1300, GetParam().text, record, error));
    EXPECT_FALSE(error.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Lines, MalformedRecord,
    ::testing::Values(Malformed{""}, Malformed{"pid=1 uid=0"}, Malformed{"audit(1795391830.115:2"},
                      Malformed{"audit(1795391830:2): pid=1"}, Malformed{"audit(x.1:2): pid=1"},
                      Malformed{"audit(1.1:): pid=1"},
                      Malformed{"audit(1.1:99999999999999999999): pid=1"},
                      Malformed{"audit(1.1:2): =5"}, Malformed{"audit(1.1:2): comm=\"unterminated"},
                      Malformed{"audit(1.1:2): msg='open"}),
    // Stable names: the default prints the parameter's bytes, a pointer that changes per build.
    [](const ::testing::TestParamInfo<Malformed>& info) {
        return "Case" + std::to_string(info.index);
    });

TEST(AuditRecordLimits, OversizedAndEmbeddedNulAreRejected) {
    AuditRecord record;
    std::string error;
    std::string huge = "audit(1.1:2):";
    while (huge.size() <= AuditRecordParser::kMaxTextLength) huge += " a=b";
    EXPECT_FALSE(AuditRecordParser::Parse(1300, huge, record, error));
    const std::string withNul("audit(1.1:2): a=b\0c=d", 21);
    EXPECT_FALSE(AuditRecordParser::Parse(1300, withNul, record, error));
    std::string many = "audit(1.1:2):";
    for (std::size_t i = 0; i <= AuditRecordParser::kMaxFields; ++i) many += " a=1";
    EXPECT_FALSE(AuditRecordParser::Parse(1300, many, record, error));
    EXPECT_FALSE(AuditRecordParser::Parse(1300, nullptr, 0, record, error));
}

TEST(AuditRecordLimits, TrailingNulPaddingIsIgnored) {
    AuditRecord record;
    std::string error;
    const std::string padded("audit(1.1:2): a=b\0\0", 19);
    ASSERT_TRUE(AuditRecordParser::Parse(1300, padded, record, error)) << error;
    EXPECT_EQ("b", record.Raw("a"));
}

}  // namespace
