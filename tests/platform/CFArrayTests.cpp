// SPDX-License-Identifier: Apache-2.0
// CFArray: ownership of values through every mutation, raw-pointer and
// partial callback records, equality and ordering, the insert/delete/replace
// primitive against a std::vector model, stable sorting and binary search,
// copies, descriptions, allocation failure and the fatal stops.

#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "support/CollectionHelpers.h"
#include "support/TestAllocator.h"

namespace {

using namespace sorvel_test;

long valueOf(const void *cf) {
    long value = -1;
    CFNumberGetValue(static_cast<CFNumberRef>(cf), kCFNumberLongType, &value);
    return value;
}

CFMutableArrayRef makeArray(const std::vector<const void *> &values, const CFArrayCallBacks *callBacks) {
    CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, callBacks);
    for (const void *value : values) CFArrayAppendValue(array, value);
    return array;
}
std::vector<const void *> contents(CFArrayRef array) {
    std::vector<const void *> values(static_cast<size_t>(CFArrayGetCount(array)));
    CFArrayGetValues(array, CFRangeMake(0, CFArrayGetCount(array)), values.data());
    return values;
}
// Inserts (at < 0: appends) a new number; the array holds its only reference.
void addNumber(CFMutableArrayRef array, long value, CFIndex at = -1) {
    CFTypeRef n = number(value);
    if (at < 0)
        CFArrayAppendValue(array, n);
    else
        CFArrayInsertValueAtIndex(array, at, n);
    CFRelease(n);
}

// Insertion, removal, replacement and exchange are covered by the random
// model test below; these are the mutations that test does not make.
TEST(CFArray, SetAndRemoveAllBalanceRetainsEvenWhenAValueReplacesItself) {
    CFTypeRef a = number(1), b = number(2);
    CFMutableArrayRef array = makeArray({a, a, b}, &kCFTypeArrayCallBacks);
    CFArraySetValueAtIndex(array, 1, b);  // a b b: one reference to a replaced
    EXPECT_EQ(CFGetRetainCount(a), 2);
    EXPECT_EQ(CFGetRetainCount(b), 3);
    CFArrayRemoveAllValues(array);
    EXPECT_EQ(CFArrayGetCount(array), 0);
    EXPECT_EQ(CFGetRetainCount(a), 1);
    EXPECT_EQ(CFGetRetainCount(b), 1);
    // With the array holding the only reference, storing a value over itself
    // must retain before it releases.
    CFArrayAppendValue(array, a);
    CFRelease(a);
    CFArraySetValueAtIndex(array, 0, a);
    const void *same[] = {a};
    CFArrayReplaceValues(array, CFRangeMake(0, 1), same, 1);
    EXPECT_EQ(CFGetRetainCount(a), 1);
    EXPECT_EQ(valueOf(CFArrayGetValueAtIndex(array, 0)), 1);
    release({array, b});
    EXPECT_EQ(live(), 0);
}

// Raw values compared modulo 10; a retain that stores value + 1000 and a
// release that records what it is handed.
Boolean equalModTen(const void *a, const void *b) {
    return reinterpret_cast<uintptr_t>(a) % 10 == reinterpret_cast<uintptr_t>(b) % 10;
}
std::vector<const void *> gReleased;
const void *retainPlusThousand(CFAllocatorRef, const void *value) {
    return raw(reinterpret_cast<uintptr_t>(value) + 1000);
}
void recordRelease(CFAllocatorRef, const void *value) {
    gReleased.push_back(value);
}

TEST(CFArray, PartiallyNullRecordsUseEachGivenCallbackOnly) {
    CFArrayCallBacks equalOnly = {0, nullptr, nullptr, nullptr, equalModTen};
    const void *values[] = {raw(11), raw(22)}, *shifted[] = {raw(21), raw(12)};
    CFArrayRef modTen = CFArrayCreate(nullptr, values, 2, &equalOnly);
    CFArrayRef byAddress = CFArrayCreate(nullptr, values, 2, nullptr);
    CFArrayRef other = CFArrayCreate(nullptr, shifted, 2, nullptr);
    EXPECT_EQ(CFArrayGetValueAtIndex(modTen, 0), raw(11));  // no retain: stored as given
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(modTen, CFRangeMake(0, 2), raw(32)), 1);
    EXPECT_TRUE(CFEqual(modTen, other));  // the first array's equal callback decides
    EXPECT_FALSE(CFEqual(byAddress, other));
    release({modTen, byAddress, other});

    // The record is copied, so it may go away once the array exists.
    auto *retaining = new CFArrayCallBacks{0, retainPlusThousand, recordRelease, nullptr, nullptr};
    CFMutableArrayRef stored = CFArrayCreateMutable(nullptr, 0, retaining);
    delete retaining;
    gReleased.clear();
    CFArrayAppendValue(stored, raw(5));
    EXPECT_EQ(CFArrayGetValueAtIndex(stored, 0), raw(1005));
    CFArraySetValueAtIndex(stored, 0, raw(6));
    EXPECT_EQ(gReleased, std::vector<const void *>{raw(1005)});
    CFRelease(stored);
    EXPECT_EQ(gReleased, (std::vector<const void *>{raw(1005), raw(1006)}));
}

