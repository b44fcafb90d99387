// SPDX-License-Identifier: Apache-2.0
#include "SampleDescriptionProbe.h"

#include <CoreVideo/CoreVideo.h>
#include <Sorvel/SVSampleDescription.h>

#include <algorithm>
#include <cmath>

#include "EmbeddedStream.h"
#include "SampleEntries.h"

namespace sorvel::tool {
namespace {

CFTypeRef extension(SVFormatDescriptionRef desc, CFStringRef key) {
    return SVFormatDescriptionGetExtension(desc, key);
}

CFStringRef stringExtension(SVFormatDescriptionRef desc, CFStringRef key) {
    CFTypeRef value = extension(desc, key);
    return value && CFGetTypeID(value) == CFStringGetTypeID() ? static_cast<CFStringRef>(value) : nullptr;
}

bool integerValue(CFTypeRef value, long long &out) {
    if (!value || CFGetTypeID(value) != CFNumberGetTypeID()) return false;
    int64_t v = 0;
    CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberSInt64Type, &v);
    out = v;
    return true;
}

// "h:v", or "" without a ratio.
std::string aspectText(SVFormatDescriptionRef desc) {
    CFTypeRef value = extension(desc, kCVImageBufferPixelAspectRatioKey);
    if (!value || CFGetTypeID(value) != CFDictionaryGetTypeID()) return "";
    auto dict = static_cast<CFDictionaryRef>(value);
    long long h = 0, v = 0;
    if (!integerValue(CFDictionaryGetValue(dict, kCVImageBufferPixelAspectRatioHorizontalSpacingKey), h) ||
        !integerValue(CFDictionaryGetValue(dict, kCVImageBufferPixelAspectRatioVerticalSpacingKey), v))
        return "";
    return format("%lld:%lld", h, v);
}

// A clean-aperture Rational ("n/d") as the entry stored it.
std::string rationalText(CFDictionaryRef clap, CFStringRef key) {
    CFTypeRef value = CFDictionaryGetValue(clap, key);
    if (!value || CFGetTypeID(value) != CFArrayGetTypeID() || CFArrayGetCount(static_cast<CFArrayRef>(value)) != 2)
        return "";
    long long n = 0, d = 0;
    if (!integerValue(CFArrayGetValueAtIndex(static_cast<CFArrayRef>(value), 0), n) ||
        !integerValue(CFArrayGetValueAtIndex(static_cast<CFArrayRef>(value), 1), d))
        return "";
    return format("%lld/%lld", n, d);
}

std::vector<std::string> atomCodes(SVFormatDescriptionRef desc) {
    std::vector<std::string> codes;
    CFTypeRef atoms = extension(desc, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms);
    if (!atoms || CFGetTypeID(atoms) != CFDictionaryGetTypeID()) return codes;
    auto dict = static_cast<CFDictionaryRef>(atoms);
    std::vector<const void *> keys(static_cast<size_t>(CFDictionaryGetCount(dict)));
    CFDictionaryGetKeysAndValues(dict, keys.data(), nullptr);
    for (const void *key : keys) {
        char text[16] = {};
        if (CFStringGetCString(static_cast<CFStringRef>(key), text, sizeof text, kCFStringEncodingISOLatin1))
            codes.push_back(text);
    }
    std::sort(codes.begin(), codes.end());
    return codes;
}

bool sameValue(CFTypeRef a, CFTypeRef b) {
    return a == b || (a && b && CFEqual(a, b));
}

std::string valueText(CFTypeRef value) {
    if (!value) return "none";
    if (CFGetTypeID(value) == CFStringGetTypeID()) {
        char text[128] = {};
        CFStringGetCString(static_cast<CFStringRef>(value), text, sizeof text, kCFStringEncodingUTF8);
        return text;
    }
    return "a value";
}

}  // namespace

