// The agent's YANG model as the configuration datastore will load it: every
// module compiles in libyang, bad data is refused with an error that names
// the offending node, and yanglint accepts the modules and the bundled
// example (whose settings the interop replay puts to work). The paths, enumerations and defaults the agent relies
// on are exercised through the datastore and the CLI suites.
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

TEST(YangModel, BadConfigurationIsRefusedNamingTheOffendingNode)
{
    YangContext ctx;
    ASSERT_NE(ctx.get(), nullptr);
    const std::string ns = R"( xmlns="urn:quendal:yang:quendal-pppoe-plus")";
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
    // Out-of-range values, unknown element and enumeration names, missing
    // mandatory leaves, state data and operation inputs are refused through
    // the datastore in ydbc_test.cpp and the host in replay_test.cpp.
    const std::vector<Row> rows = {
        {"description longer than the agent keeps",
         onPort("<if-description><ifIndex>5</ifIndex><ifDescr>" + std::string(243, 'd') +
                "</ifDescr></if-description>"),
         "ifDescr"},
        {"format list entry without its inner VLAN key",
         onPort("<port-tags-formats><port-tags-format><vlan-id>100</vlan-id>"
                "<tags-encapsulation-type>circuit-id</tags-encapsulation-type><ifIndex>5</ifIndex>"
                "</port-tags-format></port-tags-formats>"),
         "cevlan-id"},
        {"user-define port format without a string",
         onPort(format + "<tags-encapsulation-format>user-define</tags-encapsulation-format>"
                         "</port-tags-format></port-tags-formats>"),
         "port-tags-format"},
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
