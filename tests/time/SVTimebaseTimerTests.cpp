// SPDX-License-Identifier: Apache-2.0
// Timebase timers, both kinds: the deadline asked for at rates 1, 2, 0.5,
// -1 and 0 over a clock the test sets; re-arming on jumps, on rate changes
// and on a master's change; special fire times; statuses and log lines;
// real firings on the host clock (once, and only once, at about the right
// time, with no drift over many); nothing after removal or after the
// timebase goes, including from inside the handler.

#include <CoreFoundation/CFRunLoop.h>
#include <Sorvel/SVSync.h>
#include <Sorvel/SVTimebase.h>
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "time/SVTimebaseInternal.h"

namespace {

using sorvel_test::LogCapture;

constexpr int64_t kMs = 1000000;

int64_t hostNow() {
    return SVClockGetTime(SVClockGetHostTimeClock()).value;
}

// A clock whose nanoseconds the test sets.
class ManualClock {
public:
    ManualClock() {
        std::atomic<int64_t> *now = &now_;
        clock_ = _SVClockCreateWithBlock(nullptr, ^SVTime {
          return SVTimeMake(now->load(), 1000000000);
        });
    }
    ~ManualClock() { CFRelease(clock_); }
    SVClockRef get() const { return clock_; }
    void set(int64_t ns) { now_ = ns; }

private:
    std::atomic<int64_t> now_{0};
    SVClockRef clock_;
};

SVTime ms(int64_t value) {
    return SVTimeMake(value, 1000);
}

struct Source {
    dispatch_queue_t queue = dispatch_queue_create("timer test", DISPATCH_QUEUE_SERIAL);
    dispatch_source_t source = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
    std::atomic<int> fired{0};
    std::atomic<int64_t> lastFire{0};
    explicit Source(bool resume = true) {
        std::atomic<int> *count = &fired;
        std::atomic<int64_t> *last = &lastFire;
        dispatch_source_set_event_handler(source, ^{
          last->store(hostNow());
          count->fetch_add(1);
        });
        if (resume) dispatch_resume(source);
    }
    ~Source() {
        dispatch_source_cancel(source);
        dispatch_release(source);
        // Let the cancel handler and deliveries drain before the queue goes.
        dispatch_sync(queue, ^{
                      });
        dispatch_release(queue);
    }
};

// The deadline asked of `source`, relative to the host time just before
// the call that armed it.
int64_t deadlineOf(SVTimebaseRef timebase, dispatch_source_t source) {
    SVTime deadline;
    EXPECT_EQ(SVTimebaseGetTimerDispatchSourceDeadline(timebase, source, &deadline), 0);
    if (deadline.flags & kSVTimeFlags_PositiveInfinity) return INT64_MAX;
    return deadline.value;
}

bool waitFor(const std::atomic<int> &counter, int value, int timeoutMs) {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (counter.load() < value) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

// ---- deadlines over a clock the test sets ----

struct RateCase {
    double rate;
    int64_t fireMs;      // on the timeline, which reads 1000 ms now
    int64_t expectedMs;  // from now on the host clock; -1: at once; INT64_MAX: never
};

TEST(SVTimebaseTimerDeadline, FollowsRateAndDirection) {
    const RateCase cases[] = {
        {1.0, 1500, 500}, {2.0, 1500, 250}, {0.5, 1500, 1000},      {-1.0, 600, 400}, {-1.0, 1500, -1},
        {1.0, 900, -1},   {1.0, 1000, -1},  {0.0, 1500, INT64_MAX}, {-2.0, 200, 400},
    };
    for (const RateCase &c : cases) {
        SCOPED_TRACE(testing::Message() << "rate " << c.rate << " fire " << c.fireMs);
        ManualClock clock;
        clock.set(50 * kMs);
        SVTimebaseRef timebase;
        ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, clock.get(), &timebase), 0);
        SVTimebaseSetRateAndAnchorTime(timebase, c.rate, ms(1000), SVTimeMake(50 * kMs, 1000000000));
        Source s(false);
        ASSERT_EQ(SVTimebaseAddTimerDispatchSource(timebase, s.source), 0);
        int64_t before = hostNow();
        ASSERT_EQ(SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, s.source, ms(c.fireMs), 0), 0);
        int64_t after = hostNow();
        int64_t deadline = deadlineOf(timebase, s.source);
        if (c.expectedMs == INT64_MAX) {
            EXPECT_EQ(deadline, INT64_MAX);
        } else if (c.expectedMs < 0) {
            EXPECT_LE(deadline, after);
        } else {
            EXPECT_GE(deadline, before + c.expectedMs * kMs);
            EXPECT_LE(deadline, after + c.expectedMs * kMs);
        }
        EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(timebase, s.source), 0);
        CFRelease(timebase);
    }
}

