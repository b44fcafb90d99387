// SPDX-License-Identifier: Apache-2.0
// Video format descriptions built from the real streams of tests/data and
// from hand-made parameter sets.
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/TestAllocator.h"
#include "support/TestData.h"

namespace {

using sorvel_test::readFile;

// The value of "key" in the summary object of an expected/*.json file.
std::string summaryValue(const std::string &json, const std::string &key) {
    const size_t summary = json.find("\"summary\"");
    size_t at = json.find("\"" + key + "\":", summary);
    if (summary == std::string::npos || at == std::string::npos) return "";
    at = json.find(':', at) + 1;
    while (json[at] == ' ' || json[at] == '"') ++at;
    size_t end = at;
    while (end < json.size() && json[end] != '"' && json[end] != ',' && json[end] != '\n') ++end;
    return json.substr(at, end - at);
}

// The parameter sets (and prefix SEIs for HEVC) before the first picture.
std::vector<std::vector<uint8_t>> leadingParameterSets(const std::vector<uint8_t> &stream, bool hevc) {
    std::vector<std::vector<uint8_t>> sets;
    size_t i = 0;
    auto isStart = [&](size_t k) {
        return k + 3 <= stream.size() && !stream[k] && !stream[k + 1] && stream[k + 2] == 1;
    };
    while (i < stream.size() && !isStart(i)) ++i;
    while (i + 3 < stream.size()) {
        size_t begin = i + 3, next = begin;
        while (next < stream.size() && !isStart(next)) ++next;
        size_t end = next;
        while (end > begin && next < stream.size() && stream[end - 1] == 0) --end;
        const unsigned type = hevc ? (stream[begin] >> 1) & 0x3F : stream[begin] & 0x1F;
        const bool keep = hevc ? (type >= 32 && type <= 34) || type == 39 : type == 7 || type == 8;
        const bool picture = hevc ? type < 32 : type >= 1 && type <= 5;
        if (picture) break;
        if (keep) sets.emplace_back(stream.begin() + long(begin), stream.begin() + long(end));
        i = next;
    }
    return sets;
}

CFStringRef stringValue(SVFormatDescriptionRef desc, CFStringRef key) {
    return static_cast<CFStringRef>(SVFormatDescriptionGetExtension(desc, key));
}

CFStringRef expectedPrimaries(const std::string &name) {
    if (name == "bt709") return kCVImageBufferColorPrimaries_ITU_R_709_2;
    if (name == "smpte170m" || name == "smpte240m") return kCVImageBufferColorPrimaries_SMPTE_C;
    if (name == "bt470bg") return kCVImageBufferColorPrimaries_EBU_3213;
    if (name == "bt2020") return kCVImageBufferColorPrimaries_ITU_R_2020;
    return nullptr;
}
CFStringRef expectedTransfer(const std::string &name) {
    if (name == "bt709" || name == "smpte170m") return kCVImageBufferTransferFunction_ITU_R_709_2;
    if (name == "smpte240m") return kCVImageBufferTransferFunction_SMPTE_240M_1995;
    if (name == "smpte2084") return kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ;
    if (name == "arib-std-b67") return kCVImageBufferTransferFunction_ITU_R_2100_HLG;
    return nullptr;
}
CFStringRef expectedMatrix(const std::string &name) {
    if (name == "bt709") return kCVImageBufferYCbCrMatrix_ITU_R_709_2;
    if (name == "smpte170m" || name == "bt470bg") return kCVImageBufferYCbCrMatrix_ITU_R_601_4;
    if (name == "smpte240m") return kCVImageBufferYCbCrMatrix_SMPTE_240M_1995;
    if (name == "bt2020nc") return kCVImageBufferYCbCrMatrix_ITU_R_2020;
    return nullptr;
}
CFStringRef expectedChroma(const std::string &name) {
    if (name == "left") return kCVImageBufferChromaLocation_Left;
    if (name == "topleft") return kCVImageBufferChromaLocation_TopLeft;
    if (name == "center") return kCVImageBufferChromaLocation_Center;
    return nullptr;
}

void expectSameString(CFStringRef expected, CFStringRef actual, const char *what) {
    if (!expected) {
        EXPECT_EQ(actual, nullptr) << what;
        return;
    }
    ASSERT_NE(actual, nullptr) << what;
    EXPECT_TRUE(CFEqual(expected, actual)) << what;
}

int32_t numberValue(CFTypeRef number) {
    int32_t value = -1;
    if (number) CFNumberGetValue(static_cast<CFNumberRef>(number), kCFNumberSInt32Type, &value);
    return value;
}

struct Clip {
    const char *name;
    const char *stream;
    const char *record;
};

class RealStreams : public ::testing::TestWithParam<Clip> {};

TEST_P(RealStreams, DescriptionReportsWhatTheReferenceSays) {
    const Clip clip = GetParam();
    const bool hevc = std::string(clip.stream).ends_with(".h265");
    const std::string json(
        reinterpret_cast<const char *>(readFile(std::string("expected/") + clip.name + ".json").data()),
        readFile(std::string("expected/") + clip.name + ".json").size());
    const auto sets = leadingParameterSets(readFile(clip.stream), hevc);
    ASSERT_FALSE(sets.empty());
    std::vector<const uint8_t *> pointers;
    std::vector<size_t> sizes;
    for (const auto &set : sets) pointers.push_back(set.data()), sizes.push_back(set.size());
    SVFormatDescriptionRef desc = nullptr;
    sorvel_test::LogCapture log;
    const OSStatus status = hevc ? SVVideoFormatDescriptionCreateFromHEVCParameterSets(
                                       nullptr, sets.size(), pointers.data(), sizes.data(), 4, nullptr, &desc)
                                 : SVVideoFormatDescriptionCreateFromH264ParameterSets(
                                       nullptr, sets.size(), pointers.data(), sizes.data(), 4, &desc);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(log.count(), 0u);
    EXPECT_EQ(SVFormatDescriptionGetMediaSubType(desc), hevc ? 0x68766331u : 0x61766331u);
    const SVVideoDimensions dims = SVVideoFormatDescriptionGetDimensions(desc);
    EXPECT_EQ(std::to_string(dims.width), summaryValue(json, "display_width"));
    EXPECT_EQ(std::to_string(dims.height), summaryValue(json, "display_height"));

    CFDictionaryRef aspect =
        static_cast<CFDictionaryRef>(SVFormatDescriptionGetExtension(desc, kCVImageBufferPixelAspectRatioKey));
    ASSERT_NE(aspect, nullptr);
    EXPECT_EQ(
        std::to_string(numberValue(CFDictionaryGetValue(aspect, kCVImageBufferPixelAspectRatioHorizontalSpacingKey))),
        summaryValue(json, "sar_num"));
    EXPECT_EQ(
        std::to_string(numberValue(CFDictionaryGetValue(aspect, kCVImageBufferPixelAspectRatioVerticalSpacingKey))),
        summaryValue(json, "sar_den"));
    expectSameString(expectedPrimaries(summaryValue(json, "color_primaries")),
                     stringValue(desc, kCVImageBufferColorPrimariesKey), "primaries");
    expectSameString(expectedTransfer(summaryValue(json, "color_transfer")),
                     stringValue(desc, kCVImageBufferTransferFunctionKey), "transfer");
    expectSameString(expectedMatrix(summaryValue(json, "color_space")), stringValue(desc, kCVImageBufferYCbCrMatrixKey),
                     "matrix");
    expectSameString(expectedChroma(summaryValue(json, "chroma_location")),
                     stringValue(desc, kCVImageBufferChromaLocationTopFieldKey), "chroma location");
    EXPECT_EQ(SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_FullRangeVideo) == kCFBooleanTrue,
              summaryValue(json, "color_range") == "pc");
    const bool interlaced = summaryValue(json, "field_order") != "progressive";
    EXPECT_EQ(numberValue(SVFormatDescriptionGetExtension(desc, kCVImageBufferFieldCountKey)), interlaced ? 2 : 1);

