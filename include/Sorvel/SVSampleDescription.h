/* SPDX-License-Identifier: Apache-2.0 */
/*
 * SVSampleDescription: reading and writing the sample entries that MP4 and
 * QuickTime files keep in each track's 'stsd' box, and the tables between
 * the platform's colour constants and the colour code points of the 'colr'
 * atom (ITU-T H.273).
 *
 * An entry is big-endian: size (32 bits), format code, six reserved bytes,
 * data-reference index (16 bits), then the visual or sound fields of its
 * media type and the child atoms.
 *
 * Reading (SVSampleDescriptionCreateFormatDescription) makes a format
 * description:
 * - Video ('vide').  'avc1'/'avc3' with an 'avcC' record and 'hvc1'/'hev1'
 *   with an 'hvcC' record become parameter-set descriptions exactly as
 *   SVVideoFormatDescriptionCreateFromH264ParameterSets /
 *   ...FromHEVCParameterSets make them (the parameter-set getters answer
 *   for 'avc3'/'hev1' as for 'avc1'/'hvc1'); a record without parameter sets
 *   (in-band 'avc3'/'hev1') and every other codec give a description without
 *   parameter sets.  The subtype is always the entry's format code and the
 *   dimensions are the entry's width and height.  The visual fields go to
 *   kSVFormatDescriptionExtension_Version, _RevisionLevel, _Vendor (a
 *   four-character string, absent when 0), _TemporalQuality, _SpatialQuality,
 *   _HorizontalResolution and _VerticalResolution (dots per inch, CFNumber
 *   doubles), _FrameCount, _CompressorName (absent when empty), _Depth and
 *   _ColorTableID.  The atoms:
 *     'colr' 'nclc'/'nclx': kCVImageBufferColorPrimariesKey,
 *       ...TransferFunctionKey and ...YCbCrMatrixKey through the tables
 *       below (transfer 4 and 5 also set kCVImageBufferGammaLevelKey to 2.2
 *       and 2.8); 'nclx' also sets kSVFormatDescriptionExtension_FullRangeVideo
 *       to true or false from its full-range bit.  'nclc' says nothing about
 *       range.  'prof'/'rICC': kSVFormatDescriptionExtension_ICCProfile (the
 *       profile's bytes).
 *     'pasp': kCVImageBufferPixelAspectRatioKey (integer spacings as stored).
 *     'clap': kCVImageBufferCleanApertureKey with the platform's width,
 *       height and offset keys (integers when the ratio is whole, else
 *       doubles; offsets are from the picture's centre as the atom defines
 *       them) and the four kSVFormatDescriptionKey_CleanAperture...Rational
 *       keys, each a CFArray of two CFNumbers (numerator, denominator)
 *       exactly as stored.
 *     'fiel': kCVImageBufferFieldCountKey (1 or 2) and, for two fields with
 *       detail 1, 6, 9 or 14, kCVImageBufferFieldDetailKey (TemporalTopFirst,
 *       TemporalBottomFirst, SpatialFirstLineEarly, SpatialFirstLineLate).
 *     'gama': kCVImageBufferGammaLevelKey (16.16 fixed point as a double).
 *   What an atom says wins over what the parameter sets say.  A colour
 *   component coded 2 (unspecified) or a code without a platform constant
 *   leaves the parameter sets' value (if any) in place; nothing is invented
 *   where neither says anything (a generic codec without 'colr' has no
 *   colour keys, 'nclc' gives no range).
 * - Sound ('soun').  QuickTime sound descriptions of version 0, 1 and 2 and
 *   ISO audio sample entries (version 0, and version 1 with the rate in
 *   'srat', read as such only under an ISO flavour) become audio
 *   descriptions.  'mp4a' reads its
 *   'esds' (directly or inside 'wave'): AAC gives 'aac ', 'aach', 'aacp',
 *   'aacl' or 'aace' from the AudioSpecificConfig, which becomes the magic
 *   cookie and gives the sample rate and channel count (not the entry's
 *   template fields); MPEG audio gives '.mp3'.  'alac' reads its 'alac' atom
 *   (the 24-byte configuration is the cookie).  'ac-3' reads 'dac3'.
 *   'lpcm' (version 2), 'twos', 'sowt', 'raw ', 'NONE', 'in24', 'in32',
 *   'fl32' and 'fl64' become linear PCM ('lpcm' with the matching flags;
 *   'enda' inside 'wave' selects little-endian).  'chan' becomes the channel
 *   layout.  Any other format keeps its code with the entry's rate and
 *   channel count.
 * - Always: kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms
 *   maps each child atom's four-character code (a CFString) to its payload
 *   without the 8-byte atom header (a CFData; a CFArray of CFData when the
 *   code occurs more than once), and the whole entry is kept under
 *   kSVFormatDescriptionExtension_VerbatimSampleDescription (QuickTime
 *   flavours) or kSVFormatDescriptionExtension_VerbatimISOSampleEntry (ISO and
 *   3GP flavours).
 * A NULL flavour infers the flavour from the entry: QuickTime when it shows
 * anything only QuickTime writes (a non-zero version, revision, vendor or
 * quality, a 'wave', 'chan' or 'gama' atom, a 'colr' of type 'nclc',
 * a QuickTime-only PCM format code), else ISO.
 *
 * Writing (SVSampleDescriptionCopyAsBigEndianData / ...BlockBuffer) is the
 * inverse.  A description that holds the verbatim entry of the requested
 * flavour's family (either, for a NULL flavour) is written back byte for
 * byte.  Any other description is written from its payload and extensions
 * by the flavour's conventions: the decoder configuration record ('avcC' or
 * 'hvcC' from the atoms, or built from the parameter sets; 'esds' from the
 * AAC cookie; 'alac' from the ALAC cookie), 'colr' as 'nclc' in QuickTime
 * movies and 'nclx' (with the full-range bit) in ISO files, or 'prof' when
 * the description has an ICC profile, 'pasp' only when the ratio is not 1:1,
 * 'clap' from the Rational keys (or from the numbers), 'fiel' and 'gama' in
 * QuickTime movies only, 'chan' from the channel layout in QuickTime movies,
 * and every other atom of the atoms dictionary unchanged, in code order.
 * Sound is written as version 0 in the ISO and 3GP flavours; in QuickTime
 * movies as version 1 with the codec atoms inside 'wave' (behind 'frma') for
 * MPEG-4 audio and ALAC, version 2 for linear PCM and for
 * kSVSoundDescriptionFlavor_QuickTimeMovieV2, else version 0.  Linear PCM
 * cannot be written in the ISO flavours.  A NULL flavour
 * writes a QuickTime movie.
 *
 * Bad input never crashes or reads past `length`: it gives a status below
 * and a level-3 log line naming the problem.
 *
 * Threads: every call works on its arguments only; the tables are built
 * once, when the library is loaded, and only read afterwards.
 *
 * Arguments.  A format description argument that is not a format
 * description is refused like NULL ("No format description").
 */
