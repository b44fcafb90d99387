// SPDX-License-Identifier: Apache-2.0
// Sample buffers: the object, its creation, readiness and invalidation, the
// plain getters and buffer-wide timing, and the per-sample attachments
// array.
//
// Readiness is shared along a chain: a buffer that tracks another (every
// copy tracks its source) asks the buffer it tracks, and so on to the last
// buffer of the chain, the "deciding" buffer, whose flags answer.  Nothing
// here takes a lock; a sample buffer is not to be changed from two threads
// at once.

#include <Block.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVSampleBuffer.h>

#include <cstring>

#include "core/SVLog.h"
#include "core/SVObject.h"
#include "samples/SVSampleBufferInternal.h"

namespace {

using sorvel::gSVSampleBufferClass;
using sorvel::SVSampleBufferBug;
using Buffer = OpaqueSVSampleBuffer;

Buffer *asBuffer(SVSampleBufferRef sbuf) noexcept {
    return reinterpret_cast<Buffer *>(sbuf);
}

void sampleBufferFinalize(CFTypeRef cf) noexcept;
CFStringRef sampleBufferCopyDebugDescription(CFTypeRef cf) noexcept;
CFStringRef sampleBufferCopyFormattingDescription(CFTypeRef cf, CFDictionaryRef) noexcept {
    return sampleBufferCopyDebugDescription(cf);
}

const CFRuntimeClass kSVSampleBufferClass = {
    0,
    "SVSampleBuffer",
    nullptr,
    nullptr,
    sampleBufferFinalize,
    nullptr,
    nullptr,
    sampleBufferCopyFormattingDescription,
    sampleBufferCopyDebugDescription,
};

void sampleBufferFinalize(CFTypeRef cf) noexcept {
    Buffer *sbuf = gSVSampleBufferClass.cast(cf);
    if (sbuf->formatDescription) CFRelease(sbuf->formatDescription);
    if (sbuf->dataOrImageBuffer) CFRelease(sbuf->dataOrImageBuffer);
    if (sbuf->invalidateHandler) _Block_release(sbuf->invalidateHandler);
    if (sbuf->trackedBuffer) CFRelease(sbuf->trackedBuffer);
    if (sbuf->sampleAttachmentsArray) CFRelease(sbuf->sampleAttachmentsArray);
    switch (sbuf->kind) {
        case kSVSampleBufferKind_DataBuffer: {
            CFAllocatorRef allocator = CFGetAllocator(cf);
            sorvel::SVSampleBufferFreeArray(allocator, sbuf->sampleTimingArray);
            sorvel::SVSampleBufferFreeArray(allocator, sbuf->sampleSizeArray);
            sorvel::SVSampleBufferFreeArray(allocator, sbuf->packetDescriptions);
            break;
        }
        case kSVSampleBufferKind_ImageBuffer:
            break;
        default:
            SVSampleBufferBug("_SVSampleBufferFinalize", __LINE__);
    }
    __CVBufferFinalize(cf);
}

// The buffer that decides readiness for `sbuf`: the last of its tracking
// chain.  A chain that loops back on itself never ends (the header says so).
Buffer *decidingBuffer(Buffer *sbuf) noexcept {
    while (sbuf->trackedBuffer) sbuf = asBuffer(sbuf->trackedBuffer);
    return sbuf;
}

void postNotification(CFStringRef name, Buffer *sbuf, CFDictionaryRef userInfo) noexcept {
    CFNotificationCenterPostNotification(CFNotificationCenterGetLocalCenter(), name, sbuf, userInfo, true);
}

// Marks the deciding buffer ready and tells the observers.
void becomeReady(Buffer *sbuf) noexcept {
    if (sbuf->dataReady) return;
    sbuf->dataReady = 1;
    postNotification(kSVSampleBufferNotification_DataBecameReady, sbuf, nullptr);
}

// The creation steps shared by both data-buffer creators.
// Objects of the lower families are checked by type too: one of another
// type is refused like a missing one instead of being kept and read later.
bool isNullOr(CFTypeRef cf, CFTypeID type) noexcept {
    return cf == nullptr || CFGetTypeID(cf) == type;
}

OSStatus createDataBuffer(CFAllocatorRef allocator, SVBlockBufferRef dataBuffer, Boolean dataReady,
                          SVSampleBufferMakeDataReadyCallback makeDataReadyCallback, void *makeDataReadyRefcon,
                          SVFormatDescriptionRef formatDescription, SVItemCount numSamples,
                          SVItemCount numSampleTimingEntries, const SVSampleTimingInfo *sampleTimingArray,
                          SVItemCount numSampleSizeEntries, const size_t *sampleSizeArray,
                          SVSampleBufferRef *sampleBufferOut) noexcept {
    if (!sampleBufferOut) return kSVSampleBufferError_RequiredParameterMissing;
    if (!isNullOr(dataBuffer, SVBlockBufferGetTypeID()) || !isNullOr(formatDescription, SVFormatDescriptionGetTypeID()))
        return kSVSampleBufferError_RequiredParameterMissing;
    // One entry stands for every sample; otherwise there must be one per
    // sample.
    if ((numSampleTimingEntries >= 2 && numSampleTimingEntries != numSamples) ||
        (numSampleSizeEntries >= 2 && numSampleSizeEntries != numSamples))
        return kSVSampleBufferError_InvalidEntryCount;

    SVSampleTimingInfo *timing = nullptr;
    if (numSampleTimingEntries != 0 && sampleTimingArray) {
        timing = static_cast<SVSampleTimingInfo *>(sorvel::SVSampleBufferCopyArray(
            allocator, sampleTimingArray, numSampleTimingEntries, sizeof(SVSampleTimingInfo)));
        if (!timing) return kSVSampleBufferError_AllocationFailed;
    }
    size_t *sizes = nullptr;
    if (numSampleSizeEntries != 0 && sampleSizeArray) {
        sizes = static_cast<size_t *>(
            sorvel::SVSampleBufferCopyArray(allocator, sampleSizeArray, numSampleSizeEntries, sizeof(size_t)));
        if (!sizes) {
            sorvel::SVSampleBufferFreeArray(allocator, timing);
            return kSVSampleBufferError_AllocationFailed;
        }
    }
    Buffer *sbuf = sorvel::SVSampleBufferAllocate(allocator);
    if (!sbuf) {
        sorvel::SVSampleBufferFreeArray(allocator, timing);
        sorvel::SVSampleBufferFreeArray(allocator, sizes);
        *sampleBufferOut = nullptr;
        return kSVSampleBufferError_AllocationFailed;
    }
    if (formatDescription) sbuf->formatDescription = static_cast<SVFormatDescriptionRef>(CFRetain(formatDescription));
    sbuf->kind = kSVSampleBufferKind_DataBuffer;
    sbuf->dataReady = dataReady ? 1 : 0;
    sbuf->makeDataReadyCallback = makeDataReadyCallback;
    sbuf->makeDataReadyRefcon = makeDataReadyRefcon;
    if (dataBuffer) sbuf->dataOrImageBuffer = CFRetain(dataBuffer);
    sbuf->numSamples = numSamples;
    // Counts are kept as given even without an array; readers test both.
    sbuf->numSampleTimingEntries = numSampleTimingEntries;
    sbuf->sampleTimingArray = timing;
    sbuf->numSampleSizeEntries = numSampleSizeEntries;
    sbuf->sampleSizeArray = sizes;
    *sampleBufferOut = reinterpret_cast<SVSampleBufferRef>(sbuf);
    return 0;
}

OSStatus createImageBuffer(CFAllocatorRef allocator, CVImageBufferRef imageBuffer, Boolean dataReady,
                           SVSampleBufferMakeDataReadyCallback makeDataReadyCallback, void *makeDataReadyRefcon,
                           SVVideoFormatDescriptionRef formatDescription, const SVSampleTimingInfo *sampleTiming,
                           SVSampleBufferRef *sampleBufferOut) noexcept {
    if (!sampleBufferOut) return kSVSampleBufferError_RequiredParameterMissing;
    if (!imageBuffer || !isNullOr(formatDescription, SVFormatDescriptionGetTypeID()) || !formatDescription ||
        !sampleTiming) {
        *sampleBufferOut = nullptr;
        return kSVSampleBufferError_RequiredParameterMissing;
    }
    Buffer *sbuf = sorvel::SVSampleBufferAllocate(allocator);
    if (!sbuf) {
        *sampleBufferOut = nullptr;
        return kSVSampleBufferError_AllocationFailed;
    }
    sbuf->formatDescription = static_cast<SVFormatDescriptionRef>(CFRetain(formatDescription));
    sbuf->dataOrImageBuffer = CFRetain(imageBuffer);
    sbuf->kind = kSVSampleBufferKind_ImageBuffer;
    sbuf->imageTiming = *sampleTiming;
    sbuf->dataReady = dataReady ? 1 : 0;
    sbuf->makeDataReadyCallback = makeDataReadyCallback;
    sbuf->makeDataReadyRefcon = makeDataReadyRefcon;
    *sampleBufferOut = reinterpret_cast<SVSampleBufferRef>(sbuf);
    return 0;
}

SVItemCount numSamplesOf(const Buffer *sbuf) noexcept {
    switch (sbuf->kind) {
        case kSVSampleBufferKind_DataBuffer:
            return sbuf->numSamples;
        case kSVSampleBufferKind_ImageBuffer:
            return 1;
        default:
            SVSampleBufferBug("SVSampleBufferGetNumSamples", __LINE__);
    }
}

CFStringRef sampleBufferCopyDebugDescription(CFTypeRef cf) noexcept {
    auto sbuf = static_cast<SVSampleBufferRef>(const_cast<void *>(cf));
    char subtype[XP_OSSTATUS_STRING_SIZE];
    _XPFormatOSStatus(
        subtype, static_cast<OSStatus>(SVFormatDescriptionGetMediaSubType(SVSampleBufferGetFormatDescription(sbuf))));
    return CFStringCreateWithFormat(
        nullptr, nullptr, CFSTR("<SVSampleBuffer %p [%ld sample(s) of %s, PTS %f DTS %f duration %f]>"), cf,
        static_cast<long>(SVSampleBufferGetNumSamples(sbuf)), subtype,
        SVTimeGetSeconds(SVSampleBufferGetPresentationTimeStamp(sbuf)),
        SVTimeGetSeconds(SVSampleBufferGetDecodeTimeStamp(sbuf)), SVTimeGetSeconds(SVSampleBufferGetDuration(sbuf)));
}

}  // namespace

