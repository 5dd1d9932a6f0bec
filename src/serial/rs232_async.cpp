// RS232Async: the queued serial link with its background thread.
//
// Beyond the plain design, three locks keep the two threads apart without changing what goes
// over the line: one for the send queue, one for the framer, and one held around every use of the
// port. A blocked read is interrupted before the caller's thread takes the port lock, so closing
// never waits for a read time-out. The object that started a thread owns it and joins it before
// it is destroyed or starts another.
#include "quelworks/serial/rs232_async.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "platform/serial_port.h"
#include "serial/shared_blocks.h"

namespace quelworks::detail {

struct AsyncLinkState {
    std::mutex queueLock;
    std::mutex framerLock;
    std::mutex portLock;
    std::mutex sleepLock;
    std::condition_variable wake;  // ends the 50 ms pause early when the link stops
    std::thread worker;
    // Bumped whenever a thread is started, so that a thread left over from an earlier Connect
    // stops even if `running` is set again.
    std::atomic<unsigned> generation{0};
    // Mirror of port.IsConnected(), readable without waiting for the port lock.
    std::atomic<bool> portOpen{false};
    // The handle the running thread uses, for interrupting it.
    std::atomic<void*> activeHandle{nullptr};
};

}  // namespace quelworks::detail

namespace {

using quelworks::detail::AsyncLinkState;
using quelworks::detail::releaseBlock;

constexpr int kMaxQueuedBeforeRefusing = 100;  // more than 100 waiting: the 102nd is refused
constexpr int kReadTimeoutMs = 1000;
constexpr auto kCyclePause = std::chrono::milliseconds(50);

void releaseQueued(std::map<unsigned char*, std::int32_t>& queue) {
    for (auto& entry : queue) releaseBlock(entry.first);
    queue.clear();
}

void retainQueued(const std::map<unsigned char*, std::int32_t>& queue) {
    for (const auto& entry : queue) quelworks::detail::retainBlock(entry.first);
}

// The link whose background thread is the current thread, if any.
thread_local const AsyncLinkState* currentWorker = nullptr;

int threadEntry(RS232Async* link, const AsyncLinkState* state) {
    currentWorker = state;
    link->SendReceiveRoutine();
    return 0;
}

}  // namespace

RS232Async::RS232Async()
    : framer(),
      sendQueue(),
      port(),
      threadHandle(nullptr),
      running(0),
      ReceiveCallback(nullptr),
      DisconnectCallback(nullptr),
      state(new AsyncLinkState) {}

RS232Async::RS232Async(const RS232Async& other)
    : Communicator(other),
      threadHandle(other.threadHandle),
      running(other.running.load()),
      ReceiveCallback(other.ReceiveCallback),
      DisconnectCallback(other.DisconnectCallback),
      state(new AsyncLinkState) {
    {
        std::lock_guard<std::mutex> guard(other.state->framerLock);
        framer = other.framer;
    }
    {
        std::lock_guard<std::mutex> guard(other.state->queueLock);
        sendQueue = other.sendQueue;
        retainQueued(sendQueue);
    }
    {
        std::lock_guard<std::mutex> guard(other.state->portLock);
        port = other.port;
    }
    state->portOpen = port.IsConnected();
    state->activeHandle = port.portHandle;
}

RS232Async::RS232Async(RS232Async&& other) noexcept
    : Communicator(other),
      threadHandle(other.threadHandle),
      running(other.running.load()),
      ReceiveCallback(other.ReceiveCallback),
      DisconnectCallback(other.DisconnectCallback),
      state(new AsyncLinkState) {
    {
        std::lock_guard<std::mutex> guard(other.state->framerLock);
        framer = std::move(other.framer);
    }
    {
        std::lock_guard<std::mutex> guard(other.state->queueLock);
        sendQueue.swap(other.sendQueue);
    }
    {
        std::lock_guard<std::mutex> guard(other.state->portLock);
        port = other.port;
    }
    state->portOpen = port.IsConnected();
    state->activeHandle = port.portHandle;
}

