// ReceiveBuffer: the reply framer.
#include "quelworks/serial/receive_buffer.h"

#include <cstring>
#include <utility>

ReceiveBuffer::ReceiveBuffer() : expectedBytes(0), awaitingTerminator(0), Terminator("") {}

ReceiveBuffer::ReceiveBuffer(const ReceiveBuffer& other) = default;

ReceiveBuffer::ReceiveBuffer(ReceiveBuffer&& other) noexcept
    : buffer(std::move(other.buffer)),
      commands(std::move(other.commands)),
      expectedBytes(other.expectedBytes),
      awaitingTerminator(other.awaitingTerminator),
      Terminator(other.Terminator) {
    other.buffer.clear();
    other.commands.clear();
}

ReceiveBuffer& ReceiveBuffer::operator=(const ReceiveBuffer& other) = default;

ReceiveBuffer& ReceiveBuffer::operator=(ReceiveBuffer&& other) noexcept {
    if (this != &other) {
        buffer = std::move(other.buffer);
        commands = std::move(other.commands);
        other.buffer.clear();
        other.commands.clear();
        expectedBytes = other.expectedBytes;
        awaitingTerminator = other.awaitingTerminator;
        Terminator = other.Terminator;
    }
    return *this;
}

ReceiveBuffer::~ReceiveBuffer() = default;

int ReceiveBuffer::AddCommand(unsigned char command, int expected) {
    if (isInCommandList(command)) return 0;
    commands.push_back(CommandEntry{command, static_cast<std::int32_t>(expected - 1)});
    return 1;
}

void ReceiveBuffer::DeleteCommand(unsigned char command) {
    for (auto it = commands.begin(); it != commands.end(); ++it) {
        if (it->command == command) {
            commands.erase(it);
            return;
        }
    }
}

int ReceiveBuffer::GetExpectedBytes(unsigned char command) {
    for (const CommandEntry& entry : commands) {
        if (entry.command == command) return entry.remaining;
    }
    return -1;
}

int ReceiveBuffer::isInCommandList(unsigned char command) {
    for (const CommandEntry& entry : commands) {
        if (entry.command == command) return 1;
    }
    return 0;
}

std::vector<unsigned char> ReceiveBuffer::AddToBuffer(unsigned char byte) {
    buffer.push_back(byte);
    const std::size_t n = buffer.size();
    std::vector<unsigned char> reply;

    if (n == 1) {
        expectedBytes = GetExpectedBytes(byte);
        if (expectedBytes == 0) {
            reply.swap(buffer);
        } else if (expectedBytes == -1) {
            // An unknown first byte is kept (and paired with what follows) only when there is no
            // terminator to wait for; with a terminator it is dropped.
            if (Terminator != nullptr && Terminator[0] != '\0') {
                buffer.clear();
            } else {
                awaitingTerminator = 1;
            }
        }
        return reply;
    }

    if (awaitingTerminator == 0) {
        if (expectedBytes >= 0 && n - 1 == static_cast<std::size_t>(expectedBytes))
            reply.swap(buffer);
        return reply;
    }

    const char* terminator = Terminator != nullptr ? Terminator : "";
    const std::size_t length = std::strlen(terminator);
    if (n > length && std::memcmp(buffer.data() + n - length, terminator, length) == 0) {
        awaitingTerminator = 0;
        reply.swap(buffer);
    }
    return reply;
}
