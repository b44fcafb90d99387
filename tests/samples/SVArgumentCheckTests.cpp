// SPDX-License-Identifier: Apache-2.0
// The one argument rule: every entry point that takes one of a family's
// objects answers NULL, and an object of another type, with the answer its
// header gives for a missing object, and touches nothing.  One table per
// family; each row calls one entry point and says whether the answer is the
// documented one.  The wrong objects are a constant string (recognised by
// its isa) and a runtime-made number (recognised by its type identifier).
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVBufferQueue.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVMemoryPool.h>
#include <Sorvel/SVSampleBuffer.h>
#include <Sorvel/SVSampleDescription.h>
#include <Sorvel/SVSimpleQueue.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/LogCapture.h"

namespace {

using sorvel_test::LogCapture;

struct Row {
    const char *function;
    std::function<bool(CFTypeRef)> answersAsMissing;
};

bool sameTime(SVTime a, SVTime b) {
    return a.value == b.value && a.timescale == b.timescale && a.flags == b.flags && a.epoch == b.epoch;
}

// Runs every row with NULL and with both wrong objects.
void checkTable(const std::vector<Row> &rows) {
    int32_t one = 1;
    CFNumberRef number = CFNumberCreate(nullptr, kCFNumberSInt32Type, &one);
    ASSERT_NE(number, nullptr);
    const CFTypeRef arguments[] = {nullptr, CFSTR("not an object of the family"), number};
    for (const Row &row : rows)
        for (CFTypeRef argument : arguments)
            EXPECT_TRUE(row.answersAsMissing(argument)) << row.function << " with "
                                                        << (argument == nullptr  ? "NULL"
                                                            : argument == number ? "a number"
                                                                                 : "a string");
    CFRelease(number);
}

// ---- buffer queues -------------------------------------------------------------------

SVBufferQueueRef asQueue(CFTypeRef cf) {
    return static_cast<SVBufferQueueRef>(const_cast<void *>(cf));
}

OSStatus forEach(SVBufferRef, void *) {
    return 0;
}
void resetEach(SVBufferRef, void *) {}
void trigger(void *, SVBufferQueueTriggerToken) {}
OSStatus validate(SVBufferQueueRef, SVBufferRef, void *) {
    return 0;
}

TEST(ArgumentCheck, BufferQueueCallsAnswerAWrongObjectAsAMissingQueue) {
    constexpr OSStatus kMissing = kSVBufferQueueError_RequiredParameterMissing;
    const SVTime kZero = {0, 0, 0, 0};
    CFTypeRef buffer = CFSTR("a buffer");
    auto token = reinterpret_cast<SVBufferQueueTriggerToken>(static_cast<uintptr_t>(8));
    checkTable({
        {"SVBufferQueueSetValidationCallback",
         [](CFTypeRef q) { return SVBufferQueueSetValidationCallback(asQueue(q), validate, nullptr) == kMissing; }},
        {"SVBufferQueueEnqueue", [&](CFTypeRef q) { return SVBufferQueueEnqueue(asQueue(q), buffer) == kMissing; }},
        {"SVBufferQueueDequeueAndRetain",
         [](CFTypeRef q) { return SVBufferQueueDequeueAndRetain(asQueue(q)) == nullptr; }},
        {"SVBufferQueueDequeueIfDataReadyAndRetain",
         [](CFTypeRef q) { return SVBufferQueueDequeueIfDataReadyAndRetain(asQueue(q)) == nullptr; }},
        {"SVBufferQueueGetHead", [](CFTypeRef q) { return SVBufferQueueGetHead(asQueue(q)) == nullptr; }},
        {"SVBufferQueueGetBufferCount",
         [](CFTypeRef q) { return SVBufferQueueGetBufferCount(asQueue(q)) == kMissing; }},
        {"SVBufferQueueIsEmpty", [](CFTypeRef q) { return SVBufferQueueIsEmpty(asQueue(q)) == true; }},
        {"SVBufferQueueGetDuration",
         [&](CFTypeRef q) { return sameTime(SVBufferQueueGetDuration(asQueue(q)), kZero); }},
        {"SVBufferQueueGetTotalSize", [](CFTypeRef q) { return SVBufferQueueGetTotalSize(asQueue(q)) == 0; }},
        {"SVBufferQueueGetFirstDecodeTimeStamp",
         [](CFTypeRef q) { return sameTime(SVBufferQueueGetFirstDecodeTimeStamp(asQueue(q)), kSVTimeInvalid); }},
        {"SVBufferQueueGetFirstPresentationTimeStamp",
         [](CFTypeRef q) { return sameTime(SVBufferQueueGetFirstPresentationTimeStamp(asQueue(q)), kSVTimeInvalid); }},
        {"SVBufferQueueGetMinDecodeTimeStamp",
         [](CFTypeRef q) { return sameTime(SVBufferQueueGetMinDecodeTimeStamp(asQueue(q)), kSVTimeInvalid); }},
        {"SVBufferQueueGetMinPresentationTimeStamp",
         [](CFTypeRef q) { return sameTime(SVBufferQueueGetMinPresentationTimeStamp(asQueue(q)), kSVTimeInvalid); }},
        {"SVBufferQueueGetMaxPresentationTimeStamp",
         [](CFTypeRef q) { return sameTime(SVBufferQueueGetMaxPresentationTimeStamp(asQueue(q)), kSVTimeInvalid); }},
        {"SVBufferQueueGetEndPresentationTimeStamp",
         [](CFTypeRef q) { return sameTime(SVBufferQueueGetEndPresentationTimeStamp(asQueue(q)), kSVTimeInvalid); }},
        {"SVBufferQueueCallForEachBuffer",
         [](CFTypeRef q) { return SVBufferQueueCallForEachBuffer(asQueue(q), forEach, nullptr) == kMissing; }},
        {"SVBufferQueueMarkEndOfData", [](CFTypeRef q) { return SVBufferQueueMarkEndOfData(asQueue(q)) == kMissing; }},
        {"SVBufferQueueContainsEndOfData",
         [](CFTypeRef q) { return SVBufferQueueContainsEndOfData(asQueue(q)) == true; }},
        {"SVBufferQueueIsAtEndOfData", [](CFTypeRef q) { return SVBufferQueueIsAtEndOfData(asQueue(q)) == true; }},
        {"SVBufferQueueReset", [](CFTypeRef q) { return SVBufferQueueReset(asQueue(q)) == kMissing; }},
        {"SVBufferQueueResetWithCallback",
         [](CFTypeRef q) { return SVBufferQueueResetWithCallback(asQueue(q), resetEach, nullptr) == kMissing; }},
        {"SVBufferQueueInstallTrigger",
         [](CFTypeRef q) {
             SVBufferQueueTriggerToken out = nullptr;
             return SVBufferQueueInstallTrigger(asQueue(q), trigger, nullptr,
                                                kSVBufferQueueTrigger_WhenDurationBecomesLessThan, kSVTimeZero,
                                                &out) == kMissing &&
                    out == nullptr;
         }},
        {"SVBufferQueueInstallTriggerWithIntegerThreshold",
         [](CFTypeRef q) {
             SVBufferQueueTriggerToken out = nullptr;
             return SVBufferQueueInstallTriggerWithIntegerThreshold(
                        asQueue(q), trigger, nullptr, kSVBufferQueueTrigger_WhenBufferCountBecomesLessThan, 1, &out) ==
                        kMissing &&
                    out == nullptr;
         }},
        {"SVBufferQueueRemoveTrigger",
         [&](CFTypeRef q) { return SVBufferQueueRemoveTrigger(asQueue(q), token) == kMissing; }},
        {"SVBufferQueueTestTrigger",
         [&](CFTypeRef q) {
             LogCapture log;
             bool answer = SVBufferQueueTestTrigger(asQueue(q), token);
             auto lines = log.lines();
             return !answer && lines.size() == 1 && lines[0].level == 3 &&
                    lines[0].function == "SVBufferQueueTestTrigger" && lines[0].message == "The queue is null";
         }},
    });
}

// ---- simple queues, memory pools, block buffers ----------------------------------------

template <typename Ref>
Ref as(CFTypeRef cf) {
    return static_cast<Ref>(const_cast<void *>(cf));
}

TEST(ArgumentCheck, SimpleQueueCallsAnswerAWrongObjectAsAMissingQueue) {
    constexpr OSStatus kMissing = kSVSimpleQueueError_RequiredParameterMissing;
    static int element;
    checkTable({
        {"SVSimpleQueueEnqueue",
         [](CFTypeRef q) { return SVSimpleQueueEnqueue(as<SVSimpleQueueRef>(q), &element) == kMissing; }},
        {"SVSimpleQueueDequeue", [](CFTypeRef q) { return SVSimpleQueueDequeue(as<SVSimpleQueueRef>(q)) == nullptr; }},
        {"SVSimpleQueueGetHead", [](CFTypeRef q) { return SVSimpleQueueGetHead(as<SVSimpleQueueRef>(q)) == nullptr; }},
        {"SVSimpleQueueReset", [](CFTypeRef q) { return SVSimpleQueueReset(as<SVSimpleQueueRef>(q)) == kMissing; }},
        {"SVSimpleQueueGetCapacity",
         [](CFTypeRef q) { return SVSimpleQueueGetCapacity(as<SVSimpleQueueRef>(q)) == 0; }},
        {"SVSimpleQueueGetCount", [](CFTypeRef q) { return SVSimpleQueueGetCount(as<SVSimpleQueueRef>(q)) == 0; }},
    });
}

TEST(ArgumentCheck, MemoryPoolCallsAnswerAWrongObjectAsAMissingPool) {
    checkTable({
        {"SVMemoryPoolGetAllocator",
         [](CFTypeRef p) { return SVMemoryPoolGetAllocator(as<SVMemoryPoolRef>(p)) == nullptr; }},
        {"SVMemoryPoolFlush",
         [](CFTypeRef p) {
             SVMemoryPoolFlush(as<SVMemoryPoolRef>(p));
             return true;
         }},
        {"SVMemoryPoolInvalidate",
         [](CFTypeRef p) {
             SVMemoryPoolInvalidate(as<SVMemoryPoolRef>(p));
             return true;
         }},
    });
}

TEST(ArgumentCheck, BlockBufferCallsAnswerAWrongObjectAsAMissingBuffer) {
    constexpr OSStatus kBadPointer = kSVBlockBufferBadPointerParameterErr;
    static char bytes[16];
    SVBlockBufferRef real = nullptr;
    ASSERT_EQ(SVBlockBufferCreateWithMemoryBlock(nullptr, bytes, sizeof bytes, kCFAllocatorNull, nullptr, 0,
                                                 sizeof bytes, 0, &real),
              0);
    auto bb = [](CFTypeRef b) { return as<SVBlockBufferRef>(b); };
    // Each creation call must also leave nothing behind.
    auto noneMade = [](OSStatus status, SVBlockBufferRef made) {
        if (made) CFRelease(made);
        return status == kSVBlockBufferBadPointerParameterErr && made == nullptr;
    };
    checkTable({
        {"SVBlockBufferAppendMemoryBlock",
         [&](CFTypeRef b) {
             return SVBlockBufferAppendMemoryBlock(bb(b), nullptr, 4, nullptr, nullptr, 0, 4, 0) == kBadPointer;
         }},
        {"SVBlockBufferAppendBufferReference (buffer)",
         [&](CFTypeRef b) { return SVBlockBufferAppendBufferReference(bb(b), real, 0, 4, 0) == kBadPointer; }},
        {"SVBlockBufferAppendBufferReference (target)",
         [&](CFTypeRef b) { return SVBlockBufferAppendBufferReference(real, bb(b), 0, 4, 0) == kBadPointer; }},
        {"SVBlockBufferCreateWithBufferReference",
         [&](CFTypeRef b) {
             SVBlockBufferRef made = nullptr;
             return noneMade(SVBlockBufferCreateWithBufferReference(nullptr, bb(b), 0, 4, 0, &made), made);
         }},
        {"SVBlockBufferCreateContiguous",
         [&](CFTypeRef b) {
             SVBlockBufferRef made = nullptr;
             return noneMade(SVBlockBufferCreateContiguous(nullptr, bb(b), nullptr, nullptr, 0, 4, 0, &made), made);
         }},
        {"SVBlockBufferCreateContiguous (always copy)",
         [&](CFTypeRef b) {
             SVBlockBufferRef made = nullptr;
             return noneMade(SVBlockBufferCreateContiguous(nullptr, bb(b), nullptr, nullptr, 0, 4,
                                                           kSVBlockBufferAlwaysCopyDataFlag, &made),
                             made);
         }},
        {"SVBlockBufferAssureBlockMemory",
         [&](CFTypeRef b) { return SVBlockBufferAssureBlockMemory(bb(b)) == kBadPointer; }},
        {"SVBlockBufferAccessDataBytes",
         [&](CFTypeRef b) {
             char temporary[4];
             char *out = bytes;
             return SVBlockBufferAccessDataBytes(bb(b), 0, 4, temporary, &out) == kBadPointer && out == nullptr;
         }},
        {"SVBlockBufferCopyDataBytes",
         [&](CFTypeRef b) {
             char out[4];
             return SVBlockBufferCopyDataBytes(bb(b), 0, 4, out) == kBadPointer;
         }},
        {"SVBlockBufferReplaceDataBytes",
         [&](CFTypeRef b) { return SVBlockBufferReplaceDataBytes("abcd", bb(b), 0, 4) == kBadPointer; }},
        {"SVBlockBufferFillDataBytes",
         [&](CFTypeRef b) { return SVBlockBufferFillDataBytes('x', bb(b), 0, 4) == kBadPointer; }},
        {"SVBlockBufferGetDataPointer",
         [&](CFTypeRef b) {
             size_t run = 1, total = 1;
             char *out = bytes;
             return SVBlockBufferGetDataPointer(bb(b), 0, &run, &total, &out) == kBadPointer && run == 0 &&
                    total == 0 && out == nullptr;
         }},
        {"SVBlockBufferGetDataLength", [&](CFTypeRef b) { return SVBlockBufferGetDataLength(bb(b)) == 0; }},
        {"SVBlockBufferIsRangeContiguous",
         [&](CFTypeRef b) { return SVBlockBufferIsRangeContiguous(bb(b), 0, 4) == false; }},
        {"SVBlockBufferIsEmpty", [&](CFTypeRef b) { return SVBlockBufferIsEmpty(bb(b)) == false; }},
    });
    EXPECT_EQ(SVBlockBufferGetDataLength(real), sizeof bytes) << "the real buffer is untouched";
    CFRelease(real);
}

// ---- format descriptions ---------------------------------------------------------------

// True when exactly one line was logged at level 3 by `function` and its
// message starts with `text`.
bool loggedOnce(const LogCapture &log, const char *function, const std::string &text) {
    auto lines = log.lines();
    return lines.size() == 1 && lines[0].level == 3 && lines[0].function == function &&
           lines[0].message.rfind(text, 0) == 0;
}

TEST(ArgumentCheck, FormatDescriptionCallsAnswerAWrongObjectAsAMissingDescription) {
    constexpr OSStatus kInvalid = kSVFormatDescriptionError_InvalidParameter;
    SVFormatDescriptionRef real = nullptr;
    ASSERT_EQ(SVFormatDescriptionCreate(nullptr, kSVMediaType_Video, 'avc1', nullptr, &real), 0);
    auto fd = [](CFTypeRef d) { return as<SVFormatDescriptionRef>(d); };
    auto sameRect = [](CGRect a, CGRect b) {
        return a.origin.x == b.origin.x && a.origin.y == b.origin.y && a.size.width == b.size.width &&
               a.size.height == b.size.height;
    };
    auto textGate = [](OSStatus status, const LogCapture &log, const char *function) {
        return status == kSVFormatDescriptionError_InvalidParameter &&
               loggedOnce(log, function, "Media type/subtype not supported: Type: ");
    };
    checkTable({
        {"SVFormatDescriptionGetMediaType", [&](CFTypeRef d) { return SVFormatDescriptionGetMediaType(fd(d)) == 0; }},
        {"SVFormatDescriptionGetMediaSubType",
         [&](CFTypeRef d) { return SVFormatDescriptionGetMediaSubType(fd(d)) == 0; }},
        {"SVFormatDescriptionGetExtensions",
         [&](CFTypeRef d) { return SVFormatDescriptionGetExtensions(fd(d)) == nullptr; }},
        {"SVFormatDescriptionGetExtension",
         [&](CFTypeRef d) { return SVFormatDescriptionGetExtension(fd(d), CFSTR("key")) == nullptr; }},
        {"SVFormatDescriptionEqual (first)", [&](CFTypeRef d) { return !SVFormatDescriptionEqual(fd(d), real); }},
        {"SVFormatDescriptionEqual (second)", [&](CFTypeRef d) { return !SVFormatDescriptionEqual(real, fd(d)); }},
        {"SVAudioFormatDescriptionGetStreamBasicDescription",
         [&](CFTypeRef d) { return SVAudioFormatDescriptionGetStreamBasicDescription(fd(d)) == nullptr; }},
        {"SVAudioFormatDescriptionGetChannelLayout",
         [&](CFTypeRef d) {
             size_t size = 1;
             return SVAudioFormatDescriptionGetChannelLayout(fd(d), &size) == nullptr && size == 0;
         }},
        {"SVAudioFormatDescriptionGetMagicCookie",
         [&](CFTypeRef d) {
             size_t size = 1;
             return SVAudioFormatDescriptionGetMagicCookie(fd(d), &size) == nullptr && size == 0;
         }},
        {"SVAudioFormatDescriptionGetFormatList",
         [&](CFTypeRef d) {
             size_t size = 0;
             return SVAudioFormatDescriptionGetFormatList(fd(d), &size) == nullptr;
         }},
        {"SVAudioFormatDescriptionGetMostCompatibleFormat",
         [&](CFTypeRef d) { return SVAudioFormatDescriptionGetMostCompatibleFormat(fd(d)) == nullptr; }},
        {"SVAudioFormatDescriptionGetRichestDecodableFormat",
         [&](CFTypeRef d) {
             LogCapture log;
             return SVAudioFormatDescriptionGetRichestDecodableFormat(fd(d)) == nullptr;
         }},
        {"SVAudioFormatDescriptionEqual",
         [&](CFTypeRef d) {
             SVAudioFormatDescriptionMask mask = 1;
             return !SVAudioFormatDescriptionEqual(fd(d), real, kSVAudioFormatDescriptionMask_All, &mask) && mask == 0;
         }},
        {"SVVideoFormatDescriptionGetDimensions",
         [&](CFTypeRef d) {
             SVVideoDimensions size = SVVideoFormatDescriptionGetDimensions(fd(d));
             return size.width == 0 && size.height == 0;
         }},
        {"SVVideoFormatDescriptionGetPresentationDimensions",
         [&](CFTypeRef d) {
             CGSize size = SVVideoFormatDescriptionGetPresentationDimensions(fd(d), true, true);
             return size.width == 0 && size.height == 0;
         }},
        {"SVVideoFormatDescriptionGetCleanAperture",
         [&](CFTypeRef d) { return sameRect(SVVideoFormatDescriptionGetCleanAperture(fd(d), true), CGRectZero); }},
        {"SVVideoFormatDescriptionGetH264ParameterSetAtIndex",
         [&](CFTypeRef d) {
             size_t count = 0;
             return SVVideoFormatDescriptionGetH264ParameterSetAtIndex(fd(d), 0, nullptr, nullptr, &count, nullptr) ==
                    kInvalid;
         }},
        {"SVVideoFormatDescriptionGetHEVCParameterSetAtIndex",
         [&](CFTypeRef d) {
             size_t count = 0;
             return SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(fd(d), 0, nullptr, nullptr, &count, nullptr) ==
                    kInvalid;
         }},
        {"SVVideoFormatDescriptionGetCodingInfo",
         [&](CFTypeRef d) {
             SVVideoCodingInfo info;
             return SVVideoFormatDescriptionGetCodingInfo(fd(d), &info) == kInvalid;
         }},
        {"SVVideoFormatDescriptionGetH264FieldDetailOfSample",
         [&](CFTypeRef d) {
             static const uint8_t sample[] = {0, 0, 0, 1, 0x65};
             return SVVideoFormatDescriptionGetH264FieldDetailOfSample(fd(d), sample, sizeof sample) == nullptr;
         }},
        {"SVVideoFormatDescriptionMatchesImageBuffer",
         [&](CFTypeRef d) {
             return !SVVideoFormatDescriptionMatchesImageBuffer(fd(d), as<CVImageBufferRef>(CFSTR("not an image")));
         }},
        {"SVTextFormatDescriptionGetDisplayFlags",
         [&](CFTypeRef d) {
             LogCapture log;
             SVTextDisplayFlags flags;
             return textGate(SVTextFormatDescriptionGetDisplayFlags(fd(d), &flags), log,
                             "SVTextFormatDescriptionGetDisplayFlags");
         }},
        {"SVTextFormatDescriptionGetJustification",
         [&](CFTypeRef d) {
             LogCapture log;
             SVTextJustificationValue h, v;
             return textGate(SVTextFormatDescriptionGetJustification(fd(d), &h, &v), log,
                             "SVTextFormatDescriptionGetJustification");
         }},
        {"SVTextFormatDescriptionGetDefaultTextBox",
         [&](CFTypeRef d) {
             LogCapture log;
             SVTextRect box;
             return textGate(SVTextFormatDescriptionGetDefaultTextBox(fd(d), true, 100, &box), log,
                             "SVTextFormatDescriptionGetDefaultTextBox");
         }},
        {"SVTextFormatDescriptionGetDefaultStyle",
         [&](CFTypeRef d) {
             LogCapture log;
             uint16_t font;
             Boolean bold, italic, underline;
             Float32 size, color[4];
             return textGate(
                 SVTextFormatDescriptionGetDefaultStyle(fd(d), &font, &bold, &italic, &underline, &size, color), log,
                 "SVTextFormatDescriptionGetDefaultStyle");
         }},
        {"SVTextFormatDescriptionGetFontName",
         [&](CFTypeRef d) {
             LogCapture log;
             CFStringRef name = nullptr;
             return textGate(SVTextFormatDescriptionGetFontName(fd(d), 1, &name), log,
                             "SVTextFormatDescriptionGetFontName");
         }},
        {"SVSampleDescriptionCopyAsBigEndianData",
         [&](CFTypeRef d) {
             LogCapture log;
             CFDataRef data = nullptr;
             OSStatus status = SVSampleDescriptionCopyAsBigEndianData(nullptr, fd(d), nullptr, &data);
             if (data) CFRelease(data);
             return status == kSVSampleDescriptionError_InvalidParameter && data == nullptr &&
                    loggedOnce(log, "SVSampleDescriptionCopyAsBigEndianData", "No format description");
         }},
    });
    EXPECT_EQ(SVFormatDescriptionGetMediaSubType(real), 'avc1');
    CFRelease(real);
}

// ---- sample buffers --------------------------------------------------------------------

OSStatus eachSample(SVSampleBufferRef, SVItemCount, void *) {
    return 0;
}
void *packetMemory(size_t, void *) {
    return nullptr;
}
void invalidated(SVSampleBufferRef, uint64_t) {}

TEST(ArgumentCheck, SampleBufferCallsAnswerAWrongObjectAsAMissingBuffer) {
    constexpr OSStatus kMissing = kSVSampleBufferError_RequiredParameterMissing;
    constexpr OSStatus kFormatInvalid = kSVFormatDescriptionError_InvalidParameter;
    SVSampleBufferRef real = nullptr;
    ASSERT_EQ(SVSampleBufferCreate(nullptr, nullptr, true, nullptr, nullptr, nullptr, 0, 0, nullptr, 0, nullptr, &real),
              0);
    SVBlockBufferRef data = nullptr;
    static char bytes[4];
    ASSERT_EQ(SVBlockBufferCreateWithMemoryBlock(nullptr, bytes, sizeof bytes, kCFAllocatorNull, nullptr, 0,
                                                 sizeof bytes, 0, &data),
              0);
    auto sb = [](CFTypeRef b) { return as<SVSampleBufferRef>(b); };
    auto invalid = [](SVTime t) { return sameTime(t, kSVTimeInvalid); };
    auto noCopy = [](OSStatus status, SVSampleBufferRef made) {
        if (made) CFRelease(made);
        return status == kMissing && made == nullptr;
    };
    checkTable({
        {"SVSampleBufferIsValid", [&](CFTypeRef b) { return !SVSampleBufferIsValid(sb(b)); }},
        {"SVSampleBufferGetFormatDescription",
         [&](CFTypeRef b) { return SVSampleBufferGetFormatDescription(sb(b)) == nullptr; }},
        {"SVSampleBufferGetDataBuffer", [&](CFTypeRef b) { return SVSampleBufferGetDataBuffer(sb(b)) == nullptr; }},
        {"SVSampleBufferGetImageBuffer", [&](CFTypeRef b) { return SVSampleBufferGetImageBuffer(sb(b)) == nullptr; }},
        {"SVSampleBufferGetNumSamples", [&](CFTypeRef b) { return SVSampleBufferGetNumSamples(sb(b)) == 0; }},
        {"SVSampleBufferGetPresentationTimeStamp",
         [&](CFTypeRef b) { return invalid(SVSampleBufferGetPresentationTimeStamp(sb(b))); }},
        {"SVSampleBufferGetDecodeTimeStamp",
         [&](CFTypeRef b) { return invalid(SVSampleBufferGetDecodeTimeStamp(sb(b))); }},
        {"SVSampleBufferGetDuration", [&](CFTypeRef b) { return invalid(SVSampleBufferGetDuration(sb(b))); }},
        {"SVSampleBufferGetOutputPresentationTimeStamp",
         [&](CFTypeRef b) { return invalid(SVSampleBufferGetOutputPresentationTimeStamp(sb(b))); }},
        {"SVSampleBufferSetOutputPresentationTimeStamp",
         [&](CFTypeRef b) { return SVSampleBufferSetOutputPresentationTimeStamp(sb(b), kSVTimeZero) == kMissing; }},
        {"SVSampleBufferGetOutputDecodeTimeStamp",
         [&](CFTypeRef b) { return invalid(SVSampleBufferGetOutputDecodeTimeStamp(sb(b))); }},
        {"SVSampleBufferGetOutputDuration",
         [&](CFTypeRef b) { return invalid(SVSampleBufferGetOutputDuration(sb(b))); }},
        {"SVSampleBufferGetSampleTimingInfoArray",
         [&](CFTypeRef b) {
             SVItemCount needed = 0;
             return SVSampleBufferGetSampleTimingInfoArray(sb(b), 0, nullptr, &needed) == kMissing;
         }},
        {"SVSampleBufferGetOutputSampleTimingInfoArray",
         [&](CFTypeRef b) {
             SVItemCount needed = 0;
             return SVSampleBufferGetOutputSampleTimingInfoArray(sb(b), 0, nullptr, &needed) ==
                    kSVSampleBufferError_Invalidated;
         }},
        {"SVSampleBufferGetSampleTimingInfo",
         [&](CFTypeRef b) {
             SVSampleTimingInfo info;
             return SVSampleBufferGetSampleTimingInfo(sb(b), 0, &info) == kMissing;
         }},
        {"SVSampleBufferGetSampleSize", [&](CFTypeRef b) { return SVSampleBufferGetSampleSize(sb(b), 0) == 0; }},
        {"SVSampleBufferGetSampleSizeArray",
         [&](CFTypeRef b) {
             SVItemCount needed = 0;
             return SVSampleBufferGetSampleSizeArray(sb(b), 0, nullptr, &needed) == kMissing;
         }},
        {"SVSampleBufferGetTotalSampleSize", [&](CFTypeRef b) { return SVSampleBufferGetTotalSampleSize(sb(b)) == 0; }},
        {"SVSampleBufferSetDataBuffer",
         [&](CFTypeRef b) { return SVSampleBufferSetDataBuffer(sb(b), data) == kMissing; }},
        {"SVSampleBufferDataIsReady", [&](CFTypeRef b) { return !SVSampleBufferDataIsReady(sb(b)); }},
        {"SVSampleBufferSetDataReady", [&](CFTypeRef b) { return SVSampleBufferSetDataReady(sb(b)) == kMissing; }},
        {"SVSampleBufferMakeDataReady", [&](CFTypeRef b) { return SVSampleBufferMakeDataReady(sb(b)) == kMissing; }},
        {"SVSampleBufferTrackDataReadiness (buffer)",
         [&](CFTypeRef b) { return SVSampleBufferTrackDataReadiness(sb(b), real) == 0; }},
        {"SVSampleBufferTrackDataReadiness (tracked)",
         [&](CFTypeRef b) { return SVSampleBufferTrackDataReadiness(real, sb(b)) == kMissing; }},
        {"SVSampleBufferSetDataFailed", [&](CFTypeRef b) { return SVSampleBufferSetDataFailed(sb(b), -1) == 0; }},
        {"SVSampleBufferHasDataFailed",
         [&](CFTypeRef b) {
             OSStatus status = 0;
             return !SVSampleBufferHasDataFailed(sb(b), &status);
         }},
        {"SVSampleBufferInvalidate", [&](CFTypeRef b) { return SVSampleBufferInvalidate(sb(b)) == kMissing; }},
        {"SVSampleBufferSetInvalidateCallback",
         [&](CFTypeRef b) { return SVSampleBufferSetInvalidateCallback(sb(b), invalidated, 0) == kMissing; }},
        {"SVSampleBufferSetInvalidateHandler",
         [&](CFTypeRef b) {
             return SVSampleBufferSetInvalidateHandler(sb(b), ^(SVSampleBufferRef){
                                                       }) == kMissing;
         }},
        {"SVSampleBufferCreateCopy",
         [&](CFTypeRef b) {
             SVSampleBufferRef made = nullptr;
             return noCopy(SVSampleBufferCreateCopy(nullptr, sb(b), &made), made);
         }},
        {"SVSampleBufferCreateCopyWithNewTiming",
         [&](CFTypeRef b) {
             SVSampleBufferRef made = nullptr;
             return noCopy(SVSampleBufferCreateCopyWithNewTiming(nullptr, sb(b), 0, nullptr, &made), made);
         }},
        {"SVSampleBufferCopySampleBufferForRange",
         [&](CFTypeRef b) {
             SVSampleBufferRef made = nullptr;
             return noCopy(SVSampleBufferCopySampleBufferForRange(nullptr, sb(b), CFRangeMake(0, 1), &made), made);
         }},
        {"SVSampleBufferCallForEachSample",
         [&](CFTypeRef b) { return SVSampleBufferCallForEachSample(sb(b), eachSample, nullptr) == kMissing; }},
        {"SVSampleBufferCallBlockForEachSample",
         [&](CFTypeRef b) {
             return SVSampleBufferCallBlockForEachSample(sb(b), ^OSStatus(SVSampleBufferRef, SVItemCount) {
                      return 0;
                    }) == kMissing;
         }},
        {"SVSampleBufferWriteAnnexB",
         [&](CFTypeRef b) {
             return SVSampleBufferWriteAnnexB(sb(b), true, nullptr, 0, packetMemory, nullptr) == kFormatInvalid;
         }},
        {"_SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer",
         [&](CFTypeRef b) {
             return _SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer(sb(b), 1, nullptr, 0, ^void *(size_t) {
                      return nullptr;
                    }) == kFormatInvalid;
         }},
        {"_SVSampleBufferOutputVideoSampleAsBytes",
         [&](CFTypeRef b) {
             return _SVSampleBufferOutputVideoSampleAsBytes(sb(b), 1, ^void *(size_t) {
                      return nullptr;
                    }) == kMissing;
         }},
        {"_SVSampleBufferOutputVideoSampleAsBytesWithAllocatorFunction",
         [&](CFTypeRef b) {
             return _SVSampleBufferOutputVideoSampleAsBytesWithAllocatorFunction(sb(b), 1, packetMemory, nullptr) ==
                    kMissing;
         }},
        {"SVSampleBufferGetAudioStreamPacketDescriptions",
         [&](CFTypeRef b) {
             size_t needed = 0;
             return SVSampleBufferGetAudioStreamPacketDescriptions(sb(b), 0, nullptr, &needed) == kMissing;
         }},
        {"SVSampleBufferGetAudioStreamPacketDescriptionsPtr",
         [&](CFTypeRef b) {
             const AudioStreamPacketDescription *descriptions = nullptr;
             size_t size = 0;
             return SVSampleBufferGetAudioStreamPacketDescriptionsPtr(sb(b), &descriptions, &size) == kMissing;
         }},
        {"SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer",
         [&](CFTypeRef b) {
             AudioBufferList list;
             SVBlockBufferRef retained = nullptr;
             return SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sb(b), nullptr, &list, sizeof list, nullptr,
                                                                            nullptr, 0, &retained) == kMissing &&
                    retained == nullptr;
         }},
        {"SVSampleBufferCopyPCMDataIntoAudioBufferList",
         [&](CFTypeRef b) {
             AudioBufferList list = {1, {{1, sizeof bytes, bytes}}};
             return SVSampleBufferCopyPCMDataIntoAudioBufferList(sb(b), 0, 1, &list) == kMissing;
         }},
        {"SVSampleBufferSetDataBufferFromAudioBufferList",
         [&](CFTypeRef b) {
             AudioBufferList list = {1, {{1, sizeof bytes, bytes}}};
             return SVSampleBufferSetDataBufferFromAudioBufferList(sb(b), nullptr, nullptr, 0, &list) == kMissing;
         }},
        {"SVSampleBufferGetSampleAttachmentsArray",
         [&](CFTypeRef b) { return SVSampleBufferGetSampleAttachmentsArray(sb(b), true) == nullptr; }},
    });
    // Objects of the lower families given to a sample buffer are checked too.
    SVSampleBufferRef empty = nullptr;
    ASSERT_EQ(
        SVSampleBufferCreate(nullptr, nullptr, false, nullptr, nullptr, nullptr, 0, 0, nullptr, 0, nullptr, &empty), 0);
    auto untouched = reinterpret_cast<SVSampleBufferRef>(static_cast<uintptr_t>(8));
    for (CFTypeRef wrong : {static_cast<CFTypeRef>(CFSTR("not a buffer")), static_cast<CFTypeRef>(real)}) {
        SVSampleBufferRef out = untouched;
        EXPECT_EQ(SVSampleBufferCreate(nullptr, as<SVBlockBufferRef>(wrong), true, nullptr, nullptr, nullptr, 0, 0,
                                       nullptr, 0, nullptr, &out),
                  kMissing);
        EXPECT_EQ(out, untouched);
        EXPECT_EQ(SVSampleBufferCreateReady(nullptr, nullptr, as<SVFormatDescriptionRef>(wrong), 0, 0, nullptr, 0,
                                            nullptr, &out),
                  kMissing);
        EXPECT_EQ(out, untouched);
        SVSampleTimingInfo timing = {kSVTimeInvalid, kSVTimeZero, kSVTimeInvalid};
        EXPECT_EQ(SVSampleBufferCreateForImageBuffer(nullptr, as<CVImageBufferRef>(CFSTR("image")), true, nullptr,
                                                     nullptr, as<SVFormatDescriptionRef>(wrong), &timing, &out),
                  kMissing);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(SVSampleBufferSetDataBuffer(empty, as<SVBlockBufferRef>(wrong)), kMissing);
        EXPECT_EQ(SVSampleBufferGetDataBuffer(empty), nullptr);
    }
    EXPECT_EQ(SVSampleBufferSetDataBuffer(empty, data), 0) << "a real block buffer is still taken";
    CFRelease(empty);
    EXPECT_TRUE(SVSampleBufferIsValid(real));
    EXPECT_EQ(SVSampleBufferGetDataBuffer(real), nullptr) << "the real buffer is untouched";
    CFRelease(data);
    CFRelease(real);
}

}  // namespace
