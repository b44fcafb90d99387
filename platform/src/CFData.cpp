// SPDX-License-Identifier: Apache-2.0
// Immutable and mutable byte buffers.
//
// Three storage kinds:
// - inline: an immutable copy keeps its bytes right after its fields, in the
//   instance's own allocation (one allocation per object);
// - external: CFDataCreateWithBytesNoCopy keeps the caller's bytes and hands
//   them to the bytes deallocator (retained here) when finalized;
// - mutable: a separate buffer from the instance's allocator, grown
//   geometrically, up to the capacity limit given at creation if any.
//
// Misuse that would corrupt memory (a range outside the data, growing past
// the capacity limit, mutating immutable data) is a fatal stop, and so is
// running out of memory while mutating: the mutation calls have no way to
// report failure, and carrying on with the old contents would silently lose
// the caller's data.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "CFInternal.h"

#define CF_SOURCE_PATH "CoreFoundation/CFData"

namespace {

enum class Storage : uint8_t { Inline, External, Mutable };

}  // namespace

struct __CFData {
    CFRuntimeBase base;
    UInt8 *bytes;  // NULL only while empty
    CFIndex length;
    CFIndex allocated;                // mutable: bytes allocated for `bytes`
    CFIndex maxLength;                // mutable: capacity limit, 0 for none
    CFAllocatorRef bytesDeallocator;  // external: retained; NULL never frees
    Storage storage;
    // Inline bytes follow.
};

namespace {

constexpr CFIndex kFieldsSize = sizeof(__CFData) - sizeof(CFRuntimeBase);
constexpr CFIndex kMaxIndex = std::numeric_limits<CFIndex>::max();
// Data longer than this hashes its first kHashPrefix bytes and its length
// only, so hashing a large buffer stays cheap; equal data still hash alike.
constexpr CFIndex kHashPrefix = 1024;
// Descriptions spell out short data whole; longer data show this many bytes
// from each end.
constexpr CFIndex kDescribeWhole = 24;
constexpr CFIndex kDescribeHead = 16;
constexpr CFIndex kDescribeTail = 8;

// What GetBytePtr returns for empty data that owns no buffer, so callers may
// pass it to memcpy with a zero length.
UInt8 gEmptyBytes[1];

void validateRange(CFDataRef data, CFRange range, const char *function) {
    if (range.location < 0 || range.length < 0 || range.location > data->length ||
        range.length > data->length - range.location)
        __CFFatal(function, CF_SOURCE_PATH, __LINE__, "range {%ld, %ld} is outside data of length %ld", range.location,
                  range.length, data->length);
}

void validateMutable(CFDataRef data, const char *function) {
    __CFValidate(data, kCFDataTypeID, function);
    if (data->storage != Storage::Mutable)
        __CFFatal(function, CF_SOURCE_PATH, __LINE__, "data %p is immutable", static_cast<const void *>(data));
}

// Makes room for `needed` bytes, growing geometrically (clamped to the
// capacity limit, which the caller has already checked `needed` against).
void reserve(CFMutableDataRef data, CFIndex needed, const char *function) {
    if (needed <= data->allocated) return;
    CFIndex target = data->allocated > kMaxIndex / 2 ? kMaxIndex : data->allocated * 2;
    if (target < 16) target = 16;
    if (target < needed) target = needed;
    if (data->maxLength != 0 && target > data->maxLength) target = data->maxLength;
    CFAllocatorRef allocator = CFGetAllocator(data);
    void *grown = data->bytes ? CFAllocatorReallocate(allocator, data->bytes, target, 0)
                              : CFAllocatorAllocate(allocator, target, 0);
    if (grown == nullptr && data->bytes != nullptr) {
        // The allocator may have no reallocate callback at all.
        grown = CFAllocatorAllocate(allocator, target, 0);
        if (grown != nullptr) {
            std::memcpy(grown, data->bytes, static_cast<size_t>(data->length));
            CFAllocatorDeallocate(allocator, data->bytes);
        }
    }
    if (grown == nullptr)
        __CFFatal(function, CF_SOURCE_PATH, __LINE__, "out of memory growing data %p to %ld bytes",
                  static_cast<void *>(data), target);
    data->bytes = static_cast<UInt8 *>(grown);
    data->allocated = target;
}

void checkLimit(CFMutableDataRef data, CFIndex newLength, const char *function) {
    if (data->maxLength != 0 && newLength > data->maxLength)
        __CFFatal(function, CF_SOURCE_PATH, __LINE__, "length %ld exceeds the capacity %ld of data %p", newLength,
                  data->maxLength, static_cast<void *>(data));
}

void setLength(CFMutableDataRef data, CFIndex length, const char *function) {
    checkLimit(data, length, function);
    reserve(data, length, function);
    // Bytes past the old length may be stale from an earlier shrink.
    if (length > data->length) std::memset(data->bytes + data->length, 0, static_cast<size_t>(length - data->length));
    data->length = length;
}

void replaceBytes(CFMutableDataRef data, CFRange range, const UInt8 *newBytes, CFIndex newLength,
                  const char *function) {
    validateRange(data, range, function);
    if (newLength < 0) __CFFatal(function, CF_SOURCE_PATH, __LINE__, "negative length %ld", newLength);
    if (newLength > 0 && newBytes == nullptr) __CFFatal(function, CF_SOURCE_PATH, __LINE__, "bytes must not be NULL");
    CFIndex kept = data->length - range.length;
    if (newLength > kMaxIndex - kept)
        __CFFatal(function, CF_SOURCE_PATH, __LINE__, "length overflows adding %ld bytes", newLength);
    CFIndex newTotal = kept + newLength;
    checkLimit(data, newTotal, function);

    // The new bytes may come from this very buffer (appending a piece of
    // itself); growing may move it and shifting the tail may overwrite them.
    UInt8 *copy = nullptr;
    auto source = reinterpret_cast<uintptr_t>(newBytes);
    auto start = reinterpret_cast<uintptr_t>(data->bytes);
    if (newLength > 0 && data->bytes != nullptr && source >= start &&
        source < start + static_cast<uintptr_t>(data->allocated)) {
        copy = static_cast<UInt8 *>(std::malloc(static_cast<size_t>(newLength)));
        if (copy == nullptr) __CFFatal(function, CF_SOURCE_PATH, __LINE__, "out of memory");
        std::memcpy(copy, newBytes, static_cast<size_t>(newLength));
        newBytes = copy;
    }
    reserve(data, newTotal, function);
    CFIndex tail = data->length - range.location - range.length;
    if (tail > 0 && newLength != range.length)
        std::memmove(data->bytes + range.location + newLength, data->bytes + range.location + range.length,
                     static_cast<size_t>(tail));
    if (newLength > 0) std::memcpy(data->bytes + range.location, newBytes, static_cast<size_t>(newLength));
    data->length = newTotal;
    std::free(copy);
}

__CFData *createInstance(CFAllocatorRef allocator, CFIndex extraBytes) {
    return static_cast<__CFData *>(
        const_cast<void *>(_CFRuntimeCreateInstance(allocator, kCFDataTypeID, kFieldsSize + extraBytes, nullptr)));
}

CFDataRef createInline(CFAllocatorRef allocator, const UInt8 *bytes, CFIndex length, const char *function) {
    if (length < 0) __CFFatal(function, CF_SOURCE_PATH, __LINE__, "negative length %ld", length);
    if (length > 0 && bytes == nullptr) __CFFatal(function, CF_SOURCE_PATH, __LINE__, "bytes must not be NULL");
    if (length > kMaxIndex - kFieldsSize) return nullptr;
    __CFData *data = createInstance(allocator, length);
    if (data == nullptr) return nullptr;
    data->storage = Storage::Inline;
    data->bytes = reinterpret_cast<UInt8 *>(data + 1);
    data->length = length;
    if (length > 0) std::memcpy(data->bytes, bytes, static_cast<size_t>(length));
    return data;
}

CFMutableDataRef createMutable(CFAllocatorRef allocator, CFIndex capacity, CFDataRef source, const char *function) {
    if (capacity < 0) __CFFatal(function, CF_SOURCE_PATH, __LINE__, "negative capacity %ld", capacity);
    CFIndex length = source ? source->length : 0;
    if (capacity != 0 && length > capacity)
        __CFFatal(function, CF_SOURCE_PATH, __LINE__, "data of length %ld exceeds the capacity %ld", length, capacity);
    __CFData *data = createInstance(allocator, 0);
    if (data == nullptr) return nullptr;
    data->storage = Storage::Mutable;
    data->maxLength = capacity;
    if (length > 0) {
        // Allocated here rather than through reserve(), which treats failure
        // as fatal: a failed creation returns NULL.
        void *buffer = CFAllocatorAllocate(CFGetAllocator(data), length, 0);
        if (buffer == nullptr) {
            CFRelease(data);
            return nullptr;
        }
        data->bytes = static_cast<UInt8 *>(buffer);
        data->allocated = length;
        data->length = length;
        std::memcpy(data->bytes, source->bytes, static_cast<size_t>(length));
    }
    return data;
}

void appendHex(std::string &out, const UInt8 *bytes, CFIndex count) {
    static const char kDigits[] = "0123456789abcdef";
    for (CFIndex i = 0; i < count; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 0xF];
    }
}

