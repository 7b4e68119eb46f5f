#pragma once
// A growable byte buffer that every wire message is built in and taken apart from.
//
//   base_                read_               write_              capacity_
//   |--- already read ---|--- readable ------|--- free room -----|
//
// Growing keeps only the unread bytes (see Grow), so offsets taken earlier are valid only
// while nothing has been read. Writers that patch earlier bytes work on write-only buffers.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qv {

class MessageBuffer {
 public:
  // The capacity of a buffer grows in steps of this many bytes.
  static constexpr size_t kGrowthStep = 4096;

  MessageBuffer() = default;
  // Copies `size` bytes in; the capacity is `size` rounded up to a multiple of kGrowthStep. When
  // the copy cannot be allocated the buffer stays empty and Valid() is false.
  MessageBuffer(const void* data, size_t size);
  MessageBuffer(const MessageBuffer&) = delete;
  MessageBuffer& operator=(const MessageBuffer&) = delete;
  MessageBuffer(MessageBuffer&& other) noexcept;
  MessageBuffer& operator=(MessageBuffer&& other) noexcept;
  ~MessageBuffer();

  // False only when a constructor's copy could not be allocated.
  bool Valid() const { return valid_; }

  // Appends `size` bytes; false (and nothing written) when the room cannot be allocated.
  bool Write(const void* data, size_t size) {
    if (size > capacity_ - write_ && !Grow(size)) return false;
    if (size != 0) std::memcpy(base_ + write_, data, size);
    write_ += size;
    return true;
  }
  // Takes `size` bytes of room, advances the write position past them and returns where they
  // start, so that a reader of the pipe can fill them in place. Null when out of memory.
  uint8_t* Reserve(size_t size);
  // Overwrites bytes already written at `offset` from the base. No bounds check beyond a debug
  // assertion: callers only patch what they wrote.
  void WriteAt(size_t offset, const void* data, size_t size);

  // Copies `size` bytes out and advances; false and nothing moved when fewer are readable.
  bool Read(void* dest, size_t size) {
    if (!Peek(dest, size)) return false;
    read_ += size;
    return true;
  }
  // As Read, but leaves the read position where it was.
  bool Peek(void* dest, size_t size) const {
    if (size > write_ - read_) return false;
    if (size != 0) std::memcpy(dest, base_ + read_, size);
    return true;
  }
  // Advances past `size` bytes; false when fewer are readable.
  bool Skip(size_t size);

  size_t ReadOffset() const { return read_; }
  size_t WriteOffset() const { return write_; }
  // Readable bytes: write position minus read position.
  size_t Size() const { return write_ - read_; }
  size_t Capacity() const { return capacity_; }
  // The readable bytes.
  const uint8_t* Data() const { return base_ + read_; }
  // Both positions back to the base; the block and its capacity stay.
  void Reset() { read_ = write_ = 0; }

 private:
  // Makes room for `size` more bytes when the free room is short (see the .cpp).
  bool Grow(size_t size);

  uint8_t* base_ = nullptr;
  size_t capacity_ = 0;
  size_t read_ = 0;
  size_t write_ = 0;
  bool valid_ = true;
};

}  // namespace qv
