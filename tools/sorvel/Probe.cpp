// SPDX-License-Identifier: Apache-2.0
// `sorvel probe`: what the library makes of a file's video (and audio)
// streams, as text or JSON.
#include <Sorvel/SVNALUnit.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <optional>

#include "Commands.h"
#include "HdrMetadata.h"
#include "Json.h"
#include "MediaSource.h"
#include "ProbeAudio.h"
#include "ProbeOther.h"
#include "SampleDescriptionProbe.h"
#include "StreamDetails.h"

namespace sorvel::tool {
namespace {

// Raised when a field changes meaning or goes away; new fields do not raise it.
constexpr int kProbeSchemaVersion = 2;

struct Row {
    SVTime dts, pts, duration;
    size_t size;
    bool sync;
};

struct VideoSummary {
    std::vector<Row> rows;
    std::map<unsigned, int64_t> nalUnits;
    int64_t syncCount = 0;
    std::vector<int64_t> syncIndices;
    int reorderDepth = 0;
    int64_t minPts = INT64_MAX, minDts = INT64_MAX;
    double start = NAN, end = NAN;
    uint64_t bytes = 0;
    std::map<int64_t, int64_t> durations;   // ticks -> count, for the frame rate
    int64_t topFirst = 0, bottomFirst = 0;  // samples that state their field order
};

// Tallies the field order a sample states (H.264 only: the parameter sets
// do not carry it, the samples may).
void countFieldOrder(SVSampleBufferRef buffer, VideoSummary &summary) {
    const uint8_t *bytes = nullptr;
    size_t size = 0;
    if (!sampleBytes(buffer, bytes, size)) return;
    CFStringRef order =
        SVVideoFormatDescriptionGetH264FieldDetailOfSample(SVSampleBufferGetFormatDescription(buffer), bytes, size);
    if (order && CFEqual(order, kCVImageBufferFieldDetailTemporalTopFirst)) ++summary.topFirst;
    if (order && CFEqual(order, kCVImageBufferFieldDetailTemporalBottomFirst)) ++summary.bottomFirst;
}

// The field order in words, and in the two-letter form of libavformat's
// field_order ("tt", "bb"); empty when progressive or when nothing says.
// The description's own field detail wins over what the samples state; of
// those, the order most samples state.
struct FieldOrder {
    std::string words, code;
};
FieldOrder fieldOrder(SVFormatDescriptionRef description, int64_t fieldCount, const VideoSummary &summary) {
    if (fieldCount < 2) return {"progressive", "progressive"};
    CFTypeRef detail = SVFormatDescriptionGetExtension(description, kCVImageBufferFieldDetailKey);
    if (!detail && (summary.topFirst || summary.bottomFirst))
        detail = summary.topFirst >= summary.bottomFirst ? kCVImageBufferFieldDetailTemporalTopFirst
                                                         : kCVImageBufferFieldDetailTemporalBottomFirst;
    if (detail && CFEqual(detail, kCVImageBufferFieldDetailTemporalTopFirst)) return {"top field first", "tt"};
    if (detail && CFEqual(detail, kCVImageBufferFieldDetailTemporalBottomFirst)) return {"bottom field first", "bb"};
    if (detail && CFEqual(detail, kCVImageBufferFieldDetailSpatialFirstLineEarly))
        return {"first line early (interleaved)", "tb"};
    if (detail && CFEqual(detail, kCVImageBufferFieldDetailSpatialFirstLineLate))
        return {"first line late (interleaved)", "bt"};
    return {"", ""};
}

void readSampleRow(SVSampleBufferRef buffer, Row &row) {
    row.dts = SVSampleBufferGetDecodeTimeStamp(buffer);
    row.pts = SVSampleBufferGetPresentationTimeStamp(buffer);
    row.duration = SVSampleBufferGetDuration(buffer);
    row.size = SVSampleBufferGetTotalSampleSize(buffer);
    row.sync = true;
    if (CFArrayRef attachments = SVSampleBufferGetSampleAttachmentsArray(buffer, false);
        attachments && CFArrayGetCount(attachments) > 0) {
        auto dictionary = static_cast<CFDictionaryRef>(CFArrayGetValueAtIndex(attachments, 0));
        row.sync = CFDictionaryGetValue(dictionary, kSVSampleAttachmentKey_NotSync) != kCFBooleanTrue;
    }
}

void countNALUnits(SVSampleBufferRef buffer, FourCharCode codec, int headerLength,
                   std::map<unsigned, int64_t> &counts) {
    const uint8_t *bytes = nullptr;
    size_t size = 0;
    if (!sampleBytes(buffer, bytes, size)) return;
    std::map<unsigned, int64_t> *out = &counts;
    _SVEnumerateNALUnits(bytes, size, headerLength, ^int(const uint8_t *unit, size_t length) {
      if (length > static_cast<size_t>(headerLength)) ++(*out)[nalUnitType(codec, unit[headerLength])];
      return 0;
    });
}

// How many samples a decoder must hold back: the largest lead of a
// sample's decode position over its presentation position.
int reorderDepth(const std::vector<Row> &rows) {
    std::vector<size_t> order(rows.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return SVTimeCompare(rows[a].pts, rows[b].pts) < 0; });
    long depth = 0;
    for (size_t rank = 0; rank < order.size(); ++rank)
        depth = std::max(depth, static_cast<long>(order[rank]) - static_cast<long>(rank));
    return static_cast<int>(depth);
}

// Bits of H.264's constraint_set byte (constraint_set0 is 0x80).
constexpr uint32_t kH264ConstraintSet1 = 0x40, kH264ConstraintSet3 = 0x10;
// The H.264 profile whose level_idc 11 with constraint_set3 means level 1b.
constexpr unsigned kH264ProfileExtended = 88;

std::string profileName(const SVVideoCodingInfo &info) {
    if (info.codecType == kSVVideoCodecType_H264) {
        switch (info.profile) {
            case 66:
                return (info.constraintFlags & kH264ConstraintSet1) ? "Constrained Baseline" : "Baseline";
            case 77:
                return "Main";
            case kH264ProfileExtended:
                return "Extended";
            case 100:
                return "High";
            case 110:
                return (info.constraintFlags & kH264ConstraintSet3) ? "High 10 Intra" : "High 10";
            case 122:
                return (info.constraintFlags & kH264ConstraintSet3) ? "High 4:2:2 Intra" : "High 4:2:2";
            case 244:
                return (info.constraintFlags & kH264ConstraintSet3) ? "High 4:4:4 Intra" : "High 4:4:4 Predictive";
            case 44:
                return "CAVLC 4:4:4";
            default:
                return format("profile_idc %u", info.profile);
        }
    }
    unsigned profile = info.profile;
    // A zero profile defers to the first compatibility flag set.
    for (unsigned j = 1; profile == 0 && j < 32; ++j)
        if (info.profileCompatibility & (1u << (31 - j))) profile = j;
    switch (profile) {
        case 1:
            return "Main";
        case 2:
            return "Main 10";
        case 3:
            return "Main Still Picture";
        case 4:
            return "Rext";
        case 9:
            return "SCC";
        default:
            return format("general_profile_idc %u", info.profile);
    }
}

std::string levelName(const SVVideoCodingInfo &info) {
    if (info.codecType == kSVVideoCodecType_H264) {
        if (info.level == 11 && (info.constraintFlags & kH264ConstraintSet3) && info.profile <= kH264ProfileExtended)
            return "1b";
        return format("%u.%u", info.level / 10, info.level % 10);
    }
    const unsigned level = info.level / 3;  // general_level_idc is 30 times the level
    return level % 10 ? format("%u.%u", level / 10, level % 10) : format("%u", level / 10);
}

const char *chromaName(uint32_t chromaFormat) {
    switch (chromaFormat) {
        case 0:
            return "4:0:0";
        case 1:
            return "4:2:0";
        case 2:
            return "4:2:2";
        case 3:
            return "4:4:4";
        default:
            return "?";
    }
}

// Extension values are constant keys such as
// "kCVImageBufferColorPrimaries_ITU_R_709_2": the part after the first
// underscore is what a reader wants to see.
std::string extensionText(SVFormatDescriptionRef description, CFStringRef key) {
    const std::string text = utf8(SVFormatDescriptionGetExtension(description, key));
    const size_t underscore = text.find('_');
    return text.compare(0, 1, "k") == 0 && underscore != std::string::npos ? text.substr(underscore + 1) : text;
}

int64_t extensionInteger(SVFormatDescriptionRef description, CFStringRef key, int64_t fallback) {
    CFTypeRef value = SVFormatDescriptionGetExtension(description, key);
    int64_t number = fallback;
    if (value && CFGetTypeID(value) == CFNumberGetTypeID())
        CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberSInt64Type, &number);
    return number;
}

