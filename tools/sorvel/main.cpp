// SPDX-License-Identifier: Apache-2.0
// sorvel: probe, convert and play H.264/HEVC media through the Sorvel
// library.  See `sorvel --help`.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Commands.h"
#include "Json.h"
#include "audio/SoundSession.h"

namespace sorvel::tool {

namespace {
bool gJsonErrors = false;
}  // namespace

void reportErrorsAsJson(bool json) {
    gJsonErrors = json;
}

int reportError(const ToolError &error) {
    fprintf(stderr, "sorvel: %s\n", error.message.c_str());
    if (gJsonErrors) {
        // Whoever reads the JSON gets the failure as JSON too.
        JsonWriter json(stdout);
        json.beginObject();
        json.beginObject("error");
        json.integer("code", error.code);
        json.string("message", error.message);
        json.endObject();
        json.endObject();
        json.finish();
        fflush(stdout);
    }
    return error.code;
}

namespace {

constexpr const char kUsage[] =
    "usage: sorvel probe  [FILE] [--json] [--samples]\n"
    "       sorvel annexb [-y] [IN] OUT\n"
    "       sorvel play   [FILE] [--rate R] [--start T] [--duration D] [--audio auto|pulse|none]\n"
    "                     [--json] [--no-progress]\n"
    "\n"
    "Reads MP4, Matroska, MPEG-TS or raw H.264/HEVC with libavformat and does everything else\n"
    "with the Sorvel library.  Without FILE (or IN) the demo stream built into sorvel is used.\n"
    "\n"
    "  probe    the video stream's format description, timing, sync samples, reordering and\n"
    "           NAL units; audio streams' descriptions and timing (a file may have audio only).\n"
    "           --samples adds a per-sample table, and one per audio stream of its packets.\n"
    "  annexb   writes the video as an Annex B elementary stream (OUT may be - for stdout).\n"
    "           OUT is never the input, and an existing OUT is replaced only with -y.\n"
    "  play     plays the pictures in real time without decoding them, timed on the sound that\n"
    "           a PulseAudio server plays (--audio auto, at rate 1) or on the host clock: R is\n"
    "           the rate (negative plays backwards), T and D are in seconds.\n"
    "\n"
    "sorvel --version prints the version; sorvel COMMAND --help the options of a command.\n"
    "\n"
    "Exit status: 0 done, 1 failure, 2 bad command line, 3 cannot open the file, 4 no video\n"
    "stream, 5 unsupported video, 6 truncated or damaged file.\n";

constexpr const char kProbeHelp[] =
    "usage: sorvel probe [FILE] [--json] [--samples]\n"
    "\n"
    "Describes the video stream as the library sees it (codec, profile, level, sizes, colour, fields,\n"
    "parameter sets; sample count, timing, frame rate, sync samples, reordering, NAL units) and the\n"
    "audio streams: their stream descriptions, and the timing of the audio sample buffers made of their\n"
    "packets (frames, the encoder's priming and the end's remainder trimmed, duration).  A file with\n"
    "audio only, or video of another codec, is described as far as the library can (exit status 0).\n"
    "Without FILE the built-in demo stream is used.\n"
    "\n"
    "  --json      one JSON object; failures print {\"error\": {\"code\", \"message\"}}\n"
    "  --samples   one row per sample in decode order, and per audio packet (times in stream ticks)\n";
constexpr const char kAnnexBHelp[] =
    "usage: sorvel annexb [-y] [IN] OUT\n"
    "\n"
    "Writes the video stream as an Annex B elementary stream.  OUT may be - for standard output.\n"
    "OUT is never the input; an existing OUT is replaced only with -y.  Without IN the built-in demo\n"
    "stream is written.\n"
    "\n"
    "  -y, --overwrite   replace OUT when it exists\n";
constexpr const char kPlayHelp[] =
    "usage: sorvel play [FILE] [--rate R] [--start T] [--duration D] [--audio auto|pulse|none]\n"
    "                   [--json] [--no-progress]\n"
    "\n"
    "Plays the samples in real time without decoding the pictures, and reports how close to their\n"
    "moment they were taken.  At rate 1 the sound is played through a PulseAudio server and the\n"
    "pictures follow it; otherwise they follow the host clock.  Ctrl-C stops and still reports.\n"
    "\n"
    "  --rate R        playback rate; negative plays backwards (the input must be seekable)\n"
    "  --start T       seconds from the start of the stream to begin at\n"
    "  --duration D    seconds to play\n"
    "  --audio M       auto: sound when a server answers, else say so and go on without;\n"
    "                  pulse: sound or fail; none: no sound\n"
    "  --json          the report as one JSON object\n"
    "  --no-progress   no progress bar on standard error\n";

const char *helpFor(const std::string &command) {
    if (command == "probe") return kProbeHelp;
    if (command == "annexb") return kAnnexBHelp;
    if (command == "play") return kPlayHelp;
    return kUsage;
}

int usage(const char *problem) {
    if (problem) fprintf(stderr, "sorvel: %s\n", problem);
    fputs(kUsage, stderr);
    return kExitUsage;
}

bool parseNumber(const char *text, double &value) {
    if (!text || !*text) return false;
    char *end = nullptr;
    errno = 0;
    value = strtod(text, &end);
    return errno == 0 && *end == '\0' && std::isfinite(value);
}

}  // namespace
}  // namespace sorvel::tool

