/* SPDX-License-Identifier: Apache-2.0 */
/*
 * NAL units and Annex B byte streams: splitting H.264 and HEVC elementary
 * streams into NAL units (start-code delimited or length-prefixed),
 * removing emulation-prevention bytes, turning avcC and hvcC decoder
 * configuration records into an Annex B run of their parameter sets.  (The
 * writer that turns a whole 'avc1'/'hvc1' sample buffer into Annex B is in
 * <Sorvel/SVSampleBuffer.h>.)
 *
 * The enumerators never fail: malformed input ends the walk and the count
 * of units reported so far is returned.  They read only the bytes they are
 * given, hold no state and may be called from any thread at once.  A NULL
 * handler is allowed: the enumerator then only counts.  The handler's
 * pointers point into the caller's data and are valid as long as it is.
 *
 * Statuses: kSVFormatDescriptionError_InvalidParameter (-12710) for bad
 * arguments and unsupported input, kSVFormatDescriptionError_AllocationFailed
 * (-12711) when an allocation fails.
 */
#ifndef SORVEL_SVNALUNIT_H
#define SORVEL_SVNALUNIT_H

#include <Sorvel/SVBase.h>

#include <stddef.h>
#include <stdint.h>

SV_EXTERN_C_BEGIN

/* ==== Enumerating units with a function =================================== */

/* Called once per unit, in stream order, with its first byte, its length in
 * bytes and the caller's refcon. */
typedef void (*SVNALUnitCallback)(const uint8_t *unit, size_t length, void *refcon);

/* Each enumerator has a function form here and a block form below; both walk
 * alike and report the same units.  A NULL callback only counts. */

/* As _SVEnumerateAnnexBNALUnits: units reported with their leading start code
 * of `startCodeLength` bytes. */
SV_EXPORT size_t SVNALUnitEnumerateAnnexB(const uint8_t *data, size_t length, int32_t startCodeLength,
                                          SVNALUnitCallback callback, void *refcon) SV_NOEXCEPT;

/* As _SVEnumerateAnnexBNALUnitsFlexible: 3- or 4-byte start codes, units
 * reported without them. */
SV_EXPORT size_t SVNALUnitEnumerateAnnexBFlexible(const uint8_t *data, size_t length, SVNALUnitCallback callback,
                                                  void *refcon) SV_NOEXCEPT;

/* As _SVEnumerateNALUnits: units preceded by a big-endian length of
 * `lengthPrefixSize` bytes, reported with their prefix. */
SV_EXPORT size_t SVNALUnitEnumerateLengthPrefixed(const uint8_t *data, size_t length, int32_t lengthPrefixSize,
                                                  SVNALUnitCallback callback, void *refcon) SV_NOEXCEPT;

/* ==== Parameter sets of decoder configuration records ======================= */

/* Parameter set `index` of an avcC record (its SPSs, then its PPSs) or of an
 * hvcC record (every unit of every array, in order), each a whole NAL unit
 * without start code, length prefix or type byte, as a decoder or muxer
 * takes it.  Every output is optional; the pointer points into `record`.
 * The record is read strictly: a count or length that runs past its end is
 * an error (logged), never zero-filled.  On success the count and the
 * record's NAL unit header length (1 to 4) are stored even when `index` is
 * past the end, which is kSVFormatDescriptionError_InvalidParameter (-12710),
 * so index 0 with only the count outputs asks how many there are.  NULL or
 * empty records are -12710 too.  Thread-safe; nothing is allocated. */