#ifndef SORVEL_SVSAMPLEDESCRIPTION_H
#define SORVEL_SVSAMPLEDESCRIPTION_H

#include <Sorvel/SVBase.h>
#include <Sorvel/SVFormatDescription.h>
#include <stddef.h>
#include <stdint.h>

SV_EXTERN_C_BEGIN

/* Status codes. */
enum {
    /* A NULL required argument, a media type other than 'vide' or 'soun', or
     * a flavour that is not one of the flavour constants of the media type. */
    kSVSampleDescriptionError_InvalidParameter = -12720,
    /* An object or buffer could not be allocated. */
    kSVSampleDescriptionError_AllocationFailed = -12721,
    /* The entry is shorter than its fixed fields, or its size field points
     * past the bytes given or below the fixed fields (for sound version 2,
     * also a stated fixed-part size below 72 or past the entry). */
    kSVSampleDescriptionError_Truncated = -12722,
    /* A child atom is malformed: a size of zero, below 8 or past the end of
     * its parent, a payload too short for its kind, a 'colr' of unknown type,
     * a 'pasp' with a zero spacing, a 'clap' with a zero denominator, a
     * 'fiel' with a field count other than 1 or 2, an 'esds' (sound or
     * MPEG-4 video) descriptor size longer than four bytes or past its
     * parent, or a decoder configuration record whose parameter sets cannot
     * be used. */
    kSVSampleDescriptionError_BadAtom = -12723,
    /* A sound description version other than 0, 1 and 2. */
    kSVSampleDescriptionError_UnsupportedVersion = -12724,
    /* The entry's format code belongs to the other media type (an audio
     * code read as video or the reverse). */
    kSVSampleDescriptionError_MediaTypeMismatch = -12725,
    /* The description cannot be written in the flavour asked for (linear
     * PCM in an ISO flavour, a value that does not fit its field, a media
     * type without sample entries here). */
    kSVSampleDescriptionError_UnsupportedFormat = -12726
};

