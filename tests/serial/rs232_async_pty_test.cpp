// RS232Async end to end over a pty: queued sends, framed replies by callback, the queue limit,
// stopping and destroying links with their thread running.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "quelworks/serial/rs232_async.h"
#include "support/pty_pair.h"

namespace {

using namespace std::chrono_literals;
using qwtest::Bytes;

std::mutex repliesLock;
std::vector<Bytes> replies;
std::atomic<int> disconnects{0};

void onReply(unsigned char* data, int length) {
    std::lock_guard<std::mutex> guard(repliesLock);
    replies.emplace_back(data, data + length);
}
void onDisconnect(int) {
    ++disconnects;
}
std::vector<Bytes> repliesSoFar() {
    std::lock_guard<std::mutex> guard(repliesLock);
    return replies;
}
template <typename Condition>
bool waitFor(Condition condition) {
    for (auto until = std::chrono::steady_clock::now() + 3s; !condition();) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

class AsyncPty : public ::testing::Test {
protected:
    void SetUp() override {
        replies.clear();
        disconnects = 0;
        link_.ReceiveCallback = onReply;
        link_.DisconnectCallback = onDisconnect;
    }
    qwtest::PtyPair pty_;
    std::string name_ = pty_.path();
    RS232Async link_;
};

TEST_F(AsyncPty, RepliesArriveOncePerRegisteredCommand) {
    link_.AddCommand(0x11, 3);
    link_.AddCommand(0x20, 1);
    ASSERT_TRUE(link_.Connect(name_.data()));
    qwtest::ScriptedPeer peer(pty_);
    peer.expect({0x11}).reply({0x11, 0x00, 0x2A}).delay(100ms).reply({0x20});
    peer.start();
    unsigned char request = 0x11;
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(link_.Send(&request, 1));
    ASSERT_TRUE(waitFor([] { return repliesSoFar().size() >= 1; }));
    // One byte per 50 ms cycle: three bytes take at least three cycles.
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::steady_clock::now() - start)
                          .count();
    EXPECT_GE(took, 100);
    std::printf("[ measured ] 3-byte reply delivered after %lld ms\n",
                static_cast<long long>(took));
    ASSERT_TRUE(waitFor([] { return repliesSoFar().size() >= 2; }));
    EXPECT_TRUE(peer.finish()) << peer.error();
    std::this_thread::sleep_for(120ms);
    EXPECT_EQ(repliesSoFar(), (std::vector<Bytes>{{0x11, 0x00, 0x2A}, {0x20}}));
    EXPECT_EQ(disconnects.load(), 0);
}

TEST_F(AsyncPty, QueueHoldsAtMost101MessagesAndDisconnectIsSilent) {
    ASSERT_TRUE(link_.Connect(name_.data()));
    std::this_thread::sleep_for(100ms);  // the thread now waits in its read of a silent line
    unsigned char byte = 0x55;
    int accepted = 0;
    for (int i = 0; i < 102; ++i) accepted += link_.Send(&byte, 1) ? 1 : 0;
    EXPECT_EQ(accepted, 101);
    auto start = std::chrono::steady_clock::now();
    link_.Disconnect();
    EXPECT_EQ(link_.GetSendBufferUse(), 0);
    EXPECT_FALSE(link_.Send(&byte, 1));
    EXPECT_TRUE(link_.IsConnected());  // always, by design
    // Reconnecting waits for the old thread, which a closed port releases at once.
    ASSERT_TRUE(link_.Connect(name_.data()));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1000ms);
    char text[] = "again";
    ASSERT_TRUE(link_.Send(text));
    EXPECT_EQ(pty_.read(5, 3000ms), qwtest::bytesOf("again"));
    EXPECT_EQ(disconnects.load(), 0);  // Disconnect() does not report
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
            // A copy shares the port, its name and the queued messages, not the thread; each is
            // released once.
            RS232Async copy(link);
            EXPECT_TRUE(copy.IsConnected());
        }
    }
    EXPECT_EQ(qwtest::openDescriptorCount(), before);
}

// A link may be deleted from inside its own ReceiveCallback, and the owner may delete a link
// while its DisconnectCallback reconnects it: the background thread never touches the freed link
// (AddressSanitizer and ThreadSanitizer watch these loops).
std::optional<RS232Async> selfDeleting;
std::atomic<int> callbacksDone{0};
void deleteLinkFromCallback(unsigned char*, int) {
    selfDeleting.reset();
    ++callbacksDone;
}

TEST(AsyncLifetime, DeletedInsideItsOwnReceiveCallback) {
    for (int round = 0; round < 10; ++round) {
        qwtest::PtyPair pty;
        std::string name = pty.path();
        callbacksDone = 0;
        selfDeleting.emplace();
        selfDeleting->AddCommand(0x41, 1);
        selfDeleting->ReceiveCallback = deleteLinkFromCallback;
        ASSERT_TRUE(selfDeleting->Connect(name.data()));
        pty.write({0x41, 0x41});
        ASSERT_TRUE(waitFor([] { return callbacksDone.load() == 1; }));
        std::this_thread::sleep_for(80ms);  // the thread's pause and next cycle would follow
        EXPECT_EQ(callbacksDone.load(), 1);
    }
}

std::optional<RS232Async> reconnecting;
std::string reconnectTo;
std::atomic<bool> inDisconnectCallback{false};
std::atomic<int> reconnectResults{0};
void reconnectFromCallback(int) {
    inDisconnectCallback = true;
    std::this_thread::sleep_for(2ms);
    if (reconnecting->Connect(reconnectTo.data())) ++reconnectResults;
}

TEST(AsyncLifetime, OwnerDeletesWhileTheDisconnectCallbackReconnects) {
    for (int round = 0; round < 10; ++round) {
        qwtest::PtyPair first;
        qwtest::PtyPair second;
        std::string name = first.path();
        reconnectTo = second.path();
        inDisconnectCallback = false;
        reconnecting.emplace();
        reconnecting->DisconnectCallback = reconnectFromCallback;
        ASSERT_TRUE(reconnecting->Connect(name.data()));
        first.hangUp();  // the next send fails: the thread drops the link and calls back
        unsigned char byte = 0x55;
        reconnecting->Send(&byte, 1);
        ASSERT_TRUE(waitFor([] { return inDisconnectCallback.load(); }));
        reconnecting.reset();  // races with the Connect on the background thread
    }
}

// After a failed send the thread disconnects the link while the owner does too.
TEST(AsyncLifetime, OwnerAndThreadDisconnectAtOnce) {
    for (int round = 0; round < 10; ++round) {
        qwtest::PtyPair pty;
        std::string name = pty.path();
        RS232Async link;
        ASSERT_TRUE(link.Connect(name.data()));
        pty.hangUp();
        unsigned char byte = 0x55;
        link.Send(&byte, 1);
        for (int i = 0; i < 20; ++i) {
            link.Disconnect();
            std::this_thread::sleep_for(3ms);
        }
    }
}

}  // namespace
