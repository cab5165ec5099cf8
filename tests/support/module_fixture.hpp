// A ready world with the module's memory and agent handles in place and the
// board as HA master, so diagnostic logs reach the sink. Header-only: only
// suites that link the module include it.
#pragma once

#include <gtest/gtest.h>

#include "pplus_test.hpp"
#include "pppoe_plus_ha.h"
#include "pppoe_plus_log.h"
#include "pppoe_plus_mem.h"

namespace pplus_test {

class ModuleTest : public testing::Test {
protected:
    void SetUp() override
    {
        UseReadyWorld();
        ASSERT_EQ(PPPOE_PLUS_InitMemHandle(), 0U);
        ASSERT_EQ(PPPOE_PLUS_InitIMAgent(), 0U);
        g_pplusHaRole = PPPOE_PLUS_HA_ROLE_MASTER;
    }
};

}  // namespace pplus_test
