// SPDX-License-Identifier: Apache-2.0
// Plane geometry: the zero constants and exact comparisons.

#include <CoreGraphics/CGGeometry.h>

const CGPoint CGPointZero = {0.0, 0.0};
const CGSize CGSizeZero = {0.0, 0.0};
const CGRect CGRectZero = {{0.0, 0.0}, {0.0, 0.0}};

bool CGPointEqualToPoint(CGPoint point1, CGPoint point2) noexcept {
    return point1.x == point2.x && point1.y == point2.y;
}

bool CGSizeEqualToSize(CGSize size1, CGSize size2) noexcept {
    return size1.width == size2.width && size1.height == size2.height;
}

bool CGRectEqualToRect(CGRect rect1, CGRect rect2) noexcept {
    return CGPointEqualToPoint(rect1.origin, rect2.origin) && CGSizeEqualToSize(rect1.size, rect2.size);
}
