// SPDX-License-Identifier: Apache-2.0
// The audio hardware layer: properties, the built-in device's 48 kHz
// counter, registered devices that follow their reports (rate measurement,
// discontinuities, rate scalars), registration rules, and reads racing an
// audio thread's reports.

#include <CoreAudio/AudioHardware.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr AudioObjectID kSystem = kAudioObjectSystemObject, kBuiltIn = kAudioHardwareBuiltInOutputDevice;
constexpr UInt64 kMillisecond = 1'000'000;

OSStatus getProperty(AudioObjectID object, AudioObjectPropertySelector selector, void *data, UInt32 *size,
                     AudioObjectPropertyScope scope = kAudioObjectPropertyScopeGlobal, UInt32 element = 0) {
    AudioObjectPropertyAddress where = {selector, scope, element};
    return AudioObjectGetPropertyData(object, &where, 0, nullptr, size, data);
}
AudioDeviceID defaultDevice() {
    AudioDeviceID device = 0;
    UInt32 size = sizeof device;
    EXPECT_EQ(getProperty(kSystem, kAudioHardwarePropertyDefaultOutputDevice, &device, &size), 0);
    return device;
}
AudioTimeStamp timeOf(AudioDeviceID device) {
    AudioTimeStamp stamp = {};
    EXPECT_EQ(AudioDeviceGetCurrentTime(device, &stamp), 0);
    return stamp;
}

class Device {
public:
    explicit Device(Float64 rate) { EXPECT_EQ(AudioHardwareRegisterOutputDevice(rate, &id_), 0); }
    ~Device() { AudioHardwareUnregisterOutputDevice(id_); }
    AudioDeviceID id() const { return id_; }
    static constexpr Float64 kNoScalar = -1e300;
    OSStatus report(Float64 sample, UInt64 host, Float64 rateScalar = kNoScalar) const {
        AudioTimeStamp stamp = {sample, host, rateScalar, 0, {}, kAudioTimeStampSampleHostTimeValid, 0};
        if (rateScalar != kNoScalar) stamp.mFlags |= kAudioTimeStampRateScalarValid;
        return AudioDeviceReportTime(id_, &stamp);
    }
    // Reports every 10 ms along sample = (host - origin) x samplesPerSecond
    // over the `seconds` before `end`.
    void feedLine(UInt64 origin, double samplesPerSecond, double seconds, UInt64 end) const {
        for (UInt64 host = end - static_cast<UInt64>(seconds * 1e9); host <= end; host += 10 * kMillisecond)
            ASSERT_EQ(report(static_cast<double>(host - origin) * samplesPerSecond / 1e9, host), 0);
    }

private:
    AudioDeviceID id_ = kAudioObjectUnknown;
};

