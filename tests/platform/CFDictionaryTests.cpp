// SPDX-License-Identifier: Apache-2.0
// CFDictionary: ownership of keys and values through add/set/replace/remove,
// raw-pointer and partial callback records, string-copying keys, deep
// equality, growth with removals against a model, descriptions, allocation
// failure and the fatal stops.

#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <regex>
#include <string>
#include <unordered_map>
#include <vector>

#include "support/CollectionHelpers.h"
#include "support/TestAllocator.h"

namespace {

using namespace sorvel_test;

// A dictionary with the CFType callbacks holding key, value, key, value...
CFMutableDictionaryRef makeDictionary(std::initializer_list<CFTypeRef> keysAndValues) {
    CFMutableDictionaryRef dict =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    for (auto it = keysAndValues.begin(); it != keysAndValues.end(); it += 2) CFDictionarySetValue(dict, it[0], it[1]);
    return dict;
}

void removeValue(CFMutableDictionaryRef dict, const void *key, const void *) {
    CFDictionaryRemoveValue(dict, key);
}
void removeAll(CFMutableDictionaryRef dict, const void *, const void *) {
    CFDictionaryRemoveAllValues(dict);
}

TEST(CFDictionary, AddSetReplaceRemoveBalanceRetains) {
    CFTypeRef key = number(1), equalKey = number(1), v1 = number(10), v2 = number(20);
    CFMutableDictionaryRef dict = makeDictionary({});
    struct Step {
        const char *what;
        void (*op)(CFMutableDictionaryRef, const void *, const void *);
        CFTypeRef key, value, stored;  // stored: the value held afterwards, if any
    } steps[] = {
        {"replace when absent does nothing", CFDictionaryReplaceValue, key, v1, nullptr},
        {"add", CFDictionaryAddValue, key, v1, v1},
        {"add when present does nothing", CFDictionaryAddValue, equalKey, v2, v1},
        {"set when present replaces the value", CFDictionarySetValue, equalKey, v2, v2},
        {"replace when present replaces the value", CFDictionaryReplaceValue, equalKey, v1, v1},
        {"remove all", removeAll, nullptr, nullptr, nullptr},
        {"set when absent adds", CFDictionarySetValue, key, v2, v2},
        {"remove by an equal key", removeValue, equalKey, nullptr, nullptr},
        {"remove when absent does nothing", removeValue, key, nullptr, nullptr},
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(step.what);
        step.op(dict, step.key, step.value);
        EXPECT_EQ(CFDictionaryGetCount(dict), step.stored ? 1 : 0);
        EXPECT_EQ(CFDictionaryGetValue(dict, key), step.stored);
        const void *storedKey = nullptr;
        CFDictionaryGetKeysAndValues(dict, &storedKey, nullptr);
        EXPECT_EQ(storedKey, step.stored ? key : nullptr);  // the first key stays
        EXPECT_EQ(CFGetRetainCount(key), step.stored ? 2 : 1);
        EXPECT_EQ(CFGetRetainCount(equalKey), 1);
        EXPECT_EQ(CFGetRetainCount(v1), step.stored == v1 ? 2 : 1);
        EXPECT_EQ(CFGetRetainCount(v2), step.stored == v2 ? 2 : 1);
    }
    // With the dictionary holding the only reference, storing a value over
    // itself must retain before it releases.
    CFDictionarySetValue(dict, key, v1);
    CFRelease(v1);
    CFDictionarySetValue(dict, key, v1);
    CFDictionaryReplaceValue(dict, key, v1);
    EXPECT_EQ(CFGetRetainCount(CFDictionaryGetValue(dict, key)), 1);
    release({dict, key, equalKey, v2});
    EXPECT_EQ(live(), 0);
}

// Raw keys compared and hashed modulo 10; values raw, described by a callback.
Boolean equalModTen(const void *a, const void *b) {
    return reinterpret_cast<uintptr_t>(a) % 10 == reinterpret_cast<uintptr_t>(b) % 10;
}
CFHashCode hashModTen(const void *value) {
    return reinterpret_cast<uintptr_t>(value) % 10;
}
CFStringRef describeAsNumber(const void *value) {
    return CFStringCreateWithFormat(nullptr, nullptr, CFSTR("#%lu"),
                                    static_cast<unsigned long>(reinterpret_cast<uintptr_t>(value)));
}

// A NULL record, or a NULL callback in a record, means raw pointers for that
// duty only.
TEST(CFDictionary, NullCallbacksMeanRawPointers) {
    const void *keys[] = {raw(1), raw(2)}, *values[] = {raw(2), nullptr};
    CFDictionaryRef dict = CFDictionaryCreate(nullptr, keys, values, 2, nullptr, nullptr);
    EXPECT_EQ(CFDictionaryGetValue(dict, raw(1)), raw(2));
    const void *value = raw(99);
    EXPECT_TRUE(CFDictionaryGetValueIfPresent(dict, raw(2), &value));
    EXPECT_EQ(value, nullptr);  // NULL is a storable value
    EXPECT_FALSE(CFDictionaryGetValueIfPresent(dict, raw(3), &value));
    EXPECT_EQ(CFDictionaryGetCountOfValue(dict, raw(2)), 1);
    EXPECT_TRUE(CFDictionaryContainsValue(dict, nullptr));
    EXPECT_FALSE(CFDictionaryContainsKey(dict, nullptr));
    EXPECT_NE(describe(dict).find("<0x1> = <0x2>\n"), std::string::npos) << describe(dict);
    CFRelease(dict);

    auto *keyCallBacks = new CFDictionaryKeyCallBacks{0, nullptr, nullptr, nullptr, equalModTen, hashModTen};
    auto *valueCallBacks = new CFDictionaryValueCallBacks{0, nullptr, nullptr, describeAsNumber, nullptr};
    CFMutableDictionaryRef partial = CFDictionaryCreateMutable(nullptr, 0, keyCallBacks, valueCallBacks);
    // The records are copied: the caller's may go away.
    delete keyCallBacks;
    delete valueCallBacks;
    CFDictionarySetValue(partial, raw(13), raw(100));
    CFDictionarySetValue(partial, raw(23), raw(200));  // equal key: replaces
    EXPECT_EQ(CFDictionaryGetCount(partial), 1);
    EXPECT_EQ(CFDictionaryGetValue(partial, raw(3)), raw(200));
    EXPECT_EQ(CFDictionaryGetCountOfValue(partial, raw(300)), 0);  // values by address, not by the keys' rule
    EXPECT_NE(describe(partial).find("0 : <0xd> = #200"), std::string::npos) << describe(partial);
    CFRelease(partial);
}

// Also shows that created and constant strings find each other as keys.
TEST(CFDictionary, CopyStringKeysAreCopiedNotRetained) {
    CFMutableStringRef key = makeString("name");
    CFMutableDictionaryRef dict =
        CFDictionaryCreateMutable(nullptr, 0, &kCFCopyStringDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    CFDictionarySetValue(dict, key, CFSTR("value"));
    EXPECT_EQ(CFGetRetainCount(key), 1);
    const void *storedKey = nullptr;
    CFDictionaryGetKeysAndValues(dict, &storedKey, nullptr);
    EXPECT_NE(storedKey, static_cast<const void *>(key));
    CFDictionarySetValue(dict, CFSTR("name"), CFSTR("other"));  // the constant finds the copy
    EXPECT_EQ(CFDictionaryGetCount(dict), 1);
    // Changing the caller's string does not change the key.
    CFStringAppendCString(key, "-changed", kCFStringEncodingUTF8);
    EXPECT_EQ(CFDictionaryGetValue(dict, CFSTR("name")), CFSTR("other"));
    EXPECT_EQ(CFDictionaryGetValue(dict, key), nullptr);
    release({dict, key});
}

// {"outer": {"inner": {"leaf": leaf}, "name": "n"}, flagKey: "yes"}, built
// from created strings so that only equality (not identity) can match.
CFDictionaryRef makeNested(const char *leaf, const char *flagKey = "flag") {
    CFStringRef leafKey = makeString("leaf"), leafValue = makeString(leaf), flag = makeString(flagKey);
    CFDictionaryRef inner = makeDictionary({leafKey, leafValue});
    CFDictionaryRef middle = makeDictionary({CFSTR("inner"), inner, CFSTR("name"), CFSTR("n")});
    CFDictionaryRef outer = makeDictionary({CFSTR("outer"), middle, flag, CFSTR("yes")});
    release({inner, middle, leafKey, leafValue, flag});
    return outer;
}

TEST(CFDictionary, EqualityComparesNestedDictionariesDeeply) {
    CFDictionaryRef reference = makeNested("deep");
    CFMutableDictionaryRef extraKey = CFDictionaryCreateMutableCopy(nullptr, 0, reference);
    CFDictionarySetValue(extraKey, CFSTR("extra"), CFSTR("x"));
    struct Case {
        const char *name;
        CFDictionaryRef other;
        bool equal;
    } cases[] = {
        {"same structure and texts", makeNested("deep"), true},
        {"one leaf differs", makeNested("Deep"), false},
        {"same count, one key differs", makeNested("deep", "flags"), false},
        {"an extra key", extraKey, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(CFEqual(reference, c.other), c.equal);
        EXPECT_EQ(CFEqual(c.other, reference), c.equal);
        if (c.equal) EXPECT_EQ(CFHash(reference), CFHash(c.other));
        CFRelease(c.other);
    }
    CFRelease(reference);
}

// Interleaved sets, adds, replaces and removals checked against
// std::unordered_map, with well spread, clustered and constant hashes; at the
// end, listing and applying must both visit every entry, in the same order.
CFHashCode hashLowBits(const void *value) {
    return reinterpret_cast<uintptr_t>(value) & 3;
}
CFHashCode hashConstant(const void *) {
    return 42;
}
Boolean equalAddress(const void *a, const void *b) {
    return a == b;
}

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
            const uintptr_t key = 1 + random() % c.keyRange, value = random(), op = random() % 8;
            if (op <= 1) {
                CFDictionaryRemoveValue(dict, raw(key));
                model.erase(key);
            } else if (op == 2) {
                CFDictionaryAddValue(dict, raw(key), raw(value));
                model.emplace(key, value);
            } else if (op == 3) {
                CFDictionaryReplaceValue(dict, raw(key), raw(value));
                if (auto it = model.find(key); it != model.end()) it->second = value;
            } else {
                CFDictionarySetValue(dict, raw(key), raw(value));
                model[key] = value;
            }
            ASSERT_EQ(CFDictionaryGetCount(dict), static_cast<CFIndex>(model.size())) << "step " << step;
            const uintptr_t probe = 1 + random() % c.keyRange;
            const void *found = nullptr;
            const bool present = CFDictionaryGetValueIfPresent(dict, raw(probe), &found);
            ASSERT_EQ(present, model.count(probe) == 1) << "step " << step << " key " << probe;
            if (present) ASSERT_EQ(found, raw(model[probe])) << "step " << step << " key " << probe;
            for (uintptr_t k = 1; step % 1000 == 999 && c.keyRange > 1000 && k <= c.keyRange / 2; k++) {
                // Periodically clear part of the table to reach low loads too.
                CFDictionaryRemoveValue(dict, raw(k));
                model.erase(k);
            }
        }
        std::vector<const void *> keys(model.size()), values(model.size());
        CFDictionaryGetKeysAndValues(dict, keys.data(), values.data());
        std::vector<const void *> applied;
        CFDictionaryApplyFunction(
            dict,
            [](const void *k, const void *, void *to) { static_cast<std::vector<const void *> *>(to)->push_back(k); },
            &applied);
        EXPECT_EQ(applied, keys);
        std::map<uintptr_t, uintptr_t> listed;
        for (size_t i = 0; i < keys.size(); i++)
            listed[reinterpret_cast<uintptr_t>(keys[i])] = reinterpret_cast<uintptr_t>(values[i]);
        EXPECT_EQ(listed, (std::map<uintptr_t, uintptr_t>(model.begin(), model.end())));
        CFRelease(dict);
    }
}