std::map<int, BridgeTrack> describeSampleEntries(const std::string &path, const std::string &containerName,
                                                 std::vector<std::string> &warnings) {
    std::map<int, BridgeTrack> result;
    if (containerName.find("mov") == std::string::npos && containerName.find("mp4") == std::string::npos) return result;
    std::vector<sorvel_tool::TrackSampleEntries> tracks;
    std::string error;
    size_t embeddedSize = 0;
    const uint8_t *embedded = path.empty() ? embeddedStream(embeddedSize) : nullptr;
    if (!(embedded ? sorvel_tool::ReadSampleEntriesFromMemory(embedded, embeddedSize, tracks, error)
                   : sorvel_tool::ReadSampleEntries(path, tracks, error))) {
        warnings.push_back("sample descriptions not read: " + error);
        return result;
    }
    for (size_t i = 0; i < tracks.size(); ++i) {
        const auto &track = tracks[i];
        if (track.entries.empty() || (track.handler != kSVMediaType_Video && track.handler != kSVMediaType_Audio))
            continue;
        BridgeTrack bridged;
        bridged.handler = track.handler;
        const std::vector<uint8_t> &entry = track.entries[0];
        const OSStatus status = SVSampleDescriptionCreateFormatDescription(
            nullptr, track.handler, entry.data(), entry.size(), nullptr, bridged.description.out());
        if (status != 0) {
            bridged.failure = format("the bridge refused the sample description (%d)", int(status));
            warnings.push_back(format("stream %d: %s", int(i), bridged.failure.c_str()));
        }
        result[int(i)] = std::move(bridged);
    }
    return result;
}

void crossCheckSampleDescription(const BridgeTrack &track, SVFormatDescriptionRef fromDemuxer, const std::string &what,
                                 std::vector<std::string> &warnings) {
    SVFormatDescriptionRef bridged = track.description.get();
    if (!bridged || !fromDemuxer) return;
    auto mismatch = [&](const char *field, const std::string &ours, const std::string &theirs) {
        warnings.push_back(format("%s: the sample description says %s %s, libavformat's stream %s", what.c_str(), field,
                                  ours.c_str(), theirs.c_str()));
    };
    if (track.handler == kSVMediaType_Video) {
        const SVVideoDimensions a = SVVideoFormatDescriptionGetDimensions(bridged);
        const SVVideoDimensions b = SVVideoFormatDescriptionGetDimensions(fromDemuxer);
        if (a.width != b.width || a.height != b.height)
            mismatch("dimensions", format("%dx%d", a.width, a.height), format("%dx%d", b.width, b.height));
        const std::string ourAspect = aspectText(bridged), theirAspect = aspectText(fromDemuxer);
        // a missing ratio is square
        if ((ourAspect.empty() ? "1:1" : ourAspect) != (theirAspect.empty() ? "1:1" : theirAspect))
            mismatch("pixel aspect ratio", ourAspect.empty() ? "1:1" : ourAspect,
                     theirAspect.empty() ? "1:1" : theirAspect);
        for (CFStringRef key :
             {kCVImageBufferColorPrimariesKey, kCVImageBufferTransferFunctionKey, kCVImageBufferYCbCrMatrixKey}) {
            CFTypeRef ours = extension(bridged, key), theirs = extension(fromDemuxer, key);
            if (!sameValue(ours, theirs)) {
                const char *name = key == kCVImageBufferColorPrimariesKey     ? "colour primaries"
                                   : key == kCVImageBufferTransferFunctionKey ? "transfer function"
                                                                              : "matrix";
                mismatch(name, valueText(ours), valueText(theirs));
            }
        }
    } else {
        const AudioStreamBasicDescription *a = SVAudioFormatDescriptionGetStreamBasicDescription(bridged);
        const AudioStreamBasicDescription *b = SVAudioFormatDescriptionGetStreamBasicDescription(fromDemuxer);
        if (!a || !b) return;
        if (a->mFormatID != b->mFormatID)
            mismatch("format", "'" + fourCC(a->mFormatID) + "'", "'" + fourCC(b->mFormatID) + "'");
        if (std::fabs(a->mSampleRate - b->mSampleRate) > 0.5)
            mismatch("sample rate", format("%g", a->mSampleRate), format("%g", b->mSampleRate));
        if (a->mChannelsPerFrame != b->mChannelsPerFrame)
            mismatch("channel count", format("%u", a->mChannelsPerFrame), format("%u", b->mChannelsPerFrame));
    }
}

