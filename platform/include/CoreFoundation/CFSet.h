/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Unordered collections of distinct values, as hash tables.  Callback
 * records work as for dictionaries' keys; kCFTypeSetCallBacks treats values
 * as objects, kCFCopyStringSetCallBacks copies strings, a NULL record stores
 * raw pointers.  A mutable set must not be mutated from two threads at once.
 */
#ifndef COREFOUNDATION_CFSET_H
#define COREFOUNDATION_CFSET_H

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef const void *(*CFSetRetainCallBack)(CFAllocatorRef allocator, const void *value);
typedef void (*CFSetReleaseCallBack)(CFAllocatorRef allocator, const void *value);
typedef CFStringRef (*CFSetCopyDescriptionCallBack)(const void *value);
typedef Boolean (*CFSetEqualCallBack)(const void *value1, const void *value2);
typedef CFHashCode (*CFSetHashCallBack)(const void *value);

typedef struct {
    CFIndex version;
    CFSetRetainCallBack retain;
    CFSetReleaseCallBack release;
    CFSetCopyDescriptionCallBack copyDescription;
    CFSetEqualCallBack equal;
    CFSetHashCallBack hash;
} CFSetCallBacks;

CF_EXPORT const CFSetCallBacks kCFTypeSetCallBacks CF_ABI_NAME(kCFTypeSetCallBacks);
CF_EXPORT const CFSetCallBacks kCFCopyStringSetCallBacks CF_ABI_NAME(kCFCopyStringSetCallBacks);

typedef void (*CFSetApplierFunction)(const void *value, void *context);

typedef const struct __CFSet *CFSetRef;
typedef struct __CFSet *CFMutableSetRef;

CF_EXPORT CFTypeID CFSetGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CFSetGetTypeID);

CF_EXPORT CFSetRef CFSetCreate(CFAllocatorRef allocator, const void **values, CFIndex numValues,
                               const CFSetCallBacks *callBacks) CF_NOEXCEPT CF_ABI_NAME(CFSetCreate);
CF_EXPORT CFSetRef CFSetCreateCopy(CFAllocatorRef allocator, CFSetRef theSet) CF_NOEXCEPT CF_ABI_NAME(CFSetCreateCopy);
CF_EXPORT CFMutableSetRef CFSetCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                             const CFSetCallBacks *callBacks) CF_NOEXCEPT
    CF_ABI_NAME(CFSetCreateMutable);
CF_EXPORT CFMutableSetRef CFSetCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                                 CFSetRef theSet) CF_NOEXCEPT CF_ABI_NAME(CFSetCreateMutableCopy);

CF_EXPORT CFIndex CFSetGetCount(CFSetRef theSet) CF_NOEXCEPT CF_ABI_NAME(CFSetGetCount);
CF_EXPORT CFIndex CFSetGetCountOfValue(CFSetRef theSet, const void *value) CF_NOEXCEPT
    CF_ABI_NAME(CFSetGetCountOfValue);
CF_EXPORT Boolean CFSetContainsValue(CFSetRef theSet, const void *value) CF_NOEXCEPT CF_ABI_NAME(CFSetContainsValue);
CF_EXPORT const void *CFSetGetValue(CFSetRef theSet, const void *value) CF_NOEXCEPT CF_ABI_NAME(CFSetGetValue);
CF_EXPORT Boolean CFSetGetValueIfPresent(CFSetRef theSet, const void *candidate, const void **value) CF_NOEXCEPT
    CF_ABI_NAME(CFSetGetValueIfPresent);
CF_EXPORT void CFSetGetValues(CFSetRef theSet, const void **values) CF_NOEXCEPT CF_ABI_NAME(CFSetGetValues);
CF_EXPORT void CFSetApplyFunction(CFSetRef theSet, CFSetApplierFunction applier, void *context) CF_NOEXCEPT
    CF_ABI_NAME(CFSetApplyFunction);

/* Add only adds a missing value; Replace only replaces a present one; Set
 * does either. */
CF_EXPORT void CFSetAddValue(CFMutableSetRef theSet, const void *value) CF_NOEXCEPT CF_ABI_NAME(CFSetAddValue);
CF_EXPORT void CFSetReplaceValue(CFMutableSetRef theSet, const void *value) CF_NOEXCEPT CF_ABI_NAME(CFSetReplaceValue);
CF_EXPORT void CFSetSetValue(CFMutableSetRef theSet, const void *value) CF_NOEXCEPT CF_ABI_NAME(CFSetSetValue);
CF_EXPORT void CFSetRemoveValue(CFMutableSetRef theSet, const void *value) CF_NOEXCEPT CF_ABI_NAME(CFSetRemoveValue);
CF_EXPORT void CFSetRemoveAllValues(CFMutableSetRef theSet) CF_NOEXCEPT CF_ABI_NAME(CFSetRemoveAllValues);

CF_EXTERN_C_END

#endif /* COREFOUNDATION_CFSET_H */
