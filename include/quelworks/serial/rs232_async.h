/// \file
/// RS232Async: a serial link whose sends are queued and whose replies arrive by callback, driven
/// by one background thread.
#ifndef QUELWORKS_SERIAL_RS232_ASYNC_H
#define QUELWORKS_SERIAL_RS232_ASYNC_H

#include <atomic>
#include <cstdint>
#include <map>

#include "quelworks/export.h"
#include "quelworks/serial/communicator.h"
#include "quelworks/serial/receive_buffer.h"
#include "quelworks/serial/rs232.h"

namespace quelworks::detail {
struct AsyncLinkState;
}

/// A queued serial link: a background thread sends queued messages and hands complete replies
/// to ReceiveCallback.
class QUELWORKS_API RS232Async : public Communicator {
public:
    /// A closed link with an empty queue and no callbacks.
    RS232Async();
    /// Copies and moves never start, stop or take over the background thread: it keeps working
    /// on the object it was started for.
    RS232Async(const RS232Async& other);
    /// Like the copy: the thread keeps working on the object it was started for.
    RS232Async(RS232Async&& other) noexcept;
    /// Shares the other link's port and callbacks; the thread is not taken over.
    RS232Async& operator=(const RS232Async& other);
    /// Shares the other link's port and callbacks; the thread is not taken over.
    RS232Async& operator=(RS232Async&& other) noexcept;
    /// Stops the background thread (if this link started one) and waits for it, then releases
    /// the port and the queue.
    ~RS232Async();

    /// Always true, whatever the state of the port.
    bool IsConnected() override;
    /// Opens the port and starts the background thread.
    bool Connect(char* portName) override;
    /// Drops the queue, tells the thread to stop and closes the port; no DisconnectCallback.
    void Disconnect() override;
    /// Queues the zero-terminated text without its terminator; see Send(unsigned char*, int).
    bool Send(char* text) override;
    /// Queues a copy of the data (at most 101 messages wait); false when the port is closed or the
    /// queue is full.
    bool Send(unsigned char* data, int length) override;
    /// Replies arrive only through ReceiveCallback: both forms return false.
    bool Receive(unsigned char* data, int count, int timeout) override;
    /// Always false: replies arrive only through ReceiveCallback.
    bool Receive(unsigned char** data, int* length, int timeout) override;

    /// Registers a reply length with the link's framer; see ReceiveBuffer::AddCommand.
    int AddCommand(unsigned char command, int expected);
    /// Removes a command from the link's framer; see ReceiveBuffer::DeleteCommand.
    void DeleteCommand(unsigned char command);
    /// Number of queued messages.
    int GetSendBufferUse();
    /// The background thread's loop: one message out and one byte in per 50 ms cycle.
    void SendReceiveRoutine();

private:
    void Disconnect(int code);
    /// The assignments' common tail: share other's port, thread handle, run flag and callbacks.
    void assignLinkFrom(const RS232Async& other);

    ReceiveBuffer framer;
    std::map<unsigned char*, std::int32_t> sendQueue;
    RS232 port;
    void* threadHandle;
    std::atomic<std::int32_t> running;

public:
    /// Called on the background thread with each complete reply; the block is released when the
    /// callback returns.
    void (*ReceiveCallback)(unsigned char* data, int length);
    /// Called on the background thread when the link is dropped: 0 = a send failed, 2 = an
    /// integer exception while connecting.
    void (*DisconnectCallback)(int code);

private:
    /// Locks and thread ownership; each object has its own, copies never share it.
    quelworks::detail::AsyncLinkState* state;
};

#endif  // QUELWORKS_SERIAL_RS232_ASYNC_H
