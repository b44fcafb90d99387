// SPDX-License-Identifier: Apache-2.0
// The sound half of the sample-description bridge: QuickTime sound
// descriptions (versions 0, 1 and 2) and ISO audio sample entries, their
// 'esds', 'wave', 'alac', 'dac3' and 'chan' atoms, read into and written from
// audio format descriptions.
#include <Sorvel/SVSampleDescription.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "bitstream/SVBitReader.h"
#include "core/SVLog.h"
#include "formats/SVSampleDescriptionInternal.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/SVFormatDescriptionBridge");

using sorvel::SVAtom;
using sorvel::SVFourCC;
using sorvel::SVReadBE16;
using sorvel::SVReadBE32;

constexpr FourCharCode kMP4A = SVFourCC("mp4a"), kALAC = SVFourCC("alac"), kAC3 = SVFourCC("ac-3"),
                       kLPCM = SVFourCC("lpcm");

// ---- 'esds' -------------------------------------------------------------------

// One descriptor's tag and body.  Sizes take at most four bytes of seven
// bits; a longer size or a body past `end` is refused.
bool readDescriptor(const uint8_t *&p, const uint8_t *end, uint8_t &tag, const uint8_t *&body, size_t &size,
                    const char *&why) {
    if (end - p < 2) return why = "'esds' descriptor past the end", false;
    tag = *p++;
    size = 0;
    for (int i = 0;; ++i) {
        if (i == 4) return why = "'esds' descriptor size longer than four bytes", false;
        if (p == end) return why = "'esds' descriptor past the end", false;
        const uint8_t b = *p++;
        size = size << 7 | (b & 0x7F);
        if (!(b & 0x80)) break;
    }
    if (size_t(end - p) < size) return why = "'esds' descriptor past the end", false;
    body = p;
    p += size;
    return true;
}

}  // namespace

bool sorvel::SVParseESDS(const uint8_t *payload, size_t n, sorvel::SVElementaryStream &es, const char *&why) {
    if (n < 4) return why = "'esds' shorter than its version and flags", false;
    const uint8_t *p = payload + 4, *end = payload + n;
    uint8_t tag;
    const uint8_t *body;
    size_t size;
    if (!readDescriptor(p, end, tag, body, size, why)) return false;
    if (tag != 3) return why = "'esds' does not begin with an ES_Descriptor", false;
    const uint8_t *q = body, *qEnd = body + size;
    if (qEnd - q < 3) return why = "ES_Descriptor too short", false;
    const uint8_t flags = q[2];
    q += 3;
    size_t skip = (flags & 0x80 ? 2 : 0) + (flags & 0x20 ? 2 : 0);
    if (size_t(qEnd - q) < skip) return why = "ES_Descriptor too short", false;
    q += flags & 0x80 ? 2 : 0;
    if (flags & 0x40) {
        if (q == qEnd || size_t(qEnd - q) < size_t(1 + *q)) return why = "ES_Descriptor URL past the end", false;
        q += 1 + *q;
    }
    if (flags & 0x20) {
        if (qEnd - q < 2) return why = "ES_Descriptor too short", false;
        q += 2;
    }
    while (q < qEnd) {
        if (!readDescriptor(q, qEnd, tag, body, size, why)) return false;
        if (tag != 4) continue;
        if (size < 13) return why = "DecoderConfigDescriptor shorter than 13 bytes", false;
        es.objectType = body[0];
        es.averageBitRate = SVReadBE32(body + 9);
        const uint8_t *r = body + 13, *rEnd = body + size;
        while (r < rEnd) {
            const uint8_t *inner;
            size_t innerSize;
            if (!readDescriptor(r, rEnd, tag, inner, innerSize, why)) return false;
            if (tag == 5 && !es.config) es.config = inner, es.configSize = innerSize;
        }
        return true;
    }
    return why = "'esds' without a DecoderConfigDescriptor", false;
}

