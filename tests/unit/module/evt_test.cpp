// The event bus: subscription rules and placement, delivery over the main
// queue, and the interface-change reaction that refreshes a trusted port's
// ACL.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

#include "mesh.h"
#include "module_fixture.hpp"
#include "platform/control.h"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_evt.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_main.h"
#include "pppoe_plus_mem.h"

using pplus_test::LogCount;
using pplus_test::LogHas;

namespace {

std::vector<std::string> g_calls;
std::vector<std::array<uint32_t, 4>> g_records;

template <char Name>
uint32_t Note(const void *record)
{
    g_calls.emplace_back(1, Name);
    const auto *words = static_cast<const uint32_t *>(record);
    g_records.push_back({words[0], words[1], words[2], words[3]});
    return 0;
}

class EvtTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        ASSERT_EQ(PPPOE_PLUS_UpdateDebugSwitch(PPPOE_PLUS_DBG_ALL, 1), 0U);
        PPPOE_PLUS_InitGlobalCfgData();
        g_calls.clear();
        g_records.clear();
    }
};

}  // namespace

TEST_F(EvtTest, SubscribeRefusesBadArgumentsDuplicatesAndLongTopics)
{
    const std::string topic31(31, 't');
    const std::string topic32(32, 't');
    struct Row {
        const char *why;
        uint32_t event;
        const char *topic;
        PppoePlusEvtHandler handler;
        uint32_t result;
    };
    const Row rows[] = {
        {"no event above 1", 2, "x", Note<'x'>, 1},
        {"a topic is needed", 1, nullptr, Note<'x'>, 1},
        {"a handler is needed", 1, "x", nullptr, 1},
        {"31 characters fit", 1, topic31.c_str(), Note<'x'>, 0},
        {"32 do not", 1, topic32.c_str(), Note<'x'>, 1},
        {"first subscription of a topic", 0, "plug-watch", Note<'x'>, 0},
        {"the same topic on another event is another subscription", 1, "plug-watch", Note<'x'>, 0},
        {"the same event and topic again", 0, "plug-watch", Note<'y'>, 1},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(PPPOE_PLUS_EvtSubscribe(row.event, row.topic, 10, row.handler), row.result) << row.why;
    }
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_EVT] Exist event 0 subTopic plug-watch."));
    EXPECT_EQ(LogCount(PLAT_LOG_DEBUG, "[PPPOE_PLUS_EVT] Exist event"), 1U);  // argument errors say nothing
    EXPECT_TRUE(
        LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_EVT] Subscribe success.(event:0, subTopic:plug-watch, priority:10)"));
    EXPECT_EQ(g_pppoePlusEvtSubList.count, 3U);

    EXPECT_EQ(PPPOE_PLUS_EvtIsSubscribed(0, "plug-watch"), 1U);
    EXPECT_EQ(PPPOE_PLUS_EvtIsSubscribed(1, topic31.c_str()), 1U);
    EXPECT_EQ(PPPOE_PLUS_EvtIsSubscribed(0, topic31.c_str()), 0U);
    EXPECT_EQ(PPPOE_PLUS_EvtIsSubscribed(1, topic32.c_str()), 1U);  // no key can be built for it

    EXPECT_STREQ(PPPOE_PLUS_EvtName(0), "board-plug");
    EXPECT_STREQ(PPPOE_PLUS_EvtName(1), "if-chg");
    EXPECT_STREQ(PPPOE_PLUS_EvtName(2), "invalid event");
}

TEST_F(EvtTest, EqualPrioritiesGoRightAfterTheFirstAndNoneBecomesFirst)
{
    ASSERT_EQ(PPPOE_PLUS_EvtSubscribe(1, "A", 128, Note<'A'>), 0U);
    ASSERT_EQ(PPPOE_PLUS_EvtSubscribe(1, "B", 128, Note<'B'>), 0U);
    ASSERT_EQ(PPPOE_PLUS_EvtSubscribe(1, "C", 128, Note<'C'>), 0U);
    ASSERT_EQ(PPPOE_PLUS_EvtSubscribe(0, "P", 128, Note<'P'>), 0U);  // another event
    const PppoePlusIfChgEvt rec = {PPPOE_PLUS_EVT_IF_CHG, 7, PPPOE_PLUS_IF_EVT_ON_BOARD, 0};
    PPPOE_PLUS_EvtPublish(PPPOE_PLUS_EVT_IF_CHG, &rec);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"A", "C", "B"}));

    // Priority 0 goes second, not first; 200 goes last.
    ASSERT_EQ(PPPOE_PLUS_EvtSubscribe(1, "Z", 0, Note<'Z'>), 0U);
    ASSERT_EQ(PPPOE_PLUS_EvtSubscribe(1, "H", 200, Note<'H'>), 0U);
    g_calls.clear();
    PPPOE_PLUS_EvtDeliver(&rec);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"A", "Z", "C", "B", "H"}));
    EXPECT_EQ(g_pppoePlusEvtSubList.tail->entry->subTopic, std::string("H"));
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_EVT] Publish event if-chg."));

    g_calls.clear();
    const std::array<uint32_t, 4> invalid = {5, 0, 0, 0};
    PPPOE_PLUS_EvtDeliver(invalid.data());
    EXPECT_TRUE(g_calls.empty());
    EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_EVT] Invalid subscribe event 5."));
}

