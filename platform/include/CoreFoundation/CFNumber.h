/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Numbers and booleans.
 *
 * A number keeps the value it was created with; CFNumberGetValue converts
 * it to the requested type and returns false when the conversion is lossy
 * (out of range, or a fraction dropped), having stored the converted value
 * all the same: C's conversion for floats to floats and integers to
 * floats, truncation toward zero for floats to integers (saturated at the
 * type's limits, NaN as 0), and the low bytes for integers to narrower
 * integers.  Numbers compare by value across types (integers exactly,
 * against floats through the exact mathematical value); NaN compares equal
 * to NaN and below every other value.
 *
 * kCFBooleanTrue and kCFBooleanFalse are the only booleans; they are
 * immortal.
 */
#ifndef COREFOUNDATION_CFNUMBER_H
#define COREFOUNDATION_CFNUMBER_H

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef const struct __CFBoolean *CFBooleanRef;

CF_EXPORT const CFBooleanRef kCFBooleanTrue CF_ABI_NAME(kCFBooleanTrue);
CF_EXPORT const CFBooleanRef kCFBooleanFalse CF_ABI_NAME(kCFBooleanFalse);

CF_EXPORT CFTypeID CFBooleanGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CFBooleanGetTypeID);
CF_EXPORT Boolean CFBooleanGetValue(CFBooleanRef boolean) CF_NOEXCEPT CF_ABI_NAME(CFBooleanGetValue);

typedef CFIndex CFNumberType;
enum {
    kCFNumberSInt8Type = 1,
    kCFNumberSInt16Type = 2,
    kCFNumberSInt32Type = 3,
    kCFNumberSInt64Type = 4,
    kCFNumberFloat32Type = 5,
    kCFNumberFloat64Type = 6,
    kCFNumberCharType = 7,
    kCFNumberShortType = 8,
    kCFNumberIntType = 9,
    kCFNumberLongType = 10,
    kCFNumberLongLongType = 11,
    kCFNumberFloatType = 12,
    kCFNumberDoubleType = 13,
    kCFNumberCFIndexType = 14,
    kCFNumberNSIntegerType = 15,
    kCFNumberCGFloatType = 16,
    kCFNumberMaxType = 16
};

typedef const struct __CFNumber *CFNumberRef;

CF_EXPORT const CFNumberRef kCFNumberPositiveInfinity CF_ABI_NAME(kCFNumberPositiveInfinity);
CF_EXPORT const CFNumberRef kCFNumberNegativeInfinity CF_ABI_NAME(kCFNumberNegativeInfinity);
CF_EXPORT const CFNumberRef kCFNumberNaN CF_ABI_NAME(kCFNumberNaN);

CF_EXPORT CFTypeID CFNumberGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CFNumberGetTypeID);
/* NULL for an unknown type or a NULL valuePtr. */
CF_EXPORT CFNumberRef CFNumberCreate(CFAllocatorRef allocator, CFNumberType theType, const void *valuePtr) CF_NOEXCEPT
    CF_ABI_NAME(CFNumberCreate);
/* The type the number was created with (kCFNumberSInt..., Float32 or Float64
 * after mapping C type names to their fixed-size counterparts). */
CF_EXPORT CFNumberType CFNumberGetType(CFNumberRef number) CF_NOEXCEPT CF_ABI_NAME(CFNumberGetType);
CF_EXPORT CFIndex CFNumberGetByteSize(CFNumberRef number) CF_NOEXCEPT CF_ABI_NAME(CFNumberGetByteSize);
CF_EXPORT Boolean CFNumberIsFloatType(CFNumberRef number) CF_NOEXCEPT CF_ABI_NAME(CFNumberIsFloatType);
CF_EXPORT Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void *valuePtr) CF_NOEXCEPT
    CF_ABI_NAME(CFNumberGetValue);
CF_EXPORT CFComparisonResult CFNumberCompare(CFNumberRef number, CFNumberRef otherNumber, void *context) CF_NOEXCEPT
    CF_ABI_NAME(CFNumberCompare);

CF_EXTERN_C_END

#endif /* COREFOUNDATION_CFNUMBER_H */
