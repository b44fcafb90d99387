// SPDX-License-Identifier: Apache-2.0
#include "MediaSource.h"

#include <Sorvel/SVNALUnit.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "EmbeddedStream.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/intreadwrite.h>
}

namespace sorvel::tool {
namespace {

// libavformat reports through its own log; keep its lines off the terminal
// and remember the last complaint so that our message can quote it.
std::mutex gLogMutex;
std::string gLastLibraryMessage;
bool gPartialFileSeen = false;

void libraryLog(void *, int level, const char *fmt, va_list args) {
    if (level > AV_LOG_WARNING) return;
    char line[512];
    vsnprintf(line, sizeof line, fmt, args);
    std::lock_guard<std::mutex> lock(gLogMutex);
    gLastLibraryMessage = line;
    while (!gLastLibraryMessage.empty() && gLastLibraryMessage.back() == '\n') gLastLibraryMessage.pop_back();
    if (strstr(line, "partial file") || strstr(line, "Packet corrupt")) gPartialFileSeen = true;
}

std::string libraryError(int status) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(status, text, sizeof text);
    std::lock_guard<std::mutex> lock(gLogMutex);
    if (!gLastLibraryMessage.empty()) return std::string(text) + " (" + gLastLibraryMessage + ")";
    return text;
}

// The length prefix of the samples the tool makes from Annex B, and the
// one assumed before a decoder configuration record says otherwise.
constexpr int kLengthPrefixSize = 4;

bool isParameterSet(FourCharCode codec, unsigned type) {
    if (codec == kSVVideoCodecType_H264) return type == kH264NAL_SPS || type == kH264NAL_PPS;
    return type == kHEVCNAL_VPS || type == kHEVCNAL_SPS || type == kHEVCNAL_PPS;
}

struct Unit {
    const uint8_t *data;
    size_t size;
};

// A parameter set as its payload: trailing zero bytes belong to the byte
// stream (or were kept by a muxer), never to the unit, whose payload ends
// with a stop bit.
Unit payload(const uint8_t *data, size_t size) {
    while (size > 1 && data[size - 1] == 0) --size;
    return {data, size};
}

// Units of an Annex B run, without start codes.
std::vector<Unit> annexBUnits(const uint8_t *data, size_t size) {
    std::vector<Unit> units;
    std::vector<Unit> *out = &units;
    _SVEnumerateAnnexBNALUnitsFlexible(data, size, ^int(const uint8_t *unit, size_t length) {
      out->push_back({unit, length});
      return 0;
    });
    return units;
}

// Units of a length-prefixed sample, without their prefixes.
std::vector<Unit> prefixedUnits(const uint8_t *data, size_t size, int prefix) {
    std::vector<Unit> units;
    std::vector<Unit> *out = &units;
    _SVEnumerateNALUnits(data, size, prefix, ^int(const uint8_t *unit, size_t length) {
      out->push_back({unit + prefix, length - static_cast<size_t>(prefix)});
      return 0;
    });
    return units;
}

// Whether the length prefixes of a sample account for every byte of it.
bool prefixesCoverSample(const uint8_t *data, size_t size, int prefix) {
    __block size_t covered = 0;
    _SVEnumerateNALUnits(data, size, prefix, ^int(const uint8_t *, size_t length) {
      covered += length;
      return 0;
    });
    return covered == size;
}

// The parameter sets of an hvcC record, every unit of every array in order,
// and its NAL unit header length.  An empty unit, or a record with none, is
// damaged.
bool hevcRecordSets(const uint8_t *record, size_t size, std::vector<Unit> &sets, int &headerLength) {
    size_t count = 0;
    if (SVGetParameterSetFromHEVCDecoderConfigurationRecord(record, size, 0, nullptr, nullptr, &count, &headerLength) !=
        0)
        return false;
    for (size_t i = 0; i < count; ++i) {
        const uint8_t *unit = nullptr;
        size_t length = 0;
        if (SVGetParameterSetFromHEVCDecoderConfigurationRecord(record, size, i, &unit, &length, nullptr, nullptr) !=
                0 ||
            length == 0)
            return false;
        sets.push_back({unit, length});
    }
    return !sets.empty();
}

OSStatus describe(FourCharCode codec, const std::vector<Unit> &sets, int headerLength, SVFormatDescriptionRef *out) {
    std::vector<const uint8_t *> pointers;
    std::vector<size_t> sizes;
    for (const Unit &set : sets) {
        pointers.push_back(set.data);
        sizes.push_back(set.size);
    }
    if (codec == kSVVideoCodecType_H264)
        return SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, sets.size(), pointers.data(), sizes.data(),
                                                                   headerLength, out);
    return SVVideoFormatDescriptionCreateFromHEVCParameterSets(nullptr, sets.size(), pointers.data(), sizes.data(),
                                                               headerLength, nullptr, out);
}

// Returns the AVBufferRef behind a wrapped packet to libavutil.
void releasePacketBuffer(void *refCon, void *, size_t) {
    AVBufferRef *buffer = static_cast<AVBufferRef *>(refCon);
    av_buffer_unref(&buffer);
}

