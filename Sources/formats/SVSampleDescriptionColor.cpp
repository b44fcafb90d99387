// SPDX-License-Identifier: Apache-2.0
// The tables between the platform's colour constants and the integer code
// points of 'colr' atoms (ITU-T H.273).  They are built by a static
// initialiser when the library is loaded and only read afterwards, so the
// lookups take no lock and never allocate.
#include <CoreVideo/CoreVideo.h>
#include <Sorvel/SVSampleDescription.h>

#include <array>

namespace {

constexpr int kUnspecified = 2;
constexpr int kCodeCount = 256;  // code points are 8-bit in every carrier

struct Pair {
    int code;
    CFStringRef string;
};

// One direction is an array indexed by code point; the other a short list
// searched by value (strings may be equal copies of the constants).
struct Table {
    std::array<CFStringRef, kCodeCount> byCode{};
    std::array<Pair, 16> byString{};
    size_t stringCount = 0;

    void code(int value, CFStringRef string) { byCode[size_t(value)] = string; }
    void string(CFStringRef string, int value) { byString[stringCount++] = {value, string}; }

    CFStringRef find(int value) const { return value >= 0 && value < kCodeCount ? byCode[size_t(value)] : nullptr; }
    int find(CFStringRef string) const {
        if (!string || CFGetTypeID(string) != CFStringGetTypeID()) return kUnspecified;
        for (size_t i = 0; i < stringCount; ++i)
            if (byString[i].string == string) return byString[i].code;
        for (size_t i = 0; i < stringCount; ++i)
            if (CFEqual(byString[i].string, string)) return byString[i].code;
        return kUnspecified;
    }
};

struct Tables {
    Table primaries, transfer, matrix;

    Tables() {
        primaries.code(1, kCVImageBufferColorPrimaries_ITU_R_709_2);
        primaries.code(5, kCVImageBufferColorPrimaries_EBU_3213);
        primaries.code(6, kCVImageBufferColorPrimaries_SMPTE_C);
        primaries.code(7, kCVImageBufferColorPrimaries_SMPTE_C);  // 240M has the 170M primaries
        primaries.code(9, kCVImageBufferColorPrimaries_ITU_R_2020);
        primaries.code(11, kCVImageBufferColorPrimaries_DCI_P3);
        primaries.code(12, kCVImageBufferColorPrimaries_P3_D65);
        primaries.code(22, kCVImageBufferColorPrimaries_P22);
        primaries.string(kCVImageBufferColorPrimaries_ITU_R_709_2, 1);
        primaries.string(kCVImageBufferColorPrimaries_EBU_3213, 5);
        primaries.string(kCVImageBufferColorPrimaries_SMPTE_C, 6);
        primaries.string(kCVImageBufferColorPrimaries_ITU_R_2020, 9);
        primaries.string(kCVImageBufferColorPrimaries_DCI_P3, 11);
        primaries.string(kCVImageBufferColorPrimaries_P3_D65, 12);
        primaries.string(kCVImageBufferColorPrimaries_P22, 22);
        primaries.string(kSVFormatDescriptionColorPrimaries_P22, 22);

        transfer.code(1, kCVImageBufferTransferFunction_ITU_R_709_2);
        transfer.code(4, kCVImageBufferTransferFunction_UseGamma);     // gamma 2.2
        transfer.code(5, kCVImageBufferTransferFunction_UseGamma);     // gamma 2.8
        transfer.code(6, kCVImageBufferTransferFunction_ITU_R_709_2);  // 601 uses the 709 curve
        transfer.code(7, kCVImageBufferTransferFunction_SMPTE_240M_1995);
        transfer.code(8, kCVImageBufferTransferFunction_Linear);
        transfer.code(13, kCVImageBufferTransferFunction_sRGB);
        transfer.code(14, kCVImageBufferTransferFunction_ITU_R_2020);  // 10-bit
        transfer.code(15, kCVImageBufferTransferFunction_ITU_R_2020);  // 12-bit, the same curve
        transfer.code(16, kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ);
        transfer.code(17, kCVImageBufferTransferFunction_SMPTE_ST_428_1);
        transfer.code(18, kCVImageBufferTransferFunction_ITU_R_2100_HLG);
        transfer.string(kCVImageBufferTransferFunction_ITU_R_709_2, 1);
        transfer.string(kCVImageBufferTransferFunction_SMPTE_240M_1995, 7);
        transfer.string(kCVImageBufferTransferFunction_Linear, 8);
        transfer.string(kCVImageBufferTransferFunction_sRGB, 13);
        transfer.string(kCVImageBufferTransferFunction_ITU_R_2020, 14);
        transfer.string(kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ, 16);
        transfer.string(kCVImageBufferTransferFunction_SMPTE_ST_428_1, 17);
        transfer.string(kCVImageBufferTransferFunction_ITU_R_2100_HLG, 18);
        transfer.string(kCVImageBufferTransferFunction_UseGamma, kUnspecified);

        matrix.code(1, kCVImageBufferYCbCrMatrix_ITU_R_709_2);
        matrix.code(5, kCVImageBufferYCbCrMatrix_ITU_R_601_4);  // 470BG and 170M are the same matrix
        matrix.code(6, kCVImageBufferYCbCrMatrix_ITU_R_601_4);
        matrix.code(7, kCVImageBufferYCbCrMatrix_SMPTE_240M_1995);
        matrix.code(9, kCVImageBufferYCbCrMatrix_ITU_R_2020);  // non-constant luminance only
        matrix.string(kCVImageBufferYCbCrMatrix_ITU_R_709_2, 1);
        matrix.string(kCVImageBufferYCbCrMatrix_ITU_R_601_4, 6);
        matrix.string(kCVImageBufferYCbCrMatrix_SMPTE_240M_1995, 7);
        matrix.string(kCVImageBufferYCbCrMatrix_ITU_R_2020, 9);
    }
};

const Tables gTables;

}  // namespace

extern "C" {

int SVColorPrimariesGetIntegerCodePointForString(CFStringRef string) noexcept {
    return gTables.primaries.find(string);
}
CFStringRef SVColorPrimariesGetStringForIntegerCodePoint(int code) noexcept {
    return gTables.primaries.find(code);
}
int SVTransferFunctionGetIntegerCodePointForString(CFStringRef string) noexcept {
    return gTables.transfer.find(string);
}
CFStringRef SVTransferFunctionGetStringForIntegerCodePoint(int code) noexcept {
    return gTables.transfer.find(code);
}
int SVYCbCrMatrixGetIntegerCodePointForString(CFStringRef string) noexcept {
    return gTables.matrix.find(string);
}
CFStringRef SVYCbCrMatrixGetStringForIntegerCodePoint(int code) noexcept {
    return gTables.matrix.find(code);
}

}  // extern "C"
