// SPDX-License-Identifier: Apache-2.0
// `sorvel play` with sound on a real PulseAudio server, judged from outside
// the player: each test starts a private server with a null sink
// (scripts/pulse-start.sh), makes its clips with ffmpeg, runs the built
// program and, for lip sync, records the sink's monitor with host-time
// stamps, finds a beep at every whole second and compares its onset with
// the host time at which the program says it showed the picture of the same
// presentation time.
//
// Without pulseaudio or ffmpeg the tests say they were skipped; with
// SORVEL_REQUIRE_PULSE=1 (as CI sets it) they fail instead.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "BeepAnalysis.h"
#include "MonitorRecorder.h"
#include "PipeReader.h"

extern char **environ;

namespace {

namespace fs = std::filesystem;
using sorvel::test::FrameStamp;

const std::string kTool = SORVEL_TOOL_PATH;
const std::string kSource = SORVEL_SOURCE_DIR;
constexpr int kSinkRate = 48000;

bool required() {
    const char *value = getenv("SORVEL_REQUIRE_PULSE");
    return value && strcmp(value, "1") == 0;
}

// Skips (or, when required, fails) the test with `why`.
#define SKIP_OR_FAIL(why)                                                                     \
    do {                                                                                      \
        if (required()) FAIL() << (why) << " (SORVEL_REQUIRE_PULSE=1, so this is a failure)"; \
        GTEST_SKIP() << "SKIPPED: " << (why);                                                 \
    } while (0)

std::string run(const std::string &command, int &status) {
    std::string output;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) {
        status = -1;
        return output;
    }
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
    status = pclose(pipe);
    return output;
}

// A child process of the tool whose output is collected on a thread.
class Child {
public:
    Child(const std::vector<std::string> &args, const std::map<std::string, std::string> &env = {}) {
        int outPipe[2], errPipe[2];
        if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
        posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
        std::vector<std::string> envText;
        for (char **e = environ; *e; ++e) {
            const std::string entry = *e;
            if (!env.count(entry.substr(0, entry.find('=')))) envText.push_back(entry);
        }
        for (const auto &[key, value] : env) envText.push_back(key + "=" + value);
        std::vector<char *> envp, argv{const_cast<char *>(kTool.c_str())};
        for (std::string &entry : envText) envp.push_back(entry.data());
        envp.push_back(nullptr);
        for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
        argv.push_back(nullptr);
        started_ = std::chrono::steady_clock::now();
        if (posix_spawn(&pid_, kTool.c_str(), &actions, nullptr, argv.data(), envp.data()) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(outPipe[1]);
        close(errPipe[1]);
        reader_ = std::thread([this, out = outPipe[0], err = errPipe[0]] { collect(out, err); });
    }
    ~Child() {
        if (pid_ > 0 && !waited_) {
            kill(pid_, SIGKILL);
            wait(1);
        }
        if (reader_.joinable()) reader_.join();
    }
    pid_t pid() const { return pid_; }
    // Waits at most `seconds`; false (and the child killed) when it did not exit.
    bool wait(double seconds) {
        const auto deadline = started_ + std::chrono::duration<double>(seconds);
        int status = 0;
        for (;;) {
            const pid_t done = waitpid(pid_, &status, WNOHANG);
            if (done == pid_) break;
            if (std::chrono::steady_clock::now() > deadline) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
                waited_ = true;
                if (reader_.joinable()) reader_.join();
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        waited_ = true;
        if (reader_.joinable()) reader_.join();
        exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        return true;
    }
    int exitCode = -1, signal = 0;
    std::string out, err;

private:
    void collect(int outFd, int errFd) {
        sorvel::test::readBoth(outFd, errFd, out, err);
        close(outFd);
        close(errFd);
    }
    pid_t pid_ = -1;
    bool waited_ = false;
    std::chrono::steady_clock::time_point started_;
    std::thread reader_;
};

// A private server and a folder for clips, for one test.
class SoundTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/sorvel-sound-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        int status = 0;
        run("command -v ffmpeg", status);
        if (status != 0) SKIP_OR_FAIL("ffmpeg is not installed, so no clip can be made");
        const std::string started = run(kSource + "/scripts/pulse-start.sh " + dir_ + "/server", status);
        const std::smatch match = [&] {
            std::smatch m;
            std::regex_search(started, m, std::regex("export PULSE_SERVER=(\\S+)"));
            return m;
        }();
        if (status != 0 || match.empty()) SKIP_OR_FAIL("no PulseAudio server could be started: " + started);
        server_ = match[1];
        setenv("PULSE_SERVER", server_.c_str(), 1);
    }
    void TearDown() override {
        stopServer();
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }
    void stopServer() {
        int status = 0;
        if (!server_.empty()) run(kSource + "/scripts/pulse-stop.sh " + dir_ + "/server", status);
    }
    // Makes `name` in the test's folder with ffmpeg from lavfi inputs (the
    // pictures, when there are any, as H.264).
    std::string make(const std::string &name, const std::string &arguments) {
        int status = 0;
        const std::string path = dir_ + "/" + name;
        const bool video = arguments.find("testsrc2") != std::string::npos;
        const std::string output = run(
            "ffmpeg -v error -y " + arguments + (video ? " -c:v libx264 -g 25 -pix_fmt yuv420p " : " ") + path, status);
        EXPECT_EQ(status, 0) << output;
        return path;
    }
    static std::string beeps(int rate, double seconds) {
        // A 1 kHz beep of 50 ms starting at phase 0 at every whole second.
        return "-f lavfi -i \"aevalsrc=0.8*sin(2*PI*1000*t)*lt(mod(t\\,1)\\,0.05):s=" + std::to_string(rate) +
               ":d=" + std::to_string(seconds) + "\"";
    }
    static std::string pictures(double seconds) {
        return "-f lavfi -i testsrc2=size=160x90:rate=25:duration=" + std::to_string(seconds);
    }
    std::string dir_, server_;
};

