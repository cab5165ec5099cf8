// Tasks, fixed-length queues and accounted memory of the OS abstraction.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/control.h"
#include "ruk.h"

namespace {

std::atomic<bool> g_release{false};

uint32_t HeldTask(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d)
{
    while (!g_release) {
        RUK_TaskDelay(1);
    }
    return static_cast<uint32_t>(a + b + c + d);
}

struct SiteReport {
    std::string handle;
    std::string file;
    uint32_t line;
    uint32_t blocks;
    uint64_t bytes;
    bool operator==(const SiteReport &) const = default;
};

std::vector<SiteReport> Sites()
{
    std::vector<SiteReport> sites;
    PLAT_MemLeakReport(
        [](const char *handle, const char *file, uint32_t line, uint32_t blocks, uint64_t bytes, void *arg) {
            static_cast<std::vector<SiteReport> *>(arg)->push_back({handle, file, line, blocks, bytes});
        },
        &sites);
    return sites;
}

}  // namespace

TEST(RukTask, RunsTheEntryUnderItsThreadName)
{
    uint32_t id1 = 0;
    uint32_t id2 = 0;
    ASSERT_EQ(RUK_TaskCreate("A_Task_Name_Longer_Than_15", &id1, HeldTask, 10, 0, 0, 1, 2, 3, 4), RUK_OK);
    PLAT_TASK_INFO_S info;
    ASSERT_EQ(PLAT_TaskGetInfo("A_Task_Name_Longer_Than_15", &info), 0U);
    EXPECT_EQ(info.running, 1U);
    ASSERT_GT(info.tid, 0);
    std::ifstream comm("/proc/self/task/" + std::to_string(info.tid) + "/comm");
    std::string threadName;
    std::getline(comm, threadName);
    EXPECT_EQ(threadName, "A_Task_Name_Lon");

    ASSERT_EQ(RUK_TaskCreate("Second", &id2, HeldTask, 0, 0, 0, 0, 0, 0, 0), RUK_OK);
    EXPECT_NE(id1, id2);

    // The end of a task and its exit status are what the module's start-up
    // suite waits for and reads (startup_test.cpp).
    g_release = true;

    EXPECT_EQ(RUK_TaskCreate(nullptr, &id1, HeldTask, 0, 0, 0, 0, 0, 0, 0), RUK_ERR_PARAM);
    EXPECT_EQ(RUK_TaskCreate("x", &id1, nullptr, 0, 0, 0, 0, 0, 0, 0), RUK_ERR_PARAM);
}

TEST(RukQueue, FixedLengthMessagesShortReadsAndIdsNeverReused)
{
    // Filling up and the order around the ring are the module queue and HA
    // suites' (both read through this queue).
    uint32_t q = 0;
    EXPECT_EQ(RUK_QueueCreate("q", 0, &q, 0, 8), RUK_ERR_PARAM);
    EXPECT_EQ(RUK_QueueCreate("q", 3, nullptr, 0, 8), RUK_ERR_PARAM);
    ASSERT_EQ(RUK_QueueCreate("q", 3, &q, 0, 8), RUK_OK);

    char out[16] = {};
    EXPECT_EQ(RUK_QueueAsyRead(q, out, sizeof(out)), 0U);  // empty
    EXPECT_EQ(RUK_QueueAsyWrite(q, "1234567", 7), RUK_ERR_MSG_LEN);
    EXPECT_EQ(RUK_QueueAsyWrite(q, "123456789", 9), RUK_ERR_MSG_LEN);
    ASSERT_EQ(RUK_QueueAsyWrite(q, "first..", 8), RUK_OK);
    EXPECT_EQ(RUK_QueueAsyRead(q, out, 3), 3U);  // a short buffer takes the head of the message
    EXPECT_EQ(std::string(out, 3), "fir");
    EXPECT_EQ(RUK_QueueAsyRead(q, out, sizeof(out)), 0U);

    // Ids are never reused: the old one stays dead.
    EXPECT_EQ(RUK_QueueDelete(q), RUK_OK);
    EXPECT_EQ(RUK_QueueDelete(q), RUK_ERR_NO_QUEUE);
    EXPECT_EQ(RUK_QueueAsyWrite(q, "1234567", 8), RUK_ERR_NO_QUEUE);
    uint32_t q2 = 0;
    ASSERT_EQ(RUK_QueueCreate("q", 3, &q2, 0, 8), RUK_OK);
    EXPECT_NE(q2, q);
    EXPECT_EQ(RUK_QueueAsyRead(q, out, sizeof(out)), 0U);
}

