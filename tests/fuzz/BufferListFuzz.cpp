// Buffer lists against one flat range of bytes.
#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "Buffer.h"
#include "BufferList.h"
#include "FuzzTools.h"

namespace Orvane::Fuzz {
namespace {

constexpr const char* kFile = "tests/fuzz/BufferListFuzz";
constexpr std::size_t kMostBuffers = 40;  // more than are searched without an index
constexpr std::size_t kArena = 1024;

alignas(kPageSize) std::array<std::uint8_t, kArena> arena;

// Counts its locks, and misbehaves on command.
class TestBuffer : public HostBuffer {
 public:
  TestBuffer(void* address, std::size_t size) : HostBuffer(address, size) {}
  LockState_t Lock() override {
    const LockState_t state = HostBuffer::Lock();
    return refusesLock ? kBufferUnlocked : state;
  }
  void* GetVirtualAddress() override {
    return hidesAddress ? nullptr : HostBuffer::GetVirtualAddress();
  }

  bool refusesLock = false;
  bool hidesAddress = false;

 protected:
  ~TestBuffer() override = default;
};

struct Piece {
  Buffer* buffer;
  std::size_t size;
  std::uint8_t* address;
  int locks = 0;
  bool refusesLock = false;
  bool hidesAddress = false;
};

class BufferListRun {
 public:
  explicit BufferListRun(Input* input)
      : input_(input), list_(new BufferList(input->Below(kMostBuffers))) {
    arena.fill(0);
  }
  ~BufferListRun() {
    for (const Piece& piece : pieces_) {
      ORVANE_FUZZ_CHECK(piece.buffer->GetRefCount() == 1);
    }
    list_->DecRef(kFile, "Orvane::Fuzz::BufferListRun::~BufferListRun", 0);
  }
  BufferListRun(const BufferListRun&) = delete;
  BufferListRun& operator=(const BufferListRun&) = delete;

  void Run() {
    while (!input_->IsEmpty()) {
      Step();
      ORVANE_FUZZ_CHECK(list_->GetNumberOfBuffers() == pieces_.size());
      if (!overflows_)
        ORVANE_FUZZ_CHECK(list_->GetTotalSizeOfBuffers() == flat_.size() + hugeBytes_);
    }
    for (std::size_t i = 0; i < pieces_.size(); ++i) {
      ORVANE_FUZZ_CHECK(list_->GetBuffer(i) == pieces_[i].buffer);
      ExpectLocks(pieces_[i]);
    }
    ORVANE_FUZZ_CHECK(!list_->GetBuffer(pieces_.size()));
    if (!IsHuge()) ExpectBytes(0, flat_.size());
  }

 private:
  bool IsHuge() const { return overflows_ || hugeBytes_ != 0; }
  void ExpectLocks(const Piece& piece) {
    ORVANE_FUZZ_CHECK((piece.buffer->GetLockState() == Buffer::kBufferLocked) == (piece.locks > 0));
  }
  // An odd one at the end is allowed to be as large as anything.
  std::size_t TakeOffset() {
    const unsigned byte = input_->Byte();
    if (byte >= 0xF0) return static_cast<std::size_t>(input_->Number());
    return byte * (flat_.size() + 2) / 0xF0;
  }

  void Step() {
    switch (input_->Below(16)) {
      case 0:
      case 1:
      case 2:
      case 3:
        return AddArena();
      case 4:
        return AddHeap();
      case 5:
        return AddPart();
      case 6:
        return AddOdd();
      case 7:
        return AddAgain();
      case 8:
      case 9:
        return LookAt(TakeOffset());
      case 10:
        return Write();
      case 11:
        if (!IsHuge()) ExpectBytes(TakeOffset(), input_->Byte());
        return;
      case 12:
        return Lock();
      case 13:
        list_->UnlockAllBuffers(&arena[input_->Byte()] + kArena / 2);  // not the token, see Lock
        return;
      case 14:
        return Unlock();
      default:
        return CopyBetween();
    }
  }

