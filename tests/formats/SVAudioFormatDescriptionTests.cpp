// SPDX-License-Identifier: Apache-2.0
// Audio format descriptions: creation with its statuses, log line and
// allocation failures, payload copies and getters, the summary arithmetic,
// the equality mask rules (FLT_EPSILON rates and coordinates, the layout tag
// as a gate, layouts shorter than a record), the golden description and the
// format-list queries with their log lines and cache.
#include <Sorvel/SVFormatDescription.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/TestAllocator.h"

namespace {

using sorvel_test::LogCapture;
using sorvel_test::TestAllocator;

AudioStreamBasicDescription pcm(Float64 rate, UInt32 channels, UInt32 bits) {
    AudioStreamBasicDescription asbd = {};
    asbd.mSampleRate = rate;
    asbd.mFormatID = kAudioFormatLinearPCM;
    asbd.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    asbd.mChannelsPerFrame = channels;
    asbd.mBitsPerChannel = bits;
    asbd.mBytesPerFrame = asbd.mBytesPerPacket = channels * bits / 8;
    asbd.mFramesPerPacket = 1;
    return asbd;
}

AudioStreamBasicDescription codec(UInt32 formatID, Float64 rate, UInt32 channels) {
    AudioStreamBasicDescription asbd = {};
    asbd.mSampleRate = rate;
    asbd.mFormatID = formatID;
    asbd.mChannelsPerFrame = channels;
    asbd.mFramesPerPacket = 1024;
    return asbd;
}

// A layout record with descriptions, as raw bytes of exactly its size.
struct Layout {
    std::vector<uint8_t> bytes;
    Layout(AudioChannelLayoutTag tag, AudioChannelBitmap bitmap, std::vector<AudioChannelDescription> descriptions)
        : bytes(12 + 20 * descriptions.size()) {
        const UInt32 header[3] = {tag, bitmap, static_cast<UInt32>(descriptions.size())};
        std::memcpy(bytes.data(), header, sizeof header);
        if (!descriptions.empty()) std::memcpy(bytes.data() + 12, descriptions.data(), 20 * descriptions.size());
    }
    explicit Layout(std::vector<uint8_t> raw) : bytes(std::move(raw)) {}
    const AudioChannelLayout *get() const { return reinterpret_cast<const AudioChannelLayout *>(bytes.data()); }
};

const AudioChannelDescription kLeft = {kAudioChannelLabel_Left, kAudioChannelFlags_AllOff, {-1, 0, 0}};
const AudioChannelDescription kRight = {kAudioChannelLabel_Right, kAudioChannelFlags_AllOff, {1, 0, 0}};

SVFormatDescriptionRef audio(const AudioStreamBasicDescription &asbd, const Layout *layout = nullptr,
                             const std::vector<uint8_t> &cookie = {}, CFDictionaryRef extensions = nullptr) {
    // The layout and cookie come from exact-size heap buffers, so the
    // sanitizer sees any read past them.
    std::unique_ptr<uint8_t[]> layoutCopy, cookieCopy;
    size_t layoutSize = layout ? layout->bytes.size() : 0;
    if (layoutSize) {
        layoutCopy.reset(new uint8_t[layoutSize]);
        std::memcpy(layoutCopy.get(), layout->bytes.data(), layoutSize);
    }
    if (!cookie.empty()) {
        cookieCopy.reset(new uint8_t[cookie.size()]);
        std::memcpy(cookieCopy.get(), cookie.data(), cookie.size());
    }
    SVFormatDescriptionRef desc = nullptr;
    EXPECT_EQ(SVAudioFormatDescriptionCreate(nullptr, &asbd, layoutSize,
                                             reinterpret_cast<const AudioChannelLayout *>(layoutCopy.get()),
                                             cookie.size(), cookieCopy.get(), extensions, &desc),
              0);
    return desc;
}

std::string text(CFStringRef string) {
    char buffer[1024];
    return CFStringGetCString(string, buffer, sizeof buffer, kCFStringEncodingUTF8) ? buffer : "";
}

// ---- creation --------------------------------------------------------------------------------

TEST(SVAudioFormatDescriptionCreateTest, StatusesAndTheMissingDescriptionLogLine) {
    LogCapture capture;
    SVFormatDescriptionRef desc = reinterpret_cast<SVFormatDescriptionRef>(0x1);
    AudioStreamBasicDescription asbd = pcm(48000, 2, 16);
    EXPECT_EQ(SVAudioFormatDescriptionCreate(nullptr, nullptr, 0, nullptr, 0, nullptr, nullptr, &desc),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(desc, reinterpret_cast<SVFormatDescriptionRef>(0x1)) << "checked before the output is touched";
    ASSERT_EQ(capture.count(), 1u);
    const auto line = capture.lines()[0];
    EXPECT_EQ(line.level, 3);
    EXPECT_EQ(line.function, "SVAudioFormatDescriptionCreate");
    EXPECT_EQ(line.path, "") << "audio sites pass an empty source path";
    EXPECT_EQ(line.message, "Missing AudioStreamBasicDescription in SVAudioFormatDescriptionCreate");

    capture.clear();
    EXPECT_EQ(SVAudioFormatDescriptionCreate(nullptr, &asbd, 0, nullptr, 0, nullptr, nullptr, nullptr),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(capture.count(), 0u) << "a missing output is not logged";
    EXPECT_EQ(SVAudioFormatDescriptionCreate(nullptr, &asbd, 32, nullptr, 0, nullptr, nullptr, &desc),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(desc, nullptr);

    // Nothing logged below the threshold.
    LogCapture quiet(2);
    EXPECT_EQ(SVAudioFormatDescriptionCreate(nullptr, nullptr, 0, nullptr, 0, nullptr, nullptr, &desc),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(quiet.count(), 0u);
}

TEST(SVAudioFormatDescriptionCreateTest, PayloadIsCopiedAndReadBack) {
    AudioStreamBasicDescription asbd = pcm(44100, 2, 16);
    asbd.mReserved = 99;
    Layout stereo(kAudioChannelLayoutTag_UseChannelDescriptions, 0, {kLeft, kRight});
    std::vector<uint8_t> cookie = {1, 2, 3, 4, 5};
    SVFormatDescriptionRef desc = audio(asbd, &stereo, cookie);
    EXPECT_EQ(SVFormatDescriptionGetMediaType(desc), kSVMediaType_Audio);
    EXPECT_EQ(SVFormatDescriptionGetMediaSubType(desc), kAudioFormatLinearPCM);
    EXPECT_EQ(std::memcmp(SVAudioFormatDescriptionGetStreamBasicDescription(desc), &asbd, sizeof asbd), 0);
    size_t size = 0;
    const AudioChannelLayout *layout = SVAudioFormatDescriptionGetChannelLayout(desc, &size);
    ASSERT_EQ(size, 52u);
    EXPECT_EQ(std::memcmp(layout, stereo.bytes.data(), 52), 0);
    const void *storedCookie = SVAudioFormatDescriptionGetMagicCookie(desc, &size);
    ASSERT_EQ(size, 5u);
    EXPECT_EQ(std::memcmp(storedCookie, cookie.data(), 5), 0);
    CFRelease(desc);

    // No layout; a NULL cookie keeps its size.
    SVFormatDescriptionRef bare = nullptr;
    ASSERT_EQ(SVAudioFormatDescriptionCreate(nullptr, &asbd, 0, nullptr, 12, nullptr, nullptr, &bare), 0);
    size = 99;
    SVAudioFormatDescriptionGetChannelLayout(bare, &size);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(SVAudioFormatDescriptionGetMagicCookie(bare, &size), nullptr);
    EXPECT_EQ(size, 12u);

    // Getters on a non-audio description or NULL.
    SVFormatDescriptionRef video = nullptr;
    ASSERT_EQ(SVFormatDescriptionCreate(nullptr, kSVMediaType_Video, 'avc1', nullptr, &video), 0);
    for (SVFormatDescriptionRef other : {video, SVFormatDescriptionRef(nullptr)}) {
        EXPECT_EQ(SVAudioFormatDescriptionGetStreamBasicDescription(other), nullptr);
        size = 99;
        EXPECT_EQ(SVAudioFormatDescriptionGetChannelLayout(other, &size), nullptr);
        EXPECT_EQ(size, 0u);
        size = 99;
        EXPECT_EQ(SVAudioFormatDescriptionGetMagicCookie(other, &size), nullptr);
        EXPECT_EQ(size, 0u);
        size = 99;
        EXPECT_EQ(SVAudioFormatDescriptionGetFormatList(other, &size), nullptr);
        EXPECT_EQ(size, 99u) << "left untouched";
        EXPECT_EQ(SVAudioFormatDescriptionGetMostCompatibleFormat(other), nullptr);
        EXPECT_EQ(SVAudioFormatDescriptionGetRichestDecodableFormat(other), nullptr);
    }
    CFRelease(bare);
    CFRelease(video);
}

// Each allocation in turn fails: the object, the layout copy, the cookie
// copy.  Every failure returns -12711 with no object and nothing leaked.
TEST(SVAudioFormatDescriptionCreateTest, AllocationFailuresLeaveNothingBehind) {
    AudioStreamBasicDescription asbd = pcm(48000, 2, 16);
    Layout stereo(kAudioChannelLayoutTag_Stereo, 0, {});
    const uint8_t cookie[4] = {9, 9, 9, 9};
    for (long n = 0; n < 3; ++n) {
        SCOPED_TRACE(n);
        TestAllocator allocator;
        allocator.failAfter(n);
        SVFormatDescriptionRef desc = reinterpret_cast<SVFormatDescriptionRef>(0x1);
        EXPECT_EQ(SVAudioFormatDescriptionCreate(allocator.get(), &asbd, stereo.bytes.size(), stereo.get(), 4, cookie,
                                                 nullptr, &desc),
                  kSVFormatDescriptionError_AllocationFailed);
        EXPECT_EQ(desc, nullptr);
        EXPECT_EQ(allocator.outstanding(), 0);
    }
    TestAllocator allocator;
    SVFormatDescriptionRef desc = nullptr;
    ASSERT_EQ(SVAudioFormatDescriptionCreate(allocator.get(), &asbd, stereo.bytes.size(), stereo.get(), 4, cookie,
                                             nullptr, &desc),
              0);
    ASSERT_NE(SVAudioFormatDescriptionGetFormatList(desc, nullptr), nullptr);
    EXPECT_EQ(allocator.outstanding(), 4) << "object, layout, cookie and format list";
    CFRelease(desc);
    EXPECT_EQ(allocator.outstanding(), 0);
}

// ---- summary -------------------------------------------------------------------------------------

TEST(SVAudioFormatDescriptionSummaryTest, TakesTheMaximaAndComputesPCMSizes) {
    SVFormatDescriptionRef a = audio(pcm(44100, 2, 16)), b = audio(pcm(48000, 1, 24));
    SVFormatDescriptionRef aac = audio(codec(kAudioFormatMPEG4AAC, 96000, 6));
    const void *values[] = {a, b, aac};
    auto summarize = [&](CFIndex count, const void **items) {
        CFArrayRef array = CFArrayCreate(nullptr, items, count, &kCFTypeArrayCallBacks);
        SVFormatDescriptionRef summary = nullptr;
        EXPECT_EQ(SVAudioFormatDescriptionCreateSummary(nullptr, array, 12345, &summary), 0);
        CFRelease(array);
        AudioStreamBasicDescription result = *SVAudioFormatDescriptionGetStreamBasicDescription(summary);
        CFRelease(summary);
        return result;
    };
    AudioStreamBasicDescription s = summarize(2, values);
    EXPECT_EQ(s.mSampleRate, 48000);
    EXPECT_EQ(s.mChannelsPerFrame, 2u);
    EXPECT_EQ(s.mBitsPerChannel, 24u);
    EXPECT_EQ(s.mBytesPerFrame, 6u);
    EXPECT_EQ(s.mBytesPerPacket, 6u);
    EXPECT_EQ(s.mFormatID, kAudioFormatLinearPCM);
    EXPECT_EQ(s.mFormatFlags, 0u);
    EXPECT_EQ(s.mFramesPerPacket, 1u);
    s = summarize(3, values);  // a codec's zero bits leave the maximum alone
    EXPECT_EQ(s.mSampleRate, 96000);
    EXPECT_EQ(s.mChannelsPerFrame, 6u);
    EXPECT_EQ(s.mBytesPerFrame, 18u);
    s = summarize(0, nullptr);
    EXPECT_EQ(s.mSampleRate, 0);
    EXPECT_EQ(s.mChannelsPerFrame + s.mBitsPerChannel + s.mBytesPerFrame + s.mBytesPerPacket, 0u);
    EXPECT_EQ(s.mFramesPerPacket, 1u);

    SVFormatDescriptionRef video = nullptr;
    ASSERT_EQ(SVFormatDescriptionCreate(nullptr, kSVMediaType_Video, 'avc1', nullptr, &video), 0);
    const void *mixed[] = {a, video};
    const void *withNull[] = {a, nullptr};
    CFArrayRef arrays[] = {CFArrayCreate(nullptr, mixed, 2, &kCFTypeArrayCallBacks),
                           CFArrayCreate(nullptr, withNull, 2, nullptr)};
    for (CFArrayRef array : arrays) {
        SVFormatDescriptionRef summary = reinterpret_cast<SVFormatDescriptionRef>(0x1);
        EXPECT_EQ(SVAudioFormatDescriptionCreateSummary(nullptr, array, 0, &summary),
                  kSVFormatDescriptionError_InvalidParameter);
        CFRelease(array);
    }
    EXPECT_EQ(SVAudioFormatDescriptionCreateSummary(nullptr, nullptr, 0, nullptr),
              kSVFormatDescriptionError_InvalidParameter);
    for (CFTypeRef cf : {CFTypeRef(a), CFTypeRef(b), CFTypeRef(aac), CFTypeRef(video)}) CFRelease(cf);
}

// ---- equality --------------------------------------------------------------------------------------

struct EqualCase {
    const char *what;
    SVFormatDescriptionRef a, b;
    SVAudioFormatDescriptionMask mask;
    SVAudioFormatDescriptionMask expectedMask;
};

void checkEqual(const std::vector<EqualCase> &cases) {
    for (const EqualCase &c : cases) {
        SCOPED_TRACE(c.what);
        SVAudioFormatDescriptionMask out = 0xDEAD;
        EXPECT_EQ(SVAudioFormatDescriptionEqual(c.a, c.b, c.mask, &out), c.expectedMask == c.mask);
        EXPECT_EQ(out, c.expectedMask);
        EXPECT_EQ(SVAudioFormatDescriptionEqual(c.a, c.b, c.mask, nullptr), c.expectedMask == c.mask);
    }
}

TEST(SVAudioFormatDescriptionEqualTest, StreamCookieAndExtensionRules) {
    constexpr SVAudioFormatDescriptionMask All = kSVAudioFormatDescriptionMask_All;
    constexpr SVAudioFormatDescriptionMask SBD = kSVAudioFormatDescriptionMask_StreamBasicDescription;
    constexpr SVAudioFormatDescriptionMask Cookie = kSVAudioFormatDescriptionMask_MagicCookie;
    constexpr SVAudioFormatDescriptionMask Ext = kSVAudioFormatDescriptionMask_Extensions;
    AudioStreamBasicDescription base = pcm(44100, 2, 16), reserved = base, nearly = base, off = base, flags = base;
    reserved.mReserved = 1;
    nearly.mSampleRate = 44100.0000001;
    off.mSampleRate = 44100.001;
    flags.mFormatFlags |= kAudioFormatFlagIsBigEndian;
    CFDictionaryRef named = CFDictionaryCreate(nullptr, (const void **)&kSVFormatDescriptionExtension_FormatName,
                                               (const void **)&kSVFormatDescriptionExtension_FormatName, 1,
                                               &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    SVFormatDescriptionRef d = audio(base), dReserved = audio(reserved), dNearly = audio(nearly), dOff = audio(off),
                           dFlags = audio(flags), dCookie = audio(base, nullptr, {1, 2, 3}),
                           dCookieToo = audio(base, nullptr, {1, 2, 3}), dCookieOther = audio(base, nullptr, {1, 2, 4}),
                           dCookieLonger = audio(base, nullptr, {1, 2, 3, 4}), dNamed = audio(base, nullptr, {}, named),
                           dAAC = audio(codec(kAudioFormatMPEG4AAC, 44100, 2)), nullCookie12 = nullptr,
                           nullCookie12Too = nullptr;
    ASSERT_EQ(SVAudioFormatDescriptionCreate(nullptr, &base, 0, nullptr, 12, nullptr, nullptr, &nullCookie12), 0);
    ASSERT_EQ(SVAudioFormatDescriptionCreate(nullptr, &base, 0, nullptr, 12, nullptr, nullptr, &nullCookie12Too), 0);
    SVFormatDescriptionRef sbtl = nullptr;
    ASSERT_EQ(SVFormatDescriptionCreate(nullptr, kSVMediaType_Subtitle, kAudioFormatLinearPCM, nullptr, &sbtl), 0);

    checkEqual({
        {"same object", d, d, All, All},
        {"same object, odd mask", d, d, 0x30, 0x30},
        {"NULL", d, nullptr, All, 0},
        {"not audio", d, sbtl, All, 0},
        {"other subtype", d, dAAC, All, 0},
        {"reserved word ignored", d, dReserved, All, All},
        {"rate within FLT_EPSILON", d, dNearly, All, All},
        {"rate beyond FLT_EPSILON", d, dOff, All, All & ~SBD},
        {"flags differ", d, dFlags, SBD, 0},
        {"mask 0 on different descriptions", d, dOff, 0, 0},
        {"equal cookies", dCookie, dCookieToo, All, All},
        {"cookie bytes differ", dCookie, dCookieOther, Cookie, 0},
        {"cookie sizes differ", dCookie, dCookieLonger, All, All & ~Cookie},
        {"cookie against none", d, dCookie, Cookie | SBD, SBD},
        {"two NULL cookies of one size", nullCookie12, nullCookie12Too, All, All},
        {"NULL cookie against bytes of other size", nullCookie12, dCookie, Cookie, 0},
        {"extensions against none", d, dNamed, All, All & ~Ext},
        {"extensions not asked", d, dNamed, All & ~Ext, All & ~Ext},
        {"bits beyond the mask are never set", d, dReserved, 0x10 | SBD, SBD},
    });
    EXPECT_TRUE(SVFormatDescriptionEqual(d, dNearly));
    EXPECT_FALSE(SVFormatDescriptionEqual(d, dCookie));
    for (CFTypeRef cf : {CFTypeRef(d), CFTypeRef(dReserved), CFTypeRef(dNearly), CFTypeRef(dOff), CFTypeRef(dFlags),
                         CFTypeRef(dCookie), CFTypeRef(dCookieToo), CFTypeRef(dCookieOther), CFTypeRef(dCookieLonger),
                         CFTypeRef(dNamed), CFTypeRef(dAAC), CFTypeRef(nullCookie12), CFTypeRef(nullCookie12Too),
                         CFTypeRef(sbtl), CFTypeRef(named)})
        CFRelease(cf);
}

TEST(SVAudioFormatDescriptionEqualTest, ChannelLayoutWalk) {
    constexpr SVAudioFormatDescriptionMask L = kSVAudioFormatDescriptionMask_ChannelLayout;
    AudioStreamBasicDescription asbd = pcm(48000, 2, 16);
    AudioChannelDescription nudged = kRight, moved = kRight, relabeled = kRight, flagged = kRight;
    nudged.mCoordinates[1] += 5e-8f;  // from 0: a difference a float can hold
    moved.mCoordinates[0] += 1e-3f;
    relabeled.mChannelLabel = kAudioChannelLabel_Center;
    flagged.mChannelFlags = kAudioChannelFlags_RectangularCoordinates;
    const Layout stereo(kAudioChannelLayoutTag_UseChannelDescriptions, 0, {kLeft, kRight});
    const struct {
        const char *what;
        Layout other;
        bool equal;
    } cases[] = {
        {"identical", stereo, true},
        {"only the tag differs (a gate, not a rule)", Layout(kAudioChannelLayoutTag_Stereo, 0, {kLeft, kRight}), true},
        {"bitmap differs: passed over", Layout(kAudioChannelLayoutTag_UseChannelDescriptions, 3, {kLeft, moved}), true},
        {"coordinate within FLT_EPSILON", Layout(kAudioChannelLayoutTag_UseChannelDescriptions, 0, {kLeft, nudged}),
         true},
        {"coordinate beyond FLT_EPSILON", Layout(kAudioChannelLayoutTag_UseChannelDescriptions, 0, {kLeft, moved}),
         false},
        {"label differs", Layout(kAudioChannelLayoutTag_UseChannelDescriptions, 0, {kLeft, relabeled}), false},
        {"flags differ", Layout(kAudioChannelLayoutTag_UseChannelDescriptions, 0, {kLeft, flagged}), false},
        {"other size", Layout(kAudioChannelLayoutTag_UseChannelDescriptions, 0, {kLeft, kRight, kRight}), false},
    };
    SVFormatDescriptionRef base = audio(asbd, &stereo);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        SVFormatDescriptionRef other = audio(asbd, &c.other);
        SVAudioFormatDescriptionMask out = 0;
        EXPECT_EQ(SVAudioFormatDescriptionEqual(base, other, L, &out), c.equal);
        EXPECT_EQ(out, c.equal ? L : 0);
        CFRelease(other);
    }
    CFRelease(base);

    // Tag-only layouts (count 0) and layouts shorter than a record: nothing
    // to compare beyond the gate, and nothing read past the bytes.
    const std::vector<std::pair<std::vector<uint8_t>, std::vector<uint8_t>>> shortPairs = {
        {{1, 0, 0, 0}, {2, 0, 0, 0}},
        {std::vector<uint8_t>(12, 0), std::vector<uint8_t>(12, 1)},
        {{0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8},
         {0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 9, 9, 9, 9, 9, 9, 9, 9}},
        {std::vector<uint8_t>(31, 0), std::vector<uint8_t>(31, 0)},
    };
    for (const auto &[x, y] : shortPairs) {
        SCOPED_TRACE(x.size());
        Layout lx{x}, ly{y};
        SVFormatDescriptionRef a = audio(asbd, &lx), b = audio(asbd, &ly);
        EXPECT_TRUE(SVAudioFormatDescriptionEqual(a, b, L, nullptr));
        CFRelease(a);
        CFRelease(b);
    }
    // A count that claims more descriptions than the layout holds compares
    // only those present.
    Layout liar(kAudioChannelLayoutTag_UseChannelDescriptions, 0, {kLeft});
    liar.bytes[8] = 200;
    Layout liarToo = liar, liarOther = liar;
    liarOther.bytes[12] = 7;
    SVFormatDescriptionRef a = audio(asbd, &liar), b = audio(asbd, &liarToo), c = audio(asbd, &liarOther);
    EXPECT_TRUE(SVAudioFormatDescriptionEqual(a, b, L, nullptr));
    EXPECT_FALSE(SVAudioFormatDescriptionEqual(a, c, L, nullptr));
    for (auto d : {a, b, c}) CFRelease(d);
}

// ---- description -------------------------------------------------------------------------------------

TEST(SVAudioFormatDescriptionTest, DescriptionIsTheGoldenSummary) {
    AudioStreamBasicDescription asbd = pcm(44100, 2, 16);
    Layout stereo(kAudioChannelLayoutTag_UseChannelDescriptions, 0, {kLeft, kRight});
    SVFormatDescriptionRef desc = audio(asbd, &stereo, {1, 2, 3});
    CFStringRef description = CFCopyDescription(desc);
    char address[32];
    std::snprintf(address, sizeof address, "0x%lx", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(desc)));
    EXPECT_EQ(text(description), std::string("<SVFormatDescription ") + address +
                                     " {Audio/lpcm layoutSize=52 magicCookieSize=3 bitsPerChannel=16 bytesPerFrame=4 "
                                     "bytesPerPacket=4 channelsPerFrame=2 formatFlags=12 formatID=1819304813 "
                                     "framesPerPacket=1 sampleRate=44100.000000}>");
    CFRelease(description);
    CFRelease(desc);
}

// ---- format lists -----------------------------------------------------------------------------------------

TEST(SVAudioFormatDescriptionFormatListTest, PlainFormatIsItsOwnOnlyItem) {
    SVFormatDescriptionRef desc = audio(pcm(48000, 2, 16));
    size_t size = 0;
    const AudioFormatListItem *list = SVAudioFormatDescriptionGetFormatList(desc, &size);
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(size, sizeof(AudioFormatListItem));
    EXPECT_EQ(list[0].mASBD.mSampleRate, 48000);
    EXPECT_EQ(list[0].mChannelLayoutTag, kAudioChannelLayoutTag_Stereo);
    size = 0;
    EXPECT_EQ(SVAudioFormatDescriptionGetFormatList(desc, &size), list) << "cached";
    EXPECT_EQ(size, sizeof(AudioFormatListItem));
    EXPECT_EQ(SVAudioFormatDescriptionGetMostCompatibleFormat(desc), list);
    EXPECT_EQ(SVAudioFormatDescriptionGetRichestDecodableFormat(desc), list);
    CFRelease(desc);
}

TEST(SVAudioFormatDescriptionFormatListTest, LayeredCodecAndServiceFailures) {
    LogCapture capture;
    SVFormatDescriptionRef heV2 = audio(codec(kAudioFormatMPEG4AAC_HE_V2, 44100, 2));
    size_t size = 0;
    const AudioFormatListItem *list = SVAudioFormatDescriptionGetFormatList(heV2, &size);
    ASSERT_EQ(size, 3 * sizeof(AudioFormatListItem));
    const AudioFormatListItem *core = SVAudioFormatDescriptionGetMostCompatibleFormat(heV2);
    EXPECT_EQ(core, list + 2);
    EXPECT_EQ(core->mASBD.mFormatID, kAudioFormatMPEG4AAC);
    EXPECT_EQ(core->mASBD.mSampleRate, 22050);
    EXPECT_EQ(core->mASBD.mChannelsPerFrame, 1u);
    EXPECT_EQ(capture.count(), 0u);

    // Nothing in an AAC list is decodable on this platform.
    EXPECT_EQ(SVAudioFormatDescriptionGetRichestDecodableFormat(heV2), nullptr);
    ASSERT_EQ(capture.count(), 1u);
    auto line = capture.lines()[0];
    EXPECT_EQ(line.level, 3);
    EXPECT_EQ(line.function, "SVAudioFormatDescriptionGetRichestDecodableFormat");
    EXPECT_EQ(line.path, "");
    EXPECT_EQ(line.message,
              "Failed to retrieve kAudioFormatProperty_FirstPlayableFormatFromList for format list: 'fmt?'");

    // A description the service cannot list: no list, no cache, logged
    // every time it is asked.
    capture.clear();
    SVFormatDescriptionRef unlisted = audio(codec(0, 8000, 1));
    size = 77;
    EXPECT_EQ(SVAudioFormatDescriptionGetFormatList(unlisted, &size), nullptr);
    EXPECT_EQ(size, 77u);
    EXPECT_EQ(SVAudioFormatDescriptionGetMostCompatibleFormat(unlisted), nullptr);
    EXPECT_EQ(SVAudioFormatDescriptionGetRichestDecodableFormat(unlisted), nullptr);
    ASSERT_EQ(capture.count(), 3u);
    for (const auto &l : capture.lines()) {
        EXPECT_EQ(l.function, "SVAudioFormatDescriptionGetFormatList");
        EXPECT_EQ(l.message, "Failed to get property size for kAudioFormatProperty_FormatList: 'fmt?'");
    }
    CFRelease(heV2);
    CFRelease(unlisted);
}

// Many threads asking for the list of a fresh description at once all get
// the one published list (and the sanitizers see no race or leak).
TEST(SVAudioFormatDescriptionFormatListTest, ConcurrentFirstQueriesAgree) {
    for (int round = 0; round < 20; ++round) {
        SVFormatDescriptionRef desc = audio(codec(kAudioFormatMPEG4AAC_HE, 48000, 2));
        std::vector<const AudioFormatListItem *> seen(4);
        std::vector<std::thread> threads;
        for (size_t t = 0; t < seen.size(); ++t)
            threads.emplace_back([&, t] { seen[t] = SVAudioFormatDescriptionGetMostCompatibleFormat(desc); });
        for (auto &thread : threads) thread.join();
        for (auto *item : seen) EXPECT_EQ(item, seen[0]);
        ASSERT_NE(seen[0], nullptr);
        EXPECT_EQ(seen[0]->mASBD.mSampleRate, 24000);
        CFRelease(desc);
    }
}

}  // namespace
