// SPDX-License-Identifier: Apache-2.0
// The audio-format service: format lists of (possibly layered) descriptions
// and the first decodable format of a list.
//
// Layered AAC is recognised from the format identifier ('aach', 'aacp') or,
// for plain 'aac ', from the AudioSpecificConfig in the magic cookie.  The
// cookie is untrusted bytes: every read goes through a bit reader that
// refuses to pass the end of its input and remembers that it tried (a sticky
// failure flag checked once per syntax structure), so a short or corrupt
// cookie can only make the parse fail, never read beyond what was given.  A
// cookie that does not parse is ignored and the description is listed as it
// stands.

#include <AudioToolbox/AudioFormat.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

constexpr UInt32 kItemSize = sizeof(AudioFormatListItem);
constexpr size_t kMaxItems = 3;  // HE-AAC v2 down to its core: the deepest layering there is

// ---- Decodable formats -------------------------------------------------------
//
// This platform runs no codec of its own: what it can decode is what needs no
// more than a table lookup per sample.
constexpr UInt32 kDecodableFormats[] = {kAudioFormatLinearPCM, kAudioFormatULaw, kAudioFormatALaw};

bool isDecodable(UInt32 formatID) {
    for (UInt32 decodable : kDecodableFormats)
        if (decodable == formatID) return true;
    return false;
}

// ---- Bounded bit reader -----------------------------------------------------------

class BitReader {
public:
    BitReader(const uint8_t *data, size_t size) : data_(data), bits_(size * 8) {}

    // Up to 32 bits, most significant first; 0 and a sticky failure when the
    // input has fewer left.
    uint32_t read(unsigned count) {
        if (failed_ || count > bits_ - position_) {
            failed_ = true;
            return 0;
        }
        uint32_t value = 0;
        for (unsigned i = 0; i < count; ++i, ++position_)
            value = (value << 1) | ((data_[position_ >> 3] >> (7 - (position_ & 7))) & 1u);
        return value;
    }
    void skip(size_t count) {
        if (failed_ || count > bits_ - position_) {
            failed_ = true;
            return;
        }
        position_ += count;
    }
    size_t left() const { return failed_ ? 0 : bits_ - position_; }
    size_t position() const { return position_; }
    bool failed() const { return failed_; }

private:
    const uint8_t *data_;
    size_t bits_;
    size_t position_ = 0;
    bool failed_ = false;
};

// ---- AudioSpecificConfig ------------------------------------------------------------

struct AACConfig {
    UInt32 objectType = 0;            // the core's object type after any explicit SBR/PS wrapper
    Float64 sampleRate = 0;           // the core's rate
    Float64 extensionSampleRate = 0;  // the SBR output rate, when signalled
    UInt32 channelConfiguration = 0;
    UInt32 channels = 0;  // 0 when unknown
    bool frameLength960 = false;
    bool sbr = false;
    bool ps = false;
};

constexpr UInt32 kSampleRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                   22050, 16000, 12000, 11025, 8000,  7350};

UInt32 readObjectType(BitReader &reader) {
    UInt32 type = reader.read(5);
    if (type == 31) type = 32 + reader.read(6);
    return type;
}

// A sampling frequency index, or the explicit 24-bit rate after index 15.
// Reserved indices (13, 14) make the configuration unusable.
Float64 readSampleRate(BitReader &reader, bool &valid) {
    UInt32 index = reader.read(4);
    if (index == 15) return reader.read(24);
    if (index < sizeof kSampleRates / sizeof kSampleRates[0]) return kSampleRates[index];
    valid = false;
    return 0;
}

