// Tests for numbers and booleans: the conversion rules of CFNumberGetValue
// at every boundary, exact cross-type comparison, hashing consistent with
// equality, type mapping, descriptions, immortal singletons and allocation
// failure.
#include <CoreFoundation/CoreFoundation.h>

#include <gtest/gtest.h>

#include <cfloat>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

std::string text(CFStringRef string) {
    if (string == nullptr) return "(null)";
    char buffer[512];
    bool ok = CFStringGetCString(string, buffer, sizeof buffer, kCFStringEncodingUTF8);
    CFRelease(string);
    return ok ? buffer : "(unconvertible)";
}

std::string prefix(const char *className, CFTypeRef cf) {
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "<%s %p [%p]>", className, cf, static_cast<const void *>(CFGetAllocator(cf)));
    return buffer;
}

// A number of `type` holding `integer` (integer types) or `real` (float
// types), created from a variable of exactly that C type.
CFNumberRef makeNumber(CFNumberType type, int64_t integer, double real = 0) {
    switch (type) {
    case kCFNumberSInt8Type: { int8_t v = static_cast<int8_t>(integer); return CFNumberCreate(nullptr, type, &v); }
    case kCFNumberCharType: { char v = static_cast<char>(integer); return CFNumberCreate(nullptr, type, &v); }
    case kCFNumberSInt16Type: { int16_t v = static_cast<int16_t>(integer); return CFNumberCreate(nullptr, type, &v); }
    case kCFNumberShortType: { short v = static_cast<short>(integer); return CFNumberCreate(nullptr, type, &v); }
    case kCFNumberSInt32Type: { int32_t v = static_cast<int32_t>(integer); return CFNumberCreate(nullptr, type, &v); }
    case kCFNumberIntType: { int v = static_cast<int>(integer); return CFNumberCreate(nullptr, type, &v); }
    case kCFNumberSInt64Type: { int64_t v = integer; return CFNumberCreate(nullptr, type, &v); }
    case kCFNumberLongType: { long v = integer; return CFNumberCreate(nullptr, type, &v); }
    case kCFNumberLongLongType: { long long v = integer; return CFNumberCreate(nullptr, type, &v); }
    case kCFNumberCFIndexType:
    case kCFNumberNSIntegerType: { CFIndex v = integer; return CFNumberCreate(nullptr, type, &v); }
    case kCFNumberFloat32Type:
    case kCFNumberFloatType: { float v = static_cast<float>(real); return CFNumberCreate(nullptr, type, &v); }
    default: { double v = real; return CFNumberCreate(nullptr, type, &v); }
    }
}

// ---- CFNumberGetValue -------------------------------------------------------

struct Conversion {
    const char *label;
    CFNumberType sourceType;
    int64_t sourceInteger;
    double sourceReal;
    CFNumberType targetType;
    int64_t expectedInteger;  // integer targets
    double expectedReal;      // float targets
    bool lossless;
};

