// Diagnostic records and debug lines of the information-management agent.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>

#include "im_agent.h"
#include "platform/control.h"

namespace {

const IM_AGENT_LOG_ID_S kIds[] = {
    {0x100, 1, "MOD_LOG_ID_DEBUG", "Module debug information. (Info=[Info])", "[STRING]"},
    {0x101, 1, "MOD_LOG_ID_PORT", "Port [Info] changed.", "[UINT32][STRING]"},
};

std::string LastLine()
{
    std::string last;
    PLAT_LogVisit([](uint32_t, uint64_t, const char *line, void *arg) { *static_cast<std::string *>(arg) = line; },
                  &last);
    return last;
}

}  // namespace

TEST(ImAgent, RecordsRenderTheFirstStringIntoTheDescription)
{
    EXPECT_EQ(IM_Agent_GetHandle(nullptr, kIds, 2), nullptr);
    EXPECT_EQ(IM_Agent_GetHandle("mod", nullptr, 2), nullptr);
    IM_AGENT_HANDLE_S *h = IM_Agent_GetHandle("mod", kIds, 2);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(IM_Agent_GetHandle("mod", kIds, 2), h);
    EXPECT_EQ(IM_Agent_ObjCreate(h, 0x999), nullptr);
    EXPECT_EQ(IM_Agent_ObjCreate(nullptr, 0x100), nullptr);

    IM_AGENT_OBJ_S *obj = IM_Agent_ObjCreate(h, 0x101);
    ASSERT_NE(obj, nullptr);
    const uint32_t port = 7;
    const uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_NE(IM_Agent_AddPara(obj, IM_AGENT_PARA_UINT32, 2, &port), 0U);
    EXPECT_NE(IM_Agent_AddPara(obj, IM_AGENT_PARA_MAC, 4, mac), 0U);
    EXPECT_NE(IM_Agent_AddPara(obj, 99, 4, &port), 0U);
    EXPECT_NE(IM_Agent_AddPara(obj, IM_AGENT_PARA_STRING, 3, nullptr), 0U);
    EXPECT_EQ(IM_Agent_AddPara(obj, IM_AGENT_PARA_UINT32, 4, &port), 0U);
    EXPECT_EQ(IM_Agent_AddPara(obj, IM_AGENT_PARA_MAC, 6, mac), 0U);
    EXPECT_EQ(IM_Agent_AddPara(obj, IM_AGENT_PARA_STRING, 9, "eth 0/1\0junk"), 0U);
    EXPECT_EQ(IM_Agent_AddPara(obj, IM_AGENT_PARA_STRING, 6, "second"), 0U);
    EXPECT_EQ(IM_Agent_Send(obj), 0U);
    EXPECT_EQ(LastLine(), "MOD_LOG_ID_PORT Port eth 0/1 changed.");
    EXPECT_EQ(IM_Agent_ObjFree(obj), 0U);
    EXPECT_NE(IM_Agent_ObjFree(obj), 0U);  // freed twice: refused
    EXPECT_NE(IM_Agent_Send(obj), 0U);

    // Texts of every length show whole, and a reused record shows its own.
    for (const size_t length : {159U, 160U, 161U, 700U, 3U}) {
        const std::string text(length, static_cast<char>('a' + length % 26));
        obj = IM_Agent_ObjCreate(h, 0x101);
        ASSERT_NE(obj, nullptr);
        EXPECT_EQ(IM_Agent_AddPara(obj, IM_AGENT_PARA_STRING, static_cast<uint32_t>(length), text.c_str()), 0U);
        EXPECT_EQ(IM_Agent_Send(obj), 0U);
        EXPECT_EQ(LastLine(), "MOD_LOG_ID_PORT Port " + text + " changed.") << length;
        EXPECT_EQ(IM_Agent_ObjFree(obj), 0U);
    }
}

TEST(ImAgent, DebugLinesDropTheVsidDirective)
{
    IM_AGENT_HANDLE_S *h = IM_Agent_GetHandle("mod", kIds, 2);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(IM_Agent_Debug(h, 0x478BC26CU, "MOD", "%_VSID[%s] value %d%%%_VSID", "T", 5), 0U);
    EXPECT_EQ(LastLine(), "0x478bc26c [T] value 5%");
    EXPECT_NE(IM_Agent_Debug(nullptr, 1, "MOD", "x"), 0U);
    EXPECT_NE(IM_Agent_Debug(h, 1, "MOD", nullptr), 0U);
}

TEST(ImAgent, PointersThatAreNoRecordAreRefusedWithoutBeingRead)
{
    IM_AGENT_HANDLE_S *h = IM_Agent_GetHandle("mod", kIds, 2);
    ASSERT_NE(h, nullptr);
    IM_AGENT_OBJ_S *obj = IM_Agent_ObjCreate(h, 0x100);
    ASSERT_NE(obj, nullptr);
    // A foreign pointer, one inside a record and a handle used as a record.
    alignas(64) unsigned char foreign[256] = {};
    auto *inside = reinterpret_cast<IM_AGENT_OBJ_S *>(reinterpret_cast<unsigned char *>(obj) + 8);
    for (IM_AGENT_OBJ_S *bad :
         {reinterpret_cast<IM_AGENT_OBJ_S *>(foreign), inside, reinterpret_cast<IM_AGENT_OBJ_S *>(h)}) {
        EXPECT_NE(IM_Agent_AddPara(bad, IM_AGENT_PARA_STRING, 1, "x"), 0U);
        EXPECT_NE(IM_Agent_Send(bad), 0U);
        EXPECT_NE(IM_Agent_ObjFree(bad), 0U);
    }
    EXPECT_EQ(IM_Agent_ObjCreate(reinterpret_cast<IM_AGENT_HANDLE_S *>(foreign), 0x100), nullptr);
    EXPECT_EQ(IM_Agent_ObjFree(obj), 0U);

    // A record freed on another thread is reused without what it carried.
    obj = IM_Agent_ObjCreate(h, 0x100);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(IM_Agent_AddPara(obj, IM_AGENT_PARA_STRING, 5, "stale"), 0U);
    std::thread([obj]() { EXPECT_EQ(IM_Agent_ObjFree(obj), 0U); }).join();
    EXPECT_NE(IM_Agent_Send(obj), 0U);
    std::thread([h]() {
        IM_AGENT_OBJ_S *again = IM_Agent_ObjCreate(h, 0x100);
        ASSERT_NE(again, nullptr);
        EXPECT_EQ(IM_Agent_Send(again), 0U);
        EXPECT_EQ(IM_Agent_ObjFree(again), 0U);
    }).join();
    EXPECT_EQ(LastLine(), "MOD_LOG_ID_DEBUG Module debug information. (Info=[Info])");
}
