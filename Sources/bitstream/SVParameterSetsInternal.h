/* SPDX-License-Identifier: Apache-2.0 */
// Private to the video format descriptions: the unescaping of H.264/HEVC
// RBSPs, the parsed sequence-parameter-set fields the descriptions need, and
// the builders of the avcC and hvcC decoder configuration records.
#ifndef SORVEL_SOURCES_SVPARAMETERSETSINTERNAL_H
#define SORVEL_SOURCES_SVPARAMETERSETSINTERNAL_H

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "bitstream/SVBitReader.h"
#include "core/SVLog.h"

namespace sorvel {

// Removes emulation-prevention bytes (00 00 03 -> 00 00) from a NAL unit.
std::vector<uint8_t> SVUnescapeRBSP(const uint8_t *data, size_t size);

// The video-usability fields that become extensions.  -1 means absent.
struct SVVideoUsability {
    int aspectRatioIdc = -1;
    uint32_t sarWidth = 0;
    uint32_t sarHeight = 0;
    bool videoSignalTypePresent = false;
    bool fullRange = false;
    int colourPrimaries = -1;
    int transferCharacteristics = -1;
    int matrixCoefficients = -1;
    int chromaLocTop = -1;
    int chromaLocBottom = -1;
    bool fieldSeq = false;  // HEVC field_seq_flag
    // H.264 picture timing: what a picture-timing SEI holds.
    bool cpbDpbDelaysPresent = false;  // an NAL or VCL HRD is present
    uint32_t cpbRemovalDelayLength = 24;
    uint32_t dpbOutputDelayLength = 24;
    bool picStructPresent = false;
};

struct SVH264SPS {
    uint8_t profileIdc = 0;
    uint8_t constraintFlags = 0;
    uint8_t levelIdc = 0;
    uint32_t chromaFormatIdc = 1;
    uint32_t bitDepthLumaMinus8 = 0;
    uint32_t bitDepthChromaMinus8 = 0;
    bool frameMbsOnly = true;
    bool separateColourPlane = false;
    uint32_t log2MaxFrameNum = 4;
    int32_t codedWidth = 0;
    int32_t codedHeight = 0;
    int32_t width = 0;  // after cropping
    int32_t height = 0;
    SVVideoUsability vui;
};

struct SVHEVCSPS {
    // profile_tier_level's general part, as the hvcC record wants it.
    uint8_t generalProfileSpace = 0;
    uint8_t generalTier = 0;
    uint8_t generalProfileIdc = 0;
    uint32_t generalProfileCompatibility = 0;
    uint64_t generalConstraintFlags = 0;  // 48 bits
    uint8_t generalLevelIdc = 0;
    uint32_t maxSubLayersMinus1 = 0;
    bool temporalIdNesting = false;
    uint32_t chromaFormatIdc = 1;
    uint32_t bitDepthLumaMinus8 = 0;
    uint32_t bitDepthChromaMinus8 = 0;
    int32_t codedWidth = 0;
    int32_t codedHeight = 0;
    int32_t width = 0;  // after the conformance window
    int32_t height = 0;
    uint32_t minSpatialSegmentationIdc = 0;
    SVVideoUsability vui;
};

// The start of vui_parameters(), written alike by both codecs: aspect
// ratio, overscan, video signal type and chroma location.
void SVReadVUIPictureFields(SVBitReader &reader, SVVideoUsability &vui);

// The cropped columns and rows of an H.264 frame-cropping or HEVC
// conformance window (its flag and four offsets), in luma samples given the
// offsets' units.  Zero when the flag is clear.
struct SVCropWindow {
    uint64_t x = 0;
    uint64_t y = 0;
};
SVCropWindow SVReadCropWindow(SVBitReader &reader, uint64_t unitX, uint64_t unitY);

// Parse a whole NAL unit (header included).  On failure they return false
// and describe the first problem in `why` (a static string).
bool SVParseH264SPS(const uint8_t *nal, size_t size, SVH264SPS &sps, const char *&why);
bool SVParseHEVCSPS(const uint8_t *nal, size_t size, SVHEVCSPS &sps, const char *&why);
// The temporal order of the fields of an H.264 sample (length-prefixed NAL
// units, `headerLength` bytes each), as the sample states it: pic_struct of
// its first picture-timing SEI, else the parity of its first slice when that
// codes a field.  Unknown for frame pictures without such an SEI and for
// anything that does not parse.
enum class SVFieldOrder { Unknown, TopFirst, BottomFirst };
SVFieldOrder SVH264FieldOrderOfSample(const SVH264SPS &sps, const uint8_t *data, size_t size, int headerLength);
// The VPS is only checked for its fixed fields; nothing in it is used.
bool SVCheckHEVCVPS(const uint8_t *nal, size_t size, const char *&why);

// Records built from the parameter sets, in the order given within each
// array.  NULL when an allocation fails.
CFDataRef SVCreateAVCDecoderConfigurationRecord(const SVH264SPS &sps, const uint8_t *const *sets, const size_t *sizes,
                                                size_t count, int nalUnitHeaderLength);
CFDataRef SVCreateHEVCDecoderConfigurationRecord(const SVHEVCSPS &sps, const uint8_t *const *sets, const size_t *sizes,
                                                 size_t count, int nalUnitHeaderLength);

// The same parser and record builder picked by the SPS type, for code that
// handles both codecs alike.
inline bool SVParseSPS(const uint8_t *nal, size_t size, SVH264SPS &sps, const char *&why) {
    return SVParseH264SPS(nal, size, sps, why);
}
inline bool SVParseSPS(const uint8_t *nal, size_t size, SVHEVCSPS &sps, const char *&why) {
    return SVParseHEVCSPS(nal, size, sps, why);
}
inline CFDataRef SVCreateDecoderConfigurationRecord(const SVH264SPS &sps, const uint8_t *const *sets,
                                                    const size_t *sizes, size_t count, int nalUnitHeaderLength) {
    return SVCreateAVCDecoderConfigurationRecord(sps, sets, sizes, count, nalUnitHeaderLength);
}
inline CFDataRef SVCreateDecoderConfigurationRecord(const SVHEVCSPS &sps, const uint8_t *const *sets,
                                                    const size_t *sizes, size_t count, int nalUnitHeaderLength) {
    return SVCreateHEVCDecoderConfigurationRecord(sps, sets, sizes, count, nalUnitHeaderLength);
}

// Adds the pixel aspect ratio, colour, range, chroma-location and field
// extensions to `extensions`, logging the codes that have no value as
// `function` at `line` of the video module.  chromaFormatIdc gives the
// default chroma location (left for 4:2:0).
void SVAddVideoUsabilityExtensions(CFMutableDictionaryRef extensions, const SVVideoUsability &vui,
                                   uint32_t chromaFormatIdc, bool interlaced, const SVLogSite &site);

}  // namespace sorvel

#endif  // SORVEL_SOURCES_SVPARAMETERSETSINTERNAL_H
