// Device database watch: one subscription connection to the object
// database, whose descriptor sits in the init task's epoll set, and two
// subscriptions on it: board registration ("devm"/"Register_status") and
// interface presence ("if"/"on_board"). A relevant change becomes a
// "board-plug" or "if-chg" event on the bus. Also the board-type queries.
#include "pppoe_plus_db.h"

#include <unistd.h>

#include "devm.h"
#include "mesh.h"
#include "pppoe_plus_cfg.h"
#include "pppoe_plus_evt.h"
#include "pppoe_plus_guard.hpp"
#include "pppoe_plus_log.h"
#include "pppoe_plus_main.h"
#include "pppoe_plus_types.h"

namespace {

constexpr uint32_t kObjMode = 7;

void DbError(const char *format, uint32_t value)
{
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, format, value);
}

// "%s, ret = %d." for one failed step of a subscription.
void StepFailed(const char *step, uint32_t ret)
{
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPOE_PLUS_DB]%s, ret = %d.", step, static_cast<int32_t>(ret));
}

// The texts of one subscription's steps, in the order they are made.
struct SubTexts {
    const char *createObj;
    const char *addEvent;
    const char *addField;
    const char *addPushOp;
    const char *setCallback;
    const char *withConn;
    const char *noSub;
    const char *ok;
};

constexpr SubTexts kDevmTexts = {
    "Failed to create devm obj",
    "Failed to add event for subscribing devm obj",
    "Failed to add Register_status field",
    "Failed to add push op for subscribing devm obj",
    "Failed to set callback for subscribing devm obj",
    "Failed to subscribe devm reg status with conn",
    "[PPPOE_PLUS_DB] Failed to subscribe devm reg status event.",
    "[PPPOE_PLUS_DB] Subscribe devm reg status with conn ok.",
};

constexpr SubTexts kIfTexts = {
    "Failed to create if obj",
    "Failed to subscribe if event",
    "Failed to add if on_board field",
    "Failed to add push op for subscribing if obj",
    "Failed to set callback for subscribing if obj",
    "Failed to subscribe if event with conn.",
    "[PPPOE_PLUS_DB] Failed to subscribe if event.",
    "[PPPOE_PLUS_DB] Subscribe if event with conn ok.",
};

struct SubShape {
    uint32_t (*create)(uint32_t, uint32_t, DB_OBJ_S **);
    uint32_t (*release)(DB_OBJ_S *);
    uint32_t events;
    const char *table;
    const char *field;
    DB_SUB_CALLBACK_FN callback;
    const SubTexts &texts;
};

// Describes one subscription on a fresh object and makes it on the
// connection; the object is released on every path.
uint32_t Subscribe(DB_SUB_CONN_S *conn, const SubShape &shape, void *userCallback)
{
    DB_OBJ_S *obj = nullptr;
    uint32_t ret = shape.create(kObjMode, 0, &obj);
    if (ret != DB_OK) {
        StepFailed(shape.texts.createObj, ret);
        return ret;
    }
    PppoePlusScopeExit release([&shape, obj]() { (void)shape.release(obj); });
    if ((ret = db_sub_add_event(obj, shape.events)) != DB_OK) {
        StepFailed(shape.texts.addEvent, ret);
        return ret;
    }
    if ((ret = db_sub_add_field(obj, shape.table, shape.field, 0, 0, 0)) != DB_OK) {
        StepFailed(shape.texts.addField, ret);
        return ret;
    }
    if ((ret = db_sub_add_push_op(obj, DB_SUB_PUSH_OBJECT)) != DB_OK) {
        StepFailed(shape.texts.addPushOp, ret);
        return ret;
    }
    if ((ret = db_sub_reg_callback(obj, shape.callback, userCallback)) != DB_OK) {
        StepFailed(shape.texts.setCallback, ret);
        return ret;
    }
    DB_SUB_S *sub = nullptr;
    if ((ret = db_sub_with_conn(conn, obj, &sub)) != DB_OK) {
        StepFailed(shape.texts.withConn, ret);
        return ret;
    }
    if (sub == nullptr) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "%s", shape.texts.noSub);
        return 1;
    }
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "%s", shape.texts.ok);
    return 0;
}

