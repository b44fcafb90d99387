// SPDX-License-Identifier: Apache-2.0
// Audio sample buffers: creation with derived timing and its refusals (with
// their log lines), packet descriptions, buffer lists in place and copied,
// PCM copies in and out, range copies and iteration with their time stamps,
// trims, the buffer queue, and allocation failure at every step.

#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVBufferQueue.h>
#include <Sorvel/SVSampleBuffer.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/SVObject.h"
#include "support/LogCapture.h"
#include "support/TestAllocator.h"

namespace {

using sorvel::SVRetained;
using sorvel_test::LogCapture;
using sorvel_test::TestAllocator;
using Sample = SVRetained<SVSampleBufferRef>;
using Block = SVRetained<SVBlockBufferRef>;
using Format = SVRetained<SVFormatDescriptionRef>;

constexpr uint32_t kNonInterleavedFloat =
    kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked | kAudioFormatFlagIsNonInterleaved;

AudioStreamBasicDescription pcm16Stereo(double rate = 44100) {
    return {rate, kAudioFormatLinearPCM, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked, 4, 1, 4, 2, 16, 0};
}
AudioStreamBasicDescription float51(double rate = 48000) {
    return {rate, kAudioFormatLinearPCM, kNonInterleavedFloat, 4, 1, 4, 6, 32, 0};
}
AudioStreamBasicDescription aac(double rate = 44100) {
    return {rate, kAudioFormatMPEG4AAC, 0, 0, 1024, 0, 2, 0, 0};
}
AudioStreamBasicDescription opus() {
    return {48000, kAudioFormatOpus, 0, 0, 0, 0, 2, 0, 0};
}

Format audioFormat(const AudioStreamBasicDescription &asbd) {
    SVFormatDescriptionRef desc = nullptr;
    EXPECT_EQ(SVAudioFormatDescriptionCreate(nullptr, &asbd, 0, nullptr, 0, nullptr, nullptr, &desc), 0);
    return Format(desc);
}

// A block buffer of `length` bytes whose byte i is i % 251.
Block patternData(size_t length, CFAllocatorRef structure = nullptr) {
    SVBlockBufferRef block = nullptr;
    EXPECT_EQ(SVBlockBufferCreateWithMemoryBlock(structure, nullptr, length, nullptr, nullptr, 0, length,
                                                 kSVBlockBufferAssureMemoryNowFlag, &block),
              0);
    std::vector<uint8_t> bytes(length);
    for (size_t i = 0; i < length; i++) bytes[i] = static_cast<uint8_t>(i % 251);
    EXPECT_EQ(SVBlockBufferReplaceDataBytes(bytes.data(), block, 0, length), 0);
    return Block(block);
}

// The same bytes in two pieces, so the data is not contiguous.
Block splitPatternData(size_t length, size_t firstPiece) {
    Block whole = patternData(length);
    SVBlockBufferRef block = nullptr;
    EXPECT_EQ(SVBlockBufferCreateEmpty(nullptr, 2, 0, &block), 0);
    EXPECT_EQ(SVBlockBufferAppendMemoryBlock(block, nullptr, firstPiece, nullptr, nullptr, 0, firstPiece,
                                             kSVBlockBufferAssureMemoryNowFlag),
              0);
    EXPECT_EQ(SVBlockBufferAppendMemoryBlock(block, nullptr, length - firstPiece, nullptr, nullptr, 0,
                                             length - firstPiece, kSVBlockBufferAssureMemoryNowFlag),
              0);
    std::vector<uint8_t> bytes(length);
    EXPECT_EQ(SVBlockBufferCopyDataBytes(whole.get(), 0, length, bytes.data()), 0);
    EXPECT_EQ(SVBlockBufferReplaceDataBytes(bytes.data(), block, 0, length), 0);
    return Block(block);
}

std::vector<uint8_t> bytesOf(SVBlockBufferRef block) {
    std::vector<uint8_t> bytes(SVBlockBufferGetDataLength(block));
    if (!bytes.empty()) EXPECT_EQ(SVBlockBufferCopyDataBytes(block, 0, bytes.size(), bytes.data()), 0);
    return bytes;
}

Sample makeAudio(SVBlockBufferRef data, SVFormatDescriptionRef format, SVItemCount packets, SVTime pts,
                 const std::vector<AudioStreamPacketDescription> &descriptions = {}) {
    SVSampleBufferRef sbuf = nullptr;
    EXPECT_EQ(SVAudioSampleBufferCreateReadyWithPacketDescriptions(
                  nullptr, data, format, packets, pts, descriptions.empty() ? nullptr : descriptions.data(), &sbuf),
              0);
    return Sample(sbuf);
}

// Packets laid end to end.
std::vector<AudioStreamPacketDescription> packed(const std::vector<uint32_t> &sizes,
                                                 const std::vector<uint32_t> &frames = {}) {
    std::vector<AudioStreamPacketDescription> out;
    int64_t offset = 0;
    for (size_t i = 0; i < sizes.size(); i++) {
        out.push_back({offset, frames.empty() ? 0 : frames[i], sizes[i]});
        offset += sizes[i];
    }
    return out;
}

void expectTime(SVTime actual, int64_t value, int32_t timescale) {
    EXPECT_TRUE(actual.flags & kSVTimeFlags_Valid);
    EXPECT_EQ(SVTimeCompare(actual, SVTimeMake(value, timescale)), 0)
        << actual.value << "/" << actual.timescale << " != " << value << "/" << timescale;
}

SVSampleTimingInfo timingOf(SVSampleBufferRef sbuf) {
    SVSampleTimingInfo timing{};
    EXPECT_EQ(SVSampleBufferGetSampleTimingInfo(sbuf, 0, &timing), 0);
    return timing;
}

std::string describe(CFTypeRef object) {
    SVRetained<CFStringRef> text(CFCopyDescription(object));
    return CFStringGetCStringPtr(text.get(), kCFStringEncodingUTF8);
}

// ==== Creation ===============================================================

TEST(SVAudioSampleBufferCreate, DerivesTimingAndSizesFromTheFormat) {
    struct Case {
        const char *name;
        AudioStreamBasicDescription asbd;
        SVItemCount packets;
        std::vector<AudioStreamPacketDescription> descriptions;
        size_t dataLength;
        int64_t entryValue;
        int32_t entryScale;
        int64_t totalFrames;  // buffer duration in the rate's timescale
        std::vector<size_t> sizes;
    } cases[] = {
        {"interleaved 16-bit stereo", pcm16Stereo(), 1024, {}, 4096, 1, 44100, 1024, {4}},
        {"non-interleaved float 5.1", float51(), 480, {}, 480 * 24, 1, 48000, 480, {24}},
        {"AAC", aac(), 3, packed({300, 200, 250}), 750, 1024, 44100, 3072, {300, 200, 250}},
        // 960 + 480 + 960 frames spread over three packets: 800 each.
        {"Opus, variable frames",
         opus(),
         3,
         packed({120, 60, 121}, {960, 480, 960}),
         301,
         800,
         48000,
         2400,
         {120, 60, 121}},
        // 1000 + 1000 + 1001 frames do not divide evenly: the entry's
        // timescale grows so the whole stays exact.
        {"uneven spread", opus(), 3, packed({10, 10, 10}, {1000, 1000, 1001}), 30, 3001, 144000, 3001, {10, 10, 10}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        auto format = audioFormat(c.asbd);
        auto data = patternData(c.dataLength);
        auto sbuf = makeAudio(data.get(), format.get(), c.packets, SVTimeMake(5, 1), c.descriptions);
        ASSERT_TRUE(sbuf);
        EXPECT_EQ(SVSampleBufferGetNumSamples(sbuf.get()), c.packets);
        SVItemCount entries = 0;
        EXPECT_EQ(SVSampleBufferGetSampleTimingInfoArray(sbuf.get(), 0, nullptr, &entries), 0);
        EXPECT_EQ(entries, 1);
        SVSampleTimingInfo timing = timingOf(sbuf.get());
        expectTime(timing.duration, c.entryValue, c.entryScale);
        expectTime(timing.presentationTimeStamp, 5, 1);
        EXPECT_FALSE(timing.decodeTimeStamp.flags & kSVTimeFlags_Valid);
        expectTime(SVSampleBufferGetDuration(sbuf.get()), c.totalFrames, static_cast<int32_t>(c.asbd.mSampleRate));
        std::vector<size_t> sizes(8);
        SVItemCount count = 0;
        EXPECT_EQ(SVSampleBufferGetSampleSizeArray(sbuf.get(), 8, sizes.data(), &count), 0);
        sizes.resize(static_cast<size_t>(count));
        EXPECT_EQ(sizes, c.sizes);
        EXPECT_EQ(SVSampleBufferGetTotalSampleSize(sbuf.get()), c.dataLength);
        EXPECT_TRUE(SVSampleBufferDataIsReady(sbuf.get()));
    }
}

TEST(SVAudioSampleBufferCreate, WholeRateTimescaleAndDescriptionNameTheFormat) {
    auto format = audioFormat(aac());
    auto data = patternData(10);
    auto sbuf = makeAudio(data.get(), format.get(), 1, SVTimeMake(0, 44100), packed({10}));
    // The duration is stored in the sample rate's own timescale.
    EXPECT_EQ(timingOf(sbuf.get()).duration.timescale, 44100);
    EXPECT_EQ(timingOf(sbuf.get()).duration.value, 1024);
    EXPECT_NE(describe(sbuf.get()).find("1 sample(s) of 'aac '"), std::string::npos) << describe(sbuf.get());

    // A rate that is not a whole number still gives the right duration.
    auto odd = audioFormat(aac(22050.5));
    auto oddBuffer = makeAudio(data.get(), odd.get(), 1, SVTimeMake(0, 1), packed({10}));
    EXPECT_NEAR(SVTimeGetSeconds(SVSampleBufferGetDuration(oddBuffer.get())), 1024 / 22050.5, 1e-9);
}

TEST(SVAudioSampleBufferCreate, RefusesBadInputWithALogLine) {
    auto video = [] {
        SVFormatDescriptionRef desc = nullptr;
        EXPECT_EQ(SVFormatDescriptionCreate(nullptr, kSVMediaType_Video, 'avc1', nullptr, &desc), 0);
        return Format(desc);
    }();
    AudioStreamBasicDescription pcmNoFrames = pcm16Stereo();
    pcmNoFrames.mFramesPerPacket = 0;
    AudioStreamBasicDescription aacNoFrames = aac();
    aacNoFrames.mFramesPerPacket = 0;
    AudioStreamBasicDescription ac3 = {48000, kAudioFormatAC3, 0, 768, 1536, 0, 2, 0, 0};

    struct Case {
        const char *name;
        SVFormatDescriptionRef format;  // NULL: make one from asbd
        AudioStreamBasicDescription asbd;
        SVItemCount packets;
        std::vector<AudioStreamPacketDescription> descriptions;
        size_t dataLength;  // 0: no data buffer
        OSStatus status;
        const char *log;
    } cases[] = {
        {"video description",
         video.get(),
         {},
         1,
         {},
         4,
         kSVSampleBufferError_InvalidMediaTypeForOperation,
         "needs an audio format description"},
        {"zero sample rate",
         nullptr,
         pcm16Stereo(0),
         1,
         {},
         4,
         kSVSampleBufferError_InvalidAudioData,
         "cannot be timed"},
        {"NaN sample rate",
         nullptr,
         pcm16Stereo(NAN),
         1,
         {},
         4,
         kSVSampleBufferError_InvalidAudioData,
         "cannot be timed"},
        {"PCM, 0 frames per packet",
         nullptr,
         pcmNoFrames,
         1,
         {},
         4,
         kSVSampleBufferError_InvalidAudioData,
         "linear PCM needs 1 frame per packet"},
        {"PCM with packet descriptions", nullptr, pcm16Stereo(), 1, packed({4}), 4,
         kSVSampleBufferError_InvalidAudioData, "takes no packet descriptions"},
        {"PCM data too short",
         nullptr,
         pcm16Stereo(),
         4,
         {},
         15,
         kSVSampleBufferError_InvalidAudioData,
         "the data is 15 bytes long"},
        {"no packets", nullptr, pcm16Stereo(), 0, {}, 0, kSVSampleBufferError_InvalidAudioData, "not 0"},
        {"AAC without descriptions",
         nullptr,
         aac(),
         1,
         {},
         4,
         kSVSampleBufferError_RequiredParameterMissing,
         "packet descriptions are required"},
        {"AAC, overlapping packets",
         nullptr,
         aac(),
         2,
         {{0, 0, 10}, {5, 0, 10}},
         15,
         kSVSampleBufferError_InvalidAudioData,
         "overlaps"},
        {"AAC, out of order",
         nullptr,
         aac(),
         2,
         {{10, 0, 10}, {0, 0, 10}},
         20,
         kSVSampleBufferError_InvalidAudioData,
         "overlaps"},
        {"AAC, packet past the data", nullptr, aac(), 2, packed({10, 10}), 15, kSVSampleBufferError_InvalidAudioData,
         "runs past the data"},
        {"AAC, data longer than the packets", nullptr, aac(), 2, packed({10, 10}), 25,
         kSVSampleBufferError_InvalidAudioData, "the packets end at 20"},
        {"negative offset",
         nullptr,
         aac(),
         1,
         {{-1, 0, 10}},
         10,
         kSVSampleBufferError_InvalidAudioData,
         "starts at offset -1"},
        {"variable frames without counts", nullptr, aacNoFrames, 2, packed({10, 10}, {1024, 0}), 20,
         kSVSampleBufferError_InvalidAudioData, "packet 1 gives no frame count"},
        {"constant packets, wrong length",
         nullptr,
         ac3,
         2,
         {},
         1000,
         kSVSampleBufferError_InvalidAudioData,
         "2 packets of 768 bytes are 1536"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Format made;
        SVFormatDescriptionRef format = c.format;
        if (!format) {
            made = audioFormat(c.asbd);
            format = made.get();
        }
        Block data;
        if (c.dataLength) data = patternData(c.dataLength);
        LogCapture log;
        SVSampleBufferRef sbuf = reinterpret_cast<SVSampleBufferRef>(uintptr_t{1});
        EXPECT_EQ(SVAudioSampleBufferCreateReadyWithPacketDescriptions(
                      nullptr, data.get(), format, c.packets, SVTimeMake(0, 1),
                      c.descriptions.empty() ? nullptr : c.descriptions.data(), &sbuf),
                  c.status);
        EXPECT_EQ(sbuf, nullptr);
        EXPECT_TRUE(log.contains(c.log)) << (log.count() ? log.lines()[0].message : std::string("no log line"));
        if (log.count()) {
            EXPECT_EQ(log.lines()[0].level, 3);
            EXPECT_EQ(log.lines()[0].function, "SVAudioSampleBufferCreateReadyWithPacketDescriptions");
        }
    }
    SVSampleBufferRef sbuf = nullptr;
    EXPECT_EQ(SVAudioSampleBufferCreateReadyWithPacketDescriptions(nullptr, nullptr, nullptr, 1, SVTimeMake(0, 1),
                                                                   nullptr, &sbuf),
              kSVSampleBufferError_RequiredParameterMissing);
    auto format = audioFormat(pcm16Stereo());
    EXPECT_EQ(SVAudioSampleBufferCreateReadyWithPacketDescriptions(nullptr, nullptr, format.get(), 1, SVTimeMake(0, 1),
                                                                   nullptr, nullptr),
              kSVSampleBufferError_RequiredParameterMissing);
}

TEST(SVAudioSampleBufferCreate, AllocationFailureAtEveryStepLeaksNothing) {
    auto format = audioFormat(aac());
    auto data = patternData(100 * 10);
    std::vector<uint32_t> sizes(100, 10);  // more than fit the inline size array
    auto descriptions = packed(sizes);
    TestAllocator allocator;
    bool succeeded = false;
    for (long n = 0; n < 20 && !succeeded; n++) {
        allocator.failAfter(n);
        SVSampleBufferRef sbuf = nullptr;
        OSStatus status = SVAudioSampleBufferCreateReadyWithPacketDescriptions(
            allocator.get(), data.get(), format.get(), 100, SVTimeMake(0, 1), descriptions.data(), &sbuf);
        if (status == 0) {
            succeeded = true;
            allocator.failAfter(-1);
            // A copy and a range copy through the same allocator.
            for (long m = 0; m < 10; m++) {
                allocator.failAfter(m);
                SVSampleBufferRef copy = nullptr;
                OSStatus copyStatus = SVSampleBufferCreateCopy(allocator.get(), sbuf, &copy);
                EXPECT_TRUE(copyStatus == 0 || copyStatus == kSVSampleBufferError_AllocationFailed);
                if (copy) CFRelease(copy);
                SVSampleBufferRef range = nullptr;
                OSStatus rangeStatus =
                    SVSampleBufferCopySampleBufferForRange(allocator.get(), sbuf, CFRangeMake(10, 20), &range);
                EXPECT_TRUE(rangeStatus == 0 || rangeStatus == kSVSampleBufferError_AllocationFailed);
                if (range) CFRelease(range);
            }
            allocator.failAfter(-1);
            CFRelease(sbuf);
        } else {
            EXPECT_EQ(status, kSVSampleBufferError_AllocationFailed);
            EXPECT_EQ(sbuf, nullptr);
        }
    }
    EXPECT_TRUE(succeeded);
    EXPECT_EQ(allocator.outstanding(), 0);
}

// ==== Packet descriptions ====================================================

TEST(SVAudioSampleBufferPacketDescriptions, CountThenCopy) {
    auto format = audioFormat(aac());
    auto descriptions = packed({30, 20, 25});
    auto data = patternData(75);
    auto sbuf = makeAudio(data.get(), format.get(), 3, SVTimeMake(0, 1), descriptions);
    const size_t bytes = 3 * sizeof(AudioStreamPacketDescription);

    size_t needed = 0;
    EXPECT_EQ(SVSampleBufferGetAudioStreamPacketDescriptions(sbuf.get(), 0, nullptr, &needed), 0);
    EXPECT_EQ(needed, bytes);

    std::vector<AudioStreamPacketDescription> out(3, AudioStreamPacketDescription{77, 77, 77});
    needed = 0;
    EXPECT_EQ(SVSampleBufferGetAudioStreamPacketDescriptions(sbuf.get(), bytes - 1, out.data(), &needed),
              kSVSampleBufferError_ArrayTooSmall);
    EXPECT_EQ(needed, bytes);
    EXPECT_EQ(out[0].mStartOffset, 77);  // nothing written

    EXPECT_EQ(SVSampleBufferGetAudioStreamPacketDescriptions(sbuf.get(), bytes, out.data(), nullptr), 0);
    EXPECT_EQ(std::memcmp(out.data(), descriptions.data(), bytes), 0);

    const AudioStreamPacketDescription *pointer = nullptr;
    size_t size = 0;
    EXPECT_EQ(SVSampleBufferGetAudioStreamPacketDescriptionsPtr(sbuf.get(), &pointer, &size), 0);
    ASSERT_NE(pointer, nullptr);
    EXPECT_NE(pointer, descriptions.data());  // the buffer's own copy
    EXPECT_EQ(size, bytes);
    EXPECT_EQ(pointer[2].mStartOffset, 50);

    // PCM has none; NULL and invalidated buffers are refused.
    auto pcmFormat = audioFormat(pcm16Stereo());
    auto pcmData = patternData(8);
    auto pcm = makeAudio(pcmData.get(), pcmFormat.get(), 2, SVTimeMake(0, 1));
    needed = 99;
    EXPECT_EQ(SVSampleBufferGetAudioStreamPacketDescriptions(pcm.get(), 0, out.data(), &needed), 0);
    EXPECT_EQ(needed, 0u);
    EXPECT_EQ(SVSampleBufferGetAudioStreamPacketDescriptionsPtr(pcm.get(), &pointer, &size), 0);
    EXPECT_EQ(pointer, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(SVSampleBufferGetAudioStreamPacketDescriptions(nullptr, 0, nullptr, &needed),
              kSVSampleBufferError_RequiredParameterMissing);
    EXPECT_EQ(SVSampleBufferGetAudioStreamPacketDescriptionsPtr(nullptr, &pointer, &size),
              kSVSampleBufferError_RequiredParameterMissing);
    EXPECT_EQ(SVSampleBufferInvalidate(pcm.get()), 0);
    EXPECT_EQ(SVSampleBufferGetAudioStreamPacketDescriptions(pcm.get(), 0, nullptr, &needed),
              kSVSampleBufferError_Invalidated);
}

// ==== Buffer lists ===========================================================

struct List {
    std::vector<uint8_t> storage;
    explicit List(uint32_t buffers)
        : storage(offsetof(AudioBufferList, mBuffers) + buffers * sizeof(AudioBuffer) + 16) {}
    AudioBufferList *get() { return reinterpret_cast<AudioBufferList *>(storage.data()); }
    size_t size() const { return storage.size() - 16; }
};

TEST(SVAudioSampleBufferBufferList, InPlaceWhenContiguousAndAligned) {
    struct Case {
        const char *name;
        AudioStreamBasicDescription asbd;
        SVItemCount packets;
        std::vector<AudioStreamPacketDescription> descriptions;
        size_t length;
        uint32_t buffers, channelsPerBuffer;
    } cases[] = {
        {"interleaved 16-bit stereo", pcm16Stereo(), 4096, {}, 4096 * 4, 1, 2},
        {"non-interleaved float 5.1", float51(), 64, {}, 64 * 24, 6, 1},
        {"AAC", aac(), 2, packed({7, 9}), 16, 1, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        auto format = audioFormat(c.asbd);
        auto data = patternData(c.length);
        auto sbuf = makeAudio(data.get(), format.get(), c.packets, SVTimeMake(0, 1), c.descriptions);
        size_t needed = 0;
        EXPECT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sbuf.get(), &needed, nullptr, 0, nullptr,
                                                                          nullptr, 0, nullptr),
                  0);
        EXPECT_EQ(needed, offsetof(AudioBufferList, mBuffers) + c.buffers * sizeof(AudioBuffer));
        List list(c.buffers);
        SVBlockBufferRef holder = nullptr;
        ASSERT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sbuf.get(), nullptr, list.get(), needed,
                                                                          nullptr, nullptr, 0, &holder),
                  0);
        Block ownedHolder(holder);
        EXPECT_EQ(holder, data.get());  // in place: the data buffer itself, retained
        char *base = nullptr;
        ASSERT_EQ(SVBlockBufferGetDataPointer(data.get(), 0, nullptr, nullptr, &base), 0);
        ASSERT_EQ(list.get()->mNumberBuffers, c.buffers);
        for (uint32_t i = 0; i < c.buffers; i++) {
            const AudioBuffer &buffer = list.get()->mBuffers[i];
            EXPECT_EQ(buffer.mNumberChannels, c.channelsPerBuffer);
            EXPECT_EQ(buffer.mDataByteSize, c.length / c.buffers);
            EXPECT_EQ(buffer.mData, base + i * (c.length / c.buffers));  // planes one after another
        }
    }
}

TEST(SVAudioSampleBufferBufferList, CopiedWhenSplitOrMisaligned) {
    auto format = audioFormat(float51());
    const size_t frames = 10, plane = frames * 4, length = plane * 6;
    // Split data, misaligned data (a reference one byte in), and a request
    // for 16-byte alignment that the 40-byte planes cannot meet in place.
    auto split = splitPatternData(length, 100);
    auto wide = patternData(length + 1);
    SVBlockBufferRef shifted = nullptr;
    ASSERT_EQ(SVBlockBufferCreateWithBufferReference(nullptr, wide.get(), 1, length, 0, &shifted), 0);
    Block ownedShifted(shifted);
    auto plain = patternData(length);
    struct Case {
        const char *name;
        SVBlockBufferRef data;
        uint32_t flags;
        size_t alignment;
    } cases[] = {
        {"split", split.get(), 0, 4},
        {"misaligned", shifted, 0, 4},
        {"16-byte alignment asked", plain.get(), kSVSampleBufferFlag_AudioBufferList_Assure16ByteAlignment, 16},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        auto sbuf = makeAudio(c.data, format.get(), frames, SVTimeMake(0, 1));
        const std::vector<uint8_t> expected = bytesOf(c.data);
        List list(6);
        SVBlockBufferRef holder = nullptr;
        TestAllocator blocks;
        ASSERT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sbuf.get(), nullptr, list.get(), list.size(),
                                                                          nullptr, blocks.get(), c.flags, &holder),
                  0);
        EXPECT_NE(holder, c.data);
        EXPECT_EQ(blocks.allocations(), 1);  // the copy's bytes come from the block allocator
        for (uint32_t i = 0; i < 6; i++) {
            const AudioBuffer &buffer = list.get()->mBuffers[i];
            EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.mData) % c.alignment, 0u) << i;
            EXPECT_EQ(buffer.mDataByteSize, plane);
            EXPECT_EQ(std::memcmp(buffer.mData, expected.data() + i * plane, plane), 0) << i;
        }
        CFRelease(holder);
        EXPECT_EQ(blocks.outstanding(), 0);
    }
}