TEST(CFDictionary, DescriptionListsKeysAndValuesText) {
    CFMutableDictionaryRef dict = makeDictionary({CFSTR("alpha"), CFSTR("one")});
    CFDictionaryRef immutable = CFDictionaryCreateCopy(nullptr, dict);
    const std::string description = describe(immutable);
    EXPECT_TRUE(std::regex_match(description, std::regex("<CFDictionary 0x[0-9a-f]+ \\[0x[0-9a-f]+\\]>\\{type = "
                                                         "immutable, count = 1, entries =>\n\t0 : alpha = one\n\\}")))
        << description;
    CFMutableDictionaryRef outer = makeDictionary({CFSTR("nested"), dict});
    EXPECT_TRUE(
        std::regex_search(describe(outer), std::regex("\\{type = mutable, count = 1, entries =>\n\t0 : nested = "
                                                      "<CFDictionary 0x[\\s\\S]*0 : alpha = one\n\\}\n\\}$")))
        << describe(outer);
    release({outer, immutable, dict});
}

// Calls `create` with an allocator that fails after 0, 1, 2... allocations
// until it succeeds; after every attempt all that was allocated is freed and
// the objects in `held` are back at their retain counts. Returns the number
// of failed attempts.
template <typename Create>
long failuresBeforeSuccess(std::initializer_list<CFTypeRef> held, Create create) {
    std::vector<CFIndex> counts;
    for (CFTypeRef cf : held) counts.push_back(CFGetRetainCount(cf));
    for (long failures = 0; failures < 20; failures++) {
        sorvel_test::TestAllocator allocator;
        allocator.failAfter(failures);
        CFTypeRef made = create(allocator.get());
        if (made) CFRelease(made);
        for (size_t i = 0; i < held.size(); i++)
            EXPECT_EQ(CFGetRetainCount(held.begin()[i]), counts[i]) << "fail after " << failures << ", object " << i;
        EXPECT_EQ(allocator.outstanding(), 0) << "fail after " << failures;
        if (made) return failures;
    }
    ADD_FAILURE() << "never succeeded";
    return -1;
}

