// SPDX-License-Identifier: Apache-2.0
// Metadata identifiers and the data type registry: splitting at the first
// separator and its statuses, byte keys and non-ASCII text, building
// identifiers from every key type, registration rules, the MOV type tables
// with their log lines, concurrent registration, and the stops.
#include <Sorvel/SVMetadata.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"

namespace {

using sorvel_test::LogCapture;

std::string text(CFStringRef string) {
    if (!string) return "(null)";
    char buffer[256];
    return CFStringGetCString(string, buffer, sizeof buffer, kCFStringEncodingUTF8) ? buffer : "(not UTF-8)";
}

CFStringRef string(const char *utf8) {
    return CFStringCreateWithCString(nullptr, utf8, kCFStringEncodingUTF8);
}

CFArrayRef array(std::initializer_list<CFStringRef> values) {
    std::vector<const void *> items(values.begin(), values.end());
    return CFArrayCreate(nullptr, items.data(), static_cast<CFIndex>(items.size()), &kCFTypeArrayCallBacks);
}

TEST(SVMetadataIdentifierTest, SplitsAtTheFirstSeparator) {
    const struct {
        const char *identifier;
        OSStatus status;
        const char *keySpace, *key;
    } cases[] = {
        {"mdta/com.example.title", 0, "mdta", "com.example.title"},
        {"udta/a/b", 0, "udta", "a/b"},
        {"k/v", 0, "k", "v"},
        {"/key", kSVMetadataIdentifierError_BadIdentifier, nullptr, nullptr},
        {"mdta/", kSVMetadataIdentifierError_BadIdentifier, nullptr, nullptr},
        {"mdta", kSVMetadataIdentifierError_BadIdentifier, nullptr, nullptr},
        {"/", kSVMetadataIdentifierError_BadIdentifier, nullptr, nullptr},
        {"", kSVMetadataIdentifierError_BadIdentifier, nullptr, nullptr},
        {"mdta/\xC3\xA9t\xC3\xA9", 0, "mdta", "\xC3\xA9t\xC3\xA9"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.identifier);
        CFStringRef identifier = string(c.identifier);
        CFStringRef key = CFSTR("stale"), keySpace = CFSTR("stale");
        EXPECT_EQ(SVMetadataCreateKeyFromIdentifier(nullptr, identifier, &key), c.status);
        EXPECT_EQ(SVMetadataCreateKeySpaceFromIdentifier(nullptr, identifier, &keySpace), c.status);
        if (c.status == 0) {
            EXPECT_EQ(text(key), c.key);
            EXPECT_EQ(text(keySpace), c.keySpace);
            CFRelease(key);
            CFRelease(keySpace);
        } else {
            EXPECT_EQ(key, nullptr);
            EXPECT_EQ(keySpace, nullptr);
        }
        CFRelease(identifier);
    }
    CFStringRef out = CFSTR("stale");
    EXPECT_EQ(SVMetadataCreateKeyFromIdentifier(nullptr, nullptr, &out),
              kSVMetadataIdentifierError_RequiredParameterMissing);
    EXPECT_EQ(out, nullptr) << "cleared before the identifier is checked";
    EXPECT_EQ(SVMetadataCreateKeySpaceFromIdentifier(nullptr, CFSTR("a/b"), nullptr),
              kSVMetadataIdentifierError_RequiredParameterMissing);
    EXPECT_EQ(SVMetadataCreateKeyFromIdentifier(nullptr, reinterpret_cast<CFStringRef>(kCFBooleanTrue), &out),
              kSVMetadataIdentifierError_BadIdentifier);
}

TEST(SVMetadataIdentifierTest, KeyBytesAreASCIIOnly) {
    CFDataRef data = nullptr;
    ASSERT_EQ(SVMetadataCreateKeyFromIdentifierAsCFData(nullptr, CFSTR("udta/\xC2\xA9nam"), &data),
              kSVMetadataIdentifierError_AllocationFailed)
        << "a key outside ASCII has no byte form";
    EXPECT_EQ(data, nullptr);
    ASSERT_EQ(SVMetadataCreateKeyFromIdentifierAsCFData(nullptr, CFSTR("mdta/com.x/y"), &data), 0);
    ASSERT_EQ(CFDataGetLength(data), 7) << "no terminator";
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(CFDataGetBytePtr(data)), 7), "com.x/y");
    CFRelease(data);
    EXPECT_EQ(SVMetadataCreateKeyFromIdentifierAsCFData(nullptr, CFSTR("nokey/"), &data),
              kSVMetadataIdentifierError_BadIdentifier);
    EXPECT_EQ(SVMetadataCreateKeyFromIdentifierAsCFData(nullptr, CFSTR("a/b"), nullptr),
              kSVMetadataIdentifierError_RequiredParameterMissing);
}

