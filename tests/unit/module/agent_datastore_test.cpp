// The agent behind the real datastore, as the switch runs it: the client
// task serves the datastore's changes through libydbc and the ACL requests
// reach fwm over the session. An edit the agent refuses after a setter has
// kept part of it must leave the agent where the datastore stays.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "device/fwm.hpp"
#include "device/yangdb.hpp"
#include "module_fixture.hpp"
#include "platform/control.h"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_tirn.h"
#include "pppoe_plus_yang.h"
#include "pppoe_plus_yangdb_cfg.h"

namespace {

const std::string kNs = "urn:quendal:yang:quendal-pppoe-plus";
constexpr uint32_t kPortIfIndex = 7;

std::string Plus(const std::string &body)
{
    return "<pppoe-plus xmlns=\"" + kNs + "\">" + body + "</pppoe-plus>";
}

std::string GlobalFormat(const std::string &body)
{
    return Plus("<global-tags-format>" + body + "</global-tags-format>");
}

// What the agent holds of the settings whose setters can fail half way,
// and what fwm was told of them.
struct AgentView {
    uint8_t cidType = 0;
    uint8_t ridType = 0;
    std::string cidText;
    std::string ridText;
    uint8_t ignoreReply = 0;
    uint8_t trust = 0;
    bool fwmIgnoreReply = false;
    std::set<uint32_t> fwmTrusted;

    static AgentView Now()
    {
        AgentView view;
        view.cidType = PPPOE_PLUS_GetGlobalCidFormat();
        view.ridType = PPPOE_PLUS_GetGlobalRidFormat();
        {
            PppoePlusCfgReadGuard guard(PppoePlusCfgLock());
            view.cidText = PPPOE_PLUS_GetGlobalCidUdfFormat();
            view.ridText = PPPOE_PLUS_GetGlobalRidUdfFormat();
            const PortCB *cb = PPPOE_PLUS_FindPortCBByindex(kPortIfIndex);
            view.trust = cb != nullptr ? cb->trust.load() : 0;
        }
        view.ignoreReply = PPPOE_PLUS_GetIgnoreReply();
        const device::fwm::State fwm = device::fwm::GetState();
        view.fwmIgnoreReply = fwm.ignoreReply;
        view.fwmTrusted = fwm.trustedPorts;
        return view;
    }
    bool operator==(const AgentView &) const = default;
};

std::ostream &operator<<(std::ostream &out, const AgentView &v)
{
    return out << "cid " << int{v.cidType} << " \"" << v.cidText << "\", rid " << int{v.ridType} << " \"" << v.ridText
               << "\", ignore-reply " << int{v.ignoreReply} << " (fwm " << v.fwmIgnoreReply << "), trust "
               << int{v.trust} << " (fwm " << v.fwmTrusted.size() << " ports)";
}

class AgentDatastoreTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        char tmpl[] = "/tmp/pplus_agent_ds_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        device::yangdb::ServerOptions options;
        options.socketPath = dir_ + "/yangdb.sock";
        options.storePath = dir_ + "/running.xml";
        options.yangDir = PPLUS_SOURCE_DIR "/yang";
        std::string error;
        server_ = device::yangdb::Server::Start(options, &error);
        ASSERT_NE(server_, nullptr) << error;
        admin_ = device::yangdb::Admin::Connect(options.socketPath, &error);
        ASSERT_NE(admin_, nullptr) << error;
        ASSERT_EQ(setenv(YDBC_SOCKET_ENV, options.socketPath.c_str(), 1), 0);

