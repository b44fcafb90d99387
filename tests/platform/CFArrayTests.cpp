// CFArray: ownership of values through every mutation, raw-pointer and
// partial callback records, equality and ordering, the insert/delete/replace
// primitive against a std::vector model, stable sorting and binary search,
// copies, descriptions, allocation failure and the fatal stops.

#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "support/TestAllocator.h"

namespace {

// A value class that counts its live instances, so leaks and double releases
// show up as a wrong count (and as ASan reports in the sanitizer build).
struct Tracked {
    CFRuntimeBase base;
    long value;
};
long gLiveTracked = 0;
void trackedFinalize(CFTypeRef) { gLiveTracked--; }
Boolean trackedEqual(CFTypeRef a, CFTypeRef b) {
    return static_cast<const Tracked *>(a)->value == static_cast<const Tracked *>(b)->value;
}
CFHashCode trackedHash(CFTypeRef cf) { return static_cast<CFHashCode>(static_cast<const Tracked *>(cf)->value); }
const CFRuntimeClass kTrackedClass = {0,           "ArrayTestTracked", nullptr, nullptr, trackedFinalize,
                                      trackedEqual, trackedHash,        nullptr, nullptr};
CFTypeID trackedTypeID() {
    static CFTypeID typeID = _CFRuntimeRegisterClass(&kTrackedClass);
    return typeID;
}
CFTypeRef makeTracked(long value) {
    auto *tracked = static_cast<Tracked *>(const_cast<void *>(
        _CFRuntimeCreateInstance(nullptr, trackedTypeID(), sizeof(Tracked) - sizeof(CFRuntimeBase), nullptr)));
    tracked->value = value;
    gLiveTracked++;
    return tracked;
}
long valueOf(const void *tracked) { return static_cast<const Tracked *>(tracked)->value; }

std::string text(CFStringRef string) {
    if (!string) return "<null>";
    char buffer[4096];
    if (!CFStringGetCString(string, buffer, sizeof buffer, kCFStringEncodingUTF8)) return "<unconvertible>";
    return buffer;
}
std::string describe(CFTypeRef cf) {
    CFStringRef description = CFCopyDescription(cf);
    std::string result = text(description);
    if (description) CFRelease(description);
    return result;
}

const void *raw(uintptr_t n) { return reinterpret_cast<const void *>(n); }

std::vector<const void *> contents(CFArrayRef array) {
    std::vector<const void *> values(static_cast<size_t>(CFArrayGetCount(array)));
    CFArrayGetValues(array, CFRangeMake(0, CFArrayGetCount(array)), values.data());
    return values;
}

TEST(CFArray, ValuesAreRetainedWhileHeldAndReleasedWhenRemoved) {
    CFTypeRef a = makeTracked(1), b = makeTracked(2), c = makeTracked(3);
    CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
    CFArrayAppendValue(array, a);
    CFArrayAppendValue(array, a);
    EXPECT_EQ(CFGetRetainCount(a), 3);
    CFArrayInsertValueAtIndex(array, 0, b);
    EXPECT_EQ(CFGetRetainCount(b), 2);
    CFArraySetValueAtIndex(array, 1, c);  // replaces one reference to a
    EXPECT_EQ(CFGetRetainCount(a), 2);
    EXPECT_EQ(CFGetRetainCount(c), 2);
    const void *two[] = {b, b};
    CFArrayReplaceValues(array, CFRangeMake(1, 2), two, 2);  // c and a out, b twice in
    EXPECT_EQ(CFGetRetainCount(a), 1);
    EXPECT_EQ(CFGetRetainCount(c), 1);
    EXPECT_EQ(CFGetRetainCount(b), 4);
    CFArrayRemoveValueAtIndex(array, 0);
    EXPECT_EQ(CFGetRetainCount(b), 3);
    CFArrayAppendValue(array, c);
    CFArrayRemoveAllValues(array);
    EXPECT_EQ(CFArrayGetCount(array), 0);
    EXPECT_EQ(CFGetRetainCount(b), 1);
    EXPECT_EQ(CFGetRetainCount(c), 1);
    CFArrayAppendValue(array, a);
    CFRelease(array);
    EXPECT_EQ(CFGetRetainCount(a), 1);
    CFRelease(a);
    CFRelease(b);
    CFRelease(c);
    EXPECT_EQ(gLiveTracked, 0);
}

TEST(CFArray, SettingTheSoleReferenceOverItselfKeepsItAlive) {
    CFTypeRef only = makeTracked(7);
    CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
    CFArrayAppendValue(array, only);
    CFRelease(only);  // the array now holds the only reference
    CFArraySetValueAtIndex(array, 0, only);
    const void *same[] = {only};
    CFArrayReplaceValues(array, CFRangeMake(0, 1), same, 1);
    EXPECT_EQ(gLiveTracked, 1);
    EXPECT_EQ(valueOf(CFArrayGetValueAtIndex(array, 0)), 7);
    EXPECT_EQ(CFGetRetainCount(only), 1);
    CFRelease(array);
    EXPECT_EQ(gLiveTracked, 0);
}

TEST(CFArray, ImmutableArraysAndCopiesOwnTheirValues) {
    CFTypeRef values[] = {makeTracked(1), makeTracked(2)};
    CFArrayRef array = CFArrayCreate(nullptr, values, 2, &kCFTypeArrayCallBacks);
    CFMutableArrayRef mutableCopy = CFArrayCreateMutableCopy(nullptr, 0, array);
    CFArrayRef copyOfMutable = CFArrayCreateCopy(nullptr, mutableCopy);
    EXPECT_EQ(CFGetRetainCount(values[0]), 4);
    // An immutable array's copy may be the array itself.
    CFArrayRef copyOfImmutable = CFArrayCreateCopy(nullptr, array);
    EXPECT_EQ(copyOfImmutable, array);
    EXPECT_NE(copyOfMutable, static_cast<CFArrayRef>(mutableCopy));
    CFArrayRemoveAllValues(mutableCopy);
    EXPECT_EQ(CFArrayGetCount(array), 2);
    EXPECT_EQ(CFArrayGetCount(copyOfMutable), 2);
    EXPECT_EQ(CFGetRetainCount(values[1]), 3);
    for (CFTypeRef cf : {static_cast<CFTypeRef>(array), static_cast<CFTypeRef>(mutableCopy),
                         static_cast<CFTypeRef>(copyOfMutable), static_cast<CFTypeRef>(copyOfImmutable)})
        CFRelease(cf);
    EXPECT_EQ(CFGetRetainCount(values[0]), 1);
    CFRelease(values[0]);
    CFRelease(values[1]);
    EXPECT_EQ(gLiveTracked, 0);
}

TEST(CFArray, NullCallbacksStoreRawPointers) {
    const void *values[] = {raw(1), raw(2), raw(1)};
    CFArrayRef array = CFArrayCreate(nullptr, values, 3, nullptr);
    EXPECT_EQ(CFArrayGetValueAtIndex(array, 1), raw(2));
    EXPECT_EQ(CFArrayGetCountOfValue(array, CFRangeMake(0, 3), raw(1)), 2);
    EXPECT_EQ(CFArrayGetLastIndexOfValue(array, CFRangeMake(0, 3), raw(1)), 2);
    EXPECT_FALSE(CFArrayContainsValue(array, CFRangeMake(0, 3), raw(3)));
    std::string description = describe(array);
    EXPECT_NE(description.find("0 : <0x1>"), std::string::npos) << description;
    EXPECT_NE(description.find("1 : <0x2>"), std::string::npos) << description;
    CFMutableArrayRef copy = CFArrayCreateMutableCopy(nullptr, 0, array);
    CFArrayAppendValue(copy, nullptr);  // raw arrays may hold NULL
    EXPECT_EQ(CFArrayGetCount(copy), 4);
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(copy, CFRangeMake(0, 4), nullptr), 3);
    CFRelease(copy);
    CFRelease(array);
}

