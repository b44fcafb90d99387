// SPDX-License-Identifier: Apache-2.0
#include "SoundSession.h"

#include <chrono>
#include <cstdio>
#include <thread>

#include "../Json.h"

#if SORVEL_HAVE_PULSE
#include "AudioPlayer.h"
#include "PulseOutput.h"
#endif

namespace sorvel::tool::audio {
namespace {

// How long a server has to answer before --audio auto gives up on it.
constexpr double kConnectSeconds = 2.0;
// Silence played before the window's start: the device's first report of
// playing arrives a few milliseconds after the sound starts, and the first
// picture is due only once the clock is known to run.
constexpr double kLeadInSeconds = 0.1;

}  // namespace

bool parseAudioMode(const std::string &text, AudioMode &mode) {
    if (text == "auto")
        mode = AudioMode::Auto;
    else if (text == "pulse")
        mode = AudioMode::Pulse;
    else if (text == "none")
        mode = AudioMode::None;
    else
        return false;
    return true;
}

const char *audioModeName(AudioMode mode) {
    switch (mode) {
        case AudioMode::Auto:
            return "auto";
        case AudioMode::Pulse:
            return "pulse";
        case AudioMode::None:
            break;
    }
    return "none";
}

#if SORVEL_HAVE_PULSE

struct SoundSession::Parts {
    std::unique_ptr<PulseOutput> output;
    std::unique_ptr<AudioPlayer> player;
};

SoundSession::SoundSession(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}

SoundSession::~SoundSession() {
    if (parts_ && parts_->player) parts_->player->stop();
    if (clock_) CFRelease(clock_);
}

std::unique_ptr<SoundSession> SoundSession::start(AudioMode mode, const std::string &file, double rate, double start,
                                                  double end, SoundSummary &summary, std::string &error,
                                                  bool announce) {
    summary = SoundSummary();
    summary.mode = mode;
    if (mode == AudioMode::None) {
        summary.reason = "--audio none";
        return nullptr;
    }
    if (rate != 1.0) {
        summary.reason = "sound is played at rate 1 only";
        return nullptr;
    }
    // What cannot be played ends the run with --audio pulse, and is said on
    // one line with --audio auto.
    auto unavailable = [&](std::string reason) -> std::unique_ptr<SoundSession> {
        summary.state = mode == AudioMode::Pulse ? "failed" : "unavailable";
        summary.reason = std::move(reason);
        if (mode == AudioMode::Pulse)
            error = summary.reason;
        else if (announce)
            fprintf(stderr, "sorvel: no sound (%s); timing the pictures on the host clock\n", summary.reason.c_str());
        return nullptr;
    };
    auto parts = std::make_unique<Parts>();
    std::string reason;
    parts->player = AudioPlayer::open(file, reason);
    if (!parts->player) {
        // A file without sound is not a failure, whatever the mode.
        if (reason == "no audio stream") {
            summary.state = "unavailable";
            summary.reason = reason;
            return nullptr;
        }
        return unavailable(reason);
    }
    summary.codec = parts->player->decoder().codecName();
    summary.sampleRate = parts->player->decoder().sampleRate();
    summary.channels = parts->player->decoder().channels();
    parts->output = PulseOutput::connect("sorvel", kConnectSeconds, reason);
    if (!parts->output) return unavailable(reason);
    summary.server = parts->output->serverDescription();
    if (!parts->player->start(*parts->output, start, end, kLeadInSeconds, true, reason)) return unavailable(reason);

    std::unique_ptr<SoundSession> session(new SoundSession(std::move(parts)));
    // The output registered its device as the default output just now, so
    // the audio clock reads it.
    const OSStatus status = SVAudioClockCreate(nullptr, &session->clock_);
    if (status != 0) return unavailable("cannot make an audio clock (status " + std::to_string(status) + ")");
    summary.state = "played";
    summary.start = session->parts_->player->originSeconds() + kLeadInSeconds;
    return session;
}

bool SoundSession::go(std::string &error) {
    return parts_->player->go(error);
}

bool SoundSession::waitUntilPlaying(double timeoutSeconds, std::string &error) {
    if (parts_->player->waitForClock(timeoutSeconds)) return true;
    error = problem();
    if (error.empty()) error = "the audio server did not start playing within " + std::to_string(timeoutSeconds) + " s";
    return false;
}

OSStatus SoundSession::anchor(SVTimebaseRef timebase) const {
    return SVTimebaseSetRateAndAnchorTime(timebase, 1.0,
                                          SVTimeMakeWithSeconds(parts_->player->originSeconds(), 1000000000),
                                          SVTimeMake(0, parts_->player->decoder().sampleRate()));
}

std::string SoundSession::problem() const {
    return parts_->player->problem();
}

double SoundSession::secondsLeft() const {
    const int64_t endFrame = parts_->player->endFrame();
    if (endFrame < 0) return NAN;
    const SVTime now = SVClockGetTime(clock_);
    if (!SVTIME_IS_NUMERIC(now)) return NAN;
    return static_cast<double>(endFrame - now.value) / now.timescale;
}

bool SoundSession::soundDone() const {
    const double left = secondsLeft();
    return !std::isnan(left) && left <= 0;
}

void SoundSession::finish(const std::vector<PictureShown> &pictures, SoundSummary &summary) {
    parts_->player->stop();
    const std::string trouble = parts_->player->problem();
    if (!trouble.empty()) {
        summary.state = "failed";
        summary.reason = trouble;
    }
    const DeviceLine line = parts_->output->line();
    const double rate = parts_->output->sampleRate();
    const double origin = parts_->player->originSeconds();
    summary.end = parts_->player->endSeconds();
    summary.ratePpm = line.measuredRatePpm(rate);
    summary.underruns = parts_->output->underruns();
    summary.reports = static_cast<int64_t>(line.points().size());
    summary.stalls = parts_->output->stalls();
    summary.offsets.clear();
    for (const PictureShown &picture : pictures) {
        const double offset = avOffsetMilliseconds(line, rate, origin, picture.pts, picture.host);
        summary.offsets.push_back(offset);
        summary.offsetStats.add(offset);
    }
}

#else  // no PulseAudio client library

struct SoundSession::Parts {};
SoundSession::SoundSession(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}
SoundSession::~SoundSession() = default;

std::unique_ptr<SoundSession> SoundSession::start(AudioMode mode, const std::string &, double, double, double,
                                                  SoundSummary &summary, std::string &error, bool) {
    summary = SoundSummary();
    summary.mode = mode;
    if (mode == AudioMode::None) {
        summary.reason = "--audio none";
        return nullptr;
    }
    summary.state = mode == AudioMode::Pulse ? "failed" : "unavailable";
    summary.reason = "this sorvel was built without PulseAudio";
    if (mode == AudioMode::Pulse) error = summary.reason;
    return nullptr;
}
bool SoundSession::go(std::string &) {
    return false;
}
bool SoundSession::waitUntilPlaying(double, std::string &) {
    return false;
}
OSStatus SoundSession::anchor(SVTimebaseRef) const {
    return 0;
}
std::string SoundSession::problem() const {
    return {};
}
bool SoundSession::soundDone() const {
    return true;
}
double SoundSession::secondsLeft() const {
    return NAN;
}
void SoundSession::finish(const std::vector<PictureShown> &, SoundSummary &) {}

#endif

namespace {

// What the sound-only report says besides the sound's own summary.
struct SoundOnlyReport {
    SoundSummary sound;
    double wall = 0;  // seconds from asking for the sound to its end
    bool interrupted = false;
};

// Plays until the sound ends, goes wrong or is interrupted; 0, or 1 with
// `error` set when the sound never started.
int playUntilDone(SoundSession &session, const std::atomic<bool> &interrupted, std::string &error) {
    if (interrupted) return 0;  // stopped before it began: nothing to wait for
    if (!session.go(error) || !session.waitUntilPlaying(5.0, error)) return 1;
    while (!session.soundDone() && session.problem().empty() && !interrupted)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return 0;
}

void printSoundOnlyReport(const SoundOnlyRequest &request, const SoundOnlyReport &report) {
    const SoundSummary &summary = report.sound;
    if (request.json) {
        JsonWriter writer(stdout);
        writer.beginObject();
        writer.string("file", request.name);
        writer.number("rate", request.rate);
        writer.number("start", summary.start);
        writer.number("end", summary.end);
        writer.integer("samples_shown", 0);
        writer.number("wall_seconds", report.wall);
        writer.boolean("interrupted", report.interrupted);
        writeSoundJson(writer, summary, {});
        writer.endObject();
        writer.finish();
    } else {
        printf("Played %s (sound only, no video stream) from %.3f s to %.3f s in %.3f s of wall time\n",
               request.name.c_str(), summary.start, summary.end, report.wall);
        if (report.interrupted) printf("  Interrupted     playing stopped early\n");
        printSoundSummary(summary);
    }
    fflush(stdout);
}

}  // namespace

int playSoundOnly(const SoundOnlyRequest &request, const std::atomic<bool> &interrupted, std::string &error) {
    if (request.rate != 1.0) {
        error = "sound is played at rate 1 only";
        return -1;
    }
    const double from = std::isnan(request.start) ? 0 : request.start;
    const double to = std::isnan(request.duration) ? INFINITY : from + request.duration;
    SoundOnlyReport report;
    std::unique_ptr<SoundSession> session =
        SoundSession::start(request.mode, request.file, request.rate, from, to, report.sound, error, false);
    if (!session) {
        error = "no sound: " + report.sound.reason;
        return -1;
    }
    const auto began = std::chrono::steady_clock::now();
    int status = playUntilDone(*session, interrupted, error);
    session->finish({}, report.sound);
    report.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    report.interrupted = interrupted;
    printSoundOnlyReport(request, report);
    if (status == 0 && report.sound.state == "failed") {
        error = "sound: " + report.sound.reason;
        status = 1;
    }
    return status;
}

void printSoundSummary(const SoundSummary &summary) {
    if (summary.state != "played") {
        printf("  Sound           %s%s%s\n", summary.state == "off" ? "not played" : summary.state.c_str(),
               summary.reason.empty() ? "" : ": ", summary.reason.c_str());
        if (summary.state != "failed") return;
    } else {
        printf("  Sound           %s, %d Hz, %d channel%s, through %s\n", summary.codec.c_str(), summary.sampleRate,
               summary.channels, summary.channels == 1 ? "" : "s", summary.server.c_str());
    }
    if (summary.reports == 0) return;  // the device never reported
    if (summary.ratePpm)
        printf("  Device rate     %+.1f ppm against the host clock\n", *summary.ratePpm);
    else
        printf("  Device rate     not measured (less than two seconds of steady playing)\n");
    if (summary.underruns || summary.stalls)
        printf("  Sound stalls    %lld (the server ran out of sound %lld times)\n",
               static_cast<long long>(summary.stalls), static_cast<long long>(summary.underruns));
    const ErrorStats &stats = summary.offsetStats;
    if (stats.count())
        printf("  A/V offset      mean %+.3f ms, deviation %.3f ms, worst %+.3f ms, %lld of %lld outside ±%.0f ms\n",
               stats.mean(), stats.standardDeviation(), stats.worst(), static_cast<long long>(stats.outside()),
               static_cast<long long>(stats.count()), stats.limit());
}

void writeErrorStatsJson(JsonWriter &json, const ErrorStats &stats) {
    const bool any = stats.count() > 0;
    json.integer("count", stats.count());
    json.number("mean", any ? stats.mean() : NAN);
    json.number("standard_deviation", any ? stats.standardDeviation() : NAN);
    json.number("worst", any ? stats.worst() : NAN);
}

void writeSoundJson(JsonWriter &json, const SoundSummary &summary, const std::vector<PictureShown> &pictures) {
    json.beginObject("sound");
    json.string("mode", audioModeName(summary.mode));
    json.string("state", summary.state);
    if (!summary.reason.empty()) json.string("reason", summary.reason);
    if (summary.state == "played" || summary.state == "failed") {
        json.string("server", summary.server);
        json.string("codec", summary.codec);
        json.integer("sample_rate", summary.sampleRate);
        json.integer("channels", summary.channels);
        json.number("start", summary.start);
        json.number("end", summary.end);
        if (summary.ratePpm)
            json.number("device_rate_ppm", *summary.ratePpm);
        else
            json.null("device_rate_ppm");
        json.integer("underruns", summary.underruns);
        json.integer("stalls", summary.stalls);
        json.integer("timing_reports", summary.reports);
    }
    const ErrorStats &stats = summary.offsetStats;
    json.beginObject("av_offset_ms");
    writeErrorStatsJson(json, stats);
    json.number("limit", stats.limit());
    json.integer("outside_limit", stats.outside());
    json.endObject();
    json.endObject();
    // Every picture with its presentation time and the host time
    // (CLOCK_MONOTONIC nanoseconds) it was shown at, so that an outside
    // program can check the timing.
    json.beginArray("pictures");
    for (size_t i = 0; i < pictures.size(); ++i) {
        json.beginRow();
        json.number("pts", pictures[i].pts);
        json.integer("shown_ns", static_cast<long long>(pictures[i].host));
        if (i < summary.offsets.size())
            json.number("av_offset_ms", summary.offsets[i]);
        else
            json.null("av_offset_ms");
        json.endRow();
    }
    json.endArray();
}

}  // namespace sorvel::tool::audio
