// SPDX-License-Identifier: Apache-2.0
// Audio sample buffers: creation with packet descriptions and derived
// timing, the packet-description getters, audio buffer lists over a
// buffer's bytes, PCM copies out, data from a buffer list in, and the audio
// part of range copies.
//
// An audio sample buffer is an ordinary data-buffer sample buffer with an
// audio format description.  Its samples are packets (frames for linear
// PCM); non-interleaved PCM keeps the channels' planes one after another,
// so a run of frames is one piece per plane.  Everything here reads the
// layout from the stream description each time: nothing about the format
// is cached in the sample buffer.

#include <CoreAudio/CoreAudioTypes.h>
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVSampleBuffer.h>

#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <numeric>

#include "core/SVLog.h"
#include "core/SVObject.h"
#include "samples/SVSampleBufferInternal.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/SVSampleBuffer");

using Buffer = OpaqueSVSampleBuffer;

Buffer *asBuffer(SVSampleBufferRef sbuf) noexcept {
    return reinterpret_cast<Buffer *>(sbuf);
}

SVBlockBufferRef dataOf(const Buffer *sbuf) noexcept {
    return static_cast<SVBlockBufferRef>(const_cast<void *>(sbuf->dataOrImageBuffer));
}

// Above this many descriptions the temporary size array goes to the heap.
constexpr SVItemCount kInlineSizes = 64;
// Time scale of durations whose sample rate is not a whole number.
constexpr int32_t kFallbackTimescale = 1000000000;

// How a format lays out its bytes.
struct Layout {
    const AudioStreamBasicDescription *asbd = nullptr;
    bool pcm = false;
    bool nonInterleaved = false;
    uint32_t bufferCount = 1;          // buffers of a buffer list
    uint32_t channelsPerBuffer = 0;    // mNumberChannels of each
    size_t bytesPerFrameInBuffer = 0;  // PCM: one frame's bytes in one buffer
    size_t bytesPerPacket = 0;         // all buffers together; 0 when variable
};

// The stream description of an audio format description, or the status to
// refuse the buffer with (logged under `function`).
OSStatus layoutOf(SVFormatDescriptionRef desc, const char *function, Layout *layout) noexcept {
    if (!desc || SVFormatDescriptionGetMediaType(desc) != kSVMediaType_Audio) {
        SV_LOG_STATUS_FOR(function, 3, static_cast<OSStatus>(desc ? SVFormatDescriptionGetMediaType(desc) : 0),
                          "needs an audio format description, not %s");
        return kSVSampleBufferError_InvalidMediaTypeForOperation;
    }
    const AudioStreamBasicDescription *asbd = SVAudioFormatDescriptionGetStreamBasicDescription(desc);
    if (!asbd) return kSVSampleBufferError_InvalidMediaTypeForOperation;
    layout->asbd = asbd;
    layout->pcm = asbd->mFormatID == kAudioFormatLinearPCM;
    if (!layout->pcm) {
        layout->channelsPerBuffer = asbd->mChannelsPerFrame;
        layout->bytesPerPacket = asbd->mBytesPerPacket;
        return 0;
    }
    // A PCM packet is one frame; anything else cannot be split into frames.
    if (asbd->mFramesPerPacket != 1 || asbd->mBytesPerFrame == 0 || asbd->mBytesPerPacket != asbd->mBytesPerFrame ||
        asbd->mChannelsPerFrame == 0) {
        SV_LOG_FOR(
            function, 3,
            "linear PCM needs 1 frame per packet, equal non-zero bytes per frame and per packet and at least one "
            "channel (frames per packet %u, bytes per frame %u, bytes per packet %u, channels %u)",
            asbd->mFramesPerPacket, asbd->mBytesPerFrame, asbd->mBytesPerPacket, asbd->mChannelsPerFrame);
        return kSVSampleBufferError_InvalidAudioData;
    }
    layout->nonInterleaved = (asbd->mFormatFlags & kAudioFormatFlagIsNonInterleaved) != 0;
    layout->bytesPerFrameInBuffer = asbd->mBytesPerFrame;
    if (layout->nonInterleaved) {
        layout->bufferCount = asbd->mChannelsPerFrame;
        layout->channelsPerBuffer = 1;
        layout->bytesPerPacket = size_t{asbd->mBytesPerFrame} * asbd->mChannelsPerFrame;
    } else {
        layout->channelsPerBuffer = asbd->mChannelsPerFrame;
        layout->bytesPerPacket = asbd->mBytesPerFrame;
    }
    return 0;
}

bool isWholeRate(double rate) noexcept {
    return rate >= 1 && rate <= std::numeric_limits<int32_t>::max() && rate == std::floor(rate);
}

// `frames` frames at `rate`, exact in the rate's timescale when it is a
// whole number.
SVTime framesTime(int64_t frames, double rate) noexcept {
    if (isWholeRate(rate)) return SVTimeMake(frames, static_cast<int32_t>(rate));
    return SVTimeMakeWithSeconds(static_cast<double>(frames) / rate, kFallbackTimescale);
}

