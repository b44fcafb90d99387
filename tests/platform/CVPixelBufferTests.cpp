// SPDX-License-Identifier: Apache-2.0
// Tests for pixel buffers, texture records and image-buffer geometry: plane
// layouts of packed and planar formats against hand-computed sizes, row and
// plane alignment, every creation status, allocation failure, caller-owned
// bytes, base-address locking, attachments through the creation attributes,
// and display rectangles from clean apertures and pixel aspect ratios.
#include <CoreVideo/CoreVideo.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "support/TestAllocator.h"

namespace {

using sorvel_test::TestAllocator;

CFNumberRef number(double value) {
    return CFNumberCreate(nullptr, kCFNumberDoubleType, &value);
}
CFNumberRef integer(int64_t value) {
    return CFNumberCreate(nullptr, kCFNumberSInt64Type, &value);
}

CFDictionaryRef dictionaryOf(std::initializer_list<std::pair<CFStringRef, CFTypeRef>> entries) {
    CFMutableDictionaryRef dictionary =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    for (const auto &[key, value] : entries) CFDictionarySetValue(dictionary, key, value);
    return dictionary;
}

// A dictionary of numbers, released here.
CFDictionaryRef numbersDictionary(std::initializer_list<std::pair<CFStringRef, double>> entries) {
    CFMutableDictionaryRef dictionary =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    for (const auto &[key, value] : entries) {
        CFNumberRef n = number(value);
        CFDictionarySetValue(dictionary, key, n);
        CFRelease(n);
    }
    return dictionary;
}

CFDictionaryRef alignmentAttributes(int64_t rowAlignment, int64_t planeAlignment = 0) {
    CFNumberRef row = integer(rowAlignment);
    CFNumberRef plane = integer(planeAlignment);
    CFDictionaryRef attributes =
        dictionaryOf({{kCVPixelBufferBytesPerRowAlignmentKey, row}, {kCVPixelBufferPlaneAlignmentKey, plane}});
    CFRelease(row);
    CFRelease(plane);
    return attributes;
}

// ---- layouts ---------------------------------------------------------------------

struct PlaneExpectation {
    size_t width, height, bytesPerRow, offset;
};

struct LayoutCase {
    const char *name;
    OSType format;
    size_t width, height;
    int64_t rowAlignment;                  // 0: default (64)
    std::vector<PlaneExpectation> planes;  // one entry for packed formats
    size_t dataSize;
    int64_t planeAlignment = 0;  // 0: default (64)
};

class CVPixelBufferLayoutTest : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(CVPixelBufferLayoutTest, PlanesRowsAndSizeMatchTheFormat) {
    const LayoutCase &c = GetParam();
    CFDictionaryRef attributes =
        c.rowAlignment || c.planeAlignment ? alignmentAttributes(c.rowAlignment, c.planeAlignment) : nullptr;
    CVPixelBufferRef buffer = nullptr;
    ASSERT_EQ(CVPixelBufferCreate(nullptr, c.width, c.height, c.format, attributes, &buffer), kCVReturnSuccess);
    if (attributes) CFRelease(attributes);
    EXPECT_EQ(CVPixelBufferGetWidth(buffer), c.width);
    EXPECT_EQ(CVPixelBufferGetHeight(buffer), c.height);
    EXPECT_EQ(CVPixelBufferGetPixelFormatType(buffer), c.format);
    EXPECT_EQ(CVPixelBufferGetDataSize(buffer), c.dataSize);
    EXPECT_EQ(CVPixelBufferGetBytesPerRow(buffer), c.planes[0].bytesPerRow);
    auto *base = static_cast<uint8_t *>(CVPixelBufferGetBaseAddress(buffer));
    ASSERT_NE(base, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(base) % (c.planeAlignment ? c.planeAlignment : 64), 0u);
    const bool planar = c.planes.size() > 1;
    EXPECT_EQ(CVPixelBufferIsPlanar(buffer), planar);
    EXPECT_EQ(CVPixelBufferGetPlaneCount(buffer), planar ? c.planes.size() : 0);
    for (size_t i = 0; planar && i < c.planes.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(CVPixelBufferGetWidthOfPlane(buffer, i), c.planes[i].width);
        EXPECT_EQ(CVPixelBufferGetHeightOfPlane(buffer, i), c.planes[i].height);
        EXPECT_EQ(CVPixelBufferGetBytesPerRowOfPlane(buffer, i), c.planes[i].bytesPerRow);
        EXPECT_EQ(static_cast<uint8_t *>(CVPixelBufferGetBaseAddressOfPlane(buffer, i)), base + c.planes[i].offset);
    }
    EXPECT_EQ(CVPixelBufferGetBaseAddressOfPlane(buffer, c.planes.size()), nullptr);
    EXPECT_EQ(CVPixelBufferGetWidthOfPlane(buffer, planar ? c.planes.size() : 0), 0u);
    EXPECT_EQ(CVPixelBufferGetBytesPerRowOfPlane(buffer, planar ? c.planes.size() : 0), 0u);

