// SPDX-License-Identifier: Apache-2.0
// Video format descriptions: the generic and image-buffer creators, the
// geometry queries, and the H.264/HEVC parameter-set creators and accessors.
#include <CoreGraphics/CGGeometry.h>
#include <CoreVideo/CoreVideo.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>
#include <dispatch/dispatch.h>

#include <cstring>
#include <vector>

#include "bitstream/SVParameterSetsInternal.h"
#include "core/SVAllocationBoundary.h"
#include "core/SVLog.h"
#include "formats/SVFormatDescriptionInternal.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/SVFormatDescription");

constexpr FourCharCode kAVC1 = 0x61766331;          // 'avc1'
constexpr FourCharCode kHVC1 = 0x68766331;          // 'hvc1'
constexpr FourCharCode kAVC3 = 0x61766333;          // 'avc3': parameter sets may also be in-band
constexpr FourCharCode kHEV1 = 0x68657631;          // 'hev1'
constexpr FourCharCode kUnknownImage = 0x7761743F;  // 'wat?'

bool isVideo(SVFormatDescriptionRef desc) {
    return sorvel::gSVFormatDescriptionClass.checked(desc) && desc->mediaType == kSVMediaType_Video;
}

CFDictionaryRef dictionaryExtension(SVFormatDescriptionRef desc, CFStringRef key) {
    if (!desc->extensions) return nullptr;
    const void *value = CFDictionaryGetValue(desc->extensions, key);
    return value && CFGetTypeID(value) == CFDictionaryGetTypeID() ? static_cast<CFDictionaryRef>(value) : nullptr;
}

void setNumber(CFMutableDictionaryRef dict, CFStringRef key, int32_t value) {
    CFNumberRef number = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &value);
    if (!number) return;
    CFDictionarySetValue(dict, key, number);
    CFRelease(number);
}

CFMutableDictionaryRef createMutableDictionary() {
    return CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                     &kCFTypeDictionaryValueCallBacks);
}

struct PixelAspect {
    int h, v;
};
constexpr PixelAspect kAspectTable[] = {{1, 1},   {12, 11}, {10, 11}, {16, 11}, {40, 33},  {24, 11}, {20, 11}, {32, 11},
                                        {80, 33}, {18, 11}, {15, 11}, {64, 33}, {160, 99}, {4, 3},   {3, 2},   {2, 1}};

CFStringRef colourPrimaries(int code) {
    switch (code) {
        case 1:
            return kCVImageBufferColorPrimaries_ITU_R_709_2;
        case 5:
            return kCVImageBufferColorPrimaries_EBU_3213;
        case 6:
        case 7:
            return kCVImageBufferColorPrimaries_SMPTE_C;  // 170M and 240M share their primaries
        case 9:
            return kCVImageBufferColorPrimaries_ITU_R_2020;
        case 11:
            return kCVImageBufferColorPrimaries_DCI_P3;
        case 12:
            return kCVImageBufferColorPrimaries_P3_D65;
        case 22:
            return kCVImageBufferColorPrimaries_P22;
        default:
            return nullptr;
    }
}

CFStringRef transferFunction(int code, double *gamma) {
    *gamma = 0;
    switch (code) {
        case 1:
        case 6:
            return kCVImageBufferTransferFunction_ITU_R_709_2;  // 601 uses the 709 curve
        case 4:
            *gamma = 2.2;
            return kCVImageBufferTransferFunction_UseGamma;
        case 5:
            *gamma = 2.8;
            return kCVImageBufferTransferFunction_UseGamma;
        case 7:
            return kCVImageBufferTransferFunction_SMPTE_240M_1995;
        case 8:
            return kCVImageBufferTransferFunction_Linear;
        case 13:
            return kCVImageBufferTransferFunction_sRGB;
        case 14:
        case 15:
            return kCVImageBufferTransferFunction_ITU_R_2020;
        case 16:
            return kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ;
        case 17:
            return kCVImageBufferTransferFunction_SMPTE_ST_428_1;
        case 18:
            return kCVImageBufferTransferFunction_ITU_R_2100_HLG;
        default:
            return nullptr;
    }
}

CFStringRef yCbCrMatrix(int code) {
    switch (code) {
        case 1:
            return kCVImageBufferYCbCrMatrix_ITU_R_709_2;
        case 5:
        case 6:
            return kCVImageBufferYCbCrMatrix_ITU_R_601_4;
        case 7:
            return kCVImageBufferYCbCrMatrix_SMPTE_240M_1995;
        case 9:
        case 10:
            return kCVImageBufferYCbCrMatrix_ITU_R_2020;
        default:
            return nullptr;
    }
}

CFStringRef chromaLocation(int code) {
    const CFStringRef locations[] = {kCVImageBufferChromaLocation_Left,       kCVImageBufferChromaLocation_Center,
                                     kCVImageBufferChromaLocation_TopLeft,    kCVImageBufferChromaLocation_Top,
                                     kCVImageBufferChromaLocation_BottomLeft, kCVImageBufferChromaLocation_Bottom};
    return code >= 0 && code < 6 ? locations[code] : nullptr;
}

