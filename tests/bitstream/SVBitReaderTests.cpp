// SPDX-License-Identifier: Apache-2.0
// The one bit reader: values MSB first, zeros and a sticky flag past the
// end, and byte copies that zero-fill what the input lacks.
#include <gtest/gtest.h>

#include <vector>

#include "bitstream/SVBitReader.h"

namespace {

using sorvel::SVBitReader;

TEST(SVBitReaderTest, ReadsMostSignificantBitFirst) {
    const uint8_t bytes[] = {0xA5, 0x0F};
    SVBitReader reader(bytes, sizeof bytes);
    EXPECT_EQ(reader.bit(), 1u);
    EXPECT_EQ(reader.bits(3), 0x2u);
    EXPECT_EQ(reader.bits(8), 0x50u);
    EXPECT_EQ(reader.bits(4), 0xFu);
    EXPECT_FALSE(reader.failed());
}

TEST(SVBitReaderTest, PastTheEndYieldsZerosAndStaysFailed) {
    const uint8_t bytes[] = {0xFF};
    SVBitReader reader(bytes, sizeof bytes);
    EXPECT_EQ(reader.bits(12), 0xFF0u);  // eight real bits, four zeros
    EXPECT_TRUE(reader.failed());
    EXPECT_EQ(reader.bit(), 0u);
    EXPECT_TRUE(reader.failed());
}

TEST(SVBitReaderTest, NullDataReadsAsEmpty) {
    SVBitReader reader(nullptr, 16);
    EXPECT_EQ(reader.bits(8), 0u);
    EXPECT_TRUE(reader.failed());
}

TEST(SVBitReaderTest, ExpGolombCodesAndTheirBounds) {
    // ue: 1 -> 0, 010 -> 1, 011 -> 2, 00100 -> 3; then se 00101 -> -2.
    const uint8_t bytes[] = {0b10100110, 0b01000101};
    SVBitReader reader(bytes, sizeof bytes);
    EXPECT_EQ(reader.ue(), 0u);
    EXPECT_EQ(reader.ue(), 1u);
    EXPECT_EQ(reader.ue(), 2u);
    EXPECT_EQ(reader.ue(2), 0u);  // 3 is above the bound: read, failed, and 0
    EXPECT_TRUE(reader.failed());

    SVBitReader signedReader(bytes + 1, 1);
    signedReader.bits(3);
    EXPECT_EQ(signedReader.se(-2, 2), -2);
    EXPECT_FALSE(signedReader.failed());

    // Outside the signed bounds on either side: failed, and 0 rather than
    // a value a caller could overflow with.  00101 is -2, 00100 is +2.
    for (const int32_t low : {-1, 3}) {
        SVBitReader outside(bytes + 1, 1);
        outside.bits(3);
        EXPECT_EQ(outside.se(low, low + 1), 0) << low;
        EXPECT_TRUE(outside.failed()) << low;
    }
}

TEST(SVBitReaderTest, OverlongExpGolombFails) {
    const std::vector<uint8_t> zeros(8, 0);
    SVBitReader reader(zeros.data(), zeros.size());
    EXPECT_EQ(reader.ue(), 0u);
    EXPECT_TRUE(reader.failed());
}

TEST(SVBitReaderTest, ReadBytesCopiesAndZeroFills) {
    const uint8_t bytes[] = {0x12, 0x34, 0x56};
    struct Case {
        unsigned skipBits;
        size_t count;
        std::vector<uint8_t> expected;
        bool failed;
    };
    const Case cases[] = {
        {0, 3, {0x12, 0x34, 0x56}, false}, {8, 4, {0x34, 0x56, 0x00, 0x00}, true},
        {4, 2, {0x23, 0x45}, false},       {4, 3, {0x23, 0x45, 0x60}, true},  // four real bits, four zeros
        {24, 2, {0x00, 0x00}, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "skip " << c.skipBits << " count " << c.count);
        SVBitReader reader(bytes, sizeof bytes);
        reader.skip(c.skipBits);
        std::vector<uint8_t> out(c.count, 0xEE);
        reader.readBytes(out.data(), c.count);
        EXPECT_EQ(out, c.expected);
        EXPECT_EQ(reader.failed(), c.failed);
    }
}

TEST(SVBitReaderTest, SkippingPastTheEndStopsAtTheEnd) {
    const uint8_t bytes[] = {0x80, 0x01};
    SVBitReader reader(bytes, sizeof bytes);
    reader.readBytes(nullptr, 1);
    EXPECT_EQ(reader.bits(8), 0x01u);
    reader.skip(1);
    EXPECT_TRUE(reader.failed());
    EXPECT_EQ(reader.bit(), 0u);
}

}  // namespace
