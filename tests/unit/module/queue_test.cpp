// The main queue: a platform queue paired with a semaphore eventfd in an
// epoll set, one message per wake-up.
#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <string>

#include "module_fixture.hpp"
#include "platform/control.h"
#include "pplus_test.hpp"
#include "pppoe_plus_ha.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_main.h"
#include "pppoe_plus_mem.h"

using pplus_test::LogHas;

namespace {

class QueueTest : public pplus_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        epollFd_ = MESH_EpollCreate();
        ASSERT_GE(epollFd_, 0);
    }

    // Posts a message whose payload is a fresh module allocation.
    uint32_t Post(QueueHandle *queue, uint64_t type)
    {
        void *payload = PPPOE_PLUS_MemAlloc(8);
        MainQueueMsg msg = {type, reinterpret_cast<uint64_t>(payload), 8, 0};
        const uint32_t ret = PPPOE_PLUS_QueueWrite(queue, &msg, sizeof(msg));
        if (ret != 0) {
            PPPOE_PLUS_MemFree(payload);
        }
        return ret;
    }

    // One pass of the init task's loop body: wait (no block) and run the callbacks.
    int32_t ServeOnce()
    {
        MESH_EPOLL_EVENT_S events[5];
        const int32_t ready = MESH_EpollWait(epollFd_, events, 5, 0);
        for (int32_t i = 0; i < ready; i++) {
            events[i].callback(events[i].fd, events[i].events, events[i].arg);
        }
        return ready;
    }

    int32_t epollFd_ = -1;
};

}  // namespace

TEST_F(QueueTest, TenMessagesGiveTenWakeUpsOfOneMessageEach)
{
    QueueHandle *queue = PPPOE_PLUS_CreateEpollQueue(epollFd_, "pppoe_plus", 1024, PPPOE_PLUS_MainQueueProc);
    ASSERT_NE(queue, nullptr);
    const uint32_t base = PLAT_MemOutstanding();
    for (int i = 0; i < 10; i++) {
        ASSERT_EQ(Post(queue, i % 2 == 0 ? 2 : 7), 0U);  // types nobody handles: read, dropped, freed
    }
    EXPECT_EQ(queue->pendingCount.load(), 10U);
    EXPECT_EQ(PLAT_MemOutstanding(), base + 10);
    for (int wake = 1; wake <= 10; wake++) {
        ASSERT_EQ(ServeOnce(), 1) << "wake-up " << wake;
        EXPECT_EQ(queue->pendingCount.load(), static_cast<uint64_t>(10 - wake));
        EXPECT_EQ(PLAT_MemOutstanding(), base + 10 - static_cast<uint32_t>(wake));
    }
    EXPECT_EQ(ServeOnce(), 0);
    EXPECT_EQ(queue->fdErrorCount.load(), 0U);
}

TEST_F(QueueTest, DeleteNeverClosesDescriptorZero)
{
    QueueHandle *queue = nullptr;
    ASSERT_EQ(PPPOE_PLUS_QueueCreate("q", 4, &queue, 0, 32), 0U);
    const int realFd = queue->eventFd;
    queue->eventFd = 0;
    PLAT_CallCountReset();
    EXPECT_EQ(PPPOE_PLUS_QueueDelete(&queue), 0U);
    EXPECT_EQ(PLAT_CallCount("close_s"), 0U);
    EXPECT_EQ(queue, nullptr);
    close(realFd);

    ASSERT_EQ(PPPOE_PLUS_QueueCreate("q2", 4, &queue, 0, 32), 0U);
    PLAT_FailSet("close_s", 0, 1, 9);
    EXPECT_EQ(PPPOE_PLUS_QueueDelete(&queue), 0U);  // a failed close is only logged
    EXPECT_EQ(PLAT_CallCount("close_s"), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_QUEUE]Close fd failed ret:0x"));
}

TEST_F(QueueTest, NullHandlesAreRefusedWithTheirMessages)
{
    MainQueueMsg msg = {};
    EXPECT_EQ(PPPOE_PLUS_QueueCreate("q", 4, nullptr, 0, 32), 1U);
    EXPECT_EQ(PPPOE_PLUS_QueueDelete(nullptr), 1U);
    EXPECT_EQ(PPPOE_PLUS_QueueWrite(nullptr, &msg, 32), 1U);
    EXPECT_EQ(PPPOE_PLUS_QueueRead(nullptr, &msg, 32), 0U);
    for (const std::string op : {"Create", "Delete", "Write", "Read"}) {
        EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_QUEUE]" + op + " process handle is null.")) << op;
    }
    int32_t fd = 0;
    EXPECT_EQ(PPPOE_PLUS_QueueGetFd(nullptr, &fd), 1U);
    EXPECT_EQ(PPPOE_PLUS_QueueEpollReg(nullptr, epollFd_, PPPOE_PLUS_MainQueueProc), 1U);
    EXPECT_EQ(PPPOE_PLUS_MainQueueProc(0, 1, nullptr), 0U);
}

