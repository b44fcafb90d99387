// SPDX-License-Identifier: Apache-2.0
// The sample-description bridge on entries written by a real muxer
// (tests/data/entries/, one 'stsd' entry per file, named after the codec
// and the container) and on entries rebuilt from their parts to reach each
// rule and each bad-input status.
#include <CoreVideo/CoreVideo.h>
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVSampleDescription.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/TestAllocator.h"
#include "support/TestData.h"

namespace {

using sorvel_test::Bytes;
using sorvel_test::LogCapture;

// Entries live in entries/video/ and entries/sound/.
Bytes entry(const std::string &name) {
    Bytes bytes = sorvel_test::readFile("entries/video/" + name + ".entry");
    if (bytes.empty()) bytes = sorvel_test::readFile("entries/sound/" + name + ".entry");
    EXPECT_FALSE(bytes.empty()) << name;
    return bytes;
}

std::vector<std::string> entryNames(const char *folder) {
    std::vector<std::string> names;
    for (const auto &file :
         std::filesystem::directory_iterator(sorvel_test::dataPath(std::string("entries/") + folder)))
        names.push_back(file.path().stem().string());
    std::sort(names.begin(), names.end());
    return names;
}

bool isMov(const std::string &name) {
    return name.find(".mov") != std::string::npos;
}

struct Description {
    SVFormatDescriptionRef desc = nullptr;
    ~Description() {
        if (desc) CFRelease(desc);
    }
};

OSStatus read(const Bytes &bytes, SVMediaType type, SVFormatDescriptionRef *out, CFStringRef flavor = nullptr) {
    return SVSampleDescriptionCreateFormatDescription(nullptr, type, bytes.data(), bytes.size(), flavor, out);
}

Bytes write(SVFormatDescriptionRef desc, CFStringRef flavor, OSStatus *status = nullptr) {
    CFDataRef data = nullptr;
    const OSStatus s = SVSampleDescriptionCopyAsBigEndianData(nullptr, desc, flavor, &data);
    if (status) *status = s;
    Bytes bytes;
    if (data) {
        bytes.assign(CFDataGetBytePtr(data), CFDataGetBytePtr(data) + CFDataGetLength(data));
        CFRelease(data);
    }
    return bytes;
}

CFTypeRef ext(SVFormatDescriptionRef desc, CFStringRef key) {
    return SVFormatDescriptionGetExtension(desc, key);
}

int64_t number(CFTypeRef value) {
    int64_t v = -999;
    if (value && CFGetTypeID(value) == CFNumberGetTypeID())
        CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberSInt64Type, &v);
    return v;
}

double real(CFTypeRef value) {
    double v = -999;
    if (value && CFGetTypeID(value) == CFNumberGetTypeID())
        CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberFloat64Type, &v);
    return v;
}

bool same(CFTypeRef a, CFTypeRef b) {
    return a == b || (a && b && CFEqual(a, b));
}

// Child atoms of a visual or sound entry, to rebuild it with changes.
struct Parts {
    Bytes fixed;
    std::vector<std::pair<std::string, Bytes>> atoms;
};

Parts split(const Bytes &e, size_t fixedSize) {
    Parts parts;
    parts.fixed.assign(e.begin(), e.begin() + long(fixedSize));
    for (size_t at = fixedSize; at + 8 <= e.size();) {
        const uint32_t size = uint32_t(e[at]) << 24 | e[at + 1] << 16 | e[at + 2] << 8 | e[at + 3];
        parts.atoms.push_back({std::string(e.begin() + long(at) + 4, e.begin() + long(at) + 8),
                               Bytes(e.begin() + long(at) + 8, e.begin() + long(at + size))});
        at += size;
    }
    return parts;
}

void put32(Bytes &b, size_t at, uint32_t v) {
    b[at] = uint8_t(v >> 24), b[at + 1] = uint8_t(v >> 16), b[at + 2] = uint8_t(v >> 8), b[at + 3] = uint8_t(v);
}

Bytes join(const Parts &parts) {
    Bytes e = parts.fixed;
    for (auto &[code, payload] : parts.atoms) {
        Bytes header(8);
        put32(header, 0, uint32_t(payload.size() + 8));
        std::memcpy(header.data() + 4, code.data(), 4);
        e.insert(e.end(), header.begin(), header.end());
        e.insert(e.end(), payload.begin(), payload.end());
    }
    put32(e, 0, uint32_t(e.size()));
    return e;
}

Bytes &atom(Parts &parts, const std::string &code) {
    for (auto &a : parts.atoms)
        if (a.first == code) return a.second;
    parts.atoms.push_back({code, {}});
    return parts.atoms.back().second;
}

// ---- round trips -------------------------------------------------------------

TEST(SVSampleDescription, RealEntriesRoundTripByteForByte) {
    for (int pass = 0; pass < 2; ++pass) {
        const std::vector<std::string> names = entryNames(pass == 0 ? "video" : "sound");
        EXPECT_GE(names.size(), 20u);
        for (const std::string &name : names) {
            SCOPED_TRACE(name);
            const SVMediaType type = pass == 0 ? kSVMediaType_Video : kSVMediaType_Audio;
            const Bytes bytes = entry(name);
            Description d;
            ASSERT_EQ(read(bytes, type, &d.desc), 0);
            EXPECT_EQ(SVFormatDescriptionGetMediaType(d.desc), type);
            // the flavour inferred is the container's
            const bool mov = isMov(name);  // .mp4, .m4a and .3gp entries are ISO
            EXPECT_EQ(ext(d.desc, kSVFormatDescriptionExtension_VerbatimSampleDescription) != nullptr, mov);
            EXPECT_EQ(ext(d.desc, kSVFormatDescriptionExtension_VerbatimISOSampleEntry) != nullptr, !mov);
            EXPECT_EQ(write(d.desc, nullptr), bytes);
            CFStringRef flavor =
                pass == 0 ? (mov ? kSVImageDescriptionFlavor_QuickTimeMovie : kSVImageDescriptionFlavor_ISOFamily)
                          : (mov ? kSVSoundDescriptionFlavor_QuickTimeMovie : kSVSoundDescriptionFlavor_ISOFamily);
            EXPECT_EQ(write(d.desc, flavor), bytes);
            // an explicit flavour reads exactly as the inferred one
            Description e;
            ASSERT_EQ(read(bytes, type, &e.desc, flavor), 0);
            EXPECT_TRUE(CFEqual(d.desc, e.desc));
            // the subtype is the entry's code for video
            if (pass == 0)
                EXPECT_EQ(SVFormatDescriptionGetMediaSubType(d.desc),
                          FourCharCode(bytes[4]) << 24 | bytes[5] << 16 | bytes[6] << 8 | bytes[7]);
            // every child atom is kept whole, keyed by its code
            CFTypeRef atoms = ext(d.desc, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms);
            ASSERT_TRUE(atoms && CFGetTypeID(atoms) == CFDictionaryGetTypeID());
            for (auto &[code, payload] : split(bytes, pass == 0 ? 86
                                                                : (bytes[17] == 0   ? 36
                                                                   : bytes[17] == 1 ? 52
                                                                                    : 72))
                                             .atoms) {
                CFStringRef key = CFStringCreateWithCString(nullptr, code.c_str(), kCFStringEncodingASCII);
                CFTypeRef value = CFDictionaryGetValue(static_cast<CFDictionaryRef>(atoms), key);
                CFRelease(key);
                ASSERT_TRUE(value && CFGetTypeID(value) == CFDataGetTypeID()) << code;
                EXPECT_EQ(Bytes(CFDataGetBytePtr(static_cast<CFDataRef>(value)),
                                CFDataGetBytePtr(static_cast<CFDataRef>(value)) +
                                    CFDataGetLength(static_cast<CFDataRef>(value))),
                          payload)
                    << code;
            }
        }
    }
}

