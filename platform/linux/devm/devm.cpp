// Device manager: identity of this board and of the chassis.
//
// On the real switch the device database answers once the board has come
// up, the main board's id first. Ours answers from the world model: the main
// board id once the main board is readable, the self board id, chassis id
// and board type once the self board is readable (set_devm_ready sets both),
// DEVM_ERR_NOT_READY before. Every read passes failure injection, so a test
// can make any of them fail and count how often the module asks.
#include "devm.h"
#include "core/internal.hpp"
#include "world/world_internal.hpp"

namespace {

using plat::world::DeviceView;

// The common shape of every read: injection, argument, readiness, answer.
template <typename Pick>
uint32_t Read(const char *op, uint32_t *out, bool needsMainBoard, Pick pick)
{
    uint32_t code = 0;
    if (plat::internal::Injected(op, &code)) {
        return code;
    }
    if (out == nullptr) {
        return DEVM_ERR_PARAM;
    }
    const DeviceView view = plat::world::device_view();
    if (!(needsMainBoard ? view.mainBoardReadable : view.selfBoardReadable)) {
        return DEVM_ERR_NOT_READY;
    }
    *out = pick(view.identity);
    return DEVM_OK;
}

}  // namespace

extern "C" {

uint32_t DEVM_DB_GetSelfBoardId(uint32_t *boardId)
{
    return Read("DEVM_DB_GetSelfBoardId", boardId, false,
                [](const plat::SystemIdentity &id) { return id.selfBoardId; });
}

uint32_t DEVM_DB_GetMainBoardId(uint32_t *boardId)
{
    return Read("DEVM_DB_GetMainBoardId", boardId, true,
                [](const plat::SystemIdentity &id) { return id.mainBoardId; });
}

uint32_t DEVM_DB_GetSelfChassisId(uint32_t *chassisId)
{
    return Read("DEVM_DB_GetSelfChassisId", chassisId, false,
                [](const plat::SystemIdentity &id) { return id.chassisId; });
}

uint32_t DEVM_GetSelfBoardType(uint32_t *boardType)
{
    return Read("DEVM_GetSelfBoardType", boardType, false,
                [](const plat::SystemIdentity &id) { return id.boardType; });
}

}  // extern "C"
