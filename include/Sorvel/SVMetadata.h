/* SPDX-License-Identifier: Apache-2.0 */
/*
 * SVMetadata: names and types of timed metadata items.
 *
 * Identifiers.  A metadata item is named by an identifier that joins a key
 * space and a key: the text key space, "/", key.  Splitting uses the first
 * "/", so a key may contain "/" but a key space may not; building an
 * identifier does not check the key space, so one containing "/" makes an
 * identifier that does not split back into the same pair.
 *
 * Data types.  Item values are typed by data type identifiers (strings).  The
 * 24 base data types below are always known; other types are registered at
 * run time in a process-wide registry, each with a description and a list of
 * the types it conforms to, at least one of which must be a base type.
 * Registrations are never removed; registering a type again with the same
 * conforming list replaces its description.  The base types are not entries
 * of the registry: they are not "registered" and have no description.
 *
 * Ownership.  Create calls give the caller one reference.  Registry getters
 * return borrowed references that stay valid for the life of the process
 * (a replaced registration is kept alive, not freed).
 *
 * Threads.  Every call may be made from any thread; the registry guards
 * itself with one mutex.  Registering one data type from two threads at once
 * is not atomic: both may pass the already-registered test.
 *
 * Every exported constant is a compile-time string.
 */
#ifndef SORVEL_SVMETADATA_H
#define SORVEL_SVMETADATA_H

#include <Sorvel/SVBase.h>
#include <stdint.h>

SV_EXTERN_C_BEGIN

/* Status codes. */
enum {
    /* A string or data object could not be made. */
    kSVMetadataIdentifierError_AllocationFailed = -16300,
    /* An output pointer, identifier, key or key space is NULL. */
    kSVMetadataIdentifierError_RequiredParameterMissing = -16301,
    /* A key that is neither a string, data nor a number. */
    kSVMetadataIdentifierError_BadKeyType = -16304,
    /* An identifier without a "/" that has text on both sides (or one that is
     * not a string). */
    kSVMetadataIdentifierError_BadIdentifier = -16307,
    /* The registry could not store a registration. */
    kSVMetadataDataTypeRegistryError_AllocationFailed = -16310,
    /* A data type, description or conforming list that is NULL or not of its
     * type (string, string, array). */
    kSVMetadataDataTypeRegistryError_RequiredParameterMissing = -16311,
    /* Registered before with a different conforming list. */
    kSVMetadataDataTypeRegistryError_DataTypeAlreadyRegistered = -16313,
    /* No conforming type is a base data type (an empty list included). */
    kSVMetadataDataTypeRegistryError_RequiresConformingBaseType = -16314
};

/* Key spaces.  The two QuickTime ones are their four-character atom names;
 * the others hold their own names. */
SV_EXPORT const CFStringRef kSVMetadataKeySpace_QuickTimeUserData; /* "udta" */
SV_EXPORT const CFStringRef kSVMetadataKeySpace_QuickTimeMetadata; /* "mdta" */
SV_EXPORT const CFStringRef kSVMetadataKeySpace_ISOUserData;
SV_EXPORT const CFStringRef kSVMetadataKeySpace_iTunes;
SV_EXPORT const CFStringRef kSVMetadataKeySpace_ID3;
SV_EXPORT const CFStringRef kSVMetadataKeySpace_Icy;
SV_EXPORT const CFStringRef kSVMetadataKeySpace_HLSDateRange;

/* Identifiers of well-known items. */
SV_EXPORT const CFStringRef kSVMetadataIdentifier_QuickTimeMetadataLocation_ISO6709;
SV_EXPORT const CFStringRef kSVMetadataIdentifier_QuickTimeMetadataDirection_Facing;
SV_EXPORT const CFStringRef kSVMetadataIdentifier_QuickTimeMetadataPreferredAffineTransform;
SV_EXPORT const CFStringRef kSVMetadataIdentifier_QuickTimeMetadataVideoOrientation;

/* Data types of well-known items. */
SV_EXPORT const CFStringRef kSVMetadataDataType_QuickTimeMetadataLocation_ISO6709;
SV_EXPORT const CFStringRef kSVMetadataDataType_QuickTimeMetadataDirection;

/* The base data types, in registry order. */
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_RawData;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_UTF8;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_UTF16;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_GIF;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_JPEG;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_PNG;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_BMP;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_Float32;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_Float64;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_SInt8;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_SInt16;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_SInt32;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_SInt64;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_UInt8;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_UInt16;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_UInt32;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_UInt64;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_PointF32;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_DimensionsF32;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_RectF32;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_AffineTransformF64;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_JSON;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_PolygonF32;
SV_EXPORT const CFStringRef kSVMetadataBaseDataType_PolylineF32;

