/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Pixel buffers: image buffers whose pixels live in main memory.
 *
 * A pixel buffer has a width and height in pixels, a pixel format (a
 * four-character code, or a small number for the classic RGB formats) and
 * either one run of rows (packed formats) or several planes, each a run of
 * rows of its own (planar formats such as '420v': a full-size luma plane,
 * then a half-size interleaved chroma plane).  Rows are padded so that every
 * row starts at a multiple of the bytes-per-row alignment (64 bytes unless
 * the attributes say otherwise) and every plane at a multiple of the plane
 * alignment (likewise 64).
 *
 * Pixel buffers are runtime objects (CFRetain/CFRelease), carry attachments
 * (CVBuffer.h) and are immutable apart from their pixels and attachments.
 * Lock the base address around pixel access from the CPU; the lock is a
 * count, so several threads may hold it at once.  All getters are
 * thread-safe and answer 0 / NULL / false for a NULL buffer.
 */
#ifndef COREVIDEO_CVPIXELBUFFER_H
#define COREVIDEO_CVPIXELBUFFER_H

#include <CoreVideo/CVImageBuffer.h>
#include <CoreVideo/CVReturn.h>

CF_EXTERN_C_BEGIN

typedef CVImageBufferRef CVPixelBufferRef;

/* Pixel formats this library can lay out.  Planes are listed in order. */
enum {
    /* packed RGB, bytes per pixel in brackets */
    kCVPixelFormatType_16BE555 = 0x00000010,      /* [2] */
    kCVPixelFormatType_24RGB = 0x00000018,        /* [3] */
    kCVPixelFormatType_32ARGB = 0x00000020,       /* [4] */
    kCVPixelFormatType_16LE555 = 0x4C353535,      /* [2], 'L555' */
    kCVPixelFormatType_16LE565 = 0x4C353635,      /* [2], 'L565' */
    kCVPixelFormatType_24BGR = 0x32344247,        /* [3], '24BG' */
    kCVPixelFormatType_32BGRA = 0x42475241,       /* [4], 'BGRA' */
    kCVPixelFormatType_32ABGR = 0x41424752,       /* [4], 'ABGR' */
    kCVPixelFormatType_32RGBA = 0x52474241,       /* [4], 'RGBA' */
    kCVPixelFormatType_48RGB = 0x62343872,        /* [6], 'b48r' */
    kCVPixelFormatType_64ARGB = 0x62363461,       /* [8], 'b64a' */
    kCVPixelFormatType_64RGBAHalf = 0x52476841,   /* [8], 'RGhA' */
    kCVPixelFormatType_128RGBAFloat = 0x52476641, /* [16], 'RGfA' */
    /* packed one- and two-component */
    kCVPixelFormatType_OneComponent8 = 0x4C303038,       /* [1], 'L008' */
    kCVPixelFormatType_OneComponent16 = 0x4C303136,      /* [2], 'L016' */
    kCVPixelFormatType_OneComponent16Half = 0x4C303068,  /* [2], 'L00h' */
    kCVPixelFormatType_OneComponent32Float = 0x4C303066, /* [4], 'L00f' */
    kCVPixelFormatType_TwoComponent8 = 0x32433038,       /* [2], '2C08' */
    kCVPixelFormatType_16Gray = 0x62313667,              /* [2], 'b16g' */
    kCVPixelFormatType_DepthFloat32 = 0x66646570,        /* [4], 'fdep' */
    /* packed 4:2:2 Y'CbCr: 4 bytes per pair of pixels (odd widths round up) */
    kCVPixelFormatType_422YpCbCr8 = 0x32767579,      /* Cb Y0 Cr Y1, '2vuy' */
    kCVPixelFormatType_422YpCbCr8_yuvs = 0x79757673, /* Y0 Cb Y1 Cr, 'yuvs' */
    /* planar: Y (w x h, 1 byte), Cb and Cr (ceil(w/2) x ceil(h/2), 1 byte each) */
    kCVPixelFormatType_420YpCbCr8Planar = 0x79343230,          /* 'y420' */
    kCVPixelFormatType_420YpCbCr8PlanarFullRange = 0x66343230, /* 'f420' */
    /* bi-planar: Y (w x h, 1 byte), CbCr (ceil(w/2) x ceil(h/2), 2 bytes) */
    kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange = 0x34323076, /* '420v' */
    kCVPixelFormatType_420YpCbCr8BiPlanarFullRange = 0x34323066,  /* '420f' */
    /* bi-planar 10-bit in 16-bit words: Y 2 bytes, CbCr 4 bytes per sample pair */
    kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange = 0x78343230, /* 'x420' */
    kCVPixelFormatType_420YpCbCr10BiPlanarFullRange = 0x78663230,  /* 'xf20' */
    /* bi-planar 4:2:2: CbCr plane ceil(w/2) x h, 2 bytes */
    kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange = 0x34323276, /* '422v' */
    kCVPixelFormatType_422YpCbCr8BiPlanarFullRange = 0x34323266,  /* '422f' */
    /* bi-planar 4:4:4: CbCr plane w x h, 2 bytes */
    kCVPixelFormatType_444YpCbCr8BiPlanarVideoRange = 0x34343476, /* '444v' */
    kCVPixelFormatType_444YpCbCr8BiPlanarFullRange = 0x34343466   /* '444f' */
};