    // The record: byte-identical to the encoder's, except that ours marks
    // every hvcC array complete (the parameter sets are only in the record).
    CFDictionaryRef atoms = static_cast<CFDictionaryRef>(
        SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms));
    ASSERT_NE(atoms, nullptr);
    CFDataRef record = static_cast<CFDataRef>(CFDictionaryGetValue(atoms, hevc ? CFSTR("hvcC") : CFSTR("avcC")));
    ASSERT_NE(record, nullptr);
    std::vector<uint8_t> built(CFDataGetBytePtr(record), CFDataGetBytePtr(record) + CFDataGetLength(record));
    std::vector<uint8_t> reference = readFile(clip.record);
    if (hevc) {
        ASSERT_EQ(built.size(), reference.size());
        // Walk the arrays and clear the completeness bit in ours.
        size_t at = 23;
        for (unsigned a = 0; a < built[22] && at + 3 <= built.size(); ++a) {
            built[at] &= 0x7F;
            reference[at] &= 0x7F;
            const unsigned units = built[at + 1] << 8 | built[at + 2];
            at += 3;
            for (unsigned u = 0; u < units; ++u) at += 2 + (built[at] << 8 | built[at + 1]);
        }
    }
    EXPECT_EQ(built, reference);
    CFRelease(desc);
}

INSTANTIATE_TEST_SUITE_P(
    SVVideoFormatDescription, RealStreams,
    ::testing::Values(
        Clip{"avc_baseline_176x144", "media/avc_baseline_176x144.h264", "records/avc_baseline_176x144.avcC"},
        Clip{"avc_main_1920x1080_bt709", "media/avc_main_1920x1080_bt709.h264",
             "records/avc_main_1920x1080_bt709.avcC"},
        Clip{"avc_high_642x362_sar40x33_smpte170m", "media/avc_high_642x362_sar40x33_smpte170m.h264",
             "records/avc_high_642x362_sar40x33_smpte170m.avcC"},
        Clip{"avc_high_720x576_tff_sar16x11", "media/avc_high_720x576_tff_sar16x11.h264",
             "records/avc_high_720x576_tff_sar16x11.avcC"},
        Clip{"avc_high_480x270_sar37x20_smpte240m", "media/avc_high_480x270_sar37x20_smpte240m.h264",
             "records/avc_high_480x270_sar37x20_smpte240m.avcC"},
        Clip{"avc_high10_1280x720_pq", "media/avc_high10_1280x720_pq.h264", "records/avc_high10_1280x720_pq.avcC"},
        Clip{"hevc_main_1920x1080_bt709", "media/hevc_main_1920x1080_bt709.h265",
             "records/hevc_main_1920x1080_bt709.hvcC"},
        Clip{"hevc_main_642x362_sar40x33_smpte170m_hvc1", "media/hevc_main_642x362_sar40x33_smpte170m_hvc1.h265",
             "records/hevc_main_642x362_sar40x33_smpte170m_hvc1.hvcC"},
        Clip{"hevc_main10_640x360_hlg_full_chromaloc2", "media/hevc_main10_640x360_hlg_full_chromaloc2.h265",
             "records/hevc_main10_640x360_hlg_full_chromaloc2.hvcC"}),
    [](const ::testing::TestParamInfo<Clip> &info) { return std::string(info.param.name); });

