// SPDX-License-Identifier: Apache-2.0
// Queues, timers, sources, semaphores and groups: order and exclusion on a
// serial queue, dispatch_sync's place among async items, dispatch_after and
// repeating timers against the monotonic clock (medians and drift, not
// single cases), coalescing while suspended, cancellation, the re-arm
// primitive's exactly-once rule, misuse log lines, and the deadlock stop.
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "support/LogCapture.h"

namespace {

using sorvel_test::LogCapture;

uint64_t now() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * NSEC_PER_SEC + static_cast<uint64_t>(t.tv_nsec);
}

bool waitFor(const std::atomic<int> &counter, int value, int timeoutMs = 5000) {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (counter.load() < value) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

TEST(DispatchTimeTest, SaturatesAndKeepsForever) {
    uint64_t before = now();
    dispatch_time_t t = dispatch_time(DISPATCH_TIME_NOW, 5 * NSEC_PER_MSEC);
    EXPECT_GE(t, before + 5 * NSEC_PER_MSEC);
    EXPECT_LE(t, now() + 5 * NSEC_PER_MSEC);
    EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER, -5), DISPATCH_TIME_FOREVER);
    EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER - 10, 100), DISPATCH_TIME_FOREVER);
    EXPECT_EQ(dispatch_time(100, INT64_MAX), uint64_t{100} + static_cast<uint64_t>(INT64_MAX));
    EXPECT_EQ(dispatch_time(100, -1000), 1u);
    EXPECT_EQ(dispatch_time(1000, -100), 900u);
}

TEST(DispatchQueueTest, SerialQueueRunsInOrderOneAtATime) {
    dispatch_queue_t queue = dispatch_queue_create("serial", DISPATCH_QUEUE_SERIAL);
    EXPECT_STREQ(dispatch_queue_get_label(queue), "serial");
    std::vector<int> order;
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::vector<int> *orderP = &order;
    std::atomic<int> *insideP = &inside, *overlapsP = &overlaps;
    // Submitted from several threads at once; each thread's items keep
    // their order, and no two items overlap.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 100; i++) {
                int value = t * 1000 + i;
                dispatch_async(queue, ^{
                  if (insideP->fetch_add(1) != 0) overlapsP->fetch_add(1);
                  orderP->push_back(value);
                  insideP->fetch_sub(1);
                });
            }
        });
    for (auto &thread : threads) thread.join();
    dispatch_sync(queue, ^{
                  });
    EXPECT_EQ(overlaps.load(), 0);
    ASSERT_EQ(order.size(), 400u);
    for (int t = 0; t < 4; t++) {
        int last = -1;
        for (int v : order)
            if (v / 1000 == t) {
                EXPECT_GT(v, last);
                last = v;
            }
    }
    dispatch_release(queue);
}

TEST(DispatchQueueTest, SyncRunsAfterEarlierItemsAndBeforeLaterOnes) {
    dispatch_queue_t queue = dispatch_queue_create(nullptr, DISPATCH_QUEUE_SERIAL);
    EXPECT_STREQ(dispatch_queue_get_label(queue), "");
    std::vector<int> order;
    std::vector<int> *orderP = &order;
    std::mutex *lock = new std::mutex;
    dispatch_async(queue, ^{
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      std::lock_guard<std::mutex> g(*lock);
      orderP->push_back(1);
    });
    std::thread later([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        dispatch_async(queue, ^{
          std::lock_guard<std::mutex> g(*lock);
          orderP->push_back(3);
        });
    });
    dispatch_sync(queue, ^{
      std::lock_guard<std::mutex> g(*lock);
      orderP->push_back(2);
    });
    later.join();
    dispatch_sync(queue, ^{
                  });
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    dispatch_release(queue);
    delete lock;
}

