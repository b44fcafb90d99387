/* SPDX-License-Identifier: Apache-2.0 */
// HDR metadata carried in a stream's SEI: the mastering display colour
// volume (payload type 137) and the content light level (144), read from
// the samples' own SEI units in H.264 and HEVC.
#ifndef SORVEL_TOOLS_SORVEL_HDRMETADATA_H
#define SORVEL_TOOLS_SORVEL_HDRMETADATA_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "Tool.h"

namespace sorvel::tool {

class JsonWriter;

struct MasteringDisplay {
    // Chromaticities in units of 0.00002, as the SEI codes them; the SEI
    // lists the primaries in the order green, blue, red.
    uint16_t redX = 0, redY = 0, greenX = 0, greenY = 0, blueX = 0, blueY = 0;
    uint16_t whiteX = 0, whiteY = 0;
    uint32_t maxLuminance = 0, minLuminance = 0;  // units of 0.0001 cd/m2
};

struct ContentLightLevel {
    uint16_t maxCLL = 0, maxFALL = 0;  // cd/m2
};

struct HdrMetadata {
    bool haveMastering = false, haveLightLevel = false;
    MasteringDisplay mastering;
    ContentLightLevel lightLevel;
    bool complete() const { return haveMastering && haveLightLevel; }
};

// Reads the SEI units of one sample (units prefixed by `headerLength`-byte
// lengths) and keeps the first mastering display and light level values
// found.  Messages cut short, or units of other types, are passed over.
void collectHdrMetadata(const uint8_t *sample, size_t size, FourCharCode codec, int headerLength,
                        HdrMetadata &metadata);
// The same for the samples of one sample buffer.
void collectHdrMetadata(SVSampleBufferRef buffer, FourCharCode codec, int headerLength, HdrMetadata &metadata);
// The same for the SEI units an HEVC description keeps among its parameter
// sets (an hvcC's arrays): what the samples do not say, the description may.
void collectHdrMetadata(SVFormatDescriptionRef description, FourCharCode codec, HdrMetadata &metadata);

// "mastering_display" and "content_light_level" members, each null when
// the stream does not carry it.
void writeHdrMetadata(JsonWriter &json, const HdrMetadata &metadata);
// The Mastering and Light level lines of probe's text; none for what is absent.
void printHdrMetadata(const HdrMetadata &metadata);

// A chromaticity or luminance with every digit its unit has: "0.68000"
// for 34000 in 0.00002 units, "0.0050" for 50 in 0.0001 units.
std::string chromaticityText(uint16_t value);
std::string luminanceText(uint32_t value);

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_HDRMETADATA_H