TEST(RukQueue, ConcurrentWritersLoseNothing)
{
    uint32_t q = 0;
    ASSERT_EQ(RUK_QueueCreate("q", 64, &q, 0, sizeof(uint32_t)), RUK_OK);
    constexpr uint32_t kPerWriter = 2000;
    std::vector<std::thread> writers;
    for (uint32_t w = 0; w < 3; w++) {
        writers.emplace_back([q, w]() {
            for (uint32_t i = 0; i < kPerWriter; i++) {
                const uint32_t value = w * kPerWriter + i;
                while (RUK_QueueAsyWrite(q, &value, sizeof(value)) == RUK_ERR_QUEUE_FULL) {
                    std::this_thread::yield();
                }
            }
        });
    }
    std::vector<int64_t> lastOf(3, -1);
    std::set<uint32_t> seen;
    while (seen.size() < 3 * kPerWriter) {
        uint32_t value = 0;
        if (RUK_QueueAsyRead(q, &value, sizeof(value)) == 0) {
            std::this_thread::yield();
            continue;
        }
        // Each writer's messages come out in the order it wrote them.
        const uint32_t w = value / kPerWriter;
        ASSERT_LT(w, 3U);
        EXPECT_TRUE(seen.insert(value).second);
        EXPECT_GT(int64_t{value}, lastOf[w]);
        lastOf[w] = value;
    }
    for (std::thread &t : writers) {
        t.join();
    }
}

TEST(RukMemory, HandlesPartitionsAndPerSiteAccounting)
{
    uint32_t h = 0;
    uint32_t hAgain = 0;
    uint32_t other = 0;
    ASSERT_EQ(RUK_HandleInitialize("modA", &h), RUK_OK);
    ASSERT_EQ(RUK_HandleInitialize("modA", &hAgain), RUK_OK);
    ASSERT_EQ(RUK_HandleInitialize("modB", &other), RUK_OK);
    EXPECT_EQ(h, hAgain);
    EXPECT_NE(h, other);
    uint32_t pt = 0;
    EXPECT_EQ(RUK_MemPtNoGet("", &pt), RUK_ERR_PARAM);
    EXPECT_EQ(RUK_MemPtNoGet(nullptr, &pt), RUK_ERR_PARAM);
    ASSERT_EQ(RUK_MemPtNoGet("EXTPT", &pt), RUK_OK);

    EXPECT_EQ(RUK_MemAlloc_F(h + other + 1000, pt, 8, "x.c", 1), nullptr);  // unknown handle
    EXPECT_EQ(RUK_MemAlloc_F(h, pt + 1000, 8, "x.c", 1), nullptr);          // unknown partition

    void *a1 = RUK_MemAlloc_F(h, pt, 10, "a.c", 5);
    void *a2 = RUK_MemAlloc_F(h, pt, 20, "a.c", 5);
    void *b1 = RUK_MemAlloc_F(other, pt, 0, "b.c", 9);
    void *b2 = RUK_MemAlloc_F(other, pt, 0, "b.c", 9);
    ASSERT_TRUE(a1 && a2 && b1 && b2);
    EXPECT_NE(b1, b2);  // zero-sized blocks are distinct
    std::memset(a2, 0xab, 20);
    EXPECT_EQ(PLAT_MemOutstanding(), 4U);
    EXPECT_EQ(PLAT_MemOutstandingBytes(), 30U);
    EXPECT_EQ(Sites(), (std::vector<SiteReport>{{"modA", "a.c", 5, 2, 30}, {"modB", "b.c", 9, 2, 0}}));

    // Foreign, null, wrong-handle and double frees are refused and change nothing.
    int notOurs = 0;
    EXPECT_EQ(RUK_MemFree_F(h, &notOurs, "f.c", 1), RUK_ERR_BAD_FREE);
    EXPECT_EQ(RUK_MemFree_F(h, nullptr, "f.c", 1), RUK_ERR_BAD_FREE);
    EXPECT_EQ(RUK_MemFree_F(h, static_cast<char *>(a1) + 1, "f.c", 1), RUK_ERR_BAD_FREE);
    EXPECT_NE(RUK_MemFree_F(other, a1, "f.c", 1), RUK_OK);
    EXPECT_EQ(PLAT_MemOutstanding(), 4U);
    EXPECT_EQ(RUK_MemFree_F(h, a1, "f.c", 1), RUK_OK);
    EXPECT_EQ(RUK_MemFree_F(other, b1, "f.c", 1), RUK_OK);
    EXPECT_EQ(RUK_MemFree_F(other, b2, "f.c", 1), RUK_OK);
    EXPECT_EQ(Sites(), (std::vector<SiteReport>{{"modA", "a.c", 5, 1, 20}}));
    EXPECT_EQ(PLAT_MemOutstandingBytes(), 20U);
    EXPECT_EQ(RUK_MemFree_F(h, a2, "f.c", 1), RUK_OK);
    EXPECT_EQ(PLAT_MemOutstanding(), 0U);
    EXPECT_EQ(PLAT_MemLeakReport(nullptr, nullptr), 0U);
}

