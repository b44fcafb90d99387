// SPDX-License-Identifier: Apache-2.0
// The object runtime and allocators: registration, instance layout,
// reference counting across threads, the polymorphic calls and their
// defaults, allocator contexts and ownership, and the fatal stops for NULL.

#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/TestAllocator.h"

namespace {

std::string text(CFStringRef string) {
    char buffer[512];
    if (!string || !CFStringGetCString(string, buffer, sizeof buffer, kCFStringEncodingUTF8)) return "<unconvertible>";
    return buffer;
}

std::string describe(CFTypeRef cf) {
    CFStringRef description = CFCopyDescription(cf);
    std::string result = text(description);
    if (description) CFRelease(description);
    return result;
}

// A test class whose finalize counts calls and checks the instance it gets.
struct Widget {
    CFRuntimeBase base;
    int64_t payload[5];
};
std::atomic<int> gWidgetFinalizes{0};
void widgetFinalize(CFTypeRef cf) {
    gWidgetFinalizes++;
    auto *widget = static_cast<const Widget *>(cf);
    EXPECT_EQ(widget->payload[0], 77);
}
Boolean widgetEqual(CFTypeRef a, CFTypeRef b) {
    return static_cast<const Widget *>(a)->payload[1] == static_cast<const Widget *>(b)->payload[1];
}
CFHashCode widgetHash(CFTypeRef cf) {
    return static_cast<CFHashCode>(static_cast<const Widget *>(cf)->payload[1]);
}
CFStringRef widgetDebugDescription(CFTypeRef cf) {
    return CFStringCreateWithFormat(nullptr, nullptr, CFSTR("widget %lld"),
                                    static_cast<long long>(static_cast<const Widget *>(cf)->payload[1]));
}

const CFRuntimeClass kWidgetClass = {
    0, "TestWidget", nullptr, nullptr, widgetFinalize, widgetEqual, widgetHash, nullptr, widgetDebugDescription};
const CFRuntimeClass kPlainClass = {0, "TestPlain", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};

CFTypeID widgetTypeID() {
    static CFTypeID typeID = _CFRuntimeRegisterClass(&kWidgetClass);
    return typeID;
}
CFTypeID plainTypeID() {
    static CFTypeID typeID = _CFRuntimeRegisterClass(&kPlainClass);
    return typeID;
}

Widget *makeWidget(CFAllocatorRef allocator, int64_t key) {
    auto *widget = static_cast<Widget *>(const_cast<void *>(
        _CFRuntimeCreateInstance(allocator, widgetTypeID(), sizeof(Widget) - sizeof(CFRuntimeBase), nullptr)));
    if (widget) {
        widget->payload[0] = 77;
        widget->payload[1] = key;
    }
    return widget;
}

TEST(CFRuntime, RegistrationHandsOutDistinctStableIdentifiers) {
    CFTypeID widget = widgetTypeID();
    CFTypeID plain = plainTypeID();
    EXPECT_NE(widget, static_cast<CFTypeID>(_kCFRuntimeNotATypeID));
    EXPECT_NE(widget, plain);
    EXPECT_EQ(_CFRuntimeGetClassWithTypeID(widget), &kWidgetClass);
    EXPECT_EQ(_CFRuntimeGetClassWithTypeID(plain), &kPlainClass);
    // Built-in types never collide with registered ones.
    for (CFTypeID builtin : {CFStringGetTypeID(), CFAllocatorGetTypeID(), CFNullGetTypeID()}) {
        EXPECT_NE(builtin, widget);
        EXPECT_NE(builtin, plain);
    }
    EXPECT_EQ(_CFRuntimeGetClassWithTypeID(0), nullptr);
    EXPECT_EQ(_CFRuntimeGetClassWithTypeID(0xFFFFFFFFu), nullptr);
}

TEST(CFRuntime, RegistrationRefusesUnusableRecords) {
    const CFRuntimeClass noName = {0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    EXPECT_EQ(_CFRuntimeRegisterClass(nullptr), static_cast<CFTypeID>(_kCFRuntimeNotATypeID));
    EXPECT_EQ(_CFRuntimeRegisterClass(&noName), static_cast<CFTypeID>(_kCFRuntimeNotATypeID));
}

TEST(CFRuntime, InstancesAreZeroFilledWithOneReference) {
    // Dirty the heap first so a missing memset would show.
    for (int i = 0; i < 16; i++) {
        void *p = malloc(sizeof(Widget));
        memset(p, 0xAB, sizeof(Widget));
        free(p);
    }
    auto *plain = static_cast<Widget *>(const_cast<void *>(
        _CFRuntimeCreateInstance(nullptr, plainTypeID(), sizeof(Widget) - sizeof(CFRuntimeBase), nullptr)));
    ASSERT_NE(plain, nullptr);
    for (int64_t word : plain->payload) EXPECT_EQ(word, 0);
    EXPECT_EQ(CFGetRetainCount(plain), 1);
    EXPECT_EQ(CFGetTypeID(plain), plainTypeID());
    EXPECT_EQ(CFGetAllocator(plain), kCFAllocatorSystemDefault);
    CFRelease(plain);
}

TEST(CFRuntime, CreationRefusesUnknownTypesAndNegativeSizes) {
    EXPECT_EQ(_CFRuntimeCreateInstance(nullptr, 0, 0, nullptr), nullptr);
    EXPECT_EQ(_CFRuntimeCreateInstance(nullptr, 4000, 0, nullptr), nullptr);
    EXPECT_EQ(_CFRuntimeCreateInstance(nullptr, plainTypeID(), -1, nullptr), nullptr);
    EXPECT_EQ(_CFRuntimeCreateInstance(kCFAllocatorNull, plainTypeID(), 8, nullptr), nullptr);
}

TEST(CFRuntime, FinalizeRunsOnceOnLastRelease) {
    gWidgetFinalizes = 0;
    Widget *widget = makeWidget(nullptr, 1);
    ASSERT_NE(widget, nullptr);
    EXPECT_EQ(CFRetain(widget), widget);
    EXPECT_EQ(CFGetRetainCount(widget), 2);
    CFRelease(widget);
    EXPECT_EQ(gWidgetFinalizes, 0);
    CFRelease(widget);
    EXPECT_EQ(gWidgetFinalizes, 1);
}

TEST(CFRuntime, RetainReleaseHammerFromManyThreads) {
    gWidgetFinalizes = 0;
    Widget *widget = makeWidget(nullptr, 2);
    constexpr int kThreads = 8;
    constexpr int kRounds = 20000;
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&] {
            while (!go) std::this_thread::yield();
            for (int i = 0; i < kRounds; i++) {
                CFRetain(widget);
                CFRetain(widget);
                CFRelease(widget);
                CFRelease(widget);
            }
        });
    }
    go = true;
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(CFGetRetainCount(widget), 1);
    EXPECT_EQ(gWidgetFinalizes, 0);
    CFRelease(widget);
    EXPECT_EQ(gWidgetFinalizes, 1);
}

