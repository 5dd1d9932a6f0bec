// RS232Async: the queued serial link with its background thread.
//
// Beyond the plain design, three locks keep the two threads apart without changing what goes
// over the line: one for the send queue, one for the framer, and one held around every use of the
// port. A blocked read is interrupted before the caller's thread takes the port lock, so closing
// never waits for a read time-out. The object that started a thread owns it and joins it before
// it is destroyed or starts another.
//
// The state the background thread works with is reference-counted: the thread holds a reference
// of its own, so a link deleted from inside its own callback leaves the state alive until the
// thread has seen, through it, that the link is gone (it then touches nothing of the link again).
// Starting and stopping threads, and threadHandle, are guarded by one lock; a link being destroyed
// refuses every further Connect, and its destructor waits for every thread it started.
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
    // Thread start and stop, threadHandle, and the two flags and the count below.
    std::mutex lifecycleLock;
    std::condition_variable threadsDone;
    bool destroying = false;  // the destructor has begun: Connect refuses
    int activeThreads = 0;    // threads started and not yet finished (detached ones included)
    // Set when the link was destroyed from its own background thread: that thread returns from
    // the callback to find the link gone and must not touch it again.
    std::atomic<bool> linkGone{false};
    std::atomic<int> references{1};  // the link's own, plus one for each running thread
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

void releaseState(AsyncLinkState* state) {
    if (state->references.fetch_sub(1) == 1) delete state;
}

int threadEntry(RS232Async* link, AsyncLinkState* state) {
    currentWorker = state;
    link->SendReceiveRoutine();
    currentWorker = nullptr;
    {
        std::lock_guard<std::mutex> guard(state->lifecycleLock);
        --state->activeThreads;
    }
    state->threadsDone.notify_all();
    releaseState(state);
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
      threadHandle(nullptr),
      running(other.running.load()),
      ReceiveCallback(other.ReceiveCallback),
      DisconnectCallback(other.DisconnectCallback),
      state(new AsyncLinkState) {
    {
        std::lock_guard<std::mutex> guard(other.state->lifecycleLock);
        threadHandle = other.threadHandle;
    }
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
      threadHandle(nullptr),
      running(other.running.load()),
      ReceiveCallback(other.ReceiveCallback),
      DisconnectCallback(other.DisconnectCallback),
      state(new AsyncLinkState) {
    {
        std::lock_guard<std::mutex> guard(other.state->lifecycleLock);
        threadHandle = other.threadHandle;
    }
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
    {
        std::scoped_lock guard(state->lifecycleLock, other.state->lifecycleLock);
        threadHandle = other.threadHandle;
    }
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
    AsyncLinkState* const st = state;
    const bool onWorker = currentWorker == st;
    std::thread worker;
    {
        std::lock_guard<std::mutex> guard(st->lifecycleLock);
        st->destroying = true;
        running = 0;
        worker = std::move(st->worker);
    }
    st->wake.notify_all();
    if (worker.joinable()) {
        if (worker.get_id() == std::this_thread::get_id()) {
            worker.detach();  // destroyed from its own callback: nothing left to wait for
        } else {
            quelworks::detail::interruptPort(st->activeHandle.load());
            worker.join();
        }
    }
    if (onWorker) st->linkGone = true;
    {
        // Threads an earlier Connect left to finish on their own (detached when it ran on one of
        // them) may still be on their way out: wait for all but the current one.
        std::unique_lock<std::mutex> guard(st->lifecycleLock);
        st->threadsDone.wait(guard, [&] { return st->activeThreads <= (onWorker ? 1 : 0); });
    }
    {
        std::lock_guard<std::mutex> guard(st->queueLock);
        releaseQueued(sendQueue);
    }
    releaseState(st);
    // The port (name released, then closed) and the framer go with their members.
}

bool RS232Async::IsConnected() {
    return true;
}

bool RS232Async::Connect(char* portName) {
    AsyncLinkState* const st = state;
    const bool onWorker = currentWorker == st;
    // Stop a thread from an earlier Connect before the port changes under it.
    std::thread old;
    {
        std::lock_guard<std::mutex> guard(st->lifecycleLock);
        if (st->destroying) return false;
        ++st->generation;
        running = 0;
        threadHandle = nullptr;
        old = std::move(st->worker);
    }
    st->wake.notify_all();
    if (old.joinable()) {
        if (old.get_id() == std::this_thread::get_id()) {
            old.detach();
        } else {
            quelworks::detail::interruptPort(st->activeHandle.load());
            old.join();
        }
    } else if (!onWorker) {
        quelworks::detail::interruptPort(st->activeHandle.load());
    }
    {
        std::lock_guard<std::mutex> guard(st->portLock);
        if (port.IsConnected()) port.Disconnect();
        st->portOpen = false;
    }
    try {
        bool opened;
        {
            std::lock_guard<std::mutex> guard(st->portLock);
            opened = port.Connect(portName);
            st->portOpen = port.IsConnected();
            st->activeHandle = port.portHandle;
        }
        if (!opened) return false;
        {
            std::lock_guard<std::mutex> guard(st->queueLock);
            releaseQueued(sendQueue);
        }
        std::thread replaced;
        {
            std::lock_guard<std::mutex> guard(st->lifecycleLock);
            if (st->destroying) return false;
            // Another Connect may have started a thread meanwhile: this one takes over.
            ++st->generation;
            replaced = std::move(st->worker);
            running = 1;
            ++st->activeThreads;
            ++st->references;
            // Through a lambda, whose type is local to this file: a thread started on the function
            // itself would instantiate (and export) std::thread internals over the internal state
            // type.
            st->worker = std::thread([this, st] { threadEntry(this, st); });
            threadHandle = &st->worker;
        }
        if (replaced.joinable()) replaced.join();
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
    {
        std::lock_guard<std::mutex> guard(state->lifecycleLock);
        running = 0;
        threadHandle = nullptr;
    }
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
    AsyncLinkState* const st = state;
    const unsigned generation = st->generation.load();
    // Checked before anything of the link is read: once the link is gone, only `st` is left.
    auto keepGoing = [&] {
        return !st->linkGone && running != 0 && st->generation.load() == generation;
    };
    unsigned char* lastSent = nullptr;
    while (keepGoing()) {
        // 1. At most one message out: the one at the lowest address.
        unsigned char* message = nullptr;
        std::int32_t length = 0;
        bool taken = false;
        {
            std::lock_guard<std::mutex> guard(st->queueLock);
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
                    std::lock_guard<std::mutex> guard(st->portLock);
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
            std::lock_guard<std::mutex> guard(st->portLock);
            received = port.Receive(&byte, 1, kReadTimeoutMs);
        }
        if (received) {
            std::vector<unsigned char> reply;
            {
                std::lock_guard<std::mutex> guard(st->framerLock);
                reply = framer.AddToBuffer(byte);
            }
            if (!reply.empty()) {
                auto* block = static_cast<unsigned char*>(std::calloc(reply.size(), 1));
                if (block != nullptr) {
                    std::memcpy(block, reply.data(), reply.size());
                    if (ReceiveCallback != nullptr)
                        ReceiveCallback(block, static_cast<int>(reply.size()));
                    std::free(block);
                    if (st->linkGone) {
                        releaseBlock(lastSent);
                        return;  // the callback destroyed the link
                    }
                }
            }
        }

        // 3. The pause between cycles.
        std::unique_lock<std::mutex> pause(st->sleepLock);
        st->wake.wait_for(pause, kCyclePause, [&] { return !keepGoing(); });
    }
    releaseBlock(lastSent);
}