// A field of a change's record; "no value" reads as 0 and is no error.
uint32_t ReadOrZero(uint32_t (*get)(DB_OBJ_S *, uint32_t *), DB_OBJ_S *obj, uint32_t *value)
{
    *value = 0;
    const uint32_t ret = get(obj, value);
    if (ret == DB_NO_VALUE) {
        *value = 0;
        return DB_OK;
    }
    return ret;
}

bool FollowsChanges(const DB_SUB_CHANGE_S *change)
{
    return change != nullptr && PPPOE_PLUS_IsEnable() == 1;
}

}  // namespace

extern "C" {

std::atomic<DB_SUB_CONN_S *> g_pppoePlusSubConn{nullptr};

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

void PPPOE_PLUS_CreateDBSubConn(void)
{
    DB_CONN_PARAM_S params = {};
    params.serverLocator = DB_SUB_SERVER_LOCATOR;
    params.userName = PPPOE_PLUS_DB_USER_NAME;
    uint32_t ret = 0;
    for (uint32_t retryCnt = 0; retryCnt < PPPOE_PLUS_DB_CONNECT_TRIES; retryCnt++) {
        DB_SUB_CONN_S *conn = nullptr;
        ret = db_create_sub_connect(&params, PPPOE_PLUS_SubConnEpollCtrl, &conn);
        if (ret == DB_OK) {
            g_pppoePlusSubConn.store(conn, std::memory_order_release);
            break;
        }
        (void)sleep(PPPOE_PLUS_DB_CONNECT_WAIT_SEC);
        PPPOE_PLUS_Log(PPPOE_PLUS_LOG_ID_DIAGWARN,
                       "[PPPOE_PLUS_DB] Sub connection is not established, ret:%d, retryCnt:%d.",
                       static_cast<int32_t>(ret), static_cast<int32_t>(retryCnt));
    }
    if (ret != DB_OK) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPOE_PLUS_DB] Create sub connection failed, ret:%d.",
                           static_cast<int32_t>(ret));
        return;
    }
    PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGDEBUG, "[PPPOE_PLUS_DB] Create sub connection ok");
}

uint32_t PPPOE_PLUS_SubConnEpollCtrl(uint32_t fd, uint32_t op)
{
    const int32_t epollFd = g_pppoePlusGlbEpollFd.load(std::memory_order_acquire);
    MESH_EPOLL_EVENT_S reg = {};
    int32_t meshOp = MESH_EPOLL_CTL_DEL;
    if (op == DB_EPOLL_CTRL_ADD) {
        reg.events = PPPOE_PLUS_DB_EPOLL_EVENTS;
        reg.callback = PPPOE_PLUS_DbHandleEvt;
        reg.fd = fd;
        meshOp = MESH_EPOLL_CTL_ADD;
    }
    const int32_t ret = MESH_EpollCtl(epollFd, meshOp, fd, &reg);
    if (ret < 0) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR,
                           "[PPPOE_PLUS_DB]Sub connection epollctrl error: epoll fd:%d, fd:%d, type:%d, errno:%u.",
                           epollFd, static_cast<int32_t>(fd), static_cast<int32_t>(op),
                           static_cast<uint32_t>(MESH_GetErrorNo()));
        return static_cast<uint32_t>(ret);
    }
    return 0;
}

uint32_t PPPOE_PLUS_DbHandleEvt(uint32_t fd, uint32_t /*events*/, void * /*arg*/)
{
    const uint32_t ret = db_handle_event(fd);
    if (ret != DB_OK) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPOE_PLUS_DB] DB event handle error, fd:%d, ret:%d.",
                           static_cast<int32_t>(fd), static_cast<int32_t>(ret));
    }
    return ret;
}

uint32_t PPPOE_PLUS_SubDevmRegisterStatus(DB_SUB_CONN_S *conn, PppoePlusDevmRegCallBack callback)
{
    const SubShape shape = {db_create_devm_obj, db_release_devm_object, PPPOE_PLUS_DB_DEVM_EVENTS, "devm",
                            "Register_status", PPPOE_PLUS_SubDevmRegisterStatusCallback, kDevmTexts};
    return Subscribe(conn, shape, reinterpret_cast<void *>(callback));
}

