/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The CoreAudio value types: stream descriptions, channel layouts, format-list
 * items, time stamps, and the format identifiers, flags and layout tags that go
 * in them.  Plain records and constants only; nothing here allocates or calls
 * into the library, so every record may be copied by value and used from any
 * thread.
 *
 * Four-character codes ('lpcm') are 32-bit values whose first character is the
 * most significant byte.
 */
#ifndef COREAUDIO_COREAUDIOTYPES_H
#define COREAUDIO_COREAUDIOTYPES_H

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

/* ---- Statuses shared by the audio services ------------------------------ */

enum {
    kAudio_UnimplementedError = -4,
    kAudio_FileNotFoundError = -43,
    kAudio_ParamError = -50,
    kAudio_MemFullError = -108
};

/* ---- Stream descriptions -------------------------------------------------
 *
 * One packet holds mFramesPerPacket frames of mChannelsPerFrame samples each.
 * A field that does not apply to a format (bytes per packet of a variable
 * bit-rate codec, bits per channel of a compressed one) is 0.  mReserved is
 * always 0 and takes no part in comparisons. */

typedef struct AudioStreamBasicDescription {
    Float64 mSampleRate;
    UInt32 mFormatID;
    UInt32 mFormatFlags;
    UInt32 mBytesPerPacket;
    UInt32 mFramesPerPacket;
    UInt32 mBytesPerFrame;
    UInt32 mChannelsPerFrame;
    UInt32 mBitsPerChannel;
    UInt32 mReserved;
} AudioStreamBasicDescription;

/* A packet of a variable-sized format inside a buffer of packets. */
typedef struct AudioStreamPacketDescription {
    SInt64 mStartOffset;
    UInt32 mVariableFramesInPacket;
    UInt32 mDataByteSize;
} AudioStreamPacketDescription;

#define kAudioStreamAnyRate 0.0

/* ---- Buffer lists ---------------------------------------------------------
 *
 * The bytes of one or more buffers of audio: one buffer holding every
 * channel interleaved (or a compressed stream), or one buffer per channel
 * for non-interleaved linear PCM.  The record is variable-sized:
 * mNumberBuffers buffers follow the count, so a list of n buffers occupies
 * offsetof(AudioBufferList, mBuffers) + n * sizeof(AudioBuffer) bytes
 * (sizeof(AudioBufferList) has room for one). */

typedef struct AudioBuffer {
    UInt32 mNumberChannels; /* channels interleaved in this buffer */
    UInt32 mDataByteSize;   /* bytes at mData */
    void *mData;
} AudioBuffer;

typedef struct AudioBufferList {
    UInt32 mNumberBuffers;
    AudioBuffer mBuffers[1];
} AudioBufferList;

