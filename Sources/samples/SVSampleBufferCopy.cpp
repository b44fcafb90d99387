// SPDX-License-Identifier: Apache-2.0
// Sample buffers: whole copies, copies with new timing, range copies that
// reference the source's bytes, per-sample iteration, and the writer that
// hands one video sample on as a contiguous packet.
//
// Every copy tracks its source's readiness (it retains the source as the
// buffer it tracks), so its own ready flag stays clear and readiness
// questions go to the source.

#include <Block.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>
#include <Sorvel/SVSampleBuffer.h>

#include <atomic>
#include <cstring>

#include "core/SVLog.h"
#include "core/SVObject.h"
#include "samples/SVSampleBufferInternal.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/SVSampleBuffer");

using sorvel::SVSampleBufferBug;
using Buffer = OpaqueSVSampleBuffer;

Buffer *asBuffer(SVSampleBufferRef sbuf) noexcept {
    return reinterpret_cast<Buffer *>(sbuf);
}
SVSampleBufferRef asRef(Buffer *sbuf) noexcept {
    return reinterpret_cast<SVSampleBufferRef>(sbuf);
}

// The byte writer's log sites report an empty source path, and the lines
// below, whatever the layout of this file.
constexpr const char kNoSourcePath[] = "";
constexpr struct {
    sorvel::SVLogSite noBlockBuffer{"_SVSampleBufferOutputVideoSampleAsBytesForH263", 1624};
    sorvel::SVLogSite extraDataLengthZero{"_SVSampleBufferOutputVideoSampleAsBytesForH263", 1656};
    sorvel::SVLogSite packetAllocationFailed{"_SVSampleBufferOutputVideoSampleAsBytesForH263", 1664};
    sorvel::SVLogSite badMediaFormat{"_SVSampleBufferOutputVideoSampleAsBytes", 1703};
} kLogSites;

constexpr FourCharCode fourCC(const char (&code)[5]) noexcept {
    return (static_cast<FourCharCode>(static_cast<uint8_t>(code[0])) << 24) |
           (static_cast<FourCharCode>(static_cast<uint8_t>(code[1])) << 16) |
           (static_cast<FourCharCode>(static_cast<uint8_t>(code[2])) << 8) |
           static_cast<FourCharCode>(static_cast<uint8_t>(code[3]));
}

// The "Extra data length is 0" notice goes out at most this many times per
// process.
constexpr int kExtraDataNoticeLimit = 10;
std::atomic<int> gExtraDataNotices{0};

// Raises the notice counter while it is below the limit plus one; true when
// the raised value still allows a notice.
bool takeExtraDataNotice() noexcept {
    int seen = gExtraDataNotices.load(std::memory_order_relaxed);
    while (seen <= kExtraDataNoticeLimit) {
        if (gExtraDataNotices.compare_exchange_weak(seen, seen + 1, std::memory_order_relaxed))
            return seen + 1 <= kExtraDataNoticeLimit;
    }
    return false;
}

// Which bytes of the source's data a range copy references, and the size
// entries it gets.
struct RangeBytes {
    size_t offset = 0;
    size_t length = 0;
    SVItemCount sizeCount = 0;
    size_t *sizes = nullptr;  // owned until stored in the new buffer
    bool allocationFailed = false;
};

