// The agent's YANG model as the configuration datastore will load it: every
// module compiles in libyang, every path and leaf the agent subscribes and
// reads exists with the enumeration names and defaults the agent maps, the
// bundled example is valid running data, bad data is refused with an error
// that names the offending node, and yanglint accepts the modules.
#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

const std::filesystem::path kYangDir = std::filesystem::path(PPLUS_SOURCE_DIR) / "yang";
const std::filesystem::path kExample = std::filesystem::path(PPLUS_SOURCE_DIR) / "examples" / "pppoe-plus.xml";

constexpr const char *kIfmPort = "/quendal-ifm:ifm/interfaces/interface/quendal-pppoe-plus:pppoe-plus-port";

// A libyang context holding every module of yang/, freed with the test.
class YangContext {
public:
    YangContext()
    {
        ly_log_options(LY_LOLOG | LY_LOSTORE);
        if (ly_ctx_new(kYangDir.c_str(), 0, &ctx_) != LY_SUCCESS) {
            ADD_FAILURE() << "ly_ctx_new failed for " << kYangDir;
            return;
        }
        for (const auto &entry : std::filesystem::directory_iterator(kYangDir)) {
            if (entry.path().extension() != ".yang") {
                continue;
            }
            struct lys_module *mod = nullptr;
            EXPECT_EQ(lys_parse_path(ctx_, entry.path().c_str(), LYS_IN_YANG, &mod), LY_SUCCESS)
                << entry.path() << ": " << Errors();
        }
    }
    ~YangContext()
    {
        ly_ctx_destroy(ctx_);
    }
    YangContext(const YangContext &) = delete;
    YangContext &operator=(const YangContext &) = delete;

    struct ly_ctx *get() const
    {
        return ctx_;
    }

    // Every stored error, message and data path, one per line; then cleared.
    std::string Errors() const
    {
        std::string out;
        for (const struct ly_err_item *e = ly_err_first(ctx_); e != nullptr; e = e->next) {
            out += e->msg != nullptr ? e->msg : "";
            out += " @ ";
            out += e->path != nullptr ? e->path : "";
            out += "\n";
        }
        ly_err_clean(ctx_, nullptr);
        return out;
    }

private:
    struct ly_ctx *ctx_ = nullptr;
};

using DataTree = std::unique_ptr<struct lyd_node, decltype(&lyd_free_all)>;

// Parses XML text as running configuration (no state data allowed).
LY_ERR ParseConfig(const YangContext &ctx, const std::string &xml, DataTree &tree)
{
    struct lyd_node *node = nullptr;
    LY_ERR rc = lyd_parse_data_mem(ctx.get(), xml.c_str(), LYD_XML, LYD_PARSE_STRICT, LYD_VALIDATE_NO_STATE, &node);
    tree.reset(node);
    return rc;
}

const struct lysc_node_leaf *FindLeaf(const YangContext &ctx, const std::string &path)
{
    const struct lysc_node *node = lys_find_path(ctx.get(), nullptr, path.c_str(), 0);
    if (node == nullptr || node->nodetype != LYS_LEAF) {
        return nullptr;
    }
    return reinterpret_cast<const struct lysc_node_leaf *>(node);
}

// Length of a libyang sized array, stored just before its first item (what
// LY_ARRAY_COUNT does, without its C casts).
template <typename T>
LY_ARRAY_COUNT_TYPE ArrayCount(const T *array)
{
    return array == nullptr ? 0 : reinterpret_cast<const LY_ARRAY_COUNT_TYPE *>(array)[-1];
}