/* Reads one sample entry of `length` bytes (its size field may be smaller
 * than `length`; the bytes after it are ignored) as mediaType ('vide' or
 * 'soun') and creates a format description in *formatDescriptionOut (set to
 * NULL first).  flavor is one of the image flavours for video, one of the
 * sound flavours for sound, or NULL to infer it.  Returns 0 or a status
 * above (every failure is logged at level 3). */
SV_EXPORT OSStatus SVSampleDescriptionCreateFormatDescription(CFAllocatorRef allocator, SVMediaType mediaType,
                                                              const uint8_t *bytes, size_t length, CFStringRef flavor,
                                                              SVFormatDescriptionRef *formatDescriptionOut) SV_NOEXCEPT;

/* Writes a video or audio description as one sample entry of the flavour
 * (see above) into a new CFData in *dataOut (set to NULL first). */
SV_EXPORT OSStatus SVSampleDescriptionCopyAsBigEndianData(CFAllocatorRef allocator,
                                                          SVFormatDescriptionRef formatDescription, CFStringRef flavor,
                                                          CFDataRef *dataOut) SV_NOEXCEPT;

/* The same bytes in a new contiguous block buffer in *blockBufferOut. */
SV_EXPORT OSStatus SVSampleDescriptionCopyAsBigEndianBlockBuffer(CFAllocatorRef allocator,
                                                                 SVFormatDescriptionRef formatDescription,
                                                                 CFStringRef flavor,
                                                                 SVBlockBufferRef *blockBufferOut) SV_NOEXCEPT;

/* ==== Colour tables =========================================================
 *
 * Between the platform's kCVImageBufferColorPrimaries_..., ..TransferFunction_...
 * and ..YCbCrMatrix_... constants and the integer code points of 'colr'
 * atoms and video usability information (ITU-T H.273).
 *
 * ...GetStringForIntegerCodePoint returns the constant (not retained) or NULL
 * for the reserved values, 2 (unspecified) and every code point without a
 * platform constant.  Equivalent code points read as one constant:
 * primaries 6 and 7 as SMPTE_C, transfer 1, 6, 14 and 15 as ITU_R_709_2 /
 * ITU_R_2020 (6 as 709, 14 and 15 as 2020), transfer 4 and 5 as UseGamma
 * (the gamma level tells them apart), matrix 5 and 6 as ITU_R_601_4.
 *
 * ...GetIntegerCodePointForString returns the code point of a constant (the
 * string is compared by value, so an equal string made elsewhere works):
 * SMPTE_C gives 6, ITU_R_601_4 gives 6, UseGamma gives 2 (its code depends on
 * the gamma level); kSVFormatDescriptionColorPrimaries_P22 gives 22 like
 * kCVImageBufferColorPrimaries_P22.  NULL and unknown strings give 2. */
SV_EXPORT int SVColorPrimariesGetIntegerCodePointForString(CFStringRef colorPrimariesString) SV_NOEXCEPT;
SV_EXPORT CFStringRef SVColorPrimariesGetStringForIntegerCodePoint(int colorPrimariesCodePoint) SV_NOEXCEPT;
SV_EXPORT int SVTransferFunctionGetIntegerCodePointForString(CFStringRef transferFunctionString) SV_NOEXCEPT;
SV_EXPORT CFStringRef SVTransferFunctionGetStringForIntegerCodePoint(int transferFunctionCodePoint) SV_NOEXCEPT;
SV_EXPORT int SVYCbCrMatrixGetIntegerCodePointForString(CFStringRef yCbCrMatrixString) SV_NOEXCEPT;
SV_EXPORT CFStringRef SVYCbCrMatrixGetStringForIntegerCodePoint(int yCbCrMatrixCodePoint) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVSAMPLEDESCRIPTION_H */
