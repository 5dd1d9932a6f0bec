// Utilities: CRC-16 (qw_crc...), the lookup table (qw_lut_...) and the conversions
// (qw_convert_...).
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "capi/capi_internal.h"
#include "platform/system_name.h"
#include "quelworks/serial/crc_ccitt.h"
#include "quelworks/util/conversions.h"
#include "quelworks/util/linear_interpolation.h"

namespace quelworks::capi {
namespace {

struct CrcObject {
    explicit CrcObject(uint16_t initial) : crc(static_cast<CRC_CCITT::InitialCrcValue>(initial)) {}
    CRC_CCITT crc;
};

struct LutObject {
    LinearInterpolation table;
};

// CRC_CCITT::ComputeChecksum takes a mutable pointer but only reads through it.
unsigned char* readOnly(const uint8_t* data) {
    return const_cast<unsigned char*>(data);
}

}  // namespace
}  // namespace quelworks::capi

using namespace quelworks::capi;

extern "C" {

QW_C_API qw_status QW_CALL qw_crc16(uint16_t initial, const uint8_t* data, int32_t length,
                                    uint16_t* crc) {
    return guarded([&] {
        if (qw_status s = checkBuffer(data, length, "data")) return s;
        QW_REQUIRE(crc, "null pointer: crc");
        CRC_CCITT engine(static_cast<CRC_CCITT::InitialCrcValue>(initial));
        *crc = engine.ComputeChecksum(readOnly(data), length);
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_crc_new(uint16_t initial, qw_crc** crc) {
    return guarded([&] {
        QW_REQUIRE(crc, "null pointer: crc");
        return createHandle(Kind::Crc, std::make_shared<CrcObject>(initial), crc);
    });
}

QW_C_API qw_status QW_CALL qw_crc_compute(qw_crc* crc, const uint8_t* data, int32_t length,
                                          uint16_t* value) {
    return guarded([&] {
        QW_FIND(c, CrcObject, crc, Kind::Crc);
        if (qw_status s = checkBuffer(data, length, "data")) return s;
        QW_REQUIRE(value, "null pointer: value");
        *value = c->crc.ComputeChecksum(readOnly(data), length);
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_crc_free(qw_crc* crc) {
    return guarded([&] { return freeHandle(crc, Kind::Crc); });
}

QW_C_API qw_status QW_CALL qw_lut_new(qw_lut** lut) {
    return guarded([&] {
        QW_REQUIRE(lut, "null pointer: lut");
        return createHandle(Kind::Lut, std::make_shared<LutObject>(), lut);
    });
}

QW_C_API qw_status QW_CALL qw_lut_free(qw_lut* lut) {
    return guarded([&] { return freeHandle(lut, Kind::Lut); });
}

QW_C_API qw_status QW_CALL qw_lut_load(qw_lut* lut, const char* file, float x_scale, float y_scale,
                                       float* max_x, float* min_x, float* max_y, float* min_y) {
    return guarded([&] {
        QW_FIND(l, LutObject, lut, Kind::Lut);
        QW_REQUIRE(file, "null pointer: file");
        std::string name(file);
        try {
            quelworks::detail::Utf8NameScope utf8;
            l->table.InitLUT(&name[0], x_scale, y_scale, max_x, min_x, max_y, min_y);
        } catch (const std::out_of_range&) {
            return fail(QW_ERR_FORMAT,
                        std::string("malformed table file (a line without ';'): ") + file);
        }
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_lut_add(qw_lut* lut, float x, float y) {
    return guarded([&] {
        QW_FIND(l, LutObject, lut, Kind::Lut);
        l->table.AddToLUT(x, y);
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_lut_get_y(qw_lut* lut, float x, int32_t ascending, float* y) {
    return guarded([&] {
        QW_FIND(l, LutObject, lut, Kind::Lut);
        QW_REQUIRE(y, "null pointer: y");
        *y = l->table.GetyValue(x, ascending != 0);
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_lut_get_x(qw_lut* lut, float y, int32_t ascending, float* x) {
    return guarded([&] {
        QW_FIND(l, LutObject, lut, Kind::Lut);
        QW_REQUIRE(x, "null pointer: x");
        *x = l->table.GetXValue(y, ascending != 0);
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_convert_int_to_text(int32_t value, char* buffer, int32_t size,
                                                  int32_t* needed) {
    return guarded([&] { return copyOut(convertInt(value), buffer, size, needed); });
}

QW_C_API qw_status QW_CALL qw_convert_float_to_text(float value, char* buffer, int32_t size,
                                                    int32_t* needed) {
    return guarded([&] { return copyOut(convertFloat(value), buffer, size, needed); });
}

QW_C_API qw_status QW_CALL qw_convert_bool_to_text(int32_t value, char* buffer, int32_t size,
                                                   int32_t* needed) {
    return guarded([&] { return copyOut(convertBool(value != 0), buffer, size, needed); });
}

QW_C_API qw_status QW_CALL qw_convert_text_to_int(const char* text, int32_t* value) {
    return guarded([&] {
        QW_REQUIRE(text && value, "null pointer: text or value");
        *value = convertStringToInt(text);
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_convert_text_to_float(const char* text, float* value) {
    return guarded([&] {
        QW_REQUIRE(text && value, "null pointer: text or value");
        *value = convertStringToFloat(text);
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_convert_text_to_bool(const char* text, int32_t* value) {
    return guarded([&] {
        QW_REQUIRE(text && value, "null pointer: text or value");
        *value = convertStringToBool(text) ? 1 : 0;
        return QW_OK;
    });
}

}  // extern "C"
