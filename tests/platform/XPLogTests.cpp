// SPDX-License-Identifier: Apache-2.0
// Tests for the log-and-mutex library: the level gate and its cached module
// thresholds, the environment override, sink and standard-error output, the
// symbolised fatal stop, status formatting and the mutexes.
#include <XPLog/XPLog.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <climits>
#include <cstdlib>
#include <latch>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr const char *kTestPath = "Sorvel/tests/XPLogTests";
using Lines = std::vector<std::string>;

// A sink that collects lines rendered as on standard error (only
// single-threaded tests use it).
void collectLine(int level, const char *function, const char *path, int line, const char *message, void *context) {
    static_cast<Lines *>(context)->push_back(std::to_string(level) + " " + function + " [" + path + ":" +
                                             std::to_string(line) + "] " + message);
}

template <typename Body>
std::string standardErrorOf(Body body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

template <typename Body>
void runThreads(int count, Body body) {
    std::vector<std::thread> threads;
    for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
    for (std::thread &thread : threads) thread.join();
}

// Every test that touches the process threshold or the sink puts them back.
class XPLogTest : public testing::Test {
protected:
    void SetUp() override {
        savedThreshold_ = XPLogGetThreshold();
        XPLogSetSink(nullptr, nullptr);
    }
    void TearDown() override {
        XPLogSetSink(nullptr, nullptr);
        XPLogSetThreshold(savedThreshold_);
    }
    void captureLines() { XPLogSetSink(collectLine, &lines); }

    Lines lines;

private:
    int savedThreshold_ = 3;
};

// What each module's inline helper does: trust the cached threshold, ask the
// library only while it is undetermined.
bool logThroughModule(XPLogModule *module, int level, const char *message) {
    int threshold = __atomic_load_n(&module->threshold, __ATOMIC_RELAXED);
    bool enabled = threshold == 0 ? XPLogDetermineLogLevel(level, module, kTestPath, "logThroughModule", 7) != 0
                                  : level <= threshold;
    if (enabled) XPLogS(level, module, "logThroughModule", kTestPath, 7, "%s", message);
    return enabled;
}

// Module records must outlive the process-wide list they are linked into.
XPLogModule gGateModule, gFirstModule, gSecondModule;

TEST_F(XPLogTest, GateEmitsExactlyTheLevelsAtOrBelowTheThreshold) {
    struct Case {
        int threshold, level;
        bool emitted;
    };
    const Case cases[] = {
        {1, 3, false}, {2, 3, false}, {3, 3, true}, {4, 3, true},  {5, 3, true},
        {3, 4, false}, {0, 1, false}, {5, 5, true}, {4, 5, false}, {1, 1, true},
    };
    captureLines();
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "threshold " << c.threshold << ", level " << c.level);
        XPLogSetThreshold(c.threshold);
        lines.clear();
        // The second call takes the cached path (unless the threshold is 0,
        // which stays undetermined and keeps asking).
        EXPECT_EQ(logThroughModule(&gGateModule, c.level, "first"), c.emitted);
        EXPECT_EQ(gGateModule.threshold, c.threshold);
        EXPECT_EQ(logThroughModule(&gGateModule, c.level, "second"), c.emitted);
        EXPECT_EQ(lines.size(), c.emitted ? 2u : 0u);
    }
}

TEST_F(XPLogTest, SetThresholdClampsAndResetsEveryCachedModuleThreshold) {
    const std::pair<int, int> clamps[] = {{INT_MIN, 0}, {-1, 0}, {0, 0}, {1, 1}, {5, 5}, {6, 5}, {INT_MAX, 5}};
    for (auto [requested, expected] : clamps) {
        XPLogSetThreshold(requested);
        EXPECT_EQ(XPLogGetThreshold(), expected) << "requested " << requested;
    }

    XPLogSetThreshold(3);
    EXPECT_EQ(XPLogDetermineLogLevel(4, &gFirstModule, kTestPath, "f", 1), 0);
    EXPECT_EQ(XPLogDetermineLogLevel(4, &gSecondModule, kTestPath, "f", 1), 0);
    ASSERT_EQ(gFirstModule.threshold, 3);
    ASSERT_EQ(gSecondModule.threshold, 3);
    XPLogSetThreshold(5);
    EXPECT_EQ(gFirstModule.threshold, 0);
    EXPECT_EQ(gSecondModule.threshold, 0);
    // Level 4 was dropped a moment ago; the same module now emits it.
    EXPECT_EQ(XPLogDetermineLogLevel(4, &gFirstModule, kTestPath, "f", 1), 1);
    EXPECT_EQ(gFirstModule.threshold, 5);
}

