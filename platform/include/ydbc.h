/* Client library of the YANG configuration datastore (libydbc.so).
 *
 * A client subscribes paths of the YANG model, activates its subscriptions
 * and then drives itself from its own event loop: the descriptor returned
 * by ydbc_connect becomes readable when requests are pending, and ydbc_run
 * dispatches them to the subscribed callbacks on the calling thread.
 * Losing the datastore shows on that descriptor as a hang-up without
 * EPOLLIN/EPOLLPRI; the client keeps its subscriptions, so a reconnect
 * (ydbc_connect again) followed by ydbc_activate restores the service. */
#ifndef PLATFORM_YDBC_H
#define PLATFORM_YDBC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Where the datastore listens. The environment variable YDBC_SOCKET, when
 * set, replaces the path of every "unix://" URL (tests and hosts that run
 * the datastore elsewhere). */
#define YDBC_DEFAULT_URL "unix:///var/orvale/yangdb.sock"
#define YDBC_SOCKET_ENV "YDBC_SOCKET"

/* Operation type of a configuration change; bit 1 marks a delete. A change
 * replayed after activation arrives as a create. */
#define YDBC_OP_CREATE 0x1U
#define YDBC_OP_DELETE 0x2U
#define YDBC_OP_MODIFY 0x4U

/* Subscription kinds. */
#define YDBC_SUB_CONFIG 0U
#define YDBC_SUB_GET 1U
#define YDBC_SUB_RPC 2U

/* Events a configuration subscription asks for (its second value). */
#define YDBC_EV_CREATE 0x001U
#define YDBC_EV_DELETE 0x002U
#define YDBC_EV_MODIFY 0x004U
#define YDBC_EV_REPLAY 0x080U  /* the stored configuration after activation */
#define YDBC_EV_VERIFY 0x100U  /* a non-zero callback result rejects the change */
#define YDBC_EV_DEFAULT 0x187U /* all of the above */
#define YDBC_PRIORITY_DEFAULT 100U /* lower priorities are told first */

/* Byte object kinds. */
#define YDBC_BYTES_XML 1U

/* A text handed between the library and its client. Created and freed only
 * by ydbc_new_bytes/ydbc_free_bytes. */
typedef struct ydbc_bytes {
    uint32_t kind;
    uint32_t length;   /* text length, terminator not counted */
    uint64_t capacity; /* the library's */
    char *text;        /* NUL-terminated; the third pointer-sized word */
} ydbc_bytes;

typedef struct ydbc_client ydbc_client;

/* A configuration change of one instance of a subscribed path. ctx is the
 * request (for ydbc_pull), path the instance path with list keys in the
 * form [key='value'] (for example
 * "/quendal-ifm:ifm/interfaces/interface[name='GigabitEthernet0/0/1']/quendal-pppoe-plus:pppoe-plus-port/trusted-port").
 * Returns 0 to accept, non-zero to reject the change. */
typedef uint32_t (*ydbc_config_cb)(void *ctx, uint32_t opType, uint32_t reserved1, uint32_t reserved2,
                                   const char *path);
/* A get of a subscribed state path (path as requested, with its keys).
 * Returns 0 with *out set to an XML reply rooted at the module's top
 * container; the library frees *out. */
typedef uint32_t (*ydbc_get_cb)(void *ctx, const char *path, uint32_t reserved, ydbc_bytes **out);
/* An operation call; input->text is the XML of the input rooted at the
 * operation's element. Returns 0 when done; *out may carry output XML. */
typedef uint32_t (*ydbc_rpc_cb)(void *ctx, ydbc_bytes *input, uint32_t reserved, ydbc_bytes **out);
/* End of the replay after activation: result 1 success, 0 failure. */
typedef uint32_t (*ydbc_recover_end_cb)(void *ctx, uint32_t result);

/* One subscription, 48 bytes. */
typedef struct ydbc_subscription {
    const char *path;  /* schema path, prefixed by module names */
    uint32_t kind;     /* YDBC_SUB_* */
    uint32_t zero;
    union {
        struct {
            uint32_t priority; /* configuration rows */
            uint32_t events;   /* YDBC_EV_* mask */
        } config;
        void *callback;        /* get and rpc rows: ydbc_get_cb or ydbc_rpc_cb */
    } u;
    void *configCallback;      /* configuration rows: ydbc_config_cb */
    uint8_t reserved[16];
} ydbc_subscription;

/* Once per process before any other call; 0 on success. */
uint32_t ydbc_initialize(void);
/* A client named name; mode 1: requests are dispatched only by ydbc_run on
 * the caller's thread. reserved must be null. Null on failure. */
ydbc_client *ydbc_client_new(const char *name, uint32_t mode, void *reserved);
/* Connects (or reconnects) to the datastore at url. Returns the descriptor
 * to watch (EPOLLIN when requests are pending, hang-up without EPOLLIN
 * when the connection is lost) or -1 when the datastore is not there. */
int32_t ydbc_connect(ydbc_client *client, const char *url);
/* Adds a subscription; the datastore checks the path against its model.
 * 0 on success. */
uint32_t ydbc_subscribe(ydbc_client *client, const ydbc_subscription *row);
/* Activates the subscriptions. flag 1: replay the stored configuration to
 * the configuration callbacks, then call recoverEnd(ctx, result). 0 on
 * success. */
uint32_t ydbc_activate(ydbc_client *client, uint32_t flag, ydbc_recover_end_cb recoverEnd, void *ctx);
/* Inside a configuration callback: the XML of the data at path (the
 * callback's path or below it), rooted at that node, as it stands after the
 * change (old 0) or as it stood before it (old 1). depth is the number of
 * element levels returned, the node at path being level 1 (a leaf's value
 * belongs to its level); 0xFFFFFFFF returns the whole subtree and 0 is
 * refused. 0 with *out set (free it with ydbc_free_bytes). */
uint32_t ydbc_pull(void *ctx, uint32_t old, const char *path, uint32_t depth, ydbc_bytes **out);
ydbc_bytes *ydbc_new_bytes(const char *text, uint32_t length, uint32_t kind);
void ydbc_free_bytes(ydbc_bytes *bytes);
/* Dispatches up to budget pending requests; 0, or non-zero once the
 * connection is lost. */
uint32_t ydbc_run(ydbc_client *client, uint32_t budget);

/* Not used by the agent: closes the connection and frees the client. */
void ydbc_client_free(ydbc_client *client);

#ifdef __cplusplus
}
static_assert(sizeof(ydbc_subscription) == 48, "subscription row layout");
static_assert(offsetof(ydbc_subscription, u) == 16, "subscription row layout");
static_assert(offsetof(ydbc_subscription, configCallback) == 24, "subscription row layout");
static_assert(offsetof(ydbc_bytes, text) == 2 * sizeof(void *), "byte object text pointer");
#endif
#endif
