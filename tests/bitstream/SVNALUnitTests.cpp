// SPDX-License-Identifier: Apache-2.0
// NAL units and Annex B: the three enumerators against plain readings of
// their rules, emulation-prevention removal, and the avcC/hvcC converters on
// real records.

#include <Block.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>
#include <Sorvel/SVSampleBuffer.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "bitstream/_SVUtilitiesInternal.h"
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
using sorvel_test::Report;
using sorvel_test::Units;

// ---- Collecting what the enumerators report -------------------------------

Report strict(const Bytes &data, int32_t n) {
    __block Report report{};
    const uint8_t *base = data.data();
    report.count = _SVEnumerateAnnexBNALUnits(data.data(), data.size(), n, ^int(const uint8_t *unit, size_t length) {
      report.units.emplace_back(unit, unit + length);
      report.offsets.push_back(static_cast<size_t>(unit - base));
      return 0;
    });
    return report;
}

Report prefixed(const Bytes &data, int32_t p) {
    __block Report report{};
    const uint8_t *base = data.data();
    report.count = _SVEnumerateNALUnits(data.data(), data.size(), p, ^int(const uint8_t *unit, size_t length) {
      report.units.emplace_back(unit, unit + length);
      report.offsets.push_back(static_cast<size_t>(unit - base));
      return 0;
    });
    return report;
}

// ---- Plain, position-by-position readings of the rules --------------------

bool codeAt(const Bytes &d, size_t p, int32_t n) {
    for (int32_t i = 0; i < n - 1; ++i)
        if (d[p + static_cast<size_t>(i)] != 0) return false;
    return n < 1 || d[p + static_cast<size_t>(n) - 1] == 1;
}

std::vector<std::pair<size_t, size_t>> referenceStrict(const Bytes &d, int32_t n) {
    std::vector<std::pair<size_t, size_t>> out;
    const size_t len = d.size();
    if (len == 0 || n < 0 || len <= static_cast<size_t>(n)) return out;
    size_t cur = len;
    for (size_t p = 0; p + static_cast<size_t>(n) < len; ++p)
        if (codeAt(d, p, n)) {
            cur = p;
            break;
        }
    if (cur == len) return out;
    for (;;) {
        size_t next = len;
        for (size_t p = cur + 1; p + static_cast<size_t>(n) < len; ++p)
            if (codeAt(d, p, n)) {
                next = p;
                break;
            }
        out.push_back({cur, next - cur});
        if (next == len) return out;
        cur = next;
    }
}

std::vector<std::pair<size_t, size_t>> referenceFlexible(const Bytes &d) {
    std::vector<std::pair<size_t, size_t>> out;
    const size_t len = d.size();
    if (len <= 3) return out;
    size_t cur = len;
    for (size_t p = 0; p + 4 <= len; ++p)
        if (codeAt(d, p, 3)) {
            cur = p;
            break;
        }
    if (cur == len) return out;
    for (;;) {
        size_t next = len;
        for (size_t p = cur + 3; p + 3 <= len; ++p)
            if (codeAt(d, p, 3)) {
                next = p;
                break;
            }
        if (next == len) {
            if (cur + 3 < len) out.push_back({cur + 3, len - cur - 3});
            return out;
        }
        size_t unit = next - cur - 3;
        if (d[next - 1] == 0 && unit > 0) --unit;
        if (unit) out.push_back({cur + 3, unit});
        cur = next;
    }
}

// Random bytes drawn mostly from {0, 1} so that start codes of every
// length, back to back and at the very end, are common.
Bytes zeroHeavy(std::mt19937 &rng, size_t length) {
    Bytes d(length);
    for (auto &b : d) {
        const unsigned r = rng() % 8;
        b = r < 4 ? 0 : r < 6 ? 1 : static_cast<uint8_t>(rng());
    }
    return d;
}

// ---- Strict enumeration ----------------------------------------------------