// Raw values compared modulo 10 through an equal callback; no retain or release.
Boolean equalModTen(const void *a, const void *b) {
    return reinterpret_cast<uintptr_t>(a) % 10 == reinterpret_cast<uintptr_t>(b) % 10;
}
// A retain that stores a different pointer (value + 1000), and a release that
// records what it is handed.
std::vector<const void *> gReleased;
const void *retainPlusThousand(CFAllocatorRef, const void *value) {
    return raw(reinterpret_cast<uintptr_t>(value) + 1000);
}
void recordRelease(CFAllocatorRef, const void *value) { gReleased.push_back(value); }

TEST(CFArray, PartiallyNullRecordsUseEachGivenCallbackOnly) {
    CFArrayCallBacks equalOnly = {0, nullptr, nullptr, nullptr, equalModTen};
    const void *values[] = {raw(11), raw(22)};
    CFArrayRef array = CFArrayCreate(nullptr, values, 2, &equalOnly);
    EXPECT_EQ(CFArrayGetValueAtIndex(array, 0), raw(11));  // no retain: stored as given
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(array, CFRangeMake(0, 2), raw(32)), 1);
    CFArrayRef same = CFArrayCreate(nullptr, values, 2, nullptr);
    const void *shifted[] = {raw(21), raw(12)};
    CFArrayRef modEqual = CFArrayCreate(nullptr, shifted, 2, nullptr);
    EXPECT_TRUE(CFEqual(array, modEqual));  // the first array's equal callback decides
    EXPECT_FALSE(CFEqual(same, modEqual));  // by address
    CFRelease(array);
    CFRelease(same);
    CFRelease(modEqual);

    gReleased.clear();
    CFArrayCallBacks retaining = {0, retainPlusThousand, recordRelease, nullptr, nullptr};
    {
        // The record may go away once the array exists: it is copied.
        CFArrayCallBacks *temporary = new CFArrayCallBacks(retaining);
        CFMutableArrayRef stored = CFArrayCreateMutable(nullptr, 0, temporary);
        delete temporary;
        CFArrayAppendValue(stored, raw(5));
        EXPECT_EQ(CFArrayGetValueAtIndex(stored, 0), raw(1005));
        CFArraySetValueAtIndex(stored, 0, raw(6));
        ASSERT_EQ(gReleased.size(), 1u);
        EXPECT_EQ(gReleased[0], raw(1005));
        CFRelease(stored);
        ASSERT_EQ(gReleased.size(), 2u);
        EXPECT_EQ(gReleased[1], raw(1006));
    }
}

