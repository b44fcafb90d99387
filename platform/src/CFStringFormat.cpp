// SPDX-License-Identifier: Apache-2.0
// printf-style formatting into strings.
//
// A format is handled in three passes: parse every conversion and note the
// type of each argument it uses (so positional arguments such as "%2$d" can
// be fetched in argument order, whatever order the format names them in),
// fetch all arguments from the va_list, then produce the text.  Numbers are
// converted by snprintf, but only ever with a single conversion rebuilt here
// from the parsed fields, never with the caller's format text.  Text
// conversions (%s %S %c %C %@) are done here, in UTF-16, so width and
// precision count UTF-16 units and non-ASCII text survives.
//
// A malformed conversion is copied to the output as it stands and uses no
// argument.  %n is accepted but writes nothing (its pointer is consumed).

#include <climits>
#include <cstdio>
#include <new>
#include <vector>

#include "CFStringInternal.h"

#define CF_SOURCE_PATH "CoreFoundation/CFStringFormat"

namespace {

enum class ArgType : uint8_t {
    None,  // not named by the format (a gap between positional arguments)
    Int,
    Long,
    LongLong,
    IntMax,
    Size,
    PtrDiff,
    Double,
    LongDouble,
    Pointer,
};

enum class Length : uint8_t { None, hh, h, l, ll, j, z, t, L };

union ArgValue {
    int i;
    long l;
    long long ll;
    intmax_t j;
    size_t z;
    ptrdiff_t t;
    double d;
    long double ld;
    const void *p;
};

// Positional indices above this are treated as malformed: fetching that many
// arguments would read far past anything the caller passed.
constexpr int kMaxArguments = 4096;

struct Directive {
    CFIndex start = 0;  // the conversion's text in the format, '%' included
    CFIndex end = 0;
    bool minus = false, plus = false, space = false, hash = false, zero = false, grouping = false;
    int width = -1;      // -1: none
    int precision = -1;  // -1: none
    int widthArg = -1;   // argument index of a '*' width
    int precisionArg = -1;
    int valueArg = -1;  // argument index of the value (-1 for %%)
    Length length = Length::None;
    UniChar conversion = 0;
};

// Parses a decimal number at `i` (advancing it); -1 when it does not fit an int.
int parseNumber(const __CFStringView &format, CFIndex &i) {
    long value = 0;
    while (i < format.length && format.at(i) >= '0' && format.at(i) <= '9') {
        value = value * 10 + (format.at(i) - '0');
        if (value > INT_MAX) value = LONG_MAX / 16;  // keep consuming digits, remember the overflow
        ++i;
    }
    return value > INT_MAX ? -1 : static_cast<int>(value);
}

// "n$" at `i`: returns n - 1 and advances, or -1 (and leaves `i`) when there
// is none.  Sets `bad` when the index is out of range.
int parsePosition(const __CFStringView &format, CFIndex &i, bool &bad) {
    CFIndex j = i;
    if (j >= format.length || format.at(j) < '1' || format.at(j) > '9') return -1;
    int n = parseNumber(format, j);
    if (j >= format.length || format.at(j) != '$') return -1;
    if (n < 1 || n > kMaxArguments) bad = true;
    i = j + 1;
    return n - 1;
}

ArgType argTypeFor(UniChar conversion, Length length) {
    switch (conversion) {
        case 'd':
        case 'i':
        case 'u':
        case 'o':
        case 'x':
        case 'X':
            switch (length) {
                case Length::l:
                    return ArgType::Long;
                case Length::ll:
                case Length::L:
                    return ArgType::LongLong;
                case Length::j:
                    return ArgType::IntMax;
                case Length::z:
                    return ArgType::Size;
                case Length::t:
                    return ArgType::PtrDiff;
                default:
                    return ArgType::Int;
            }
        case 'D':
        case 'U':
        case 'O':
            return ArgType::Long;
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            return length == Length::L ? ArgType::LongDouble : ArgType::Double;
        case 'c':
        case 'C':
            return ArgType::Int;  // char and UniChar arrive promoted to int
        case 's':
        case 'S':
        case 'p':
        case '@':
        case 'n':
            return ArgType::Pointer;
        default:
            return ArgType::None;
    }
}

// Parses the conversion starting at format[i] == '%'.  Returns false when it
// is malformed (directive.end still marks where its text stops).
bool parseConversion(const __CFStringView &format, CFIndex i, int &nextArg, std::vector<ArgType> &types,
                     Directive &directive) {
    directive.start = i++;
    bool bad = false;
    const int position = parsePosition(format, i, bad);

    for (; i < format.length; ++i) {
        UniChar c = format.at(i);
        if (c == '-')
            directive.minus = true;
        else if (c == '+')
            directive.plus = true;
        else if (c == ' ')
            directive.space = true;
        else if (c == '#')
            directive.hash = true;
        else if (c == '0')
            directive.zero = true;
        else if (c == '\'')
            directive.grouping = true;
        else
            break;
    }

    int widthPosition = -2;  // -2: no '*'; -1: sequential '*'; >= 0: positional
    if (i < format.length && format.at(i) == '*') {
        ++i;
        widthPosition = parsePosition(format, i, bad);
    } else if (i < format.length && format.at(i) >= '1' && format.at(i) <= '9') {
        directive.width = parseNumber(format, i);
        if (directive.width < 0) bad = true;
    }

    int precisionPosition = -2;
    if (i < format.length && format.at(i) == '.') {
        ++i;
        if (i < format.length && format.at(i) == '*') {
            ++i;
            precisionPosition = parsePosition(format, i, bad);
        } else {
            directive.precision = parseNumber(format, i);
            if (directive.precision < 0) bad = true;
        }
    }

    if (i < format.length) {
        switch (format.at(i)) {
            case 'h':
                ++i;
                if (i < format.length && format.at(i) == 'h')
                    ++i, directive.length = Length::hh;
                else
                    directive.length = Length::h;
                break;
            case 'l':
                ++i;
                if (i < format.length && format.at(i) == 'l')
                    ++i, directive.length = Length::ll;
                else
                    directive.length = Length::l;
                break;
            case 'q':
                ++i, directive.length = Length::ll;
                break;
            case 'j':
                ++i, directive.length = Length::j;
                break;
            case 'z':
                ++i, directive.length = Length::z;
                break;
            case 't':
                ++i, directive.length = Length::t;
                break;
            case 'L':
                ++i, directive.length = Length::L;
                break;
            default:
                break;
        }
    }

    if (i >= format.length) {
        directive.end = format.length;
        return false;
    }
    directive.conversion = format.at(i);
    directive.end = i + 1;
    if (directive.conversion == '%') return !bad;

    ArgType type = argTypeFor(directive.conversion, directive.length);
    if (type == ArgType::None || bad) return false;

    auto take = [&](int requested, ArgType argType) -> int {
        int index = requested >= 0 ? requested : nextArg++;
        if (index >= kMaxArguments) return -1;
        if (static_cast<size_t>(index) >= types.size()) types.resize(static_cast<size_t>(index) + 1, ArgType::None);
        if (types[static_cast<size_t>(index)] == ArgType::None) types[static_cast<size_t>(index)] = argType;
        return index;
    };
    // printf order: width, precision, then the value.
    if (widthPosition != -2 && (directive.widthArg = take(widthPosition, ArgType::Int)) < 0) return false;
    if (precisionPosition != -2 && (directive.precisionArg = take(precisionPosition, ArgType::Int)) < 0) return false;
    directive.valueArg = take(position, type);
    return directive.valueArg >= 0;
}

void fetchArguments(const std::vector<ArgType> &types, std::vector<ArgValue> &values, va_list arguments) {
    values.resize(types.size());
    for (size_t k = 0; k < types.size(); ++k) {
        ArgValue &value = values[k];
        switch (types[k]) {
            case ArgType::Int:
                value.i = va_arg(arguments, int);
                break;
            case ArgType::Long:
                value.l = va_arg(arguments, long);
                break;
            case ArgType::LongLong:
                value.ll = va_arg(arguments, long long);
                break;
            case ArgType::IntMax:
                value.j = va_arg(arguments, intmax_t);
                break;
            case ArgType::Size:
                value.z = va_arg(arguments, size_t);
                break;
            case ArgType::PtrDiff:
                value.t = va_arg(arguments, ptrdiff_t);
                break;
            case ArgType::Double:
                value.d = va_arg(arguments, double);
                break;
            case ArgType::LongDouble:
                value.ld = va_arg(arguments, long double);
                break;
            case ArgType::Pointer:
                value.p = va_arg(arguments, const void *);
                break;
            // A gap in the positional arguments: its type is unknown, so take a
            // word (what an integer or pointer argument occupies).
            case ArgType::None:
                value.p = va_arg(arguments, const void *);
                break;
        }
    }
}

// ---- Output --------------------------------------------------------------

// Appends `text` padded to `width` with spaces (after it when leftAlign).
void appendPadded(__CFUnitBuffer &out, const UniChar *text, CFIndex count, int width, bool leftAlign) {
    CFIndex pad = width > count ? width - count : 0;
    if (!leftAlign) out.appendRepeated(' ', pad);
    out.append(text, count);
    if (leftAlign) out.appendRepeated(' ', pad);
}

void appendPadded(__CFUnitBuffer &out, const __CFStringView &view, CFIndex count, int width, bool leftAlign) {
    CFIndex pad = width > count ? width - count : 0;
    if (!leftAlign) out.appendRepeated(' ', pad);
    out.appendView(view, 0, count);
    if (leftAlign) out.appendRepeated(' ', pad);
}

// UTF-8 decoding that never fails: a byte that does not start a valid
// sequence is taken as Latin-1.  When the text was cut at `precision` bytes,
// a sequence the cut truncated is dropped rather than mangled.
void decodeCString(const uint8_t *bytes, size_t count, bool cut, __CFUnitBuffer &out) {
    size_t i = 0;
    while (i < count) {
        const uint8_t lead = bytes[i];
        if (lead < 0x80) {
            out.append(lead);
            ++i;
            continue;
        }
        size_t trail = lead >= 0xC2 && lead <= 0xDF   ? 1
                       : lead >= 0xE0 && lead <= 0xEF ? 2
                       : lead >= 0xF0 && lead <= 0xF4 ? 3
                                                      : 0;
        UTF32Char c = lead & (0x3F >> trail);
        size_t k = 1;
        for (; trail && k <= trail && i + k < count && (bytes[i + k] & 0xC0) == 0x80; ++k)
            c = (c << 6) | (bytes[i + k] & 0x3F);
        if (trail && k == trail + 1) {
            static constexpr UTF32Char kMinimum[] = {0, 0x80, 0x800, 0x10000};
            if (c >= kMinimum[trail] && c <= 0x10FFFF && !__CFStringIsSurrogate(c)) {
                out.appendCodePoint(c);
                i += trail + 1;
                continue;
            }
        } else if (trail && cut && i + k == count) {
            return;  // a character the precision cut in half
        }
        out.append(lead);
        ++i;
    }
}

// Lowercase hex of a pointer with "0x", even for NULL (printf's "(nil)" is
// not what descriptions want).
void appendPointer(__CFUnitBuffer &out, const void *pointer, const Directive &directive, int width) {
    char text[2 + 2 * sizeof(void *) + 1];
    int count =
        std::snprintf(text, sizeof text, "0x%lx", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(pointer)));
    UniChar units[sizeof text];
    for (int k = 0; k < count; ++k) units[k] = static_cast<uint8_t>(text[k]);
    appendPadded(out, units, count, width, directive.minus);
}

