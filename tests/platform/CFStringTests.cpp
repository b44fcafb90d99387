// Strings: non-ASCII text and surrogate pairs in lengths, indices and C-string
// access; equality and hashing across every storage form; encodings (round
// trips, malformed input, external representations and loss bytes);
// formatting against snprintf plus %@, %C, %S and positional arguments;
// comparison and search; mutation across the 8-bit/UTF-16 storage switch;
// allocation failure; and the fatal stops.
#include <CoreFoundation/CoreFoundation.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/TestAllocator.h"

namespace {

using sorvel_test::TestAllocator;

// Owns one reference.
template <typename T>
class Ref {
public:
    explicit Ref(T value = nullptr) : value_(value) {}
    ~Ref() {
        if (value_) CFRelease(value_);
    }
    Ref(const Ref &) = delete;
    Ref &operator=(const Ref &) = delete;
    T get() const { return value_; }
    operator T() const { return value_; }

private:
    T value_;
};

// The text as UTF-8 (a lone surrogate shows as '?').
std::string utf8(CFStringRef string) {
    if (string == nullptr) return "<NULL>";
    const CFRange all = CFRangeMake(0, CFStringGetLength(string));
    CFIndex size = 0;
    CFStringGetBytes(string, all, kCFStringEncodingUTF8, '?', false, nullptr, 0, &size);
    std::string out(static_cast<size_t>(size), '\0');
    CFStringGetBytes(string, all, kCFStringEncodingUTF8, '?', false, reinterpret_cast<UInt8 *>(out.data()), size,
                     &size);
    return out;
}

std::u16string unitsOf(CFStringRef string) {
    std::u16string units(static_cast<size_t>(CFStringGetLength(string)), u'\0');
    CFStringGetCharacters(string, CFRangeMake(0, CFStringGetLength(string)), reinterpret_cast<UniChar *>(units.data()));
    return units;
}

CFStringRef make(const char *text) { return CFStringCreateWithCString(nullptr, text, kCFStringEncodingUTF8); }

CFStringRef makeUnits(const std::u16string &units) {
    return CFStringCreateWithCharacters(nullptr, reinterpret_cast<const UniChar *>(units.data()),
                                        static_cast<CFIndex>(units.size()));
}

CFStringRef fromBytes(const std::vector<uint8_t> &bytes, CFStringEncoding encoding, bool external = false) {
    return CFStringCreateWithBytes(nullptr, bytes.data(), static_cast<CFIndex>(bytes.size()), encoding, external);
}

std::vector<uint8_t> bytesOf(CFDataRef data) {
    const UInt8 *p = CFDataGetBytePtr(data);
    return std::vector<uint8_t>(p, p + CFDataGetLength(data));
}

// ---- Non-ASCII text ----------------------------------------------------------

struct TextCase {
    const char *utf8;
    std::u16string units;
};

class NonASCIIText : public ::testing::TestWithParam<TextCase> {};

TEST_P(NonASCIIText, LengthIndicesCharactersAndCStrings) {
    const TextCase &c = GetParam();
    Ref<CFStringRef> string(make(c.utf8));
    ASSERT_NE(string.get(), nullptr);
    ASSERT_EQ(CFStringGetLength(string), static_cast<CFIndex>(c.units.size()));
    EXPECT_EQ(unitsOf(string), c.units);
    for (size_t i = 0; i < c.units.size(); ++i)
        EXPECT_EQ(CFStringGetCharacterAtIndex(string, static_cast<CFIndex>(i)), c.units[i]) << i;

    // Exactly enough room (text + NUL) succeeds; one byte less fails.
    const size_t size = std::strlen(c.utf8) + 1;
    std::vector<char> buffer(size + 8, 'x');
    EXPECT_TRUE(CFStringGetCString(string, buffer.data(), static_cast<CFIndex>(size), kCFStringEncodingUTF8));
    EXPECT_STREQ(buffer.data(), c.utf8);
    EXPECT_FALSE(CFStringGetCString(string, buffer.data(), static_cast<CFIndex>(size - 1), kCFStringEncodingUTF8));

    // Only ASCII text is stored as bytes that can be handed out directly.
    const bool ascii = std::all_of(c.units.begin(), c.units.end(), [](char16_t u) { return u < 0x80; });
    const char *direct = CFStringGetCStringPtr(string, kCFStringEncodingUTF8);
    if (ascii) {
        ASSERT_NE(direct, nullptr);
        EXPECT_STREQ(direct, c.utf8);
    } else {
        EXPECT_EQ(direct, nullptr);
        EXPECT_FALSE(
            CFStringGetCString(string, buffer.data(), static_cast<CFIndex>(buffer.size()), kCFStringEncodingASCII));
    }
}

INSTANTIATE_TEST_SUITE_P(Texts, NonASCIIText,
                         ::testing::Values(TextCase{"", u""}, TextCase{"plain", u"plain"},
                                           TextCase{"h\xC3\xA9llo", u"h\u00E9llo"},
                                           TextCase{"\xE2\x82\xAC"
                                                    "100",
                                                    u"\u20AC100"},
                                           TextCase{"\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", u"\u65E5\u672C\u8A9E"},
                                           TextCase{"a\xF0\x9F\x98\x80z", u"a\U0001F600z"}));

TEST(CFString, NonASCIILiteralIsUTF16AndMatchesCreatedText) {
    CFStringRef literal = CFSTR("h\u00E9llo\u20AC\U0001F600");
    EXPECT_EQ(CFStringGetLength(literal), 8);  // the emoji counts two units
    EXPECT_EQ(CFStringGetCharacterAtIndex(literal, 6), 0xD83D);
    EXPECT_EQ(CFStringGetCharacterAtIndex(literal, 7), 0xDE00);
    EXPECT_EQ(CFStringGetCStringPtr(literal, kCFStringEncodingUTF8), nullptr);
    Ref<CFStringRef> created(make("h\xC3\xA9llo\xE2\x82\xAC\xF0\x9F\x98\x80"));
    EXPECT_TRUE(CFEqual(literal, created));
    EXPECT_EQ(CFHash(literal), CFHash(created));
    EXPECT_EQ(utf8(literal), "h\xC3\xA9llo\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_STREQ(CFStringGetCStringPtr(CFSTR("ascii"), kCFStringEncodingMacRoman), "ascii");
}

// ---- Equality and hashing across storage forms -----------------------------

// The same text made every way the library can store it.
std::vector<CFStringRef> storageForms(CFStringRef literal) {
    std::vector<CFStringRef> forms;
    std::u16string units = unitsOf(literal);
    forms.push_back(static_cast<CFStringRef>(CFRetain(literal)));
    forms.push_back(makeUnits(units));
    forms.push_back(CFStringCreateMutableCopy(nullptr, 0, literal));
    std::vector<uint8_t> be;
    for (char16_t u : units) {
        be.push_back(static_cast<uint8_t>(u >> 8));
        be.push_back(static_cast<uint8_t>(u));
    }
    forms.push_back(fromBytes(be, kCFStringEncodingUTF16BE));
    // A mutable string that went UTF-16 and then lost its only non-ASCII
    // character: ASCII text held in UTF-16 storage.
    CFMutableStringRef widened = CFStringCreateMutable(nullptr, 0);
    CFStringAppend(widened, CFSTR("\u00FF"));
    CFStringAppend(widened, literal);
    CFStringDelete(widened, CFRangeMake(0, 1));
    forms.push_back(widened);
    return forms;
}

TEST(CFString, EqualAndHashAcrossStorageForms) {
    for (CFStringRef literal : {CFSTR("key"), CFSTR("a longer dictionary key, 33 chars"), CFSTR(""),
                                CFSTR("caf\u00E9 \u20AC"), CFSTR("\U0001F600!")}) {
        std::vector<CFStringRef> forms = storageForms(literal);
        if (CFStringGetLength(literal) > 0)  // an emptied string goes back to bytes
            EXPECT_EQ(CFStringGetCStringPtr(forms.back(), kCFStringEncodingASCII), nullptr)
                << "UTF-16 storage expected";
        for (CFStringRef a : forms) {
            ASSERT_NE(a, nullptr);
            for (CFStringRef b : forms) {
                EXPECT_TRUE(CFEqual(a, b)) << utf8(a);
                EXPECT_EQ(CFHash(a), CFHash(b)) << utf8(a);
            }
        }
        for (CFStringRef form : forms) CFRelease(form);
    }
}

TEST(CFString, DifferentTextsDifferAndHashApart) {
    Ref<CFStringRef> a(make("key1")), b(make("key2")), prefix(make("key"));
    EXPECT_FALSE(CFEqual(a, b));
    EXPECT_FALSE(CFEqual(a, prefix));
    EXPECT_NE(CFHash(a), CFHash(b));
    EXPECT_NE(CFHash(a), CFHash(prefix));
    // An embedded NUL is content: "a\0b" differs from "a", and the literal
    // (emitted as UTF-16) equals the same bytes created as ASCII.
    Ref<CFStringRef> withNul(
        CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8 *>("a\0b"), 3, kCFStringEncodingASCII, false));
    EXPECT_EQ(CFStringGetLength(withNul), 3);
    EXPECT_TRUE(CFEqual(withNul, CFSTR("a\0b")));
    EXPECT_EQ(CFHash(withNul), CFHash(CFSTR("a\0b")));
    EXPECT_FALSE(CFEqual(withNul, CFSTR("a")));
}

TEST(CFString, CopiesOfImmutableStringsAreTheStringItself) {
    Ref<CFStringRef> string(make("same"));
    Ref<CFStringRef> copy(CFStringCreateCopy(nullptr, string));
    EXPECT_EQ(copy.get(), string.get());
    Ref<CFStringRef> whole(CFStringCreateWithSubstring(nullptr, string, CFRangeMake(0, 4)));
    EXPECT_EQ(whole.get(), string.get());
    Ref<CFStringRef> part(CFStringCreateWithSubstring(nullptr, CFSTR("x\u00E9yz"), CFRangeMake(2, 2)));
    EXPECT_EQ(utf8(part), "yz");
    EXPECT_NE(CFStringGetCStringPtr(part, kCFStringEncodingUTF8), nullptr);  // narrowed to bytes

    // A copy of a mutable string is independent of later mutation.
    Ref<CFMutableStringRef> mutableString(CFStringCreateMutableCopy(nullptr, 0, string));
    Ref<CFStringRef> snapshot(CFStringCreateCopy(nullptr, mutableString));
    EXPECT_NE(snapshot.get(), static_cast<CFStringRef>(mutableString.get()));
    CFStringAppend(mutableString, CFSTR("!"));
    EXPECT_EQ(utf8(snapshot), "same");
    EXPECT_EQ(utf8(mutableString), "same!");

    // The description of a string is its text.
    Ref<CFStringRef> description(CFCopyDescription(string));
    EXPECT_TRUE(CFEqual(description, string));
}

TEST(CFString, ShowPrintsTextWithLoneSurrogatesReplaced) {
    Ref<CFStringRef> lone(
        makeUnits(u"a\xD800"
                  "b\u00E9"));
    ::testing::internal::CaptureStderr();
    CFShow(lone);
    CFShow(nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "a\xEF\xBF\xBD"
              "b\xC3\xA9\n(null)\n");
}

// ---- Encodings ---------------------------------------------------------------

struct DecodeCase {
    const char *name;
    std::vector<uint8_t> bytes;
    CFStringEncoding encoding;
    bool external;
    const char *expected;  // UTF-8, or nullptr when creation must fail
};

class Decoding : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(Decoding, CreatesTextOrFails) {
    const DecodeCase &c = GetParam();
    Ref<CFStringRef> string(fromBytes(c.bytes, c.encoding, c.external));
    if (c.expected == nullptr) {
        EXPECT_EQ(string.get(), nullptr) << utf8(string);
    } else {
        ASSERT_NE(string.get(), nullptr);
        EXPECT_EQ(utf8(string), c.expected);
    }
}

constexpr CFStringEncoding kUTF8 = kCFStringEncodingUTF8;

INSTANTIATE_TEST_SUITE_P(
    Table, Decoding,
    ::testing::Values(
        DecodeCase{"utf8_two_byte", {0xC3, 0xA9}, kUTF8, false, "\xC3\xA9"},
        DecodeCase{"utf8_four_byte", {0xF0, 0x9F, 0x98, 0x80}, kUTF8, false, "\xF0\x9F\x98\x80"},
        DecodeCase{"utf8_max_scalar", {0xF4, 0x8F, 0xBF, 0xBF}, kUTF8, false, "\xF4\x8F\xBF\xBF"},
        DecodeCase{"utf8_overlong_slash", {0xC0, 0xAF}, kUTF8, false, nullptr},
        DecodeCase{"utf8_overlong_three", {0xE0, 0x80, 0xAF}, kUTF8, false, nullptr},
        DecodeCase{"utf8_overlong_four", {0xF0, 0x8F, 0xBF, 0xBF}, kUTF8, false, nullptr},
        DecodeCase{"utf8_surrogate", {0xED, 0xA0, 0x80}, kUTF8, false, nullptr},
        DecodeCase{"utf8_above_max", {0xF4, 0x90, 0x80, 0x80}, kUTF8, false, nullptr},
        DecodeCase{"utf8_truncated", {'a', 0xE2, 0x82}, kUTF8, false, nullptr},
        DecodeCase{"utf8_stray_continuation", {'a', 0x80}, kUTF8, false, nullptr},
        DecodeCase{"utf8_bad_continuation", {0xC3, 0x28}, kUTF8, false, nullptr},
        DecodeCase{"utf8_ff", {0xFF}, kUTF8, false, nullptr},
        DecodeCase{"utf8_bom_external", {0xEF, 0xBB, 0xBF, 'h', 'i'}, kUTF8, true, "hi"},
        DecodeCase{"utf8_bom_kept_internal", {0xEF, 0xBB, 0xBF, 'h'}, kUTF8, false, "\xEF\xBB\xBFh"},
        DecodeCase{"ascii_high_byte", {'a', 0x80}, kCFStringEncodingASCII, false, nullptr},
        DecodeCase{"latin1_high", {0xE9, 0xFF}, kCFStringEncodingISOLatin1, false, "\xC3\xA9\xC3\xBF"},
        DecodeCase{
            "cp1252_euro", {0x80, 0x9F, 0xE9}, kCFStringEncodingWindowsLatin1, false, "\xE2\x82\xAC\xC5\xB8\xC3\xA9"},
        DecodeCase{"cp1252_undefined", {0x81}, kCFStringEncodingWindowsLatin1, false, nullptr},
        DecodeCase{"macroman",
                   {0x80, 0xDB, 0xF0, 0xFF},
                   kCFStringEncodingMacRoman,
                   false,
                   "\xC3\x84\xE2\x82\xAC\xEF\xA3\xBF\xCB\x87"},
        DecodeCase{"utf16be", {0x00, 'A', 0x20, 0xAC}, kCFStringEncodingUTF16BE, false, "A\xE2\x82\xAC"},
        DecodeCase{"utf16le", {'A', 0x00, 0xAC, 0x20}, kCFStringEncodingUTF16LE, false, "A\xE2\x82\xAC"},
        DecodeCase{"utf16_odd_length", {0x00, 'A', 0x00}, kCFStringEncodingUTF16BE, false, nullptr},
        DecodeCase{"utf16_bom_le", {0xFF, 0xFE, 'A', 0x00}, kCFStringEncodingUTF16, true, "A"},
        DecodeCase{"utf16_bom_be", {0xFE, 0xFF, 0x00, 'A'}, kCFStringEncodingUTF16, true, "A"},
        DecodeCase{"utf16_external_no_bom_is_be", {0x00, 'A', 0x00, 'B'}, kCFStringEncodingUTF16, true, "AB"},
        DecodeCase{"utf16_pair", {0xD8, 0x3D, 0xDE, 0x00}, kCFStringEncodingUTF16BE, false, "\xF0\x9F\x98\x80"},
        DecodeCase{"utf32be", {0, 0x01, 0xF6, 0x00}, kCFStringEncodingUTF32BE, false, "\xF0\x9F\x98\x80"},
        DecodeCase{"utf32le", {0xAC, 0x20, 0, 0}, kCFStringEncodingUTF32LE, false, "\xE2\x82\xAC"},
        DecodeCase{"utf32_bom_be", {0, 0, 0xFE, 0xFF, 0, 0, 0, 'A'}, kCFStringEncodingUTF32, true, "A"},
        DecodeCase{"utf32_surrogate", {0, 0, 0xD8, 0x00}, kCFStringEncodingUTF32BE, false, nullptr},
        DecodeCase{"utf32_too_large", {0, 0x11, 0, 0}, kCFStringEncodingUTF32BE, false, nullptr},
        DecodeCase{"utf32_bad_length", {0, 0, 0}, kCFStringEncodingUTF32BE, false, nullptr},
        DecodeCase{"nonlossy",
                   {'a', '\\', 'u', '2', '0', 'a', 'c', '\\', '3', '5', '1', '\\', '\\'},
                   kCFStringEncodingNonLossyASCII,
                   false,
                   "a\xE2\x82\xAC\xC3\xA9\\"},
        DecodeCase{"nextstep_refused", {'a'}, kCFStringEncodingNextStepLatin, false, nullptr},
        DecodeCase{"unknown_encoding", {'a'}, 0x7777, false, nullptr}),
    [](const ::testing::TestParamInfo<DecodeCase> &info) { return std::string(info.param.name); });

TEST(CFString, LoneSurrogateInUTF16InputIsKept) {
    Ref<CFStringRef> string(fromBytes({0xDC, 0x00, 0x00, 'x'}, kCFStringEncodingUTF16BE));
    ASSERT_NE(string.get(), nullptr);
    EXPECT_EQ(unitsOf(string), u"\xDC00x");
    char buffer[16];
    EXPECT_FALSE(CFStringGetCString(string, buffer, sizeof buffer, kCFStringEncodingUTF8));
}

TEST(CFString, EveryEncodingRoundTripsWhatItCanRepresent) {
    struct Case {
        CFStringEncoding encoding;
        CFStringRef text;
    };
    const Case cases[] = {
        {kCFStringEncodingUTF8, CFSTR("a\u00E9\u20AC\U0001F600")},
        {kCFStringEncodingASCII, CFSTR("plain ASCII ~")},
        {kCFStringEncodingISOLatin1, CFSTR("\u00C0\u00E9\u00FF\u0080")},
        {kCFStringEncodingWindowsLatin1, CFSTR("\u20AC\u201C\u0178\u00E9")},
        {kCFStringEncodingMacRoman, CFSTR("\u00C4\u2020\u03C0\uF8FF\u02C7")},
        {kCFStringEncodingNonLossyASCII, CFSTR("a\\b\u00E9\u20AC")},
        {kCFStringEncodingUTF16, CFSTR("\u20AC\U0001F600")},
        {kCFStringEncodingUTF16BE, CFSTR("\u20AC\U0001F600")},
        {kCFStringEncodingUTF16LE, CFSTR("\u20AC\U0001F600")},
        {kCFStringEncodingUTF32, CFSTR("\u20AC\U0001F600")},
        {kCFStringEncodingUTF32BE, CFSTR("\u20AC\U0001F600")},
        {kCFStringEncodingUTF32LE, CFSTR("\u20AC\U0001F600")},
    };
    for (const Case &c : cases) {
        Ref<CFDataRef> data(CFStringCreateExternalRepresentation(nullptr, c.text, c.encoding, 0));
        ASSERT_NE(data.get(), nullptr) << std::hex << c.encoding;
        Ref<CFStringRef> back(CFStringCreateFromExternalRepresentation(nullptr, data, c.encoding));
        ASSERT_NE(back.get(), nullptr) << std::hex << c.encoding;
        EXPECT_TRUE(CFEqual(back, c.text)) << std::hex << c.encoding << ": " << utf8(back);

        // The same through GetBytes without a mark and CreateWithBytes.
        CFIndex length = CFStringGetLength(c.text);
        CFIndex needed = 0;
        EXPECT_EQ(CFStringGetBytes(c.text, CFRangeMake(0, length), c.encoding, 0, false, nullptr, 0, &needed), length);
        ASSERT_LE(needed, CFStringGetMaximumSizeForEncoding(length, c.encoding));
        std::vector<uint8_t> bytes(static_cast<size_t>(needed));
        CFIndex used = 0;
        EXPECT_EQ(CFStringGetBytes(c.text, CFRangeMake(0, length), c.encoding, 0, false, bytes.data(), needed, &used),
                  length);
        EXPECT_EQ(used, needed);
        Ref<CFStringRef> again(fromBytes(bytes, c.encoding));
        ASSERT_NE(again.get(), nullptr);
        EXPECT_TRUE(CFEqual(again, c.text)) << std::hex << c.encoding;
    }
    // All 256 Latin-1 bytes and the 251 defined CP1252 bytes survive.
    std::vector<uint8_t> all, cp1252;
    for (int b = 1; b < 256; ++b) {
        all.push_back(static_cast<uint8_t>(b));
        if (b != 0x81 && b != 0x8D && b != 0x8F && b != 0x90 && b != 0x9D) cp1252.push_back(static_cast<uint8_t>(b));
    }
    for (auto [encoding, input] :
         {std::pair{kCFStringEncodingISOLatin1, all}, std::pair{kCFStringEncodingMacRoman, all},
          std::pair{kCFStringEncodingWindowsLatin1, cp1252}}) {
        Ref<CFStringRef> string(fromBytes(input, encoding));
        ASSERT_NE(string.get(), nullptr);
        std::vector<char> out(input.size() + 1);
        ASSERT_TRUE(CFStringGetCString(string, out.data(), static_cast<CFIndex>(out.size()), encoding));
        EXPECT_EQ(std::memcmp(out.data(), input.data(), input.size()), 0) << std::hex << encoding;
    }
}

TEST(CFString, ExternalRepresentationMarksAndLossBytes) {
    CFStringRef text = CFSTR("A\u20AC");
    Ref<CFDataRef> utf16(CFStringCreateExternalRepresentation(nullptr, text, kCFStringEncodingUTF16, 0));
    const bool little = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
    EXPECT_EQ(bytesOf(utf16), little ? std::vector<uint8_t>({0xFF, 0xFE, 'A', 0, 0xAC, 0x20})
                                     : std::vector<uint8_t>({0xFE, 0xFF, 0, 'A', 0x20, 0xAC}));
    Ref<CFDataRef> utf32(CFStringCreateExternalRepresentation(nullptr, text, kCFStringEncodingUTF32, 0));
    EXPECT_EQ(CFDataGetLength(utf32), 12);
    Ref<CFDataRef> be(CFStringCreateExternalRepresentation(nullptr, text, kCFStringEncodingUTF16BE, 0));
    EXPECT_EQ(bytesOf(be), std::vector<uint8_t>({0, 'A', 0x20, 0xAC}));  // no mark in an explicit byte order
    Ref<CFDataRef> utf8Data(CFStringCreateExternalRepresentation(nullptr, text, kCFStringEncodingUTF8, 0));
    EXPECT_EQ(bytesOf(utf8Data), std::vector<uint8_t>({'A', 0xE2, 0x82, 0xAC}));

    // Unrepresentable characters: substituted by the loss byte, or no data.
    EXPECT_EQ(CFStringCreateExternalRepresentation(nullptr, text, kCFStringEncodingASCII, 0), nullptr);
    Ref<CFDataRef> lossy(
        CFStringCreateExternalRepresentation(nullptr, CFSTR("a\u20ACb\U0001F600"), kCFStringEncodingISOLatin1, '?'));
    EXPECT_EQ(bytesOf(lossy), std::vector<uint8_t>({'a', '?', 'b', '?'}));  // one loss byte per character

    Ref<CFDataRef> noMark(CFDataCreate(nullptr, reinterpret_cast<const UInt8 *>("\0A\0B"), 4));
    Ref<CFStringRef> fromNoMark(CFStringCreateFromExternalRepresentation(nullptr, noMark, kCFStringEncodingUTF16));
    EXPECT_EQ(utf8(fromNoMark), "AB");
}

TEST(CFString, GetBytesStopsAtWholeCharacters) {
    CFStringRef text = CFSTR("ab\U0001F600c");  // 5 units; the emoji is 4 UTF-8 bytes
    UInt8 buffer[16];
    CFIndex used = -1;
    // Room for "ab" and 3 bytes: the emoji does not fit and is not split.
    EXPECT_EQ(CFStringGetBytes(text, CFRangeMake(0, 5), kCFStringEncodingUTF8, 0, false, buffer, 5, &used), 2);
    EXPECT_EQ(used, 2);
    EXPECT_EQ(CFStringGetBytes(text, CFRangeMake(0, 5), kCFStringEncodingUTF8, 0, false, buffer, 6, &used), 4);
    EXPECT_EQ(used, 6);
    // A range ending between the surrogates leaves a lone high surrogate,
    // which UTF-8 cannot carry: the conversion stops before it.
    EXPECT_EQ(CFStringGetBytes(text, CFRangeMake(0, 3), kCFStringEncodingUTF8, 0, false, buffer, 16, &used), 2);
    EXPECT_EQ(CFStringGetBytes(text, CFRangeMake(0, 3), kCFStringEncodingUTF8, '?', false, buffer, 16, &used), 3);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), static_cast<size_t>(used)), "ab?");
    // Unrepresentable in ASCII: stop without a loss byte, substitute with one.
    EXPECT_EQ(CFStringGetBytes(text, CFRangeMake(0, 5), kCFStringEncodingASCII, 0, false, buffer, 16, &used), 2);
    EXPECT_EQ(CFStringGetBytes(text, CFRangeMake(0, 5), kCFStringEncodingASCII, '_', false, buffer, 16, &used), 5);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), static_cast<size_t>(used)), "ab_c");
    // External UTF-16 counts the mark; a buffer too small for it converts nothing.
    EXPECT_EQ(CFStringGetBytes(CFSTR("x"), CFRangeMake(0, 1), kCFStringEncodingUTF16, 0, true, nullptr, 0, &used), 1);
    EXPECT_EQ(used, 4);
    EXPECT_EQ(CFStringGetBytes(CFSTR("x"), CFRangeMake(0, 1), kCFStringEncodingUTF16, 0, true, buffer, 1, &used), 0);
    EXPECT_EQ(used, 0);
}

