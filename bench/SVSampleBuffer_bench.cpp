// SPDX-License-Identifier: Apache-2.0
// Sample buffers: creation and release with one block buffer and one timing
// entry, and the output-time getters with and without trim and speed
// attachments; side by side with GStreamer's GstBuffer (creation with one
// memory and its three time stamps) and GstSegment's running time (the
// closest peer of the output-time arithmetic) when it is installed.
//
// The bytes are caller memory that neither side frees, so only the
// containers are measured.  "Existing" variants reuse one block buffer (one
// GstMemory) across iterations; "Wrapped" variants wrap the memory anew
// each time.
//
//   build/bench/SVSampleBuffer_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <CoreVideo/CVBuffer.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVSampleBuffer.h>
#include <benchmark/benchmark.h>

#include <cstdint>

#if SORVEL_BENCH_HAVE_GSTREAMER
#include <gst/gst.h>
#endif

namespace {

constexpr size_t kSampleSize = 4096;
char gBytes[kSampleSize];

const SVSampleTimingInfo kTiming = {SVTimeMake(1001, 30000), SVTimeMake(90000, 30000), SVTimeMake(88999, 30000)};

SVBlockBufferRef wrapBytes() {
    SVBlockBufferRef block = nullptr;
    SVBlockBufferCreateWithMemoryBlock(nullptr, gBytes, kSampleSize, kCFAllocatorNull, nullptr, 0, kSampleSize, 0,
                                       &block);
    return block;
}

SVFormatDescriptionRef videoFormat() {
    SVFormatDescriptionRef format = nullptr;
    SVFormatDescriptionCreate(nullptr, kSVMediaType_Video, 'avc1', nullptr, &format);
    return format;
}

SVSampleBufferRef makeSample(SVBlockBufferRef block, SVFormatDescriptionRef format) {
    const size_t size = kSampleSize;
    SVSampleBufferRef sbuf = nullptr;
    SVSampleBufferCreateReady(nullptr, block, format, 1, 1, &kTiming, 1, &size, &sbuf);
    return sbuf;
}

void BM_SVSampleBuffer_CreateExisting(benchmark::State &state) {
    SVBlockBufferRef block = wrapBytes();
    SVFormatDescriptionRef format = videoFormat();
    for (auto _ : state) {
        SVSampleBufferRef sbuf = makeSample(block, format);
        benchmark::DoNotOptimize(sbuf);
        CFRelease(sbuf);
    }
    CFRelease(format);
    CFRelease(block);
}
BENCHMARK(BM_SVSampleBuffer_CreateExisting);

void BM_SVSampleBuffer_CreateWrapped(benchmark::State &state) {
    SVFormatDescriptionRef format = videoFormat();
    for (auto _ : state) {
        SVBlockBufferRef block = wrapBytes();
        SVSampleBufferRef sbuf = makeSample(block, format);
        CFRelease(block);
        benchmark::DoNotOptimize(sbuf);
        CFRelease(sbuf);
    }
    CFRelease(format);
}
BENCHMARK(BM_SVSampleBuffer_CreateWrapped);

// Arg 0: no attachments; 1: trims at both ends and a speed of 2.0.
SVSampleBufferRef makeAdjustedSample(bool adjusted) {
    SVBlockBufferRef block = wrapBytes();
    SVFormatDescriptionRef format = videoFormat();
    SVSampleBufferRef sbuf = makeSample(block, format);
    CFRelease(block);
    CFRelease(format);
    if (adjusted) {
        CFDictionaryRef trim = SVTimeCopyAsDictionary(SVTimeMake(100, 30000), nullptr);
        double speed = 2.0;
        CFNumberRef number = CFNumberCreate(nullptr, kCFNumberFloat64Type, &speed);
        CVBufferSetAttachment((CVBufferRef)sbuf, kSVSampleBufferAttachmentKey_TrimDurationAtStart, trim,
                              kCVAttachmentMode_ShouldPropagate);
        CVBufferSetAttachment((CVBufferRef)sbuf, kSVSampleBufferAttachmentKey_TrimDurationAtEnd, trim,
                              kCVAttachmentMode_ShouldPropagate);
        CVBufferSetAttachment((CVBufferRef)sbuf, kSVSampleBufferAttachmentKey_SpeedMultiplier, number,
                              kCVAttachmentMode_ShouldPropagate);
        CFRelease(trim);
        CFRelease(number);
    }
    return sbuf;
}

void BM_SVSampleBuffer_OutputPresentationTimeStamp(benchmark::State &state) {
    SVSampleBufferRef sbuf = makeAdjustedSample(state.range(0) != 0);
    for (auto _ : state) benchmark::DoNotOptimize(SVSampleBufferGetOutputPresentationTimeStamp(sbuf));
    CFRelease(sbuf);
}
BENCHMARK(BM_SVSampleBuffer_OutputPresentationTimeStamp)->Arg(0)->Arg(1);

void BM_SVSampleBuffer_OutputDecodeTimeStamp(benchmark::State &state) {
    SVSampleBufferRef sbuf = makeAdjustedSample(state.range(0) != 0);
    for (auto _ : state) benchmark::DoNotOptimize(SVSampleBufferGetOutputDecodeTimeStamp(sbuf));
    CFRelease(sbuf);
}
BENCHMARK(BM_SVSampleBuffer_OutputDecodeTimeStamp)->Arg(0)->Arg(1);

void BM_SVSampleBuffer_OutputDuration(benchmark::State &state) {
    SVSampleBufferRef sbuf = makeAdjustedSample(state.range(0) != 0);
    for (auto _ : state) benchmark::DoNotOptimize(SVSampleBufferGetOutputDuration(sbuf));
    CFRelease(sbuf);
}
BENCHMARK(BM_SVSampleBuffer_OutputDuration)->Arg(0)->Arg(1);

#if SORVEL_BENCH_HAVE_GSTREAMER
void initGst() {
    static bool initialised = [] {
        gst_init(nullptr, nullptr);
        return true;
    }();
    (void)initialised;
}

GstBuffer *makeGstBuffer(GstMemory *memory) {
    GstBuffer *buffer = gst_buffer_new();
    gst_buffer_append_memory(buffer, memory);
    GST_BUFFER_PTS(buffer) = 3 * GST_SECOND;
    GST_BUFFER_DTS(buffer) = gst_util_uint64_scale(88999, GST_SECOND, 30000);
    GST_BUFFER_DURATION(buffer) = gst_util_uint64_scale(1001, GST_SECOND, 30000);
    return buffer;
}

GstMemory *wrapGstBytes() {
    return gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY, gBytes, kSampleSize, 0, kSampleSize, nullptr, nullptr);
}