// Equality by the values' own equal callback is pinned down by the mod-ten
// record above.
TEST(CFArray, EqualityIsPairwiseAndOrdered) {
    const CFTypeRef a = CFSTR("alpha"), b = CFSTR("beta");
    struct Case {
        const char *name;
        std::vector<const void *> left, right;
        bool equal;
    } cases[] = {
        {"same values", {a, b}, {a, b}, true},
        {"order matters", {a, b}, {b, a}, false},
        {"prefix is not equal", {a, b}, {a, b, CFSTR("gamma")}, false},
        {"both empty", {}, {}, true},
        {"empty vs non-empty", {}, {a}, false},
    };
    for (Case &c : cases) {
        SCOPED_TRACE(c.name);
        CFArrayRef left =
            CFArrayCreate(nullptr, c.left.data(), static_cast<CFIndex>(c.left.size()), &kCFTypeArrayCallBacks);
        CFMutableArrayRef right = makeArray(c.right, &kCFTypeArrayCallBacks);
        EXPECT_EQ(CFEqual(left, right), c.equal);
        EXPECT_EQ(CFEqual(right, left), c.equal);
        if (c.equal) EXPECT_EQ(CFHash(left), CFHash(right));
        release({left, right});
    }
}

// Random insertions, removals, exchanges and replacements (of nothing, a few
// values or everything up to the end, by none, a few or many newcomers) at
// both ends and in the middle, checked against std::vector after every step;
// the values are counted, so retains and releases must balance too.
TEST(CFArray, RandomEditsMatchAVectorModel) {
    std::mt19937 random(12345);
    auto below = [&](CFIndex n) { return static_cast<CFIndex>(random() % static_cast<unsigned long>(n)); };
    CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
    std::vector<long> model;
    long next = 0;
    for (int step = 0; step < 8000; step++) {
        const CFIndex count = static_cast<CFIndex>(model.size());
        const CFIndex op = below(6);
        if (op == 3) {
            const CFIndex at = below(4) ? below(count + 1) : 0;
            const CFIndex length = below(8) == 0 ? count - at : std::min(below(4), count - at);
            std::vector<const void *> values;
            for (CFIndex n = below(8) == 0 ? below(24) : below(5); n > 0; n--) values.push_back(number(next++));
            CFArrayReplaceValues(array, CFRangeMake(at, length), values.data(), static_cast<CFIndex>(values.size()));
            model.erase(model.begin() + at, model.begin() + at + length);
            for (size_t i = 0; i < values.size(); i++) model.insert(model.begin() + at + i, valueOf(values[i]));
            for (const void *v : values) CFRelease(v);
        } else if (op == 2 && count > 0) {
            const CFIndex at = below(2) ? 0 : below(count);
            CFArrayRemoveValueAtIndex(array, at);
            model.erase(model.begin() + at);
        } else if (op == 4 && count > 0) {
            const CFIndex i = below(count), j = below(count);
            CFArrayExchangeValuesAtIndices(array, i, j);
            std::swap(model[static_cast<size_t>(i)], model[static_cast<size_t>(j)]);
        } else {  // insert (5: append), biased towards the ends
            const CFIndex at = op == 5 || below(3) == 0 ? count : op == 0 ? 0 : below(count + 1);
            addNumber(array, next, op == 5 ? -1 : at);
            model.insert(model.begin() + at, next++);
        }
        ASSERT_EQ(CFArrayGetCount(array), static_cast<CFIndex>(model.size())) << "step " << step;
        for (size_t i = 0; (step % 50 == 0 || model.size() < 64) && i < model.size(); i++)
            ASSERT_EQ(valueOf(CFArrayGetValueAtIndex(array, static_cast<CFIndex>(i))), model[i])
                << "step " << step << " index " << i;
        ASSERT_EQ(live(), static_cast<long>(model.size())) << "step " << step;
    }
    CFRelease(array);
    EXPECT_EQ(live(), 0);
}

