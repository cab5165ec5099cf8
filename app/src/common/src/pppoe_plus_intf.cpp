// Interface and device lookups.
//
// Each read of the object database follows one pattern: create an object of
// the wanted kind, set its key, read, optionally descend to the child node
// "dev" or "l2", get one field, and release the object on every path (the
// child nodes go with their parent). The database's iteration end code is
// a normal end, never an error. Failures are reported at error level with
// the database's code, except the reads the packet path asks about
// constantly (VLAN map, trunk port, access isolation), which stay silent.
#include "pppoe_plus_intf.h"

#include <cstring>

#include "db.h"
#include "devm.h"
#include "plat_safe.h"
#include "pppoe_plus_db.h"
#include "pppoe_plus_guard.hpp"
#include "pppoe_plus_log.h"
#include "pppoe_plus_types.h"
#include "zavk.h"

namespace {

constexpr const char *kIntfFile = "app/src/common/src/pppoe_plus_intf";
constexpr uint32_t kCardUnset = 255;   // the database's "no card"
constexpr uint32_t kIfNameLen = 256;

int Code(uint32_t ret)
{
    return static_cast<int>(ret);
}

// Releases an object with its kind's release call when the scope ends.
template <uint32_t (*ReleaseFn)(DB_OBJ_S *)>
auto ReleaseOnExit(DB_OBJ_S *obj)
{
    return PppoePlusScopeExit([obj]() { (void)ReleaseFn(obj); });
}

}  // namespace

extern "C" {

uint32_t PPPOE_PLUS_GetSysName(char *buf, uint32_t size)
{
    if (buf == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    uint32_t length = 0;
    DB_OBJ_S *obj = nullptr;
    uint32_t ret = db_create_sys_info_obj(&obj);
    if (ret == DB_OK) {
        const auto release = ReleaseOnExit<db_release_sys_info_obj>(obj);
        ret = db_read_sys_info_obj(obj);
        if (ret == DB_OK) {
            ret = db_get_sys_info_sys_name(obj, buf, size, &length);
        }
    }
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Get sysname failed. ret:%u,inputSize:%u,length:%u", ret, size,
                             length);
    }
    return ret;
}

uint32_t PPPOE_PLUS_GetIfSlotCardPort(uint32_t ifIndex, uint32_t *slot, uint32_t *card, uint32_t *port)
{
    if (slot == nullptr || card == nullptr || port == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    DB_OBJ_S *obj = nullptr;
    uint32_t ret = db_create_if_object(&obj);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "db_create_if_object failed, ret = %d.", Code(ret));
        return ret;
    }
    const auto release = ReleaseOnExit<db_release_if_object>(obj);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "read if object, ifIndex = %u", ifIndex);
    ret = db_set_if_ifindex(obj, ifIndex);
    if (ret == DB_OK) {
        ret = db_read_if_object(obj);
    }
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "read if object failed, ret = %d.", Code(ret));
        return ret;
    }
    DB_OBJ_S *dev = nullptr;
    ret = db_create_child_node(obj, "dev", &dev);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "db_create_child_node, ret = %d.", Code(ret));
        return ret;
    }
    ret = db_get_if_dev_slot_id(dev, slot);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "db get slot id failed, ret = %d.", Code(ret));
        return ret;
    }
    ret = db_get_if_dev_card_id(dev, card);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "db get card id failed, ret = %d.", Code(ret));
        return ret;
    }
    if (*card == kCardUnset) {
        *card = 0;
    }
    uint16_t portNum = 0;
    ret = db_get_if_dev_port_num(dev, &portNum);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "db get port id failed, ret = %d.", Code(ret));
        return ret;
    }
    *port = portNum;
    return ret;
}

