// SPDX-License-Identifier: Apache-2.0
// Audio format descriptions: creation, the PCM summary of several
// descriptions, the payload getters, audio equality, and the format-list
// queries answered by the platform's audio-format service.
//
// Audio log lines carry an empty source path, as every audio
// format-description site always has.

#include <Sorvel/SVFormatDescription.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>

#include "core/SVLog.h"
#include "formats/SVFormatDescriptionInternal.h"

namespace {

SV_LOG_MODULE("");

constexpr uint32_t kItemSize = sizeof(AudioFormatListItem);
// A layout record: the three header words and room for one channel
// description.
constexpr uint32_t kLayoutRecordSize = sizeof(AudioChannelLayout);
constexpr uint32_t kLayoutHeaderSize = offsetof(AudioChannelLayout, mChannelDescriptions);
constexpr uint32_t kChannelDescriptionSize = sizeof(AudioChannelDescription);
static_assert(kLayoutRecordSize == 32 && kLayoutHeaderSize == 12 && kChannelDescriptionSize == 20);

bool isAudio(SVFormatDescriptionRef desc) {
    return sorvel::gSVFormatDescriptionClass.checked(desc) && desc->mediaType == kSVMediaType_Audio;
}

uint32_t readWord(const uint8_t *bytes, uint64_t offset) {
    uint32_t word;
    std::memcpy(&word, bytes + offset, sizeof word);
    return word;
}

bool streamDescriptionsMatch(const AudioStreamBasicDescription &a, const AudioStreamBasicDescription &b) {
    return std::fabs(a.mSampleRate - b.mSampleRate) < static_cast<double>(FLT_EPSILON) && a.mFormatID == b.mFormatID &&
           a.mFormatFlags == b.mFormatFlags && a.mBytesPerPacket == b.mBytesPerPacket &&
           a.mFramesPerPacket == b.mFramesPerPacket && a.mBytesPerFrame == b.mBytesPerFrame &&
           a.mChannelsPerFrame == b.mChannelsPerFrame && a.mBitsPerChannel == b.mBitsPerChannel;
}

bool channelDescriptionsMatch(const uint8_t *a, const uint8_t *b, uint64_t offset) {
    if (readWord(a, offset) != readWord(b, offset) || readWord(a, offset + 4) != readWord(b, offset + 4)) return false;
    for (uint64_t k = 8; k < kChannelDescriptionSize; k += 4) {
        float x, y;
        std::memcpy(&x, a + offset + k, sizeof x);
        std::memcpy(&y, b + offset + k, sizeof y);
        if (!(std::fabs(x - y) < FLT_EPSILON)) return false;  // NaN never matches
    }
    return true;
}

// Two layouts of `size` bytes each.  The walk visits record i at byte 32 * i
// for i up to (size - 32) / 20 (a count that wraps for layouts shorter than
// a record): a record whose tag, bitmap and description count agree and
// whose count is not zero has that many descriptions compared from byte 12
// of the record.  The tag only gates the comparison.  Every read is bounded
// by the size: a record whose header does not fit ends the walk, and
// descriptions that would run past the end are not compared.
bool channelLayoutsMatch(const uint8_t *a, const uint8_t *b, uint32_t size) {
    const uint32_t lastRecord = (size - kLayoutRecordSize) / kChannelDescriptionSize;
    for (uint64_t i = 0; i <= lastRecord; ++i) {
        const uint64_t record = uint64_t{kLayoutRecordSize} * i;
        if (record + kLayoutHeaderSize > size) break;
        const uint32_t count = readWord(a, record + 8);
        if (readWord(a, record) != readWord(b, record) || readWord(a, record + 4) != readWord(b, record + 4) ||
            count != readWord(b, record + 8) || count == 0)
            continue;
        for (uint64_t d = 0; d < count; ++d) {
            const uint64_t offset = record + kLayoutHeaderSize + d * kChannelDescriptionSize;
            if (offset + kChannelDescriptionSize > size) break;
            if (!channelDescriptionsMatch(a, b, offset)) return false;
        }
    }
    return true;
}

// Bytes from the description's own allocator, for payload copies.
void *allocatePayload(SVFormatDescriptionRef desc, size_t size) {
    return CFAllocatorAllocate(CFGetAllocator(desc), static_cast<CFIndex>(size), 0);
}

}  // namespace

