// SPDX-License-Identifier: Apache-2.0
// Sample buffers: creation rules, buffer-wide timing, description text,
// readiness chains, failure, invalidation and the per-sample attachments
// array.

#include <CoreVideo/CoreVideo.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVSampleBuffer.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/SVObject.h"
#include "samples/SVSampleBufferInternal.h"
#include "support/TestAllocator.h"

namespace {

using sorvel::SVRetained;
using Sample = SVRetained<SVSampleBufferRef>;

SVTime T(int64_t value, int32_t timescale = 1) {
    return SVTimeMake(value, timescale);
}
SVSampleTimingInfo timing(SVTime duration, SVTime pts, SVTime dts) {
    return {duration, pts, dts};
}
bool same(SVTime a, SVTime b) {
    return SVTimeCompare(a, b) == 0 && SVTIME_IS_VALID(a) == SVTIME_IS_VALID(b);
}

SVRetained<SVFormatDescriptionRef> videoFormat(FourCharCode subtype) {
    SVFormatDescriptionRef desc = nullptr;
    EXPECT_EQ(SVFormatDescriptionCreate(nullptr, kSVMediaType_Video, subtype, nullptr, &desc), 0);
    return SVRetained<SVFormatDescriptionRef>(desc);
}

SVRetained<CVPixelBufferRef> pixelBuffer() {
    CVPixelBufferRef pixels = nullptr;
    EXPECT_EQ(CVPixelBufferCreate(nullptr, 16, 16, kCVPixelFormatType_32BGRA, nullptr, &pixels), kCVReturnSuccess);
    return SVRetained<CVPixelBufferRef>(pixels);
}

Sample dataSample(SVItemCount numSamples, std::vector<SVSampleTimingInfo> timings, Boolean ready = true,
                  SVSampleBufferMakeDataReadyCallback callback = nullptr, void *refcon = nullptr) {
    SVSampleBufferRef sbuf = nullptr;
    EXPECT_EQ(SVSampleBufferCreate(nullptr, nullptr, ready, callback, refcon, nullptr, numSamples,
                                   static_cast<SVItemCount>(timings.size()), timings.empty() ? nullptr : timings.data(),
                                   0, nullptr, &sbuf),
              0);
    return Sample(sbuf);
}

Sample imageSample(SVSampleTimingInfo info, Boolean ready = true) {
    auto pixels = pixelBuffer();
    auto format = videoFormat('BGRA');
    SVSampleBufferRef sbuf = nullptr;
    EXPECT_EQ(
        SVSampleBufferCreateForImageBuffer(nullptr, pixels.get(), ready, nullptr, nullptr, format.get(), &info, &sbuf),
        0);
    return Sample(sbuf);
}

// Counts the notifications of one name posted for one object, and keeps
// the status parameter of the last.
struct Observer {
    int posts = 0;
    OSStatus lastStatus = 0;
    Observer(CFStringRef name, const void *object) {
        CFNotificationCenterAddObserver(CFNotificationCenterGetLocalCenter(), this, callback, name, object,
                                        CFNotificationSuspensionBehaviorDeliverImmediately);
    }
    ~Observer() { CFNotificationCenterRemoveEveryObserver(CFNotificationCenterGetLocalCenter(), this); }
    static void callback(CFNotificationCenterRef, void *observer, CFNotificationName, const void *,
                         CFDictionaryRef userInfo) {
        auto *self = static_cast<Observer *>(observer);
        self->posts++;
        const void *number =
            userInfo ? CFDictionaryGetValue(userInfo, kSVSampleBufferNotificationParameter_OSStatus) : nullptr;
        if (number) CFNumberGetValue(static_cast<CFNumberRef>(number), kCFNumberSInt32Type, &self->lastStatus);
    }
};

TEST(SVSampleBufferCreate, EntryCountsMustBeZeroOneOrTheSampleCount) {
    struct Case {
        SVItemCount samples, timingEntries, sizeEntries;
        OSStatus expected;
    } cases[] = {
        {3, 2, 0, kSVSampleBufferError_InvalidEntryCount},
        {3, 0, 2, kSVSampleBufferError_InvalidEntryCount},
        {3, 4, 0, kSVSampleBufferError_InvalidEntryCount},
        {3, 1, 1, 0},
        {3, 0, 0, 0},
        {3, 3, 3, 0},
        {0, 1, 1, 0},
        {1, 1, 0, 0},
        {2, 2, 1, 0},
    };
    std::vector<SVSampleTimingInfo> timings(4, timing(T(1, 30), T(0), kSVTimeInvalid));
    std::vector<size_t> sizes(4, 10);
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.samples << " samples, " << c.timingEntries << "/" << c.sizeEntries);
        auto sentinel = reinterpret_cast<SVSampleBufferRef>(0x1);
        SVSampleBufferRef sbuf = sentinel;
        OSStatus status = SVSampleBufferCreateReady(nullptr, nullptr, nullptr, c.samples, c.timingEntries,
                                                    timings.data(), c.sizeEntries, sizes.data(), &sbuf);
        EXPECT_EQ(status, c.expected);
        if (status == 0) {
            EXPECT_EQ(SVSampleBufferGetNumSamples(sbuf), c.samples);
            CFRelease(sbuf);
        } else {
            EXPECT_EQ(sbuf, sentinel);
        }
    }
    EXPECT_EQ(SVSampleBufferCreateReady(nullptr, nullptr, nullptr, 1, 0, nullptr, 0, nullptr, nullptr),
              kSVSampleBufferError_RequiredParameterMissing);
}