typedef uint64_t CVPixelBufferLockFlags;
enum {
    /* The caller only reads: pair with an unlock that passes it too. */
    kCVPixelBufferLock_ReadOnly = 0x00000001
};

/* Attribute keys of the creation calls.  Only the two alignments are read
 * (each a CFNumber: a positive byte count, 0 meaning the default of 64; the
 * plane alignment must be a power of two, at most 4096; the row alignment
 * at most 4096); the dictionaries under kCVBufferPropagatedAttachmentsKey /
 * kCVBufferNonPropagatedAttachmentsKey become attachments; every other key
 * is accepted and ignored (the explicit arguments win over the pixel
 * format, width and height keys). */
CF_EXPORT const CFStringRef kCVPixelBufferPixelFormatTypeKey CF_ABI_NAME(kCVPixelBufferPixelFormatTypeKey);
CF_EXPORT const CFStringRef kCVPixelBufferWidthKey CF_ABI_NAME(kCVPixelBufferWidthKey);
CF_EXPORT const CFStringRef kCVPixelBufferHeightKey CF_ABI_NAME(kCVPixelBufferHeightKey);
CF_EXPORT const CFStringRef kCVPixelBufferBytesPerRowAlignmentKey CF_ABI_NAME(kCVPixelBufferBytesPerRowAlignmentKey);
CF_EXPORT const CFStringRef kCVPixelBufferPlaneAlignmentKey CF_ABI_NAME(kCVPixelBufferPlaneAlignmentKey);
CF_EXPORT const CFStringRef kCVPixelBufferOpenGLESCompatibilityKey CF_ABI_NAME(kCVPixelBufferOpenGLESCompatibilityKey);
CF_EXPORT const CFStringRef kCVPixelBufferIOSurfacePropertiesKey CF_ABI_NAME(kCVPixelBufferIOSurfacePropertiesKey);

CF_EXPORT CFTypeID CVPixelBufferGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CVPixelBufferGetTypeID);

/* Retain and release that accept NULL. */
CF_EXPORT CVPixelBufferRef CVPixelBufferRetain(CVPixelBufferRef pixelBuffer) CF_NOEXCEPT
    CF_ABI_NAME(CVPixelBufferRetain);
CF_EXPORT void CVPixelBufferRelease(CVPixelBufferRef pixelBuffer) CF_NOEXCEPT CF_ABI_NAME(CVPixelBufferRelease);

/* Creates a pixel buffer with its own zero-filled memory, allocated (like
 * the object) through `allocator` (NULL: the default).  On success
 * *pixelBufferOut receives the buffer (owned by the caller); on failure it
 * is set to NULL when given.
 *   kCVReturnInvalidArgument           pixelBufferOut NULL, width or height 0,
 *                                      attributes not a dictionary
 *   kCVReturnInvalidPixelFormat        a format not listed above
 *   kCVReturnInvalidSize               a buffer too large to address
 *   kCVReturnInvalidPixelBufferAttributes  an alignment of the wrong type or value
 *   kCVReturnAllocationFailed          the object or its memory */
CF_EXPORT CVReturn CVPixelBufferCreate(CFAllocatorRef allocator, size_t width, size_t height, OSType pixelFormatType,
                                       CFDictionaryRef pixelBufferAttributes,
                                       CVPixelBufferRef *pixelBufferOut) CF_NOEXCEPT CF_ABI_NAME(CVPixelBufferCreate);

/* Called once, when a pixel buffer made over caller memory goes away. */
typedef void (*CVPixelBufferReleaseBytesCallback)(void *releaseRefCon, const void *baseAddress);

/* Creates a pixel buffer of a packed format over the caller's memory
 * (`bytesPerRow` per row, at least the format's minimum), which stays the
 * caller's: `releaseCallback` (may be NULL) is called with `releaseRefCon`
 * when the buffer is finalized, and not at all when creation fails.  The
 * alignment attributes are not applied.  Statuses as CVPixelBufferCreate,
 * plus kCVReturnInvalidArgument for a NULL base address or a bytesPerRow
 * below the minimum, and kCVReturnInvalidPixelFormat for planar formats. */