namespace {

// ---- AudioSpecificConfig --------------------------------------------------------

struct AACConfig {
    unsigned objectType = 0;  // of the whole stream (5 or 29 for explicit SBR/PS)
    double sampleRate = 0;    // output rate
    unsigned channels = 0;    // 0 when a program config element gives them
    unsigned framesPerPacket = 1024;
};

double aacRate(sorvel::SVBitReader &r) {
    static const double kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                    22050, 16000, 12000, 11025, 8000,  7350};
    const unsigned index = r.bits(4);
    if (index == 15) return r.bits(24);
    return index < 13 ? kRates[index] : 0;
}

unsigned aacObjectType(sorvel::SVBitReader &r) {
    const unsigned type = r.bits(5);
    return type == 31 ? 32 + r.bits(6) : type;
}

bool parseASC(const uint8_t *p, size_t n, AACConfig &c) {
    sorvel::SVBitReader r(p, n);
    c.objectType = aacObjectType(r);
    c.sampleRate = aacRate(r);
    const unsigned configuration = r.bits(4);
    unsigned core = c.objectType;
    if (c.objectType == 5 || c.objectType == 29) {
        c.sampleRate = aacRate(r);  // the extension rate is the output rate
        core = aacObjectType(r);
    }
    static const unsigned kChannels[] = {0, 1, 2, 3, 4, 5, 6, 8, 0, 0, 0, 7, 8, 24, 8, 0};
    c.channels = kChannels[configuration];
    if (c.objectType == 29) c.channels = 2;
    const bool shortFrames = (core <= 4 || core == 6 || core == 7 || core == 17 || core == 19 || core == 20 ||
                              core == 21 || core == 22 || core == 23) &&
                             r.bit();
    if (core == 23 || core == 39)
        c.framesPerPacket = shortFrames ? 480 : 512;
    else
        c.framesPerPacket = shortFrames ? 960 : 1024;
    if (c.objectType == 5 || c.objectType == 29) c.framesPerPacket *= 2;
    return !r.failed() && c.sampleRate > 0;
}

FourCharCode aacFormat(unsigned objectType) {
    switch (objectType) {
        case 5:
            return kAudioFormatMPEG4AAC_HE;
        case 29:
            return kAudioFormatMPEG4AAC_HE_V2;
        case 23:
            return kAudioFormatMPEG4AAC_LD;
        case 39:
            return kAudioFormatMPEG4AAC_ELD;
        default:
            return kAudioFormatMPEG4AAC;
    }
}

bool isAAC(FourCharCode id) {
    return id == kAudioFormatMPEG4AAC || id == kAudioFormatMPEG4AAC_HE || id == kAudioFormatMPEG4AAC_HE_V2 ||
           id == kAudioFormatMPEG4AAC_LD || id == kAudioFormatMPEG4AAC_ELD;
}

// ---- 'chan' -------------------------------------------------------------------

OSStatus readChannelLayout(const SVAtom &atom, std::vector<uint8_t> &layout, const char *function) {
    if (atom.size < 16) return sorvel::SVBadAtom(function, "'chan' shorter than 16 bytes");
    const uint8_t *p = atom.payload + 4;
    const uint32_t count = SVReadBE32(p + 8);
    if ((atom.size - 16) / 20 < count) return sorvel::SVBadAtom(function, "'chan' descriptions past the end");
    layout.assign(offsetof(AudioChannelLayout, mChannelDescriptions) + count * sizeof(AudioChannelDescription), 0);
    auto *l = reinterpret_cast<AudioChannelLayout *>(layout.data());
    l->mChannelLayoutTag = SVReadBE32(p);
    l->mChannelBitmap = SVReadBE32(p + 4);
    l->mNumberChannelDescriptions = count;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t *d = p + 12 + 20 * i;
        AudioChannelDescription desc;
        desc.mChannelLabel = SVReadBE32(d);
        desc.mChannelFlags = SVReadBE32(d + 4);
        for (int k = 0; k < 3; ++k) {
            const uint32_t bits = SVReadBE32(d + 8 + 4 * k);
            std::memcpy(&desc.mCoordinates[k], &bits, 4);
        }
        std::memcpy(layout.data() + offsetof(AudioChannelLayout, mChannelDescriptions) + i * sizeof desc, &desc,
                    sizeof desc);
    }
    return 0;
}