TEST(CFString, MaximumSizeForEncoding) {
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(10, kCFStringEncodingUTF8), 30);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(10, kCFStringEncodingUTF16), 20);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(10, kCFStringEncodingUTF16LE), 20);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(10, kCFStringEncodingUTF32BE), 40);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(10, kCFStringEncodingMacRoman), 10);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(0, kCFStringEncodingUTF8), 0);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(LONG_MAX / 3 + 1, kCFStringEncodingUTF8), kCFNotFound);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(LONG_MAX, kCFStringEncodingASCII), LONG_MAX);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(LONG_MAX / 4 + 1, kCFStringEncodingUTF32), kCFNotFound);
}

// ---- Formatting --------------------------------------------------------------

#define EXPECT_LIKE_SNPRINTF(format, ...)                                                                \
    do {                                                                                                 \
        char expected[512];                                                                              \
        std::snprintf(expected, sizeof expected, format, __VA_ARGS__);                                   \
        Ref<CFStringRef> actual(CFStringCreateWithFormat(nullptr, nullptr, CFSTR(format), __VA_ARGS__)); \
        EXPECT_EQ(utf8(actual), expected) << "format " << format;                                        \
    } while (0)

TEST(CFStringFormat, IntegersMatchSnprintf) {
    EXPECT_LIKE_SNPRINTF("%d|%i|%u|%o|%x|%X", -42, 42, 42u, 42u, 0xBEEFu, 0xBEEFu);
    EXPECT_LIKE_SNPRINTF("[%5d][%-5d][%05d][%+d][% d][%.3d][%8.3d]", 42, 42, 42, 42, 42, 7, -7);
    EXPECT_LIKE_SNPRINTF("[%#o][%#x][%#X][%.0d][%+.0d]", 8u, 255u, 255u, 0, 0);
    EXPECT_LIKE_SNPRINTF("%d %d", INT_MIN, INT_MAX);
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat"  // the truncation to char and short is the point
    EXPECT_LIKE_SNPRINTF("%hhd %hhu %hd %hu", 300, 300, 70000, 70000);
#pragma clang diagnostic pop
    EXPECT_LIKE_SNPRINTF("%ld %lu %lld %llu", LONG_MIN, ULONG_MAX, LLONG_MIN, ULLONG_MAX);
    EXPECT_LIKE_SNPRINTF("%jd %zu %zd %td %lx", INTMAX_MIN, SIZE_MAX, static_cast<ssize_t>(-1),
                         static_cast<ptrdiff_t>(-5), 0xFFFFFFFFFFUL);
    EXPECT_LIKE_SNPRINTF("[%*d][%-*d][%.*d][%*.*d]", 6, 1, 6, 2, 4, 3, 7, 3, 4);
    EXPECT_LIKE_SNPRINTF("[%*d][%.*d]", -6, 1, -1, 5);  // negative width left-aligns; negative precision is none
    Ref<CFStringRef> quad(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%qd %qx"), -1LL, 255ULL));
    EXPECT_EQ(utf8(quad), "-1 ff");
}

TEST(CFStringFormat, FloatingPointMatchesSnprintf) {
    EXPECT_LIKE_SNPRINTF("%f|%F|%e|%E|%g|%G|%a|%A", 3.25, 3.25, 12345.678, 12345.678, 0.0001, 1e20, 1.0, 1.0);
    EXPECT_LIKE_SNPRINTF("[%10.3f][%-10.2e][%+.0f][%#.0f][%010.2f]", 3.14159, 2.5, 2.5, 2.0, -1.5);
    EXPECT_LIKE_SNPRINTF("%f %f %F %e", INFINITY, -INFINITY, NAN, 0.0);
    EXPECT_LIKE_SNPRINTF("%Lf %Le %.20Lg", 1.5L, 1e300L * 1e300L, 1.0L / 3);
    EXPECT_LIKE_SNPRINTF("%.*f|%*.*g", 2, 1.005, 12, 4, 123456.0);
}

TEST(CFStringFormat, CharactersStringsPointersAndPercent) {
    EXPECT_LIKE_SNPRINTF("[%c][%3c][%-3c]%%", 'a', 'b', 'c');
    EXPECT_LIKE_SNPRINTF("[%s][%8s][%-8s][%.2s][%8.3s]", "abc", "abc", "abc", "abc", "abcdef");
    int local = 0;
    EXPECT_LIKE_SNPRINTF("%p|%20p|%-20p|", static_cast<void *>(&local), static_cast<void *>(&local),
                         static_cast<void *>(&local));
    Ref<CFStringRef> nulls(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%s|%p|%S"), static_cast<char *>(nullptr),
                                                    static_cast<void *>(nullptr),
                                                    static_cast<const UniChar *>(nullptr)));
    EXPECT_EQ(utf8(nulls), "(null)|0x0|(null)");
    // A precision lets %s read text that is not NUL-terminated.
    const char unterminated[3] = {'x', 'y', 'z'};
    Ref<CFStringRef> bounded(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%.3s"), unterminated));
    EXPECT_EQ(utf8(bounded), "xyz");
}

#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat"  // precision on %S and %@ is defined here: it counts UTF-16 units

TEST(CFStringFormat, UnicodeConversionsCountUTF16Units) {
    const UniChar units[] = {'h', 0x00E9, 0x20AC, 0};
    Ref<CFStringRef> s(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("[%C][%3C][%S][%5S][%.2S]"), 0x20AC, 'x', units,
                                                units, units));
    EXPECT_EQ(utf8(s), "[\xE2\x82\xAC][  x][h\xC3\xA9\xE2\x82\xAC][  h\xC3\xA9\xE2\x82\xAC][h\xC3\xA9]");
    // %s takes UTF-8; its width counts characters, its precision bytes (and
    // never leaves half a character behind).
    Ref<CFStringRef> c(
        CFStringCreateWithFormat(nullptr, nullptr, CFSTR("[%4s][%.2s][%.3s]"), "\xC3\xA9", "a\xC3\xA9", "a\xC3\xA9"));
    EXPECT_EQ(utf8(c), "[   \xC3\xA9][a][a\xC3\xA9]");
    // The format itself may be non-ASCII.
    // "l" makes %c and %s take UniChars, like %C and %S.
    Ref<CFStringRef> f(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("\u2192%d\u2190 %ls %lc"), 5, units, 0x20AC));
    EXPECT_EQ(utf8(f),
              "\xE2\x86\x92"
              "5\xE2\x86\x90 h\xC3\xA9\xE2\x82\xAC \xE2\x82\xAC");
}

