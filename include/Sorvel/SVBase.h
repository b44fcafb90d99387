/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Sorvel's base definitions: the export and linkage macros every public
 * header uses, and the count and index types shared by all families.
 *
 * Conventions of the whole interface:
 * - Create and Copy calls give the caller one reference (release it with
 *   CFRelease); Get calls return borrowed references.
 * - Creation calls take a CoreFoundation allocator first (NULL means the
 *   default allocator) and return the new object through a final
 *   out-parameter together with an OSStatus; 0 is success and each family's
 *   failures are negative codes named in its header.
 * - Getters handed NULL return a neutral value (NULL, 0, false, an invalid
 *   time) rather than a status.
 * - Failures are logged through XPLog (see <XPLog/XPLog.h>); logging never
 *   changes a result.  SVCopyStatusDescription (<Sorvel/SVStatus.h>) names
 *   a status.
 */
#ifndef SORVEL_SVBASE_H
#define SORVEL_SVBASE_H

#include <CoreFoundation/CoreFoundation.h>
#include <Sorvel/SVVersion.h>

#if defined(__cplusplus)
#define SV_EXTERN_C_BEGIN extern "C" {
#define SV_EXTERN_C_END }
#define SV_NOEXCEPT noexcept
#else
#define SV_EXTERN_C_BEGIN
#define SV_EXTERN_C_END
#define SV_NOEXCEPT
#endif

#define SV_EXPORT extern __attribute__((visibility("default")))

SV_EXTERN_C_BEGIN

typedef CFIndex SVItemCount;
typedef CFIndex SVItemIndex;

/* The version of the library the program runs with, which may be newer
 * than the headers it was compiled with (SORVEL_VERSION in
 * <Sorvel/SVVersion.h>): SORVEL_VERSION_ENCODE(major, minor, patch) of the
 * loaded library.  Any thread, any time. */
SV_EXPORT unsigned long SVGetVersion(void) SV_NOEXCEPT;

/* The same as "MAJOR.MINOR.PATCH", a static string. */
SV_EXPORT const char *SVGetVersionString(void) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVBASE_H */
