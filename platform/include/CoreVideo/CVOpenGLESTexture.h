/* SPDX-License-Identifier: Apache-2.0 */
/*
 * OpenGL ES textures as image buffers.
 *
 * The platform has no OpenGL ES, so nothing here talks to a GL context: a
 * texture object records the texture's target, name, size and orientation,
 * which whoever made the GL texture supplies through
 * _CVOpenGLESTextureCreate.  Textures are runtime objects, carry attachments
 * (CVBuffer.h) and are immutable apart from those.  Getters answer 0 /
 * false for NULL.
 */
#ifndef COREVIDEO_CVOPENGLESTEXTURE_H
#define COREVIDEO_CVOPENGLESTEXTURE_H

#include <CoreVideo/CVImageBuffer.h>
#include <CoreVideo/CVReturn.h>

CF_EXTERN_C_BEGIN

typedef CVImageBufferRef CVOpenGLESTextureRef;

CF_EXPORT CFTypeID CVOpenGLESTextureGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CVOpenGLESTextureGetTypeID);

/* Creates a texture record for GL texture `name` bound at `target`
 * (GLenum values), `width` x `height` pixels, its rows stored bottom-up when
 * `isFlipped`.  kCVReturnInvalidArgument when textureOut is NULL or a
 * dimension is 0; kCVReturnAllocationFailed.  *textureOut is NULL on
 * failure. */
CF_EXPORT CVReturn _CVOpenGLESTextureCreate(CFAllocatorRef allocator, uint32_t target, uint32_t name, size_t width,
                                            size_t height, Boolean isFlipped,
                                            CVOpenGLESTextureRef *textureOut) CF_NOEXCEPT
    CF_ABI_NAME(_CVOpenGLESTextureCreate);

CF_EXPORT uint32_t CVOpenGLESTextureGetTarget(CVOpenGLESTextureRef image) CF_NOEXCEPT
    CF_ABI_NAME(CVOpenGLESTextureGetTarget);
CF_EXPORT uint32_t CVOpenGLESTextureGetName(CVOpenGLESTextureRef image) CF_NOEXCEPT
    CF_ABI_NAME(CVOpenGLESTextureGetName);
CF_EXPORT Boolean CVOpenGLESTextureIsFlipped(CVOpenGLESTextureRef image) CF_NOEXCEPT
    CF_ABI_NAME(CVOpenGLESTextureIsFlipped);
/* Texture coordinates (s, t pairs in 0...1) of the corners of the clean
 * aperture (CVImageBufferGetCleanRect), t counted from the texture's first
 * row, swapped top for bottom when the texture is flipped.  Each output may
 * be NULL; all are left alone for a NULL texture. */
CF_EXPORT void CVOpenGLESTextureGetCleanTexCoords(CVOpenGLESTextureRef image, float lowerLeft[2], float lowerRight[2],
                                                  float upperRight[2], float upperLeft[2]) CF_NOEXCEPT
    CF_ABI_NAME(CVOpenGLESTextureGetCleanTexCoords);

CF_EXTERN_C_END

#endif /* COREVIDEO_CVOPENGLESTEXTURE_H */