TEST(SVAudioSampleBufferBufferList, RefusesWhatItCannotServe) {
    auto format = audioFormat(pcm16Stereo());
    auto data = patternData(16);
    auto sbuf = makeAudio(data.get(), format.get(), 4, SVTimeMake(0, 1));
    List list(1);
    SVBlockBufferRef holder = nullptr;
    EXPECT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sbuf.get(), nullptr, list.get(), list.size() - 1,
                                                                      nullptr, nullptr, 0, &holder),
              kSVSampleBufferError_ArrayTooSmall);
    EXPECT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sbuf.get(), nullptr, list.get(), list.size(),
                                                                      nullptr, nullptr, 0, nullptr),
              kSVSampleBufferError_RequiredParameterMissing);
    EXPECT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(nullptr, nullptr, list.get(), list.size(),
                                                                      nullptr, nullptr, 0, &holder),
              kSVSampleBufferError_RequiredParameterMissing);
    // No data yet, data not ready.
    SVSampleBufferRef empty = nullptr;
    ASSERT_EQ(SVAudioSampleBufferCreateWithPacketDescriptions(nullptr, nullptr, false, nullptr, nullptr, format.get(),
                                                              4, SVTimeMake(0, 1), nullptr, &empty),
              0);
    Sample ownedEmpty(empty);
    EXPECT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(empty, nullptr, list.get(), list.size(), nullptr,
                                                                      nullptr, 0, &holder),
              kSVSampleBufferError_BufferNotReady);
    EXPECT_EQ(SVSampleBufferSetDataBuffer(empty, data.get()), 0);
    EXPECT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(empty, nullptr, list.get(), list.size(), nullptr,
                                                                      nullptr, 0, &holder),
              kSVSampleBufferError_BufferNotReady);
    // A plain sample buffer with a video description, and PCM data whose
    // length the sample count contradicts.
    SVSampleBufferRef video = nullptr;
    ASSERT_EQ(SVSampleBufferCreateReady(nullptr, data.get(), nullptr, 1, 0, nullptr, 0, nullptr, &video), 0);
    Sample ownedVideo(video);
    EXPECT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(video, nullptr, list.get(), list.size(), nullptr,
                                                                      nullptr, 0, &holder),
              kSVSampleBufferError_InvalidMediaTypeForOperation);
    SVSampleBufferRef wrong = nullptr;
    ASSERT_EQ(SVSampleBufferCreateReady(nullptr, data.get(), format.get(), 5, 0, nullptr, 0, nullptr, &wrong), 0);
    Sample ownedWrong(wrong);
    LogCapture log;
    EXPECT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(wrong, nullptr, list.get(), list.size(), nullptr,
                                                                      nullptr, 0, &holder),
              kSVSampleBufferError_InvalidAudioData);
    EXPECT_TRUE(log.contains("5 frames of 4 bytes are 20"));
    // A failing block allocator: the copy cannot be made, nothing leaks.
    auto split = splitPatternData(16, 6);
    auto splitBuffer = makeAudio(split.get(), format.get(), 4, SVTimeMake(0, 1));
    TestAllocator failing;
    failing.failAlways();
    holder = nullptr;
    EXPECT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
                  splitBuffer.get(), nullptr, list.get(), list.size(), failing.get(), failing.get(), 0, &holder),
              kSVSampleBufferError_AllocationFailed);
    EXPECT_EQ(holder, nullptr);
    TestAllocator structureFails;
    structureFails.failAfter(0);
    TestAllocator blocks;
    EXPECT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
                  splitBuffer.get(), nullptr, list.get(), list.size(), structureFails.get(), blocks.get(), 0, &holder),
              kSVSampleBufferError_AllocationFailed);
    EXPECT_EQ(blocks.outstanding(), 0);
}