TEST(DispatchQueueTest, SuspendHoldsItemsUntilResume) {
    dispatch_queue_t queue = dispatch_queue_create("suspend", DISPATCH_QUEUE_SERIAL);
    std::atomic<int> ran{0};
    std::atomic<int> *counter = &ran;
    dispatch_suspend(queue);
    dispatch_async(queue, ^{
      counter->fetch_add(1);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(ran.load(), 0);
    dispatch_resume(queue);
    EXPECT_TRUE(waitFor(ran, 1));
    LogCapture log;
    dispatch_resume(queue);
    EXPECT_TRUE(log.contains("is not suspended"));
    dispatch_release(queue);
}

TEST(DispatchQueueTest, GlobalQueuesRunConcurrentlyAndAreImmortal) {
    dispatch_queue_t global = dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0);
    EXPECT_EQ(global, dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0));
    dispatch_release(global);  // no effect
    // Two items that wait for each other finish only if they run at once.
    dispatch_semaphore_t a = dispatch_semaphore_create(0), b = dispatch_semaphore_create(0);
    dispatch_group_t group = dispatch_group_create();
    long resultStorage[2] = {-5, -5};
    long *results = resultStorage;
    dispatch_group_async(group, global, ^{
      dispatch_semaphore_signal(a);
      results[0] = dispatch_semaphore_wait(b, dispatch_time(DISPATCH_TIME_NOW, 5 * NSEC_PER_SEC));
    });
    dispatch_group_async(group, global, ^{
      dispatch_semaphore_signal(b);
      results[1] = dispatch_semaphore_wait(a, dispatch_time(DISPATCH_TIME_NOW, 5 * NSEC_PER_SEC));
    });
    EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_FOREVER), 0);
    EXPECT_EQ(results[0], 0);
    EXPECT_EQ(results[1], 0);
    dispatch_release(a);
    dispatch_release(b);
    dispatch_release(group);
}

TEST(DispatchSemaphoreTest, CountsAndTimesOut) {
    EXPECT_EQ(dispatch_semaphore_create(-1), nullptr);
    dispatch_semaphore_t s = dispatch_semaphore_create(2);
    EXPECT_EQ(dispatch_semaphore_wait(s, DISPATCH_TIME_NOW), 0);
    EXPECT_EQ(dispatch_semaphore_wait(s, DISPATCH_TIME_NOW), 0);
    EXPECT_NE(dispatch_semaphore_wait(s, DISPATCH_TIME_NOW), 0);
    uint64_t before = now();
    EXPECT_NE(dispatch_semaphore_wait(s, dispatch_time(DISPATCH_TIME_NOW, 10 * NSEC_PER_MSEC)), 0);
    EXPECT_GE(now() - before, 10 * NSEC_PER_MSEC);
    EXPECT_EQ(dispatch_semaphore_signal(s), 0) << "nobody waiting";
    EXPECT_EQ(dispatch_semaphore_wait(s, DISPATCH_TIME_FOREVER), 0);
    dispatch_release(s);
}

TEST(DispatchGroupTest, NotifyRunsOnceWhenEmptyAndLeaveIsChecked) {
    dispatch_group_t group = dispatch_group_create();
    dispatch_queue_t queue = dispatch_queue_create("group", DISPATCH_QUEUE_SERIAL);
    std::atomic<int> notified{0};
    std::atomic<int> *counter = &notified;
    dispatch_group_enter(group);
    dispatch_group_enter(group);
    dispatch_group_notify(group, queue, ^{
      counter->fetch_add(1);
    });
    EXPECT_NE(dispatch_group_wait(group, DISPATCH_TIME_NOW), 0);
    dispatch_group_leave(group);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(notified.load(), 0);
    dispatch_group_leave(group);
    EXPECT_TRUE(waitFor(notified, 1));
    EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_NOW), 0);
    LogCapture log;
    dispatch_group_leave(group);
    EXPECT_TRUE(log.contains("left more often than entered"));
    dispatch_sync(queue, ^{
                  });
    EXPECT_EQ(notified.load(), 1);
    dispatch_release(queue);
    dispatch_release(group);
}

TEST(DispatchAfterTest, MedianLatenessIsSmallAndNeverEarly) {
    dispatch_queue_t queue = dispatch_queue_create("after", DISPATCH_QUEUE_SERIAL);
    constexpr int kItems = 40;
    __block std::vector<int64_t> lateness;
    std::atomic<int> done{0};
    std::atomic<int> *counter = &done;
    uint64_t start = now();
    for (int i = 0; i < kItems; i++) {
        dispatch_time_t when = start + (i + 1) * NSEC_PER_MSEC;
        dispatch_after(when, queue, ^{
          lateness.push_back(static_cast<int64_t>(now() - when));
          counter->fetch_add(1);
        });
    }
    dispatch_after(DISPATCH_TIME_FOREVER, queue, ^{
      counter->fetch_add(1000);
    });
    ASSERT_TRUE(waitFor(done, kItems));
    dispatch_sync(queue, ^{
                  });
    std::sort(lateness.begin(), lateness.end());
    EXPECT_GE(lateness.front(), 0);
    EXPECT_LT(lateness[kItems / 2], static_cast<int64_t>(10 * NSEC_PER_MSEC));
    EXPECT_LT(done.load(), 1000) << "FOREVER never runs";
    dispatch_release(queue);
}