// The first box of an MP4 file is one of a few known types.
bool looksLikeMP4(const std::string &path) {
    if (path.empty()) return true;
    FILE *file = fopen(path.c_str(), "rb");
    if (!file) return false;
    unsigned char header[8] = {};
    const bool whole = fread(header, 1, sizeof header, file) == sizeof header;
    fclose(file);
    if (!whole) return false;
    for (const char *type : {"ftyp", "moov", "mdat", "free", "skip", "wide", "pnot"})
        if (memcmp(header + 4, type, 4) == 0) return true;
    return false;
}

// Interleaved PCM of the integer and float forms libavformat names.
bool describeLinearPCM(const AVCodecParameters *p, AudioStreamBasicDescription &asbd) {
    switch (p->codec_id) {
        case AV_CODEC_ID_PCM_S16LE:
        case AV_CODEC_ID_PCM_S16BE:
        case AV_CODEC_ID_PCM_S24LE:
        case AV_CODEC_ID_PCM_S32LE:
        case AV_CODEC_ID_PCM_F32LE:
        case AV_CODEC_ID_PCM_S8:
        case AV_CODEC_ID_PCM_U8:
            break;
        default:
            return false;
    }
    const auto bits = static_cast<UInt32>(av_get_bits_per_sample(p->codec_id));
    asbd.mFormatID = kAudioFormatLinearPCM;
    asbd.mFormatFlags = kAudioFormatFlagIsPacked |
                        (p->codec_id == AV_CODEC_ID_PCM_F32LE ? kAudioFormatFlagIsFloat
                         : p->codec_id == AV_CODEC_ID_PCM_U8  ? 0u
                                                              : kAudioFormatFlagIsSignedInteger) |
                        (p->codec_id == AV_CODEC_ID_PCM_S16BE ? kAudioFormatFlagIsBigEndian : 0u);
    asbd.mBitsPerChannel = bits;
    asbd.mFramesPerPacket = 1;
    asbd.mBytesPerFrame = asbd.mBytesPerPacket = asbd.mChannelsPerFrame * bits / 8;
    return true;
}

// The stream description of an audio stream; mFormatID stays 0 for codecs
// that have none here.
AudioStreamBasicDescription audioStreamDescription(const AVCodecParameters *p) {
    AudioStreamBasicDescription asbd = {};
    asbd.mSampleRate = p->sample_rate;
    asbd.mChannelsPerFrame = static_cast<UInt32>(p->ch_layout.nb_channels);
    asbd.mFramesPerPacket = static_cast<UInt32>(p->frame_size > 0 ? p->frame_size : 0);
    switch (p->codec_id) {
        case AV_CODEC_ID_AAC:
            asbd.mFormatID = kAudioFormatMPEG4AAC;
            // The flags carry the MPEG-4 audio object type (LC = 2).
            asbd.mFormatFlags = p->profile >= 0 ? static_cast<UInt32>(p->profile + 1) : kMPEG4Object_AAC_LC;
            if (!asbd.mFramesPerPacket) asbd.mFramesPerPacket = 1024;
            break;
        case AV_CODEC_ID_MP3:
            asbd.mFormatID = kAudioFormatMPEGLayer3;
            break;
        case AV_CODEC_ID_MP2:
            asbd.mFormatID = kAudioFormatMPEGLayer2;
            break;
        case AV_CODEC_ID_AC3:
            asbd.mFormatID = kAudioFormatAC3;
            if (!asbd.mFramesPerPacket) asbd.mFramesPerPacket = 1536;  // six blocks of 256
            break;
        case AV_CODEC_ID_EAC3:
            asbd.mFormatID = kAudioFormatEnhancedAC3;
            break;
        case AV_CODEC_ID_OPUS:
            asbd.mFormatID = kAudioFormatOpus;
            // Opus packets hold 2.5 to 120 ms, FLAC blocks vary too: the
            // packet descriptions carry each one's frame count.
            asbd.mFramesPerPacket = 0;
            break;
        case AV_CODEC_ID_FLAC:
            asbd.mFormatID = kAudioFormatFLAC;
            asbd.mFramesPerPacket = 0;
            break;
        default:
            describeLinearPCM(p, asbd);
            break;
    }
    return asbd;
}

AudioChannelLayoutTag layoutTagOf(UInt32 channels) {
    switch (channels) {
        case 1:
            return kAudioChannelLayoutTag_Mono;
        case 2:
            return kAudioChannelLayoutTag_Stereo;
        case 6:
            return kAudioChannelLayoutTag_MPEG_5_1_A;
        case 8:
            return kAudioChannelLayoutTag_MPEG_7_1_A;
        default:
            return kAudioChannelLayoutTag_DiscreteInOrder | channels;
    }
}

// The audio format description of a stream (its extradata as the magic
// cookie), null for codecs without a stream description here and when the
// library refuses the description (`status` then says why).
Ref<SVFormatDescriptionRef> audioFormatDescription(const AVCodecParameters *p, OSStatus &status) {
    Ref<SVFormatDescriptionRef> description;
    status = 0;
    const AudioStreamBasicDescription asbd = audioStreamDescription(p);
    if (asbd.mFormatID == 0) return description;
    AudioChannelLayout layout = {};
    layout.mChannelLayoutTag = layoutTagOf(asbd.mChannelsPerFrame);
    const size_t cookieSize = p->extradata ? static_cast<size_t>(p->extradata_size) : 0;
    status =
        SVAudioFormatDescriptionCreate(nullptr, &asbd, offsetof(AudioChannelLayout, mChannelDescriptions), &layout,
                                       cookieSize, cookieSize ? p->extradata : nullptr, nullptr, description.out());
    return description;
}