TEST_F(EvtTest, PublicationsFromOtherThreadsAreDeliveredFromTheMainQueue)
{
    ASSERT_EQ(PPPOE_PLUS_EvtSubscribe(0, "watch", 1, Note<'w'>), 0U);
    const uint32_t base = PLAT_MemOutstanding();

    // No main queue yet: the publication fails, says so and frees its copy.
    const PppoePlusBoardPlugEvt plug = {PPPOE_PLUS_EVT_BOARD_PLUG, 1, 3, 0};
    PPPOE_PLUS_EvtPublishAsync(&plug);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PLUS_EVT] Send msg to queue failed."));
    EXPECT_EQ(PLAT_MemOutstanding(), base);

    const int32_t epfd = MESH_EpollCreate();
    ASSERT_GE(epfd, 0);
    QueueHandle *queue = PPPOE_PLUS_CreateEpollQueue(epfd, "pppoe_plus", 1024, PPPOE_PLUS_MainQueueProc);
    ASSERT_NE(queue, nullptr);
    g_pppoePlusRegQueHandle.store(queue);
    const uint32_t withQueue = PLAT_MemOutstanding();
    std::thread publisher([&plug]() {
        PPPOE_PLUS_EvtPublishAsync(&plug);
        const PppoePlusBoardPlugEvt left = {PPPOE_PLUS_EVT_BOARD_PLUG, 1, 4, 1};
        PPPOE_PLUS_EvtPublishAsync(&left);
    });
    publisher.join();
    EXPECT_TRUE(g_calls.empty());  // nothing runs on the publishing thread

    MESH_EPOLL_EVENT_S events[5];
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(MESH_EpollWait(epfd, events, 5, 1000), 1);
        EXPECT_EQ(events[0].callback(events[0].fd, events[0].events, events[0].arg), 0U);
    }
    const std::vector<std::array<uint32_t, 4>> expected = {{0, 1, 3, 0}, {0, 1, 4, 1}};
    EXPECT_EQ(g_records, expected);
    EXPECT_EQ(PLAT_MemOutstanding(), withQueue);  // each payload freed after delivery
}

TEST_F(EvtTest, IfChangeRefreshesATrustedPortOnlyWhileEnabledWithIgnoreReply)
{
    ASSERT_EQ(PPPOE_PLUS_EvtSubscribeInit(), 0U);
    EXPECT_EQ(PPPOE_PLUS_EvtIsSubscribed(PPPOE_PLUS_EVT_BOARD_PLUG, "board-plug"), 1U);
    EXPECT_EQ(PPPOE_PLUS_EvtIsSubscribed(PPPOE_PLUS_EVT_IF_CHG, "if-chg"), 1U);
    // Again: "board-plug" exists, and "if-chg" is then not even tried.
    PLAT_LogClear();
    EXPECT_EQ(PPPOE_PLUS_EvtSubscribeInit(), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOE_PLUS_EVT] Subscribe board-plug failed."));
    EXPECT_FALSE(LogHas(PLAT_LOG_DEBUG, "Exist event 1 subTopic if-chg."));

    (void)PPPOE_PLUS_SetPortTrust(22, 1);  // no fwm session here: the request fails, the trust stays
    PortCB *untrusted = nullptr;
    ASSERT_EQ(PPPOE_PLUS_GetPortCBByIndex(21, &untrusted), 0U);

    struct Row {
        const char *why;
        uint8_t enable;
        uint8_t ignoreReply;
        uint32_t ifIndex;
        uint32_t subEvt;
        const char *request;  // the trusted-port request sent, null for none
        const char *note;     // what the handler says instead, null for nothing
    };
    const Row rows[] = {
        {"on board", 1, 1, 22, 2, "Set Trust port cfg. enable:1 ifIndex:22", nullptr},
        {"off board", 1, 1, 22, 3, "Set Trust port cfg. enable:0 ifIndex:22", nullptr},
        {"feature off", 0, 1, 22, 2, nullptr, "[PPPOE_PLUS_EVT] PPPoE plus is disabled."},
        {"ignore-reply off", 1, 0, 22, 2, nullptr, "[PPPOE_PLUS_EVT] Ignore reply is disabled."},
        {"another sub-event", 1, 1, 22, 4, nullptr, nullptr},
        {"a port that is not trusted", 1, 1, 21, 2, nullptr, nullptr},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.why);
        (void)PPPOE_PLUS_SetEnable(row.enable);
        (void)PPPOE_PLUS_SetIgnoreReply(row.ignoreReply);
        PLAT_LogClear();
        const PppoePlusIfChgEvt rec = {PPPOE_PLUS_EVT_IF_CHG, row.ifIndex, row.subEvt, 0};
        PPPOE_PLUS_EvtDeliver(&rec);
        EXPECT_TRUE(LogHas(PLAT_LOG_DEBUG, "[PPPOE_PLUS_EVT] If notify subEvt " + std::to_string(row.subEvt) +
                                               ", ifIndex " + std::to_string(row.ifIndex) + "."));
        EXPECT_EQ(LogCount(PLAT_LOG_DEBUG, "Set Trust port cfg."), row.request != nullptr ? 1U : 0U);
        EXPECT_TRUE(row.request == nullptr || LogHas(PLAT_LOG_DEBUG, row.request));
        EXPECT_TRUE(row.note == nullptr || LogHas(PLAT_LOG_DEBUG, row.note));
    }

    // A board plug changes nothing.
    PLAT_LogClear();
    const PppoePlusBoardPlugEvt plug = {PPPOE_PLUS_EVT_BOARD_PLUG, 1, 3, 1};
    PPPOE_PLUS_EvtDeliver(&plug);
    EXPECT_EQ(LogCount(PLAT_LOG_DEBUG, "Set "), 0U);
}