// ==== PCM copies out and in ==================================================

TEST(SVAudioSampleBufferPCM, CopiesFramesIntoTheCallersBuffers) {
    // Interleaved: one buffer; non-interleaved: frames 2..4 of every plane.
    auto stereo = audioFormat(pcm16Stereo());
    auto stereoData = patternData(40);
    auto interleaved = makeAudio(stereoData.get(), stereo.get(), 10, SVTimeMake(0, 1));
    uint8_t out[64] = {};
    List list(1);
    list.get()->mNumberBuffers = 1;
    list.get()->mBuffers[0] = {2, sizeof(out), out};
    ASSERT_EQ(SVSampleBufferCopyPCMDataIntoAudioBufferList(interleaved.get(), 3, 5, list.get()), 0);
    EXPECT_EQ(list.get()->mBuffers[0].mDataByteSize, 20u);
    for (int i = 0; i < 20; i++) EXPECT_EQ(out[i], 12 + i);

    auto surround = audioFormat(float51());
    auto planes = patternData(6 * 8 * 4);  // 8 frames, 32-byte planes
    auto planar = makeAudio(planes.get(), surround.get(), 8, SVTimeMake(0, 1));
    std::vector<std::vector<uint8_t>> channels(6, std::vector<uint8_t>(12));
    List six(6);
    six.get()->mNumberBuffers = 6;
    for (int c = 0; c < 6; c++) six.get()->mBuffers[c] = {1, 12, channels[c].data()};
    ASSERT_EQ(SVSampleBufferCopyPCMDataIntoAudioBufferList(planar.get(), 2, 3, six.get()), 0);
    for (int c = 0; c < 6; c++)
        for (int i = 0; i < 12; i++) EXPECT_EQ(channels[c][i], c * 32 + 8 + i) << c << " " << i;

    // The last frame exactly, and zero frames.
    list.get()->mBuffers[0] = {2, sizeof(out), out};
    EXPECT_EQ(SVSampleBufferCopyPCMDataIntoAudioBufferList(interleaved.get(), 9, 1, list.get()), 0);
    EXPECT_EQ(out[0], 36);
    EXPECT_EQ(SVSampleBufferCopyPCMDataIntoAudioBufferList(interleaved.get(), 10, 0, list.get()), 0);
    EXPECT_EQ(list.get()->mBuffers[0].mDataByteSize, 0u);
}

