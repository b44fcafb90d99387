// SPDX-License-Identifier: Apache-2.0
// The Annex B sample writer: length-prefixed 'avc1'/'hvc1' samples against
// FFmpeg's mp4toannexb output for real clips, parameter sets on sync
// samples, skipped unit types, and its failures.

#include <Block.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>
#include <Sorvel/SVSampleBuffer.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/SVObject.h"
#include "support/LogCapture.h"
#include "support/NALHelpers.h"
#include "support/TestData.h"

namespace {

using sorvel::SVRetained;
using sorvel_test::Bytes;
using sorvel_test::bytesOf;
using sorvel_test::convert;
using sorvel_test::flexible;
using sorvel_test::kAVCClips;
using sorvel_test::kHEVCClips;
using sorvel_test::LogCapture;
using sorvel_test::readFile;
using sorvel_test::Units;

SVRetained<SVFormatDescriptionRef> descriptionFromSets(bool hevc, const Units &sets, int headerLength) {
    std::vector<const uint8_t *> pointers;
    std::vector<size_t> sizes;
    for (const Bytes &set : sets) {
        pointers.push_back(set.data());
        sizes.push_back(set.size());
    }
    SVFormatDescriptionRef desc = nullptr;
    OSStatus status = hevc ? SVVideoFormatDescriptionCreateFromHEVCParameterSets(
                                 nullptr, sets.size(), pointers.data(), sizes.data(), headerLength, nullptr, &desc)
                           : SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, sets.size(), pointers.data(),
                                                                                 sizes.data(), headerLength, &desc);
    EXPECT_EQ(status, 0);
    return SVRetained<SVFormatDescriptionRef>(desc);
}

// A one-sample buffer over a heap copy of `bytes`.
SVRetained<SVSampleBufferRef> sampleOf(const Bytes &bytes, SVFormatDescriptionRef desc, bool sync = true) {
    SVBlockBufferRef block = nullptr;
    EXPECT_EQ(SVBlockBufferCreateWithMemoryBlock(nullptr, nullptr, bytes.size(), nullptr, nullptr, 0, bytes.size(),
                                                 kSVBlockBufferAssureMemoryNowFlag, &block),
              0);
    if (!bytes.empty()) EXPECT_EQ(SVBlockBufferReplaceDataBytes(bytes.data(), block, 0, bytes.size()), 0);
    SVSampleBufferRef sbuf = nullptr;
    const size_t size = bytes.size();
    EXPECT_EQ(SVSampleBufferCreate(nullptr, block, true, nullptr, nullptr, desc, 1, 0, nullptr, 1, &size, &sbuf), 0);
    CFRelease(block);
    if (!sync) {
        CFArrayRef attachments = SVSampleBufferGetSampleAttachmentsArray(sbuf, true);
        CFDictionarySetValue((CFMutableDictionaryRef)CFArrayGetValueAtIndex(attachments, 0),
                             kSVSampleAttachmentKey_NotSync, kCFBooleanTrue);
    }
    return SVRetained<SVSampleBufferRef>(sbuf);
}

struct Encoded {
    OSStatus status;
    Bytes bytes;
    int allocations;
};

Encoded encode(SVSampleBufferRef sbuf, int32_t include, const Bytes &skip = {}) {
    __block Bytes buffer;
    __block int allocations = 0;
    OSStatus status = _SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer(
        sbuf, include, skip.empty() ? nullptr : skip.data(), skip.size(), ^void *(size_t size) {
          ++allocations;
          buffer.assign(size, 0xEE);
          return buffer.data();
        });
    return {status, buffer, allocations};
}

// The parameter sets of a real record, through the converter.
Units parameterSets(const std::string &clip, bool hevc, int32_t *headerLength) {
    Bytes record = readFile("records/" + clip + (hevc ? ".hvcC" : ".avcC"));
    OSStatus status = -1;
    auto data = convert(record, hevc, headerLength, &status);
    Units sets;
    for (const Bytes &unit : flexible(bytesOf(data.get())).units)
        sets.emplace_back(unit.begin() + (hevc ? 1 : 0), unit.end());
    return sets;
}

// The units of an Annex B stream, trailing zero bytes stripped.
Units payloads(const Bytes &stream) {
    Units units;
    for (Bytes unit : flexible(stream).units) {
        while (!unit.empty() && unit.back() == 0) unit.pop_back();
        units.push_back(unit);
    }
    return units;
}

