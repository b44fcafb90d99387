// SPDX-License-Identifier: Apache-2.0
// Tests for the buffer queue: creation statuses, arrival and sorted order
// (equal keys keep arrival order), capacity, end of data, ownership (a
// counting buffer type shows every release), every trigger condition and
// firing order, the inside-trigger-callback guard with its log line, queues
// released from inside a trigger callback, the time-stamp queries, the
// sample-buffer callback records and a producer/consumer stress run.
#include <Sorvel/SVBufferQueue.h>
#include <Sorvel/SVSampleBuffer.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/SVObject.h"
#include "support/BufferQueueHelpers.h"
#include "support/LogCapture.h"
#include "support/TestAllocator.h"

namespace {

using sorvel_test::foldedDuration;
using sorvel_test::OwningQueue;
using sorvel_test::sameTime;
using sorvel_test::sampleBufferRecords;

using sorvel_test::LogCapture;
using sorvel_test::TestAllocator;

// ---- a buffer type of the test's own ---------------------------------------------
// Time stamps in 1/10 s units (value < 0: invalid), a readiness flag and a
// size; live instances are counted so leaks and double releases show.

struct OpaqueTestBuffer {
    CFRuntimeBase base;
    int64_t pts, dts, duration;
    bool ready;
    size_t size;
};

std::atomic<int> gLiveBuffers{0};

void testBufferFinalize(CFTypeRef) {
    gLiveBuffers--;
}

const CFRuntimeClass kTestBufferClass = {0,       "TestQueueBuffer", nullptr, nullptr, testBufferFinalize,
                                         nullptr, nullptr,           nullptr, nullptr};
constinit sorvel::SVRuntimeClass<OpaqueTestBuffer> gTestBufferClass{kTestBufferClass};

OpaqueTestBuffer *makeBuffer(int64_t pts, int64_t duration = 1, bool ready = true, size_t size = 10, int64_t dts = -2) {
    OpaqueTestBuffer *buffer = gTestBufferClass.create(nullptr);
    buffer->pts = pts;
    buffer->dts = dts == -2 ? pts : dts;
    buffer->duration = duration;
    buffer->ready = ready;
    buffer->size = size;
    gLiveBuffers++;
    return buffer;
}

const OpaqueTestBuffer *fields(SVBufferRef buffer) {
    return static_cast<const OpaqueTestBuffer *>(buffer);
}

SVTime tenths(int64_t value) {
    return value < 0 ? kSVTimeInvalid : SVTimeMake(value, 10);
}
SVTime getPTS(SVBufferRef b, void *) {
    return tenths(fields(b)->pts);
}
SVTime getDTS(SVBufferRef b, void *) {
    return tenths(fields(b)->dts);
}
SVTime getDuration(SVBufferRef b, void *) {
    return tenths(fields(b)->duration);
}
Boolean isReady(SVBufferRef b, void *) {
    return b != nullptr && fields(b)->ready;
}
size_t getSize(SVBufferRef b, void *) {
    return fields(b)->size;
}
CFComparisonResult comparePTS(SVBufferRef a, SVBufferRef b, void *) {
    return SVTimeCompare(getPTS(a, nullptr), getPTS(b, nullptr));
}

const SVBufferCallbacks kUnsorted = {0, nullptr, getDTS, getPTS, getDuration, isReady, nullptr, nullptr, getSize};
const SVBufferCallbacks kSorted = {0, nullptr, getDTS, getPTS, getDuration, isReady, comparePTS, nullptr, getSize};
const SVBufferCallbacks kDurationOnly = {0, nullptr, nullptr, nullptr, getDuration, nullptr, nullptr, nullptr, nullptr};

SVBufferQueueRef makeQueue(const SVBufferCallbacks &callbacks = kUnsorted, int32_t capacity = 0) {
    SVBufferQueueRef queue = nullptr;
    EXPECT_EQ(SVBufferQueueCreate(nullptr, capacity, &callbacks, &queue), 0);
    return queue;
}

// Enqueues a new buffer and gives up the test's reference.
OSStatus enqueueNew(SVBufferQueueRef queue, int64_t pts, int64_t duration = 1, bool ready = true, size_t size = 10) {
    OpaqueTestBuffer *buffer = makeBuffer(pts, duration, ready, size);
    OSStatus status = SVBufferQueueEnqueue(queue, buffer);
    CFRelease(buffer);
    return status;
}

// Dequeues one buffer and answers its PTS (-1 for none).
int64_t dequeuePTS(SVBufferQueueRef queue) {
    SVBufferRef buffer = SVBufferQueueDequeueAndRetain(queue);
    if (buffer == nullptr) return -1;
    int64_t pts = fields(buffer)->pts;
    CFRelease(buffer);
    return pts;
}

class SVBufferQueueTest : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(gLiveBuffers.load(), 0) << "buffers leaked or released twice"; }
};

// ---- creation -----------------------------------------------------------------------

TEST_F(SVBufferQueueTest, CreationRefusesWhatItCannotUse) {
    SVBufferQueueRef queue = reinterpret_cast<SVBufferQueueRef>(0x1);
    EXPECT_EQ(SVBufferQueueCreate(nullptr, 0, &kUnsorted, nullptr), kSVBufferQueueError_RequiredParameterMissing);
    EXPECT_EQ(SVBufferQueueCreate(nullptr, 0, nullptr, &queue), kSVBufferQueueError_RequiredParameterMissing);
    EXPECT_EQ(queue, nullptr);
    SVBufferCallbacks versioned = kUnsorted;
    versioned.version = 1;
    EXPECT_EQ(SVBufferQueueCreate(nullptr, 0, &versioned, &queue), kSVBufferQueueError_InvalidBufferCallbacksStruct);
    SVBufferCallbacks noDuration = kUnsorted;
    noDuration.getDuration = nullptr;
    EXPECT_EQ(SVBufferQueueCreate(nullptr, 0, &noDuration, &queue), kSVBufferQueueError_InvalidBufferCallbacksStruct);
    EXPECT_EQ(queue, nullptr);
    // Only getDuration is required.
    ASSERT_EQ(SVBufferQueueCreate(nullptr, 0, &kDurationOnly, &queue), 0);
    EXPECT_EQ(CFGetTypeID(queue), SVBufferQueueGetTypeID());
    CFStringRef name = CFCopyTypeIDDescription(SVBufferQueueGetTypeID());
    EXPECT_TRUE(CFEqual(name, CFSTR("SVBufferQueue")));
    CFRelease(name);
    CFRelease(queue);
}

TEST_F(SVBufferQueueTest, AllocationFailuresLeaveNothingBehind) {
    for (long succeed : {0L, 1L}) {  // the trigger list, then the instance
        TestAllocator allocator;
        allocator.failAfter(succeed);
        SVBufferQueueRef queue = reinterpret_cast<SVBufferQueueRef>(0x1);
        EXPECT_EQ(SVBufferQueueCreate(allocator.get(), 0, &kUnsorted, &queue), kSVBufferQueueError_AllocationFailed);
        EXPECT_EQ(queue, nullptr);
        EXPECT_EQ(allocator.outstanding(), 0);
    }
    TestAllocator allocator;
    SVBufferQueueRef queue = nullptr;
    ASSERT_EQ(SVBufferQueueCreate(allocator.get(), 0, &kUnsorted, &queue), 0);
    allocator.failAlways();
    EXPECT_EQ(enqueueNew(queue, 1), kSVBufferQueueError_AllocationFailed) << "no node for the buffer";
    EXPECT_EQ(SVBufferQueueGetBufferCount(queue), 0);
    SVBufferQueueTriggerToken token = nullptr;
    EXPECT_EQ(SVBufferQueueInstallTriggerWithIntegerThreshold(queue, nullptr, nullptr, 11, 5, &token),
              kSVBufferQueueError_AllocationFailed);
    allocator.failAfter(-1);
    EXPECT_EQ(enqueueNew(queue, 1), 0);
    CFRelease(queue);
    EXPECT_EQ(allocator.outstanding(), 0);
}

