// SPDX-License-Identifier: Apache-2.0
// The library's version, as karst.h gave it when the library was built.
#include "karst.h"

#include "core/boundary.hpp"

extern "C" const char *karst_version(void) try { return KARST_VERSION; } catch (...) {
    return KARST_CAUGHT(KARST_VERSION);
}
