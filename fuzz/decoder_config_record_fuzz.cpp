// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary records to the avcC and hvcC converters.  Checks: no read
// past the record (libFuzzer's buffer is exactly its size), the header length
// is 1 to 4, hvcC records of 22 bytes or fewer are refused, and a non-empty
// result opens with a four-byte start code.  The first input byte picks the
// converter; the rest is the record.

#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>
#include <XPLog/XPLog.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size) {
    // Short hvcC records are logged at level 3; printing thousands of those
    // lines would dominate the run.
    static const bool quiet = (XPLogSetThreshold(2), true);
    (void)quiet;
    if (size < 1) return 0;
    const bool hevc = input[0] & 1;
    const uint8_t *record = input + 1;
    const size_t recordSize = size - 1;
    int32_t headerLength = 0;
    CFMutableDataRef data = nullptr;
    const OSStatus status = hevc ? _SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord(
                                       record, recordSize, &headerLength, &data)
                                 : _SVCreateConcatenatedParameterSetsFromAVCDecoderConfigurationRecord(
                                       record, recordSize, &headerLength, &data);
    if (hevc && recordSize <= 22) {
        check(status == kSVFormatDescriptionError_InvalidParameter && !data);
        return 0;
    }
    check(status == 0 && data);
    check(headerLength >= 1 && headerLength <= 4);
    const CFIndex length = CFDataGetLength(data);
    if (length) check(length >= 4 && std::memcmp(CFDataGetBytePtr(data), "\0\0\0\1", 4) == 0);
    CFRelease(data);
    return 0;
}
