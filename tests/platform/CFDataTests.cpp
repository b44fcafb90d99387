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
#include <vector>

namespace {

std::string text(CFStringRef string) {
    if (string == nullptr) return "(null)";
    std::vector<char> buffer(4096);
    bool ok = CFStringGetCString(string, buffer.data(), static_cast<CFIndex>(buffer.size()), kCFStringEncodingUTF8);
    CFRelease(string);
    return ok ? buffer.data() : "(unconvertible)";
}

std::string contents(CFDataRef data) {
    return std::string(reinterpret_cast<const char *>(CFDataGetBytePtr(data)), static_cast<size_t>(CFDataGetLength(data)));
}

const UInt8 *bytesOf(const char *s) { return reinterpret_cast<const UInt8 *>(s); }

CFMutableDataRef mutableWith(const char *s, CFIndex capacity = 0) {
    CFMutableDataRef data = CFDataCreateMutable(nullptr, capacity);
    CFDataAppendBytes(data, bytesOf(s), static_cast<CFIndex>(std::strlen(s)));
    return data;
}

// Counts allocations and frees; can fail every request, or every request
// after the first `succeed` ones.
struct Budget {
    int allocations = 0;
    int reallocations = 0;
    int deallocations = 0;
    int succeed = -1;  // -1: unlimited
};

void *budgetAllocate(CFIndex size, CFOptionFlags, void *info) {
    auto *budget = static_cast<Budget *>(info);
    if (budget->succeed == 0) return nullptr;
    if (budget->succeed > 0) --budget->succeed;
    ++budget->allocations;
    return std::malloc(static_cast<size_t>(size));
}
void *budgetReallocate(void *ptr, CFIndex size, CFOptionFlags, void *info) {
    auto *budget = static_cast<Budget *>(info);
    if (budget->succeed == 0) return nullptr;
    ++budget->reallocations;
    return std::realloc(ptr, static_cast<size_t>(size));
}
void budgetDeallocate(void *ptr, void *info) {
    ++static_cast<Budget *>(info)->deallocations;
    std::free(ptr);
}

CFAllocatorRef makeAllocator(Budget *budget, bool withReallocate = true) {
    CFAllocatorContext context = {0,       budget, nullptr, nullptr, nullptr, budgetAllocate,
                                  withReallocate ? budgetReallocate : nullptr, budgetDeallocate, nullptr};
    return CFAllocatorCreate(kCFAllocatorSystemDefault, &context);
}

// ---- creation and ownership ----------------------------------------------------

TEST(CFDataCreateTest, CopiesTheBytes) {
    char source[] = "abc";
    CFDataRef data = CFDataCreate(nullptr, bytesOf(source), 3);
    ASSERT_NE(data, nullptr);
    source[0] = 'X';
    EXPECT_EQ(contents(data), "abc");
    EXPECT_NE(CFDataGetBytePtr(data), bytesOf(source));
    EXPECT_EQ(CFGetTypeID(data), CFDataGetTypeID());
    CFRelease(data);

    CFDataRef empty = CFDataCreate(nullptr, nullptr, 0);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(CFDataGetLength(empty), 0);
    EXPECT_NE(CFDataGetBytePtr(empty), nullptr);
    CFRelease(empty);
}

TEST(CFDataCreateTest, NoCopyHandsTheBytesToTheDeallocatorExactlyOnce) {
    Budget budget;
    CFAllocatorRef deallocator = makeAllocator(&budget);
    auto *bytes = static_cast<UInt8 *>(CFAllocatorAllocate(deallocator, 8, 0));
    std::memcpy(bytes, "12345678", 8);
    CFDataRef data = CFDataCreateWithBytesNoCopy(nullptr, bytes, 8, deallocator);
    ASSERT_NE(data, nullptr);
    // The data keeps its deallocator alive.
    CFRelease(deallocator);
    EXPECT_EQ(CFDataGetBytePtr(data), bytes);
    bytes[0] = '0';
    EXPECT_EQ(contents(data), "02345678");
    CFDataRef copy = CFDataCreateMutableCopy(nullptr, 0, data);
    CFRelease(data);
    EXPECT_EQ(budget.deallocations, 1);
    EXPECT_EQ(contents(copy), "02345678");
    CFRelease(copy);
    EXPECT_EQ(budget.deallocations, 1);
}

TEST(CFDataCreateTest, NoCopyWithNullDeallocatorNeverFrees) {
    UInt8 stackBytes[4] = {1, 2, 3, 4};
    CFDataRef data = CFDataCreateWithBytesNoCopy(nullptr, stackBytes, 4, kCFAllocatorNull);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(CFDataGetBytePtr(data), stackBytes);
    // A copy must not keep borrowing bytes the caller may reuse.
    CFDataRef copy = CFDataCreateCopy(nullptr, data);
    EXPECT_NE(copy, data);
    CFRelease(data);  // freeing a stack array would crash or trip the sanitizer
    stackBytes[0] = 9;
    EXPECT_EQ(CFDataGetBytePtr(copy)[0], 1);
    EXPECT_EQ(CFDataGetLength(copy), 4);
    CFRelease(copy);
}

TEST(CFDataCreateTest, NoCopyWithDefaultDeallocatorFreesThroughTheDefaultAllocator) {
    Budget budget;
    CFAllocatorRef allocator = makeAllocator(&budget);
    CFAllocatorSetDefault(allocator);
    auto *bytes = static_cast<UInt8 *>(CFAllocatorAllocate(nullptr, 16, 0));
    CFDataRef data = CFDataCreateWithBytesNoCopy(kCFAllocatorSystemDefault, bytes, 16, nullptr);
    CFAllocatorSetDefault(nullptr);
    CFRelease(allocator);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(budget.deallocations, 0);
    CFRelease(data);
    EXPECT_EQ(budget.deallocations, 1);
}

TEST(CFDataCreateTest, CopiesShareImmutableDataAndDetachMutableData) {
    CFDataRef data = CFDataCreate(nullptr, bytesOf("xyz"), 3);
    CFDataRef same = CFDataCreateCopy(nullptr, data);
    EXPECT_EQ(same, data);
    CFRelease(same);

    CFMutableDataRef mutableData = mutableWith("xyz");
    CFDataRef snapshot = CFDataCreateCopy(nullptr, mutableData);
    ASSERT_NE(snapshot, static_cast<CFDataRef>(mutableData));
    CFDataAppendBytes(mutableData, bytesOf("!"), 1);
    EXPECT_EQ(contents(snapshot), "xyz");
    EXPECT_EQ(contents(mutableData), "xyz!");
    EXPECT_TRUE(CFEqual(snapshot, data));

    Budget budget;
    CFAllocatorRef other = makeAllocator(&budget);
    CFDataRef moved = CFDataCreateCopy(other, data);
    EXPECT_NE(moved, data);
    EXPECT_EQ(CFGetAllocator(moved), other);
    EXPECT_TRUE(CFEqual(moved, data));
    CFRelease(moved);
    CFRelease(other);
    EXPECT_EQ(budget.allocations, budget.deallocations);

    CFRelease(snapshot);
    CFRelease(mutableData);
    CFRelease(data);
}

// ---- mutation -------------------------------------------------------------------

TEST(CFDataMutationTest, ReplaceAtEveryBoundary) {
    struct Case {
        CFRange range;
        const char *replacement;
        const char *expected;
    };
    const Case cases[] = {
        {{0, 0}, "ab", "ab012345"},  {{6, 0}, "ab", "012345ab"}, {{0, 6}, "", ""},
        {{0, 6}, "xyz", "xyz"},      {{5, 1}, "", "01234"},      {{0, 1}, "", "12345"},
        {{2, 2}, "abcd", "01abcd45"}, {{1, 4}, "x", "0x5"},      {{3, 0}, "", "012345"},
        {{2, 3}, "abc", "01abc5"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.expected) + " from {" + std::to_string(c.range.location) + "," +
                     std::to_string(c.range.length) + "}");
        CFMutableDataRef data = mutableWith("012345");
        CFDataReplaceBytes(data, c.range, bytesOf(c.replacement), static_cast<CFIndex>(std::strlen(c.replacement)));
        EXPECT_EQ(contents(data), c.expected);
        CFRelease(data);
    }
}

