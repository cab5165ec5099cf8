// The configuration interface against an in-test client library: the
// binding's pointers are set to small functions that hand out given XML, so
// the handlers, the XML helpers and the client task run as they do against
// the datastore.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "devm.h"
#include "module_fixture.hpp"
#include "platform/control.h"
#include "pplus_test.hpp"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_pkt.h"
#include "pppoe_plus_portdesc.h"
#include "pppoe_plus_udfchk.h"
#include "pppoe_plus_yang.h"
#include "pppoe_plus_yangdb_cfg.h"

using pplus_test::LogHas;
using pplus_test::WaitFor;

namespace {

const std::string kNs = R"( xmlns="urn:quendal:yang:quendal-pppoe-plus")";
const char *const kIfPath =
    "/quendal-ifm:ifm/interfaces/interface[name='GigabitEthernet0/0/1']/quendal-pppoe-plus:pppoe-plus-port";
const char *const kCheckPath = "/quendal-pppoe-plus:pppoe-plus/query-format-check/query-format-check-list";

// What the in-test library was asked and what it answers.
struct FakeLib {
    std::mutex mu;
    std::string pullXml;
    bool pullFails = false;
    uint32_t lastOld = 99;
    std::vector<std::string> subscribed;
    uint32_t failKind = 0xFFFFFFFFU;
    std::atomic<uint32_t> activations{0};
    std::atomic<uint32_t> connects{0};
    std::atomic<uint32_t> runs{0};
    std::atomic<uint32_t> clientNews{0};
    std::atomic<int> readFd{-1};
    std::atomic<int> writeFd{-1};
};
FakeLib *g_lib = nullptr;
int g_clientTokens[2] = {};
auto *const kClient = reinterpret_cast<ydbc_client *>(&g_clientTokens[0]);
auto *const kLaterClient = reinterpret_cast<ydbc_client *>(&g_clientTokens[1]);

ydbc_bytes *NewBytes(const char *text, uint32_t length, uint32_t kind)
{
    auto *b = new ydbc_bytes{kind, length, length, new char[length + 1]};
    std::memcpy(b->text, text != nullptr ? text : "", length);
    b->text[length] = '\0';
    return b;
}

void FreeBytes(ydbc_bytes *b)
{
    delete[] b->text;
    delete b;
}

uint32_t Pull(void *, uint32_t old, const char *, uint32_t, ydbc_bytes **out)
{
    std::lock_guard<std::mutex> lock(g_lib->mu);
    g_lib->lastOld = old;
    if (g_lib->pullFails) {
        return 1;
    }
    *out = NewBytes(g_lib->pullXml.c_str(), static_cast<uint32_t>(g_lib->pullXml.size()), 1);
    return 0;
}

uint32_t Subscribe(ydbc_client *, const ydbc_subscription *row)
{
    std::lock_guard<std::mutex> lock(g_lib->mu);
    if (row->kind == g_lib->failKind) {
        return 1;
    }
    g_lib->subscribed.emplace_back(row->path);
    return 0;
}

// The first client made is kClient, every later one kLaterClient.
ydbc_client *ClientNew(const char *, uint32_t mode, void *)
{
    if (mode != 1) {
        return nullptr;
    }
    return g_lib->clientNews++ == 0 ? kClient : kLaterClient;
}

// Each connect hands out the read end of a fresh pipe; closing the write
// end is the datastore going away.
int32_t Connect(ydbc_client *, const char *)
{
    int fds[2];
    if (pipe2(fds, O_NONBLOCK) != 0) {
        return -1;
    }
    g_lib->writeFd = fds[1];
    g_lib->readFd = fds[0];
    g_lib->connects++;
    return fds[0];
}

uint32_t Activate(ydbc_client *, uint32_t flag, ydbc_recover_end_cb recoverEnd, void *ctx)
{
    g_lib->activations++;
    return (flag == 1 && recoverEnd != nullptr) ? recoverEnd(ctx, 1) : 1;
}

uint32_t RunRequests(ydbc_client *, uint32_t budget)
{
    char byte;
    while (read(g_lib->readFd, &byte, 1) == 1) {
    }
    g_lib->runs += budget == 1000 ? 1 : 0;
    return 0;
}

class YangDbTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        g_lib = &lib_;
        g_pplusYdbcCfg = {};
        g_pplusYdbcCfg.pull = Pull;
        g_pplusYdbcCfg.newBytes = NewBytes;
        g_pplusYdbcCfg.freeBytes = FreeBytes;
        g_pplusYdbcCfg.subscribe = Subscribe;
        PPPOE_PLUS_InitGlobalCfgData();
        ASSERT_EQ(PPPOE_PLUS_UpdateDebugSwitch(PPPOE_PLUS_DBG_ALL, 1), 0U);
    }

    using CfgHandler = uint32_t (*)(void *, uint32_t, uint32_t, uint32_t, const char *);
    using GetHandler = uint32_t (*)(void *, const char *, uint32_t, ydbc_bytes **);

    // Delivers a change whose data the library will hand out as xml.
    uint32_t Change(CfgHandler handler, const std::string &xml, uint32_t opType = YDBC_OP_CREATE,
                    const char *path = kIfPath)
    {
        lib_.pullXml = xml;
        return handler(&ctx_, opType, 0, 0, path);
    }

    // The reply text of a query, or "<refused>".
    std::string Query(GetHandler handler, const char *path = "/quendal-pppoe-plus:pppoe-plus/q")
    {
        ydbc_bytes *out = nullptr;
        if (handler(&ctx_, path, 0, &out) != 0) {
            EXPECT_EQ(out, nullptr);
            return "<refused>";
        }
        std::string text = out->text;
        FreeBytes(out);
        return text;
    }

    static std::string Wrap(const std::string &root, const std::string &body)
    {
        return "<" + root + kNs + ">" + body + "</" + root + ">";
    }

    FakeLib lib_;
    int ctx_ = 0;
};

