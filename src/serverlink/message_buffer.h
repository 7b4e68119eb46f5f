#pragma once
// A growable byte buffer that every wire message is built in and taken apart from.
//
//   base_                read_               write_              capacity_
//   |--- already read ---|--- readable ------|--- free room -----|
//
// Growing keeps only the unread bytes (see Grow), so offsets taken earlier are valid only
// while nothing has been read. Writers that patch earlier bytes work on write-only buffers.
//
// Two additions serve large bodies without copying them whole:
//
//   a body being sent     may refer to large runs of bytes that live elsewhere (References),
//                         when its owner asked it to (GatherLargeRuns); they go out in place
//   a body being decoded  may not have arrived whole: the rest comes from a Source as the
//                         reads ask for it, and a large read goes from the Source straight to
//                         its destination

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace qv {

class BulkLanding;
class LendablePages;

class MessageBuffer {
 public:
  // The capacity of a buffer grows in steps of this many bytes.
  static constexpr size_t kGrowthStep = 4096;
  // The shortest run of bytes that a gathering buffer refers to rather than copies.
  static constexpr size_t kMinReferencedRun = 16 * 1024;

  // A run of bytes that a body sends from where it lies, after the buffer's bytes before
  // `offset` (from the base). `keeper` keeps the bytes alive until the body has gone;
  // `lendable`, when set, lets the pipe lend their pages (lendable_pages.h).
  struct Reference {
    size_t offset = 0;
    const uint8_t* data = nullptr;
    size_t size = 0;
    std::shared_ptr<const void> keeper;
    LendablePages* lendable = nullptr;
  };

  // The rest of a body that is still arriving. Unread counts the bytes not yet handed over.
  class Source {
   public:
    virtual size_t Unread() const = 0;
    // The next `size` bytes of the body into `dest`; false when they cannot be had.
    virtual bool ReadInto(uint8_t* dest, size_t size) = 0;
    // Where the caller waiting for the message being decoded wants its large byte field, or
    // null. Taken once: a second call answers null.
    virtual std::shared_ptr<BulkLanding> TakeLanding() { return nullptr; }

   protected:
    ~Source() = default;
  };

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
  // With a Source, what the buffer lacks comes straight from it.
  bool Read(void* dest, size_t size) {
    if (size > write_ - read_) return ReadFromSource(static_cast<uint8_t*>(dest), size);
    if (size != 0) std::memcpy(dest, base_ + read_, size);
    read_ += size;
    return true;
  }
  // As Read, but leaves the read position where it was, and only over the bytes present.
  bool Peek(void* dest, size_t size) const {
    if (size > write_ - read_) return false;
    if (size != 0) std::memcpy(dest, base_ + read_, size);
    return true;
  }
  // Advances past `size` bytes; false when fewer are readable.
  bool Skip(size_t size);
  // Makes sure `size` bytes are readable in the buffer itself, taking more of the body from the
  // Source when they are not; false when there are not that many.
  bool Ensure(size_t size) { return size <= write_ - read_ || Pull(size); }
  // Readable bytes, counting those the Source has still to deliver.
  size_t Available() const { return Size() + (source_ != nullptr ? source_->Unread() : 0); }

  // The rest of the body comes from `source` (null: the buffer holds all there is). Reset
  // forgets it.
  void SetSource(Source* source) { source_ = source; }
  Source* GetSource() const { return source_; }

  // From now on, Refer keeps runs of kMinReferencedRun bytes or more as References.
  void GatherLargeRuns() { gather_ = true; }
  // Appends `size` bytes: as a Reference when this buffer gathers and the run is long enough
  // (`keeper` then keeps it alive), else copied.
  bool Refer(const uint8_t* data, size_t size, const std::shared_ptr<const void>& keeper,
             LendablePages* lendable = nullptr);
  // The runs referred to, in order of offset.
  const std::vector<Reference>& References() const { return references_; }
  // What goes out as the body: the readable bytes and every run referred to.
  size_t BodySize() const;

  size_t ReadOffset() const { return read_; }
  size_t WriteOffset() const { return write_; }
  // Readable bytes: write position minus read position.
  size_t Size() const { return write_ - read_; }
  size_t Capacity() const { return capacity_; }
  // The readable bytes.
  const uint8_t* Data() const { return base_ + read_; }
  // Both positions back to the base; the block and its capacity stay. References and the
  // Source are forgotten.
  void Reset() {
    read_ = write_ = 0;
    references_.clear();
    source_ = nullptr;
  }

 private:
  // Makes room for `size` more bytes when the free room is short (see the .cpp).
  bool Grow(size_t size);
  // Read's slow path: the bytes present, then the rest from the Source.
  bool ReadFromSource(uint8_t* dest, size_t size);
  // Takes more of the body from the Source into the buffer, at least enough for `size`
  // readable bytes; false when the body has not that many.
  bool Pull(size_t size);

  uint8_t* base_ = nullptr;
  size_t capacity_ = 0;
  size_t read_ = 0;
  size_t write_ = 0;
  bool valid_ = true;
  bool gather_ = false;
  std::vector<Reference> references_;
  Source* source_ = nullptr;  // not owned
};

}  // namespace qv
