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
#include <utility>

#include "db.h"
#include "devm.h"
#include "plat_safe.h"
#include "pppoe_plus_bounded.h"
#include "pppoe_plus_db.h"
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

// Passes a step's code on; logs text (one %d, the code) when it failed,
// unless there is no text.
uint32_t Check(uint32_t ret, const char *text)
{
    if (ret != DB_OK && text != nullptr) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, text, Code(ret));
    }
    return ret;
}

// An object of one kind, released with its kind's call when it goes, once
// created.
template <uint32_t (*CreateFn)(DB_OBJ_S **), uint32_t (*ReleaseFn)(DB_OBJ_S *)>
class DbObject {
public:
    DbObject() = default;
    DbObject(DbObject &&other) noexcept : obj_(other.obj_), created_(std::exchange(other.created_, false)) {}
    DbObject(const DbObject &) = delete;
    DbObject &operator=(const DbObject &) = delete;
    DbObject &operator=(DbObject &&) = delete;
    ~DbObject()
    {
        if (created_) {
            (void)ReleaseFn(obj_);
        }
    }

    uint32_t Create()
    {
        const uint32_t ret = CreateFn(&obj_);
        created_ = ret == DB_OK;
        return ret;
    }
    DB_OBJ_S *get() const { return obj_; }

private:
    DB_OBJ_S *obj_ = nullptr;
    bool created_ = false;
};

using IfObject = DbObject<db_create_if_object, db_release_if_object>;
using TrunkObject = DbObject<db_create_trunk_obj, db_release_trunk_obj>;
using TrunkPortObject = DbObject<db_create_trunk_port_obj, db_release_trunk_port_obj>;
using PortVlanObject = DbObject<db_create_port_vlan_map_obj, db_release_port_vlan_map_obj>;
using AccessIsolateObject = DbObject<db_create_access_isolate_obj, db_release_access_isolate_obj>;
using PortIsolateObject = DbObject<db_create_port_isolate_obj, db_release_port_isolate_obj>;
using SysInfoObject = DbObject<db_create_sys_info_obj, db_release_sys_info_obj>;

// An object created, keyed and read, with the first failing step's code.
template <typename Obj>
struct Opened {
    uint32_t ret = DB_OK;
    Obj obj;
};

// Creates an object, sets its key with setKey and reads it with readFn.
// Failures are logged with createFailed and readFailed (a failed key with
// the read's text), silent where the text is null.
template <typename Obj, typename SetKey>
Opened<Obj> Open(SetKey setKey, uint32_t (*readFn)(DB_OBJ_S *), const char *createFailed = nullptr,
                 const char *readFailed = nullptr)
{
    Opened<Obj> opened;
    opened.ret = Check(opened.obj.Create(), createFailed);
    if (opened.ret == DB_OK) {
        opened.ret = setKey(opened.obj.get());
        if (opened.ret == DB_OK) {
            opened.ret = readFn(opened.obj.get());
        }
        opened.ret = Check(opened.ret, readFailed);
    }
    return opened;
}

// Creates an interface object and reads the record of ifIndex; reading (one
// %u, the ifIndex) is logged once the object exists, when given.
Opened<IfObject> OpenIf(uint32_t ifIndex, const char *createFailed, const char *reading, const char *readFailed)
{
    auto setKey = [ifIndex, reading](DB_OBJ_S *obj) {
        if (reading != nullptr) {
            PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, reading, ifIndex);
        }
        return db_set_if_ifindex(obj, ifIndex);
    };
    return Open<IfObject>(setKey, db_read_if_object, createFailed, readFailed);
}

