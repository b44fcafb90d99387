/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Base types of the CoreFoundation subset: integer and status types, the
 * polymorphic object calls every object type shares, and allocators.
 *
 * Every object is reference counted.  Create and Copy calls hand the caller
 * one reference, which CFRelease gives back; Get calls return borrowed
 * references.  Retaining and releasing are atomic, so any thread may retain
 * or release any object; whether an object may be mutated from several
 * threads is up to its type.
 *
 * Passing NULL where an object is required (CFRetain, CFRelease,
 * CFGetTypeID, CFEqual, CFHash, ...) is a programming error: it is logged
 * and the process is aborted with a backtrace.
 *
 * Running out of memory: a call that makes an object returns NULL when its
 * allocator fails.  Calls with no way to say that they failed end the
 * process instead: a mutable collection that cannot grow (logged as "out
 * of memory", then aborted), and descriptions, adding a timer to a run loop
 * and the dispatch calls that queue work or arm a timer when the system
 * allocator cannot give them memory, as the C++ standard library does.
 */
#ifndef COREFOUNDATION_CFBASE_H
#define COREFOUNDATION_CFBASE_H

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(__cplusplus)
#define CF_EXTERN_C_BEGIN extern "C" {
#define CF_EXTERN_C_END }
#define CF_NOEXCEPT noexcept
#else
#define CF_EXTERN_C_BEGIN
#define CF_EXTERN_C_END
#define CF_NOEXCEPT
#endif

#define CF_EXPORT extern __attribute__((visibility("default")))
/* Every export's binary name carries the library's own prefix, so another
 * library's unversioned definition of the well-known name, searched first
 * (preloaded, or earlier on the link line), can never capture a call that
 * was compiled against these headers. */
#define CF_ABI_NAME(name) __asm__("SorvelPlatform_" #name)
#define CF_INLINE static __inline__ __attribute__((always_inline))
/* The CFString format archetype (%@) and the ownership annotations are
 * clang's; other compilers (GCC) would warn about them, so they expand to
 * nothing there. */
#if defined(__has_attribute)
#define CF_HAS_ATTRIBUTE(x) __has_attribute(x)
#else
#define CF_HAS_ATTRIBUTE(x) 0
#endif
#if defined(__clang__)
#define CF_FORMAT_FUNCTION(F, A) __attribute__((format(__CFString__, F, A)))
#else
#define CF_FORMAT_FUNCTION(F, A)
#endif
#if CF_HAS_ATTRIBUTE(cf_returns_retained)
#define CF_RETURNS_RETAINED __attribute__((cf_returns_retained))
#define CF_RETURNS_NOT_RETAINED __attribute__((cf_returns_not_retained))
#else
#define CF_RETURNS_RETAINED
#define CF_RETURNS_NOT_RETAINED
#endif
#define CF_NORETURN __attribute__((noreturn))

CF_EXTERN_C_BEGIN

typedef unsigned char Boolean;
typedef uint8_t UInt8;
typedef int8_t SInt8;
typedef uint16_t UInt16;
typedef int16_t SInt16;
typedef uint32_t UInt32;
typedef int32_t SInt32;
typedef uint64_t UInt64;
typedef int64_t SInt64;
typedef float Float32;
typedef double Float64;
typedef int32_t OSStatus;
typedef uint32_t FourCharCode;
typedef FourCharCode OSType;
typedef uint16_t UniChar;
typedef uint32_t UTF32Char;
typedef uint8_t Byte;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

typedef long CFIndex;
typedef unsigned long CFOptionFlags;
typedef unsigned long CFHashCode;
/* Type identifiers are 32-bit: 0 is never a valid one. */
typedef uint32_t CFTypeID;

typedef const void *CFTypeRef;
typedef const struct __CFString *CFStringRef;
typedef struct __CFString *CFMutableStringRef;
typedef const struct __CFAllocator *CFAllocatorRef;
typedef CFTypeRef CFPropertyListRef;
typedef const struct __CFDictionary *CFDictionaryRef;
typedef struct __CFDictionary *CFMutableDictionaryRef;
typedef const struct __CFArray *CFArrayRef;
typedef struct __CFArray *CFMutableArrayRef;
typedef const struct __CFNull *CFNullRef;

enum { kCFNotFound = -1 };

typedef CFIndex CFComparisonResult;
enum { kCFCompareLessThan = -1, kCFCompareEqualTo = 0, kCFCompareGreaterThan = 1 };

typedef CFComparisonResult (*CFComparatorFunction)(const void *val1, const void *val2, void *context);

typedef struct {
    CFIndex location;
    CFIndex length;
} CFRange;

CF_INLINE CFRange CFRangeMake(CFIndex location, CFIndex length) {
    CFRange range;
    range.location = location;
    range.length = length;
    return range;
}

/* The null singleton, for collections that must hold "nothing". */
CF_EXPORT const CFNullRef kCFNull CF_ABI_NAME(kCFNull);
CF_EXPORT CFTypeID CFNullGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CFNullGetTypeID);

