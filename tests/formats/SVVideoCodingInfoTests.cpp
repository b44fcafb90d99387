// SPDX-License-Identifier: Apache-2.0
// SVVideoFormatDescriptionGetCodingInfo on descriptions built from the real
// decoder configuration records, checked against the reference tools'
// summaries and the record's own profile bytes; and the refusals.
#include <Sorvel/SVFormatDescription.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "formats/SVFormatDescriptionInternal.h"
#include "support/LogCapture.h"
#include "support/TestData.h"

namespace {

constexpr FourCharCode kAVC1 = 0x61766331, kHVC1 = 0x68766331;

using sorvel_test::readFile;

// The value of "key" in the "summary" object of an expected/*.json file.
std::string summaryValue(const std::string &json, const std::string &key) {
    size_t at = json.find("\"" + key + "\":", json.find("\"summary\""));
    if (at == std::string::npos) return "";
    at = json.find_first_not_of(" \"", json.find(':', at) + 1);
    return json.substr(at, json.find_first_of("\",\n", at) - at);
}

// A description made from every unit the record carries, in record order.
SVFormatDescriptionRef describeRecord(const std::vector<uint8_t> &r, bool hevc) {
    std::vector<const uint8_t *> sets;
    std::vector<size_t> sizes;
    auto take = [&](size_t &at) {
        sizes.push_back(size_t(r[at] << 8 | r[at + 1]));
        sets.push_back(&r[at + 2]);
        at += 2 + sizes.back();
    };
    SVFormatDescriptionRef desc = nullptr;
    if (hevc) {
        size_t at = 23;
        for (unsigned a = 0; a < r[22]; ++a) {
            unsigned units = r[at + 1] << 8 | r[at + 2];
            for (at += 3; units-- > 0;) take(at);
        }
        EXPECT_EQ(SVVideoFormatDescriptionCreateFromHEVCParameterSets(nullptr, sets.size(), sets.data(), sizes.data(),
                                                                      (r[21] & 3) + 1, nullptr, &desc),
                  0);
    } else {
        size_t at = 6;
        for (unsigned n = r[5] & 0x1F; n-- > 0;) take(at);
        for (unsigned n = r[at++]; n-- > 0;) take(at);
        EXPECT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, sets.size(), sets.data(), sizes.data(),
                                                                      (r[4] & 3) + 1, &desc),
                  0);
    }
    return desc;
}

class CodingInfoOfRealClips : public ::testing::TestWithParam<const char *> {};

TEST_P(CodingInfoOfRealClips, AgreesWithReferenceAndRecord) {
    const std::string clip = GetParam();
    const bool hevc = clip.starts_with("hevc");
    const std::vector<uint8_t> record = readFile("records/" + clip + (hevc ? ".hvcC" : ".avcC"));
    const std::vector<uint8_t> bytes = readFile("expected/" + clip + ".json");
    const std::string json(bytes.begin(), bytes.end());
    ASSERT_GT(record.size(), 23u);
    SVFormatDescriptionRef desc = describeRecord(record, hevc);
    ASSERT_NE(desc, nullptr);
    SVVideoCodingInfo info;
    ASSERT_EQ(SVVideoFormatDescriptionGetCodingInfo(desc, &info), 0);

    const std::string profile = summaryValue(json, "profile");
    const unsigned expectedProfile = hevc ? (profile == "Main"      ? 1
                                             : profile == "Main 10" ? 2
                                                                    : 0)
                                          : (profile == "Constrained Baseline" ? 66
                                             : profile == "Main"               ? 77
                                             : profile == "High"               ? 100
                                             : profile == "High 10"            ? 110
                                                                               : 0);
    EXPECT_EQ(info.codecType, hevc ? kHVC1 : kAVC1);
    EXPECT_EQ(info.profile, expectedProfile) << profile;
    const std::pair<const char *, int64_t> sizes[] = {{"level", info.level},
                                                      {"coded_width", info.codedWidth},
                                                      {"coded_height", info.codedHeight},
                                                      {"display_width", info.width},
                                                      {"display_height", info.height}};
    for (const auto &[key, value] : sizes) EXPECT_EQ(std::to_string(value), summaryValue(json, key)) << key;
    EXPECT_EQ(info.width, SVVideoFormatDescriptionGetDimensions(desc).width);
    EXPECT_EQ(info.height, SVVideoFormatDescriptionGetDimensions(desc).height);
    const uint32_t depth = summaryValue(json, "pix_fmt").find("10le") != std::string::npos ? 10 : 8;
    EXPECT_EQ(info.bitDepthLuma, depth);
    EXPECT_EQ(info.bitDepthChroma, depth);
    EXPECT_EQ(info.chromaFormat, 1u);  // every clip is 4:2:0
    EXPECT_EQ(bool(info.progressive), summaryValue(json, "field_order") == "progressive");
    if (hevc) {
        EXPECT_EQ(info.tier, uint32_t(record[1] >> 5 & 1));
        EXPECT_EQ(info.profile, uint32_t(record[1] & 0x1F));
        EXPECT_EQ(info.profileCompatibility, uint32_t(record[2] << 24 | record[3] << 16 | record[4] << 8 | record[5]));
        EXPECT_TRUE(info.profileCompatibility >> (31 - info.profile) & 1);  // a profile is compatible with itself
        EXPECT_EQ(info.level, record[12]);
        EXPECT_EQ(info.constraintFlags, 0u);
    } else {
        EXPECT_EQ(info.profile, record[1]);
        EXPECT_EQ(info.constraintFlags, record[2]);
        EXPECT_EQ(info.level, record[3]);
        EXPECT_EQ(info.tier, 0u);
        EXPECT_EQ(info.profileCompatibility, 0u);
        // "Constrained" Baseline is Baseline with constraint_set1.
        if (profile == "Constrained Baseline") EXPECT_TRUE(info.constraintFlags & 0x40);
    }
    CFRelease(desc);
}