// A test class with neither description: %@ falls back to the runtime's
// default "<ClassName 0x... [0x...]>".
const CFRuntimeClass kBareClass = {0, "TestBareObject", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
CFStringRef formattedDescription(CFTypeRef, CFDictionaryRef) { return CFSTR("formatted"); }
CFStringRef debugDescription(CFTypeRef) { return CFSTR("debug"); }
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
    Ref<CFTypeRef> bare(createInstance<&kBareClass>());
    Ref<CFTypeRef> described(createInstance<&kDescribedClass>());
    Ref<CFTypeRef> debugOnly(createInstance<&kDebugOnlyClass>());
    Ref<CFStringRef> nonASCII(make("\xC3\xA9t\xC3\xA9"));
    Ref<CFStringRef> s(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%@|%@|%@|%@|%@|%@"), CFSTR("text"),
                                                nonASCII.get(), static_cast<CFTypeRef>(nullptr), described.get(),
                                                debugOnly.get(), bare.get()));
    char expected[256];
    std::snprintf(expected, sizeof expected, "text|\xC3\xA9t\xC3\xA9|(null)|formatted|debug|<TestBareObject %p [%p]>",
                  bare.get(), static_cast<const void *>(kCFAllocatorSystemDefault));
    EXPECT_EQ(utf8(s), expected);

    // Width and precision work on the text as with %s, in UTF-16 units.
    Ref<CFStringRef> padded(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("[%6@][%-6@][%.2@][%5.1@][%*@]"),
                                                     nonASCII.get(), CFSTR("ab"), nonASCII.get(), CFSTR("xyz"), 4,
                                                     static_cast<CFTypeRef>(nullptr)));
    EXPECT_EQ(utf8(padded), "[   \xC3\xA9t\xC3\xA9][ab    ][\xC3\xA9t][    x][(null)]");
}