TEST(SVNALUnitStrict, ReportsUnitsWithTheirStartCodes) {
    struct Case {
        Bytes data;
        int32_t n;
        std::vector<std::pair<size_t, size_t>> units;  // offset, length
    };
    const std::vector<Case> cases = {
        {{0, 0, 0, 1, 0x65, 0x88}, 4, {{0, 6}}},
        {{0, 0, 0, 1, 0x67, 0, 0, 0, 1, 0x68}, 4, {{0, 5}, {5, 5}}},
        {{0, 0, 1, 0x67, 0, 0, 1, 0x68}, 3, {{0, 4}, {4, 4}}},
        // A start code in the last N bytes is no start code.
        {{0, 0, 0, 1, 0x41, 0, 0, 0, 1}, 4, {{0, 9}}},
        {{0, 0, 0, 1}, 4, {}},
        {{0, 0, 0, 1, 0x41}, 5, {}},
        // Junk before the first start code is not reported.
        {{0x11, 0x22, 0, 0, 1, 0x41}, 3, {{2, 4}}},
        {{0x11, 0x22, 0x33}, 1, {}},
        {{1, 2, 1, 1}, 1, {{0, 2}, {2, 2}}},
        {{1, 2, 1, 1, 7}, 1, {{0, 2}, {2, 1}, {3, 2}}},
        // A zero-length start code is found at every byte.
        {{7, 8, 9}, 0, {{0, 1}, {1, 1}, {2, 1}}},
        {{0, 0, 1, 5}, -1, {}},
    };
    for (const Case &c : cases) {
        Report r = strict(c.data, c.n);
        std::vector<std::pair<size_t, size_t>> got;
        for (size_t i = 0; i < r.units.size(); ++i) got.push_back({r.offsets[i], r.units[i].size()});
        EXPECT_EQ(got, c.units) << "n=" << c.n << " size=" << c.data.size();
        EXPECT_EQ(r.count, c.units.size());
    }
    EXPECT_EQ(_SVEnumerateAnnexBNALUnits(nullptr, 10, 3, nullptr), 0u);
    const uint8_t one[] = {0, 0, 1, 9};
    EXPECT_EQ(_SVEnumerateAnnexBNALUnits(one, 4, 3, nullptr), 1u);
}

TEST(SVNALUnitStrict, AgreesWithThePlainRuleOnRandomStreams) {
    std::mt19937 rng(1234);
    for (int round = 0; round < 3000; ++round) {
        Bytes d = zeroHeavy(rng, rng() % 80);
        const int32_t n = static_cast<int32_t>(rng() % 6);
        Report r = strict(d, n);
        std::vector<std::pair<size_t, size_t>> got;
        for (size_t i = 0; i < r.units.size(); ++i) got.push_back({r.offsets[i], r.units[i].size()});
        ASSERT_EQ(got, referenceStrict(d, n)) << "round " << round << " n=" << n;
        ASSERT_EQ(r.count, got.size());
    }
}

// ---- Flexible enumeration --------------------------------------------------

TEST(SVNALUnitFlexible, ReportsPayloadsWithoutStartCodes) {
    struct Case {
        Bytes data;
        Units units;
    };
    const std::vector<Case> cases = {
        {{0, 0, 0, 1, 0x67, 0xAA, 0, 0, 0, 1, 0x68, 0xBB}, {{0x67, 0xAA}, {0x68, 0xBB}}},
        {{0, 0, 1, 0, 0, 1, 0x41}, {{0x41}}},
        {{0, 0, 1, 0x41, 0x42, 0x43, 0, 0, 1}, {{0x41, 0x42, 0x43}}},
        // Only one zero before a start code is trimmed.
        {{0, 0, 1, 0x41, 0, 0, 0, 0, 1, 0x42}, {{0x41, 0}, {0x42}}},
        // Short tails are reported as they are, zeros included.
        {{0, 0, 1, 0x41, 0}, {{0x41, 0}}},
        {{0, 0, 1, 0x41, 0, 0}, {{0x41, 0, 0}}},
        {{0, 0, 1}, {}},
        {{0, 0, 1, 0}, {{0}}},
        {{5, 0, 0, 1, 6, 7}, {{6, 7}}},
        {{0, 0, 2, 0, 0, 0}, {}},
    };
    for (const Case &c : cases) {
        Report r = flexible(c.data);
        EXPECT_EQ(r.units, c.units) << "size=" << c.data.size();
        EXPECT_EQ(r.count, c.units.size());
    }
    EXPECT_EQ(_SVEnumerateAnnexBNALUnitsFlexible(nullptr, 100, nullptr), 0u);
}

TEST(SVNALUnitFlexible, AgreesWithThePlainRuleOnRandomStreams) {
    std::mt19937 rng(99);
    for (int round = 0; round < 4000; ++round) {
        // Long enough for the 32-byte vector steps, with some sparse data.
        Bytes d = zeroHeavy(rng, rng() % 200);
        if (round % 3 == 0)
            for (auto &b : d)
                if (rng() % 4) b = static_cast<uint8_t>(0x80 | rng());
        Report r = flexible(d);
        std::vector<std::pair<size_t, size_t>> got;
        for (size_t i = 0; i < r.units.size(); ++i) got.push_back({r.offsets[i], r.units[i].size()});
        ASSERT_EQ(got, referenceFlexible(d)) << "round " << round;
        ASSERT_EQ(r.count, got.size());
    }
}