TEST(CFArray, EqualityIsPairwiseAndOrdered) {
    CFStringRef dynamicAlpha = CFStringCreateWithCString(nullptr, "alpha", kCFStringEncodingUTF8);
    const void *ab[] = {CFSTR("alpha"), CFSTR("beta")};
    const void *ab2[] = {dynamicAlpha, CFSTR("beta")};
    const void *ba[] = {CFSTR("beta"), CFSTR("alpha")};
    const void *abc[] = {CFSTR("alpha"), CFSTR("beta"), CFSTR("gamma")};
    struct Case {
        const char *name;
        const void **left;
        CFIndex leftCount;
        const void **right;
        CFIndex rightCount;
        bool equal;
    } cases[] = {
        {"same values", ab, 2, ab, 2, true},
        {"created string equals constant", ab, 2, ab2, 2, true},
        {"order matters", ab, 2, ba, 2, false},
        {"prefix is not equal", ab, 2, abc, 3, false},
        {"both empty", ab, 0, ba, 0, true},
        {"empty vs non-empty", ab, 0, ab, 1, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        CFArrayRef left = CFArrayCreate(nullptr, c.left, c.leftCount, &kCFTypeArrayCallBacks);
        CFMutableArrayRef right = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
        for (CFIndex i = 0; i < c.rightCount; i++) CFArrayAppendValue(right, c.right[i]);
        EXPECT_EQ(CFEqual(left, right), c.equal);
        EXPECT_EQ(CFEqual(right, left), c.equal);
        if (c.equal) EXPECT_EQ(CFHash(left), CFHash(right));
        CFRelease(left);
        CFRelease(right);
    }
    CFRelease(dynamicAlpha);
}

TEST(CFArray, ReplaceValuesInsertsDeletesAndReplacesInOneCall) {
    struct Case {
        CFIndex initial;  // the array holds 1...initial
        CFRange range;
        std::vector<uintptr_t> newValues;
        std::vector<uintptr_t> expected;
    } cases[] = {
        {0, {0, 0}, {100}, {100}},
        {3, {0, 0}, {100, 101}, {100, 101, 1, 2, 3}},
        {3, {3, 0}, {100}, {1, 2, 3, 100}},
        {3, {1, 0}, {100}, {1, 100, 2, 3}},
        {3, {1, 1}, {}, {1, 3}},
        {3, {0, 3}, {}, {}},
        {3, {1, 1}, {100, 101, 102}, {1, 100, 101, 102, 3}},
        {5, {1, 3}, {100}, {1, 100, 5}},
        {5, {0, 5}, {100, 101, 102, 103, 104}, {100, 101, 102, 103, 104}},
        {40, {2, 30}, {100}, {1, 2, 100, 33, 34, 35, 36, 37, 38, 39, 40}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "initial " << c.initial << " range {" << c.range.location << ", "
                                        << c.range.length << "} new " << c.newValues.size());
        CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, nullptr);
        for (CFIndex i = 1; i <= c.initial; i++) CFArrayAppendValue(array, raw(static_cast<uintptr_t>(i)));
        std::vector<const void *> newValues;
        for (uintptr_t v : c.newValues) newValues.push_back(raw(v));
        CFArrayReplaceValues(array, c.range, newValues.data(), static_cast<CFIndex>(newValues.size()));
        std::vector<const void *> expected;
        for (uintptr_t v : c.expected) expected.push_back(raw(v));
        EXPECT_EQ(contents(array), expected);
        CFRelease(array);
    }
}