TEST(CFArray, AppendingAnArrayToItselfDoublesIt) {
    CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
    for (long i = 0; i < 20; i++) addNumber(array, i);
    CFArrayAppendArray(array, array, CFRangeMake(0, 20));
    CFArrayAppendArray(array, array, CFRangeMake(5, 2));
    ASSERT_EQ(CFArrayGetCount(array), 42);
    for (CFIndex i = 0; i < 42; i++) EXPECT_EQ(valueOf(CFArrayGetValueAtIndex(array, i)), i < 40 ? i % 20 : i - 35);
    EXPECT_EQ(CFGetRetainCount(CFArrayGetValueAtIndex(array, 5)), 3);
    CFRelease(array);
    EXPECT_EQ(live(), 0);
}

struct Keyed {
    int key;
    int sequence;
};
CFComparisonResult compareKeys(const void *a, const void *b, void *context) {
    ++*static_cast<int *>(context);
    const int ka = static_cast<const Keyed *>(a)->key, kb = static_cast<const Keyed *>(b)->key;
    return ka < kb ? kCFCompareLessThan : ka > kb ? kCFCompareGreaterThan : kCFCompareEqualTo;
}

TEST(CFArray, SortIsStableAndStaysInsideTheRange) {
    std::vector<Keyed> items;
    std::mt19937 random(7);
    for (int i = 0; i < 300; i++) items.push_back({static_cast<int>(random() % 10), i});
    CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, nullptr);
    for (const Keyed &item : items) CFArrayAppendValue(array, &item);
    int calls = 0;  // compareKeys crashes unless the context reaches it
    CFArraySortValues(array, CFRangeMake(10, 280), compareKeys, &calls);
    for (CFIndex i = 0; i < 300; i++)
        if (i < 10 || i >= 290) EXPECT_EQ(CFArrayGetValueAtIndex(array, i), &items[static_cast<size_t>(i)]) << i;
    for (CFIndex i = 11; i < 290; i++) {
        auto *before = static_cast<const Keyed *>(CFArrayGetValueAtIndex(array, i - 1));
        auto *after = static_cast<const Keyed *>(CFArrayGetValueAtIndex(array, i));
        ASSERT_LE(before->key, after->key) << i;
        if (before->key == after->key) ASSERT_LT(before->sequence, after->sequence) << "unstable at " << i;
    }
    CFRelease(array);
}

TEST(CFArray, BinarySearchReturnsTheMatchOrTheInsertionPoint) {
    Keyed items[] = {{10, 0}, {20, 1}, {20, 2}, {30, 3}};
    CFMutableArrayRef array = makeArray({&items[0], &items[1], &items[2], &items[3]}, nullptr);
    struct Case {
        int key;
        CFRange range;
        CFIndex expected;
    } cases[] = {
        {5, {0, 4}, 0},  {10, {0, 4}, 0}, {15, {0, 4}, 1}, {20, {0, 4}, 1}, {25, {0, 4}, 3},
        {30, {0, 4}, 3}, {35, {0, 4}, 4}, {5, {1, 2}, 1},  {35, {1, 2}, 3}, {20, {2, 0}, 2},
    };
    int calls = 0;
    for (const Case &c : cases) {
        Keyed probe = {c.key, -1};
        EXPECT_EQ(CFArrayBSearchValues(array, c.range, &probe, compareKeys, &calls), c.expected)
            << "key " << c.key << " range {" << c.range.location << ", " << c.range.length << "}";
    }
    CFRelease(array);
}

