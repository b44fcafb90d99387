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

}  // namespace