uint32_t PPPOE_PLUS_SubIfEvt(DB_SUB_CONN_S *conn, PppoePlusIfEvtCallBack callback)
{
    const SubShape shape = {db_create_if_obj, db_release_if_object, PPPOE_PLUS_DB_IF_EVENTS, "if",
                            "on_board", PPPOE_PLUS_SubIfEvtCallback, kIfTexts};
    return Subscribe(conn, shape, reinterpret_cast<void *>(callback));
}

uint32_t PPPOE_PLUS_InitDbSubDevmRegStatus(void)
{
    DB_SUB_CONN_S *conn = g_pppoePlusSubConn.load(std::memory_order_acquire);
    if (conn == nullptr || PPPOE_PLUS_SubDevmRegisterStatus(conn, PPPOE_PLUS_DevmRegisterStatusCallBack) != 0) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPOE_PLUS_DB] Failed to subscribe devm reg status.");
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_InitDbIfRegEvt(void)
{
    DB_SUB_CONN_S *conn = g_pppoePlusSubConn.load(std::memory_order_acquire);
    if (conn == nullptr || PPPOE_PLUS_SubIfEvt(conn, PPPOE_PLUS_IfEvtCallBack) != 0) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPOE_PLUS_DB] Failed to subscribe if event.");
        return 1;
    }
    return 0;
}

uint32_t PPPOE_PLUS_DbSubFuncInit(void)
{
    // The board subscription failing does not keep the interface one from being made.
    (void)PPPOE_PLUS_InitDbSubDevmRegStatus();
    const uint32_t ret = PPPOE_PLUS_InitDbIfRegEvt();
    if (ret != 0) {
        PPPOE_PLUS_DiagLog(PPPOE_PLUS_LOG_ID_DIAGERROR, "[PPPOE_PLUS_DB] Failed to subscribe if event.");
    }
    return ret;
}

void PPPOE_PLUS_SubDevmRegisterStatusCallback(DB_SUB_CONN_S * /*conn*/, const DB_SUB_CHANGE_S *change,
                                              void * /*userArg*/, void *userCallback)
{
    if (!FollowsChanges(change)) {
        return;  // with the feature off, board changes are not followed
    }
    uint32_t chassisId = 0;
    uint32_t slotId = 0;
    uint32_t ret = db_get_devm_Chassis_ID(change->newObj, &chassisId);
    if (ret != DB_OK) {
        DbError("[PPPOE_PLUS_DB] Failed to get devm chassis id. ret:%d.", ret);
        return;
    }
    if ((ret = db_get_devm_Slot_ID(change->newObj, &slotId)) != DB_OK) {
        DbError("[PPPOE_PLUS_DB] Failed to get devm slot id. ret:%d.", ret);
        return;
    }
    uint32_t oldState = 0;
    if (change->changeType == DB_CHANGE_UPDATE &&
        (ret = ReadOrZero(db_get_devm_Register_status, change->oldObj, &oldState)) != DB_OK) {
        DbError("[PPPOE_PLUS_DB] Failed to get devm old register status. ret:%d.", ret);
        return;
    }
    uint32_t newState = 0;
    if ((ret = ReadOrZero(db_get_devm_Register_status, change->newObj, &newState)) != DB_OK) {
        DbError("[PPPOE_PLUS_DB] Failed to get devm new register status. ret:%d.", ret);
        return;
    }
    if (oldState == newState || userCallback == nullptr) {
        return;
    }
    reinterpret_cast<PppoePlusDevmRegCallBack>(userCallback)(chassisId, slotId, oldState, newState);
}

