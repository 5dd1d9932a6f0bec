// The whole public interface of quelworks in one include.
#ifndef QUELWORKS_QUELWORKS_H
#define QUELWORKS_QUELWORKS_H

#include "quelworks/export.h"

// Containers, conversions and interpolation
#include "quelworks/util/conversions.h"
#include "quelworks/util/rlist.h"

#endif  // QUELWORKS_QUELWORKS_H
