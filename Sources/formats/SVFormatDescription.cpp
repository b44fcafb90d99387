// SPDX-License-Identifier: Apache-2.0
// The format-description object: its class, the generic creator and getters,
// equality, the description text, the exported extension keys, and the entry
// points that exist but are not implemented.
//
// One instance layout serves every media type (SVFormatDescriptionInternal.h);
// the audio and text modules fill and read their payloads.  Equality of
// media types without a payload comparison, and the conversions to and from
// big-endian sample descriptions, stop the process on purpose: a caller that
// relied on an answer there would get a wrong one silently otherwise.

#include <Sorvel/SVFormatDescription.h>

#include <cstring>

#include "core/SVLog.h"
#include "formats/SVFormatDescriptionInternal.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/SVFormatDescription");

// The big-endian conversions form a source unit of their own; their stops
// name it.
constexpr const char *kBridgeSourcePath = "Sorvel/Sources/SVFormatDescriptionBridge";

[[noreturn]] void bridgeNotImplemented(const char *function, int line) noexcept {
    sorvel::SVFatalStop(function, kBridgeSourcePath, line, "NOT YET IMPLEMENTED");
}

void formatDescriptionFinalize(CFTypeRef cf) {
    auto *desc = sorvel::SVRuntimeClass<OpaqueSVFormatDescription>::cast(cf);
    if (desc->extensions) CFRelease(desc->extensions);
    CFAllocatorRef allocator = CFGetAllocator(cf);
    switch (desc->mediaType) {
        case kSVMediaType_Audio:
            CFAllocatorDeallocate(allocator, desc->audio.layout);
            CFAllocatorDeallocate(allocator, desc->audio.cookie);
            CFAllocatorDeallocate(allocator, __atomic_load_n(&desc->audio.formatList, __ATOMIC_ACQUIRE));
            break;
        case kSVMediaType_Video:
            if (desc->video.parameterSets) {
                for (uint32_t i = 0; i < desc->video.parameterSetCount; ++i)
                    CFAllocatorDeallocate(allocator, desc->video.parameterSets[i]);
            }
            CFAllocatorDeallocate(allocator, desc->video.parameterSets);
            CFAllocatorDeallocate(allocator, desc->video.parameterSetSizes);
            break;
        default:
            break;
    }
}

Boolean formatDescriptionEqual(CFTypeRef cf1, CFTypeRef cf2) {
    if (!sorvel::gSVFormatDescriptionClass.isInstance(cf1) || !sorvel::gSVFormatDescriptionClass.isInstance(cf2))
        return false;
    return SVFormatDescriptionEqual(static_cast<SVFormatDescriptionRef>(cf1), static_cast<SVFormatDescriptionRef>(cf2));
}

bool videoPayloadEqual(const SVVideoPayload &a, const SVVideoPayload &b) {
    if (a.width != b.width || a.height != b.height || a.parameterSetCount != b.parameterSetCount) return false;
    for (uint32_t i = 0; i < a.parameterSetCount; ++i) {
        if (a.parameterSetSizes[i] != b.parameterSetSizes[i]) return false;
        if (a.parameterSetSizes[i] && std::memcmp(a.parameterSets[i], b.parameterSets[i], a.parameterSetSizes[i]) != 0)
            return false;
    }
    return a.nalUnitHeaderLength == b.nalUnitHeaderLength;
}

// Four characters of a code, most significant first, as "%c%c%c%c" makes
// them.
CFStringRef copyFourCharText(FourCharCode code) {
    return CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%c%c%c%c"), static_cast<int>((code >> 24) & 0xFF),
                                    static_cast<int>((code >> 16) & 0xFF), static_cast<int>((code >> 8) & 0xFF),
                                    static_cast<int>(code & 0xFF));
}

CFStringRef copyMediaTypeText(FourCharCode mediaType) {
    switch (mediaType) {
        case kSVMediaType_Video:
            return CFSTR("Video");
        case kSVMediaType_Audio:
            return CFSTR("Audio");
        case kSVMediaType_Muxed:
            return CFSTR("Muxed");
        case kSVMediaType_Text:
            return CFSTR("Text");
        case kSVMediaType_ClosedCaption:
            return CFSTR("ClosedCaption");
        case kSVMediaType_Subtitle:
            return CFSTR("Subtitle");
        case kSVMediaType_TimeCode:
            return CFSTR("TimeCode");
        case kSVMediaType_Metadata:
            return CFSTR("Metadata");
        default:
            return copyFourCharText(mediaType);
    }
}