bool pixelAspectRatio(SVFormatDescriptionRef description, int64_t &h, int64_t &v) {
    CFTypeRef value = SVFormatDescriptionGetExtension(description, kCVImageBufferPixelAspectRatioKey);
    h = v = 1;
    if (!value || CFGetTypeID(value) != CFDictionaryGetTypeID()) return false;
    auto dictionary = static_cast<CFDictionaryRef>(value);
    auto read = [&](CFStringRef key, int64_t &out) {
        CFTypeRef number = CFDictionaryGetValue(dictionary, key);
        if (number && CFGetTypeID(number) == CFNumberGetTypeID())
            CFNumberGetValue(static_cast<CFNumberRef>(number), kCFNumberSInt64Type, &out);
    };
    read(kCVImageBufferPixelAspectRatioHorizontalSpacingKey, h);
    read(kCVImageBufferPixelAspectRatioVerticalSpacingKey, v);
    return true;
}

struct ParameterSet {
    unsigned type;
    size_t size;
    std::string hex;
};

std::vector<ParameterSet> parameterSets(SVFormatDescriptionRef description, FourCharCode codec, int *headerLength) {
    auto getter = codec == kSVVideoCodecType_H264 ? SVVideoFormatDescriptionGetH264ParameterSetAtIndex
                                                  : SVVideoFormatDescriptionGetHEVCParameterSetAtIndex;
    size_t count = 0;
    *headerLength = 0;
    std::vector<ParameterSet> sets;
    if (getter(description, 0, nullptr, nullptr, &count, headerLength) != 0) return sets;
    for (size_t i = 0; i < count; ++i) {
        const uint8_t *bytes = nullptr;
        size_t size = 0;
        if (getter(description, i, &bytes, &size, nullptr, nullptr) != 0 || size == 0) continue;
        ParameterSet set{nalUnitType(codec, bytes[0]), size, {}};
        for (size_t b = 0; b < size; ++b) set.hex += format("%02x", bytes[b]);
        sets.push_back(std::move(set));
    }
    return sets;
}