// program_config_element(): only the channel count is kept, but every field
// is read so that what follows it is found.
UInt32 readProgramConfigElement(BitReader &reader, size_t configStart) {
    reader.skip(4 + 2 + 4);  // element_instance_tag, object_type, sampling_frequency_index
    UInt32 front = reader.read(4), side = reader.read(4), back = reader.read(4);
    UInt32 lfe = reader.read(2), assoc = reader.read(3), cc = reader.read(4);
    if (reader.read(1)) reader.skip(4);  // mono mixdown
    if (reader.read(1)) reader.skip(4);  // stereo mixdown
    if (reader.read(1)) reader.skip(3);  // matrix mixdown
    UInt32 channels = 0;
    for (UInt32 i = 0; i < front + side + back; ++i) {
        channels += reader.read(1) ? 2 : 1;  // is_cpe
        reader.skip(4);
    }
    channels += lfe;
    reader.skip(4 * lfe + 4 * assoc + 5 * cc);
    // byte_alignment() counts from the start of the configuration.
    size_t misalignment = (reader.position() - configStart) % 8;
    if (misalignment) reader.skip(8 - misalignment);
    reader.skip(8 * static_cast<size_t>(reader.read(8)));  // comment_field_data
    return channels;
}

bool isGeneralAudioObjectType(UInt32 type) {
    switch (type) {
        case 1:
        case 2:
        case 3:
        case 4:
        case 6:
        case 7:
        case 17:
        case 19:
        case 20:
        case 21:
        case 22:
        case 23:
            return true;
        default:
            return false;
    }
}

// Parses an AudioSpecificConfig; false when its mandatory part is cut short
// or invalid.  The optional backward-compatible extension at the end is
// taken only when it is complete.
bool parseAudioSpecificConfig(const uint8_t *bytes, size_t size, AACConfig &config) {
    BitReader reader(bytes, size);
    bool valid = true;
    UInt32 type = readObjectType(reader);
    config.sampleRate = readSampleRate(reader, valid);
    config.channelConfiguration = reader.read(4);
    bool explicitExtension = false;
    if (type == 5 || type == 29) {
        explicitExtension = true;
        config.sbr = true;
        config.ps = type == 29;
        config.extensionSampleRate = readSampleRate(reader, valid);
        type = readObjectType(reader);
        if (type == 22) reader.skip(4);  // extensionChannelConfiguration
    }
    config.objectType = type;
    if (reader.failed() || !valid || type == 0) return false;

    UInt32 pceChannels = 0;
    bool knownLayout = false;
    if (isGeneralAudioObjectType(type)) {
        knownLayout = true;
        config.frameLength960 = reader.read(1);
        if (reader.read(1)) reader.skip(14);  // dependsOnCoreCoder: coreCoderDelay
        bool extensionFlag = reader.read(1);
        if (config.channelConfiguration == 0) pceChannels = readProgramConfigElement(reader, 0);
        if (type == 6 || type == 20) reader.skip(3);  // layerNr
        if (extensionFlag) {
            if (type == 22) reader.skip(5 + 11);
            if (type == 17 || type == 19 || type == 20 || type == 23) reader.skip(3);
            reader.skip(1);  // extensionFlag3
        }
        if (reader.failed()) return false;
    }
    switch (config.channelConfiguration) {
        case 0:
            config.channels = pceChannels;
            break;
        case 7:
            config.channels = 8;
            break;
        default:
            config.channels = config.channelConfiguration <= 6 ? config.channelConfiguration : 0;
            break;
    }
    if (!knownLayout) return true;  // nothing after an unknown object type's config can be found

    // epConfig; error-protection configurations are not followed further.
    if (type == 17 || (type >= 19 && type <= 27) || type == 39) {
        UInt32 epConfig = reader.read(2);
        if (reader.failed() || epConfig >= 2) return true;
    }
    // Backward-compatible signalling: a sync extension after the core's
    // configuration.
    if (!explicitExtension && reader.left() >= 16) {
        if (reader.read(11) != 0x2B7) return true;
        UInt32 extensionType = readObjectType(reader);
        if (extensionType != 5 || !reader.read(1)) return true;
        bool rateValid = true;
        Float64 extensionRate = readSampleRate(reader, rateValid);
        if (reader.failed() || !rateValid) return true;
        config.sbr = true;
        config.extensionSampleRate = extensionRate;
        if (reader.left() >= 12 && reader.read(11) == 0x548) {
            bool ps = reader.read(1);
            if (!reader.failed()) config.ps = ps;
        }
    }
    return true;
}

// ---- Magic cookies ----------------------------------------------------------------

