// SPDX-License-Identifier: Apache-2.0
// Every call into libpulse is made with the threaded main loop's lock held;
// the callbacks run on the main loop's thread with the lock held already.
// A timer on the main loop fires every few milliseconds: it asks the server
// for fresh timing (whose answer becomes a report on the device) and wakes
// any waiter, which is what bounds every wait.
#include "PulseOutput.h"

#include <time.h>

#include <chrono>
#include <cmath>
#include <cstring>

#include "PulseLibrary.h"

namespace sorvel::tool::audio {
namespace {

// How often the stream's timing is asked for: often enough that the clock
// follows the server closely, seldom enough to cost nothing.
constexpr pa_usec_t kTimingInterval = 10 * PA_USEC_PER_MSEC;

uint64_t monotonicNow() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

pa_channel_position_t positionOf(Speaker speaker, int &auxiliary) {
    switch (speaker) {
        case Speaker::Mono:
            return PA_CHANNEL_POSITION_MONO;
        case Speaker::FrontLeft:
            return PA_CHANNEL_POSITION_FRONT_LEFT;
        case Speaker::FrontRight:
            return PA_CHANNEL_POSITION_FRONT_RIGHT;
        case Speaker::FrontCenter:
            return PA_CHANNEL_POSITION_FRONT_CENTER;
        case Speaker::LowFrequency:
            return PA_CHANNEL_POSITION_LFE;
        case Speaker::BackLeft:
            return PA_CHANNEL_POSITION_REAR_LEFT;
        case Speaker::BackRight:
            return PA_CHANNEL_POSITION_REAR_RIGHT;
        case Speaker::FrontLeftOfCenter:
            return PA_CHANNEL_POSITION_FRONT_LEFT_OF_CENTER;
        case Speaker::FrontRightOfCenter:
            return PA_CHANNEL_POSITION_FRONT_RIGHT_OF_CENTER;
        case Speaker::BackCenter:
            return PA_CHANNEL_POSITION_REAR_CENTER;
        case Speaker::SideLeft:
            return PA_CHANNEL_POSITION_SIDE_LEFT;
        case Speaker::SideRight:
            return PA_CHANNEL_POSITION_SIDE_RIGHT;
        case Speaker::TopCenter:
            return PA_CHANNEL_POSITION_TOP_CENTER;
        case Speaker::Other:
            break;
    }
    return static_cast<pa_channel_position_t>(PA_CHANNEL_POSITION_AUX0 + auxiliary++);
}

std::string contextError(pa_context *context) {
    return pulse().strerror(pulse().context_errno(context));
}

}  // namespace

struct PulseOutput::Callbacks {
    static void contextState(pa_context *context, void *userdata) {
        auto *self = static_cast<PulseOutput *>(userdata);
        const pa_context_state_t state = pulse().context_get_state(context);
        if (state == PA_CONTEXT_FAILED || state == PA_CONTEXT_TERMINATED)
            self->failLocked(self->connected_ ? "the audio server went away"
                                              : "cannot connect to an audio server: " + contextError(context));
        pulse().threaded_mainloop_signal(self->loop_, 0);
    }

    static void streamState(pa_stream *stream, void *userdata) {
        auto *self = static_cast<PulseOutput *>(userdata);
        const pa_stream_state_t state = pulse().stream_get_state(stream);
        if (state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED)
            self->failLocked("the audio server ended the playback stream: " + contextError(self->context_));
        pulse().threaded_mainloop_signal(self->loop_, 0);
    }

    static void signal(pa_stream *, size_t, void *userdata) {
        pulse().threaded_mainloop_signal(static_cast<PulseOutput *>(userdata)->loop_, 0);
    }

    static void underflow(pa_stream *, void *userdata) {
        auto *self = static_cast<PulseOutput *>(userdata);
        self->underruns_.fetch_add(1);
        self->reportDryLocked();
    }

