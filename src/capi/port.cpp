// The synchronous serial link (qw_port_...) over RS232.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "capi/capi_internal.h"
#include "platform/system_name.h"
#include "quelworks/serial/port_details.h"
#include "quelworks/serial/rs232.h"

namespace quelworks::capi {
namespace {

struct PortObject {
    RS232 link;
    std::string terminator = "\r\n";
    std::string name;  // the name of the last successful open
    ProgressContext progress;
};

std::vector<char> mutableText(const char* text) {
    std::string_view view(text);
    std::vector<char> copy(view.begin(), view.end());
    copy.push_back('\0');
    return copy;
}

qw_status requireOpen(PortObject& p) {
    if (!p.link.IsConnected()) return fail(QW_ERR_NOT_OPEN, "the port is not open");
    return QW_OK;
}

// Sends through RS232::Send with the handle's progress callback reachable from the trampoline.
qw_status sendBytes(PortObject& p, const uint8_t* data, int32_t length) {
    if (qw_status s = requireOpen(p)) return s;
    std::vector<unsigned char> copy(data, data + length);
    p.progress.cancelled = false;
    ProgressScope scope(&p.progress);
    p.link.SendProgressCallback = p.progress.callback ? &progressTrampolineBool : nullptr;
    bool ok = p.link.Send(copy.empty() ? nullptr : copy.data(), length);
    p.link.SendProgressCallback = nullptr;
    if (p.progress.cancelled)
        return fail(QW_ERR_CANCELLED, "the progress callback stopped the send");
    if (!ok) return fail(QW_ERR_FAILED, "writing to the port failed");
    return QW_OK;
}

}  // namespace
}  // namespace quelworks::capi

using namespace quelworks::capi;

extern "C" {

QW_C_API qw_status QW_CALL qw_port_new(qw_port** port) {
    return guarded([&] {
        QW_REQUIRE(port, "null pointer: port");
        return createHandle(Kind::Port, std::make_shared<PortObject>(), port);
    });
}

QW_C_API qw_status QW_CALL qw_port_free(qw_port* port) {
    return guarded([&] { return freeHandle(port, Kind::Port); });
}

QW_C_API qw_status QW_CALL qw_port_set_baud_rate(qw_port* port, uint32_t baud_rate) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        QW_REQUIRE(baud_rate > 0, "baud rate 0");
        p->link.Baudrate = baud_rate;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_port_get_baud_rate(qw_port* port, uint32_t* baud_rate) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        QW_REQUIRE(baud_rate, "null pointer: baud_rate");
        *baud_rate = p->link.Baudrate;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_port_set_xon_xoff(qw_port* port, int32_t enabled) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        p->link.XonXoffFlowControl = enabled != 0;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_port_set_line_terminator(qw_port* port, const char* terminator) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        QW_REQUIRE(terminator, "null pointer: terminator");
        QW_REQUIRE(*terminator, "empty line terminator");
        p->terminator = terminator;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_port_set_send_progress(qw_port* port, qw_progress_fn callback,
                                                     void* user) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        p->progress.callback = callback;
        p->progress.user = user;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_port_open(qw_port* port, const char* name) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        QW_REQUIRE(name, "null pointer: name");
        QW_REQUIRE(*name, "empty port name");
        if (p->link.IsConnected()) p->link.Disconnect();
        std::vector<char> copy = mutableText(name);
        quelworks::detail::Utf8NameScope utf8;
        if (!p->link.Connect(copy.data())) {
            // A rejected configuration leaves a stale handle behind: drop it.
            p->link.Disconnect();
            return fail(QW_ERR_FAILED,
                        std::string("cannot open or configure the port '") + name + "'");
        }
        p->name = name;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_port_close(qw_port* port) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        if (p->link.IsConnected()) p->link.Disconnect();
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_port_is_open(qw_port* port, int32_t* open) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        QW_REQUIRE(open, "null pointer: open");
        *open = p->link.IsConnected() ? 1 : 0;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_port_get_name(qw_port* port, char* buffer, int32_t size,
                                            int32_t* needed) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        return copyOut(p->name, buffer, size, needed);
    });
}