/* ---- Allocators ---------------------------------------------------------
 *
 * An allocator is itself an object.  kCFAllocatorDefault (NULL) means "the
 * current default", which is kCFAllocatorSystemDefault unless
 * CFAllocatorSetDefault changed it for the calling thread.  kCFAllocatorNull
 * never allocates and never frees: it is used for memory the caller keeps.
 * kCFAllocatorUseContext, passed as the first argument of CFAllocatorCreate,
 * makes the new allocator allocate its own storage through its context. */

CF_EXPORT const CFAllocatorRef kCFAllocatorDefault CF_ABI_NAME(kCFAllocatorDefault);
CF_EXPORT const CFAllocatorRef kCFAllocatorSystemDefault CF_ABI_NAME(kCFAllocatorSystemDefault);
CF_EXPORT const CFAllocatorRef kCFAllocatorMalloc CF_ABI_NAME(kCFAllocatorMalloc);
CF_EXPORT const CFAllocatorRef kCFAllocatorMallocZone CF_ABI_NAME(kCFAllocatorMallocZone);
CF_EXPORT const CFAllocatorRef kCFAllocatorNull CF_ABI_NAME(kCFAllocatorNull);
CF_EXPORT const CFAllocatorRef kCFAllocatorUseContext CF_ABI_NAME(kCFAllocatorUseContext);

typedef const void *(*CFAllocatorRetainCallBack)(const void *info);
typedef void (*CFAllocatorReleaseCallBack)(const void *info);
typedef CFStringRef (*CFAllocatorCopyDescriptionCallBack)(const void *info);
typedef void *(*CFAllocatorAllocateCallBack)(CFIndex allocSize, CFOptionFlags hint, void *info);
typedef void *(*CFAllocatorReallocateCallBack)(void *ptr, CFIndex newsize, CFOptionFlags hint, void *info);
typedef void (*CFAllocatorDeallocateCallBack)(void *ptr, void *info);
typedef CFIndex (*CFAllocatorPreferredSizeCallBack)(CFIndex size, CFOptionFlags hint, void *info);

typedef struct {
    CFIndex version;
    void *info;
    CFAllocatorRetainCallBack retain;
    CFAllocatorReleaseCallBack release;
    CFAllocatorCopyDescriptionCallBack copyDescription;
    CFAllocatorAllocateCallBack allocate;
    CFAllocatorReallocateCallBack reallocate;
    CFAllocatorDeallocateCallBack deallocate;
    CFAllocatorPreferredSizeCallBack preferredSize;
} CFAllocatorContext;

CF_EXPORT CFTypeID CFAllocatorGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CFAllocatorGetTypeID);

/* Sets the calling thread's default allocator (retained; NULL restores the
 * system default). */
CF_EXPORT void CFAllocatorSetDefault(CFAllocatorRef allocator) CF_NOEXCEPT CF_ABI_NAME(CFAllocatorSetDefault);
CF_EXPORT CFAllocatorRef CFAllocatorGetDefault(void) CF_NOEXCEPT CF_ABI_NAME(CFAllocatorGetDefault);