/* ---- Identifiers -------------------------------------------------------------
 *
 * The three splitting calls share their rules: a NULL output gives
 * kSVMetadataIdentifierError_RequiredParameterMissing (the output is not
 * touched); otherwise the output is set to NULL first.  A NULL identifier
 * gives RequiredParameterMissing; an identifier that is not a string, has no
 * "/", or has its first "/" at the start or the end gives
 * kSVMetadataIdentifierError_BadIdentifier. */

/* The key: everything after the first "/". */
SV_EXPORT OSStatus SVMetadataCreateKeyFromIdentifier(CFAllocatorRef allocator, CFStringRef identifier,
                                                     CFStringRef *keyOut) SV_NOEXCEPT;

/* The key as its ASCII bytes, without terminator; a key with characters
 * outside ASCII gives kSVMetadataIdentifierError_AllocationFailed. */
SV_EXPORT OSStatus SVMetadataCreateKeyFromIdentifierAsCFData(CFAllocatorRef allocator, CFStringRef identifier,
                                                             CFDataRef *keyOut) SV_NOEXCEPT;

/* The key space: everything before the first "/". */
SV_EXPORT OSStatus SVMetadataCreateKeySpaceFromIdentifier(CFAllocatorRef allocator, CFStringRef identifier,
                                                          CFStringRef *keySpaceOut) SV_NOEXCEPT;

/* keySpace "/" key.  key is a CFString, or a CFData read as ASCII text (bytes
 * outside ASCII give kSVMetadataIdentifierError_AllocationFailed).  A CFNumber
 * key is not supported and ends the process ("NOT YET IMPLEMENTED"); any
 * other type gives kSVMetadataIdentifierError_BadKeyType.  NULL output, key
 * or key space: RequiredParameterMissing. */
SV_EXPORT OSStatus SVMetadataCreateIdentifierForKeyAndKeySpace(CFAllocatorRef allocator, CFTypeRef key,
                                                               CFStringRef keySpace,
                                                               CFStringRef *identifierOut) SV_NOEXCEPT;

/* ---- Data type registry ------------------------------------------------------- */

/* Registers dataType with a description and the data types it conforms to
 * (both are copied).  The first base data type in conformingDataTypes admits
 * the registration; conformance to other registered types is not
 * considered. */
SV_EXPORT OSStatus SVMetadataDataTypeRegistryRegisterDataType(CFStringRef dataType, CFStringRef description,
                                                              CFArrayRef conformingDataTypes) SV_NOEXCEPT;

/* True when dataType has been registered (false for NULL and the base types). */
SV_EXPORT Boolean SVMetadataDataTypeRegistryDataTypeIsRegistered(CFStringRef dataType) SV_NOEXCEPT;

/* The registered description or conforming list (borrowed), or NULL. */
SV_EXPORT CFStringRef SVMetadataDataTypeRegistryGetDataTypeDescription(CFStringRef dataType) SV_NOEXCEPT;
SV_EXPORT CFArrayRef SVMetadataDataTypeRegistryGetConformingDataTypes(CFStringRef dataType) SV_NOEXCEPT;

/* The 24 base data types, in the order declared above (borrowed). */
SV_EXPORT CFArrayRef SVMetadataDataTypeRegistryGetBaseDataTypes(void) SV_NOEXCEPT;

/* True when dataType is one of the base data types. */
SV_EXPORT Boolean SVMetadataDataTypeRegistryDataTypeIsBaseDataType(CFStringRef dataType) SV_NOEXCEPT;

/* The first base data type in a registered type's conforming list.  A type
 * that is not registered (a base type included) ends the process. */
SV_EXPORT CFStringRef SVMetadataDataTypeRegistryGetBaseDataTypeForConformingDataType(CFStringRef dataType) SV_NOEXCEPT;

/* Not implemented: ends the process ("NOT YET IMPLEMENTED"). */
SV_EXPORT Boolean SVMetadataDataTypeRegistryDataTypeConformsToDataType(CFStringRef dataType,
                                                                       CFStringRef conformsToDataType) SV_NOEXCEPT;

/* ---- QuickTime well-known types (private to Sorvel's file readers) -----------
 *
 * The well-known type identifier of QuickTime metadata for a base data type,
 * and back.  Unknown values are logged at level 4 and give 0 (raw data). */
SV_EXPORT uint32_t _SVMetadataGetMOVTypeIDFromDataType(CFStringRef dataType) SV_NOEXCEPT;
SV_EXPORT CFStringRef _SVMetadataGetDataTypeFromMOVTypeID(uint32_t movTypeID) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVMETADATA_H */