class ByteReader {
public:
    ByteReader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    bool byte(uint8_t &value) {
        if (position_ >= size_) return false;
        value = data_[position_++];
        return true;
    }
    bool skip(size_t count) {
        if (count > size_ - position_) return false;
        position_ += count;
        return true;
    }
    // An MPEG-4 descriptor header: a tag and a length of up to four 7-bit
    // groups; the length must fit in what is left.
    bool descriptor(uint8_t &tag, size_t &length) {
        if (!byte(tag)) return false;
        length = 0;
        for (int i = 0; i < 4; ++i) {
            uint8_t part;
            if (!byte(part)) return false;
            length = (length << 7) | (part & 0x7F);
            if (!(part & 0x80)) return length <= size_ - position_;
        }
        return false;
    }
    ByteReader sub(size_t length) const { return ByteReader(data_ + position_, length); }
    const uint8_t *here() const { return data_ + position_; }
    size_t left() const { return size_ - position_; }

private:
    const uint8_t *data_;
    size_t size_;
    size_t position_ = 0;
};

// The DecoderSpecificInfo inside a DecoderConfigDescriptor's payload.
bool findDecoderSpecificInfo(ByteReader reader, const uint8_t *&asc, size_t &ascSize) {
    if (!reader.skip(13)) return false;  // objectTypeIndication ... avgBitrate
    while (reader.left() > 0) {
        uint8_t tag;
        size_t length;
        if (!reader.descriptor(tag, length)) return false;
        if (tag == 0x05) {
            asc = reader.here();
            ascSize = length;
            return true;
        }
        reader.skip(length);
    }
    return false;
}

bool findInESDescriptor(ByteReader reader, const uint8_t *&asc, size_t &ascSize) {
    uint8_t tag, flags;
    size_t length;
    if (!reader.descriptor(tag, length) || tag != 0x03) return false;
    ByteReader es = reader.sub(length);
    if (!es.skip(2) || !es.byte(flags)) return false;  // ES_ID, flags
    if ((flags & 0x80) && !es.skip(2)) return false;   // dependsOn_ES_ID
    if (flags & 0x40) {
        uint8_t urlLength;
        if (!es.byte(urlLength) || !es.skip(urlLength)) return false;
    }
    if ((flags & 0x20) && !es.skip(2)) return false;  // OCR_ES_Id
    while (es.left() > 0) {
        if (!es.descriptor(tag, length)) return false;
        if (tag == 0x04) return findDecoderSpecificInfo(es.sub(length), asc, ascSize);
        es.skip(length);
    }
    return false;
}

// Finds the AudioSpecificConfig in an AAC magic cookie: an 'esds' atom, its
// payload (version and flags, then an ES_Descriptor), a bare ES_Descriptor,
// or the configuration itself.  An AudioSpecificConfig never begins with the
// byte 0x03 or with four zero bytes (object type 0 is invalid), so the forms
// cannot be confused.
bool parseCookie(const uint8_t *cookie, size_t size, AACConfig &config) {
    if (!cookie || size == 0) return false;
    const uint8_t *asc = cookie;
    size_t ascSize = size;
    ByteReader reader(cookie, size);
    if (size >= 8 && std::memcmp(cookie + 4, "esds", 4) == 0) reader.skip(8);
    if (reader.left() >= 5 && std::memcmp(reader.here(), "\0\0\0\0", 4) == 0 && reader.here()[4] == 0x03)
        reader.skip(4);
    if (reader.left() > 0 && reader.here()[0] == 0x03) {
        if (!findInESDescriptor(reader, asc, ascSize)) return false;
    } else if (reader.here() != cookie) {
        return false;
    }
    return parseAudioSpecificConfig(asc, ascSize, config);
}

// ---- Format lists -----------------------------------------------------------------------

struct FormatList {
    AudioFormatListItem items[kMaxItems];
    size_t count = 0;
};

