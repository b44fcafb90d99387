// SPDX-License-Identifier: Apache-2.0
// Block buffers of 1,000 pieces of 1 KiB: appending them, contiguous access
// at offsets spread over the buffer, and copies across pieces; side by side
// with GStreamer's GstBuffer with appended memories when it is installed.
//
// The pieces wrap caller memory that neither side frees (kCFAllocatorNull,
// gst_memory_new_wrapped without a notify), so only the containers are
// measured.  A GstBuffer holds at most a handful of memories and merges
// (copies) them when more are appended; a block buffer keeps every piece.
// The pieces are consecutive slices of one arena, as a demuxer's samples
// are of its read buffer, and a block buffer copies slices that lie end to
// end with one memmove.  BM_SVBlockBuffer_CopyApart copies pieces that lie
// apart instead, one memmove each.
//
//   build/bench/SVBlockBuffer_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <Sorvel/SVBlockBuffer.h>
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

#if SORVEL_BENCH_HAVE_GSTREAMER
#include <gst/gst.h>
#endif

namespace {

constexpr size_t kPieces = 1000;
constexpr size_t kPieceSize = 1024;
constexpr size_t kTotal = kPieces * kPieceSize;
constexpr size_t kAccessLength = 64;
constexpr size_t kCopyLength = 16 * 1024;

// Room between the pieces of the buffer whose pieces lie apart.
constexpr size_t kGap = 64;

// Piece storage shared by every benchmark (room enough for pieces apart).
std::vector<char> &arena() {
    static std::vector<char> bytes = [] {
        std::vector<char> v(kPieces * (kPieceSize + kGap));
        for (size_t i = 0; i < v.size(); i++) v[i] = static_cast<char>(i * 31);
        return v;
    }();
    return bytes;
}

// Offsets of the accesses: pseudo-random over the whole buffer, about one
// in sixteen of them spanning two pieces.
const std::vector<size_t> &accessOffsets() {
    static std::vector<size_t> offsets = [] {
        std::vector<size_t> v;
        uint32_t x = 12345;
        for (int i = 0; i < 256; i++) {
            x = x * 1664525u + 1013904223u;
            v.push_back(x % (kTotal - kAccessLength));
        }
        return v;
    }();
    return offsets;
}

// `gap` bytes between consecutive pieces in the arena.
SVBlockBufferRef makeBlockBuffer(size_t gap = 0) {
    SVBlockBufferRef buffer = nullptr;
    SVBlockBufferCreateEmpty(nullptr, 0, 0, &buffer);
    for (size_t i = 0; i < kPieces; i++)
        SVBlockBufferAppendMemoryBlock(buffer, arena().data() + i * (kPieceSize + gap), kPieceSize, kCFAllocatorNull,
                                       nullptr, 0, kPieceSize, 0);
    return buffer;
}

void BM_SVBlockBuffer_Append1000(benchmark::State &state) {
    for (auto _ : state) {
        SVBlockBufferRef buffer = makeBlockBuffer();
        benchmark::DoNotOptimize(buffer);
        CFRelease(buffer);
    }
    state.SetItemsProcessed(state.iterations() * kPieces);
}
BENCHMARK(BM_SVBlockBuffer_Append1000);

void BM_SVBlockBuffer_Access(benchmark::State &state) {
    SVBlockBufferRef buffer = makeBlockBuffer();
    char temporary[kAccessLength];
    const auto &offsets = accessOffsets();
    size_t i = 0;
    for (auto _ : state) {
        char *pointer;
        SVBlockBufferAccessDataBytes(buffer, offsets[i++ % offsets.size()], kAccessLength, temporary, &pointer);
        benchmark::DoNotOptimize(pointer[0]);
    }
    CFRelease(buffer);
}
BENCHMARK(BM_SVBlockBuffer_Access);

// Copies state.range(0) bytes out of the middle of a buffer whose pieces
// lie `gap` bytes apart in the arena.
void copyOut(benchmark::State &state, size_t gap) {
    SVBlockBufferRef buffer = makeBlockBuffer(gap);
    const size_t length = static_cast<size_t>(state.range(0));
    std::vector<char> destination(length);
    for (auto _ : state) {
        SVBlockBufferCopyDataBytes(buffer, (kTotal - length) / 2, length, destination.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * length));
    CFRelease(buffer);
}

void BM_SVBlockBuffer_Copy(benchmark::State &state) {
    copyOut(state, 0);
}
BENCHMARK(BM_SVBlockBuffer_Copy)->Arg(kCopyLength)->Arg(kTotal);

void BM_SVBlockBuffer_CopyApart(benchmark::State &state) {
    copyOut(state, kGap);
}
BENCHMARK(BM_SVBlockBuffer_CopyApart)->Arg(kCopyLength)->Arg(kTotal);

// The floor of a copy out of many pieces: one memcpy per 1 KB piece from
// the same arena, with nothing else.  (GstBuffer keeps at most 16 memories
// and merges the rest into one when they are appended, so its copy runs
// over a few large blocks: it pays for the merge at append time instead.)
void BM_Floor_CopyPieceByPiece(benchmark::State &state) {
    const size_t length = static_cast<size_t>(state.range(0));
    std::vector<char> destination(length);
    const char *source = arena().data() + (kTotal - length) / 2;
    for (auto _ : state) {
        size_t done = 0, offset = (kTotal - length) / 2;
        while (done < length) {
            const size_t inPiece = kPieceSize - (offset + done) % kPieceSize;
            const size_t n = inPiece < length - done ? inPiece : length - done;
            std::memcpy(destination.data() + done, source + done, n);
            done += n;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * length));
}
BENCHMARK(BM_Floor_CopyPieceByPiece)->Arg(kCopyLength)->Arg(kTotal);

#if SORVEL_BENCH_HAVE_GSTREAMER
GstBuffer *makeGstBuffer() {
    static bool initialised = [] {
        gst_init(nullptr, nullptr);
        return true;
    }();
    (void)initialised;
    GstBuffer *buffer = gst_buffer_new();
    for (size_t i = 0; i < kPieces; i++)
        gst_buffer_append_memory(
            buffer, gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY, arena().data() + i * kPieceSize, kPieceSize, 0,
                                           kPieceSize, nullptr, nullptr));
    return buffer;
}