TEST(CFArray, RawSearchesHonourTheirRangeAndFindNull) {
    CFMutableArrayRef array = makeArray({raw(1), raw(2), raw(1), raw(3), raw(1), nullptr}, nullptr);
    struct Case {
        CFRange range;
        const void *value;
        CFIndex first, last, count;
    } cases[] = {
        {{0, 6}, raw(1), 0, 4, 3},
        {{1, 3}, raw(1), 2, 2, 1},
        {{1, 2}, raw(2), 1, 1, 1},
        {{0, 4}, raw(1), 0, 2, 2},
        {{3, 1}, raw(1), kCFNotFound, kCFNotFound, 0},
        {{0, 0}, raw(1), kCFNotFound, kCFNotFound, 0},
        {{6, 0}, raw(1), kCFNotFound, kCFNotFound, 0},
        {{0, 6}, nullptr, 5, 5, 1},  // raw arrays may hold NULL
        {{0, 6}, raw(4), kCFNotFound, kCFNotFound, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "range at " << c.range.location << " value " << c.value);
        EXPECT_EQ(CFArrayGetFirstIndexOfValue(array, c.range, c.value), c.first);
        EXPECT_EQ(CFArrayGetLastIndexOfValue(array, c.range, c.value), c.last);
        EXPECT_EQ(CFArrayGetCountOfValue(array, c.range, c.value), c.count);
        EXPECT_EQ(CFArrayContainsValue(array, c.range, c.value), c.count > 0);
    }
    std::vector<const void *> applied, got(3);
    CFArrayGetValues(array, CFRangeMake(1, 3), got.data());
    CFArrayApplyFunction(
        array, CFRangeMake(1, 3),
        [](const void *value, void *context) { static_cast<std::vector<const void *> *>(context)->push_back(value); },
        &applied);
    EXPECT_EQ(got, (std::vector<const void *>{raw(2), raw(1), raw(3)}));
    EXPECT_EQ(applied, got);
    EXPECT_NE(describe(array).find("\t0 : <0x1>\n\t1 : <0x2>\n"), std::string::npos) << describe(array);
    CFRelease(array);
}

TEST(CFArray, DescriptionListsEachValuesText) {
    CFMutableArrayRef mutableArray = makeArray({CFSTR("alpha"), CFSTR("beta")}, &kCFTypeArrayCallBacks);
    CFArrayRef array = CFArrayCreateCopy(nullptr, mutableArray);
    const std::string description = describe(array);
    EXPECT_TRUE(std::regex_match(description, std::regex("<CFArray 0x[0-9a-f]+ \\[0x[0-9a-f]+\\]>\\{type = immutable, "
                                                         "count = 2, values = \\(\n\t0 : alpha\n\t1 : beta\n\\)\\}")))
        << description;
    EXPECT_NE(describe(mutableArray).find("type = mutable-small, count = 2"), std::string::npos);
    release({mutableArray, array});
}

// Creation and both copies retain every value; when an allocation fails they
// return NULL having released everything they took.
TEST(CFArray, CreationAndCopiesOwnTheirValuesAndFailCleanly) {
    CFTypeRef values[] = {number(1), number(2), number(3)};
    CFMutableArrayRef source = makeArray({values[0], values[1], values[2]}, &kCFTypeArrayCallBacks);
    for (int kind = 0; kind < 3; kind++) {  // create, copy, mutable copy
        SCOPED_TRACE(kind);
        long attempts = 0;
        for (CFArrayRef array = nullptr; !array && attempts < 10; attempts++) {
            sorvel_test::TestAllocator allocator;
            allocator.failAfter(attempts);
            array = kind == 0   ? CFArrayCreate(allocator.get(), values, 3, &kCFTypeArrayCallBacks)
                    : kind == 1 ? CFArrayCreateCopy(allocator.get(), source)
                                : CFArrayCreateMutableCopy(allocator.get(), 0, source);
            if (array) {
                EXPECT_EQ(contents(array), contents(source));
                EXPECT_EQ(CFGetRetainCount(values[2]), 3);
                CFRelease(array);
            }
            EXPECT_EQ(CFGetRetainCount(values[0]), 2) << "fail after " << attempts;
            EXPECT_EQ(allocator.outstanding(), 0) << "fail after " << attempts;
        }
        EXPECT_EQ(attempts, 3);  // the instance fails, then its storage, then it succeeds
    }
    // A copy of a mutable array is a new array; an immutable array's copy may
    // be the array itself.
    CFArrayRef immutable = CFArrayCreateCopy(nullptr, source);
    EXPECT_NE(immutable, static_cast<CFArrayRef>(source));
    CFArrayRemoveAllValues(source);
    EXPECT_EQ(CFArrayGetCount(immutable), 3);
    EXPECT_EQ(CFArrayCreateCopy(nullptr, immutable), immutable);
    EXPECT_EQ(CFGetRetainCount(immutable), 2);
    release({immutable, immutable, source, values[0], values[1], values[2]});
    EXPECT_EQ(live(), 0);
}

