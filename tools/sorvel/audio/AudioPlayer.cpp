// SPDX-License-Identifier: Apache-2.0
#include "AudioPlayer.h"

#include <algorithm>
#include <chrono>
#include <vector>

namespace sorvel::tool::audio {
namespace {

// The decoding thread keeps about this much sound queued.
constexpr double kQueuedSeconds = 1.0;
// The playback stream's target buffer: enough to ride out a busy machine,
// little enough that starting and stopping feel immediate.
constexpr double kOutputBufferSeconds = 0.1;
// Silence is written in pieces of this length once the sound has ended.
constexpr double kSilenceSeconds = 0.01;

double secondsOf(SVTime time) {
    return SVTIME_IS_NUMERIC(time) ? static_cast<double>(time.value) / time.timescale : 0;
}

}  // namespace

std::unique_ptr<AudioPlayer> AudioPlayer::open(const std::string &file, std::string &error) {
    std::unique_ptr<AudioPlayer> player(new AudioPlayer());
    player->decoder_ = AudioDecoder::open(file, error);
    if (!player->decoder_) return nullptr;
    return player;
}

AudioPlayer::~AudioPlayer() {
    stop();
    if (queue_) CFRelease(queue_);
    if (format_) CFRelease(format_);
}

bool AudioPlayer::start(PulseOutput &output, double startSeconds, double endSeconds, double leadSeconds, bool held,
                        std::string &error) {
    const int rate = decoder_->sampleRate();
    OSStatus status = 0;
    format_ = makePcmFormat(rate, decoder_->channels(), status);
    if (!format_) {
        error = "cannot describe the decoded sound (status " + std::to_string(status) + ")";
        return false;
    }
    status = SVBufferQueueCreate(nullptr, 0, SVBufferQueueGetCallbacksForUnsortedSampleBuffers(), &queue_);
    if (status != 0) {
        error = "cannot make the sound's buffer queue (status " + std::to_string(status) + ")";
        return false;
    }
    if (!output.open(rate, decoder_->speakers(), kOutputBufferSeconds, error)) return false;
    output_ = &output;
    if (held) output.hold();
    const double start = std::isfinite(startSeconds) ? startSeconds : 0;
    origin_ = start - leadSeconds;
    end_ = endSeconds;
    startFrame_ = static_cast<int64_t>(std::llround(origin_ * rate));
    // A seek that fails leaves the reader at the start; trimming copes.
    if (start > 0) decoder_->seek(start);
    decoding_ = std::thread([this] { decodeLoop(); });
    writing_ = std::thread([this] { writeLoop(); });
    return true;
}

void AudioPlayer::fail(std::string reason) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (problem_.empty()) problem_ = std::move(reason);
}

bool AudioPlayer::enqueue(const float *samples, int64_t frames, int64_t firstFrame) {
    const int channels = decoder_->channels();
    OSStatus status = 0;
    SVSampleBufferRef buffer =
        makePcmSampleBuffer(format_, samples, frames, channels, firstFrame, decoder_->sampleRate(), status);
    if (!buffer) {
        fail("cannot wrap the decoded sound in a sample buffer (status " + std::to_string(status) + ")");
        return false;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return stopping_ || secondsOf(SVBufferQueueGetDuration(queue_)) < kQueuedSeconds; });
    if (!stopping_) {
        status = SVBufferQueueEnqueue(queue_, buffer);
        if (status == 0) {
            buffersQueued_.fetch_add(1);
            framesOfSound_.fetch_add(frames);
        }
    }
    const bool ok = !stopping_ && status == 0;
    lock.unlock();
    CFRelease(buffer);
    changed_.notify_all();
    if (status != 0) fail("the sound's buffer queue refused a buffer (status " + std::to_string(status) + ")");
    return ok;
}