TEST(SVAudioSampleBufferPCM, RefusesFramesOutsideAndListsOfTheWrongShape) {
    auto stereo = audioFormat(pcm16Stereo());
    auto data = patternData(40);
    auto sbuf = makeAudio(data.get(), stereo.get(), 10, SVTimeMake(0, 1));
    auto surround = audioFormat(float51());
    auto planes = patternData(6 * 4 * 4);
    auto planar = makeAudio(planes.get(), surround.get(), 4, SVTimeMake(0, 1));
    auto aacFormat = audioFormat(aac());
    auto aacData = patternData(10);
    auto compressed = makeAudio(aacData.get(), aacFormat.get(), 1, SVTimeMake(0, 1), packed({10}));
    uint8_t out[64];
    struct Case {
        const char *name;
        SVSampleBufferRef sbuf;
        int32_t offset, frames;
        uint32_t buffers, channels, bytes;
        OSStatus status;
        const char *log;
    } cases[] = {
        {"past the end", sbuf.get(), 8, 3, 1, 2, 64, kSVSampleBufferError_SampleIndexOutOfRange, "outside"},
        {"negative offset", sbuf.get(), -1, 1, 1, 2, 64, kSVSampleBufferError_SampleIndexOutOfRange, "outside"},
        {"negative count", sbuf.get(), 0, -1, 1, 2, 64, kSVSampleBufferError_SampleIndexOutOfRange, "outside"},
        {"two buffers for interleaved", sbuf.get(), 0, 1, 2, 1, 64, kSVSampleBufferError_AudioBufferListMismatch,
         "has 2 buffers; the format needs 1"},
        {"mono buffer for stereo", sbuf.get(), 0, 1, 1, 1, 64, kSVSampleBufferError_AudioBufferListMismatch,
         "has 1 channels; the format needs 2"},
        {"one buffer for six planes", planar.get(), 0, 1, 1, 6, 64, kSVSampleBufferError_AudioBufferListMismatch,
         "the format needs 6"},
        {"buffer too small", sbuf.get(), 0, 4, 1, 2, 15, kSVSampleBufferError_ArrayTooSmall, "holds 15 bytes"},
        {"compressed", compressed.get(), 0, 1, 1, 2, 64, kSVSampleBufferError_InvalidMediaTypeForOperation,
         "linear PCM only"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        List list(c.buffers);
        list.get()->mNumberBuffers = c.buffers;
        for (uint32_t i = 0; i < c.buffers; i++) list.get()->mBuffers[i] = {c.channels, c.bytes, out};
        std::memset(out, 0xEE, sizeof(out));
        LogCapture log;
        EXPECT_EQ(SVSampleBufferCopyPCMDataIntoAudioBufferList(c.sbuf, c.offset, c.frames, list.get()), c.status);
        EXPECT_TRUE(log.contains(c.log)) << (log.count() ? log.lines()[0].message : std::string("no log line"));
        EXPECT_EQ(out[0], 0xEE);  // nothing written
        EXPECT_EQ(list.get()->mBuffers[0].mDataByteSize, c.bytes);
    }
    EXPECT_EQ(SVSampleBufferCopyPCMDataIntoAudioBufferList(sbuf.get(), 0, 1, nullptr),
              kSVSampleBufferError_RequiredParameterMissing);
}

TEST(SVAudioSampleBufferPCM, SetDataFromABufferListMakesTheBufferReady) {
    auto surround = audioFormat(float51());
    SVSampleBufferRef sbuf = nullptr;
    ASSERT_EQ(SVAudioSampleBufferCreateWithPacketDescriptions(nullptr, nullptr, false, nullptr, nullptr, surround.get(),
                                                              3, SVTimeMake(0, 1), nullptr, &sbuf),
              0);
    Sample owned(sbuf);
    std::vector<std::vector<uint8_t>> planes(6, std::vector<uint8_t>(12));
    List list(6);
    list.get()->mNumberBuffers = 6;
    for (int c = 0; c < 6; c++) {
        for (int i = 0; i < 12; i++) planes[c][i] = static_cast<uint8_t>(c * 16 + i);
        list.get()->mBuffers[c] = {1, 12, planes[c].data()};
    }
    // Wrong sizes and shapes first: the buffer stays without data.
    list.get()->mBuffers[5].mDataByteSize = 8;
    {
        LogCapture log;
        EXPECT_EQ(SVSampleBufferSetDataBufferFromAudioBufferList(sbuf, nullptr, nullptr, 0, list.get()),
                  kSVSampleBufferError_AudioBufferListMismatch);
        EXPECT_TRUE(log.contains("buffer 5 of the list holds 8 bytes; 3 samples take 12"));
    }
    list.get()->mBuffers[5].mDataByteSize = 12;
    list.get()->mNumberBuffers = 5;
    EXPECT_EQ(SVSampleBufferSetDataBufferFromAudioBufferList(sbuf, nullptr, nullptr, 0, list.get()),
              kSVSampleBufferError_AudioBufferListMismatch);
    list.get()->mNumberBuffers = 6;
    EXPECT_EQ(SVSampleBufferGetDataBuffer(sbuf), nullptr);
    EXPECT_FALSE(SVSampleBufferDataIsReady(sbuf));

    ASSERT_EQ(SVSampleBufferSetDataBufferFromAudioBufferList(
                  sbuf, nullptr, nullptr, kSVSampleBufferFlag_AudioBufferList_Assure16ByteAlignment, list.get()),
              0);
    EXPECT_TRUE(SVSampleBufferDataIsReady(sbuf));
    SVBlockBufferRef data = SVSampleBufferGetDataBuffer(sbuf);
    ASSERT_NE(data, nullptr);
    auto bytes = bytesOf(data);
    ASSERT_EQ(bytes.size(), 72u);
    for (int c = 0; c < 6; c++) EXPECT_EQ(std::memcmp(bytes.data() + c * 12, planes[c].data(), 12), 0) << c;
    char *pointer = nullptr;
    ASSERT_EQ(SVBlockBufferGetDataPointer(data, 0, nullptr, nullptr, &pointer), 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(pointer) % 16, 0u);
    EXPECT_EQ(SVSampleBufferSetDataBufferFromAudioBufferList(sbuf, nullptr, nullptr, 0, list.get()),
              kSVSampleBufferError_AlreadyHasDataBuffer);

    // The data now reads back through a buffer list.
    std::vector<uint8_t> channel(12);
    List one(6);
    one.get()->mNumberBuffers = 6;
    std::vector<std::vector<uint8_t>> back(6, std::vector<uint8_t>(12));
    for (int c = 0; c < 6; c++) one.get()->mBuffers[c] = {1, 12, back[c].data()};
    ASSERT_EQ(SVSampleBufferCopyPCMDataIntoAudioBufferList(sbuf, 0, 3, one.get()), 0);
    EXPECT_EQ(back, planes);
}

TEST(SVAudioSampleBufferPCM, SetDataChecksCompressedLengthsAndAllocation) {
    auto format = audioFormat(aac());
    auto descriptions = packed({5, 7});
    SVSampleBufferRef sbuf = nullptr;
    ASSERT_EQ(SVAudioSampleBufferCreateWithPacketDescriptions(nullptr, nullptr, false, nullptr, nullptr, format.get(),
                                                              2, SVTimeMake(0, 1), descriptions.data(), &sbuf),
              0);
    Sample owned(sbuf);
    uint8_t bytes[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    List list(1);
    list.get()->mNumberBuffers = 1;
    list.get()->mBuffers[0] = {2, 11, bytes};
    EXPECT_EQ(SVSampleBufferSetDataBufferFromAudioBufferList(sbuf, nullptr, nullptr, 0, list.get()),
              kSVSampleBufferError_AudioBufferListMismatch);
    list.get()->mBuffers[0].mDataByteSize = 12;
    TestAllocator allocator;
    for (long n = 0; n < 2; n++) {
        allocator.failAfter(n);
        EXPECT_EQ(SVSampleBufferSetDataBufferFromAudioBufferList(sbuf, allocator.get(), allocator.get(), 0, list.get()),
                  kSVSampleBufferError_AllocationFailed);
        EXPECT_EQ(SVSampleBufferGetDataBuffer(sbuf), nullptr);
    }
    allocator.failAfter(-1);
    ASSERT_EQ(SVSampleBufferSetDataBufferFromAudioBufferList(sbuf, allocator.get(), allocator.get(), 0, list.get()), 0);
    EXPECT_EQ(bytesOf(SVSampleBufferGetDataBuffer(sbuf)), std::vector<uint8_t>(bytes, bytes + 12));
    owned.reset();
    EXPECT_EQ(allocator.outstanding(), 0);
}

// ==== Range copies, iteration and output timing ==============================

TEST(SVAudioSampleBufferRange, PacketsKeepTheirTimeStampsAndDescriptions) {
    auto format = audioFormat(aac());
    auto descriptions = packed({30, 20, 25, 10});
    descriptions[2].mStartOffset += 3;  // a gap before packet 2
    descriptions[3].mStartOffset += 3;
    auto data = patternData(88);
    auto sbuf = makeAudio(data.get(), format.get(), 4, SVTimeMake(2048, 44100), descriptions);

    SVSampleBufferRef range = nullptr;
    ASSERT_EQ(SVSampleBufferCopySampleBufferForRange(nullptr, sbuf.get(), CFRangeMake(1, 2), &range), 0);
    Sample owned(range);
    SVSampleTimingInfo timing = timingOf(range);
    expectTime(timing.presentationTimeStamp, 2048 + 1024, 44100);
    expectTime(timing.duration, 1024, 44100);
    expectTime(SVSampleBufferGetDuration(range), 2048, 44100);
    // Bytes 30..77: packet 1, the gap, packet 2.
    auto bytes = bytesOf(SVSampleBufferGetDataBuffer(range));
    ASSERT_EQ(bytes.size(), 48u);
    EXPECT_EQ(bytes[0], 30);
    const AudioStreamPacketDescription *rebased = nullptr;
    size_t size = 0;
    ASSERT_EQ(SVSampleBufferGetAudioStreamPacketDescriptionsPtr(range, &rebased, &size), 0);
    ASSERT_EQ(size, 2 * sizeof(AudioStreamPacketDescription));
    EXPECT_EQ(rebased[0].mStartOffset, 0);
    EXPECT_EQ(rebased[0].mDataByteSize, 20u);
    EXPECT_EQ(rebased[1].mStartOffset, 23);
    EXPECT_EQ(rebased[1].mDataByteSize, 25u);

    // Iteration: one packet each, at its own time, description at 0.
    __block std::vector<int64_t> times;
    __block std::vector<size_t> lengths;
    EXPECT_EQ(SVSampleBufferCallBlockForEachSample(
                  sbuf.get(),
                  ^OSStatus(SVSampleBufferRef packet, SVItemCount) {
                    SVSampleTimingInfo info{};
                    SVSampleBufferGetSampleTimingInfo(packet, 0, &info);
                    times.push_back(
                        SVTimeConvertScale(info.presentationTimeStamp, 44100, kSVTimeRoundingMethod_Default).value);
                    lengths.push_back(SVBlockBufferGetDataLength(SVSampleBufferGetDataBuffer(packet)));
                    const AudioStreamPacketDescription *d = nullptr;
                    SVSampleBufferGetAudioStreamPacketDescriptionsPtr(packet, &d, nullptr);
                    EXPECT_TRUE(d && d->mStartOffset == 0);
                    return 0;
                  }),
              0);
    EXPECT_EQ(times, (std::vector<int64_t>{2048, 3072, 4096, 5120}));
    EXPECT_EQ(lengths, (std::vector<size_t>{30, 20, 25, 10}));
}

TEST(SVAudioSampleBufferRange, VariableFramesAndPCMFrames) {
    // Opus-like packets of 960, 480 and 960 frames.
    auto opusFormat = audioFormat(opus());
    auto opusData = patternData(30);
    auto packets =
        makeAudio(opusData.get(), opusFormat.get(), 3, SVTimeMake(0, 48000), packed({10, 10, 10}, {960, 480, 960}));
    struct Case {
        CFRange range;
        int64_t pts, duration;
    } cases[] = {{{0, 1}, 0, 960}, {{1, 1}, 960, 480}, {{2, 1}, 1440, 960}, {{1, 2}, 960, 1440}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.range.location);
        SVSampleBufferRef range = nullptr;
        ASSERT_EQ(SVSampleBufferCopySampleBufferForRange(nullptr, packets.get(), c.range, &range), 0);
        Sample owned(range);
        expectTime(SVSampleBufferGetPresentationTimeStamp(range), c.pts, 48000);
        expectTime(SVSampleBufferGetDuration(range), c.duration, 48000);
    }

    // PCM: every frame at its own time; planar frames take a piece of
    // every plane.
    auto surround = audioFormat(float51());
    auto planes = patternData(6 * 5 * 4);
    auto planar = makeAudio(planes.get(), surround.get(), 5, SVTimeMake(100, 48000));
    __block std::vector<int64_t> times;
    EXPECT_EQ(SVSampleBufferCallBlockForEachSample(planar.get(),
                                                   ^OSStatus(SVSampleBufferRef frame, SVItemCount index) {
                                                     times.push_back(SVTimeConvertScale(
                                                                         SVSampleBufferGetPresentationTimeStamp(frame),
                                                                         48000, kSVTimeRoundingMethod_Default)
                                                                         .value);
                                                     auto bytes = bytesOf(SVSampleBufferGetDataBuffer(frame));
                                                     EXPECT_EQ(bytes.size(), 24u);
                                                     for (int c = 0; c < 6 && bytes.size() == 24; c++)
                                                         EXPECT_EQ(bytes[c * 4], c * 20 + index * 4);
                                                     return 0;
                                                   }),
              0);
    EXPECT_EQ(times, (std::vector<int64_t>{100, 101, 102, 103, 104}));
    // A range of planar frames reads back through a buffer list.
    SVSampleBufferRef range = nullptr;
    ASSERT_EQ(SVSampleBufferCopySampleBufferForRange(nullptr, planar.get(), CFRangeMake(3, 2), &range), 0);
    Sample owned(range);
    List list(6);
    SVBlockBufferRef holder = nullptr;
    ASSERT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(range, nullptr, list.get(), list.size(), nullptr,
                                                                      nullptr, 0, &holder),
              0);
    Block ownedHolder(holder);
    for (int c = 0; c < 6; c++) {
        EXPECT_EQ(list.get()->mBuffers[c].mDataByteSize, 8u);
        EXPECT_EQ(static_cast<uint8_t *>(list.get()->mBuffers[c].mData)[0], c * 20 + 12);
    }
}

SVRetained<CFDictionaryRef> timeDictionary(SVTime time) {
    return SVRetained<CFDictionaryRef>(SVTimeCopyAsDictionary(time, nullptr));
}

TEST(SVAudioSampleBufferOutputTiming, TrimsAndSpeedAreExact) {
    // Three AAC packets at 0: the first carries the encoder's 1024 priming
    // frames, the last 500 frames of padding.
    auto format = audioFormat(aac());
    auto data = patternData(30);
    auto sbuf = makeAudio(data.get(), format.get(), 3, SVTimeMake(0, 44100), packed({10, 10, 10}));
    SVSetAttachment(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtStart,
                    timeDictionary(SVTimeMake(1024, 44100)).get(), kSVAttachmentMode_ShouldPropagate);
    SVSetAttachment(sbuf.get(), kSVSampleBufferAttachmentKey_TrimDurationAtEnd,
                    timeDictionary(SVTimeMake(500, 44100)).get(), kSVAttachmentMode_ShouldPropagate);
    expectTime(SVSampleBufferGetOutputPresentationTimeStamp(sbuf.get()), 1024, 44100);
    expectTime(SVSampleBufferGetOutputDuration(sbuf.get()), 3072 - 1024 - 500, 44100);
    // No decode time stamp: decode order is presentation order, and none
    // is made up for the output either.
    EXPECT_FALSE(SVSampleBufferGetOutputDecodeTimeStamp(sbuf.get()).flags & kSVTimeFlags_Valid);
    double speed = 2.0;
    SVRetained<CFNumberRef> number(CFNumberCreate(nullptr, kCFNumberFloat64Type, &speed));
    SVSetAttachment(sbuf.get(), kSVSampleBufferAttachmentKey_SpeedMultiplier, number.get(),
                    kSVAttachmentMode_ShouldPropagate);
    expectTime(SVSampleBufferGetOutputDuration(sbuf.get()), 1548 / 2, 44100);
    SVSampleTimingInfo output{};
    SVItemCount needed = 0;
    ASSERT_EQ(SVSampleBufferGetOutputSampleTimingInfoArray(sbuf.get(), 1, &output, &needed), 0);
    expectTime(output.presentationTimeStamp, 1024, 44100);
}

