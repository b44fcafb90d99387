// SPDX-License-Identifier: Apache-2.0
// Tests for data objects: copying and no-copy ownership (the bytes
// deallocator runs exactly once, kCFAllocatorNull never frees), mutation at
// the range boundaries, the capacity limit, equality and hashing,
// description text, allocation failure and the fatal stops.
#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/TestAllocator.h"

namespace {

using sorvel_test::TestAllocator;

std::string contents(CFDataRef data) {
    return std::string(reinterpret_cast<const char *>(CFDataGetBytePtr(data)),
                       static_cast<size_t>(CFDataGetLength(data)));
}

const UInt8 *bytesOf(const char *s) {
    return reinterpret_cast<const UInt8 *>(s);
}

CFMutableDataRef mutableWith(const char *s, CFAllocatorRef allocator = nullptr) {
    CFMutableDataRef data = CFDataCreateMutable(allocator, 0);
    CFDataAppendBytes(data, bytesOf(s), static_cast<CFIndex>(std::strlen(s)));
    return data;
}

// ---- creation and ownership ----------------------------------------------------

TEST(CFDataCreateTest, CopiesShareImmutableDataAndDetachEverythingElse) {
    char source[] = "xyz";
    CFDataRef data = CFDataCreate(nullptr, bytesOf(source), 3);
    ASSERT_NE(data, nullptr);
    source[0] = 'X';
    EXPECT_EQ(contents(data), "xyz");
    EXPECT_EQ(CFGetTypeID(data), CFDataGetTypeID());
    CFDataRef same = CFDataCreateCopy(nullptr, data);
    EXPECT_EQ(same, data);
    CFRelease(same);

    CFMutableDataRef mutableData = mutableWith("xyz");
    CFDataRef snapshot = CFDataCreateCopy(nullptr, mutableData);
    CFDataAppendBytes(mutableData, bytesOf("!"), 1);
    EXPECT_EQ(contents(snapshot), "xyz");

    TestAllocator other;
    CFDataRef moved = CFDataCreateCopy(other.get(), data);
    EXPECT_EQ(CFGetAllocator(moved), other.get());
    EXPECT_EQ(contents(moved), "xyz");
    CFRelease(moved);
    EXPECT_EQ(other.outstanding(), 0);
    for (CFTypeRef cf : {CFTypeRef(snapshot), CFTypeRef(mutableData), CFTypeRef(data)}) CFRelease(cf);
}

// The bytes go to their deallocator exactly once, and it is kept alive until
// then; NULL means the default allocator at creation, and kCFAllocatorNull
// never frees, so a copy must not keep borrowing such bytes.
TEST(CFDataCreateTest, NoCopyBytesGoToTheirDeallocatorExactlyOnce) {
    TestAllocator owner;
    CFIndex ownerRetains = CFGetRetainCount(owner.get());
    auto *bytes = static_cast<UInt8 *>(CFAllocatorAllocate(owner.get(), 8, 0));
    std::memcpy(bytes, "12345678", 8);
    CFDataRef data = CFDataCreateWithBytesNoCopy(nullptr, bytes, 8, owner.get());
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(CFGetRetainCount(owner.get()), ownerRetains + 1);
    bytes[0] = '0';
    EXPECT_EQ(contents(data), "02345678");
    CFDataRef copy = CFDataCreateMutableCopy(nullptr, 0, data);
    CFRelease(data);
    EXPECT_EQ(owner.deallocations(), 1);
    EXPECT_EQ(CFGetRetainCount(owner.get()), ownerRetains);
    EXPECT_EQ(contents(copy), "02345678");
    CFRelease(copy);
    EXPECT_EQ(owner.deallocations(), 1);

    CFAllocatorSetDefault(owner.get());
    bytes = static_cast<UInt8 *>(CFAllocatorAllocate(nullptr, 16, 0));
    data = CFDataCreateWithBytesNoCopy(kCFAllocatorSystemDefault, bytes, 16, nullptr);
    CFAllocatorSetDefault(nullptr);
    EXPECT_EQ(owner.deallocations(), 1);
    CFRelease(data);
    EXPECT_EQ(owner.deallocations(), 2);

    UInt8 stackBytes[4] = {1, 2, 3, 4};
    data = CFDataCreateWithBytesNoCopy(nullptr, stackBytes, 4, kCFAllocatorNull);
    EXPECT_EQ(CFDataGetBytePtr(data), stackBytes);
    copy = CFDataCreateCopy(nullptr, data);
    CFRelease(data);  // freeing a stack array would crash or trip the sanitizer
    stackBytes[0] = 9;
    EXPECT_EQ(contents(copy), std::string("\1\2\3\4", 4));
    CFRelease(copy);
}

// ---- mutation -------------------------------------------------------------------

// An empty replacement is a deletion, so those cases go through both calls.
TEST(CFDataMutationTest, ReplaceAndDeleteAtEveryBoundary) {
    struct Case {
        CFRange range;
        const char *replacement, *expected;
    };
    const Case cases[] = {
        {{0, 0}, "ab", "ab012345"}, {{6, 0}, "ab", "012345ab"}, {{0, 6}, "xyz", "xyz"}, {{2, 2}, "abcd", "01abcd45"},
        {{1, 4}, "x", "0x5"},       {{2, 3}, "abc", "01abc5"},  {{0, 6}, "", ""},       {{5, 1}, "", "01234"},
        {{0, 1}, "", "12345"},      {{3, 0}, "", "012345"},     {{6, 0}, "", "012345"}, {{1, 4}, "", "05"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.expected) + " from {" + std::to_string(c.range.location) + "," +
                     std::to_string(c.range.length) + "}");
        CFMutableDataRef data = mutableWith("012345");
        CFDataReplaceBytes(data, c.range, bytesOf(c.replacement), static_cast<CFIndex>(std::strlen(c.replacement)));
        EXPECT_EQ(contents(data), c.expected);
        CFRelease(data);
        if (*c.replacement != '\0') continue;
        data = mutableWith("012345");
        CFDataDeleteBytes(data, c.range);
        EXPECT_EQ(contents(data), c.expected);
        CFRelease(data);
    }
}

