// SPDX-License-Identifier: Apache-2.0
// Strings: non-ASCII text and surrogate pairs in lengths, indices and C-string
// access; equality and hashing across every storage form; encodings (round
// trips, malformed input, external representations and loss bytes);
// formatting against snprintf plus %@, %C, %S and positional arguments;
// comparison and search; mutation across the 8-bit/UTF-16 storage switch;
// allocation failure; and the fatal stops.
#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "support/TestAllocator.h"

namespace {

using sorvel_test::TestAllocator;

constexpr CFStringEncoding kUTF8 = kCFStringEncodingUTF8, kUTF16 = kCFStringEncodingUTF16,
                           kUTF16BE = kCFStringEncodingUTF16BE, kUTF16LE = kCFStringEncodingUTF16LE,
                           kUTF32BE = kCFStringEncodingUTF32BE, kUTF32LE = kCFStringEncodingUTF32LE;

template <typename T>
struct Ref {  // owns one reference
    explicit Ref(T value = nullptr) : value(value) {}
    ~Ref() {
        if (value) CFRelease(value);
    }
    Ref(const Ref &) = delete;
    T get() const { return value; }
    operator T() const { return value; }
    T value;
};

// The text as UTF-8 (a lone surrogate shows as '?').
std::string utf8(CFStringRef string) {
    if (string == nullptr) return "<NULL>";
    std::string out(static_cast<size_t>(CFStringGetLength(string)) * 3, '\0');  // at most 3 bytes per unit
    CFIndex used = 0;
    CFStringGetBytes(string, CFRangeMake(0, CFStringGetLength(string)), kUTF8, '?', false,
                     reinterpret_cast<UInt8 *>(out.data()), static_cast<CFIndex>(out.size()), &used);
    return out.substr(0, static_cast<size_t>(used));
}

// Releases a created string and gives back its text.
std::string take(CFStringRef string) {
    Ref<CFStringRef> owned(string);
    return utf8(owned);
}
#define FORMAT(format, ...) take(CFStringCreateWithFormat(nullptr, nullptr, CFSTR(format), __VA_ARGS__))

std::u16string unitsOf(CFStringRef string) {
    std::u16string units(static_cast<size_t>(CFStringGetLength(string)), u'\0');
    CFStringGetCharacters(string, CFRangeMake(0, CFStringGetLength(string)), reinterpret_cast<UniChar *>(units.data()));
    return units;
}

CFStringRef make(const char *text) {
    return CFStringCreateWithCString(nullptr, text, kUTF8);
}

CFStringRef makeUnits(const std::u16string &units) {
    return CFStringCreateWithCharacters(nullptr, reinterpret_cast<const UniChar *>(units.data()),
                                        static_cast<CFIndex>(units.size()));
}

CFStringRef fromBytes(const std::vector<uint8_t> &bytes, CFStringEncoding encoding, bool external = false) {
    return CFStringCreateWithBytes(nullptr, bytes.data(), static_cast<CFIndex>(bytes.size()), encoding, external);
}

// ---- Text, storage forms, equality -------------------------------------------

TEST(CFString, CreatedAndLiteralTextAgreeOnUnitsAndCStrings) {
    // Non-ASCII literals are emitted as UTF-16.
    struct Case {
        const char *utf8;
        std::u16string units;
        CFStringRef literal;
    };
    const Case cases[] = {
        {"", u"", CFSTR("")},
        {"plain", u"plain", CFSTR("plain")},
        {"h\xC3\xA9llo", u"h\u00E9llo", CFSTR("h\u00E9llo")},
        {"\xE2\x82\xAC"
         "100",
         u"\u20AC100", CFSTR("\u20AC100")},
        {"\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", u"\u65E5\u672C\u8A9E", CFSTR("\u65E5\u672C\u8A9E")},
        {"a\xF0\x9F\x98\x80z", u"a\U0001F600z", CFSTR("a\U0001F600z")},  // the emoji counts two units
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.utf8);
        Ref<CFStringRef> string(make(c.utf8));
        ASSERT_NE(string.get(), nullptr);
        for (CFStringRef s : {string.get(), c.literal}) {
            EXPECT_EQ(unitsOf(s), c.units);
            for (size_t i = 0; i < c.units.size(); ++i)
                EXPECT_EQ(CFStringGetCharacterAtIndex(s, static_cast<CFIndex>(i)), c.units[i]) << i;
        }

        // Exactly enough room (text + NUL) succeeds; one byte less fails.
        const CFIndex size = static_cast<CFIndex>(std::strlen(c.utf8) + 1);
        char buffer[32];
        EXPECT_TRUE(CFStringGetCString(string, buffer, size, kUTF8));
        EXPECT_STREQ(buffer, c.utf8);
        EXPECT_FALSE(CFStringGetCString(string, buffer, size - 1, kUTF8));

        // Only ASCII text is stored as bytes that can be handed out directly.
        const bool ascii = std::all_of(c.units.begin(), c.units.end(), [](char16_t u) { return u < 0x80; });
        const char *direct = CFStringGetCStringPtr(string, kUTF8);
        EXPECT_EQ(direct != nullptr, ascii);
        if (direct) EXPECT_STREQ(direct, c.utf8);
        EXPECT_EQ(CFStringGetCStringPtr(c.literal, kCFStringEncodingMacRoman) != nullptr, ascii);
        EXPECT_EQ(CFStringGetCString(string, buffer, sizeof buffer, kCFStringEncodingASCII), ascii);
    }
}

// A constant string whose first word points at another library's
// __CFConstantStringClassReference (the one a program bound to, when that
// library came first) is still a string: the runtime recognises the layout,
// not the address.
TEST(CFString, ConstantStringsAreRecognisedWhateverAnchorTheyPointAt) {
    static const int otherAnchor[24] = {0};
    struct {
        const int *isa;
        int32_t flags;
        const char *chars;
        long length;
    } const literal = {otherAnchor, 0x07C8, "Width", 5};
    auto string = reinterpret_cast<CFStringRef>(&literal);
    EXPECT_EQ(CFGetTypeID(string), CFStringGetTypeID());
    EXPECT_EQ(CFStringGetLength(string), 5);
    EXPECT_TRUE(CFEqual(string, CFSTR("Width")));
    EXPECT_EQ(CFHash(string), CFHash(CFSTR("Width")));
    // Immortal like every constant string: retain and release change nothing.
    const CFIndex count = CFGetRetainCount(string);
    CFRelease(CFRetain(string));
    EXPECT_EQ(CFGetRetainCount(string), count);
    EXPECT_EQ(CFRetain(CFSTR("Width")), CFSTR("Width"));
    CFRelease(CFSTR("Width"));
}

