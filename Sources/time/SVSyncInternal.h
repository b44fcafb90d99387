/* SPDX-License-Identifier: Apache-2.0 */
// The synchronisation machinery that timebases use for their own time and
// effective rate.
#ifndef SORVEL_SOURCES_SVSYNCINTERNAL_H
#define SORVEL_SOURCES_SVSYNCINTERNAL_H

#include <Sorvel/SVSync.h>

#include "time/SVTimebaseInternal.h"

namespace sorvel::sync {

Kind kindOf(CFTypeRef object) noexcept;

// SVSyncGetTime for an object whose kind is known.
SVTime timeOf(CFTypeRef object, Kind kind) noexcept;

// The rate of `timebase` relative to its ultimate master clock, 0.0 where
// the relative rate's divisor is 0.
double effectiveRate(const OpaqueSVTimebase *timebase) noexcept;

// The clock at the root of the timebase's tree, NULL when the chain of
// masters ends in an object that is not a clock.
CFTypeRef ultimateMasterClock(const OpaqueSVTimebase *timebase) noexcept;

}  // namespace sorvel::sync

#endif  // SORVEL_SOURCES_SVSYNCINTERNAL_H
