/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Immutable and mutable Unicode strings.
 *
 * Lengths, indices and ranges count UTF-16 code units, so a character outside
 * the Basic Multilingual Plane counts two.  Strings compare equal and hash
 * alike when their UTF-16 contents are equal, whatever they were created
 * from.  CFSTR("...") yields a compile-time constant string that is never
 * freed; retaining and releasing it does nothing.
 *
 * A mutable string must not be mutated from two threads at once.
 */
#ifndef COREFOUNDATION_CFSTRING_H
#define COREFOUNDATION_CFSTRING_H

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFData.h>

CF_EXTERN_C_BEGIN

typedef UInt32 CFStringEncoding;

enum {
    kCFStringEncodingMacRoman = 0,
    kCFStringEncodingWindowsLatin1 = 0x0500,
    kCFStringEncodingISOLatin1 = 0x0201,
    kCFStringEncodingNextStepLatin = 0x0B01,
    kCFStringEncodingASCII = 0x0600,
    kCFStringEncodingUnicode = 0x0100,
    kCFStringEncodingUTF8 = 0x08000100,
    kCFStringEncodingNonLossyASCII = 0x0BFF,
    kCFStringEncodingUTF16 = 0x0100,
    kCFStringEncodingUTF16BE = 0x10000100,
    kCFStringEncodingUTF16LE = 0x14000100,
    kCFStringEncodingUTF32 = 0x0c000100,
    kCFStringEncodingUTF32BE = 0x18000100,
    kCFStringEncodingUTF32LE = 0x1c000100
};
#define kCFStringEncodingInvalidId (0xffffffffU)

typedef CFOptionFlags CFStringCompareFlags;
enum {
    kCFCompareCaseInsensitive = 1,
    kCFCompareBackwards = 4,
    kCFCompareAnchored = 8,
    kCFCompareNonliteral = 16,
    kCFCompareLocalized = 32,
    kCFCompareNumerically = 64
};

/* A constant string; the argument must be a string literal (UTF-8).  With
 * clang it is a compile-time constant (ASCII literals stored as bytes,
 * others as UTF-16); other compilers get an immortal string interned at
 * run time, the same object for the same text. */
CF_EXPORT CFStringRef __CFStringMakeConstantString(const char *cStr) CF_NOEXCEPT
    CF_ABI_NAME(__CFStringMakeConstantString);
#if defined(__clang__)
#define CFSTR(cStr) ((CFStringRef)__builtin___CFStringMakeConstantString("" cStr ""))
#else
#define CFSTR(cStr) __CFStringMakeConstantString("" cStr "")
#endif

/* The compiler's constant strings point here.  clang emits this name itself,
 * so it alone keeps its plain binary name; the runtime never compares against
 * its address (whichever library's definition a program binds to, a constant
 * string is told apart by its non-zero first word). */
CF_EXPORT const int __CFConstantStringClassReference[];

CF_EXPORT CFTypeID CFStringGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CFStringGetTypeID);

/* Creation.  Each returns NULL when the bytes are not valid in `encoding`
 * (for example malformed UTF-8 or a byte above 0x7F for ASCII) or when
 * allocation fails. */
CF_EXPORT CFStringRef CFStringCreateWithCString(CFAllocatorRef alloc, const char *cStr,
                                                CFStringEncoding encoding) CF_NOEXCEPT
    CF_ABI_NAME(CFStringCreateWithCString);
CF_EXPORT CFStringRef CFStringCreateWithBytes(CFAllocatorRef alloc, const UInt8 *bytes, CFIndex numBytes,
                                              CFStringEncoding encoding, Boolean isExternalRepresentation) CF_NOEXCEPT
    CF_ABI_NAME(CFStringCreateWithBytes);
CF_EXPORT CFStringRef CFStringCreateWithCharacters(CFAllocatorRef alloc, const UniChar *chars,
                                                   CFIndex numChars) CF_NOEXCEPT
    CF_ABI_NAME(CFStringCreateWithCharacters);
CF_EXPORT CFStringRef CFStringCreateCopy(CFAllocatorRef alloc, CFStringRef theString) CF_NOEXCEPT
    CF_ABI_NAME(CFStringCreateCopy);
