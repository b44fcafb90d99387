// SPDX-License-Identifier: Apache-2.0
#include "BeepAnalysis.h"

#include <algorithm>
#include <cmath>

namespace sorvel::test {
namespace {

// How far before the first loud sample the quiet is sampled for its level.
constexpr int64_t kFloorSpan = 1000;
// The first cycle of a 1 kHz beep lies within this many frames (48 kHz).
constexpr int64_t kRiseSpan = 48;

// The onset of a beep whose first loud sample is `loud`: walk back through
// the first half cycle to where it leaves the noise floor, then extend the
// line through the first two samples above it to zero.  Without noise that
// is the sine's starting zero crossing itself.
double onsetBefore(const std::vector<float> &samples, int64_t loud) {
    float floor = 0;
    for (int64_t k = std::max<int64_t>(0, loud - kFloorSpan); k < loud - kRiseSpan; ++k)
        floor = std::max(floor, std::fabs(samples[static_cast<size_t>(k)]));
    const bool positive = samples[static_cast<size_t>(loud)] > 0;
    int64_t j = loud;
    while (j > 0) {
        const float before = samples[static_cast<size_t>(j - 1)];
        if ((before > 0) != positive || std::fabs(before) <= floor) break;
        --j;
    }
    const double a = samples[static_cast<size_t>(j)], b = samples[static_cast<size_t>(j + 1)];
    const double step = b - a;
    // A rise too flat to extend stays at the first sample above the floor.
    if (step == 0 || (step > 0) != positive) return static_cast<double>(j);
    return static_cast<double>(j) - std::min(1.0, a / step);
}

}  // namespace

std::vector<double> findBeepOnsets(const std::vector<float> &samples, float threshold, int64_t quietFrames) {
    std::vector<double> onsets;
    int64_t quiet = quietFrames;  // the recording starts quiet
    const auto count = static_cast<int64_t>(samples.size());
    for (int64_t i = 0; i < count; ++i) {
        if (std::fabs(samples[static_cast<size_t>(i)]) < threshold) {
            ++quiet;
            continue;
        }
        if (quiet >= quietFrames) onsets.push_back(onsetBefore(samples, i));
        quiet = 0;
    }
    return onsets;
}

double hostTimeOfFrame(const std::vector<FrameStamp> &stamps, double frame, double windowFrames) {
    auto fit = [&](bool local, double &result) {
        double sx = 0, sy = 0, sxx = 0, sxy = 0;
        int n = 0;
        const double origin = stamps.empty() ? 0 : static_cast<double>(stamps.front().host);
        for (const FrameStamp &stamp : stamps) {
            if (local && std::fabs(stamp.frame - frame) > windowFrames) continue;
            const double x = stamp.frame - frame, y = static_cast<double>(stamp.host) - origin;
            sx += x;
            sy += y;
            sxx += x * x;
            sxy += x * y;
            ++n;
        }
        const double denominator = n * sxx - sx * sx;
        if (n < 2 || !(denominator > 0)) return false;
        const double slope = (n * sxy - sx * sy) / denominator;
        // At x = 0, that is at `frame` itself.
        result = origin + (sy - slope * sx) / n;
        return true;
    };
    double host = NAN;
    if (!fit(true, host)) fit(false, host);
    return host;
}

}  // namespace sorvel::test
