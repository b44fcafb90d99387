// NAL units and Annex B byte streams.
//
// The enumerators walk caller memory without copying and never fail: a
// malformed stream ends the walk and the count so far is returned.  The
// record converters read through a bit reader that yields zeros past the end
// of the record, so a short record makes zero-filled output rather than an
// over-read.  The sample-buffer encoder measures first and writes second, so
// the caller's allocator is asked once for the exact size.

#include <Block.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>
#include <Sorvel/SVSampleBuffer.h>

#include <cstring>

#include "SVLog.h"
#include "_SVUtilitiesInternal.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/_SVUtilities");

constexpr OSStatus kInvalidParameter = kSVFormatDescriptionError_InvalidParameter;
constexpr OSStatus kAllocationFailed = kSVFormatDescriptionError_AllocationFailed;

constexpr FourCharCode kAVC1 = 0x61766331;  // 'avc1'
constexpr FourCharCode kHVC1 = 0x68766331;  // 'hvc1'

constexpr uint8_t kFourByteStartCode[4] = {0, 0, 0, 1};

// ==== Start codes of any length ==============================================

// True when `n` - 1 zero bytes and a 0x01 start at p; a length below 1 matches
// anywhere.
bool isStartCode(const uint8_t *p, int32_t n) noexcept {
    if (n < 1) return true;
    for (int32_t i = 0; i < n - 1; ++i)
        if (p[i] != 0) return false;
    return p[n - 1] == 1;
}

// The first start code of length n at a position in [from, last], or
// nullptr.  The caller guarantees that last + n - 1 is readable.
const uint8_t *findStartCode(const uint8_t *from, const uint8_t *last, int32_t n) noexcept {
    if (from > last) return nullptr;
    if (n < 1) return from;
    if (n == 3) return sorvel::SVFindThreeByteStartCode(from, last);
    if (n >= 3) {
        // The 00 00 01 tail of a longer code, then the zeros before it.
        const uint8_t *p = from;
        while (p <= last) {
            const uint8_t *tail = sorvel::SVFindThreeByteStartCode(p + (n - 3), last + (n - 3));
            if (!tail) return nullptr;
            const uint8_t *candidate = tail - (n - 3);
            if (isStartCode(candidate, n)) return candidate;
            p = candidate + 1;
        }
        return nullptr;
    }
    // One or two bytes: the 0x01 is the rare byte, so let memchr find it.
    const uint8_t *p = from;
    while (p <= last) {
        const void *hit = std::memchr(p + (n - 1), 1, static_cast<size_t>(last - p) + 1);
        if (!hit) return nullptr;
        const uint8_t *candidate = static_cast<const uint8_t *>(hit) - (n - 1);
        if (isStartCode(candidate, n)) return candidate;
        p = candidate + 1;
    }
    return nullptr;
}

// ==== Length prefixes ========================================================

// The big-endian value of a `size`-byte prefix; above four bytes only the
// last four count.
uint32_t readPrefix(const uint8_t *p, int32_t size) noexcept {
    uint32_t value = 0;
    for (int32_t i = size > 4 ? size - 4 : 0; i < size; ++i) value = (value << 8) | p[i];
    return value;
}

// Walks length-prefixed units, calling visit(unitStart, unitLengthWithPrefix)
// for each; returns the count.  A unit that would take zero bytes (possible
// only with a zero-byte prefix) ends the walk, since it cannot advance it.
template <typename Visit>
size_t walkLengthPrefixed(const uint8_t *data, size_t length, int32_t prefixSize, Visit &&visit) noexcept {
    if (!data || length == 0 || prefixSize < 0 || static_cast<size_t>(prefixSize) > length) return 0;
    const size_t prefix = static_cast<size_t>(prefixSize);
    size_t count = 0;
    size_t position = 0;
    while (position + prefix <= length) {
        const uint64_t unit = static_cast<uint64_t>(readPrefix(data + position, prefixSize)) + prefix;
        if (unit > INT32_MAX || unit > length - position || unit == 0) break;
        visit(data + position, static_cast<size_t>(unit));
        ++count;
        position += static_cast<size_t>(unit);
    }
    return count;
}

// ==== Record bit reader ======================================================

// MSB-first over a record.  A read past the end yields zero bits and does
// not advance, which is what makes short records come out zero-filled.
class BitReader {
public:
    BitReader(const uint8_t *bytes, size_t size) noexcept : bytes_(bytes), bits_(bytes ? size * 8 : 0) {}

