/* SPDX-License-Identifier: Apache-2.0 */
// The sample buffer's instance layout and the helpers its source modules
// share (SVSampleBuffer.cpp: object, creation, readiness, invalidation,
// buffer-wide timing and attachments array; SVSampleBufferTiming.cpp:
// output timing and the per-sample timing and size getters;
// SVSampleBufferCopy.cpp: copies, iteration and the byte writer).
#ifndef SORVEL_SOURCES_SVSAMPLEBUFFERINTERNAL_H
#define SORVEL_SOURCES_SVSAMPLEBUFFERINTERNAL_H

#include <CoreAudio/CoreAudioTypes.h>
#include <CoreVideo/CVBuffer.h>
#include <Sorvel/SVSampleBuffer.h>

#include <cstdint>

#include "core/SVLog.h"
#include "core/SVObject.h"
#include "time/SVTimeInternal.h"

// The two kinds.  Any other value in `kind` is a broken invariant.
enum : uint32_t {
    kSVSampleBufferKind_ImageBuffer = 0,
    kSVSampleBufferKind_DataBuffer = 1,
};

namespace sorvel {
// How many sample buffers have been invalidated in this process, raised
// (release order) after each one's flag is set: a reader that saw no
// invalidated buffer among its own at one count knows, while the count
// stands, that none has been since.
extern uint64_t gSVSampleBufferInvalidations;
inline uint64_t SVSampleBufferInvalidationCount() noexcept {
    return __atomic_load_n(&gSVSampleBufferInvalidations, __ATOMIC_ACQUIRE);
}
}  // namespace sorvel

// A seqlock-guarded copy of the output-timing adjustments: `sequence` is
// odd while a reader that computed them stores them; `changes` is the
// attachment storage's change count they were read at.  Every field is
// accessed atomically, so readers on several threads may share it.
struct SVOutputAdjustmentCache {
    uint32_t sequence;
    uint32_t changes;
    uint64_t filled;
    uint64_t words[9];
};

struct OpaqueSVSampleBuffer {
    CFRuntimeBase base;
    // Must come first after the header: CoreVideo's attachment calls work on
    // a sample buffer directly through it.
    CVAttachmentStorage attachments;
    SVFormatDescriptionRef formatDescription;  // retained; may be NULL for the data kind
    uint32_t kind;
    // Retained: an SVBlockBufferRef (data kind, may be NULL) or a
    // CVImageBufferRef (image kind, never NULL).
    CFTypeRef dataOrImageBuffer;
    SVItemCount numSamples;  // data kind only; 0 for the image kind
    // Data kind.  A count may be non-zero while its array is NULL (the
    // caller passed a count without an array, or an unchecked copy failed):
    // every reader tests the pointer as well as the count.  The arrays are
    // allocated with the instance's allocator.
    SVItemCount numSampleTimingEntries;
    SVSampleTimingInfo *sampleTimingArray;
    SVItemCount numSampleSizeEntries;
    size_t *sampleSizeArray;
    // Data kind, audio: one description per packet (numPacketDescriptions
    // is 0 or numSamples), in data order, allocated like the arrays above.
    SVItemCount numPacketDescriptions;
    AudioStreamPacketDescription *packetDescriptions;
    // Set by the audio creators, whose one timing entry was derived from
    // the format: range copies then move the presentation time to the
    // first packet of the range (see SVAudioSampleBuffer.cpp).
    uint8_t audioTimingDerived;
    // Image kind.
    SVSampleTimingInfo imageTiming;
    void *invalidateHandler;  // a copied block taking the buffer, or NULL
    uint8_t invalidated;
    uint8_t invalidating;  // set while the invalidate handler runs
    uint8_t dataReady;
    SVSampleBufferMakeDataReadyCallback makeDataReadyCallback;
    void *makeDataReadyRefcon;
    OSStatus dataFailedStatus;
    SVSampleBufferRef trackedBuffer;     // retained; the buffer whose readiness this one shares
    SVTime outputPresentationTimeStamp;  // all zero until set
    CFArrayRef sampleAttachmentsArray;   // per-sample mutable dictionaries, made on demand
    // What the output-timing getters read from the attachments, kept until
    // the attachments change (SVSampleBufferTiming.cpp); zero-filled = empty.
    SVOutputAdjustmentCache outputAdjustments;
};