TEST(SVTimebaseTimerDeadline, SpecialFireTimes) {
    ManualClock clock;
    SVTimebaseRef timebase;
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, clock.get(), &timebase), 0);
    SVTimebaseSetRate(timebase, 1.0);
    Source s(false);
    ASSERT_EQ(SVTimebaseAddTimerDispatchSource(timebase, s.source), 0);
    SVTime deadline;
    SVTimebaseGetTimerDispatchSourceDeadline(timebase, s.source, &deadline);
    EXPECT_FALSE(deadline.flags & kSVTimeFlags_Valid) << "never armed";

    SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, s.source, kSVTimePositiveInfinity, 0);
    EXPECT_EQ(deadlineOf(timebase, s.source), INT64_MAX);
    int64_t before = hostNow();
    SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, s.source, kSVTimeNegativeInfinity, 0);
    EXPECT_LE(deadlineOf(timebase, s.source), hostNow());
    EXPECT_GE(s.fired.load() + 1, 1);
    (void)before;

    // Invalid and indefinite disarm, with a notice; nothing fires.
    {
        LogCapture log(4);
        SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, s.source, kSVTimeInvalid, 0);
        SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, s.source, kSVTimeIndefinite, 0);
        EXPECT_TRUE(log.contains("invalid or indefinite"));
    }
    EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(timebase, s.source), 0);
    CFRelease(timebase);
}

TEST(SVTimebaseTimerDeadline, ReArmsOnJumpsRateChangesAndMasterChanges) {
    ManualClock clock;
    SVTimebaseRef master, child;
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, clock.get(), &master), 0);
    ASSERT_EQ(SVTimebaseCreateWithMasterTimebase(nullptr, master, &child), 0);
    SVTimebaseSetRate(master, 1.0);
    SVTimebaseSetRate(child, 1.0);
    Source s(false);
    ASSERT_EQ(SVTimebaseAddTimerDispatchSource(child, s.source), 0);
    SVTimebaseSetTimerDispatchSourceNextFireTime(child, s.source, ms(10000), 0);
    int64_t now = hostNow();
    EXPECT_NEAR(deadlineOf(child, s.source) - now, 10000 * kMs, 5 * kMs);

    // The child jumps forward: less to wait.
    SVTimebaseSetTime(child, ms(4000));
    now = hostNow();
    EXPECT_NEAR(deadlineOf(child, s.source) - now, 6000 * kMs, 5 * kMs);
    // The master doubles its rate: the child follows.
    SVTimebaseSetRate(master, 2.0);
    now = hostNow();
    EXPECT_NEAR(deadlineOf(child, s.source) - now, 3000 * kMs, 5 * kMs);
    // The master stops: the child's timer waits indefinitely...
    SVTimebaseSetRate(master, 0.0);
    EXPECT_EQ(deadlineOf(child, s.source), INT64_MAX);
    // ...and comes back with it.
    SVTimebaseSetRate(master, 1.0);
    now = hostNow();
    EXPECT_NEAR(deadlineOf(child, s.source) - now, 6000 * kMs, 5 * kMs);
    // Rate and anchors at once: re-armed from the final state.
    SVTimebaseSetRateAndAnchorTime(child, 4.0, ms(2000), SVTimebaseGetTime(master));
    now = hostNow();
    EXPECT_NEAR(deadlineOf(child, s.source) - now, 2000 * kMs, 5 * kMs);
    EXPECT_EQ(s.fired.load(), 0) << "the source was never resumed";

    EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(child, s.source), 0);
    CFRelease(child);
    CFRelease(master);
}

// ---- statuses ----

