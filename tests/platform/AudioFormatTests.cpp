// SPDX-License-Identifier: Apache-2.0
// The audio-format service: statuses, plain and layered format lists, the
// AudioSpecificConfig signalling in every cookie wrapping, bounded parsing
// of truncated cookies, and the first decodable item of a list.
#include <AudioToolbox/AudioFormat.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

// Packs fields most significant bit first, as AudioSpecificConfig is coded.
class BitWriter {
public:
    BitWriter &put(uint32_t value, unsigned bits) {
        for (unsigned i = bits; i-- > 0;) {
            if (count_ % 8 == 0) bytes_.push_back(0);
            if ((value >> i) & 1) bytes_.back() |= static_cast<uint8_t>(0x80 >> (count_ % 8));
            ++count_;
        }
        return *this;
    }
    std::vector<uint8_t> bytes() const { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
    size_t count_ = 0;
};

// AAC-LC core at sampling frequency index `rate`, then GASpecificConfig with
// every flag clear.
BitWriter lowComplexity(uint32_t rateIndex, uint32_t channelConfig) {
    BitWriter w;
    w.put(2, 5).put(rateIndex, 4).put(channelConfig, 4).put(0, 3);
    return w;
}

std::vector<uint8_t> explicitSBR(uint32_t objectType) {
    BitWriter w;  // 24 kHz core, 48 kHz output
    w.put(objectType, 5).put(6, 4).put(objectType == 29 ? 1 : 2, 4).put(3, 4).put(2, 5).put(0, 3);
    return w.bytes();
}

// LC at 24 kHz with the backward-compatible SBR (and optionally PS) sync
// extension to 48 kHz.
std::vector<uint8_t> backwardCompatible(bool ps) {
    BitWriter w = lowComplexity(6, 1);
    w.put(0x2B7, 11).put(5, 5).put(1, 1).put(3, 4);
    if (ps) w.put(0x548, 11).put(1, 1);
    return w.bytes();
}

std::vector<uint8_t> descriptor(uint8_t tag, std::vector<uint8_t> payload) {
    std::vector<uint8_t> out = {tag, 0x80, 0x80, 0x80, static_cast<uint8_t>(payload.size())};
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

// The ASC inside an ES_Descriptor, optionally preceded by version/flags and
// an 'esds' atom header.
std::vector<uint8_t> esds(const std::vector<uint8_t> &asc, bool fullBox, bool atom) {
    std::vector<uint8_t> config = {0x40, 0x15, 0, 0x18, 0, 0, 1, 0xF4, 0, 0, 1, 0xF4, 0};
    std::vector<uint8_t> dsi = descriptor(0x05, asc);
    config.insert(config.end(), dsi.begin(), dsi.end());
    std::vector<uint8_t> es = {0, 1, 0};  // ES_ID, flags
    std::vector<uint8_t> dcd = descriptor(0x04, config);
    es.insert(es.end(), dcd.begin(), dcd.end());
    std::vector<uint8_t> sl = descriptor(0x06, {0x02});
    es.insert(es.end(), sl.begin(), sl.end());
    std::vector<uint8_t> out = descriptor(0x03, es);
    if (fullBox) out.insert(out.begin(), 4, 0);
    if (atom) {
        uint32_t size = static_cast<uint32_t>(out.size() + 8);
        std::vector<uint8_t> header = {static_cast<uint8_t>(size >> 24),
                                       static_cast<uint8_t>(size >> 16),
                                       static_cast<uint8_t>(size >> 8),
                                       static_cast<uint8_t>(size),
                                       'e',
                                       's',
                                       'd',
                                       's'};
        out.insert(out.begin(), header.begin(), header.end());
    }
    return out;
}

AudioStreamBasicDescription asbdOf(UInt32 formatID, Float64 rate, UInt32 channels) {
    AudioStreamBasicDescription asbd = {};
    asbd.mFormatID = formatID;
    asbd.mSampleRate = rate;
    asbd.mChannelsPerFrame = channels;
    if (formatID == kAudioFormatLinearPCM) {
        asbd.mBitsPerChannel = 16;
        asbd.mBytesPerFrame = asbd.mBytesPerPacket = 2 * channels;
        asbd.mFramesPerPacket = 1;
        asbd.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    }
    return asbd;
}

// The format list through both calls; the cookie is copied into a buffer of
// exactly its size so the sanitizer sees any read beyond it.
OSStatus formatList(const AudioStreamBasicDescription &asbd, const std::vector<uint8_t> &cookie,
                    std::vector<AudioFormatListItem> &items) {
    std::unique_ptr<uint8_t[]> exact(cookie.empty() ? nullptr : new uint8_t[cookie.size()]);
    if (!cookie.empty()) std::memcpy(exact.get(), cookie.data(), cookie.size());
    AudioFormatInfo info = {asbd, exact.get(), static_cast<UInt32>(cookie.size())};
    UInt32 size = 0;
    OSStatus status = AudioFormatGetPropertyInfo(kAudioFormatProperty_FormatList, sizeof info, &info, &size);
    if (status) return status;
    EXPECT_EQ(size % sizeof(AudioFormatListItem), 0u);
    items.assign(size / sizeof(AudioFormatListItem), AudioFormatListItem{});
    UInt32 fetched = size;
    status = AudioFormatGetProperty(kAudioFormatProperty_FormatList, sizeof info, &info, &fetched, items.data());
    EXPECT_EQ(fetched, size);
    return status;
}

struct Layer {
    UInt32 formatID;
    Float64 rate;
    UInt32 channels;
    UInt32 framesPerPacket;
    AudioChannelLayoutTag tag;
};

void expectLayers(const std::vector<AudioFormatListItem> &items, const std::vector<Layer> &layers) {
    ASSERT_EQ(items.size(), layers.size());
    for (size_t i = 0; i < layers.size(); ++i) {
        SCOPED_TRACE(testing::Message() << "item " << i);
        EXPECT_EQ(items[i].mASBD.mFormatID, layers[i].formatID);
        EXPECT_EQ(items[i].mASBD.mSampleRate, layers[i].rate);
        EXPECT_EQ(items[i].mASBD.mChannelsPerFrame, layers[i].channels);
        EXPECT_EQ(items[i].mASBD.mFramesPerPacket, layers[i].framesPerPacket);
        EXPECT_EQ(items[i].mChannelLayoutTag, layers[i].tag);
    }
}

constexpr UInt32 kHE = kAudioFormatMPEG4AAC_HE, kHEv2 = kAudioFormatMPEG4AAC_HE_V2, kAAC = kAudioFormatMPEG4AAC;
constexpr AudioChannelLayoutTag kMono = kAudioChannelLayoutTag_Mono, kStereo = kAudioChannelLayoutTag_Stereo;

TEST(AudioFormatTest, StatusesForBadRequests) {
    AudioStreamBasicDescription pcm = asbdOf(kAudioFormatLinearPCM, 44100, 2);
    AudioFormatInfo info = {pcm, nullptr, 0};
    AudioFormatListItem item = {pcm, kStereo};
    UInt32 size = 0, index = 0;
    struct Case {
        const char *what;
        OSStatus status;
        OSStatus expected;
    };
    UInt32 four = 4, two = 2, small = sizeof(AudioFormatListItem) - 1;
    AudioFormatListItem buffer[3];
    const Case cases[] = {
        {"unknown property", AudioFormatGetPropertyInfo('abcd', sizeof info, &info, &size),
         kAudioFormatUnsupportedPropertyError},
        {"unknown property data", AudioFormatGetProperty('abcd', sizeof info, &info, &four, &index),
         kAudioFormatUnsupportedPropertyError},
        {"no specifier", AudioFormatGetPropertyInfo(kAudioFormatProperty_FormatList, sizeof info, nullptr, &size),
         kAudioFormatBadSpecifierSizeError},
        {"short specifier", AudioFormatGetPropertyInfo(kAudioFormatProperty_FormatList, sizeof info - 1, &info, &size),
         kAudioFormatBadSpecifierSizeError},
        {"no size", AudioFormatGetPropertyInfo(kAudioFormatProperty_FormatList, sizeof info, &info, nullptr),
         kAudio_ParamError},
        {"no data", AudioFormatGetProperty(kAudioFormatProperty_FormatList, sizeof info, &info, &four, nullptr),
         kAudio_ParamError},
        {"no room for an item",
         AudioFormatGetProperty(kAudioFormatProperty_FormatList, sizeof info, &info, &small, buffer),
         kAudioFormatBadPropertySizeError},
        {"list not a whole number of items",
         AudioFormatGetPropertyInfo(kAudioFormatProperty_FirstPlayableFormatFromList, sizeof item - 4, &item, &size),
         kAudioFormatBadSpecifierSizeError},
        {"empty list", AudioFormatGetPropertyInfo(kAudioFormatProperty_FirstPlayableFormatFromList, 0, &item, &size),
         kAudioFormatBadSpecifierSizeError},
        {"index buffer too small",
         AudioFormatGetProperty(kAudioFormatProperty_FirstPlayableFormatFromList, sizeof item, &item, &two, &index),
         kAudioFormatBadPropertySizeError},
    };
    for (const Case &c : cases) EXPECT_EQ(c.status, c.expected) << c.what;

    AudioFormatInfo none = {asbdOf(0, 44100, 2), nullptr, 0};
    EXPECT_EQ(AudioFormatGetPropertyInfo(kAudioFormatProperty_FormatList, sizeof none, &none, &size),
              kAudioFormatUnsupportedDataFormatError);
    EXPECT_EQ(AudioFormatGetPropertyInfo(kAudioFormatProperty_FirstPlayableFormatFromList, sizeof item, &item, &size),
              0);
    EXPECT_EQ(size, 4u);
}

TEST(AudioFormatTest, PlainFormatsListThemselvesWithTheirChannelTag) {
    const struct {
        UInt32 channels;
        AudioChannelLayoutTag tag;
    } cases[] = {
        {1, kMono}, {2, kStereo}, {6, kAudioChannelLayoutTag_Unknown | 6}, {0, kAudioChannelLayoutTag_Unknown}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.channels);
        AudioStreamBasicDescription pcm = asbdOf(kAudioFormatLinearPCM, 48000, c.channels);
        std::vector<AudioFormatListItem> items;
        ASSERT_EQ(formatList(pcm, {}, items), 0);
        ASSERT_EQ(items.size(), 1u);
        EXPECT_EQ(std::memcmp(&items[0].mASBD, &pcm, sizeof pcm), 0);
        EXPECT_EQ(items[0].mChannelLayoutTag, c.tag);
    }
    // A plain LC cookie leaves 'aac ' unlayered, and a NULL cookie with a
    // size is read as no cookie.
    std::vector<AudioFormatListItem> items;
    ASSERT_EQ(formatList(asbdOf(kAAC, 44100, 2), lowComplexity(4, 2).bytes(), items), 0);
    expectLayers(items, {{kAAC, 44100, 2, 0, kStereo}});
    AudioFormatInfo info = {asbdOf(kHEv2, 44100, 2), nullptr, 40};
    UInt32 size = 0;
    ASSERT_EQ(AudioFormatGetPropertyInfo(kAudioFormatProperty_FormatList, sizeof info, &info, &size), 0);
    EXPECT_EQ(size, 3 * sizeof(AudioFormatListItem));
}

TEST(AudioFormatTest, LayeredFormatsListEveryLayerDownToTheCore) {
    std::vector<AudioFormatListItem> items;
    ASSERT_EQ(formatList(asbdOf(kHEv2, 44100, 2), {}, items), 0);
    expectLayers(items,
                 {{kHEv2, 44100, 2, 2048, kStereo}, {kHE, 44100, 1, 2048, kMono}, {kAAC, 22050, 1, 1024, kMono}});
    ASSERT_EQ(formatList(asbdOf(kHE, 48000, 2), {}, items), 0);
    expectLayers(items, {{kHE, 48000, 2, 2048, kStereo}, {kAAC, 24000, 2, 1024, kStereo}});

    // 'aac ' layered by its cookie, at the rates the configuration names,
    // whatever the description's own rate says.
    const std::vector<Layer> sbr = {{kHE, 48000, 2, 2048, kStereo}, {kAAC, 24000, 2, 1024, kStereo}};
    const std::vector<Layer> ps = {
        {kHEv2, 48000, 2, 2048, kStereo}, {kHE, 48000, 1, 2048, kMono}, {kAAC, 24000, 1, 1024, kMono}};
    const struct {
        const char *what;
        std::vector<uint8_t> cookie;
        UInt32 channels;
        std::vector<Layer> layers;
    } cases[] = {
        {"explicit SBR", explicitSBR(5), 2, sbr},
        {"explicit PS", explicitSBR(29), 2, ps},
        {"backward-compatible SBR", backwardCompatible(false), 2, sbr},
        {"backward-compatible PS", backwardCompatible(true), 2, ps},
        {"ES descriptor", esds(backwardCompatible(true), false, false), 2, ps},
        {"esds payload", esds(explicitSBR(5), true, false), 2, sbr},
        {"esds atom", esds(explicitSBR(29), true, true), 2, ps},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(formatList(asbdOf(kAAC, 24000, c.channels), c.cookie, items), 0);
        expectLayers(items, c.layers);
    }
}

TEST(AudioFormatTest, ProgramConfigElementAndEscapesAreParsedThrough) {
    // Channel configuration 0: a program config element for 5.1 (front SCE +
    // CPE, back CPE, one LFE) with a comment, then the SBR sync extension,
    // which is found only if the element and its byte alignment were read
    // exactly.  The explicit 24-bit core rate and the escaped object type
    // path are taken on the way.
    BitWriter w;
    w.put(2, 5).put(15, 4).put(22050, 24).put(0, 4).put(0, 3);
    w.put(0, 4).put(1, 2).put(7, 4).put(2, 4).put(0, 4).put(1, 4).put(1, 2).put(0, 3).put(0, 4);
    w.put(0, 1).put(0, 1).put(0, 1);
    w.put(0, 1).put(0, 4).put(1, 1).put(1, 4);  // front: SCE, CPE
    w.put(1, 1).put(2, 4);                      // back: CPE
    w.put(0, 4);                                // LFE
    w.put(0, 8 - (5 + 4 + 24 + 4 + 3 + 4 + 2 + 4 + 4 + 4 + 4 + 2 + 3 + 4 + 3 + 10 + 5 + 4) % 8);
    w.put(2, 8).put('h', 8).put('i', 8);  // comment
    w.put(0x2B7, 11).put(5, 5).put(1, 1).put(15, 4).put(44100, 24);
    std::vector<AudioFormatListItem> items;
    ASSERT_EQ(formatList(asbdOf(kAAC, 0, 0), w.bytes(), items), 0);
    expectLayers(items, {{kHE, 44100, 6, 2048, kAudioChannelLayoutTag_Unknown | 6},
                         {kAAC, 22050, 6, 1024, kAudioChannelLayoutTag_Unknown | 6}});

    // Object type 31 escapes to 32 + 6 bits: an unknown type, not layered.
    BitWriter escaped;
    escaped.put(31, 5).put(10, 6).put(4, 4).put(2, 4);
    ASSERT_EQ(formatList(asbdOf(kAAC, 44100, 2), escaped.bytes(), items), 0);
    EXPECT_EQ(items.size(), 1u);
}

// Every prefix of every cookie parses without reading past it (the cookie is
// copied to a buffer of exactly that size) and lists either the plain
// description or a layered one.
TEST(AudioFormatTest, TruncatedCookiesNeverReadPastTheirEnd) {
    const std::vector<uint8_t> cookies[] = {explicitSBR(29), backwardCompatible(true),
                                            esds(backwardCompatible(true), true, true),
                                            esds(explicitSBR(5), false, false)};
    for (const auto &cookie : cookies) {
        for (size_t length = 0; length <= cookie.size(); ++length) {
            SCOPED_TRACE(length);
            std::vector<uint8_t> prefix(cookie.begin(), cookie.begin() + static_cast<long>(length));
            std::vector<AudioFormatListItem> items;
            ASSERT_EQ(formatList(asbdOf(kAAC, 24000, 2), prefix, items), 0);
            EXPECT_TRUE(items.size() == 1 || items.size() == 2 || items.size() == 3) << items.size();
            if (length < 2) EXPECT_EQ(items.size(), 1u);
        }
    }
    // A descriptor length beyond the cookie is refused, not followed.
    std::vector<uint8_t> lying = esds(explicitSBR(5), false, false);
    lying[4] = 0x7F;
    std::vector<AudioFormatListItem> items;
    ASSERT_EQ(formatList(asbdOf(kAAC, 24000, 2), lying, items), 0);
    EXPECT_EQ(items.size(), 1u);
}

TEST(AudioFormatTest, FirstPlayableIsTheFirstDecodableItem) {
    auto item = [](UInt32 formatID) { return AudioFormatListItem{asbdOf(formatID, 8000, 1), kMono}; };
    const struct {
        std::vector<AudioFormatListItem> list;
        OSStatus status;
        UInt32 index;
    } cases[] = {
        {{item(kAudioFormatLinearPCM)}, 0, 0},
        {{item(kHEv2), item(kHE), item(kAAC)}, kAudioFormatUnsupportedDataFormatError, 0},
        {{item(kAAC), item(kAudioFormatULaw), item(kAudioFormatLinearPCM)}, 0, 1},
        {{item(kAudioFormatMPEGLayer3), item(kAudioFormatALaw)}, 0, 1},
    };
    for (const auto &c : cases) {
        UInt32 index = 99, size = sizeof index;
        OSStatus status = AudioFormatGetProperty(kAudioFormatProperty_FirstPlayableFormatFromList,
                                                 static_cast<UInt32>(c.list.size() * sizeof(AudioFormatListItem)),
                                                 c.list.data(), &size, &index);
        EXPECT_EQ(status, c.status);
        if (status == 0)
            EXPECT_EQ(index, c.index);
        else
            EXPECT_EQ(index, 99u) << "nothing is written on failure";
    }
}

TEST(AudioFormatTest, ListFetchWritesOnlyWholeItemsThatFit) {
    AudioFormatInfo info = {asbdOf(kHEv2, 44100, 2), nullptr, 0};
    AudioFormatListItem items[3] = {};
    UInt32 size = 2 * sizeof(AudioFormatListItem) + 10;
    ASSERT_EQ(AudioFormatGetProperty(kAudioFormatProperty_FormatList, sizeof info, &info, &size, items), 0);
    EXPECT_EQ(size, 2 * sizeof(AudioFormatListItem));
    EXPECT_EQ(items[1].mASBD.mFormatID, kHE);
    EXPECT_EQ(items[2].mASBD.mFormatID, 0u) << "the third item did not fit";
}

}  // namespace