AudioChannelLayoutTag layoutTagFor(UInt32 channels, const AACConfig *aac) {
    if (channels == 1) return kAudioChannelLayoutTag_Mono;
    if (channels == 2) return kAudioChannelLayoutTag_Stereo;
    if (aac && aac->channels == channels) {
        switch (aac->channelConfiguration) {
            case 3:
                return kAudioChannelLayoutTag_AAC_3_0;
            case 4:
                return kAudioChannelLayoutTag_AAC_4_0;
            case 5:
                return kAudioChannelLayoutTag_AAC_5_0;
            case 6:
                return kAudioChannelLayoutTag_AAC_5_1;
            case 7:
                return kAudioChannelLayoutTag_AAC_7_1;
            default:
                break;
        }
    }
    return kAudioChannelLayoutTag_Unknown | (channels & 0xFFFFu);
}

void append(FormatList &list, const AudioStreamBasicDescription &base, UInt32 formatID, Float64 rate, UInt32 channels,
            UInt32 framesPerPacket, const AACConfig *aac) {
    AudioFormatListItem &item = list.items[list.count++];
    item.mASBD = base;
    item.mASBD.mFormatID = formatID;
    item.mASBD.mSampleRate = rate;
    item.mASBD.mChannelsPerFrame = channels;
    item.mASBD.mFramesPerPacket = framesPerPacket;
    item.mChannelLayoutTag = layoutTagFor(channels, aac);
}

OSStatus buildFormatList(const AudioFormatInfo &info, FormatList &list) {
    const AudioStreamBasicDescription &in = info.mASBD;
    if (in.mFormatID == 0) return kAudioFormatUnsupportedDataFormatError;

    bool isAAC = in.mFormatID == kAudioFormatMPEG4AAC || in.mFormatID == kAudioFormatMPEG4AAC_HE ||
                 in.mFormatID == kAudioFormatMPEG4AAC_HE_V2;
    AACConfig config;
    bool haveConfig = isAAC && info.mMagicCookie &&
                      parseCookie(static_cast<const uint8_t *>(info.mMagicCookie), info.mMagicCookieSize, config);
    bool sbr = in.mFormatID == kAudioFormatMPEG4AAC_HE || in.mFormatID == kAudioFormatMPEG4AAC_HE_V2 ||
               (haveConfig && config.sbr);
    bool ps = in.mFormatID == kAudioFormatMPEG4AAC_HE_V2 || (haveConfig && config.ps);
    if (!isAAC || !sbr) {
        list.items[0] = {in, layoutTagFor(in.mChannelsPerFrame, haveConfig ? &config : nullptr)};
        list.count = 1;
        return 0;
    }

    // The richest layer plays at the rate the configuration names for the
    // band-replicated output, else at the description's own rate; the core
    // runs at the configuration's base rate, else at half the output rate.
    Float64 outputRate = in.mSampleRate;
    if (haveConfig && config.extensionSampleRate > 0)
        outputRate = config.extensionSampleRate;
    else if (outputRate <= 0 && haveConfig)
        outputRate = 2 * config.sampleRate;
    Float64 coreRate = haveConfig && config.sampleRate > 0 ? config.sampleRate : outputRate / 2;
    UInt32 coreFrames = haveConfig && config.frameLength960 ? 960 : 1024;
    const AACConfig *aac = haveConfig ? &config : nullptr;

    if (ps) {
        // Parametric stereo turns a mono core into stereo; without it every
        // layer is mono.
        append(list, in, kAudioFormatMPEG4AAC_HE_V2, outputRate, 2, 2 * coreFrames, aac);
        append(list, in, kAudioFormatMPEG4AAC_HE, outputRate, 1, 2 * coreFrames, aac);
        append(list, in, kAudioFormatMPEG4AAC, coreRate, 1, coreFrames, aac);
    } else {
        UInt32 channels = in.mChannelsPerFrame ? in.mChannelsPerFrame : (haveConfig ? config.channels : 0);
        append(list, in, kAudioFormatMPEG4AAC_HE, outputRate, channels, 2 * coreFrames, aac);
        append(list, in, kAudioFormatMPEG4AAC, coreRate, channels, coreFrames, aac);
    }
    return 0;
}

