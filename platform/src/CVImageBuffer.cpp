// SPDX-License-Identifier: Apache-2.0
// Image-buffer geometry and keys.
//
// One routine, _CVImageBufferGetDisplayRect, turns an encoded size, a clean
// aperture and a pixel aspect ratio into a rectangle; the per-buffer calls
// feed it the buffer's size and attachments, and video format descriptions
// feed it their dimensions and extensions.

#include <cmath>

#include "CVInternal.h"

#define CF_SOURCE_PATH "CoreVideo/CVImageBuffer"

#define CV_CONSTANT_KEY(name) const CFStringRef name = CFSTR(#name)

CV_CONSTANT_KEY(kCVImageBufferCleanApertureKey);
CV_CONSTANT_KEY(kCVImageBufferCleanApertureWidthKey);
CV_CONSTANT_KEY(kCVImageBufferCleanApertureHeightKey);
CV_CONSTANT_KEY(kCVImageBufferCleanApertureHorizontalOffsetKey);
CV_CONSTANT_KEY(kCVImageBufferCleanApertureVerticalOffsetKey);
CV_CONSTANT_KEY(kCVImageBufferPixelAspectRatioKey);
CV_CONSTANT_KEY(kCVImageBufferPixelAspectRatioHorizontalSpacingKey);
CV_CONSTANT_KEY(kCVImageBufferPixelAspectRatioVerticalSpacingKey);
CV_CONSTANT_KEY(kCVImageBufferFieldCountKey);
CV_CONSTANT_KEY(kCVImageBufferFieldDetailKey);
CV_CONSTANT_KEY(kCVImageBufferFieldDetailTemporalTopFirst);
CV_CONSTANT_KEY(kCVImageBufferFieldDetailTemporalBottomFirst);
CV_CONSTANT_KEY(kCVImageBufferFieldDetailSpatialFirstLineEarly);
CV_CONSTANT_KEY(kCVImageBufferFieldDetailSpatialFirstLineLate);
CV_CONSTANT_KEY(kCVImageBufferColorPrimariesKey);
CV_CONSTANT_KEY(kCVImageBufferColorPrimaries_ITU_R_709_2);
CV_CONSTANT_KEY(kCVImageBufferColorPrimaries_EBU_3213);
CV_CONSTANT_KEY(kCVImageBufferColorPrimaries_SMPTE_C);
CV_CONSTANT_KEY(kCVImageBufferColorPrimaries_P22);
CV_CONSTANT_KEY(kCVImageBufferColorPrimaries_ITU_R_2020);
CV_CONSTANT_KEY(kCVImageBufferColorPrimaries_DCI_P3);
CV_CONSTANT_KEY(kCVImageBufferColorPrimaries_P3_D65);
CV_CONSTANT_KEY(kCVImageBufferTransferFunctionKey);
CV_CONSTANT_KEY(kCVImageBufferTransferFunction_ITU_R_709_2);
CV_CONSTANT_KEY(kCVImageBufferTransferFunction_SMPTE_240M_1995);
CV_CONSTANT_KEY(kCVImageBufferTransferFunction_UseGamma);
CV_CONSTANT_KEY(kCVImageBufferTransferFunction_ITU_R_2020);
CV_CONSTANT_KEY(kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ);
CV_CONSTANT_KEY(kCVImageBufferTransferFunction_ITU_R_2100_HLG);
CV_CONSTANT_KEY(kCVImageBufferTransferFunction_SMPTE_ST_428_1);
CV_CONSTANT_KEY(kCVImageBufferTransferFunction_sRGB);
CV_CONSTANT_KEY(kCVImageBufferTransferFunction_Linear);
CV_CONSTANT_KEY(kCVImageBufferYCbCrMatrixKey);
CV_CONSTANT_KEY(kCVImageBufferYCbCrMatrix_ITU_R_709_2);
CV_CONSTANT_KEY(kCVImageBufferYCbCrMatrix_ITU_R_601_4);
CV_CONSTANT_KEY(kCVImageBufferYCbCrMatrix_SMPTE_240M_1995);
CV_CONSTANT_KEY(kCVImageBufferYCbCrMatrix_ITU_R_2020);
CV_CONSTANT_KEY(kCVImageBufferChromaLocationTopFieldKey);
CV_CONSTANT_KEY(kCVImageBufferChromaLocationBottomFieldKey);
CV_CONSTANT_KEY(kCVImageBufferChromaLocation_Left);
CV_CONSTANT_KEY(kCVImageBufferChromaLocation_Center);
CV_CONSTANT_KEY(kCVImageBufferChromaLocation_TopLeft);
CV_CONSTANT_KEY(kCVImageBufferChromaLocation_Top);
CV_CONSTANT_KEY(kCVImageBufferChromaLocation_BottomLeft);
CV_CONSTANT_KEY(kCVImageBufferChromaLocation_Bottom);
CV_CONSTANT_KEY(kCVImageBufferChromaLocation_DV420);
CV_CONSTANT_KEY(kCVImageBufferGammaLevelKey);
CV_CONSTANT_KEY(kCVImageBufferICCProfileKey);

namespace {

bool isDictionary(CFTypeRef value) {
    return value != nullptr && CFGetTypeID(value) == CFDictionaryGetTypeID();
}

bool readNumber(CFTypeRef value, double *out) {
    if (value == nullptr || CFGetTypeID(value) != CFNumberGetTypeID()) return false;
    return CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberFloat64Type, out) && std::isfinite(*out);
}