// Opens the child node ("dev" or "l2") of the interface's record.
uint32_t OpenNode(const IfObject &intf, const char *node, DB_OBJ_S **child)
{
    return Check(db_create_child_node(intf.get(), node, child), "db_create_child_node, ret = %d.");
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
    uint32_t ret = DB_OK;
    {
        SysInfoObject obj;  // released before a failure is logged
        ret = obj.Create();
        if (ret == DB_OK) {
            ret = db_read_sys_info_obj(obj.get());
        }
        if (ret == DB_OK) {
            ret = db_get_sys_info_sys_name(obj.get(), buf, size, &length);
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
    const auto intf = OpenIf(ifIndex, "db_create_if_object failed, ret = %d.", "read if object, ifIndex = %u",
                             "read if object failed, ret = %d.");
    if (intf.ret != DB_OK) {
        return intf.ret;
    }
    DB_OBJ_S *dev = nullptr;
    uint32_t ret = OpenNode(intf.obj, "dev", &dev);
    if (ret == DB_OK) {
        ret = Check(db_get_if_dev_slot_id(dev, slot), "db get slot id failed, ret = %d.");
    }
    if (ret == DB_OK) {
        ret = Check(db_get_if_dev_card_id(dev, card), "db get card id failed, ret = %d.");
    }
    if (ret != DB_OK) {
        return ret;
    }
    if (*card == kCardUnset) {
        *card = 0;
    }
    uint16_t portNum = 0;
    ret = Check(db_get_if_dev_port_num(dev, &portNum), "db get port id failed, ret = %d.");
    if (ret == DB_OK) {
        *port = portNum;
    }
    return ret;
}

uint32_t PPPOE_PLUS_GetIfL2TrunkId(uint32_t ifIndex)
{
    const auto intf = OpenIf(ifIndex, "db_create_if_object failed, ret = %d.", "read trunk object, ifIndex = %u",
                             "read if object failed, ret = %d.");
    DB_OBJ_S *l2 = nullptr;
    uint32_t trunkId = PPPOE_PLUS_INVALID_IFINDEX;
    if (intf.ret != DB_OK || OpenNode(intf.obj, "l2", &l2) != DB_OK ||
        Check(db_get_if_l2_trunk_id(l2, &trunkId), "db_get_if_l2_trunk_id failed, ret = %d.") != DB_OK) {
        return PPPOE_PLUS_INVALID_IFINDEX;
    }
    return trunkId;
}

uint32_t PPPOE_PLUS_GetTrunkIfIndexByTrunkId(uint32_t trunkId)
{
    const auto trunk = Open<TrunkObject>([trunkId](DB_OBJ_S *obj) { return db_set_trunk_trunk_id(obj, trunkId); },
                                         db_read_trunk_obj, "db_create_trunk_obj failed, ret = %d.",
                                         "read trunk object failed, ret = %d.");
    uint32_t trunkIfIndex = PPPOE_PLUS_INVALID_IFINDEX;
    if (trunk.ret != DB_OK ||
        Check(db_get_trunk_trunk_if_index(trunk.obj.get(), &trunkIfIndex),
              "db_get_trunk_trunk_if_index failed, ret = %d.") != DB_OK) {
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
    const auto intf =
        OpenIf(ifIndex, "db_create_if_object failed, ret = %d.", nullptr, "read object failed, ret = %d.");
    if (intf.ret != DB_OK) {
        return intf.ret;
    }
    char name[kIfNameLen];   // terminated by a read that succeeds
    const uint32_t ret = Check(db_get_if_name(intf.obj.get(), name, sizeof(name)), "db_get_if_name failed, ret = %d.");
    if (ret != DB_OK) {
        return ret;
    }
    if (PppoePlusCopyStr(buf, size, name) != EOK) {
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
    const auto map = Open<PortVlanObject>(
        [ifIndex](DB_OBJ_S *obj) { return db_set_port_vlan_map_if_index(obj, ifIndex); }, db_read_port_vlan_map_obj);
    if (map.ret != DB_OK || db_get_port_vlan_map_bitmap(map.obj.get(), buf, size) != DB_OK) {
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
    const auto intf = OpenIf(ifIndex, "Get trunk id, failed to create object, ret = %d.", nullptr,
                             "Get trunk id, failed to read object, ret = %d.");
    if (intf.ret != DB_OK) {
        return intf.ret;
    }
    return Check(db_get_if_lag_id(intf.obj.get(), lagId), "Get trunk id, failed to get lag id, ret = %d.");
}

uint32_t PPPOE_PLUS_GetTrunkIfIndexByMember(uint32_t memberIfIndex, uint32_t *trunkIfIndex)
{
    if (trunkIfIndex == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    const auto member = Open<TrunkPortObject>(
        [memberIfIndex](DB_OBJ_S *obj) { return db_set_trunk_port_if_index(obj, memberIfIndex); },
        db_read_trunk_port_obj);
    if (member.ret != DB_OK) {
        return member.ret;
    }
    return db_get_trunk_port_trunk_if_index(member.obj.get(), trunkIfIndex);
}

uint32_t PPPOE_PLUS_GetAccessIsolate(uint32_t srcIfIndex, uint32_t dstIfIndex)
{
    return Open<AccessIsolateObject>(
               [srcIfIndex, dstIfIndex](DB_OBJ_S *obj) {
                   return db_set_access_isolate_key(obj, srcIfIndex, 0, dstIfIndex);
               },
               db_read_access_isolate_obj)
        .ret;
}

uint32_t PPPOE_PLUS_GetPortIsolateGroupIds(uint32_t ifIndex, uint32_t *groupIds, uint32_t capacity,
                                           uint32_t *count)
{
    if (groupIds == nullptr || count == nullptr) {
        ZAVK_Assert(kIntfFile, __LINE__);
        return PPPOE_PLUS_ERR;
    }
    *count = 0;
    // A failed key is reported with the text of a failed creation.
    PortIsolateObject obj;
    DB_ITER_S *iter = nullptr;
    uint32_t ret = Check(obj.Create(), "Get group id, create object failed, ret = %d.");
    if (ret == DB_OK) {
        ret = Check(db_set_port_isolate_if_index(obj.get(), ifIndex), "Get group id, create object failed, ret = %d.");
    }
    if (ret == DB_OK) {
        ret = Check(db_create_root_iter(obj.get(), 0, 0, &iter), "Get group id, create root iter failed, ret = %d.");
    }
    if (ret != DB_OK) {
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
        // Reported with the text of the iterator failure, as the callers know it.
        ret = Check(db_get_port_isolate_group_id(obj.get(), &groupIds[*count]),
                    "Get group id, create root iter failed, ret = %d.");
        if (ret != DB_OK) {
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
    IfObject obj;
    uint32_t ret = obj.Create();
    if (ret != DB_OK) {
        return ret;
    }
    DB_ITER_S *iter = nullptr;
    ret = Check(db_create_root_iter(obj.get(), 0, 0, &iter), "Failed to create rootIter. ret=%d");
    if (ret != DB_OK) {
        return ret;
    }
    while ((ret = db_root_iterator_next(iter)) == DB_OK) {
        uint32_t portSwitch = 0;
        if (db_get_if_port_switch(obj.get(), &portSwitch) != DB_OK || portSwitch != PPPOE_PLUS_PORT_SWITCH_L2) {
            continue;
        }
        uint32_t found = PPPOE_PLUS_INVALID_IFINDEX;
        if (db_get_if_ifindex(obj.get(), &found) == DB_OK) {
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
        uint32_t ids[PPPOE_PLUS_ISOLATE_GROUP_MAX];   // the first count are read
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