// `frames` frames spread over `packets` packets: one packet's share, chosen
// so that `packets` times it is exactly `frames` at `rate` whenever the
// timescale that needs fits.
SVTime spreadTime(int64_t frames, int64_t packets, double rate) noexcept {
    if (packets <= 0) return framesTime(frames, rate);
    if (isWholeRate(rate)) {
        const int64_t divisor = std::gcd(frames, packets);
        const int64_t scale = static_cast<int64_t>(rate) * (packets / divisor);
        if (scale <= std::numeric_limits<int32_t>::max())
            return SVTimeMake(frames / divisor, static_cast<int32_t>(scale));
    }
    const int32_t timescale = isWholeRate(rate) ? static_cast<int32_t>(rate) : kFallbackTimescale;
    return SVTimeMakeWithSeconds(static_cast<double>(frames) / static_cast<double>(packets) / rate, timescale);
}

int64_t endOf(const AudioStreamPacketDescription &packet) noexcept {
    return packet.mStartOffset + static_cast<int64_t>(packet.mDataByteSize);
}

// Checks packet descriptions: data order, no overlap, frame counts where
// the format has none, inside the data and ending where it ends (when
// `dataLength` is known).  Sums the frames into *totalFramesOut.
OSStatus checkDescriptions(const AudioStreamPacketDescription *packets, SVItemCount count, uint32_t framesPerPacket,
                           const size_t *dataLength, const char *function, int64_t *totalFramesOut) noexcept {
    int64_t previousEnd = 0;
    int64_t frames = 0;
    // Offsets are limited so that no end can overflow.
    constexpr int64_t kLimit = std::numeric_limits<int64_t>::max() / 2;
    for (SVItemCount i = 0; i < count; i++) {
        const AudioStreamPacketDescription &packet = packets[i];
        if (packet.mStartOffset < 0 || packet.mStartOffset > kLimit) {
            SV_LOG_FOR(function, 3, "packet %ld starts at offset %lld", static_cast<long>(i),
                       static_cast<long long>(packet.mStartOffset));
            return kSVSampleBufferError_InvalidAudioData;
        }
        if (packet.mStartOffset < previousEnd) {
            SV_LOG_FOR(function, 3, "packet %ld (offset %lld) overlaps the packet before it, which ends at %lld",
                       static_cast<long>(i), static_cast<long long>(packet.mStartOffset),
                       static_cast<long long>(previousEnd));
            return kSVSampleBufferError_InvalidAudioData;
        }
        if (dataLength && static_cast<uint64_t>(endOf(packet)) > *dataLength) {
            SV_LOG_FOR(function, 3, "packet %ld (offset %lld, %u bytes) runs past the data (%zu bytes)",
                       static_cast<long>(i), static_cast<long long>(packet.mStartOffset), packet.mDataByteSize,
                       *dataLength);
            return kSVSampleBufferError_InvalidAudioData;
        }
        if (framesPerPacket == 0) {
            if (packet.mVariableFramesInPacket == 0) {
                SV_LOG_FOR(function, 3, "the format has no fixed frames per packet and packet %ld gives no frame count",
                           static_cast<long>(i));
                return kSVSampleBufferError_InvalidAudioData;
            }
            frames += packet.mVariableFramesInPacket;
        } else {
            frames += framesPerPacket;
        }
        previousEnd = endOf(packet);
    }
    if (dataLength && static_cast<uint64_t>(previousEnd) != *dataLength) {
        SV_LOG_FOR(function, 3, "the data is %zu bytes long but the packets end at %lld", *dataLength,
                   static_cast<long long>(previousEnd));
        return kSVSampleBufferError_InvalidAudioData;
    }
    *totalFramesOut = frames;
    return 0;
}

// What the format and the packet count must satisfy for the buffer to be
// timed and its packets found: a usable rate, a count that fits, and
// packet descriptions exactly where the format needs them.
OSStatus checkPacketing(const Layout &layout, SVItemCount numSamples,
                        const AudioStreamPacketDescription *packetDescriptions, const char *function) noexcept {
    const AudioStreamBasicDescription &asbd = *layout.asbd;
    char formatName[XP_OSSTATUS_STRING_SIZE];
    _XPFormatOSStatus(formatName, static_cast<OSStatus>(asbd.mFormatID));
    if (!(std::isfinite(asbd.mSampleRate) && asbd.mSampleRate > 0)) {
        SV_LOG_FOR(function, 3, "%s at a sample rate of %g cannot be timed", formatName, asbd.mSampleRate);
        return kSVSampleBufferError_InvalidAudioData;
    }
    if (numSamples < 1 || numSamples > std::numeric_limits<int32_t>::max()) {
        SV_LOG_FOR(function, 3, "an audio sample buffer holds 1 to 2^31 - 1 packets, not %ld",
                   static_cast<long>(numSamples));
        return kSVSampleBufferError_InvalidAudioData;
    }
    if (layout.pcm && packetDescriptions) {
        SV_LOG_FOR(function, 3, "linear PCM takes no packet descriptions");
        return kSVSampleBufferError_InvalidAudioData;
    }
    if (!packetDescriptions && layout.bytesPerPacket == 0) {
        SV_LOG_FOR(function, 3, "%s has no constant bytes per packet: packet descriptions are required", formatName);
        return kSVSampleBufferError_RequiredParameterMissing;
    }
    if (!packetDescriptions && asbd.mFramesPerPacket == 0) {
        SV_LOG_FOR(function, 3, "%s has no frames per packet: packet descriptions with frame counts are required",
                   formatName);
        return kSVSampleBufferError_InvalidAudioData;
    }
    return 0;
}