CF_EXPORT CFStringRef CFStringCreateWithSubstring(CFAllocatorRef alloc, CFStringRef str, CFRange range) CF_NOEXCEPT
    CF_ABI_NAME(CFStringCreateWithSubstring);

/* printf-style formatting with every printf conversion, plus %@ for any
 * object: its formatting description when its type has one, else its
 * debug description (CFCopyDescription); a string prints its own text and
 * NULL prints "(null)".  Positional arguments (%1$d) are supported. */
CF_EXPORT CFStringRef CFStringCreateWithFormat(CFAllocatorRef alloc, CFDictionaryRef formatOptions, CFStringRef format,
                                               ...) CF_NOEXCEPT CF_ABI_NAME(CFStringCreateWithFormat)
    CF_FORMAT_FUNCTION(3, 4);
CF_EXPORT CFStringRef CFStringCreateWithFormatAndArguments(CFAllocatorRef alloc, CFDictionaryRef formatOptions,
                                                           CFStringRef format, va_list arguments) CF_NOEXCEPT
    CF_ABI_NAME(CFStringCreateWithFormatAndArguments) CF_FORMAT_FUNCTION(3, 0);

/* Mutable strings; maxLength 0 means unlimited. */
CF_EXPORT CFMutableStringRef CFStringCreateMutable(CFAllocatorRef alloc, CFIndex maxLength) CF_NOEXCEPT
    CF_ABI_NAME(CFStringCreateMutable);
CF_EXPORT CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef alloc, CFIndex maxLength,
                                                       CFStringRef theString) CF_NOEXCEPT
    CF_ABI_NAME(CFStringCreateMutableCopy);

/* Access. */
CF_EXPORT CFIndex CFStringGetLength(CFStringRef theString) CF_NOEXCEPT CF_ABI_NAME(CFStringGetLength);
CF_EXPORT UniChar CFStringGetCharacterAtIndex(CFStringRef theString, CFIndex idx) CF_NOEXCEPT
    CF_ABI_NAME(CFStringGetCharacterAtIndex);
CF_EXPORT void CFStringGetCharacters(CFStringRef theString, CFRange range, UniChar *buffer) CF_NOEXCEPT
    CF_ABI_NAME(CFStringGetCharacters);

/* Copies the string, NUL-terminated, into `buffer`; false when it does not
 * fit in `bufferSize` bytes or cannot be represented in `encoding`. */
CF_EXPORT Boolean CFStringGetCString(CFStringRef theString, char *buffer, CFIndex bufferSize,
                                     CFStringEncoding encoding) CF_NOEXCEPT CF_ABI_NAME(CFStringGetCString);
/* The internal NUL-terminated bytes when the string is stored in a form
 * that is valid in `encoding` as it stands, else NULL.  Never converts. */
CF_EXPORT const char *CFStringGetCStringPtr(CFStringRef theString, CFStringEncoding encoding) CF_NOEXCEPT
    CF_ABI_NAME(CFStringGetCStringPtr);

/* Converts the characters of `range` into `buffer` (or only measures when
 * buffer is NULL).  Characters that `encoding` cannot represent become
 * `lossByte`, or stop the conversion when lossByte is 0.  Returns the
 * number of UTF-16 units converted; *usedBufLen receives the bytes used. */
CF_EXPORT CFIndex CFStringGetBytes(CFStringRef theString, CFRange range, CFStringEncoding encoding, UInt8 lossByte,
                                   Boolean isExternalRepresentation, UInt8 *buffer, CFIndex maxBufLen,
                                   CFIndex *usedBufLen) CF_NOEXCEPT CF_ABI_NAME(CFStringGetBytes);

/* Bytes needed at most for `length` UTF-16 units in `encoding`, terminator
 * not included; kCFNotFound on overflow. */
CF_EXPORT CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding) CF_NOEXCEPT
    CF_ABI_NAME(CFStringGetMaximumSizeForEncoding);

/* The string as bytes in `encoding` (UTF-16 and UTF-32 with a byte-order
 * mark); unrepresentable characters become lossByte, or the call returns
 * NULL when lossByte is 0. */