TEST(SVNALUnitFlexible, VectorAndPortableSearchesFindTheSameStartCode) {
    std::mt19937 rng(7);
    for (int round = 0; round < 3000; ++round) {
        Bytes d(3 + rng() % 150, 0x55);
        // One start code (or a near miss) somewhere, else none.
        const size_t at = rng() % (d.size() - 2);
        const unsigned kind = rng() % 4;
        if (kind < 3) {
            d[at] = 0;
            d[at + 1] = 0;
            d[at + 2] = kind == 2 ? 2 : 1;
        }
        const uint8_t *first = d.data() + rng() % (d.size() - 2);
        const uint8_t *last = d.data() + d.size() - 3;
        const uint8_t *expected = nullptr;
        for (const uint8_t *p = first; p <= last; ++p)
            if (sorvel::SVIsThreeByteStartCode(p)) {
                expected = p;
                break;
            }
        ASSERT_EQ(sorvel::SVFindThreeByteStartCode(first, last), expected) << round;
        ASSERT_EQ(sorvel::SVFindThreeByteStartCodePortable(first, last), expected) << round;
    }
}

TEST(SVNALUnitFlexible, SplitsRealStreamsIntoTheirUnits) {
    for (const char *clip : {"avc_high_720x576_tff_sar16x11", "avc_baseline_176x144", "hevc_main_1920x1080_bt709",
                             "hevc_main10_640x360_hlg_full_chromaloc2"}) {
        const bool hevc = clip[0] == 'h';
        Bytes d = readFile(std::string("media/") + clip + (hevc ? ".h265" : ".h264"));
        Bytes layout = readFile(std::string("layout/") + clip + ".source.json");
        std::string json(layout.begin(), layout.end());
        const size_t at = json.find("\"nal_count\":");
        ASSERT_NE(at, std::string::npos);
        const size_t expected = std::strtoull(json.c_str() + at + 12, nullptr, 10);
        Report r = flexible(d);
        EXPECT_EQ(r.count, expected) << clip;
        for (const Bytes &unit : r.units) EXPECT_EQ(unit[0] & 0x80, 0) << clip;
    }
}

// ---- Length-prefixed enumeration -------------------------------------------

TEST(SVNALUnitLengthPrefixed, StopsAtTheFirstUnitThatDoesNotFit) {
    struct Case {
        Bytes data;
        int32_t p;
        std::vector<std::pair<size_t, size_t>> units;
    };
    const std::vector<Case> cases = {
        {{0, 0, 0, 2, 0xAA, 0xBB, 0, 0, 0, 9, 0xCC}, 4, {{0, 6}}},
        {{0, 2, 0xAA, 0xBB, 0, 1, 0xCC}, 2, {{0, 4}, {4, 3}}},
        {{1, 0xAA, 0, 2, 0xBB}, 1, {{0, 2}, {2, 1}}},
        // A length of 0 is a unit of just its prefix.
        {{0, 0, 0, 0, 0, 0, 0, 1, 7}, 4, {{0, 4}, {4, 5}}},
        // Lengths that overflow or exceed INT32_MAX stop the walk.
        {{0xFF, 0xFF, 0xFF, 0xFF, 1}, 4, {}},
        {{0x7F, 0xFF, 0xFF, 0xFC, 1}, 4, {}},
        {{0x80, 0, 0, 0, 1}, 4, {}},
        // Above four bytes only the last four count.
        {{0xEE, 0, 0, 0, 1, 0x42}, 5, {{0, 6}}},
        // A trailing partial prefix is ignored.
        {{0, 1, 9, 0}, 2, {{0, 3}}},
        {{0, 0, 0}, 4, {}},
        {{0, 0, 1, 0}, -1, {}},
        // A zero-byte prefix gives units that cannot advance: nothing.
        {{1, 2, 3}, 0, {}},
    };
    for (const Case &c : cases) {
        Report r = prefixed(c.data, c.p);
        std::vector<std::pair<size_t, size_t>> got;
        for (size_t i = 0; i < r.units.size(); ++i) got.push_back({r.offsets[i], r.units[i].size()});
        EXPECT_EQ(got, c.units) << "p=" << c.p << " size=" << c.data.size();
        EXPECT_EQ(r.count, c.units.size());
    }
    EXPECT_EQ(_SVEnumerateNALUnits(nullptr, 8, 4, nullptr), 0u);
}

