// The index of blocks, and that of pointers, against standard maps.
#include <array>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>

#include "Buffer.h"
#include "Cache/BlockIndex.h"
#include "Cache/CacheBlock.h"
#include "CoreClasses/PointerIndex.h"
#include "FuzzTools.h"

namespace Orvane::Fuzz {
namespace {

constexpr std::size_t kBlocks = 24;

// Made once: a block is a large object, and a run leaves all of them unlinked.
struct Blocks {
  Blocks() {
    for (auto& block : all) block = std::make_unique<CacheBlock>(&group, buffer);
  }

  BlockGroup group{nullptr, nullptr};
  HeapBuffer* const buffer = new HeapBuffer(16);
  std::array<std::unique_ptr<CacheBlock>, kBlocks> all;
};

Blocks& TheBlocks() {
  static Blocks* const blocks = new Blocks;  // outlives the threading of the library
  return *blocks;
}

class BlockRun {
 public:
  explicit BlockRun(Input* input) : input_(input), blocks_(TheBlocks()) {
    if (!input_->Flag()) ORVANE_FUZZ_CHECK(!index_.Find(input_->Byte(), input_->Number()));
    index_.Reserve(input_->Below(2 * kBlocks), 4096);  // fewer than blocks: long chains
  }
  ~BlockRun() {
    for (const auto& block : blocks_.all) index_.Remove(block.get());
  }
  BlockRun(const BlockRun&) = delete;
  BlockRun& operator=(const BlockRun&) = delete;

  void Run() {
    while (!input_->IsEmpty()) Step();
    for (const auto& [key, block] : model_) {
      ORVANE_FUZZ_CHECK(index_.Find(key.first, key.second) == block);
    }
  }

 private:
  using Key = std::pair<std::uint32_t, std::uint64_t>;

  Key TakeKey() {
    const unsigned byte = input_->Byte();
    const std::uint32_t source = byte >> 4 < 12 ? byte >> 4 : ~std::uint32_t{0} - (byte >> 4);
    if ((byte & 15) == 15) return {source, input_->Number()};
    return {source, std::uint64_t{byte & 15} * 4096};
  }
  void Step() {
    const unsigned kind = input_->Below(4);
    if (kind == 0) return Remove(blocks_.all[input_->Below(kBlocks)].get());
    const Key key = TakeKey();
    const auto there = model_.find(key);
    CacheBlock* const found = index_.Find(key.first, key.second);
    ORVANE_FUZZ_CHECK(found == (there == model_.end() ? nullptr : there->second));
    if (kind == 1) return;
    if (found) return Remove(found);
    CacheBlock* const block = blocks_.all[input_->Below(kBlocks)].get();
    if (keys_.contains(block)) return;
    index_.Insert(block, key.first, key.second);
    keys_[block] = key;
    model_[key] = block;
  }
  void Remove(CacheBlock* block) {
    index_.Remove(block);
    const auto key = keys_.find(block);
    if (key == keys_.end()) return;
    ORVANE_FUZZ_CHECK(!index_.Find(key->second.first, key->second.second));
    model_.erase(key->second);
    keys_.erase(key);
  }

  Input* const input_;
  Blocks& blocks_;
  BlockIndex index_;
  std::map<Key, CacheBlock*> model_;
  std::unordered_map<CacheBlock*, Key> keys_;
};

class PointerRun {
 public:
  explicit PointerRun(Input* input) : input_(input), kind_(input->Below(4)) {}

  void Run() {
    while (!input_->IsEmpty()) Step();
    for (const auto& [key, slot] : model_) ORVANE_FUZZ_CHECK(index_.Find(key) == slot);
  }

 private:
  // Multiplying by one undoes the other.
  static constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15;
  static constexpr std::uint64_t kGather = 0xF1DE83E19937733D;
  static_assert(kSpread * kGather == 1);

  // Keys that lie near each other, or that want the same few places of the table.
  const void* KeyOf(std::uint64_t number) const {
    std::uint64_t bits = number * 8;
    if (kind_ == 1) bits = number << 12;
    if (kind_ == 2) bits = (number << 56 | number) * kGather;
    if (kind_ == 3) bits = ((number & 3) << 62 | 60ull << 56 | number) * kGather;
    return reinterpret_cast<const void*>(static_cast<std::uintptr_t>(bits));
  }
  void Step() {
    const unsigned kind = input_->Below(16);
    const void* const key = KeyOf(input_->Byte());
    const auto there = model_.find(key);
    const std::size_t found = index_.Find(key);
    ORVANE_FUZZ_CHECK(found == (there == model_.end() ? PointerIndex::kNone : there->second));
    if (kind < 4) return;
    if (kind == 4) return Grow();
    if (kind == 5) return AddMany(input_->Byte());
    if (found != PointerIndex::kNone) {
      index_.Erase(key);
      model_.erase(there);
    } else {
      Add(key, kind);
    }
  }
  void Add(const void* key, std::size_t slot) {
    index_.Reserve(model_.size() + 1);
    index_.Insert(key, slot);
    model_[key] = slot;
  }
  // Enough for the table to grow and to be half full.
  void AddMany(std::uint64_t first) {
    for (std::uint64_t i = 0; i < 24; ++i) {
      const void* const key = KeyOf((first + i) & 0xFF);
      if (!model_.contains(key)) Add(key, static_cast<std::size_t>(i));
    }
  }
  void Grow() {
    const unsigned much = input_->Byte();
    if (much == 0) {
      index_.Clear();
      return model_.clear();
    }
    index_.Reserve(much);
  }

  Input* const input_;
  const unsigned kind_;
  PointerIndex index_;
  std::unordered_map<const void*, std::size_t> model_;
};

}  // namespace
}  // namespace Orvane::Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace Orvane::Fuzz;
  TheBlocks();
  const LeakCheck leaks;
  Input input(data, size);
  if (input.Flag()) {
    BlockRun(&input).Run();
  } else {
    PointerRun(&input).Run();
  }
  return 0;
}
