/* SPDX-License-Identifier: Apache-2.0 */
// Private to the string files (CFString.cpp, CFStringEncodings.cpp,
// CFStringFormat.cpp): the instance layout, a read-only view that serves
// dynamic and compiler-emitted constant strings alike, a growable UTF-16
// buffer, and the entry points the three files share.
#ifndef SORVEL_PLATFORM_CFSTRINGINTERNAL_H
#define SORVEL_PLATFORM_CFSTRINGINTERNAL_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "CFInternal.h"

// Every string starts like the records clang emits for CFSTR("..."):
// {isa, flags, chars, length}.  Keeping `chars` at offset 16 and `length` at
// offset 24 lets one accessor read both kinds; only the "wide" test differs
// (constant strings say it in their flags word, dynamic ones in `flags`).
//
// Immutable strings keep their characters inline, right after these fields,
// so they cost one allocation.  Mutable strings are a __CFMutableString and
// keep a separately allocated, growable buffer.  8-bit storage only ever
// holds ASCII and is always NUL-terminated, so CFStringGetCStringPtr can hand
// it out for every ASCII-compatible encoding.
struct __CFString {
    CFRuntimeBase base;
    const void *chars;  // ASCII bytes or UTF-16 units (host order)
    CFIndex length;     // in UTF-16 units (= bytes for 8-bit storage)
    uint32_t flags;     // kCFStringFlag...
    uint32_t reserved;
};

struct __CFMutableString {
    __CFString string;
    CFIndex capacity;   // units the buffer holds, not counting the 8-bit NUL
    CFIndex maxLength;  // 0: unlimited
};

static_assert(offsetof(__CFString, chars) == 16, "chars must sit where constant strings keep theirs");
static_assert(offsetof(__CFString, length) == 24, "length must sit where constant strings keep theirs");
static_assert(offsetof(__CFConstStr, chars) == 16 && offsetof(__CFConstStr, length) == 24, "constant string layout");

inline constexpr uint32_t kCFStringFlagWide = 1u;     // chars are UTF-16 units
inline constexpr uint32_t kCFStringFlagMutable = 2u;  // a __CFMutableString

inline constexpr UniChar kCFStringReplacementCharacter = 0xFFFD;

// Read-only view of any string.  Valid until the string is mutated or freed.
struct __CFStringView {
    const void *chars;
    CFIndex length;
    bool wide;

    const uint8_t *bytes() const { return static_cast<const uint8_t *>(chars); }
    const UniChar *units() const { return static_cast<const UniChar *>(chars); }
    UniChar at(CFIndex index) const { return wide ? units()[index] : bytes()[index]; }
};

inline __CFStringView __CFStringGetView(CFStringRef string) {
    if (__CFIsConstantString(string)) {
        const auto *constant = reinterpret_cast<const __CFConstStr *>(string);
        return {constant->chars, constant->length, constant->flags == kCFConstStrFlagsUTF16};
    }
    return {string->chars, string->length, (string->flags & kCFStringFlagWide) != 0};
}

inline bool __CFStringIsMutable(CFStringRef string) {
    return !__CFIsConstantString(string) && (string->flags & kCFStringFlagMutable) != 0;
}

inline bool __CFStringIsSurrogateHigh(UTF32Char c) {
    return c >= 0xD800 && c <= 0xDBFF;
}
inline bool __CFStringIsSurrogateLow(UTF32Char c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}
inline bool __CFStringIsSurrogate(UTF32Char c) {
    return c >= 0xD800 && c <= 0xDFFF;
}

// One UTF-8 sequence, read at bytes[i] (an ASCII byte is one).  Invalid: the lead
// cannot start a sequence (a continuation byte, C0/C1, F5...FF), a
// continuation byte is missing, or the value is overlong, a surrogate or
// above U+10FFFF.  Truncated: the bytes end inside an otherwise good
// sequence.  Strict decoding fails on either; lenient decoding decides.
struct __CFUTF8Sequence {
    enum Status { Valid, Invalid, Truncated } status;
    UTF32Char c;
    size_t length;  // bytes, when Valid
};