void writeSampleDescriptionJson(JsonWriter &json, const BridgeTrack &track) {
    json.beginObject("sample_description");
    SVFormatDescriptionRef desc = track.description.get();
    if (!desc) {
        json.string("error", track.failure);
        json.endObject();
        return;
    }
    json.string("format", fourCC(SVFormatDescriptionGetMediaSubType(desc)));
    json.string("flavor",
                extension(desc, kSVFormatDescriptionExtension_VerbatimSampleDescription) ? "quicktime" : "iso");
    json.beginArray("atoms");
    for (const std::string &code : atomCodes(desc)) json.string(nullptr, code);
    json.endArray();
    if (track.handler == kSVMediaType_Video) {
        json.integer("color_primaries_code", SVColorPrimariesGetIntegerCodePointForString(
                                                 stringExtension(desc, kCVImageBufferColorPrimariesKey)));
        json.integer("transfer_function_code", SVTransferFunctionGetIntegerCodePointForString(
                                                   stringExtension(desc, kCVImageBufferTransferFunctionKey)));
        json.integer("ycbcr_matrix_code",
                     SVYCbCrMatrixGetIntegerCodePointForString(stringExtension(desc, kCVImageBufferYCbCrMatrixKey)));
        CFTypeRef range = extension(desc, kSVFormatDescriptionExtension_FullRangeVideo);
        if (range && CFGetTypeID(range) == CFBooleanGetTypeID())
            json.boolean("full_range", CFBooleanGetValue(static_cast<CFBooleanRef>(range)));
        else
            json.null("full_range");
        const std::string aspect = aspectText(desc);
        if (aspect.empty())
            json.null("pixel_aspect_ratio");
        else
            json.string("pixel_aspect_ratio", aspect);
        CFTypeRef clap = extension(desc, kCVImageBufferCleanApertureKey);
        if (clap && CFGetTypeID(clap) == CFDictionaryGetTypeID()) {
            auto dict = static_cast<CFDictionaryRef>(clap);
            json.beginObject("clean_aperture");
            json.string("width", rationalText(dict, kSVFormatDescriptionKey_CleanApertureWidthRational));
            json.string("height", rationalText(dict, kSVFormatDescriptionKey_CleanApertureHeightRational));
            json.string("horizontal_offset",
                        rationalText(dict, kSVFormatDescriptionKey_CleanApertureHorizontalOffsetRational));
            json.string("vertical_offset",
                        rationalText(dict, kSVFormatDescriptionKey_CleanApertureVerticalOffsetRational));
            json.endObject();
        } else {
            json.null("clean_aperture");
        }
        long long fields = 0;
        if (integerValue(extension(desc, kCVImageBufferFieldCountKey), fields))
            json.integer("field_count", fields);
        else
            json.null("field_count");
    } else if (const AudioStreamBasicDescription *asbd = SVAudioFormatDescriptionGetStreamBasicDescription(desc)) {
        json.string("format_id", fourCC(asbd->mFormatID));
        json.number("sample_rate", asbd->mSampleRate);
        json.integer("channels", asbd->mChannelsPerFrame);
    }
    json.endObject();
}

std::string sampleDescriptionLine(const BridgeTrack &track) {
    SVFormatDescriptionRef desc = track.description.get();
    if (!desc) return track.failure;
    std::string line =
        format("'%s' (%s)", fourCC(SVFormatDescriptionGetMediaSubType(desc)).c_str(),
               extension(desc, kSVFormatDescriptionExtension_VerbatimSampleDescription) ? "QuickTime" : "ISO");
    const std::vector<std::string> codes = atomCodes(desc);
    if (!codes.empty()) {
        line += ", atoms";
        for (const std::string &code : codes) line += " " + code;
    }
    if (track.handler == kSVMediaType_Video)
        line += format(
            ", colour %d/%d/%d",
            SVColorPrimariesGetIntegerCodePointForString(stringExtension(desc, kCVImageBufferColorPrimariesKey)),
            SVTransferFunctionGetIntegerCodePointForString(stringExtension(desc, kCVImageBufferTransferFunctionKey)),
            SVYCbCrMatrixGetIntegerCodePointForString(stringExtension(desc, kCVImageBufferYCbCrMatrixKey)));
    return line;
}

}  // namespace sorvel::tool