CFStringRef copyAudioSummary(const SVAudioPayload &audio) {
    const AudioStreamBasicDescription &asbd = audio.asbd;
    return CFStringCreateWithFormat(
        nullptr, nullptr,
        CFSTR(" layoutSize=%zu magicCookieSize=%zu bitsPerChannel=%u bytesPerFrame=%u bytesPerPacket=%u "
              "channelsPerFrame=%u formatFlags=%u formatID=%u framesPerPacket=%u sampleRate=%f"),
        static_cast<size_t>(audio.layoutSize), static_cast<size_t>(audio.cookieSize), asbd.mBitsPerChannel,
        asbd.mBytesPerFrame, asbd.mBytesPerPacket, asbd.mChannelsPerFrame, asbd.mFormatFlags, asbd.mFormatID,
        asbd.mFramesPerPacket, asbd.mSampleRate);
}

CFStringRef copyVideoSummary(const SVVideoPayload &video) {
    sorvel::SVRetained<CFMutableStringRef> dump(CFStringCreateMutable(nullptr, 0));
    if (!dump) return nullptr;
    for (uint32_t i = 0; i < video.parameterSetCount; ++i) {
        if (CFStringGetLength(dump.get()) > 0) CFStringAppendCString(dump.get(), " ", kCFStringEncodingASCII);
        CFStringAppendFormat(dump.get(), nullptr, CFSTR("p[%zu]="), static_cast<size_t>(i));
        // Two hex digits per byte, built in one buffer rather than one
        // formatting call per byte.
        static const char kHex[] = "0123456789ABCDEF";
        const uint32_t size = video.parameterSetSizes[i];
        const uint8_t *bytes = video.parameterSets[i];
        UniChar chunk[256];
        size_t used = 0;
        for (uint32_t k = 0; k < size; ++k) {
            chunk[used++] = static_cast<UniChar>(kHex[bytes[k] >> 4]);
            chunk[used++] = static_cast<UniChar>(kHex[bytes[k] & 0xF]);
            if (used == sizeof chunk / sizeof chunk[0]) {
                CFStringAppendCharacters(dump.get(), chunk, static_cast<CFIndex>(used));
                used = 0;
            }
        }
        CFStringAppendCharacters(dump.get(), chunk, static_cast<CFIndex>(used));
    }
    return CFStringCreateWithFormat(nullptr, nullptr, CFSTR(" width=%d height=%d %@"), video.width, video.height,
                                    dump.get());
}

CFStringRef formatDescriptionCopyDebugDescription(CFTypeRef cf) {
    const auto *desc = sorvel::SVRuntimeClass<OpaqueSVFormatDescription>::cast(cf);
    sorvel::SVRetained<CFStringRef> typeText(copyMediaTypeText(desc->mediaType));
    sorvel::SVRetained<CFStringRef> subtypeText(copyFourCharText(desc->mediaSubType));
    sorvel::SVRetained<CFStringRef> summary;
    switch (desc->mediaType) {
        case kSVMediaType_Audio:
            summary.reset(copyAudioSummary(desc->audio));
            break;
        case kSVMediaType_Video:
            summary.reset(copyVideoSummary(desc->video));
            break;
        default:
            summary.reset(CFSTR(""));
            break;
    }
    sorvel::SVRetained<CFStringRef> extensionsText(
        desc->extensions ? CFStringCreateWithFormat(nullptr, nullptr, CFSTR(" extensions = %@"), desc->extensions)
                         : CFSTR(""));
    if (!typeText || !subtypeText || !summary || !extensionsText) return nullptr;
    return CFStringCreateWithFormat(nullptr, nullptr, CFSTR("<SVFormatDescription %p {%@/%@%@%@}>"), cf, typeText.get(),
                                    subtypeText.get(), summary.get(), extensionsText.get());
}

