// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary bytes to the length-prefixed enumerator and, as the data of
// an 'avc1' or 'hvc1' sample buffer, to the Annex B encoder.  Checks: units
// are contiguous from the start and inside the input, the count matches the
// reports, and the encoder asks for exactly the size it fills, which is the
// parameter sets (on sync samples when asked) plus every kept payload with a
// four-byte start code.
//
// Input byte 0 picks the prefix size (bits 0-2, 0 to 6), the codec, the NAL unit header
// length of the description (1, 2 or 4), the include flag and the sync flag;
// byte 1 is a NAL type to skip; the rest is the data.

#include <Block.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>
#include <Sorvel/SVSampleBuffer.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

// Parameter sets of real clips: H.264 baseline SPS and PPS; HEVC VPS, SPS, PPS.
const uint8_t kAVCSPS[] = {0x67, 0x42, 0xc0, 0x0b, 0xd9, 0x02, 0xc4, 0xec, 0x04, 0x40, 0x00,
                           0x00, 0x03, 0x00, 0x40, 0x00, 0x00, 0x0c, 0x83, 0xc5, 0x0a, 0x92};
const uint8_t kAVCPPS[] = {0x68, 0xcb, 0x8c, 0xb2};
const uint8_t kHEVCVPS[] = {0x40, 0x01, 0x0c, 0x01, 0xff, 0xff, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00,
                            0x90, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x78, 0x95, 0x98, 0x09};
const uint8_t kHEVCSPS[] = {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00, 0x00, 0x03, 0x00, 0x00,
                            0x03, 0x00, 0x78, 0xa0, 0x03, 0xc0, 0x80, 0x10, 0xe5, 0x96, 0x56, 0x69, 0x24, 0xca, 0xf0,
                            0x16, 0xa0, 0x20, 0x20, 0x20, 0x80, 0x00, 0x00, 0x03, 0x00, 0x80, 0x00, 0x00, 0x0c, 0x84};
const uint8_t kHEVCPPS[] = {0x44, 0x01, 0xc1, 0x72, 0xb4, 0x62, 0x40};

// Descriptions by codec and header length 1, 2, 4 (index 0, 1, 2), made once.
SVFormatDescriptionRef description(bool hevc, int headerIndex) {
    static SVFormatDescriptionRef made[2][3];
    SVFormatDescriptionRef &slot = made[hevc][headerIndex];
    if (slot) return slot;
    const int headerLength = headerIndex == 2 ? 4 : headerIndex + 1;
    if (hevc) {
        const uint8_t *sets[] = {kHEVCVPS, kHEVCSPS, kHEVCPPS};
        const size_t sizes[] = {sizeof kHEVCVPS, sizeof kHEVCSPS, sizeof kHEVCPPS};
        check(SVVideoFormatDescriptionCreateFromHEVCParameterSets(nullptr, 3, sets, sizes, headerLength, nullptr,
                                                                  &slot) == 0);
    } else {
        const uint8_t *sets[] = {kAVCSPS, kAVCPPS};
        const size_t sizes[] = {sizeof kAVCSPS, sizeof kAVCPPS};
        check(SVVideoFormatDescriptionCreateFromH264ParameterSets(nullptr, 2, sets, sizes, headerLength, &slot) == 0);
    }
    return slot;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size) {
    if (size < 2) return 0;
    const uint8_t control = input[0];
    const uint8_t skipType = input[1];
    const uint8_t *data = input + 2;
    const size_t length = size - 2;

    const int32_t prefix = (control & 7) % 7;
    __block size_t expectedOffset = 0;
    __block size_t reported = 0;
    const size_t count = _SVEnumerateNALUnits(data, length, prefix, ^int(const uint8_t *unit, size_t unitLength) {
      check(static_cast<size_t>(unit - data) == expectedOffset);
      check(unitLength >= static_cast<size_t>(prefix) && unitLength <= length - expectedOffset);
      expectedOffset += unitLength;
      ++reported;
      return 0;
    });
    check(count == reported);

    // The encoder, over a sample buffer holding the same bytes.
    if (length == 0) return 0;
    const bool hevc = (control >> 3) & 1;
    const int headerIndex = ((control >> 4) & 3) % 3;
    const int headerLength = headerIndex == 2 ? 4 : headerIndex + 1;
    const int32_t include = (control >> 6) & 1;
    const bool sync = !((control >> 7) & 1);
    SVFormatDescriptionRef desc = description(hevc, headerIndex);

    SVBlockBufferRef block = nullptr;
    check(SVBlockBufferCreateWithMemoryBlock(nullptr, const_cast<uint8_t *>(data), length, kCFAllocatorNull, nullptr, 0,
                                             length, 0, &block) == 0);
    SVSampleBufferRef sbuf = nullptr;
    check(SVSampleBufferCreate(nullptr, block, true, nullptr, nullptr, desc, 1, 0, nullptr, 1, &length, &sbuf) == 0);
    CFRelease(block);
    if (!sync) {
        CFArrayRef attachments = SVSampleBufferGetSampleAttachmentsArray(sbuf, true);
        CFDictionarySetValue((CFMutableDictionaryRef)CFArrayGetValueAtIndex(attachments, 0),
                             kSVSampleAttachmentKey_NotSync, kCFBooleanTrue);
    }

    __block size_t expectedSize = 0;
    if (include == 1 && sync)
        expectedSize =
            hevc ? 12 + sizeof kHEVCVPS + sizeof kHEVCSPS + sizeof kHEVCPPS : 8 + sizeof kAVCSPS + sizeof kAVCPPS;
    _SVEnumerateNALUnits(data, length, headerLength, ^int(const uint8_t *unit, size_t unitLength) {
      const size_t payload = unitLength - static_cast<size_t>(headerLength);
      if (payload && (unit[headerLength] & 0x1F) != skipType) expectedSize += payload + 4;
      return 0;
    });
    __block std::vector<uint8_t> packet;
    __block int calls = 0;
    const OSStatus status =
        _SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer(sbuf, include, &skipType, 1, ^void *(size_t packetSize) {
          ++calls;
          check(packetSize == expectedSize);
          // One spare byte that must stay untouched.
          packet.assign(packetSize + 1, 0xA5);
          return packet.data();
        });
    check(status == 0 && calls == 1);
    check(packet[expectedSize] == 0xA5);
    if (expectedSize) check(std::memcmp(packet.data(), "\0\0\0\1", 4) == 0);
    CFRelease(sbuf);
    return 0;
}
