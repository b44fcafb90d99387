// SPDX-License-Identifier: Apache-2.0
// The sample entries ('stsd') of every track of an MP4 or QuickTime file,
// read straight from the file so that the library's sample-description
// bridge can describe the tracks from the bytes the muxer wrote.
//
// Only the boxes on the way to 'stsd' are read: the top-level boxes are
// skipped by their sizes (media data is never read), 'moov' is read whole,
// and inside it 'trak' > 'tkhd' (the track ID), 'mdia' > 'hdlr' (the media
// type) and 'mdia' > 'minf' > 'stbl' > 'stsd'.
#ifndef SORVEL_TOOLS_SAMPLEENTRIES_H
#define SORVEL_TOOLS_SAMPLEENTRIES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sorvel_tool {

struct TrackSampleEntries {
    uint32_t trackID = 0;
    uint32_t handler = 0;                       // 'vide', 'soun', ... from 'hdlr'
    std::vector<std::vector<uint8_t>> entries;  // each whole, size field first
};

// Reads the tracks of the file at `path` in file order.  False, with a
// reason in `error`, when the file cannot be read, has no 'moov', or a box on
// the way to 'stsd' is malformed (a size below its header or past its
// parent); nothing is read past a box's end.
bool ReadSampleEntries(const std::string &path, std::vector<TrackSampleEntries> &tracks, std::string &error);

// The same over a whole file already in memory.
bool ReadSampleEntriesFromMemory(const uint8_t *file, size_t size, std::vector<TrackSampleEntries> &tracks,
                                 std::string &error);

// The same over a 'moov' box's payload already in memory.
bool ParseMovieBox(const uint8_t *payload, size_t size, std::vector<TrackSampleEntries> &tracks, std::string &error);

}  // namespace sorvel_tool

#endif  // SORVEL_TOOLS_SAMPLEENTRIES_H