TEST(YangModel, EverySubscribedPathHoldsTheLeavesTheAgentReads)
{
    YangContext ctx;
    ASSERT_NE(ctx.get(), nullptr);
    ASSERT_NE(ly_ctx_get_module_implemented(ctx.get(), "quendal-pppoe-plus"), nullptr);
    ASSERT_NE(ly_ctx_get_module_implemented(ctx.get(), "quendal-ifm"), nullptr);

    const std::string port = kIfmPort;
    struct Row {
        std::string path;
        std::vector<std::string> leaves;
    };
    const std::vector<Row> rows = {
        // Configuration paths and the leaves their handlers read.
        {"/quendal-pppoe-plus:pppoe-plus/global-enable", {"enable"}},
        {"/quendal-pppoe-plus:pppoe-plus/global-tags-policy", {"tags-policy"}},
        {port + "/port-tags-policy", {"ifindex", "tags-policy"}},
        {"/quendal-pppoe-plus:pppoe-plus/vendor-id", {"vendor-id"}},
        {port + "/trusted-port", {"ifindex", "trusted-enable"}},
        {"/quendal-pppoe-plus:pppoe-plus/global-encapsulation-type", {"global-encapsulation"}},
        {"/quendal-pppoe-plus:pppoe-plus/global-ignore-policy", {"ignore-policy"}},
        {"/quendal-pppoe-plus:pppoe-plus/global-tags-format",
         {"tags-cid-encapsulation-format", "cid-user-define-text", "tags-rid-encapsulation-format",
          "rid-user-define-text"}},
        {port + "/port-tags-formats/port-tags-format",
         {"ifIndex", "vlan-id", "cevlan-id", "tags-encapsulation-type", "tags-encapsulation-format",
          "user-define-text"}},
        {port + "/if-description", {"ifIndex", "ifDescr"}},
        // Query paths and the elements of their replies.
        {"/quendal-pppoe-plus:pppoe-plus/query-encapsulation", {"vendor-id", "encapsulation-type"}},
        {"/quendal-pppoe-plus:pppoe-plus/query-policy", {"policy", "ignore-reply"}},
        {"/quendal-pppoe-plus:pppoe-plus/query-statistics/query-table",
         {"interface-name", "padi-receive-packets", "padi-send-packets", "pado-receive-packets", "pado-send-packets",
          "padr-receive-packets", "padr-send-packets", "pads-receive-packets", "pads-send-packets",
          "padt-receive-packets", "padt-send-packets", "discarded-packets"}},
        {"/quendal-pppoe-plus:pppoe-plus/query-format", {"encapsulation-format"}},
        {"/quendal-pppoe-plus:pppoe-plus/query-format-check/query-format-check-list",
         {"check-result", "user-define-text"}},
        // Operations and their input.
        {"/quendal-pppoe-plus:set-debugging", {"debug-switch", "debug-type"}},
        {"/quendal-pppoe-plus:reset-statistics", {}},
    };
    for (const Row &row : rows) {
        const struct lysc_node *node = lys_find_path(ctx.get(), nullptr, row.path.c_str(), 0);
        ASSERT_NE(node, nullptr) << row.path << ": " << ctx.Errors();
        bool query = row.path.find("/query-") != std::string::npos;
        EXPECT_EQ((node->flags & LYS_CONFIG_R) != 0, query) << row.path << ": only queries are state data";
        for (const std::string &leaf : row.leaves) {
            EXPECT_NE(FindLeaf(ctx, row.path + "/" + leaf), nullptr) << row.path << " lacks leaf " << leaf;
        }
    }
}

