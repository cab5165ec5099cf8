// NETCONF's side of the datastore: edits whose nodes name their operation,
// refusals that carry an error-tag and the offending path, and the lock of
// the running configuration held by one management session.
#include "ydbc_harness.hpp"

namespace ydbc_test {
namespace {

using device::yangdb::EditConfigOptions;
using device::yangdb::EditMode;
using device::yangdb::Reply;

const std::string kGigabit = "XGigabitEthernet0/0/1";
const std::string kNcNs = "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\"";

std::string Plus(const std::string &body)
{
    return "<pppoe-plus xmlns=\"" + kNs + "\" " + kNcNs + ">" + body + "</pppoe-plus>";
}

std::string Port(const std::string &name, const std::string &body)
{
    return "<ifm xmlns=\"urn:quendal:yang:quendal-ifm\" " + kNcNs + "><interfaces><interface><name>" + name +
           "</name><pppoe-plus-port xmlns=\"" + kNs + "\">" + body + "</pppoe-plus-port></interface></interfaces></ifm>";
}

TEST_F(DatastoreTest, EachNodesOperationChangesWhatItNamesAndRefusalsCarryTheirTagAndPath)
{
    StartServer();
    StartSubscriber({kPort + "/trusted-port", kPlus + "/vendor-id"});
    ASSERT_TRUE(admin_->Edit(PortXml(kGigabit, "<trusted-port><ifindex>49</ifindex></trusted-port>") +
                                 PlusXml("<vendor-id><vendor-id>2011</vendor-id></vendor-id>"),
                             EditMode::kMerge).ok);

    struct Row {
        const char *why;
        std::string xml;
        std::string defaultOperation;
        std::string tag;        // empty: accepted
        std::string path;       // the error's path, or a text the result must hold
        std::string absent;     // a text the result must not hold
    } rows[] = {
        {"create of what exists", Port(kGigabit, "<trusted-port nc:operation=\"create\"><ifindex>49</ifindex>"
                                                 "</trusted-port>"),
         "merge", "data-exists", PortItem(kGigabit, "trusted-port"), ""},
        {"delete of what is only a default", Plus("<global-ignore-policy nc:operation=\"delete\"/>"), "merge",
         "data-missing", kPlus + "/global-ignore-policy", ""},
        {"remove of what is not there", Port("Eth-Trunk1", "<trusted-port nc:operation=\"remove\"/>"), "none", "",
         "<vendor-id>2011</vendor-id>", "Eth-Trunk1"},
        {"a value the model refuses", Plus("<global-tags-policy><tags-policy>sometimes</tags-policy>"
                                           "</global-tags-policy>"),
         "merge", "invalid-value", kPlus + "/global-tags-policy/tags-policy", ""},
        {"a node the model lacks", Plus("<colour>blue</colour>"), "merge", "unknown-element", kPlus, ""},
        {"replace keeps nothing of the old node", Port(kGigabit, "<trusted-port nc:operation=\"replace\">"
                                                                 "<ifindex>50</ifindex></trusted-port>"),
         "merge", "", "<ifindex>50</ifindex>", "<ifindex>49</ifindex>"},
        {"delete below a node passed through", Plus("<vendor-id nc:operation=\"delete\"/>"), "none", "",
         "<trusted-port>", "2011"},
        {"merge creates the path to a new node", Port("Eth-Trunk1", "<trusted-port><ifindex>60</ifindex>"
                                                                    "</trusted-port>"),
         "merge", "", "<name>Eth-Trunk1</name>", ""},
        {"delete of a port's last item takes its interface entry along",
         Port("Eth-Trunk1", "<trusted-port nc:operation=\"delete\"/>"), "merge", "", "<trusted-port>", "Eth-Trunk1"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.why);
        const std::string before = admin_->Export().text;
        EditConfigOptions options;
        options.defaultOperation = row.defaultOperation;
        options.testOnly = true;
        const Reply tested = admin_->EditConfig(row.xml, options);
        EXPECT_EQ(admin_->Export().text, before) << "test-only changes nothing";
        options.testOnly = false;
        const Reply reply = admin_->EditConfig(row.xml, options);
        EXPECT_EQ(tested.ok, reply.ok);
        const std::string after = admin_->Export().text;
        if (!row.tag.empty()) {
            EXPECT_FALSE(reply.ok);
            EXPECT_EQ(reply.tag, row.tag) << reply.text;
            EXPECT_EQ(reply.path, row.path) << reply.text;
            EXPECT_EQ(after, before);
            continue;
        }
        EXPECT_TRUE(reply.ok) << reply.text;
        EXPECT_NE(after.find(row.path), std::string::npos) << after;
        if (!row.absent.empty()) {
            EXPECT_EQ(after.find(row.absent), std::string::npos) << after;
        }
    }
    // The agent was told of every accepted change and of nothing else.
    EXPECT_TRUE(WaitFor([this] { return subscriber_->ChangeCount() == 6; })) << subscriber_->ChangeCount();
}

TEST_F(DatastoreTest, ALockRefusesEveryOtherSessionUntilItsHolderLetsGoOrLeaves)
{
    StartServer();
    std::string error;
    auto other = device::yangdb::Admin::Connect(options_.socketPath, &error);
    ASSERT_NE(other, nullptr) << error;
    ASSERT_TRUE(admin_->Hello("holder").ok);
    ASSERT_TRUE(admin_->Lock().ok);

    const std::string vendor = PlusXml("<vendor-id><vendor-id>7</vendor-id></vendor-id>");
    const Reply refusals[] = {
        other->Edit(vendor, EditMode::kMerge),
        other->EditConfig(vendor, EditConfigOptions{}),
        other->Delete(kPlus + "/vendor-id"),
    };
    for (const Reply &reply : refusals) {
        EXPECT_FALSE(reply.ok);
        EXPECT_EQ(reply.tag, "in-use");
        EXPECT_EQ(reply.text, "the running configuration is locked by holder");
        EXPECT_EQ(reply.holder, "holder");
    }
    const Reply denied = other->Lock();
    EXPECT_EQ(denied.tag, "lock-denied");
    EXPECT_EQ(denied.holder, "holder");
    EXPECT_EQ(other->Unlock().tag, "operation-failed");
    EXPECT_TRUE(admin_->Edit(vendor, EditMode::kMerge).ok) << "the holder edits";

    ASSERT_TRUE(admin_->Unlock().ok);
    ASSERT_TRUE(other->Lock().ok);
    EXPECT_EQ(admin_->Lock().tag, "lock-denied");
    other.reset();  // a session's lock ends with it
    EXPECT_TRUE(WaitFor([this] { return admin_->Lock().ok; }));
}

}  // namespace
}  // namespace ydbc_test
