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

// The flag characters at `i` (advancing past them).
void parseFlags(const __CFStringView &format, CFIndex &i, Directive &directive) {
    for (; i < format.length; ++i) {
        const UniChar c = format.at(i);
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
            return;
    }
}

// Where a '*' width or precision takes its argument from.
constexpr int kNoStar = -2;          // a number, or nothing, was written
constexpr int kSequentialStar = -1;  // '*': the next argument

// A width at `i`: a number goes into `field`; a '*' (with an optional "n$")
// returns its argument position; otherwise kNoStar.
int parseWidthField(const __CFStringView &format, CFIndex &i, int &field, bool &bad) {
    if (i < format.length && format.at(i) == '*') {
        ++i;
        const int position = parsePosition(format, i, bad);
        return position >= 0 ? position : kSequentialStar;
    }
    if (i < format.length && format.at(i) >= '1' && format.at(i) <= '9') {
        field = parseNumber(format, i);
        if (field < 0) bad = true;
    }
    return kNoStar;
}

// A precision at `i`: '.' then a number (none is 0) or a '*'.
int parsePrecisionField(const __CFStringView &format, CFIndex &i, int &field, bool &bad) {
    if (i >= format.length || format.at(i) != '.') return kNoStar;
    ++i;
    if (i < format.length && format.at(i) == '*') {
        ++i;
        const int position = parsePosition(format, i, bad);
        return position >= 0 ? position : kSequentialStar;
    }
    field = parseNumber(format, i);
    if (field < 0) bad = true;
    return kNoStar;
}

// The length modifier at `i` (advancing past it), Length::None when absent.
Length parseLength(const __CFStringView &format, CFIndex &i) {
    if (i >= format.length) return Length::None;
    const UniChar c = format.at(i);
    const bool doubled = i + 1 < format.length && format.at(i + 1) == c;
    Length length = Length::None;
    switch (c) {
        case 'h':
            length = doubled ? Length::hh : Length::h;
            break;
        case 'l':
            length = doubled ? Length::ll : Length::l;
            break;
        case 'q':
            length = Length::ll;
            break;
        case 'j':
            length = Length::j;
            break;
        case 'z':
            length = Length::z;
            break;
        case 't':
            length = Length::t;
            break;
        case 'L':
            length = Length::L;
            break;
        default:
            return Length::None;
    }
    i += (length == Length::hh || (length == Length::ll && c == 'l')) ? 2 : 1;
    return length;
}

// Gives an argument index to a value, width or precision: `requested` for a
// positional one, else the next in sequence.  The first use of an index
// fixes its type.  -1 when the index is out of range.
int claimArgument(int requested, ArgType type, int &nextArg, std::vector<ArgType> &types) {
    const int index = requested >= 0 ? requested : nextArg++;
    if (index >= kMaxArguments) return -1;
    if (static_cast<size_t>(index) >= types.size()) types.resize(static_cast<size_t>(index) + 1, ArgType::None);
    if (types[static_cast<size_t>(index)] == ArgType::None) types[static_cast<size_t>(index)] = type;
    return index;
}

// Parses the conversion starting at format[i] == '%'.  Returns false when it
// is malformed (directive.end still marks where its text stops).
bool parseConversion(const __CFStringView &format, CFIndex i, int &nextArg, std::vector<ArgType> &types,
                     Directive &directive) {
    directive.start = i++;
    bool bad = false;
    const int position = parsePosition(format, i, bad);
    parseFlags(format, i, directive);
    const int widthPosition = parseWidthField(format, i, directive.width, bad);
    const int precisionPosition = parsePrecisionField(format, i, directive.precision, bad);
    directive.length = parseLength(format, i);

    if (i >= format.length) {
        directive.end = format.length;
        return false;
    }
    directive.conversion = format.at(i);
    directive.end = i + 1;
    if (directive.conversion == '%') return !bad;

    const ArgType type = argTypeFor(directive.conversion, directive.length);
    if (type == ArgType::None || bad) return false;
    // printf order: width, precision, then the value.
    if (widthPosition != kNoStar &&
        (directive.widthArg = claimArgument(widthPosition, ArgType::Int, nextArg, types)) < 0)
        return false;
    if (precisionPosition != kNoStar &&
        (directive.precisionArg = claimArgument(precisionPosition, ArgType::Int, nextArg, types)) < 0)
        return false;
    directive.valueArg = claimArgument(position, type, nextArg, types);
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
        const __CFUTF8Sequence sequence = __CFReadUTF8Sequence(bytes, count, i);
        if (sequence.status == __CFUTF8Sequence::Valid) {
            out.appendCodePoint(sequence.c);
            i += sequence.length;
            continue;
        }
        if (sequence.status == __CFUTF8Sequence::Truncated && cut) return;  // a character the precision cut in half
        out.append(bytes[i]);                                               // taken as Latin-1
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

// The length modifier snprintf needs for an integer conversion.
const char *integerLengthModifier(Length length) {
    switch (length) {
        case Length::hh:
            return "hh";
        case Length::h:
            return "h";
        case Length::l:
            return "l";
        case Length::ll:
        case Length::L:
            return "ll";
        case Length::j:
            return "j";
        case Length::z:
            return "z";
        case Length::t:
            return "t";
        case Length::None:
            break;
    }
    return "";
}

// Rebuilds one sanitised conversion into `conversion`: flags, width,
// precision, length and the conversion character, nothing else.  %D, %U and
// %O are the long forms of %d, %u and %o.
void buildNumericConversion(const Directive &directive, int width, int precision, bool leftAlign,
                            char (&conversion)[64]) {
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
    const bool integer = c == 'd' || c == 'i' || c == 'u' || c == 'o' || c == 'x' || c == 'X';
    const char *modifier = integer ? integerLengthModifier(length) : length == Length::L ? "L" : "";
    while (*modifier) conversion[n++] = *modifier++;
    conversion[n++] = static_cast<char>(c);
    conversion[n] = 0;
}

void appendNumeric(__CFUnitBuffer &out, const Directive &directive, const ArgValue &value, ArgType type, int width,
                   int precision, bool leftAlign) {
    char conversion[64];
    buildNumericConversion(directive, width, precision, leftAlign, conversion);
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

// The first pass: every conversion in the format, whether it is well
// formed, and the type of each argument the conversions use.
void parseFormat(const __CFStringView &format, std::vector<Directive> &directives, std::vector<bool> &valid,
                 std::vector<ArgType> &types) {
    int nextArg = 0;
    for (CFIndex i = 0; i < format.length;) {
        if (format.at(i) != '%') {
            ++i;
            continue;
        }
        Directive directive;
        const bool ok = parseConversion(format, i, nextArg, types, directive);
        directives.push_back(directive);
        valid.push_back(ok);
        i = directive.end;
    }
}

// One positional argument used as two different types cannot be read as
// both: a conversion whose value, width or precision argument was fixed to
// another type does not agree.
bool argumentTypesAgree(const Directive &directive, const std::vector<ArgType> &types) {
    auto typeOf = [&](int index) { return types[static_cast<size_t>(index)]; };
    return typeOf(directive.valueArg) == argTypeFor(directive.conversion, directive.length) &&
           (directive.widthArg < 0 || typeOf(directive.widthArg) == ArgType::Int) &&
           (directive.precisionArg < 0 || typeOf(directive.precisionArg) == ArgType::Int);
}

// The width, precision and alignment a conversion is produced with, the
// '*' fields read from their arguments.
struct Layout {
    int width;
    int precision;
    bool leftAlign;
};

Layout layoutOf(const Directive &directive, const std::vector<ArgValue> &values) {
    Layout layout{directive.width, directive.precision, directive.minus};
    if (directive.widthArg >= 0) {
        const int width = values[static_cast<size_t>(directive.widthArg)].i;
        if (width < 0) {
            // A negative '*' width means left alignment.
            layout.leftAlign = true;
            layout.width = width == INT_MIN ? INT_MAX : -width;
        } else {
            layout.width = width;
        }
    }
    if (directive.precisionArg >= 0) {
        const int precision = values[static_cast<size_t>(directive.precisionArg)].i;
        layout.precision = precision < 0 ? -1 : precision;  // negative: as if none was given
    }
    return layout;
}

void appendConversion(__CFUnitBuffer &out, const Directive &directive, const ArgValue &value, ArgType type,
                      const Layout &layout, CFDictionaryRef formatOptions) {
    switch (directive.conversion) {
        case 'n':
            break;  // refused: writing through a format argument is never wanted
        case '@':
            appendObject(out, static_cast<CFTypeRef>(value.p), formatOptions, layout.width, layout.precision,
                         layout.leftAlign);
            break;
        case 'p':
            appendPointer(out, value.p, directive, layout.width);
            break;
        case 'c':
        case 'C':
        case 's':
        case 'S':
            appendText(out, directive, value, layout.width, layout.precision, layout.leftAlign, formatOptions);
            break;
        default:
            appendNumeric(out, directive, value, type, layout.width, layout.precision, layout.leftAlign);
            break;
    }
}

bool formatInto(__CFUnitBuffer &out, CFDictionaryRef formatOptions, CFStringRef formatString, va_list arguments) {
    const __CFStringView format = __CFStringGetView(formatString);
    std::vector<Directive> directives;
    std::vector<bool> valid;
    std::vector<ArgType> types;
    parseFormat(format, directives, valid, types);

    std::vector<ArgValue> values;
    fetchArguments(types, values, arguments);

    CFIndex literalStart = 0;
    for (size_t k = 0; k < directives.size(); ++k) {
        const Directive &directive = directives[k];
        out.appendView(format, literalStart, directive.start - literalStart);
        literalStart = directive.end;
        if (directive.conversion == '%' && valid[k]) {
            out.append('%');
        } else if (!valid[k] || !argumentTypesAgree(directive, types)) {
            out.appendView(format, directive.start, directive.end - directive.start);  // copied as it stands
        } else {
            const size_t index = static_cast<size_t>(directive.valueArg);
            appendConversion(out, directive, values[index], types[index], layoutOf(directive, values), formatOptions);
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
