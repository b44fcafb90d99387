// SPDX-License-Identifier: Apache-2.0
// H.264 and HEVC sequence-parameter-set parsing: against the field traces of
// the real streams, and on hand-made sets that reach each syntax branch and
// each range check.
#include <Sorvel/SVFormatDescription.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "bitstream/SVParameterSetsInternal.h"
#include "support/LogCapture.h"
#include "support/TestData.h"

// The parsers are private to the library (its symbols are hidden), so the
// test compiles its own copy of them.
#include "bitstream/SVH264ParameterSets.cpp"
#include "bitstream/SVHEVCParameterSets.cpp"
#include "bitstream/SVParameterSetsCommon.cpp"

namespace {

using sorvel::SVH264SPS;
using sorvel::SVHEVCSPS;

using sorvel_test::readFile;

// First value of "field" in a trace/*.ps.json file (the first SPS comes
// before anything else that has the field), or -1.
long traceValue(const std::string &json, const std::string &field, size_t from = 0) {
    const size_t at = json.find("\"" + field + "\": ", from);
    if (at == std::string::npos) return -1;
    return std::stol(json.substr(at + field.size() + 4));
}

// The first NAL unit of `type` in an Annex B stream.
std::vector<uint8_t> firstUnit(const std::vector<uint8_t> &stream, unsigned type, bool hevc) {
    for (size_t i = 0; i + 3 < stream.size(); ++i) {
        if (stream[i] || stream[i + 1] || stream[i + 2] != 1) continue;
        const size_t begin = i + 3;
        if ((hevc ? (stream[begin] >> 1) & 0x3F : stream[begin] & 0x1F) != type) continue;
        size_t end = begin;
        while (end + 3 <= stream.size() && !(stream[end] == 0 && stream[end + 1] == 0 && stream[end + 2] <= 1)) ++end;
        if (end + 3 > stream.size()) end = stream.size();
        return std::vector<uint8_t>(stream.begin() + long(begin), stream.begin() + long(end));
    }
    return {};
}

// Writes syntax elements MSB first and makes a NAL unit of them, with
// emulation prevention.
class BitWriter {
public:
    BitWriter &u(unsigned count, uint64_t value) {
        for (unsigned i = count; i-- > 0;) bits_.push_back(i < 64 && ((value >> i) & 1));
        return *this;
    }
    BitWriter &ue(uint64_t value) {
        const uint64_t code = value + 1;
        unsigned length = 0;
        while ((code >> length) > 1) ++length;
        u(length, 0);
        return u(length + 1, code);
    }
    BitWriter &se(int64_t value) { return ue(value > 0 ? uint64_t(2 * value - 1) : uint64_t(-2 * value)); }
    std::vector<uint8_t> nal(std::vector<uint8_t> header) const {
        std::vector<bool> bits = bits_;
        bits.push_back(true);  // rbsp_stop_one_bit
        while (bits.size() % 8) bits.push_back(false);
        unsigned zeros = 0;
        for (size_t i = 0; i < bits.size(); i += 8) {
            uint8_t byte = 0;
            for (size_t k = 0; k < 8; ++k) byte = uint8_t(byte << 1 | bits[i + k]);
            if (zeros >= 2 && byte <= 3) {
                header.push_back(3);
                zeros = 0;
            }
            zeros = byte == 0 ? zeros + 1 : 0;
            header.push_back(byte);
        }
        return header;
    }

private:
    std::vector<bool> bits_;
};

// An H.264 SPS with the knobs the tests turn.
struct H264Options {
    unsigned profile = 100;
    unsigned chromaFormat = 1;
    unsigned bitDepthLuma = 0;
    bool scalingLists = false;
    unsigned pocType = 0;
    unsigned widthMbs = 40;
    unsigned heightMapUnits = 30;
    bool frameMbsOnly = true;
    unsigned crop[4] = {0, 0, 0, 0};  // left, right, top, bottom
    int aspectIdc = -1;
    unsigned sar[2] = {0, 0};
    int colour[3] = {-1, -1, -1};
    bool fullRange = false;
    int chromaLoc = -1;
    unsigned logMaxFrameNum = 0;
};

std::vector<uint8_t> makeH264SPS(const H264Options &o) {
    BitWriter w;
    w.u(8, o.profile).u(8, 0).u(8, 40).ue(0);
    if (o.profile == 100 || o.profile == 110 || o.profile == 122 || o.profile == 244) {
        w.ue(o.chromaFormat);
        if (o.chromaFormat == 3) w.u(1, 0);
        w.ue(o.bitDepthLuma).ue(o.bitDepthLuma).u(1, 0).u(1, o.scalingLists);
        if (o.scalingLists) {
            const int lists = o.chromaFormat != 3 ? 8 : 12;
            for (int i = 0; i < lists; ++i) {
                w.u(1, 1);
                // Explicit list: a few deltas then 0 ends it (next scale 0).
                w.se(5).se(-3).se(-10);
            }
        }
    }
    w.ue(o.logMaxFrameNum).ue(o.pocType);
    if (o.pocType == 0) w.ue(2);
    if (o.pocType == 1) w.u(1, 0).se(-2).se(3).ue(3).se(1).se(-1).se(7);
    w.ue(4).u(1, 0).ue(o.widthMbs - 1).ue(o.heightMapUnits - 1).u(1, o.frameMbsOnly);
    if (!o.frameMbsOnly) w.u(1, 1);
    w.u(1, 1);
    const bool cropping = o.crop[0] || o.crop[1] || o.crop[2] || o.crop[3];
    w.u(1, cropping);
    if (cropping) w.ue(o.crop[0]).ue(o.crop[1]).ue(o.crop[2]).ue(o.crop[3]);
    w.u(1, 1);  // vui
    w.u(1, o.aspectIdc >= 0);
    if (o.aspectIdc >= 0) {
        w.u(8, unsigned(o.aspectIdc));
        if (o.aspectIdc == 255) w.u(16, o.sar[0]).u(16, o.sar[1]);
    }
    w.u(1, 0);
    const bool signal = o.colour[0] >= 0 || o.fullRange;
    w.u(1, signal);
    if (signal) {
        w.u(3, 5).u(1, o.fullRange).u(1, o.colour[0] >= 0);
        if (o.colour[0] >= 0) w.u(8, unsigned(o.colour[0])).u(8, unsigned(o.colour[1])).u(8, unsigned(o.colour[2]));
    }
    w.u(1, o.chromaLoc >= 0);
    if (o.chromaLoc >= 0) w.ue(unsigned(o.chromaLoc)).ue(unsigned(o.chromaLoc));
    w.u(1, 0).u(1, 0).u(1, 0).u(1, 0).u(1, 0);  // timing, HRDs, pic_struct, restriction
    return w.nal({0x67});
}

bool parse(const std::vector<uint8_t> &nal, SVH264SPS &sps) {
    const char *why = "";
    return sorvel::SVParseH264SPS(nal.data(), nal.size(), sps, why);
}

TEST(SVParameterSetsH264, RealStreamsMatchTheirTrace) {
    for (const char *clip :
         {"avc_baseline_176x144", "avc_main_1920x1080_bt709", "avc_high_642x362_sar40x33_smpte170m",
          "avc_high_720x576_tff_sar16x11", "avc_high_480x270_sar37x20_smpte240m", "avc_high10_1280x720_pq"}) {
        SCOPED_TRACE(clip);
        const std::vector<uint8_t> raw = readFile(std::string("trace/") + clip + ".ps.json");
        const std::string trace(raw.begin(), raw.end());
        const std::vector<uint8_t> nal = firstUnit(readFile(std::string("media/") + clip + ".h264"), 7, false);
        SVH264SPS sps;
        ASSERT_TRUE(parse(nal, sps));
        EXPECT_EQ(sps.profileIdc, traceValue(trace, "profile_idc"));
        EXPECT_EQ(sps.levelIdc, traceValue(trace, "level_idc"));
        if (traceValue(trace, "chroma_format_idc") >= 0) {
            EXPECT_EQ(long(sps.chromaFormatIdc), traceValue(trace, "chroma_format_idc"));
            EXPECT_EQ(long(sps.bitDepthLumaMinus8), traceValue(trace, "bit_depth_luma_minus8"));
        }
        EXPECT_EQ(sps.codedWidth, (traceValue(trace, "pic_width_in_mbs_minus1") + 1) * 16);
        EXPECT_EQ(sps.frameMbsOnly, traceValue(trace, "frame_mbs_only_flag") == 1);
        EXPECT_EQ(sps.vui.aspectRatioIdc, traceValue(trace, "aspect_ratio_idc"));
        EXPECT_EQ(sps.vui.colourPrimaries, traceValue(trace, "colour_primaries"));
        EXPECT_EQ(sps.vui.transferCharacteristics, traceValue(trace, "transfer_characteristics"));
        EXPECT_EQ(sps.vui.matrixCoefficients, traceValue(trace, "matrix_coefficients"));
        if (sps.vui.aspectRatioIdc == 255) {
            EXPECT_EQ(long(sps.vui.sarWidth), traceValue(trace, "sar_width"));
            EXPECT_EQ(long(sps.vui.sarHeight), traceValue(trace, "sar_height"));
        }
        // Every truncation of a real SPS is refused or gives the same
        // picture size: nothing is read past the end.
        for (size_t length = 0; length < nal.size(); ++length) {
            std::vector<uint8_t> prefix(nal.begin(), nal.begin() + long(length));
            SVH264SPS cut;
            if (parse(prefix, cut)) {
                EXPECT_EQ(cut.width, sps.width);
                EXPECT_EQ(cut.height, sps.height);
            }
        }
    }
}

struct CropCase {
    unsigned chromaFormat;
    bool frameMbsOnly;
    unsigned crop[4];
    int32_t width, height;
};

TEST(SVParameterSetsH264, CroppingUsesTheChromaAndFieldUnits) {
    const CropCase cases[] = {
        {1, true, {0, 7, 0, 3}, 640 - 14, 480 - 6},  // 4:2:0: 2 x 2
        {2, true, {1, 1, 2, 2}, 640 - 4, 480 - 4},   // 4:2:2: 2 x 1
        {3, true, {1, 2, 3, 4}, 640 - 3, 480 - 7},   // 4:4:4: 1 x 1
        {0, true, {1, 2, 3, 4}, 640 - 3, 480 - 7},   // monochrome: 1 x 1
        {1, false, {0, 0, 0, 2}, 640, 960 - 8},      // 4:2:0 fields: 2 x 4
        {1, true, {319, 0, 0, 239}, 2, 2},           // the smallest picture left
    };
    for (const CropCase &c : cases) {
        H264Options o;
        o.chromaFormat = c.chromaFormat;
        o.frameMbsOnly = c.frameMbsOnly;
        std::copy(std::begin(c.crop), std::end(c.crop), o.crop);
        SVH264SPS sps;
        ASSERT_TRUE(parse(makeH264SPS(o), sps)) << c.chromaFormat;
        EXPECT_EQ(sps.width, c.width) << c.chromaFormat << c.frameMbsOnly;
        EXPECT_EQ(sps.height, c.height) << c.chromaFormat << c.frameMbsOnly;
    }
}

TEST(SVParameterSetsH264, ScalingListsAndPicOrderType1AreSkippedExactly) {
    for (unsigned chroma : {1u, 3u}) {
        for (unsigned poc : {0u, 1u, 2u}) {
            H264Options o;
            o.chromaFormat = chroma;
            o.scalingLists = true;
            o.pocType = poc;
            o.aspectIdc = 255;
            o.sar[0] = 37;
            o.sar[1] = 20;
            SVH264SPS sps;
            ASSERT_TRUE(parse(makeH264SPS(o), sps)) << chroma << poc;
            EXPECT_EQ(sps.vui.sarWidth, 37u);
            EXPECT_EQ(sps.vui.sarHeight, 20u);
            EXPECT_EQ(sps.width, 640);
        }
    }
}

TEST(SVParameterSetsH264, FieldsOutOfRangeAreRefused) {
    std::vector<H264Options> bad(7);
    bad[0].chromaFormat = 4;
    bad[1].bitDepthLuma = 7;
    bad[2].pocType = 3;
    bad[3].logMaxFrameNum = 13;
    bad[4].crop[1] = 320;  // crops the whole width
    bad[5].chromaLoc = 6;
    bad[6].widthMbs = 8193;
    for (size_t i = 0; i < bad.size(); ++i) {
        SVH264SPS sps;
        EXPECT_FALSE(parse(makeH264SPS(bad[i]), sps)) << i;
    }
    // The last legal values pass.
    H264Options edge;
    edge.chromaFormat = 3;
    edge.bitDepthLuma = 6;
    edge.pocType = 2;
    edge.logMaxFrameNum = 12;
    edge.chromaLoc = 5;
    edge.widthMbs = 8192;
    SVH264SPS sps;
    EXPECT_TRUE(parse(makeH264SPS(edge), sps));
    EXPECT_EQ(sps.width, 8192 * 16);
}

TEST(SVParameterSetsH264, MalformedBitsFail) {
    SVH264SPS sps;
    const char *why = "";
    // 40 zero bits where an Exp-Golomb code is expected.
    std::vector<uint8_t> zeros = {0x67, 100, 0, 40, 0, 0, 0, 0, 0, 0x80};
    EXPECT_FALSE(sorvel::SVParseH264SPS(zeros.data(), zeros.size(), sps, why));
    std::vector<uint8_t> pps = {0x68, 0xEE, 0x3C, 0x80};
    EXPECT_FALSE(sorvel::SVParseH264SPS(pps.data(), pps.size(), sps, why));
    EXPECT_FALSE(sorvel::SVParseH264SPS(nullptr, 0, sps, why));
}

TEST(SVParameterSetsH264, EmulationPreventionBytesAreRemoved) {
    // Small extended SARs write runs of zero bits; the writer escapes the
    // ones that land on byte boundaries.
    const uint8_t escape[] = {0, 0, 3};
    int escaped = 0;
    for (unsigned height = 1; height < 64; ++height) {
        H264Options o;
        o.aspectIdc = 255;
        o.sar[0] = 0;
        o.sar[1] = height;
        const std::vector<uint8_t> nal = makeH264SPS(o);
        if (std::search(nal.begin(), nal.end(), std::begin(escape), std::end(escape)) != nal.end()) ++escaped;
        SVH264SPS sps;
        ASSERT_TRUE(parse(nal, sps));
        EXPECT_EQ(sps.vui.sarWidth, 0u);
        EXPECT_EQ(sps.vui.sarHeight, height);
    }
    EXPECT_GT(escaped, 0);
}

TEST(SVParameterSetsH264, RandomBytesNeverReadPastTheEnd) {
    std::mt19937 random(8);
    for (int round = 0; round < 20000; ++round) {
        std::vector<uint8_t> nal(1 + random() % 40);
        for (uint8_t &byte : nal) byte = uint8_t(random());
        nal[0] = 0x67;
        SVH264SPS sps;
        if (parse(nal, sps)) {
            EXPECT_GT(sps.width, 0);
            EXPECT_GT(sps.height, 0);
        }
    }
}

// An HEVC SPS with sub-layers and a conformance window.
std::vector<uint8_t> makeHEVCSPS(unsigned subLayersMinus1, unsigned chroma, unsigned width, unsigned height,
                                 const unsigned window[4], int primaries = -1, bool fieldSeq = false) {
    BitWriter w;
    w.u(4, 0).u(3, subLayersMinus1).u(1, 1);
    w.u(2, 0).u(1, 0).u(5, 2).u(32, 0x20000000).u(48, 0x900000000000ull).u(8, 93);
    for (unsigned i = 0; i < subLayersMinus1; ++i) w.u(1, 1).u(1, 1);
    if (subLayersMinus1)
        for (unsigned i = subLayersMinus1; i < 8; ++i) w.u(2, 0);
    for (unsigned i = 0; i < subLayersMinus1; ++i) w.u(88, 0).u(8, 90);
    w.ue(0).ue(chroma);
    if (chroma == 3) w.u(1, 0);
    w.ue(width).ue(height).u(1, 1).ue(window[0]).ue(window[1]).ue(window[2]).ue(window[3]);
    w.ue(2).ue(2).ue(4).u(1, 1);
    for (unsigned i = 0; i <= subLayersMinus1; ++i) w.ue(4).ue(2).ue(0);
    w.ue(0).ue(3).ue(0).ue(3).ue(2).ue(2);
    w.u(1, 1).u(1, 1);  // scaling lists enabled, data present
    for (unsigned size = 0; size < 4; ++size)
        for (unsigned matrix = 0; matrix < 6; matrix += size == 3 ? 3 : 1) {
            w.u(1, 1);
            if (size > 1) w.se(8);
            for (unsigned k = 0; k < std::min(64u, 1u << (4 + (size << 1))); ++k) w.se(k % 3 == 0 ? 1 : -1);
        }
    w.u(1, 0).u(1, 1).u(1, 0);
    w.ue(2);                                                  // two short-term sets
    w.ue(2).ue(1).ue(0).u(1, 1).ue(1).u(1, 1).ue(0).u(1, 0);  // 2 negative, 1 positive
    w.u(1, 1).u(1, 0).ue(0);                                  // predicted from the first
    for (int j = 0; j <= 3; ++j) w.u(1, j % 2).u(j % 2 ? 0 : 1, 1);
    w.u(1, 1).ue(1).u(8, 5).u(1, 1);  // one long-term picture, lsb 8 bits
    w.u(1, 1).u(1, 1).u(1, 1);        // tmvp, smoothing, vui
    w.u(1, 1).u(8, 255).u(16, 40).u(16, 33).u(1, 0);
    w.u(1, primaries >= 0);
    if (primaries >= 0) w.u(3, 5).u(1, 1).u(1, 1).u(8, unsigned(primaries)).u(8, 18).u(8, 9);
    w.u(1, 1).ue(2).ue(2).u(1, 0).u(1, fieldSeq).u(1, 0).u(1, 0).u(1, 0).u(1, 0);
    return w.nal({0x42, 0x01});
}

TEST(SVParameterSetsHEVC, SubLayersScalingListsAndReferenceSetsAreSkippedExactly) {
    const unsigned window[4] = {1, 2, 3, 4};
    for (unsigned layers : {0u, 1u, 6u}) {
        for (unsigned chroma : {1u, 2u, 3u}) {
            const std::vector<uint8_t> nal = makeHEVCSPS(layers, chroma, 1920, 1080, window, 9, layers == 1);
            SVHEVCSPS sps;
            const char *why = "";
            ASSERT_TRUE(sorvel::SVParseHEVCSPS(nal.data(), nal.size(), sps, why)) << why << layers << chroma;
            const int subWidth = chroma == 3 ? 1 : 2, subHeight = chroma == 1 ? 2 : 1;
            EXPECT_EQ(sps.width, 1920 - 3 * subWidth);
            EXPECT_EQ(sps.height, 1080 - 7 * subHeight);
            EXPECT_EQ(sps.maxSubLayersMinus1, layers);
            EXPECT_EQ(sps.generalProfileIdc, 2);
            EXPECT_EQ(sps.generalLevelIdc, 93);
            EXPECT_EQ(sps.generalConstraintFlags, 0x900000000000ull);
            EXPECT_EQ(sps.vui.sarWidth, 40u);
            EXPECT_EQ(sps.vui.colourPrimaries, 9);
            EXPECT_EQ(sps.vui.transferCharacteristics, 18);
            EXPECT_EQ(sps.vui.chromaLocTop, 2);
            EXPECT_TRUE(sps.vui.fullRange);
            EXPECT_EQ(sps.vui.fieldSeq, layers == 1);
        }
    }
}

TEST(SVParameterSetsHEVC, FieldsOutOfRangeAreRefused) {
    const unsigned none[4] = {0, 0, 0, 0}, wide[4] = {480, 480, 0, 0}, tall[4] = {0, 0, 0, 540};
    struct {
        unsigned layers, chroma, width, height;
        const unsigned *window;
    } cases[] = {{7, 1, 1920, 1080, none}, {0, 4, 1920, 1080, none}, {0, 1, 0, 1080, none},   {0, 1, 1920, 0, none},
                 {0, 1, 65536, 16, none},  {0, 1, 1920, 1080, wide}, {0, 1, 1920, 1080, tall}};
    for (const auto &c : cases) {
        const std::vector<uint8_t> nal = makeHEVCSPS(c.layers, c.chroma, c.width, c.height, c.window);
        SVHEVCSPS sps;
        const char *why = "";
        EXPECT_FALSE(sorvel::SVParseHEVCSPS(nal.data(), nal.size(), sps, why)) << c.layers << c.chroma << c.width;
    }
}

TEST(SVParameterSetsHEVC, RealStreamsMatchTheirTrace) {
    for (const char *clip : {"hevc_main_1920x1080_bt709", "hevc_main_642x362_sar40x33_smpte170m_hvc1",
                             "hevc_main10_640x360_hlg_full_chromaloc2"}) {
        SCOPED_TRACE(clip);
        const std::vector<uint8_t> raw = readFile(std::string("trace/") + clip + ".ps.json");
        const std::string trace(raw.begin(), raw.end());
        const size_t spsAt = trace.find("\"nal_unit_type\": 33");
        const std::vector<uint8_t> stream = readFile(std::string("media/") + clip + ".h265");
        const std::vector<uint8_t> vps = firstUnit(stream, 32, true), nal = firstUnit(stream, 33, true);
        const char *why = "";
        EXPECT_TRUE(sorvel::SVCheckHEVCVPS(vps.data(), vps.size(), why)) << why;
        SVHEVCSPS sps;
        ASSERT_TRUE(sorvel::SVParseHEVCSPS(nal.data(), nal.size(), sps, why)) << why;
        EXPECT_EQ(sps.generalProfileIdc, traceValue(trace, "general_profile_idc", spsAt));
        EXPECT_EQ(sps.generalLevelIdc, traceValue(trace, "general_level_idc", spsAt));
        EXPECT_EQ(sps.codedWidth, traceValue(trace, "pic_width_in_luma_samples", spsAt));
        EXPECT_EQ(sps.codedHeight, traceValue(trace, "pic_height_in_luma_samples", spsAt));
        EXPECT_EQ(long(sps.bitDepthLumaMinus8), traceValue(trace, "bit_depth_luma_minus8", spsAt));
        EXPECT_EQ(sps.vui.colourPrimaries, traceValue(trace, "colour_primaries", spsAt));
        EXPECT_EQ(sps.vui.matrixCoefficients, traceValue(trace, "matrix_coefficients", spsAt));
        EXPECT_EQ(sps.vui.fieldSeq, traceValue(trace, "field_seq_flag", spsAt) == 1);
        for (size_t length = 0; length < nal.size(); ++length) {
            SVHEVCSPS cut;
            if (sorvel::SVParseHEVCSPS(nal.data(), length, cut, why)) EXPECT_EQ(cut.width, sps.width);
        }
    }
}

TEST(SVParameterSetsHEVC, RandomBytesNeverReadPastTheEnd) {
    std::mt19937 random(265);
    for (int round = 0; round < 20000; ++round) {
        std::vector<uint8_t> nal(2 + random() % 60);
        for (uint8_t &byte : nal) byte = uint8_t(random());
        nal[0] = round % 2 ? 0x42 : 0x40;
        nal[1] = 0x01;
        const char *why = "";
        SVHEVCSPS sps;
        if (sorvel::SVParseHEVCSPS(nal.data(), nal.size(), sps, why)) EXPECT_GT(sps.width, 0);
        sorvel::SVCheckHEVCVPS(nal.data(), nal.size(), why);
    }
}

// The VUI codes become extensions through the creator; codes without a
// value are logged once each and leave their key out.
struct VUICase {
    int aspectIdc;
    int colour[3];
    const char *log;  // expected message, or NULL for none
    CFStringRef key;  // a key that must be absent (NULL: none checked)
};

TEST(SVParameterSetsH264, UnmappedVUICodesAreLoggedAndLeftOut) {
    const VUICase cases[] = {
        {17, {1, 1, 1}, "Unknown aspect_ratio_idc 17", kCVImageBufferPixelAspectRatioKey},
        {254, {1, 1, 1}, "Unknown aspect_ratio_idc 254", kCVImageBufferPixelAspectRatioKey},
        {0, {1, 1, 1}, nullptr, kCVImageBufferPixelAspectRatioKey},
        {1, {3, 1, 1}, "Unhandled VUI colour_primaries value 3", kCVImageBufferColorPrimariesKey},
        {1, {1, 3, 1}, "Unhandled VUI transfer_characteristics value 3", kCVImageBufferTransferFunctionKey},
        {1, {1, 1, 0}, "Unhandled VUI matrix_coefficients value 0", kCVImageBufferYCbCrMatrixKey},
        {1, {1, 1, 255}, "Unhandled VUI matrix_coefficients value 255", kCVImageBufferYCbCrMatrixKey},
        {1, {2, 2, 2}, nullptr, kCVImageBufferColorPrimariesKey},
    };
    for (const VUICase &c : cases) {
        H264Options o;
        o.aspectIdc = c.aspectIdc;
        std::copy(std::begin(c.colour), std::end(c.colour), o.colour);
        const std::vector<uint8_t> sps = makeH264SPS(o);
        const uint8_t pps[] = {0x68, 0xEB, 0xE3, 0xCB, 0x22, 0xC0};
        const uint8_t *sets[] = {sps.data(), pps};
        const size_t sizes[] = {sps.size(), sizeof pps};
        sorvel_test::LogCapture log;
        SVFormatDescriptionRef desc = nullptr;
        ASSERT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, 2, sets, sizes, 4, &desc), 0);
        EXPECT_EQ(SVFormatDescriptionGetExtension(desc, c.key), nullptr) << c.aspectIdc;
        if (c.log) {
            ASSERT_EQ(log.count(), 1u) << c.log;
            const sorvel_test::LogLine line = log.lines()[0];
            EXPECT_EQ(line.message, c.log);
            EXPECT_EQ(line.level, 3);
            EXPECT_EQ(line.function, "SVVideoFormatDescriptionCreateFromH264ParameterSets");
            EXPECT_EQ(line.path, "Sorvel/Sources/SVFormatDescription");
        } else {
            EXPECT_EQ(log.count(), 0u);
        }
        CFRelease(desc);
    }
}