// The environment is read once per process, so every case runs in a freshly
// started copy of this test binary and reports the threshold as exit code.
TEST(XPLogEnvironmentTest, XplogLevelSetsTheInitialThresholdOnceWhenValid) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::pair<const char *, int> cases[] = {
        {nullptr, 3},
        {"0", 0},
        {"1", 1},
        {"4", 4},
        {"5", 5},
        {"6", 3},
        {"-1", 3},
        {"", 3},
        {"abc", 3},
        {"2x", 3},
        {"99999999999999999999", 3},
    };
    for (auto [value, threshold] : cases) {
        SCOPED_TRACE(value != nullptr ? value : "(unset)");
        EXPECT_EXIT(
            {
                value != nullptr ? setenv("XPLOG_LEVEL", value, 1) : unsetenv("XPLOG_LEVEL");
                std::_Exit(XPLogGetThreshold());
            },
            testing::ExitedWithCode(threshold), "");
    }
    // A later change of the variable is ignored; XPLogSetThreshold overrides
    // it.  (A NULL record gets a decision without anything being cached.)
    EXPECT_EXIT(
        {
            setenv("XPLOG_LEVEL", "5", 1);
            XPLogModule *module = new XPLogModule();  // leaked on purpose: records live forever
            int first = XPLogDetermineLogLevel(5, module, kTestPath, "f", 1);
            setenv("XPLOG_LEVEL", "1", 1);
            int second = XPLogDetermineLogLevel(5, nullptr, kTestPath, "f", 1);
            XPLogSetThreshold(2);
            int third = XPLogDetermineLogLevel(5, nullptr, kTestPath, "f", 1);
            std::_Exit(first == 1 && second == 1 && third == 0 && module->threshold == 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// Many threads determining one record at the same moment must link it once.
// A record linked twice turns the list into a cycle (XPLogSetThreshold would
// never return, so the alarm ends the child) or drops other records (left
// un-reset below).
XPLogModule gRacedModules[1024];

TEST(XPLogConcurrencyTest, ConcurrentDeterminationLinksEachRecordOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            alarm(10);
            XPLogSetThreshold(3);
            constexpr int kThreads = 8;
            std::barrier sync(kThreads);
            runThreads(kThreads, [&sync](int) {
                for (XPLogModule &module : gRacedModules) {
                    sync.arrive_and_wait();
                    XPLogDetermineLogLevel(3, &module, kTestPath, "race", 1);
                }
            });
            XPLogSetThreshold(4);
            int stale = 0;  // records left un-reset, reported as the exit code
            for (XPLogModule &module : gRacedModules) stale += module.threshold != 0;
            std::_Exit(stale < 255 ? stale : 255);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(XPLogTest, LinesReachStandardErrorOrTheSinkWithTheExactFields) {
    const std::string longMessage(5000, 'L');
    std::string output = standardErrorOf([&] {
        XPLogS(3, nullptr, "SVThingDo", "Sorvel/Sources/SVThing", 42, "value %d of %s", 7, "eight");
        XPLogS(5, nullptr, nullptr, nullptr, -1, "bare");
        XPLogS(4, nullptr, "f", "p", 9, "%s", longMessage.c_str());
    });
    EXPECT_EQ(output,
              "3 SVThingDo [Sorvel/Sources/SVThing:42] value 7 of eight\n"
              "5  [:-1] bare\n4 f [p:9] " +
                  longMessage + "\n");

    // A sink replaces standard error, except for XPLogX, which goes to both
    // since it is the last line before an abort.
    captureLines();
    output = standardErrorOf([] {
        XPLogS(3, nullptr, "SVThingDo", "Sorvel/Sources/SVThing", 123, "status %d for '%s'", -12760, "queue");
        XPLogS(4, nullptr, nullptr, nullptr, 0, "no place");
        XPLogX(2, "SVThingDo", "Sorvel/Sources/SVThing", 77, "BUG: about to stop");
    });
    EXPECT_EQ(output, "2 SVThingDo [Sorvel/Sources/SVThing:77] BUG: about to stop\n");
    EXPECT_EQ(lines, (Lines{"3 SVThingDo [Sorvel/Sources/SVThing:123] status -12760 for 'queue'", "4  [:0] no place",
                            "2 SVThingDo [Sorvel/Sources/SVThing:77] BUG: about to stop"}));

    XPLogSetSink(nullptr, nullptr);
    EXPECT_EQ(standardErrorOf([] { XPLogS(3, nullptr, "f", "p", 2, "after removal"); }), "3 f [p:2] after removal\n");
    EXPECT_EQ(lines.size(), 3u);
}

TEST_F(XPLogTest, MessagesOfAnyLengthArriveWhole) {
    captureLines();
    // Message lengths around the usual stack-buffer sizes and far beyond them.
    const size_t lengths[] = {4, 5, 255, 256, 257, 1023, 1024, 1025, 4095, 4096, 4097, 100000};
    for (size_t length : lengths) {
        std::string body(length - 4, 'x');  // the format adds four characters
        for (size_t i = 0; i < body.size(); i += 97) body[i] = static_cast<char>('a' + i % 26);
        XPLogS(3, nullptr, "f", "p", 1, "<%s>%d", body.c_str(), 42);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back(), "3 f [p:1] <" + body + ">42") << "length " << length;
    }
    EXPECT_EQ(lines.size(), std::size(lengths));
}

// A fatal stop raised from inside a sink must still be reported, not hang on
// the sink's own lock.
TEST_F(XPLogTest, XPLogXFromInsideTheSinkReachesStandardError) {
    static int calls;
    calls = 0;
    XPLogSetSink(
        [](int, const char *, const char *, int, const char *, void *) {
            ++calls;
            XPLogX(2, "inner", "p", 1, "from the sink");
        },
        nullptr);
    EXPECT_EQ(standardErrorOf([] { XPLogS(3, nullptr, "outer", "p", 1, "to the sink"); }),
              "2 inner [p:1] from the sink\n");
    EXPECT_EQ(calls, 1);
}

// Sink calls never overlap and none is lost; once XPLogSetSink(NULL)
// returns, the old sink never runs again, even while another thread keeps
// logging.  The sink sleeps so that calls are in flight when these happen.
TEST_F(XPLogTest, SinkCallsNeverOverlapAndEndWhenRemovalReturns) {
    static std::atomic<int> inside, overlaps, calls, lateCalls;
    static std::atomic<bool> removed;
    inside = overlaps = calls = lateCalls = 0;
    removed = false;
    XPLogSetSink(
        [](int, const char *, const char *, int, const char *, void *) {
            if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
            usleep(50);
            lateCalls.fetch_add(removed.load() ? 1 : 0);
            calls.fetch_add(1);
            inside.fetch_sub(1);
        },
        nullptr);
    constexpr int kThreads = 4, kLines = 500;
    runThreads(kThreads, [](int) {
        for (int i = 0; i < kLines; ++i) XPLogS(3, nullptr, "f", "p", i, "line %d", i);
    });
    EXPECT_EQ(calls.load(), kThreads * kLines);

    std::atomic<bool> stop{false};
    standardErrorOf([&] {
        std::thread logger([&stop] {
            while (!stop.load()) XPLogS(3, nullptr, "f", "p", 1, "busy");
        });
        while (calls.load() < kThreads * kLines + 20) std::this_thread::yield();
        XPLogSetSink(nullptr, nullptr);
        removed = true;
        usleep(20000);
        stop = true;
        logger.join();
    });
    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_EQ(lateCalls.load(), 0);
}

// Each line goes out in one write, so lines from concurrent threads stay whole.
TEST_F(XPLogTest, ConcurrentStandardErrorLinesDoNotInterleave) {
    constexpr int kThreads = 4, kLines = 200;
    auto lineOf = [](int t) { return "3 writer [p:" + std::to_string(t) + "] " + std::string(300, 'a' + t); };
    std::istringstream output(standardErrorOf([&] {
        runThreads(kThreads, [](int t) {
            std::string payload(300, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i) XPLogS(3, nullptr, "writer", "p", t, "%s", payload.c_str());
        });
    }));
    int counts[kThreads] = {}, malformed = 0;
    for (std::string line; std::getline(output, line);) {
        int t = line.size() > 12 ? line[12] - '0' : -1;
        if (t >= 0 && t < kThreads && line == lineOf(t))
            ++counts[t];
        else
            ++malformed;
    }
    EXPECT_EQ(malformed, 0);
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(counts[t], kLines) << "thread " << t;
}

TEST(XPFormatOSStatusTest, PrintableFourCharCodesAreQuotedOthersAreDecimal) {
    const std::pair<int32_t, const char *> cases[] = {
        // Printable means 0x20 to 0x7e in every byte: the edges, then one byte
        // just outside them (first below, last DEL, last above ASCII).
        {0x7761743f, "'wat?'"},
        {0x20202020, "'    '"},
        {0x7e7e7e7e, "'~~~~'"},
        {0x1f616161, "526475617"},
        {0x6161617f, "1633771903"},
        {0x61616180, "1633771904"},
        {0, "0"},
        {-1, "-1"},
        {-12760, "-12760"},
        {INT32_MIN, "-2147483648"},
        {INT32_MAX, "2147483647"},
    };
    for (auto [status, text] : cases) {
        char buffer[XP_OSSTATUS_STRING_SIZE];
        memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(_XPFormatOSStatus(buffer, status), buffer);
        EXPECT_STREQ(buffer, text) << "status " << status;
    }
}

[[gnu::noinline]] void StopInsideNamedTestFrame() {
    XPAbortWithBacktrace();
}

TEST(XPAbortWithBacktraceTest, PrintsASymbolisedBacktraceAndAborts) {
    EXPECT_DEATH(StopInsideNamedTestFrame(), "Backtrace:.*StopInsideNamedTestFrame");
}

TEST(XPMutexTest, RecursiveMutexCanBeTakenTwiceByOneThread) {
    XPMutex mutex;
    auto tryFromAnotherThread = [&mutex] {
        int result = 0;
        std::thread([&] {
            result = pthread_mutex_trylock(&mutex._mutex);
            if (result == 0) pthread_mutex_unlock(&mutex._mutex);
        }).join();
        return result;
    };
    XPMutexInitRecursive(&mutex);
    XPMutexAcquire(&mutex);
    XPMutexAcquire(&mutex);
    XPMutexRelease(&mutex);
    EXPECT_EQ(tryFromAnotherThread(), EBUSY);  // still held once
    XPMutexRelease(&mutex);
    EXPECT_EQ(tryFromAnotherThread(), 0);
    XPMutexDestroy(&mutex);
}

TEST(XPMutexTest, NonRecursiveMutexExcludesOtherThreads) {
    XPMutexRef mutex = XPMutexCreateNR();
    ASSERT_NE(mutex, nullptr);
    constexpr int kThreads = 4, kIncrements = 50000;
    long counter = 0;
    std::latch start(kThreads);
    runThreads(kThreads, [&](int) {
        start.arrive_and_wait();
        for (int i = 0; i < kIncrements; ++i) {
            XPMutexAcquire(mutex);
            // A separate load and store, so an unguarded section loses updates.
            long value = *static_cast<volatile long *>(&counter);
            *static_cast<volatile long *>(&counter) = value + 1;
            XPMutexRelease(mutex);
        }
    });
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kIncrements);
    XPMutexFree(mutex);
    XPMutexFree(nullptr);
}

TEST(XPMutexTest, MisuseIsAFatalStopNamingTheCall) {
    EXPECT_DEATH(XPMutexAcquire(nullptr), "XPMutexAcquire .*NULL mutex");
    // A recursive mutex checks ownership, so releasing one that is not held
    // makes pthread fail.
    EXPECT_DEATH(
        {
            XPMutex mutex;
            XPMutexInitRecursive(&mutex);
            XPMutexRelease(&mutex);
        },
        "XPMutexRelease .*pthread_mutex_unlock failed");
}

}  // namespace
