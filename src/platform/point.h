// The complete POINT type, for code that reads its fields. The public headers declare POINT
// without the Windows headers: on Windows it is the <windows.h> type, complete only once they are
// included; elsewhere the public header's look-alike is complete already.
#ifndef QUELWORKS_PLATFORM_POINT_H
#define QUELWORKS_PLATFORM_POINT_H

#include "quelworks/geometry/vector2f.h"

#if defined(_WIN32)
#include "platform/windows_include.h"
#endif

#endif  // QUELWORKS_PLATFORM_POINT_H
