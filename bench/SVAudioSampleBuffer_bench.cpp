// SPDX-License-Identifier: Apache-2.0
// Audio sample buffers: creating the sample buffer of one 1024-frame AAC
// packet, getting the buffer list of a 4096-frame stereo PCM buffer (in
// place, interleaved and planar), and copying those frames out; side by
// side with the nearest peer operations when they are installed: an
// AVPacket over the same bytes (libavcodec), gst_audio_buffer_map on a
// GstBuffer with audio info (GStreamer's audio library) and
// av_samples_copy (libavutil).
//
// The packet's bytes are caller memory wrapped without copying on both
// sides, so the containers are measured, not a copy of the payload.
//
//   build/bench/SVAudioSampleBuffer_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVSampleBuffer.h>
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#if SORVEL_BENCH_HAVE_LIBAVCODEC
extern "C" {
#include <libavcodec/packet.h>
}
#endif
#if SORVEL_BENCH_HAVE_LIBAVUTIL
extern "C" {
#include <libavutil/samplefmt.h>
}
#endif
#if SORVEL_BENCH_HAVE_GSTREAMER_AUDIO
#include <gst/audio/audio.h>
#endif

namespace {

constexpr size_t kPacketSize = 371;  // a typical 128 kb/s AAC packet
uint8_t gPacket[kPacketSize];
constexpr int kFrames = 4096;

SVFormatDescriptionRef audioFormat(const AudioStreamBasicDescription &asbd) {
    SVFormatDescriptionRef format = nullptr;
    SVAudioFormatDescriptionCreate(nullptr, &asbd, 0, nullptr, 0, nullptr, nullptr, &format);
    return format;
}

const AudioStreamBasicDescription kAAC = {44100, kAudioFormatMPEG4AAC, 0, 0, 1024, 0, 2, 0, 0};
const AudioStreamBasicDescription kS16Stereo = {
    44100, kAudioFormatLinearPCM, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked, 4, 1, 4, 2, 16, 0};
const AudioStreamBasicDescription kF32StereoPlanar = {
    44100,
    kAudioFormatLinearPCM,
    kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked | kAudioFormatFlagIsNonInterleaved,
    4,
    1,
    4,
    2,
    32,
    0};

// ---- Creating the sample buffer of one AAC packet ----

void BM_SVAudioSampleBuffer_CreateAACPacket(benchmark::State &state) {
    SVFormatDescriptionRef format = audioFormat(kAAC);
    const AudioStreamPacketDescription description = {0, 0, kPacketSize};
    int64_t pts = 0;
    for (auto _ : state) {
        SVBlockBufferRef block = nullptr;
        SVBlockBufferCreateWithMemoryBlock(nullptr, gPacket, kPacketSize, kCFAllocatorNull, nullptr, 0, kPacketSize, 0,
                                           &block);
        SVSampleBufferRef sbuf = nullptr;
        SVAudioSampleBufferCreateReadyWithPacketDescriptions(nullptr, block, format, 1, SVTimeMake(pts, 44100),
                                                             &description, &sbuf);
        benchmark::DoNotOptimize(sbuf);
        CFRelease(sbuf);
        CFRelease(block);
        pts += 1024;
    }
    CFRelease(format);
}
BENCHMARK(BM_SVAudioSampleBuffer_CreateAACPacket);

#if SORVEL_BENCH_HAVE_LIBAVCODEC
void noFree(void *, uint8_t *) {}

void BM_AVPacket_CreateAACPacket(benchmark::State &state) {
    int64_t pts = 0;
    for (auto _ : state) {
        AVPacket *packet = av_packet_alloc();
        packet->buf = av_buffer_create(gPacket, kPacketSize, noFree, nullptr, AV_BUFFER_FLAG_READONLY);
        packet->data = gPacket;
        packet->size = kPacketSize;
        packet->pts = pts;
        packet->dts = pts;
        packet->duration = 1024;
        packet->time_base = {1, 44100};
        benchmark::DoNotOptimize(packet);
        av_packet_free(&packet);
        pts += 1024;
    }
}
BENCHMARK(BM_AVPacket_CreateAACPacket);
#endif

// ---- The buffer list of 4096 PCM frames ----

SVSampleBufferRef pcmBuffer(const AudioStreamBasicDescription &asbd, SVFormatDescriptionRef format) {
    // Non-interleaved PCM keeps one plane per channel, one after another.
    const size_t planes = (asbd.mFormatFlags & kAudioFormatFlagIsNonInterleaved) ? asbd.mChannelsPerFrame : 1;
    const size_t length = size_t{kFrames} * asbd.mBytesPerFrame * planes;
    SVBlockBufferRef block = nullptr;
    SVBlockBufferCreateWithMemoryBlock(nullptr, nullptr, length, nullptr, nullptr, 0, length,
                                       kSVBlockBufferAssureMemoryNowFlag, &block);
    SVBlockBufferFillDataBytes(1, block, 0, length);
    SVSampleBufferRef sbuf = nullptr;
    SVAudioSampleBufferCreateReadyWithPacketDescriptions(nullptr, block, format, kFrames, SVTimeMake(0, 44100), nullptr,
                                                         &sbuf);
    CFRelease(block);
    return sbuf;
}

void bufferList(benchmark::State &state, const AudioStreamBasicDescription &asbd) {
    SVFormatDescriptionRef format = audioFormat(asbd);
    SVSampleBufferRef sbuf = pcmBuffer(asbd, format);
    alignas(16) uint8_t storage[offsetof(AudioBufferList, mBuffers) + 2 * sizeof(AudioBuffer)];
    auto *list = reinterpret_cast<AudioBufferList *>(storage);
    for (auto _ : state) {
        SVBlockBufferRef holder = nullptr;
        OSStatus status = SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sbuf, nullptr, list, sizeof(storage),
                                                                                  nullptr, nullptr, 0, &holder);
        if (status != 0) {
            state.SkipWithError("no buffer list");
            break;
        }
        benchmark::DoNotOptimize(list->mBuffers[0].mData);
        CFRelease(holder);
    }
    CFRelease(sbuf);
    CFRelease(format);
}