// ---- order, capacity, end of data ------------------------------------------------------

struct OrderCase {
    const char *name;
    bool sorted;
    std::vector<int64_t> in;
    std::vector<int64_t> out;
};

class SVBufferQueueOrderTest : public ::testing::TestWithParam<OrderCase> {};

TEST_P(SVBufferQueueOrderTest, DequeuesInTheQueuesOrder) {
    const OrderCase &c = GetParam();
    SVBufferQueueRef queue = makeQueue(c.sorted ? kSorted : kUnsorted);
    for (int64_t pts : c.in) ASSERT_EQ(enqueueNew(queue, pts), 0);
    std::vector<int64_t> out;
    for (int64_t pts; (pts = dequeuePTS(queue)) != -1;) out.push_back(pts);
    EXPECT_EQ(out, c.out);
    CFRelease(queue);
    EXPECT_EQ(gLiveBuffers.load(), 0);
}

INSTANTIATE_TEST_SUITE_P(Orders, SVBufferQueueOrderTest,
                         ::testing::Values(OrderCase{"UnsortedKeepsArrival", false, {3, 1, 2}, {3, 1, 2}},
                                           OrderCase{"SortedAscending", true, {3, 1, 2, 0, 5, 4}, {0, 1, 2, 3, 4, 5}},
                                           OrderCase{"SortedNewHead", true, {5, 6, 1}, {1, 5, 6}},
                                           OrderCase{"SortedMiddle", true, {1, 9, 4, 7}, {1, 4, 7, 9}},
                                           OrderCase{"SortedAlreadyInOrder", true, {1, 2, 3}, {1, 2, 3}}),
                         [](const ::testing::TestParamInfo<OrderCase> &info) { return std::string(info.param.name); });

TEST_F(SVBufferQueueTest, SortedQueueKeepsArrivalOrderAmongEquals) {
    SVBufferQueueRef queue = makeQueue(kSorted);
    OpaqueTestBuffer *a = makeBuffer(5), *b = makeBuffer(5), *c = makeBuffer(5), *early = makeBuffer(1);
    for (OpaqueTestBuffer *buffer : {a, b, c, early}) ASSERT_EQ(SVBufferQueueEnqueue(queue, buffer), 0);
    for (OpaqueTestBuffer *expected : {early, a, b, c}) {
        SVBufferRef got = SVBufferQueueDequeueAndRetain(queue);
        EXPECT_EQ(got, expected);
        CFRelease(got);
    }
    for (OpaqueTestBuffer *buffer : {a, b, c, early}) CFRelease(buffer);
    CFRelease(queue);
}

TEST_F(SVBufferQueueTest, CapacityBoundsTheCount) {
    SVBufferQueueRef queue = makeQueue(kUnsorted, 2);
    EXPECT_EQ(enqueueNew(queue, 1), 0);
    EXPECT_EQ(enqueueNew(queue, 2), 0);
    EXPECT_EQ(enqueueNew(queue, 3), kSVBufferQueueError_QueueIsFull);
    EXPECT_EQ(SVBufferQueueGetBufferCount(queue), 2);
    EXPECT_EQ(dequeuePTS(queue), 1);
    EXPECT_EQ(enqueueNew(queue, 3), 0);
    CFRelease(queue);
    for (int32_t unbounded : {0, -1}) {
        queue = makeQueue(kUnsorted, unbounded);
        for (int i = 0; i < 100; ++i) ASSERT_EQ(enqueueNew(queue, i), 0);
        CFRelease(queue);
    }
}

TEST_F(SVBufferQueueTest, EndOfDataRefusesEnqueuesUntilReset) {
    SVBufferQueueRef queue = makeQueue();
    EXPECT_FALSE(SVBufferQueueContainsEndOfData(queue));
    ASSERT_EQ(enqueueNew(queue, 1), 0);
    ASSERT_EQ(SVBufferQueueMarkEndOfData(queue), 0);
    EXPECT_TRUE(SVBufferQueueContainsEndOfData(queue));
    EXPECT_EQ(enqueueNew(queue, 2), kSVBufferQueueError_EnqueueAfterEndOfData);
    EXPECT_FALSE(SVBufferQueueIsAtEndOfData(queue)) << "a buffer is still there";
    EXPECT_EQ(dequeuePTS(queue), 1);
    EXPECT_TRUE(SVBufferQueueIsAtEndOfData(queue));
    ASSERT_EQ(SVBufferQueueReset(queue), 0);
    EXPECT_FALSE(SVBufferQueueContainsEndOfData(queue));
    EXPECT_EQ(enqueueNew(queue, 2), 0);
    CFRelease(queue);
}

TEST_F(SVBufferQueueTest, NullArgumentsAnswer) {
    OpaqueTestBuffer *buffer = makeBuffer(1);
    EXPECT_EQ(SVBufferQueueEnqueue(nullptr, buffer), kSVBufferQueueError_RequiredParameterMissing);
    EXPECT_EQ(SVBufferQueueDequeueAndRetain(nullptr), nullptr);
    EXPECT_EQ(SVBufferQueueGetHead(nullptr), nullptr);
    EXPECT_EQ(SVBufferQueueGetBufferCount(nullptr), -12761) << "a status where the count goes";
    EXPECT_TRUE(SVBufferQueueIsEmpty(nullptr));
    EXPECT_TRUE(SVBufferQueueContainsEndOfData(nullptr));
    EXPECT_TRUE(SVBufferQueueIsAtEndOfData(nullptr));
    EXPECT_TRUE(sameTime(SVBufferQueueGetDuration(nullptr), SVTime{0, 0, 0, 0}));
    EXPECT_EQ(SVBufferQueueMarkEndOfData(nullptr), kSVBufferQueueError_RequiredParameterMissing);
    EXPECT_EQ(SVBufferQueueReset(nullptr), kSVBufferQueueError_RequiredParameterMissing);
    SVBufferQueueRef queue = makeQueue();
    EXPECT_EQ(SVBufferQueueEnqueue(queue, nullptr), kSVBufferQueueError_RequiredParameterMissing);
    EXPECT_EQ(SVBufferQueueResetWithCallback(queue, nullptr, nullptr), kSVBufferQueueError_RequiredParameterMissing);
    EXPECT_EQ(SVBufferQueueCallForEachBuffer(queue, nullptr, nullptr), kSVBufferQueueError_RequiredParameterMissing);
    EXPECT_EQ(SVBufferQueueRemoveTrigger(queue, nullptr), kSVBufferQueueError_RequiredParameterMissing);
    EXPECT_EQ(SVBufferQueueDequeueAndRetain(queue), nullptr) << "empty";
    CFRelease(queue);
    CFRelease(buffer);
}

// ---- ownership, reset, for-each, validation --------------------------------------------

