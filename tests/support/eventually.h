#pragma once

#include <chrono>
#include <thread>

namespace vistrel::testing {

// Polls `done` every 50 ms until it holds or `seconds` have passed; the last look decides.
template <typename Condition>
bool eventually(Condition done, int seconds = 60) {
    for (int i = 0; i < seconds * 20; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return done();
}

}  // namespace vistrel::testing
