// The header compiles as C++ and declares its functions with C linkage.
#include "quelworks/quelworks_c.h"

#include <type_traits>

static_assert(std::is_same<decltype(&qw_crc16), qw_status(QW_CALL*)(uint16_t, const uint8_t*,
                                                                    int32_t, uint16_t*)>::value,
              "qw_crc16 signature");
static_assert(std::is_standard_layout<qw_rectf>::value && sizeof(qw_rectf) == 16, "qw_rectf");

int qwHeaderCxxVersion() {
    return QW_VERSION_NUMBER;
}
