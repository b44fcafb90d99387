// SPDX-License-Identifier: Apache-2.0
// The format-description core and its text getters: accepted media types,
// extension copies and allocation failure, equality rules and their stops,
// golden description texts, the exported key constants, the text gate with
// its statuses and log lines, text-box geometry and style, and every entry
// point that stops as not implemented.
#include <Sorvel/SVFormatDescription.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "formats/SVFormatDescriptionInternal.h"
#include "support/LogCapture.h"
#include "support/TestAllocator.h"

namespace {

using sorvel_test::LogCapture;
using sorvel_test::TestAllocator;

constexpr FourCharCode kTx3g = 'tx3g';

std::string text(CFStringRef string) {
    if (!string) return "(null)";
    CFIndex size = CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8) + 1;
    std::vector<char> buffer(static_cast<size_t>(size));
    CFStringGetCString(string, buffer.data(), size, kCFStringEncodingUTF8);
    return buffer.data();
}

std::string describe(CFTypeRef cf) {
    CFStringRef description = CFCopyDescription(cf);
    std::string result = text(description);
    CFRelease(description);
    return result;
}

std::string address(const void *p) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "0x%lx", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p)));
    return buffer;
}

CFNumberRef number(int value) {
    return CFNumberCreate(nullptr, kCFNumberIntType, &value);
}

// A dictionary from alternating keys and values; the values are released
// (they are made for the call).
CFDictionaryRef dictionary(std::initializer_list<std::pair<CFStringRef, CFTypeRef>> entries) {
    CFMutableDictionaryRef result =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    for (const auto &[key, value] : entries) {
        CFDictionarySetValue(result, key, value);
        CFRelease(value);
    }
    return result;
}

SVFormatDescriptionRef create(SVMediaType type, FourCharCode subtype, CFDictionaryRef extensions = nullptr) {
    SVFormatDescriptionRef desc = nullptr;
    EXPECT_EQ(SVFormatDescriptionCreate(nullptr, type, subtype, extensions, &desc), 0);
    return desc;
}

// A text description with the given extensions (released here).
SVFormatDescriptionRef textWith(CFDictionaryRef extensions, SVMediaType type = kSVMediaType_Text) {
    SVFormatDescriptionRef desc = create(type, kTx3g, extensions);
    if (extensions) CFRelease(extensions);
    return desc;
}

// ---- creation and getters ---------------------------------------------------------

TEST(SVFormatDescriptionCreateTest, AcceptsTheSevenMediaTypesOnly) {
    const struct {
        SVMediaType type;
        OSStatus status;
    } cases[] = {{'soun', 0},
                 {'text', 0},
                 {'clcp', 0},
                 {'muxx', 0},
                 {'sbtl', 0},
                 {'vide', 0},
                 {'tmcd', 0},
                 {'meta', kSVFormatDescriptionError_InvalidParameter},
                 {'abcd', kSVFormatDescriptionError_InvalidParameter},
                 {0, kSVFormatDescriptionError_InvalidParameter}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.type);
        SVFormatDescriptionRef desc = reinterpret_cast<SVFormatDescriptionRef>(0x1);
        ASSERT_EQ(SVFormatDescriptionCreate(nullptr, c.type, 'abcd', nullptr, &desc), c.status);
        if (c.status != 0) {
            EXPECT_EQ(desc, nullptr);
            continue;
        }
        EXPECT_EQ(CFGetTypeID(desc), SVFormatDescriptionGetTypeID());
        EXPECT_EQ(SVFormatDescriptionGetMediaType(desc), c.type);
        EXPECT_EQ(SVFormatDescriptionGetMediaSubType(desc), 'abcd');
        EXPECT_EQ(SVFormatDescriptionGetExtensions(desc), nullptr);
        EXPECT_EQ(SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_FormatName), nullptr);
        CFRelease(desc);
    }
    EXPECT_EQ(SVFormatDescriptionCreate(nullptr, 'soun', 0, nullptr, nullptr),
              kSVFormatDescriptionError_InvalidParameter);
    EXPECT_EQ(SVFormatDescriptionGetMediaType(nullptr), 0u);
    EXPECT_EQ(SVFormatDescriptionGetMediaSubType(nullptr), 0u);
    EXPECT_EQ(SVFormatDescriptionGetExtensions(nullptr), nullptr);
    EXPECT_EQ(SVFormatDescriptionGetExtension(nullptr, kSVFormatDescriptionExtension_FormatName), nullptr);
}

