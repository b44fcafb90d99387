/* SPDX-License-Identifier: Apache-2.0 */
// Decoded sound as the library carries it: linear PCM, 32-bit float,
// interleaved, in ready sample buffers timed on the stream's timeline.
#ifndef SORVEL_TOOLS_SORVEL_AUDIO_PCMBUFFERS_H
#define SORVEL_TOOLS_SORVEL_AUDIO_PCMBUFFERS_H

#include <Sorvel/Sorvel.h>

#include <cstdint>

namespace sorvel::tool::audio {

// The linear-PCM description of interleaved 32-bit floats; null when the
// library refuses (`status` then says why).
SVFormatDescriptionRef makePcmFormat(int sampleRate, int channels, OSStatus &status);

// Wraps `frames` interleaved float frames (copied) in a ready sample buffer
// described by `format`, presented at `firstFrame` / `sampleRate` seconds.
// Null when the library refuses (`status` then says why).
SVSampleBufferRef makePcmSampleBuffer(SVFormatDescriptionRef format, const float *samples, int64_t frames, int channels,
                                      int64_t firstFrame, int sampleRate, OSStatus &status);

}  // namespace sorvel::tool::audio

#endif  // SORVEL_TOOLS_SORVEL_AUDIO_PCMBUFFERS_H
