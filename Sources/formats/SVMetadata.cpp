// SPDX-License-Identifier: Apache-2.0
// Metadata identifiers (key space "/" key), the process-wide data type
// registry, and the tables between base data types and the well-known type
// identifiers of QuickTime metadata.
//
// The registry is made once, on first use, and never torn down.  Its mutex
// guards each dictionary access on its own, not whole operations, so two
// threads registering one type at the same moment may both pass the
// already-registered test; the last one stores its registration.  A
// registration that is replaced is kept alive (in a list of retired entries)
// so that descriptions and lists handed out earlier as borrowed references
// stay valid for the life of the process.

#include <Sorvel/SVMetadata.h>
#include <dispatch/dispatch.h>

#include <cstdlib>

#include "core/SVLog.h"
#include "core/SVMutex.h"
#include "core/SVObject.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/SVMetadata");

// The names and source lines that the module's stops and notices report
// (see core/SVLog.h); the registry's stop runs inside a block, so its name
// is written here too.
constexpr struct {
    sorvel::SVLogSite numberKey{"SVMetadataCreateIdentifierForKeyAndKeySpace", 177};
    sorvel::SVLogSite noConformingBaseType{"SVMetadataDataTypeRegistryGetBaseDataTypeForConformingDataType", 220};
    sorvel::SVLogSite conformsTo{"SVMetadataDataTypeRegistryDataTypeConformsToDataType", 295};
    sorvel::SVLogSite unknownDataType{"_SVMetadataGetMOVTypeIDFromDataType", 346};
    sorvel::SVLogSite unknownMOVTypeID{"_SVMetadataGetDataTypeFromMOVTypeID", 400};
    sorvel::SVLogSite registryIncomplete{"SVMetadataDataTypeRegistry", 0};
} kLogSites;

using sorvel::SVRetained;

}  // namespace

extern "C" {

#define SV_CONSTANT_KEY(name) const CFStringRef name = CFSTR(#name)

const CFStringRef kSVMetadataKeySpace_QuickTimeUserData = CFSTR("udta");
const CFStringRef kSVMetadataKeySpace_QuickTimeMetadata = CFSTR("mdta");
SV_CONSTANT_KEY(kSVMetadataKeySpace_ISOUserData);
SV_CONSTANT_KEY(kSVMetadataKeySpace_iTunes);
SV_CONSTANT_KEY(kSVMetadataKeySpace_ID3);
SV_CONSTANT_KEY(kSVMetadataKeySpace_Icy);
SV_CONSTANT_KEY(kSVMetadataKeySpace_HLSDateRange);

// The reverse-DNS keys that QuickTime movie files carry for these items.
const CFStringRef kSVMetadataIdentifier_QuickTimeMetadataLocation_ISO6709 =
    CFSTR("mdta/com.apple.quicktime.location.ISO6709");
const CFStringRef kSVMetadataIdentifier_QuickTimeMetadataDirection_Facing =
    CFSTR("mdta/com.apple.quicktime.direction.facing");
SV_CONSTANT_KEY(kSVMetadataIdentifier_QuickTimeMetadataPreferredAffineTransform);
SV_CONSTANT_KEY(kSVMetadataIdentifier_QuickTimeMetadataVideoOrientation);

SV_CONSTANT_KEY(kSVMetadataDataType_QuickTimeMetadataLocation_ISO6709);
SV_CONSTANT_KEY(kSVMetadataDataType_QuickTimeMetadataDirection);

SV_CONSTANT_KEY(kSVMetadataBaseDataType_RawData);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_UTF8);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_UTF16);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_GIF);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_JPEG);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_PNG);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_BMP);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_Float32);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_Float64);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_SInt8);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_SInt16);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_SInt32);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_SInt64);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_UInt8);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_UInt16);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_UInt32);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_UInt64);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_PointF32);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_DimensionsF32);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_RectF32);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_AffineTransformF64);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_JSON);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_PolygonF32);
SV_CONSTANT_KEY(kSVMetadataBaseDataType_PolylineF32);

