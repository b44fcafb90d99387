// SPDX-License-Identifier: Apache-2.0
// Sample buffers: output timing with trims, reverse and speed, the output
// presentation override, and the timing and size array getters.

#include <CoreVideo/CoreVideo.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVSampleBuffer.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "core/SVObject.h"

namespace {

using sorvel::SVRetained;
using Sample = SVRetained<SVSampleBufferRef>;

SVTime T(int64_t value, int32_t timescale = 1) {
    return SVTimeMake(value, timescale);
}
bool isZeroed(SVTime time) {
    const SVTime zero = {0, 0, 0, 0};
    return memcmp(&time, &zero, sizeof time) == 0;
}

Sample dataSample(SVItemCount numSamples, std::vector<SVSampleTimingInfo> timings, std::vector<size_t> sizes = {}) {
    SVSampleBufferRef sbuf = nullptr;
    EXPECT_EQ(
        SVSampleBufferCreateReady(nullptr, nullptr, nullptr, numSamples, static_cast<SVItemCount>(timings.size()),
                                  timings.empty() ? nullptr : timings.data(), static_cast<SVItemCount>(sizes.size()),
                                  sizes.empty() ? nullptr : sizes.data(), &sbuf),
        0);
    return Sample(sbuf);
}

void attach(SVSampleBufferRef sbuf, CFStringRef key, CFTypeRef value) {
    CVBufferSetAttachment((CVBufferRef)sbuf, key, value, kCVAttachmentMode_ShouldPropagate);
}
void attachTime(SVSampleBufferRef sbuf, CFStringRef key, SVTime time) {
    SVRetained<CFDictionaryRef> dict(SVTimeCopyAsDictionary(time, nullptr));
    attach(sbuf, key, dict.get());
}
void attachSpeed(SVSampleBufferRef sbuf, double speed) {
    SVRetained<CFNumberRef> number(CFNumberCreate(nullptr, kCFNumberFloat64Type, &speed));
    attach(sbuf, kSVSampleBufferAttachmentKey_SpeedMultiplier, number.get());
}

TEST(SVSampleBufferOutputTiming, WithoutAttachmentsEqualsTheStoredTiming) {
    auto sbuf =
        dataSample(3, {{T(1, 30), T(3, 30), T(1, 30)}, {T(1, 30), T(5, 30), T(2, 30)}, {T(1, 30), T(4, 30), T(3, 30)}});
    EXPECT_EQ(SVTimeCompare(SVSampleBufferGetOutputPresentationTimeStamp(sbuf.get()), T(3, 30)), 0);
    EXPECT_EQ(SVTimeCompare(SVSampleBufferGetOutputDecodeTimeStamp(sbuf.get()), T(1, 30)), 0);
    EXPECT_EQ(SVTimeCompare(SVSampleBufferGetOutputDuration(sbuf.get()), T(3, 30)), 0);
}

// A buffer presented at 10 s for 5 s, decoded at 9 s, under every
// combination of adjustment that the rules tell apart.
TEST(SVSampleBufferOutputTiming, TrimsReverseAndSpeedFollowTheRules) {
    struct Case {
        const char *name;
        double trimStart, trimEnd;
        double speed;  // 0 < speed: attached; -1: not attached
        CFTypeRef reverse;
        double presentation, decode, duration;  // NAN: the zeroed time
    };
    int oneValue = 1;
    SVRetained<CFNumberRef> one(CFNumberCreate(nullptr, kCFNumberIntType, &oneValue));
    const Case cases[] = {
        {"nothing", 0, 0, -1, nullptr, 10, 9, 5},
        {"trim at start", 1, 0, -1, nullptr, 11, 10, 4},
        {"both trims", 1, 2, -1, nullptr, 11, 10, 2},
        {"reverse with trim at end", 0, 2, -1, kCFBooleanTrue, 13, 12, 3},
        {"reverse false is not reverse", 0, 2, -1, kCFBooleanFalse, 10, 9, 3},
        {"reverse as a number is not reverse", 1, 2, -1, one.get(), 11, 10, 2},
        {"double speed", 0, 0, 2.0, nullptr, 10, 9.5, 2.5},
        {"half speed with trims", 1, 1, 0.5, nullptr, 11, 9, 6},
        {"stopped", 1, 0, 0.0, nullptr, 11, NAN, NAN},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        auto sbuf = dataSample(1, {{T(5), T(10), T(9)}});
        if (c.trimStart)
            attachTime(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart,
                       SVTimeMakeWithSeconds(c.trimStart, 600));
        if (c.trimEnd)
            attachTime(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtEnd,
                       SVTimeMakeWithSeconds(c.trimEnd, 600));
        if (c.speed >= 0) attachSpeed(sbuf.get(), c.speed);
        if (c.reverse) attach(sbuf.get(), kSVSampleBufferAttachmentKey_Reverse, c.reverse);
        EXPECT_EQ(SVTimeGetSeconds(SVSampleBufferGetOutputPresentationTimeStamp(sbuf.get())), c.presentation);
        SVTime decode = SVSampleBufferGetOutputDecodeTimeStamp(sbuf.get());
        SVTime duration = SVSampleBufferGetOutputDuration(sbuf.get());
        if (std::isnan(c.decode)) {
            EXPECT_TRUE(isZeroed(decode));
            EXPECT_TRUE(isZeroed(duration));
        } else {
            EXPECT_EQ(SVTimeGetSeconds(decode), c.decode);
            EXPECT_EQ(SVTimeGetSeconds(duration), c.duration);
        }
    }
}

TEST(SVSampleBufferOutputTiming, UnusableAttachmentsCountAsNeutral) {
    auto sbuf = dataSample(1, {{T(5), T(10), T(9)}});
    SVRetained<CFStringRef> text(CFStringCreateWithCString(nullptr, "2.0", kCFStringEncodingUTF8));
    attach(sbuf.get(), kSVSampleBufferAttachmentKey_SpeedMultiplier, text.get());
    attach(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart, text.get());
    attachTime(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtEnd, kSVTimeInvalid);
    EXPECT_EQ(SVTimeGetSeconds(SVSampleBufferGetOutputPresentationTimeStamp(sbuf.get())), 10);
    EXPECT_EQ(SVTimeGetSeconds(SVSampleBufferGetOutputDuration(sbuf.get())), 5);
    EXPECT_EQ(SVTimeGetSeconds(SVSampleBufferGetOutputDecodeTimeStamp(sbuf.get())), 9);
}

TEST(SVSampleBufferOutputTiming, TheOverrideWinsForTheBufferButNotPerSample) {
    auto sbuf = dataSample(1, {{T(5), T(10), T(9)}});
    attachTime(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart, T(1));
    EXPECT_EQ(SVSampleBufferSetOutputPresentationTimeStamp(sbuf.get(), T(100)), 0);
    EXPECT_EQ(SVTimeGetSeconds(SVSampleBufferGetOutputPresentationTimeStamp(sbuf.get())), 100);
    EXPECT_EQ(SVTimeGetSeconds(SVSampleBufferGetOutputDecodeTimeStamp(sbuf.get())), 99);
    SVSampleTimingInfo out[1];
    ASSERT_EQ(SVSampleBufferGetOutputSampleTimingInfoArray(sbuf.get(), 1, out, nullptr), 0);
    EXPECT_EQ(SVTimeGetSeconds(out[0].presentationTimeStamp), 11);
    EXPECT_EQ(SVTimeGetSeconds(out[0].decodeTimeStamp), 10);
    EXPECT_EQ(SVTimeGetSeconds(out[0].duration), 4);
    // An invalid time removes the override.
    EXPECT_EQ(SVSampleBufferSetOutputPresentationTimeStamp(sbuf.get(), kSVTimeInvalid), 0);
    EXPECT_EQ(SVTimeGetSeconds(SVSampleBufferGetOutputPresentationTimeStamp(sbuf.get())), 11);
    EXPECT_EQ(SVSampleBufferSetOutputPresentationTimeStamp(nullptr, T(1)),
              kSVSampleBufferError_RequiredParameterMissing);
}

TEST(SVSampleBufferOutputTiming, NullAndInvalidatedBuffersGiveTheZeroedTime) {
    auto sbuf = dataSample(1, {{T(5), T(10), T(9)}});
    ASSERT_EQ(SVSampleBufferInvalidate(sbuf.get()), 0);
    for (SVSampleBufferRef target : {static_cast<SVSampleBufferRef>(nullptr), sbuf.get()}) {
        EXPECT_TRUE(isZeroed(SVSampleBufferGetOutputPresentationTimeStamp(target)));
        EXPECT_TRUE(isZeroed(SVSampleBufferGetOutputDecodeTimeStamp(target)));
        EXPECT_TRUE(isZeroed(SVSampleBufferGetOutputDuration(target)));
        SVSampleTimingInfo out[1];
        EXPECT_EQ(SVSampleBufferGetOutputSampleTimingInfoArray(target, 1, out, nullptr),
                  kSVSampleBufferError_Invalidated);
    }
}

TEST(SVSampleBufferTimingArray, ReportsTheCountNeededBeforeCheckingCapacity) {
    auto sbuf = dataSample(3, {{T(1), T(0), T(0)}, {T(1), T(1), T(1)}, {T(1), T(2), T(2)}});
    SVSampleTimingInfo out[3] = {};
    SVItemCount needed = 0;
    EXPECT_EQ(SVSampleBufferGetSampleTimingInfoArray(sbuf.get(), 1, out, &needed), kSVSampleBufferError_ArrayTooSmall);
    EXPECT_EQ(needed, 3);
    EXPECT_EQ(out[0].duration.flags, 0u);  // nothing written on failure
    needed = 0;
    EXPECT_EQ(SVSampleBufferGetSampleTimingInfoArray(sbuf.get(), 0, nullptr, &needed), 0);
    EXPECT_EQ(needed, 3);
    ASSERT_EQ(SVSampleBufferGetSampleTimingInfoArray(sbuf.get(), 3, out, nullptr), 0);
    EXPECT_EQ(SVTimeGetSeconds(out[2].presentationTimeStamp), 2);

    auto untimed = dataSample(2, {});
    EXPECT_EQ(SVSampleBufferGetSampleTimingInfoArray(untimed.get(), 3, out, &needed),
              kSVSampleBufferError_BufferHasNoSampleTimingInfo);
    EXPECT_EQ(needed, 0);
    EXPECT_EQ(SVSampleBufferGetSampleTimingInfoArray(nullptr, 3, out, &needed),
              kSVSampleBufferError_RequiredParameterMissing);

    // One entry for many samples yields that one entry.
    auto shared = dataSample(5, {{T(1, 30), T(0), kSVTimeInvalid}});
    EXPECT_EQ(SVSampleBufferGetSampleTimingInfoArray(shared.get(), 3, out, &needed), 0);
    EXPECT_EQ(needed, 1);
}

TEST(SVSampleBufferTimingArray, OutputArrayTransformsEverySlotOfTheCapacity) {
    auto sbuf = dataSample(1, {{T(1), T(10), T(9)}});
    attachTime(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart, T(1));
    SVSampleTimingInfo out[2] = {{}, {T(3), T(20), T(19)}};
    SVItemCount needed = 0;
    ASSERT_EQ(SVSampleBufferGetOutputSampleTimingInfoArray(sbuf.get(), 2, out, &needed), 0);
    EXPECT_EQ(needed, 1);
    EXPECT_EQ(SVTimeGetSeconds(out[0].presentationTimeStamp), 11);
    EXPECT_EQ(SVTimeGetSeconds(out[0].duration), 0);
    EXPECT_EQ(SVTimeGetSeconds(out[1].presentationTimeStamp), 21);
    EXPECT_EQ(SVTimeGetSeconds(out[1].decodeTimeStamp), 20);
    EXPECT_EQ(SVTimeGetSeconds(out[1].duration), 2);
    // Without an output array, only the count.
    EXPECT_EQ(SVSampleBufferGetOutputSampleTimingInfoArray(sbuf.get(), 2, nullptr, &needed), 0);
}

TEST(SVSampleBufferPerSample, TimingOfOneSample) {
    auto perSample = dataSample(2, {{T(1), T(0), T(0)}, {T(2), T(1), T(1)}});
    auto shared = dataSample(2, {{T(7), T(0), T(0)}});
    auto untimed = dataSample(2, {});
    struct Case {
        SVSampleBufferRef sbuf;
        SVItemIndex index;
        OSStatus expected;
        int64_t duration;
    } cases[] = {
        {perSample.get(), 0, 0, 1},
        {perSample.get(), 1, 0, 2},
        {perSample.get(), 2, kSVSampleBufferError_SampleIndexOutOfRange, 0},
        {perSample.get(), -1, kSVSampleBufferError_SampleIndexOutOfRange, 0},
        {shared.get(), 1, 0, 7},
        {untimed.get(), 0, kSVSampleBufferError_BufferHasNoSampleTimingInfo, 0},
        {nullptr, 0, kSVSampleBufferError_RequiredParameterMissing, 0},
    };
    for (const Case &c : cases) {
        SVSampleTimingInfo info = {};
        EXPECT_EQ(SVSampleBufferGetSampleTimingInfo(c.sbuf, c.index, &info), c.expected) << "index " << c.index;
        if (c.expected == 0) EXPECT_EQ(info.duration.value, c.duration);
    }
}

TEST(SVSampleBufferPerSample, SizesOfOneSampleAndInTotal) {
    auto perSample = dataSample(3, {}, {10, 20, 30});
    auto shared = dataSample(4, {}, {188});
    auto unsized = dataSample(4, {});
    auto wrapping = dataSample(2, {}, {SIZE_MAX, 3});
    struct Case {
        SVSampleBufferRef sbuf;
        SVItemIndex index;
        size_t size;
    } cases[] = {{perSample.get(), 0, 10}, {perSample.get(), 2, 30}, {perSample.get(), 3, 0}, {perSample.get(), -1, 0},
                 {shared.get(), 3, 188},   {unsized.get(), 0, 0},    {nullptr, 0, 0}};
    for (const Case &c : cases) EXPECT_EQ(SVSampleBufferGetSampleSize(c.sbuf, c.index), c.size) << "index " << c.index;
    EXPECT_EQ(SVSampleBufferGetTotalSampleSize(perSample.get()), 60u);
    EXPECT_EQ(SVSampleBufferGetTotalSampleSize(shared.get()), 752u);
    EXPECT_EQ(SVSampleBufferGetTotalSampleSize(unsized.get()), 0u);
    EXPECT_EQ(SVSampleBufferGetTotalSampleSize(wrapping.get()), 2u);
}

TEST(SVSampleBufferPerSample, SizeArrayStatuses) {
    auto perSample = dataSample(3, {}, {10, 20, 30});
    auto shared = dataSample(4, {}, {188});
    auto unsized = dataSample(4, {});
    size_t out[3] = {};
    SVItemCount needed = -1;
    EXPECT_EQ(SVSampleBufferGetSampleSizeArray(perSample.get(), 3, out, nullptr),
              kSVSampleBufferError_RequiredParameterMissing);
    EXPECT_EQ(SVSampleBufferGetSampleSizeArray(perSample.get(), 2, out, &needed), kSVSampleBufferError_ArrayTooSmall);
    EXPECT_EQ(needed, 3);
    EXPECT_EQ(out[0], 0u);
    EXPECT_EQ(SVSampleBufferGetSampleSizeArray(perSample.get(), 0, nullptr, &needed), 0);
    ASSERT_EQ(SVSampleBufferGetSampleSizeArray(perSample.get(), 3, out, &needed), 0);
    EXPECT_EQ(out[2], 30u);
    ASSERT_EQ(SVSampleBufferGetSampleSizeArray(shared.get(), 3, out, &needed), 0);
    EXPECT_EQ(needed, 1);
    EXPECT_EQ(out[0], 188u);
    needed = -1;
    EXPECT_EQ(SVSampleBufferGetSampleSizeArray(unsized.get(), 3, out, &needed),
              kSVSampleBufferError_BufferHasNoSampleSizes);
    EXPECT_EQ(needed, 0);
    ASSERT_EQ(SVSampleBufferInvalidate(shared.get()), 0);
    EXPECT_EQ(SVSampleBufferGetSampleSizeArray(shared.get(), 3, out, &needed), kSVSampleBufferError_Invalidated);
    EXPECT_EQ(SVSampleBufferGetSampleSize(shared.get(), 0), 0u);
    EXPECT_EQ(SVSampleBufferGetTotalSampleSize(shared.get()), 0u);
}

// The output getters keep what they read from the attachments until the
// attachments change: every kind of change must be seen at once, and a
// trim that can change behind the buffer's back must never be kept.
TEST(SVSampleBufferOutputTiming, EveryChangeOfTheAttachmentsIsSeen) {
    auto sbuf = dataSample(1, {{T(5), T(10), T(9)}});  // presented at 10 s for 5 s, decoded at 9 s
    auto other = dataSample(1, {{T(5), T(10), T(9)}});
    SVRetained<CFDictionaryRef> trimOfThree(SVTimeCopyAsDictionary(T(3), nullptr));
    SVRetained<CFMutableDictionaryRef> mutableTrim(CFDictionaryCreateMutableCopy(
        nullptr, 0, SVRetained<CFDictionaryRef>(SVTimeCopyAsDictionary(T(1), nullptr)).get()));
    const int64_t two = 2;
    SVRetained<CFNumberRef> twoSeconds(CFNumberCreate(nullptr, kCFNumberSInt64Type, &two));
    struct Step {
        const char *change;
        std::function<void()> apply;
        double presentation, duration;
    } steps[] = {
        {"a trim at start", [&] { attachTime(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart, T(1)); }, 11,
         4},
        {"the trim replaced", [&] { attachTime(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart, T(2)); },
         12, 3},
        {"double speed", [&] { attachSpeed(sbuf.get(), 2.0); }, 12, 1.5},
        {"the speed removed",
         [&] { CVBufferRemoveAttachment((CVBufferRef)sbuf.get(), kSVSampleBufferAttachmentKey_SpeedMultiplier); }, 12,
         3},
        {"reversed", [&] { attach(sbuf.get(), kSVSampleBufferAttachmentKey_Reverse, kCFBooleanTrue); }, 15, 3},
        {"all removed", [&] { CVBufferRemoveAllAttachments((CVBufferRef)sbuf.get()); }, 10, 5},
        {"set as a dictionary, not propagated",
         [&] {
             const void *keys[] = {kSVSampleBufferAttachmentKey_TrimDurationAtStart};
             const void *values[] = {trimOfThree.get()};
             SVRetained<CFDictionaryRef> attachments(CFDictionaryCreate(
                 nullptr, keys, values, 1, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
             CVBufferSetAttachments((CVBufferRef)sbuf.get(), attachments.get(), kCVAttachmentMode_ShouldNotPropagate);
         },
         13, 2},
        {"propagated from another buffer",
         [&] {
             attachTime(other.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart, T(4));
             CVBufferPropagateAttachments((CVBufferRef)other.get(), (CVBufferRef)sbuf.get());
         },
         14, 1},
        {"a mutable trim",
         [&] { attach(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart, mutableTrim.get()); }, 11, 4},
        {"the mutable trim changed in place",
         [&] { CFDictionarySetValue(mutableTrim.get(), CFSTR("value"), twoSeconds.get()); }, 12, 3},
    };
    for (const Step &step : steps) {
        // Read before and after, so that a kept answer would show.
        (void)SVSampleBufferGetOutputPresentationTimeStamp(sbuf.get());
        step.apply();
        for (int read = 0; read < 2; read++) {
            EXPECT_EQ(SVTimeGetSeconds(SVSampleBufferGetOutputPresentationTimeStamp(sbuf.get())), step.presentation)
                << step.change;
            EXPECT_EQ(SVTimeGetSeconds(SVSampleBufferGetOutputDuration(sbuf.get())), step.duration) << step.change;
        }
    }
}

// Readers share the kept adjustments while a writer flips them: every
// answer is one the attachments had (the TSan build checks the sharing).
TEST(SVSampleBufferOutputTiming, ReadersAndAWriterAgreeOnEveryAnswer) {
    auto sbuf = dataSample(1, {{T(5), T(10), T(9)}});
    SVRetained<CFDictionaryRef> trims[] = {SVRetained<CFDictionaryRef>(SVTimeCopyAsDictionary(T(1), nullptr)),
                                           SVRetained<CFDictionaryRef>(SVTimeCopyAsDictionary(T(2), nullptr))};
    attach(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart, trims[0].get());
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; r++)
        readers.emplace_back([&] {
            while (!done.load()) {
                const double pts = SVTimeGetSeconds(SVSampleBufferGetOutputPresentationTimeStamp(sbuf.get()));
                const double dts = SVTimeGetSeconds(SVSampleBufferGetOutputDecodeTimeStamp(sbuf.get()));
                if ((pts != 11 && pts != 12) || (dts != 10 && dts != 11)) wrong++;
            }
        });
    for (int i = 0; i < 20000; i++)
        attach(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart, trims[i % 2].get());
    attach(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart, trims[1].get());
    done = true;
    for (std::thread &reader : readers) reader.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(SVTimeGetSeconds(SVSampleBufferGetOutputPresentationTimeStamp(sbuf.get())), 12);
}

}  // namespace
