#include "serverlink/message_buffer.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <new>
#include <utility>

namespace qv {

namespace {

size_t RoundUpToStep(size_t size) {
  return (size + MessageBuffer::kGrowthStep - 1) / MessageBuffer::kGrowthStep *
         MessageBuffer::kGrowthStep;
}

}  // namespace

MessageBuffer::MessageBuffer(const void* data, size_t size) {
  if (size == 0) return;
  const size_t capacity = RoundUpToStep(size);
  base_ = new (std::nothrow) uint8_t[capacity];
  if (base_ == nullptr) {
    valid_ = false;
    return;
  }
  capacity_ = capacity;
  std::memcpy(base_, data, size);
  write_ = size;
}

MessageBuffer::MessageBuffer(MessageBuffer&& other) noexcept
    : base_(std::exchange(other.base_, nullptr)),
      capacity_(std::exchange(other.capacity_, 0)),
      read_(std::exchange(other.read_, 0)),
      write_(std::exchange(other.write_, 0)),
      valid_(std::exchange(other.valid_, true)),
      gather_(std::exchange(other.gather_, false)),
      references_(std::move(other.references_)),
      source_(std::exchange(other.source_, nullptr)) {}

MessageBuffer& MessageBuffer::operator=(MessageBuffer&& other) noexcept {
  if (this != &other) {
    delete[] base_;
    base_ = std::exchange(other.base_, nullptr);
    capacity_ = std::exchange(other.capacity_, 0);
    read_ = std::exchange(other.read_, 0);
    write_ = std::exchange(other.write_, 0);
    valid_ = std::exchange(other.valid_, true);
    gather_ = std::exchange(other.gather_, false);
    references_ = std::move(other.references_);
    other.references_.clear();
    source_ = std::exchange(other.source_, nullptr);
  }
  return *this;
}

MessageBuffer::~MessageBuffer() {
  delete[] base_;
}

// When the free room is short, the capacity grows by the shortfall rounded up to the growth step,
// and only the unread bytes move to the start of the new block.
bool MessageBuffer::Grow(size_t size) {
  const size_t room = capacity_ - write_;
  if (room >= size) return true;
  const size_t shortfall = size - room;
  if (shortfall > SIZE_MAX - kGrowthStep - capacity_) return false;
  const size_t capacity = capacity_ + RoundUpToStep(shortfall);
  auto* block = new (std::nothrow) uint8_t[capacity];
  if (block == nullptr) return false;
  const size_t unread = write_ - read_;
  if (unread != 0) std::memcpy(block, base_ + read_, unread);
  delete[] base_;
  base_ = block;
  capacity_ = capacity;
  // References stand between written bytes, which moved down by the bytes already read.
  for (Reference& reference : references_)
    reference.offset -= std::min(reference.offset, read_);
  read_ = 0;
  write_ = unread;
  return true;
}

uint8_t* MessageBuffer::Reserve(size_t size) {
  if (!Grow(size)) return nullptr;
  // An empty reservation on a buffer without a block still answers non-null: null means failure.
  static uint8_t no_bytes;
  if (base_ == nullptr) return &no_bytes;
  uint8_t* start = base_ + write_;
  write_ += size;
  return start;
}

void MessageBuffer::WriteAt(size_t offset, const void* data, size_t size) {
  assert(offset + size <= write_);
  std::memcpy(base_ + offset, data, size);
}

bool MessageBuffer::Skip(size_t size) {
  if (!Ensure(size)) return false;
  read_ += size;
  return true;
}

bool MessageBuffer::ReadFromSource(uint8_t* dest, size_t size) {
  const size_t present = write_ - read_;
  if (source_ == nullptr || size - present > source_->Unread()) return false;
  if (present != 0) std::memcpy(dest, base_ + read_, present);
  if (!source_->ReadInto(dest + present, size - present)) return false;
  read_ = write_;
  return true;
}

bool MessageBuffer::Pull(size_t size) {
  const size_t present = write_ - read_;
  if (source_ == nullptr || size - present > source_->Unread()) return false;
  // At least a step's worth at a time, so that small fields do not cost a read each; no more,
  // so that a large byte field further on still finds most of its bytes in the pipe.
  constexpr size_t kPullStep = 64 * 1024;
  const size_t take = std::min(source_->Unread(), std::max(size - present, kPullStep));
  if (!Grow(take)) return false;
  if (!source_->ReadInto(base_ + write_, take)) return false;
  write_ += take;
  return true;
}

bool MessageBuffer::Refer(const uint8_t* data, size_t size,
                          const std::shared_ptr<const void>& keeper, LendablePages* lendable) {
  if (!gather_ || size < kMinReferencedRun || keeper == nullptr) return Write(data, size);
  try {
    references_.push_back({write_, data, size, keeper, lendable});
    return true;
  } catch (const std::bad_alloc&) {
    return Write(data, size);
  }
}

size_t MessageBuffer::BodySize() const {
  size_t size = Size();
  for (const Reference& reference : references_)
    size += reference.size;
  return size;
}

}  // namespace qv
