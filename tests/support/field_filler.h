#pragma once
// Values for every field of a wire message or record, for round trips that must carry each field.

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "serverlink/bulk_bytes.h"
#include "serverlink/wire_record.h"

namespace qv::testing {

// Gives the fields of a message distinct values that are not their defaults: integers draw from a
// sequence with high bits set, strings and lists get content, optional values are present.
class FieldFiller {
 public:
  template <class T>
  void operator()(const char*, T& field) {
    Fill(field);
  }

  template <class T>
  void Fill(T& field) {
    if constexpr (std::is_same_v<T, bool>) {
      field = true;
    } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
      field = static_cast<T>(Next());
    } else if constexpr (std::is_same_v<T, std::u16string>) {
      field = u"f\u00e9";
      field += static_cast<char16_t>(u'a' + Next() % 26);
    } else if constexpr (std::is_same_v<T, std::string>) {
      field = "n";
      field += static_cast<char>('a' + Next() % 26);
    } else if constexpr (IsWireRecord<T>) {
      T::VisitFields(field, *this);
    } else {
      FillContainer(field);
    }
  }

 private:
  // Types with a codec of their own (a tagged union) keep their default value.
  template <class T>
  void FillContainer(T&) {}
  template <class T>
  void FillContainer(std::optional<T>& field) {
    Fill(field.emplace());
  }
  void FillContainer(BulkBytes& field) { field = BulkBytes(std::vector<uint8_t>{0x5a, 0xa5}); }
  template <class T>
  void FillContainer(std::vector<T>& field) {
    field.resize(2);
    for (T& element : field)
      Fill(element);
  }

  uint64_t Next() { return 0x8070605040302010u + 0x0101010101010101u * ++counter_; }

  uint64_t counter_ = 0;
};

// A `T` whose every field holds a value of the FieldFiller's.
template <class T>
T Filled() {
  T value{};
  FieldFiller().Fill(value);
  return value;
}

}  // namespace qv::testing
