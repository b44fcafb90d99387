// SPDX-License-Identifier: Apache-2.0
// Child timebases released on one thread while their master's rate and time
// change on another.  A child's master-notification handler reads the
// child's rate; the notification center must not let that call run on a
// child whose last release has returned.  Run under the sanitizers, a read
// of a freed child is reported; in any build the counts below must hold.

#include <CoreFoundation/CoreFoundation.h>
#include <Sorvel/SVSync.h>
#include <Sorvel/SVTimebase.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

// Counts the rate changes posted by anything but the master: the re-posts
// of running children.
struct Reposts {
    const void *master;
    std::atomic<long> count{0};
};

void countRepost(CFNotificationCenterRef, void *observer, CFNotificationName, const void *object, CFDictionaryRef) {
    auto *reposts = static_cast<Reposts *>(observer);
    if (object != reposts->master) reposts->count.fetch_add(1, std::memory_order_relaxed);
}

TEST(SVTimebaseReleaseRace, ChildrenReleasedWhileTheMasterChangesRateAndTime) {
    SVTimebaseRef master = nullptr;
    ASSERT_EQ(SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &master), 0);
    ASSERT_EQ(SVTimebaseSetRate(master, 1.0), 0);
    CFNotificationCenterRef center = CFNotificationCenterGetLocalCenter();
    Reposts reposts{master};
    // Any object: only the children re-post rate changes.
    CFNotificationCenterAddObserver(center, &reposts, countRepost, kSVTimebaseNotification_EffectiveRateChanged,
                                    nullptr, CFNotificationSuspensionBehaviorDeliverImmediately);

    constexpr int kChildren = 20000;
    std::atomic<bool> done{false};
    std::atomic<long> masterChanges{0};
    std::thread changer([&] {
        static const double kRates[] = {2.0, 0.5, 1.0, -1.0};
        for (long i = 0; !done.load(std::memory_order_relaxed); ++i) {
            EXPECT_EQ(SVTimebaseSetRate(master, kRates[i % 4]), 0);
            if (i % 8 == 0) EXPECT_EQ(SVTimebaseSetTime(master, SVTimeMake(i, 600)), 0);
            masterChanges.fetch_add(1, std::memory_order_relaxed);
        }
    });
    // Children come and go in small batches, so each post of the master
    // reaches several children while some of them are being released, and
    // keep coming until the master has also changed many times, so the two
    // loops overlap however the threads are scheduled.
    constexpr int kBatch = 8;
    for (int i = 0; i < kChildren || masterChanges.load(std::memory_order_relaxed) < 1000; i += kBatch) {
        SVTimebaseRef children[kBatch] = {};
        for (int c = 0; c < kBatch; ++c) {
            ASSERT_EQ(SVTimebaseCreateWithMasterTimebase(nullptr, master, &children[c]), 0);
            // Half the children run, so their handler goes on to re-post.
            if (c % 2) ASSERT_EQ(SVTimebaseSetRate(children[c], 1.0), 0);
        }
        for (SVTimebaseRef child : children) CFRelease(child);
    }
    done.store(true);
    changer.join();

    // No child is registered any more: nothing re-posts.
    const long before = reposts.count.load();
    EXPECT_EQ(SVTimebaseSetRate(master, 3.0), 0);
    EXPECT_EQ(reposts.count.load(), before);
    CFNotificationCenterRemoveEveryObserver(center, &reposts);
    EXPECT_EQ(CFGetRetainCount(master), 1);
    CFRelease(master);
}

}  // namespace