void BM_GstBuffer_CreateExisting(benchmark::State &state) {
    initGst();
    GstMemory *memory = wrapGstBytes();
    for (auto _ : state) {
        GstBuffer *buffer = makeGstBuffer(gst_memory_ref(memory));
        benchmark::DoNotOptimize(buffer);
        gst_buffer_unref(buffer);
    }
    gst_memory_unref(memory);
}
BENCHMARK(BM_GstBuffer_CreateExisting);

void BM_GstBuffer_CreateWrapped(benchmark::State &state) {
    initGst();
    for (auto _ : state) {
        GstBuffer *buffer = makeGstBuffer(wrapGstBytes());
        benchmark::DoNotOptimize(buffer);
        gst_buffer_unref(buffer);
    }
}
BENCHMARK(BM_GstBuffer_CreateWrapped);

// A segment played at double speed from 100/30000 s: the running time of
// a buffer's time stamp is GStreamer's counterpart of the trimmed, scaled
// output time.
void BM_GstSegment_RunningTime(benchmark::State &state) {
    initGst();
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.rate = 2.0;
    segment.start = gst_util_uint64_scale(100, GST_SECOND, 30000);
    GstBuffer *buffer = makeGstBuffer(wrapGstBytes());
    for (auto _ : state)
        benchmark::DoNotOptimize(gst_segment_to_running_time(&segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer)));
    gst_buffer_unref(buffer);
}
BENCHMARK(BM_GstSegment_RunningTime);
#endif

}  // namespace
