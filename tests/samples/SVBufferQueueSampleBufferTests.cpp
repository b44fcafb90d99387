// SPDX-License-Identifier: Apache-2.0
// Tests for the sample-buffer queues' own reading of their buffers: the
// sorted queue reads the output presentation times and the running
// duration sum reads the durations without calling the getters for the
// common buffer, and compares times inline.  Each test holds the queue to
// what the getters and SVTimeCompare answer, over buffers of every shape
// (overrides, attachments, invalidated, several samples, image buffers,
// special and extreme times, objects that are not sample buffers).
#include <CoreVideo/CVPixelBuffer.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVBufferQueue.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVSampleBuffer.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/BufferQueueHelpers.h"

namespace {

using sorvel_test::foldedDuration;
using sorvel_test::OwningQueue;
using sorvel_test::sameTime;
using sorvel_test::sampleBufferRecords;

constexpr int64_t k2To51 = int64_t{1} << 51;
constexpr int64_t k2To53 = int64_t{1} << 53;

SVTime withFlags(SVTime time, uint32_t flags) {
    time.flags |= flags;
    return time;
}

SVSampleBufferRef dataSample(SVItemCount numSamples, std::vector<SVSampleTimingInfo> timings) {
    SVSampleBufferRef sbuf = nullptr;
    EXPECT_EQ(SVSampleBufferCreate(nullptr, nullptr, true, nullptr, nullptr, nullptr, numSamples,
                                   static_cast<SVItemCount>(timings.size()), timings.empty() ? nullptr : timings.data(),
                                   0, nullptr, &sbuf),
              0);
    return sbuf;
}

SVSampleBufferRef withPTS(SVTime pts, SVTime duration = SVTimeMake(1, 30)) {
    return dataSample(1, {{duration, pts, kSVTimeInvalid}});
}

SVSampleBufferRef imageSample(SVTime pts, SVTime duration) {
    CVPixelBufferRef pixels = nullptr;
    EXPECT_EQ(CVPixelBufferCreate(nullptr, 16, 16, kCVPixelFormatType_32BGRA, nullptr, &pixels), kCVReturnSuccess);
    SVFormatDescriptionRef format = nullptr;
    EXPECT_EQ(SVFormatDescriptionCreate(nullptr, kSVMediaType_Video, 'BGRA', nullptr, &format), 0);
    SVSampleTimingInfo timing = {duration, pts, kSVTimeInvalid};
    SVSampleBufferRef sbuf = nullptr;
    EXPECT_EQ(SVSampleBufferCreateReadyWithImageBuffer(nullptr, pixels, format, &timing, &sbuf), 0);
    CFRelease(format);
    CFRelease(pixels);
    return sbuf;
}

void setTime(SVSampleBufferRef sbuf, CFStringRef key, SVTime time) {
    CFDictionaryRef dictionary = SVTimeCopyAsDictionary(time, nullptr);
    SVSetAttachment(sbuf, key, dictionary, kSVAttachmentMode_ShouldPropagate);
    CFRelease(dictionary);
}

// One buffer of the table: how to make it and what it is.
struct Shape {
    const char *name;
    std::function<CFTypeRef()> make;
};

std::vector<Shape> shapes() {
    return {
        {"plain 4/30", [] { return withPTS(SVTimeMake(4, 30)); }},
        {"plain 2/30", [] { return withPTS(SVTimeMake(2, 30)); }},
        {"equal to 2/30 at 1/15", [] { return withPTS(SVTimeMake(1, 15)); }},
        {"negative", [] { return withPTS(SVTimeMake(-3, 30)); }},
        {"zero at 1/30", [] { return withPTS(SVTimeMake(0, 30)); }},
        // A zero time gives way to the zero trim, epoch and all.
        {"zero in epoch 2", [] { return withPTS(SVTimeMakeWithEpoch(0, 30, 2)); }},
        {"epoch 2", [] { return withPTS(SVTimeMakeWithEpoch(3, 30, 2)); }},
        {"rounded", [] { return withPTS(withFlags(SVTimeMake(3, 30), kSVTimeFlags_HasBeenRounded)); }},
        {"invalid", [] { return withPTS(kSVTimeInvalid); }},
        {"plus infinity", [] { return withPTS(kSVTimePositiveInfinity); }},
        {"minus infinity", [] { return withPTS(kSVTimeNegativeInfinity); }},
        {"indefinite", [] { return withPTS(kSVTimeIndefinite); }},
        // Beyond 2^51 on one timescale the comparison goes through doubles,
        // where 2^53 and 2^53 + 1 are the same.
        {"2^53", [] { return withPTS(SVTimeMake(k2To53, 1)); }},
        {"2^53 + 1", [] { return withPTS(SVTimeMake(k2To53 + 1, 1)); }},
        {"2^51", [] { return withPTS(SVTimeMake(k2To51, 1)); }},
        {"2^51 - 1", [] { return withPTS(SVTimeMake(k2To51 - 1, 1)); }},
        {"-2^51", [] { return withPTS(SVTimeMake(-k2To51, 1)); }},
        // Two timescales whose cross products overflow 64 bits.
        {"2^40 at 2^30", [] { return withPTS(SVTimeMake(int64_t{1} << 40, 1 << 30)); }},
        {"2^40 + 1 at 2^30 - 1", [] { return withPTS(SVTimeMake((int64_t{1} << 40) + 1, (1 << 30) - 1)); }},
        {"2^33", [] { return withPTS(SVTimeMake(int64_t{1} << 33, 1)); }},
        {"2^33 at 2^31 - 1", [] { return withPTS(SVTimeMake(int64_t{1} << 33, INT32_MAX)); }},
        {"2^20 at 3", [] { return withPTS(SVTimeMake(1 << 20, 3)); }},
        {"2^20 - 1 at 7", [] { return withPTS(SVTimeMake((1 << 20) - 1, 7)); }},
        {"override",
         [] {
             SVSampleBufferRef sbuf = withPTS(SVTimeMake(50, 30));
             SVSampleBufferSetOutputPresentationTimeStamp(sbuf, SVTimeMake(1, 30));
             return sbuf;
         }},
        {"trimmed at start",
         [] {
             SVSampleBufferRef sbuf = withPTS(SVTimeMake(1, 30));
             setTime(sbuf, kSVSampleBufferAttachmentKey_TrimDurationAtStart, SVTimeMake(2, 30));
             return sbuf;
         }},
        {"reversed",
         [] {
             SVSampleBufferRef sbuf = withPTS(SVTimeMake(1, 30), SVTimeMake(3, 30));
             SVSetAttachment(sbuf, kSVSampleBufferAttachmentKey_Reverse, kCFBooleanTrue,
                             kSVAttachmentMode_ShouldPropagate);
             return sbuf;
         }},
        {"invalidated",
         [] {
             SVSampleBufferRef sbuf = withPTS(SVTimeMake(2, 30));
             EXPECT_EQ(SVSampleBufferInvalidate(sbuf), 0);
             return sbuf;
         }},
        {"three samples, three entries",
         [] {
             return dataSample(3, {{SVTimeMake(1, 30), SVTimeMake(9, 30), kSVTimeInvalid},
                                   {SVTimeMake(1, 30), SVTimeMake(5, 30), kSVTimeInvalid},
                                   {SVTimeMake(1, 30), SVTimeMake(7, 30), kSVTimeInvalid}});
         }},
        {"three samples, one entry",
         [] {
             return dataSample(3, {{SVTimeMake(1, 30), SVTimeMake(6, 30), kSVTimeInvalid}});
         }},
        {"no timing", [] { return dataSample(1, {}); }},
        {"image", [] { return imageSample(SVTimeMake(3, 30), SVTimeMake(1, 30)); }},
        // Not a sample buffer: every getter answers the invalid time.
        {"a string", [] { return CFStringCreateWithCString(nullptr, "not a sample", kCFStringEncodingUTF8); }},
    };
}

// The position the record's own compare callback gives: after every
// buffer the new one does not compare strictly less than.
void insertAsTheCallbackOrders(std::vector<CFTypeRef> &order, CFTypeRef buffer, const SVBufferCallbacks *record) {
    size_t at = order.size();
    while (at > 0 && record->compare(buffer, order[at - 1], record->refcon) == -1) at--;
    order.insert(order.begin() + static_cast<std::ptrdiff_t>(at), buffer);
}

TEST(SVBufferQueueSampleBufferTest, SortedQueueOrdersExactlyAsItsCompareCallback) {
    const SVBufferCallbacks *record = SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS();
    std::vector<Shape> table = shapes();
    std::vector<CFTypeRef> buffers;
    for (const Shape &shape : table) buffers.push_back(shape.make());
    const size_t n = buffers.size();
    // Several arrival orders, so every shape meets the others from both
    // sides of the walk.
    for (size_t stride : {1u, 3u, 7u, 11u}) {
        for (size_t start : {0u, 5u}) {
            SCOPED_TRACE("stride " + std::to_string(stride) + ", start " + std::to_string(start));
            SVBufferQueueRef queue = nullptr;
            ASSERT_EQ(SVBufferQueueCreate(nullptr, 0, record, &queue), 0);
            std::vector<CFTypeRef> expected;
            for (size_t i = 0; i < n; ++i) {
                CFTypeRef buffer = buffers[(start + i * stride) % n];
                ASSERT_EQ(SVBufferQueueEnqueue(queue, buffer), 0);
                insertAsTheCallbackOrders(expected, buffer, record);
            }
            for (size_t i = 0; i < expected.size(); ++i) {
                SVBufferRef got = SVBufferQueueDequeueAndRetain(queue);
                ASSERT_NE(got, nullptr);
                EXPECT_EQ(got, expected[i]) << "position " << i;
                CFRelease(got);
            }
            CFRelease(queue);
        }
    }
    for (CFTypeRef buffer : buffers) CFRelease(buffer);
}

// A buffer's output time may change while it is queued; later enqueues
// compare with what it is now.
TEST(SVBufferQueueSampleBufferTest, SortedQueueReadsQueuedBuffersKeysAfresh) {
    SVBufferQueueRef queue = nullptr;
    ASSERT_EQ(SVBufferQueueCreate(nullptr, 0, SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS(), &queue), 0);
    SVSampleBufferRef a = withPTS(SVTimeMake(1, 30)), b = withPTS(SVTimeMake(5, 30));
    SVSampleBufferRef c = withPTS(SVTimeMake(3, 30)), d = withPTS(SVTimeMake(4, 30));
    ASSERT_EQ(SVBufferQueueEnqueue(queue, a), 0);
    ASSERT_EQ(SVBufferQueueEnqueue(queue, b), 0);
    SVSampleBufferSetOutputPresentationTimeStamp(b, SVTimeMake(2, 30));  // now before c
    ASSERT_EQ(SVBufferQueueEnqueue(queue, c), 0);
    setTime(a, kSVSampleBufferAttachmentKey_TrimDurationAtStart, SVTimeMake(9, 30));  // a is at 10/30
    ASSERT_EQ(SVBufferQueueEnqueue(queue, d), 0);                                     // walks past c only
    for (SVSampleBufferRef expected : {a, b, c, d}) {
        SVBufferRef got = SVBufferQueueDequeueAndRetain(queue);
        EXPECT_EQ(got, static_cast<SVBufferRef>(expected));
        if (got) CFRelease(got);
    }
    CFRelease(queue);
    for (SVSampleBufferRef sbuf : {a, b, c, d}) CFRelease(sbuf);
}

// The duration conditions compare the queue's duration with the threshold
// as SVTimeCompare does, also where its integer shortcuts stop being exact.
TEST(SVBufferQueueSampleBufferTest, DurationConditionsCompareAsSVTimeCompare) {
    struct Case {
        const char *name;
        std::vector<SVTime> durations;
        SVTime threshold;
    };
    const Case cases[] = {
        {"equal on one timescale", {SVTimeMake(7, 30), SVTimeMake(8, 30)}, SVTimeMake(15, 30)},
        {"equal on two timescales", {SVTimeMake(7, 30), SVTimeMake(8, 30)}, SVTimeMake(1, 2)},
        {"just below", {SVTimeMake(14, 30)}, SVTimeMake(1, 2)},
        {"just above", {SVTimeMake(16, 30)}, SVTimeMake(1, 2)},
        {"2^53 + 1 against 2^53 (equal as doubles)", {SVTimeMake(k2To53 + 1, 1)}, SVTimeMake(k2To53, 1)},
        {"2^51 against 2^51 - 1 (exact)", {SVTimeMake(k2To51, 1)}, SVTimeMake(k2To51 - 1, 1)},
        {"2^51 + 1 against 2^51", {SVTimeMake(k2To51 + 1, 1)}, SVTimeMake(k2To51, 1)},
        {"equal, cross products at 2^70", {SVTimeMake(int64_t{1} << 40, 1 << 30)}, SVTimeMake(1024, 1)},
        // 2^33 * (2^31 - 1) wraps past 64 bits to a negative product.
        {"cross products past 64 bits", {SVTimeMake(int64_t{1} << 33, INT32_MAX)}, SVTimeMake(int64_t{1} << 33, 1)},
        {"cross products past 2^51", {SVTimeMake((int64_t{1} << 30) + 1, 1 << 30)}, SVTimeMake(1, 1)},
        {"2^20 on two timescales", {SVTimeMake(1 << 20, 3)}, SVTimeMake((1 << 20) - 1, 7)},
        {"negative threshold", {SVTimeMake(1, 30)}, SVTimeMake(-1, 30)},
        {"threshold in another epoch", {SVTimeMake(1, 30)}, SVTimeMakeWithEpoch(0, 30, 1)},
        {"rounded threshold", {SVTimeMake(3, 30)}, withFlags(SVTimeMake(1, 10), kSVTimeFlags_HasBeenRounded)},
        {"empty queue", {}, SVTimeMake(0, 30)},
        {"mixed timescales (folded)", {SVTimeMake(1, 30), SVTimeMake(1, 25)}, SVTimeMake(11, 150)},
        {"an infinite duration", {SVTimeMake(1, 30), kSVTimePositiveInfinity}, SVTimeMake(k2To53, 1)},
    };
    const SVBufferQueueTriggerCondition conditions[] = {kSVBufferQueueTrigger_WhenDurationBecomesLessThan,
                                                        kSVBufferQueueTrigger_WhenDurationBecomesLessThanOrEqualTo,
                                                        kSVBufferQueueTrigger_WhenDurationBecomesGreaterThan,
                                                        kSVBufferQueueTrigger_WhenDurationBecomesGreaterThanOrEqualTo};
    for (const SVBufferCallbacks *record : sampleBufferRecords()) {
        for (const Case &c : cases) {
            SCOPED_TRACE(c.name);
            OwningQueue owner(record);
            SVBufferQueueRef queue = owner.queue;
            ASSERT_NE(queue, nullptr);
            for (size_t i = 0; i < c.durations.size(); ++i)
                ASSERT_EQ(owner.enqueue(withPTS(SVTimeMake(static_cast<int64_t>(i), 30), c.durations[i])), 0);
            const int32_t order = SVTimeCompare(SVBufferQueueGetDuration(queue), c.threshold);
            const bool expected[] = {order<0, order <= 0, order> 0, order >= 0};
            for (size_t k = 0; k < 4; ++k) {
                SVBufferQueueTriggerToken token = nullptr;
                ASSERT_EQ(SVBufferQueueInstallTrigger(queue, nullptr, nullptr, conditions[k], c.threshold, &token), 0);
                EXPECT_EQ(SVBufferQueueTestTrigger(queue, token), expected[k]) << "condition " << conditions[k];
                EXPECT_EQ(SVBufferQueueRemoveTrigger(queue, token), 0);
            }
        }
    }
}

// The running duration sum takes a one-sample buffer's entry duration as
// it stands; every other shape must still give the getter's duration.
TEST(SVBufferQueueSampleBufferTest, DurationOfEveryBufferShapeIsTheFold) {
    std::vector<Shape> table = {
        {"one sample", [] { return withPTS(SVTimeMake(1, 30), SVTimeMake(2, 30)); }},
        {"three samples, one entry",
         [] {
             return dataSample(3, {{SVTimeMake(2, 30), SVTimeMake(6, 30), kSVTimeInvalid}});
         }},
        {"two samples, two entries",
         [] {
             return dataSample(2, {{SVTimeMake(1, 30), SVTimeMake(0, 30), kSVTimeInvalid},
                                   {SVTimeMake(4, 30), SVTimeMake(1, 30), kSVTimeInvalid}});
         }},
        {"image", [] { return imageSample(SVTimeMake(3, 30), SVTimeMake(5, 30)); }},
        {"no timing", [] { return dataSample(1, {}); }},
        {"rounded", [] { return withPTS(SVTimeMake(1, 30), withFlags(SVTimeMake(2, 30), 2)); }},
        {"a string", [] { return CFStringCreateWithCString(nullptr, "not a sample", kCFStringEncodingUTF8); }},
    };
    // Each shape after plain buffers, so the sum has something to lose.
    for (const SVBufferCallbacks *record : sampleBufferRecords()) {
        for (const Shape &shape : table) {
            SCOPED_TRACE(shape.name);
            SVBufferQueueRef queue = nullptr;
            ASSERT_EQ(SVBufferQueueCreate(nullptr, 0, record, &queue), 0);
            std::vector<CFTypeRef> buffers = {withPTS(SVTimeMake(0, 30)), shape.make(), withPTS(SVTimeMake(2, 30))};
            for (CFTypeRef buffer : buffers) {
                ASSERT_EQ(SVBufferQueueEnqueue(queue, buffer), 0);
                const SVTime fold = foldedDuration(queue), got = SVBufferQueueGetDuration(queue);
                EXPECT_TRUE(sameTime(got, fold))
                    << got.value << "/" << got.timescale << " flags " << got.flags << " against " << fold.value << "/"
                    << fold.timescale << " flags " << fold.flags;
            }
            CFRelease(queue);
            for (CFTypeRef buffer : buffers) CFRelease(buffer);
        }
    }
}

}  // namespace