TEST(CFString, EqualAndHashAcrossStorageForms) {
    for (CFStringRef literal : {CFSTR("key"), CFSTR("a longer dictionary key, 33 chars"), CFSTR(""),
                                CFSTR("caf\u00E9 \u20AC"), CFSTR("\U0001F600!")}) {
        const std::u16string units = unitsOf(literal);
        std::vector<uint8_t> be;
        for (char16_t u : units) be.insert(be.end(), {static_cast<uint8_t>(u >> 8), static_cast<uint8_t>(u)});
        // A mutable string that went UTF-16 and then lost its only non-ASCII
        // character: ASCII text held in UTF-16 storage.
        CFMutableStringRef widened = CFStringCreateMutable(nullptr, 0);
        CFStringAppend(widened, CFSTR("\u00FF"));
        CFStringAppend(widened, literal);
        CFStringDelete(widened, CFRangeMake(0, 1));
        if (CFStringGetLength(literal) > 0)  // an emptied string goes back to bytes
            EXPECT_EQ(CFStringGetCStringPtr(widened, kCFStringEncodingASCII), nullptr) << "UTF-16 storage expected";
        const CFStringRef forms[] = {static_cast<CFStringRef>(CFRetain(literal)), makeUnits(units),
                                     CFStringCreateMutableCopy(nullptr, 0, literal),
                                     fromBytes(be, kCFStringEncodingUTF16BE), widened};
        for (CFStringRef a : forms)
            for (CFStringRef b : forms) {
                ASSERT_TRUE(a && b);
                EXPECT_TRUE(CFEqual(a, b)) << utf8(a);
                EXPECT_EQ(CFHash(a), CFHash(b)) << utf8(a);
            }
        for (CFStringRef form : forms) CFRelease(form);
    }
    // Different texts differ, also in different storage forms. An embedded
    // NUL is content, and the literal (emitted as UTF-16) equals the same
    // bytes created as ASCII.
    Ref<CFStringRef> a(make("key1")), b(make("key2")), prefix(make("key"));
    Ref<CFStringRef> withNul(fromBytes({'a', 0, 'b'}, kCFStringEncodingASCII));
    EXPECT_FALSE(CFEqual(a, b) || CFEqual(a, prefix) || CFEqual(withNul, CFSTR("a")) ||
                 CFEqual(a, CFSTR("key\u00E9")) || CFEqual(CFSTR("\u00E9ey1"), a));
    EXPECT_NE(CFHash(a), CFHash(b));
    EXPECT_NE(CFHash(a), CFHash(prefix));
    EXPECT_EQ(CFStringGetLength(withNul), 3);
    EXPECT_TRUE(CFEqual(withNul, CFSTR("a\0b")));
    EXPECT_EQ(CFHash(withNul), CFHash(CFSTR("a\0b")));
}

TEST(CFString, CopiesOfImmutableStringsAreTheStringItself) {
    Ref<CFStringRef> string(make("same"));
    Ref<CFStringRef> copy(CFStringCreateCopy(nullptr, string));
    Ref<CFStringRef> whole(CFStringCreateWithSubstring(nullptr, string, CFRangeMake(0, 4)));
    EXPECT_EQ(copy.get(), string.get());
    EXPECT_EQ(whole.get(), string.get());
    Ref<CFStringRef> part(CFStringCreateWithSubstring(nullptr, CFSTR("x\u00E9yz"), CFRangeMake(2, 2)));
    EXPECT_STREQ(CFStringGetCStringPtr(part, kUTF8), "yz");  // narrowed to bytes

    // A copy of a mutable string is independent of later mutation.
    Ref<CFMutableStringRef> mutableString(CFStringCreateMutableCopy(nullptr, 0, string));
    Ref<CFStringRef> snapshot(CFStringCreateCopy(nullptr, mutableString));
    EXPECT_NE(snapshot.get(), static_cast<CFStringRef>(mutableString.get()));
    CFStringAppend(mutableString, CFSTR("!"));
    EXPECT_EQ(utf8(snapshot), "same");
    EXPECT_EQ(utf8(mutableString), "same!");
    EXPECT_EQ(take(CFCopyDescription(string)), "same");  // the description is the text itself
}

TEST(CFString, LoneSurrogatesFailUTF8AndShowReplaced) {
    Ref<CFStringRef> high(
        makeUnits(u"a\xD800"
                  "b\u00E9")),
        low(makeUnits(u"\xDC00x"));
    char buffer[16];
    EXPECT_FALSE(CFStringGetCString(high, buffer, sizeof buffer, kUTF8));
    EXPECT_FALSE(CFStringGetCString(low, buffer, sizeof buffer, kUTF8));
    ::testing::internal::CaptureStderr();
    CFShow(high);
    CFShow(low);
    CFShow(nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "a\xEF\xBF\xBD"
              "b\xC3\xA9\n\xEF\xBF\xBDx\n(null)\n");
}

// ---- Encodings ---------------------------------------------------------------

