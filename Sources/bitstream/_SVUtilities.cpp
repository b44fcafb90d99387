// SPDX-License-Identifier: Apache-2.0
// NAL units and Annex B byte streams.
//
// The enumerators walk caller memory without copying and never fail: a
// malformed stream ends the walk and the count so far is returned.  The
// record converters read through a bit reader that yields zeros past the end
// of the record, so a short record makes zero-filled output rather than an
// over-read.  Nothing here knows of samples: the writer that turns a sample
// buffer into Annex B lives with the sample buffers.

#include <Block.h>
#include <Sorvel/SVNALUnit.h>

#include <cstring>

#include "bitstream/SVBitReader.h"
#include "bitstream/_SVUtilitiesInternal.h"
#include "core/SVLog.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/_SVUtilities");

using sorvel::kFourByteStartCode;
using sorvel::SVBitReader;
using sorvel::walkLengthPrefixed;

// The format-description family's codes, which these calls share; the bytes
// layer sits below that family, so the values are restated and the tests
// check that they agree.
constexpr OSStatus kInvalidParameter = -12710;
constexpr OSStatus kAllocationFailed = -12711;

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

// Walks an avcC record's parameter sets the lenient way (zeros past the
// end): visit(reader, length) must consume `length` bytes.
template <typename Visit>
int32_t walkAVCRecord(const uint8_t *record, size_t size, Visit &&visit) noexcept {
    SVBitReader reader(record, size);
    reader.bits(32);
    const int32_t headerLength = static_cast<int32_t>(reader.bits(8) & 3) + 1;
    reader.bits(3);
    const uint32_t sequenceSets = reader.bits(5);
    for (uint32_t i = 0; i < sequenceSets; ++i) visit(reader, 0, reader.bits(16));
    const uint32_t pictureSets = reader.bits(8);
    for (uint32_t i = 0; i < pictureSets; ++i) visit(reader, 0, reader.bits(16));
    return headerLength;
}

