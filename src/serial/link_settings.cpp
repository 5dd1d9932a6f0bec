#include "serial/link_settings.h"

namespace quelworks {

bool LinkSettings::ApplyBaudrate(RS232& link) {
    if (!link.IsConnected()) return false;
    return link.ConfigurePort(link.Baudrate, 8, 0, 0, 0);
}

}  // namespace quelworks
