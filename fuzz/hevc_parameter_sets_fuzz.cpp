// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary bytes as an Annex B run of HEVC parameter sets to the
// video-description creator and checks what a caller relies on: the call
// either refuses with the invalid-parameter status or makes an 'hvc1'
// description with a positive size whose hvcC record converts back to as
// many units as were stored, and nothing is read past the input.
//
// The first input byte picks the NAL unit header length (0...5); the rest is
// the Annex B run.

#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>

#include <cstdint>
#include <cstdlib>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const int headerLength = data[0] % 6;
    SVFormatDescriptionRef desc = nullptr;
    const OSStatus status = _SVVideoFormatDescriptionCreateFromConcatenatedHEVCParameterSetNALs(
        nullptr, data + 1, size - 1, headerLength, &desc);
    if (status != 0) {
        check(status == kSVFormatDescriptionError_InvalidParameter && desc == nullptr);
        return 0;
    }
    check(headerLength == 1 || headerLength == 2 || headerLength == 4);
    check(SVFormatDescriptionGetMediaSubType(desc) == 0x68766331);
    const SVVideoDimensions dims = SVVideoFormatDescriptionGetDimensions(desc);
    check(dims.width > 0 && dims.height > 0);
    size_t count = 0;
    int stored = 0;
    check(SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(desc, 0, nullptr, nullptr, &count, &stored) == 0);
    check(stored == headerLength && count >= 3);
    CFDictionaryRef atoms = static_cast<CFDictionaryRef>(
        SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms));
    check(atoms != nullptr);
    CFDataRef record = static_cast<CFDataRef>(CFDictionaryGetValue(atoms, CFSTR("hvcC")));
    check(record != nullptr);
    CFMutableDataRef annexB = nullptr;
    int converted = 0;
    check(_SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord(
              CFDataGetBytePtr(record), static_cast<size_t>(CFDataGetLength(record)), &converted, &annexB) == 0);
    check(converted == headerLength);
    // Each unit comes back behind a start code and one type byte.
    size_t expected = 0;
    for (size_t i = 0; i < count; ++i) {
        size_t setSize = 0;
        check(SVVideoFormatDescriptionGetHEVCParameterSetAtIndex(desc, i, nullptr, &setSize, nullptr, nullptr) == 0);
        expected += 5 + setSize;
    }
    check(static_cast<size_t>(CFDataGetLength(annexB)) == expected);
    CFRelease(annexB);
    CFRelease(desc);
    return 0;
}