TEST(SVSampleBufferCreate, CopiesTheArraysAndFreesEverythingWhenAllocationFails) {
    sorvel_test::TestAllocator allocator;
    SVSampleTimingInfo timings[2] = {timing(T(1), T(5), T(4)), timing(T(1), T(6), T(5))};
    size_t sizes[2] = {7, 9};
    // Three allocations: the timing copy, the size copy, the object.
    for (long n = 0; n < 3; n++) {
        allocator.failAfter(n);
        SVSampleBufferRef sbuf = nullptr;
        EXPECT_EQ(SVSampleBufferCreateReady(allocator.get(), nullptr, nullptr, 2, 2, timings, 2, sizes, &sbuf),
                  kSVSampleBufferError_AllocationFailed);
        EXPECT_EQ(sbuf, nullptr);
        EXPECT_EQ(allocator.outstanding(), 0) << "after failing allocation " << n;
    }
    allocator.failAfter(-1);
    SVSampleBufferRef sbuf = nullptr;
    ASSERT_EQ(SVSampleBufferCreateReady(allocator.get(), nullptr, nullptr, 2, 2, timings, 2, sizes, &sbuf), 0);
    timings[0].presentationTimeStamp = T(100);  // the buffer kept its own copy
    sizes[1] = 1;
    EXPECT_TRUE(same(SVSampleBufferGetPresentationTimeStamp(sbuf), T(5)));
    EXPECT_EQ(SVSampleBufferGetTotalSampleSize(sbuf), 16u);
    CFRelease(sbuf);
    EXPECT_EQ(allocator.outstanding(), 0);
}

TEST(SVSampleBufferTiming, BufferWideTimesFollowTheirOwnRules) {
    // Presentation is the least, decode the first entry's, duration the sum.
    auto three = dataSample(3, {timing(T(1), T(3), T(0)), timing(T(2), T(1), T(1)), timing(T(4), T(2), T(-1))});
    EXPECT_TRUE(same(SVSampleBufferGetPresentationTimeStamp(three.get()), T(1)));
    EXPECT_TRUE(same(SVSampleBufferGetDecodeTimeStamp(three.get()), T(0)));
    EXPECT_TRUE(same(SVSampleBufferGetDuration(three.get()), T(7)));

    auto tenFrames = dataSample(10, {timing(T(1, 30), T(0), kSVTimeInvalid)});
    EXPECT_TRUE(same(SVSampleBufferGetDuration(tenFrames.get()), T(10, 30)));

    auto untimed = dataSample(4, {});
    SVTime untimedDuration = SVSampleBufferGetDuration(untimed.get());
    EXPECT_EQ(memcmp(&untimedDuration, &kSVTimeZero, sizeof(SVTime)), 0);
    EXPECT_FALSE(SVTIME_IS_VALID(SVSampleBufferGetPresentationTimeStamp(untimed.get())));
    EXPECT_FALSE(SVTIME_IS_VALID(SVSampleBufferGetDecodeTimeStamp(untimed.get())));

    // A count without an array is accepted, and then reads as unusable.
    SVSampleBufferRef sbuf = nullptr;
    ASSERT_EQ(SVSampleBufferCreateReady(nullptr, nullptr, nullptr, 2, 2, nullptr, 0, nullptr, &sbuf), 0);
    Sample counted(sbuf);
    EXPECT_FALSE(SVTIME_IS_VALID(SVSampleBufferGetPresentationTimeStamp(sbuf)));
    EXPECT_FALSE(SVTIME_IS_VALID(SVSampleBufferGetDecodeTimeStamp(sbuf)));
    EXPECT_FALSE(SVTIME_IS_VALID(SVSampleBufferGetDuration(sbuf)));

    auto image = imageSample(timing(T(1, 25), T(4, 25), T(3, 25)));
    EXPECT_TRUE(same(SVSampleBufferGetPresentationTimeStamp(image.get()), T(4, 25)));
    EXPECT_TRUE(same(SVSampleBufferGetDecodeTimeStamp(image.get()), T(3, 25)));
    EXPECT_TRUE(same(SVSampleBufferGetDuration(image.get()), T(1, 25)));
    EXPECT_FALSE(SVTIME_IS_VALID(SVSampleBufferGetPresentationTimeStamp(nullptr)));
    EXPECT_FALSE(SVTIME_IS_VALID(SVSampleBufferGetDuration(nullptr)));
}