// The data, when there is some, must hold exactly the packets: as the
// descriptions place them (which also give the frame total), else
// `numSamples` constant-size packets.
OSStatus checkDataLength(const Layout &layout, SVBlockBufferRef dataBuffer, SVItemCount numSamples,
                         const AudioStreamPacketDescription *packetDescriptions, const char *function,
                         int64_t *totalFramesOut) noexcept {
    size_t dataLength = 0;
    if (dataBuffer) dataLength = SVBlockBufferGetDataLength(dataBuffer);
    if (packetDescriptions)
        return checkDescriptions(packetDescriptions, numSamples, layout.asbd->mFramesPerPacket,
                                 dataBuffer ? &dataLength : nullptr, function, totalFramesOut);
    if (dataBuffer) {
        size_t expected;
        if (__builtin_mul_overflow(static_cast<size_t>(numSamples), layout.bytesPerPacket, &expected) ||
            expected != dataLength) {
            SV_LOG_FOR(function, 3, "the data is %zu bytes long but %ld packets of %zu bytes are %zu", dataLength,
                       static_cast<long>(numSamples), layout.bytesPerPacket, expected);
            return kSVSampleBufferError_InvalidAudioData;
        }
    }
    return 0;
}

// The sample buffer with its sizes: exact per packet from the
// descriptions, else the one constant.
OSStatus createWithPacketSizes(CFAllocatorRef allocator, SVBlockBufferRef dataBuffer, Boolean dataReady,
                               SVSampleBufferMakeDataReadyCallback makeDataReadyCallback, void *makeDataReadyRefcon,
                               SVFormatDescriptionRef formatDescription, SVItemCount numSamples,
                               const SVSampleTimingInfo &timing, const Layout &layout,
                               const AudioStreamPacketDescription *packetDescriptions,
                               SVSampleBufferRef *sbufOut) noexcept {
    size_t inlineSizes[kInlineSizes];
    size_t *sizes = inlineSizes;
    SVItemCount sizeCount = 1;
    if (packetDescriptions) {
        sizeCount = numSamples;
        if (numSamples > kInlineSizes) {
            sizes = static_cast<size_t *>(sorvel::SVSampleBufferAllocateArray(allocator, numSamples, sizeof(size_t)));
            if (!sizes) return kSVSampleBufferError_AllocationFailed;
        }
        for (SVItemCount i = 0; i < numSamples; i++) sizes[i] = packetDescriptions[i].mDataByteSize;
    } else {
        sizes[0] = layout.bytesPerPacket;
    }
    const OSStatus status =
        SVSampleBufferCreate(allocator, dataBuffer, dataReady, makeDataReadyCallback, makeDataReadyRefcon,
                             formatDescription, numSamples, 1, &timing, sizeCount, sizes, sbufOut);
    if (sizes != inlineSizes) sorvel::SVSampleBufferFreeArray(allocator, sizes);
    return status;
}

