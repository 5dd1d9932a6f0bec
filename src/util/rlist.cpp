// The list instantiations the library exports. RList<CalibrationPoint> is instantiated with the
// geometry types.
#include "quelworks/util/rlist.h"

QUELWORKS_TEMPLATE RList<char*>;
QUELWORKS_TEMPLATE RList<wchar_t*>;
QUELWORKS_TEMPLATE RList<SortObject>;
