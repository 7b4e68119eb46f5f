// Feeds arbitrary bytes to every response, notification and request decoder through the
// factories. The first byte picks the factory, the next two the message class; the rest is the
// body. A decoder must never read past its buffer, allocate beyond what the bytes justify or
// crash; and whatever decodes must encode again to bytes that decode to the same message.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const uint16_t pick = static_cast<uint16_t>(data[1] | (data[2] << 8));
  switch (data[0] % 3) {
    case 0:
      Exercise(qv::ResponseFactory(), pick, data + 3, size - 3);
      break;
    case 1:
      Exercise(qv::NotificationFactory(), pick, data + 3, size - 3);
      break;
    default:
      Exercise(qv::RequestFactory(), pick, data + 3, size - 3);
      break;
  }
  return 0;
}