namespace sorvel {

constinit SVRuntimeClass<OpaqueSVSampleBuffer> gSVSampleBufferClass{kSVSampleBufferClass};

OpaqueSVSampleBuffer *SVSampleBufferAllocate(CFAllocatorRef allocator) noexcept {
    // The runtime zero-fills the fields: empty attachment storage, every
    // flag clear, the output presentation time all zero.
    return gSVSampleBufferClass.create(allocator);
}

void *SVSampleBufferAllocateArray(CFAllocatorRef allocator, SVItemCount count, size_t elementSize) noexcept {
    if (count <= 0) return nullptr;
    size_t bytes;
    if (__builtin_mul_overflow(static_cast<size_t>(count), elementSize, &bytes) ||
        bytes > static_cast<size_t>(INTPTR_MAX))
        return nullptr;
    return CFAllocatorAllocate(allocator, static_cast<CFIndex>(bytes), 0);
}

void *SVSampleBufferCopyArray(CFAllocatorRef allocator, const void *source, SVItemCount count,
                              size_t elementSize) noexcept {
    if (!source) return nullptr;
    void *copy = SVSampleBufferAllocateArray(allocator, count, elementSize);
    if (copy) std::memcpy(copy, source, static_cast<size_t>(count) * elementSize);
    return copy;
}

void SVSampleBufferFreeArray(CFAllocatorRef allocator, void *array) noexcept {
    if (array) CFAllocatorDeallocate(allocator, array);
}

void SVSampleBufferApplyCopyRules(OpaqueSVSampleBuffer *copy, const OpaqueSVSampleBuffer *source) noexcept {
    copy->trackedBuffer = static_cast<SVSampleBufferRef>(const_cast<void *>(CFRetain(source)));
    if (source->formatDescription)
        copy->formatDescription = static_cast<SVFormatDescriptionRef>(CFRetain(source->formatDescription));
    copy->makeDataReadyCallback = source->makeDataReadyCallback;
    copy->makeDataReadyRefcon = source->makeDataReadyRefcon;
    copy->dataFailedStatus = source->dataFailedStatus;
    copy->outputPresentationTimeStamp = source->outputPresentationTimeStamp;
}

}  // namespace sorvel