const Conversion kConversions[] = {
    // integer -> narrower integer: low bytes, lossy when out of range
    {"INT8_MAX to SInt8", kCFNumberSInt8Type, 127, 0, kCFNumberSInt8Type, 127, 0, true},
    {"INT8_MAX+1 to SInt8", kCFNumberSInt16Type, 128, 0, kCFNumberSInt8Type, -128, 0, false},
    {"INT8_MIN to SInt8", kCFNumberSInt16Type, -128, 0, kCFNumberSInt8Type, -128, 0, true},
    {"INT8_MIN-1 to SInt8", kCFNumberSInt16Type, -129, 0, kCFNumberSInt8Type, 127, 0, false},
    {"INT8_MAX+1 to SInt16", kCFNumberSInt16Type, 128, 0, kCFNumberSInt16Type, 128, 0, true},
    {"0x1234 to Char", kCFNumberSInt64Type, 0x1234, 0, kCFNumberCharType, 0x34, 0, false},
    {"INT32_MAX to SInt16", kCFNumberSInt32Type, INT32_MAX, 0, kCFNumberSInt16Type, -1, 0, false},
    {"INT64_MAX to SInt32", kCFNumberSInt64Type, INT64_MAX, 0, kCFNumberSInt32Type, -1, 0, false},
    {"INT64_MIN to SInt8", kCFNumberSInt64Type, INT64_MIN, 0, kCFNumberSInt8Type, 0, 0, false},
    {"INT64_MIN to SInt64", kCFNumberSInt64Type, INT64_MIN, 0, kCFNumberSInt64Type, INT64_MIN, 0, true},
    {"-1 to Long", kCFNumberSInt8Type, -1, 0, kCFNumberLongType, -1, 0, true},
    {"42 to Short", kCFNumberIntType, 42, 0, kCFNumberShortType, 42, 0, true},
    {"INT32_MIN to CFIndex", kCFNumberSInt32Type, INT32_MIN, 0, kCFNumberCFIndexType, INT32_MIN, 0, true},
    // integer -> float: C conversion, lossy when not exact
    {"127 to Float32", kCFNumberSInt8Type, 127, 0, kCFNumberFloat32Type, 0, 127.0, true},
    {"16777216 to Float32", kCFNumberSInt32Type, 16777216, 0, kCFNumberFloat32Type, 0, 16777216.0, true},
    {"16777217 to Float32", kCFNumberSInt32Type, 16777217, 0, kCFNumberFloat32Type, 0, 16777216.0, false},
    {"INT32_MAX to Float32", kCFNumberSInt32Type, INT32_MAX, 0, kCFNumberFloatType, 0, 0x1p31, false},
    {"INT32_MAX to Float64", kCFNumberSInt32Type, INT32_MAX, 0, kCFNumberFloat64Type, 0, 2147483647.0, true},
    {"2^53 to Float64", kCFNumberSInt64Type, INT64_C(1) << 53, 0, kCFNumberDoubleType, 0, 0x1p53, true},
    {"2^53+1 to Float64", kCFNumberSInt64Type, (INT64_C(1) << 53) + 1, 0, kCFNumberFloat64Type, 0, 0x1p53, false},
    {"INT64_MAX to Float64", kCFNumberSInt64Type, INT64_MAX, 0, kCFNumberFloat64Type, 0, 0x1p63, false},
    {"INT64_MAX to Float32", kCFNumberLongLongType, INT64_MAX, 0, kCFNumberFloat32Type, 0, 0x1p63, false},
    {"INT64_MIN to Float64", kCFNumberSInt64Type, INT64_MIN, 0, kCFNumberCGFloatType, 0, -0x1p63, true},
    // float -> integer: toward zero, saturated, NaN as 0
    {"1.5 to SInt32", kCFNumberFloat64Type, 0, 1.5, kCFNumberSInt32Type, 1, 0, false},
    {"-1.5 to SInt8", kCFNumberFloat64Type, 0, -1.5, kCFNumberSInt8Type, -1, 0, false},
    {"1.5f to SInt64", kCFNumberFloat32Type, 0, 1.5, kCFNumberSInt64Type, 1, 0, false},
    {"-0.0 to SInt32", kCFNumberFloat64Type, 0, -0.0, kCFNumberSInt32Type, 0, 0, true},
    {"127.0 to SInt8", kCFNumberFloat64Type, 0, 127.0, kCFNumberSInt8Type, 127, 0, true},
    {"127.5 to SInt8", kCFNumberFloat64Type, 0, 127.5, kCFNumberSInt8Type, 127, 0, false},
    {"128.0 to SInt8", kCFNumberFloat64Type, 0, 128.0, kCFNumberSInt8Type, 127, 0, false},
    {"-128.0 to SInt8", kCFNumberFloat64Type, 0, -128.0, kCFNumberSInt8Type, -128, 0, true},
    {"-128.5 to SInt8", kCFNumberFloat64Type, 0, -128.5, kCFNumberSInt8Type, -128, 0, false},
    {"-129.0 to SInt8", kCFNumberFloat64Type, 0, -129.0, kCFNumberSInt8Type, -128, 0, false},
    {"2^63 to SInt64", kCFNumberFloat64Type, 0, 0x1p63, kCFNumberSInt64Type, INT64_MAX, 0, false},
    {"-2^63 to SInt64", kCFNumberFloat64Type, 0, -0x1p63, kCFNumberSInt64Type, INT64_MIN, 0, true},
    {"1e300 to SInt64", kCFNumberFloat64Type, 0, 1e300, kCFNumberSInt64Type, INT64_MAX, 0, false},
    {"-1e300 to Int", kCFNumberFloat64Type, 0, -1e300, kCFNumberIntType, INT32_MIN, 0, false},
    {"16777216.0f to SInt32", kCFNumberFloatType, 0, 16777216.0, kCFNumberSInt32Type, 16777216, 0, true},
    {"NaN to SInt32", kCFNumberFloat64Type, 0, kNaN, kCFNumberSInt32Type, 0, 0, false},
    {"NaN to SInt64", kCFNumberFloat32Type, 0, kNaN, kCFNumberSInt64Type, 0, 0, false},
    {"+inf to SInt16", kCFNumberFloat64Type, 0, kInf, kCFNumberSInt16Type, INT16_MAX, 0, false},
    {"-inf to SInt64", kCFNumberFloat64Type, 0, -kInf, kCFNumberSInt64Type, INT64_MIN, 0, false},
    {"+inf to SInt8", kCFNumberFloat32Type, 0, kInf, kCFNumberSInt8Type, INT8_MAX, 0, false},
    // float -> float
    {"1.5 to Float32", kCFNumberFloat64Type, 0, 1.5, kCFNumberFloat32Type, 0, 1.5, true},
    {"0.1 to Float32", kCFNumberFloat64Type, 0, 0.1, kCFNumberFloat32Type, 0, static_cast<double>(0.1f), false},
    {"1e300 to Float32", kCFNumberFloat64Type, 0, 1e300, kCFNumberFloat32Type, 0, kInf, false},
    {"-1e300 to Float32", kCFNumberFloat64Type, 0, -1e300, kCFNumberFloatType, 0, -kInf, false},
    {"FLT_MAX to Float32", kCFNumberFloat64Type, 0, FLT_MAX, kCFNumberFloat32Type, 0, FLT_MAX, true},
    {"FLT_MAX+half ulp to Float32", kCFNumberFloat64Type, 0, 0x1.ffffffp127, kCFNumberFloat32Type, 0, kInf, false},
    {"below FLT_MAX+half ulp to Float32", kCFNumberFloat64Type, 0, 0x1.fffffefffffffp127, kCFNumberFloat32Type, 0,
     FLT_MAX, false},
    {"1e-50 to Float32", kCFNumberFloat64Type, 0, 1e-50, kCFNumberFloat32Type, 0, 0.0, false},
    {"+inf to Float32", kCFNumberFloat64Type, 0, kInf, kCFNumberFloat32Type, 0, kInf, true},
    {"-inf to Float32", kCFNumberFloat64Type, 0, -kInf, kCFNumberFloat32Type, 0, -kInf, true},
    {"NaN to Float32", kCFNumberFloat64Type, 0, kNaN, kCFNumberFloat32Type, 0, kNaN, true},
    {"NaN to Float64", kCFNumberFloat64Type, 0, kNaN, kCFNumberFloat64Type, 0, kNaN, true},
    {"0.1f to Float64", kCFNumberFloat32Type, 0, 0.1, kCFNumberFloat64Type, 0, static_cast<double>(0.1f), true},
    {"0.1f to Float32", kCFNumberFloatType, 0, 0.1, kCFNumberFloat32Type, 0, static_cast<double>(0.1f), true},
    {"1e300 to Double", kCFNumberCGFloatType, 0, 1e300, kCFNumberDoubleType, 0, 1e300, true},
};