OSStatus createAudioSampleBuffer(CFAllocatorRef allocator, SVBlockBufferRef dataBuffer, Boolean dataReady,
                                 SVSampleBufferMakeDataReadyCallback makeDataReadyCallback, void *makeDataReadyRefcon,
                                 SVFormatDescriptionRef formatDescription, SVItemCount numSamples,
                                 SVTime presentationTimeStamp, const AudioStreamPacketDescription *packetDescriptions,
                                 SVSampleBufferRef *sampleBufferOut, const char *function) noexcept {
    if (!sampleBufferOut) return kSVSampleBufferError_RequiredParameterMissing;
    *sampleBufferOut = nullptr;
    if (!formatDescription) {
        SV_LOG_FOR(function, 3, "an audio sample buffer needs a format description");
        return kSVSampleBufferError_RequiredParameterMissing;
    }
    Layout layout;
    if (OSStatus status = layoutOf(formatDescription, function, &layout)) return status;
    const AudioStreamBasicDescription &asbd = *layout.asbd;
    if (OSStatus status = checkPacketing(layout, numSamples, packetDescriptions, function)) return status;
    int64_t totalFrames = 0;
    if (OSStatus status = checkDataLength(layout, dataBuffer, numSamples, packetDescriptions, function, &totalFrames))
        return status;

    SVSampleTimingInfo timing;
    timing.duration = asbd.mFramesPerPacket != 0 ? framesTime(asbd.mFramesPerPacket, asbd.mSampleRate)
                                                 : spreadTime(totalFrames, numSamples, asbd.mSampleRate);
    timing.presentationTimeStamp = presentationTimeStamp;
    timing.decodeTimeStamp = kSVTimeInvalid;

    SVSampleBufferRef sbuf = nullptr;
    OSStatus status =
        createWithPacketSizes(allocator, dataBuffer, dataReady, makeDataReadyCallback, makeDataReadyRefcon,
                              formatDescription, numSamples, timing, layout, packetDescriptions, &sbuf);
    if (status != 0) return status;
    Buffer *b = asBuffer(sbuf);
    if (packetDescriptions) {
        b->packetDescriptions = static_cast<AudioStreamPacketDescription *>(sorvel::SVSampleBufferCopyArray(
            CFGetAllocator(sbuf), packetDescriptions, numSamples, sizeof(AudioStreamPacketDescription)));
        if (!b->packetDescriptions) {
            CFRelease(sbuf);
            return kSVSampleBufferError_AllocationFailed;
        }
        b->numPacketDescriptions = numSamples;
    }
    b->audioTimingDerived = 1;
    *sampleBufferOut = sbuf;
    return 0;
}

// The checks shared by the calls that read or set an audio buffer's data.
OSStatus checkAudioBuffer(SVSampleBufferRef sbuf, const char *function, Layout *layout) noexcept {
    if (!sorvel::gSVSampleBufferClass.checked(sbuf)) return kSVSampleBufferError_RequiredParameterMissing;
    const Buffer *b = asBuffer(sbuf);
    if (b->invalidated) return kSVSampleBufferError_Invalidated;
    if (b->kind != kSVSampleBufferKind_DataBuffer) return kSVSampleBufferError_InvalidMediaTypeForOperation;
    return layoutOf(b->formatDescription, function, layout);
}

// For PCM: the data must hold exactly the sample count's frames.
OSStatus checkPCMLength(const Buffer *b, const Layout &layout, size_t dataLength, const char *function) noexcept {
    size_t expected;
    if (__builtin_mul_overflow(static_cast<size_t>(b->numSamples < 0 ? 0 : b->numSamples), layout.bytesPerPacket,
                               &expected) ||
        expected != dataLength) {
        SV_LOG_FOR(function, 3, "the data is %zu bytes long but %ld frames of %zu bytes are %zu", dataLength,
                   static_cast<long>(b->numSamples), layout.bytesPerPacket, expected);
        return kSVSampleBufferError_InvalidAudioData;
    }
    return 0;
}

// The alignment a PCM buffer's samples need in place: their own size when
// that is a power of two up to 8.
size_t naturalAlignment(const Layout &layout) noexcept {
    if (!layout.pcm) return 1;
    const uint32_t bytes = (layout.asbd->mBitsPerChannel + 7) / 8;
    return (bytes == 2 || bytes == 4 || bytes == 8) ? bytes : 1;
}

size_t roundUp(size_t value, size_t alignment) noexcept {
    return (value + alignment - 1) / alignment * alignment;
}

// A new block buffer of one piece of `length` bytes whose data starts
// `alignment`-aligned; *bytesOut points at it.
OSStatus createAlignedBlock(CFAllocatorRef structureAllocator, CFAllocatorRef blockAllocator, size_t length,
                            size_t alignment, SVBlockBufferRef *blockOut, uint8_t **bytesOut) noexcept {
    size_t blockLength;
    if (__builtin_add_overflow(length, alignment - 1, &blockLength) ||
        blockLength > static_cast<size_t>(std::numeric_limits<CFIndex>::max()))
        return kSVSampleBufferError_AllocationFailed;
    // The block comes from the block allocator, which the block buffer
    // then frees it with.
    void *memory = CFAllocatorAllocate(blockAllocator, static_cast<CFIndex>(blockLength), 0);
    if (!memory) return kSVSampleBufferError_AllocationFailed;
    const auto address = reinterpret_cast<uintptr_t>(memory);
    const size_t offset = roundUp(address, alignment) - address;
    SVBlockBufferRef block = nullptr;
    if (SVBlockBufferCreateWithMemoryBlock(structureAllocator, memory, blockLength, blockAllocator, nullptr, offset,
                                           length, 0, &block) != 0) {
        CFAllocatorDeallocate(blockAllocator, memory);
        return kSVSampleBufferError_AllocationFailed;
    }
    *blockOut = block;
    *bytesOut = static_cast<uint8_t *>(memory) + offset;
    return 0;
}

