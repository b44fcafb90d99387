// SPDX-License-Identifier: Apache-2.0
// HEVC video/sequence parameter-set parsing and the hvcC record.
#include <algorithm>

#include "bitstream/SVParameterSetsInternal.h"

namespace sorvel {

namespace {

constexpr unsigned kVPS = 32, kSPS = 33, kPPS = 34, kSEIPrefix = 39, kSEISuffix = 40;

unsigned hevcType(const uint8_t *nal) {
    return (nal[0] >> 1) & 0x3F;
}

// profile_tier_level(1, maxSubLayersMinus1); fills the general fields.
void parseProfileTierLevel(SVBitReader &reader, uint32_t maxSubLayersMinus1, SVHEVCSPS *sps) {
    const uint32_t space = reader.bits(2);
    const uint32_t tier = reader.bit();
    const uint32_t profile = reader.bits(5);
    const uint32_t compatibility = reader.bits(32);
    const uint64_t constraints = (uint64_t{reader.bits(16)} << 32) | reader.bits(32);
    const uint32_t level = reader.bits(8);
    if (sps) {
        sps->generalProfileSpace = static_cast<uint8_t>(space);
        sps->generalTier = static_cast<uint8_t>(tier);
        sps->generalProfileIdc = static_cast<uint8_t>(profile);
        sps->generalProfileCompatibility = compatibility;
        sps->generalConstraintFlags = constraints;
        sps->generalLevelIdc = static_cast<uint8_t>(level);
    }
    bool profilePresent[8] = {}, levelPresent[8] = {};
    for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
        profilePresent[i] = reader.bit() != 0;
        levelPresent[i] = reader.bit() != 0;
    }
    if (maxSubLayersMinus1 > 0)
        for (uint32_t i = maxSubLayersMinus1; i < 8; ++i) reader.bits(2);  // reserved_zero_2bits
    for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
        if (profilePresent[i]) reader.skip(88);
        if (levelPresent[i]) reader.skip(8);
    }
}

void skipScalingListData(SVBitReader &reader) {
    for (unsigned sizeId = 0; sizeId < 4 && !reader.failed(); ++sizeId) {
        for (unsigned matrixId = 0; matrixId < 6; matrixId += sizeId == 3 ? 3 : 1) {
            if (!reader.bit()) {
                reader.ue(matrixId / (sizeId == 3 ? 3 : 1));  // scaling_list_pred_matrix_id_delta
            } else {
                const unsigned coefficients = std::min(64u, 1u << (4 + (sizeId << 1)));
                if (sizeId > 1) reader.se(-7, 247);  // scaling_list_dc_coef_minus8
                for (unsigned i = 0; i < coefficients && !reader.failed(); ++i) reader.se(-128, 127);
            }
        }
    }
}

// st_ref_pic_set(index) inside an SPS; numDeltaPocs holds the earlier sets'.
void parseShortTermRefPicSet(SVBitReader &reader, uint32_t index, uint32_t *numDeltaPocs) {
    if (index != 0 && reader.bit()) {  // inter_ref_pic_set_prediction_flag
        reader.bit();                  // delta_rps_sign
        reader.ue(32767);              // abs_delta_rps_minus1
        const uint32_t reference = index - 1;
        uint32_t count = 0;
        for (uint32_t j = 0; j <= numDeltaPocs[reference] && !reader.failed(); ++j) {
            const bool used = reader.bit() != 0;
            const bool useDelta = used ? true : reader.bit() != 0;
            if (used || useDelta) ++count;
        }
        if (count > 16) reader.fail();
        numDeltaPocs[index] = count;
        return;
    }
    const uint32_t negative = reader.ue(16);
    const uint32_t positive = reader.ue(16 - std::min(negative, 16u));
    for (uint32_t i = 0; i < negative + positive && !reader.failed(); ++i) {
        reader.ue(32767);  // delta_poc_s0/s1_minus1
        reader.bit();      // used_by_curr_pic_s0/s1_flag
    }
    numDeltaPocs[index] = negative + positive;
}

void parseHEVCVUI(SVBitReader &reader, SVVideoUsability &vui) {
    SVReadVUIPictureFields(reader, vui);
    reader.bit();  // neutral_chroma_indication_flag
    vui.fieldSeq = reader.bit() != 0;
    // Frame-field info, default display window, timing and restrictions
    // follow; nothing of them is used.
}

