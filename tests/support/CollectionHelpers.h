/* SPDX-License-Identifier: Apache-2.0 */
// Helpers shared by the collection tests: values that are numbers from a
// counting allocator (equal and hashed by value), so a leak or a double
// release shows up as a wrong live count, and small conveniences for
// descriptions, strings and raw pointers.
#ifndef SORVEL_TESTS_SUPPORT_COLLECTIONHELPERS_H
#define SORVEL_TESTS_SUPPORT_COLLECTIONHELPERS_H

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <initializer_list>
#include <string>

#include "support/TestAllocator.h"

namespace sorvel_test {

inline TestAllocator &numbers() {
    static TestAllocator allocator;
    return allocator;
}
// Numbers made by number() and not yet freed.
inline long live() {
    return numbers().outstanding();
}
inline CFTypeRef number(long value) {
    return CFNumberCreate(numbers().get(), kCFNumberLongType, &value);
}
inline void release(std::initializer_list<CFTypeRef> objects) {
    for (CFTypeRef cf : objects) CFRelease(cf);
}

inline std::string describe(CFTypeRef cf) {
    CFStringRef description = CFCopyDescription(cf);
    char buffer[4096] = "<unconvertible>";
    CFStringGetCString(description, buffer, sizeof buffer, kCFStringEncodingUTF8);
    CFRelease(description);
    return buffer;
}
inline CFMutableStringRef makeString(const char *cString) {
    CFMutableStringRef string = CFStringCreateMutable(nullptr, 0);
    CFStringAppendCString(string, cString, kCFStringEncodingUTF8);
    return string;
}
// A pointer-sized value for collections with NULL callbacks; never dereferenced.
inline const void *raw(uintptr_t n) {
    return reinterpret_cast<const void *>(n);
}

}  // namespace sorvel_test

#endif  // SORVEL_TESTS_SUPPORT_COLLECTIONHELPERS_H