RangeBytes rangeBytes(CFAllocatorRef allocator, const Buffer *source, CFRange range) noexcept {
    RangeBytes bytes;
    const auto location = static_cast<size_t>(range.location);
    const auto length = static_cast<size_t>(range.length);
    const size_t *sizes = source->sampleSizeArray;
    if (sizes && source->numSampleSizeEntries == 1) {
        // One size stands for every sample.
        bytes.sizes = static_cast<size_t *>(sorvel::SVSampleBufferCopyArray(allocator, sizes, 1, sizeof(size_t)));
        if (!bytes.sizes) {
            bytes.allocationFailed = true;
            return bytes;
        }
        bytes.sizeCount = 1;
        bytes.offset = sizes[0] * location;
        bytes.length = sizes[0] * length;
    } else if (sizes && source->numSampleSizeEntries == source->numSamples && range.length > 0) {
        bytes.sizes = static_cast<size_t *>(
            sorvel::SVSampleBufferCopyArray(allocator, sizes + location, range.length, sizeof(size_t)));
        if (!bytes.sizes) {
            bytes.allocationFailed = true;
            return bytes;
        }
        bytes.sizeCount = range.length;
        for (size_t i = 0; i < location; i++) bytes.offset += sizes[i];
        for (size_t i = location; i < location + length; i++) bytes.length += sizes[i];
    } else {
        // No sizes: the data is taken to be divided evenly.
        const size_t dataLength =
            SVBlockBufferGetDataLength(static_cast<SVBlockBufferRef>(const_cast<void *>(source->dataOrImageBuffer)));
        const size_t perSample = source->numSamples > 0 ? dataLength / static_cast<size_t>(source->numSamples) : 0;
        bytes.offset = perSample * location;
        bytes.length = perSample * length;
    }
    return bytes;
}

template <typename Handler>
OSStatus forEachSample(SVSampleBufferRef sbuf, Handler &&handler) noexcept {
    if (!sorvel::gSVSampleBufferClass.checked(sbuf)) return kSVSampleBufferError_RequiredParameterMissing;
    const Buffer *b = asBuffer(sbuf);
    if (b->kind == kSVSampleBufferKind_ImageBuffer) return kSVSampleBufferError_InvalidMediaTypeForOperation;
    if (b->numSamples <= 0) return kSVSampleBufferError_CannotSubdivide;
    // The sample count is read again after every call: the handler may
    // change the buffer it is iterating.
    for (SVItemCount index = 0; index < b->numSamples; index++) {
        SVSampleBufferRef sample = nullptr;
        OSStatus status = SVSampleBufferCopySampleBufferForRange(nullptr, sbuf, CFRangeMake(index, 1), &sample);
        if (status != 0) return status;
        status = handler(sample, index);
        CFRelease(sample);
        if (status != 0) return status;
    }
    return 0;
}

// A sample counts as a sync sample unless its attachments say NotSync.
bool isSyncSample(const Buffer *sbuf) noexcept {
    CFArrayRef attachments = sbuf->sampleAttachmentsArray;
    if (!attachments || CFArrayGetCount(attachments) == 0) return true;
    auto first = static_cast<CFDictionaryRef>(CFArrayGetValueAtIndex(attachments, 0));
    return CFDictionaryGetValue(first, kSVSampleAttachmentKey_NotSync) != kCFBooleanTrue;
}

// The codec's out-of-band configuration ("extradata") that a decoder needs
// before a sync sample, or NULL.
CFDataRef extraDataOf(SVFormatDescriptionRef desc) noexcept {
    CFPropertyListRef atoms =
        SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms);
    if (!atoms || CFGetTypeID(atoms) != CFDictionaryGetTypeID()) return nullptr;
    CFTypeRef extraData = CFDictionaryGetValue(static_cast<CFDictionaryRef>(atoms), CFSTR("extradata"));
    if (!extraData || CFGetTypeID(extraData) != CFDataGetTypeID()) return nullptr;
    return static_cast<CFDataRef>(extraData);
}