// Values copied on the way in: when a value's copy fails, its key, already
// retained, must be given back.
const void *copyStringValue(CFAllocatorRef allocator, const void *value) {
    return CFStringCreateCopy(allocator, static_cast<CFStringRef>(value));
}

TEST(CFDictionary, CreationAndCopiesOwnTheirEntriesAndFailCleanly) {
    // Mutable string keys under the copying callbacks: each copy allocates
    // from the dictionary's allocator too, so failures hit mid-way. Of
    // duplicate keys the first one wins; the later one's value is not kept.
    const void *keys[] = {makeString("0"), makeString("111"), makeString("222"), makeString("111")};
    CFTypeRef values[] = {number(0), number(1), number(2), number(3)};
    CFDictionaryRef source = CFDictionaryCreate(nullptr, keys, values, 4, &kCFCopyStringDictionaryKeyCallBacks,
                                                &kCFTypeDictionaryValueCallBacks);
    EXPECT_EQ(CFDictionaryGetCount(source), 3);
    EXPECT_EQ(CFDictionaryGetValue(source, keys[3]), values[1]);
    EXPECT_EQ(CFGetRetainCount(values[3]), 1);
    for (int kind = 0; kind < 3; kind++) {  // create, copy, mutable copy
        SCOPED_TRACE(kind);
        auto create = [&](CFAllocatorRef allocator) -> CFTypeRef {
            CFDictionaryRef dict =
                kind == 0   ? CFDictionaryCreate(allocator, keys, values, 4, &kCFCopyStringDictionaryKeyCallBacks,
                                                 &kCFTypeDictionaryValueCallBacks)
                : kind == 1 ? CFDictionaryCreateCopy(allocator, source)
                            : CFDictionaryCreateMutableCopy(allocator, 0, source);
            if (dict) EXPECT_TRUE(CFEqual(dict, source));
            if (dict) EXPECT_EQ(CFGetRetainCount(values[0]), 3);
            return dict;
        };
        // The instance, the table and, for creation, at least one key copy.
        EXPECT_GE(failuresBeforeSuccess({keys[0], values[0], values[3]}, create), kind == 0 ? 3 : 2);
    }

    const CFDictionaryValueCallBacks copyingValues = {0, copyStringValue, kCFTypeDictionaryValueCallBacks.release,
                                                      nullptr, CFEqual};
    auto createCopyingValues = [&](CFAllocatorRef allocator) -> CFTypeRef {
        CFDictionaryRef dict =
            CFDictionaryCreate(allocator, values, keys, 2, &kCFTypeDictionaryKeyCallBacks, &copyingValues);
        if (dict) EXPECT_TRUE(CFEqual(CFDictionaryGetValue(dict, values[1]), CFSTR("111")));
        return dict;
    };
    // The instance, the table and each value copy.
    EXPECT_GE(failuresBeforeSuccess({values[0], values[1], keys[0]}, createCopyingValues), 4);

    // A copy of a mutable dictionary is a new one, independent of it; an
    // immutable dictionary's copy may be the dictionary itself.
    CFMutableDictionaryRef mutableCopy = CFDictionaryCreateMutableCopy(nullptr, 0, source);
    CFDictionaryRef immutableCopy = CFDictionaryCreateCopy(nullptr, mutableCopy);
    EXPECT_NE(immutableCopy, static_cast<CFDictionaryRef>(mutableCopy));
    CFDictionaryRemoveValue(mutableCopy, CFSTR("0"));
    EXPECT_TRUE(CFEqual(source, immutableCopy));
    EXPECT_FALSE(CFEqual(source, mutableCopy));
    EXPECT_EQ(CFDictionaryCreateCopy(nullptr, source), source);
    release({source, source, mutableCopy, immutableCopy});
    for (int i = 0; i < 4; i++) release({keys[i], values[i]});
    EXPECT_EQ(live(), 0);
}