void BM_GstBuffer_Append1000(benchmark::State &state) {
    for (auto _ : state) {
        GstBuffer *buffer = makeGstBuffer();
        benchmark::DoNotOptimize(buffer);
        gst_buffer_unref(buffer);
    }
    state.SetItemsProcessed(state.iterations() * kPieces);
}
BENCHMARK(BM_GstBuffer_Append1000);

// The same contract as SVBlockBufferAccessDataBytes: find the memory that
// holds the offset and map the range, which GStreamer copies into a
// temporary only when the range spans memories.
void BM_GstBuffer_Access(benchmark::State &state) {
    GstBuffer *buffer = makeGstBuffer();
    const auto &offsets = accessOffsets();
    size_t i = 0;
    for (auto _ : state) {
        const size_t offset = offsets[i++ % offsets.size()];
        guint index, count;
        gsize skip;
        GstMapInfo map;
        if (!gst_buffer_find_memory(buffer, offset, kAccessLength, &index, &count, &skip) ||
            !gst_buffer_map_range(buffer, index, static_cast<gint>(count), &map, GST_MAP_READ)) {
            state.SkipWithError("GstBuffer access failed");
            break;
        }
        benchmark::DoNotOptimize(map.data[skip]);
        gst_buffer_unmap(buffer, &map);
    }
    gst_buffer_unref(buffer);
}
BENCHMARK(BM_GstBuffer_Access);

void BM_GstBuffer_Copy(benchmark::State &state) {
    GstBuffer *buffer = makeGstBuffer();
    const size_t length = static_cast<size_t>(state.range(0));
    std::vector<char> destination(length);
    for (auto _ : state) {
        gst_buffer_extract(buffer, (kTotal - length) / 2, destination.data(), length);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * length));
    gst_buffer_unref(buffer);
}
BENCHMARK(BM_GstBuffer_Copy)->Arg(kCopyLength)->Arg(kTotal);
#endif

}  // namespace
