/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SORVEL_TOOLS_SORVEL_EMBEDDEDSTREAM_H
#define SORVEL_TOOLS_SORVEL_EMBEDDEDSTREAM_H

#include <cstddef>
#include <cstdint>

struct AVIOContext;

namespace sorvel::tool {

inline constexpr const char kEmbeddedStreamName[] = "(embedded demo stream)";
// The bytes of the demo MP4 and their count.
const uint8_t *embeddedStream(size_t &size);
// A seekable libavformat I/O context that reads the demo stream from memory
// (for AVFormatContext::pb with AVFMT_FLAG_CUSTOM_IO); NULL when out of memory.
AVIOContext *openEmbeddedStreamIO();
// Frees what openEmbeddedStreamIO made, after the format context is closed,
// and sets `io` to NULL.  NULL is allowed.
void closeEmbeddedStreamIO(AVIOContext *&io);

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_EMBEDDEDSTREAM_H
