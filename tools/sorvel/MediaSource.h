/* SPDX-License-Identifier: Apache-2.0 */
// Reads a media file (or the embedded demo stream) with libavformat and
// turns its video packets into Sorvel sample buffers: one format description
// per set of parameter sets, one block buffer and one sample buffer per
// access unit, timing in the stream's own timescale and sync attachments.
// Packets in Annex B framing (MPEG-TS, raw streams) are rewritten with
// 4-byte length prefixes so that every sample is 'avc1'/'hvc1' data.
#ifndef SORVEL_TOOLS_SORVEL_MEDIASOURCE_H
#define SORVEL_TOOLS_SORVEL_MEDIASOURCE_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Tool.h"

struct AVFormatContext;
struct AVIOContext;
struct AVPacket;
struct AVStream;

namespace sorvel::tool {

// One audio packet as an audio sample buffer (a run of frames for PCM).
struct AudioSample {
    Ref<SVSampleBufferRef> buffer;
    int64_t index = 0;  // in the track, from 0
    // The buffer's times in the stream's own ticks: presentation time, and
    // its duration less what the container's duration cuts off its end.
    int64_t pts = 0;
    int64_t duration = 0;
    size_t size = 0;
    int64_t frames = 0;                  // frames the packet decodes to
    int64_t trimStart = 0, trimEnd = 0;  // frames
};

struct AudioTrack {
    int streamIndex = 0;
    std::string codecName;
    Ref<SVFormatDescriptionRef> description;  // null for codecs without a stream description here
    int64_t packetCount = 0;
    double startSeconds = 0;
    double endSeconds = 0;
    // The stream's time base (ticks of num/den seconds).
    int32_t tickNumerator = 1, tickDenominator = 1;
    // What the audio sample buffers made of the packets say.
    int64_t bufferCount = 0;              // packets made into sample buffers
    int64_t packetsSkipped = 0;           // packets that could not be (empty, untimed, damaged)
    int64_t frames = 0;                   // decoded frames, priming and remainder included
    int64_t primingFrames = 0;            // trimmed at the start (the encoder's delay)
    int64_t remainderFrames = 0;          // trimmed at the end (padding of the last packet)
    SVTime outputStart = kSVTimeInvalid;  // output presentation time of the first buffer
    SVTime outputDuration = kSVTimeZero;  // sum of the buffers' output durations
    int64_t nextPts = 0;                  // ticks: where a packet without a time stamp goes
    std::vector<AudioSample> samples;     // kept only with MediaSource::keepAudioSamples
};

// Frames trimmed off a packet, and the part of the end trim that the
// container's duration cuts off.
struct AudioTrims {
    int64_t start = 0, end = 0, cut = 0;
};

struct VideoSample {
    Ref<SVSampleBufferRef> buffer;
    int64_t index = 0;  // decode order, from 0
    int64_t pts = 0;    // stream ticks
    int64_t dts = 0;    // the presentation time when the container has no decode times
    int64_t duration = 0;
    size_t size = 0;
    bool sync = false;
    bool timestampsGuessed = false;  // the container gave neither pts nor dts
};

class MediaSource {
public:
    // An empty path opens the demo stream compiled into the program.  With
    // `videoRequired` false a file with audio but no video opens too.
    // Without `analyze`, an MP4 or QuickTime file whose headers already give
    // every stream's codec, size or rate, and configuration is not analysed
    // further (libavformat then decodes no frames to guess what they say);
    // for readers of the samples only, since the stream details a report
    // prints may come from that analysis.
    static std::unique_ptr<MediaSource> open(const std::string &path, ToolError &error, bool videoRequired = true,
                                             bool analyze = true);
    // Opens a file whose video the library does not take (there is none, or
    // it is not H.264 or HEVC) to describe its streams: the audio tracks as
    // open() makes them, and the best video stream of any codec as
    // otherVideoStreamIndex() (-1 for none).  codec() is 0 and next() reads
    // to the end counting audio packets, returning no sample.
    static std::unique_ptr<MediaSource> openForDescription(const std::string &path, ToolError &error);
    int otherVideoStreamIndex() const { return otherVideoIndex_; }
    ~MediaSource();
    MediaSource(const MediaSource &) = delete;
    MediaSource &operator=(const MediaSource &) = delete;