TEST(SVMetadataIdentifierTest, BuildsFromStringAndDataKeys) {
    const UInt8 letter = 'k', high[2] = {'k', 0xE9};
    CFDataRef dataKey = CFDataCreate(nullptr, &letter, 1), nonASCII = CFDataCreate(nullptr, high, 2);
    CFArrayRef notAKey = array({});
    CFStringRef identifier = nullptr;
    ASSERT_EQ(SVMetadataCreateIdentifierForKeyAndKeySpace(nullptr, dataKey, kSVMetadataKeySpace_QuickTimeUserData,
                                                          &identifier),
              0);
    EXPECT_EQ(text(identifier), "udta/k");
    CFRelease(identifier);
    ASSERT_EQ(SVMetadataCreateIdentifierForKeyAndKeySpace(nullptr, CFSTR("a/b"), CFSTR("mdta"), &identifier), 0);
    EXPECT_EQ(text(identifier), "mdta/a/b");
    CFRelease(identifier);
    // The key space is not checked, so this one does not split back.
    ASSERT_EQ(SVMetadataCreateIdentifierForKeyAndKeySpace(nullptr, CFSTR("k"), CFSTR("x/y"), &identifier), 0);
    CFStringRef keySpace = nullptr;
    ASSERT_EQ(SVMetadataCreateKeySpaceFromIdentifier(nullptr, identifier, &keySpace), 0);
    EXPECT_EQ(text(keySpace), "x");
    CFRelease(keySpace);
    CFRelease(identifier);

    const struct {
        const char *what;
        CFTypeRef key;
        CFStringRef keySpace;
        OSStatus status;
    } failures[] = {
        {"data outside ASCII", nonASCII, CFSTR("udta"), kSVMetadataIdentifierError_AllocationFailed},
        {"an array key", notAKey, CFSTR("udta"), kSVMetadataIdentifierError_BadKeyType},
        {"no key", nullptr, CFSTR("udta"), kSVMetadataIdentifierError_RequiredParameterMissing},
        {"no key space", CFSTR("k"), nullptr, kSVMetadataIdentifierError_RequiredParameterMissing},
    };
    for (const auto &f : failures) {
        identifier = CFSTR("stale");
        EXPECT_EQ(SVMetadataCreateIdentifierForKeyAndKeySpace(nullptr, f.key, f.keySpace, &identifier), f.status)
            << f.what;
        EXPECT_EQ(identifier, nullptr) << f.what;
    }
    EXPECT_EQ(SVMetadataCreateIdentifierForKeyAndKeySpace(nullptr, CFSTR("k"), CFSTR("udta"), nullptr),
              kSVMetadataIdentifierError_RequiredParameterMissing);
    CFRelease(dataKey);
    CFRelease(nonASCII);
    CFRelease(notAKey);
}