int64_t readInteger(const unsigned char *bytes, CFNumberType type) {
    switch (type) {
    case kCFNumberSInt8Type:
    case kCFNumberCharType: { int8_t v; std::memcpy(&v, bytes, 1); return v; }
    case kCFNumberSInt16Type:
    case kCFNumberShortType: { int16_t v; std::memcpy(&v, bytes, 2); return v; }
    case kCFNumberSInt32Type:
    case kCFNumberIntType: { int32_t v; std::memcpy(&v, bytes, 4); return v; }
    default: { int64_t v; std::memcpy(&v, bytes, 8); return v; }
    }
}

bool isFloatTarget(CFNumberType type) {
    return type == kCFNumberFloat32Type || type == kCFNumberFloatType || type == kCFNumberFloat64Type ||
           type == kCFNumberDoubleType || type == kCFNumberCGFloatType;
}

size_t targetSize(CFNumberType type) {
    switch (type) {
    case kCFNumberSInt8Type:
    case kCFNumberCharType: return 1;
    case kCFNumberSInt16Type:
    case kCFNumberShortType: return 2;
    case kCFNumberSInt32Type:
    case kCFNumberIntType:
    case kCFNumberFloat32Type:
    case kCFNumberFloatType: return 4;
    default: return 8;
    }
}

