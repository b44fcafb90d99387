/* SPDX-License-Identifier: Apache-2.0 */
// Private to the platform library: what the CoreVideo type files share.
#ifndef SORVEL_PLATFORM_CVINTERNAL_H
#define SORVEL_PLATFORM_CVINTERNAL_H

#include <CoreVideo/CoreVideo.h>

#include "CFInternal.h"

// The encoded size of a pixel buffer or texture; false for anything else
// (NULL included).
CF_PRIVATE bool __CVImageBufferGetDimensions(CVImageBufferRef imageBuffer, size_t *width, size_t *height);

// The attachment for `key` in either mode, retained under the storage's
// lock (so a concurrent replacement cannot free it under the caller), or
// NULL.
CF_PRIVATE CFTypeRef __CVBufferCopyAttachment(CFTypeRef buffer, CFStringRef key);

// Either image-buffer type, for the geometry calls.
CF_PRIVATE bool __CVPixelBufferGetDimensions(CFTypeRef object, size_t *width, size_t *height);
CF_PRIVATE bool __CVOpenGLESTextureGetDimensions(CFTypeRef object, size_t *width, size_t *height);

#endif  // SORVEL_PLATFORM_CVINTERNAL_H
