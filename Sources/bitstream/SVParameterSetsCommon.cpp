// SPDX-License-Identifier: Apache-2.0
// Syntax the H.264 and HEVC sequence parameter sets write the same way.
#include <Sorvel/SVNALUnit.h>

#include "bitstream/SVParameterSetsInternal.h"

namespace sorvel {

std::vector<uint8_t> SVUnescapeRBSP(const uint8_t *data, size_t size) {
    std::vector<uint8_t> out(size);
    out.resize(_SVUnemulateNALData(data, size, out.data()));
    return out;
}

void SVReadVUIPictureFields(SVBitReader &reader, SVVideoUsability &vui) {
    if (reader.bit()) {  // aspect_ratio_info_present_flag
        vui.aspectRatioIdc = static_cast<int>(reader.bits(8));
        if (vui.aspectRatioIdc == 255) {
            vui.sarWidth = reader.bits(16);
            vui.sarHeight = reader.bits(16);
        }
    }
    if (reader.bit()) reader.bit();  // overscan_appropriate_flag
    if (reader.bit()) {
        vui.videoSignalTypePresent = true;
        reader.bits(3);  // video_format
        vui.fullRange = reader.bit() != 0;
        if (reader.bit()) {
            vui.colourPrimaries = static_cast<int>(reader.bits(8));
            vui.transferCharacteristics = static_cast<int>(reader.bits(8));
            vui.matrixCoefficients = static_cast<int>(reader.bits(8));
        }
    }
    if (reader.bit()) {
        vui.chromaLocTop = static_cast<int>(reader.ue(5));
        vui.chromaLocBottom = static_cast<int>(reader.ue(5));
    }
}

SVCropWindow SVReadCropWindow(SVBitReader &reader, uint64_t unitX, uint64_t unitY) {
    SVCropWindow crop;
    if (!reader.bit()) return crop;
    const uint32_t left = reader.ue();
    const uint32_t right = reader.ue();
    const uint32_t top = reader.ue();
    const uint32_t bottom = reader.ue();
    crop.x = unitX * (uint64_t{left} + right);
    crop.y = unitY * (uint64_t{top} + bottom);
    return crop;
}

}  // namespace sorvel