CFStringRef formatDescriptionCopyFormattingDescription(CFTypeRef cf, CFDictionaryRef) {
    return formatDescriptionCopyDebugDescription(cf);
}

// No hash: equal descriptions need not hash alike (identity hashing).
const CFRuntimeClass kSVFormatDescriptionClass = {
    0,
    "SVFormatDescription",
    nullptr,
    nullptr,
    formatDescriptionFinalize,
    formatDescriptionEqual,
    nullptr,
    formatDescriptionCopyFormattingDescription,
    formatDescriptionCopyDebugDescription,
};

bool isCreatableMediaType(FourCharCode mediaType) {
    switch (mediaType) {
        case kSVMediaType_Audio:
        case kSVMediaType_Text:
        case kSVMediaType_ClosedCaption:
        case kSVMediaType_Muxed:
        case kSVMediaType_Subtitle:
        case kSVMediaType_Video:
        case kSVMediaType_TimeCode:
            return true;
        default:
            return false;  // 'meta' too: metadata descriptions have creators of their own
    }
}

}  // namespace

namespace sorvel {

constinit SVRuntimeClass<OpaqueSVFormatDescription> gSVFormatDescriptionClass{kSVFormatDescriptionClass};

OpaqueSVFormatDescription *SVFormatDescriptionCreateInstance(CFAllocatorRef allocator, FourCharCode mediaType,
                                                             FourCharCode mediaSubType,
                                                             CFDictionaryRef extensions) noexcept {
    OpaqueSVFormatDescription *desc = gSVFormatDescriptionClass.create(allocator);
    if (!desc) return nullptr;
    desc->mediaType = mediaType;
    desc->mediaSubType = mediaSubType;
    if (extensions) {
        // The default allocator, not the caller's: extensions outlive any
        // particular allocator the caller had in hand.
        desc->extensions = CFDictionaryCreateCopy(kCFAllocatorDefault, extensions);
        if (!desc->extensions) {
            CFRelease(desc);
            return nullptr;
        }
    }
    return desc;
}

}  // namespace sorvel

extern "C" {

CFTypeID SVFormatDescriptionGetTypeID(void) noexcept {
    return sorvel::gSVFormatDescriptionClass.typeID();
}

OSStatus SVFormatDescriptionCreate(CFAllocatorRef allocator, SVMediaType mediaType, FourCharCode mediaSubType,
                                   CFDictionaryRef extensions, SVFormatDescriptionRef *formatDescriptionOut) noexcept {
    if (!formatDescriptionOut) return kSVFormatDescriptionError_InvalidParameter;
    *formatDescriptionOut = nullptr;
    if (!isCreatableMediaType(mediaType)) return kSVFormatDescriptionError_InvalidParameter;
    OpaqueSVFormatDescription *desc =
        sorvel::SVFormatDescriptionCreateInstance(allocator, mediaType, mediaSubType, extensions);
    if (!desc) return kSVFormatDescriptionError_AllocationFailed;
    *formatDescriptionOut = desc;
    return 0;
}

SVMediaType SVFormatDescriptionGetMediaType(SVFormatDescriptionRef desc) noexcept {
    return sorvel::gSVFormatDescriptionClass.checked(desc) ? desc->mediaType : 0;
}

FourCharCode SVFormatDescriptionGetMediaSubType(SVFormatDescriptionRef desc) noexcept {
    return sorvel::gSVFormatDescriptionClass.checked(desc) ? desc->mediaSubType : 0;
}

CFDictionaryRef SVFormatDescriptionGetExtensions(SVFormatDescriptionRef desc) noexcept {
    return sorvel::gSVFormatDescriptionClass.checked(desc) ? desc->extensions : nullptr;
}

CFPropertyListRef SVFormatDescriptionGetExtension(SVFormatDescriptionRef desc, CFStringRef extensionKey) noexcept {
    if (!sorvel::gSVFormatDescriptionClass.checked(desc) || !desc->extensions || !extensionKey) return nullptr;
    return CFDictionaryGetValue(desc->extensions, extensionKey);
}

Boolean SVFormatDescriptionEqual(SVFormatDescriptionRef desc1, SVFormatDescriptionRef desc2) noexcept {
    if (desc1 == desc2) return true;
    if (!sorvel::gSVFormatDescriptionClass.checked(desc1) || !sorvel::gSVFormatDescriptionClass.checked(desc2))
        return false;
    if (desc1->mediaType != desc2->mediaType || desc1->mediaSubType != desc2->mediaSubType) return false;
    if (desc1->extensions != desc2->extensions &&
        (!desc1->extensions || !desc2->extensions || !CFEqual(desc1->extensions, desc2->extensions)))
        return false;
    switch (desc1->mediaType) {
        case kSVMediaType_Subtitle:
            return true;
        case kSVMediaType_Audio:
            return SVAudioFormatDescriptionEqual(desc1, desc2, kSVAudioFormatDescriptionMask_All, nullptr);
        case kSVMediaType_Video:
            return videoPayloadEqual(desc1->video, desc2->video);
        default:
            SV_NOT_YET_IMPLEMENTED_HERE();
    }
}

// ---- Extension keys and values --------------------------------------------------------

#define SV_CONSTANT_KEY(name) const CFStringRef name = CFSTR(#name)

SV_CONSTANT_KEY(kSVFormatDescriptionExtension_FormatName);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_FullRangeVideo);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_OriginalCompressionSettings);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_VerbatimISOSampleEntry);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_VerbatimSampleDescription);
SV_CONSTANT_KEY(kSVFormatDescriptionConformsToMPEG2VideoProfile);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_TemporalQuality);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_SpatialQuality);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_Version);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_RevisionLevel);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_Vendor);
SV_CONSTANT_KEY(kSVFormatDescriptionVendor_Sorvel);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_ICCProfile);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_BytesPerRow);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_Depth);
SV_CONSTANT_KEY(kSVFormatDescriptionColorPrimaries_P22);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_HorizontalResolution);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_VerticalResolution);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_CompressorName);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_FrameCount);
SV_CONSTANT_KEY(kSVFormatDescriptionExtension_ColorTableID);
SV_CONSTANT_KEY(kSVFormatDescriptionExtensionKey_MetadataKeyTable);