TEST(SVTimebaseTimerStatus, MissingArgumentsAndForeignTimers) {
    SVTimebaseRef a, b;
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &a), 0);
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &b), 0);
    Source s(false);
    CFRunLoopTimerRef timer = CFRunLoopTimerCreateWithHandler(nullptr, 1.0e12, 1e9, 0, 0,
                                                              ^(CFRunLoopTimerRef){
                                                              });
    dispatch_source_t dataSource = dispatch_source_create(DISPATCH_SOURCE_TYPE_DATA_ADD, 0, 0, s.queue);
    CFRunLoopRef runLoop = CFRunLoopGetCurrent();
    LogCapture log;

    EXPECT_EQ(SVTimebaseAddTimer(nullptr, timer, runLoop), kSVTimebaseError_MissingRequiredParameter);
    EXPECT_EQ(SVTimebaseAddTimer(a, nullptr, runLoop), kSVTimebaseError_MissingRequiredParameter);
    EXPECT_EQ(SVTimebaseAddTimer(a, timer, nullptr), kSVTimebaseError_MissingRequiredParameter);
    EXPECT_EQ(SVTimebaseAddTimerDispatchSource(nullptr, s.source), kSVTimebaseError_MissingRequiredParameter);
    EXPECT_EQ(SVTimebaseAddTimerDispatchSource(a, nullptr), kSVTimebaseError_MissingRequiredParameter);
    EXPECT_EQ(SVTimebaseSetTimerNextFireTime(nullptr, timer, ms(1), 0), kSVTimebaseError_MissingRequiredParameter);
    EXPECT_EQ(SVTimebaseSetTimerDispatchSourceToFireImmediately(a, nullptr), kSVTimebaseError_MissingRequiredParameter);
    EXPECT_EQ(SVTimebaseRemoveTimer(a, nullptr), kSVTimebaseError_MissingRequiredParameter);

    // Not added.
    EXPECT_EQ(SVTimebaseRemoveTimer(a, timer), kSVTimebaseError_InvalidTimer);
    EXPECT_EQ(SVTimebaseSetTimerNextFireTime(a, timer, ms(1), 0), kSVTimebaseError_InvalidTimer);
    EXPECT_EQ(SVTimebaseSetTimerToFireImmediately(a, timer), kSVTimebaseError_InvalidTimer);
    EXPECT_EQ(SVTimebaseSetTimerDispatchSourceNextFireTime(a, s.source, ms(1), 0), kSVTimebaseError_InvalidTimer);
    EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(a, s.source), kSVTimebaseError_InvalidTimer);
    EXPECT_TRUE(log.contains("is not added to this timebase"));

    // A source of another type.
    log.clear();
    EXPECT_EQ(SVTimebaseAddTimerDispatchSource(a, dataSource), kSVTimebaseError_InvalidTimer);
    EXPECT_TRUE(log.contains("is not a timer source"));

    // One timebase per timer; adding again to the same one is harmless.
    CFRunLoopAddTimer(runLoop, timer, kCFRunLoopDefaultMode);
    ASSERT_EQ(SVTimebaseAddTimer(a, timer, runLoop), 0);
    EXPECT_EQ(SVTimebaseAddTimer(a, timer, runLoop), 0);
    log.clear();
    EXPECT_EQ(SVTimebaseAddTimer(b, timer, runLoop), kSVTimebaseError_InvalidTimer);
    EXPECT_TRUE(log.contains("already added to another timebase"));
    ASSERT_EQ(SVTimebaseAddTimerDispatchSource(a, s.source), 0);
    EXPECT_EQ(SVTimebaseAddTimerDispatchSource(b, s.source), kSVTimebaseError_InvalidTimer);
    SVTime deadline;
    EXPECT_EQ(SVTimebaseGetTimerDeadline(a, timer, nullptr), kSVTimebaseError_MissingRequiredParameter);
    EXPECT_EQ(SVTimebaseGetTimerDeadline(b, timer, &deadline), kSVTimebaseError_InvalidTimer);

    // Removing twice.
    EXPECT_EQ(SVTimebaseRemoveTimer(a, timer), 0);
    EXPECT_EQ(SVTimebaseRemoveTimer(a, timer), kSVTimebaseError_InvalidTimer);
    EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(a, s.source), 0);
    EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(a, s.source), kSVTimebaseError_InvalidTimer);
    // Once removed it may join another timebase.
    EXPECT_EQ(SVTimebaseAddTimer(b, timer, runLoop), 0);
    for (const auto &line : log.lines()) EXPECT_EQ(line.path, "Sorvel/Sources/SVTimebase");

    CFRunLoopTimerInvalidate(timer);
    CFRelease(timer);
    dispatch_release(dataSource);
    CFRelease(a);
    CFRelease(b);
}