TEST(CFArrayDeathTest, OutOfRangeIndicesAndRangesStop) {
    CFMutableArrayRef mutableArray = makeArray({raw(1), raw(2), raw(3)}, nullptr);
    CFArrayRef array = CFArrayCreateCopy(nullptr, mutableArray);
    const void *out[4] = {};
    EXPECT_DEATH(CFArrayGetValueAtIndex(array, 3), "CFArrayGetValueAtIndex.*index 3 is out of bounds \\(count 3\\)");
    EXPECT_DEATH(CFArrayGetValueAtIndex(array, -1), "CFArrayGetValueAtIndex.*index -1 is out of bounds");
    EXPECT_DEATH(CFArrayGetValues(array, CFRangeMake(1, 3), out), "CFArrayGetValues.*range .1, 3. is outside");
    EXPECT_DEATH(CFArrayGetValues(array, CFRangeMake(-1, 1), out), "CFArrayGetValues.*outside the array");
    EXPECT_DEATH(CFArrayGetCountOfValue(array, CFRangeMake(0, 4), raw(1)), "CFArrayGetCountOfValue.*outside");
    EXPECT_DEATH(CFArrayInsertValueAtIndex(mutableArray, 4, raw(9)), "CFArrayInsertValueAtIndex.*index 4");
    EXPECT_DEATH(CFArraySetValueAtIndex(mutableArray, 4, raw(9)), "CFArraySetValueAtIndex.*index 4");
    EXPECT_DEATH(CFArrayRemoveValueAtIndex(mutableArray, 3), "CFArrayRemoveValueAtIndex.*index 3");
    EXPECT_DEATH(CFArrayReplaceValues(mutableArray, CFRangeMake(2, 2), out, 1), "CFArrayReplaceValues.*outside");
    EXPECT_DEATH(CFArrayExchangeValuesAtIndices(mutableArray, 0, 3), "CFArrayExchangeValuesAtIndices.*index 3");
    EXPECT_DEATH(CFArrayAppendArray(mutableArray, array, CFRangeMake(3, 1)), "CFArrayAppendArray.*outside");
    // Misuse.
    EXPECT_DEATH(CFArrayGetCount(nullptr), "CFArrayGetCount.*NULL");
    EXPECT_DEATH(CFArrayGetCount(reinterpret_cast<CFArrayRef>(CFSTR("x"))), "CFArrayGetCount.*not a CFArray");
    EXPECT_DEATH(CFArrayCreate(nullptr, nullptr, 2, nullptr), "CFArrayCreate.*values must not be NULL");
    auto *immutable = const_cast<CFMutableArrayRef>(array);
    EXPECT_DEATH(CFArrayAppendValue(immutable, raw(2)), "CFArrayAppendValue.*immutable");
    EXPECT_DEATH(CFArraySortValues(immutable, CFRangeMake(0, 1), compareKeys, nullptr), "CFArraySortValues.*immutable");
    EXPECT_DEATH(CFArrayCreateMutable(nullptr, -1, nullptr), "CFArrayCreateMutable.*negative");
    release({mutableArray, array});
}

TEST(CFArrayDeathTest, CapacityAndFailedGrowthStop) {
    CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 2, nullptr);
    CFArrayAppendValue(array, raw(1));
    CFArrayAppendValue(array, raw(2));
    CFArraySetValueAtIndex(array, 1, raw(3));  // replacing stays within the limit
    const void *one[] = {raw(4)};
    CFArrayReplaceValues(array, CFRangeMake(0, 1), one, 1);
    EXPECT_EQ(contents(array), (std::vector<const void *>{raw(4), raw(3)}));
    EXPECT_DEATH(CFArrayAppendValue(array, raw(5)), "CFArrayAppendValue.*capacity is 2");
    EXPECT_DEATH(CFArrayInsertValueAtIndex(array, 0, raw(5)), "CFArrayInsertValueAtIndex.*capacity is 2");
    EXPECT_DEATH(CFArrayCreateMutableCopy(nullptr, 1, array), "CFArrayCreateMutableCopy.*capacity \\(1\\) is less");
    EXPECT_DEATH(CFArrayAppendValue(CFArrayCreateMutableCopy(nullptr, 2, array), raw(5)), "capacity is 2");
    CFRelease(array);

    sorvel_test::TestAllocator allocator;
    CFMutableArrayRef growing = CFArrayCreateMutable(allocator.get(), 0, nullptr);
    ASSERT_NE(growing, nullptr);
    allocator.failAlways();
    EXPECT_DEATH(CFArrayAppendValue(growing, raw(1)), "CFArrayAppendValue.*out of memory");
    allocator.failAfter(-1);
    CFRelease(growing);
}

}  // namespace
