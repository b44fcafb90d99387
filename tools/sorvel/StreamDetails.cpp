// SPDX-License-Identifier: Apache-2.0
#include "StreamDetails.h"

#include <cstdio>

#include "AacConfig.h"
#include "Json.h"
#include "MediaSource.h"
#include "Tool.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/display.h>
}

namespace sorvel::tool {

StreamDetails streamDetails(const AVStream *stream) {
    StreamDetails details;
    if (!stream) return details;
    const AVDictionaryEntry *entry = nullptr;
    while ((entry = av_dict_get(stream->metadata, "", entry, AV_DICT_IGNORE_SUFFIX))) {
        details.tags.emplace_back(entry->key, entry->value ? entry->value : "");
        if (std::string(entry->key) == "language" && entry->value && std::string(entry->value) != "und")
            details.language = entry->value;
    }
    size_t size = 0;
    const uint8_t *matrix = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (matrix && size >= 9 * sizeof(int32_t)) {
        double rotation = av_display_rotation_get(reinterpret_cast<const int32_t *>(matrix));
        if (std::isfinite(rotation)) {
            // Whole degrees are what matrices written by cameras mean; keep
            // a fraction only where the matrix really has one.
            if (std::fabs(rotation - std::round(rotation)) < 1e-6) rotation = std::round(rotation);
            if (rotation <= -180) rotation += 360;
            if (rotation > 180) rotation -= 360;
            if (rotation == 0) rotation = 0;  // no "-0"
            details.rotation = rotation;
        }
    }
    return details;
}

std::string rotationWords(double rotation) {
    if (rotation == 0 || std::isnan(rotation)) return "none";
    return format("%g degrees %s", std::fabs(rotation), rotation < 0 ? "clockwise" : "counterclockwise");
}

std::string audioProfile(const AudioTrack &track) {
    const AudioStreamBasicDescription *asbd =
        SVAudioFormatDescriptionGetStreamBasicDescription(track.description.get());
    if (!asbd || asbd->mFormatID != kAudioFormatMPEG4AAC) return "";
    size_t size = 0;
    const void *cookie = SVAudioFormatDescriptionGetMagicCookie(track.description.get(), &size);
    AacProfile profile = readAacProfile(static_cast<const uint8_t *>(cookie), size);
    if (profile.objectType == 0) profile.objectType = asbd->mFormatFlags;
    return aacProfileName(profile);
}

StreamDetails videoDetails(const MediaSource &source) {
    const AVFormatContext *context = source.formatContext();
    const int index = source.videoStreamIndex();
    if (!context || index < 0 || static_cast<unsigned>(index) >= context->nb_streams) return {};
    return streamDetails(context->streams[index]);
}

void writeStreamDetails(JsonWriter &json, const StreamDetails &details) {
    json.string("language", details.language);
    json.number("rotation", details.rotation);
    json.beginObject("tags");
    for (const auto &[key, value] : details.tags) json.string(key.c_str(), value);
    json.endObject();
}

void printStreamDetails(const StreamDetails &details) {
    if (!details.language.empty()) printf("  Language    %s\n", details.language.c_str());
    if (details.rotation != 0) printf("  Rotation    %s (display matrix)\n", rotationWords(details.rotation).c_str());
    if (!details.tags.empty()) {
        printf("  Tags       ");
        for (const auto &[key, value] : details.tags)
            printf("%s %s=%s", &key == &details.tags.front().first ? "" : ",", key.c_str(), value.c_str());
        printf("\n");
    }
}

}  // namespace sorvel::tool
