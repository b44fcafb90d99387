// SPDX-License-Identifier: Apache-2.0
// Audio format descriptions with a two-channel layout and a magic cookie:
// creating (and releasing) one, comparing two equal ones (the path players
// take to decide whether a decoder must be rebuilt), and describing one.
// Where libavcodec is present, the nearest equivalent there is measured
// beside it: allocating codec parameters with a channel layout and extradata
// and freeing them.
//
// Run with `make bench` (optimised build), or directly:
//   build/bench/SVFormatDescription_bench

#include <Sorvel/SVFormatDescription.h>
#include <benchmark/benchmark.h>

#include <cstring>

#if SORVEL_BENCH_HAVE_LIBAVCODEC
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/mem.h>
}
#endif

namespace {

// A 44.1 kHz stereo AAC stream: its layout names both channels, and its
// cookie is a typical 'esds' payload around a two-byte AudioSpecificConfig.
struct StereoAAC {
    AudioStreamBasicDescription asbd = {};
    unsigned char layoutBytes[12 + 2 * sizeof(AudioChannelDescription)] = {};
    const unsigned char cookie[40] = {0x00, 0x00, 0x00, 0x00,                          // version, flags
                                      0x03, 0x80, 0x80, 0x80, 0x1F, 0x00, 0x01, 0x00,  // ES_Descriptor
                                      0x04, 0x80, 0x80, 0x80, 0x14, 0x40, 0x15, 0x00,  // DecoderConfigDescriptor
                                      0x18, 0x00, 0x00, 0x01, 0xF4, 0x00, 0x00, 0x01, 0xF4,
                                      0x00, 0x05, 0x80, 0x80, 0x80, 0x02, 0x12, 0x10,  // AAC-LC, 44.1 kHz, stereo
                                      0x06, 0x01, 0x02};                               // SLConfigDescriptor

    StereoAAC() {
        asbd.mSampleRate = 44100;
        asbd.mFormatID = kAudioFormatMPEG4AAC;
        asbd.mFormatFlags = kMPEG4Object_AAC_LC;
        asbd.mFramesPerPacket = 1024;
        asbd.mChannelsPerFrame = 2;
        const UInt32 header[3] = {kAudioChannelLayoutTag_UseChannelDescriptions, 0, 2};
        const AudioChannelDescription channels[2] = {{kAudioChannelLabel_Left, 0, {-1, 0, 0}},
                                                     {kAudioChannelLabel_Right, 0, {1, 0, 0}}};
        std::memcpy(layoutBytes, header, sizeof header);
        std::memcpy(layoutBytes + sizeof header, channels, sizeof channels);
    }
    const AudioChannelLayout *layout() const { return reinterpret_cast<const AudioChannelLayout *>(layoutBytes); }

    SVFormatDescriptionRef create() const {
        SVFormatDescriptionRef desc = nullptr;
        SVAudioFormatDescriptionCreate(nullptr, &asbd, sizeof layoutBytes, layout(), sizeof cookie, cookie, nullptr,
                                       &desc);
        return desc;
    }
};

void BM_AudioDescriptionCreate(benchmark::State &state) {
    StereoAAC stream;
    for (auto _ : state) {
        SVFormatDescriptionRef desc = stream.create();
        benchmark::DoNotOptimize(desc);
        CFRelease(desc);
    }
}
BENCHMARK(BM_AudioDescriptionCreate);

void BM_AudioDescriptionEqual(benchmark::State &state) {
    StereoAAC stream;
    SVFormatDescriptionRef a = stream.create(), b = stream.create();
    for (auto _ : state) benchmark::DoNotOptimize(SVFormatDescriptionEqual(a, b));
    CFRelease(a);
    CFRelease(b);
}
BENCHMARK(BM_AudioDescriptionEqual);

void BM_AudioDescriptionDescribe(benchmark::State &state) {
    StereoAAC stream;
    SVFormatDescriptionRef desc = stream.create();
    for (auto _ : state) {
        CFStringRef text = CFCopyDescription(desc);
        benchmark::DoNotOptimize(text);
        CFRelease(text);
    }
    CFRelease(desc);
}
BENCHMARK(BM_AudioDescriptionDescribe);

void BM_AudioDescriptionFormatList(benchmark::State &state) {
    StereoAAC stream;
    for (auto _ : state) {
        SVFormatDescriptionRef desc = stream.create();
        benchmark::DoNotOptimize(SVAudioFormatDescriptionGetMostCompatibleFormat(desc));
        CFRelease(desc);
    }
}
BENCHMARK(BM_AudioDescriptionFormatList);

#if SORVEL_BENCH_HAVE_LIBAVCODEC
void BM_PeerAVCodecParametersCreate(benchmark::State &state) {
    StereoAAC stream;
    for (auto _ : state) {
        AVCodecParameters *par = avcodec_parameters_alloc();
        par->codec_type = AVMEDIA_TYPE_AUDIO;
        par->codec_id = AV_CODEC_ID_AAC;
        par->sample_rate = 44100;
        par->frame_size = 1024;
        av_channel_layout_default(&par->ch_layout, 2);
        par->extradata = static_cast<uint8_t *>(av_mallocz(sizeof stream.cookie + AV_INPUT_BUFFER_PADDING_SIZE));
        std::memcpy(par->extradata, stream.cookie, sizeof stream.cookie);
        par->extradata_size = sizeof stream.cookie;
        benchmark::DoNotOptimize(par);
        avcodec_parameters_free(&par);
    }
}
BENCHMARK(BM_PeerAVCodecParametersCreate);

// The nearest comparison a libavcodec user writes by hand: the fields a
// decoder depends on, the channel layout and the extradata bytes.
void BM_PeerAVCodecParametersCompare(benchmark::State &state) {
    StereoAAC stream;
    AVCodecParameters *pars[2];
    for (AVCodecParameters *&par : pars) {
        par = avcodec_parameters_alloc();
        par->codec_id = AV_CODEC_ID_AAC;
        par->sample_rate = 44100;
        av_channel_layout_default(&par->ch_layout, 2);
        par->extradata = static_cast<uint8_t *>(av_mallocz(sizeof stream.cookie + AV_INPUT_BUFFER_PADDING_SIZE));
        std::memcpy(par->extradata, stream.cookie, sizeof stream.cookie);
        par->extradata_size = sizeof stream.cookie;
    }
    for (auto _ : state) {
        const AVCodecParameters *a = pars[0], *b = pars[1];
        bool equal = a->codec_id == b->codec_id && a->sample_rate == b->sample_rate &&
                     av_channel_layout_compare(&a->ch_layout, &b->ch_layout) == 0 &&
                     a->extradata_size == b->extradata_size &&
                     std::memcmp(a->extradata, b->extradata, static_cast<size_t>(a->extradata_size)) == 0;
        benchmark::DoNotOptimize(equal);
    }
    for (AVCodecParameters *&par : pars) avcodec_parameters_free(&par);
}
BENCHMARK(BM_PeerAVCodecParametersCompare);
#endif

}  // namespace
