// SPDX-License-Identifier: Apache-2.0
// Pixel buffers: one block of memory holding a picture's rows, in one plane
// (packed formats) or several (planar formats), each row padded to the
// bytes-per-row alignment and each plane starting at the plane alignment.
//
// The layout is computed once at creation from a table of formats; every
// getter afterwards reads fields that never change, so getters need no
// lock.  Only the base-address lock counts change, atomically.

#include <dispatch/dispatch.h>

#include <cstring>
#include <limits>

#include "CVInternal.h"

#define CF_SOURCE_PATH "CoreVideo/CVPixelBuffer"

const CFStringRef kCVPixelBufferPixelFormatTypeKey = CFSTR("kCVPixelBufferPixelFormatTypeKey");
const CFStringRef kCVPixelBufferWidthKey = CFSTR("kCVPixelBufferWidthKey");
const CFStringRef kCVPixelBufferHeightKey = CFSTR("kCVPixelBufferHeightKey");
const CFStringRef kCVPixelBufferBytesPerRowAlignmentKey = CFSTR("kCVPixelBufferBytesPerRowAlignmentKey");
const CFStringRef kCVPixelBufferPlaneAlignmentKey = CFSTR("kCVPixelBufferPlaneAlignmentKey");
const CFStringRef kCVPixelBufferOpenGLESCompatibilityKey = CFSTR("kCVPixelBufferOpenGLESCompatibilityKey");
const CFStringRef kCVPixelBufferIOSurfacePropertiesKey = CFSTR("kCVPixelBufferIOSurfacePropertiesKey");

namespace {

constexpr size_t kMaxPlanes = 3;
constexpr size_t kDefaultAlignment = 64;
constexpr int64_t kMaxAlignment = 4096;

// One plane of a format: its samples are the picture's pixels subsampled by
// hSub x vSub, stored as blocks of `pixelsPerBlock` samples taking
// `bytesPerBlock` bytes.
struct PlaneFormat {
    uint8_t hSub;
    uint8_t vSub;
    uint8_t pixelsPerBlock;
    uint8_t bytesPerBlock;
};

// planeCount 0 means packed: the one plane is planes[0].
struct PixelFormat {
    OSType type;
    uint8_t planeCount;
    PlaneFormat planes[kMaxPlanes];
};

constexpr PlaneFormat packed(uint8_t bytesPerPixel) {
    return {1, 1, 1, bytesPerPixel};
}

constexpr PixelFormat kFormats[] = {
    {kCVPixelFormatType_16BE555, 0, {packed(2)}},
    {kCVPixelFormatType_24RGB, 0, {packed(3)}},
    {kCVPixelFormatType_32ARGB, 0, {packed(4)}},
    {kCVPixelFormatType_16LE555, 0, {packed(2)}},
    {kCVPixelFormatType_16LE565, 0, {packed(2)}},
    {kCVPixelFormatType_24BGR, 0, {packed(3)}},
    {kCVPixelFormatType_32BGRA, 0, {packed(4)}},
    {kCVPixelFormatType_32ABGR, 0, {packed(4)}},
    {kCVPixelFormatType_32RGBA, 0, {packed(4)}},
    {kCVPixelFormatType_48RGB, 0, {packed(6)}},
    {kCVPixelFormatType_64ARGB, 0, {packed(8)}},
    {kCVPixelFormatType_64RGBAHalf, 0, {packed(8)}},
    {kCVPixelFormatType_128RGBAFloat, 0, {packed(16)}},
    {kCVPixelFormatType_OneComponent8, 0, {packed(1)}},
    {kCVPixelFormatType_OneComponent16, 0, {packed(2)}},
    {kCVPixelFormatType_OneComponent16Half, 0, {packed(2)}},
    {kCVPixelFormatType_OneComponent32Float, 0, {packed(4)}},
    {kCVPixelFormatType_TwoComponent8, 0, {packed(2)}},
    {kCVPixelFormatType_16Gray, 0, {packed(2)}},
    {kCVPixelFormatType_DepthFloat32, 0, {packed(4)}},
    {kCVPixelFormatType_422YpCbCr8, 0, {{1, 1, 2, 4}}},
    {kCVPixelFormatType_422YpCbCr8_yuvs, 0, {{1, 1, 2, 4}}},
    {kCVPixelFormatType_420YpCbCr8Planar, 3, {packed(1), {2, 2, 1, 1}, {2, 2, 1, 1}}},
    {kCVPixelFormatType_420YpCbCr8PlanarFullRange, 3, {packed(1), {2, 2, 1, 1}, {2, 2, 1, 1}}},
    {kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, 2, {packed(1), {2, 2, 1, 2}}},
    {kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, 2, {packed(1), {2, 2, 1, 2}}},
    {kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange, 2, {packed(2), {2, 2, 1, 4}}},
    {kCVPixelFormatType_420YpCbCr10BiPlanarFullRange, 2, {packed(2), {2, 2, 1, 4}}},
    {kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange, 2, {packed(1), {2, 1, 1, 2}}},
    {kCVPixelFormatType_422YpCbCr8BiPlanarFullRange, 2, {packed(1), {2, 1, 1, 2}}},
    {kCVPixelFormatType_444YpCbCr8BiPlanarVideoRange, 2, {packed(1), {1, 1, 1, 2}}},
    {kCVPixelFormatType_444YpCbCr8BiPlanarFullRange, 2, {packed(1), {1, 1, 1, 2}}},
};

const PixelFormat *findFormat(OSType type) {
    for (const PixelFormat &format : kFormats)
        if (format.type == type) return &format;
    return nullptr;
}

struct Plane {
    uint8_t *base;
    size_t width;
    size_t height;
    size_t bytesPerRow;
};

}  // namespace

