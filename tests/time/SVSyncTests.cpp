// SPDX-License-Identifier: Apache-2.0
// Synchronisation queries over clocks whose time the test sets: conversions
// along a chain of rates 2, 0.5 and -1 (exact, with round trips over random
// times), the nearest shared ancestor, stopped timebases, sources without a
// shared ancestor, relative rates and anchor pairs, drift, and objects that
// are neither clocks nor timebases.

#include <Sorvel/SVSync.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>

namespace {

class ManualClock {
public:
    explicit ManualClock(int64_t ms = 0) : now_(ms) {
        std::atomic<int64_t> *now = &now_;
        clock_ = _SVClockCreateWithBlock(nullptr, ^SVTime(void) {
          return SVTimeMake(now->load(), 1000);
        });
    }
    ~ManualClock() { CFRelease(clock_); }
    SVClockRef get() const { return clock_; }

private:
    std::atomic<int64_t> now_;
    SVClockRef clock_;
};

struct Releaser {
    void operator()(const void *object) const { CFRelease(object); }
};
using Timebase = std::unique_ptr<OpaqueSVTimebase, Releaser>;

// A timebase on `master` reading `time` when the master reads `masterTime`.
Timebase timebase(CFTypeRef master, double rate, SVTime time, SVTime masterTime) {
    SVTimebaseRef made = nullptr;
    if (CFGetTypeID(master) == SVClockGetTypeID())
        EXPECT_EQ(SVTimebaseCreateWithMasterClock(nullptr, (SVClockRef)master, &made), 0);
    else
        EXPECT_EQ(SVTimebaseCreateWithMasterTimebase(nullptr, (SVTimebaseRef)master, &made), 0);
    EXPECT_EQ(SVTimebaseSetRateAndAnchorTime(made, rate, time, masterTime), 0);
    return Timebase(made);
}

SVTime seconds(int64_t value) {
    return SVTimeMake(value, 1);
}
std::string describe(SVTime t) {
    return std::to_string(t.value) + "/" + std::to_string(t.timescale) + " flags " + std::to_string(t.flags);
}
void expectEqual(SVTime time, SVTime expected) {
    EXPECT_TRUE(SVTIME_IS_NUMERIC(time) && SVTimeCompare(time, expected) == 0)
        << describe(time) << " is not " << describe(expected);
}
void expectInvalid(SVTime time) {
    EXPECT_TRUE(time.flags == 0 && time.timescale == 0) << describe(time);
}

// clock -> a (rate 2) -> b (rate 0.5) -> c (rate -1): a = 10 + 2 (clock - 1),
// b = 100 + 0.5 (a - 12) = 98 + clock, c = 100 - b = 2 - clock (seconds).
struct Chain {
    ManualClock clock{1000};
    Timebase a = timebase(clock.get(), 2.0, seconds(10), seconds(1));
    Timebase b = timebase(a.get(), 0.5, seconds(100), seconds(12));
    Timebase c = timebase(b.get(), -1.0, seconds(0), seconds(100));
};

TEST(SVSync, ConvertsUpAndDownAChainExactly) {
    Chain chain;
    CFTypeRef clock = chain.clock.get(), a = chain.a.get(), b = chain.b.get(), c = chain.c.get();
    // One instant on every timeline: clock 3 s, a 14 s, b 101 s, c -1 s.
    std::pair<CFTypeRef, SVTime> points[] = {
        {clock, seconds(3)}, {a, seconds(14)}, {b, seconds(101)}, {c, seconds(-1)}};
    for (auto [from, fromTime] : points)
        for (auto [to, toTime] : points) expectEqual(SVSyncConvertTime(fromTime, from, to), toTime);
    // Round trips over random times up to a year either side.
    std::mt19937_64 random(7);
    for (int i = 0; i < 300; i++) {
        SVTime time = SVTimeMake(static_cast<int64_t>(random() % 37843200001) - 18921600000, 600);
        SVTime onC = SVSyncConvertTime(time, clock, c);
        expectEqual(onC, SVTimeSubtract(seconds(2), time));
        expectEqual(SVSyncConvertTime(onC, c, clock), time);
        expectEqual(SVSyncConvertTime(SVSyncConvertTime(time, a, c), c, a), time);
    }
    // A source converted to itself is the identity, for any time and source.
    ASSERT_EQ(SVTimebaseSetRate(chain.b.get(), 0.0), 0);
    for (CFTypeRef source : {clock, b, CFTypeRef(CFSTR("neither"))})
        for (SVTime time : {SVTimeMakeWithEpoch(1, 3, 9), kSVTimeInvalid, kSVTimePositiveInfinity}) {
            SVTime same = SVSyncConvertTime(time, source, source);
            EXPECT_EQ(memcmp(&same, &time, sizeof time), 0);
        }
}

// Rate 2 and rate 0 on the host clock, anchored at zero.
TEST(SVSync, RateTwoAndRateZeroOnTheHostClock) {
    SVClockRef host = SVClockGetHostTimeClock();
    Timebase twice = timebase(host, 2.0, kSVTimeZero, kSVTimeZero);
    Timebase stopped = timebase(host, 0.0, seconds(3), kSVTimeZero);
    expectEqual(SVSyncConvertTime(seconds(10), twice.get(), host), seconds(5));
    expectEqual(SVSyncConvertTime(seconds(10), host, twice.get()), seconds(20));
    expectInvalid(SVSyncConvertTime(seconds(10), stopped.get(), host));
    expectEqual(SVSyncConvertTime(seconds(10), host, stopped.get()), seconds(3));
    struct Case {
        CFTypeRef of, relativeTo;
        double rate;  // NaN: a stopped divisor
    } cases[] = {{twice.get(), host, 2.0},
                 {host, twice.get(), 0.5},
                 {stopped.get(), host, 0.0},
                 {host, stopped.get(), NAN},
                 {twice.get(), stopped.get(), NAN}};
    for (const Case &k : cases) {
        double rate = SVSyncGetRelativeRate(k.of, k.relativeTo);
        EXPECT_TRUE(rate == k.rate || (std::isnan(k.rate) && std::isnan(rate))) << rate;
    }
}

// Siblings under a stopped parent convert through the parent (their nearest
// shared ancestor), while neither converts up to the clock.
TEST(SVSync, ConvertsThroughTheNearestSharedAncestor) {
    ManualClock clock(0);
    Timebase parent = timebase(clock.get(), 0.0, seconds(50), kSVTimeZero);
    Timebase left = timebase(parent.get(), 2.0, seconds(0), seconds(50));    // 2 (parent - 50)
    Timebase right = timebase(parent.get(), -0.5, seconds(7), seconds(50));  // 7 - (parent - 50) / 2
    Timebase cousin = timebase(clock.get(), 4.0, kSVTimeZero, kSVTimeZero);
    expectEqual(SVSyncConvertTime(seconds(4), left.get(), right.get()), seconds(6));
    expectEqual(SVSyncConvertTime(seconds(6), right.get(), left.get()), seconds(4));
    EXPECT_EQ(SVSyncGetRelativeRate(left.get(), right.get()), -4.0);
    expectInvalid(SVSyncConvertTime(seconds(4), left.get(), clock.get()));
    expectInvalid(SVSyncConvertTime(seconds(4), left.get(), cousin.get()));
    expectEqual(SVSyncConvertTime(seconds(123), cousin.get(), left.get()), seconds(0));  // the frozen parent
    EXPECT_EQ(SVSyncGetRelativeRate(left.get(), cousin.get()), 0.0);
    EXPECT_TRUE(std::isnan(SVSyncGetRelativeRate(cousin.get(), left.get())));
}

TEST(SVSync, RelativeRatesAndAnchorsAlongTheChain) {
    Chain chain;
    CFTypeRef clock = chain.clock.get(), a = chain.a.get(), b = chain.b.get(), c = chain.c.get();
    struct Case {
        CFTypeRef of, relativeTo;
        double rate;
    } cases[] = {{a, clock, 2.0}, {clock, a, 0.5}, {b, clock, 1.0}, {clock, c, -1.0},
                 {b, a, 0.5},     {a, b, 2.0},     {c, a, -0.5},    {c, c, 1.0}};
    for (const Case &k : cases) {
        Float64 rate = 0;
        SVTime ofAnchor = kSVTimeInvalid, relativeAnchor = kSVTimeInvalid;
        EXPECT_EQ(SVSyncGetRelativeRate(k.of, k.relativeTo), k.rate);
        ASSERT_EQ(SVSyncGetRelativeRateAndAnchorTime(k.of, k.relativeTo, &rate, &ofAnchor, &relativeAnchor), 0);
        EXPECT_EQ(rate, k.rate);
        // The pair is taken at zero on the relative-to source.
        EXPECT_EQ(memcmp(&relativeAnchor, &kSVTimeZero, sizeof relativeAnchor), 0);
        expectEqual(ofAnchor, SVSyncConvertTime(kSVTimeZero, k.relativeTo, k.of));
    }
    SVTime anchor = kSVTimeInvalid;
    ASSERT_EQ(SVSyncGetRelativeRateAndAnchorTime(c, clock, nullptr, &anchor, nullptr), 0);
    expectEqual(anchor, seconds(2));
}

// Sources on different clocks share no ancestor: the clocks are taken to
// run together, and times convert through the sources' current times.
TEST(SVSync, SourcesOnDifferentClocksGoThroughTheirCurrentTimes) {
    ManualClock first(10000), second(3000);
    Timebase fast = timebase(first.get(), 2.0, seconds(100), seconds(10));  // reads 100 s now
    Timebase stopped = timebase(second.get(), 0.0, seconds(1), kSVTimeZero);
    EXPECT_EQ(SVSyncGetRelativeRate(first.get(), second.get()), 1.0);
    expectEqual(SVSyncConvertTime(seconds(12), first.get(), second.get()), seconds(5));
    EXPECT_EQ(SVSyncGetRelativeRate(fast.get(), second.get()), 2.0);
    expectEqual(SVSyncConvertTime(seconds(104), fast.get(), second.get()), seconds(5));
    expectEqual(SVSyncConvertTime(seconds(5), second.get(), fast.get()), seconds(104));
    expectInvalid(SVSyncConvertTime(seconds(1), stopped.get(), first.get()));
    expectEqual(SVSyncConvertTime(seconds(50), first.get(), stopped.get()), seconds(1));
    EXPECT_EQ(SVSyncGetRelativeRate(stopped.get(), first.get()), 0.0);
    EXPECT_TRUE(std::isnan(SVSyncGetRelativeRate(first.get(), stopped.get())));
    EXPECT_FALSE(SVSyncMightDrift(fast.get(), stopped.get()));
    EXPECT_FALSE(SVSyncMightDrift(first.get(), SVClockGetHostTimeClock()));
}

TEST(SVSync, NeitherClockNorTimebaseGivesNeutralResults) {
    Chain chain;
    CFTypeRef clock = chain.clock.get(), c = chain.c.get();
    expectEqual(SVSyncGetTime(clock), seconds(1));
    expectEqual(SVSyncGetTime(c), seconds(1));
    for (CFTypeRef bad : {CFTypeRef(CFSTR("neither")), CFTypeRef(nullptr)}) {
        expectInvalid(SVSyncGetTime(bad));
        expectInvalid(SVSyncConvertTime(seconds(1), bad, clock));
        expectInvalid(SVSyncConvertTime(seconds(1), c, bad));
        EXPECT_TRUE(std::isnan(SVSyncGetRelativeRate(bad, c)) && std::isnan(SVSyncGetRelativeRate(c, bad)));
        EXPECT_FALSE(SVSyncMightDrift(bad, clock) || SVSyncMightDrift(c, bad));
    }
    Float64 rate = 42;
    SVTime first = seconds(42), second = seconds(42);
    for (auto [of, relativeTo] : {std::pair<CFTypeRef, CFTypeRef>{nullptr, clock}, {clock, nullptr}}) {
        EXPECT_EQ(SVSyncGetRelativeRateAndAnchorTime(of, relativeTo, &rate, &first, &second),
                  kSVSyncError_MissingRequiredParameter);
        EXPECT_TRUE(rate == 42 && first.value == 42 && second.value == 42) << "nothing written";
    }
    ASSERT_EQ(SVSyncGetRelativeRateAndAnchorTime(CFSTR("neither"), clock, &rate, &first, &second), 0);
    EXPECT_TRUE(std::isnan(rate));
    expectInvalid(first);
    // An invalidated clock keeps its place in the tree but has no time.
    SVClockInvalidate(chain.clock.get());
    expectInvalid(SVSyncGetTime(c));
    expectEqual(SVSyncConvertTime(seconds(3), clock, c), seconds(-1));
}

}  // namespace