TEST_F(SVBufferQueueTest, TheQueueOwnsWhatItHolds) {
    SVBufferQueueRef queue = makeQueue();
    OpaqueTestBuffer *buffer = makeBuffer(1);
    ASSERT_EQ(SVBufferQueueEnqueue(queue, buffer), 0);
    EXPECT_EQ(CFGetRetainCount(buffer), 2);
    EXPECT_EQ(SVBufferQueueGetHead(queue), buffer);
    EXPECT_EQ(CFGetRetainCount(buffer), 2) << "the head is borrowed";
    SVBufferRef out = SVBufferQueueDequeueAndRetain(queue);
    EXPECT_EQ(CFGetRetainCount(buffer), 2) << "dequeue hands the queue's reference over";
    CFRelease(out);
    CFRelease(buffer);
    for (int i = 0; i < 3; ++i) enqueueNew(queue, i);
    EXPECT_EQ(gLiveBuffers.load(), 3);
    SVBufferQueueTriggerToken token;
    SVBufferQueueInstallTriggerWithIntegerThreshold(
        queue, [](void *, SVBufferQueueTriggerToken) {}, nullptr, 11, 0, &token);
    LogCapture log;
    CFRelease(queue);
    EXPECT_EQ(gLiveBuffers.load(), 0) << "finalize releases what is left";
    EXPECT_EQ(log.count(), 0u) << "an ordinary release is not a release from a trigger callback";
}

TEST_F(SVBufferQueueTest, ResetWithCallbackVisitsHeadFirstBeforeReleasing) {
    SVBufferQueueRef queue = makeQueue(kSorted);
    for (int64_t pts : {3, 1, 2}) enqueueNew(queue, pts);
    struct Visit {
        std::vector<int64_t> order;
        std::vector<int> liveAtVisit;
    } visit;
    ASSERT_EQ(SVBufferQueueResetWithCallback(
                  queue,
                  [](SVBufferRef buffer, void *refcon) {
                      auto *v = static_cast<Visit *>(refcon);
                      v->order.push_back(fields(buffer)->pts);
                      v->liveAtVisit.push_back(gLiveBuffers.load());
                  },
                  &visit),
              0);
    EXPECT_EQ(visit.order, (std::vector<int64_t>{1, 2, 3}));
    EXPECT_EQ(visit.liveAtVisit, (std::vector<int>{3, 2, 1}));
    EXPECT_EQ(gLiveBuffers.load(), 0);
    EXPECT_TRUE(SVBufferQueueIsEmpty(queue));
    CFRelease(queue);
}

TEST_F(SVBufferQueueTest, CallForEachBufferStopsAtTheFirstError) {
    SVBufferQueueRef queue = makeQueue();
    for (int64_t pts : {1, 2, 3, 4}) enqueueNew(queue, pts);
    std::vector<int64_t> seen;
    auto visit = [](SVBufferRef buffer, void *refcon) -> OSStatus {
        auto *s = static_cast<std::vector<int64_t> *>(refcon);
        s->push_back(fields(buffer)->pts);
        return fields(buffer)->pts == 3 ? -42 : 0;
    };
    EXPECT_EQ(SVBufferQueueCallForEachBuffer(queue, visit, &seen), -42);
    EXPECT_EQ(seen, (std::vector<int64_t>{1, 2, 3}));
    // A callback may change the queue as it goes.
    EXPECT_EQ(SVBufferQueueCallForEachBuffer(
                  queue,
                  [](SVBufferRef, void *refcon) -> OSStatus {
                      SVBufferRef head = SVBufferQueueDequeueAndRetain(static_cast<SVBufferQueueRef>(refcon));
                      if (head) CFRelease(head);
                      return 0;
                  },
                  queue),
              0);
    EXPECT_TRUE(SVBufferQueueIsEmpty(queue));
    CFRelease(queue);
}

TEST_F(SVBufferQueueTest, ValidationDecidesBeforeAnythingElse) {
    SVBufferQueueRef queue = makeQueue();
    std::vector<std::pair<SVBufferQueueRef, SVBufferRef>> seen;
    auto refuseOdd = [](SVBufferQueueRef q, SVBufferRef b, void *refcon) -> OSStatus {
        static_cast<std::vector<std::pair<SVBufferQueueRef, SVBufferRef>> *>(refcon)->emplace_back(q, b);
        return fields(b)->pts % 2 ? -1234 : 0;
    };
    ASSERT_EQ(SVBufferQueueSetValidationCallback(queue, refuseOdd, &seen), 0);
    OpaqueTestBuffer *odd = makeBuffer(1);
    EXPECT_EQ(SVBufferQueueEnqueue(queue, odd), -1234);
    EXPECT_EQ(seen.back(), std::make_pair(queue, static_cast<SVBufferRef>(odd)));
    EXPECT_EQ(SVBufferQueueGetBufferCount(queue), 0);
    EXPECT_EQ(CFGetRetainCount(odd), 1);
    SVBufferQueueMarkEndOfData(queue);
    EXPECT_EQ(SVBufferQueueEnqueue(queue, odd), -1234) << "validation runs before the end-of-data check";
    EXPECT_EQ(enqueueNew(queue, 2), kSVBufferQueueError_EnqueueAfterEndOfData);
    SVBufferQueueReset(queue);
    EXPECT_EQ(enqueueNew(queue, 2), 0);
    ASSERT_EQ(SVBufferQueueSetValidationCallback(queue, nullptr, nullptr), 0);
    EXPECT_EQ(SVBufferQueueEnqueue(queue, odd), 0);
    EXPECT_EQ(seen.size(), 4u) << "every enqueue asked while it was installed, refused or not";
    CFRelease(odd);
    CFRelease(queue);
}

// ---- time-stamp queries --------------------------------------------------------------------

TEST_F(SVBufferQueueTest, TimeStampQueriesScanTheBuffersPresent) {
    SVBufferQueueRef queue = makeQueue();
    auto check = [&](SVTime got, int64_t expected, const char *what) {
        EXPECT_TRUE(sameTime(got, tenths(expected))) << what << ": " << got.value << "/" << got.timescale;
    };
    check(SVBufferQueueGetFirstPresentationTimeStamp(queue), -1, "first PTS, empty");
    check(SVBufferQueueGetMinPresentationTimeStamp(queue), -1, "min PTS, empty");
    check(SVBufferQueueGetEndPresentationTimeStamp(queue), -1, "end PTS, empty");
    EXPECT_TRUE(sameTime(SVBufferQueueGetDuration(queue), kSVTimeZero));

    // pts, duration, dts: the head has an invalid PTS, the longest buffer
    // is not the last.
    struct {
        int64_t pts, duration, dts;
    } buffers[] = {{-1, 2, 5}, {30, 40, 2}, {10, 1, 9}, {50, 3, -1}};
    for (const auto &b : buffers) {
        OpaqueTestBuffer *buffer = makeBuffer(b.pts, b.duration, true, 7, b.dts);
        SVBufferQueueEnqueue(queue, buffer);
        CFRelease(buffer);
    }
    check(SVBufferQueueGetFirstPresentationTimeStamp(queue), -1, "first PTS is the head's, invalid");
    check(SVBufferQueueGetFirstDecodeTimeStamp(queue), 5, "first DTS");
    check(SVBufferQueueGetMinPresentationTimeStamp(queue), 10, "min PTS");
    check(SVBufferQueueGetMaxPresentationTimeStamp(queue), 50, "max PTS");
    check(SVBufferQueueGetMinDecodeTimeStamp(queue), 2, "min DTS");
    check(SVBufferQueueGetEndPresentationTimeStamp(queue), 70, "end PTS = 30 + 40");
    check(SVBufferQueueGetDuration(queue), 46, "duration");
    EXPECT_EQ(SVBufferQueueGetTotalSize(queue), 28u);
    SVBufferQueueReset(queue);

    SVBufferQueueRef bare = nullptr;
    ASSERT_EQ(SVBufferQueueCreate(nullptr, 0, &kDurationOnly, &bare), 0);
    enqueueNew(bare, 3, 4);
    check(SVBufferQueueGetFirstDecodeTimeStamp(bare), -1, "no DTS callback");
    check(SVBufferQueueGetEndPresentationTimeStamp(bare), -1, "no PTS callback");
    EXPECT_EQ(SVBufferQueueGetTotalSize(bare), 0u) << "no size callback";
    CFRelease(bare);
    CFRelease(queue);
}

