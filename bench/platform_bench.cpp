// SPDX-License-Identifier: Apache-2.0
// Hot paths of the platform runtime: reference counting, dictionary lookup
// with string keys, and string formatting.
//
// Run with `make bench` (optimised build), or directly:
//   build/bench/platform_bench --benchmark_filter=Dictionary

#include <CoreFoundation/CoreFoundation.h>
#include <benchmark/benchmark.h>

#if SORVEL_BENCH_HAVE_GSTREAMER
#include <gst/gst.h>
#endif

#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

namespace {

CFStringRef makeString(const char *text) {
    return CFStringCreateWithCString(kCFAllocatorDefault, text, kCFStringEncodingUTF8);
}

// Keys are built from characters at run time so that a lookup key is never
// the same pointer as the stored key: lookups pay for hashing and comparing.
CFStringRef makeKey(const char *prefix, long index) {
    char text[32];
    std::snprintf(text, sizeof text, "%s-%ld", prefix, index);
    return makeString(text);
}

// ---- Reference counting ---------------------------------------------------

void BM_RetainRelease(benchmark::State &state) {
    CFStringRef object = makeString("a counted object");
    for (auto _ : state) {
        CFRetain(object);
        CFRelease(object);
    }
    benchmark::DoNotOptimize(CFGetRetainCount(object));
    CFRelease(object);
}
BENCHMARK(BM_RetainRelease);

// The same pair with the peers' counted objects: a copy of a std::shared_ptr
// (increment and decrement of its control block) and GStreamer's mini
// object reference.
//
// libstdc++ skips the atomic operations of shared_ptr while the process has
// never started a thread (__libc_single_threaded); every media pipeline has,
// and so does this program once a two-thread benchmark ran, which made the
// figure depend on the order of the repetitions.  A thread is started first.
void BM_SharedPtrCopy(benchmark::State &state) {
    static const bool multiThreaded = [] {
        std::thread([] {}).join();
        return true;
    }();
    benchmark::DoNotOptimize(multiThreaded);
    auto object = std::make_shared<int>(1);
    for (auto _ : state) {
        std::shared_ptr<int> copy = object;
        benchmark::DoNotOptimize(copy);
    }
    benchmark::DoNotOptimize(object.use_count());
}
BENCHMARK(BM_SharedPtrCopy);

// The floor of a count shared between threads: an atomic increment and an
// atomic decrement (release/acquire, as a last release needs), inline.
void BM_Floor_TwoAtomicRMW(benchmark::State &state) {
    static uint32_t count = 1;
    for (auto _ : state) {
        __atomic_fetch_add(&count, 1, __ATOMIC_RELAXED);
        benchmark::DoNotOptimize(__atomic_fetch_sub(&count, 1, __ATOMIC_ACQ_REL));
    }
}
BENCHMARK(BM_Floor_TwoAtomicRMW);

#if SORVEL_BENCH_HAVE_GSTREAMER
void BM_GstMiniObjectRefUnref(benchmark::State &state) {
    gst_init(nullptr, nullptr);
    GstBuffer *buffer = gst_buffer_new();
    for (auto _ : state) {
        gst_mini_object_ref(GST_MINI_OBJECT_CAST(buffer));
        gst_mini_object_unref(GST_MINI_OBJECT_CAST(buffer));
    }
    benchmark::DoNotOptimize(GST_MINI_OBJECT_REFCOUNT_VALUE(buffer));
    gst_buffer_unref(buffer);
}
BENCHMARK(BM_GstMiniObjectRefUnref);
#endif

// Both threads hammer the same object, so every retain and release contends
// for the same cache line.
CFStringRef gSharedObject = nullptr;

void setUpShared(const benchmark::State &) {
    gSharedObject = makeString("a shared object");
}
void tearDownShared(const benchmark::State &) {
    CFRelease(gSharedObject);
    gSharedObject = nullptr;
}

void BM_RetainReleaseContended(benchmark::State &state) {
    for (auto _ : state) {
        CFRetain(gSharedObject);
        CFRelease(gSharedObject);
    }
}
BENCHMARK(BM_RetainReleaseContended)->Threads(2)->Setup(setUpShared)->Teardown(tearDownShared)->UseRealTime();

// ---- Dictionary lookup -----------------------------------------------------

// state.range(0): entries in the dictionary; state.range(1): 1 = keys present, 0 = absent.
void BM_DictionaryLookup(benchmark::State &state) {
    const long count = state.range(0);
    const bool hit = state.range(1) != 0;

    CFMutableDictionaryRef dict = CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                                            &kCFTypeDictionaryValueCallBacks);
    for (long i = 0; i < count; ++i) {
        CFStringRef key = makeKey("key", i);
        int32_t value = static_cast<int32_t>(i);
        CFNumberRef number = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &value);
        CFDictionarySetValue(dict, key, number);
        CFRelease(number);
        CFRelease(key);
    }

    std::vector<CFStringRef> probes;
    probes.reserve(static_cast<size_t>(count));
    for (long i = 0; i < count; ++i) probes.push_back(makeKey(hit ? "key" : "absent", i));

    size_t next = 0;
    long found = 0;
    for (auto _ : state) {
        const void *value = CFDictionaryGetValue(dict, probes[next]);
        benchmark::DoNotOptimize(value);
        found += value != nullptr;
        if (++next == probes.size()) next = 0;
    }
    if (hit ? found != static_cast<long>(state.iterations()) : found != 0)
        state.SkipWithError("lookups returned the wrong result");

    for (CFStringRef probe : probes) CFRelease(probe);
    CFRelease(dict);
}
BENCHMARK(BM_DictionaryLookup)
    ->ArgNames({"entries", "hit"})
    ->Args({16, 1})
    ->Args({16, 0})
    ->Args({1024, 1})
    ->Args({1024, 0});

// ---- String formatting -----------------------------------------------------

void BM_StringCreateWithFormat(benchmark::State &state) {
    CFStringRef str = makeString("frame");
    for (auto _ : state) {
        CFStringRef formatted = CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%@ %d"), str, 42);
        benchmark::DoNotOptimize(formatted);
        CFRelease(formatted);
    }
    CFRelease(str);
}
BENCHMARK(BM_StringCreateWithFormat);

}  // namespace