TEST(CFRuntime, LastReleaseOnAnotherThreadFinalizesOnce) {
    gWidgetFinalizes = 0;
    constexpr int kObjects = 200;
    std::vector<Widget *> widgets;
    for (int i = 0; i < kObjects; i++) {
        widgets.push_back(makeWidget(nullptr, i));
        CFRetain(widgets.back());
    }
    std::thread a([&] {
        for (Widget *w : widgets) CFRelease(w);
    });
    std::thread b([&] {
        for (Widget *w : widgets) CFRelease(w);
    });
    a.join();
    b.join();
    EXPECT_EQ(gWidgetFinalizes, kObjects);
}

TEST(CFRuntime, EqualAndHashUseTheClassOrIdentity) {
    Widget *a = makeWidget(nullptr, 5);
    Widget *b = makeWidget(nullptr, 5);
    Widget *c = makeWidget(nullptr, 6);
    EXPECT_TRUE(CFEqual(a, b));
    EXPECT_FALSE(CFEqual(a, c));
    EXPECT_EQ(CFHash(a), CFHash(b));
    EXPECT_EQ(CFHash(a), 5u);

    CFTypeRef p = _CFRuntimeCreateInstance(nullptr, plainTypeID(), 16, nullptr);
    CFTypeRef q = _CFRuntimeCreateInstance(nullptr, plainTypeID(), 16, nullptr);
    EXPECT_TRUE(CFEqual(p, p));
    EXPECT_FALSE(CFEqual(p, q)) << "without an equal callback only identity counts";
    EXPECT_EQ(CFHash(p), reinterpret_cast<CFHashCode>(p));
    EXPECT_FALSE(CFEqual(a, p)) << "different types are never equal";
    for (CFTypeRef cf : {static_cast<CFTypeRef>(a), static_cast<CFTypeRef>(b), static_cast<CFTypeRef>(c), p, q})
        CFRelease(cf);
}

