// SPDX-License-Identifier: Apache-2.0
// The audio path's arithmetic without an audio server: stream timings turned
// into reports on a simulated device and the audio clock that follows them,
// the reported line and the rate measured from it, the error statistics, the
// conversion of decoded sample formats, the PCM sample buffers, and the
// beep analysis of the end-to-end test.
#include <CoreAudio/AudioHardware.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/samplefmt.h>
}

#include <cmath>
#include <cstring>
#include <vector>

#include "../audio/AVSync.h"
#include "../audio/AudioDecoder.h"
#include "../audio/PcmBuffers.h"
#include "BeepAnalysis.h"

namespace {

using namespace sorvel::tool::audio;
using sorvel::test::FrameStamp;

constexpr double kRate = 48000;
constexpr uint32_t kFrameBytes = 8;  // stereo float

// A device whose crystal runs `ppm` off 48 kHz, started at host time `start`,
// consumed by its server in blocks of `block` frames ahead of playing them.
// Timings are what a server would answer at a given host time.
struct SimulatedDevice {
    double ppm;
    uint64_t start;
    int64_t block = 240;
    double playing(uint64_t host) const {
        return host < start ? 0 : static_cast<double>(host - start) * 1e-9 * kRate * (1 + ppm * 1e-6);
    }
    StreamTiming timing(uint64_t host, bool running = true) const {
        const double played = playing(host);
        // The server has taken whole blocks up to one block ahead.
        const auto taken = static_cast<int64_t>(std::ceil(played / block)) * block;
        StreamTiming t;
        t.readIndexBytes = taken * kFrameBytes;
        // Latency as a server states it: whole microseconds.
        t.deviceLatencyMicros = std::llround((static_cast<double>(taken) - played) / kRate * 1e6);
        t.playing = running;
        t.hostTime = host;
        return t;
    }
};

class RegisteredDevice : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(AudioHardwareRegisterOutputDevice(kRate, &device_), 0); }
    void TearDown() override { AudioHardwareUnregisterOutputDevice(device_); }
    AudioDeviceID device_ = kAudioObjectUnknown;
};