TEST(SVSampleBufferDescription, MatchesTheGoldenText) {
    auto format = videoFormat('avc1');
    SVSampleTimingInfo info = timing(T(1, 30), T(10), T(9));
    SVSampleBufferRef sbuf = nullptr;
    ASSERT_EQ(SVSampleBufferCreateReady(nullptr, nullptr, format.get(), 2, 1, &info, 0, nullptr, &sbuf), 0);
    Sample owned(sbuf);
    char expected[160];
    snprintf(expected, sizeof expected,
             "<SVSampleBuffer %p [2 sample(s) of 'avc1', PTS 10.000000 DTS 9.000000 duration 0.066667]>",
             static_cast<void *>(sbuf));
    SVRetained<CFStringRef> text(CFCopyDescription(sbuf));
    ASSERT_TRUE(text);
    char actual[160] = {};
    CFStringGetCString(text.get(), actual, sizeof actual, kCFStringEncodingUTF8);
    EXPECT_STREQ(actual, expected);
}

struct ReadyProbe {
    int calls = 0;
    SVSampleBufferRef calledWith = nullptr;
    OSStatus result = 0;
    bool invalidate = false;
};

OSStatus makeReady(SVSampleBufferRef sbuf, void *refcon) {
    auto *probe = static_cast<ReadyProbe *>(refcon);
    probe->calls++;
    probe->calledWith = sbuf;
    if (probe->invalidate) SVSampleBufferInvalidate(sbuf);
    return probe->result;
}

TEST(SVSampleBufferReadiness, MakeDataReadyCallsTheCallbackAndHonoursItsOutcome) {
    auto noCallback = dataSample(1, {}, false);
    EXPECT_EQ(SVSampleBufferMakeDataReady(noCallback.get()), kSVSampleBufferError_BufferNotReady);
    EXPECT_EQ(SVSampleBufferMakeDataReady(nullptr), kSVSampleBufferError_RequiredParameterMissing);

    ReadyProbe failing{.result = -42};
    auto failed = dataSample(1, {}, false, makeReady, &failing);
    EXPECT_EQ(SVSampleBufferMakeDataReady(failed.get()), -42);
    EXPECT_FALSE(SVSampleBufferDataIsReady(failed.get()));

    ReadyProbe invalidating{.invalidate = true};
    auto dropped = dataSample(1, {}, false, makeReady, &invalidating);
    EXPECT_EQ(SVSampleBufferMakeDataReady(dropped.get()), 0);
    EXPECT_FALSE(SVSampleBufferDataIsReady(dropped.get()));
    EXPECT_EQ(SVSampleBufferMakeDataReady(dropped.get()), kSVSampleBufferError_Invalidated);
    EXPECT_EQ(invalidating.calls, 1);

    ReadyProbe good;
    auto filled = dataSample(1, {}, false, makeReady, &good);
    Observer became(kSVSampleBufferNotification_DataBecameReady, filled.get());
    EXPECT_EQ(SVSampleBufferMakeDataReady(filled.get()), 0);
    EXPECT_EQ(SVSampleBufferMakeDataReady(filled.get()), 0);
    EXPECT_TRUE(SVSampleBufferDataIsReady(filled.get()));
    EXPECT_EQ(good.calls, 1);
    EXPECT_EQ(became.posts, 1);
}