SV_EXPORT OSStatus SVGetParameterSetFromAVCDecoderConfigurationRecord(
    const uint8_t *record, size_t recordSize, size_t index, const uint8_t **parameterSetPointerOut,
    size_t *parameterSetSizeOut, size_t *parameterSetCountOut, int *nalUnitHeaderLengthOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVGetParameterSetFromHEVCDecoderConfigurationRecord(
    const uint8_t *record, size_t recordSize, size_t index, const uint8_t **parameterSetPointerOut,
    size_t *parameterSetSizeOut, size_t *parameterSetCountOut, int *nalUnitHeaderLengthOut) SV_NOEXCEPT;

/* ==== Enumerating units with a block ====================================== */

#if __BLOCKS__
/* Called once per unit with its first byte and its length in bytes; the
 * return value is ignored. */
typedef int (^SVNALUnitHandler)(const uint8_t *unit, size_t length);

/* Splits an Annex B stream whose start codes are `startCodeLength` bytes
 * long (startCodeLength - 1 zero bytes, then 0x01).  Each unit is reported
 * with its leading start code, up to the next start code (the last one to
 * the end of the data).  Only start codes followed by at least one byte
 * count.  Returns 0 for NULL data, a negative startCodeLength or data not
 * longer than one start code; a startCodeLength below 1 matches at the
 * first byte. */
SV_EXPORT size_t _SVEnumerateAnnexBNALUnits(const uint8_t *data, size_t length, int32_t startCodeLength,
                                            SVNALUnitHandler handler) SV_NOEXCEPT;

/* Splits an Annex B stream with 3- or 4-byte start codes (00 00 01, with an
 * optional zero before it).  Units are reported without their start code;
 * one zero byte before a start code is trimmed from the unit before it;
 * empty units are neither reported nor counted.  Returns 0 for NULL data or
 * length <= 3. */
SV_EXPORT size_t _SVEnumerateAnnexBNALUnitsFlexible(const uint8_t *data, size_t length,
                                                    SVNALUnitHandler handler) SV_NOEXCEPT;

/* Splits a stream of units each preceded by a big-endian length of
 * `lengthPrefixSize` bytes (above 4 only the last four bytes count).  Each
 * unit is reported with its prefix.  The walk stops at a length that
 * overflows, exceeds INT32_MAX or runs past the end.
 * Returns 0 for NULL data, a negative prefix size or one above `length`;
 * with a zero prefix size no unit could advance the walk, so nothing is
 * reported. */
SV_EXPORT size_t _SVEnumerateNALUnits(const uint8_t *data, size_t length, int32_t lengthPrefixSize,
                                      SVNALUnitHandler handler) SV_NOEXCEPT;
#endif

/* Copies `length` bytes from `source` to `destination`, dropping every 0x03
 * preceded in the source by two zero bytes (a dropped 0x03 counts as one of
 * the two for the byte after it, which is never itself dropped).
 * `destination` must hold `length` bytes and may be `source` itself (the
 * copy never writes ahead of what it has read).  Returns the number of
 * bytes written. */
SV_EXPORT size_t _SVUnemulateNALData(const uint8_t *source, size_t length, uint8_t *destination) SV_NOEXCEPT;

/* Makes an Annex B run (4-byte start codes) of the sequence and picture
 * parameter sets of an avcC record.  Bytes missing from a short record read
 * as zero, so a truncated record gives zero-filled output, not an error.
 * Stores the record's NAL unit header length (1 to 4) in
 * `nalUnitHeaderLengthOut` when it is not NULL, and a new mutable data object
 * that the caller releases in `dataOut`.  Statuses: -12710 (NULL dataOut),
 * -12711. */
SV_EXPORT OSStatus _SVCreateConcatenatedParameterSetsFromAVCDecoderConfigurationRecord(
    const uint8_t *record, size_t recordSize, int32_t *nalUnitHeaderLengthOut, CFMutableDataRef *dataOut) SV_NOEXCEPT;

/* The same for an hvcC record: every unit of every array, each written as
 * 00 00 00 01, one byte holding the array's NAL unit type, then the unit's
 * bytes.  Statuses: -12710 (NULL record or dataOut, zero size, a record of
 * 22 bytes or fewer, which is logged), -12711. */
SV_EXPORT OSStatus _SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord(
    const uint8_t *record, size_t recordSize, int32_t *nalUnitHeaderLengthOut, CFMutableDataRef *dataOut) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVNALUNIT_H */
