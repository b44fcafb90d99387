/* SPDX-License-Identifier: Apache-2.0 */
// The clock object, shared with the timebase and synchronisation modules.
#ifndef SORVEL_SOURCES_SVCLOCKINTERNAL_H
#define SORVEL_SOURCES_SVCLOCKINTERNAL_H

#include <Sorvel/SVClock.h>

#include <ctime>

#include "core/SVObject.h"
#include "time/SVTimeInternal.h"

struct OpaqueSVClock {
    CFRuntimeBase base;
    // A plain byte that other threads may read while it is set: accessed
    // through __atomic builtins only, so the race is a benign, defined one.
    bool invalidated;
    bool isHostClock;
    SVClockTimeSourceBlock timeSource;  // owned (_Block_copy); may be NULL
};

namespace sorvel::clock {

extern SVRuntimeClass<OpaqueSVClock> gClockClass;

inline constexpr int32_t kHostTimescale = 1000000000;

// The host time now: the monotonic counter, taken to count nanoseconds.
inline SVTime hostTimeNow() noexcept {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {static_cast<int64_t>(now.tv_sec) * kHostTimescale + now.tv_nsec, kHostTimescale, kSVTimeFlags_Valid, 0};
}

// SVClockGetTime for an object known to be a clock.
inline SVTime currentTime(const OpaqueSVClock *clock) noexcept {
    if (__atomic_load_n(&clock->invalidated, __ATOMIC_RELAXED)) return sorvel::time::kInvalid;
    // The host clock's block reads the same counter; skipping the call is
    // the only difference.
    if (clock->isHostClock) return hostTimeNow();
    if (clock->timeSource == nullptr) return sorvel::time::kInvalid;
    return clock->timeSource();
}

}  // namespace sorvel::clock

#endif  // SORVEL_SOURCES_SVCLOCKINTERNAL_H
