/* The module's two tasks, the main queue and the epoll helpers. */
#ifndef PPPOE_PLUS_MAIN_H
#define PPPOE_PLUS_MAIN_H

#include <stdint.h>

#include "mesh.h"

#define PPPOE_PLUS_MAIN_QUEUE_NAME "pppoe_plus"
#define PPPOE_PLUS_MAIN_QUEUE_DEPTH 1024U
#define PPPOE_PLUS_MAIN_QUEUE_MSG_LEN 32U
#define PPPOE_PLUS_QUEUE_EPOLL_EVENTS 17U   /* EPOLLIN | EPOLLHUP */

/* Main queue message types. */
#define PPPOE_PLUS_MSG_HA 0ULL
#define PPPOE_PLUS_MSG_EVENT 1ULL

#ifdef __cplusplus
#include <atomic>
extern "C" {

/* A platform queue paired with a semaphore eventfd. The counters are
 * written by the writers' threads and the reader's, hence atomic. */
typedef struct QueueHandle {
    uint32_t queueId;
    int32_t eventFd;
    std::atomic<uint64_t> pendingCount;
    std::atomic<uint64_t> fdErrorCount;
} QueueHandle;
static_assert(sizeof(QueueHandle) == 24, "QueueHandle keeps its plain layout");

/* The main queue's fixed 32-byte message. */
typedef struct MainQueueMsg {
    uint64_t msgType;
    uint64_t data;      /* payload allocated by the sender, freed by the dispatcher */
    uint64_t dataLen;
    uint64_t reserved;
} MainQueueMsg;
static_assert(sizeof(MainQueueMsg) == 32, "MainQueueMsg is 32 bytes");

extern std::atomic<int32_t> g_pppoePlusGlbEpollFd;
extern std::atomic<QueueHandle *> g_pppoePlusRegQueHandle;
#else
typedef struct QueueHandle QueueHandle;
#endif

uint32_t PPPOE_PLUS_QueueCreate(const char *name, uint32_t depth, QueueHandle **out, uint32_t mode, uint32_t msgLen);
uint32_t PPPOE_PLUS_QueueDelete(QueueHandle **handle);
uint32_t PPPOE_PLUS_QueueWrite(QueueHandle *handle, const void *msg, uint32_t len);
uint32_t PPPOE_PLUS_QueueRead(QueueHandle *handle, void *buf, uint32_t len);
uint32_t PPPOE_PLUS_QueueGetFd(const QueueHandle *handle, int32_t *fd);
uint32_t PPPOE_PLUS_QueueEpollReg(QueueHandle *handle, int32_t epollFd, MESH_EPOLL_CALLBACK_FN callback);
QueueHandle *PPPOE_PLUS_CreateEpollQueue(int32_t epollFd, const char *name, uint32_t depth,
                                         MESH_EPOLL_CALLBACK_FN callback);

uint32_t PPPOE_PLUS_EpollAdd(int32_t epollFd, int32_t fd, uint32_t events, MESH_EPOLL_CALLBACK_FN callback, void *arg);
uint32_t PPPOE_PLUS_EpollDel(int32_t epollFd, int32_t fd);

uint32_t PPPOE_PLUS_CreateMainTask(void);
uint32_t PPPOE_PLUS_InitTaskLoop(int32_t epollFd);
uint32_t PPPOE_PLUS_MainQueueProc(uint32_t fd, uint32_t events, void *handle);
uint32_t PPPOE_PLUS_MainTaskEntry(uintptr_t arg0, uintptr_t arg1, uintptr_t arg2, uintptr_t arg3);

#ifdef __cplusplus
}
#endif
#endif
