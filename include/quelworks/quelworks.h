/// \file
/// The whole public interface of quelworks in one include.
#ifndef QUELWORKS_QUELWORKS_H
#define QUELWORKS_QUELWORKS_H

#include "quelworks/export.h"

// Serial communication
#include "quelworks/serial/communicator.h"
#include "quelworks/serial/crc_ccitt.h"
#include "quelworks/serial/port_details.h"
#include "quelworks/serial/port_settings.h"
#include "quelworks/serial/receive_buffer.h"
#include "quelworks/serial/rs232.h"
#include "quelworks/serial/rs232_async.h"

// Device bootloader client
#include "quelworks/bootloader/bootloader.h"

// Containers, conversions and interpolation
#include "quelworks/util/conversions.h"
#include "quelworks/util/linear_interpolation.h"
#include "quelworks/util/rlist.h"

// INI files
#include "quelworks/ini/ini_file.h"

// Plane geometry and camera calibration
#include "quelworks/geometry/coordinate_transformation.h"
#include "quelworks/geometry/hatching.h"
#include "quelworks/geometry/polygon.h"
#include "quelworks/geometry/prepared_transformation.h"
#include "quelworks/geometry/shapes.h"
#include "quelworks/geometry/vector2f.h"

#endif  // QUELWORKS_QUELWORKS_H