/* Format identifiers (mFormatID). */
enum {
    kAudioFormatLinearPCM = 0x6C70636D,            /* 'lpcm' */
    kAudioFormatAC3 = 0x61632D33,                  /* 'ac-3' */
    kAudioFormat60958AC3 = 0x63616333,             /* 'cac3' */
    kAudioFormatMPEG4AAC = 0x61616320,             /* 'aac ' */
    kAudioFormatMPEG4CELP = 0x63656C70,            /* 'celp' */
    kAudioFormatMPEG4HVXC = 0x68767863,            /* 'hvxc' */
    kAudioFormatMPEG4TwinVQ = 0x74777671,          /* 'twvq' */
    kAudioFormatMACE3 = 0x4D414333,                /* 'MAC3' */
    kAudioFormatMACE6 = 0x4D414336,                /* 'MAC6' */
    kAudioFormatULaw = 0x756C6177,                 /* 'ulaw' */
    kAudioFormatALaw = 0x616C6177,                 /* 'alaw' */
    kAudioFormatQDesign = 0x51444D43,              /* 'QDMC' */
    kAudioFormatQDesign2 = 0x51444D32,             /* 'QDM2' */
    kAudioFormatQUALCOMM = 0x51636C70,             /* 'Qclp' */
    kAudioFormatMPEGLayer1 = 0x2E6D7031,           /* '.mp1' */
    kAudioFormatMPEGLayer2 = 0x2E6D7032,           /* '.mp2' */
    kAudioFormatMPEGLayer3 = 0x2E6D7033,           /* '.mp3' */
    kAudioFormatTimeCode = 0x74696D65,             /* 'time' */
    kAudioFormatMIDIStream = 0x6D696469,           /* 'midi' */
    kAudioFormatParameterValueStream = 0x61707673, /* 'apvs' */
    kAudioFormatMPEG4AAC_HE = 0x61616368,          /* 'aach': AAC with spectral band replication */
    kAudioFormatMPEG4AAC_LD = 0x6161636C,          /* 'aacl' */
    kAudioFormatMPEG4AAC_ELD = 0x61616365,         /* 'aace' */
    kAudioFormatMPEG4AAC_ELD_SBR = 0x61616366,     /* 'aacf' */
    kAudioFormatMPEG4AAC_ELD_V2 = 0x61616367,      /* 'aacg' */
    kAudioFormatMPEG4AAC_HE_V2 = 0x61616370,       /* 'aacp': HE-AAC with parametric stereo */
    kAudioFormatMPEG4AAC_Spatial = 0x61616373,     /* 'aacs' */
    kAudioFormatAMR = 0x73616D72,                  /* 'samr' */
    kAudioFormatAMR_WB = 0x73617762,               /* 'sawb' */
    kAudioFormatAudible = 0x41554442,              /* 'AUDB' */
    kAudioFormatiLBC = 0x696C6263,                 /* 'ilbc' */
    kAudioFormatDVIIntelIMA = 0x6D730011,
    kAudioFormatMicrosoftGSM = 0x6D730031,
    kAudioFormatAES3 = 0x61657333,        /* 'aes3' */
    kAudioFormatEnhancedAC3 = 0x65632D33, /* 'ec-3' */
    kAudioFormatFLAC = 0x666C6163,        /* 'flac' */
    kAudioFormatOpus = 0x6F707573         /* 'opus' */
};

/* Format flags (mFormatFlags).  The linear PCM flags also apply to
 * kAudioFormatLinearPCM under their kLinearPCMFormatFlag names. */
enum {
    kAudioFormatFlagIsFloat = 1u << 0,
    kAudioFormatFlagIsBigEndian = 1u << 1,
    kAudioFormatFlagIsSignedInteger = 1u << 2,
    kAudioFormatFlagIsPacked = 1u << 3,
    kAudioFormatFlagIsAlignedHigh = 1u << 4,
    kAudioFormatFlagIsNonInterleaved = 1u << 5,
    kAudioFormatFlagIsNonMixable = 1u << 6,
    kAudioFormatFlagsAreAllClear = 0x80000000u,

    kLinearPCMFormatFlagIsFloat = kAudioFormatFlagIsFloat,
    kLinearPCMFormatFlagIsBigEndian = kAudioFormatFlagIsBigEndian,
    kLinearPCMFormatFlagIsSignedInteger = kAudioFormatFlagIsSignedInteger,
    kLinearPCMFormatFlagIsPacked = kAudioFormatFlagIsPacked,
    kLinearPCMFormatFlagIsAlignedHigh = kAudioFormatFlagIsAlignedHigh,
    kLinearPCMFormatFlagIsNonInterleaved = kAudioFormatFlagIsNonInterleaved,
    kLinearPCMFormatFlagIsNonMixable = kAudioFormatFlagIsNonMixable,
    kLinearPCMFormatFlagsSampleFractionShift = 7,
    kLinearPCMFormatFlagsSampleFractionMask = 0x3Fu << 7,
    kLinearPCMFormatFlagsAreAllClear = kAudioFormatFlagsAreAllClear,

    kAudioFormatFlagsNativeEndian = 0,
    kAudioFormatFlagsNativeFloatPacked = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked,

    /* Object types of MPEG-4 audio, as flags of the 'aac ' family. */
    kMPEG4Object_AAC_Main = 1,
    kMPEG4Object_AAC_LC = 2,
    kMPEG4Object_AAC_SSR = 3,
    kMPEG4Object_AAC_LTP = 4,
    kMPEG4Object_AAC_SBR = 5,
    kMPEG4Object_AAC_Scalable = 6,
    kMPEG4Object_TwinVQ = 7,
    kMPEG4Object_CELP = 8,
    kMPEG4Object_HVXC = 9
};