// ---- class callbacks ------------------------------------------------------

void dataFinalize(CFTypeRef cf) {
    auto *data = static_cast<__CFData *>(const_cast<void *>(cf));
    switch (data->storage) {
        case Storage::Inline:
            break;
        case Storage::External:
            if (data->bytesDeallocator != nullptr) {
                if (data->bytes != nullptr) CFAllocatorDeallocate(data->bytesDeallocator, data->bytes);
                CFRelease(data->bytesDeallocator);
            }
            break;
        case Storage::Mutable:
            if (data->bytes != nullptr) CFAllocatorDeallocate(CFGetAllocator(cf), data->bytes);
            break;
    }
}

Boolean dataEqual(CFTypeRef cf1, CFTypeRef cf2) {
    auto a = static_cast<CFDataRef>(cf1), b = static_cast<CFDataRef>(cf2);
    return a->length == b->length && (a->length == 0 || std::memcmp(a->bytes, b->bytes, size_t(a->length)) == 0);
}

CFHashCode dataHash(CFTypeRef cf) {
    auto data = static_cast<CFDataRef>(cf);
    if (data->length == 0) return __CFHashBytes(gEmptyBytes, 0);
    if (data->length <= kHashPrefix) return __CFHashBytes(data->bytes, static_cast<size_t>(data->length));
    return __CFHashMix(__CFHashBytes(data->bytes, kHashPrefix) ^ static_cast<uint64_t>(data->length));
}

CFStringRef dataCopyDescription(CFTypeRef cf) {
    auto data = static_cast<CFDataRef>(cf);
    char header[128];
    std::snprintf(header, sizeof header, "<CFData %p [%p]>{length = %ld, bytes = 0x", cf,
                  static_cast<const void *>(CFGetAllocator(cf)), data->length);
    std::string text = header;
    if (data->length <= kDescribeWhole) {
        appendHex(text, data->bytes, data->length);
    } else {
        appendHex(text, data->bytes, kDescribeHead);
        text += " ... ";
        appendHex(text, data->bytes + data->length - kDescribeTail, kDescribeTail);
    }
    text += "}";
    return CFStringCreateWithBytes(kCFAllocatorSystemDefault, reinterpret_cast<const UInt8 *>(text.data()),
                                   static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
}

}  // namespace

const CFRuntimeClass __CFDataClass = {
    0, "CFData", nullptr, nullptr, dataFinalize, dataEqual, dataHash, nullptr, dataCopyDescription,
};