TEST_F(YangDbTest, SubscribeGroupsKeepTheFirstRegistrationAndAFailingGroupDoesNotStopTheOthers)
{
    PPPOE_PLUS_RegSubScribeCallBack(0, PPPOE_PLUS_YdbcSubScribeCfg);
    PPPOE_PLUS_RegSubScribeCallBack(2, PPPOE_PLUS_YdbcSubScribeRpc);
    PPPOE_PLUS_RegSubScribeCallBack(1, PPPOE_PLUS_YdbcSubScribeGet);
    PPPOE_PLUS_RegSubScribeCallBack(0, PPPOE_PLUS_YdbcSubScribeRpc);  // slot taken: ignored
    PPPOE_PLUS_RegSubScribeCallBack(4, PPPOE_PLUS_YdbcSubScribeRpc);  // no such slot
    EXPECT_EQ(g_pplusYdbcSubScribeTbl[0].load(), PPPOE_PLUS_YdbcSubScribeCfg);
    EXPECT_EQ(g_pplusYdbcSubScribeTbl[3].load(), nullptr);

    EXPECT_NE(PPPOE_PLUS_SubScribeYang(), 0U);  // no client yet
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] Get ydbc client fail."));

    PPPOE_PLUS_SetYdbcClient(kClient);
    lib_.failKind = YDBC_SUB_CONFIG;
    EXPECT_NE(PPPOE_PLUS_SubScribeYang(), 0U);
    // Slot order: get rows, then rpc rows, each in table order.
    ASSERT_EQ(lib_.subscribed.size(), 7U);
    EXPECT_EQ(lib_.subscribed[0], "/quendal-pppoe-plus:pppoe-plus/query-encapsulation");
    EXPECT_EQ(lib_.subscribed[6], "/quendal-pppoe-plus:reset-statistics");

    lib_.failKind = 0xFFFFFFFFU;
    lib_.subscribed.clear();
    EXPECT_EQ(PPPOE_PLUS_SubScribeYang(), 0U);
    EXPECT_EQ(lib_.subscribed.size(), 17U);
    EXPECT_EQ(lib_.subscribed[8],
              "/quendal-ifm:ifm/interfaces/interface/quendal-pppoe-plus:pppoe-plus-port/"
              "port-tags-formats/port-tags-format");
}

