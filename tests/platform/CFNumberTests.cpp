// SPDX-License-Identifier: Apache-2.0
// Tests for numbers and booleans: the conversion rules of CFNumberGetValue
// at every boundary, exact cross-type comparison, hashing consistent with
// equality, type mapping, descriptions, immortal singletons and allocation
// failure.
#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "support/TestAllocator.h"

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

std::string text(CFStringRef string) {
    char buffer[512];
    bool ok = string && CFStringGetCString(string, buffer, sizeof buffer, kCFStringEncodingUTF8);
    if (string) CFRelease(string);
    return ok ? buffer : "(null or unconvertible)";
}

std::string prefix(const char *className, CFTypeRef cf) {
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "<%s %p [%p]>", className, cf, static_cast<const void *>(CFGetAllocator(cf)));
    return buffer;
}

// Writes `integer` (integer types) or `real` (float types) to `out` as the C
// type that `type` names.
template <typename T>
void put(void *out, T value) {
    std::memcpy(out, &value, sizeof value);
}
void store(CFNumberType type, int64_t integer, double real, void *out) {
    switch (type) {
        case kCFNumberSInt8Type:
        case kCFNumberCharType:
            return put(out, static_cast<int8_t>(integer));
        case kCFNumberSInt16Type:
        case kCFNumberShortType:
            return put(out, static_cast<int16_t>(integer));
        case kCFNumberSInt32Type:
        case kCFNumberIntType:
            return put(out, static_cast<int32_t>(integer));
        case kCFNumberFloat32Type:
        case kCFNumberFloatType:
            return put(out, static_cast<float>(real));
        case kCFNumberFloat64Type:
        case kCFNumberDoubleType:
        case kCFNumberCGFloatType:
            return put(out, real);
        default:
            return put(out, integer);
    }
}

struct Operand {
    CFNumberType type;
    int64_t integer;
    double real;
};

CFNumberRef make(const Operand &operand) {
    alignas(8) unsigned char bytes[8];
    store(operand.type, operand.integer, operand.real, bytes);
    return CFNumberCreate(nullptr, operand.type, bytes);
}

// Short names keep the tables one case per line.
constexpr CFNumberType S8 = kCFNumberSInt8Type, S16 = kCFNumberSInt16Type, S32 = kCFNumberSInt32Type,
                       S64 = kCFNumberSInt64Type, F32 = kCFNumberFloat32Type, F64 = kCFNumberFloat64Type;
constexpr Operand I(CFNumberType type, int64_t value) {
    return {type, value, 0};
}
constexpr Operand R(CFNumberType type, double value) {
    return {type, 0, value};
}
constexpr CFComparisonResult LT = kCFCompareLessThan, EQ = kCFCompareEqualTo, GT = kCFCompareGreaterThan;

void expectImmortal(CFTypeRef cf) {
    CFIndex count = CFGetRetainCount(cf);
    CFRetain(cf);
    for (int i = 0; i < 3; ++i) CFRelease(cf);
    EXPECT_EQ(CFGetRetainCount(cf), count);
}

// ---- CFNumberGetValue -------------------------------------------------------

struct Conversion {
    const char *label;
    Operand source, expected;  // the expected value's type is the target type
    bool lossless;
};

