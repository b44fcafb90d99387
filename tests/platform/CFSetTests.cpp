// CFSet: ownership of members through add/set/replace/remove, raw-pointer
// records, string-copying members, constant vs created strings, equality,
// growth with removals against a model, descriptions, allocation failure and
// the fatal stops.

#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "support/TestAllocator.h"

namespace {

// Members that count their live instances; equal and hashed by value.
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
const CFRuntimeClass kTrackedClass = {0,           "SetTestTracked", nullptr, nullptr, trackedFinalize,
                                      trackedEqual, trackedHash,      nullptr, nullptr};
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

const void *raw(uintptr_t n) { return reinterpret_cast<const void *>(n); }

TEST(CFSet, AddSetReplaceRemoveBalanceRetains) {
    CFTypeRef first = makeTracked(1), equal = makeTracked(1), other = makeTracked(2);
    CFMutableSetRef set = CFSetCreateMutable(nullptr, 0, &kCFTypeSetCallBacks);

    CFSetReplaceValue(set, first);  // absent: nothing happens
    EXPECT_EQ(CFSetGetCount(set), 0);
    CFSetAddValue(set, first);
    CFSetAddValue(set, equal);  // present: Add keeps the stored member
    EXPECT_EQ(CFSetGetValue(set, equal), first);
    EXPECT_EQ(CFGetRetainCount(first), 2);
    EXPECT_EQ(CFGetRetainCount(equal), 1);

    CFSetSetValue(set, equal);  // present: Set swaps in the new member
    EXPECT_EQ(CFSetGetValue(set, first), equal);
    EXPECT_EQ(CFGetRetainCount(first), 1);
    EXPECT_EQ(CFGetRetainCount(equal), 2);
    CFSetReplaceValue(set, first);
    EXPECT_EQ(CFSetGetValue(set, equal), first);
    EXPECT_EQ(CFGetRetainCount(equal), 1);
    EXPECT_EQ(CFSetGetCount(set), 1);

    CFSetSetValue(set, other);
    EXPECT_EQ(CFSetGetCount(set), 2);
    CFSetRemoveValue(set, equal);  // removes the stored, equal member
    EXPECT_EQ(CFGetRetainCount(first), 1);
    EXPECT_FALSE(CFSetContainsValue(set, first));
    CFSetRemoveAllValues(set);
    EXPECT_EQ(CFGetRetainCount(other), 1);
    CFSetAddValue(set, other);
    CFRelease(set);
    for (CFTypeRef cf : {first, equal, other}) {
        EXPECT_EQ(CFGetRetainCount(cf), 1);
        CFRelease(cf);
    }
    EXPECT_EQ(gLiveTracked, 0);
}

TEST(CFSet, SettingTheSoleReferenceAgainKeepsItAlive) {
    CFMutableSetRef set = CFSetCreateMutable(nullptr, 0, &kCFTypeSetCallBacks);
    CFTypeRef member = makeTracked(3);
    CFSetAddValue(set, member);
    CFRelease(member);
    CFSetSetValue(set, member);
    CFSetReplaceValue(set, member);
    EXPECT_EQ(gLiveTracked, 1);
    EXPECT_EQ(CFGetRetainCount(member), 1);
    CFRelease(set);
    EXPECT_EQ(gLiveTracked, 0);
}

TEST(CFSet, CreateDropsDuplicatesAndCopiesOwnTheirMembers) {
    CFTypeRef members[] = {makeTracked(1), makeTracked(2), makeTracked(1)};
    CFSetRef set = CFSetCreate(nullptr, members, 3, &kCFTypeSetCallBacks);
    EXPECT_EQ(CFSetGetCount(set), 2);
    EXPECT_EQ(CFSetGetValue(set, members[2]), members[0]);
    EXPECT_EQ(CFGetRetainCount(members[2]), 1);
    EXPECT_EQ(CFSetCreateCopy(nullptr, set), set);
    CFRelease(set);
    CFMutableSetRef mutableCopy = CFSetCreateMutableCopy(nullptr, 0, set);
    CFSetRef immutableCopy = CFSetCreateCopy(nullptr, mutableCopy);
    EXPECT_EQ(CFGetRetainCount(members[0]), 4);
    CFSetRemoveValue(mutableCopy, members[1]);
    EXPECT_TRUE(CFEqual(set, immutableCopy));
    EXPECT_FALSE(CFEqual(set, mutableCopy));
    CFRelease(mutableCopy);
    CFRelease(immutableCopy);
    CFRelease(set);
    for (CFTypeRef cf : members) CFRelease(cf);
    EXPECT_EQ(gLiveTracked, 0);
}

TEST(CFSet, NullCallbacksStoreRawPointers) {
    const void *members[] = {raw(1), raw(2), raw(1)};
    CFSetRef set = CFSetCreate(nullptr, members, 3, nullptr);
    EXPECT_EQ(CFSetGetCount(set), 2);
    EXPECT_EQ(CFSetGetCountOfValue(set, raw(2)), 1);
    EXPECT_EQ(CFSetGetCountOfValue(set, raw(3)), 0);
    const void *found = nullptr;
    EXPECT_TRUE(CFSetGetValueIfPresent(set, raw(1), &found));
    EXPECT_EQ(found, raw(1));
    std::string description = describe(set);
    EXPECT_NE(description.find(": <0x1>\n"), std::string::npos) << description;
    EXPECT_NE(description.find(": <0x2>\n"), std::string::npos) << description;
    CFRelease(set);
}

TEST(CFSet, CopyStringMembersAreCopied) {
    CFMutableStringRef member = CFStringCreateMutable(nullptr, 0);
    CFStringAppendCString(member, "red", kCFStringEncodingUTF8);
    CFMutableSetRef set = CFSetCreateMutable(nullptr, 0, &kCFCopyStringSetCallBacks);
    CFSetAddValue(set, member);
    EXPECT_EQ(CFGetRetainCount(member), 1);
    EXPECT_NE(CFSetGetValue(set, CFSTR("red")), static_cast<const void *>(member));
    CFStringAppendCString(member, "dish", kCFStringEncodingUTF8);
    EXPECT_TRUE(CFSetContainsValue(set, CFSTR("red")));
    EXPECT_FALSE(CFSetContainsValue(set, member));
    CFRelease(set);
    CFRelease(member);
}

TEST(CFSet, EqualityIgnoresOrderAndUsesMemberEquality) {
    CFStringRef createdB = CFStringCreateWithCString(nullptr, "b", kCFStringEncodingUTF8);
    const void *abc[] = {CFSTR("a"), CFSTR("b"), CFSTR("c")};
    const void *cba[] = {CFSTR("c"), createdB, CFSTR("a")};
    const void *abd[] = {CFSTR("a"), CFSTR("b"), CFSTR("d")};
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
    EXPECT_TRUE(CFSetContainsValue(reference, createdB));
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        CFSetRef other = CFSetCreate(nullptr, c.other, c.count, &kCFTypeSetCallBacks);
        EXPECT_EQ(CFEqual(reference, other), c.equal);
        EXPECT_EQ(CFEqual(other, reference), c.equal);
        if (c.equal) EXPECT_EQ(CFHash(reference), CFHash(other));
        CFRelease(other);
    }
    CFRelease(reference);
    CFRelease(createdB);
}