extern "C" {

CFTypeID CFDataGetTypeID(void) noexcept {
    return kCFDataTypeID;
}

CFDataRef CFDataCreate(CFAllocatorRef allocator, const UInt8 *bytes, CFIndex length) noexcept {
    return createInline(allocator, bytes, length, __func__);
}

CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef allocator, const UInt8 *bytes, CFIndex length,
                                      CFAllocatorRef bytesDeallocator) noexcept {
    if (length < 0) CF_FATAL("negative length %ld", length);
    if (length > 0 && bytes == nullptr) CF_FATAL("bytes must not be NULL");
    __CFData *data = createInstance(allocator, 0);
    if (data == nullptr) return nullptr;
    data->storage = Storage::External;
    data->bytes = const_cast<UInt8 *>(bytes);
    data->length = length;
    // Resolved now: "the default allocator" is the one in force at creation.
    if (bytesDeallocator != kCFAllocatorNull)
        data->bytesDeallocator = static_cast<CFAllocatorRef>(CFRetain(__CFResolveAllocator(bytesDeallocator)));
    return data;
}

CFDataRef CFDataCreateCopy(CFAllocatorRef allocator, CFDataRef theData) noexcept {
    CF_VALIDATE(theData, kCFDataTypeID);
    // Immutable data that owns its bytes can be shared when the caller asked
    // for the allocator it already lives in.  Bytes borrowed through
    // kCFAllocatorNull are copied: callers wrap a transient buffer and copy
    // it precisely so the result outlives that buffer.
    bool ownsBytes = theData->storage == Storage::Inline ||
                     (theData->storage == Storage::External && theData->bytesDeallocator != nullptr);
    if (ownsBytes && __CFResolveAllocator(allocator) == CFGetAllocator(theData))
        return static_cast<CFDataRef>(CFRetain(theData));
    return createInline(allocator, theData->bytes, theData->length, __func__);
}

CFMutableDataRef CFDataCreateMutable(CFAllocatorRef allocator, CFIndex capacity) noexcept {
    return createMutable(allocator, capacity, nullptr, __func__);
}

CFMutableDataRef CFDataCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity, CFDataRef theData) noexcept {
    CF_VALIDATE(theData, kCFDataTypeID);
    return createMutable(allocator, capacity, theData, __func__);
}

CFIndex CFDataGetLength(CFDataRef theData) noexcept {
    CF_VALIDATE(theData, kCFDataTypeID);
    return theData->length;
}

const UInt8 *CFDataGetBytePtr(CFDataRef theData) noexcept {
    CF_VALIDATE(theData, kCFDataTypeID);
    return theData->bytes ? theData->bytes : gEmptyBytes;
}

UInt8 *CFDataGetMutableBytePtr(CFMutableDataRef theData) noexcept {
    validateMutable(theData, __func__);
    return theData->bytes ? theData->bytes : gEmptyBytes;
}

void CFDataGetBytes(CFDataRef theData, CFRange range, UInt8 *buffer) noexcept {
    CF_VALIDATE(theData, kCFDataTypeID);
    validateRange(theData, range, __func__);
    if (range.length == 0) return;
    CF_REQUIRE(buffer, "buffer");
    std::memcpy(buffer, theData->bytes + range.location, static_cast<size_t>(range.length));
}

void CFDataSetLength(CFMutableDataRef theData, CFIndex length) noexcept {
    validateMutable(theData, __func__);
    if (length < 0) CF_FATAL("negative length %ld", length);
    setLength(theData, length, __func__);
}

void CFDataIncreaseLength(CFMutableDataRef theData, CFIndex extraLength) noexcept {
    validateMutable(theData, __func__);
    if (extraLength < 0) CF_FATAL("negative extra length %ld", extraLength);
    if (extraLength > kMaxIndex - theData->length) CF_FATAL("length overflows adding %ld bytes", extraLength);
    setLength(theData, theData->length + extraLength, __func__);
}

void CFDataAppendBytes(CFMutableDataRef theData, const UInt8 *bytes, CFIndex length) noexcept {
    validateMutable(theData, __func__);
    replaceBytes(theData, CFRangeMake(theData->length, 0), bytes, length, __func__);
}

void CFDataReplaceBytes(CFMutableDataRef theData, CFRange range, const UInt8 *newBytes, CFIndex newLength) noexcept {
    validateMutable(theData, __func__);
    replaceBytes(theData, range, newBytes, newLength, __func__);
}

void CFDataDeleteBytes(CFMutableDataRef theData, CFRange range) noexcept {
    validateMutable(theData, __func__);
    replaceBytes(theData, range, nullptr, 0, __func__);
}

}  // extern "C"