// Reads every video sample into the summary and the HDR metadata, and
// returns the description of the first sample (the one reported: later
// changes are counted), or the stream's own before any sample.
Ref<SVFormatDescriptionRef> readVideoSamples(MediaSource &source, VideoSummary &summary, HdrMetadata &hdr) {
    const FourCharCode codec = source.codec();
    const int headerLength = source.nalUnitHeaderLength();
    Ref<SVFormatDescriptionRef> description;
    VideoSample sample;
    while (source.next(sample)) {
        SVSampleBufferRef buffer = sample.buffer.get();
        if (!description) description = Ref<SVFormatDescriptionRef>::retain(SVSampleBufferGetFormatDescription(buffer));
        Row row;
        readSampleRow(buffer, row);
        countNALUnits(buffer, codec, headerLength, summary.nalUnits);
        if (codec == kSVVideoCodecType_H264) countFieldOrder(buffer, summary);
        collectHdrMetadata(buffer, codec, headerLength, hdr);
        if (row.sync) {
            ++summary.syncCount;
            summary.syncIndices.push_back(static_cast<int64_t>(summary.rows.size()));
        }
        const double pts = seconds(row.pts),
                     end = pts + (std::isnan(seconds(row.duration)) ? 0 : seconds(row.duration));
        if (std::isnan(summary.start) || pts < summary.start) summary.start = pts;
        if (std::isnan(summary.end) || end > summary.end) summary.end = end;
        summary.bytes += row.size;
        ++summary.durations[sample.duration];
        summary.minPts = std::min(summary.minPts, sample.pts);
        if (SVTIME_IS_NUMERIC(row.dts)) summary.minDts = std::min(summary.minDts, sample.dts);
        summary.rows.push_back(row);
    }
    summary.reorderDepth = reorderDepth(summary.rows);
    if (!description) description = Ref<SVFormatDescriptionRef>::retain(source.videoFormat());
    return description;
}

// What the video's format description says, as reported.
struct VideoFormat {
    SVVideoCodingInfo info = {};
    bool haveInfo = false;
    SVVideoDimensions dimensions = {0, 0};
    CGSize presentation = {0, 0};
    int64_t sarH = 1, sarV = 1;
    bool fullRange = false;
    int64_t fieldCount = 1;
    FieldOrder fields;
    std::string colourPrimaries, transfer, matrix, chromaTop;
    int storedHeaderLength = 0;
    std::vector<ParameterSet> sets;
};