struct Shown {
    double pts;
    double host;
    double offset;  // the player's own A/V offset, ms
};

std::vector<Shown> picturesOf(const std::string &json) {
    std::vector<Shown> shown;
    const std::regex row("\"pts\": ([-0-9.]+), \"shown_ns\": ([0-9]+), \"av_offset_ms\": ([-0-9.]+|null)");
    for (auto it = std::sregex_iterator(json.begin(), json.end(), row); it != std::sregex_iterator(); ++it)
        shown.push_back({std::stod((*it)[1]), std::stod((*it)[2]), (*it)[3] == "null" ? NAN : std::stod((*it)[3])});
    return shown;
}

// The first value of `key` in `json`, or in its object `section` when given.
std::string field(const std::string &json, const std::string &key, const std::string &section = "") {
    const size_t from = section.empty() ? 0 : json.find("\"" + section + "\": {");
    if (from == std::string::npos) return "";
    const std::string text = json.substr(from);
    std::smatch m;
    if (!std::regex_search(text, m, std::regex("\"" + key + "\": (\"[^\"]*\"|[^,\\n}]+)"))) return "";
    std::string value = m[1];
    if (!value.empty() && value.front() == '"') value = value.substr(1, value.size() - 2);
    return value;
}

double median(std::vector<double> values) {
    if (values.empty()) return NAN;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// The presentation times of the beeps in `clip`'s sound as FFmpeg's own
// programs decode it: the first decoded frame's time plus the onset.
std::vector<double> beepTimes(const std::string &clip) {
    int status = 0;
    const std::string rateText =
        run("ffprobe -v error -select_streams a:0 -show_entries stream=sample_rate -of csv=p=0 " + clip, status);
    const std::string firstText =
        run("ffprobe -v error -select_streams a:0 -show_entries "
            "frame=best_effort_timestamp_time -read_intervals %+#8 -of csv=p=0 " +
                clip + " | head -n 1",
            status);
    const double rate = std::atof(rateText.c_str()), first = std::atof(firstText.c_str());
    EXPECT_GT(rate, 0) << rateText;
    std::vector<float> samples;
    FILE *pipe = popen(("ffmpeg -v error -i " + clip + " -map 0:a:0 -ac 1 -f f32le - 2>/dev/null").c_str(), "r");
    if (!pipe) return {};
    float buffer[4096];
    size_t n;
    while ((n = fread(buffer, sizeof(float), 4096, pipe)) > 0) samples.insert(samples.end(), buffer, buffer + n);
    pclose(pipe);
    std::vector<double> times;
    for (double onset : sorvel::test::findBeepOnsets(samples, 0.25f, static_cast<int64_t>(rate * 0.3)))
        times.push_back(first + onset / rate);
    return times;
}

struct ClipKind {
    const char *name;  // file name: its extension picks the container
    const char *codec;
    int rate;
};

class LipSync : public SoundTest, public ::testing::WithParamInterface<ClipKind> {};

TEST_P(LipSync, BeepsLeaveTheSinkWhenTheirPicturesAreShown) {
    const ClipKind &kind = GetParam();
    constexpr double kSeconds = 6;
    const std::string clip =
        make(kind.name, pictures(kSeconds) + " " + beeps(kind.rate, kSeconds) + " -c:a " + kind.codec + " -shortest");
    std::string error;
    std::unique_ptr<sorvel::test::MonitorRecorder> recorder = sorvel::test::MonitorRecorder::start(kSinkRate, error);
    ASSERT_TRUE(recorder) << error;
    // The recording must start in silence.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    Child player({"play", clip, "--audio", "pulse", "--json", "--no-progress"});
    ASSERT_TRUE(player.wait(kSeconds + 30)) << "sorvel play did not finish";
    recorder->stop();
    ASSERT_EQ(player.exitCode, 0) << player.err;
    EXPECT_TRUE(recorder->failure().empty()) << recorder->failure();
    EXPECT_EQ(field(player.out, "state"), "played") << player.out.substr(0, 2000);

    const std::vector<Shown> shown = picturesOf(player.out);
    ASSERT_GE(shown.size(), 140u) << "25 pictures a second for six seconds";
    const std::vector<float> samples = recorder->samples();
    const std::vector<FrameStamp> stamps = recorder->stamps();
    const std::vector<double> onsets = sorvel::test::findBeepOnsets(samples, 0.25f, kSinkRate * 3 / 10);
    ASSERT_GE(onsets.size(), 5u) << "a beep at every whole second";

    // Each beep against the picture of the nearest presentation time: the
    // beep of presentation time B is due when the timeline reads B, the
    // picture of time P when it reads P, so shown(P) - heard(B) should be
    // P - B.  The beeps' times come from FFmpeg's decoding of the file.
    const std::vector<double> beeps = beepTimes(clip);
    ASSERT_GE(beeps.size(), 5u);
    std::vector<double> heard;
    for (double onset : onsets) heard.push_back(sorvel::test::hostTimeOfFrame(stamps, onset, kSinkRate / 2.0));
    std::vector<double> measured, disagreement;
    for (double beep : beeps) {
        const Shown *picture = nullptr;
        for (const Shown &candidate : shown)
            if (!picture || std::fabs(candidate.pts - beep) < std::fabs(picture->pts - beep)) picture = &candidate;
        if (!picture || std::fabs(picture->pts - beep) > 0.02) continue;
        const double due = picture->host - (picture->pts - beep) * 1e9;  // when the beep should be heard
        double best = NAN;
        for (double when : heard) {
            const double offset = (due - when) / 1e6;
            if (std::fabs(offset) < 500 && (std::isnan(best) || std::fabs(offset) < std::fabs(best))) best = offset;
        }
        if (std::isnan(best)) continue;
        measured.push_back(best);
        disagreement.push_back(std::fabs(best - picture->offset));
    }
    ASSERT_GE(measured.size(), 5u);
    std::vector<double> magnitudes;
    for (double offset : measured) magnitudes.push_back(std::fabs(offset));
    std::string list;
    double sum = 0, worst = 0;
    for (double offset : measured) {
        list += " " + std::to_string(offset);
        sum += std::fabs(offset);
        worst = std::max(worst, std::fabs(offset));
    }
    printf("[ lip sync ] %s: %zu beeps, mean |offset| %.3f ms, worst %.3f ms, through the monitor\n", kind.name,
           measured.size(), sum / static_cast<double>(measured.size()), worst);
    // Goal: within 2 ms; a shared machine gets some slack, judged on medians.
    EXPECT_LT(median(magnitudes), 3.0) << "A/V offsets measured through the monitor (ms):" << list << "\n"
                                       << player.out.substr(player.out.find("\"sound\""), 900);
    // Drift is judged between the medians of the first and second halves:
    // one beep caught in a stall of a loaded machine moves an end, not a median.
    const auto half = measured.begin() + static_cast<std::ptrdiff_t>(measured.size() / 2);
    const double drift =
        median(std::vector<double>(half, measured.end())) - median(std::vector<double>(measured.begin(), half));
    EXPECT_LT(std::fabs(drift), 4.0) << "the offset drifts (ms):" << list;
    EXPECT_LT(median(disagreement), 1.0) << "the player's own offsets disagree with the monitor's (ms):" << list;
    // The device's rate, once its clock runs steadily: a machine so busy
    // that the server ran dry leaves stretches too short to measure it.
    const std::string ppm = field(player.out, "device_rate_ppm");
    const std::string soundReport = player.out.substr(player.out.find("\"sound\""), 900);
    if (field(player.out, "stalls", "sound") == "0") {
        ASSERT_FALSE(ppm.empty() || ppm == "null") << soundReport;
        EXPECT_LT(std::fabs(std::stod(ppm)), 200.0) << "the null sink runs with the host clock\n" << soundReport;
    } else {
        printf("[ lip sync ] the sound stalled (a busy machine): device rate not judged\n");
    }
}

INSTANTIATE_TEST_SUITE_P(Clips, LipSync,
                         ::testing::Values(ClipKind{"aac.mp4", "aac", 48000}, ClipKind{"opus.mkv", "libopus", 48000},
                                           ClipKind{"ac3.ts", "ac3", 44100}),
                         [](const ::testing::TestParamInfo<ClipKind> &info) {
                             return std::string(info.param.codec) + "_" + std::to_string(info.param.rate);
                         });

// Every trouble: a one-line message, a clean exit status, a report that says
// what happened, and never a hang.
TEST_F(SoundTest, NoServerFallsBackOrFailsAsAsked) {
    const std::string clip = make("clip.mp4", pictures(1) + " " + beeps(48000, 1) + " -c:a aac -shortest");
    const std::map<std::string, std::string> nowhere = {{"PULSE_SERVER", "unix:" + dir_ + "/no-such-socket"}};
    Child automatic({"play", clip, "--json", "--no-progress"}, nowhere);
    ASSERT_TRUE(automatic.wait(20));
    EXPECT_EQ(automatic.exitCode, 0) << automatic.err;
    EXPECT_EQ(std::count(automatic.err.begin(), automatic.err.end(), '\n'), 1) << automatic.err;
    EXPECT_NE(automatic.err.find("no sound"), std::string::npos) << automatic.err;
    EXPECT_EQ(field(automatic.out, "state"), "unavailable");
    EXPECT_EQ(picturesOf(automatic.out).size(), 25u);

    Child demanded({"play", clip, "--audio", "pulse", "--no-progress"}, nowhere);
    ASSERT_TRUE(demanded.wait(20));
    EXPECT_EQ(demanded.exitCode, 1);
    EXPECT_EQ(std::count(demanded.err.begin(), demanded.err.end(), '\n'), 1) << demanded.err;
    EXPECT_NE(demanded.err.find("sorvel: sound: cannot connect"), std::string::npos) << demanded.err;

    Child silent({"play", clip, "--audio", "none", "--json", "--no-progress"}, nowhere);
    ASSERT_TRUE(silent.wait(20));
    EXPECT_EQ(silent.exitCode, 0);
    EXPECT_EQ(silent.err, "");
    EXPECT_EQ(field(silent.out, "state"), "off");

    Child bad({"play", clip, "--audio", "loud"});
    ASSERT_TRUE(bad.wait(20));
    EXPECT_EQ(bad.exitCode, 2) << "a bad --audio is a bad command line";
}

// The client library is loaded only when sound is played: one that cannot
// be loaded, or that lacks a function, is a server that cannot be reached.
TEST_F(SoundTest, AnUnusableClientLibraryFallsBackOrFailsAsAsked) {
    const std::string clip = make("clip.mp4", pictures(1) + " " + beeps(48000, 1) + " -c:a aac -shortest");
    const struct {
        const char *library, *reason;
    } cases[] = {
        {"libsorvel-no-such-client.so.0", "cannot load the audio server's client library: libsorvel-no-such-client"},
        {"libc.so.6", "the audio server's client library libc.so.6 has no pa_"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.library);
        const std::map<std::string, std::string> environment = {{"SORVEL_PULSE_LIBRARY", c.library}};
        Child automatic({"play", clip, "--json", "--no-progress"}, environment);
        ASSERT_TRUE(automatic.wait(20));
        EXPECT_EQ(automatic.exitCode, 0) << automatic.err;
        EXPECT_EQ(std::count(automatic.err.begin(), automatic.err.end(), '\n'), 1) << automatic.err;
        EXPECT_NE(automatic.err.find(std::string("sorvel: no sound (") + c.reason), std::string::npos) << automatic.err;
        EXPECT_EQ(field(automatic.out, "state"), "unavailable");
        EXPECT_EQ(picturesOf(automatic.out).size(), 25u);

        Child demanded({"play", clip, "--audio", "pulse", "--no-progress"}, environment);
        ASSERT_TRUE(demanded.wait(20));
        EXPECT_EQ(demanded.exitCode, 1);
        EXPECT_NE(demanded.err.find(std::string("sorvel: sound: ") + c.reason), std::string::npos) << demanded.err;
    }
}

TEST_F(SoundTest, SoundWithoutPicturesPlaysAndReports) {
    const std::string clip = make("only.m4a", beeps(44100, 2) + " -c:a aac");
    Child player({"play", clip, "--json"});
    ASSERT_TRUE(player.wait(20));
    EXPECT_EQ(player.exitCode, 0) << player.err;
    EXPECT_EQ(field(player.out, "state"), "played");
    EXPECT_EQ(field(player.out, "samples_shown"), "0");
    EXPECT_EQ(field(player.out, "interrupted"), "false");
    const double wall = std::stod(field(player.out, "wall_seconds"));
    EXPECT_GT(wall, 1.9) << "the whole sound is played";
    EXPECT_LT(wall, 4.0);

    Child fast({"play", clip, "--rate", "2"});
    ASSERT_TRUE(fast.wait(20));
    EXPECT_EQ(fast.exitCode, 4) << "nothing to play at rate 2: no pictures, and sound at rate 1 only";
    EXPECT_NE(fast.err.find("no video stream; sound is played at rate 1 only"), std::string::npos) << fast.err;
}

// Ctrl-C during sound-only playing stops the sound at once and still
// reports, as it does with pictures: the report says it was interrupted and
// the status is 130.
TEST_F(SoundTest, InterruptedSoundWithoutPicturesStopsAndReports) {
    const std::string clip = make("long.m4a", beeps(44100, 10) + " -c:a aac");
    for (const bool json : {true, false}) {
        SCOPED_TRACE(json ? "json" : "text");
        std::vector<std::string> arguments{"play", clip};
        if (json) arguments.push_back("--json");
        Child player(arguments);
        std::this_thread::sleep_for(std::chrono::milliseconds(1000));
        kill(player.pid(), SIGINT);
        // Ten seconds of sound: ending within four of the start is the interrupt's doing.
        ASSERT_TRUE(player.wait(4.0)) << "Ctrl-C must end sound-only playing";
        EXPECT_EQ(player.signal, 0) << "killed by the signal instead of stopping";
        EXPECT_EQ(player.exitCode, 130) << player.err;
        EXPECT_EQ(player.err, "");
        for (const char *report : {"AddressSanitizer", "LeakSanitizer", "runtime error:"})
            EXPECT_EQ(player.err.find(report), std::string::npos) << player.err;
        if (json) {
            EXPECT_EQ(field(player.out, "interrupted"), "true") << player.out;
            EXPECT_EQ(field(player.out, "state"), "played") << player.out;
            const double wall = std::stod(field(player.out, "wall_seconds"));
            EXPECT_GT(wall, 0.3);
            EXPECT_LT(wall, 3.5);
        } else {
            EXPECT_NE(player.out.find("(sound only, no video stream)"), std::string::npos) << player.out;
            EXPECT_NE(player.out.find("  Interrupted     playing stopped early\n"), std::string::npos) << player.out;
            EXPECT_NE(player.out.find("  Sound           aac"), std::string::npos) << player.out;
        }
    }
}

TEST_F(SoundTest, SoundTheServerOrTheDecoderRefusesIsSaidOnOneLine) {
    struct Case {
        const char *name, *arguments, *reason;
    } cases[] = {
        // Above the highest rate a PulseAudio stream may have.
        {"hirate.mkv", "-f lavfi -i sine=f=1000:r=768000:d=1 -c:a pcm_s16le", "768000 Hz"},
        // Every byte of every packet garbled: nothing decodes.
        {"broken.mp4", "-f lavfi -i sine=f=1000:r=48000:d=1 -c:a aac -bsf:a noise=amount=1", "cannot be decoded"},
    };
    for (const Case &c : cases) {
        const std::string clip = make(c.name, pictures(1) + " " + c.arguments + " -shortest");
        Child automatic({"play", clip, "--json", "--no-progress"});
        ASSERT_TRUE(automatic.wait(20)) << c.name;
        EXPECT_EQ(automatic.exitCode, 0) << c.name << automatic.err;
        EXPECT_EQ(std::count(automatic.err.begin(), automatic.err.end(), '\n'), 1) << automatic.err;
        EXPECT_NE(automatic.err.find(c.reason), std::string::npos) << automatic.err;
        EXPECT_NE(field(automatic.out, "reason").find(c.reason), std::string::npos) << automatic.out.substr(0, 800);
        EXPECT_EQ(picturesOf(automatic.out).size(), 25u) << "the pictures play by the host clock";

        Child demanded({"play", clip, "--audio", "pulse", "--no-progress"});
        ASSERT_TRUE(demanded.wait(20)) << c.name;
        EXPECT_EQ(demanded.exitCode, 1) << c.name;
        EXPECT_NE(demanded.err.find(c.reason), std::string::npos) << demanded.err;
        for (const char *report : {"AddressSanitizer", "LeakSanitizer", "runtime error:"}) {
            EXPECT_EQ(automatic.err.find(report), std::string::npos) << automatic.err;
            EXPECT_EQ(demanded.err.find(report), std::string::npos) << demanded.err;
        }
    }
}

TEST_F(SoundTest, ServerGoingAwayMidPlayEndsCleanly) {
    const std::string clip = make("clip.mp4", pictures(4) + " " + beeps(48000, 4) + " -c:a aac -shortest");
    Child player({"play", clip, "--json", "--no-progress"});
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    stopServer();
    ASSERT_TRUE(player.wait(15)) << "a lost server must not hang the player";
    EXPECT_EQ(player.exitCode, 0) << player.err;
    EXPECT_EQ(field(player.out, "state"), "failed") << player.out.substr(0, 800);
    EXPECT_NE(player.err.find("went away"), std::string::npos) << player.err;
    EXPECT_EQ(std::count(player.err.begin(), player.err.end(), '\n'), 1) << player.err;
    EXPECT_EQ(picturesOf(player.out).size(), 100u) << "the pictures play to the end";
}

TEST_F(SoundTest, StalledPlayerRecoversAndReportsTheStall) {
    const std::string clip = make("clip.mp4", pictures(3) + " " + beeps(48000, 3) + " -c:a aac -shortest");
    Child player({"play", clip, "--json", "--no-progress"});
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    // Stopped for longer than the output's buffer: the server runs dry.
    kill(player.pid(), SIGSTOP);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    kill(player.pid(), SIGCONT);
    ASSERT_TRUE(player.wait(20));
    EXPECT_EQ(player.exitCode, 0) << player.err;
    EXPECT_EQ(field(player.out, "state"), "played");
    EXPECT_GE(std::stoi(field(player.out, "underruns", "sound")), 1) << player.out.substr(0, 1200);
    EXPECT_GE(std::stoi(field(player.out, "stalls", "sound")), 1) << "the clock stood while the sound did";
    EXPECT_EQ(picturesOf(player.out).size(), 75u);
}

}  // namespace
