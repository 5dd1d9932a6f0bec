/// \file
/// ReceiveBuffer: cuts the byte stream from the device into replies, by a table of command bytes
/// and reply lengths.
#ifndef QUELWORKS_SERIAL_RECEIVE_BUFFER_H
#define QUELWORKS_SERIAL_RECEIVE_BUFFER_H

#include <cstdint>
#include <vector>

#include "quelworks/export.h"

/// One entry of the command table: a reply's first byte and the number of bytes after it.
struct CommandEntry {
    unsigned char command;   ///< the reply's first byte
    std::int32_t remaining;  ///< bytes that follow it
};

/// Cuts the byte stream from the device into replies, by a table of command bytes and reply
/// lengths; a reply beginning with an unknown byte runs up to the Terminator.
class QUELWORKS_API ReceiveBuffer {
public:
    /// An empty command table, no reply being collected, the empty terminator.
    ReceiveBuffer();
    /// Copies the table and any partly collected reply.
    ReceiveBuffer(const ReceiveBuffer& other);
    /// Takes over the table and any partly collected reply.
    ReceiveBuffer(ReceiveBuffer&& other) noexcept;
    /// Copies the table and any partly collected reply.
    ReceiveBuffer& operator=(const ReceiveBuffer& other);
    /// Takes over the table and any partly collected reply.
    ReceiveBuffer& operator=(ReceiveBuffer&& other) noexcept;
    /// Releases the table and the buffer.
    ~ReceiveBuffer();

    /// Registers a reply of `expected` bytes in total (command byte included) for `command`.
    /// Returns 0 and changes nothing when the command is already registered, else 1.
    int AddCommand(unsigned char command, int expected);
    /// Removes the command's entry, if any; a reply being collected is not affected.
    void DeleteCommand(unsigned char command);
    /// Feeds one byte; returns the complete reply when this byte completes one, else nothing.
    std::vector<unsigned char> AddToBuffer(unsigned char byte);

private:
    int GetExpectedBytes(unsigned char command);
    int isInCommandList(unsigned char command);

    std::vector<unsigned char> buffer;
    std::vector<CommandEntry> commands;
    std::int32_t expectedBytes;
    std::int32_t awaitingTerminator;

public:
    /// End mark of replies that begin with a byte not in the table (default: the empty text).
    const char* Terminator;
};

#endif  // QUELWORKS_SERIAL_RECEIVE_BUFFER_H
