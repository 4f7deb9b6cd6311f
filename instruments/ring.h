// The bounded ring between the host's thread and the sender thread.
//
// Add, Skip, Reset, Flush and Recover belong to the producer, Take, BeginSend and Release to the consumer.
// Slots keep their buffers between uses, so that a warm ring allocates nothing; a reset or a flush frees
// them.
#pragma once

#include "instruments/queue_records.h"

extern "C" {

enum RtmpQueueBufferResult {
    QUEUE_BUFFER_OK = 0,
    QUEUE_BUFFER_NONE = 1, // no ring, or no frame
    QUEUE_BUFFER_FULL = 2,
    QUEUE_BUFFER_EMPTY = 3,
    QUEUE_BUFFER_NO_MEMORY = 4
};

// RtmpQueueBufferCreate makes a ring that holds size + 1 items. Null: no memory, or more than 16 million
// slots were asked for (not logged).
RtmpQueueBuffer *RtmpQueueBufferCreate(uint32_t size);

// RtmpQueueBufferDestroy frees the ring and all it holds. Null is fine. Nobody uses it any more.
void RtmpQueueBufferDestroy(RtmpQueueBuffer *ring);

// RtmpQueueBufferReset empties the ring and frees every buffer, that of an item in use included: the
// consumer is gone.
void RtmpQueueBufferReset(RtmpQueueBuffer *ring);

// RtmpQueueBufferFlush discards all items at once, without waiting for the one that the consumer is using:
// that one's data stays alive until it is released.
void RtmpQueueBufferFlush(RtmpQueueBuffer *ring);

// RtmpQueueBufferRecover sets right what a consumer left that ended wherever it was; the next one begins
// after it. An item whose sending had begun is dropped: some players have got it, and nobody gets it twice.
// One that had only been taken stays. The semaphore has one post for each item again. True: one was dropped.
bool RtmpQueueBufferRecover(RtmpQueueBuffer *ring);

// RtmpQueueBufferAdd copies a frame into the ring, or references it when it has a file (`fd` 1 or more).
// QUEUE_BUFFER_OK, _NONE, _FULL or _NO_MEMORY.
int RtmpQueueBufferAdd(RtmpQueueBuffer *ring, uint32_t type, const uint8_t *data, int32_t length, int32_t fd,
                       uint64_t mapBase, uint64_t timestamp);

// RtmpQueueBufferSkip notes that a frame was dropped instead of being added. Items tell how often that, or a
// flush, happened before they were added (Breaks).
void RtmpQueueBufferSkip(RtmpQueueBuffer *ring);

// RtmpQueueBufferTake returns the oldest item, or null when the ring is empty. It stays in the ring, and the
// record returned stays valid until it is released or the next one is taken.
RtmpQueueBufferItem *RtmpQueueBufferTake(RtmpQueueBuffer *ring);

// RtmpQueueBufferBeginSend tells that players may get the item taken from here on.
void RtmpQueueBufferBeginSend(RtmpQueueBuffer *ring);

// RtmpQueueBufferRelease drops the oldest item; when a flush discarded the item taken, only what is left of
// that. QUEUE_BUFFER_OK, _NONE or _EMPTY.
int RtmpQueueBufferRelease(RtmpQueueBuffer *ring);

// RtmpQueueBufferRemove drops the oldest item. QUEUE_BUFFER_OK, _NONE or _EMPTY.
int RtmpQueueBufferRemove(RtmpQueueBuffer *ring);

// RtmpQueueBufferCount returns the items held.
int32_t RtmpQueueBufferCount(const RtmpQueueBuffer *ring);

// RtmpQueueBufferItemReset frees the slot's buffer and zeroes the slot.
void RtmpQueueBufferItemReset(RtmpQueueBufferItem *item);

// RtmpQueueBufferItemCopy copies an item, with its data when `src` owns them. QUEUE_BUFFER_OK, _NONE (a null
// argument) or _NO_MEMORY.
int RtmpQueueBufferItemCopy(RtmpQueueBufferItem *dst, const RtmpQueueBufferItem *src);
}
