/* SPDX-License-Identifier: Apache-2.0 */
// Records the default sink's monitor from a PulseAudio server, with host-time
// stamps: mono 32-bit float frames, and for every timing query the server
// answered, which recorded frame the sink was playing at which host time
// (CLOCK_MONOTONIC nanoseconds).  Used by the end-to-end lip-sync test, which
// must not trust the player's own bookkeeping.
#ifndef SORVEL_TOOLS_SORVEL_TESTS_MONITORRECORDER_H
#define SORVEL_TOOLS_SORVEL_TESTS_MONITORRECORDER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "BeepAnalysis.h"

struct pa_context;
struct pa_stream;
struct pa_threaded_mainloop;
struct pa_time_event;

namespace sorvel::test {

class MonitorRecorder {
public:
    // Connects and starts recording at `sampleRate`; null with `error` set
    // when no server answers within a few seconds.
    static std::unique_ptr<MonitorRecorder> start(int sampleRate, std::string &error);
    ~MonitorRecorder();
    MonitorRecorder(const MonitorRecorder &) = delete;
    MonitorRecorder &operator=(const MonitorRecorder &) = delete;

    // Stops recording; the data stays.
    void stop();
    int sampleRate() const { return rate_; }
    std::vector<float> samples() const;
    std::vector<FrameStamp> stamps() const;
    std::string failure() const;

private:
    struct Callbacks;
    MonitorRecorder() = default;
    pa_threaded_mainloop *loop_ = nullptr;
    pa_context *context_ = nullptr;
    pa_stream *stream_ = nullptr;
    pa_time_event *timer_ = nullptr;
    int rate_ = 0;
    bool pending_ = false;
    bool stopped_ = false;
    std::vector<float> samples_;  // guarded by the main loop's lock
    std::vector<FrameStamp> stamps_;
    std::string failure_;
};

}  // namespace sorvel::test

#endif  // SORVEL_TOOLS_SORVEL_TESTS_MONITORRECORDER_H