// Every record in tests/data, converted to Annex B and back through the
// concatenated creators, comes out as it went in (H.264 byte for byte; HEVC
// apart from the completeness bit, and without the type byte the converter
// puts after each start code).
class RecordRoundTrip : public ::testing::TestWithParam<const char *> {};

TEST_P(RecordRoundTrip, RecordSurvivesConversionBothWays) {
    const std::string name = GetParam();
    const bool hevc = name.ends_with(".hvcC");
    const std::vector<uint8_t> record = readFile("records/" + name);
    ASSERT_FALSE(record.empty());
    CFMutableDataRef annexB = nullptr;
    int headerLength = 0;
    ASSERT_EQ(hevc ? _SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord(record.data(), record.size(),
                                                                                          &headerLength, &annexB)
                   : _SVCreateConcatenatedParameterSetsFromAVCDecoderConfigurationRecord(record.data(), record.size(),
                                                                                         &headerLength, &annexB),
              0);
    std::vector<uint8_t> run(CFDataGetBytePtr(annexB), CFDataGetBytePtr(annexB) + CFDataGetLength(annexB));
    CFRelease(annexB);
    if (hevc) {
        // Drop the type byte after each 00 00 00 01.
        std::vector<uint8_t> plain;
        for (size_t i = 0; i < run.size(); ++i) {
            plain.push_back(run[i]);
            if (i >= 3 && run[i] == 1 && run[i - 1] == 0 && run[i - 2] == 0 && run[i - 3] == 0) ++i;
        }
        run = plain;
    }
    SVFormatDescriptionRef desc = nullptr;
    ASSERT_EQ(hevc ? _SVVideoFormatDescriptionCreateFromConcatenatedHEVCParameterSetNALs(
                         nullptr, run.data(), run.size(), headerLength, &desc)
                   : _SVVideoFormatDescriptionCreateFromConcatenatedH264ParameterSetNALs(
                         nullptr, run.data(), run.size(), headerLength, &desc),
              0);
    CFDictionaryRef atoms = static_cast<CFDictionaryRef>(
        SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms));
    CFDataRef built = static_cast<CFDataRef>(CFDictionaryGetValue(atoms, hevc ? CFSTR("hvcC") : CFSTR("avcC")));
    ASSERT_NE(built, nullptr);
    std::vector<uint8_t> ours(CFDataGetBytePtr(built), CFDataGetBytePtr(built) + CFDataGetLength(built));
    std::vector<uint8_t> theirs = record;
    if (hevc) {
        ASSERT_EQ(ours.size(), theirs.size());
        size_t at = 23;
        for (unsigned a = 0; a < ours[22] && at + 3 <= ours.size(); ++a) {
            ours[at] &= 0x7F;
            theirs[at] &= 0x7F;
            const unsigned units = ours[at + 1] << 8 | ours[at + 2];
            at += 3;
            for (unsigned u = 0; u < units; ++u) at += 2 + (ours[at] << 8 | ours[at + 1]);
        }
    }
    EXPECT_EQ(ours, theirs);
    CFRelease(desc);
}

