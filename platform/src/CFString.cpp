// SPDX-License-Identifier: Apache-2.0
// Strings: the class record, creation, access, comparison, search and
// mutation.  Encoding conversion lives in CFStringEncodings.cpp, formatting
// in CFStringFormat.cpp; the instance layout in CFStringInternal.h.
//
// Text is UTF-16 throughout the interface.  Storage is 8-bit whenever the
// text is pure ASCII (the common case: keys, names, numbers), otherwise
// UTF-16.  Equality and hashing look only at the UTF-16 content, so the two
// storage forms of one text (and the compiler's constant strings) are
// interchangeable as dictionary keys.

#include <climits>
#include <mutex>
#include <string>
#include <unordered_map>

#include "CFStringInternal.h"

#define CF_SOURCE_PATH "CoreFoundation/CFString"

namespace {

// Storage of a mutable string that has not allocated yet: empty, 8-bit and
// NUL-terminated, so readers need no special case.
const char kEmptyStorage[2] = {0, 0};

inline __CFMutableString *asMutableFields(CFStringRef string) {
    return reinterpret_cast<__CFMutableString *>(const_cast<__CFString *>(string));
}

// Fatal unless `string` is a string.
inline void validate(CFStringRef string, const char *function) {
    __CFValidate(string, kCFStringTypeID, function);
}

// Fatal unless `string` is a mutable string.
__CFMutableString *validateMutable(CFMutableStringRef string, const char *function) {
    __CFValidate(string, kCFStringTypeID, function);
    if (__builtin_expect(!__CFStringIsMutable(string), 0))
        __CFFatal(function, CF_SOURCE_PATH, __LINE__, "string %p is immutable and cannot be mutated", string);
    return asMutableFields(string);
}

void validateRange(CFRange range, CFIndex length, const char *function) {
    if (__builtin_expect(
            range.location < 0 || range.length < 0 || range.location > length || range.length > length - range.location,
            0)) {
        __CFFatal(function, CF_SOURCE_PATH, __LINE__, "range {%ld, %ld} is out of bounds of a string of length %ld",
                  range.location, range.length, length);
    }
}

// ---- Immutable instances ---------------------------------------------------

constexpr CFIndex kFieldsSize = static_cast<CFIndex>(sizeof(__CFString) - sizeof(CFRuntimeBase));

// An immutable instance with room for `length` units inline (zero-filled, so
// 8-bit storage is already NUL-terminated).  NULL when allocation fails.
__CFString *createImmutable(CFAllocatorRef allocator, CFIndex length, bool wide) {
    constexpr CFIndex kLimit = (LONG_MAX >> 2) - 64;
    if (length < 0 || length > kLimit) return nullptr;
    CFIndex storage = wide ? length * 2 : length + 1;
    auto *string = static_cast<__CFString *>(
        const_cast<void *>(_CFRuntimeCreateInstance(allocator, kCFStringTypeID, kFieldsSize + storage, nullptr)));
    if (string == nullptr) return nullptr;
    string->chars = string + 1;
    string->length = length;
    string->flags = wide ? kCFStringFlagWide : 0;
    return string;
}

// ---- Hashing and equality --------------------------------------------------

// Up to four UTF-16 units packed into one word, low unit first.  8-bit
// storage is widened on the fly so both storage forms hash the same words.
inline uint64_t packUnits(const UniChar *u, CFIndex count) {
    uint64_t word = 0;
    if (count == 4 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) {
        std::memcpy(&word, u, 8);
        return word;
    }
    for (CFIndex k = 0; k < count; ++k) word |= static_cast<uint64_t>(u[k]) << (16 * k);
    return word;
}
inline uint64_t packBytes(const uint8_t *b, CFIndex count) {
    uint64_t word = 0;
    if (count == 4 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) {
        uint32_t four;
        std::memcpy(&four, b, 4);
        // Spread bytes 0..3 to bits 0, 16, 32 and 48.
        word = four;
        word = (word | (word << 16)) & 0x0000FFFF0000FFFFULL;
        return (word | (word << 8)) & 0x00FF00FF00FF00FFULL;
    }
    for (CFIndex k = 0; k < count; ++k) word |= static_cast<uint64_t>(b[k]) << (16 * k);
    return word;
}

// 64x64 -> 128-bit multiply folded to 64 bits: one multiply mixes two words
// of input (eight units) thoroughly, which keeps hashing short keys cheap.
inline uint64_t multiplyFold(uint64_t a, uint64_t b) {
    const __uint128_t product = static_cast<__uint128_t>(a) * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

constexpr uint64_t kHashKey0 = 0xa0761d6478bd642fULL;
constexpr uint64_t kHashKey1 = 0xe7037ed1a0b428dbULL;

template <typename Unit, uint64_t (*pack)(const Unit *, CFIndex)>
inline CFHashCode hashUnits(const Unit *units, CFIndex length) {
    uint64_t h = static_cast<uint64_t>(length) * 0x9E3779B97F4A7C15ULL;
    CFIndex i = 0;
    for (; i + 8 <= length; i += 8)
        h = multiplyFold(pack(units + i, 4) ^ kHashKey0, pack(units + i + 4, 4) ^ kHashKey1 ^ h);
    const CFIndex rest = length - i;
    if (rest > 0) {
        const CFIndex low = rest < 4 ? rest : 4;
        h = multiplyFold(pack(units + i, low) ^ kHashKey0, pack(units + i + low, rest - low) ^ kHashKey1 ^ h);
    }
    return __CFHashMix(h ^ static_cast<uint64_t>(length));
}

CFHashCode hashView(const __CFStringView &view) {
    return view.wide ? hashUnits<UniChar, packUnits>(view.units(), view.length)
                     : hashUnits<uint8_t, packBytes>(view.bytes(), view.length);
}

bool viewsEqual(const __CFStringView &a, const __CFStringView &b) {
    if (a.length != b.length) return false;
    if (a.length == 0) return true;
    if (a.wide == b.wide) {
        size_t bytes = static_cast<size_t>(a.length) * (a.wide ? sizeof(UniChar) : 1);
        return std::memcmp(a.chars, b.chars, bytes) == 0;
    }
    const UniChar *units = a.wide ? a.units() : b.units();
    const uint8_t *bytes = a.wide ? b.bytes() : a.bytes();
    for (CFIndex i = 0; i < a.length; ++i) {
        if (units[i] != bytes[i]) return false;
    }
    return true;
}

// ---- Class record --------------------------------------------------------

void stringFinalize(CFTypeRef cf) {
    auto *string = static_cast<const __CFString *>(cf);
    if (!(string->flags & kCFStringFlagMutable)) return;
    __CFMutableString *fields = asMutableFields(string);
    // capacity stays 0 until a buffer is allocated (also in a half-built
    // instance).
    if (fields->capacity > 0) CFAllocatorDeallocate(CFGetAllocator(cf), const_cast<void *>(string->chars));
    fields->capacity = 0;
    fields->string.chars = kEmptyStorage;
    fields->string.length = 0;
}

Boolean stringEqual(CFTypeRef cf1, CFTypeRef cf2) {
    return viewsEqual(__CFStringGetView(static_cast<CFStringRef>(cf1)),
                      __CFStringGetView(static_cast<CFStringRef>(cf2)));
}

CFHashCode stringHash(CFTypeRef cf) {
    return hashView(__CFStringGetView(static_cast<CFStringRef>(cf)));
}

// A string describes itself as its own text.
CFStringRef stringCopyFormattingDescription(CFTypeRef cf, CFDictionaryRef) {
    return CFStringCreateCopy(nullptr, static_cast<CFStringRef>(cf));
}
CFStringRef stringCopyDebugDescription(CFTypeRef cf) {
    return CFStringCreateCopy(nullptr, static_cast<CFStringRef>(cf));
}

}  // namespace

extern "C" const CFRuntimeClass __CFStringClass = {
    0,
    "CFString",
    nullptr,
    nullptr,
    stringFinalize,
    stringEqual,
    stringHash,
    stringCopyFormattingDescription,
    stringCopyDebugDescription,
};

// ---- Shared helpers ----------------------------------------------------------

CFStringRef __CFStringCreateWithASCII(CFAllocatorRef allocator, const uint8_t *bytes, CFIndex count) {
    __CFString *string = createImmutable(allocator, count, false);
    if (string == nullptr) return nullptr;
    if (count > 0) std::memcpy(const_cast<void *>(string->chars), bytes, static_cast<size_t>(count));
    return string;
}

CFStringRef __CFStringCreateWithUnits(CFAllocatorRef allocator, const UniChar *units, CFIndex count) {
    const bool ascii = __CFStringUnitsAreASCII(units, static_cast<size_t>(count));
    __CFString *string = createImmutable(allocator, count, !ascii);
    if (string == nullptr) return nullptr;
    if (ascii) {
        auto *bytes = static_cast<uint8_t *>(const_cast<void *>(string->chars));
        for (CFIndex i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(units[i]);
    } else {
        std::memcpy(const_cast<void *>(string->chars), units, static_cast<size_t>(count) * sizeof(UniChar));
    }
    return string;
}

void __CFStringAppendUTF8(std::string &out, CFStringRef string) {
    if (string == nullptr) {
        out += "(null)";
        return;
    }
    const __CFStringView view = __CFStringGetView(string);
    if (!view.wide) {
        out.append(reinterpret_cast<const char *>(view.bytes()), static_cast<size_t>(view.length));
        return;
    }
    out.reserve(out.size() + static_cast<size_t>(view.length));
    const UniChar *units = view.units();
    for (CFIndex i = 0; i < view.length; ++i) {
        UTF32Char c = units[i];
        if (__CFStringIsSurrogateHigh(c) && i + 1 < view.length && __CFStringIsSurrogateLow(units[i + 1])) {
            c = 0x10000 + ((c - 0xD800) << 10) + (units[i + 1] - 0xDC00);
            ++i;
        } else if (__CFStringIsSurrogate(c)) {
            c = kCFStringReplacementCharacter;  // a lone surrogate has no UTF-8 form
        }
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
}

// ---- Mutable storage -------------------------------------------------------

namespace {

[[noreturn]] void outOfMemory(const char *function, CFIndex length) {
    __CFFatal(function, CF_SOURCE_PATH, __LINE__, "out of memory (growing a string to %ld characters)", length);
}

// Makes the buffer hold at least `length` units, in UTF-16 when `wide` (an
// 8-bit buffer is widened; a wide one never narrows here).  Growth is
// geometric so appending one character at a time stays linear.
void reserveStorage(__CFMutableString *fields, CFIndex length, bool wide, const char *function) {
    __CFString &string = fields->string;
    const bool isWide = (string.flags & kCFStringFlagWide) != 0;
    wide = wide || isWide;
    if (length <= fields->capacity && wide == isWide) return;

    constexpr CFIndex kLimit = (LONG_MAX >> 2) - 64;
    if (length > kLimit) outOfMemory(function, length);
    CFIndex capacity = fields->capacity;
    if (length > capacity) {
        CFIndex grown = capacity + capacity / 2;
        capacity = length > grown ? length : grown;
        if (capacity < 16) capacity = 16;
        if (capacity > kLimit) capacity = length;
    }
    const CFIndex bytes = wide ? capacity * 2 : capacity + 1;
    CFAllocatorRef allocator = CFGetAllocator(&string);
    void *old = fields->capacity > 0 ? const_cast<void *>(string.chars) : nullptr;

    if (wide == isWide && old != nullptr) {
        void *grown = CFAllocatorReallocate(allocator, old, bytes, 0);
        if (grown == nullptr) {
            // Allocators without a reallocate callback: allocate and copy.
            grown = CFAllocatorAllocate(allocator, bytes, 0);
            if (grown == nullptr) outOfMemory(function, length);
            std::memcpy(grown, old, static_cast<size_t>(string.length) * (wide ? 2 : 1) + (wide ? 0 : 1));
            CFAllocatorDeallocate(allocator, old);
        }
        string.chars = grown;
        fields->capacity = capacity;
        return;
    }

    void *memory = CFAllocatorAllocate(allocator, bytes, 0);
    if (memory == nullptr) outOfMemory(function, length);
    const uint8_t *source = static_cast<const uint8_t *>(string.chars);
    if (wide && !isWide) {
        auto *units = static_cast<UniChar *>(memory);
        for (CFIndex i = 0; i < string.length; ++i) units[i] = source[i];
    } else {
        // Same width, first buffer: copy what there is (nothing, or the NUL).
        std::memcpy(memory, source, static_cast<size_t>(string.length) * (wide ? 2 : 1));
        if (!wide) static_cast<uint8_t *>(memory)[string.length] = 0;
    }
    if (old) CFAllocatorDeallocate(allocator, old);
    string.chars = memory;
    string.flags = (string.flags & ~kCFStringFlagWide) | (wide ? kCFStringFlagWide : 0);
    fields->capacity = capacity;
}

// Turns UTF-16 storage holding only ASCII back into 8-bit storage, in place
// (byte i is written after unit i has been read, so nothing is overwritten
// early).  Lets CFStringGetCStringPtr work again after the text changed.
void narrowIfASCII(__CFMutableString *fields) {
    __CFString &string = fields->string;
    if (!(string.flags & kCFStringFlagWide) || fields->capacity == 0) return;
    const UniChar *units = static_cast<const UniChar *>(string.chars);
    if (!__CFStringUnitsAreASCII(units, static_cast<size_t>(string.length))) return;
    auto *bytes = static_cast<uint8_t *>(const_cast<void *>(string.chars));
    for (CFIndex i = 0; i < string.length; ++i) bytes[i] = static_cast<uint8_t>(units[i]);
    bytes[string.length] = 0;
    string.flags &= ~kCFStringFlagWide;
    fields->capacity = fields->capacity * 2 - 1;
}

// Replaces `range` (already validated) of a mutable string by the `count`
// units of `source` starting at `location`.
void replaceWithView(__CFMutableString *fields, CFRange range, const __CFStringView &source, CFIndex location,
                     CFIndex count, const char *function) {
    __CFString &string = fields->string;
    const CFIndex oldLength = string.length;
    if (count > LONG_MAX / 4 - oldLength) outOfMemory(function, LONG_MAX);
    const CFIndex newLength = oldLength - range.length + count;
    if (fields->maxLength > 0 && newLength > fields->maxLength) {
        __CFFatal(function, CF_SOURCE_PATH, __LINE__, "string %p would grow to %ld characters, beyond its maximum %ld",
                  &string, newLength, fields->maxLength);
    }

    // The source may lie in this very string's buffer (the string appended
    // to itself, or text from CFStringGetCStringPtr), which growing may move.
    __CFUnitBuffer copy;
    __CFStringView from = source;
    const auto bufferStart = reinterpret_cast<uintptr_t>(string.chars);
    const auto bufferEnd = bufferStart + static_cast<uintptr_t>(fields->capacity) * 2 + 1;
    const auto sourceStart = reinterpret_cast<uintptr_t>(source.chars);
    if (count > 0 && fields->capacity > 0 && sourceStart >= bufferStart && sourceStart < bufferEnd) {
        copy.appendView(source, location, count);
        if (copy.failed()) outOfMemory(function, newLength);
        from = {copy.data(), count, true};
        location = 0;
    }

    const bool needsWide = from.wide && !__CFStringUnitsAreASCII(from.units() + location, static_cast<size_t>(count));
    reserveStorage(fields, newLength, needsWide, function);

    const bool wide = (string.flags & kCFStringFlagWide) != 0;
    const size_t unitSize = wide ? 2 : 1;
    auto *base = static_cast<uint8_t *>(const_cast<void *>(string.chars));
    const CFIndex tail = oldLength - range.location - range.length;
    if (tail > 0 && count != range.length) {
        std::memmove(base + static_cast<size_t>(range.location + count) * unitSize,
                     base + static_cast<size_t>(range.location + range.length) * unitSize,
                     static_cast<size_t>(tail) * unitSize);
    }
    if (count > 0) {
        if (wide) {
            auto *units = reinterpret_cast<UniChar *>(base) + range.location;
            if (from.wide) {
                std::memcpy(units, from.units() + location, static_cast<size_t>(count) * 2);
            } else {
                for (CFIndex i = 0; i < count; ++i) units[i] = from.bytes()[location + i];
            }
        } else {
            uint8_t *bytes = base + range.location;
            if (from.wide) {
                for (CFIndex i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(from.units()[location + i]);
            } else {
                std::memcpy(bytes, from.bytes() + location, static_cast<size_t>(count));
            }
        }
    }
    string.length = newLength;
    if (!wide && fields->capacity > 0) base[newLength] = 0;
}

__CFMutableString *createMutable(CFAllocatorRef allocator, CFIndex maxLength, const char *function) {
    if (maxLength < 0) __CFFatal(function, CF_SOURCE_PATH, __LINE__, "maxLength %ld is negative", maxLength);
    constexpr CFIndex kExtra = static_cast<CFIndex>(sizeof(__CFMutableString) - sizeof(CFRuntimeBase));
    auto *fields = static_cast<__CFMutableString *>(
        const_cast<void *>(_CFRuntimeCreateInstance(allocator, kCFStringTypeID, kExtra, nullptr)));
    if (fields == nullptr) return nullptr;
    fields->string.chars = kEmptyStorage;
    fields->string.length = 0;
    fields->string.flags = kCFStringFlagMutable;
    fields->capacity = 0;
    fields->maxLength = maxLength;
    return fields;
}

// ---- Comparison ------------------------------------------------------------

// Simple case folding of ASCII and Latin-1 letters (not U+00D7 MULTIPLICATION
// SIGN, which sits among the capitals).
inline UniChar foldCase(UniChar c) {
    if (c >= 'A' && c <= 'Z') return static_cast<UniChar>(c + 0x20);
    if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return static_cast<UniChar>(c + 0x20);
    return c;
}

inline bool isDigit(UniChar c) {
    return c >= '0' && c <= '9';
}

CFComparisonResult compareViews(const __CFStringView &a, CFIndex aStart, CFIndex aEnd, const __CFStringView &b,
                                CFStringCompareFlags options) {
    const bool fold = (options & kCFCompareCaseInsensitive) != 0;
    const bool numeric = (options & kCFCompareNumerically) != 0;
    if (!fold && !numeric && !a.wide && !b.wide) {
        CFIndex aLength = aEnd - aStart;
        CFIndex common = aLength < b.length ? aLength : b.length;
        int result = common > 0 ? std::memcmp(a.bytes() + aStart, b.bytes(), static_cast<size_t>(common)) : 0;
        if (result != 0) return result < 0 ? kCFCompareLessThan : kCFCompareGreaterThan;
        if (aLength == b.length) return kCFCompareEqualTo;
        return aLength < b.length ? kCFCompareLessThan : kCFCompareGreaterThan;
    }
    CFIndex i = aStart;
    CFIndex j = 0;
    while (i < aEnd && j < b.length) {
        UniChar ca = a.at(i);
        UniChar cb = b.at(j);
        if (numeric && isDigit(ca) && isDigit(cb)) {
            // Compare the digit runs as numbers: skip leading zeros, then the
            // longer run is larger, then the first differing digit decides.
            CFIndex ia = i, jb = j;
            while (ia < aEnd && a.at(ia) == '0') ++ia;
            while (jb < b.length && b.at(jb) == '0') ++jb;
            CFIndex ea = ia, eb = jb;
            while (ea < aEnd && isDigit(a.at(ea))) ++ea;
            while (eb < b.length && isDigit(b.at(eb))) ++eb;
            if (ea - ia != eb - jb) return ea - ia < eb - jb ? kCFCompareLessThan : kCFCompareGreaterThan;
            for (; ia < ea; ++ia, ++jb) {
                UniChar da = a.at(ia), db = b.at(jb);
                if (da != db) return da < db ? kCFCompareLessThan : kCFCompareGreaterThan;
            }
            i = ea;
            j = eb;
            continue;
        }
        if (fold) {
            ca = foldCase(ca);
            cb = foldCase(cb);
        }
        if (ca != cb) return ca < cb ? kCFCompareLessThan : kCFCompareGreaterThan;
        ++i;
        ++j;
    }
    if (i < aEnd) return kCFCompareGreaterThan;
    if (j < b.length) return kCFCompareLessThan;
    return kCFCompareEqualTo;
}

inline bool matchesAt(const __CFStringView &haystack, CFIndex at, const __CFStringView &needle, bool fold) {
    for (CFIndex k = 0; k < needle.length; ++k) {
        UniChar h = haystack.at(at + k);
        UniChar n = needle.at(k);
        if (h != n && (!fold || foldCase(h) != foldCase(n))) return false;
    }
    return true;
}

}  // namespace

void __CFStringValidateMutable(CFStringRef string, const char *function) {
    validateMutable(const_cast<CFMutableStringRef>(string), function);
}

void __CFStringAppendUnits(CFMutableStringRef string, const UniChar *units, CFIndex count, const char *function) {
    __CFMutableString *fields = validateMutable(string, function);
    if (count <= 0) return;
    replaceWithView(fields, CFRangeMake(fields->string.length, 0), __CFStringView{units, count, true}, 0, count,
                    function);
}

// ---- The C interface ---------------------------------------------------------

extern "C" {

CFTypeID CFStringGetTypeID(void) noexcept {
    return kCFStringTypeID;
}

CFStringRef CFStringCreateWithBytes(CFAllocatorRef alloc, const UInt8 *bytes, CFIndex numBytes,
                                    CFStringEncoding encoding, Boolean isExternalRepresentation) noexcept {
    if (numBytes < 0) return nullptr;
    if (numBytes > 0) CF_REQUIRE(bytes, "bytes");
    if (!__CFStringEncodingIsSupported(encoding)) return nullptr;
    if (__CFStringEncodingIsASCIICompatible(encoding) &&
        __CFStringBytesAreASCII(bytes, static_cast<size_t>(numBytes))) {
        return __CFStringCreateWithASCII(alloc, bytes, numBytes);
    }
    __CFUnitBuffer units;
    if (!__CFStringDecodeBytes(bytes, numBytes, encoding, isExternalRepresentation, units)) return nullptr;
    return __CFStringCreateWithUnits(alloc, units.data(), units.length());
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef alloc, const char *cStr, CFStringEncoding encoding) noexcept {
    CF_REQUIRE(cStr, "cStr");
    return CFStringCreateWithBytes(alloc, reinterpret_cast<const UInt8 *>(cStr),
                                   static_cast<CFIndex>(std::strlen(cStr)), encoding, false);
}

CFStringRef CFStringCreateWithCharacters(CFAllocatorRef alloc, const UniChar *chars, CFIndex numChars) noexcept {
    if (numChars < 0) return nullptr;
    if (numChars > 0) CF_REQUIRE(chars, "chars");
    return __CFStringCreateWithUnits(alloc, chars, numChars);
}

CFStringRef CFStringCreateCopy(CFAllocatorRef alloc, CFStringRef theString) noexcept {
    validate(theString, __func__);
    if (!__CFStringIsMutable(theString)) return static_cast<CFStringRef>(CFRetain(theString));
    const __CFStringView view = __CFStringGetView(theString);
    return view.wide ? __CFStringCreateWithUnits(alloc, view.units(), view.length)
                     : __CFStringCreateWithASCII(alloc, view.bytes(), view.length);
}

CFStringRef CFStringCreateWithSubstring(CFAllocatorRef alloc, CFStringRef str, CFRange range) noexcept {
    validate(str, __func__);
    const __CFStringView view = __CFStringGetView(str);
    validateRange(range, view.length, __func__);
    if (range.location == 0 && range.length == view.length && !__CFStringIsMutable(str))
        return static_cast<CFStringRef>(CFRetain(str));
    return view.wide ? __CFStringCreateWithUnits(alloc, view.units() + range.location, range.length)
                     : __CFStringCreateWithASCII(alloc, view.bytes() + range.location, range.length);
}

CFMutableStringRef CFStringCreateMutable(CFAllocatorRef alloc, CFIndex maxLength) noexcept {
    __CFMutableString *fields = createMutable(alloc, maxLength, __func__);
    return fields ? &fields->string : nullptr;
}

CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef alloc, CFIndex maxLength, CFStringRef theString) noexcept {
    validate(theString, __func__);
    const __CFStringView view = __CFStringGetView(theString);
    if (maxLength > 0 && view.length > maxLength) {
        CF_FATAL("string of length %ld does not fit in maxLength %ld", view.length, maxLength);
    }
    __CFMutableString *fields = createMutable(alloc, maxLength, __func__);
    if (fields == nullptr) return nullptr;
    if (view.length > 0) {
        // Unlike later mutation, a failed allocation here is reported as
        // a failed creation.
        const bool wide = view.wide && !__CFStringUnitsAreASCII(view.units(), static_cast<size_t>(view.length));
        const CFIndex bytes = wide ? view.length * 2 : view.length + 1;
        void *memory = CFAllocatorAllocate(CFGetAllocator(&fields->string), bytes, 0);
        if (memory == nullptr) {
            CFRelease(&fields->string);
            return nullptr;
        }
        if (wide) {
            std::memcpy(memory, view.chars, static_cast<size_t>(view.length) * 2);
        } else {
            auto *out = static_cast<uint8_t *>(memory);
            for (CFIndex i = 0; i < view.length; ++i) out[i] = static_cast<uint8_t>(view.at(i));
            out[view.length] = 0;
        }
        fields->string.chars = memory;
        fields->string.length = view.length;
        fields->string.flags = kCFStringFlagMutable | (wide ? kCFStringFlagWide : 0);
        fields->capacity = view.length;
    }
    return &fields->string;
}

CFIndex CFStringGetLength(CFStringRef theString) noexcept {
    validate(theString, __func__);
    return __CFStringGetView(theString).length;
}

UniChar CFStringGetCharacterAtIndex(CFStringRef theString, CFIndex idx) noexcept {
    validate(theString, __func__);
    const __CFStringView view = __CFStringGetView(theString);
    if (idx < 0 || idx >= view.length)
        CF_FATAL("index %ld is out of bounds of a string of length %ld", idx, view.length);
    return view.at(idx);
}

void CFStringGetCharacters(CFStringRef theString, CFRange range, UniChar *buffer) noexcept {
    validate(theString, __func__);
    const __CFStringView view = __CFStringGetView(theString);
    validateRange(range, view.length, __func__);
    if (range.length == 0) return;
    CF_REQUIRE(buffer, "buffer");
    if (view.wide) {
        std::memcpy(buffer, view.units() + range.location, static_cast<size_t>(range.length) * sizeof(UniChar));
    } else {
        const uint8_t *bytes = view.bytes() + range.location;
        for (CFIndex i = 0; i < range.length; ++i) buffer[i] = bytes[i];
    }
}

Boolean CFStringGetCString(CFStringRef theString, char *buffer, CFIndex bufferSize,
                           CFStringEncoding encoding) noexcept {
    validate(theString, __func__);
    if (buffer == nullptr || bufferSize <= 0) return false;
    const __CFStringView view = __CFStringGetView(theString);
    if (!view.wide && __CFStringEncodingIsASCIICompatible(encoding)) {
        if (view.length >= bufferSize) {
            buffer[0] = 0;
            return false;
        }
        std::memcpy(buffer, view.chars, static_cast<size_t>(view.length));
        buffer[view.length] = 0;
        return true;
    }
    CFIndex used = 0;
    CFIndex converted = __CFStringEncodeView(view, 0, view.length, encoding, 0, false,
                                             reinterpret_cast<UInt8 *>(buffer), bufferSize - 1, &used, nullptr);
    if (converted != view.length || !__CFStringEncodingIsSupported(encoding)) {
        buffer[0] = 0;
        return false;
    }
    buffer[used] = 0;
    return true;
}

const char *CFStringGetCStringPtr(CFStringRef theString, CFStringEncoding encoding) noexcept {
    validate(theString, __func__);
    const __CFStringView view = __CFStringGetView(theString);
    if (view.wide || !__CFStringEncodingIsASCIICompatible(encoding)) return nullptr;
    return static_cast<const char *>(view.chars);
}

CFIndex CFStringGetBytes(CFStringRef theString, CFRange range, CFStringEncoding encoding, UInt8 lossByte,
                         Boolean isExternalRepresentation, UInt8 *buffer, CFIndex maxBufLen,
                         CFIndex *usedBufLen) noexcept {
    validate(theString, __func__);
    const __CFStringView view = __CFStringGetView(theString);
    validateRange(range, view.length, __func__);
    CFIndex used = 0;
    CFIndex converted = 0;
    if (__CFStringEncodingIsSupported(encoding)) {
        if (buffer != nullptr && maxBufLen < 0) maxBufLen = 0;
        converted = __CFStringEncodeView(view, range.location, range.length, encoding, lossByte,
                                         isExternalRepresentation, buffer, maxBufLen, &used, nullptr);
    }
    if (usedBufLen) *usedBufLen = used;
    return converted;
}

CFDataRef CFStringCreateExternalRepresentation(CFAllocatorRef alloc, CFStringRef theString, CFStringEncoding encoding,
                                               UInt8 lossByte) noexcept {
    validate(theString, __func__);
    if (!__CFStringEncodingIsSupported(encoding)) return nullptr;
    const __CFStringView view = __CFStringGetView(theString);
    CFIndex needed = 0;
    if (__CFStringEncodeView(view, 0, view.length, encoding, lossByte, true, nullptr, 0, &needed, nullptr) !=
        view.length) {
        return nullptr;
    }
    uint8_t *bytes = needed > 0 ? static_cast<uint8_t *>(std::malloc(static_cast<size_t>(needed))) : nullptr;
    if (needed > 0 && bytes == nullptr) return nullptr;
    CFIndex used = 0;
    __CFStringEncodeView(view, 0, view.length, encoding, lossByte, true, bytes, needed, &used, nullptr);
    CFDataRef data = CFDataCreate(alloc, bytes, used);
    std::free(bytes);
    return data;
}

CFStringRef CFStringCreateFromExternalRepresentation(CFAllocatorRef alloc, CFDataRef data,
                                                     CFStringEncoding encoding) noexcept {
    __CFValidate(data, kCFDataTypeID, __func__);
    return CFStringCreateWithBytes(alloc, CFDataGetBytePtr(data), CFDataGetLength(data), encoding, true);
}

CFComparisonResult CFStringCompare(CFStringRef theString1, CFStringRef theString2,
                                   CFStringCompareFlags compareOptions) noexcept {
    validate(theString1, __func__);
    validate(theString2, __func__);
    const __CFStringView a = __CFStringGetView(theString1);
    return compareViews(a, 0, a.length, __CFStringGetView(theString2), compareOptions);
}

CFComparisonResult CFStringCompareWithOptions(CFStringRef theString1, CFStringRef theString2, CFRange rangeToCompare,
                                              CFStringCompareFlags compareOptions) noexcept {
    validate(theString1, __func__);
    validate(theString2, __func__);
    const __CFStringView a = __CFStringGetView(theString1);
    validateRange(rangeToCompare, a.length, __func__);
    return compareViews(a, rangeToCompare.location, rangeToCompare.location + rangeToCompare.length,
                        __CFStringGetView(theString2), compareOptions);
}

Boolean CFStringFindWithOptions(CFStringRef theString, CFStringRef stringToFind, CFRange rangeToSearch,
                                CFStringCompareFlags searchOptions, CFRange *result) noexcept {
    validate(theString, __func__);
    validate(stringToFind, __func__);
    const __CFStringView haystack = __CFStringGetView(theString);
    const __CFStringView needle = __CFStringGetView(stringToFind);
    validateRange(rangeToSearch, haystack.length, __func__);
    if (needle.length == 0 || needle.length > rangeToSearch.length) return false;

    const bool fold = (searchOptions & kCFCompareCaseInsensitive) != 0;
    const bool backwards = (searchOptions & kCFCompareBackwards) != 0;
    const bool anchored = (searchOptions & kCFCompareAnchored) != 0;
    const CFIndex first = rangeToSearch.location;
    const CFIndex last = rangeToSearch.location + rangeToSearch.length - needle.length;
    // Anchored searches try only the start of the range (or its end, when
    // searching backwards).
    CFIndex from = backwards ? last : first;
    CFIndex to = anchored ? from : (backwards ? first : last);
    const CFIndex step = backwards ? -1 : 1;
    const UniChar head = needle.at(0);
    for (CFIndex at = from;; at += step) {
        UniChar c = haystack.at(at);
        if ((c == head || (fold && foldCase(c) == foldCase(head))) && matchesAt(haystack, at, needle, fold)) {
            if (result) *result = CFRangeMake(at, needle.length);
            return true;
        }
        if (at == to) break;
    }
    return false;
}

CFRange CFStringFind(CFStringRef theString, CFStringRef stringToFind, CFStringCompareFlags compareOptions) noexcept {
    validate(theString, __func__);
    validate(stringToFind, __func__);
    CFRange result = CFRangeMake(kCFNotFound, 0);
    CFIndex length = __CFStringGetView(theString).length;
    if (!CFStringFindWithOptions(theString, stringToFind, CFRangeMake(0, length), compareOptions, &result))
        return CFRangeMake(kCFNotFound, 0);
    return result;
}

// An empty prefix or suffix is never found, as with CFStringFind.
Boolean CFStringHasPrefix(CFStringRef theString, CFStringRef prefix) noexcept {
    validate(theString, __func__);
    validate(prefix, __func__);
    CFIndex length = __CFStringGetView(theString).length;
    return CFStringFindWithOptions(theString, prefix, CFRangeMake(0, length), kCFCompareAnchored, nullptr);
}

Boolean CFStringHasSuffix(CFStringRef theString, CFStringRef suffix) noexcept {
    validate(theString, __func__);
    validate(suffix, __func__);
    CFIndex length = __CFStringGetView(theString).length;
    return CFStringFindWithOptions(theString, suffix, CFRangeMake(0, length), kCFCompareAnchored | kCFCompareBackwards,
                                   nullptr);
}

void CFStringAppend(CFMutableStringRef theString, CFStringRef appendedString) noexcept {
    __CFMutableString *fields = validateMutable(theString, __func__);
    validate(appendedString, __func__);
    const __CFStringView source = __CFStringGetView(appendedString);
    replaceWithView(fields, CFRangeMake(fields->string.length, 0), source, 0, source.length, __func__);
}

void CFStringAppendCharacters(CFMutableStringRef theString, const UniChar *chars, CFIndex numChars) noexcept {
    __CFMutableString *fields = validateMutable(theString, __func__);
    if (numChars < 0) CF_FATAL("numChars %ld is negative", numChars);
    if (numChars == 0) return;
    CF_REQUIRE(chars, "chars");
    replaceWithView(fields, CFRangeMake(fields->string.length, 0), __CFStringView{chars, numChars, true}, 0, numChars,
                    __func__);
}

void CFStringAppendCString(CFMutableStringRef theString, const char *cStr, CFStringEncoding encoding) noexcept {
    __CFMutableString *fields = validateMutable(theString, __func__);
    CF_REQUIRE(cStr, "cStr");
    const auto *bytes = reinterpret_cast<const uint8_t *>(cStr);
    const CFIndex count = static_cast<CFIndex>(std::strlen(cStr));
    if (__CFStringEncodingIsASCIICompatible(encoding) && __CFStringBytesAreASCII(bytes, static_cast<size_t>(count))) {
        replaceWithView(fields, CFRangeMake(fields->string.length, 0), __CFStringView{bytes, count, false}, 0, count,
                        __func__);
        return;
    }
    // Text that is not valid in `encoding` leaves the string unchanged, as
    // creation would have returned NULL for it.
    __CFUnitBuffer units;
    if (!__CFStringDecodeBytes(bytes, count, encoding, false, units)) {
        if (units.failed()) outOfMemory(__func__, fields->string.length + count);
        return;
    }
    replaceWithView(fields, CFRangeMake(fields->string.length, 0), __CFStringView{units.data(), units.length(), true},
                    0, units.length(), __func__);
}

void CFStringDelete(CFMutableStringRef theString, CFRange range) noexcept {
    __CFMutableString *fields = validateMutable(theString, __func__);
    validateRange(range, fields->string.length, __func__);
    if (range.length == 0) return;
    replaceWithView(fields, range, __CFStringView{kEmptyStorage, 0, false}, 0, 0, __func__);
    if (fields->string.length == 0) narrowIfASCII(fields);
}

void CFStringReplaceAll(CFMutableStringRef theString, CFStringRef replacement) noexcept {
    __CFMutableString *fields = validateMutable(theString, __func__);
    validate(replacement, __func__);
    if (replacement == theString) return;
    const __CFStringView source = __CFStringGetView(replacement);
    replaceWithView(fields, CFRangeMake(0, fields->string.length), source, 0, source.length, __func__);
    narrowIfASCII(fields);
}

}  // extern "C"

// ---- Constant strings for compilers without the builtin ---------------------

// Interned for the life of the process: the same text gives the same
// immortal object, as CFSTR's compile-time records do.
extern "C" CFStringRef __CFStringMakeConstantString(const char *cStr) noexcept {
    CF_REQUIRE(cStr, "cStr");
    static std::mutex lock;
    static auto *interned = new std::unordered_map<std::string, CFStringRef>();
    std::lock_guard<std::mutex> guard(lock);
    auto found = interned->find(cStr);
    if (found != interned->end()) return found->second;
    CFStringRef string = CFStringCreateWithCString(kCFAllocatorSystemDefault, cStr, kCFStringEncodingUTF8);
    if (!string) CF_FATAL("\"%s\" is not valid UTF-8 or memory ran out", cStr);
    auto *base = reinterpret_cast<CFRuntimeBase *>(const_cast<__CFString *>(string));
    base->_cfinfo |= kCFInfoImmortal;
    interned->emplace(cStr, string);
    return string;
}