TEST(CFString, DecodingCreatesTextOrFails) {
    // Overlong forms, surrogates, values above U+10FFFF, truncation, stray and
    // bad continuation bytes, bytes the encoding lacks, odd lengths, refused
    // and unknown encodings.
    const std::pair<std::vector<uint8_t>, CFStringEncoding> malformed[] = {
        {{0xC0, 0xAF}, kUTF8},
        {{0xE0, 0x80, 0xAF}, kUTF8},
        {{0xF0, 0x8F, 0xBF, 0xBF}, kUTF8},
        {{0xED, 0xA0, 0x80}, kUTF8},
        {{0xF4, 0x90, 0x80, 0x80}, kUTF8},
        {{'a', 0xE2, 0x82}, kUTF8},
        {{'a', 0x80}, kUTF8},
        {{0xC3, 0x28}, kUTF8},
        {{0xFF}, kUTF8},
        {{'a', 0x80}, kCFStringEncodingASCII},
        {{0x81}, kCFStringEncodingWindowsLatin1},
        {{0x00, 'A', 0x00}, kUTF16BE},
        {{0, 0, 0xD8, 0x00}, kUTF32BE},
        {{0, 0x11, 0, 0}, kUTF32BE},
        {{0, 0, 0}, kUTF32BE},
        {{'a'}, kCFStringEncodingNextStepLatin},
        {{'a'}, 0x7777},
    };
    for (const auto &[bytes, encoding] : malformed)
        EXPECT_EQ(take(fromBytes(bytes, encoding)), "<NULL>") << ::testing::PrintToString(bytes) << " in " << encoding;

    struct Case {
        std::vector<uint8_t> bytes;
        CFStringEncoding encoding;
        bool external;
        std::u16string units;
    };
    const Case valid[] = {
        {{0xC3, 0xA9}, kUTF8, false, u"\u00E9"},
        {{0xF0, 0x9F, 0x98, 0x80}, kUTF8, false, u"\U0001F600"},
        {{0xF4, 0x8F, 0xBF, 0xBF}, kUTF8, false, u"\U0010FFFF"},
        {{0xEF, 0xBB, 0xBF, 'h', 'i'}, kUTF8, true, u"hi"},   // a mark is dropped from external text
        {{0xEF, 0xBB, 0xBF, 'h'}, kUTF8, false, u"\uFEFFh"},  // and kept otherwise
        {{0xE9, 0xFF}, kCFStringEncodingISOLatin1, false, u"\u00E9\u00FF"},
        {{0x80, 0x9F, 0xE9}, kCFStringEncodingWindowsLatin1, false, u"\u20AC\u0178\u00E9"},
        {{0x80, 0xDB, 0xF0, 0xFF}, kCFStringEncodingMacRoman, false, u"\u00C4\u20AC\uF8FF\u02C7"},
        {{0x00, 'A', 0x20, 0xAC}, kUTF16BE, false, u"A\u20AC"},
        {{'A', 0x00, 0xAC, 0x20}, kUTF16LE, false, u"A\u20AC"},
        {{0xFF, 0xFE, 'A', 0x00}, kUTF16, true, u"A"},
        {{0xFE, 0xFF, 0x00, 'A'}, kUTF16, true, u"A"},
        {{0x00, 'A', 0x00, 'B'}, kUTF16, true, u"AB"},  // external without a mark is big-endian
        {{0xD8, 0x3D, 0xDE, 0x00}, kUTF16BE, false, u"\U0001F600"},
        {{0xDC, 0x00, 0x00, 'x'}, kUTF16BE, false, u"\xDC00x"},  // a lone surrogate is kept
        {{0, 0x01, 0xF6, 0x00}, kUTF32BE, false, u"\U0001F600"},
        {{0xAC, 0x20, 0, 0}, kUTF32LE, false, u"\u20AC"},
        {{0, 0, 0xFE, 0xFF, 0, 0, 0, 'A'}, kCFStringEncodingUTF32, true, u"A"},
        {{'a', '\\', 'u', '2', '0', 'a', 'c', '\\', '3', '5', '1', '\\', '\\'},
         kCFStringEncodingNonLossyASCII,
         false,
         u"a\u20AC\u00E9\\"},
    };
    for (const Case &c : valid) {
        SCOPED_TRACE(::testing::Message() << ::testing::PrintToString(c.bytes) << " in " << c.encoding);
        Ref<CFStringRef> string(fromBytes(c.bytes, c.encoding, c.external));
        ASSERT_NE(string.get(), nullptr);
        EXPECT_EQ(unitsOf(string), c.units);
    }
}

TEST(CFString, EveryEncodingRoundTripsWhatItCanRepresent) {
    CFStringRef wide = CFSTR("\u20AC\U0001F600");
    const std::pair<CFStringEncoding, CFStringRef> cases[] = {
        {kUTF8, CFSTR("a\u00E9\u20AC\U0001F600")},
        {kCFStringEncodingASCII, CFSTR("plain ASCII ~")},
        {kCFStringEncodingISOLatin1, CFSTR("\u00C0\u00E9\u00FF\u0080")},
        {kCFStringEncodingWindowsLatin1, CFSTR("\u20AC\u201C\u0178\u00E9")},
        {kCFStringEncodingMacRoman, CFSTR("\u00C4\u2020\u03C0\uF8FF\u02C7")},
        {kCFStringEncodingNonLossyASCII, CFSTR("a\\b\u00E9\u20AC")},
        {kUTF16, wide},
        {kUTF16BE, wide},
        {kUTF16LE, wide},
        {kCFStringEncodingUTF32, wide},
        {kUTF32BE, wide},
        {kUTF32LE, wide},
    };
    for (auto [encoding, text] : cases) {
        SCOPED_TRACE(::testing::Message() << std::hex << encoding);
        Ref<CFDataRef> data(CFStringCreateExternalRepresentation(nullptr, text, encoding, 0));
        ASSERT_NE(data.get(), nullptr);
        Ref<CFStringRef> back(CFStringCreateFromExternalRepresentation(nullptr, data, encoding));
        EXPECT_TRUE(back && CFEqual(back, text)) << utf8(back);

        // The same through GetBytes without a mark and CreateWithBytes.
        const CFRange all = CFRangeMake(0, CFStringGetLength(text));
        CFIndex needed = 0, used = 0;
        EXPECT_EQ(CFStringGetBytes(text, all, encoding, 0, false, nullptr, 0, &needed), all.length);
        ASSERT_LE(needed, CFStringGetMaximumSizeForEncoding(all.length, encoding));
        std::vector<uint8_t> bytes(static_cast<size_t>(needed));
        EXPECT_EQ(CFStringGetBytes(text, all, encoding, 0, false, bytes.data(), needed, &used), all.length);
        EXPECT_EQ(used, needed);
        Ref<CFStringRef> again(fromBytes(bytes, encoding));
        EXPECT_TRUE(again && CFEqual(again, text));
    }
    // Every non-NUL Latin-1 and MacRoman byte and every defined CP1252 byte survives.
    std::vector<uint8_t> all, cp1252;
    for (int b = 1; b < 256; ++b) {
        all.push_back(static_cast<uint8_t>(b));
        if (b != 0x81 && b != 0x8D && b != 0x8F && b != 0x90 && b != 0x9D) cp1252.push_back(static_cast<uint8_t>(b));
    }
    for (auto [encoding, input] :
         {std::pair{kCFStringEncodingISOLatin1, all}, std::pair{kCFStringEncodingMacRoman, all},
          std::pair{kCFStringEncodingWindowsLatin1, cp1252}}) {
        Ref<CFStringRef> string(fromBytes(input, encoding));
        char out[256];
        ASSERT_TRUE(string && CFStringGetCString(string, out, sizeof out, encoding));
        EXPECT_EQ(std::string(out), std::string(input.begin(), input.end())) << std::hex << encoding;
    }
}