void RS232Async::assignLinkFrom(const RS232Async& other) {
    {
        std::scoped_lock guard(state->portLock, other.state->portLock);
        port = other.port;
        state->portOpen = port.IsConnected();
        state->activeHandle = port.portHandle;
    }
    threadHandle = other.threadHandle;
    running = other.running.load();
    ReceiveCallback = other.ReceiveCallback;
    DisconnectCallback = other.DisconnectCallback;
}

RS232Async& RS232Async::operator=(const RS232Async& other) {
    if (this == &other) return *this;
    {
        std::scoped_lock guard(state->framerLock, other.state->framerLock);
        framer = other.framer;
    }
    {
        std::scoped_lock guard(state->queueLock, other.state->queueLock);
        releaseQueued(sendQueue);
        sendQueue = other.sendQueue;
        retainQueued(sendQueue);
    }
    assignLinkFrom(other);
    return *this;
}

RS232Async& RS232Async::operator=(RS232Async&& other) noexcept {
    if (this == &other) return *this;
    {
        std::scoped_lock guard(state->framerLock, other.state->framerLock);
        framer = std::move(other.framer);
    }
    {
        std::scoped_lock guard(state->queueLock, other.state->queueLock);
        releaseQueued(sendQueue);
        sendQueue.swap(other.sendQueue);
    }
    assignLinkFrom(other);
    return *this;
}

RS232Async::~RS232Async() {
    running = 0;
    state->wake.notify_all();
    quelworks::detail::interruptPort(state->activeHandle.load());
    if (state->worker.joinable()) {
        if (currentWorker == state) {
            state->worker.detach();  // destroyed from its own callback: nothing left to wait for
        } else {
            state->worker.join();
        }
    }
    {
        std::lock_guard<std::mutex> guard(state->queueLock);
        releaseQueued(sendQueue);
    }
    delete state;
    // The port (name released, then closed) and the framer go with their members.
}

bool RS232Async::IsConnected() {
    return true;
}

bool RS232Async::Connect(char* portName) {
    const bool onWorker = currentWorker == state;
    // Stop a thread from an earlier Connect before the port changes under it.
    ++state->generation;
    running = 0;
    threadHandle = nullptr;
    state->wake.notify_all();
    if (!onWorker) quelworks::detail::interruptPort(state->activeHandle.load());
    if (state->worker.joinable()) {
        if (onWorker) {
            state->worker.detach();
        } else {
            state->worker.join();
        }
    }
    {
        std::lock_guard<std::mutex> guard(state->portLock);
        if (port.IsConnected()) port.Disconnect();
        state->portOpen = false;
    }
    try {
        bool opened;
        {
            std::lock_guard<std::mutex> guard(state->portLock);
            opened = port.Connect(portName);
            state->portOpen = port.IsConnected();
            state->activeHandle = port.portHandle;
        }
        if (!opened) return false;
        {
            std::lock_guard<std::mutex> guard(state->queueLock);
            releaseQueued(sendQueue);
        }
        running = 1;
        state->worker = std::thread(threadEntry, this, state);
        threadHandle = &state->worker;
        return true;
    } catch (...) {
        Disconnect(2);
        return false;
    }
}

void RS232Async::Disconnect() {
    {
        std::lock_guard<std::mutex> guard(state->queueLock);
        releaseQueued(sendQueue);
    }
    running = 0;
    threadHandle = nullptr;
    state->wake.notify_all();
    const bool onWorker = currentWorker == state;
    if (!onWorker) quelworks::detail::interruptPort(state->activeHandle.load());
    std::lock_guard<std::mutex> guard(state->portLock);
    port.Disconnect();
    state->portOpen = false;
}

void RS232Async::Disconnect(int code) {
    Disconnect();
    if (DisconnectCallback != nullptr) DisconnectCallback(code);
}

bool RS232Async::Send(char* text) {
    if (text == nullptr) return Send(static_cast<unsigned char*>(nullptr), 0);
    return Send(reinterpret_cast<unsigned char*>(text), static_cast<int>(std::strlen(text)));
}