// Random insertions, removals and replacements at both ends and in the
// middle, checked against std::vector after every step; the values are
// counted objects, so retains and releases must balance too.
TEST(CFArray, RandomEditsMatchAVectorModel) {
    std::mt19937 random(12345);
    CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
    std::vector<long> model;
    long next = 0;
    for (int step = 0; step < 6000; step++) {
        const CFIndex count = static_cast<CFIndex>(model.size());
        const int op = static_cast<int>(random() % 6);
        if (op <= 1 || count == 0) {  // insert, biased towards the ends
            CFIndex at = op == 0 ? 0 : static_cast<CFIndex>(random() % (count + 1));
            if (random() % 3 == 0) at = count;
            CFTypeRef value = makeTracked(next);
            CFArrayInsertValueAtIndex(array, at, value);
            CFRelease(value);
            model.insert(model.begin() + at, next++);
        } else if (op == 2) {
            const CFIndex at = random() % 2 ? 0 : static_cast<CFIndex>(random() % count);
            CFArrayRemoveValueAtIndex(array, at);
            model.erase(model.begin() + at);
        } else if (op == 3) {
            const CFIndex at = static_cast<CFIndex>(random() % count);
            CFIndex length = static_cast<CFIndex>(random() % 4);
            if (length > count - at) length = count - at;
            std::vector<const void *> values;
            std::vector<long> modelValues;
            for (unsigned n = random() % 5; n > 0; n--) {
                values.push_back(makeTracked(next));
                modelValues.push_back(next++);
            }
            CFArrayReplaceValues(array, CFRangeMake(at, length), values.data(), static_cast<CFIndex>(values.size()));
            for (const void *v : values) CFRelease(v);
            model.erase(model.begin() + at, model.begin() + at + length);
            model.insert(model.begin() + at, modelValues.begin(), modelValues.end());
        } else if (op == 4) {
            const CFIndex i = static_cast<CFIndex>(random() % count), j = static_cast<CFIndex>(random() % count);
            CFArrayExchangeValuesAtIndices(array, i, j);
            std::swap(model[static_cast<size_t>(i)], model[static_cast<size_t>(j)]);
        } else {
            CFTypeRef value = makeTracked(next);
            CFArrayAppendValue(array, value);
            CFRelease(value);
            model.push_back(next++);
        }
        ASSERT_EQ(CFArrayGetCount(array), static_cast<CFIndex>(model.size())) << "step " << step;
        if (step % 50 == 0 || model.size() < 8) {
            for (size_t i = 0; i < model.size(); i++)
                ASSERT_EQ(valueOf(CFArrayGetValueAtIndex(array, static_cast<CFIndex>(i))), model[i])
                    << "step " << step << " index " << i;
        }
        ASSERT_EQ(gLiveTracked, static_cast<long>(model.size())) << "step " << step;
    }
    CFRelease(array);
    EXPECT_EQ(gLiveTracked, 0);
}