TEST(SVSampleBufferReadiness, TheLastBufferOfATrackingChainDecides) {
    ReadyProbe probe;
    auto source = dataSample(1, {}, false, makeReady, &probe);
    auto middle = dataSample(1, {}, false);
    auto tracker = dataSample(1, {}, true);
    ASSERT_EQ(SVSampleBufferTrackDataReadiness(middle.get(), source.get()), 0);
    ASSERT_EQ(SVSampleBufferTrackDataReadiness(tracker.get(), middle.get()), 0);
    EXPECT_EQ(SVSampleBufferTrackDataReadiness(tracker.get(), nullptr), kSVSampleBufferError_RequiredParameterMissing);

    // Its own flag is not consulted while it tracks another buffer.
    EXPECT_FALSE(SVSampleBufferDataIsReady(tracker.get()));
    EXPECT_EQ(SVSampleBufferSetDataReady(middle.get()), 0);
    EXPECT_FALSE(SVSampleBufferDataIsReady(tracker.get()));

    EXPECT_EQ(SVSampleBufferMakeDataReady(tracker.get()), 0);
    EXPECT_EQ(probe.calledWith, source.get());
    EXPECT_TRUE(SVSampleBufferDataIsReady(tracker.get()));
    EXPECT_EQ(SVSampleBufferInvalidate(source.get()), 0);
    EXPECT_FALSE(SVSampleBufferDataIsReady(tracker.get()));
    EXPECT_EQ(SVSampleBufferMakeDataReady(tracker.get()), kSVSampleBufferError_Invalidated);
}

TEST(SVSampleBufferReadiness, FailureIsRecordedAndPostedWithoutTouchingReadiness) {
    auto sbuf = dataSample(1, {}, false);
    OSStatus status = 7;
    EXPECT_FALSE(SVSampleBufferHasDataFailed(sbuf.get(), &status));
    EXPECT_EQ(status, 7);
    Observer failed(kSVSampleBufferNotification_DataFailed, sbuf.get());
    EXPECT_EQ(SVSampleBufferSetDataFailed(sbuf.get(), -12345), 0);
    EXPECT_TRUE(SVSampleBufferHasDataFailed(sbuf.get(), nullptr));
    EXPECT_TRUE(SVSampleBufferHasDataFailed(sbuf.get(), &status));
    EXPECT_EQ(status, -12345);
    EXPECT_EQ(failed.posts, 1);
    EXPECT_EQ(failed.lastStatus, -12345);
    EXPECT_FALSE(SVSampleBufferDataIsReady(sbuf.get()));
    EXPECT_EQ(SVSampleBufferSetDataFailed(sbuf.get(), 0), 0);
    EXPECT_FALSE(SVSampleBufferHasDataFailed(sbuf.get(), nullptr));
}

TEST(SVSampleBufferDataBuffer, AttachesOnceAndOnlyToTheDataKind) {
    SVBlockBufferRef block = nullptr;
    ASSERT_EQ(SVBlockBufferCreateWithMemoryBlock(nullptr, nullptr, 8, nullptr, nullptr, 0, 8, 0, &block), 0);
    SVRetained<SVBlockBufferRef> data(block);
    auto sbuf = dataSample(1, {}, false);
    EXPECT_EQ(SVSampleBufferSetDataBuffer(sbuf.get(), nullptr), kSVSampleBufferError_RequiredParameterMissing);
    EXPECT_EQ(SVSampleBufferSetDataBuffer(nullptr, block), kSVSampleBufferError_RequiredParameterMissing);
    EXPECT_EQ(SVSampleBufferSetDataBuffer(sbuf.get(), block), 0);
    EXPECT_EQ(SVSampleBufferGetDataBuffer(sbuf.get()), block);
    EXPECT_FALSE(SVSampleBufferDataIsReady(sbuf.get()));
    EXPECT_EQ(SVSampleBufferSetDataBuffer(sbuf.get(), block), kSVSampleBufferError_AlreadyHasDataBuffer);

    auto image = imageSample(timing(T(1), T(0), T(0)));
    EXPECT_EQ(SVSampleBufferGetNumSamples(image.get()), 1);
    EXPECT_EQ(SVSampleBufferGetDataBuffer(image.get()), nullptr);
    EXPECT_EQ(CFGetTypeID(SVSampleBufferGetImageBuffer(image.get())), CVPixelBufferGetTypeID());
    EXPECT_EQ(SVSampleBufferGetImageBuffer(sbuf.get()), nullptr);
    EXPECT_EQ(SVSampleBufferSetDataBuffer(image.get(), block), kSVSampleBufferError_InvalidMediaTypeForOperation);
}