CF_EXPORT CFDataRef CFStringCreateExternalRepresentation(CFAllocatorRef alloc, CFStringRef theString,
                                                         CFStringEncoding encoding, UInt8 lossByte) CF_NOEXCEPT
    CF_ABI_NAME(CFStringCreateExternalRepresentation);
CF_EXPORT CFStringRef CFStringCreateFromExternalRepresentation(CFAllocatorRef alloc, CFDataRef data,
                                                               CFStringEncoding encoding) CF_NOEXCEPT
    CF_ABI_NAME(CFStringCreateFromExternalRepresentation);

/* Comparison and search (literal, by UTF-16 unit; kCFCompareCaseInsensitive
 * folds ASCII and Latin-1 letters). */
CF_EXPORT CFComparisonResult CFStringCompare(CFStringRef theString1, CFStringRef theString2,
                                             CFStringCompareFlags compareOptions) CF_NOEXCEPT
    CF_ABI_NAME(CFStringCompare);
CF_EXPORT CFComparisonResult CFStringCompareWithOptions(CFStringRef theString1, CFStringRef theString2,
                                                        CFRange rangeToCompare,
                                                        CFStringCompareFlags compareOptions) CF_NOEXCEPT
    CF_ABI_NAME(CFStringCompareWithOptions);
/* The first (or with kCFCompareBackwards the last) occurrence; {kCFNotFound, 0} if none. */
CF_EXPORT CFRange CFStringFind(CFStringRef theString, CFStringRef stringToFind,
                               CFStringCompareFlags compareOptions) CF_NOEXCEPT CF_ABI_NAME(CFStringFind);
CF_EXPORT Boolean CFStringFindWithOptions(CFStringRef theString, CFStringRef stringToFind, CFRange rangeToSearch,
                                          CFStringCompareFlags searchOptions, CFRange *result) CF_NOEXCEPT
    CF_ABI_NAME(CFStringFindWithOptions);
CF_EXPORT Boolean CFStringHasPrefix(CFStringRef theString, CFStringRef prefix) CF_NOEXCEPT
    CF_ABI_NAME(CFStringHasPrefix);
CF_EXPORT Boolean CFStringHasSuffix(CFStringRef theString, CFStringRef suffix) CF_NOEXCEPT
    CF_ABI_NAME(CFStringHasSuffix);

/* Mutation (only on strings made by CFStringCreateMutable...). */
CF_EXPORT void CFStringAppend(CFMutableStringRef theString, CFStringRef appendedString) CF_NOEXCEPT
    CF_ABI_NAME(CFStringAppend);
CF_EXPORT void CFStringAppendCharacters(CFMutableStringRef theString, const UniChar *chars,
                                        CFIndex numChars) CF_NOEXCEPT CF_ABI_NAME(CFStringAppendCharacters);
CF_EXPORT void CFStringAppendCString(CFMutableStringRef theString, const char *cStr,
                                     CFStringEncoding encoding) CF_NOEXCEPT CF_ABI_NAME(CFStringAppendCString);
CF_EXPORT void CFStringAppendFormat(CFMutableStringRef theString, CFDictionaryRef formatOptions, CFStringRef format,
                                    ...) CF_NOEXCEPT CF_ABI_NAME(CFStringAppendFormat) CF_FORMAT_FUNCTION(3, 4);
CF_EXPORT void CFStringAppendFormatAndArguments(CFMutableStringRef theString, CFDictionaryRef formatOptions,
                                                CFStringRef format, va_list arguments) CF_NOEXCEPT
    CF_ABI_NAME(CFStringAppendFormatAndArguments) CF_FORMAT_FUNCTION(3, 0);
CF_EXPORT void CFStringDelete(CFMutableStringRef theString, CFRange range) CF_NOEXCEPT CF_ABI_NAME(CFStringDelete);
CF_EXPORT void CFStringReplaceAll(CFMutableStringRef theString, CFStringRef replacement) CF_NOEXCEPT
    CF_ABI_NAME(CFStringReplaceAll);

CF_EXTERN_C_END

#endif /* COREFOUNDATION_CFSTRING_H */
