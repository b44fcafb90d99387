// SPDX-License-Identifier: Apache-2.0
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "Tool.h"

namespace sorvel::tool {

std::string fourCC(FourCharCode code) {
    std::string text(4, '.');
    for (int i = 0; i < 4; ++i) {
        const char c = static_cast<char>((code >> (24 - 8 * i)) & 0xFF);
        if (c >= 0x20 && c < 0x7F) text[static_cast<size_t>(i)] = c;
    }
    return text;
}

std::string utf8(CFTypeRef value) {
    if (!value || CFGetTypeID(value) != CFStringGetTypeID()) return "";
    CFStringRef string = static_cast<CFStringRef>(value);
    if (const char *direct = CFStringGetCStringPtr(string, kCFStringEncodingUTF8)) return direct;
    const CFIndex capacity = CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8) + 1;
    std::string text(static_cast<size_t>(capacity), '\0');
    if (!CFStringGetCString(string, text.data(), capacity, kCFStringEncodingUTF8)) return "";
    text.resize(strlen(text.c_str()));
    return text;
}

std::string format(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, fmt, args);
    va_end(args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) vsnprintf(text.data(), text.size() + 1, fmt, again);
    va_end(again);
    return text;
}

double seconds(SVTime time) {
    if (!SVTIME_IS_NUMERIC(time) || time.timescale <= 0) return NAN;
    return static_cast<double>(time.value) / time.timescale;
}

bool sampleBytes(SVSampleBufferRef buffer, const uint8_t *&bytes, size_t &size) {
    SVBlockBufferRef data = SVSampleBufferGetDataBuffer(buffer);
    char *pointer = nullptr;
    size_t contiguous = 0, total = 0;
    if (!data || SVBlockBufferGetDataPointer(data, 0, &contiguous, &total, &pointer) != 0 || contiguous != total)
        return false;
    bytes = reinterpret_cast<const uint8_t *>(pointer);
    size = total;
    return true;
}

unsigned nalUnitType(FourCharCode codec, uint8_t firstByte) {
    return codec == kSVVideoCodecType_H264 ? firstByte & 0x1Fu : (firstByte >> 1) & 0x3Fu;
}

size_t nalUnitHeaderSize(FourCharCode codec) {
    return codec == kSVVideoCodecType_HEVC ? 2 : 1;
}

const char *nalUnitTypeName(FourCharCode codec, unsigned type) {
    if (codec == kSVVideoCodecType_H264) {
        static const char *const names[32] = {"UNSPEC0",      "SLICE",
                                              "DPA",          "DPB",
                                              "DPC",          "IDR",
                                              "SEI",          "SPS",
                                              "PPS",          "AUD",
                                              "END_SEQUENCE", "END_STREAM",
                                              "FILLER",       "SPS_EXT",
                                              "PREFIX",       "SUBSET_SPS",
                                              "DPS",          "RSV17",
                                              "RSV18",        "AUXILIARY_SLICE",
                                              "EXTEN_SLICE",  "DEPTH_EXTEN_SLICE",
                                              "RSV22",        "RSV23",
                                              "UNSPEC24",     "UNSPEC25",
                                              "UNSPEC26",     "UNSPEC27",
                                              "UNSPEC28",     "UNSPEC29",
                                              "UNSPEC30",     "UNSPEC31"};
        return names[type & 31];
    }
    static const char *const names[64] = {
        "TRAIL_N",     "TRAIL_R",     "TSA_N",       "TSA_R",       "STSA_N",      "STSA_R",      "RADL_N",
        "RADL_R",      "RASL_N",      "RASL_R",      "RSV_VCL_N10", "RSV_VCL_R11", "RSV_VCL_N12", "RSV_VCL_R13",
        "RSV_VCL_N14", "RSV_VCL_R15", "BLA_W_LP",    "BLA_W_RADL",  "BLA_N_LP",    "IDR_W_RADL",  "IDR_N_LP",
        "CRA",         "RSV_IRAP_22", "RSV_IRAP_23", "RSV_VCL24",   "RSV_VCL25",   "RSV_VCL26",   "RSV_VCL27",
        "RSV_VCL28",   "RSV_VCL29",   "RSV_VCL30",   "RSV_VCL31",   "VPS",         "SPS",         "PPS",
        "AUD",         "EOS",         "EOB",         "FD",          "SEI_PREFIX",  "SEI_SUFFIX",  "RSV_NVCL41",
        "RSV_NVCL42",  "RSV_NVCL43",  "RSV_NVCL44",  "RSV_NVCL45",  "RSV_NVCL46",  "RSV_NVCL47",  "UNSPEC48",
        "UNSPEC49",    "UNSPEC50",    "UNSPEC51",    "UNSPEC52",    "UNSPEC53",    "UNSPEC54",    "UNSPEC55",
        "UNSPEC56",    "UNSPEC57",    "UNSPEC58",    "UNSPEC59",    "UNSPEC60",    "UNSPEC61",    "UNSPEC62",
        "UNSPEC63"};
    return names[type & 63];
}

}  // namespace sorvel::tool