// ==== The object and its creation ===========================================

CFTypeID SVSampleBufferGetTypeID(void) noexcept {
    return gSVSampleBufferClass.typeID();
}

OSStatus SVSampleBufferCreate(CFAllocatorRef allocator, SVBlockBufferRef dataBuffer, Boolean dataReady,
                              SVSampleBufferMakeDataReadyCallback makeDataReadyCallback, void *makeDataReadyRefcon,
                              SVFormatDescriptionRef formatDescription, SVItemCount numSamples,
                              SVItemCount numSampleTimingEntries, const SVSampleTimingInfo *sampleTimingArray,
                              SVItemCount numSampleSizeEntries, const size_t *sampleSizeArray,
                              SVSampleBufferRef *sampleBufferOut) noexcept {
    return createDataBuffer(allocator, dataBuffer, dataReady, makeDataReadyCallback, makeDataReadyRefcon,
                            formatDescription, numSamples, numSampleTimingEntries, sampleTimingArray,
                            numSampleSizeEntries, sampleSizeArray, sampleBufferOut);
}

OSStatus SVSampleBufferCreateReady(CFAllocatorRef allocator, SVBlockBufferRef dataBuffer,
                                   SVFormatDescriptionRef formatDescription, SVItemCount numSamples,
                                   SVItemCount numSampleTimingEntries, const SVSampleTimingInfo *sampleTimingArray,
                                   SVItemCount numSampleSizeEntries, const size_t *sampleSizeArray,
                                   SVSampleBufferRef *sampleBufferOut) noexcept {
    return createDataBuffer(allocator, dataBuffer, true, nullptr, nullptr, formatDescription, numSamples,
                            numSampleTimingEntries, sampleTimingArray, numSampleSizeEntries, sampleSizeArray,
                            sampleBufferOut);
}

