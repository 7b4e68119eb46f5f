#pragma once
// A byte field that may be large (memory contents). On the wire it is a byte array (u32 count,
// then the bytes); what differs is that the bytes need not be copied on their way through:
//
//   sending    the value refers to bytes that live elsewhere (a region of a process, a backend's
//              buffer) and a body that gathers (MessageBuffer::GatherLargeRuns) sends them from
//              there
//   receiving  when the caller waiting for the answer offered a landing (a safe array it will
//              hand out), the bytes go from the pipe straight into it; otherwise into a buffer of
//              their own, as any byte array's
//
// A value holds its bytes through a keeper that owns them, so it may outlive what it came from.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "serverlink/lendable_pages.h"
#include "serverlink/message_buffer.h"
#include "serverlink/wire_fields.h"

namespace qv {

// Where the bytes of a large byte field go when they arrive: made by the caller that waits for
// the answer, filled on the read thread.
class BulkLanding {
 public:
  virtual ~BulkLanding() = default;
  // Room for exactly `size` bytes, or null when this landing cannot take that many. Called at
  // most once.
  virtual uint8_t* Place(size_t size) noexcept = 0;
};

class BulkBytes {
 public:
  BulkBytes() = default;
  // Owns `bytes`. Throws std::bad_alloc like the vector it keeps.
  explicit BulkBytes(std::vector<uint8_t> bytes);
  // Refers to `bytes`, which `keeper` keeps alive; `lendable`, when given, lets a pipe lend their
  // pages rather than copy them (its owner is `keeper`).
  BulkBytes(std::span<const uint8_t> bytes, std::shared_ptr<const void> keeper,
            LendablePages* lendable = nullptr) noexcept
      : keeper_(std::move(keeper)), data_(bytes.data()), size_(bytes.size()), lendable_(lendable) {}

  std::span<const uint8_t> bytes() const noexcept { return {data_, size_}; }
  const uint8_t* data() const noexcept { return data_; }
  size_t size() const noexcept { return size_; }
  const std::shared_ptr<const void>& keeper() const noexcept { return keeper_; }
  LendablePages* lendable() const noexcept { return lendable_; }
  // Whether the bytes arrived in `landing` rather than in a buffer of their own.
  bool LandedIn(const BulkLanding& landing) const noexcept {
    return size_ != 0 && keeper_.get() == static_cast<const void*>(&landing);
  }

  friend bool operator==(const BulkBytes& a, std::span<const uint8_t> b) noexcept;
  friend bool operator==(const BulkBytes& a, const BulkBytes& b) noexcept { return a == b.bytes(); }
  friend bool operator==(const BulkBytes& a, const std::vector<uint8_t>& b) noexcept {
    return a == std::span<const uint8_t>(b);
  }

 private:
  std::shared_ptr<const void> keeper_;
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
  LendablePages* lendable_ = nullptr;
};

template <>
struct WireCodec<BulkBytes> {
  static constexpr size_t kMinSize = 4;

  static bool Write(MessageBuffer& buffer, const BulkBytes& value) {
    if (value.size() > UINT32_MAX) return false;
    return WriteField(buffer, static_cast<uint32_t>(value.size())) &&
           buffer.Refer(value.data(), value.size(), value.keeper(), value.lendable());
  }

  static bool Read(MessageBuffer& buffer, BulkBytes& value);

  static void Render(std::string& out, const BulkBytes& value) {
    RenderList<uint8_t>(out, value.bytes());
  }
};

}  // namespace qv