  void Add(Buffer* buffer, const Piece& piece) {
    const bool adopt = input_->Flag();
    ORVANE_FUZZ_CHECK(list_->AddBuffer(buffer, adopt));
    if (!adopt) {
      ORVANE_FUZZ_CHECK(buffer->GetRefCount() == 2);
      buffer->DecRef(kFile, "Orvane::Fuzz::BufferListRun::Add", 0);
    }
    pieces_.push_back(piece);
  }
  void AddBytes(Buffer* buffer, std::uint8_t* address, std::size_t size) {
    Add(buffer, {buffer, size, address});
    flat_.insert(flat_.end(), address, address + size);
  }
  // The lower half of the arena, front to back, with gaps.
  void AddArena() {
    const unsigned shape = input_->Byte();
    const std::size_t gap = shape >> 5 == 7 ? 16 : shape >> 5 == 6 ? 3 : 0;
    const std::size_t size = (shape & 16) != 0 ? (shape & 3) * kPageSize : shape & 15;
    if (pieces_.size() == kMostBuffers || arenaUsed_ + gap + size > kArena / 2) return;
    std::uint8_t* const address = &arena[arenaUsed_ + gap];
    arenaUsed_ += gap + size;
    AddBytes(new TestBuffer(address, size), address, size);
  }
  void AddHeap() {
    if (pieces_.size() == kMostBuffers) return;
    const std::size_t size = input_->Below(20);
    auto* const buffer = new HeapBuffer(size);
    auto* const address = static_cast<std::uint8_t*>(buffer->GetAddress());
    std::fill_n(address, size, std::uint8_t{0xAA});
    AddBytes(buffer, address, size);
  }
  // A view that alone keeps its parent alive.
  void AddPart() {
    if (pieces_.size() == kMostBuffers) return;
    const std::size_t size = 1 + input_->Below(20);
    const std::size_t from = input_->Byte() % size;
    auto* const parent = new HeapBuffer(size);
    auto* const address = static_cast<std::uint8_t*>(parent->GetAddress()) + from;
    std::fill_n(address, size - from, std::uint8_t{0x55});
    auto* const part = new BufferPartOfBuffer(address, size - from, parent);
    parent->DecRef(kFile, "Orvane::Fuzz::BufferListRun::AddPart", 0);
    AddBytes(part, address, size - from);
  }
  // One that does not lock, has no address, or is too large to be true.
  void AddOdd() {
    if (pieces_.size() == kMostBuffers) return;
    const unsigned kind = input_->Byte();
    const std::size_t size = kind < 0x80 ? 0 : static_cast<std::size_t>(input_->Number());
    auto* const buffer = new TestBuffer(arena.data(), size);
    buffer->refusesLock = (kind & 1) != 0;
    buffer->hidesAddress = (kind & 2) != 0;
    Add(buffer, {buffer, size, arena.data(), 0, buffer->refusesLock, buffer->hidesAddress});
    if (size > ~std::size_t{0} - hugeBytes_ - kMostBuffers * kArena) overflows_ = true;
    hugeBytes_ += size;
  }
  void AddAgain() {
    ORVANE_FUZZ_CHECK(!list_->AddBuffer(nullptr, input_->Flag()));
    if (pieces_.empty()) return;
    Buffer* const buffer = pieces_[input_->Byte() % pieces_.size()].buffer;
    ORVANE_FUZZ_CHECK(!list_->AddBuffer(buffer, input_->Flag()));
    ORVANE_FUZZ_CHECK(buffer->GetRefCount() == 1);
  }

  void LookAt(std::size_t offset) {
    constexpr std::size_t kUnwritten = 0x1234567;
    std::size_t inBuffer = kUnwritten;
    std::size_t left = kUnwritten;
    Buffer* const buffer = list_->GetBufferAtOffset(offset, &inBuffer, &left);
    ORVANE_FUZZ_CHECK(list_->GetBufferAtOffset(offset, nullptr, nullptr) == buffer);
    if (!buffer) ORVANE_FUZZ_CHECK(inBuffer == kUnwritten && left == kUnwritten);
    if (overflows_) {
      if (buffer) ORVANE_FUZZ_CHECK(left > 0 && inBuffer + left == buffer->GetSize());
      return;
    }
    std::size_t start = 0;
    for (const Piece& piece : pieces_) {
      if (offset - start < piece.size) {
        ORVANE_FUZZ_CHECK(buffer == piece.buffer && inBuffer == offset - start);
        ORVANE_FUZZ_CHECK(left == piece.size - inBuffer);
        return;
      }
      start += piece.size;
    }
    ORVANE_FUZZ_CHECK(!buffer);
  }