// ---- triggers --------------------------------------------------------------------------------

// Records which triggers fired, by refcon label, in order.
struct FireLog {
    std::vector<std::string> fired;
    static void callback(void *refcon, SVBufferQueueTriggerToken) {
        auto *entry = static_cast<std::pair<FireLog *, std::string> *>(refcon);
        entry->first->fired.push_back(entry->second);
    }
    std::string take() {
        std::string joined;
        for (const std::string &name : fired) joined += (joined.empty() ? "" : ",") + name;
        fired.clear();
        return joined;
    }
};

TEST_F(SVBufferQueueTest, TriggersFireInInstallationOrderWhenTheirConditionHolds) {
    SVBufferQueueRef queue = makeQueue(kSorted);
    FireLog log;
    std::vector<std::pair<FireLog *, std::string>> labels;
    labels.reserve(16);
    auto install = [&](const char *name, SVBufferQueueTriggerCondition condition, SVTime time, int32_t threshold) {
        labels.emplace_back(&log, name);
        SVBufferQueueTriggerToken token = nullptr;
        OSStatus status = threshold != 0 ? SVBufferQueueInstallTriggerWithIntegerThreshold(
                                               queue, FireLog::callback, &labels.back(), condition, threshold, &token)
                                         : SVBufferQueueInstallTrigger(queue, FireLog::callback, &labels.back(),
                                                                       condition, time, &token);
        EXPECT_EQ(status, 0) << name;
        EXPECT_NE(token, nullptr);
        return token;
    };
    install("max", kSVBufferQueueTrigger_WhenMaxPresentationTimeStampChanges, kSVTimeZero, 0);
    install("min", kSVBufferQueueTrigger_WhenMinPresentationTimeStampChanges, kSVTimeZero, 0);
    install("ready", kSVBufferQueueTrigger_WhenDataBecomesReady, kSVTimeZero, 0);
    install("eod", kSVBufferQueueTrigger_WhenEndOfDataReached, kSVTimeZero, 0);
    install("reset", kSVBufferQueueTrigger_WhenReset, kSVTimeZero, 0);
    install(">1", kSVBufferQueueTrigger_WhenBufferCountBecomesGreaterThan, kSVTimeZero, 1);
    install("dur>=3", kSVBufferQueueTrigger_WhenDurationBecomesGreaterThanOrEqualTo, tenths(3), 0);
    install("never", 12, kSVTimeZero, 0);
    EXPECT_EQ(log.take(), "") << "nothing holds on an empty queue";
    install("<2", kSVBufferQueueTrigger_WhenBufferCountBecomesLessThan, kSVTimeZero, 2);
    install("dur<1", kSVBufferQueueTrigger_WhenDurationBecomesLessThan, tenths(1), 0);
    EXPECT_EQ(log.take(), "<2,dur<1") << "a trigger that holds at installation fires at once";

    // Enqueue tests before the cached stamps learn the new buffer.
    ASSERT_EQ(enqueueNew(queue, 10, 2, false), 0);
    EXPECT_EQ(log.take(), "max,min,<2") << "first buffer: both stamps change from unknown";
    ASSERT_EQ(enqueueNew(queue, 20, 2, true), 0);
    EXPECT_EQ(log.take(), "max,>1,dur>=3");
    ASSERT_EQ(enqueueNew(queue, 5, 1, true), 0);
    EXPECT_EQ(log.take(), "min,ready,>1,dur>=3") << "the new head (5) is ready";
    ASSERT_EQ(enqueueNew(queue, 15, 1, false), 0);
    EXPECT_EQ(log.take(), "ready,>1,dur>=3") << "no stamp changed";

    // Dequeue tests against the stamps recorded before it.
    EXPECT_EQ(dequeuePTS(queue), 5);
    EXPECT_EQ(log.take(), "min,>1,dur>=3") << "head 10 is not ready";
    SVBufferQueueMarkEndOfData(queue);
    EXPECT_EQ(log.take(), "") << "marking fires nothing";
    EXPECT_EQ(dequeuePTS(queue), 10);
    EXPECT_EQ(log.take(), "min,>1,dur>=3") << "head 15 is not ready; 0.1 + 0.2 s is exactly the threshold";
    EXPECT_EQ(dequeuePTS(queue), 15);
    EXPECT_EQ(log.take(), "min,ready,<2");
    EXPECT_EQ(dequeuePTS(queue), 20);
    EXPECT_EQ(log.take(), "max,min,eod,<2,dur<1") << "last buffer after end of data";
    EXPECT_EQ(dequeuePTS(queue), -1);
    EXPECT_EQ(log.take(), "") << "an empty dequeue changes nothing and fires nothing";

    EXPECT_EQ(enqueueNew(queue, 1), kSVBufferQueueError_EnqueueAfterEndOfData);
    EXPECT_EQ(log.take(), "");
    ASSERT_EQ(SVBufferQueueReset(queue), 0);
    EXPECT_EQ(log.take(), "reset,<2,dur<1") << "end of data is cleared before the test";
    ASSERT_EQ(enqueueNew(queue, 1), 0);
    EXPECT_EQ(log.take(), "max,min,ready,<2");
    ASSERT_EQ(SVBufferQueueReset(queue), 0);
    EXPECT_EQ(log.take(), "max,min,reset,<2,dur<1") << "the released buffer's stamps were still recorded";
    ASSERT_EQ(SVBufferQueueReset(queue), 0);
    EXPECT_EQ(log.take(), "reset,<2,dur<1") << "once per reset; the stamps were zeroed by the last one";
    CFRelease(queue);
}

TEST_F(SVBufferQueueTest, StampTriggersInstalledLaterSeeTheBuffersPresent) {
    // Without a stamp trigger the queue keeps no stamps; one installed later
    // must behave as if it had been kept all along.
    SVBufferQueueRef queue = makeQueue(kSorted);
    for (int64_t pts : {4, 1, 9, 6}) enqueueNew(queue, pts);
    EXPECT_EQ(dequeuePTS(queue), 1);
    FireLog log;
    std::pair<FireLog *, std::string> maxLabel{&log, "max"}, minLabel{&log, "min"};
    SVBufferQueueTriggerToken max, min;
    ASSERT_EQ(SVBufferQueueInstallTrigger(queue, FireLog::callback, &maxLabel, 5, kSVTimeZero, &max), 0);
    ASSERT_EQ(SVBufferQueueInstallTrigger(queue, FireLog::callback, &minLabel, 6, kSVTimeZero, &min), 0);
    EXPECT_EQ(log.take(), "") << "recorded: 4 to 9, as present";
    enqueueNew(queue, 7);
    EXPECT_EQ(log.take(), "");
    enqueueNew(queue, 12);
    EXPECT_EQ(log.take(), "max");
    EXPECT_EQ(dequeuePTS(queue), 4);
    EXPECT_EQ(log.take(), "min");
    SVBufferQueueRemoveTrigger(queue, max);
    SVBufferQueueRemoveTrigger(queue, min);
    EXPECT_EQ(dequeuePTS(queue), 6);
    EXPECT_EQ(dequeuePTS(queue), 7);
    ASSERT_EQ(SVBufferQueueInstallTrigger(queue, FireLog::callback, &minLabel, 6, kSVTimeZero, &min), 0);
    EXPECT_EQ(log.take(), "") << "recorded afresh: 9 to 12";
    EXPECT_EQ(dequeuePTS(queue), 9);
    EXPECT_EQ(log.take(), "min");
    CFRelease(queue);
}

