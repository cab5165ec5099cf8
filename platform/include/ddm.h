/* Distributed device manager: authorisation of mesh peers by selector role. */
#ifndef PLATFORM_DDM_H
#define PLATFORM_DDM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DDM_OK 0U
#define DDM_ERR_PARAM 0x6001U

/* The role a service plays on a board type; its peers are authorised by it. */
typedef struct DDM_SELECTOR_ROLE {
    uint32_t boardType;        /* DEVM_BOARD_TYPE_* */
    char serviceName[16];
    char roleName[16];
    uint32_t enable;           /* 1: the role applies */
    uint32_t slotMask;         /* slots it applies on; 0xFFFFFFFF every slot */
} DDM_SELECTOR_ROLE_S;

/* Records the role; fails on a null record or empty service or role name. */
uint32_t DDM_AuthorizeSetSelectorRole(const DDM_SELECTOR_ROLE_S *role);

#ifdef __cplusplus
}
#endif
#endif
