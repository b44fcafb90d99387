// SPDX-License-Identifier: Apache-2.0
// NAL units: the flexible Annex B enumerator over a ~50 MB stream (the real
// test streams concatenated repeatedly), side by side with memcpy of the
// same bytes (the memory floor) and a straightforward byte-by-byte scanner
// that reports the same units; and the Annex B encoding of every access
// unit of a real clip, side by side with FFmpeg's h264_mp4toannexb
// bitstream filter through av_bsf_* when libavcodec is installed.
//
//   build-rel/bench/SVNALUnit_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true

#include <Block.h>
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>
#include <Sorvel/SVSampleBuffer.h>
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#if SORVEL_BENCH_HAVE_LIBAVCODEC
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
}
#endif

namespace {

using Bytes = std::vector<uint8_t>;

std::string dataDir() {
#ifdef SORVEL_BENCH_DATA_DIR
    // Absolute, so the program runs from any directory.
    return SORVEL_BENCH_DATA_DIR;
#endif
    std::string file = __FILE__;
    return file.substr(0, file.rfind('/')) + "/../tests/data/";
}

Bytes readFile(const std::string &name) {
    std::ifstream in(dataDir() + name, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", name.c_str());
        std::abort();
    }
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// ---- Enumeration ------------------------------------------------------------

const Bytes &bigStream() {
    static const Bytes stream = [] {
        const char *names[] = {"media/avc_baseline_176x144.h264", "media/avc_high10_1280x720_pq.h264",
                               "media/avc_high_720x576_tff_sar16x11.h264", "media/hevc_main_1920x1080_bt709.h265",
                               "media/hevc_main_642x362_sar40x33_smpte170m_hvc1.h265"};
        Bytes all;
        for (const char *name : names) {
            Bytes one = readFile(name);
            all.insert(all.end(), one.begin(), one.end());
        }
        Bytes out;
        out.reserve(50u << 20);
        while (out.size() + all.size() <= (50u << 20)) out.insert(out.end(), all.begin(), all.end());
        return out;
    }();
    return stream;
}

// The flexible rule, one byte at a time, as one would write it plainly.
template <typename Visit>
size_t byteByByte(const uint8_t *d, size_t len, Visit &&visit) {
    size_t count = 0;
    size_t cur = len;
    for (size_t p = 0; p + 4 <= len; ++p)
        if (d[p] == 0 && d[p + 1] == 0 && d[p + 2] == 1) {
            cur = p;
            break;
        }
    if (cur == len) return 0;
    for (;;) {
        size_t next = len;
        for (size_t p = cur + 3; p + 3 <= len; ++p)
            if (d[p] == 0 && d[p + 1] == 0 && d[p + 2] == 1) {
                next = p;
                break;
            }
        if (next == len) {
            if (cur + 3 < len) visit(d + cur + 3, len - cur - 3), ++count;
            return count;
        }
        size_t unit = next - cur - 3;
        if (unit > 0 && d[next - 1] == 0) --unit;
        if (unit) visit(d + cur + 3, unit), ++count;
        cur = next;
    }
}

void BM_Enumerate_SorvelFlexible(benchmark::State &state) {
    const Bytes &stream = bigStream();
    __block size_t bytes = 0;
    SVNALUnitHandler handler = ^int(const uint8_t *, size_t length) {
      bytes += length;
      return 0;
    };
    size_t units = 0;
    for (auto _ : state) {
        units = _SVEnumerateAnnexBNALUnitsFlexible(stream.data(), stream.size(), handler);
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["units"] = static_cast<double>(units);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * stream.size()));
}
BENCHMARK(BM_Enumerate_SorvelFlexible)->Unit(benchmark::kMillisecond);

void BM_Enumerate_ByteByByte(benchmark::State &state) {
    const Bytes &stream = bigStream();
    size_t bytes = 0, units = 0;
    for (auto _ : state) {
        units = byteByByte(stream.data(), stream.size(), [&](const uint8_t *, size_t length) { bytes += length; });
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["units"] = static_cast<double>(units);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * stream.size()));
}
BENCHMARK(BM_Enumerate_ByteByByte)->Unit(benchmark::kMillisecond);

void BM_Enumerate_Memcpy(benchmark::State &state) {
    const Bytes &stream = bigStream();
    Bytes target(stream.size());
    for (auto _ : state) {
        std::memcpy(target.data(), stream.data(), stream.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * stream.size()));
}
BENCHMARK(BM_Enumerate_Memcpy)->Unit(benchmark::kMillisecond);

// ---- Annex B encoding -------------------------------------------------------

// Every access unit of a clip, from its MP4 sample table (offset, size).
struct Clip {
    Bytes record;
    std::vector<Bytes> samples;
    std::vector<bool> sync;
};

Clip loadClip(const std::string &name) {
    Clip clip;
    clip.record = readFile("records/" + name + ".avcC");
    Bytes raw = readFile("records/" + name + ".samples.json");
    std::string json(raw.begin(), raw.end());
    Bytes mp4 = readFile("media/" + name + ".mp4");
    for (size_t at = json.find("\"index\":", json.find("\"samples\":")); at != std::string::npos;
         at = json.find("\"index\":", at + 1)) {
        const size_t offset = std::strtoull(json.c_str() + json.find("\"offset\":", at) + 9, nullptr, 10);
        const size_t size =
            std::strtoull(json.c_str() + json.find("\"size\":", json.find("\"mdat_offset\":", at)) + 7, nullptr, 10);
        clip.samples.emplace_back(mp4.begin() + static_cast<long>(offset),
                                  mp4.begin() + static_cast<long>(offset + size));
        const size_t syncAt = json.find_first_not_of(' ', json.find("\"sync\":", at) + 7);
        clip.sync.push_back(json.compare(syncAt, 4, "true") == 0);
    }
    return clip;
}

