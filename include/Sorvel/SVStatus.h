/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Status names: turning an OSStatus that a Sorvel call returned into the
 * name of its constant, so that logs and error messages show
 * "kSVSampleBufferError_BufferNotReady" rather than -12733.
 *
 * Both calls are thread-safe, allocate nothing but the returned string and
 * never fail on any value.
 */
#ifndef SORVEL_SVSTATUS_H
#define SORVEL_SVSTATUS_H

#include <Sorvel/SVBase.h>

SV_EXTERN_C_BEGIN

/* The name of the Sorvel constant whose value is `status`, as a static
 * string ("kSVBlockBufferBadLengthParameterErr"); "noErr" for 0; NULL for a
 * value that is none of Sorvel's statuses.  Where two families share a
 * value (the NAL calls return the format-description family's codes) the
 * one constant that carries it is named. */
SV_EXPORT const char *SVGetStatusName(OSStatus status) SV_NOEXCEPT;

/* A description of any status for a person to read, as a new string the
 * caller releases: "kSVSampleBufferError_BufferNotReady (-12733)" for
 * Sorvel's statuses, "noErr (0)", and for any other value its four
 * characters when all four bytes are printable ("'fmt?' (1718449215)"),
 * else "unknown status (-5)".  NULL only when the string cannot be
 * allocated. */
SV_EXPORT CFStringRef SVCopyStatusDescription(CFAllocatorRef allocator,
                                              OSStatus status) SV_NOEXCEPT CF_RETURNS_RETAINED;

SV_EXTERN_C_END

#endif /* SORVEL_SVSTATUS_H */
