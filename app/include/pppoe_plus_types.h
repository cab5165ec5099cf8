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

/* Facts of the subscriber-side port of one packet, zero-filled before use. */
typedef struct UserInfo {
    uint32_t IfIndex;          /* subscriber-side port */
    uint32_t ulNas_Slot;       /* 0 for a trunk */
    uint32_t ulNas_SubSlot;    /* card; 0 for a trunk, and for a card read as 255 */
    uint32_t ulNas_Port;       /* port within the card; the trunk id for a trunk */
    uint32_t ulXpi;            /* outer VLAN (svlan) */
    uint32_t ulXci;            /* inner VLAN (cvlan), 0 with one tag */
    char ifType[16];           /* "eth" or "trunk" */
    char portName[64];
    char portDescr[256];
    uint8_t portDescrValid;
} UserInfo;

#ifdef __cplusplus
static_assert(sizeof(DpxPktHead) == 12, "DpxPktHead is 12 bytes on the channel");
#endif

#endif
