// Channels of the fast-path library: order and depth, the event word of the
// owning thread, the forwarding plane's put and take, failure injection.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "platform/control.h"
#include "pplus_test.hpp"
#include "wick.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

FpcMbuf *Frame(uint8_t marker)
{
    return MbufPktNewFromData(&marker, 1, "channel_test", marker);
}

uint8_t FirstByte(const FpcMbuf *m)
{
    return m->pData[m->dataOff];
}

class WickChannelTest : public testing::Test {
protected:
    void SetUp() override
    {
        WICK_Reset();
        PLAT_FailClearAll();
        PLAT_CallCountReset();
        base_ = WICK_MbufOutstanding();
    }

    void TearDown() override
    {
        WICK_Reset();
        EXPECT_EQ(WICK_MbufOutstanding(), base_);
    }

    uint32_t base_ = 0;
};

}  // namespace

TEST_F(WickChannelTest, NamesIdsOrderAndDepthLimit)
{
    EXPECT_EQ(FPC_ChannelCreate("", 4), FPC_INVALID_ID);
    EXPECT_EQ(FPC_ChannelCreate("ch/a", 0), FPC_INVALID_ID);
    const uint32_t a = FPC_ChannelCreate("ch/a", 3);
    const uint32_t b = FPC_ChannelCreate("ch/b", 3);
    ASSERT_NE(a, FPC_INVALID_ID);
    ASSERT_NE(b, FPC_INVALID_ID);
    EXPECT_EQ(FPC_ChannelCreate("ch/a", 99), a);

    for (uint8_t i = 1; i <= 3; i++) {
        ASSERT_EQ(FPC_ChannelDcSendByIdNoSem("t", a, 0, Frame(i)), 0U);
    }
    // Full: refused, and the caller still owns the buffer.
    FpcMbuf *extra = Frame(4);
    EXPECT_NE(FPC_ChannelDcSendByIdNoSem("t", a, 0, extra), 0U);
    EXPECT_EQ(WICK_ChannelDepth("ch/a"), 3U);
    EXPECT_EQ(FirstByte(extra), 4U);
    FpcMbufFree(extra, "channel_test", 0);

    FpcMbuf *m = nullptr;
    EXPECT_NE(FPC_ChannelDcRecv(b, &m), 0U);
    for (uint8_t i = 1; i <= 3; i++) {
        ASSERT_EQ(FPC_ChannelDcRecv(a, &m), 0U);
        EXPECT_EQ(FirstByte(m), i);
        FpcMbufFree(m, "channel_test", 0);
    }
    EXPECT_NE(FPC_ChannelDcRecv(a, &m), 0U);
    // What a reset does to names and ids is AResetRetiresChannels...'s.
}

TEST_F(WickChannelTest, EventReadWakesOnlyTheOwnerOfTheChannel)
{
    ASSERT_NE(FPC_ChannelCreate("main/rx", 4), FPC_INVALID_ID);
    Clock::time_point putAt;
    Clock::time_point wokeAt;
    uint32_t laterFlags = 99;
    std::thread task([&] {
        const uint32_t rx = FPC_ChannelCreate("task/rx", 4);
        ASSERT_EQ(FPC_ThreadInfoRegByName("thread/task"), 0U);
        uint32_t flags = 0;
        const auto giveUp = Clock::now() + 5s;
        while (flags == 0 && Clock::now() < giveUp) {
            ASSERT_EQ(FPC_EventRead(&flags), 0U);
        }
        wokeAt = Clock::now();
        EXPECT_EQ(flags, FPC_EVENT_RX);
        FpcMbuf *m = nullptr;
        while (FPC_ChannelDcRecv(rx, &m) == 0) {
            FpcMbufFree(m, "channel_test", 0);
        }
        // main/rx still holds a frame, but it is not this thread's channel.
        EXPECT_EQ(FPC_EventRead(&laterFlags), 0U);
    });
    ASSERT_TRUE(pplus_test::WaitFor([] { return WICK_ThreadIsWaiting("thread/task") == 1; }, 3000));
    ASSERT_EQ(WICK_ChannelPut("main/rx", "x", 1), 0U);
    std::this_thread::sleep_for(30ms);
    putAt = Clock::now();
    ASSERT_EQ(WICK_ChannelPut("task/rx", "y", 1), 0U);
    task.join();
    EXPECT_GE(wokeAt, putAt) << "woken by a frame on another thread's channel";
    EXPECT_LT(wokeAt - putAt, 150ms);
    EXPECT_EQ(laterFlags, 0U);
    EXPECT_EQ(WICK_ThreadIsWaiting("thread/task"), 0U);

    uint32_t flags = 0;
    const auto t0 = Clock::now();
    EXPECT_EQ(FPC_EventRead(&flags), 0U);
    EXPECT_EQ(flags, FPC_EVENT_RX);
    EXPECT_LT(Clock::now() - t0, 100ms);
}

