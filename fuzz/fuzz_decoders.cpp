// Feeds arbitrary bytes to every response, notification and request decoder through the
// factories. The first byte picks the factory, the next two the message class; the rest is the
// body. A decoder must never read past its buffer, allocate beyond what the bytes justify or
// crash; and whatever decodes must encode again to bytes that decode to the same message. A
// response read in part (the rest of its body still to come, a large byte field landing
// elsewhere, as the library's reader takes large bodies) must decode as the whole body does.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "api/byte_array_landing.h"
#include "requests/catalogue.h"
#include "requests/notifications.h"

namespace {

template <class Factory>
void Exercise(const Factory& factory, uint16_t pick, const uint8_t* body, size_t size) {
  const auto entries = factory.Entries();
  const auto& entry = entries[pick % entries.size()];
  auto message = factory.Create(entry.type_number);
  if (message == nullptr) std::abort();
  qv::MessageBuffer input(body, size);
  if (!message->Deserialize(input)) return;

  const std::string rendered = message->ToString();
  qv::MessageBuffer encoded;
  if (!message->Serialize(encoded)) std::abort();
  auto again = factory.Create(entry.type_number);
  if (!again->Deserialize(encoded) || encoded.Size() != 0) std::abort();
  if (again->ToString() != rendered) std::abort();
}

class RestOfBody final : public qv::MessageBuffer::Source {
 public:
  RestOfBody(const uint8_t* rest, size_t size) : rest_(rest), size_(size) {}
  size_t Unread() const override { return size_; }
  bool ReadInto(uint8_t* dest, size_t size) override {
    if (size > size_) return false;
    if (size != 0) std::memcpy(dest, rest_, size);
    rest_ += size;
    size_ -= size;
    return true;
  }
  std::shared_ptr<qv::BulkLanding> TakeLanding() override {
    return std::exchange(landing_, nullptr);
  }

 private:
  const uint8_t* rest_;
  size_t size_;
  std::shared_ptr<qv::BulkLanding> landing_ = qv::ByteArrayLanding::Make(SIZE_MAX);
};

void ExerciseInPart(uint16_t pick, size_t head, const uint8_t* body, size_t size) {
  const auto entries = qv::ResponseFactory().Entries();
  const uint32_t type_number = entries[pick % entries.size()].type_number;
  auto whole = qv::ResponseFactory().Create(type_number);
  qv::MessageBuffer all(body, size);
  const bool decoded = whole->Deserialize(all);

  head = std::min(head, size);
  auto in_part = qv::ResponseFactory().Create(type_number);
  qv::MessageBuffer first(body, head);
  RestOfBody rest(body + head, size - head);
  first.SetSource(&rest);
  if (in_part->Deserialize(first) != decoded) std::abort();
  if (decoded && in_part->ToString() != whole->ToString()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const uint16_t pick = static_cast<uint16_t>(data[1] | (data[2] << 8));
  switch (data[0] % 4) {
    case 0:
      Exercise(qv::ResponseFactory(), pick, data + 3, size - 3);
      break;
    case 1:
      Exercise(qv::NotificationFactory(), pick, data + 3, size - 3);
      break;
    case 2:
      Exercise(qv::RequestFactory(), pick, data + 3, size - 3);
      break;
    default:
      ExerciseInPart(pick, size_t{data[0]} / 4 * 16, data + 3, size - 3);
      break;
  }
  return 0;
}
