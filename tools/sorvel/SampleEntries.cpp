// SPDX-License-Identifier: Apache-2.0
#include "SampleEntries.h"

#include <cstdio>
#include <fstream>

namespace sorvel_tool {
namespace {

constexpr uint32_t code(const char (&text)[5]) {
    return uint32_t(uint8_t(text[0])) << 24 | uint32_t(uint8_t(text[1])) << 16 | uint32_t(uint8_t(text[2])) << 8 |
           uint32_t(uint8_t(text[3]));
}

uint32_t be32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}

struct Box {
    uint32_t type;
    const uint8_t *payload;
    size_t size;
};

// The boxes of [p, p + n).  A size of 0 runs to the end of the parent; 1
// takes a 64-bit size.
bool children(const uint8_t *p, size_t n, std::vector<Box> &boxes, std::string &error) {
    size_t at = 0;
    while (n - at >= 8) {
        uint64_t size = be32(p + at);
        const uint32_t type = be32(p + at + 4);
        size_t header = 8;
        if (size == 1) {
            if (n - at < 16) return error = "64-bit box size past its parent", false;
            size = uint64_t(be32(p + at + 8)) << 32 | be32(p + at + 12);
            header = 16;
        } else if (size == 0) {
            size = n - at;
        }
        if (size < header || size > n - at) return error = "box size below its header or past its parent", false;
        boxes.push_back({type, p + at + header, size_t(size) - header});
        at += size_t(size);
    }
    return true;
}

const Box *find(const std::vector<Box> &boxes, uint32_t type) {
    for (const Box &box : boxes)
        if (box.type == type) return &box;
    return nullptr;
}

bool parseTrack(const Box &trak, TrackSampleEntries &track, std::string &error) {
    std::vector<Box> boxes;
    if (!children(trak.payload, trak.size, boxes, error)) return false;
    if (const Box *tkhd = find(boxes, code("tkhd")); tkhd && tkhd->size >= 24)
        track.trackID = be32(tkhd->payload + (tkhd->payload[0] == 1 ? 20 : 12));
    const Box *mdia = find(boxes, code("mdia"));
    if (!mdia) return true;
    std::vector<Box> media;
    if (!children(mdia->payload, mdia->size, media, error)) return false;
    if (const Box *hdlr = find(media, code("hdlr")); hdlr && hdlr->size >= 12) track.handler = be32(hdlr->payload + 8);
    const Box *minf = find(media, code("minf"));
    if (!minf) return true;
    std::vector<Box> info, table;
    if (!children(minf->payload, minf->size, info, error)) return false;
    const Box *stbl = find(info, code("stbl"));
    if (!stbl) return true;
    if (!children(stbl->payload, stbl->size, table, error)) return false;
    const Box *stsd = find(table, code("stsd"));
    if (!stsd) return true;
    if (stsd->size < 8) return error = "'stsd' shorter than its header", false;
    const uint32_t count = be32(stsd->payload + 4);
    size_t at = 8;
    for (uint32_t i = 0; i < count; ++i) {
        if (stsd->size - at < 8) return error = "sample entry past the end of 'stsd'", false;
        const uint32_t size = be32(stsd->payload + at);
        if (size < 8 || size > stsd->size - at) return error = "sample entry size below 8 or past 'stsd'", false;
        track.entries.emplace_back(stsd->payload + at, stsd->payload + at + size);
        at += size;
    }
    return true;
}

}  // namespace

bool ParseMovieBox(const uint8_t *payload, size_t size, std::vector<TrackSampleEntries> &tracks, std::string &error) {
    std::vector<Box> boxes;
    if (!children(payload, size, boxes, error)) return false;
    for (const Box &box : boxes) {
        if (box.type != code("trak")) continue;
        TrackSampleEntries track;
        if (!parseTrack(box, track, error)) return false;
        tracks.push_back(std::move(track));
    }
    return true;
}

bool ReadSampleEntriesFromMemory(const uint8_t *file, size_t size, std::vector<TrackSampleEntries> &tracks,
                                 std::string &error) {
    std::vector<Box> boxes;
    if (!children(file, size, boxes, error)) return false;
    const Box *moov = find(boxes, code("moov"));
    if (!moov) return error = "no 'moov' box", false;
    return ParseMovieBox(moov->payload, moov->size, tracks, error);
}

bool ReadSampleEntries(const std::string &path, std::vector<TrackSampleEntries> &tracks, std::string &error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return error = "cannot open " + path, false;
    in.seekg(0, std::ios::end);
    const uint64_t fileSize = uint64_t(in.tellg());
    uint64_t at = 0;
    while (fileSize - at >= 8) {
        uint8_t header[16];
        in.seekg(std::streamoff(at));
        if (!in.read(reinterpret_cast<char *>(header), 8)) return error = "read error", false;
        uint64_t size = be32(header);
        size_t headerSize = 8;
        if (size == 1) {
            if (fileSize - at < 16 || !in.read(reinterpret_cast<char *>(header + 8), 8))
                return error = "64-bit box size past the end of the file", false;
            size = uint64_t(be32(header + 8)) << 32 | be32(header + 12);
            headerSize = 16;
        } else if (size == 0) {
            size = fileSize - at;
        }
        if (size < headerSize || size > fileSize - at)
            return error = "top-level box size below its header or past the end of the file", false;
        if (be32(header + 4) == code("moov")) {
            // 'moov' holds only tables; a limit keeps a lying size from
            // asking for gigabytes.
            if (size - headerSize > (uint64_t(1) << 30)) return error = "'moov' larger than 1 GiB", false;
            std::vector<uint8_t> movie(size_t(size - headerSize));
            if (!in.read(reinterpret_cast<char *>(movie.data()), std::streamsize(movie.size())))
                return error = "read error", false;
            return ParseMovieBox(movie.data(), movie.size(), tracks, error);
        }
        at += size;
    }
    return error = "no 'moov' box", false;
}

}  // namespace sorvel_tool