struct __CVPixelBuffer {
    CFRuntimeBase base;
    CVAttachmentStorage attachments;  // first, as CVBuffer.h requires
    size_t width;
    size_t height;
    OSType pixelFormat;
    uint32_t planeCount;  // 0: packed, the one plane is planes[0]
    void *memory;         // our allocation (not aligned); NULL over caller bytes
    size_t dataSize;
    Plane planes[kMaxPlanes];
    CVPixelBufferReleaseBytesCallback releaseCallback;
    void *releaseRefCon;
    uint32_t lockCount;          // read-write locks held
    uint32_t readOnlyLockCount;  // read-only locks held
};

namespace {

constexpr CFIndex kFieldsSize = sizeof(__CVPixelBuffer) - sizeof(CFRuntimeBase);

void finalizePixelBuffer(CFTypeRef cf) {
    auto *buffer = static_cast<__CVPixelBuffer *>(const_cast<void *>(cf));
    if (buffer->memory != nullptr) CFAllocatorDeallocate(CFGetAllocator(cf), buffer->memory);
    if (buffer->releaseCallback != nullptr) buffer->releaseCallback(buffer->releaseRefCon, buffer->planes[0].base);
    __CVBufferFinalize(cf);
}

CFStringRef copyPixelBufferDescription(CFTypeRef cf) {
    auto *buffer = static_cast<const __CVPixelBuffer *>(cf);
    char format[XP_OSSTATUS_STRING_SIZE];
    _XPFormatOSStatus(format, static_cast<int32_t>(buffer->pixelFormat));
    return CFStringCreateWithFormat(kCFAllocatorSystemDefault, nullptr,
                                    CFSTR("<CVPixelBuffer %p width=%zu height=%zu pixelFormat=%s planes=%u "
                                          "bytesPerRow=%zu>"),
                                    cf, buffer->width, buffer->height, format, buffer->planeCount,
                                    buffer->planes[0].bytesPerRow);
}

CFStringRef copyPixelBufferFormattingDescription(CFTypeRef cf, CFDictionaryRef) {
    return copyPixelBufferDescription(cf);
}

const CFRuntimeClass kPixelBufferClass = {
    0,
    "CVPixelBuffer",
    nullptr,
    nullptr,
    finalizePixelBuffer,
    nullptr,
    nullptr,
    copyPixelBufferFormattingDescription,
    copyPixelBufferDescription,
};

dispatch_once_t gPixelBufferOnce;
CFTypeID gPixelBufferTypeID;

void registerPixelBufferClass(void *) {
    gPixelBufferTypeID = _CFRuntimeRegisterClass(&kPixelBufferClass);
}

CFTypeID pixelBufferTypeID() {
    if (__builtin_expect(__atomic_load_n(&gPixelBufferOnce, __ATOMIC_ACQUIRE) != ~static_cast<dispatch_once_t>(0), 0))
        dispatch_once_f(&gPixelBufferOnce, nullptr, registerPixelBufferClass);
    return gPixelBufferTypeID;
}

const __CVPixelBuffer *asPixelBuffer(CFTypeRef cf) {
    if (cf == nullptr || CFGetTypeID(cf) != pixelBufferTypeID()) return nullptr;
    return static_cast<const __CVPixelBuffer *>(cf);
}

__CVPixelBuffer *asMutablePixelBuffer(CFTypeRef cf) {
    return const_cast<__CVPixelBuffer *>(asPixelBuffer(cf));
}

size_t ceilDiv(size_t value, size_t divisor) {
    return value / divisor + (value % divisor != 0);
}

// Rounds up to a multiple of `alignment`; false on overflow.
bool alignUp(size_t value, size_t alignment, size_t *out) {
    size_t remainder = value % alignment;
    if (remainder == 0) {
        *out = value;
        return true;
    }
    return !__builtin_add_overflow(value, alignment - remainder, out);
}

// The smallest bytes per row of a plane `width` samples wide.
size_t minimumBytesPerRow(const PlaneFormat &plane, size_t sampleWidth, bool *overflow) {
    size_t bytes = 0;
    *overflow = __builtin_mul_overflow(ceilDiv(sampleWidth, plane.pixelsPerBlock), size_t{plane.bytesPerBlock}, &bytes);
    return bytes;
}

struct Alignments {
    size_t row = kDefaultAlignment;
    size_t plane = kDefaultAlignment;
};

// Reads one alignment attribute: absent or 0 keeps the default.
CVReturn readAlignment(CFDictionaryRef attributes, CFStringRef key, bool powerOfTwo, size_t *alignment) {
    CFTypeRef value = CFDictionaryGetValue(attributes, key);
    if (value == nullptr) return kCVReturnSuccess;
    int64_t number = 0;
    if (CFGetTypeID(value) != CFNumberGetTypeID() ||
        !CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberSInt64Type, &number))
        return kCVReturnInvalidPixelBufferAttributes;
    if (number < 0 || number > kMaxAlignment) return kCVReturnInvalidPixelBufferAttributes;
    if (number == 0) return kCVReturnSuccess;
    if (powerOfTwo && (number & (number - 1)) != 0) return kCVReturnInvalidPixelBufferAttributes;
    *alignment = static_cast<size_t>(number);
    return kCVReturnSuccess;
}