uint32_t PPPOE_PLUS_GetIfL2TrunkId(uint32_t ifIndex)
{
    DB_OBJ_S *obj = nullptr;
    uint32_t ret = db_create_if_object(&obj);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "db_create_if_object failed, ret = %d.", Code(ret));
        return PPPOE_PLUS_INVALID_IFINDEX;
    }
    const auto release = ReleaseOnExit<db_release_if_object>(obj);
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "read trunk object, ifIndex = %u", ifIndex);
    ret = db_set_if_ifindex(obj, ifIndex);
    if (ret == DB_OK) {
        ret = db_read_if_object(obj);
    }
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "read if object failed, ret = %d.", Code(ret));
        return PPPOE_PLUS_INVALID_IFINDEX;
    }
    DB_OBJ_S *l2 = nullptr;
    ret = db_create_child_node(obj, "l2", &l2);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "db_create_child_node, ret = %d.", Code(ret));
        return PPPOE_PLUS_INVALID_IFINDEX;
    }
    uint32_t trunkId = PPPOE_PLUS_INVALID_IFINDEX;
    ret = db_get_if_l2_trunk_id(l2, &trunkId);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "db_get_if_l2_trunk_id failed, ret = %d.", Code(ret));
        return PPPOE_PLUS_INVALID_IFINDEX;
    }
    return trunkId;
}

uint32_t PPPOE_PLUS_GetTrunkIfIndexByTrunkId(uint32_t trunkId)
{
    DB_OBJ_S *obj = nullptr;
    uint32_t ret = db_create_trunk_obj(&obj);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "db_create_trunk_obj failed, ret = %d.", Code(ret));
        return PPPOE_PLUS_INVALID_IFINDEX;
    }
    const auto release = ReleaseOnExit<db_release_trunk_obj>(obj);
    ret = db_set_trunk_trunk_id(obj, trunkId);
    if (ret == DB_OK) {
        ret = db_read_trunk_obj(obj);
    }
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "read trunk object failed, ret = %d.", Code(ret));
        return PPPOE_PLUS_INVALID_IFINDEX;
    }
    uint32_t trunkIfIndex = PPPOE_PLUS_INVALID_IFINDEX;
    ret = db_get_trunk_trunk_if_index(obj, &trunkIfIndex);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "db_get_trunk_trunk_if_index failed, ret = %d.", Code(ret));
        return PPPOE_PLUS_INVALID_IFINDEX;
    }
    return trunkIfIndex;
}

uint32_t PPPOE_PLUS_GetIfNameRaw(uint32_t ifIndex, char *buf, uint32_t size)
{
    if (buf == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    DB_OBJ_S *obj = nullptr;
    uint32_t ret = db_create_if_object(&obj);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "db_create_if_object failed, ret = %d.", Code(ret));
        return ret;
    }
    const auto release = ReleaseOnExit<db_release_if_object>(obj);
    ret = db_set_if_ifindex(obj, ifIndex);
    if (ret == DB_OK) {
        ret = db_read_if_object(obj);
    }
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "read object failed, ret = %d.", Code(ret));
        return ret;
    }
    char name[kIfNameLen] = {};
    ret = db_get_if_name(obj, name, sizeof(name));
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "db_get_if_name failed, ret = %d.", Code(ret));
        return ret;
    }
    if (strcpy_s(buf, size, name) != EOK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Fail to copy ifname(name=%s, length=%u).", name, size);
        return PPPOE_PLUS_ERR;
    }
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_GetPortVlanBitmap(uint32_t ifIndex, uint8_t *buf, uint32_t size)
{
    if (buf == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    DB_OBJ_S *obj = nullptr;
    if (db_create_port_vlan_map_obj(&obj) != DB_OK) {
        return PPPOE_PLUS_ERR;
    }
    const auto release = ReleaseOnExit<db_release_port_vlan_map_obj>(obj);
    if (db_set_port_vlan_map_if_index(obj, ifIndex) != DB_OK || db_read_port_vlan_map_obj(obj) != DB_OK ||
        db_get_port_vlan_map_bitmap(obj, buf, size) != DB_OK) {
        return PPPOE_PLUS_ERR;
    }
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_GetIfLagId(uint32_t ifIndex, uint32_t *lagId)
{
    if (lagId == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    DB_OBJ_S *obj = nullptr;
    uint32_t ret = db_create_if_object(&obj);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Get trunk id, failed to create object, ret = %d.", Code(ret));
        return ret;
    }
    const auto release = ReleaseOnExit<db_release_if_object>(obj);
    ret = db_set_if_ifindex(obj, ifIndex);
    if (ret == DB_OK) {
        ret = db_read_if_object(obj);
    }
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Get trunk id, failed to read object, ret = %d.", Code(ret));
        return ret;
    }
    ret = db_get_if_lag_id(obj, lagId);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Get trunk id, failed to get lag id, ret = %d.", Code(ret));
    }
    return ret;
}