TEST(AudioHardware, NothingRunsBeforeInitialisation) {
    // A fresh process, in which nothing has initialised the hardware yet.
    std::string style = GTEST_FLAG_GET(death_test_style);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            AudioDeviceID device;
            UInt32 size = sizeof device;
            AudioTimeStamp stamp;
            bool stopped = getProperty(kSystem, kAudioHardwarePropertyDefaultOutputDevice, &device, &size) ==
                               kAudioHardwareNotRunningError &&
                           AudioDeviceGetCurrentTime(kBuiltIn, &stamp) == kAudioHardwareNotRunningError;
            bool runs = _AudioHardwareInitialize() == 0 && AudioDeviceGetCurrentTime(kBuiltIn, &stamp) == 0 &&
                        stamp.mSampleTime < 48000;  // counting from 0 just now
            std::exit(stopped && runs ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
    GTEST_FLAG_SET(death_test_style, style);
}

TEST(AudioHardware, PropertiesAndTheBuiltInDevicesCounter) {
    ASSERT_EQ(_AudioHardwareInitialize(), 0);
    constexpr UInt32 kDefault = kAudioHardwarePropertyDefaultOutputDevice,
                     kActual = kAudioDevicePropertyActualSampleRate;
    struct Case {
        AudioObjectID object;
        AudioObjectPropertySelector selector;
        AudioObjectPropertyScope scope;
        UInt32 element, size;
        OSStatus status;
    } cases[] = {
        {kSystem, kDefault, 'glob', 0, 16, 0},
        {kBuiltIn, kActual, 'glob', 0, 8, 0},
        {kBuiltIn, kAudioDevicePropertyNominalSampleRate, 'outp', 0, 8, 0},
        {kSystem, kDefault, 'glob', 0, 3, kAudioHardwareBadPropertySizeError},
        {kBuiltIn, kActual, 'glob', 0, 7, kAudioHardwareBadPropertySizeError},
        {kSystem, kDefault, 'outp', 0, 4, kAudioHardwareUnknownPropertyError},
        {kSystem, kDefault, 'glob', 1, 4, kAudioHardwareUnknownPropertyError},
        {kSystem, kActual, 'glob', 0, 8, kAudioHardwareUnknownPropertyError},
        {kBuiltIn, kActual, 'inpt', 0, 8, kAudioHardwareUnknownPropertyError},
        {0x7FFFFFF0, kActual, 'glob', 0, 8, kAudioHardwareBadObjectError},
    };
    const Float64 kRate = 48000;
    for (const Case &c : cases) {
        unsigned char data[16];
        memset(data, 0xAB, sizeof data);
        UInt32 size = c.size;
        EXPECT_EQ(getProperty(c.object, c.selector, data, &size, c.scope, c.element), c.status) << &c - cases;
        if (c.status != 0)
            EXPECT_TRUE(size == c.size && data[0] == 0xAB) << "nothing written on failure, case " << &c - cases;
        else
            EXPECT_TRUE(c.selector == kDefault ? size == 4 && !memcmp(data, &kBuiltIn, 4)
                                               : size == 8 && !memcmp(data, &kRate, 8));
    }
    AudioObjectPropertyAddress where = {kActual, kAudioObjectPropertyScopeGlobal, 0};
    UInt32 size = 8;
    AudioTimeStamp stamp;
    EXPECT_EQ(AudioObjectGetPropertyData(kBuiltIn, nullptr, 0, nullptr, &size, &stamp), kAudio_ParamError);
    EXPECT_EQ(AudioObjectGetPropertyData(kBuiltIn, &where, 0, nullptr, nullptr, &stamp), kAudio_ParamError);
    EXPECT_EQ(AudioObjectGetPropertyData(kBuiltIn, &where, 0, nullptr, &size, nullptr), kAudio_ParamError);
    EXPECT_EQ(AudioDeviceGetCurrentTime(kBuiltIn, nullptr), kAudio_ParamError);
    EXPECT_EQ(AudioDeviceGetCurrentTime(0x7FFFFFF0, &stamp), kAudioHardwareBadDeviceError);
    EXPECT_EQ(AudioDeviceGetCurrentTime(kSystem, &stamp), kAudioHardwareBadDeviceError);

    // The built-in counter is a function of the reading's host time: 48
    // samples per millisecond.
    UInt64 before = AudioGetCurrentHostTime();
    AudioTimeStamp first = timeOf(kBuiltIn);
    EXPECT_EQ(first.mFlags, kAudioTimeStampSampleHostTimeValid | kAudioTimeStampRateScalarValid);
    EXPECT_EQ(first.mRateScalar, 1.0);
    EXPECT_TRUE(first.mHostTime >= before && first.mHostTime <= AudioGetCurrentHostTime());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    AudioTimeStamp second = timeOf(kBuiltIn);
    EXPECT_NEAR(second.mSampleTime - first.mSampleTime,
                static_cast<double>(second.mHostTime - first.mHostTime) * 48000 / 1e9, 1e-6);
    EXPECT_GT(second.mSampleTime - first.mSampleTime, 0.019 * 48000);
}

TEST(AudioHardware, RegisteredDeviceFollowsItsReportsUntilUnregistered) {
    AudioDeviceID id;
    {
        Device device(44100);
        id = device.id();
        EXPECT_EQ(defaultDevice(), id);
        Float64 rate = 0;
        UInt32 size = sizeof rate;
        EXPECT_EQ(getProperty(id, kAudioDevicePropertyActualSampleRate, &rate, &size), 0);
        EXPECT_EQ(rate, 44100.0);
        AudioTimeStamp stamp;
        EXPECT_EQ(AudioDeviceGetCurrentTime(id, &stamp), kAudioHardwareNotRunningError) << "nothing reported yet";
        UInt64 now = AudioGetCurrentHostTime();
        ASSERT_EQ(device.report(1000, now), 0);
        stamp = timeOf(id);
        EXPECT_EQ(stamp.mRateScalar, 1.0) << "the nominal rate until one can be measured";
        EXPECT_DOUBLE_EQ(stamp.mSampleTime, 1000 + static_cast<double>(stamp.mHostTime - now) * 44100 / 1e9);
        // A report stamped after the reading extrapolates backwards.
        ASSERT_EQ(device.report(50000, AudioGetCurrentHostTime() + 1000 * kMillisecond), 0);
        EXPECT_LT(timeOf(id).mSampleTime, 50000 - 0.99 * 44100);
        // Rate scalars are used as given; 0 holds the counter.
        ASSERT_EQ(device.report(96000, now, 0.0), 0);
        EXPECT_EQ(timeOf(id).mSampleTime, 96000);
        ASSERT_EQ(device.report(96000, now, 1.5), 0);
        stamp = timeOf(id);
        EXPECT_EQ(stamp.mRateScalar, 1.5);
        EXPECT_DOUBLE_EQ(stamp.mSampleTime, 96000 + static_cast<double>(stamp.mHostTime - now) * 66150 / 1e9);
        // A held counter says nothing about the rate: later reports measure
        // on from the last scalar that moved.
        ASSERT_EQ(device.report(97000, now + kMillisecond, 0.0), 0);
        ASSERT_EQ(device.report(97000 + 66.15, now + 2 * kMillisecond), 0);
        EXPECT_EQ(timeOf(id).mRateScalar, 1.5);
        // Refused reports change nothing.
        for (double sample : {kNaN, kInfinity}) EXPECT_EQ(device.report(sample, now), kAudio_ParamError);
        for (double scalar : {-0.5, kNaN, kInfinity}) EXPECT_EQ(device.report(0, now, scalar), kAudio_ParamError);
        AudioTimeStamp noHostTime = {0, now, 0, 0, {}, kAudioTimeStampSampleTimeValid, 0};
        EXPECT_EQ(AudioDeviceReportTime(id, &noHostTime), kAudio_ParamError);
        EXPECT_EQ(AudioDeviceReportTime(id, nullptr), kAudio_ParamError);
        EXPECT_EQ(timeOf(id).mRateScalar, 1.5);
    }
    AudioTimeStamp stamp = {0, 0, 0, 0, {}, kAudioTimeStampSampleHostTimeValid, 0};
    EXPECT_EQ(AudioDeviceGetCurrentTime(id, &stamp), kAudioHardwareBadDeviceError);
    Float64 rate;
    UInt32 size = sizeof rate;
    EXPECT_EQ(getProperty(id, kAudioDevicePropertyActualSampleRate, &rate, &size), kAudioHardwareBadObjectError);
    EXPECT_EQ(AudioDeviceReportTime(id, &stamp), kAudioHardwareBadDeviceError);
    EXPECT_EQ(AudioHardwareUnregisterOutputDevice(id), kAudioHardwareBadDeviceError);
    EXPECT_EQ(AudioDeviceReportTime(kBuiltIn, &stamp), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(AudioHardwareUnregisterOutputDevice(kBuiltIn), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(defaultDevice(), kBuiltIn);
}

// A crystal off its nominal rate is measured from the reports (limited to
// 5% off), so the device's time follows the hardware; discontinuities
// restart the measurement and keep the rate.
TEST(AudioHardware, MeasuresTheRateOfAnOffNominalDevice) {
    for (auto [ratio, measured] : {std::pair{1.002, 1.002}, {0.9995, 0.9995}, {1.2, 1.05}, {0.5, 0.95}}) {
        SCOPED_TRACE(ratio);
        Device device(48000);
        UInt64 now = AudioGetCurrentHostTime(), origin = now - 6000 * kMillisecond;
        ASSERT_EQ(device.report(0, origin), 0);
        ASSERT_EQ(device.report(0.05 * 48000 * ratio, origin + 50 * kMillisecond), 0);
        EXPECT_EQ(timeOf(device.id()).mRateScalar, 1.0) << "50 ms is too short to measure";
        device.feedLine(origin, 48000 * ratio, 5, now);
        AudioTimeStamp stamp = timeOf(device.id());
        EXPECT_NEAR(stamp.mRateScalar, measured, 1e-9);
        if (ratio == measured)
            EXPECT_NEAR(stamp.mSampleTime, static_cast<double>(stamp.mHostTime - origin) * 48000 * ratio / 1e9, 1e-3);
    }
    Device device(48000);
    UInt64 now = AudioGetCurrentHostTime(), host = now - 20'000 * kMillisecond;
    device.feedLine(now - 30'000 * kMillisecond, 48000 * 1.002, 5, host);
    // Reports 10 ms apart: a restart, an underrun, a seek back, a jump ahead.
    for (double sample : {0.0, 1.010 * 48000, 100.0, 100 + 0.2 * 48000}) {
        ASSERT_EQ(device.report(sample, host += 10 * kMillisecond), 0);
        EXPECT_NEAR(timeOf(device.id()).mRateScalar, 1.002, 1e-9) << sample;
    }
    device.feedLine(now - 6000 * kMillisecond, 48000, 5, now);  // a new stream, measured afresh
    EXPECT_NEAR(timeOf(device.id()).mRateScalar, 1.0, 1e-9);
}

TEST(AudioHardware, RegistrationRulesAndTheDefaultDevice) {
    AudioDeviceID id = 1234;
    for (double rate : {0.0, -48000.0, kNaN, kInfinity}) {
        EXPECT_EQ(AudioHardwareRegisterOutputDevice(rate, &id), kAudio_ParamError) << rate;
        EXPECT_EQ(id, kAudioObjectUnknown);
    }
    EXPECT_EQ(AudioHardwareRegisterOutputDevice(48000, nullptr), kAudio_ParamError);
    std::vector<AudioDeviceID> devices(kAudioHardwareMaxRegisteredOutputDevices);
    for (AudioDeviceID &device : devices) {
        ASSERT_EQ(AudioHardwareRegisterOutputDevice(48000, &device), 0);
        EXPECT_EQ(defaultDevice(), device) << "the newest is the default";
    }
    id = 1234;
    EXPECT_EQ(AudioHardwareRegisterOutputDevice(48000, &id), kAudio_MemFullError);
    EXPECT_EQ(id, kAudioObjectUnknown);
    ASSERT_EQ(AudioHardwareUnregisterOutputDevice(devices[3]), 0);
    EXPECT_EQ(defaultDevice(), devices.back());
    ASSERT_EQ(AudioHardwareUnregisterOutputDevice(devices.back()), 0);
    EXPECT_EQ(defaultDevice(), devices[devices.size() - 2]) << "back to the newest left";
    ASSERT_EQ(AudioHardwareRegisterOutputDevice(48000, &id), 0);
    EXPECT_GT(id, devices.back()) << "slots are reused, identifiers never";
    EXPECT_EQ(AudioHardwareUnregisterOutputDevice(id), 0);
    for (size_t i = 0; i + 1 < devices.size(); i++)
        if (i != 3) EXPECT_EQ(AudioHardwareUnregisterOutputDevice(devices[i]), 0);
    EXPECT_EQ(defaultDevice(), kBuiltIn);
}

// An audio thread reports a 48 kHz stream (a millisecond per report) while
// readers read and another thread registers and unregisters devices.  Every
// reading must lie on the stream's line: a torn read (one report's sample
// time with another's host time) would be off by 48 samples.
TEST(AudioHardware, ReadersSeeWholeReportsWhileAnAudioThreadReports) {
    Device device(48000);
    const UInt64 origin = AudioGetCurrentHostTime();
    ASSERT_EQ(device.report(0, origin), 0);
    std::atomic<bool> stop{false};
    std::atomic<int> offLine{0}, reads{0};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        for (UInt64 host = origin; !stop; host += kMillisecond) {
            device.report(static_cast<double>(host - origin) * 48000 / 1e9, host);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    threads.emplace_back([&] {
        for (AudioDeviceID other; !stop;)
            if (AudioHardwareRegisterOutputDevice(44100, &other) == 0) AudioHardwareUnregisterOutputDevice(other);
    });
    for (int r = 0; r < 2; r++)
        threads.emplace_back([&] {
            for (AudioTimeStamp stamp; !stop; reads++) {
                ASSERT_EQ(AudioDeviceGetCurrentTime(device.id(), &stamp), 0);
                double line = static_cast<double>(static_cast<int64_t>(stamp.mHostTime - origin)) * 48000 / 1e9;
                if (std::fabs(stamp.mSampleTime - line) > 0.5) offLine++;
            }
        });
    // At least 300 ms and 100 reads, however slowly a loaded machine runs
    // the readers (10 s at most).
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    while (reads < 100 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    stop = true;
    for (std::thread &thread : threads) thread.join();
    EXPECT_GE(reads.load(), 100);
    EXPECT_EQ(offLine.load(), 0);
}

}  // namespace
