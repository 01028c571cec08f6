// The block caches of RocksDB around pread.
#include <rocksdb/cache.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "../BenchHost.h"
#include "../ItemQueue.h"
#include "ItemMemory.h"
#include "PeerFactories.h"
#include "PeerFile.h"

namespace bench {
namespace {

using rocksdb::Cache;
using rocksdb::Slice;

// As long as the keys that RocksDB makes itself: HyperClock takes no others.
struct BlockKey {
  std::uint64_t file = 1;
  std::uint64_t offset = 0;

  Slice AsSlice() const { return Slice(reinterpret_cast<const char*>(this), sizeof *this); }
};
static_assert(sizeof(BlockKey) == 16);

// All blocks that the cache can hold, made once: a miss takes a free one and an eviction gives it
// back, without the heap.
class BlockPool {
 public:
  struct Block {
    BlockPool* pool;
    char* data;
  };

  BlockPool(std::uint64_t blockBytes, std::size_t blocks) : memory_(blockBytes, blocks) {
    blocks_.reserve(blocks);
    free_.reserve(blocks);
    for (std::size_t k = 0; k < blocks; ++k) blocks_.push_back({this, memory_[k]});
    for (Block& block : blocks_) free_.push_back(&block);
  }

  Block* Take() {
    if (free_.empty())
      throw std::runtime_error("the cache of RocksDB holds more than its capacity");
    Block* const block = free_.back();
    free_.pop_back();
    return block;
  }

  static void GiveBack(const Slice&, void* value) {
    auto* const block = static_cast<Block*>(value);
    block->pool->free_.push_back(block);
  }

 private:
  const AlignedBlocks memory_;
  std::vector<Block> blocks_;
  std::vector<Block*> free_;
};

// The rule of the LRU cache for the number of its shards, at least 512 KiB in each and at most 64,
// is meant for blocks of 4 KiB. With the same rule in blocks, shards of larger ones are not so
// small that chance overfills some of them while others have room.
int ChooseShardBits(std::uint64_t blocks) {
  constexpr std::uint64_t kBlocksPerShard = 128;
  constexpr int kMostBits = 6;
  int bits = 0;
  while (bits < kMostBits && blocks >> (bits + 1) >= kBlocksPerShard) ++bits;
  return bits;
}

class RocksCachePeer : public Runner {
 public:
  RocksCachePeer(const std::string& name, const CachedJob& job, std::shared_ptr<Cache> cache)
      : name_(name),
        job_(job),
        file_(name, job, PageCache::kBypassed),
        memory_(job, 1),
        // One more than the cache holds: the one that is being read.
        pool_(job.itemBytes, job.cache.blocks + 1),
        cache_(std::move(cache)) {
    RequireReads(name, job);
    Load();
  }

  void Pass(LatencyHistogram* latencies) override {
    MoveOneByOne(name_, job_, job_.GetOffsetsOfPass(pass_++), latencies,
                 [this](std::uint64_t offset) { return Read(offset); });
  }

 private:
  // In large pieces, or it would take longer than what is measured.
  void Load() {
    constexpr std::uint64_t kMostBytes = std::uint64_t{1} << 20;
    const AlignedBlocks piece(kMostBytes, 1);
    for (std::uint64_t at = 0; at < job_.loadedBytes; at += kMostBytes) {
      const std::uint64_t bytes = std::min(kMostBytes, job_.loadedBytes - at);
      const ssize_t moved = pread(file_.Get(), piece[0], bytes, static_cast<off_t>(at));
      CheckMoved(name_, moved < 0 ? -errno : moved, bytes);
      for (std::uint64_t in = 0; in < bytes; in += job_.itemBytes) {
        BlockPool::Block* const block = pool_.Take();
        std::memcpy(block->data, piece[0] + in, job_.itemBytes);
        BlockKey key;
        key.offset = at + in;
        Insert(key, block);
      }
    }
  }

  void Insert(const BlockKey& key, BlockPool::Block* block) {
    const auto inserted =
        cache_->Insert(key.AsSlice(), block, job_.itemBytes, &BlockPool::GiveBack);
    if (!inserted.ok()) throw std::runtime_error(name_ + ": " + inserted.ToString());
  }

  std::int64_t Read(std::uint64_t offset) {
    BlockKey key;
    key.offset = offset;
    Cache::Handle* const handle = cache_->Lookup(key.AsSlice());
    if (!handle) return ReadMissing(key);
    memory_.CopyIn(0, static_cast<BlockPool::Block*>(cache_->Value(handle))->data);
    cache_->Release(handle);
    return static_cast<std::int64_t>(job_.itemBytes);
  }

  std::int64_t ReadMissing(const BlockKey& key) {
    BlockPool::Block* const block = pool_.Take();
    const ssize_t moved =
        pread(file_.Get(), block->data, job_.itemBytes, static_cast<off_t>(key.offset));
    if (moved != static_cast<ssize_t>(job_.itemBytes)) {
      const std::int64_t result = moved < 0 ? -errno : moved;
      BlockPool::GiveBack(key.AsSlice(), block);
      return result;
    }
    // First, as the cache may evict the block at once.
    memory_.CopyIn(0, block->data);
    Insert(key, block);
    return moved;
  }

  const std::string name_;
  const CachedJob job_;
  const PeerFile file_;
  const ItemMemory memory_;
  BlockPool pool_;
  const std::shared_ptr<Cache> cache_;
  std::size_t pass_ = 0;
};

}  // namespace

std::unique_ptr<Runner> NewLruCachePeer(const CachedJob& job) {
  rocksdb::LRUCacheOptions options;
  options.capacity = job.cache.Bytes();
  options.num_shard_bits = ChooseShardBits(job.cache.blocks);
  options.metadata_charge_policy = rocksdb::kDontChargeCacheMetadata;
  return std::make_unique<RocksCachePeer>("RocksDB LRU", job, rocksdb::NewLRUCache(options));
}

std::unique_ptr<Runner> NewHyperClockCachePeer(const CachedJob& job) {
  rocksdb::HyperClockCacheOptions options(job.cache.Bytes(), job.itemBytes);
  options.metadata_charge_policy = rocksdb::kDontChargeCacheMetadata;
  return std::make_unique<RocksCachePeer>("RocksDB HyperClock", job, options.MakeSharedCache());
}

}  // namespace bench