// Every access unit of a clip's MP4, from the sample table.
struct Access {
    Bytes bytes;
    bool sync;
};

std::vector<Access> accessUnits(const std::string &clip) {
    Bytes raw = readFile("records/" + clip + ".samples.json");
    std::string json(raw.begin(), raw.end());
    const size_t start = json.find("\"samples\":");
    Bytes mp4 = readFile("media/" + clip + ".mp4");
    std::vector<Access> units;
    auto numberAfter = [&](const char *key, size_t from) {
        const size_t at = json.find(key, from) + std::strlen(key);
        return std::strtoull(json.c_str() + at, nullptr, 10);
    };
    for (size_t at = json.find("\"index\":", start); at != std::string::npos; at = json.find("\"index\":", at + 1)) {
        const size_t offset = numberAfter("\"offset\":", at);
        const size_t size = numberAfter("\"size\":", json.find("\"mdat_offset\":", at));
        const size_t syncAt = json.find("\"sync\":", at) + 7;
        const bool sync = json.compare(json.find_first_not_of(' ', syncAt), 4, "true") == 0;
        EXPECT_LE(offset + size, mp4.size());
        units.push_back(
            {Bytes(mp4.begin() + static_cast<long>(offset), mp4.begin() + static_cast<long>(offset + size)), sync});
    }
    return units;
}

TEST(SVAnnexBSampleWriter, RealClipsMatchFFmpegsFilterOutput) {
    struct Clip {
        const char *name;
        bool hevc;
        // FFmpeg's H.264 filter inserts the record's sets only where the
        // sample has none; its HEVC filter before every IRAP picture.  The
        // HEVC record's SEI array counts as one of its sets.
        int32_t include;
        const char *bsf;
    };
    const Clip clips[] = {
        {"avc_baseline_176x144", false, 0, "avc_baseline_176x144.annexb.h264"},
        {"avc_baseline_176x144.len2", false, 0, "avc_baseline_176x144.len2.annexb.h264"},
        {"avc_high_720x576_tff_sar16x11", false, 0, "avc_high_720x576_tff_sar16x11.annexb.h264"},
        {"avc_main_1920x1080_bt709.oob", false, 1, "avc_main_1920x1080_bt709.oob.annexb.h264"},
        {"hevc_main_1920x1080_bt709", true, 1, "hevc_main_1920x1080_bt709.annexb.h265"},
        {"hevc_main_642x362_sar40x33_smpte170m_hvc1.oob", true, 1,
         "hevc_main_642x362_sar40x33_smpte170m_hvc1.oob.annexb.h265"},
    };
    for (const Clip &clip : clips) {
        int32_t headerLength = 0;
        Units sets = parameterSets(clip.name, clip.hevc, &headerLength);
        auto desc = descriptionFromSets(clip.hevc, sets, headerLength);
        ASSERT_TRUE(desc) << clip.name;
        Bytes stream;
        std::vector<Access> aus = accessUnits(clip.name);
        ASSERT_FALSE(aus.empty()) << clip.name;
        for (const Access &au : aus) {
            auto sbuf = sampleOf(au.bytes, desc.get(), au.sync);
            Encoded out = encode(sbuf.get(), clip.include);
            ASSERT_EQ(out.status, 0) << clip.name;
            EXPECT_EQ(out.allocations, 1);
            // Every unit starts with a four-byte start code and the buffer is
            // filled exactly.
            ASSERT_GE(out.bytes.size(), 5u);
            EXPECT_EQ(Bytes(out.bytes.begin(), out.bytes.begin() + 4), (Bytes{0, 0, 0, 1}));
            // FFmpeg's filter puts the record's units just before the first
            // slice; ours open the access unit.  Move them there to compare.
            Units units = flexible(out.bytes).units;
            const size_t inserted = clip.include && au.sync ? sets.size() : 0;
            auto isSlice = [&](const Bytes &unit) {
                return clip.hevc ? ((unit[0] >> 1) & 0x3F) < 32 : (unit[0] & 0x1F) >= 1 && (unit[0] & 0x1F) <= 5;
            };
            auto firstSlice = std::find_if(units.begin() + static_cast<long>(inserted), units.end(), isSlice);
            std::rotate(units.begin(), units.begin() + static_cast<long>(inserted), firstSlice);
            for (const Bytes &unit : units) {
                stream.insert(stream.end(), {0, 0, 0, 1});
                stream.insert(stream.end(), unit.begin(), unit.end());
            }
        }
        Units expected = payloads(readFile(std::string("bsf/") + clip.bsf));
        Units got = payloads(stream);
        ASSERT_EQ(got.size(), expected.size()) << clip.name;
        for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], expected[i]) << clip.name << " unit " << i;
    }
}