namespace sorvel {

extern SVRuntimeClass<OpaqueSVSampleBuffer> gSVSampleBufferClass;

// The source path of every sample-buffer log site and fatal stop.
inline constexpr const char kSVSampleBufferSourcePath[] = "Sorvel/Sources/SVSampleBuffer";

[[noreturn]] inline void SVSampleBufferBug(const char *function, int line) noexcept {
    SVFatalStop(function, kSVSampleBufferSourcePath, line, "BUG");
}

// Nothing has ever been attached (neither attachment dictionary made): no
// trim, speed or reverse applies.
inline bool SVSampleBufferHasNoAttachments(const OpaqueSVSampleBuffer *b) noexcept {
    return __atomic_load_n(&b->attachments._dictionaries[0], __ATOMIC_ACQUIRE) == nullptr &&
           __atomic_load_n(&b->attachments._dictionaries[1], __ATOMIC_ACQUIRE) == nullptr;
}

// The one timing entry of a buffer that has exactly one (an image buffer's
// own), else NULL.
inline const SVSampleTimingInfo *SVSampleBufferSoleTimingEntry(const OpaqueSVSampleBuffer *b) noexcept {
    if (b->kind == kSVSampleBufferKind_ImageBuffer) return &b->imageTiming;
    if (b->kind == kSVSampleBufferKind_DataBuffer && b->sampleTimingArray != nullptr && b->numSampleTimingEntries == 1)
        return b->sampleTimingArray;
    return nullptr;
}

// SVSampleBufferGetOutputPresentationTimeStamp's common case, for a buffer
// known usable: no override, nothing attached, one timing entry whose
// presentation time is numeric and not zero.  That time is then the answer
// (adding the zero trim leaves it as it is).  False for anything else.
// Read directly by the sorted buffer queue on every comparison.
inline bool SVSampleBufferPlainOutputPresentationTime(const OpaqueSVSampleBuffer *b, SVTime &out) noexcept {
    if (SVTIME_IS_VALID(b->outputPresentationTimeStamp) || !SVSampleBufferHasNoAttachments(b)) return false;
    const SVSampleTimingInfo *entry = SVSampleBufferSoleTimingEntry(b);
    if (entry == nullptr || !sorvel::time::isNumeric(entry->presentationTimeStamp) ||
        entry->presentationTimeStamp.value == 0)
        return false;
    out = entry->presentationTimeStamp;
    return true;
}

// A new, zero-filled instance (attachment storage empty, output
// presentation time zeroed) or NULL.
OpaqueSVSampleBuffer *SVSampleBufferAllocate(CFAllocatorRef allocator) noexcept;

// Allocates `count` elements with `allocator`; NULL for a count of 0 or
// less, or when the allocator fails.
void *SVSampleBufferAllocateArray(CFAllocatorRef allocator, SVItemCount count, size_t elementSize) noexcept;
// A copy of `count` elements of `source` made as above; NULL when either
// is NULL or 0.
void *SVSampleBufferCopyArray(CFAllocatorRef allocator, const void *source, SVItemCount count,
                              size_t elementSize) noexcept;
void SVSampleBufferFreeArray(CFAllocatorRef allocator, void *array) noexcept;

// The settings every copy takes over from its source: tracking of the
// source's readiness, the format description, the make-data-ready callback
// and refcon, the failure status and the output presentation override.
void SVSampleBufferApplyCopyRules(OpaqueSVSampleBuffer *copy, const OpaqueSVSampleBuffer *source) noexcept;

// The 'avc1'/'hvc1' branch of _SVSampleBufferOutputVideoSampleAsBytes: the
// Annex B writer of the NAL-unit utilities.  Returns true and stores the
// writer's status when that writer handled the buffer; false when no such
// writer is part of this build, in which case the caller refuses the
// subtype like any other unknown format.
#if __BLOCKS__
bool SVSampleBufferWriteAnnexBPacket(SVSampleBufferRef sbuf, int32_t extraDataMode,
                                     SVSampleBufferPacketAllocator packetAllocator, OSStatus *statusOut) noexcept;
#endif

// ---- Audio (SVAudioSampleBuffer.cpp) ----

// What a range copy of an audio sample buffer takes from the audio layout
// instead of the generic rules.
struct SVAudioRange {
    bool failed = false;     // an allocation failed (nothing left owned)
    bool hasTiming = false;  // `timing` replaces the generic timing copy
    SVSampleTimingInfo timing{};
    bool hasData = false;             // `data` replaces the generic byte reference
    SVBlockBufferRef data = nullptr;  // retained; NULL when it could not be made
    // The packet descriptions of the range, rebased to the new data.
    SVItemCount descriptionCount = 0;
    AudioStreamPacketDescription *descriptions = nullptr;
};

// Fills `range` for a range copy of `source` (the range already checked to
// lie inside the samples); leaves it empty for buffers without an audio
// layout.  The timing is derived for buffers of the audio creators only;
// the bytes follow the packet descriptions, or the channel planes of
// non-interleaved linear PCM.
void SVAudioSampleBufferPrepareRange(CFAllocatorRef allocator, const OpaqueSVSampleBuffer *source, CFRange sampleRange,
                                     SVAudioRange *range) noexcept;
// Releases what `range` still owns.
void SVAudioSampleBufferReleaseRange(CFAllocatorRef allocator, SVAudioRange *range) noexcept;

}  // namespace sorvel

#endif  // SORVEL_SOURCES_SVSAMPLEBUFFERINTERNAL_H