INSTANTIATE_TEST_SUITE_P(
    SVVideoFormatDescription, RecordRoundTrip,
    ::testing::Values("avc_baseline_176x144.avcC", "avc_baseline_176x144.len2.avcC", "avc_high10_1280x720_pq.avcC",
                      "avc_high_480x270_sar37x20_smpte240m.avcC", "avc_high_642x362_sar40x33_smpte170m.avcC",
                      "avc_high_720x576_tff_sar16x11.avcC", "avc_main_1920x1080_bt709.avcC",
                      "avc_main_1920x1080_bt709.oob.avcC", "hevc_main10_640x360_hlg_full_chromaloc2.hvcC",
                      "hevc_main_1920x1080_bt709.hvcC", "hevc_main_642x362_sar40x33_smpte170m_hvc1.hvcC",
                      "hevc_main_642x362_sar40x33_smpte170m_hvc1.oob.hvcC"),
    [](const ::testing::TestParamInfo<const char *> &info) {
        std::string name = info.param;
        for (char &c : name)
            if (!isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

// The parameter sets of a clip as arrays, kept alive by the fixture.
struct Sets {
    std::vector<std::vector<uint8_t>> owned;
    std::vector<const uint8_t *> pointers;
    std::vector<size_t> sizes;
    explicit Sets(const char *stream, bool hevc) : owned(leadingParameterSets(readFile(stream), hevc)) {
        for (const auto &set : owned) pointers.push_back(set.data()), sizes.push_back(set.size());
    }
};

constexpr const char *kAVCClip = "media/avc_high_642x362_sar40x33_smpte170m.h264";
constexpr const char *kHEVCClip = "media/hevc_main_642x362_sar40x33_smpte170m_hvc1.h265";

TEST(SVVideoFormatDescription, GenericCreatorStoresWhatItIsGiven) {
    SVFormatDescriptionRef desc = nullptr;
    EXPECT_EQ(SVVideoFormatDescriptionCreate(nullptr, 'jpeg', -5, 7, nullptr, nullptr),
              kSVFormatDescriptionError_InvalidParameter);
    ASSERT_EQ(SVVideoFormatDescriptionCreate(nullptr, 'jpeg', -5, 7, nullptr, &desc), 0);
    EXPECT_EQ(SVFormatDescriptionGetMediaType(desc), kSVMediaType_Video);
    EXPECT_EQ(SVFormatDescriptionGetMediaSubType(desc), FourCharCode('jpeg'));
    EXPECT_EQ(SVVideoFormatDescriptionGetDimensions(desc).width, -5);
    EXPECT_EQ(SVVideoFormatDescriptionGetDimensions(desc).height, 7);
    EXPECT_EQ(SVFormatDescriptionGetExtensions(desc), nullptr);
    CFRelease(desc);

    sorvel_test::TestAllocator allocator;
    allocator.failAlways();
    desc = reinterpret_cast<SVFormatDescriptionRef>(1);
    EXPECT_EQ(SVVideoFormatDescriptionCreate(allocator.get(), 'jpeg', 1, 1, nullptr, &desc),
              kSVFormatDescriptionError_AllocationFailed);
    EXPECT_EQ(desc, nullptr);
}

TEST(SVVideoFormatDescription, QueriesOfOtherDescriptionsAreNeutral) {
    SVFormatDescriptionRef sound = nullptr;
    ASSERT_EQ(SVFormatDescriptionCreate(nullptr, kSVMediaType_Audio, 'lpcm', nullptr, &sound), 0);
    for (SVFormatDescriptionRef desc : {static_cast<SVFormatDescriptionRef>(nullptr), sound}) {
        EXPECT_EQ(SVVideoFormatDescriptionGetDimensions(desc).width, 0);
        EXPECT_EQ(SVVideoFormatDescriptionGetDimensions(desc).height, 0);
        const CGSize size = SVVideoFormatDescriptionGetPresentationDimensions(desc, true, true);
        EXPECT_EQ(size.width, 0);
        EXPECT_EQ(size.height, 0);
        const CGRect rect = SVVideoFormatDescriptionGetCleanAperture(desc, true);
        EXPECT_EQ(rect.size.width, 0);
        EXPECT_EQ(SVVideoFormatDescriptionGetH264ParameterSetAtIndex(desc, 0, nullptr, nullptr, nullptr, nullptr),
                  kSVFormatDescriptionError_InvalidParameter);
        EXPECT_FALSE(SVVideoFormatDescriptionMatchesImageBuffer(desc, nullptr));
    }
    CFRelease(sound);
}

TEST(SVVideoFormatDescription, CommonKeysAreTheElevenInOrder) {
    CFArrayRef keys = SVVideoFormatDescriptionGetExtensionKeysCommonWithImageBuffers();
    ASSERT_EQ(CFArrayGetCount(keys), 11);
    EXPECT_EQ(keys, SVVideoFormatDescriptionGetExtensionKeysCommonWithImageBuffers());
    EXPECT_TRUE(CFEqual(CFArrayGetValueAtIndex(keys, 0), kCVImageBufferCleanApertureKey));
    EXPECT_TRUE(CFEqual(CFArrayGetValueAtIndex(keys, 3), kCVImageBufferPixelAspectRatioKey));
    EXPECT_TRUE(CFEqual(CFArrayGetValueAtIndex(keys, 9), kCVImageBufferGammaLevelKey));
    EXPECT_TRUE(CFEqual(CFArrayGetValueAtIndex(keys, 10), kSVFormatDescriptionExtension_ICCProfile));
}

TEST(SVVideoFormatDescription, PresentationDimensionsApplyAspectAndAperture) {
    Sets sets(kAVCClip, false);
    SVFormatDescriptionRef desc = nullptr;
    ASSERT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, sets.pointers.size(), sets.pointers.data(),
                                                                  sets.sizes.data(), 4, &desc),
              0);
    CGSize size = SVVideoFormatDescriptionGetPresentationDimensions(desc, false, false);
    EXPECT_EQ(size.width, 642);
    EXPECT_EQ(size.height, 362);
    size = SVVideoFormatDescriptionGetPresentationDimensions(desc, true, false);
    EXPECT_NEAR(size.width, 642.0 * 40 / 33, 1e-9);
    EXPECT_EQ(size.height, 362);
    const CGRect rect = SVVideoFormatDescriptionGetCleanAperture(desc, true);
    EXPECT_EQ(rect.origin.x, 0);
    EXPECT_EQ(rect.size.width, 642);
    EXPECT_EQ(rect.size.height, 362);
    CFRelease(desc);

    // A clean aperture of 600 x 300 centred.
    CFMutableDictionaryRef aperture =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    int32_t w = 600, h = 300;
    CFNumberRef wn = CFNumberCreate(nullptr, kCFNumberSInt32Type, &w),
                hn = CFNumberCreate(nullptr, kCFNumberSInt32Type, &h);
    CFDictionarySetValue(aperture, kCVImageBufferCleanApertureWidthKey, wn);
    CFDictionarySetValue(aperture, kCVImageBufferCleanApertureHeightKey, hn);
    CFMutableDictionaryRef extensions =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    CFDictionarySetValue(extensions, kCVImageBufferCleanApertureKey, aperture);
    ASSERT_EQ(SVVideoFormatDescriptionCreate(nullptr, 'avc1', 640, 360, extensions, &desc), 0);
    size = SVVideoFormatDescriptionGetPresentationDimensions(desc, false, true);
    EXPECT_EQ(size.width, 600);
    EXPECT_EQ(size.height, 300);
    EXPECT_EQ(SVVideoFormatDescriptionGetPresentationDimensions(desc, false, false).width, 640);
    EXPECT_EQ(SVVideoFormatDescriptionGetCleanAperture(desc, true).origin.x, 20);
    CFRelease(desc);
    CFRelease(extensions);
    CFRelease(aperture);
    CFRelease(wn);
    CFRelease(hn);
}

TEST(SVVideoFormatDescription, ImageBufferDescriptionsAndMatching) {
    CVPixelBufferRef buffer = nullptr;
    ASSERT_EQ(CVPixelBufferCreate(nullptr, 64, 48, kCVPixelFormatType_32BGRA, nullptr, &buffer), kCVReturnSuccess);
    CVBufferSetAttachment(buffer, kCVImageBufferYCbCrMatrixKey, kCVImageBufferYCbCrMatrix_ITU_R_709_2,
                          kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(buffer, CFSTR("NotCommon"), kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    SVFormatDescriptionRef desc = nullptr;
    EXPECT_EQ(SVVideoFormatDescriptionCreateForImageBuffer(nullptr, buffer, nullptr),
              kSVFormatDescriptionError_InvalidParameter);
    ASSERT_EQ(SVVideoFormatDescriptionCreateForImageBuffer(nullptr, buffer, &desc), 0);
    EXPECT_EQ(SVFormatDescriptionGetMediaSubType(desc), FourCharCode(kCVPixelFormatType_32BGRA));
    EXPECT_EQ(SVVideoFormatDescriptionGetDimensions(desc).width, 64);
    EXPECT_EQ(SVVideoFormatDescriptionGetDimensions(desc).height, 48);
    EXPECT_TRUE(CFEqual(SVFormatDescriptionGetExtension(desc, kCVImageBufferYCbCrMatrixKey),
                        kCVImageBufferYCbCrMatrix_ITU_R_709_2));
    EXPECT_EQ(SVFormatDescriptionGetExtension(desc, CFSTR("NotCommon")), nullptr);
    int64_t bytesPerRow = 0;
    CFNumberGetValue(
        static_cast<CFNumberRef>(SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_BytesPerRow)),
        kCFNumberSInt64Type, &bytesPerRow);
    EXPECT_EQ(size_t(bytesPerRow), CVPixelBufferGetBytesPerRow(buffer));
    EXPECT_EQ(CFDictionaryGetCount(SVFormatDescriptionGetExtensions(desc)), 2);

    // Matching: the same buffer matches; a changed common attachment, a
    // new one, or another size or format does not.
    EXPECT_TRUE(SVVideoFormatDescriptionMatchesImageBuffer(desc, buffer));
    CVBufferSetAttachment(buffer, CFSTR("NotCommon"), kCFBooleanFalse, kCVAttachmentMode_ShouldPropagate);
    EXPECT_TRUE(SVVideoFormatDescriptionMatchesImageBuffer(desc, buffer));
    CVBufferSetAttachment(buffer, kCVImageBufferYCbCrMatrixKey, kCVImageBufferYCbCrMatrix_ITU_R_601_4,
                          kCVAttachmentMode_ShouldPropagate);
    EXPECT_FALSE(SVVideoFormatDescriptionMatchesImageBuffer(desc, buffer));
    CVBufferSetAttachment(buffer, kCVImageBufferYCbCrMatrixKey, kCVImageBufferYCbCrMatrix_ITU_R_709_2,
                          kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(buffer, kCVImageBufferColorPrimariesKey, kCVImageBufferColorPrimaries_ITU_R_709_2,
                          kCVAttachmentMode_ShouldPropagate);
    EXPECT_FALSE(SVVideoFormatDescriptionMatchesImageBuffer(desc, buffer));
    CVBufferRemoveAttachment(buffer, kCVImageBufferColorPrimariesKey);
    EXPECT_TRUE(SVVideoFormatDescriptionMatchesImageBuffer(desc, buffer));
    EXPECT_FALSE(SVVideoFormatDescriptionMatchesImageBuffer(desc, nullptr));
    SVFormatDescriptionRef other = nullptr;
    ASSERT_EQ(SVVideoFormatDescriptionCreate(nullptr, kCVPixelFormatType_32BGRA, 64, 47,
                                             SVFormatDescriptionGetExtensions(desc), &other),
              0);
    EXPECT_FALSE(SVVideoFormatDescriptionMatchesImageBuffer(other, buffer));
    CFRelease(other);
    ASSERT_EQ(SVVideoFormatDescriptionCreate(nullptr, 'avc1', 64, 48, SVFormatDescriptionGetExtensions(desc), &other),
              0);
    EXPECT_FALSE(SVVideoFormatDescriptionMatchesImageBuffer(other, buffer));
    CFRelease(other);
    CFRelease(desc);
    CFRelease(buffer);

    // An image buffer that is not a pixel buffer keeps the placeholder subtype.
    CVOpenGLESTextureRef texture = nullptr;
    ASSERT_EQ(_CVOpenGLESTextureCreate(nullptr, 0x0DE1, 7, 32, 16, false, &texture), kCVReturnSuccess);
    ASSERT_EQ(SVVideoFormatDescriptionCreateForImageBuffer(nullptr, texture, &desc), 0);
    EXPECT_EQ(SVFormatDescriptionGetMediaSubType(desc), FourCharCode('wat?'));
    EXPECT_EQ(SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_BytesPerRow), nullptr);
    EXPECT_TRUE(SVVideoFormatDescriptionMatchesImageBuffer(desc, texture));
    CFRelease(desc);
    CFRelease(texture);
}

TEST(SVVideoFormatDescription, H264HeaderLengthsAndArguments) {
    Sets sets(kAVCClip, false);
    const size_t n = sets.pointers.size();
    for (int length : {-1, 0, 5, 8}) {
        sorvel_test::LogCapture log;
        SVFormatDescriptionRef desc = nullptr;
        EXPECT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, n, sets.pointers.data(),
                                                                      sets.sizes.data(), length, &desc),
                  kSVFormatDescriptionError_InvalidParameter);
        EXPECT_TRUE(log.contains("NALUnitHeaderLength " + std::to_string(length) + " invalid"));
        EXPECT_EQ(desc, nullptr);
    }
    for (int length : {1, 2, 3, 4}) {
        SVFormatDescriptionRef desc = nullptr;
        ASSERT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, n, sets.pointers.data(),
                                                                      sets.sizes.data(), length, &desc),
                  0);
        int stored = 0;
        size_t count = 0, size = 0;
        const uint8_t *bytes = nullptr;
        ASSERT_EQ(SVVideoFormatDescriptionGetH264ParameterSetAtIndex(desc, n - 1, &bytes, &size, &count, &stored), 0);
        EXPECT_EQ(stored, length);
        EXPECT_EQ(count, n);
        EXPECT_EQ(size, sets.sizes[n - 1]);
        EXPECT_NE(bytes, sets.pointers[n - 1]);  // a copy
        EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + size), sets.owned[n - 1]);
        EXPECT_EQ(SVVideoFormatDescriptionGetH264ParameterSetAtIndex(desc, n, &bytes, &size, &count, &stored),
                  kSVFormatDescriptionError_InvalidParameter);
        EXPECT_EQ(SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(desc, 0, nullptr, nullptr, nullptr, nullptr),
                  kSVFormatDescriptionError_InvalidParameter);
        const uint8_t *record = CFDataGetBytePtr(static_cast<CFDataRef>(
            CFDictionaryGetValue(static_cast<CFDictionaryRef>(SVFormatDescriptionGetExtension(
                                     desc, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms)),
                                 CFSTR("avcC"))));
        EXPECT_EQ(record[4] & 3, length - 1);
        CFRelease(desc);
    }
    SVFormatDescriptionRef desc = nullptr;
    EXPECT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, 0, sets.pointers.data(), sets.sizes.data(),
                                                                  4, &desc),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, n, nullptr, sets.sizes.data(), 4, &desc),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, n, sets.pointers.data(), nullptr, 4, &desc),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, n, sets.pointers.data(), sets.sizes.data(),
                                                                  4, nullptr),
              kSVFormatDescriptionError_InvalidParameter);
}