// sps_max_sub_layers_minus1's ordering info, then the coding and transform
// block sizes; none is kept.
bool skipHEVCBlockFields(SVBitReader &reader, uint32_t maxSubLayersMinus1, const char *&why) {
    const bool orderingInfo = reader.bit() != 0;
    for (uint32_t i = orderingInfo ? 0 : maxSubLayersMinus1; i <= maxSubLayersMinus1; ++i) {
        reader.ue(16);  // sps_max_dec_pic_buffering_minus1
        reader.ue(16);  // sps_max_num_reorder_pics
        reader.ue();    // sps_max_latency_increase_plus1
    }
    reader.ue(3);  // log2_min_luma_coding_block_size_minus3
    reader.ue(3);  // log2_diff_max_min_luma_coding_block_size
    reader.ue(3);  // log2_min_luma_transform_block_size_minus2
    reader.ue(3);  // log2_diff_max_min_luma_transform_block_size
    reader.ue(4);  // max_transform_hierarchy_depth_inter
    reader.ue(4);  // max_transform_hierarchy_depth_intra
    if (reader.failed()) {
        why = "bad bit depth, ordering or block sizes";
        return false;
    }
    return true;
}

// Scaling lists, AMP, SAO and PCM; none is kept.
void skipHEVCCodingTools(SVBitReader &reader) {
    if (reader.bit() && reader.bit()) skipScalingListData(reader);
    reader.bit();        // amp_enabled_flag
    reader.bit();        // sample_adaptive_offset_enabled_flag
    if (reader.bit()) {  // pcm_enabled_flag
        reader.bits(8);  // pcm sample bit depths
        reader.ue(2);    // log2_min_pcm_luma_coding_block_size_minus3
        reader.ue(2);    // log2_diff_max_min_pcm_luma_coding_block_size
        reader.bit();    // pcm_loop_filter_disabled_flag
    }
}

// The short- and long-term reference picture sets, through
// strong_intra_smoothing_enabled_flag.
bool skipHEVCReferencePictureSets(SVBitReader &reader, uint32_t log2MaxPocLsb, const char *&why) {
    const uint32_t shortTermSets = reader.ue(64);
    if (reader.failed()) {
        why = "bad scaling list, PCM or short-term reference sets";
        return false;
    }
    uint32_t numDeltaPocs[64] = {};
    for (uint32_t i = 0; i < shortTermSets && !reader.failed(); ++i) parseShortTermRefPicSet(reader, i, numDeltaPocs);
    if (reader.bit()) {  // long_term_ref_pics_present_flag
        const uint32_t longTerm = reader.ue(32);
        for (uint32_t i = 0; i < longTerm && !reader.failed(); ++i) reader.skip(log2MaxPocLsb + 1);
    }
    reader.bit();  // sps_temporal_mvp_enabled_flag
    reader.bit();  // strong_intra_smoothing_enabled_flag
    if (reader.failed()) {
        why = "bad reference picture sets";
        return false;
    }
    return true;
}

}  // namespace

bool SVCheckHEVCVPS(const uint8_t *nal, size_t size, const char *&why) {
    if (nal == nullptr || size < 6 || hevcType(nal) != kVPS) {
        why = "not a video parameter set";
        return false;
    }
    const std::vector<uint8_t> rbsp = SVUnescapeRBSP(nal + 2, size - 2);
    SVBitReader reader(rbsp.data(), rbsp.size());
    reader.bits(4);  // vps_video_parameter_set_id
    reader.bits(2);  // vps_base_layer_internal_flag, vps_base_layer_available_flag
    reader.bits(6);  // vps_max_layers_minus1
    const uint32_t maxSubLayersMinus1 = reader.bits(3);
    reader.bit();
    if (reader.bits(16) != 0xFFFF || maxSubLayersMinus1 > 6) {
        why = "bad video parameter set header";
        return false;
    }
    parseProfileTierLevel(reader, maxSubLayersMinus1, nullptr);
    if (reader.failed()) {
        why = "truncated video parameter set";
        return false;
    }
    return true;
}

