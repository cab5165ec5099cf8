// The database client's framework instance table answering from the world
// model (the device manager's readiness answers are the module start-up
// suite's).
#include <gtest/gtest.h>

#include <vector>

#include "db.h"
#include "platform/world.hpp"

namespace {

std::vector<int32_t> Slots(DB_OBJ_S *obj)
{
    std::vector<int32_t> slots;
    DB_ITER_S *iter = nullptr;
    EXPECT_EQ(db_create_root_iter(obj, 0, 0, &iter), DB_OK);
    uint32_t ret = DB_OK;
    while ((ret = db_root_iterator_next(iter)) == DB_OK) {
        int32_t slot = -1;
        EXPECT_EQ(db_get_frm_inst_local_slot(obj, &slot), DB_OK);
        slots.push_back(slot);
    }
    EXPECT_EQ(ret, DB_ITER_END);
    EXPECT_EQ(db_root_iterator_next(iter), DB_ITER_END);  // stays at the end
    return slots;
}

}  // namespace

TEST(DbFrmInst, IteratesInInsertionOrderOverASnapshot)
{
    DB_OBJ_S *obj = nullptr;
    EXPECT_EQ(db_create_frm_inst_obj(4, 0, &obj), DB_ERR_NO_TABLE);
    platform::world::FrmInstPut({1, 5, 2, 4});
    platform::world::FrmInstPut({2, 12, 3, 1});
    platform::world::FrmInstPut({3, 8, 4, 7});
    platform::world::FrmInstPut({9, 9, 9, 1});  // replaces slot 1 in place
    ASSERT_EQ(db_create_frm_inst_obj(DB_TABLE_FRM_INST, 0, &obj), DB_OK);

    uint32_t v = 0;
    int32_t slot = 0;
    EXPECT_EQ(db_get_frm_inst_role(obj, &v), DB_ERR_NO_RECORD);  // no current record yet
    EXPECT_EQ(Slots(obj), (std::vector<int32_t>{4, 1, 7}));
    EXPECT_EQ(db_get_frm_inst_local_slot(obj, &slot), DB_ERR_NO_RECORD);  // past the end

    DB_ITER_S *iter = nullptr;
    ASSERT_EQ(db_create_root_iter(obj, 0, 0, &iter), DB_OK);
    ASSERT_EQ(db_root_iterator_next(iter), DB_OK);
    ASSERT_EQ(db_root_iterator_next(iter), DB_OK);
    // The getters of a record found are the module start-up suite's
    // (FrameworkInstanceLookup).
    EXPECT_EQ(db_get_frm_inst_role(obj, nullptr), DB_ERR_PARAM);

    // The world changes under the iteration: the snapshot holds until a reset.
    platform::world::FrmInstClear();
    EXPECT_EQ(db_root_iterator_next(iter), DB_OK);
    EXPECT_EQ(db_get_frm_inst_local_slot(obj, &slot), DB_OK);
    EXPECT_EQ(slot, 7);
    platform::world::FrmInstPut({0, 0, 0, 3});
    EXPECT_EQ(db_reset_frm_inst_object(obj, 0), DB_OK);
    EXPECT_EQ(db_get_frm_inst_local_slot(obj, &slot), DB_ERR_NO_RECORD);
    EXPECT_EQ(db_root_iterator_next(iter), DB_OK);
    EXPECT_EQ(db_get_frm_inst_local_slot(obj, &slot), DB_OK);
    EXPECT_EQ(slot, 3);

    // Released objects and their iterators are refused, not used.
    EXPECT_EQ(db_release_frm_inst_object(obj), DB_OK);
    EXPECT_EQ(db_release_frm_inst_object(obj), DB_ERR_PARAM);
    EXPECT_EQ(db_root_iterator_next(iter), DB_ERR_PARAM);
    EXPECT_EQ(db_get_frm_inst_role(obj, &v), DB_ERR_PARAM);
}