bool RS232Async::Send(unsigned char* data, int length) {
    if (!state->portOpen) return false;
    std::lock_guard<std::mutex> guard(state->queueLock);
    if (sendQueue.size() > static_cast<std::size_t>(kMaxQueuedBeforeRefusing)) return false;
    // A negative length yields no block, as an impossible allocation would.
    unsigned char* block = nullptr;
    if (length >= 0) {
        block = static_cast<unsigned char*>(std::calloc(static_cast<std::size_t>(length), 1));
        if (block != nullptr && length > 0 && data != nullptr)
            std::memcpy(block, data, static_cast<std::size_t>(length));
        quelworks::detail::adoptBlock(block);
    }
    auto it = sendQueue.find(block);
    if (it != sendQueue.end()) {
        it->second = length;  // only a null block can be queued twice
    } else {
        sendQueue.emplace(block, length);
    }
    return true;
}

bool RS232Async::Receive(unsigned char*, int, int) {
    return false;
}

bool RS232Async::Receive(unsigned char**, int*, int) {
    return false;
}

int RS232Async::AddCommand(unsigned char command, int expected) {
    std::lock_guard<std::mutex> guard(state->framerLock);
    return framer.AddCommand(command, expected);
}

void RS232Async::DeleteCommand(unsigned char command) {
    std::lock_guard<std::mutex> guard(state->framerLock);
    framer.DeleteCommand(command);
}

int RS232Async::GetSendBufferUse() {
    std::lock_guard<std::mutex> guard(state->queueLock);
    return static_cast<int>(sendQueue.size());
}

void RS232Async::SendReceiveRoutine() {
    const unsigned generation = state->generation.load();
    auto keepGoing = [&] { return running != 0 && state->generation.load() == generation; };
    unsigned char* lastSent = nullptr;
    while (keepGoing()) {
        // 1. At most one message out: the one at the lowest address.
        unsigned char* message = nullptr;
        std::int32_t length = 0;
        bool taken = false;
        {
            std::lock_guard<std::mutex> guard(state->queueLock);
            if (!sendQueue.empty()) {
                auto first = sendQueue.begin();
                message = first->first;
                length = first->second;
                sendQueue.erase(first);
                taken = true;
            }
        }
        if (taken) {
            releaseBlock(lastSent);
            lastSent = message;
            if (message != nullptr) {
                bool sent;
                {
                    std::lock_guard<std::mutex> guard(state->portLock);
                    sent = port.Send(message, length);
                }
                if (!sent) {
                    // A send that failed because the link is being stopped is not a drop.
                    if (keepGoing()) {
                        Disconnect();
                        if (DisconnectCallback != nullptr) DisconnectCallback(0);
                    }
                    break;
                }
            }
        } else {
            releaseBlock(lastSent);
            lastSent = nullptr;
        }

        // 2. At most one byte in, handed to the framer.
        unsigned char byte = 0;
        bool received;
        {
            std::lock_guard<std::mutex> guard(state->portLock);
            received = port.Receive(&byte, 1, kReadTimeoutMs);
        }
        if (received) {
            std::vector<unsigned char> reply;
            {
                std::lock_guard<std::mutex> guard(state->framerLock);
                reply = framer.AddToBuffer(byte);
            }
            if (!reply.empty()) {
                auto* block = static_cast<unsigned char*>(std::calloc(reply.size(), 1));
                if (block != nullptr) {
                    std::memcpy(block, reply.data(), reply.size());
                    if (ReceiveCallback != nullptr)
                        ReceiveCallback(block, static_cast<int>(reply.size()));
                    std::free(block);
                }
            }
        }

        // 3. The pause between cycles.
        std::unique_lock<std::mutex> pause(state->sleepLock);
        state->wake.wait_for(pause, kCyclePause, [&] { return !keepGoing(); });
    }
    releaseBlock(lastSent);
}