TEST(SVSampleDescription, BlockBufferHoldsTheSameBytes) {
    const Bytes bytes = entry("avc1_bt709_sar40x33.mov");
    Description d;
    ASSERT_EQ(read(bytes, kSVMediaType_Video, &d.desc), 0);
    SVBlockBufferRef buffer = nullptr;
    ASSERT_EQ(SVSampleDescriptionCopyAsBigEndianBlockBuffer(nullptr, d.desc, nullptr, &buffer), 0);
    ASSERT_EQ(SVBlockBufferGetDataLength(buffer), bytes.size());
    Bytes copy(bytes.size());
    ASSERT_EQ(SVBlockBufferCopyDataBytes(buffer, 0, copy.size(), copy.data()), 0);
    EXPECT_EQ(copy, bytes);
    CFRelease(buffer);
}

// ---- what real entries say -----------------------------------------------------

TEST(SVSampleDescription, VideoExtensionsOfRealEntries) {
    struct Case {
        const char *name;
        CFStringRef primaries, transfer, matrix;
        int range;  // -1 absent, 0 false, 1 true
        int64_t parH, parV;
        int64_t fields;
        CFStringRef detail;
    } cases[] = {
        {"avc1_bt709_sar40x33.mov", kCVImageBufferColorPrimaries_ITU_R_709_2,
         kCVImageBufferTransferFunction_ITU_R_709_2, kCVImageBufferYCbCrMatrix_ITU_R_709_2, -1, 40, 33, 1, nullptr},
        {"avc1_bt709_full.mp4", kCVImageBufferColorPrimaries_ITU_R_709_2, kCVImageBufferTransferFunction_ITU_R_709_2,
         kCVImageBufferYCbCrMatrix_ITU_R_709_2, 1, 1, 1, 1, nullptr},
        {"avc1_bt470bg.mp4", kCVImageBufferColorPrimaries_EBU_3213, kCVImageBufferTransferFunction_UseGamma,
         kCVImageBufferYCbCrMatrix_ITU_R_601_4, 0, 1, 1, 1, nullptr},
        {"avc1_tff_170m.mov", kCVImageBufferColorPrimaries_SMPTE_C, kCVImageBufferTransferFunction_ITU_R_709_2,
         kCVImageBufferYCbCrMatrix_ITU_R_601_4, -1, 1, 1, 2, nullptr},  // interlaced SPS, no 'fiel': no order
        {"hvc1_pq.mp4", kCVImageBufferColorPrimaries_ITU_R_2020, kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ,
         kCVImageBufferYCbCrMatrix_ITU_R_2020, 1, 1, 1, 1, nullptr},
        // no 'colr': what the SPS says (x265 marked this one full range)
        {"hev1_sar16x11.mov", nullptr, nullptr, nullptr, 1, 16, 11, 1, nullptr},
        {"apch_hlg_tb.mov", kCVImageBufferColorPrimaries_ITU_R_2020, kCVImageBufferTransferFunction_ITU_R_2100_HLG,
         kCVImageBufferYCbCrMatrix_ITU_R_2020, -1, 1, 1, 2, kCVImageBufferFieldDetailSpatialFirstLineEarly},
        {"apcn_bt709.mov", kCVImageBufferColorPrimaries_ITU_R_709_2, kCVImageBufferTransferFunction_ITU_R_709_2,
         kCVImageBufferYCbCrMatrix_ITU_R_709_2, -1, 1, 1, 1, nullptr},
        // a generic codec without 'colr' gets no colour at all
        {"mp4v_plain.mp4", nullptr, nullptr, nullptr, -1, 1, 1, -999, nullptr},
        {"mp4v_sar.mov", nullptr, nullptr, nullptr, -1, 12, 11, -999, nullptr},
        {"prores_bb.mov", nullptr, nullptr, nullptr, -1, 1, 1, 2, kCVImageBufferFieldDetailTemporalBottomFirst},
        {"prores_bt.mov", nullptr, nullptr, nullptr, -1, 10, 11, 2, kCVImageBufferFieldDetailSpatialFirstLineLate},
        // 'raw ' is a video code too
        {"raw420.mov", nullptr, nullptr, nullptr, -1, 1, 1, 1, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Description d;
        const Bytes bytes = entry(c.name);
        ASSERT_EQ(read(bytes, kSVMediaType_Video, &d.desc), 0);
        EXPECT_TRUE(same(ext(d.desc, kCVImageBufferColorPrimariesKey), c.primaries));
        EXPECT_TRUE(same(ext(d.desc, kCVImageBufferTransferFunctionKey), c.transfer));
        EXPECT_TRUE(same(ext(d.desc, kCVImageBufferYCbCrMatrixKey), c.matrix));
        CFTypeRef range = ext(d.desc, kSVFormatDescriptionExtension_FullRangeVideo);
        EXPECT_EQ(range ? int(CFBooleanGetValue(static_cast<CFBooleanRef>(range))) : -1, c.range);
        auto par = static_cast<CFDictionaryRef>(ext(d.desc, kCVImageBufferPixelAspectRatioKey));
        ASSERT_TRUE(par);
        EXPECT_EQ(number(CFDictionaryGetValue(par, kCVImageBufferPixelAspectRatioHorizontalSpacingKey)), c.parH);
        EXPECT_EQ(number(CFDictionaryGetValue(par, kCVImageBufferPixelAspectRatioVerticalSpacingKey)), c.parV);
        EXPECT_EQ(number(ext(d.desc, kCVImageBufferFieldCountKey)), c.fields);
        EXPECT_TRUE(same(ext(d.desc, kCVImageBufferFieldDetailKey), c.detail));
        const SVVideoDimensions dims = SVVideoFormatDescriptionGetDimensions(d.desc);
        // the entry's own width and height
        EXPECT_EQ(dims.width, bytes[32] << 8 | bytes[33]);
        EXPECT_EQ(dims.height, bytes[34] << 8 | bytes[35]);
    }
    Description gamma;
    ASSERT_EQ(read(entry("avc1_bt470bg.mp4"), kSVMediaType_Video, &gamma.desc), 0);
    EXPECT_DOUBLE_EQ(real(ext(gamma.desc, kCVImageBufferGammaLevelKey)), 2.8);
}

TEST(SVSampleDescription, VisualFieldsBecomeExtensions) {
    Description d;
    ASSERT_EQ(read(entry("raw_2vuy.mov"), kSVMediaType_Video, &d.desc), 0);
    EXPECT_EQ(number(ext(d.desc, kSVFormatDescriptionExtension_Version)), 2);
    EXPECT_EQ(number(ext(d.desc, kSVFormatDescriptionExtension_SpatialQuality)), 1024);
    EXPECT_TRUE(same(ext(d.desc, kSVFormatDescriptionExtension_Vendor), CFSTR("FFMP")));
    EXPECT_TRUE(same(ext(d.desc, kSVFormatDescriptionExtension_CompressorName), CFSTR("Lavc59.37.100 rawvideo")));
    EXPECT_DOUBLE_EQ(real(ext(d.desc, kSVFormatDescriptionExtension_HorizontalResolution)), 72.0);
    EXPECT_EQ(number(ext(d.desc, kSVFormatDescriptionExtension_Depth)), 24);
    EXPECT_EQ(number(ext(d.desc, kSVFormatDescriptionExtension_ColorTableID)), -1);
    EXPECT_EQ(number(ext(d.desc, kSVFormatDescriptionExtension_FrameCount)), 1);
    // ISO entries have no vendor
    Description iso;
    ASSERT_EQ(read(entry("mp4v_plain.mp4"), kSVMediaType_Video, &iso.desc), 0);
    EXPECT_EQ(ext(iso.desc, kSVFormatDescriptionExtension_Vendor), nullptr);
}

TEST(SVSampleDescription, CleanApertureKeepsExactRationalsAndCentreOffsets) {
    const Bytes bytes = entry("raw_2vuy.mov");
    Parts parts = split(bytes, 86);
    Bytes &clap = atom(parts, "clap");
    // 2001/2 wide, 120 high, offsets -3/4 and 5 from the centre
    const uint32_t values[8] = {2001, 2, 120, 1, uint32_t(-3), 4, 5, 1};
    for (int i = 0; i < 8; ++i) put32(clap, size_t(4 * i), values[i]);
    const Bytes changed = join(parts);
    Description d;
    ASSERT_EQ(read(changed, kSVMediaType_Video, &d.desc), 0);
    auto dict = static_cast<CFDictionaryRef>(ext(d.desc, kCVImageBufferCleanApertureKey));
    ASSERT_TRUE(dict);
    EXPECT_DOUBLE_EQ(real(CFDictionaryGetValue(dict, kCVImageBufferCleanApertureWidthKey)), 1000.5);
    EXPECT_EQ(number(CFDictionaryGetValue(dict, kCVImageBufferCleanApertureHeightKey)), 120);
    EXPECT_DOUBLE_EQ(real(CFDictionaryGetValue(dict, kCVImageBufferCleanApertureHorizontalOffsetKey)), -0.75);
    auto rational = static_cast<CFArrayRef>(
        CFDictionaryGetValue(dict, kSVFormatDescriptionKey_CleanApertureHorizontalOffsetRational));
    ASSERT_TRUE(rational && CFArrayGetCount(rational) == 2);
    EXPECT_EQ(number(CFArrayGetValueAtIndex(rational, 0)), -3);
    EXPECT_EQ(number(CFArrayGetValueAtIndex(rational, 1)), 4);
    rational = static_cast<CFArrayRef>(CFDictionaryGetValue(dict, kSVFormatDescriptionKey_CleanApertureWidthRational));
    EXPECT_EQ(number(CFArrayGetValueAtIndex(rational, 0)), 2001);
    // the platform centres the aperture: origin = (160 - 1000.5) / 2 + offset
    const CGRect rect = SVVideoFormatDescriptionGetCleanAperture(d.desc, true);
    EXPECT_DOUBLE_EQ(rect.size.width, 1000.5);
    EXPECT_DOUBLE_EQ(rect.origin.x, (160 - 1000.5) / 2 - 0.75);
    EXPECT_EQ(write(d.desc, nullptr), changed);

    // written from scratch, the Rational keys give the same 'clap' back
    CFMutableDictionaryRef e = CFDictionaryCreateMutableCopy(nullptr, 0, SVFormatDescriptionGetExtensions(d.desc));
    CFDictionaryRemoveValue(e, kSVFormatDescriptionExtension_VerbatimSampleDescription);
    SVFormatDescriptionRef fresh = nullptr;
    ASSERT_EQ(SVVideoFormatDescriptionCreate(nullptr, 'raw ', 160, 120, e, &fresh), 0);
    CFRelease(e);
    const Bytes written = write(fresh, kSVImageDescriptionFlavor_QuickTimeMovie);
    CFRelease(fresh);
    const Parts back = split(written, 86);
    bool found = false;
    for (auto &[code, payload] : back.atoms)
        if (code == "clap") {
            found = true;
            EXPECT_EQ(payload, clap);
        }
    EXPECT_TRUE(found);
}

TEST(SVSampleDescription, AudioOfRealEntries) {
    struct Case {
        const char *name;
        FourCharCode format;
        double rate;
        uint32_t channels, bits, flags, framesPerPacket;
        size_t cookie;
        AudioChannelLayoutTag layoutTag;  // 0: no layout
    } cases[] = {
        {"aac_48k_mono.mp4", kAudioFormatMPEG4AAC, 48000, 1, 0, 0, 1024, 5, 0},
        {"aac_48k_stereo.mov", kAudioFormatMPEG4AAC, 48000, 2, 0, 0, 1024, 5, 0x650002},
        // the entry's template says 2 channels; the config says 5.1
        {"aac_51.m4a", kAudioFormatMPEG4AAC, 44100, 6, 0, 0, 1024, 5, 0},
        {"alac.m4a", 'alac', 48000, 1, 0, 1, 4096, 24, 0},
        {"alac.mov", 'alac', 48000, 1, 0, 1, 4096, 24, 0x640001},
        {"ac3.mp4", kAudioFormatAC3, 48000, 2, 0, 0, 1536, 0, 0},
        {"ac3.mov", kAudioFormatAC3, 48000, 2, 0, 0, 1536, 0, 0x650002},
        {"mp3.mp4", kAudioFormatMPEGLayer3, 48000, 2, 0, 0, 1152, 0, 0},
        {"pcm_s16le.mov", kAudioFormatLinearPCM, 48000, 1, 16, 0xC, 1, 0, 0x640001},
        {"pcm_s16be.mov", kAudioFormatLinearPCM, 48000, 1, 16, 0xE, 1, 0, 0x640001},
        {"pcm_s24le.mov", kAudioFormatLinearPCM, 48000, 1, 24, 0xC, 1, 0, 0x640001},
        {"pcm_f32le.mov", kAudioFormatLinearPCM, 48000, 1, 32, 0x9, 1, 0, 0x640001},
        {"pcm_96k.mov", kAudioFormatLinearPCM, 96000, 1, 24, 0xC, 1, 0, 0x640001},
        {"ulaw.mov", kAudioFormatULaw, 8000, 1, 8, 0, 1, 0, 0x10000},
        {"alaw.mov", kAudioFormatALaw, 44100, 1, 8, 0, 1, 0, 0x10000},
        {"pcm_u8.mov", kAudioFormatLinearPCM, 44100, 1, 8, 0x8, 1, 0, 0x640001},  // 'raw ': unsigned
        {"pcm_f64be.mov", kAudioFormatLinearPCM, 44100, 1, 64, 0xB, 1, 0, 0x640001},
        {"pcm_s32.mov", kAudioFormatLinearPCM, 44100, 1, 32, 0xC, 1, 0, 0x640001},
        {"alac24.m4a", 'alac', 44100, 2, 0, 3, 4096, 24, 0},
        // 5.1: the entry says 2 in its template field and 6 in its version 1 field
        {"ac3_51.mp4", kAudioFormatAC3, 48000, 6, 0, 0, 1536, 0, 0},
        {"ac3_51.mov", kAudioFormatAC3, 48000, 6, 0, 0, 1536, 0, 0x7B0006},
        {"eac3.mp4", 'ec-3', 48000, 2, 0, 0, 1536, 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Description d;
        ASSERT_EQ(read(entry(c.name), kSVMediaType_Audio, &d.desc), 0);
        const AudioStreamBasicDescription *asbd = SVAudioFormatDescriptionGetStreamBasicDescription(d.desc);
        ASSERT_TRUE(asbd);
        EXPECT_EQ(asbd->mFormatID, c.format);
        EXPECT_EQ(SVFormatDescriptionGetMediaSubType(d.desc), c.format);
        EXPECT_DOUBLE_EQ(asbd->mSampleRate, c.rate);
        EXPECT_EQ(asbd->mChannelsPerFrame, c.channels);
        EXPECT_EQ(asbd->mBitsPerChannel, c.bits);
        EXPECT_EQ(asbd->mFormatFlags, c.flags);
        EXPECT_EQ(asbd->mFramesPerPacket, c.framesPerPacket);
        size_t size = 99;
        SVAudioFormatDescriptionGetMagicCookie(d.desc, &size);
        EXPECT_EQ(size, c.cookie);
        const AudioChannelLayout *layout = SVAudioFormatDescriptionGetChannelLayout(d.desc, &size);
        EXPECT_EQ(layout ? layout->mChannelLayoutTag : 0, c.layoutTag);
    }
}

// ---- precedence -------------------------------------------------------------------

TEST(SVSampleDescription, AtomsWinOverParameterSets) {
    // The SPS of this entry says 40:33, BT.709 and video range.
    const Bytes bytes = entry("avc1_bt709_sar40x33.mov");
    Description fromSPS;
    {
        Parts parts = split(bytes, 86);
        parts.atoms.erase(parts.atoms.begin() + 1, parts.atoms.end());  // only avcC
        ASSERT_EQ(read(join(parts), kSVMediaType_Video, &fromSPS.desc), 0);
        auto par = static_cast<CFDictionaryRef>(ext(fromSPS.desc, kCVImageBufferPixelAspectRatioKey));
        ASSERT_TRUE(par);
        EXPECT_EQ(number(CFDictionaryGetValue(par, kCVImageBufferPixelAspectRatioHorizontalSpacingKey)), 40);
        EXPECT_TRUE(same(ext(fromSPS.desc, kCVImageBufferColorPrimariesKey), kCVImageBufferColorPrimaries_ITU_R_709_2));
    }
    Parts parts = split(bytes, 86);
    Bytes &pasp = atom(parts, "pasp");
    put32(pasp, 0, 1), put32(pasp, 4, 1);
    Bytes &colr = atom(parts, "colr");
    colr = {'n', 'c', 'l', 'c', 0, 5, 0, 2, 0, 99};  // EBU primaries, transfer unspecified, matrix unmapped
    Description d;
    ASSERT_EQ(read(join(parts), kSVMediaType_Video, &d.desc), 0);
    auto par = static_cast<CFDictionaryRef>(ext(d.desc, kCVImageBufferPixelAspectRatioKey));
    EXPECT_EQ(number(CFDictionaryGetValue(par, kCVImageBufferPixelAspectRatioHorizontalSpacingKey)), 1);
    EXPECT_TRUE(same(ext(d.desc, kCVImageBufferColorPrimariesKey), kCVImageBufferColorPrimaries_EBU_3213));
    // unspecified and unmapped codes leave what the SPS said
    EXPECT_TRUE(same(ext(d.desc, kCVImageBufferTransferFunctionKey), kCVImageBufferTransferFunction_ITU_R_709_2));
    EXPECT_TRUE(same(ext(d.desc, kCVImageBufferYCbCrMatrixKey), kCVImageBufferYCbCrMatrix_ITU_R_709_2));
    // 'nclc' says nothing about range
    EXPECT_EQ(ext(d.desc, kSVFormatDescriptionExtension_FullRangeVideo), nullptr);
    // the rest of the parameter-set view is the creator's, unchanged
    EXPECT_TRUE(same(ext(d.desc, kCVImageBufferChromaLocationTopFieldKey),
                     ext(fromSPS.desc, kCVImageBufferChromaLocationTopFieldKey)));
}

TEST(SVSampleDescription, ParameterSetsMatchTheCreatorsAndGettersAnswerForInBandForms) {
    for (const char *name : {"avc1_bt709_sar40x33.mov", "avc3_plain.mp4", "hev1_sar16x11.mov", "hvc1_pq.mp4"}) {
        SCOPED_TRACE(name);
        Description d;
        ASSERT_EQ(read(entry(name), kSVMediaType_Video, &d.desc), 0);
        const bool hevc = name[0] == 'h';
        size_t count = 0;
        int header = 0;
        const uint8_t *set = nullptr;
        size_t size = 0;
        ASSERT_EQ(hevc ? SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(d.desc, 0, &set, &size, &count, &header)
                       : SVVideoFormatDescriptionGetH264ParameterSetAtIndex(d.desc, 0, &set, &size, &count, &header),
                  0);
        EXPECT_EQ(header, 4);
        std::vector<const uint8_t *> sets(count);
        std::vector<size_t> sizes(count);
        for (size_t i = 0; i < count; ++i)
            ASSERT_EQ(hevc ? SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(d.desc, i, &sets[i], &sizes[i], nullptr,
                                                                                nullptr)
                           : SVVideoFormatDescriptionGetH264ParameterSetAtIndex(d.desc, i, &sets[i], &sizes[i], nullptr,
                                                                                nullptr),
                      0);
        Description created;
        ASSERT_EQ(hevc ? SVVideoFormatDescriptionCreateFromHEVCParameterSets(nullptr, count, sets.data(), sizes.data(),
                                                                             header, nullptr, &created.desc)
                       : SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, count, sets.data(), sizes.data(),
                                                                             header, &created.desc),
                  0);
        // every derived key the atoms do not override is the creator's
        for (CFStringRef key : {kCVImageBufferChromaLocationTopFieldKey, kCVImageBufferChromaLocationBottomFieldKey}) {
            EXPECT_TRUE(same(ext(d.desc, key), ext(created.desc, key)));
        }
        // the coding info answers from the same SPS, whatever the subtype
        SVVideoCodingInfo info{};
        ASSERT_EQ(SVVideoFormatDescriptionGetCodingInfo(d.desc, &info), 0);
        EXPECT_EQ(info.codecType, hevc ? 'hvc1' : 'avc1');
        EXPECT_EQ(info.width, SVVideoFormatDescriptionGetDimensions(created.desc).width);
        // the wrong codec family still refuses
        EXPECT_EQ(
            hevc ? SVVideoFormatDescriptionGetH264ParameterSetAtIndex(d.desc, 0, nullptr, nullptr, nullptr, nullptr)
                 : SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(d.desc, 0, nullptr, nullptr, nullptr, nullptr),
            kSVFormatDescriptionError_InvalidParameter);
    }
}

// ---- writing descriptions made elsewhere ---------------------------------------------

TEST(SVSampleDescription, WritesCreatorDescriptionsByTheFlavoursConventions) {
    Description source;
    ASSERT_EQ(read(entry("avc1_bt709_full.mp4"), kSVMediaType_Video, &source.desc), 0);
    const uint8_t *sets[2];
    size_t sizes[2], count = 0;
    ASSERT_EQ(SVVideoFormatDescriptionGetH264ParameterSetAtIndex(source.desc, 0, &sets[0], &sizes[0], &count, nullptr),
              0);
    ASSERT_EQ(count, 2u);
    ASSERT_EQ(SVVideoFormatDescriptionGetH264ParameterSetAtIndex(source.desc, 1, &sets[1], &sizes[1], nullptr, nullptr),
              0);
    Description created;
    ASSERT_EQ(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, 2, sets, sizes, 4, &created.desc), 0);

    struct Case {
        CFStringRef flavor;
        Bytes colr;
        bool fiel;
    } cases[] = {
        {kSVImageDescriptionFlavor_QuickTimeMovie, {'n', 'c', 'l', 'c', 0, 1, 0, 1, 0, 1}, true},
        {nullptr, {'n', 'c', 'l', 'c', 0, 1, 0, 1, 0, 1}, true},
        {kSVImageDescriptionFlavor_ISOFamily, {'n', 'c', 'l', 'x', 0, 1, 0, 1, 0, 1, 0x80}, false},
    };
    for (const Case &c : cases) {
        OSStatus status = -1;
        const Bytes written = write(created.desc, c.flavor, &status);
        ASSERT_EQ(status, 0);
        const Parts parts = split(written, 86);
        std::vector<std::string> codes;
        for (auto &[code, payload] : parts.atoms) {
            codes.push_back(code);
            if (code == "colr") EXPECT_EQ(payload, c.colr);
        }
        // square pixels write no 'pasp'; the record comes first
        ASSERT_FALSE(codes.empty());
        EXPECT_EQ(codes[0], "avcC");
        EXPECT_EQ(std::count(codes.begin(), codes.end(), "pasp"), 0);
        EXPECT_EQ(std::count(codes.begin(), codes.end(), "fiel"), c.fiel ? 1 : 0);
        // and it reads back as the same stream
        Description back;
        ASSERT_EQ(read(written, kSVMediaType_Video, &back.desc), 0);
        EXPECT_EQ(SVFormatDescriptionGetMediaSubType(back.desc), 'avc1');
        // full range: from the 'nclx' bit in ISO files, from the SPS under 'nclc'
        EXPECT_TRUE(same(ext(back.desc, kSVFormatDescriptionExtension_FullRangeVideo), kCFBooleanTrue));
        for (CFStringRef key : {kCVImageBufferColorPrimariesKey, kCVImageBufferYCbCrMatrixKey,
                                kCVImageBufferPixelAspectRatioKey, kCVImageBufferFieldCountKey})
            EXPECT_TRUE(same(ext(back.desc, key), ext(created.desc, key)));
        EXPECT_EQ(write(back.desc, c.flavor), written);
    }
}

