#pragma once
// Declaring a wire record once. A field list is a sequence of (type, Name, "Label:") triples:
//
//   VEKX_RECORD(MemoryRange, (uint64_t, BaseAddress, "BaseAddress:")(uint64_t, Size, "Size:"))
//
// expands to a struct with those members (value-initialised) and a VisitFields function that
// hands every field with its label to a visitor, in order. Encoding, decoding and the log
// rendering (wire_fields.h) are all driven by VisitFields, so they cannot drift apart. A type
// with a comma in it needs an alias first. A field whose label is empty is padding: it travels
// but is not rendered.

#include <cstddef>
#include <type_traits>

#define VEKX_PP_CAT(a, b) VEKX_PP_CAT_I(a, b)
#define VEKX_PP_CAT_I(a, b) a##b

// Walks a (t, n, l)(t, n, l)... sequence by alternating two macros; the last one left standing
// is pasted with _END, which expands to nothing.
#define VEKX_FIELD_MEMBERS(seq) VEKX_PP_CAT(VEKX_FIELD_MEMBERS_A seq, _END)
#define VEKX_FIELD_MEMBERS_A(type, name, label) \
  type name{};                                  \
  VEKX_FIELD_MEMBERS_B
#define VEKX_FIELD_MEMBERS_B(type, name, label) \
  type name{};                                  \
  VEKX_FIELD_MEMBERS_A
#define VEKX_FIELD_MEMBERS_A_END
#define VEKX_FIELD_MEMBERS_B_END

#define VEKX_FIELD_VISITS(seq) VEKX_PP_CAT(VEKX_FIELD_VISITS_A seq, _END)
#define VEKX_FIELD_VISITS_A(type, name, label) \
  visit(label, self.name);                     \
  VEKX_FIELD_VISITS_B
#define VEKX_FIELD_VISITS_B(type, name, label) \
  visit(label, self.name);                     \
  VEKX_FIELD_VISITS_A
#define VEKX_FIELD_VISITS_A_END
#define VEKX_FIELD_VISITS_B_END

#define VEKX_FIELD_MIN_SIZES(seq) VEKX_PP_CAT(VEKX_FIELD_MIN_SIZES_A seq, _END)
#define VEKX_FIELD_MIN_SIZES_A(type, name, label) +::qv::MinWireSize<type>() VEKX_FIELD_MIN_SIZES_B
#define VEKX_FIELD_MIN_SIZES_B(type, name, label) +::qv::MinWireSize<type>() VEKX_FIELD_MIN_SIZES_A
#define VEKX_FIELD_MIN_SIZES_A_END
#define VEKX_FIELD_MIN_SIZES_B_END

// The members, the visitor and the minimum encoded size of a field list, for use inside a class.
#define VEKX_FIELDS(seq)                                                                      \
  VEKX_FIELD_MEMBERS(seq)                                                                     \
  static constexpr size_t kOwnWireMinSize = 0 VEKX_FIELD_MIN_SIZES(seq);                      \
  template <class Self, class Visitor>                                                        \
  static void VisitOwnFields([[maybe_unused]] Self& self, [[maybe_unused]] Visitor&& visit) { \
    VEKX_FIELD_VISITS(seq)                                                                    \
  }

#define VEKX_RECORD_COMMON(Name, kind, seq)                     \
  static constexpr ::qv::WireRecordKind kWireRecordKind = kind; \
  VEKX_FIELDS(seq)                                              \
  template <class Self, class Visitor>                          \
  static void VisitFields(Self& self, Visitor&& visit) {        \
    VisitOwnFields(self, visit);                                \
  }                                                             \
  bool operator==(const Name&) const = default;

// A record encoded field by field.
#define VEKX_RECORD(Name, seq)                                   \
  struct Name {                                                  \
    VEKX_RECORD_COMMON(Name, ::qv::WireRecordKind::kFields, seq) \
  }

// A record sent as its memory image; `size` is its size in bytes, padding included, and every
// padding byte must be a declared member so that the image is fully defined.
#define VEKX_PLAIN_RECORD(Name, size, seq)                            \
  struct Name {                                                       \
    VEKX_RECORD_COMMON(Name, ::qv::WireRecordKind::kPlain, seq)       \
  };                                                                  \
  static_assert(sizeof(Name) == (size), #Name " has the wrong size"); \
  static_assert(std::has_unique_object_representations_v<Name>, #Name " has undeclared padding")

namespace qv {

enum class WireRecordKind { kFields, kPlain };

template <class T>
inline constexpr bool IsWireRecord = requires {
  T::kWireRecordKind;
};

template <class T>
inline constexpr bool IsPlainWireRecord = [] {
  if constexpr (IsWireRecord<T>) {
    return T::kWireRecordKind == WireRecordKind::kPlain;
  } else {
    return false;
  }
}();

template <class T>
constexpr size_t RecordMinWireSize() {
  if constexpr (IsPlainWireRecord<T>) {
    return sizeof(T);
  } else {
    return T::kOwnWireMinSize > 0 ? T::kOwnWireMinSize : 1;
  }
}

}  // namespace qv