// A CFNumber, or a CFArray of two CFNumbers (numerator, denominator).
bool readRational(CFTypeRef value, double *out) {
    if (value == nullptr) return false;
    if (CFGetTypeID(value) != CFArrayGetTypeID()) return readNumber(value, out);
    auto array = static_cast<CFArrayRef>(value);
    double numerator = 0, denominator = 0;
    if (CFArrayGetCount(array) != 2 || !readNumber(CFArrayGetValueAtIndex(array, 0), &numerator) ||
        !readNumber(CFArrayGetValueAtIndex(array, 1), &denominator) || denominator == 0)
        return false;
    *out = numerator / denominator;
    return std::isfinite(*out);
}

// A missing offset is zero; a present one must be readable.
bool readOffset(CFDictionaryRef aperture, CFStringRef key, double *out) {
    CFTypeRef value = CFDictionaryGetValue(aperture, key);
    if (value == nullptr) {
        *out = 0;
        return true;
    }
    return readRational(value, out);
}

struct Aperture {
    double width, height, horizontalOffset, verticalOffset;
};

bool readAperture(CFTypeRef value, Aperture *aperture) {
    if (!isDictionary(value)) return false;
    auto dictionary = static_cast<CFDictionaryRef>(value);
    Aperture read{};
    if (!readRational(CFDictionaryGetValue(dictionary, kCVImageBufferCleanApertureWidthKey), &read.width) ||
        !readRational(CFDictionaryGetValue(dictionary, kCVImageBufferCleanApertureHeightKey), &read.height) ||
        !(read.width > 0) || !(read.height > 0) ||
        !readOffset(dictionary, kCVImageBufferCleanApertureHorizontalOffsetKey, &read.horizontalOffset) ||
        !readOffset(dictionary, kCVImageBufferCleanApertureVerticalOffsetKey, &read.verticalOffset))
        return false;
    *aperture = read;
    return true;
}

// Horizontal stretch: horizontal spacing / vertical spacing.
bool readAspectRatio(CFTypeRef value, double *ratio) {
    if (!isDictionary(value)) return false;
    auto dictionary = static_cast<CFDictionaryRef>(value);
    double horizontal = 0, vertical = 0;
    if (!readRational(CFDictionaryGetValue(dictionary, kCVImageBufferPixelAspectRatioHorizontalSpacingKey),
                      &horizontal) ||
        !readRational(CFDictionaryGetValue(dictionary, kCVImageBufferPixelAspectRatioVerticalSpacingKey), &vertical) ||
        !(horizontal > 0) || !(vertical > 0))
        return false;
    *ratio = horizontal / vertical;
    return std::isfinite(*ratio);
}

// Holds a retained attachment for the length of a call.
class Attachment {
public:
    Attachment(CFTypeRef buffer, CFStringRef key) : value_(__CVBufferCopyAttachment(buffer, key)) {}
    ~Attachment() {
        if (value_ != nullptr) CFRelease(value_);
    }
    Attachment(const Attachment &) = delete;
    Attachment &operator=(const Attachment &) = delete;
    CFDictionaryRef dictionary() const { return static_cast<CFDictionaryRef>(value_); }

private:
    CFTypeRef value_;
};

// The display rectangle of an image buffer from its own attachments.
bool imageBufferRect(CVImageBufferRef imageBuffer, bool useAspectRatio, Boolean originIsAtTopLeft, CGRect *rect) {
    size_t width = 0, height = 0;
    if (!__CVImageBufferGetDimensions(imageBuffer, &width, &height)) return false;
    Attachment aperture(imageBuffer, kCVImageBufferCleanApertureKey);
    Attachment aspectRatio(imageBuffer, useAspectRatio ? kCVImageBufferPixelAspectRatioKey : nullptr);
    *rect = _CVImageBufferGetDisplayRect(static_cast<CGFloat>(width), static_cast<CGFloat>(height),
                                         aperture.dictionary(), aspectRatio.dictionary(), originIsAtTopLeft);
    return true;
}

}  // namespace

CF_PRIVATE bool __CVImageBufferGetDimensions(CVImageBufferRef imageBuffer, size_t *width, size_t *height) {
    if (imageBuffer == nullptr) return false;
    return __CVPixelBufferGetDimensions(imageBuffer, width, height) ||
           __CVOpenGLESTextureGetDimensions(imageBuffer, width, height);
}

CGRect _CVImageBufferGetDisplayRect(CGFloat encodedWidth, CGFloat encodedHeight, CFDictionaryRef cleanAperture,
                                    CFDictionaryRef pixelAspectRatio, Boolean originIsAtTopLeft) noexcept {
    Aperture aperture{encodedWidth, encodedHeight, 0, 0};
    readAperture(cleanAperture, &aperture);  // leaves the whole picture when unusable
    double ratio = 1;
    readAspectRatio(pixelAspectRatio, &ratio);
    double x = (encodedWidth - aperture.width) / 2 + aperture.horizontalOffset;
    double centredY = (encodedHeight - aperture.height) / 2;
    double y = originIsAtTopLeft ? centredY + aperture.verticalOffset : centredY - aperture.verticalOffset;
    return CGRectMake(x * ratio, y, aperture.width * ratio, aperture.height);
}

CGSize CVImageBufferGetEncodedSize(CVImageBufferRef imageBuffer) noexcept {
    size_t width = 0, height = 0;
    if (!__CVImageBufferGetDimensions(imageBuffer, &width, &height)) return CGSizeZero;
    return CGSizeMake(static_cast<CGFloat>(width), static_cast<CGFloat>(height));
}

CGSize CVImageBufferGetDisplaySize(CVImageBufferRef imageBuffer) noexcept {
    CGRect rect;
    if (!imageBufferRect(imageBuffer, true, false, &rect)) return CGSizeZero;
    return rect.size;
}

CGRect CVImageBufferGetCleanRect(CVImageBufferRef imageBuffer) noexcept {
    CGRect rect;
    if (!imageBufferRect(imageBuffer, false, true, &rect)) return CGRectZero;
    return rect;
}