/* Creates an allocator from `context`, whose `allocate` is required.  The
 * context's `info` is retained through `retain` (when given) and released
 * through `release` when the allocator's last reference goes.  Returns NULL
 * when the allocator's own storage cannot be allocated. */
CF_EXPORT CFAllocatorRef CFAllocatorCreate(CFAllocatorRef allocator, CFAllocatorContext *context) CF_NOEXCEPT
    CF_ABI_NAME(CFAllocatorCreate);

/* Returns NULL for a size <= 0 or when the allocator fails. */
CF_EXPORT void *CFAllocatorAllocate(CFAllocatorRef allocator, CFIndex size, CFOptionFlags hint) CF_NOEXCEPT
    CF_ABI_NAME(CFAllocatorAllocate);
/* ptr NULL and newsize > 0 allocates; ptr set and newsize <= 0 deallocates
 * and returns NULL; otherwise reallocates (NULL when the allocator has no
 * reallocate callback or fails, leaving ptr valid). */
CF_EXPORT void *CFAllocatorReallocate(CFAllocatorRef allocator, void *ptr, CFIndex newsize,
                                      CFOptionFlags hint) CF_NOEXCEPT CF_ABI_NAME(CFAllocatorReallocate);
/* NULL ptr is a no-op. */
CF_EXPORT void CFAllocatorDeallocate(CFAllocatorRef allocator, void *ptr) CF_NOEXCEPT
    CF_ABI_NAME(CFAllocatorDeallocate);
CF_EXPORT CFIndex CFAllocatorGetPreferredSizeForSize(CFAllocatorRef allocator, CFIndex size,
                                                     CFOptionFlags hint) CF_NOEXCEPT
    CF_ABI_NAME(CFAllocatorGetPreferredSizeForSize);
CF_EXPORT void CFAllocatorGetContext(CFAllocatorRef allocator, CFAllocatorContext *context) CF_NOEXCEPT
    CF_ABI_NAME(CFAllocatorGetContext);

/* ---- Polymorphic object calls --------------------------------------- */

CF_EXPORT CFTypeID CFGetTypeID(CFTypeRef cf) CF_NOEXCEPT CF_ABI_NAME(CFGetTypeID);
/* The class name of a type, as a new string (NULL for an unknown ID). */
CF_EXPORT CFStringRef CFCopyTypeIDDescription(CFTypeID typeID) CF_NOEXCEPT
    CF_ABI_NAME(CFCopyTypeIDDescription) CF_RETURNS_RETAINED;

CF_EXPORT CFTypeRef CFRetain(CFTypeRef cf) CF_NOEXCEPT CF_ABI_NAME(CFRetain);
CF_EXPORT void CFRelease(CFTypeRef cf) CF_NOEXCEPT CF_ABI_NAME(CFRelease);
/* Immortal objects (constant strings, booleans, the static allocators)
 * report a very large count that never changes. */
CF_EXPORT CFIndex CFGetRetainCount(CFTypeRef cf) CF_NOEXCEPT CF_ABI_NAME(CFGetRetainCount);

/* Same object, or same type and the type's equal callback says so. */
CF_EXPORT Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2) CF_NOEXCEPT CF_ABI_NAME(CFEqual);
/* The type's hash callback, else the object's address.  Equal objects hash
 * alike. */
CF_EXPORT CFHashCode CFHash(CFTypeRef cf) CF_NOEXCEPT CF_ABI_NAME(CFHash);
/* The type's debug description, else "<ClassName 0xADDRESS [0xALLOCATOR]>". */
CF_EXPORT CFStringRef CFCopyDescription(CFTypeRef cf) CF_NOEXCEPT CF_ABI_NAME(CFCopyDescription) CF_RETURNS_RETAINED;
/* The allocator the object was created with. */
CF_EXPORT CFAllocatorRef CFGetAllocator(CFTypeRef cf) CF_NOEXCEPT CF_ABI_NAME(CFGetAllocator);
/* Prints the object's description (a string's own text) to standard error. */
CF_EXPORT void CFShow(CFTypeRef obj) CF_NOEXCEPT CF_ABI_NAME(CFShow);

CF_EXTERN_C_END

#endif /* COREFOUNDATION_CFBASE_H */
