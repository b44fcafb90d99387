// SPDX-License-Identifier: Apache-2.0
// Timebases over clocks whose time the test sets: creation and ownership,
// stops, jumps, anchors and their normal form, a chain of rates 2, 0.5 and
// -1 checked exactly, the master reads of each call, the notification rules
// (observed on the local center), misuse with its statuses and log lines,
// the "NOT YET IMPLEMENTED" stops, real time on the host clock, and readers
// racing writers.

#include <Sorvel/SVSync.h>
#include <Sorvel/SVTimebase.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/LogCapture.h"
#include "support/TestAllocator.h"
#include "time/SVTimebaseInternal.h"

namespace {

using sorvel::timebase::readState;
using sorvel_test::LogCapture;
using sorvel_test::TestAllocator;

// Reads milliseconds that the test sets, counting its reads; optionally one
// millisecond later on every read.
class ManualClock {
public:
    explicit ManualClock(int64_t ms = 0, bool tick = false) : now_(ms) {
        std::atomic<int64_t> *now = &now_;
        std::atomic<int> *reads = &reads_;
        clock_ = _SVClockCreateWithBlock(nullptr, ^SVTime(void) {
          (*reads)++;
          return SVTimeMake(tick ? now->fetch_add(1) : now->load(), 1000);
        });
    }
    ~ManualClock() { CFRelease(clock_); }
    SVClockRef get() const { return clock_; }
    void set(int64_t ms) { now_ = ms; }
    int reads() const { return reads_; }

private:
    std::atomic<int64_t> now_;
    std::atomic<int> reads_{0};
    SVClockRef clock_;
};

struct Releaser {
    void operator()(const void *object) const { CFRelease(object); }
};
using Timebase = std::unique_ptr<OpaqueSVTimebase, Releaser>;

Timebase onClock(SVClockRef clock) {
    SVTimebaseRef timebase = nullptr;
    EXPECT_EQ(SVTimebaseCreateWithMasterClock(nullptr, clock, &timebase), 0);
    return Timebase(timebase);
}
Timebase onTimebase(SVTimebaseRef master) {
    SVTimebaseRef timebase = nullptr;
    EXPECT_EQ(SVTimebaseCreateWithMasterTimebase(nullptr, master, &timebase), 0);
    return Timebase(timebase);
}

SVTime ms(int64_t value) {
    return SVTimeMake(value, 1000);
}
SVTime seconds(int64_t value) {
    return SVTimeMake(value, 1);
}

std::string describe(SVTime t) {
    return std::to_string(t.value) + "/" + std::to_string(t.timescale) + " flags " + std::to_string(t.flags);
}
// Numeric and equal as rationals (2/4 equals 1/2).
void expectEqual(SVTime time, SVTime expected) {
    EXPECT_TRUE(SVTIME_IS_NUMERIC(time) && SVTimeCompare(time, expected) == 0)
        << describe(time) << " is not " << describe(expected);
}
void expectInvalid(SVTime time) {
    EXPECT_TRUE(time.flags == 0 && time.timescale == 0) << describe(time);
}

// Records the timebase notifications of the local center: 'r' (effective
// rate changed) or 'j' (time jumped) with the object, running `hook` in each.
struct Recorder {
    using Post = std::pair<char, const void *>;
    std::vector<Post> posts;
    std::function<void()> hook;
    Recorder() {
        for (CFStringRef name : {kSVTimebaseNotification_EffectiveRateChanged, kSVTimebaseNotification_TimeJumped})
            CFNotificationCenterAddObserver(CFNotificationCenterGetLocalCenter(), this, callback, name, nullptr,
                                            CFNotificationSuspensionBehaviorDeliverImmediately);
    }
    ~Recorder() { CFNotificationCenterRemoveEveryObserver(CFNotificationCenterGetLocalCenter(), this); }
    std::vector<Post> take() { return std::exchange(posts, {}); }
    static void callback(CFNotificationCenterRef, void *observer, CFNotificationName name, const void *object,
                         CFDictionaryRef userInfo) {
        auto *self = static_cast<Recorder *>(observer);
        EXPECT_EQ(userInfo, nullptr);
        self->posts.push_back({CFEqual(name, kSVTimebaseNotification_TimeJumped) ? 'j' : 'r', object});
        if (self->hook) self->hook();
    }
};

TEST(SVTimebase, NewTimebaseStandsStillAtZeroAndRetainsItsMaster) {
    ManualClock clock(5000);
    Timebase parent = onClock(clock.get()), child = onTimebase(parent.get());
    EXPECT_EQ(CFGetRetainCount(clock.get()), 2);
    EXPECT_EQ(CFGetRetainCount(parent.get()), 2);
    clock.set(9000);
    for (SVTimebaseRef timebase : {parent.get(), child.get()}) {
        expectEqual(SVTimebaseGetTime(timebase), kSVTimeZero);
        EXPECT_TRUE(SVTimebaseGetRate(timebase) == 0.0 && SVTimebaseGetEffectiveRate(timebase) == 0.0);
        EXPECT_EQ(SVTimebaseGetUltimateMasterClock(timebase), clock.get());
    }
    EXPECT_EQ(CFGetTypeID(parent.get()), SVTimebaseGetTypeID());
    EXPECT_TRUE(SVTimebaseGetMaster(parent.get()) == clock.get() &&
                SVTimebaseGetMasterClock(parent.get()) == clock.get());
    EXPECT_TRUE(SVTimebaseGetMaster(child.get()) == parent.get() &&
                SVTimebaseGetMasterTimebase(child.get()) == parent.get());
    EXPECT_TRUE(!SVTimebaseGetMasterTimebase(parent.get()) && !SVTimebaseGetMasterClock(child.get()));
    // The master anchor is the master's time at creation.
    expectEqual(readState(parent.get()).masterAnchor, ms(5000));
    expectEqual(readState(child.get()).masterAnchor, kSVTimeZero);
    child.reset();
    EXPECT_EQ(CFGetRetainCount(parent.get()), 1);
    parent.reset();
    EXPECT_EQ(CFGetRetainCount(clock.get()), 1);
}

// One timebase through starts, stops, reversals, jumps and anchors, each
// checked exactly, with the anchors' normal form after every step.
TEST(SVTimebase, RatesStopsJumpsAndAnchors) {
    ManualClock clock(5000);
    Timebase tb = onClock(clock.get());
    SVTimebaseRef t = tb.get();
    struct Step {
        const char *name;
        std::function<void()> action;
        int64_t clockAfter, expectedMs;
    } steps[] = {
        {"start", [&] { SVTimebaseSetRate(t, 1.0); }, 7000, 2000},
        {"stop freezes", [&] { SVTimebaseSetRate(t, 0.0); }, 9000, 2000},
        {"stopping again changes nothing", [&] { SVTimebaseSetRate(t, 0.0); }, 9500, 2000},
        {"double speed from where it stood", [&] { SVTimebaseSetRate(t, 2.0); }, 10000, 3000},
        {"backwards", [&] { SVTimebaseSetRate(t, -1.0); }, 11000, 2000},
        {"jump while running", [&] { SVTimebaseSetTime(t, seconds(100)); }, 12000, 99000},
        {"stop", [&] { SVTimebaseSetRate(t, 0.0); }, 12000, 99000},
        {"jump while stopped", [&] { SVTimebaseSetTime(t, seconds(50)); }, 20000, 50000},
        {"anchor while stopped", [&] { SVTimebaseSetAnchorTime(t, seconds(7), seconds(0)); }, 21000, 7000},
        {"restart from the anchor", [&] { SVTimebaseSetRate(t, 0.5); }, 23000, 8000},
        {"anchor in the past", [&] { SVTimebaseSetAnchorTime(t, seconds(1), seconds(3)); }, 23000, 11000},
        {"rate and anchor", [&] { SVTimebaseSetRateAndAnchorTime(t, -2.0, seconds(10), ms(22000)); }, 24000, 6000},
        {"stop by rate and anchor", [&] { SVTimebaseSetRateAndAnchorTime(t, 0.0, seconds(4), ms(1)); }, 30000, 4000},
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(step.name);
        step.action();
        clock.set(step.clockAfter);
        expectEqual(SVTimebaseGetTime(t), ms(step.expectedMs));
        sorvel::timebase::State state = readState(t);
        const SVTime zero = {0, 1, kSVTimeFlags_Valid, 0};
        if (state.rate != 0.0)
            EXPECT_EQ(memcmp(&state.timebaseAnchor, &zero, sizeof zero), 0) << "running: the timebase anchor is 0/1";
        else
            expectEqual(state.timebaseAnchor, ms(step.expectedMs));
    }
}

// clock -> a (rate 2) -> b (rate 0.5) -> c (rate -1), anchored so that
// a = 10 + 2 (clock - 1), b = 100 + 0.5 (a - 12), c = 100 - b: c = 2 - clock.
TEST(SVTimebase, ChainOfThreeRatesIsExact) {
    ManualClock clock(1000);
    Timebase a = onClock(clock.get()), b = onTimebase(a.get()), c = onTimebase(b.get());
    ASSERT_EQ(SVTimebaseSetRateAndAnchorTime(a.get(), 2.0, seconds(10), seconds(1)), 0);
    ASSERT_EQ(SVTimebaseSetRateAndAnchorTime(b.get(), 0.5, seconds(100), seconds(12)), 0);
    ASSERT_EQ(SVTimebaseSetRateAndAnchorTime(c.get(), -1.0, seconds(0), seconds(100)), 0);
    EXPECT_EQ(SVTimebaseGetEffectiveRate(a.get()), 2.0);
    EXPECT_EQ(SVTimebaseGetEffectiveRate(b.get()), 1.0);
    EXPECT_EQ(SVTimebaseGetEffectiveRate(c.get()), -1.0);
    EXPECT_EQ(SVTimebaseGetUltimateMasterClock(c.get()), clock.get());
    for (int64_t now : {1000, 3500, -2750, 1000000}) {
        clock.set(now);
        expectEqual(SVTimebaseGetTime(a.get()), ms(10000 + 2 * (now - 1000)));
        expectEqual(SVTimebaseGetTime(b.get()), ms(98000 + now));
        expectEqual(SVTimebaseGetTime(c.get()), ms(2000 - now));
    }
    // Stopping the middle freezes what is below it (effective rate -1 x 0).
    clock.set(4000);
    ASSERT_EQ(SVTimebaseSetRate(b.get(), 0.0), 0);
    clock.set(9000);
    expectEqual(SVTimebaseGetTime(c.get()), ms(-2000));
    EXPECT_TRUE(SVTimebaseGetEffectiveRate(c.get()) == 0.0 && SVTimebaseGetRate(c.get()) == -1.0);
    ASSERT_EQ(SVTimebaseSetTime(b.get(), seconds(40)), 0);  // the stopped middle jumps, and the child with it
    expectEqual(SVTimebaseGetTime(c.get()), ms(60000));
    ASSERT_EQ(SVTimebaseSetRate(b.get(), 4.0), 0);
    clock.set(9500);
    expectEqual(SVTimebaseGetTime(c.get()), ms(56000));  // b: 4 x 2 x 0.5 s on
    EXPECT_EQ(SVTimebaseGetEffectiveRate(c.get()), -8.0);
}

// How often each call reads its master, visible through any clock.  The
// rate setter reads twice (the time to keep, then the master time to anchor
// it at), so on a clock that moves on every read the timebase loses a step.
TEST(SVTimebase, ReadsOfTheMasterPerCall) {
    ManualClock clock;
    Timebase tb = onClock(clock.get());
    EXPECT_EQ(clock.reads(), 1) << "creation";
    SVTime time;
    Float64 rate;
    std::pair<std::function<void()>, int> cases[] = {
        {[&] { SVTimebaseGetTime(tb.get()); }, 1},
        {[&] { SVTimebaseGetTimeAndRate(tb.get(), &time, &rate); }, 1},
        {[&] { SVTimebaseGetTimeAndRate(tb.get(), nullptr, &rate); }, 0},
        {[&] { SVTimebaseGetEffectiveRate(tb.get()); }, 0},
        {[&] { SVTimebaseSetRate(tb.get(), 3.0); }, 2},
        {[&] { SVTimebaseSetTime(tb.get(), seconds(1)); }, 1},
        {[&] { SVTimebaseSetAnchorTime(tb.get(), seconds(1), seconds(1)); }, 0},
        {[&] { SVTimebaseSetRateAndAnchorTime(tb.get(), 2.0, seconds(1), seconds(1)); }, 0},
    };
    for (size_t i = 0; i < std::size(cases); i++) {
        int before = clock.reads();
        cases[i].first();
        EXPECT_EQ(clock.reads() - before, cases[i].second) << "case " << i;
    }
    ManualClock ticking(100, true);
    Timebase moving = onClock(ticking.get());             // read at 100
    ASSERT_EQ(SVTimebaseSetRate(moving.get(), 1.0), 0);   // time 0 read at 101, anchored at 102
    expectEqual(SVTimebaseGetTime(moving.get()), ms(1));  // read at 103
}

// Which calls post which notification.
TEST(SVTimebase, NotificationRules) {
    Recorder recorder;  // observing first, it sees each post before the re-posts it causes
    ManualClock clock(1000);
    Timebase master = onClock(clock.get()), child = onTimebase(master.get()), grandchild = onTimebase(child.get());
    SVTimebaseRef m = master.get(), c = child.get(), g = grandchild.get();
    recorder.take();
    // Anchors that leave g's unchanged, while g runs at rate 4 under child.
    auto sameAnchors = [&] {
        SVTime time = SVTimeMultiplyByFloat64(SVTimeSubtract(seconds(4), readState(g).masterAnchor), 4.0);
        SVTimebaseSetAnchorTime(g, time, seconds(4));
    };
    struct Step {
        const char *name;
        std::function<void()> action;
        std::vector<Recorder::Post> expected;
    } steps[] = {
        {"starts under a stopped master",
         [&] {
             SVTimebaseSetRate(c, 1.0);
             SVTimebaseSetRate(g, 1.0);
         },
         {}},
        {"master starts: re-posted down", [&] { SVTimebaseSetRate(m, 1.0); }, {{'r', m}, {'r', c}, {'r', g}}},
        {"the same rate again", [&] { SVTimebaseSetRate(m, 1.0); }, {}},
        {"master jumps", [&] { SVTimebaseSetTime(m, seconds(5)); }, {{'j', m}, {'j', c}, {'j', g}}},
        {"running: a jump to where it is", [&] { SVTimebaseSetTime(g, SVTimebaseGetTime(g)); }, {{'j', g}}},
        {"running: the same anchors",
         [&] { SVTimebaseSetAnchorTime(c, seconds(0), readState(c).masterAnchor); },
         {{'j', c}, {'j', g}}},
        {"child stops", [&] { SVTimebaseSetRate(c, 0.0); }, {{'r', c}, {'r', g}}},
        {"a stopped child re-posts nothing", [&] { SVTimebaseSetRate(m, 2.0); }, {{'r', m}}},
        {"nor does its child", [&] { SVTimebaseSetTime(m, seconds(1)); }, {{'j', m}}},
        {"rate under a stopped master", [&] { SVTimebaseSetRate(g, 4.0); }, {}},
        {"stopped: set to the time it shows", [&] { SVTimebaseSetTime(c, SVTimebaseGetTime(c)); }, {}},
        {"stopped: moved", [&] { SVTimebaseSetTime(c, seconds(9)); }, {{'j', c}, {'j', g}}},
        {"effectively stopped: anchors unchanged", sameAnchors, {}},
        {"rate and anchor: the rate first",
         [&] { SVTimebaseSetRateAndAnchorTime(c, 1.0, seconds(0), seconds(0)); },
         {{'r', c}, {'r', g}, {'j', c}, {'j', g}}},
        {"rate and anchor, same rate",
         [&] { SVTimebaseSetRateAndAnchorTime(c, 1.0, seconds(0), seconds(0)); },
         {{'j', c}, {'j', g}}},
    };
    for (const Step &step : steps) {
        step.action();
        EXPECT_EQ(recorder.take(), step.expected) << step.name;
    }
    // Released children stop observing (and no freed memory is touched).
    grandchild.reset();
    child.reset();
    SVTimebaseSetRate(m, 5.0);
    EXPECT_EQ(recorder.take(), (std::vector<Recorder::Post>{{'r', m}}));
}

// The combined setter posts the rate change before it sets the anchors:
// its observers see the new rate over the old master anchor, and a stop
// not yet given its time.
TEST(SVTimebase, RateAndAnchorShowsProvisionalAnchorsToRateObservers) {
    ManualClock clock(10000);
    Timebase tb = onClock(clock.get());
    ASSERT_EQ(SVTimebaseSetRateAndAnchorTime(tb.get(), 1.0, seconds(0), seconds(0)), 0);  // tb = clock
    Recorder recorder;
    std::vector<SVTime> seen;
    recorder.hook = [&] { seen.push_back(SVTimebaseGetTime(tb.get())); };
    ASSERT_EQ(SVTimebaseSetRateAndAnchorTime(tb.get(), 2.0, seconds(100), seconds(10)), 0);
    ASSERT_EQ(SVTimebaseSetRateAndAnchorTime(tb.get(), 0.0, seconds(5), seconds(10)), 0);
    ASSERT_EQ(seen.size(), 4u);
    expectEqual(seen[0], seconds(20));  // (10 - 0) x 2
    expectEqual(seen[1], seconds(100));
    expectInvalid(seen[2]);
    expectEqual(seen[3], seconds(5));
}

TEST(SVTimebase, MisuseReturnsStatusesAndLogs) {
    ManualClock clock;
    Timebase tb = onClock(clock.get());
    SVTimebaseRef out = nullptr, garbage = reinterpret_cast<SVTimebaseRef>(uintptr_t{0x10});
    SVTimebaseRef notATimebase = reinterpret_cast<SVTimebaseRef>(clock.get());
    TestAllocator failing;
    failing.failAlways();
    constexpr OSStatus kMissing = kSVTimebaseError_MissingRequiredParameter;
    std::tuple<const char *, std::function<OSStatus()>, OSStatus> cases[] = {
        {"SVTimebaseCreateWithMasterClock", [&] { return SVTimebaseCreateWithMasterClock(nullptr, nullptr, &out); },
         kMissing},
        {"SVTimebaseCreateWithMasterTimebase",
         [&] { return SVTimebaseCreateWithMasterTimebase(nullptr, nullptr, &out); }, kMissing},
        {"SVTimebaseCreateWithMasterTimebase",
         [&] { return SVTimebaseCreateWithMasterTimebase(failing.get(), tb.get(), &out); },
         kSVTimebaseError_AllocationFailed},
        {"SVTimebaseCreateWithMasterClock",
         [&] { return SVTimebaseCreateWithMasterClock(nullptr, clock.get(), nullptr); }, kMissing},
        {"SVTimebaseGetTimeAndRate", [&] { return SVTimebaseGetTimeAndRate(nullptr, nullptr, nullptr); }, kMissing},
        {"SVTimebaseSetRate", [&] { return SVTimebaseSetRate(notATimebase, 1.0); }, kMissing},
        {"SVTimebaseSetTime", [&] { return SVTimebaseSetTime(nullptr, kSVTimeZero); }, kMissing},
        {"SVTimebaseSetAnchorTime", [&] { return SVTimebaseSetAnchorTime(nullptr, kSVTimeZero, kSVTimeZero); },
         kMissing},
        {"SVTimebaseSetRateAndAnchorTime",
         [&] { return SVTimebaseSetRateAndAnchorTime(notATimebase, 1.0, kSVTimeZero, kSVTimeZero); }, kMissing},
    };
    for (size_t i = 0; i < std::size(cases); i++) {
        auto &[function, call, status] = cases[i];
        LogCapture log;
        out = garbage;
        EXPECT_EQ(call(), status) << function;
        EXPECT_EQ(out, i < 3 ? nullptr : garbage) << "the creation calls given an output clear it";
        ASSERT_EQ(log.count(), 1u) << function;
        sorvel_test::LogLine line = log.lines()[0];
        EXPECT_TRUE(line.level == 3 && line.function == function && line.path == "Sorvel/Sources/SVTimebase")
            << line.level << " " << line.function << " [" << line.path << "]";
    }
    EXPECT_EQ(failing.failures(), 1);
    for (SVTimebaseRef bad : {static_cast<SVTimebaseRef>(nullptr), notATimebase}) {
        expectInvalid(SVTimebaseGetTime(bad));
        expectInvalid(SVTimebaseGetTimeWithTimeScale(bad, 10, kSVTimeRoundingMethod_Default));
        EXPECT_TRUE(SVTimebaseGetRate(bad) == 0.0 && SVTimebaseGetEffectiveRate(bad) == 0.0);
        EXPECT_TRUE(!SVTimebaseGetMaster(bad) && !SVTimebaseGetMasterClock(bad) && !SVTimebaseGetMasterTimebase(bad) &&
                    !SVTimebaseGetUltimateMasterClock(bad));
    }
}

// Reading in another timescale and with the rate; masters that are
// invalidated or neither clock nor timebase.
TEST(SVTimebase, OtherReadingsAndBrokenMasters) {
    ManualClock clock(5000);
    Timebase tb = onClock(clock.get());
    ASSERT_EQ(SVTimebaseSetTime(tb.get(), SVTimeMake(1, 3)), 0);
    SVTime time = SVTimebaseGetTimeWithTimeScale(tb.get(), 10, kSVTimeRoundingMethod_RoundAwayFromZero);
    EXPECT_TRUE(time.value == 4 && time.timescale == 10 && time.flags == 3) << describe(time);
    ASSERT_EQ(SVTimebaseSetRateAndAnchorTime(tb.get(), -0.5, seconds(3), seconds(7)), 0);
    Float64 rate = 0;
    EXPECT_EQ(SVTimebaseGetTimeAndRate(tb.get(), &time, &rate), 0);
    expectEqual(time, seconds(4));
    EXPECT_EQ(rate, -0.5);
    SVClockInvalidate(clock.get());
    ASSERT_EQ(SVTimebaseSetRate(tb.get(), 0.0), 0);  // frozen at the invalid time it read
    expectInvalid(SVTimebaseGetTime(tb.get()));
    ASSERT_EQ(SVTimebaseSetTime(tb.get(), seconds(3)), 0);
    expectInvalid(SVTimebaseGetTime(tb.get()));  // stopped or not, computed from the master's time
    SVTimebaseRef odd = nullptr;
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, (SVClockRef)CFSTR("not a clock"), &odd), 0);
    ASSERT_EQ(SVTimebaseSetRate(odd, 1.0), 0);
    expectInvalid(SVTimebaseGetTime(odd));
    EXPECT_TRUE(!SVTimebaseGetMasterClock(odd) && !SVTimebaseGetUltimateMasterClock(odd));
    EXPECT_TRUE(std::isnan(SVTimebaseGetEffectiveRate(odd)));
    CFRelease(odd);
}

