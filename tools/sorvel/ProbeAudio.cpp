// SPDX-License-Identifier: Apache-2.0
#include "ProbeAudio.h"

#include <cstdio>

#include "Json.h"
#include "MediaSource.h"
#include "StreamDetails.h"

namespace sorvel::tool {
namespace {

// What the stream description says, read once for both forms of the report.
struct AudioFormatFacts {
    const AudioStreamBasicDescription *asbd = nullptr;  // null: no description for this codec
    std::string layout;                                 // "" without a channel layout
    size_t cookieSize = 0;
};

AudioFormatFacts audioFormatFacts(const AudioTrack &track) {
    AudioFormatFacts facts;
    facts.asbd = SVAudioFormatDescriptionGetStreamBasicDescription(track.description.get());
    if (!facts.asbd) return facts;
    size_t layoutSize = 0;
    if (const AudioChannelLayout *layout =
            SVAudioFormatDescriptionGetChannelLayout(track.description.get(), &layoutSize))
        facts.layout = channelLayoutName(layout->mChannelLayoutTag);
    SVAudioFormatDescriptionGetMagicCookie(track.description.get(), &facts.cookieSize);
    return facts;
}

double ticksToSeconds(const AudioTrack &track, int64_t ticks) {
    return static_cast<double>(ticks) * track.tickNumerator / track.tickDenominator;
}

const BridgeTrack *bridgedTrack(const BridgedTracks &bridged, int streamIndex) {
    const auto found = bridged.find(streamIndex);
    return found == bridged.end() ? nullptr : &found->second;
}

void writeAudioFormatJson(JsonWriter &json, const AudioTrack &track, const AudioFormatFacts &facts) {
    const AudioStreamBasicDescription *asbd = facts.asbd;
    json.string("format_id", fourCC(asbd->mFormatID));
    json.number("sample_rate", asbd->mSampleRate);
    json.integer("format_flags", asbd->mFormatFlags);
    json.integer("channels", asbd->mChannelsPerFrame);
    json.integer("frames_per_packet", asbd->mFramesPerPacket);
    json.integer("bytes_per_packet", asbd->mBytesPerPacket);
    json.integer("bits_per_channel", asbd->mBitsPerChannel);
    json.string("channel_layout", facts.layout);
    json.integer("magic_cookie_size", static_cast<long long>(facts.cookieSize));
    json.integer("timescale", track.tickDenominator);
    json.integer("sample_buffer_count", track.bufferCount);
    json.integer("packets_skipped", track.packetsSkipped);
    json.integer("frame_count", track.frames);
    json.integer("priming_frames", track.primingFrames);
    json.integer("remainder_frames", track.remainderFrames);
    json.number("start_time", seconds(track.outputStart));
}

void writeAudioSamplesJson(JsonWriter &json, const AudioTrack &track) {
    json.beginArray("samples");
    for (const AudioSample &sample : track.samples) {
        json.beginRow();
        json.integer("index", static_cast<long long>(sample.index));
        // Decode order is presentation order for audio.
        json.integer("dts", sample.pts);
        json.integer("pts", sample.pts);
        json.integer("duration", sample.duration);
        json.number("pts_time", ticksToSeconds(track, sample.pts));
        json.integer("size", static_cast<long long>(sample.size));
        json.integer("frames", sample.frames);
        json.integer("trim_start", sample.trimStart);
        json.integer("trim_end", sample.trimEnd);
        json.endRow();
    }
    json.endArray();
}

void writeAudioStreamJson(JsonWriter &json, const AudioTrack &track, bool samples, const BridgeTrack *bridged) {
    json.beginObject();
    json.integer("stream_index", track.streamIndex);
    json.string("codec", track.codecName);
    json.string("profile", audioProfile(track));
    json.integer("packet_count", track.packetCount);
    json.number("duration", track.bufferCount ? seconds(track.outputDuration) : track.endSeconds - track.startSeconds);
    const AudioFormatFacts facts = audioFormatFacts(track);
    if (facts.asbd) writeAudioFormatJson(json, track, facts);
    if (samples) writeAudioSamplesJson(json, track);
    if (bridged) writeSampleDescriptionJson(json, *bridged);
    json.endObject();
}

void printAudioStream(const AudioTrack &track, const BridgeTrack *bridged) {
    printf("Audio         stream %d: %s", track.streamIndex, track.codecName.c_str());
    if (const std::string profile = audioProfile(track); !profile.empty()) printf(" %s", profile.c_str());
    const AudioFormatFacts facts = audioFormatFacts(track);
    if (facts.asbd)
        printf(" '%s', %g Hz, %u channels (%s), %u frames per packet, cookie %zu bytes",
               fourCC(facts.asbd->mFormatID).c_str(), facts.asbd->mSampleRate, facts.asbd->mChannelsPerFrame,
               facts.layout.empty() ? "no layout" : facts.layout.c_str(), facts.asbd->mFramesPerPacket,
               facts.cookieSize);
    else
        printf(" (no stream description for this codec)");
    printf("; %lld packets, %.3f s\n", static_cast<long long>(track.packetCount),
           track.endSeconds - track.startSeconds);
    if (bridged) printf("  Sample description %s\n", sampleDescriptionLine(*bridged).c_str());
    if (track.bufferCount)
        printf(
            "  Timing      timescale %d, %lld frames (priming %lld, remainder %lld), start %.6f s, duration %.6f s\n",
            track.tickDenominator, static_cast<long long>(track.frames), static_cast<long long>(track.primingFrames),
            static_cast<long long>(track.remainderFrames), seconds(track.outputStart), seconds(track.outputDuration));
    if (track.packetsSkipped) printf("  Skipped     %lld packets\n", static_cast<long long>(track.packetsSkipped));
}

}  // namespace

std::string channelLayoutName(AudioChannelLayoutTag tag) {
    switch (tag) {
        case kAudioChannelLayoutTag_Mono:
            return "Mono";
        case kAudioChannelLayoutTag_Stereo:
            return "Stereo";
        case kAudioChannelLayoutTag_MPEG_5_1_A:
            return "MPEG 5.1 A";
        case kAudioChannelLayoutTag_MPEG_7_1_A:
            return "MPEG 7.1 A";
        default:
            if ((tag & 0xFFFF0000u) == kAudioChannelLayoutTag_DiscreteInOrder)
                return format("%u discrete channels", tag & 0xFFFF);
            return format("tag 0x%08x", tag);
    }
}

void writeContainerJson(JsonWriter &json, MediaSource &source, int schemaVersion) {
    json.integer("schema_version", schemaVersion);
    json.string("file", source.name());
    json.string("container", source.containerName());
    json.beginObject("format");
    json.number("duration", source.containerDuration());
    json.integer("bit_rate", source.containerBitRate());
    json.integer("size", source.containerSize());
    json.endObject();
}

void writeAudioStreamsJson(JsonWriter &json, MediaSource &source, bool samples, const BridgedTracks &bridged) {
    json.beginArray("audio");
    for (const AudioTrack &track : source.audioTracks())
        writeAudioStreamJson(json, track, samples, bridgedTrack(bridged, track.streamIndex));
    json.endArray();
}

void printAudioStreams(MediaSource &source, const BridgedTracks &bridged) {
    for (const AudioTrack &track : source.audioTracks())
        printAudioStream(track, bridgedTrack(bridged, track.streamIndex));
}

void printAudioSampleTables(MediaSource &source) {
    for (const AudioTrack &track : source.audioTracks()) {
        if (track.samples.empty()) continue;
        printf("\nAudio stream %d\n%8s %12s %12s %9s %12s %9s %7s %6s %6s\n", track.streamIndex, "packet", "dts", "pts",
               "duration", "pts (s)", "size", "frames", "trim<", "trim>");
        for (const AudioSample &sample : track.samples)
            printf("%8lld %12lld %12lld %9lld %12.6f %9zu %7lld %6lld %6lld\n", static_cast<long long>(sample.index),
                   static_cast<long long>(sample.pts), static_cast<long long>(sample.pts),
                   static_cast<long long>(sample.duration), ticksToSeconds(track, sample.pts), sample.size,
                   static_cast<long long>(sample.frames), static_cast<long long>(sample.trimStart),
                   static_cast<long long>(sample.trimEnd));
    }
}

}  // namespace sorvel::tool
