/* Device database watch: the subscription connection to the object
 * database, the board-registration and interface on-board subscriptions
 * that publish "board-plug" and "if-chg" on the event bus, and the
 * board-type queries serving the whole module. */
#ifndef PPPOE_PLUS_DB_H
#define PPPOE_PLUS_DB_H

#include <stdint.h>

#include "db.h"

#define PPPOE_PLUS_DB_USER_NAME "pppoe_plus"
#define PPPOE_PLUS_DB_CONNECT_TRIES 6U
#define PPPOE_PLUS_DB_CONNECT_WAIT_SEC 3U
#define PPPOE_PLUS_DB_DEVM_EVENTS 3U         /* create, update */
#define PPPOE_PLUS_DB_IF_EVENTS 7U           /* create, update, delete */
#define PPPOE_PLUS_DB_EPOLL_EVENTS 1U        /* readable */

#ifdef __cplusplus
#include <atomic>
extern "C" {
/* The subscription connection; null when there is none. Written by the
 * init task at start-up and by the exit path, read by both. */
extern std::atomic<DB_SUB_CONN_S *> g_pppoePlusSubConn;
#endif

/* The user callbacks the database callbacks hand a relevant change to. */
typedef void (*PppoePlusDevmRegCallBack)(uint32_t chassisId, uint32_t slotId, uint32_t oldState, uint32_t newState);
typedef void (*PppoePlusIfEvtCallBack)(uint32_t ifIndex, uint32_t oldOnBoard, uint32_t newOnBoard);

/* 1 on the main control board or a single-box system, else 0 (also when
 * the board type cannot be read). */
uint32_t PPPOE_PLUS_IsMpu(void);
/* 1 when the board type can be read and is a single box, else 0. */
uint32_t PPPOE_PLUS_IsBoxSystem(void);

/* Connects (at most six tries, three seconds apart); the outcome is only logged. */
void PPPOE_PLUS_CreateDBSubConn(void);
/* Both subscriptions; 0, or non-zero when the interface one failed. */
uint32_t PPPOE_PLUS_DbSubFuncInit(void);
uint32_t PPPOE_PLUS_DestroyDbSubConn(void);
DB_SUB_CONN_S *PPPOE_PLUS_GetDbSubConn(void);
uint32_t PPPOE_PLUS_DbCloseConnectionPool(void);

/* The database library's epoll control of the connection's descriptor. */
uint32_t PPPOE_PLUS_SubConnEpollCtrl(uint32_t fd, uint32_t op);
/* The init task's handler of the readable descriptor. */
uint32_t PPPOE_PLUS_DbHandleEvt(uint32_t fd, uint32_t events, void *arg);

uint32_t PPPOE_PLUS_InitDbSubDevmRegStatus(void);
uint32_t PPPOE_PLUS_SubDevmRegisterStatus(DB_SUB_CONN_S *conn, PppoePlusDevmRegCallBack callback);
uint32_t PPPOE_PLUS_InitDbIfRegEvt(void);
uint32_t PPPOE_PLUS_SubIfEvt(DB_SUB_CONN_S *conn, PppoePlusIfEvtCallBack callback);

/* Called by the database library per change. */
void PPPOE_PLUS_SubDevmRegisterStatusCallback(DB_SUB_CONN_S *conn, const DB_SUB_CHANGE_S *change, void *userArg,
                                              void *userCallback);
void PPPOE_PLUS_SubIfEvtCallback(DB_SUB_CONN_S *conn, const DB_SUB_CHANGE_S *change, void *userArg,
                                 void *userCallback);

/* Publish "board-plug" and "if-chg". */
void PPPOE_PLUS_DevmRegisterStatusCallBack(uint32_t chassisId, uint32_t slotId, uint32_t oldState, uint32_t newState);
void PPPOE_PLUS_IfEvtCallBack(uint32_t ifIndex, uint32_t oldOnBoard, uint32_t newOnBoard);

#ifdef __cplusplus
}
#endif
#endif