VideoFormat describeVideoFormat(SVFormatDescriptionRef description, FourCharCode codec, const VideoSummary &summary) {
    VideoFormat facts;
    facts.haveInfo = SVVideoFormatDescriptionGetCodingInfo(description, &facts.info) == 0;
    facts.dimensions = SVVideoFormatDescriptionGetDimensions(description);
    facts.presentation = SVVideoFormatDescriptionGetPresentationDimensions(description, true, false);
    pixelAspectRatio(description, facts.sarH, facts.sarV);
    facts.fullRange =
        SVFormatDescriptionGetExtension(description, kSVFormatDescriptionExtension_FullRangeVideo) == kCFBooleanTrue;
    facts.fieldCount = extensionInteger(description, kCVImageBufferFieldCountKey, 1);
    facts.fields = fieldOrder(description, facts.fieldCount, summary);
    facts.colourPrimaries = extensionText(description, kCVImageBufferColorPrimariesKey);
    facts.transfer = extensionText(description, kCVImageBufferTransferFunctionKey);
    facts.matrix = extensionText(description, kCVImageBufferYCbCrMatrixKey);
    facts.chromaTop = extensionText(description, kCVImageBufferChromaLocationTopFieldKey);
    facts.sets = parameterSets(description, codec, &facts.storedHeaderLength);
    return facts;
}

// The timing figures derived from the samples.
struct VideoTiming {
    double duration = 0;  // seconds from the earliest presentation to the latest end
    double frameRate = NAN;
    int64_t presentationDelay = 0;  // frame times the first picture is shown after decoding starts
};

VideoTiming videoTiming(const VideoSummary &summary, const MediaSource &source) {
    VideoTiming timing;
    timing.duration = summary.rows.empty() ? 0 : summary.end - summary.start;
    // The most common sample duration is the frame time.
    int64_t commonDuration = 0, commonCount = 0;
    for (const auto &[ticks, count] : summary.durations)
        if (count > commonCount && ticks > 0) commonDuration = ticks, commonCount = count;
    if (commonDuration > 0) timing.frameRate = 1.0 / seconds(source.time(commonDuration));
    if (commonDuration > 0 && summary.minDts != INT64_MAX)
        timing.presentationDelay = (summary.minPts - summary.minDts + commonDuration / 2) / commonDuration;
    return timing;
}

// Each track again, from the sample description the muxer wrote, and
// what differs from libavformat's view of the stream.
struct BridgeView {
    BridgedTracks tracks;
    std::vector<std::string> warnings;
    const BridgeTrack *video = nullptr;
};

BridgeView bridgeSampleDescriptions(const std::string &file, MediaSource &source, SVFormatDescriptionRef video) {
    BridgeView bridge;
    bridge.tracks = describeSampleEntries(file, source.containerName(), bridge.warnings);
    if (const auto found = source.hasVideo() ? bridge.tracks.find(source.videoStreamIndex()) : bridge.tracks.end();
        found != bridge.tracks.end()) {
        bridge.video = &found->second;
        crossCheckSampleDescription(found->second, video, format("stream %d", source.videoStreamIndex()),
                                    bridge.warnings);
    }
    for (const AudioTrack &track : source.audioTracks())
        if (const auto found = bridge.tracks.find(track.streamIndex); found != bridge.tracks.end())
            crossCheckSampleDescription(found->second, track.description.get(), format("stream %d", track.streamIndex),
                                        bridge.warnings);
    return bridge;
}

// Everything the report shows, gathered and computed.
struct ProbeReport {
    MediaSource &source;
    const ProbeOptions &options;
    ProbeReport(MediaSource &source, const ProbeOptions &options)
        : source(source), options(options), codec(source.codec()) {}
    FourCharCode codec;
    Ref<SVFormatDescriptionRef> description;  // null without video
    VideoSummary summary;
    HdrMetadata hdr;
    VideoFormat videoFormat;
    VideoTiming timing;
    StreamDetails details;
    BridgeView bridge;
};

const char *codecWords(FourCharCode codec) {
    return codec == kSVVideoCodecType_H264 ? "H.264" : "HEVC";
}