bool isQuickTimePCM(FourCharCode f) {
    return f == SVFourCC("twos") || f == SVFourCC("sowt") || f == SVFourCC("raw ") || f == SVFourCC("NONE") ||
           f == SVFourCC("in24") || f == SVFourCC("in32") || f == SVFourCC("fl32") || f == SVFourCC("fl64") ||
           f == kLPCM;
}

}  // namespace

namespace sorvel {

bool SVIsAudioFormatCode(FourCharCode f) {
    // 'raw ' names uncompressed video as well as 8-bit sound, so it proves
    // nothing about the media type.
    return (isQuickTimePCM(f) && f != SVFourCC("raw ")) || f == kMP4A || f == kALAC || f == kAC3 ||
           f == SVFourCC("ec-3") || f == SVFourCC("ulaw") || f == SVFourCC("alaw") || f == SVFourCC("Opus") ||
           f == SVFourCC("fLaC") || f == SVFourCC("samr") || f == SVFourCC("ipcm") || f == SVFourCC("fpcm") ||
           f == SVFourCC(".mp3");
}

bool SVAudioEntryLooksQuickTime(const uint8_t *e, size_t, FourCharCode format) {
    // version, revision and vendor are zero in ISO files
    for (size_t i = 16; i < 24; ++i)
        if (e[i]) return true;
    return isQuickTimePCM(format) || format == SVFourCC("ulaw") || format == SVFourCC("alaw");
}

}  // namespace sorvel

