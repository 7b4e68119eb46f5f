// Kit scripts: the notifications a scenario makes the server push. One reader serves the whole
// catalogue: the fields of a step are set through its notification class's field visitor, by the
// field names (the labels without their colon), so a notification added to the catalogue can be
// scripted without a line here.
#include "server/kits/scenario_script.h"

#include <array>
#include <chrono>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/wide_string.h"
#include "server/kits/scenario_checks.h"
#include "serverlink/message_buffer.h"
#include "serverlink/wire_fields.h"

namespace qv::server {
namespace {

using Kind = DocNode::Kind;

constexpr std::string_view kTargetKey = "TargetKey";

// "Port:" -> "Port"; a padding field's empty label stays empty.
std::string FieldName(const char* label) {
  std::string name(label);
  if (!name.empty() && name.back() == ':') name.pop_back();
  return name;
}

template <class T>
void ReadValue(const DocNode& node, const std::string& name, T& value);

// The fields of `object` (a notification or a record) from a mapping by field name. Fields the
// mapping leaves out keep their zero or empty value.
template <class T>
void ReadFields(const DocNode& map, const std::string& what, T& object) {
  if (map.kind != Kind::kMap) Refuse(map, "'" + what + "' must be a mapping of field names");
  std::set<std::string> known;
  T::VisitFields(object, [&](const char* label, auto& field) {
    const std::string name = FieldName(label);
    if (name.empty()) return;
    known.insert(name);
    if (const DocNode* value = Find(map, name)) ReadValue(*value, name, field);
  });
  CheckKeys(map, known, ("the fields of " + what).c_str());
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Decimal, or hexadecimal after 0x; a minus sign for signed fields.
template <class T>
T Integer(const DocNode& node, const std::string& name) {
  const std::string text = Single(node, name);
  const std::string range = std::to_string(std::numeric_limits<T>::min()) + " to " +
                            std::to_string(std::numeric_limits<T>::max());
  const auto refuse = [&] {
    Refuse(node, "'" + name + "' must be a whole number from " + range + ", not '" + text + "'");
  };
  size_t pos = 0;
  const bool negative = !text.empty() && text[0] == '-';
  if (negative) {
    if (!std::is_signed_v<T>) refuse();
    ++pos;
  }
  unsigned base = 10;
  if (text.compare(pos, 2, "0x") == 0 || text.compare(pos, 2, "0X") == 0) {
    base = 16;
    pos += 2;
  }
  if (pos == text.size()) refuse();
  // Magnitudes up to 2^64 - 1; the type's range is checked after.
  uint64_t magnitude = 0;
  for (; pos < text.size(); ++pos) {
    const int digit = HexDigit(text[pos]);
    if (digit < 0 || static_cast<unsigned>(digit) >= base) refuse();
    if (magnitude > (std::numeric_limits<uint64_t>::max() - static_cast<unsigned>(digit)) / base) {
      refuse();
    }
    magnitude = magnitude * base + static_cast<unsigned>(digit);
  }
  if (negative) {
    const uint64_t limit = static_cast<uint64_t>(-(std::numeric_limits<T>::min() + 1)) + 1;
    if (magnitude > limit) refuse();
    return static_cast<T>(-static_cast<int64_t>(magnitude - 1) - 1);
  }
  if (magnitude > static_cast<uint64_t>(std::numeric_limits<T>::max())) refuse();
  return static_cast<T>(magnitude);
}

// Hex byte pairs, optionally separated by ':' or blanks: "de:ad:be:ef", "deadbeef".
Bytes ByteString(const DocNode& node, const std::string& name) {
  if (node.kind == Kind::kNull) return {};
  const std::string text = Single(node, name);
  Bytes bytes;
  for (size_t i = 0; i < text.size();) {
    if (text[i] == ':' || text[i] == ' ') {
      ++i;
      continue;
    }
    const int high = HexDigit(text[i]);
    const int low = i + 1 < text.size() ? HexDigit(text[i + 1]) : -1;
    if (high < 0 || low < 0) {
      Refuse(node,
             "'" + name + "' must be hex byte pairs (for example de:ad:be:ef), not '" + text + "'");
    }
    bytes.push_back(static_cast<uint8_t>(high * 16 + low));
    i += 2;
  }
  return bytes;
}

template <class T>
inline constexpr bool kIsVector = false;
template <class T>
inline constexpr bool kIsVector<std::vector<T>> = true;
template <class T>
inline constexpr bool kIsOptional = false;
template <class T>
inline constexpr bool kIsOptional<std::optional<T>> = true;

template <class T>
void ReadValue(const DocNode& node, const std::string& name, T& value) {
  if constexpr (std::is_same_v<T, bool>) {
    value = Flag(node, name);
  } else if constexpr (std::is_enum_v<T>) {
    value = static_cast<T>(Integer<std::underlying_type_t<T>>(node, name));
  } else if constexpr (std::is_integral_v<T>) {
    value = Integer<T>(node, name);
  } else if constexpr (std::is_same_v<T, std::u16string>) {
    // No value is the empty text.
    value = node.kind == Kind::kNull ? u"" : platform::Utf8ToUtf16(Single(node, name));
  } else if constexpr (std::is_same_v<T, std::string>) {
    value = node.kind == Kind::kNull ? "" : Single(node, name);
  } else if constexpr (std::is_same_v<T, Bytes>) {
    value = ByteString(node, name);
  } else if constexpr (kIsOptional<T>) {
    // No value leaves it absent.
    if (node.kind != Kind::kNull) ReadValue(node, name, value.emplace());
  } else if constexpr (kIsVector<T>) {
    if (node.kind == Kind::kNull) return;
    if (node.kind != Kind::kList) Refuse(node, "'" + name + "' must be a list");
    for (const DocNode& item : node.items) {
      ReadValue(item, name, value.emplace_back());
    }
  } else if constexpr (IsWireRecord<T>) {
    ReadFields(node, name, value);
  } else {
    // A thread's wait object (a record of one of many kinds) has no text form yet.
    Refuse(node, "'" + name + "' cannot be given in a script; leave it out and it stays empty");
  }
}

// What the reader and the sender need of one notification class.
struct ScriptedKind {
  std::string_view wire_name;
  uint32_t type_number;
  // Encodes the step's fields into its body; sets `target_key_given` when they name TargetKey and
  // `has_placeholders` when a text field holds '{'.
  void (*encode)(const DocNode* fields, ScriptStep& step);
  std::shared_ptr<CNotification> (*make)(const ScriptStep& step, uint32_t target_key,
                                         uint32_t repetition);
};

template <class Notification>
void EncodeFields(const DocNode* fields, ScriptStep& step) {
  Notification notification;
  if (fields != nullptr && fields->kind != Kind::kNull) {
    ReadFields(*fields, platform::Utf16ToUtf8(std::u16string(Notification::kName)), notification);
    step.target_key_given = Find(*fields, kTargetKey) != nullptr;
  }
  Notification::VisitFields(notification, [&](const char*, auto& field) {
    if constexpr (std::is_same_v<std::decay_t<decltype(field)>, std::u16string>) {
      if (field.find(u'{') != std::u16string::npos) step.has_placeholders = true;
    }
  });
  MessageBuffer buffer;
  if (!notification.Serialize(buffer)) {
    throw DocumentError{fields != nullptr ? fields->line : 1, "the fields do not fit in a message"};
  }
  step.body.assign(buffer.Data(), buffer.Data() + buffer.Size());
}

// Replaces every `{time_ns}` and `{n}` of `text`; any other '{' stays as it is.
void ExpandPlaceholders(std::u16string& text, uint64_t time_ns, uint32_t repetition) {
  static constexpr std::u16string_view kTime = u"{time_ns}";
  static constexpr std::u16string_view kRepetition = u"{n}";
  std::u16string expanded;
  size_t from = 0;
  for (size_t at = text.find(u'{'); at != std::u16string::npos; at = text.find(u'{', at)) {
    const std::u16string_view rest = std::u16string_view(text).substr(at);
    const size_t length = rest.starts_with(kTime)         ? kTime.size()
                          : rest.starts_with(kRepetition) ? kRepetition.size()
                                                          : 0;
    if (length == 0) {
      ++at;
      continue;
    }
    expanded.append(text, from, at - from);
    expanded +=
        platform::Utf8ToUtf16(std::to_string(length == kTime.size() ? time_ns : repetition));
    at += length;
    from = at;
  }
  if (from == 0) return;
  expanded.append(text, from);
  text = std::move(expanded);
}

template <class Notification>
std::shared_ptr<CNotification> Make(const ScriptStep& step, uint32_t target_key,
                                    uint32_t repetition) {
  auto notification = std::make_shared<Notification>();
  MessageBuffer buffer(step.body.data(), step.body.size());
  if (!notification->Deserialize(buffer)) return nullptr;
  const uint64_t now_ns =
      step.has_placeholders
          ? static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                      std::chrono::steady_clock::now().time_since_epoch())
                                      .count())
          : 0;
  Notification::VisitFields(*notification, [&](const char* label, auto& field) {
    using Field = std::decay_t<decltype(field)>;
    if constexpr (std::is_same_v<Field, uint32_t>) {
      if (!step.target_key_given && FieldName(label) == kTargetKey) field = target_key;
    } else if constexpr (std::is_same_v<Field, std::u16string>) {
      if (step.has_placeholders) ExpandPlaceholders(field, now_ns, repetition);
    }
  });
  return notification;
}

constexpr ScriptedKind kScriptedKinds[] = {
#define VEKX_NOTIFICATION(Camel, WIRE, number, Base, Group, Slot, SinkInterface, SinkMethod, \
                          DispId, fields)                                                    \
  {#WIRE, number, &EncodeFields<C##Camel##Notification>, &Make<C##Camel##Notification>},
#include "requests/notifications.def"
};
static_assert(std::size(kScriptedKinds) == kNotificationCount);

const ScriptedKind* FindKind(std::string_view wire_name) {
  for (const ScriptedKind& kind : kScriptedKinds) {
    if (kind.wire_name == wire_name) return &kind;
  }
  return nullptr;
}

const ScriptedKind* FindKind(uint32_t type_number) {
  for (const ScriptedKind& kind : kScriptedKinds) {
    if (kind.type_number == type_number) return &kind;
  }
  return nullptr;
}

uint32_t Count(const DocNode& node, const std::string& key) {
  const uint32_t count = Integer<uint32_t>(node, key);
  if (count == 0) Refuse(node, "'" + key + "' must be at least 1");
  return count;
}

ScriptStep ReadStep(const DocNode& node) {
  if (node.kind != Kind::kMap) Refuse(node, "each step must be a mapping with 'notification'");
  CheckKeys(node, {"notification", "after_ms", "repeat", "fields"}, "a step");
  const DocNode* name = Find(node, "notification");
  if (name == nullptr) Refuse(node, "a step needs a 'notification'");
  const std::string wire_name = Single(*name, "notification");
  const ScriptedKind* kind = FindKind(wire_name);
  if (kind == nullptr) Refuse(*name, "unknown notification '" + wire_name + "'");
  const auto route = FindNotificationRoute(kind->type_number);
  if (!route.has_value() || route->group == EventGroup::None) {
    Refuse(*name, "'" + wire_name + "' reaches no subscriber, so a script cannot send it");
  }
  ScriptStep step;
  step.type_number = kind->type_number;
  kind->encode(Find(node, "fields"), step);
  if (const DocNode* value = Find(node, "after_ms"))
    step.after_ms = Milliseconds(*value, "after_ms");
  if (const DocNode* value = Find(node, "repeat")) step.repeat = Count(*value, "repeat");
  return step;
}

KitScript ReadScript(const DocNode& node) {
  if (node.kind != Kind::kMap) Refuse(node, "each script must be a mapping with 'steps'");
  CheckKeys(node, {"trigger", "steps"}, "a script");
  KitScript script;
  if (const DocNode* trigger = Find(node, "trigger")) {
    const std::string value = Single(*trigger, "trigger");
    if (value == "server_start") {
      script.trigger = ScriptTrigger::kServerStart;
    } else if (value != "first_subscription") {
      Refuse(*trigger, "'trigger' must be server_start or first_subscription, not '" + value + "'");
    }
  }
  const DocNode* steps = Find(node, "steps");
  if (steps == nullptr || steps->kind != Kind::kList || steps->items.empty()) {
    Refuse(steps != nullptr ? *steps : node, "a script needs a list of 'steps'");
  }
  for (const DocNode& step : steps->items)
    script.steps.push_back(ReadStep(step));
  return script;
}

}  // namespace

std::vector<KitScript> ReadScripts(const DocNode& node) {
  if (node.kind == Kind::kNull) return {};
  if (node.kind != Kind::kList) Refuse(node, "'scripts' must be a list");
  std::vector<KitScript> scripts;
  for (const DocNode& script : node.items)
    scripts.push_back(ReadScript(script));
  return scripts;
}

std::shared_ptr<CNotification> ScriptedNotification(const ScriptStep& step, uint32_t target_key,
                                                    uint32_t repetition) {
  const ScriptedKind* kind = FindKind(step.type_number);
  return kind != nullptr ? kind->make(step, target_key, repetition) : nullptr;
}

}  // namespace qv::server
