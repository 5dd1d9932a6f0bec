// RS232Async end to end over a pty: queued sends, framed replies by callback, the queue limit,
// stopping and destroying links with their thread running.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quelworks/serial/rs232_async.h"
#include "support/pty_pair.h"

namespace {

using namespace std::chrono_literals;
using qwtest::Bytes;
using qwtest::bytesOf;

std::mutex repliesLock;
std::vector<Bytes> replies;
std::atomic<int> disconnects{0};
std::atomic<int> disconnectCode{-1};

void onReply(unsigned char* data, int length) {
    std::lock_guard<std::mutex> guard(repliesLock);
    replies.emplace_back(data, data + length);
}
void onDisconnect(int code) {
    disconnectCode = code;
    ++disconnects;
}
std::vector<Bytes> takeReplies() {
    std::lock_guard<std::mutex> guard(repliesLock);
    std::vector<Bytes> r;
    r.swap(replies);
    return r;
}
bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    auto until = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}
std::size_t replyCount() {
    std::lock_guard<std::mutex> guard(repliesLock);
    return replies.size();
}

class AsyncPty : public ::testing::Test {
protected:
    void SetUp() override {
        takeReplies();
        disconnects = 0;
        disconnectCode = -1;
        name_ = pty_.path();
        link_.ReceiveCallback = onReply;
        link_.DisconnectCallback = onDisconnect;
    }
    qwtest::PtyPair pty_;
    std::string name_;
    RS232Async link_;
};

TEST(RS232AsyncIdle, NeverConnected) {
    RS232Async link;
    EXPECT_TRUE(link.IsConnected());
    char text[] = "x";
    EXPECT_FALSE(link.Send(text));
    EXPECT_EQ(link.GetSendBufferUse(), 0);
    unsigned char buf[2] = {0xAB, 0xCD};
    unsigned char* data = buf;
    int length = 42;
    EXPECT_FALSE(link.Receive(buf, 2, 10));
    EXPECT_FALSE(link.Receive(&data, &length, 10));
    EXPECT_EQ(buf[0], 0xAB);
    EXPECT_EQ(data, buf);
    EXPECT_EQ(length, 42);
    EXPECT_EQ(link.AddCommand(0x10, 3), 1);
    EXPECT_EQ(link.AddCommand(0x10, 3), 0);
    link.Disconnect();  // harmless without a connection
}

TEST_F(AsyncPty, RepliesArriveOncePerRegisteredCommand) {
    link_.AddCommand(0x11, 3);
    link_.AddCommand(0x20, 1);
    ASSERT_TRUE(link_.Connect(name_.data()));
    EXPECT_TRUE(link_.IsConnected());
    qwtest::ScriptedPeer peer(pty_);
    peer.expect({0x11}).reply({0x11, 0x00, 0x2A}).delay(100ms).reply({0x20});
    peer.start();
    unsigned char request = 0x11;
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(link_.Send(&request, 1));
    ASSERT_TRUE(waitFor([] { return replyCount() >= 1; }, 3000ms));
    // One byte per 50 ms cycle: three bytes take at least three cycles.
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    EXPECT_GE(took.count(), 100);
    std::printf("[ measured ] 3-byte reply delivered after %lld ms\n",
                static_cast<long long>(took.count()));
    ASSERT_TRUE(waitFor([] { return replyCount() >= 2; }, 3000ms));
    EXPECT_TRUE(peer.finish()) << peer.error();
    std::this_thread::sleep_for(120ms);
    EXPECT_EQ(takeReplies(), (std::vector<Bytes>{{0x11, 0x00, 0x2A}, {0x20}}));
    EXPECT_EQ(disconnects.load(), 0);
}