TEST(SVAnnexBSampleWriter, SyncSamplesGetTheParameterSetsAndSkippedTypesAreDropped) {
    int32_t headerLength = 0;
    Units sets = parameterSets("avc_baseline_176x144", false, &headerLength);
    ASSERT_EQ(sets.size(), 2u);
    auto desc = descriptionFromSets(false, sets, 4);
    // SEI (6), an empty unit, an IDR slice (5), a filler (12).
    const Bytes sample = {0, 0, 0, 2, 0x06, 0x05, 0, 0, 0, 0, 0, 0, 0, 3, 0x65, 0x88, 0x80, 0, 0, 0, 2, 0x0C, 0xFF};
    Bytes sets0;
    for (const Bytes &set : sets) {
        sets0.insert(sets0.end(), {0, 0, 0, 1});
        sets0.insert(sets0.end(), set.begin(), set.end());
    }
    const Bytes body = {0, 0, 0, 1, 0x06, 0x05, 0, 0, 0, 1, 0x65, 0x88, 0x80, 0, 0, 0, 1, 0x0C, 0xFF};
    Bytes withSets = sets0;
    withSets.insert(withSets.end(), body.begin(), body.end());

    EXPECT_EQ(encode(sampleOf(sample, desc.get()).get(), 1).bytes, withSets);
    EXPECT_EQ(encode(sampleOf(sample, desc.get()).get(), 0).bytes, body);
    // Only the value 1 asks for them.
    EXPECT_EQ(encode(sampleOf(sample, desc.get()).get(), 2).bytes, body);
    EXPECT_EQ(encode(sampleOf(sample, desc.get(), false).get(), 1).bytes, body);
    // The H.264 type mask for every codec; types above 31 never match.
    const Bytes skipped = {0, 0, 0, 1, 0x65, 0x88, 0x80};
    EXPECT_EQ(encode(sampleOf(sample, desc.get(), false).get(), 1, {6, 12, 40}).bytes, skipped);
    // A length running past the end ends the walk.
    Bytes cut = sample;
    cut[cut.size() - 2 - 1] = 9;
    EXPECT_EQ(encode(sampleOf(cut, desc.get(), false).get(), 0).bytes, Bytes(body.begin(), body.end() - 6));
}