TEST(YangModel, EnumerationsAndDefaultsAreThoseTheAgentMaps)
{
    YangContext ctx;
    ASSERT_NE(ctx.get(), nullptr);
    const std::string top = "/quendal-pppoe-plus:pppoe-plus";
    const std::string port = kIfmPort;
    const std::vector<std::string> policies = {"replace", "drop", "keep"};
    const std::vector<std::string> formats = {"common", "extend", "user-define"};
    struct Row {
        std::string leaf;
        std::vector<std::string> enums;  // empty: not an enumeration
        const char *dflt;                // nullptr: no default
    };
    const std::vector<Row> rows = {
        {top + "/global-enable/enable", {}, "false"},
        {top + "/global-tags-policy/tags-policy", policies, "replace"},
        {top + "/vendor-id/vendor-id", {}, "3561"},
        {top + "/global-encapsulation-type/global-encapsulation", {"circuit-id", "remote-id", "both"}, "both"},
        // ignore-reply is on before any configuration: ignore-policy false.
        {top + "/global-ignore-policy/ignore-policy", {}, "false"},
        {top + "/global-tags-format/tags-cid-encapsulation-format", formats, "common"},
        {top + "/global-tags-format/tags-rid-encapsulation-format", formats, "common"},
        {port + "/port-tags-policy/tags-policy", policies, nullptr},
        {port + "/trusted-port/trusted-enable", {}, "false"},
        {port + "/port-tags-formats/port-tags-format/tags-encapsulation-type", {"circuit-id", "remote-id"}, nullptr},
        {port + "/port-tags-formats/port-tags-format/tags-encapsulation-format", formats, "common"},
    };
    for (const Row &row : rows) {
        const struct lysc_node_leaf *leaf = FindLeaf(ctx, row.leaf);
        ASSERT_NE(leaf, nullptr) << row.leaf;
        if (!row.enums.empty()) {
            ASSERT_EQ(leaf->type->basetype, LY_TYPE_ENUM) << row.leaf;
            const auto *type = reinterpret_cast<const struct lysc_type_enum *>(leaf->type);
            std::vector<std::string> names;
            for (LY_ARRAY_COUNT_TYPE i = 0; i < ArrayCount(type->enums); ++i) {
                names.emplace_back(type->enums[i].name);
            }
            EXPECT_EQ(names, row.enums) << row.leaf;
        }
        std::string expected = row.dflt == nullptr ? "" : row.dflt;
        std::string actual = leaf->dflt != nullptr ? lyd_value_get_canonical(ctx.get(), leaf->dflt) : "";
        EXPECT_EQ(actual, expected) << row.leaf;
    }
}

TEST(YangModel, BundledExampleIsValidRunningConfiguration)
{
    YangContext ctx;
    ASSERT_NE(ctx.get(), nullptr);
    struct lyd_node *node = nullptr;
    ASSERT_EQ(lyd_parse_data_path(ctx.get(), kExample.c_str(), LYD_XML, LYD_PARSE_STRICT, LYD_VALIDATE_NO_STATE,
                                  &node),
              LY_SUCCESS)
        << ctx.Errors();
    DataTree tree(node, &lyd_free_all);

    // The settings the host's YAML example applies, with the defaults filled in.
    const std::array<std::pair<const char *, const char *>, 6> expected = {{
        {"/quendal-pppoe-plus:pppoe-plus/global-enable/enable", "true"},
        {"/quendal-pppoe-plus:pppoe-plus/global-tags-policy/tags-policy", "replace"},
        {"/quendal-pppoe-plus:pppoe-plus/global-ignore-policy/ignore-policy", "false"},
        {"/quendal-pppoe-plus:pppoe-plus/global-tags-format/tags-rid-encapsulation-format", "common"},
        {"/quendal-ifm:ifm/interfaces/interface[name='XGigabitEthernet0/0/1']/"
         "quendal-pppoe-plus:pppoe-plus-port/trusted-port/ifindex",
         "49"},
        {"/quendal-ifm:ifm/interfaces/interface[name='XGigabitEthernet0/0/1']/"
         "quendal-pppoe-plus:pppoe-plus-port/trusted-port/trusted-enable",
         "true"},
    }};
    for (const auto &[path, value] : expected) {
        struct lyd_node *found = nullptr;
        ASSERT_EQ(lyd_find_path(tree.get(), path, 0, &found), LY_SUCCESS) << path << ": " << ctx.Errors();
        EXPECT_STREQ(lyd_get_value(found), value) << path;
    }
}

