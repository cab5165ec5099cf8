/* Object database client: typed objects over the tables of the world
 * model. An object is a cursor over one table; reads take the field of the
 * current record. */
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

#define DB_TABLE_FRM_INST 9U           /* framework instances */

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
