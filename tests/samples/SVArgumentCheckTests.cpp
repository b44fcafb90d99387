// SPDX-License-Identifier: Apache-2.0
// The one argument rule: every entry point that takes one of a family's
// objects answers NULL, and an object of another type, with the answer its
// header gives for a missing object, and touches nothing.  One table per
// family; each row calls one entry point and says whether the answer is the
// documented one.  The wrong objects are a constant string (recognised by
// its isa) and a runtime-made number (recognised by its type identifier).
#include <Sorvel/SVBufferQueue.h>
#include <Sorvel/SVSampleBuffer.h>
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

}  // namespace