TEST(SVMetadataConstantsTest, KeySpacesIdentifiersAndBaseTypes) {
    EXPECT_EQ(text(kSVMetadataKeySpace_QuickTimeUserData), "udta");
    EXPECT_EQ(text(kSVMetadataKeySpace_QuickTimeMetadata), "mdta");
#define OWN(name) EXPECT_EQ(text(name), #name)
    OWN(kSVMetadataKeySpace_ISOUserData);
    OWN(kSVMetadataKeySpace_iTunes);
    OWN(kSVMetadataKeySpace_ID3);
    OWN(kSVMetadataKeySpace_Icy);
    OWN(kSVMetadataKeySpace_HLSDateRange);
    OWN(kSVMetadataIdentifier_QuickTimeMetadataPreferredAffineTransform);
    OWN(kSVMetadataIdentifier_QuickTimeMetadataVideoOrientation);
    OWN(kSVMetadataDataType_QuickTimeMetadataLocation_ISO6709);
    OWN(kSVMetadataDataType_QuickTimeMetadataDirection);
#undef OWN
    for (CFStringRef identifier : {kSVMetadataIdentifier_QuickTimeMetadataLocation_ISO6709,
                                   kSVMetadataIdentifier_QuickTimeMetadataDirection_Facing}) {
        CFStringRef keySpace = nullptr;
        ASSERT_EQ(SVMetadataCreateKeySpaceFromIdentifier(nullptr, identifier, &keySpace), 0);
        EXPECT_TRUE(CFEqual(keySpace, kSVMetadataKeySpace_QuickTimeMetadata)) << text(identifier);
        CFRelease(keySpace);
    }

    const char *names[] = {
        "RawData", "UTF8",       "UTF16",      "GIF",      "JPEG",          "PNG",     "BMP",
        "Float32", "Float64",    "SInt8",      "SInt16",   "SInt32",        "SInt64",  "UInt8",
        "UInt16",  "UInt32",     "UInt64",     "PointF32", "DimensionsF32", "RectF32", "AffineTransformF64",
        "JSON",    "PolygonF32", "PolylineF32"};
    CFArrayRef base = SVMetadataDataTypeRegistryGetBaseDataTypes();
    ASSERT_EQ(CFArrayGetCount(base), 24);
    EXPECT_EQ(CFArrayGetValueAtIndex(base, 0), kSVMetadataBaseDataType_RawData);
    EXPECT_EQ(CFArrayGetValueAtIndex(base, 23), kSVMetadataBaseDataType_PolylineF32);
    for (CFIndex i = 0; i < 24; ++i) {
        auto type = static_cast<CFStringRef>(CFArrayGetValueAtIndex(base, i));
        EXPECT_EQ(text(type), std::string("kSVMetadataBaseDataType_") + names[i]);
        EXPECT_TRUE(SVMetadataDataTypeRegistryDataTypeIsBaseDataType(type));
        EXPECT_FALSE(SVMetadataDataTypeRegistryDataTypeIsRegistered(type)) << "known only through the array";
        EXPECT_EQ(SVMetadataDataTypeRegistryGetDataTypeDescription(type), nullptr);
    }
    EXPECT_FALSE(SVMetadataDataTypeRegistryDataTypeIsBaseDataType(nullptr));
    EXPECT_FALSE(SVMetadataDataTypeRegistryDataTypeIsBaseDataType(CFSTR("kSVMetadataBaseDataType_Float16")));
}

TEST(SVMetadataRegistryTest, RegistrationRules) {
    CFStringRef type = CFSTR("com.example.title");
    CFArrayRef utf8 = array({CFSTR("com.example.other"), kSVMetadataBaseDataType_UTF8});
    CFArrayRef utf8Again = array({CFSTR("com.example.other"), kSVMetadataBaseDataType_UTF8});
    CFArrayRef utf16 = array({kSVMetadataBaseDataType_UTF16});
    CFArrayRef none = array({}), notBase = array({CFSTR("com.example.other")});

    const struct {
        const char *what;
        OSStatus status;
        OSStatus expected;
    } steps[] = {
        {"missing type", SVMetadataDataTypeRegistryRegisterDataType(nullptr, CFSTR("d"), utf8),
         kSVMetadataDataTypeRegistryError_RequiredParameterMissing},
        {"missing description", SVMetadataDataTypeRegistryRegisterDataType(type, nullptr, utf8),
         kSVMetadataDataTypeRegistryError_RequiredParameterMissing},
        {"missing list", SVMetadataDataTypeRegistryRegisterDataType(type, CFSTR("d"), nullptr),
         kSVMetadataDataTypeRegistryError_RequiredParameterMissing},
        {"list of the wrong type",
         SVMetadataDataTypeRegistryRegisterDataType(type, CFSTR("d"), reinterpret_cast<CFArrayRef>(type)),
         kSVMetadataDataTypeRegistryError_RequiredParameterMissing},
        {"empty list", SVMetadataDataTypeRegistryRegisterDataType(type, CFSTR("d"), none),
         kSVMetadataDataTypeRegistryError_RequiresConformingBaseType},
        {"no base type", SVMetadataDataTypeRegistryRegisterDataType(type, CFSTR("d"), notBase),
         kSVMetadataDataTypeRegistryError_RequiresConformingBaseType},
        {"first registration", SVMetadataDataTypeRegistryRegisterDataType(type, CFSTR("A title"), utf8), 0},
        {"again, equal list", SVMetadataDataTypeRegistryRegisterDataType(type, CFSTR("The title"), utf8Again), 0},
        {"again, other list", SVMetadataDataTypeRegistryRegisterDataType(type, CFSTR("Other"), utf16),
         kSVMetadataDataTypeRegistryError_DataTypeAlreadyRegistered},
        {"again, empty list", SVMetadataDataTypeRegistryRegisterDataType(type, CFSTR("Other"), none),
         kSVMetadataDataTypeRegistryError_RequiresConformingBaseType},
    };
    for (const auto &s : steps) EXPECT_EQ(s.status, s.expected) << s.what;
    EXPECT_TRUE(SVMetadataDataTypeRegistryDataTypeIsRegistered(type));
    EXPECT_EQ(text(SVMetadataDataTypeRegistryGetDataTypeDescription(type)), "The title") << "the new description wins";
    EXPECT_TRUE(CFEqual(SVMetadataDataTypeRegistryGetConformingDataTypes(type), utf8));
    EXPECT_EQ(SVMetadataDataTypeRegistryGetBaseDataTypeForConformingDataType(type), kSVMetadataBaseDataType_UTF8);
    EXPECT_FALSE(SVMetadataDataTypeRegistryDataTypeIsRegistered(CFSTR("com.example.never")));
    EXPECT_EQ(SVMetadataDataTypeRegistryGetConformingDataTypes(nullptr), nullptr);
    for (CFArrayRef a : {utf8, utf8Again, utf16, none, notBase}) CFRelease(a);
}