TEST_F(WickChannelTest, EventReadGivesUpAfterAboutTwoHundredMilliseconds)
{
    EXPECT_EQ(FPC_EventRead(nullptr), 1U);
    for (bool ownsChannel : {false, true}) {
        if (ownsChannel) {
            ASSERT_NE(FPC_ChannelCreate("idle/rx", 4), FPC_INVALID_ID);
        }
        uint32_t flags = 99;
        const auto t0 = Clock::now();
        EXPECT_EQ(FPC_EventRead(&flags), 0U);
        const auto waited = Clock::now() - t0;
        EXPECT_EQ(flags, 0U);
        EXPECT_GE(waited, 150ms);
        EXPECT_LT(waited, 1000ms);
    }
}

TEST_F(WickChannelTest, ChannelMadeByPutIsAdoptedByTheCreatingTask)
{
    ASSERT_EQ(WICK_ChannelPut("late/rx", "a", 1), 0U);
    const uint32_t id = FPC_ChannelGetIdByName("late/rx");
    ASSERT_NE(id, FPC_INVALID_ID);
    std::thread([id] {
        EXPECT_EQ(FPC_ChannelCreate("late/rx", 1), id);
        uint32_t flags = 0;
        EXPECT_EQ(FPC_EventRead(&flags), 0U);
        EXPECT_EQ(flags, FPC_EVENT_RX);
    }).join();
    // The adopter's depth of 1 now applies; its owner is gone, so the next
    // creating thread adopts it in turn.
    EXPECT_NE(WICK_ChannelPut("late/rx", "b", 1), 0U);
    EXPECT_EQ(FPC_ChannelCreate("late/rx", 2), id);
    uint32_t flags = 0;
    EXPECT_EQ(FPC_EventRead(&flags), 0U);
    EXPECT_EQ(flags, FPC_EVENT_RX);
}

TEST_F(WickChannelTest, PutAndTakeRoundTripThroughATaskThread)
{
    constexpr uint32_t kFrames = 500;
    const uint32_t fpRx = FPC_ChannelCreate("fp/rx", kFrames);
    ASSERT_NE(fpRx, FPC_INVALID_ID);
    // The forwarder may put before the task creates its channel: the task then adopts it.
    std::thread task([&] {
        const uint32_t rx = FPC_ChannelCreate("task/rx", 64);
        uint32_t done = 0;
        const auto giveUp = Clock::now() + 10s;
        while (done < kFrames && Clock::now() < giveUp) {
            uint32_t flags = 0;
            ASSERT_EQ(FPC_EventRead(&flags), 0U);
            FpcMbuf *m = nullptr;
            while (FPC_ChannelDcRecv(rx, &m) == 0) {
                ASSERT_EQ(MbufPktAddHead(m, 1, "task", 1), 0U);
                m->pData[m->dataOff] = 0xEE;
                ASSERT_EQ(FPC_ChannelDcSendByIdNoSem("task", fpRx, 0, m), 0U);
                done++;
            }
        }
    });
    std::thread forwarder([] {
        for (uint32_t i = 0; i < kFrames; i++) {
            while (WICK_ChannelPut("task/rx", &i, sizeof(i)) != 0) {
                std::this_thread::yield();  // the task's channel is full
            }
        }
    });
    for (uint32_t i = 0; i < kFrames; i++) {
        uint8_t buf[8] = {};
        uint32_t len = 0;
        ASSERT_EQ(WICK_ChannelTake("fp/rx", buf, sizeof(buf), &len, 5000), 0U) << "frame " << i;
        ASSERT_EQ(len, 5U);
        EXPECT_EQ(buf[0], 0xEE);
        uint32_t seq = 0;
        std::memcpy(&seq, buf + 1, sizeof(seq));
        ASSERT_EQ(seq, i);
    }
    forwarder.join();
    task.join();

    // Short buffer: cap bytes copied, full length reported; no wait on empty.
    const uint8_t frame[] = {1, 2, 3, 4, 5, 6};
    ASSERT_EQ(WICK_ChannelPut("fp/rx", frame, sizeof(frame)), 0U);
    uint8_t small[2] = {};
    uint32_t len = 0;
    ASSERT_EQ(WICK_ChannelTake("fp/rx", small, sizeof(small), &len, 0), 0U);
    EXPECT_EQ(len, 6U);
    EXPECT_EQ(small[1], 2U);
    EXPECT_NE(WICK_ChannelTake("fp/rx", small, sizeof(small), &len, 0), 0U);

    // A take on a channel that does not exist yet waits for it.
    std::thread late([] {
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(WICK_ChannelPut("fp/late", "z", 1), 0U);
    });
    EXPECT_EQ(WICK_ChannelTake("fp/late", small, sizeof(small), &len, 5000), 0U);
    EXPECT_EQ(small[0], 'z');
    late.join();
}

