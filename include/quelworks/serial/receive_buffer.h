// ReceiveBuffer: cuts the byte stream from the device into replies, by a table of command bytes
// and reply lengths.
#ifndef QUELWORKS_SERIAL_RECEIVE_BUFFER_H
#define QUELWORKS_SERIAL_RECEIVE_BUFFER_H

#include <cstdint>
#include <vector>

#include "quelworks/export.h"

// One entry of the command table: a reply's first byte and the number of bytes after it.
struct CommandEntry {
    unsigned char command;
    std::int32_t remaining;
};

class QUELWORKS_API ReceiveBuffer {
public:
    ReceiveBuffer();
    ReceiveBuffer(const ReceiveBuffer& other);
    ReceiveBuffer(ReceiveBuffer&& other) noexcept;
    ReceiveBuffer& operator=(const ReceiveBuffer& other);
    ReceiveBuffer& operator=(ReceiveBuffer&& other) noexcept;
    ~ReceiveBuffer();

    // Registers a reply of `expected` bytes in total (command byte included) for `command`.
    // Returns 0 and changes nothing when the command is already registered, else 1.
    int AddCommand(unsigned char command, int expected);
    // Removes the command's entry, if any; a reply being collected is not affected.
    void DeleteCommand(unsigned char command);
    // Feeds one byte; returns the complete reply when this byte completes one, else nothing.
    std::vector<unsigned char> AddToBuffer(unsigned char byte);

private:
    int GetExpectedBytes(unsigned char command);
    int isInCommandList(unsigned char command);

    std::vector<unsigned char> buffer;
    std::vector<CommandEntry> commands;
    std::int32_t expectedBytes;
    std::int32_t awaitingTerminator;

public:
    // End mark of replies that begin with a byte not in the table (default: the empty text).
    const char* Terminator;
};

#endif  // QUELWORKS_SERIAL_RECEIVE_BUFFER_H