    static void serverInfo(pa_context *, const pa_server_info *info, void *userdata) {
        auto *self = static_cast<PulseOutput *>(userdata);
        if (info)
            self->server_ = std::string(info->server_name ? info->server_name : "?") + " " +
                            (info->server_version ? info->server_version : "?");
        pulse().threaded_mainloop_signal(self->loop_, 0);
    }

    static void timingUpdated(pa_stream *, int success, void *userdata) {
        auto *self = static_cast<PulseOutput *>(userdata);
        self->timingPending_ = false;
        if (success) self->reportTimingLocked();
    }

    static void tick(pa_mainloop_api *, pa_time_event *event, const struct timeval *, void *userdata) {
        auto *self = static_cast<PulseOutput *>(userdata);
        if (self->stream_ && !self->timingPending_ && pulse().stream_get_state(self->stream_) == PA_STREAM_READY) {
            if (pa_operation *operation = pulse().stream_update_timing_info(self->stream_, timingUpdated, self)) {
                self->timingPending_ = true;
                pulse().operation_unref(operation);
            }
        }
        pulse().context_rttime_restart(self->context_, event, pulse().rtclock_now() + kTimingInterval);
        pulse().threaded_mainloop_signal(self->loop_, 0);
    }

    static void operationDone(pa_stream *, int, void *userdata) {
        pulse().threaded_mainloop_signal(static_cast<PulseOutput *>(userdata)->loop_, 0);
    }
};

std::unique_ptr<PulseOutput> PulseOutput::connect(const char *clientName, double timeoutSeconds, std::string &error) {
    if (!loadPulse(error)) return nullptr;
    std::unique_ptr<PulseOutput> output(new PulseOutput());
    output->loop_ = pulse().threaded_mainloop_new();
    if (!output->loop_) {
        error = "cannot make an audio main loop";
        return nullptr;
    }
    pa_mainloop_api *api = pulse().threaded_mainloop_get_api(output->loop_);
    output->context_ = pulse().context_new(api, clientName);
    if (!output->context_) {
        error = "cannot make an audio server connection";
        return nullptr;
    }
    pulse().context_set_state_callback(output->context_, Callbacks::contextState, output.get());
    if (pulse().context_connect(output->context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        error = "cannot connect to an audio server: " + contextError(output->context_);
        return nullptr;
    }
    pulse().threaded_mainloop_lock(output->loop_);
    if (pulse().threaded_mainloop_start(output->loop_) < 0) {
        pulse().threaded_mainloop_unlock(output->loop_);
        error = "cannot start the audio main loop";
        return nullptr;
    }
    output->timer_ = pulse().context_rttime_new(output->context_, pulse().rtclock_now() + kTimingInterval,
                                                Callbacks::tick, output.get());
    PulseOutput *self = output.get();
    const bool ready = self->waitLocked(
        timeoutSeconds, [self] { return pulse().context_get_state(self->context_) == PA_CONTEXT_READY; });
    if (ready) {
        self->connected_ = true;
        if (pa_operation *operation = pulse().context_get_server_info(self->context_, Callbacks::serverInfo, self)) {
            self->waitLocked(timeoutSeconds,
                             [operation] { return pulse().operation_get_state(operation) != PA_OPERATION_RUNNING; });
            pulse().operation_unref(operation);
        }
    } else {
        error = self->failure_.empty() ? "no audio server answered within " + std::to_string(timeoutSeconds) + " s"
                                       : self->failure_;
    }
    pulse().threaded_mainloop_unlock(output->loop_);
    return ready ? std::move(output) : nullptr;
}

PulseOutput::~PulseOutput() {
    if (loop_) {
        pulse().threaded_mainloop_lock(loop_);
        if (timer_) pulse().threaded_mainloop_get_api(loop_)->time_free(timer_);
        if (stream_) {
            pulse().stream_set_state_callback(stream_, nullptr, nullptr);
            pulse().stream_set_write_callback(stream_, nullptr, nullptr);
            pulse().stream_set_underflow_callback(stream_, nullptr, nullptr);
            pulse().stream_disconnect(stream_);
            pulse().stream_unref(stream_);
        }
        if (context_) {
            pulse().context_set_state_callback(context_, nullptr, nullptr);
            pulse().context_disconnect(context_);
            pulse().context_unref(context_);
        }
        pulse().threaded_mainloop_unlock(loop_);
        pulse().threaded_mainloop_stop(loop_);
        pulse().threaded_mainloop_free(loop_);
    } else if (context_) {
        pulse().context_unref(context_);
    }
    if (device_ != kAudioObjectUnknown) AudioHardwareUnregisterOutputDevice(device_);
}

bool PulseOutput::waitLocked(double timeoutSeconds, const std::function<bool()> &done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    for (;;) {
        if (done()) return true;
        if (!failure_.empty() || interrupted_.load() || std::chrono::steady_clock::now() >= deadline) return false;
        pulse().threaded_mainloop_wait(loop_);  // the timer wakes it at least every few milliseconds
    }
}

void PulseOutput::failLocked(std::string reason) {
    if (failure_.empty()) failure_ = std::move(reason);
}

bool PulseOutput::open(int sampleRate, const std::vector<Speaker> &speakers, double bufferSeconds, std::string &error) {
    pa_sample_spec sampleFormat = {};
    sampleFormat.format = PA_SAMPLE_FLOAT32NE;
    sampleFormat.rate = sampleRate > 0 ? static_cast<uint32_t>(sampleRate) : 0;
    sampleFormat.channels = speakers.size() <= PA_CHANNELS_MAX ? static_cast<uint8_t>(speakers.size()) : 0;
    if (!pulse().sample_spec_valid(&sampleFormat)) {
        error = "the audio server cannot play " + std::to_string(speakers.size()) + " channels at " +
                std::to_string(sampleRate) + " Hz";
        return false;
    }
    pa_channel_map map;
    pulse().channel_map_init(&map);
    map.channels = sampleFormat.channels;
    int auxiliary = 0;
    for (size_t c = 0; c < speakers.size(); ++c) map.map[c] = positionOf(speakers[c], auxiliary);
    if (!pulse().channel_map_valid(&map) || !pulse().channel_map_compatible(&map, &sampleFormat))
        pulse().channel_map_init_extend(&map, sampleFormat.channels, PA_CHANNEL_MAP_DEFAULT);

    pulse().threaded_mainloop_lock(loop_);
    stream_ = pulse().stream_new(context_, "sorvel play", &sampleFormat, &map);
    if (!stream_) {
        error = "the audio server refused a stream of " + std::to_string(speakers.size()) + " channels at " +
                std::to_string(sampleRate) + " Hz: " + contextError(context_);
        pulse().threaded_mainloop_unlock(loop_);
        return false;
    }
    sampleRate_ = sampleRate;
    bytesPerFrame_ = static_cast<uint32_t>(pulse().frame_size(&sampleFormat));
    pulse().stream_set_state_callback(stream_, Callbacks::streamState, this);
    pulse().stream_set_write_callback(stream_, Callbacks::signal, this);
    pulse().stream_set_underflow_callback(stream_, Callbacks::underflow, this);
    pa_buffer_attr attributes;
    attributes.maxlength = static_cast<uint32_t>(-1);
    attributes.tlength =
        static_cast<uint32_t>(pulse().usec_to_bytes(static_cast<pa_usec_t>(bufferSeconds * 1e6), &sampleFormat));
    attributes.prebuf = static_cast<uint32_t>(-1);
    attributes.minreq = static_cast<uint32_t>(-1);
    attributes.fragsize = static_cast<uint32_t>(-1);
    const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_INTERPOLATE_TIMING | PA_STREAM_AUTO_TIMING_UPDATE |
                                                      PA_STREAM_ADJUST_LATENCY | PA_STREAM_START_CORKED);
    bool ready = false;
    if (pulse().stream_connect_playback(stream_, nullptr, &attributes, flags, nullptr, nullptr) < 0) {
        failLocked("the audio server refused the playback stream: " + contextError(context_));
    } else {
        ready = waitLocked(5.0, [this] { return pulse().stream_get_state(stream_) == PA_STREAM_READY; });
    }
    if (!ready) {
        error =
            failure_.empty() ? std::string("the audio server did not open the playback stream within 5 s") : failure_;
        pulse().threaded_mainloop_unlock(loop_);
        return false;
    }
    pulse().threaded_mainloop_unlock(loop_);

    const OSStatus status = AudioHardwareRegisterOutputDevice(sampleRate, &device_);
    if (status != 0) {
        error = "cannot register the audio device (status " + std::to_string(status) + ")";
        return false;
    }
    pulse().threaded_mainloop_lock(loop_);
    reporter_ = std::make_unique<DeviceReporter>(device_, bytesPerFrame_, sampleRate_);
    pulse().threaded_mainloop_unlock(loop_);
    return true;
}

void PulseOutput::reportTimingLocked() {
    if (!reporter_ || !stream_) return;
    const pa_timing_info *info = pulse().stream_get_timing_info(stream_);
    if (!info || info->read_index_corrupt) return;
    // The server stamps its answer with the wall clock; carry the stamp over
    // to the monotonic clock through both clocks read together now.
    timeval wall;
    pulse().gettimeofday(&wall);
    const uint64_t host = monotonicNow();
    StreamTiming timing;
    timing.readIndexBytes = info->read_index;
    timing.deviceLatencyMicros = static_cast<int64_t>(info->sink_usec);
    timing.playing = info->playing != 0 && !corked_;
    timing.hostTime = hostTimeOfStamp(static_cast<int64_t>(pulse().timeval_load(&info->timestamp)),
                                      static_cast<int64_t>(pulse().timeval_load(&wall)), host);
    // The device stays registered while the stream exists and the reporter
    // keeps its times finite and in order; a report refused all the same
    // leaves the clock on the points it has, and the next tick reports anew.
    (void)reporter_->report(timing);
    if (reporter_->started()) clockRunning_.store(true);
}

void PulseOutput::reportDryLocked() {
    if (!reporter_ || !stream_) return;
    // The server says where the stream ran out; a timing query made later
    // could find it playing again already (the writer refills it at once
    // after a pause of the whole process), and the stand would go unseen.
    const int64_t index = pulse().stream_get_underflow_index(stream_);
    if (index < 0) return;
    const pa_timing_info *info = pulse().stream_get_timing_info(stream_);
    StreamTiming timing;
    timing.readIndexBytes = index;
    timing.deviceLatencyMicros = info ? static_cast<int64_t>(info->sink_usec) : 0;
    timing.playing = false;
    timing.hostTime = monotonicNow();
    (void)reporter_->report(timing);  // as in reportTimingLocked
}

void PulseOutput::hold() {
    pulse().threaded_mainloop_lock(loop_);
    held_ = true;
    pulse().threaded_mainloop_unlock(loop_);
}

bool PulseOutput::start(std::string &error) {
    pulse().threaded_mainloop_lock(loop_);
    held_ = false;
    bool done = false;
    if (!corked_) {
        done = true;
    } else if (pa_operation *operation = pulse().stream_cork(stream_, 0, Callbacks::operationDone, this)) {
        corked_ = false;
        done = waitLocked(5.0, [operation] { return pulse().operation_get_state(operation) != PA_OPERATION_RUNNING; });
        pulse().operation_unref(operation);
    }
    if (!done) error = failure_.empty() ? std::string("the audio server did not start the stream") : failure_;
    pulse().threaded_mainloop_unlock(loop_);
    return done;
}

bool PulseOutput::write(const float *samples, int64_t frames, std::string &error, double stallSeconds) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(samples);
    size_t left = static_cast<size_t>(frames) * bytesPerFrame_;
    pulse().threaded_mainloop_lock(loop_);
    bool ok = true;
    while (left > 0) {
        size_t room = 0;
        // A full buffer on a corked stream is the moment to start playing.
        auto hasRoom = [&] {
            room = pulse().stream_writable_size(stream_);
            if (room == static_cast<size_t>(-1)) room = 0;
            if (room == 0 && corked_ && !held_) {
                if (pa_operation *operation = pulse().stream_cork(stream_, 0, nullptr, nullptr))
                    pulse().operation_unref(operation);
                corked_ = false;
            }
            return room > 0;
        };
        if (!waitLocked(stallSeconds, hasRoom)) {
            // A held stream waits for start() as long as it takes.
            if (held_ && corked_ && failure_.empty() && !interrupted_.load()) continue;
            ok = false;
            if (!failure_.empty())
                error = failure_;
            else if (!interrupted_.load())
                error = "the audio server took no data for " + std::to_string(static_cast<int>(stallSeconds)) + " s";
            break;
        }
        const size_t count = std::min(room, left) / bytesPerFrame_ * bytesPerFrame_;
        if (count == 0) {
            // Less room than one frame: wait for more.
            pulse().threaded_mainloop_wait(loop_);
            continue;
        }
        if (pulse().stream_write(stream_, bytes, count, nullptr, 0, PA_SEEK_RELATIVE) < 0) {
            failLocked("writing to the audio server failed: " + contextError(context_));
            error = failure_;
            ok = false;
            break;
        }
        bytes += count;
        left -= count;
        framesWritten_ += static_cast<int64_t>(count / bytesPerFrame_);
    }
    pulse().threaded_mainloop_unlock(loop_);
    return ok;
}

