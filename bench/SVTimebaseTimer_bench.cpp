// SPDX-License-Identifier: Apache-2.0
// Wake-up error of a timebase timer: 1,000 firings 1 ms apart, each handler
// arming the next, reported as the median and 99th percentile of "handler
// ran" minus "deadline asked for", in microseconds (counters median_us and
// p99_us).  Side by side in the same run:
//   SVTimebase timer dispatch source     the timebase on the host clock at rate 1
//   SVTimebase run-loop timer            the same through a run loop
//   gst_clock_id_wait_async              GStreamer's system clock (monotonic)
//   clock_nanosleep loop                 the floor: a bare absolute sleep loop,
//                                        with the default and the minimum timer slack
//   timerfd loop                         the floor through a timerfd
// Each benchmark is one iteration of about a second of real time.
#include <CoreFoundation/CFRunLoop.h>
#include <Sorvel/SVTimebase.h>
#include <benchmark/benchmark.h>
#include <dispatch/dispatch.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#if SORVEL_BENCH_HAVE_GSTREAMER
#include <gst/gst.h>
#endif

namespace {

constexpr int kFirings = 1000;
constexpr int64_t kSpacingNs = 1000000;

int64_t monotonicNow() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

void report(benchmark::State &state, std::vector<int64_t> errors) {
    std::sort(errors.begin(), errors.end());
    state.counters["median_us"] = errors[errors.size() / 2] / 1000.0;
    state.counters["p99_us"] = errors[errors.size() * 99 / 100] / 1000.0;
    state.counters["min_us"] = errors.front() / 1000.0;
}

struct SourceRun {
    SVTimebaseRef timebase;
    dispatch_source_t source;
    SVTime next;
    std::vector<int64_t> errors;
    dispatch_semaphore_t done;
};

void sourceFired(void *context) {
    auto *run = static_cast<SourceRun *>(context);
    int64_t now = monotonicNow();
    SVTime deadline;
    SVTimebaseGetTimerDispatchSourceDeadline(run->timebase, run->source, &deadline);
    run->errors.push_back(now - deadline.value);
    if (static_cast<int>(run->errors.size()) == kFirings) {
        dispatch_semaphore_signal(run->done);
        return;
    }
    run->next = SVTimeAdd(run->next, SVTimeMake(kSpacingNs, 1000000000));
    SVTimebaseSetTimerDispatchSourceNextFireTime(run->timebase, run->source, run->next, 0);
}

void BM_SVTimebaseTimer_DispatchSource_WakeUpError(benchmark::State &state) {
    for (auto _ : state) {
        SourceRun run{};
        SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &run.timebase);
        SVTimebaseSetRate(run.timebase, 1.0);
        dispatch_queue_t queue = dispatch_queue_create("bench", DISPATCH_QUEUE_SERIAL);
        run.source = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
        run.done = dispatch_semaphore_create(0);
        run.errors.reserve(kFirings);
        dispatch_set_context(run.source, &run);
        dispatch_source_set_event_handler_f(run.source, sourceFired);
        dispatch_resume(run.source);
        SVTimebaseAddTimerDispatchSource(run.timebase, run.source);
        run.next = SVTimeAdd(SVTimebaseGetTime(run.timebase), SVTimeMake(kSpacingNs, 1000000000));
        SVTimebaseSetTimerDispatchSourceNextFireTime(run.timebase, run.source, run.next, 0);
        dispatch_semaphore_wait(run.done, DISPATCH_TIME_FOREVER);
        SVTimebaseRemoveTimerDispatchSource(run.timebase, run.source);
        dispatch_source_cancel(run.source);
        dispatch_release(run.source);
        dispatch_release(run.done);
        dispatch_release(queue);
        CFRelease(run.timebase);
        report(state, run.errors);
    }
}
BENCHMARK(BM_SVTimebaseTimer_DispatchSource_WakeUpError)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_SVTimebaseTimer_RunLoopTimer_WakeUpError(benchmark::State &state) {
    for (auto _ : state) {
        SVTimebaseRef timebase;
        SVTimebaseCreateWithMasterClock(nullptr, SVClockGetHostTimeClock(), &timebase);
        SVTimebaseSetRate(timebase, 1.0);
        __block std::vector<int64_t> errors;
        errors.reserve(kFirings);
        __block SVTime next = SVTimeAdd(SVTimebaseGetTime(timebase), SVTimeMake(kSpacingNs, 1000000000));
        CFRunLoopTimerRef timer = CFRunLoopTimerCreateWithHandler(
            nullptr, CFAbsoluteTimeGetCurrent() + 1e9, 1e9, 0, 0, ^(CFRunLoopTimerRef t) {
              int64_t now = monotonicNow();
              SVTime deadline;
              SVTimebaseGetTimerDeadline(timebase, t, &deadline);
              errors.push_back(now - deadline.value);
              next = SVTimeAdd(next, SVTimeMake(kSpacingNs, 1000000000));
              SVTimebaseSetTimerNextFireTime(timebase, t, next, 0);
            });
        CFRunLoopRef runLoop = CFRunLoopGetCurrent();
        CFRunLoopAddTimer(runLoop, timer, kCFRunLoopDefaultMode);
        SVTimebaseAddTimer(timebase, timer, runLoop);
        SVTimebaseSetTimerNextFireTime(timebase, timer, next, 0);
        while (static_cast<int>(errors.size()) < kFirings) CFRunLoopRunInMode(kCFRunLoopDefaultMode, 5, true);
        SVTimebaseRemoveTimer(timebase, timer);
        CFRunLoopTimerInvalidate(timer);
        CFRelease(timer);
        CFRelease(timebase);
        report(state, errors);
    }
}
BENCHMARK(BM_SVTimebaseTimer_RunLoopTimer_WakeUpError)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void sleepLoop(benchmark::State &state, bool minimumSlack) {
    for (auto _ : state) {
        std::vector<int64_t> errors;
        errors.reserve(kFirings);
        // On a thread of its own, so the slack setting stays there.
        std::thread sleeper([&] {
            if (minimumSlack) prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
            int64_t deadline = monotonicNow();
            for (int i = 0; i < kFirings; i++) {
                deadline += kSpacingNs;
                timespec until = {static_cast<time_t>(deadline / 1000000000), static_cast<long>(deadline % 1000000000)};
                while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) != 0) {
                }
                errors.push_back(monotonicNow() - deadline);
            }
        });
        sleeper.join();
        report(state, errors);
    }
}