// ---- real firings on the host clock ----

TEST(SVTimebaseTimerFiring, DispatchSourceFiresOnceAtEachRate) {
    for (double rate : {1.0, 2.0, 0.5, -1.0}) {
        SCOPED_TRACE(rate);
        SVTimebaseRef timebase;
        ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &timebase), 0);
        SVTimebaseSetTime(timebase, ms(1000));
        SVTimebaseSetRate(timebase, rate);
        Source s;
        ASSERT_EQ(SVTimebaseAddTimerDispatchSource(timebase, s.source), 0);
        SVTime fire = SVTimeAdd(SVTimebaseGetTime(timebase), ms(rate > 0 ? 20 : -20));
        int64_t start = hostNow();
        SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, s.source, fire, 0);
        ASSERT_TRUE(waitFor(s.fired, 1, 5000));
        int64_t waited = s.lastFire.load() - start;
        EXPECT_GE(waited, static_cast<int64_t>(20 * kMs / std::fabs(rate)) - kMs / 2);
        EXPECT_GE(
            SVTimeCompare(rate > 0 ? SVTimebaseGetTime(timebase) : fire, rate > 0 ? fire : SVTimebaseGetTime(timebase)),
            0);
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        EXPECT_EQ(s.fired.load(), 1) << "stays unarmed after firing";
        // A rate change afterwards does not bring it back.
        SVTimebaseSetRate(timebase, -rate);
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        EXPECT_EQ(s.fired.load(), 1);
        EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(timebase, s.source), 0);
        CFRelease(timebase);
    }
}

TEST(SVTimebaseTimerFiring, StoppedTimebaseWaitsUntilTheRateComesBack) {
    SVTimebaseRef timebase;
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &timebase), 0);
    Source s;
    ASSERT_EQ(SVTimebaseAddTimerDispatchSource(timebase, s.source), 0);
    SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, s.source, ms(10), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    EXPECT_EQ(s.fired.load(), 0);
    SVTimebaseSetRate(timebase, 1.0);
    EXPECT_TRUE(waitFor(s.fired, 1, 5000));
    EXPECT_GE(SVTimeCompare(SVTimebaseGetTime(timebase), ms(10)), 0);

    // Immediately works on a stopped timebase and replaces a fire time.
    SVTimebaseSetRate(timebase, 0.0);
    SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, s.source, ms(100000), 0);
    SVTimebaseSetTimerDispatchSourceToFireImmediately(timebase, s.source);
    EXPECT_TRUE(waitFor(s.fired, 2, 5000));
    SVTimebaseSetRate(timebase, 1.0);
    SVTimebaseSetTime(timebase, ms(200000));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(s.fired.load(), 2) << "the replaced fire time must not fire";
    EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(timebase, s.source), 0);
    CFRelease(timebase);
}

TEST(SVTimebaseTimerFiring, JumpOverFiresAtOnceAndJumpBackReArms) {
    SVTimebaseRef timebase;
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &timebase), 0);
    SVTimebaseSetRate(timebase, 1.0);
    Source s;
    ASSERT_EQ(SVTimebaseAddTimerDispatchSource(timebase, s.source), 0);
    SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, s.source, ms(60000), 0);
    // Back past... it is still ahead: nothing.
    SVTimebaseSetTime(timebase, ms(-5000));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(s.fired.load(), 0);
    // Over it: fires at once, once.
    SVTimebaseSetTime(timebase, ms(70000));
    EXPECT_TRUE(waitFor(s.fired, 1, 5000));
    // Back before it: it has fired, so it stays unarmed.
    SVTimebaseSetTime(timebase, ms(0));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(s.fired.load(), 1);
    // A new fire time just ahead fires.
    SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, s.source, SVTimeAdd(SVTimebaseGetTime(timebase), ms(15)), 0);
    EXPECT_TRUE(waitFor(s.fired, 2, 5000));
    EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(timebase, s.source), 0);
    CFRelease(timebase);
}

