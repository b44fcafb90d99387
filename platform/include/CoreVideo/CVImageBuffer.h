/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Image buffers: buffers that hold one picture (pixel buffers, textures),
 * their geometry and the attachment keys that describe how the picture is
 * to be shown.
 *
 * Geometry.  The encoded size is the picture's size in stored pixels.  The
 * clean aperture (attachment kCVImageBufferCleanApertureKey) is the part of
 * it meant to be seen: a dictionary of four rationals, its width, height and
 * the horizontal and vertical offsets of its centre from the centre of the
 * encoded picture (positive: right and down).  Each rational is a CFNumber
 * or a CFArray of two CFNumbers, numerator then denominator.  The pixel
 * aspect ratio (kCVImageBufferPixelAspectRatioKey) is a dictionary of two
 * CFNumbers, the horizontal and vertical spacing; a picture is shown
 * horizontally stretched by horizontal / vertical.
 *
 * Every key and value below is a constant string whose text is its own
 * name.
 */
#ifndef COREVIDEO_CVIMAGEBUFFER_H
#define COREVIDEO_CVIMAGEBUFFER_H

#include <CoreGraphics/CGGeometry.h>
#include <CoreVideo/CVBuffer.h>

CF_EXTERN_C_BEGIN

/* Any buffer that holds one picture: a CVPixelBuffer or a CVOpenGLESTexture. */
typedef CVBufferRef CVImageBufferRef;

/* The stored size in pixels; CGSizeZero for NULL or an object that is not
 * an image buffer. */
CF_EXPORT CGSize CVImageBufferGetEncodedSize(CVImageBufferRef imageBuffer) CF_NOEXCEPT
    CF_ABI_NAME(CVImageBufferGetEncodedSize);
/* The size the picture is shown at: the clean aperture's size (the encoded
 * size without one), its width multiplied by the pixel aspect ratio.
 * CGSizeZero for NULL or a non-image buffer. */
CF_EXPORT CGSize CVImageBufferGetDisplaySize(CVImageBufferRef imageBuffer) CF_NOEXCEPT
    CF_ABI_NAME(CVImageBufferGetDisplaySize);
/* The clean aperture in stored pixels, origin at the top left corner (row 0
 * of the picture); the whole encoded picture when the buffer has no usable
 * clean aperture.  CGRectZero for NULL or a non-image buffer. */
CF_EXPORT CGRect CVImageBufferGetCleanRect(CVImageBufferRef imageBuffer) CF_NOEXCEPT
    CF_ABI_NAME(CVImageBufferGetCleanRect);

/* The display rectangle of a picture of `encodedWidth` x `encodedHeight`
 * stored pixels: the clean aperture `cleanAperture` (NULL: the whole
 * picture) with its x and width multiplied by the pixel aspect ratio
 * `pixelAspectRatio` (NULL: square pixels).  With `originIsAtTopLeft` the
 * origin is the rectangle's top left corner, y growing downwards; otherwise
 * its bottom left corner, y growing upwards:
 *
 *     x = ((W - width) / 2 + horizontalOffset) * hSpacing / vSpacing
 *     y = (H - height) / 2 + verticalOffset     (top left)
 *     y = (H - height) / 2 - verticalOffset     (bottom left)
 *
 * An aperture or aspect ratio that is not a dictionary, or whose values are
 * missing or unusable (not a number or two-number array, a zero
 * denominator, a width, height or spacing not above zero, a value that is
 * not finite) is ignored as a whole; missing offsets count as zero.  The
 * aperture is not clamped to the picture.  Never fails; thread-safe. */
CF_EXPORT CGRect _CVImageBufferGetDisplayRect(CGFloat encodedWidth, CGFloat encodedHeight,
                                              CFDictionaryRef cleanAperture, CFDictionaryRef pixelAspectRatio,
                                              Boolean originIsAtTopLeft) CF_NOEXCEPT
    CF_ABI_NAME(_CVImageBufferGetDisplayRect);

/* Clean aperture: a dictionary of the four keys that follow it. */
CF_EXPORT const CFStringRef kCVImageBufferCleanApertureKey CF_ABI_NAME(kCVImageBufferCleanApertureKey);
CF_EXPORT const CFStringRef kCVImageBufferCleanApertureWidthKey CF_ABI_NAME(kCVImageBufferCleanApertureWidthKey);
CF_EXPORT const CFStringRef kCVImageBufferCleanApertureHeightKey CF_ABI_NAME(kCVImageBufferCleanApertureHeightKey);
CF_EXPORT const CFStringRef kCVImageBufferCleanApertureHorizontalOffsetKey
    CF_ABI_NAME(kCVImageBufferCleanApertureHorizontalOffsetKey);
