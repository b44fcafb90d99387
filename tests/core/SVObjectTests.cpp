// SPDX-License-Identifier: Apache-2.0
// The object glue every family builds on: lazy registration exactly once,
// instance creation through the runtime, the log gate and the fatal stops.

#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "core/SVLog.h"
#include "core/SVObject.h"
#include "support/LogCapture.h"
#include "support/TestAllocator.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/SVTestWidget");

struct OpaqueTestWidget {
    CFRuntimeBase base;
    CFStringRef name;
    int64_t serial;
};

std::atomic<int> gFinalized{0};

void testWidgetFinalize(CFTypeRef cf) {
    auto *widget = sorvel::SVRuntimeClass<OpaqueTestWidget>::cast(cf);
    // Finalize copes with a half-built instance whose fields are still zero.
    if (widget->name) CFRelease(widget->name);
    gFinalized++;
}

CFStringRef testWidgetCopyDebugDescription(CFTypeRef cf) {
    auto *widget = sorvel::SVRuntimeClass<OpaqueTestWidget>::cast(cf);
    return CFStringCreateWithFormat(nullptr, nullptr, CFSTR("<TestWidget %p>{name = %@, serial = %lld}"), cf,
                                    widget->name, static_cast<long long>(widget->serial));
}
CFStringRef testWidgetCopyFormattingDescription(CFTypeRef cf, CFDictionaryRef) {
    return testWidgetCopyDebugDescription(cf);
}

const CFRuntimeClass kTestWidgetClass = {
    0,
    "TestWidget",
    nullptr,
    nullptr,
    testWidgetFinalize,
    nullptr,
    nullptr,
    testWidgetCopyFormattingDescription,
    testWidgetCopyDebugDescription,
};

constinit sorvel::SVRuntimeClass<OpaqueTestWidget> gTestWidgetClass{kTestWidgetClass};

// How a family's creation call uses the glue: create, fill every field,
// retain what is kept, then hand the object out.
OSStatus TestWidgetCreate(CFAllocatorRef allocator, CFStringRef name, OpaqueTestWidget **widgetOut) {
    if (!widgetOut || !name) {
        SV_LOG(3, "TestWidgetCreate", __LINE__, "widgetOut or name is NULL");
        return -12700;
    }
    *widgetOut = nullptr;
    OpaqueTestWidget *widget = gTestWidgetClass.create(allocator);
    if (!widget) {
        SV_LOG_STATUS(3, "TestWidgetCreate", __LINE__, -12701, "allocation failed (%s) for %p", widgetOut);
        return -12701;
    }
    widget->name = static_cast<CFStringRef>(CFRetain(name));
    widget->serial = 42;
    *widgetOut = widget;
    return 0;
}

using sorvel_test::LogCapture;

TEST(SVObject, TypeIDRegistersOnceAndStaysTheSame) {
    CFTypeID first = gTestWidgetClass.typeID();
    EXPECT_TRUE(gTestWidgetClass.isRegistered());
    EXPECT_NE(first, static_cast<CFTypeID>(_kCFRuntimeNotATypeID));
    EXPECT_EQ(gTestWidgetClass.typeID(), first);
    EXPECT_EQ(_CFRuntimeGetClassWithTypeID(first), &kTestWidgetClass);
}

// Sixteen threads race into the first call; all must get one identifier,
// and exactly one class-table slot may have been used.
TEST(SVObject, ConcurrentFirstCallsRegisterExactlyOnce) {
    static const CFRuntimeClass kRacer = {0, "Racer", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    static const CFRuntimeClass kProbe = {0, "Probe", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    static constinit sorvel::SVRuntimeClass<OpaqueTestWidget> racer{kRacer};
    ASSERT_FALSE(racer.isRegistered());

    CFTypeID before = _CFRuntimeRegisterClass(&kProbe);
    constexpr int kThreads = 16;
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<CFTypeID> seen(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&, t] {
            ready++;
            while (!go) {
            }
            seen[t] = racer.typeID();
        });
    }
    while (ready < kThreads) std::this_thread::yield();
    go = true;
    for (auto &thread : threads) thread.join();
    CFTypeID after = _CFRuntimeRegisterClass(&kProbe);

    for (CFTypeID id : seen) EXPECT_EQ(id, seen[0]);
    EXPECT_EQ(_CFRuntimeGetClassWithTypeID(seen[0]), &kRacer);
    EXPECT_EQ(after - before, 2u) << "the racing class took exactly one slot";
}

TEST(SVObject, CreationFillsFieldsAndRetainsWhatItKeeps) {
    gFinalized = 0;
    CFMutableStringRef name = CFStringCreateMutable(nullptr, 0);
    CFStringAppendCString(name, "cam", kCFStringEncodingUTF8);
    OpaqueTestWidget *widget = nullptr;
    ASSERT_EQ(TestWidgetCreate(nullptr, name, &widget), 0);
    EXPECT_EQ(CFGetTypeID(widget), gTestWidgetClass.typeID());
    EXPECT_TRUE(gTestWidgetClass.isInstance(widget));
    EXPECT_FALSE(gTestWidgetClass.isInstance(name));
    EXPECT_FALSE(gTestWidgetClass.isInstance(nullptr));
    EXPECT_EQ(CFGetRetainCount(name), 2);
    EXPECT_EQ(widget->serial, 42);

    // The runtime's description and "%@" both use the class's routine.
    CFStringRef viaRuntime = CFCopyDescription(widget);
    CFStringRef viaFormat = CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%@"), widget);
    EXPECT_TRUE(CFEqual(viaRuntime, viaFormat));
    char text[128];
    ASSERT_TRUE(CFStringGetCString(viaFormat, text, sizeof text, kCFStringEncodingUTF8));
    EXPECT_NE(std::string(text).find("name = cam, serial = 42"), std::string::npos) << text;
    CFRelease(viaRuntime);
    CFRelease(viaFormat);

    CFRelease(widget);
    EXPECT_EQ(gFinalized, 1);
    EXPECT_EQ(CFGetRetainCount(name), 1) << "finalize gave the name back";
    CFRelease(name);
}