TEST(CFDataMutationTest, DeleteAtEveryBoundary) {
    struct Case {
        CFRange range;
        const char *expected;
    };
    for (const Case &c : {Case{{0, 0}, "012345"}, Case{{6, 0}, "012345"}, Case{{0, 6}, ""}, Case{{0, 1}, "12345"},
                          Case{{5, 1}, "01234"}, Case{{1, 4}, "05"}}) {
        CFMutableDataRef data = mutableWith("012345");
        CFDataDeleteBytes(data, c.range);
        EXPECT_EQ(contents(data), c.expected);
        CFRelease(data);
    }
}

TEST(CFDataMutationTest, GrowingZeroFillsEvenOverStaleBytes) {
    CFMutableDataRef data = mutableWith("abcdef");
    CFDataSetLength(data, 2);
    EXPECT_EQ(contents(data), "ab");
    CFDataSetLength(data, 5);
    EXPECT_EQ(contents(data), std::string("ab\0\0\0", 5));
    CFDataIncreaseLength(data, 3);
    EXPECT_EQ(contents(data), std::string("ab\0\0\0\0\0\0", 8));
    CFDataIncreaseLength(data, 0);
    EXPECT_EQ(CFDataGetLength(data), 8);
    CFDataSetLength(data, 100000);
    const UInt8 *bytes = CFDataGetBytePtr(data);
    size_t nonZero = 0;
    for (CFIndex i = 2; i < 100000; ++i) nonZero += bytes[i] != 0;
    EXPECT_EQ(nonZero, 0u);
    CFDataSetLength(data, 0);
    EXPECT_EQ(CFDataGetLength(data), 0);
    CFRelease(data);
}