// What an audio packet's side data and duration say of its frames.
struct PacketSideTrims {
    int64_t containerFrames = 0;  // the packet's duration in frames, 0 when it has none
    bool signalled = false;       // the packet carries skip side data
    int64_t skip = 0, discard = 0;
};

// How an audio packet becomes a sample buffer.
struct AudioPacketShape {
    bool pcm = false;
    SVItemCount count = 1;  // samples: frames for PCM, one packet otherwise
    int64_t frames = 0;     // frames the packet decodes to
    AudioStreamPacketDescription description = {};
};

// A block buffer over a packet's memory, which it keeps alive instead of
// copying it; a copy when the packet's memory is not reference-counted.
OSStatus wrapPacket(AVPacket *packet, Ref<SVBlockBufferRef> &block) {
    const auto size = static_cast<size_t>(packet->size);
    if (AVBufferRef *owner = packet->buf ? av_buffer_ref(packet->buf) : nullptr) {
        const SVBlockBufferCustomBlockSource source = {0, nullptr, releasePacketBuffer, owner};
        const OSStatus status =
            SVBlockBufferCreateWithMemoryBlock(nullptr, packet->data, size, nullptr, &source, 0, size, 0, block.out());
        if (status != 0) av_buffer_unref(&owner);
        return status;
    }
    OSStatus status = SVBlockBufferCreateWithMemoryBlock(nullptr, nullptr, size, nullptr, nullptr, 0, size,
                                                         kSVBlockBufferAssureMemoryNowFlag, block.out());
    if (status == 0) status = SVBlockBufferReplaceDataBytes(packet->data, block.get(), 0, size);
    return status;
}

// What the container says of an audio packet's frames: its duration, and
// what its side data says is to be skipped at the start and discarded at
// the end.
PacketSideTrims packetSideTrims(const AVPacket *packet, AVRational timeBase, AVRational frameBase) {
    PacketSideTrims trims;
    trims.containerFrames = packet->duration > 0 ? av_rescale_q(packet->duration, timeBase, frameBase) : 0;
    size_t sideSize = 0;
    const uint8_t *side = av_packet_get_side_data(packet, AV_PKT_DATA_SKIP_SAMPLES, &sideSize);
    trims.signalled = side != nullptr;
    trims.skip = side && sideSize >= 8 ? AV_RL32(side) : 0;
    trims.discard = side && sideSize >= 8 ? AV_RL32(side + 4) : 0;
    return trims;
}

// How a packet of `size` bytes becomes a sample buffer; the warning when it
// cannot, null otherwise.
const char *audioPacketShape(const AudioStreamBasicDescription &asbd, size_t size, const PacketSideTrims &side,
                             AudioPacketShape &shape) {
    shape.pcm = asbd.mFormatID == kAudioFormatLinearPCM;
    shape.description = {0, 0, static_cast<UInt32>(size)};
    if (shape.pcm) {
        if (asbd.mBytesPerFrame == 0 || size % asbd.mBytesPerFrame != 0)
            return "some PCM packets do not hold whole frames; they were skipped";
        shape.count = static_cast<SVItemCount>(size / asbd.mBytesPerFrame);
        shape.frames = shape.count;
    } else if (asbd.mFramesPerPacket != 0) {
        shape.frames = asbd.mFramesPerPacket;
    } else {
        // The container's duration is what is played; the discarded end of
        // the packet was decoded too.
        shape.frames = side.containerFrames + side.discard;
        shape.description.mVariableFramesInPacket = static_cast<UInt32>(shape.frames);
    }
    if (shape.frames <= 0) return "some audio packets have no duration; they were skipped";
    return nullptr;
}

// Trims: the skip at the start (or the stream's initial padding on its
// first packet, `padding`); at the end the frames the container's duration
// cuts off the packet, or the discard its side data asks for, whichever is
// more.
AudioTrims audioTrims(const AudioPacketShape &shape, const PacketSideTrims &side, int64_t padding) {
    AudioTrims trims;
    const int64_t frames = shape.frames;
    trims.cut =
        !shape.pcm && side.containerFrames > 0 && side.containerFrames < frames ? frames - side.containerFrames : 0;
    trims.start = std::clamp<int64_t>(side.signalled ? side.skip : padding, 0, frames);
    trims.end = std::clamp<int64_t>(std::max(trims.cut, shape.pcm ? 0 : side.discard), 0, frames - trims.start);
    return trims;
}

void attachTrim(SVSampleBufferRef buffer, CFStringRef key, int64_t frames, int64_t rate) {
    if (frames == 0) return;
    Ref<CFDictionaryRef> value(SVTimeCopyAsDictionary(SVTimeMake(frames, static_cast<int32_t>(rate)), nullptr));
    SVSetAttachment(buffer, key, value.get(), kSVAttachmentMode_ShouldPropagate);
}

