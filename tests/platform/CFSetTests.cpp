// SPDX-License-Identifier: Apache-2.0
// CFSet: ownership of members through add/set/replace/remove, raw-pointer
// records, string-copying members, constant vs created strings, equality,
// growth with removals against a model, descriptions, allocation failure and
// the fatal stops.

#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>
#include <unordered_set>
#include <vector>

#include "support/CollectionHelpers.h"
#include "support/TestAllocator.h"

namespace {

using namespace sorvel_test;

void removeAll(CFMutableSetRef set, const void *) {
    CFSetRemoveAllValues(set);
}

TEST(CFSet, AddSetReplaceRemoveBalanceRetains) {
    CFTypeRef first = number(1), equal = number(1);
    CFMutableSetRef set = CFSetCreateMutable(nullptr, 0, &kCFTypeSetCallBacks);
    struct Step {
        const char *what;
        void (*op)(CFMutableSetRef, const void *);
        CFTypeRef argument, stored;  // stored: the member the set holds afterwards, if any
    } steps[] = {
        {"replace when absent does nothing", CFSetReplaceValue, first, nullptr},
        {"add", CFSetAddValue, first, first},
        {"add when present keeps the stored member", CFSetAddValue, equal, first},
        {"set when present swaps in the new member", CFSetSetValue, equal, equal},
        {"replace swaps it back", CFSetReplaceValue, first, first},
        {"remove all", removeAll, nullptr, nullptr},
        {"set when absent adds", CFSetSetValue, equal, equal},
        {"remove takes out the stored, equal member", CFSetRemoveValue, first, nullptr},
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(step.what);
        step.op(set, step.argument);
        EXPECT_EQ(CFSetGetCount(set), step.stored ? 1 : 0);
        EXPECT_EQ(CFSetGetCountOfValue(set, equal), step.stored ? 1 : 0);
        EXPECT_EQ(CFSetGetValue(set, first), step.stored);
        const void *found = nullptr;
        EXPECT_EQ(CFSetGetValueIfPresent(set, equal, &found), step.stored != nullptr);
        EXPECT_EQ(found, step.stored);
        EXPECT_EQ(CFGetRetainCount(first), step.stored == first ? 2 : 1);
        EXPECT_EQ(CFGetRetainCount(equal), step.stored == equal ? 2 : 1);
    }
    // With the set holding the only reference, storing a member over itself
    // must retain before it releases.
    CFSetAddValue(set, first);
    CFRelease(first);
    CFSetSetValue(set, first);
    CFSetReplaceValue(set, first);
    EXPECT_EQ(CFGetRetainCount(first), 1);
    release({set, equal});
    EXPECT_EQ(live(), 0);
}

// Also shows that created and constant strings find each other as members,
// and how a member is described.
TEST(CFSet, CopyStringMembersAreCopied) {
    CFMutableStringRef member = makeString("red");
    CFMutableSetRef set = CFSetCreateMutable(nullptr, 0, &kCFCopyStringSetCallBacks);
    CFSetAddValue(set, member);
    EXPECT_EQ(CFGetRetainCount(member), 1);
    EXPECT_NE(CFSetGetValue(set, CFSTR("red")), static_cast<const void *>(member));
    CFStringAppendCString(member, "dish", kCFStringEncodingUTF8);
    EXPECT_TRUE(CFSetContainsValue(set, CFSTR("red")));
    EXPECT_EQ(CFSetGetCountOfValue(set, member), 0);
    EXPECT_TRUE(std::regex_match(describe(set), std::regex("<CFSet 0x[0-9a-f]+ \\[0x[0-9a-f]+\\]>\\{type = mutable, "
                                                           "count = 1, values = \\(\n\t0 : red\n\\)\\}")))
        << describe(set);
    release({set, member});
}

TEST(CFSet, EqualityIgnoresOrderAndUsesMemberEquality) {
    CFStringRef createdB = makeString("b");
    const void *abc[] = {CFSTR("a"), CFSTR("b"), CFSTR("c")}, *cba[] = {CFSTR("c"), createdB, CFSTR("a")},
               *abd[] = {CFSTR("a"), CFSTR("b"), CFSTR("d")};
    struct Case {
        const char *name;
        const void **other;
        CFIndex count;
        bool equal;
    } cases[] = {
        {"same members, other order, created string", cba, 3, true},
        {"one member differs", abd, 3, false},
        {"subset", abc, 2, false},
    };
    CFSetRef reference = CFSetCreate(nullptr, abc, 3, &kCFTypeSetCallBacks);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        CFSetRef other = CFSetCreate(nullptr, c.other, c.count, &kCFTypeSetCallBacks);
        EXPECT_EQ(CFEqual(reference, other), c.equal);
        EXPECT_EQ(CFEqual(other, reference), c.equal);
        if (c.equal) EXPECT_EQ(CFHash(reference), CFHash(other));
        CFRelease(other);
    }
    release({reference, createdB});
}