    const std::string &name() const { return name_; }
    std::string containerName() const;
    FourCharCode codec() const { return codec_; }
    int32_t timescale() const { return timescale_; }
    SVTime time(int64_t ticks) const { return SVTimeMake(ticks * tickNumerator_, timescale_); }
    // The description of the samples read last (or of the stream's own
    // configuration before the first sample).
    SVFormatDescriptionRef videoFormat() const { return format_.get(); }
    int nalUnitHeaderLength() const { return nalUnitHeaderLength_; }
    // True when the container stores parameter sets in a decoder
    // configuration record and samples as length-prefixed units (MP4,
    // Matroska); false for Annex B framing (MPEG-TS, raw streams).
    bool lengthPrefixedSource() const { return lengthPrefixed_; }
    // Where the samples' decode times come from: "stored" (the container
    // keeps them: MP4, MPEG-TS), "derived" (Matroska keeps none: libavformat
    // derives them from presentation times once it knows the reordering
    // delay, so the first samples have none), "counted" (raw streams: from
    // the frame rate, in decode order).
    const char *decodeTimeSource() const;
    // The container's duration of the video stream in seconds, or NaN.
    double declaredDuration() const;
    int64_t declaredFrameCount() const;
    // The video stream's index among the file's streams.
    int videoStreamIndex() const { return videoIndex_; }
    // The declared average frame rate as an exact fraction ("30000/1001"),
    // "" when the container does not say.
    std::string frameRateFraction() const;
    // The container's own duration (seconds, NaN when unknown), overall bit
    // rate (bits per second, 0 when unknown) and size in bytes (-1 when
    // unknown, as for the embedded stream's memory or a pipe).
    double containerDuration() const;
    int64_t containerBitRate() const;
    int64_t containerSize() const;
    // One frame at the stream's declared frame rate, in ticks (0 when unknown).
    int64_t defaultFrameTicks() const { return defaultDuration_; }
    // The container's first presentation time of the video, in ticks (0 when unknown).
    int64_t declaredStartTicks() const;
    // Seconds of a tick count.
    double ticksToSeconds(int64_t ticks) const { return static_cast<double>(ticks) * tickNumerator_ / timescale_; }
    int64_t secondsToTicks(double seconds) const;
    std::vector<AudioTrack> &audioTracks() { return audio_; }
    bool hasVideo() const { return videoIndex_ >= 0; }
    // Every audio packet read becomes an audio sample buffer; with this set
    // they are also kept in their track's `samples`.
    void keepAudioSamples(bool keep) { keepAudio_ = keep; }
    // The demuxer, for what the tool reads beyond the samples (tags, side data).
    const AVFormatContext *formatContext() const { return format_context_; }

    // The next video sample in decode order.  False at the end of the
    // stream or when reading failed; problem() then tells which.
    bool next(VideoSample &sample);
    // Positions the reader so that next() returns the sync sample at or
    // before `pts` (stream ticks) first.  False when the input cannot seek.
    bool seekToSyncBefore(int64_t pts);
    // Positions the reader at the first byte of the input.  False when the
    // input cannot seek.
    bool rewind();
    const std::optional<ToolError> &problem() const { return problem_; }
    // Samples skipped because no parameter sets had been seen yet.
    int64_t samplesWithoutFormat() const { return samplesWithoutFormat_; }
    int formatChanges() const { return formatChanges_; }
    const std::vector<std::string> &warnings() const { return warnings_; }

private:
    MediaSource() = default;
    bool openInput(const std::string &path, ToolError &error, bool analyze = true);
    bool headersSayEnough() const;
    bool describeVideo(ToolError &error);
    void describeAudio();
    bool makeSample(AVPacket *packet, VideoSample &sample);
    void timeSample(const AVPacket *packet, VideoSample &sample);
    void makeAudioSample(AudioTrack &track, AVPacket *packet);
    void recordAudioSample(AudioTrack &track, Ref<SVSampleBufferRef> buffer, int64_t frames, const AudioTrims &trims,
                           int64_t rate);
    void adoptInBandParameterSets(const uint8_t *data, size_t size);
    void warn(std::string message);

    std::string name_;
    AVFormatContext *format_context_ = nullptr;
    AVIOContext *memory_io_ = nullptr;
    AVPacket *packet_ = nullptr;
    int videoIndex_ = -1;
    int otherVideoIndex_ = -1;
    FourCharCode codec_ = 0;
    int32_t timescale_ = 1;
    int64_t tickNumerator_ = 1;
    int nalUnitHeaderLength_ = 4;
    bool lengthPrefixed_ = true;
    Ref<SVFormatDescriptionRef> format_;
    std::vector<AudioTrack> audio_;
    bool keepAudio_ = false;
    int64_t nextIndex_ = 0;
    int64_t lastDts_ = INT64_MIN;
    int64_t lastDuration_ = 0;
    int64_t defaultDuration_ = 0;
    int64_t samplesWithoutFormat_ = 0;
    int formatChanges_ = 0;
    bool timesCounted_ = false;
    std::optional<ToolError> problem_;
    std::vector<std::string> warnings_;
};

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_MEDIASOURCE_H