uint32_t PPPOE_PLUS_GetTrunkIfIndexByMember(uint32_t memberIfIndex, uint32_t *trunkIfIndex)
{
    if (trunkIfIndex == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    DB_OBJ_S *obj = nullptr;
    uint32_t ret = db_create_trunk_port_obj(&obj);
    if (ret != DB_OK) {
        return ret;
    }
    const auto release = ReleaseOnExit<db_release_trunk_port_obj>(obj);
    ret = db_set_trunk_port_if_index(obj, memberIfIndex);
    if (ret == DB_OK) {
        ret = db_read_trunk_port_obj(obj);
    }
    if (ret == DB_OK) {
        ret = db_get_trunk_port_trunk_if_index(obj, trunkIfIndex);
    }
    return ret;
}

uint32_t PPPOE_PLUS_GetAccessIsolate(uint32_t srcIfIndex, uint32_t dstIfIndex)
{
    DB_OBJ_S *obj = nullptr;
    uint32_t ret = db_create_access_isolate_obj(&obj);
    if (ret != DB_OK) {
        return ret;
    }
    const auto release = ReleaseOnExit<db_release_access_isolate_obj>(obj);
    ret = db_set_access_isolate_key(obj, srcIfIndex, 0, dstIfIndex);
    if (ret == DB_OK) {
        ret = db_read_access_isolate_obj(obj);
    }
    return ret;
}

uint32_t PPPOE_PLUS_GetPortIsolateGroupIds(uint32_t ifIndex, uint32_t *groupIds, uint32_t capacity,
                                           uint32_t *count)
{
    if (groupIds == nullptr || count == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    *count = 0;
    DB_OBJ_S *obj = nullptr;
    uint32_t ret = db_create_port_isolate_obj(&obj);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Get group id, create object failed, ret = %d.", Code(ret));
        return ret;
    }
    const auto release = ReleaseOnExit<db_release_port_isolate_obj>(obj);
    ret = db_set_port_isolate_if_index(obj, ifIndex);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Get group id, create object failed, ret = %d.", Code(ret));
        return ret;
    }
    DB_ITER_S *iter = nullptr;
    ret = db_create_root_iter(obj, 0, 0, &iter);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Get group id, create root iter failed, ret = %d.", Code(ret));
        return ret;
    }
    const uint32_t limit = capacity < PPPOE_PLUS_ISOLATE_GROUP_MAX ? capacity : PPPOE_PLUS_ISOLATE_GROUP_MAX;
    while (*count < limit) {
        ret = db_root_iterator_next(iter);
        if (ret == DB_ITER_END) {
            break;
        }
        if (ret != DB_OK) {
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Get group id, db root iterator next failed, ret = %d.",
                                 Code(ret));
            return PPPOE_PLUS_ERR;
        }
        ret = db_get_port_isolate_group_id(obj, &groupIds[*count]);
        if (ret != DB_OK) {
            // Reported with the text of the iterator failure, as the callers know it.
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Get group id, create root iter failed, ret = %d.", Code(ret));
            return ret;
        }
        (*count)++;
    }
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_GetFirstSwitchPort(uint32_t *ifIndex)
{
    if (ifIndex == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    DB_OBJ_S *obj = nullptr;
    uint32_t ret = db_create_if_object(&obj);
    if (ret != DB_OK) {
        return ret;
    }
    const auto release = ReleaseOnExit<db_release_if_object>(obj);
    DB_ITER_S *iter = nullptr;
    ret = db_create_root_iter(obj, 0, 0, &iter);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Failed to create rootIter. ret=%d", Code(ret));
        return ret;
    }
    while ((ret = db_root_iterator_next(iter)) == DB_OK) {
        uint32_t portSwitch = 0;
        if (db_get_if_port_switch(obj, &portSwitch) != DB_OK || portSwitch != PPPOE_PLUS_PORT_SWITCH_L2) {
            continue;
        }
        uint32_t found = PPPOE_PLUS_INVALID_IFINDEX;
        if (db_get_if_ifindex(obj, &found) == DB_OK) {
            *ifIndex = found;
            return PPPOE_PLUS_OK;
        }
    }
    return ret == DB_ITER_END ? PPPOE_PLUS_OK : ret;
}