TEST_F(YangDbTest, UnboundLibraryFunctionsAnswerTheirDefaults)
{
    g_pplusYdbcCfg = {};
    int32_t fd = -1;
    EXPECT_EQ(PPPOE_PLUS_ConnectYdbcClient(kClient, &fd, PPPOE_PLUS_YDBC_URL), 0U);
    EXPECT_EQ(fd, 0);
    EXPECT_EQ(PPPOE_PLUS_SubscribeYdbc(kClient, g_pplusCommYdbcSubCfg, 10), 0U);
    EXPECT_EQ(PPPOE_PLUS_SubscribeYdbc(kClient, g_pplusCommYdbcSubCfg, 0), 1U);
    EXPECT_EQ(PPPOE_PLUS_ActiveYdbc(kClient), 0U);
    EXPECT_EQ(PPPOE_PLUS_CreateYdbcClient("pppoe_plus"), nullptr);
    EXPECT_EQ(PPPOE_PLUS_CreateYdbcClient(nullptr), nullptr);
    EXPECT_EQ(PLAT_AssertCountAt("app/src/common/src/pppoe_plus_yang", 145), 1U);
    // A pull that hands nothing over rejects the change.
    EXPECT_EQ(Change(PPPOE_PLUS_SwitchSys, Wrap("global-enable", "<enable>true</enable>")), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] Content is NULL. path:"));
    EXPECT_EQ(PPPOE_PLUS_IsEnable(), 0U);
    EXPECT_EQ(Query(PPPOE_PLUS_GetPolicy), "<refused>");
}

TEST_F(YangDbTest, XmlHelpersReadLeavesKeysAndEscapedValues)
{
    const std::string xml = Wrap("r", "<ifIndex>49</ifIndex><seven>1234567</seven><empty/>");
    ydbc_bytes *in = NewBytes(xml.c_str(), static_cast<uint32_t>(xml.size()), 1);
    xmlNodePtr node = PPPOE_PLUS_YangParse2XmlNode(in);
    FreeBytes(in);
    ASSERT_NE(node, nullptr);
    char buf[32];
    EXPECT_EQ(PPPOE_PLUS_YangGetChildXmlNodeByName(node, "IFINDEX", buf, sizeof(buf)), 0U);
    EXPECT_STREQ(buf, "49");
    EXPECT_EQ(PPPOE_PLUS_YangGetChildXmlNodeByName(node, "seven", buf, 8), 0U);
    EXPECT_EQ(PPPOE_PLUS_YangGetChildXmlNodeByName(node, "seven", buf, 7), 1U);  // exactly buffer size: absent
    EXPECT_EQ(PPPOE_PLUS_YangGetChildXmlNodeByName(node, "empty", buf, sizeof(buf)), 1U);
    EXPECT_EQ(PPPOE_PLUS_YangGetChildXmlNodeByName(node, "missing", buf, sizeof(buf)), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] Can not get node, name:missing startnode:ifIndex."));
    PPPOE_PLUS_FreeXmlNode(node);

    const std::string base = std::string(kCheckPath) + "[user-define-text=";
    EXPECT_EQ(PPPOE_PLUS_YangGetKeyValueByPath((base + "'%a']").c_str(), "user-define-text", buf, sizeof(buf)), 0U);
    EXPECT_STREQ(buf, "%a");
    // A backslash escapes the next character of this key: an escaped "]"
    // or backslash stays in the value, as it was sent.
    EXPECT_EQ(PPPOE_PLUS_YangGetKeyValueByPath((base + "'\"x\\]\"']").c_str(), "user-define-text", buf, 32), 0U);
    EXPECT_STREQ(buf, "\"x\\]\"");
    EXPECT_EQ(PPPOE_PLUS_YangGetKeyValueByPath((base + "'x\\\\']").c_str(), "user-define-text", buf, 32), 0U);
    EXPECT_STREQ(buf, "x\\\\");
    EXPECT_EQ(PPPOE_PLUS_YangGetKeyValueByPath((base + "'']").c_str(), "user-define-text", buf, sizeof(buf)), 1U);
    EXPECT_EQ(PPPOE_PLUS_YangGetKeyValueByPath(kCheckPath, "user-define-text", buf, sizeof(buf)), 1U);
    EXPECT_EQ(PPPOE_PLUS_YangGetKeyValueByPath((base + "'%a'").c_str(), "user-define-text", buf, sizeof(buf)), 1U);

    char out[16];
    PPPOE_PLUS_GetDealWithValue("a\\\\b\\]c", 7, out, sizeof(out));
    EXPECT_STREQ(out, "a\\b]c");
    char path[] = "/a/b[k='x/y']/c";
    PPPOE_PLUS_SplitParentNodeByOffsize(1, path);
    EXPECT_STREQ(path, "/a/b[k='x/y']");
    PPPOE_PLUS_SplitParentNodeByOffsize(1, path);  // the slash inside the key does not count
    EXPECT_STREQ(path, "/a");
}