TEST(SVTimebase, HostClockTimebaseInRealTime) {
    Timebase tb = onClock(SVClockGetHostTimeClock());
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    expectEqual(SVTimebaseGetTime(tb.get()), kSVTimeZero);
    ASSERT_EQ(SVTimebaseSetRate(tb.get(), 1.0), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    double running = SVTimeGetSeconds(SVTimebaseGetTime(tb.get()));
    EXPECT_TRUE(running >= 0.020 && running < 10.0) << running;  // generous: a loaded machine stalls
    ASSERT_EQ(SVTimebaseSetRate(tb.get(), 0.0), 0);
    SVTime frozen = SVTimebaseGetTime(tb.get());
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    SVTime later = SVTimebaseGetTime(tb.get());
    EXPECT_EQ(memcmp(&frozen, &later, sizeof frozen), 0);
    EXPECT_EQ(frozen.timescale, 1000000000);
}

// Two writers change the rate of a timebase whose clock stands still, which
// keeps its time at 100 s whatever the rate; a reader mixing the rate of one
// state with the anchor of another would see some other time.
TEST(SVTimebase, ReadersSeeWholeStatesWhileWritersChangeTheRate) {
    ManualClock clock(10000);
    Timebase tb = onClock(clock.get());
    ASSERT_EQ(SVTimebaseSetRateAndAnchorTime(tb.get(), 2.0, seconds(100), seconds(10)), 0);
    std::atomic<int> writing{2}, readers{0}, wrong{0}, reads{0};
    std::vector<std::thread> threads;
    // Writers start only once both readers run, so the reads overlap the
    // writes however the threads are scheduled.
    for (double rate : {4.0, 0.25})
        threads.emplace_back([&, rate] {
            while (readers < 2) std::this_thread::yield();
            for (int i = 0; i < 5000; i++) SVTimebaseSetRate(tb.get(), (i & 1) ? 2.0 : rate);
            writing--;
        });
    for (int r = 0; r < 2; r++)
        threads.emplace_back([&] {
            readers++;
            SVTime time;
            do {
                SVTimebaseGetTimeAndRate(tb.get(), &time, nullptr);
                if (SVTimeCompare(time, seconds(100)) || SVTimeCompare(SVTimebaseGetTime(tb.get()), seconds(100)))
                    wrong++;
                reads++;
            } while (writing > 0);
        });
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_GT(reads.load(), 0);
}

TEST(SVTimebaseDeathTest, CopyCallsAreNotYetImplemented) {
    ManualClock clock;
    Timebase tb = onClock(clock.get());
    EXPECT_DEATH(SVTimebaseCopyMaster(tb.get()),
                 "2 SVTimebaseCopyMaster \\[Sorvel/Sources/SVTimebase:[0-9]+\\] NOT YET IMPLEMENTED");
    EXPECT_DEATH(SVTimebaseCopyMasterClock(tb.get()), "SVTimebaseCopyMasterClock .*NOT YET IMPLEMENTED");
    EXPECT_DEATH(SVTimebaseCopyMasterTimebase(tb.get()), "SVTimebaseCopyMasterTimebase .*NOT YET IMPLEMENTED");
    EXPECT_DEATH(SVTimebaseCopyUltimateMasterClock(nullptr), "SVTimebaseCopyUltimateMasterClock .*NOT YET IMPLEMENTED");
    EXPECT_DEATH(SVTimebaseNotificationBarrier(tb.get()), "SVTimebaseNotificationBarrier .*NOT YET IMPLEMENTED");
}

}  // namespace
