// A fake serial backend for the link logic: any call can be made to fail, and every call is
// recorded. Linked instead of the real platform layer into qw_test_serial_fake.
#ifndef QUELWORKS_TESTS_SERIAL_FAKE_PLATFORM_H
#define QUELWORKS_TESTS_SERIAL_FAKE_PLATFORM_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "quelworks/serial/port_settings.h"

namespace fake {

struct Port {
    std::mutex lock;
    std::condition_variable wake;

    // Knobs.
    bool failSetState = false;
    bool failGetTimeouts = false;
    bool failSetTimeouts = false;
    int writesBeforeFailure = -1;                // -1: writes never fail
    std::chrono::milliseconds emptyReadTime{0};  // how long a read with no input waits
    std::deque<std::uint8_t> input;              // bytes the next reads deliver

    // Records.
    std::vector<std::string> calls;  // function names, in order
    std::vector<std::string> openedPaths;
    std::vector<void*> closedHandles;
    std::set<void*> openHandles;
    std::vector<std::vector<std::uint8_t>> writes;
    std::vector<const void*> writeSources;
    quelworks::DeviceControlBlock lastSetState{};
    quelworks::CommTimeouts timeouts{};
    std::uintptr_t nextHandle = 0x1000;

    int count(const std::string& call) const;
};

// The one fake port; reset() puts it back into its initial state.
Port& port();
void reset();

}  // namespace fake

#endif  // QUELWORKS_TESTS_SERIAL_FAKE_PLATFORM_H