TEST(SVVideoFormatDescription, BadParameterSetListsAreRefused) {
    Sets sets(kAVCClip, false);
    const std::vector<uint8_t> sps = sets.owned[0], pps = sets.owned[1];
    const std::vector<uint8_t> slice = {0x65, 0x88, 0x84};
    const std::vector<uint8_t> huge(70000, 0x67);
    struct Case {
        std::vector<std::vector<uint8_t>> list;
        const char *log;
    };
    std::vector<Case> cases = {
        {{pps}, "Unusable parameter set counts: 0 SPS, 1 PPS"},
        {{sps, slice}, "has NAL unit type 5"},
        {{sps, {}}, "Parameter set 1 is missing, empty or larger than 65535 bytes"},
        {{huge}, "Parameter set 0 is missing, empty or larger than 65535 bytes"},
        {{std::vector<uint8_t>(sps.begin(), sps.begin() + 5)}, "Invalid SPS"},
        {{std::vector<uint8_t>(sps.size(), 0x67)}, "Invalid SPS"},
    };
    cases.push_back({std::vector<std::vector<uint8_t>>(32, sps), "Unusable parameter set counts: 32 SPS, 0 PPS"});
    for (const Case &c : cases) {
        std::vector<const uint8_t *> pointers;
        std::vector<size_t> sizes;
        for (const auto &set : c.list)
            pointers.push_back(set.empty() ? nullptr : set.data()), sizes.push_back(set.size());
        sorvel_test::LogCapture log;
        SVFormatDescriptionRef desc = nullptr;
        EXPECT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, pointers.size(), pointers.data(),
                                                                      sizes.data(), 4, &desc),
                  kSVFormatDescriptionError_InvalidParameter)
            << c.log;
        EXPECT_EQ(desc, nullptr);
        EXPECT_TRUE(log.contains(c.log)) << c.log;
    }
}