bool PulseOutput::drain(double timeoutSeconds, std::string &error) {
    if (!start(error)) return false;
    pulse().threaded_mainloop_lock(loop_);
    bool done = false;
    if (pa_operation *operation = pulse().stream_drain(stream_, Callbacks::operationDone, this)) {
        done = waitLocked(timeoutSeconds,
                          [operation] { return pulse().operation_get_state(operation) != PA_OPERATION_RUNNING; });
        if (!done) pulse().operation_cancel(operation);
        pulse().operation_unref(operation);
    }
    if (!done)
        error = !failure_.empty() ? failure_ : interrupted_.load() ? "" : "the audio server did not finish playing";
    pulse().threaded_mainloop_unlock(loop_);
    return done;
}

void PulseOutput::interrupt() {
    interrupted_.store(true);
    pulse().threaded_mainloop_lock(loop_);
    pulse().threaded_mainloop_signal(loop_, 0);
    pulse().threaded_mainloop_unlock(loop_);
}

DeviceLine PulseOutput::line() const {
    pulse().threaded_mainloop_lock(loop_);
    DeviceLine copy = reporter_ ? reporter_->line() : DeviceLine();
    pulse().threaded_mainloop_unlock(loop_);
    return copy;
}

int64_t PulseOutput::reports() const {
    pulse().threaded_mainloop_lock(loop_);
    const int64_t count = reporter_ ? reporter_->reports() : 0;
    pulse().threaded_mainloop_unlock(loop_);
    return count;
}

int64_t PulseOutput::stalls() const {
    pulse().threaded_mainloop_lock(loop_);
    const int64_t count = reporter_ ? reporter_->stalls() : 0;
    pulse().threaded_mainloop_unlock(loop_);
    return count;
}

std::string PulseOutput::failure() const {
    pulse().threaded_mainloop_lock(loop_);
    std::string copy = failure_;
    pulse().threaded_mainloop_unlock(loop_);
    return copy;
}

}  // namespace sorvel::tool::audio