CF_EXPORT CVReturn CVPixelBufferCreateWithBytes(CFAllocatorRef allocator, size_t width, size_t height,
                                                OSType pixelFormatType, void *baseAddress, size_t bytesPerRow,
                                                CVPixelBufferReleaseBytesCallback releaseCallback, void *releaseRefCon,
                                                CFDictionaryRef pixelBufferAttributes,
                                                CVPixelBufferRef *pixelBufferOut) CF_NOEXCEPT
    CF_ABI_NAME(CVPixelBufferCreateWithBytes);

/* Lock and unlock the base address for CPU access.  Locks nest: each lock
 * needs its unlock, with the same flags.  kCVReturnInvalidArgument for
 * NULL or unknown flag bits; an unlock without a matching lock gives
 * kCVReturnError and changes nothing. */
CF_EXPORT CVReturn CVPixelBufferLockBaseAddress(CVPixelBufferRef pixelBuffer,
                                                CVPixelBufferLockFlags lockFlags) CF_NOEXCEPT
    CF_ABI_NAME(CVPixelBufferLockBaseAddress);
CF_EXPORT CVReturn CVPixelBufferUnlockBaseAddress(CVPixelBufferRef pixelBuffer,
                                                  CVPixelBufferLockFlags unlockFlags) CF_NOEXCEPT
    CF_ABI_NAME(CVPixelBufferUnlockBaseAddress);

CF_EXPORT size_t CVPixelBufferGetWidth(CVPixelBufferRef pixelBuffer) CF_NOEXCEPT CF_ABI_NAME(CVPixelBufferGetWidth);
CF_EXPORT size_t CVPixelBufferGetHeight(CVPixelBufferRef pixelBuffer) CF_NOEXCEPT CF_ABI_NAME(CVPixelBufferGetHeight);
CF_EXPORT OSType CVPixelBufferGetPixelFormatType(CVPixelBufferRef pixelBuffer) CF_NOEXCEPT
    CF_ABI_NAME(CVPixelBufferGetPixelFormatType);
/* The first byte of the pixels; for a planar buffer, the first byte of the
 * block that holds every plane (plane 0 starts there). */
CF_EXPORT void *CVPixelBufferGetBaseAddress(CVPixelBufferRef pixelBuffer) CF_NOEXCEPT
    CF_ABI_NAME(CVPixelBufferGetBaseAddress);
/* Bytes from one row to the next; for a planar buffer, plane 0's. */
CF_EXPORT size_t CVPixelBufferGetBytesPerRow(CVPixelBufferRef pixelBuffer) CF_NOEXCEPT
    CF_ABI_NAME(CVPixelBufferGetBytesPerRow);
/* Bytes of pixel memory, padding between planes included. */
CF_EXPORT size_t CVPixelBufferGetDataSize(CVPixelBufferRef pixelBuffer) CF_NOEXCEPT
    CF_ABI_NAME(CVPixelBufferGetDataSize);
CF_EXPORT Boolean CVPixelBufferIsPlanar(CVPixelBufferRef pixelBuffer) CF_NOEXCEPT CF_ABI_NAME(CVPixelBufferIsPlanar);
/* 0 for a packed buffer. */
CF_EXPORT size_t CVPixelBufferGetPlaneCount(CVPixelBufferRef pixelBuffer) CF_NOEXCEPT
    CF_ABI_NAME(CVPixelBufferGetPlaneCount);
/* Per plane; 0 / NULL for a packed buffer or an index past the planes.
 * Widths and heights are in samples of that plane (chroma planes of 4:2:0
 * formats are ceil(w/2) x ceil(h/2)). */
CF_EXPORT size_t CVPixelBufferGetWidthOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex) CF_NOEXCEPT
    CF_ABI_NAME(CVPixelBufferGetWidthOfPlane);
CF_EXPORT size_t CVPixelBufferGetHeightOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex) CF_NOEXCEPT
    CF_ABI_NAME(CVPixelBufferGetHeightOfPlane);
CF_EXPORT void *CVPixelBufferGetBaseAddressOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex) CF_NOEXCEPT
    CF_ABI_NAME(CVPixelBufferGetBaseAddressOfPlane);
CF_EXPORT size_t CVPixelBufferGetBytesPerRowOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex) CF_NOEXCEPT
    CF_ABI_NAME(CVPixelBufferGetBytesPerRowOfPlane);

CF_EXTERN_C_END

#endif /* COREVIDEO_CVPIXELBUFFER_H */
