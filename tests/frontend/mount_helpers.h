// What the front end's tests and its soak both ask of the system: is a
// directory mounted, and waiting for something with a limit.
#pragma once

#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

namespace fetest {

using Clock = std::chrono::steady_clock;

inline bool mounted(const std::string &dir)
{
    std::ifstream in("/proc/mounts");
    std::string device, point, rest;
    while (in >> device >> point && std::getline(in, rest)) {
        if (point == dir) {
            return true;
        }
    }
    return false;
}

// Polls `done` every 10 ms for up to `seconds`.
inline bool eventually(const std::function<bool()> &done, double seconds = 5)
{
    auto end = Clock::now() + std::chrono::milliseconds(long(seconds * 1000));
    while (!done()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

} // namespace fetest
