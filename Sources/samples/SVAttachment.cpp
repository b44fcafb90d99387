// SPDX-License-Identifier: Apache-2.0
// The generic attachment calls: checked front ends to CoreVideo's buffer
// attachments.  A sample buffer begins with the same attachment storage as
// CoreVideo's own buffers, so once the target's kind is accepted the call
// goes to CoreVideo unchanged; CoreVideo's storage does the locking.
//
// A target of any other kind (NULL included: these are getters and
// setters, which answer misuse with nothing rather than a stop) is logged at
// level 3 with an empty source path and a fixed line, and the call does
// nothing.

#include <CoreVideo/CoreVideo.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVSampleBuffer.h>

#include "core/SVLog.h"

SV_LOG_MODULE("Sorvel/Sources/SVAttachment");

// The attachment calls log with an empty source path, and the seven
// original calls at the lines the behaviour fixes (see core/SVLog.h).
constexpr const char *kNoSourcePath = "";
constexpr struct {
    sorvel::SVLogSite copyDictionaryOfAttachments{"SVCopyDictionaryOfAttachments", 42};
    sorvel::SVLogSite getAttachment{"SVGetAttachment", 54};
    sorvel::SVLogSite propagateAttachments{"SVPropagateAttachments", 67};
    sorvel::SVLogSite removeAllAttachments{"SVRemoveAllAttachments", 79};
    sorvel::SVLogSite removeAttachment{"SVRemoveAttachment", 90};
    sorvel::SVLogSite setAttachment{"SVSetAttachment", 101};
    sorvel::SVLogSite setAttachments{"SVSetAttachments", 112};
} kLogSites;

namespace {

// Accepted kinds, compared in this order.
bool isAttachmentBearer(SVAttachmentBearerRef target) noexcept {
    if (target == nullptr) return false;
    CFTypeID type = CFGetTypeID(target);
    return type == SVSampleBufferGetTypeID() || type == CVPixelBufferGetTypeID() ||
           type == CVOpenGLESTextureGetTypeID();
}

CVBufferRef asBuffer(SVAttachmentBearerRef target) noexcept {
    return static_cast<CVBufferRef>(const_cast<void *>(target));
}

}  // namespace

extern "C" {

CFDictionaryRef SVCopyDictionaryOfAttachments(CFAllocatorRef allocator, SVAttachmentBearerRef target,
                                              SVAttachmentMode attachmentMode) noexcept {
    if (!isAttachmentBearer(target)) {
        SV_LOG_SITE_AT(
            kNoSourcePath, kLogSites.copyDictionaryOfAttachments, 3,
            "SVCopyDictionaryOfAttachments fails. The target needs to be a SVSampleBuffer, CVOpenGLESTexture or "
            "CVPixelBuffer.");
        return nullptr;
    }
    // The copy is taken under the storage's lock, so a writer on another
    // thread cannot change the dictionary while it is copied.  NULL when the
    // mode has no attachments, never an empty dictionary.
    return _CVBufferCopyAttachments(allocator, asBuffer(target), attachmentMode);
}

CFTypeRef SVGetAttachment(SVAttachmentBearerRef target, CFStringRef key, SVAttachmentMode *attachmentModeOut) noexcept {
    if (!isAttachmentBearer(target)) {
        SV_LOG_SITE_AT(
            kNoSourcePath, kLogSites.getAttachment, 3,
            "SVGetAttachment fails. The target needs to be a SVSampleBuffer, CVOpenGLESTexture or CVPixelBuffer.");
        return nullptr;
    }
    return CVBufferGetAttachment(asBuffer(target), key, attachmentModeOut);
}

// Not one of the seven original calls: its line is the ordinary __LINE__.
CFTypeRef SVCopyAttachment(SVAttachmentBearerRef target, CFStringRef key,
                           SVAttachmentMode *attachmentModeOut) noexcept {
    if (!isAttachmentBearer(target)) {
        SV_LOG_HERE_AT(
            kNoSourcePath, 3,
            "SVCopyAttachment fails. The target needs to be a SVSampleBuffer, CVOpenGLESTexture or CVPixelBuffer.");
        return nullptr;
    }
    return CVBufferCopyAttachment(asBuffer(target), key, attachmentModeOut);
}

void SVPropagateAttachments(SVAttachmentBearerRef source, SVAttachmentBearerRef destination) noexcept {
    if (!isAttachmentBearer(source) || !isAttachmentBearer(destination)) {
        SV_LOG_SITE_AT(kNoSourcePath, kLogSites.propagateAttachments, 3,
                       "SVPropagateAttachments fails. The source and destination need to be a SVSampleBuffer, "
                       "CVOpenGLESTexture or CVPixelBuffer");
        return;
    }
    CVBufferPropagateAttachments(asBuffer(source), asBuffer(destination));
}

void SVRemoveAllAttachments(SVAttachmentBearerRef target) noexcept {
    if (!isAttachmentBearer(target)) {
        SV_LOG_SITE_AT(kNoSourcePath, kLogSites.removeAllAttachments, 3,
                       "SVRemoveAllAttachments fails. The target needs to be a SVSampleBuffer, CVOpenGLESTexture or "
                       "CVPixelBuffer");
        return;
    }
    CVBufferRemoveAllAttachments(asBuffer(target));
}

void SVRemoveAttachment(SVAttachmentBearerRef target, CFStringRef key) noexcept {
    if (!isAttachmentBearer(target)) {
        SV_LOG_SITE_AT(kNoSourcePath, kLogSites.removeAttachment, 3,
                       "SVRemoveAttachment fails. The target needs to be a SVSampleBuffer, CVOpenGLESTexture or "
                       "CVPixelBuffer");
        return;
    }
    CVBufferRemoveAttachment(asBuffer(target), key);
}

void SVSetAttachment(SVAttachmentBearerRef target, CFStringRef key, CFTypeRef value,
                     SVAttachmentMode attachmentMode) noexcept {
    if (!isAttachmentBearer(target)) {
        SV_LOG_SITE_AT(
            kNoSourcePath, kLogSites.setAttachment, 3,
            "SVSetAttachment fails. The target needs to be a SVSampleBuffer, CVOpenGLESTexture or CVPixelBuffer");
        return;
    }
    CVBufferSetAttachment(asBuffer(target), key, value, attachmentMode);
}

void SVSetAttachments(SVAttachmentBearerRef target, CFDictionaryRef theAttachments,
                      SVAttachmentMode attachmentMode) noexcept {
    if (!isAttachmentBearer(target)) {
        SV_LOG_SITE_AT(kNoSourcePath, kLogSites.setAttachments, 3,
                       "SVSetAttachments fails. The target needs to be a SVSampleBuffer, CVOpenGLESTexture or "
                       "CVPixelBuffer");
        return;
    }
    CVBufferSetAttachments(asBuffer(target), theAttachments, attachmentMode);
}

}  // extern "C"