TEST(CFDataMutationTest, AppendingItsOwnBytesWhileGrowing) {
    CFMutableDataRef data = mutableWith("0123456789abcdef");  // fills the first buffer exactly
    for (int i = 0; i < 4; ++i) CFDataAppendBytes(data, CFDataGetBytePtr(data), CFDataGetLength(data));
    std::string expected = "0123456789abcdef";
    for (int i = 0; i < 4; ++i) expected += expected;
    EXPECT_EQ(contents(data), expected);
    // Replacing a range with an overlapping piece of itself.
    CFMutableDataRef small = mutableWith("abcdef");
    CFDataReplaceBytes(small, CFRangeMake(0, 2), CFDataGetBytePtr(small) + 2, 4);
    EXPECT_EQ(contents(small), "cdefcdef");
    CFRelease(small);
    CFRelease(data);
}

TEST(CFDataMutationTest, CapacityLimitAllowsFillingExactly) {
    CFMutableDataRef data = CFDataCreateMutable(nullptr, 4);
    CFDataAppendBytes(data, bytesOf("ab"), 2);
    CFDataAppendBytes(data, bytesOf("cd"), 2);
    EXPECT_EQ(contents(data), "abcd");
    CFDataReplaceBytes(data, CFRangeMake(0, 4), bytesOf("wxyz"), 4);
    EXPECT_EQ(contents(data), "wxyz");
    CFMutableDataRef copy = CFDataCreateMutableCopy(nullptr, 4, data);
    EXPECT_EQ(contents(copy), "wxyz");
    CFRelease(copy);
    CFRelease(data);
}

TEST(CFDataMutationTest, MutableStorageComesFromTheInstanceAllocator) {
    Budget budget;
    CFAllocatorRef allocator = makeAllocator(&budget);
    CFMutableDataRef data = CFDataCreateMutable(allocator, 0);
    int afterCreate = budget.allocations;
    for (int i = 0; i < 100; ++i) CFDataAppendBytes(data, bytesOf("0123456789"), 10);
    EXPECT_GT(budget.allocations + budget.reallocations, afterCreate);
    CFRelease(data);
    EXPECT_EQ(budget.allocations, budget.deallocations);

    // Without a reallocate callback, growth allocates and copies.
    Budget plain;
    CFAllocatorRef noRealloc = makeAllocator(&plain, false);
    CFMutableDataRef grown = CFDataCreateMutable(noRealloc, 0);
    for (int i = 0; i < 100; ++i) CFDataAppendBytes(grown, bytesOf("0123456789"), 10);
    EXPECT_EQ(CFDataGetLength(grown), 1000);
    EXPECT_EQ(contents(grown).substr(990), "0123456789");
    CFRelease(grown);
    EXPECT_EQ(plain.allocations, plain.deallocations);
    CFRelease(noRealloc);
    CFRelease(allocator);
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
    EXPECT_TRUE(CFEqual(empty1, empty2));
    EXPECT_EQ(CFHash(empty1), CFHash(empty2));

    CFDataRef abc = CFDataCreate(nullptr, bytesOf("abc"), 3);
    CFDataRef abd = CFDataCreate(nullptr, bytesOf("abd"), 3);
    EXPECT_FALSE(CFEqual(abc, abd));
    EXPECT_NE(CFHash(abc), CFHash(abd));
    for (CFTypeRef cf : {CFTypeRef(a), CFTypeRef(b), CFTypeRef(empty1), CFTypeRef(empty2), CFTypeRef(abc),
                         CFTypeRef(abd)})
        CFRelease(cf);
}