TEST(RukMemory, BlocksCrossThreadsAndLargeOnesComeFromTheHeap)
{
    // Blocks made on one thread and freed on others (the queue's payloads),
    // of every size up to beyond the pooled ones: accounting stays exact,
    // each block is whole while it lives, and a freed one is refused again.
    uint32_t h = 0;
    uint32_t pt = 0;
    ASSERT_EQ(RUK_HandleInitialize("cross", &h), RUK_OK);
    ASSERT_EQ(RUK_MemPtNoGet("EXTPT", &pt), RUK_OK);
    const uint32_t base = PLAT_MemOutstanding();
    const size_t sizes[] = {1, 31, 32, 200, 4096, 8192, 16384 - 32, 16384, 70000};
    std::vector<std::pair<void *, size_t>> blocks;
    for (int round = 0; round < 50; round++) {
        for (size_t size : sizes) {
            void *p = RUK_MemAlloc_F(h, pt, size, "cross.c", 1);
            ASSERT_NE(p, nullptr);
            std::memset(p, round, size);
            blocks.emplace_back(p, size);
        }
    }
    EXPECT_EQ(PLAT_MemOutstanding(), base + blocks.size());
    std::vector<std::thread> freers;
    std::atomic<uint32_t> torn{0};
    for (size_t t = 0; t < 3; t++) {
        freers.emplace_back([&blocks, &torn, h, pt, t]() {
            for (size_t i = t; i < blocks.size(); i += 3) {
                const auto *bytes = static_cast<const unsigned char *>(blocks[i].first);
                const unsigned char mark = static_cast<unsigned char>(i / (sizeof(sizes) / sizeof(sizes[0])));
                if (bytes[0] != mark || bytes[blocks[i].second - 1] != mark) {
                    torn++;
                }
                EXPECT_EQ(RUK_MemFree_F(h, blocks[i].first, "cross.c", 2), RUK_OK);
                // Freshly made and freed on this thread meanwhile.
                void *p = RUK_MemAlloc_F(h, pt, blocks[i].second, "cross.c", 3);
                EXPECT_EQ(RUK_MemFree_F(h, p, "cross.c", 4), RUK_OK);
            }
        });
    }
    for (std::thread &t : freers) {
        t.join();
    }
    EXPECT_EQ(torn.load(), 0U);
    EXPECT_EQ(PLAT_MemOutstanding(), base);
    EXPECT_EQ(RUK_MemFree_F(h, blocks.back().first, "cross.c", 5), RUK_ERR_BAD_FREE);   // a heap block
    EXPECT_EQ(RUK_MemFree_F(h, blocks.front().first, "cross.c", 5), RUK_ERR_BAD_FREE);  // a pooled one
}