CVReturn readAttachmentsAttribute(CFDictionaryRef attributes, CFStringRef key) {
    CFTypeRef value = CFDictionaryGetValue(attributes, key);
    if (value != nullptr && CFGetTypeID(value) != CFDictionaryGetTypeID()) return kCVReturnInvalidPixelBufferAttributes;
    return kCVReturnSuccess;
}

CVReturn readAttributes(CFDictionaryRef attributes, Alignments *alignments) {
    if (attributes == nullptr) return kCVReturnSuccess;
    if (CFGetTypeID(attributes) != CFDictionaryGetTypeID()) return kCVReturnInvalidArgument;
    CVReturn status = readAlignment(attributes, kCVPixelBufferBytesPerRowAlignmentKey, false, &alignments->row);
    if (status == kCVReturnSuccess)
        status = readAlignment(attributes, kCVPixelBufferPlaneAlignmentKey, true, &alignments->plane);
    if (status == kCVReturnSuccess) status = readAttachmentsAttribute(attributes, kCVBufferPropagatedAttachmentsKey);
    if (status == kCVReturnSuccess) status = readAttachmentsAttribute(attributes, kCVBufferNonPropagatedAttachmentsKey);
    return status;
}

void applyAttachmentAttributes(CVPixelBufferRef buffer, CFDictionaryRef attributes) {
    if (attributes == nullptr) return;
    auto propagated = static_cast<CFDictionaryRef>(CFDictionaryGetValue(attributes, kCVBufferPropagatedAttachmentsKey));
    auto local = static_cast<CFDictionaryRef>(CFDictionaryGetValue(attributes, kCVBufferNonPropagatedAttachmentsKey));
    if (local != nullptr) CVBufferSetAttachments(buffer, local, kCVAttachmentMode_ShouldNotPropagate);
    if (propagated != nullptr) CVBufferSetAttachments(buffer, propagated, kCVAttachmentMode_ShouldPropagate);
}