// The bytes a buffer list must carry for the buffer, or SIZE_MAX when any
// length will do.
size_t expectedListBytes(const Buffer *b, const Layout &layout) noexcept {
    if (layout.pcm) return static_cast<size_t>(b->numSamples) * layout.bytesPerFrameInBuffer;
    if (b->packetDescriptions && b->numPacketDescriptions > 0)
        return static_cast<size_t>(endOf(b->packetDescriptions[b->numPacketDescriptions - 1]));
    if (layout.bytesPerPacket != 0) return static_cast<size_t>(b->numSamples) * layout.bytesPerPacket;
    return SIZE_MAX;
}

OSStatus checkListShape(const AudioBufferList *list, const Layout &layout, const char *function) noexcept {
    if (list->mNumberBuffers != layout.bufferCount) {
        SV_LOG_FOR(function, 3, "the buffer list has %u buffers; the format needs %u", list->mNumberBuffers,
                   layout.bufferCount);
        return kSVSampleBufferError_AudioBufferListMismatch;
    }
    for (uint32_t i = 0; i < list->mNumberBuffers; i++) {
        if (list->mBuffers[i].mNumberChannels != layout.channelsPerBuffer) {
            SV_LOG_FOR(function, 3, "buffer %u of the list has %u channels; the format needs %u", i,
                       list->mBuffers[i].mNumberChannels, layout.channelsPerBuffer);
            return kSVSampleBufferError_AudioBufferListMismatch;
        }
    }
    return 0;
}

}  // namespace

// ==== Range copies (used by SVSampleBufferCopy.cpp) ==========================

namespace sorvel {

void SVAudioSampleBufferPrepareRange(CFAllocatorRef allocator, const OpaqueSVSampleBuffer *source, CFRange sampleRange,
                                     SVAudioRange *range) noexcept {
    if (!source->formatDescription || SVFormatDescriptionGetMediaType(source->formatDescription) != kSVMediaType_Audio)
        return;
    const AudioStreamBasicDescription *asbd =
        SVAudioFormatDescriptionGetStreamBasicDescription(source->formatDescription);
    if (!asbd) return;
    const SVItemCount location = sampleRange.location;
    const SVItemCount length = sampleRange.length;
    SVBlockBufferRef data = dataOf(source);
    const bool described = source->packetDescriptions && source->numPacketDescriptions == source->numSamples;

    // Bytes.
    if (described) {
        range->hasData = true;
        if (length > 0) {
            const AudioStreamPacketDescription *first = source->packetDescriptions + location;
            const int64_t start = first->mStartOffset;
            const int64_t end = endOf(first[length - 1]);
            range->descriptions = static_cast<AudioStreamPacketDescription *>(
                SVSampleBufferCopyArray(allocator, first, length, sizeof(AudioStreamPacketDescription)));
            if (!range->descriptions) {
                range->failed = true;
                return;
            }
            range->descriptionCount = length;
            for (SVItemCount i = 0; i < length; i++) range->descriptions[i].mStartOffset -= start;
            // A reference that cannot be made leaves the copy without data,
            // as for any range copy.
            if (data && end > start)
                SVBlockBufferCreateWithBufferReference(allocator, data, static_cast<size_t>(start),
                                                       static_cast<size_t>(end - start), 0, &range->data);
        }
    } else if (asbd->mFormatID == kAudioFormatLinearPCM && (asbd->mFormatFlags & kAudioFormatFlagIsNonInterleaved) &&
               asbd->mChannelsPerFrame > 1 && data && length > 0) {
        const size_t planeBytes = static_cast<size_t>(source->numSamples) * asbd->mBytesPerFrame;
        if (planeBytes * asbd->mChannelsPerFrame == SVBlockBufferGetDataLength(data)) {
            // One reference per plane, in channel order.
            range->hasData = true;
            SVBlockBufferRef pieces = nullptr;
            if (SVBlockBufferCreateEmpty(allocator, asbd->mChannelsPerFrame, 0, &pieces) == 0) {
                for (uint32_t c = 0; c < asbd->mChannelsPerFrame; c++) {
                    if (SVBlockBufferAppendBufferReference(
                            pieces, data, c * planeBytes + static_cast<size_t>(location) * asbd->mBytesPerFrame,
                            static_cast<size_t>(length) * asbd->mBytesPerFrame, 0) != 0) {
                        CFRelease(pieces);
                        pieces = nullptr;
                        break;
                    }
                }
                range->data = pieces;
            }
        }
    }

    // Timing, for buffers whose one entry was derived from the format.
    if (!source->audioTimingDerived || source->numSampleTimingEntries != 1 || !source->sampleTimingArray ||
        !(std::isfinite(asbd->mSampleRate) && asbd->mSampleRate > 0))
        return;
    const SVSampleTimingInfo &whole = source->sampleTimingArray[0];
    int64_t before = 0;
    int64_t inside = 0;
    if (asbd->mFramesPerPacket != 0) {
        before = static_cast<int64_t>(location) * asbd->mFramesPerPacket;
        inside = static_cast<int64_t>(length) * asbd->mFramesPerPacket;
    } else if (described) {
        for (SVItemCount i = 0; i < location; i++) before += source->packetDescriptions[i].mVariableFramesInPacket;
        for (SVItemCount i = location; i < location + length; i++)
            inside += source->packetDescriptions[i].mVariableFramesInPacket;
    } else {
        return;
    }
    range->hasTiming = true;
    range->timing = whole;
    if (asbd->mFramesPerPacket == 0 && length > 0)
        range->timing.duration = spreadTime(inside, length, asbd->mSampleRate);
    if (before != 0)
        range->timing.presentationTimeStamp =
            SVTimeAdd(whole.presentationTimeStamp, framesTime(before, asbd->mSampleRate));
}

void SVAudioSampleBufferReleaseRange(CFAllocatorRef allocator, SVAudioRange *range) noexcept {
    if (range->data) CFRelease(range->data);
    range->data = nullptr;
    SVSampleBufferFreeArray(allocator, range->descriptions);
    range->descriptions = nullptr;
    range->descriptionCount = 0;
}

}  // namespace sorvel