TEST(SVSampleDescription, WritesAudioFromItsPayload) {
    for (const char *name : {"aac_51.m4a", "alac.mov", "pcm_s24le.mov"}) {
        SCOPED_TRACE(name);
        Description d;
        ASSERT_EQ(read(entry(name), kSVMediaType_Audio, &d.desc), 0);
        size_t cookieSize = 0, layoutSize = 0;
        const void *cookie = SVAudioFormatDescriptionGetMagicCookie(d.desc, &cookieSize);
        const AudioChannelLayout *layout = SVAudioFormatDescriptionGetChannelLayout(d.desc, &layoutSize);
        Description plain;
        ASSERT_EQ(SVAudioFormatDescriptionCreate(nullptr, SVAudioFormatDescriptionGetStreamBasicDescription(d.desc),
                                                 layoutSize, layout, cookieSize, cookie, nullptr, &plain.desc),
                  0);
        const bool pcm = std::string(name).find("pcm") == 0;
        OSStatus status = -1;
        Bytes iso = write(plain.desc, kSVSoundDescriptionFlavor_ISOFamily, &status);
        EXPECT_EQ(status, pcm ? kSVSampleDescriptionError_UnsupportedFormat : 0);
        for (CFStringRef flavor : {kSVSoundDescriptionFlavor_QuickTimeMovie, kSVSoundDescriptionFlavor_QuickTimeMovieV2,
                                   kSVSoundDescriptionFlavor_ISOFamily}) {
            const Bytes written = write(plain.desc, flavor, &status);
            if (pcm && flavor == kSVSoundDescriptionFlavor_ISOFamily) continue;
            ASSERT_EQ(status, 0);
            // QuickTime movies: version 1 with the codec atoms in 'wave' for
            // AAC and ALAC, version 2 for PCM; ISO: version 0
            const int version = flavor == kSVSoundDescriptionFlavor_ISOFamily                 ? 0
                                : pcm || flavor == kSVSoundDescriptionFlavor_QuickTimeMovieV2 ? 2
                                                                                              : 1;
            EXPECT_EQ(written[16] << 8 | written[17], version);
            const Parts parts = split(written, version == 0 ? 36 : version == 1 ? 52 : 72);
            bool hasWave = false;
            for (auto &[code, payload] : parts.atoms) hasWave |= code == "wave";
            EXPECT_EQ(hasWave, version == 1);
            Description back;
            ASSERT_EQ(read(written, kSVMediaType_Audio, &back.desc, flavor), 0);
            // the stream, cookie and layout survive (the layout only in QuickTime)
            const AudioStreamBasicDescription *a = SVAudioFormatDescriptionGetStreamBasicDescription(plain.desc);
            const AudioStreamBasicDescription *b = SVAudioFormatDescriptionGetStreamBasicDescription(back.desc);
            EXPECT_EQ(a->mFormatID, b->mFormatID);
            EXPECT_EQ(a->mSampleRate, b->mSampleRate);
            EXPECT_EQ(a->mChannelsPerFrame, b->mChannelsPerFrame);
            EXPECT_EQ(a->mFramesPerPacket, b->mFramesPerPacket);
            EXPECT_EQ(a->mFormatFlags, b->mFormatFlags);
            const SVAudioFormatDescriptionMask mask =
                kSVAudioFormatDescriptionMask_MagicCookie |
                (flavor == kSVSoundDescriptionFlavor_ISOFamily ? 0 : kSVAudioFormatDescriptionMask_ChannelLayout);
            EXPECT_TRUE(SVAudioFormatDescriptionEqual(plain.desc, back.desc, mask, nullptr));
        }
    }
}

