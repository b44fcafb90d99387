/* SPDX-License-Identifier: Apache-2.0 */
// Sound output through a PulseAudio server (or PipeWire's PulseAudio
// service): one playback stream of interleaved 32-bit float PCM, driven from
// a threaded main loop, whose timing is reported to an audio device that this
// output registers with the platform's audio hardware.  While the stream
// plays, an audio clock made with SVAudioClockCreate follows the samples the
// server actually plays.
//
// The server is found the usual way (PULSE_SERVER, client.conf, the user's
// session socket); none is ever started.  Every wait is bounded: a server
// that does not answer, refuses the stream or goes away mid-play makes the
// call that waits fail with a one-line reason instead of hanging.
#ifndef SORVEL_TOOLS_SORVEL_AUDIO_PULSEOUTPUT_H
#define SORVEL_TOOLS_SORVEL_AUDIO_PULSEOUTPUT_H

#include <CoreAudio/AudioHardware.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AVSync.h"
#include "AudioDecoder.h"

struct pa_context;
struct pa_stream;
struct pa_threaded_mainloop;
struct pa_time_event;

namespace sorvel::tool::audio {

class PulseOutput {
public:
    // Connects to the server; null with `error` set when none answers within
    // `timeoutSeconds`.
    static std::unique_ptr<PulseOutput> connect(const char *clientName, double timeoutSeconds, std::string &error);
    ~PulseOutput();
    PulseOutput(const PulseOutput &) = delete;
    PulseOutput &operator=(const PulseOutput &) = delete;

    // The server's name and version, for the report.
    const std::string &serverDescription() const { return server_; }

    // Opens a corked playback stream of `channels` interleaved floats at
    // `sampleRate`, with a target buffer of `bufferSeconds`, and registers
    // the device its timing is reported to.  False with `error` set when the
    // server refuses the format.
    bool open(int sampleRate, const std::vector<Speaker> &speakers, double bufferSeconds, std::string &error);

    // Writes `frames` frames, waiting for room.  False when the server went
    // away, the stream failed, no room came for `stallSeconds`, or
    // interrupt() was called; `error` says which (empty after interrupt()).
    bool write(const float *samples, int64_t frames, std::string &error, double stallSeconds = 5.0);
    // The stream starts by itself once its buffer is full, unless held: a
    // held stream fills its buffer and waits, corked, for start().
    void hold();
    // Starts (uncorks) the stream: the server plays once its buffer is full.
    bool start(std::string &error);
    // Waits until everything written has played, at most `timeoutSeconds`.
    bool drain(double timeoutSeconds, std::string &error);
    // Makes a waiting write() or drain() return false; for shutting down.
    void interrupt();

    AudioDeviceID device() const { return device_; }
    double sampleRate() const { return sampleRate_; }
    int64_t framesWritten() const { return framesWritten_; }
    // Underruns the server signalled (the stream ran out of data).
    int64_t underruns() const { return underruns_.load(); }
    // Whether a report of the stream playing was made (the clock runs).
    bool clockRunning() const { return clockRunning_.load(); }
    // A copy of the reported line and the reporter's counts, taken under the
    // main loop's lock.
    DeviceLine line() const;
    int64_t reports() const;
    // Times the stream stopped moving while playing (see DeviceReporter).
    int64_t stalls() const;
    // The first failure seen by the main loop (the server went away, the
    // stream failed), empty while all is well.
    std::string failure() const;

private:
    PulseOutput() = default;
    struct Callbacks;  // the main loop's callbacks, in PulseOutput.cpp
    // Waits (the main loop's lock held) until `done` or a failure, at most
    // `timeoutSeconds`; true when `done`.
    bool waitLocked(double timeoutSeconds, const std::function<bool()> &done);
    void failLocked(std::string reason);
    void reportTimingLocked();
    // Tells the device that the stream ran dry: its clock stands at the
    // sample where the data ended until a timing finds it playing again.
    void reportDryLocked();

    pa_threaded_mainloop *loop_ = nullptr;
    pa_context *context_ = nullptr;
    pa_stream *stream_ = nullptr;
    pa_time_event *timer_ = nullptr;
    std::string server_;
    std::string failure_;  // guarded by the main loop's lock
    std::unique_ptr<DeviceReporter> reporter_;
    AudioDeviceID device_ = kAudioObjectUnknown;
    double sampleRate_ = 0;
    uint32_t bytesPerFrame_ = 0;
    int64_t framesWritten_ = 0;
    bool timingPending_ = false;
    bool corked_ = true;
    bool held_ = false;
    bool connected_ = false;
    std::atomic<int64_t> underruns_{0};
    std::atomic<bool> clockRunning_{false};
    std::atomic<bool> interrupted_{false};
};

}  // namespace sorvel::tool::audio

#endif  // SORVEL_TOOLS_SORVEL_AUDIO_PULSEOUTPUT_H