TEST(SVTimebaseTimerFiring, RunLoopTimerFiresOnItsRunLoop) {
    SVTimebaseRef timebase;
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &timebase), 0);
    SVTimebaseSetRate(timebase, 2.0);
    __block int fired = 0;
    __block int64_t firedAt = 0;
    CFRunLoopTimerRef timer =
        CFRunLoopTimerCreateWithHandler(nullptr, CFAbsoluteTimeGetCurrent() + 1e9, 1e9, 0, 0, ^(CFRunLoopTimerRef) {
          fired++;
          firedAt = hostNow();
        });
    CFRunLoopRef runLoop = CFRunLoopGetCurrent();
    CFRunLoopAddTimer(runLoop, timer, kCFRunLoopCommonModes);
    ASSERT_EQ(SVTimebaseAddTimer(timebase, timer, runLoop), 0);
    // Unarmed: far in the future, so running the loop fires nothing.
    EXPECT_GT(CFRunLoopTimerGetNextFireDate(timer), CFAbsoluteTimeGetCurrent() + 1e9);
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.02, true), kCFRunLoopRunTimedOut);
    EXPECT_EQ(fired, 0);

    SVTime fire = SVTimeAdd(SVTimebaseGetTime(timebase), ms(40));
    int64_t start = hostNow();
    SVTimebaseSetTimerNextFireTime(timebase, timer, fire, 0);
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 5, true), kCFRunLoopRunHandledSource);
    EXPECT_EQ(fired, 1);
    EXPECT_GE(firedAt - start, 20 * kMs - kMs / 2);
    EXPECT_GT(CFRunLoopTimerGetNextFireDate(timer), CFAbsoluteTimeGetCurrent() + 1e6);
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.02, true), kCFRunLoopRunTimedOut);

    SVTimebaseSetTimerToFireImmediately(timebase, timer);
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 5, true), kCFRunLoopRunHandledSource);
    EXPECT_EQ(fired, 2);

    // Releasing the timebase disarms: nothing more fires.
    SVTimebaseSetTimerNextFireTime(timebase, timer, SVTimeAdd(SVTimebaseGetTime(timebase), ms(10)), 0);
    CFRelease(timebase);
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.05, true), kCFRunLoopRunTimedOut);
    EXPECT_EQ(fired, 2);
    EXPECT_TRUE(CFRunLoopTimerIsValid(timer)) << "the timebase never invalidates";
    CFRunLoopTimerInvalidate(timer);
    CFRelease(timer);
}

TEST(SVTimebaseTimerFiring, DueFiringIsNeitherLostNorDoubledByReArming) {
    // Over many trials, arm a timer due in ~0.2 ms and hammer rate changes
    // across its deadline: it fires exactly once every time.
    SVTimebaseRef timebase;
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &timebase), 0);
    SVTimebaseSetRate(timebase, 1.0);
    Source s;
    ASSERT_EQ(SVTimebaseAddTimerDispatchSource(timebase, s.source), 0);
    constexpr int kTrials = 50;
    for (int i = 0; i < kTrials; i++) {
        SVTime fire = SVTimeAdd(SVTimebaseGetTime(timebase), SVTimeMake(200, 1000000));
        SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, s.source, fire, 0);
        for (int j = 0; j < 20; j++) SVTimebaseSetRate(timebase, (j & 1) ? 1.0 : -1.0);
        SVTimebaseSetRate(timebase, 1.0);
        ASSERT_TRUE(waitFor(s.fired, i + 1, 5000)) << "trial " << i;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(s.fired.load(), kTrials);
    EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(timebase, s.source), 0);
    CFRelease(timebase);
}

TEST(SVTimebaseTimerFiring, NothingRunsAfterRemovalReturns) {
    SVTimebaseRef timebase;
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &timebase), 0);
    dispatch_queue_t queue = dispatch_queue_create("removal", DISPATCH_QUEUE_SERIAL);
    dispatch_source_t source = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
    std::atomic<bool> removed{false};
    std::atomic<int> afterRemoval{0}, entered{0};
    std::atomic<bool> *removedFlag = &removed;
    std::atomic<int> *late = &afterRemoval, *in = &entered;
    dispatch_source_set_event_handler(source, ^{
      in->fetch_add(1);
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      if (removedFlag->load()) late->fetch_add(1);
    });
    dispatch_resume(source);
    ASSERT_EQ(SVTimebaseAddTimerDispatchSource(timebase, source), 0);
    SVTimebaseSetTimerDispatchSourceToFireImmediately(timebase, source);
    ASSERT_TRUE(waitFor(entered, 1, 5000));
    // The handler is running: removal waits for it.
    EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(timebase, source), 0);
    removed = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    EXPECT_EQ(afterRemoval.load(), 0);
    EXPECT_EQ(entered.load(), 1);

    // Cancelling an armed source: its handler never runs; removal works.
    ASSERT_EQ(SVTimebaseAddTimerDispatchSource(timebase, source), 0);
    SVTimebaseSetRate(timebase, 1.0);
    SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, source, SVTimeAdd(SVTimebaseGetTime(timebase), ms(10)), 0);
    dispatch_source_cancel(source);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(entered.load(), 1);
    EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(timebase, source), 0);
    dispatch_release(source);
    dispatch_release(queue);
    CFRelease(timebase);
}