TEST(SVMetadataRegistryTest, ConcurrentRegistrationsAndLookups) {
    CFArrayRef conforming = array({kSVMetadataBaseDataType_SInt32});
    constexpr int kThreads = 4, kTypes = 100;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, conforming] {
            for (int i = 0; i < kTypes; ++i) {
                char name[64];
                std::snprintf(name, sizeof name, "com.example.concurrent.%d", i);
                CFStringRef type = string(name);
                // Every thread registers every type with an equal list, so
                // each call either registers or replaces.
                EXPECT_EQ(
                    SVMetadataDataTypeRegistryRegisterDataType(type, t % 2 ? CFSTR("odd") : CFSTR("even"), conforming),
                    0);
                CFStringRef description = SVMetadataDataTypeRegistryGetDataTypeDescription(type);
                EXPECT_TRUE(description && (text(description) == "odd" || text(description) == "even"));
                EXPECT_EQ(SVMetadataDataTypeRegistryGetBaseDataTypeForConformingDataType(type),
                          kSVMetadataBaseDataType_SInt32);
                CFRelease(type);
            }
        });
    }
    for (auto &thread : threads) thread.join();
    CFRelease(conforming);
}

TEST(SVMetadataMOVTest, TablesBothWaysWithTheirNotices) {
    const struct {
        CFStringRef type;
        uint32_t id;
    } pairs[] = {
        {kSVMetadataBaseDataType_RawData, 0},        {kSVMetadataBaseDataType_UTF8, 1},
        {kSVMetadataBaseDataType_UTF16, 2},          {kSVMetadataBaseDataType_JPEG, 13},
        {kSVMetadataBaseDataType_PNG, 14},           {kSVMetadataBaseDataType_Float32, 23},
        {kSVMetadataBaseDataType_Float64, 24},       {kSVMetadataBaseDataType_BMP, 27},
        {kSVMetadataBaseDataType_SInt8, 65},         {kSVMetadataBaseDataType_SInt16, 66},
        {kSVMetadataBaseDataType_SInt32, 67},        {kSVMetadataBaseDataType_PointF32, 70},
        {kSVMetadataBaseDataType_DimensionsF32, 71}, {kSVMetadataBaseDataType_RectF32, 72},
        {kSVMetadataBaseDataType_SInt64, 74},        {kSVMetadataBaseDataType_UInt8, 75},
        {kSVMetadataBaseDataType_UInt16, 76},        {kSVMetadataBaseDataType_UInt32, 77},
        {kSVMetadataBaseDataType_UInt64, 78},        {kSVMetadataBaseDataType_AffineTransformF64, 79},
    };
    LogCapture capture(4);
    for (const auto &p : pairs) {
        EXPECT_EQ(_SVMetadataGetMOVTypeIDFromDataType(p.type), p.id) << text(p.type);
        EXPECT_EQ(_SVMetadataGetDataTypeFromMOVTypeID(p.id), p.type) << p.id;
    }
    EXPECT_EQ(_SVMetadataGetDataTypeFromMOVTypeID(4), kSVMetadataBaseDataType_UTF8);
    EXPECT_EQ(_SVMetadataGetDataTypeFromMOVTypeID(5), kSVMetadataBaseDataType_UTF16);
    CFStringRef utf8Copy = string("kSVMetadataBaseDataType_UTF8");
    EXPECT_EQ(_SVMetadataGetMOVTypeIDFromDataType(utf8Copy), 1u) << "compared by value";
    CFRelease(utf8Copy);
    EXPECT_EQ(capture.count(), 0u);

    EXPECT_EQ(_SVMetadataGetMOVTypeIDFromDataType(kSVMetadataBaseDataType_GIF), 0u);
    EXPECT_EQ(_SVMetadataGetMOVTypeIDFromDataType(kSVMetadataBaseDataType_JSON), 0u);
    EXPECT_EQ(_SVMetadataGetDataTypeFromMOVTypeID(3), kSVMetadataBaseDataType_RawData);
    EXPECT_EQ(_SVMetadataGetDataTypeFromMOVTypeID(0xFFFFFFFFu), kSVMetadataBaseDataType_RawData);
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 4u);
    const struct {
        const char *function;
        int line;
        const char *message;
    } expected[] = {
        {"_SVMetadataGetMOVTypeIDFromDataType", 346, "Unknown MOV metadata data type kSVMetadataBaseDataType_GIF"},
        {"_SVMetadataGetMOVTypeIDFromDataType", 346, "Unknown MOV metadata data type kSVMetadataBaseDataType_JSON"},
        {"_SVMetadataGetDataTypeFromMOVTypeID", 400, "Unknown MOV metadata type ID: 3"},
        {"_SVMetadataGetDataTypeFromMOVTypeID", 400, "Unknown MOV metadata type ID: 4294967295"},
    };
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(lines[i].level, 4);
        EXPECT_EQ(lines[i].function, expected[i].function);
        EXPECT_EQ(lines[i].path, "Sorvel/Sources/SVMetadata");
        EXPECT_EQ(lines[i].line, expected[i].line);
        EXPECT_EQ(lines[i].message, expected[i].message);
    }
    // Level 4 notices are dropped at the default threshold.
    LogCapture quiet(3);
    EXPECT_EQ(_SVMetadataGetDataTypeFromMOVTypeID(3), kSVMetadataBaseDataType_RawData);
    EXPECT_EQ(quiet.count(), 0u);
}

