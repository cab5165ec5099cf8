// pppoe-plus-cli's short forms: every edit they build is valid running
// data of the agent's YANG model (so a typo in an element name or a
// namespace cannot slip through to the switch), every operation input is a
// valid input, and query replies become the text an operator reads.
#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <string>
#include <vector>

#include "agent_requests.hpp"

namespace {

using namespace pplus_cli;

class ShortForms : public testing::Test {
protected:
    void SetUp() override
    {
        ly_log_options(LY_LOSTORE);
        ASSERT_EQ(ly_ctx_new(PPLUS_SOURCE_DIR "/yang", 0, &ctx_), LY_SUCCESS);
        ASSERT_NE(ly_ctx_load_module(ctx_, "quendal-pppoe-plus", nullptr, nullptr), nullptr);
    }
    void TearDown() override { ly_ctx_destroy(ctx_); }

    // The error libyang reports for xml as running data, "" when valid.
    std::string ConfigError(const std::string &xml)
    {
        lyd_node *tree = nullptr;
        const LY_ERR rc =
            lyd_parse_data_mem(ctx_, xml.c_str(), LYD_XML, LYD_PARSE_STRICT, LYD_VALIDATE_NO_STATE, &tree);
        lyd_free_all(tree);
        return rc == LY_SUCCESS ? "" : std::string(ly_errmsg(ctx_)) + " in " + xml;
    }

    std::string RpcError(const std::string &xml)
    {
        ly_in *in = nullptr;
        lyd_node *tree = nullptr;
        (void)ly_in_new_memory(xml.c_str(), &in);
        LY_ERR rc = lyd_parse_op(ctx_, nullptr, in, LYD_XML, LYD_TYPE_RPC_YANG, &tree, nullptr);
        if (rc == LY_SUCCESS) {
            rc = lyd_validate_op(tree, nullptr, LYD_TYPE_RPC_YANG, nullptr);
        }
        lyd_free_all(tree);
        ly_in_free(in, 0);
        return rc == LY_SUCCESS ? "" : std::string(ly_errmsg(ctx_)) + " in " + xml;
    }

    ly_ctx *ctx_ = nullptr;
};

TEST_F(ShortForms, EditsAreValidRunningDataAndOperationInputsValidInputsOfTheModel)
{
    const Port port{"GigabitEthernet0/0/1", 5};
    const std::vector<std::string> edits{
        EnableXml(true),
        GlobalPolicyXml("drop"),
        VendorIdXml(2011),
        EncapsulationXml("remote-id"),
        IgnoreReplyXml(true),
        GlobalFormatXml("cid", "common", ""),
        GlobalFormatXml("rid", "user-define", "\"%sysname<&>\""),
        PortTrustXml(port, true),
        PortPolicyXml(port, "keep"),
        PortFormatXml(port, 100, 0, "cid", "extend", ""),
        PortFormatXml(port, 100, 200, "rid", "user-define", "%mac"),
        PortDescriptionXml({"Eth-Trunk1", 80}, "line \"A\" & <B>"),
    };
    for (const std::string &xml : edits) {
        EXPECT_EQ(ConfigError(xml), "");
    }
    // The mapping the agent reads: ignore-reply on is ignore-policy false.
    EXPECT_NE(IgnoreReplyXml(true).find("<ignore-policy>false</ignore-policy>"), std::string::npos);

    // Operation inputs are valid; paths name the items.
    EXPECT_EQ(RpcError(SetDebuggingXml(4, true)), "");
    EXPECT_EQ(RpcError(SetDebuggingXml(0, false)), "");
    EXPECT_EQ(RpcError(ResetStatisticsXml()), "");
    EXPECT_NE(RpcError(SetDebuggingXml(5, true)), "") << "debug-type 5 is out of the model's range";

    EXPECT_EQ(PortItemPath("GigabitEthernet0/0/1", "trusted-port"),
              "/quendal-ifm:ifm/interfaces/interface[name='GigabitEthernet0/0/1']/quendal-pppoe-plus:pppoe-plus-port/"
              "trusted-port");
    for (const std::string &path : {PortItemPath("X", "if-description"), PortFormatPath("X", 100, 0, "rid"),
                                    *QueryPath("statistics"), *QueryPath("format")}) {
        EXPECT_NE(lys_find_path(ctx_, nullptr, path.c_str(), 0), nullptr) << path;
    }
    // The check's key: the text quoted, backslash and "]" escaped for the
    // agent's key reader.
    const std::string check = "/quendal-pppoe-plus:pppoe-plus/query-format-check/query-format-check-list";
    const std::pair<std::string, std::string> keys[] = {
        {"it's %mac", "[user-define-text=\"it's %mac\"]"},
        {"\"\\a\"", "[user-define-text='\"\\\\a\"']"},
        {"\"%svlan[.%cvlan]\"", "[user-define-text='\"%svlan[.%cvlan\\]\"']"},
        {"a\\]b", "[user-define-text='a\\\\\\]b']"},
    };
    std::string why;
    for (const auto &[text, key] : keys) {
        EXPECT_EQ(FormatCheckPath(text, &why), check + key) << text;
    }
    EXPECT_FALSE(FormatCheckPath("", &why));
    EXPECT_FALSE(FormatCheckPath("it's \"%mac\"", &why));
    EXPECT_NE(why.find("both kinds of quote"), std::string::npos);
}

TEST(QueryReplies, BecomeReadableText)
{
    const std::string ns = "<pppoe-plus xmlns=\"urn:quendal:yang:quendal-pppoe-plus\">";
    const auto stats = RenderQueryReply(
        "statistics", ns + "<query-statistics><query-table><interface-name>XGigabitEthernet0/0/1(*T)</interface-name>"
                           "<padi-receive-packets>0</padi-receive-packets><padi-send-packets>2</padi-send-packets>"
                           "<discarded-packets>4294967295</discarded-packets></query-table></query-statistics>"
                           "</pppoe-plus>");
    ASSERT_TRUE(stats);
    EXPECT_NE(stats->find("XGigabitEthernet0/0/1(*T)         0        2"), std::string::npos) << *stats;
    EXPECT_NE(stats->find("4294967295"), std::string::npos) << *stats;

    const auto policy = RenderQueryReply(
        "policy", ns + "<query-policy><policy>2</policy><ignore-reply>1</ignore-reply></query-policy></pppoe-plus>");
    ASSERT_TRUE(policy);
    EXPECT_EQ(*policy, "tags-policy   drop (2)\nignore-reply  on (1)\n");

    // The agent puts the check result before the list's key; the line names
    // the format as typed, whatever the agent echoes.
    const auto check = RenderFormatCheckReply(
        "\"%\\]\"", ns + "<query-format-check><query-format-check-list><check-result>2</check-result>"
                         "<user-define-text>\"%]\"</user-define-text></query-format-check-list>"
                         "</query-format-check></pppoe-plus>");
    ASSERT_TRUE(check);
    EXPECT_EQ(*check, "\"%\\]\": \"%\" not followed by a keyword (result 2)\n");
    EXPECT_FALSE(RenderFormatCheckReply("%", ns + "</pppoe-plus>"));

    EXPECT_FALSE(RenderQueryReply("policy", "<other/>"));
    EXPECT_FALSE(RenderQueryReply("policy", "not xml"));
}

}  // namespace