TEST(CFDictionaryDeathTest, MisuseCapacityAndFailedGrowthStop) {
    const void *keys[] = {CFSTR("k")};
    CFDictionaryRef dict =
        CFDictionaryCreate(nullptr, keys, keys, 1, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    auto *immutable = const_cast<CFMutableDictionaryRef>(dict);
    EXPECT_DEATH(CFDictionaryGetValue(nullptr, CFSTR("k")), "CFDictionaryGetValue.*NULL");
    EXPECT_DEATH(CFDictionaryGetCount(reinterpret_cast<CFDictionaryRef>(CFSTR("k"))),
                 "CFDictionaryGetCount.*not a CFDictionary");
    EXPECT_DEATH(CFDictionarySetValue(immutable, CFSTR("a"), CFSTR("b")), "CFDictionarySetValue.*immutable");
    EXPECT_DEATH(CFDictionaryRemoveValue(immutable, CFSTR("k")), "CFDictionaryRemoveValue.*immutable");
    EXPECT_DEATH(CFDictionaryCreate(nullptr, nullptr, keys, 1, nullptr, nullptr),
                 "CFDictionaryCreate.*keys must not be NULL");
    EXPECT_DEATH(CFDictionaryApplyFunction(dict, nullptr, nullptr), "CFDictionaryApplyFunction.*applier");
    CFRelease(dict);

    CFMutableDictionaryRef full = CFDictionaryCreateMutable(nullptr, 2, nullptr, nullptr);
    CFDictionarySetValue(full, raw(1), raw(1));
    CFDictionarySetValue(full, raw(2), raw(2));
    CFDictionarySetValue(full, raw(2), raw(3));  // replacing needs no room
    CFDictionaryAddValue(full, raw(1), raw(4));  // present: no room needed
    EXPECT_EQ(CFDictionaryGetCount(full), 2);
    EXPECT_DEATH(CFDictionarySetValue(full, raw(3), raw(3)), "CFDictionarySetValue.*capacity is 2");
    EXPECT_DEATH(CFDictionaryAddValue(full, raw(3), raw(3)), "CFDictionaryAddValue.*capacity is 2");
    EXPECT_DEATH(CFDictionaryCreateMutableCopy(nullptr, 1, full), "CFDictionaryCreateMutableCopy.*capacity");
    EXPECT_DEATH(CFDictionarySetValue(CFDictionaryCreateMutableCopy(nullptr, 2, full), raw(3), raw(3)),
                 "capacity is 2");
    CFDictionaryRemoveValue(full, raw(1));
    CFDictionarySetValue(full, raw(3), raw(3));  // room again after a removal
    EXPECT_EQ(CFDictionaryGetCount(full), 2);
    CFRelease(full);

    sorvel_test::TestAllocator allocator;
    CFMutableDictionaryRef growing = CFDictionaryCreateMutable(allocator.get(), 0, nullptr, nullptr);
    ASSERT_NE(growing, nullptr);
    for (uintptr_t k = 1; k <= 6; k++) CFDictionarySetValue(growing, raw(k), raw(k));  // fills 8 buckets to 3/4
    allocator.failAlways();
    CFDictionarySetValue(growing, raw(1), raw(9));  // no growth needed
    EXPECT_DEATH(CFDictionarySetValue(growing, raw(7), raw(7)), "CFDictionarySetValue.*out of memory");
    allocator.failAfter(-1);
    CFRelease(growing);
}

}  // namespace