TEST(DispatchSourceTest, RepeatingTimerKeepsItsGridWithoutDrift) {
    dispatch_queue_t queue = dispatch_queue_create("repeat", DISPATCH_QUEUE_SERIAL);
    dispatch_source_t timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
    constexpr int kFirings = 100;
    __block std::vector<int64_t> lateness;
    __block uint64_t fired = 0;
    std::atomic<int> done{0};
    std::atomic<int> *counter = &done;
    uint64_t start = dispatch_time(DISPATCH_TIME_NOW, 2 * NSEC_PER_MSEC);
    dispatch_source_set_event_handler(timer, ^{
      uint64_t t = now();
      fired += dispatch_source_get_data(timer);
      lateness.push_back(static_cast<int64_t>(t - (start + (fired - 1) * NSEC_PER_MSEC)));
      if (fired >= kFirings && counter->load() == 0) counter->store(1);
    });
    dispatch_source_set_timer(timer, start, NSEC_PER_MSEC, 0);
    dispatch_resume(timer);
    ASSERT_TRUE(waitFor(done, 1, 10000));
    dispatch_source_cancel(timer);
    dispatch_sync(queue, ^{
                  });
    std::vector<int64_t> head(lateness.begin(), lateness.begin() + 20), tail(lateness.end() - 20, lateness.end());
    std::sort(head.begin(), head.end());
    std::sort(tail.begin(), tail.end());
    // Lateness measured from the grid: it does not grow along the run.
    // (Bounds leave room for a loaded machine; a drifting timer would grow
    // by its per-firing error times 80 firings.)
    EXPECT_LT(head[10], static_cast<int64_t>(5 * NSEC_PER_MSEC));
    EXPECT_LT(tail[10], static_cast<int64_t>(5 * NSEC_PER_MSEC));
    EXPECT_LT(tail[10] - head[10], static_cast<int64_t>(3 * NSEC_PER_MSEC));
    dispatch_release(timer);
    dispatch_release(queue);
}

