#pragma once

#include <cstdint>
#include <string>

namespace vistrel::engine {

// Result codes of the capture engine's start and stop, shown to clients in replies.
enum EngineResult : uint32_t {
    kEngineDone = 0,
    kEngineError = 1,
    kEngineInvalidCommand = 2,
    kEngineAlreadyRunning = 3,
    kEngineAlreadyStopped = 4,
    kEngineRemainsRunning = 5,
    kEngineNotExecuted = 6,
};

// The client-visible text of an engine result (spelling kept as clients know it).
std::string result_text(uint32_t code);

}  // namespace vistrel::engine