TEST_F(SVBufferQueueTest, InstallRefusesTriggersThatCannotWork) {
    SVBufferQueueRef queue = makeQueue(kSorted);
    SVBufferQueueRef bare = makeQueue(kDurationOnly);
    SVBufferQueueTriggerToken token = nullptr;
    auto noop = [](void *, SVBufferQueueTriggerToken) {};
    struct {
        SVBufferQueueRef queue;
        SVBufferQueueTriggerCallback callback;
        SVBufferQueueTriggerToken *tokenOut;
        SVBufferQueueTriggerCondition condition;
        SVTime time;
        int32_t threshold;  // -1: use the time form
        OSStatus status;
    } cases[] = {
        {queue, noop, &token, 0, kSVTimeZero, -1, kSVBufferQueueError_RequiredParameterMissing},
        {queue, nullptr, nullptr, 11, kSVTimeZero, 3, kSVBufferQueueError_RequiredParameterMissing},
        {queue, noop, &token, 10, kSVTimeZero, 0, kSVBufferQueueError_InvalidTriggerParameters},
        {queue, noop, &token, 1, kSVTimeInvalid, -1, kSVBufferQueueError_InvalidTriggerParameters},
        {queue, noop, &token, 3, kSVTimePositiveInfinity, -1, kSVBufferQueueError_InvalidTriggerParameters},
        {queue, noop, &token, 4, kSVTimeIndefinite, -1, kSVBufferQueueError_InvalidTriggerParameters},
        {queue, noop, &token, 2, kSVTimeZero, 0, kSVBufferQueueError_InvalidTriggerParameters},  // integer form
        {bare, noop, &token, 5, kSVTimeZero, -1, kSVBufferQueueError_InvalidTriggerParameters},
        {bare, noop, &token, 6, kSVTimeZero, -1, kSVBufferQueueError_InvalidTriggerParameters},
        {bare, noop, &token, 7, kSVTimeZero, -1, kSVBufferQueueError_InvalidTriggerParameters},
        // Accepted: callback only, token only, odd conditions, count 11 with 0.
        {queue, noop, nullptr, 11, kSVTimeZero, 0, 0},
        {queue, nullptr, &token, 8, kSVTimeZero, -1, 0},
        {queue, noop, &token, 99, kSVTimeZero, -1, 0},
        {queue, noop, &token, -5, kSVTimeZero, -1, 0},
        {bare, noop, &token, 1, tenths(5), -1, 0},
    };
    int index = 0;
    for (const auto &c : cases) {
        OSStatus status =
            c.threshold < 0 ? SVBufferQueueInstallTrigger(c.queue, c.callback, nullptr, c.condition, c.time, c.tokenOut)
                            : SVBufferQueueInstallTriggerWithIntegerThreshold(c.queue, c.callback, nullptr, c.condition,
                                                                              c.threshold, c.tokenOut);
        EXPECT_EQ(status, c.status) << "case " << index++;
    }
    CFRelease(bare);
    CFRelease(queue);
}

TEST_F(SVBufferQueueTest, RemoveAndTestTriggers) {
    SVBufferQueueRef queue = makeQueue();
    SVBufferQueueRef other = makeQueue();
    SVBufferQueueTriggerToken polled = nullptr, foreign = nullptr;
    ASSERT_EQ(SVBufferQueueInstallTriggerWithIntegerThreshold(queue, nullptr, nullptr, 11, 0, &polled), 0);
    ASSERT_EQ(SVBufferQueueInstallTriggerWithIntegerThreshold(other, nullptr, nullptr, 11, 0, &foreign), 0);
    EXPECT_FALSE(SVBufferQueueTestTrigger(queue, polled));
    enqueueNew(queue, 1);
    EXPECT_TRUE(SVBufferQueueTestTrigger(queue, polled));
    EXPECT_EQ(SVBufferQueueRemoveTrigger(queue, foreign), kSVBufferQueueError_InvalidTriggerToken);
    ASSERT_EQ(SVBufferQueueRemoveTrigger(queue, polled), 0);
    EXPECT_EQ(SVBufferQueueRemoveTrigger(other, foreign), 0);
    {
        LogCapture log;
        EXPECT_FALSE(SVBufferQueueTestTrigger(queue, polled));
        EXPECT_FALSE(SVBufferQueueTestTrigger(nullptr, polled));
        auto lines = log.lines();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0].message, "The trigger is not installed on the queue");
        EXPECT_EQ(lines[1].message, "The queue is null");
        for (const auto &line : lines) {
            EXPECT_EQ(line.level, 3);
            EXPECT_EQ(line.function, "SVBufferQueueTestTrigger");
            EXPECT_EQ(line.path, "Sorvel/Sources/SVBufferQueue");
        }
    }
    CFRelease(other);
    CFRelease(queue);
}

// A trigger that holds when installed is called back before the install
// returns; that callback may remove it, and the install then hands back no
// token rather than a freed one.
struct InstallTimeCallback {
    SVBufferQueueRef queue;
    bool removeSelf;
    bool installAnother;
    int calls = 0;
    OSStatus removeStatus = 1;
    SVBufferQueueTriggerToken seen = nullptr, another = nullptr;
    static void callback(void *refcon, SVBufferQueueTriggerToken token) {
        auto *self = static_cast<InstallTimeCallback *>(refcon);
        self->calls++;
        self->seen = token;
        if (self->removeSelf) self->removeStatus = SVBufferQueueRemoveTrigger(self->queue, token);
        if (self->installAnother)
            EXPECT_EQ(
                SVBufferQueueInstallTriggerWithIntegerThreshold(self->queue, nullptr, nullptr, 11, 0, &self->another),
                0);
    }
};