// A copy of `sizes` and the sets checked for the common rules: every set
// present, non-empty and small enough for a 16-bit record length.
bool checkParameterSets(size_t count, const uint8_t *const *pointers, const size_t *sizes,
                        const sorvel::SVLogSite &site) {
    for (size_t i = 0; i < count; ++i) {
        if (!pointers[i] || sizes[i] == 0 || sizes[i] > 0xFFFF) {
            SV_LOG_SITE(site, 3, "Parameter set %d is missing, empty or larger than 65535 bytes", static_cast<int>(i));
            return false;
        }
    }
    return true;
}

// Makes the description: the payload gets copies of the sets (with the
// description's allocator), the dimensions and the header length.
OSStatus createParameterSetDescription(CFAllocatorRef allocator, FourCharCode subtype, int32_t width, int32_t height,
                                       CFDictionaryRef extensions, size_t count, const uint8_t *const *pointers,
                                       const size_t *sizes, int nalUnitHeaderLength,
                                       SVFormatDescriptionRef *formatDescriptionOut) {
    OpaqueSVFormatDescription *desc =
        sorvel::SVFormatDescriptionCreateInstance(allocator, kSVMediaType_Video, subtype, extensions);
    if (!desc) return kSVFormatDescriptionError_AllocationFailed;
    desc->video.width = width;
    desc->video.height = height;
    desc->video.nalUnitHeaderLength = nalUnitHeaderLength;
    CFAllocatorRef own = CFGetAllocator(desc);
    desc->video.parameterSets =
        static_cast<uint8_t **>(CFAllocatorAllocate(own, CFIndex(count * sizeof(uint8_t *)), 0));
    desc->video.parameterSetSizes =
        static_cast<uint32_t *>(CFAllocatorAllocate(own, CFIndex(count * sizeof(uint32_t)), 0));
    if (!desc->video.parameterSets || !desc->video.parameterSetSizes) {
        CFRelease(desc);
        return kSVFormatDescriptionError_AllocationFailed;
    }
    for (size_t i = 0; i < count; ++i) {
        uint8_t *copy = static_cast<uint8_t *>(CFAllocatorAllocate(own, CFIndex(sizes[i]), 0));
        if (!copy) {
            CFRelease(desc);
            return kSVFormatDescriptionError_AllocationFailed;
        }
        std::memcpy(copy, pointers[i], sizes[i]);
        desc->video.parameterSets[i] = copy;
        desc->video.parameterSetSizes[i] = static_cast<uint32_t>(sizes[i]);
        desc->video.parameterSetCount = static_cast<uint32_t>(i + 1);
    }
    *formatDescriptionOut = desc;
    return 0;
}

void setEntry(const void *key, const void *value, void *dictionary) {
    CFDictionarySetValue(static_cast<CFMutableDictionaryRef>(dictionary), key, value);
}
void addEntry(const void *key, const void *value, void *dictionary) {
    CFDictionaryAddValue(static_cast<CFMutableDictionaryRef>(dictionary), key, value);
}

// Extensions holding the record under the atoms key, merged with the
// caller's (whose entries win, except that the record is added to any atoms
// dictionary they give).
CFMutableDictionaryRef createRecordExtensions(CFDictionaryRef callerExtensions, CFStringRef atomName,
                                              CFDataRef record) {
    CFMutableDictionaryRef extensions = createMutableDictionary();
    if (!extensions) return nullptr;
    if (callerExtensions) {
        // Copied entry by entry without a list of its own, so that nothing
        // here can throw while the dictionary is held.
        CFDictionaryApplyFunction(callerExtensions, setEntry, extensions);
    }
    const void *given = CFDictionaryGetValue(extensions, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms);
    CFMutableDictionaryRef atoms =
        given && CFGetTypeID(given) == CFDictionaryGetTypeID()
            ? CFDictionaryCreateMutableCopy(kCFAllocatorDefault, 0, static_cast<CFDictionaryRef>(given))
            : createMutableDictionary();
    if (!atoms) {
        CFRelease(extensions);
        return nullptr;
    }
    CFDictionarySetValue(atoms, atomName, record);
    CFDictionarySetValue(extensions, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms, atoms);
    CFRelease(atoms);
    return extensions;
}

// The units of an Annex B run, as the flexible enumerator finds them:
// counted first, then collected.
struct NALUnits {
    std::vector<const uint8_t *> pointers;
    std::vector<size_t> sizes;
};
NALUnits splitAnnexB(const uint8_t *data, size_t size) {
    NALUnits units;
    const size_t count = _SVEnumerateAnnexBNALUnitsFlexible(data, size, nullptr);
    units.pointers.reserve(count);
    units.sizes.reserve(count);
    NALUnits *unitsRef = &units;
    _SVEnumerateAnnexBNALUnitsFlexible(data, size, ^int(const uint8_t *unit, size_t length) {
      unitsRef->pointers.push_back(unit);
      unitsRef->sizes.push_back(length);
      return 0;
    });
    return units;
}