TEST_F(WickChannelTest, InjectedFailuresReturnTheDocumentedForms)
{
    const uint32_t id = FPC_ChannelCreate("inj/rx", 8);
    ASSERT_NE(id, FPC_INVALID_ID);
    ASSERT_EQ(WICK_ChannelPut("inj/rx", "q", 1), 0U);
    FpcMbuf *m = Frame(1);
    ASSERT_NE(m, nullptr);
    uint8_t out[4] = {};
    uint32_t u = 99;
    FpcMbuf *got = m;

    // FPC_ChannelGetIdByName, FPC_ChannelCreate, FPC_ThreadInfoRegByName
    // and MbufPktAddHead are injected by the module's packet and start-up
    // suites. Every function opens with the same failure prologue
    // (platform::FailPoint): one row per form of failure stands for the
    // others (a plain code, an out-parameter cleared, nothing queued or
    // changed, a null buffer).
    struct Case {
        const char *op;
        std::function<bool()> failedAsDocumented;
    };
    const std::vector<Case> cases = {
        {"FPC_ChannelDcRecv", [&] { return FPC_ChannelDcRecv(id, &got) == 7 && got == nullptr; }},
        {"FPC_ChannelDcSendByIdNoSem",
         [&] { return FPC_ChannelDcSendByIdNoSem("t", id, 0, m) == 7 && WICK_ChannelDepth("inj/rx") == 1; }},
        {"MbufPktNewFromData", [] { return MbufPktNewFromData("x", 1, "f", 1) == nullptr; }},
        {"MbufPktCutHead", [&] { return MbufPktCutHead(m, 1, "f", 1) == 7 && m->dataLen == 1; }},
        {"FPC_GetDefaultDataRoomLen", [] { return FPC_GetDefaultDataRoomLen() == 7; }},
    };
    PLAT_CallCountReset();
    for (const Case &c : cases) {
        PLAT_FailSet(c.op, 0, 1, 7);
        EXPECT_TRUE(c.failedAsDocumented()) << c.op;
        EXPECT_EQ(PLAT_FailHits(c.op), 1U) << c.op;
        EXPECT_EQ(PLAT_CallCount(c.op), 1U) << c.op;
    }
    // Each failed once only: the frame is still there.
    ASSERT_EQ(FPC_ChannelDcRecv(id, &got), 0U);
    FpcMbufFree(got, "f", 1);

    // Code 0 still reads as failure; a failing free is counted but frees.
    PLAT_FailSet("MbufPktAddHead", 0, 1, 0);
    EXPECT_EQ(MbufPktAddHead(m, 1, "f", 1), 1U);
    const uint32_t before = WICK_MbufOutstanding();
    PLAT_FailSet("FpcMbufFree", 0, 1, 7);
    FpcMbufFree(m, "f", 1);
    EXPECT_EQ(PLAT_FailHits("FpcMbufFree"), 1U);
    EXPECT_EQ(WICK_MbufOutstanding(), before - 1);

    // The forwarding plane's side does not go through the counted functions.
    PLAT_CallCountReset();
    ASSERT_EQ(WICK_ChannelPut("inj/rx", "s", 1), 0U);
    ASSERT_EQ(WICK_ChannelTake("inj/rx", out, 4, &u, 0), 0U);
    EXPECT_EQ(PLAT_CallCount("MbufPktNewFromData"), 0U);
    EXPECT_EQ(PLAT_CallCount("FpcMbufFree"), 0U);
}