// ---- Emulation prevention --------------------------------------------------

TEST(SVNALUnitUnemulate, DropsThePreventionBytesOnly) {
    const std::vector<std::pair<Bytes, Bytes>> cases = {
        {{0, 0, 3, 1}, {0, 0, 1}},
        {{0, 0, 3, 0, 0, 3}, {0, 0, 0, 0}},
        {{0, 3, 1}, {0, 3, 1}},
        {{0, 0, 3}, {0, 0}},
        // The byte after a dropped 03 is copied unchecked.
        {{0, 0, 3, 3}, {0, 0, 3}},
        {{0, 0, 3, 0, 3}, {0, 0, 0, 3}},
        {{0, 0, 0, 3, 2}, {0, 0, 0, 2}},
        {{0x65, 0, 0, 3, 0, 0, 3, 3, 0, 0, 3, 2}, {0x65, 0, 0, 0, 0, 3, 0, 0, 2}},
        {{}, {}},
    };
    for (const auto &[in, out] : cases) {
        Bytes dst(in.size() + 1, 0xEE);
        const size_t written = _SVUnemulateNALData(in.data(), in.size(), dst.data());
        EXPECT_EQ(Bytes(dst.begin(), dst.begin() + static_cast<long>(written)), out);
        EXPECT_EQ(dst[in.size()], 0xEE) << "wrote past the length";
        Bytes inPlace = in;
        EXPECT_EQ(_SVUnemulateNALData(inPlace.data(), inPlace.size(), inPlace.data()), out.size());
        EXPECT_EQ(Bytes(inPlace.begin(), inPlace.begin() + static_cast<long>(out.size())), out);
    }
}

// ---- Decoder configuration records -----------------------------------------

// The "hex" strings of the record section of a samples.json file, in order;
// an empty unit where the reference gives none (null, for long SEI).
Units recordUnitsFromJSON(const std::string &clip) {
    Bytes raw = readFile("records/" + clip + ".samples.json");
    std::string json(raw.begin(), raw.end());
    const size_t begin = json.find("\"record\":");
    const size_t end = json.find("\"samples\":");
    Units units;
    for (size_t at = json.find("\"hex\": ", begin); at < end; at = json.find("\"hex\": ", at)) {
        at += 7;
        Bytes unit;
        if (json[at] == '"')
            for (++at; json[at] != '"'; at += 2)
                unit.push_back(static_cast<uint8_t>(std::stoi(json.substr(at, 2), nullptr, 16)));
        units.push_back(unit);
    }
    return units;
}

TEST(SVNALUnitRecords, RealAVCRecordsGiveTheirParameterSets) {
    for (const char *clip : kAVCClips) {
        Bytes record = readFile(std::string("records/") + clip + ".avcC");
        int32_t headerLength = 0;
        OSStatus status = -1;
        auto data = convert(record, false, &headerLength, &status);
        ASSERT_EQ(status, 0) << clip;
        EXPECT_EQ(headerLength, std::string(clip).find("len2") != std::string::npos ? 2 : 4) << clip;
        Units expected;
        for (const Bytes &unit : recordUnitsFromJSON(clip)) {
            expected.push_back(unit);
        }
        Bytes out = bytesOf(data.get());
        EXPECT_EQ(strict(out, 4).count, expected.size()) << clip;
        Units got;
        for (const Bytes &unit : strict(out, 4).units) got.emplace_back(unit.begin() + 4, unit.end());
        EXPECT_EQ(got, expected) << clip;
    }
}

TEST(SVNALUnitRecords, RealHEVCRecordsGiveTheirUnitsAfterATypeByte) {
    for (const char *clip : kHEVCClips) {
        Bytes record = readFile(std::string("records/") + clip + ".hvcC");
        int32_t headerLength = 0;
        OSStatus status = -1;
        auto data = convert(record, true, &headerLength, &status);
        ASSERT_EQ(status, 0) << clip;
        EXPECT_EQ(headerLength, 4);
        Units expected = recordUnitsFromJSON(clip);
        ASSERT_GE(expected.size(), 3u) << clip;
        Units got;
        for (const Bytes &unit : strict(bytesOf(data.get()), 4).units) {
            // The array's type, then the unit, whose own header says the same type.
            EXPECT_EQ(unit[4], (unit[5] >> 1) & 0x3F) << clip;
            got.emplace_back(unit.begin() + 5, unit.end());
        }
        ASSERT_EQ(got.size(), expected.size()) << clip;
        for (size_t i = 0; i < got.size(); ++i) {
            // Units the reference leaves out are SEI.
            if (expected[i].empty())
                EXPECT_EQ((got[i][0] >> 1) & 0x3F, 39) << clip;
            else
                EXPECT_EQ(got[i], expected[i]) << clip << " unit " << i;
        }
    }
}