TEST_F(QueueTest, CreationFailuresReleaseEverything)
{
    const uint32_t base = PLAT_MemOutstanding();
    QueueHandle *queue = nullptr;

    PLAT_FailSet("RUK_QueueCreate", 0, 1, 0x55);
    EXPECT_EQ(PPPOE_PLUS_QueueCreate("q", 4, &queue, 0, 32), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_QUEUE]Create queue failed, ret=85."));

    PLAT_FailSet("eventfd_s", 0, 1, 1);
    PLAT_CallCountReset();
    EXPECT_EQ(PPPOE_PLUS_QueueCreate("q", 4, &queue, 0, 32), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_QUEUE]Create queue fd failed."));
    EXPECT_EQ(PLAT_CallCount("RUK_QueueDelete"), 1U);

    PLAT_FailSet("RUK_MemAlloc_F", 0, 1, 1);
    EXPECT_EQ(PPPOE_PLUS_QueueCreate("q", 4, &queue, 0, 32), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_QUEUE]Create alloc memory failed."));

    PLAT_FailSet("MESH_EpollCtl", 0, 1, 1);
    PLAT_CallCountReset();
    EXPECT_EQ(PPPOE_PLUS_CreateEpollQueue(epollFd_, "q", 4, PPPOE_PLUS_MainQueueProc), nullptr);
    EXPECT_EQ(PLAT_CallCount("RUK_QueueDelete"), 1U);
    EXPECT_EQ(PLAT_CallCount("close_s"), 1U);

    EXPECT_EQ(queue, nullptr);
    EXPECT_EQ(PLAT_MemOutstanding(), base);
}

TEST_F(QueueTest, ReadsAndWritesWithoutTheirWakeUpOrRoom)
{
    QueueHandle *queue = nullptr;
    ASSERT_EQ(PPPOE_PLUS_QueueCreate("q", 1, &queue, 0, 32), 0U);
    MainQueueMsg msg = {};
    // A wake-up with nothing queued reaches the queue and reads nothing.
    ASSERT_EQ(eventfd_write(queue->eventFd, 1), 0);
    EXPECT_EQ(PPPOE_PLUS_QueueRead(queue, &msg, sizeof(msg)), 0U);
    EXPECT_EQ(queue->pendingCount.load(), 0U);
    // No wake-up pending: the read stops at the eventfd and counts an error.
    EXPECT_EQ(PPPOE_PLUS_QueueRead(queue, &msg, sizeof(msg)), 0U);
    EXPECT_EQ(queue->fdErrorCount.load(), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_QUEUE]Read queue fd failed"));

    ASSERT_EQ(PPPOE_PLUS_QueueWrite(queue, &msg, sizeof(msg)), 0U);
    EXPECT_EQ(PPPOE_PLUS_QueueWrite(queue, &msg, sizeof(msg)), 1U);  // depth 1: full
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_QUEUE]Write queue failed, ret=0x"));
    EXPECT_EQ(queue->pendingCount.load(), 1U);

    // A lost wake-up: the message is queued anyway and the write succeeds.
    ASSERT_EQ(PPPOE_PLUS_QueueRead(queue, &msg, sizeof(msg)), sizeof(msg));
    const int32_t realFd = queue->eventFd;
    queue->eventFd = -3;
    EXPECT_EQ(PPPOE_PLUS_QueueWrite(queue, &msg, sizeof(msg)), 0U);
    EXPECT_EQ(queue->fdErrorCount.load(), 2U);
    EXPECT_EQ(queue->pendingCount.load(), 1U);
    EXPECT_TRUE(LogHas(PLAT_LOG_DIAG, "[PPPOEPLUS_QUEUE]Write queue fd failed"));
    queue->eventFd = realFd;
    EXPECT_EQ(PPPOE_PLUS_QueueDelete(&queue), 0U);
    EXPECT_EQ(queue, nullptr);
}