CF_EXPORT const CFStringRef kCVImageBufferCleanApertureVerticalOffsetKey
    CF_ABI_NAME(kCVImageBufferCleanApertureVerticalOffsetKey);

/* Pixel aspect ratio: a dictionary of the two spacing keys. */
CF_EXPORT const CFStringRef kCVImageBufferPixelAspectRatioKey CF_ABI_NAME(kCVImageBufferPixelAspectRatioKey);
CF_EXPORT const CFStringRef kCVImageBufferPixelAspectRatioHorizontalSpacingKey
    CF_ABI_NAME(kCVImageBufferPixelAspectRatioHorizontalSpacingKey);
CF_EXPORT const CFStringRef kCVImageBufferPixelAspectRatioVerticalSpacingKey
    CF_ABI_NAME(kCVImageBufferPixelAspectRatioVerticalSpacingKey);

/* Fields: a CFNumber (1 progressive, 2 interlaced) and one of the details. */
CF_EXPORT const CFStringRef kCVImageBufferFieldCountKey CF_ABI_NAME(kCVImageBufferFieldCountKey);
CF_EXPORT const CFStringRef kCVImageBufferFieldDetailKey CF_ABI_NAME(kCVImageBufferFieldDetailKey);
CF_EXPORT const CFStringRef kCVImageBufferFieldDetailTemporalTopFirst
    CF_ABI_NAME(kCVImageBufferFieldDetailTemporalTopFirst);
CF_EXPORT const CFStringRef kCVImageBufferFieldDetailTemporalBottomFirst
    CF_ABI_NAME(kCVImageBufferFieldDetailTemporalBottomFirst);
CF_EXPORT const CFStringRef kCVImageBufferFieldDetailSpatialFirstLineEarly
    CF_ABI_NAME(kCVImageBufferFieldDetailSpatialFirstLineEarly);
CF_EXPORT const CFStringRef kCVImageBufferFieldDetailSpatialFirstLineLate
    CF_ABI_NAME(kCVImageBufferFieldDetailSpatialFirstLineLate);

/* Colour primaries. */
CF_EXPORT const CFStringRef kCVImageBufferColorPrimariesKey CF_ABI_NAME(kCVImageBufferColorPrimariesKey);
CF_EXPORT const CFStringRef kCVImageBufferColorPrimaries_ITU_R_709_2
    CF_ABI_NAME(kCVImageBufferColorPrimaries_ITU_R_709_2);
CF_EXPORT const CFStringRef kCVImageBufferColorPrimaries_EBU_3213 CF_ABI_NAME(kCVImageBufferColorPrimaries_EBU_3213);
CF_EXPORT const CFStringRef kCVImageBufferColorPrimaries_SMPTE_C CF_ABI_NAME(kCVImageBufferColorPrimaries_SMPTE_C);
CF_EXPORT const CFStringRef kCVImageBufferColorPrimaries_P22 CF_ABI_NAME(kCVImageBufferColorPrimaries_P22);
CF_EXPORT const CFStringRef kCVImageBufferColorPrimaries_ITU_R_2020
    CF_ABI_NAME(kCVImageBufferColorPrimaries_ITU_R_2020);
CF_EXPORT const CFStringRef kCVImageBufferColorPrimaries_DCI_P3 CF_ABI_NAME(kCVImageBufferColorPrimaries_DCI_P3);
CF_EXPORT const CFStringRef kCVImageBufferColorPrimaries_P3_D65 CF_ABI_NAME(kCVImageBufferColorPrimaries_P3_D65);

/* Transfer functions. */
CF_EXPORT const CFStringRef kCVImageBufferTransferFunctionKey CF_ABI_NAME(kCVImageBufferTransferFunctionKey);
CF_EXPORT const CFStringRef kCVImageBufferTransferFunction_ITU_R_709_2
    CF_ABI_NAME(kCVImageBufferTransferFunction_ITU_R_709_2);
CF_EXPORT const CFStringRef kCVImageBufferTransferFunction_SMPTE_240M_1995
    CF_ABI_NAME(kCVImageBufferTransferFunction_SMPTE_240M_1995);