OSStatus readFormatInfo(UInt32 specifierSize, const void *specifier, AudioFormatInfo &info) {
    if (!specifier || specifierSize < sizeof(AudioFormatInfo)) return kAudioFormatBadSpecifierSizeError;
    std::memcpy(&info, specifier, sizeof info);  // the caller's record need not be aligned
    if (!info.mMagicCookie) info.mMagicCookieSize = 0;
    return 0;
}

OSStatus checkFormatList(UInt32 specifierSize, const void *specifier) {
    if (!specifier || specifierSize == 0 || specifierSize % kItemSize != 0) return kAudioFormatBadSpecifierSizeError;
    return 0;
}

OSStatus firstPlayable(UInt32 specifierSize, const void *specifier, UInt32 &index) {
    const auto *bytes = static_cast<const uint8_t *>(specifier);
    for (UInt32 i = 0; i < specifierSize / kItemSize; ++i) {
        UInt32 formatID;
        std::memcpy(&formatID, bytes + i * kItemSize + offsetof(AudioFormatListItem, mASBD.mFormatID), sizeof formatID);
        if (isDecodable(formatID)) {
            index = i;
            return 0;
        }
    }
    return kAudioFormatUnsupportedDataFormatError;
}

}  // namespace

extern "C" {

OSStatus AudioFormatGetPropertyInfo(AudioFormatPropertyID inPropertyID, UInt32 inSpecifierSize, const void *inSpecifier,
                                    UInt32 *outPropertyDataSize) noexcept {
    switch (inPropertyID) {
        case kAudioFormatProperty_FormatList: {
            AudioFormatInfo info;
            if (OSStatus status = readFormatInfo(inSpecifierSize, inSpecifier, info)) return status;
            if (!outPropertyDataSize) return kAudio_ParamError;
            FormatList list;
            if (OSStatus status = buildFormatList(info, list)) return status;
            *outPropertyDataSize = static_cast<UInt32>(list.count) * kItemSize;
            return 0;
        }
        case kAudioFormatProperty_FirstPlayableFormatFromList:
            if (OSStatus status = checkFormatList(inSpecifierSize, inSpecifier)) return status;
            if (!outPropertyDataSize) return kAudio_ParamError;
            *outPropertyDataSize = sizeof(UInt32);
            return 0;
        default:
            return kAudioFormatUnsupportedPropertyError;
    }
}

OSStatus AudioFormatGetProperty(AudioFormatPropertyID inPropertyID, UInt32 inSpecifierSize, const void *inSpecifier,
                                UInt32 *ioPropertyDataSize, void *outPropertyData) noexcept {
    switch (inPropertyID) {
        case kAudioFormatProperty_FormatList: {
            AudioFormatInfo info;
            if (OSStatus status = readFormatInfo(inSpecifierSize, inSpecifier, info)) return status;
            if (!ioPropertyDataSize || !outPropertyData) return kAudio_ParamError;
            if (*ioPropertyDataSize < kItemSize) return kAudioFormatBadPropertySizeError;
            FormatList list;
            if (OSStatus status = buildFormatList(info, list)) return status;
            size_t count = list.count < *ioPropertyDataSize / kItemSize ? list.count : *ioPropertyDataSize / kItemSize;
            std::memcpy(outPropertyData, list.items, count * kItemSize);
            *ioPropertyDataSize = static_cast<UInt32>(count) * kItemSize;
            return 0;
        }
        case kAudioFormatProperty_FirstPlayableFormatFromList: {
            if (OSStatus status = checkFormatList(inSpecifierSize, inSpecifier)) return status;
            if (!ioPropertyDataSize || !outPropertyData) return kAudio_ParamError;
            if (*ioPropertyDataSize < sizeof(UInt32)) return kAudioFormatBadPropertySizeError;
            UInt32 index = 0;
            if (OSStatus status = firstPlayable(inSpecifierSize, inSpecifier, index)) return status;
            std::memcpy(outPropertyData, &index, sizeof index);
            *ioPropertyDataSize = sizeof(UInt32);
            return 0;
        }
        default:
            return kAudioFormatUnsupportedPropertyError;
    }
}

}  // extern "C"
