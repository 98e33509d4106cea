/* The library's version, readable by a host that loads it dynamically. */
#include "larkpost/export.h"

LARKPOST_API const char* larkpost_library_version(void) { return "1.0.0"; }