#undef SV_CONSTANT_KEY

}  // extern "C"

namespace {

// ---- Identifiers ------------------------------------------------------------------------

enum class Part { KeySpace, Key };

// The key space or key of an identifier, split at its first "/".
OSStatus copyIdentifierPart(CFAllocatorRef allocator, CFStringRef identifier, Part part, CFStringRef &out) {
    if (!identifier) return kSVMetadataIdentifierError_RequiredParameterMissing;
    if (CFGetTypeID(identifier) != CFStringGetTypeID()) return kSVMetadataIdentifierError_BadIdentifier;
    const CFIndex length = CFStringGetLength(identifier);
    const CFRange separator = CFStringFind(identifier, CFSTR("/"), 0);
    if (separator.location == kCFNotFound || separator.location == 0 || separator.location == length - 1)
        return kSVMetadataIdentifierError_BadIdentifier;
    const CFRange range = part == Part::KeySpace ? CFRangeMake(0, separator.location)
                                                 : CFRangeMake(separator.location + 1, length - separator.location - 1);
    out = CFStringCreateWithSubstring(allocator, identifier, range);
    return out ? 0 : kSVMetadataIdentifierError_AllocationFailed;
}

template <typename Ref>
bool clearOutput(Ref *out) {
    if (!out) return false;
    *out = nullptr;
    return true;
}

// ---- Registry ----------------------------------------------------------------------

struct Registry {
    CFArrayRef baseDataTypes;
    CFMutableDictionaryRef registrations;  // data type -> [description, conforming data types]
    CFMutableArrayRef retired;             // replaced registrations, kept alive
    XPMutexRef mutex;
};

Registry gRegistry;
dispatch_once_t gRegistryOnce;

Registry &registry() {
    if (__builtin_expect(__atomic_load_n(&gRegistryOnce, __ATOMIC_ACQUIRE) != sorvel::kSVOncePredicateDone, 0)) {
        dispatch_once(&gRegistryOnce, ^{
          const void *baseTypes[] = {
              kSVMetadataBaseDataType_RawData,
              kSVMetadataBaseDataType_UTF8,
              kSVMetadataBaseDataType_UTF16,
              kSVMetadataBaseDataType_GIF,
              kSVMetadataBaseDataType_JPEG,
              kSVMetadataBaseDataType_PNG,
              kSVMetadataBaseDataType_BMP,
              kSVMetadataBaseDataType_Float32,
              kSVMetadataBaseDataType_Float64,
              kSVMetadataBaseDataType_SInt8,
              kSVMetadataBaseDataType_SInt16,
              kSVMetadataBaseDataType_SInt32,
              kSVMetadataBaseDataType_SInt64,
              kSVMetadataBaseDataType_UInt8,
              kSVMetadataBaseDataType_UInt16,
              kSVMetadataBaseDataType_UInt32,
              kSVMetadataBaseDataType_UInt64,
              kSVMetadataBaseDataType_PointF32,
              kSVMetadataBaseDataType_DimensionsF32,
              kSVMetadataBaseDataType_RectF32,
              kSVMetadataBaseDataType_AffineTransformF64,
              kSVMetadataBaseDataType_JSON,
              kSVMetadataBaseDataType_PolygonF32,
              kSVMetadataBaseDataType_PolylineF32,
          };
          static_assert(sizeof baseTypes / sizeof baseTypes[0] == 24);
          gRegistry.baseDataTypes = CFArrayCreate(nullptr, baseTypes, 24, &kCFTypeArrayCallBacks);
          gRegistry.registrations =
              CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
          gRegistry.retired = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
          gRegistry.mutex = XPMutexCreateNR();
          // Nothing can be registered without these; running on without them
          // would only fail later and less clearly.
          if (!gRegistry.baseDataTypes || !gRegistry.registrations || !gRegistry.retired)
              SV_BUG_SITE(kLogSites.registryIncomplete);
        });
    }
    return gRegistry;
}

bool isBaseDataType(Registry &r, CFTypeRef dataType) {
    return dataType &&
           CFArrayContainsValue(r.baseDataTypes, CFRangeMake(0, CFArrayGetCount(r.baseDataTypes)), dataType);
}

// The stored [description, conforming list] pair, or NULL.  The pair itself
// is never freed (see the retired list), so it may be used after unlocking.
CFArrayRef registration(Registry &r, CFStringRef dataType) {
    if (!dataType) return nullptr;
    sorvel::SVMutexGuard guard(r.mutex);
    return static_cast<CFArrayRef>(CFDictionaryGetValue(r.registrations, dataType));
}

// The MOV table's data types by well-known identifier, in one list for both
// directions.  Order matters from data type to identifier: the first match
// wins, so the later UTF-8 and UTF-16 entries (4 and 5) are reached only
// from identifier to data type.
struct MOVType {
    uint32_t id;
    const CFStringRef *dataType;
};
const MOVType kMOVTypes[] = {
    {0, &kSVMetadataBaseDataType_RawData},        {1, &kSVMetadataBaseDataType_UTF8},
    {2, &kSVMetadataBaseDataType_UTF16},          {4, &kSVMetadataBaseDataType_UTF8},
    {5, &kSVMetadataBaseDataType_UTF16},          {13, &kSVMetadataBaseDataType_JPEG},
    {14, &kSVMetadataBaseDataType_PNG},           {23, &kSVMetadataBaseDataType_Float32},
    {24, &kSVMetadataBaseDataType_Float64},       {27, &kSVMetadataBaseDataType_BMP},
    {65, &kSVMetadataBaseDataType_SInt8},         {66, &kSVMetadataBaseDataType_SInt16},
    {67, &kSVMetadataBaseDataType_SInt32},        {70, &kSVMetadataBaseDataType_PointF32},
    {71, &kSVMetadataBaseDataType_DimensionsF32}, {72, &kSVMetadataBaseDataType_RectF32},
    {74, &kSVMetadataBaseDataType_SInt64},        {75, &kSVMetadataBaseDataType_UInt8},
    {76, &kSVMetadataBaseDataType_UInt16},        {77, &kSVMetadataBaseDataType_UInt32},
    {78, &kSVMetadataBaseDataType_UInt64},        {79, &kSVMetadataBaseDataType_AffineTransformF64},
};

}  // namespace