namespace {

using sorvel::SVEntryReader;

// The rate, channels and sample size of the fixed part, by version; `bits`
// is the sample size field.
void readSoundFixedFields(const SVEntryReader &r, unsigned version, AudioStreamBasicDescription &asbd, unsigned &bits) {
    const uint8_t *e = r.entry;
    bits = SVReadBE16(e + 26);
    if (version == 2) {
        uint64_t rateBits = sorvel::SVReadBE64(e + 40);
        std::memcpy(&asbd.mSampleRate, &rateBits, 8);
        if (!std::isfinite(asbd.mSampleRate) || asbd.mSampleRate < 0) asbd.mSampleRate = 0;
        asbd.mChannelsPerFrame = SVReadBE32(e + 48);
        bits = SVReadBE32(e + 56);
        asbd.mFormatFlags = SVReadBE32(e + 60);
        asbd.mBytesPerPacket = SVReadBE32(e + 64);
        asbd.mFramesPerPacket = SVReadBE32(e + 68);
        return;
    }
    asbd.mChannelsPerFrame = SVReadBE16(e + 24);
    asbd.mSampleRate = SVReadBE32(e + 32) / 65536.0;
    if (version == 1 && r.iso) {
        // ISO's version 1 entry: rates above 65535 Hz live in 'srat'
        if (const SVAtom *srat = sorvel::SVFindAtom(r.atoms, SVFourCC("srat")); srat && srat->size >= 8)
            asbd.mSampleRate = SVReadBE32(srat->payload + 4);
    } else if (version == 1) {
        asbd.mFramesPerPacket = SVReadBE32(e + 36);
        asbd.mBytesPerPacket = SVReadBE32(e + 40);
    }
}

// 'esds': AAC takes its format, rate, channels and frame count from the
// AudioSpecificConfig, which becomes the cookie; MPEG audio layer 3 is named.
OSStatus readMPEG4AudioAtoms(const std::vector<SVAtom> &atoms, const char *function, AudioStreamBasicDescription &asbd,
                             std::vector<uint8_t> &cookie) {
    const SVAtom *esds = sorvel::SVFindAtom(atoms, SVFourCC("esds"));
    if (!esds) return 0;
    sorvel::SVElementaryStream es;
    const char *why = "";
    if (!sorvel::SVParseESDS(esds->payload, esds->size, es, why)) return sorvel::SVBadAtom(function, why);
    if (es.objectType == 0x40 || (es.objectType >= 0x66 && es.objectType <= 0x68)) {
        AACConfig aac;
        if (!es.config || !parseASC(es.config, es.configSize, aac))
            return sorvel::SVBadAtom(function, "'esds' without a usable AudioSpecificConfig");
        cookie.assign(es.config, es.config + es.configSize);
        asbd.mFormatID = aacFormat(aac.objectType);
        asbd.mSampleRate = aac.sampleRate;
        if (aac.channels) asbd.mChannelsPerFrame = aac.channels;
        asbd.mFramesPerPacket = aac.framesPerPacket;
        asbd.mBytesPerPacket = 0;
    } else if (es.objectType == 0x6B || es.objectType == 0x69) {
        asbd.mFormatID = kAudioFormatMPEGLayer3;
        asbd.mFramesPerPacket = 1152;
        asbd.mBytesPerPacket = 0;
    }
    return 0;
}

// 'alac': its 24-byte configuration is the cookie and states the format.
OSStatus readALACAtom(const std::vector<SVAtom> &atoms, const char *function, AudioStreamBasicDescription &asbd,
                      std::vector<uint8_t> &cookie) {
    const SVAtom *config = nullptr;
    for (const SVAtom &atom : atoms)
        if (atom.code == kALAC) config = &atom;  // the last: inside 'wave' after 'frma'
    if (!config) return 0;
    if (config->size < 28) return sorvel::SVBadAtom(function, "'alac' shorter than 28 bytes");
    const uint8_t *c = config->payload + 4;
    cookie.assign(c, c + 24);
    asbd.mFramesPerPacket = SVReadBE32(c);
    const unsigned bits = c[5];
    asbd.mChannelsPerFrame = c[9];
    asbd.mSampleRate = SVReadBE32(c + 20);
    asbd.mFormatFlags = bits == 16 ? 1 : bits == 20 ? 2 : bits == 24 ? 3 : bits == 32 ? 4 : 0;
    return 0;
}

// 'dac3': the rate code and the channel mode with its LFE bit.
OSStatus readAC3Atom(const std::vector<SVAtom> &atoms, const char *function, AudioStreamBasicDescription &asbd) {
    if (const SVAtom *dac3 = sorvel::SVFindAtom(atoms, SVFourCC("dac3"))) {
        if (dac3->size < 3) return sorvel::SVBadAtom(function, "'dac3' shorter than 3 bytes");
        static const double kRates[] = {48000, 44100, 32000, 0};
        static const unsigned kChannels[] = {2, 1, 2, 3, 3, 4, 4, 5};
        const uint32_t v = uint32_t(dac3->payload[0]) << 16 | uint32_t(dac3->payload[1]) << 8 | dac3->payload[2];
        if (kRates[v >> 22]) asbd.mSampleRate = kRates[v >> 22];
        asbd.mChannelsPerFrame = kChannels[(v >> 11) & 7] + ((v >> 10) & 1);
    }
    asbd.mFramesPerPacket = 1536;
    asbd.mBytesPerPacket = 0;
    return 0;
}

// QuickTime's PCM codes as linear PCM: the code fixes the sample size,
// float and byte order ('enda' can turn the order little).  A version 2
// 'lpcm' entry states its flags itself.
void describeQuickTimePCM(FourCharCode f, unsigned version, bool littleEndian, unsigned &bits,
                          AudioStreamBasicDescription &asbd) {
    asbd.mFormatID = kLPCM;
    if (f != kLPCM || version != 2) {
        const bool isFloat = f == SVFourCC("fl32") || f == SVFourCC("fl64");
        if (f == SVFourCC("in24")) bits = 24;
        if (f == SVFourCC("in32") || f == SVFourCC("fl32")) bits = 32;
        if (f == SVFourCC("fl64")) bits = 64;
        bool big =
            f == SVFourCC("twos") || f == SVFourCC("NONE") || f == SVFourCC("in24") || f == SVFourCC("in32") || isFloat;
        if (littleEndian) big = false;
        asbd.mFormatFlags = kAudioFormatFlagIsPacked | (isFloat ? kAudioFormatFlagIsFloat : 0) |
                            (big && bits > 8 ? kAudioFormatFlagIsBigEndian : 0) |
                            (!isFloat && f != SVFourCC("raw ") ? kAudioFormatFlagIsSignedInteger : 0);
    }
    asbd.mFramesPerPacket = 1;
    asbd.mBytesPerPacket = asbd.mChannelsPerFrame * (bits / 8);
    asbd.mBytesPerFrame = asbd.mBytesPerPacket;
}

// The codec atoms' view of the stream; `bits` ends as the bits per channel
// (zero for compressed formats).
OSStatus readCodecAtoms(const SVEntryReader &r, const std::vector<SVAtom> &atoms, unsigned version,
                        AudioStreamBasicDescription &asbd, unsigned &bits, std::vector<uint8_t> &cookie) {
    const FourCharCode f = r.format;
    OSStatus status = 0;
    if (f == kMP4A || f == kALAC || f == kAC3 || f == SVFourCC("ec-3")) {
        if (f == kMP4A) status = readMPEG4AudioAtoms(atoms, r.function, asbd, cookie);
        if (f == kALAC) status = readALACAtom(atoms, r.function, asbd, cookie);
        if (f == kAC3) status = readAC3Atom(atoms, r.function, asbd);
        if (f == SVFourCC("ec-3")) asbd.mFramesPerPacket = 1536;
        bits = 0;
    } else if (isQuickTimePCM(f)) {
        bool littleEndian = false;
        if (const SVAtom *enda = sorvel::SVFindAtom(atoms, SVFourCC("enda")); enda && enda->size >= 2)
            littleEndian = SVReadBE16(enda->payload) != 0;
        describeQuickTimePCM(f, version, littleEndian, bits, asbd);
    } else if (f == SVFourCC("ulaw") || f == SVFourCC("alaw")) {
        bits = 8;
        asbd.mFramesPerPacket = 1;
        asbd.mBytesPerPacket = asbd.mBytesPerFrame = asbd.mChannelsPerFrame;
    }
    return status;
}

}  // namespace

