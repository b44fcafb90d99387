// Tests for the log-and-mutex library: the level gate and its cached module
// thresholds, the environment override, sink and standard-error output, the
// symbolised fatal stop, status formatting and the mutexes.
#include <XPLog/XPLog.h>

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <climits>
#include <cstdlib>
#include <latch>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <errno.h>
#include <unistd.h>

namespace {

constexpr const char *kTestPath = "Sorvel/tests/XPLogTests";

struct CapturedLine {
    int level;
    std::string function;
    std::string sourcePath;
    int line;
    std::string message;
};

// Collects what reaches the sink.  Its own lock keeps the test independent of
// the library's serialisation, which is tested separately.
struct Capture {
    std::mutex lock;
    std::vector<CapturedLine> lines;

    static void sink(int level, const char *function, const char *sourcePath, int line, const char *message,
                     void *context)
    {
        auto *capture = static_cast<Capture *>(context);
        std::lock_guard<std::mutex> guard(capture->lock);
        capture->lines.push_back({level, function, sourcePath, line, message});
    }
};

// Every test that touches the process threshold or the sink puts them back.
class XPLogTest : public testing::Test {
protected:
    void SetUp() override
    {
        savedThreshold_ = XPLogGetThreshold();
        XPLogSetSink(nullptr, nullptr);
    }
    void TearDown() override
    {
        XPLogSetSink(nullptr, nullptr);
        XPLogSetThreshold(savedThreshold_);
    }

private:
    int savedThreshold_ = 3;
};

// What each module's inline helper does: trust the cached threshold, ask the
// library only while it is undetermined.
bool logThroughModule(XPLogModule *module, int level, const char *message)
{
    int threshold = __atomic_load_n(&module->threshold, __ATOMIC_RELAXED);
    bool enabled = threshold == 0 ? XPLogDetermineLogLevel(level, module, kTestPath, "logThroughModule", 7) != 0
                                  : level <= threshold;
    if (enabled)
        XPLogS(level, module, "logThroughModule", kTestPath, 7, "%s", message);
    return enabled;
}

// Module records must outlive the process-wide list they are linked into.
XPLogModule gGateModule;
XPLogModule gFirstModule;
XPLogModule gSecondModule;

TEST_F(XPLogTest, GateEmitsExactlyTheLevelsAtOrBelowTheThreshold)
{
    struct Case {
        int threshold;
        int level;
        bool emitted;
    };
    const Case cases[] = {
        {1, 3, false}, {2, 3, false}, {3, 3, true}, {4, 3, true}, {5, 3, true},
        {3, 4, false}, {0, 1, false}, {5, 5, true}, {4, 5, false}, {1, 1, true},
    };
    Capture capture;
    XPLogSetSink(Capture::sink, &capture);
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "threshold " << c.threshold << ", level " << c.level);
        XPLogSetThreshold(c.threshold);
        capture.lines.clear();
        // The second call takes the cached path (unless the threshold is 0,
        // which stays undetermined and keeps asking).
        EXPECT_EQ(logThroughModule(&gGateModule, c.level, "first"), c.emitted);
        EXPECT_EQ(gGateModule.threshold, c.threshold);
        EXPECT_EQ(logThroughModule(&gGateModule, c.level, "second"), c.emitted);
        EXPECT_EQ(capture.lines.size(), c.emitted ? 2u : 0u);
    }
}

TEST_F(XPLogTest, NullModuleGetsADecisionWithoutCaching)
{
    XPLogSetThreshold(2);
    EXPECT_EQ(XPLogDetermineLogLevel(2, nullptr, kTestPath, "f", 1), 1);
    EXPECT_EQ(XPLogDetermineLogLevel(3, nullptr, kTestPath, "f", 1), 0);
}