TEST_F(WickChannelTest, AResetRetiresChannelsAndNothingPutAfterItIsLost)
{
    // The forwarding plane's side remembers a name's channel: after a reset
    // a put by that name reaches the channel made anew, not the retired one.
    const uint8_t b = 7;
    ASSERT_EQ(WICK_ChannelPut("reset/ch", &b, 1), 0U);
    uint8_t got = 0;
    uint32_t len = 0;
    ASSERT_EQ(WICK_ChannelTake("reset/ch", &got, 1, &len, 0), 0U);
    const uint32_t oldId = FPC_ChannelGetIdByName("reset/ch");
    WICK_Reset();
    EXPECT_EQ(FPC_ChannelGetIdByName("reset/ch"), FPC_INVALID_ID);
    ASSERT_EQ(WICK_ChannelPut("reset/ch", &b, 1), 0U);
    EXPECT_EQ(WICK_ChannelDepth("reset/ch"), 1U);
    EXPECT_NE(FPC_ChannelGetIdByName("reset/ch"), oldId);
    // A receiver still holding the old id finds no channel there.
    FpcMbuf *m = nullptr;
    EXPECT_NE(FPC_ChannelDcRecv(oldId, &m), 0U);
    FpcMbuf *unsent = Frame(1);
    EXPECT_EQ(FPC_ChannelDcSendByIdNoSem("t", oldId, 0, unsent), 1U);  // the sender keeps it
    FpcMbufFree(unsent, "channel_test", 0);
    ASSERT_EQ(WICK_ChannelTake("reset/ch", &got, 1, &len, 0), 0U);
    EXPECT_EQ(got, 7U);
    EXPECT_NE(WICK_ChannelTake("reset/ch", &got, 1, &len, 0), 0U);
}

TEST_F(WickChannelTest, AWaitingTakeIsWokenByAPutToItsChannelEvenAcrossAReset)
{
    // Wakes, not the take's own deadline, end each wait: a wait lasting
    // half the deadline means a put's wake-up was lost.
    constexpr uint32_t kWaitMs = 20000;
    const auto takeWoken = [](const char *name, const std::function<void()> &meanwhile) {
        const auto start = Clock::now();
        std::thread other([&] {
            std::this_thread::sleep_for(20ms);
            meanwhile();
        });
        uint8_t got = 0;
        uint32_t len = 0;
        const uint32_t rc = WICK_ChannelTake(name, &got, 1, &len, kWaitMs);
        other.join();
        return rc == 0 && got == 'w' && Clock::now() - start < std::chrono::milliseconds(kWaitMs / 2);
    };
    ASSERT_EQ(WICK_ChannelPut("wake/other", "x", 1), 0U);
    ASSERT_NE(FPC_ChannelCreate("wake/ch", 4), FPC_INVALID_ID);
    EXPECT_TRUE(takeWoken("wake/ch", [] {
        EXPECT_EQ(WICK_ChannelPut("wake/other", "x", 1), 0U);  // another channel's put is not taken
        EXPECT_EQ(WICK_ChannelPut("wake/ch", "w", 1), 0U);
    }));
    EXPECT_TRUE(takeWoken("wake/ch", [] {
        WICK_Reset();
        EXPECT_EQ(WICK_ChannelPut("wake/ch", "w", 1), 0U);  // the channel made anew
    }));
}
