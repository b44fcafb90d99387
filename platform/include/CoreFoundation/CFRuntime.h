/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The object runtime: how a type registers itself and creates instances.
 *
 * A type describes itself with one static, constant CFRuntimeClass record
 * (version 0) and registers it once with _CFRuntimeRegisterClass, which
 * returns its type identifier.  Instances come from _CFRuntimeCreateInstance:
 * a CFRuntimeBase header followed by `extraBytes` of the type's own fields,
 * zero-filled, with a retain count of one.
 *
 * The callbacks' duties:
 * - finalize runs when the last reference goes.  It releases what the
 *   instance holds and must cope with a half-built instance (fields still
 *   zero); it never frees the instance itself, which the runtime does.
 * - equal is only called with two instances of the same type; it must be a
 *   stable equivalence, and equal objects must hash alike.
 * - hash defaults to the object's address; equal defaults to identity.
 * - copyFormattingDesc serves "%@" in formatted strings (NULL means "use the
 *   debug description"); copyDebugDesc serves CFCopyDescription.  Both return
 *   a new string or NULL.
 * - init and copy are not used by this runtime and must be NULL.
 */
#ifndef COREFOUNDATION_CFRUNTIME_H
#define COREFOUNDATION_CFRUNTIME_H

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

/* The header every instance starts with.  Its layout matches the constant
 * strings that the compiler emits for CFSTR("..."), whose first word points at
 * __CFConstantStringClassReference.  Never touch its fields directly. */
typedef struct __CFRuntimeBase {
    uintptr_t _cfisa;
    uint32_t _cfinfo;
    uint32_t _rc;
} CFRuntimeBase;

enum { _kCFRuntimeNotATypeID = 0 };

typedef struct __CFRuntimeClass {
    CFIndex version;
    const char *className;
    void (*init)(CFTypeRef cf);
    CFTypeRef (*copy)(CFAllocatorRef allocator, CFTypeRef cf);
    void (*finalize)(CFTypeRef cf);
    Boolean (*equal)(CFTypeRef cf1, CFTypeRef cf2);
    CFHashCode (*hash)(CFTypeRef cf);
    CFStringRef (*copyFormattingDesc)(CFTypeRef cf, CFDictionaryRef formatOptions);
    CFStringRef (*copyDebugDesc)(CFTypeRef cf);
} CFRuntimeClass;

/* Registers `cls` (which must stay valid for the life of the process) and
 * returns its new type identifier; _kCFRuntimeNotATypeID when the class
 * table is full or `cls` is unusable (logged).  Thread-safe; a class
 * registered twice gets two identifiers, so guard registration with
 * dispatch_once. */
CF_EXPORT CFTypeID _CFRuntimeRegisterClass(const CFRuntimeClass *cls) CF_NOEXCEPT CF_ABI_NAME(_CFRuntimeRegisterClass);

/* The record registered under `typeID`, or NULL. */
CF_EXPORT const CFRuntimeClass *_CFRuntimeGetClassWithTypeID(CFTypeID typeID) CF_NOEXCEPT
    CF_ABI_NAME(_CFRuntimeGetClassWithTypeID);

/* Creates an instance of `typeID` through `allocator` (NULL: the default
 * allocator) with `extraBytes` zero-filled bytes after the header, and a
 * retain count of one.  `category` must be NULL.  Returns NULL when the
 * allocator fails, the type is unknown or extraBytes is negative. */
CF_EXPORT CFTypeRef _CFRuntimeCreateInstance(CFAllocatorRef allocator, CFTypeID typeID, CFIndex extraBytes,
                                             unsigned char *category) CF_NOEXCEPT CF_ABI_NAME(_CFRuntimeCreateInstance);

/* As _CFRuntimeCreateInstance, except that only the first `clearedBytes` of
 * the `extraBytes` are zero-filled; the rest hold whatever the allocator
 * returned.  For types with a large tail that is written before it is read
 * (a ring of slots, say): creation then costs only what is touched, since
 * untouched pages of a large allocation are never faulted in.  A
 * `clearedBytes` outside 0..extraBytes returns NULL. */
CF_EXPORT CFTypeRef _CFRuntimeCreateInstanceWithUnclearedTail(CFAllocatorRef allocator, CFTypeID typeID,
                                                              CFIndex extraBytes, CFIndex clearedBytes) CF_NOEXCEPT
    CF_ABI_NAME(_CFRuntimeCreateInstanceWithUnclearedTail);

/* Makes caller-owned static storage (a CFRuntimeBase followed by the type's
 * fields) into an immortal instance of `typeID`: retain and release do nothing
 * and it is never finalized. */
CF_EXPORT void _CFRuntimeInitStaticInstance(void *memory, CFTypeID typeID) CF_NOEXCEPT
    CF_ABI_NAME(_CFRuntimeInitStaticInstance);

CF_EXTERN_C_END

#endif /* COREFOUNDATION_CFRUNTIME_H */
