// SPDX-License-Identifier: Apache-2.0
// Sample buffers: output timing (the stored timing with the trim, speed and
// reverse attachments applied) and the per-sample timing and size getters.
//
// Three rules carry all the output arithmetic:
//   presentation: P + trimStart, or (P + D) - trimEnd when reversed;
//   duration:     ((D - trimStart) - trimEnd) * (1 / speed);
//   decode:       OP + (T - P) * (1 / speed),
// where a speed of exactly 0.0 makes the duration and decode rules answer
// the all-zero time.  The attachments are read once per call.

#include <CoreVideo/CVBuffer.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVSampleBuffer.h>

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
    const CVAttachmentStorage &storage = reinterpret_cast<const Buffer *>(sbuf)->attachments;
    return __atomic_load_n(&storage._dictionaries[0], __ATOMIC_ACQUIRE) == nullptr &&
           __atomic_load_n(&storage._dictionaries[1], __ATOMIC_ACQUIRE) == nullptr;
}

CFTypeRef attachment(SVSampleBufferRef sbuf, CFStringRef key) noexcept {
    return CVBufferGetAttachment(reinterpret_cast<CVBufferRef>(sbuf), key, nullptr);
}

// A trim attachment: an SVTime dictionary; anything that does not make a
// valid time counts as zero.
SVTime readTrim(SVSampleBufferRef sbuf, CFStringRef key) noexcept {
    SVTime trim = SVTimeMakeFromDictionary(static_cast<CFDictionaryRef>(attachment(sbuf, key)));
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

Adjustments readAdjustments(SVSampleBufferRef sbuf) noexcept {
    if (hasNoAttachments(sbuf)) return kNoAdjustments;
    return {readTrim(sbuf, kSVSampleBufferAttachmentKey_TrimDurationAtStart),
            readTrim(sbuf, kSVSampleBufferAttachmentKey_TrimDurationAtEnd), readSpeed(sbuf),
            attachment(sbuf, kSVSampleBufferAttachmentKey_Reverse) == kCFBooleanTrue};
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
    if (hasNoAttachments(sbuf)) return bufferOutputPresentation(sbuf, kNoAdjustments);
    Adjustments adjust{};
    adjust.trimAtStart = readTrim(sbuf, kSVSampleBufferAttachmentKey_TrimDurationAtStart);
    adjust.reverse = attachment(sbuf, kSVSampleBufferAttachmentKey_Reverse) == kCFBooleanTrue;
    if (adjust.reverse) adjust.trimAtEnd = readTrim(sbuf, kSVSampleBufferAttachmentKey_TrimDurationAtEnd);
    return bufferOutputPresentation(sbuf, adjust);
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
    const Adjustments adjust = readAdjustments(sbuf);
    // For the image kind the buffer-wide decode time is its inline one.
    return outputDecode(adjust, bufferOutputPresentation(sbuf, adjust), SVSampleBufferGetPresentationTimeStamp(sbuf),
                        SVSampleBufferGetDecodeTimeStamp(sbuf));
}

SVTime SVSampleBufferGetOutputDuration(SVSampleBufferRef sbuf) noexcept {
    if (!isUsable(sbuf)) return kInvalid;
    if (hasNoAttachments(sbuf)) return outputDuration(kNoAdjustments, SVSampleBufferGetDuration(sbuf));
    Adjustments adjust{};
    adjust.speed = readSpeed(sbuf);
    if (adjust.speed.isZero) return kInvalid;
    adjust.trimAtStart = readTrim(sbuf, kSVSampleBufferAttachmentKey_TrimDurationAtStart);
    adjust.trimAtEnd = readTrim(sbuf, kSVSampleBufferAttachmentKey_TrimDurationAtEnd);
    return outputDuration(adjust, SVSampleBufferGetDuration(sbuf));
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
    const Adjustments adjust = readAdjustments(sbuf);
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