    // Zero-filled, and every byte of the layout is ours (the sanitizer
    // build catches a layout larger than the allocation).
    ASSERT_EQ(CVPixelBufferLockBaseAddress(buffer, 0), kCVReturnSuccess);
    for (size_t i = 0; i < c.dataSize; ++i) ASSERT_EQ(base[i], 0) << "byte " << i;
    std::memset(base, 0xA5, c.dataSize);
    EXPECT_EQ(CVPixelBufferUnlockBaseAddress(buffer, 0), kCVReturnSuccess);
    CFRelease(buffer);
}

const uint32_t k420v = kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;

INSTANTIATE_TEST_SUITE_P(
    Formats, CVPixelBufferLayoutTest,
    ::testing::Values(
        LayoutCase{"BGRA_100x10", kCVPixelFormatType_32BGRA, 100, 10, 0, {{100, 10, 448, 0}}, 4480},
        LayoutCase{"BGRA_16_exact", kCVPixelFormatType_32BGRA, 16, 2, 0, {{16, 2, 64, 0}}, 128},
        LayoutCase{"BGRA_align16", kCVPixelFormatType_32BGRA, 5, 3, 16, {{5, 3, 32, 0}}, 96},
        LayoutCase{"BGRA_align1", kCVPixelFormatType_32BGRA, 5, 3, 1, {{5, 3, 20, 0}}, 60},
        LayoutCase{"BGRA_align48", kCVPixelFormatType_32BGRA, 13, 1, 48, {{13, 1, 96, 0}}, 96},
        LayoutCase{"RGB24_1x1", kCVPixelFormatType_24RGB, 1, 1, 1, {{1, 1, 3, 0}}, 3},
        LayoutCase{"ARGB64", kCVPixelFormatType_64ARGB, 9, 2, 0, {{9, 2, 128, 0}}, 256},
        LayoutCase{"L008_odd", kCVPixelFormatType_OneComponent8, 65, 1, 0, {{65, 1, 128, 0}}, 128},
        LayoutCase{"2vuy_odd_width", kCVPixelFormatType_422YpCbCr8, 3, 2, 1, {{3, 2, 8, 0}}, 16},
        LayoutCase{"yuvs", kCVPixelFormatType_422YpCbCr8_yuvs, 640, 480, 0, {{640, 480, 1280, 0}}, 1280 * 480},
        LayoutCase{"420v_1080p",
                   k420v,
                   1920,
                   1080,
                   0,
                   {{1920, 1080, 1920, 0}, {960, 540, 1920, 1920 * 1080}},
                   1920 * 1080 * 3 / 2},
        LayoutCase{"420v_odd", k420v, 101, 51, 0, {{101, 51, 128, 0}, {51, 26, 128, 6528}}, 6528 + 128 * 26},
        LayoutCase{"420f_odd_plane_padding",
                   kCVPixelFormatType_420YpCbCr8BiPlanarFullRange,
                   3,
                   3,
                   1,
                   {{3, 3, 3, 0}, {2, 2, 4, 64}},
                   72},
        LayoutCase{"y420",
                   kCVPixelFormatType_420YpCbCr8Planar,
                   16,
                   16,
                   0,
                   {{16, 16, 64, 0}, {8, 8, 64, 1024}, {8, 8, 64, 1536}},
                   2048},
        LayoutCase{
            "x420", kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange, 10, 4, 0, {{10, 4, 64, 0}, {5, 2, 64, 256}}, 384},
        LayoutCase{"422v", kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange, 7, 3, 1, {{7, 3, 7, 0}, {4, 3, 8, 64}}, 88},
        LayoutCase{"444f", kCVPixelFormatType_444YpCbCr8BiPlanarFullRange, 2, 2, 1, {{2, 2, 2, 0}, {2, 2, 4, 64}}, 72},
        LayoutCase{"420v_plane_align256", k420v, 3, 3, 1, {{3, 3, 3, 0}, {2, 2, 4, 256}}, 264, 256}),
    [](const ::testing::TestParamInfo<LayoutCase> &info) { return std::string(info.param.name); });

// ---- creation statuses -------------------------------------------------------------

struct StatusCase {
    const char *name;
    size_t width, height;
    OSType format;
    CFTypeRef (*attributes)();
    CVReturn status;
};

CFTypeRef noAttributes() {
    return nullptr;
}
CFTypeRef notADictionary() {
    return CFRetain(CFSTR("attributes"));
}
CFTypeRef negativeAlignment() {
    return alignmentAttributes(-16);
}
CFTypeRef hugeAlignment() {
    return alignmentAttributes(8192);
}
CFTypeRef planeAlignmentNotPowerOfTwo() {
    return alignmentAttributes(0, 48);
}
CFTypeRef alignmentNotANumber() {
    return dictionaryOf({{kCVPixelBufferBytesPerRowAlignmentKey, CFSTR("64")}});
}
CFTypeRef attachmentsNotADictionary() {
    return dictionaryOf({{kCVBufferPropagatedAttachmentsKey, kCFBooleanTrue}});
}
CFTypeRef ignoredKeys() {
    return dictionaryOf({{kCVPixelBufferWidthKey, kCFBooleanTrue}});
}

class CVPixelBufferStatusTest : public ::testing::TestWithParam<StatusCase> {};

TEST_P(CVPixelBufferStatusTest, ReportsTheStatusAndClearsTheOutput) {
    const StatusCase &c = GetParam();
    CFTypeRef attributes = c.attributes();
    CVPixelBufferRef buffer = reinterpret_cast<CVPixelBufferRef>(0x1);
    EXPECT_EQ(
        CVPixelBufferCreate(nullptr, c.width, c.height, c.format, static_cast<CFDictionaryRef>(attributes), &buffer),
        c.status);
    if (c.status == kCVReturnSuccess) {
        EXPECT_NE(buffer, nullptr);
        CFRelease(buffer);
    } else {
        EXPECT_EQ(buffer, nullptr);
    }
    if (attributes) CFRelease(attributes);
}

INSTANTIATE_TEST_SUITE_P(
    Statuses, CVPixelBufferStatusTest,
    ::testing::Values(
        StatusCase{"ZeroWidth", 0, 4, kCVPixelFormatType_32BGRA, noAttributes, kCVReturnInvalidArgument},
        StatusCase{"ZeroHeight", 4, 0, kCVPixelFormatType_32BGRA, noAttributes, kCVReturnInvalidArgument},
        StatusCase{"UnknownFormat", 4, 4, 0x61626364, noAttributes, kCVReturnInvalidPixelFormat},
        StatusCase{"FormatZero", 4, 4, 0, noAttributes, kCVReturnInvalidPixelFormat},
        StatusCase{"RowBytesOverflow", SIZE_MAX, 1, kCVPixelFormatType_32BGRA, noAttributes, kCVReturnInvalidSize},
        StatusCase{"TotalOverflow", SIZE_MAX / 8, SIZE_MAX / 8, k420v, noAttributes, kCVReturnInvalidSize},
        StatusCase{"TooLargeForCFIndex", SIZE_MAX / 2, 1, kCVPixelFormatType_OneComponent8, noAttributes,
                   kCVReturnInvalidSize},
        StatusCase{"NotADictionary", 4, 4, kCVPixelFormatType_32BGRA, notADictionary, kCVReturnInvalidArgument},
        StatusCase{"NegativeAlignment", 4, 4, kCVPixelFormatType_32BGRA, negativeAlignment,
                   kCVReturnInvalidPixelBufferAttributes},
        StatusCase{"HugeAlignment", 4, 4, kCVPixelFormatType_32BGRA, hugeAlignment,
                   kCVReturnInvalidPixelBufferAttributes},
        StatusCase{"PlaneAlignment48", 4, 4, k420v, planeAlignmentNotPowerOfTwo, kCVReturnInvalidPixelBufferAttributes},
        StatusCase{"AlignmentNotANumber", 4, 4, kCVPixelFormatType_32BGRA, alignmentNotANumber,
                   kCVReturnInvalidPixelBufferAttributes},
        StatusCase{"AttachmentsNotADictionary", 4, 4, kCVPixelFormatType_32BGRA, attachmentsNotADictionary,
                   kCVReturnInvalidPixelBufferAttributes},
        StatusCase{"IgnoredKeysAreFine", 4, 4, kCVPixelFormatType_32BGRA, ignoredKeys, kCVReturnSuccess}),
    [](const ::testing::TestParamInfo<StatusCase> &info) { return std::string(info.param.name); });

TEST(CVPixelBufferCreateTest, NullOutputIsAnInvalidArgument) {
    EXPECT_EQ(CVPixelBufferCreate(nullptr, 4, 4, kCVPixelFormatType_32BGRA, nullptr, nullptr),
              kCVReturnInvalidArgument);
}

TEST(CVPixelBufferCreateTest, AllocationFailuresLeaveNothingBehind) {
    for (long succeed = 0; succeed < 2; ++succeed) {  // the object, then its pixels
        TestAllocator allocator;
        allocator.failAfter(succeed);
        CVPixelBufferRef buffer = reinterpret_cast<CVPixelBufferRef>(0x1);
        EXPECT_EQ(CVPixelBufferCreate(allocator.get(), 64, 64, k420v, nullptr, &buffer), kCVReturnAllocationFailed);
        EXPECT_EQ(buffer, nullptr);
        EXPECT_EQ(allocator.outstanding(), 0);
    }
    TestAllocator allocator;
    CVPixelBufferRef buffer = nullptr;
    ASSERT_EQ(CVPixelBufferCreate(allocator.get(), 64, 64, k420v, nullptr, &buffer), kCVReturnSuccess);
    EXPECT_EQ(allocator.allocations(), 2) << "the object and its pixels come from the caller's allocator";
    CFRelease(buffer);
    EXPECT_EQ(allocator.outstanding(), 0);
}

TEST(CVPixelBufferCreateTest, AttributesCarryAttachmentsInTheirModes) {
    CFDictionaryRef propagated = dictionaryOf({{kCVImageBufferYCbCrMatrixKey, kCVImageBufferYCbCrMatrix_ITU_R_709_2}});
    CFDictionaryRef local = dictionaryOf({{CFSTR("local"), kCFBooleanTrue}});
    CFDictionaryRef attributes =
        dictionaryOf({{kCVBufferPropagatedAttachmentsKey, propagated}, {kCVBufferNonPropagatedAttachmentsKey, local}});
    CVPixelBufferRef buffer = nullptr;
    ASSERT_EQ(CVPixelBufferCreate(nullptr, 8, 8, kCVPixelFormatType_32BGRA, attributes, &buffer), kCVReturnSuccess);
    CVAttachmentMode mode = 99;
    EXPECT_EQ(CVBufferGetAttachment(buffer, kCVImageBufferYCbCrMatrixKey, &mode),
              kCVImageBufferYCbCrMatrix_ITU_R_709_2);
    EXPECT_EQ(mode, kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(CVBufferGetAttachment(buffer, CFSTR("local"), &mode), kCFBooleanTrue);
    EXPECT_EQ(mode, kCVAttachmentMode_ShouldNotPropagate);
    CFRelease(buffer);
    CFRelease(attributes);
    CFRelease(local);
    CFRelease(propagated);
}

// ---- caller-owned bytes --------------------------------------------------------------

struct ReleaseRecord {
    int calls = 0;
    const void *address = nullptr;
};

void recordRelease(void *refCon, const void *baseAddress) {
    auto *record = static_cast<ReleaseRecord *>(refCon);
    record->calls++;
    record->address = baseAddress;
}

TEST(CVPixelBufferWithBytesTest, WrapsTheCallersRowsAndHandsThemBackOnce) {
    std::vector<uint8_t> pixels(100 * 3);
    ReleaseRecord record;
    CVPixelBufferRef buffer = nullptr;
    ASSERT_EQ(CVPixelBufferCreateWithBytes(nullptr, 20, 3, kCVPixelFormatType_32BGRA, pixels.data(), 100, recordRelease,
                                           &record, nullptr, &buffer),
              kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferGetBaseAddress(buffer), pixels.data());
    EXPECT_EQ(CVPixelBufferGetBytesPerRow(buffer), 100u);
    EXPECT_EQ(CVPixelBufferGetDataSize(buffer), 300u);
    EXPECT_FALSE(CVPixelBufferIsPlanar(buffer));
    CFRetain(buffer);
    CFRelease(buffer);
    EXPECT_EQ(record.calls, 0);
    CFRelease(buffer);
    EXPECT_EQ(record.calls, 1);
    EXPECT_EQ(record.address, pixels.data());
}

TEST(CVPixelBufferWithBytesTest, RefusalsNeverCallTheReleaseCallback) {
    uint8_t pixels[256] = {};
    ReleaseRecord record;
    struct {
        size_t width;
        OSType format;
        void *base;
        size_t bytesPerRow;
        CVReturn status;
    } cases[] = {
        {16, kCVPixelFormatType_32BGRA, pixels, 63, kCVReturnInvalidArgument},  // a row is 64 bytes
        {16, kCVPixelFormatType_32BGRA, nullptr, 64, kCVReturnInvalidArgument},
        {0, kCVPixelFormatType_32BGRA, pixels, 64, kCVReturnInvalidArgument},
        {16, k420v, pixels, 64, kCVReturnInvalidPixelFormat},
        {16, 0x61626364, pixels, 64, kCVReturnInvalidPixelFormat},
        {16, kCVPixelFormatType_32BGRA, pixels, SIZE_MAX, kCVReturnInvalidSize},
    };
    for (const auto &c : cases) {
        CVPixelBufferRef buffer = reinterpret_cast<CVPixelBufferRef>(0x1);
        EXPECT_EQ(CVPixelBufferCreateWithBytes(nullptr, c.width, 2, c.format, c.base, c.bytesPerRow, recordRelease,
                                               &record, nullptr, &buffer),
                  c.status);
        EXPECT_EQ(buffer, nullptr);
    }
    TestAllocator allocator;
    allocator.failAlways();
    CVPixelBufferRef buffer = nullptr;
    EXPECT_EQ(CVPixelBufferCreateWithBytes(allocator.get(), 16, 2, kCVPixelFormatType_32BGRA, pixels, 64, recordRelease,
                                           &record, nullptr, &buffer),
              kCVReturnAllocationFailed);
    EXPECT_EQ(record.calls, 0);
}

// ---- locking, type, getters ------------------------------------------------------------

TEST(CVPixelBufferLockTest, LocksNestAndUnlocksMustMatch) {
    CVPixelBufferRef buffer = nullptr;
    ASSERT_EQ(CVPixelBufferCreate(nullptr, 4, 4, kCVPixelFormatType_32BGRA, nullptr, &buffer), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferUnlockBaseAddress(buffer, 0), kCVReturnError) << "nothing is locked";
    EXPECT_EQ(CVPixelBufferLockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferLockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferUnlockBaseAddress(buffer, 0), kCVReturnError) << "read-only locks need read-only unlocks";
    EXPECT_EQ(CVPixelBufferUnlockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferUnlockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferUnlockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly), kCVReturnError);
    EXPECT_EQ(CVPixelBufferLockBaseAddress(buffer, 2), kCVReturnInvalidArgument);
    EXPECT_EQ(CVPixelBufferUnlockBaseAddress(buffer, 2), kCVReturnInvalidArgument);
    EXPECT_EQ(CVPixelBufferLockBaseAddress(nullptr, 0), kCVReturnInvalidArgument);
    EXPECT_EQ(CVPixelBufferUnlockBaseAddress(nullptr, 0), kCVReturnInvalidArgument);
    CFRelease(buffer);
}

TEST(CVPixelBufferTypeTest, IsARegisteredClassOfItsOwn) {
    CVPixelBufferRef buffer = nullptr;
    ASSERT_EQ(CVPixelBufferCreate(nullptr, 4, 4, kCVPixelFormatType_32BGRA, nullptr, &buffer), kCVReturnSuccess);
    EXPECT_NE(CVPixelBufferGetTypeID(), static_cast<CFTypeID>(_kCFRuntimeNotATypeID));
    EXPECT_EQ(CFGetTypeID(buffer), CVPixelBufferGetTypeID());
    EXPECT_NE(CVPixelBufferGetTypeID(), CVOpenGLESTextureGetTypeID());
    CFStringRef description = CFCopyDescription(buffer);
    char text[256];
    ASSERT_TRUE(CFStringGetCString(description, text, sizeof(text), kCFStringEncodingUTF8));
    EXPECT_NE(std::string(text).find("CVPixelBuffer"), std::string::npos);
    EXPECT_NE(std::string(text).find("'BGRA'"), std::string::npos) << text;
    CFRelease(description);
    CFRelease(buffer);
}

TEST(CVPixelBufferTypeTest, GettersAnswerNothingForNullAndOtherTypes) {
    CVOpenGLESTextureRef texture = nullptr;
    ASSERT_EQ(_CVOpenGLESTextureCreate(nullptr, 0x0DE1, 7, 4, 4, false, &texture), kCVReturnSuccess);
    for (CVPixelBufferRef buffer : {static_cast<CVPixelBufferRef>(nullptr), texture}) {
        EXPECT_EQ(CVPixelBufferGetWidth(buffer), 0u);
        EXPECT_EQ(CVPixelBufferGetHeight(buffer), 0u);
        EXPECT_EQ(CVPixelBufferGetPixelFormatType(buffer), 0u);
        EXPECT_EQ(CVPixelBufferGetBaseAddress(buffer), nullptr);
        EXPECT_EQ(CVPixelBufferGetBytesPerRow(buffer), 0u);
        EXPECT_EQ(CVPixelBufferGetDataSize(buffer), 0u);
        EXPECT_FALSE(CVPixelBufferIsPlanar(buffer));
        EXPECT_EQ(CVPixelBufferGetPlaneCount(buffer), 0u);
        EXPECT_EQ(CVPixelBufferGetHeightOfPlane(buffer, 0), 0u);
        EXPECT_EQ(CVPixelBufferGetBaseAddressOfPlane(buffer, 0), nullptr);
        EXPECT_EQ(CVPixelBufferLockBaseAddress(buffer, 0), kCVReturnInvalidArgument);
    }
    CFRelease(texture);
}

// ---- display rectangles ---------------------------------------------------------------------

// An aperture of width, height, horizontal and vertical offset (NaN: key
// left out; all NaN: no aperture), or spacings (NaN: no aspect ratio).
CFDictionaryRef apertureOf(const double (&a)[4]) {
    if (std::isnan(a[0]) && std::isnan(a[1])) return nullptr;
    const CFStringRef keys[4] = {kCVImageBufferCleanApertureWidthKey, kCVImageBufferCleanApertureHeightKey,
                                 kCVImageBufferCleanApertureHorizontalOffsetKey,
                                 kCVImageBufferCleanApertureVerticalOffsetKey};
    CFMutableDictionaryRef dictionary =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    for (int i = 0; i < 4; ++i) {
        if (std::isnan(a[i])) continue;
        CFNumberRef n = number(a[i]);
        CFDictionarySetValue(dictionary, keys[i], n);
        CFRelease(n);
    }
    return dictionary;
}

CFDictionaryRef aspectOf(double horizontal, double vertical) {
    if (std::isnan(horizontal)) return nullptr;
    return numbersDictionary({{kCVImageBufferPixelAspectRatioHorizontalSpacingKey, horizontal},
                              {kCVImageBufferPixelAspectRatioVerticalSpacingKey, vertical}});
}

constexpr double kNo = NAN;

struct RectCase {
    const char *name;
    double width, height;
    double aperture[4];
    double spacing[2];
    bool topLeft;
    CGRect expected;
};

class CVImageBufferDisplayRectTest : public ::testing::TestWithParam<RectCase> {};

void expectRect(CGRect got, CGRect expected) {
    EXPECT_DOUBLE_EQ(got.origin.x, expected.origin.x);
    EXPECT_DOUBLE_EQ(got.origin.y, expected.origin.y);
    EXPECT_DOUBLE_EQ(got.size.width, expected.size.width);
    EXPECT_DOUBLE_EQ(got.size.height, expected.size.height);
}

TEST_P(CVImageBufferDisplayRectTest, MatchesTheHandComputedRectangle) {
    const RectCase &c = GetParam();
    CFDictionaryRef aperture = apertureOf(c.aperture);
    CFDictionaryRef aspect = aspectOf(c.spacing[0], c.spacing[1]);
    expectRect(_CVImageBufferGetDisplayRect(c.width, c.height, aperture, aspect, c.topLeft), c.expected);
    if (aperture) CFRelease(aperture);
    if (aspect) CFRelease(aspect);
}

INSTANTIATE_TEST_SUITE_P(
    Rects, CVImageBufferDisplayRectTest,
    ::testing::Values(
        RectCase{
            "NoApertureIsTheWholePicture", 1920, 1080, {kNo, kNo, kNo, kNo}, {kNo, kNo}, true, {{0, 0}, {1920, 1080}}},
        RectCase{"CentredAperture", 1920, 1080, {1888, 1062, 0, 0}, {kNo, kNo}, false, {{16, 9}, {1888, 1062}}},
        RectCase{"OffsetsTopLeft", 200, 100, {100, 50, 10, 5}, {kNo, kNo}, true, {{60, 30}, {100, 50}}},
        RectCase{"OffsetsBottomLeft", 200, 100, {100, 50, 10, 5}, {kNo, kNo}, false, {{60, 20}, {100, 50}}},
        RectCase{"MissingOffsetsAreZero", 200, 100, {100, 50, kNo, kNo}, {kNo, kNo}, true, {{50, 25}, {100, 50}}},
        RectCase{
            "AspectRatioStretchesXAndWidth", 1440, 1080, {kNo, kNo, kNo, kNo}, {4, 3}, false, {{0, 0}, {1920, 1080}}},
        RectCase{"ApertureAndAspectRatio", 200, 100, {100, 50, 10, 5}, {4, 3}, true, {{80, 30}, {400.0 / 3, 50}}},
        RectCase{"NegativeWidthIgnoresAperture", 200, 100, {-100, 50, 0, 0}, {kNo, kNo}, true, {{0, 0}, {200, 100}}},
        RectCase{"MissingHeightIgnoresAperture", 200, 100, {100, kNo, 0, 0}, {kNo, kNo}, true, {{0, 0}, {200, 100}}},
        RectCase{"ZeroSpacingIgnored", 200, 100, {kNo, kNo, kNo, kNo}, {4, 0}, true, {{0, 0}, {200, 100}}}),
    [](const ::testing::TestParamInfo<RectCase> &info) { return std::string(info.param.name); });

CFArrayRef rational(double numerator, double denominator) {
    CFNumberRef parts[2] = {number(numerator), number(denominator)};
    CFArrayRef array = CFArrayCreate(nullptr, reinterpret_cast<const void **>(parts), 2, &kCFTypeArrayCallBacks);
    CFRelease(parts[0]);
    CFRelease(parts[1]);
    return array;
}

TEST(CVImageBufferDisplayRectValuesTest, RationalsAndUnusableValues) {
    CFArrayRef width = rational(701, 2), height = rational(480, 1), offset = rational(-1, 4), broken = rational(1, 0);
    CFDictionaryRef rationals = dictionaryOf({{kCVImageBufferCleanApertureWidthKey, width},
                                              {kCVImageBufferCleanApertureHeightKey, height},
                                              {kCVImageBufferCleanApertureHorizontalOffsetKey, offset}});
    expectRect(_CVImageBufferGetDisplayRect(720, 480, rationals, nullptr, true),
               CGRectMake((720 - 350.5) / 2 - 0.25, 0, 350.5, 480));
    CFDictionaryRef zeroDenominator =
        dictionaryOf({{kCVImageBufferCleanApertureWidthKey, broken}, {kCVImageBufferCleanApertureHeightKey, height}});
    CFDictionaryRef textOffset = dictionaryOf({{kCVImageBufferCleanApertureWidthKey, width},
                                               {kCVImageBufferCleanApertureHeightKey, height},
                                               {kCVImageBufferCleanApertureVerticalOffsetKey, CFSTR("5")}});
    auto notADictionary = reinterpret_cast<CFDictionaryRef>(CFSTR("clap"));
    for (CFDictionaryRef unusable : {zeroDenominator, textOffset, notADictionary})
        expectRect(_CVImageBufferGetDisplayRect(720, 480, unusable, notADictionary, false), CGRectMake(0, 0, 720, 480));
    for (CFTypeRef object : {(CFTypeRef)width, (CFTypeRef)height, (CFTypeRef)offset, (CFTypeRef)broken,
                             (CFTypeRef)rationals, (CFTypeRef)zeroDenominator, (CFTypeRef)textOffset})
        CFRelease(object);
}

TEST(CVImageBufferGeometryTest, ImageBuffersAnswerFromTheirSizeAndAttachments) {
    CVPixelBufferRef buffer = nullptr;
    ASSERT_EQ(CVPixelBufferCreate(nullptr, 200, 100, k420v, nullptr, &buffer), kCVReturnSuccess);
    EXPECT_TRUE(CGSizeEqualToSize(CVImageBufferGetEncodedSize(buffer), CGSizeMake(200, 100)));
    EXPECT_TRUE(CGRectEqualToRect(CVImageBufferGetCleanRect(buffer), CGRectMake(0, 0, 200, 100)));
    CFDictionaryRef aperture = apertureOf({100, 50, 10, 5});
    CFDictionaryRef aspect = aspectOf(4, 3);
    CVBufferSetAttachment(buffer, kCVImageBufferCleanApertureKey, aperture, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(buffer, kCVImageBufferPixelAspectRatioKey, aspect, kCVAttachmentMode_ShouldPropagate);
    EXPECT_TRUE(CGRectEqualToRect(CVImageBufferGetCleanRect(buffer), CGRectMake(60, 30, 100, 50)))
        << "the clean rect ignores the aspect ratio and counts rows from the top";
    CGSize display = CVImageBufferGetDisplaySize(buffer);
    EXPECT_DOUBLE_EQ(display.width, 400.0 / 3);
    EXPECT_DOUBLE_EQ(display.height, 50);
    CFRelease(buffer);

    // A texture record: its size, its attachments and the aperture in
    // texture coordinates, flipped or not.
    for (bool flipped : {false, true}) {
        SCOPED_TRACE(flipped);
        CVOpenGLESTextureRef texture = nullptr;
        ASSERT_EQ(_CVOpenGLESTextureCreate(nullptr, 0x0DE1, 42, 200, 100, flipped, &texture), kCVReturnSuccess);
        EXPECT_EQ(CFGetTypeID(texture), CVOpenGLESTextureGetTypeID());
        EXPECT_EQ(CVOpenGLESTextureGetTarget(texture), 0x0DE1u);
        EXPECT_EQ(CVOpenGLESTextureGetName(texture), 42u);
        EXPECT_EQ(CVOpenGLESTextureIsFlipped(texture), flipped);
        EXPECT_TRUE(CGSizeEqualToSize(CVImageBufferGetEncodedSize(texture), CGSizeMake(200, 100)));
        CVBufferSetAttachment(texture, kCVImageBufferCleanApertureKey, aperture, kCVAttachmentMode_ShouldPropagate);
        float ll[2], lr[2], ur[2], ul[2];
        CVOpenGLESTextureGetCleanTexCoords(texture, ll, lr, ur, ul);
        const float top = flipped ? 0.7f : 0.3f, bottom = flipped ? 0.2f : 0.8f;
        for (auto [corner, s, t] : {std::tuple{ll, 0.3f, bottom}, std::tuple{lr, 0.8f, bottom},
                                    std::tuple{ur, 0.8f, top}, std::tuple{ul, 0.3f, top}}) {
            EXPECT_FLOAT_EQ(corner[0], s);
            EXPECT_FLOAT_EQ(corner[1], t);
        }
        CFRelease(texture);
    }
    CFRelease(aperture);
    CFRelease(aspect);
}

TEST(CVImageBufferGeometryTest, NonImageBuffersAnswerZero) {
    for (CVImageBufferRef notImage : {static_cast<CVImageBufferRef>(nullptr),
                                      reinterpret_cast<CVImageBufferRef>(const_cast<__CFString *>(CFSTR("x")))}) {
        EXPECT_TRUE(CGSizeEqualToSize(CVImageBufferGetEncodedSize(notImage), CGSizeZero));
        EXPECT_TRUE(CGSizeEqualToSize(CVImageBufferGetDisplaySize(notImage), CGSizeZero));
        EXPECT_TRUE(CGRectEqualToRect(CVImageBufferGetCleanRect(notImage), CGRectZero));
        EXPECT_EQ(CVOpenGLESTextureGetName(notImage), 0u);
        EXPECT_FALSE(CVOpenGLESTextureIsFlipped(notImage));
    }
    CVOpenGLESTextureRef texture = reinterpret_cast<CVOpenGLESTextureRef>(0x1);
    EXPECT_EQ(_CVOpenGLESTextureCreate(nullptr, 0, 0, 0, 1, false, &texture), kCVReturnInvalidArgument);
    EXPECT_EQ(texture, nullptr);
    EXPECT_EQ(_CVOpenGLESTextureCreate(nullptr, 0, 0, 1, 1, false, nullptr), kCVReturnInvalidArgument);
    TestAllocator allocator;
    allocator.failAlways();
    EXPECT_EQ(_CVOpenGLESTextureCreate(allocator.get(), 0, 0, 1, 1, false, &texture), kCVReturnAllocationFailed);
}

// ---- keys ---------------------------------------------------------------------------------

#define NAMED(key) std::pair<CFStringRef, const char *>(key, #key)

TEST(CVImageBufferKeysTest, EveryKeysTextIsItsName) {
    const std::pair<CFStringRef, const char *> keys[] = {
        NAMED(kCVImageBufferCleanApertureKey),
        NAMED(kCVImageBufferCleanApertureWidthKey),
        NAMED(kCVImageBufferCleanApertureHeightKey),
        NAMED(kCVImageBufferCleanApertureHorizontalOffsetKey),
        NAMED(kCVImageBufferCleanApertureVerticalOffsetKey),
        NAMED(kCVImageBufferPixelAspectRatioKey),
        NAMED(kCVImageBufferPixelAspectRatioHorizontalSpacingKey),
        NAMED(kCVImageBufferPixelAspectRatioVerticalSpacingKey),
        NAMED(kCVImageBufferFieldCountKey),
        NAMED(kCVImageBufferFieldDetailKey),
        NAMED(kCVImageBufferFieldDetailTemporalTopFirst),
        NAMED(kCVImageBufferFieldDetailTemporalBottomFirst),
        NAMED(kCVImageBufferFieldDetailSpatialFirstLineEarly),
        NAMED(kCVImageBufferFieldDetailSpatialFirstLineLate),
        NAMED(kCVImageBufferColorPrimariesKey),
        NAMED(kCVImageBufferColorPrimaries_ITU_R_709_2),
        NAMED(kCVImageBufferColorPrimaries_EBU_3213),
        NAMED(kCVImageBufferColorPrimaries_SMPTE_C),
        NAMED(kCVImageBufferColorPrimaries_P22),
        NAMED(kCVImageBufferColorPrimaries_ITU_R_2020),
        NAMED(kCVImageBufferColorPrimaries_DCI_P3),
        NAMED(kCVImageBufferColorPrimaries_P3_D65),
        NAMED(kCVImageBufferTransferFunctionKey),
        NAMED(kCVImageBufferTransferFunction_ITU_R_709_2),
        NAMED(kCVImageBufferTransferFunction_SMPTE_240M_1995),
        NAMED(kCVImageBufferTransferFunction_UseGamma),
        NAMED(kCVImageBufferTransferFunction_ITU_R_2020),
        NAMED(kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ),
        NAMED(kCVImageBufferTransferFunction_ITU_R_2100_HLG),
        NAMED(kCVImageBufferTransferFunction_SMPTE_ST_428_1),
        NAMED(kCVImageBufferTransferFunction_sRGB),
        NAMED(kCVImageBufferTransferFunction_Linear),
        NAMED(kCVImageBufferYCbCrMatrixKey),
        NAMED(kCVImageBufferYCbCrMatrix_ITU_R_709_2),
        NAMED(kCVImageBufferYCbCrMatrix_ITU_R_601_4),
        NAMED(kCVImageBufferYCbCrMatrix_SMPTE_240M_1995),
        NAMED(kCVImageBufferYCbCrMatrix_ITU_R_2020),
        NAMED(kCVImageBufferChromaLocationTopFieldKey),
        NAMED(kCVImageBufferChromaLocationBottomFieldKey),
        NAMED(kCVImageBufferChromaLocation_Left),
        NAMED(kCVImageBufferChromaLocation_Center),
        NAMED(kCVImageBufferChromaLocation_TopLeft),
        NAMED(kCVImageBufferChromaLocation_Top),
        NAMED(kCVImageBufferChromaLocation_BottomLeft),
        NAMED(kCVImageBufferChromaLocation_Bottom),
        NAMED(kCVImageBufferChromaLocation_DV420),
        NAMED(kCVImageBufferGammaLevelKey),
        NAMED(kCVImageBufferICCProfileKey),
        NAMED(kCVPixelBufferPixelFormatTypeKey),
        NAMED(kCVPixelBufferWidthKey),
        NAMED(kCVPixelBufferHeightKey),
        NAMED(kCVPixelBufferBytesPerRowAlignmentKey),
        NAMED(kCVPixelBufferPlaneAlignmentKey),
        NAMED(kCVPixelBufferOpenGLESCompatibilityKey),
        NAMED(kCVPixelBufferIOSurfacePropertiesKey),
        NAMED(kCVBufferPropagatedAttachmentsKey),
        NAMED(kCVBufferNonPropagatedAttachmentsKey),
    };
    for (const auto &[key, name] : keys) {
        char text[128];
        ASSERT_TRUE(CFStringGetCString(key, text, sizeof(text), kCFStringEncodingUTF8)) << name;
        EXPECT_STREQ(text, name);
    }
}

}  // namespace
