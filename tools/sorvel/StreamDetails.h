/* SPDX-License-Identifier: Apache-2.0 */
// What the container says about a stream beyond its codec: tags, language
// and the rotation of its display matrix.
#ifndef SORVEL_TOOLS_SORVEL_STREAMDETAILS_H
#define SORVEL_TOOLS_SORVEL_STREAMDETAILS_H

#include <cmath>
#include <string>
#include <utility>
#include <vector>

struct AVStream;

namespace sorvel::tool {

struct StreamDetails {
    std::vector<std::pair<std::string, std::string>> tags;  // every tag, in the container's order
    std::string language;                                   // ISO 639-2 code; "" when absent or "und"
    // Degrees counterclockwise the display matrix turns the picture, in
    // (-180, 180]; 0 without a matrix (libavformat leaves identity ones out).
    double rotation = 0;
};

class JsonWriter;
class MediaSource;
struct AudioTrack;

// The AAC profile of an AAC track ("LC", "HE-AAC"...) from its magic
// cookie, or from the object type in its format flags when it has none;
// "" for other codecs.
std::string audioProfile(const AudioTrack &track);

StreamDetails streamDetails(const AVStream *stream);
// The details of the source's video stream.
StreamDetails videoDetails(const MediaSource &source);
// "language", "rotation" and "tags" members.
void writeStreamDetails(JsonWriter &json, const StreamDetails &details);
// The Language, Rotation and Tags lines of probe's text; none for what is absent.
void printStreamDetails(const StreamDetails &details);

// "90 degrees clockwise" for a rotation of -90 (how a viewer must turn the
// decoded picture to show it), "none" for 0.
std::string rotationWords(double rotation);

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_STREAMDETAILS_H