const Conversion kConversions[] = {
    // integer -> integer: low bytes, lossy when out of range
    {"INT8_MAX to SInt8", I(S8, 127), I(S8, 127), true},
    {"INT8_MAX+1 to SInt8", I(S16, 128), I(S8, -128), false},
    {"INT8_MIN to SInt8", I(S16, -128), I(S8, -128), true},
    {"INT8_MIN-1 to SInt8", I(S16, -129), I(S8, 127), false},
    {"0x1234 to Char", I(S64, 0x1234), I(kCFNumberCharType, 0x34), false},
    {"INT32_MAX to SInt16", I(S32, INT32_MAX), I(S16, -1), false},
    {"INT64_MAX to SInt32", I(S64, INT64_MAX), I(S32, -1), false},
    {"INT64_MIN to SInt8", I(S64, INT64_MIN), I(S8, 0), false},
    {"INT32_MIN to CFIndex", I(S32, INT32_MIN), I(kCFNumberCFIndexType, INT32_MIN), true},
    // integer -> float: C conversion, lossy when not exact
    {"16777216 to Float32", I(S32, 16777216), R(F32, 16777216.0), true},
    {"16777217 to Float32", I(S32, 16777217), R(F32, 16777216.0), false},
    {"INT32_MAX to Float32", I(S32, INT32_MAX), R(kCFNumberFloatType, 0x1p31), false},
    {"2^53 to Float64", I(S64, INT64_C(1) << 53), R(kCFNumberDoubleType, 0x1p53), true},
    {"2^53+1 to Float64", I(S64, (INT64_C(1) << 53) + 1), R(F64, 0x1p53), false},
    {"INT64_MAX to Float64", I(S64, INT64_MAX), R(F64, 0x1p63), false},
    {"INT64_MIN to Float64", I(S64, INT64_MIN), R(kCFNumberCGFloatType, -0x1p63), true},
    // float -> integer: toward zero, saturated, NaN as 0
    {"-1.5 to SInt8", R(F64, -1.5), I(S8, -1), false},
    {"1.5f to SInt64", R(F32, 1.5), I(S64, 1), false},
    {"-0.0 to SInt32", R(F64, -0.0), I(S32, 0), true},
    {"127.0 to SInt8", R(F64, 127.0), I(S8, 127), true},
    {"128.0 to SInt8", R(F64, 128.0), I(S8, 127), false},
    {"-128.0 to SInt8", R(F64, -128.0), I(S8, -128), true},
    {"-128.5 to SInt8", R(F64, -128.5), I(S8, -128), false},
    {"-129.0 to SInt8", R(F64, -129.0), I(S8, -128), false},
    {"2^63 to SInt64", R(F64, 0x1p63), I(S64, INT64_MAX), false},
    {"-2^63 to SInt64", R(F64, -0x1p63), I(S64, INT64_MIN), true},
    {"-1e300 to Int", R(F64, -1e300), I(kCFNumberIntType, INT32_MIN), false},
    {"NaN to SInt32", R(F64, kNaN), I(S32, 0), false},
    {"+inf to SInt16", R(F64, kInf), I(S16, INT16_MAX), false},
    {"-inf to SInt64", R(F64, -kInf), I(S64, INT64_MIN), false},
    // float -> float
    {"0.1 to Float32", R(F64, 0.1), R(F32, 0.1f), false},
    {"1e300 to Float32", R(F64, 1e300), R(F32, kInf), false},
    {"-1e300 to Float32", R(F64, -1e300), R(kCFNumberFloatType, -kInf), false},
    {"FLT_MAX to Float32", R(F64, FLT_MAX), R(F32, FLT_MAX), true},
    {"FLT_MAX+half ulp to Float32", R(F64, 0x1.ffffffp127), R(F32, kInf), false},
    {"just below that", R(F64, 0x1.fffffefffffffp127), R(F32, FLT_MAX), false},
    {"1e-50 to Float32", R(F64, 1e-50), R(F32, 0.0), false},
    {"+inf to Float32", R(F64, kInf), R(F32, kInf), true},
    {"-inf to Float32", R(F64, -kInf), R(F32, -kInf), true},
    {"NaN to Float32", R(F64, kNaN), R(F32, kNaN), true},
    {"0.1f to Float64", R(F32, 0.1), R(F64, 0.1f), true},
    {"0.1f to Float32", R(kCFNumberFloatType, 0.1), R(F32, 0.1f), true},
};

TEST(CFNumberGetValueTest, ConvertsWithTheDocumentedRulesAndReportsLoss) {
    for (const Conversion &c : kConversions) {
        SCOPED_TRACE(c.label);
        CFNumberRef number = make(c.source);
        ASSERT_NE(number, nullptr);
        // Canaries on both sides catch a store of the wrong width; comparing
        // bytes also pins the sign of zeros, infinities and NaNs.
        alignas(8) unsigned char stored[24], expected[24];
        std::memset(stored, 0xA5, sizeof stored);
        std::memset(expected, 0xA5, sizeof expected);
        EXPECT_EQ(CFNumberGetValue(number, c.expected.type, stored + 8) != 0, c.lossless);
        store(c.expected.type, c.expected.integer, c.expected.real, expected + 8);
        EXPECT_EQ(std::vector<int>(stored, stored + 24), std::vector<int>(expected, expected + 24));
        CFRelease(number);
    }
}

