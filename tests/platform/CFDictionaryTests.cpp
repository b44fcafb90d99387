// CFDictionary: ownership of keys and values through add/set/replace/remove,
// raw-pointer and partial callback records, string-copying keys, constant vs
// created string keys, deep equality, growth with removals against a model,
// descriptions, allocation failure and the fatal stops.

#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "support/TestAllocator.h"

namespace {

// Keys and values that count their live instances; equal and hashed by value.
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
const CFRuntimeClass kTrackedClass = {0,           "DictionaryTestTracked", nullptr, nullptr, trackedFinalize,
                                      trackedEqual, trackedHash,             nullptr, nullptr};
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
CFStringRef makeString(const char *cString) {
    return CFStringCreateWithCString(nullptr, cString, kCFStringEncodingUTF8);
}

const void *raw(uintptr_t n) { return reinterpret_cast<const void *>(n); }

CFMutableDictionaryRef makeTypeDictionary() {
    return CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
}

TEST(CFDictionary, AddSetReplaceRemoveBalanceRetains) {
    CFTypeRef key = makeTracked(1), equalKey = makeTracked(1), v1 = makeTracked(10), v2 = makeTracked(20);
    CFMutableDictionaryRef dict = makeTypeDictionary();

    CFDictionaryReplaceValue(dict, key, v1);  // absent: nothing happens
    EXPECT_EQ(CFDictionaryGetCount(dict), 0);
    EXPECT_EQ(CFGetRetainCount(v1), 1);

    CFDictionaryAddValue(dict, key, v1);
    EXPECT_EQ(CFGetRetainCount(key), 2);
    EXPECT_EQ(CFGetRetainCount(v1), 2);

    CFDictionaryAddValue(dict, equalKey, v2);  // present: Add does nothing
    EXPECT_EQ(CFDictionaryGetValue(dict, key), v1);
    EXPECT_EQ(CFGetRetainCount(equalKey), 1);
    EXPECT_EQ(CFGetRetainCount(v2), 1);

    CFDictionarySetValue(dict, equalKey, v2);  // replaces the value, keeps the stored key
    EXPECT_EQ(CFDictionaryGetValue(dict, key), v2);
    EXPECT_EQ(CFGetRetainCount(v1), 1);
    EXPECT_EQ(CFGetRetainCount(v2), 2);
    EXPECT_EQ(CFGetRetainCount(equalKey), 1);
    const void *storedKey = nullptr;
    CFDictionaryGetKeysAndValues(dict, &storedKey, nullptr);
    EXPECT_EQ(storedKey, key);

    CFDictionaryReplaceValue(dict, equalKey, v1);
    EXPECT_EQ(CFDictionaryGetValue(dict, key), v1);
    EXPECT_EQ(CFGetRetainCount(v1), 2);
    EXPECT_EQ(CFGetRetainCount(v2), 1);

    CFDictionaryRemoveValue(dict, equalKey);
    EXPECT_EQ(CFDictionaryGetCount(dict), 0);
    EXPECT_EQ(CFGetRetainCount(key), 1);
    EXPECT_EQ(CFGetRetainCount(v1), 1);
    CFDictionaryRemoveValue(dict, key);  // absent: nothing happens

    CFDictionarySetValue(dict, key, v1);
    CFDictionarySetValue(dict, v2, v2);
    CFDictionaryRemoveAllValues(dict);
    EXPECT_EQ(CFGetRetainCount(v2), 1);
    CFDictionarySetValue(dict, key, v1);
    CFRelease(dict);
    for (CFTypeRef cf : {key, equalKey, v1, v2}) {
        EXPECT_EQ(CFGetRetainCount(cf), 1);
        CFRelease(cf);
    }
    EXPECT_EQ(gLiveTracked, 0);
}

TEST(CFDictionary, SettingTheSoleReferenceAgainKeepsItAlive) {
    CFMutableDictionaryRef dict = makeTypeDictionary();
    CFTypeRef value = makeTracked(5);
    CFDictionarySetValue(dict, CFSTR("k"), value);
    CFRelease(value);  // the dictionary holds the only reference
    CFDictionarySetValue(dict, CFSTR("k"), value);
    CFDictionaryReplaceValue(dict, CFSTR("k"), value);
    EXPECT_EQ(gLiveTracked, 1);
    EXPECT_EQ(CFGetRetainCount(CFDictionaryGetValue(dict, CFSTR("k"))), 1);
    CFRelease(dict);
    EXPECT_EQ(gLiveTracked, 0);
}

TEST(CFDictionary, CreateAndCopiesOwnTheirEntries) {
    CFTypeRef keys[] = {makeTracked(1), makeTracked(2), makeTracked(1)};
    CFTypeRef values[] = {makeTracked(10), makeTracked(20), makeTracked(30)};
    CFDictionaryRef dict =
        CFDictionaryCreate(nullptr, keys, values, 3, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    // Duplicate keys: the first one wins, the later one is not kept.
    EXPECT_EQ(CFDictionaryGetCount(dict), 2);
    EXPECT_EQ(CFDictionaryGetValue(dict, keys[2]), values[0]);
    EXPECT_EQ(CFGetRetainCount(keys[2]), 1);
    EXPECT_EQ(CFGetRetainCount(values[2]), 1);

    EXPECT_EQ(CFDictionaryCreateCopy(nullptr, dict), dict);  // immutable: the same object, retained
    CFRelease(dict);
    CFMutableDictionaryRef mutableCopy = CFDictionaryCreateMutableCopy(nullptr, 0, dict);
    CFDictionaryRef immutableCopy = CFDictionaryCreateCopy(nullptr, mutableCopy);
    EXPECT_NE(immutableCopy, static_cast<CFDictionaryRef>(mutableCopy));
    EXPECT_EQ(CFGetRetainCount(values[0]), 4);
    CFDictionaryRemoveValue(mutableCopy, keys[0]);
    EXPECT_EQ(CFDictionaryGetCount(dict), 2);
    EXPECT_EQ(CFDictionaryGetCount(immutableCopy), 2);
    EXPECT_TRUE(CFEqual(dict, immutableCopy));
    EXPECT_FALSE(CFEqual(dict, mutableCopy));
    CFRelease(mutableCopy);
    CFRelease(immutableCopy);
    CFRelease(dict);
    for (CFTypeRef cf : keys) CFRelease(cf);
    for (CFTypeRef cf : values) CFRelease(cf);
    EXPECT_EQ(gLiveTracked, 0);
}

TEST(CFDictionary, NullCallbacksStoreRawPointers) {
    const void *keys[] = {raw(1), raw(2)};
    const void *values[] = {raw(2), nullptr};
    CFDictionaryRef dict = CFDictionaryCreate(nullptr, keys, values, 2, nullptr, nullptr);
    EXPECT_EQ(CFDictionaryGetValue(dict, raw(1)), raw(2));
    const void *value = raw(99);
    EXPECT_TRUE(CFDictionaryGetValueIfPresent(dict, raw(2), &value));
    EXPECT_EQ(value, nullptr);  // NULL is a storable value
    EXPECT_FALSE(CFDictionaryGetValueIfPresent(dict, raw(3), &value));
    EXPECT_EQ(CFDictionaryGetCountOfValue(dict, raw(2)), 1);
    EXPECT_TRUE(CFDictionaryContainsValue(dict, nullptr));
    EXPECT_FALSE(CFDictionaryContainsKey(dict, nullptr));
    std::string description = describe(dict);
    EXPECT_NE(description.find("<0x1> = <0x2>"), std::string::npos) << description;
    EXPECT_NE(description.find("<0x2> = <"), std::string::npos) << description;
    CFRelease(dict);
}

// Raw keys compared and hashed modulo 10; values raw, described by a callback.
Boolean equalModTen(const void *a, const void *b) {
    return reinterpret_cast<uintptr_t>(a) % 10 == reinterpret_cast<uintptr_t>(b) % 10;
}
CFHashCode hashModTen(const void *value) { return reinterpret_cast<uintptr_t>(value) % 10; }
CFStringRef describeAsNumber(const void *value) {
    return CFStringCreateWithFormat(nullptr, nullptr, CFSTR("#%lu"),
                                    static_cast<unsigned long>(reinterpret_cast<uintptr_t>(value)));
}

TEST(CFDictionary, PartiallyNullRecordsUseEachGivenCallbackOnly) {
    auto *keyCallBacks = new CFDictionaryKeyCallBacks{0, nullptr, nullptr, nullptr, equalModTen, hashModTen};
    auto *valueCallBacks = new CFDictionaryValueCallBacks{0, nullptr, nullptr, describeAsNumber, nullptr};
    CFMutableDictionaryRef dict = CFDictionaryCreateMutable(nullptr, 0, keyCallBacks, valueCallBacks);
    // The records are copied: the caller's may go away.
    delete keyCallBacks;
    delete valueCallBacks;
    CFDictionarySetValue(dict, raw(13), raw(100));
    CFDictionarySetValue(dict, raw(23), raw(200));  // equal key: replaces
    EXPECT_EQ(CFDictionaryGetCount(dict), 1);
    EXPECT_EQ(CFDictionaryGetValue(dict, raw(3)), raw(200));
    EXPECT_EQ(CFDictionaryGetCountOfValue(dict, raw(200)), 1);  // values by address
    std::string description = describe(dict);
    EXPECT_NE(description.find("0 : <0xd> = #200"), std::string::npos) << description;
    CFRelease(dict);
}

TEST(CFDictionary, CopyStringKeysAreCopiedNotRetained) {
    CFMutableStringRef key = CFStringCreateMutable(nullptr, 0);
    CFStringAppendCString(key, "name", kCFStringEncodingUTF8);
    CFMutableDictionaryRef dict = CFDictionaryCreateMutable(nullptr, 0, &kCFCopyStringDictionaryKeyCallBacks,
                                                            &kCFTypeDictionaryValueCallBacks);
    CFDictionarySetValue(dict, key, CFSTR("value"));
    EXPECT_EQ(CFGetRetainCount(key), 1);
    const void *storedKey = nullptr;
    CFDictionaryGetKeysAndValues(dict, &storedKey, nullptr);
    EXPECT_NE(storedKey, static_cast<const void *>(key));
    // Changing the caller's string does not change the key.
    CFStringAppendCString(key, "-changed", kCFStringEncodingUTF8);
    EXPECT_EQ(CFDictionaryGetValue(dict, CFSTR("name")), CFSTR("value"));
    EXPECT_EQ(CFDictionaryGetValue(dict, key), nullptr);
    CFMutableDictionaryRef copy = CFDictionaryCreateMutableCopy(nullptr, 0, dict);
    EXPECT_EQ(CFDictionaryGetValue(copy, CFSTR("name")), CFSTR("value"));
    CFRelease(copy);
    CFRelease(dict);
    CFRelease(key);
}

TEST(CFDictionary, CreatedAndConstantStringKeysFindEachOther) {
    CFStringRef created = makeString("kSVSomeKey");
    CFMutableDictionaryRef byConstant = makeTypeDictionary();
    CFDictionarySetValue(byConstant, CFSTR("kSVSomeKey"), CFSTR("one"));
    EXPECT_EQ(CFDictionaryGetValue(byConstant, created), CFSTR("one"));
    CFMutableDictionaryRef byCreated = makeTypeDictionary();
    CFDictionarySetValue(byCreated, created, CFSTR("two"));
    EXPECT_TRUE(CFDictionaryContainsKey(byCreated, CFSTR("kSVSomeKey")));
    CFDictionarySetValue(byCreated, CFSTR("kSVSomeKey"), CFSTR("three"));
    EXPECT_EQ(CFDictionaryGetCount(byCreated), 1);
    EXPECT_EQ(CFDictionaryGetValue(byCreated, created), CFSTR("three"));
    EXPECT_FALSE(CFDictionaryContainsKey(byCreated, CFSTR("kSVSomeKeY")));
    CFRelease(byConstant);
    CFRelease(byCreated);
    CFRelease(created);
}

// {"outer": {"inner": {"leaf": leaf}, "name": "n"}, "flag": "yes"}, built
// from created strings so that only equality (not identity) can match.
CFDictionaryRef makeNested(const char *leaf, bool extraKey = false) {
    CFStringRef leafKey = makeString("leaf"), leafValue = makeString(leaf);
    const void *k1[] = {leafKey};
    const void *v1[] = {leafValue};
    CFDictionaryRef inner =
        CFDictionaryCreate(nullptr, k1, v1, 1, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    CFMutableDictionaryRef middle = makeTypeDictionary();
    CFDictionarySetValue(middle, CFSTR("inner"), inner);
    CFDictionarySetValue(middle, CFSTR("name"), CFSTR("n"));
    CFMutableDictionaryRef outer = makeTypeDictionary();
    CFDictionarySetValue(outer, CFSTR("outer"), middle);
    CFDictionarySetValue(outer, CFSTR("flag"), CFSTR("yes"));
    if (extraKey) CFDictionarySetValue(outer, CFSTR("extra"), CFSTR("x"));
    CFRelease(inner);
    CFRelease(middle);
    CFRelease(leafKey);
    CFRelease(leafValue);
    return outer;
}

TEST(CFDictionary, EqualityComparesNestedDictionariesDeeply) {
    CFDictionaryRef reference = makeNested("deep");
    struct Case {
        const char *name;
        CFDictionaryRef other;
        bool equal;
    } cases[] = {
        {"same structure and texts", makeNested("deep"), true},
        {"one leaf differs", makeNested("Deep"), false},
        {"an extra key", makeNested("deep", true), false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(CFEqual(reference, c.other), c.equal);
        EXPECT_EQ(CFEqual(c.other, reference), c.equal);
        if (c.equal) EXPECT_EQ(CFHash(reference), CFHash(c.other));
        CFRelease(c.other);
    }
    // Same count, one key different.
    CFMutableDictionaryRef renamed = CFDictionaryCreateMutableCopy(nullptr, 0, reference);
    CFDictionarySetValue(renamed, CFSTR("flags"), CFSTR("yes"));
    CFDictionaryRemoveValue(renamed, CFSTR("flag"));
    EXPECT_FALSE(CFEqual(reference, renamed));
    CFRelease(renamed);
    CFRelease(reference);
}

// Interleaved sets, adds, replaces and removals checked against
// std::unordered_map, with well spread, clustered and constant hashes.
CFHashCode hashLowBits(const void *value) { return reinterpret_cast<uintptr_t>(value) & 3; }
CFHashCode hashConstant(const void *) { return 42; }
Boolean equalAddress(const void *a, const void *b) { return a == b; }

TEST(CFDictionary, GrowthWithRemovalsMatchesAMapModel) {
    struct Case {
        const char *name;
        CFDictionaryHashCallBack hash;
        int steps;
        uintptr_t keyRange;
    } cases[] = {
        {"address hash", nullptr, 40000, 6000},
        {"four distinct hashes", hashLowBits, 4000, 1500},
        {"constant hash", hashConstant, 3000, 500},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        CFDictionaryKeyCallBacks keyCallBacks = {0, nullptr, nullptr, nullptr, equalAddress, c.hash};
        CFMutableDictionaryRef dict = CFDictionaryCreateMutable(nullptr, 0, &keyCallBacks, nullptr);
        std::unordered_map<uintptr_t, uintptr_t> model;
        std::mt19937 random(99);
        for (int step = 0; step < c.steps; step++) {
            const uintptr_t key = 1 + random() % c.keyRange;
            const uintptr_t value = random();
            switch (random() % 8) {
            case 0:
            case 1:
                CFDictionaryRemoveValue(dict, raw(key));
                model.erase(key);
                break;
            case 2:
                CFDictionaryAddValue(dict, raw(key), raw(value));
                model.emplace(key, value);
                break;
            case 3:
                CFDictionaryReplaceValue(dict, raw(key), raw(value));
                if (auto it = model.find(key); it != model.end()) it->second = value;
                break;
            default:
                CFDictionarySetValue(dict, raw(key), raw(value));
                model[key] = value;
                break;
            }
            ASSERT_EQ(CFDictionaryGetCount(dict), static_cast<CFIndex>(model.size())) << "step " << step;
            const uintptr_t probe = 1 + random() % c.keyRange;
            const void *found = nullptr;
            const bool present = CFDictionaryGetValueIfPresent(dict, raw(probe), &found);
            auto it = model.find(probe);
            ASSERT_EQ(present, it != model.end()) << "step " << step << " key " << probe;
            if (present) ASSERT_EQ(found, raw(it->second)) << "step " << step << " key " << probe;
            if (step % 1000 == 0 && step > 0 && c.keyRange > 1000) {
                // Periodically clear part of the table to reach low loads too.
                for (uintptr_t k = 1; k <= c.keyRange / 2; k++) {
                    CFDictionaryRemoveValue(dict, raw(k));
                    model.erase(k);
                }
            }
        }
        std::vector<const void *> keys(model.size()), values(model.size());
        CFDictionaryGetKeysAndValues(dict, keys.data(), values.data());
        std::map<uintptr_t, uintptr_t> listed;
        for (size_t i = 0; i < keys.size(); i++)
            listed[reinterpret_cast<uintptr_t>(keys[i])] = reinterpret_cast<uintptr_t>(values[i]);
        const std::map<uintptr_t, uintptr_t> expected(model.begin(), model.end());
        EXPECT_EQ(listed, expected);
        CFRelease(dict);
    }
}

TEST(CFDictionary, ListingAndApplyingVisitEveryEntryInAStableOrder) {
    CFMutableDictionaryRef dict = CFDictionaryCreateMutable(nullptr, 0, nullptr, nullptr);
    for (uintptr_t k = 1; k <= 100; k++) CFDictionarySetValue(dict, raw(k), raw(k * 10));
    std::vector<const void *> keys(100), keysAgain(100), values(100);
    CFDictionaryGetKeysAndValues(dict, keys.data(), values.data());
    CFDictionaryGetKeysAndValues(dict, keysAgain.data(), nullptr);
    EXPECT_EQ(keys, keysAgain);
    for (size_t i = 0; i < keys.size(); i++)
        EXPECT_EQ(reinterpret_cast<uintptr_t>(values[i]), reinterpret_cast<uintptr_t>(keys[i]) * 10);
    std::vector<std::pair<const void *, const void *>> applied;
    CFDictionaryApplyFunction(
        dict,
        [](const void *key, const void *value, void *context) {
            static_cast<std::vector<std::pair<const void *, const void *>> *>(context)->emplace_back(key, value);
        },
        &applied);
    ASSERT_EQ(applied.size(), 100u);
    for (size_t i = 0; i < applied.size(); i++) EXPECT_EQ(applied[i].first, keys[i]);
    CFRelease(dict);
}

TEST(CFDictionary, DescriptionListsKeysAndValuesText) {
    const void *keys[] = {CFSTR("alpha")};
    const void *values[] = {CFSTR("one")};
    CFDictionaryRef dict =
        CFDictionaryCreate(nullptr, keys, values, 1, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    std::string description = describe(dict);
    EXPECT_EQ(description.rfind("<CFDictionary ", 0), 0u) << description;
    EXPECT_NE(description.find("{type = immutable, count = 1, entries =>\n\t0 : alpha = one\n}"), std::string::npos)
        << description;
    CFMutableDictionaryRef outer = makeTypeDictionary();
    CFDictionarySetValue(outer, CFSTR("nested"), dict);
    description = describe(outer);
    EXPECT_NE(description.find("type = mutable, count = 1"), std::string::npos) << description;
    EXPECT_NE(description.find("alpha = one"), std::string::npos) << description;
    CFRelease(outer);
    CFRelease(dict);
}

TEST(CFDictionary, AllocationFailureAtCreationLeaksNothing) {
    // Mutable string keys under the copying callbacks: each copy allocates
    // from the dictionary's allocator too, so failures hit mid-way.
    const void *keys[3];
    CFTypeRef values[3];
    for (int i = 0; i < 3; i++) {
        CFMutableStringRef key = CFStringCreateMutable(nullptr, 0);
        CFStringAppendCString(key, std::to_string(i * 111).c_str(), kCFStringEncodingUTF8);
        keys[i] = key;
        values[i] = makeTracked(i);
    }
    CFMutableDictionaryRef source = CFDictionaryCreateMutable(nullptr, 0, &kCFCopyStringDictionaryKeyCallBacks,
                                                              &kCFTypeDictionaryValueCallBacks);
    for (int i = 0; i < 3; i++) CFDictionarySetValue(source, keys[i], values[i]);
    enum { kCreate, kCopy, kMutableCopy };
    for (int kind : {kCreate, kCopy, kMutableCopy}) {
        SCOPED_TRACE(kind);
        bool succeeded = false;
        long failures = 0;
        for (long failAfter = 0; failAfter < 20 && !succeeded; failAfter++) {
            sorvel_test::TestAllocator allocator;
            allocator.failAfter(failAfter);
            CFDictionaryRef dict =
                kind == kCreate ? CFDictionaryCreate(allocator.get(), keys, values, 3,
                                                     &kCFCopyStringDictionaryKeyCallBacks,
                                                     &kCFTypeDictionaryValueCallBacks)
                : kind == kCopy ? CFDictionaryCreateCopy(allocator.get(), source)
                                : CFDictionaryCreateMutableCopy(allocator.get(), 0, source);
            if (dict) {
                succeeded = true;
                EXPECT_EQ(CFDictionaryGetCount(dict), 3);
                EXPECT_EQ(CFGetRetainCount(values[0]), 3);
                CFRelease(dict);
            } else {
                failures++;
            }
            EXPECT_EQ(CFGetRetainCount(values[0]), 2) << "fail after " << failAfter;
            EXPECT_EQ(CFGetRetainCount(keys[0]), 1) << "fail after " << failAfter;
            EXPECT_EQ(allocator.outstanding(), 0) << "fail after " << failAfter;
        }
        EXPECT_TRUE(succeeded);
        // Instance and table, and for creation at least one key copy.
        EXPECT_GE(failures, kind == kCreate ? 3 : 2);
    }
    CFRelease(source);
    for (int i = 0; i < 3; i++) {
        CFRelease(keys[i]);
        CFRelease(values[i]);
    }
    EXPECT_EQ(gLiveTracked, 0);
}

// Values copied on the way in: when a value's copy fails, its key, already
// retained, must be given back.
const void *copyStringValue(CFAllocatorRef allocator, const void *value) {
    return CFStringCreateCopy(allocator, static_cast<CFStringRef>(value));
}

TEST(CFDictionary, FailedValueCopyReleasesItsKey) {
    const CFDictionaryValueCallBacks copyingValues = {0, copyStringValue, kCFTypeDictionaryValueCallBacks.release,
                                                      nullptr, CFEqual};
    CFTypeRef keys[] = {makeTracked(1), makeTracked(2)};
    const void *values[2];
    for (int i = 0; i < 2; i++) {
        CFMutableStringRef value = CFStringCreateMutable(nullptr, 0);
        CFStringAppendCString(value, i ? "second" : "first", kCFStringEncodingUTF8);
        values[i] = value;
    }
    bool succeeded = false;
    long failures = 0;
    for (long failAfter = 0; failAfter < 20 && !succeeded; failAfter++) {
        sorvel_test::TestAllocator allocator;
        allocator.failAfter(failAfter);
        CFDictionaryRef dict =
            CFDictionaryCreate(allocator.get(), keys, values, 2, &kCFTypeDictionaryKeyCallBacks, &copyingValues);
        if (dict) {
            succeeded = true;
            EXPECT_TRUE(CFEqual(CFDictionaryGetValue(dict, keys[1]), CFSTR("second")));
            CFRelease(dict);
        } else {
            failures++;
        }
        EXPECT_EQ(CFGetRetainCount(keys[0]), 1) << "fail after " << failAfter;
        EXPECT_EQ(CFGetRetainCount(keys[1]), 1) << "fail after " << failAfter;
        EXPECT_EQ(allocator.outstanding(), 0) << "fail after " << failAfter;
    }
    EXPECT_TRUE(succeeded);
    EXPECT_GE(failures, 4);  // instance, table, each value copy
    for (int i = 0; i < 2; i++) {
        CFRelease(keys[i]);
        CFRelease(values[i]);
    }
    EXPECT_EQ(gLiveTracked, 0);
}

TEST(CFDictionaryDeathTest, MisuseStops) {
    const void *keys[] = {CFSTR("k")};
    CFDictionaryRef dict = CFDictionaryCreate(nullptr, keys, keys, 1, &kCFTypeDictionaryKeyCallBacks,
                                              &kCFTypeDictionaryValueCallBacks);
    EXPECT_DEATH(CFDictionaryGetValue(nullptr, CFSTR("k")), "CFDictionaryGetValue.*NULL");
    EXPECT_DEATH(CFDictionaryGetCount(reinterpret_cast<CFDictionaryRef>(CFSTR("k"))),
                 "CFDictionaryGetCount.*not a CFDictionary");
    EXPECT_DEATH(CFDictionarySetValue(const_cast<CFMutableDictionaryRef>(dict), CFSTR("a"), CFSTR("b")),
                 "CFDictionarySetValue.*immutable");
    EXPECT_DEATH(CFDictionaryRemoveValue(const_cast<CFMutableDictionaryRef>(dict), CFSTR("k")),
                 "CFDictionaryRemoveValue.*immutable");
    EXPECT_DEATH(CFDictionaryCreate(nullptr, nullptr, keys, 1, nullptr, nullptr),
                 "CFDictionaryCreate.*keys must not be NULL");
    EXPECT_DEATH(CFDictionaryApplyFunction(dict, nullptr, nullptr), "CFDictionaryApplyFunction.*applier");
    CFRelease(dict);
}

TEST(CFDictionaryDeathTest, CapacityIsAHardLimit) {
    CFMutableDictionaryRef dict = CFDictionaryCreateMutable(nullptr, 2, nullptr, nullptr);
    CFDictionarySetValue(dict, raw(1), raw(1));
    CFDictionarySetValue(dict, raw(2), raw(2));
    CFDictionarySetValue(dict, raw(2), raw(3));  // replacing needs no room
    CFDictionaryAddValue(dict, raw(1), raw(4));  // present: no room needed
    EXPECT_EQ(CFDictionaryGetCount(dict), 2);
    EXPECT_DEATH(CFDictionarySetValue(dict, raw(3), raw(3)), "CFDictionarySetValue.*capacity is 2");
    EXPECT_DEATH(CFDictionaryAddValue(dict, raw(3), raw(3)), "CFDictionaryAddValue.*capacity is 2");
    EXPECT_DEATH(CFDictionaryCreateMutableCopy(nullptr, 1, dict), "CFDictionaryCreateMutableCopy.*capacity");
    CFDictionaryRemoveValue(dict, raw(1));
    CFDictionarySetValue(dict, raw(3), raw(3));  // room again after a removal
    EXPECT_EQ(CFDictionaryGetCount(dict), 2);
    CFRelease(dict);
}

TEST(CFDictionaryDeathTest, GrowthThatCannotAllocateStops) {
    sorvel_test::TestAllocator allocator;
    CFMutableDictionaryRef dict = CFDictionaryCreateMutable(allocator.get(), 0, nullptr, nullptr);
    ASSERT_NE(dict, nullptr);
    for (uintptr_t k = 1; k <= 6; k++) CFDictionarySetValue(dict, raw(k), raw(k));  // fills 8 buckets to 3/4
    allocator.failAlways();
    CFDictionarySetValue(dict, raw(1), raw(9));  // no growth needed
    EXPECT_DEATH(CFDictionarySetValue(dict, raw(7), raw(7)), "CFDictionarySetValue.*out of memory");
    allocator.failAfter(-1);
    CFRelease(dict);
}

}  // namespace