uint32_t PPPOE_PLUS_GetIfNameByIfIndex(uint32_t ifIndex, char *buf, uint32_t size)
{
    // A member port is described by its trunk.
    const uint32_t trunkId = PPPOE_PLUS_GetIfL2TrunkId(ifIndex);
    if (trunkId != PPPOE_PLUS_INVALID_IFINDEX) {
        const uint32_t trunkIfIndex = PPPOE_PLUS_GetTrunkIfIndexByTrunkId(trunkId);
        if (trunkIfIndex != PPPOE_PLUS_INVALID_IFINDEX) {
            return PPPOE_PLUS_GetIfNameRaw(trunkIfIndex, buf, size);
        }
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Get trunk ifindex failed. (trunkId=%u).", trunkId);
    }
    return PPPOE_PLUS_GetIfNameRaw(ifIndex, buf, size);
}

uint32_t PPPOE_PLUS_GetTrunkIfIndex(uint32_t ifIndex)
{
    const uint32_t trunkId = PPPOE_PLUS_GetIfL2TrunkId(ifIndex);
    if (trunkId == PPPOE_PLUS_INVALID_IFINDEX) {
        return PPPOE_PLUS_INVALID_IFINDEX;
    }
    const uint32_t trunkIfIndex = PPPOE_PLUS_GetTrunkIfIndexByTrunkId(trunkId);
    if (trunkIfIndex == PPPOE_PLUS_INVALID_IFINDEX) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "Get trunk ifindex failed. (trunkId=%u).", trunkId);
    }
    return trunkIfIndex;
}

uint32_t PPPOE_PLUS_IsTrunkIf(uint32_t ifIndex)
{
    uint32_t lagId = PPPOE_PLUS_INVALID_IFINDEX;
    return (PPPOE_PLUS_GetIfLagId(ifIndex, &lagId) == DB_OK && lagId != PPPOE_PLUS_INVALID_IFINDEX) ? 1U : 0U;
}

