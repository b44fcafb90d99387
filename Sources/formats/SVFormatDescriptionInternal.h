/* SPDX-License-Identifier: Apache-2.0 */
// Private to the format-description family: the instance layout shared by
// the core, audio, text and (later) video modules, and the helpers they use
// to make and fill instances.
#ifndef SORVEL_SOURCES_SVFORMATDESCRIPTIONINTERNAL_H
#define SORVEL_SOURCES_SVFORMATDESCRIPTIONINTERNAL_H

#include <Sorvel/SVFormatDescription.h>

#include <cstddef>
#include <cstdint>

#include "core/SVObject.h"

// Payload of 'soun' descriptions.  The layout, cookie and format list are
// allocated with the description's allocator and freed by finalize.
struct SVAudioPayload {
    AudioStreamBasicDescription asbd;
    uint32_t layoutSize;
    AudioChannelLayout *layout;  // NULL when layoutSize is 0
    uint32_t cookieSize;         // kept as given even when cookie is NULL
    void *cookie;
    // The format list, filled on the first query.  Both fields are accessed
    // atomically: the size is stored before the pointer is published with
    // release order, so a reader that sees the pointer sees its size.
    AudioFormatListItem *formatList;
    uint32_t formatListSize;
};

// Payload of 'vide' descriptions: the coded dimensions and, for H.264 and
// HEVC, owned copies of the parameter sets (each from the description's
// allocator, as are the two arrays).
struct SVVideoPayload {
    int32_t width;
    int32_t height;
    uint8_t **parameterSets;
    uint32_t *parameterSetSizes;
    uint32_t parameterSetCount;
    int32_t nalUnitHeaderLength;  // 1, 2 or 4 for parameter-set descriptions, else 0
};

struct OpaqueSVFormatDescription {
    CFRuntimeBase base;
    FourCharCode mediaType;
    FourCharCode mediaSubType;
    CFDictionaryRef extensions;  // immutable copy, or NULL
    union {
        SVAudioPayload audio;
        SVVideoPayload video;
    };
};

namespace sorvel {

// The class; registered on first use.
extern SVRuntimeClass<OpaqueSVFormatDescription> gSVFormatDescriptionClass;

inline OpaqueSVFormatDescription *SVFormatDescriptionMutable(SVFormatDescriptionRef desc) noexcept {
    return const_cast<OpaqueSVFormatDescription *>(desc);
}

// A zero-payload description of the given types with an immutable copy of
// `extensions` (made with the default allocator, whatever the object's), or
// NULL when the object or the copy cannot be allocated.
OpaqueSVFormatDescription *SVFormatDescriptionCreateInstance(CFAllocatorRef allocator, FourCharCode mediaType,
                                                             FourCharCode mediaSubType,
                                                             CFDictionaryRef extensions) noexcept;

// A video description with owned copies of the parameter sets, of any
// subtype (the sample-description bridge keeps 'avc3'/'hev1').  Returns 0 or
// kSVFormatDescriptionError_AllocationFailed.
OSStatus SVVideoFormatDescriptionCreateWithParameterSets(CFAllocatorRef allocator, FourCharCode subtype, int32_t width,
                                                         int32_t height, CFDictionaryRef extensions, size_t count,
                                                         const uint8_t *const *pointers, const size_t *sizes,
                                                         int nalUnitHeaderLength,
                                                         SVFormatDescriptionRef *formatDescriptionOut) noexcept;

}  // namespace sorvel

#endif  // SORVEL_SOURCES_SVFORMATDESCRIPTIONINTERNAL_H