OSStatus getParameterSetAtIndex(SVFormatDescriptionRef desc, FourCharCode subtype, size_t index,
                                const uint8_t **pointerOut, size_t *sizeOut, size_t *countOut, int *headerLengthOut) {
    const FourCharCode other = subtype == kAVC1 ? kAVC3 : kHEV1;
    if (!isVideo(desc) || (desc->mediaSubType != subtype && desc->mediaSubType != other) ||
        index >= desc->video.parameterSetCount)
        return kSVFormatDescriptionError_InvalidParameter;
    if (pointerOut) *pointerOut = desc->video.parameterSets[index];
    if (sizeOut) *sizeOut = desc->video.parameterSetSizes[index];
    if (countOut) *countOut = desc->video.parameterSetCount;
    if (headerLengthOut) *headerLengthOut = desc->video.nalUnitHeaderLength;
    return 0;
}

OSStatus createFromHEVC(CFAllocatorRef allocator, size_t count, const uint8_t *const *pointers, const size_t *sizes,
                        int nalUnitHeaderLength, CFDictionaryRef callerExtensions, SVFormatDescriptionRef *out,
                        const sorvel::SVLogSite &site) {
    if (!checkParameterSets(count, pointers, sizes, site)) return kSVFormatDescriptionError_InvalidParameter;
    size_t vps = 0, spsCount = 0, pps = 0;
    const uint8_t *firstSPS = nullptr;
    size_t firstSPSSize = 0;
    for (size_t i = 0; i < count; ++i) {
        const char *why = "";
        if (sizes[i] < 2) {
            SV_LOG_SITE(site, 3, "Parameter set %d is shorter than a NAL unit header", static_cast<int>(i));
            return kSVFormatDescriptionError_InvalidParameter;
        }
        switch ((pointers[i][0] >> 1) & 0x3F) {
            case 32:
                if (!sorvel::SVCheckHEVCVPS(pointers[i], sizes[i], why)) {
                    SV_LOG_SITE(site, 3, "Invalid VPS: %s", why);
                    return kSVFormatDescriptionError_InvalidParameter;
                }
                ++vps;
                break;
            case 33: {
                sorvel::SVHEVCSPS parsed;
                if (!sorvel::SVParseHEVCSPS(pointers[i], sizes[i], parsed, why)) {
                    SV_LOG_SITE(site, 3, "Invalid SPS: %s", why);
                    return kSVFormatDescriptionError_InvalidParameter;
                }
                if (!firstSPS) firstSPS = pointers[i], firstSPSSize = sizes[i];
                ++spsCount;
                break;
            }
            case 34:
                ++pps;
                break;
            case 39:
            case 40:
                break;
            default:
                SV_LOG_SITE(site, 3, "Parameter set %d has NAL unit type %d", static_cast<int>(i),
                            static_cast<int>((pointers[i][0] >> 1) & 0x3F));
                return kSVFormatDescriptionError_InvalidParameter;
        }
    }
    if (vps == 0 || spsCount == 0 || pps == 0 || count > 0xFFFF) {
        SV_LOG_SITE(site, 3, "Need at least one VPS, SPS and PPS");
        return kSVFormatDescriptionError_InvalidParameter;
    }
    sorvel::SVHEVCSPS sps;
    const char *why = "";
    sorvel::SVParseHEVCSPS(firstSPS, firstSPSSize, sps, why);
    CFDataRef record = sorvel::SVCreateHEVCDecoderConfigurationRecord(sps, pointers, sizes, count, nalUnitHeaderLength);
    if (!record) return kSVFormatDescriptionError_AllocationFailed;
    CFMutableDictionaryRef derived = createMutableDictionary();
    CFMutableDictionaryRef extensions = createRecordExtensions(callerExtensions, CFSTR("hvcC"), record);
    CFRelease(record);
    if (!derived || !extensions) {
        if (derived) CFRelease(derived);
        if (extensions) CFRelease(extensions);
        return kSVFormatDescriptionError_AllocationFailed;
    }
    sorvel::SVAddVideoUsabilityExtensions(derived, sps.vui, sps.chromaFormatIdc, sps.vui.fieldSeq, site);
    // Derived values fill only what the caller left out.
    CFDictionaryApplyFunction(derived, addEntry, extensions);
    CFRelease(derived);
    const OSStatus status = createParameterSetDescription(allocator, kHVC1, sps.width, sps.height, extensions, count,
                                                          pointers, sizes, nalUnitHeaderLength, out);
    CFRelease(extensions);
    return status;
}

}  // namespace

