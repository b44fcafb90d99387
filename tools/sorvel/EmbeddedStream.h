/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SORVEL_TOOLS_SORVEL_EMBEDDEDSTREAM_H
#define SORVEL_TOOLS_SORVEL_EMBEDDEDSTREAM_H

#include <cstddef>
#include <cstdint>

namespace sorvel::tool {

inline constexpr const char kEmbeddedStreamName[] = "(embedded demo stream)";
// The bytes of the demo MP4 and their count.
const uint8_t *embeddedStream(size_t &size);

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_EMBEDDEDSTREAM_H