TEST_F(YangDbTest, GlobalSettingsMapTheirLeaves)
{
    EXPECT_EQ(Change(PPPOE_PLUS_SwitchSys, Wrap("global-enable", "<enable>TRUE</enable>")), 0U);
    EXPECT_EQ(PPPOE_PLUS_IsEnable(), 1U);
    EXPECT_EQ(lib_.lastOld, 0U);
    EXPECT_EQ(Change(PPPOE_PLUS_SwitchSys, Wrap("global-enable", "<enable>yes</enable>")), 0U);
    EXPECT_EQ(PPPOE_PLUS_IsEnable(), 0U);
    EXPECT_EQ(Change(PPPOE_PLUS_SwitchSys, Wrap("global-enable", "<enable>true</enable>"), YDBC_OP_DELETE), 0U);
    EXPECT_EQ(lib_.lastOld, 1U);  // a delete reads the data as it was
    EXPECT_EQ(PPPOE_PLUS_SwitchSys(nullptr, 1, 0, 0, kIfPath), 1U);

    const std::pair<const char *, uint8_t> policies[] = {{"<tags-policy>drop</tags-policy>", 2},
                                                         {"<tags-policy>KEEP</tags-policy>", 3},
                                                         {"<tags-policy>bogus</tags-policy>", 1}};
    for (const auto &[body, policy] : policies) {
        g_pppoePlusGlobalInfo.infoPolicy = 0;
        EXPECT_EQ(Change(PPPOE_PLUS_PolicySys, Wrap("global-tags-policy", body)), 0U) << body;
        EXPECT_EQ(PPPOE_PLUS_GetGlobalInfoPolicy(), policy) << body;
    }

    // Inverted on purpose: only a present leaf other than "true" ignores replies.
    const std::pair<const char *, uint8_t> ignores[] = {
        {"<ignore-policy>false</ignore-policy>", 1}, {"<ignore-policy>True</ignore-policy>", 0}, {"", 0}};
    for (const auto &[body, stored] : ignores) {
        (void)Change(PPPOE_PLUS_IgnoreReply, Wrap("global-ignore-policy", body));
        EXPECT_EQ(PPPOE_PLUS_GetIgnoreReply(), stored) << body;
    }

    EXPECT_EQ(Change(PPPOE_PLUS_EncapType,
                     Wrap("global-encapsulation-type", "<global-encapsulation>remote-id</global-encapsulation>")),
              0U);
    EXPECT_EQ(PPPOE_PLUS_GetInfoEncap(), 2U);
    EXPECT_EQ(Change(PPPOE_PLUS_EncapType, Wrap("global-encapsulation-type", "")), 0U);
    EXPECT_EQ(PPPOE_PLUS_GetInfoEncap(), 3U);

    EXPECT_EQ(Change(PPPOE_PLUS_VendorId, Wrap("vendor-id", "<vendor-id>2011</vendor-id>")), 0U);
    EXPECT_EQ(PPPOE_PLUS_GetVendorId(), 2011U);
    EXPECT_EQ(Change(PPPOE_PLUS_VendorId, Wrap("vendor-id", "<other>1</other>")), 0U);
    EXPECT_EQ(PPPOE_PLUS_GetVendorId(), PPPOE_PLUS_DEFAULT_VENDOR_ID);
    // The element it came with is logged as XML.
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "set to default value. content:<vendor-id xmlns="));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "<other>1</other></vendor-id>"));

    EXPECT_EQ(
        Change(PPPOE_PLUS_FormatSys, Wrap("global-tags-format",
                                          "<tags-cid-encapsulation-format>user-define</tags-cid-encapsulation-format>"
                                          "<cid-user-define-text>%a</cid-user-define-text>"
                                          "<tags-rid-encapsulation-format>Extend</tags-rid-encapsulation-format>")),
        0U);
    EXPECT_EQ(PPPOE_PLUS_GetGlobalCidFormat(), 2U);
    EXPECT_EQ(PPPOE_PLUS_GetGlobalRidFormat(), 1U);
    {
        PppoePlusCfgReadGuard guard(PppoePlusCfgLock());
        EXPECT_STREQ(PPPOE_PLUS_GetGlobalCidUdfFormat(), "%a");
    }

    lib_.pullFails = true;
    g_pppoePlusGlobalInfo.infoPolicy = 2;
    EXPECT_EQ(Change(PPPOE_PLUS_PolicySys, ""), 1U);
    EXPECT_EQ(PPPOE_PLUS_GetGlobalInfoPolicy(), 2U);  // a rejected change leaves the store alone
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] Failed to get global policy input."));
}

