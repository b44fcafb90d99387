// SPDX-License-Identifier: Apache-2.0
// The stamps come from the record stream's timing: the server says how many
// bytes it has written into the stream (write_index), how much the monitor
// holds that is not written yet (source_usec) and, for a monitor, how long
// the sink takes to play what it has rendered (sink_usec), at a wall-clock
// time stamp that is carried over to the monotonic clock.  A monitor records
// what the sink renders, ahead of playing it; without sink_usec the beeps
// would seem to come early by the sink's latency.
#include "MonitorRecorder.h"

#include <pulse/pulseaudio.h>
#include <time.h>

#include <chrono>
#include <cstring>

namespace sorvel::test {
namespace {

constexpr pa_usec_t kTimingInterval = 20 * PA_USEC_PER_MSEC;

uint64_t monotonicNow() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace

struct MonitorRecorder::Callbacks {
    static void contextState(pa_context *context, void *userdata) {
        auto *self = static_cast<MonitorRecorder *>(userdata);
        const pa_context_state_t state = pa_context_get_state(context);
        if ((state == PA_CONTEXT_FAILED || state == PA_CONTEXT_TERMINATED) && self->failure_.empty())
            self->failure_ = std::string("connection: ") + pa_strerror(pa_context_errno(context));
        pa_threaded_mainloop_signal(self->loop_, 0);
    }
    static void streamState(pa_stream *stream, void *userdata) {
        auto *self = static_cast<MonitorRecorder *>(userdata);
        const pa_stream_state_t state = pa_stream_get_state(stream);
        if (state == PA_STREAM_FAILED && self->failure_.empty())
            self->failure_ = std::string("record stream: ") + pa_strerror(pa_context_errno(self->context_));
        pa_threaded_mainloop_signal(self->loop_, 0);
    }
    static void readable(pa_stream *stream, size_t, void *userdata) {
        auto *self = static_cast<MonitorRecorder *>(userdata);
        const void *data = nullptr;
        size_t bytes = 0;
        while (pa_stream_readable_size(stream) > 0 && pa_stream_peek(stream, &data, &bytes) == 0) {
            if (bytes == 0) break;
            if (!self->stopped_) {
                const size_t count = bytes / sizeof(float);
                if (data) {
                    const auto *floats = static_cast<const float *>(data);
                    self->samples_.insert(self->samples_.end(), floats, floats + count);
                } else {
                    self->samples_.insert(self->samples_.end(), count, 0.0f);  // a hole
                }
            }
            pa_stream_drop(stream);
        }
    }
    static void timing(pa_stream *stream, int success, void *userdata) {
        auto *self = static_cast<MonitorRecorder *>(userdata);
        self->pending_ = false;
        const pa_timing_info *info = success ? pa_stream_get_timing_info(stream) : nullptr;
        if (!info || info->write_index_corrupt || self->stopped_) return;
        timeval wall;
        pa_gettimeofday(&wall);
        const uint64_t host = monotonicNow();
        const int64_t age =
            static_cast<int64_t>(pa_timeval_load(&wall)) - static_cast<int64_t>(pa_timeval_load(&info->timestamp));
        const uint64_t stampHost = host - static_cast<uint64_t>(age * 1000);
        // The newest frame the sink has rendered is the last one written
        // into the stream plus those still on their way (source_usec); the
        // sink plays it sink_usec after the stamp.
        const double frame = static_cast<double>(info->write_index) / sizeof(float) +
                             static_cast<double>(info->source_usec) * self->rate_ / 1e6;
        self->stamps_.push_back({frame, stampHost + info->sink_usec * 1000});
    }
    static void tick(pa_mainloop_api *, pa_time_event *event, const struct timeval *, void *userdata) {
        auto *self = static_cast<MonitorRecorder *>(userdata);
        if (self->stream_ && !self->pending_ && pa_stream_get_state(self->stream_) == PA_STREAM_READY) {
            if (pa_operation *operation = pa_stream_update_timing_info(self->stream_, timing, self)) {
                self->pending_ = true;
                pa_operation_unref(operation);
            }
        }
        pa_context_rttime_restart(self->context_, event, pa_rtclock_now() + kTimingInterval);
        pa_threaded_mainloop_signal(self->loop_, 0);
    }
};

std::unique_ptr<MonitorRecorder> MonitorRecorder::start(int sampleRate, std::string &error) {
    std::unique_ptr<MonitorRecorder> recorder(new MonitorRecorder());
    recorder->rate_ = sampleRate;
    recorder->loop_ = pa_threaded_mainloop_new();
    recorder->context_ = pa_context_new(pa_threaded_mainloop_get_api(recorder->loop_), "sorvel monitor recorder");
    MonitorRecorder *self = recorder.get();
    pa_context_set_state_callback(self->context_, Callbacks::contextState, self);
    if (pa_context_connect(self->context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        error = std::string("connect: ") + pa_strerror(pa_context_errno(self->context_));
        return nullptr;
    }
    pa_threaded_mainloop_lock(self->loop_);
    pa_threaded_mainloop_start(self->loop_);
    self->timer_ = pa_context_rttime_new(self->context_, pa_rtclock_now() + kTimingInterval, Callbacks::tick, self);
    auto wait = [&](auto done) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!done()) {
            if (!self->failure_.empty() || std::chrono::steady_clock::now() > deadline) return false;
            pa_threaded_mainloop_wait(self->loop_);
        }
        return true;
    };
    bool ok = wait([&] { return pa_context_get_state(self->context_) == PA_CONTEXT_READY; });
    if (ok) {
        const pa_sample_spec format = {PA_SAMPLE_FLOAT32NE, static_cast<uint32_t>(sampleRate), 1};
        self->stream_ = pa_stream_new(self->context_, "monitor", &format, nullptr);
        pa_stream_set_state_callback(self->stream_, Callbacks::streamState, self);
        pa_stream_set_read_callback(self->stream_, Callbacks::readable, self);
        pa_buffer_attr attributes;
        memset(&attributes, 0xff, sizeof attributes);
        attributes.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(5 * PA_USEC_PER_MSEC, &format));
        const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE |
                                                          PA_STREAM_INTERPOLATE_TIMING);
        ok = pa_stream_connect_record(self->stream_, "@DEFAULT_MONITOR@", &attributes, flags) == 0 &&
             wait([&] { return pa_stream_get_state(self->stream_) == PA_STREAM_READY; });
    }
    if (!ok) error = self->failure_.empty() ? "no answer from the server" : self->failure_;
    pa_threaded_mainloop_unlock(self->loop_);
    return ok ? std::move(recorder) : nullptr;
}