TEST(SVVideoFormatDescription, ConcatenatedSetsGiveTheSameDescription) {
    for (bool hevc : {false, true}) {
        Sets sets(hevc ? kHEVCClip : kAVCClip, hevc);
        std::vector<uint8_t> annexB;
        for (size_t i = 0; i < sets.owned.size(); ++i) {
            // Mixed start-code lengths, as encoders write them.
            if (i % 2 == 0) annexB.push_back(0);
            annexB.insert(annexB.end(), {0, 0, 1});
            annexB.insert(annexB.end(), sets.owned[i].begin(), sets.owned[i].end());
        }
        SVFormatDescriptionRef fromArrays = nullptr, fromRun = nullptr, shorter = nullptr;
        if (hevc) {
            ASSERT_EQ(
                SVVideoFormatDescriptionCreateFromHEVCParameterSets(nullptr, sets.pointers.size(), sets.pointers.data(),
                                                                    sets.sizes.data(), 4, nullptr, &fromArrays),
                0);
            ASSERT_EQ(_SVVideoFormatDescriptionCreateFromConcatenatedHEVCParameterSetNALs(nullptr, annexB.data(),
                                                                                          annexB.size(), 4, &fromRun),
                      0);
            ASSERT_EQ(_SVVideoFormatDescriptionCreateFromConcatenatedHEVCParameterSetNALs(nullptr, annexB.data(),
                                                                                          annexB.size(), 2, &shorter),
                      0);
        } else {
            ASSERT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(
                          nullptr, sets.pointers.size(), sets.pointers.data(), sets.sizes.data(), 4, &fromArrays),
                      0);
            ASSERT_EQ(_SVVideoFormatDescriptionCreateFromConcatenatedH264ParameterSetNALs(nullptr, annexB.data(),
                                                                                          annexB.size(), 4, &fromRun),
                      0);
            ASSERT_EQ(_SVVideoFormatDescriptionCreateFromConcatenatedH264ParameterSetNALs(nullptr, annexB.data(),
                                                                                          annexB.size(), 2, &shorter),
                      0);
        }
        EXPECT_TRUE(CFEqual(fromArrays, fromRun));
        EXPECT_FALSE(CFEqual(fromArrays, shorter));  // header lengths 4 and 2 differ
        CFRelease(fromArrays);
        CFRelease(fromRun);
        CFRelease(shorter);
    }
    SVFormatDescriptionRef desc = nullptr;
    const uint8_t nothing[] = {0, 0, 1};
    EXPECT_EQ(_SVVideoFormatDescriptionCreateFromConcatenatedH264ParameterSetNALs(nullptr, nothing, 3, 4, &desc),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(_SVVideoFormatDescriptionCreateFromConcatenatedH264ParameterSetNALs(nullptr, nothing, 0, 4, &desc),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(_SVVideoFormatDescriptionCreateFromConcatenatedHEVCParameterSetNALs(nullptr, nullptr, 3, 4, &desc),
              kSVFormatDescriptionError_InvalidParameter);
}

TEST(SVVideoFormatDescription, HEVCRulesAndCallerExtensions) {
    Sets sets(kHEVCClip, true);
    const size_t n = sets.pointers.size();
    SVFormatDescriptionRef desc = nullptr;
    EXPECT_EQ(SVVideoFormatDescriptionCreateFromHEVCParameterSets(nullptr, n, sets.pointers.data(), sets.sizes.data(),
                                                                  3, nullptr, &desc),
              kSVFormatDescriptionError_InvalidParameter);
    // Without the VPS (the first set) the record would be incomplete.
    {
        sorvel_test::LogCapture log;
        EXPECT_EQ(SVVideoFormatDescriptionCreateFromHEVCParameterSets(nullptr, n - 1, sets.pointers.data() + 1,
                                                                      sets.sizes.data() + 1, 4, nullptr, &desc),
                  kSVFormatDescriptionError_InvalidParameter);
        EXPECT_TRUE(log.contains("Need at least one VPS, SPS and PPS"));
    }
    // Caller extensions win; the record joins the caller's atoms.
    CFMutableDictionaryRef extensions =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    CFMutableDictionaryRef atoms =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    CFDictionarySetValue(atoms, CFSTR("pasp"), kCFBooleanTrue);
    CFDictionarySetValue(extensions, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms, atoms);
    CFDictionarySetValue(extensions, kCVImageBufferColorPrimariesKey, kCVImageBufferColorPrimaries_ITU_R_2020);
    ASSERT_EQ(SVVideoFormatDescriptionCreateFromHEVCParameterSets(nullptr, n, sets.pointers.data(), sets.sizes.data(),
                                                                  2, extensions, &desc),
              0);
    EXPECT_TRUE(CFEqual(SVFormatDescriptionGetExtension(desc, kCVImageBufferColorPrimariesKey),
                        kCVImageBufferColorPrimaries_ITU_R_2020));
    EXPECT_TRUE(CFEqual(SVFormatDescriptionGetExtension(desc, kCVImageBufferYCbCrMatrixKey),
                        kCVImageBufferYCbCrMatrix_ITU_R_601_4));
    CFDictionaryRef stored = static_cast<CFDictionaryRef>(
        SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms));
    EXPECT_EQ(CFDictionaryGetValue(stored, CFSTR("pasp")), kCFBooleanTrue);
    CFDataRef record = static_cast<CFDataRef>(CFDictionaryGetValue(stored, CFSTR("hvcC")));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(CFDataGetBytePtr(record)[21] & 3, 1);
    int length = 0;
    size_t count = 0;
    EXPECT_EQ(SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(desc, 0, nullptr, nullptr, &count, &length), 0);
    EXPECT_EQ(count, n);
    EXPECT_EQ(length, 2);
    EXPECT_EQ(SVVideoFormatDescriptionGetH264ParameterSetAtIndex(desc, 0, nullptr, nullptr, nullptr, nullptr),
              kSVFormatDescriptionError_InvalidParameter);
    // The record round-trips through the converter to Annex B.
    CFMutableDataRef annexB = nullptr;
    int converted = 0;
    ASSERT_EQ(_SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord(
                  CFDataGetBytePtr(record), size_t(CFDataGetLength(record)), &converted, &annexB),
              0);
    EXPECT_EQ(converted, 2);
    EXPECT_GT(CFDataGetLength(annexB), 0);
    CFRelease(annexB);
    CFRelease(desc);
    CFRelease(atoms);
    CFRelease(extensions);
}

