// The device manager and the database client answering from the world model.
#include <gtest/gtest.h>

#include <vector>

#include "db.h"
#include "devm.h"
#include "platform/world.hpp"

namespace {

struct Answers {
    uint32_t main, self, chassis, type;
};

Answers Ask(uint32_t *mainId = nullptr)
{
    uint32_t v = 0;
    Answers a{};
    a.main = DEVM_DB_GetMainBoardId(mainId != nullptr ? mainId : &v);
    a.self = DEVM_DB_GetSelfBoardId(&v);
    a.chassis = DEVM_DB_GetSelfChassisId(&v);
    a.type = DEVM_GetSelfBoardType(&v);
    return a;
}

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

TEST(Devm, AnswersFollowTheMainAndSelfBoardFlags)
{
    platform::SystemIdentity id;
    id.chassisId = 2;
    id.selfBoardId = 5;
    id.mainBoardId = 3;
    id.boardType = DEVM_BOARD_TYPE_LPU;
    platform::world::SetIdentity(id);

    auto all = [](uint32_t ret) { return Answers{ret, ret, ret, ret}; };
    auto same = [](const Answers &a, const Answers &b) {
        return a.main == b.main && a.self == b.self && a.chassis == b.chassis && a.type == b.type;
    };
    EXPECT_TRUE(same(Ask(), all(DEVM_ERR_NOT_READY)));
    platform::world::SetMainBoardReadable(true);
    uint32_t mainId = 0;
    EXPECT_TRUE(same(Ask(&mainId), {DEVM_OK, DEVM_ERR_NOT_READY, DEVM_ERR_NOT_READY, DEVM_ERR_NOT_READY}));
    EXPECT_EQ(mainId, 3U);
    platform::world::SetMainBoardReadable(false);
    platform::world::SetSelfBoardReadable(true);
    EXPECT_TRUE(same(Ask(), {DEVM_ERR_NOT_READY, DEVM_OK, DEVM_OK, DEVM_OK}));
    platform::world::SetDevmReady(true);
    EXPECT_TRUE(same(Ask(), all(DEVM_OK)));

    uint32_t self = 0, chassis = 0, type = 0;
    EXPECT_EQ(DEVM_DB_GetSelfBoardId(&self), DEVM_OK);
    EXPECT_EQ(DEVM_DB_GetSelfChassisId(&chassis), DEVM_OK);
    EXPECT_EQ(DEVM_GetSelfBoardType(&type), DEVM_OK);
    EXPECT_EQ(self, 5U);
    EXPECT_EQ(chassis, 2U);
    EXPECT_EQ(type, DEVM_BOARD_TYPE_LPU);
    EXPECT_EQ(DEVM_DB_GetSelfBoardId(nullptr), DEVM_ERR_PARAM);

    platform::world::Reset();
    EXPECT_TRUE(same(Ask(), all(DEVM_ERR_NOT_READY)));
    EXPECT_EQ(platform::world::Identity().selfBoardId, 1U);
}

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
    EXPECT_EQ(db_get_table_record_count(obj, &v), DB_OK);
    EXPECT_EQ(v, 3U);
    EXPECT_EQ(Slots(obj), (std::vector<int32_t>{4, 1, 7}));
    EXPECT_EQ(db_get_frm_inst_local_slot(obj, &slot), DB_ERR_NO_RECORD);  // past the end

    DB_ITER_S *iter = nullptr;
    ASSERT_EQ(db_create_root_iter(obj, 0, 0, &iter), DB_OK);
    ASSERT_EQ(db_root_iterator_next(iter), DB_OK);
    ASSERT_EQ(db_root_iterator_next(iter), DB_OK);
    uint32_t role = 0, modState = 0, state = 0;
    EXPECT_EQ(db_get_frm_inst_role(obj, &role), DB_OK);
    EXPECT_EQ(db_get_frm_inst_mod_state(obj, &modState), DB_OK);
    EXPECT_EQ(db_get_frm_inst_state(obj, &state), DB_OK);
    EXPECT_EQ(db_get_frm_inst_local_slot(obj, &slot), DB_OK);
    EXPECT_EQ(role, 9U);
    EXPECT_EQ(modState, 9U);
    EXPECT_EQ(state, 9U);
    EXPECT_EQ(slot, 1);
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
