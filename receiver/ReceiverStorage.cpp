// Kept storage for receiver objects: a short list of blocks, each free or in
// use. Receivers come and go rarely (once per first channel), so one mutex
// is plenty.
#include "ReceiverStorage.h"

#include <mutex>
#include <new>
#include <vector>

namespace receiver_state {

namespace {

struct Block {
    void* memory;
    std::size_t size;
    bool inUse;
};

struct Storage {
    std::mutex lock;
    std::vector<Block> blocks;
};

// Never destroyed: a receiver may still be deleted while the process exits.
Storage& storage()
{
    static Storage* kept = new Storage();
    return *kept;
}

}  // namespace

void* takeReceiverStorage(std::size_t size)
{
    Storage& kept = storage();
    std::lock_guard<std::mutex> guard(kept.lock);
    for (Block& block : kept.blocks) {
        if (!block.inUse && block.size >= size) {
            block.inUse = true;
            return block.memory;
        }
    }
    // Reserve first, so that a failure leaves no block unrecorded.
    kept.blocks.reserve(kept.blocks.size() + 1);
    void* memory = ::operator new(size);
    kept.blocks.push_back(Block{memory, size, true});
    return memory;
}

void giveBackReceiverStorage(void* block) noexcept
{
    if (block == nullptr) {
        return;
    }
    Storage& kept = storage();
    std::lock_guard<std::mutex> guard(kept.lock);
    for (Block& known : kept.blocks) {
        if (known.memory == block) {
            known.inUse = false;
            return;
        }
    }
    ::operator delete(block);
}

std::size_t receiverStorageBlocks()
{
    Storage& kept = storage();
    std::lock_guard<std::mutex> guard(kept.lock);
    return kept.blocks.size();
}

}  // namespace receiver_state