// The same for the arrays of an hvcC record longer than 22 bytes; visit
// also receives the array's NAL unit type.
template <typename Visit>
int32_t walkHEVCRecord(const uint8_t *record, size_t size, Visit &&visit) noexcept {
    const int32_t headerLength = (record[21] & 3) + 1;
    SVBitReader reader(record, size);
    reader.readBytes(nullptr, 22);
    const uint32_t arrays = reader.bits(8);
    for (uint32_t a = 0; a < arrays; ++a) {
        reader.bits(2);
        const uint32_t type = reader.bits(6);
        const uint32_t units = reader.bits(16);
        for (uint32_t u = 0; u < units; ++u) visit(reader, type, reader.bits(16));
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
    walk([&](SVBitReader &reader, uint32_t, uint32_t length) {
        reader.readBytes(nullptr, length);
        total += prefixBytes + length;
    });
    CFDataSetLength(data, static_cast<CFIndex>(total));
    uint8_t *out = CFDataGetMutableBytePtr(data);
    const int32_t headerLength = walk([&](SVBitReader &reader, uint32_t type, uint32_t length) {
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

// ==== The walks behind both handler forms ===================================

// Each calls visit(unit, length) per unit and returns the count; the block
// and function-pointer entry points differ only in how they call back.
template <typename Visit>
size_t walkAnnexB(const uint8_t *data, size_t length, int32_t startCodeLength, Visit &&visit) noexcept {
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
            visit(current, rest);
            return count + 1;
        }
        visit(current, static_cast<size_t>(next - current));
        ++count;
        current = next;
    }
}

template <typename Visit>
size_t walkAnnexBFlexible(const uint8_t *data, size_t length, Visit &&visit) noexcept {
    if (!data || length <= 3) return 0;
    const uint8_t *end = data + length;
    const uint8_t *current = sorvel::SVFindThreeByteStartCode(data, end - 4);
    if (!current) return 0;
    size_t count = 0;
    for (;;) {
        const uint8_t *payload = current + 3;
        // The next start code may occupy the last three bytes; it then ends
        // the last unit and opens an empty one.
        const uint8_t *next =
            static_cast<size_t>(end - current) > 5 ? sorvel::SVFindThreeByteStartCode(payload, end - 3) : nullptr;
        if (!next) {
            if (payload < end) {
                visit(payload, static_cast<size_t>(end - payload));
                ++count;
            }
            return count;
        }
        // One zero before the next start code is its fourth byte.
        size_t unit = static_cast<size_t>(next - payload);
        if (unit > 0 && next[-1] == 0) --unit;
        if (unit > 0) {
            visit(payload, unit);
            ++count;
        }
        current = next;
    }
}

// ==== Strict record reading ================================================

// One parameter set of a decoder configuration record, found by a strict
// walk: every count and length must fit inside the record.
struct RecordUnit {
    const uint8_t *bytes = nullptr;
    size_t size = 0;
};

uint32_t readBE16(const uint8_t *p) noexcept {
    return (static_cast<uint32_t>(p[0]) << 8) | p[1];
}

// Calls visit(unit) for `units` length-prefixed units from *position on;
// false when one does not fit in the record.
template <typename Visit>
bool readRecordUnits(const uint8_t *record, size_t size, size_t &position, uint32_t units, Visit &&visit) noexcept {
    for (uint32_t i = 0; i < units; ++i) {
        if (size - position < 2) return false;
        const size_t length = readBE16(record + position);
        position += 2;
        if (size - position < length) return false;
        visit(RecordUnit{record + position, length});
        position += length;
    }
    return true;
}

// Calls visit(unit) for each parameter set of an avcC record in order (SPSs,
// then PPSs); false when the record is too short for what it announces.
template <typename Visit>
bool readAVCRecord(const uint8_t *record, size_t size, int *headerLengthOut, Visit &&visit) noexcept {
    if (size < 7) return false;
    *headerLengthOut = (record[4] & 3) + 1;
    size_t position = 5;
    for (int group = 0; group < 2; ++group) {
        if (position >= size) return false;
        const uint32_t units = group == 0 ? (record[position] & 0x1F) : record[position];
        ++position;
        if (!readRecordUnits(record, size, position, units, visit)) return false;
    }
    return true;
}

// The same over the arrays of an hvcC record.
template <typename Visit>
bool readHEVCRecord(const uint8_t *record, size_t size, int *headerLengthOut, Visit &&visit) noexcept {
    if (size < 23) return false;
    *headerLengthOut = (record[21] & 3) + 1;
    const uint32_t arrays = record[22];
    size_t position = 23;
    for (uint32_t a = 0; a < arrays; ++a) {
        if (size - position < 3) return false;
        const uint32_t units = readBE16(record + position + 1);
        position += 3;
        if (!readRecordUnits(record, size, position, units, visit)) return false;
    }
    return true;
}

template <typename Read>
OSStatus parameterSetFromRecord(const sorvel::SVLogSite &site, const uint8_t *record, size_t recordSize, size_t index,
                                const uint8_t **pointerOut, size_t *sizeOut, size_t *countOut, int *headerLengthOut,
                                Read &&read) noexcept {
    if (!record || recordSize == 0) return kInvalidParameter;
    size_t count = 0;
    RecordUnit found;
    int headerLength = 0;
    if (!read(record, recordSize, &headerLength, [&](RecordUnit unit) {
            if (count == index) found = unit;
            ++count;
        })) {
        SV_LOG_SITE(site, 3, "Decoder configuration record of %zu bytes is truncated", recordSize);
        return kInvalidParameter;
    }
    if (countOut) *countOut = count;
    if (headerLengthOut) *headerLengthOut = headerLength;
    if (index >= count) return kInvalidParameter;
    if (pointerOut) *pointerOut = found.bytes;
    if (sizeOut) *sizeOut = found.size;
    return 0;
}

}  // namespace

// ==== Exported entry points ==================================================

extern "C" {

size_t _SVEnumerateAnnexBNALUnits(const uint8_t *data, size_t length, int32_t startCodeLength,
                                  SVNALUnitHandler handler) noexcept {
    return walkAnnexB(data, length, startCodeLength, [&](const uint8_t *unit, size_t size) {
        if (handler) handler(unit, size);
    });
}

size_t _SVEnumerateAnnexBNALUnitsFlexible(const uint8_t *data, size_t length, SVNALUnitHandler handler) noexcept {
    return walkAnnexBFlexible(data, length, [&](const uint8_t *unit, size_t size) {
        if (handler) handler(unit, size);
    });
}

size_t _SVEnumerateNALUnits(const uint8_t *data, size_t length, int32_t lengthPrefixSize,
                            SVNALUnitHandler handler) noexcept {
    return walkLengthPrefixed(data, length, lengthPrefixSize, [&](const uint8_t *unit, size_t size) {
        if (handler) handler(unit, size);
    });
}

size_t SVNALUnitEnumerateAnnexB(const uint8_t *data, size_t length, int32_t startCodeLength, SVNALUnitCallback callback,
                                void *refcon) noexcept {
    return walkAnnexB(data, length, startCodeLength, [&](const uint8_t *unit, size_t size) {
        if (callback) callback(unit, size, refcon);
    });
}

size_t SVNALUnitEnumerateAnnexBFlexible(const uint8_t *data, size_t length, SVNALUnitCallback callback,
                                        void *refcon) noexcept {
    return walkAnnexBFlexible(data, length, [&](const uint8_t *unit, size_t size) {
        if (callback) callback(unit, size, refcon);
    });
}

size_t SVNALUnitEnumerateLengthPrefixed(const uint8_t *data, size_t length, int32_t lengthPrefixSize,
                                        SVNALUnitCallback callback, void *refcon) noexcept {
    return walkLengthPrefixed(data, length, lengthPrefixSize, [&](const uint8_t *unit, size_t size) {
        if (callback) callback(unit, size, refcon);
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

OSStatus _SVCreateConcatenatedParameterSetsFromAVCDecoderConfigurationRecord(const uint8_t *record, size_t recordSize,
                                                                             int32_t *nalUnitHeaderLengthOut,
                                                                             CFMutableDataRef *dataOut) noexcept {
    if (!dataOut) return kInvalidParameter;
    return concatenate([&](auto &&visit) { return walkAVCRecord(record, recordSize, visit); }, 4,
                       nalUnitHeaderLengthOut, dataOut);
}

OSStatus _SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord(const uint8_t *record, size_t recordSize,
                                                                              int32_t *nalUnitHeaderLengthOut,
                                                                              CFMutableDataRef *dataOut) noexcept {
    if (!record || recordSize == 0 || !dataOut) return kInvalidParameter;
    if (recordSize <= 22) {
        SV_LOG_HERE(3, "HEVC configuration record is too short");
        return kInvalidParameter;
    }
    return concatenate([&](auto &&visit) { return walkHEVCRecord(record, recordSize, visit); }, 5,
                       nalUnitHeaderLengthOut, dataOut);
}

OSStatus SVGetParameterSetFromAVCDecoderConfigurationRecord(const uint8_t *record, size_t recordSize, size_t index,
                                                            const uint8_t **parameterSetPointerOut,
                                                            size_t *parameterSetSizeOut, size_t *parameterSetCountOut,
                                                            int *nalUnitHeaderLengthOut) noexcept {
    return parameterSetFromRecord(SV_HERE, record, recordSize, index, parameterSetPointerOut, parameterSetSizeOut,
                                  parameterSetCountOut, nalUnitHeaderLengthOut,
                                  [](auto... args) { return readAVCRecord(args...); });
}

OSStatus SVGetParameterSetFromHEVCDecoderConfigurationRecord(const uint8_t *record, size_t recordSize, size_t index,
                                                             const uint8_t **parameterSetPointerOut,
                                                             size_t *parameterSetSizeOut, size_t *parameterSetCountOut,
                                                             int *nalUnitHeaderLengthOut) noexcept {
    return parameterSetFromRecord(SV_HERE, record, recordSize, index, parameterSetPointerOut, parameterSetSizeOut,
                                  parameterSetCountOut, nalUnitHeaderLengthOut,
                                  [](auto... args) { return readHEVCRecord(args...); });
}

}  // extern "C"