void AudioPlayer::decodeLoop() {
    const int rate = decoder_->sampleRate();
    const int channels = decoder_->channels();
    const int64_t stopFrame =
        std::isfinite(end_) ? static_cast<int64_t>(std::llround(end_ * rate)) : INT64_MAX;  // exclusive
    int64_t next = startFrame_;  // the next frame of the timeline to queue
    bool decodedAny = false;
    PcmChunk chunk;
    while (next < stopFrame && decoder_->next(chunk)) {
        decodedAny = true;
        const int64_t first = chunk.firstFrame, last = chunk.firstFrame + chunk.frames;
        if (last <= next) continue;
        // Sound that begins later than the timeline: silence up to it.
        if (first > next) {
            std::vector<float> silence(static_cast<size_t>(std::min<int64_t>(first - next, rate / 10)) *
                                       static_cast<size_t>(channels));
            const int64_t silenceEnd = std::min(first, stopFrame);
            while (next < silenceEnd) {
                const int64_t count = std::min<int64_t>(silenceEnd - next, rate / 10);
                if (!enqueue(silence.data(), count, next)) break;
                next += count;
            }
            if (next < first) break;
        }
        const int64_t count = std::min(last, stopFrame) - next;
        if (count > 0 && !enqueue(chunk.samples.data() + (next - first) * channels, count, next)) break;
        next += std::max<int64_t>(count, 0);
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) break;
    }
    if (!decoder_->problem().empty())
        fail(decoder_->problem());
    else if (!decodedAny)
        fail("the " + decoder_->codecName() + " audio cannot be decoded: not one packet of it decodes");
    if (const OSStatus status = SVBufferQueueMarkEndOfData(queue_); status != 0)
        fail("the sound's buffer queue refused its end (status " + std::to_string(status) + ")");
    {
        std::lock_guard<std::mutex> lock(mutex_);
        decodingDone_ = true;
        endFrame_ = next - startFrame_;
    }
    changed_.notify_all();
}

void AudioPlayer::writeLoop() {
    const int channels = decoder_->channels();
    const auto silenceFrames = static_cast<int64_t>(std::ceil(kSilenceSeconds * decoder_->sampleRate()));
    const std::vector<float> silence(static_cast<size_t>(silenceFrames) * static_cast<size_t>(channels));
    for (;;) {
        SVSampleBufferRef buffer = nullptr;
        bool ended = false;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [&] {
                if (stopping_) return true;
                buffer = (SVSampleBufferRef)SVBufferQueueDequeueAndRetain(queue_);
                ended = buffer == nullptr && decodingDone_;
                return buffer != nullptr || ended;
            });
            if (stopping_) {
                if (buffer) CFRelease(buffer);
                return;
            }
        }
        changed_.notify_all();
        std::string error;
        bool written;
        if (buffer) {
            // Interleaved PCM: one buffer of every channel, in place.
            AudioBufferList list;
            SVBlockBufferRef keeper = nullptr;
            const OSStatus status = SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
                buffer, nullptr, &list, sizeof list, nullptr, nullptr, 0, &keeper);
            const int64_t frames = SVSampleBufferGetNumSamples(buffer);
            CFRelease(buffer);
            if (status != 0 || list.mNumberBuffers != 1 ||
                list.mBuffers[0].mDataByteSize <
                    static_cast<size_t>(frames) * sizeof(float) * static_cast<size_t>(channels)) {
                if (keeper) CFRelease(keeper);
                fail("a sound buffer's bytes cannot be read (status " + std::to_string(status) + ")");
                return;
            }
            written = output_->write(static_cast<const float *>(list.mBuffers[0].mData), frames, error);
            CFRelease(keeper);
        } else {
            // The sound has ended: silence keeps the device's clock running.
            written = output_->write(silence.data(), silenceFrames, error);
        }
        if (!written) {
            if (!error.empty()) fail(error);
            return;
        }
    }
}

bool AudioPlayer::waitForClock(double timeoutSeconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    while (!output_->clockRunning()) {
        if (!problem().empty() || std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void AudioPlayer::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (output_) output_->interrupt();
    if (decoding_.joinable()) decoding_.join();
    if (writing_.joinable()) writing_.join();
}

double AudioPlayer::endSeconds() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return decodingDone_ ? origin_ + static_cast<double>(endFrame_) / decoder_->sampleRate() : NAN;
}

bool AudioPlayer::decodingDone() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return decodingDone_;
}

int64_t AudioPlayer::endFrame() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return decodingDone_ ? endFrame_ : -1;
}

std::string AudioPlayer::problem() const {
    std::string output = output_ ? output_->failure() : std::string();
    std::lock_guard<std::mutex> lock(mutex_);
    return problem_.empty() ? output : problem_;
}

}  // namespace sorvel::tool::audio
