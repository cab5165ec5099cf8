/* Object database client: typed objects over the tables of the world
 * model. An object is a cursor over one table; reads take the field of the
 * current record.
 *
 * Keyed tables are read in four steps: create an object of the kind, set
 * its key, read (the matching record becomes current, DB_ERR_NO_RECORD when
 * there is none), get fields; release the object on every path. An
 * interface's device placement and layer-2 data live in its child nodes
 * "dev" and "l2": db_create_child_node on an object with a current record
 * gives a node object that belongs to its parent and goes with the parent's
 * release. Iterating (db_create_root_iter) visits the records matching the
 * key set so far, every record when none is set. */
#ifndef PLATFORM_DB_H
#define PLATFORM_DB_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DB_OK 0U
#define DB_ERR_PARAM 0x3001U
#define DB_ERR_NO_RECORD 0x3002U       /* no current record */
#define DB_ERR_NO_TABLE 0x3003U
#define DB_ITER_END 110012U            /* iteration ran past the last record */
#define DB_NO_VALUE 64006U             /* the field has no value */
#define DB_ERR_BUF_SMALL 0x3004U       /* the caller's buffer cannot hold the value */
#define DB_ERR_NO_KEY 0x3005U          /* read before a key was set */

#define DB_TABLE_IF 1U                 /* interfaces, key ifIndex */
#define DB_TABLE_TRUNK 2U              /* trunks, key trunk id */
#define DB_TABLE_TRUNK_PORT 3U         /* trunk-port configuration, key member ifIndex */
#define DB_TABLE_PORT_VLAN_MAP 4U      /* port-VLAN maps, key ifIndex */
#define DB_TABLE_ACCESS_ISOLATE 5U     /* access isolation, key (source, vlan, destination) */
#define DB_TABLE_PORT_ISOLATE 6U       /* port-isolation groups, key ifIndex, one record per group */
#define DB_TABLE_SYS_INFO 7U           /* system information, one record */
#define DB_TABLE_FRM_INST 9U           /* framework instances */
#define DB_TABLE_IF_DEV 101U           /* child node "dev" of an interface */
#define DB_TABLE_IF_L2 102U            /* child node "l2" of an interface */

#define DB_INVALID_ID 0xFFFFFFFFU      /* no trunk / lag / interface */
#define DB_IF_PORT_SWITCH_L2 5U        /* port-switch attribute of a switched port */
#define DB_PORT_VLAN_BITMAP_LEN 512U   /* bit v%8 of byte v/8 is VLAN v */

typedef struct DB_OBJ DB_OBJ_S;
typedef struct DB_ITER DB_ITER_S;

/* Framework-instance table. */
uint32_t db_create_frm_inst_obj(uint32_t table, uint32_t flags, DB_OBJ_S **obj);
uint32_t db_reset_frm_inst_object(DB_OBJ_S *obj, uint32_t mode);
uint32_t db_release_frm_inst_object(DB_OBJ_S *obj);
uint32_t db_get_frm_inst_local_slot(DB_OBJ_S *obj, int32_t *localSlot);
uint32_t db_get_frm_inst_role(DB_OBJ_S *obj, uint32_t *role);
uint32_t db_get_frm_inst_mod_state(DB_OBJ_S *obj, uint32_t *modState);
uint32_t db_get_frm_inst_state(DB_OBJ_S *obj, uint32_t *state);

/* Interfaces. A key must be set before a read; iteration without a key
 * visits every interface. The name is copied with its terminator
 * (DB_ERR_BUF_SMALL when it does not fit). The lag id is the trunk id of a
 * trunk's own interface, DB_INVALID_ID for any other. */
uint32_t db_create_if_object(DB_OBJ_S **obj);
uint32_t db_set_if_ifindex(DB_OBJ_S *obj, uint32_t ifIndex);
uint32_t db_read_if_object(DB_OBJ_S *obj);
uint32_t db_release_if_object(DB_OBJ_S *obj);
uint32_t db_get_if_ifindex(DB_OBJ_S *obj, uint32_t *ifIndex);
uint32_t db_get_if_name(DB_OBJ_S *obj, char *name, uint32_t size);
uint32_t db_get_if_lag_id(DB_OBJ_S *obj, uint32_t *lagId);
uint32_t db_get_if_port_switch(DB_OBJ_S *obj, uint32_t *portSwitch);
uint32_t db_get_if_on_board(DB_OBJ_S *obj, uint32_t *onBoard);
/* Child node "dev" or "l2" of the current interface record. */
uint32_t db_create_child_node(DB_OBJ_S *obj, const char *node, DB_OBJ_S **child);
uint32_t db_get_if_dev_slot_id(DB_OBJ_S *dev, uint32_t *slotId);
uint32_t db_get_if_dev_card_id(DB_OBJ_S *dev, uint32_t *cardId);
uint32_t db_get_if_dev_port_num(DB_OBJ_S *dev, uint16_t *portNum);
/* DB_INVALID_ID when the port is no trunk member. */
uint32_t db_get_if_l2_trunk_id(DB_OBJ_S *l2, uint32_t *trunkId);

