// SPDX-License-Identifier: Apache-2.0
// Status names against the constants the public headers declare, status
// descriptions of special values, and the version calls and macros.

#include <Sorvel/SVBase.h>
#include <Sorvel/SVStatus.h>
#include <Sorvel/SVVersion.h>
#include <dirent.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "support/TestAllocator.h"

namespace {

std::string text(CFStringRef string) {
    char buffer[160] = {};
    EXPECT_TRUE(string && CFStringGetCString(string, buffer, sizeof buffer, kCFStringEncodingUTF8));
    return buffer;
}

std::string describe(OSStatus status) {
    CFStringRef description = SVCopyStatusDescription(nullptr, status);
    std::string result = text(description);
    if (description) CFRelease(description);
    return result;
}

// Every "kSV...Error_... = -N" and "kSV...Err = -N" of the public headers.
std::map<std::string, long> declaredStatuses() {
    const std::string dir = std::string(SORVEL_TEST_DATA_DIR) + "/../../include/Sorvel";
    std::map<std::string, long> found;
    DIR *listing = opendir(dir.c_str());
    EXPECT_NE(listing, nullptr) << dir;
    if (!listing) return found;
    const std::regex constant(R"(\b(kSV\w*(Error|Err)\w*)\s*=\s*(-\d+))");
    while (dirent *entry = readdir(listing)) {
        const std::string name = entry->d_name;
        if (name.size() < 2 || name.substr(name.size() - 2) != ".h") continue;
        std::ifstream in(dir + "/" + name);
        std::stringstream contents;
        contents << in.rdbuf();
        const std::string source = contents.str();
        for (std::sregex_iterator it(source.begin(), source.end(), constant), end; it != end; ++it)
            found[(*it)[1]] = std::stol((*it)[3]);
    }
    closedir(listing);
    return found;
}

TEST(SVStatus, EveryDeclaredStatusHasItsName) {
    const auto statuses = declaredStatuses();
    ASSERT_GT(statuses.size(), 40u);
    for (const auto &[name, value] : statuses) {
        const char *got = SVGetStatusName(static_cast<OSStatus>(value));
        ASSERT_NE(got, nullptr) << name << " = " << value << " has no entry";
        EXPECT_EQ(std::string(got), name) << value;
        EXPECT_EQ(describe(static_cast<OSStatus>(value)), name + " (" + std::to_string(value) + ")");
    }
}

TEST(SVStatus, ValuesThatAreNotSorvelsStatuses) {
    const struct {
        OSStatus status;
        const char *description;
    } cases[] = {
        {0, "noErr (0)"},
        {-12702, "unknown status (-12702)"},  // a gap in the block-buffer codes
        {-1, "unknown status (-1)"},
        {INT32_MIN, "unknown status (-2147483648)"},
        {INT32_MAX, "unknown status (2147483647)"},
        {0x666D743F, "'fmt?' (1718449215)"},
        {0x20202020, "'    ' (538976288)"},
        {0x666D7400, "unknown status (1718449152)"},  // last byte not printable
        {0x7F6D743F, "unknown status (2137879615)"},  // DEL is not printable
    };
    for (const auto &c : cases) {
        EXPECT_EQ(describe(c.status), c.description) << c.status;
        if (c.status != 0) {
            EXPECT_EQ(SVGetStatusName(c.status), nullptr) << c.status;
        }
    }
    EXPECT_STREQ(SVGetStatusName(0), "noErr");
}

TEST(SVStatus, DescriptionUsesTheCallersAllocatorAndFailsCleanly) {
    sorvel_test::TestAllocator allocator;
    CFStringRef description = SVCopyStatusDescription(allocator.get(), -12733);
    ASSERT_NE(description, nullptr);
    EXPECT_EQ(CFGetAllocator(description), allocator.get());
    CFRelease(description);
    allocator.failAlways();
    EXPECT_EQ(SVCopyStatusDescription(allocator.get(), -12733), nullptr);
}

TEST(SVVersion, TheLibraryAndTheHeadersAgree) {
    EXPECT_EQ(SVGetVersion(), static_cast<unsigned long>(SORVEL_VERSION));
    char expected[32];
    std::snprintf(expected, sizeof expected, "%d.%d.%d", SORVEL_VERSION_MAJOR, SORVEL_VERSION_MINOR,
                  SORVEL_VERSION_PATCH);
    EXPECT_STREQ(SVGetVersionString(), expected);
    EXPECT_STREQ(SORVEL_VERSION_STRING, expected);
}

TEST(SVVersion, CheckVersionOrdersByMajorThenMinorThenPatch) {
    const int major = SORVEL_VERSION_MAJOR, minor = SORVEL_VERSION_MINOR, patch = SORVEL_VERSION_PATCH;
    EXPECT_TRUE(SORVEL_CHECK_VERSION(major, minor, patch));
    EXPECT_TRUE(SORVEL_CHECK_VERSION(0, 0, 0));
    EXPECT_FALSE(SORVEL_CHECK_VERSION(major, minor, patch + 1));
    EXPECT_FALSE(SORVEL_CHECK_VERSION(major, minor + 1, 0));
    EXPECT_FALSE(SORVEL_CHECK_VERSION(major + 1, 0, 0));
    // A higher minor outranks any patch of a lower one.
    EXPECT_GT(SORVEL_VERSION_ENCODE(1, 2, 0), SORVEL_VERSION_ENCODE(1, 1, 255));
    EXPECT_GT(SORVEL_VERSION_ENCODE(2, 0, 0), SORVEL_VERSION_ENCODE(1, 255, 255));
#if !SORVEL_CHECK_VERSION(0, 1, 0)
#error "SORVEL_CHECK_VERSION must work in #if"
#endif
}

}  // namespace
