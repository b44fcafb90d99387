// SPDX-License-Identifier: Apache-2.0
#include "AacConfig.h"

namespace sorvel::tool {
namespace {

// MPEG-4 audio object types the reader acts on.
constexpr uint32_t kObjectTypeAacLC = 2, kObjectTypeSBR = 5, kObjectTypePS = 29, kObjectTypeEscape = 31;
// The sync words of backward-compatible SBR and PS signalling.
constexpr uint32_t kSyncExtensionSBR = 0x2b7, kSyncExtensionPS = 0x548;

class BitReader {
public:
    BitReader(const uint8_t *data, size_t size) : data_(data), size_(data ? size : 0) {}
    // Reads `count` bits (at most 32) MSB first; false past the end.
    bool read(unsigned count, uint32_t &value) {
        if (count > left()) return false;
        value = 0;
        for (unsigned i = 0; i < count; ++i, ++at_) value = value << 1 | ((data_[at_ / 8] >> (7 - at_ % 8)) & 1u);
        return true;
    }
    size_t left() const { return size_ * 8 - at_; }

private:
    const uint8_t *data_;
    size_t size_;
    size_t at_ = 0;
};

bool readObjectType(BitReader &bits, uint32_t &type) {
    if (!bits.read(5, type)) return false;
    if (type != kObjectTypeEscape) return true;
    uint32_t extension = 0;
    if (!bits.read(6, extension)) return false;
    type = 32 + extension;
    return true;
}

bool skipSamplingFrequency(BitReader &bits) {
    uint32_t index = 0, frequency = 0;
    return bits.read(4, index) && (index != 15 || bits.read(24, frequency));
}

// Skips a GASpecificConfig; false when it cannot (a program config element
// or the end of the bytes), which only ends the search for extensions.
bool skipGASpecificConfig(BitReader &bits, uint32_t type, uint32_t channels) {
    uint32_t flag = 0, skipped = 0, extension = 0;
    if (!bits.read(1, flag) || !bits.read(1, flag)) return false;  // frameLengthFlag, dependsOnCoreCoder
    if (flag && !bits.read(14, skipped)) return false;             // coreCoderDelay
    if (!bits.read(1, extension)) return false;
    if (channels == 0) return false;  // program_config_element: not walked
    if ((type == 6 || type == 20) && !bits.read(3, skipped)) return false;
    if (extension) {
        if (type == 22 && !bits.read(16, skipped)) return false;
        if ((type == 17 || type == 19 || type == 20 || type == 23) && !bits.read(3, skipped)) return false;
        if (!bits.read(1, skipped)) return false;  // extensionFlag3
    }
    return true;
}

bool isGeneralAudio(uint32_t type) {
    switch (type) {
        case 1:
        case 2:
        case 3:
        case 4:
        case 6:
        case 7:
        case 17:
        case 19:
        case 20:
        case 21:
        case 22:
        case 23:
            return true;
        default:
            return false;
    }
}

}  // namespace

AacProfile readAacProfile(const uint8_t *config, size_t size) {
    AacProfile profile;
    BitReader bits(config, size);
    uint32_t type = 0, channels = 0;
    if (!readObjectType(bits, type)) return profile;
    profile.objectType = type;
    if (!skipSamplingFrequency(bits) || !bits.read(4, channels)) return profile;
    if (type == kObjectTypeSBR || type == kObjectTypePS) {
        // Explicit, hierarchical signalling: the core's type follows.
        profile.sbr = true;
        profile.ps = type == kObjectTypePS;
        uint32_t core = 0;
        if (!skipSamplingFrequency(bits) || !readObjectType(bits, core)) {
            profile.objectType = kObjectTypeAacLC;  // the only core HE-AAC is defined over
            return profile;
        }
        profile.objectType = core;
        return profile;
    }
    if (!isGeneralAudio(type) || !skipGASpecificConfig(bits, type, channels)) return profile;
    if (type >= 17 && type <= 23) {
        uint32_t epConfig = 0;
        if (!bits.read(2, epConfig)) return profile;
    }
    // Backward-compatible signalling after the core configuration.
    uint32_t sync = 0, extensionType = 0, flag = 0;
    if (bits.left() < 16 || !bits.read(11, sync) || sync != kSyncExtensionSBR) return profile;
    if (!readObjectType(bits, extensionType) || extensionType != kObjectTypeSBR || !bits.read(1, flag) || !flag)
        return profile;
    profile.sbr = true;
    if (!skipSamplingFrequency(bits)) return profile;
    if (bits.left() >= 12 && bits.read(11, sync) && sync == kSyncExtensionPS && bits.read(1, flag))
        profile.ps = flag != 0;
    return profile;
}

std::string aacProfileName(const AacProfile &profile) {
    if (profile.sbr && profile.objectType == kObjectTypeAacLC) return profile.ps ? "HE-AACv2" : "HE-AAC";
    switch (profile.objectType) {
        case 0:
            return "";
        case 1:
            return "Main";
        case 2:
            return "LC";
        case 3:
            return "SSR";
        case 4:
            return "LTP";
        case 6:
            return "Scalable";
        case 17:
            return "ER LC";
        case 19:
            return "ER LTP";
        case 23:
            return "LD";
        case 39:
            return "ELD";
        case 42:
            return "USAC";
        default:
            return (profile.sbr ? std::string(profile.ps ? "HE-AACv2 over " : "HE-AAC over ") : std::string()) +
                   "object type " + std::to_string(profile.objectType);
    }
}

}  // namespace sorvel::tool