    uint32_t read(unsigned count) noexcept {
        uint32_t value = 0;
        for (unsigned i = 0; i < count; ++i) value = (value << 1) | readBit();
        return value;
    }

    // Copies `count` bytes (zeros past the end) to out, or only skips them
    // when out is null.
    void readBytes(uint8_t *out, size_t count) noexcept {
        if ((position_ & 7) == 0) {
            const size_t available = position_ < bits_ ? (bits_ - position_) / 8 : 0;
            const size_t real = count < available ? count : available;
            if (out) {
                if (real) std::memcpy(out, bytes_ + position_ / 8, real);
                if (count > real) std::memset(out + real, 0, count - real);
            }
            position_ += real * 8;
            return;
        }
        for (size_t i = 0; i < count; ++i) {
            const uint8_t byte = static_cast<uint8_t>(read(8));
            if (out) out[i] = byte;
        }
    }

private:
    uint32_t readBit() noexcept {
        if (position_ >= bits_) return 0;
        const uint32_t bit = (bytes_[position_ / 8] >> (7 - (position_ & 7))) & 1;
        ++position_;
        return bit;
    }

    const uint8_t *bytes_;
    size_t bits_;
    size_t position_ = 0;
};

// Walks an avcC record's parameter sets the lenient way (zeros past the
// end): visit(reader, length) must consume `length` bytes.
template <typename Visit>
int32_t walkAVCRecord(const uint8_t *record, size_t size, Visit &&visit) noexcept {
    BitReader reader(record, size);
    reader.read(32);
    const int32_t headerLength = static_cast<int32_t>(reader.read(8) & 3) + 1;
    reader.read(3);
    const uint32_t sequenceSets = reader.read(5);
    for (uint32_t i = 0; i < sequenceSets; ++i) visit(reader, 0, reader.read(16));
    const uint32_t pictureSets = reader.read(8);
    for (uint32_t i = 0; i < pictureSets; ++i) visit(reader, 0, reader.read(16));
    return headerLength;
}

// The same for the arrays of an hvcC record longer than 22 bytes; visit
// also receives the array's NAL unit type.
template <typename Visit>
int32_t walkHEVCRecord(const uint8_t *record, size_t size, Visit &&visit) noexcept {
    const int32_t headerLength = (record[21] & 3) + 1;
    BitReader reader(record, size);
    reader.readBytes(nullptr, 22);
    const uint32_t arrays = reader.read(8);
    for (uint32_t a = 0; a < arrays; ++a) {
        reader.read(2);
        const uint32_t type = reader.read(6);
        const uint32_t units = reader.read(16);
        for (uint32_t u = 0; u < units; ++u) visit(reader, type, reader.read(16));
    }
    return headerLength;
}

// Runs a record walk twice, measuring then writing, into a new mutable data
// object.  `prefixBytes` is what each unit's start code occupies (4, or 5
// with the hvcC type byte).
template <typename Walk>
OSStatus concatenate(Walk &&walk, size_t prefixBytes, int32_t *nalUnitHeaderLengthOut, CFMutableDataRef *dataOut) {
    CFMutableDataRef data = CFDataCreateMutable(nullptr, 0);
    if (!data) return kAllocationFailed;
    size_t total = 0;
    walk([&](BitReader &reader, uint32_t, uint32_t length) {
        reader.readBytes(nullptr, length);
        total += prefixBytes + length;
    });
    CFDataSetLength(data, static_cast<CFIndex>(total));
    uint8_t *out = CFDataGetMutableBytePtr(data);
    const int32_t headerLength = walk([&](BitReader &reader, uint32_t type, uint32_t length) {
        std::memcpy(out, kFourByteStartCode, 4);
        out += 4;
        if (prefixBytes == 5) *out++ = static_cast<uint8_t>(type);
        reader.readBytes(out, length);
        out += length;
    });
    if (nalUnitHeaderLengthOut) *nalUnitHeaderLengthOut = headerLength;
    *dataOut = data;
    return 0;
}

// ==== Sample buffers =========================================================

// The parameter-set getter of the description's codec.
OSStatus parameterSetAtIndex(SVFormatDescriptionRef desc, FourCharCode subtype, size_t index,
                             const uint8_t **bytesOut, size_t *sizeOut, size_t *countOut,
                             int *headerLengthOut) noexcept {
    if (subtype == kHVC1)
        return SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(desc, index, bytesOut, sizeOut, countOut,
                                                                  headerLengthOut);
    return SVVideoFormatDescriptionGetH264ParameterSetAtIndex(desc, index, bytesOut, sizeOut, countOut,
                                                              headerLengthOut);
}