void writeVideoFormatJson(JsonWriter &json, const ProbeReport &report) {
    const VideoFormat &f = report.videoFormat;
    const FourCharCode codec = report.codec;
    json.integer("stream_index", report.source.videoStreamIndex());
    json.string("codec", codec == kSVVideoCodecType_H264 ? "h264" : "hevc");
    json.string("media_subtype", fourCC(SVFormatDescriptionGetMediaSubType(report.description.get())));
    if (f.haveInfo) {
        json.string("profile", profileName(f.info));
        json.integer("profile_idc", f.info.profile);
        json.integer("level", f.info.level);
        json.string("level_name", levelName(f.info));
        if (codec == kSVVideoCodecType_HEVC) json.string("tier", f.info.tier ? "High" : "Main");
        json.string("chroma_format", chromaName(f.info.chromaFormat));
        json.integer("bit_depth_luma", f.info.bitDepthLuma);
        json.integer("bit_depth_chroma", f.info.bitDepthChroma);
        json.integer("coded_width", f.info.codedWidth);
        json.integer("coded_height", f.info.codedHeight);
    }
    json.integer("width", f.dimensions.width);
    json.integer("height", f.dimensions.height);
    json.number("presentation_width", f.presentation.width);
    json.number("presentation_height", f.presentation.height);
    json.string("pixel_aspect_ratio",
                format("%lld:%lld", static_cast<long long>(f.sarH), static_cast<long long>(f.sarV)));
    json.string("color_primaries", f.colourPrimaries);
    json.string("transfer_function", f.transfer);
    json.string("ycbcr_matrix", f.matrix);
    json.boolean("full_range", f.fullRange);
    json.string("chroma_location", f.chromaTop);
    json.integer("field_count", f.fieldCount);
    json.string("field_detail", f.fieldCount > 1 ? f.fields.words : "");
    json.string("field_order", f.fields.code.empty() ? "unknown" : f.fields.code);
    writeStreamDetails(json, report.details);
    writeHdrMetadata(json, report.hdr);
    json.integer("nal_unit_header_length", f.storedHeaderLength);
    json.beginArray("parameter_sets");
    for (const ParameterSet &set : f.sets) {
        json.beginRow();
        json.string("type", nalUnitTypeName(codec, set.type));
        json.integer("size", static_cast<long long>(set.size));
        json.string("bytes", set.hex);
        json.endRow();
    }
    json.endArray();
}

void writeVideoTimingJson(JsonWriter &json, const ProbeReport &report) {
    const VideoSummary &summary = report.summary;
    MediaSource &source = report.source;
    json.integer("timescale", source.timescale());
    json.integer("sample_count", static_cast<long long>(summary.rows.size()));
    json.number("start_time", summary.start);
    json.number("duration", report.timing.duration);
    json.number("frame_rate", report.timing.frameRate);
    json.string("frame_rate_fraction", source.frameRateFraction());
    json.integer("total_size", static_cast<long long>(summary.bytes));
    json.integer("sync_sample_count", summary.syncCount);
    json.beginArray("sync_samples");
    for (int64_t index : summary.syncIndices) json.integer(nullptr, index);
    json.endArray();
    json.integer("reorder_depth", summary.reorderDepth);
    json.integer("presentation_delay", report.timing.presentationDelay);
    json.integer("format_changes", source.formatChanges());
    json.string("decode_times", source.decodeTimeSource());
    json.beginObject("nal_units");
    for (const auto &[type, count] : summary.nalUnits) json.integer(nalUnitTypeName(report.codec, type), count);
    json.endObject();
}

void writeVideoSamplesJson(JsonWriter &json, const std::vector<Row> &rows) {
    json.beginArray("samples");
    for (size_t i = 0; i < rows.size(); ++i) {
        const Row &row = rows[i];
        json.beginRow();
        json.integer("index", static_cast<long long>(i));
        if (SVTIME_IS_NUMERIC(row.dts))
            json.integer("dts", row.dts.value);
        else
            json.null("dts");
        json.integer("pts", row.pts.value);
        json.integer("duration", SVTIME_IS_NUMERIC(row.duration) ? row.duration.value : 0);
        json.number("dts_time", seconds(row.dts));
        json.number("pts_time", seconds(row.pts));
        json.integer("size", static_cast<long long>(row.size));
        json.boolean("sync", row.sync);
        json.endRow();
    }
    json.endArray();
}