TEST(YangModel, BadConfigurationIsRefusedNamingTheOffendingNode)
{
    YangContext ctx;
    ASSERT_NE(ctx.get(), nullptr);
    const std::string ns = R"( xmlns="urn:quendal:yang:quendal-pppoe-plus")";
    const auto global = [&](const std::string &inner) { return "<pppoe-plus" + ns + ">" + inner + "</pppoe-plus>"; };
    const auto onPort = [&](const std::string &inner) {
        return R"(<ifm xmlns="urn:quendal:yang:quendal-ifm"><interfaces><interface><name>GigabitEthernet0/0/1</name>)"
               "<pppoe-plus-port" +
               ns + ">" + inner + "</pppoe-plus-port></interface></interfaces></ifm>";
    };
    const std::string format =
        "<port-tags-formats><port-tags-format><vlan-id>100</vlan-id><cevlan-id>0</cevlan-id>"
        "<tags-encapsulation-type>circuit-id</tags-encapsulation-type><ifIndex>5</ifIndex>";
    struct Row {
        const char *why;
        std::string xml;
        const char *node;  // must appear in the error's message or data path
    };
    const std::vector<Row> rows = {
        {"VLAN out of range",
         onPort("<port-tags-formats><port-tags-format><vlan-id>4095</vlan-id><cevlan-id>0</cevlan-id>"
                "<tags-encapsulation-type>circuit-id</tags-encapsulation-type><ifIndex>5</ifIndex>"
                "</port-tags-format></port-tags-formats>"),
         "vlan-id"},
        {"unknown policy name", global("<global-tags-policy><tags-policy>forward</tags-policy></global-tags-policy>"),
         "tags-policy"},
        {"unknown encapsulation", global("<global-encapsulation-type><global-encapsulation>circuit"
                                         "</global-encapsulation></global-encapsulation-type>"),
         "global-encapsulation"},
        {"format string of 128 characters",
         global("<global-tags-format><tags-cid-encapsulation-format>user-define</tags-cid-encapsulation-format>"
                "<cid-user-define-text>\"" +
                std::string(126, 'a') + "\"</cid-user-define-text></global-tags-format>"),
         "cid-user-define-text"},
        {"description longer than the agent keeps",
         onPort("<if-description><ifIndex>5</ifIndex><ifDescr>" + std::string(243, 'd') +
                "</ifDescr></if-description>"),
         "ifDescr"},
        {"format list entry without its inner VLAN key",
         onPort("<port-tags-formats><port-tags-format><vlan-id>100</vlan-id>"
                "<tags-encapsulation-type>circuit-id</tags-encapsulation-type><ifIndex>5</ifIndex>"
                "</port-tags-format></port-tags-formats>"),
         "cevlan-id"},
        {"port policy without its interface index",
         onPort("<port-tags-policy><tags-policy>keep</tags-policy></port-tags-policy>"), "ifindex"},
        {"user-define port format without a string",
         onPort(format + "<tags-encapsulation-format>user-define</tags-encapsulation-format>"
                         "</port-tags-format></port-tags-formats>"),
         "port-tags-format"},
        {"query reply in running configuration",
         global("<query-policy><policy>1</policy></query-policy>"), "query-policy"},
    };
    for (const Row &row : rows) {
        DataTree tree(nullptr, &lyd_free_all);
        EXPECT_NE(ParseConfig(ctx, row.xml, tree), LY_SUCCESS) << row.why << " was accepted: " << row.xml;
        std::string errors = ctx.Errors();
        EXPECT_NE(errors.find(row.node), std::string::npos) << row.why << ": errors do not name " << row.node
                                                            << ":\n"
                                                            << errors;
    }

    // The same documents with the fault removed are accepted, so each row
    // fails for its own reason.
    DataTree tree(nullptr, &lyd_free_all);
    EXPECT_EQ(ParseConfig(ctx,
                          onPort(format + "<tags-encapsulation-format>user-define</tags-encapsulation-format>"
                                          "<user-define-text>\"%sysname\"</user-define-text>"
                                          "</port-tags-format></port-tags-formats>"
                                          "<port-tags-policy><ifindex>5</ifindex><tags-policy>keep</tags-policy>"
                                          "</port-tags-policy><if-description><ifIndex>5</ifIndex><ifDescr>" +
                                 std::string(242, 'd') + "</ifDescr></if-description>"),
                          tree),
              LY_SUCCESS)
        << ctx.Errors();
}