/* ---- Channel layouts -----------------------------------------------------
 *
 * A layout is named by its tag alone, by a bitmap of speaker positions
 * (kAudioChannelLayoutTag_UseChannelBitmap), or by a list of per-channel
 * descriptions (kAudioChannelLayoutTag_UseChannelDescriptions).  The record
 * is variable-sized: mNumberChannelDescriptions descriptions follow the
 * header, so a layout with n descriptions occupies
 * offsetof(AudioChannelLayout, mChannelDescriptions) + n * sizeof(AudioChannelDescription)
 * bytes (sizeof(AudioChannelLayout) has room for one). */

typedef UInt32 AudioChannelLabel;
typedef UInt32 AudioChannelLayoutTag;

typedef UInt32 AudioChannelFlags;
enum {
    kAudioChannelFlags_AllOff = 0,
    kAudioChannelFlags_RectangularCoordinates = 1u << 0,
    kAudioChannelFlags_SphericalCoordinates = 1u << 1,
    kAudioChannelFlags_Meters = 1u << 2
};

typedef UInt32 AudioChannelBitmap;
enum {
    kAudioChannelBit_Left = 1u << 0,
    kAudioChannelBit_Right = 1u << 1,
    kAudioChannelBit_Center = 1u << 2,
    kAudioChannelBit_LFEScreen = 1u << 3,
    kAudioChannelBit_LeftSurround = 1u << 4,
    kAudioChannelBit_RightSurround = 1u << 5,
    kAudioChannelBit_LeftCenter = 1u << 6,
    kAudioChannelBit_RightCenter = 1u << 7,
    kAudioChannelBit_CenterSurround = 1u << 8,
    kAudioChannelBit_LeftSurroundDirect = 1u << 9,
    kAudioChannelBit_RightSurroundDirect = 1u << 10,
    kAudioChannelBit_TopCenterSurround = 1u << 11,
    kAudioChannelBit_VerticalHeightLeft = 1u << 12,
    kAudioChannelBit_VerticalHeightCenter = 1u << 13,
    kAudioChannelBit_VerticalHeightRight = 1u << 14,
    kAudioChannelBit_TopBackLeft = 1u << 15,
    kAudioChannelBit_TopBackCenter = 1u << 16,
    kAudioChannelBit_TopBackRight = 1u << 17
};

enum {
    kAudioChannelLabel_Unknown = 0xFFFFFFFFu,
    kAudioChannelLabel_Unused = 0,
    kAudioChannelLabel_UseCoordinates = 100,
    kAudioChannelLabel_Left = 1,
    kAudioChannelLabel_Right = 2,
    kAudioChannelLabel_Center = 3,
    kAudioChannelLabel_LFEScreen = 4,
    kAudioChannelLabel_LeftSurround = 5,
    kAudioChannelLabel_RightSurround = 6,
    kAudioChannelLabel_LeftCenter = 7,
    kAudioChannelLabel_RightCenter = 8,
    kAudioChannelLabel_CenterSurround = 9,
    kAudioChannelLabel_LeftSurroundDirect = 10,
    kAudioChannelLabel_RightSurroundDirect = 11,
    kAudioChannelLabel_TopCenterSurround = 12,
    kAudioChannelLabel_VerticalHeightLeft = 13,
    kAudioChannelLabel_VerticalHeightCenter = 14,
    kAudioChannelLabel_VerticalHeightRight = 15,
    kAudioChannelLabel_TopBackLeft = 16,
    kAudioChannelLabel_TopBackCenter = 17,
    kAudioChannelLabel_TopBackRight = 18,
    kAudioChannelLabel_RearSurroundLeft = 33,
    kAudioChannelLabel_RearSurroundRight = 34,
    kAudioChannelLabel_LeftWide = 35,
    kAudioChannelLabel_RightWide = 36,
    kAudioChannelLabel_LFE2 = 37,
    kAudioChannelLabel_LeftTotal = 38,
    kAudioChannelLabel_RightTotal = 39,
    kAudioChannelLabel_Mono = 42,
    kAudioChannelLabel_Discrete = 400,
    kAudioChannelLabel_Discrete_0 = (1u << 16) | 0,
    kAudioChannelLabel_Discrete_1 = (1u << 16) | 1
};