TEST_F(SVBufferQueueTest, InstallHandsBackOnlyATokenThatStillExists) {
    struct Case {
        const char *name;
        bool removeSelf, installAnother;
    };
    const Case cases[] = {{"kept", false, false}, {"removed", true, false}, {"removed, another installed", true, true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        SVBufferQueueRef queue = makeQueue();
        InstallTimeCallback state{queue, c.removeSelf, c.installAnother};
        SVBufferQueueTriggerToken token = reinterpret_cast<SVBufferQueueTriggerToken>(&state);
        // Count below 1 holds on the empty queue at once.
        ASSERT_EQ(SVBufferQueueInstallTriggerWithIntegerThreshold(queue, InstallTimeCallback::callback, &state,
                                                                  kSVBufferQueueTrigger_WhenBufferCountBecomesLessThan,
                                                                  1, &token),
                  0);
        EXPECT_EQ(state.calls, 1);
        ASSERT_NE(state.seen, nullptr);
        if (c.removeSelf) {
            EXPECT_EQ(state.removeStatus, 0);
            EXPECT_EQ(token, nullptr);
            // The trigger is really gone: a change that would make it hold
            // again calls nobody.
            enqueueNew(queue, 1);
            EXPECT_EQ(dequeuePTS(queue), 1);
            EXPECT_EQ(state.calls, 1);
        } else {
            EXPECT_EQ(token, state.seen);
            EXPECT_TRUE(SVBufferQueueTestTrigger(queue, token));
            EXPECT_EQ(SVBufferQueueRemoveTrigger(queue, token), 0);
        }
        if (c.installAnother) {
            ASSERT_NE(state.another, nullptr);
            EXPECT_FALSE(SVBufferQueueTestTrigger(queue, state.another));
            EXPECT_EQ(SVBufferQueueRemoveTrigger(queue, state.another), 0);
        }
        CFRelease(queue);
    }
}

// ---- from inside a trigger callback ----------------------------------------------------------

struct Reentry {
    std::function<void()> action;
    static void callback(void *refcon, SVBufferQueueTriggerToken) { static_cast<Reentry *>(refcon)->action(); }
};

TEST_F(SVBufferQueueTest, ChangesFromATriggerCallbackAreRefused) {
    SVBufferQueueRef queue = makeQueue();
    SVBufferQueueTriggerToken polled = nullptr;
    ASSERT_EQ(SVBufferQueueInstallTriggerWithIntegerThreshold(queue, nullptr, nullptr, 11, 0, &polled), 0);
    std::vector<OSStatus> statuses;
    SVBufferRef dequeued = reinterpret_cast<SVBufferRef>(0x1);
    SVItemCount countSeen = -1;
    bool polledHolds = false;
    Reentry reentry{[&] {
        OpaqueTestBuffer *extra = makeBuffer(99);
        statuses.push_back(SVBufferQueueEnqueue(queue, extra));
        CFRelease(extra);
        dequeued = SVBufferQueueDequeueAndRetain(queue);
        statuses.push_back(SVBufferQueueReset(queue));
        statuses.push_back(SVBufferQueueResetWithCallback(
            queue, [](SVBufferRef, void *) {}, nullptr));
        statuses.push_back(SVBufferQueueMarkEndOfData(queue));
        statuses.push_back(SVBufferQueueSetValidationCallback(queue, nullptr, nullptr));
        SVBufferQueueTriggerToken token;
        statuses.push_back(SVBufferQueueInstallTriggerWithIntegerThreshold(queue, nullptr, nullptr, 11, 0, &token));
        statuses.push_back(SVBufferQueueRemoveTrigger(queue, polled));
        // Reading is fine.
        countSeen = SVBufferQueueGetBufferCount(queue);
        polledHolds = SVBufferQueueTestTrigger(queue, polled);
    }};
    SVBufferQueueTriggerToken token = nullptr;
    ASSERT_EQ(SVBufferQueueInstallTriggerWithIntegerThreshold(queue, Reentry::callback, &reentry, 11, 0, &token), 0);
    LogCapture log;
    ASSERT_EQ(enqueueNew(queue, 1), 0);
    EXPECT_EQ(statuses, std::vector<OSStatus>(7, kSVBufferQueueError_CannotModifyQueueFromTriggerCallback));
    EXPECT_EQ(dequeued, nullptr);
    EXPECT_EQ(countSeen, 1);
    EXPECT_TRUE(polledHolds);
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 3);
    EXPECT_EQ(lines[0].function, "_SVBufferQueueDequeueAndRetainLocked");
    EXPECT_EQ(lines[0].path, "Sorvel/Sources/SVBufferQueue");
    EXPECT_EQ(lines[0].message, "Can Not Modify Queue From TriggerCallback");
    // The guard ends with the callback: the queue is usable again.
    EXPECT_FALSE(SVBufferQueueContainsEndOfData(queue));
    EXPECT_EQ(SVBufferQueueRemoveTrigger(queue, token), 0);
    EXPECT_EQ(dequeuePTS(queue), 1);
    CFRelease(queue);
}

TEST_F(SVBufferQueueTest, OtherThreadsWaitForACallbackInsteadOfBeingRefused) {
    SVBufferQueueRef queue = makeQueue();
    std::atomic<bool> inCallback{false};
    std::atomic<bool> release{false};
    struct Context {
        std::atomic<bool> *inCallback, *release;
    } context{&inCallback, &release};
    SVBufferQueueTriggerToken token = nullptr;
    ASSERT_EQ(SVBufferQueueInstallTriggerWithIntegerThreshold(
                  queue,
                  [](void *refcon, SVBufferQueueTriggerToken) {
                      auto *c = static_cast<Context *>(refcon);
                      if (c->inCallback->exchange(true)) return;  // only the first firing waits
                      while (!c->release->load()) std::this_thread::yield();
                  },
                  &context, 11, 0, &token),
              0);
    std::thread firing([&] { enqueueNew(queue, 1); });
    while (!inCallback.load()) std::this_thread::yield();
    std::atomic<OSStatus> status{1};
    std::thread other([&] { status = enqueueNew(queue, 2); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(status.load(), 1) << "the other thread waits for the lock";
    release = true;
    firing.join();
    other.join();
    EXPECT_EQ(status.load(), 0);
    EXPECT_EQ(SVBufferQueueGetBufferCount(queue), 2);
    CFRelease(queue);
}

TEST_F(SVBufferQueueTest, AQueueReleasedInsideATriggerCallbackLivesUntilTheCallReturns) {
    // The first trigger drops the only reference; each call that fired it
    // must finish on a live queue (the second trigger still runs), log once
    // and leave nothing behind (the sanitizer build checks the rest).
    enum Path { kEnqueue, kDequeue, kReset, kInstall };
    for (Path path : {kEnqueue, kDequeue, kReset, kInstall}) {
        SCOPED_TRACE(path);
        SVBufferQueueRef queue = makeQueue();
        if (path == kDequeue || path == kReset) ASSERT_EQ(enqueueNew(queue, 1), 0);
        const SVBufferQueueTriggerCondition conditions[] = {11, 10, 9, 10};  // hold after the path's change
        int secondRan = 0;
        auto releaseQueue = [](void *refcon, SVBufferQueueTriggerToken) {
            CFRelease(static_cast<SVBufferQueueRef>(refcon));
        };
        auto second = [](void *refcon, SVBufferQueueTriggerToken) { ++*static_cast<int *>(refcon); };
        SVBufferQueueTriggerToken token;
        LogCapture log;
        EXPECT_EQ(SVBufferQueueInstallTriggerWithIntegerThreshold(queue, releaseQueue, queue, conditions[path],
                                                                  path == kEnqueue ? 0 : 1, &token),
                  0);
        if (path != kInstall) {
            ASSERT_EQ(SVBufferQueueInstallTriggerWithIntegerThreshold(queue, second, &secondRan, 11, -1, &token), 0);
            secondRan = 0;  // it held at installation already
            if (path == kEnqueue) EXPECT_EQ(enqueueNew(queue, 1), 0);
            if (path == kDequeue) EXPECT_EQ(dequeuePTS(queue), 1);
            if (path == kReset) EXPECT_EQ(SVBufferQueueReset(queue), 0);
            EXPECT_EQ(secondRan, 1);
        }
        auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].function, "_SVBufferQueueFinalize");
        EXPECT_EQ(lines[0].path, "Sorvel/Sources/SVBufferQueue");
        EXPECT_EQ(lines[0].message, "Invalid: Attempting to finalize a queue From TriggerCallback");
        EXPECT_EQ(gLiveBuffers.load(), 0);
    }
}

TEST_F(SVBufferQueueTest, DequeueIfDataReadyLeavesAnUnreadyHead) {
    SVBufferQueueRef queue = makeQueue();
    enqueueNew(queue, 1, 1, false);
    enqueueNew(queue, 2, 1, true);
    EXPECT_EQ(SVBufferQueueDequeueIfDataReadyAndRetain(queue), nullptr);
    EXPECT_EQ(SVBufferQueueGetBufferCount(queue), 2);
    const_cast<OpaqueTestBuffer *>(fields(SVBufferQueueGetHead(queue)))->ready = true;
    SVBufferRef head = SVBufferQueueDequeueIfDataReadyAndRetain(queue);
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(fields(head)->pts, 1);
    CFRelease(head);
    CFRelease(queue);
    // Without isDataReady there is nothing to wait for.
    queue = makeQueue(kDurationOnly);
    enqueueNew(queue, 1, 1, false);
    head = SVBufferQueueDequeueIfDataReadyAndRetain(queue);
    EXPECT_NE(head, nullptr);
    if (head) CFRelease(head);
    CFRelease(queue);
}

// ---- sample buffers --------------------------------------------------------------------------