TEST(CFArray, AppendingAnArrayToItselfDoublesIt) {
    CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
    for (long i = 0; i < 20; i++) {
        CFTypeRef value = makeTracked(i);
        CFArrayAppendValue(array, value);
        CFRelease(value);
    }
    CFArrayAppendArray(array, array, CFRangeMake(0, 20));
    CFArrayAppendArray(array, array, CFRangeMake(5, 2));
    ASSERT_EQ(CFArrayGetCount(array), 42);
    for (CFIndex i = 0; i < 40; i++) EXPECT_EQ(valueOf(CFArrayGetValueAtIndex(array, i)), i % 20);
    EXPECT_EQ(valueOf(CFArrayGetValueAtIndex(array, 40)), 5);
    EXPECT_EQ(valueOf(CFArrayGetValueAtIndex(array, 41)), 6);
    EXPECT_EQ(CFGetRetainCount(CFArrayGetValueAtIndex(array, 5)), 3);
    CFRelease(array);
    EXPECT_EQ(gLiveTracked, 0);
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
    int calls = 0;
    CFArraySortValues(array, CFRangeMake(10, 280), compareKeys, &calls);
    EXPECT_GT(calls, 0);
    for (CFIndex i = 0; i < 10; i++) EXPECT_EQ(CFArrayGetValueAtIndex(array, i), &items[static_cast<size_t>(i)]);
    for (CFIndex i = 290; i < 300; i++) EXPECT_EQ(CFArrayGetValueAtIndex(array, i), &items[static_cast<size_t>(i)]);
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
    const void *values[] = {&items[0], &items[1], &items[2], &items[3]};
    CFArrayRef array = CFArrayCreate(nullptr, values, 4, nullptr);
    struct Case {
        int key;
        CFRange range;
        CFIndex expected;
    } cases[] = {
        {5, {0, 4}, 0},  {10, {0, 4}, 0}, {15, {0, 4}, 1}, {20, {0, 4}, 1}, {25, {0, 4}, 3},
        {30, {0, 4}, 3}, {35, {0, 4}, 4}, {5, {1, 2}, 1},  {35, {1, 2}, 3}, {20, {2, 0}, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "key " << c.key << " range {" << c.range.location << ", " << c.range.length
                                        << "}");
        Keyed probe = {c.key, -1};
        int calls = 0;
        EXPECT_EQ(CFArrayBSearchValues(array, c.range, &probe, compareKeys, &calls), c.expected);
    }
    CFRelease(array);
}

TEST(CFArray, SearchesHonourTheirRange) {
    const void *values[] = {raw(1), raw(2), raw(1), raw(3), raw(1)};
    CFArrayRef array = CFArrayCreate(nullptr, values, 5, nullptr);
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(array, CFRangeMake(1, 4), raw(1)), 2);
    EXPECT_EQ(CFArrayGetLastIndexOfValue(array, CFRangeMake(0, 4), raw(1)), 2);
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(array, CFRangeMake(3, 1), raw(1)), kCFNotFound);
    EXPECT_EQ(CFArrayGetLastIndexOfValue(array, CFRangeMake(5, 0), raw(1)), kCFNotFound);
    EXPECT_EQ(CFArrayGetCountOfValue(array, CFRangeMake(1, 3), raw(1)), 1);
    EXPECT_FALSE(CFArrayContainsValue(array, CFRangeMake(0, 0), raw(1)));
    std::vector<const void *> applied;
    CFArrayApplyFunction(
        array, CFRangeMake(1, 3),
        [](const void *value, void *context) { static_cast<std::vector<const void *> *>(context)->push_back(value); },
        &applied);
    EXPECT_EQ(applied, (std::vector<const void *>{raw(2), raw(1), raw(3)}));
    CFRelease(array);
}