        ASSERT_TRUE(device::fwm::Start());
        ASSERT_EQ(PPPOE_PLUS_InitTirn(), 0U);
        PPPOE_PLUS_InitGlobalCfgData();
        ASSERT_EQ(PPPOE_PLUS_YdbcInit(), 0U);
        PPPOE_PLUS_RegSubScribeCallBack(0, PPPOE_PLUS_YdbcSubScribeCfg);
        PPPOE_PLUS_RegSubScribeCallBack(2, PPPOE_PLUS_YdbcSubScribeRpc);
        PPPOE_PLUS_RegSubScribeCallBack(1, PPPOE_PLUS_YdbcSubScribeGet);
        ASSERT_EQ(PPPOE_PLUS_YdbcRun(), 0U);
        ASSERT_TRUE(server_->WaitReplayed(PPPOE_PLUS_YDBC_CLIENT_NAME, std::chrono::seconds(30)));
    }
    void TearDown() override
    {
        // The client task outlives the test and keeps trying to reconnect.
        admin_.reset();
        server_.reset();
        device::fwm::Stop();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    std::string dir_;
    std::unique_ptr<device::yangdb::Server> server_;
    std::unique_ptr<device::yangdb::Admin> admin_;
};

}  // namespace

TEST_F(AgentDatastoreTest, AgentEndsWhereTheDatastoreIsWhenItRefusesAnEdit)
{
    const device::yangdb::Reply base = admin_->Edit(
        GlobalFormat("<tags-cid-encapsulation-format>extend</tags-cid-encapsulation-format>"),
        device::yangdb::EditMode::kMerge);
    ASSERT_TRUE(base.ok) << base.text;
    const AgentView before = AgentView::Now();
    ASSERT_EQ(before.cidType, PPPOE_PLUS_FORMAT_EXTEND);
    ASSERT_TRUE(before.ignoreReply != 0 && before.fwmIgnoreReply);
    const std::string exported = admin_->Export().text;

    // 127 characters fit the model; 254 bytes do not fit the agent's field.
    std::string wide;
    for (int i = 0; i < 127; i++) {
        wide += "\xc3\xa9";
    }
    struct Row {
        const char *why;
        const char *failOp;  // the agent's request to fwm made to fail, or null
        std::string xml;
    };
    const Row rows[] = {
        {"the Circuit-ID setter keeps the new type when the text does not fit", nullptr,
         GlobalFormat("<tags-cid-encapsulation-format>user-define</tags-cid-encapsulation-format>"
                      "<cid-user-define-text>" + wide + "</cid-user-define-text>")},
        {"the Circuit-ID half is applied before the Remote-ID setter fails", nullptr,
         GlobalFormat("<tags-cid-encapsulation-format>user-define</tags-cid-encapsulation-format>"
                      "<cid-user-define-text>\"x\"</cid-user-define-text>"
                      "<tags-rid-encapsulation-format>user-define</tags-rid-encapsulation-format>"
                      "<rid-user-define-text>" + wide + "</rid-user-define-text>")},
        {"ignore-reply is stored before fwm refuses it", "PPPOE_PLUS_IgnoreReplyCfg_async",
         Plus("<global-ignore-policy><ignore-policy>true</ignore-policy></global-ignore-policy>")},
        {"a port's trust is stored before fwm refuses it", "PPPOE_PLUS_TrustPortCfg_async",
         "<ifm xmlns=\"urn:quendal:yang:quendal-ifm\"><interfaces><interface><name>GigabitEthernet0/0/7</name>"
         "<pppoe-plus-port xmlns=\"" + kNs + "\"><trusted-port><ifindex>" + std::to_string(kPortIfIndex) +
         "</ifindex><trusted-enable>true</trusted-enable></trusted-port></pppoe-plus-port></interface>"
         "</interfaces></ifm>"},
    };
    for (const Row &row : rows) {
        if (row.failOp != nullptr) {
            PLAT_FailSet(row.failOp, 0, 1, 1);
        }
        const device::yangdb::Reply reply = admin_->Edit(row.xml, device::yangdb::EditMode::kMerge);
        EXPECT_FALSE(reply.ok) << row.why;
        EXPECT_NE(reply.text.find("refused by pppoe_plus"), std::string::npos) << row.why << ": " << reply.text;
        EXPECT_EQ(admin_->Export().text, exported) << row.why;
        EXPECT_EQ(AgentView::Now(), before) << row.why;
        if (row.failOp != nullptr) {
            EXPECT_EQ(PLAT_FailHits(row.failOp), 1U) << row.why;
            PLAT_FailClear(row.failOp);
        }
    }
}