  // A lock that brings the count back to 0 is not taken: there has been an unlock too many.
  static bool TakeLock(Piece* piece) {
    ++piece->locks;
    return piece->locks != 0 && !piece->refusesLock;
  }
  // What a copy that moves bytes answers.
  static Buffer::BufferResult_t ResultOfCopy(Piece* piece) {
    if (!TakeLock(piece)) return Buffer::kBufferLockFailed;
    --piece->locks;
    return piece->hidesAddress ? Buffer::kBufferNoAddress : Buffer::kBufferOK;
  }
  // The piece that holds a byte, and where; null at the end.
  Piece* PieceAt(std::size_t* offset) {
    for (Piece& piece : pieces_) {
      if (*offset < piece.size) return &piece;
      *offset -= piece.size;
    }
    return nullptr;
  }

  // As an application does it: buffer by buffer. `copy` is told the buffer, the offset in it and in
  // the list, and the bytes that are left to copy; answers its result and the bytes it has moved.
  template <typename Copy>
  void ForEachBuffer(std::size_t offset, std::size_t count, Copy copy) {
    std::size_t inBuffer = 0;
    std::size_t left = 0;
    while (count > 0) {
      Buffer* const buffer = list_->GetBufferAtOffset(offset, &inBuffer, &left);
      ORVANE_FUZZ_CHECK((buffer != nullptr) == (offset < flat_.size()));
      if (!buffer) return;
      std::size_t place = offset;
      Piece* const piece = PieceAt(&place);
      ORVANE_FUZZ_CHECK(piece && piece->buffer == buffer && place == inBuffer);
      std::size_t moved = 1;
      const Buffer::BufferResult_t result = copy(buffer, inBuffer, offset, count, &moved);
      const Buffer::BufferResult_t expected = ResultOfCopy(piece);
      ORVANE_FUZZ_CHECK(result == expected);
      ORVANE_FUZZ_CHECK(moved == (expected == Buffer::kBufferOK ? std::min(count, left) : 0));
      if (moved == 0) return;
      offset += moved;
      count -= moved;
    }
  }
  void Write() {
    if (IsHuge()) return;
    const std::size_t start = TakeOffset();
    std::array<std::uint8_t, 32> bytes;
    bytes.fill(static_cast<std::uint8_t>(++fill_));
    ForEachBuffer(start, input_->Below(bytes.size() + 1),
                  [&](Buffer* buffer, std::size_t inBuffer, std::size_t offset, std::size_t count,
                      std::size_t* moved) {
                    const auto result = buffer->CopyInto(bytes.data(), count, inBuffer, moved);
                    std::fill_n(FlatAt(offset), *moved, bytes[0]);
                    return result;
                  });
  }
  void ExpectBytes(std::size_t start, std::size_t total) {
    std::array<std::uint8_t, kArena> bytes;
    ForEachBuffer(
        start, total,
        [&](Buffer* buffer, std::size_t inBuffer, std::size_t offset, std::size_t count,
            std::size_t* moved) {
          const auto result = buffer->CopyOutOf(bytes.data(), count, inBuffer, moved);
          ORVANE_FUZZ_CHECK(std::equal(bytes.data(), bytes.data() + *moved, FlatAt(offset)));
          return result;
        });
  }
  std::uint8_t* FlatAt(std::size_t offset) { return flat_.data() + offset; }
  std::uint8_t* FlatAt(const Piece* piece) {
    std::size_t start = 0;
    for (const Piece* p = pieces_.data(); p != piece; ++p) start += p->size;
    return FlatAt(start);
  }
  // The bytes come from the start of the other one, whose offset only limits how many they are.
  void CopyBetween() {
    if (IsHuge() || pieces_.empty()) return;
    Piece* const to = &pieces_[input_->Byte() % pieces_.size()];
    Piece* const from = &pieces_[input_->Byte() % pieces_.size()];
    const std::size_t wanted = input_->Below(32);
    const std::size_t otherOffset = input_->Below(20);
    const std::size_t offset = input_->Below(20);
    std::size_t moved = 0;
    const Buffer::BufferResult_t result =
        to->buffer->CopyFromOtherBuffer(from->buffer, wanted, otherOffset, offset, &moved);
    const bool locked = TakeLock(from);
    const std::size_t room = offset < to->size ? to->size - offset : 0;
    const std::size_t there = otherOffset < from->size ? from->size - otherOffset : 0;
    const std::size_t count = std::min({wanted == 0 ? there : wanted, there, room});
    Buffer::BufferResult_t expected = Buffer::kBufferLockFailed;
    if (locked) {
      expected = from->hidesAddress ? Buffer::kBufferNoAddress
                 : count == 0       ? Buffer::kBufferOutOfRange
                                    : ResultOfCopy(to);
      --from->locks;
    }
    ORVANE_FUZZ_CHECK(result == expected);
    ORVANE_FUZZ_CHECK(moved == (expected == Buffer::kBufferOK ? count : 0));
    if (moved > 0) std::memmove(FlatAt(to) + offset, FlatAt(from), moved);
  }