SVSampleBufferRef makeSampleBuffer(int64_t pts, int64_t duration = 1, size_t size = 100, bool ready = true) {
    SVSampleTimingInfo timing = {SVTimeMake(duration, 30), SVTimeMake(pts, 30), kSVTimeInvalid};
    SVSampleBufferRef sbuf = nullptr;
    EXPECT_EQ(SVSampleBufferCreate(nullptr, nullptr, ready, nullptr, nullptr, nullptr, 1, 1, &timing, 1, &size, &sbuf),
              0);
    return sbuf;
}

// The same with the library's own sample-buffer callbacks, where enqueue
// and dequeue take their reference only once a trigger is about to run;
// a copied record with one callback of the client's takes it at once.
TEST_F(SVBufferQueueTest, ASampleBufferQueueReleasedInsideATriggerCallbackLivesUntilTheCallReturns) {
    SVBufferCallbacks mixed = *SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS();
    mixed.getSize = [](SVBufferRef, void *) -> size_t { return 1; };
    for (const SVBufferCallbacks *record :
         {SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS(),
          SVBufferQueueGetCallbacksForUnsortedSampleBuffers(), static_cast<const SVBufferCallbacks *>(&mixed)}) {
        for (bool onDequeue : {false, true}) {
            SCOPED_TRACE(onDequeue ? "dequeue" : "enqueue");
            SVBufferQueueRef queue = nullptr;
            ASSERT_EQ(SVBufferQueueCreate(nullptr, 0, record, &queue), 0);
            SVSampleBufferRef sample = makeSampleBuffer(3);
            if (onDequeue) ASSERT_EQ(SVBufferQueueEnqueue(queue, sample), 0);
            auto releaseQueue = [](void *refcon, SVBufferQueueTriggerToken) {
                CFRelease(static_cast<SVBufferQueueRef>(refcon));
            };
            int secondRan = 0;
            auto second = [](void *refcon, SVBufferQueueTriggerToken) { ++*static_cast<int *>(refcon); };
            SVBufferQueueTriggerToken token;
            LogCapture log;
            // Count above 0 after the enqueue; below 1 after the dequeue.
            const SVBufferQueueTriggerCondition condition = onDequeue ? 10 : 11;
            ASSERT_EQ(SVBufferQueueInstallTriggerWithIntegerThreshold(queue, releaseQueue, queue, condition,
                                                                      onDequeue ? 1 : 0, &token),
                      0);
            ASSERT_EQ(SVBufferQueueInstallTriggerWithIntegerThreshold(queue, second, &secondRan, 11, -1, &token), 0);
            secondRan = 0;
            if (onDequeue) {
                SVBufferRef out = SVBufferQueueDequeueAndRetain(queue);
                EXPECT_EQ(out, static_cast<SVBufferRef>(sample));
                if (out) CFRelease(out);
            } else {
                EXPECT_EQ(SVBufferQueueEnqueue(queue, sample), 0);
            }
            EXPECT_EQ(secondRan, 1);
            auto lines = log.lines();
            ASSERT_EQ(lines.size(), 1u);
            EXPECT_EQ(lines[0].message, "Invalid: Attempting to finalize a queue From TriggerCallback");
            CFRelease(sample);
        }
    }
}

TEST_F(SVBufferQueueTest, SampleBufferRecordsReadTheSampleBuffersGetters) {
    const SVBufferCallbacks *unsorted = SVBufferQueueGetCallbacksForUnsortedSampleBuffers();
    const SVBufferCallbacks *sorted = SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS();
    for (const SVBufferCallbacks *record : {unsorted, sorted}) {
        EXPECT_EQ(record->version, 0u);
        EXPECT_EQ(record->refcon, nullptr);
        EXPECT_EQ(record->dataBecameReadyNotification, nullptr);
    }
    EXPECT_EQ(unsorted->compare, nullptr);
    ASSERT_NE(sorted->compare, nullptr);

    SVSampleBufferRef early = makeSampleBuffer(3, 2, 100, false), late = makeSampleBuffer(9);
    EXPECT_TRUE(sameTime(sorted->getPresentationTimeStamp(early, nullptr), SVTimeMake(3, 30)));
    EXPECT_TRUE(sameTime(sorted->getDuration(early, nullptr), SVTimeMake(2, 30)));
    EXPECT_TRUE(SVTIME_IS_INVALID(sorted->getDecodeTimeStamp(early, nullptr)));
    EXPECT_FALSE(sorted->isDataReady(early, nullptr));
    EXPECT_EQ(sorted->getSize(early, nullptr), 100u);
    EXPECT_EQ(sorted->compare(early, late, nullptr), -1);
    // Output time, not presentation time: an override moves "late" first.
    SVSampleBufferSetOutputPresentationTimeStamp(late, SVTimeMake(1, 30));
    EXPECT_EQ(sorted->compare(early, late, nullptr), 1);
    SVBufferQueueRef queue = nullptr;
    ASSERT_EQ(SVBufferQueueCreate(nullptr, 0, sorted, &queue), 0);
    SVBufferQueueEnqueue(queue, early);
    SVBufferQueueEnqueue(queue, late);
    EXPECT_EQ(SVBufferQueueGetHead(queue), late);
    EXPECT_EQ(SVBufferQueueGetTotalSize(queue), 200u);
    CFRelease(queue);
    CFRelease(early);
    CFRelease(late);
}

// The queue's duration is the SVTimeAdd fold of its buffers' durations,
// head first, from kSVTimeZero; the sample-buffer records keep a running
// sum for it, which must give the same bits as the fold after every change,
// whatever the durations: plain, mixed timescales, zero, negative, rounded,
// other epochs, sums past INT64_MAX, and buffers invalidated while queued.
SVSampleBufferRef makeTimedSampleBuffer(SVTime duration, int64_t pts) {
    SVSampleTimingInfo timing = {duration, SVTimeMake(pts, 30), kSVTimeInvalid};
    size_t size = 10;
    SVSampleBufferRef sbuf = nullptr;
    EXPECT_EQ(SVSampleBufferCreate(nullptr, nullptr, true, nullptr, nullptr, nullptr, 1, 1, &timing, 1, &size, &sbuf),
              0);
    return sbuf;
}