/* Indices into AudioChannelDescription.mCoordinates. */
enum {
    kAudioChannelCoordinates_LeftRight = 0,
    kAudioChannelCoordinates_BackFront = 1,
    kAudioChannelCoordinates_DownUp = 2,
    kAudioChannelCoordinates_Azimuth = 0,
    kAudioChannelCoordinates_Elevation = 1,
    kAudioChannelCoordinates_Distance = 2
};

/* Layout tags: the high 16 bits name the layout, the low 16 bits give its
 * channel count. */
#define AudioChannelLayoutTag_GetNumberOfChannels(layoutTag) ((UInt32)((layoutTag)&0x0000FFFFu))

enum {
    kAudioChannelLayoutTag_UseChannelDescriptions = (0u << 16) | 0,
    kAudioChannelLayoutTag_UseChannelBitmap = (1u << 16) | 0,
    kAudioChannelLayoutTag_Mono = (100u << 16) | 1,
    kAudioChannelLayoutTag_Stereo = (101u << 16) | 2,
    kAudioChannelLayoutTag_StereoHeadphones = (102u << 16) | 2,
    kAudioChannelLayoutTag_MatrixStereo = (103u << 16) | 2,
    kAudioChannelLayoutTag_MidSide = (104u << 16) | 2,
    kAudioChannelLayoutTag_XY = (105u << 16) | 2,
    kAudioChannelLayoutTag_Binaural = (106u << 16) | 2,
    kAudioChannelLayoutTag_Ambisonic_B_Format = (107u << 16) | 4,
    kAudioChannelLayoutTag_Quadraphonic = (108u << 16) | 4,
    kAudioChannelLayoutTag_Pentagonal = (109u << 16) | 5,
    kAudioChannelLayoutTag_Hexagonal = (110u << 16) | 6,
    kAudioChannelLayoutTag_Octagonal = (111u << 16) | 8,
    kAudioChannelLayoutTag_Cube = (112u << 16) | 8,
    kAudioChannelLayoutTag_MPEG_1_0 = kAudioChannelLayoutTag_Mono,
    kAudioChannelLayoutTag_MPEG_2_0 = kAudioChannelLayoutTag_Stereo,
    kAudioChannelLayoutTag_MPEG_3_0_A = (113u << 16) | 3,
    kAudioChannelLayoutTag_MPEG_3_0_B = (114u << 16) | 3,
    kAudioChannelLayoutTag_MPEG_4_0_A = (115u << 16) | 4,
    kAudioChannelLayoutTag_MPEG_4_0_B = (116u << 16) | 4,
    kAudioChannelLayoutTag_MPEG_5_0_A = (117u << 16) | 5,
    kAudioChannelLayoutTag_MPEG_5_0_B = (118u << 16) | 5,
    kAudioChannelLayoutTag_MPEG_5_0_C = (119u << 16) | 5,
    kAudioChannelLayoutTag_MPEG_5_0_D = (120u << 16) | 5,
    kAudioChannelLayoutTag_MPEG_5_1_A = (121u << 16) | 6,
    kAudioChannelLayoutTag_MPEG_5_1_B = (122u << 16) | 6,
    kAudioChannelLayoutTag_MPEG_5_1_C = (123u << 16) | 6,
    kAudioChannelLayoutTag_MPEG_5_1_D = (124u << 16) | 6,
    kAudioChannelLayoutTag_MPEG_6_1_A = (125u << 16) | 7,
    kAudioChannelLayoutTag_MPEG_7_1_A = (126u << 16) | 8,
    kAudioChannelLayoutTag_MPEG_7_1_B = (127u << 16) | 8,
    kAudioChannelLayoutTag_MPEG_7_1_C = (128u << 16) | 8,
    kAudioChannelLayoutTag_ITU_1_0 = kAudioChannelLayoutTag_Mono,
    kAudioChannelLayoutTag_ITU_2_0 = kAudioChannelLayoutTag_Stereo,
    kAudioChannelLayoutTag_AAC_3_0 = kAudioChannelLayoutTag_MPEG_3_0_B,
    kAudioChannelLayoutTag_AAC_Quadraphonic = kAudioChannelLayoutTag_Quadraphonic,
    kAudioChannelLayoutTag_AAC_4_0 = kAudioChannelLayoutTag_MPEG_4_0_B,
    kAudioChannelLayoutTag_AAC_5_0 = kAudioChannelLayoutTag_MPEG_5_0_D,
    kAudioChannelLayoutTag_AAC_5_1 = kAudioChannelLayoutTag_MPEG_5_1_D,
    kAudioChannelLayoutTag_AAC_6_0 = (141u << 16) | 6,
    kAudioChannelLayoutTag_AAC_6_1 = (142u << 16) | 7,
    kAudioChannelLayoutTag_AAC_7_0 = (143u << 16) | 7,
    kAudioChannelLayoutTag_AAC_7_1 = kAudioChannelLayoutTag_MPEG_7_1_B,
    kAudioChannelLayoutTag_AAC_Octagonal = (144u << 16) | 8,
    kAudioChannelLayoutTag_DiscreteInOrder = (147u << 16) | 0,
    /* Unknown | n: n channels in no particular arrangement. */
    kAudioChannelLayoutTag_Unknown = 0xFFFF0000u
};

