// SPDX-License-Identifier: Apache-2.0
// The loaded library's version, from the header CMake generates from the
// project's version, so the numbers are written in one place only.

#include <Sorvel/SVBase.h>

extern "C" {

unsigned long SVGetVersion(void) noexcept {
    return SORVEL_VERSION;
}

const char *SVGetVersionString(void) noexcept {
    return SORVEL_VERSION_STRING;
}

}  // extern "C"
