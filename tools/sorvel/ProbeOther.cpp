// SPDX-License-Identifier: Apache-2.0
// `sorvel probe` on files whose video the library does not read: audio-only
// files, and video of codecs other than H.264 and HEVC.  What can be said
// is said: the container, a generic video description with the stream's
// dimensions, and the audio streams' descriptions.
#include "ProbeOther.h"

#include <cstdio>

#include "Commands.h"
#include "Json.h"
#include "MediaSource.h"
#include "ProbeAudio.h"
#include "StreamDetails.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace sorvel::tool {
namespace {

// Sample-description codes of video codecs the library has no constant
// for: it reads only H.264 and HEVC samples.
constexpr FourCharCode kVideoCodecType_VP8 = 'vp08', kVideoCodecType_VP9 = 'vp09', kVideoCodecType_AV1 = 'av01',
                       kVideoCodecType_MPEG4Video = 'mp4v', kVideoCodecType_MPEG2Video = 'mp2v',
                       kVideoCodecType_JPEG = 'jpeg', kVideoCodecType_ProRes422 = 'apcn';

// The sample-description code of the codecs whose MP4 form names one.
FourCharCode videoCodecType(const AVCodecParameters *parameters) {
    switch (parameters->codec_id) {
        case AV_CODEC_ID_VP8:
            return kVideoCodecType_VP8;
        case AV_CODEC_ID_VP9:
            return kVideoCodecType_VP9;
        case AV_CODEC_ID_AV1:
            return kVideoCodecType_AV1;
        case AV_CODEC_ID_MPEG4:
            return kVideoCodecType_MPEG4Video;
        case AV_CODEC_ID_MPEG2VIDEO:
            return kVideoCodecType_MPEG2Video;
        case AV_CODEC_ID_MJPEG:
            return kVideoCodecType_JPEG;
        case AV_CODEC_ID_PRORES:
            // ProRes names its flavour in the tag; 422 when the container does not say.
            return parameters->codec_tag ? parameters->codec_tag : kVideoCodecType_ProRes422;
        default:
            return 0;
    }
}

struct OtherVideo {
    int streamIndex = -1;
    std::string codecName;
    Ref<SVFormatDescriptionRef> description;
    SVVideoDimensions dimensions = {0, 0};  // the description's
    std::string subtype;                    // the description's media subtype as text
    std::string frameRate;                  // exact fraction, "" when not declared
    StreamDetails details;
};

OtherVideo describeOtherVideo(const MediaSource &source) {
    OtherVideo video;
    const AVFormatContext *context = source.formatContext();
    video.streamIndex = source.otherVideoStreamIndex();
    if (!context || video.streamIndex < 0) return video;
    const AVStream *stream = context->streams[video.streamIndex];
    const AVCodecParameters *parameters = stream->codecpar;
    video.codecName = avcodec_get_name(parameters->codec_id);
    const FourCharCode type = videoCodecType(parameters);
    // Codecs without a code here still get a description, under the tag the
    // container stores (0 when it stores none).
    if (SVVideoFormatDescriptionCreate(nullptr, type ? type : parameters->codec_tag, parameters->width,
                                       parameters->height, nullptr,
                                       reinterpret_cast<SVVideoFormatDescriptionRef *>(video.description.out())) == 0) {
        video.dimensions = SVVideoFormatDescriptionGetDimensions(video.description.get());
        video.subtype = fourCC(SVFormatDescriptionGetMediaSubType(video.description.get()));
    }
    const AVRational rate = stream->avg_frame_rate.num > 0 ? stream->avg_frame_rate : stream->r_frame_rate;
    if (rate.num > 0 && rate.den > 0) video.frameRate = format("%d/%d", rate.num, rate.den);
    video.details = streamDetails(stream);
    return video;
}

void writeOtherVideoJson(JsonWriter &json, const OtherVideo &video) {
    if (video.streamIndex < 0) {
        json.null("video");
        return;
    }
    json.beginObject("video");
    json.integer("stream_index", video.streamIndex);
    json.string("codec", video.codecName);
    json.string("media_subtype", video.subtype);
    json.integer("width", video.dimensions.width);
    json.integer("height", video.dimensions.height);
    json.string("frame_rate_fraction", video.frameRate);
    writeStreamDetails(json, video.details);
    json.boolean("samples_read", false);
    json.endObject();
}

void printOtherVideo(const OtherVideo &video) {
    if (video.streamIndex < 0) {
        printf("Video         none\n");
        return;
    }
    printf("Video         stream %d: %s '%s', %dx%d", video.streamIndex, video.codecName.c_str(), video.subtype.c_str(),
           video.dimensions.width, video.dimensions.height);
    if (!video.frameRate.empty()) printf(", %s fps", video.frameRate.c_str());
    printf(" (described only: sorvel reads the samples of H.264 and HEVC)\n");
    printStreamDetails(video.details);
}

}  // namespace

int probeWithoutLibraryVideo(const ProbeOptions &options, MediaSource &source, const ToolError &why,
                             int schemaVersion) {
    // Reading to the end counts the audio packets and their span.
    source.keepAudioSamples(options.samples);
    VideoSample sample;
    while (source.next(sample)) {
    }
    const OtherVideo video = describeOtherVideo(source);
    if (options.json) {
        JsonWriter json(stdout);
        json.beginObject();
        writeContainerJson(json, source, schemaVersion);
        writeOtherVideoJson(json, video);
        writeAudioStreamsJson(json, source, options.samples, {});
        json.beginArray("warnings");
        json.string(nullptr, why.message);
        for (const std::string &warning : source.warnings()) json.string(nullptr, warning);
        if (source.problem()) json.string(nullptr, source.problem()->message);
        json.endArray();
        json.endObject();
        json.finish();
        reportErrorsAsJson(false);
    } else {
        printf("File          %s (%s)\n", source.name().c_str(), source.containerName().c_str());
        printOtherVideo(video);
        printAudioStreams(source, {});
        if (options.samples) printAudioSampleTables(source);
        for (const std::string &warning : source.warnings()) fprintf(stderr, "sorvel: warning: %s\n", warning.c_str());
    }
    fflush(stdout);
    if (source.problem()) return reportError(*source.problem());
    return kExitOK;
}

}  // namespace sorvel::tool