#pragma clang diagnostic pop

TEST(CFStringFormat, PositionalArguments) {
    Ref<CFStringRef> s(
        CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%2$s %1$d %3$.1f %2$s %1$05d"), 7, "two", 2.25));
    EXPECT_EQ(utf8(s), "two 7 2.2 two 00007");
    // Width from a positional argument.
    Ref<CFStringRef> w(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("[%2$*1$d][%3$@]"), 5, 42, CFSTR("x")));
    EXPECT_EQ(utf8(w), "[   42][x]");
}

TEST(CFStringFormat, RefusedAndMalformedConversions) {
    int written = 12345;
    Ref<CFStringRef> n(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("a%nb%d"), &written, 9));
    EXPECT_EQ(utf8(n), "ab9");  // %n consumed its pointer, wrote nothing
    EXPECT_EQ(written, 12345);
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat"
#pragma clang diagnostic ignored "-Wformat-extra-args"
    Ref<CFStringRef> bad(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%y|%d|%5%|%"), 3));
    EXPECT_EQ(utf8(bad), "%y|3|%|%");
    Ref<CFStringRef> huge(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%99999$d|%d"), 4));
    EXPECT_EQ(utf8(huge), "%99999$d|4");
#pragma clang diagnostic pop
}

TEST(CFStringFormat, AppendFormatAndLongOutput) {
    Ref<CFMutableStringRef> m(CFStringCreateMutable(nullptr, 0));
    CFStringAppendFormat(m, nullptr, CFSTR("%d,"), 1);
    CFStringAppendFormat(m, nullptr, CFSTR("%@"), CFSTR("\u00E9"));
    CFStringAppendFormat(m, nullptr, CFSTR("%300d"), 2);
    EXPECT_EQ(CFStringGetLength(m), 2 + 1 + 300);
    EXPECT_EQ(CFStringGetCharacterAtIndex(m, 2), 0xE9);
    EXPECT_EQ(CFStringGetCharacterAtIndex(m, 302), '2');
}

// ---- Comparison and search -------------------------------------------------

TEST(CFString, CompareTable) {
    struct Case {
        CFStringRef a, b;
        CFStringCompareFlags options;
        CFComparisonResult expected;
    };
    const Case cases[] = {
        {CFSTR("abc"), CFSTR("abc"), 0, kCFCompareEqualTo},
        {CFSTR("abc"), CFSTR("abd"), 0, kCFCompareLessThan},
        {CFSTR("abc"), CFSTR("ab"), 0, kCFCompareGreaterThan},
        {CFSTR(""), CFSTR("a"), 0, kCFCompareLessThan},
        {CFSTR("ABC"), CFSTR("abc"), 0, kCFCompareLessThan},
        {CFSTR("ABC"), CFSTR("abc"), kCFCompareCaseInsensitive, kCFCompareEqualTo},
        {CFSTR("\u00C9T\u00C9"), CFSTR("\u00E9t\u00E9"), kCFCompareCaseInsensitive, kCFCompareEqualTo},
        {CFSTR("\u00D7"), CFSTR("\u00F7"), kCFCompareCaseInsensitive, kCFCompareLessThan},  // not letters
        {CFSTR("z"), CFSTR("\u00E9"), 0, kCFCompareLessThan},                               // by UTF-16 unit
        {CFSTR("\u00E9"), CFSTR("e\u0301"), 0, kCFCompareGreaterThan},                      // literal: no normalisation
        {CFSTR("file10"), CFSTR("file9"), 0, kCFCompareLessThan},
        {CFSTR("file10"), CFSTR("file9"), kCFCompareNumerically, kCFCompareGreaterThan},
        {CFSTR("v2.10.1"), CFSTR("v2.9.7"), kCFCompareNumerically, kCFCompareGreaterThan},
        {CFSTR("a007b"), CFSTR("a7c"), kCFCompareNumerically, kCFCompareLessThan},
        {CFSTR("File10"), CFSTR("file010"), kCFCompareNumerically | kCFCompareCaseInsensitive, kCFCompareEqualTo},
        {CFSTR("abc"), CFSTR("ABC"), kCFCompareLocalized | kCFCompareNonliteral, kCFCompareGreaterThan},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(CFStringCompare(c.a, c.b, c.options), c.expected) << utf8(c.a) << " vs " << utf8(c.b);
        EXPECT_EQ(CFStringCompare(c.b, c.a, c.options), -c.expected) << utf8(c.b) << " vs " << utf8(c.a);
    }
    EXPECT_EQ(CFStringCompareWithOptions(CFSTR("xxabcxx"), CFSTR("abc"), CFRangeMake(2, 3), 0), kCFCompareEqualTo);
    EXPECT_EQ(CFStringCompareWithOptions(CFSTR("xxabcxx"), CFSTR("abc"), CFRangeMake(2, 4), 0), kCFCompareGreaterThan);
}

TEST(CFString, FindTable) {
    struct Case {
        CFStringRef haystack, needle;
        CFStringCompareFlags options;
        CFIndex location;  // kCFNotFound when absent
    };
    const Case cases[] = {
        {CFSTR("abcabc"), CFSTR("bc"), 0, 1},
        {CFSTR("abcabc"), CFSTR("bc"), kCFCompareBackwards, 4},
        {CFSTR("abcabc"), CFSTR("BC"), 0, kCFNotFound},
        {CFSTR("abcabc"), CFSTR("BC"), kCFCompareCaseInsensitive, 1},
        {CFSTR("abcabc"), CFSTR("abc"), kCFCompareAnchored, 0},
        {CFSTR("abcabc"), CFSTR("bc"), kCFCompareAnchored, kCFNotFound},
        {CFSTR("abcabc"), CFSTR("bc"), kCFCompareAnchored | kCFCompareBackwards, 4},
        {CFSTR("abcabc"), CFSTR("ab"), kCFCompareAnchored | kCFCompareBackwards, kCFNotFound},
        {CFSTR("abc"), CFSTR(""), 0, kCFNotFound},
        {CFSTR(""), CFSTR("a"), 0, kCFNotFound},
        {CFSTR("ab"), CFSTR("abc"), 0, kCFNotFound},
        {CFSTR("x\U0001F600y\u00E9"), CFSTR("y\u00C9"), kCFCompareCaseInsensitive, 3},
        {CFSTR("x\U0001F600y"), CFSTR("y"), 0, 3},
    };
    for (const Case &c : cases) {
        CFRange found = CFStringFind(c.haystack, c.needle, c.options);
        EXPECT_EQ(found.location, c.location) << utf8(c.haystack) << " / " << utf8(c.needle) << " " << c.options;
        EXPECT_EQ(found.length, c.location == kCFNotFound ? 0 : CFStringGetLength(c.needle));
    }
    CFRange result = CFRangeMake(-7, -7);
    EXPECT_TRUE(CFStringFindWithOptions(CFSTR("abcabc"), CFSTR("a"), CFRangeMake(1, 5), 0, &result));
    EXPECT_EQ(result.location, 3);
    EXPECT_FALSE(CFStringFindWithOptions(CFSTR("abcabc"), CFSTR("c"), CFRangeMake(3, 2), 0, &result));
    EXPECT_TRUE(CFStringFindWithOptions(CFSTR("abcabc"), CFSTR("b"), CFRangeMake(0, 3), kCFCompareBackwards, &result));
    EXPECT_EQ(result.location, 1);

    EXPECT_TRUE(CFStringHasPrefix(CFSTR("prefix.rest"), CFSTR("prefix")));
    EXPECT_FALSE(CFStringHasPrefix(CFSTR("prefix.rest"), CFSTR("rest")));
    EXPECT_TRUE(CFStringHasSuffix(CFSTR("prefix.rest"), CFSTR(".rest")));
    EXPECT_FALSE(CFStringHasSuffix(CFSTR("rest"), CFSTR("prefix.rest")));
    EXPECT_FALSE(CFStringHasPrefix(CFSTR("abc"), CFSTR("")));
}

// ---- Mutation ------------------------------------------------------------------

TEST(CFStringMutable, AppendSwitchesStorageOnlyWhenNeeded) {
    Ref<CFMutableStringRef> m(CFStringCreateMutable(nullptr, 0));
    EXPECT_STREQ(CFStringGetCStringPtr(m, kCFStringEncodingUTF8), "");
    std::string expected;
    for (int i = 0; i < 100; ++i) {  // crosses several capacity steps
        CFStringAppendCString(m, "ab", kCFStringEncodingASCII);
        expected += "ab";
    }
    ASSERT_NE(CFStringGetCStringPtr(m, kCFStringEncodingUTF8), nullptr);
    EXPECT_EQ(CFStringGetCStringPtr(m, kCFStringEncodingUTF8), expected);

    CFStringAppendCString(m, "\xC3\xA9", kCFStringEncodingUTF8);
    expected += "\xC3\xA9";
    EXPECT_EQ(CFStringGetCStringPtr(m, kCFStringEncodingUTF8), nullptr);
    const UniChar emoji[] = {0xD83D, 0xDE00};
    CFStringAppendCharacters(m, emoji, 2);
    expected += "\xF0\x9F\x98\x80";
    CFStringAppend(m, CFSTR("\u20AC"));
    expected += "\xE2\x82\xAC";
    EXPECT_EQ(CFStringGetLength(m), 200 + 1 + 2 + 1);
    EXPECT_EQ(utf8(m), expected);

    // Appending a string to itself doubles it.
    CFStringAppend(m, m);
    EXPECT_EQ(utf8(m), expected + expected);

    // Text taken from the string's own bytes survives the buffer moving.
    Ref<CFMutableStringRef> self(CFStringCreateMutableCopy(nullptr, 0, CFSTR("0123456789abcdef")));
    for (int i = 0; i < 6; ++i)
        CFStringAppendCString(self, CFStringGetCStringPtr(self, kCFStringEncodingASCII) + 10, kCFStringEncodingASCII);
    EXPECT_EQ(CFStringGetLength(self), 16 + 6 + 12 + 24 + 48 + 96 + 192);
    EXPECT_TRUE(CFStringHasSuffix(self, CFSTR("abcdefabcdef")));

    // Invalid text in the given encoding leaves the string unchanged.
    CFStringAppendCString(m, "\xFF", kCFStringEncodingUTF8);
    EXPECT_EQ(CFStringGetLength(m), 2 * 204);

    // Replacing with ASCII goes back to bytes.
    CFStringReplaceAll(m, CFSTR("short"));
    EXPECT_STREQ(CFStringGetCStringPtr(m, kCFStringEncodingASCII), "short");
    CFStringAppend(m, CFSTR("er"));
    EXPECT_STREQ(CFStringGetCStringPtr(m, kCFStringEncodingASCII), "shorter");
}

TEST(CFStringMutable, DeleteAtBoundaries) {
    Ref<CFMutableStringRef> m(CFStringCreateMutableCopy(nullptr, 0, CFSTR("0123456789")));
    CFStringDelete(m, CFRangeMake(0, 2));
    EXPECT_EQ(utf8(m), "23456789");
    CFStringDelete(m, CFRangeMake(6, 2));
    EXPECT_EQ(utf8(m), "234567");
    CFStringDelete(m, CFRangeMake(2, 2));
    EXPECT_EQ(utf8(m), "2367");
    CFStringDelete(m, CFRangeMake(4, 0));
    EXPECT_STREQ(CFStringGetCStringPtr(m, kCFStringEncodingASCII), "2367");
    CFStringDelete(m, CFRangeMake(0, 4));
    EXPECT_EQ(CFStringGetLength(m), 0);

    Ref<CFMutableStringRef> wide(CFStringCreateMutableCopy(nullptr, 0, CFSTR("a\u00E9b\u20ACc")));
    CFStringDelete(wide, CFRangeMake(1, 3));
    EXPECT_EQ(unitsOf(wide), u"ac");
    EXPECT_TRUE(CFEqual(wide, CFSTR("ac")));
}

TEST(CFStringDeathTest, MaxLengthIsEnforced) {
    Ref<CFMutableStringRef> m(CFStringCreateMutable(nullptr, 4));
    CFStringAppend(m, CFSTR("abcd"));
    EXPECT_EQ(CFStringGetLength(m), 4);
    EXPECT_DEATH(CFStringAppend(m, CFSTR("e")), "CFStringAppend.*beyond its maximum 4");
    EXPECT_DEATH(CFStringCreateMutableCopy(nullptr, 3, CFSTR("abcd")), "CFStringCreateMutableCopy.*maxLength 3");
}

// ---- Allocation failure ----------------------------------------------------

TEST(CFString, AllocationFailureReturnsNullAndLeaksNothing) {
    TestAllocator failing;
    failing.failAlways();
    EXPECT_EQ(CFStringCreateWithCString(failing.get(), "abc", kCFStringEncodingUTF8), nullptr);
    EXPECT_EQ(CFStringCreateWithCString(failing.get(), "\xC3\xA9", kCFStringEncodingUTF8), nullptr);
    EXPECT_EQ(CFStringCreateWithCharacters(failing.get(), reinterpret_cast<const UniChar *>(u"x"), 1), nullptr);
    EXPECT_EQ(CFStringCreateMutable(failing.get(), 0), nullptr);
    EXPECT_EQ(CFStringCreateWithFormat(failing.get(), nullptr, CFSTR("%d"), 5), nullptr);
    EXPECT_EQ(CFStringCreateWithSubstring(failing.get(), CFSTR("abc"), CFRangeMake(1, 1)), nullptr);
    EXPECT_EQ(CFStringCreateExternalRepresentation(failing.get(), CFSTR("abc"), kCFStringEncodingUTF8, 0), nullptr);
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

TEST(CFStringDeathTest, MutationThatCannotAllocateIsFatal) {
    TestAllocator allocator;
    Ref<CFMutableStringRef> m(CFStringCreateMutable(allocator.get(), 0));
    allocator.failAlways();
    EXPECT_DEATH(CFStringAppend(m, CFSTR("abc")), "CFStringAppend.*out of memory");
}

// ---- Fatal stops -------------------------------------------------------------

TEST(CFStringDeathTest, MisuseIsFatal) {
    Ref<CFStringRef> immutable(make("abc"));
    UniChar buffer[8];
    EXPECT_DEATH(CFStringGetLength(nullptr), "CFStringGetLength.*NULL");
    Ref<CFDataRef> data(CFDataCreate(nullptr, nullptr, 0));
    EXPECT_DEATH(CFStringGetLength(reinterpret_cast<CFStringRef>(data.get())), "CFStringGetLength.*not a CFString");
    EXPECT_DEATH(CFStringGetCharacterAtIndex(immutable, 3), "CFStringGetCharacterAtIndex.*index 3 is out of bounds");
    EXPECT_DEATH(CFStringGetCharacterAtIndex(immutable, -1), "CFStringGetCharacterAtIndex.*index -1");
    EXPECT_DEATH(CFStringGetCharacters(immutable, CFRangeMake(2, 2), buffer),
                 "CFStringGetCharacters.*range \\{2, 2\\} is out of bounds");
    EXPECT_DEATH(CFStringCreateWithSubstring(nullptr, immutable, CFRangeMake(-1, 1)), "CFStringCreateWithSubstring");
    EXPECT_DEATH(CFStringFindWithOptions(immutable, CFSTR("a"), CFRangeMake(0, 4), 0, nullptr),
                 "CFStringFindWithOptions.*out of bounds");
    EXPECT_DEATH(CFStringAppend(const_cast<CFMutableStringRef>(immutable.get()), CFSTR("x")),
                 "CFStringAppend.*immutable");
    EXPECT_DEATH(CFStringAppendCString(const_cast<CFMutableStringRef>(CFSTR("lit")), "x", kCFStringEncodingUTF8),
                 "CFStringAppendCString.*immutable");
    EXPECT_DEATH(CFStringAppendFormat(const_cast<CFMutableStringRef>(CFSTR("lit")), nullptr, CFSTR("%d"), 1),
                 "CFStringAppendFormat.*immutable");
    Ref<CFMutableStringRef> m(CFStringCreateMutable(nullptr, 0));
    EXPECT_DEATH(CFStringDelete(m, CFRangeMake(0, 1)), "CFStringDelete.*out of bounds");
    EXPECT_DEATH(CFStringAppend(m, nullptr), "CFStringAppend.*NULL");
    EXPECT_DEATH(CFStringCreateWithCString(nullptr, nullptr, kCFStringEncodingUTF8), "CFStringCreateWithCString.*cStr");
}

}  // namespace