// ==== Creation ================================================================

OSStatus SVAudioSampleBufferCreateWithPacketDescriptions(
    CFAllocatorRef allocator, SVBlockBufferRef dataBuffer, Boolean dataReady,
    SVSampleBufferMakeDataReadyCallback makeDataReadyCallback, void *makeDataReadyRefcon,
    SVFormatDescriptionRef formatDescription, SVItemCount numSamples, SVTime presentationTimeStamp,
    const AudioStreamPacketDescription *packetDescriptions, SVSampleBufferRef *sampleBufferOut) noexcept {
    return createAudioSampleBuffer(allocator, dataBuffer, dataReady, makeDataReadyCallback, makeDataReadyRefcon,
                                   formatDescription, numSamples, presentationTimeStamp, packetDescriptions,
                                   sampleBufferOut, __func__);
}

OSStatus SVAudioSampleBufferCreateReadyWithPacketDescriptions(CFAllocatorRef allocator, SVBlockBufferRef dataBuffer,
                                                              SVFormatDescriptionRef formatDescription,
                                                              SVItemCount numSamples, SVTime presentationTimeStamp,
                                                              const AudioStreamPacketDescription *packetDescriptions,
                                                              SVSampleBufferRef *sampleBufferOut) noexcept {
    return createAudioSampleBuffer(allocator, dataBuffer, true, nullptr, nullptr, formatDescription, numSamples,
                                   presentationTimeStamp, packetDescriptions, sampleBufferOut, __func__);
}

// ==== Packet descriptions =====================================================

OSStatus SVSampleBufferGetAudioStreamPacketDescriptions(SVSampleBufferRef sbuf, size_t packetDescriptionsSize,
                                                        AudioStreamPacketDescription *packetDescriptionsOut,
                                                        size_t *packetDescriptionsSizeNeededOut) noexcept {
    if (!sorvel::gSVSampleBufferClass.checked(sbuf)) return kSVSampleBufferError_RequiredParameterMissing;
    const Buffer *b = asBuffer(sbuf);
    if (b->invalidated) return kSVSampleBufferError_Invalidated;
    if (b->kind != kSVSampleBufferKind_DataBuffer) return kSVSampleBufferError_InvalidMediaTypeForOperation;
    const SVItemCount count = b->packetDescriptions ? b->numPacketDescriptions : 0;
    const size_t needed = static_cast<size_t>(count) * sizeof(AudioStreamPacketDescription);
    if (packetDescriptionsSizeNeededOut) *packetDescriptionsSizeNeededOut = needed;
    if (!packetDescriptionsOut) return 0;
    if (packetDescriptionsSize < needed) return kSVSampleBufferError_ArrayTooSmall;
    if (needed) std::memcpy(packetDescriptionsOut, b->packetDescriptions, needed);
    return 0;
}

OSStatus SVSampleBufferGetAudioStreamPacketDescriptionsPtr(
    SVSampleBufferRef sbuf, const AudioStreamPacketDescription **packetDescriptionsPointerOut,
    size_t *packetDescriptionsSizeOut) noexcept {
    if (!sorvel::gSVSampleBufferClass.checked(sbuf)) return kSVSampleBufferError_RequiredParameterMissing;
    const Buffer *b = asBuffer(sbuf);
    if (b->invalidated) return kSVSampleBufferError_Invalidated;
    if (b->kind != kSVSampleBufferKind_DataBuffer) return kSVSampleBufferError_InvalidMediaTypeForOperation;
    const bool has = b->packetDescriptions && b->numPacketDescriptions > 0;
    if (packetDescriptionsPointerOut) *packetDescriptionsPointerOut = has ? b->packetDescriptions : nullptr;
    if (packetDescriptionsSizeOut)
        *packetDescriptionsSizeOut =
            has ? static_cast<size_t>(b->numPacketDescriptions) * sizeof(AudioStreamPacketDescription) : 0;
    return 0;
}

