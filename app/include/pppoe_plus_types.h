/* Types and constants shared by every file of the module. */
#ifndef PPPOE_PLUS_TYPES_H
#define PPPOE_PLUS_TYPES_H

#include <stdint.h>

#define PPPOE_PLUS_OK 0U
#define PPPOE_PLUS_ERR 1U
#define PPPOE_PLUS_INVALID_IFINDEX 0xFFFFFFFFU

/* The head of every frame exchanged with the forwarding plane, in host
 * byte order. */
typedef struct DpxPktHead {
    uint32_t msgType;
    uint32_t egrIfindex;
    uint32_t igrIfindex;
} DpxPktHead;

#ifdef __cplusplus
static_assert(sizeof(DpxPktHead) == 12, "DpxPktHead is 12 bytes on the channel");
#endif

#endif
