// SPDX-License-Identifier: Apache-2.0
// Clocks: the host time clock and its fatal misuse, clocks over a block
// (ownership, invalidation), the host-time conversions, and audio clocks on
// the built-in device and on a registered device whose crystal runs off its
// nominal rate, which a timebase on the audio clock shows as drift against
// one on the host clock.

#include <CoreAudio/AudioHardware.h>
#include <Sorvel/SVClock.h>
#include <Sorvel/SVSync.h>
#include <Sorvel/SVTimebase.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/TestAllocator.h"

namespace {

using sorvel_test::LogCapture;
using sorvel_test::TestAllocator;

void expectTime(SVTime time, int64_t value, int32_t timescale, uint32_t flags = kSVTimeFlags_Valid) {
    SVTime expected = {value, timescale, flags, 0};
    EXPECT_EQ(memcmp(&time, &expected, sizeof time), 0)
        << time.value << "/" << time.timescale << " flags " << time.flags << " epoch " << time.epoch;
}
void expectInvalid(SVTime time) {
    expectTime(time, 0, 0, 0);
}

void expectOneLogLine(const LogCapture &log, const char *function, const char *path) {
    ASSERT_EQ(log.count(), 1u);
    sorvel_test::LogLine line = log.lines()[0];
    EXPECT_EQ(line.level, 3);
    EXPECT_EQ(line.function, function);
    EXPECT_EQ(line.path, path);
}

// Counts live copies, to see a block's captures copied and destroyed.
struct Tracker {
    static inline std::atomic<int> live{0};
    Tracker() { live++; }
    Tracker(const Tracker &) { live++; }
    ~Tracker() { live--; }
};

// A registered output device whose counter runs `ratio` times its nominal
// rate against the host clock.
class DriftingDevice {
public:
    DriftingDevice(double nominalRate, double ratio) : rate_(nominalRate * ratio) {
        EXPECT_EQ(AudioHardwareRegisterOutputDevice(nominalRate, &id_), 0);
    }
    ~DriftingDevice() { AudioHardwareUnregisterOutputDevice(id_); }
    AudioDeviceID id() const { return id_; }
    // Ten seconds of reports, every 10 ms, up to now; sample 0 played at
    // origin.
    void play() {
        for (uint64_t host = origin, now = AudioGetCurrentHostTime(); host <= now; host += 10'000'000)
            report(static_cast<double>(host - origin) * rate_ / 1e9, host, 0);
    }
    // The counter standing still at `sample`.
    void hold(double sample) const { report(sample, AudioGetCurrentHostTime(), kAudioTimeStampRateScalarValid); }
    const uint64_t origin = AudioGetCurrentHostTime() - 10'000'000'000;

private:
    void report(double sample, uint64_t host, AudioTimeStampFlags extra) const {
        AudioTimeStamp stamp = {sample, host, 0, 0, {}, kAudioTimeStampSampleHostTimeValid | extra, 0};
        ASSERT_EQ(AudioDeviceReportTime(id_, &stamp), 0);
    }
    AudioDeviceID id_ = 0;
    double rate_;
};

// The host clock is one object, reads the monotonic counter (the one the
// audio hardware stamps reports with) in nanoseconds.
TEST(SVClock, HostClockIsOneObjectReadingTheMonotonicCounter) {
    std::vector<SVClockRef> seen(8);
    std::vector<std::thread> threads;
    for (SVClockRef &clock : seen) threads.emplace_back([&clock] { clock = SVClockGetHostTimeClock(); });
    for (std::thread &thread : threads) thread.join();
    SVClockRef host = SVClockGetHostTimeClock();
    for (SVClockRef clock : seen) EXPECT_EQ(clock, host);
    EXPECT_EQ(CFGetTypeID(host), SVClockGetTypeID());

    uint64_t before = AudioGetCurrentHostTime();
    SVTime now = SVClockGetTime(host), anchor, reference;
    uint64_t between = AudioGetCurrentHostTime();
    EXPECT_EQ(SVClockGetAnchorTime(host, &anchor, &reference), 0);
    uint64_t after = AudioGetCurrentHostTime();
    expectTime(now, now.value, 1000000000);
    EXPECT_TRUE(uint64_t(now.value) >= before && uint64_t(now.value) <= between);
    EXPECT_TRUE(uint64_t(anchor.value) >= between && uint64_t(anchor.value) <= after);
    EXPECT_EQ(memcmp(&anchor, &reference, sizeof anchor), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    double elapsed = SVTimeGetSeconds(SVTimeSubtract(SVClockGetTime(host), now));
    EXPECT_TRUE(elapsed >= 0.020 && elapsed < 10.0) << elapsed;  // generous: a loaded machine stalls

    expectTime(SVClockMakeHostTimeFromSystemUnits(123), 123, 1000000000);
    expectTime(SVClockMakeHostTimeFromSystemUnits(UINT64_MAX), -1, 1000000000);
    EXPECT_EQ(SVClockConvertHostTimeToSystemUnits(SVTimeMake(5, 1)), 5u) << "not rescaled, on purpose";
    EXPECT_EQ(SVClockConvertHostTimeToSystemUnits(SVTimeMake(-1, 1000000000)), UINT64_MAX);
    EXPECT_EQ(SVClockConvertHostTimeToSystemUnits({77, 0, 0, 0}), 77u) << "flags are not looked at";
}

// A clock runs its own copy of its block until invalidated, and releases
// the copy with the clock.
TEST(SVClock, BlockClockReadsItsSourceUntilInvalidated) {
    int live = Tracker::live;
    __block int calls = 0;
    __block SVTime source = SVTimeMake(1001, 30000);
    TestAllocator counting, failing;
    failing.failAlways();
    SVClockRef clock = nullptr;
    {
        Tracker tracker;
        SVClockTimeSourceBlock block = ^SVTime(void) {
          (void)tracker;
          calls++;
          return source;
        };
        EXPECT_EQ(_SVClockCreateWithBlock(failing.get(), block), nullptr);
        clock = _SVClockCreateWithBlock(counting.get(), block);
    }
    ASSERT_NE(clock, nullptr);
    EXPECT_EQ(Tracker::live, live + 1) << "the clock's copy outlives the stack block";
    expectTime(SVClockGetTime(clock), 1001, 30000);
    source = SVTimeMakeWithEpoch(7, 600, 3);
    SVTime anchor = kSVTimeInvalid, reference = kSVTimeInvalid;
    EXPECT_EQ(SVClockGetAnchorTime(clock, &anchor, &reference), 0);
    EXPECT_EQ(calls, 2) << "the anchor pair is one reading";
    EXPECT_TRUE(anchor.epoch == 3 && memcmp(&anchor, &reference, sizeof anchor) == 0);
    EXPECT_EQ(SVClockGetAnchorTime(clock, nullptr, nullptr), 0);
    SVClockInvalidate(clock);
    SVClockInvalidate(clock);
    expectInvalid(SVClockGetTime(clock));
    EXPECT_EQ(SVClockGetAnchorTime(clock, &anchor, &reference), 0);
    expectInvalid(anchor);
    expectInvalid(reference);
    EXPECT_EQ(calls, 3) << "an invalidated clock does not run its source";
    EXPECT_EQ(Tracker::live, live + 1) << "but keeps it";
    CFRelease(clock);
    EXPECT_EQ(Tracker::live, live);
    EXPECT_EQ(counting.outstanding(), 0);
    clock = _SVClockCreateWithBlock(nullptr, nullptr);
    expectInvalid(SVClockGetTime(clock));
    CFRelease(clock);
}

// A time source driven through its refcon: each reading advances it.
struct Counter {
    int calls = 0;
    int64_t value = 0;
};
SVTime counterTime(void *refcon) {
    Counter *counter = static_cast<Counter *>(refcon);
    counter->calls++;
    return SVTimeMake(counter->value++, 90000);
}

TEST(SVClock, FunctionClockReadsThroughItsRefconLikeTheBlockClock) {
    Counter viaFunction, viaBlock;
    Counter *blockCounter = &viaBlock;
    TestAllocator counting;
    SVClockRef functionClock = nullptr;
    ASSERT_EQ(_SVClockCreateWithFunction(counting.get(), counterTime, &viaFunction, &functionClock), 0);
    SVClockRef blockClock = _SVClockCreateWithBlock(nullptr, ^SVTime(void) {
      return counterTime(blockCounter);
    });
    ASSERT_NE(blockClock, nullptr);
    EXPECT_EQ(CFGetTypeID(functionClock), SVClockGetTypeID());
    for (int i = 0; i < 3; i++) {
        SVTime a = SVClockGetTime(functionClock), b = SVClockGetTime(blockClock);
        EXPECT_EQ(memcmp(&a, &b, sizeof a), 0) << "reading " << i;
        expectTime(a, i, 90000);
    }
    SVTime anchor = kSVTimeInvalid, reference = kSVTimeInvalid;
    EXPECT_EQ(SVClockGetAnchorTime(functionClock, &anchor, &reference), 0);
    EXPECT_EQ(viaFunction.calls, 4) << "the refcon reaches the function, once per reading";
    SVClockInvalidate(functionClock);
    SVClockInvalidate(blockClock);
    expectInvalid(SVClockGetTime(functionClock));
    EXPECT_EQ(viaFunction.calls, 4) << "an invalidated clock does not call its function";
    EXPECT_EQ(viaBlock.calls, 3);
    CFRelease(functionClock);
    CFRelease(blockClock);
    EXPECT_EQ(counting.outstanding(), 0);

    SVClockRef noSource = nullptr;
    ASSERT_EQ(_SVClockCreateWithFunction(nullptr, nullptr, &viaFunction, &noSource), 0);
    expectInvalid(SVClockGetTime(noSource));
    CFRelease(noSource);
}

TEST(SVClock, FunctionClockFailuresAreStatusesAndLogLines) {
    Counter counter;
    {
        LogCapture log;
        EXPECT_EQ(_SVClockCreateWithFunction(nullptr, counterTime, &counter, nullptr),
                  kSVClockError_MissingRequiredParameter);
        expectOneLogLine(log, "_SVClockCreateWithFunction", "");
    }
    TestAllocator failing;
    failing.failAlways();
    LogCapture log;
    SVClockRef clock = (SVClockRef)CFSTR("garbage");
    EXPECT_EQ(_SVClockCreateWithFunction(failing.get(), counterTime, &counter, &clock), kSVClockError_AllocationFailed);
    EXPECT_EQ(clock, nullptr);
    expectOneLogLine(log, "_SVClockCreateWithFunction", "");
    EXPECT_EQ(counter.calls, 0);
}

TEST(SVClock, MisuseGivesNeutralResults) {
    SVClockRef notAClock = (SVClockRef)CFSTR("not a clock");
    for (SVClockRef bad : {static_cast<SVClockRef>(nullptr), notAClock}) {
        expectInvalid(SVClockGetTime(bad));
        SVClockInvalidate(bad);
        SVTime anchor = kSVTimeZero, reference = kSVTimeZero;
        EXPECT_EQ(SVClockGetAnchorTime(bad, &anchor, &reference), 0);
        expectInvalid(anchor);
        expectInvalid(reference);
        EXPECT_FALSE(SVClockMightDrift(bad, SVClockGetHostTimeClock()));
    }
    LogCapture log;
    EXPECT_EQ(SVAudioClockCreate(nullptr, nullptr), kSVClockError_MissingRequiredParameter);
    expectOneLogLine(log, "SVAudioClockCreate", "");  // the clock module's path is empty, on purpose
}

TEST(SVClock, AudioClockOnTheBuiltInDeviceCounts48kHz) {
    SVClockRef audio = nullptr;
    ASSERT_EQ(SVAudioClockCreate(nullptr, &audio), 0);
    EXPECT_EQ(CFGetTypeID(audio), SVClockGetTypeID());
    EXPECT_FALSE(SVClockMightDrift(SVClockGetHostTimeClock(), audio));
    // Whole samples of the built-in device, at its 48 kHz.
    AudioTimeStamp before, after;
    ASSERT_EQ(AudioDeviceGetCurrentTime(kAudioHardwareBuiltInOutputDevice, &before), 0);
    SVTime now = SVClockGetTime(audio);
    ASSERT_EQ(AudioDeviceGetCurrentTime(kAudioHardwareBuiltInOutputDevice, &after), 0);
    expectTime(now, now.value, 48000);
    EXPECT_TRUE(now.value >= int64_t(before.mSampleTime) && now.value <= int64_t(after.mSampleTime)) << now.value;
    SVClockInvalidate(audio);
    expectInvalid(SVClockGetTime(audio));
    CFRelease(audio);

    TestAllocator failing;
    failing.failAlways();
    LogCapture log;
    audio = (SVClockRef)CFSTR("garbage");
    EXPECT_EQ(SVAudioClockCreate(failing.get(), &audio), kSVClockError_AllocationFailed);
    EXPECT_EQ(audio, nullptr);
    expectOneLogLine(log, "SVAudioClockCreate", "");
}

// A sound card whose crystal runs 0.2% fast: the audio clock follows its
// counter, so a timebase on it drifts against a timebase on the host clock,
// both started when the stream's first sample played.
TEST(SVClock, TimebaseOnADriftingAudioDeviceDriftsFromTheHostClock) {
    DriftingDevice device(48000, 1.002);
    device.play();
    SVClockRef audio = nullptr;
    SVTimebaseRef onAudio = nullptr, onHost = nullptr;
    ASSERT_EQ(SVAudioClockCreate(nullptr, &audio), 0);
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, audio, &onAudio), 0);
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &onHost), 0);
    SVTimebaseSetRateAndAnchorTime(onAudio, 1.0, kSVTimeZero, SVTimeMake(0, 48000));
    SVTimebaseSetRateAndAnchorTime(onHost, 1.0, kSVTimeZero, SVClockMakeHostTimeFromSystemUnits(device.origin));
    // Both read within a short window, so that scheduling cannot pass for drift.
    double audioSeconds = 0, hostSeconds = 0;
    for (int attempt = 0; attempt < 1000; attempt++) {
        uint64_t before = AudioGetCurrentHostTime();
        audioSeconds = SVTimeGetSeconds(SVTimebaseGetTime(onAudio));
        hostSeconds = SVTimeGetSeconds(SVTimebaseGetTime(onHost));
        if (AudioGetCurrentHostTime() - before < 200'000) break;
    }
    EXPECT_TRUE(hostSeconds > 10.0 && hostSeconds < 60.0) << hostSeconds;
    EXPECT_NEAR(audioSeconds - hostSeconds, 0.002 * hostSeconds, 0.0005) << "20 ms after ten seconds";
    EXPECT_EQ(SVSyncGetRelativeRate(onAudio, onHost), 1.0) << "clocks are taken to run together all the same";
    EXPECT_FALSE(SVSyncMightDrift(onAudio, onHost));

    // A clock keeps its device and rate when another device becomes the
    // default; a fractional rate loses its fraction, a sample time is
    // truncated toward zero.
    {
        DriftingDevice other(44100.7, 1.0);
        SVClockRef otherAudio = nullptr;
        ASSERT_EQ(SVAudioClockCreate(nullptr, &otherAudio), 0);
        expectInvalid(SVClockGetTime(otherAudio));  // not started yet
        other.hold(1000.9);
        expectTime(SVClockGetTime(otherAudio), 1000, 44100);
        other.hold(-1.7);
        expectTime(SVClockGetTime(otherAudio), -1, 44100);
        EXPECT_EQ(SVClockGetTime(audio).timescale, 48000);
        CFRelease(otherAudio);
    }
    // Once its device is gone, the clock and everything on it read invalid.
    AudioHardwareUnregisterOutputDevice(device.id());
    expectInvalid(SVClockGetTime(audio));
    expectInvalid(SVTimebaseGetTime(onAudio));
    CFRelease(onAudio);
    CFRelease(onHost);
    CFRelease(audio);
}

TEST(SVClockDeathTest, MisusingTheHostClockIsFatal) {
    EXPECT_DEATH(SVClockInvalidate(SVClockGetHostTimeClock()),
                 "2 SVClockInvalidate \\[:[0-9]+\\] can't invalidate the host clock");
    EXPECT_DEATH(CFRelease(SVClockGetHostTimeClock()), "2 _SVClockFinalize \\[:[0-9]+\\] can't release the host clock");
    // A fresh process whose first use of the host clock cannot allocate it.
    std::string style = GTEST_FLAG_GET(death_test_style);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            TestAllocator failing;
            failing.failAlways();
            CFAllocatorSetDefault(failing.get());
            SVClockGetHostTimeClock();
        },
        "SVClockGetHostTimeClock \\[:[0-9]+\\] can't create the host clock");
    GTEST_FLAG_SET(death_test_style, style);
}

}  // namespace