TEST_F(YangDbTest, PerInterfaceSettingsUseTheirKeysAndDefaults)
{
    EXPECT_EQ(Change(PPPOE_PLUS_PolicyIf, Wrap("port-tags-policy", "<ifindex>5</ifindex>")), 1U);
    EXPECT_EQ(PPPOE_PLUS_FindPortCBByindex(5), nullptr);
    EXPECT_EQ(
        Change(PPPOE_PLUS_PolicyIf, Wrap("port-tags-policy", "<ifindex>5</ifindex><tags-policy>drop</tags-policy>")),
        0U);
    ASSERT_NE(PPPOE_PLUS_FindPortCBByindex(5), nullptr);
    EXPECT_EQ(PPPOE_PLUS_FindPortCBByindex(5)->infoPolicy.load(), 2U);

    // Without "ifindex" the trust goes to interface 0; a delete clears it.
    (void)Change(PPPOE_PLUS_PortTrust, Wrap("trusted-port", "<trusted-enable>true</trusted-enable>"));
    ASSERT_NE(PPPOE_PLUS_FindPortCBByindex(0), nullptr);
    EXPECT_EQ(PPPOE_PLUS_FindPortCBByindex(0)->trust.load(), 1U);
    (void)Change(PPPOE_PLUS_PortTrust,
                 Wrap("trusted-port", "<IfIndex>0</IfIndex><trusted-enable>true</trusted-enable>"), YDBC_OP_DELETE);
    EXPECT_EQ(PPPOE_PLUS_FindPortCBByindex(0)->trust.load(), 0U);

    const std::string format =
        "<ifIndex>5</ifIndex><vlan-id>100</vlan-id><cevlan-id>0</cevlan-id>"
        "<tags-encapsulation-type>circuit-id</tags-encapsulation-type>"
        "<tags-encapsulation-format>user-define</tags-encapsulation-format>";
    EXPECT_EQ(Change(PPPOE_PLUS_FormatIf, Wrap("port-tags-format", format + "<user-define-text>%a</user-define-text>")),
              0U);
    const InfoFormatNode key = pplus_test::Format(100, 0, PPPOE_PLUS_INFO_CID);
    {
        PppoePlusCfgReadGuard guard(PppoePlusCfgLock());
        const InfoFormatNode *found = PPPOE_PLUS_FindInfoFormatOnInterface(PPPOE_PLUS_FindPortCBByindex(5), &key);
        ASSERT_NE(found, nullptr);
        EXPECT_STREQ(found->userDefineStr, "%a");
        EXPECT_EQ(found->infoFormatType, 2U);
    }
    const std::string tooLong = "<user-define-text>" + std::string(128, 'x') + "</user-define-text>";
    EXPECT_EQ(Change(PPPOE_PLUS_FormatIf, Wrap("port-tags-format", format + tooLong)), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPLUS-CFG] Save userDefineStr failed, encapType:1, formatType=2"));
    EXPECT_EQ(Change(PPPOE_PLUS_FormatIf, Wrap("port-tags-format", format), YDBC_OP_DELETE), 0U);
    {
        PppoePlusCfgReadGuard guard(PppoePlusCfgLock());
        EXPECT_EQ(PPPOE_PLUS_FindInfoFormatOnInterface(PPPOE_PLUS_FindPortCBByindex(5), &key), nullptr);
    }
    (void)Change(
        PPPOE_PLUS_FormatIf,
        Wrap("port-tags-format", "<ifIndex>5</ifIndex><tags-encapsulation-type>both</tags-encapsulation-type>"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "enable:1, ifIndex:5, vlanId:0, ceVlanId:0, encapType:0, formatType:0"));

    EXPECT_EQ(Change(PPPOE_PLUS_PortDesc, Wrap("if-description", "<ifIndex>5</ifIndex><ifDescr>uplink</ifDescr>")), 0U);
    ASSERT_NE(PPPOE_PLUS_PortDescHashFind(5), nullptr);
    EXPECT_STREQ(PPPOE_PLUS_PortDescHashFind(5)->description, "uplink");
    const std::string longDescr = "<ifDescr>" + std::string(300, 'd') + "</ifDescr>";
    EXPECT_EQ(Change(PPPOE_PLUS_PortDesc, Wrap("if-description", "<ifIndex>5</ifIndex>" + longDescr)), 0U);
    EXPECT_STREQ(PPPOE_PLUS_PortDescHashFind(5)->description, "");
    EXPECT_EQ(Change(PPPOE_PLUS_PortDesc, Wrap("if-description", "<ifIndex>5</ifIndex>"), YDBC_OP_DELETE), 0U);
    EXPECT_EQ(PPPOE_PLUS_PortDescHashFind(5), nullptr);
}

