/* SPDX-License-Identifier: Apache-2.0 */
// The parts of `sorvel probe`'s report that every file has, whatever its
// video: the container's figures and the audio streams, as text and JSON.
#ifndef SORVEL_TOOLS_SORVEL_PROBEAUDIO_H
#define SORVEL_TOOLS_SORVEL_PROBEAUDIO_H

#include <map>

#include "Commands.h"
#include "SampleDescriptionProbe.h"

namespace sorvel::tool {

class JsonWriter;
class MediaSource;
struct AudioTrack;

// The bridge's description of each track by stream index; empty when the
// container has none.
using BridgedTracks = std::map<int, BridgeTrack>;

// Opens the report object: "schema_version", "file", "container" and the
// container's "format" figures.
void writeContainerJson(JsonWriter &json, MediaSource &source, int schemaVersion);

// The "audio" array: every audio stream's description, what its sample
// buffers say (frames, priming, remainder, start, duration), its packets
// with `samples`, and its bridged sample description when there is one.
void writeAudioStreamsJson(JsonWriter &json, MediaSource &source, bool samples, const BridgedTracks &bridged);

// The "Audio" lines of the text report, one block per stream.
void printAudioStreams(MediaSource &source, const BridgedTracks &bridged);

// The packet table of every audio stream whose packets were kept.
void printAudioSampleTables(MediaSource &source);

// "Mono", "Stereo", "MPEG 5.1 A", "N discrete channels", "tag 0x..." for
// the other tags.
std::string channelLayoutName(AudioChannelLayoutTag tag);

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_PROBEAUDIO_H
