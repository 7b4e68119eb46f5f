#pragma once
// Block-structured streams over a message buffer, for the target's own protocol records
// (controller state recordings). A block is a u32 length, counting its own four bytes and its
// contents but not the zero padding that the writer appends to reach a multiple of four:
//
//   | length = 4 + n | n content bytes | 0..3 zero bytes |
//
// The reading side's EndBlock skips to the recorded end only, not over the writer's padding: the
// two sides are deliberately asymmetric, and readers that need the padding gone use an aligned
// region around the block. Blocks and aligned regions nest (each side keeps a stack of each).

#include <cstdint>
#include <vector>

#include "serverlink/message_buffer.h"

namespace qv {

class CLumoStream {
 public:
  explicit CLumoStream(MessageBuffer& buffer) : buffer_(buffer) {}
  CLumoStream(const CLumoStream&) = delete;
  CLumoStream& operator=(const CLumoStream&) = delete;
  virtual ~CLumoStream() = default;
  virtual bool BeginBlock() = 0;
  virtual bool EndBlock() = 0;
  virtual bool BeginAligned() = 0;
  virtual bool EndAligned() = 0;

  // The buffer the stream works on (not owned); fields go through the field functions on it.
  MessageBuffer& Buffer() { return buffer_; }

 protected:
  MessageBuffer& buffer_;
  std::vector<uint64_t> blocks_;   // writer: block starts; reader: block ends
  std::vector<uint64_t> aligned_;  // start offsets of the open aligned regions
};

class CLumoOStream final : public CLumoStream {
 public:
  using CLumoStream::CLumoStream;
  // Remembers where the block starts; the caller's first write must be the u32 length
  // placeholder that EndBlock patches.
  bool BeginBlock() override;
  // Patches the length and pads with zeros to a multiple of four. False without an open block
  // or when the padding cannot be written.
  bool EndBlock() override;
  bool BeginAligned() override;
  // Pads the region with zeros to a multiple of four.
  bool EndAligned() override;
};

class CLumoIStream final : public CLumoStream {
 public:
  using CLumoStream::CLumoStream;
  // Records where the block ends from its length word, which stays unread for the caller. Fails
  // (setting the failed flag) once the stream has failed or when no length word is left.
  bool BeginBlock() override;
  // Skips what the reader left of the block; a reader that went past the block's end, or a block
  // that claims more bytes than are left, sets the failed flag.
  bool EndBlock() override;
  bool BeginAligned() override;
  // Skips the region's padding; running out of bytes returns false but leaves the flag alone.
  bool EndAligned() override;

  // Sticky: once set, it stays set.
  bool Failed() const { return failed_; }

 private:
  bool failed_ = false;
};

}  // namespace qv