// Where each plane goes: offsets from an aligned base, and the total size.
struct Layout {
    Plane planes[kMaxPlanes];  // base left NULL until the memory exists
    size_t offsets[kMaxPlanes];
    size_t planeCount;  // planes actually laid out (1 for packed)
    size_t dataSize;
};

CVReturn computeLayout(const PixelFormat &format, size_t width, size_t height, const Alignments &alignments,
                       Layout *layout) {
    layout->planeCount = format.planeCount == 0 ? 1 : format.planeCount;
    size_t offset = 0;
    for (size_t i = 0; i < layout->planeCount; ++i) {
        const PlaneFormat &planeFormat = format.planes[i];
        Plane &plane = layout->planes[i];
        plane.width = ceilDiv(width, planeFormat.hSub);
        plane.height = ceilDiv(height, planeFormat.vSub);
        bool overflow = false;
        size_t rowBytes = minimumBytesPerRow(planeFormat, plane.width, &overflow);
        if (overflow || !alignUp(rowBytes, alignments.row, &plane.bytesPerRow)) return kCVReturnInvalidSize;
        size_t planeBytes = 0;
        if (i > 0 && !alignUp(offset, alignments.plane, &offset)) return kCVReturnInvalidSize;
        if (__builtin_mul_overflow(plane.bytesPerRow, plane.height, &planeBytes)) return kCVReturnInvalidSize;
        layout->offsets[i] = offset;
        if (__builtin_add_overflow(offset, planeBytes, &offset)) return kCVReturnInvalidSize;
    }
    layout->dataSize = offset;
    // The allocation adds room to align the base; it must fit a CFIndex.
    size_t total = 0;
    if (__builtin_add_overflow(offset, alignments.plane, &total) ||
        total > static_cast<size_t>(std::numeric_limits<CFIndex>::max()))
        return kCVReturnInvalidSize;
    return kCVReturnSuccess;
}

__CVPixelBuffer *createInstance(CFAllocatorRef allocator) {
    return static_cast<__CVPixelBuffer *>(
        const_cast<void *>(_CFRuntimeCreateInstance(allocator, pixelBufferTypeID(), kFieldsSize, nullptr)));
}

}  // namespace

CF_PRIVATE bool __CVPixelBufferGetDimensions(CFTypeRef object, size_t *width, size_t *height) {
    const __CVPixelBuffer *buffer = asPixelBuffer(object);
    if (buffer == nullptr) return false;
    *width = buffer->width;
    *height = buffer->height;
    return true;
}

CFTypeID CVPixelBufferGetTypeID(void) noexcept {
    return pixelBufferTypeID();
}

CVPixelBufferRef CVPixelBufferRetain(CVPixelBufferRef pixelBuffer) noexcept {
    return CVBufferRetain(pixelBuffer);
}

void CVPixelBufferRelease(CVPixelBufferRef pixelBuffer) noexcept {
    CVBufferRelease(pixelBuffer);
}