SV_CONSTANT_KEY(kSVFormatDescriptionKey_CleanApertureWidthRational);
SV_CONSTANT_KEY(kSVFormatDescriptionKey_CleanApertureHeightRational);
SV_CONSTANT_KEY(kSVFormatDescriptionKey_CleanApertureHorizontalOffsetRational);
SV_CONSTANT_KEY(kSVFormatDescriptionKey_CleanApertureVerticalOffsetRational);
SV_CONSTANT_KEY(kSVFormatDescriptionKey_MPEG4ElementaryStreamDescriptorVersion);
SV_CONSTANT_KEY(kSVFormatDescriptionKey_MPEG4ElementaryStreamDescriptorFlag);
SV_CONSTANT_KEY(kSVFormatDescriptionKey_MPEG4ElementaryStreamDescriptorElementaryStreamDescriptor);
SV_CONSTANT_KEY(kSVFormatDescriptionKey_AVCDecoderConfigurationRecord);
SV_CONSTANT_KEY(kSVFormatDescriptionKey_ColorParameterType);
SV_CONSTANT_KEY(kSVFormatDescriptionKey_QuantizationTable);
SV_CONSTANT_KEY(kSVFormatDescriptionKey_HuffmanTable);

SV_CONSTANT_KEY(kSVTextFormatDescriptionExtension_DisplayFlags);
SV_CONSTANT_KEY(kSVTextFormatDescriptionExtension_BackgroundColor);
SV_CONSTANT_KEY(kSVTextFormatDescriptionExtension_DefaultTextBox);
SV_CONSTANT_KEY(kSVTextFormatDescriptionExtension_DefaultStyle);
SV_CONSTANT_KEY(kSVTextFormatDescriptionExtension_HorizontalJustification);
SV_CONSTANT_KEY(kSVTextFormatDescriptionExtension_VerticalJustification);
SV_CONSTANT_KEY(kSVTextFormatDescriptionExtension_FontTable);
SV_CONSTANT_KEY(kSVTextFormatDescriptionExtension_TextJustification);
SV_CONSTANT_KEY(kSVTextFormatDescriptionExtension_DefaultFontName);
SV_CONSTANT_KEY(kSVTextFormatDescriptionColor_Red);
SV_CONSTANT_KEY(kSVTextFormatDescriptionColor_Green);
SV_CONSTANT_KEY(kSVTextFormatDescriptionColor_Blue);
SV_CONSTANT_KEY(kSVTextFormatDescriptionColor_Alpha);
SV_CONSTANT_KEY(kSVTextFormatDescriptionRect_Top);
SV_CONSTANT_KEY(kSVTextFormatDescriptionRect_Left);
SV_CONSTANT_KEY(kSVTextFormatDescriptionRect_Bottom);
SV_CONSTANT_KEY(kSVTextFormatDescriptionRect_Right);
SV_CONSTANT_KEY(kSVTextFormatDescriptionStyle_StartChar);
SV_CONSTANT_KEY(kSVTextFormatDescriptionStyle_EndChar);
SV_CONSTANT_KEY(kSVTextFormatDescriptionStyle_Font);
SV_CONSTANT_KEY(kSVTextFormatDescriptionStyle_FontFace);
SV_CONSTANT_KEY(kSVTextFormatDescriptionStyle_ForegroundColor);
SV_CONSTANT_KEY(kSVTextFormatDescriptionStyle_FontSize);
SV_CONSTANT_KEY(kSVTextFormatDescriptionStyle_Height);
SV_CONSTANT_KEY(kSVTextFormatDescriptionStyle_Ascent);

