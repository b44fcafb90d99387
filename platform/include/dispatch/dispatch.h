/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The part of the dispatch library that Sorvel uses: one-time initialisation.
 *
 * A predicate is zero at load and holds all ones (~0) once its function has
 * run to completion, so callers may test it inline and skip the call on the
 * common path.  Concurrent first callers block until the one that runs the
 * function has finished, and then see every write the function made; the
 * function runs exactly once per predicate.  The predicate must have static
 * storage duration (or otherwise start at zero and outlive every caller).
 * Calling dispatch_once on a predicate from inside its own function is a
 * fatal stop.
 */
#ifndef DISPATCH_DISPATCH_H
#define DISPATCH_DISPATCH_H

#include <stdint.h>

#if defined(__cplusplus)
#define DISPATCH_EXTERN_C_BEGIN extern "C" {
#define DISPATCH_EXTERN_C_END }
#define DISPATCH_NOEXCEPT noexcept
#else
#define DISPATCH_EXTERN_C_BEGIN
#define DISPATCH_EXTERN_C_END
#define DISPATCH_NOEXCEPT
#endif

#define DISPATCH_EXPORT extern __attribute__((visibility("default")))

DISPATCH_EXTERN_C_BEGIN

typedef intptr_t dispatch_once_t;
typedef void (*dispatch_function_t)(void *context);

DISPATCH_EXPORT void dispatch_once_f(dispatch_once_t *predicate, void *context,
                                     dispatch_function_t function) DISPATCH_NOEXCEPT;

#if __BLOCKS__
typedef void (^dispatch_block_t)(void);
DISPATCH_EXPORT void dispatch_once(dispatch_once_t *predicate, dispatch_block_t block) DISPATCH_NOEXCEPT;
#endif

DISPATCH_EXTERN_C_END

#endif /* DISPATCH_DISPATCH_H */
