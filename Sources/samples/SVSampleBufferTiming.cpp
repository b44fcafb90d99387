// SPDX-License-Identifier: Apache-2.0
// Sample buffers: output timing (the stored timing with the trim, speed and
// reverse attachments applied) and the per-sample timing and size getters.
//
// Three rules carry all the output arithmetic:
//   presentation: P + trimStart, or (P + D) - trimEnd when reversed;
//   duration:     ((D - trimStart) - trimEnd) * (1 / speed);
//   decode:       OP + (T - P) * (1 / speed),
// where a speed of exactly 0.0 makes the duration and decode rules answer
// the all-zero time.  The attachments are read at most once per call, and
// not at all while they have not changed (see the adjustment cache below).

#include <CoreFoundation/CFDictionary.h>
#include <CoreVideo/CVBuffer.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVSampleBuffer.h>

#include <cstring>

#include "samples/SVSampleBufferInternal.h"

namespace {

using sorvel::SVSampleBufferBug;
using sorvel::time::kInvalid;
using Buffer = OpaqueSVSampleBuffer;

const Buffer *asBuffer(SVSampleBufferRef sbuf) noexcept {
    return reinterpret_cast<const Buffer *>(sbuf);
}

// Whether the buffer has never had an attachment set: its storage then
// has no dictionary at all, and every attachment read answers NULL.  The
// output getters check this first and skip the locked dictionary look-ups
// (four per call for the decode time), which otherwise dominate their
// cost; the answers are those the look-ups would give.  A dictionary once
// made stays until the buffer is finalized, so a buffer seen with one
// always takes the full path.
bool hasNoAttachments(SVSampleBufferRef sbuf) noexcept {
    return sorvel::SVSampleBufferHasNoAttachments(reinterpret_cast<const Buffer *>(sbuf));
}

CFTypeRef attachment(SVSampleBufferRef sbuf, CFStringRef key) noexcept {
    return CVBufferGetAttachment(reinterpret_cast<CVBufferRef>(sbuf), key, nullptr);
}

// A trim attachment: an SVTime dictionary; anything that does not make a
// valid time counts as zero.  A mutable dictionary may change without the
// buffer knowing, so what it gives is not cached.
SVTime readTrim(SVSampleBufferRef sbuf, CFStringRef key, bool &cacheable) noexcept {
    const auto dictionary = static_cast<CFDictionaryRef>(attachment(sbuf, key));
    if (_CFDictionaryIsMutable(dictionary)) cacheable = false;
    SVTime trim = SVTimeMakeFromDictionary(dictionary);
    return SVTIME_IS_VALID(trim) ? trim : kSVTimeZero;
}

struct Speed {
    double multiplier = 1.0;
    bool isZero = false;  // a CFNumber attachment of exactly 0.0
};

Speed readSpeed(SVSampleBufferRef sbuf) noexcept {
    Speed speed;
    CFTypeRef value = attachment(sbuf, kSVSampleBufferAttachmentKey_SpeedMultiplier);
    if (value && CFGetTypeID(value) == CFNumberGetTypeID()) {
        double multiplier = 1.0;
        CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberFloat64Type, &multiplier);
        speed.multiplier = multiplier;
        speed.isZero = multiplier == 0.0;
    }
    return speed;
}

// Everything the three rules read from a buffer's attachments.
struct Adjustments {
    SVTime trimAtStart;
    SVTime trimAtEnd;
    Speed speed;
    bool reverse;
};

// What the attachments give when there are none: no trims (a missing trim
// counts as zero), speed 1.0, not reversed.
constexpr SVTime kZeroTrim = {0, 1, kSVTimeFlags_Valid, 0};  // kSVTimeZero
constexpr Adjustments kNoAdjustments = {kZeroTrim, kZeroTrim, {1.0, false}, false};