TEST(CFNumberGetValueTest, UnknownTypesAreRejected) {
    EXPECT_EQ(CFNumberCreate(nullptr, kCFNumberSInt32Type, nullptr), nullptr);
    CFNumberRef number = make(I(S32, 7));
    for (CFNumberType type :
         {CFNumberType(0), CFNumberType(kCFNumberMaxType + 1), CFNumberType(-1), CFNumberType(1000)}) {
        int64_t slot = 0x5A5A5A5A5A5A5A5A;
        EXPECT_EQ(CFNumberCreate(nullptr, type, &slot), nullptr) << type;
        EXPECT_FALSE(CFNumberGetValue(number, type, &slot)) << type;
        EXPECT_EQ(slot, 0x5A5A5A5A5A5A5A5A) << type;
    }
    CFRelease(number);
}

// ---- types --------------------------------------------------------------------

TEST(CFNumberTypeTest, CTypeNamesMapToTheirFixedSizeTypes) {
    struct Case {
        CFNumberType created, reported;
        CFIndex byteSize;
        bool isFloat;
    };
    const Case cases[] = {
        {S8, S8, 1, false},
        {S16, S16, 2, false},
        {S32, S32, 4, false},
        {S64, S64, 8, false},
        {F32, F32, 4, true},
        {F64, F64, 8, true},
        {kCFNumberCharType, S8, 1, false},
        {kCFNumberShortType, S16, 2, false},
        {kCFNumberIntType, S32, 4, false},
        {kCFNumberLongType, S64, 8, false},
        {kCFNumberLongLongType, S64, 8, false},
        {kCFNumberFloatType, F32, 4, true},
        {kCFNumberDoubleType, F64, 8, true},
        {kCFNumberCFIndexType, S64, 8, false},
        {kCFNumberNSIntegerType, S64, 8, false},
        {kCFNumberCGFloatType, F64, 8, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.created);
        CFNumberRef number = make({c.created, 3, 3.0});
        ASSERT_NE(number, nullptr);
        EXPECT_EQ(CFGetTypeID(number), CFNumberGetTypeID());
        EXPECT_EQ(CFNumberGetType(number), c.reported);
        EXPECT_EQ(CFNumberGetByteSize(number), c.byteSize);
        EXPECT_EQ(CFNumberIsFloatType(number) != 0, c.isFloat);
        CFRelease(number);
    }
}

// The static singletons must behave exactly like numbers made at run time.
TEST(CFNumberTypeTest, SpecialNumbersAreImmortalFloat64Values) {
    struct Case {
        CFNumberRef number;
        double value;
    };
    for (const Case &c :
         {Case{kCFNumberPositiveInfinity, kInf}, Case{kCFNumberNegativeInfinity, -kInf}, Case{kCFNumberNaN, kNaN}}) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(CFGetTypeID(c.number), CFNumberGetTypeID());
        EXPECT_EQ(CFNumberGetType(c.number), kCFNumberFloat64Type);
        double value = 0;
        EXPECT_TRUE(CFNumberGetValue(c.number, kCFNumberFloat64Type, &value));
        EXPECT_TRUE(std::isnan(c.value) ? std::isnan(value) : value == c.value) << value;
        CFNumberRef same = make(R(F32, c.value));
        EXPECT_TRUE(CFEqual(c.number, same));
        EXPECT_EQ(CFHash(c.number), CFHash(same));
        CFRelease(same);
        expectImmortal(c.number);
    }
}

// ---- comparison, equality, hash ------------------------------------------------

