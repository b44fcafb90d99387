// SPDX-License-Identifier: Apache-2.0
// Entry points whose work allocates through the standard library answer a
// failed allocation with their family's allocation status (NULL for calls
// that return an object) instead of ending the process, leave nothing
// behind (the ASan build checks for leaks), and work again once memory is
// there.  The test executable replaces the global operator new so that the
// k-th allocation made on the test thread throws; the library is a shared
// object, so the replacement serves its allocations too.  (The platform
// library's own allocations are never failed; see tFailIn.)  Every k is tried,
// from the first allocation the call makes to the run in which none fails.
#include <CoreFoundation/CFRunLoop.h>
#include <Sorvel/SVBufferQueue.h>
#include <Sorvel/SVClock.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVSampleDescription.h>
#include <Sorvel/SVTimebase.h>
#include <dispatch/dispatch.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/TestData.h"

// ThreadSanitizer's runtime defines operator new itself, so a second
// definition cannot be linked there.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SORVEL_TEST_NO_FAILING_NEW 1
#endif
#endif

namespace {

// -1: allocations succeed; k >= 0: the k-th allocation the library makes
// from now throws.  Only the library's own allocations are counted: some
// of the platform library's sit inside its own noexcept calls (arming a
// timer source), where a throw ends the process; the platform is not what
// this test is about.
thread_local long tFailIn = -1;
thread_local bool tFailed = false;

}  // namespace

#ifndef SORVEL_TEST_NO_FAILING_NEW
namespace {

bool fromSorvel(const void *caller) {
    static const void *const base = [] {
        Dl_info info{};
        return dladdr(reinterpret_cast<const void *>(&SVTimebaseGetTypeID), &info) ? info.dli_fbase : nullptr;
    }();
    Dl_info info{};
    return dladdr(caller, &info) && info.dli_fbase == base;
}

}  // namespace

