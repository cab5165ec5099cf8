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
#define DB_ERR_NO_SERVER 0x3006U       /* no database server behind the locator */
#define DB_ERR_EPOLL 0x3007U           /* the caller's epoll control refused the descriptor */
#define DB_ERR_NO_CONN 0x3008U         /* descriptor or connection unknown */

#define DB_TABLE_IF 1U                 /* interfaces, key ifIndex */
#define DB_TABLE_TRUNK 2U              /* trunks, key trunk id */
#define DB_TABLE_TRUNK_PORT 3U         /* trunk-port configuration, key member ifIndex */
#define DB_TABLE_PORT_VLAN_MAP 4U      /* port-VLAN maps, key ifIndex */
#define DB_TABLE_ACCESS_ISOLATE 5U     /* access isolation, key (source, vlan, destination) */
#define DB_TABLE_PORT_ISOLATE 6U       /* port-isolation groups, key ifIndex, one record per group */
#define DB_TABLE_SYS_INFO 7U           /* system information, one record */
#define DB_TABLE_DEVM 8U               /* board registry ("devm"), key (chassis, slot) */
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

/* ---- Subscriptions ----
 * A subscription connection to the database server delivers changes of
 * subscribed objects. Its descriptor is handed to the caller's epoll
 * control (op DB_EPOLL_CTRL_ADD at connect, DB_EPOLL_CTRL_DEL at
 * disconnect); when it is readable the caller runs db_handle_event on its
 * own thread, which calls the subscriptions' callbacks for every pending
 * change, in the order the changes were made.
 *
 * A subscription is described on an object created for it (db_create_
 * devm_obj, db_create_if_obj): event mask, fields, push operation and
 * callback; db_sub_with_conn copies the description onto the connection,
 * after which the object may be released. With push operation
 * DB_SUB_PUSH_OBJECT every write of a subscribed record is pushed with the
 * whole record as it was and as it is; the callback compares the fields it
 * follows. The change's objects belong to the library and are valid during
 * the callback only; their fields are read with the getters of their
 * table (a field without a value gives DB_NO_VALUE). */
#define DB_SUB_SERVER_LOCATOR "shm:unix_emserver"
#define DB_CHANGE_CREATE 1U
#define DB_CHANGE_UPDATE 2U
#define DB_CHANGE_DELETE 4U
#define DB_SUB_PUSH_OBJECT 0x5000U
#define DB_EPOLL_CTRL_ADD 0U
#define DB_EPOLL_CTRL_DEL 1U

typedef struct DB_SUB_CONN DB_SUB_CONN_S;
typedef struct DB_SUB DB_SUB_S;

typedef struct DB_CONN_PARAM {
    const char *serverLocator;
    const char *userName;
    uint32_t timeoutMs;      /* 0: the library's default */
    uint32_t flags;
    void *reserved;
} DB_CONN_PARAM_S;

/* Adds (op 0) or removes (op 1) the connection's descriptor from the
 * caller's event loop; non-zero refuses. */
typedef uint32_t (*DB_EPOLL_CTRL_FN)(uint32_t fd, uint32_t op);

/* One change: the record after it (null for a delete), before it (null for
 * a create) and its type (DB_CHANGE_*). */
typedef struct DB_SUB_CHANGE {
    DB_OBJ_S *newObj;
    DB_OBJ_S *oldObj;
    uint32_t changeType;
} DB_SUB_CHANGE_S;

/* Called by db_handle_event with the user argument (null) and the user
 * callback given to db_sub_reg_callback. */
typedef void (*DB_SUB_CALLBACK_FN)(DB_SUB_CONN_S *conn, const DB_SUB_CHANGE_S *change, void *userArg,
                                   void *userCallback);

uint32_t db_create_sub_connect(const DB_CONN_PARAM_S *params, DB_EPOLL_CTRL_FN epollCtrl, DB_SUB_CONN_S **conn);
/* Runs the callbacks of every change pending on the connection of fd. */
uint32_t db_handle_event(uint32_t fd);
/* Removes the descriptor from the caller's loop, drops the connection's
 * subscriptions and closes it. */
uint32_t db_disconnect(DB_SUB_CONN_S *conn);
/* Pool of synchronous connections: the locator and user name of the
 * calling thread's next connection, and closing the pool of a server. */
uint32_t db_set_current_server_locator(const char *locator);
uint32_t db_set_current_user_name(const char *userName);
uint32_t db_close_connection_pool(const char *locator, const char *userName, uint32_t flags);

/* Objects describing a subscription; mode and flags are accepted as given. */
uint32_t db_create_devm_obj(uint32_t mode, uint32_t flags, DB_OBJ_S **obj);
uint32_t db_release_devm_object(DB_OBJ_S *obj);
uint32_t db_create_if_obj(uint32_t mode, uint32_t flags, DB_OBJ_S **obj);
/* Event mask: the DB_CHANGE_* bits to be told about. */
uint32_t db_sub_add_event(DB_OBJ_S *obj, uint32_t eventMask);
/* A field of the object's table ("devm"/"Register_status", "if"/"on_board", ...). */
uint32_t db_sub_add_field(DB_OBJ_S *obj, const char *table, const char *field, uint32_t a, uint32_t b, uint32_t c);
uint32_t db_sub_add_push_op(DB_OBJ_S *obj, uint32_t pushOp);
uint32_t db_sub_reg_callback(DB_OBJ_S *obj, DB_SUB_CALLBACK_FN callback, void *userCallback);
uint32_t db_sub_with_conn(DB_SUB_CONN_S *conn, DB_OBJ_S *obj, DB_SUB_S **sub);

/* Board registry records. */
uint32_t db_get_devm_Chassis_ID(DB_OBJ_S *obj, uint32_t *chassisId);
uint32_t db_get_devm_Slot_ID(DB_OBJ_S *obj, uint32_t *slotId);
uint32_t db_get_devm_Register_status(DB_OBJ_S *obj, uint32_t *status);

#ifdef __cplusplus
}
#endif
#endif
