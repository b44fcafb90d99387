/* SPDX-License-Identifier: Apache-2.0 */
/* The CoreVideo subset that Sorvel runs on: buffer attachments, image
 * buffers and their geometry and keys, pixel buffers and texture records. */
#ifndef COREVIDEO_COREVIDEO_H
#define COREVIDEO_COREVIDEO_H

#include <CoreGraphics/CGGeometry.h>
#include <CoreVideo/CVBuffer.h>
#include <CoreVideo/CVImageBuffer.h>
#include <CoreVideo/CVOpenGLESTexture.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <CoreVideo/CVReturn.h>

#endif /* COREVIDEO_COREVIDEO_H */
