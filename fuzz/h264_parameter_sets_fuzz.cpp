// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary bytes as an Annex B run of H.264 parameter sets to the
// video-description creator and checks what a caller relies on: the call
// either refuses with the invalid-parameter status or makes an 'avc1'
// description with a positive size whose avcC record converts back to the
// same sets, and nothing is read past the input (libFuzzer's buffer is
// exactly its size).
//
// The first input byte picks the NAL unit header length (0...5, so the
// refused lengths are reached too); the rest is the Annex B run.

#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const int headerLength = data[0] % 6;
    SVFormatDescriptionRef desc = nullptr;
    const OSStatus status = _SVVideoFormatDescriptionCreateFromConcatenatedH264ParameterSetNALs(
        nullptr, data + 1, size - 1, headerLength, &desc);
    if (status != 0) {
        check(status == kSVFormatDescriptionError_InvalidParameter && desc == nullptr);
        return 0;
    }
    check(headerLength >= 1 && headerLength <= 4);
    check(SVFormatDescriptionGetMediaSubType(desc) == 0x61766331);
    const SVVideoDimensions dims = SVVideoFormatDescriptionGetDimensions(desc);
    check(dims.width > 0 && dims.height > 0);
    size_t count = 0;
    int stored = 0;
    check(SVVideoFormatDescriptionGetH264ParameterSetAtIndex(desc, 0, nullptr, nullptr, &count, &stored) == 0);
    check(stored == headerLength && count > 0);
    CFDictionaryRef atoms = static_cast<CFDictionaryRef>(
        SVFormatDescriptionGetExtension(desc, kSVFormatDescriptionExtension_SampleDescriptionExtensionAtoms));
    check(atoms != nullptr);
    CFDataRef record = static_cast<CFDataRef>(CFDictionaryGetValue(atoms, CFSTR("avcC")));
    check(record != nullptr);
    CFMutableDataRef annexB = nullptr;
    int converted = 0;
    check(_SVCreateConcatenatedParameterSetsFromAVCDecoderConfigurationRecord(
              CFDataGetBytePtr(record), static_cast<size_t>(CFDataGetLength(record)), &converted, &annexB) == 0);
    check(converted == headerLength);
    // The converter writes SPSs then PPSs, each behind a 4-byte start code;
    // the total size follows from the stored sets.
    size_t expected = 0;
    for (size_t i = 0; i < count; ++i) {
        size_t setSize = 0;
        const uint8_t *set = nullptr;
        check(SVVideoFormatDescriptionGetH264ParameterSetAtIndex(desc, i, &set, &setSize, nullptr, nullptr) == 0);
        if ((set[0] & 0x1F) != 13) expected += 4 + setSize;
    }
    check(static_cast<size_t>(CFDataGetLength(annexB)) == expected);
    CFRelease(annexB);
    CFRelease(desc);
    return 0;
}
