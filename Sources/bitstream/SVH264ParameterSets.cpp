// SPDX-License-Identifier: Apache-2.0
// H.264 sequence-parameter-set parsing and the avcC record.
#include <algorithm>

#include "bitstream/SVParameterSetsInternal.h"

namespace sorvel {

namespace {

bool isHighProfile(uint32_t profileIdc) {
    switch (profileIdc) {
        case 100:
        case 110:
        case 122:
        case 244:
        case 44:
        case 83:
        case 86:
        case 118:
        case 128:
        case 138:
        case 139:
        case 134:
        case 135:
            return true;
        default:
            return false;
    }
}

void skipScalingList(SVBitReader &reader, int size) {
    int32_t last = 8, next = 8;
    for (int j = 0; j < size && !reader.failed(); ++j) {
        if (next != 0) {
            const int32_t delta = reader.se(-128, 127);
            next = (last + delta + 256) % 256;
        }
        last = next == 0 ? last : next;
    }
}

// What a picture-timing SEI holds, which follows the picture fields of the
// VUI.  Its parse works on a copy so that a damaged tail never fails an SPS
// whose earlier fields are fine.
void readH264PictureTimingFields(const SVBitReader &reader, SVVideoUsability &vui) {
    SVBitReader tail = reader;
    if (tail.bit()) tail.skip(65);  // num_units_in_tick, time_scale, fixed_frame_rate_flag
    bool delays = false;
    uint32_t cpbLength = 24, dpbLength = 24;
    for (int hrd = 0; hrd < 2; ++hrd) {
        if (!tail.bit()) continue;
        delays = true;
        const uint32_t count = tail.ue(31) + 1;
        tail.skip(8);  // bit_rate_scale, cpb_size_scale
        for (uint32_t i = 0; i < count && !tail.failed(); ++i) {
            tail.ue();  // bit_rate_value_minus1
            tail.ue();  // cpb_size_value_minus1
            tail.bit();
        }
        tail.skip(5);  // initial_cpb_removal_delay_length_minus1
        cpbLength = tail.bits(5) + 1;
        dpbLength = tail.bits(5) + 1;
        tail.skip(5);  // time_offset_length
    }
    if (delays) tail.bit();  // low_delay_hrd_flag
    const bool picStruct = tail.bit() != 0;
    if (tail.failed()) return;
    vui.cpbDpbDelaysPresent = delays;
    vui.cpbRemovalDelayLength = cpbLength;
    vui.dpbOutputDelayLength = dpbLength;
    vui.picStructPresent = picStruct;
}

// chroma_format_idc to seq_scaling_matrix_present_flag's lists, present in
// the high profiles only.
bool readH264HighProfileFields(SVBitReader &reader, SVH264SPS &sps, const char *&why) {
    sps.chromaFormatIdc = reader.ue(3);
    if (sps.chromaFormatIdc == 3) sps.separateColourPlane = reader.bit() != 0;
    sps.bitDepthLumaMinus8 = reader.ue(6);
    sps.bitDepthChromaMinus8 = reader.ue(6);
    reader.bit();  // qpprime_y_zero_transform_bypass_flag
    if (reader.failed()) {
        why = "bad chroma format or bit depth";
        return false;
    }
    if (reader.bit()) {
        const int lists = sps.chromaFormatIdc != 3 ? 8 : 12;
        for (int i = 0; i < lists && !reader.failed(); ++i)
            if (reader.bit()) skipScalingList(reader, i < 6 ? 16 : 64);
        if (reader.failed()) {
            why = "bad scaling list";
            return false;
        }
    }
    return true;
}

// The picture-order-count fields after pic_order_cnt_type; none is kept.
void skipPicOrderCountFields(SVBitReader &reader, uint32_t pocType) {
    if (pocType == 0) {
        reader.ue(12);  // log2_max_pic_order_cnt_lsb_minus4
    } else if (pocType == 1) {
        reader.bit();  // delta_pic_order_always_zero_flag
        reader.se();   // offset_for_non_ref_pic
        reader.se();   // offset_for_top_to_bottom_field
        const uint32_t cycle = reader.ue(255);
        for (uint32_t i = 0; i < cycle && !reader.failed(); ++i) reader.se();
    }
}

// frame_cropping: the offsets count in chroma samples (and in field rows
// for field coding) unless there is no chroma.
bool readH264Cropping(SVBitReader &reader, SVH264SPS &sps, const char *&why) {
    const bool chromaAbsent = sps.chromaFormatIdc == 0 || sps.separateColourPlane;
    const uint64_t cropUnitX = chromaAbsent ? 1 : (sps.chromaFormatIdc == 3 ? 1 : 2);
    const uint64_t cropUnitY = (chromaAbsent ? 1 : (sps.chromaFormatIdc == 1 ? 2 : 1)) * (sps.frameMbsOnly ? 1 : 2);
    const SVCropWindow crop = SVReadCropWindow(reader, cropUnitX, cropUnitY);
    if (reader.failed() || crop.x >= static_cast<uint64_t>(sps.codedWidth) ||
        crop.y >= static_cast<uint64_t>(sps.codedHeight)) {
        why = "bad frame cropping";
        return false;
    }
    sps.width = sps.codedWidth - static_cast<int32_t>(crop.x);
    sps.height = sps.codedHeight - static_cast<int32_t>(crop.y);
    return true;
}

}  // namespace

bool SVParseH264SPS(const uint8_t *nal, size_t size, SVH264SPS &sps, const char *&why) {
    sps = SVH264SPS{};
    if (nal == nullptr || size < 4) {
        why = "too short";
        return false;
    }
    if ((nal[0] & 0x1F) != 7) {
        why = "not a sequence parameter set";
        return false;
    }
    const std::vector<uint8_t> rbsp = SVUnescapeRBSP(nal + 1, size - 1);
    SVBitReader reader(rbsp.data(), rbsp.size());
    sps.profileIdc = static_cast<uint8_t>(reader.bits(8));
    sps.constraintFlags = static_cast<uint8_t>(reader.bits(8));
    sps.levelIdc = static_cast<uint8_t>(reader.bits(8));
    reader.ue(31);  // seq_parameter_set_id
    if (reader.failed()) {
        why = "bad seq_parameter_set_id";
        return false;
    }
    if (isHighProfile(sps.profileIdc) && !readH264HighProfileFields(reader, sps, why)) return false;
    sps.log2MaxFrameNum = reader.ue(12) + 4;
    const uint32_t pocType = reader.ue(2);
    if (reader.failed()) {
        why = "bad log2_max_frame_num or pic_order_cnt_type";
        return false;
    }
    skipPicOrderCountFields(reader, pocType);
    reader.ue(32);  // max_num_ref_frames (legal up to 16; some encoders overstate it)
    reader.bit();   // gaps_in_frame_num_value_allowed_flag
    // Bounded so that every derived size fits a signed 32-bit value.
    const uint32_t widthMbs = reader.ue(8191) + 1;
    const uint32_t heightMapUnits = reader.ue(8191) + 1;
    sps.frameMbsOnly = reader.bit() != 0;
    if (!sps.frameMbsOnly) reader.bit();  // mb_adaptive_frame_field_flag
    reader.bit();                         // direct_8x8_inference_flag
    if (reader.failed()) {
        why = "bad picture size or order fields";
        return false;
    }
    sps.codedWidth = static_cast<int32_t>(widthMbs * 16);
    sps.codedHeight = static_cast<int32_t>(heightMapUnits * 16 * (sps.frameMbsOnly ? 1 : 2));
    if (!readH264Cropping(reader, sps, why)) return false;
    if (reader.bit()) {  // vui_parameters_present_flag
        SVReadVUIPictureFields(reader, sps.vui);
        readH264PictureTimingFields(reader, sps.vui);
    }
    if (reader.failed()) {
        why = "bad VUI parameters";
        return false;
    }
    return true;
}

namespace {

constexpr unsigned kH264NonIDRSlice = 1, kH264IDRSlice = 5, kH264SEI = 6;
constexpr unsigned kSEIPictureTiming = 1;

SVFieldOrder fieldOrderOfPicStruct(uint32_t picStruct) {
    switch (picStruct) {
        case 1:  // a top field
        case 3:  // top, bottom
        case 5:  // top, bottom, top repeated
            return SVFieldOrder::TopFirst;
        case 2:
        case 4:
        case 6:
            return SVFieldOrder::BottomFirst;
        default:
            return SVFieldOrder::Unknown;
    }
}

// The first picture-timing message of an SEI unit (header byte included).
bool picStructOfSEI(const SVH264SPS &sps, const uint8_t *unit, size_t size, SVFieldOrder &order) {
    const std::vector<uint8_t> rbsp = SVUnescapeRBSP(unit + 1, size - 1);
    size_t position = 0;
    while (position + 2 <= rbsp.size() && rbsp[position] != 0x80) {
        uint32_t type = 0, length = 0;
        while (position < rbsp.size() && rbsp[position] == 0xFF) type += rbsp[position++];
        if (position >= rbsp.size()) return false;
        type += rbsp[position++];
        while (position < rbsp.size() && rbsp[position] == 0xFF) length += rbsp[position++];
        if (position >= rbsp.size()) return false;
        length += rbsp[position++];
        if (length > rbsp.size() - position) return false;
        if (type == kSEIPictureTiming) {
            SVBitReader reader(rbsp.data() + position, length);
            if (sps.vui.cpbDpbDelaysPresent) reader.skip(sps.vui.cpbRemovalDelayLength + sps.vui.dpbOutputDelayLength);
            const uint32_t picStruct = reader.bits(4);
            if (reader.failed()) return false;
            order = fieldOrderOfPicStruct(picStruct);
            return true;
        }
        position += length;
    }
    return false;
}

// The parity of a slice that codes a field (header byte included).
SVFieldOrder parityOfSlice(const SVH264SPS &sps, const uint8_t *unit, size_t size) {
    // The fields up to bottom_field_flag take well under 32 bytes.
    const std::vector<uint8_t> rbsp = SVUnescapeRBSP(unit + 1, std::min<size_t>(size - 1, 32));
    SVBitReader reader(rbsp.data(), rbsp.size());
    reader.ue();  // first_mb_in_slice
    reader.ue();  // slice_type
    reader.ue();  // pic_parameter_set_id
    if (sps.separateColourPlane) reader.skip(2);
    reader.skip(sps.log2MaxFrameNum);                                     // frame_num
    if (sps.frameMbsOnly || !reader.bit()) return SVFieldOrder::Unknown;  // field_pic_flag
    const bool bottom = reader.bit() != 0;
    if (reader.failed()) return SVFieldOrder::Unknown;
    return bottom ? SVFieldOrder::BottomFirst : SVFieldOrder::TopFirst;
}

}  // namespace

SVFieldOrder SVH264FieldOrderOfSample(const SVH264SPS &sps, const uint8_t *data, size_t size, int headerLength) {
    if (!data || headerLength < 1 || headerLength > 4) return SVFieldOrder::Unknown;
    size_t position = 0;
    while (size - position > static_cast<size_t>(headerLength)) {
        size_t length = 0;
        for (int i = 0; i < headerLength; ++i) length = (length << 8) | data[position + i];
        position += static_cast<size_t>(headerLength);
        if (length == 0 || length > size - position) break;
        const uint8_t *unit = data + position;
        position += length;
        const unsigned type = unit[0] & 0x1F;
        SVFieldOrder order = SVFieldOrder::Unknown;
        if (type == kH264SEI && sps.vui.picStructPresent && picStructOfSEI(sps, unit, length, order)) return order;
        if (type == kH264NonIDRSlice || type == kH264IDRSlice) return parityOfSlice(sps, unit, length);
    }
    return SVFieldOrder::Unknown;
}

namespace {

void appendU16(std::vector<uint8_t> &out, size_t value) {
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

}  // namespace

CFDataRef SVCreateAVCDecoderConfigurationRecord(const SVH264SPS &sps, const uint8_t *const *sets, const size_t *sizes,
                                                size_t count, int nalUnitHeaderLength) {
    std::vector<uint8_t> out;
    auto appendSets = [&](unsigned type) {
        for (size_t i = 0; i < count; ++i) {
            if ((sets[i][0] & 0x1F) != type) continue;
            appendU16(out, sizes[i]);
            out.insert(out.end(), sets[i], sets[i] + sizes[i]);
        }
    };
    auto countOf = [&](unsigned type) {
        return static_cast<size_t>(
            std::count_if(sets, sets + count, [&](const uint8_t *set) { return (set[0] & 0x1F) == type; }));
    };
    out.push_back(1);
    out.push_back(sps.profileIdc);
    out.push_back(sps.constraintFlags);
    out.push_back(sps.levelIdc);
    out.push_back(static_cast<uint8_t>(0xFC | (nalUnitHeaderLength - 1)));
    out.push_back(static_cast<uint8_t>(0xE0 | countOf(7)));
    appendSets(7);
    out.push_back(static_cast<uint8_t>(countOf(8)));
    appendSets(8);
    switch (sps.profileIdc) {
        case 100:
        case 110:
        case 122:
        case 144:
            out.push_back(static_cast<uint8_t>(0xFC | sps.chromaFormatIdc));
            out.push_back(static_cast<uint8_t>(0xF8 | sps.bitDepthLumaMinus8));
            out.push_back(static_cast<uint8_t>(0xF8 | sps.bitDepthChromaMinus8));
            out.push_back(static_cast<uint8_t>(countOf(13)));
            appendSets(13);
            break;
        default:
            break;
    }
    return CFDataCreate(kCFAllocatorDefault, out.data(), static_cast<CFIndex>(out.size()));
}

}  // namespace sorvel