INSTANTIATE_TEST_SUITE_P(SVVideoFormatDescription, CodingInfoOfRealClips,
                         ::testing::Values("avc_baseline_176x144", "avc_baseline_176x144.len2",
                                           "avc_high10_1280x720_pq", "avc_high_480x270_sar37x20_smpte240m",
                                           "avc_high_642x362_sar40x33_smpte170m", "avc_high_720x576_tff_sar16x11",
                                           "avc_main_1920x1080_bt709", "avc_main_1920x1080_bt709.oob",
                                           "hevc_main10_640x360_hlg_full_chromaloc2", "hevc_main_1920x1080_bt709",
                                           "hevc_main_642x362_sar40x33_smpte170m_hvc1",
                                           "hevc_main_642x362_sar40x33_smpte170m_hvc1.oob"),
                         [](const ::testing::TestParamInfo<const char *> &info) {
                             std::string name = info.param;
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

// A refusal: the status, *infoOut byte for byte as it was, and a log line
// naming the call only where one is due.
void expectRefused(SVFormatDescriptionRef desc, bool logged) {
    sorvel_test::LogCapture log;
    SVVideoCodingInfo info;
    std::memset(&info, 0xA5, sizeof info);
    const SVVideoCodingInfo before = info;
    EXPECT_EQ(SVVideoFormatDescriptionGetCodingInfo(desc, &info), kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(std::memcmp(&info, &before, sizeof info), 0);
    ASSERT_EQ(log.count(), logged ? 1u : 0u);
    if (logged) EXPECT_EQ(log.lines()[0].function, "SVVideoFormatDescriptionGetCodingInfo");
}

TEST(SVVideoCodingInfo, RefusesWhatHasNoSequenceParameterSet) {
    expectRefused(nullptr, false);
    const AudioStreamBasicDescription pcm = {
        48000, kAudioFormatLinearPCM, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked, 4, 1, 4, 2, 16, 0};
    SVFormatDescriptionRef audio = nullptr;
    ASSERT_EQ(SVAudioFormatDescriptionCreate(nullptr, &pcm, 0, nullptr, 0, nullptr, nullptr, &audio), 0);
    expectRefused(audio, false);
    CFRelease(audio);
    // Subtypes that carry H.264/HEVC in other ways, or none, are not asked
    // about; an 'avc1' without parameter sets cannot answer and says so.
    for (FourCharCode subtype : {FourCharCode(0x61766333) /* avc3 */, FourCharCode(0x68657631) /* hev1 */,
                                 FourCharCode(0x32767579) /* 2vuy */, kAVC1, kHVC1}) {
        SVFormatDescriptionRef video = nullptr;
        ASSERT_EQ(SVVideoFormatDescriptionCreate(nullptr, subtype, 640, 480, nullptr, &video), 0);
        expectRefused(video, subtype == kAVC1 || subtype == kHVC1);
        CFRelease(video);
    }
    SVFormatDescriptionRef desc = describeRecord(readFile("records/avc_baseline_176x144.avcC"), false);
    ASSERT_NE(desc, nullptr);
    EXPECT_EQ(SVVideoFormatDescriptionGetCodingInfo(desc, nullptr), kSVFormatDescriptionError_InvalidParameter);
    // An SPS that stops parsing (here cut to three bytes behind the
    // description's back) is reported, not half-read.
    uint32_t &spsSize = sorvel::SVFormatDescriptionMutable(desc)->video.parameterSetSizes[0];
    const uint32_t saved = spsSize;
    spsSize = 3;
    expectRefused(desc, true);
    spsSize = saved;
    CFRelease(desc);
}

// The first SPS in the order given describes the stream, as it gives the
// description its dimensions.
TEST(SVVideoCodingInfo, FirstSequenceParameterSetWins) {
    const std::vector<uint8_t> small = readFile("records/avc_baseline_176x144.avcC");
    const std::vector<uint8_t> large = readFile("records/avc_main_1920x1080_bt709.avcC");
    ASSERT_EQ(small[5] & 0x1F, 1);
    ASSERT_EQ(large[5] & 0x1F, 1);
    const uint8_t *smallSPS = &small[8], *largeSPS = &large[8], *pps = &small[8 + (small[6] << 8 | small[7]) + 3];
    for (bool largeFirst : {false, true}) {
        const uint8_t *sets[] = {pps, largeFirst ? largeSPS : smallSPS, largeFirst ? smallSPS : largeSPS};
        const size_t sizes[] = {size_t(pps[-2] << 8 | pps[-1]), size_t(sets[1][-2] << 8 | sets[1][-1]),
                                size_t(sets[2][-2] << 8 | sets[2][-1])};
        SVFormatDescriptionRef desc = nullptr;
        ASSERT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, 3, sets, sizes, 4, &desc), 0);
        SVVideoCodingInfo info;
        ASSERT_EQ(SVVideoFormatDescriptionGetCodingInfo(desc, &info), 0);
        EXPECT_EQ(info.profile, largeFirst ? 77u : 66u);
        EXPECT_EQ(info.codedHeight, largeFirst ? 1088 : 144);
        EXPECT_EQ(info.height, SVVideoFormatDescriptionGetDimensions(desc).height);
        CFRelease(desc);
    }
}

}  // namespace
