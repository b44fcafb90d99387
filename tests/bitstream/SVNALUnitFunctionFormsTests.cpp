// SPDX-License-Identifier: Apache-2.0
// The enumerators' function-pointer forms against their block forms, and
// the strict parameter-set accessors over real and broken avcC/hvcC records.

#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/NALHelpers.h"
#include "support/TestData.h"

namespace {

using sorvel_test::Bytes;
using sorvel_test::bytesOf;
using sorvel_test::convert;
using sorvel_test::flexible;
using sorvel_test::kAVCClips;
using sorvel_test::kHEVCClips;
using sorvel_test::LogCapture;
using sorvel_test::readFile;
using sorvel_test::Units;

struct Collected {
    size_t count = 0;
    std::vector<std::pair<const uint8_t *, size_t>> units;
};

void collect(const uint8_t *unit, size_t length, void *refcon) {
    static_cast<Collected *>(refcon)->units.emplace_back(unit, length);
}

enum class Walk { AnnexB3, AnnexB4, Flexible, Prefix2, Prefix4 };

Collected byFunction(Walk walk, const Bytes &d, bool withCallback = true) {
    Collected c;
    SVNALUnitCallback cb = withCallback ? collect : nullptr;
    switch (walk) {
        case Walk::AnnexB3:
            c.count = SVNALUnitEnumerateAnnexB(d.data(), d.size(), 3, cb, &c);
            break;
        case Walk::AnnexB4:
            c.count = SVNALUnitEnumerateAnnexB(d.data(), d.size(), 4, cb, &c);
            break;
        case Walk::Flexible:
            c.count = SVNALUnitEnumerateAnnexBFlexible(d.data(), d.size(), cb, &c);
            break;
        case Walk::Prefix2:
            c.count = SVNALUnitEnumerateLengthPrefixed(d.data(), d.size(), 2, cb, &c);
            break;
        case Walk::Prefix4:
            c.count = SVNALUnitEnumerateLengthPrefixed(d.data(), d.size(), 4, cb, &c);
            break;
    }
    return c;
}

Collected byBlock(Walk walk, const Bytes &d) {
    __block Collected c;
    SVNALUnitHandler handler = ^int(const uint8_t *unit, size_t length) {
      c.units.emplace_back(unit, length);
      return 0;
    };
    switch (walk) {
        case Walk::AnnexB3:
            c.count = _SVEnumerateAnnexBNALUnits(d.data(), d.size(), 3, handler);
            break;
        case Walk::AnnexB4:
            c.count = _SVEnumerateAnnexBNALUnits(d.data(), d.size(), 4, handler);
            break;
        case Walk::Flexible:
            c.count = _SVEnumerateAnnexBNALUnitsFlexible(d.data(), d.size(), handler);
            break;
        case Walk::Prefix2:
            c.count = _SVEnumerateNALUnits(d.data(), d.size(), 2, handler);
            break;
        case Walk::Prefix4:
            c.count = _SVEnumerateNALUnits(d.data(), d.size(), 4, handler);
            break;
    }
    return c;
}

const Walk kWalks[] = {Walk::AnnexB3, Walk::AnnexB4, Walk::Flexible, Walk::Prefix2, Walk::Prefix4};

void expectSame(Walk walk, const Bytes &d, const std::string &what) {
    Collected f = byFunction(walk, d);
    Collected b = byBlock(walk, d);
    EXPECT_EQ(f.count, b.count) << what << " walk " << static_cast<int>(walk);
    EXPECT_EQ(f.units, b.units) << what << " walk " << static_cast<int>(walk);
    EXPECT_EQ(f.units.size(), f.count) << what;
    // Without a callback the walk still counts.
    EXPECT_EQ(byFunction(walk, d, false).count, b.count) << what;
}

TEST(SVNALUnitFunctionForms, AgreeWithTheBlockFormsOnRealStreams) {
    for (const char *clip : kAVCClips) {
        if (std::strchr(clip, '.')) continue;  // variants of a clip share its elementary stream
        const Bytes stream = readFile(std::string("media/") + clip + ".h264");
        ASSERT_GT(flexible(stream).count, 2u) << clip;
        for (Walk walk : kWalks) expectSame(walk, stream, clip);
    }
    for (const char *clip : kHEVCClips) {
        if (std::strchr(clip, '.')) continue;
        const Bytes stream = readFile(std::string("media/") + clip + ".h265");
        for (Walk walk : kWalks) expectSame(walk, stream, clip);
    }
}

TEST(SVNALUnitFunctionForms, AgreeWithTheBlockFormsOnRandomAndEdgeInputs) {
    std::mt19937 rng(11);
    std::vector<Bytes> inputs = {{},           {0, 0, 1},          {0, 0, 1, 0x65},
                                 {0, 0, 0, 1}, {0, 2, 0xAA, 0xBB}, {0, 0, 0, 1, 0, 0, 1}};
    for (int i = 0; i < 300; ++i) {
        Bytes d(rng() % 48);
        for (auto &b : d) {
            const unsigned r = rng() % 8;
            b = r < 4 ? 0 : r < 6 ? 1 : static_cast<uint8_t>(rng());
        }
        inputs.push_back(d);
    }
    for (size_t i = 0; i < inputs.size(); ++i)
        for (Walk walk : kWalks) expectSame(walk, inputs[i], "input " + std::to_string(i));
    // NULL data is nothing, whatever the length claims.
    Collected c;
    EXPECT_EQ(SVNALUnitEnumerateAnnexB(nullptr, 100, 4, collect, &c), 0u);
    EXPECT_EQ(SVNALUnitEnumerateAnnexBFlexible(nullptr, 100, collect, &c), 0u);
    EXPECT_EQ(SVNALUnitEnumerateLengthPrefixed(nullptr, 100, 4, collect, &c), 0u);
    EXPECT_TRUE(c.units.empty());
}

// ---- Parameter sets of records -------------------------------------------

using Getter = OSStatus (*)(const uint8_t *, size_t, size_t, const uint8_t **, size_t *, size_t *, int *);

Units allSets(Getter get, const Bytes &record, int *headerLength, OSStatus *status) {
    size_t count = 0;
    Units sets;
    *status = get(record.data(), record.size(), 0, nullptr, nullptr, &count, headerLength);
    for (size_t i = 0; *status == 0 && i < count; ++i) {
        const uint8_t *p = nullptr;
        size_t size = 0;
        *status = get(record.data(), record.size(), i, &p, &size, nullptr, nullptr);
        if (*status == 0) {
            EXPECT_GE(p, record.data());
            EXPECT_LE(p + size, record.data() + record.size());
            sets.emplace_back(p, p + size);
        }
    }
    return sets;
}

TEST(SVNALUnitRecordSets, RealRecordsGiveTheUnitsTheConverterWritesWithoutTypeBytes) {
    struct Case {
        const char *clip;
        bool hevc;
    };
    std::vector<Case> cases;
    for (const char *clip : kAVCClips) cases.push_back({clip, false});
    for (const char *clip : kHEVCClips) cases.push_back({clip, true});
    for (const Case &c : cases) {
        const Bytes record = readFile(std::string("records/") + c.clip + (c.hevc ? ".hvcC" : ".avcC"));
        int32_t convertedHeader = 0;
        OSStatus status = -1;
        auto converted = convert(record, c.hevc, &convertedHeader, &status);
        ASSERT_EQ(status, 0) << c.clip;
        Units expected;
        for (const Bytes &unit : flexible(bytesOf(converted.get())).units)
            expected.emplace_back(unit.begin() + (c.hevc ? 1 : 0), unit.end());

        int header = 0;
        Units sets = allSets(c.hevc ? SVGetParameterSetFromHEVCDecoderConfigurationRecord
                                    : SVGetParameterSetFromAVCDecoderConfigurationRecord,
                             record, &header, &status);
        ASSERT_EQ(status, 0) << c.clip;
        EXPECT_EQ(header, convertedHeader) << c.clip;
        EXPECT_EQ(sets, expected) << c.clip;
        // The first set is an SPS (H.264 type 7) or a VPS (HEVC type 32).
        ASSERT_FALSE(sets.empty());
        if (c.hevc)
            EXPECT_EQ((sets[0][0] >> 1) & 0x3F, 32) << c.clip;
        else
            EXPECT_EQ(sets[0][0] & 0x1F, 7) << c.clip;

        // Index past the end: an error, with the count still told.
        size_t count = 0;
        const uint8_t *p = nullptr;
        Getter get = c.hevc ? SVGetParameterSetFromHEVCDecoderConfigurationRecord
                            : SVGetParameterSetFromAVCDecoderConfigurationRecord;
        EXPECT_EQ(get(record.data(), record.size(), sets.size(), &p, nullptr, &count, nullptr),
                  kSVFormatDescriptionError_InvalidParameter);
        EXPECT_EQ(count, sets.size());
        EXPECT_EQ(p, nullptr);
    }
}

TEST(SVNALUnitRecordSets, TruncatedRecordsAreRefusedAndLogged) {
    for (bool hevc : {false, true}) {
        const std::string clip = hevc ? "hevc_main_1920x1080_bt709" : "avc_main_1920x1080_bt709";
        const Bytes record = readFile("records/" + clip + (hevc ? ".hvcC" : ".avcC"));
        Getter get = hevc ? SVGetParameterSetFromHEVCDecoderConfigurationRecord
                          : SVGetParameterSetFromAVCDecoderConfigurationRecord;
        // Where the last set ends: shorter records lose part of what they announce.
        size_t count = 0;
        ASSERT_EQ(get(record.data(), record.size(), 0, nullptr, nullptr, &count, nullptr), 0);
        const uint8_t *last = nullptr;
        size_t lastSize = 0;
        ASSERT_EQ(get(record.data(), record.size(), count - 1, &last, &lastSize, nullptr, nullptr), 0);
        const size_t needed = static_cast<size_t>(last - record.data()) + lastSize;
        for (size_t size = 1; size <= record.size(); ++size) {
            // An exact-size heap copy, so that any over-read shows under ASan.
            std::unique_ptr<uint8_t[]> copy(new uint8_t[size]);
            std::memcpy(copy.get(), record.data(), size);
            LogCapture capture(4);
            size_t got = 0;
            const OSStatus status = get(copy.get(), size, 0, nullptr, nullptr, &got, nullptr);
            if (size >= needed) {
                EXPECT_EQ(status, 0) << clip << " size " << size;
                EXPECT_EQ(got, count);
                EXPECT_TRUE(capture.lines().empty());
            } else {
                EXPECT_EQ(status, kSVFormatDescriptionError_InvalidParameter) << clip << " size " << size;
                auto lines = capture.lines();
                ASSERT_EQ(lines.size(), 1u) << clip << " size " << size;
                EXPECT_EQ(lines[0].level, 3);
                EXPECT_EQ(lines[0].path, "Sorvel/Sources/_SVUtilities");
                EXPECT_EQ(lines[0].function, hevc ? "SVGetParameterSetFromHEVCDecoderConfigurationRecord"
                                                  : "SVGetParameterSetFromAVCDecoderConfigurationRecord");
                EXPECT_EQ(lines[0].message,
                          "Decoder configuration record of " + std::to_string(size) + " bytes is truncated");
            }
        }
    }
}

TEST(SVNALUnitRecordSets, MissingAndEmptyRecords) {
    const uint8_t some[32] = {1};
    for (Getter get :
         {SVGetParameterSetFromAVCDecoderConfigurationRecord, SVGetParameterSetFromHEVCDecoderConfigurationRecord}) {
        size_t count = 99;
        EXPECT_EQ(get(nullptr, 32, 0, nullptr, nullptr, &count, nullptr), kSVFormatDescriptionError_InvalidParameter);
        EXPECT_EQ(get(some, 0, 0, nullptr, nullptr, &count, nullptr), kSVFormatDescriptionError_InvalidParameter);
        EXPECT_EQ(count, 99u);
        // A well-formed record with no sets: count 0, any index is past the end.
        int header = 0;
        EXPECT_EQ(get(some, sizeof some, 0, nullptr, nullptr, &count, &header),
                  kSVFormatDescriptionError_InvalidParameter);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(header, 1);
    }
}

}  // namespace