#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat-nonliteral"

template <typename T>
void appendNumber(__CFUnitBuffer &out, const char *conversion, T value) {
    char stackBuffer[128];
    int count = std::snprintf(stackBuffer, sizeof stackBuffer, conversion, value);
    if (count < 0) return;
    if (static_cast<size_t>(count) < sizeof stackBuffer) {
        out.appendLatin1(stackBuffer, count);
        return;
    }
    char *heap = static_cast<char *>(std::malloc(static_cast<size_t>(count) + 1));
    if (heap == nullptr) {
        out.reserve(LONG_MAX / 2);  // marks the output as failed
        return;
    }
    std::snprintf(heap, static_cast<size_t>(count) + 1, conversion, value);
    out.appendLatin1(heap, count);
    std::free(heap);
}

#pragma clang diagnostic pop

void appendNumeric(__CFUnitBuffer &out, const Directive &directive, const ArgValue &value, ArgType type, int width,
                   int precision, bool leftAlign) {
    // Rebuild one sanitised conversion: flags, width, precision, length and
    // the conversion character, nothing else.
    char conversion[64];
    size_t n = 0;
    conversion[n++] = '%';
    if (leftAlign) conversion[n++] = '-';
    if (directive.plus) conversion[n++] = '+';
    if (directive.space) conversion[n++] = ' ';
    if (directive.hash) conversion[n++] = '#';
    if (directive.zero) conversion[n++] = '0';
    if (directive.grouping) conversion[n++] = '\'';
    if (width >= 0) n += static_cast<size_t>(std::snprintf(conversion + n, sizeof conversion - n, "%d", width));
    if (precision >= 0)
        n += static_cast<size_t>(std::snprintf(conversion + n, sizeof conversion - n, ".%d", precision));
    UniChar c = directive.conversion;
    Length length = directive.length;
    if (c == 'D' || c == 'U' || c == 'O') {
        c = static_cast<UniChar>(c - 'A' + 'a');
        length = Length::l;
    }
    if (c == 'd' || c == 'i' || c == 'u' || c == 'o' || c == 'x' || c == 'X') {
        switch (length) {
            case Length::hh:
                conversion[n++] = 'h', conversion[n++] = 'h';
                break;
            case Length::h:
                conversion[n++] = 'h';
                break;
            case Length::l:
                conversion[n++] = 'l';
                break;
            case Length::ll:
            case Length::L:
                conversion[n++] = 'l', conversion[n++] = 'l';
                break;
            case Length::j:
                conversion[n++] = 'j';
                break;
            case Length::z:
                conversion[n++] = 'z';
                break;
            case Length::t:
                conversion[n++] = 't';
                break;
            case Length::None:
                break;
        }
    } else if (length == Length::L) {
        conversion[n++] = 'L';
    }
    conversion[n++] = static_cast<char>(c);
    conversion[n] = 0;

    switch (type) {
        case ArgType::Int:
            appendNumber(out, conversion, value.i);
            break;
        case ArgType::Long:
            appendNumber(out, conversion, value.l);
            break;
        case ArgType::LongLong:
            appendNumber(out, conversion, value.ll);
            break;
        case ArgType::IntMax:
            appendNumber(out, conversion, value.j);
            break;
        case ArgType::Size:
            appendNumber(out, conversion, value.z);
            break;
        case ArgType::PtrDiff:
            appendNumber(out, conversion, value.t);
            break;
        case ArgType::Double:
            appendNumber(out, conversion, value.d);
            break;
        case ArgType::LongDouble:
            appendNumber(out, conversion, value.ld);
            break;
        default:
            break;
    }
}