TEST_F(YangDbTest, QueriesAnswerFromTheLiveState)
{
    PPPOE_PLUS_SetVendorId(2011);
    PPPOE_PLUS_SetInfoEncap(1, 2);
    EXPECT_EQ(Query(PPPOE_PLUS_GetEncapsulation),
              "<pppoe-plus" + kNs +
                  "><query-encapsulation><vendor-id>2011</vendor-id><encapsulation-type>2</encapsulation-type>"
                  "</query-encapsulation></pppoe-plus>");
    g_pppoePlusGlobalInfo.infoPolicy = 3;
    g_pppoePlusGlobalInfo.ignoreReply = 0;
    EXPECT_EQ(Query(PPPOE_PLUS_GetPolicy), "<pppoe-plus" + kNs +
                                               "><query-policy><policy>3</policy><ignore-reply>0</ignore-reply>"
                                               "</query-policy></pppoe-plus>");
    EXPECT_EQ(PPPOE_PLUS_GetPolicy(&ctx_, nullptr, 0, nullptr), 1U);

    // Ports 5 (trusted) and 6 have names; 7 has none and is left out.
    platform::world::IfPut({.name = "GigabitEthernet0/0/1", .ifIndex = 5});
    platform::world::IfPut({.name = "GigabitEthernet0/0/2", .ifIndex = 6});
    PortCB *cb = nullptr;
    for (uint32_t ifIndex : {5U, 6U, 7U}) {
        ASSERT_EQ(PPPOE_PLUS_GetPortCBByIndex(ifIndex, &cb), 0U);
    }
    PPPOE_PLUS_FindPortCBByindex(5)->trust = 1;
    PortCB *port5 = PPPOE_PLUS_FindPortCBByindex(5);
    port5->stats[PppoePlusCounterIndex(PPPOE_PLUS_CODE_PADI, PPPOE_PLUS_STAT_RECV)] = 7;
    port5->stats[PppoePlusCounterIndex(PPPOE_PLUS_CODE_PADI, PPPOE_PLUS_STAT_SEND)] = 8;
    port5->stats[PppoePlusCounterIndex(PPPOE_PLUS_CODE_PADI, PPPOE_PLUS_STAT_DISCARD)] = 0xFFFFFFFFU;
    port5->stats[PppoePlusCounterIndex(PPPOE_PLUS_CODE_PADT, PPPOE_PLUS_STAT_DISCARD)] = 3;
    const std::string stats = Query(PPPOE_PLUS_GetStatistics);
    EXPECT_NE(stats.find("<query-table><interface-name>GigabitEthernet0/0/1(*T)</interface-name>"
                         "<padi-receive-packets>7</padi-receive-packets><padi-send-packets>8</padi-send-packets>"
                         "<pado-receive-packets>0</pado-receive-packets>"),
              std::string::npos)
        << stats;
    EXPECT_NE(stats.find("<padt-send-packets>0</padt-send-packets><discarded-packets>2</discarded-packets>"),
              std::string::npos)
        << stats;
    // Port 6's table is the last: 7 is left out.
    const size_t last = stats.find("<interface-name>GigabitEthernet0/0/2</interface-name>");
    EXPECT_NE(last, std::string::npos);
    EXPECT_EQ(stats.find("<query-table>", last), std::string::npos);
    EXPECT_EQ(std::count(stats.begin(), stats.end(), '\n'), 0);

    const std::string format = Query(PPPOE_PLUS_GetFormat);
    EXPECT_NE(format.find("<query-format><encapsulation-format> The current information format :"), std::string::npos)
        << format;

    // The key as the path carries it: %a&<, then an escaped backslash; the
    // reply escapes what XML must.
    const std::string raw = "%a&<\\\\";
    const std::string check =
        Query(PPPOE_PLUS_GetFormatCheckResult, (std::string(kCheckPath) + "[user-define-text='" + raw + "']").c_str());
    const std::string expect = "<check-result>" + std::to_string(PPPOE_PLUS_UserDfdFmtCheck("%a&<\\")) +
                               "</check-result><user-define-text>%a&amp;&lt;\\</user-define-text>";
    EXPECT_NE(check.find("<query-format-check><query-format-check-list>" + expect), std::string::npos) << check;
    EXPECT_EQ(Query(PPPOE_PLUS_GetFormatCheckResult, kCheckPath), "<refused>");
    EXPECT_EQ(Query(PPPOE_PLUS_GetFormatCheckResult, (std::string(kCheckPath) + "[user-define-text='']").c_str()),
              "<refused>");
}

