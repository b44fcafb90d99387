/* SPDX-License-Identifier: Apache-2.0 */
// Private to the platform library: the pieces every CoreFoundation type file
// shares (built-in type identifiers, class records, validation and fatal
// stops, hashing).
#ifndef SORVEL_PLATFORM_CFINTERNAL_H
#define SORVEL_PLATFORM_CFINTERNAL_H

#include <CoreFoundation/CoreFoundation.h>
#include <XPLog/XPLog.h>

#include <cstddef>
#include <cstdint>
#include <string>

#define CF_PRIVATE __attribute__((visibility("hidden")))

// Built-in types have fixed identifiers, so their ...GetTypeID calls are
// constants and the runtime's class table is filled at compile time.
// Classes registered through _CFRuntimeRegisterClass start at
// kCFFirstDynamicTypeID.
enum : CFTypeID {
    kCFAllocatorTypeID = 2,
    kCFStringTypeID = 3,
    kCFNullTypeID = 4,
    kCFBooleanTypeID = 5,
    kCFNumberTypeID = 6,
    kCFDataTypeID = 7,
    kCFArrayTypeID = 8,
    kCFDictionaryTypeID = 9,
    kCFSetTypeID = 10,
    kCFNotificationCenterTypeID = 11,
    kCFFirstDynamicTypeID = 16,
    kCFMaxTypeID = 4096,
};

// Each type file defines its class record under this name.
extern "C" {
CF_PRIVATE extern const CFRuntimeClass __CFAllocatorClass;
CF_PRIVATE extern const CFRuntimeClass __CFStringClass;
CF_PRIVATE extern const CFRuntimeClass __CFNullClass;
CF_PRIVATE extern const CFRuntimeClass __CFBooleanClass;
CF_PRIVATE extern const CFRuntimeClass __CFNumberClass;
CF_PRIVATE extern const CFRuntimeClass __CFDataClass;
CF_PRIVATE extern const CFRuntimeClass __CFArrayClass;
CF_PRIVATE extern const CFRuntimeClass __CFDictionaryClass;
CF_PRIVATE extern const CFRuntimeClass __CFSetClass;
CF_PRIVATE extern const CFRuntimeClass __CFNotificationCenterClass;
}

// _cfinfo: bits 0-15 the type identifier; bit 31 marks an immortal (static)
// instance; bit 30 an instance with an allocator prefix.  Bits 16-29 are the
// type's own (see __CFInfoGetTypeBits).
inline constexpr uint32_t kCFInfoTypeIDMask = 0xFFFFu;
inline constexpr uint32_t kCFInfoImmortal = 1u << 31;
inline constexpr uint32_t kCFInfoHasAllocatorPrefix = 1u << 30;
inline constexpr uint32_t kCFInfoTypeBitsShift = 16;
inline constexpr uint32_t kCFInfoTypeBitsMask = 0x3FFFu;

// The layout clang emits for CFSTR("...").  Byte strings are ASCII; the
// flags tell UTF-16 literals apart.
struct __CFConstStr {
    const int *isa;
    int32_t flags;
    const void *chars;
    long length;
};
inline constexpr int32_t kCFConstStrFlagsUTF16 = 0x07D0;

// The runtime's own instances, static ones included, carry 0 in _cfisa; only
// the compiler's constant strings point it anywhere.  Testing for non-zero
// rather than for our anchor's address keeps constant strings recognised even
// when another library's __CFConstantStringClassReference is the one bound.
inline bool __CFIsConstantString(CFTypeRef cf) {
    return reinterpret_cast<const CFRuntimeBase *>(cf)->_cfisa != 0;
}

// Type identifier without validation; cf must not be NULL.
inline CFTypeID __CFTypeIDOf(CFTypeRef cf) {
    if (__CFIsConstantString(cf)) return kCFStringTypeID;
    return reinterpret_cast<const CFRuntimeBase *>(cf)->_cfinfo & kCFInfoTypeIDMask;
}

inline bool __CFIsImmortal(CFTypeRef cf) {
    return __CFIsConstantString(cf) || (reinterpret_cast<const CFRuntimeBase *>(cf)->_cfinfo & kCFInfoImmortal);
}