TEST(SVNALUnitRecords, ShortAndBrokenRecords) {
    int32_t headerLength = -1;
    OSStatus status = -1;
    // Five bytes: the counts read as zero, so nothing, successfully.
    auto five = convert({1, 0x42, 0xC0, 0x0B, 0xFF}, false, &headerLength, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(headerLength, 4);
    ASSERT_TRUE(five);
    EXPECT_EQ(CFDataGetLength(five.get()), 0);

    // One SPS of 6 bytes of which 2 are present: zero-filled.
    auto cut = convert({1, 0x42, 0xC0, 0x0B, 0xFD, 0xE1, 0, 6, 0x67, 0x42}, false, &headerLength, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(headerLength, 2);
    EXPECT_EQ(bytesOf(cut.get()), (Bytes{0, 0, 0, 1, 0x67, 0x42, 0, 0, 0, 0}));

    CFMutableDataRef out = nullptr;
    EXPECT_EQ(_SVCreateConcatenatedParameterSetsFromAVCDecoderConfigurationRecord(nullptr, 0, nullptr, nullptr),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(_SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord(nullptr, 30, nullptr, &out),
              kSVFormatDescriptionError_InvalidParameter);
    const uint8_t some[30] = {};
    EXPECT_EQ(_SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord(some, 0, nullptr, &out),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(_SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord(some, 30, nullptr, nullptr),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(out, nullptr);

    // 23 bytes with no arrays: an empty run.
    Bytes hvcc(23, 0);
    hvcc[21] = 0x01;
    auto empty = convert(hvcc, true, &headerLength, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(headerLength, 2);
    EXPECT_EQ(CFDataGetLength(empty.get()), 0);
    // One array announcing a unit whose bytes are missing.
    hvcc.insert(hvcc.end(), {0xA0, 0, 1, 0, 3, 0x40});
    hvcc[22] = 1;
    auto partial = convert(hvcc, true, &headerLength, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(bytesOf(partial.get()), (Bytes{0, 0, 0, 1, 0x20, 0x40, 0, 0}));
}

TEST(SVNALUnitRecords, TooShortHEVCRecordIsLogged) {
    LogCapture capture(4);
    const uint8_t record[22] = {1};
    CFMutableDataRef out = nullptr;
    EXPECT_EQ(_SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord(record, 22, nullptr, &out),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(out, nullptr);
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 3);
    EXPECT_EQ(lines[0].function, "_SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord");
    EXPECT_EQ(lines[0].path, "Sorvel/Sources/_SVUtilities");
    EXPECT_EQ(lines[0].message, "HEVC configuration record is too short");
}

TEST(SVNALUnitRecords, RandomRecordsNeverOverRead) {
    // Exact-size heap copies, so the address sanitizer sees any over-read.
    LogCapture quiet(4);
    std::mt19937 rng(5);
    for (int round = 0; round < 2000; ++round) {
        const size_t size = rng() % 64;
        uint8_t *record = static_cast<uint8_t *>(std::malloc(size ? size : 1));
        for (size_t i = 0; i < size; ++i) record[i] = static_cast<uint8_t>(rng() % 3 ? rng() % 4 : rng());
        for (bool hevc : {false, true}) {
            CFMutableDataRef data = nullptr;
            OSStatus status =
                hevc
                    ? _SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord(record, size, nullptr, &data)
                    : _SVCreateConcatenatedParameterSetsFromAVCDecoderConfigurationRecord(record, size, nullptr, &data);
            if (hevc && size <= 22) {
                EXPECT_EQ(status, kSVFormatDescriptionError_InvalidParameter);
            } else {
                ASSERT_EQ(status, 0);
                // Output, when there is any, opens with a four-byte start code.
                const Bytes out = bytesOf(data);
                if (!out.empty()) EXPECT_EQ(Bytes(out.begin(), out.begin() + 4), (Bytes{0, 0, 0, 1}));
                CFRelease(data);
            }
        }
        std::free(record);
    }
}

}  // namespace
