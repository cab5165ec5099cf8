/* Interface and device lookups: every read of the object database and of
 * the device manager the module makes, one small operation each. Unknown
 * or invalid ifIndex and trunk values are 0xFFFFFFFF. */
#ifndef PPPOE_PLUS_INTF_H
#define PPPOE_PLUS_INTF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PPPOE_PLUS_SYSNAME_LEN 256U
#define PPPOE_PLUS_VLAN_BITMAP_LEN 512U
#define PPPOE_PLUS_ISOLATE_GROUP_MAX 64U
#define PPPOE_PLUS_PORT_SWITCH_L2 5U

/* System name into buf; 0 or the database's code. */
uint32_t PPPOE_PLUS_GetSysName(char *buf, uint32_t size);
/* Placement of an interface (a card id of 255 reads as 0); the result of
 * the port read, 0 on success. */
uint32_t PPPOE_PLUS_GetIfSlotCardPort(uint32_t ifIndex, uint32_t *slot, uint32_t *card, uint32_t *port);
/* Trunk id of the layer-2 trunk the interface is a member of; 0xFFFFFFFF
 * when none or on failure. */
uint32_t PPPOE_PLUS_GetIfL2TrunkId(uint32_t ifIndex);
/* ifIndex of a trunk's own interface; 0xFFFFFFFF on failure. */
uint32_t PPPOE_PLUS_GetTrunkIfIndexByTrunkId(uint32_t trunkId);
/* The interface's own name; 0 or the database's code. */
uint32_t PPPOE_PLUS_GetIfNameRaw(uint32_t ifIndex, char *buf, uint32_t size);
/* 512-byte VLAN bitmap of a port (bit v%8 of byte v/8); 0 or 1. */
uint32_t PPPOE_PLUS_GetPortVlanBitmap(uint32_t ifIndex, uint8_t *buf, uint32_t size);
/* Link-aggregation id; 0 or the database's code. */
uint32_t PPPOE_PLUS_GetIfLagId(uint32_t ifIndex, uint32_t *lagId);
/* Trunk interface of a member port from the trunk-port configuration; 0 or
 * the database's code. */
uint32_t PPPOE_PLUS_GetTrunkIfIndexByMember(uint32_t memberIfIndex, uint32_t *trunkIfIndex);
/* 0 when an access-isolation entry (source, 0, destination) exists. */
uint32_t PPPOE_PLUS_GetAccessIsolate(uint32_t srcIfIndex, uint32_t dstIfIndex);
/* Isolation group ids of a port, at most capacity; 0 also when there are none. */
uint32_t PPPOE_PLUS_GetPortIsolateGroupIds(uint32_t ifIndex, uint32_t *groupIds, uint32_t capacity,
                                           uint32_t *count);
/* ifIndex of the first switched interface; 0 also when none is found
 * (*ifIndex then unchanged). */
uint32_t PPPOE_PLUS_GetFirstSwitchPort(uint32_t *ifIndex);

/* Name of an interface; a trunk member is named by its trunk. */
uint32_t PPPOE_PLUS_GetIfNameByIfIndex(uint32_t ifIndex, char *buf, uint32_t size);
/* ifIndex of the trunk the interface belongs to, 0xFFFFFFFF when none. */
uint32_t PPPOE_PLUS_GetTrunkIfIndex(uint32_t ifIndex);
/* 1 when the interface is a trunk's own interface. */
uint32_t PPPOE_PLUS_IsTrunkIf(uint32_t ifIndex);
/* Trunk id from the first number in a trunk interface name; 0 or 1. */
uint32_t PPPOE_PLUS_GetConfigTrunkIdByIfName(const char *ifName, uint32_t *trunkId);
/* 1 when the port is in the VLAN (a failed read: 0). */
uint32_t PPPOE_PLUS_IsPortInVlan(uint32_t ifIndex, uint16_t vlan);
/* 1 when traffic from source may not reach destination: an access-isolation
 * entry, or an isolation group (ids 1 to 64) both ports share. */
uint32_t PPPOE_PLUS_IsPortIsolate(uint32_t srcIfIndex, uint32_t dstIfIndex);

/* Device manager. */
uint32_t PPPOE_PLUS_GetSelfBoardId(void);
uint32_t PPPOE_PLUS_GetGlobalSlotId(uint32_t chassisId, uint32_t localSlotId, uint32_t *globalSlotId);
/* On failure both outputs are 1 and the result is 1. */
uint32_t PPPOE_PLUS_GetLocalSlotId(uint32_t globalSlotId, uint32_t *chassisId, uint32_t *localSlotId);
/* Chassis id, or the slot on a box system; 0 or 1. */
uint32_t PPPOE_PLUS_GetSelfChassisOrSlotId(uint32_t *id);
/* Logical slot of this board (its slot on a box system). */
uint32_t PPPOE_PLUS_GetSelfLogicSlotId(void);

#ifdef __cplusplus
}
#endif
#endif
