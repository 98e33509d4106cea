/* The library's version, readable by a host that loads it dynamically. */
#include "larkpost/export.h"
#include "larkpost/version.h"

LARKPOST_API const char* larkpost_library_version(void) { return LARKPOST_VERSION_STRING; }