// What went wrong on the way without stopping the report, in the order
// both forms give it.
std::vector<std::string> reportWarnings(const ProbeReport &report) {
    MediaSource &source = report.source;
    std::vector<std::string> warnings = source.warnings();
    warnings.insert(warnings.end(), report.bridge.warnings.begin(), report.bridge.warnings.end());
    if (source.samplesWithoutFormat())
        warnings.push_back(format("%lld samples before the first parameter sets were skipped",
                                  static_cast<long long>(source.samplesWithoutFormat())));
    return warnings;
}

void writeProbeJson(const ProbeReport &report) {
    MediaSource &source = report.source;
    JsonWriter json(stdout);
    json.beginObject();
    writeContainerJson(json, source, kProbeSchemaVersion);
    if (source.hasVideo()) {
        json.beginObject("video");
        writeVideoFormatJson(json, report);
        writeVideoTimingJson(json, report);
        if (report.bridge.video) writeSampleDescriptionJson(json, *report.bridge.video);
        if (report.options.samples) writeVideoSamplesJson(json, report.summary.rows);
        json.endObject();
    } else {
        json.null("video");
    }
    writeAudioStreamsJson(json, source, report.options.samples, report.bridge.tracks);
    json.beginArray("warnings");
    for (const std::string &warning : reportWarnings(report)) json.string(nullptr, warning);
    if (source.problem()) json.string(nullptr, source.problem()->message);
    json.endArray();
    json.endObject();
    json.finish();
    reportErrorsAsJson(false);  // the report is out; a failure after it is told on stderr only
}

void printVideoFormat(const ProbeReport &report) {
    const VideoFormat &f = report.videoFormat;
    const FourCharCode codec = report.codec;
    printf("Video         %s '%s'", codecWords(codec),
           fourCC(SVFormatDescriptionGetMediaSubType(report.description.get())).c_str());
    if (f.haveInfo) {
        printf(", %s profile, level %s", profileName(f.info).c_str(), levelName(f.info).c_str());
        if (codec == kSVVideoCodecType_HEVC) printf(" (%s tier)", f.info.tier ? "High" : "Main");
        printf(", %u-bit %s", f.info.bitDepthLuma, chromaName(f.info.chromaFormat));
    }
    printf("\n");
    if (f.haveInfo) printf("  Coded       %dx%d\n", f.info.codedWidth, f.info.codedHeight);
    printf("  Dimensions  %dx%d\n", f.dimensions.width, f.dimensions.height);
    printf("  Display     %gx%g, pixel aspect ratio %lld:%lld\n", f.presentation.width, f.presentation.height,
           static_cast<long long>(f.sarH), static_cast<long long>(f.sarV));
    auto orUnspecified = [](const std::string &text) { return text.empty() ? std::string("unspecified") : text; };
    printf("  Colour      primaries %s, transfer %s, matrix %s, %s range\n", orUnspecified(f.colourPrimaries).c_str(),
           orUnspecified(f.transfer).c_str(), orUnspecified(f.matrix).c_str(), f.fullRange ? "full" : "video");
    printf("  Chroma      %s\n", orUnspecified(f.chromaTop).c_str());
    if (f.fieldCount > 1)
        printf("  Fields      %lld (%s)\n", static_cast<long long>(f.fieldCount),
               f.fields.words.empty() ? "order not stated" : f.fields.words.c_str());
    else
        printf("  Fields      progressive\n");
    printStreamDetails(report.details);
    printHdrMetadata(report.hdr);
    printf("  NAL length  %d bytes\n", f.storedHeaderLength);
    if (report.bridge.video) printf("  Sample description %s\n", sampleDescriptionLine(*report.bridge.video).c_str());
    printf("  Parameter sets ");
    for (size_t i = 0; i < f.sets.size(); ++i)
        printf("%s%s (%zu bytes)", i ? ", " : "", nalUnitTypeName(codec, f.sets[i].type), f.sets[i].size);
    printf("\n");
}