// Growth moves the buffer (reallocating, or allocating and copying when the
// allocator cannot reallocate) while the bytes appended may be the data's
// own; the storage comes from the instance's allocator.  Growing zero-fills,
// even over bytes left stale by an earlier shrink.
TEST(CFDataMutationTest, GrowingKeepsTheBytesAndZeroFills) {
    TestAllocator counting;
    CFAllocatorContext context = {
        0,       nullptr,
        nullptr, nullptr,
        nullptr, [](CFIndex size, CFOptionFlags, void *) { return std::malloc(size_t(size)); },
        nullptr, [](void *ptr, void *) { std::free(ptr); },
        nullptr};
    CFAllocatorRef noRealloc = CFAllocatorCreate(kCFAllocatorSystemDefault, &context);
    for (CFAllocatorRef allocator : {counting.get(), noRealloc}) {
        CFMutableDataRef data = mutableWith("0123456789abcdef", allocator);  // fills the first buffer exactly
        for (int i = 0; i < 6; ++i) CFDataAppendBytes(data, CFDataGetBytePtr(data), CFDataGetLength(data));
        std::string expected = "0123456789abcdef";
        for (int i = 0; i < 6; ++i) expected += expected;
        EXPECT_EQ(contents(data), expected);
        CFDataSetLength(data, 2);
        CFDataSetLength(data, 5);
        EXPECT_EQ(contents(data), std::string("01\0\0\0", 5));
        CFDataIncreaseLength(data, 3);
        CFDataIncreaseLength(data, 0);
        EXPECT_EQ(contents(data), std::string("01\0\0\0\0\0\0", 8));
        CFDataSetLength(data, 100000);
        EXPECT_EQ(contents(data).find_first_not_of('\0', 2), std::string::npos);
        CFDataSetLength(data, 0);
        EXPECT_EQ(CFDataGetLength(data), 0);
        CFRelease(data);
    }
    CFRelease(noRealloc);
    EXPECT_GE(counting.allocations(), 2);  // the instance and its buffer
    EXPECT_EQ(counting.outstanding(), 0);
    // Replacing a range with an overlapping piece of itself.
    CFMutableDataRef small = mutableWith("abcdef");
    CFDataReplaceBytes(small, CFRangeMake(0, 2), CFDataGetBytePtr(small) + 2, 4);
    EXPECT_EQ(contents(small), "cdefcdef");
    CFRelease(small);
}

// ---- equality, hash, description -----------------------------------------------

