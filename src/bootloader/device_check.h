// Internal helpers of the bootloader client for the quelworks command: what the command needs to
// know beyond the public Bootloader interface (why reading the identity failed, whether a reply
// came late), asked of the device with the protocol's own request codes. Compiled into the
// command, over the library's public classes; not part of the library.
#ifndef QUELWORKS_BOOTLOADER_DEVICE_CHECK_H
#define QUELWORKS_BOOTLOADER_DEVICE_CHECK_H

#include <cstdint>

namespace quelworks {

// What went wrong when the identity did not read back, found by asking again, one request at a
// time, in the order the client asks.
struct IdentityDiagnosis {
    enum class Problem {
        None,                // every answer came back right: the first attempt failed otherwise
        PortUnavailable,     // the port cannot be opened
        NoAnswer,            // nothing at all to the first request
        LateReply,           // a reply came, but after its time-out
        StoppedAnswering,    // answered at first, then no answer to `request`
        WrongEcho,           // the reply to `request` began with `replyByte`, not the echo
        Unterminated,        // the description ends without its zero byte
        NoProgramParameters  // in programming mode, but no program parameters
    };
    Problem problem = Problem::None;
    unsigned char request = 0;     // the request that failed
    const char* requestName = "";  // what it asks for, e.g. "bootloader version"
    unsigned char replyByte = 0;   // first byte of the wrong reply
};

// Asks the device on `port` for its identity again; a missing reply is waited for up to
// `lateWindowMs` more to tell a slow device from a silent one.
IdentityDiagnosis DiagnoseIdentity(const char* port, int timeoutMs, std::uint32_t baudrate,
                                   int lateWindowMs);

// True if any byte arrives on `port` within `waitMs`: after a failed exchange, a sign that the
// device answered after the time-out.
bool ByteArrivesWithin(const char* port, std::uint32_t baudrate, int waitMs);

}  // namespace quelworks

#endif  // QUELWORKS_BOOTLOADER_DEVICE_CHECK_H