TEST_F(XPLogTest, SetThresholdResetsEveryCachedModuleThreshold)
{
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

TEST_F(XPLogTest, SetThresholdClampsToTheValidRange)
{
    const std::pair<int, int> cases[] = {{INT_MIN, 0}, {-1, 0}, {0, 0}, {1, 1}, {5, 5}, {6, 5}, {INT_MAX, 5}};
    for (auto [requested, expected] : cases) {
        XPLogSetThreshold(requested);
        EXPECT_EQ(XPLogGetThreshold(), expected) << "requested " << requested;
    }
}

// The environment is read once per process, so every case runs in a freshly
// started copy of this test binary and reports the threshold as exit code.
TEST(XPLogEnvironmentTest, XplogLevelSetsTheInitialThresholdWhenValid)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Case {
        const char *value; // nullptr: unset
        int threshold;
    };
    const Case cases[] = {
        {nullptr, 3}, {"0", 0}, {"1", 1}, {"4", 4}, {"5", 5}, {"6", 3}, {"-1", 3},
        {"", 3},      {"abc", 3}, {"2x", 3}, {"99999999999999999999", 3},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.value != nullptr ? c.value : "(unset)");
        EXPECT_EXIT(
            {
                if (c.value != nullptr)
                    setenv("XPLOG_LEVEL", c.value, 1);
                else
                    unsetenv("XPLOG_LEVEL");
                std::_Exit(XPLogGetThreshold());
            },
            testing::ExitedWithCode(c.threshold), "");
    }
}

TEST(XPLogEnvironmentTest, XplogLevelIsReadOnceAndSetThresholdOverridesIt)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("XPLOG_LEVEL", "5", 1);
            XPLogModule *module = new XPLogModule(); // leaked on purpose: records live forever
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

TEST(XPLogConcurrencyTest, ConcurrentDeterminationLinksEachRecordOnce)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            alarm(10);
            XPLogSetThreshold(3);
            constexpr int kThreads = 8;
            std::barrier sync(kThreads);
            std::vector<std::thread> threads;
            for (int t = 0; t < kThreads; ++t)
                threads.emplace_back([&sync] {
                    for (XPLogModule &module : gRacedModules) {
                        sync.arrive_and_wait();
                        XPLogDetermineLogLevel(3, &module, kTestPath, "race", 1);
                    }
                });
            for (std::thread &thread : threads)
                thread.join();
            XPLogSetThreshold(4);
            int stale = 0;
            for (XPLogModule &module : gRacedModules)
                stale += module.threshold != 0;
            if (stale != 0) {
                fprintf(stderr, "%d records were not reset\n", stale);
                std::_Exit(1);
            }
            std::_Exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(XPLogTest, SinkReceivesTheExactFieldsAndFormattedMessage)
{
    Capture capture;
    XPLogSetSink(Capture::sink, &capture);
    XPLogS(3, nullptr, "SVThingDo", "Sorvel/Sources/SVThing", 123, "status %d for '%s'", -12760, "queue");
    XPLogS(4, nullptr, nullptr, nullptr, 0, "no place");
    ASSERT_EQ(capture.lines.size(), 2u);
    const CapturedLine &first = capture.lines[0];
    EXPECT_EQ(first.level, 3);
    EXPECT_EQ(first.function, "SVThingDo");
    EXPECT_EQ(first.sourcePath, "Sorvel/Sources/SVThing");
    EXPECT_EQ(first.line, 123);
    EXPECT_EQ(first.message, "status -12760 for 'queue'");
    EXPECT_EQ(capture.lines[1].function, "");
    EXPECT_EQ(capture.lines[1].sourcePath, "");
    EXPECT_EQ(capture.lines[1].message, "no place");
}

TEST_F(XPLogTest, MessagesOfAnyLengthArriveWhole)
{
    Capture capture;
    XPLogSetSink(Capture::sink, &capture);
    // Lengths around the usual stack-buffer sizes and far beyond them.
    const size_t lengths[] = {0, 1, 255, 256, 1022, 1023, 1024, 1025, 4095, 4096, 4097, 100000};
    for (size_t length : lengths) {
        std::string body(length, 'x');
        for (size_t i = 0; i < length; i += 97)
            body[i] = static_cast<char>('a' + i % 26);
        XPLogS(3, nullptr, "f", "p", 1, "<%s>%d", body.c_str(), 42);
        ASSERT_FALSE(capture.lines.empty());
        EXPECT_EQ(capture.lines.back().message, "<" + body + ">42") << "length " << length;
    }
    EXPECT_EQ(capture.lines.size(), std::size(lengths));
}

TEST_F(XPLogTest, RemovingTheSinkRestoresStandardError)
{
    Capture capture;
    XPLogSetSink(Capture::sink, &capture);
    XPLogSetSink(nullptr, nullptr);
    testing::internal::CaptureStderr();
    XPLogS(3, nullptr, "f", "p", 2, "after removal");
    std::string output = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(capture.lines.empty());
    EXPECT_EQ(output, "3 f [p:2] after removal\n");
}

