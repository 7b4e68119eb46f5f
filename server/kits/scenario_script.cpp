// Kit scripts: the notifications a scenario makes the server push. One reader serves the whole
// catalogue: the fields of a step are read by field name (scenario_fields.h), so a notification
// added to the catalogue can be scripted without a line here.
#include "server/kits/scenario_script.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/wide_string.h"
#include "server/kits/scenario_checks.h"
#include "server/kits/scenario_fields.h"
#include "serverlink/message_buffer.h"
#include "serverlink/wire_fields.h"

namespace qv::server {
namespace {

using Kind = DocNode::Kind;

constexpr std::string_view kTargetKey = "TargetKey";

// What the reader and the sender need of one notification class.
struct ScriptedKind {
  std::string_view wire_name;
  uint32_t type_number;
  // Encodes the step's fields into its body; sets `target_key_given` when they name TargetKey and
  // `has_placeholders` when a text field holds '{'.
  void (*encode)(const DocNode* fields, ScriptStep& step);
  std::shared_ptr<CNotification> (*make)(const ScriptStep& step, uint32_t target_key,
                                         uint32_t repetition, TextBlocks* blocks);
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

// Gives each text field of `notification` a block from `blocks` with about the room for the
// same field of `prototype`, before the prototype is copied in.
template <class Notification>
void TakeTextBlocks(const Notification& prototype, Notification& notification, TextBlocks& blocks) {
  constexpr size_t kMostTexts = 8;
  size_t lengths[kMostTexts];
  size_t texts = 0;
  Notification::VisitFields(prototype, [&](const char*, const auto& field) {
    if constexpr (std::is_same_v<std::decay_t<decltype(field)>, std::u16string>) {
      if (texts < kMostTexts) lengths[texts] = field.size();
      ++texts;
    }
  });
  size_t text = 0;
  Notification::VisitFields(notification, [&](const char*, auto& field) {
    if constexpr (std::is_same_v<std::decay_t<decltype(field)>, std::u16string>) {
      if (text < std::min(texts, kMostTexts)) blocks.Take(lengths[text], field);
      ++text;
    }
  });
}

template <class Notification>
std::shared_ptr<CNotification> Make(const ScriptStep& step, uint32_t target_key,
                                    uint32_t repetition, TextBlocks* blocks) {
  std::shared_ptr<Notification> notification;
  if (step.decoded.notification != nullptr) {
    const auto& prototype = static_cast<const Notification&>(*step.decoded.notification);
    notification = std::make_shared<Notification>();
    if (blocks != nullptr) TakeTextBlocks(prototype, *notification, *blocks);
    // Copied over, a text keeps the block it was given when that has the room.
    *notification = prototype;
  } else {
    notification = std::make_shared<Notification>();
    MessageBuffer buffer(step.body.data(), step.body.size());
    if (!notification->Deserialize(buffer)) return nullptr;
  }
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
  if (!step.has_placeholders) step.decoded.notification = kind->make(step, 0, 0, nullptr);
  return step;
}

KitScript ReadScript(const DocNode& node) {
  if (node.kind != Kind::kMap) Refuse(node, "each script must be a mapping with 'steps'");
  CheckKeys(node, {"trigger", "steps", "after_ms", "repeat"}, "a script");
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
  if (const DocNode* value = Find(node, "after_ms"))
    script.after_ms = Milliseconds(*value, "after_ms");
  if (const DocNode* value = Find(node, "repeat")) script.repeat = Count(*value, "repeat");
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
                                                    uint32_t repetition, TextBlocks* blocks) {
  const ScriptedKind* kind = FindKind(step.type_number);
  return kind != nullptr ? kind->make(step, target_key, repetition, blocks) : nullptr;
}

}  // namespace qv::server