TEST(CFDataDescriptionTest, ShowsLengthAndBytes) {
    struct Case {
        CFIndex length;
        const char *bytesText;
    };
    const Case cases[] = {
        {0, "0x"},
        {3, "0x010203"},
        {24, "0x0102030405060708090a0b0c0d0e0f101112131415161718"},
        {30, "0x0102030405060708090a0b0c0d0e0f10 ... 1718191a1b1c1d1e"},
    };
    UInt8 bytes[30];
    for (int i = 0; i < 30; ++i) bytes[i] = static_cast<UInt8>(i + 1);
    for (const Case &c : cases) {
        CFDataRef data = CFDataCreate(nullptr, bytes, c.length);
        char expected[256];
        std::snprintf(expected, sizeof expected, "<CFData %p [%p]>{length = %ld, bytes = %s}",
                      static_cast<const void *>(data), static_cast<const void *>(CFGetAllocator(data)), c.length,
                      c.bytesText);
        EXPECT_EQ(text(CFCopyDescription(data)), expected);
        CFRelease(data);
    }
}

// ---- allocation failure ------------------------------------------------------------

TEST(CFDataAllocationTest, CreationReturnsNullAndLeaksNothing) {
    Budget failing;
    failing.succeed = 0;
    CFAllocatorRef allocator = makeAllocator(&failing);
    CFDataRef source = CFDataCreate(nullptr, bytesOf("abc"), 3);
    EXPECT_EQ(CFDataCreate(allocator, bytesOf("abc"), 3), nullptr);
    EXPECT_EQ(CFDataCreateMutable(allocator, 0), nullptr);
    EXPECT_EQ(CFDataCreateMutableCopy(allocator, 0, source), nullptr);
    EXPECT_EQ(CFDataCreateCopy(allocator, source), nullptr);
    Budget owner;
    CFAllocatorRef deallocator = makeAllocator(&owner);
    void *bytes = CFAllocatorAllocate(deallocator, 4, 0);
    // On failure the caller still owns the bytes.
    EXPECT_EQ(CFDataCreateWithBytesNoCopy(allocator, static_cast<UInt8 *>(bytes), 4, deallocator), nullptr);
    EXPECT_EQ(owner.deallocations, 0);
    CFAllocatorDeallocate(deallocator, bytes);
    CFRelease(deallocator);

    // The instance succeeds but its buffer does not: the half-built object
    // must be released, not leaked.
    Budget oneShot;
    oneShot.succeed = 1;
    CFAllocatorRef second = makeAllocator(&oneShot);
    EXPECT_EQ(CFDataCreateMutableCopy(second, 0, source), nullptr);
    EXPECT_EQ(oneShot.allocations, 1);
    EXPECT_EQ(oneShot.deallocations, 1);

    CFRelease(second);
    CFRelease(source);
    CFRelease(allocator);
}

// ---- fatal stops --------------------------------------------------------------------

