// Fuzzes the reply framer with arbitrary command tables, terminators and byte streams.
//
// Input layout: byte 0 = number of table entries (low 3 bits), then two bytes per entry (command,
// total reply length as a signed byte); then one byte whose low 2 bits give the terminator length,
// and that many terminator bytes; the rest is the stream, where 0xFD followed by a byte deletes
// that command instead of being fed. Every reply is checked against what the rules allow: a
// reply that began with a registered byte has the registered length, one that began with an
// unknown byte is a pair (empty terminator) or ends with the terminator, and its bytes are
// exactly those fed since the previous reply or drop.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "quelworks/serial/receive_buffer.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::size_t pos = 0;
    auto next = [&](std::uint8_t& out) {
        if (pos >= size) return false;
        out = data[pos++];
        return true;
    };
    ReceiveBuffer framer;
    int remaining[256];  // the table as the harness expects it: -1 when absent
    bool present[256] = {};
    for (int& r : remaining) r = -1;

    std::uint8_t entries = 0;
    if (!next(entries)) return 0;
    for (int i = 0; i < (entries & 7); ++i) {
        std::uint8_t command = 0, length = 0;
        if (!next(command) || !next(length)) return 0;
        const int expected = static_cast<std::int8_t>(length);
        const int added = framer.AddCommand(command, expected);
        check(added == (present[command] ? 0 : 1));
        if (added == 1) {
            present[command] = true;
            remaining[command] = expected - 1;
        }
    }
    std::uint8_t terminatorLength = 0;
    if (!next(terminatorLength)) return 0;
    std::string terminator;
    for (int i = 0; i < (terminatorLength & 3); ++i) {
        std::uint8_t c = 0;
        if (!next(c)) return 0;
        terminator.push_back(static_cast<char>(c));
    }
    terminator.resize(std::strlen(terminator.c_str()));  // the framer sees a zero-ended text
    framer.Terminator = terminator.c_str();

    std::vector<std::uint8_t> pending;  // bytes of the reply being collected
    int startRemaining = 0;             // remaining count looked up for its first byte
    while (pos < size) {
        const std::uint8_t b = data[pos++];
        if (b == 0xFD && pos < size) {
            framer.DeleteCommand(data[pos]);
            present[data[pos]] = false;
            remaining[data[pos]] = -1;
            ++pos;
            continue;
        }
        const std::vector<unsigned char> reply = framer.AddToBuffer(b);
        if (pending.empty()) startRemaining = present[b] ? remaining[b] : -1;
        pending.push_back(b);
        if (pending.size() == 1 && startRemaining == -1 && !terminator.empty()) {
            check(reply.empty());  // an unknown first byte is dropped
            pending.clear();
            continue;
        }
        if (reply.empty()) {
            // Still collecting: a counted reply has not reached its length yet.
            if (startRemaining >= 0) check(pending.size() < std::size_t(startRemaining) + 1);
            continue;
        }
        check(reply == std::vector<unsigned char>(pending.begin(), pending.end()));
        if (startRemaining >= 0) {
            check(reply.size() == std::size_t(startRemaining) + 1);
        } else if (startRemaining == -1) {
            if (terminator.empty()) {
                check(reply.size() == 2);
            } else {
                check(reply.size() > terminator.size());
                check(std::string(reply.end() - static_cast<std::ptrdiff_t>(terminator.size()),
                                  reply.end()) == terminator);
            }
        } else {
            check(false);  // a negative length other than -1 never completes
        }
        pending.clear();
    }
    return 0;
}