OSStatus SVSampleBufferCreateForImageBuffer(CFAllocatorRef allocator, CVImageBufferRef imageBuffer, Boolean dataReady,
                                            SVSampleBufferMakeDataReadyCallback makeDataReadyCallback,
                                            void *makeDataReadyRefcon, SVVideoFormatDescriptionRef formatDescription,
                                            const SVSampleTimingInfo *sampleTiming,
                                            SVSampleBufferRef *sampleBufferOut) noexcept {
    return createImageBuffer(allocator, imageBuffer, dataReady, makeDataReadyCallback, makeDataReadyRefcon,
                             formatDescription, sampleTiming, sampleBufferOut);
}

OSStatus SVSampleBufferCreateReadyWithImageBuffer(CFAllocatorRef allocator, CVImageBufferRef imageBuffer,
                                                  SVVideoFormatDescriptionRef formatDescription,
                                                  const SVSampleTimingInfo *sampleTiming,
                                                  SVSampleBufferRef *sampleBufferOut) noexcept {
    return createImageBuffer(allocator, imageBuffer, true, nullptr, nullptr, formatDescription, sampleTiming,
                             sampleBufferOut);
}

// ==== Plain getters ==========================================================

Boolean SVSampleBufferIsValid(SVSampleBufferRef sbuf) noexcept {
    return gSVSampleBufferClass.checked(sbuf) && !asBuffer(sbuf)->invalidated;
}

SVFormatDescriptionRef SVSampleBufferGetFormatDescription(SVSampleBufferRef sbuf) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf) || asBuffer(sbuf)->invalidated) return nullptr;
    return asBuffer(sbuf)->formatDescription;
}

