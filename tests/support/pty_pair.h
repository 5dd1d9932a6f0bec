// Test helpers for serial code: a pseudo-terminal pair and a scripted peer that plays the device
// on its master side.
//
//   qwtest::PtyPair pty;                       // the port to open is pty.path()
//   qwtest::ScriptedPeer peer(pty);
//   peer.expect({0x11}).reply({0x11, 0x00, 0x2A}).start();
//   ... drive an RS232 on pty.path() ...
//   EXPECT_TRUE(peer.finish()) << peer.error();
#ifndef QUELWORKS_TESTS_SUPPORT_PTY_PAIR_H
#define QUELWORKS_TESTS_SUPPORT_PTY_PAIR_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qwtest {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(const std::string& text);

// A pty pair. The slave side starts in raw mode and one descriptor to it stays open for the
// pair's lifetime (so the master never sees a hang-up between two opens of the port); the code
// under test opens the slave by path().
class PtyPair {
public:
    PtyPair();
    ~PtyPair() { hangUp(); }
    PtyPair(const PtyPair&) = delete;
    PtyPair& operator=(const PtyPair&) = delete;

    const std::string& path() const { return path_; }
    int master() const { return master_; }
    // A descriptor to the slave side, for inspecting the line settings the code under test set.
    int slaveHolder() const { return slave_; }

    // Writes all bytes to the master side (they arrive at the port).
    void write(const Bytes& bytes);
    // Reads from the master side until `count` bytes came or `timeout` passed; returns what came.
    Bytes read(std::size_t count, std::chrono::milliseconds timeout);
    // Closes both our ends: the code under test sees the device go away.
    void hangUp();

private:
    int master_ = -1;
    int slave_ = -1;
    std::string path_;
};

// Plays a script on the master side of a pty on its own thread: expected bytes in, replies out,
// delays and hang-up, in order.
class ScriptedPeer {
public:
    explicit ScriptedPeer(PtyPair& pty) : pty_(pty) {}
    ~ScriptedPeer();
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    // Waits (up to `timeout`) for exactly these bytes to arrive next.
    ScriptedPeer& expect(const Bytes& bytes,
                         std::chrono::milliseconds timeout = std::chrono::milliseconds(3000));
    ScriptedPeer& reply(const Bytes& bytes);
    ScriptedPeer& delay(std::chrono::milliseconds pause);
    ScriptedPeer& hangUp();

    void start();
    // Waits for the script to end; true when every step passed. After the script the peer keeps
    // reading what arrives until finish() is called.
    bool finish(std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
    std::string error() const;

private:
    void readSome(std::chrono::milliseconds wait);
    void fail(const std::string& message);

    PtyPair& pty_;
    std::vector<std::function<void()>> steps_;
    std::size_t step_ = 0;  // the step running
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> done_{false};
    mutable std::mutex lock_;
    Bytes received_;  // what arrived and no expect step has taken yet
    std::string error_;
    bool hungUp_ = false;
};

// Number of open descriptors of this process.
int openDescriptorCount();

}  // namespace qwtest

#endif  // QUELWORKS_TESTS_SUPPORT_PTY_PAIR_H
