/* SPDX-License-Identifier: Apache-2.0 */
// Plays a file's first audio stream through a PulseOutput.  A decoding
// thread decodes the sound, wraps each run of PCM in an audio sample buffer
// (linear PCM, 32-bit float, interleaved) timed on the stream's timeline, and
// enqueues it into a buffer queue that holds about a second of sound; a
// writing thread dequeues the buffers and writes their bytes to the playback
// stream.
//
// The stream's sample 0 is a presentation time chosen by the caller (the
// window's start, less a lead-in): sound before it is cut off, and silence
// fills in when the sound begins later, so a timebase anchored at (that
// time, sample 0) of the device's clock reads the presentation time of the
// sound leaving the device.  After the sound ends
// the writer keeps writing silence until stop(), so that the device's clock
// runs on for pictures that outlast the sound.
#ifndef SORVEL_TOOLS_SORVEL_AUDIO_AUDIOPLAYER_H
#define SORVEL_TOOLS_SORVEL_AUDIO_AUDIOPLAYER_H

#include <Sorvel/Sorvel.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "AudioDecoder.h"
#include "PcmBuffers.h"
#include "PulseOutput.h"

namespace sorvel::tool::audio {

class AudioPlayer {
public:
    // Opens `file`'s first audio stream and its decoder; null with `error`
    // set when there is none or it cannot be decoded here.
    static std::unique_ptr<AudioPlayer> open(const std::string &file, std::string &error);
    ~AudioPlayer();
    AudioPlayer(const AudioPlayer &) = delete;
    AudioPlayer &operator=(const AudioPlayer &) = delete;

    const AudioDecoder &decoder() const { return *decoder_; }

    // Opens the playback stream on `output` and starts both threads; plays
    // the sound from `startSeconds` up to `endSeconds` (infinite: to its
    // end), preceded by `leadSeconds` of silence (so that the stream's
    // sample 0 is startSeconds - leadSeconds).  With `held` the stream fills
    // and waits for go().  False with `error` set when the server refuses
    // the format.
    bool start(PulseOutput &output, double startSeconds, double endSeconds, double leadSeconds, bool held,
               std::string &error);
    // Lets a held stream play.
    bool go(std::string &error) { return output_->start(error); }
    // Waits until the device reports that the sound plays, at most
    // `timeoutSeconds`; false on timeout or failure.
    bool waitForClock(double timeoutSeconds);
    // Stops both threads (idempotent).  The output itself stays open.
    void stop();

    // The presentation time of the stream's sample 0, in seconds.
    double originSeconds() const { return origin_; }
    // The presentation time where the sound ends, once it was all decoded
    // (NaN before).
    double endSeconds() const;
    // Whether the whole sound was decoded and queued.
    bool decodingDone() const;
    // The stream frame at which the sound ends (silence follows), or -1
    // while decoding goes on.
    int64_t endFrame() const;
    // What went wrong, empty when nothing did: the sound could not be
    // decoded, or the server went away.
    std::string problem() const;

    int64_t buffersQueued() const { return buffersQueued_.load(); }
    int64_t framesOfSound() const { return framesOfSound_.load(); }

private:
    AudioPlayer() = default;
    void decodeLoop();
    void writeLoop();
    bool enqueue(const float *samples, int64_t frames, int64_t firstFrame);
    void fail(std::string reason);

    std::unique_ptr<AudioDecoder> decoder_;
    PulseOutput *output_ = nullptr;
    SVFormatDescriptionRef format_ = nullptr;
    SVBufferQueueRef queue_ = nullptr;
    double origin_ = 0;
    double end_ = INFINITY;
    int64_t startFrame_ = 0;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool stopping_ = false;
    bool decodingDone_ = false;
    int64_t endFrame_ = -1;
    std::string problem_;
    std::atomic<int64_t> buffersQueued_{0};
    std::atomic<int64_t> framesOfSound_{0};
    std::thread decoding_, writing_;
};

}  // namespace sorvel::tool::audio

#endif  // SORVEL_TOOLS_SORVEL_AUDIO_AUDIOPLAYER_H