// The writer of samples that go out as they are stored ('h263', 'mp4v'),
// preceded on a sync sample by the extra data when `extraDataMode` is 1.
OSStatus writeRawSample(SVSampleBufferRef sbuf, int32_t extraDataMode,
                        SVSampleBufferPacketAllocator packetAllocator) noexcept {
    if (!SVSampleBufferIsValid(sbuf) || !SVSampleBufferGetFormatDescription(sbuf))
        return kSVSampleBufferError_RequiredParameterMissing;
    const Buffer *b = asBuffer(sbuf);
    SVBlockBufferRef data = SVSampleBufferGetDataBuffer(sbuf);
    if (b->kind != kSVSampleBufferKind_DataBuffer || !data) {
        SV_LOG_SITE_AT(kNoSourcePath, kLogSites.noBlockBuffer, 3, "No block buffer");
        return kSVSampleBufferError_RequiredParameterMissing;
    }
    if (!packetAllocator) return kSVSampleBufferError_RequiredParameterMissing;

    CFDataRef extraData = nullptr;
    if (CFDataRef candidate = extraDataOf(b->formatDescription); candidate && extraDataMode == 1 && isSyncSample(b)) {
        extraData = candidate;
        if (CFDataGetLength(extraData) == 0 && takeExtraDataNotice())
            SV_LOG_SITE_AT(kNoSourcePath, kLogSites.extraDataLengthZero, 4, "Extra data length is 0");
    }
    const size_t extraLength = extraData ? static_cast<size_t>(CFDataGetLength(extraData)) : 0;
    const size_t dataLength = SVBlockBufferGetDataLength(data);
    const size_t packetSize = dataLength + extraLength;
    auto *packet = static_cast<uint8_t *>(packetAllocator(packetSize));
    if (!packet) {
        SV_LOG_SITE_AT(kNoSourcePath, kLogSites.packetAllocationFailed, 3, "Failed to allocate packet of size %zu",
                       packetSize);
        return kSVSampleBufferError_AllocationFailed;
    }
    if (extraLength) std::memcpy(packet, CFDataGetBytePtr(extraData), extraLength);
    return SVBlockBufferCopyDataBytes(data, 0, dataLength, packet + extraLength);
}

}  // namespace

namespace sorvel {

bool SVSampleBufferWriteAnnexBPacket(SVSampleBufferRef sbuf, int32_t extraDataMode,
                                     SVSampleBufferPacketAllocator packetAllocator, OSStatus *statusOut) noexcept {
    // The extra-data mode doubles as the encoder's include-parameter-sets
    // flag: both mean "make this packet decodable on its own".
    *statusOut = _SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer(sbuf, extraDataMode, nullptr, 0, packetAllocator);
    return true;
}

}  // namespace sorvel

// ==== Copies =================================================================

OSStatus SVSampleBufferCreateCopy(CFAllocatorRef allocator, SVSampleBufferRef sbuf,
                                  SVSampleBufferRef *sampleBufferOut) noexcept {
    if (!sorvel::gSVSampleBufferClass.checked(sbuf) || !sampleBufferOut)
        return kSVSampleBufferError_RequiredParameterMissing;
    const Buffer *source = asBuffer(sbuf);
    if (source->invalidated) return kSVSampleBufferError_Invalidated;
    if (source->kind != kSVSampleBufferKind_DataBuffer && source->kind != kSVSampleBufferKind_ImageBuffer)
        SVSampleBufferBug(__func__, __LINE__);
    Buffer *copy = sorvel::SVSampleBufferAllocate(allocator);
    if (!copy) {
        *sampleBufferOut = nullptr;
        return kSVSampleBufferError_AllocationFailed;
    }
    sorvel::SVSampleBufferApplyCopyRules(copy, source);
    copy->kind = source->kind;
    if (source->dataOrImageBuffer) copy->dataOrImageBuffer = CFRetain(source->dataOrImageBuffer);
    if (source->kind == kSVSampleBufferKind_DataBuffer) {
        CFAllocatorRef arrays = CFGetAllocator(copy);
        copy->numSamples = source->numSamples;
        // Not checked, deliberately: a failed copy leaves a count without an
        // array, which every reader takes as "no entries".
        copy->numSampleTimingEntries = source->numSampleTimingEntries;
        copy->sampleTimingArray = static_cast<SVSampleTimingInfo *>(sorvel::SVSampleBufferCopyArray(
            arrays, source->sampleTimingArray, source->numSampleTimingEntries, sizeof(SVSampleTimingInfo)));
        copy->numSampleSizeEntries = source->numSampleSizeEntries;
        copy->sampleSizeArray = static_cast<size_t *>(sorvel::SVSampleBufferCopyArray(
            arrays, source->sampleSizeArray, source->numSampleSizeEntries, sizeof(size_t)));
        // Unlike the two arrays above, a copy without its packet
        // descriptions would split its data wrongly: this one is checked.
        if (source->packetDescriptions && source->numPacketDescriptions > 0) {
            copy->packetDescriptions = static_cast<AudioStreamPacketDescription *>(
                sorvel::SVSampleBufferCopyArray(arrays, source->packetDescriptions, source->numPacketDescriptions,
                                                sizeof(AudioStreamPacketDescription)));
            if (!copy->packetDescriptions) {
                CFRelease(copy);
                *sampleBufferOut = nullptr;
                return kSVSampleBufferError_AllocationFailed;
            }
            copy->numPacketDescriptions = source->numPacketDescriptions;
        }
        copy->audioTimingDerived = source->audioTimingDerived;
    } else {
        copy->imageTiming = source->imageTiming;
    }
    // A new array of the same dictionaries: per-sample attachments edited
    // through either buffer are seen by both.
    if (source->sampleAttachmentsArray)
        copy->sampleAttachmentsArray = CFArrayCreateCopy(nullptr, source->sampleAttachmentsArray);
    *sampleBufferOut = asRef(copy);
    return 0;
}