TEST(SVAnnexBSampleWriter, BadArgumentsAndFailures) {
    int32_t headerLength = 0;
    auto avc = descriptionFromSets(false, parameterSets("avc_baseline_176x144", false, &headerLength), 4);
    const Bytes sample = {0, 0, 0, 1, 0x65};
    auto sbuf = sampleOf(sample, avc.get());
    EXPECT_EQ(encode(nullptr, 1).status, kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(_SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer(sbuf.get(), 1, nullptr, 0, nullptr),
              kSVFormatDescriptionError_InvalidParameter);

    SVFormatDescriptionRef other = nullptr;
    ASSERT_EQ(SVFormatDescriptionCreate(nullptr, kSVMediaType_Video, 'mp4v', nullptr, &other), 0);
    SVRetained<SVFormatDescriptionRef> mp4v(other);
    Encoded wrong = encode(sampleOf(sample, mp4v.get()).get(), 1);
    EXPECT_EQ(wrong.status, kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(wrong.allocations, 0);

    Encoded refused = {};
    OSStatus status = _SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer(sbuf.get(), 1, nullptr, 0, ^void *(size_t) {
      return nullptr;
    });
    EXPECT_EQ(status, kSVFormatDescriptionError_AllocationFailed);
    (void)refused;

    // An 'avc1' description without parameter sets cannot supply them.
    SVFormatDescriptionRef bare = nullptr;
    ASSERT_EQ(SVFormatDescriptionCreate(nullptr, kSVMediaType_Video, 'avc1', nullptr, &bare), 0);
    SVRetained<SVFormatDescriptionRef> bareDesc(bare);
    {
        LogCapture capture(4);
        Encoded noSets = encode(sampleOf(sample, bareDesc.get()).get(), 1);
        EXPECT_EQ(noSets.status, kSVFormatDescriptionError_InvalidParameter);
        EXPECT_EQ(noSets.allocations, 0);
        EXPECT_TRUE(capture.contains("Failed to get format description's parameter sets: "));
    }

    // A sample buffer without data.
    SVSampleBufferRef noData = nullptr;
    ASSERT_EQ(
        SVSampleBufferCreate(nullptr, nullptr, false, nullptr, nullptr, avc.get(), 0, 0, nullptr, 0, nullptr, &noData),
        0);
    SVRetained<SVSampleBufferRef> ownedNoData(noData);
    LogCapture capture(4);
    Encoded empty = encode(noData, 1);
    EXPECT_EQ(empty.status, kSVFormatDescriptionError_InvalidParameter);
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 3);
    EXPECT_EQ(lines[0].function, "_SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer");
    EXPECT_EQ(lines[0].path, "Sorvel/Sources/_SVUtilities");
    EXPECT_EQ(lines[0].message, "Unable to get input data");
}

TEST(SVAnnexBSampleWriter, NonContiguousDataIsRefused) {
    int32_t headerLength = 0;
    auto avc = descriptionFromSets(false, parameterSets("avc_baseline_176x144", false, &headerLength), 4);
    static uint8_t first[] = {0, 0, 0, 1};
    static uint8_t second[] = {0x65};
    SVBlockBufferRef block = nullptr;
    ASSERT_EQ(SVBlockBufferCreateWithMemoryBlock(nullptr, first, 4, kCFAllocatorNull, nullptr, 0, 4, 0, &block), 0);
    ASSERT_EQ(SVBlockBufferAppendMemoryBlock(block, second, 1, kCFAllocatorNull, nullptr, 0, 1, 0), 0);
    SVSampleBufferRef sbuf = nullptr;
    ASSERT_EQ(SVSampleBufferCreate(nullptr, block, true, nullptr, nullptr, avc.get(), 1, 0, nullptr, 0, nullptr, &sbuf),
              0);
    CFRelease(block);
    SVRetained<SVSampleBufferRef> owned(sbuf);
    LogCapture capture(4);
    Encoded out = encode(sbuf, 0);
    EXPECT_EQ(out.status, kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(out.allocations, 0);
    EXPECT_TRUE(capture.contains("Non-contiguous block buffers not yet supported"));
}

TEST(SVAnnexBSampleWriter, TheVideoSampleWriterEncodesAVCAndHEVC) {
    int32_t headerLength = 0;
    auto hevc = descriptionFromSets(true, parameterSets("hevc_main_1920x1080_bt709", true, &headerLength), 4);
    std::vector<Access> aus = accessUnits("hevc_main_1920x1080_bt709");
    ASSERT_TRUE(aus[0].sync);
    auto sbuf = sampleOf(aus[0].bytes, hevc.get());
    for (int32_t mode : {0, 1}) {
        __block Bytes packet;
        OSStatus status = _SVSampleBufferOutputVideoSampleAsBytes(sbuf.get(), mode, ^void *(size_t size) {
          packet.assign(size, 0);
          return packet.data();
        });
        ASSERT_EQ(status, 0);
        EXPECT_EQ(packet, encode(sbuf.get(), mode).bytes);
        // The sample itself carries VPS, SPS, PPS and SEI; mode 1 repeats the
        // description's sets in front.
        EXPECT_EQ(flexible(packet).count,
                  _SVEnumerateNALUnits(aus[0].bytes.data(), aus[0].bytes.size(), 4, nullptr) + (mode == 1 ? 4 : 0));
    }
}

}  // namespace

namespace {

struct FunctionAllocation {
    Bytes buffer;
    int calls = 0;
    bool fail = false;
};

void *allocateInto(size_t size, void *refcon) {
    auto *state = static_cast<FunctionAllocation *>(refcon);
    ++state->calls;
    if (state->fail) return nullptr;
    state->buffer.assign(size, 0xEE);
    return state->buffer.data();
}

}  // namespace

TEST(SVAnnexBSampleWriter, FunctionFormWritesWhatTheBlockFormWrites) {
    const struct {
        const char *name;
        bool hevc;
    } clips[] = {{"avc_baseline_176x144.len2", false}, {"hevc_main_1920x1080_bt709", true}};
    for (const auto &clip : clips) {
        int32_t headerLength = 0;
        Units sets = parameterSets(clip.name, clip.hevc, &headerLength);
        auto desc = descriptionFromSets(clip.hevc, sets, headerLength);
        ASSERT_TRUE(desc) << clip.name;
        std::vector<Access> aus = accessUnits(clip.name);
        ASSERT_GE(aus.size(), 2u) << clip.name;
        for (size_t i = 0; i < 2; ++i) {
            auto sbuf = sampleOf(aus[i].bytes, desc.get(), aus[i].sync);
            for (int32_t include = 0; include <= 1; ++include) {
                const Bytes skip = {6};  // SEI for H.264; for HEVC its mask never matches a unit here
                Encoded byBlock = encode(sbuf.get(), include, skip);
                FunctionAllocation state;
                EXPECT_EQ(
                    SVSampleBufferWriteAnnexB(sbuf.get(), include != 0, skip.data(), skip.size(), allocateInto, &state),
                    byBlock.status);
                EXPECT_EQ(state.calls, 1);
                EXPECT_EQ(state.buffer, byBlock.bytes) << clip.name << " sample " << i << " include " << include;
            }
        }
    }
}

TEST(SVAnnexBSampleWriter, FunctionFormFailures) {
    int32_t headerLength = 0;
    Units sets = parameterSets("avc_baseline_176x144", false, &headerLength);
    auto desc = descriptionFromSets(false, sets, headerLength);
    auto sbuf = sampleOf(accessUnits("avc_baseline_176x144").front().bytes, desc.get());
    FunctionAllocation state;
    EXPECT_EQ(SVSampleBufferWriteAnnexB(nullptr, true, nullptr, 0, allocateInto, &state),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(SVSampleBufferWriteAnnexB(sbuf.get(), true, nullptr, 0, nullptr, &state),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(state.calls, 0);
    state.fail = true;
    EXPECT_EQ(SVSampleBufferWriteAnnexB(sbuf.get(), true, nullptr, 0, allocateInto, &state),
              kSVFormatDescriptionError_AllocationFailed);
    EXPECT_EQ(state.calls, 1);
}

TEST(SVAnnexBSampleWriter, VideoSampleWriterFunctionFormWritesWhatTheBlockFormWrites) {
    int32_t headerLength = 0;
    Units sets = parameterSets("avc_baseline_176x144.len2", false, &headerLength);
    auto desc = descriptionFromSets(false, sets, headerLength);
    std::vector<Access> aus = accessUnits("avc_baseline_176x144.len2");
    ASSERT_GE(aus.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        auto sbuf = sampleOf(aus[i].bytes, desc.get(), aus[i].sync);
        for (int32_t mode : {0, 1}) {
            __block Bytes byBlock;
            OSStatus blockStatus = _SVSampleBufferOutputVideoSampleAsBytes(sbuf.get(), mode, ^void *(size_t size) {
              byBlock.assign(size, 0);
              return byBlock.data();
            });
            FunctionAllocation state;
            EXPECT_EQ(
                _SVSampleBufferOutputVideoSampleAsBytesWithAllocatorFunction(sbuf.get(), mode, allocateInto, &state),
                blockStatus);
            EXPECT_EQ(state.calls, 1) << "the refcon reaches the allocator once";
            EXPECT_EQ(state.buffer, byBlock) << "sample " << i << " mode " << mode;
        }
    }
    auto sbuf = sampleOf(aus[0].bytes, desc.get());
    FunctionAllocation state;
    state.fail = true;
    EXPECT_EQ(_SVSampleBufferOutputVideoSampleAsBytesWithAllocatorFunction(sbuf.get(), 1, allocateInto, &state),
              _SVSampleBufferOutputVideoSampleAsBytes(sbuf.get(), 1, ^void *(size_t) {
                return nullptr;
              }));
    EXPECT_EQ(state.calls, 1);
    EXPECT_EQ(_SVSampleBufferOutputVideoSampleAsBytesWithAllocatorFunction(sbuf.get(), 1, nullptr, &state),
              _SVSampleBufferOutputVideoSampleAsBytes(sbuf.get(), 1, nullptr));
}
