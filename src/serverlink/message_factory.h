#pragma once
// Turns a type number read from the pipe into a new, empty message object. A factory is a
// constant table sorted by type number, built at compile time from the catalogue; building it
// rejects a duplicate number (see HasDuplicateTypeNumbers).

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <string_view>

namespace qv {

template <class Base>
struct MessageFactoryEntry {
  uint32_t type_number;
  std::u16string_view name;
  std::shared_ptr<Base> (*make)();
};

template <class Base>
void DeleteMessage(Base* message) {
  delete message;
}

template <class Base, class Message>
std::shared_ptr<Base> MakeMessage() {
  // Through the base and one shared deleter, so that all messages share one control block type:
  // a control block per message class would double the compile time of the catalogue. When the
  // control block cannot be allocated, shared_ptr deletes the message itself.
  try {
    return std::shared_ptr<Base>(new Message(), &DeleteMessage<Base>);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

template <class Base, size_t N>
constexpr std::array<MessageFactoryEntry<Base>, N> SortByTypeNumber(
    std::array<MessageFactoryEntry<Base>, N> entries) {
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.type_number < b.type_number; });
  return entries;
}

template <class Base, size_t N>
constexpr bool HasDuplicateTypeNumbers(const std::array<MessageFactoryEntry<Base>, N>& sorted) {
  for (size_t i = 1; i < N; ++i) {
    if (sorted[i - 1].type_number == sorted[i].type_number) return true;
  }
  return false;
}

template <class Base>
class MessageFactory {
 public:
  constexpr explicit MessageFactory(std::span<const MessageFactoryEntry<Base>> sorted)
      : entries_(sorted) {}

  // A new message of the class registered under `type_number`; null for an unknown number or
  // when memory runs out.
  std::shared_ptr<Base> Create(uint32_t type_number) const {
    const auto* entry = Find(type_number);
    return entry != nullptr ? entry->make() : nullptr;
  }

  // The wire name registered under `type_number`, empty when unknown.
  std::u16string_view NameOf(uint32_t type_number) const {
    const auto* entry = Find(type_number);
    return entry != nullptr ? entry->name : std::u16string_view{};
  }

  std::span<const MessageFactoryEntry<Base>> Entries() const { return entries_; }

 private:
  const MessageFactoryEntry<Base>* Find(uint32_t type_number) const {
    auto it = std::lower_bound(
        entries_.begin(), entries_.end(), type_number,
        [](const MessageFactoryEntry<Base>& e, uint32_t n) { return e.type_number < n; });
    return it != entries_.end() && it->type_number == type_number ? &*it : nullptr;
  }

  std::span<const MessageFactoryEntry<Base>> entries_;
};

}  // namespace qv