void MonitorRecorder::stop() {
    pa_threaded_mainloop_lock(loop_);
    stopped_ = true;
    pa_threaded_mainloop_unlock(loop_);
}

MonitorRecorder::~MonitorRecorder() {
    if (!loop_) return;
    pa_threaded_mainloop_lock(loop_);
    if (timer_) pa_threaded_mainloop_get_api(loop_)->time_free(timer_);
    if (stream_) {
        pa_stream_disconnect(stream_);
        pa_stream_unref(stream_);
    }
    if (context_) {
        pa_context_set_state_callback(context_, nullptr, nullptr);
        pa_context_disconnect(context_);
        pa_context_unref(context_);
    }
    pa_threaded_mainloop_unlock(loop_);
    pa_threaded_mainloop_stop(loop_);
    pa_threaded_mainloop_free(loop_);
}

std::vector<float> MonitorRecorder::samples() const {
    pa_threaded_mainloop_lock(loop_);
    std::vector<float> copy = samples_;
    pa_threaded_mainloop_unlock(loop_);
    return copy;
}

std::vector<FrameStamp> MonitorRecorder::stamps() const {
    pa_threaded_mainloop_lock(loop_);
    std::vector<FrameStamp> copy = stamps_;
    pa_threaded_mainloop_unlock(loop_);
    return copy;
}

std::string MonitorRecorder::failure() const {
    pa_threaded_mainloop_lock(loop_);
    std::string copy = failure_;
    pa_threaded_mainloop_unlock(loop_);
    return copy;
}

}  // namespace sorvel::test
