/* SPDX-License-Identifier: Apache-2.0 */
// Finding beeps in a recording and placing them on the host clock: the
// analysis half of the end-to-end lip-sync test, kept apart from the server
// so that it can be checked on made-up signals.
#ifndef SORVEL_TOOLS_SORVEL_TESTS_BEEPANALYSIS_H
#define SORVEL_TOOLS_SORVEL_TESTS_BEEPANALYSIS_H

#include <cstdint>
#include <vector>

namespace sorvel::test {

struct FrameStamp {
    double frame;   // recorded frame index (may be fractional)
    uint64_t host;  // the host time at which it was played
};

// The onsets (fractional frame indices) of the beeps in `samples`: a beep is
// a run that reaches `threshold` in magnitude after at least `quietFrames`
// below it (the recording's start counts as quiet).  A beep is a sine that
// starts at phase 0, so its onset is where its first half cycle rises out of
// the quiet's noise floor, extended to zero: exact to a fraction of a sample
// whatever the beep's level.
std::vector<double> findBeepOnsets(const std::vector<float> &samples, float threshold, int64_t quietFrames);

// The host time (nanoseconds, as a double) at which recorded frame `frame`
// was played: the least-squares line through the stamps within
// `windowFrames` of it (all stamps when fewer than two lie there).  NaN
// without two stamps.
double hostTimeOfFrame(const std::vector<FrameStamp> &stamps, double frame, double windowFrames);

}  // namespace sorvel::test

#endif  // SORVEL_TOOLS_SORVEL_TESTS_BEEPANALYSIS_H