QW_C_API qw_status QW_CALL qw_port_send(qw_port* port, const uint8_t* data, int32_t length) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        if (qw_status s = checkBuffer(data, length, "data")) return s;
        return sendBytes(*p, data, length);
    });
}

QW_C_API qw_status QW_CALL qw_port_send_text(qw_port* port, const char* text) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        QW_REQUIRE(text, "null pointer: text");
        std::string_view view(text);
        QW_REQUIRE(view.size() < static_cast<std::size_t>(INT32_MAX), "text too long");
        return sendBytes(*p, reinterpret_cast<const uint8_t*>(text),
                         static_cast<int32_t>(view.size()));
    });
}

QW_C_API qw_status QW_CALL qw_port_receive(qw_port* port, uint8_t* data, int32_t count,
                                           int32_t timeout_ms) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        if (qw_status s = checkBuffer(data, count, "data")) return s;
        QW_REQUIRE(timeout_ms >= 1, "time-out below 1 ms (0 would wait for ever)");
        if (qw_status s = requireOpen(*p)) return s;
        if (count == 0) return QW_OK;
        if (!p->link.Receive(data, count, timeout_ms))
            return fail(QW_ERR_TIMEOUT, "fewer than " + std::to_string(count) +
                                            " bytes arrived within the time-out");
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_port_receive_until_quiet(qw_port* port, int32_t timeout_ms,
                                                       uint8_t** data, int32_t* length) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        QW_REQUIRE(data && length, "null pointer: data or length");
        QW_REQUIRE(timeout_ms >= 1, "time-out below 1 ms (0 would wait for ever)");
        if (qw_status s = requireOpen(*p)) return s;
        unsigned char* received = nullptr;
        int count = 0;
        if (!p->link.Receive(&received, &count, timeout_ms) || received == nullptr) {
            *data = nullptr;
            *length = 0;
            return QW_OK;
        }
        // The block comes from the C allocator of this library, the one qw_free releases.
        *data = received;
        *length = count;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_port_receive_line(qw_port* port, int32_t timeout_ms, char** line,
                                                int32_t* length) {
    return guarded([&] {
        QW_FIND(p, PortObject, port, Kind::Port);
        QW_REQUIRE(line && length, "null pointer: line or length");
        QW_REQUIRE(timeout_ms >= 1, "time-out below 1 ms (0 would wait for ever)");
        if (qw_status s = requireOpen(*p)) return s;
        unsigned char* received = nullptr;
        int count = 0;
        p->link.LineTerminator = p->terminator.c_str();
        if (!p->link.ReceiveLine(&received, &count, timeout_ms))
            return fail(QW_ERR_TIMEOUT, "no complete line arrived within the time-out");
        *line = reinterpret_cast<char*>(received);
        *length = count;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_port_list(qw_strings** ports) {
    return guarded([&] {
        QW_REQUIRE(ports, "null pointer: ports");
        RS232 link;
        RList<char*> found;
        link.GetCOMPorts(&found);
        std::vector<std::string> names;
        for (Iter<char*> it = found.begin(); it != found.end(); ++it) {
            names.emplace_back(*it);
            std::free(*it);
        }
        found.free();
        return makeStrings(std::move(names), ports);
    });
}

QW_C_API qw_status QW_CALL qw_port_list_details(int32_t* fields_per_port, qw_strings** details) {
    return guarded([&] {
        QW_REQUIRE(fields_per_port, "null pointer: fields_per_port");
        QW_REQUIRE(details, "null pointer: details");
        constexpr int32_t kFields = 9;
        auto id = [](int value) {
            if (value < 0) return std::string();
            char text[8];
            std::snprintf(text, sizeof text, "%04x", static_cast<unsigned>(value) & 0xFFFFu);
            return std::string(text);
        };
        std::vector<std::string> items;
        for (const quelworks::PortDetails& port : quelworks::ListPortDetails()) {
            items.insert(items.end(), {port.name, port.description, id(port.vendorId),
                                       id(port.productId), port.serialNumber, port.manufacturer,
                                       port.product, port.location, port.driver});
        }
        *fields_per_port = kFields;
        return makeStrings(std::move(items), details);
    });
}

}  // extern "C"