TEST(SVSampleBufferCreate, ImageBufferCreationChecksItsArguments) {
    auto pixels = pixelBuffer();
    auto format = videoFormat('BGRA');
    SVSampleTimingInfo info = timing(T(1), T(2), T(3));
    auto sentinel = reinterpret_cast<SVSampleBufferRef>(0x1);
    SVSampleBufferRef sbuf = sentinel;
    EXPECT_EQ(SVSampleBufferCreateReadyWithImageBuffer(nullptr, pixels.get(), format.get(), &info, nullptr),
              kSVSampleBufferError_RequiredParameterMissing);
    EXPECT_EQ(SVSampleBufferCreateReadyWithImageBuffer(nullptr, nullptr, format.get(), &info, &sbuf),
              kSVSampleBufferError_RequiredParameterMissing);
    EXPECT_EQ(sbuf, nullptr);
    sbuf = sentinel;
    EXPECT_EQ(SVSampleBufferCreateReadyWithImageBuffer(nullptr, pixels.get(), nullptr, &info, &sbuf),
              kSVSampleBufferError_RequiredParameterMissing);
    EXPECT_EQ(sbuf, nullptr);
    EXPECT_EQ(SVSampleBufferCreateReadyWithImageBuffer(nullptr, pixels.get(), format.get(), nullptr, &sbuf),
              kSVSampleBufferError_RequiredParameterMissing);
    sorvel_test::TestAllocator allocator;
    allocator.failAlways();
    sbuf = sentinel;
    EXPECT_EQ(SVSampleBufferCreateReadyWithImageBuffer(allocator.get(), pixels.get(), format.get(), &info, &sbuf),
              kSVSampleBufferError_AllocationFailed);
    EXPECT_EQ(sbuf, nullptr);
    EXPECT_EQ(CFGetRetainCount(pixels.get()), 1);
}

TEST(SVSampleBufferInvalidate, RunsTheHandlerOnceAndThenAnswersAsForNull) {
    auto sbuf = dataSample(2, {timing(T(1), T(0), T(0))});
    __block int runs = 0;
    __block OSStatus nested = 0;
    ASSERT_EQ(SVSampleBufferSetInvalidateHandler(sbuf.get(),
                                                 ^(SVSampleBufferRef buffer) {
                                                   runs++;
                                                   // Still valid while the handler runs; a nested call is refused.
                                                   EXPECT_TRUE(SVSampleBufferIsValid(buffer));
                                                   nested = SVSampleBufferInvalidate(buffer);
                                                 }),
              0);
    EXPECT_EQ(SVSampleBufferInvalidate(sbuf.get()), 0);
    EXPECT_EQ(SVSampleBufferInvalidate(sbuf.get()), kSVSampleBufferError_Invalidated);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(nested, kSVSampleBufferError_Invalidated);
    EXPECT_FALSE(SVSampleBufferIsValid(sbuf.get()));
    EXPECT_EQ(SVSampleBufferGetNumSamples(sbuf.get()), 0);
    EXPECT_FALSE(SVTIME_IS_VALID(SVSampleBufferGetDuration(sbuf.get())));
    EXPECT_FALSE(SVSampleBufferDataIsReady(sbuf.get()));
    EXPECT_EQ(SVSampleBufferSetDataReady(sbuf.get()), kSVSampleBufferError_Invalidated);
    EXPECT_EQ(SVSampleBufferSetInvalidateHandler(sbuf.get(),
                                                 ^(SVSampleBufferRef){
                                                 }),
              kSVSampleBufferError_Invalidated);
    EXPECT_EQ(SVSampleBufferInvalidate(nullptr), kSVSampleBufferError_RequiredParameterMissing);
    EXPECT_FALSE(SVSampleBufferIsValid(nullptr));
}

void countInvalidation(SVSampleBufferRef, uint64_t refcon) {
    ++*reinterpret_cast<int *>(refcon);
}