void printVideoTiming(const ProbeReport &report) {
    const VideoSummary &summary = report.summary;
    MediaSource &source = report.source;
    printf("Timing        timescale %d, %zu samples, start %.6f s, duration %.6f s", source.timescale(),
           summary.rows.size(), summary.start, report.timing.duration);
    if (!std::isnan(report.timing.frameRate)) printf(", %.3f fps", report.timing.frameRate);
    printf("\n");
    // The first sync samples; the rest are in --json.
    constexpr size_t kSyncSamplesShown = 12;
    printf("  Sync        %lld:", static_cast<long long>(summary.syncCount));
    for (size_t i = 0; i < summary.syncIndices.size() && i < kSyncSamplesShown; ++i)
        printf(" %lld", static_cast<long long>(summary.syncIndices[i]));
    if (summary.syncIndices.size() > kSyncSamplesShown) printf(" ...");
    printf("\n");
    printf("  Reordering  depth %d, presentation delay %lld frames\n", summary.reorderDepth,
           static_cast<long long>(report.timing.presentationDelay));
    if (std::string(source.decodeTimeSource()) != "stored") printf("  Decode times %s\n", source.decodeTimeSource());
    printf("  NAL units  ");
    for (const auto &[type, count] : summary.nalUnits)
        printf(" %s %lld", nalUnitTypeName(report.codec, type), static_cast<long long>(count));
    printf("\n");
    if (source.formatChanges()) printf("  Format changes %d\n", source.formatChanges());
}

void printVideoSampleTable(const std::vector<Row> &rows) {
    printf("\n%8s %12s %12s %9s %12s %12s %9s %5s\n", "sample", "dts", "pts", "duration", "dts (s)", "pts (s)", "size",
           "sync");
    for (size_t i = 0; i < rows.size(); ++i) {
        const Row &row = rows[i];
        const std::string dts =
            SVTIME_IS_NUMERIC(row.dts) ? format("%lld", static_cast<long long>(row.dts.value)) : "N/A";
        const std::string dtsTime = SVTIME_IS_NUMERIC(row.dts) ? format("%.6f", seconds(row.dts)) : "N/A";
        printf("%8zu %12s %12lld %9lld %12s %12.6f %9zu %5s\n", i, dts.c_str(), static_cast<long long>(row.pts.value),
               static_cast<long long>(SVTIME_IS_NUMERIC(row.duration) ? row.duration.value : 0), dtsTime.c_str(),
               seconds(row.pts), row.size, row.sync ? "yes" : "");
    }
}

void printProbeText(const ProbeReport &report) {
    MediaSource &source = report.source;
    printf("File          %s (%s)\n", source.name().c_str(), source.containerName().c_str());
    if (source.hasVideo()) {
        printVideoFormat(report);
        printVideoTiming(report);
    } else {
        printf("Video         none\n");
    }
    printAudioStreams(source, report.bridge.tracks);
    if (report.options.samples && source.hasVideo()) printVideoSampleTable(report.summary.rows);
    printAudioSampleTables(source);
    for (const std::string &warning : reportWarnings(report)) fprintf(stderr, "sorvel: warning: %s\n", warning.c_str());
}

// Opens the file for the full report; a file whose video the library does
// not read is described as far as it can be instead of refused, and
// `described` is then its exit status.
std::unique_ptr<MediaSource> openForProbe(const ProbeOptions &options, std::optional<int> &described) {
    ToolError error;
    std::unique_ptr<MediaSource> source = MediaSource::open(options.file, error, false);
    if (!source && (error.code == kExitNoVideo || error.code == kExitUnsupported)) {
        ToolError reopenError;
        if (std::unique_ptr<MediaSource> other = MediaSource::openForDescription(options.file, reopenError)) {
            described = probeWithoutLibraryVideo(options, *other, error, kProbeSchemaVersion);
            return nullptr;
        }
    }
    if (!source) described = reportError(error);
    return source;
}

}  // namespace

int runProbe(const ProbeOptions &options) {
    std::optional<int> described;
    std::unique_ptr<MediaSource> source = openForProbe(options, described);
    if (!source) return *described;
    source->keepAudioSamples(options.samples);

    ProbeReport report(*source, options);
    report.description = readVideoSamples(*source, report.summary, report.hdr);
    if (source->hasVideo()) {
        if (!report.description)
            return reportError({source->problem() ? source->problem()->code : kExitTruncated,
                                format("%s: no parameter sets were found for the %s stream", source->name().c_str(),
                                       codecWords(report.codec))});
        collectHdrMetadata(report.description.get(), report.codec, report.hdr);
        report.videoFormat = describeVideoFormat(report.description.get(), report.codec, report.summary);
        report.timing = videoTiming(report.summary, *source);
        report.details = videoDetails(*source);
    }
    report.bridge = bridgeSampleDescriptions(options.file, *source, report.description.get());

    if (options.json)
        writeProbeJson(report);
    else
        printProbeText(report);
    fflush(stdout);
    if (source->problem()) return reportError(*source->problem());
    return kExitOK;
}

}  // namespace sorvel::tool
