// SPDX-License-Identifier: Apache-2.0
// Time arithmetic hot paths, side by side with the calls other media
// libraries use for the same job:
//   SVTimeCompare             av_compare_ts
//   SVTimeAdd                 av_add_stable
//   SVTimeConvertScale        av_rescale_rnd, gst_util_uint64_scale
//   SVTimeMultiplyByFloat64   av_rescale_rnd, gst_util_uint64_scale
//
// Every benchmark walks the same table of realistic inputs (presentation
// times of a few hours on the usual video and audio timescales), so branch
// prediction sees a real mix rather than one repeated case.
//
// Run from an optimised build:
//   build-rel/bench/SVTime_bench --benchmark_min_time=0.5

#include <Sorvel/SVTime.h>
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#if SORVEL_BENCH_HAVE_LIBAVUTIL
extern "C" {
#include <libavutil/mathematics.h>
}
#endif
#if SORVEL_BENCH_HAVE_GSTREAMER
#include <gst/gst.h>
#endif

namespace {

constexpr size_t kInputs = 4096;  // a power of two, for cheap wrap-around

struct Input {
    int64_t value;  // non-negative: GStreamer's scale is unsigned
    int32_t timescale;
    int64_t otherValue;
    int32_t otherTimescale;  // a different timescale from the list
    int32_t newTimescale;    // a target timescale, different from timescale
    double multiplier;
    // The same numbers as ready-made records, so our calls are not charged
    // for building them.
    SVTime time, sameTimescale, otherTimescaleTime;
};

const std::vector<Input> &inputs() {
    static const std::vector<Input> table = [] {
        static const int32_t timescales[] = {90000, 48000, 44100, 30000, 24000, 1000, 600, 1000000000};
        constexpr size_t kCount = sizeof timescales / sizeof timescales[0];
        std::mt19937_64 engine(42);
        std::vector<Input> out(kInputs);
        for (Input &in : out) {
            size_t a = engine() % kCount, b = (a + 1 + engine() % (kCount - 1)) % kCount;
            size_t c = (a + 1 + engine() % (kCount - 1)) % kCount;
            in.timescale = timescales[a];
            in.otherTimescale = timescales[b];
            in.newTimescale = timescales[c];
            // Up to four hours.
            in.value = static_cast<int64_t>(engine() % (4ull * 3600 * static_cast<uint64_t>(in.timescale)));
            in.otherValue = static_cast<int64_t>(engine() % (4ull * 3600 * static_cast<uint64_t>(in.otherTimescale)));
            static const double rates[] = {0.5, 1.0, 1.001, 2.0, 0.25, 1.5, 23.976 / 25.0, 8.0};
            in.multiplier = rates[engine() % 8];
            in.time = {in.value, in.timescale, kSVTimeFlags_Valid, 0};
            in.sameTimescale = {in.otherValue, in.timescale, kSVTimeFlags_Valid, 0};
            in.otherTimescaleTime = {in.otherValue, in.otherTimescale, kSVTimeFlags_Valid, 0};
        }
        return out;
    }();
    return table;
}

// ---- Comparison ---------------------------------------------------------------

void BM_SVTimeCompare_SameTimescale(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(SVTimeCompare(x.time, x.sameTimescale));
    }
}
BENCHMARK(BM_SVTimeCompare_SameTimescale);

void BM_SVTimeCompare_DifferentTimescales(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(SVTimeCompare(x.time, x.otherTimescaleTime));
    }
}
BENCHMARK(BM_SVTimeCompare_DifferentTimescales);

#if SORVEL_BENCH_HAVE_LIBAVUTIL
void BM_av_compare_ts_SameTimescale(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(
            av_compare_ts(x.value, AVRational{1, x.timescale}, x.otherValue, AVRational{1, x.timescale}));
    }
}
BENCHMARK(BM_av_compare_ts_SameTimescale);

void BM_av_compare_ts_DifferentTimescales(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(
            av_compare_ts(x.value, AVRational{1, x.timescale}, x.otherValue, AVRational{1, x.otherTimescale}));
    }
}
BENCHMARK(BM_av_compare_ts_DifferentTimescales);
#endif