TEST(SVTimebaseTimerFiring, TimebaseReleasedFromItsOwnHandler) {
    SVTimebaseRef timebase;
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &timebase), 0);
    Source s;
    std::atomic<int> done{0};
    std::atomic<int> *doneFlag = &done;
    __block SVTimebaseRef owned = timebase;
    dispatch_semaphore_t callerDone = dispatch_semaphore_create(0);
    dispatch_source_set_event_handler(s.source, ^{
      // Once the arming call has returned, this is the last reference: it
      // disarms and releases the source from inside the source's handler.
      dispatch_semaphore_wait(callerDone, DISPATCH_TIME_FOREVER);
      CFRelease(owned);
      doneFlag->fetch_add(1);
    });
    ASSERT_EQ(SVTimebaseAddTimerDispatchSource(timebase, s.source), 0);
    SVTimebaseSetTimerDispatchSourceToFireImmediately(timebase, s.source);
    dispatch_semaphore_signal(callerDone);
    EXPECT_TRUE(waitFor(done, 1, 5000));
    dispatch_release(callerDone);
}

TEST(SVTimebaseTimerFiring, ChainedFiringsDoNotDrift) {
    // 200 firings 2 ms apart on the timeline at rate 1, each handler arming
    // the next from the previous fire time: the median lateness is small and
    // the last firing is not later than the first by more than the medians.
    constexpr int kFirings = 200;
    SVTimebaseRef timebase;
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &timebase), 0);
    SVTimebaseSetRate(timebase, 1.0);
    dispatch_queue_t queue = dispatch_queue_create("drift", DISPATCH_QUEUE_SERIAL);
    dispatch_source_t source = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
    ASSERT_EQ(SVTimebaseAddTimerDispatchSource(timebase, source), 0);
    __block std::vector<int64_t> lateness;
    __block int count = 0;
    __block SVTime next = SVTimeAdd(SVTimebaseGetTime(timebase), ms(5));
    std::atomic<int> finished{0};
    std::atomic<int> *finishedFlag = &finished;
    dispatch_source_set_event_handler(source, ^{
      SVTime deadline;
      SVTimebaseGetTimerDispatchSourceDeadline(timebase, source, &deadline);
      lateness.push_back(hostNow() - deadline.value);
      if (++count == kFirings) {
          finishedFlag->store(1);
          return;
      }
      next = SVTimeAdd(next, ms(2));
      SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, source, next, 0);
    });
    dispatch_resume(source);
    SVTimebaseSetTimerDispatchSourceNextFireTime(timebase, source, next, 0);
    ASSERT_TRUE(waitFor(finished, 1, 20000));
    std::vector<int64_t> sorted = lateness;
    std::sort(sorted.begin(), sorted.end());
    int64_t median = sorted[sorted.size() / 2];
    EXPECT_GE(sorted.front(), 0) << "never early";
    EXPECT_LT(median, 5 * kMs) << "median lateness";
    // No drift: the deadlines are on the timeline, not relative to handler
    // times, so lateness does not accumulate along the run.
    std::vector<int64_t> head(lateness.begin(), lateness.begin() + 20), tail(lateness.end() - 20, lateness.end());
    std::sort(head.begin(), head.end());
    std::sort(tail.begin(), tail.end());
    EXPECT_LT(tail[10] - head[10], 3 * kMs);
    SVTime last;
    SVTimebaseGetTimerDispatchSourceDeadline(timebase, source, &last);
    EXPECT_EQ(SVTimeCompare(SVSyncConvertTime(next, timebase, SVClockGetHostTimeClock()), last), 0)
        << "the last deadline is the last fire time's host time";
    EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(timebase, source), 0);
    dispatch_source_cancel(source);
    dispatch_release(source);
    dispatch_sync(queue, ^{
                  });
    dispatch_release(queue);
    CFRelease(timebase);
}

}  // namespace