extern "C" {

OSStatus SVMetadataCreateKeyFromIdentifier(CFAllocatorRef allocator, CFStringRef identifier,
                                           CFStringRef *keyOut) noexcept {
    if (!clearOutput(keyOut)) return kSVMetadataIdentifierError_RequiredParameterMissing;
    return copyIdentifierPart(allocator, identifier, Part::Key, *keyOut);
}

OSStatus SVMetadataCreateKeySpaceFromIdentifier(CFAllocatorRef allocator, CFStringRef identifier,
                                                CFStringRef *keySpaceOut) noexcept {
    if (!clearOutput(keySpaceOut)) return kSVMetadataIdentifierError_RequiredParameterMissing;
    return copyIdentifierPart(allocator, identifier, Part::KeySpace, *keySpaceOut);
}

OSStatus SVMetadataCreateKeyFromIdentifierAsCFData(CFAllocatorRef allocator, CFStringRef identifier,
                                                   CFDataRef *keyOut) noexcept {
    if (!clearOutput(keyOut)) return kSVMetadataIdentifierError_RequiredParameterMissing;
    CFStringRef keyText = nullptr;
    if (OSStatus status = copyIdentifierPart(allocator, identifier, Part::Key, keyText)) return status;
    SVRetained<CFStringRef> key(keyText);
    // No loss byte: a key outside ASCII has no byte form and fails.
    *keyOut = CFStringCreateExternalRepresentation(allocator, key.get(), kCFStringEncodingASCII, 0);
    return *keyOut ? 0 : kSVMetadataIdentifierError_AllocationFailed;
}

OSStatus SVMetadataCreateIdentifierForKeyAndKeySpace(CFAllocatorRef allocator, CFTypeRef key, CFStringRef keySpace,
                                                     CFStringRef *identifierOut) noexcept {
    if (!clearOutput(identifierOut)) return kSVMetadataIdentifierError_RequiredParameterMissing;
    if (!key || !keySpace) return kSVMetadataIdentifierError_RequiredParameterMissing;
    SVRetained<CFStringRef> keyText;
    const CFTypeID type = CFGetTypeID(key);
    if (type == CFStringGetTypeID()) {
        keyText.reset(static_cast<CFStringRef>(CFRetain(key)));
    } else if (type == CFDataGetTypeID()) {
        keyText.reset(
            CFStringCreateFromExternalRepresentation(allocator, static_cast<CFDataRef>(key), kCFStringEncodingASCII));
        if (!keyText) return kSVMetadataIdentifierError_AllocationFailed;
    } else if (type == CFNumberGetTypeID()) {
        // What a numeric key would mean in an identifier is not defined.
        SV_NOT_YET_IMPLEMENTED_SITE(kLogSites.numberKey);
    } else {
        return kSVMetadataIdentifierError_BadKeyType;
    }
    *identifierOut = CFStringCreateWithFormat(allocator, nullptr, CFSTR("%@/%@"), keySpace, keyText.get());
    return *identifierOut ? 0 : kSVMetadataIdentifierError_AllocationFailed;
}

OSStatus SVMetadataDataTypeRegistryRegisterDataType(CFStringRef dataType, CFStringRef description,
                                                    CFArrayRef conformingDataTypes) noexcept {
    if (!dataType || !description || !conformingDataTypes || CFGetTypeID(dataType) != CFStringGetTypeID() ||
        CFGetTypeID(description) != CFStringGetTypeID() || CFGetTypeID(conformingDataTypes) != CFArrayGetTypeID())
        return kSVMetadataDataTypeRegistryError_RequiredParameterMissing;
    Registry &r = registry();
    bool admitted = false;
    const CFIndex count = CFArrayGetCount(conformingDataTypes);
    for (CFIndex i = 0; i < count && !admitted; ++i)
        admitted = isBaseDataType(r, CFArrayGetValueAtIndex(conformingDataTypes, i));
    if (!admitted) return kSVMetadataDataTypeRegistryError_RequiresConformingBaseType;

    if (CFArrayRef existing = registration(r, dataType)) {
        if (!CFEqual(CFArrayGetValueAtIndex(existing, 1), conformingDataTypes))
            return kSVMetadataDataTypeRegistryError_DataTypeAlreadyRegistered;
    }
    // Copies, so that a caller's mutable string or array cannot change a
    // registration behind the registry's back.
    SVRetained<CFStringRef> key(CFStringCreateCopy(nullptr, dataType));
    SVRetained<CFStringRef> descriptionCopy(CFStringCreateCopy(nullptr, description));
    SVRetained<CFArrayRef> conformingCopy(CFArrayCreateCopy(nullptr, conformingDataTypes));
    if (!key || !descriptionCopy || !conformingCopy) return kSVMetadataDataTypeRegistryError_AllocationFailed;
    const void *values[2] = {descriptionCopy.get(), conformingCopy.get()};
    SVRetained<CFArrayRef> pair(CFArrayCreate(nullptr, values, 2, &kCFTypeArrayCallBacks));
    if (!pair) return kSVMetadataDataTypeRegistryError_AllocationFailed;

    sorvel::SVMutexGuard guard(r.mutex);
    if (const void *previous = CFDictionaryGetValue(r.registrations, key.get()))
        CFArrayAppendValue(r.retired, previous);
    CFDictionarySetValue(r.registrations, key.get(), pair.get());
    return 0;
}

Boolean SVMetadataDataTypeRegistryDataTypeIsRegistered(CFStringRef dataType) noexcept {
    return registration(registry(), dataType) != nullptr;
}

CFStringRef SVMetadataDataTypeRegistryGetDataTypeDescription(CFStringRef dataType) noexcept {
    CFArrayRef pair = registration(registry(), dataType);
    return pair ? static_cast<CFStringRef>(CFArrayGetValueAtIndex(pair, 0)) : nullptr;
}

CFArrayRef SVMetadataDataTypeRegistryGetConformingDataTypes(CFStringRef dataType) noexcept {
    CFArrayRef pair = registration(registry(), dataType);
    return pair ? static_cast<CFArrayRef>(CFArrayGetValueAtIndex(pair, 1)) : nullptr;
}

CFArrayRef SVMetadataDataTypeRegistryGetBaseDataTypes(void) noexcept {
    return registry().baseDataTypes;
}

Boolean SVMetadataDataTypeRegistryDataTypeIsBaseDataType(CFStringRef dataType) noexcept {
    return isBaseDataType(registry(), dataType);
}

CFStringRef SVMetadataDataTypeRegistryGetBaseDataTypeForConformingDataType(CFStringRef dataType) noexcept {
    Registry &r = registry();
    if (CFArrayRef pair = registration(r, dataType)) {
        auto conforming = static_cast<CFArrayRef>(CFArrayGetValueAtIndex(pair, 1));
        const CFIndex count = CFArrayGetCount(conforming);
        for (CFIndex i = 0; i < count; ++i) {
            CFTypeRef candidate = CFArrayGetValueAtIndex(conforming, i);
            if (isBaseDataType(r, candidate)) return static_cast<CFStringRef>(candidate);
        }
    }
    SV_FATAL_SITE(kLogSites.noConformingBaseType, "Data type in registry without a conforming base type");
}

Boolean SVMetadataDataTypeRegistryDataTypeConformsToDataType(CFStringRef, CFStringRef) noexcept {
    SV_NOT_YET_IMPLEMENTED_SITE(kLogSites.conformsTo);
}

uint32_t _SVMetadataGetMOVTypeIDFromDataType(CFStringRef dataType) noexcept {
    if (dataType) {
        for (const MOVType &entry : kMOVTypes)
            if (CFEqual(dataType, *entry.dataType)) return entry.id;
    }
    if (sorvel::SVLogEnabled(gSVLogModule, gSVLogModule.sourcePath, 4, kLogSites.unknownDataType.function,
                             kLogSites.unknownDataType.line)) {
        // The message names the data type as "%@" does, so it is made as a
        // CFString first.
        SVRetained<CFStringRef> text(
            CFStringCreateWithFormat(nullptr, nullptr, CFSTR("Unknown MOV metadata data type %@"), dataType));
        const CFIndex capacity =
            text ? CFStringGetMaximumSizeForEncoding(CFStringGetLength(text.get()), kCFStringEncodingUTF8) + 1 : 0;
        char *buffer = capacity > 0 ? static_cast<char *>(std::malloc(static_cast<size_t>(capacity))) : nullptr;
        if (buffer && CFStringGetCString(text.get(), buffer, capacity, kCFStringEncodingUTF8))
            SV_LOG_SITE(kLogSites.unknownDataType, 4, "%s", buffer);
        std::free(buffer);
    }
    return 0;
}

CFStringRef _SVMetadataGetDataTypeFromMOVTypeID(uint32_t movTypeID) noexcept {
    for (const MOVType &entry : kMOVTypes)
        if (entry.id == movTypeID) return *entry.dataType;
    SV_LOG_SITE(kLogSites.unknownMOVTypeID, 4, "Unknown MOV metadata type ID: %u", movTypeID);
    return kSVMetadataBaseDataType_RawData;
}

}  // extern "C"