TEST(SVFormatDescriptionCreateTest, ExtensionsAreAnImmutableCopyFromTheDefaultAllocator) {
    TestAllocator allocator;
    CFMutableDictionaryRef extensions =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    CFDictionarySetValue(extensions, kSVFormatDescriptionExtension_FormatName, CFSTR("a name"));
    SVFormatDescriptionRef desc = nullptr;
    ASSERT_EQ(SVFormatDescriptionCreate(allocator.get(), 'sbtl', kTx3g, extensions, &desc), 0);
    EXPECT_EQ(allocator.outstanding(), 1) << "only the object itself comes from the caller's allocator";
    CFDictionarySetValue(extensions, kSVFormatDescriptionExtension_FormatName, CFSTR("changed"));
    EXPECT_NE(SVFormatDescriptionGetExtensions(desc), extensions);
    EXPECT_TRUE(
        CFEqual(SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_FormatName), CFSTR("a name")));
    EXPECT_EQ(SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_Depth), nullptr);
    CFRelease(desc);
    CFRelease(extensions);
    EXPECT_EQ(allocator.outstanding(), 0);

    allocator.failAlways();
    desc = reinterpret_cast<SVFormatDescriptionRef>(0x1);
    EXPECT_EQ(SVFormatDescriptionCreate(allocator.get(), 'text', kTx3g, nullptr, &desc),
              kSVFormatDescriptionError_AllocationFailed);
    EXPECT_EQ(desc, nullptr);
    EXPECT_EQ(allocator.outstanding(), 0);
}

// ---- equality ------------------------------------------------------------------------

TEST(SVFormatDescriptionEqualTest, TypeSubtypeAndExtensionsRules) {
    CFDictionaryRef empty = CFDictionaryCreate(nullptr, nullptr, nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                               &kCFTypeDictionaryValueCallBacks);
    CFDictionaryRef named = dictionary({{kSVFormatDescriptionExtension_FormatName, CFSTR("x")}});
    CFDictionaryRef namedToo = dictionary({{kSVFormatDescriptionExtension_FormatName, CFSTR("x")}});
    SVFormatDescriptionRef plain = create('sbtl', kTx3g), plainToo = create('sbtl', kTx3g);
    SVFormatDescriptionRef withEmpty = create('sbtl', kTx3g, empty), otherSubtype = create('sbtl', 'wvtt');
    SVFormatDescriptionRef withName = create('sbtl', kTx3g, named), withNameToo = create('sbtl', kTx3g, namedToo);
    SVFormatDescriptionRef textWithName = create('text', kTx3g, named), textPlain = create('text', kTx3g);
    const struct {
        const char *what;
        SVFormatDescriptionRef a, b;
        bool equal;
    } cases[] = {
        {"same object", plain, plain, true},
        {"alike, no extensions", plain, plainToo, true},
        {"NULL", plain, nullptr, false},
        {"NULL first", nullptr, plain, false},
        {"both NULL", nullptr, nullptr, true},
        {"no extensions against empty ones", plain, withEmpty, false},
        {"other subtype", plain, otherSubtype, false},
        {"equal extensions, distinct objects", withName, withNameToo, true},
        {"other media type", withName, textWithName, false},
        // Unequal extensions are decided before the payload rule, so text
        // does not reach its stop.
        {"text with different extensions", textWithName, textPlain, false},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(SVFormatDescriptionEqual(c.a, c.b), c.equal) << c.what;
        if (c.a && c.b) EXPECT_EQ(CFEqual(c.a, c.b), c.equal) << c.what << " through the runtime";
    }
    EXPECT_FALSE(CFEqual(plain, CFSTR("not a description")));
    EXPECT_EQ(CFHash(plain), reinterpret_cast<CFHashCode>(plain)) << "identity hash, deliberately";
    for (CFTypeRef cf : {static_cast<CFTypeRef>(empty), CFTypeRef(named), CFTypeRef(namedToo), CFTypeRef(plain),
                         CFTypeRef(plainToo), CFTypeRef(withEmpty), CFTypeRef(otherSubtype), CFTypeRef(withName),
                         CFTypeRef(withNameToo), CFTypeRef(textWithName), CFTypeRef(textPlain)})
        CFRelease(cf);
}

