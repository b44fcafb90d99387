// SPDX-License-Identifier: Apache-2.0
#include "AVSync.h"

#include <algorithm>
#include <cmath>

namespace sorvel::tool::audio {
namespace {

constexpr double kNanosPerSecond = 1e9;
// A rate scalar further than this from 1 is a disturbance, not a crystal.
constexpr double kSteadyDeviation = 0.05;
// A timing this far (seconds of samples) from the fitted line does not
// continue the stream.
constexpr double kRestartSeconds = 0.02;

}  // namespace

double sampleLeavingDevice(const StreamTiming &timing, uint32_t bytesPerFrame, double sampleRate) {
    if (bytesPerFrame == 0) return NAN;
    return static_cast<double>(timing.readIndexBytes) / bytesPerFrame -
           static_cast<double>(timing.deviceLatencyMicros) * sampleRate / 1e6;
}

uint64_t hostTimeOfStamp(int64_t stampMicros, int64_t otherNowMicros, uint64_t hostNow) {
    // Signed: a stamp from a clock read slightly later than ours is ahead.
    const int64_t ageNanos = (otherNowMicros - stampMicros) * 1000;
    return static_cast<uint64_t>(static_cast<int64_t>(hostNow) - ageNanos);
}

bool DeviceLine::add(double sample, uint64_t host) {
    if (!std::isfinite(sample)) return false;
    if (!points_.empty() && (host <= points_.back().host || sample < points_.back().sample)) return false;
    points_.push_back({sample, host});
    return true;
}

double DeviceLine::hostTimeOfSample(double sample, double sampleRate) const {
    if (points_.empty() || !std::isfinite(sample) || !(sampleRate > 0)) return NAN;
    const Point &first = points_.front(), &last = points_.back();
    if (sample < first.sample)
        return static_cast<double>(first.host) - (first.sample - sample) / sampleRate * kNanosPerSecond;
    if (sample >= last.sample)
        return static_cast<double>(last.host) + (sample - last.sample) / sampleRate * kNanosPerSecond;
    // The first report past the sample; the one before it is the last report
    // at or before it, so a standing stretch resolves to its end.
    const auto after = std::upper_bound(points_.begin(), points_.end(), sample,
                                        [](double value, const Point &point) { return value < point.sample; });
    const Point &b = *after, &a = *(after - 1);
    const double fraction = (sample - a.sample) / (b.sample - a.sample);
    return static_cast<double>(a.host) + fraction * static_cast<double>(b.host - a.host);
}

std::optional<double> DeviceLine::measuredRatePpm(double nominalRate, double settleSeconds,
                                                  double minimumSeconds) const {
    if (points_.size() < 3 || !(nominalRate > 0)) return std::nullopt;
    const double nominalPerNano = nominalRate / kNanosPerSecond;
    // The longest stretch of steady playing, by host time.
    size_t bestBegin = 0, bestEnd = 0, begin = 0;
    auto consider = [&](size_t end) {
        if (end > begin + 1 && (bestEnd <= bestBegin + 1 || points_[end - 1].host - points_[begin].host >
                                                                points_[bestEnd - 1].host - points_[bestBegin].host)) {
            bestBegin = begin;
            bestEnd = end;
        }
    };
    for (size_t i = 1; i < points_.size(); ++i) {
        const double advance = points_[i].sample - points_[i - 1].sample;
        const double expected = static_cast<double>(points_[i].host - points_[i - 1].host) * nominalPerNano;
        if (advance == 0 || std::fabs(advance - expected) > kRestartSeconds * nominalRate) {
            consider(i);
            begin = i;
        }
    }
    consider(points_.size());
    if (bestEnd <= bestBegin + 1) return std::nullopt;
    const uint64_t from = points_[bestBegin].host + static_cast<uint64_t>(settleSeconds * kNanosPerSecond);
    while (bestBegin < bestEnd && points_[bestBegin].host < from) ++bestBegin;
    if (bestEnd - bestBegin < 3 ||
        static_cast<double>(points_[bestEnd - 1].host - points_[bestBegin].host) < minimumSeconds * kNanosPerSecond)
        return std::nullopt;
    // Least squares about the first point, which keeps the sums small.
    const Point &origin = points_[bestBegin];
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    const auto n = static_cast<double>(bestEnd - bestBegin);
    for (size_t i = bestBegin; i < bestEnd; ++i) {
        const double x = static_cast<double>(points_[i].host - origin.host);
        const double y = points_[i].sample - origin.sample;
        sx += x;
        sy += y;
        sxx += x * x;
        sxy += x * y;
    }
    const double denominator = n * sxx - sx * sx;
    if (!(denominator > 0)) return std::nullopt;
    const double slope = (n * sxy - sx * sy) / denominator;
    return (slope / nominalPerNano - 1) * 1e6;
}

double avOffsetMilliseconds(const DeviceLine &line, double sampleRate, double origin, double pts, uint64_t shownHost) {
    const double soundHost = line.hostTimeOfSample((pts - origin) * sampleRate, sampleRate);
    return (static_cast<double>(shownHost) - soundHost) / 1e6;
}

bool DeviceReporter::fit(uint64_t host, double &sample, double &slope) const {
    if (window_.size() < 3 || window_.back().host - window_.front().host < 100'000'000) return false;
    const DeviceLine::Point &origin = window_.front();
    // Least squares over the timings whose residual is at most `limit`
    // samples (all of them at first).
    double a = 0, b = 0;  // sample - origin.sample = a + b * (host - origin.host)
    auto solve = [&](double limit) {
        double sx = 0, sy = 0, sxx = 0, sxy = 0, n = 0;
        for (const DeviceLine::Point &point : window_) {
            const double x = static_cast<double>(point.host - origin.host), y = point.sample - origin.sample;
            if (std::fabs(y - (a + b * x)) > limit) continue;
            sx += x;
            sy += y;
            sxx += x * x;
            sxy += x * y;
            n += 1;
        }
        const double denominator = n * sxx - sx * sx;
        if (n < 3 || !(denominator > 0)) return false;
        b = (n * sxy - sx * sy) / denominator;
        a = (sy - b * sx) / n;
        return true;
    };
    if (!solve(INFINITY)) return false;
    // Stamps that came late pull the line; fit again without the timings far
    // off it (more than three times the typical residual, and 0.1 ms).
    std::vector<double> residuals;
    residuals.reserve(window_.size());
    for (const DeviceLine::Point &point : window_)
        residuals.push_back(
            std::fabs(point.sample - origin.sample - (a + b * static_cast<double>(point.host - origin.host))));
    std::nth_element(residuals.begin(), residuals.begin() + static_cast<std::ptrdiff_t>(residuals.size() / 2),
                     residuals.end());
    const double typical = residuals[residuals.size() / 2];
    const double saveA = a, saveB = b;
    if (!solve(std::max(3 * typical, 1e-4 * sampleRate_))) {
        a = saveA;
        b = saveB;
    }
    slope = b;
    sample = origin.sample + a + b * static_cast<double>(static_cast<int64_t>(host - origin.host));
    return true;
}

OSStatus DeviceReporter::report(const StreamTiming &timing) {
    const double raw = sampleLeavingDevice(timing, bytesPerFrame_, sampleRate_);
    if (!std::isfinite(raw)) return kAudio_ParamError;
    AudioTimeStamp stamp = {};
    stamp.mSampleTime = raw;
    stamp.mHostTime = timing.hostTime;
    stamp.mFlags = kAudioTimeStampSampleHostTimeValid;
    if (!timing.playing) {
        // Before the first sound there is nothing to say; afterwards the
        // counter stands still once, until the stream moves again.
        if (!started_ || standing_) return 0;
        standing_ = true;
        ++stalls_;
        window_.clear();
        // Where it stands: no further than the line already reached.
        if (!line_.empty()) stamp.mSampleTime = std::max(raw, line_.points().back().sample);
        stamp.mRateScalar = 0;
        stamp.mFlags |= kAudioTimeStampRateScalarValid;
    } else {
        double fitted = 0, slope = 0;
        if (!window_.empty()) {
            const DeviceLine::Point &last = window_.back();
            double expected = last.sample + static_cast<double>(static_cast<int64_t>(timing.hostTime - last.host)) *
                                                sampleRate_ / kNanosPerSecond;
            if (fit(timing.hostTime, fitted, slope)) expected = fitted;
            if (timing.hostTime <= last.host || std::fabs(raw - expected) > kRestartSeconds * sampleRate_) {
                window_.clear();
                ++restarts_;
            }
        }
        window_.push_back({raw, timing.hostTime});
        const auto span = static_cast<uint64_t>(windowSeconds_ * kNanosPerSecond);
        size_t drop = 0;
        while (drop + 1 < window_.size() && timing.hostTime - window_[drop].host > span) ++drop;
        window_.erase(window_.begin(), window_.begin() + static_cast<std::ptrdiff_t>(drop));
        if (fit(timing.hostTime, fitted, slope)) {
            stamp.mSampleTime = fitted;
            const double scalar = slope * kNanosPerSecond / sampleRate_;
            if (std::fabs(scalar - 1) < kSteadyDeviation) {
                stamp.mRateScalar = scalar;
                stamp.mFlags |= kAudioTimeStampRateScalarValid;
            }
        }
        // The stream never plays a sample twice.
        if (!line_.empty() && !standing_) stamp.mSampleTime = std::max(stamp.mSampleTime, line_.points().back().sample);
        started_ = true;
        standing_ = false;
    }
    const OSStatus status = AudioDeviceReportTime(device_, &stamp);
    if (status == 0) {
        ++reports_;
        line_.add(stamp.mSampleTime, stamp.mHostTime);
    }
    return status;
}

void ErrorStats::add(double milliseconds) {
    if (!std::isfinite(milliseconds)) return;
    ++count_;
    const double delta = milliseconds - mean_;
    mean_ += delta / static_cast<double>(count_);
    m2_ += delta * (milliseconds - mean_);
    magnitudeSum_ += std::fabs(milliseconds);
    if (std::fabs(milliseconds) > std::fabs(worst_)) worst_ = milliseconds;
    if (std::fabs(milliseconds) > limit_) ++outside_;
}

double ErrorStats::standardDeviation() const {
    return count_ > 1 ? std::sqrt(m2_ / static_cast<double>(count_)) : 0;
}

}  // namespace sorvel::tool::audio