CFDictionaryRef dictionary(std::initializer_list<std::pair<CFStringRef, CFTypeRef>> items) {
    CFMutableDictionaryRef d =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    for (auto &[key, value] : items) CFDictionarySetValue(d, key, value);
    return d;
}

CFNumberRef integer(int32_t v) {
    return CFNumberCreate(nullptr, kCFNumberSInt32Type, &v);
}

TEST(SVSampleDescription, WritesPixelBufferDescriptions) {
    CVPixelBufferRef pixels = nullptr;
    ASSERT_EQ(CVPixelBufferCreate(nullptr, 64, 48, kCVPixelFormatType_422YpCbCr8, nullptr, &pixels), kCVReturnSuccess);
    CFNumberRef n4 = integer(4), n3 = integer(3), n2 = integer(2), n60 = integer(60), n40 = integer(40),
                n0 = integer(0);
    CFDictionaryRef par = dictionary({{kCVImageBufferPixelAspectRatioHorizontalSpacingKey, n4},
                                      {kCVImageBufferPixelAspectRatioVerticalSpacingKey, n3}});
    CFDictionaryRef clap = dictionary({{kCVImageBufferCleanApertureWidthKey, n60},
                                       {kCVImageBufferCleanApertureHeightKey, n40},
                                       {kCVImageBufferCleanApertureHorizontalOffsetKey, n0},
                                       {kCVImageBufferCleanApertureVerticalOffsetKey, n2}});
    CVBufferSetAttachment(pixels, kCVImageBufferColorPrimariesKey, kCVImageBufferColorPrimaries_ITU_R_709_2,
                          kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(pixels, kCVImageBufferTransferFunctionKey, kCVImageBufferTransferFunction_ITU_R_709_2,
                          kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(pixels, kCVImageBufferYCbCrMatrixKey, kCVImageBufferYCbCrMatrix_ITU_R_601_4,
                          kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(pixels, kCVImageBufferPixelAspectRatioKey, par, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(pixels, kCVImageBufferCleanApertureKey, clap, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(pixels, kCVImageBufferFieldCountKey, n2, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(pixels, kCVImageBufferFieldDetailKey, kCVImageBufferFieldDetailTemporalBottomFirst,
                          kCVAttachmentMode_ShouldPropagate);
    for (CFTypeRef o : {(CFTypeRef)n4, (CFTypeRef)n3, (CFTypeRef)n2, (CFTypeRef)n60, (CFTypeRef)n40, (CFTypeRef)n0,
                        (CFTypeRef)par, (CFTypeRef)clap})
        CFRelease(o);
    Description d;
    ASSERT_EQ(SVVideoFormatDescriptionCreateForImageBuffer(nullptr, pixels, &d.desc), 0);
    CFRelease(pixels);

    struct Case {
        CFStringRef flavor;
        std::vector<std::pair<std::string, Bytes>> atoms;  // in order
    } cases[] = {
        {kSVImageDescriptionFlavor_QuickTimeMovie,
         {{"colr", {'n', 'c', 'l', 'c', 0, 1, 0, 1, 0, 6}},
          {"pasp", {0, 0, 0, 4, 0, 0, 0, 3}},
          {"clap", {0, 0, 0, 60, 0, 0, 0, 1, 0, 0, 0, 40, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 1}},
          {"fiel", {2, 6}}}},
        {kSVImageDescriptionFlavor_ISOFamily,
         {{"colr", {'n', 'c', 'l', 'x', 0, 1, 0, 1, 0, 6, 0}},
          {"pasp", {0, 0, 0, 4, 0, 0, 0, 3}},
          {"clap",
           {0, 0, 0, 60, 0, 0, 0, 1, 0, 0, 0, 40, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 1}}}},
    };
    for (const Case &c : cases) {
        OSStatus status = -1;
        const Bytes written = write(d.desc, c.flavor, &status);
        ASSERT_EQ(status, 0);
        EXPECT_EQ(std::string(written.begin() + 4, written.begin() + 8), "2vuy");
        EXPECT_EQ(written[32] << 8 | written[33], 64);
        EXPECT_EQ(written[34] << 8 | written[35], 48);
        EXPECT_EQ(split(written, 86).atoms, c.atoms);
        Description back;
        ASSERT_EQ(read(written, kSVMediaType_Video, &back.desc, c.flavor), 0);
        for (CFStringRef key : {kCVImageBufferColorPrimariesKey, kCVImageBufferTransferFunctionKey,
                                kCVImageBufferYCbCrMatrixKey, kCVImageBufferPixelAspectRatioKey})
            EXPECT_TRUE(same(ext(back.desc, key), ext(d.desc, key)));
        const CGRect a = SVVideoFormatDescriptionGetCleanAperture(d.desc, true);
        const CGRect b = SVVideoFormatDescriptionGetCleanAperture(back.desc, true);
        EXPECT_TRUE(CGRectEqualToRect(a, b));
    }
}

TEST(SVSampleDescription, ISOVersionOneSoundEntriesKeepTheVersionZeroLayout) {
    // A version 1 ISO entry of 96 kHz: 36 fixed bytes, the rate in 'srat'.
    Parts parts = split(entry("ulaw.mov"), 36);
    put32(parts.fixed, 16, 0x00010000);
    atom(parts, "srat") = {0, 0, 0, 0, 0, 1, 0x77, 0};
    const Bytes bytes = join(parts);
    Description d;
    ASSERT_EQ(read(bytes, kSVMediaType_Audio, &d.desc, kSVSoundDescriptionFlavor_ISOFamily), 0);
    EXPECT_DOUBLE_EQ(SVAudioFormatDescriptionGetStreamBasicDescription(d.desc)->mSampleRate, 96000);
    EXPECT_EQ(write(d.desc, kSVSoundDescriptionFlavor_ISOFamily), bytes);
    // read as QuickTime, the same bytes lack the version 1 fields' atoms
    LogCapture log;
    Description qt;
    EXPECT_NE(read(bytes, kSVMediaType_Audio, &qt.desc, kSVSoundDescriptionFlavor_QuickTimeMovie), 0);
}

// ---- bad input ---------------------------------------------------------------------

TEST(SVSampleDescription, BadEntriesGiveStatusesAndLogLines) {
    const Bytes video = entry("avc1_bt709_sar40x33.mov");
    const Bytes sound = entry("aac_48k_mono.mp4");
    auto changed = [](Bytes e, size_t at, uint32_t value) {
        put32(e, at, value);
        return e;
    };
    auto withAtom = [&](const std::string &code, const Bytes &payload) {
        Parts parts = split(video, 86);
        atom(parts, code) = payload;
        return join(parts);
    };
    Bytes bigESDS = sound;  // the ES_Descriptor's size in five bytes
    {
        Parts parts = split(sound, 36);
        Bytes &esds = atom(parts, "esds");
        esds.insert(esds.begin() + 5, 0x80);
        bigESDS = join(parts);
    }
    Bytes badVideoESDS;  // the same five-byte size in MPEG-4 video's 'esds'
    {
        Parts parts = split(entry("mp4v_plain.mp4"), 86);
        Bytes &esds = atom(parts, "esds");
        esds.insert(esds.begin() + 5, 0x80);
        badVideoESDS = join(parts);
    }
    const Bytes v2 = entry("pcm_96k.mov");
    struct Case {
        const char *what;
        SVMediaType type;
        Bytes bytes;
        OSStatus status;
        const char *log;
    } cases[] = {
        {"shorter than the header", kSVMediaType_Video, Bytes(video.begin(), video.begin() + 15),
         kSVSampleDescriptionError_Truncated, "shorter than its header"},
        {"size past the end", kSVMediaType_Video, changed(video, 0, uint32_t(video.size() + 1)),
         kSVSampleDescriptionError_Truncated, "does not fit"},
        {"size below the visual fields", kSVMediaType_Video, changed(video, 0, 85), kSVSampleDescriptionError_Truncated,
         "does not fit"},
        {"size below the sound fields", kSVMediaType_Audio, changed(sound, 0, 35), kSVSampleDescriptionError_Truncated,
         "does not fit"},
        {"zero-sized atom", kSVMediaType_Video, changed(video, 86, 0), kSVSampleDescriptionError_BadAtom, "has size 0"},
        {"atom below 8", kSVMediaType_Video, changed(video, 86, 7), kSVSampleDescriptionError_BadAtom, "has size 7"},
        {"huge atom", kSVMediaType_Video, changed(video, 86, 0xFFFFFFF0), kSVSampleDescriptionError_BadAtom,
         "has size 4294967280"},
        {"colr of unknown type", kSVMediaType_Video, withAtom("colr", {'a', 'b', 'c', 'd', 0, 1, 0, 1, 0, 1}),
         kSVSampleDescriptionError_BadAtom, "'colr' of unknown type"},
        {"short nclx", kSVMediaType_Video, withAtom("colr", {'n', 'c', 'l', 'x', 0, 1, 0, 1, 0, 1}),
         kSVSampleDescriptionError_BadAtom, "shorter than its type"},
        {"pasp 0:0", kSVMediaType_Video, withAtom("pasp", Bytes(8, 0)), kSVSampleDescriptionError_BadAtom,
         "zero spacing"},
        {"clap zero denominator", kSVMediaType_Video,
         withAtom("clap",
                  {0, 0, 0, 160, 0, 0, 0, 1, 0, 0, 0, 120, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1}),
         kSVSampleDescriptionError_BadAtom, "zero denominator"},
        {"fiel count 3", kSVMediaType_Video, withAtom("fiel", {3, 0}), kSVSampleDescriptionError_BadAtom,
         "field count"},
        {"avcC cut short", kSVMediaType_Video, withAtom("avcC", {1, 100, 0, 30, 0xFF, 0xE1, 0, 40, 0x67}),
         kSVSampleDescriptionError_BadAtom, "past the end"},
        {"avcC with a broken SPS", kSVMediaType_Video,
         withAtom("avcC", {1, 100, 0, 30, 0xFF, 0xE1, 0, 2, 0x67, 0xFF, 0}), kSVSampleDescriptionError_BadAtom,
         "unusable"},
        {"esds size of five bytes", kSVMediaType_Audio, bigESDS, kSVSampleDescriptionError_BadAtom,
         "longer than four bytes"},
        {"video esds size of five bytes", kSVMediaType_Video, badVideoESDS, kSVSampleDescriptionError_BadAtom,
         "longer than four bytes"},
        {"version 2 fixed part below 72", kSVMediaType_Audio, changed(v2, 36, 71), kSVSampleDescriptionError_Truncated,
         "states 71 fixed bytes"},
        {"version 2 fixed part past the end", kSVMediaType_Audio, changed(v2, 36, uint32_t(v2.size() + 1)),
         kSVSampleDescriptionError_Truncated, "fixed bytes of"},
        {"sound version 3", kSVMediaType_Audio, changed(sound, 16, 0x00030000),
         kSVSampleDescriptionError_UnsupportedVersion, "version 3"},
        {"sound version 1 cut short", kSVMediaType_Audio, changed(changed(sound, 16, 0x00010000), 0, 40),
         kSVSampleDescriptionError_Truncated, "needs 52 bytes"},
        {"sound read as video", kSVMediaType_Video, Bytes(entry("alac.mov")),
         kSVSampleDescriptionError_MediaTypeMismatch, "is not a video format"},
        {"video read as sound", kSVMediaType_Audio, video, kSVSampleDescriptionError_MediaTypeMismatch,
         "is not a sound format"},
        {"text", kSVMediaType_Text, video, kSVSampleDescriptionError_InvalidParameter, "has no sample description"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture log;
        SVFormatDescriptionRef out = reinterpret_cast<SVFormatDescriptionRef>(&log);
        EXPECT_EQ(read(c.bytes, c.type, &out), c.status);
        EXPECT_EQ(out, nullptr);
        EXPECT_TRUE(log.contains(c.log)) << (log.count() ? log.lines().back().message : "no line");
        ASSERT_GE(log.count(), 1u);
        // the bridge's own line comes last (after any line of the creators)
        EXPECT_EQ(log.lines().back().level, 3);
        EXPECT_EQ(log.lines().back().path, "Sorvel/Sources/SVFormatDescriptionBridge");
        EXPECT_EQ(log.lines().back().function, "SVSampleDescriptionCreateFormatDescription");
    }
}

TEST(SVSampleDescription, EveryTruncationFailsCleanly) {
    // Each prefix of each real entry, with the size field either left alone
    // (pointing past the end) or set to the prefix's length.
    LogCapture quiet(0);
    for (const char *name :
         {"avc1_bt709_sar40x33.mov", "hvc1_pq.mp4", "aac_48k_stereo.mov", "pcm_96k.mov", "raw_2vuy.mov", "alac.mov"}) {
        const Bytes bytes = entry(name);
        const SVMediaType type =
            (name[0] == 'a' && name[1] != 'v') || name[0] == 'p' ? kSVMediaType_Audio : kSVMediaType_Video;
        for (size_t n = 0; n < bytes.size(); ++n) {
            for (int resize = 0; resize < 2; ++resize) {
                Bytes prefix(bytes.begin(), bytes.begin() + long(n));
                if (resize && n >= 4) put32(prefix, 0, uint32_t(n));
                SVFormatDescriptionRef out = nullptr;
                const OSStatus status = SVSampleDescriptionCreateFormatDescription(nullptr, type, prefix.data(),
                                                                                   prefix.size(), nullptr, &out);
                if (!resize) EXPECT_NE(status, 0) << name << " " << n;
                if (out) CFRelease(out);
            }
        }
    }
}

TEST(SVSampleDescription, ArgumentsAndFlavours) {
    const Bytes video = entry("mp4v_plain.mp4");
    LogCapture log;
    EXPECT_EQ(read(video, kSVMediaType_Video, nullptr), kSVSampleDescriptionError_InvalidParameter);
    SVFormatDescriptionRef out = nullptr;
    EXPECT_EQ(SVSampleDescriptionCreateFormatDescription(nullptr, kSVMediaType_Video, nullptr, 100, nullptr, &out),
              kSVSampleDescriptionError_InvalidParameter);
    EXPECT_EQ(read(video, kSVMediaType_Video, &out, kSVSoundDescriptionFlavor_ISOFamily),
              kSVSampleDescriptionError_InvalidParameter);
    EXPECT_TRUE(log.contains("not a image description flavor") || log.contains("image"));
    EXPECT_EQ(SVSampleDescriptionCopyAsBigEndianData(nullptr, nullptr, nullptr, nullptr),
              kSVSampleDescriptionError_InvalidParameter);
    CFDataRef data = nullptr;
    EXPECT_EQ(SVSampleDescriptionCopyAsBigEndianData(nullptr, nullptr, nullptr, &data),
              kSVSampleDescriptionError_InvalidParameter);
    Description text;
    ASSERT_EQ(SVFormatDescriptionCreate(nullptr, kSVMediaType_Text, 'tx3g', nullptr, &text.desc), 0);
    EXPECT_EQ(SVSampleDescriptionCopyAsBigEndianData(nullptr, text.desc, nullptr, &data),
              kSVSampleDescriptionError_UnsupportedFormat);
    EXPECT_EQ(data, nullptr);
    // the verbatim entry of one family is not written for the other: an ISO
    // entry asked for as a QuickTime movie is rewritten with 'nclc'
    Description iso;
    ASSERT_EQ(read(entry("avc1_bt709_full.mp4"), kSVMediaType_Video, &iso.desc), 0);
    const Bytes qt = write(iso.desc, kSVImageDescriptionFlavor_QuickTimeMovie);
    bool nclc = false;
    for (auto &[code, payload] : split(qt, 86).atoms)
        if (code == "colr") nclc = payload.size() == 10 && payload[3] == 'c';
    EXPECT_TRUE(nclc);
}

TEST(SVSampleDescription, AllocationFailuresAreReported) {
    Description d;
    ASSERT_EQ(read(entry("hvc1_pq.mp4"), kSVMediaType_Video, &d.desc), 0);
    const Bytes bytes = entry("hvc1_pq.mp4");
    for (long n = 0; n < 40; ++n) {
        sorvel_test::TestAllocator allocator;
        allocator.failAfter(n);
        SVFormatDescriptionRef out = nullptr;
        const OSStatus status = SVSampleDescriptionCreateFormatDescription(allocator.get(), kSVMediaType_Video,
                                                                           bytes.data(), bytes.size(), nullptr, &out);
        if (status == 0) {
            CFRelease(out);
            break;
        }
        EXPECT_EQ(status, kSVSampleDescriptionError_AllocationFailed);
        EXPECT_EQ(out, nullptr);
    }
    sorvel_test::TestAllocator allocator;
    allocator.failAlways();
    CFDataRef data = nullptr;
    EXPECT_EQ(SVSampleDescriptionCopyAsBigEndianData(allocator.get(), d.desc, nullptr, &data),
              kSVSampleDescriptionError_AllocationFailed);
    SVBlockBufferRef buffer = nullptr;
    EXPECT_EQ(SVSampleDescriptionCopyAsBigEndianBlockBuffer(allocator.get(), d.desc, nullptr, &buffer),
              kSVSampleDescriptionError_AllocationFailed);
    EXPECT_EQ(buffer, nullptr);
}

TEST(SVSampleDescription, ThreadsReadAndWriteAtOnce) {
    // The bridge keeps no state but the tables; entries read and written on
    // several threads at once give each thread the same bytes back.
    const std::vector<Bytes> entries = {entry("hvc1_pq.mp4"), entry("avc1_bt709_sar40x33.mov"),
                                        entry("aac_48k_stereo.mov"), entry("raw_2vuy.mov")};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                const Bytes &bytes = entries[size_t(t + i) % entries.size()];
                const SVMediaType type = bytes[4] == 'm' && bytes[5] == 'p' && bytes[6] == '4' && bytes[7] == 'a'
                                             ? kSVMediaType_Audio
                                             : kSVMediaType_Video;
                SVFormatDescriptionRef d = nullptr;
                if (read(bytes, type, &d) != 0 || write(d, nullptr) != bytes) failures++;
                if (d) CFRelease(d);
                if (SVTransferFunctionGetIntegerCodePointForString(kCVImageBufferTransferFunction_ITU_R_2100_HLG) != 18)
                    failures++;
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
}

// ---- colour tables -------------------------------------------------------------------

TEST(SVSampleDescriptionColorTables, CodePointsToConstants) {
    struct Case {
        int code;
        CFStringRef primaries, transfer, matrix;
    } cases[] = {
        {0, nullptr, nullptr, nullptr},  // reserved (matrix 0 is RGB/identity: no constant)
        {1, kCVImageBufferColorPrimaries_ITU_R_709_2, kCVImageBufferTransferFunction_ITU_R_709_2,
         kCVImageBufferYCbCrMatrix_ITU_R_709_2},
        {2, nullptr, nullptr, nullptr},  // unspecified
        {3, nullptr, nullptr, nullptr},  // reserved
        {4, nullptr, kCVImageBufferTransferFunction_UseGamma, nullptr},
        {5, kCVImageBufferColorPrimaries_EBU_3213, kCVImageBufferTransferFunction_UseGamma,
         kCVImageBufferYCbCrMatrix_ITU_R_601_4},
        {6, kCVImageBufferColorPrimaries_SMPTE_C, kCVImageBufferTransferFunction_ITU_R_709_2,
         kCVImageBufferYCbCrMatrix_ITU_R_601_4},
        {7, kCVImageBufferColorPrimaries_SMPTE_C, kCVImageBufferTransferFunction_SMPTE_240M_1995,
         kCVImageBufferYCbCrMatrix_SMPTE_240M_1995},
        {8, nullptr, kCVImageBufferTransferFunction_Linear, nullptr},
        {9, kCVImageBufferColorPrimaries_ITU_R_2020, nullptr, kCVImageBufferYCbCrMatrix_ITU_R_2020},
        {10, nullptr, nullptr, nullptr},
        {11, kCVImageBufferColorPrimaries_DCI_P3, nullptr, nullptr},
        {12, kCVImageBufferColorPrimaries_P3_D65, nullptr, nullptr},
        {13, nullptr, kCVImageBufferTransferFunction_sRGB, nullptr},
        {14, nullptr, kCVImageBufferTransferFunction_ITU_R_2020, nullptr},
        {15, nullptr, kCVImageBufferTransferFunction_ITU_R_2020, nullptr},
        {16, nullptr, kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ, nullptr},
        {17, nullptr, kCVImageBufferTransferFunction_SMPTE_ST_428_1, nullptr},
        {18, nullptr, kCVImageBufferTransferFunction_ITU_R_2100_HLG, nullptr},
        {19, nullptr, nullptr, nullptr},
        {22, kCVImageBufferColorPrimaries_P22, nullptr, nullptr},
        {23, nullptr, nullptr, nullptr},
        {255, nullptr, nullptr, nullptr},
        {256, nullptr, nullptr, nullptr},
        {-1, nullptr, nullptr, nullptr},
        {65535, nullptr, nullptr, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.code);
        EXPECT_EQ(SVColorPrimariesGetStringForIntegerCodePoint(c.code), c.primaries);
        EXPECT_EQ(SVTransferFunctionGetStringForIntegerCodePoint(c.code), c.transfer);
        EXPECT_EQ(SVYCbCrMatrixGetStringForIntegerCodePoint(c.code), c.matrix);
    }
}

TEST(SVSampleDescriptionColorTables, ConstantsToCodePoints) {
    EXPECT_EQ(SVColorPrimariesGetIntegerCodePointForString(kCVImageBufferColorPrimaries_ITU_R_709_2), 1);
    EXPECT_EQ(SVColorPrimariesGetIntegerCodePointForString(kCVImageBufferColorPrimaries_SMPTE_C), 6);
    EXPECT_EQ(SVColorPrimariesGetIntegerCodePointForString(kCVImageBufferColorPrimaries_P22), 22);
    EXPECT_EQ(SVColorPrimariesGetIntegerCodePointForString(kSVFormatDescriptionColorPrimaries_P22), 22);
    EXPECT_EQ(SVTransferFunctionGetIntegerCodePointForString(kCVImageBufferTransferFunction_ITU_R_2020), 14);
    EXPECT_EQ(SVTransferFunctionGetIntegerCodePointForString(kCVImageBufferTransferFunction_UseGamma), 2);
    EXPECT_EQ(SVYCbCrMatrixGetIntegerCodePointForString(kCVImageBufferYCbCrMatrix_ITU_R_601_4), 6);
    // unknown, NULL and non-string values are unspecified
    EXPECT_EQ(SVColorPrimariesGetIntegerCodePointForString(CFSTR("NoSuchPrimaries")), 2);
    EXPECT_EQ(SVTransferFunctionGetIntegerCodePointForString(nullptr), 2);
    EXPECT_EQ(SVYCbCrMatrixGetIntegerCodePointForString(kCVImageBufferColorPrimaries_ITU_R_709_2), 2);
    // equal strings made elsewhere are found by value
    CFStringRef copy = CFStringCreateWithCString(
        nullptr, CFStringGetCStringPtr(kCVImageBufferTransferFunction_ITU_R_2100_HLG, kCFStringEncodingUTF8),
        kCFStringEncodingUTF8);
    ASSERT_TRUE(copy);
    EXPECT_EQ(SVTransferFunctionGetIntegerCodePointForString(copy), 18);
    CFRelease(copy);
    // every constant a code gives maps back to a code that gives it again
    for (int code = 0; code < 256; ++code) {
        if (CFStringRef s = SVColorPrimariesGetStringForIntegerCodePoint(code))
            EXPECT_EQ(SVColorPrimariesGetStringForIntegerCodePoint(SVColorPrimariesGetIntegerCodePointForString(s)), s);
        if (CFStringRef s = SVYCbCrMatrixGetStringForIntegerCodePoint(code))
            EXPECT_EQ(SVYCbCrMatrixGetStringForIntegerCodePoint(SVYCbCrMatrixGetIntegerCodePointForString(s)), s);
        CFStringRef s = SVTransferFunctionGetStringForIntegerCodePoint(code);
        if (s && !CFEqual(s, kCVImageBufferTransferFunction_UseGamma))
            EXPECT_EQ(SVTransferFunctionGetStringForIntegerCodePoint(SVTransferFunctionGetIntegerCodePointForString(s)),
                      s);
    }
}

}  // namespace
