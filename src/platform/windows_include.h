// The one place that includes <windows.h>, trimmed to what the library needs and without the
// min/max macros that would break the standard headers.
#ifndef QUELWORKS_PLATFORM_WINDOWS_INCLUDE_H
#define QUELWORKS_PLATFORM_WINDOWS_INCLUDE_H

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#endif  // QUELWORKS_PLATFORM_WINDOWS_INCLUDE_H