SVBlockBufferRef SVSampleBufferGetDataBuffer(SVSampleBufferRef sbuf) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf) || asBuffer(sbuf)->invalidated ||
        asBuffer(sbuf)->kind != kSVSampleBufferKind_DataBuffer)
        return nullptr;
    return static_cast<SVBlockBufferRef>(const_cast<void *>(asBuffer(sbuf)->dataOrImageBuffer));
}

CVImageBufferRef SVSampleBufferGetImageBuffer(SVSampleBufferRef sbuf) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf) || asBuffer(sbuf)->invalidated ||
        asBuffer(sbuf)->kind != kSVSampleBufferKind_ImageBuffer)
        return nullptr;
    return static_cast<CVImageBufferRef>(const_cast<void *>(asBuffer(sbuf)->dataOrImageBuffer));
}

SVItemCount SVSampleBufferGetNumSamples(SVSampleBufferRef sbuf) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf) || asBuffer(sbuf)->invalidated) return 0;
    return numSamplesOf(asBuffer(sbuf));
}

// ==== Buffer-wide timing =====================================================

SVTime SVSampleBufferGetPresentationTimeStamp(SVSampleBufferRef sbuf) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf) || asBuffer(sbuf)->invalidated) return kSVTimeInvalid;
    const Buffer *b = asBuffer(sbuf);
    switch (b->kind) {
        case kSVSampleBufferKind_ImageBuffer:
            return b->imageTiming.presentationTimeStamp;
        case kSVSampleBufferKind_DataBuffer: {
            const SVItemCount count = b->numSampleTimingEntries;
            if (!b->sampleTimingArray || (count != 1 && count != b->numSamples)) return kSVTimeInvalid;
            SVTime earliest = b->sampleTimingArray[0].presentationTimeStamp;
            for (SVItemCount i = 1; i < count; i++)
                earliest = SVTimeMinimum(earliest, b->sampleTimingArray[i].presentationTimeStamp);
            return earliest;
        }
        default:
            SVSampleBufferBug(__func__, __LINE__);
    }
}

SVTime SVSampleBufferGetDecodeTimeStamp(SVSampleBufferRef sbuf) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf) || asBuffer(sbuf)->invalidated) return kSVTimeInvalid;
    const Buffer *b = asBuffer(sbuf);
    switch (b->kind) {
        case kSVSampleBufferKind_ImageBuffer:
            return b->imageTiming.decodeTimeStamp;
        case kSVSampleBufferKind_DataBuffer:
            // The first entry's, not the least: decode order is array order.
            if (!b->sampleTimingArray || b->numSampleTimingEntries < 1) return kSVTimeInvalid;
            return b->sampleTimingArray[0].decodeTimeStamp;
        default:
            SVSampleBufferBug(__func__, __LINE__);
    }
}

SVTime SVSampleBufferGetDuration(SVSampleBufferRef sbuf) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf) || asBuffer(sbuf)->invalidated) return kSVTimeInvalid;
    const Buffer *b = asBuffer(sbuf);
    switch (b->kind) {
        case kSVSampleBufferKind_ImageBuffer:
            return b->imageTiming.duration;
        case kSVSampleBufferKind_DataBuffer: {
            const SVItemCount count = b->numSampleTimingEntries;
            // No timing at all is a known zero length, unlike a count that
            // does not fit the samples.
            if (count == 0) return kSVTimeZero;
            if (!b->sampleTimingArray) return kSVTimeInvalid;
            if (count == 1)
                return SVTimeMultiply(b->sampleTimingArray[0].duration, static_cast<int32_t>(b->numSamples));
            if (count != b->numSamples) return kSVTimeInvalid;
            SVTime total = b->sampleTimingArray[0].duration;
            for (SVItemCount i = 1; i < count; i++) total = SVTimeAdd(total, b->sampleTimingArray[i].duration);
            return total;
        }
        default:
            SVSampleBufferBug(__func__, __LINE__);
    }
}

// ==== Data buffer, readiness and failure =====================================