TEST_F(XPLogTest, StandardErrorLineFormat)
{
    std::string longMessage(5000, 'L');
    testing::internal::CaptureStderr();
    XPLogS(3, nullptr, "SVThingDo", "Sorvel/Sources/SVThing", 42, "value %d of %s", 7, "eight");
    XPLogS(5, nullptr, nullptr, nullptr, -1, "bare");
    XPLogS(4, nullptr, "f", "p", 9, "%s", longMessage.c_str());
    std::string output = testing::internal::GetCapturedStderr();
    EXPECT_EQ(output, "3 SVThingDo [Sorvel/Sources/SVThing:42] value 7 of eight\n"
                      "5  [:-1] bare\n"
                      "4 f [p:9] "
                          + longMessage + "\n");
}

TEST_F(XPLogTest, XPLogXWritesToStandardErrorAndToTheSink)
{
    Capture capture;
    XPLogSetSink(Capture::sink, &capture);
    testing::internal::CaptureStderr();
    XPLogX(2, "SVThingDo", "Sorvel/Sources/SVThing", 77, "BUG: about to stop");
    std::string output = testing::internal::GetCapturedStderr();
    EXPECT_EQ(output, "2 SVThingDo [Sorvel/Sources/SVThing:77] BUG: about to stop\n");
    ASSERT_EQ(capture.lines.size(), 1u);
    EXPECT_EQ(capture.lines[0].level, 2);
    EXPECT_EQ(capture.lines[0].line, 77);
    EXPECT_EQ(capture.lines[0].message, "BUG: about to stop");
}

// A fatal stop raised from inside a sink must still be reported, not hang on
// the sink's own lock.
TEST_F(XPLogTest, XPLogXFromInsideTheSinkReachesStandardError)
{
    static int calls;
    calls = 0;
    XPLogSetSink(
        [](int, const char *, const char *, int, const char *, void *) {
            ++calls;
            XPLogX(2, "inner", "p", 1, "from the sink");
        },
        nullptr);
    testing::internal::CaptureStderr();
    XPLogS(3, nullptr, "outer", "p", 1, "to the sink");
    std::string output = testing::internal::GetCapturedStderr();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(output, "2 inner [p:1] from the sink\n");
}

TEST_F(XPLogTest, SinkCallsNeverOverlap)
{
    static std::atomic<int> inside;
    static std::atomic<int> overlaps;
    static std::atomic<int> calls;
    inside = 0;
    overlaps = 0;
    calls = 0;
    XPLogSetSink(
        [](int, const char *, const char *, int, const char *, void *) {
            if (inside.fetch_add(1) != 0)
                overlaps.fetch_add(1);
            for (volatile int spin = 0; spin < 200; spin = spin + 1) {
            }
            calls.fetch_add(1);
            inside.fetch_sub(1);
        },
        nullptr);
    constexpr int kThreads = 4;
    constexpr int kLines = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < kLines; ++i)
                XPLogS(3, nullptr, "f", "p", i, "line %d", i);
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(calls.load(), kThreads * kLines);
    EXPECT_EQ(overlaps.load(), 0);
}

// Once XPLogSetSink(NULL) returns, the old sink must never run again, even
// while another thread keeps logging.
TEST_F(XPLogTest, RemovedSinkIsNotCalledAfterRemovalReturns)
{
    static std::atomic<bool> removed;
    static std::atomic<int> lateCalls;
    static std::atomic<int> calls;
    removed = false;
    lateCalls = 0;
    calls = 0;
    std::atomic<bool> stop{false};
    testing::internal::CaptureStderr();
    std::thread logger([&stop] {
        while (!stop.load())
            XPLogS(3, nullptr, "f", "p", 1, "busy");
    });
    XPLogSetSink(
        [](int, const char *, const char *, int, const char *, void *) {
            calls.fetch_add(1);
            usleep(50);
            if (removed.load())
                lateCalls.fetch_add(1);
        },
        nullptr);
    while (calls.load() < 20)
        std::this_thread::yield();
    XPLogSetSink(nullptr, nullptr);
    removed = true;
    usleep(20000);
    stop = true;
    logger.join();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(lateCalls.load(), 0);
}

