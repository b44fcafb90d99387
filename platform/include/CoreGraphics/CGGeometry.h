/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Plane geometry: points, sizes and rectangles of CGFloat (a 64-bit float).
 *
 * Plain value records, passed by value.  A rectangle is its origin and its
 * size; which corner the origin names (top left or bottom left) is up to the
 * call that produces the rectangle, and each such call says.
 */
#ifndef COREGRAPHICS_CGGEOMETRY_H
#define COREGRAPHICS_CGGEOMETRY_H

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef double CGFloat;
#define CGFLOAT_IS_DOUBLE 1

struct CGPoint {
    CGFloat x;
    CGFloat y;
};
typedef struct CGPoint CGPoint;

struct CGSize {
    CGFloat width;
    CGFloat height;
};
typedef struct CGSize CGSize;

struct CGRect {
    CGPoint origin;
    CGSize size;
};
typedef struct CGRect CGRect;

/* All-zero values: the "nothing" answer of calls that return geometry. */
CF_EXPORT const CGPoint CGPointZero CF_ABI_NAME(CGPointZero);
CF_EXPORT const CGSize CGSizeZero CF_ABI_NAME(CGSizeZero);
CF_EXPORT const CGRect CGRectZero CF_ABI_NAME(CGRectZero);

CF_INLINE CGPoint CGPointMake(CGFloat x, CGFloat y) {
    CGPoint point;
    point.x = x;
    point.y = y;
    return point;
}

CF_INLINE CGSize CGSizeMake(CGFloat width, CGFloat height) {
    CGSize size;
    size.width = width;
    size.height = height;
    return size;
}

CF_INLINE CGRect CGRectMake(CGFloat x, CGFloat y, CGFloat width, CGFloat height) {
    CGRect rect;
    rect.origin.x = x;
    rect.origin.y = y;
    rect.size.width = width;
    rect.size.height = height;
    return rect;
}

/* Exact comparisons, field by field (so NaN is unequal to itself). */
CF_EXPORT bool CGPointEqualToPoint(CGPoint point1, CGPoint point2) CF_NOEXCEPT CF_ABI_NAME(CGPointEqualToPoint);
CF_EXPORT bool CGSizeEqualToSize(CGSize size1, CGSize size2) CF_NOEXCEPT CF_ABI_NAME(CGSizeEqualToSize);
CF_EXPORT bool CGRectEqualToRect(CGRect rect1, CGRect rect2) CF_NOEXCEPT CF_ABI_NAME(CGRectEqualToRect);

CF_EXTERN_C_END

#endif /* COREGRAPHICS_CGGEOMETRY_H */
