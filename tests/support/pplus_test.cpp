#include "pplus_test.hpp"

namespace pplus_test {

void UseReadyWorld(uint32_t selfBoard, uint32_t mainBoard)
{
    platform::world::Reset();
    platform::world::SetIdentity({.sysName = "TestSwitch",
                                  .sysMac = {0x00, 0xe0, 0xfc, 0x01, 0x02, 0x03},
                                  .selfBoardId = selfBoard,
                                  .mainBoardId = mainBoard});
    platform::world::FrmInstPut(
        {.modState = selfBoard == mainBoard ? 12U : 8U, .localSlot = static_cast<int32_t>(selfBoard)});
    platform::world::SetDevmReady(true);
    PLAT_SetTimeScale(1);
}

bool WaitFor(const std::function<bool()> &pred, uint32_t timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

uint64_t LogInOrder(uint32_t kind, std::initializer_list<const char *> texts)
{
    uint64_t seq = 0;
    for (const char *text : texts) {
        seq = PLAT_LogFind(kind, text, seq + 1);
        if (seq == 0) {
            return 0;
        }
    }
    return seq;
}

}  // namespace pplus_test
