// Private to receiver/: storage for CommsChannelReceiver objects that is
// never handed back to the heap.
//
// A thread may hold a receiver pointer from instance() while another thread
// removes the last channel and deletes that receiver. The late call through
// the pointer must still land on a receiver: the block is kept, holds a
// dormant receiver once its receiver is deleted, and the next receiver is
// built in it (or in another kept block). Blocks are only ever as many as
// receivers alive at one time.
//
// Thread safety: both functions may be called from any thread.
#ifndef COMMSCHANNEL_RECEIVER_STORAGE_H
#define COMMSCHANNEL_RECEIVER_STORAGE_H

#include <cstddef>

namespace receiver_state {

// A block of at least `size` bytes, aligned for any object. Never null;
// throws std::bad_alloc when no memory is left.
void* takeReceiverStorage(std::size_t size);

// Marks the block free for the next receiver, leaving its bytes as they are
// (the dormant receiver in it stays callable). A block that did not come
// from takeReceiverStorage goes back to the heap.
void giveBackReceiverStorage(void* block) noexcept;

// Blocks made so far (for the unit tests).
std::size_t receiverStorageBlocks();

}  // namespace receiver_state

#endif