TEST(SVSampleBufferInvalidate, CallbackAndHandlerShareOneSlot) {
    int callbackRuns = 0;
    __block int handlerRuns = 0;
    auto replaced = dataSample(1, {});
    ASSERT_EQ(SVSampleBufferSetInvalidateHandler(replaced.get(),
                                                 ^(SVSampleBufferRef) {
                                                   handlerRuns++;
                                                 }),
              0);
    ASSERT_EQ(SVSampleBufferSetInvalidateCallback(replaced.get(), countInvalidation,
                                                  reinterpret_cast<uint64_t>(&callbackRuns)),
              0);
    EXPECT_EQ(SVSampleBufferInvalidate(replaced.get()), 0);
    EXPECT_EQ(callbackRuns, 1);
    EXPECT_EQ(handlerRuns, 0);
    EXPECT_EQ(SVSampleBufferSetInvalidateCallback(nullptr, countInvalidation, 0),
              kSVSampleBufferError_RequiredParameterMissing);

    // A handler that releases the last reference and replaces itself while
    // it runs must not pull the buffer or itself out from under the call.
    SVSampleBufferRef lone = dataSample(1, {}).release();
    ASSERT_EQ(SVSampleBufferSetInvalidateHandler(lone,
                                                 ^(SVSampleBufferRef buffer) {
                                                   SVSampleBufferSetInvalidateHandler(buffer, nullptr);
                                                   CFRelease(buffer);
                                                 }),
              0);
    EXPECT_EQ(SVSampleBufferInvalidate(lone), 0);
}

TEST(SVSampleBufferAttachmentsArray, MadeOnDemandWithOneDictionaryPerSample) {
    auto empty = dataSample(0, {});
    EXPECT_EQ(SVSampleBufferGetSampleAttachmentsArray(empty.get(), true), nullptr);

    auto three = dataSample(3, {});
    EXPECT_EQ(SVSampleBufferGetSampleAttachmentsArray(three.get(), false), nullptr);
    CFArrayRef array = SVSampleBufferGetSampleAttachmentsArray(three.get(), true);
    ASSERT_NE(array, nullptr);
    ASSERT_EQ(CFArrayGetCount(array), 3);
    for (CFIndex i = 0; i < 3; i++) {
        auto dict = static_cast<CFDictionaryRef>(CFArrayGetValueAtIndex(array, i));
        EXPECT_EQ(CFGetTypeID(dict), CFDictionaryGetTypeID());
        EXPECT_EQ(CFDictionaryGetCount(dict), 0);
        for (CFIndex j = 0; j < i; j++) EXPECT_NE(dict, CFArrayGetValueAtIndex(array, j));
    }
    EXPECT_EQ(SVSampleBufferGetSampleAttachmentsArray(three.get(), true), array);
    EXPECT_EQ(SVSampleBufferGetSampleAttachmentsArray(three.get(), false), array);
    CFDictionarySetValue((CFMutableDictionaryRef)CFArrayGetValueAtIndex(array, 1), kSVSampleAttachmentKey_NotSync,
                         kCFBooleanTrue);

    auto image = imageSample(timing(T(1), T(0), T(0)));
    CFArrayRef one = SVSampleBufferGetSampleAttachmentsArray(image.get(), true);
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(CFArrayGetCount(one), 1);
}

TEST(SVSampleBufferAttachments, BufferAttachmentsLiveInTheObjectAndGoWithIt) {
    auto sbuf = dataSample(1, {});
    SVRetained<CFStringRef> value(CFStringCreateWithCString(nullptr, "held", kCFStringEncodingUTF8));
    CVBufferSetAttachment((CVBufferRef)sbuf.get(), kSVSampleBufferAttachmentKey_TransitionID, value.get(),
                          kCVAttachmentMode_ShouldPropagate);
    CVAttachmentMode mode = kCVAttachmentMode_ShouldNotPropagate;
    EXPECT_EQ(CVBufferGetAttachment((CVBufferRef)sbuf.get(), kSVSampleBufferAttachmentKey_TransitionID, &mode),
              value.get());
    EXPECT_EQ(mode, kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(CFGetRetainCount(value.get()), 2);
    sbuf.reset();
    EXPECT_EQ(CFGetRetainCount(value.get()), 1);
}

TEST(SVSampleBufferDeathTest, ABrokenKindIsABug) {
    auto sbuf = dataSample(1, {});
    reinterpret_cast<OpaqueSVSampleBuffer *>(sbuf.get())->kind = 7;
    EXPECT_DEATH(SVSampleBufferGetDuration(sbuf.get()), "BUG");
    EXPECT_DEATH(SVSampleBufferGetTotalSampleSize(sbuf.get()), "BUG");
    reinterpret_cast<OpaqueSVSampleBuffer *>(sbuf.get())->kind = kSVSampleBufferKind_DataBuffer;
}

}  // namespace