TEST(SVVideoFormatDescription, AllocationFailuresLeakNothing) {
    for (bool hevc : {false, true}) {
        Sets sets(hevc ? kHEVCClip : kAVCClip, hevc);
        for (long fail = 0; fail < 8; ++fail) {
            sorvel_test::TestAllocator allocator;
            allocator.failAfter(fail);
            SVFormatDescriptionRef desc = nullptr;
            const OSStatus status =
                hevc ? SVVideoFormatDescriptionCreateFromHEVCParameterSets(allocator.get(), sets.pointers.size(),
                                                                           sets.pointers.data(), sets.sizes.data(), 4,
                                                                           nullptr, &desc)
                     : SVVideoFormatDescriptionCreateFromH264ParameterSets(
                           allocator.get(), sets.pointers.size(), sets.pointers.data(), sets.sizes.data(), 4, &desc);
            if (status == 0) {
                CFRelease(desc);
            } else {
                EXPECT_EQ(status, kSVFormatDescriptionError_AllocationFailed);
                EXPECT_EQ(desc, nullptr);
            }
            EXPECT_EQ(allocator.outstanding(), 0) << fail;
        }
    }
}

TEST(SVVideoFormatDescription, RandomParameterSetsAreRefusedCleanly) {
    Sets avc(kAVCClip, false), hevc(kHEVCClip, true);
    uint32_t state = 5;
    auto next = [&] { return state = state * 1664525u + 1013904223u; };
    for (int round = 0; round < 4000; ++round) {
        const bool isHEVC = round % 2;
        Sets &base = isHEVC ? hevc : avc;
        std::vector<std::vector<uint8_t>> owned = base.owned;
        // Flip a few bits of one set and maybe truncate it.
        std::vector<uint8_t> &victim = owned[next() % owned.size()];
        for (int k = 0; k < 3; ++k) victim[(next() >> 8) % victim.size()] ^= uint8_t(1u << (next() % 8));
        if (next() % 2) victim.resize(1 + (next() >> 8) % victim.size());
        std::vector<const uint8_t *> pointers;
        std::vector<size_t> sizes;
        for (const auto &set : owned) pointers.push_back(set.data()), sizes.push_back(set.size());
        sorvel_test::LogCapture log(0);
        SVFormatDescriptionRef desc = nullptr;
        const OSStatus status = isHEVC ? SVVideoFormatDescriptionCreateFromHEVCParameterSets(
                                             nullptr, owned.size(), pointers.data(), sizes.data(), 4, nullptr, &desc)
                                       : SVVideoFormatDescriptionCreateFromH264ParameterSets(
                                             nullptr, owned.size(), pointers.data(), sizes.data(), 4, &desc);
        ASSERT_TRUE(status == 0 || status == kSVFormatDescriptionError_InvalidParameter) << status;
        if (desc) {
            EXPECT_GT(SVVideoFormatDescriptionGetDimensions(desc).width, 0);
            CFRelease(desc);
        }
    }
}

}  // namespace