TEST(CFDataEqualityTest, EqualBytesAreEqualAndHashAlike) {
    std::vector<UInt8> longBytes(5000);
    for (size_t i = 0; i < longBytes.size(); ++i) longBytes[i] = static_cast<UInt8>(i * 7);
    CFDataRef a = CFDataCreate(nullptr, longBytes.data(), 5000);
    CFMutableDataRef b = CFDataCreateMutableCopy(nullptr, 0, a);
    EXPECT_TRUE(CFEqual(a, b));
    EXPECT_EQ(CFHash(a), CFHash(b));
    CFDataGetMutableBytePtr(b)[4999] ^= 1;  // differs in the very last byte
    EXPECT_FALSE(CFEqual(a, b));
    CFDataSetLength(b, 4999);
    EXPECT_FALSE(CFEqual(a, b));

    CFDataRef empty1 = CFDataCreate(nullptr, nullptr, 0);
    CFMutableDataRef empty2 = CFDataCreateMutable(nullptr, 0);
    EXPECT_EQ(CFDataGetLength(empty1), 0);
    // Callers may memcpy zero bytes from empty data, owning a buffer or not.
    EXPECT_NE(CFDataGetBytePtr(empty1), nullptr);
    EXPECT_NE(CFDataGetBytePtr(empty2), nullptr);
    EXPECT_TRUE(CFEqual(empty1, empty2));
    EXPECT_EQ(CFHash(empty1), CFHash(empty2));

    CFDataRef abc = CFDataCreate(nullptr, bytesOf("abc"), 3);
    CFDataRef abd = CFDataCreate(nullptr, bytesOf("abd"), 3);
    EXPECT_FALSE(CFEqual(abc, abd));
    EXPECT_NE(CFHash(abc), CFHash(abd));
    for (CFTypeRef cf :
         {CFTypeRef(a), CFTypeRef(b), CFTypeRef(empty1), CFTypeRef(empty2), CFTypeRef(abc), CFTypeRef(abd)})
        CFRelease(cf);
}

TEST(CFDataDescriptionTest, ShowsLengthAndBytes) {
    UInt8 bytes[30];
    for (int i = 0; i < 30; ++i) bytes[i] = static_cast<UInt8>(i + 1);
    for (auto [length, hex] : {std::pair<CFIndex, const char *>{0, "0x"},
                               {3, "0x010203"},
                               {24, "0x0102030405060708090a0b0c0d0e0f101112131415161718"},
                               {30, "0x0102030405060708090a0b0c0d0e0f10 ... 1718191a1b1c1d1e"}}) {
        CFDataRef data = CFDataCreate(nullptr, bytes, length);
        char expected[256], actual[256];
        std::snprintf(expected, sizeof expected, "<CFData %p [%p]>{length = %ld, bytes = %s}",
                      static_cast<const void *>(data), static_cast<const void *>(CFGetAllocator(data)), length, hex);
        CFStringRef description = CFCopyDescription(data);
        EXPECT_TRUE(CFStringGetCString(description, actual, sizeof actual, kCFStringEncodingUTF8));
        EXPECT_STREQ(actual, expected);
        CFRelease(description);
        CFRelease(data);
    }
}

// ---- allocation failure ------------------------------------------------------------

TEST(CFDataAllocationTest, CreationReturnsNullAndLeaksNothing) {
    TestAllocator failing, owner;
    failing.failAlways();
    CFDataRef source = CFDataCreate(nullptr, bytesOf("abc"), 3);
    EXPECT_EQ(CFDataCreate(failing.get(), bytesOf("abc"), 3), nullptr);
    EXPECT_EQ(CFDataCreateMutable(failing.get(), 0), nullptr);
    EXPECT_EQ(CFDataCreateMutableCopy(failing.get(), 0, source), nullptr);
    EXPECT_EQ(CFDataCreateCopy(failing.get(), source), nullptr);
    // On failure the caller still owns the bytes.
    void *bytes = CFAllocatorAllocate(owner.get(), 4, 0);
    CFIndex ownerRetains = CFGetRetainCount(owner.get());
    EXPECT_EQ(CFDataCreateWithBytesNoCopy(failing.get(), static_cast<UInt8 *>(bytes), 4, owner.get()), nullptr);
    EXPECT_EQ(owner.deallocations(), 0);
    EXPECT_EQ(CFGetRetainCount(owner.get()), ownerRetains);
    CFAllocatorDeallocate(owner.get(), bytes);

    // The instance succeeds but its buffer does not: the half-built object
    // must be released, not leaked.
    failing.failAfter(1);
    EXPECT_EQ(CFDataCreateMutableCopy(failing.get(), 0, source), nullptr);
    EXPECT_EQ(failing.allocations(), 1);
    EXPECT_EQ(failing.outstanding(), 0);
    CFRelease(source);
}

// ---- fatal stops --------------------------------------------------------------------

