// Device manager: identity of this board and of the chassis.
//
// On the real switch the device database answers once the board has come
// up, the main board's id first. Ours answers from the world model: the main
// board id once the main board is readable, the self board id, chassis id
// and board type once the self board is readable (SetDevmReady sets both),
// DEVM_ERR_NOT_READY before. Every read passes failure injection, so a test
// can make any of them fail and count how often the module asks.
#include "devm.h"

#include <cstring>

#include "core/internal.hpp"
#include "platform/fail_point.hpp"
#include "world/world_internal.hpp"

namespace {

using platform::world::DeviceView;

// The common shape of every read: injection, argument, readiness, answer.
template <typename Pick>
uint32_t Read(const char *op, uint32_t *out, bool needsMainBoard, Pick pick)
{
    if (const auto failed = platform::FailPoint(op)) {
        return *failed;
    }
    if (out == nullptr) {
        return DEVM_ERR_PARAM;
    }
    const DeviceView view = platform::world::GetDeviceView();
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
                [](const platform::SystemIdentity &id) { return id.selfBoardId; });
}

uint32_t DEVM_DB_GetMainBoardId(uint32_t *boardId)
{
    return Read("DEVM_DB_GetMainBoardId", boardId, true,
                [](const platform::SystemIdentity &id) { return id.mainBoardId; });
}

uint32_t DEVM_DB_GetSelfChassisId(uint32_t *chassisId)
{
    return Read("DEVM_DB_GetSelfChassisId", chassisId, false,
                [](const platform::SystemIdentity &id) { return id.chassisId; });
}

uint32_t DEVM_GetSelfBoardType(uint32_t *boardType)
{
    return Read("DEVM_GetSelfBoardType", boardType, false,
                [](const platform::SystemIdentity &id) { return id.boardType; });
}

uint32_t DEVM_GetSelfBoardIp(uint32_t *ipAddr)
{
    return Read("DEVM_GetSelfBoardIp", ipAddr, false, [](const platform::SystemIdentity &id) { return id.boardIp; });
}

uint32_t DEVM_DB_GetGlobalSlotIdByLocalSlotId(uint32_t chassisId, uint32_t localSlotId, uint32_t *globalSlotId)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (globalSlotId == nullptr || chassisId == 0 || localSlotId >= DEVM_SLOTS_PER_CHASSIS ||
        chassisId > 0xFFFFFFFFU / DEVM_SLOTS_PER_CHASSIS) {
        return DEVM_ERR_PARAM;
    }
    if (!platform::world::GetDeviceView().selfBoardReadable) {
        return DEVM_ERR_NOT_READY;
    }
    *globalSlotId = (chassisId - 1U) * DEVM_SLOTS_PER_CHASSIS + localSlotId;
    return DEVM_OK;
}

uint32_t DEVM_DB_GetLocalSlotIdByGlobalSlotId(uint32_t globalSlotId, uint32_t *chassisId, uint32_t *localSlotId)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (chassisId == nullptr || localSlotId == nullptr) {
        return DEVM_ERR_PARAM;
    }
    if (!platform::world::GetDeviceView().selfBoardReadable) {
        return DEVM_ERR_NOT_READY;
    }
    *chassisId = globalSlotId / DEVM_SLOTS_PER_CHASSIS + 1U;
    *localSlotId = globalSlotId % DEVM_SLOTS_PER_CHASSIS;
    return DEVM_OK;
}

uint32_t DEVM_GetSelfSlotId(uint32_t *slotId)
{
    return Read("DEVM_GetSelfSlotId", slotId, false, [](const platform::SystemIdentity &id) { return id.selfBoardId; });
}

uint32_t drv_board_get_self_logic_slotid(void)
{
    uint32_t slot = 0;
    return Read("drv_board_get_self_logic_slotid", &slot, false,
                [](const platform::SystemIdentity &id) { return id.selfBoardId; }) == DEVM_OK
               ? slot
               : 0xFFFFFFFFU;
}

uint32_t DEVM_DB_GetSysMac(uint8_t *mac)
{
    if (const auto failed = platform::FailPoint(__func__)) {
        return *failed;
    }
    if (mac == nullptr) {
        return DEVM_ERR_PARAM;
    }
    const DeviceView view = platform::world::GetDeviceView();
    if (!view.selfBoardReadable) {
        return DEVM_ERR_NOT_READY;
    }
    std::memcpy(mac, view.identity.sysMac.data(), view.identity.sysMac.size());
    return DEVM_OK;
}

}  // extern "C"