// Insert-heavy in the first half, removal-heavy in the second; at the end,
// listing and applying must both visit every member.
TEST(CFSet, GrowthWithRemovalsMatchesASetModel) {
    CFMutableSetRef set = CFSetCreateMutable(nullptr, 0, nullptr);
    std::unordered_set<uintptr_t> model;
    std::mt19937 random(4242);
    for (int step = 0; step < 30000; step++) {
        const bool remove = random() % 10 < (step < 15000 ? 3u : 7u);
        const uintptr_t member = 1 + random() % 8000;
        if (remove) {
            CFSetRemoveValue(set, raw(member));
            model.erase(member);
        } else {
            CFSetAddValue(set, raw(member));
            model.insert(member);
        }
        ASSERT_EQ(CFSetGetCount(set), static_cast<CFIndex>(model.size())) << "step " << step;
        const uintptr_t probe = 1 + random() % 8000;
        ASSERT_EQ(CFSetContainsValue(set, raw(probe)), model.count(probe) == 1) << "step " << step;
    }
    std::vector<const void *> members(model.size()), applied;
    CFSetGetValues(set, members.data());
    CFSetApplyFunction(
        set, [](const void *m, void *to) { static_cast<std::vector<const void *> *>(to)->push_back(m); }, &applied);
    EXPECT_EQ(applied, members);
    for (const void *m : members) EXPECT_EQ(model.erase(reinterpret_cast<uintptr_t>(m)), 1u) << m;  // once each
    CFRelease(set);
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

TEST(CFSet, CreationAndCopiesOwnTheirMembersAndFailCleanly) {
    // Retained numbers, and mutable strings that the copying callbacks copy
    // from the set's allocator too, so failures hit mid-way. Of duplicate
    // members the first one wins: the later one is never retained.
    const void *numbered[] = {number(1), number(2), number(1)};
    const void *strings[] = {makeString("100"), makeString("101"), makeString("100")};
    struct Case {
        const char *name;
        const void **members;
        const CFSetCallBacks *callBacks;
        long minFailures;
    } cases[] = {
        {"retained objects", numbered, &kCFTypeSetCallBacks, 2},     // the instance, the table
        {"copied strings", strings, &kCFCopyStringSetCallBacks, 3},  // and a member copy
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        CFSetRef source = CFSetCreate(nullptr, c.members, 3, c.callBacks);
        EXPECT_EQ(CFSetGetCount(source), 2);
        for (int kind = 0; kind < 3; kind++) {  // create, copy, mutable copy
            SCOPED_TRACE(kind);
            auto create = [&](CFAllocatorRef allocator) -> CFTypeRef {
                CFSetRef set = kind == 0   ? CFSetCreate(allocator, c.members, 3, c.callBacks)
                               : kind == 1 ? CFSetCreateCopy(allocator, source)
                                           : CFSetCreateMutableCopy(allocator, 0, source);
                if (set) EXPECT_TRUE(CFEqual(set, source));
                if (set) EXPECT_EQ(CFGetRetainCount(c.members[2]), 1);
                return set;
            };
            EXPECT_GE(failuresBeforeSuccess({c.members[0], c.members[2]}, create), kind == 0 ? c.minFailures : 2);
        }
        // An immutable set's copy may be the set itself; a mutable one's not.
        EXPECT_EQ(CFSetCreateCopy(nullptr, source), source);
        CFMutableSetRef mutableCopy = CFSetCreateMutableCopy(nullptr, 0, source);
        CFSetRef copyOfMutable = CFSetCreateCopy(nullptr, mutableCopy);
        EXPECT_NE(copyOfMutable, static_cast<CFSetRef>(mutableCopy));
        release({source, source, mutableCopy, copyOfMutable});
    }
    for (int i = 0; i < 3; i++) release({numbered[i], strings[i]});
    EXPECT_EQ(live(), 0);
}

TEST(CFSetDeathTest, MisuseAndCapacityStop) {
    const void *members[] = {CFSTR("m")};
    CFSetRef set = CFSetCreate(nullptr, members, 1, &kCFTypeSetCallBacks);
    EXPECT_DEATH(CFSetGetCount(nullptr), "CFSetGetCount.*NULL");
    EXPECT_DEATH(CFSetContainsValue(reinterpret_cast<CFSetRef>(CFSTR("m")), CFSTR("m")),
                 "CFSetContainsValue.*not a CFSet");
    EXPECT_DEATH(CFSetAddValue(const_cast<CFMutableSetRef>(set), CFSTR("n")), "CFSetAddValue.*immutable");
    EXPECT_DEATH(CFSetRemoveAllValues(const_cast<CFMutableSetRef>(set)), "CFSetRemoveAllValues.*immutable");
    EXPECT_DEATH(CFSetCreate(nullptr, nullptr, 1, nullptr), "CFSetCreate.*values must not be NULL");
    EXPECT_DEATH(CFSetGetValues(set, nullptr), "CFSetGetValues.*values must not be NULL");
    CFRelease(set);

    CFMutableSetRef full = CFSetCreateMutable(nullptr, 3, nullptr);
    for (uintptr_t m = 1; m <= 3; m++) CFSetAddValue(full, raw(m));
    CFSetSetValue(full, raw(2));  // present: no room needed
    EXPECT_EQ(CFSetGetCount(full), 3);
    EXPECT_DEATH(CFSetAddValue(full, raw(4)), "CFSetAddValue.*capacity is 3");
    EXPECT_DEATH(CFSetSetValue(full, raw(4)), "CFSetSetValue.*capacity is 3");
    EXPECT_DEATH(CFSetCreateMutableCopy(nullptr, 2, full), "CFSetCreateMutableCopy.*capacity \\(2\\) is less");
    EXPECT_DEATH(CFSetAddValue(CFSetCreateMutableCopy(nullptr, 3, full), raw(4)), "capacity is 3");  // the copy's own
    CFRelease(full);
}

}  // namespace