inline __CFUTF8Sequence __CFReadUTF8Sequence(const uint8_t *bytes, size_t count, size_t i) {
    const uint8_t lead = bytes[i];
    if (lead < 0x80) return {__CFUTF8Sequence::Valid, lead, 1};
    size_t trail;
    UTF32Char c, minimum;
    if (lead >= 0xC2 && lead <= 0xDF) {
        trail = 1, c = lead & 0x1F, minimum = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        trail = 2, c = lead & 0x0F, minimum = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        trail = 3, c = lead & 0x07, minimum = 0x10000;
    } else {
        return {__CFUTF8Sequence::Invalid, 0, 0};
    }
    for (size_t k = 1; k <= trail; ++k) {
        if (i + k >= count) return {__CFUTF8Sequence::Truncated, 0, 0};
        const uint8_t next = bytes[i + k];
        if ((next & 0xC0) != 0x80) return {__CFUTF8Sequence::Invalid, 0, 0};
        c = (c << 6) | (next & 0x3F);
    }
    if (c < minimum || c > 0x10FFFF || __CFStringIsSurrogate(c)) return {__CFUTF8Sequence::Invalid, 0, 0};
    return {__CFUTF8Sequence::Valid, c, trail + 1};
}

// True when every byte is below 0x80.  Eight bytes per step: string keys are
// created and compared on hot paths.
inline bool __CFStringBytesAreASCII(const uint8_t *bytes, size_t length) {
    size_t i = 0;
    for (; i + 8 <= length; i += 8) {
        uint64_t word;
        std::memcpy(&word, bytes + i, 8);
        if (word & 0x8080808080808080ULL) return false;
    }
    for (; i < length; ++i) {
        if (bytes[i] & 0x80) return false;
    }
    return true;
}

inline bool __CFStringUnitsAreASCII(const UniChar *units, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        if (units[i] >= 0x80) return false;
    }
    return true;
}

// A growable UTF-16 buffer on the C heap for building text before it becomes
// a string.  Short text stays in the inline array.  Allocation failure is
// sticky: later appends do nothing and failed() reports it, so callers check
// once at the end.  Never throws.
class __CFUnitBuffer {
public:
    __CFUnitBuffer() = default;
    __CFUnitBuffer(const __CFUnitBuffer &) = delete;
    __CFUnitBuffer &operator=(const __CFUnitBuffer &) = delete;
    ~__CFUnitBuffer() {
        if (data_ != inline_) std::free(data_);
    }

    const UniChar *data() const { return data_; }
    CFIndex length() const { return length_; }
    bool failed() const { return failed_; }
    // True while every unit appended is below 0x80.
    bool isASCII() const { return ascii_; }

    bool reserve(CFIndex extra) {
        if (failed_) return false;
        if (extra <= capacity_ - length_) return true;
        if (extra > PTRDIFF_MAX / 2 / static_cast<CFIndex>(sizeof(UniChar)) - length_) return fail();
        CFIndex wanted = length_ + extra;
        CFIndex grown = capacity_ + capacity_ / 2;
        CFIndex newCapacity = wanted > grown ? wanted : grown;
        void *memory = data_ == inline_ ? std::malloc(static_cast<size_t>(newCapacity) * sizeof(UniChar))
                                        : std::realloc(data_, static_cast<size_t>(newCapacity) * sizeof(UniChar));
        if (memory == nullptr) return fail();
        if (data_ == inline_) std::memcpy(memory, inline_, static_cast<size_t>(length_) * sizeof(UniChar));
        data_ = static_cast<UniChar *>(memory);
        capacity_ = newCapacity;
        return true;
    }

