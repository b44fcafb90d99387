/* SPDX-License-Identifier: Apache-2.0 */
// The boundary of a C entry point whose work allocates through the standard
// library (containers, new).  Every entry point is noexcept, so a
// std::bad_alloc thrown inside would end the process; the boundary turns it
// into the family's allocation status, or NULL where the call returns an
// object.  It closes a function-try-block:
//
//     OSStatus SVThingCreate(...) noexcept try {
//         ...
//     }
//     SV_ALLOCATION_BOUNDARY(kSVThingError_AllocationFailed)
//
// What the body made before the throw must be owned by objects that give it
// back as they unwind (SVRetained, containers, guards), and nothing may be
// left half-registered: the call fails as a whole and may be made again.
#ifndef SORVEL_SOURCES_SVALLOCATIONBOUNDARY_H
#define SORVEL_SOURCES_SVALLOCATIONBOUNDARY_H

#include <new>

#define SV_ALLOCATION_BOUNDARY(failure) \
    catch (const std::bad_alloc &) {    \
        return (failure);               \
    }

#endif  // SORVEL_SOURCES_SVALLOCATIONBOUNDARY_H