// Annex B units as a length-prefixed sample: every unit gets a 4-byte
// big-endian length instead of its start code.  False when the copy's
// memory cannot be had; `status` is then unset.
bool lengthPrefixedCopy(const std::vector<Unit> &units, Ref<SVBlockBufferRef> &block, OSStatus &status) {
    size_t total = 0;
    for (const Unit &unit : units) total += kLengthPrefixSize + unit.size;
    auto *bytes = static_cast<uint8_t *>(malloc(total));
    if (!bytes) return false;
    uint8_t *write = bytes;
    for (const Unit &unit : units) {
        const auto length = static_cast<uint32_t>(unit.size);
        *write++ = static_cast<uint8_t>(length >> 24);
        *write++ = static_cast<uint8_t>(length >> 16);
        *write++ = static_cast<uint8_t>(length >> 8);
        *write++ = static_cast<uint8_t>(length);
        memcpy(write, unit.data, unit.size);
        write += unit.size;
    }
    status = SVBlockBufferCreateWithMemoryBlock(nullptr, bytes, total, kCFAllocatorMalloc, nullptr, 0, total, 0,
                                                block.out());
    if (status != 0) free(bytes);
    return true;
}

// A sync sample depends on no other; any other sample is not sync and does.
void markDependency(SVSampleBufferRef buffer, bool sync) {
    CFArrayRef attachments = SVSampleBufferGetSampleAttachmentsArray(buffer, true);
    if (!attachments || CFArrayGetCount(attachments) == 0) return;
    auto dictionary = (CFMutableDictionaryRef)CFArrayGetValueAtIndex(attachments, 0);
    if (!sync) CFDictionarySetValue(dictionary, kSVSampleAttachmentKey_NotSync, kCFBooleanTrue);
    CFDictionarySetValue(dictionary, kSVSampleAttachmentKey_DependsOnOthers, sync ? kCFBooleanFalse : kCFBooleanTrue);
}

}  // namespace

std::unique_ptr<MediaSource> MediaSource::open(const std::string &path, ToolError &error, bool videoRequired,
                                               bool analyze) {
    static std::once_flag once;
    std::call_once(once, [] {
        av_log_set_level(AV_LOG_WARNING);
        av_log_set_callback(libraryLog);
    });
    std::unique_ptr<MediaSource> source(new MediaSource());
    if (!source->openInput(path, error, analyze)) return nullptr;
    ToolError videoError{kExitOK, ""};
    if (!source->describeVideo(videoError)) {
        if (videoRequired || videoError.code != kExitNoVideo) {
            error = videoError;
            return nullptr;
        }
        source->videoIndex_ = -1;
    }
    source->describeAudio();
    if (!source->hasVideo() && source->audio_.empty()) {
        error = videoError;
        return nullptr;
    }
    return source;
}

std::unique_ptr<MediaSource> MediaSource::openForDescription(const std::string &path, ToolError &error) {
    std::unique_ptr<MediaSource> source(new MediaSource());
    if (!source->openInput(path, error)) return nullptr;
    source->otherVideoIndex_ = av_find_best_stream(source->format_context_, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (source->otherVideoIndex_ < 0) source->otherVideoIndex_ = -1;
    source->describeAudio();
    return source;
}

MediaSource::~MediaSource() {
    av_packet_free(&packet_);
    avformat_close_input(&format_context_);
    closeEmbeddedStreamIO(memory_io_);
}

// The MP4 reader fills every stream's parameters from the sample
// descriptions; a stream that lacks any of them still needs the analysis.
bool MediaSource::headersSayEnough() const {
    const AVInputFormat *format = format_context_->iformat;
    if (!format || std::string(format->name).find("mp4") == std::string::npos) return false;
    for (unsigned i = 0; i < format_context_->nb_streams; i++) {
        const AVCodecParameters *p = format_context_->streams[i]->codecpar;
        if (p->codec_id == AV_CODEC_ID_NONE) return false;
        if (p->codec_type == AVMEDIA_TYPE_VIDEO && (p->width <= 0 || p->height <= 0 || p->extradata_size <= 0))
            return false;
        if (p->codec_type == AVMEDIA_TYPE_AUDIO && (p->sample_rate <= 0 || p->ch_layout.nb_channels <= 0)) return false;
    }
    return true;
}

bool MediaSource::openInput(const std::string &path, ToolError &error, bool analyze) {
    packet_ = av_packet_alloc();
    if (!packet_) {
        error = {kExitFailure, "out of memory"};
        return false;
    }
    if (path.empty()) {
        name_ = kEmbeddedStreamName;
        memory_io_ = openEmbeddedStreamIO();
        format_context_ = avformat_alloc_context();
        if (!memory_io_ || !format_context_) {
            error = {kExitFailure, "out of memory"};
            return false;
        }
        format_context_->pb = memory_io_;
        format_context_->flags |= AVFMT_FLAG_CUSTOM_IO;
    } else {
        name_ = path;
        struct stat info;
        if (stat(path.c_str(), &info) != 0) {
            error = {kExitCannotOpen, format("%s: %s", path.c_str(), strerror(errno))};
            return false;
        }
        if (S_ISDIR(info.st_mode)) {
            error = {kExitCannotOpen, format("%s: is a directory", path.c_str())};
            return false;
        }
        if (S_ISREG(info.st_mode) && info.st_size == 0) {
            error = {kExitCannotOpen, format("%s: the file is empty", path.c_str())};
            return false;
        }
    }
    int status = avformat_open_input(&format_context_, path.empty() ? nullptr : path.c_str(), nullptr, nullptr);
    if (status < 0) {
        // avformat_open_input frees the context on failure.
        format_context_ = nullptr;
        const std::string why = libraryError(status);
        // The MP4 reader also answers for noise in a file named .mp4; only a
        // file that starts like an MP4 is called truncated.
        const bool cut = why.find("moov atom not found") != std::string::npos && looksLikeMP4(path);
        error = {cut ? kExitTruncated : kExitCannotOpen,
                 cut ? format("%s: truncated or unfinished MP4: it has no movie box (%s)", name_.c_str(), why.c_str())
                     : format("%s: not a media file that can be read: %s", name_.c_str(), why.c_str())};
        return false;
    }
    if (!analyze && headersSayEnough()) return true;
    status = avformat_find_stream_info(format_context_, nullptr);
    if (status < 0) {
        error = {kExitCannotOpen,
                 format("%s: cannot read the streams: %s", name_.c_str(), libraryError(status).c_str())};
        return false;
    }
    return true;
}

std::string MediaSource::containerName() const {
    return format_context_ && format_context_->iformat ? format_context_->iformat->name : "";
}

const char *MediaSource::decodeTimeSource() const {
    if (timesCounted_) return "counted";
    // Matroska (and WebM) store presentation times only.
    if (containerName().find("matroska") != std::string::npos) return "derived";
    return "stored";
}

std::string MediaSource::frameRateFraction() const {
    if (videoIndex_ < 0) return "";
    const AVStream *stream = format_context_->streams[videoIndex_];
    const AVRational rate = stream->avg_frame_rate.num > 0 ? stream->avg_frame_rate : stream->r_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) return "";
    return format("%d/%d", rate.num, rate.den);
}

