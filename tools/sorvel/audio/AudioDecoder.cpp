// SPDX-License-Identifier: Apache-2.0
#include "AudioDecoder.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "../EmbeddedStream.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

namespace sorvel::tool::audio {
namespace {

// A jump in the stream's time stamps smaller than this is rounding in the
// container, not a gap: the timeline simply continues.
constexpr double kGapSeconds = 0.040;
// Longer gaps are not filled with silence (a broken time stamp, not a pause).
constexpr double kLongestFilledGapSeconds = 10.0;
// This many packets in a row that fail to decode end decoding.
constexpr int64_t kFailuresInARow = 50;

std::string errorText(int status) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(status, text, sizeof text);
    return text;
}

Speaker speakerOf(AVChannel channel) {
    switch (channel) {
        case AV_CHAN_FRONT_LEFT:
            return Speaker::FrontLeft;
        case AV_CHAN_FRONT_RIGHT:
            return Speaker::FrontRight;
        case AV_CHAN_FRONT_CENTER:
            return Speaker::FrontCenter;
        case AV_CHAN_LOW_FREQUENCY:
            return Speaker::LowFrequency;
        case AV_CHAN_BACK_LEFT:
            return Speaker::BackLeft;
        case AV_CHAN_BACK_RIGHT:
            return Speaker::BackRight;
        case AV_CHAN_FRONT_LEFT_OF_CENTER:
            return Speaker::FrontLeftOfCenter;
        case AV_CHAN_FRONT_RIGHT_OF_CENTER:
            return Speaker::FrontRightOfCenter;
        case AV_CHAN_BACK_CENTER:
            return Speaker::BackCenter;
        case AV_CHAN_SIDE_LEFT:
            return Speaker::SideLeft;
        case AV_CHAN_SIDE_RIGHT:
            return Speaker::SideRight;
        case AV_CHAN_TOP_CENTER:
            return Speaker::TopCenter;
        default:
            return Speaker::Other;
    }
}

template <typename T>
float toFloat(T value);
template <>
float toFloat(uint8_t value) {
    return (static_cast<float>(value) - 128.0f) / 128.0f;
}
template <>
float toFloat(int16_t value) {
    return static_cast<float>(value) / 32768.0f;
}
template <>
float toFloat(int32_t value) {
    return static_cast<float>(static_cast<double>(value) / 2147483648.0);
}
template <>
float toFloat(int64_t value) {
    return static_cast<float>(static_cast<double>(value) / 9223372036854775808.0);
}
template <>
float toFloat(float value) {
    return value;
}
template <>
float toFloat(double value) {
    return static_cast<float>(value);
}

template <typename T>
void interleave(const uint8_t *const *planes, bool planar, int channels, int64_t frames, float *out) {
    if (planar) {
        for (int c = 0; c < channels; ++c) {
            const T *plane = reinterpret_cast<const T *>(planes[c]);
            for (int64_t f = 0; f < frames; ++f) out[f * channels + c] = toFloat<T>(plane[f]);
        }
    } else {
        const T *data = reinterpret_cast<const T *>(planes[0]);
        for (int64_t i = 0; i < frames * channels; ++i) out[i] = toFloat<T>(data[i]);
    }
}

}  // namespace

bool appendInterleavedFloat(int format, const uint8_t *const *planes, int channels, int64_t frames,
                            std::vector<float> &out) {
    if (channels <= 0 || frames < 0) return false;
    const auto sampleFormat = static_cast<AVSampleFormat>(format);
    const bool planar = av_sample_fmt_is_planar(sampleFormat) != 0;
    const size_t at = out.size();
    out.resize(at + static_cast<size_t>(frames) * static_cast<size_t>(channels));
    float *dst = out.data() + at;
    switch (av_get_packed_sample_fmt(sampleFormat)) {
        case AV_SAMPLE_FMT_U8:
            interleave<uint8_t>(planes, planar, channels, frames, dst);
            return true;
        case AV_SAMPLE_FMT_S16:
            interleave<int16_t>(planes, planar, channels, frames, dst);
            return true;
        case AV_SAMPLE_FMT_S32:
            interleave<int32_t>(planes, planar, channels, frames, dst);
            return true;
        case AV_SAMPLE_FMT_S64:
            interleave<int64_t>(planes, planar, channels, frames, dst);
            return true;
        case AV_SAMPLE_FMT_FLT:
            interleave<float>(planes, planar, channels, frames, dst);
            return true;
        case AV_SAMPLE_FMT_DBL:
            interleave<double>(planes, planar, channels, frames, dst);
            return true;
        default:
            out.resize(at);
            return false;
    }
}