TEST(CFNumberGetValueTest, ConvertsWithTheDocumentedRulesAndReportsLoss) {
    for (const Conversion &c : kConversions) {
        SCOPED_TRACE(c.label);
        CFNumberRef number = makeNumber(c.sourceType, c.sourceInteger, c.sourceReal);
        ASSERT_NE(number, nullptr);
        // Canaries on both sides catch a store of the wrong width.
        unsigned char buffer[24];
        std::memset(buffer, 0xA5, sizeof buffer);
        Boolean lossless = CFNumberGetValue(number, c.targetType, buffer + 8);
        EXPECT_EQ(lossless != 0, c.lossless);
        size_t width = targetSize(c.targetType);
        for (size_t i = 0; i < 8; ++i) EXPECT_EQ(buffer[i], 0xA5) << "byte before the value at " << i;
        for (size_t i = 8 + width; i < sizeof buffer; ++i) EXPECT_EQ(buffer[i], 0xA5) << "byte after the value at " << i;
        if (isFloatTarget(c.targetType)) {
            double stored;
            if (width == 4) {
                float f;
                std::memcpy(&f, buffer + 8, 4);
                stored = f;
            } else {
                std::memcpy(&stored, buffer + 8, 8);
            }
            if (std::isnan(c.expectedReal))
                EXPECT_TRUE(std::isnan(stored)) << stored;
            else
                EXPECT_EQ(stored, c.expectedReal);
            EXPECT_EQ(std::signbit(stored), std::signbit(c.expectedReal));
        } else {
            EXPECT_EQ(readInteger(buffer + 8, c.targetType), c.expectedInteger);
        }
        CFRelease(number);
    }
}

TEST(CFNumberGetValueTest, UnknownTargetTypeReturnsFalseAndStoresNothing) {
    CFNumberRef number = makeNumber(kCFNumberSInt32Type, 7);
    for (CFNumberType type : {CFNumberType(0), CFNumberType(17), CFNumberType(-1), CFNumberType(1000)}) {
        int64_t slot = 0x5A5A5A5A5A5A5A5A;
        EXPECT_FALSE(CFNumberGetValue(number, type, &slot)) << type;
        EXPECT_EQ(slot, 0x5A5A5A5A5A5A5A5A) << type;
    }
    CFRelease(number);
}

// ---- types --------------------------------------------------------------------

TEST(CFNumberTypeTest, CTypeNamesMapToTheirFixedSizeTypes) {
    struct Case {
        CFNumberType created;
        CFNumberType reported;
        CFIndex byteSize;
        bool isFloat;
    };
    const Case cases[] = {
        {kCFNumberSInt8Type, kCFNumberSInt8Type, 1, false},      {kCFNumberSInt16Type, kCFNumberSInt16Type, 2, false},
        {kCFNumberSInt32Type, kCFNumberSInt32Type, 4, false},    {kCFNumberSInt64Type, kCFNumberSInt64Type, 8, false},
        {kCFNumberFloat32Type, kCFNumberFloat32Type, 4, true},   {kCFNumberFloat64Type, kCFNumberFloat64Type, 8, true},
        {kCFNumberCharType, kCFNumberSInt8Type, 1, false},       {kCFNumberShortType, kCFNumberSInt16Type, 2, false},
        {kCFNumberIntType, kCFNumberSInt32Type, 4, false},       {kCFNumberLongType, kCFNumberSInt64Type, 8, false},
        {kCFNumberLongLongType, kCFNumberSInt64Type, 8, false},  {kCFNumberFloatType, kCFNumberFloat32Type, 4, true},
        {kCFNumberDoubleType, kCFNumberFloat64Type, 8, true},    {kCFNumberCFIndexType, kCFNumberSInt64Type, 8, false},
        {kCFNumberNSIntegerType, kCFNumberSInt64Type, 8, false}, {kCFNumberCGFloatType, kCFNumberFloat64Type, 8, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.created);
        CFNumberRef number = makeNumber(c.created, 3, 3.0);
        ASSERT_NE(number, nullptr);
        EXPECT_EQ(CFGetTypeID(number), CFNumberGetTypeID());
        EXPECT_EQ(CFNumberGetType(number), c.reported);
        EXPECT_EQ(CFNumberGetByteSize(number), c.byteSize);
        EXPECT_EQ(CFNumberIsFloatType(number) != 0, c.isFloat);
        CFRelease(number);
    }
}