TEST(CFRuntime, DescriptionsUseTheClassOrTheDefaultForm) {
    Widget *widget = makeWidget(nullptr, 9);
    EXPECT_EQ(describe(widget), "widget 9");
    CFRelease(widget);

    CFTypeRef plain = _CFRuntimeCreateInstance(nullptr, plainTypeID(), 0, nullptr);
    char expected[128];
    snprintf(expected, sizeof expected, "<TestPlain %p [%p]>", plain,
             static_cast<const void *>(kCFAllocatorSystemDefault));
    EXPECT_EQ(describe(plain), expected);
    CFRelease(plain);

    CFStringRef name = CFCopyTypeIDDescription(plainTypeID());
    EXPECT_EQ(text(name), "TestPlain");
    CFRelease(name);
    EXPECT_EQ(CFCopyTypeIDDescription(0), nullptr);
}

TEST(CFRuntime, ShowPrintsStringsAsTextAndOthersAsDescriptions) {
    testing::internal::CaptureStderr();
    CFShow(CFSTR("plain text"));
    CFShow(nullptr);
    CFShow(kCFNull);
    std::string output = testing::internal::GetCapturedStderr();
    EXPECT_NE(output.find("plain text\n"), std::string::npos);
    EXPECT_NE(output.find("(null)\n"), std::string::npos);
    EXPECT_NE(output.find("<CFNull "), std::string::npos);
}

TEST(CFRuntime, ImmortalObjectsIgnoreRetainAndRelease) {
    for (CFTypeRef cf : {static_cast<CFTypeRef>(CFSTR("constant")), static_cast<CFTypeRef>(kCFNull),
                         static_cast<CFTypeRef>(kCFAllocatorSystemDefault), static_cast<CFTypeRef>(kCFAllocatorNull)}) {
        CFIndex before = CFGetRetainCount(cf);
        for (int i = 0; i < 3; i++) CFRelease(cf);
        CFRetain(cf);
        EXPECT_EQ(CFGetRetainCount(cf), before);
        EXPECT_GT(before, 1L << 30);
    }
    EXPECT_EQ(CFGetTypeID(CFSTR("x")), CFStringGetTypeID());
    EXPECT_EQ(CFGetTypeID(kCFNull), CFNullGetTypeID());
    EXPECT_EQ(CFGetAllocator(CFSTR("x")), kCFAllocatorSystemDefault);
}

TEST(CFAllocator, InstancesKeepTheirAllocatorAndGiveMemoryBack) {
    sorvel_test::TestAllocator allocator;
    {
        Widget *widget = makeWidget(allocator.get(), 3);
        ASSERT_NE(widget, nullptr);
        EXPECT_EQ(CFGetAllocator(widget), allocator.get());
        EXPECT_EQ(allocator.outstanding(), 1);
        EXPECT_EQ(CFGetRetainCount(allocator.get()), 2) << "the instance holds its allocator";
        CFRelease(widget);
    }
    EXPECT_EQ(allocator.outstanding(), 0);
    EXPECT_EQ(CFGetRetainCount(allocator.get()), 1);
}

TEST(CFAllocator, FailureMakesCreationReturnNull) {
    sorvel_test::TestAllocator allocator;
    allocator.failAlways();
    EXPECT_EQ(makeWidget(allocator.get(), 1), nullptr);
    EXPECT_EQ(allocator.failures(), 1);
    EXPECT_EQ(allocator.outstanding(), 0);
    EXPECT_EQ(CFGetRetainCount(allocator.get()), 1);
}