int main(int argc, char **argv) {
    using namespace sorvel::tool;
    if (argc < 2) return usage(nullptr);
    const std::string command = argv[1];
    if (command == "-h" || command == "--help" || command == "help") {
        fputs(argc > 2 ? helpFor(argv[2]) : kUsage, stdout);
        return kExitOK;
    }
    if (command == "--version" || command == "-V") {
        printf("sorvel %s\n", SORVEL_TOOL_VERSION);
        return kExitOK;
    }
    std::vector<std::string> positional;
    ProbeOptions probe;
    PlayOptions play;
    AnnexBOptions annexB;
    audio::AudioMode mode;
    for (int i = 2; i < argc; ++i) {
        const std::string argument = argv[i];
        auto value = [&](double &out) {
            if (i + 1 >= argc) return false;
            return parseNumber(argv[++i], out);
        };
        if (argument == "--json" && (command == "probe" || command == "play")) {
            probe.json = play.json = true;
        } else if (argument == "--samples" && command == "probe") {
            probe.samples = true;
        } else if (argument == "--rate" && command == "play") {
            if (!value(play.rate)) return usage("--rate needs a number");
            if (play.rate == 0) return usage("--rate must not be 0");
        } else if (argument == "--start" && command == "play") {
            if (!value(play.start) || play.start < 0) return usage("--start needs a number of seconds, 0 or more");
        } else if (argument == "--duration" && command == "play") {
            if (!value(play.duration) || play.duration <= 0)
                return usage("--duration needs a positive number of seconds");
        } else if (argument == "--audio" && command == "play") {
            if (i + 1 >= argc || !audio::parseAudioMode(argv[i + 1], mode))
                return usage("--audio needs auto, pulse or none");
            play.audio = argv[++i];
        } else if ((argument == "-y" || argument == "--overwrite") && command == "annexb") {
            annexB.overwrite = true;
        } else if (argument == "--no-progress" && command == "play") {
            play.progress = false;
        } else if (argument == "-h" || argument == "--help") {
            fputs(helpFor(command), stdout);
            return kExitOK;
        } else if (argument.size() > 1 && argument[0] == '-' && argument != "-") {
            return usage(("unknown option for " + command + ": " + argument).c_str());
        } else {
            positional.push_back(argument);
        }
    }
    reportErrorsAsJson(probe.json);
    if (command == "probe") {
        if (positional.size() > 1) return usage("probe takes one file");
        if (!positional.empty()) probe.file = positional[0];
        return runProbe(probe);
    }
    if (command == "annexb") {
        AnnexBOptions &options = annexB;
        if (positional.size() == 2) {
            options.input = positional[0];
            options.output = positional[1];
        } else if (positional.size() == 1) {
            options.output = positional[0];
        } else {
            return usage("annexb takes an input file and an output file");
        }
        return runAnnexB(options);
    }
    if (command == "play") {
        if (positional.size() > 1) return usage("play takes one file");
        if (!positional.empty()) play.file = positional[0];
        return runPlay(play);
    }
    return usage(("unknown command: " + command).c_str());
}