// Equal values must hash alike whatever type carries them, or dictionaries
// keyed by numbers lose entries; unequal ones here should not collide.
TEST(CFNumberCompareTest, ComparesExactlyAcrossTypesAndHashesLikeEquality) {
    struct Case {
        const char *label;
        Operand a, b;
        CFComparisonResult expected;
    };
    const Case cases[] = {
        {"1 vs 1.0", I(S32, 1), R(F64, 1.0), EQ},
        {"-300 vs -300.0f", I(S16, -300), R(kCFNumberFloatType, -300.0), EQ},
        {"2^62 vs 2^62f", I(S64, INT64_C(1) << 62), R(F32, 0x1p62), EQ},
        {"INT64_MAX vs 2^63", I(S64, INT64_MAX), R(F64, 0x1p63), LT},
        {"INT64_MAX vs 2^63f", I(S64, INT64_MAX), R(F32, 0x1p63), LT},
        {"INT64_MIN vs -2^63", I(S64, INT64_MIN), R(F64, -0x1p63), EQ},
        {"2^53+1 vs 2^53", I(S64, (INT64_C(1) << 53) + 1), R(F64, 0x1p53), GT},
        {"-1 vs -0.5", I(S8, -1), R(F64, -0.5), LT},
        {"0 vs -0.5", I(S8, 0), R(F64, -0.5), GT},
        {"0 vs 0.5f", I(S8, 0), R(F32, 0.5), LT},
        {"0 vs -0.0", I(S64, 0), R(F64, -0.0), EQ},
        {"0.0f vs -0.0", R(F32, 0.0), R(F64, -0.0), EQ},
        {"-128 SInt8 vs SInt64", I(S8, -128), I(S64, -128), EQ},
        {"INT64_MIN vs INT64_MAX", I(S64, INT64_MIN), I(S64, INT64_MAX), LT},
        {"0.1f vs 0.1", R(F32, 0.1), R(F64, 0.1), GT},
        {"0.5f vs 0.5", R(F32, 0.5), R(F64, 0.5), EQ},
        {"1e300 vs INT64_MAX", R(F64, 1e300), I(S64, INT64_MAX), GT},
        {"-1e300 vs INT64_MIN", R(F64, -1e300), I(S64, INT64_MIN), LT},
        {"+inf vs +inf f", R(F64, kInf), R(F32, kInf), EQ},
        {"-inf vs -1e300", R(F64, -kInf), R(F64, -1e300), LT},
        {"NaN vs NaN", R(F64, kNaN), R(F64, kNaN), EQ},
        {"NaN vs -inf", R(F64, kNaN), R(F64, -kInf), LT},
        {"NaN vs INT64_MIN", R(F64, kNaN), I(S64, INT64_MIN), LT},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.label);
        CFNumberRef a = make(c.a), b = make(c.b);
        EXPECT_EQ(CFNumberCompare(a, b, nullptr), c.expected);
        EXPECT_EQ(CFNumberCompare(b, a, nullptr), -c.expected);
        EXPECT_EQ(CFEqual(a, b) != 0, c.expected == kCFCompareEqualTo);
        EXPECT_EQ(CFHash(a) == CFHash(b), c.expected == kCFCompareEqualTo);
        CFRelease(a);
        CFRelease(b);
    }
}

// ---- descriptions --------------------------------------------------------------

