/* SPDX-License-Identifier: Apache-2.0 */
/* Every public header of Sorvel. */
#ifndef SORVEL_SORVEL_H
#define SORVEL_SORVEL_H

#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVBase.h>
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVBufferQueue.h>
#include <Sorvel/SVClock.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVMemoryPool.h>
#include <Sorvel/SVMetadata.h>
#include <Sorvel/SVNALUnit.h>
#include <Sorvel/SVSampleBuffer.h>
#include <Sorvel/SVSampleDescription.h>
#include <Sorvel/SVSimpleQueue.h>
#include <Sorvel/SVStatus.h>
#include <Sorvel/SVSync.h>
#include <Sorvel/SVTime.h>
#include <Sorvel/SVTimebase.h>

#endif /* SORVEL_SORVEL_H */
