// SPDX-License-Identifier: Apache-2.0
// Sample buffers: copies, range copies and their byte offsets, iteration,
// and the video-sample byte writer with its log lines.

#include <Block.h>
#include <CoreVideo/CoreVideo.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVSampleBuffer.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "core/SVObject.h"
#include "support/LogCapture.h"
#include "support/TestAllocator.h"

namespace {

using sorvel::SVRetained;
using sorvel_test::LogCapture;
using Sample = SVRetained<SVSampleBufferRef>;

SVTime T(int64_t value, int32_t timescale = 1) {
    return SVTimeMake(value, timescale);
}

// A block buffer of `length` bytes whose byte i holds i % 251, so a byte
// read back tells its offset.
SVRetained<SVBlockBufferRef> patternData(size_t length) {
    SVBlockBufferRef block = nullptr;
    EXPECT_EQ(SVBlockBufferCreateWithMemoryBlock(nullptr, nullptr, length, nullptr, nullptr, 0, length,
                                                 kSVBlockBufferAssureMemoryNowFlag, &block),
              0);
    std::vector<uint8_t> bytes(length);
    for (size_t i = 0; i < length; i++) bytes[i] = static_cast<uint8_t>(i % 251);
    EXPECT_EQ(SVBlockBufferReplaceDataBytes(bytes.data(), block, 0, length), 0);
    return SVRetained<SVBlockBufferRef>(block);
}

SVRetained<SVFormatDescriptionRef> videoFormat(FourCharCode subtype, CFDictionaryRef extensions = nullptr) {
    SVFormatDescriptionRef desc = nullptr;
    EXPECT_EQ(SVFormatDescriptionCreate(nullptr, kSVMediaType_Video, subtype, extensions, &desc), 0);
    return SVRetained<SVFormatDescriptionRef>(desc);
}

Sample dataSample(SVBlockBufferRef data, SVItemCount numSamples, std::vector<SVSampleTimingInfo> timings,
                  std::vector<size_t> sizes, SVFormatDescriptionRef format = nullptr, Boolean ready = true,
                  SVSampleBufferMakeDataReadyCallback callback = nullptr, void *refcon = nullptr) {
    SVSampleBufferRef sbuf = nullptr;
    EXPECT_EQ(
        SVSampleBufferCreate(nullptr, data, ready, callback, refcon, format, numSamples,
                             static_cast<SVItemCount>(timings.size()), timings.empty() ? nullptr : timings.data(),
                             static_cast<SVItemCount>(sizes.size()), sizes.empty() ? nullptr : sizes.data(), &sbuf),
        0);
    return Sample(sbuf);
}

Sample imageSample() {
    CVPixelBufferRef pixels = nullptr;
    EXPECT_EQ(CVPixelBufferCreate(nullptr, 8, 8, kCVPixelFormatType_32BGRA, nullptr, &pixels), kCVReturnSuccess);
    SVRetained<CVPixelBufferRef> ownedPixels(pixels);
    auto format = videoFormat('BGRA');
    SVSampleTimingInfo info = {T(1), T(0), T(0)};
    SVSampleBufferRef sbuf = nullptr;
    EXPECT_EQ(SVSampleBufferCreateReadyWithImageBuffer(nullptr, pixels, format.get(), &info, &sbuf), 0);
    return Sample(sbuf);
}

// The first byte a sample buffer's data buffer holds, or -1.
int firstByte(SVSampleBufferRef sbuf) {
    uint8_t byte = 0;
    SVBlockBufferRef data = SVSampleBufferGetDataBuffer(sbuf);
    if (!data || SVBlockBufferCopyDataBytes(data, 0, 1, &byte) != 0) return -1;
    return byte;
}

TEST(SVSampleBufferRangeCopy, ReferencesTheBytesOfTheSamplesInRange) {
    struct Case {
        const char *name;
        size_t dataLength;
        SVItemCount samples;
        std::vector<size_t> sizes;
        CFRange range;
        size_t offset, length;
        std::vector<size_t> newSizes;
    } cases[] = {
        {"per-sample sizes", 100, 4, {10, 20, 30, 40}, {2, 2}, 30, 70, {30, 40}},
        {"first sample", 100, 4, {10, 20, 30, 40}, {0, 1}, 0, 10, {10}},
        {"one size for all", 1000, 5, {188}, {3, 2}, 564, 376, {188}},
        {"no sizes: even division", 1000, 3, {}, {1, 1}, 333, 333, {}},
        {"no sizes: the last sample", 1000, 3, {}, {2, 1}, 666, 333, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        auto data = patternData(c.dataLength);
        auto source = dataSample(data.get(), c.samples, {}, c.sizes);
        SVSampleBufferRef copy = nullptr;
        ASSERT_EQ(SVSampleBufferCopySampleBufferForRange(nullptr, source.get(), c.range, &copy), 0);
        Sample owned(copy);
        EXPECT_EQ(SVSampleBufferGetNumSamples(copy), c.range.length);
        EXPECT_EQ(SVBlockBufferGetDataLength(SVSampleBufferGetDataBuffer(copy)), c.length);
        EXPECT_EQ(firstByte(copy), static_cast<int>(c.offset % 251));
        SVItemCount needed = 0;
        std::vector<size_t> sizes(4);
        SVSampleBufferGetSampleSizeArray(copy, 4, sizes.data(), &needed);
        sizes.resize(static_cast<size_t>(needed));
        EXPECT_EQ(sizes, c.newSizes);
        EXPECT_EQ(SVSampleBufferGetSampleAttachmentsArray(copy, false), nullptr);
    }
}

TEST(SVSampleBufferRangeCopy, RefusesRangesItCannotServe) {
    auto data = patternData(40);
    auto four = dataSample(data.get(), 4, {}, {10});
    auto none = dataSample(nullptr, 0, {}, {});
    auto image = imageSample();
    SVSampleBufferRef copy = nullptr;
    struct Case {
        SVSampleBufferRef sbuf;
        CFRange range;
        OSStatus expected;
    } cases[] = {
        {four.get(), {3, 2}, kSVSampleBufferError_SampleIndexOutOfRange},
        {four.get(), {-1, 1}, kSVSampleBufferError_SampleIndexOutOfRange},
        {four.get(), {1, LONG_MAX}, kSVSampleBufferError_SampleIndexOutOfRange},
        {none.get(), {0, 0}, kSVSampleBufferError_CannotSubdivide},
        {image.get(), {0, 1}, kSVSampleBufferError_InvalidMediaTypeForOperation},
        {nullptr, {0, 1}, kSVSampleBufferError_RequiredParameterMissing},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(SVSampleBufferCopySampleBufferForRange(nullptr, c.sbuf, c.range, &copy), c.expected);
        EXPECT_EQ(copy, nullptr);
    }
    EXPECT_EQ(SVSampleBufferCopySampleBufferForRange(nullptr, image.get(), {0, 1}, nullptr),
              kSVSampleBufferError_InvalidMediaTypeForOperation);
    EXPECT_EQ(SVSampleBufferCopySampleBufferForRange(nullptr, four.get(), {0, 1}, nullptr),
              kSVSampleBufferError_RequiredParameterMissing);
}

TEST(SVSampleBufferRangeCopy, TakesTheTimingOfTheRangeAndFreesItOnFailure) {
    auto data = patternData(30);
    auto perSample = dataSample(data.get(), 3, {{T(1), T(0), T(0)}, {T(2), T(1), T(1)}, {T(3), T(3), T(2)}}, {10});
    SVSampleBufferRef copy = nullptr;
    ASSERT_EQ(SVSampleBufferCopySampleBufferForRange(nullptr, perSample.get(), {1, 2}, &copy), 0);
    Sample owned(copy);
    EXPECT_EQ(SVTimeCompare(SVSampleBufferGetDuration(copy), T(5)), 0);
    EXPECT_EQ(SVTimeCompare(SVSampleBufferGetDecodeTimeStamp(copy), T(1)), 0);

    sorvel_test::TestAllocator allocator;
    // Timing copy, size copy, object, then the data reference (unchecked).
    for (long n = 0; n < 3; n++) {
        allocator.failAfter(n);
        SVSampleBufferRef failed = nullptr;
        EXPECT_EQ(SVSampleBufferCopySampleBufferForRange(allocator.get(), perSample.get(), {0, 2}, &failed),
                  kSVSampleBufferError_AllocationFailed);
        EXPECT_EQ(allocator.outstanding(), 0);
    }
    allocator.failAfter(3);
    SVSampleBufferRef withoutData = nullptr;
    ASSERT_EQ(SVSampleBufferCopySampleBufferForRange(allocator.get(), perSample.get(), {0, 2}, &withoutData), 0);
    EXPECT_EQ(SVSampleBufferGetDataBuffer(withoutData), nullptr);
    CFRelease(withoutData);
    EXPECT_EQ(allocator.outstanding(), 0);
}

struct ReadyProbe {
    int calls = 0;
    SVSampleBufferRef calledWith = nullptr;
};

OSStatus makeReady(SVSampleBufferRef sbuf, void *refcon) {
    auto *probe = static_cast<ReadyProbe *>(refcon);
    probe->calls++;
    probe->calledWith = sbuf;
    return 0;
}

TEST(SVSampleBufferCopy, CopiesShareTheirSourcesReadiness) {
    ReadyProbe probe;
    auto data = patternData(20);
    auto source = dataSample(data.get(), 2, {}, {10}, nullptr, false, makeReady, &probe);
    SVSampleBufferRef whole = nullptr, range = nullptr, copyOfCopy = nullptr;
    ASSERT_EQ(SVSampleBufferCreateCopy(nullptr, source.get(), &whole), 0);
    Sample ownedWhole(whole);
    ASSERT_EQ(SVSampleBufferCopySampleBufferForRange(nullptr, source.get(), {1, 1}, &range), 0);
    Sample ownedRange(range);
    ASSERT_EQ(SVSampleBufferCreateCopy(nullptr, whole, &copyOfCopy), 0);
    Sample ownedCopyOfCopy(copyOfCopy);
    for (SVSampleBufferRef copy : {whole, range, copyOfCopy}) EXPECT_FALSE(SVSampleBufferDataIsReady(copy));

    EXPECT_EQ(SVSampleBufferMakeDataReady(copyOfCopy), 0);
    EXPECT_EQ(probe.calls, 1);
    EXPECT_EQ(probe.calledWith, source.get());
    for (SVSampleBufferRef copy : {whole, range, copyOfCopy}) EXPECT_TRUE(SVSampleBufferDataIsReady(copy));
    // The copy's own flag stayed clear: the answer came from the source.
    ASSERT_EQ(SVSampleBufferInvalidate(source.get()), 0);
    EXPECT_FALSE(SVSampleBufferDataIsReady(whole));
    SVSampleBufferRef refused = nullptr;
    EXPECT_EQ(SVSampleBufferCreateCopy(nullptr, source.get(), &refused), kSVSampleBufferError_Invalidated);
    EXPECT_EQ(SVSampleBufferCreateCopy(nullptr, nullptr, &refused), kSVSampleBufferError_RequiredParameterMissing);
}

TEST(SVSampleBufferCopy, CarriesStateAndSharesPerSampleAttachmentsButNotBufferAttachments) {
    auto data = patternData(20);
    auto format = videoFormat('mp4v');
    auto source = dataSample(data.get(), 2, {{T(1), T(4), T(3)}}, {10}, format.get());
    SVSampleBufferSetDataFailed(source.get(), -5);
    SVSampleBufferSetOutputPresentationTimeStamp(source.get(), T(77));
    CVBufferSetAttachment((CVBufferRef)source.get(), kSVSampleBufferAttachmentKey_DrainAfterDecoding, kCFBooleanTrue,
                          kCVAttachmentMode_ShouldPropagate);
    CFArrayRef attachments = SVSampleBufferGetSampleAttachmentsArray(source.get(), true);

    SVSampleBufferRef copy = nullptr;
    ASSERT_EQ(SVSampleBufferCreateCopy(nullptr, source.get(), &copy), 0);
    Sample owned(copy);
    EXPECT_EQ(SVSampleBufferGetFormatDescription(copy), format.get());
    EXPECT_EQ(SVSampleBufferGetDataBuffer(copy), data.get());
    EXPECT_EQ(SVSampleBufferGetTotalSampleSize(copy), 20u);
    OSStatus failure = 0;
    EXPECT_TRUE(SVSampleBufferHasDataFailed(copy, &failure));
    EXPECT_EQ(failure, -5);
    EXPECT_EQ(SVTimeGetSeconds(SVSampleBufferGetOutputPresentationTimeStamp(copy)), 77);
    EXPECT_EQ(CVBufferGetAttachment((CVBufferRef)copy, kSVSampleBufferAttachmentKey_DrainAfterDecoding, nullptr),
              nullptr);

    CFArrayRef copied = SVSampleBufferGetSampleAttachmentsArray(copy, false);
    ASSERT_NE(copied, nullptr);
    CFDictionarySetValue((CFMutableDictionaryRef)CFArrayGetValueAtIndex(copied, 1), kSVSampleAttachmentKey_NotSync,
                         kCFBooleanTrue);
    EXPECT_EQ(
        CFDictionaryGetValue((CFDictionaryRef)CFArrayGetValueAtIndex(attachments, 1), kSVSampleAttachmentKey_NotSync),
        kCFBooleanTrue);
}

TEST(SVSampleBufferCopy, NewTimingAcceptsOnlyZeroOrOneEntry) {
    auto data = patternData(20);
    auto two = dataSample(data.get(), 2, {{T(1), T(0), T(0)}, {T(1), T(1), T(1)}}, {});
    SVSampleTimingInfo entries[2] = {{T(5), T(50), T(49)}, {T(5), T(55), T(54)}};
    SVSampleBufferRef copy = nullptr;
    EXPECT_EQ(SVSampleBufferCreateCopyWithNewTiming(nullptr, two.get(), 2, entries, &copy),
              kSVSampleBufferError_InvalidEntryCount);
    EXPECT_EQ(SVSampleBufferCreateCopyWithNewTiming(nullptr, two.get(), 1, nullptr, &copy),
              kSVSampleBufferError_RequiredParameterMissing);

    ASSERT_EQ(SVSampleBufferCreateCopyWithNewTiming(nullptr, two.get(), 1, entries, &copy), 0);
    EXPECT_EQ(SVTimeCompare(SVSampleBufferGetPresentationTimeStamp(copy), T(50)), 0);
    EXPECT_EQ(SVTimeCompare(SVSampleBufferGetDuration(copy), T(10)), 0);
    CFRelease(copy);
    ASSERT_EQ(SVSampleBufferCreateCopyWithNewTiming(nullptr, two.get(), 0, nullptr, &copy), 0);
    EXPECT_EQ(SVTimeCompare(SVSampleBufferGetDuration(copy), kSVTimeZero), 0);
    EXPECT_FALSE(SVTIME_IS_VALID(SVSampleBufferGetPresentationTimeStamp(copy)));
    CFRelease(copy);

    auto image = imageSample();
    ASSERT_EQ(SVSampleBufferCreateCopyWithNewTiming(nullptr, image.get(), 1, entries, &copy), 0);
    EXPECT_EQ(SVTimeCompare(SVSampleBufferGetDecodeTimeStamp(copy), T(49)), 0);
    EXPECT_EQ(SVSampleBufferGetImageBuffer(copy), SVSampleBufferGetImageBuffer(image.get()));
    CFRelease(copy);
    EXPECT_EQ(SVSampleBufferCreateCopyWithNewTiming(nullptr, image.get(), 2, entries, &copy),
              kSVSampleBufferError_InvalidEntryCount);
}

TEST(SVSampleBufferCopy, ManyThreadsMayReadAndCopyOneBuffer) {
    auto data = patternData(400);
    auto source = dataSample(data.get(), 4, {{T(1, 30), T(2), T(1)}}, {100});
    SVRetained<CFDictionaryRef> trim(SVTimeCopyAsDictionary(T(1, 60), nullptr));
    CVBufferSetAttachment((CVBufferRef)source.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart, trim.get(),
                          kCVAttachmentMode_ShouldPropagate);
    const SVTime expected = SVSampleBufferGetOutputPresentationTimeStamp(source.get());
    std::vector<std::thread> threads;
    std::atomic<int> mismatches{0};
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; i++) {
                SVSampleBufferRef copy = nullptr;
                if (SVSampleBufferCopySampleBufferForRange(nullptr, source.get(), {t, 1}, &copy) != 0 ||
                    firstByte(copy) != t * 100 % 251 ||
                    SVTimeCompare(SVSampleBufferGetOutputPresentationTimeStamp(source.get()), expected) != 0)
                    mismatches++;
                if (copy) CFRelease(copy);
            }
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(CFGetRetainCount(source.get()), 1);
}

struct Visit {
    std::vector<SVItemCount> indices;
    std::vector<int> firstBytes;
    OSStatus failAt = -1;
};

OSStatus visit(SVSampleBufferRef sample, SVItemCount index, void *refcon) {
    auto *v = static_cast<Visit *>(refcon);
    v->indices.push_back(index);
    v->firstBytes.push_back(firstByte(sample));
    EXPECT_EQ(SVSampleBufferGetNumSamples(sample), 1);
    return index == v->failAt ? -1 : 0;
}

TEST(SVSampleBufferIteration, VisitsEverySampleAndStopsAtTheFirstError) {
    auto data = patternData(60);
    auto sbuf = dataSample(data.get(), 3, {}, {10, 20, 30});
    Visit all;
    EXPECT_EQ(SVSampleBufferCallForEachSample(sbuf.get(), visit, &all), 0);
    EXPECT_EQ(all.indices, (std::vector<SVItemCount>{0, 1, 2}));
    EXPECT_EQ(all.firstBytes, (std::vector<int>{0, 10, 30}));

    Visit stopped;
    stopped.failAt = 1;
    EXPECT_EQ(SVSampleBufferCallForEachSample(sbuf.get(), visit, &stopped), -1);
    EXPECT_EQ(stopped.indices, (std::vector<SVItemCount>{0, 1}));

    __block int calls = 0;
    EXPECT_EQ(SVSampleBufferCallBlockForEachSample(sbuf.get(),
                                                   ^OSStatus(SVSampleBufferRef, SVItemCount index) {
                                                     calls++;
                                                     return index == 2 ? -7 : 0;
                                                   }),
              -7);
    EXPECT_EQ(calls, 3);

    auto empty = dataSample(nullptr, 0, {}, {});
    auto image = imageSample();
    EXPECT_EQ(SVSampleBufferCallForEachSample(empty.get(), visit, &all), kSVSampleBufferError_CannotSubdivide);
    EXPECT_EQ(SVSampleBufferCallForEachSample(image.get(), visit, &all),
              kSVSampleBufferError_InvalidMediaTypeForOperation);
    EXPECT_EQ(SVSampleBufferCallForEachSample(nullptr, visit, &all), kSVSampleBufferError_RequiredParameterMissing);
}

// Extensions carrying `extra` as the sample description's "extradata".
SVRetained<CFDictionaryRef> extensionsWithExtraData(const std::vector<uint8_t> &extra) {
    SVRetained<CFDataRef> bytes(CFDataCreate(nullptr, extra.data(), static_cast<CFIndex>(extra.size())));
    const void *atomKeys[] = {CFSTR("extradata")};
    const void *atomValues[] = {bytes.get()};
    SVRetained<CFDictionaryRef> atoms(CFDictionaryCreate(
        nullptr, atomKeys, atomValues, 1, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
    const void *keys[] = {kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms};
    const void *values[] = {atoms.get()};
    return SVRetained<CFDictionaryRef>(
        CFDictionaryCreate(nullptr, keys, values, 1, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
}

// Writes `sbuf` into a vector; the status comes back through `status`.
std::vector<uint8_t> writeBytes(SVSampleBufferRef sbuf, int32_t mode, OSStatus *status) {
    __block std::vector<uint8_t> packet;
    *status = _SVSampleBufferOutputVideoSampleAsBytes(sbuf, mode, ^void *(size_t size) {
      packet.resize(size);
      return packet.data();
    });
    return packet;
}

TEST(SVSampleBufferBytes, RawSamplesGoOutWithExtraDataBeforeSyncSamples) {
    auto data = patternData(5);
    auto extensions = extensionsWithExtraData({0xE0, 0xE1});
    auto format = videoFormat('mp4v', extensions.get());
    auto sbuf = dataSample(data.get(), 1, {}, {}, format.get());
    OSStatus status = -1;
    EXPECT_EQ(writeBytes(sbuf.get(), 1, &status), (std::vector<uint8_t>{0xE0, 0xE1, 0, 1, 2, 3, 4}));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(writeBytes(sbuf.get(), 0, &status), (std::vector<uint8_t>{0, 1, 2, 3, 4}));
    CFArrayRef attachments = SVSampleBufferGetSampleAttachmentsArray(sbuf.get(), true);
    CFDictionarySetValue((CFMutableDictionaryRef)CFArrayGetValueAtIndex(attachments, 0), kSVSampleAttachmentKey_NotSync,
                         kCFBooleanTrue);
    EXPECT_EQ(writeBytes(sbuf.get(), 1, &status), (std::vector<uint8_t>{0, 1, 2, 3, 4}));
    EXPECT_EQ(status, 0);
}

// The function form's allocator: a vector reached through the refcon.
void *growInto(size_t size, void *refcon) {
    auto *packet = static_cast<std::vector<uint8_t> *>(refcon);
    packet->assign(size, 0xEE);
    return packet->data();
}
void *refuse(size_t, void *) {
    return nullptr;
}

TEST(SVSampleBufferBytes, FunctionFormWritesAndFailsAsTheBlockForm) {
    auto data = patternData(5);
    auto extensions = extensionsWithExtraData({0xE0, 0xE1});
    auto format = videoFormat('mp4v', extensions.get());
    auto sbuf = dataSample(data.get(), 1, {}, {}, format.get());
    for (int32_t mode : {0, 1}) {
        OSStatus status = -1;
        std::vector<uint8_t> byBlock = writeBytes(sbuf.get(), mode, &status), byFunction;
        EXPECT_EQ(_SVSampleBufferOutputVideoSampleAsBytesWithAllocatorFunction(sbuf.get(), mode, growInto, &byFunction),
                  status);
        EXPECT_EQ(byFunction, byBlock) << "mode " << mode;
    }
    // Each failure: the same status and the same log line from both forms.
    auto jpeg = videoFormat('jpeg');
    auto jpegSample = dataSample(data.get(), 1, {}, {}, jpeg.get());
    struct {
        SVSampleBufferRef sbuf;
        SVSampleBufferPacketAllocatorFunction allocate;
        OSStatus status;
        int logLines;
    } cases[] = {
        {sbuf.get(), refuse, kSVSampleBufferError_AllocationFailed, 1},
        {sbuf.get(), nullptr, kSVSampleBufferError_RequiredParameterMissing, 0},
        {jpegSample.get(), growInto, kSVSampleBufferError_InvalidMediaFormat, 1},
        {nullptr, growInto, kSVSampleBufferError_RequiredParameterMissing, 0},
    };
    for (const auto &c : cases) {
        std::vector<uint8_t> packet;
        LogCapture functionLog(4);
        EXPECT_EQ(_SVSampleBufferOutputVideoSampleAsBytesWithAllocatorFunction(c.sbuf, 1, c.allocate, &packet),
                  c.status);
        auto functionLines = functionLog.lines();
        LogCapture blockLog(4);
        __block std::vector<uint8_t> blockPacket;
        SVSampleBufferPacketAllocator block = nullptr;
        if (c.allocate == refuse) block = ^void *(size_t) {
                return nullptr;
            };
        if (c.allocate == growInto) block = ^void *(size_t size) {
                blockPacket.resize(size);
                return blockPacket.data();
            };
        EXPECT_EQ(_SVSampleBufferOutputVideoSampleAsBytes(c.sbuf, 1, block), c.status);
        auto blockLines = blockLog.lines();
        ASSERT_EQ(functionLines.size(), size_t(c.logLines));
        ASSERT_EQ(blockLines.size(), functionLines.size());
        for (size_t i = 0; i < blockLines.size(); i++) {
            EXPECT_EQ(functionLines[i].function, blockLines[i].function);
            EXPECT_EQ(functionLines[i].line, blockLines[i].line);
            EXPECT_EQ(functionLines[i].message, blockLines[i].message);
        }
    }
}

TEST(SVSampleBufferBytes, FailuresReturnTheirStatusAndLogTheirFixedLines) {
    LogCapture log(4);
    auto data = patternData(5);
    auto jpeg = videoFormat('jpeg');
    auto raw = videoFormat('h263');
    auto jpegSample = dataSample(data.get(), 1, {}, {}, jpeg.get());
    OSStatus status = 0;
    writeBytes(jpegSample.get(), 0, &status);
    EXPECT_EQ(status, kSVSampleBufferError_InvalidMediaFormat);

    auto rawSample = dataSample(data.get(), 1, {}, {}, raw.get());
    EXPECT_EQ(_SVSampleBufferOutputVideoSampleAsBytes(rawSample.get(), 0,
                                                      ^void *(size_t) {
                                                        return nullptr;
                                                      }),
              kSVSampleBufferError_AllocationFailed);
    auto image = imageSample();
    SVSampleBufferRef mp4vImage = nullptr;
    auto mp4v = videoFormat('mp4v');
    SVSampleTimingInfo info = {T(1), T(0), T(0)};
    ASSERT_EQ(SVSampleBufferCreateReadyWithImageBuffer(nullptr, SVSampleBufferGetImageBuffer(image.get()), mp4v.get(),
                                                       &info, &mp4vImage),
              0);
    Sample ownedImage(mp4vImage);
    writeBytes(mp4vImage, 0, &status);
    EXPECT_EQ(status, kSVSampleBufferError_RequiredParameterMissing);

    struct Expected {
        int level;
        const char *function;
        int line;
        const char *message;
    } expected[] = {
        {3, "_SVSampleBufferOutputVideoSampleAsBytes", 1703, "Bad media format 'jpeg'"},
        {3, "_SVSampleBufferOutputVideoSampleAsBytesForH263", 1664, "Failed to allocate packet of size 5"},
        {3, "_SVSampleBufferOutputVideoSampleAsBytesForH263", 1624, "No block buffer"},
    };
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), std::size(expected));
    for (size_t i = 0; i < lines.size(); i++) {
        EXPECT_EQ(lines[i].level, expected[i].level);
        EXPECT_EQ(lines[i].function, expected[i].function);
        EXPECT_EQ(lines[i].path, "");
        EXPECT_EQ(lines[i].line, expected[i].line);
        EXPECT_EQ(lines[i].message, expected[i].message);
    }

    // NULL, invalidated and description-less buffers are refused silently.
    auto bare = dataSample(data.get(), 1, {}, {});
    for (SVSampleBufferRef refused : {static_cast<SVSampleBufferRef>(nullptr), bare.get()}) {
        writeBytes(refused, 0, &status);
        EXPECT_EQ(status, kSVSampleBufferError_RequiredParameterMissing);
    }
    EXPECT_EQ(log.count(), std::size(expected));
}

TEST(SVSampleBufferBytes, EmptyExtraDataIsNoticedAtMostTenTimesPerProcess) {
    LogCapture log(4);
    auto data = patternData(3);
    auto extensions = extensionsWithExtraData({});
    auto format = videoFormat('mp4v', extensions.get());
    auto sbuf = dataSample(data.get(), 1, {}, {}, format.get());
    OSStatus status = -1;
    for (int i = 0; i < 12; i++) {
        EXPECT_EQ(writeBytes(sbuf.get(), 1, &status), (std::vector<uint8_t>{0, 1, 2}));
        EXPECT_EQ(status, 0);
    }
    auto lines = log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_LE(lines.size(), 10u);
    EXPECT_EQ(lines[0].level, 4);
    EXPECT_EQ(lines[0].line, 1656);
    EXPECT_EQ(lines[0].message, "Extra data length is 0");
    log.clear();
    writeBytes(sbuf.get(), 1, &status);
    EXPECT_EQ(log.count(), 0u);
}

}  // namespace
