// Frame buffers of the fast-path library: room in front of the data,
// copies, leak accounting by call site, frees that are not ours.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/control.h"
#include "wick.h"

namespace {

std::vector<uint8_t> Bytes(const FpcMbuf *m)
{
    return {m->pData + m->dataOff, m->pData + m->dataOff + m->dataLen};
}

using SiteCounts = std::map<std::pair<std::string, uint32_t>, uint32_t>;

SiteCounts LeakSites()
{
    SiteCounts sites;
    WICK_MbufLeakReport(
        [](const char *file, uint32_t line, uint32_t count, void *arg) {
            (*static_cast<SiteCounts *>(arg))[{file, line}] += count;
        },
        &sites);
    return sites;
}

class WickMbufTest : public testing::Test {
protected:
    void SetUp() override
    {
        WICK_Reset();
        PLAT_FailClearAll();
        PLAT_LogClear();
        base_ = WICK_MbufOutstanding();
    }
    // Every test gives back what it took.
    void TearDown() override { EXPECT_EQ(WICK_MbufOutstanding(), base_); }

    uint32_t base_ = 0;
};

}  // namespace

TEST_F(WickMbufTest, HeadRoomGrowsAndShrinksWithinLimitsAndBytesLandInFront)
{
    const uint8_t frame[] = {1, 2, 3, 4};
    FpcMbuf *m = MbufPktNewFromData(frame, sizeof(frame), "t.cpp", 1);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->dataOff, WICK_HEADROOM);
    EXPECT_EQ(m->bufLen, WICK_HEADROOM + WICK_DEFAULT_DATA_ROOM);
    EXPECT_EQ(Bytes(m), std::vector<uint8_t>({1, 2, 3, 4}));

    ASSERT_EQ(MbufPktAddHead(m, 2, "t.cpp", 2), 0U);
    std::memcpy(m->pData + m->dataOff, "\xAA\xBB", 2);
    uint8_t out[6] = {};
    ASSERT_EQ(FpcMbufCopyPktToData(m, out, 6), 0U);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 6), std::vector<uint8_t>({0xAA, 0xBB, 1, 2, 3, 4}));
    EXPECT_NE(FpcMbufCopyPktToData(m, out, 7), 0U);

    // One byte more than the room in front fails and changes nothing;
    // exactly the room succeeds without moving the storage.
    uint8_t *storage = m->pData;
    EXPECT_NE(MbufPktAddHead(m, m->dataOff + 1, "t.cpp", 3), 0U);
    EXPECT_EQ(m->dataOff, WICK_HEADROOM - 2);
    ASSERT_EQ(MbufPktAddHead(m, WICK_HEADROOM - 2, "t.cpp", 4), 0U);
    EXPECT_EQ(m->dataOff, 0U);
    EXPECT_EQ(m->dataLen, WICK_HEADROOM + 4);
    EXPECT_EQ(m->pData, storage);

    EXPECT_NE(MbufPktCutHead(m, m->dataLen + 1, "t.cpp", 5), 0U);
    EXPECT_EQ(m->dataLen, WICK_HEADROOM + 4);
    ASSERT_EQ(MbufPktCutHead(m, WICK_HEADROOM - 2, "t.cpp", 6), 0U);
    EXPECT_EQ(Bytes(m), std::vector<uint8_t>({0xAA, 0xBB, 1, 2, 3, 4}));
    FpcMbufFree(m, "t.cpp", 8);

    // A frame longer than the default room gets exactly its length behind the head room.
    std::vector<uint8_t> big(WICK_DEFAULT_DATA_ROOM + 500, 0x5A);
    FpcMbuf *b = MbufPktNewFromData(big.data(), static_cast<uint32_t>(big.size()), "t.cpp", 9);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->bufLen, WICK_HEADROOM + big.size());
    EXPECT_EQ(Bytes(b), big);
    FpcMbufFree(b, "t.cpp", 10);

    EXPECT_EQ(MbufPktNewFromData(nullptr, 1, "t.cpp", 11), nullptr);
}

TEST_F(WickMbufTest, CopyIsIndependentOfTheOriginal)
{
    const uint8_t frame[] = {9, 8, 7, 6, 5};
    FpcMbuf *m = MbufPktNewFromData(frame, sizeof(frame), "orig.cpp", 1);
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(MbufPktCutHead(m, 1, "orig.cpp", 2), 0U);
    FpcMbuf *c = FpcMbufPktCopy(m);
    ASSERT_NE(c, nullptr);
    EXPECT_NE(c->pData, m->pData);
    EXPECT_EQ(std::tie(c->dataOff, c->dataLen, c->bufLen), std::tie(m->dataOff, m->dataLen, m->bufLen));

    m->pData[m->dataOff] = 0xFF;
    ASSERT_EQ(MbufPktAddHead(c, 3, "copy.cpp", 3), 0U);
    EXPECT_EQ(m->dataOff, WICK_HEADROOM + 1);
    EXPECT_EQ(LeakSites()[std::make_pair(std::string("FpcMbufPktCopy"), 0U)], 1U);
    FpcMbufFree(m, "orig.cpp", 4);  // the copy must not share its storage
    ASSERT_EQ(MbufPktCutHead(c, 3, "copy.cpp", 5), 0U);
    EXPECT_EQ(Bytes(c), std::vector<uint8_t>({8, 7, 6, 5}));
    FpcMbufFree(c, "copy.cpp", 6);
}