    void append(UniChar unit) {
        if (length_ == capacity_ && !reserve(1)) return;
        if (unit >= 0x80) ascii_ = false;
        data_[length_++] = unit;
    }
    void append(const UniChar *units, CFIndex count) {
        if (count <= 0 || !reserve(count)) return;
        std::memcpy(data_ + length_, units, static_cast<size_t>(count) * sizeof(UniChar));
        if (ascii_ && !__CFStringUnitsAreASCII(units, static_cast<size_t>(count))) ascii_ = false;
        length_ += count;
    }
    // Bytes taken as Latin-1 (so ASCII text passes straight through).
    void appendLatin1(const char *text, CFIndex count) {
        if (count <= 0 || !reserve(count)) return;
        for (CFIndex i = 0; i < count; ++i) {
            UniChar unit = static_cast<uint8_t>(text[i]);
            if (unit >= 0x80) ascii_ = false;
            data_[length_ + i] = unit;
        }
        length_ += count;
    }
    void appendRepeated(UniChar unit, CFIndex count) {
        if (count <= 0 || !reserve(count)) return;
        if (unit >= 0x80) ascii_ = false;
        for (CFIndex i = 0; i < count; ++i) data_[length_ + i] = unit;
        length_ += count;
    }
    // A code point; those outside the BMP become a surrogate pair.
    void appendCodePoint(UTF32Char c) {
        if (c >= 0x10000) {
            c -= 0x10000;
            append(static_cast<UniChar>(0xD800 + (c >> 10)));
            append(static_cast<UniChar>(0xDC00 + (c & 0x3FF)));
        } else {
            append(static_cast<UniChar>(c));
        }
    }
    void appendView(const __CFStringView &view, CFIndex location, CFIndex count) {
        if (view.wide) {
            append(view.units() + location, count);
        } else {
            appendLatin1(reinterpret_cast<const char *>(view.bytes()) + location, count);
        }
    }
    void truncate(CFIndex length) {
        if (length < length_) length_ = length;
    }

private:
    bool fail() {
        failed_ = true;
        return false;
    }

    static constexpr CFIndex kInlineCapacity = 128;
    UniChar inline_[kInlineCapacity];
    UniChar *data_ = inline_;
    CFIndex length_ = 0;
    CFIndex capacity_ = kInlineCapacity;
    bool failed_ = false;
    bool ascii_ = true;
};

// ---- CFString.cpp ----------------------------------------------------------

// A new immutable string holding `units` (stored as 8-bit when they are all
// ASCII).  NULL when allocation fails.
CF_PRIVATE CFStringRef __CFStringCreateWithUnits(CFAllocatorRef allocator, const UniChar *units, CFIndex count);
// A new immutable string from ASCII bytes (the caller has checked them).
CF_PRIVATE CFStringRef __CFStringCreateWithASCII(CFAllocatorRef allocator, const uint8_t *bytes, CFIndex count);
// Fatal unless `string` is a mutable string; `function` names the public call.
CF_PRIVATE void __CFStringValidateMutable(CFStringRef string, const char *function);
// Appends `units` to a mutable string (fatal when out of memory or past its
// maximum length).  `function` names the public call for fatal messages.
CF_PRIVATE void __CFStringAppendUnits(CFMutableStringRef string, const UniChar *units, CFIndex count,
                                      const char *function);

// ---- CFStringEncodings.cpp -------------------------------------------------

// Whether `encoding` can be converted to and from.
CF_PRIVATE bool __CFStringEncodingIsSupported(CFStringEncoding encoding);
// Whether ASCII bytes mean the same characters in `encoding` (so 8-bit
// storage can be used as it stands).
CF_PRIVATE bool __CFStringEncodingIsASCIICompatible(CFStringEncoding encoding);

// Decodes `bytes` into `out`.  A leading byte-order mark of UTF-16/UTF-32
// (without an explicit byte order) is honoured and dropped; without one,
// `external` text is read as big-endian and other text in host order.  With
// `external`, a UTF-8 byte-order mark is dropped too.  False when the bytes are not valid in `encoding`, the
// encoding is not supported, or `out` ran out of memory.
CF_PRIVATE bool __CFStringDecodeBytes(const uint8_t *bytes, CFIndex count, CFStringEncoding encoding, bool external,
                                      __CFUnitBuffer &out);

// Converts units [location, location + count) of `view` as CFStringGetBytes
// documents.  Returns the number of units converted; *usedBytes receives the
// bytes written (or needed, when buffer is NULL).  *lossy (optional) is set
// when a character had to be replaced by lossByte.
CF_PRIVATE CFIndex __CFStringEncodeView(const __CFStringView &view, CFIndex location, CFIndex count,
                                        CFStringEncoding encoding, UInt8 lossByte, bool external, UInt8 *buffer,
                                        CFIndex maxBytes, CFIndex *usedBytes, bool *lossy);

// ---- CFStringFormat.cpp ----------------------------------------------------

// Appends the formatted text to `out`.  False when `out` ran out of memory.
CF_PRIVATE bool __CFStringFormatAppend(__CFUnitBuffer &out, CFDictionaryRef formatOptions, CFStringRef format,
                                       va_list arguments);

#endif  // SORVEL_PLATFORM_CFSTRINGINTERNAL_H