bool SVParseHEVCSPS(const uint8_t *nal, size_t size, SVHEVCSPS &sps, const char *&why) {
    sps = SVHEVCSPS{};
    if (nal == nullptr || size < 4 || hevcType(nal) != kSPS) {
        why = "not a sequence parameter set";
        return false;
    }
    const std::vector<uint8_t> rbsp = SVUnescapeRBSP(nal + 2, size - 2);
    SVBitReader reader(rbsp.data(), rbsp.size());
    reader.bits(4);  // sps_video_parameter_set_id
    sps.maxSubLayersMinus1 = reader.bits(3);
    sps.temporalIdNesting = reader.bit() != 0;
    if (sps.maxSubLayersMinus1 > 6) {
        why = "bad sps_max_sub_layers_minus1";
        return false;
    }
    parseProfileTierLevel(reader, sps.maxSubLayersMinus1, &sps);
    reader.ue(15);  // sps_seq_parameter_set_id
    sps.chromaFormatIdc = reader.ue(3);
    if (sps.chromaFormatIdc == 3) reader.bit();  // separate_colour_plane_flag
    // Bounded so that every derived size fits a signed 32-bit value.
    const uint32_t width = reader.ue(65535);
    const uint32_t height = reader.ue(65535);
    if (reader.failed() || width == 0 || height == 0) {
        why = "bad profile, chroma format or picture size";
        return false;
    }
    sps.codedWidth = static_cast<int32_t>(width);
    sps.codedHeight = static_cast<int32_t>(height);
    const uint64_t subWidth = sps.chromaFormatIdc == 1 || sps.chromaFormatIdc == 2 ? 2 : 1;
    const uint64_t subHeight = sps.chromaFormatIdc == 1 ? 2 : 1;
    const SVCropWindow crop = SVReadCropWindow(reader, subWidth, subHeight);
    if (reader.failed() || crop.x >= width || crop.y >= height) {
        why = "bad conformance window";
        return false;
    }
    sps.width = static_cast<int32_t>(width - crop.x);
    sps.height = static_cast<int32_t>(height - crop.y);
    sps.bitDepthLumaMinus8 = reader.ue(8);
    sps.bitDepthChromaMinus8 = reader.ue(8);
    const uint32_t log2MaxPocLsb = reader.ue(12) + 4;
    if (!skipHEVCBlockFields(reader, sps.maxSubLayersMinus1, why)) return false;
    skipHEVCCodingTools(reader);
    if (!skipHEVCReferencePictureSets(reader, log2MaxPocLsb, why)) return false;
    if (reader.bit()) parseHEVCVUI(reader, sps.vui);
    if (reader.failed()) {
        why = "bad VUI parameters";
        return false;
    }
    return true;
}

CFDataRef SVCreateHEVCDecoderConfigurationRecord(const SVHEVCSPS &sps, const uint8_t *const *sets, const size_t *sizes,
                                                 size_t count, int nalUnitHeaderLength) {
    std::vector<uint8_t> out;
    out.push_back(1);
    out.push_back(static_cast<uint8_t>(sps.generalProfileSpace << 6 | sps.generalTier << 5 | sps.generalProfileIdc));
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(sps.generalProfileCompatibility >> shift));
    for (int shift = 40; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(sps.generalConstraintFlags >> shift));
    out.push_back(sps.generalLevelIdc);
    out.push_back(static_cast<uint8_t>(0xF0 | (sps.minSpatialSegmentationIdc >> 8)));
    out.push_back(static_cast<uint8_t>(sps.minSpatialSegmentationIdc));
    out.push_back(0xFC);  // parallelism type unknown
    out.push_back(static_cast<uint8_t>(0xFC | sps.chromaFormatIdc));
    out.push_back(static_cast<uint8_t>(0xF8 | sps.bitDepthLumaMinus8));
    out.push_back(static_cast<uint8_t>(0xF8 | sps.bitDepthChromaMinus8));
    out.push_back(0);  // average frame rate unknown
    out.push_back(0);
    out.push_back(static_cast<uint8_t>((sps.maxSubLayersMinus1 + 1) << 3 | (sps.temporalIdNesting ? 4 : 0) |
                                       (nalUnitHeaderLength - 1)));
    const unsigned order[] = {kVPS, kSPS, kPPS, kSEIPrefix, kSEISuffix};
    const size_t arraysAt = out.size();
    out.push_back(0);
    for (unsigned type : order) {
        const size_t units = static_cast<size_t>(
            std::count_if(sets, sets + count, [&](const uint8_t *set) { return hevcType(set) == type; }));
        if (units == 0) continue;
        ++out[arraysAt];
        out.push_back(static_cast<uint8_t>(0x80 | type));  // array_completeness: all units are in the record
        out.push_back(static_cast<uint8_t>(units >> 8));
        out.push_back(static_cast<uint8_t>(units));
        for (size_t i = 0; i < count; ++i) {
            if (hevcType(sets[i]) != type) continue;
            out.push_back(static_cast<uint8_t>(sizes[i] >> 8));
            out.push_back(static_cast<uint8_t>(sizes[i]));
            out.insert(out.end(), sets[i], sets[i] + sizes[i]);
        }
    }
    return CFDataCreate(kCFAllocatorDefault, out.data(), static_cast<CFIndex>(out.size()));
}

}  // namespace sorvel
