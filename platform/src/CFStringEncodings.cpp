// SPDX-License-Identifier: Apache-2.0
// Conversion between strings and bytes in the supported encodings: UTF-8,
// ASCII, ISO Latin 1, Windows Latin 1 (CP1252), Mac OS Roman, UTF-16 and
// UTF-32 (host order with a byte-order mark, or explicitly big/little
// endian) and non-lossy ASCII.  NeXTSTEP Latin is refused.
//
// Decoding is strict: malformed or overlong UTF-8, UTF-8 that encodes a
// surrogate, bytes a single-byte encoding does not define, and UTF-32 values
// that are not scalar values make the whole conversion fail.  A lone
// surrogate in UTF-16 input is kept, since UTF-16 strings may hold one.

#include <climits>

#include "CFStringInternal.h"

#define CF_SOURCE_PATH "CoreFoundation/CFStringEncodings"

namespace {

enum class Kind {
    Unsupported,
    UTF8,
    ASCII,
    Latin1,
    WindowsLatin1,
    MacRoman,
    NonLossyASCII,
    UTF16,
    UTF16BE,
    UTF16LE,
    UTF32,
    UTF32BE,
    UTF32LE,
};

Kind kindOf(CFStringEncoding encoding) {
    switch (encoding) {
        case kCFStringEncodingUTF8:
            return Kind::UTF8;
        case kCFStringEncodingASCII:
            return Kind::ASCII;
        case kCFStringEncodingISOLatin1:
            return Kind::Latin1;
        case kCFStringEncodingWindowsLatin1:
            return Kind::WindowsLatin1;
        case kCFStringEncodingMacRoman:
            return Kind::MacRoman;
        case kCFStringEncodingNonLossyASCII:
            return Kind::NonLossyASCII;
        case kCFStringEncodingUTF16:
            return Kind::UTF16;
        case kCFStringEncodingUTF16BE:
            return Kind::UTF16BE;
        case kCFStringEncodingUTF16LE:
            return Kind::UTF16LE;
        case kCFStringEncodingUTF32:
            return Kind::UTF32;
        case kCFStringEncodingUTF32BE:
            return Kind::UTF32BE;
        case kCFStringEncodingUTF32LE:
            return Kind::UTF32LE;
        default:
            return Kind::Unsupported;
    }
}

constexpr bool kHostIsBigEndian = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;

// Bytes 0x80...0xFF of Mac OS Roman (0xDB is the euro sign, 0xF0 maps to
// the private-use code point U+F8FF).
constexpr UniChar kMacRoman[128] = {
    0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1,  // 0x80
    0x00E0, 0x00E2, 0x00E4, 0x00E3, 0x00E5, 0x00E7, 0x00E9, 0x00E8,  // 0x88
    0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF, 0x00F1, 0x00F3,  // 0x90
    0x00F2, 0x00F4, 0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC,  // 0x98
    0x2020, 0x00B0, 0x00A2, 0x00A3, 0x00A7, 0x2022, 0x00B6, 0x00DF,  // 0xA0
    0x00AE, 0x00A9, 0x2122, 0x00B4, 0x00A8, 0x2260, 0x00C6, 0x00D8,  // 0xA8
    0x221E, 0x00B1, 0x2264, 0x2265, 0x00A5, 0x00B5, 0x2202, 0x2211,  // 0xB0
    0x220F, 0x03C0, 0x222B, 0x00AA, 0x00BA, 0x03A9, 0x00E6, 0x00F8,  // 0xB8
    0x00BF, 0x00A1, 0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB,  // 0xC0
    0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3, 0x00D5, 0x0152, 0x0153,  // 0xC8
    0x2013, 0x2014, 0x201C, 0x201D, 0x2018, 0x2019, 0x00F7, 0x25CA,  // 0xD0
    0x00FF, 0x0178, 0x2044, 0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02,  // 0xD8
    0x2021, 0x00B7, 0x201A, 0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1,  // 0xE0
    0x00CB, 0x00C8, 0x00CD, 0x00CE, 0x00CF, 0x00CC, 0x00D3, 0x00D4,  // 0xE8
    0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9, 0x0131, 0x02C6, 0x02DC,  // 0xF0
    0x00AF, 0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7,  // 0xF8
};

// Bytes 0x80...0x9F of Windows Latin 1; 0 marks the five undefined bytes.
// 0xA0...0xFF are the same as ISO Latin 1.
constexpr UniChar kWindowsLatin1[32] = {
    0x20AC, 0x0000, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,  // 0x80
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x0000, 0x017D, 0x0000,  // 0x88
    0x0000, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,  // 0x90
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x0000, 0x017E, 0x0178,  // 0x98
};

// ---- Decoding --------------------------------------------------------------

bool decodeUTF8(const uint8_t *bytes, CFIndex count, bool external, __CFUnitBuffer &out) {
    CFIndex i = 0;
    if (external && count >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) i = 3;
    // Never more units than bytes.
    if (!out.reserve(count - i)) return false;
    while (i < count) {
        // A stray continuation byte, C0/C1 (always overlong), F5...FF, a
        // truncated sequence or a bad value fails the whole conversion.
        const __CFUTF8Sequence sequence =
            __CFReadUTF8Sequence(bytes, static_cast<size_t>(count), static_cast<size_t>(i));
        if (sequence.status != __CFUTF8Sequence::Valid) return false;
        out.appendCodePoint(sequence.c);
        i += static_cast<CFIndex>(sequence.length);
    }
    return !out.failed();
}

bool decodeSingleByte(const uint8_t *bytes, CFIndex count, Kind kind, __CFUnitBuffer &out) {
    if (!out.reserve(count)) return false;
    for (CFIndex i = 0; i < count; ++i) {
        const uint8_t b = bytes[i];
        UniChar c = b;
        if (b >= 0x80) {
            switch (kind) {
                case Kind::ASCII:
                    return false;
                case Kind::Latin1:
                    break;
                case Kind::WindowsLatin1:
                    if (b < 0xA0) {
                        c = kWindowsLatin1[b - 0x80];
                        if (c == 0) return false;
                    }
                    break;
                case Kind::MacRoman:
                    c = kMacRoman[b - 0x80];
                    break;
                default:
                    return false;
            }
        }
        out.append(c);
    }
    return !out.failed();
}

int hexValue(uint8_t c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Non-lossy ASCII: ASCII as itself, "\\" for a backslash, "\ooo" (three
// octal digits) for other characters below 0x100 and "\uXXXX" for the rest.
// A backslash starting none of these stands for itself.
bool decodeNonLossyASCII(const uint8_t *bytes, CFIndex count, __CFUnitBuffer &out) {
    if (!out.reserve(count)) return false;
    CFIndex i = 0;
    while (i < count) {
        const uint8_t b = bytes[i];
        if (b >= 0x80) return false;
        if (b != '\\' || i + 1 >= count) {
            out.append(b);
            ++i;
            continue;
        }
        const uint8_t next = bytes[i + 1];
        if (next == '\\') {
            out.append('\\');
            i += 2;
        } else if (next == 'u' && count - i >= 6 && hexValue(bytes[i + 2]) >= 0 && hexValue(bytes[i + 3]) >= 0 &&
                   hexValue(bytes[i + 4]) >= 0 && hexValue(bytes[i + 5]) >= 0) {
            out.append(static_cast<UniChar>(hexValue(bytes[i + 2]) << 12 | hexValue(bytes[i + 3]) << 8 |
                                            hexValue(bytes[i + 4]) << 4 | hexValue(bytes[i + 5])));
            i += 6;
        } else if (next >= '0' && next <= '3' && count - i >= 4 && bytes[i + 2] >= '0' && bytes[i + 2] <= '7' &&
                   bytes[i + 3] >= '0' && bytes[i + 3] <= '7') {
            out.append(static_cast<UniChar>((next - '0') << 6 | (bytes[i + 2] - '0') << 3 | (bytes[i + 3] - '0')));
            i += 4;
        } else {
            out.append('\\');
            ++i;
        }
    }
    return !out.failed();
}

bool decodeUTF16(const uint8_t *bytes, CFIndex count, Kind kind, bool external, __CFUnitBuffer &out) {
    if (count % 2 != 0) return false;
    bool bigEndian = kind == Kind::UTF16BE;
    CFIndex i = 0;
    if (kind == Kind::UTF16) {
        if (count >= 2 && bytes[0] == 0xFE && bytes[1] == 0xFF) {
            bigEndian = true, i = 2;
        } else if (count >= 2 && bytes[0] == 0xFF && bytes[1] == 0xFE) {
            bigEndian = false, i = 2;
        } else {
            // Without a mark, an external representation is big-endian by
            // convention; in-memory text is in host order.
            bigEndian = external || kHostIsBigEndian;
        }
    }
    if (!out.reserve((count - i) / 2)) return false;
    for (; i < count; i += 2) {
        out.append(static_cast<UniChar>(bigEndian ? bytes[i] << 8 | bytes[i + 1] : bytes[i + 1] << 8 | bytes[i]));
    }
    return !out.failed();
}

bool decodeUTF32(const uint8_t *bytes, CFIndex count, Kind kind, bool external, __CFUnitBuffer &out) {
    if (count % 4 != 0) return false;
    bool bigEndian = kind == Kind::UTF32BE;
    CFIndex i = 0;
    if (kind == Kind::UTF32) {
        if (count >= 4 && bytes[0] == 0 && bytes[1] == 0 && bytes[2] == 0xFE && bytes[3] == 0xFF) {
            bigEndian = true, i = 4;
        } else if (count >= 4 && bytes[0] == 0xFF && bytes[1] == 0xFE && bytes[2] == 0 && bytes[3] == 0) {
            bigEndian = false, i = 4;
        } else {
            bigEndian = external || kHostIsBigEndian;
        }
    }
    if (!out.reserve((count - i) / 4)) return false;
    for (; i < count; i += 4) {
        const UTF32Char c =
            bigEndian ? static_cast<UTF32Char>(bytes[i]) << 24 | bytes[i + 1] << 16 | bytes[i + 2] << 8 | bytes[i + 3]
                      : static_cast<UTF32Char>(bytes[i + 3]) << 24 | bytes[i + 2] << 16 | bytes[i + 1] << 8 | bytes[i];
        if (c > 0x10FFFF || __CFStringIsSurrogate(c)) return false;
        out.appendCodePoint(c);
    }
    return !out.failed();
}

// ---- Encoding --------------------------------------------------------------

// The byte for `c` in a single-byte encoding, or -1 when it has none.
int singleByteFor(UTF32Char c, Kind kind) {
    if (c < 0x80) return static_cast<int>(c);
    switch (kind) {
        case Kind::Latin1:
            return c <= 0xFF ? static_cast<int>(c) : -1;
        case Kind::WindowsLatin1:
            if (c >= 0xA0 && c <= 0xFF) return static_cast<int>(c);
            for (int i = 0; i < 32; ++i) {
                if (kWindowsLatin1[i] != 0 && kWindowsLatin1[i] == c) return 0x80 + i;
            }
            return -1;
        case Kind::MacRoman:
            for (int i = 0; i < 128; ++i) {
                if (kMacRoman[i] == c) return 0x80 + i;
            }
            return -1;
        default:
            return -1;
    }
}

inline void putUnit16(uint8_t *out, UniChar unit, bool bigEndian) {
    out[bigEndian ? 0 : 1] = static_cast<uint8_t>(unit >> 8);
    out[bigEndian ? 1 : 0] = static_cast<uint8_t>(unit);
}

inline void putUnit32(uint8_t *out, UTF32Char c, bool bigEndian) {
    for (int k = 0; k < 4; ++k) out[bigEndian ? 3 - k : k] = static_cast<uint8_t>(c >> (8 * k));
}

}  // namespace

bool __CFStringEncodingIsSupported(CFStringEncoding encoding) {
    return kindOf(encoding) != Kind::Unsupported;
}

bool __CFStringEncodingIsASCIICompatible(CFStringEncoding encoding) {
    switch (kindOf(encoding)) {
        case Kind::UTF8:
        case Kind::ASCII:
        case Kind::Latin1:
        case Kind::WindowsLatin1:
        case Kind::MacRoman:
            return true;
        default:
            return false;
    }
}

bool __CFStringDecodeBytes(const uint8_t *bytes, CFIndex count, CFStringEncoding encoding, bool external,
                           __CFUnitBuffer &out) {
    const Kind kind = kindOf(encoding);
    switch (kind) {
        case Kind::UTF8:
            return decodeUTF8(bytes, count, external, out);
        case Kind::ASCII:
        case Kind::Latin1:
        case Kind::WindowsLatin1:
        case Kind::MacRoman:
            return decodeSingleByte(bytes, count, kind, out);
        case Kind::NonLossyASCII:
            return decodeNonLossyASCII(bytes, count, out);
        case Kind::UTF16:
        case Kind::UTF16BE:
        case Kind::UTF16LE:
            return decodeUTF16(bytes, count, kind, external, out);
        case Kind::UTF32:
        case Kind::UTF32BE:
        case Kind::UTF32LE:
            return decodeUTF32(bytes, count, kind, external, out);
        case Kind::Unsupported:
            break;
    }
    return false;
}

namespace {

bool isUTF16Kind(Kind kind) {
    return kind == Kind::UTF16 || kind == Kind::UTF16BE || kind == Kind::UTF16LE;
}

bool isUTF32Kind(Kind kind) {
    return kind == Kind::UTF32 || kind == Kind::UTF32BE || kind == Kind::UTF32LE;
}

// Each encoder below writes one character's bytes to `out` (8 bytes at
// most) and returns their count, or 0 when the encoding cannot represent
// the character.

// Lone surrogates pass through: UTF-16 can carry them.
int encodeUTF16(const __CFStringView &view, CFIndex i, CFIndex units, bool bigEndian, uint8_t *out) {
    putUnit16(out, view.at(i), bigEndian);
    if (units == 1) return 2;
    putUnit16(out + 2, view.at(i + 1), bigEndian);
    return 4;
}

int encodeUTF32(UTF32Char c, bool bigEndian, uint8_t *out) {
    if (__CFStringIsSurrogate(c)) return 0;
    putUnit32(out, c, bigEndian);
    return 4;
}

int encodeUTF8(UTF32Char c, uint8_t *out) {
    if (c < 0x80) {
        out[0] = static_cast<uint8_t>(c);
        return 1;
    }
    if (c < 0x800) {
        out[0] = static_cast<uint8_t>(0xC0 | (c >> 6));
        out[1] = static_cast<uint8_t>(0x80 | (c & 0x3F));
        return 2;
    }
    if (__CFStringIsSurrogate(c)) return 0;
    if (c < 0x10000) {
        out[0] = static_cast<uint8_t>(0xE0 | (c >> 12));
        out[1] = static_cast<uint8_t>(0x80 | ((c >> 6) & 0x3F));
        out[2] = static_cast<uint8_t>(0x80 | (c & 0x3F));
        return 3;
    }
    out[0] = static_cast<uint8_t>(0xF0 | (c >> 18));
    out[1] = static_cast<uint8_t>(0x80 | ((c >> 12) & 0x3F));
    out[2] = static_cast<uint8_t>(0x80 | ((c >> 6) & 0x3F));
    out[3] = static_cast<uint8_t>(0x80 | (c & 0x3F));
    return 4;
}

// Works on single UTF-16 units: characters outside the BMP are written as
// their two surrogates, one escape each.
int encodeNonLossyASCII(UniChar unit, uint8_t *out) {
    static const char kHex[] = "0123456789abcdef";
    if (unit == '\\') {
        out[0] = out[1] = '\\';
        return 2;
    }
    if (unit < 0x80) {
        out[0] = static_cast<uint8_t>(unit);
        return 1;
    }
    if (unit < 0x100) {
        out[0] = '\\';
        out[1] = static_cast<uint8_t>('0' + (unit >> 6));
        out[2] = static_cast<uint8_t>('0' + ((unit >> 3) & 7));
        out[3] = static_cast<uint8_t>('0' + (unit & 7));
        return 4;
    }
    out[0] = '\\', out[1] = 'u';
    for (int k = 0; k < 4; ++k) out[2 + k] = static_cast<uint8_t>(kHex[(unit >> (12 - 4 * k)) & 0xF]);
    return 6;
}

int encodeSingleByte(UTF32Char c, Kind kind, uint8_t *out) {
    const int byte = singleByteFor(c, kind);
    if (byte < 0) return 0;
    out[0] = static_cast<uint8_t>(byte);
    return 1;
}

// The character at `i` (a surrogate pair when `units` is 2) in `kind`.
// Non-lossy ASCII takes one unit at a time and sets `units` back to 1.
int encodeCharacter(Kind kind, const __CFStringView &view, CFIndex i, UTF32Char c, CFIndex &units, bool bigEndian,
                    uint8_t *out) {
    if (isUTF16Kind(kind)) return encodeUTF16(view, i, units, bigEndian, out);
    if (isUTF32Kind(kind)) return encodeUTF32(c, bigEndian, out);
    if (kind == Kind::UTF8) return encodeUTF8(c, out);
    if (kind == Kind::NonLossyASCII) {
        units = 1;
        return encodeNonLossyASCII(view.at(i), out);
    }
    return encodeSingleByte(c, kind, out);
}

// The generic UTF-16 and UTF-32 forms write a byte-order mark in external
// representations (the explicit-endian ones never do).  Returns the mark's
// size, 0 when none is due, or -1 when it does not fit in maxBytes.
CFIndex writeByteOrderMark(Kind kind, bool external, bool bigEndian, UInt8 *buffer, CFIndex maxBytes) {
    if (!external || (kind != Kind::UTF16 && kind != Kind::UTF32)) return 0;
    const CFIndex markSize = kind == Kind::UTF16 ? 2 : 4;
    if (markSize > maxBytes) return -1;
    if (buffer) {
        if (kind == Kind::UTF16) {
            putUnit16(buffer, 0xFEFF, bigEndian);
        } else {
            putUnit32(buffer, 0xFEFF, bigEndian);
        }
    }
    return markSize;
}

}  // namespace

CFIndex __CFStringEncodeView(const __CFStringView &view, CFIndex location, CFIndex count, CFStringEncoding encoding,
                             UInt8 lossByte, bool external, UInt8 *buffer, CFIndex maxBytes, CFIndex *usedBytes,
                             bool *lossy) {
    const Kind kind = kindOf(encoding);
    if (lossy) *lossy = false;
    if (kind == Kind::Unsupported) {
        *usedBytes = 0;
        return 0;
    }
    if (buffer == nullptr) maxBytes = LONG_MAX;

    // 8-bit storage is ASCII, which every ASCII-compatible encoding writes
    // as the same bytes.
    if (!view.wide && __CFStringEncodingIsASCIICompatible(encoding)) {
        const CFIndex copied = count < maxBytes ? count : maxBytes;
        if (buffer && copied > 0) std::memcpy(buffer, view.bytes() + location, static_cast<size_t>(copied));
        *usedBytes = copied;
        return copied;
    }

    // The generic forms use host order; the explicit ones say theirs.
    const bool bigEndian = (kind == Kind::UTF16 || kind == Kind::UTF32)
                               ? kHostIsBigEndian
                               : (kind == Kind::UTF16BE || kind == Kind::UTF32BE);
    CFIndex used = writeByteOrderMark(kind, external, bigEndian, buffer, maxBytes);
    if (used < 0) {
        *usedBytes = 0;
        return 0;
    }

    CFIndex converted = 0;
    const CFIndex end = location + count;
    for (CFIndex i = location; i < end;) {
        UTF32Char c = view.at(i);
        CFIndex units = 1;
        if (__CFStringIsSurrogateHigh(c) && i + 1 < end && __CFStringIsSurrogateLow(view.at(i + 1))) {
            c = 0x10000 + ((c - 0xD800) << 10) + (view.at(i + 1) - 0xDC00);
            units = 2;
        }
        uint8_t out[8];
        int size = encodeCharacter(kind, view, i, c, units, bigEndian, out);
        if (size == 0) {
            if (lossByte == 0) break;
            if (lossy) *lossy = true;
            // The loss byte is written as it stands (one byte), widened to a
            // code unit only in UTF-32.
            if (isUTF32Kind(kind)) {
                size = encodeUTF32(lossByte, bigEndian, out);
            } else {
                out[0] = lossByte;
                size = 1;
            }
        }
        if (size > maxBytes - used) break;
        if (buffer) std::memcpy(buffer + used, out, static_cast<size_t>(size));
        used += size;
        converted += units;
        i += units;
    }
    *usedBytes = used;
    return converted;
}

extern "C" CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding) noexcept {
    CFIndex factor;
    switch (kindOf(encoding)) {
        case Kind::UTF8:
            factor = 3;
            break;  // a surrogate pair (2 units) needs 4 bytes, never more than 3 per unit
        case Kind::UTF16:
        case Kind::UTF16BE:
        case Kind::UTF16LE:
            factor = 2;
            break;
        case Kind::UTF32:
        case Kind::UTF32BE:
        case Kind::UTF32LE:
            factor = 4;
            break;
        case Kind::NonLossyASCII:
            factor = 6;
            break;  // "\uXXXX"
        case Kind::ASCII:
        case Kind::Latin1:
        case Kind::WindowsLatin1:
        case Kind::MacRoman:
            factor = 1;
            break;
        default:
            return kCFNotFound;
    }
    if (length < 0 || length > LONG_MAX / factor) return kCFNotFound;
    return length * factor;
}