Adjustments readAdjustments(SVSampleBufferRef sbuf, bool &cacheable) noexcept {
    return {readTrim(sbuf, kSVSampleBufferAttachmentKey_TrimDurationAtStart, cacheable),
            readTrim(sbuf, kSVSampleBufferAttachmentKey_TrimDurationAtEnd, cacheable), readSpeed(sbuf),
            attachment(sbuf, kSVSampleBufferAttachmentKey_Reverse) == kCFBooleanTrue};
}

// ---- The adjustment cache ----------------------------------------------------
// Four locked dictionary look-ups and two time dictionaries parsed on every
// call were nearly all the cost of the output getters, for values that
// change seldom.  A buffer keeps what it last read with the attachment
// storage's change count; the answers are those a fresh read would give.
// Readers on several threads share the cache through a sequence count: one
// that finds it being filled, or stale, reads the attachments itself.

constexpr size_t kCacheWords = sizeof(SVOutputAdjustmentCache::words) / sizeof(uint64_t);
static_assert(sizeof(Adjustments) <= sizeof(SVOutputAdjustmentCache::words), "the cache holds the adjustments");

bool loadCached(SVOutputAdjustmentCache &cache, uint32_t changes, Adjustments &adjust) noexcept {
    const uint32_t before = __atomic_load_n(&cache.sequence, __ATOMIC_ACQUIRE);
    if ((before & 1) != 0 || !__atomic_load_n(&cache.filled, __ATOMIC_RELAXED) ||
        __atomic_load_n(&cache.changes, __ATOMIC_RELAXED) != changes)
        return false;
    uint64_t words[kCacheWords];
    for (size_t i = 0; i < kCacheWords; i++) words[i] = __atomic_load_n(&cache.words[i], __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    if (__atomic_load_n(&cache.sequence, __ATOMIC_RELAXED) != before) return false;
    memcpy(&adjust, words, sizeof adjust);
    return true;
}

// Stores unless another reader is storing at the same moment.
void storeCached(SVOutputAdjustmentCache &cache, uint32_t changes, const Adjustments &adjust) noexcept {
    uint32_t sequence = __atomic_load_n(&cache.sequence, __ATOMIC_RELAXED);
    if ((sequence & 1) != 0 || !__atomic_compare_exchange_n(&cache.sequence, &sequence, sequence + 1, false,
                                                            __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
        return;
    __atomic_thread_fence(__ATOMIC_RELEASE);
    uint64_t words[kCacheWords] = {};
    memcpy(words, &adjust, sizeof adjust);
    for (size_t i = 0; i < kCacheWords; i++) __atomic_store_n(&cache.words[i], words[i], __ATOMIC_RELAXED);
    __atomic_store_n(&cache.changes, changes, __ATOMIC_RELAXED);
    __atomic_store_n(&cache.filled, uint64_t{1}, __ATOMIC_RELAXED);
    __atomic_store_n(&cache.sequence, sequence + 2, __ATOMIC_RELEASE);
}

Adjustments adjustmentsOf(SVSampleBufferRef sbuf) noexcept {
    if (hasNoAttachments(sbuf)) return kNoAdjustments;
    auto *b = reinterpret_cast<Buffer *>(sbuf);
    // Taken before the attachments are read: a change made meanwhile leaves
    // the stored copy stale, and the next reader reads again.
    const uint32_t changes = __atomic_load_n(&b->attachments._changes, __ATOMIC_ACQUIRE);
    Adjustments adjust;
    if (loadCached(b->outputAdjustments, changes, adjust)) return adjust;
    bool cacheable = true;
    adjust = readAdjustments(sbuf, cacheable);
    if (cacheable) storeCached(b->outputAdjustments, changes, adjust);
    return adjust;
}

// The speed does not enter the presentation rule.
SVTime outputPresentation(const Adjustments &adjust, SVTime duration, SVTime presentation) noexcept {
    if (!adjust.reverse) return SVTimeAdd(presentation, adjust.trimAtStart);
    return SVTimeSubtract(SVTimeAdd(presentation, duration), adjust.trimAtEnd);
}

SVTime outputDuration(const Adjustments &adjust, SVTime duration) noexcept {
    if (adjust.speed.isZero) return kInvalid;
    SVTime trimmed = SVTimeSubtract(SVTimeSubtract(duration, adjust.trimAtStart), adjust.trimAtEnd);
    return SVTimeMultiplyByFloat64(trimmed, 1.0 / adjust.speed.multiplier);
}

// The decode time keeps its distance before the presentation time, scaled
// by the speed.
SVTime outputDecode(const Adjustments &adjust, SVTime outputPresentationTime, SVTime presentation,
                    SVTime decode) noexcept {
    if (adjust.speed.isZero) return kInvalid;
    SVTime lead = SVTimeMultiplyByFloat64(SVTimeSubtract(decode, presentation), 1.0 / adjust.speed.multiplier);
    return SVTimeAdd(outputPresentationTime, lead);
}

bool isUsable(SVSampleBufferRef sbuf) noexcept {
    return sorvel::gSVSampleBufferClass.checked(sbuf) && !asBuffer(sbuf)->invalidated;
}

bool hasOverride(const Buffer *b) noexcept {
    return SVTIME_IS_VALID(b->outputPresentationTimeStamp);
}

// The output presentation time of the whole buffer: the override when set.
SVTime bufferOutputPresentation(SVSampleBufferRef sbuf, const Adjustments &adjust) noexcept {
    const Buffer *b = asBuffer(sbuf);
    if (hasOverride(b)) return b->outputPresentationTimeStamp;
    // The duration is only needed for a reversed buffer; summing a long
    // timing array for nothing would cost every sorted-queue comparison.
    SVTime duration = adjust.reverse ? SVSampleBufferGetDuration(sbuf) : kSVTimeInvalid;
    return outputPresentation(adjust, duration, SVSampleBufferGetPresentationTimeStamp(sbuf));
}

}  // namespace

// ==== Output timing ==========================================================

SVTime SVSampleBufferGetOutputPresentationTimeStamp(SVSampleBufferRef sbuf) noexcept {
    if (!isUsable(sbuf)) return kInvalid;
    const Buffer *b = asBuffer(sbuf);
    if (hasOverride(b)) return b->outputPresentationTimeStamp;
    SVTime plain;
    if (sorvel::SVSampleBufferPlainOutputPresentationTime(b, plain)) return plain;
    return bufferOutputPresentation(sbuf, adjustmentsOf(sbuf));
}

OSStatus SVSampleBufferSetOutputPresentationTimeStamp(SVSampleBufferRef sbuf,
                                                      SVTime outputPresentationTimeStamp) noexcept {
    if (!sorvel::gSVSampleBufferClass.checked(sbuf)) return kSVSampleBufferError_RequiredParameterMissing;
    reinterpret_cast<Buffer *>(sbuf)->outputPresentationTimeStamp = outputPresentationTimeStamp;
    return 0;
}

SVTime SVSampleBufferGetOutputDecodeTimeStamp(SVSampleBufferRef sbuf) noexcept {
    if (!isUsable(sbuf)) return kInvalid;
    const Buffer *b = asBuffer(sbuf);
    if (b->kind != kSVSampleBufferKind_DataBuffer && b->kind != kSVSampleBufferKind_ImageBuffer)
        SVSampleBufferBug(__func__, __LINE__);
    const Adjustments adjust = adjustmentsOf(sbuf);
    // For the image kind the buffer-wide decode time is its inline one.
    return outputDecode(adjust, bufferOutputPresentation(sbuf, adjust), SVSampleBufferGetPresentationTimeStamp(sbuf),
                        SVSampleBufferGetDecodeTimeStamp(sbuf));
}

SVTime SVSampleBufferGetOutputDuration(SVSampleBufferRef sbuf) noexcept {
    if (!isUsable(sbuf)) return kInvalid;
    return outputDuration(adjustmentsOf(sbuf), SVSampleBufferGetDuration(sbuf));
}

// ==== Timing arrays ==========================================================

OSStatus SVSampleBufferGetSampleTimingInfoArray(SVSampleBufferRef sbuf, SVItemCount timingArrayEntries,
                                                SVSampleTimingInfo *timingArrayOut,
                                                SVItemCount *timingArrayEntriesNeededOut) noexcept {
    if (!sorvel::gSVSampleBufferClass.checked(sbuf)) return kSVSampleBufferError_RequiredParameterMissing;
    const Buffer *b = asBuffer(sbuf);
    if (b->invalidated) return kSVSampleBufferError_Invalidated;
    switch (b->kind) {
        case kSVSampleBufferKind_ImageBuffer:
            if (timingArrayEntriesNeededOut) *timingArrayEntriesNeededOut = 1;
            if (!timingArrayOut) return 0;
            if (timingArrayEntries < 1) return kSVSampleBufferError_ArrayTooSmall;
            timingArrayOut[0] = b->imageTiming;
            return 0;
        case kSVSampleBufferKind_DataBuffer: {
            const SVItemCount count = b->numSampleTimingEntries;
            // Written before any check, so a caller can size its array from
            // an ArrayTooSmall reply.
            if (timingArrayEntriesNeededOut) *timingArrayEntriesNeededOut = count;
            if (count < 1 || !b->sampleTimingArray) return kSVSampleBufferError_BufferHasNoSampleTimingInfo;
            if (!timingArrayOut) return 0;
            if (count > timingArrayEntries) return kSVSampleBufferError_ArrayTooSmall;
            for (SVItemCount i = 0; i < count; i++) timingArrayOut[i] = b->sampleTimingArray[i];
            return 0;
        }
        default:
            SVSampleBufferBug(__func__, __LINE__);
    }
}

OSStatus SVSampleBufferGetOutputSampleTimingInfoArray(SVSampleBufferRef sbuf, SVItemCount timingArrayEntries,
                                                      SVSampleTimingInfo *timingArrayOut,
                                                      SVItemCount *timingArrayEntriesNeededOut) noexcept {
    // The invalidated code for a NULL buffer too, deliberately.
    if (!isUsable(sbuf)) return kSVSampleBufferError_Invalidated;
    OSStatus status =
        SVSampleBufferGetSampleTimingInfoArray(sbuf, timingArrayEntries, timingArrayOut, timingArrayEntriesNeededOut);
    if (!timingArrayOut || status != 0) return status;
    const Adjustments adjust = adjustmentsOf(sbuf);
    // Every slot of the caller's capacity, filled or not; the override is
    // a buffer-wide answer and plays no part per sample.
    for (SVItemCount i = 0; i < timingArrayEntries; i++) {
        SVSampleTimingInfo &slot = timingArrayOut[i];
        const SVTime presentation = slot.presentationTimeStamp;
        const SVTime outputPresentationTime = outputPresentation(adjust, slot.duration, presentation);
        slot.decodeTimeStamp = outputDecode(adjust, outputPresentationTime, presentation, slot.decodeTimeStamp);
        slot.duration = outputDuration(adjust, slot.duration);
        slot.presentationTimeStamp = outputPresentationTime;
    }
    return 0;
}

// ==== Per-sample timing and sizes ============================================

OSStatus SVSampleBufferGetSampleTimingInfo(SVSampleBufferRef sbuf, SVItemIndex sampleIndex,
                                           SVSampleTimingInfo *timingInfoOut) noexcept {
    if (!sorvel::gSVSampleBufferClass.checked(sbuf)) return kSVSampleBufferError_RequiredParameterMissing;
    const Buffer *b = asBuffer(sbuf);
    if (b->invalidated) return kSVSampleBufferError_Invalidated;
    switch (b->kind) {
        case kSVSampleBufferKind_ImageBuffer:
            if (sampleIndex != 0) return kSVSampleBufferError_SampleIndexOutOfRange;
            *timingInfoOut = b->imageTiming;
            return 0;
        case kSVSampleBufferKind_DataBuffer: {
            if (sampleIndex < 0 || sampleIndex >= b->numSamples) return kSVSampleBufferError_SampleIndexOutOfRange;
            const SVItemCount count = b->numSampleTimingEntries;
            if (!b->sampleTimingArray) return kSVSampleBufferError_BufferHasNoSampleTimingInfo;
            if (count == 1) {
                *timingInfoOut = b->sampleTimingArray[0];
                return 0;
            }
            if (count != b->numSamples) return kSVSampleBufferError_BufferHasNoSampleTimingInfo;
            *timingInfoOut = b->sampleTimingArray[sampleIndex];
            return 0;
        }
        default:
            SVSampleBufferBug(__func__, __LINE__);
    }
}

size_t SVSampleBufferGetSampleSize(SVSampleBufferRef sbuf, SVItemIndex sampleIndex) noexcept {
    if (!isUsable(sbuf)) return 0;
    const Buffer *b = asBuffer(sbuf);
    switch (b->kind) {
        case kSVSampleBufferKind_ImageBuffer:
            return 0;
        case kSVSampleBufferKind_DataBuffer: {
            if (sampleIndex < 0 || sampleIndex >= b->numSamples || !b->sampleSizeArray) return 0;
            if (b->numSampleSizeEntries == 1) return b->sampleSizeArray[0];
            if (b->numSampleSizeEntries != b->numSamples) return 0;
            return b->sampleSizeArray[sampleIndex];
        }
        default:
            SVSampleBufferBug(__func__, __LINE__);
    }
}

OSStatus SVSampleBufferGetSampleSizeArray(SVSampleBufferRef sbuf, SVItemCount sizeArrayEntries, size_t *sizeArrayOut,
                                          SVItemCount *sizeArrayEntriesNeededOut) noexcept {
    if (!sorvel::gSVSampleBufferClass.checked(sbuf) || !sizeArrayEntriesNeededOut)
        return kSVSampleBufferError_RequiredParameterMissing;
    const Buffer *b = asBuffer(sbuf);
    if (b->invalidated) return kSVSampleBufferError_Invalidated;
    switch (b->kind) {
        case kSVSampleBufferKind_ImageBuffer:
            *sizeArrayEntriesNeededOut = 0;
            return kSVSampleBufferError_BufferHasNoSampleSizes;
        case kSVSampleBufferKind_DataBuffer: {
            const SVItemCount count = b->numSampleSizeEntries;
            if (count == 0 || !b->sampleSizeArray) {
                *sizeArrayEntriesNeededOut = 0;
                return kSVSampleBufferError_BufferHasNoSampleSizes;
            }
            *sizeArrayEntriesNeededOut = count;
            if (!sizeArrayOut) return 0;
            if (sizeArrayEntries < count) return kSVSampleBufferError_ArrayTooSmall;
            for (SVItemCount i = 0; i < count; i++) sizeArrayOut[i] = b->sampleSizeArray[i];
            return 0;
        }
        default:
            SVSampleBufferBug(__func__, __LINE__);
    }
}

size_t SVSampleBufferGetTotalSampleSize(SVSampleBufferRef sbuf) noexcept {
    if (!isUsable(sbuf)) return 0;
    const Buffer *b = asBuffer(sbuf);
    switch (b->kind) {
        case kSVSampleBufferKind_ImageBuffer:
            return 0;
        case kSVSampleBufferKind_DataBuffer: {
            const SVItemCount count = b->numSampleSizeEntries;
            if (count == 0 || !b->sampleSizeArray) return 0;
            // Sizes are unsigned and wrap, as the size type does.
            if (count == 1) return static_cast<size_t>(b->numSamples) * b->sampleSizeArray[0];
            if (count != b->numSamples) return 0;
            size_t total = 0;
            for (SVItemCount i = 0; i < count; i++) total += b->sampleSizeArray[i];
            return total;
        }
        default:
            SVSampleBufferBug(__func__, __LINE__);
    }
}