TEST_F(WickMbufTest, LeaksAreReportedByAllocationSite)
{
    const uint8_t b = 1;
    // The same file named through two different pointers is one site.
    const std::string sameFile = "a.cpp";
    std::vector<FpcMbuf *> bufs = {MbufPktNewFromData(&b, 1, "a.cpp", 10),
                                   MbufPktNewFromData(&b, 1, sameFile.c_str(), 10),
                                   MbufPktNewFromData(&b, 1, "a.cpp", 10), MbufPktNewFromData(&b, 1, "a.cpp", 11),
                                   MbufPktNewFromData(&b, 1, "b.cpp", 20)};
    ASSERT_EQ(std::count(bufs.begin(), bufs.end(), nullptr), 0);
    ASSERT_EQ(WICK_ChannelPut("leak/ch", &b, 1), 0U);
    FpcMbufFree(bufs[0], "x", 0);
    EXPECT_EQ(WICK_MbufOutstanding(), base_ + 5);
    const SiteCounts expected = {{{"a.cpp", 10}, 2}, {{"a.cpp", 11}, 1}, {{"b.cpp", 20}, 1}, {{"wick:put", 0}, 1}};
    EXPECT_EQ(LeakSites(), expected);
    EXPECT_EQ(WICK_MbufLeakReport(nullptr, nullptr), 4U);

    for (size_t i = 1; i < bufs.size(); i++) {
        FpcMbufFree(bufs[i], "x", 0);
    }
    WICK_Reset();  // frees the buffer still queued
    EXPECT_TRUE(LeakSites().empty());
}

TEST_F(WickMbufTest, BadAndDoubleFreesAreLoggedAndIgnored)
{
    FpcMbuf fake = {};
    FpcMbufFree(&fake, "fake.cpp", 7);
    EXPECT_EQ(PLAT_LogCount(PLAT_LOG_PLATFORM, "wick: bad free at fake.cpp:7"), 1U);

    // Many buffers freed in a shuffled order, each then freed again: every
    // second free is caught, no first free is mistaken for one, and
    // buffers not yet freed stay accounted for. Each round uses another
    // buffer size, so the buffers land at other addresses.
    constexpr uint32_t kCount = 4000;
    for (uint32_t round = 0; round < 8; round++) {
        PLAT_LogClear();
        std::vector<uint8_t> frame(WICK_DEFAULT_DATA_ROOM + round * 72);
        std::vector<FpcMbuf *> bufs;
        for (uint32_t i = 0; i < kCount; i++) {
            std::memcpy(frame.data(), &i, sizeof(i));
            bufs.push_back(MbufPktNewFromData(frame.data(), static_cast<uint32_t>(frame.size()), "many.cpp", 1));
            ASSERT_NE(bufs.back(), nullptr);
        }
        std::shuffle(bufs.begin(), bufs.end(), std::mt19937(round));
        for (uint32_t i = 0; i < kCount / 2; i++) {
            FpcMbufFree(bufs[i], "first.cpp", 1);
        }
        ASSERT_EQ(PLAT_LogCount(PLAT_LOG_PLATFORM, "first.cpp"), 0U) << "round " << round;
        ASSERT_EQ(WICK_MbufOutstanding(), base_ + kCount / 2);
        for (uint32_t i = 0; i < kCount / 2; i++) {
            FpcMbufFree(bufs[i], "again.cpp", 2);
        }
        ASSERT_EQ(PLAT_LogCount(PLAT_LOG_PLATFORM, "wick: bad free at again.cpp:2"), kCount / 2);
        ASSERT_EQ(WICK_MbufOutstanding(), base_ + kCount / 2);
        for (uint32_t i = kCount / 2; i < kCount; i++) {
            uint32_t v = 0;
            ASSERT_EQ(FpcMbufCopyPktToData(bufs[i], &v, sizeof(v)), 0U);
            ASSERT_LT(v, kCount);
            FpcMbufFree(bufs[i], "second.cpp", 3);
        }
        ASSERT_EQ(PLAT_LogCount(PLAT_LOG_PLATFORM, "second.cpp"), 0U) << "round " << round;
        ASSERT_EQ(WICK_MbufOutstanding(), base_);
    }
}