// A 'vide' description whose payload the test fills as the video creators
// do: parameter sets copied with the description's allocator, which
// finalize gives back.
SVFormatDescriptionRef video(CFAllocatorRef allocator, int32_t width, int32_t height,
                             const std::vector<std::vector<uint8_t>> &sets, int32_t nalLength) {
    SVFormatDescriptionRef desc = nullptr;
    EXPECT_EQ(SVFormatDescriptionCreate(allocator, 'vide', 'avc1', nullptr, &desc), 0);
    SVVideoPayload &payload = sorvel::SVFormatDescriptionMutable(desc)->video;
    payload.width = width;
    payload.height = height;
    payload.nalUnitHeaderLength = nalLength;
    if (!sets.empty()) {
        payload.parameterSets = static_cast<uint8_t **>(
            CFAllocatorAllocate(allocator, static_cast<CFIndex>(sets.size() * sizeof(uint8_t *)), 0));
        payload.parameterSetSizes =
            static_cast<uint32_t *>(CFAllocatorAllocate(allocator, static_cast<CFIndex>(sets.size() * 4), 0));
        for (const auto &set : sets) {
            auto *copy = static_cast<uint8_t *>(CFAllocatorAllocate(allocator, static_cast<CFIndex>(set.size()), 0));
            std::memcpy(copy, set.data(), set.size());
            payload.parameterSets[payload.parameterSetCount] = copy;
            payload.parameterSetSizes[payload.parameterSetCount++] = static_cast<uint32_t>(set.size());
        }
    }
    return desc;
}

TEST(SVFormatDescriptionEqualTest, VideoComparesDimensionsParameterSetsAndHeaderLength) {
    TestAllocator allocator;
    const std::vector<std::vector<uint8_t>> sps = {{0x67, 0x42, 0x00, 0x1E}, {0x68, 0xCE}};
    SVFormatDescriptionRef base = video(allocator.get(), 640, 480, sps, 4);
    const struct {
        const char *what;
        SVFormatDescriptionRef other;
        bool equal;
    } cases[] = {
        {"alike", video(allocator.get(), 640, 480, sps, 4), true},
        {"header length 2", video(allocator.get(), 640, 480, sps, 2), false},
        {"width", video(allocator.get(), 641, 480, sps, 4), false},
        {"height", video(allocator.get(), 640, 479, sps, 4), false},
        {"one set fewer", video(allocator.get(), 640, 480, {sps[0]}, 4), false},
        {"one byte differs", video(allocator.get(), 640, 480, {{0x67, 0x42, 0x00, 0x1F}, {0x68, 0xCE}}, 4), false},
        {"a set one byte longer", video(allocator.get(), 640, 480, {sps[0], {0x68, 0xCE, 0x00}}, 4), false},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(SVFormatDescriptionEqual(base, c.other), c.equal) << c.what;
        CFRelease(c.other);
    }
    EXPECT_EQ(describe(base),
              "<SVFormatDescription " + address(base) + " {Video/avc1 width=640 height=480 p[0]=6742001E p[1]=68CE}>");
    CFRelease(base);
    SVFormatDescriptionRef bare = video(nullptr, 1, 2, {}, 0);
    EXPECT_EQ(describe(bare), "<SVFormatDescription " + address(bare) + " {Video/avc1 width=1 height=2 }>");
    CFRelease(bare);
    EXPECT_EQ(allocator.outstanding(), 0) << "finalize freed every parameter set and both arrays";
}

// ---- description text --------------------------------------------------------------------

TEST(SVFormatDescriptionDescriptionTest, GoldenTexts) {
    CFDictionaryRef extensions = dictionary({{kSVFormatDescriptionExtension_FormatName, CFSTR("Captions")}});
    const struct {
        SVMediaType type;
        FourCharCode subtype;
        const char *name;
    } cases[] = {{'text', kTx3g, "Text"},      {'sbtl', 'wvtt', "Subtitle"}, {'clcp', 'c608', "ClosedCaption"},
                 {'tmcd', 'tmcd', "TimeCode"}, {'muxx', 'mp2t', "Muxed"},    {'soun', 'lpcm', "Audio"}};
    for (const auto &c : cases) {
        SVFormatDescriptionRef desc = create(c.type, c.subtype);
        char subtype[5] = {char(c.subtype >> 24), char(c.subtype >> 16), char(c.subtype >> 8), char(c.subtype), 0};
        std::string expected = "<SVFormatDescription " + address(desc) + " {" + c.name + "/" + subtype;
        if (c.type == 'soun')
            expected +=
                " layoutSize=0 magicCookieSize=0 bitsPerChannel=0 bytesPerFrame=0 bytesPerPacket=0 "
                "channelsPerFrame=0 formatFlags=0 formatID=0 framesPerPacket=0 sampleRate=0.000000";
        EXPECT_EQ(describe(desc), expected + "}>");
        CFStringRef formatted = CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%@"), desc);
        EXPECT_EQ(text(formatted), expected + "}>") << "formatting and debug descriptions agree";
        CFRelease(formatted);
        CFRelease(desc);
    }
    SVFormatDescriptionRef desc = create('text', kTx3g, extensions);
    EXPECT_EQ(describe(desc), "<SVFormatDescription " + address(desc) + " {Text/tx3g extensions = " +
                                  describe(SVFormatDescriptionGetExtensions(desc)) + "}>");
    CFRelease(desc);
    CFRelease(extensions);
}