TEST(CFString, ExternalRepresentationMarksAndLossBytes) {
    auto external = [](CFStringRef text, CFStringEncoding encoding, UInt8 lossByte = 0) {
        Ref<CFDataRef> data(CFStringCreateExternalRepresentation(nullptr, text, encoding, lossByte));
        return data ? std::string(reinterpret_cast<const char *>(CFDataGetBytePtr(data)), CFDataGetLength(data))
                    : "<NULL>";
    };
    CFStringRef text = CFSTR("A\u20AC");
    const bool little = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
    EXPECT_EQ(external(text, kUTF16), little ? std::string("\xFF\xFE"
                                                           "A\0\xAC\x20",
                                                           6)
                                             : std::string("\xFE\xFF\0A\x20\xAC", 6));
    EXPECT_EQ(external(text, kCFStringEncodingUTF32).size(), 12u);
    EXPECT_EQ(external(text, kUTF16BE), std::string("\0A\x20\xAC", 4));  // no mark in an explicit byte order
    EXPECT_EQ(external(text, kUTF8), "A\xE2\x82\xAC");
    // Unrepresentable characters: no data, or one loss byte per character.
    EXPECT_EQ(external(text, kCFStringEncodingASCII), "<NULL>");
    EXPECT_EQ(external(CFSTR("a\u20ACb\U0001F600"), kCFStringEncodingISOLatin1, '?'), "a?b?");

    Ref<CFDataRef> noMark(CFDataCreate(nullptr, reinterpret_cast<const UInt8 *>("\0A\0B"), 4));
    EXPECT_EQ(take(CFStringCreateFromExternalRepresentation(nullptr, noMark, kUTF16)), "AB");
}

TEST(CFString, GetBytesStopsAtWholeCharacters) {
    // {characters converted, bytes used, the bytes}
    auto get = [](CFStringRef text, CFIndex length, CFStringEncoding encoding, UInt8 lossByte, bool external,
                  CFIndex maxBytes) {
        UInt8 buffer[16];
        CFIndex used = -1;
        CFIndex converted = CFStringGetBytes(text, CFRangeMake(0, length), encoding, lossByte, external,
                                             maxBytes ? buffer : nullptr, maxBytes, &used);
        return std::tuple(converted, used, std::string(reinterpret_cast<char *>(buffer), maxBytes ? used : 0));
    };
    using R = std::tuple<CFIndex, CFIndex, std::string>;
    CFStringRef text = CFSTR("ab\U0001F600c");                   // 5 units; the emoji is 4 UTF-8 bytes
    EXPECT_EQ(get(text, 5, kUTF8, 0, false, 5), R(2, 2, "ab"));  // the emoji does not fit and is not split
    EXPECT_EQ(get(text, 5, kUTF8, 0, false, 6), R(4, 6, "ab\xF0\x9F\x98\x80"));
    // A range ending between the surrogates leaves a lone high surrogate,
    // which UTF-8 carries only as a loss byte.
    EXPECT_EQ(get(text, 3, kUTF8, 0, false, 16), R(2, 2, "ab"));
    EXPECT_EQ(get(text, 3, kUTF8, '?', false, 16), R(3, 3, "ab?"));
    EXPECT_EQ(get(text, 5, kCFStringEncodingASCII, 0, false, 16), R(2, 2, "ab"));
    EXPECT_EQ(get(text, 5, kCFStringEncodingASCII, '_', false, 16), R(5, 4, "ab_c"));
    // External UTF-16 counts the mark; a buffer too small for it converts nothing.
    EXPECT_EQ(get(CFSTR("x"), 1, kUTF16, 0, true, 0), R(1, 4, ""));
    EXPECT_EQ(get(CFSTR("x"), 1, kUTF16, 0, true, 1), R(0, 0, ""));
}

TEST(CFString, MaximumSizeForEncoding) {
    const std::tuple<CFIndex, CFStringEncoding, CFIndex> cases[] = {
        {10, kUTF8, 30},
        {10, kUTF16, 20},
        {10, kUTF16LE, 20},
        {10, kUTF32BE, 40},
        {10, kCFStringEncodingMacRoman, 10},
        {0, kUTF8, 0},
        {LONG_MAX, kCFStringEncodingASCII, LONG_MAX},
        {LONG_MAX / 3 + 1, kUTF8, kCFNotFound},
        {LONG_MAX / 4 + 1, kCFStringEncodingUTF32, kCFNotFound},  // overflow
    };
    for (auto [length, encoding, size] : cases)
        EXPECT_EQ(CFStringGetMaximumSizeForEncoding(length, encoding), size) << length << " in " << encoding;
}

// ---- Formatting --------------------------------------------------------------

#define EXPECT_LIKE_SNPRINTF(format, ...)                                        \
    do {                                                                         \
        char expected[512];                                                      \
        std::snprintf(expected, sizeof expected, format, __VA_ARGS__);           \
        EXPECT_EQ(FORMAT(format, __VA_ARGS__), expected) << "format " << format; \
    } while (0)

