// SPDX-License-Identifier: Apache-2.0
// The 'stsd' walker on real MP4 files: the entries it finds hold the
// decoder configuration records that the test data's own extraction made
// (tests/data/records), and malformed files fail with a reason.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "../SampleEntries.h"

namespace {

const std::string kData = SORVEL_TEST_DATA_DIR;

std::vector<uint8_t> readAll(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(SampleEntries, FindsTheRecordsOfRealFiles) {
    for (const char *clip : {"avc_baseline_176x144", "avc_main_1920x1080_bt709.oob", "hevc_main_1920x1080_bt709",
                             "hevc_main_642x362_sar40x33_smpte170m_hvc1"}) {
        SCOPED_TRACE(clip);
        std::vector<sorvel_tool::TrackSampleEntries> tracks;
        std::string error;
        ASSERT_TRUE(sorvel_tool::ReadSampleEntries(kData + "/media/" + clip + ".mp4", tracks, error)) << error;
        ASSERT_EQ(tracks.size(), 1u);
        EXPECT_EQ(tracks[0].handler, 0x76696465u);  // 'vide'
        EXPECT_EQ(tracks[0].trackID, 1u);
        ASSERT_EQ(tracks[0].entries.size(), 1u);
        const std::vector<uint8_t> &entry = tracks[0].entries[0];
        const bool hevc = clip[0] == 'h';
        const std::vector<uint8_t> record = readAll(kData + "/records/" + clip + (hevc ? ".hvcC" : ".avcC"));
        ASSERT_FALSE(record.empty());
        // the record sits whole in the entry, right after its atom header
        auto at = std::search(entry.begin(), entry.end(), record.begin(), record.end());
        ASSERT_NE(at, entry.end());
        EXPECT_EQ(std::string(at - 4, at), hevc ? "hvcC" : "avcC");
    }
    std::vector<sorvel_tool::TrackSampleEntries> tracks;
    std::string error;
    ASSERT_TRUE(sorvel_tool::ReadSampleEntries(kData + "/tool/audio_only.m4a", tracks, error)) << error;
    ASSERT_EQ(tracks.size(), 1u);
    EXPECT_EQ(tracks[0].handler, 0x736F756Eu);  // 'soun'
}

TEST(SampleEntries, MalformedFilesFailWithAReason) {
    const std::vector<uint8_t> file = readAll(kData + "/media/avc_baseline_176x144.mp4");
    ASSERT_GT(file.size(), 64u);
    const std::string path = testing::TempDir() + "/sample_entries_cut.mp4";
    // every cut of the file either still finds 'moov' whole or fails cleanly
    size_t failures = 0;
    for (size_t n = 0; n < file.size(); n += std::max<size_t>(1, file.size() / 200)) {
        {
            std::ofstream out(path, std::ios::binary | std::ios::trunc);
            out.write(reinterpret_cast<const char *>(file.data()), std::streamsize(n));
        }
        std::vector<sorvel_tool::TrackSampleEntries> tracks;
        std::string error;
        if (!sorvel_tool::ReadSampleEntries(path, tracks, error)) {
            EXPECT_FALSE(error.empty());
            ++failures;
        }
    }
    EXPECT_GT(failures, 0u);
    std::remove(path.c_str());

    // sizes inside 'moov' that point past their parent
    const uint8_t moov[] = {0, 0, 0, 16, 't', 'r', 'a', 'k', 0, 0, 0, 99, 'm', 'd', 'i', 'a'};
    std::vector<sorvel_tool::TrackSampleEntries> tracks;
    std::string error;
    EXPECT_FALSE(sorvel_tool::ParseMovieBox(moov, sizeof moov, tracks, error));
    EXPECT_NE(error.find("past its parent"), std::string::npos);
    EXPECT_FALSE(sorvel_tool::ReadSampleEntries(kData + "/no/such/file.mp4", tracks, error));
}

}  // namespace
