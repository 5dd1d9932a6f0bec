// A simulated device served on a pty by a thread of the test, for driving a real Bootloader.
#ifndef QUELWORKS_TESTS_BOOTLOADER_DEVICE_FIXTURE_H
#define QUELWORKS_TESTS_BOOTLOADER_DEVICE_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "pty_server.h"

namespace qwtest {

using Bytes = std::vector<std::uint8_t>;
using quelworks::devsim::Device;
using quelworks::devsim::DeviceConfig;

// Time-out of every Bootloader in these tests. Replies come within milliseconds; the time-out
// only bounds how long a test waits for a reply that is meant not to come.
constexpr int kTimeoutMs = 400;

inline Bytes bytes(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

// The identity queries in the order the client sends them.
inline Bytes identityRequests() {
    return {0x17, 0x11, 0x14, 0x16, 0x1A, 0x15, 0x19, 0x18, 0x1C};
}

class DeviceTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (server_) server_->stop();
        for (const std::string& file : files_) std::remove(file.c_str());
    }

    // Starts the device; port() is the path to open.
    void start(DeviceConfig config = DeviceConfig{}) {
        server_ = std::make_unique<quelworks::devsim::PtyServer>(config);
        std::string error;
        ASSERT_TRUE(server_->open(&error)) << error;
        port_.assign(server_->portPath().begin(), server_->portPath().end());
        port_.push_back('\0');
        server_->start();
    }

    char* port() { return port_.data(); }
    std::string portPath() const { return server_->portPath(); }

    // Every byte the device received since start (or the last forget()).
    Bytes seen() {
        return server_->withDevice([](Device& d) { return d.received(); });
    }
    void forget() {
        server_->withDevice([](Device& d) {
            d.clearReceived();
            return 0;
        });
    }
    template <typename F>
    auto device(F&& f) {
        return server_->withDevice(std::forward<F>(f));
    }

    // A file with these bytes, removed after the test.
    std::string writeFile(const Bytes& content) {
        std::string path = ::testing::TempDir() + "qw_boot_" +
                           ::testing::UnitTest::GetInstance()->current_test_info()->name() + "_" +
                           std::to_string(files_.size()) + ".bin";
        std::FILE* f = std::fopen(path.c_str(), "wb");
        EXPECT_NE(f, nullptr);
        if (f != nullptr) {
            if (!content.empty()) std::fwrite(content.data(), 1, content.size(), f);
            std::fclose(f);
        }
        files_.push_back(path);
        return path;
    }

private:
    std::unique_ptr<quelworks::devsim::PtyServer> server_;
    std::vector<char> port_;
    std::vector<std::string> files_;
};

// Bytes 0, 1, 2, ... of a recognisable pattern.
inline Bytes pattern(std::size_t size, unsigned seed = 7) {
    Bytes data(size);
    unsigned x = seed;
    for (auto& b : data) {
        x = x * 1103515245u + 12345u;
        b = static_cast<std::uint8_t>(x >> 16);
    }
    return data;
}

}  // namespace qwtest

#endif  // QUELWORKS_TESTS_BOOTLOADER_DEVICE_FIXTURE_H
