// Device database watch: the board-type queries.
#include "pppoe_plus_db.h"

#include "devm.h"

extern "C" {

uint32_t PPPOE_PLUS_IsMpu(void)
{
    uint32_t boardType = 0;
    if (DEVM_GetSelfBoardType(&boardType) != DEVM_OK) {
        return 0;
    }
    return (boardType == DEVM_BOARD_TYPE_MPU || boardType == DEVM_BOARD_TYPE_BOX) ? 1U : 0U;
}

uint32_t PPPOE_PLUS_IsBoxSystem(void)
{
    uint32_t boardType = 0;
    if (DEVM_GetSelfBoardType(&boardType) != DEVM_OK) {
        return 0;
    }
    return boardType == DEVM_BOARD_TYPE_BOX ? 1U : 0U;
}

}  // extern "C"