TEST(SVParameterSetsH264, MappedVUICodesBecomeImageBufferValues) {
    struct {
        int colour[3];
        bool fullRange;
        int chromaLoc;
        CFStringRef primaries, transfer, matrix, chroma;
    } cases[] = {
        {{9, 16, 9},
         false,
         0,
         kCVImageBufferColorPrimaries_ITU_R_2020,
         kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ,
         kCVImageBufferYCbCrMatrix_ITU_R_2020,
         kCVImageBufferChromaLocation_Left},
        {{12, 18, 10},
         true,
         2,
         kCVImageBufferColorPrimaries_P3_D65,
         kCVImageBufferTransferFunction_ITU_R_2100_HLG,
         kCVImageBufferYCbCrMatrix_ITU_R_2020,
         kCVImageBufferChromaLocation_TopLeft},
        {{22, 13, 6},
         false,
         5,
         kCVImageBufferColorPrimaries_P22,
         kCVImageBufferTransferFunction_sRGB,
         kCVImageBufferYCbCrMatrix_ITU_R_601_4,
         kCVImageBufferChromaLocation_Bottom},
        {{11, 8, 7},
         true,
         1,
         kCVImageBufferColorPrimaries_DCI_P3,
         kCVImageBufferTransferFunction_Linear,
         kCVImageBufferYCbCrMatrix_SMPTE_240M_1995,
         kCVImageBufferChromaLocation_Center},
    };
    for (const auto &c : cases) {
        H264Options o;
        std::copy(std::begin(c.colour), std::end(c.colour), o.colour);
        o.fullRange = c.fullRange;
        o.chromaLoc = c.chromaLoc;
        const std::vector<uint8_t> sps = makeH264SPS(o);
        const uint8_t *sets[] = {sps.data()};
        const size_t sizes[] = {sps.size()};
        SVFormatDescriptionRef desc = nullptr;
        ASSERT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, 1, sets, sizes, 4, &desc), 0);
        EXPECT_TRUE(CFEqual(SVFormatDescriptionGetExtension(desc, kCVImageBufferColorPrimariesKey), c.primaries));
        EXPECT_TRUE(CFEqual(SVFormatDescriptionGetExtension(desc, kCVImageBufferTransferFunctionKey), c.transfer));
        EXPECT_TRUE(CFEqual(SVFormatDescriptionGetExtension(desc, kCVImageBufferYCbCrMatrixKey), c.matrix));
        EXPECT_TRUE(
            CFEqual(SVFormatDescriptionGetExtension(desc, kCVImageBufferChromaLocationBottomFieldKey), c.chroma));
        EXPECT_EQ(SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_FullRangeVideo),
                  c.fullRange ? kCFBooleanTrue : nullptr);
        CFRelease(desc);
    }
    // The pure-gamma curves carry their exponent.
    H264Options o;
    o.colour[0] = 1, o.colour[1] = 5, o.colour[2] = 1;
    const std::vector<uint8_t> sps = makeH264SPS(o);
    const uint8_t *sets[] = {sps.data()};
    const size_t sizes[] = {sps.size()};
    SVFormatDescriptionRef desc = nullptr;
    ASSERT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, 1, sets, sizes, 4, &desc), 0);
    EXPECT_TRUE(CFEqual(SVFormatDescriptionGetExtension(desc, kCVImageBufferTransferFunctionKey),
                        kCVImageBufferTransferFunction_UseGamma));
    double gamma = 0;
    CFNumberGetValue(static_cast<CFNumberRef>(SVFormatDescriptionGetExtension(desc, kCVImageBufferGammaLevelKey)),
                     kCFNumberDoubleType, &gamma);
    EXPECT_EQ(gamma, 2.8);
    CFRelease(desc);
}