TEST(SVObject, AllocationFailureIsReportedAndLogged) {
    LogCapture capture;
    XPLogSetThreshold(3);
    sorvel_test::TestAllocator allocator;
    allocator.failAlways();
    OpaqueTestWidget *widget = reinterpret_cast<OpaqueTestWidget *>(0x1);
    EXPECT_EQ(TestWidgetCreate(allocator.get(), CFSTR("x"), &widget), -12701);
    EXPECT_EQ(widget, nullptr);
    EXPECT_EQ(allocator.outstanding(), 0);
    ASSERT_EQ(capture.count(), 1u);
    EXPECT_EQ(capture.lines()[0].level, 3);
    EXPECT_EQ(capture.lines()[0].function, "TestWidgetCreate");
    EXPECT_EQ(capture.lines()[0].path, "Sorvel/Sources/SVTestWidget");
    EXPECT_EQ(capture.lines()[0].message.rfind("allocation failed (-12701) for 0x", 0), 0u)
        << capture.lines()[0].message;
}

TEST(SVObject, AllocatorIsKeptByTheInstance) {
    sorvel_test::TestAllocator allocator;
    OpaqueTestWidget *widget = nullptr;
    ASSERT_EQ(TestWidgetCreate(allocator.get(), CFSTR("y"), &widget), 0);
    EXPECT_EQ(CFGetAllocator(widget), allocator.get());
    EXPECT_EQ(allocator.outstanding(), 1);
    CFRelease(widget);
    EXPECT_EQ(allocator.outstanding(), 0);
}

// The gate: a level-3 message is dropped while the module's threshold is 1
// or 2, and emitted at 3 or more without asking the log library again.
TEST(SVLog, GateDropsAndEmitsByThreshold) {
    struct Case {
        int threshold;
        int level;
        bool emitted;
    };
    const Case cases[] = {{1, 3, false}, {2, 3, false}, {3, 3, true}, {4, 3, true}, {5, 3, true},
                          {2, 2, true},  {3, 4, false}, {4, 4, true}, {0, 2, false}};
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "threshold " << c.threshold << ", level " << c.level);
        LogCapture capture;
        XPLogSetThreshold(c.threshold);
        gSVLogModule.record.threshold = 0;
        SV_LOG(c.level, "SVGateProbe", 123, "value %d", 7);
        ASSERT_EQ(capture.count(), c.emitted ? 1u : 0u);
        if (c.emitted) {
            EXPECT_EQ(capture.lines()[0].message, "value 7");
            EXPECT_EQ(capture.lines()[0].line, 123);
            EXPECT_EQ(capture.lines()[0].level, c.level);
        }
    }
}

TEST(SVLog, CachedThresholdIsUsedWithoutAskingAgain) {
    LogCapture capture;
    XPLogSetThreshold(3);
    gSVLogModule.record.threshold = 0;
    SV_LOG(3, "SVGateProbe", __LINE__, "first");
    EXPECT_EQ(gSVLogModule.record.threshold, 3) << "the first message caches the threshold";
    ASSERT_EQ(capture.count(), 1u);

    // The process now says 1, but the module still holds 3: the gate trusts
    // its cached value and does not consult the log library.
    XPLogSetThreshold(1);
    gSVLogModule.record.threshold = 3;
    SV_LOG(3, "SVGateProbe", __LINE__, "second");
    EXPECT_EQ(capture.count(), 2u);

    // A cached 2 drops level 3 outright, whatever the process says.
    XPLogSetThreshold(5);
    gSVLogModule.record.threshold = 2;
    SV_LOG(3, "SVGateProbe", __LINE__, "third");
    EXPECT_EQ(capture.count(), 2u);
}

TEST(SVLog, StatusIsRenderedOnlyForEmittedMessages) {
    LogCapture capture;
    XPLogSetThreshold(3);
    gSVLogModule.record.threshold = 0;
    SV_LOG_STATUS(3, "SVStatusProbe", 10, 0x7761743F /* 'wat?' */, "failed with %s after %d tries", 3);
    SV_LOG_STATUS_AT("", 3, "SVStatusProbe", 11, -12760, "%s");
    ASSERT_EQ(capture.count(), 2u);
    EXPECT_EQ(capture.lines()[0].message, "failed with 'wat?' after 3 tries");
    EXPECT_EQ(capture.lines()[1].message, "-12760");
    EXPECT_EQ(capture.lines()[1].path, "");
}

using SVLogDeathTest = testing::Test;

TEST(SVLogDeathTest, FatalStopsLogAndAbort) {
    EXPECT_DEATH(SV_BUG("SVBugProbe", 77), "SVBugProbe \\[Sorvel/Sources/SVTestWidget:77\\] BUG");
    EXPECT_DEATH(SV_NOT_YET_IMPLEMENTED("SVTimebaseCopyMaster", 88),
                 "SVTimebaseCopyMaster \\[Sorvel/Sources/SVTestWidget:88\\] NOT YET IMPLEMENTED");
    EXPECT_DEATH(
        {
            XPLogSetThreshold(3);
            SV_FATAL("SVClockInvalidate", 99, "can't invalidate the host clock");
        },
        "can't invalidate the host clock");
}

}  // namespace
