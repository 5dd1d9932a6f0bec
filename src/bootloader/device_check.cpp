#include "bootloader/device_check.h"

#include <cstdlib>
#include <memory>

#include "bootloader/protocol.h"
#include "quelworks/serial/rs232.h"

namespace quelworks {

namespace {

using namespace protocol;

constexpr int kDrainTimeoutMs = 100;

struct Query {
    unsigned char request;
    const char* name;
};

// The identity requests in the order the client sends them.
constexpr Query kIdentityQueries[] = {
    {kBootloaderVersion, "bootloader version"},
    {kDeviceType, "device type"},
    {kSubType, "sub-type"},
    {kFirmwareVersion, "firmware version"},
    {kMaxBaudrate, "maximum baud rate"},
    {kRevision, "revision"},
    {kSerialNumber, "serial number"},
    {kProgramMode, "program mode"},
    {kDescription, "description"},
};

using Reply = std::unique_ptr<unsigned char, decltype(&std::free)>;

// A connected link, closed when it goes out of scope.
class Link {
public:
    Link(const char* port, std::uint32_t baudrate) {
        link_.PortName(port);
        link_.Baudrate = baudrate;
        connected_ = link_.Connect();
    }
    ~Link() {
        if (connected_) link_.Disconnect();
    }
    bool connected() const { return connected_; }
    void send(unsigned char request) { link_.Send(&request, 1); }
    // The next reply (null when none came within `timeoutMs`).
    Reply receive(int timeoutMs, int* length) {
        unsigned char* data = nullptr;
        *length = 0;
        if (!link_.Receive(&data, length, timeoutMs) || *length <= 0) {
            std::free(data);
            return Reply(nullptr, &std::free);
        }
        return Reply(data, &std::free);
    }

private:
    RS232 link_;
    bool connected_ = false;
};

IdentityDiagnosis found(IdentityDiagnosis::Problem problem, const Query& query,
                        unsigned char replyByte = 0) {
    IdentityDiagnosis d;
    d.problem = problem;
    d.request = query.request;
    d.requestName = query.name;
    d.replyByte = replyByte;
    return d;
}

}  // namespace

IdentityDiagnosis DiagnoseIdentity(const char* port, int timeoutMs, std::uint32_t baudrate,
                                   int lateWindowMs) {
    Link link(port, baudrate);
    if (!link.connected()) return found(IdentityDiagnosis::Problem::PortUnavailable, {0, ""});
    int length = 0;
    while (link.receive(kDrainTimeoutMs, &length)) {
    }

    bool inProgramMode = false;
    unsigned deviceType = 1;
    bool first = true;
    for (const Query& q : kIdentityQueries) {
        // The client asks for the sub-type only of a device with a type.
        if (q.request == kSubType && deviceType == 0) continue;
        link.send(q.request);
        Reply reply = link.receive(timeoutMs, &length);
        if (!reply) {
            // A reply that comes after the time-out: the device is slow, not silent.
            if (link.receive(lateWindowMs, &length)) {
                return found(IdentityDiagnosis::Problem::LateReply, q);
            }
            return found(first ? IdentityDiagnosis::Problem::NoAnswer
                               : IdentityDiagnosis::Problem::StoppedAnswering,
                         q);
        }
        first = false;
        const unsigned char* r = reply.get();
        if (r[0] != q.request) {
            // The echo of an earlier request: its reply came after that request's time-out.
            for (const Query& earlier : kIdentityQueries) {
                if (r[0] == earlier.request) {
                    return found(IdentityDiagnosis::Problem::LateReply, q, r[0]);
                }
            }
            return found(IdentityDiagnosis::Problem::WrongEcho, q, r[0]);
        }
        if (q.request == kDeviceType) deviceType = length >= 3 ? (r[1] << 8) | r[2] : r[1];
        if (q.request == kProgramMode && length >= 2) inProgramMode = r[1] == kAccepted;
        if (q.request == kDescription && r[length - 1] != 0x00) {
            return found(IdentityDiagnosis::Problem::Unterminated, q);
        }
    }
    if (inProgramMode) {
        link.send(kProgramParameters);
        if (!link.receive(timeoutMs, &length)) {
            return found(IdentityDiagnosis::Problem::NoProgramParameters,
                         {kProgramParameters, "program parameters"});
        }
    }
    return IdentityDiagnosis{};
}

bool ByteArrivesWithin(const char* port, std::uint32_t baudrate, int waitMs) {
    Link link(port, baudrate);
    if (!link.connected()) return false;
    int length = 0;
    return static_cast<bool>(link.receive(waitMs, &length));
}

}  // namespace quelworks
