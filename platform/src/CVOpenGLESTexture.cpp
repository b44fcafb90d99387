// SPDX-License-Identifier: Apache-2.0
// Texture records: image buffers that stand for an OpenGL ES texture made
// elsewhere.  They carry the texture's identity and geometry so that the
// attachment and image-buffer calls work on them; nothing here touches GL.

#include <dispatch/dispatch.h>

#include "CVInternal.h"

#define CF_SOURCE_PATH "CoreVideo/CVOpenGLESTexture"

struct __CVOpenGLESTexture {
    CFRuntimeBase base;
    CVAttachmentStorage attachments;  // first, as CVBuffer.h requires
    uint32_t target;
    uint32_t name;
    size_t width;
    size_t height;
    Boolean isFlipped;
};

namespace {

constexpr CFIndex kFieldsSize = sizeof(__CVOpenGLESTexture) - sizeof(CFRuntimeBase);

void finalizeTexture(CFTypeRef cf) {
    __CVBufferFinalize(cf);
}

CFStringRef copyTextureDescription(CFTypeRef cf) {
    auto *texture = static_cast<const __CVOpenGLESTexture *>(cf);
    return CFStringCreateWithFormat(
        kCFAllocatorSystemDefault, nullptr, CFSTR("<CVOpenGLESTexture %p target=0x%x name=%u width=%zu height=%zu%s>"),
        cf, texture->target, texture->name, texture->width, texture->height, texture->isFlipped ? " flipped" : "");
}

CFStringRef copyTextureFormattingDescription(CFTypeRef cf, CFDictionaryRef) {
    return copyTextureDescription(cf);
}

const CFRuntimeClass kTextureClass = {
    0,
    "CVOpenGLESTexture",
    nullptr,
    nullptr,
    finalizeTexture,
    nullptr,
    nullptr,
    copyTextureFormattingDescription,
    copyTextureDescription,
};

dispatch_once_t gTextureOnce;
CFTypeID gTextureTypeID;

void registerTextureClass(void *) {
    gTextureTypeID = _CFRuntimeRegisterClass(&kTextureClass);
}

CFTypeID textureTypeID() {
    if (__builtin_expect(__atomic_load_n(&gTextureOnce, __ATOMIC_ACQUIRE) != ~static_cast<dispatch_once_t>(0), 0))
        dispatch_once_f(&gTextureOnce, nullptr, registerTextureClass);
    return gTextureTypeID;
}

const __CVOpenGLESTexture *asTexture(CFTypeRef cf) {
    if (cf == nullptr || CFGetTypeID(cf) != textureTypeID()) return nullptr;
    return static_cast<const __CVOpenGLESTexture *>(cf);
}

void store(float *out, float s, float t) {
    if (out == nullptr) return;
    out[0] = s;
    out[1] = t;
}

}  // namespace

CF_PRIVATE bool __CVOpenGLESTextureGetDimensions(CFTypeRef object, size_t *width, size_t *height) {
    const __CVOpenGLESTexture *texture = asTexture(object);
    if (texture == nullptr) return false;
    *width = texture->width;
    *height = texture->height;
    return true;
}

CFTypeID CVOpenGLESTextureGetTypeID(void) noexcept {
    return textureTypeID();
}

CVReturn _CVOpenGLESTextureCreate(CFAllocatorRef allocator, uint32_t target, uint32_t name, size_t width, size_t height,
                                  Boolean isFlipped, CVOpenGLESTextureRef *textureOut) noexcept {
    if (textureOut == nullptr) return kCVReturnInvalidArgument;
    *textureOut = nullptr;
    if (width == 0 || height == 0) return kCVReturnInvalidArgument;
    auto *texture = static_cast<__CVOpenGLESTexture *>(
        const_cast<void *>(_CFRuntimeCreateInstance(allocator, textureTypeID(), kFieldsSize, nullptr)));
    if (texture == nullptr) return kCVReturnAllocationFailed;
    texture->target = target;
    texture->name = name;
    texture->width = width;
    texture->height = height;
    texture->isFlipped = isFlipped ? 1 : 0;
    *textureOut = reinterpret_cast<CVOpenGLESTextureRef>(texture);
    return kCVReturnSuccess;
}

uint32_t CVOpenGLESTextureGetTarget(CVOpenGLESTextureRef image) noexcept {
    const __CVOpenGLESTexture *texture = asTexture(image);
    return texture != nullptr ? texture->target : 0;
}

uint32_t CVOpenGLESTextureGetName(CVOpenGLESTextureRef image) noexcept {
    const __CVOpenGLESTexture *texture = asTexture(image);
    return texture != nullptr ? texture->name : 0;
}

Boolean CVOpenGLESTextureIsFlipped(CVOpenGLESTextureRef image) noexcept {
    const __CVOpenGLESTexture *texture = asTexture(image);
    return texture != nullptr && texture->isFlipped;
}

void CVOpenGLESTextureGetCleanTexCoords(CVOpenGLESTextureRef image, float lowerLeft[2], float lowerRight[2],
                                        float upperRight[2], float upperLeft[2]) noexcept {
    const __CVOpenGLESTexture *texture = asTexture(image);
    if (texture == nullptr) return;
    CGRect clean = CVImageBufferGetCleanRect(image);
    auto width = static_cast<double>(texture->width);
    auto height = static_cast<double>(texture->height);
    auto left = static_cast<float>(clean.origin.x / width);
    auto right = static_cast<float>((clean.origin.x + clean.size.width) / width);
    // Rows counted from the picture's top; a flipped texture stores them
    // bottom-up, so its first row is the picture's last.
    double top = clean.origin.y / height;
    double bottom = (clean.origin.y + clean.size.height) / height;
    if (texture->isFlipped) {
        top = 1 - top;
        bottom = 1 - bottom;
    }
    store(lowerLeft, left, static_cast<float>(bottom));
    store(lowerRight, right, static_cast<float>(bottom));
    store(upperRight, right, static_cast<float>(top));
    store(upperLeft, left, static_cast<float>(top));
}