TEST(CFArray, DescriptionListsEachValuesText) {
    const void *values[] = {CFSTR("alpha"), CFSTR("beta")};
    CFArrayRef array = CFArrayCreate(nullptr, values, 2, &kCFTypeArrayCallBacks);
    std::string description = describe(array);
    EXPECT_EQ(description.rfind("<CFArray ", 0), 0u) << description;
    EXPECT_NE(description.find("{type = immutable, count = 2, values = (\n"), std::string::npos) << description;
    EXPECT_NE(description.find("\t0 : alpha\n"), std::string::npos) << description;
    EXPECT_NE(description.find("\t1 : beta\n"), std::string::npos) << description;
    EXPECT_EQ(description.substr(description.size() - 2), ")}");
    CFMutableArrayRef mutableArray = CFArrayCreateMutableCopy(nullptr, 0, array);
    description = describe(mutableArray);
    EXPECT_NE(description.find("type = mutable-small, count = 2"), std::string::npos) << description;
    // "%@" formats through the same description.
    CFStringRef formatted = CFStringCreateWithFormat(nullptr, nullptr, CFSTR("[%@]"), mutableArray);
    EXPECT_NE(text(formatted).find("1 : beta"), std::string::npos) << text(formatted);
    CFRelease(formatted);
    CFRelease(mutableArray);
    CFRelease(array);
}

TEST(CFArray, AllocationFailureAtCreationLeaksNothing) {
    CFTypeRef values[] = {makeTracked(1), makeTracked(2), makeTracked(3)};
    CFMutableArrayRef source = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
    for (CFTypeRef v : values) CFArrayAppendValue(source, v);
    enum { kCreate, kCopy, kMutableCopy };
    for (int kind : {kCreate, kCopy, kMutableCopy}) {
        SCOPED_TRACE(kind);
        bool succeeded = false;
        long failures = 0;
        for (long failAfter = 0; failAfter < 10 && !succeeded; failAfter++) {
            sorvel_test::TestAllocator allocator;
            allocator.failAfter(failAfter);
            CFArrayRef array = kind == kCreate ? CFArrayCreate(allocator.get(), values, 3, &kCFTypeArrayCallBacks)
                               : kind == kCopy ? CFArrayCreateCopy(allocator.get(), source)
                                               : CFArrayCreateMutableCopy(allocator.get(), 0, source);
            if (array) {
                succeeded = true;
                EXPECT_EQ(CFArrayGetCount(array), 3);
                EXPECT_EQ(CFGetRetainCount(values[0]), 3);
                CFRelease(array);
            } else {
                failures++;
            }
            EXPECT_EQ(CFGetRetainCount(values[0]), 2) << "fail after " << failAfter;
            EXPECT_EQ(allocator.outstanding(), 0) << "fail after " << failAfter;
        }
        EXPECT_TRUE(succeeded);
        EXPECT_EQ(failures, 2);  // the instance, then its storage
    }
    CFRelease(source);
    for (CFTypeRef v : values) CFRelease(v);
    EXPECT_EQ(gLiveTracked, 0);
}

