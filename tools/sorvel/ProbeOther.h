/* SPDX-License-Identifier: Apache-2.0 */
// `sorvel probe` for files whose video the library does not read.
#ifndef SORVEL_TOOLS_SORVEL_PROBEOTHER_H
#define SORVEL_TOOLS_SORVEL_PROBEOTHER_H

#include "Commands.h"

namespace sorvel::tool {

class MediaSource;

// Describes a source opened with MediaSource::openForDescription: the
// container, the video stream of another codec as a generic description
// ("video" is null when there is none), and the audio streams.  `why` is
// the reason the full description is not possible; JSON lists it among
// the warnings; `schemaVersion` is probe's.  Returns 0, or the reading
// problem's exit code after the report.
int probeWithoutLibraryVideo(const ProbeOptions &options, MediaSource &source, const ToolError &why, int schemaVersion);

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_PROBEOTHER_H
