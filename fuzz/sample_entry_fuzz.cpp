// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary bytes to the sample-description reader and checks what a
// caller relies on: no read past the entry (libFuzzer's buffer is exactly
// its size), a description only with status 0, and a description that was
// read writes back as the very bytes of its entry.  Descriptions are then
// written in every flavour, which must never fail for lack of anything but
// a status.
//
// The first input byte picks the media type ('v' video, anything else
// sound) and the flavour; the rest is the entry.

#include <Sorvel/SVSampleDescription.h>

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
    const bool video = data[0] == 'v';
    const SVMediaType type = video ? kSVMediaType_Video : kSVMediaType_Audio;
    const CFStringRef imageFlavors[] = {nullptr, kSVImageDescriptionFlavor_QuickTimeMovie,
                                        kSVImageDescriptionFlavor_ISOFamily};
    const CFStringRef soundFlavors[] = {nullptr, kSVSoundDescriptionFlavor_QuickTimeMovie,
                                        kSVSoundDescriptionFlavor_ISOFamily,
                                        kSVSoundDescriptionFlavor_QuickTimeMovieV2};
    const CFStringRef flavor = video ? imageFlavors[(data[0] >> 4) % 3] : soundFlavors[(data[0] >> 4) % 4];
    const uint8_t *entry = data + 1;
    const size_t length = size - 1;
    // a copy of exactly the entry's size, so any over-read is caught
    uint8_t *copy = static_cast<uint8_t *>(malloc(length ? length : 1));
    if (length) memcpy(copy, entry, length);

    SVFormatDescriptionRef desc = nullptr;
    const OSStatus status = SVSampleDescriptionCreateFormatDescription(nullptr, type, copy, length, flavor, &desc);
    check((status == 0) == (desc != nullptr));
    if (desc) {
        CFDataRef written = nullptr;
        const OSStatus writeStatus = SVSampleDescriptionCopyAsBigEndianData(
            nullptr, desc, flavor == kSVSoundDescriptionFlavor_QuickTimeMovieV2 ? nullptr : flavor, &written);
        check(writeStatus == 0 && written);
        const size_t entrySize = size_t(copy[0]) << 24 | size_t(copy[1]) << 16 | size_t(copy[2]) << 8 | copy[3];
        check(size_t(CFDataGetLength(written)) == entrySize);
        check(memcmp(CFDataGetBytePtr(written), copy, entrySize) == 0);
        CFRelease(written);
        const CFStringRef *flavors = video ? imageFlavors : soundFlavors;
        for (size_t i = 0; i < (video ? 3u : 4u); ++i) {
            CFDataRef other = nullptr;
            if (SVSampleDescriptionCopyAsBigEndianData(nullptr, desc, flavors[i], &other) == 0) {
                // what is written reads back
                SVFormatDescriptionRef again = nullptr;
                check(SVSampleDescriptionCreateFormatDescription(nullptr, type, CFDataGetBytePtr(other),
                                                                 size_t(CFDataGetLength(other)), flavors[i],
                                                                 &again) == 0 ||
                      again == nullptr);
                if (again) CFRelease(again);
                CFRelease(other);
            } else {
                check(other == nullptr);
            }
        }
        CFRelease(desc);
    }
    free(copy);
    return 0;
}