TEST(DispatchSourceTest, SuspendedTimerCoalescesAndCancelHandlerRunsOnceLast) {
    dispatch_queue_t queue = dispatch_queue_create("coalesce", DISPATCH_QUEUE_SERIAL);
    dispatch_source_t timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
    __block std::vector<uintptr_t> data;
    std::atomic<int> cancelled{0};
    std::atomic<int> *cancelCount = &cancelled;
    dispatch_source_set_event_handler(timer, ^{
      data.push_back(dispatch_source_get_data(timer));
    });
    dispatch_source_set_cancel_handler(timer, ^{
      cancelCount->fetch_add(1);
    });
    dispatch_source_set_timer(timer, DISPATCH_TIME_NOW, NSEC_PER_MSEC, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // made suspended
    dispatch_resume(timer);
    dispatch_sync(queue, ^{
                  });
    dispatch_suspend(timer);
    dispatch_sync(queue, ^{
                  });
    ASSERT_GE(data.size(), 1u);
    EXPECT_GE(data[0], 5u) << "firings while suspended arrive as one call";
    EXPECT_EQ(dispatch_source_testcancel(timer), 0);
    dispatch_source_cancel(timer);
    dispatch_source_cancel(timer);
    EXPECT_NE(dispatch_source_testcancel(timer), 0);
    size_t calls = data.size();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(cancelled.load(), 0) << "waits for resume";
    dispatch_resume(timer);
    EXPECT_TRUE(waitFor(cancelled, 1));
    dispatch_sync(queue, ^{
                  });
    EXPECT_EQ(data.size(), calls) << "no event handler after cancel";
    EXPECT_EQ(cancelled.load(), 1);
    dispatch_release(timer);
    dispatch_release(queue);
}

TEST(DispatchSourceTest, DataAddSumsMergesAndTimerCallsAreRefused) {
    dispatch_queue_t queue = dispatch_queue_create("data", DISPATCH_QUEUE_SERIAL);
    dispatch_source_t source = dispatch_source_create(DISPATCH_SOURCE_TYPE_DATA_ADD, 0, 0, queue);
    __block uintptr_t total = 0;
    dispatch_source_set_event_handler(source, ^{
      total += dispatch_source_get_data(source);
    });
    dispatch_source_merge_data(source, 3);
    dispatch_source_merge_data(source, 4);
    dispatch_resume(source);
    dispatch_sync(queue, ^{
                  });
    EXPECT_EQ(total, 7u);
    LogCapture log;
    dispatch_source_set_timer(source, DISPATCH_TIME_NOW, 0, 0);
    EXPECT_TRUE(log.contains("is not a timer source"));
    EXPECT_EQ(_dispatch_source_timer_rearm(source, DISPATCH_TIME_NOW, nullptr, 0, nullptr), -1);
    EXPECT_EQ(_dispatch_source_is_timer(source), 0);
    EXPECT_EQ(dispatch_source_create(nullptr, 0, 0, queue), nullptr);
    EXPECT_TRUE(log.contains("unknown source type"));
    dispatch_source_cancel(source);
    dispatch_release(source);
    dispatch_release(queue);
}

TEST(DispatchSourceTest, ReArmCountsADueDeadlineExactlyOnce) {
    dispatch_queue_t queue = dispatch_queue_create("rearm", DISPATCH_QUEUE_SERIAL);
    dispatch_source_t timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
    std::atomic<int> calls{0};
    std::atomic<int> *counter = &calls;
    dispatch_source_set_event_handler(timer, ^{
      counter->fetch_add(static_cast<int>(dispatch_source_get_data(timer)));
    });
    dispatch_resume(timer);
    uint64_t firings = 0;
    // Armed in the past: the conditional re-arm finds it due, counts it and
    // refuses to re-arm.
    EXPECT_EQ(_dispatch_source_timer_rearm(timer, 1, nullptr, 0, &firings), 1);
    uint64_t expected = firings;
    EXPECT_EQ(_dispatch_source_timer_rearm(timer, dispatch_time(DISPATCH_TIME_NOW, 60 * NSEC_PER_SEC), &expected, 0,
                                           &firings),
              0);
    EXPECT_EQ(firings, expected + 1);
    EXPECT_TRUE(waitFor(calls, 1));
    // Not due: the conditional re-arm applies; the discard drops nothing due.
    expected = firings;
    EXPECT_EQ(_dispatch_source_timer_rearm(timer, dispatch_time(DISPATCH_TIME_NOW, 60 * NSEC_PER_SEC), &expected, 0,
                                           &firings),
              1);
    EXPECT_EQ(_dispatch_source_timer_rearm(timer, DISPATCH_TIME_FOREVER, nullptr, 1, &firings), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(_dispatch_source_is_timer(timer), 1);
    dispatch_source_cancel(timer);
    dispatch_release(timer);
    dispatch_release(queue);
}

TEST(DispatchMisuseTest, NullObjectsAreLogged) {
    LogCapture log;
    dispatch_async(nullptr, ^{
                   });
    dispatch_source_cancel(nullptr);
    dispatch_release(static_cast<dispatch_queue_t>(nullptr));
    dispatch_group_enter(nullptr);
    EXPECT_EQ(dispatch_semaphore_wait(nullptr, DISPATCH_TIME_NOW), -1);
    EXPECT_GE(log.count(), 5u);
    EXPECT_TRUE(log.contains("queue is NULL"));
    EXPECT_TRUE(log.contains("source is NULL"));
}

TEST(DispatchDeathTest, SyncOntoTheRunningQueueStops) {
    EXPECT_DEATH(
        {
            dispatch_queue_t queue = dispatch_queue_create("self", DISPATCH_QUEUE_SERIAL);
            dispatch_sync(queue, ^{
              dispatch_sync(queue, ^{
                            });
            });
        },
        "BUG: dispatch_sync onto the queue \"self\"");
}

}  // namespace