// ==== Buffer lists ============================================================

OSStatus SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
    SVSampleBufferRef sbuf, size_t *bufferListSizeNeededOut, AudioBufferList *bufferListOut, size_t bufferListSize,
    CFAllocatorRef blockBufferStructureAllocator, CFAllocatorRef blockBufferBlockAllocator, uint32_t flags,
    SVBlockBufferRef *blockBufferOut) noexcept {
    constexpr const char *kFunction = "SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer";
    Layout layout;
    if (OSStatus status = checkAudioBuffer(sbuf, kFunction, &layout)) return status;
    const size_t needed = offsetof(AudioBufferList, mBuffers) + size_t{layout.bufferCount} * sizeof(AudioBuffer);
    if (bufferListSizeNeededOut) *bufferListSizeNeededOut = needed;
    if (!bufferListOut) return 0;
    if (bufferListSize < needed) return kSVSampleBufferError_ArrayTooSmall;
    if (!blockBufferOut) return kSVSampleBufferError_RequiredParameterMissing;
    const Buffer *b = asBuffer(sbuf);
    SVBlockBufferRef data = dataOf(b);
    if (!data || !SVSampleBufferDataIsReady(sbuf)) return kSVSampleBufferError_BufferNotReady;

    const size_t length = SVBlockBufferGetDataLength(data);
    if (layout.pcm)
        if (OSStatus status = checkPCMLength(b, layout, length, kFunction)) return status;
    const size_t bufferBytes = length / layout.bufferCount;  // exact: checked above for PCM
    if (bufferBytes > std::numeric_limits<UInt32>::max()) {
        SV_LOG_HERE(3, "a buffer of %zu bytes does not fit a buffer list", bufferBytes);
        return kSVSampleBufferError_InvalidAudioData;
    }
    const bool assure16 = (flags & kSVSampleBufferFlag_AudioBufferList_Assure16ByteAlignment) != 0;
    const size_t alignment = assure16 ? 16 : naturalAlignment(layout);

    uint8_t *bytes = nullptr;
    size_t stride = bufferBytes;
    SVBlockBufferRef holder = nullptr;
    if (length > 0) {
        char *pointer = nullptr;
        size_t contiguous = 0;
        if (SVBlockBufferGetDataPointer(data, 0, &contiguous, nullptr, &pointer) == 0 && contiguous >= length) {
            bool aligned = true;
            for (uint32_t i = 0; i < layout.bufferCount; i++)
                aligned = aligned && reinterpret_cast<uintptr_t>(pointer + i * bufferBytes) % alignment == 0;
            if (aligned) {
                bytes = reinterpret_cast<uint8_t *>(pointer);
                holder = static_cast<SVBlockBufferRef>(const_cast<void *>(CFRetain(data)));
            }
        }
        if (!holder) {
            // One contiguous copy; every plane starts aligned.
            stride = roundUp(bufferBytes, alignment);
            size_t total;
            if (__builtin_mul_overflow(stride, size_t{layout.bufferCount}, &total))
                return kSVSampleBufferError_AllocationFailed;
            OSStatus status = createAlignedBlock(blockBufferStructureAllocator, blockBufferBlockAllocator, total,
                                                 alignment, &holder, &bytes);
            if (status != 0) return status;
            for (uint32_t i = 0; i < layout.bufferCount && bufferBytes > 0; i++) {
                status = SVBlockBufferCopyDataBytes(data, i * bufferBytes, bufferBytes, bytes + i * stride);
                if (status != 0) {
                    CFRelease(holder);
                    return status;
                }
            }
        }
    } else {
        holder = static_cast<SVBlockBufferRef>(const_cast<void *>(CFRetain(data)));
    }
    bufferListOut->mNumberBuffers = layout.bufferCount;
    for (uint32_t i = 0; i < layout.bufferCount; i++) {
        AudioBuffer &buffer = bufferListOut->mBuffers[i];
        buffer.mNumberChannels = layout.channelsPerBuffer;
        buffer.mDataByteSize = static_cast<UInt32>(bufferBytes);
        buffer.mData = bytes ? bytes + i * stride : nullptr;
    }
    *blockBufferOut = holder;
    return 0;
}