/* Trunks: trunk id -> the trunk's interface. */
uint32_t db_create_trunk_obj(DB_OBJ_S **obj);
uint32_t db_set_trunk_trunk_id(DB_OBJ_S *obj, uint32_t trunkId);
uint32_t db_read_trunk_obj(DB_OBJ_S *obj);
uint32_t db_release_trunk_obj(DB_OBJ_S *obj);
uint32_t db_get_trunk_trunk_if_index(DB_OBJ_S *obj, uint32_t *trunkIfIndex);

/* Trunk-port configuration: member port -> the trunk's interface. */
uint32_t db_create_trunk_port_obj(DB_OBJ_S **obj);
uint32_t db_set_trunk_port_if_index(DB_OBJ_S *obj, uint32_t memberIfIndex);
uint32_t db_read_trunk_port_obj(DB_OBJ_S *obj);
uint32_t db_release_trunk_port_obj(DB_OBJ_S *obj);
uint32_t db_get_trunk_port_trunk_if_index(DB_OBJ_S *obj, uint32_t *trunkIfIndex);

/* Port-VLAN maps: the bitmap is DB_PORT_VLAN_BITMAP_LEN bytes; a smaller
 * buffer gets DB_ERR_BUF_SMALL. */
uint32_t db_create_port_vlan_map_obj(DB_OBJ_S **obj);
uint32_t db_set_port_vlan_map_if_index(DB_OBJ_S *obj, uint32_t ifIndex);
uint32_t db_read_port_vlan_map_obj(DB_OBJ_S *obj);
uint32_t db_release_port_vlan_map_obj(DB_OBJ_S *obj);
uint32_t db_get_port_vlan_map_bitmap(DB_OBJ_S *obj, uint8_t *bitmap, uint32_t size);

/* Access isolation: the read succeeds when an entry for the key exists. */
uint32_t db_create_access_isolate_obj(DB_OBJ_S **obj);
uint32_t db_set_access_isolate_key(DB_OBJ_S *obj, uint32_t srcIfIndex, uint32_t vlanId, uint32_t dstIfIndex);
uint32_t db_read_access_isolate_obj(DB_OBJ_S *obj);
uint32_t db_release_access_isolate_obj(DB_OBJ_S *obj);

/* Port-isolation groups: set the port, then iterate its records. */
uint32_t db_create_port_isolate_obj(DB_OBJ_S **obj);
uint32_t db_set_port_isolate_if_index(DB_OBJ_S *obj, uint32_t ifIndex);
uint32_t db_release_port_isolate_obj(DB_OBJ_S *obj);
uint32_t db_get_port_isolate_group_id(DB_OBJ_S *obj, uint32_t *groupId);

/* System information (one record, no key). *length gets the name's length
 * without terminator, also when the buffer is too small. */
uint32_t db_create_sys_info_obj(DB_OBJ_S **obj);
uint32_t db_read_sys_info_obj(DB_OBJ_S *obj);
uint32_t db_release_sys_info_obj(DB_OBJ_S *obj);
uint32_t db_get_sys_info_sys_name(DB_OBJ_S *obj, char *name, uint32_t size, uint32_t *length);

/* Any object: record count of its table, iteration from the first record.
 * The iterator belongs to the object and goes with its release; stepping it
 * makes the next record the object's current one. */
uint32_t db_get_table_record_count(DB_OBJ_S *obj, uint32_t *count);
uint32_t db_create_root_iter(DB_OBJ_S *obj, uint32_t keyMask, uint32_t filter, DB_ITER_S **iter);
uint32_t db_root_iterator_next(DB_ITER_S *iter);

#ifdef __cplusplus
}
#endif
#endif
