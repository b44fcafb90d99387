/* SPDX-License-Identifier: Apache-2.0 */
/*
 * SVFormatDescription: what the samples of a stream are.
 *
 * A format description is an immutable, reference-counted object holding a
 * media type ('soun', 'vide', 'text', ...), a media subtype (for audio the
 * stream's format identifier, for video the codec type), an optional
 * dictionary of extensions (string keys to property-list values) and a
 * payload that depends on the media type: for audio a stream description, a
 * channel layout and a magic cookie.  Every sample buffer carries one, and
 * players compare them to decide whether a decoder must be rebuilt.
 *
 * Ownership.  Create calls give the caller one reference (CFRelease it);
 * Get calls return borrowed pointers and references that stay valid while
 * the description lives.  Extensions are copied at creation with the
 * default allocator, so the caller's dictionary may change afterwards
 * without affecting the description.
 *
 * Threads.  Descriptions are immutable and may be shared by any number of
 * threads.  The one piece of state filled after creation, the audio format
 * list (SVAudioFormatDescriptionGetFormatList and the two queries built on
 * it), is published atomically: concurrent first queries each compute it and
 * one result wins.
 *
 * Equality (SVFormatDescriptionEqual, and CFEqual on two descriptions)
 * compares media type, subtype, extensions and the payload of audio, video
 * and subtitle descriptions.  Comparing two descriptions of the same text,
 * time-code, closed-caption, muxed or metadata type with equal extensions is
 * not implemented and ends the process ("NOT YET IMPLEMENTED"); so do the
 * entry points listed under "Not implemented" at the end of this header.
 * Hashing is by identity: equal descriptions need not hash alike, so do not
 * use them as keys of hashed collections that rely on equality.
 *
 * Errors are the kSVFormatDescriptionError_ codes below; failures are logged
 * through XPLog at level 3.
 *
 * Arguments.  Every call that takes a format description treats an object
 * that is not one exactly like NULL: the answer each call gives below for a
 * NULL description.
 */
#ifndef SORVEL_SVFORMATDESCRIPTION_H
#define SORVEL_SVFORMATDESCRIPTION_H

#include <Sorvel/SVBase.h>
#include <Sorvel/SVTime.h>

#include <AudioToolbox/AudioFormat.h>
#include <CoreAudio/CoreAudioTypes.h>
#include <CoreGraphics/CGGeometry.h>
#include <CoreVideo/CoreVideo.h>

#include <stddef.h>
#include <stdint.h>

SV_EXTERN_C_BEGIN

typedef const struct OpaqueSVFormatDescription *SVFormatDescriptionRef;
typedef SVFormatDescriptionRef SVAudioFormatDescriptionRef;
typedef SVFormatDescriptionRef SVVideoFormatDescriptionRef;
typedef SVFormatDescriptionRef SVTextFormatDescriptionRef;
typedef SVFormatDescriptionRef SVClosedCaptionFormatDescriptionRef;
typedef SVFormatDescriptionRef SVTimeCodeFormatDescriptionRef;
typedef SVFormatDescriptionRef SVMetadataFormatDescriptionRef;
typedef SVFormatDescriptionRef SVMuxedFormatDescriptionRef;

/* The same declaration as <Sorvel/SVBlockBuffer.h>; repeated so that this
 * header stands alone. */
typedef struct OpaqueSVBlockBuffer *SVBlockBufferRef;

/* Status codes. */
enum {
    /* A NULL output pointer, an unknown media type or a missing required
     * input. */
    kSVFormatDescriptionError_InvalidParameter = -12710,
    /* The object or a copy of its payload could not be allocated. */
    kSVFormatDescriptionError_AllocationFailed = -12711,
    /* A value that a getter needs is missing from the extensions. */
    kSVFormatDescriptionError_ValueNotAvailable = -12718
};

/* Media types. */
typedef FourCharCode SVMediaType;
enum {
    kSVMediaType_Video = 0x76696465,         /* 'vide' */
    kSVMediaType_Audio = 0x736F756E,         /* 'soun' */
    kSVMediaType_Muxed = 0x6D757878,         /* 'muxx' */
    kSVMediaType_Text = 0x74657874,          /* 'text' */
    kSVMediaType_ClosedCaption = 0x636C6370, /* 'clcp' */
    kSVMediaType_Subtitle = 0x7362746C,      /* 'sbtl' */
    kSVMediaType_TimeCode = 0x746D6364,      /* 'tmcd' */
    kSVMediaType_Metadata = 0x6D657461       /* 'meta' */
};

/* ==== The core ============================================================= */

/* The runtime type of format descriptions; registers it on first use. */
SV_EXPORT CFTypeID SVFormatDescriptionGetTypeID(void) SV_NOEXCEPT;

/* Creates a description without payload.  mediaType must be one of 'soun',
 * 'text', 'clcp', 'muxx', 'sbtl', 'vide' or 'tmcd' ('meta' is refused:
 * metadata descriptions come from their own creators).  extensions may be
 * NULL.  Returns 0 with a new description in *formatDescriptionOut (set to
 * NULL first), kSVFormatDescriptionError_InvalidParameter for a NULL output
 * or another media type, kSVFormatDescriptionError_AllocationFailed when the
 * object cannot be allocated. */
