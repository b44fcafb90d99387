// SPDX-License-Identifier: Apache-2.0
#include "PulseLibrary.h"

#include <dlfcn.h>

#include <cstdlib>
#include <mutex>

namespace sorvel::tool::audio {
namespace {

PulseLibrary gPulse;
// Why the library could not be loaded; empty once it was.
std::string gFailure;

void load() {
    const char *name = std::getenv("SORVEL_PULSE_LIBRARY");
    if (!name || !*name) name = "libpulse.so.0";
    // Kept for the life of the process: its threads and callbacks may run
    // until the end.
    void *library = dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        const char *why = dlerror();
        gFailure = std::string("cannot load the audio server's client library: ") + (why ? why : name);
        return;
    }
#define SORVEL_PULSE_RESOLVE(function)                                                                 \
    gPulse.function = reinterpret_cast<decltype(gPulse.function)>(dlsym(library, "pa_" #function));    \
    if (!gPulse.function) {                                                                            \
        gFailure = std::string("the audio server's client library ") + name + " has no pa_" #function; \
        gPulse = PulseLibrary();                                                                       \
        dlclose(library);                                                                              \
        return;                                                                                        \
    }
    SORVEL_PULSE_FUNCTIONS(SORVEL_PULSE_RESOLVE)
#undef SORVEL_PULSE_RESOLVE
}

}  // namespace

bool loadPulse(std::string &error) {
    static std::once_flag once;
    std::call_once(once, load);
    if (!gFailure.empty()) error = gFailure;
    return gFailure.empty();
}

const PulseLibrary &pulse() {
    return gPulse;
}

}  // namespace sorvel::tool::audio