TEST_F(YangDbTest, OperationsSwitchDebugLevelsAndClearCounters)
{
    ASSERT_EQ(PPPOE_PLUS_UpdateDebugSwitch(PPPOE_PLUS_DBG_ALL, 0), 0U);
    auto debugging = [this](const std::string &body) {
        const std::string xml = Wrap("set-debugging", body);
        ydbc_bytes *in = NewBytes(xml.c_str(), static_cast<uint32_t>(xml.size()), 1);
        const uint32_t ret = PPPOE_PLUS_Debugging(&ctx_, in, 0, nullptr);
        FreeBytes(in);
        return ret;
    };
    EXPECT_EQ(debugging("<debug-switch>true</debug-switch><debug-type>4</debug-type>"), 0U);
    for (const auto &level : g_debugSwitch) {
        EXPECT_EQ(level.enabled.load(), 1U);
    }
    EXPECT_EQ(debugging("<debug-switch>true</debug-switch><debug-type>5</debug-type>"), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG]YANG_RPC: failed to set debug switch."));
    EXPECT_EQ(debugging("<debug-switch>true</debug-switch>"), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG]YANG_RPC: failed to get debug-type."));
    EXPECT_EQ(debugging("<Debug-Switch>On</Debug-Switch><debug-type>2</debug-type>"), 0U);
    EXPECT_EQ(g_debugSwitch[2].enabled.load(), 0U);
    EXPECT_EQ(g_debugSwitch[1].enabled.load(), 1U);
    EXPECT_EQ(PPPOE_PLUS_Debugging(&ctx_, nullptr, 0, nullptr), 1U);

    EXPECT_EQ(PPPOE_PLUS_ResetStatistics(&ctx_, nullptr, 0, nullptr), 0U);  // no ports yet
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] Reset statistics successfully."));
    PortCB *cb = nullptr;
    ASSERT_EQ(PPPOE_PLUS_GetPortCBByIndex(5, &cb), 0U);
    cb->trust = 1;
    for (auto &counter : cb->stats) {
        counter = 9;
    }
    EXPECT_EQ(PPPOE_PLUS_ResetStatistics(&ctx_, nullptr, 0, nullptr), 0U);
    for (const auto &counter : cb->stats) {
        EXPECT_EQ(counter.load(), 0U);
    }
    EXPECT_EQ(cb->trust.load(), 1U);  // configuration stays
}

