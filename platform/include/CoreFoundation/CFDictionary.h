/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Hash tables from keys to values, with constant-time lookup.
 *
 * Key and value callback records say how entries are retained, released,
 * described, compared and (keys) hashed.  kCFTypeDictionaryKeyCallBacks and
 * kCFTypeDictionaryValueCallBacks treat them as objects;
 * kCFCopyStringDictionaryKeyCallBacks copies string keys instead of
 * retaining them; a NULL record stores raw pointers, compared by address and
 * hashed by address.  Two dictionaries are equal when they hold the same
 * keys with equal values (nested collections compare deeply).  A mutable
 * dictionary must not be mutated from two threads at once.
 */
#ifndef COREFOUNDATION_CFDICTIONARY_H
#define COREFOUNDATION_CFDICTIONARY_H

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef const void *(*CFDictionaryRetainCallBack)(CFAllocatorRef allocator, const void *value);
typedef void (*CFDictionaryReleaseCallBack)(CFAllocatorRef allocator, const void *value);
typedef CFStringRef (*CFDictionaryCopyDescriptionCallBack)(const void *value);
typedef Boolean (*CFDictionaryEqualCallBack)(const void *value1, const void *value2);
typedef CFHashCode (*CFDictionaryHashCallBack)(const void *value);

typedef struct {
    CFIndex version;
    CFDictionaryRetainCallBack retain;
    CFDictionaryReleaseCallBack release;
    CFDictionaryCopyDescriptionCallBack copyDescription;
    CFDictionaryEqualCallBack equal;
    CFDictionaryHashCallBack hash;
} CFDictionaryKeyCallBacks;

typedef struct {
    CFIndex version;
    CFDictionaryRetainCallBack retain;
    CFDictionaryReleaseCallBack release;
    CFDictionaryCopyDescriptionCallBack copyDescription;
    CFDictionaryEqualCallBack equal;
} CFDictionaryValueCallBacks;

CF_EXPORT const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks CF_ABI_NAME(kCFTypeDictionaryKeyCallBacks);
CF_EXPORT const CFDictionaryKeyCallBacks kCFCopyStringDictionaryKeyCallBacks
    CF_ABI_NAME(kCFCopyStringDictionaryKeyCallBacks);
CF_EXPORT const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks CF_ABI_NAME(kCFTypeDictionaryValueCallBacks);

typedef void (*CFDictionaryApplierFunction)(const void *key, const void *value, void *context);

CF_EXPORT CFTypeID CFDictionaryGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CFDictionaryGetTypeID);

CF_EXPORT CFDictionaryRef CFDictionaryCreate(CFAllocatorRef allocator, const void **keys, const void **values,
                                             CFIndex numValues, const CFDictionaryKeyCallBacks *keyCallBacks,
                                             const CFDictionaryValueCallBacks *valueCallBacks) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryCreate);
CF_EXPORT CFDictionaryRef CFDictionaryCreateCopy(CFAllocatorRef allocator, CFDictionaryRef theDict) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryCreateCopy);
/* capacity 0 means unlimited; otherwise the count may never exceed it. */
CF_EXPORT CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                                           const CFDictionaryKeyCallBacks *keyCallBacks,
                                                           const CFDictionaryValueCallBacks *valueCallBacks) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryCreateMutable);
CF_EXPORT CFMutableDictionaryRef CFDictionaryCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                                               CFDictionaryRef theDict) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryCreateMutableCopy);

CF_EXPORT CFIndex CFDictionaryGetCount(CFDictionaryRef theDict) CF_NOEXCEPT CF_ABI_NAME(CFDictionaryGetCount);
CF_EXPORT CFIndex CFDictionaryGetCountOfKey(CFDictionaryRef theDict, const void *key) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryGetCountOfKey);
CF_EXPORT CFIndex CFDictionaryGetCountOfValue(CFDictionaryRef theDict, const void *value) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryGetCountOfValue);
CF_EXPORT Boolean CFDictionaryContainsKey(CFDictionaryRef theDict, const void *key) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryContainsKey);
CF_EXPORT Boolean CFDictionaryContainsValue(CFDictionaryRef theDict, const void *value) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryContainsValue);
/* NULL when absent (use ...IfPresent when NULL is a stored value). */
CF_EXPORT const void *CFDictionaryGetValue(CFDictionaryRef theDict, const void *key) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryGetValue);
CF_EXPORT Boolean CFDictionaryGetValueIfPresent(CFDictionaryRef theDict, const void *key,
                                                const void **value) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryGetValueIfPresent);
CF_EXPORT void CFDictionaryGetKeysAndValues(CFDictionaryRef theDict, const void **keys, const void **values) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryGetKeysAndValues);
CF_EXPORT void CFDictionaryApplyFunction(CFDictionaryRef theDict, CFDictionaryApplierFunction applier,
                                         void *context) CF_NOEXCEPT CF_ABI_NAME(CFDictionaryApplyFunction);

/* Add only adds a missing key; Replace only replaces a present one; Set does
 * either. */
CF_EXPORT void CFDictionaryAddValue(CFMutableDictionaryRef theDict, const void *key, const void *value) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryAddValue);
CF_EXPORT void CFDictionarySetValue(CFMutableDictionaryRef theDict, const void *key, const void *value) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionarySetValue);
CF_EXPORT void CFDictionaryReplaceValue(CFMutableDictionaryRef theDict, const void *key, const void *value) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryReplaceValue);
CF_EXPORT void CFDictionaryRemoveValue(CFMutableDictionaryRef theDict, const void *key) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryRemoveValue);
CF_EXPORT void CFDictionaryRemoveAllValues(CFMutableDictionaryRef theDict) CF_NOEXCEPT
    CF_ABI_NAME(CFDictionaryRemoveAllValues);

/* Whether `theDict` was made mutable (and so may change after it was
 * handed on): a reader that caches what it derives from a dictionary
 * caches only what an immutable one gives.  False for NULL and for an
 * object that is not a dictionary. */
CF_EXPORT Boolean _CFDictionaryIsMutable(CFDictionaryRef theDict) CF_NOEXCEPT CF_ABI_NAME(_CFDictionaryIsMutable);

CF_EXTERN_C_END

#endif /* COREFOUNDATION_CFDICTIONARY_H */