TEST(SVFormatDescriptionConstantsTest, EveryKeyIsItsOwnName) {
#define NAMED(key) \
    { key, #key }
    const struct {
        CFStringRef key;
        const char *name;
    } keys[] = {
        NAMED(kSVFormatDescriptionExtension_FormatName),
        NAMED(kSVFormatDescriptionExtension_FullRangeVideo),
        NAMED(kSVFormatDescriptionExtension_OriginalCompressionSettings),
        NAMED(kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms),
        NAMED(kSVFormatDescriptionExtension_VerbatimISOSampleEntry),
        NAMED(kSVFormatDescriptionExtension_VerbatimSampleDescription),
        NAMED(kSVFormatDescriptionConformsToMPEG2VideoProfile),
        NAMED(kSVFormatDescriptionExtension_TemporalQuality),
        NAMED(kSVFormatDescriptionExtension_SpatialQuality),
        NAMED(kSVFormatDescriptionExtension_Version),
        NAMED(kSVFormatDescriptionExtension_RevisionLevel),
        NAMED(kSVFormatDescriptionExtension_Vendor),
        NAMED(kSVFormatDescriptionVendor_Sorvel),
        NAMED(kSVFormatDescriptionExtension_ICCProfile),
        NAMED(kSVFormatDescriptionExtension_BytesPerRow),
        NAMED(kSVFormatDescriptionExtension_Depth),
        NAMED(kSVFormatDescriptionColorPrimaries_P22),
        NAMED(kSVFormatDescriptionExtension_HorizontalResolution),
        NAMED(kSVFormatDescriptionExtension_VerticalResolution),
        NAMED(kSVFormatDescriptionExtension_CompressorName),
        NAMED(kSVFormatDescriptionExtension_FrameCount),
        NAMED(kSVFormatDescriptionExtension_ColorTableID),
        NAMED(kSVFormatDescriptionExtensionKey_MetadataKeyTable),
        NAMED(kSVFormatDescriptionKey_CleanApertureWidthRational),
        NAMED(kSVFormatDescriptionKey_CleanApertureHeightRational),
        NAMED(kSVFormatDescriptionKey_CleanApertureHorizontalOffsetRational),
        NAMED(kSVFormatDescriptionKey_CleanApertureVerticalOffsetRational),
        NAMED(kSVFormatDescriptionKey_MPEG4ElementaryStreamDescriptorVersion),
        NAMED(kSVFormatDescriptionKey_MPEG4ElementaryStreamDescriptorFlag),
        NAMED(kSVFormatDescriptionKey_MPEG4ElementaryStreamDescriptorElementaryStreamDescriptor),
        NAMED(kSVFormatDescriptionKey_AVCDecoderConfigurationRecord),
        NAMED(kSVFormatDescriptionKey_ColorParameterType),
        NAMED(kSVFormatDescriptionKey_QuantizationTable),
        NAMED(kSVFormatDescriptionKey_HuffmanTable),
        NAMED(kSVTextFormatDescriptionExtension_DisplayFlags),
        NAMED(kSVTextFormatDescriptionExtension_BackgroundColor),
        NAMED(kSVTextFormatDescriptionExtension_DefaultTextBox),
        NAMED(kSVTextFormatDescriptionExtension_DefaultStyle),
        NAMED(kSVTextFormatDescriptionExtension_HorizontalJustification),
        NAMED(kSVTextFormatDescriptionExtension_VerticalJustification),
        NAMED(kSVTextFormatDescriptionExtension_FontTable),
        NAMED(kSVTextFormatDescriptionExtension_TextJustification),
        NAMED(kSVTextFormatDescriptionExtension_DefaultFontName),
        NAMED(kSVTextFormatDescriptionColor_Red),
        NAMED(kSVTextFormatDescriptionColor_Green),
        NAMED(kSVTextFormatDescriptionColor_Blue),
        NAMED(kSVTextFormatDescriptionColor_Alpha),
        NAMED(kSVTextFormatDescriptionRect_Top),
        NAMED(kSVTextFormatDescriptionRect_Left),
        NAMED(kSVTextFormatDescriptionRect_Bottom),
        NAMED(kSVTextFormatDescriptionRect_Right),
        NAMED(kSVTextFormatDescriptionStyle_StartChar),
        NAMED(kSVTextFormatDescriptionStyle_EndChar),
        NAMED(kSVTextFormatDescriptionStyle_Font),
        NAMED(kSVTextFormatDescriptionStyle_FontFace),
        NAMED(kSVTextFormatDescriptionStyle_ForegroundColor),
        NAMED(kSVTextFormatDescriptionStyle_FontSize),
        NAMED(kSVTextFormatDescriptionStyle_Height),
        NAMED(kSVTextFormatDescriptionStyle_Ascent),
        NAMED(kSVTimeCodeFormatDescriptionExtension_SourceReferenceName),
        NAMED(kSVTimeCodeFormatDescriptionKey_Value),
        NAMED(kSVTimeCodeFormatDescriptionKey_LangCode),
        NAMED(kSVMetadataFormatDescriptionKey_LocalID),
        NAMED(kSVMetadataFormatDescriptionKey_Namespace),
        NAMED(kSVMetadataFormatDescriptionKey_Value),
        NAMED(kSVMetadataFormatDescriptionKey_DataType),
        NAMED(kSVMetadataFormatDescriptionKey_DataTypeNamespace),
        NAMED(kSVMetadataFormatDescriptionKey_ConformingDataTypes),
        NAMED(kSVMetadataFormatDescriptionKey_LanguageTag),
        NAMED(kSVMetadataFormatDescriptionKey_StructuralDependency),
        NAMED(kSVMetadataFormatDescriptionKey_SetupData),
        NAMED(kSVMetadataFormatDescription_StructuralDependencyKey_DependencyIsInvalidFlag),
        NAMED(kSVMetadataFormatDescriptionMetadataSpecificationKey_Identifier),
        NAMED(kSVMetadataFormatDescriptionMetadataSpecificationKey_DataType),
        NAMED(kSVMetadataFormatDescriptionMetadataSpecificationKey_ExtendedLanguageTag),
        NAMED(kSVMetadataFormatDescriptionMetadataSpecificationKey_SetupData),
        NAMED(kSVMetadataFormatDescriptionMetadataSpecificationKey_StructuralDependency),
        NAMED(kSVImageDescriptionFlavor_QuickTimeMovie),
        NAMED(kSVImageDescriptionFlavor_ISOFamily),
        NAMED(kSVImageDescriptionFlavor_3GPFamily),
        NAMED(kSVSoundDescriptionFlavor_QuickTimeMovie),
        NAMED(kSVSoundDescriptionFlavor_QuickTimeMovieV2),
        NAMED(kSVSoundDescriptionFlavor_ISOFamily),
        NAMED(kSVSoundDescriptionFlavor_3GPFamily),
    };
#undef NAMED
    EXPECT_EQ(sizeof keys / sizeof keys[0], 23u + 11 + 25 + 3 + 15 + 7);
    for (const auto &k : keys) {
        EXPECT_EQ(text(k.key), k.name);
        EXPECT_EQ(CFGetRetainCount(k.key), CFGetRetainCount(CFSTR("immortal"))) << k.name << " is a constant string";
    }
}

// ---- text getters ---------------------------------------------------------------------------

TEST(SVTextFormatDescriptionTest, GateRefusesOtherMediaTypesWithALogLine) {
    SVFormatDescriptionRef vide = create('vide', 'avc1'), soun = create('soun', 'lpcm');
    LogCapture capture;
    SVTextDisplayFlags flags = 7;
    SVTextJustificationValue h = 5, v = 5;
    SVTextRect box = {};
    CFStringRef name = nullptr;
    const struct {
        const char *function;
        OSStatus status;
    } calls[] = {
        {"SVTextFormatDescriptionGetDisplayFlags", SVTextFormatDescriptionGetDisplayFlags(vide, &flags)},
        {"SVTextFormatDescriptionGetJustification", SVTextFormatDescriptionGetJustification(soun, &h, &v)},
        {"SVTextFormatDescriptionGetDefaultTextBox", SVTextFormatDescriptionGetDefaultTextBox(vide, true, 0, &box)},
        {"SVTextFormatDescriptionGetDefaultStyle",
         SVTextFormatDescriptionGetDefaultStyle(vide, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr)},
        {"SVTextFormatDescriptionGetFontName", SVTextFormatDescriptionGetFontName(nullptr, 1, &name)},
    };
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 5u);
    const char *messages[] = {"Type: 'vide' Subtype: 'avc1'", "Type: 'soun' Subtype: 'lpcm'",
                              "Type: 'vide' Subtype: 'avc1'", "Type: 'vide' Subtype: 'avc1'", "Type: 0 Subtype: 0"};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(calls[i].status, kSVFormatDescriptionError_InvalidParameter) << calls[i].function;
        EXPECT_EQ(lines[i].level, 3);
        EXPECT_EQ(lines[i].function, calls[i].function);
        EXPECT_EQ(lines[i].path, "Sorvel/Sources/SVFormatDescription");
        EXPECT_EQ(lines[i].message, std::string("Media type/subtype not supported: ") + messages[i]);
    }
    EXPECT_EQ(flags, 7u);
    EXPECT_EQ(h, 5);
    CFRelease(vide);
    CFRelease(soun);
}