extern "C" {

OSStatus SVAudioFormatDescriptionCreate(CFAllocatorRef allocator, const AudioStreamBasicDescription *asbd,
                                        size_t layoutSize, const AudioChannelLayout *layout, size_t magicCookieSize,
                                        const void *magicCookie, CFDictionaryRef extensions,
                                        SVAudioFormatDescriptionRef *formatDescriptionOut) noexcept {
    if (!asbd) {
        SV_LOG_HERE(3, "Missing AudioStreamBasicDescription in SVAudioFormatDescriptionCreate");
        return kSVFormatDescriptionError_InvalidParameter;
    }
    if (!formatDescriptionOut) return kSVFormatDescriptionError_InvalidParameter;
    *formatDescriptionOut = nullptr;
    // The payload stores 32-bit sizes; and a layout size promises bytes to copy.
    if (layoutSize > std::numeric_limits<uint32_t>::max() || magicCookieSize > std::numeric_limits<uint32_t>::max() ||
        (layoutSize > 0 && !layout)) {
        SV_LOG_HERE(3, "Invalid channel layout or magic cookie size in SVAudioFormatDescriptionCreate");
        return kSVFormatDescriptionError_InvalidParameter;
    }
    sorvel::SVRetained<SVFormatDescriptionRef> desc(
        sorvel::SVFormatDescriptionCreateInstance(allocator, kSVMediaType_Audio, asbd->mFormatID, extensions));
    if (!desc) return kSVFormatDescriptionError_AllocationFailed;
    SVAudioPayload &audio = sorvel::SVFormatDescriptionMutable(desc.get())->audio;
    audio.asbd = *asbd;
    if (layoutSize > 0) {
        audio.layout = static_cast<AudioChannelLayout *>(allocatePayload(desc.get(), layoutSize));
        if (!audio.layout) return kSVFormatDescriptionError_AllocationFailed;
        std::memcpy(audio.layout, layout, layoutSize);
        audio.layoutSize = static_cast<uint32_t>(layoutSize);
    }
    // A NULL cookie keeps its size: callers may describe a cookie they do
    // not hand over.
    audio.cookieSize = static_cast<uint32_t>(magicCookieSize);
    if (magicCookie && magicCookieSize > 0) {
        audio.cookie = allocatePayload(desc.get(), magicCookieSize);
        if (!audio.cookie) return kSVFormatDescriptionError_AllocationFailed;
        std::memcpy(audio.cookie, magicCookie, magicCookieSize);
    }
    *formatDescriptionOut = desc.release();
    return 0;
}

OSStatus SVAudioFormatDescriptionCreateSummary(CFAllocatorRef allocator, CFArrayRef formatDescriptionArray,
                                               uint32_t flags,
                                               SVAudioFormatDescriptionRef *formatDescriptionOut) noexcept {
    (void)flags;
    if (!formatDescriptionArray || CFGetTypeID(formatDescriptionArray) != CFArrayGetTypeID())
        return kSVFormatDescriptionError_InvalidParameter;
    AudioStreamBasicDescription summary = {};
    summary.mFormatID = kAudioFormatLinearPCM;
    summary.mFramesPerPacket = 1;
    // Flags stay 0: the summary says how much room samples need, not how
    // they are coded.
    const CFTypeID typeID = SVFormatDescriptionGetTypeID();
    const CFIndex count = CFArrayGetCount(formatDescriptionArray);
    for (CFIndex i = 0; i < count; ++i) {
        auto element = static_cast<SVFormatDescriptionRef>(CFArrayGetValueAtIndex(formatDescriptionArray, i));
        if (!element || CFGetTypeID(element) != typeID || element->mediaType != kSVMediaType_Audio)
            return kSVFormatDescriptionError_InvalidParameter;
        const AudioStreamBasicDescription &asbd = element->audio.asbd;
        if (asbd.mSampleRate > summary.mSampleRate) summary.mSampleRate = asbd.mSampleRate;
        if (asbd.mChannelsPerFrame > summary.mChannelsPerFrame) summary.mChannelsPerFrame = asbd.mChannelsPerFrame;
        if (asbd.mBitsPerChannel > summary.mBitsPerChannel) summary.mBitsPerChannel = asbd.mBitsPerChannel;
    }
    summary.mBytesPerFrame = (summary.mChannelsPerFrame * summary.mBitsPerChannel) >> 3;
    summary.mBytesPerPacket = summary.mBytesPerFrame;
    return SVAudioFormatDescriptionCreate(allocator, &summary, 0, nullptr, 0, nullptr, nullptr, formatDescriptionOut);
}

const AudioStreamBasicDescription *SVAudioFormatDescriptionGetStreamBasicDescription(
    SVAudioFormatDescriptionRef desc) noexcept {
    return isAudio(desc) ? &desc->audio.asbd : nullptr;
}

const AudioChannelLayout *SVAudioFormatDescriptionGetChannelLayout(SVAudioFormatDescriptionRef desc,
                                                                   size_t *sizeOut) noexcept {
    const bool audio = isAudio(desc);
    if (sizeOut) *sizeOut = audio ? desc->audio.layoutSize : 0;
    return audio ? desc->audio.layout : nullptr;
}

const void *SVAudioFormatDescriptionGetMagicCookie(SVAudioFormatDescriptionRef desc, size_t *sizeOut) noexcept {
    const bool audio = isAudio(desc);
    if (sizeOut) *sizeOut = audio ? desc->audio.cookieSize : 0;
    return audio ? desc->audio.cookie : nullptr;
}

const AudioFormatListItem *SVAudioFormatDescriptionGetFormatList(SVAudioFormatDescriptionRef desc,
                                                                 size_t *formatListSizeOut) noexcept {
    if (!isAudio(desc)) return nullptr;
    SVAudioPayload &audio = sorvel::SVFormatDescriptionMutable(desc)->audio;
    if (AudioFormatListItem *cached = __atomic_load_n(&audio.formatList, __ATOMIC_ACQUIRE)) {
        if (formatListSizeOut) *formatListSizeOut = __atomic_load_n(&audio.formatListSize, __ATOMIC_RELAXED);
        return cached;
    }

    AudioFormatInfo info = {};
    info.mASBD = audio.asbd;
    info.mMagicCookie = audio.cookie;
    info.mMagicCookieSize = audio.cookieSize;
    UInt32 size = 0;
    OSStatus status = AudioFormatGetPropertyInfo(kAudioFormatProperty_FormatList, sizeof info, &info, &size);
    if (status != 0) {
        SV_LOG_STATUS_HERE(3, status, "Failed to get property size for kAudioFormatProperty_FormatList: %s");
        return nullptr;
    }
    auto *list = static_cast<AudioFormatListItem *>(allocatePayload(desc, size));
    if (!list) return nullptr;
    std::memset(list, 0, size);
    UInt32 fetched = size;
    status = AudioFormatGetProperty(kAudioFormatProperty_FormatList, sizeof info, &info, &fetched, list);
    // The buffer becomes the cache even when the fetch failed, so a later
    // query answers with it (zero-filled) rather than asking again.
    // Concurrent first queries race to publish; the loser frees its copy.
    const uint32_t cachedSize = status == 0 ? fetched : size;
    __atomic_store_n(&audio.formatListSize, cachedSize, __ATOMIC_RELAXED);
    AudioFormatListItem *expected = nullptr;
    if (!__atomic_compare_exchange_n(&audio.formatList, &expected, list, false, __ATOMIC_RELEASE, __ATOMIC_ACQUIRE)) {
        CFAllocatorDeallocate(CFGetAllocator(desc), list);
        list = expected;
    }
    if (status != 0) {
        SV_LOG_STATUS_HERE(3, status, "Failed to get property data for kAudioFormatProperty_FormatList: %s");
        return nullptr;
    }
    if (formatListSizeOut) *formatListSizeOut = __atomic_load_n(&audio.formatListSize, __ATOMIC_RELAXED);
    return list;
}

const AudioFormatListItem *SVAudioFormatDescriptionGetMostCompatibleFormat(SVAudioFormatDescriptionRef desc) noexcept {
    size_t size = 0;
    const AudioFormatListItem *list = SVAudioFormatDescriptionGetFormatList(desc, &size);
    if (!list || size < kItemSize) return nullptr;
    return reinterpret_cast<const AudioFormatListItem *>(reinterpret_cast<const uint8_t *>(list) +
                                                         (size / kItemSize - 1) * kItemSize);
}

const AudioFormatListItem *SVAudioFormatDescriptionGetRichestDecodableFormat(
    SVAudioFormatDescriptionRef desc) noexcept {
    size_t size = 0;
    const AudioFormatListItem *list = SVAudioFormatDescriptionGetFormatList(desc, &size);
    if (!list || size == 0) return nullptr;
    UInt32 index = 0;
    UInt32 indexSize = sizeof index;
    OSStatus status = AudioFormatGetProperty(kAudioFormatProperty_FirstPlayableFormatFromList,
                                             static_cast<UInt32>(size), list, &indexSize, &index);
    if (status != 0) {
        SV_LOG_STATUS_HERE(3, status,
                           "Failed to retrieve kAudioFormatProperty_FirstPlayableFormatFromList for format list: %s");
        return nullptr;
    }
    // The service answers within the list; the bound only guards against a
    // service that does not.
    if (index >= size / kItemSize) return nullptr;
    return reinterpret_cast<const AudioFormatListItem *>(reinterpret_cast<const uint8_t *>(list) +
                                                         size_t{index} * kItemSize);
}

Boolean SVAudioFormatDescriptionEqual(SVAudioFormatDescriptionRef desc1, SVAudioFormatDescriptionRef desc2,
                                      SVAudioFormatDescriptionMask equalityMask,
                                      SVAudioFormatDescriptionMask *equalityMaskOut) noexcept {
    if (desc1 == desc2) {
        if (equalityMaskOut) *equalityMaskOut = equalityMask;
        return true;
    }
    if (!isAudio(desc1) || !isAudio(desc2) || desc1->mediaSubType != desc2->mediaSubType) {
        if (equalityMaskOut) *equalityMaskOut = 0;
        return false;
    }
    const SVAudioPayload &a = desc1->audio;
    const SVAudioPayload &b = desc2->audio;
    SVAudioFormatDescriptionMask result = 0;
    if ((equalityMask & kSVAudioFormatDescriptionMask_StreamBasicDescription) &&
        streamDescriptionsMatch(a.asbd, b.asbd))
        result |= kSVAudioFormatDescriptionMask_StreamBasicDescription;
    if ((equalityMask & kSVAudioFormatDescriptionMask_ChannelLayout) && a.layoutSize == b.layoutSize &&
        (a.layoutSize == 0 || channelLayoutsMatch(reinterpret_cast<const uint8_t *>(a.layout),
                                                  reinterpret_cast<const uint8_t *>(b.layout), a.layoutSize)))
        result |= kSVAudioFormatDescriptionMask_ChannelLayout;
    if ((equalityMask & kSVAudioFormatDescriptionMask_MagicCookie) && a.cookieSize == b.cookieSize &&
        (a.cookie == b.cookie || (a.cookie && b.cookie && std::memcmp(a.cookie, b.cookie, a.cookieSize) == 0)))
        result |= kSVAudioFormatDescriptionMask_MagicCookie;
    if ((equalityMask & kSVAudioFormatDescriptionMask_Extensions) &&
        (desc1->extensions == desc2->extensions ||
         (desc1->extensions && desc2->extensions && CFEqual(desc1->extensions, desc2->extensions))))
        result |= kSVAudioFormatDescriptionMask_Extensions;
    if (equalityMaskOut) *equalityMaskOut = result;
    return result == equalityMask;
}

}  // extern "C"
