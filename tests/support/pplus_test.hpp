// Helpers shared by the suites: a ready world, log look-ups, waiting.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "platform/control.h"
#include "platform/world.hpp"

namespace pplus_test {

// A single-box switch whose device database answers and whose framework
// instance is ready; delays run at 1/1000 of real time.
void UseReadyWorld(uint32_t selfBoard = 1, uint32_t mainBoard = 1);

// Polls pred every millisecond until it holds or timeoutMs (real time) passes.
bool WaitFor(const std::function<bool()> &pred, uint32_t timeoutMs = 5000);

inline uint32_t LogCount(uint32_t kind, const std::string &text)
{
    return PLAT_LogCount(kind, text.c_str());
}

inline bool LogHas(uint32_t kind, const std::string &text)
{
    return LogCount(kind, text) != 0;
}

// Sequence numbers of texts, in the order given, each after the previous;
// 0 when one is missing.
uint64_t LogInOrder(uint32_t kind, std::initializer_list<const char *> texts);

}  // namespace pplus_test
