/* SPDX-License-Identifier: Apache-2.0 */
// `sorvel play` with sound: decides whether the sound is played, plays it,
// gives the player the audio clock to time its pictures on, and afterwards
// measures how the pictures met the sound.
//
// The sound is played only at rate 1 forwards; at any other rate it is not
// played at all and the pictures follow the host clock.  With --audio auto a
// missing server or a sound that cannot be played is said on one line and
// the pictures follow the host clock; with --audio pulse the same is a
// failure.  Once the sound plays, its timebase is anchored so that the
// stream's sample 0 is the window's start: the timebase reads the
// presentation time of the sound leaving the device.
#ifndef SORVEL_TOOLS_SORVEL_AUDIO_SOUNDSESSION_H
#define SORVEL_TOOLS_SORVEL_AUDIO_SOUNDSESSION_H

#include <Sorvel/Sorvel.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AVSync.h"

namespace sorvel::tool {
class JsonWriter;
}

namespace sorvel::tool::audio {

enum class AudioMode { Auto, Pulse, None };

// "auto", "pulse" or "none"; false for anything else.
bool parseAudioMode(const std::string &text, AudioMode &mode);
const char *audioModeName(AudioMode mode);

// A picture the player showed: its presentation time (seconds) and the host
// time at which it was shown.
struct PictureShown {
    double pts;
    uint64_t host;
};

// What happened to the sound, for the report.
struct SoundSummary {
    AudioMode mode = AudioMode::Auto;
    // "played", "off" (not asked for or not at this rate), "unavailable"
    // (no server, or nothing to play), "failed" (asked for and lost).
    std::string state = "off";
    std::string reason;  // why it was not played, or what went wrong
    std::string server, codec;
    int sampleRate = 0, channels = 0;
    double start = NAN, end = NAN;  // presentation times of the sound played
    std::optional<double> ratePpm;  // the device against the host clock
    int64_t underruns = 0, stalls = 0, reports = 0;
    // The A/V offset of every picture, in milliseconds (positive: the
    // picture came after its sound), parallel to the pictures; NaN when the
    // sound was not played.
    std::vector<double> offsets;
    ErrorStats offsetStats{10.0};
};

class SoundSession {
public:
    // Starts the sound of `file` for the window [start, end) at `rate`.
    // Returns null when no sound is played: `summary` says why, and
    // `error` is set when that ends the run (--audio pulse).  With
    // `announce`, --audio auto says on standard error why there is no sound.
    static std::unique_ptr<SoundSession> start(AudioMode mode, const std::string &file, double rate, double start,
                                               double end, SoundSummary &summary, std::string &error,
                                               bool announce = true);
    ~SoundSession();
    SoundSession(const SoundSession &) = delete;
    SoundSession &operator=(const SoundSession &) = delete;

    // Lets the sound play: it has filled the output's buffer and waits for
    // this, so that the player can preroll its pictures first.
    bool go(std::string &error);
    // Waits until the device reports the sound playing, at most
    // `timeoutSeconds`; false with `error` set otherwise.
    bool waitUntilPlaying(double timeoutSeconds, std::string &error);
    // The audio clock of the device the sound plays on (borrowed).
    SVClockRef clock() const { return clock_; }
    // Makes `timebase` (whose master is clock()) run at rate 1 reading the
    // window's start when the stream's first sample leaves the device.
    OSStatus anchor(SVTimebaseRef timebase) const;
    // What went wrong mid-play, empty while all is well.
    std::string problem() const;
    // Whether the whole sound has left the device (the clock passed its end).
    bool soundDone() const;
    // Seconds until the sound's end leaves the device; NaN while unknown.
    double secondsLeft() const;

    // Stops the sound and fills `summary` with what was measured, the A/V
    // offset of every picture in `pictures` included.
    void finish(const std::vector<PictureShown> &pictures, SoundSummary &summary);

private:
    struct Parts;
    explicit SoundSession(std::unique_ptr<Parts> parts);
    std::unique_ptr<Parts> parts_;
    SVClockRef clock_ = nullptr;
};

// What `sorvel play` asks of a file that has no pictures.
struct SoundOnlyRequest {
    AudioMode mode = AudioMode::Auto;
    std::string file;  // empty: the embedded stream
    std::string name;  // how the report names it
    double rate = 1.0;
    double start = NAN;     // seconds; NaN: from the beginning
    double duration = NAN;  // seconds; NaN: to the end
    bool json = false;
};

// Plays the sound of a file that has no pictures, at rate 1 from `start`
// for `duration` seconds, and reports it; returns the exit status, or -1
// with `error` saying why there is no sound to play either.  When
// `interrupted` becomes true the sound stops and the report, saying so,
// still comes out.
int playSoundOnly(const SoundOnlyRequest &request, const std::atomic<bool> &interrupted, std::string &error);

// "count", "mean", "standard_deviation" and "worst" of `stats` (null
// while it holds nothing) as members of the object being written.
void writeErrorStatsJson(JsonWriter &json, const ErrorStats &stats);

// The sound part of the report, as text lines and as JSON members.
void printSoundSummary(const SoundSummary &summary);
void writeSoundJson(JsonWriter &json, const SoundSummary &summary, const std::vector<PictureShown> &pictures);

}  // namespace sorvel::tool::audio

#endif  // SORVEL_TOOLS_SORVEL_AUDIO_SOUNDSESSION_H
