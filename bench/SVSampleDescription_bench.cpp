// SPDX-License-Identifier: Apache-2.0
// The sample-description bridge on an 'avc1' entry with 'avcC', 'colr' and
// 'pasp' (160x120 H.264 High, BT.709, 40:33, as a muxer wrote it into a
// QuickTime movie): reading it into a format description, writing that
// description back (the verbatim path), writing a description made from
// parameter sets (the path that builds every atom), and, side by side,
// creating the matching description straight from the parameter sets.
//
// Run with `make bench` (optimised build), or directly:
//   build/bench/SVSampleDescription_bench

#include <Sorvel/SVSampleDescription.h>
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

namespace {

const uint8_t kEntry[] = {
    0x00, 0x00, 0x00, 0xB3, 0x61, 0x76, 0x63, 0x31, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00,
    0x00, 0x00, 0x46, 0x46, 0x4D, 0x50, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0xA0, 0x00, 0x78,
    0x00, 0x48, 0x00, 0x00, 0x00, 0x48, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x15, 0x4C, 0x61, 0x76,
    0x63, 0x35, 0x39, 0x2E, 0x33, 0x37, 0x2E, 0x31, 0x30, 0x30, 0x20, 0x6C, 0x69, 0x62, 0x78, 0x32, 0x36, 0x34,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x18, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x3B,
    0x61, 0x76, 0x63, 0x43, 0x01, 0xF4, 0x00, 0x0B, 0xFF, 0xE1, 0x00, 0x1E, 0x67, 0xF4, 0x00, 0x0B, 0x91, 0x9B,
    0x28, 0x50, 0x8F, 0xC4, 0xE0, 0xAD, 0x40, 0x40, 0x40, 0x50, 0x00, 0x00, 0x03, 0x00, 0x10, 0x00, 0x00, 0x03,
    0x03, 0x20, 0xF1, 0x42, 0x99, 0x60, 0x01, 0x00, 0x06, 0x68, 0xEB, 0xE3, 0xC4, 0x48, 0x44, 0xFF, 0xF8, 0xF8,
    0x00, 0x00, 0x00, 0x00, 0x12, 0x63, 0x6F, 0x6C, 0x72, 0x6E, 0x63, 0x6C, 0x63, 0x00, 0x01, 0x00, 0x01, 0x00,
    0x01, 0x00, 0x00, 0x00, 0x10, 0x70, 0x61, 0x73, 0x70, 0x00, 0x00, 0x00, 0x28, 0x00, 0x00, 0x00, 0x21,
};

// The SPS and PPS of the entry's avcC.
struct ParameterSets {
    std::vector<const uint8_t *> pointers;
    std::vector<size_t> sizes;
    ParameterSets() {
        const uint8_t *record = kEntry + 86 + 8;
        size_t at = 6;
        for (int array = 0; array < 2; ++array) {
            const unsigned count = array == 0 ? (record[5] & 0x1F) : record[at++];
            for (unsigned i = 0; i < count; ++i) {
                const size_t length = size_t(record[at]) << 8 | record[at + 1];
                pointers.push_back(record + at + 2);
                sizes.push_back(length);
                at += 2 + length;
            }
        }
    }
};

void BM_ReadEntry(benchmark::State &state) {
    for (auto _ : state) {
        SVFormatDescriptionRef desc = nullptr;
        SVSampleDescriptionCreateFormatDescription(nullptr, kSVMediaType_Video, kEntry, sizeof kEntry, nullptr, &desc);
        benchmark::DoNotOptimize(desc);
        CFRelease(desc);
    }
}
BENCHMARK(BM_ReadEntry);

void BM_WriteEntryRead(benchmark::State &state) {
    SVFormatDescriptionRef desc = nullptr;
    SVSampleDescriptionCreateFormatDescription(nullptr, kSVMediaType_Video, kEntry, sizeof kEntry, nullptr, &desc);
    for (auto _ : state) {
        CFDataRef data = nullptr;
        SVSampleDescriptionCopyAsBigEndianData(nullptr, desc, nullptr, &data);
        benchmark::DoNotOptimize(data);
        CFRelease(data);
    }
    CFRelease(desc);
}
BENCHMARK(BM_WriteEntryRead);

void BM_WriteEntryFromParameterSets(benchmark::State &state) {
    ParameterSets sets;
    SVFormatDescriptionRef desc = nullptr;
    SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, sets.pointers.size(), sets.pointers.data(),
                                                        sets.sizes.data(), 4, &desc);
    for (auto _ : state) {
        CFDataRef data = nullptr;
        SVSampleDescriptionCopyAsBigEndianData(nullptr, desc, kSVImageDescriptionFlavor_QuickTimeMovie, &data);
        benchmark::DoNotOptimize(data);
        CFRelease(data);
    }
    CFRelease(desc);
}
BENCHMARK(BM_WriteEntryFromParameterSets);

void BM_CreateFromParameterSets(benchmark::State &state) {
    ParameterSets sets;
    for (auto _ : state) {
        SVFormatDescriptionRef desc = nullptr;
        SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, sets.pointers.size(), sets.pointers.data(),
                                                            sets.sizes.data(), 4, &desc);
        benchmark::DoNotOptimize(desc);
        CFRelease(desc);
    }
}
BENCHMARK(BM_CreateFromParameterSets);

}  // namespace
