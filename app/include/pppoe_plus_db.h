/* Device database watch: board-type queries serving the whole module. */
#ifndef PPPOE_PLUS_DB_H
#define PPPOE_PLUS_DB_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* 1 on the main control board or a single-box system, else 0 (also when
 * the board type cannot be read). */
uint32_t PPPOE_PLUS_IsMpu(void);
/* 1 when the board type can be read and is a single box, else 0. */
uint32_t PPPOE_PLUS_IsBoxSystem(void);

#ifdef __cplusplus
}
#endif
#endif