namespace sorvel {

OSStatus SVVideoFormatDescriptionCreateWithParameterSets(CFAllocatorRef allocator, FourCharCode subtype, int32_t width,
                                                         int32_t height, CFDictionaryRef extensions, size_t count,
                                                         const uint8_t *const *pointers, const size_t *sizes,
                                                         int nalUnitHeaderLength,
                                                         SVFormatDescriptionRef *formatDescriptionOut) noexcept {
    *formatDescriptionOut = nullptr;
    return createParameterSetDescription(allocator, subtype, width, height, extensions, count, pointers, sizes,
                                         nalUnitHeaderLength, formatDescriptionOut);
}

void SVAddVideoUsabilityExtensions(CFMutableDictionaryRef extensions, const SVVideoUsability &vui,
                                   uint32_t chromaFormatIdc, bool interlaced, const sorvel::SVLogSite &site) {
    int sarH = 0, sarV = 0;
    if (vui.aspectRatioIdc >= 1 && vui.aspectRatioIdc <= 16) {
        sarH = kAspectTable[vui.aspectRatioIdc - 1].h;
        sarV = kAspectTable[vui.aspectRatioIdc - 1].v;
    } else if (vui.aspectRatioIdc == 255) {
        sarH = static_cast<int>(vui.sarWidth);
        sarV = static_cast<int>(vui.sarHeight);
    } else if (vui.aspectRatioIdc > 0) {
        SV_LOG_SITE(site, 3, "Unknown aspect_ratio_idc %d", vui.aspectRatioIdc);
    }
    if (sarH > 0 && sarV > 0) {
        CFMutableDictionaryRef aspect = createMutableDictionary();
        if (aspect) {
            setNumber(aspect, kCVImageBufferPixelAspectRatioHorizontalSpacingKey, sarH);
            setNumber(aspect, kCVImageBufferPixelAspectRatioVerticalSpacingKey, sarV);
            CFDictionarySetValue(extensions, kCVImageBufferPixelAspectRatioKey, aspect);
            CFRelease(aspect);
        }
    }
    // Code 2 is "unspecified": nothing to say and nothing to log.
    if (vui.colourPrimaries >= 0 && vui.colourPrimaries != 2) {
        if (CFStringRef value = colourPrimaries(vui.colourPrimaries))
            CFDictionarySetValue(extensions, kCVImageBufferColorPrimariesKey, value);
        else
            SV_LOG_SITE(site, 3, "Unhandled VUI colour_primaries value %d", vui.colourPrimaries);
    }
    if (vui.transferCharacteristics >= 0 && vui.transferCharacteristics != 2) {
        double gamma = 0;
        if (CFStringRef value = transferFunction(vui.transferCharacteristics, &gamma)) {
            CFDictionarySetValue(extensions, kCVImageBufferTransferFunctionKey, value);
            if (gamma > 0) {
                CFNumberRef number = CFNumberCreate(kCFAllocatorDefault, kCFNumberDoubleType, &gamma);
                if (number) {
                    CFDictionarySetValue(extensions, kCVImageBufferGammaLevelKey, number);
                    CFRelease(number);
                }
            }
        } else {
            SV_LOG_SITE(site, 3, "Unhandled VUI transfer_characteristics value %d", vui.transferCharacteristics);
        }
    }
    if (vui.matrixCoefficients >= 0 && vui.matrixCoefficients != 2) {
        if (CFStringRef value = yCbCrMatrix(vui.matrixCoefficients))
            CFDictionarySetValue(extensions, kCVImageBufferYCbCrMatrixKey, value);
        else
            SV_LOG_SITE(site, 3, "Unhandled VUI matrix_coefficients value %d", vui.matrixCoefficients);
    }
    if (vui.fullRange) CFDictionarySetValue(extensions, kSVFormatDescriptionExtension_FullRangeVideo, kCFBooleanTrue);
    // Without chroma_loc_info 4:2:0 chroma sits at the left (type 0).
    const int top = vui.chromaLocTop >= 0 ? vui.chromaLocTop : (chromaFormatIdc == 1 ? 0 : -1);
    const int bottom = vui.chromaLocBottom >= 0 ? vui.chromaLocBottom : (chromaFormatIdc == 1 ? 0 : -1);
    if (CFStringRef value = chromaLocation(top))
        CFDictionarySetValue(extensions, kCVImageBufferChromaLocationTopFieldKey, value);
    if (CFStringRef value = chromaLocation(bottom))
        CFDictionarySetValue(extensions, kCVImageBufferChromaLocationBottomFieldKey, value);
    setNumber(extensions, kCVImageBufferFieldCountKey, interlaced ? 2 : 1);
    // The parameter sets do not say which field comes first (the samples
    // do: SVVideoFormatDescriptionGetH264FieldDetailOfSample), so no field
    // detail is claimed here.
}

// The parameter sets of a record, read strictly through `get`, handed to
// `create` as the parameter-set creators take them (pointers into the record).
template <typename Create>
OSStatus createFromRecord(const uint8_t *record, size_t recordSize, SVFormatDescriptionRef *formatDescriptionOut,
                          OSStatus (*get)(const uint8_t *, size_t, size_t, const uint8_t **, size_t *, size_t *, int *),
                          Create &&create) {
    if (!formatDescriptionOut) return kSVFormatDescriptionError_InvalidParameter;
    *formatDescriptionOut = nullptr;
    size_t count = 0;
    int headerLength = 0;
    OSStatus status = get(record, recordSize, 0, nullptr, nullptr, &count, &headerLength);
    if (status != 0 && count == 0) return kSVFormatDescriptionError_InvalidParameter;
    std::vector<const uint8_t *> pointers(count);
    std::vector<size_t> sizes(count);
    for (size_t i = 0; i < count; ++i) {
        status = get(record, recordSize, i, &pointers[i], &sizes[i], nullptr, nullptr);
        if (status != 0) return status;
    }
    return create(count, pointers.data(), sizes.data(), headerLength);
}

}  // namespace sorvel