CVReturn CVPixelBufferCreate(CFAllocatorRef allocator, size_t width, size_t height, OSType pixelFormatType,
                             CFDictionaryRef pixelBufferAttributes, CVPixelBufferRef *pixelBufferOut) noexcept {
    if (pixelBufferOut == nullptr) return kCVReturnInvalidArgument;
    *pixelBufferOut = nullptr;
    if (width == 0 || height == 0) return kCVReturnInvalidArgument;
    const PixelFormat *format = findFormat(pixelFormatType);
    if (format == nullptr) return kCVReturnInvalidPixelFormat;
    Alignments alignments;
    CVReturn status = readAttributes(pixelBufferAttributes, &alignments);
    if (status != kCVReturnSuccess) return status;
    Layout layout{};
    status = computeLayout(*format, width, height, alignments, &layout);
    if (status != kCVReturnSuccess) return status;

    __CVPixelBuffer *buffer = createInstance(allocator);
    if (buffer == nullptr) return kCVReturnAllocationFailed;
    auto allocationSize = static_cast<CFIndex>(layout.dataSize + alignments.plane);
    buffer->memory = CFAllocatorAllocate(CFGetAllocator(buffer), allocationSize, 0);
    if (buffer->memory == nullptr) {
        CFRelease(buffer);
        return kCVReturnAllocationFailed;
    }
    std::memset(buffer->memory, 0, static_cast<size_t>(allocationSize));
    auto address = reinterpret_cast<uintptr_t>(buffer->memory);
    auto *base = reinterpret_cast<uint8_t *>((address + alignments.plane - 1) & ~(uintptr_t{alignments.plane} - 1));
    buffer->width = width;
    buffer->height = height;
    buffer->pixelFormat = pixelFormatType;
    buffer->planeCount = format->planeCount;
    buffer->dataSize = layout.dataSize;
    for (size_t i = 0; i < layout.planeCount; ++i) {
        buffer->planes[i] = layout.planes[i];
        buffer->planes[i].base = base + layout.offsets[i];
    }
    auto *result = reinterpret_cast<CVPixelBufferRef>(buffer);
    applyAttachmentAttributes(result, pixelBufferAttributes);
    *pixelBufferOut = result;
    return kCVReturnSuccess;
}

CVReturn CVPixelBufferCreateWithBytes(CFAllocatorRef allocator, size_t width, size_t height, OSType pixelFormatType,
                                      void *baseAddress, size_t bytesPerRow,
                                      CVPixelBufferReleaseBytesCallback releaseCallback, void *releaseRefCon,
                                      CFDictionaryRef pixelBufferAttributes,
                                      CVPixelBufferRef *pixelBufferOut) noexcept {
    if (pixelBufferOut == nullptr) return kCVReturnInvalidArgument;
    *pixelBufferOut = nullptr;
    if (width == 0 || height == 0 || baseAddress == nullptr) return kCVReturnInvalidArgument;
    const PixelFormat *format = findFormat(pixelFormatType);
    if (format == nullptr || format->planeCount != 0) return kCVReturnInvalidPixelFormat;
    Alignments ignored;
    CVReturn status = readAttributes(pixelBufferAttributes, &ignored);
    if (status != kCVReturnSuccess) return status;
    bool overflow = false;
    size_t minimum = minimumBytesPerRow(format->planes[0], width, &overflow);
    size_t dataSize = 0;
    if (overflow || __builtin_mul_overflow(bytesPerRow, height, &dataSize)) return kCVReturnInvalidSize;
    if (bytesPerRow < minimum) return kCVReturnInvalidArgument;

    __CVPixelBuffer *buffer = createInstance(allocator);
    if (buffer == nullptr) return kCVReturnAllocationFailed;
    buffer->width = width;
    buffer->height = height;
    buffer->pixelFormat = pixelFormatType;
    buffer->planeCount = 0;
    buffer->dataSize = dataSize;
    buffer->planes[0] = {static_cast<uint8_t *>(baseAddress), width, height, bytesPerRow};
    buffer->releaseCallback = releaseCallback;
    buffer->releaseRefCon = releaseRefCon;
    auto *result = reinterpret_cast<CVPixelBufferRef>(buffer);
    applyAttachmentAttributes(result, pixelBufferAttributes);
    *pixelBufferOut = result;
    return kCVReturnSuccess;
}

CVReturn CVPixelBufferLockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags lockFlags) noexcept {
    __CVPixelBuffer *buffer = asMutablePixelBuffer(pixelBuffer);
    if (buffer == nullptr || (lockFlags & ~CVPixelBufferLockFlags{kCVPixelBufferLock_ReadOnly}) != 0)
        return kCVReturnInvalidArgument;
    uint32_t *count = (lockFlags & kCVPixelBufferLock_ReadOnly) ? &buffer->readOnlyLockCount : &buffer->lockCount;
    __atomic_fetch_add(count, 1u, __ATOMIC_ACQ_REL);
    return kCVReturnSuccess;
}

