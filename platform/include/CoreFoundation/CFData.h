/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Immutable and mutable byte buffers.  Two data objects are equal when
 * their bytes are.  A mutable data object must not be mutated from two
 * threads at once.
 */
#ifndef COREFOUNDATION_CFDATA_H
#define COREFOUNDATION_CFDATA_H

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef const struct __CFData *CFDataRef;
typedef struct __CFData *CFMutableDataRef;

CF_EXPORT CFTypeID CFDataGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CFDataGetTypeID);

/* Copies `length` bytes (bytes may be NULL when length is 0). */
CF_EXPORT CFDataRef CFDataCreate(CFAllocatorRef allocator, const UInt8 *bytes, CFIndex length) CF_NOEXCEPT
    CF_ABI_NAME(CFDataCreate);
/* Keeps `bytes` without copying and frees them with `bytesDeallocator`
 * (NULL: the default allocator; kCFAllocatorNull: never) when finalized. */
CF_EXPORT CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef allocator, const UInt8 *bytes, CFIndex length,
                                                CFAllocatorRef bytesDeallocator) CF_NOEXCEPT
    CF_ABI_NAME(CFDataCreateWithBytesNoCopy);
CF_EXPORT CFDataRef CFDataCreateCopy(CFAllocatorRef allocator, CFDataRef theData) CF_NOEXCEPT
    CF_ABI_NAME(CFDataCreateCopy);
/* capacity 0 means unlimited; otherwise the length may never exceed it. */
CF_EXPORT CFMutableDataRef CFDataCreateMutable(CFAllocatorRef allocator, CFIndex capacity) CF_NOEXCEPT
    CF_ABI_NAME(CFDataCreateMutable);
CF_EXPORT CFMutableDataRef CFDataCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                                   CFDataRef theData) CF_NOEXCEPT CF_ABI_NAME(CFDataCreateMutableCopy);

CF_EXPORT CFIndex CFDataGetLength(CFDataRef theData) CF_NOEXCEPT CF_ABI_NAME(CFDataGetLength);
CF_EXPORT const UInt8 *CFDataGetBytePtr(CFDataRef theData) CF_NOEXCEPT CF_ABI_NAME(CFDataGetBytePtr);
CF_EXPORT UInt8 *CFDataGetMutableBytePtr(CFMutableDataRef theData) CF_NOEXCEPT CF_ABI_NAME(CFDataGetMutableBytePtr);
CF_EXPORT void CFDataGetBytes(CFDataRef theData, CFRange range, UInt8 *buffer) CF_NOEXCEPT CF_ABI_NAME(CFDataGetBytes);

/* Growing zero-fills the new bytes. */
CF_EXPORT void CFDataSetLength(CFMutableDataRef theData, CFIndex length) CF_NOEXCEPT CF_ABI_NAME(CFDataSetLength);
CF_EXPORT void CFDataIncreaseLength(CFMutableDataRef theData, CFIndex extraLength) CF_NOEXCEPT
    CF_ABI_NAME(CFDataIncreaseLength);
CF_EXPORT void CFDataAppendBytes(CFMutableDataRef theData, const UInt8 *bytes, CFIndex length) CF_NOEXCEPT
    CF_ABI_NAME(CFDataAppendBytes);
CF_EXPORT void CFDataReplaceBytes(CFMutableDataRef theData, CFRange range, const UInt8 *newBytes,
                                  CFIndex newLength) CF_NOEXCEPT CF_ABI_NAME(CFDataReplaceBytes);
CF_EXPORT void CFDataDeleteBytes(CFMutableDataRef theData, CFRange range) CF_NOEXCEPT CF_ABI_NAME(CFDataDeleteBytes);

CF_EXTERN_C_END

#endif /* COREFOUNDATION_CFDATA_H */