// %@: the object's formatting description, else its debug description; a
// string stands for itself.
void appendObject(__CFUnitBuffer &out, CFTypeRef object, CFDictionaryRef formatOptions, int width, int precision,
                  bool leftAlign) {
    static const char kNull[] = "(null)";
    if (object == nullptr) {
        __CFStringView view{kNull, 6, false};
        CFIndex count = precision >= 0 && precision < 6 ? precision : 6;
        appendPadded(out, view, count, width, leftAlign);
        return;
    }
    CFStringRef description = nullptr;
    CFStringRef text;
    if (__CFTypeIDOf(object) == kCFStringTypeID) {
        text = static_cast<CFStringRef>(object);
    } else {
        const CFRuntimeClass *cls = _CFRuntimeGetClassWithTypeID(__CFTypeIDOf(object));
        if (cls && cls->copyFormattingDesc) description = cls->copyFormattingDesc(object, formatOptions);
        if (description == nullptr) description = CFCopyDescription(object);
        text = description;
    }
    if (text != nullptr) {
        const __CFStringView view = __CFStringGetView(text);
        CFIndex count = precision >= 0 && precision < view.length ? precision : view.length;
        appendPadded(out, view, count, width, leftAlign);
    }
    if (description) CFRelease(description);
}

void appendText(__CFUnitBuffer &out, const Directive &directive, const ArgValue &value, int width, int precision,
                bool leftAlign, CFDictionaryRef formatOptions) {
    const UniChar conversion = directive.conversion;
    __CFUnitBuffer text;
    // As with the compiler's checks for string formats, "l" makes %c and %s
    // the same as %C and %S: a UniChar and a UniChar string.
    if (conversion == 'c' && directive.length != Length::l) {
        text.append(static_cast<uint8_t>(value.i));
    } else if (conversion == 'c' || conversion == 'C') {
        text.append(static_cast<UniChar>(value.i));
    } else if (value.p == nullptr) {
        static const UniChar kNull[] = {'(', 'n', 'u', 'l', 'l', ')'};
        text.append(kNull, precision >= 0 && precision < 6 ? precision : 6);
    } else if (conversion == 's' && directive.length != Length::l) {
        const auto *bytes = static_cast<const uint8_t *>(value.p);
        // With a precision the text need not be NUL-terminated.
        size_t count = precision >= 0 ? strnlen(reinterpret_cast<const char *>(bytes), static_cast<size_t>(precision))
                                      : std::strlen(reinterpret_cast<const char *>(bytes));
        decodeCString(bytes, count, precision >= 0 && static_cast<size_t>(precision) == count, text);
    } else {
        const auto *units = static_cast<const UniChar *>(value.p);
        CFIndex count = 0;
        while ((precision < 0 || count < precision) && units[count] != 0) ++count;
        text.append(units, count);
    }
    if (text.failed()) {
        out.reserve(LONG_MAX / 2);  // marks the output as failed
        return;
    }
    appendPadded(out, text.data(), text.length(), width, leftAlign);
}