OSStatus SVSampleBufferCreateCopyWithNewTiming(CFAllocatorRef allocator, SVSampleBufferRef sbuf,
                                               SVItemCount numSampleTimingEntries,
                                               const SVSampleTimingInfo *sampleTimingArray,
                                               SVSampleBufferRef *sampleBufferOut) noexcept {
    // Only 0 or 1 new entries, for either kind.
    if (numSampleTimingEntries >= 2) return kSVSampleBufferError_InvalidEntryCount;
    if (numSampleTimingEntries != 0 && !sampleTimingArray) return kSVSampleBufferError_RequiredParameterMissing;
    SVSampleBufferRef copyRef = nullptr;
    OSStatus status = SVSampleBufferCreateCopy(allocator, sbuf, &copyRef);
    if (status != 0) return status;
    Buffer *copy = asBuffer(copyRef);
    if (copy->kind == kSVSampleBufferKind_DataBuffer) {
        CFAllocatorRef arrays = CFGetAllocator(copy);
        // The caller's timing replaces the one derived from an audio format.
        copy->audioTimingDerived = 0;
        sorvel::SVSampleBufferFreeArray(arrays, copy->sampleTimingArray);
        copy->sampleTimingArray = nullptr;
        copy->numSampleTimingEntries = numSampleTimingEntries;
        if (numSampleTimingEntries > 0) {
            copy->sampleTimingArray = static_cast<SVSampleTimingInfo *>(sorvel::SVSampleBufferCopyArray(
                arrays, sampleTimingArray, numSampleTimingEntries, sizeof(SVSampleTimingInfo)));
            if (!copy->sampleTimingArray) {
                CFRelease(copyRef);
                *sampleBufferOut = nullptr;
                return kSVSampleBufferError_AllocationFailed;
            }
        }
    } else if (numSampleTimingEntries >= 1) {
        copy->imageTiming = sampleTimingArray[0];
    }
    *sampleBufferOut = copyRef;
    return 0;
}

