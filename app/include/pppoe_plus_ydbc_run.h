/* Starts the configuration client's task once HA reports the start of
 * work; 0 on success. */
#ifndef PPPOE_PLUS_YDBC_RUN_H
#define PPPOE_PLUS_YDBC_RUN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

uint32_t PPPOE_PLUS_YdbcRun(void);

#ifdef __cplusplus
}
#endif
#endif