extern "C" {

OSStatus SVVideoFormatDescriptionCreate(CFAllocatorRef allocator, SVVideoCodecType codecType, int32_t width,
                                        int32_t height, CFDictionaryRef extensions,
                                        SVVideoFormatDescriptionRef *formatDescriptionOut) noexcept {
    if (!formatDescriptionOut) return kSVFormatDescriptionError_InvalidParameter;
    *formatDescriptionOut = nullptr;
    OpaqueSVFormatDescription *desc =
        sorvel::SVFormatDescriptionCreateInstance(allocator, kSVMediaType_Video, codecType, extensions);
    if (!desc) return kSVFormatDescriptionError_AllocationFailed;
    desc->video.width = width;
    desc->video.height = height;
    *formatDescriptionOut = desc;
    return 0;
}

OSStatus SVVideoFormatDescriptionCreateForImageBuffer(CFAllocatorRef allocator, CVImageBufferRef imageBuffer,
                                                      SVVideoFormatDescriptionRef *formatDescriptionOut) noexcept {
    if (!formatDescriptionOut) return kSVFormatDescriptionError_InvalidParameter;
    *formatDescriptionOut = nullptr;
    if (!imageBuffer) return kSVFormatDescriptionError_InvalidParameter;
    const CGSize size = CVImageBufferGetEncodedSize(imageBuffer);
    const bool isPixelBuffer = CFGetTypeID(imageBuffer) == CVPixelBufferGetTypeID();
    const FourCharCode subtype = isPixelBuffer ? CVPixelBufferGetPixelFormatType(imageBuffer) : kUnknownImage;
    CFMutableDictionaryRef extensions = createMutableDictionary();
    if (!extensions) return kSVFormatDescriptionError_AllocationFailed;
    CFArrayRef keys = SVVideoFormatDescriptionGetExtensionKeysCommonWithImageBuffers();
    for (CFIndex i = 0; i < CFArrayGetCount(keys); ++i) {
        CFStringRef key = static_cast<CFStringRef>(CFArrayGetValueAtIndex(keys, i));
        if (CFTypeRef value = CVBufferGetAttachment(imageBuffer, key, nullptr))
            CFDictionarySetValue(extensions, key, value);
    }
    if (isPixelBuffer) {
        const int64_t bytesPerRow = static_cast<int64_t>(CVPixelBufferGetBytesPerRow(imageBuffer));
        CFNumberRef number = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &bytesPerRow);
        if (number) {
            CFDictionarySetValue(extensions, kSVFormatDescriptionExtension_BytesPerRow, number);
            CFRelease(number);
        }
    }
    const OSStatus status =
        SVVideoFormatDescriptionCreate(allocator, subtype, static_cast<int32_t>(size.width),
                                       static_cast<int32_t>(size.height), extensions, formatDescriptionOut);
    CFRelease(extensions);
    return status;
}

SVVideoDimensions SVVideoFormatDescriptionGetDimensions(SVVideoFormatDescriptionRef desc) noexcept {
    if (!isVideo(desc)) return SVVideoDimensions{0, 0};
    return SVVideoDimensions{desc->video.width, desc->video.height};
}

CGSize SVVideoFormatDescriptionGetPresentationDimensions(SVVideoFormatDescriptionRef desc, Boolean usePixelAspectRatio,
                                                         Boolean useCleanAperture) noexcept {
    if (!isVideo(desc)) return CGSizeZero;
    const CGRect rect = _CVImageBufferGetDisplayRect(
        desc->video.width, desc->video.height,
        useCleanAperture ? dictionaryExtension(desc, kCVImageBufferCleanApertureKey) : nullptr,
        usePixelAspectRatio ? dictionaryExtension(desc, kCVImageBufferPixelAspectRatioKey) : nullptr, false);
    return rect.size;
}

CGRect SVVideoFormatDescriptionGetCleanAperture(SVVideoFormatDescriptionRef desc, Boolean originIsAtTopLeft) noexcept {
    if (!isVideo(desc)) return CGRectZero;
    return _CVImageBufferGetDisplayRect(desc->video.width, desc->video.height,
                                        dictionaryExtension(desc, kCVImageBufferCleanApertureKey), nullptr,
                                        originIsAtTopLeft);
}

CFArrayRef SVVideoFormatDescriptionGetExtensionKeysCommonWithImageBuffers(void) noexcept {
    static dispatch_once_t once;
    static CFArrayRef keys;
    dispatch_once_f(&once, nullptr, [](void *) {
        const void *values[] = {kCVImageBufferCleanApertureKey,
                                kCVImageBufferFieldCountKey,
                                kCVImageBufferFieldDetailKey,
                                kCVImageBufferPixelAspectRatioKey,
                                kCVImageBufferColorPrimariesKey,
                                kCVImageBufferTransferFunctionKey,
                                kCVImageBufferYCbCrMatrixKey,
                                kCVImageBufferChromaLocationTopFieldKey,
                                kCVImageBufferChromaLocationBottomFieldKey,
                                kCVImageBufferGammaLevelKey,
                                kSVFormatDescriptionExtension_ICCProfile};
        keys = CFArrayCreate(kCFAllocatorDefault, values, 11, &kCFTypeArrayCallBacks);
    });
    return keys;
}

