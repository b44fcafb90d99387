// SPDX-License-Identifier: Apache-2.0
// Text and subtitle descriptions: the getters that read a 3GPP text
// description's style back out of its extensions.
//
// Values are looked up in the extensions dictionary and read as the plain
// numbers they stand for.  A value that is missing, or is not of the type
// the getter reads (a string where a number belongs, a number where a
// dictionary belongs), is a value that is not available: the getter says so
// with kSVFormatDescriptionError_ValueNotAvailable rather than reading it as
// something else.

#include <Sorvel/SVFormatDescription.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "core/SVLog.h"
#include "formats/SVFormatDescriptionInternal.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/SVFormatDescription");

constexpr FourCharCode kSubtype3GText = kSVTextFormatType_3GText;

// The gate every getter passes first: true for 3GPP text, a stop for text
// formats that are not implemented, and a logged refusal for everything
// else.
bool passesTextGate(SVTextFormatDescriptionRef desc, const char *function, OSStatus &status) {
    if (!sorvel::gSVFormatDescriptionClass.checked(desc)) desc = nullptr;
    const FourCharCode type = desc ? desc->mediaType : 0;
    const FourCharCode subtype = desc ? desc->mediaSubType : 0;
    if (type == kSVMediaType_Text || type == kSVMediaType_Subtitle) {
        if (subtype == kSubtype3GText) return true;
        SV_NOT_YET_IMPLEMENTED(function, __LINE__);
    }
    if (type == kSVMediaType_ClosedCaption) SV_NOT_YET_IMPLEMENTED(function, __LINE__);
    // Two codes to render: formatted on this refusal path whether or not
    // the line is emitted.
    char typeText[XP_OSSTATUS_STRING_SIZE];
    char subtypeText[XP_OSSTATUS_STRING_SIZE];
    _XPFormatOSStatus(typeText, static_cast<int32_t>(type));
    _XPFormatOSStatus(subtypeText, static_cast<int32_t>(subtype));
    SV_LOG_FOR(function, 3, "Media type/subtype not supported: Type: %s Subtype: %s", typeText, subtypeText);
    status = kSVFormatDescriptionError_InvalidParameter;
    return false;
}

CFTypeRef lookUp(CFDictionaryRef dictionary, CFStringRef key) {
    return dictionary ? CFDictionaryGetValue(dictionary, key) : nullptr;
}

// A number read as a native int; false when absent or not a number.
bool readInt(CFDictionaryRef dictionary, CFStringRef key, int &value) {
    CFTypeRef number = lookUp(dictionary, key);
    if (!number || CFGetTypeID(number) != CFNumberGetTypeID()) return false;
    CFNumberGetValue(static_cast<CFNumberRef>(number), kCFNumberIntType, &value);
    return true;
}

// A nested dictionary; NULL when absent or not a dictionary.
CFDictionaryRef readDictionary(CFDictionaryRef dictionary, CFStringRef key) {
    CFTypeRef value = lookUp(dictionary, key);
    if (!value || CFGetTypeID(value) != CFDictionaryGetTypeID()) return nullptr;
    return static_cast<CFDictionaryRef>(value);
}

// The track height as the integer the clamp uses, saturated so that no float
// (huge, negative or NaN) makes the conversion undefined.
int64_t trackHeightAsInteger(Float32 height) {
    if (std::isnan(height)) return 0;
    if (height >= static_cast<Float32>(std::numeric_limits<int32_t>::max())) return std::numeric_limits<int32_t>::max();
    if (height <= static_cast<Float32>(std::numeric_limits<int32_t>::min())) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(height);
}

}  // namespace