// ---- Addition -------------------------------------------------------------------

void BM_SVTimeAdd_SameTimescale(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(SVTimeAdd(x.time, x.sameTimescale));
    }
}
BENCHMARK(BM_SVTimeAdd_SameTimescale);

void BM_SVTimeAdd_DifferentTimescales(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(SVTimeAdd(x.time, x.otherTimescaleTime));
    }
}
BENCHMARK(BM_SVTimeAdd_DifferentTimescales);

#if SORVEL_BENCH_HAVE_LIBAVUTIL
void BM_av_add_stable_SameTimescale(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(
            av_add_stable(AVRational{1, x.timescale}, x.value, AVRational{1, x.timescale}, x.otherValue));
    }
}
BENCHMARK(BM_av_add_stable_SameTimescale);

void BM_av_add_stable_DifferentTimescales(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(
            av_add_stable(AVRational{1, x.timescale}, x.value, AVRational{1, x.otherTimescale}, x.otherValue));
    }
}
BENCHMARK(BM_av_add_stable_DifferentTimescales);
#endif

// ---- Change of timescale --------------------------------------------------------

void BM_SVTimeConvertScale(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(SVTimeConvertScale(x.time, x.newTimescale, kSVTimeRoundingMethod_Default));
    }
}
BENCHMARK(BM_SVTimeConvertScale);

// The floor of SVTimeConvertScale's shape: a call that is not inlined,
// taking and returning a 24-byte time in memory (as the C interface must),
// around one 64-bit multiplication and division with its remainder.  The
// peers take and return plain integers in registers.
__attribute__((noinline)) SVTime floorConvertShape(SVTime time, int32_t newTimescale) {
    const int64_t product = time.value * newTimescale;
    const int64_t result = product / time.timescale, rest = product % time.timescale;
    return {result + (2 * rest >= time.timescale), newTimescale, time.flags | (rest != 0), time.epoch};
}
SVTime (*volatile gFloorConvertShape)(SVTime, int32_t) = floorConvertShape;

void BM_Floor_ConvertScaleShape(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(gFloorConvertShape(x.time, x.newTimescale));
    }
}
BENCHMARK(BM_Floor_ConvertScaleShape);

#if SORVEL_BENCH_HAVE_LIBAVUTIL
void BM_av_rescale_rnd(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(av_rescale_rnd(x.value, x.newTimescale, x.timescale, AV_ROUND_NEAR_INF));
    }
}
BENCHMARK(BM_av_rescale_rnd);
#endif

#if SORVEL_BENCH_HAVE_GSTREAMER
void BM_gst_util_uint64_scale(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(gst_util_uint64_scale(
            static_cast<guint64>(x.value), static_cast<guint64>(x.newTimescale), static_cast<guint64>(x.timescale)));
    }
}
BENCHMARK(BM_gst_util_uint64_scale);
#endif

// ---- Multiplication ----------------------------------------------------------------

void BM_SVTimeMultiplyByFloat64(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(SVTimeMultiplyByFloat64(x.time, x.multiplier));
    }
}
BENCHMARK(BM_SVTimeMultiplyByFloat64);

// The peers scale by a ratio: the multiplier as 1001/1000-style integers.
#if SORVEL_BENCH_HAVE_LIBAVUTIL
void BM_av_rescale_rnd_ByRatio(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(
            av_rescale_rnd(x.value, static_cast<int64_t>(x.multiplier * 1000), 1000, AV_ROUND_NEAR_INF));
    }
}
BENCHMARK(BM_av_rescale_rnd_ByRatio);
#endif

#if SORVEL_BENCH_HAVE_GSTREAMER
void BM_gst_util_uint64_scale_ByRatio(benchmark::State &state) {
    const auto &in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const Input &x = in[i++ & (kInputs - 1)];
        benchmark::DoNotOptimize(
            gst_util_uint64_scale(static_cast<guint64>(x.value), static_cast<guint64>(x.multiplier * 1000), 1000));
    }
}
BENCHMARK(BM_gst_util_uint64_scale_ByRatio);
#endif

}  // namespace