CVReturn CVPixelBufferUnlockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags unlockFlags) noexcept {
    __CVPixelBuffer *buffer = asMutablePixelBuffer(pixelBuffer);
    if (buffer == nullptr || (unlockFlags & ~CVPixelBufferLockFlags{kCVPixelBufferLock_ReadOnly}) != 0)
        return kCVReturnInvalidArgument;
    uint32_t *count = (unlockFlags & kCVPixelBufferLock_ReadOnly) ? &buffer->readOnlyLockCount : &buffer->lockCount;
    uint32_t held = __atomic_load_n(count, __ATOMIC_ACQUIRE);
    do {
        if (held == 0) return kCVReturnError;
    } while (!__atomic_compare_exchange_n(count, &held, held - 1, true, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE));
    return kCVReturnSuccess;
}

size_t CVPixelBufferGetWidth(CVPixelBufferRef pixelBuffer) noexcept {
    const __CVPixelBuffer *buffer = asPixelBuffer(pixelBuffer);
    return buffer != nullptr ? buffer->width : 0;
}

size_t CVPixelBufferGetHeight(CVPixelBufferRef pixelBuffer) noexcept {
    const __CVPixelBuffer *buffer = asPixelBuffer(pixelBuffer);
    return buffer != nullptr ? buffer->height : 0;
}

OSType CVPixelBufferGetPixelFormatType(CVPixelBufferRef pixelBuffer) noexcept {
    const __CVPixelBuffer *buffer = asPixelBuffer(pixelBuffer);
    return buffer != nullptr ? buffer->pixelFormat : 0;
}

void *CVPixelBufferGetBaseAddress(CVPixelBufferRef pixelBuffer) noexcept {
    const __CVPixelBuffer *buffer = asPixelBuffer(pixelBuffer);
    return buffer != nullptr ? buffer->planes[0].base : nullptr;
}

size_t CVPixelBufferGetBytesPerRow(CVPixelBufferRef pixelBuffer) noexcept {
    const __CVPixelBuffer *buffer = asPixelBuffer(pixelBuffer);
    return buffer != nullptr ? buffer->planes[0].bytesPerRow : 0;
}

size_t CVPixelBufferGetDataSize(CVPixelBufferRef pixelBuffer) noexcept {
    const __CVPixelBuffer *buffer = asPixelBuffer(pixelBuffer);
    return buffer != nullptr ? buffer->dataSize : 0;
}

Boolean CVPixelBufferIsPlanar(CVPixelBufferRef pixelBuffer) noexcept {
    const __CVPixelBuffer *buffer = asPixelBuffer(pixelBuffer);
    return buffer != nullptr && buffer->planeCount != 0;
}

size_t CVPixelBufferGetPlaneCount(CVPixelBufferRef pixelBuffer) noexcept {
    const __CVPixelBuffer *buffer = asPixelBuffer(pixelBuffer);
    return buffer != nullptr ? buffer->planeCount : 0;
}

namespace {

const Plane *planeAt(CVPixelBufferRef pixelBuffer, size_t planeIndex) {
    const __CVPixelBuffer *buffer = asPixelBuffer(pixelBuffer);
    if (buffer == nullptr || planeIndex >= buffer->planeCount) return nullptr;
    return &buffer->planes[planeIndex];
}

}  // namespace

size_t CVPixelBufferGetWidthOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex) noexcept {
    const Plane *plane = planeAt(pixelBuffer, planeIndex);
    return plane != nullptr ? plane->width : 0;
}

size_t CVPixelBufferGetHeightOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex) noexcept {
    const Plane *plane = planeAt(pixelBuffer, planeIndex);
    return plane != nullptr ? plane->height : 0;
}

void *CVPixelBufferGetBaseAddressOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex) noexcept {
    const Plane *plane = planeAt(pixelBuffer, planeIndex);
    return plane != nullptr ? plane->base : nullptr;
}

size_t CVPixelBufferGetBytesPerRowOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex) noexcept {
    const Plane *plane = planeAt(pixelBuffer, planeIndex);
    return plane != nullptr ? plane->bytesPerRow : 0;
}