TEST(SVTextFormatDescriptionTest, DisplayFlagsAndJustification) {
    SVFormatDescriptionRef none = textWith(nullptr);
    SVFormatDescriptionRef empty = textWith(dictionary({}));
    SVFormatDescriptionRef wrongType =
        textWith(dictionary({{kSVTextFormatDescriptionExtension_DisplayFlags, CFRetain(CFSTR("0x20"))}}));
    SVFormatDescriptionRef full =
        textWith(dictionary({{kSVTextFormatDescriptionExtension_DisplayFlags, number(0x60)},
                             {kSVTextFormatDescriptionExtension_HorizontalJustification, number(-1)},
                             {kSVTextFormatDescriptionExtension_VerticalJustification, number(0x101)}}),
                 kSVMediaType_Subtitle);
    SVFormatDescriptionRef horizontalOnly =
        textWith(dictionary({{kSVTextFormatDescriptionExtension_HorizontalJustification, number(1)}}));

    SVTextDisplayFlags flags = 7;
    for (SVFormatDescriptionRef missing : {none, empty, wrongType}) {
        EXPECT_EQ(SVTextFormatDescriptionGetDisplayFlags(missing, &flags), kSVFormatDescriptionError_ValueNotAvailable);
        EXPECT_EQ(flags, 7u) << "untouched";
    }
    EXPECT_EQ(SVTextFormatDescriptionGetDisplayFlags(full, &flags), 0);
    EXPECT_EQ(flags, 0x60u);
    EXPECT_EQ(SVTextFormatDescriptionGetDisplayFlags(full, nullptr), 0);

    SVTextJustificationValue h = 9, v = 9;
    EXPECT_EQ(SVTextFormatDescriptionGetJustification(full, &h, &v), 0);
    EXPECT_EQ(h, -1);
    EXPECT_EQ(v, 1) << "truncated to 8 bits";
    h = v = 9;
    EXPECT_EQ(SVTextFormatDescriptionGetJustification(horizontalOnly, &h, &v),
              kSVFormatDescriptionError_ValueNotAvailable);
    EXPECT_EQ(h, 1) << "written before the vertical value was found missing";
    EXPECT_EQ(v, 9);
    EXPECT_EQ(SVTextFormatDescriptionGetJustification(empty, &h, &v), kSVFormatDescriptionError_ValueNotAvailable);
    for (auto d : {none, empty, wrongType, full, horizontalOnly}) CFRelease(d);
}