OSStatus SVVideoFormatDescriptionCreateFromH264ParameterSets(CFAllocatorRef allocator, size_t parameterSetCount,
                                                             const uint8_t *const *parameterSetPointers,
                                                             const size_t *parameterSetSizes, int nalUnitHeaderLength,
                                                             SVFormatDescriptionRef *formatDescriptionOut) noexcept
    try {
    if (!parameterSetCount || !parameterSetPointers || !parameterSetSizes || !formatDescriptionOut)
        return kSVFormatDescriptionError_InvalidParameter;
    *formatDescriptionOut = nullptr;
    if (static_cast<unsigned>(nalUnitHeaderLength - 1) >= 4) {
        SV_LOG_HERE(3, "NALUnitHeaderLength %d invalid", nalUnitHeaderLength);
        return kSVFormatDescriptionError_InvalidParameter;
    }
    if (!checkParameterSets(parameterSetCount, parameterSetPointers, parameterSetSizes, SV_HERE))
        return kSVFormatDescriptionError_InvalidParameter;
    size_t spsCount = 0, ppsCount = 0, extCount = 0;
    sorvel::SVH264SPS first;
    for (size_t i = 0; i < parameterSetCount; ++i) {
        const unsigned type = parameterSetPointers[i][0] & 0x1F;
        if (type == 7) {
            sorvel::SVH264SPS parsed;
            const char *why = "";
            if (!sorvel::SVParseH264SPS(parameterSetPointers[i], parameterSetSizes[i], parsed, why)) {
                SV_LOG_HERE(3, "Invalid SPS: %s", why);
                return kSVFormatDescriptionError_InvalidParameter;
            }
            if (spsCount++ == 0) first = parsed;
        } else if (type == 8) {
            ++ppsCount;
        } else if (type == 13) {
            ++extCount;
        } else {
            SV_LOG_HERE(3, "Parameter set %d has NAL unit type %d", static_cast<int>(i), static_cast<int>(type));
            return kSVFormatDescriptionError_InvalidParameter;
        }
    }
    // The record counts SPSs in 5 bits and PPSs in 8.
    if (spsCount == 0 || spsCount > 31 || ppsCount > 255 || extCount > 255) {
        SV_LOG_HERE(3, "Unusable parameter set counts: %d SPS, %d PPS", static_cast<int>(spsCount),
                    static_cast<int>(ppsCount));
        return kSVFormatDescriptionError_InvalidParameter;
    }
    CFDataRef record = sorvel::SVCreateAVCDecoderConfigurationRecord(first, parameterSetPointers, parameterSetSizes,
                                                                     parameterSetCount, nalUnitHeaderLength);
    if (!record) return kSVFormatDescriptionError_AllocationFailed;
    CFMutableDictionaryRef extensions = createRecordExtensions(nullptr, CFSTR("avcC"), record);
    CFRelease(record);
    if (!extensions) return kSVFormatDescriptionError_AllocationFailed;
    sorvel::SVAddVideoUsabilityExtensions(extensions, first.vui, first.chromaFormatIdc, !first.frameMbsOnly, SV_HERE);
    const OSStatus status = createParameterSetDescription(allocator, kAVC1, first.width, first.height, extensions,
                                                          parameterSetCount, parameterSetPointers, parameterSetSizes,
                                                          nalUnitHeaderLength, formatDescriptionOut);
    CFRelease(extensions);
    return status;
}
SV_ALLOCATION_BOUNDARY(kSVFormatDescriptionError_AllocationFailed)

OSStatus _SVVideoFormatDescriptionCreateFromConcatenatedH264ParameterSetNALs(
    CFAllocatorRef allocator, const uint8_t *data, size_t size, int nalUnitHeaderLength,
    SVFormatDescriptionRef *formatDescriptionOut) noexcept try {
    if (!data || !size || !formatDescriptionOut) return kSVFormatDescriptionError_InvalidParameter;
    const NALUnits units = splitAnnexB(data, size);
    return SVVideoFormatDescriptionCreateFromH264ParameterSets(allocator, units.pointers.size(), units.pointers.data(),
                                                               units.sizes.data(), nalUnitHeaderLength,
                                                               formatDescriptionOut);
}
SV_ALLOCATION_BOUNDARY(kSVFormatDescriptionError_AllocationFailed)

OSStatus SVVideoFormatDescriptionGetH264ParameterSetAtIndex(SVFormatDescriptionRef desc, size_t index,
                                                            const uint8_t **parameterSetPointerOut,
                                                            size_t *parameterSetSizeOut, size_t *parameterSetCountOut,
                                                            int *nalUnitHeaderLengthOut) noexcept {
    return getParameterSetAtIndex(desc, kAVC1, index, parameterSetPointerOut, parameterSetSizeOut, parameterSetCountOut,
                                  nalUnitHeaderLengthOut);
}

OSStatus SVVideoFormatDescriptionCreateFromHEVCParameterSets(CFAllocatorRef allocator, size_t parameterSetCount,
                                                             const uint8_t *const *parameterSetPointers,
                                                             const size_t *parameterSetSizes, int nalUnitHeaderLength,
                                                             CFDictionaryRef extensions,
                                                             SVFormatDescriptionRef *formatDescriptionOut) noexcept
    try {
    if (!parameterSetCount || !parameterSetPointers || !parameterSetSizes || !formatDescriptionOut)
        return kSVFormatDescriptionError_InvalidParameter;
    *formatDescriptionOut = nullptr;
    // The hvcC record has no room for a 3-byte length: only 1, 2 and 4.
    if (nalUnitHeaderLength != 1 && nalUnitHeaderLength != 2 && nalUnitHeaderLength != 4) {
        SV_LOG_HERE(3, "NALUnitHeaderLength %d invalid", nalUnitHeaderLength);
        return kSVFormatDescriptionError_InvalidParameter;
    }
    return createFromHEVC(allocator, parameterSetCount, parameterSetPointers, parameterSetSizes, nalUnitHeaderLength,
                          extensions, formatDescriptionOut, SV_HERE);
}
SV_ALLOCATION_BOUNDARY(kSVFormatDescriptionError_AllocationFailed)

