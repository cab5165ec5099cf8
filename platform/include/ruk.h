/* OS abstraction: tasks, delays, fixed-length message queues, memory
 * handles and partitions, compare helpers. */
#ifndef PLATFORM_RUK_H
#define PLATFORM_RUK_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define RUK_OK 0U
#define RUK_ERR_PARAM 0x1001U     /* null or out-of-range argument */
#define RUK_ERR_NO_QUEUE 0x1002U  /* unknown queue id */
#define RUK_ERR_QUEUE_FULL 0x1003U
#define RUK_ERR_MSG_LEN 0x1004U   /* message length differs from the queue's */
#define RUK_ERR_NO_MEMORY 0x1005U
#define RUK_ERR_BAD_FREE 0x1006U  /* pointer unknown or freed twice */
#define RUK_ERR_NO_HANDLE 0x1007U
#define RUK_ERR_TASK 0x1008U

/* Entry of a task: the four task arguments of RUK_TaskCreate. The value
 * returned is kept as the task's exit status. */
typedef uint32_t (*RUK_TASK_ENTRY_FN)(uintptr_t arg0, uintptr_t arg1, uintptr_t arg2, uintptr_t arg3);

/* Starts a named task (a detached thread). priority, stackSize and mode are
 * recorded, not applied. taskId receives a small positive id. */
uint32_t RUK_TaskCreate(const char *name, uint32_t *taskId, RUK_TASK_ENTRY_FN entry, uint32_t priority,
                        uint32_t stackSize, uint32_t mode, uintptr_t arg0, uintptr_t arg1, uintptr_t arg2,
                        uintptr_t arg3);

/* Sleeps the calling task (milliseconds, scaled by the test time scale). */
void RUK_TaskDelay(uint32_t ms);
void RUK_T_Delay(uint32_t ms);
/* Scheduling yield between units of work; the arguments are accepted as given. */
void RUK_TaskRunDelay(uint32_t limit, uint32_t slice);
void RUK_T_RunDelay(uint32_t limit, uint32_t slice);

/* Asynchronous fixed-length message queue. Writes never block (a full queue
 * is an error); reads never block and return the number of bytes delivered,
 * 0 when the queue is empty or the call is wrong. */
uint32_t RUK_QueueCreate(const char *name, uint32_t depth, uint32_t *queueId, uint32_t mode, uint32_t msgLen);
uint32_t RUK_QueueAsyWrite(uint32_t queueId, const void *msg, uint32_t len);
uint32_t RUK_QueueAsyRead(uint32_t queueId, void *buf, uint32_t len);
uint32_t RUK_QueueDelete(uint32_t queueId);

/* Memory: a named handle per module and a named partition. Every block
 * remembers the call site (file, line) that allocated it. */
uint32_t RUK_HandleInitialize(const char *name, uint32_t *handle);
uint32_t RUK_MemPtNoGet(const char *ptName, uint32_t *ptNo);
void *RUK_MemAlloc_F(uint32_t handle, uint32_t ptNo, size_t size, const char *file, uint32_t line);
uint32_t RUK_MemFree_F(uint32_t handle, void *ptr, const char *file, uint32_t line);

/* Compare helpers: 0 when equal, otherwise <0 or >0 as memcmp/strcmp. */
int32_t RUK_StrCmp(const char *a, const char *b);
int32_t RUK_Mem_Cmp(const void *a, const void *b, size_t len);

/* Dotted-quad text of an IPv4 address in host byte order; size must hold
 * it (16 bytes always do). RUK_ERR_PARAM otherwise. */
uint32_t RUK_IpAddrToStr(uint32_t ipAddr, char *str, uint32_t size);

#ifdef __cplusplus
}
#endif
#endif