SV_CONSTANT_KEY(kSVTimeCodeFormatDescriptionExtension_SourceReferenceName);
SV_CONSTANT_KEY(kSVTimeCodeFormatDescriptionKey_Value);
SV_CONSTANT_KEY(kSVTimeCodeFormatDescriptionKey_LangCode);

SV_CONSTANT_KEY(kSVMetadataFormatDescriptionKey_LocalID);
SV_CONSTANT_KEY(kSVMetadataFormatDescriptionKey_Namespace);
SV_CONSTANT_KEY(kSVMetadataFormatDescriptionKey_Value);
SV_CONSTANT_KEY(kSVMetadataFormatDescriptionKey_DataType);
SV_CONSTANT_KEY(kSVMetadataFormatDescriptionKey_DataTypeNamespace);
SV_CONSTANT_KEY(kSVMetadataFormatDescriptionKey_ConformingDataTypes);
SV_CONSTANT_KEY(kSVMetadataFormatDescriptionKey_LanguageTag);
SV_CONSTANT_KEY(kSVMetadataFormatDescriptionKey_StructuralDependency);
SV_CONSTANT_KEY(kSVMetadataFormatDescriptionKey_SetupData);
SV_CONSTANT_KEY(kSVMetadataFormatDescription_StructuralDependencyKey_DependencyIsInvalidFlag);
SV_CONSTANT_KEY(kSVMetadataFormatDescriptionMetadataSpecificationKey_Identifier);
SV_CONSTANT_KEY(kSVMetadataFormatDescriptionMetadataSpecificationKey_DataType);
SV_CONSTANT_KEY(kSVMetadataFormatDescriptionMetadataSpecificationKey_ExtendedLanguageTag);
SV_CONSTANT_KEY(kSVMetadataFormatDescriptionMetadataSpecificationKey_SetupData);
SV_CONSTANT_KEY(kSVMetadataFormatDescriptionMetadataSpecificationKey_StructuralDependency);

SV_CONSTANT_KEY(kSVImageDescriptionFlavor_QuickTimeMovie);
SV_CONSTANT_KEY(kSVImageDescriptionFlavor_ISOFamily);
SV_CONSTANT_KEY(kSVImageDescriptionFlavor_3GPFamily);
SV_CONSTANT_KEY(kSVSoundDescriptionFlavor_QuickTimeMovie);
SV_CONSTANT_KEY(kSVSoundDescriptionFlavor_QuickTimeMovieV2);
SV_CONSTANT_KEY(kSVSoundDescriptionFlavor_ISOFamily);
SV_CONSTANT_KEY(kSVSoundDescriptionFlavor_3GPFamily);

#undef SV_CONSTANT_KEY

// ---- Not implemented -------------------------------------------------------------------