// The clip carries its parameter sets in band, so FFmpeg's filter inserts
// none and ours is asked for none: both only rewrite the length prefixes.
const char *const kClip = "avc_high10_1280x720_pq";

void BM_AnnexB_Sorvel(benchmark::State &state) {
    Clip clip = loadClip(kClip);
    CFMutableDataRef sets = nullptr;
    int32_t headerLength = 0;
    _SVCreateConcatenatedParameterSetsFromAVCDecoderConfigurationRecord(clip.record.data(), clip.record.size(),
                                                                        &headerLength, &sets);
    __block std::vector<const uint8_t *> pointers;
    __block std::vector<size_t> sizes;
    _SVEnumerateAnnexBNALUnitsFlexible(CFDataGetBytePtr(sets), static_cast<size_t>(CFDataGetLength(sets)),
                                       ^int(const uint8_t *unit, size_t length) {
                                         pointers.push_back(unit);
                                         sizes.push_back(length);
                                         return 0;
                                       });
    SVFormatDescriptionRef desc = nullptr;
    if (SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, pointers.size(), pointers.data(), sizes.data(),
                                                            headerLength, &desc) != 0) {
        state.SkipWithError("cannot describe the clip");
        return;
    }
    std::vector<SVSampleBufferRef> buffers;
    size_t total = 0;
    for (Bytes &sample : clip.samples) {
        SVBlockBufferRef block = nullptr;
        SVBlockBufferCreateWithMemoryBlock(nullptr, sample.data(), sample.size(), kCFAllocatorNull, nullptr, 0,
                                           sample.size(), 0, &block);
        SVSampleBufferRef sbuf = nullptr;
        const size_t size = sample.size();
        SVSampleBufferCreate(nullptr, block, true, nullptr, nullptr, desc, 1, 0, nullptr, 1, &size, &sbuf);
        CFRelease(block);
        buffers.push_back(sbuf);
        total += size;
    }
    // One reusable output buffer, as a caller with a packet pool would have.
    __block Bytes output(1 << 22);
    SVSampleBufferPacketAllocator allocator = ^void *(size_t size) {
        return size <= output.size() ? output.data() : nullptr;
    };
    for (auto _ : state) {
        for (SVSampleBufferRef sbuf : buffers) {
            OSStatus status = _SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer(sbuf, 0, nullptr, 0, allocator);
            benchmark::DoNotOptimize(status);
        }
    }
    state.counters["access_units"] = static_cast<double>(buffers.size());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * total));
    for (SVSampleBufferRef sbuf : buffers) CFRelease(sbuf);
    CFRelease(desc);
    CFRelease(sets);
}
BENCHMARK(BM_AnnexB_Sorvel)->Unit(benchmark::kMicrosecond);

#if SORVEL_BENCH_HAVE_LIBAVCODEC
void BM_AnnexB_FFmpegBSF(benchmark::State &state) {
    Clip clip = loadClip(kClip);
    AVBSFContext *bsf = nullptr;
    if (av_bsf_alloc(av_bsf_get_by_name("h264_mp4toannexb"), &bsf) < 0) {
        state.SkipWithError("no h264_mp4toannexb");
        return;
    }
    bsf->par_in->codec_type = AVMEDIA_TYPE_VIDEO;
    bsf->par_in->codec_id = AV_CODEC_ID_H264;
    bsf->par_in->extradata = static_cast<uint8_t *>(av_mallocz(clip.record.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    std::memcpy(bsf->par_in->extradata, clip.record.data(), clip.record.size());
    bsf->par_in->extradata_size = static_cast<int>(clip.record.size());
    if (av_bsf_init(bsf) < 0) {
        state.SkipWithError("av_bsf_init failed");
        av_bsf_free(&bsf);
        return;
    }
    // Ref-counted input packets, as a demuxer hands them over.
    std::vector<AVPacket *> packets;
    size_t total = 0;
    for (const Bytes &sample : clip.samples) {
        AVPacket *packet = av_packet_alloc();
        av_new_packet(packet, static_cast<int>(sample.size()));
        std::memcpy(packet->data, sample.data(), sample.size());
        packets.push_back(packet);
        total += sample.size();
    }
    for (size_t i = 0; i < packets.size(); ++i)
        if (clip.sync[i]) packets[i]->flags |= AV_PKT_FLAG_KEY;
    AVPacket *in = av_packet_alloc();
    AVPacket *out = av_packet_alloc();
    for (auto _ : state) {
        for (AVPacket *packet : packets) {
            av_packet_ref(in, packet);
            av_bsf_send_packet(bsf, in);
            while (av_bsf_receive_packet(bsf, out) == 0) {
                benchmark::DoNotOptimize(out->data);
                av_packet_unref(out);
            }
        }
    }
    state.counters["access_units"] = static_cast<double>(packets.size());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * total));
    av_packet_free(&in);
    av_packet_free(&out);
    for (AVPacket *packet : packets) av_packet_free(&packet);
    av_bsf_free(&bsf);
}
BENCHMARK(BM_AnnexB_FFmpegBSF)->Unit(benchmark::kMicrosecond);
#endif

}  // namespace