using SVMetadataDeathTest = testing::Test;

TEST(SVMetadataDeathTest, UnsupportedRequestsStop) {
    int value = 7;
    CFNumberRef numberKey = CFNumberCreate(nullptr, kCFNumberIntType, &value);
    CFStringRef out = nullptr;
    EXPECT_DEATH(SVMetadataCreateIdentifierForKeyAndKeySpace(nullptr, numberKey, CFSTR("udta"), &out),
                 "SVMetadataCreateIdentifierForKeyAndKeySpace \\[Sorvel/Sources/SVMetadata:177\\] NOT YET IMPLEMENTED");
    EXPECT_DEATH(SVMetadataDataTypeRegistryDataTypeConformsToDataType(CFSTR("a"), kSVMetadataBaseDataType_UTF8),
                 "SVMetadataDataTypeRegistryDataTypeConformsToDataType \\[Sorvel/Sources/SVMetadata:295\\] NOT YET "
                 "IMPLEMENTED");
    for (CFStringRef unregistered : {CFSTR("com.example.unregistered"), kSVMetadataBaseDataType_UTF8})
        EXPECT_DEATH(
            SVMetadataDataTypeRegistryGetBaseDataTypeForConformingDataType(unregistered),
            "SVMetadataDataTypeRegistryGetBaseDataTypeForConformingDataType \\[Sorvel/Sources/SVMetadata:220\\] "
            "Data type in registry without a conforming base type");
    CFRelease(numberKey);
}

}  // namespace