OSStatus SVSampleBufferSetDataBuffer(SVSampleBufferRef sbuf, SVBlockBufferRef dataBuffer) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf) || !dataBuffer || !isNullOr(dataBuffer, SVBlockBufferGetTypeID()))
        return kSVSampleBufferError_RequiredParameterMissing;
    Buffer *b = asBuffer(sbuf);
    if (b->invalidated) return kSVSampleBufferError_Invalidated;
    if (b->kind != kSVSampleBufferKind_DataBuffer) return kSVSampleBufferError_InvalidMediaTypeForOperation;
    if (b->dataOrImageBuffer) return kSVSampleBufferError_AlreadyHasDataBuffer;
    b->dataOrImageBuffer = CFRetain(dataBuffer);
    return 0;
}

Boolean SVSampleBufferDataIsReady(SVSampleBufferRef sbuf) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf)) return false;
    const Buffer *deciding = decidingBuffer(asBuffer(sbuf));
    return !deciding->invalidated && deciding->dataReady;
}

OSStatus SVSampleBufferSetDataReady(SVSampleBufferRef sbuf) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf)) return kSVSampleBufferError_RequiredParameterMissing;
    Buffer *b = asBuffer(sbuf);
    if (b->invalidated) return kSVSampleBufferError_Invalidated;
    // This buffer's own flag: a tracking chain is not followed.
    becomeReady(b);
    return 0;
}

OSStatus SVSampleBufferMakeDataReady(SVSampleBufferRef sbuf) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf)) return kSVSampleBufferError_RequiredParameterMissing;
    Buffer *deciding = decidingBuffer(asBuffer(sbuf));
    if (deciding->invalidated) return kSVSampleBufferError_Invalidated;
    if (deciding->dataReady) return 0;
    if (!deciding->makeDataReadyCallback) return kSVSampleBufferError_BufferNotReady;
    // The callback may drop the last outside reference to the buffer it is
    // handed; keep it alive until its flags are settled.
    sorvel::SVRetained<CFTypeRef> keepAlive(CFRetain(deciding));
    OSStatus status =
        deciding->makeDataReadyCallback(reinterpret_cast<SVSampleBufferRef>(deciding), deciding->makeDataReadyRefcon);
    if (status != 0) return status;
    // Invalidated while the callback ran: the data is of no use any more.
    if (deciding->invalidated) return 0;
    becomeReady(deciding);
    return 0;
}

OSStatus SVSampleBufferTrackDataReadiness(SVSampleBufferRef sbuf, SVSampleBufferRef sbufToTrack) noexcept {
    if (!gSVSampleBufferClass.checked(sbufToTrack)) return kSVSampleBufferError_RequiredParameterMissing;
    if (!gSVSampleBufferClass.checked(sbuf)) return 0;
    // A buffer tracked before is deliberately not released: whoever asked
    // about readiness through it may still be relying on it being alive.
    asBuffer(sbuf)->trackedBuffer = static_cast<SVSampleBufferRef>(const_cast<void *>(CFRetain(sbufToTrack)));
    return 0;
}

OSStatus SVSampleBufferSetDataFailed(SVSampleBufferRef sbuf, OSStatus status) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf)) return 0;
    Buffer *b = asBuffer(sbuf);
    b->dataFailedStatus = status;
    if (status != 0) {
        sorvel::SVRetained<CFNumberRef> number(CFNumberCreate(nullptr, kCFNumberSInt32Type, &status));
        sorvel::SVRetained<CFDictionaryRef> userInfo;
        if (number) {
            const void *keys[] = {kSVSampleBufferNotificationParameter_OSStatus};
            const void *values[] = {number.get()};
            userInfo.reset(CFDictionaryCreate(nullptr, keys, values, 1, &kCFTypeDictionaryKeyCallBacks,
                                              &kCFTypeDictionaryValueCallBacks));
        }
        postNotification(kSVSampleBufferNotification_DataFailed, b, userInfo.get());
    }
    return 0;
}

Boolean SVSampleBufferHasDataFailed(SVSampleBufferRef sbuf, OSStatus *statusOut) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf)) return false;
    OSStatus status = asBuffer(sbuf)->dataFailedStatus;
    if (status == 0) return false;
    if (statusOut) *statusOut = status;
    return true;
}