bool formatInto(__CFUnitBuffer &out, CFDictionaryRef formatOptions, CFStringRef formatString, va_list arguments) {
    const __CFStringView format = __CFStringGetView(formatString);

    std::vector<Directive> specs;
    std::vector<ArgType> types;
    std::vector<bool> valid;
    int nextArg = 0;
    for (CFIndex i = 0; i < format.length;) {
        if (format.at(i) != '%') {
            ++i;
            continue;
        }
        Directive directive;
        bool ok = parseConversion(format, i, nextArg, types, directive);
        specs.push_back(directive);
        valid.push_back(ok);
        i = directive.end;
    }

    std::vector<ArgValue> values;
    fetchArguments(types, values, arguments);

    CFIndex literalStart = 0;
    for (size_t k = 0; k < specs.size(); ++k) {
        const Directive &directive = specs[k];
        out.appendView(format, literalStart, directive.start - literalStart);
        literalStart = directive.end;
        if (!valid[k]) {
            out.appendView(format, directive.start, directive.end - directive.start);
            continue;
        }
        if (directive.conversion == '%') {
            out.append('%');
            continue;
        }
        // One positional argument used as two different types cannot be
        // read as both: such conversions are copied as they stand.
        if (types[static_cast<size_t>(directive.valueArg)] != argTypeFor(directive.conversion, directive.length) ||
            (directive.widthArg >= 0 && types[static_cast<size_t>(directive.widthArg)] != ArgType::Int) ||
            (directive.precisionArg >= 0 && types[static_cast<size_t>(directive.precisionArg)] != ArgType::Int)) {
            out.appendView(format, directive.start, directive.end - directive.start);
            continue;
        }
        int width = directive.width;
        bool leftAlign = directive.minus;
        if (directive.widthArg >= 0) {
            width = values[static_cast<size_t>(directive.widthArg)].i;
            if (width < 0) {
                // A negative '*' width means left alignment.
                leftAlign = true;
                width = width == INT_MIN ? INT_MAX : -width;
            }
        }
        int precision = directive.precision;
        if (directive.precisionArg >= 0) {
            precision = values[static_cast<size_t>(directive.precisionArg)].i;
            if (precision < 0) precision = -1;  // as if none was given
        }
        const ArgValue &value = values[static_cast<size_t>(directive.valueArg)];
        switch (directive.conversion) {
            case 'n':
                break;  // refused: writing through a format argument is never wanted
            case '@':
                appendObject(out, static_cast<CFTypeRef>(value.p), formatOptions, width, precision, leftAlign);
                break;
            case 'p':
                appendPointer(out, value.p, directive, width);
                break;
            case 'c':
            case 'C':
            case 's':
            case 'S':
                appendText(out, directive, value, width, precision, leftAlign, formatOptions);
                break;
            default:
                appendNumeric(out, directive, value, types[static_cast<size_t>(directive.valueArg)], width, precision,
                              leftAlign);
                break;
        }
    }
    out.appendView(format, literalStart, format.length - literalStart);
    return !out.failed();
}

}  // namespace