TEST_F(AsyncPty, QueuedMessagesAllGoOut) {
    // A silent line holds every cycle for the 2 s read time-out; incoming bytes keep the cycles
    // at their 50 ms rhythm.
    pty_.write(Bytes(200, 0x41));
    ASSERT_TRUE(link_.Connect(name_.data()));
    std::vector<std::string> texts = {"alpha", "beta", "gamma", std::string(130, 'L')};
    for (std::string& t : texts) ASSERT_TRUE(link_.Send(t.data()));
    std::size_t total = 0;
    for (const std::string& t : texts) total += t.size();
    Bytes got = pty_.read(total, 4000ms);
    ASSERT_EQ(got.size(), total);
    // Order follows buffer addresses, so compare contents regardless of order.
    std::string all(got.begin(), got.end());
    for (const std::string& t : texts) EXPECT_NE(all.find(t), std::string::npos) << t;
    EXPECT_EQ(link_.GetSendBufferUse(), 0);
    link_.Disconnect();
    // The unknown bytes came back in pairs, one byte per cycle.
    for (const Bytes& reply : takeReplies()) EXPECT_EQ(reply, (Bytes{0x41, 0x41}));
}

TEST_F(AsyncPty, QueueHoldsAtMost101Messages) {
    ASSERT_TRUE(link_.Connect(name_.data()));
    std::this_thread::sleep_for(100ms);  // the thread now waits in its read of a silent line
    unsigned char byte = 0x55;
    int accepted = 0;
    for (int i = 0; i < 102; ++i) accepted += link_.Send(&byte, 1) ? 1 : 0;
    EXPECT_EQ(accepted, 101);
    EXPECT_GE(link_.GetSendBufferUse(), 100);
    link_.Disconnect();
    EXPECT_EQ(link_.GetSendBufferUse(), 0);
    EXPECT_FALSE(link_.Send(&byte, 1));
    EXPECT_EQ(disconnects.load(), 0);  // Disconnect() does not report
}

TEST_F(AsyncPty, DisconnectIsQuickAndSilent) {
    ASSERT_TRUE(link_.Connect(name_.data()));
    std::this_thread::sleep_for(60ms);
    auto start = std::chrono::steady_clock::now();
    link_.Disconnect();
    // Reconnecting waits for the old thread, which a closed port releases at once.
    ASSERT_TRUE(link_.Connect(name_.data()));
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(took, 1000ms);
    char text[] = "again";
    ASSERT_TRUE(link_.Send(text));
    EXPECT_EQ(pty_.read(5, 3000ms), bytesOf("again"));  // the first cycle may read first
    EXPECT_EQ(disconnects.load(), 0);
}

TEST_F(AsyncPty, DestroyingRunningLinksIsSafe) {
    const int before = qwtest::openDescriptorCount();
    // Incoming bytes keep the threads' reads short (a copy waits for the source's current read).
    pty_.write(Bytes(300, 0x41));
    for (int i = 0; i < 3; ++i) {
        RS232Async link;
        link.ReceiveCallback = onReply;
        ASSERT_TRUE(link.Connect(name_.data()));
        char text[] = "bye";
        link.Send(text);
        if (i == 1) link.Disconnect();  // destroyed right after Disconnect, or without it
        if (i == 2) {
            // A copy shares the port and the queued messages but not the thread.
            RS232Async copy(link);
            EXPECT_TRUE(copy.IsConnected());
        }
    }
    EXPECT_EQ(qwtest::openDescriptorCount(), before);
}

TEST_F(AsyncPty, DeviceGoingAwayDropsTheLinkWithCodeZero) {
    ASSERT_TRUE(link_.Connect(name_.data()));
    std::this_thread::sleep_for(50ms);
    pty_.hangUp();
    char text[] = "into the void";
    ASSERT_TRUE(waitFor(
        [&] {
            link_.Send(text);
            return disconnects.load() > 0;
        },
        3000ms));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(disconnects.load(), 1);
    EXPECT_EQ(disconnectCode.load(), 0);
    EXPECT_FALSE(link_.Send(text));
}

}  // namespace
