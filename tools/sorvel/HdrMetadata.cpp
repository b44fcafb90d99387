// SPDX-License-Identifier: Apache-2.0
#include "HdrMetadata.h"

#include <Sorvel/SVNALUnit.h>

#include <cstdio>
#include <vector>

#include "Json.h"

namespace sorvel::tool {
namespace {

constexpr unsigned kMasteringDisplayPayload = 137, kContentLightLevelPayload = 144;

unsigned read16(const uint8_t *p) {
    return static_cast<unsigned>(p[0]) << 8 | p[1];
}
uint32_t read32(const uint8_t *p) {
    return static_cast<uint32_t>(read16(p)) << 16 | read16(p + 2);
}

// Walks the messages of one SEI payload (emulation prevention removed, NAL
// header skipped).
void readMessages(const uint8_t *p, size_t size, HdrMetadata &metadata) {
    size_t at = 0;
    // A message needs at least a type byte and a size byte; what is left
    // after the last one is the trailing bits (0x80).
    while (at + 2 <= size && !(p[at] == 0x80 && at + 1 == size)) {
        unsigned type = 0, length = 0;
        while (at < size && p[at] == 0xFF) type += 255, ++at;
        if (at >= size) return;
        type += p[at++];
        while (at < size && p[at] == 0xFF) length += 255, ++at;
        if (at >= size) return;
        length += p[at++];
        if (length > size - at) return;  // cut short: nothing after it can be trusted
        const uint8_t *payload = p + at;
        if (type == kMasteringDisplayPayload && length >= 24 && !metadata.haveMastering) {
            MasteringDisplay &m = metadata.mastering;
            m.greenX = static_cast<uint16_t>(read16(payload));
            m.greenY = static_cast<uint16_t>(read16(payload + 2));
            m.blueX = static_cast<uint16_t>(read16(payload + 4));
            m.blueY = static_cast<uint16_t>(read16(payload + 6));
            m.redX = static_cast<uint16_t>(read16(payload + 8));
            m.redY = static_cast<uint16_t>(read16(payload + 10));
            m.whiteX = static_cast<uint16_t>(read16(payload + 12));
            m.whiteY = static_cast<uint16_t>(read16(payload + 14));
            m.maxLuminance = read32(payload + 16);
            m.minLuminance = read32(payload + 20);
            metadata.haveMastering = true;
        } else if (type == kContentLightLevelPayload && length >= 4 && !metadata.haveLightLevel) {
            metadata.lightLevel.maxCLL = static_cast<uint16_t>(read16(payload));
            metadata.lightLevel.maxFALL = static_cast<uint16_t>(read16(payload + 2));
            metadata.haveLightLevel = true;
        }
        at += length;
    }
}

// One NAL unit without its length prefix.
void readUnit(const uint8_t *nal, size_t length, FourCharCode codec, HdrMetadata &metadata) {
    const size_t nalHeader = nalUnitHeaderSize(codec);
    if (length <= nalHeader) return;
    const unsigned type = nalUnitType(codec, nal[0]);
    const bool sei = codec == kSVVideoCodecType_HEVC ? (type == kHEVCNAL_PrefixSEI || type == kHEVCNAL_SuffixSEI)
                                                     : type == kH264NAL_SEI;
    if (!sei) return;
    std::vector<uint8_t> payload(length - nalHeader);
    payload.resize(_SVUnemulateNALData(nal + nalHeader, payload.size(), payload.data()));
    readMessages(payload.data(), payload.size(), metadata);
}

}  // namespace

void collectHdrMetadata(const uint8_t *sample, size_t size, FourCharCode codec, int headerLength,
                        HdrMetadata &metadata) {
    if (!sample || metadata.complete() || headerLength < 1 || headerLength > 4) return;
    HdrMetadata *out = &metadata;
    _SVEnumerateNALUnits(sample, size, headerLength, ^int(const uint8_t *unit, size_t length) {
      if (length > static_cast<size_t>(headerLength))
          readUnit(unit + headerLength, length - static_cast<size_t>(headerLength), codec, *out);
      return 0;
    });
}

void collectHdrMetadata(SVFormatDescriptionRef description, FourCharCode codec, HdrMetadata &metadata) {
    if (!description || metadata.complete() || codec != kSVVideoCodecType_HEVC) return;
    size_t count = 0;
    if (SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(description, 0, nullptr, nullptr, &count, nullptr) != 0)
        return;
    for (size_t i = 0; i < count && !metadata.complete(); ++i) {
        const uint8_t *bytes = nullptr;
        size_t size = 0;
        if (SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(description, i, &bytes, &size, nullptr, nullptr) == 0)
            readUnit(bytes, size, codec, metadata);
    }
}

void collectHdrMetadata(SVSampleBufferRef buffer, FourCharCode codec, int headerLength, HdrMetadata &metadata) {
    if (metadata.complete()) return;
    const uint8_t *bytes = nullptr;
    size_t size = 0;
    if (sampleBytes(buffer, bytes, size)) collectHdrMetadata(bytes, size, codec, headerLength, metadata);
}

std::string chromaticityText(uint16_t value) {
    const unsigned hundredThousandths = value * 2u;
    return format("%u.%05u", hundredThousandths / 100000, hundredThousandths % 100000);
}

std::string luminanceText(uint32_t value) {
    return format("%u.%04u", value / 10000, value % 10000);
}

void writeHdrMetadata(JsonWriter &json, const HdrMetadata &metadata) {
    if (metadata.haveMastering) {
        const MasteringDisplay &m = metadata.mastering;
        json.beginObject("mastering_display");
        json.integer("red_x", m.redX);
        json.integer("red_y", m.redY);
        json.integer("green_x", m.greenX);
        json.integer("green_y", m.greenY);
        json.integer("blue_x", m.blueX);
        json.integer("blue_y", m.blueY);
        json.integer("white_point_x", m.whiteX);
        json.integer("white_point_y", m.whiteY);
        json.integer("max_luminance", m.maxLuminance);
        json.integer("min_luminance", m.minLuminance);
        json.endObject();
    } else {
        json.null("mastering_display");
    }
    if (metadata.haveLightLevel) {
        json.beginObject("content_light_level");
        json.integer("max_cll", metadata.lightLevel.maxCLL);
        json.integer("max_fall", metadata.lightLevel.maxFALL);
        json.endObject();
    } else {
        json.null("content_light_level");
    }
}

void printHdrMetadata(const HdrMetadata &metadata) {
    if (metadata.haveMastering) {
        const MasteringDisplay &m = metadata.mastering;
        printf("  Mastering   R(%s,%s) G(%s,%s) B(%s,%s) WP(%s,%s), luminance %s-%s cd/m2\n",
               chromaticityText(m.redX).c_str(), chromaticityText(m.redY).c_str(), chromaticityText(m.greenX).c_str(),
               chromaticityText(m.greenY).c_str(), chromaticityText(m.blueX).c_str(), chromaticityText(m.blueY).c_str(),
               chromaticityText(m.whiteX).c_str(), chromaticityText(m.whiteY).c_str(),
               luminanceText(m.minLuminance).c_str(), luminanceText(m.maxLuminance).c_str());
    }
    if (metadata.haveLightLevel)
        printf("  Light level MaxCLL %u cd/m2, MaxFALL %u cd/m2\n", metadata.lightLevel.maxCLL,
               metadata.lightLevel.maxFALL);
}

}  // namespace sorvel::tool