TEST(CFAllocator, ContextInfoIsRetainedAndReleasedWithTheAllocator) {
    sorvel_test::TestAllocator owner;
    CFAllocatorRef allocator = owner.get();
    EXPECT_EQ(owner.infoRetains(), 1);
    EXPECT_EQ(owner.infoReleases(), 0);
    CFAllocatorContext context;
    CFAllocatorGetContext(allocator, &context);
    EXPECT_EQ(context.info, &owner);
    EXPECT_EQ(context.version, 0);
    CFRetain(allocator);
    CFRelease(allocator);
    EXPECT_EQ(owner.infoReleases(), 0);
}

struct CountingInfo {
    int retains = 0;
    int releases = 0;
    int allocations = 0;
    int deallocations = 0;
};
const void *countingRetain(const void *info) {
    static_cast<CountingInfo *>(const_cast<void *>(info))->retains++;
    return info;
}
void countingRelease(const void *info) {
    static_cast<CountingInfo *>(const_cast<void *>(info))->releases++;
}
void *countingAllocate(CFIndex size, CFOptionFlags, void *info) {
    static_cast<CountingInfo *>(info)->allocations++;
    return malloc(static_cast<size_t>(size));
}
void countingDeallocate(void *ptr, void *info) {
    static_cast<CountingInfo *>(info)->deallocations++;
    free(ptr);
}

TEST(CFAllocator, ReleaseCallbackRunsWhenTheLastReferenceGoes) {
    for (bool selfAllocated : {false, true}) {
        SCOPED_TRACE(selfAllocated ? "kCFAllocatorUseContext" : "system default storage");
        CountingInfo info;
        CFAllocatorContext context = {
            0, &info, countingRetain, countingRelease, nullptr, countingAllocate, nullptr, countingDeallocate, nullptr};
        CFAllocatorRef allocator =
            CFAllocatorCreate(selfAllocated ? kCFAllocatorUseContext : kCFAllocatorSystemDefault, &context);
        ASSERT_NE(allocator, nullptr);
        EXPECT_EQ(CFGetTypeID(allocator), CFAllocatorGetTypeID());
        EXPECT_EQ(info.retains, 1);
        EXPECT_EQ(info.allocations, selfAllocated ? 1 : 0);
        void *block = CFAllocatorAllocate(allocator, 32, 0);
        ASSERT_NE(block, nullptr);
        CFAllocatorDeallocate(allocator, block);
        CFRetain(allocator);
        CFRelease(allocator);
        EXPECT_EQ(info.releases, 0);
        CFRelease(allocator);
        EXPECT_EQ(info.releases, 1);
        EXPECT_EQ(info.allocations, info.deallocations) << "the allocator's own storage is given back too";
    }
}

TEST(CFAllocator, AllocateReallocateDeallocateFollowTheirRules) {
    CountingInfo info;
    CFAllocatorContext context = {
        0, &info, nullptr, nullptr, nullptr, countingAllocate, nullptr, countingDeallocate, nullptr};
    CFAllocatorRef noRealloc = CFAllocatorCreate(nullptr, &context);
    EXPECT_EQ(CFAllocatorAllocate(noRealloc, 0, 0), nullptr);
    EXPECT_EQ(CFAllocatorAllocate(noRealloc, -5, 0), nullptr);
    EXPECT_EQ(info.allocations, 0);
    // NULL pointer: reallocation allocates.
    void *block = CFAllocatorReallocate(noRealloc, nullptr, 16, 0);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(info.allocations, 1);
    // No reallocate callback: NULL, and the block stays valid.
    EXPECT_EQ(CFAllocatorReallocate(noRealloc, block, 64, 0), nullptr);
    // Size zero: deallocates.
    EXPECT_EQ(CFAllocatorReallocate(noRealloc, block, 0, 0), nullptr);
    EXPECT_EQ(info.deallocations, 1);
    CFAllocatorDeallocate(noRealloc, nullptr);
    EXPECT_EQ(info.deallocations, 1);
    EXPECT_EQ(CFAllocatorGetPreferredSizeForSize(noRealloc, 100, 0), 100);
    CFRelease(noRealloc);

    void *grown = CFAllocatorReallocate(kCFAllocatorMalloc, nullptr, 8, 0);
    memset(grown, 7, 8);
    grown = CFAllocatorReallocate(kCFAllocatorMalloc, grown, 4096, 0);
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(static_cast<unsigned char *>(grown)[7], 7);
    CFAllocatorDeallocate(kCFAllocatorMalloc, grown);

    EXPECT_EQ(CFAllocatorAllocate(kCFAllocatorNull, 16, 0), nullptr);
}