Boolean SVFormatDescriptionEqualIgnoringExtensionKeys(SVFormatDescriptionRef, SVFormatDescriptionRef, CFTypeRef,
                                                      CFTypeRef) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

OSStatus SVMuxedFormatDescriptionCreate(CFAllocatorRef, SVMuxedStreamType, CFDictionaryRef,
                                        SVMuxedFormatDescriptionRef *) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

OSStatus SVTimeCodeFormatDescriptionCreate(CFAllocatorRef, SVTimeCodeFormatType, SVTime, uint32_t, uint32_t,
                                           CFDictionaryRef, SVTimeCodeFormatDescriptionRef *) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

SVTime SVTimeCodeFormatDescriptionGetFrameDuration(SVTimeCodeFormatDescriptionRef) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

uint32_t SVTimeCodeFormatDescriptionGetFrameQuanta(SVTimeCodeFormatDescriptionRef) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

uint32_t SVTimeCodeFormatDescriptionGetTimeCodeFlags(SVTimeCodeFormatDescriptionRef) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

OSStatus SVMetadataFormatDescriptionCreateWithKeys(CFAllocatorRef, SVMetadataFormatType, CFArrayRef,
                                                   SVMetadataFormatDescriptionRef *) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

CFDictionaryRef SVMetadataFormatDescriptionGetKeyWithLocalID(SVMetadataFormatDescriptionRef, OSType) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

OSStatus SVMetadataFormatDescriptionCreateWithMetadataSpecifications(CFAllocatorRef, SVMetadataFormatType, CFArrayRef,
                                                                     SVMetadataFormatDescriptionRef *) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

OSStatus SVMetadataFormatDescriptionCreateWithMetadataFormatDescriptionAndMetadataSpecifications(
    CFAllocatorRef, SVMetadataFormatDescriptionRef, CFArrayRef, SVMetadataFormatDescriptionRef *) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

OSStatus SVMetadataFormatDescriptionCreateByMergingMetadataFormatDescriptions(
    CFAllocatorRef, SVMetadataFormatDescriptionRef, SVMetadataFormatDescriptionRef,
    SVMetadataFormatDescriptionRef *) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

CFArrayRef SVMetadataFormatDescriptionGetIdentifiers(SVMetadataFormatDescriptionRef) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

// Big-endian sample descriptions (the bridge's source unit).

