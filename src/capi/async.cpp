// The asynchronous serial link (qw_async_...).
//
// The C++ RS232Async keeps its framer and port private (so neither the reply terminator nor the
// baud rate can be set on it) and calls plain function pointers that carry no context, from a
// thread that cannot tell which link it serves. The C interface therefore runs its own link built
// from the same parts, RS232 and ReceiveBuffer, with the same rhythm, limits and order: each cycle
// sends at most one queued message (the queue is ordered by buffer address, at most 101 wait),
// reads at most one byte with the 1000 ms time-out, feeds it to the framer, hands a complete reply
// to the callback, and sleeps 50 ms; a failed send drops the link and reports code 0. Unlike the
// C++ class it locks its queue and framer, frees what it queued, and waits for its thread on
// close, so a handle can be freed at any time.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capi/capi_internal.h"
#include "platform/system_name.h"
#include "quelworks/serial/receive_buffer.h"
#include "quelworks/serial/rs232.h"

namespace quelworks::capi {
namespace {

constexpr std::size_t kQueueLimit = 100;  // more queued than this refuses the next message
constexpr int kReadTimeoutMs = 1000;
constexpr auto kCycleSleep = std::chrono::milliseconds(50);

struct AsyncObject;
// The link whose callback is running on this thread, so that the callback cannot close or free
// the link it is called from (that would wait for its own thread).
thread_local const AsyncObject* callingLink = nullptr;

struct AsyncObject {
    std::mutex mutex;  // guards queue, framer, terminator and the callbacks
    std::condition_variable wake;
    std::map<unsigned char*, std::int32_t> queue;
    ReceiveBuffer framer;
    std::string terminator;
    qw_receive_fn onReceive = nullptr;
    qw_disconnect_fn onDisconnect = nullptr;
    void* user = nullptr;

    RS232 port;  // touched by the worker while it runs, by the caller only when it does not
    std::thread worker;
    std::atomic<bool> running{false};
    std::atomic<bool> portOpen{false};

    AsyncObject() { framer.Terminator = terminator.c_str(); }
    AsyncObject(const AsyncObject&) = delete;
    AsyncObject& operator=(const AsyncObject&) = delete;
    ~AsyncObject() {
        stop();
        dropQueue();
    }

    void dropQueue() {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto& entry : queue) std::free(entry.first);
        queue.clear();
    }

    // Stops the worker and closes the port.
    void stop() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            running = false;
        }
        wake.notify_all();
        if (worker.joinable()) {
            if (worker.get_id() == std::this_thread::get_id())
                worker.detach();  // cannot happen through the C interface; never self-join
            else
                worker.join();
        }
        if (port.IsConnected()) port.Disconnect();
        portOpen = false;
    }

    void run() {
        while (running) {
            unsigned char* message = nullptr;
            std::int32_t length = 0;
            bool taken = false;
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (!queue.empty()) {
                    auto first = queue.begin();
                    message = first->first;
                    length = first->second;
                    queue.erase(first);
                    taken = true;
                }
            }
            if (taken) {
                bool sent = port.Send(message, length);
                std::free(message);
                if (!sent) {
                    running = false;
                    portOpen = false;
                    port.Disconnect();
                    dropQueue();
                    callDisconnect(0);
                    return;
                }
            }
            unsigned char byte = 0;
            if (port.Receive(&byte, 1, kReadTimeoutMs)) {
                std::vector<unsigned char> reply;
                qw_receive_fn callback;
                void* context;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    reply = framer.AddToBuffer(byte);
                    callback = onReceive;
                    context = user;
                }
                if (!reply.empty() && callback) {
                    callingLink = this;
                    callback(reply.data(), static_cast<std::int32_t>(reply.size()), context);
                    callingLink = nullptr;
                }
            }
            std::unique_lock<std::mutex> lock(mutex);
            wake.wait_for(lock, kCycleSleep, [this] { return !running; });
        }
    }

    void callDisconnect(std::int32_t code) {
        qw_disconnect_fn callback;
        void* context;
        {
            std::lock_guard<std::mutex> lock(mutex);
            callback = onDisconnect;
            context = user;
        }
        if (callback) {
            callingLink = this;
            callback(code, context);
            callingLink = nullptr;
        }
    }

    qw_status queueMessage(const std::uint8_t* data, std::int32_t length) {
        if (!portOpen) return fail(QW_ERR_NOT_OPEN, "the link is not open");
        std::lock_guard<std::mutex> lock(mutex);
        if (queue.size() > kQueueLimit)
            return fail(QW_ERR_FAILED, "the send queue is full (101 messages wait)");
        // At least one byte, so that an empty message still has a distinct address.
        auto* block = static_cast<unsigned char*>(std::calloc(length > 0 ? length : 1, 1));
        if (block == nullptr) throw std::bad_alloc();
        if (length > 0) std::memcpy(block, data, static_cast<std::size_t>(length));
        queue.emplace(block, length);
        return QW_OK;
    }
};

qw_status refuseFromCallback(const AsyncObject& link) {
    if (callingLink == &link)
        return fail(QW_ERR_INVALID_ARGUMENT,
                    "a link cannot be closed or freed from inside its own callback");
    return QW_OK;
}

}  // namespace
}  // namespace quelworks::capi

using namespace quelworks::capi;