bool __CFStringFormatAppend(__CFUnitBuffer &out, CFDictionaryRef formatOptions, CFStringRef format, va_list arguments) {
    try {
        return formatInto(out, formatOptions, format, arguments);
    } catch (const std::bad_alloc &) {
        return false;
    }
}

extern "C" {

CFStringRef CFStringCreateWithFormatAndArguments(CFAllocatorRef alloc, CFDictionaryRef formatOptions,
                                                 CFStringRef format, va_list arguments) noexcept {
    __CFValidate(format, kCFStringTypeID, __func__);
    __CFUnitBuffer out;
    if (!__CFStringFormatAppend(out, formatOptions, format, arguments)) return nullptr;
    return __CFStringCreateWithUnits(alloc, out.data(), out.length());
}

CFStringRef CFStringCreateWithFormat(CFAllocatorRef alloc, CFDictionaryRef formatOptions, CFStringRef format,
                                     ...) noexcept {
    __CFValidate(format, kCFStringTypeID, __func__);
    va_list arguments;
    va_start(arguments, format);
    CFStringRef result = CFStringCreateWithFormatAndArguments(alloc, formatOptions, format, arguments);
    va_end(arguments);
    return result;
}

void CFStringAppendFormatAndArguments(CFMutableStringRef theString, CFDictionaryRef formatOptions, CFStringRef format,
                                      va_list arguments) noexcept {
    __CFStringValidateMutable(theString, __func__);
    __CFValidate(format, kCFStringTypeID, __func__);
    __CFUnitBuffer out;
    if (!__CFStringFormatAppend(out, formatOptions, format, arguments)) {
        CF_FATAL("out of memory formatting a string");
    }
    __CFStringAppendUnits(theString, out.data(), out.length(), __func__);
}

void CFStringAppendFormat(CFMutableStringRef theString, CFDictionaryRef formatOptions, CFStringRef format,
                          ...) noexcept {
    __CFStringValidateMutable(theString, __func__);
    __CFValidate(format, kCFStringTypeID, __func__);
    va_list arguments;
    va_start(arguments, format);
    __CFUnitBuffer out;
    const bool ok = __CFStringFormatAppend(out, formatOptions, format, arguments);
    va_end(arguments);
    if (!ok) CF_FATAL("out of memory formatting a string");
    __CFStringAppendUnits(theString, out.data(), out.length(), __func__);
}

}  // extern "C"
