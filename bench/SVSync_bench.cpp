// SPDX-License-Identifier: Apache-2.0
// Reading clocks and timebases, and converting times between them:
//   clock_gettime(CLOCK_MONOTONIC)      the physical floor under every host clock
//   SVClockGetTime (host clock)         gst_clock_get_time on GStreamer's system clock
//   SVTimebaseGetTime                   gst_clock_get_time on a calibrated clock (rate 2)
//   SVSyncConvertTime                   gst_clock_adjust/unadjust_with_calibration
// The timebase and conversion cases run through a chain of three timebases
// (rates 2, 0.5 and -1) on the host clock, the depth a player reaches with
// a master timebase, a playback timebase and a reversed view of it.
//
// Run from an optimised build:
//   build-rel/bench/SVSync_bench --benchmark_min_time=0.5

#include <Sorvel/SVSync.h>
#include <benchmark/benchmark.h>

#include <ctime>

#if SORVEL_BENCH_HAVE_GSTREAMER
#include <gst/gst.h>
#endif

namespace {

// clock -> rate 2 -> rate 0.5 -> rate -1, anchored one second back.  The
// anchors are host-time nanoseconds, as a player that anchors at the host
// clock's readings has them.
class Chain {
public:
    Chain() {
        SVClockRef host = SVClockGetHostTimeClock();
        SVTimebaseCreateWithMasterClock(nullptr, host, &timebases_[0]);
        SVTimebaseCreateWithMasterTimebase(nullptr, timebases_[0], &timebases_[1]);
        SVTimebaseCreateWithMasterTimebase(nullptr, timebases_[1], &timebases_[2]);
        const double rates[] = {2.0, 0.5, -1.0};
        const SVTime tenSeconds = SVTimeMake(10000000000, 1000000000);
        SVTime masterTime = SVTimeSubtract(SVClockGetTime(host), SVTimeMake(1000000000, 1000000000));
        for (int i = 0; i < 3; i++) {
            SVTimebaseSetRateAndAnchorTime(timebases_[i], rates[i], tenSeconds, masterTime);
            masterTime = tenSeconds;
        }
    }
    ~Chain() {
        for (int i = 2; i >= 0; i--) CFRelease(timebases_[i]);
    }
    SVTimebaseRef first() const { return timebases_[0]; }
    SVTimebaseRef last() const { return timebases_[2]; }

private:
    SVTimebaseRef timebases_[3] = {};
};

void BM_clock_gettime(benchmark::State &state) {
    timespec now;
    for (auto _ : state) {
        clock_gettime(CLOCK_MONOTONIC, &now);
        benchmark::DoNotOptimize(now);
    }
}
BENCHMARK(BM_clock_gettime);

void BM_SVClockGetTime_HostClock(benchmark::State &state) {
    SVClockRef host = SVClockGetHostTimeClock();
    for (auto _ : state) benchmark::DoNotOptimize(SVClockGetTime(host));
}
BENCHMARK(BM_SVClockGetTime_HostClock);

void BM_SVSyncGetTime_HostClock(benchmark::State &state) {
    SVClockRef host = SVClockGetHostTimeClock();
    for (auto _ : state) benchmark::DoNotOptimize(SVSyncGetTime(host));
}
BENCHMARK(BM_SVSyncGetTime_HostClock);

void BM_SVTimebaseGetTime_OneOnHostClock(benchmark::State &state) {
    Chain chain;
    for (auto _ : state) benchmark::DoNotOptimize(SVTimebaseGetTime(chain.first()));
}
BENCHMARK(BM_SVTimebaseGetTime_OneOnHostClock);

void BM_SVTimebaseGetTime_ChainOfThree(benchmark::State &state) {
    Chain chain;
    for (auto _ : state) benchmark::DoNotOptimize(SVTimebaseGetTime(chain.last()));
}
BENCHMARK(BM_SVTimebaseGetTime_ChainOfThree);

void BM_SVSyncConvertTime_UpThreeToHostClock(benchmark::State &state) {
    Chain chain;
    SVClockRef host = SVClockGetHostTimeClock();
    SVTime time = SVTimeMake(123456789, 1000000000);
    for (auto _ : state) benchmark::DoNotOptimize(SVSyncConvertTime(time, chain.last(), host));
}
BENCHMARK(BM_SVSyncConvertTime_UpThreeToHostClock);

void BM_SVSyncConvertTime_DownThreeFromHostClock(benchmark::State &state) {
    Chain chain;
    SVClockRef host = SVClockGetHostTimeClock();
    SVTime time = SVClockGetTime(host);
    for (auto _ : state) benchmark::DoNotOptimize(SVSyncConvertTime(time, host, chain.last()));
}
BENCHMARK(BM_SVSyncConvertTime_DownThreeFromHostClock);

void BM_SVSyncGetRelativeRate_ChainOfThree(benchmark::State &state) {
    Chain chain;
    SVClockRef host = SVClockGetHostTimeClock();
    for (auto _ : state) benchmark::DoNotOptimize(SVSyncGetRelativeRate(chain.last(), host));
}
BENCHMARK(BM_SVSyncGetRelativeRate_ChainOfThree);

#if SORVEL_BENCH_HAVE_GSTREAMER
GstClock *systemClock() {
    static GstClock *clock = [] {
        gst_init(nullptr, nullptr);
        return gst_system_clock_obtain();
    }();
    return clock;
}

// A clock of its own (not the shared singleton), running at rate 2 against
// its internal time, as a timebase does against its master.
GstClock *calibratedClock() {
    static GstClock *clock = [] {
        systemClock();
        auto *made = static_cast<GstClock *>(
            g_object_new(GST_TYPE_SYSTEM_CLOCK, "clock-type", GST_CLOCK_TYPE_MONOTONIC, nullptr));
        gst_object_ref_sink(made);
        GstClockTime internal = gst_clock_get_internal_time(made);
        gst_clock_set_calibration(made, internal - GST_SECOND, 10 * GST_SECOND, 2, 1);
        return made;
    }();
    return clock;
}

void BM_gst_clock_get_time_SystemClock(benchmark::State &state) {
    GstClock *clock = systemClock();
    for (auto _ : state) benchmark::DoNotOptimize(gst_clock_get_time(clock));
}
BENCHMARK(BM_gst_clock_get_time_SystemClock);

void BM_gst_clock_get_time_Calibrated(benchmark::State &state) {
    GstClock *clock = calibratedClock();
    for (auto _ : state) benchmark::DoNotOptimize(gst_clock_get_time(clock));
}
BENCHMARK(BM_gst_clock_get_time_Calibrated);

void BM_gst_clock_adjust_and_unadjust_with_calibration(benchmark::State &state) {
    GstClockTime internal = 5 * GST_SECOND;
    for (auto _ : state) {
        GstClockTime external =
            gst_clock_adjust_with_calibration(nullptr, internal, 4 * GST_SECOND, 10 * GST_SECOND, 2, 1);
        benchmark::DoNotOptimize(
            gst_clock_unadjust_with_calibration(nullptr, external, 4 * GST_SECOND, 10 * GST_SECOND, 2, 1));
    }
}
BENCHMARK(BM_gst_clock_adjust_and_unadjust_with_calibration);
#endif

}  // namespace