std::unique_ptr<AudioDecoder> AudioDecoder::open(const std::string &path, std::string &error) {
    std::unique_ptr<AudioDecoder> decoder(new AudioDecoder());
    if (!decoder->openInput(path, error)) return nullptr;
    return decoder;
}

AudioDecoder::~AudioDecoder() {
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&codec_);
    avformat_close_input(&format_);
    closeEmbeddedStreamIO(memoryIo_);
}

bool AudioDecoder::openInput(const std::string &path, std::string &error) {
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();
    if (!packet_ || !frame_) {
        error = "out of memory";
        return false;
    }
    if (path.empty()) {
        memoryIo_ = openEmbeddedStreamIO();
        format_ = avformat_alloc_context();
        if (!memoryIo_ || !format_) {
            error = "out of memory";
            return false;
        }
        format_->pb = memoryIo_;
        format_->flags |= AVFMT_FLAG_CUSTOM_IO;
    }
    int status = avformat_open_input(&format_, path.empty() ? nullptr : path.c_str(), nullptr, nullptr);
    if (status < 0) {
        error = format_ == nullptr && path.empty() ? "cannot read the demo stream" : errorText(status);
        return false;
    }
    status = avformat_find_stream_info(format_, nullptr);
    if (status < 0) {
        error = errorText(status);
        return false;
    }
    for (unsigned i = 0; i < format_->nb_streams; ++i)
        if (format_->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
            streamIndex_ = static_cast<int>(i);
            break;
        }
    if (streamIndex_ < 0) {
        error = "no audio stream";
        return false;
    }
    for (unsigned i = 0; i < format_->nb_streams; ++i)
        if (static_cast<int>(i) != streamIndex_) format_->streams[i]->discard = AVDISCARD_ALL;
    const AVStream *stream = format_->streams[streamIndex_];
    const AVCodec *codec = avcodec_find_decoder(stream->codecpar->codec_id);
    codecName_ = avcodec_get_name(stream->codecpar->codec_id);
    if (!codec) {
        error = "no decoder for " + codecName_ + " audio";
        return false;
    }
    codec_ = avcodec_alloc_context3(codec);
    if (!codec_) {
        error = "out of memory";
        return false;
    }
    status = avcodec_parameters_to_context(codec_, stream->codecpar);
    if (status >= 0) {
        codec_->pkt_timebase = stream->time_base;
        status = avcodec_open2(codec_, codec, nullptr);
    }
    if (status < 0) {
        error = "cannot open the " + codecName_ + " decoder: " + errorText(status);
        return false;
    }
    sampleRate_ = codec_->sample_rate;
    channels_ = codec_->ch_layout.nb_channels;
    if (sampleRate_ <= 0 || channels_ <= 0) {
        error = codecName_ + " audio with " + std::to_string(sampleRate_) + " Hz and " + std::to_string(channels_) +
                " channels cannot be played";
        return false;
    }
    for (int c = 0; c < channels_; ++c)
        speakers_.push_back(channels_ == 1 ? Speaker::Mono
                                           : speakerOf(av_channel_layout_channel_from_index(&codec_->ch_layout, c)));
    return true;
}

bool AudioDecoder::seek(double seconds) {
    const AVStream *stream = format_->streams[streamIndex_];
    const int64_t target =
        av_rescale_q(static_cast<int64_t>(std::floor(seconds * AV_TIME_BASE)), AV_TIME_BASE_Q, stream->time_base);
    if (av_seek_frame(format_, streamIndex_, target, AVSEEK_FLAG_BACKWARD) < 0) return false;
    avcodec_flush_buffers(codec_);
    draining_ = finished_ = haveNext_ = false;
    failedInARow_ = 0;
    return true;
}