TEST(StreamTimingArithmetic, SampleLeavingTheDeviceAndStampCarriedOverToTheHostClock) {
    struct Case {
        int64_t readIndex, latencyMicros;
        double expected;
    } cases[] = {
        {0, 0, 0},
        {48000 * kFrameBytes, 0, 48000},
        {48000 * kFrameBytes, 500000, 24000},  // half a second still on its way
        {480 * kFrameBytes, 20000, -480},      // before the first sample is heard
        {4 * kFrameBytes, -1000, 52},          // a device that reports negative latency
    };
    for (const Case &c : cases) {
        StreamTiming timing;
        timing.readIndexBytes = c.readIndex;
        timing.deviceLatencyMicros = c.latencyMicros;
        EXPECT_DOUBLE_EQ(sampleLeavingDevice(timing, kFrameBytes, kRate), c.expected) << c.readIndex;
    }
    EXPECT_TRUE(std::isnan(sampleLeavingDevice(StreamTiming{}, 0, kRate)));

    // A stamp 1.5 ms old on the other clock is 1.5 ms before the host's now;
    // a stamp from a clock read after ours lies after it.
    EXPECT_EQ(hostTimeOfStamp(1'000'000, 1'001'500, 5'000'000'000), 4'998'500'000u);
    EXPECT_EQ(hostTimeOfStamp(1'000'200, 1'000'000, 5'000'000'000), 5'000'200'000u);
}

TEST(DeviceLine, KeepsReportsInOrderAndReadsSamplesOffIt) {
    DeviceLine line;
    EXPECT_TRUE(std::isnan(line.hostTimeOfSample(0, kRate)));
    ASSERT_TRUE(line.add(0, 1'000'000'000));
    ASSERT_TRUE(line.add(480, 1'010'000'000));
    EXPECT_FALSE(line.add(470, 1'020'000'000)) << "samples never go back";
    EXPECT_FALSE(line.add(960, 1'010'000'000)) << "host time must move on";
    EXPECT_FALSE(line.add(NAN, 1'030'000'000));
    ASSERT_TRUE(line.add(480, 1'050'000'000));  // stood still for 40 ms
    ASSERT_TRUE(line.add(960, 1'060'000'000));
    ASSERT_EQ(line.points().size(), 4u);

    struct Case {
        double sample, host;
    } cases[] = {
        {-48, 999'000'000},     // before the first report: at the nominal rate
        {0, 1'000'000'000},     // on a report
        {240, 1'005'000'000},   // between two
        {480, 1'050'000'000},   // a standing sample leaves when the stream moves on
        {720, 1'055'000'000},   // after the stall
        {960, 1'060'000'000},   // the last report
        {1440, 1'070'000'000},  // beyond it: the nominal rate
    };
    for (const Case &c : cases) EXPECT_DOUBLE_EQ(line.hostTimeOfSample(c.sample, kRate), c.host) << c.sample;
    EXPECT_TRUE(std::isnan(line.hostTimeOfSample(0, 0)));
}

TEST(DeviceLine, MeasuresTheRateOverTheLongestSteadyStretch) {
    for (double ppm : {-150.0, 0.0, 40.0, 120.0}) {
        SimulatedDevice device{ppm, 1'000'000'000};
        DeviceLine line;
        // One second, a 200 ms stall (the stream stands), then four seconds.
        uint64_t host = device.start;
        double offset = 0;
        for (int i = 0; i < 500; ++i, host += 10'000'000) {
            if (i == 100) offset = line.points().back().sample - sampleLeavingDevice(device.timing(host), 8, kRate);
            if (i >= 100 && i < 120) {
                line.add(line.points().back().sample, host);
                continue;
            }
            const double sample = sampleLeavingDevice(device.timing(host), 8, kRate) + (i >= 120 ? offset : 0);
            line.add(sample, host);
        }
        const std::optional<double> measured = line.measuredRatePpm(kRate);
        ASSERT_TRUE(measured.has_value()) << ppm;
        EXPECT_NEAR(*measured, ppm, 2.0) << "latency rounded to whole microseconds costs a little";
    }
    // Too short once the first second is left out.
    SimulatedDevice device{0, 1'000'000'000};
    DeviceLine line;
    for (uint64_t host = device.start; host < device.start + 1'900'000'000; host += 10'000'000)
        line.add(sampleLeavingDevice(device.timing(host), 8, kRate), host);
    EXPECT_FALSE(line.measuredRatePpm(kRate).has_value());
    EXPECT_TRUE(line.measuredRatePpm(kRate, 0.5, 1.0).has_value());
    EXPECT_FALSE(DeviceLine().measuredRatePpm(kRate).has_value());
}

TEST_F(RegisteredDevice, AudioClockFollowsTheReportedSamples) {
    const uint64_t now = AudioGetCurrentHostTime();
    SimulatedDevice simulated{80, now - 3'000'000'000};
    DeviceReporter reporter(device_, kFrameBytes, kRate);

    // Corked: nothing to report, and the device has not started.
    EXPECT_EQ(reporter.report(simulated.timing(simulated.start, false)), 0);
    EXPECT_EQ(reporter.reports(), 0);
    EXPECT_FALSE(reporter.started());

    SVClockRef clock = nullptr;
    ASSERT_EQ(SVAudioClockCreate(nullptr, &clock), 0) << "the registered device is the default output";
    EXPECT_FALSE(SVTIME_IS_VALID(SVClockGetTime(clock))) << "no report yet: no time";

    for (uint64_t host = simulated.start; host <= now; host += 10'000'000)
        ASSERT_EQ(reporter.report(simulated.timing(host)), 0);
    EXPECT_TRUE(reporter.started());
    EXPECT_EQ(reporter.reports(), static_cast<int64_t>(reporter.line().points().size()));

    const uint64_t before = AudioGetCurrentHostTime();
    const SVTime time = SVClockGetTime(clock);
    const uint64_t after = AudioGetCurrentHostTime();
    ASSERT_TRUE(SVTIME_IS_NUMERIC(time));
    EXPECT_EQ(time.timescale, 48000);
    EXPECT_GE(static_cast<double>(time.value), std::floor(simulated.playing(before)) - 2);
    EXPECT_LE(static_cast<double>(time.value), simulated.playing(after) + 2);

    // The A/V offset of a picture shown exactly when its sound left is 0.
    const double host2s = reporter.line().hostTimeOfSample(2 * kRate, kRate);
    const double expected = static_cast<double>(simulated.start) + 2e9 / (1 + 80e-6);
    EXPECT_NEAR(host2s, expected, 2000) << "within two microseconds";
    CFRelease(clock);
}

TEST_F(RegisteredDevice, StalledStreamStopsTheClockOnceAndResumes) {
    const uint64_t now = AudioGetCurrentHostTime();
    SimulatedDevice simulated{0, now - 1'000'000'000};
    DeviceReporter reporter(device_, kFrameBytes, kRate);
    uint64_t host = simulated.start;
    for (; host < now - 500'000'000; host += 10'000'000) reporter.report(simulated.timing(host));
    const int64_t reportsBefore = reporter.reports();

    // The server ran dry: one standing report, then silence.
    for (int i = 0; i < 5; ++i, host += 10'000'000) EXPECT_EQ(reporter.report(simulated.timing(host, false)), 0);
    EXPECT_EQ(reporter.reports(), reportsBefore + 1);
    EXPECT_EQ(reporter.stalls(), 1);
    AudioTimeStamp first = {}, second = {};
    ASSERT_EQ(AudioDeviceGetCurrentTime(device_, &first), 0);
    ASSERT_EQ(AudioDeviceGetCurrentTime(device_, &second), 0);
    EXPECT_EQ(first.mSampleTime, second.mSampleTime) << "a stalled device's counter stands";
    EXPECT_EQ(first.mSampleTime, reporter.line().points().back().sample);

    // Playing again: reports resume, and the line never goes back.
    for (int i = 0; i < 5; ++i, host += 10'000'000) EXPECT_EQ(reporter.report(simulated.timing(host)), 0);
    EXPECT_EQ(reporter.reports(), reportsBefore + 6);
    const auto &points = reporter.line().points();
    for (size_t i = 1; i < points.size(); ++i) EXPECT_GE(points[i].sample, points[i - 1].sample);
}

TEST_F(RegisteredDevice, JitteryTimingsAreSmoothedAndJumpsRestartTheLine) {
    const uint64_t now = AudioGetCurrentHostTime();
    SimulatedDevice simulated{0, now - 4'000'000'000};
    DeviceReporter reporter(device_, kFrameBytes, kRate);
    // Every seventh answer is stamped 2 ms late, as a busy server's are.
    uint64_t host = simulated.start;
    double worstReported = 0;
    for (int i = 0; i < 200; ++i, host += 10'000'000) {
        StreamTiming timing = simulated.timing(host);
        if (i % 7 == 3) timing.hostTime += 2'000'000;
        ASSERT_EQ(reporter.report(timing), 0);
        if (i >= 20) {
            const auto &last = reporter.line().points().back();
            worstReported = std::max(worstReported, std::fabs(last.sample - simulated.playing(last.host)));
        }
    }
    EXPECT_LT(worstReported, 0.1 * kRate / 1000) << "within 0.1 ms, where single answers are 2 ms off";
    EXPECT_EQ(reporter.restarts(), 0);

    // The stream jumps 100 ms ahead (a server that dropped data): the line
    // follows at once instead of averaging the jump away.
    const double jump = 0.1 * kRate;
    for (int i = 0; i < 5; ++i, host += 10'000'000) {
        StreamTiming timing = simulated.timing(host);
        timing.readIndexBytes += static_cast<int64_t>(jump) * kFrameBytes;
        ASSERT_EQ(reporter.report(timing), 0);
    }
    EXPECT_EQ(reporter.restarts(), 1);
    const auto &last = reporter.line().points().back();
    EXPECT_NEAR(last.sample, simulated.playing(last.host) + jump, 2);
}

TEST(DeviceReporter, UnregisteredDeviceIsRefusedAndNothingIsKept) {
    AudioDeviceID device = kAudioObjectUnknown;
    ASSERT_EQ(AudioHardwareRegisterOutputDevice(kRate, &device), 0);
    ASSERT_EQ(AudioHardwareUnregisterOutputDevice(device), 0);
    DeviceReporter reporter(device, kFrameBytes, kRate);
    SimulatedDevice simulated{0, 1'000'000'000};
    EXPECT_EQ(reporter.report(simulated.timing(2'000'000'000)), kAudioHardwareBadDeviceError);
    EXPECT_EQ(reporter.reports(), 0);
    EXPECT_TRUE(reporter.line().empty());
}

TEST(ErrorStats, MeanSpreadWorstAndCountOutsideTheLimit) {
    struct Case {
        std::vector<double> values;
        double mean, meanMagnitude, deviation, worst;
        int64_t outside;
    } cases[] = {
        {{}, 0, 0, 0, 0, 0},
        {{3}, 3, 3, 0, 3, 0},
        {{1, -1, 1, -1}, 0, 1, 1, 1, 0},
        {{10, -10}, 0, 10, 10, 10, 0},  // exactly at the limit is inside
        {{2, -12.5, 11, 0}, 0.125, 6.375, 8.3843232, -12.5, 2},
        {{NAN, 4, INFINITY}, 4, 4, 0, 4, 0},  // non-finite values are not counted
    };
    for (const Case &c : cases) {
        ErrorStats stats(10.0);
        for (double v : c.values) stats.add(v);
        EXPECT_NEAR(stats.mean(), c.mean, 1e-12);
        EXPECT_DOUBLE_EQ(stats.meanMagnitude(), c.meanMagnitude);
        EXPECT_NEAR(stats.standardDeviation(), c.deviation, 1e-6);
        EXPECT_DOUBLE_EQ(stats.worst(), c.worst);
        EXPECT_EQ(stats.outside(), c.outside);
    }
}

TEST(DecodedSamples, EveryFormatBecomesInterleavedFloat) {
    // Two channels, two frames: (min, max-ish) then (centre, half).
    const uint8_t u8[] = {0, 255, 128, 192};
    const int16_t s16[] = {-32768, 32767, 0, 16384};
    const int16_t s16p[2][2] = {{-32768, 0}, {32767, 16384}};
    const int32_t s32[] = {INT32_MIN, INT32_MAX, 0, 1 << 30};
    const float fltp[2][2] = {{-1.0f, 0.0f}, {1.0f, 0.5f}};
    const double dbl[] = {-1.0, 1.0, 0.0, 0.5};
    const int64_t s64p[2][2] = {{INT64_MIN, 0}, {INT64_MAX, INT64_C(1) << 62}};
    struct Case {
        AVSampleFormat format;
        std::vector<const uint8_t *> planes;
        float second;  // the second channel's first sample, the only one that differs
    } cases[] = {
        {AV_SAMPLE_FMT_U8, {u8}, 127.0f / 128.0f},
        {AV_SAMPLE_FMT_S16, {reinterpret_cast<const uint8_t *>(s16)}, 32767.0f / 32768.0f},
        {AV_SAMPLE_FMT_S16P,
         {reinterpret_cast<const uint8_t *>(s16p[0]), reinterpret_cast<const uint8_t *>(s16p[1])},
         32767.0f / 32768.0f},
        {AV_SAMPLE_FMT_S32, {reinterpret_cast<const uint8_t *>(s32)}, 1.0f},
        {AV_SAMPLE_FMT_FLTP,
         {reinterpret_cast<const uint8_t *>(fltp[0]), reinterpret_cast<const uint8_t *>(fltp[1])},
         1.0f},
        {AV_SAMPLE_FMT_DBL, {reinterpret_cast<const uint8_t *>(dbl)}, 1.0f},
        {AV_SAMPLE_FMT_S64P,
         {reinterpret_cast<const uint8_t *>(s64p[0]), reinterpret_cast<const uint8_t *>(s64p[1])},
         1.0f},
    };
    for (const Case &c : cases) {
        std::vector<float> out = {42.0f};  // appended after what is there
        ASSERT_TRUE(appendInterleavedFloat(c.format, c.planes.data(), 2, 2, out)) << c.format;
        ASSERT_EQ(out.size(), 5u);
        EXPECT_EQ(out[0], 42.0f);
        EXPECT_FLOAT_EQ(out[1], -1.0f) << av_get_sample_fmt_name(c.format);
        EXPECT_FLOAT_EQ(out[2], c.second) << av_get_sample_fmt_name(c.format);
        EXPECT_FLOAT_EQ(out[3], 0.0f) << av_get_sample_fmt_name(c.format);
        EXPECT_FLOAT_EQ(out[4], 0.5f) << av_get_sample_fmt_name(c.format);
    }
    std::vector<float> out = {1.0f};
    EXPECT_FALSE(appendInterleavedFloat(AV_SAMPLE_FMT_NONE, cases[0].planes.data(), 2, 2, out));
    EXPECT_FALSE(appendInterleavedFloat(AV_SAMPLE_FMT_S16, cases[1].planes.data(), 0, 2, out));
    EXPECT_EQ(out.size(), 1u) << "a refused conversion appends nothing";
}

TEST(PcmSampleBuffer, CarriesTheFramesAndTheirTime) {
    OSStatus status = -1;
    SVFormatDescriptionRef format = makePcmFormat(44100, 2, status);
    ASSERT_EQ(status, 0);
    ASSERT_NE(format, nullptr);
    const AudioStreamBasicDescription *asbd = SVAudioFormatDescriptionGetStreamBasicDescription(format);
    ASSERT_NE(asbd, nullptr);
    EXPECT_EQ(asbd->mFormatID, kAudioFormatLinearPCM);
    EXPECT_EQ(asbd->mBytesPerFrame, 8u);
    EXPECT_EQ(asbd->mChannelsPerFrame, 2u);

    std::vector<float> samples(2 * 441);
    for (size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<float>(i) / 1000.0f;
    SVSampleBufferRef buffer = makePcmSampleBuffer(format, samples.data(), 441, 2, 88200, 44100, status);
    ASSERT_EQ(status, 0);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(SVSampleBufferGetNumSamples(buffer), 441);
    const SVTime pts = SVSampleBufferGetPresentationTimeStamp(buffer);
    EXPECT_EQ(SVTimeCompare(pts, SVTimeMake(2, 1)), 0) << "frame 88200 at 44.1 kHz is 2 s";
    EXPECT_EQ(SVTimeCompare(SVSampleBufferGetDuration(buffer), SVTimeMake(441, 44100)), 0);
    EXPECT_EQ(SVSampleBufferGetTotalSampleSize(buffer), samples.size() * sizeof(float));
    std::vector<float> back(samples.size());
    ASSERT_EQ(
        SVBlockBufferCopyDataBytes(SVSampleBufferGetDataBuffer(buffer), 0, back.size() * sizeof(float), back.data()),
        0);
    EXPECT_EQ(std::memcmp(back.data(), samples.data(), back.size() * sizeof(float)), 0);
    CFRelease(buffer);
    CFRelease(format);
}

// A sine burst of `frames` frames at `frequency`, starting at phase 0 at the
// fractional frame `onset`.
void addBeep(std::vector<float> &samples, double onset, double amplitude, double frequency, int64_t frames) {
    const auto first = static_cast<int64_t>(std::ceil(onset));
    for (int64_t i = first; i < first + frames && i < static_cast<int64_t>(samples.size()); ++i)
        samples[static_cast<size_t>(i)] +=
            static_cast<float>(amplitude * std::sin(2 * M_PI * frequency * (i - onset) / kRate));
}

TEST(BeepAnalysis, FindsEachOnsetToAFractionOfASample) {
    std::vector<float> samples(5 * 48000);
    // Low noise that never reaches the threshold.
    for (size_t i = 0; i < samples.size(); ++i) samples[i] = 0.01f * static_cast<float>(std::sin(i * 0.7));
    const double onsets[] = {1000.25, 48000.0, 96000.5, 144000.75, 192123.4};
    const double amplitudes[] = {0.8, 0.3, 0.8, -0.8, 0.5};  // a negative one starts downwards
    for (int i = 0; i < 5; ++i) addBeep(samples, onsets[i], amplitudes[i], 1000, 2400);
    const std::vector<double> found = sorvel::test::findBeepOnsets(samples, 0.25f, 14400);
    ASSERT_EQ(found.size(), 5u);
    for (int i = 0; i < 5; ++i) EXPECT_NEAR(found[i], onsets[i], 0.5) << i;

    // Bursts closer than the quiet span count once; silence gives nothing.
    std::vector<float> close(48000);
    addBeep(close, 100, 0.8, 1000, 480);
    addBeep(close, 5000, 0.8, 1000, 480);
    EXPECT_EQ(sorvel::test::findBeepOnsets(close, 0.25f, 14400).size(), 1u);
    EXPECT_TRUE(sorvel::test::findBeepOnsets(std::vector<float>(48000), 0.25f, 100).empty());
}

TEST(BeepAnalysis, HostTimeOfAFrameFromJitteryStamps) {
    // Frames played at 48 kHz from host 5 s; stamps every 960 frames, each
    // off by up to ±60 µs in a fixed pattern.
    std::vector<FrameStamp> stamps;
    const int jitter[] = {60, -40, 10, -60, 30, 0, -20, 50};
    for (int i = 0; i < 400; ++i) {
        const double frame = i * 960.0;
        stamps.push_back({frame, static_cast<uint64_t>(5e9 + frame / kRate * 1e9 + jitter[i % 8] * 1000)});
    }
    for (double frame : {0.0, 12345.6, 96000.0, 383040.0}) {
        const double expected = 5e9 + frame / kRate * 1e9 + 3.75e3;  // the jitter's mean
        EXPECT_NEAR(sorvel::test::hostTimeOfFrame(stamps, frame, 24000), expected, 40e3) << frame;
    }
    // Far outside every window: the line through all stamps.
    EXPECT_NEAR(sorvel::test::hostTimeOfFrame(stamps, 480000, 100), 5e9 + 10e9 + 3.75e3, 40e3);
    EXPECT_TRUE(std::isnan(sorvel::test::hostTimeOfFrame({stamps[0]}, 0, 24000)));
    EXPECT_TRUE(std::isnan(sorvel::test::hostTimeOfFrame({}, 0, 24000)));
}

}  // namespace
