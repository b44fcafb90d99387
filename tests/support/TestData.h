/* SPDX-License-Identifier: Apache-2.0 */
// The real streams under tests/data/: reading a file and the clip lists.
#ifndef SORVEL_TESTS_SUPPORT_TESTDATA_H
#define SORVEL_TESTS_SUPPORT_TESTDATA_H

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace sorvel_test {

using Bytes = std::vector<uint8_t>;
using Units = std::vector<Bytes>;

inline std::string dataPath(const std::string &name) {
    return std::string(SORVEL_TEST_DATA_DIR) + "/" + name;
}

// The whole file, or nothing when it cannot be read.
inline Bytes readFile(const std::string &name) {
    std::ifstream in(dataPath(name), std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline const char *const kAVCClips[] = {"avc_baseline_176x144",
                                        "avc_baseline_176x144.len2",
                                        "avc_high10_1280x720_pq",
                                        "avc_high_480x270_sar37x20_smpte240m",
                                        "avc_high_642x362_sar40x33_smpte170m",
                                        "avc_high_720x576_tff_sar16x11",
                                        "avc_main_1920x1080_bt709",
                                        "avc_main_1920x1080_bt709.oob"};
inline const char *const kHEVCClips[] = {"hevc_main10_640x360_hlg_full_chromaloc2", "hevc_main_1920x1080_bt709",
                                         "hevc_main_642x362_sar40x33_smpte170m_hvc1",
                                         "hevc_main_642x362_sar40x33_smpte170m_hvc1.oob"};

}  // namespace sorvel_test

#endif  // SORVEL_TESTS_SUPPORT_TESTDATA_H