TEST(SVTextFormatDescriptionTest, DefaultTextBoxGeometry) {
    auto withBox = [](int top, int left, int bottom, int right) {
        return textWith(dictionary({{kSVTextFormatDescriptionExtension_DefaultTextBox,
                                     dictionary({{kSVTextFormatDescriptionRect_Top, number(top)},
                                                 {kSVTextFormatDescriptionRect_Left, number(left)},
                                                 {kSVTextFormatDescriptionRect_Bottom, number(bottom)},
                                                 {kSVTextFormatDescriptionRect_Right, number(right)}})}}));
    };
    const struct {
        int top, left, bottom, right;
        bool topLeft;
        Float32 trackHeight;
        Float32 width, height;
    } cases[] = {
        {10, 20, 110, 220, true, 0, 200, 100},
        {110, 20, 10, 220, false, 60, 200, 60},                   // clamped to the track
        {110, 20, 10, 220, false, 500, 200, 100},                 // not clamped
        {110, 20, 10, 220, false, 60.9f, 200, 60},                // track height truncated
        {10, 20, 110, 220, true, 5, 200, 100},                    // no clamp from the top left
        {10, 220, 110, 20, true, 0, -200, 100},                   // reversed edges give negative sizes
        {0, INT32_MIN, 0, INT32_MAX, true, 0, 4294967295.0f, 0},  // no overflow
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.top << " " << c.left << " " << c.bottom << " " << c.right);
        SVFormatDescriptionRef desc = withBox(c.top, c.left, c.bottom, c.right);
        SVTextRect box = {{7, 7}, {7, 7}};
        ASSERT_EQ(SVTextFormatDescriptionGetDefaultTextBox(desc, c.topLeft, c.trackHeight, &box), 0);
        EXPECT_EQ(box.origin.x, 0);
        EXPECT_EQ(box.origin.y, 0);
        EXPECT_EQ(box.size.width, c.width);
        EXPECT_EQ(box.size.height, c.height);
        CFRelease(desc);
    }
    SVFormatDescriptionRef noRight =
        textWith(dictionary({{kSVTextFormatDescriptionExtension_DefaultTextBox,
                              dictionary({{kSVTextFormatDescriptionRect_Top, number(1)},
                                          {kSVTextFormatDescriptionRect_Left, number(1)},
                                          {kSVTextFormatDescriptionRect_Bottom, number(1)}})}}));
    SVFormatDescriptionRef notADictionary =
        textWith(dictionary({{kSVTextFormatDescriptionExtension_DefaultTextBox, number(3)}}));
    SVTextRect box = {};
    EXPECT_EQ(SVTextFormatDescriptionGetDefaultTextBox(noRight, true, 0, &box),
              kSVFormatDescriptionError_ValueNotAvailable);
    EXPECT_EQ(SVTextFormatDescriptionGetDefaultTextBox(notADictionary, true, 0, &box),
              kSVFormatDescriptionError_ValueNotAvailable);
    CFRelease(noRight);
    CFRelease(notADictionary);
}

