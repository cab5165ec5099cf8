// The module's tasks: "PPPoE_Plus_Init" serves its epoll set (the main queue
// and the database subscription) and "PPPoE_Plus_Main" receives frames from
// the fast path. Work arriving on foreign threads is posted to the main
// queue: a platform queue paired with a semaphore eventfd, one message per
// wake-up.
#include "pppoe_plus_main.h"

#include <sys/eventfd.h>

#include "plat_safe.h"
#include "pppoe_plus_evt.h"
#include "pppoe_plus_fpc.h"
#include "pppoe_plus_ha.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"
#include "pppoe_plus_patch.h"
#include "pppoe_plus_pkt.h"
#include "ruk.h"
#include "zavk.h"

namespace {

constexpr int kEventFdFlags = 0x80801;  // EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE
constexpr int32_t kInitLoopMaxEvents = 5;

// A non-negative descriptor is used by its low 16 bits, a negative one as is.
int32_t MaskFd(int32_t fd)
{
    return fd >= 0 ? (fd & 0xFFFF) : fd;
}

void QueueError(const char *format, uint32_t arg = 0)
{
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, format, arg);
}

}  // namespace

extern "C" {

std::atomic<int32_t> g_pppoePlusGlbEpollFd{-1};
std::atomic<QueueHandle *> g_pppoePlusRegQueHandle{nullptr};

uint32_t PPPOE_PLUS_QueueCreate(const char *name, uint32_t depth, QueueHandle **out, uint32_t mode, uint32_t msgLen)
{
    if (out == nullptr) {
        QueueError("[PPPOEPLUS_QUEUE]Create process handle is null.");
        return 1;
    }
    auto *handle = static_cast<QueueHandle *>(PPPOE_PLUS_MemAlloc(sizeof(QueueHandle)));
    if (handle == nullptr) {
        QueueError("[PPPOEPLUS_QUEUE]Create alloc memory failed.");
        return 1;
    }
    const uint32_t ret = RUK_QueueCreate(name, depth, &handle->queueId, mode, msgLen);
    if (ret != RUK_OK) {
        QueueError("[PPPOEPLUS_QUEUE]Create queue failed, ret=%u.", ret);
        PPPOE_PLUS_MemFree(handle);
        return 1;
    }
    handle->eventFd = eventfd_s(0, kEventFdFlags);
    if (handle->eventFd < 0) {
        QueueError("[PPPOEPLUS_QUEUE]Create queue fd failed.");
        (void)RUK_QueueDelete(handle->queueId);
        PPPOE_PLUS_MemFree(handle);
        return 1;
    }
    handle->pendingCount.store(0, std::memory_order_relaxed);
    handle->fdErrorCount.store(0, std::memory_order_relaxed);
    *out = handle;
    return 0;
}

uint32_t PPPOE_PLUS_QueueDelete(QueueHandle **handle)
{
    if (handle == nullptr || *handle == nullptr) {
        QueueError("[PPPOEPLUS_QUEUE]Delete process handle is null.");
        return 1;
    }
    QueueHandle *queue = *handle;
    (void)RUK_QueueDelete(queue->queueId);
    if (queue->eventFd >= 1) {  // descriptor 0 is never closed
        if (const int ret = close_s(MaskFd(queue->eventFd)); ret != 0) {
            QueueError("[PPPOEPLUS_QUEUE]Close fd failed ret:0x%x", static_cast<uint32_t>(ret));
        }
        queue->eventFd = 0;
    }
    PPPOE_PLUS_MemFree(queue);
    *handle = nullptr;
    return 0;
}

uint32_t PPPOE_PLUS_QueueWrite(QueueHandle *handle, const void *msg, uint32_t len)
{
    if (handle == nullptr) {
        QueueError("[PPPOEPLUS_QUEUE]Write process handle is null.");
        return 1;
    }
    const uint32_t ret = RUK_QueueAsyWrite(handle->queueId, msg, len);
    if (ret != RUK_OK) {
        QueueError("[PPPOEPLUS_QUEUE]Write queue failed, ret=0x%x.", ret);
        return 1;
    }
    if (eventfd_write(MaskFd(handle->eventFd), 1) < 0) {
        // The message stays queued; the next wake-up of this descriptor takes it.
        handle->fdErrorCount.fetch_add(1, std::memory_order_relaxed);
        QueueError("[PPPOEPLUS_QUEUE]Write queue fd failed");
    }
    handle->pendingCount.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

uint32_t PPPOE_PLUS_QueueRead(QueueHandle *handle, void *buf, uint32_t len)
{
    if (handle == nullptr) {
        QueueError("[PPPOEPLUS_QUEUE]Read process handle is null.");
        return 0;
    }
    eventfd_t count = 0;
    if (eventfd_read(MaskFd(handle->eventFd), &count) < 0) {
        handle->fdErrorCount.fetch_add(1, std::memory_order_relaxed);
        QueueError("[PPPOEPLUS_QUEUE]Read queue fd failed");
        return 0;
    }
    const uint32_t ret = RUK_QueueAsyRead(handle->queueId, buf, len);
    // Only this reader decrements, so a positive count cannot drop below 0.
    if (handle->pendingCount.load(std::memory_order_relaxed) > 0) {
        handle->pendingCount.fetch_sub(1, std::memory_order_relaxed);
    }
    return ret;
}

uint32_t PPPOE_PLUS_QueueGetFd(const QueueHandle *handle, int32_t *fd)
{
    if (handle == nullptr || fd == nullptr) {
        return 1;
    }
    *fd = MaskFd(handle->eventFd);
    return 0;
}

uint32_t PPPOE_PLUS_QueueEpollReg(QueueHandle *handle, int32_t epollFd, MESH_EPOLL_CALLBACK_FN callback)
{
    if (handle == nullptr) {
        return 1;
    }
    return PPPOE_PLUS_EpollAdd(epollFd, MaskFd(handle->eventFd), PPPOE_PLUS_QUEUE_EPOLL_EVENTS, callback, handle);
}

QueueHandle *PPPOE_PLUS_CreateEpollQueue(int32_t epollFd, const char *name, uint32_t depth,
                                         MESH_EPOLL_CALLBACK_FN callback)
{
    QueueHandle *handle = nullptr;
    if (PPPOE_PLUS_QueueCreate(name, depth, &handle, 0, PPPOE_PLUS_MAIN_QUEUE_MSG_LEN) != 0) {
        return nullptr;
    }
    if (PPPOE_PLUS_QueueEpollReg(handle, epollFd, callback) != 0) {
        (void)PPPOE_PLUS_QueueDelete(&handle);
        return nullptr;
    }
    return handle;
}

uint32_t PPPOE_PLUS_EpollAdd(int32_t epollFd, int32_t fd, uint32_t events, MESH_EPOLL_CALLBACK_FN callback, void *arg)
{
    MESH_EPOLL_EVENT_S reg = {};
    reg.events = events;
    reg.callback = callback;
    reg.arg = arg;
    reg.fd = static_cast<uint32_t>(fd);
    return MESH_EpollCtl(epollFd, MESH_EPOLL_CTL_ADD, static_cast<uint32_t>(fd), &reg) < 0 ? 1U : 0U;
}

uint32_t PPPOE_PLUS_EpollDel(int32_t epollFd, int32_t fd)
{
    const MESH_EPOLL_EVENT_S reg = {};
    return MESH_EpollCtl(epollFd, MESH_EPOLL_CTL_DEL, static_cast<uint32_t>(fd), &reg) < 0 ? 1U : 0U;
}

uint32_t PPPOE_PLUS_CreateMainTask(void)
{
    uint32_t taskId = 0;
    if (RUK_TaskCreate("PPPoE_Plus_Main", &taskId, PPPOE_PLUS_MainTaskEntry, 100, 0, 0, 0, 0, 0, 0) != RUK_OK) {
        QueueError("[PPPOEPLUS_MAIN]Create pppoeplus main task failed!");
        return 1;
    }
    QueueHandle *queue = PPPOE_PLUS_CreateEpollQueue(g_pppoePlusGlbEpollFd.load(), PPPOE_PLUS_MAIN_QUEUE_NAME,
                                                     PPPOE_PLUS_MAIN_QUEUE_DEPTH, PPPOE_PLUS_MainQueueProc);
    if (queue == nullptr) {
        QueueError("[PPPoE-Plus]Create epoll queue failed.");
        QueueError("[PPPOEPLUS_MAIN]Create pppoeplus queue fail.");
        return 1;
    }
    g_pppoePlusRegQueHandle.store(queue, std::memory_order_release);
    return 0;
}

uint32_t PPPOE_PLUS_InitTaskLoop(int32_t epollFd)
{
    const uint32_t ret = PPPOE_PLUS_ThreadDeadLoopInit();
    if (ret != 0) {
        return ret;
    }
    MESH_EPOLL_EVENT_S events[kInitLoopMaxEvents];
    for (;;) {
        const int32_t ready = MESH_EpollWait(epollFd, events, kInitLoopMaxEvents, -1);
        for (int32_t i = 0; i < ready; i++) {
            ZAVK_DmOpers(ZAVK_DM_BEGIN);
            if (events[i].callback != nullptr) {
                (void)events[i].callback(events[i].fd, events[i].events, events[i].arg);
            }
            ZAVK_DmOpers(ZAVK_DM_END);
        }
        RUK_TaskRunDelay(200, 10);
    }
}

uint32_t PPPOE_PLUS_MainQueueProc(uint32_t /*fd*/, uint32_t /*events*/, void *handle)
{
    if (handle == nullptr) {
        return 0;
    }
    MainQueueMsg msg = {};
    if (PPPOE_PLUS_QueueRead(static_cast<QueueHandle *>(handle), &msg, sizeof(msg)) == 0) {
        return 0;
    }
    void *data = reinterpret_cast<void *>(msg.data);
    switch (msg.msgType) {
        case PPPOE_PLUS_MSG_EVENT:
            if (data != nullptr) {
                PPPOE_PLUS_EvtDeliver(data);
            }
            break;
        case PPPOE_PLUS_MSG_HA:
            PPPOE_PLUS_HaMsgProc(data);
            break;
        default:
            break;  // unknown types are dropped
    }
    PPPOE_PLUS_MemFree(data);
    return 0;
}

uint32_t PPPOE_PLUS_MainTaskEntry(uintptr_t, uintptr_t, uintptr_t, uintptr_t)
{
    if (PPPOE_PLUS_CreateRxChannel() != 0) {
        return 1;
    }
    if (PppoePlusRegDeadloop() != 0) {
        QueueError("[PPPOEPLUS_MAIN] Reg ZAVK deadloop failed!");
    }
    uint32_t eventFlags = 0;
    for (;;) {
        while (PPPOE_PLUS_FpcEventRead(&eventFlags) != 0) {
        }
        ZAVK_DmOpers(ZAVK_DM_BEGIN);
        if ((eventFlags & FPC_EVENT_RX) != 0) {
            PPPOE_PLUS_RxPktFromDpx();  // drains the receive channel
        }
        ZAVK_DmOpers(ZAVK_DM_END);
        RUK_T_RunDelay(200, 10);
    }
}

}  // extern "C"
