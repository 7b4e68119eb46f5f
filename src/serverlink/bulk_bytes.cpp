#include "serverlink/bulk_bytes.h"

#include <cstring>

namespace qv {

BulkBytes::BulkBytes(std::vector<uint8_t> bytes) {
  auto owned = std::make_shared<const std::vector<uint8_t>>(std::move(bytes));
  data_ = owned->data();
  size_ = owned->size();
  keeper_ = std::move(owned);
}

bool operator==(const BulkBytes& a, std::span<const uint8_t> b) noexcept {
  return a.size() == b.size() && (b.empty() || std::memcmp(a.data(), b.data(), b.size()) == 0);
}

bool WireCodec<BulkBytes>::Read(MessageBuffer& buffer, BulkBytes& value) {
  uint32_t count = 0;
  if (!ReadField(buffer, count) || count > buffer.Available()) return false;
  MessageBuffer::Source* source = buffer.GetSource();
  if (count > buffer.Size() && source != nullptr) {
    // Most of the bytes are still in the pipe: they go where the waiting caller wants them.
    if (std::shared_ptr<BulkLanding> landing = source->TakeLanding()) {
      if (uint8_t* room = landing->Place(count)) {
        if (!buffer.Read(room, count)) return false;
        value = BulkBytes({room, count}, std::move(landing));
        return true;
      }
    }
  }
  if (!buffer.Ensure(count)) return false;
  value = BulkBytes(std::vector<uint8_t>(buffer.Data(), buffer.Data() + count));
  return buffer.Skip(count);
}

}  // namespace qv
