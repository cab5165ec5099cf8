/* Mesh epoll wrappers: epoll sets whose registrations carry a callback. */
#ifndef PLATFORM_MESH_H
#define PLATFORM_MESH_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MESH_EPOLL_CTL_ADD 0
#define MESH_EPOLL_CTL_MOD 1
#define MESH_EPOLL_CTL_DEL 2

typedef uint32_t (*MESH_EPOLL_CALLBACK_FN)(uint32_t fd, uint32_t events, void *arg);

/* Registration record; MESH_EpollWait hands back a copy per ready
 * descriptor with events replaced by the returned mask. */
typedef struct MESH_EPOLL_EVENT {
    uint32_t events;                 /* EPOLLIN = 1, EPOLLHUP = 16, ... */
    MESH_EPOLL_CALLBACK_FN callback;
    void *arg;
    uint32_t fd;
    uint8_t reserved[12];            /* zero */
} MESH_EPOLL_EVENT_S;

int32_t MESH_EpollCreate(void);
/* op: add, modify or delete fd; the record is copied. Negative on failure. */
int32_t MESH_EpollCtl(int32_t epfd, int32_t op, uint32_t fd, const MESH_EPOLL_EVENT_S *reg);
/* Waits up to timeoutMs (-1: no time-out); returns the count of ready
 * records written to events, 0 on time-out, negative on failure. */
int32_t MESH_EpollWait(int32_t epfd, MESH_EPOLL_EVENT_S *events, int32_t maxEvents, int32_t timeoutMs);
/* errno of the last failing call of this thread. */
int32_t MESH_GetErrorNo(void);

#ifdef __cplusplus
}
#endif
#endif