TEST(CFDataDeathTest, RangesOutsideTheDataAreFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CFMutableDataRef data = mutableWith("012345");
    UInt8 buffer[16];
    EXPECT_DEATH(CFDataGetBytes(data, CFRangeMake(2, 5), buffer), "CFDataGetBytes .*range \\{2, 5\\}");
    EXPECT_DEATH(CFDataGetBytes(data, CFRangeMake(-1, 1), buffer), "CFDataGetBytes .*outside");
    EXPECT_DEATH(CFDataGetBytes(data, CFRangeMake(7, 0), buffer), "CFDataGetBytes .*outside");
    EXPECT_DEATH(CFDataGetBytes(data, CFRangeMake(1, -1), buffer), "CFDataGetBytes .*outside");
    EXPECT_DEATH(CFDataReplaceBytes(data, CFRangeMake(5, 2), bytesOf("x"), 1), "CFDataReplaceBytes .*outside");
    EXPECT_DEATH(CFDataDeleteBytes(data, CFRangeMake(0, 7)), "CFDataDeleteBytes .*outside");
    EXPECT_DEATH(CFDataGetBytes(data, CFRangeMake(3, LONG_MAX), buffer), "CFDataGetBytes .*outside");
    // The edges themselves are fine.
    CFDataGetBytes(data, CFRangeMake(6, 0), buffer);
    CFDataGetBytes(data, CFRangeMake(0, 6), buffer);
    EXPECT_EQ(std::memcmp(buffer, "012345", 6), 0);
    CFRelease(data);
}

TEST(CFDataDeathTest, MutatingImmutableDataIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CFDataRef data = CFDataCreate(nullptr, bytesOf("abc"), 3);
    auto *cheat = const_cast<CFMutableDataRef>(data);
    EXPECT_DEATH(CFDataGetMutableBytePtr(cheat), "CFDataGetMutableBytePtr .*immutable");
    EXPECT_DEATH(CFDataAppendBytes(cheat, bytesOf("d"), 1), "CFDataAppendBytes .*immutable");
    EXPECT_DEATH(CFDataSetLength(cheat, 1), "CFDataSetLength .*immutable");
    EXPECT_EQ(contents(data), "abc");
    CFRelease(data);
}

TEST(CFDataDeathTest, ExceedingTheCapacityIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CFMutableDataRef data = mutableWith("abcd", 4);
    EXPECT_DEATH(CFDataAppendBytes(data, bytesOf("e"), 1), "CFDataAppendBytes .*exceeds the capacity 4");
    EXPECT_DEATH(CFDataSetLength(data, 5), "CFDataSetLength .*exceeds the capacity");
    EXPECT_DEATH(CFDataIncreaseLength(data, 1), "CFDataIncreaseLength .*exceeds the capacity");
    EXPECT_DEATH(CFDataCreateMutableCopy(nullptr, 3, data), "CFDataCreateMutableCopy .*exceeds the capacity 3");
    EXPECT_DEATH(CFDataCreateMutable(nullptr, -1), "CFDataCreateMutable .*negative capacity");
    EXPECT_EQ(contents(data), "abcd");
    CFRelease(data);
}

TEST(CFDataDeathTest, NullAndNegativeArgumentsAreFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(CFDataGetLength(nullptr), "CFDataGetLength");
    EXPECT_DEATH(CFDataCreate(nullptr, nullptr, 3), "CFDataCreate .*bytes must not be NULL");
    EXPECT_DEATH(CFDataCreate(nullptr, bytesOf("a"), -1), "CFDataCreate .*negative length");
    CFMutableDataRef data = CFDataCreateMutable(nullptr, 0);
    EXPECT_DEATH(CFDataIncreaseLength(data, -1), "CFDataIncreaseLength .*negative");
    EXPECT_DEATH(CFDataAppendBytes(data, nullptr, 2), "CFDataAppendBytes .*bytes must not be NULL");
    EXPECT_DEATH(CFDataGetLength(reinterpret_cast<CFDataRef>(kCFBooleanTrue)), "CFDataGetLength .*CFBoolean");
    CFRelease(data);
}

TEST(CFDataDeathTest, RunningOutOfMemoryWhileGrowingIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Budget budget;
    budget.succeed = 1;  // the instance only
    CFAllocatorRef allocator = makeAllocator(&budget);
    CFMutableDataRef data = CFDataCreateMutable(allocator, 0);
    ASSERT_NE(data, nullptr);
    EXPECT_DEATH(CFDataSetLength(data, 10), "CFDataSetLength .*out of memory");
    CFRelease(data);
    CFRelease(allocator);
}

}  // namespace