CF_EXPORT const CFStringRef kCVImageBufferTransferFunction_UseGamma
    CF_ABI_NAME(kCVImageBufferTransferFunction_UseGamma);
CF_EXPORT const CFStringRef kCVImageBufferTransferFunction_ITU_R_2020
    CF_ABI_NAME(kCVImageBufferTransferFunction_ITU_R_2020);
CF_EXPORT const CFStringRef kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ
    CF_ABI_NAME(kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ);
CF_EXPORT const CFStringRef kCVImageBufferTransferFunction_ITU_R_2100_HLG
    CF_ABI_NAME(kCVImageBufferTransferFunction_ITU_R_2100_HLG);
CF_EXPORT const CFStringRef kCVImageBufferTransferFunction_SMPTE_ST_428_1
    CF_ABI_NAME(kCVImageBufferTransferFunction_SMPTE_ST_428_1);
CF_EXPORT const CFStringRef kCVImageBufferTransferFunction_sRGB CF_ABI_NAME(kCVImageBufferTransferFunction_sRGB);
CF_EXPORT const CFStringRef kCVImageBufferTransferFunction_Linear CF_ABI_NAME(kCVImageBufferTransferFunction_Linear);

/* Y'CbCr matrices. */
CF_EXPORT const CFStringRef kCVImageBufferYCbCrMatrixKey CF_ABI_NAME(kCVImageBufferYCbCrMatrixKey);
CF_EXPORT const CFStringRef kCVImageBufferYCbCrMatrix_ITU_R_709_2 CF_ABI_NAME(kCVImageBufferYCbCrMatrix_ITU_R_709_2);
CF_EXPORT const CFStringRef kCVImageBufferYCbCrMatrix_ITU_R_601_4 CF_ABI_NAME(kCVImageBufferYCbCrMatrix_ITU_R_601_4);
CF_EXPORT const CFStringRef kCVImageBufferYCbCrMatrix_SMPTE_240M_1995
    CF_ABI_NAME(kCVImageBufferYCbCrMatrix_SMPTE_240M_1995);
CF_EXPORT const CFStringRef kCVImageBufferYCbCrMatrix_ITU_R_2020 CF_ABI_NAME(kCVImageBufferYCbCrMatrix_ITU_R_2020);

/* Chroma sample locations, per field. */
CF_EXPORT const CFStringRef kCVImageBufferChromaLocationTopFieldKey
    CF_ABI_NAME(kCVImageBufferChromaLocationTopFieldKey);
CF_EXPORT const CFStringRef kCVImageBufferChromaLocationBottomFieldKey
    CF_ABI_NAME(kCVImageBufferChromaLocationBottomFieldKey);
CF_EXPORT const CFStringRef kCVImageBufferChromaLocation_Left CF_ABI_NAME(kCVImageBufferChromaLocation_Left);
CF_EXPORT const CFStringRef kCVImageBufferChromaLocation_Center CF_ABI_NAME(kCVImageBufferChromaLocation_Center);
CF_EXPORT const CFStringRef kCVImageBufferChromaLocation_TopLeft CF_ABI_NAME(kCVImageBufferChromaLocation_TopLeft);
CF_EXPORT const CFStringRef kCVImageBufferChromaLocation_Top CF_ABI_NAME(kCVImageBufferChromaLocation_Top);
CF_EXPORT const CFStringRef kCVImageBufferChromaLocation_BottomLeft
    CF_ABI_NAME(kCVImageBufferChromaLocation_BottomLeft);
CF_EXPORT const CFStringRef kCVImageBufferChromaLocation_Bottom CF_ABI_NAME(kCVImageBufferChromaLocation_Bottom);
CF_EXPORT const CFStringRef kCVImageBufferChromaLocation_DV420 CF_ABI_NAME(kCVImageBufferChromaLocation_DV420);

/* Gamma (a CFNumber, with kCVImageBufferTransferFunction_UseGamma) and an
 * ICC profile (CFData). */
CF_EXPORT const CFStringRef kCVImageBufferGammaLevelKey CF_ABI_NAME(kCVImageBufferGammaLevelKey);
CF_EXPORT const CFStringRef kCVImageBufferICCProfileKey CF_ABI_NAME(kCVImageBufferICCProfileKey);

CF_EXTERN_C_END

#endif /* COREVIDEO_CVIMAGEBUFFER_H */
