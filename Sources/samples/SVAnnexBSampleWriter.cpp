// SPDX-License-Identifier: Apache-2.0
// The Annex B sample writer: rewrites the length-prefixed units of an
// 'avc1'/'hvc1' sample buffer as Annex B.  It measures first and writes
// second, so the caller's allocator is asked once for the exact size.  Its
// log lines keep the bytes module's source path, which they have always
// carried.

#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVSampleBuffer.h>

#include <cstring>

#include "bitstream/_SVUtilitiesInternal.h"
#include "core/SVLog.h"
#include "samples/SVSampleBufferInternal.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/_SVUtilities");

using sorvel::kFourByteStartCode;
using sorvel::walkLengthPrefixed;

constexpr OSStatus kInvalidParameter = kSVFormatDescriptionError_InvalidParameter;
constexpr OSStatus kAllocationFailed = kSVFormatDescriptionError_AllocationFailed;

constexpr FourCharCode kAVC1 = 0x61766331;  // 'avc1'
constexpr FourCharCode kHVC1 = 0x68766331;  // 'hvc1'

// The parameter-set getter of the description's codec.
OSStatus parameterSetAtIndex(SVFormatDescriptionRef desc, FourCharCode subtype, size_t index, const uint8_t **bytesOut,
                             size_t *sizeOut, size_t *countOut, int *headerLengthOut) noexcept {
    if (subtype == kHVC1)
        return SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(desc, index, bytesOut, sizeOut, countOut,
                                                                  headerLengthOut);
    return SVVideoFormatDescriptionGetH264ParameterSetAtIndex(desc, index, bytesOut, sizeOut, countOut,
                                                              headerLengthOut);
}

bool isNotSync(SVSampleBufferRef sbuf) noexcept {
    CFArrayRef attachments = SVSampleBufferGetSampleAttachmentsArray(sbuf, false);
    if (!attachments || CFArrayGetCount(attachments) < 1) return false;
    CFTypeRef first = CFArrayGetValueAtIndex(attachments, 0);
    if (!first || CFGetTypeID(first) != CFDictionaryGetTypeID()) return false;
    CFTypeRef notSync = CFDictionaryGetValue(static_cast<CFDictionaryRef>(first), kSVSampleAttachmentKey_NotSync);
    return notSync && CFGetTypeID(notSync) == CFBooleanGetTypeID() &&
           CFBooleanGetValue(static_cast<CFBooleanRef>(notSync));
}

// Both entry points: `allocate(size)` is the caller's block or function.
template <typename Allocate>
OSStatus writeAnnexB(const char *kFunction, SVSampleBufferRef sampleBuffer, int32_t includeParameterSets,
                     const uint8_t *nalTypesToSkip, size_t skipCount, Allocate &&allocator) noexcept {
    if (!sorvel::gSVSampleBufferClass.checked(sampleBuffer)) return kInvalidParameter;
    SVFormatDescriptionRef desc = SVSampleBufferGetFormatDescription(sampleBuffer);
    const FourCharCode subtype = desc ? SVFormatDescriptionGetMediaSubType(desc) : 0;
    if (subtype != kAVC1 && subtype != kHVC1) return kInvalidParameter;
    const bool sync = !isNotSync(sampleBuffer);

    SVBlockBufferRef dataBuffer = SVSampleBufferGetDataBuffer(sampleBuffer);
    char *bytes = nullptr;
    if (!dataBuffer || SVBlockBufferGetDataPointer(dataBuffer, 0, nullptr, nullptr, &bytes) != 0 || !bytes) {
        SV_LOG_FOR(kFunction, 3, "Unable to get input data");
        return kInvalidParameter;
    }
    const size_t length = SVBlockBufferGetDataLength(dataBuffer);
    if (!SVBlockBufferIsRangeContiguous(dataBuffer, 0, length)) {
        SV_LOG_FOR(kFunction, 3, "Non-contiguous block buffers not yet supported");
        return kInvalidParameter;
    }
    const uint8_t *input = reinterpret_cast<const uint8_t *>(bytes);

    int headerLength = 0;
    parameterSetAtIndex(desc, subtype, 0, nullptr, nullptr, nullptr, &headerLength);

    bool skip[32] = {};
    for (size_t i = 0; nalTypesToSkip && i < skipCount; ++i)
        if (nalTypesToSkip[i] < 32) skip[nalTypesToSkip[i]] = true;

    uint8_t *out = nullptr;
    size_t total = 0;
    for (int pass = 0; pass < 2; ++pass) {
        if (pass == 1) {
            out = static_cast<uint8_t *>(allocator(total));
            if (!out) return kAllocationFailed;
        }
        if (includeParameterSets == 1 && sync) {
            size_t count = 0;
            OSStatus status = parameterSetAtIndex(desc, subtype, 0, nullptr, nullptr, &count, nullptr);
            if (status != 0) {
                SV_LOG_STATUS_FOR(kFunction, 3, status, "Failed to get format description's parameter sets: %s");
                return status;
            }
            for (size_t i = 0; i < count; ++i) {
                const uint8_t *set = nullptr;
                size_t setSize = 0;
                status = parameterSetAtIndex(desc, subtype, i, &set, &setSize, nullptr, nullptr);
                if (status != 0) {
                    SV_LOG_STATUS_FOR(kFunction, 3, status, "Failed to get format description's parameter sets: %s");
                    return status;
                }
                if (pass == 0) {
                    total += 4 + setSize;
                } else {
                    std::memcpy(out, kFourByteStartCode, 4);
                    if (setSize) std::memcpy(out + 4, set, setSize);
                    out += 4 + setSize;
                }
            }
        }
        const size_t prefix = headerLength > 0 ? static_cast<size_t>(headerLength) : 0;
        walkLengthPrefixed(input, length, headerLength, [&](const uint8_t *unit, size_t size) {
            const size_t payload = size - prefix;
            if (payload == 0 || skip[unit[prefix] & 0x1F]) return;
            if (pass == 0) {
                total += payload + 4;
            } else {
                std::memcpy(out, kFourByteStartCode, 4);
                std::memcpy(out + 4, unit + prefix, payload);
                out += payload + 4;
            }
        });
    }
    return 0;
}

}  // namespace

extern "C" {

OSStatus _SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer(SVSampleBufferRef sampleBuffer, int32_t includeParameterSets,
                                                        const uint8_t *nalTypesToSkip, size_t skipCount,
                                                        SVSampleBufferPacketAllocator allocator) noexcept {
    if (!allocator) return kInvalidParameter;
    return writeAnnexB(__func__, sampleBuffer, includeParameterSets, nalTypesToSkip, skipCount,
                       [allocator](size_t size) { return allocator(size); });
}

OSStatus SVSampleBufferWriteAnnexB(SVSampleBufferRef sampleBuffer, Boolean includeParameterSets,
                                   const uint8_t *nalTypesToSkip, size_t skipCount,
                                   SVSampleBufferPacketAllocatorFunction allocate, void *refcon) noexcept {
    if (!allocate) return kInvalidParameter;
    return writeAnnexB(__func__, sampleBuffer, includeParameterSets ? 1 : 0, nalTypesToSkip, skipCount,
                       [allocate, refcon](size_t size) { return allocate(size, refcon); });
}

}  // extern "C"