namespace {

// SVTimebaseGetTime computes its common case inline; it must agree with the
// arithmetic calls it stands for on every state, including the edges of
// that case (zero values, rounding flags, epochs, overflow, huge and NaN
// rates, non-zero timebase anchors, small timescales).
TEST(SVTimebaseTimeAt, InlineCaseAgreesWithTheArithmeticCalls) {
    struct Case {
        SVTime master, masterAnchor, timebaseAnchor;
        double rate;
    };
    const int64_t big = INT64_MAX - 5;
    const SVTime rounded = {7, 1000000000, kSVTimeFlags_Valid | kSVTimeFlags_HasBeenRounded, 0};
    const Case cases[] = {
        {SVTimeMake(5000000000, 1000000000), SVTimeMake(2000000000, 1000000000), kSVTimeZero, 1.0},
        {SVTimeMake(5000000000, 1000000000), SVTimeMake(2000000000, 1000000000), kSVTimeZero, -2.5},
        {SVTimeMake(5000000000, 1000000000), SVTimeMake(5000000000, 1000000000), kSVTimeZero, 1.0},
        {SVTimeMake(5000000000, 1000000000), SVTimeMake(2000000000, 1000000000), SVTimeMake(3, 1), 1.0},
        {SVTimeMake(5000000000, 1000000000), SVTimeMake(2000000000, 1000000000), SVTimeMake(0, 600), 1.0},
        {SVTimeMake(5000000000, 1000000000), SVTimeMake(2000000000, 1000000000), SVTimeMake(3, 1), 0.0},
        {SVTimeMake(0, 1000000000), SVTimeMake(2000000000, 1000000000), kSVTimeZero, 1.0},
        {SVTimeMake(5, 1000000000), SVTimeMake(0, 1000000000), kSVTimeZero, 1.0},
        {rounded, SVTimeMake(2, 1000000000), kSVTimeZero, 3.0},
        {SVTimeMake(big, 1000000000), SVTimeMake(-big, 1000000000), kSVTimeZero, 1.0},
        {SVTimeMake(big, 1000000000), SVTimeMake(1, 1000000000), kSVTimeZero, 1e10},
        {SVTimeMake(big, 1000000000), SVTimeMake(1, 1000000000), kSVTimeZero, NAN},
        {SVTimeMake(5000, 1000), SVTimeMake(2000, 1000), kSVTimeZero, 1.0},
        {SVTimeMake(5000000000, 1000000000), SVTimeMake(20, 10), kSVTimeZero, 1.0},
        {{50, 1000000000, kSVTimeFlags_Valid, 3}, SVTimeMake(20, 1000000000), kSVTimeZero, 1.0},
        {{50, 1000000000, kSVTimeFlags_Valid, 3}, {20, 1000000000, kSVTimeFlags_Valid, 4}, kSVTimeZero, 1.0},
        {SVTimeMake(50, 1000000000), kSVTimePositiveInfinity, kSVTimeZero, 1.0},
        {kSVTimeInvalid, SVTimeMake(20, 1000000000), kSVTimeZero, 1.0},
        {SVTimeMake(50, 1000000000), SVTimeMake(20, 1000000000), kSVTimeIndefinite, 1.0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.master.value << "/" << c.master.timescale << " anchor "
                                        << c.masterAnchor.value << " rate " << c.rate);
        SVTime master = c.master;
        SVClockRef clock = _SVClockCreateWithBlock(nullptr, ^SVTime {
          return master;
        });
        SVTimebaseRef timebase;
        ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, clock, &timebase), 0);
        // Written directly: the setters keep a normal form these cases leave.
        sorvel::timebase::State state = {c.rate, c.masterAnchor, c.timebaseAnchor};
        std::memcpy(timebase->state, &state, sizeof state);
        SVTime expected =
            SVTimeAdd(SVTimeMultiplyByFloat64(SVTimeSubtract(master, c.masterAnchor), c.rate), c.timebaseAnchor);
        SVTime actual = SVTimebaseGetTime(timebase);
        EXPECT_EQ(actual.value, expected.value);
        EXPECT_EQ(actual.timescale, expected.timescale);
        EXPECT_EQ(actual.flags, expected.flags);
        EXPECT_EQ(actual.epoch, expected.epoch);
        CFRelease(timebase);
        CFRelease(clock);
    }
}

}  // namespace