double MediaSource::containerDuration() const {
    return format_context_->duration > 0 ? static_cast<double>(format_context_->duration) / AV_TIME_BASE : NAN;
}

int64_t MediaSource::containerBitRate() const {
    return format_context_->bit_rate > 0 ? format_context_->bit_rate : 0;
}

int64_t MediaSource::containerSize() const {
    if (memory_io_) {
        size_t size = 0;
        embeddedStream(size);
        return static_cast<int64_t>(size);
    }
    if (!format_context_->pb) return -1;
    const int64_t size = avio_size(format_context_->pb);
    return size >= 0 ? size : -1;
}

double MediaSource::declaredDuration() const {
    if (videoIndex_ < 0) return NAN;
    const AVStream *stream = format_context_->streams[videoIndex_];
    if (stream->duration > 0) return stream->duration * av_q2d(stream->time_base);
    return NAN;
}

int64_t MediaSource::declaredStartTicks() const {
    if (videoIndex_ < 0) return 0;
    const AVStream *stream = format_context_->streams[videoIndex_];
    return stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
}

int64_t MediaSource::secondsToTicks(double seconds) const {
    return static_cast<int64_t>(std::llround(seconds * timescale_ / static_cast<double>(tickNumerator_)));
}

int64_t MediaSource::declaredFrameCount() const {
    if (videoIndex_ < 0) return 0;
    return format_context_->streams[videoIndex_]->nb_frames;
}

void MediaSource::warn(std::string message) {
    // One line per distinct complaint is enough.
    for (const std::string &seen : warnings_)
        if (seen == message) return;
    warnings_.push_back(std::move(message));
}