void BM_clock_nanosleep_Loop_WakeUpError(benchmark::State &state) {
    sleepLoop(state, false);
}
BENCHMARK(BM_clock_nanosleep_Loop_WakeUpError)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_clock_nanosleep_Loop_MinimumSlack_WakeUpError(benchmark::State &state) {
    sleepLoop(state, true);
}
BENCHMARK(BM_clock_nanosleep_Loop_MinimumSlack_WakeUpError)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_timerfd_Loop_WakeUpError(benchmark::State &state) {
    for (auto _ : state) {
        std::vector<int64_t> errors;
        errors.reserve(kFirings);
        int fd = timerfd_create(CLOCK_MONOTONIC, 0);
        int64_t deadline = monotonicNow();
        for (int i = 0; i < kFirings; i++) {
            deadline += kSpacingNs;
            itimerspec arming = {
                {0, 0}, {static_cast<time_t>(deadline / 1000000000), static_cast<long>(deadline % 1000000000)}};
            timerfd_settime(fd, TFD_TIMER_ABSTIME, &arming, nullptr);
            uint64_t expirations;
            if (read(fd, &expirations, sizeof expirations) != sizeof expirations) break;
            errors.push_back(monotonicNow() - deadline);
        }
        close(fd);
        report(state, errors);
    }
}
BENCHMARK(BM_timerfd_Loop_WakeUpError)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

#if SORVEL_BENCH_HAVE_GSTREAMER
struct GstRun {
    GstClock *clock;
    GstClockTime next;
    std::vector<int64_t> errors;
    std::atomic<bool> done{false};
};

gboolean gstFired(GstClock *clock, GstClockTime, GstClockID id, gpointer data) {
    auto *run = static_cast<GstRun *>(data);
    int64_t now = monotonicNow();
    // The system clock is monotonic here: its time is CLOCK_MONOTONIC's.
    run->errors.push_back(now - static_cast<int64_t>(gst_clock_id_get_time(id)));
    if (static_cast<int>(run->errors.size()) == kFirings) {
        run->done = true;
        return TRUE;
    }
    run->next += kSpacingNs;
    GstClockID nextId = gst_clock_new_single_shot_id(clock, run->next);
    gst_clock_id_wait_async(nextId, gstFired, run, nullptr);
    gst_clock_id_unref(nextId);
    return TRUE;
}

void BM_gst_clock_id_wait_async_WakeUpError(benchmark::State &state) {
    gst_init(nullptr, nullptr);
    auto *clock =
        static_cast<GstClock *>(g_object_new(GST_TYPE_SYSTEM_CLOCK, "clock-type", GST_CLOCK_TYPE_MONOTONIC, nullptr));
    gst_object_ref_sink(clock);
    for (auto _ : state) {
        GstRun run;
        run.clock = clock;
        run.errors.reserve(kFirings);
        run.next = gst_clock_get_time(clock) + kSpacingNs;
        GstClockID id = gst_clock_new_single_shot_id(clock, run.next);
        gst_clock_id_wait_async(id, gstFired, &run, nullptr);
        gst_clock_id_unref(id);
        while (!run.done) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        report(state, run.errors);
    }
    gst_object_unref(clock);
}
BENCHMARK(BM_gst_clock_id_wait_async_WakeUpError)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
#endif

}  // namespace
