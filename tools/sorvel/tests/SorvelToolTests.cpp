// SPDX-License-Identifier: Apache-2.0
// End-to-end tests of the `sorvel` command.  Each case runs the built program
// as a child process and judges its exit status, standard error and output
// against references made by independent tools (tests/data/expected, the
// bitstream-filter outputs under tests/data/bsf and tests/data/tool).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "AacConfig.h"
#include "PipeReader.h"

extern char **environ;

namespace {

namespace fs = std::filesystem;

const std::string kTool = SORVEL_TOOL_PATH;
const std::string kData = SORVEL_TEST_DATA_DIR;
const std::string kDemo = SORVEL_EMBEDDED_STREAM_PATH;
// Short files made with Debian's ffmpeg for the faults found on real files
// (tests/data/README.md in this folder says how each was made).
const std::string kMade = SORVEL_TOOL_DATA_DIR;

struct Outcome {
    int exitCode = -1;  // -1: the program did not exit by itself
    int signal = 0;
    std::string out, err;
    double seconds = 0;
};

// Runs the tool with `args`, standard input from /dev/null, and collects both
// output streams (read together, so a chatty child never blocks on a full pipe).
// With `standardOutput`, the tool's standard output is that file instead.
Outcome sorvel(const std::vector<std::string> &args, const char *standardOutput = nullptr) {
    Outcome result;
    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2 failed";
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (standardOutput)
        posix_spawn_file_actions_addopen(&actions, 1, standardOutput, O_WRONLY, 0);
    else
        posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    std::vector<char *> argv{const_cast<char *>(kTool.c_str())};
    for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    const auto started = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, kTool.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(outPipe[1]);
    close(errPipe[1]);
    if (spawned == 0) {
        const auto deadline = started + std::chrono::seconds(120);
        sorvel::test::readBoth(outPipe[0], errPipe[0], result.out, result.err, [&] {
            if (std::chrono::steady_clock::now() <= deadline) return false;
            ADD_FAILURE() << "sorvel did not finish within 120 s; killed";
            kill(pid, SIGKILL);
            return true;
        });
        int status = 0;
        pid_t waited;
        while ((waited = waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
        }
        if (waited == pid && WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
        if (waited == pid && WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    } else {
        ADD_FAILURE() << "cannot start " << kTool << ": " << strerror(spawned);
    }
    close(outPipe[0]);
    close(errPipe[0]);
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return result;
}

// The exit status, no signal, and no sanitizer report, whatever the status.
void expectExit(const Outcome &r, int code) {
    EXPECT_EQ(r.signal, 0) << "killed by a signal; stderr:\n" << r.err;
    EXPECT_EQ(r.exitCode, code) << "stderr:\n" << r.err;
    for (const char *report : {"AddressSanitizer", "LeakSanitizer", "runtime error:"})
        EXPECT_EQ(r.err.find(report), std::string::npos) << r.err;
}

std::string joined(const std::vector<std::string> &args) {
    std::string text = "sorvel";
    for (const std::string &arg : args) text += " " + arg;
    return text;
}

// Bytes that no demuxer should take for media.
std::string noise(unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(8192, '\0');
    for (char &c : bytes) c = static_cast<char>(generator());
    return bytes;
}

std::string readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << "cannot read " << path;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Just enough JSON for the tool's output and the reference files (whose
// strings are plain ASCII: \u escapes are not decoded).
struct Json {
    enum Kind { Null, Bool, Number, String, Array, Object } kind = Null;
    double number = 0;  // also 1/0 for true/false
    std::string text;
    std::vector<Json> items;
    std::map<std::string, Json> fields;

    const Json &operator[](const std::string &key) const {
        static const Json missing;
        const auto it = fields.find(key);
        return it == fields.end() ? missing : it->second;
    }
    const Json &operator[](size_t index) const {
        static const Json missing;
        return index < items.size() ? items[index] : missing;
    }
    long long integer() const { return std::llround(number); }
    bool boolean() const { return kind == Bool && number != 0; }
};

std::vector<long long> integers(const Json &array) {
    std::vector<long long> values;
    for (const Json &item : array.items) values.push_back(item.integer());
    return values;
}

struct JsonReader {
    const char *p;
    void skip() {
        while (isspace(static_cast<unsigned char>(*p))) ++p;
    }
    bool eat(char c) {
        skip();
        if (*p != c) return false;
        ++p;
        return true;
    }
    bool word(const char *w) {
        if (strncmp(p, w, strlen(w)) != 0) return false;
        p += strlen(w);
        return true;
    }
    bool string(std::string &out) {
        if (!eat('"')) return false;
        for (; *p && *p != '"'; ++p) {
            const bool escaped = *p == '\\';
            if (escaped && !*++p) return false;
            out += escaped && *p == 'n' ? '\n' : *p;
        }
        return *p++ == '"';
    }
    bool value(Json &v) {
        skip();
        const char open = *p, close = open == '{' ? '}' : ']';
        if (open == '{' || open == '[') {
            ++p;
            v.kind = open == '{' ? Json::Object : Json::Array;
            if (eat(close)) return true;
            do {
                std::string key;
                Json item;
                if ((open == '{' && (!string(key) || !eat(':'))) || !value(item)) return false;
                if (open == '{')
                    v.fields[key] = std::move(item);
                else
                    v.items.push_back(std::move(item));
            } while (eat(','));
            return eat(close);
        }
        if (open == '"') {
            v.kind = Json::String;
            return string(v.text);
        }
        if (word("null")) return true;
        v.kind = Json::Bool;
        if (word("true")) return v.number = 1, true;
        if (word("false")) return true;
        char *end = nullptr;
        v.kind = Json::Number;
        v.number = strtod(p, &end);
        if (end == p) return false;
        p = end;
        return true;
    }
};

Json parseJson(const std::string &text) {
    Json value;
    JsonReader reader{text.c_str()};
    bool ok = reader.value(value);
    reader.skip();
    EXPECT_TRUE(ok && *reader.p == '\0') << "not JSON:\n" << text.substr(0, 2000);
    return value;
}

// NAL unit payloads of an Annex B stream: split on 00 00 01; the extra zero
// of a 4-byte start code and trailing_zero_8bits are stripped as padding.
// `shortCodes` counts the start codes not preceded by a zero byte.
std::vector<std::string> annexBUnits(const std::string &stream, size_t *shortCodes = nullptr) {
    std::vector<std::string> units;
    size_t start = std::string::npos, threeByte = 0;
    for (size_t i = 0; i + 2 < stream.size();) {
        if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1) {
            if (start != std::string::npos) units.push_back(stream.substr(start, i - start));
            if (i == 0 || stream[i - 1] != 0) ++threeByte;
            start = i += 3;
        } else {
            ++i;
        }
    }
    if (start != std::string::npos) units.push_back(stream.substr(start));
    for (std::string &unit : units)
        while (!unit.empty() && unit.back() == 0) unit.pop_back();
    if (shortCodes) *shortCodes = threeByte;
    return units;
}

void expectSameUnits(const std::vector<std::string> &ours, const std::vector<std::string> &reference) {
    ASSERT_FALSE(reference.empty());
    EXPECT_EQ(ours.size(), reference.size());
    for (size_t i = 0; i < std::min(ours.size(), reference.size()); ++i) {
        if (ours[i] == reference[i]) continue;
        ADD_FAILURE() << "NAL unit " << i << " differs: " << ours[i].size() << " bytes, type byte "
                      << (ours[i].empty() ? -1 : ours[i][0] & 0xFF) << "; reference " << reference[i].size()
                      << " bytes, type byte " << (reference[i].empty() ? -1 : reference[i][0] & 0xFF);
        return;
    }
}

// A directory of scratch files, removed with everything in it.
struct TempDir {
    fs::path path;
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "sorvel-tool-XXXXXX").string();
        path = mkdtemp(pattern.data()) ? fs::path(pattern) : fs::path();
        EXPECT_FALSE(path.empty());
    }
    ~TempDir() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    std::string file(const std::string &name, const std::string &bytes = {}) const {
        const std::string full = (path / name).string();
        std::ofstream(full, std::ios::binary) << bytes;
        return full;
    }
};

const char *const kClips[] = {"avc_baseline_176x144",
                              "avc_baseline_176x144.len2",
                              "avc_high10_1280x720_pq",
                              "avc_high_480x270_sar37x20_smpte240m",
                              "avc_high_642x362_sar40x33_smpte170m",
                              "avc_high_720x576_tff_sar16x11",
                              "avc_main_1920x1080_bt709",
                              "avc_main_1920x1080_bt709.oob",
                              "hevc_main10_640x360_hlg_full_chromaloc2",
                              "hevc_main_1920x1080_bt709",
                              "hevc_main_642x362_sar40x33_smpte170m_hvc1",
                              "hevc_main_642x362_sar40x33_smpte170m_hvc1.oob"};

std::string clipMedia(const std::string &clip) {
    return kData + "/media/" + clip + ".mp4";
}
std::string testName(const testing::TestParamInfo<const char *> &info) {
    std::string name = info.param;
    for (char &c : name)
        if (!isalnum(static_cast<unsigned char>(c))) c = '_';
    return name;
}

class ClipTest : public testing::TestWithParam<const char *> {};

TEST_P(ClipTest, ProbeMatchesReference) {
    const std::string clip = GetParam();
    const Outcome r = sorvel({"probe", clipMedia(clip), "--json", "--samples"});
    expectExit(r, 0);
    const Json probe = parseJson(r.out);
    const Json reference = parseJson(readFile(kData + "/expected/" + clip + ".json"));
    const Json &video = probe["video"], &summary = reference["summary"];
    const std::pair<const char *, const char *> same[] = {{"codec", "codec"},
                                                          {"profile", "profile"},
                                                          {"level", "level"},
                                                          {"coded_width", "coded_width"},
                                                          {"coded_height", "coded_height"},
                                                          {"width", "display_width"},
                                                          {"height", "display_height"},
                                                          {"nal_unit_header_length", "nal_length_size"}};
    for (const auto &[ours, theirs] : same) {
        EXPECT_EQ(video[ours].text, summary[theirs].text) << ours;
        EXPECT_EQ(video[ours].integer(), summary[theirs].integer()) << ours;
        EXPECT_NE(video[ours].kind, Json::Null) << ours;
    }
    EXPECT_TRUE(probe["warnings"].items.empty()) << r.out;

    const std::vector<Json> &packets = reference["packets"].items, &samples = video["samples"].items;
    ASSERT_EQ(video["sample_count"].integer(), static_cast<long long>(packets.size()));
    ASSERT_EQ(samples.size(), packets.size());
    std::vector<long long> syncIndices;
    for (size_t i = 0; i < samples.size(); ++i) {
        SCOPED_TRACE("sample " + std::to_string(i));
        EXPECT_EQ(samples[i]["pts"].integer(), packets[i]["pts"].integer());
        EXPECT_EQ(samples[i]["dts"].integer(), packets[i]["dts"].integer());
        EXPECT_EQ(samples[i]["duration"].integer(), packets[i]["duration"].integer());
        EXPECT_EQ(samples[i]["size"].integer(), packets[i]["size"].integer());
        EXPECT_EQ(samples[i]["sync"].boolean(), packets[i]["keyframe"].boolean());
        if (packets[i]["keyframe"].boolean()) syncIndices.push_back(static_cast<long long>(i));
    }
    EXPECT_EQ(integers(video["sync_samples"]), syncIndices);
}

TEST_P(ClipTest, AnnexBCarriesTheReferenceUnits) {
    const std::string clip = GetParam();
    const TempDir dir;
    const std::string output = (dir.path / "out.annexb").string();
    const Outcome r = sorvel({"annexb", clipMedia(clip), output});
    expectExit(r, 0);
    const std::string stream = readFile(output);
    size_t shortCodes = 0;
    const std::vector<std::string> units = annexBUnits(stream, &shortCodes);
    EXPECT_EQ(stream.compare(0, 4, std::string("\0\0\0\1", 4)), 0) << "the stream must open with a start code";
    EXPECT_EQ(shortCodes, 0u) << "every start code is 4 bytes long";
    const std::string extension = clip.rfind("hevc", 0) == 0 ? ".h265" : ".h264";
    expectSameUnits(units, annexBUnits(readFile(kData + "/bsf/" + clip + ".annexb" + extension)));

    // The encoder's own elementary stream, read raw, comes out unit for unit.
    const std::string raw = kData + "/media/" + clip + extension;
    if (!fs::exists(raw)) return;  // the .len2/.oob variants share their base clip's stream
    const Outcome again = sorvel({"annexb", "-y", raw, output});
    expectExit(again, 0);
    expectSameUnits(annexBUnits(readFile(output)), annexBUnits(readFile(raw)));
}

INSTANTIATE_TEST_SUITE_P(Clips, ClipTest, testing::ValuesIn(kClips), testName);

// Other containers.  Reference values from ffprobe's packet list: the sorted
// presentation times are firstPts + k * step, decode times dts0 + i * step
// after `missingDts` leading packets that have none.
struct ContainerCase {
    const char *file, *container, *codec, *profile;
    long long timescale, samples;
    std::vector<long long> sync;
    long long firstPts, step, dts0, missingDts;
    const char *annexBReference;  // made with ffmpeg -c copy -bsf:v h264_mp4toannexb / hevc_mp4toannexb
};

// clang-format off
const ContainerCase kContainers[] = {
    {"h264_bframes.mkv", "matroska", "h264", "High", 1000, 30, {0, 12, 24}, 23, 40, 23, 2,
     "h264_bframes.mkv.annexb.h264"},
    {"h264_ntsc.ts", "mpegts", "h264", "High", 90000, 36, {0, 15, 30}, 132006, 3003, 126000, 0,
     "h264_ntsc.ts.annexb.h264"},
    {"hevc_bframes.ts", "mpegts", "hevc", "Main", 90000, 30, {0, 9, 21}, 133200, 3600, 126000, 0,
     "hevc_bframes.ts.annexb.h265"},
};
// clang-format on

TEST(SorvelProbe, OtherContainersKeepTheirTiming) {
    for (const ContainerCase &c : kContainers) {
        SCOPED_TRACE(c.file);
        const Outcome r = sorvel({"probe", kData + "/tool/" + c.file, "--json", "--samples"});
        expectExit(r, 0);
        const Json probe = parseJson(r.out);
        const Json &video = probe["video"];
        EXPECT_NE(probe["container"].text.find(c.container), std::string::npos) << probe["container"].text;
        EXPECT_EQ(video["codec"].text, c.codec);
        EXPECT_EQ(video["profile"].text, c.profile);
        EXPECT_EQ(video["width"].integer(), 160);
        EXPECT_EQ(video["height"].integer(), 90);
        EXPECT_EQ(video["timescale"].integer(), c.timescale);
        EXPECT_GE(video["reorder_depth"].integer(), 1) << "these streams have B-frames";
        const std::vector<Json> &samples = video["samples"].items;
        ASSERT_EQ(static_cast<long long>(samples.size()), c.samples);
        EXPECT_EQ(integers(video["sync_samples"]), c.sync);
        std::vector<long long> pts;
        for (size_t i = 0; i < samples.size(); ++i) {
            SCOPED_TRACE("sample " + std::to_string(i));
            pts.push_back(samples[i]["pts"].integer());
            EXPECT_EQ(samples[i]["duration"].integer(), c.step);
            const long long index = static_cast<long long>(i);
            if (index < c.missingDts)
                EXPECT_EQ(samples[i]["dts"].kind, Json::Null) << "the container gives no decode time here";
            else
                EXPECT_EQ(samples[i]["dts"].integer(), c.dts0 + (index - c.missingDts) * c.step);
        }
        std::sort(pts.begin(), pts.end());
        for (size_t k = 0; k < pts.size(); ++k) EXPECT_EQ(pts[k], c.firstPts + static_cast<long long>(k) * c.step);
    }
}

TEST(SorvelProbe, EmbeddedStreamIsTheDemoFileWithItsAudio) {
    const Outcome embedded = sorvel({"probe", "--json"});
    expectExit(embedded, 0);
    const Json probe = parseJson(embedded.out);
    const Json &video = probe["video"];
    EXPECT_EQ(video["profile"].text, "High");
    EXPECT_EQ(video["width"].integer(), 320);
    EXPECT_EQ(video["height"].integer(), 180);
    EXPECT_EQ(video["sample_count"].integer(), 75);
    EXPECT_EQ(integers(video["sync_samples"]), (std::vector<long long>{0, 25, 50}));
    ASSERT_EQ(probe["audio"].items.size(), 1u);
    const Json &audio = probe["audio"][0];
    EXPECT_EQ(audio["format_id"].text, "aac ");
    EXPECT_EQ(audio["channels"].integer(), 2);
    EXPECT_EQ(audio["sample_rate"].number, 48000.0);
    EXPECT_EQ(audio["channel_layout"].text, "Stereo");
    EXPECT_EQ(audio["magic_cookie_size"].integer(), 5);  // the AudioSpecificConfig of the esds
    EXPECT_EQ(audio["packet_count"].integer(), 142);
    EXPECT_EQ(audio["sample_buffer_count"].integer(), 142);
    EXPECT_EQ(audio["frame_count"].integer(), 142 * 1024);

    // Read from memory or from the file, the report is the same but for its name.
    const Outcome file = sorvel({"probe", kDemo, "--json"});
    expectExit(file, 0);
    EXPECT_EQ(parseJson(file.out)["file"].text, kDemo);
    EXPECT_EQ(embedded.out.substr(embedded.out.find("\"container\"")), file.out.substr(file.out.find("\"container\"")));
}

// Audio: every packet becomes an audio sample buffer.  Its presentation
// time, duration (less what the container cuts off its end) and size agree
// with ffprobe's packet list (tests/data/audio_*.packets: pts,dts,duration,size
// from `ffprobe -show_entries packet=pts,dts,duration,size -of csv=p=0`), and
// the stream's timing follows from the trims the container signals.
TEST(SorvelProbe, AudioPacketsAgreeWithTheContainer) {
    const struct {
        const char *file, *format;
        long long frames, priming, remainder;
        double start, duration;
    } cases[] = {
        // 0.5 s of sine: after the trims every file but the raw AC-3 (which
        // cannot say how much of its last frame is padding) is 0.5 s long.
        {"audio_aac.m4a", "aac ", 23 * 1024, 1024, 478, 0, 0.5},
        {"audio_opus.ogg", "opus", 24960, 312, 648, 0, 0.5},
        {"audio_ac3.ac3", "ac-3", 15 * 1536, 0, 0, 0, 15 * 1536 / 44100.0},
        {"audio_flac.flac", "flac", 22050, 0, 0, 0, 0.5},
        {"audio_mp3.mp3", ".mp3", 21 * 1152, 1105, 1037, 1105 / 44100.0, 0.5},
        {"audio_pcm.wav", "lpcm", 8000, 0, 0, 0, 0.5},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file);
        const Outcome r = sorvel({"probe", kMade + "/" + c.file, "--json", "--samples"});
        expectExit(r, 0);
        const Json probe = parseJson(r.out);
        EXPECT_EQ(probe["video"].kind, Json::Null);
        ASSERT_EQ(probe["audio"].items.size(), 1u);
        const Json &audio = probe["audio"][0];
        EXPECT_EQ(audio["format_id"].text, c.format);
        std::istringstream reference(readFile(kMade + "/" + c.file + ".packets"));
        std::vector<std::vector<long long>> packets;
        for (std::string line; std::getline(reference, line);) {
            std::vector<long long> fields;
            std::istringstream columns(line);
            for (std::string field; std::getline(columns, field, ',');) fields.push_back(std::stoll(field));
            packets.push_back(fields);
        }
        const Json &samples = audio["samples"];
        ASSERT_EQ(samples.items.size(), packets.size());
        EXPECT_EQ(audio["packet_count"].integer(), static_cast<long long>(packets.size()));
        EXPECT_EQ(audio["sample_buffer_count"].integer(), static_cast<long long>(packets.size()));
        for (size_t i = 0; i < packets.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(samples[i]["pts"].integer(), packets[i][0]);
            EXPECT_EQ(samples[i]["dts"].integer(), packets[i][1]);
            EXPECT_EQ(samples[i]["duration"].integer(), packets[i][2]);
            EXPECT_EQ(samples[i]["size"].integer(), packets[i][3]);
        }
        EXPECT_EQ(audio["frame_count"].integer(), c.frames);
        EXPECT_EQ(audio["priming_frames"].integer(), c.priming);
        EXPECT_EQ(audio["remainder_frames"].integer(), c.remainder);
        EXPECT_NEAR(audio["start_time"].number, c.start, 1e-6);
        EXPECT_NEAR(audio["duration"].number, c.duration, 1e-6);
        EXPECT_EQ(audio["frame_count"].integer() - c.priming - c.remainder,
                  std::llround(audio["duration"].number * audio["sample_rate"].number));
    }
    // The text report names the timing too.
    const Outcome text = sorvel({"probe", kMade + "/audio_aac.m4a"});
    expectExit(text, 0);
    EXPECT_NE(text.out.find("Video         none"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("23552 frames (priming 1024, remainder 478), start 0.000000 s, duration 0.500000 s"),
              std::string::npos)
        << text.out;
}

TEST(SorvelAnnexB, OtherContainersKeepTheirUnitsThroughAPipe) {
    for (const ContainerCase &c : kContainers) {
        SCOPED_TRACE(c.file);
        const Outcome r = sorvel({"annexb", kData + "/tool/" + c.file, "-"});
        expectExit(r, 0);
        EXPECT_NE(r.err.find("Wrote " + std::to_string(c.samples) + " samples"), std::string::npos) << r.err;
        expectSameUnits(annexBUnits(r.out), annexBUnits(readFile(kData + "/tool/" + c.annexBReference)));
    }
}

// Writes happen on a second thread; a failing one still ends the run with
// the reason and no success line, however many samples were converted.
TEST(SorvelAnnexB, AFailingWriteIsReported) {
    const Outcome r = sorvel({"annexb", kDemo, "-"}, "/dev/full");
    expectExit(r, 1);
    EXPECT_NE(r.err.find("sorvel: -: No space left on device"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("Wrote"), std::string::npos) << r.err;
}

TEST(SorvelAnnexB, EmbeddedStreamEqualsTheDemoFile) {
    const TempDir dir;
    const std::string fromMemory = (dir.path / "embedded.h264").string(), fromFile = (dir.path / "file.h264").string();
    expectExit(sorvel({"annexb", fromMemory}), 0);
    expectExit(sorvel({"annexb", kDemo, fromFile}), 0);
    const std::string bytes = readFile(fromMemory);
    EXPECT_GT(bytes.size(), 30000u);
    EXPECT_TRUE(bytes == readFile(fromFile));
}

// Playback against the host clock.  What is shown and skipped is exact;
// timing is only checked loosely because the machines running this are
// shared and loaded.
struct PlayCase {
    std::vector<std::string> args;  // the rate comes last
    long long shown;
    bool skipsSome;
    double start, end;
};

TEST(SorvelPlay, ShowsTheWindowAtTheAskedRate) {
    const std::string ntsc = kData + "/tool/h264_ntsc.ts", hevc = kData + "/tool/hevc_bframes.ts";
    const PlayCase cases[] = {
        {{"--rate", "8"}, 75, false, 0.0, 3.0},
        {{"--rate", "-8"}, 75, false, 3.0, 0.0},
        {{"--start", "1", "--duration", "1", "--rate", "8"}, 25, true, 1.0, 2.0},
        {{"--start", "2", "--duration", "1", "--rate", "-8"}, 25, false, 2.0, 1.0},
        {{ntsc, "--rate", "4"}, 36, false, 132006 / 90000.0, (237111 + 3003) / 90000.0},
        {{hevc, "--rate", "-4"}, 30, false, (237600 + 3600) / 90000.0, 133200 / 90000.0},
        {{kData + "/tool/h264_bframes.mkv", "--rate", "4"}, 30, false, 0.023, 1.223},
    };
    for (const PlayCase &c : cases) {
        std::vector<std::string> args{"play", "--json", "--no-progress"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        SCOPED_TRACE(joined(c.args));
        const Outcome r = sorvel(args);
        expectExit(r, 0);
        SCOPED_TRACE(r.out);
        const Json report = parseJson(r.out);
        EXPECT_EQ(report["samples_shown"].integer(), c.shown);
        // A loaded machine may wake the player late now and then: a late
        // count is only bounded, but it must agree with the worst error.
        const long long late = report["late_samples"].integer();
        EXPECT_LE(late, c.shown / 4);
        if (std::fabs(report["worst_error_ms"].number) <= 2.0) EXPECT_EQ(late, 0);
        if (late > 0) EXPECT_GT(std::fabs(report["worst_error_ms"].number), 2.0);
        if (c.skipsSome)
            EXPECT_GT(report["samples_skipped"].integer(), 0);
        else
            EXPECT_EQ(report["samples_skipped"].integer(), 0);
        EXPECT_NEAR(report["start"].number, c.start, 1e-4);
        EXPECT_NEAR(report["end"].number, c.end, 1e-4);
        EXPECT_LT(std::fabs(report["worst_error_ms"].number), 50.0);
        // The last picture is due one frame before the end of the window.
        const double rate = std::fabs(atof(c.args[c.args.size() - 1].c_str()));
        const double span = std::fabs(c.end - c.start) / rate, frame = 0.05 / rate;
        EXPECT_GE(report["wall_seconds"].number, span - frame);
        EXPECT_LE(report["wall_seconds"].number, span + 1.0);
        EXPECT_GE(r.seconds, span - frame);
    }
}

// Failures: the exit status tells them apart and the message says what went wrong.
struct ErrorCase {
    std::vector<std::string> args;
    int code;
    const char *message;
};

TEST(SorvelErrors, ExitStatusAndMessage) {
    const TempDir dir;
    const std::string demo = readFile(kDemo), high10 = readFile(clipMedia("avc_high10_1280x720_pq"));
    // moov at the front: the cut lands inside video sample 44 (bytes 29784..30091).
    const std::string cutFront = dir.file("cut_front.mp4", demo.substr(0, 30000));
    // moov at the end: the cut leaves no movie box at all.
    const std::string cutEnd = dir.file("cut_end.mp4", high10.substr(0, 20000));
    const ErrorCase cases[] = {
        {{"probe", (dir.path / "missing.mp4").string()}, 3, "No such file or directory"},
        {{"probe", dir.path.string()}, 3, "is a directory"},
        {{"probe", dir.file("empty.mp4")}, 3, "the file is empty"},
        {{"probe", dir.file("noise.bin", noise(1234))}, 3, "not a media file"},
        {{"annexb", kData + "/tool/audio_only.m4a", (dir.path / "none.h264").string()}, 4, "has no video stream"},
        // Without sound to play instead (see LipSyncTests for the sound).
        {{"play", kData + "/tool/audio_only.m4a", "--audio", "none"}, 4, "has no video stream"},
        {{"annexb", kData + "/tool/mpeg4_video.mp4", "-"}, 5, "the video is mpeg4"},
        {{"play", kData + "/tool/mpeg4_video.mp4"}, 5, "the video is mpeg4"},
        {{"probe", cutFront}, 6, "sample 44 is incomplete"},
        {{"annexb", cutFront, (dir.path / "cut.h264").string()}, 6, "sample 44 is incomplete"},
        {{"play", cutFront, "--rate", "8", "--no-progress"}, 6, "sample 44 is incomplete"},
        {{"probe", cutEnd}, 6, "truncated or unfinished MP4"},
        {{"annexb", kDemo, (dir.path / "no" / "such" / "dir.h264").string()}, 1, "No such file or directory"},
        {{}, 2, "usage:"},
        {{"frobnicate"}, 2, "unknown command: frobnicate"},
        {{"probe", "--bogus"}, 2, "unknown option for probe: --bogus"},
        {{"play", "--samples"}, 2, "unknown option for play: --samples"},
        {{"probe", kDemo, kDemo}, 2, "probe takes one file"},
        {{"play", "--rate", "0"}, 2, "--rate must not be 0"},
        {{"play", "--rate", "abc"}, 2, "--rate needs a number"},
        {{"play", "--rate", "nan"}, 2, "--rate needs a number"},
        {{"play", "--rate"}, 2, "--rate needs a number"},
        {{"play", "--duration", "0"}, 2, "--duration needs a positive number"},
        {{"play", "--start", "3", "--rate", "8"}, 2, "past the end of the stream"},
        {{"play", "--start", "10", "--rate", "-8"}, 2, "past the end of the stream"},
        {{"play", "--start", "-1"}, 2, "--start needs a number of seconds"},
        {{"annexb"}, 2, "annexb takes an input file and an output file"},
        {{"annexb", "a", "b", "c"}, 2, "annexb takes an input file and an output file"},
    };
    for (const ErrorCase &c : cases) {
        SCOPED_TRACE(joined(c.args));
        const Outcome r = sorvel(c.args);
        expectExit(r, c.code);
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
}

// The incomplete sample is the last one reported, and the report still comes out.
TEST(SorvelErrors, TruncatedProbeStillReportsTheSamplesBeforeTheCut) {
    const TempDir dir;
    const Outcome r = sorvel({"probe", "--json", dir.file("cut.mp4", readFile(kDemo).substr(0, 30000))});
    expectExit(r, 6);
    const Json probe = parseJson(r.out);
    EXPECT_EQ(probe["video"]["sample_count"].integer(), 45);
    bool named = false;
    for (const Json &warning : probe["warnings"].items)
        named |= warning.text.find("sample 44 is incomplete") != std::string::npos;
    EXPECT_TRUE(named) << r.out;
}

// Random bytes are not a truncated MP4, whatever the file is called.
TEST(SorvelErrors, NoiseNamedMp4CannotBeOpened) {
    const TempDir dir;
    const Outcome r = sorvel({"probe", dir.file("noise.mp4", noise(1234))});
    expectExit(r, 3);
    EXPECT_NE(r.err.find("not a media file"), std::string::npos) << r.err;
}

// A window that starts inside the last group of pictures, on inputs that
// seek without an index (MPEG-TS) and inputs that cannot seek at all (raw
// elementary streams, read forward from the start instead).
struct WindowCase {
    std::string file;
    std::vector<std::string> args;
    long long shown;
    double start, end;
};

TEST(SorvelPlay, WindowsAnywhereInTheStream) {
    const WindowCase cases[] = {
        // MPEG-TS starts at 1.48 s; sync samples at 0 s and 1 s of the stream.
        {kMade + "/last_gop.ts", {"--start", "1.5", "--rate", "8"}, 13, 2.98, 3.48},
        {kMade + "/last_gop.ts", {"--start", "1.96", "--rate", "8"}, 1, 3.44, 3.48},
        {kMade + "/last_gop.ts", {"--start", "0.5", "--duration", "0.2", "--rate", "8"}, 6, 1.98, 2.2},
        {kMade + "/last_gop.ts", {"--start", "1.5", "--rate", "-8"}, 38, 2.98, 1.48},
        {kMade + "/raw.h264", {"--start", "1.2", "--rate", "8"}, 20, 1.2, 2.0},
        {kMade + "/raw.h264", {"--start", "0", "--duration", "0.4", "--rate", "8"}, 10, 0.0, 0.4},
        {kMade + "/raw.hevc", {"--start", "0.5", "--duration", "0.5", "--rate", "8"}, 13, 0.5, 1.0},
        {kMade + "/raw.hevc", {"--start", "1.98", "--rate", "8"}, 1, 1.98, 2.0},
    };
    for (const WindowCase &c : cases) {
        std::vector<std::string> args{"play", c.file, "--json", "--no-progress"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        SCOPED_TRACE(joined(args));
        const Outcome r = sorvel(args);
        expectExit(r, 0);
        const Json report = parseJson(r.out);
        EXPECT_EQ(report["samples_shown"].integer(), c.shown) << r.out;
        EXPECT_NEAR(report["start"].number, c.start, 1e-4);
        EXPECT_NEAR(report["end"].number, c.end, 1e-4);
    }
}

// Parameter sets are compared as payloads: a muxer's trailing zero byte in
// the configuration record is no format change, a new SPS is.
TEST(SorvelProbe, FormatChangesAreRealOnes) {
    const struct {
        std::string file;
        long long changes;
        long long ppsSize;
    } cases[] = {
        {kMade + "/remuxed_raw.mp4", 0, 7},  // the record's PPS ends with a zero byte
        {kMade + "/real_change.mp4", 1, 6},  // High then Main profile, one file
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file);
        const Outcome r = sorvel({"probe", c.file, "--json"});
        expectExit(r, 0);
        const Json video = parseJson(r.out)["video"];
        EXPECT_EQ(video["format_changes"].integer(), c.changes);
        long long pps = -1;
        for (const Json &set : video["parameter_sets"].items)
            if (set["type"].text == "PPS") pps = set["size"].integer();
        EXPECT_EQ(pps, c.ppsSize) << r.out;
    }
}

// Every sample's decode time is what `decode_times` says: stored ones for
// every sample, derived ones missing only before the first derived one.
TEST(SorvelProbe, DecodeTimesAreWhatTheReportSays) {
    const struct {
        std::string file, source;
        long long missing;
    } cases[] = {
        {kData + "/tool/h264_ntsc.ts", "stored", 0},
        {kData + "/tool/h264_bframes.mkv", "derived", 2},
        {kMade + "/raw.h264", "counted", 0},
        {kDemo, "stored", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file);
        const Outcome r = sorvel({"probe", c.file, "--json", "--samples"});
        expectExit(r, 0);
        const Json video = parseJson(r.out)["video"];
        EXPECT_EQ(video["decode_times"].text, c.source);
        long long missing = 0, previous = LLONG_MIN;
        for (const Json &sample : video["samples"].items) {
            if (sample["dts"].kind == Json::Null) {
                EXPECT_EQ(previous, LLONG_MIN) << "a missing decode time after a known one";
                ++missing;
                continue;
            }
            EXPECT_GT(sample["dts"].integer(), previous) << "decode times rise in decode order";
            previous = sample["dts"].integer();
        }
        EXPECT_EQ(missing, c.missing);
    }
}

// Backwards through groups of pictures four seconds long at 60 fps: the
// clock must not start before the picture due first is queued, which comes
// last in decode order.  Judged on the median of three runs, since a loaded
// machine may wake the player late now and then.
TEST(SorvelPlay, LongGroupsBackwardsAreOnTime) {
    std::vector<long long> late;
    std::vector<double> worst;
    for (int run = 0; run < 3; ++run) {
        const Outcome r = sorvel({"play", kMade + "/long_gop_60fps.mp4", "--rate", "-2", "--json", "--no-progress"});
        expectExit(r, 0);
        const Json report = parseJson(r.out);
        EXPECT_EQ(report["samples_shown"].integer(), 360);
        late.push_back(report["late_samples"].integer());
        worst.push_back(std::fabs(report["worst_error_ms"].number));
    }
    std::sort(late.begin(), late.end());
    std::sort(worst.begin(), worst.end());
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    // Instrumented builds run several times slower beside other tests:
    // their timing says nothing about the player's.
    GTEST_SKIP() << "timing is not judged in sanitizer builds; median late " << late[1];
#endif
#endif
    // A clock started mid-group shows two or three pictures 15 ms late or
    // more on every run; a loaded machine may add one late wake-up.
    EXPECT_LE(late[1], 1) << "late samples in most runs";
    EXPECT_LT(worst[1], 10.0);
}

// The field order is what the stream states, not a default.
TEST(SorvelProbe, FieldOrderIsWhatTheStreamSays) {
    const struct {
        std::string file;
        long long fields;
        const char *detail, *order;
    } cases[] = {
        {kMade + "/mbaff_bff.mp4", 2, "bottom field first", "bb"},
        {kMade + "/mbaff_bff.ts", 2, "bottom field first", "bb"},
        {kMade + "/mbaff_tff.mp4", 2, "top field first", "tt"},
        {kMade + "/raw.h264", 1, "", "progressive"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file);
        const Outcome r = sorvel({"probe", c.file, "--json"});
        expectExit(r, 0);
        const Json video = parseJson(r.out)["video"];
        EXPECT_EQ(video["field_count"].integer(), c.fields);
        EXPECT_EQ(video["field_detail"].text, c.detail);
        EXPECT_EQ(video["field_order"].text, c.order);
    }
    const Outcome text = sorvel({"probe", kMade + "/mbaff_bff.mp4"});
    EXPECT_NE(text.out.find("Fields      2 (bottom field first)"), std::string::npos) << text.out;
}

// annexb never writes over its input, nor over an existing file unless
// asked, and leaves nothing behind when it fails.
std::vector<std::string> entries(const fs::path &dir) {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

TEST(SorvelAnnexB, NeverOverwritesWhatItWasNotAskedTo) {
    const TempDir dir;
    const std::string demo = readFile(kDemo);
    const std::string in = dir.file("in.mp4", demo), other = dir.file("other.h264", "keep me");
    fs::create_hard_link(in, dir.path / "hard.mp4");
    fs::create_symlink("in.mp4", dir.path / "soft.mp4");
    fs::create_directory(dir.path / "sub");
    const std::string hard = (dir.path / "hard.mp4").string(), soft = (dir.path / "soft.mp4").string();
    const struct {
        std::vector<std::string> args;
        int code;
        const char *message;
    } cases[] = {
        {{"annexb", in}, 2, "to convert it, name an output too"},
        {{"annexb", in, in}, 2, "is the input file"},
        {{"annexb", "-y", in, in}, 2, "is the input file"},
        {{"annexb", "-y", in, hard}, 2, "is the input file"},
        {{"annexb", "--overwrite", in, soft}, 2, "is the input file"},
        {{"annexb", soft, in}, 2, "is the input file"},
        {{"annexb", in, other}, 1, "exists; -y (--overwrite) replaces it"},
        {{"annexb", in, (dir.path / "sub").string()}, 1, "is a directory"},
        {{"annexb", (dir.path / "missing.mp4").string(), (dir.path / "new.h264").string()}, 3, "No such file"},
        {{"annexb", dir.file("noise.bin", noise(7)), (dir.path / "new.h264").string()}, 3, "not a media file"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(joined(c.args));
        const Outcome r = sorvel(c.args);
        expectExit(r, c.code);
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_TRUE(readFile(in) == demo) << "the input was changed";
        EXPECT_EQ(readFile(other), "keep me");
        EXPECT_EQ(entries(dir.path),
                  (std::vector<std::string>{"hard.mp4", "in.mp4", "noise.bin", "other.h264", "soft.mp4", "sub"}))
            << "a new or temporary file was left";
    }
    // Asked to, it replaces the file, with the permissions a new file gets.
    const Outcome r = sorvel({"annexb", "-y", in, other});
    expectExit(r, 0);
    const std::string converted = readFile(other);
    EXPECT_GT(converted.size(), 30000u);
    EXPECT_EQ(converted.substr(0, 4), std::string("\0\0\0\1", 4));
    struct stat info = {};
    ASSERT_EQ(stat(other.c_str(), &info), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(info.st_mode & 0777, 0666 & ~mask);
    // "-" still writes to a pipe.
    const Outcome piped = sorvel({"annexb", in, "-"});
    expectExit(piped, 0);
    EXPECT_TRUE(piped.out == converted);
}

// Killed while it waits for more input, annexb leaves neither the output
// nor its temporary file.
TEST(SorvelAnnexB, InterruptedRunLeavesNothing) {
    const TempDir dir;
    const std::string fifo = (dir.path / "in.h264").string(), out = (dir.path / "out.h264").string();
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::vector<char *> argv{const_cast<char *>(kTool.c_str()), const_cast<char *>("annexb"),
                             const_cast<char *>(fifo.c_str()), const_cast<char *>(out.c_str()), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, kTool.c_str(), &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    const std::string raw = readFile(kMade + "/raw.h264");
    // Opening a FIFO without a reader fails with ENXIO: wait for the tool.
    int writer = -1;
    for (int i = 0; i < 1000 && writer < 0; ++i)
        if ((writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK)) < 0) usleep(10000);
    if (writer < 0) kill(pid, SIGKILL);
    ASSERT_GE(writer, 0) << "the tool never opened its input";
    fcntl(writer, F_SETFL, 0);
    ASSERT_EQ(write(writer, raw.data(), raw.size() / 2), static_cast<ssize_t>(raw.size() / 2));
    // The temporary file shows that writing has begun.
    bool started = false;
    for (int i = 0; i < 500 && !started; ++i) {
        started = entries(dir.path).size() > 1;
        if (!started) usleep(10000);
    }
    EXPECT_TRUE(started);
    usleep(200000);
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
    close(writer);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    EXPECT_EQ(entries(dir.path), std::vector<std::string>{"in.h264"});
}

// A time line that jumps two hours is reported and moved past, not waited
// out; ordinary frame steps are no gap.
TEST(SorvelPlay, TimeGapsAreSkippedAndReported) {
    const struct {
        std::string file, rate;
        long long shown, gaps;
        double gapSeconds, span;
    } cases[] = {
        {kMade + "/time_jump.ts", "2", 30, 1, 7200.0, 1.2},
        {kMade + "/time_jump.ts", "-2", 30, 1, 7200.0, 1.2},
        {kMade + "/raw.h264", "8", 50, 0, 0.0, 2.0},
        {kMade + "/long_gop_60fps.mp4", "-8", 360, 0, 0.0, 6.0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file + " at rate " + c.rate);
        const Outcome r = sorvel({"play", c.file, "--rate", c.rate, "--json", "--no-progress"});
        expectExit(r, 0);
        const Json report = parseJson(r.out);
        EXPECT_EQ(report["samples_shown"].integer(), c.shown);
        EXPECT_EQ(report["time_gaps"].integer(), c.gaps);
        EXPECT_NEAR(report["time_gap_seconds"].number, c.gapSeconds, 0.05);
        const double span = c.span / std::fabs(atof(c.rate.c_str()));
        EXPECT_LT(report["wall_seconds"].number, span + 1.0);
        EXPECT_LT(r.seconds, span + 10.0);
    }
    const Outcome text = sorvel({"play", kMade + "/time_jump.ts", "--rate", "4", "--no-progress"});
    EXPECT_NE(text.out.find("Time gaps       1 skipped (7200.000 s"), std::string::npos) << text.out;
}

// What users of other media tools expect: a version, help per command, and
// failures as JSON when JSON was asked for.
TEST(SorvelUsage, VersionHelpAndJsonErrors) {
    const struct {
        std::vector<std::string> args;
        int code;
        const char *out;
    } cases[] = {
        {{"--version"}, 0, "sorvel 1."},
        {{"probe", "--help"}, 0, "usage: sorvel probe [FILE]"},
        {{"help", "annexb"}, 0, "-y, --overwrite"},
        {{"play", "-h"}, 0, "Ctrl-C stops and still reports"},
        {{"probe", "/nonexistent/x.mp4", "--json"}, 3, "\"message\": \"/nonexistent/x.mp4: No such file"},
        {{"play", kData + "/tool/audio_only.m4a", "--json", "--audio", "none"}, 4, "\"code\": 4"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(joined(c.args));
        const Outcome r = sorvel(c.args);
        expectExit(r, c.code);
        EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out;
        if (c.code != 0) EXPECT_EQ(parseJson(r.out)["error"]["code"].integer(), c.code);
    }
}

// Ctrl-C ends play early, with its report and the conventional status.
TEST(SorvelPlay, InterruptStillReports) {
    int outPipe[2];
    ASSERT_EQ(pipe2(outPipe, O_CLOEXEC), 0);
    const std::string file = kMade + "/long_gop_60fps.mp4";
    std::vector<char *> argv{const_cast<char *>(kTool.c_str()),   const_cast<char *>("play"),
                             const_cast<char *>(file.c_str()),    const_cast<char *>("--json"),
                             const_cast<char *>("--no-progress"), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, kTool.c_str(), &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(outPipe[1]);
    usleep(1500000);  // six seconds of media: well inside
    kill(pid, SIGINT);
    std::string out;
    char buffer[4096];
    ssize_t n;
    while ((n = read(outPipe[0], buffer, sizeof buffer)) > 0) out.append(buffer, static_cast<size_t>(n));
    close(outPipe[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status)) << "killed instead of stopping";
    EXPECT_EQ(WEXITSTATUS(status), 130);
    const Json report = parseJson(out);
    EXPECT_TRUE(report["interrupted"].boolean());
    EXPECT_GT(report["samples_shown"].integer(), 0);
    EXPECT_LT(report["samples_shown"].integer(), 360);
}

// The container's own figures and the exact frame rate, as ffprobe users
// expect them; a raw stream has no container duration or bit rate.
TEST(SorvelProbe, ContainerFiguresAndExactFrameRate) {
    const struct {
        std::string file;
        long long size;
        double duration;  // NaN: none
        const char *rate;
        int streamIndex;
    } cases[] = {
        {"", static_cast<long long>(fs::file_size(kDemo)), 3.0, "25/1", 0},
        {kDemo, static_cast<long long>(fs::file_size(kDemo)), 3.0, "25/1", 0},
        {kData + "/tool/h264_ntsc.ts", static_cast<long long>(fs::file_size(kData + "/tool/h264_ntsc.ts")), NAN,
         "30000/1001", -1},
        {kMade + "/raw.h264", static_cast<long long>(fs::file_size(kMade + "/raw.h264")), NAN, "25/1", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file);
        const Outcome r = sorvel(c.file.empty() ? std::vector<std::string>{"probe", "--json"}
                                                : std::vector<std::string>{"probe", c.file, "--json"});
        expectExit(r, 0);
        const Json probe = parseJson(r.out);
        EXPECT_EQ(probe["schema_version"].integer(), 2);
        EXPECT_EQ(probe["format"]["size"].integer(), c.size);
        if (std::isnan(c.duration))
            EXPECT_TRUE(probe["format"]["duration"].kind == Json::Null || probe["format"]["duration"].number > 0);
        else
            EXPECT_NEAR(probe["format"]["duration"].number, c.duration, 0.05);
        EXPECT_EQ(probe["video"]["frame_rate_fraction"].text, c.rate);
        if (c.streamIndex >= 0) EXPECT_EQ(probe["video"]["stream_index"].integer(), c.streamIndex);
        EXPECT_EQ(probe["video"]["stream_index"].kind, Json::Number);
    }
}

}  // namespace

namespace {

// Runs `command` through the shell; standard error joins the output.
Outcome shell(const std::string &command) {
    Outcome result;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) {
        ADD_FAILURE() << "cannot run " << command;
        return result;
    }
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) result.out.append(buffer, n);
    const int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

const fs::path kToolSource = fs::path(kDemo).parent_path().parent_path();

// The options a command's --help lists, as written ("--json", "-y", ...).
std::vector<std::string> optionsInHelp(const std::string &command) {
    const Outcome help = sorvel({command, "--help"});
    std::vector<std::string> options;
    std::istringstream lines(help.out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        for (std::string word; words >> word;) {
            while (!word.empty() && (word.back() == ',' || word.back() == ']' || word.back() == '.')) word.pop_back();
            if (word.size() > 1 && word[0] == '[') word.erase(0, 1);
            if (word.size() > 1 && word[0] == '-' && word != "-" &&
                std::find(options.begin(), options.end(), word) == options.end())
                options.push_back(word);
        }
    }
    return options;
}

TEST(SorvelInstall, ManPageRendersCleanlyAndCoversEveryOptionAndExitCode) {
    const std::string page = (kToolSource / "sorvel.1").string();
    const Outcome render = shell("groff -man -ww -z '" + page + "'");
    EXPECT_EQ(render.exitCode, 0) << render.out;
    EXPECT_EQ(render.out, "") << "groff warnings:\n" << render.out;
    // Rendered as plain ASCII on unbroken lines, to look for names in.
    const Outcome text = shell("groff -man -Tascii -P-cbou -rLL=1000n -rHY=0 '" + page + "'");
    ASSERT_EQ(text.exitCode, 0) << text.out;
    for (const char *command : {"probe", "annexb", "play"}) {
        EXPECT_NE(text.out.find(std::string("sorvel ") + command), std::string::npos) << command;
        for (const std::string &option : optionsInHelp(command))
            EXPECT_NE(text.out.find(option), std::string::npos)
                << command << " " << option << " is not in the man page";
    }
    // Every exit status the usage lists has its own entry.
    for (const char *code : {"0", "1", "2", "3", "4", "5", "6", "130"})
        EXPECT_NE(text.out.find(std::string("\n       ") + code + " "), std::string::npos) << "exit status " << code;
    for (const char *field : {"schema_version", "frame_rate_fraction", "stream_index", "\"error\""})
        EXPECT_NE(text.out.find(field), std::string::npos) << field;
}

TEST(SorvelInstall, CompletionParsesAndOffersCommandsAndOptions) {
    const std::string script = (kToolSource / "completion" / "sorvel").string();
    const Outcome syntax = shell("bash -n '" + script + "'");
    EXPECT_EQ(syntax.exitCode, 0) << syntax.out;
    // What the function offers for the words typed so far.
    auto offered = [&](const std::string &words, int current) {
        const Outcome r = shell("bash -c 'source \"" + script + "\"; COMP_WORDS=(" + words + "); COMP_CWORD=" +
                                std::to_string(current) + "; _sorvel; printf \"%s\\n\" \"${COMPREPLY[@]}\"'");
        EXPECT_EQ(r.exitCode, 0) << r.out;
        std::vector<std::string> words_;
        std::istringstream lines(r.out);
        for (std::string line; std::getline(lines, line);)
            if (!line.empty()) words_.push_back(line);
        std::sort(words_.begin(), words_.end());
        return words_;
    };
    EXPECT_EQ(offered("sorvel \"\"", 1), (std::vector<std::string>{"--help", "--version", "annexb", "play", "probe"}));
    EXPECT_EQ(offered("sorvel p", 1), (std::vector<std::string>{"play", "probe"}));
    // Each command's options are exactly what its --help lists.
    for (const char *command : {"probe", "annexb", "play"}) {
        std::vector<std::string> help = optionsInHelp(command);
        help.push_back("--help");
        std::sort(help.begin(), help.end());
        help.erase(std::unique(help.begin(), help.end()), help.end());
        EXPECT_EQ(offered(std::string("sorvel ") + command + " -", 2), help) << command;
    }
    // A number is expected after --rate: no file names, no options.
    EXPECT_TRUE(offered("sorvel play --rate \"\"", 3).empty());
}

TEST(SorvelProbe, LanguageTagsAndRotationOfTheVideoStream) {
    // rotated_tagged.mp4's track header holds the matrix of a picture to be
    // turned 90 degrees clockwise; the demo stream has the identity matrix;
    // a raw stream has no matrix and no tags at all.
    const struct {
        std::string file;
        const char *language;
        double rotation;
        const char *rotationLine;
        const char *handler;  // nullptr: no tags
    } cases[] = {
        {kMade + "/rotated_tagged.mp4", "fra", -90, "  Rotation    90 degrees clockwise (display matrix)\n", "Camera"},
        {kDemo, "", 0, nullptr, "VideoHandler"},
        {kMade + "/raw.h264", "", 0, nullptr, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file);
        const Outcome json = sorvel({"probe", c.file, "--json"});
        expectExit(json, 0);
        const Json video = parseJson(json.out)["video"];
        EXPECT_EQ(video["language"].text, c.language);
        EXPECT_EQ(video["rotation"].kind, Json::Number);
        EXPECT_EQ(video["rotation"].number, c.rotation);
        EXPECT_EQ(video["tags"].kind, Json::Object);
        if (c.handler)
            EXPECT_EQ(video["tags"]["handler_name"].text, c.handler);
        else
            EXPECT_TRUE(video["tags"].fields.empty());

        const Outcome text = sorvel({"probe", c.file});
        expectExit(text, 0);
        EXPECT_EQ(text.out.find("  Language    fra\n") != std::string::npos, std::string(c.language) == "fra");
        if (c.rotationLine)
            EXPECT_NE(text.out.find(c.rotationLine), std::string::npos) << text.out;
        else
            EXPECT_EQ(text.out.find("Rotation"), std::string::npos) << "no turn, no line:\n" << text.out;
    }
}

TEST(SorvelProbe, HdrMetadataFromTheSEIIsExact) {
    // Each file was encoded with master-display=G(13250,34500)B(7500,3000)
    // R(34000,16000)WP(15635,16450)L(10000000,50) and a light level of
    // 1000,400.  For the HEVC files libavcodec's side data of the first
    // frame gives the same numbers (red_x=34000/50000, ...,
    // min_luminance=50/10000, max_content=1000, max_average=400); Debian 12's
    // libavcodec exports none for H.264, whose values are x264's input.
    for (const char *name : {"hdr10.mp4", "hdr10.ts", "hdr_h264.mp4"}) {
        SCOPED_TRACE(name);
        const Outcome json = sorvel({"probe", kMade + "/" + name, "--json"});
        expectExit(json, 0);
        const Json video = parseJson(json.out)["video"];
        const Json &m = video["mastering_display"];
        const std::map<std::string, long long> expected = {
            {"red_x", 34000},         {"red_y", 16000},         {"green_x", 13250},
            {"green_y", 34500},       {"blue_x", 7500},         {"blue_y", 3000},
            {"white_point_x", 15635}, {"white_point_y", 16450}, {"max_luminance", 10000000},
            {"min_luminance", 50},
        };
        EXPECT_EQ(m.fields.size(), expected.size());
        for (const auto &[key, value] : expected) EXPECT_EQ(m[key].integer(), value) << key;
        EXPECT_EQ(video["content_light_level"]["max_cll"].integer(), 1000);
        EXPECT_EQ(video["content_light_level"]["max_fall"].integer(), 400);

        const Outcome text = sorvel({"probe", kMade + "/" + name});
        expectExit(text, 0);
        EXPECT_NE(text.out.find("  Mastering   R(0.68000,0.32000) G(0.26500,0.69000) B(0.15000,0.06000) "
                                "WP(0.31270,0.32900), luminance 0.0050-1000.0000 cd/m2\n"),
                  std::string::npos)
            << text.out;
        EXPECT_NE(text.out.find("  Light level MaxCLL 1000 cd/m2, MaxFALL 400 cd/m2\n"), std::string::npos) << text.out;
    }

    // Streams without the messages (H.264 and HEVC) say null and print no line.
    for (const std::string &file : {std::string(kDemo), kMade + "/raw.hevc"}) {
        SCOPED_TRACE(file);
        const Outcome plain = sorvel({"probe", file, "--json"});
        expectExit(plain, 0);
        const Json v = parseJson(plain.out)["video"];
        EXPECT_EQ(v["mastering_display"].kind, Json::Null);
        EXPECT_EQ(v["content_light_level"].kind, Json::Null);
        EXPECT_EQ(sorvel({"probe", file}).out.find("Mastering"), std::string::npos);
    }
}

TEST(SorvelAac, ProfileOfTheAudioSpecificConfig) {
    // Configurations written out bit by bit: object type, sampling frequency
    // index (15: 24-bit frequency), channel configuration, the core's three
    // flags, then any backward-compatible extension.
    const struct {
        const char *what;
        std::vector<uint8_t> config;
        const char *name;
    } cases[] = {
        {"LC, 48 kHz stereo", {0x11, 0x90}, "LC"},
        {"Main, 22.05 kHz stereo", {0x0B, 0x90}, "Main"},
        {"LTP", {0x21, 0x90}, "LTP"},
        {"SBR first (type 5) over LC", {0x2B, 0x11, 0x88, 0x00}, "HE-AAC"},
        {"SBR and PS first (type 29) over LC", {0xEB, 0x09, 0x88, 0x00}, "HE-AACv2"},
        {"type 5 cut before its core type", {0x2B, 0x11}, "HE-AAC"},
        {"LC, then sync extension 0x2b7 with SBR", {0x13, 0x10, 0x56, 0xE5, 0x98}, "HE-AAC"},
        {"LC, then SBR and sync extension 0x548 with PS", {0x13, 0x08, 0x56, 0xE5, 0x9D, 0x48, 0x80}, "HE-AACv2"},
        {"LC, then sync extension saying no SBR", {0x13, 0x10, 0x56, 0xE5, 0x00}, "LC"},
        {"escaped object type 39", {0xF8, 0xE6, 0x40}, "ELD"},
        {"explicit 24-bit frequency", {0x17, 0x80, 0x5D, 0xC0, 0x10}, "LC"},
        {"cut after the object type", {0x11}, "LC"},
        {"escape cut short", {0xF8}, ""},
        {"empty", {}, ""},
    };
    for (const auto &c : cases) {
        const ::sorvel::tool::AacProfile profile = ::sorvel::tool::readAacProfile(c.config.data(), c.config.size());
        EXPECT_EQ(::sorvel::tool::aacProfileName(profile), c.name) << c.what;
    }
    EXPECT_EQ(::sorvel::tool::aacProfileName(::sorvel::tool::readAacProfile(nullptr, 16)), "");
}

TEST(SorvelProbe, AacProfileOfEachAudioStream) {
    const struct {
        std::string file;
        const char *profile;
        const char *line;
    } cases[] = {
        {kDemo, "LC", "Audio         stream 1: aac LC 'aac ', 48000 Hz"},
        {kMade + "/av_aac_main.mp4", "Main", "Audio         stream 1: aac Main 'aac ', 22050 Hz"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file);
        const Outcome json = sorvel({"probe", c.file, "--json"});
        expectExit(json, 0);
        EXPECT_EQ(parseJson(json.out)["audio"][0]["profile"].text, c.profile);
        const Outcome text = sorvel({"probe", c.file});
        expectExit(text, 0);
        EXPECT_NE(text.out.find(c.line), std::string::npos) << text.out;
    }
}

TEST(SorvelProbe, OtherCodecsAndAudioOnlyAreDescribedNotRefused) {
    const struct {
        std::string file;
        const char *codec;  // nullptr: no video
        const char *subtype;
        const char *audioProfile;  // nullptr: no audio
        const char *videoLine;
    } cases[] = {
        {kData + "/tool/audio_only.m4a", nullptr, "", "LC", "Video         none\n"},
        {kMade + "/audio_main.m4a", nullptr, "", "Main", "Video         none\n"},
        {kData + "/tool/mpeg4_video.mp4", "mpeg4", "mp4v", nullptr, "Video         stream 0: mpeg4 'mp4v', "},
        {kMade + "/vp9.webm", "vp9", "vp09", nullptr, "Video         stream 0: vp9 'vp09', 64x48, 25/1 fps"},
        {kMade + "/av1.mp4", "av1", "av01", nullptr, "Video         stream 0: av1 'av01', 64x48, 25/1 fps"},
        {kMade + "/mpeg4_aac.mp4", "mpeg4", "mp4v", "LC", "Video         stream 0: mpeg4 'mp4v', 64x48, 25/1 fps"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file);
        const Outcome json = sorvel({"probe", c.file, "--json"});
        expectExit(json, 0);
        const Json probe = parseJson(json.out);
        EXPECT_EQ(probe["schema_version"].integer(), 2);
        EXPECT_GT(probe["format"]["size"].integer(), 0);
        if (c.codec) {
            EXPECT_EQ(probe["video"]["codec"].text, c.codec);
            EXPECT_EQ(probe["video"]["media_subtype"].text, c.subtype);
            EXPECT_GT(probe["video"]["width"].integer(), 0);
            EXPECT_GT(probe["video"]["height"].integer(), 0);
            EXPECT_FALSE(probe["video"]["samples_read"].boolean());
            EXPECT_EQ(probe["video"]["stream_index"].integer(), 0);
        } else {
            EXPECT_EQ(probe["video"].kind, Json::Null);
        }
        if (c.audioProfile) {
            ASSERT_EQ(probe["audio"].items.size(), 1u);
            const Json &audio = probe["audio"][0];
            EXPECT_EQ(audio["profile"].text, c.audioProfile);
            EXPECT_EQ(audio["format_id"].text, "aac ");
            EXPECT_GT(audio["packet_count"].integer(), 0) << "the packets are counted to the end";
            EXPECT_GT(audio["duration"].number, 0.1);
            // What the sample buffers say, whatever the video: every packet
            // made one, and the frames add up to what is played.
            EXPECT_EQ(audio["sample_buffer_count"].integer(), audio["packet_count"].integer());
            EXPECT_EQ(audio["frame_count"].integer(), 1024 * audio["packet_count"].integer());
            EXPECT_NEAR((audio["frame_count"].integer() - audio["priming_frames"].integer() -
                         audio["remainder_frames"].integer()) /
                            audio["sample_rate"].number,
                        audio["duration"].number, 1e-6);
        } else {
            EXPECT_TRUE(probe["audio"].items.empty());
        }
        // Why the video's samples were not read is said, not hidden; an
        // audio-only file has its packets read and needs no warning.
        EXPECT_EQ(probe["warnings"].items.size(), c.codec ? 1u : 0u);

        const Outcome text = sorvel({"probe", c.file});
        expectExit(text, 0);
        EXPECT_NE(text.out.find(c.videoLine), std::string::npos) << text.out;
        // The commands that need the samples still refuse, with their own status.
        expectExit(sorvel({"annexb", c.file, "-"}), c.codec ? 5 : 4);
    }
}

// Sound beside video of another codec is reported as fully as beside H.264:
// the same stream lines, timing and packet table.
TEST(SorvelProbe, AudioBesideOtherVideoIsReportedInFull) {
    const std::string file = kMade + "/mpeg4_aac.mp4";
    const Outcome json = sorvel({"probe", file, "--json", "--samples"});
    expectExit(json, 0);
    const Json audio = parseJson(json.out)["audio"][0];
    EXPECT_EQ(audio["stream_index"].integer(), 1);
    EXPECT_EQ(audio["timescale"].integer(), 22050);
    EXPECT_EQ(audio["frame_count"].integer(), 12288);
    EXPECT_EQ(audio["priming_frames"].integer(), 1024);
    EXPECT_EQ(audio["remainder_frames"].integer(), 239);
    EXPECT_DOUBLE_EQ(audio["duration"].number, 0.5);
    EXPECT_DOUBLE_EQ(audio["start_time"].number, 0);
    ASSERT_EQ(audio["samples"].items.size(), 12u);
    EXPECT_EQ(audio["samples"][0]["trim_start"].integer(), 1024);
    EXPECT_EQ(audio["samples"][11]["trim_end"].integer(), 239);

    const Outcome text = sorvel({"probe", file, "--samples"});
    expectExit(text, 0);
    EXPECT_NE(text.out.find("Audio         stream 1: aac LC 'aac ', 22050 Hz, 1 channels (Mono), 1024 frames per "
                            "packet, cookie 5 bytes; 12 packets, 0.546 s\n"
                            "  Timing      timescale 22050, 12288 frames (priming 1024, remainder 239), start "
                            "0.000000 s, duration 0.500000 s\n"),
              std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("\nAudio stream 1\n"), std::string::npos) << text.out;
}

TEST(SorvelProbe, HdrMessagesOfTheWrongSizeAreNotRead) {
    // In hdr_h264.mp4 the mastering display message (type 0x89, size 0x18)
    // is alone in its SEI unit, its 24 bytes carrying one emulation
    // prevention byte, and the light level sits in a unit of its own.
    const std::string original = readFile(kMade + "/hdr_h264.mp4");
    const std::string header("\x06\x89\x18\x33\xc2", 5);
    const size_t at = original.find(header);
    ASSERT_NE(at, std::string::npos);
    ASSERT_EQ(original.find(header, at + 1), std::string::npos);
    const TempDir dir;
    const struct {
        unsigned char size;
        bool read;
    } cases[] = {
        {0x18, true},                  // as written
        {0x19, true},                  // one byte more still ends inside the unit (its trailing bits)
        {0x1A, false},                 // runs past the unit
        {0x17, false},                 // one byte short of the message
        {0x00, false}, {0xFF, false},  // a size that continues in the next byte
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(static_cast<int>(c.size));
        std::string bytes = original;
        bytes[at + 2] = static_cast<char>(c.size);
        const Outcome r = sorvel({"probe", dir.file("sized.mp4", bytes), "--json"});
        expectExit(r, 0);
        const Json video = parseJson(r.out)["video"];
        EXPECT_EQ(video["mastering_display"].kind, c.read ? Json::Object : Json::Null);
        if (c.read) EXPECT_EQ(video["mastering_display"]["min_luminance"].integer(), 50);
        EXPECT_EQ(video["content_light_level"]["max_cll"].integer(), 1000) << "another unit is not affected";
    }
}

TEST(SorvelProbe, HdrMessagesOnlyInTheDescriptionAreRead) {
    // hdr10.mp4 carries both messages twice: in its first sample (media data
    // first) and in the SEI array of its hvcC (movie box last).  Renaming
    // the payload types in one place leaves the other to be read.
    const std::string original = readFile(kMade + "/hdr10.mp4");
    const std::string mastering("\x4e\x01\x89\x18", 4), light("\x4e\x01\x90\x04", 4);
    const size_t m1 = original.find(mastering), l1 = original.find(light);
    ASSERT_NE(m1, std::string::npos);
    ASSERT_NE(l1, std::string::npos);
    const size_t m2 = original.find(mastering, m1 + 1), l2 = original.find(light, l1 + 1);
    ASSERT_NE(m2, std::string::npos);
    ASSERT_NE(l2, std::string::npos);
    const TempDir dir;
    const struct {
        const char *what;
        std::vector<size_t> renamed;
        bool read;
    } cases[] = {
        {"only in the hvcC", {m1, l1}, true},
        {"only in the sample", {m2, l2}, true},
        {"in neither", {m1, l1, m2, l2}, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::string bytes = original;
        for (size_t at : c.renamed) ++bytes[at + 2];  // 137 -> 138, 144 -> 145: types that mean something else
        const Outcome r = sorvel({"probe", dir.file("moved.mp4", bytes), "--json"});
        expectExit(r, 0);
        const Json video = parseJson(r.out)["video"];
        EXPECT_EQ(video["mastering_display"]["red_x"].integer(), c.read ? 34000 : 0);
        EXPECT_EQ(video["content_light_level"]["max_fall"].integer(), c.read ? 400 : 0);
        EXPECT_EQ(video["mastering_display"].kind, c.read ? Json::Object : Json::Null);
    }
}

// Each track is described again from its 'stsd' entry through the library's
// sample-description bridge: the colour code points, exact aspect ratio and
// atoms in the JSON, and a warning where libavformat's stream says otherwise.
TEST(SorvelProbe, SampleDescriptionsThroughTheBridge) {
    {
        const Outcome r = sorvel({"probe", clipMedia("avc_high_642x362_sar40x33_smpte170m"), "--json"});
        expectExit(r, 0);
        const Json probe = parseJson(r.out);
        const Json entry = probe["video"]["sample_description"];
        EXPECT_EQ(entry["format"].text, "avc1");
        EXPECT_EQ(entry["flavor"].text, "iso");
        EXPECT_EQ(entry["color_primaries_code"].integer(), 6);
        EXPECT_EQ(entry["transfer_function_code"].integer(), 1);
        EXPECT_EQ(entry["ycbcr_matrix_code"].integer(), 6);
        EXPECT_EQ(entry["pixel_aspect_ratio"].text, "40:33");
        std::vector<std::string> atoms;
        for (const Json &atom : entry["atoms"].items) atoms.push_back(atom.text);
        EXPECT_NE(std::find(atoms.begin(), atoms.end(), "avcC"), atoms.end());
        EXPECT_TRUE(probe["warnings"].items.empty()) << r.out;
    }
    const std::string file = kMade + "/colr_differs_from_sps.mov";
    const Outcome r = sorvel({"probe", file, "--json"});
    expectExit(r, 0);
    const Json probe = parseJson(r.out);
    const Json entry = probe["video"]["sample_description"];
    EXPECT_EQ(entry["flavor"].text, "quicktime");
    EXPECT_EQ(entry["color_primaries_code"].integer(), 1);
    EXPECT_EQ(probe["audio"].items.at(0)["sample_description"]["channels"].integer(), 2);
    std::string warnings;
    for (const Json &warning : probe["warnings"].items) warnings += warning.text + "\n";
    EXPECT_NE(warnings.find("colour primaries kCVImageBufferColorPrimaries_ITU_R_709_2, libavformat's stream "
                            "kCVImageBufferColorPrimaries_EBU_3213"),
              std::string::npos)
        << warnings;
    // the text report says the same on standard error
    const Outcome text = sorvel({"probe", file});
    expectExit(text, 0);
    EXPECT_NE(text.err.find("sorvel: warning: stream 0: the sample description says matrix"), std::string::npos)
        << text.err;
    EXPECT_NE(text.out.find("Sample description 'avc1' (QuickTime)"), std::string::npos) << text.out;
}

}  // namespace
