// SPDX-License-Identifier: Apache-2.0
// Numbers and booleans.
//
// A number keeps its value in its natural class: every integer type widens
// to int64_t (SInt64 is the widest integer type the interface has), every
// floating type to double (each Float32 value is exact in a double).  The
// fixed-size type the number was created with is kept beside the value, so
// CFNumberGetType answers it and a Float32 number still converts and prints
// as a Float32.
//
// Conversions and comparisons work on exact mathematical values.  An int64_t
// and a double are never compared by converting one into the other's type
// (both directions round: INT64_MAX becomes 2^63 as a double); the double is
// split into its integral part, which is exact as an int64_t whenever it is
// in range, and its fraction.
//
// The booleans and the three special numbers are static instances laid out
// at compile time with the immortal bit set, so they are valid before any
// code of this library has run.

#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>

#include "CFInternal.h"

#define CF_SOURCE_PATH "CoreFoundation/CFNumber"

struct __CFBoolean {
    CFRuntimeBase base;
};

struct __CFNumber {
    CFRuntimeBase base;
    // One of kCFNumberSInt8Type...kCFNumberFloat64Type; the value is in
    // `integer` for the four integer types and in `real` for the two others.
    CFNumberType type;
    union {
        int64_t integer;
        double real;
    };
};

namespace {

constexpr CFRuntimeBase staticBase(CFTypeID typeID) {
    return CFRuntimeBase{0, typeID | kCFInfoImmortal, 0};
}

__CFBoolean gTrue = {staticBase(kCFBooleanTypeID)};
__CFBoolean gFalse = {staticBase(kCFBooleanTypeID)};

__CFNumber gPositiveInfinity = {staticBase(kCFNumberTypeID), kCFNumberFloat64Type, {.real = HUGE_VAL}};
__CFNumber gNegativeInfinity = {staticBase(kCFNumberTypeID), kCFNumberFloat64Type, {.real = -HUGE_VAL}};
__CFNumber gNaN = {staticBase(kCFNumberTypeID), kCFNumberFloat64Type, {.real = __builtin_nan("")}};

static_assert(sizeof(long) == 8 && sizeof(long long) == 8, "Long and LongLong map to SInt64");
static_assert(sizeof(CFIndex) == 8, "CFIndex and NSInteger map to SInt64");

constexpr double kTwoToThe63 = 0x1p63;

// The fixed-size type a C type name stands for; 0 for an unknown type.
CFNumberType fixedTypeOf(CFNumberType type) {
    switch (type) {
        case kCFNumberSInt8Type:
        case kCFNumberCharType:
            return kCFNumberSInt8Type;
        case kCFNumberSInt16Type:
        case kCFNumberShortType:
            return kCFNumberSInt16Type;
        case kCFNumberSInt32Type:
        case kCFNumberIntType:
            return kCFNumberSInt32Type;
        case kCFNumberSInt64Type:
        case kCFNumberLongType:
        case kCFNumberLongLongType:
        case kCFNumberCFIndexType:
        case kCFNumberNSIntegerType:
            return kCFNumberSInt64Type;
        case kCFNumberFloat32Type:
        case kCFNumberFloatType:
            return kCFNumberFloat32Type;
        case kCFNumberFloat64Type:
        case kCFNumberDoubleType:
        case kCFNumberCGFloatType:
            return kCFNumberFloat64Type;
        default:
            return 0;
    }
}

bool isFloatFixedType(CFNumberType fixedType) {
    return fixedType == kCFNumberFloat32Type || fixedType == kCFNumberFloat64Type;
}

CFIndex byteSizeOf(CFNumberType fixedType) {
    switch (fixedType) {
        case kCFNumberSInt8Type:
            return 1;
        case kCFNumberSInt16Type:
            return 2;
        case kCFNumberSInt32Type:
        case kCFNumberFloat32Type:
            return 4;
        default:
            return 8;
    }
}

const char *typeNameOf(CFNumberType fixedType) {
    switch (fixedType) {
        case kCFNumberSInt8Type:
            return "kCFNumberSInt8Type";
        case kCFNumberSInt16Type:
            return "kCFNumberSInt16Type";
        case kCFNumberSInt32Type:
            return "kCFNumberSInt32Type";
        case kCFNumberSInt64Type:
            return "kCFNumberSInt64Type";
        case kCFNumberFloat32Type:
            return "kCFNumberFloat32Type";
        default:
            return "kCFNumberFloat64Type";
    }
}

int sign(bool less, bool greater) {
    return less ? -1 : (greater ? 1 : 0);
}

// NaN equals NaN and is below everything else, so numbers sort totally.
int compareReals(double a, double b) {
    bool aNaN = std::isnan(a), bNaN = std::isnan(b);
    if (aNaN || bNaN) return sign(aNaN && !bNaN, bNaN && !aNaN);
    return sign(a<b, a> b);
}

// Exact: d's integral part is converted only when it lies in
// [-2^63, 2^63), where the conversion cannot round.
int compareIntegerToReal(int64_t i, double d) {
    if (std::isnan(d)) return 1;
    if (d >= kTwoToThe63) return -1;
    if (d < -kTwoToThe63) return 1;
    double integral = std::trunc(d);
    int64_t whole = static_cast<int64_t>(integral);
    if (i != whole) return sign(i<whole, i> whole);
    return sign(d > integral, d < integral);
}

int compareNumbers(CFNumberRef a, CFNumberRef b) {
    bool aReal = isFloatFixedType(a->type), bReal = isFloatFixedType(b->type);
    if (!aReal && !bReal) return sign(a->integer<b->integer, a->integer> b->integer);
    if (aReal && bReal) return compareReals(a->real, b->real);
    if (aReal) return -compareIntegerToReal(b->integer, a->real);
    return compareIntegerToReal(a->integer, b->real);
}

template <typename T>
void store(void *valuePtr, T value) {
    std::memcpy(valuePtr, &value, sizeof value);
}

// Keeps the low bytes (two's complement, computed unsigned so it is defined
// for every width); lossless when the value fits.
template <typename T>
bool storeIntegerAs(int64_t value, void *valuePtr) {
    using Unsigned = std::make_unsigned_t<T>;
    store(valuePtr, static_cast<T>(static_cast<Unsigned>(static_cast<uint64_t>(value))));
    return value >= std::numeric_limits<T>::min() && value <= std::numeric_limits<T>::max();
}

// Truncates toward zero, saturating at T's limits; NaN becomes 0.  Lossless
// only when the value was integral and in range.
template <typename T>
bool storeRealAsInteger(double value, void *valuePtr) {
    constexpr double lowest = static_cast<double>(std::numeric_limits<T>::min());  // -2^(N-1), exact
    if (std::isnan(value)) {
        store<T>(valuePtr, 0);
        return false;
    }
    double integral = std::trunc(value);
    if (integral >= -lowest) {
        store(valuePtr, std::numeric_limits<T>::max());
        return false;
    }
    if (integral < lowest) {
        store(valuePtr, std::numeric_limits<T>::min());
        return false;
    }
    store(valuePtr, static_cast<T>(integral));
    return integral == value;
}

// Values at or beyond FLT_MAX + half an ulp round to infinity; converting
// them with a cast would be undefined behaviour in C++.
float narrowToFloat32(double value, bool *lossless) {
    constexpr double kRoundsToInfinity = 0x1.ffffffp127;
    if (std::isnan(value) || std::isinf(value)) {
        *lossless = true;
        return static_cast<float>(value);
    }
    if (std::fabs(value) >= kRoundsToInfinity) {
        *lossless = false;
        constexpr float infinity = std::numeric_limits<float>::infinity();
        return std::signbit(value) ? -infinity : infinity;
    }
    float narrowed = static_cast<float>(value);
    *lossless = static_cast<double>(narrowed) == value;
    return narrowed;
}

bool getValue(CFNumberRef number, CFNumberType fixedType, void *valuePtr) {
    if (!isFloatFixedType(number->type)) {
        int64_t value = number->integer;
        switch (fixedType) {
            case kCFNumberSInt8Type:
                return storeIntegerAs<int8_t>(value, valuePtr);
            case kCFNumberSInt16Type:
                return storeIntegerAs<int16_t>(value, valuePtr);
            case kCFNumberSInt32Type:
                return storeIntegerAs<int32_t>(value, valuePtr);
            case kCFNumberSInt64Type:
                return storeIntegerAs<int64_t>(value, valuePtr);
            case kCFNumberFloat32Type: {
                float converted = static_cast<float>(value);
                store(valuePtr, converted);
                return compareIntegerToReal(value, converted) == 0;
            }
            case kCFNumberFloat64Type: {
                double converted = static_cast<double>(value);
                store(valuePtr, converted);
                return compareIntegerToReal(value, converted) == 0;
            }
            default:
                return false;
        }
    }
    double value = number->real;
    switch (fixedType) {
        case kCFNumberSInt8Type:
            return storeRealAsInteger<int8_t>(value, valuePtr);
        case kCFNumberSInt16Type:
            return storeRealAsInteger<int16_t>(value, valuePtr);
        case kCFNumberSInt32Type:
            return storeRealAsInteger<int32_t>(value, valuePtr);
        case kCFNumberSInt64Type:
            return storeRealAsInteger<int64_t>(value, valuePtr);
        case kCFNumberFloat32Type: {
            bool lossless;
            store(valuePtr, narrowToFloat32(value, &lossless));
            return lossless;
        }
        case kCFNumberFloat64Type:
            store(valuePtr, value);
            return true;
        default:
            return false;
    }
}

CFHashCode hashInteger(int64_t value) {
    return __CFHashMix(static_cast<uint64_t>(value));
}

// An integral double in int64_t range hashes like the integer it equals;
// every NaN hashes alike because every NaN compares equal.
CFHashCode hashReal(double value) {
    if (std::isnan(value)) return __CFHashMix(0x7FF8000000000000ULL);
    if (value >= -kTwoToThe63 && value < kTwoToThe63 && std::trunc(value) == value)
        return hashInteger(static_cast<int64_t>(value));
    uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return __CFHashMix(bits);
}

// The shortest text that reads back as the same value, in the number's own
// precision (a Float32 0.1 prints as 0.1, not as its double expansion).
std::string formatReal(CFNumberRef number, bool explicitPlus) {
    double value = number->real;
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value > 0 ? "+infinity" : "-infinity";
    char buffer[64];
    char *cursor = buffer;
    if (explicitPlus && !std::signbit(value)) *cursor++ = '+';
    std::to_chars_result result = number->type == kCFNumberFloat32Type
                                      ? std::to_chars(cursor, buffer + sizeof buffer, static_cast<float>(value))
                                      : std::to_chars(cursor, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

std::string formatValue(CFNumberRef number, bool explicitPlus) {
    if (isFloatFixedType(number->type)) return formatReal(number, explicitPlus);
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, explicitPlus ? "%+" PRId64 : "%" PRId64, number->integer);
    return buffer;
}

CFStringRef createStringFromUTF8(const std::string &text) {
    return CFStringCreateWithBytes(kCFAllocatorSystemDefault, reinterpret_cast<const UInt8 *>(text.data()),
                                   static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
}

std::string describeHeader(const char *className, CFTypeRef cf) {
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "<%s %p [%p]>", className, cf, static_cast<const void *>(CFGetAllocator(cf)));
    return buffer;
}

// ---- class callbacks ------------------------------------------------------

CFStringRef booleanCopyDescription(CFTypeRef cf) {
    return createStringFromUTF8(describeHeader("CFBoolean", cf) + "{value = " + (cf == &gTrue ? "true" : "false") +
                                "}");
}

CFStringRef booleanCopyFormattingDescription(CFTypeRef cf, CFDictionaryRef) {
    return static_cast<CFStringRef>(CFRetain(cf == &gTrue ? CFSTR("true") : CFSTR("false")));
}

CFHashCode booleanHash(CFTypeRef cf) {
    return cf == &gTrue ? 1 : 0;
}

Boolean numberEqual(CFTypeRef cf1, CFTypeRef cf2) {
    return compareNumbers(static_cast<CFNumberRef>(cf1), static_cast<CFNumberRef>(cf2)) == 0;
}

CFHashCode numberHash(CFTypeRef cf) {
    auto number = static_cast<CFNumberRef>(cf);
    return isFloatFixedType(number->type) ? hashReal(number->real) : hashInteger(number->integer);
}

CFStringRef numberCopyDescription(CFTypeRef cf) {
    auto number = static_cast<CFNumberRef>(cf);
    return createStringFromUTF8(describeHeader("CFNumber", cf) + "{value = " + formatValue(number, true) +
                                ", type = " + typeNameOf(number->type) + "}");
}

CFStringRef numberCopyFormattingDescription(CFTypeRef cf, CFDictionaryRef) {
    return createStringFromUTF8(formatValue(static_cast<CFNumberRef>(cf), false));
}

}  // namespace

// Booleans are compared by identity (the default), so no equal callback.
const CFRuntimeClass __CFBooleanClass = {
    0,
    "CFBoolean",
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    booleanHash,
    booleanCopyFormattingDescription,
    booleanCopyDescription,
};

const CFRuntimeClass __CFNumberClass = {
    0,
    "CFNumber",
    nullptr,
    nullptr,
    nullptr,
    numberEqual,
    numberHash,
    numberCopyFormattingDescription,
    numberCopyDescription,
};

extern "C" {

CF_EXPORT const CFBooleanRef kCFBooleanTrue = &gTrue;
CF_EXPORT const CFBooleanRef kCFBooleanFalse = &gFalse;
CF_EXPORT const CFNumberRef kCFNumberPositiveInfinity = &gPositiveInfinity;
CF_EXPORT const CFNumberRef kCFNumberNegativeInfinity = &gNegativeInfinity;
CF_EXPORT const CFNumberRef kCFNumberNaN = &gNaN;

CFTypeID CFBooleanGetTypeID(void) noexcept {
    return kCFBooleanTypeID;
}

Boolean CFBooleanGetValue(CFBooleanRef boolean) noexcept {
    CF_VALIDATE(boolean, kCFBooleanTypeID);
    return boolean == &gTrue;
}

CFTypeID CFNumberGetTypeID(void) noexcept {
    return kCFNumberTypeID;
}

CFNumberRef CFNumberCreate(CFAllocatorRef allocator, CFNumberType theType, const void *valuePtr) noexcept {
    CFNumberType fixedType = fixedTypeOf(theType);
    if (fixedType == 0 || valuePtr == nullptr) return nullptr;
    int64_t integer = 0;
    double real = 0;
    switch (fixedType) {
        case kCFNumberSInt8Type: {
            int8_t v;
            std::memcpy(&v, valuePtr, sizeof v);
            integer = v;
            break;
        }
        case kCFNumberSInt16Type: {
            int16_t v;
            std::memcpy(&v, valuePtr, sizeof v);
            integer = v;
            break;
        }
        case kCFNumberSInt32Type: {
            int32_t v;
            std::memcpy(&v, valuePtr, sizeof v);
            integer = v;
            break;
        }
        case kCFNumberSInt64Type:
            std::memcpy(&integer, valuePtr, sizeof integer);
            break;
        case kCFNumberFloat32Type: {
            float v;
            std::memcpy(&v, valuePtr, sizeof v);
            real = v;
            break;
        }
        default:
            std::memcpy(&real, valuePtr, sizeof real);
            break;
    }
    auto *number = static_cast<__CFNumber *>(const_cast<void *>(
        _CFRuntimeCreateInstance(allocator, kCFNumberTypeID, sizeof(__CFNumber) - sizeof(CFRuntimeBase), nullptr)));
    if (number == nullptr) return nullptr;
    number->type = fixedType;
    if (isFloatFixedType(fixedType))
        number->real = real;
    else
        number->integer = integer;
    return number;
}

CFNumberType CFNumberGetType(CFNumberRef number) noexcept {
    CF_VALIDATE(number, kCFNumberTypeID);
    return number->type;
}

CFIndex CFNumberGetByteSize(CFNumberRef number) noexcept {
    CF_VALIDATE(number, kCFNumberTypeID);
    return byteSizeOf(number->type);
}

Boolean CFNumberIsFloatType(CFNumberRef number) noexcept {
    CF_VALIDATE(number, kCFNumberTypeID);
    return isFloatFixedType(number->type);
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void *valuePtr) noexcept {
    CF_VALIDATE(number, kCFNumberTypeID);
    CF_REQUIRE(valuePtr, "valuePtr");
    CFNumberType fixedType = fixedTypeOf(theType);
    if (fixedType == 0) return false;
    return getValue(number, fixedType, valuePtr);
}

CFComparisonResult CFNumberCompare(CFNumberRef number, CFNumberRef otherNumber, void *context) noexcept {
    CF_VALIDATE(number, kCFNumberTypeID);
    CF_VALIDATE(otherNumber, kCFNumberTypeID);
    return compareNumbers(number, otherNumber);
}

}  // extern "C"
