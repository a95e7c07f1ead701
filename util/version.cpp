// The version of the running library.
#include <fsic/defs.h>

extern "C" unsigned fsic_version(void) noexcept { return FSIC_VERSION_NUMBER; }