TEST(CFArrayDeathTest, OutOfRangeIndicesAndRangesStop) {
    const void *values[] = {raw(1), raw(2), raw(3)};
    CFArrayRef array = CFArrayCreate(nullptr, values, 3, nullptr);
    CFMutableArrayRef mutableArray = CFArrayCreateMutableCopy(nullptr, 0, array);
    const void *out[4];
    EXPECT_DEATH(CFArrayGetValueAtIndex(array, 3), "CFArrayGetValueAtIndex.*index 3 is out of bounds \\(count 3\\)");
    EXPECT_DEATH(CFArrayGetValueAtIndex(array, -1), "CFArrayGetValueAtIndex.*index -1 is out of bounds");
    EXPECT_DEATH(CFArrayGetValues(array, CFRangeMake(1, 3), out), "CFArrayGetValues.*range .1, 3. is outside");
    EXPECT_DEATH(CFArrayGetValues(array, CFRangeMake(-1, 1), out), "CFArrayGetValues.*outside the array");
    EXPECT_DEATH(CFArrayGetCountOfValue(array, CFRangeMake(0, 4), raw(1)), "CFArrayGetCountOfValue.*outside");
    EXPECT_DEATH(CFArrayInsertValueAtIndex(mutableArray, 4, raw(9)), "CFArrayInsertValueAtIndex.*index 4");
    EXPECT_DEATH(CFArraySetValueAtIndex(mutableArray, 4, raw(9)), "CFArraySetValueAtIndex.*index 4");
    EXPECT_DEATH(CFArrayRemoveValueAtIndex(mutableArray, 3), "CFArrayRemoveValueAtIndex.*index 3");
    EXPECT_DEATH(CFArrayReplaceValues(mutableArray, CFRangeMake(2, 2), values, 1), "CFArrayReplaceValues.*outside");
    EXPECT_DEATH(CFArrayExchangeValuesAtIndices(mutableArray, 0, 3), "CFArrayExchangeValuesAtIndices.*index 3");
    EXPECT_DEATH(CFArrayAppendArray(mutableArray, array, CFRangeMake(3, 1)), "CFArrayAppendArray.*outside");
    CFRelease(mutableArray);
    CFRelease(array);
}

TEST(CFArrayDeathTest, MisuseStops) {
    const void *values[] = {raw(1)};
    CFArrayRef array = CFArrayCreate(nullptr, values, 1, nullptr);
    EXPECT_DEATH(CFArrayGetCount(nullptr), "CFArrayGetCount.*NULL");
    EXPECT_DEATH(CFArrayGetCount(reinterpret_cast<CFArrayRef>(CFSTR("x"))), "CFArrayGetCount.*not a CFArray");
    EXPECT_DEATH(CFArrayCreate(nullptr, nullptr, 2, nullptr), "CFArrayCreate.*values must not be NULL");
    EXPECT_DEATH(CFArrayAppendValue(const_cast<CFMutableArrayRef>(array), raw(2)),
                 "CFArrayAppendValue.*immutable");
    EXPECT_DEATH(CFArraySortValues(const_cast<CFMutableArrayRef>(array), CFRangeMake(0, 1), compareKeys, nullptr),
                 "CFArraySortValues.*immutable");
    EXPECT_DEATH(CFArrayCreateMutable(nullptr, -1, nullptr), "CFArrayCreateMutable.*negative");
    CFRelease(array);
}

TEST(CFArrayDeathTest, CapacityIsAHardLimit) {
    CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 2, nullptr);
    CFArrayAppendValue(array, raw(1));
    CFArrayAppendValue(array, raw(2));
    CFArraySetValueAtIndex(array, 1, raw(3));  // replacing stays within the limit
    const void *one[] = {raw(4)};
    CFArrayReplaceValues(array, CFRangeMake(0, 1), one, 1);
    EXPECT_EQ(CFArrayGetCount(array), 2);
    EXPECT_DEATH(CFArrayAppendValue(array, raw(5)), "CFArrayAppendValue.*capacity is 2");
    EXPECT_DEATH(CFArrayInsertValueAtIndex(array, 0, raw(5)), "CFArrayInsertValueAtIndex.*capacity is 2");
    EXPECT_DEATH(CFArrayCreateMutableCopy(nullptr, 1, array), "CFArrayCreateMutableCopy.*capacity \\(1\\) is less");
    CFRelease(array);
}

TEST(CFArrayDeathTest, GrowthThatCannotAllocateStops) {
    sorvel_test::TestAllocator allocator;
    CFMutableArrayRef array = CFArrayCreateMutable(allocator.get(), 0, nullptr);
    ASSERT_NE(array, nullptr);
    allocator.failAlways();
    EXPECT_DEATH(CFArrayAppendValue(array, raw(1)), "CFArrayAppendValue.*out of memory");
    allocator.failAfter(-1);
    CFRelease(array);
}

}  // namespace
