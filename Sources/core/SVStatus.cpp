// SPDX-License-Identifier: Apache-2.0
// Status names.  The table lists every status constant of the public
// headers by value (this layer sits below the families that name them); a
// test reads the headers and fails when one is missing or differs here.

#include <Sorvel/SVStatus.h>

#include <cstdio>

namespace {

struct StatusName {
    OSStatus status;
    const char *name;
};

constexpr StatusName kStatusNames[] = {
    {0, "noErr"},
    {-12700, "kSVBlockBufferStructureAllocationFailedErr"},
    {-12701, "kSVBlockBufferBlockAllocationFailedErr"},
    {-12703, "kSVBlockBufferBadOffsetParameterErr"},
    {-12704, "kSVBlockBufferBadLengthParameterErr"},
    {-12705, "kSVBlockBufferBadPointerParameterErr"},
    {-12707, "kSVBlockBufferUnallocatedBlockErr"},
    {-12710, "kSVFormatDescriptionError_InvalidParameter"},
    {-12711, "kSVFormatDescriptionError_AllocationFailed"},
    {-12718, "kSVFormatDescriptionError_ValueNotAvailable"},
    {-12720, "kSVSampleDescriptionError_InvalidParameter"},
    {-12721, "kSVSampleDescriptionError_AllocationFailed"},
    {-12722, "kSVSampleDescriptionError_Truncated"},
    {-12723, "kSVSampleDescriptionError_BadAtom"},
    {-12724, "kSVSampleDescriptionError_UnsupportedVersion"},
    {-12725, "kSVSampleDescriptionError_MediaTypeMismatch"},
    {-12726, "kSVSampleDescriptionError_UnsupportedFormat"},
    {-12730, "kSVSampleBufferError_AllocationFailed"},
    {-12731, "kSVSampleBufferError_RequiredParameterMissing"},
    {-12732, "kSVSampleBufferError_AlreadyHasDataBuffer"},
    {-12733, "kSVSampleBufferError_BufferNotReady"},
    {-12734, "kSVSampleBufferError_SampleIndexOutOfRange"},
    {-12735, "kSVSampleBufferError_BufferHasNoSampleSizes"},
    {-12736, "kSVSampleBufferError_BufferHasNoSampleTimingInfo"},
    {-12737, "kSVSampleBufferError_ArrayTooSmall"},
    {-12738, "kSVSampleBufferError_InvalidEntryCount"},
    {-12739, "kSVSampleBufferError_CannotSubdivide"},
    {-12740, "kSVSampleBufferError_InvalidAudioData"},
    {-12741, "kSVSampleBufferError_InvalidMediaTypeForOperation"},
    {-12742, "kSVSampleBufferError_AudioBufferListMismatch"},
    {-12743, "kSVSampleBufferError_InvalidMediaFormat"},
    {-12744, "kSVSampleBufferError_Invalidated"},
    {-12745, "kSVClockError_MissingRequiredParameter"},
    {-12747, "kSVClockError_AllocationFailed"},
    {-12748, "kSVTimebaseError_MissingRequiredParameter"},
    {-12749, "kSVTimebaseError_InvalidTimer"},
    {-12750, "kSVTimebaseError_AllocationFailed"},
    {-12752, "kSVSyncError_MissingRequiredParameter"},
    {-12760, "kSVBufferQueueError_AllocationFailed"},
    {-12761, "kSVBufferQueueError_RequiredParameterMissing"},
    {-12762, "kSVBufferQueueError_InvalidBufferCallbacksStruct"},
    {-12763, "kSVBufferQueueError_EnqueueAfterEndOfData"},
    {-12764, "kSVBufferQueueError_QueueIsFull"},
    {-12766, "kSVBufferQueueError_CannotModifyQueueFromTriggerCallback"},
    {-12767, "kSVBufferQueueError_InvalidTriggerParameters"},
    {-12768, "kSVBufferQueueError_InvalidTriggerToken"},
    {-12770, "kSVSimpleQueueError_AllocationFailed"},
    {-12771, "kSVSimpleQueueError_RequiredParameterMissing"},
    {-12773, "kSVSimpleQueueError_QueueIsFull"},
    {-16300, "kSVMetadataIdentifierError_AllocationFailed"},
    {-16301, "kSVMetadataIdentifierError_RequiredParameterMissing"},
    {-16304, "kSVMetadataIdentifierError_BadKeyType"},
    {-16307, "kSVMetadataIdentifierError_BadIdentifier"},
    {-16310, "kSVMetadataDataTypeRegistryError_AllocationFailed"},
    {-16311, "kSVMetadataDataTypeRegistryError_RequiredParameterMissing"},
    {-16313, "kSVMetadataDataTypeRegistryError_DataTypeAlreadyRegistered"},
    {-16314, "kSVMetadataDataTypeRegistryError_RequiresConformingBaseType"},
};

bool printable(unsigned char c) noexcept {
    return c >= 0x20 && c < 0x7F;
}

}  // namespace

extern "C" {

const char *SVGetStatusName(OSStatus status) noexcept {
    for (const StatusName &entry : kStatusNames)
        if (entry.status == status) return entry.name;
    return nullptr;
}

CFStringRef SVCopyStatusDescription(CFAllocatorRef allocator, OSStatus status) noexcept {
    char text[96];
    if (const char *name = SVGetStatusName(status)) {
        std::snprintf(text, sizeof text, "%s (%d)", name, static_cast<int>(status));
    } else {
        const uint32_t bits = static_cast<uint32_t>(status);
        const unsigned char c[4] = {static_cast<unsigned char>(bits >> 24), static_cast<unsigned char>(bits >> 16),
                                    static_cast<unsigned char>(bits >> 8), static_cast<unsigned char>(bits)};
        if (printable(c[0]) && printable(c[1]) && printable(c[2]) && printable(c[3]))
            std::snprintf(text, sizeof text, "'%c%c%c%c' (%d)", c[0], c[1], c[2], c[3], static_cast<int>(status));
        else
            std::snprintf(text, sizeof text, "unknown status (%d)", static_cast<int>(status));
    }
    return CFStringCreateWithCString(allocator, text, kCFStringEncodingUTF8);
}

}  // extern "C"