TEST(SVParameterSetsH264, CreatorRefusesAnSPSOutOfRange) {
    H264Options o;
    o.chromaFormat = 4;
    const std::vector<uint8_t> sps = makeH264SPS(o);
    const uint8_t *sets[] = {sps.data()};
    const size_t sizes[] = {sps.size()};
    sorvel_test::LogCapture log;
    SVFormatDescriptionRef desc = nullptr;
    EXPECT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, 1, sets, sizes, 4, &desc),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(desc, nullptr);
    EXPECT_TRUE(log.contains("Invalid SPS: bad chroma format or bit depth"));
}

TEST(SVParameterSetsH264, InterlacedSPSGivesTwoFieldsInNoStatedOrder) {
    H264Options o;
    o.frameMbsOnly = false;
    const std::vector<uint8_t> sps = makeH264SPS(o);
    const uint8_t *sets[] = {sps.data()};
    const size_t sizes[] = {sps.size()};
    SVFormatDescriptionRef desc = nullptr;
    ASSERT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, 1, sets, sizes, 2, &desc), 0);
    int32_t fields = 0;
    CFNumberGetValue(static_cast<CFNumberRef>(SVFormatDescriptionGetExtension(desc, kCVImageBufferFieldCountKey)),
                     kCFNumberSInt32Type, &fields);
    EXPECT_EQ(fields, 2);
    // Parameter sets do not say which field comes first.
    EXPECT_EQ(SVFormatDescriptionGetExtension(desc, kCVImageBufferFieldDetailKey), nullptr);
    EXPECT_EQ(SVVideoFormatDescriptionGetDimensions(desc).height, 960);
    CFRelease(desc);
}

}  // namespace