OSStatus SVSampleBufferCopyPCMDataIntoAudioBufferList(SVSampleBufferRef sbuf, int32_t frameOffset, int32_t numFrames,
                                                      AudioBufferList *bufferList) noexcept {
    constexpr const char *kFunction = "SVSampleBufferCopyPCMDataIntoAudioBufferList";
    if (!bufferList) return kSVSampleBufferError_RequiredParameterMissing;
    Layout layout;
    if (OSStatus status = checkAudioBuffer(sbuf, kFunction, &layout)) return status;
    if (!layout.pcm) {
        SV_LOG_STATUS_HERE(3, static_cast<OSStatus>(layout.asbd->mFormatID), "copies linear PCM only, not %s");
        return kSVSampleBufferError_InvalidMediaTypeForOperation;
    }
    const Buffer *b = asBuffer(sbuf);
    SVBlockBufferRef data = dataOf(b);
    if (!data || !SVSampleBufferDataIsReady(sbuf)) return kSVSampleBufferError_BufferNotReady;
    if (frameOffset < 0 || numFrames < 0 || int64_t{frameOffset} + numFrames > b->numSamples) {
        SV_LOG_HERE(3, "frames %d to %lld lie outside the buffer's %ld frames", frameOffset,
                    static_cast<long long>(int64_t{frameOffset} + numFrames), static_cast<long>(b->numSamples));
        return kSVSampleBufferError_SampleIndexOutOfRange;
    }
    if (OSStatus status = checkListShape(bufferList, layout, kFunction)) return status;
    const size_t planeBytes = SVBlockBufferGetDataLength(data) / layout.bufferCount;
    if (OSStatus status = checkPCMLength(b, layout, SVBlockBufferGetDataLength(data), kFunction)) return status;
    const size_t bytes = static_cast<size_t>(numFrames) * layout.bytesPerFrameInBuffer;
    for (uint32_t i = 0; i < layout.bufferCount; i++) {
        const AudioBuffer &buffer = bufferList->mBuffers[i];
        if (buffer.mDataByteSize < bytes) {
            SV_LOG_HERE(3, "buffer %u of the list holds %u bytes; %d frames need %zu", i, buffer.mDataByteSize,
                        numFrames, bytes);
            return kSVSampleBufferError_ArrayTooSmall;
        }
        if (!buffer.mData && bytes > 0) return kSVSampleBufferError_RequiredParameterMissing;
    }
    const size_t offset = static_cast<size_t>(frameOffset) * layout.bytesPerFrameInBuffer;
    for (uint32_t i = 0; i < layout.bufferCount; i++) {
        AudioBuffer &buffer = bufferList->mBuffers[i];
        if (bytes > 0)
            if (OSStatus status = SVBlockBufferCopyDataBytes(data, i * planeBytes + offset, bytes, buffer.mData))
                return status;
        buffer.mDataByteSize = static_cast<UInt32>(bytes);
    }
    return 0;
}

OSStatus SVSampleBufferSetDataBufferFromAudioBufferList(SVSampleBufferRef sbuf,
                                                        CFAllocatorRef blockBufferStructureAllocator,
                                                        CFAllocatorRef blockBufferBlockAllocator, uint32_t flags,
                                                        const AudioBufferList *bufferList) noexcept {
    constexpr const char *kFunction = "SVSampleBufferSetDataBufferFromAudioBufferList";
    if (!bufferList) return kSVSampleBufferError_RequiredParameterMissing;
    Layout layout;
    if (OSStatus status = checkAudioBuffer(sbuf, kFunction, &layout)) return status;
    const Buffer *b = asBuffer(sbuf);
    if (b->dataOrImageBuffer) return kSVSampleBufferError_AlreadyHasDataBuffer;
    if (OSStatus status = checkListShape(bufferList, layout, kFunction)) return status;
    const size_t expected = expectedListBytes(b, layout);
    size_t total = 0;
    for (uint32_t i = 0; i < bufferList->mNumberBuffers; i++) {
        const AudioBuffer &buffer = bufferList->mBuffers[i];
        if (expected != SIZE_MAX && buffer.mDataByteSize != expected) {
            SV_LOG_HERE(3, "buffer %u of the list holds %u bytes; %ld samples take %zu", i, buffer.mDataByteSize,
                        static_cast<long>(b->numSamples), expected);
            return kSVSampleBufferError_AudioBufferListMismatch;
        }
        if (!buffer.mData && buffer.mDataByteSize > 0) return kSVSampleBufferError_RequiredParameterMissing;
        total += buffer.mDataByteSize;
    }
    if (total == 0) {
        SV_LOG_HERE(3, "the buffer list holds no bytes");
        return kSVSampleBufferError_AudioBufferListMismatch;
    }
    const size_t alignment = (flags & kSVSampleBufferFlag_AudioBufferList_Assure16ByteAlignment) ? 16 : 1;
    SVBlockBufferRef block = nullptr;
    uint8_t *bytes = nullptr;
    if (OSStatus status = createAlignedBlock(blockBufferStructureAllocator, blockBufferBlockAllocator, total, alignment,
                                             &block, &bytes))
        return status;
    for (uint32_t i = 0; i < bufferList->mNumberBuffers; i++) {
        const AudioBuffer &buffer = bufferList->mBuffers[i];
        if (buffer.mDataByteSize) std::memcpy(bytes, buffer.mData, buffer.mDataByteSize);
        bytes += buffer.mDataByteSize;
    }
    OSStatus status = SVSampleBufferSetDataBuffer(sbuf, block);
    CFRelease(block);
    if (status != 0) return status;
    return SVSampleBufferSetDataReady(sbuf);
}