extern "C" {

QW_C_API qw_status QW_CALL qw_async_new(qw_async** link) {
    return guarded([&] {
        QW_REQUIRE(link, "null pointer: link");
        return createHandle(Kind::Async, std::make_shared<AsyncObject>(), link);
    });
}

QW_C_API qw_status QW_CALL qw_async_free(qw_async* link) {
    return guarded([&] {
        if (link != nullptr) {
            QW_FIND(a, AsyncObject, link, Kind::Async);
            if (qw_status s = refuseFromCallback(*a)) return s;
            // Stop the thread here, while this call holds the object, so that the last reference
            // can never be dropped on the link's own thread.
            a->stop();
        }
        return freeHandle(link, Kind::Async);
    });
}

QW_C_API qw_status QW_CALL qw_async_set_baud_rate(qw_async* link, uint32_t baud_rate) {
    return guarded([&] {
        QW_FIND(a, AsyncObject, link, Kind::Async);
        QW_REQUIRE(baud_rate > 0, "baud rate 0");
        if (a->running) return fail(QW_ERR_FAILED, "close the link before changing its settings");
        a->port.Baudrate = baud_rate;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_async_set_xon_xoff(qw_async* link, int32_t enabled) {
    return guarded([&] {
        QW_FIND(a, AsyncObject, link, Kind::Async);
        if (a->running) return fail(QW_ERR_FAILED, "close the link before changing its settings");
        a->port.XonXoffFlowControl = enabled != 0;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_async_set_callbacks(qw_async* link, qw_receive_fn on_receive,
                                                  qw_disconnect_fn on_disconnect, void* user) {
    return guarded([&] {
        QW_FIND(a, AsyncObject, link, Kind::Async);
        std::lock_guard<std::mutex> lock(a->mutex);
        a->onReceive = on_receive;
        a->onDisconnect = on_disconnect;
        a->user = user;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_async_add_command(qw_async* link, uint8_t command, int32_t expected,
                                                int32_t* added) {
    return guarded([&] {
        QW_FIND(a, AsyncObject, link, Kind::Async);
        QW_REQUIRE(expected >= 1, "a reply is at least its command byte long");
        std::lock_guard<std::mutex> lock(a->mutex);
        int result = a->framer.AddCommand(command, expected);
        if (added) *added = result;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_async_delete_command(qw_async* link, uint8_t command) {
    return guarded([&] {
        QW_FIND(a, AsyncObject, link, Kind::Async);
        std::lock_guard<std::mutex> lock(a->mutex);
        a->framer.DeleteCommand(command);
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_async_set_terminator(qw_async* link, const char* terminator) {
    return guarded([&] {
        QW_FIND(a, AsyncObject, link, Kind::Async);
        QW_REQUIRE(terminator, "null pointer: terminator");
        std::lock_guard<std::mutex> lock(a->mutex);
        a->terminator = terminator;
        a->framer.Terminator = a->terminator.c_str();
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_async_open(qw_async* link, const char* name) {
    return guarded([&] {
        QW_FIND(a, AsyncObject, link, Kind::Async);
        QW_REQUIRE(name, "null pointer: name");
        QW_REQUIRE(*name, "empty port name");
        if (qw_status s = refuseFromCallback(*a)) return s;
        a->stop();
        a->dropQueue();
        std::string copy(name);
        {
            quelworks::detail::Utf8NameScope utf8;
            if (!a->port.Connect(&copy[0])) {
                if (a->port.IsConnected()) a->port.Disconnect();
                return fail(QW_ERR_FAILED,
                            std::string("cannot open or configure the port '") + name + "'");
            }
        }
        a->portOpen = true;
        a->running = true;
        AsyncObject* self = a.get();
        a->worker = std::thread([self] { self->run(); });
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_async_close(qw_async* link) {
    return guarded([&] {
        QW_FIND(a, AsyncObject, link, Kind::Async);
        if (qw_status s = refuseFromCallback(*a)) return s;
        a->stop();
        a->dropQueue();
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_async_is_open(qw_async* link, int32_t* open) {
    return guarded([&] {
        QW_FIND(a, AsyncObject, link, Kind::Async);
        QW_REQUIRE(open, "null pointer: open");
        *open = a->portOpen ? 1 : 0;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_async_send(qw_async* link, const uint8_t* data, int32_t length) {
    return guarded([&] {
        QW_FIND(a, AsyncObject, link, Kind::Async);
        if (qw_status s = checkBuffer(data, length, "data")) return s;
        return a->queueMessage(data, length);
    });
}

QW_C_API qw_status QW_CALL qw_async_send_text(qw_async* link, const char* text) {
    return guarded([&] {
        QW_FIND(a, AsyncObject, link, Kind::Async);
        QW_REQUIRE(text, "null pointer: text");
        std::string_view view(text);
        QW_REQUIRE(view.size() < static_cast<std::size_t>(INT32_MAX), "text too long");
        return a->queueMessage(reinterpret_cast<const uint8_t*>(text),
                               static_cast<int32_t>(view.size()));
    });
}

QW_C_API qw_status QW_CALL qw_async_queue_length(qw_async* link, int32_t* count) {
    return guarded([&] {
        QW_FIND(a, AsyncObject, link, Kind::Async);
        QW_REQUIRE(count, "null pointer: count");
        std::lock_guard<std::mutex> lock(a->mutex);
        *count = static_cast<int32_t>(a->queue.size());
        return QW_OK;
    });
}

}  // extern "C"