TEST(YangModel, SetDebuggingInputIsCheckedLikeTheAgentChecksIt)
{
    YangContext ctx;
    ASSERT_NE(ctx.get(), nullptr);
    const auto parse = [&](const std::string &input) {
        std::string xml = R"(<set-debugging xmlns="urn:quendal:yang:quendal-pppoe-plus">)" + input + "</set-debugging>";
        struct ly_in *in = nullptr;
        EXPECT_EQ(ly_in_new_memory(xml.c_str(), &in), LY_SUCCESS);
        struct lyd_node *tree = nullptr;
        struct lyd_node *op = nullptr;
        LY_ERR rc = lyd_parse_op(ctx.get(), nullptr, in, LYD_XML, LYD_TYPE_RPC_YANG, &tree, &op);
        if (rc == LY_SUCCESS) {
            rc = lyd_validate_op(op, nullptr, LYD_TYPE_RPC_YANG, nullptr);
        }
        lyd_free_all(tree);
        ly_in_free(in, 0);
        return rc;
    };
    // Level 4 switches all four levels: the largest accepted.
    EXPECT_EQ(parse("<debug-switch>true</debug-switch><debug-type>4</debug-type>"), LY_SUCCESS) << ctx.Errors();
    EXPECT_NE(parse("<debug-switch>true</debug-switch><debug-type>5</debug-type>"), LY_SUCCESS);
    EXPECT_NE(ctx.Errors().find("debug-type"), std::string::npos);
    EXPECT_NE(parse("<debug-switch>on</debug-switch><debug-type>1</debug-type>"), LY_SUCCESS);
    EXPECT_NE(ctx.Errors().find("debug-switch"), std::string::npos);
    EXPECT_NE(parse("<debug-switch>false</debug-switch>"), LY_SUCCESS);
    EXPECT_NE(ctx.Errors().find("debug-type"), std::string::npos);
}

// Runs a command through the shell; its exit status and what it printed.
std::pair<int, std::string> RunShell(const std::string &command)
{
    std::string output;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return {-1, "popen failed"};
    }
    std::array<char, 512> chunk{};
    while (fgets(chunk.data(), static_cast<int>(chunk.size()), pipe) != nullptr) {
        output += chunk.data();
    }
    return {pclose(pipe), output};
}

TEST(YangModel, YanglintAcceptsTheModulesAndTheExample)
{
    auto [found, where] = RunShell("command -v yanglint");
    ASSERT_EQ(found, 0) << "yanglint is not installed (Debian package libyang-tools)";

    std::string modules;
    for (const auto &entry : std::filesystem::directory_iterator(kYangDir)) {
        if (entry.path().extension() == ".yang") {
            modules += " '" + entry.path().string() + "'";
        }
    }
    ASSERT_FALSE(modules.empty());
    const std::string yanglint = "yanglint -p '" + kYangDir.string() + "'";

    auto [schemaRc, schemaOut] = RunShell(yanglint + modules);
    EXPECT_EQ(schemaRc, 0) << schemaOut;
    // Warnings count as faults too: a clean model prints nothing.
    EXPECT_EQ(schemaOut, "");

    auto [dataRc, dataOut] = RunShell(yanglint + " -t config" + modules + " '" + kExample.string() + "'");
    EXPECT_EQ(dataRc, 0) << dataOut;
    EXPECT_EQ(dataOut, "");
}
}  // namespace
