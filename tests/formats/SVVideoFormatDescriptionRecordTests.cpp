// SPDX-License-Identifier: Apache-2.0
// Video descriptions made straight from real avcC/hvcC records: the same
// description as from the record's parameter sets, the sets read back
// without type bytes, the reference dimensions, and refusals of broken
// records and failing allocators.

#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/TestAllocator.h"
#include "support/TestData.h"

namespace {

using sorvel_test::Bytes;
using sorvel_test::readFile;

struct Clip {
    const char *name;
    bool hevc;
};

std::vector<Clip> clips() {
    std::vector<Clip> all;
    for (const char *name : sorvel_test::kAVCClips) all.push_back({name, false});
    for (const char *name : sorvel_test::kHEVCClips) all.push_back({name, true});
    return all;
}

Bytes recordOf(const Clip &clip) {
    return readFile(std::string("records/") + clip.name + (clip.hevc ? ".hvcC" : ".avcC"));
}

OSStatus fromRecord(const Clip &clip, CFAllocatorRef allocator, const uint8_t *record, size_t size,
                    SVFormatDescriptionRef *out) {
    return clip.hevc
               ? SVVideoFormatDescriptionCreateFromHEVCDecoderConfigurationRecord(allocator, record, size, nullptr, out)
               : SVVideoFormatDescriptionCreateFromAVCDecoderConfigurationRecord(allocator, record, size, out);
}

std::string summaryValue(const std::string &json, const std::string &key) {
    const size_t summary = json.find("\"summary\"");
    size_t at = json.find("\"" + key + "\":", summary);
    if (summary == std::string::npos || at == std::string::npos) return "";
    at = json.find(':', at) + 1;
    while (json[at] == ' ' || json[at] == '"') ++at;
    size_t end = at;
    while (end < json.size() && json[end] != '"' && json[end] != ',' && json[end] != '\n') ++end;
    return json.substr(at, end - at);
}

TEST(SVVideoFormatDescriptionFromRecord, RealRecordsMakeTheDescriptionTheirSetsMake) {
    for (const Clip &clip : clips()) {
        const Bytes record = recordOf(clip);
        SVFormatDescriptionRef desc = nullptr;
        ASSERT_EQ(fromRecord(clip, nullptr, record.data(), record.size(), &desc), 0) << clip.name;
        ASSERT_NE(desc, nullptr);
        EXPECT_EQ(SVFormatDescriptionGetMediaSubType(desc), clip.hevc ? 0x68766331u : 0x61766331u);

        // The sets and header length, from the record and from the description.
        auto get = clip.hevc ? SVGetParameterSetFromHEVCDecoderConfigurationRecord
                             : SVGetParameterSetFromAVCDecoderConfigurationRecord;
        auto getFromDesc = clip.hevc ? SVVideoFormatDescriptionGetHEVCParameterSetAtIndex
                                     : SVVideoFormatDescriptionGetH264ParameterSetAtIndex;
        size_t count = 0, descCount = 0;
        int header = 0, descHeader = 0;
        ASSERT_EQ(get(record.data(), record.size(), 0, nullptr, nullptr, &count, &header), 0);
        ASSERT_EQ(getFromDesc(desc, 0, nullptr, nullptr, &descCount, &descHeader), 0) << clip.name;
        EXPECT_EQ(descCount, count) << clip.name;
        EXPECT_EQ(descHeader, header) << clip.name;
        std::vector<const uint8_t *> pointers(count);
        std::vector<size_t> sizes(count);
        for (size_t i = 0; i < count; ++i) {
            ASSERT_EQ(get(record.data(), record.size(), i, &pointers[i], &sizes[i], nullptr, nullptr), 0);
            const uint8_t *p = nullptr;
            size_t size = 0;
            ASSERT_EQ(getFromDesc(desc, i, &p, &size, nullptr, nullptr), 0);
            EXPECT_EQ(Bytes(p, p + size), Bytes(pointers[i], pointers[i] + sizes[i])) << clip.name << " set " << i;
        }
        SVFormatDescriptionRef viaSets = nullptr;
        const OSStatus status = clip.hevc
                                    ? SVVideoFormatDescriptionCreateFromHEVCParameterSets(
                                          nullptr, count, pointers.data(), sizes.data(), header, nullptr, &viaSets)
                                    : SVVideoFormatDescriptionCreateFromH264ParameterSets(
                                          nullptr, count, pointers.data(), sizes.data(), header, &viaSets);
        ASSERT_EQ(status, 0);
        EXPECT_TRUE(CFEqual(desc, viaSets)) << clip.name;

        const Bytes raw = readFile(std::string("expected/") + clip.name + ".json");
        const std::string json(raw.begin(), raw.end());
        const SVVideoDimensions dims = SVVideoFormatDescriptionGetDimensions(desc);
        EXPECT_EQ(std::to_string(dims.width), summaryValue(json, "display_width")) << clip.name;
        EXPECT_EQ(std::to_string(dims.height), summaryValue(json, "display_height")) << clip.name;
        CFRelease(viaSets);
        CFRelease(desc);
    }
}

TEST(SVVideoFormatDescriptionFromRecord, BrokenRecordsAndArgumentsAreRefused) {
    sorvel_test::LogCapture quiet(4);
    for (const Clip &clip : {Clip{"avc_main_1920x1080_bt709", false}, Clip{"hevc_main_1920x1080_bt709", true}}) {
        const Bytes record = recordOf(clip);
        SVFormatDescriptionRef desc = reinterpret_cast<SVFormatDescriptionRef>(1);
        // Cut inside the first parameter set.
        EXPECT_EQ(fromRecord(clip, nullptr, record.data(), clip.hevc ? 30 : 10, &desc),
                  kSVFormatDescriptionError_InvalidParameter);
        EXPECT_EQ(desc, nullptr);
        EXPECT_EQ(fromRecord(clip, nullptr, nullptr, record.size(), &desc), kSVFormatDescriptionError_InvalidParameter);
        EXPECT_EQ(fromRecord(clip, nullptr, record.data(), record.size(), nullptr),
                  kSVFormatDescriptionError_InvalidParameter);
        // A record header that announces no parameter sets.
        Bytes empty(clip.hevc ? 23 : 7, 0);
        empty[0] = 1;
        EXPECT_EQ(fromRecord(clip, nullptr, empty.data(), empty.size(), &desc),
                  kSVFormatDescriptionError_InvalidParameter);
        EXPECT_EQ(desc, nullptr);
        // The other codec's record is not mistaken for this one's.
        const Bytes other =
            recordOf(clip.hevc ? Clip{"avc_main_1920x1080_bt709", false} : Clip{"hevc_main_1920x1080_bt709", true});
        EXPECT_NE(fromRecord(clip, nullptr, other.data(), other.size(), &desc), 0);
        EXPECT_EQ(desc, nullptr);
    }
}

TEST(SVVideoFormatDescriptionFromRecord, AllocationFailuresLeakNothing) {
    sorvel_test::LogCapture quiet(4);
    for (const Clip &clip : {Clip{"avc_baseline_176x144", false}, Clip{"hevc_main_1920x1080_bt709", true}}) {
        const Bytes record = recordOf(clip);
        bool succeeded = false;
        for (long n = 0; n < 200 && !succeeded; ++n) {
            sorvel_test::TestAllocator allocator;
            allocator.failAfter(n);
            SVFormatDescriptionRef desc = nullptr;
            const OSStatus status = fromRecord(clip, allocator.get(), record.data(), record.size(), &desc);
            if (status == 0) {
                // Not before an allocation has been refused at least once.
                EXPECT_GT(n, 0) << clip.name;
                succeeded = true;
                CFRelease(desc);
            } else {
                EXPECT_EQ(status, kSVFormatDescriptionError_AllocationFailed) << clip.name << " after " << n;
                EXPECT_EQ(desc, nullptr);
            }
        }
        EXPECT_TRUE(succeeded) << clip.name;
    }
}

}  // namespace