bool AudioDecoder::next(PcmChunk &chunk) {
    chunk.frames = 0;
    chunk.samples.clear();
    while (!finished_) {
        if (receive(chunk)) return true;
        if (finished_ || !problem_.empty()) break;
        // The decoder wants input.
        if (draining_) {
            finished_ = true;
            break;
        }
        int status = av_read_frame(format_, packet_);
        if (status == AVERROR_EOF) {
            draining_ = true;
            // Entering draining mode fails only when the decoder already
            // drains, which draining_ keeps from happening; its frames are
            // received below either way.
            (void)avcodec_send_packet(codec_, nullptr);
            continue;
        }
        if (status < 0) {
            problem_ = "reading the audio failed: " + errorText(status);
            break;
        }
        if (packet_->stream_index != streamIndex_) {
            av_packet_unref(packet_);
            continue;
        }
        status = avcodec_send_packet(codec_, packet_);
        av_packet_unref(packet_);
        if (status < 0 && status != AVERROR(EAGAIN)) {
            ++packetsFailed_;
            if (++failedInARow_ >= kFailuresInARow) {
                problem_ = "the " + codecName_ + " audio cannot be decoded: " + errorText(status);
                break;
            }
        }
    }
    return false;
}

// Takes decoded frames until one yields PCM; false when the decoder needs
// more input or is done.
bool AudioDecoder::receive(PcmChunk &chunk) {
    for (;;) {
        const int status = avcodec_receive_frame(codec_, frame_);
        if (status == AVERROR(EAGAIN)) return false;
        if (status == AVERROR_EOF) {
            finished_ = true;
            return false;
        }
        if (status < 0) {
            ++packetsFailed_;
            if (++failedInARow_ >= kFailuresInARow) {
                problem_ = "the " + codecName_ + " audio cannot be decoded: " + errorText(status);
                return false;
            }
            continue;
        }
        failedInARow_ = 0;
        const bool placed = place(frame_, chunk);
        av_frame_unref(frame_);
        if (!problem_.empty()) return false;
        if (placed) return true;
    }
}

bool AudioDecoder::place(const AVFrame *frame, PcmChunk &chunk) {
    if (frame->sample_rate != sampleRate_ || frame->ch_layout.nb_channels != channels_) {
        problem_ = "the audio changes its format mid-stream (" + std::to_string(frame->sample_rate) + " Hz, " +
                   std::to_string(frame->ch_layout.nb_channels) + " channels)";
        return false;
    }
    int64_t frames = frame->nb_samples;
    if (frames <= 0) return false;
    const int64_t stamp = frame->best_effort_timestamp;
    int64_t at = nextFrame_;
    if (stamp != AV_NOPTS_VALUE) {
        const AVStream *stream = format_->streams[streamIndex_];
        at = av_rescale_q(stamp, stream->time_base, AVRational{1, sampleRate_});
    }
    int64_t skip = 0, silence = 0;
    if (!haveNext_) {
        nextFrame_ = at;
        haveNext_ = true;
    } else {
        const int64_t gap = at - nextFrame_;
        const auto tolerance = static_cast<int64_t>(kGapSeconds * sampleRate_);
        if (gap > tolerance && gap <= static_cast<int64_t>(kLongestFilledGapSeconds * sampleRate_)) {
            silence = gap;
        } else if (gap < -tolerance) {
            skip = std::min(frames, -gap);
        }
    }
    chunk.firstFrame = nextFrame_;
    if (silence > 0) {
        chunk.samples.assign(static_cast<size_t>(silence) * static_cast<size_t>(channels_), 0.0f);
        framesInserted_ += silence;
    }
    framesDropped_ += skip;
    frames -= skip;
    if (frames > 0) {
        std::vector<const uint8_t *> planes(static_cast<size_t>(channels_));
        const bool planar = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(frame->format)) != 0;
        const int bytes = av_get_bytes_per_sample(static_cast<AVSampleFormat>(frame->format));
        for (int c = 0; c < channels_; ++c)
            planes[static_cast<size_t>(c)] =
                planar ? frame->extended_data[c] + skip * bytes : frame->extended_data[0] + skip * bytes * channels_;
        if (!appendInterleavedFloat(frame->format, planes.data(), channels_, frames, chunk.samples)) {
            const char *name = av_get_sample_fmt_name(static_cast<AVSampleFormat>(frame->format));
            problem_ = std::string("the decoder's sample format ") + (name ? name : "(unknown)") + " is not supported";
            return false;
        }
    }
    chunk.frames = static_cast<int64_t>(chunk.samples.size()) / channels_;
    nextFrame_ += chunk.frames;
    framesDecoded_ += chunk.frames;
    return chunk.frames > 0;
}

}  // namespace sorvel::tool::audio