TEST(CFStringFormat, PrintfConversionsMatchSnprintf) {
    EXPECT_LIKE_SNPRINTF("%d|%i|%u|%o|%x|%X|%d|%d", -42, 42, 42u, 42u, 0xBEEFu, 0xBEEFu, INT_MIN, INT_MAX);
    EXPECT_LIKE_SNPRINTF("[%5d][%-5d][%05d][%+d][% d][%.3d][%8.3d]", 42, 42, 42, 42, 42, 7, -7);
    EXPECT_LIKE_SNPRINTF("[%#o][%#x][%#X][%.0d][%+.0d]", 8u, 255u, 255u, 0, 0);
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat"  // the truncation to char and short is the point
    EXPECT_LIKE_SNPRINTF("%hhd %hhu %hd %hu", 300, 300, 70000, 70000);
#pragma clang diagnostic pop
    EXPECT_LIKE_SNPRINTF("%ld %lu %lld %llu", LONG_MIN, ULONG_MAX, LLONG_MIN, ULLONG_MAX);
    EXPECT_LIKE_SNPRINTF("%jd %zu %zd %td %lx", INTMAX_MIN, SIZE_MAX, static_cast<ssize_t>(-1),
                         static_cast<ptrdiff_t>(-5), 0xFFFFFFFFFFUL);
    EXPECT_LIKE_SNPRINTF("[%*d][%-*d][%.*d][%*.*d]", 6, 1, 6, 2, 4, 3, 7, 3, 4);
    EXPECT_LIKE_SNPRINTF("[%*d][%.*d]", -6, 1, -1, 5);  // negative width left-aligns; negative precision is none
    EXPECT_LIKE_SNPRINTF("%f|%F|%e|%E|%g|%G|%a|%A", 3.25, 3.25, 12345.678, 12345.678, 0.0001, 1e20, 1.0, 1.0);
    EXPECT_LIKE_SNPRINTF("[%10.3f][%-10.2e][%+.0f][%#.0f][%010.2f]", 3.14159, 2.5, 2.5, 2.0, -1.5);
    EXPECT_LIKE_SNPRINTF("%f %f %F %e", INFINITY, -INFINITY, NAN, 0.0);
    EXPECT_LIKE_SNPRINTF("%Lf %Le %.20Lg", 1.5L, 1e300L * 1e300L, 1.0L / 3);
    EXPECT_LIKE_SNPRINTF("%.*f|%*.*g", 2, 1.005, 12, 4, 123456.0);
    EXPECT_LIKE_SNPRINTF("[%c][%3c][%-3c]%%", 'a', 'b', 'c');
    EXPECT_LIKE_SNPRINTF("[%s][%8s][%-8s][%.2s][%8.3s]", "abc", "abc", "abc", "abc", "abcdef");
    void *p = &p;
    EXPECT_LIKE_SNPRINTF("%p|%20p|%-20p|", p, p, p);

    EXPECT_EQ(FORMAT("%qd %qx", -1LL, 255ULL), "-1 ff");
    EXPECT_EQ(FORMAT("%s|%p|%S", static_cast<char *>(nullptr), static_cast<void *>(nullptr),
                     static_cast<const UniChar *>(nullptr)),
              "(null)|0x0|(null)");
    const char unterminated[3] = {'x', 'y', 'z'};
    EXPECT_EQ(FORMAT("%.3s", unterminated), "xyz");  // a precision lets %s read text without a NUL
}

// Precision on %S and %@ is defined here (it counts UTF-16 units), and some
// conversions below are refused or malformed on purpose.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat"
#pragma clang diagnostic ignored "-Wformat-extra-args"

// %s never fails on bad UTF-8: a byte that does not start a valid sequence
// stands for its Latin-1 character, and only a sequence the precision cut
// in half is dropped (one the text itself cuts short is kept as Latin-1).
TEST(CFStringFormat, BadUTF8InPercentSIsTakenAsLatin1) {
    const struct {
        const char *format;
        const char *argument;
        const char *expected;  // UTF-8
    } cases[] = {
        {"[%s]", "\xFF", "[\xC3\xBF]"},                                      // never a lead byte
        {"[%s]", "\x80z", "[\xC2\x80z]"},                                    // a stray continuation byte
        {"[%s]", "\xC0\x80", "[\xC3\x80\xC2\x80]"},                          // overlong NUL
        {"[%s]", "\xED\xA0\x80", "[\xC3\xAD\xC2\xA0\xC2\x80]"},              // a surrogate
        {"[%s]", "\xF4\x90\x80\x80", "[\xC3\xB4\xC2\x90\xC2\x80\xC2\x80]"},  // above U+10FFFF
        {"[%s]", "\xE2\x82", "[\xC3\xA2\xC2\x82]"},                          // the text ends mid-sequence
        {"[%s]", "\xE2(\xAC", "[\xC3\xA2(\xC2\xAC]"},                        // a missing continuation
        {"[%.2s]", "\xE2\x82\xAC", "[]"},                                    // the precision cuts it
        {"[%.4s]", "\xF0\x9F\x8E\xB5!", "[\xF0\x9F\x8E\xB5]"},               // a whole 4-byte sequence
    };
    for (const auto &c : cases) {
        Ref<CFStringRef> format(CFStringCreateWithCString(nullptr, c.format, kUTF8));
        EXPECT_EQ(take(CFStringCreateWithFormat(nullptr, nullptr, format, c.argument)), c.expected)
            << c.format << " with " << c.argument;
    }
}

TEST(CFStringFormat, UnicodeConversionsCountUTF16Units) {
    const UniChar units[] = {'h', 0x00E9, 0x20AC, 0};
    EXPECT_EQ(FORMAT("[%C][%3C][%S][%5S][%.2S]", 0x20AC, 'x', units, units, units),
              "[\xE2\x82\xAC][  x][h\xC3\xA9\xE2\x82\xAC][  h\xC3\xA9\xE2\x82\xAC][h\xC3\xA9]");
    // %s takes UTF-8; its width counts characters, its precision bytes (and
    // never leaves half a character behind).
    EXPECT_EQ(FORMAT("[%4s][%.2s][%.3s]", "\xC3\xA9", "a\xC3\xA9", "a\xC3\xA9"), "[   \xC3\xA9][a][a\xC3\xA9]");
    // The format itself may be non-ASCII; "l" makes %c and %s take UniChars.
    EXPECT_EQ(FORMAT("\u2192%d\u2190 %ls %lc", 5, units, 0x20AC),
              "\xE2\x86\x92"
              "5\xE2\x86\x90 h\xC3\xA9\xE2\x82\xAC \xE2\x82\xAC");
}

