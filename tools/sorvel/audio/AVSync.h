/* SPDX-License-Identifier: Apache-2.0 */
// The arithmetic of playing pictures against sound, kept apart from the
// audio server so that it can be tested on a simulated device:
//
// - what an output stream's timing says about the device (which stream
//   sample leaves the hardware at which host time), turned into reports on a
//   registered audio device (AudioDeviceReportTime), so that an audio clock
//   follows the sound actually played;
// - the device's reported line: every report kept, so that afterwards the
//   host time at which any stream sample left the device can be read off it,
//   and the device's rate against the host clock measured;
// - the statistics of the A/V offsets and wake-up errors that the player
//   reports.
//
// Host times are CLOCK_MONOTONIC nanoseconds (the host time clock's counter).
#ifndef SORVEL_TOOLS_SORVEL_AUDIO_AVSYNC_H
#define SORVEL_TOOLS_SORVEL_AUDIO_AVSYNC_H

#include <CoreAudio/AudioHardware.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace sorvel::tool::audio {

// What an output stream's timing query said, in the stream's own terms.
struct StreamTiming {
    // Bytes the device has taken from the stream since it started.
    int64_t readIndexBytes = 0;
    // How long the taken data still needs to leave the device (the device's
    // and the stream's own buffering), microseconds; may be negative.
    int64_t deviceLatencyMicros = 0;
    // Whether the device is consuming the stream (not corked, not stalled
    // for want of data).
    bool playing = false;
    // The host time at which the query's values held.
    uint64_t hostTime = 0;
};

// The stream sample leaving the device when `timing` was taken: the samples
// taken minus those still on their way.
double sampleLeavingDevice(const StreamTiming &timing, uint32_t bytesPerFrame, double sampleRate);

// The host time at which a time stamp of another clock was current, given
// that clock's reading and the host clock's reading taken together now.
// Both other-clock values are in microseconds.
uint64_t hostTimeOfStamp(int64_t stampMicros, int64_t otherNowMicros, uint64_t hostNow);

// The device's reported line: reports in the order they were made.
class DeviceLine {
public:
    struct Point {
        double sample;
        uint64_t host;
    };

    // Keeps a report.  False (and ignored) when it goes back in host time or
    // in samples: a stream's samples never leave the device twice.
    bool add(double sample, uint64_t host);
    const std::vector<Point> &points() const { return points_; }
    bool empty() const { return points_.empty(); }

    // The host time at which stream sample `sample` left the device:
    // interpolated between the reports around it, extrapolated at the nominal
    // `sampleRate` beyond the first or last.  While the stream stood still
    // (reports with one sample value) a sample leaves when it moves on again.
    // NaN without reports.
    double hostTimeOfSample(double sample, double sampleRate) const;

    // The device's rate against the host clock, in parts per million off
    // `nominalRate`: the least-squares slope of sample over host time across
    // the longest stretch of reports in which the stream ran without a
    // stall, leaving out its first `settleSeconds`.  Empty when that stretch
    // spans less than `minimumSeconds` after settling.
    std::optional<double> measuredRatePpm(double nominalRate, double settleSeconds = 1.0,
                                          double minimumSeconds = 1.0) const;

private:
    std::vector<Point> points_;
};

// The A/V offset in milliseconds of a picture of presentation time `pts`
// shown at host time `shownHost`: that host time minus the host time at which
// the sound of the same presentation time left the device, read off the
// device's reported `line` of a stream whose sample 0 has presentation time
// `origin`.  Positive: the picture came after its sound.  NaN without a line.
double avOffsetMilliseconds(const DeviceLine &line, double sampleRate, double origin, double pts, uint64_t shownHost);

// Turns stream timings into reports on a registered device and keeps the
// line they draw.  Reports only while the stream plays; a stalled or corked
// stream reports once with rate scalar 0, so that the device's counter
// stands still instead of running on from its last report.
//
// A server's time stamps jitter: now and then one is a millisecond or two
// off, and the device's clock would jump with it.  So the reporter reports
// the least-squares line through the timings of the last `windowSeconds`
// (evaluated at the newest one, with its slope as the rate scalar) rather
// than each timing itself.  A timing further than 20 ms from that line does
// not continue the stream (an underrun, a restart): the window starts again
// from it.
class DeviceReporter {
public:
    DeviceReporter(AudioDeviceID device, uint32_t bytesPerFrame, double sampleRate, double windowSeconds = 1.0)
        : device_(device), bytesPerFrame_(bytesPerFrame), sampleRate_(sampleRate), windowSeconds_(windowSeconds) {}

    // Reports one timing; the status of AudioDeviceReportTime, or 0 when
    // nothing needed reporting.
    OSStatus report(const StreamTiming &timing);

    const DeviceLine &line() const { return line_; }
    int64_t reports() const { return reports_; }
    int64_t stalls() const { return stalls_; }      // times the stream stopped moving
    int64_t restarts() const { return restarts_; }  // timings that did not continue the line
    bool started() const { return started_; }       // a playing report was made

private:
    // The fitted sample at `host` and the slope (samples per nanosecond);
    // false below three timings or 100 ms.
    bool fit(uint64_t host, double &sample, double &slope) const;

    AudioDeviceID device_;
    uint32_t bytesPerFrame_;
    double sampleRate_;
    double windowSeconds_;
    DeviceLine line_;
    std::vector<DeviceLine::Point> window_;  // raw timings since the last restart
    int64_t reports_ = 0;
    int64_t stalls_ = 0;
    int64_t restarts_ = 0;
    bool started_ = false;
    bool standing_ = false;
};

// Running statistics of signed errors in milliseconds: mean, standard
// deviation, the worst (largest magnitude, with its sign) and how many lie
// outside ±limit.
class ErrorStats {
public:
    explicit ErrorStats(double limitMilliseconds = 10.0) : limit_(limitMilliseconds) {}
    void add(double milliseconds);
    int64_t count() const { return count_; }
    double mean() const { return count_ ? mean_ : 0; }
    double meanMagnitude() const { return count_ ? magnitudeSum_ / static_cast<double>(count_) : 0; }
    double standardDeviation() const;  // of the population; 0 below two values
    double worst() const { return worst_; }
    int64_t outside() const { return outside_; }
    double limit() const { return limit_; }

private:
    double limit_;
    int64_t count_ = 0;
    double mean_ = 0, m2_ = 0, magnitudeSum_ = 0, worst_ = 0;
    int64_t outside_ = 0;
};

}  // namespace sorvel::tool::audio

#endif  // SORVEL_TOOLS_SORVEL_AUDIO_AVSYNC_H
