// SPDX-License-Identifier: Apache-2.0
// Time ranges and mappings: the all-zero results and where they differ from
// kSVTimeRangeZero, containment at both ends, clamping, the mapping of times
// and durations, and the dictionary and text forms.

#include <Sorvel/SVTime.h>
#include <gtest/gtest.h>

#include <string>

#include "support/TestAllocator.h"

bool operator==(const SVTime &a, const SVTime &b);
void PrintTo(const SVTime &t, std::ostream *os);

namespace {

using ::testing::PrintToString;
constexpr SVTime T(int64_t v, int32_t ts, uint32_t f = 1, int64_t e = 0) {
    return {v, ts, f, e};
}
const SVTime kInv = T(0, 0, 0), kIndef = T(0, 0, 17), kPInf = T(0, 0, 5), kNInf = T(0, 0, 9);
constexpr SVTimeRange R(SVTime start, SVTime duration) {
    return {start, duration};
}
const SVTimeRange kAllZero = R(kInv, kInv);
// [a, a + d) seconds at timescale 1.
constexpr SVTimeRange S(int64_t a, int64_t d) {
    return R(T(a, 1), T(d, 1));
}

#define EXPECT_RANGE(actual, expected)                                        \
    do {                                                                      \
        SVTimeRange a_ = (actual), e_ = (expected);                           \
        EXPECT_TRUE(a_.start == e_.start && a_.duration == e_.duration)       \
            << PrintToString(a_.start) << ", " << PrintToString(a_.duration); \
    } while (0)

TEST(SVTimeRange, ConstantsKeysAndConstruction) {
    EXPECT_RANGE(kSVTimeRangeZero, R(kSVTimeZero, kSVTimeZero));
    EXPECT_RANGE(kSVTimeRangeInvalid, kAllZero);
    EXPECT_RANGE(kSVTimeMappingInvalid.source, kAllZero);
    EXPECT_RANGE(kSVTimeMappingInvalid.target, kAllZero);
    EXPECT_TRUE(CFEqual(kSVTimeRangeStartKey, CFSTR("start")) && CFEqual(kSVTimeRangeDurationKey, CFSTR("duration")) &&
                CFEqual(kSVTimeMappingSourceKey, CFSTR("source")) && CFEqual(kSVTimeMappingTargetKey, CFSTR("target")));
    // Only the duration's epoch is checked.
    EXPECT_RANGE(SVTimeRangeMake(T(1, 1), T(1, 1, 1, 1)), kAllZero);
    EXPECT_RANGE(SVTimeRangeMake(kInv, T(-4, 1)), R(kInv, T(-4, 1)));
    // Equal start and end give the all-zero range, not an empty range.
    EXPECT_RANGE(SVTimeRangeFromTimeToTime(T(1, 2), T(2, 4)), kAllZero);
    EXPECT_RANGE(SVTimeRangeFromTimeToTime(T(2, 1), T(1, 1)), kAllZero);
    EXPECT_RANGE(SVTimeRangeFromTimeToTime(T(1, 1), T(3, 2)), R(T(1, 1), T(1, 2)));
    EXPECT_RANGE(SVTimeRangeFromTimeToTime(T(1, 1), kPInf), R(T(1, 1), kPInf));
    // A shared epoch survives the subtraction, so the duration carries it.
    EXPECT_RANGE(SVTimeRangeFromTimeToTime(T(1, 1, 1, 3), T(2, 1, 1, 3)), R(T(1, 1, 1, 3), T(1, 1, 1, 3)));
}

TEST(SVTimeRange, EndAndContainment) {
    EXPECT_EQ(SVTimeRangeGetEnd(S(2, 3)), T(5, 1));
    EXPECT_EQ(SVTimeRangeGetEnd(S(2, -3)), kInv);
    EXPECT_EQ(SVTimeRangeGetEnd(R(kInv, T(1, 1))), kInv);
    EXPECT_EQ(SVTimeRangeGetEnd(R(T(1, 1), T(1, 1, 1, 2))), kInv);
    EXPECT_EQ(SVTimeRangeGetEnd(R(T(1, 1), kPInf)), kPInf);
    // The start is in, the end is not; indefinite sorts below plus infinity.
    struct Case {
        SVTimeRange range;
        SVTime time;
        bool contained;
    } cases[] = {
        // clang-format off
        {S(0, 1), T(0, 1), true}, {S(0, 1), T(1, 1), false}, {S(0, 1), T(999, 1000), true},
        {S(0, 1), T(-1, 1000), false}, {S(0, 1), kNInf, false}, {S(0, 1), kInv, false}, {S(0, -1), T(0, 1), false},
        {R(kInv, T(5, 1)), T(0, 1), false}, {R(T(0, 1), kPInf), T(INT64_MAX, 1), true},
        {R(T(0, 1), kPInf), kPInf, false}, {R(T(0, 1), kPInf), kIndef, true},
        // clang-format on
    };
    for (const Case &c : cases)
        EXPECT_EQ(SVTimeRangeContainsTime(c.range, c.time), c.contained) << PrintToString(c.time);
    EXPECT_TRUE(SVTimeRangeContainsTimeRange(S(0, 10), S(2, 1)));
    EXPECT_TRUE(SVTimeRangeContainsTimeRange(S(0, 10), S(0, 10)));
    EXPECT_FALSE(SVTimeRangeContainsTimeRange(S(0, 10), S(2, 10)));
    // An invalid range's end is the all-zero time, above every other end.
    EXPECT_FALSE(SVTimeRangeContainsTimeRange(S(0, 10), S(2, -1)));
    EXPECT_TRUE(SVTimeRangeContainsTimeRange(S(0, -1), S(2, 5)));
    EXPECT_TRUE(SVTimeRangeEqual(R(T(1, 2), T(1, 1)), R(T(2, 4), T(3, 3))));
    EXPECT_FALSE(SVTimeRangeEqual(S(0, 1), S(0, 2)));
    EXPECT_TRUE(SVTimeRangeEqual(kAllZero, R(T(1, 1, 0), T(2, 2, 0))));
}

TEST(SVTimeRange, IntersectionUnionAndClamp) {
    EXPECT_RANGE(SVTimeRangeGetIntersection(S(0, 1), S(2, 1)), kSVTimeRangeZero);
    EXPECT_RANGE(SVTimeRangeGetIntersection(S(0, 1), S(1, 1)), kSVTimeRangeZero);
    EXPECT_RANGE(SVTimeRangeGetIntersection(S(0, 5), S(3, 5)), S(3, 2));
    EXPECT_RANGE(SVTimeRangeGetIntersection(R(T(0, 600), T(600, 600)), R(T(1, 2), T(1, 1))), R(T(1, 2), T(300, 600)));
    EXPECT_RANGE(SVTimeRangeGetUnion(S(0, 1), S(2, 1)), S(0, 3));
    EXPECT_RANGE(SVTimeRangeGetUnion(S(4, 1), S(0, 1)), S(0, 5));
    EXPECT_RANGE(SVTimeRangeGetUnion(kAllZero, kAllZero), kAllZero);
    // Negative durations: the ends are invalid and sort last, so the spans
    // reach "invalid" and their length is the invalid time.
    EXPECT_RANGE(SVTimeRangeGetUnion(S(3, -1), S(1, -1)), R(T(1, 1), kInv));
    EXPECT_RANGE(SVTimeRangeGetIntersection(S(3, -1), S(1, -1)), R(T(3, 1), kInv));

    // Clamping returns the end for times at or after it, the all-zero time
    // for invalid times and valid empty ranges.
    const SVTime times[] = {T(1, 1), T(2, 1), T(1, 2), T(-1, 1), kNInf, kPInf, kInv, T(5, 1), T(5, 1), T(-5, 1)};
    const SVTimeRange ranges[] = {S(0, 1), S(0, 1), S(0, 1), S(0, 1),  S(0, 1),
                                  S(0, 1), S(0, 1), S(5, 0), S(0, -1), S(0, -1)};
    const SVTime clamped[] = {T(1, 1), T(1, 1), T(1, 2), T(0, 1), T(0, 1), T(1, 1), kInv, kInv, kInv, T(0, 1)};
    for (size_t i = 0; i < std::size(times); i++) EXPECT_EQ(SVTimeClampToRange(times[i], ranges[i]), clamped[i]) << i;
}

TEST(SVTimeMapping, ConstructionAndMappingOfTimes) {
    SVTimeMapping m = SVTimeMappingMake(S(0, 1), S(5, 2));
    EXPECT_RANGE(m.source, S(0, 1));
    EXPECT_RANGE(m.target, S(5, 2));
    EXPECT_RANGE(SVTimeMappingMake(S(0, 1), R(T(1, 1), T(1, 1, 1, 4))).source, kAllZero);
    m = SVTimeMappingMakeEmpty(S(5, 2));
    EXPECT_RANGE(m.source, R(kInv, kSVTimeZero));
    EXPECT_RANGE(m.target, S(5, 2));
    EXPECT_RANGE(SVTimeMappingMakeEmpty(R(T(1, 1), T(1, 1, 1, -1))).target, kAllZero);

    // Rows: equal durations add the difference of the starts; scaled
    // offsets; infinite durations carry the offset unscaled; a time of
    // another epoch; an offset that keeps a shared epoch, which the
    // duration mapping rejects; empty ranges; rounding carried.
    struct Case {
        SVTime time;
        SVTimeRange from, to;
        SVTime expected;
    } cases[] = {
        // clang-format off
        {T(5, 1), S(2, 10), S(100, 10), T(103, 1)}, {T(3, 1), S(0, 10), S(0, 20), T(60, 10)},
        {T(1, 2), S(0, 1), R(T(1, 3), T(2, 1)), T(8, 6)}, {T(5, 1), R(T(2, 1), kPInf), R(T(100, 1), kPInf), T(103, 1)},
        {T(5, 1, 1, 1), S(2, 10), S(100, 10), kInv}, {T(5, 1, 1, 1), R(T(2, 1, 1, 1), T(10, 1)), S(100, 10), kInv},
        {T(5, 1), S(2, 0), S(100, 10), kInv}, {T(5, 1), S(2, 10), S(100, 0), kInv},
        {T(5, 1), S(2, 10), R(T(100, 1), T(20, 1, 3)), T(1060, 10, 3)},
        // clang-format on
    };
    for (const Case &c : cases)
        EXPECT_EQ(SVTimeMapTimeFromRangeToRange(c.time, c.from, c.to), c.expected) << PrintToString(c.time);
}

TEST(SVTimeMapping, MapDuration) {
    // Rows: equal timescales and values cancel (10/30 * (2/30) / (1/30));
    // the rejections; a zero duration or empty target; equal durations and
    // non-numeric durations returned as they are; cancelled values; a from
    // value coarsened to 31 bits; a duration coarsened to fit, and coarsened
    // to nothing; rounding carried.
    struct Case {
        SVTime duration, from, to, expected;
    } cases[] = {
        // clang-format off
        {T(10, 30), T(1, 30), T(2, 30), T(20, 30)}, {T(10, 30, 1, 1), T(1, 30), T(2, 30), kInv},
        {T(10, 30), T(-1, 30), T(2, 30), kInv}, {T(10, 30), T(1, 30), T(-2, 30), kInv},
        {T(10, 30), T(0, 30), T(2, 30), kInv}, {T(0, 30), T(1, 30), T(2, 30), kSVTimeZero},
        {T(10, 30), T(1, 30), T(0, 7), kSVTimeZero}, {T(10, 30, 3), T(1, 30), T(2, 60), T(10, 30, 3)},
        {kPInf, T(1, 30), T(2, 30), kPInf}, {T(7, 3), T(7, 5), T(2, 9), T(10, 27)},
        {T(1000, 1), T(3000000000, 1000), T(1, 1), T(500000, 1500000000)},
        {T(5000, 48000), T(1, 44100), T(1, 48000), T(110250000, 1152000000)},
        {T(1, 48000), T(1, 44100), T(1, 48000), T(0, 1152000000, 3)}, {T(5, 7, 3), T(2, 3), T(4, 5), T(60, 70, 3)},
        {T(1, 1), T(10, 1), kPInf, T(0, 0)},  // into an infinite target: the products as they stand
        // clang-format on
    };
    for (const Case &c : cases)
        EXPECT_EQ(SVTimeMapDurationFromRangeToRange(c.duration, R(kSVTimeZero, c.from), R(kSVTimeZero, c.to)),
                  c.expected)
            << PrintToString(c.duration) << " from " << PrintToString(c.from);
    EXPECT_EQ(SVTimeMapTimeFromRangeToRange(T(1, 1), S(0, 10), R(T(7, 1), kPInf)), T(7, 1));
}

TEST(SVTimeMappingDeathTest, DivisionsByZeroEndTheProcess) {
    // Equal timescales cancel to 1, and the 31-bit step then asks for 0.
    EXPECT_DEATH(
        SVTimeMapDurationFromRangeToRange(T(1, 600), R(kSVTimeZero, T(3000000000, 600)), R(kSVTimeZero, T(1, 600))),
        "SVTimeMapDurationFromRangeToRange.*division by zero");
    // A from-duration that is not numeric leaves nothing to divide by.
    EXPECT_DEATH(SVTimeMapTimeFromRangeToRange(T(1, 1), R(kSVTimeZero, kPInf), S(0, 10)),
                 "SVTimeMapDurationFromRangeToRange.*division by zero");
}

TEST(SVTimeRange, DictionaryForms) {
    SVTimeRange range = R(T(-3, 7, 3, 2), kPInf);
    CFDictionaryRef d = SVTimeRangeCopyAsDictionary(range, nullptr);
    EXPECT_EQ(CFDictionaryGetCount(d), 2);
    EXPECT_RANGE(SVTimeRangeMakeFromDictionary(d), range);
    // A mapping is read from two range dictionaries; a bad half becomes the
    // all-zero range and the other half is kept.
    CFDictionaryRef zero = SVTimeRangeCopyAsDictionary(kSVTimeRangeZero, nullptr);
    CFMutableDictionaryRef startOnly = CFDictionaryCreateMutableCopy(nullptr, 0, zero);
    CFDictionaryRemoveValue(startOnly, kSVTimeRangeDurationKey);
    const void *keys[] = {kSVTimeMappingSourceKey, kSVTimeMappingTargetKey}, *values[] = {d, startOnly};
    CFDictionaryRef mapping =
        CFDictionaryCreate(nullptr, keys, values, 2, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    SVTimeMapping m = SVTimeMappingMakeFromDictionary(mapping);
    EXPECT_RANGE(m.source, range);
    EXPECT_RANGE(m.target, kAllZero);
    EXPECT_RANGE(SVTimeRangeMakeFromDictionary(startOnly), kAllZero);
    CFDictionaryRef sourceOnly =
        CFDictionaryCreate(nullptr, keys, values, 1, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    EXPECT_RANGE(SVTimeMappingMakeFromDictionary(sourceOnly).source, kAllZero);
    EXPECT_RANGE(SVTimeMappingMakeFromDictionary(nullptr).target, kAllZero);
    EXPECT_RANGE(SVTimeRangeMakeFromDictionary(nullptr), kAllZero);
    // A duration read with a non-zero epoch rejects the range.
    CFDictionaryRef epochDuration = SVTimeRangeCopyAsDictionary(R(kSVTimeZero, T(1, 1, 1, 5)), nullptr);
    EXPECT_RANGE(SVTimeRangeMakeFromDictionary(epochDuration), kAllZero);
    for (CFTypeRef object : {CFTypeRef(d), CFTypeRef(zero), CFTypeRef(startOnly), CFTypeRef(mapping),
                             CFTypeRef(sourceOnly), CFTypeRef(epochDuration)})
        CFRelease(object);

    bool made = false;
    for (long n = 0; n < 24; n++) {  // allocation failures give NULL and leak nothing
        sorvel_test::TestAllocator allocator;
        allocator.failAfter(n);
        CFDictionaryRef copy = SVTimeRangeCopyAsDictionary(S(1, 2), allocator.get());
        made = copy != nullptr;
        if (copy) EXPECT_RANGE(SVTimeRangeMakeFromDictionary(copy), S(1, 2));
        if (copy) CFRelease(copy);
        EXPECT_EQ(allocator.outstanding(), 0) << n;
    }
    EXPECT_TRUE(made);
}

TEST(SVTimeRange, DescriptionsAndShow) {
    auto text = [](CFStringRef s) {
        char buffer[256] = "";
        CFStringGetCString(s, buffer, sizeof buffer, kCFStringEncodingUTF8);
        CFRelease(s);
        return std::string(buffer);
    };
    EXPECT_EQ(text(SVTimeRangeCopyDescription(nullptr, R(T(1, 2), T(1001, 30000, 3, 2)))),
              "<<1/2 = 0.500s>, <1001/30000 = 0.033s (epoch 2), rounded>>");
    EXPECT_EQ(text(SVTimeMappingCopyDescription(nullptr, SVTimeMappingMakeEmpty(R(kSVTimeZero, kPInf)))),
              "<<<invalid>, <0/1 = 0.000s>>, <<0/1 = 0.000s>, <+inf>>>");
    ::testing::internal::CaptureStderr();
    SVTimeRangeShow(kSVTimeRangeInvalid);
    SVTimeMappingShow(kSVTimeMappingInvalid);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "<<invalid>, <invalid>>\n<<<invalid>, <invalid>>, <<invalid>, <invalid>>>\n");
}

}  // namespace
