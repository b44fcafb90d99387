// SPDX-License-Identifier: Apache-2.0
#include "PcmBuffers.h"

#include <CoreAudio/CoreAudioTypes.h>

namespace sorvel::tool::audio {

SVFormatDescriptionRef makePcmFormat(int sampleRate, int channels, OSStatus &status) {
    AudioStreamBasicDescription asbd = {};
    asbd.mSampleRate = sampleRate;
    asbd.mFormatID = kAudioFormatLinearPCM;
    asbd.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
    asbd.mBytesPerFrame = asbd.mBytesPerPacket = static_cast<UInt32>(sizeof(float)) * static_cast<UInt32>(channels);
    asbd.mFramesPerPacket = 1;
    asbd.mChannelsPerFrame = static_cast<UInt32>(channels);
    asbd.mBitsPerChannel = 32;
    SVFormatDescriptionRef format = nullptr;
    status = SVAudioFormatDescriptionCreate(nullptr, &asbd, 0, nullptr, 0, nullptr, nullptr, &format);
    return status == 0 ? format : nullptr;
}

SVSampleBufferRef makePcmSampleBuffer(SVFormatDescriptionRef format, const float *samples, int64_t frames, int channels,
                                      int64_t firstFrame, int sampleRate, OSStatus &status) {
    const size_t length = static_cast<size_t>(frames) * sizeof(float) * static_cast<size_t>(channels);
    SVBlockBufferRef block = nullptr;
    status = SVBlockBufferCreateWithMemoryBlock(nullptr, nullptr, length, nullptr, nullptr, 0, length,
                                                kSVBlockBufferAssureMemoryNowFlag, &block);
    if (status != 0) return nullptr;
    status = SVBlockBufferReplaceDataBytes(samples, block, 0, length);
    SVSampleBufferRef buffer = nullptr;
    // Linear PCM: a packet is a frame, and the timing follows from the format.
    if (status == 0)
        status = SVAudioSampleBufferCreateReadyWithPacketDescriptions(
            nullptr, block, format, frames, SVTimeMake(firstFrame, sampleRate), nullptr, &buffer);
    CFRelease(block);
    return status == 0 ? buffer : nullptr;
}

}  // namespace sorvel::tool::audio
