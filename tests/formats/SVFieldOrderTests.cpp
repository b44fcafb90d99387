// SPDX-License-Identifier: Apache-2.0
// The field order an H.264 sample states: pic_struct of a picture-timing SEI
// (read only when the SPS says it is present), else the parity of a slice
// that codes a field; nothing for frames that say nothing, progressive
// streams and bytes that do not parse.
#include <Sorvel/SVFormatDescription.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// An MBAFF SPS made by x264 (frame_mbs_only_flag 0, log2_max_frame_num 4,
// pic_struct_present_flag 1, no HRD) and a progressive one.
const Bytes kInterlacedSPS = {0x67, 0x64, 0x00, 0x15, 0xac, 0xd9, 0x42, 0x9b, 0x60, 0x22, 0x00, 0x00,
                              0x03, 0x00, 0x02, 0x00, 0x00, 0x03, 0x00, 0x64, 0x3e, 0x28, 0x53, 0x2c};
const Bytes kProgressiveSPS = {0x67, 0x64, 0x00, 0x0b, 0xac, 0xd9, 0x42, 0x8d, 0xf9, 0x30, 0x11, 0x00, 0x00,
                               0x03, 0x00, 0x01, 0x00, 0x00, 0x03, 0x00, 0x32, 0x0f, 0x14, 0x29, 0x96};
const Bytes kPPS = {0x68, 0xfb, 0xa3, 0xcb, 0x22, 0xc0};

SVFormatDescriptionRef describe(const Bytes &sps) {
    const uint8_t *sets[] = {sps.data(), kPPS.data()};
    const size_t sizes[] = {sps.size(), kPPS.size()};
    SVFormatDescriptionRef desc = nullptr;
    EXPECT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, 2, sets, sizes, 4, &desc), 0);
    return desc;
}

// A picture-timing SEI whose pic_struct is `picStruct`.
Bytes timingSEI(unsigned picStruct) {
    return {0x06, 0x01, 0x01, static_cast<uint8_t>(picStruct << 4), 0x80};
}

// An IDR I slice header: first_mb 0, slice_type 7, pps 0, frame_num 0
// (4 bits), then field_pic_flag and bottom_field_flag when `field`.
Bytes slice(bool field, bool bottom) {
    std::string bits =
        "1"
        "0001000"
        "1"
        "0000";
    bits += field ? (bottom ? "11" : "10") : "0";
    bits += "1";  // stop bit
    while (bits.size() % 8) bits += "0";
    Bytes unit{0x25};
    for (size_t i = 0; i < bits.size(); i += 8)
        unit.push_back(static_cast<uint8_t>(std::stoi(bits.substr(i, 8), nullptr, 2)));
    return unit;
}

Bytes sample(const std::vector<Bytes> &units) {
    Bytes out;
    for (const Bytes &unit : units) {
        const size_t n = unit.size();
        out.insert(out.end(), {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
        out.insert(out.end(), unit.begin(), unit.end());
    }
    return out;
}

TEST(SVFieldOrder, WhatTheSampleSays) {
    SVFormatDescriptionRef interlaced = describe(kInterlacedSPS);
    ASSERT_NE(interlaced, nullptr);
    // The parameter sets alone claim no order.
    EXPECT_EQ(SVFormatDescriptionGetExtension(interlaced, kCVImageBufferFieldDetailKey), nullptr);
    const CFStringRef top = kCVImageBufferFieldDetailTemporalTopFirst,
                      bottom = kCVImageBufferFieldDetailTemporalBottomFirst;
    const struct {
        const char *name;
        Bytes data;
        CFStringRef expected;
    } cases[] = {
        {"pic_struct 3: top, bottom", sample({timingSEI(3), slice(false, false)}), top},
        {"pic_struct 4: bottom, top", sample({timingSEI(4), slice(false, false)}), bottom},
        {"pic_struct 5: top, bottom, top", sample({timingSEI(5), slice(false, false)}), top},
        {"pic_struct 6: bottom, top, bottom", sample({timingSEI(6), slice(false, false)}), bottom},
        {"pic_struct 1: a top field", sample({timingSEI(1), slice(true, false)}), top},
        {"pic_struct 2: a bottom field", sample({timingSEI(2), slice(true, true)}), bottom},
        {"pic_struct 0: a frame", sample({timingSEI(0), slice(false, false)}), nullptr},
        {"pic_struct 7: frame doubling", sample({timingSEI(7), slice(false, false)}), nullptr},
        {"the SEI wins over a later slice", sample({timingSEI(4), slice(true, false)}), bottom},
        {"bottom field coded first", sample({slice(true, true), slice(true, false)}), bottom},
        {"top field coded first", sample({slice(true, false), slice(true, true)}), top},
        {"a frame without SEI", sample({slice(false, false)}), nullptr},
        {"SEI cut inside its payload", sample({Bytes{0x06, 0x01, 0x05, 0x40}}), nullptr},
        {"only parameter sets", sample({kInterlacedSPS, kPPS}), nullptr},
        {"length prefix past the end", Bytes{0, 0, 0, 9, 0x06, 0x01}, nullptr},
        {"zero length prefix", Bytes{0, 0, 0, 0, 0x25, 0x88}, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(SVVideoFormatDescriptionGetH264FieldDetailOfSample(interlaced, c.data.data(), c.data.size()),
                  c.expected);
    }
    const Bytes bottomFirst = sample({timingSEI(4), slice(false, false)});
    EXPECT_EQ(SVVideoFormatDescriptionGetH264FieldDetailOfSample(interlaced, nullptr, 8), nullptr);
    EXPECT_EQ(SVVideoFormatDescriptionGetH264FieldDetailOfSample(interlaced, bottomFirst.data(), 0), nullptr);
    EXPECT_EQ(SVVideoFormatDescriptionGetH264FieldDetailOfSample(nullptr, bottomFirst.data(), bottomFirst.size()),
              nullptr);
    // A progressive stream has no field order, whatever an SEI says.
    SVFormatDescriptionRef progressive = describe(kProgressiveSPS);
    ASSERT_NE(progressive, nullptr);
    EXPECT_EQ(SVVideoFormatDescriptionGetH264FieldDetailOfSample(progressive, bottomFirst.data(), bottomFirst.size()),
              nullptr);
    CFRelease(progressive);
    CFRelease(interlaced);
}

}  // namespace