TEST(SVTextFormatDescriptionTest, DefaultStyleAndFontNames) {
    SVFormatDescriptionRef desc =
        textWith(dictionary({{kSVTextFormatDescriptionExtension_DefaultStyle,
                              dictionary({{kSVTextFormatDescriptionStyle_Font, number(3)},
                                          {kSVTextFormatDescriptionStyle_FontSize, number(24)},
                                          {kSVTextFormatDescriptionStyle_FontFace, number(7)},
                                          {kSVTextFormatDescriptionStyle_ForegroundColor,
                                           dictionary({{kSVTextFormatDescriptionColor_Red, number(255)},
                                                       {kSVTextFormatDescriptionColor_Green, number(128)},
                                                       {kSVTextFormatDescriptionColor_Blue, number(0)},
                                                       {kSVTextFormatDescriptionColor_Alpha, number(255)}})}})},
                             {kSVTextFormatDescriptionExtension_FontTable,
                              dictionary({{CFSTR("3"), CFRetain(CFSTR("Serif"))}, {CFSTR("5"), number(5)}})}}));
    LogCapture capture(4);
    uint16_t font = 0;
    Boolean bold = true, italic = true, underline = true;
    Float32 size = 0, color[4] = {};
    ASSERT_EQ(SVTextFormatDescriptionGetDefaultStyle(desc, &font, &bold, &italic, &underline, &size, color), 0);
    EXPECT_EQ(font, 3);
    EXPECT_EQ(size, 24.0f);
    EXPECT_FALSE(bold || italic || underline) << "the face bits are not read";
    EXPECT_EQ(color[0], 255.0f) << "unscaled";
    EXPECT_EQ(color[1], 128.0f);
    EXPECT_EQ(color[2], 0.0f);
    EXPECT_EQ(color[3], 255.0f);
    ASSERT_EQ(capture.count(), 1u);
    EXPECT_EQ(capture.lines()[0].level, 4);
    EXPECT_EQ(capture.lines()[0].function, "SVTextFormatDescriptionGetDefaultStyle");
    EXPECT_EQ(capture.lines()[0].message,
              "SVTextFormatDescriptionGetDefaultStyle bold/italic/underline values currently hardcoded to false");

    CFStringRef name = CFSTR("untouched");
    EXPECT_EQ(SVTextFormatDescriptionGetFontName(desc, 3, &name), 0);
    EXPECT_EQ(text(name), "Serif");
    EXPECT_EQ(SVTextFormatDescriptionGetFontName(desc, 4, &name), 0);
    EXPECT_EQ(name, nullptr);
    name = CFSTR("x");
    EXPECT_EQ(SVTextFormatDescriptionGetFontName(desc, 5, &name), 0);
    EXPECT_EQ(name, nullptr) << "a value that is not a string names no font";
    EXPECT_EQ(SVTextFormatDescriptionGetFontName(desc, 3, nullptr), kSVFormatDescriptionError_InvalidParameter);
    CFRelease(desc);

    // No colour: the colour output is left alone; no style or font table:
    // not available.
    SVFormatDescriptionRef plain =
        textWith(dictionary({{kSVTextFormatDescriptionExtension_DefaultStyle,
                              dictionary({{kSVTextFormatDescriptionStyle_Font, number(1)},
                                          {kSVTextFormatDescriptionStyle_FontSize, number(12)}})}}));
    Float32 kept[4] = {1, 2, 3, 4};
    EXPECT_EQ(SVTextFormatDescriptionGetDefaultStyle(plain, &font, nullptr, nullptr, nullptr, &size, kept), 0);
    EXPECT_EQ(kept[3], 4.0f);
    EXPECT_EQ(SVTextFormatDescriptionGetFontName(plain, 1, &name), kSVFormatDescriptionError_ValueNotAvailable);
    SVFormatDescriptionRef none = textWith(nullptr);
    EXPECT_EQ(SVTextFormatDescriptionGetDefaultStyle(none, &font, nullptr, nullptr, nullptr, nullptr, nullptr),
              kSVFormatDescriptionError_ValueNotAvailable);
    CFRelease(plain);
    CFRelease(none);
}