TEST_F(YangDbTest, ClientTaskServesRequestsAndReactivatesAfterAHangUp)
{
    // The task outlives the test: its library state is never freed.
    g_lib = new FakeLib;
    FakeLib &lib = *g_lib;
    PLAT_SetTimeScale(1);
    // Not the main board: no client task.
    platform::SystemIdentity id = platform::world::Identity();
    id.boardType = DEVM_BOARD_TYPE_LPU;
    platform::world::SetIdentity(id);
    EXPECT_EQ(PPPOE_PLUS_YdbcRun(), 0U);
    PLAT_TASK_INFO_S info{};
    EXPECT_EQ(PLAT_TaskGetInfo(PPPOE_PLUS_YDBC_TASK_NAME, &info), 1U);

    id.boardType = DEVM_BOARD_TYPE_MPU;
    platform::world::SetIdentity(id);
    g_pplusYdbcCfg.clientNew = ClientNew;
    g_pplusYdbcCfg.connect = Connect;
    g_pplusYdbcCfg.activate = Activate;
    g_pplusYdbcCfg.run = RunRequests;
    PPPOE_PLUS_RegSubScribeCallBack(0, PPPOE_PLUS_YdbcSubScribeCfg);
    PPPOE_PLUS_RegSubScribeCallBack(2, PPPOE_PLUS_YdbcSubScribeRpc);
    PPPOE_PLUS_RegSubScribeCallBack(1, PPPOE_PLUS_YdbcSubScribeGet);
    ASSERT_EQ(PPPOE_PLUS_YdbcRun(), 0U);
    EXPECT_EQ(PLAT_TaskGetInfo(PPPOE_PLUS_YDBC_TASK_NAME, &info), 0U);
    ASSERT_TRUE(WaitFor([&] { return LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] Init yang."); }));
    EXPECT_EQ(lib.activations.load(), 1U);
    EXPECT_EQ(PPPOE_PLUS_GetYdbcClient(), kClient);
    EXPECT_EQ(PPPOE_PLUS_GetYdbcConnectFd(), lib.readFd.load());

    // A repeated start of work leaves the serving client in place.
    ASSERT_EQ(PPPOE_PLUS_YdbcRun(), 0U);
    ASSERT_TRUE(WaitFor(
        [&] { return lib.clientNews.load() > 1 || LogHas(PLAT_LOG_DEBUG, "[PPLUS-CFG] Ydbc client serves already"); }));
    EXPECT_EQ(lib.clientNews.load(), 1U);
    EXPECT_EQ(PPPOE_PLUS_GetYdbcClient(), kClient);

    // A pending request is dispatched with the run budget.
    ASSERT_EQ(write(lib.writeFd, "x", 1), 1);
    EXPECT_TRUE(WaitFor([&] { return lib.runs.load() == 1; }));

    // The datastore goes away: reconnect, activate again, subscribe nothing more.
    const int oldRead = lib.readFd;
    close(lib.writeFd);
    ASSERT_TRUE(WaitFor([&] { return lib.activations.load() == 2; }));
    EXPECT_EQ(lib.connects.load(), 2U);
    EXPECT_TRUE(WaitFor([&] { return PPPOE_PLUS_GetYdbcConnectFd() == lib.readFd.load(); }));
    {
        std::lock_guard<std::mutex> lock(lib.mu);
        EXPECT_EQ(lib.subscribed.size(), 17U);
    }
    close(oldRead);
    // The new connection is served.
    ASSERT_EQ(write(lib.writeFd, "y", 1), 1);
    EXPECT_TRUE(WaitFor([&] { return lib.runs.load() == 2; }));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_YANG] YangDb cfg recover result 1. (0:failed, 1:success)"));
}

}  // namespace