SV_EXPORT OSStatus SVFormatDescriptionCreate(CFAllocatorRef allocator, SVMediaType mediaType, FourCharCode mediaSubType,
                                             CFDictionaryRef extensions,
                                             SVFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;

/* The media type and subtype; 0 for NULL. */
SV_EXPORT SVMediaType SVFormatDescriptionGetMediaType(SVFormatDescriptionRef desc) SV_NOEXCEPT;
SV_EXPORT FourCharCode SVFormatDescriptionGetMediaSubType(SVFormatDescriptionRef desc) SV_NOEXCEPT;

/* The extensions (borrowed), or NULL for NULL or a description without
 * extensions. */
SV_EXPORT CFDictionaryRef SVFormatDescriptionGetExtensions(SVFormatDescriptionRef desc) SV_NOEXCEPT;

/* One extension's value (borrowed), or NULL for NULL, a description without
 * extensions, or an absent key. */
SV_EXPORT CFPropertyListRef SVFormatDescriptionGetExtension(SVFormatDescriptionRef desc,
                                                            CFStringRef extensionKey) SV_NOEXCEPT;

/* True for the same object; false when either is NULL or media type, subtype
 * or extensions differ (two NULL extensions are equal, NULL and an empty
 * dictionary are not).  Then by media type: subtitles are equal; audio
 * compares everything SVAudioFormatDescriptionEqual compares; video compares
 * dimensions, parameter sets and NAL unit header length; any other media
 * type ends the process ("NOT YET IMPLEMENTED"). */
SV_EXPORT Boolean SVFormatDescriptionEqual(SVFormatDescriptionRef desc1, SVFormatDescriptionRef desc2) SV_NOEXCEPT;

/* ==== Extension keys and values ==============================================
 *
 * Each constant is a string whose text is its own name. */

SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_FormatName;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_FullRangeVideo;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_OriginalCompressionSettings;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_VerbatimISOSampleEntry;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_VerbatimSampleDescription;
SV_EXPORT const CFStringRef kSVFormatDescriptionConformsToMPEG2VideoProfile;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_TemporalQuality;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_SpatialQuality;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_Version;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_RevisionLevel;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_Vendor;
SV_EXPORT const CFStringRef kSVFormatDescriptionVendor_Sorvel;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_ICCProfile;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_BytesPerRow;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_Depth;
SV_EXPORT const CFStringRef kSVFormatDescriptionColorPrimaries_P22;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_HorizontalResolution;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_VerticalResolution;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_CompressorName;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_FrameCount;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtension_ColorTableID;
SV_EXPORT const CFStringRef kSVFormatDescriptionExtensionKey_MetadataKeyTable;

SV_EXPORT const CFStringRef kSVFormatDescriptionKey_CleanApertureWidthRational;
SV_EXPORT const CFStringRef kSVFormatDescriptionKey_CleanApertureHeightRational;
SV_EXPORT const CFStringRef kSVFormatDescriptionKey_CleanApertureHorizontalOffsetRational;
SV_EXPORT const CFStringRef kSVFormatDescriptionKey_CleanApertureVerticalOffsetRational;
SV_EXPORT const CFStringRef kSVFormatDescriptionKey_MPEG4ElementaryStreamDescriptorVersion;
SV_EXPORT const CFStringRef kSVFormatDescriptionKey_MPEG4ElementaryStreamDescriptorFlag;
SV_EXPORT const CFStringRef kSVFormatDescriptionKey_MPEG4ElementaryStreamDescriptorElementaryStreamDescriptor;
SV_EXPORT const CFStringRef kSVFormatDescriptionKey_AVCDecoderConfigurationRecord;
SV_EXPORT const CFStringRef kSVFormatDescriptionKey_ColorParameterType;
SV_EXPORT const CFStringRef kSVFormatDescriptionKey_QuantizationTable;
SV_EXPORT const CFStringRef kSVFormatDescriptionKey_HuffmanTable;

/* Text and subtitle descriptions keep their style here (read back by the
 * SVTextFormatDescription getters). */
SV_EXPORT const CFStringRef kSVTextFormatDescriptionExtension_DisplayFlags;            /* CFNumber */
SV_EXPORT const CFStringRef kSVTextFormatDescriptionExtension_BackgroundColor;         /* CFDictionary of Color keys */
SV_EXPORT const CFStringRef kSVTextFormatDescriptionExtension_DefaultTextBox;          /* CFDictionary of Rect keys */
SV_EXPORT const CFStringRef kSVTextFormatDescriptionExtension_DefaultStyle;            /* CFDictionary of Style keys */
SV_EXPORT const CFStringRef kSVTextFormatDescriptionExtension_HorizontalJustification; /* CFNumber */
SV_EXPORT const CFStringRef kSVTextFormatDescriptionExtension_VerticalJustification;   /* CFNumber */
SV_EXPORT const CFStringRef kSVTextFormatDescriptionExtension_FontTable; /* CFDictionary: "%d" of the font ID -> name */
SV_EXPORT const CFStringRef kSVTextFormatDescriptionExtension_TextJustification;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionExtension_DefaultFontName;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionColor_Red;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionColor_Green;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionColor_Blue;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionColor_Alpha;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionRect_Top;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionRect_Left;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionRect_Bottom;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionRect_Right;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionStyle_StartChar;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionStyle_EndChar;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionStyle_Font;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionStyle_FontFace;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionStyle_ForegroundColor;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionStyle_FontSize;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionStyle_Height;
SV_EXPORT const CFStringRef kSVTextFormatDescriptionStyle_Ascent;

SV_EXPORT const CFStringRef kSVTimeCodeFormatDescriptionExtension_SourceReferenceName;
SV_EXPORT const CFStringRef kSVTimeCodeFormatDescriptionKey_Value;
SV_EXPORT const CFStringRef kSVTimeCodeFormatDescriptionKey_LangCode;

SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionKey_LocalID;
SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionKey_Namespace;
SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionKey_Value;
SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionKey_DataType;
SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionKey_DataTypeNamespace;
SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionKey_ConformingDataTypes;
SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionKey_LanguageTag;
SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionKey_StructuralDependency;
SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionKey_SetupData;
SV_EXPORT const CFStringRef kSVMetadataFormatDescription_StructuralDependencyKey_DependencyIsInvalidFlag;
SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionMetadataSpecificationKey_Identifier;
SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionMetadataSpecificationKey_DataType;
SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionMetadataSpecificationKey_ExtendedLanguageTag;
SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionMetadataSpecificationKey_SetupData;
SV_EXPORT const CFStringRef kSVMetadataFormatDescriptionMetadataSpecificationKey_StructuralDependency;

/* Flavours of the big-endian sample descriptions (NULL means the plain
 * QuickTime movie flavour). */
typedef CFStringRef SVImageDescriptionFlavor;
typedef CFStringRef SVSoundDescriptionFlavor;
typedef CFStringRef SVTextDescriptionFlavor;
typedef CFStringRef SVClosedCaptionDescriptionFlavor;
typedef CFStringRef SVTimeCodeDescriptionFlavor;
typedef CFStringRef SVMetadataDescriptionFlavor;
SV_EXPORT const CFStringRef kSVImageDescriptionFlavor_QuickTimeMovie;
SV_EXPORT const CFStringRef kSVImageDescriptionFlavor_ISOFamily;
SV_EXPORT const CFStringRef kSVImageDescriptionFlavor_3GPFamily;
SV_EXPORT const CFStringRef kSVSoundDescriptionFlavor_QuickTimeMovie;
SV_EXPORT const CFStringRef kSVSoundDescriptionFlavor_QuickTimeMovieV2;
SV_EXPORT const CFStringRef kSVSoundDescriptionFlavor_ISOFamily;
SV_EXPORT const CFStringRef kSVSoundDescriptionFlavor_3GPFamily;

/* ==== Audio ====================================================================
 *
 * An audio description has media type 'soun' and the stream description's
 * format identifier as subtype; its payload is the stream description (held
 * by value), a copy of the channel layout and a copy of the magic cookie. */

/* Which parts SVAudioFormatDescriptionEqual compares and reports as equal. */
typedef uint32_t SVAudioFormatDescriptionMask;
enum {
    kSVAudioFormatDescriptionMask_StreamBasicDescription = 1u << 0,
    kSVAudioFormatDescriptionMask_MagicCookie = 1u << 1,
    kSVAudioFormatDescriptionMask_ChannelLayout = 1u << 2,
    kSVAudioFormatDescriptionMask_Extensions = 1u << 3,
    kSVAudioFormatDescriptionMask_All = 15
};

/* Creates an audio description.  asbd is required (NULL is logged and gives
 * kSVFormatDescriptionError_InvalidParameter), and so is the output.  The
 * first layoutSize bytes at layout are copied (layout may be NULL only when
 * layoutSize is 0).  A non-NULL magicCookie has its first magicCookieSize
 * bytes copied; a NULL cookie is stored as NULL with magicCookieSize kept as
 * given (the cookie getter then reports that size and NULL).  extensions may
 * be NULL.  kSVFormatDescriptionError_AllocationFailed when the object or a
 * copy cannot be allocated; nothing is returned then. */
SV_EXPORT OSStatus SVAudioFormatDescriptionCreate(CFAllocatorRef allocator, const AudioStreamBasicDescription *asbd,
                                                  size_t layoutSize, const AudioChannelLayout *layout,
                                                  size_t magicCookieSize, const void *magicCookie,
                                                  CFDictionaryRef extensions,
                                                  SVAudioFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;

/* Creates one linear PCM description that can hold any of the audio
 * descriptions in formatDescriptionArray: the highest sample rate, channel
 * count and bit depth among them, one frame per packet, bytes per frame and
 * per packet (channels x bits) / 8, format flags 0, no layout, cookie or
 * extensions.  An empty array gives all zeros.  A NULL array, a NULL element
 * or a non-audio element gives kSVFormatDescriptionError_InvalidParameter.
 * flags is reserved and ignored. */
SV_EXPORT OSStatus SVAudioFormatDescriptionCreateSummary(CFAllocatorRef allocator, CFArrayRef formatDescriptionArray,
                                                         uint32_t flags,
                                                         SVAudioFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;

/* The stored stream description (borrowed), or NULL for NULL or a non-audio
 * description. */
SV_EXPORT const AudioStreamBasicDescription *SVAudioFormatDescriptionGetStreamBasicDescription(
    SVAudioFormatDescriptionRef desc) SV_NOEXCEPT;

/* The stored channel layout and its size in bytes (*sizeOut, required, is
 * always written).  NULL and size 0 for NULL or a non-audio description;
 * NULL and size 0 for a description made without a layout. */
SV_EXPORT const AudioChannelLayout *SVAudioFormatDescriptionGetChannelLayout(SVAudioFormatDescriptionRef desc,
                                                                             size_t *sizeOut) SV_NOEXCEPT;

/* The stored magic cookie and its size (*sizeOut, required, is always
 * written).  NULL and 0 for NULL or a non-audio description. */
SV_EXPORT const void *SVAudioFormatDescriptionGetMagicCookie(SVAudioFormatDescriptionRef desc,
                                                             size_t *sizeOut) SV_NOEXCEPT;

/* The concrete formats the description offers, richest first, as a packed
 * array of AudioFormatListItem; its size in bytes goes to *formatListSizeOut.
 * Asked of the audio-format service once and kept with the description.
 * NULL (the size left untouched) for NULL or a non-audio description, and
 * NULL when the service fails (logged). */
SV_EXPORT const AudioFormatListItem *SVAudioFormatDescriptionGetFormatList(SVAudioFormatDescriptionRef desc,
                                                                           size_t *formatListSizeOut) SV_NOEXCEPT;

/* The last item of the format list (the one any decoder of the family can
 * play), or NULL when there is no list. */
SV_EXPORT const AudioFormatListItem *SVAudioFormatDescriptionGetMostCompatibleFormat(SVAudioFormatDescriptionRef desc)
    SV_NOEXCEPT;

/* The first item of the format list that this platform can decode, or NULL
 * when there is no list or nothing in it is decodable (logged). */
SV_EXPORT const AudioFormatListItem *SVAudioFormatDescriptionGetRichestDecodableFormat(SVAudioFormatDescriptionRef desc)
    SV_NOEXCEPT;

/* Compares the parts of two audio descriptions named by equalityMask and,
 * when equalityMaskOut is given, stores the parts found equal there.  True
 * when every asked part is equal.  The same object: true with the asked
 * mask.  NULL, a non-audio description or different subtypes: false with 0.
 * Sample rates are equal within FLT_EPSILON, the other stream fields exactly
 * (mReserved is ignored).  Channel layouts (only of equal size) are compared
 * by their channel descriptions, coordinates within FLT_EPSILON; the layout
 * tag, bitmap and count only decide whether the descriptions are compared.
 * Cookies (only of equal size) are compared bytewise, extensions as
 * dictionaries. */
SV_EXPORT Boolean SVAudioFormatDescriptionEqual(SVAudioFormatDescriptionRef desc1, SVAudioFormatDescriptionRef desc2,
                                                SVAudioFormatDescriptionMask equalityMask,
                                                SVAudioFormatDescriptionMask *equalityMaskOut) SV_NOEXCEPT;

/* ==== Text and subtitles ======================================================
 *
 * Text ('text') and subtitle ('sbtl') descriptions of the 3GPP text format
 * ('tx3g') are plain descriptions whose style lives in the extensions; the
 * getters below read it back.  Every getter:
 * - ends the process ("NOT YET IMPLEMENTED") for a text or subtitle
 *   description of another subtype, and for closed captions ('clcp');
 * - returns kSVFormatDescriptionError_InvalidParameter, logging
 *   "Media type/subtype not supported", for any other description (NULL too);
 * - returns kSVFormatDescriptionError_ValueNotAvailable when the description
 *   has no extensions or a value it needs is missing or of the wrong type.
 * Output pointers are optional unless said otherwise. */

typedef uint32_t SVTextFormatType;
enum {
    kSVTextFormatType_QTText = 0x74657874, /* 'text' */
    kSVTextFormatType_3GText = 0x74783367  /* 'tx3g' */
};
typedef FourCharCode SVSubtitleFormatType;
enum {
    kSVSubtitleFormatType_3GText = 0x74783367, /* 'tx3g' */
    kSVSubtitleFormatType_WebVTT = 0x77767474  /* 'wvtt' */
};
typedef FourCharCode SVClosedCaptionFormatType;
enum {
    kSVClosedCaptionFormatType_CEA608 = 0x63363038, /* 'c608' */
    kSVClosedCaptionFormatType_CEA708 = 0x63373038, /* 'c708' */
    kSVClosedCaptionFormatType_ATSC = 0x61746363    /* 'atcc' */
};

typedef uint32_t SVTextDisplayFlags;
enum {
    kSVTextDisplayFlag_scrollIn = 0x00000020,
    kSVTextDisplayFlag_scrollOut = 0x00000040,
    kSVTextDisplayFlag_scrollDirectionMask = 0x00000180,
    kSVTextDisplayFlag_scrollDirection_bottomToTop = 0x00000000,
    kSVTextDisplayFlag_scrollDirection_rightToLeft = 0x00000080,
    kSVTextDisplayFlag_scrollDirection_topToBottom = 0x00000100,
    kSVTextDisplayFlag_scrollDirection_leftToRight = 0x00000180,
    kSVTextDisplayFlag_continuousKaraoke = 0x00000800,
    kSVTextDisplayFlag_writeTextVertically = 0x00020000,
    kSVTextDisplayFlag_fillTextRegion = 0x00040000,
    kSVTextDisplayFlag_obeySubtitleFormatting = 0x20000000,
    kSVTextDisplayFlag_forcedSubtitlesPresent = 0x40000000,
    kSVTextDisplayFlag_allSubtitlesForced = 0x80000000u
};

typedef int8_t SVTextJustificationValue;
enum {
    kSVTextJustification_left = 0,
    kSVTextJustification_centered = 1,
    kSVTextJustification_bottom = -1,
    kSVTextJustification_right = -1
};

/* Text-box geometry, in 32-bit floats. */
typedef struct SVTextPoint {
    Float32 x;
    Float32 y;
} SVTextPoint;
typedef struct SVTextSize {
    Float32 width;
    Float32 height;
} SVTextSize;
typedef struct SVTextRect {
    SVTextPoint origin;
    SVTextSize size;
} SVTextRect;

/* The display flags (kSVTextFormatDescriptionExtension_DisplayFlags). */
SV_EXPORT OSStatus SVTextFormatDescriptionGetDisplayFlags(SVTextFormatDescriptionRef desc,
                                                          SVTextDisplayFlags *displayFlagsOut) SV_NOEXCEPT;

/* The horizontal and vertical justification, each truncated to 8 bits.  Both
 * values are required; when only the vertical one is missing the horizontal
 * output has already been written. */
SV_EXPORT OSStatus SVTextFormatDescriptionGetJustification(
    SVTextFormatDescriptionRef desc, SVTextJustificationValue *horizontalJustificationOut,
    SVTextJustificationValue *verticalJustificationOut) SV_NOEXCEPT;

/* The default text box's size, at origin (0, 0): width right - left; height
 * bottom - top when originIsAtTopLeft, else top - bottom but at most
 * heightOfTextTrack (truncated to an integer).  All four edges are
 * required. */
SV_EXPORT OSStatus SVTextFormatDescriptionGetDefaultTextBox(SVTextFormatDescriptionRef desc, Boolean originIsAtTopLeft,
                                                            Float32 heightOfTextTrack,
                                                            SVTextRect *defaultTextBoxOut) SV_NOEXCEPT;

/* The default style: font identifier, font size (an integer, as a float) and
 * the foreground colour's four components in the order red, green, blue,
 * alpha, unscaled (0 to 255).  The style dictionary is required, and so are
 * the font and font size when their outputs are given; the colour is only
 * written when the style has one (with all four components).  Bold, italic
 * and underline are always reported false (logged at level 4). */
SV_EXPORT OSStatus SVTextFormatDescriptionGetDefaultStyle(SVTextFormatDescriptionRef desc, uint16_t *localFontIDOut,
                                                          Boolean *boldOut, Boolean *italicOut, Boolean *underlineOut,
                                                          Float32 *fontSizeOut,
                                                          Float32 colorComponentsOut[4]) SV_NOEXCEPT;

/* The name of a local font (borrowed): the font table's value for the
 * decimal text of localFontID, NULL (with status 0) when the table has no
 * such entry or its value is not a string.  fontNameOut is required
 * (kSVFormatDescriptionError_InvalidParameter); the font table is required
 * (kSVFormatDescriptionError_ValueNotAvailable). */
SV_EXPORT OSStatus SVTextFormatDescriptionGetFontName(SVTextFormatDescriptionRef desc, uint16_t localFontID,
                                                      CFStringRef *fontNameOut) SV_NOEXCEPT;

/* ==== Video ===================================================================
 *
 * Video descriptions have media type 'vide'; their payload is the coded
 * dimensions and, for descriptions made from H.264 ('avc1') or HEVC ('hvc1')
 * parameter sets, owned copies of the sets and the NAL unit header length
 * (the size of the length prefix of each unit in the samples).  Geometry and
 * colour live in the extensions under the kCVImageBuffer... keys. */

typedef FourCharCode SVVideoCodecType;

/* The codec four-character codes of H.264 and HEVC video descriptions
 * ('avc1', 'hvc1': length-prefixed NAL units with a decoder configuration
 * record). */
enum {
    kSVVideoCodecType_H264 = 0x61766331, /* 'avc1' */
    kSVVideoCodecType_HEVC = 0x68766331  /* 'hvc1' */
};

typedef struct {
    int32_t width;
    int32_t height;
} SVVideoDimensions;

/* A video description with the given codec type and dimensions (not
 * checked) and an immutable copy of extensions (may be NULL).  0, or
 * kSVFormatDescriptionError_InvalidParameter for a NULL output,
 * kSVFormatDescriptionError_AllocationFailed. */
SV_EXPORT OSStatus SVVideoFormatDescriptionCreate(CFAllocatorRef allocator, SVVideoCodecType codecType, int32_t width,
                                                  int32_t height, CFDictionaryRef extensions,
                                                  SVVideoFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;

/* A description of what imageBuffer holds: its encoded size (truncated), for
 * a pixel buffer its pixel format as subtype and its bytes per row under
 * kSVFormatDescriptionExtension_BytesPerRow, for any other image buffer the
 * subtype 'wat?'; the extensions are the buffer's attachments of the keys
 * of SVVideoFormatDescriptionGetExtensionKeysCommonWithImageBuffers.
 * kSVFormatDescriptionError_InvalidParameter for a NULL output or buffer. */
SV_EXPORT OSStatus SVVideoFormatDescriptionCreateForImageBuffer(CFAllocatorRef allocator, CVImageBufferRef imageBuffer,
                                                                SVVideoFormatDescriptionRef *formatDescriptionOut)
    SV_NOEXCEPT;

/* The stored dimensions; 0 x 0 for NULL or a description that is not video.
 * For parameter-set descriptions these are the dimensions after cropping
 * (H.264 frame cropping, HEVC conformance window). */
SV_EXPORT SVVideoDimensions SVVideoFormatDescriptionGetDimensions(SVVideoFormatDescriptionRef desc) SV_NOEXCEPT;

/* The display size: the dimensions through the clean aperture and/or pixel
 * aspect ratio extensions when asked for.  CGSizeZero for NULL or non-video. */
SV_EXPORT CGSize SVVideoFormatDescriptionGetPresentationDimensions(SVVideoFormatDescriptionRef desc,
                                                                   Boolean usePixelAspectRatio,
                                                                   Boolean useCleanAperture) SV_NOEXCEPT;

/* The clean aperture within the dimensions (the whole picture without the
 * extension).  CGRectZero for NULL or non-video. */
SV_EXPORT CGRect SVVideoFormatDescriptionGetCleanAperture(SVVideoFormatDescriptionRef desc,
                                                          Boolean originIsAtTopLeft) SV_NOEXCEPT;

/* The eleven extension keys that video descriptions share with image-buffer
 * attachments.  Built once; do not release.  Thread-safe. */
SV_EXPORT CFArrayRef SVVideoFormatDescriptionGetExtensionKeysCommonWithImageBuffers(void) SV_NOEXCEPT;

/* An 'avc1' description from H.264 parameter sets (each a whole NAL unit
 * without start code or length prefix: SPS type 7, PPS type 8, SPS
 * extension type 13, in any order; at least one SPS).  The first SPS gives
 * the dimensions after cropping and the extensions: pixel aspect ratio,
 * colour primaries, transfer function (with gamma level for the pure-gamma
 * curves), YCbCr matrix, full range (set only when true), chroma location
 * (left for 4:2:0 when the stream does not say), field count (2 when
 * frame_mbs_only_flag is 0; no field detail, since parameter sets do not say
 * which field comes first) and the avcC record
 * under kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms ->
 * "avcC".  nalUnitHeaderLength must be 1, 2, 3 or 4.  The sets are copied.
 * kSVFormatDescriptionError_InvalidParameter for a missing argument, a zero
 * count, a bad header length, an empty set or one above 65535 bytes, an
 * unexpected NAL unit type, more than 31 SPSs or 255 PPSs, or an SPS that
 * does not parse or has a field out of its legal range (all logged);
 * kSVFormatDescriptionError_AllocationFailed. */
SV_EXPORT OSStatus SVVideoFormatDescriptionCreateFromH264ParameterSets(
    CFAllocatorRef allocator, size_t parameterSetCount, const uint8_t *const *parameterSetPointers,
    const size_t *parameterSetSizes, int nalUnitHeaderLength, SVFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;

/* The same from an Annex B run of parameter sets (3- or 4-byte start codes). */
SV_EXPORT OSStatus _SVVideoFormatDescriptionCreateFromConcatenatedH264ParameterSetNALs(
    CFAllocatorRef allocator, const uint8_t *data, size_t size, int nalUnitHeaderLength,
    SVFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;

/* Parameter set `index` of an 'avc1' description; every output is optional.
 * The pointer is borrowed from the description.
 * kSVFormatDescriptionError_InvalidParameter for NULL, a non-video or
 * non-'avc1' description, or index not below the count. */
SV_EXPORT OSStatus SVVideoFormatDescriptionGetH264ParameterSetAtIndex(SVFormatDescriptionRef desc, size_t index,
                                                                      const uint8_t **parameterSetPointerOut,
                                                                      size_t *parameterSetSizeOut,
                                                                      size_t *parameterSetCountOut,
                                                                      int *nalUnitHeaderLengthOut) SV_NOEXCEPT;

/* The temporal field order an H.264 sample states, for an interlaced 'avc1'
 * description (frame_mbs_only_flag 0): `data` holds the sample's NAL units
 * with the description's length prefixes.  The order comes from pic_struct
 * of the first picture-timing SEI (when the SPS says pic_struct is present),
 * else from the parity of the first slice when it codes a field.  Returns
 * kCVImageBufferFieldDetailTemporalTopFirst or ...BottomFirst (constants,
 * not retained), or NULL when the sample does not say (frame pictures
 * without such an SEI, progressive streams, units that do not parse), for a
 * description other than an interlaced 'avc1' one, and for NULL or empty
 * data.  Nothing is logged: most samples simply do not say. */
SV_EXPORT CFStringRef SVVideoFormatDescriptionGetH264FieldDetailOfSample(SVFormatDescriptionRef desc,
                                                                         const uint8_t *data, size_t size) SV_NOEXCEPT;

/* An 'hvc1' description from HEVC parameter sets (VPS 32, SPS 33, PPS 34 and
 * optional SEI 39/40 NAL units, at least one each of VPS, SPS and PPS).  As
 * the H.264 creator, with the conformance window for cropping, field count 2
 * when the VUI's field_seq_flag is set, and the hvcC record under "hvcC".
 * nalUnitHeaderLength must be 1, 2 or 4 (the record cannot say 3).  Entries
 * of `extensions` (may be NULL) are added and win over the derived ones; the
 * record is added to an atoms dictionary given there. */
SV_EXPORT OSStatus SVVideoFormatDescriptionCreateFromHEVCParameterSets(
    CFAllocatorRef allocator, size_t parameterSetCount, const uint8_t *const *parameterSetPointers,
    const size_t *parameterSetSizes, int nalUnitHeaderLength, CFDictionaryRef extensions,
    SVFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;

SV_EXPORT OSStatus _SVVideoFormatDescriptionCreateFromConcatenatedHEVCParameterSetNALs(
    CFAllocatorRef allocator, const uint8_t *data, size_t size, int nalUnitHeaderLength,
    SVFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;

/* An 'avc1' description from an avcC record (ISO/IEC 14496-15), as an MP4
 * demuxer finds it in a sample entry: the record's parameter sets and NAL
 * unit header length go to SVVideoFormatDescriptionCreateFromH264ParameterSets,
 * so the description and its statuses are that call's.  The record is read
 * strictly (see SVGetParameterSetFromAVCDecoderConfigurationRecord in
 * <Sorvel/SVNALUnit.h>): a NULL, empty or truncated record, or one without
 * parameter sets, is kSVFormatDescriptionError_InvalidParameter.
 * *formatDescriptionOut is NULL on failure; the caller owns the result. */
SV_EXPORT OSStatus SVVideoFormatDescriptionCreateFromAVCDecoderConfigurationRecord(
    CFAllocatorRef allocator, const uint8_t *record, size_t recordSize,
    SVFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;

/* The same for an 'hvc1' description from an hvcC record, through
 * SVVideoFormatDescriptionCreateFromHEVCParameterSets; `extensions` (may be
 * NULL) as there. */
SV_EXPORT OSStatus SVVideoFormatDescriptionCreateFromHEVCDecoderConfigurationRecord(
    CFAllocatorRef allocator, const uint8_t *record, size_t recordSize, CFDictionaryRef extensions,
    SVFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;

/* As the H.264 accessor, for 'hvc1' descriptions. */
SV_EXPORT OSStatus SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(SVFormatDescriptionRef desc, size_t index,
                                                                      const uint8_t **parameterSetPointerOut,
                                                                      size_t *parameterSetSizeOut,
                                                                      size_t *parameterSetCountOut,
                                                                      int *nalUnitHeaderLengthOut) SV_NOEXCEPT;

/* What the first sequence parameter set of an 'avc1' or 'hvc1' description
 * says about how the stream is coded. */
typedef struct SVVideoCodingInfo {
    FourCharCode codecType;        /* 'avc1' or 'hvc1' */
    uint32_t profile;              /* profile_idc / general_profile_idc */
    uint32_t level;                /* level_idc / general_level_idc */
    uint32_t tier;                 /* general_tier_flag; 0 for H.264 */
    uint32_t constraintFlags;      /* H.264: the constraint_set0..5 byte as coded (set0 = 0x80); HEVC: 0 */
    uint32_t profileCompatibility; /* HEVC general_profile_compatibility_flags (flag j at bit 31 - j); H.264: 0 */
    uint32_t chromaFormat;         /* chroma_format_idc */
    uint32_t bitDepthLuma;         /* 8 + bit_depth_luma_minus8 */
    uint32_t bitDepthChroma;
    int32_t codedWidth;  /* before cropping / the conformance window */
    int32_t codedHeight; /* H.264: in frame units, i.e. 16 * map units * (2 - frame_mbs_only) */
    int32_t width;       /* after cropping: equals SVVideoFormatDescriptionGetDimensions */
    int32_t height;
    Boolean progressive; /* H.264 frame_mbs_only_flag; HEVC: !field_seq_flag */
} SVVideoCodingInfo;

/* Fills *infoOut from the description's first SPS ('avc3'/'hev1' descriptions that hold parameter
 * sets answer as 'avc1'/'hvc1').  kSVFormatDescriptionError_InvalidParameter for NULL arguments, a
 * description that is not video, a subtype other than 'avc1'/'hvc1' ('avc3'/'hev1' without parameter
 * sets are refused without a log line), a description
 * without an SPS, or an SPS that no longer parses (logged); *infoOut is left untouched on failure. */
SV_EXPORT OSStatus SVVideoFormatDescriptionGetCodingInfo(SVFormatDescriptionRef desc,
                                                         SVVideoCodingInfo *infoOut) SV_NOEXCEPT;

/* True when imageBuffer could be described by desc: desc is video, its
 * dimensions equal the buffer's encoded size (truncated to integers), its
 * subtype equals the pixel format of a pixel buffer ('wat?' for any other
 * image buffer), and for every key common with image buffers the
 * description's extension and the buffer's attachment are both absent or
 * CFEqual.  Other extensions (bytes per row, atoms) are ignored.  False for
 * NULL arguments.  A description made by
 * SVVideoFormatDescriptionCreateForImageBuffer matches its buffer. */
SV_EXPORT Boolean SVVideoFormatDescriptionMatchesImageBuffer(SVVideoFormatDescriptionRef desc,
                                                             CVImageBufferRef imageBuffer) SV_NOEXCEPT;

/* ==== Time code, metadata and muxed descriptions ============================== */

typedef FourCharCode SVTimeCodeFormatType;
enum {
    kSVTimeCodeFormatType_TimeCode32 = 0x746D6364, /* 'tmcd' */
    kSVTimeCodeFormatType_TimeCode64 = 0x74633634, /* 'tc64' */
    kSVTimeCodeFormatType_Counter32 = 0x636E3332,  /* 'cn32' */
    kSVTimeCodeFormatType_Counter64 = 0x636E3634   /* 'cn64' */
};
enum { kSVTimeCodeFlag_DropFrame = 1u << 0, kSVTimeCodeFlag_24HourMax = 1u << 1, kSVTimeCodeFlag_NegTimesOK = 1u << 2 };

typedef FourCharCode SVMetadataFormatType;
enum {
    kSVMetadataFormatType_ICY = 0x69637920,   /* 'icy ' */
    kSVMetadataFormatType_ID3 = 0x69643320,   /* 'id3 ' */
    kSVMetadataFormatType_Boxed = 0x6D656278, /* 'mebx' */
    kSVMetadataFormatType_EMSG = 0x656D7367   /* 'emsg' */
};

typedef FourCharCode SVMuxedStreamType;
enum {
    kSVMuxedStreamType_MPEG1System = 0x6D703173,    /* 'mp1s' */
    kSVMuxedStreamType_MPEG2Transport = 0x6D703274, /* 'mp2t' */
    kSVMuxedStreamType_MPEG2Program = 0x6D703270,   /* 'mp2p' */
    kSVMuxedStreamType_DV = 0x64762020              /* 'dv  ' */
};

/* ==== Not implemented ==========================================================
 *
 * The calls below exist so that programs written against the full interface
 * link, but each one logs "NOT YET IMPLEMENTED" and ends the process.  Do
 * not call them. */

SV_EXPORT Boolean SVFormatDescriptionEqualIgnoringExtensionKeys(
    SVFormatDescriptionRef desc1, SVFormatDescriptionRef desc2, CFTypeRef formatDescriptionExtensionKeysToIgnore,
    CFTypeRef sampleDescriptionExtensionAtomKeysToIgnore) SV_NOEXCEPT;

SV_EXPORT OSStatus SVMuxedFormatDescriptionCreate(CFAllocatorRef allocator, SVMuxedStreamType muxType,
                                                  CFDictionaryRef extensions,
                                                  SVMuxedFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;

/* Time-code descriptions. */
SV_EXPORT OSStatus SVTimeCodeFormatDescriptionCreate(CFAllocatorRef allocator, SVTimeCodeFormatType timeCodeFormatType,
                                                     SVTime frameDuration, uint32_t frameQuanta, uint32_t flags,
                                                     CFDictionaryRef extensions,
                                                     SVTimeCodeFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT SVTime SVTimeCodeFormatDescriptionGetFrameDuration(SVTimeCodeFormatDescriptionRef timeCodeFormatDescription)
    SV_NOEXCEPT;
SV_EXPORT uint32_t SVTimeCodeFormatDescriptionGetFrameQuanta(SVTimeCodeFormatDescriptionRef timeCodeFormatDescription)
    SV_NOEXCEPT;
SV_EXPORT uint32_t SVTimeCodeFormatDescriptionGetTimeCodeFlags(SVTimeCodeFormatDescriptionRef desc) SV_NOEXCEPT;

/* Metadata descriptions. */
SV_EXPORT OSStatus
SVMetadataFormatDescriptionCreateWithKeys(CFAllocatorRef allocator, SVMetadataFormatType metadataType, CFArrayRef keys,
                                          SVMetadataFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT CFDictionaryRef SVMetadataFormatDescriptionGetKeyWithLocalID(SVMetadataFormatDescriptionRef desc,
                                                                       OSType localKeyID) SV_NOEXCEPT;
SV_EXPORT OSStatus SVMetadataFormatDescriptionCreateWithMetadataSpecifications(
    CFAllocatorRef allocator, SVMetadataFormatType metadataType, CFArrayRef metadataSpecifications,
    SVMetadataFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVMetadataFormatDescriptionCreateWithMetadataFormatDescriptionAndMetadataSpecifications(
    CFAllocatorRef allocator, SVMetadataFormatDescriptionRef sourceDescription, CFArrayRef metadataSpecifications,
    SVMetadataFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVMetadataFormatDescriptionCreateByMergingMetadataFormatDescriptions(
    CFAllocatorRef allocator, SVMetadataFormatDescriptionRef sourceDescription,
    SVMetadataFormatDescriptionRef otherSourceDescription,
    SVMetadataFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT CFArrayRef SVMetadataFormatDescriptionGetIdentifiers(SVMetadataFormatDescriptionRef desc) SV_NOEXCEPT;

/* Big-endian sound descriptions. */
SV_EXPORT OSStatus SVAudioFormatDescriptionCopyAsBigEndianSoundDescriptionBlockBuffer(
    CFAllocatorRef allocator, SVAudioFormatDescriptionRef audioFormatDescription, SVSoundDescriptionFlavor flavor,
    SVBlockBufferRef *soundDescriptionBlockBufferOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVAudioFormatDescriptionCreateFromBigEndianSoundDescriptionBlockBuffer(
    CFAllocatorRef allocator, SVBlockBufferRef soundDescriptionBlockBuffer, SVSoundDescriptionFlavor flavor,
    SVAudioFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVAudioFormatDescriptionCreateFromBigEndianSoundDescriptionData(
    CFAllocatorRef allocator, const uint8_t *soundDescriptionData, size_t size, SVSoundDescriptionFlavor flavor,
    SVAudioFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT Boolean SVDoesBigEndianSoundDescriptionRequireLegacyCBRSampleTableLayout(
    SVBlockBufferRef soundDescriptionBlockBuffer, SVSoundDescriptionFlavor flavor) SV_NOEXCEPT;
SV_EXPORT OSStatus SVSwapBigEndianSoundDescriptionToHost(uint8_t *soundDescriptionData,
                                                         size_t soundDescriptionSize) SV_NOEXCEPT;
SV_EXPORT OSStatus SVSwapHostEndianSoundDescriptionToBig(uint8_t *soundDescriptionData,
                                                         size_t soundDescriptionSize) SV_NOEXCEPT;

/* Big-endian image descriptions. */
SV_EXPORT OSStatus SVVideoFormatDescriptionCopyAsBigEndianImageDescriptionBlockBuffer(
    CFAllocatorRef allocator, SVVideoFormatDescriptionRef videoFormatDescription, CFStringEncoding stringEncoding,
    SVImageDescriptionFlavor flavor, SVBlockBufferRef *imageDescriptionBlockBufferOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVVideoFormatDescriptionCreateFromBigEndianImageDescriptionBlockBuffer(
    CFAllocatorRef allocator, SVBlockBufferRef imageDescriptionBlockBuffer, CFStringEncoding stringEncoding,
    SVImageDescriptionFlavor flavor, SVVideoFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVVideoFormatDescriptionCreateFromBigEndianImageDescriptionData(
    CFAllocatorRef allocator, const uint8_t *imageDescriptionData, size_t size, CFStringEncoding stringEncoding,
    SVImageDescriptionFlavor flavor, SVVideoFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVSwapBigEndianImageDescriptionToHost(uint8_t *imageDescriptionData,
                                                         size_t imageDescriptionSize) SV_NOEXCEPT;
SV_EXPORT OSStatus SVSwapHostEndianImageDescriptionToBig(uint8_t *imageDescriptionData,
                                                         size_t imageDescriptionSize) SV_NOEXCEPT;

/* Big-endian text descriptions. */
SV_EXPORT OSStatus SVTextFormatDescriptionCopyAsBigEndianTextDescriptionBlockBuffer(
    CFAllocatorRef allocator, SVTextFormatDescriptionRef textFormatDescription, SVTextDescriptionFlavor flavor,
    SVBlockBufferRef *textDescriptionBlockBufferOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVTextFormatDescriptionCreateFromBigEndianTextDescriptionBlockBuffer(
    CFAllocatorRef allocator, SVBlockBufferRef textDescriptionBlockBuffer, SVTextDescriptionFlavor flavor,
    SVMediaType mediaType, SVTextFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVTextFormatDescriptionCreateFromBigEndianTextDescriptionData(
    CFAllocatorRef allocator, const uint8_t *textDescriptionData, size_t size, SVTextDescriptionFlavor flavor,
    SVMediaType mediaType, SVTextFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVSwapBigEndianTextDescriptionToHost(uint8_t *textDescriptionData,
                                                        size_t textDescriptionSize) SV_NOEXCEPT;
SV_EXPORT OSStatus SVSwapHostEndianTextDescriptionToBig(uint8_t *textDescriptionData,
                                                        size_t textDescriptionSize) SV_NOEXCEPT;

/* Big-endian closed-caption descriptions. */
SV_EXPORT OSStatus SVClosedCaptionFormatDescriptionCopyAsBigEndianClosedCaptionDescriptionBlockBuffer(
    CFAllocatorRef allocator, SVClosedCaptionFormatDescriptionRef closedCaptionFormatDescription,
    SVClosedCaptionDescriptionFlavor flavor, SVBlockBufferRef *closedCaptionDescriptionBlockBufferOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVClosedCaptionFormatDescriptionCreateFromBigEndianClosedCaptionDescriptionBlockBuffer(
    CFAllocatorRef allocator, SVBlockBufferRef closedCaptionDescriptionBlockBuffer,
    SVClosedCaptionDescriptionFlavor flavor, SVClosedCaptionFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVClosedCaptionFormatDescriptionCreateFromBigEndianClosedCaptionDescriptionData(
    CFAllocatorRef allocator, const uint8_t *closedCaptionDescriptionData, size_t size,
    SVClosedCaptionDescriptionFlavor flavor, SVClosedCaptionFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVSwapBigEndianClosedCaptionDescriptionToHost(uint8_t *closedCaptionDescriptionData,
                                                                 size_t closedCaptionDescriptionSize) SV_NOEXCEPT;
SV_EXPORT OSStatus SVSwapHostEndianClosedCaptionDescriptionToBig(uint8_t *closedCaptionDescriptionData,
                                                                 size_t closedCaptionDescriptionSize) SV_NOEXCEPT;

/* Big-endian time-code descriptions. */
SV_EXPORT OSStatus SVTimeCodeFormatDescriptionCopyAsBigEndianTimeCodeDescriptionBlockBuffer(
    CFAllocatorRef allocator, SVTimeCodeFormatDescriptionRef timeCodeFormatDescription,
    SVTimeCodeDescriptionFlavor flavor, SVBlockBufferRef *timeCodeDescriptionBlockBufferOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVTimeCodeFormatDescriptionCreateFromBigEndianTimeCodeDescriptionBlockBuffer(
    CFAllocatorRef allocator, SVBlockBufferRef timeCodeDescriptionBlockBuffer, SVTimeCodeDescriptionFlavor flavor,
    SVTimeCodeFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVTimeCodeFormatDescriptionCreateFromBigEndianTimeCodeDescriptionData(
    CFAllocatorRef allocator, const uint8_t *timeCodeDescriptionData, size_t size, SVTimeCodeDescriptionFlavor flavor,
    SVTimeCodeFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVSwapBigEndianTimeCodeDescriptionToHost(uint8_t *timeCodeDescriptionData,
                                                            size_t timeCodeDescriptionSize) SV_NOEXCEPT;
SV_EXPORT OSStatus SVSwapHostEndianTimeCodeDescriptionToBig(uint8_t *timeCodeDescriptionData,
                                                            size_t timeCodeDescriptionSize) SV_NOEXCEPT;

/* Big-endian metadata descriptions. */
SV_EXPORT OSStatus SVMetadataFormatDescriptionCopyAsBigEndianMetadataDescriptionBlockBuffer(
    CFAllocatorRef allocator, SVMetadataFormatDescriptionRef metadataFormatDescription,
    SVMetadataDescriptionFlavor flavor, SVBlockBufferRef *metadataDescriptionBlockBufferOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVMetadataFormatDescriptionCreateFromBigEndianMetadataDescriptionBlockBuffer(
    CFAllocatorRef allocator, SVBlockBufferRef metadataDescriptionBlockBuffer, SVMetadataDescriptionFlavor flavor,
    SVMetadataFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVMetadataFormatDescriptionCreateFromBigEndianMetadataDescriptionData(
    CFAllocatorRef allocator, const uint8_t *metadataDescriptionData, size_t size, SVMetadataDescriptionFlavor flavor,
    SVMetadataFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVSwapBigEndianMetadataDescriptionToHost(uint8_t *metadataDescriptionData,
                                                            size_t metadataDescriptionSize) SV_NOEXCEPT;
SV_EXPORT OSStatus SVSwapHostEndianMetadataDescriptionToBig(uint8_t *metadataDescriptionData,
                                                            size_t metadataDescriptionSize) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVFORMATDESCRIPTION_H */
