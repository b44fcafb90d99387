/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The audio-format service: questions about audio formats that need no
 * codec instance.  Two properties are answered:
 *
 * - kAudioFormatProperty_FormatList ('flst'): the concrete formats that a
 *   stream description (with its magic cookie) offers, richest first.  The
 *   specifier is an AudioFormatInfo; the data is a packed array of
 *   AudioFormatListItem.  A plain format gives one item, the description
 *   itself with the channel layout tag of its channel count.  Layered AAC
 *   gives every layer down to the core: HE-AAC v2 ('aacp') gives 'aacp'
 *   stereo, 'aach' mono and 'aac ' mono at the core rate; HE-AAC ('aach')
 *   gives 'aach' and 'aac ' at the core rate.  An 'aac ' description whose
 *   magic cookie holds an AudioSpecificConfig (raw, or inside an MPEG-4
 *   elementary stream descriptor, with or without the 'esds' header) that
 *   signals spectral band replication or parametric stereo is layered the
 *   same way, at the rates the configuration names.  A cookie that cannot be
 *   parsed is ignored: the description is then taken as it stands.
 *
 * - kAudioFormatProperty_FirstPlayableFormatFromList ('fpfl'): the index
 *   (UInt32) of the first item of a format list that this platform can
 *   decode.  The specifier is the list.  Decodable here are linear PCM,
 *   mu-law and A-law; a list without any of them gives
 *   kAudioFormatUnsupportedDataFormatError.
 *
 * Statuses: 0, kAudioFormatUnsupportedPropertyError ('prop') for any other
 * property, kAudioFormatBadSpecifierSizeError ('!spc') for a missing
 * specifier or one of the wrong size, kAudioFormatBadPropertySizeError
 * ('!siz') for a data buffer too small for one value or item,
 * kAudioFormatUnsupportedDataFormatError ('fmt?') for a description without
 * a format identifier or a list without a decodable item, kAudio_ParamError
 * for a missing size or data pointer, kAudio_MemFullError when memory runs
 * out.
 *
 * Both calls are thread-safe and keep no state between calls; the specifier
 * and the magic cookie are only read, never beyond their given sizes.
 */
#ifndef AUDIOTOOLBOX_AUDIOFORMAT_H
#define AUDIOTOOLBOX_AUDIOFORMAT_H

#include <CoreAudio/CoreAudioTypes.h>

CF_EXTERN_C_BEGIN

typedef UInt32 AudioFormatPropertyID;

enum {
    kAudioFormatProperty_FormatList = 0x666C7374,                 /* 'flst' */
    kAudioFormatProperty_FirstPlayableFormatFromList = 0x6670666C /* 'fpfl' */
};

enum {
    kAudioFormatUnspecifiedError = 0x77686174,           /* 'what' */
    kAudioFormatUnsupportedPropertyError = 0x70726F70,   /* 'prop' */
    kAudioFormatBadPropertySizeError = 0x2173697A,       /* '!siz' */
    kAudioFormatBadSpecifierSizeError = 0x21737063,      /* '!spc' */
    kAudioFormatUnsupportedDataFormatError = 0x666D743F, /* 'fmt?' */
    kAudioFormatUnknownFormatError = 0x21666D74          /* '!fmt' */
};

/* The specifier of kAudioFormatProperty_FormatList: a stream description and
 * its magic cookie (mMagicCookie may be NULL when mMagicCookieSize is 0; a
 * NULL cookie with a non-zero size is read as no cookie). */
typedef struct AudioFormatInfo {
    AudioStreamBasicDescription mASBD;
    const void *mMagicCookie;
    UInt32 mMagicCookieSize;
} AudioFormatInfo;

/* The size in bytes of the property's value for this specifier.
 * FormatList: the specifier is one AudioFormatInfo (inSpecifierSize at least
 * sizeof(AudioFormatInfo)); the size is the list's, a multiple of
 * sizeof(AudioFormatListItem).  FirstPlayableFormatFromList: the specifier is
 * a non-empty format list (a multiple of sizeof(AudioFormatListItem)); the
 * size is sizeof(UInt32). */
CF_EXPORT OSStatus AudioFormatGetPropertyInfo(AudioFormatPropertyID inPropertyID, UInt32 inSpecifierSize,
                                              const void *inSpecifier, UInt32 *outPropertyDataSize) CF_NOEXCEPT
    CF_ABI_NAME(AudioFormatGetPropertyInfo);

/* The property's value.  *ioPropertyDataSize gives the room at outPropertyData
 * and receives the bytes written.  FormatList writes as many whole items as
 * fit, richest first ('!siz' when not even one fits); FirstPlayableFormatFromList
 * writes one UInt32 ('!siz' when fewer than four bytes are given). */
CF_EXPORT OSStatus AudioFormatGetProperty(AudioFormatPropertyID inPropertyID, UInt32 inSpecifierSize,
                                          const void *inSpecifier, UInt32 *ioPropertyDataSize,
                                          void *outPropertyData) CF_NOEXCEPT CF_ABI_NAME(AudioFormatGetProperty);

CF_EXTERN_C_END

#endif /* AUDIOTOOLBOX_AUDIOFORMAT_H */