TEST(CFNumberTypeTest, CreateRejectsUnknownTypesAndMissingValues) {
    int32_t value = 1;
    EXPECT_EQ(CFNumberCreate(nullptr, 0, &value), nullptr);
    EXPECT_EQ(CFNumberCreate(nullptr, kCFNumberMaxType + 1, &value), nullptr);
    EXPECT_EQ(CFNumberCreate(nullptr, kCFNumberSInt32Type, nullptr), nullptr);
}

TEST(CFNumberTypeTest, SpecialNumbersAreImmortalFloat64Values) {
    struct Case {
        CFNumberRef number;
        double value;
    };
    for (const Case &c : {Case{kCFNumberPositiveInfinity, kInf}, Case{kCFNumberNegativeInfinity, -kInf},
                          Case{kCFNumberNaN, kNaN}}) {
        EXPECT_EQ(CFGetTypeID(c.number), CFNumberGetTypeID());
        EXPECT_EQ(CFNumberGetType(c.number), kCFNumberFloat64Type);
        double value = 0;
        EXPECT_TRUE(CFNumberGetValue(c.number, kCFNumberFloat64Type, &value));
        if (std::isnan(c.value))
            EXPECT_TRUE(std::isnan(value));
        else
            EXPECT_EQ(value, c.value);
        CFIndex count = CFGetRetainCount(c.number);
        CFRetain(c.number);
        CFRelease(c.number);
        CFRelease(c.number);
        EXPECT_EQ(CFGetRetainCount(c.number), count);
    }
}

// ---- comparison, equality, hash ------------------------------------------------

struct Operand {
    CFNumberType type;
    int64_t integer;
    double real;
};

CFNumberRef make(const Operand &operand) { return makeNumber(operand.type, operand.integer, operand.real); }

TEST(CFNumberCompareTest, ComparesExactlyAcrossTypes) {
    struct Case {
        const char *label;
        Operand a, b;
        CFComparisonResult expected;
    };
    const Case cases[] = {
        {"1 vs 1.0", {kCFNumberSInt32Type, 1, 0}, {kCFNumberFloat64Type, 0, 1.0}, kCFCompareEqualTo},
        {"INT64_MAX vs 2^63", {kCFNumberSInt64Type, INT64_MAX, 0}, {kCFNumberFloat64Type, 0, 0x1p63}, kCFCompareLessThan},
        {"INT64_MAX vs 9223372036854775807.0",
         {kCFNumberSInt64Type, INT64_MAX, 0},
         {kCFNumberFloat64Type, 0, 9223372036854775807.0},
         kCFCompareLessThan},
        {"INT64_MAX vs 2^63 as Float32", {kCFNumberSInt64Type, INT64_MAX, 0}, {kCFNumberFloat32Type, 0, 0x1p63},
         kCFCompareLessThan},
        {"INT64_MIN vs -2^63", {kCFNumberSInt64Type, INT64_MIN, 0}, {kCFNumberFloat64Type, 0, -0x1p63}, kCFCompareEqualTo},
        {"2^53+1 vs 2^53", {kCFNumberSInt64Type, (INT64_C(1) << 53) + 1, 0}, {kCFNumberFloat64Type, 0, 0x1p53},
         kCFCompareGreaterThan},
        {"-1 vs -0.5", {kCFNumberSInt8Type, -1, 0}, {kCFNumberFloat64Type, 0, -0.5}, kCFCompareLessThan},
        {"0 vs -0.5", {kCFNumberSInt8Type, 0, 0}, {kCFNumberFloat64Type, 0, -0.5}, kCFCompareGreaterThan},
        {"0 vs 0.5", {kCFNumberSInt8Type, 0, 0}, {kCFNumberFloat32Type, 0, 0.5}, kCFCompareLessThan},
        {"0 vs -0.0", {kCFNumberSInt64Type, 0, 0}, {kCFNumberFloat64Type, 0, -0.0}, kCFCompareEqualTo},
        {"0.0 vs -0.0", {kCFNumberFloat64Type, 0, 0.0}, {kCFNumberFloat64Type, 0, -0.0}, kCFCompareEqualTo},
        {"-128 SInt8 vs SInt64", {kCFNumberSInt8Type, -128, 0}, {kCFNumberSInt64Type, -128, 0}, kCFCompareEqualTo},
        {"INT64_MIN vs INT64_MAX", {kCFNumberSInt64Type, INT64_MIN, 0}, {kCFNumberSInt64Type, INT64_MAX, 0},
         kCFCompareLessThan},
        {"0.1f vs 0.1", {kCFNumberFloat32Type, 0, 0.1}, {kCFNumberFloat64Type, 0, 0.1}, kCFCompareGreaterThan},
        {"1.5f vs 1.5", {kCFNumberFloat32Type, 0, 1.5}, {kCFNumberFloat64Type, 0, 1.5}, kCFCompareEqualTo},
        {"1e300 vs INT64_MAX", {kCFNumberFloat64Type, 0, 1e300}, {kCFNumberSInt64Type, INT64_MAX, 0},
         kCFCompareGreaterThan},
        {"-1e300 vs INT64_MIN", {kCFNumberFloat64Type, 0, -1e300}, {kCFNumberSInt64Type, INT64_MIN, 0},
         kCFCompareLessThan},
        {"+inf vs INT64_MAX", {kCFNumberFloat64Type, 0, kInf}, {kCFNumberSInt64Type, INT64_MAX, 0}, kCFCompareGreaterThan},
        {"-inf vs -1e300", {kCFNumberFloat64Type, 0, -kInf}, {kCFNumberFloat64Type, 0, -1e300}, kCFCompareLessThan},
        {"NaN vs NaN", {kCFNumberFloat64Type, 0, kNaN}, {kCFNumberFloat64Type, 0, kNaN}, kCFCompareEqualTo},
        {"NaN vs Float32 NaN", {kCFNumberFloat64Type, 0, kNaN}, {kCFNumberFloat32Type, 0, kNaN}, kCFCompareEqualTo},
        {"NaN vs -inf", {kCFNumberFloat64Type, 0, kNaN}, {kCFNumberFloat64Type, 0, -kInf}, kCFCompareLessThan},
        {"NaN vs INT64_MIN", {kCFNumberFloat64Type, 0, kNaN}, {kCFNumberSInt64Type, INT64_MIN, 0}, kCFCompareLessThan},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.label);
        CFNumberRef a = make(c.a), b = make(c.b);
        EXPECT_EQ(CFNumberCompare(a, b, nullptr), c.expected);
        EXPECT_EQ(CFNumberCompare(b, a, nullptr), -c.expected);
        EXPECT_EQ(CFEqual(a, b) != 0, c.expected == kCFCompareEqualTo);
        if (c.expected == kCFCompareEqualTo) EXPECT_EQ(CFHash(a), CFHash(b));
        CFRelease(a);
        CFRelease(b);
    }
}

TEST(CFNumberCompareTest, SpecialNumbersOrderAroundFiniteValues) {
    CFNumberRef big = makeNumber(kCFNumberSInt64Type, INT64_MAX);
    CFNumberRef nan = makeNumber(kCFNumberFloat32Type, 0, kNaN);
    EXPECT_EQ(CFNumberCompare(kCFNumberPositiveInfinity, big, nullptr), kCFCompareGreaterThan);
    EXPECT_EQ(CFNumberCompare(kCFNumberNegativeInfinity, big, nullptr), kCFCompareLessThan);
    EXPECT_EQ(CFNumberCompare(kCFNumberNaN, kCFNumberNegativeInfinity, nullptr), kCFCompareLessThan);
    EXPECT_TRUE(CFEqual(kCFNumberNaN, nan));
    EXPECT_EQ(CFHash(kCFNumberNaN), CFHash(nan));
    CFRelease(big);
    CFRelease(nan);
}

// Equal values must hash alike whatever type carries them, or dictionaries
// keyed by numbers lose entries.
TEST(CFNumberHashTest, EqualValuesHashAlikeAcrossTypes) {
    const std::initializer_list<Operand> groups[] = {
        {{kCFNumberSInt8Type, 1, 0}, {kCFNumberSInt64Type, 1, 0}, {kCFNumberFloat32Type, 0, 1.0},
         {kCFNumberFloat64Type, 0, 1.0}},
        {{kCFNumberSInt16Type, -300, 0}, {kCFNumberFloatType, 0, -300.0}, {kCFNumberDoubleType, 0, -300.0}},
        {{kCFNumberSInt32Type, 0, 0}, {kCFNumberFloat64Type, 0, -0.0}, {kCFNumberFloat32Type, 0, 0.0}},
        {{kCFNumberSInt64Type, INT64_C(1) << 62, 0}, {kCFNumberFloat64Type, 0, 0x1p62}, {kCFNumberFloat32Type, 0, 0x1p62}},
        {{kCFNumberSInt64Type, INT64_MIN, 0}, {kCFNumberFloat64Type, 0, -0x1p63}},
        {{kCFNumberFloat32Type, 0, 0.5}, {kCFNumberFloat64Type, 0, 0.5}},
        {{kCFNumberFloat32Type, 0, kInf}, {kCFNumberFloat64Type, 0, kInf}},
    };
    for (const auto &group : groups) {
        CFNumberRef first = make(*group.begin());
        for (const Operand &operand : group) {
            CFNumberRef other = make(operand);
            EXPECT_TRUE(CFEqual(first, other)) << operand.type << " " << operand.integer << " " << operand.real;
            EXPECT_EQ(CFHash(first), CFHash(other)) << operand.type << " " << operand.integer << " " << operand.real;
            CFRelease(other);
        }
        CFRelease(first);
    }
    // Different values should not collide trivially.
    CFNumberRef one = makeNumber(kCFNumberSInt32Type, 1), two = makeNumber(kCFNumberSInt32Type, 2);
    CFNumberRef half = makeNumber(kCFNumberFloat64Type, 0, 0.5);
    EXPECT_NE(CFHash(one), CFHash(two));
    EXPECT_NE(CFHash(one), CFHash(half));
    CFRelease(one);
    CFRelease(two);
    CFRelease(half);
}

// ---- descriptions --------------------------------------------------------------