OSStatus _SVVideoFormatDescriptionCreateFromConcatenatedHEVCParameterSetNALs(
    CFAllocatorRef allocator, const uint8_t *data, size_t size, int nalUnitHeaderLength,
    SVFormatDescriptionRef *formatDescriptionOut) noexcept try {
    if (!data || !size || !formatDescriptionOut) return kSVFormatDescriptionError_InvalidParameter;
    const NALUnits units = splitAnnexB(data, size);
    return SVVideoFormatDescriptionCreateFromHEVCParameterSets(allocator, units.pointers.size(), units.pointers.data(),
                                                               units.sizes.data(), nalUnitHeaderLength, nullptr,
                                                               formatDescriptionOut);
}
SV_ALLOCATION_BOUNDARY(kSVFormatDescriptionError_AllocationFailed)

OSStatus SVVideoFormatDescriptionCreateFromAVCDecoderConfigurationRecord(
    CFAllocatorRef allocator, const uint8_t *record, size_t recordSize,
    SVFormatDescriptionRef *formatDescriptionOut) noexcept try {
    return sorvel::createFromRecord(
        record, recordSize, formatDescriptionOut, SVGetParameterSetFromAVCDecoderConfigurationRecord,
        [&](size_t count, const uint8_t *const *pointers, const size_t *sizes, int headerLength) {
            return SVVideoFormatDescriptionCreateFromH264ParameterSets(allocator, count, pointers, sizes, headerLength,
                                                                       formatDescriptionOut);
        });
}
SV_ALLOCATION_BOUNDARY(kSVFormatDescriptionError_AllocationFailed)

OSStatus SVVideoFormatDescriptionCreateFromHEVCDecoderConfigurationRecord(
    CFAllocatorRef allocator, const uint8_t *record, size_t recordSize, CFDictionaryRef extensions,
    SVFormatDescriptionRef *formatDescriptionOut) noexcept try {
    return sorvel::createFromRecord(
        record, recordSize, formatDescriptionOut, SVGetParameterSetFromHEVCDecoderConfigurationRecord,
        [&](size_t count, const uint8_t *const *pointers, const size_t *sizes, int headerLength) {
            return SVVideoFormatDescriptionCreateFromHEVCParameterSets(allocator, count, pointers, sizes, headerLength,
                                                                       extensions, formatDescriptionOut);
        });
}
SV_ALLOCATION_BOUNDARY(kSVFormatDescriptionError_AllocationFailed)

OSStatus SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(SVFormatDescriptionRef desc, size_t index,
                                                            const uint8_t **parameterSetPointerOut,
                                                            size_t *parameterSetSizeOut, size_t *parameterSetCountOut,
                                                            int *nalUnitHeaderLengthOut) noexcept {
    return getParameterSetAtIndex(desc, kHVC1, index, parameterSetPointerOut, parameterSetSizeOut, parameterSetCountOut,
                                  nalUnitHeaderLengthOut);
}

extern "C++" {
namespace {

// The picture fields both parsed SPS kinds share.
template <typename SPS>
void fillPictureInfo(SVVideoCodingInfo &info, const SPS &sps) noexcept {
    info.chromaFormat = sps.chromaFormatIdc;
    info.bitDepthLuma = 8 + sps.bitDepthLumaMinus8;
    info.bitDepthChroma = 8 + sps.bitDepthChromaMinus8;
    info.codedWidth = sps.codedWidth;
    info.codedHeight = sps.codedHeight;
    info.width = sps.width;
    info.height = sps.height;
}

void fillCodecInfo(SVVideoCodingInfo &info, const sorvel::SVH264SPS &sps) noexcept {
    info.codecType = kAVC1;
    info.profile = sps.profileIdc;
    info.level = sps.levelIdc;
    info.constraintFlags = sps.constraintFlags;
    info.progressive = sps.frameMbsOnly;
}
void fillCodecInfo(SVVideoCodingInfo &info, const sorvel::SVHEVCSPS &sps) noexcept {
    info.codecType = kHVC1;
    info.profile = sps.generalProfileIdc;
    info.level = sps.generalLevelIdc;
    info.tier = sps.generalTier;
    info.profileCompatibility = sps.generalProfileCompatibility;
    info.progressive = !sps.vui.fieldSeq;
}

// What one SPS says, or false with the parser's reason.
template <typename SPS>
bool codingInfoOfSPS(const uint8_t *set, size_t size, SVVideoCodingInfo &info, const char *&why) {
    SPS sps;
    if (!sorvel::SVParseSPS(set, size, sps, why)) return false;
    info = SVVideoCodingInfo{};
    fillCodecInfo(info, sps);
    fillPictureInfo(info, sps);
    return true;
}

}  // namespace
}