void BM_SVAudioSampleBuffer_BufferListS16Interleaved(benchmark::State &state) {
    bufferList(state, kS16Stereo);
}
BENCHMARK(BM_SVAudioSampleBuffer_BufferListS16Interleaved);

void BM_SVAudioSampleBuffer_BufferListF32Planar(benchmark::State &state) {
    bufferList(state, kF32StereoPlanar);
}
BENCHMARK(BM_SVAudioSampleBuffer_BufferListF32Planar);

#if SORVEL_BENCH_HAVE_GSTREAMER_AUDIO
void gstMap(benchmark::State &state, GstAudioFormat sampleFormat, GstAudioLayout layout) {
    gst_init(nullptr, nullptr);
    GstAudioInfo info;
    gst_audio_info_init(&info);
    gst_audio_info_set_format(&info, sampleFormat, 44100, 2, nullptr);
    GST_AUDIO_INFO_LAYOUT(&info) = layout;
    const gsize length = gsize{kFrames} * GST_AUDIO_INFO_BPF(&info);
    GstBuffer *buffer = gst_buffer_new_allocate(nullptr, length, nullptr);
    gst_buffer_memset(buffer, 0, 1, length);
    if (layout == GST_AUDIO_LAYOUT_NON_INTERLEAVED) gst_buffer_add_audio_meta(buffer, &info, kFrames, nullptr);
    for (auto _ : state) {
        GstAudioBuffer mapped;
        if (!gst_audio_buffer_map(&mapped, &info, buffer, GST_MAP_READ)) {
            state.SkipWithError("gst_audio_buffer_map failed");
            break;
        }
        benchmark::DoNotOptimize(mapped.planes[0]);
        gst_audio_buffer_unmap(&mapped);
    }
    gst_buffer_unref(buffer);
}

void BM_GstAudioBuffer_MapS16Interleaved(benchmark::State &state) {
    gstMap(state, GST_AUDIO_FORMAT_S16LE, GST_AUDIO_LAYOUT_INTERLEAVED);
}
BENCHMARK(BM_GstAudioBuffer_MapS16Interleaved);

void BM_GstAudioBuffer_MapF32Planar(benchmark::State &state) {
    gstMap(state, GST_AUDIO_FORMAT_F32LE, GST_AUDIO_LAYOUT_NON_INTERLEAVED);
}
BENCHMARK(BM_GstAudioBuffer_MapF32Planar);
#endif

// ---- Copying 4096 frames out ----

void BM_SVAudioSampleBuffer_CopyPCMS16Interleaved(benchmark::State &state) {
    SVFormatDescriptionRef format = audioFormat(kS16Stereo);
    SVSampleBufferRef sbuf = pcmBuffer(kS16Stereo, format);
    std::vector<uint8_t> out(size_t{kFrames} * 4);
    AudioBufferList list = {1, {{2, static_cast<UInt32>(out.size()), out.data()}}};
    for (auto _ : state) {
        list.mBuffers[0].mDataByteSize = static_cast<UInt32>(out.size());
        SVSampleBufferCopyPCMDataIntoAudioBufferList(sbuf, 0, kFrames, &list);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(out.size()));
    CFRelease(sbuf);
    CFRelease(format);
}
BENCHMARK(BM_SVAudioSampleBuffer_CopyPCMS16Interleaved);

#if SORVEL_BENCH_HAVE_LIBAVUTIL
void BM_AVSamples_CopyS16Interleaved(benchmark::State &state) {
    std::vector<uint8_t> in(size_t{kFrames} * 4, 1), out(size_t{kFrames} * 4);
    uint8_t *source[] = {in.data()};
    uint8_t *destination[] = {out.data()};
    for (auto _ : state) {
        av_samples_copy(destination, source, 0, 0, kFrames, 2, AV_SAMPLE_FMT_S16);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(out.size()));
}
BENCHMARK(BM_AVSamples_CopyS16Interleaved);
#endif

}  // namespace