extern "C" {

OSStatus SVTextFormatDescriptionGetDisplayFlags(SVTextFormatDescriptionRef desc,
                                                SVTextDisplayFlags *displayFlagsOut) noexcept {
    OSStatus status = 0;
    if (!passesTextGate(desc, __func__, status)) return status;
    int flags = 0;
    if (!readInt(desc->extensions, kSVTextFormatDescriptionExtension_DisplayFlags, flags))
        return kSVFormatDescriptionError_ValueNotAvailable;
    if (displayFlagsOut) *displayFlagsOut = static_cast<SVTextDisplayFlags>(flags);
    return 0;
}

OSStatus SVTextFormatDescriptionGetJustification(SVTextFormatDescriptionRef desc,
                                                 SVTextJustificationValue *horizontalJustificationOut,
                                                 SVTextJustificationValue *verticalJustificationOut) noexcept {
    OSStatus status = 0;
    if (!passesTextGate(desc, __func__, status)) return status;
    int horizontal = 0, vertical = 0;
    if (!readInt(desc->extensions, kSVTextFormatDescriptionExtension_HorizontalJustification, horizontal))
        return kSVFormatDescriptionError_ValueNotAvailable;
    if (horizontalJustificationOut) *horizontalJustificationOut = static_cast<SVTextJustificationValue>(horizontal);
    if (!readInt(desc->extensions, kSVTextFormatDescriptionExtension_VerticalJustification, vertical))
        return kSVFormatDescriptionError_ValueNotAvailable;
    if (verticalJustificationOut) *verticalJustificationOut = static_cast<SVTextJustificationValue>(vertical);
    return 0;
}

OSStatus SVTextFormatDescriptionGetDefaultTextBox(SVTextFormatDescriptionRef desc, Boolean originIsAtTopLeft,
                                                  Float32 heightOfTextTrack, SVTextRect *defaultTextBoxOut) noexcept {
    OSStatus status = 0;
    if (!passesTextGate(desc, __func__, status)) return status;
    CFDictionaryRef box = readDictionary(desc->extensions, kSVTextFormatDescriptionExtension_DefaultTextBox);
    int top = 0, left = 0, bottom = 0, right = 0;
    if (!box || !readInt(box, kSVTextFormatDescriptionRect_Top, top) ||
        !readInt(box, kSVTextFormatDescriptionRect_Left, left) ||
        !readInt(box, kSVTextFormatDescriptionRect_Bottom, bottom) ||
        !readInt(box, kSVTextFormatDescriptionRect_Right, right))
        return kSVFormatDescriptionError_ValueNotAvailable;
    // 64-bit differences: edges far apart cannot overflow.
    const int64_t width = int64_t{right} - left;
    int64_t height;
    if (originIsAtTopLeft) {
        height = int64_t{bottom} - top;
    } else {
        // Only a box measured from the bottom is clipped to the track.
        height = int64_t{top} - bottom;
        const int64_t trackHeight = trackHeightAsInteger(heightOfTextTrack);
        if (height > trackHeight) height = trackHeight;
    }
    if (defaultTextBoxOut) {
        // The origin is (0, 0), not the box's top and left: callers place
        // the box themselves.
        defaultTextBoxOut->origin.x = 0;
        defaultTextBoxOut->origin.y = 0;
        defaultTextBoxOut->size.width = static_cast<Float32>(width);
        defaultTextBoxOut->size.height = static_cast<Float32>(height);
    }
    return 0;
}

OSStatus SVTextFormatDescriptionGetDefaultStyle(SVTextFormatDescriptionRef desc, uint16_t *localFontIDOut,
                                                Boolean *boldOut, Boolean *italicOut, Boolean *underlineOut,
                                                Float32 *fontSizeOut, Float32 colorComponentsOut[4]) noexcept {
    OSStatus status = 0;
    if (!passesTextGate(desc, __func__, status)) return status;
    CFDictionaryRef style = readDictionary(desc->extensions, kSVTextFormatDescriptionExtension_DefaultStyle);
    if (!style) return kSVFormatDescriptionError_ValueNotAvailable;

    if (localFontIDOut) {
        CFTypeRef font = lookUp(style, kSVTextFormatDescriptionStyle_Font);
        if (!font || CFGetTypeID(font) != CFNumberGetTypeID()) return kSVFormatDescriptionError_ValueNotAvailable;
        int16_t fontID = 0;
        CFNumberGetValue(static_cast<CFNumberRef>(font), kCFNumberSInt16Type, &fontID);
        *localFontIDOut = static_cast<uint16_t>(fontID);
    }
    if (fontSizeOut) {
        int fontSize = 0;
        if (!readInt(style, kSVTextFormatDescriptionStyle_FontSize, fontSize))
            return kSVFormatDescriptionError_ValueNotAvailable;
        *fontSizeOut = static_cast<Float32>(fontSize);
    }
    if (colorComponentsOut) {
        if (CFTypeRef color = lookUp(style, kSVTextFormatDescriptionStyle_ForegroundColor)) {
            if (CFGetTypeID(color) != CFDictionaryGetTypeID()) return kSVFormatDescriptionError_ValueNotAvailable;
            auto colorDictionary = static_cast<CFDictionaryRef>(color);
            const CFStringRef keys[4] = {kSVTextFormatDescriptionColor_Red, kSVTextFormatDescriptionColor_Green,
                                         kSVTextFormatDescriptionColor_Blue, kSVTextFormatDescriptionColor_Alpha};
            int components[4] = {};
            for (int i = 0; i < 4; ++i)
                if (!readInt(colorDictionary, keys[i], components[i]))
                    return kSVFormatDescriptionError_ValueNotAvailable;
            // Unscaled: 0 to 255 stays 0 to 255.
            for (int i = 0; i < 4; ++i) colorComponentsOut[i] = static_cast<Float32>(components[i]);
        }
    }
    if (boldOut) *boldOut = false;
    if (italicOut) *italicOut = false;
    if (underlineOut) *underlineOut = false;
    SV_LOG_HERE(4, "SVTextFormatDescriptionGetDefaultStyle bold/italic/underline values currently hardcoded to false");
    return 0;
}

OSStatus SVTextFormatDescriptionGetFontName(SVTextFormatDescriptionRef desc, uint16_t localFontID,
                                            CFStringRef *fontNameOut) noexcept {
    OSStatus status = 0;
    if (!passesTextGate(desc, __func__, status)) return status;
    if (!fontNameOut) return kSVFormatDescriptionError_InvalidParameter;
    CFDictionaryRef fontTable = readDictionary(desc->extensions, kSVTextFormatDescriptionExtension_FontTable);
    if (!fontTable) return kSVFormatDescriptionError_ValueNotAvailable;
    sorvel::SVRetained<CFStringRef> key(
        CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%d"), static_cast<int>(localFontID)));
    if (!key) return kSVFormatDescriptionError_AllocationFailed;
    CFTypeRef name = CFDictionaryGetValue(fontTable, key.get());
    *fontNameOut = name && CFGetTypeID(name) == CFStringGetTypeID() ? static_cast<CFStringRef>(name) : nullptr;
    return 0;
}

}  // extern "C"