OSStatus SVVideoFormatDescriptionGetCodingInfo(SVFormatDescriptionRef desc, SVVideoCodingInfo *infoOut) noexcept try {
    // Asking any other kind of description is a question with a "no" answer
    // (a tool walks every track), so like the parameter-set accessors it is
    // not logged; only an 'avc1'/'hvc1' description that cannot answer is.
    // 'avc3'/'hev1' descriptions read from sample entries hold the record's
    // parameter sets and answer like 'avc1'/'hvc1'; without any (the sets
    // are in-band) there is nothing to ask, silently.
    const bool inBand = isVideo(desc) && (desc->mediaSubType == kAVC3 || desc->mediaSubType == kHEV1);
    if (!infoOut || !isVideo(desc) || (desc->mediaSubType != kAVC1 && desc->mediaSubType != kHVC1 && !inBand) ||
        (inBand && desc->video.parameterSetCount == 0))
        return kSVFormatDescriptionError_InvalidParameter;
    const bool hevc = desc->mediaSubType == kHVC1 || desc->mediaSubType == kHEV1;
    for (uint32_t i = 0; i < desc->video.parameterSetCount; ++i) {
        const uint8_t *set = desc->video.parameterSets[i];
        const size_t size = desc->video.parameterSetSizes[i];
        if (size == 0 || (hevc ? (set[0] >> 1) & 0x3F : set[0] & 0x1FU) != (hevc ? 33U : 7U)) continue;
        SVVideoCodingInfo info{};
        const char *why = "";
        // The creators accepted this SPS, so a failure here means the parser
        // has since become stricter than the one that made the description.
        if (!(hevc ? codingInfoOfSPS<sorvel::SVHEVCSPS>(set, size, info, why)
                   : codingInfoOfSPS<sorvel::SVH264SPS>(set, size, info, why))) {
            SV_LOG_HERE(3, "Invalid SPS: %s", why);
            return kSVFormatDescriptionError_InvalidParameter;
        }
        *infoOut = info;
        return 0;
    }
    // SVVideoFormatDescriptionCreate makes 'avc1'/'hvc1' descriptions
    // without parameter sets.
    SV_LOG_HERE(3, "The '%s' description holds no SPS", hevc ? "hvc1" : "avc1");
    return kSVFormatDescriptionError_InvalidParameter;
}
SV_ALLOCATION_BOUNDARY(kSVFormatDescriptionError_AllocationFailed)

CFStringRef SVVideoFormatDescriptionGetH264FieldDetailOfSample(SVFormatDescriptionRef desc, const uint8_t *data,
                                                               size_t size) noexcept try {
    if (!data || size == 0 || !isVideo(desc) || desc->mediaSubType != kAVC1) return nullptr;
    for (uint32_t i = 0; i < desc->video.parameterSetCount; ++i) {
        const uint8_t *set = desc->video.parameterSets[i];
        const size_t setSize = desc->video.parameterSetSizes[i];
        if (setSize == 0 || (set[0] & 0x1FU) != 7U) continue;
        sorvel::SVH264SPS sps;
        const char *why = "";
        if (!sorvel::SVParseH264SPS(set, setSize, sps, why) || sps.frameMbsOnly) return nullptr;
        switch (sorvel::SVH264FieldOrderOfSample(sps, data, size, desc->video.nalUnitHeaderLength)) {
            case sorvel::SVFieldOrder::TopFirst:
                return kCVImageBufferFieldDetailTemporalTopFirst;
            case sorvel::SVFieldOrder::BottomFirst:
                return kCVImageBufferFieldDetailTemporalBottomFirst;
            case sorvel::SVFieldOrder::Unknown:
                return nullptr;
        }
    }
    return nullptr;
}
SV_ALLOCATION_BOUNDARY(nullptr)

Boolean SVVideoFormatDescriptionMatchesImageBuffer(SVVideoFormatDescriptionRef desc,
                                                   CVImageBufferRef imageBuffer) noexcept {
    if (!isVideo(desc) || !imageBuffer) return false;
    const CGSize size = CVImageBufferGetEncodedSize(imageBuffer);
    if (desc->video.width != static_cast<int32_t>(size.width) ||
        desc->video.height != static_cast<int32_t>(size.height))
        return false;
    const bool isPixelBuffer = CFGetTypeID(imageBuffer) == CVPixelBufferGetTypeID();
    const FourCharCode format = isPixelBuffer ? CVPixelBufferGetPixelFormatType(imageBuffer) : kUnknownImage;
    if (desc->mediaSubType != format) return false;
    CFArrayRef keys = SVVideoFormatDescriptionGetExtensionKeysCommonWithImageBuffers();
    for (CFIndex i = 0; i < CFArrayGetCount(keys); ++i) {
        CFStringRef key = static_cast<CFStringRef>(CFArrayGetValueAtIndex(keys, i));
        CFTypeRef mine = desc->extensions ? CFDictionaryGetValue(desc->extensions, key) : nullptr;
        CFTypeRef theirs = CVBufferGetAttachment(imageBuffer, key, nullptr);
        if (mine == theirs) continue;
        if (!mine || !theirs || !CFEqual(mine, theirs)) return false;
    }
    return true;
}

}  // extern "C"