namespace {

// The timing entries of a range copy: the audio layout's one entry, else
// the source's single entry or its entries for the range.  False when an
// allocation fails.
bool copyRangeTiming(CFAllocatorRef allocator, const Buffer *source, CFRange sampleRange,
                     const sorvel::SVAudioRange &audio, SVSampleTimingInfo **timingOut,
                     SVItemCount *timingCountOut) noexcept {
    if (audio.hasTiming) {
        *timingOut = static_cast<SVSampleTimingInfo *>(
            sorvel::SVSampleBufferCopyArray(allocator, &audio.timing, 1, sizeof(SVSampleTimingInfo)));
        *timingCountOut = 1;
        return *timingOut != nullptr;
    }
    if (source->numSampleTimingEntries == 0 || !source->sampleTimingArray) return true;
    const bool one = source->numSampleTimingEntries == 1;
    *timingCountOut = one ? 1 : sampleRange.length;
    if (*timingCountOut == 0) return true;
    *timingOut = static_cast<SVSampleTimingInfo *>(
        sorvel::SVSampleBufferCopyArray(allocator, source->sampleTimingArray + (one ? 0 : sampleRange.location),
                                        *timingCountOut, sizeof(SVSampleTimingInfo)));
    return *timingOut != nullptr;
}

// The data of a range copy: the audio layout's own bytes (taken over from
// `audio`), else a reference to the range's bytes of the source's data.
CFTypeRef rangeData(CFAllocatorRef allocator, const Buffer *source, const RangeBytes &bytes,
                    sorvel::SVAudioRange &audio) noexcept {
    if (audio.hasData) {
        CFTypeRef data = audio.data;  // ownership moves
        audio.data = nullptr;
        return data;
    }
    if (!source->dataOrImageBuffer) return nullptr;
    // Not checked, deliberately: a reference that cannot be made leaves the
    // new buffer without data.
    SVBlockBufferRef data = nullptr;
    SVBlockBufferCreateWithBufferReference(allocator,
                                           static_cast<SVBlockBufferRef>(const_cast<void *>(source->dataOrImageBuffer)),
                                           bytes.offset, bytes.length, 0, &data);
    return data;
}

}  // namespace

OSStatus SVSampleBufferCopySampleBufferForRange(CFAllocatorRef allocator, SVSampleBufferRef sbuf, CFRange sampleRange,
                                                SVSampleBufferRef *sampleBufferOut) noexcept {
    const Buffer *source = sorvel::gSVSampleBufferClass.checked(sbuf);
    if (source && source->kind == kSVSampleBufferKind_ImageBuffer)
        return kSVSampleBufferError_InvalidMediaTypeForOperation;
    if (!sampleBufferOut || !source) return kSVSampleBufferError_RequiredParameterMissing;
    if (source->kind != kSVSampleBufferKind_DataBuffer) SVSampleBufferBug(__func__, __LINE__);
    const SVItemCount numSamples = source->numSamples;
    if (numSamples <= 0) return kSVSampleBufferError_CannotSubdivide;
    // Negative ranges, and ranges whose end overflows, are past the end too.
    SVItemCount end;
    if (sampleRange.location < 0 || sampleRange.length < 0 ||
        __builtin_add_overflow(sampleRange.location, sampleRange.length, &end) || end > numSamples)
        return kSVSampleBufferError_SampleIndexOutOfRange;

    // Audio buffers take their bytes, timing and packet descriptions from
    // the audio layout where it decides them.
    sorvel::SVAudioRange audio;
    sorvel::SVAudioSampleBufferPrepareRange(allocator, source, sampleRange, &audio);
    if (audio.failed) return kSVSampleBufferError_AllocationFailed;

    SVItemCount timingCount = 0;
    SVSampleTimingInfo *timing = nullptr;
    if (!copyRangeTiming(allocator, source, sampleRange, audio, &timing, &timingCount)) {
        sorvel::SVAudioSampleBufferReleaseRange(allocator, &audio);
        return kSVSampleBufferError_AllocationFailed;
    }
    RangeBytes bytes = rangeBytes(allocator, source, sampleRange);
    if (bytes.allocationFailed) {
        sorvel::SVSampleBufferFreeArray(allocator, timing);
        sorvel::SVAudioSampleBufferReleaseRange(allocator, &audio);
        return kSVSampleBufferError_AllocationFailed;
    }
    Buffer *copy = sorvel::SVSampleBufferAllocate(allocator);
    if (!copy) {
        sorvel::SVSampleBufferFreeArray(allocator, timing);
        sorvel::SVSampleBufferFreeArray(allocator, bytes.sizes);
        sorvel::SVAudioSampleBufferReleaseRange(allocator, &audio);
        *sampleBufferOut = nullptr;
        return kSVSampleBufferError_AllocationFailed;
    }
    sorvel::SVSampleBufferApplyCopyRules(copy, source);
    copy->kind = kSVSampleBufferKind_DataBuffer;
    copy->dataOrImageBuffer = rangeData(allocator, source, bytes, audio);
    copy->numSamples = sampleRange.length;
    copy->numSampleTimingEntries = timingCount;
    copy->sampleTimingArray = timing;
    copy->numSampleSizeEntries = bytes.sizeCount;
    copy->sampleSizeArray = bytes.sizes;
    copy->numPacketDescriptions = audio.descriptionCount;
    copy->packetDescriptions = audio.descriptions;
    copy->audioTimingDerived = source->audioTimingDerived;
    *sampleBufferOut = asRef(copy);
    return 0;
}