TEST(SVAudioSampleBufferQueue, OrdersAudioBuffersByOutputTime) {
    auto format = audioFormat(aac());
    auto data = patternData(10);
    SVBufferQueueRef queue = nullptr;
    ASSERT_EQ(SVBufferQueueCreate(nullptr, 0, SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS(), &queue), 0);
    SVRetained<SVBufferQueueRef> ownedQueue(queue);
    for (int64_t start : {2048, 0, 1024}) {
        auto packet = makeAudio(data.get(), format.get(), 1, SVTimeMake(start, 44100), packed({10}));
        ASSERT_EQ(SVBufferQueueEnqueue(queue, packet.get()), 0);
    }
    expectTime(SVBufferQueueGetDuration(queue), 3072, 44100);
    for (int64_t expected : {0, 1024, 2048}) {
        SVRetained<CFTypeRef> head(SVBufferQueueDequeueAndRetain(queue));
        ASSERT_TRUE(head);
        expectTime(
            SVSampleBufferGetPresentationTimeStamp(static_cast<SVSampleBufferRef>(const_cast<void *>(head.get()))),
            expected, 44100);
    }
}

// Random formats, packet descriptions and data lengths: creation either
// refuses them with an audio status or makes a buffer whose every packet
// splits off with its own bytes and time, and whose bytes read back whole.
TEST(SVAudioSampleBufferRandom, EveryAcceptedBufferSplitsConsistently) {
    std::mt19937 random(20261125);
    auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    LogCapture quiet(0);
    int accepted = 0;
    for (int round = 0; round < 1500; round++) {
        const double rates[] = {44100, 48000, 8000, 0, 22050.5};
        const uint32_t channels = 1 + static_cast<uint32_t>(pick(6));
        AudioStreamBasicDescription asbd;
        switch (pick(4)) {
            case 0:
                asbd = {rates[pick(5)], kAudioFormatLinearPCM, 0, 2 * channels, 1, 2 * channels, channels, 16, 0};
                break;
            case 1:
                asbd = {rates[pick(5)], kAudioFormatLinearPCM, kNonInterleavedFloat, 4, 1, 4, channels, 32, 0};
                break;
            case 2:
                asbd = aac(rates[pick(5)]);
                break;
            default:
                asbd = opus();
                break;
        }
        auto format = audioFormat(asbd);
        const SVItemCount packets = pick(6);
        std::vector<AudioStreamPacketDescription> descriptions;
        int64_t offset = 0;
        for (SVItemCount i = 0; i < packets && asbd.mFormatID != kAudioFormatLinearPCM; i++) {
            offset += pick(4) == 0 ? pick(5) - 2 : 0;  // gaps, and now and then an overlap
            const uint32_t size = static_cast<uint32_t>(pick(40));
            descriptions.push_back({offset, static_cast<uint32_t>(pick(3) * 480), size});
            offset += size;
        }
        size_t length = asbd.mFormatID == kAudioFormatLinearPCM
                            ? static_cast<size_t>(packets) * 2 * channels * (asbd.mBitsPerChannel / 16)
                            : static_cast<size_t>(offset < 0 ? 0 : offset);
        length += pick(5) == 0 ? pick(3) : 0;
        Block data;
        if (length) data = patternData(length);
        SVSampleBufferRef sbuf = nullptr;
        OSStatus status = SVAudioSampleBufferCreateReadyWithPacketDescriptions(
            nullptr, data.get(), format.get(), packets, SVTimeMake(0, 1),
            descriptions.empty() ? nullptr : descriptions.data(), &sbuf);
        if (status != 0) {
            EXPECT_TRUE(status == kSVSampleBufferError_InvalidAudioData ||
                        status == kSVSampleBufferError_RequiredParameterMissing)
                << status;
            EXPECT_EQ(sbuf, nullptr);
            continue;
        }
        accepted++;
        Sample owned(sbuf);
        if (!data) continue;  // empty packets: a buffer without data
        const std::vector<uint8_t> all = bytesOf(data.get());
        // Every packet on its own, at the sum of the packets before it.
        double expectedStart = 0;
        for (SVItemCount i = 0; i < packets; i++) {
            SVSampleBufferRef one = nullptr;
            ASSERT_EQ(SVSampleBufferCopySampleBufferForRange(nullptr, sbuf, CFRangeMake(i, 1), &one), 0);
            Sample ownedOne(one);
            EXPECT_NEAR(SVTimeGetSeconds(SVSampleBufferGetPresentationTimeStamp(one)), expectedStart, 1e-8);
            expectedStart += SVTimeGetSeconds(SVSampleBufferGetDuration(one));
            size_t listSize = 0;
            SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(one, &listSize, nullptr, 0, nullptr, nullptr, 0,
                                                                    nullptr);
            std::vector<uint8_t> storage(listSize);
            auto *list = reinterpret_cast<AudioBufferList *>(storage.data());
            SVBlockBufferRef holder = nullptr;
            status = SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
                one, nullptr, list, listSize, nullptr, nullptr,
                kSVSampleBufferFlag_AudioBufferList_Assure16ByteAlignment, &holder);
            if (SVSampleBufferGetDataBuffer(one)) {
                ASSERT_EQ(status, 0);
                Block ownedHolder(holder);
                for (uint32_t b = 0; b < list->mNumberBuffers; b++)
                    EXPECT_EQ(reinterpret_cast<uintptr_t>(list->mBuffers[b].mData) % 16, 0u);
            }
        }
        EXPECT_NEAR(expectedStart, SVTimeGetSeconds(SVSampleBufferGetDuration(sbuf)), 1e-8);
        // The whole buffer's bytes read back through a copied list.
        size_t listSize = 0;
        SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sbuf, &listSize, nullptr, 0, nullptr, nullptr, 0,
                                                                nullptr);
        std::vector<uint8_t> storage(listSize);
        auto *list = reinterpret_cast<AudioBufferList *>(storage.data());
        SVBlockBufferRef holder = nullptr;
        ASSERT_EQ(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sbuf, nullptr, list, listSize, nullptr,
                                                                          nullptr, 0, &holder),
                  0);
        Block ownedHolder(holder);
        std::vector<uint8_t> joined;
        for (uint32_t b = 0; b < list->mNumberBuffers; b++) {
            auto *bytes = static_cast<uint8_t *>(list->mBuffers[b].mData);
            joined.insert(joined.end(), bytes, bytes + list->mBuffers[b].mDataByteSize);
        }
        EXPECT_EQ(joined, all);
    }
    EXPECT_GT(accepted, 100);
}

}  // namespace