OSStatus SVAudioFormatDescriptionCopyAsBigEndianSoundDescriptionBlockBuffer(CFAllocatorRef, SVAudioFormatDescriptionRef,
                                                                            SVSoundDescriptionFlavor,
                                                                            SVBlockBufferRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVAudioFormatDescriptionCreateFromBigEndianSoundDescriptionBlockBuffer(
    CFAllocatorRef, SVBlockBufferRef, SVSoundDescriptionFlavor, SVAudioFormatDescriptionRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVAudioFormatDescriptionCreateFromBigEndianSoundDescriptionData(CFAllocatorRef, const uint8_t *, size_t,
                                                                         SVSoundDescriptionFlavor,
                                                                         SVAudioFormatDescriptionRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

Boolean SVDoesBigEndianSoundDescriptionRequireLegacyCBRSampleTableLayout(SVBlockBufferRef,
                                                                         SVSoundDescriptionFlavor) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVSwapBigEndianSoundDescriptionToHost(uint8_t *, size_t) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVSwapHostEndianSoundDescriptionToBig(uint8_t *, size_t) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVVideoFormatDescriptionCopyAsBigEndianImageDescriptionBlockBuffer(CFAllocatorRef, SVVideoFormatDescriptionRef,
                                                                            CFStringEncoding, SVImageDescriptionFlavor,
                                                                            SVBlockBufferRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVVideoFormatDescriptionCreateFromBigEndianImageDescriptionBlockBuffer(
    CFAllocatorRef, SVBlockBufferRef, CFStringEncoding, SVImageDescriptionFlavor,
    SVVideoFormatDescriptionRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVVideoFormatDescriptionCreateFromBigEndianImageDescriptionData(CFAllocatorRef, const uint8_t *, size_t,
                                                                         CFStringEncoding, SVImageDescriptionFlavor,
                                                                         SVVideoFormatDescriptionRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVSwapBigEndianImageDescriptionToHost(uint8_t *, size_t) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVSwapHostEndianImageDescriptionToBig(uint8_t *, size_t) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVTextFormatDescriptionCopyAsBigEndianTextDescriptionBlockBuffer(CFAllocatorRef, SVTextFormatDescriptionRef,
                                                                          SVTextDescriptionFlavor,
                                                                          SVBlockBufferRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVTextFormatDescriptionCreateFromBigEndianTextDescriptionBlockBuffer(CFAllocatorRef, SVBlockBufferRef,
                                                                              SVTextDescriptionFlavor, SVMediaType,
                                                                              SVTextFormatDescriptionRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVTextFormatDescriptionCreateFromBigEndianTextDescriptionData(CFAllocatorRef, const uint8_t *, size_t,
                                                                       SVTextDescriptionFlavor, SVMediaType,
                                                                       SVTextFormatDescriptionRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVSwapBigEndianTextDescriptionToHost(uint8_t *, size_t) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVSwapHostEndianTextDescriptionToBig(uint8_t *, size_t) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVClosedCaptionFormatDescriptionCopyAsBigEndianClosedCaptionDescriptionBlockBuffer(
    CFAllocatorRef, SVClosedCaptionFormatDescriptionRef, SVClosedCaptionDescriptionFlavor,
    SVBlockBufferRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVClosedCaptionFormatDescriptionCreateFromBigEndianClosedCaptionDescriptionBlockBuffer(
    CFAllocatorRef, SVBlockBufferRef, SVClosedCaptionDescriptionFlavor,
    SVClosedCaptionFormatDescriptionRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVClosedCaptionFormatDescriptionCreateFromBigEndianClosedCaptionDescriptionData(
    CFAllocatorRef, const uint8_t *, size_t, SVClosedCaptionDescriptionFlavor,
    SVClosedCaptionFormatDescriptionRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVSwapBigEndianClosedCaptionDescriptionToHost(uint8_t *, size_t) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVSwapHostEndianClosedCaptionDescriptionToBig(uint8_t *, size_t) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVTimeCodeFormatDescriptionCopyAsBigEndianTimeCodeDescriptionBlockBuffer(CFAllocatorRef,
                                                                                  SVTimeCodeFormatDescriptionRef,
                                                                                  SVTimeCodeDescriptionFlavor,
                                                                                  SVBlockBufferRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVTimeCodeFormatDescriptionCreateFromBigEndianTimeCodeDescriptionBlockBuffer(
    CFAllocatorRef, SVBlockBufferRef, SVTimeCodeDescriptionFlavor, SVTimeCodeFormatDescriptionRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVTimeCodeFormatDescriptionCreateFromBigEndianTimeCodeDescriptionData(
    CFAllocatorRef, const uint8_t *, size_t, SVTimeCodeDescriptionFlavor, SVTimeCodeFormatDescriptionRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVSwapBigEndianTimeCodeDescriptionToHost(uint8_t *, size_t) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVSwapHostEndianTimeCodeDescriptionToBig(uint8_t *, size_t) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVMetadataFormatDescriptionCopyAsBigEndianMetadataDescriptionBlockBuffer(CFAllocatorRef,
                                                                                  SVMetadataFormatDescriptionRef,
                                                                                  SVMetadataDescriptionFlavor,
                                                                                  SVBlockBufferRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVMetadataFormatDescriptionCreateFromBigEndianMetadataDescriptionBlockBuffer(
    CFAllocatorRef, SVBlockBufferRef, SVMetadataDescriptionFlavor, SVMetadataFormatDescriptionRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVMetadataFormatDescriptionCreateFromBigEndianMetadataDescriptionData(
    CFAllocatorRef, const uint8_t *, size_t, SVMetadataDescriptionFlavor, SVMetadataFormatDescriptionRef *) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVSwapBigEndianMetadataDescriptionToHost(uint8_t *, size_t) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

OSStatus SVSwapHostEndianMetadataDescriptionToBig(uint8_t *, size_t) noexcept {
    bridgeNotImplemented(__func__, __LINE__);
}

}  // extern "C"