namespace sorvel {

OSStatus SVReadAudioSampleEntry(CFAllocatorRef allocator, SVEntryReader &r, CFMutableDictionaryRef ext,
                                SVFormatDescriptionRef *out) {
    const unsigned version = SVReadBE16(r.entry + 16);
    AudioStreamBasicDescription asbd = {};
    asbd.mFormatID = r.format;
    unsigned bits = 0;
    readSoundFixedFields(r, version, asbd, bits);

    // 'wave' holds the codec atoms in QuickTime's versions 1 and 2.
    std::vector<SVAtom> atoms = r.atoms;
    if (const SVAtom *wave = SVFindAtom(r.atoms, SVFourCC("wave")))
        if (!SVWalkAtoms(wave->payload, wave->payload + wave->size, atoms, r.function))
            return kSVSampleDescriptionError_BadAtom;
    std::vector<uint8_t> cookie;
    if (OSStatus status = readCodecAtoms(r, atoms, version, asbd, bits, cookie)) return status;
    asbd.mBitsPerChannel = bits;

    std::vector<uint8_t> layout;
    if (const SVAtom *chan = SVFindAtom(atoms, SVFourCC("chan")))
        if (OSStatus status = readChannelLayout(*chan, layout, r.function)) return status;

    const OSStatus status =
        SVAudioFormatDescriptionCreate(allocator, &asbd, layout.size(),
                                       layout.empty() ? nullptr : reinterpret_cast<AudioChannelLayout *>(layout.data()),
                                       cookie.size(), cookie.empty() ? nullptr : cookie.data(), ext, out);
    return status == 0 ? 0 : kSVSampleDescriptionError_AllocationFailed;
}

// ---- writing -------------------------------------------------------------------

namespace {

void descriptor(SVByteWriter &w, uint8_t tag, const std::vector<uint8_t> &body) {
    w.u8(tag);
    const size_t n = body.size();  // always below 2^28 here
    w.u8(0x80 | ((n >> 21) & 0x7F));
    w.u8(0x80 | ((n >> 14) & 0x7F));
    w.u8(0x80 | ((n >> 7) & 0x7F));
    w.u8(n & 0x7F);
    w.append(body.data(), n);
}

std::vector<uint8_t> buildESDS(uint8_t objectType, const uint8_t *config, size_t configSize, uint32_t bitRate) {
    SVByteWriter decoderConfig;
    decoderConfig.u8(objectType);
    decoderConfig.u8(0x15);  // audio stream
    decoderConfig.u8(0), decoderConfig.u16(0);
    decoderConfig.u32(bitRate);
    decoderConfig.u32(bitRate);
    if (config && configSize) descriptor(decoderConfig, 5, std::vector<uint8_t>(config, config + configSize));
    SVByteWriter es;
    es.u16(0);  // ES_ID
    es.u8(0);
    descriptor(es, 4, decoderConfig.bytes);
    descriptor(es, 6, {2});  // SL config: predefined for MP4 files
    SVByteWriter esds;
    esds.u32(0);  // version and flags
    descriptor(esds, 3, es.bytes);
    return esds.bytes;
}

// The fixed part after the entry header: version 2's stated fields, or
// version 0's (with version 1's packet fields when the codec atoms go in
// 'wave').
void writeSoundFixedFields(const AudioStreamBasicDescription *asbd, bool version2, bool wave, SVByteWriter &w) {
    if (version2) {
        w.u16(2), w.u16(0), w.u32(0);
        w.u16(3), w.u16(16), w.u16(0xFFFE), w.u16(0);
        w.u32(0x10000);
        w.u32(72);
        uint64_t rate;
        std::memcpy(&rate, &asbd->mSampleRate, 8);
        w.u64(rate);
        w.u32(asbd->mChannelsPerFrame);
        w.u32(0x7F000000);
        w.u32(asbd->mBitsPerChannel);
        w.u32(asbd->mFormatFlags);
        w.u32(asbd->mBytesPerPacket);
        w.u32(asbd->mFramesPerPacket);
        return;
    }
    w.u16(wave ? 1 : 0), w.u16(0), w.u32(0);
    w.u16(asbd->mChannelsPerFrame);
    w.u16(asbd->mBitsPerChannel && asbd->mBitsPerChannel <= 0xFFFF ? asbd->mBitsPerChannel : 16);
    w.u16(wave ? 0xFFFE : 0), w.u16(0);  // compression ID -2: variable-rate
    w.u32(uint32_t(std::llround(asbd->mSampleRate * 65536)));
    if (wave) {
        w.u32(asbd->mFramesPerPacket);
        w.u32(0), w.u32(0);  // bytes per packet and per frame vary
        w.u32(2);            // bytes per sample, as for 16-bit output
    }
}

// The codec atoms ('esds' or 'alac') built from the format and cookie;
// `regenerated` gains the codes they replace in the atoms dictionary.
SVByteWriter codecAtoms(FourCharCode id, const uint8_t *cookie, size_t cookieSize,
                        std::vector<FourCharCode> &regenerated) {
    SVByteWriter codec;
    if (isAAC(id) || id == kAudioFormatMPEGLayer3) {
        regenerated.push_back(SVFourCC("esds"));
        regenerated.push_back(SVFourCC("wave"));
        const std::vector<uint8_t> esds =
            isAAC(id) ? buildESDS(0x40, cookie, cookieSize, 0) : buildESDS(0x6B, nullptr, 0, 0);
        codec.atom(SVFourCC("esds"), esds);
    } else if (id == kALAC && cookieSize >= 24) {
        regenerated.push_back(kALAC);
        regenerated.push_back(SVFourCC("wave"));
        SVByteWriter alac;
        alac.u32(0);
        alac.append(cookie + cookieSize - 24, 24);
        codec.atom(kALAC, alac.bytes);
    } else if (id == kLPCM) {
        regenerated.push_back(SVFourCC("wave"));
    }
    return codec;
}

// 'wave': 'frma', for MPEG-4 audio an 'mp4a' marker, the codec atoms and a
// terminator.
void writeWaveAtom(FourCharCode format, const SVByteWriter &codec, SVByteWriter &w) {
    SVByteWriter inner;
    inner.u32(12), inner.u32(SVFourCC("frma")), inner.u32(format);
    if (format == kMP4A) inner.u32(12), inner.u32(kMP4A), inner.u32(0);
    inner.append(codec.bytes.data(), codec.bytes.size());
    inner.u32(8), inner.u32(0);  // terminator
    w.atom(SVFourCC("wave"), inner.bytes);
}

// 'chan' from the layout, with as many descriptions as `layoutSize` holds.
void writeChannelLayoutAtom(const AudioChannelLayout *layout, size_t layoutSize, SVByteWriter &w) {
    const size_t fit =
        (layoutSize - offsetof(AudioChannelLayout, mChannelDescriptions)) / sizeof(AudioChannelDescription);
    const uint32_t count = uint32_t(std::min<size_t>(layout->mNumberChannelDescriptions, fit));
    SVByteWriter chan;
    chan.u32(0);
    chan.u32(layout->mChannelLayoutTag);
    chan.u32(layout->mChannelBitmap);
    chan.u32(count);
    for (uint32_t i = 0; i < count; ++i) {
        AudioChannelDescription d;
        std::memcpy(&d,
                    reinterpret_cast<const uint8_t *>(layout) + offsetof(AudioChannelLayout, mChannelDescriptions) +
                        i * sizeof d,
                    sizeof d);
        chan.u32(d.mChannelLabel);
        chan.u32(d.mChannelFlags);
        for (int k = 0; k < 3; ++k) {
            uint32_t bits;
            std::memcpy(&bits, &d.mCoordinates[k], 4);
            chan.u32(bits);
        }
    }
    w.atom(SVFourCC("chan"), chan.bytes);
}

}  // namespace

OSStatus SVWriteAudioSampleEntry(SVFormatDescriptionRef desc, bool iso, bool version2, SVByteWriter &w,
                                 const char *function) {
    const AudioStreamBasicDescription *asbd = SVAudioFormatDescriptionGetStreamBasicDescription(desc);
    const FourCharCode id = asbd->mFormatID;
    size_t cookieSize = 0, layoutSize = 0;
    const uint8_t *cookie = static_cast<const uint8_t *>(SVAudioFormatDescriptionGetMagicCookie(desc, &cookieSize));
    const AudioChannelLayout *layout = SVAudioFormatDescriptionGetChannelLayout(desc, &layoutSize);
    if (!cookie) cookieSize = 0;
    const bool pcm = id == kLPCM;
    if (pcm && iso) {
        SV_LOG_FOR(function, 3, "Linear PCM has no ISO sample entry here");
        return kSVSampleDescriptionError_UnsupportedFormat;
    }
    if (pcm) version2 = true;
    const FourCharCode format = isAAC(id) || id == kAudioFormatMPEGLayer3 ? kMP4A : id;
    // QuickTime movies carry MPEG-4 audio and ALAC in a version 1
    // description whose codec atoms sit in 'wave' behind 'frma'.
    const bool wave = !iso && !version2 && (format == kMP4A || (id == kALAC && cookieSize >= 24));
    if (!version2 && (asbd->mChannelsPerFrame > 0xFFFF || !(asbd->mSampleRate >= 0) || asbd->mSampleRate >= 65536)) {
        SV_LOG_FOR(function, 3, "%u channels at %g Hz do not fit a version %d sound description",
                   unsigned(asbd->mChannelsPerFrame), asbd->mSampleRate, wave ? 1 : 0);
        return kSVSampleDescriptionError_UnsupportedFormat;
    }
    w.u32(0);
    w.u32(format);
    w.zeros(6);
    w.u16(1);
    writeSoundFixedFields(asbd, version2, wave, w);
    std::vector<FourCharCode> regenerated = {SVFourCC("chan")};
    const SVByteWriter codec = codecAtoms(id, cookie, cookieSize, regenerated);
    if (wave)
        writeWaveAtom(format, codec, w);
    else
        w.append(codec.bytes.data(), codec.bytes.size());
    if (!iso && layout && layoutSize >= offsetof(AudioChannelLayout, mChannelDescriptions))
        writeChannelLayoutAtom(layout, layoutSize, w);
    SVWriteRemainingAtoms(desc, regenerated, w);
    return 0;
}

}  // namespace sorvel