TEST(CFNumberDescriptionTest, DebugAndFormattingDescriptions) {
    struct Case {
        Operand value;
        const char *debugTail;
        const char *formatted;
    };
    const Case cases[] = {
        {{kCFNumberSInt32Type, 42, 0}, "{value = +42, type = kCFNumberSInt32Type}", "42"},
        {{kCFNumberCharType, -7, 0}, "{value = -7, type = kCFNumberSInt8Type}", "-7"},
        {{kCFNumberLongType, INT64_MIN, 0}, "{value = -9223372036854775808, type = kCFNumberSInt64Type}",
         "-9223372036854775808"},
        {{kCFNumberFloat64Type, 0, 1.5}, "{value = +1.5, type = kCFNumberFloat64Type}", "1.5"},
        {{kCFNumberFloat32Type, 0, 0.1}, "{value = +0.1, type = kCFNumberFloat32Type}", "0.1"},
        {{kCFNumberFloat64Type, 0, -0.25}, "{value = -0.25, type = kCFNumberFloat64Type}", "-0.25"},
        {{kCFNumberFloat64Type, 0, kInf}, "{value = +infinity, type = kCFNumberFloat64Type}", "+infinity"},
        {{kCFNumberFloat64Type, 0, kNaN}, "{value = nan, type = kCFNumberFloat64Type}", "nan"},
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

TEST(CFBooleanTest, SingletonsAreImmortalAndKnowTheirValue) {
    EXPECT_TRUE(CFBooleanGetValue(kCFBooleanTrue));
    EXPECT_FALSE(CFBooleanGetValue(kCFBooleanFalse));
    for (CFBooleanRef boolean : {kCFBooleanTrue, kCFBooleanFalse}) {
        EXPECT_EQ(CFGetTypeID(boolean), CFBooleanGetTypeID());
        CFIndex count = CFGetRetainCount(boolean);
        for (int i = 0; i < 3; ++i) CFRetain(boolean);
        for (int i = 0; i < 5; ++i) CFRelease(boolean);
        EXPECT_EQ(CFGetRetainCount(boolean), count);
        EXPECT_TRUE(CFBooleanGetValue(kCFBooleanTrue));
    }
    EXPECT_FALSE(CFEqual(kCFBooleanTrue, kCFBooleanFalse));
    EXPECT_NE(CFHash(kCFBooleanTrue), CFHash(kCFBooleanFalse));
}

TEST(CFBooleanTest, BooleansAreNotNumbers) {
    EXPECT_NE(CFBooleanGetTypeID(), CFNumberGetTypeID());
    CFNumberRef one = makeNumber(kCFNumberSInt32Type, 1);
    CFNumberRef zero = makeNumber(kCFNumberSInt8Type, 0);
    EXPECT_FALSE(CFEqual(kCFBooleanTrue, one));
    EXPECT_FALSE(CFEqual(one, kCFBooleanTrue));
    EXPECT_FALSE(CFEqual(kCFBooleanFalse, zero));
    CFRelease(one);
    CFRelease(zero);
}

TEST(CFBooleanTest, Descriptions) {
    EXPECT_EQ(text(CFCopyDescription(kCFBooleanTrue)), prefix("CFBoolean", kCFBooleanTrue) + "{value = true}");
    EXPECT_EQ(text(CFCopyDescription(kCFBooleanFalse)), prefix("CFBoolean", kCFBooleanFalse) + "{value = false}");
    EXPECT_EQ(text(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%@/%@"), kCFBooleanTrue, kCFBooleanFalse)),
              "true/false");
}

// ---- allocation and misuse --------------------------------------------------------

struct AllocationCounts {
    int allocations = 0;
    int deallocations = 0;
    bool fail = false;
};

void *countingAllocate(CFIndex size, CFOptionFlags, void *info) {
    auto *counts = static_cast<AllocationCounts *>(info);
    if (counts->fail) return nullptr;
    ++counts->allocations;
    return std::malloc(static_cast<size_t>(size));
}
void countingDeallocate(void *ptr, void *info) {
    ++static_cast<AllocationCounts *>(info)->deallocations;
    std::free(ptr);
}

CFAllocatorRef makeCountingAllocator(AllocationCounts *counts) {
    CFAllocatorContext context = {0, counts, nullptr, nullptr, nullptr, countingAllocate, nullptr, countingDeallocate,
                                  nullptr};
    return CFAllocatorCreate(kCFAllocatorSystemDefault, &context);
}

TEST(CFNumberAllocationTest, NumbersLiveInTheirAllocatorAndCreationFailsCleanly) {
    AllocationCounts counts;
    CFAllocatorRef allocator = makeCountingAllocator(&counts);
    ASSERT_NE(allocator, nullptr);
    double value = 2.5;
    CFNumberRef number = CFNumberCreate(allocator, kCFNumberFloat64Type, &value);
    ASSERT_NE(number, nullptr);
    EXPECT_EQ(CFGetAllocator(number), allocator);
    EXPECT_EQ(counts.allocations, 1);
    CFRelease(number);
    EXPECT_EQ(counts.deallocations, 1);

    counts.fail = true;
    EXPECT_EQ(CFNumberCreate(allocator, kCFNumberFloat64Type, &value), nullptr);
    EXPECT_EQ(counts.allocations, 1);
    CFRelease(allocator);
}

TEST(CFNumberDeathTest, MisuseIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CFNumberRef number = makeNumber(kCFNumberSInt32Type, 1);
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
