// SPDX-License-Identifier: Apache-2.0
// `sorvel probe`'s view of a track through the library's sample-description
// bridge: each MP4/QuickTime track's 'stsd' entry read straight from the
// file, described by the bridge, reported, and cross-checked against what
// libavformat made of the same stream.
#ifndef SORVEL_TOOLS_SAMPLEDESCRIPTIONPROBE_H
#define SORVEL_TOOLS_SAMPLEDESCRIPTIONPROBE_H

#include <Sorvel/SVFormatDescription.h>

#include <map>
#include <string>
#include <vector>

#include "Json.h"
#include "Tool.h"

namespace sorvel::tool {

struct BridgeTrack {
    FourCharCode handler = 0;
    Ref<SVFormatDescriptionRef> description;  // NULL when the bridge refused the entry
    std::string failure;                      // then why
};

// The first sample entry of every track, by stream index (libavformat makes
// one stream per 'trak', in file order).  An empty path means the embedded
// stream.  Empty for other containers; a file whose boxes cannot be walked
// adds a warning.
std::map<int, BridgeTrack> describeSampleEntries(const std::string &path, const std::string &containerName,
                                                 std::vector<std::string> &warnings);

// Adds a warning for each thing the bridge and libavformat's description
// disagree on (`what` names the stream in the warning).
void crossCheckSampleDescription(const BridgeTrack &track, SVFormatDescriptionRef fromDemuxer, const std::string &what,
                                 std::vector<std::string> &warnings);

// The "sample_description" object of `probe --json`.
void writeSampleDescriptionJson(JsonWriter &json, const BridgeTrack &track);

// One text line for the plain report.
std::string sampleDescriptionLine(const BridgeTrack &track);

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SAMPLEDESCRIPTIONPROBE_H