void *operator new(std::size_t size) {
    if (tFailIn >= 0 && fromSorvel(__builtin_return_address(0)) && tFailIn-- == 0) {
        tFailed = true;
        throw std::bad_alloc();
    }
    if (void *p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void *p) noexcept {
    std::free(p);
}
void operator delete(void *p, std::size_t) noexcept {
    std::free(p);
}
// Every other plain form goes through the same pair, so that a block is
// freed the way it was allocated whatever form made it (AddressSanitizer
// checks the pairing).  Only the plain form above is ever failed.
void *operator new[](std::size_t size) {
    if (void *p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return std::malloc(size ? size : 1);
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
    return std::malloc(size ? size : 1);
}
void operator delete[](void *p) noexcept {
    std::free(p);
}
void operator delete[](void *p, std::size_t) noexcept {
    std::free(p);
}
void operator delete(void *p, const std::nothrow_t &) noexcept {
    std::free(p);
}
void operator delete[](void *p, const std::nothrow_t &) noexcept {
    std::free(p);
}
#endif

namespace {

using sorvel_test::readFile;

// Calls `call` once for each allocation it makes, with that allocation
// failing, then once with all of them granted.  `call` makes the one entry
// point call and returns its status; `after` then checks and cleans up,
// with allocations granted again.
void failEachAllocation(const std::string &name, OSStatus allocationStatus, const std::function<OSStatus()> &call,
                        const std::function<void(OSStatus)> &after) {
#ifdef SORVEL_TEST_NO_FAILING_NEW
    GTEST_SKIP() << "operator new cannot be replaced under ThreadSanitizer";
#endif
    for (long k = 0; k < 100000; ++k) {
        tFailed = false;
        tFailIn = k;
        const OSStatus status = call();
        tFailIn = -1;
        after(status);
        if (!tFailed) {
            EXPECT_EQ(status, 0) << name << " with every allocation granted";
            EXPECT_GT(k, 0) << name << " makes no allocation through operator new";
            return;
        }
        EXPECT_EQ(status, allocationStatus) << name << " with allocation " << k << " failing";
    }
    ADD_FAILURE() << name << " never ran without a failure";
}

TEST(AllocationBoundary, AddingATimerFailsCleanlyAndCanBeRepeated) {
    SVTimebaseRef timebase = nullptr;
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &timebase), 0);
    dispatch_queue_t queue = dispatch_queue_create("allocation boundary", DISPATCH_QUEUE_SERIAL);
    dispatch_source_t source = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
    failEachAllocation(
        "SVTimebaseAddTimerDispatchSource", kSVTimebaseError_AllocationFailed,
        [&] { return SVTimebaseAddTimerDispatchSource(timebase, source); },
        [&](OSStatus status) {
            // A failed add leaves the source added nowhere.
            sorvel_test::LogCapture quiet;
            EXPECT_EQ(SVTimebaseRemoveTimerDispatchSource(timebase, source),
                      status == 0 ? 0 : kSVTimebaseError_InvalidTimer);
        });
    CFRunLoopTimerRef timer = CFRunLoopTimerCreateWithHandler(nullptr, CFAbsoluteTimeGetCurrent() + 1e9, 1e9, 0, 0,
                                                              ^(CFRunLoopTimerRef){
                                                              });
    ASSERT_NE(timer, nullptr);
    failEachAllocation(
        "SVTimebaseAddTimer", kSVTimebaseError_AllocationFailed,
        [&] { return SVTimebaseAddTimer(timebase, timer, CFRunLoopGetCurrent()); },
        [&](OSStatus status) {
            sorvel_test::LogCapture quiet;
            EXPECT_EQ(SVTimebaseRemoveTimer(timebase, timer), status == 0 ? 0 : kSVTimebaseError_InvalidTimer);
        });
    CFRunLoopTimerInvalidate(timer);
    CFRelease(timer);
    dispatch_source_cancel(source);
    dispatch_release(source);
    dispatch_release(queue);
    CFRelease(timebase);
}

SVFormatDescriptionRef describeRecord(const std::vector<uint8_t> &record, bool hevc, OSStatus *status) {
    SVFormatDescriptionRef desc = nullptr;
    *status = hevc ? SVVideoFormatDescriptionCreateFromHEVCDecoderConfigurationRecord(nullptr, record.data(),
                                                                                      record.size(), nullptr, &desc)
                   : SVVideoFormatDescriptionCreateFromAVCDecoderConfigurationRecord(nullptr, record.data(),
                                                                                     record.size(), &desc);
    return desc;
}

TEST(AllocationBoundary, ParameterSetDescriptionsFailCleanly) {
    constexpr OSStatus kFailed = kSVFormatDescriptionError_AllocationFailed;
    for (const char *name : {"avc_high_720x576_tff_sar16x11.avcC", "hevc_main_1920x1080_bt709.hvcC"}) {
        const std::vector<uint8_t> record = readFile(std::string("records/") + name);
        ASSERT_FALSE(record.empty()) << name;
        const bool hevc = std::string(name).ends_with(".hvcC");
        SVFormatDescriptionRef made = nullptr;
        failEachAllocation(
            std::string(name) + " record", kFailed,
            [&] {
                OSStatus status;
                made = describeRecord(record, hevc, &status);
                return status;
            },
            [&](OSStatus status) {
                EXPECT_EQ(made == nullptr, status != 0);
                if (made) CFRelease(made);
                made = nullptr;
            });
        OSStatus status;
        SVFormatDescriptionRef desc = describeRecord(record, hevc, &status);
        ASSERT_EQ(status, 0);
        SVVideoCodingInfo info;
        failEachAllocation(
            std::string(name) + " coding info", kFailed,
            [&] { return SVVideoFormatDescriptionGetCodingInfo(desc, &info); }, [](OSStatus) {});
        CFDataRef data = nullptr;
        failEachAllocation(
            std::string(name) + " sample entry", kSVSampleDescriptionError_AllocationFailed,
            [&] { return SVSampleDescriptionCopyAsBigEndianData(nullptr, desc, nullptr, &data); },
            [&](OSStatus status) {
                EXPECT_EQ(data == nullptr, status != 0);
                if (data) CFRelease(data);
                data = nullptr;
            });
        CFRelease(desc);
    }
}

TEST(AllocationBoundary, ReadingSampleEntriesFailsCleanly) {
    for (const char *name : {"video/avc1_bff.mov.entry", "sound/aac_44.mp4.entry"}) {
        const std::vector<uint8_t> entry = readFile(std::string("entries/") + name);
        ASSERT_FALSE(entry.empty()) << name;
        const SVMediaType type = std::string(name).starts_with("video") ? kSVMediaType_Video : kSVMediaType_Audio;
        SVFormatDescriptionRef desc = nullptr;
        failEachAllocation(
            name, kSVSampleDescriptionError_AllocationFailed,
            [&] {
                return SVSampleDescriptionCreateFormatDescription(nullptr, type, entry.data(), entry.size(), nullptr,
                                                                  &desc);
            },
            [&](OSStatus status) {
                EXPECT_EQ(desc == nullptr, status != 0);
                if (desc) CFRelease(desc);
                desc = nullptr;
            });
    }
}

}  // namespace
