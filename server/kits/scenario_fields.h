#pragma once
// Wire records written in a scenario: a mapping of the record's fields by name (the labels the
// packet log prints, without their colon). One reader serves every record of the catalogue, so a
// field added to a record can be written without a line here. Scripts read notifications with it,
// program images their modules, synchronisation and application objects, sockets and files.
//
// A caller may take over some fields (a hook, below): program images let the fields that name a
// kernel thread take the thread's name instead of a number.

#include <limits>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/wide_string.h"
#include "requests/debug_records.h"
#include "server/kits/scenario_checks.h"

namespace qv::server {

// "Port:" -> "Port"; a padding field's empty label stays empty.
std::string FieldName(const char* label);

// Decimal, or hexadecimal after 0x, in the range of T; a minus sign for signed T.
template <class T>
T Integer(const DocNode& node, const std::string& name);

// Hex byte pairs, optionally separated by ':' or blanks: "de:ad:be:ef", "deadbeef"; no value is
// no bytes.
Bytes ByteString(const DocNode& node, const std::string& name);

// The kind a synchronisation object's `kind` names (VestaMutex, UltQueue, ...).
SyncObjectKind SyncKind(const DocNode& node);

// Takes no field over: every value is read by its type.
struct NoFieldHook {
  template <class T>
  bool operator()(const DocNode&, const std::string&, T&) const {
    return false;
  }
};

template <class T, class Hook>
void ReadValue(const DocNode& node, const std::string& name, T& value, const Hook& hook);

// The fields of `object` (a notification or a record) from `map` by field name; fields left out
// keep their zero or empty value. Keys in `also` are allowed besides the fields and left to the
// caller. `hook(node, name, field)` is asked first for every field given, nested ones too, and
// returns true when it has read the value itself.
template <class T, class Hook = NoFieldHook>
void ReadFields(const DocNode& map, const std::string& what, T& object, const Hook& hook = {},
                const std::set<std::string>& also = {}) {
  if (map.kind != DocNode::Kind::kMap) {
    Refuse(map, "'" + what + "' must be a mapping of field names");
  }
  std::set<std::string> known = also;
  T::VisitFields(object, [&](const char* label, auto& field) {
    const std::string name = FieldName(label);
    if (name.empty()) return;
    known.insert(name);
    if (const DocNode* value = Find(map, name)) ReadValue(*value, name, field, hook);
  });
  CheckKeys(map, known, ("the fields of " + what).c_str());
}

namespace detail {

template <class T>
inline constexpr bool kIsVector = false;
template <class T>
inline constexpr bool kIsVector<std::vector<T>> = true;
template <class T>
inline constexpr bool kIsOptional = false;
template <class T>
inline constexpr bool kIsOptional<std::optional<T>> = true;

// Magnitudes up to 2^64 - 1 of "[-][0x]digits"; false for anything else.
bool ParseMagnitude(const std::string& text, bool& negative, uint64_t& magnitude);

// A synchronisation object: its `kind` and that kind's record.
template <class Hook, size_t... I>
void ReadSyncObject(const DocNode& node, const std::string& name, SyncObjectRecord& value,
                    const Hook& hook, std::index_sequence<I...>) {
  if (node.kind != DocNode::Kind::kMap) {
    Refuse(node, "'" + name + "' must be a mapping with 'kind' and the object's fields");
  }
  const DocNode* kind = Find(node, "kind");
  if (kind == nullptr) Refuse(node, "'" + name + "' needs a 'kind'");
  const size_t index = static_cast<size_t>(SyncKind(*kind));
  (void)((index == I ? (ReadFields(node, std::string(kSyncObjectKindNames[I]),
                                   value.Object.template emplace<I>(), hook, {"kind"}),
                        true)
                     : false) ||
         ...);
}

}  // namespace detail

template <class T>
T Integer(const DocNode& node, const std::string& name) {
  const std::string text = Single(node, name);
  bool negative = false;
  uint64_t magnitude = 0;
  bool ok = detail::ParseMagnitude(text, negative, magnitude) && (!negative || std::is_signed_v<T>);
  if (ok && negative) {
    const uint64_t limit = static_cast<uint64_t>(-(std::numeric_limits<T>::min() + 1)) + 1;
    ok = magnitude <= limit;
  } else if (ok) {
    ok = magnitude <= static_cast<uint64_t>(std::numeric_limits<T>::max());
  }
  if (!ok) {
    Refuse(node, "'" + name + "' must be a whole number from " +
                     std::to_string(std::numeric_limits<T>::min()) + " to " +
                     std::to_string(std::numeric_limits<T>::max()) + ", not '" + text + "'");
  }
  if (negative) return static_cast<T>(-static_cast<int64_t>(magnitude - 1) - 1);
  return static_cast<T>(magnitude);
}

template <class T, class Hook>
void ReadValue(const DocNode& node, const std::string& name, T& value, const Hook& hook) {
  if (hook(node, name, value)) return;
  if constexpr (std::is_same_v<T, bool>) {
    value = Flag(node, name);
  } else if constexpr (std::is_enum_v<T>) {
    value = static_cast<T>(Integer<std::underlying_type_t<T>>(node, name));
  } else if constexpr (std::is_integral_v<T>) {
    value = Integer<T>(node, name);
  } else if constexpr (std::is_same_v<T, std::u16string>) {
    // No value is the empty text.
    value = node.kind == DocNode::Kind::kNull ? u"" : platform::Utf8ToUtf16(Single(node, name));
  } else if constexpr (std::is_same_v<T, std::string>) {
    value = node.kind == DocNode::Kind::kNull ? "" : Single(node, name);
  } else if constexpr (std::is_same_v<T, Bytes>) {
    value = ByteString(node, name);
  } else if constexpr (detail::kIsOptional<T>) {
    // No value leaves it absent.
    if (node.kind != DocNode::Kind::kNull) ReadValue(node, name, value.emplace(), hook);
  } else if constexpr (detail::kIsVector<T>) {
    if (node.kind == DocNode::Kind::kNull) return;
    if (node.kind != DocNode::Kind::kList) Refuse(node, "'" + name + "' must be a list");
    for (const DocNode& item : node.items)
      ReadValue(item, name, value.emplace_back(), hook);
  } else if constexpr (std::is_same_v<T, SyncObjectRecord>) {
    detail::ReadSyncObject(node, name, value, hook,
                           std::make_index_sequence<kSyncObjectKindCount>{});
  } else {
    static_assert(IsWireRecord<T>, "a field type without a text form");
    ReadFields(node, name, value, hook);
  }
}

}  // namespace qv::server
