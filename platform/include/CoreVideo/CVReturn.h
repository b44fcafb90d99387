/* SPDX-License-Identifier: Apache-2.0 */
/*
 * CoreVideo's status codes.  Every fallible CoreVideo call returns one:
 * kCVReturnSuccess (0) or a negative code from the block -6660...-6699.
 */
#ifndef COREVIDEO_CVRETURN_H
#define COREVIDEO_CVRETURN_H

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef int32_t CVReturn;
enum {
    kCVReturnSuccess = 0,
    kCVReturnFirst = -6660,
    kCVReturnError = kCVReturnFirst,               /* a failure with no code of its own */
    kCVReturnInvalidArgument = -6661,              /* a required argument is NULL or out of range */
    kCVReturnAllocationFailed = -6662,             /* memory could not be allocated */
    kCVReturnUnsupported = -6663,                  /* the operation is not supported by this object */
    kCVReturnInvalidPixelFormat = -6680,           /* unknown pixel format, or one the call cannot take */
    kCVReturnInvalidSize = -6681,                  /* dimensions whose buffer cannot be represented */
    kCVReturnInvalidPixelBufferAttributes = -6682, /* an attribute of the wrong type or value */
    kCVReturnPixelBufferNotOpenGLCompatible = -6683,
    kCVReturnPixelBufferNotMetalCompatible = -6684,
    kCVReturnWouldExceedAllocationThreshold = -6689,
    kCVReturnPoolAllocationFailed = -6690,
    kCVReturnInvalidPoolAttributes = -6691,
    kCVReturnRetry = -6692,
    kCVReturnLast = -6699
};

CF_EXTERN_C_END

#endif /* COREVIDEO_CVRETURN_H */