// ==== Iteration ==============================================================

OSStatus SVSampleBufferCallForEachSample(SVSampleBufferRef sbuf, SVSampleBufferForEachSampleCallback callback,
                                         void *refcon) noexcept {
    return forEachSample(sbuf, [callback, refcon](SVSampleBufferRef sample, SVItemCount index) {
        return callback(sample, index, refcon);
    });
}

OSStatus SVSampleBufferCallBlockForEachSample(SVSampleBufferRef sbuf,
                                              SVSampleBufferForEachSampleHandler handler) noexcept {
    return forEachSample(sbuf,
                         [handler](SVSampleBufferRef sample, SVItemCount index) { return handler(sample, index); });
}

// ==== The byte writer ========================================================

OSStatus _SVSampleBufferOutputVideoSampleAsBytes(SVSampleBufferRef sbuf, int32_t extraDataMode,
                                                 SVSampleBufferPacketAllocator packetAllocator) noexcept {
    if (!SVSampleBufferIsValid(sbuf) || !asBuffer(sbuf)->formatDescription)
        return kSVSampleBufferError_RequiredParameterMissing;
    const FourCharCode subtype = SVFormatDescriptionGetMediaSubType(asBuffer(sbuf)->formatDescription);
    if (subtype == fourCC("avc1") || subtype == fourCC("hvc1")) {
        OSStatus status = 0;
        if (sorvel::SVSampleBufferWriteAnnexBPacket(sbuf, extraDataMode, packetAllocator, &status)) return status;
    } else if (subtype == fourCC("h263") || subtype == fourCC("mp4v")) {
        return writeRawSample(sbuf, extraDataMode, packetAllocator);
    }
    SV_LOG_STATUS_SITE_AT(kNoSourcePath, kLogSites.badMediaFormat, 3, static_cast<OSStatus>(subtype),
                          "Bad media format %s");
    return kSVSampleBufferError_InvalidMediaFormat;
}

OSStatus _SVSampleBufferOutputVideoSampleAsBytesWithAllocatorFunction(SVSampleBufferRef sbuf, int32_t extraDataMode,
                                                                      SVSampleBufferPacketAllocatorFunction allocate,
                                                                      void *refcon) noexcept {
    // One writer for both forms: the function becomes the block the writer
    // takes, and a NULL function a NULL block.
    SVSampleBufferPacketAllocator packetAllocator = nullptr;
    if (allocate != nullptr) packetAllocator = ^void *(size_t size) {
            return allocate(size, refcon);
        };
    return _SVSampleBufferOutputVideoSampleAsBytes(sbuf, extraDataMode, packetAllocator);
}