uint32_t PPPOE_PLUS_GetConfigTrunkIdByIfName(const char *ifName, uint32_t *trunkId)
{
    if (ifName == nullptr || trunkId == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    const char *p = ifName;
    while (*p != '\0' && (*p < '0' || *p > '9')) {
        p++;
    }
    if (*p == '\0') {
        return PPPOE_PLUS_ERR;
    }
    uint64_t value = 0;
    for (; *p >= '0' && *p <= '9'; p++) {
        value = value * 10U + static_cast<uint64_t>(*p - '0');
        if (value > 0xFFFFFFFFULL) {
            return PPPOE_PLUS_ERR;
        }
    }
    *trunkId = static_cast<uint32_t>(value);
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_IsPortInVlan(uint32_t ifIndex, uint16_t vlan)
{
    uint8_t bitmap[PPPOE_PLUS_VLAN_BITMAP_LEN] = {};
    if (vlan / 8U >= sizeof(bitmap) || PPPOE_PLUS_GetPortVlanBitmap(ifIndex, bitmap, sizeof(bitmap)) != 0) {
        return 0;
    }
    return (bitmap[vlan / 8U] >> (vlan % 8U)) & 1U;
}

uint32_t PPPOE_PLUS_IsPortIsolate(uint32_t srcIfIndex, uint32_t dstIfIndex)
{
    if (PPPOE_PLUS_GetAccessIsolate(srcIfIndex, dstIfIndex) == DB_OK) {
        return 1;
    }
    // Groups 1 to 64 as one bit each; higher ids do not isolate.
    auto groupSet = [](uint32_t ifIndex, uint64_t *set) {
        uint32_t ids[PPPOE_PLUS_ISOLATE_GROUP_MAX] = {};
        uint32_t count = 0;
        if (PPPOE_PLUS_GetPortIsolateGroupIds(ifIndex, ids, PPPOE_PLUS_ISOLATE_GROUP_MAX, &count) != 0) {
            return false;
        }
        *set = 0;
        for (uint32_t i = 0; i < count; i++) {
            if (ids[i] >= 1 && ids[i] <= PPPOE_PLUS_ISOLATE_GROUP_MAX) {
                *set |= 1ULL << (ids[i] - 1U);
            }
        }
        return true;
    };
    uint64_t srcGroups = 0;
    uint64_t dstGroups = 0;
    if (!groupSet(srcIfIndex, &srcGroups) || !groupSet(dstIfIndex, &dstGroups)) {
        return 0;
    }
    return (srcGroups & dstGroups) != 0 ? 1U : 0U;
}

uint32_t PPPOE_PLUS_GetSelfBoardId(void)
{
    uint32_t boardId = PPPOE_PLUS_INVALID_IFINDEX;
    if (DEVM_DB_GetSelfBoardId(&boardId) != DEVM_OK) {
        return PPPOE_PLUS_INVALID_IFINDEX;
    }
    return boardId;
}

uint32_t PPPOE_PLUS_GetGlobalSlotId(uint32_t chassisId, uint32_t localSlotId, uint32_t *globalSlotId)
{
    if (globalSlotId == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    return DEVM_DB_GetGlobalSlotIdByLocalSlotId(chassisId, localSlotId, globalSlotId) == DEVM_OK ? PPPOE_PLUS_OK
                                                                                                  : PPPOE_PLUS_ERR;
}

uint32_t PPPOE_PLUS_GetLocalSlotId(uint32_t globalSlotId, uint32_t *chassisId, uint32_t *localSlotId)
{
    if (chassisId == nullptr || localSlotId == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    if (DEVM_DB_GetLocalSlotIdByGlobalSlotId(globalSlotId, chassisId, localSlotId) != DEVM_OK) {
        *chassisId = 1;
        *localSlotId = 1;
        return PPPOE_PLUS_ERR;
    }
    return PPPOE_PLUS_OK;
}

uint32_t PPPOE_PLUS_GetSelfChassisOrSlotId(uint32_t *id)
{
    if (id == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    const uint32_t ret = PPPOE_PLUS_IsBoxSystem() != 0 ? DEVM_GetSelfSlotId(id) : DEVM_DB_GetSelfChassisId(id);
    return ret == DEVM_OK ? PPPOE_PLUS_OK : PPPOE_PLUS_ERR;
}

uint32_t PPPOE_PLUS_GetSelfLogicSlotId(void)
{
    if (PPPOE_PLUS_IsBoxSystem() != 0) {
        uint32_t slot = PPPOE_PLUS_INVALID_IFINDEX;
        return DEVM_GetSelfSlotId(&slot) == DEVM_OK ? slot : PPPOE_PLUS_INVALID_IFINDEX;
    }
    return drv_board_get_self_logic_slotid();
}

}  // extern "C"