typedef struct AudioChannelDescription {
    AudioChannelLabel mChannelLabel;
    AudioChannelFlags mChannelFlags;
    Float32 mCoordinates[3];
} AudioChannelDescription;

typedef struct AudioChannelLayout {
    AudioChannelLayoutTag mChannelLayoutTag;
    AudioChannelBitmap mChannelBitmap;
    UInt32 mNumberChannelDescriptions;
    AudioChannelDescription mChannelDescriptions[1];
} AudioChannelLayout;

/* One concrete format that a (possibly layered) description offers, with the
 * channel layout it decodes to. */
typedef struct AudioFormatListItem {
    AudioStreamBasicDescription mASBD;
    AudioChannelLayoutTag mChannelLayoutTag;
} AudioFormatListItem;

/* ---- Time stamps ---------------------------------------------------------- */

typedef UInt32 SMPTETimeType;
enum {
    kSMPTETimeType24 = 0,
    kSMPTETimeType25 = 1,
    kSMPTETimeType30Drop = 2,
    kSMPTETimeType30 = 3,
    kSMPTETimeType2997 = 4,
    kSMPTETimeType2997Drop = 5,
    kSMPTETimeType60 = 6,
    kSMPTETimeType5994 = 7,
    kSMPTETimeType60Drop = 8,
    kSMPTETimeType5994Drop = 9,
    kSMPTETimeType50 = 10,
    kSMPTETimeType2398 = 11
};

typedef UInt32 SMPTETimeFlags;
enum { kSMPTETimeUnknown = 0, kSMPTETimeValid = 1u << 0, kSMPTETimeRunning = 1u << 1 };

typedef struct SMPTETime {
    SInt16 mSubframes;
    SInt16 mSubframeDivisor;
    UInt32 mCounter;
    SMPTETimeType mType;
    SMPTETimeFlags mFlags;
    SInt16 mHours;
    SInt16 mMinutes;
    SInt16 mSeconds;
    SInt16 mFrames;
} SMPTETime;

typedef UInt32 AudioTimeStampFlags;
enum {
    kAudioTimeStampNothingValid = 0,
    kAudioTimeStampSampleTimeValid = 1u << 0,
    kAudioTimeStampHostTimeValid = 1u << 1,
    kAudioTimeStampRateScalarValid = 1u << 2,
    kAudioTimeStampWordClockTimeValid = 1u << 3,
    kAudioTimeStampSMPTETimeValid = 1u << 4,
    kAudioTimeStampSampleHostTimeValid = kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid
};

/* A moment on several timelines at once; mFlags says which fields hold. */
typedef struct AudioTimeStamp {
    Float64 mSampleTime;
    UInt64 mHostTime;
    Float64 mRateScalar;
    UInt64 mWordClockTime;
    SMPTETime mSMPTETime;
    AudioTimeStampFlags mFlags;
    UInt32 mReserved;
} AudioTimeStamp;

CF_EXTERN_C_END

#endif /* COREAUDIO_COREAUDIOTYPES_H */
