// TEMPORARY: stands in for the configuration client's start until the
// client lands; delete this file when it does. Nothing to start yet.
#include "pppoe_plus_ydbc_run.h"

extern "C" uint32_t PPPOE_PLUS_YdbcRun(void)
{
    return 0;
}