TEST_F(SVBufferQueueTest, SampleBufferQueueDurationIsTheFoldOfItsBuffers) {
    SVTime rounded = SVTimeMake(2, 30);
    rounded.flags |= kSVTimeFlags_HasBeenRounded;
    const SVTime big = SVTimeMake(INT64_MAX / 2 + 1, 30);
    struct Case {
        const char *name;
        std::vector<SVTime> durations;
        int invalidate;  // index of a buffer invalidated while queued, or -1
    };
    const Case cases[] = {
        {"plain, one timescale", {SVTimeMake(1, 30), SVTimeMake(2, 30), SVTimeMake(3, 30)}, -1},
        {"one buffer", {SVTimeMake(7, 600)}, -1},
        {"two timescales", {SVTimeMake(1, 30), SVTimeMake(1, 25), SVTimeMake(1, 30)}, -1},
        {"a zero duration", {SVTimeMake(1, 30), SVTimeMake(0, 30), SVTimeMake(2, 30)}, -1},
        {"a negative duration", {SVTimeMake(3, 30), SVTimeMake(-3, 30), SVTimeMake(2, 30)}, -1},
        {"a rounded duration", {SVTimeMake(1, 30), rounded}, -1},
        {"an epoch", {SVTimeMake(1, 30), SVTimeMakeWithEpoch(1, 30, 4)}, -1},
        {"invalid and infinite", {SVTimeMake(1, 30), kSVTimeInvalid, kSVTimePositiveInfinity}, -1},
        {"sum past INT64_MAX", {big, big, SVTimeMake(1, 30)}, -1},
        {"invalidated while queued", {SVTimeMake(1, 30), SVTimeMake(2, 30), SVTimeMake(3, 30)}, 1},
    };
    for (const SVBufferCallbacks *record : sampleBufferRecords()) {
        for (const Case &c : cases) {
            SCOPED_TRACE(c.name);
            OwningQueue owner(record);
            SVBufferQueueRef queue = owner.queue;
            ASSERT_NE(queue, nullptr);
            const std::vector<SVSampleBufferRef> &buffers = owner.buffers;
            // Presentation times out of order, so the sorted queue inserts
            // in the middle.
            for (size_t i = 0; i < c.durations.size(); ++i) {
                ASSERT_EQ(owner.enqueue(makeTimedSampleBuffer(c.durations[i], static_cast<int64_t>((i * 7) % 5))), 0);
                EXPECT_TRUE(sameTime(SVBufferQueueGetDuration(queue), foldedDuration(queue))) << "after enqueue " << i;
            }
            if (c.invalidate >= 0) {
                const SVTime before = SVBufferQueueGetDuration(queue);
                ASSERT_EQ(SVSampleBufferInvalidate(buffers[static_cast<size_t>(c.invalidate)]), 0);
                EXPECT_FALSE(sameTime(SVBufferQueueGetDuration(queue), before));
                EXPECT_TRUE(SVTIME_IS_INVALID(SVBufferQueueGetDuration(queue)));
            }
            for (size_t i = 0; i < c.durations.size(); ++i) {
                CFRelease(SVBufferQueueDequeueAndRetain(queue));
                EXPECT_TRUE(sameTime(SVBufferQueueGetDuration(queue), foldedDuration(queue))) << "after dequeue " << i;
            }
            EXPECT_TRUE(sameTime(SVBufferQueueGetDuration(queue), kSVTimeZero));
            // Reset takes out what is left the same way.
            ASSERT_EQ(SVBufferQueueEnqueue(queue, buffers[0]), 0);
            ASSERT_EQ(SVBufferQueueReset(queue), 0);
            EXPECT_TRUE(sameTime(SVBufferQueueGetDuration(queue), kSVTimeZero));
        }
    }
}

// ---- producer and consumer ------------------------------------------------------------------

#if defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define SV_QUEUE_STRESS_SANITIZED 1
#endif
#endif
#if defined(SV_QUEUE_STRESS_SANITIZED)
constexpr int64_t kStressBuffers = 20000;
#else
constexpr int64_t kStressBuffers = 1000000;
#endif

// Wakes a waiting thread from a trigger callback.  The callback runs with
// the queue's lock held, so waiters never touch the queue while holding the
// wake-up mutex: they wait for the generation to move, then look.
struct Wakeup {
    std::mutex mutex;
    std::condition_variable condition;
    std::atomic<uint64_t> generation{0};
    static void fire(void *refcon, SVBufferQueueTriggerToken) {
        auto *w = static_cast<Wakeup *>(refcon);
        std::lock_guard<std::mutex> guard(w->mutex);
        w->generation++;
        w->condition.notify_all();
    }
    void waitPast(uint64_t seen) {
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait_for(lock, std::chrono::milliseconds(50), [&] { return generation.load() != seen; });
    }
};

TEST_F(SVBufferQueueTest, ProducerAndConsumerLoseNothingAndKeepOutputOrder) {
    // The producer enqueues sample buffers in decode order, where
    // presentation times run ahead and back in groups of four (0 3 1 2 4 7 5
    // 6 ...), into a sorted queue of capacity 32.  The consumer dequeues only
    // while more than four are queued (or at the end), so every buffer it
    // takes is the least still to come: output must come out 0, 1, 2, ...
    constexpr int32_t kCapacity = 32;
    constexpr int32_t kReorderDepth = 4;
    SVBufferQueueRef queue = nullptr;
    ASSERT_EQ(
        SVBufferQueueCreate(nullptr, kCapacity, SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS(), &queue),
        0);
    Wakeup consumerWake, producerWake;
    SVBufferQueueTriggerToken tokens[4];
    ASSERT_EQ(SVBufferQueueInstallTriggerWithIntegerThreshold(queue, Wakeup::fire, &consumerWake,
                                                              kSVBufferQueueTrigger_WhenBufferCountBecomesGreaterThan,
                                                              kReorderDepth, &tokens[0]),
              0);
    ASSERT_EQ(SVBufferQueueInstallTrigger(queue, Wakeup::fire, &consumerWake,
                                          kSVBufferQueueTrigger_WhenEndOfDataReached, kSVTimeZero, &tokens[1]),
              0);
    ASSERT_EQ(SVBufferQueueInstallTriggerWithIntegerThreshold(queue, Wakeup::fire, &producerWake,
                                                              kSVBufferQueueTrigger_WhenBufferCountBecomesLessThan,
                                                              kCapacity / 2, &tokens[2]),
              0);
    std::atomic<int> maxChanges{0};
    ASSERT_EQ(SVBufferQueueInstallTrigger(
                  queue, [](void *refcon, SVBufferQueueTriggerToken) { ++*static_cast<std::atomic<int> *>(refcon); },
                  &maxChanges, kSVBufferQueueTrigger_WhenMaxPresentationTimeStampChanges, kSVTimeZero, &tokens[3]),
              0);

    std::atomic<int64_t> produced{0};
    std::atomic<bool> producerFailed{false};
    std::thread producer([&] {
        static const int kPattern[4] = {0, 3, 1, 2};
        for (int64_t i = 0; i < kStressBuffers; ++i) {
            int64_t pts = (i / 4) * 4 + kPattern[i % 4];
            SVSampleBufferRef sbuf = makeSampleBuffer(pts);
            for (;;) {
                uint64_t seen = producerWake.generation.load();
                OSStatus status = SVBufferQueueEnqueue(queue, sbuf);
                if (status == 0) break;
                if (status != kSVBufferQueueError_QueueIsFull) {
                    ADD_FAILURE() << "enqueue returned " << status;
                    producerFailed = true;
                    break;
                }
                producerWake.waitPast(seen);
            }
            CFRelease(sbuf);
            if (producerFailed) break;
            produced++;
        }
        EXPECT_EQ(SVBufferQueueMarkEndOfData(queue), 0);
        // Marking fires nothing; wake the consumer for the tail itself.
        Wakeup::fire(&consumerWake, nullptr);
    });

    int64_t expected = 0;
    int64_t outOfOrder = 0;
    while (expected < kStressBuffers && !(producerFailed && SVBufferQueueIsEmpty(queue))) {
        uint64_t seen = consumerWake.generation.load();
        bool draining = SVBufferQueueContainsEndOfData(queue);
        if (draining || SVBufferQueueGetBufferCount(queue) > kReorderDepth) {
            auto sbuf = static_cast<SVSampleBufferRef>(const_cast<void *>(SVBufferQueueDequeueAndRetain(queue)));
            if (sbuf != nullptr) {
                SVTime pts = SVSampleBufferGetOutputPresentationTimeStamp(sbuf);
                if (SVTimeCompare(pts, SVTimeMake(expected, 30)) != 0) {
                    if (outOfOrder == 0)
                        ADD_FAILURE() << "expected " << expected << ", got " << pts.value << "/" << pts.timescale;
                    outOfOrder++;
                }
                expected++;
                CFRelease(sbuf);
                continue;
            }
        }
        consumerWake.waitPast(seen);
    }
    producer.join();
    EXPECT_EQ(produced.load(), kStressBuffers);
    EXPECT_EQ(outOfOrder, 0);
    EXPECT_TRUE(SVBufferQueueIsAtEndOfData(queue));
    EXPECT_GT(maxChanges.load(), 0);
    CFRelease(queue);
}

}  // namespace