bool isNotSync(SVSampleBufferRef sbuf) noexcept {
    CFArrayRef attachments = SVSampleBufferGetSampleAttachmentsArray(sbuf, false);
    if (!attachments || CFArrayGetCount(attachments) < 1) return false;
    CFTypeRef first = CFArrayGetValueAtIndex(attachments, 0);
    if (!first || CFGetTypeID(first) != CFDictionaryGetTypeID()) return false;
    CFTypeRef notSync = CFDictionaryGetValue(static_cast<CFDictionaryRef>(first), kSVSampleAttachmentKey_NotSync);
    return notSync && CFGetTypeID(notSync) == CFBooleanGetTypeID() &&
           CFBooleanGetValue(static_cast<CFBooleanRef>(notSync));
}

}  // namespace

// ==== Exported entry points ==================================================

extern "C" {

size_t _SVEnumerateAnnexBNALUnits(const uint8_t *data, size_t length, int32_t startCodeLength,
                                  SVNALUnitHandler handler) noexcept {
    const int32_t n = startCodeLength;
    if (!data || length == 0 || n < 0 || length <= static_cast<size_t>(n)) return 0;
    const size_t codeLength = static_cast<size_t>(n);
    const uint8_t *end = data + length;
    // Only start codes followed by at least one byte are found.
    const uint8_t *current = findStartCode(data, end - codeLength - 1, n);
    if (!current) return 0;
    size_t count = 0;
    for (;;) {
        const size_t rest = static_cast<size_t>(end - current);
        const uint8_t *next = nullptr;
        if (rest - 1 > codeLength) next = findStartCode(current + 1, end - codeLength - 1, n);
        if (!next) {
            if (handler) handler(current, rest);
            return count + 1;
        }
        if (handler) handler(current, static_cast<size_t>(next - current));
        ++count;
        current = next;
    }
}

size_t _SVEnumerateAnnexBNALUnitsFlexible(const uint8_t *data, size_t length, SVNALUnitHandler handler) noexcept {
    if (!data || length <= 3) return 0;
    const uint8_t *end = data + length;
    const uint8_t *current = sorvel::SVFindThreeByteStartCode(data, end - 4);
    if (!current) return 0;
    size_t count = 0;
    for (;;) {
        const uint8_t *payload = current + 3;
        // The next start code may occupy the last three bytes; it then ends
        // the last unit and opens an empty one.
        const uint8_t *next = static_cast<size_t>(end - current) > 5
                                  ? sorvel::SVFindThreeByteStartCode(payload, end - 3)
                                  : nullptr;
        if (!next) {
            if (payload < end) {
                if (handler) handler(payload, static_cast<size_t>(end - payload));
                ++count;
            }
            return count;
        }
        // One zero before the next start code is its fourth byte.
        size_t unit = static_cast<size_t>(next - payload);
        if (unit > 0 && next[-1] == 0) --unit;
        if (unit > 0) {
            if (handler) handler(payload, unit);
            ++count;
        }
        current = next;
    }
}

size_t _SVEnumerateNALUnits(const uint8_t *data, size_t length, int32_t lengthPrefixSize,
                            SVNALUnitHandler handler) noexcept {
    return walkLengthPrefixed(data, length, lengthPrefixSize, [&](const uint8_t *unit, size_t size) {
        if (handler) handler(unit, size);
    });
}

size_t _SVUnemulateNALData(const uint8_t *source, size_t length, uint8_t *destination) noexcept {
    if (!source || !destination || length == 0) return 0;
    size_t written = 0;
    // The two bytes read before the current one; non-zero to start with so a
    // leading 00 03 is kept.
    uint8_t older = 1;
    uint8_t newer = 1;
    for (size_t i = 0; i < length; ++i) {
        const uint8_t byte = source[i];
        if (byte == 3 && older == 0 && newer == 0) {
            // Dropped.  The byte after it is copied whatever it is.
            older = newer;
            newer = byte;
            if (++i == length) break;
            const uint8_t after = source[i];
            destination[written++] = after;
            older = newer;
            newer = after;
            continue;
        }
        destination[written++] = byte;
        older = newer;
        newer = byte;
    }
    return written;
}

OSStatus _SVCreateConcatenatedParameterSetsFromAVCDecoderConfigurationRecord(const uint8_t *record,
                                                                             size_t recordSize,
                                                                             int32_t *nalUnitHeaderLengthOut,
                                                                             CFMutableDataRef *dataOut) noexcept {
    if (!dataOut) return kInvalidParameter;
    return concatenate([&](auto &&visit) { return walkAVCRecord(record, recordSize, visit); }, 4,
                       nalUnitHeaderLengthOut, dataOut);
}

OSStatus _SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord(const uint8_t *record,
                                                                              size_t recordSize,
                                                                              int32_t *nalUnitHeaderLengthOut,
                                                                              CFMutableDataRef *dataOut) noexcept {
    if (!record || recordSize == 0 || !dataOut) return kInvalidParameter;
    if (recordSize <= 22) {
        SV_LOG(3, "_SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord", __LINE__,
               "HEVC configuration record is too short");
        return kInvalidParameter;
    }
    return concatenate([&](auto &&visit) { return walkHEVCRecord(record, recordSize, visit); }, 5,
                       nalUnitHeaderLengthOut, dataOut);
}

OSStatus _SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer(SVSampleBufferRef sampleBuffer,
                                                        int32_t includeParameterSets,
                                                        const uint8_t *nalTypesToSkip, size_t skipCount,
                                                        SVSampleBufferPacketAllocator allocator) noexcept {
    static constexpr const char kFunction[] = "_SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer";
    if (!sampleBuffer || !allocator) return kInvalidParameter;
    SVFormatDescriptionRef desc = SVSampleBufferGetFormatDescription(sampleBuffer);
    const FourCharCode subtype = desc ? SVFormatDescriptionGetMediaSubType(desc) : 0;
    if (subtype != kAVC1 && subtype != kHVC1) return kInvalidParameter;
    const bool sync = !isNotSync(sampleBuffer);

    SVBlockBufferRef dataBuffer = SVSampleBufferGetDataBuffer(sampleBuffer);
    char *bytes = nullptr;
    if (!dataBuffer || SVBlockBufferGetDataPointer(dataBuffer, 0, nullptr, nullptr, &bytes) != 0 || !bytes) {
        SV_LOG(3, kFunction, __LINE__, "Unable to get input data");
        return kInvalidParameter;
    }
    const size_t length = SVBlockBufferGetDataLength(dataBuffer);
    if (!SVBlockBufferIsRangeContiguous(dataBuffer, 0, length)) {
        SV_LOG(3, kFunction, __LINE__, "Non-contiguous block buffers not yet supported");
        return kInvalidParameter;
    }
    const uint8_t *input = reinterpret_cast<const uint8_t *>(bytes);

    int headerLength = 0;
    parameterSetAtIndex(desc, subtype, 0, nullptr, nullptr, nullptr, &headerLength);

    bool skip[32] = {};
    for (size_t i = 0; nalTypesToSkip && i < skipCount; ++i)
        if (nalTypesToSkip[i] < 32) skip[nalTypesToSkip[i]] = true;

    uint8_t *out = nullptr;
    size_t total = 0;
    for (int pass = 0; pass < 2; ++pass) {
        if (pass == 1) {
            out = static_cast<uint8_t *>(allocator(total));
            if (!out) return kAllocationFailed;
        }
        if (includeParameterSets == 1 && sync) {
            size_t count = 0;
            OSStatus status = parameterSetAtIndex(desc, subtype, 0, nullptr, nullptr, &count, nullptr);
            if (status != 0) {
                SV_LOG_STATUS(3, kFunction, __LINE__, status, "Failed to get format description's parameter sets: %s");
                return status;
            }
            for (size_t i = 0; i < count; ++i) {
                const uint8_t *set = nullptr;
                size_t setSize = 0;
                status = parameterSetAtIndex(desc, subtype, i, &set, &setSize, nullptr, nullptr);
                if (status != 0) {
                    SV_LOG_STATUS(3, kFunction, __LINE__, status,
                                  "Failed to get format description's parameter sets: %s");
                    return status;
                }
                if (pass == 0) {
                    total += 4 + setSize;
                } else {
                    std::memcpy(out, kFourByteStartCode, 4);
                    if (setSize) std::memcpy(out + 4, set, setSize);
                    out += 4 + setSize;
                }
            }
        }
        const size_t prefix = headerLength > 0 ? static_cast<size_t>(headerLength) : 0;
        walkLengthPrefixed(input, length, headerLength, [&](const uint8_t *unit, size_t size) {
            const size_t payload = size - prefix;
            if (payload == 0 || skip[unit[prefix] & 0x1F]) return;
            if (pass == 0) {
                total += payload + 4;
            } else {
                std::memcpy(out, kFourByteStartCode, 4);
                std::memcpy(out + 4, unit + prefix, payload);
                out += payload + 4;
            }
        });
    }
    return 0;
}

}  // extern "C"
