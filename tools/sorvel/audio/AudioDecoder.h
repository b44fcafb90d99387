/* SPDX-License-Identifier: Apache-2.0 */
// Decodes a file's first audio stream with libavcodec into interleaved 32-bit
// float PCM, on a continuous timeline: every chunk starts where the previous
// one ended, counted in frames at the stream's sample rate from presentation
// time 0.  The reader has a libavformat context of its own, so the audio
// path never shares a demuxer with the video path.
#ifndef SORVEL_TOOLS_SORVEL_AUDIO_AUDIODECODER_H
#define SORVEL_TOOLS_SORVEL_AUDIO_AUDIODECODER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVPacket;

namespace sorvel::tool::audio {

// One run of decoded frames.  `samples` holds frames x channels floats,
// interleaved; `firstFrame` is the presentation time of the first frame in
// frames at the stream's rate (so its time in seconds is firstFrame / rate).
struct PcmChunk {
    int64_t firstFrame = 0;
    int64_t frames = 0;
    std::vector<float> samples;
};

// The speaker of each channel, in the order the decoder delivers them.
enum class Speaker : uint8_t {
    Mono,
    FrontLeft,
    FrontRight,
    FrontCenter,
    LowFrequency,
    BackLeft,
    BackRight,
    FrontLeftOfCenter,
    FrontRightOfCenter,
    BackCenter,
    SideLeft,
    SideRight,
    TopCenter,
    Other,  // a position the output has no name for: it gets an auxiliary channel
};

// Converts `frames` frames of `channels` channels from the decoder's layout to
// interleaved floats appended to `out`.  `format` is an AVSampleFormat;
// `planes` points at one plane per channel for planar formats, else at one
// interleaved plane.  False for a sample format it does not know.
bool appendInterleavedFloat(int format, const uint8_t *const *planes, int channels, int64_t frames,
                            std::vector<float> &out);

class AudioDecoder {
public:
    // Opens `path` (empty: the demo stream built into the program) and its
    // first audio stream's decoder.  Null with `error` set when the file has
    // no audio stream or its codec cannot be decoded here.
    static std::unique_ptr<AudioDecoder> open(const std::string &path, std::string &error);
    ~AudioDecoder();
    AudioDecoder(const AudioDecoder &) = delete;
    AudioDecoder &operator=(const AudioDecoder &) = delete;

    int sampleRate() const { return sampleRate_; }
    int channels() const { return channels_; }
    const std::vector<Speaker> &speakers() const { return speakers_; }
    const std::string &codecName() const { return codecName_; }
    int streamIndex() const { return streamIndex_; }

    // The next chunk.  False at the end of the stream or on a failure that
    // ends decoding (problem() then says which).  Packets that fail to
    // decode are skipped and counted; gaps in the stream's timing are filled
    // with silence and overlaps dropped, so the timeline stays continuous.
    bool next(PcmChunk &chunk);
    // Positions the reader so that the following chunks start at or before
    // `seconds` (the caller trims what lies before).  False when the input
    // cannot seek.
    bool seek(double seconds);

    const std::string &problem() const { return problem_; }
    int64_t packetsFailed() const { return packetsFailed_; }
    int64_t framesInserted() const { return framesInserted_; }  // silence filling gaps
    int64_t framesDropped() const { return framesDropped_; }    // overlaps

private:
    AudioDecoder() = default;
    bool openInput(const std::string &path, std::string &error);
    bool receive(PcmChunk &chunk);
    bool place(const AVFrame *frame, PcmChunk &chunk);

    AVFormatContext *format_ = nullptr;
    AVIOContext *memoryIo_ = nullptr;
    AVCodecContext *codec_ = nullptr;
    AVPacket *packet_ = nullptr;
    AVFrame *frame_ = nullptr;
    int streamIndex_ = -1;
    int sampleRate_ = 0;
    int channels_ = 0;
    std::vector<Speaker> speakers_;
    std::string codecName_;
    bool draining_ = false;
    bool finished_ = false;
    bool haveNext_ = false;
    int64_t nextFrame_ = 0;  // where the timeline continues
    int64_t framesDecoded_ = 0;
    int64_t packetsFailed_ = 0;
    int64_t failedInARow_ = 0;
    int64_t framesInserted_ = 0;
    int64_t framesDropped_ = 0;
    std::string problem_;
};

}  // namespace sorvel::tool::audio

#endif  // SORVEL_TOOLS_SORVEL_AUDIO_AUDIODECODER_H