TEST(CFSet, GrowthWithRemovalsMatchesASetModel) {
    CFMutableSetRef set = CFSetCreateMutable(nullptr, 0, nullptr);
    std::unordered_set<uintptr_t> model;
    std::mt19937 random(4242);
    for (int step = 0; step < 30000; step++) {
        // Insert-heavy in the first half, removal-heavy in the second.
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
    std::vector<const void *> members(model.size());
    CFSetGetValues(set, members.data());
    std::set<uintptr_t> listed;
    for (const void *m : members) listed.insert(reinterpret_cast<uintptr_t>(m));
    EXPECT_EQ(listed, std::set<uintptr_t>(model.begin(), model.end()));
    size_t applied = 0;
    CFSetApplyFunction(set, [](const void *, void *context) { ++*static_cast<size_t *>(context); }, &applied);
    EXPECT_EQ(applied, model.size());
    CFRelease(set);
}

TEST(CFSet, DescriptionListsMembersText) {
    const void *members[] = {CFSTR("alpha"), CFSTR("beta")};
    CFSetRef set = CFSetCreate(nullptr, members, 2, &kCFTypeSetCallBacks);
    std::string description = describe(set);
    EXPECT_EQ(description.rfind("<CFSet ", 0), 0u) << description;
    EXPECT_NE(description.find("{type = immutable, count = 2, values = (\n"), std::string::npos) << description;
    EXPECT_NE(description.find(" : alpha\n"), std::string::npos) << description;
    EXPECT_NE(description.find(" : beta\n"), std::string::npos) << description;
    EXPECT_EQ(description.substr(description.size() - 2), ")}");
    CFRelease(set);
}

TEST(CFSet, AllocationFailureAtCreationLeaksNothing) {
    const void *members[3];
    for (int i = 0; i < 3; i++) {
        CFMutableStringRef member = CFStringCreateMutable(nullptr, 0);
        CFStringAppendCString(member, std::to_string(i + 100).c_str(), kCFStringEncodingUTF8);
        members[i] = member;
    }
    CFTypeRef tracked[] = {makeTracked(1), makeTracked(2)};
    struct Case {
        const char *name;
        const void **values;
        const CFSetCallBacks *callBacks;
        long minFailures;
    } cases[] = {
        {"copied strings", members, &kCFCopyStringSetCallBacks, 3},
        {"retained objects", tracked, &kCFTypeSetCallBacks, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        bool succeeded = false;
        long failures = 0;
        const CFIndex count = c.callBacks == &kCFTypeSetCallBacks ? 2 : 3;
        for (long failAfter = 0; failAfter < 20 && !succeeded; failAfter++) {
            sorvel_test::TestAllocator allocator;
            allocator.failAfter(failAfter);
            CFSetRef set = CFSetCreate(allocator.get(), c.values, count, c.callBacks);
            if (set) {
                succeeded = true;
                EXPECT_EQ(CFSetGetCount(set), count);
                allocator.failAfter(-1);
                CFMutableSetRef copy = CFSetCreateMutableCopy(allocator.get(), 0, set);
                EXPECT_TRUE(CFEqual(set, copy));
                CFRelease(copy);
                CFRelease(set);
            } else {
                failures++;
            }
            EXPECT_EQ(CFGetRetainCount(c.values[0]), 1) << "fail after " << failAfter;
            EXPECT_EQ(allocator.outstanding(), 0) << "fail after " << failAfter;
        }
        EXPECT_TRUE(succeeded);
        EXPECT_GE(failures, c.minFailures);
    }
    for (const void *m : members) CFRelease(m);
    for (CFTypeRef t : tracked) CFRelease(t);
    EXPECT_EQ(gLiveTracked, 0);
}

TEST(CFSetDeathTest, MisuseStops) {
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
}

TEST(CFSetDeathTest, CapacityIsAHardLimit) {
    CFMutableSetRef set = CFSetCreateMutable(nullptr, 3, nullptr);
    for (uintptr_t m = 1; m <= 3; m++) CFSetAddValue(set, raw(m));
    CFSetSetValue(set, raw(2));  // present: no room needed
    EXPECT_EQ(CFSetGetCount(set), 3);
    EXPECT_DEATH(CFSetAddValue(set, raw(4)), "CFSetAddValue.*capacity is 3");
    EXPECT_DEATH(CFSetSetValue(set, raw(4)), "CFSetSetValue.*capacity is 3");
    EXPECT_DEATH(CFSetCreateMutableCopy(nullptr, 2, set), "CFSetCreateMutableCopy.*capacity \\(2\\) is less");
    CFRelease(set);
}

}  // namespace