// %@ prefers the formatting description, then the debug one, then the
// runtime's default "<ClassName 0x... [0x...]>".
CFStringRef formattedDescription(CFTypeRef, CFDictionaryRef) {
    return CFSTR("formatted");
}
CFStringRef debugDescription(CFTypeRef) {
    return CFSTR("debug");
}
const CFRuntimeClass kBareClass = {0, "TestBareObject", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
const CFRuntimeClass kDescribedClass = {0,       "TestDescribedObject", nullptr,         nullptr, nullptr, nullptr,
                                        nullptr, formattedDescription,  debugDescription};
const CFRuntimeClass kDebugOnlyClass = {0,       "TestDebugOnlyObject", nullptr, nullptr, nullptr, nullptr, nullptr,
                                        nullptr, debugDescription};

template <const CFRuntimeClass *cls>
CFTypeRef createInstance() {
    static const CFTypeID typeID = _CFRuntimeRegisterClass(cls);
    return _CFRuntimeCreateInstance(nullptr, typeID, 8, nullptr);
}

TEST(CFStringFormat, ObjectConversion) {
    Ref<CFTypeRef> bare(createInstance<&kBareClass>()), described(createInstance<&kDescribedClass>()),
        debugOnly(createInstance<&kDebugOnlyClass>());
    Ref<CFStringRef> nonASCII(make("\xC3\xA9t\xC3\xA9"));
    char expected[256];
    std::snprintf(expected, sizeof expected, "text|\xC3\xA9t\xC3\xA9|(null)|formatted|debug|<TestBareObject %p [%p]>",
                  bare.get(), static_cast<const void *>(kCFAllocatorSystemDefault));
    EXPECT_EQ(FORMAT("%@|%@|%@|%@|%@|%@", CFSTR("text"), nonASCII.get(), static_cast<CFTypeRef>(nullptr),
                     described.get(), debugOnly.get(), bare.get()),
              expected);
    // Width and precision work on the text as with %s, in UTF-16 units.
    EXPECT_EQ(FORMAT("[%6@][%-6@][%.2@][%5.1@][%*@]", nonASCII.get(), CFSTR("ab"), nonASCII.get(), CFSTR("xyz"), 4,
                     static_cast<CFTypeRef>(nullptr)),
              "[   \xC3\xA9t\xC3\xA9][ab    ][\xC3\xA9t][    x][(null)]");
}

TEST(CFStringFormat, PositionalRefusedAndMalformedConversions) {
    EXPECT_EQ(FORMAT("%2$s %1$d %3$.1f %2$s %1$05d", 7, "two", 2.25), "two 7 2.2 two 00007");
    EXPECT_EQ(FORMAT("[%2$*1$d][%3$@]", 5, 42, CFSTR("x")), "[   42][x]");  // width from a positional argument
    int written = 12345;
    EXPECT_EQ(FORMAT("a%nb%d", &written, 9), "ab9");  // %n consumed its pointer, wrote nothing
    EXPECT_EQ(written, 12345);
    EXPECT_EQ(FORMAT("%y|%d|%5%|%", 3), "%y|3|%|%");
    EXPECT_EQ(FORMAT("%99999$d|%d", 4), "%99999$d|4");
}

#pragma clang diagnostic pop

TEST(CFStringFormat, AppendFormatAndLongOutput) {
    Ref<CFMutableStringRef> m(CFStringCreateMutable(nullptr, 0));
    CFStringAppendFormat(m, nullptr, CFSTR("%d,"), 1);
    CFStringAppendFormat(m, nullptr, CFSTR("%@"), CFSTR("\u00E9"));
    CFStringAppendFormat(m, nullptr, CFSTR("%300d"), 2);
    EXPECT_EQ(utf8(m), "1,\xC3\xA9" + std::string(299, ' ') + "2");
}

// ---- Comparison and search -------------------------------------------------

TEST(CFString, CompareTable) {
    struct Case {
        CFStringRef a, b;
        CFStringCompareFlags options;
        CFComparisonResult expected;
    };
    const CFStringCompareFlags kCaseless = kCFCompareCaseInsensitive, kNumeric = kCFCompareNumerically;
    const CFComparisonResult kLess = kCFCompareLessThan, kEqual = kCFCompareEqualTo, kGreater = kCFCompareGreaterThan;
    const Case cases[] = {
        {CFSTR("abc"), CFSTR("abc"), 0, kEqual},
        {CFSTR("abc"), CFSTR("abd"), 0, kLess},
        {CFSTR("abc"), CFSTR("ab"), 0, kGreater},
        {CFSTR(""), CFSTR("a"), 0, kLess},
        {CFSTR("ABC"), CFSTR("abc"), 0, kLess},
        {CFSTR("ABC"), CFSTR("abc"), kCaseless, kEqual},
        {CFSTR("\u00C9T\u00C9"), CFSTR("\u00E9t\u00E9"), kCaseless, kEqual},
        {CFSTR("\u00D7"), CFSTR("\u00F7"), kCaseless, kLess},  // not letters
        {CFSTR("z"), CFSTR("\u00E9"), 0, kLess},               // by UTF-16 unit
        {CFSTR("\u00E9"), CFSTR("e\u0301"), 0, kGreater},      // literal: no normalisation
        {CFSTR("file10"), CFSTR("file9"), 0, kLess},
        {CFSTR("file10"), CFSTR("file9"), kNumeric, kGreater},
        {CFSTR("v2.10.1"), CFSTR("v2.9.7"), kNumeric, kGreater},
        {CFSTR("a007b"), CFSTR("a7c"), kNumeric, kLess},
        {CFSTR("File10"), CFSTR("file010"), kNumeric | kCaseless, kEqual},
        {CFSTR("abc"), CFSTR("ABC"), kCFCompareLocalized | kCFCompareNonliteral, kGreater},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(utf8(c.a) + " vs " + utf8(c.b));
        EXPECT_EQ(CFStringCompare(c.a, c.b, c.options), c.expected);
        EXPECT_EQ(CFStringCompare(c.b, c.a, c.options), -c.expected);
    }
    EXPECT_EQ(CFStringCompareWithOptions(CFSTR("xxabcxx"), CFSTR("abc"), CFRangeMake(2, 3), 0), kCFCompareEqualTo);
    EXPECT_EQ(CFStringCompareWithOptions(CFSTR("xxabcxx"), CFSTR("abc"), CFRangeMake(2, 4), 0), kCFCompareGreaterThan);
}

TEST(CFString, FindTable) {
    struct Case {
        CFStringRef haystack, needle;
        CFStringCompareFlags options;
        CFIndex location;
    };
    const CFStringCompareFlags kAnchored = kCFCompareAnchored, kBackwards = kCFCompareBackwards;
    CFStringRef abcabc = CFSTR("abcabc");
    const Case cases[] = {
        {abcabc, CFSTR("bc"), 0, 1},
        {abcabc, CFSTR("bc"), kBackwards, 4},
        {abcabc, CFSTR("BC"), 0, kCFNotFound},
        {abcabc, CFSTR("BC"), kCFCompareCaseInsensitive, 1},
        {abcabc, CFSTR("abc"), kAnchored, 0},
        {abcabc, CFSTR("bc"), kAnchored, kCFNotFound},
        {abcabc, CFSTR("bc"), kAnchored | kBackwards, 4},
        {abcabc, CFSTR("ab"), kAnchored | kBackwards, kCFNotFound},
        {CFSTR("abc"), CFSTR(""), 0, kCFNotFound},
        {CFSTR(""), CFSTR("a"), 0, kCFNotFound},
        {CFSTR("ab"), CFSTR("abc"), 0, kCFNotFound},
        {CFSTR("x\U0001F600y"), CFSTR("y"), 0, 3},
        {CFSTR("x\U0001F600y\u00E9"), CFSTR("y\u00C9"), kCFCompareCaseInsensitive, 3},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(::testing::Message() << utf8(c.haystack) << " / " << utf8(c.needle) << " " << c.options);
        CFRange found = CFStringFind(c.haystack, c.needle, c.options);
        EXPECT_EQ(found.location, c.location);
        EXPECT_EQ(found.length, c.location == kCFNotFound ? 0 : CFStringGetLength(c.needle));
    }
    CFRange result = CFRangeMake(-7, -7);
    EXPECT_TRUE(CFStringFindWithOptions(abcabc, CFSTR("a"), CFRangeMake(1, 5), 0, &result));
    EXPECT_EQ(result.location, 3);
    EXPECT_FALSE(CFStringFindWithOptions(abcabc, CFSTR("c"), CFRangeMake(3, 2), 0, &result));
    EXPECT_TRUE(CFStringFindWithOptions(abcabc, CFSTR("b"), CFRangeMake(0, 3), kBackwards, &result));
    EXPECT_EQ(result.location, 1);

    EXPECT_TRUE(CFStringHasPrefix(CFSTR("prefix.rest"), CFSTR("prefix")));
    EXPECT_TRUE(CFStringHasSuffix(CFSTR("prefix.rest"), CFSTR(".rest")));
    EXPECT_FALSE(CFStringHasPrefix(CFSTR("prefix.rest"), CFSTR("rest")) ||
                 CFStringHasSuffix(CFSTR("rest"), CFSTR("prefix.rest")) || CFStringHasPrefix(CFSTR("abc"), CFSTR("")));
}

// ---- Mutation ------------------------------------------------------------------

TEST(CFStringMutable, AppendSwitchesStorageOnlyWhenNeeded) {
    Ref<CFMutableStringRef> m(CFStringCreateMutable(nullptr, 0));
    EXPECT_STREQ(CFStringGetCStringPtr(m, kUTF8), "");
    std::string expected;
    for (int i = 0; i < 100; ++i, expected += "ab") CFStringAppendCString(m, "ab", kCFStringEncodingASCII);
    EXPECT_STREQ(CFStringGetCStringPtr(m, kUTF8), expected.c_str());  // through several capacity steps

    CFStringAppendCString(m, "\xC3\xA9", kUTF8);
    EXPECT_EQ(CFStringGetCStringPtr(m, kUTF8), nullptr);
    const UniChar emoji[] = {0xD83D, 0xDE00};
    CFStringAppendCharacters(m, emoji, 2);
    CFStringAppend(m, CFSTR("\u20AC"));
    expected += "\xC3\xA9\xF0\x9F\x98\x80\xE2\x82\xAC";
    EXPECT_EQ(CFStringGetLength(m), 200 + 1 + 2 + 1);
    EXPECT_EQ(utf8(m), expected);
    CFStringAppend(m, m);                     // appending a string to itself doubles it
    CFStringAppendCString(m, "\xFF", kUTF8);  // invalid UTF-8 leaves the string unchanged
    EXPECT_EQ(utf8(m), expected + expected);

    // Replacing with ASCII goes back to bytes.
    CFStringReplaceAll(m, CFSTR("short"));
    EXPECT_STREQ(CFStringGetCStringPtr(m, kCFStringEncodingASCII), "short");
    CFStringAppend(m, CFSTR("er"));
    EXPECT_STREQ(CFStringGetCStringPtr(m, kCFStringEncodingASCII), "shorter");

    // Text taken from the string's own bytes survives the buffer moving.
    Ref<CFMutableStringRef> self(CFStringCreateMutableCopy(nullptr, 0, CFSTR("0123456789abcdef")));
    for (int i = 0; i < 6; ++i)
        CFStringAppendCString(self, CFStringGetCStringPtr(self, kCFStringEncodingASCII) + 10, kCFStringEncodingASCII);
    EXPECT_EQ(CFStringGetLength(self), 16 + 6 + 12 + 24 + 48 + 96 + 192);
    EXPECT_TRUE(CFStringHasSuffix(self, CFSTR("abcdefabcdef")));
}

TEST(CFStringMutable, DeleteAtBoundaries) {
    Ref<CFMutableStringRef> m(CFStringCreateMutableCopy(nullptr, 0, CFSTR("0123456789")));
    const std::pair<CFRange, const char *> steps[] = {
        {{0, 2}, "23456789"}, {{6, 2}, "234567"}, {{2, 2}, "2367"}, {{4, 0}, "2367"}, {{0, 4}, ""}};
    for (auto [range, rest] : steps) {
        CFStringDelete(m, range);
        EXPECT_STREQ(CFStringGetCStringPtr(m, kCFStringEncodingASCII), rest);
    }
    Ref<CFMutableStringRef> wide(CFStringCreateMutableCopy(nullptr, 0, CFSTR("a\u00E9b\u20ACc")));
    CFStringDelete(wide, CFRangeMake(1, 3));
    EXPECT_EQ(unitsOf(wide), u"ac");
    EXPECT_TRUE(CFEqual(wide, CFSTR("ac")));
}

// ---- Allocation failure ----------------------------------------------------

TEST(CFString, AllocationFailureReturnsNullAndLeaksNothing) {
    TestAllocator failing;
    failing.failAlways();
    EXPECT_EQ(CFStringCreateWithCString(failing.get(), "abc", kUTF8), nullptr);
    EXPECT_EQ(CFStringCreateWithCString(failing.get(), "\xC3\xA9", kUTF8), nullptr);
    EXPECT_EQ(CFStringCreateWithCharacters(failing.get(), reinterpret_cast<const UniChar *>(u"x"), 1), nullptr);
    EXPECT_EQ(CFStringCreateMutable(failing.get(), 0), nullptr);
    EXPECT_EQ(CFStringCreateWithFormat(failing.get(), nullptr, CFSTR("%d"), 5), nullptr);
    EXPECT_EQ(CFStringCreateWithSubstring(failing.get(), CFSTR("abc"), CFRangeMake(1, 1)), nullptr);
    EXPECT_EQ(CFStringCreateExternalRepresentation(failing.get(), CFSTR("abc"), kUTF8, 0), nullptr);
    EXPECT_GT(failing.failures(), 6);

    // The instance succeeds, its buffer does not: the instance is given back.
    TestAllocator second;
    second.failAfter(1);
    EXPECT_EQ(CFStringCreateMutableCopy(second.get(), 0, CFSTR("abc")), nullptr);
    EXPECT_EQ(second.allocations(), 1);
    EXPECT_EQ(second.outstanding(), 0);

    // Storage made through an allocator goes back through it.
    TestAllocator counting;
    {
        Ref<CFMutableStringRef> m(CFStringCreateMutable(counting.get(), 0));
        for (int i = 0; i < 50; ++i) CFStringAppend(m, CFSTR("\u00E9xyz"));
        EXPECT_EQ(CFGetAllocator(m), counting.get());
        EXPECT_GE(counting.outstanding(), 2);
    }
    EXPECT_EQ(counting.outstanding(), 0);
}

// ---- Fatal stops -------------------------------------------------------------

TEST(CFStringDeathTest, MisuseIsFatal) {
    Ref<CFStringRef> abc(make("abc"));
    Ref<CFDataRef> data(CFDataCreate(nullptr, nullptr, 0));
    Ref<CFMutableStringRef> empty(CFStringCreateMutable(nullptr, 0)), limited(CFStringCreateMutable(nullptr, 4));
    CFStringAppend(limited, CFSTR("abcd"));
    EXPECT_EQ(CFStringGetLength(limited), 4);
    CFMutableStringRef immutable = const_cast<CFMutableStringRef>(abc.get());
    CFMutableStringRef literal = const_cast<CFMutableStringRef>(CFSTR("lit"));
    UniChar buffer[8];
    EXPECT_DEATH(CFStringGetLength(nullptr), "CFStringGetLength.*NULL");
    EXPECT_DEATH(CFStringGetLength(reinterpret_cast<CFStringRef>(data.get())), "CFStringGetLength.*not a CFString");
    EXPECT_DEATH(CFStringGetCharacterAtIndex(abc, 3), "CFStringGetCharacterAtIndex.*index 3 is out of bounds");
    EXPECT_DEATH(CFStringGetCharacterAtIndex(abc, -1), "CFStringGetCharacterAtIndex.*index -1");
    EXPECT_DEATH(CFStringGetCharacters(abc, CFRangeMake(2, 2), buffer),
                 "CFStringGetCharacters.*range \\{2, 2\\} is out of bounds");
    EXPECT_DEATH(CFStringCreateWithSubstring(nullptr, abc, CFRangeMake(-1, 1)), "CFStringCreateWithSubstring");
    EXPECT_DEATH(CFStringFindWithOptions(abc, CFSTR("a"), CFRangeMake(0, 4), 0, nullptr),
                 "CFStringFindWithOptions.*out of bounds");
    EXPECT_DEATH(CFStringAppend(immutable, CFSTR("x")), "CFStringAppend.*immutable");
    EXPECT_DEATH(CFStringAppendCString(literal, "x", kUTF8), "CFStringAppendCString.*immutable");
    EXPECT_DEATH(CFStringAppendFormat(literal, nullptr, CFSTR("%d"), 1), "CFStringAppendFormat.*immutable");
    EXPECT_DEATH(CFStringDelete(empty, CFRangeMake(0, 1)), "CFStringDelete.*out of bounds");
    EXPECT_DEATH(CFStringAppend(empty, nullptr), "CFStringAppend.*NULL");
    EXPECT_DEATH(CFStringCreateWithCString(nullptr, nullptr, kUTF8), "CFStringCreateWithCString.*cStr");
    EXPECT_DEATH(CFStringAppend(limited, CFSTR("e")), "CFStringAppend.*beyond its maximum 4");
    EXPECT_DEATH(CFStringCreateMutableCopy(nullptr, 3, CFSTR("abcd")), "CFStringCreateMutableCopy.*maxLength 3");
    TestAllocator allocator;  // a mutation that cannot allocate cannot report it
    Ref<CFMutableStringRef> starved(CFStringCreateMutable(allocator.get(), 0));
    allocator.failAlways();
    EXPECT_DEATH(CFStringAppend(starved, CFSTR("abc")), "CFStringAppend.*out of memory");
}

}  // namespace