// ---- stops ---------------------------------------------------------------------------------

using SVFormatDescriptionDeathTest = testing::Test;

std::string stop(const char *function, const char *path = "Sorvel/Sources/SVFormatDescription") {
    return std::string(function) + " \\[" + path + ":[0-9]+\\] NOT YET IMPLEMENTED";
}

TEST(SVFormatDescriptionDeathTest, EqualityOfTypesWithoutAPayloadRuleStops) {
    for (SVMediaType type : {'text', 'tmcd', 'clcp', 'muxx'}) {
        SVFormatDescriptionRef a = create(type, 'abcd'), b = create(type, 'abcd');
        EXPECT_DEATH(SVFormatDescriptionEqual(a, b), stop("SVFormatDescriptionEqual"));
        EXPECT_DEATH(CFEqual(a, b), stop("SVFormatDescriptionEqual"));
        CFRelease(a);
        CFRelease(b);
    }
    EXPECT_DEATH(SVFormatDescriptionEqualIgnoringExtensionKeys(nullptr, nullptr, nullptr, nullptr),
                 stop("SVFormatDescriptionEqualIgnoringExtensionKeys"));
}

TEST(SVFormatDescriptionDeathTest, TextGateStopsForUnimplementedTextFormats) {
    SVFormatDescriptionRef webVTT = create('sbtl', 'wvtt'), qtText = create('text', 'text'),
                           captions = create('clcp', 'c608');
    SVTextDisplayFlags flags;
    CFStringRef name;
    EXPECT_DEATH(SVTextFormatDescriptionGetDisplayFlags(webVTT, &flags),
                 stop("SVTextFormatDescriptionGetDisplayFlags"));
    EXPECT_DEATH(SVTextFormatDescriptionGetJustification(qtText, nullptr, nullptr),
                 stop("SVTextFormatDescriptionGetJustification"));
    EXPECT_DEATH(SVTextFormatDescriptionGetFontName(captions, 1, &name), stop("SVTextFormatDescriptionGetFontName"));
    CFRelease(webVTT);
    CFRelease(qtText);
    CFRelease(captions);
}

// One entry point of each group that is not implemented.
TEST(SVFormatDescriptionDeathTest, EachUnimplementedGroupStops) {
    const char *bridge = "Sorvel/Sources/SVFormatDescriptionBridge";
    uint8_t bytes[64] = {};
    EXPECT_DEATH(SVMuxedFormatDescriptionCreate(nullptr, kSVMuxedStreamType_MPEG2Transport, nullptr, nullptr),
                 stop("SVMuxedFormatDescriptionCreate"));
    EXPECT_DEATH(SVTimeCodeFormatDescriptionGetFrameDuration(nullptr),
                 stop("SVTimeCodeFormatDescriptionGetFrameDuration"));
    EXPECT_DEATH(SVMetadataFormatDescriptionGetIdentifiers(nullptr), stop("SVMetadataFormatDescriptionGetIdentifiers"));
    EXPECT_DEATH(SVAudioFormatDescriptionCreateFromBigEndianSoundDescriptionData(nullptr, bytes, 64, nullptr, nullptr),
                 stop("SVAudioFormatDescriptionCreateFromBigEndianSoundDescriptionData", bridge));
    EXPECT_DEATH(SVSwapHostEndianImageDescriptionToBig(bytes, 64),
                 stop("SVSwapHostEndianImageDescriptionToBig", bridge));
    EXPECT_DEATH(SVTextFormatDescriptionCopyAsBigEndianTextDescriptionBlockBuffer(nullptr, nullptr, nullptr, nullptr),
                 stop("SVTextFormatDescriptionCopyAsBigEndianTextDescriptionBlockBuffer", bridge));
    EXPECT_DEATH(SVSwapBigEndianClosedCaptionDescriptionToHost(bytes, 64),
                 stop("SVSwapBigEndianClosedCaptionDescriptionToHost", bridge));
    EXPECT_DEATH(
        SVTimeCodeFormatDescriptionCreateFromBigEndianTimeCodeDescriptionData(nullptr, bytes, 64, nullptr, nullptr),
        stop("SVTimeCodeFormatDescriptionCreateFromBigEndianTimeCodeDescriptionData", bridge));
    EXPECT_DEATH(SVMetadataFormatDescriptionCreateFromBigEndianMetadataDescriptionBlockBuffer(nullptr, nullptr, nullptr,
                                                                                              nullptr),
                 stop("SVMetadataFormatDescriptionCreateFromBigEndianMetadataDescriptionBlockBuffer", bridge));
}

}  // namespace
