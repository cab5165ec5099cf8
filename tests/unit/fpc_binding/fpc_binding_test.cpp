// The fast-path binding against copies of the library that each lack one
// function: every wrapper then answers its fixed default, and the others
// stay bound. This suite does not link the library itself. Without the
// library at all every function is unbound, so each wrapper answers the
// same default; what the agent's start makes of that is the module's
// start-up suite's (startup_test.cpp, MissingChannelLibrary...).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "pplus_test.hpp"
#include "pppoe_plus_fpc.h"
#include "pppoe_plus_mem.h"

namespace {

constexpr const char *kSymbols[13] = {"FPC_ChannelGetIdByName", "FPC_ChannelDcSendByIdNoSem", "FpcMbufCopyPktToData",
                                      "FPC_ChannelCreate",      "FPC_ThreadInfoRegByName",    "FPC_EventRead",
                                      "FPC_ChannelDcRecv",      "MbufPktNewFromData",         "MbufPktAddHead",
                                      "MbufPktCutHead",         "FPC_GetDefaultDataRoomLen",  "FpcMbufFree",
                                      "FpcMbufPktCopy"};

// What each wrapper answers when its function is absent.
void ExpectDefault(size_t index)
{
    FpcMbuf dummy = {};
    FpcMbuf *out = nullptr;
    uint32_t flags = 0;
    uint8_t bytes[4] = {};
    switch (index) {
        case 0: EXPECT_EQ(PPPOE_PLUS_FpcChannelGetIdByName("channel/x"), 0xFFFFFFFFU); break;
        case 1: EXPECT_EQ(PPPOE_PLUS_FpcChannelDcSendByIdNoSem("thread/dpx", 0, 0x400000, &dummy), 1U); break;
        case 2: EXPECT_EQ(PPPOE_PLUS_FpcMbufCopyPktToData(&dummy, bytes, 0), 1U); break;
        case 3: EXPECT_EQ(PPPOE_PLUS_FpcChannelCreate("channel/x", 4), 0xFFFFFFFFU); break;
        case 4: EXPECT_EQ(PPPOE_PLUS_FpcThreadInfoRegByName("thread/x"), 1U); break;
        case 5: EXPECT_EQ(PPPOE_PLUS_FpcEventRead(&flags), 1U); break;
        case 6: EXPECT_EQ(PPPOE_PLUS_FpcChannelDcRecv(0, &out), 1U); break;
        case 7: EXPECT_EQ(PPPOE_PLUS_FpcMbufPktNewFromData(bytes, 4), nullptr); break;
        case 8: EXPECT_EQ(PPPOE_PLUS_FpcMbufPktAddHead(&dummy, 0), 1U); break;
        case 9: EXPECT_EQ(PPPOE_PLUS_FpcMbufPktCutHead(&dummy, 0), 1U); break;
        case 10: EXPECT_EQ(PPPOE_PLUS_FpcGetDefaultDataRoomLen(), 1U); break;
        case 11: PPPOE_PLUS_FpcMbufFree(&dummy); break;  // nothing happens
        case 12: EXPECT_EQ(PPPOE_PLUS_FpcMbufPktCopy(&dummy), nullptr); break;
        default: FAIL();
    }
}

}  // namespace

// One process per copy: a library opened as "../lib/libwick.so" stays
// loaded under that name, so a second copy could not be opened beside it.
class FpcBindingWithout : public testing::TestWithParam<size_t> {};

TEST_P(FpcBindingWithout, FallsBackToItsDefaultAndBindsTheRest)
{
    const size_t missing = GetParam();
    pplus_test::UseReadyWorld();
    ASSERT_EQ(PPPOE_PLUS_InitMemHandle(), 0U);
    const std::string bin = std::string(WICK_VARIANTS_DIR) + "/without-" + kSymbols[missing] + "/bin";
    ASSERT_EQ(chdir(bin.c_str()), 0) << bin;
    ASSERT_EQ(PPPOE_PLUS_InitFpcIntf(), 0U);
    // The binding's entries are thirteen function pointers in binding order
    // (its header pins the size), read here as such.
    void *entries[13];
    static_assert(sizeof(entries) == sizeof(PppoePlusFpcApi));
    std::memcpy(entries, &g_pppoePlusFpcApi, sizeof(entries));
    for (size_t i = 0; i < 13; i++) {
        EXPECT_EQ(entries[i] != nullptr, i != missing) << kSymbols[i];
    }
    ExpectDefault(missing);
}

INSTANTIATE_TEST_SUITE_P(EachFunction, FpcBindingWithout, testing::Range<size_t>(0, 13),
                         [](const testing::TestParamInfo<size_t> &param) {
                             return std::string(kSymbols[param.param]);
                         });
