// SPDX-License-Identifier: Apache-2.0
// Run loops and timers: the run results, modes and the common modes,
// repeating timers on their grid, one-shot invalidation, context
// ownership, wake-ups and stops from other threads, absolute time against
// the host counter, and the re-arm primitive's exactly-once rule.
#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>

#include "support/LogCapture.h"

namespace {

using sorvel_test::LogCapture;

uint64_t hostNow() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

struct Counter {
    int calls = 0;
    int retains = 0;
    int releases = 0;
};

void countCall(CFRunLoopTimerRef, void *info) {
    static_cast<Counter *>(info)->calls++;
}
const void *retainCounter(const void *info) {
    static_cast<Counter *>(const_cast<void *>(info))->retains++;
    return info;
}
void releaseCounter(const void *info) {
    static_cast<Counter *>(const_cast<void *>(info))->releases++;
}

TEST(CFAbsoluteTimeTest, FollowsTheHostCounterWithAFixedOffset) {
    uint64_t host = hostNow();
    CFAbsoluteTime absolute = CFAbsoluteTimeGetCurrent();
    EXPECT_NEAR(absolute - _CFAbsoluteTimeFromHostTime(host), 0.0, 0.01);
    // Close to the wall clock at the start (seconds since 2001).
    EXPECT_NEAR(absolute, static_cast<double>(time(nullptr)) - kCFAbsoluteTimeIntervalSince1970, 5.0);
    // Round trip within the precision of a double.
    uint64_t back = _CFHostTimeFromAbsoluteTime(_CFAbsoluteTimeFromHostTime(host));
    EXPECT_LE(back > host ? back - host : host - back, 1000u);
    EXPECT_EQ(_CFHostTimeFromAbsoluteTime(INFINITY), ~uint64_t{0});
    EXPECT_EQ(_CFHostTimeFromAbsoluteTime(NAN), ~uint64_t{0});
    EXPECT_EQ(_CFHostTimeFromAbsoluteTime(-1e12), 0u);
    EXPECT_EQ(_CFHostTimeFromAbsoluteTime(1e15), ~uint64_t{0});
}

TEST(CFRunLoopTest, RunResultsAndOneShotInvalidation) {
    Counter counter;
    CFRunLoopTimerContext context = {0, &counter, retainCounter, releaseCounter, nullptr};
    // No timer in the mode: finished at once.
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 1.0, false), kCFRunLoopRunFinished);
    CFAbsoluteTime fireDate = CFAbsoluteTimeGetCurrent() + 0.2;
    CFRunLoopTimerRef timer = CFRunLoopTimerCreate(nullptr, fireDate, 0, 0, 0, countCall, &context);
    EXPECT_EQ(counter.retains, 1);
    CFRunLoopRef rl = CFRunLoopGetCurrent();
    EXPECT_EQ(rl, CFRunLoopGetCurrent());
    CFRunLoopAddTimer(rl, timer, kCFRunLoopDefaultMode);
    EXPECT_TRUE(CFRunLoopContainsTimer(rl, timer, kCFRunLoopDefaultMode));
    EXPECT_FALSE(CFRunLoopContainsTimer(rl, timer, CFSTR("other")));
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.001, false), kCFRunLoopRunTimedOut);
    EXPECT_EQ(counter.calls, 0);
    EXPECT_EQ(CFRunLoopRunInMode(CFSTR("other"), 1.0, false), kCFRunLoopRunFinished);
    // A one-shot timer fires once, not early, and is invalidated, which ends
    // the run.
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 5.0, false), kCFRunLoopRunFinished);
    EXPECT_EQ(counter.calls, 1);
    EXPECT_GE(CFAbsoluteTimeGetCurrent(), fireDate);
    EXPECT_FALSE(CFRunLoopTimerIsValid(timer));
    EXPECT_FALSE(CFRunLoopContainsTimer(rl, timer, kCFRunLoopDefaultMode));
    EXPECT_EQ(counter.releases, 1) << "invalidation releases the info";
    CFRelease(timer);
    EXPECT_EQ(counter.releases, 1);
}

TEST(CFRunLoopTest, RepeatingTimerInCommonModesStaysOnItsGrid) {
    __block int calls = 0;
    CFAbsoluteTime start = CFAbsoluteTimeGetCurrent() + 0.002;
    CFRunLoopTimerRef timer = CFRunLoopTimerCreateWithHandler(nullptr, start, 0.002, 0, 0, ^(CFRunLoopTimerRef) {
      calls++;
    });
    EXPECT_TRUE(CFRunLoopTimerDoesRepeat(timer));
    CFRunLoopRef rl = CFRunLoopGetCurrent();
    CFRunLoopAddTimer(rl, timer, kCFRunLoopCommonModes);
    EXPECT_FALSE(CFRunLoopContainsTimer(rl, timer, kCFRunLoopDefaultMode));
    EXPECT_EQ(CFRunLoopRunInMode(CFSTR("private"), 0.01, false), kCFRunLoopRunFinished);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 5.0, true), kCFRunLoopRunHandledSource);
    EXPECT_EQ(calls, 5);
    // The next date is on the grid start + k * interval, after now.
    double next = CFRunLoopTimerGetNextFireDate(timer);
    double k = (next - start) / 0.002;
    EXPECT_NEAR(k, std::round(k), 1e-3);
    EXPECT_GT(next, CFAbsoluteTimeGetCurrent() - 0.002);
    CFRunLoopRemoveTimer(rl, timer, kCFRunLoopCommonModes);
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.01, false), kCFRunLoopRunFinished);
    EXPECT_TRUE(CFRunLoopTimerIsValid(timer));
    CFRunLoopTimerInvalidate(timer);
    CFRelease(timer);
}