TEST(CFAllocator, DefaultIsPerThreadAndRetained) {
    EXPECT_EQ(CFAllocatorGetDefault(), kCFAllocatorSystemDefault);
    sorvel_test::TestAllocator allocator;
    CFAllocatorSetDefault(allocator.get());
    EXPECT_EQ(CFAllocatorGetDefault(), allocator.get());
    EXPECT_EQ(CFGetRetainCount(allocator.get()), 2);
    CFAllocatorRef seenElsewhere = nullptr;
    std::thread([&] { seenElsewhere = CFAllocatorGetDefault(); }).join();
    EXPECT_EQ(seenElsewhere, kCFAllocatorSystemDefault);

    Widget *widget = makeWidget(kCFAllocatorDefault, 4);
    EXPECT_EQ(CFGetAllocator(widget), allocator.get()) << "NULL means the current default";
    CFRelease(widget);

    CFAllocatorSetDefault(nullptr);
    EXPECT_EQ(CFAllocatorGetDefault(), kCFAllocatorSystemDefault);
    EXPECT_EQ(CFGetRetainCount(allocator.get()), 1);
}

using CFRuntimeDeathTest = testing::Test;

TEST(CFRuntimeDeathTest, NullObjectsAreFatal) {
    EXPECT_DEATH(CFRetain(nullptr), "CFRetain.*NULL");
    EXPECT_DEATH(CFRelease(nullptr), "CFRelease.*NULL");
    EXPECT_DEATH(CFGetTypeID(nullptr), "CFGetTypeID.*NULL");
    EXPECT_DEATH(CFEqual(nullptr, kCFNull), "CFEqual.*NULL");
    EXPECT_DEATH(CFHash(nullptr), "CFHash.*NULL");
    EXPECT_DEATH(CFCopyDescription(nullptr), "CFCopyDescription.*NULL");
    EXPECT_DEATH(CFGetRetainCount(nullptr), "CFGetRetainCount.*NULL");
    EXPECT_DEATH(CFAllocatorCreate(nullptr, nullptr), "CFAllocatorCreate.*context");
}

// Releases an instance twice.  Its storage comes from a static arena that is
// never freed, so the second release reads the count rather than freed
// memory.
void releaseTwice() {
    static char arena[256] __attribute__((aligned(16)));
    CFAllocatorContext context = {0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    context.allocate = [](CFIndex, CFOptionFlags, void *) -> void * { return arena; };
    context.deallocate = [](void *, void *) {};
    CFAllocatorRef keep = CFAllocatorCreate(nullptr, &context);
    CFTypeRef cf = _CFRuntimeCreateInstance(keep, plainTypeID(), 8, nullptr);
    CFRelease(cf);
    CFRelease(cf);
}

TEST(CFRuntimeDeathTest, OverReleaseIsFatal) {
    EXPECT_DEATH(releaseTwice(), "released more often than it was retained");
}

TEST(CFRuntimeDeathTest, WrongAllocatorTypeIsFatal) {
    auto notAnAllocator = reinterpret_cast<CFAllocatorRef>(const_cast<void *>(static_cast<const void *>(kCFNull)));
    EXPECT_DEATH(CFAllocatorSetDefault(notAnAllocator), "is a CFNull, not a CFAllocator");
}

}  // namespace

namespace {

// The run-time form of CFSTR that compilers without the builtin use.
TEST(CFRuntime, InternedConstantStringsAreImmortalAndShared) {
    CFStringRef first = __CFStringMakeConstantString("caf\xC3\xA9 interned");
    CFStringRef second = __CFStringMakeConstantString("caf\xC3\xA9 interned");
    EXPECT_EQ(first, second);
    EXPECT_TRUE(CFEqual(first, CFSTR("café interned")));
    EXPECT_EQ(CFGetRetainCount(first), CFGetRetainCount(CFSTR("x")));
    CFRelease(first);
    EXPECT_EQ(CFStringGetLength(second), 13);
}

}  // namespace
