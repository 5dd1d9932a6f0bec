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
    ~PtyPair();
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
    // Reads whatever arrives until the line has been quiet for `quiet`.
    Bytes drain(std::chrono::milliseconds quiet);
    // Closes both our ends: the code under test sees the device go away.
    void hangUp();

private:
    int master_ = -1;
    int slave_ = -1;
    std::string path_;
};

// Plays a script on the master side of a pty on its own thread: expected bytes in, replies out,
// delays, silence and hang-up, in order. Everything the peer reads is kept.
class ScriptedPeer {
public:
    explicit ScriptedPeer(PtyPair& pty);
    ~ScriptedPeer();
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    // Waits (up to `timeout`) for exactly these bytes to arrive next.
    ScriptedPeer& expect(const Bytes& bytes,
                         std::chrono::milliseconds timeout = std::chrono::milliseconds(3000));
    ScriptedPeer& reply(const Bytes& bytes);
    ScriptedPeer& delay(std::chrono::milliseconds pause);
    ScriptedPeer& hangUp();
    // Runs `step` on the peer's thread; a false result fails the script with `what`.
    ScriptedPeer& call(std::function<bool()> step, const std::string& what);

    void start();
    // Waits for the script to end; true when every step passed. After the script the peer keeps
    // collecting what arrives until finish() is called.
    bool finish(std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
    std::string error() const;
    // Every byte the peer has read so far.
    Bytes received() const;

private:
    struct Step {
        enum Kind { Expect, Reply, Delay, HangUp, Call } kind;
        Bytes bytes;
        std::chrono::milliseconds time{0};
        std::function<bool()> fn;
        std::string what;
    };
    void run();
    bool readSome(std::chrono::milliseconds wait);

    PtyPair& pty_;
    std::vector<Step> steps_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> done_{false};
    mutable std::mutex lock_;
    Bytes received_;
    std::size_t consumed_ = 0;
    std::string error_;
    bool hungUp_ = false;
};

// Number of open descriptors of this process.
int openDescriptorCount();

}  // namespace qwtest

#endif  // QUELWORKS_TESTS_SUPPORT_PTY_PAIR_H