TEST(CFDataDeathTest, RangesAndTheCapacityLimitAreEnforced) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CFMutableDataRef data = mutableWith("012345");
    UInt8 buffer[16];
    EXPECT_DEATH(CFDataGetBytes(data, CFRangeMake(2, 5), buffer), "CFDataGetBytes .*range \\{2, 5\\}");
    for (CFRange range : {CFRangeMake(-1, 1), CFRangeMake(7, 0), CFRangeMake(1, -1), CFRangeMake(3, LONG_MAX)})
        EXPECT_DEATH(CFDataGetBytes(data, range, buffer), "CFDataGetBytes .*outside");
    EXPECT_DEATH(CFDataReplaceBytes(data, CFRangeMake(5, 2), bytesOf("x"), 1), "CFDataReplaceBytes .*outside");
    EXPECT_DEATH(CFDataDeleteBytes(data, CFRangeMake(0, 7)), "CFDataDeleteBytes .*outside");
    // The edges themselves are fine.
    CFDataGetBytes(data, CFRangeMake(6, 0), buffer);
    CFDataGetBytes(data, CFRangeMake(0, 6), buffer);
    EXPECT_EQ(std::memcmp(buffer, "012345", 6), 0);
    CFRelease(data);

    // A capacity may be filled exactly, never exceeded.
    CFMutableDataRef full = CFDataCreateMutable(nullptr, 4);
    CFDataAppendBytes(full, bytesOf("ab"), 2);
    CFDataAppendBytes(full, bytesOf("cd"), 2);
    CFDataReplaceBytes(full, CFRangeMake(0, 4), bytesOf("wxyz"), 4);
    CFMutableDataRef copy = CFDataCreateMutableCopy(nullptr, 4, full);
    EXPECT_EQ(contents(copy), "wxyz");
    EXPECT_DEATH(CFDataAppendBytes(full, bytesOf("e"), 1), "CFDataAppendBytes .*exceeds the capacity 4");
    EXPECT_DEATH(CFDataSetLength(full, 5), "CFDataSetLength .*exceeds the capacity");
    EXPECT_DEATH(CFDataIncreaseLength(full, 1), "CFDataIncreaseLength .*exceeds the capacity");
    EXPECT_DEATH(CFDataCreateMutableCopy(nullptr, 3, full), "CFDataCreateMutableCopy .*exceeds the capacity 3");
    EXPECT_EQ(contents(full), "wxyz");
    CFRelease(copy);
    CFRelease(full);
}

TEST(CFDataDeathTest, MisuseAndRunningOutOfMemoryAreFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CFDataRef immutable = CFDataCreate(nullptr, bytesOf("abc"), 3);
    auto *cheat = const_cast<CFMutableDataRef>(immutable);
    EXPECT_DEATH(CFDataGetMutableBytePtr(cheat), "CFDataGetMutableBytePtr .*immutable");
    EXPECT_DEATH(CFDataAppendBytes(cheat, bytesOf("d"), 1), "CFDataAppendBytes .*immutable");
    EXPECT_DEATH(CFDataSetLength(cheat, 1), "CFDataSetLength .*immutable");
    EXPECT_EQ(contents(immutable), "abc");
    CFRelease(immutable);

    EXPECT_DEATH(CFDataGetLength(nullptr), "CFDataGetLength");
    EXPECT_DEATH(CFDataGetLength(reinterpret_cast<CFDataRef>(kCFBooleanTrue)), "CFDataGetLength .*CFBoolean");
    EXPECT_DEATH(CFDataCreate(nullptr, nullptr, 3), "CFDataCreate .*bytes must not be NULL");
    EXPECT_DEATH(CFDataCreate(nullptr, bytesOf("a"), -1), "CFDataCreate .*negative length");
    EXPECT_DEATH(CFDataCreateMutable(nullptr, -1), "CFDataCreateMutable .*negative capacity");

    TestAllocator allocator;
    allocator.failAfter(1);  // the instance only
    CFMutableDataRef data = CFDataCreateMutable(allocator.get(), 0);
    ASSERT_NE(data, nullptr);
    EXPECT_DEATH(CFDataIncreaseLength(data, -1), "CFDataIncreaseLength .*negative");
    EXPECT_DEATH(CFDataAppendBytes(data, nullptr, 2), "CFDataAppendBytes .*bytes must not be NULL");
    EXPECT_DEATH(CFDataSetLength(data, 10), "CFDataSetLength .*out of memory");
    CFRelease(data);
}

}  // namespace