// Per-type flag bits kept in the header (never for constant strings).  Not
// atomic: set them only while the instance is private to one thread.
inline uint32_t __CFInfoGetTypeBits(CFTypeRef cf) {
    return (reinterpret_cast<const CFRuntimeBase *>(cf)->_cfinfo >> kCFInfoTypeBitsShift) & kCFInfoTypeBitsMask;
}
inline void __CFInfoSetTypeBits(CFTypeRef cf, uint32_t bits) {
    auto *base = reinterpret_cast<CFRuntimeBase *>(const_cast<void *>(cf));
    base->_cfinfo = (base->_cfinfo & ~(kCFInfoTypeBitsMask << kCFInfoTypeBitsShift)) |
                    ((bits & kCFInfoTypeBitsMask) << kCFInfoTypeBitsShift);
}

// Fatal programming errors: logs "function: message" at level 2 to stderr
// (and any sink) and aborts with a backtrace.
[[noreturn]] CF_PRIVATE void __CFFatal(const char *function, const char *sourcePath, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// Each type file defines CF_SOURCE_PATH ("CoreFoundation/CFArray") before
// using these.
#define CF_FATAL(...) __CFFatal(__func__, CF_SOURCE_PATH, __LINE__, __VA_ARGS__)
// The same with the caller's function name, for helpers that report on
// behalf of a public call.
#define CF_FATAL_IN(function, ...) __CFFatal((function), CF_SOURCE_PATH, __LINE__, __VA_ARGS__)

// A failed call that is not fatal: logged at level 3 through `module`'s
// gate (the cached threshold first, XPLogDetermineLogLevel while it is 0).
CF_PRIVATE void __CFLogError(XPLogModule *module, const char *sourcePath, const char *function, int line,
                             const char *format, ...) __attribute__((format(printf, 5, 6)));

// Stops `function` when a mutable collection's capacity is negative or, for
// a copy, smaller than the `count` it must hold.  `what` names the
// collection ("array", "dictionary", "set").
CF_PRIVATE void __CFCheckCapacity(CFIndex capacity, CFIndex count, const char *what, const char *function);

// Stops the process when cf is NULL or not of `typeID`.  The message names
// the public function (`function`) so the log tells the caller what went
// wrong.
CF_PRIVATE void __CFValidateFailed(CFTypeRef cf, CFTypeID typeID, const char *function) __attribute__((noreturn));
inline void __CFValidate(CFTypeRef cf, CFTypeID typeID, const char *function) {
    if (__builtin_expect(cf == nullptr || __CFTypeIDOf(cf) != typeID, 0)) __CFValidateFailed(cf, typeID, function);
}
#define CF_VALIDATE(cf, typeID) __CFValidate((cf), (typeID), __func__)

// Stops the process when a required pointer argument is NULL.
#define CF_REQUIRE(ptr, what)                                                             \
    do {                                                                                  \
        if (__builtin_expect((ptr) == nullptr, 0)) CF_FATAL("%s must not be NULL", what); \
    } while (0)

// A fast, well-mixed hash of bytes (64-bit), shared by strings and data so
// that equal contents hash alike.
inline CFHashCode __CFHashMix(uint64_t h) {
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ULL;
    h ^= h >> 33;
    return static_cast<CFHashCode>(h);
}
CF_PRIVATE CFHashCode __CFHashBytes(const uint8_t *bytes, size_t length);

// Appends the string's text as UTF-8 (defined with strings).  NULL appends
// "(null)".
CF_PRIVATE void __CFStringAppendUTF8(std::string &out, CFStringRef string);

// The allocator to use for an instance's own storage: the one it was
// created with.
inline CFAllocatorRef __CFInstanceAllocator(CFTypeRef cf) {
    return CFGetAllocator(cf);
}

// Resolves NULL (kCFAllocatorDefault) to the calling thread's default.
CF_PRIVATE CFAllocatorRef __CFResolveAllocator(CFAllocatorRef allocator);

// The description of a value held in a collection: the callback's text, or
// "<%p>" for raw pointers.  Used by collection descriptions.
CF_PRIVATE CFStringRef __CFCopyValueDescription(const void *value, CFStringRef (*copyDescription)(const void *));

#endif  // SORVEL_PLATFORM_CFINTERNAL_H