bool MediaSource::describeVideo(ToolError &error) {
    videoIndex_ = av_find_best_stream(format_context_, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (videoIndex_ < 0) {
        error = {kExitNoVideo, format("%s: the file has no video stream", name_.c_str())};
        return false;
    }
    const AVStream *stream = format_context_->streams[videoIndex_];
    const AVCodecParameters *parameters = stream->codecpar;
    if (parameters->codec_id == AV_CODEC_ID_H264) {
        codec_ = kSVVideoCodecType_H264;
    } else if (parameters->codec_id == AV_CODEC_ID_HEVC) {
        codec_ = kSVVideoCodecType_HEVC;
    } else {
        error = {kExitUnsupported, format("%s: the video is %s; sorvel reads H.264 and HEVC video", name_.c_str(),
                                          avcodec_get_name(parameters->codec_id))};
        return false;
    }
    // Time values keep the stream's own ticks exactly: 1/90000 becomes a
    // timescale of 90000, 1001/30000 a value in 30000ths.
    if (stream->time_base.num <= 0 || stream->time_base.den <= 0) {
        error = {kExitUnsupported, format("%s: the video stream has no usable time base", name_.c_str())};
        return false;
    }
    timescale_ = stream->time_base.den;
    tickNumerator_ = stream->time_base.num;
    const AVRational rate = stream->avg_frame_rate.num > 0 ? stream->avg_frame_rate : stream->r_frame_rate;
    if (rate.num > 0 && rate.den > 0) defaultDuration_ = av_rescale_q(1, av_inv_q(rate), stream->time_base);

    const uint8_t *extra = parameters->extradata;
    const size_t extraSize = parameters->extradata ? static_cast<size_t>(parameters->extradata_size) : 0;
    lengthPrefixed_ = extraSize >= 7 && extra[0] == 1;
    Ref<SVFormatDescriptionRef> description;
    OSStatus status = 0;
    if (lengthPrefixed_ && codec_ == kSVVideoCodecType_H264) {
        int32_t headerLength = kLengthPrefixSize;
        Ref<CFMutableDataRef> annexB;
        status = _SVCreateConcatenatedParameterSetsFromAVCDecoderConfigurationRecord(extra, extraSize, &headerLength,
                                                                                     annexB.out());
        if (status == 0) {
            nalUnitHeaderLength_ = headerLength;
            status = _SVVideoFormatDescriptionCreateFromConcatenatedH264ParameterSetNALs(
                nullptr, CFDataGetBytePtr(annexB.get()), static_cast<size_t>(CFDataGetLength(annexB.get())),
                headerLength, description.out());
        }
    } else if (lengthPrefixed_) {
        // The units are taken one by one: the library's hvcC-to-Annex B form
        // keeps a type byte after every start code.
        std::vector<Unit> sets;
        int headerLength = kLengthPrefixSize;
        if (hevcRecordSets(extra, extraSize, sets, headerLength)) {
            nalUnitHeaderLength_ = headerLength;
            status = describe(codec_, sets, headerLength, description.out());
        } else {
            status = kSVFormatDescriptionError_InvalidParameter;
        }
    } else {
        nalUnitHeaderLength_ = kLengthPrefixSize;
        if (extraSize > 0) adoptInBandParameterSets(extra, extraSize);
        formatChanges_ = 0;
        return true;
    }
    if (status != 0 || !description) {
        error = {kExitTruncated, format("%s: the %s decoder configuration record is damaged (status %d)", name_.c_str(),
                                        codec_ == kSVVideoCodecType_H264 ? "avcC" : "hvcC", static_cast<int>(status))};
        return false;
    }
    format_ = description;
    return true;
}

void MediaSource::describeAudio() {
    for (unsigned i = 0; i < format_context_->nb_streams; ++i) {
        const AVStream *stream = format_context_->streams[i];
        const AVCodecParameters *parameters = stream->codecpar;
        if (parameters->codec_type != AVMEDIA_TYPE_AUDIO) continue;
        AudioTrack track;
        track.streamIndex = static_cast<int>(i);
        track.codecName = avcodec_get_name(parameters->codec_id);
        OSStatus status = 0;
        track.description = audioFormatDescription(parameters, status);
        if (status != 0)
            warn(format("the library refused the description of audio stream %u (status %d)", i,
                        static_cast<int>(status)));
        if (stream->start_time != AV_NOPTS_VALUE) track.startSeconds = stream->start_time * av_q2d(stream->time_base);
        if (stream->time_base.num > 0 && stream->time_base.den > 0) {
            track.tickNumerator = stream->time_base.num;
            track.tickDenominator = stream->time_base.den;
        }
        audio_.push_back(std::move(track));
    }
}

// In-band parameter sets of a sync sample (or Annex B extradata) replace
// the description when they differ from it; SEI units never count.
void MediaSource::adoptInBandParameterSets(const uint8_t *data, size_t size) {
    std::vector<Unit> units =
        lengthPrefixed_ && format_ ? prefixedUnits(data, size, nalUnitHeaderLength_) : annexBUnits(data, size);
    std::vector<Unit> sets;
    bool sps = false, pps = false, vps = codec_ == kSVVideoCodecType_H264;
    for (const Unit &unit : units) {
        if (unit.size == 0) continue;
        const unsigned type = nalUnitType(codec_, unit.data[0]);
        if (!isParameterSet(codec_, type)) continue;
        sets.push_back(payload(unit.data, unit.size));
        sps |= type == (codec_ == kSVVideoCodecType_H264 ? kH264NAL_SPS : kHEVCNAL_SPS);
        pps |= type == (codec_ == kSVVideoCodecType_H264 ? kH264NAL_PPS : kHEVCNAL_PPS);
        vps |= type == kHEVCNAL_VPS;
    }
    if (!sps || !pps || !vps) return;
    if (format_) {
        size_t count = 0;
        auto getter = codec_ == kSVVideoCodecType_H264 ? SVVideoFormatDescriptionGetH264ParameterSetAtIndex
                                                       : SVVideoFormatDescriptionGetHEVCParameterSetAtIndex;
        getter(format_.get(), 0, nullptr, nullptr, &count, nullptr);
        std::vector<Unit> current;
        for (size_t i = 0; i < count; ++i) {
            const uint8_t *set = nullptr;
            size_t setSize = 0;
            if (getter(format_.get(), i, &set, &setSize, nullptr, nullptr) == 0 && setSize &&
                isParameterSet(codec_, nalUnitType(codec_, set[0])))
                current.push_back(payload(set, setSize));
        }
        bool same = current.size() == sets.size();
        for (size_t i = 0; same && i < sets.size(); ++i)
            same = current[i].size == sets[i].size && memcmp(current[i].data, sets[i].data, sets[i].size) == 0;
        if (same) return;
    }
    Ref<SVFormatDescriptionRef> description;
    const OSStatus status = describe(codec_, sets, nalUnitHeaderLength_, description.out());
    if (status != 0) {
        warn(format("in-band parameter sets that the library rejects (status %d) were ignored",
                    static_cast<int>(status)));
        return;
    }
    if (format_) ++formatChanges_;
    format_ = description;
}

bool MediaSource::next(VideoSample &sample) {
    for (;;) {
        av_packet_unref(packet_);
        const int status = av_read_frame(format_context_, packet_);
        if (status == AVERROR_EOF) {
            std::lock_guard<std::mutex> lock(gLogMutex);
            if (gPartialFileSeen && !problem_)
                problem_ = ToolError{kExitTruncated, format("%s: the file ends early (partial file)", name_.c_str())};
            return false;
        }
        if (status < 0) {
            problem_ = ToolError{kExitTruncated,
                                 format("%s: reading stopped: %s", name_.c_str(), libraryError(status).c_str())};
            return false;
        }
        const AVStream *stream = format_context_->streams[packet_->stream_index];
        if (packet_->stream_index != videoIndex_) {
            for (AudioTrack &track : audio_) {
                if (track.streamIndex != packet_->stream_index) continue;
                ++track.packetCount;
                const int64_t pts = packet_->pts != AV_NOPTS_VALUE ? packet_->pts : packet_->dts;
                if (pts != AV_NOPTS_VALUE) {
                    const double end = (pts + packet_->duration) * av_q2d(stream->time_base);
                    if (track.packetCount == 1) track.startSeconds = pts * av_q2d(stream->time_base);
                    track.endSeconds = std::max(track.endSeconds, end);
                }
                makeAudioSample(track, packet_);
            }
            continue;
        }
        if (packet_->size <= 0) continue;
        if (packet_->flags & AV_PKT_FLAG_CORRUPT)
            problem_ = ToolError{kExitTruncated, format("%s: sample %lld is incomplete: the file ends inside it",
                                                        name_.c_str(), static_cast<long long>(nextIndex_))};
        if (makeSample(packet_, sample)) return true;
        if (problem_) return false;
    }
}

// One audio packet as an audio sample buffer over the packet's memory:
// compressed packets with one packet description each (its size from the
// container, its frame count from the packet's duration where the format's
// packets vary), PCM as a run of frames.  The encoder's delay that the
// container signals becomes a trim at the start; a packet the container
// cuts short (the last one, as a rule) gets the cut as a trim at its end.
void MediaSource::makeAudioSample(AudioTrack &track, AVPacket *packet) {
    const AudioStreamBasicDescription *asbd =
        SVAudioFormatDescriptionGetStreamBasicDescription(track.description.get());
    if (!asbd || asbd->mSampleRate < 1 || packet->size <= 0) {
        if (asbd) ++track.packetsSkipped;
        return;
    }
    const int64_t rate = std::llround(asbd->mSampleRate);
    const AVRational timeBase = {track.tickNumerator, track.tickDenominator};
    const AVRational frameBase = {1, static_cast<int>(rate)};
    const PacketSideTrims side = packetSideTrims(packet, timeBase, frameBase);
    AudioPacketShape shape;
    if (const char *problem = audioPacketShape(*asbd, static_cast<size_t>(packet->size), side, shape)) {
        warn(problem);
        ++track.packetsSkipped;
        return;
    }

    int64_t ticks = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    if (ticks == AV_NOPTS_VALUE) ticks = track.nextPts;
    track.nextPts = ticks + (packet->duration > 0 ? packet->duration : av_rescale_q(shape.frames, frameBase, timeBase));
    Ref<SVBlockBufferRef> block;
    OSStatus status = wrapPacket(packet, block);
    Ref<SVSampleBufferRef> buffer;
    if (status == 0)
        status = SVAudioSampleBufferCreateReadyWithPacketDescriptions(
            nullptr, block.get(), track.description.get(), shape.count,
            SVTimeMake(ticks * track.tickNumerator, track.tickDenominator), shape.pcm ? nullptr : &shape.description,
            buffer.out());
    if (status != 0) {
        warn(format("some audio packets could not be made into sample buffers (status %d)", static_cast<int>(status)));
        ++track.packetsSkipped;
        return;
    }
    const int64_t initialPadding = format_context_->streams[packet->stream_index]->codecpar->initial_padding;
    const AudioTrims trims = audioTrims(shape, side, track.bufferCount == 0 ? initialPadding : 0);
    attachTrim(buffer.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart, trims.start, rate);
    attachTrim(buffer.get(), kSVSampleBufferAttachmentKey_TrimDurationAtEnd, trims.end, rate);
    recordAudioSample(track, std::move(buffer), shape.frames, trims, rate);
}

// The report reads the buffer back through the library.
void MediaSource::recordAudioSample(AudioTrack &track, Ref<SVSampleBufferRef> buffer, int64_t frames,
                                    const AudioTrims &trims, int64_t rate) {
    AudioSample sample;
    sample.index = track.bufferCount;
    const SVTime pts = SVSampleBufferGetPresentationTimeStamp(buffer.get());
    // The duration as the container states it: the buffer's, less the cut.
    const SVTime toEnd =
        SVTimeSubtract(SVSampleBufferGetDuration(buffer.get()), SVTimeMake(trims.cut, static_cast<int32_t>(rate)));
    sample.pts = SVTimeConvertScale(pts, track.tickDenominator, kSVTimeRoundingMethod_RoundTowardZero).value /
                 track.tickNumerator;
    sample.duration = SVTimeConvertScale(toEnd, track.tickDenominator, kSVTimeRoundingMethod_RoundTowardZero).value /
                      track.tickNumerator;
    sample.size = SVSampleBufferGetTotalSampleSize(buffer.get());
    sample.frames = frames;
    sample.trimStart = trims.start;
    sample.trimEnd = trims.end;
    if (track.bufferCount == 0) track.outputStart = SVSampleBufferGetOutputPresentationTimeStamp(buffer.get());
    track.outputDuration = SVTimeAdd(track.outputDuration, SVSampleBufferGetOutputDuration(buffer.get()));
    ++track.bufferCount;
    track.frames += frames;
    track.primingFrames += trims.start;
    track.remainderFrames += trims.end;
    if (keepAudio_) {
        sample.buffer = std::move(buffer);
        track.samples.push_back(std::move(sample));
    }
}

bool MediaSource::makeSample(AVPacket *packet, VideoSample &sample) {
    const bool sync = packet->flags & AV_PKT_FLAG_KEY;
    if (sync || !format_) adoptInBandParameterSets(packet->data, static_cast<size_t>(packet->size));
    if (!format_) {
        ++samplesWithoutFormat_;
        return false;
    }
    Ref<SVBlockBufferRef> block;
    OSStatus status = 0;
    if (lengthPrefixed_) {
        if (!prefixesCoverSample(packet->data, static_cast<size_t>(packet->size), nalUnitHeaderLength_))
            warn("some samples hold NAL unit lengths that do not add up to the sample size");
        status = wrapPacket(packet, block);
    } else {
        const std::vector<Unit> units = annexBUnits(packet->data, static_cast<size_t>(packet->size));
        if (units.empty()) return false;
        if (!lengthPrefixedCopy(units, block, status)) {
            problem_ = ToolError{kExitFailure, "out of memory"};
            return false;
        }
    }
    if (status != 0) {
        problem_ =
            ToolError{kExitFailure, format("could not make a block buffer (status %d)", static_cast<int>(status))};
        return false;
    }
    timeSample(packet, sample);
    const SVSampleTimingInfo timing = {
        sample.duration > 0 ? time(sample.duration) : kSVTimeInvalid, time(sample.pts),
        packet->dts != AV_NOPTS_VALUE || sample.timestampsGuessed ? time(sample.dts) : kSVTimeInvalid};
    const size_t size = SVBlockBufferGetDataLength(block.get());
    Ref<SVSampleBufferRef> buffer;
    status = SVSampleBufferCreateReady(nullptr, block.get(), format_.get(), 1, 1, &timing, 1, &size, buffer.out());
    if (status != 0) {
        problem_ =
            ToolError{kExitFailure, format("could not make a sample buffer (status %d)", static_cast<int>(status))};
        return false;
    }
    markDependency(buffer.get(), sync);
    sample.buffer = buffer;
    sample.index = nextIndex_++;
    sample.size = size;
    sample.sync = sync;
    return true;
}

// Fills in what the container leaves out: raw streams carry no
// presentation times, some containers no decode times.  Matroska gives no
// decode times: the sample then has none either (decode order is arrival
// order).  Raw streams give no times at all: they are counted from the
// frame rate, in decode order.
void MediaSource::timeSample(const AVPacket *packet, VideoSample &sample) {
    int64_t dts = packet->dts, pts = packet->pts;
    const bool hasDts = dts != AV_NOPTS_VALUE;
    sample.timestampsGuessed = !hasDts && pts == AV_NOPTS_VALUE;
    if (sample.timestampsGuessed) {
        dts = lastDts_ == INT64_MIN ? 0 : lastDts_ + lastDuration_;
        pts = dts;
        timesCounted_ = true;
        warn("the container gives no time stamps: they are counted from the frame rate in decode order");
    } else if (!hasDts) {
        dts = pts;
    } else if (pts == AV_NOPTS_VALUE) {
        pts = dts;
    }
    const int64_t duration = packet->duration > 0 ? packet->duration : defaultDuration_;
    lastDts_ = dts;
    lastDuration_ = duration;
    sample.pts = pts;
    sample.dts = dts;
    sample.duration = duration;
}

bool MediaSource::seekToSyncBefore(int64_t pts) {
    if (av_seek_frame(format_context_, videoIndex_, pts, AVSEEK_FLAG_BACKWARD) < 0) return false;
    lastDts_ = INT64_MIN;
    lastDuration_ = 0;
    return true;
}

bool MediaSource::rewind() {
    if (av_seek_frame(format_context_, -1, 0, AVSEEK_FLAG_BYTE) < 0 &&
        av_seek_frame(format_context_, videoIndex_, declaredStartTicks(), AVSEEK_FLAG_BACKWARD) < 0)
        return false;
    lastDts_ = INT64_MIN;
    lastDuration_ = 0;
    return true;
}

}  // namespace sorvel::tool