TEST(CFRunLoopTest, OtherThreadsStopWakeAndReArm) {
    __block int calls = 0;
    CFRunLoopTimerRef timer =
        CFRunLoopTimerCreateWithHandler(nullptr, CFAbsoluteTimeGetCurrent() + 1e6, 1e9, 0, 0, ^(CFRunLoopTimerRef) {
          calls++;
        });
    CFRunLoopRef rl = CFRunLoopGetCurrent();
    CFRunLoopAddTimer(rl, timer, kCFRunLoopDefaultMode);
    std::thread other([&] {
        while (!CFRunLoopIsWaiting(rl)) std::this_thread::sleep_for(std::chrono::microseconds(100));
        CFRunLoopTimerSetNextFireDate(timer, CFAbsoluteTimeGetCurrent());
    });
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 10.0, true), kCFRunLoopRunHandledSource);
    other.join();
    EXPECT_EQ(calls, 1);
    std::thread stopper([&] {
        while (!CFRunLoopIsWaiting(rl)) std::this_thread::sleep_for(std::chrono::microseconds(100));
        CFRunLoopStop(rl);
    });
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 10.0, false), kCFRunLoopRunStopped);
    stopper.join();
    CFRunLoopTimerInvalidate(timer);
    CFRelease(timer);
}

TEST(CFRunLoopTest, ReArmCountsADueDateOnceAndDiscardDropsIt) {
    __block int calls = 0;
    CFRunLoopTimerRef timer =
        CFRunLoopTimerCreateWithHandler(nullptr, CFAbsoluteTimeGetCurrent() - 1, 1e9, 0, 0, ^(CFRunLoopTimerRef) {
          calls++;
        });
    CFRunLoopRef rl = CFRunLoopGetCurrent();
    CFRunLoopAddTimer(rl, timer, kCFRunLoopDefaultMode);
    uint64_t firings = 0, expected = 0;
    // Due: counted and owed; the conditional re-arm refuses.
    EXPECT_EQ(_CFRunLoopTimerRearm(timer, CFAbsoluteTimeGetCurrent() + 1e6, &expected, 0, &firings), 0);
    EXPECT_EQ(firings, 1u);
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 1.0, true), kCFRunLoopRunHandledSource);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.01, true), kCFRunLoopRunTimedOut);
    // Due again, then discarded: no callout.
    EXPECT_EQ(_CFRunLoopTimerRearm(timer, CFAbsoluteTimeGetCurrent() - 1, nullptr, 0, &firings), 1);
    EXPECT_EQ(_CFRunLoopTimerRearm(timer, CFAbsoluteTimeGetCurrent() + 1e6, nullptr, 1, &firings), 1);
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.01, true), kCFRunLoopRunTimedOut);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(_CFRunLoopTimerRearm(nullptr, 0, nullptr, 0, nullptr), -1);
    CFRunLoopTimerInvalidate(timer);
    CFRelease(timer);
}

TEST(CFRunLoopTest, MisuseIsLoggedAndAThreadsRunLoopIsItsOwn) {
    LogCapture log;
    EXPECT_EQ(CFRunLoopTimerCreate(nullptr, 0, 0, 0, 0, nullptr, nullptr), nullptr);
    CFRunLoopAddTimer(nullptr, nullptr, kCFRunLoopDefaultMode);
    CFRunLoopStop(nullptr);
    EXPECT_TRUE(log.contains("callout is NULL"));
    EXPECT_TRUE(log.contains("NULL or of the wrong type"));
    CFRunLoopRef mine = CFRunLoopGetCurrent(), theirs = nullptr, main = nullptr;
    CFRunLoopTimerRef timer = CFRunLoopTimerCreateWithHandler(nullptr, 0, 0, 0, 0,
                                                              ^(CFRunLoopTimerRef){
                                                              });
    CFRunLoopAddTimer(mine, timer, kCFRunLoopDefaultMode);
    std::thread other([&] {
        theirs = CFRunLoopGetCurrent();
        main = CFRunLoopGetMain();
        CFRunLoopAddTimer(theirs, timer, kCFRunLoopDefaultMode);
    });
    other.join();
    EXPECT_NE(mine, theirs);
    EXPECT_EQ(main, CFRunLoopGetMain());
    EXPECT_TRUE(log.contains("already in another run loop"));
    EXPECT_EQ(CFGetTypeID(timer), CFRunLoopTimerGetTypeID());
    EXPECT_EQ(CFGetTypeID(mine), CFRunLoopGetTypeID());
    CFRunLoopTimerInvalidate(timer);
    CFRelease(timer);
}

}  // namespace
