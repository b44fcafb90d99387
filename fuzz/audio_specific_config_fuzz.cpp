// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary magic cookies to the audio-format service as the cookie of
// an AAC description and checks what a caller relies on: the cookie is never
// read past its end (libFuzzer's input buffer is exactly its size), the list
// has one to three whole items, both calls agree on its size, every item is
// of the AAC family, the core comes last, and no item of it is decodable
// here.
//
// The first input byte picks the description's format ('aac ', 'aach' or
// 'aacp') and its channel count; the rest is the cookie.

#include <AudioToolbox/AudioFormat.h>

#include <cstdint>
#include <cstdlib>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

const UInt32 kFormats[] = {kAudioFormatMPEG4AAC, kAudioFormatMPEG4AAC_HE, kAudioFormatMPEG4AAC_HE_V2};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    AudioFormatInfo info = {};
    info.mASBD.mFormatID = kFormats[data[0] % 3];
    info.mASBD.mChannelsPerFrame = (data[0] >> 2) & 7;
    info.mASBD.mSampleRate = 44100;
    info.mMagicCookie = size > 1 ? data + 1 : nullptr;
    info.mMagicCookieSize = static_cast<UInt32>(size - 1);

    UInt32 listSize = 0;
    check(AudioFormatGetPropertyInfo(kAudioFormatProperty_FormatList, sizeof info, &info, &listSize) == 0);
    check(listSize % sizeof(AudioFormatListItem) == 0);
    const UInt32 count = listSize / sizeof(AudioFormatListItem);
    check(count >= 1 && count <= 3);

    AudioFormatListItem items[4] = {};
    UInt32 fetched = sizeof items;
    check(AudioFormatGetProperty(kAudioFormatProperty_FormatList, sizeof info, &info, &fetched, items) == 0);
    check(fetched == listSize);
    for (UInt32 i = 0; i < count; ++i) {
        const UInt32 id = items[i].mASBD.mFormatID;
        check(id == kAudioFormatMPEG4AAC || id == kAudioFormatMPEG4AAC_HE || id == kAudioFormatMPEG4AAC_HE_V2);
        check(items[i].mASBD.mSampleRate >= 0);
    }
    if (count > 1) check(items[count - 1].mASBD.mFormatID == kAudioFormatMPEG4AAC);

    UInt32 index = 0, indexSize = sizeof index;
    check(AudioFormatGetProperty(kAudioFormatProperty_FirstPlayableFormatFromList, listSize, items, &indexSize,
                                 &index) == kAudioFormatUnsupportedDataFormatError);
    return 0;
}