void PPPOE_PLUS_SubIfEvtCallback(DB_SUB_CONN_S * /*conn*/, const DB_SUB_CHANGE_S *change, void * /*userArg*/,
                                 void *userCallback)
{
    if (!FollowsChanges(change)) {
        return;
    }
    DB_OBJ_S *obj = change->changeType == DB_CHANGE_DELETE ? change->oldObj : change->newObj;
    uint32_t ifIndex = PPPOE_PLUS_INVALID_IFINDEX;
    uint32_t ret = db_get_if_ifindex(obj, &ifIndex);
    if (ret != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_DB] Get port ifIndex failed. ret:%d.",
                             static_cast<int32_t>(ret));
        return;
    }
    uint32_t portSwitch = 0;
    if ((ret = db_get_if_port_switch(obj, &portSwitch)) != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR, "[PPPOE_PLUS_DB] Get port type failed. ifIndex:%u, ret:%d.", ifIndex,
                             static_cast<int32_t>(ret));
        return;
    }
    if (portSwitch != DB_IF_PORT_SWITCH_L2) {
        return;  // only switched ports are followed
    }
    uint32_t oldOnBoard = 0;
    if (change->changeType == DB_CHANGE_UPDATE &&
        (ret = ReadOrZero(db_get_if_on_board, change->oldObj, &oldOnBoard)) != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR,
                             "[PPPOE_PLUS_DB] Get old status of on_board failed. ifIndex:%u, ret:%d.", ifIndex,
                             static_cast<int32_t>(ret));
        return;
    }
    uint32_t newOnBoard = 0;
    if ((ret = ReadOrZero(db_get_if_on_board, change->newObj, &newOnBoard)) != DB_OK) {
        PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_ERR,
                             "[PPPOE_PLUS_DB] Get new status of on_board failed. ifIndex:%u, ret:%d.", ifIndex,
                             static_cast<int32_t>(ret));
        return;
    }
    if (oldOnBoard == newOnBoard || userCallback == nullptr) {
        return;
    }
    reinterpret_cast<PppoePlusIfEvtCallBack>(userCallback)(ifIndex, oldOnBoard, newOnBoard);
}

void PPPOE_PLUS_DevmRegisterStatusCallBack(uint32_t chassisId, uint32_t slotId, uint32_t oldState, uint32_t newState)
{
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO,
                         "[PPPOE_PLUS_DB] Sub devm register status callback.cssId:%u, slotId:%u, regState:%u->%u",
                         chassisId, slotId, oldState, newState);
    const PppoePlusBoardPlugEvt evt = {PPPOE_PLUS_EVT_BOARD_PLUG, chassisId, slotId, newState != 1 ? 1U : 0U};
    PPPOE_PLUS_EvtPublishAsync(&evt);
}

void PPPOE_PLUS_IfEvtCallBack(uint32_t ifIndex, uint32_t oldOnBoard, uint32_t newOnBoard)
{
    PPPOE_PLUS_DbgOutput(PPPOE_PLUS_DBG_INFO, "[PPPOE_PLUS_DB] If event notify: ifIndex:%u, stateChg:%u->%u.", ifIndex,
                         oldOnBoard, newOnBoard);
    const PppoePlusIfChgEvt evt = {PPPOE_PLUS_EVT_IF_CHG, ifIndex,
                                   newOnBoard != 0 ? PPPOE_PLUS_IF_EVT_ON_BOARD : PPPOE_PLUS_IF_EVT_OFF_BOARD, 0};
    PPPOE_PLUS_EvtPublishAsync(&evt);
}

uint32_t PPPOE_PLUS_DestroyDbSubConn(void)
{
    DB_SUB_CONN_S *conn = g_pppoePlusSubConn.load(std::memory_order_acquire);
    if (conn == nullptr) {
        return 0;
    }
    if (db_disconnect(conn) != DB_OK) {
        return 1;  // the handle is kept
    }
    g_pppoePlusSubConn.store(nullptr, std::memory_order_release);
    return 0;
}

DB_SUB_CONN_S *PPPOE_PLUS_GetDbSubConn(void)
{
    return g_pppoePlusSubConn.load(std::memory_order_acquire);
}

uint32_t PPPOE_PLUS_DbCloseConnectionPool(void)
{
    uint32_t ret = db_set_current_server_locator(DB_SUB_SERVER_LOCATOR);
    if (ret != DB_OK) {
        DbError("[PPPOE_PLUS_DB] Close DB connection pool set server locator failed, ret:%u.", ret);
        return ret;
    }
    if ((ret = db_set_current_user_name(PPPOE_PLUS_DB_USER_NAME)) != DB_OK) {
        DbError("[PPPOE_PLUS_DB] Close DB connection pool set user name failed, ret:%u.", ret);
        return ret;
    }
    if ((ret = db_close_connection_pool(DB_SUB_SERVER_LOCATOR, PPPOE_PLUS_DB_USER_NAME, 0)) != DB_OK) {
        DbError("[PPPOE_PLUS_DB] DB close connection sync pool failed, ret:%u.", ret);
        return ret;
    }
    return 0;
}

}  // extern "C"