TEST(CFNumberDescriptionTest, DebugAndFormattingDescriptions) {
    struct Case {
        Operand value;
        const char *debugTail, *formatted;
    };
    const Case cases[] = {
        {I(S32, 42), "{value = +42, type = kCFNumberSInt32Type}", "42"},
        {I(kCFNumberCharType, -7), "{value = -7, type = kCFNumberSInt8Type}", "-7"},
        {I(kCFNumberLongType, INT64_MIN), "{value = -9223372036854775808, type = kCFNumberSInt64Type}",
         "-9223372036854775808"},
        {R(F64, 1.5), "{value = +1.5, type = kCFNumberFloat64Type}", "1.5"},
        {R(F32, 0.1), "{value = +0.1, type = kCFNumberFloat32Type}", "0.1"},
        {R(F64, -0.25), "{value = -0.25, type = kCFNumberFloat64Type}", "-0.25"},
        {R(F64, kInf), "{value = +infinity, type = kCFNumberFloat64Type}", "+infinity"},
        {R(F64, kNaN), "{value = nan, type = kCFNumberFloat64Type}", "nan"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.formatted);
        CFNumberRef number = make(c.value);
        EXPECT_EQ(text(CFCopyDescription(number)), prefix("CFNumber", number) + c.debugTail);
        EXPECT_EQ(text(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%@"), number)), c.formatted);
        CFRelease(number);
    }
}

// ---- booleans -------------------------------------------------------------------

TEST(CFBooleanTest, ImmortalSingletonsThatAreNotNumbers) {
    EXPECT_TRUE(CFBooleanGetValue(kCFBooleanTrue));
    EXPECT_FALSE(CFBooleanGetValue(kCFBooleanFalse));
    for (CFBooleanRef boolean : {kCFBooleanTrue, kCFBooleanFalse}) {
        EXPECT_EQ(CFGetTypeID(boolean), CFBooleanGetTypeID());
        expectImmortal(boolean);
    }
    EXPECT_FALSE(CFEqual(kCFBooleanTrue, kCFBooleanFalse));
    EXPECT_NE(CFHash(kCFBooleanTrue), CFHash(kCFBooleanFalse));
    EXPECT_NE(CFBooleanGetTypeID(), CFNumberGetTypeID());
    CFNumberRef one = make(I(S32, 1)), zero = make(I(S8, 0));
    EXPECT_FALSE(CFEqual(kCFBooleanTrue, one));
    EXPECT_FALSE(CFEqual(one, kCFBooleanTrue));
    EXPECT_FALSE(CFEqual(kCFBooleanFalse, zero));
    CFRelease(one);
    CFRelease(zero);
    EXPECT_EQ(text(CFCopyDescription(kCFBooleanTrue)), prefix("CFBoolean", kCFBooleanTrue) + "{value = true}");
    EXPECT_EQ(text(CFCopyDescription(kCFBooleanFalse)), prefix("CFBoolean", kCFBooleanFalse) + "{value = false}");
    EXPECT_EQ(text(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%@/%@"), kCFBooleanTrue, kCFBooleanFalse)),
              "true/false");
}

// ---- allocation and misuse --------------------------------------------------------

TEST(CFNumberAllocationTest, NumbersLiveInTheirAllocatorAndCreationFailsCleanly) {
    sorvel_test::TestAllocator allocator;
    double value = 2.5;
    CFNumberRef number = CFNumberCreate(allocator.get(), kCFNumberFloat64Type, &value);
    ASSERT_NE(number, nullptr);
    EXPECT_EQ(CFGetAllocator(number), allocator.get());
    EXPECT_EQ(allocator.allocations(), 1);
    CFRelease(number);
    EXPECT_EQ(allocator.outstanding(), 0);
    allocator.failAlways();
    EXPECT_EQ(CFNumberCreate(allocator.get(), kCFNumberFloat64Type, &value), nullptr);
    EXPECT_EQ(allocator.failures(), 1);
    EXPECT_EQ(allocator.outstanding(), 0);
}

TEST(CFNumberDeathTest, MisuseIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CFNumberRef number = make(I(S32, 1));
    int32_t slot;
    EXPECT_DEATH(CFNumberGetValue(nullptr, kCFNumberSInt32Type, &slot), "CFNumberGetValue");
    EXPECT_DEATH(CFNumberGetValue(number, kCFNumberSInt32Type, nullptr), "CFNumberGetValue.*valuePtr");
    EXPECT_DEATH(CFNumberCompare(number, reinterpret_cast<CFNumberRef>(kCFBooleanTrue), nullptr),
                 "CFNumberCompare.*CFBoolean");
    EXPECT_DEATH(CFBooleanGetValue(reinterpret_cast<CFBooleanRef>(number)), "CFBooleanGetValue.*CFNumber");
    EXPECT_DEATH(CFNumberGetType(nullptr), "CFNumberGetType");
    CFRelease(number);
}

}  // namespace