// Each line goes out in one write, so lines from concurrent threads stay whole.
TEST_F(XPLogTest, ConcurrentStandardErrorLinesDoNotInterleave)
{
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    testing::internal::CaptureStderr();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            std::string payload(300, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i)
                XPLogS(3, nullptr, "writer", "p", t, "%s", payload.c_str());
        });
    for (std::thread &thread : threads)
        thread.join();
    std::istringstream output(testing::internal::GetCapturedStderr());
    int counts[kThreads] = {};
    std::string line;
    int malformed = 0;
    while (std::getline(output, line)) {
        bool matched = false;
        for (int t = 0; t < kThreads; ++t)
            if (line == "3 writer [p:" + std::to_string(t) + "] " + std::string(300, static_cast<char>('a' + t))) {
                ++counts[t];
                matched = true;
            }
        malformed += !matched;
    }
    EXPECT_EQ(malformed, 0);
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(counts[t], kLines) << "thread " << t;
}

TEST(XPFormatOSStatusTest, PrintableFourCharCodesAreQuotedOthersAreDecimal)
{
    struct Case {
        int32_t status;
        const char *text;
    };
    const Case cases[] = {
        {0x7761743f, "'wat?'"},
        {0x20202020, "'    '"},          // the lowest printable byte everywhere
        {0x7e7e7e7e, "'~~~~'"},          // the highest
        {0x1f616161, "526475617"},       // first byte just below printable
        {0x6161617f, "1633771903"},      // last byte DEL
        {0x61616180, "1633771904"},      // last byte above ASCII
        {0, "0"},
        {-1, "-1"},
        {-12760, "-12760"},
        {INT32_MIN, "-2147483648"},
        {INT32_MAX, "2147483647"},
    };
    for (const Case &c : cases) {
        char buffer[XP_OSSTATUS_STRING_SIZE];
        memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(_XPFormatOSStatus(buffer, c.status), buffer);
        EXPECT_STREQ(buffer, c.text) << "status " << c.status;
    }
}

[[gnu::noinline]] void StopInsideNamedTestFrame()
{
    XPAbortWithBacktrace();
}

TEST(XPAbortWithBacktraceTest, PrintsASymbolisedBacktraceAndAborts)
{
    EXPECT_DEATH(StopInsideNamedTestFrame(), "Backtrace:.*StopInsideNamedTestFrame");
}

TEST(XPMutexTest, RecursiveMutexCanBeTakenTwiceByOneThread)
{
    XPMutex mutex;
    XPMutexInitRecursive(&mutex);
    XPMutexAcquire(&mutex);
    XPMutexAcquire(&mutex);
    XPMutexRelease(&mutex);
    // Still held once: another thread must not get it.
    int attempt = 0;
    std::thread([&] {
        attempt = pthread_mutex_trylock(&mutex._mutex);
        if (attempt == 0)
            pthread_mutex_unlock(&mutex._mutex);
    }).join();
    EXPECT_EQ(attempt, EBUSY);
    XPMutexRelease(&mutex);
    std::thread([&] {
        attempt = pthread_mutex_trylock(&mutex._mutex);
        if (attempt == 0)
            pthread_mutex_unlock(&mutex._mutex);
    }).join();
    EXPECT_EQ(attempt, 0);
    XPMutexDestroy(&mutex);
}

TEST(XPMutexTest, NonRecursiveMutexExcludesOtherThreads)
{
    XPMutexRef mutex = XPMutexCreateNR();
    ASSERT_NE(mutex, nullptr);
    constexpr int kThreads = 4;
    constexpr int kIncrements = 50000;
    long counter = 0;
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (int i = 0; i < kIncrements; ++i) {
                XPMutexAcquire(mutex);
                // A separate load and store, so an unguarded section loses updates.
                long value = *static_cast<volatile long *>(&counter);
                *static_cast<volatile long *>(&counter) = value + 1;
                XPMutexRelease(mutex);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kIncrements);
    XPMutexFree(mutex);
    XPMutexFree(nullptr);
}

TEST(XPMutexTest, PthreadFailureIsAFatalStopNamingTheCall)
{
    // A recursive mutex checks ownership, so releasing one that is not held fails.
    EXPECT_DEATH(
        {
            XPMutex mutex;
            XPMutexInitRecursive(&mutex);
            XPMutexRelease(&mutex);
        },
        "XPMutexRelease .*pthread_mutex_unlock failed");
}

TEST(XPMutexTest, NullMutexIsAFatalStop)
{
    EXPECT_DEATH(XPMutexAcquire(nullptr), "XPMutexAcquire .*NULL mutex");
}

} // namespace
