// The datastore end to end: a server on a temporary socket and store with
// the repository's YANG model, a subscriber on libydbc driven by an epoll
// loop like the agent's, and a management session.
#include "ydbc_harness.hpp"

#include <platform/control.h>
#include <platform/ydbc_wire.hpp>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <thread>

namespace ydbc_test {
namespace {

using device::yangdb::EditMode;

const std::string kTrusted = kPort + "/trusted-port";
const std::string kVendor = kPlus + "/vendor-id";
const std::string kEnable = kPlus + "/global-enable";
const std::string kFormatIf = kPort + "/port-tags-formats/port-tags-format";
const std::string kGigabit = "XGigabitEthernet0/0/1";

std::string TrustedXml(uint32_t ifindex, bool enable)
{
    return "<trusted-port xmlns=\"" + kNs + "\"><ifindex>" + std::to_string(ifindex) + "</ifindex><trusted-enable>" +
           (enable ? "true" : "false") + "</trusted-enable></trusted-port>";
}

std::string EnableXml(bool enable)
{
    return "<global-enable xmlns=\"" + kNs + "\"><enable>" + (enable ? "true" : "false") + "</enable></global-enable>";
}

std::string VendorXml(uint32_t id)
{
    return "<vendor-id xmlns=\"" + kNs + "\"><vendor-id>" + std::to_string(id) + "</vendor-id></vendor-id>";
}

// The port format of kGigabit whose keys are vlans and type, with the rest
// of its leaves; Formats wraps entries in their list's container.
std::string Format(const std::string &vlans, const std::string &type, const std::string &rest = "")
{
    return "<port-tags-format>" + vlans + "<tags-encapsulation-type>" + type +
           "</tags-encapsulation-type><ifIndex>49</ifIndex>" + rest + "</port-tags-format>";
}

std::string Formats(const std::string &entries)
{
    return PortXml(kGigabit, "<port-tags-formats>" + entries + "</port-tags-formats>");
}

const std::string kVlan10 = "<vlan-id>10</vlan-id><cevlan-id>0</cevlan-id>";
const std::string kUserDefine = "<tags-encapsulation-format>user-define</tags-encapsulation-format>";

// An interface's trusted-port entry with only its mandatory leaf.
std::string Trusted(const std::string &name, uint32_t ifindex)
{
    return PortXml(name, "<trusted-port><ifindex>" + std::to_string(ifindex) + "</ifindex></trusted-port>");
}

TEST_F(DatastoreTest, InvalidEditsAreRefusedNamingTheNodeAndChangeNothing)
{
    StartServer();
    StartSubscriber({kTrusted, kVendor, kFormatIf});
    ASSERT_TRUE(Edited(Trusted(kGigabit, 49)));
    ASSERT_TRUE(WaitFor([this] { return subscriber_->Changes().size() == 1; }));
    subscriber_->Forget();
    const std::string before = admin_->Export().text;

    // A port's circuit-id format entry up to its optional leaves.
    const auto format = [](const std::string &vlans, const std::string &rest) {
        return Formats(Format(vlans, "circuit-id", rest));
    };
    const auto description = [](size_t length) {
        return PortXml(kGigabit, "<if-description><ifIndex>49</ifIndex><ifDescr>" + std::string(length, 'd') +
                                     "</ifDescr></if-description>");
    };
    struct Case {
        std::string xml;
        std::string named;  // what the error must mention
    } cases[] = {
        // A presence container without its mandatory leaf.
        {PortXml("Eth-Trunk1", "<port-tags-policy><tags-policy>drop</tags-policy></port-tags-policy>"), "ifindex"},
        // Out of range, a list entry without a key, a string longer than
        // the agent keeps.
        {format("<vlan-id>5000</vlan-id><cevlan-id>0</cevlan-id>", ""), "vlan-id"},
        {format("<vlan-id>100</vlan-id>", ""), "cevlan-id"},
        {description(243), "ifDescr"},
        // A port format of the user's own without its text.
        {format(kVlan10, kUserDefine), "port-tags-format"},
        // A must condition, with the model's own message.
        {PlusXml("<global-tags-format><tags-cid-encapsulation-format>user-define</tags-cid-encapsulation-format>"
                 "</global-tags-format>"),
         "cid-user-define-text"},
        // Unknown elements and state data are not configuration.
        {PlusXml("<vendor-id><vendor-idx>1</vendor-idx></vendor-id>"), "vendor-idx"},
        {PlusXml("<query-policy><policy>1</policy></query-policy>"), "query-policy"},
    };
    for (const Case &c : cases) {
        device::yangdb::Reply reply = admin_->Edit(c.xml, EditMode::kMerge);
        EXPECT_FALSE(reply.ok) << c.xml;
        EXPECT_NE(reply.text.find(c.named), std::string::npos) << reply.text;
    }
    // Deleting what is not there, a key, or an unknown path.
    EXPECT_EQ(admin_->Delete(PortItem("Eth-Trunk9", "trusted-port")).text,
              "no data at " + PortItem("Eth-Trunk9", "trusted-port"));
    EXPECT_FALSE(admin_->Delete(PortItem(kGigabit, "trusted-port/ifindex")).ok);
    EXPECT_EQ(admin_->Delete(kPlus + "/no-such").text, "unknown path " + kPlus + "/no-such");

    EXPECT_EQ(admin_->Export().text, before);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(subscriber_->Changes().size(), 0U);

    // With their fault mended the port rows are accepted: each failed for
    // its own reason.
    EXPECT_TRUE(Edited(format(kVlan10, kUserDefine + "<user-define-text>\"%sysname\"</user-define-text>")));
    EXPECT_TRUE(Edited(description(242)));
}

TEST_F(DatastoreTest, ChangesReachTheSubscriberWithTheirTypePathAndData)
{
    StartServer();
    StartSubscriber({kTrusted, kVendor});
    const std::string item = PortItem(kGigabit, "trusted-port");

    // Create: the new data only, defaults included.
    ASSERT_TRUE(Edited(Trusted(kGigabit, 49)));
    // Modify: before and after.
    ASSERT_TRUE(Edited(PortXml(kGigabit, "<trusted-port><trusted-enable>true</trusted-enable></trusted-port>")));
    // A leaf set in a container that always exists is a modify; removing
    // it is a modify back to the default.
    ASSERT_TRUE(Edited(PlusXml(VendorXml(9))));
    ASSERT_TRUE(admin_->Delete(kVendor + "/vendor-id").ok);
    // Delete: the old data only.
    ASSERT_TRUE(admin_->Delete(item).ok);
    // Nothing changed, nothing sent.
    ASSERT_TRUE(Edited(PlusXml(VendorXml(3561))));

    ASSERT_TRUE(WaitFor([this] { return subscriber_->Changes().size() >= 5; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const std::vector<Delivery> want = {
        {YDBC_OP_CREATE, item, "-", TrustedXml(49, false)},
        {YDBC_OP_MODIFY, item, TrustedXml(49, false), TrustedXml(49, true)},
        {YDBC_OP_MODIFY, kVendor, VendorXml(3561), VendorXml(9)},
        {YDBC_OP_MODIFY, kVendor, VendorXml(9), VendorXml(3561)},
        {YDBC_OP_DELETE, item, TrustedXml(49, true), "-"},
    };
    EXPECT_EQ(subscriber_->Changes(), want);
}

TEST_F(DatastoreTest, DeletingAPortsLastItemTakesItsInterfaceEntryAlong)
{
    StartServer();
    const std::string format = "<port-tags-formats>" + Format(kVlan10, "circuit-id") + "</port-tags-formats>";
    ASSERT_TRUE(Edited(PortXml(kGigabit, "<trusted-port><ifindex>49</ifindex></trusted-port>" + format) +
                       Trusted("Eth-Trunk1", 1)));
    ASSERT_TRUE(admin_
                    ->Delete(PortItem(kGigabit,
                                      "port-tags-formats/port-tags-format[vlan-id='10'][cevlan-id='0']"
                                      "[tags-encapsulation-type='circuit-id']"))
                    .ok);
    EXPECT_NE(admin_->Export().text.find("<name>" + kGigabit + "</name>"), std::string::npos);
    ASSERT_TRUE(admin_->Delete(PortItem(kGigabit, "trusted-port")).ok);
    const std::string left = admin_->Export().text;
    EXPECT_EQ(left.find(kGigabit), std::string::npos) << left;
    EXPECT_NE(left.find("<name>Eth-Trunk1</name>"), std::string::npos) << left;
    ASSERT_TRUE(admin_->Delete(PortItem("Eth-Trunk1", "trusted-port")).ok);
    EXPECT_EQ(admin_->Export().text.find("<interface>"), std::string::npos) << admin_->Export().text;
}

TEST_F(DatastoreTest, PullReadsBelowTheChangedNode)
{
    StartServer();
    StartSubscriber({kPort + "/port-tags-formats"});
    auto format = [](const std::string &type, const std::string &text) {
        return Format(kVlan10, type, kUserDefine + "<user-define-text>" + text + "</user-define-text>");
    };
    subscriber_->Locked([](Subscriber &s) {
        s.pullBelow =
            "/port-tags-format[vlan-id='10'][cevlan-id='0'][tags-encapsulation-type='remote-id']"
            "/user-define-text";
    });
    ASSERT_TRUE(Edited(Formats(format("circuit-id", "%a") + format("remote-id", "%b"))));
    ASSERT_TRUE(WaitFor([this] { return subscriber_->Changes().size() == 1; }));
    EXPECT_EQ(subscriber_->Changes()[0].below, "<user-define-text xmlns=\"" + kNs + "\">%b</user-define-text>");

    // A depth keeps that many levels of elements, the node pulled being the
    // first; a depth of 0 asks for nothing.
    const struct {
        uint32_t depth;
        std::string below;
    } depths[] = {
        {1, "<port-tags-formats xmlns=\"" + kNs + "\"></port-tags-formats>"},
        {2, "<port-tags-formats xmlns=\"" + kNs +
                "\"><port-tags-format></port-tags-format>"
                "<port-tags-format></port-tags-format></port-tags-formats>"},
        {0, "-"},
    };
    std::string text = "%c";
    for (const auto &row : depths) {
        subscriber_->Forget();
        subscriber_->Locked([&row](Subscriber &s) {
            s.pullBelow.clear();
            s.pullDepth = row.depth;
        });
        text += "c";
        ASSERT_TRUE(Edited(Formats(format("remote-id", text))));
        ASSERT_TRUE(WaitFor([this] { return subscriber_->Changes().size() == 1; }));
        EXPECT_EQ(subscriber_->Changes()[0].below, row.below) << row.depth;
    }

    // Below a path that is not there, or beside the changed node: nothing.
    subscriber_->Forget();
    subscriber_->Locked([](Subscriber &s) { s.pullBelow = "/port-tags-format[vlan-id='11']"; });
    ASSERT_TRUE(admin_->Delete(PortItem(kGigabit, "port-tags-formats")).ok);
    ASSERT_TRUE(WaitFor([this] { return subscriber_->Changes().size() == 1; }));
    EXPECT_EQ(subscriber_->Changes()[0].below, "-");
}

TEST_F(DatastoreTest, DeliveryFollowsPriorityThenSubscriptionOrderWithDeletesFirst)
{
    StartServer();
    ASSERT_TRUE(Edited(Trusted("Eth-Trunk1", 7)));
    NewSubscriber();
    ASSERT_EQ(subscriber_->Subscribe(kTrusted, YDBC_SUB_CONFIG, 200), 0U);
    ASSERT_EQ(subscriber_->Subscribe(kVendor, YDBC_SUB_CONFIG, 100), 0U);
    ASSERT_EQ(subscriber_->Subscribe(kEnable, YDBC_SUB_CONFIG, 100), 0U);
    ActivateAndReplay();
    subscriber_->Forget();

    // One import that moves the trusted port and changes two globals.
    ASSERT_TRUE(Edited(PlusXml(EnableXml(true) + VendorXml(5)) + Trusted("Eth-Trunk2", 8), EditMode::kReplace));
    ASSERT_TRUE(WaitFor([this] { return subscriber_->Changes().size() == 4; }));
    const std::vector<Delivery> want = {
        {YDBC_OP_MODIFY, kVendor, VendorXml(3561), VendorXml(5)},
        {YDBC_OP_MODIFY, kEnable, EnableXml(false), EnableXml(true)},
        {YDBC_OP_DELETE, PortItem("Eth-Trunk1", "trusted-port"), TrustedXml(7, false), "-"},
        {YDBC_OP_CREATE, PortItem("Eth-Trunk2", "trusted-port"), "-", TrustedXml(8, false)},
    };
    EXPECT_EQ(subscriber_->Changes(), want);
}

TEST_F(DatastoreTest, AnEditThatCannotBeSavedIsUndone)
{
    StartServer();
    StartSubscriber({kVendor});
    const std::string before = admin_->Export().text;
    PLAT_FailSet("device::yangdb::Save", 0, 1, ENOSPC);
    EXPECT_EQ(admin_->Edit(PlusXml(VendorXml(5)), EditMode::kMerge).text,
              "cannot save the configuration: " + options_.storePath + ": No space left on device");
    EXPECT_EQ(admin_->Export().text, before);
    const std::vector<Delivery> got = subscriber_->Changes();
    ASSERT_EQ(got.size(), 2U);
    EXPECT_EQ(got[1].newXml, VendorXml(3561));

    // The device layer's calls open with the shared failure prologue: a
    // session's connect stands for them.
    std::string error;
    PLAT_FailSet("device::yangdb::Admin::Connect", 0, 1, ECONNREFUSED);
    EXPECT_EQ(device::yangdb::Admin::Connect(options_.socketPath, &error), nullptr);
    EXPECT_NE(error.find("Connection refused"), std::string::npos) << error;
}

TEST_F(DatastoreTest, ASilentSubscriberFailsTheEditAndIsToldToUndoIt)
{
    setenv("YANGDB_REPLY_TIMEOUT_MS", "100", 1);
    StartServer();
    StartSubscriber({kTrusted});
    subscriber_->Locked([](Subscriber &s) { s.delayMs = 300; });
    const std::string before = admin_->Export().text;
    const std::string item = PortItem(kGigabit, "trusted-port");
    EXPECT_EQ(admin_->Edit(Trusted(kGigabit, 49), EditMode::kMerge).text,
              "no answer from pppoe_plus within 100 ms: create of " + item);
    EXPECT_EQ(admin_->Export().text, before);
    ASSERT_TRUE(WaitFor([this] { return subscriber_->Changes().size() == 2; }));
    EXPECT_EQ(subscriber_->Changes(), (std::vector<Delivery>{{YDBC_OP_CREATE, item, "-", TrustedXml(49, false)},
                                                             {YDBC_OP_DELETE, item, TrustedXml(49, false), "-"}}));
    unsetenv("YANGDB_REPLY_TIMEOUT_MS");
}

TEST_F(DatastoreTest, GetsGoToTheStateSubscriberWithTheirKeys)
{
    StartServer();
    const std::string check = kPlus + "/query-format-check/query-format-check-list";
    EXPECT_EQ(admin_->Get(check + "[user-define-text='%a']").text,
              "no subscriber serves " + check + "[user-define-text='%a']");
    NewSubscriber();
    ASSERT_EQ(subscriber_->Subscribe(check, YDBC_SUB_GET), 0U);
    ASSERT_EQ(subscriber_->Subscribe(kPlus + "/query-policy", YDBC_SUB_GET), 0U);
    ActivateAndReplay();

    // The agent writes the list key after the other leaf: still answered.
    subscriber_->Locked([&](Subscriber &s) {
        s.getReply = PlusXml(
            "<query-format-check><query-format-check-list><check-result>0</check-result>"
            "<user-define-text>%a</user-define-text></query-format-check-list></query-format-check>");
    });
    const std::string asked = check + "[user-define-text='%a']";
    device::yangdb::Reply reply = admin_->Get(asked);
    ASSERT_TRUE(reply.ok) << reply.text;
    EXPECT_NE(reply.text.find("<check-result>0</check-result>"), std::string::npos) << reply.text;
    EXPECT_NE(reply.text.find("<user-define-text>%a</user-define-text>"), std::string::npos) << reply.text;
    const auto getPaths = [this] { return subscriber_->Locked([](Subscriber &s) { return s.getPaths; }); };
    EXPECT_EQ(getPaths(), std::vector<std::string>{asked});
    // An escaped "]" inside the quoted key does not end it.
    const std::string escaped = check + "[user-define-text='\"[%svlan\\]\"']";
    ASSERT_TRUE(admin_->Get(escaped).ok);
    EXPECT_EQ(getPaths().back(), escaped);
    // A reply that is not even XML comes back as it is.
    subscriber_->Locked([&](Subscriber &s) { s.getReply = "not xml <"; });
    EXPECT_EQ(admin_->Get(asked).text, "not xml <");
    subscriber_->Locked([&](Subscriber &s) { s.getResult = 1; });
    EXPECT_FALSE(admin_->Get(asked).ok);
    subscriber_->Locked([&](Subscriber &s) { s.getResult = 0; });

    // Configuration is read from the running tree, with its defaults; the
    // container above both joins configuration and the keyless state.
    EXPECT_NE(admin_->Get(kVendor).text.find("<vendor-id>3561</vendor-id>"), std::string::npos);
    subscriber_->Locked([&](Subscriber &s) {
        s.getReply = PlusXml("<query-policy><policy>1</policy><ignore-reply>0</ignore-reply></query-policy>");
    });
    reply = admin_->Get(kPlus);
    ASSERT_TRUE(reply.ok) << reply.text;
    EXPECT_NE(reply.text.find("<policy>1</policy>"), std::string::npos) << reply.text;
    EXPECT_NE(reply.text.find("<tags-policy>replace</tags-policy>"), std::string::npos) << reply.text;
    // The format check exists only for the text its key names: it is not
    // asked without one, and asking for it without one names the key.
    const std::string hint = "answered only for a key: ask for " + check + "[user-define-text='...']";
    EXPECT_EQ(admin_->Get(check).text, check + " is " + hint);
    EXPECT_EQ(admin_->Get(kPlus + "/query-format-check").text, check + " is " + hint);
    const std::vector<std::string> paths = getPaths();
    EXPECT_EQ(std::count(paths.begin(), paths.end(), check), 0);
    EXPECT_EQ(admin_->Get(kPlus + "/query-encapsulation").text,
              "no subscriber serves " + kPlus + "/query-encapsulation");
    EXPECT_EQ(admin_->Get("/quendal-pppoe-plus:nothing").text, "unknown path /quendal-pppoe-plus:nothing");
}

TEST_F(DatastoreTest, OperationsAreValidatedThenForwarded)
{
    StartServer();
    NewSubscriber();
    ASSERT_EQ(subscriber_->Subscribe("/quendal-pppoe-plus:set-debugging", YDBC_SUB_RPC), 0U);
    ActivateAndReplay();
    auto debugging = [](const std::string &body) {
        return "<set-debugging xmlns=\"" + kNs + "\">" + body + "</set-debugging>";
    };

    // Without the type, or with one out of range.
    for (const char *type : {"", "<debug-type>5</debug-type>"}) {
        const device::yangdb::Reply reply =
            admin_->Rpc(debugging("<debug-switch>true</debug-switch>" + std::string(type)));
        EXPECT_FALSE(reply.ok);
        EXPECT_NE(reply.text.find("debug-type"), std::string::npos) << reply.text;
    }
    const auto rpcInputs = [this] { return subscriber_->Locked([](Subscriber &s) { return s.rpcInputs; }); };
    EXPECT_TRUE(rpcInputs().empty());

    const std::string input = debugging("<debug-switch>true</debug-switch><debug-type>4</debug-type>");
    EXPECT_TRUE(admin_->Rpc(input).ok);
    subscriber_->Locked([&](Subscriber &s) { s.rpcResult = 1; });
    EXPECT_EQ(admin_->Rpc(input).text, "operation set-debugging refused");
    EXPECT_EQ(rpcInputs(), (std::vector<std::string>{input, input}));
    EXPECT_EQ(admin_->Rpc("<reset-statistics xmlns=\"" + kNs + "\"/>").text,
              "no subscriber serves /quendal-pppoe-plus:reset-statistics");
}

TEST_F(DatastoreTest, ActivationReplaysTheStoredConfigurationThenEndsTheRecovery)
{
    StartServer();
    ASSERT_TRUE(Edited(Trusted(kGigabit, 49) + Trusted("Eth-Trunk1", 7)));
    NewSubscriber({kTrusted, kEnable});
    EXPECT_NE(subscriber_->Subscribe(kPlus + "/no-such-thing"), 0U);
    EXPECT_NE(subscriber_->Subscribe(kPlus + "/query-policy"), 0U);  // state, not configuration
    ActivateAndReplay();

    std::lock_guard<std::mutex> lock(subscriber_->mu);
    EXPECT_EQ(subscriber_->recoverResults[0], 1U);
    EXPECT_EQ(subscriber_->changesAtRecoverEnd, 3U);
    const std::string trunk = PortItem("Eth-Trunk1", "trusted-port");
    const std::vector<Delivery> want = {
        {YDBC_OP_CREATE, PortItem(kGigabit, "trusted-port"), "-", TrustedXml(49, false)},
        {YDBC_OP_CREATE, trunk, "-", TrustedXml(7, false)},
        {YDBC_OP_CREATE, kEnable, "-", EnableXml(false)},
    };
    EXPECT_EQ(subscriber_->changes, want);
}

TEST_F(DatastoreTest, TheStoreSurvivesARestartAndABadStoreStopsTheStart)
{
    StartServer();
    ASSERT_TRUE(
        Edited(PortXml(kGigabit, "<if-description><ifIndex>49</ifIndex><ifDescr>uplink</ifDescr></if-description>")));
    const std::string exported = admin_->Export().text;
    EXPECT_NE(exported.find("<ifDescr>uplink</ifDescr>"), std::string::npos);
    admin_.reset();
    server_.reset();
    EXPECT_FALSE(std::filesystem::exists(options_.socketPath));
    EXPECT_FALSE(std::filesystem::exists(options_.storePath + ".tmp"));

    // A socket file no one serves is replaced; any other file is left alone.
    std::ofstream(options_.socketPath) << "left over";
    std::string refused;
    EXPECT_EQ(device::yangdb::Server::Start(options_, &refused), nullptr);
    EXPECT_EQ(refused, options_.socketPath + " exists and is no socket");
    std::filesystem::remove(options_.socketPath);
    const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    options_.socketPath.copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    ASSERT_EQ(bind(stale, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)), 0);
    close(stale);
    StartServer();
    EXPECT_EQ(admin_->Export().text, exported);
    std::string busy;
    EXPECT_EQ(device::yangdb::Server::Start(options_, &busy), nullptr);
    EXPECT_EQ(busy, "another datastore is listening on " + options_.socketPath);
    // Import replaces everything.
    ASSERT_TRUE(Edited(PlusXml(VendorXml(7)), EditMode::kReplace));
    EXPECT_EQ(admin_->Export().text.find("uplink"), std::string::npos);
    admin_.reset();
    server_.reset();

    std::ofstream(options_.storePath) << PlusXml("<vendor-id><vendor-id>-1</vendor-id></vendor-id>");
    std::string error;
    EXPECT_EQ(device::yangdb::Server::Start(options_, &error), nullptr);
    EXPECT_NE(error.find(options_.storePath), std::string::npos) << error;
    EXPECT_NE(error.find("vendor-id"), std::string::npos) << error;
}

TEST_F(DatastoreTest, LostDatastoreShowsAsHangUpAndReconnectReplaysWithoutResubscribing)
{
    StartServer();
    ASSERT_TRUE(Edited(Trusted(kGigabit, 49)));
    StartSubscriber({kTrusted});
    admin_.reset();
    server_.reset();
    ASSERT_TRUE(WaitFor([this] { return subscriber_->hangups == 1; }));
    EXPECT_NE(subscriber_->hangupEvents & EPOLLHUP, 0U);
    EXPECT_NE(ydbc_run(subscriber_->client(), 1000), 0U);

    StartServer();
    ASSERT_TRUE(WaitFor([this] { return subscriber_->RecoverCount() == 1; }));
    EXPECT_EQ(subscriber_->reconnects, 1);
    EXPECT_EQ(
        subscriber_->Changes(),
        (std::vector<Delivery>{{YDBC_OP_CREATE, PortItem(kGigabit, "trusted-port"), "-", TrustedXml(49, false)}}));

    // The subscription works on the new connection too.
    ASSERT_TRUE(admin_->Delete(PortItem(kGigabit, "trusted-port")).ok);
    ASSERT_TRUE(WaitFor([this] { return subscriber_->Changes().size() == 2; }));
    EXPECT_EQ(subscriber_->Changes()[1].op, YDBC_OP_DELETE);
}

TEST_F(DatastoreTest, ClientEntryPointsFailCleanly)
{
    StartServer();
    subscriber_ = std::make_unique<Subscriber>(Url());
    Subscriber &probe = *subscriber_;
    EXPECT_NE(probe.Subscribe(kVendor), 0U);  // not connected
    EXPECT_EQ(ydbc_connect(probe.client(), "tcp://localhost"), -1);
    EXPECT_EQ(ydbc_connect(probe.client(), ("unix://" + dir_ + "/absent.sock").c_str()), -1);

    ASSERT_TRUE(probe.Connect());
    EXPECT_EQ(probe.Subscribe(kVendor), 0U);
    // The client library's calls open with the shared failure prologue: the
    // activation stands for them.
    PLAT_FailSet("ydbc_activate", 0, 1, 7);
    EXPECT_EQ(probe.Activate(), 7U);
    EXPECT_EQ(probe.Activate(), 0U);
    EXPECT_EQ(ydbc_run(probe.client(), 1000), 0U);

    // The environment names the socket (the agent's suites connect that
    // way, whatever the URL says).
    setenv(YDBC_SOCKET_ENV, options_.socketPath.c_str(), 1);
    EXPECT_EQ(device::yangdb::DefaultSocketPath(), options_.socketPath);
    unsetenv(YDBC_SOCKET_ENV);

    ydbc_bytes *bytes = ydbc_new_bytes("<a/>x", 4, YDBC_BYTES_XML);
    ASSERT_NE(bytes, nullptr);
    EXPECT_STREQ(bytes->text, "<a/>");
    EXPECT_EQ(bytes->length, 4U);
    ydbc_free_bytes(bytes);
    EXPECT_EQ(ydbc_pull(nullptr, 0, "/x", 0, &bytes), 1U);
}

TEST_F(DatastoreTest, AClientThatReadsNoAnswersStopsBeingReadThenIsDroppedWhileOthersAreServed)
{
    options_.limits.pauseRequestsAt = 64U << 10;
    options_.limits.drainTimeout = std::chrono::milliseconds(1500);
    StartServer();
    for (int i = 0; i < 20; i++) {
        const std::string name = "GigabitEthernet0/0/" + std::to_string(i);
        ASSERT_TRUE(Edited(PortXml(name, "<if-description><ifIndex>" + std::to_string(i) + "</ifIndex><ifDescr>line " +
                                             name + "</ifDescr></if-description>")));
    }
    // Exports pipelined as fast as the socket takes them, no answer read.
    const int hog = platform::ydbc::wire::ConnectUnix(options_.socketPath);
    ASSERT_GE(hog, 0);
    platform::ydbc::wire::Message exportRequest;
    exportRequest.type = platform::ydbc::wire::Type::kExport;
    std::string batch;
    for (int i = 0; i < 1000; i++) {
        batch += platform::ydbc::wire::Encode(exportRequest);
    }
    size_t accepted = 0;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (std::chrono::steady_clock::now() < until && accepted < (200U << 20)) {
        const ssize_t n = send(hog, batch.data(), batch.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            accepted += static_cast<size_t>(n);
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    // The socket filled up: a few hundred requests at most were taken.
    EXPECT_LT(accepted / (batch.size() / 1000), 20000U);

    // Meanwhile another session is served at once.
    const auto asked = std::chrono::steady_clock::now();
    const device::yangdb::Reply exported = admin_->Export();
    EXPECT_TRUE(exported.ok);
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(1));

    // With its answers not read for the drain timeout, the hog is dropped.
    EXPECT_TRUE(WaitFor(
        []() { return PLAT_LogCount(PLAT_LOG_PLATFORM, "dropped: its answers were not read for 1500 ms") == 1; }));
    char buf[65536];
    ssize_t n = 0;
    while ((n = recv(hog, buf, sizeof(buf), 0)) > 0) {
    }
    EXPECT_TRUE(n == 0 || errno == ECONNRESET);  // the end of the stream, after what was queued for it
    close(hog);
    EXPECT_TRUE(admin_->Export().ok);
}

TEST(XPathGuard, TheModOperatorIsRefusedWhereverItStandsAndNamesOrLiteralsAreNot)
{
    struct Row {
        const char *expr;
        bool evaluable;
    };
    const Row rows[] = {
        {"/quendal-ifm:ifm/interfaces/interface[name='GigabitEthernet0/0/1']", true},
        {"/quendal-ifm:ifm[0 mod 0]", false},
        {"*modQ*/*/*", false},  // libyang reads an operator there without a blank
        {"(0 div 0) mod -1", false},
        {"/a[last() mod 2 = 0]", false},
        {"/a[mode='x']/x:mode/mod", true},       // names
        {"/a[b='mod' or c=\"1 mod 0\"]", true},  // literals
        {"/a[b=$mod]", true},                    // a variable
    };
    for (const Row &row : rows) {
        std::string why;
        EXPECT_EQ(device::yangdb::XPathEvaluable(row.expr, &why), row.evaluable) << row.expr;
        EXPECT_EQ(why.empty(), row.evaluable) << row.expr;
    }
}

TEST_F(DatastoreTest, AnExpressionThatWouldKillTheEvaluatorIsRefusedAndTheDatastoreServesOn)
{
    StartServer();
    for (const char *path : {"/quendal-ifm:ifm[0 mod 0]", "/quendal-pppoe-plus:pppoe-plus[(0 div 0) mod -1]"}) {
        const device::yangdb::Reply got = admin_->Get(path);
        EXPECT_FALSE(got.ok) << path;
        EXPECT_NE(got.text.find("the XPath operator mod is not supported"), std::string::npos) << got.text;
        EXPECT_FALSE(admin_->Delete(path).ok) << path;
    }
    EXPECT_TRUE(admin_->Export().ok);
}

}  // namespace
}  // namespace ydbc_test