// ==== Invalidation ===========================================================

uint64_t sorvel::gSVSampleBufferInvalidations = 0;

OSStatus SVSampleBufferInvalidate(SVSampleBufferRef sbuf) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf)) return kSVSampleBufferError_RequiredParameterMissing;
    Buffer *b = asBuffer(sbuf);
    // A second call, also one made by the handler itself, finds the buffer
    // invalidated: the handler runs at most once.
    if (b->invalidated || b->invalidating) return kSVSampleBufferError_Invalidated;
    // The handler may replace itself or drop the last outside reference to
    // the buffer while it runs; hold on to both until the flag is set.
    sorvel::SVRetained<CFTypeRef> keepAlive;
    if (b->invalidateHandler) {
        b->invalidating = 1;
        keepAlive.reset(CFRetain(b));
        auto handler = reinterpret_cast<SVSampleBufferInvalidateHandler>(_Block_copy(b->invalidateHandler));
        handler(sbuf);
        _Block_release(reinterpret_cast<const void *>(handler));
        b->invalidating = 0;
    }
    b->invalidated = 1;
    __atomic_fetch_add(&sorvel::gSVSampleBufferInvalidations, 1, __ATOMIC_RELEASE);
    return 0;
}

OSStatus SVSampleBufferSetInvalidateHandler(SVSampleBufferRef sbuf,
                                            SVSampleBufferInvalidateHandler invalidateHandler) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf)) return kSVSampleBufferError_RequiredParameterMissing;
    Buffer *b = asBuffer(sbuf);
    if (b->invalidated) return kSVSampleBufferError_Invalidated;
    // Copy first: the new handler may be the one already installed.
    void *copy = invalidateHandler ? _Block_copy(reinterpret_cast<const void *>(invalidateHandler)) : nullptr;
    if (b->invalidateHandler) _Block_release(b->invalidateHandler);
    b->invalidateHandler = copy;
    return 0;
}

OSStatus SVSampleBufferSetInvalidateCallback(SVSampleBufferRef sbuf,
                                             SVSampleBufferInvalidateCallback invalidateCallback,
                                             uint64_t invalidateRefCon) noexcept {
    if (!gSVSampleBufferClass.checked(sbuf)) return kSVSampleBufferError_RequiredParameterMissing;
    if (!invalidateCallback) return SVSampleBufferSetInvalidateHandler(sbuf, nullptr);
    return SVSampleBufferSetInvalidateHandler(sbuf, ^(SVSampleBufferRef buffer) {
      invalidateCallback(buffer, invalidateRefCon);
    });
}

// ==== Per-sample attachments =================================================

CFArrayRef SVSampleBufferGetSampleAttachmentsArray(SVSampleBufferRef sbuf, Boolean createIfNecessary) noexcept {
    // Invalidation is deliberately not checked: the samples' attachments
    // live until finalization like their data.
    if (!gSVSampleBufferClass.checked(sbuf)) return nullptr;
    Buffer *b = asBuffer(sbuf);
    if (b->sampleAttachmentsArray || !createIfNecessary) return b->sampleAttachmentsArray;
    SVItemCount count;
    switch (b->kind) {
        case kSVSampleBufferKind_DataBuffer:
            if (b->numSamples <= 0) return nullptr;
            count = b->numSamples;
            break;
        case kSVSampleBufferKind_ImageBuffer:
            count = 1;
            break;
        default:
            SVSampleBufferBug(__func__, __LINE__);
    }
    sorvel::SVRetained<CFMutableArrayRef> array(CFArrayCreateMutable(nullptr, count, &kCFTypeArrayCallBacks));
    if (!array) return nullptr;
    for (SVItemCount i = 0; i < count; i++) {
        sorvel::SVRetained<CFMutableDictionaryRef> dictionary(
            CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
        if (!dictionary) return nullptr;
        CFArrayAppendValue(array.get(), dictionary.get());
    }
    // The array itself is fixed; clients change the dictionaries in place.
    b->sampleAttachmentsArray = CFArrayCreateCopy(nullptr, array.get());
    return b->sampleAttachmentsArray;
}