  // Whether a buffer that has been locked is good for a locked list; then counts it in.
  static bool CountIn(const Piece& piece, const Piece* before, bool countPages, std::size_t* pages,
                      std::size_t* contiguous) {
    if (piece.hidesAddress || piece.size == 0) return false;
    const auto place = reinterpret_cast<std::uintptr_t>(piece.address);
    if (countPages && (place % kPageSize != 0 || piece.size % kPageSize != 0)) return false;
    if (countPages) *pages += piece.size / kPageSize;
    const bool goesOn =
        !before || (*contiguous != 0 && before->address + before->size == piece.address);
    *contiguous = goesOn ? *contiguous + piece.size : 0;
    return true;
  }
  void Lock() {
    if (IsHuge()) return;
    const bool countPages = input_->Flag();
    std::size_t pages = 1;
    std::size_t contiguous = 1;
    void* const token = list_->LockAllBuffers(countPages, &pages, &contiguous);
    std::size_t expectedPages = 0;
    std::size_t expectedContiguous = 0;
    for (std::size_t i = 0; i < pieces_.size(); ++i) {
      const bool locked = TakeLock(&pieces_[i]);
      if (locked && CountIn(pieces_[i], i == 0 ? nullptr : &pieces_[i - 1], countPages,
                            &expectedPages, &expectedContiguous)) {
        continue;
      }
      ORVANE_FUZZ_CHECK(!token && pages == 0 && contiguous == 0);
      // With the one behind it, unless it was the lock that failed.
      const std::size_t unlocked = std::min(i + (locked ? 2 : 1), pieces_.size());
      for (std::size_t k = 0; k < unlocked; ++k) --pieces_[k].locks;
      return;
    }
    ORVANE_FUZZ_CHECK(token == (pieces_.empty() ? nullptr : pieces_[0].address));
    ORVANE_FUZZ_CHECK(pages == expectedPages && contiguous == expectedContiguous);
    token_ = token;
  }
  void Unlock() {
    list_->UnlockAllBuffers(nullptr);
    if (!token_) return;
    list_->UnlockAllBuffers(token_);
    list_->UnlockAllBuffers(token_);  // no longer the token
    for (Piece& piece : pieces_) --piece.locks;
    token_ = nullptr;
  }

  Input* const input_;
  BufferList* const list_;
  std::vector<Piece> pieces_;
  std::vector<std::uint8_t> flat_;
  std::size_t arenaUsed_ = 0;
  std::size_t hugeBytes_ = 0;
  bool overflows_ = false;
  unsigned fill_ = 0;
  void* token_ = nullptr;
};

}  // namespace
}  // namespace Orvane::Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace Orvane::Fuzz;
  const LeakCheck leaks;
  Input input(data, size);
  BufferListRun(&input).Run();
  return 0;
}
