#pragma once
// The three kinds of wire message and the templates that derive every operation of the catalogue
// from one declaration (name, type number, fields with labels).
//
// Request body:      type number u32, target handle u32, sequence u32, then the request's fields.
// Incoming body:     kind u32 (0 response, 1 notification), type number u32, then the message.
// Response:          Result u32, ResultText wide string, Sequence u32, then its own fields only
//                    when Result is 0.
// Notification:      its own fields; every delivered one starts with the target key.

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

#include "serverlink/message_buffer.h"
#include "serverlink/wire_fields.h"

namespace qv {

// What every request shares beyond its fields; one constant instance serves them all.
struct RequestDescriptor {
  // Whether the caller waits for an answer; the fire-and-forget requests say so at the call.
  bool expects_response = true;
};

inline constexpr RequestDescriptor kRequestDescriptor{};

// Base of every qv::C<Operation>Request. Virtual slots in this order.
class CRequest {
 public:
  virtual ~CRequest() = default;
  // The wire name shared with the response, such as "REQUEST_PROCESS_LOCK".
  virtual std::u16string_view GetName() const = 0;
  // "{ Label:value Label:value }" for the packet log.
  virtual std::string ToString() const = 0;
  // Reads the request's own fields (the server's side of the wire).
  virtual bool Deserialize(MessageBuffer& buffer) = 0;
  // Writes the request's own fields after the request header.
  virtual bool Serialize(MessageBuffer& buffer) const = 0;
  virtual uint32_t GetTypeNumber() const = 0;
  // The part of Serialize that the base owns: it writes nothing.
  virtual bool SerializeBase(MessageBuffer&) const { return true; }
  // A response time-out in milliseconds; 0 (every request) waits until the connection ends.
  virtual uint32_t GetTimeout() const { return 0; }
  virtual const RequestDescriptor* GetDescriptor() const { return &kRequestDescriptor; }
};

// Base of every qv::C<Operation>Response. Virtual slots in this order.
class CResponse {
 public:
  virtual ~CResponse() = default;
  // Takes over the contents of another response of the same class; false for another class.
  virtual bool Assign(const std::shared_ptr<CResponse>& other);
  virtual std::u16string_view GetName() const { return u"UNKNOWN"; }
  virtual std::string ToString() const { return "EMPTY"; }
  // Reads the common head; derived responses then read their fields only when Result is 0.
  // A head that cannot be read leaves Result and Sequence 0 and ResultText empty.
  virtual bool Deserialize(MessageBuffer& buffer);
  virtual bool Serialize(MessageBuffer& buffer) const;
  virtual void GetTypeNumber(uint32_t& type_number) const { type_number = 0; }

  uint32_t Result = 0;
  std::u16string ResultText;
  uint32_t Sequence = 0;

 protected:
  bool DeserializeHead(MessageBuffer& buffer);
  bool SerializeHead(MessageBuffer& buffer) const;
  void RenderHead(std::string& out) const;
};

// Base of every qv::C<Event>Notification. It declares no fields; the first field of every
// notification that reaches a sink is the 32-bit target key.
class CNotification {
 public:
  virtual ~CNotification() = default;
  virtual uint32_t GetTypeNumber() const = 0;
  virtual std::u16string_view GetName() const = 0;
  virtual bool Deserialize(MessageBuffer& buffer) = 0;
  virtual bool Serialize(MessageBuffer& buffer) const = 0;
  virtual std::string ToString() const = 0;
  // The target handle the notification is about, or 0xFFFFFFFF for the whole server.
  virtual uint32_t GetTargetKey() const = 0;

  // No fields of its own, so derived field lists start here.
  template <class Self, class Visitor>
  static void VisitFields(Self&, Visitor&&) {}
};

namespace detail {

template <class Message>
bool WriteAllFields(MessageBuffer& buffer, const Message& message) {
  bool ok = true;
  Message::VisitFields(
      message, [&](const char*, const auto& field) { ok = ok && WriteField(buffer, field); });
  return ok;
}

// Decoding allocates strings and arrays, bounded by the bytes present; when even that cannot be
// had, the message fails to decode instead of throwing out of the wire path. (Encoding allocates
// nothing but buffer room, which reports failure itself.)
template <class Message>
bool ReadAllFields(MessageBuffer& buffer, Message& message) noexcept {
  try {
    bool ok = true;
    Message::VisitFields(message,
                         [&](const char*, auto& field) { ok = ok && ReadField(buffer, field); });
    return ok;
  } catch (const std::exception&) {
    return false;
  }
}

template <class Message>
void RenderAllFields(std::string& out, const Message& message) {
  Message::VisitFields(message, [&](const char* label, const auto& field) {
    if (*label == '\0') return;
    out += label;
    RenderField(out, field);
    out += ' ';
  });
}

}  // namespace detail

// The virtual operations of a request, derived from its declaration.
template <class Derived>
class RequestOf : public CRequest {
 public:
  std::u16string_view GetName() const override { return Derived::kName; }
  std::string ToString() const override {
    std::string out = "{ ";
    detail::RenderAllFields(out, self());
    out += '}';
    return out;
  }
  bool Deserialize(MessageBuffer& buffer) override {
    return detail::ReadAllFields(buffer, static_cast<Derived&>(*this));
  }
  bool Serialize(MessageBuffer& buffer) const override {
    return SerializeBase(buffer) && detail::WriteAllFields(buffer, self());
  }
  uint32_t GetTypeNumber() const override { return Derived::kTypeNumber; }

  template <class Self, class Visitor>
  static void VisitFields(Self& self, Visitor&& visit) {
    Derived::VisitOwnFields(self, visit);
  }

 private:
  const Derived& self() const { return static_cast<const Derived&>(*this); }
};

// The virtual operations of a response, derived from its declaration.
template <class Derived>
class ResponseOf : public CResponse {
 public:
  bool Assign(const std::shared_ptr<CResponse>& other) override {
    auto* same = dynamic_cast<Derived*>(other.get());
    if (same == nullptr) return false;
    if (same != this) static_cast<Derived&>(*this) = std::move(*same);
    return true;
  }
  std::u16string_view GetName() const override { return Derived::kName; }
  std::string ToString() const override {
    std::string out = "{ ";
    RenderHead(out);
    if (Result == 0) detail::RenderAllFields(out, self());
    out += '}';
    return out;
  }
  bool Deserialize(MessageBuffer& buffer) override {
    if (!DeserializeHead(buffer)) return false;
    if (Result != 0) return true;
    return detail::ReadAllFields(buffer, static_cast<Derived&>(*this));
  }
  bool Serialize(MessageBuffer& buffer) const override {
    if (!SerializeHead(buffer)) return false;
    return Result != 0 || detail::WriteAllFields(buffer, self());
  }
  void GetTypeNumber(uint32_t& type_number) const override { type_number = Derived::kTypeNumber; }

  template <class Self, class Visitor>
  static void VisitFields(Self& self, Visitor&& visit) {
    Derived::VisitOwnFields(self, visit);
  }

 private:
  const Derived& self() const { return static_cast<const Derived&>(*this); }
};

// The virtual operations of a notification. `Base` is CNotification or one of the intermediate
// bases that lay down shared leading fields; a derived list follows the base's fields.
template <class Derived, class Base>
class NotificationOf : public Base {
 public:
  uint32_t GetTypeNumber() const override { return Derived::kTypeNumber; }
  std::u16string_view GetName() const override { return Derived::kName; }
  bool Deserialize(MessageBuffer& buffer) override {
    return detail::ReadAllFields(buffer, static_cast<Derived&>(*this));
  }
  bool Serialize(MessageBuffer& buffer) const override {
    return detail::WriteAllFields(buffer, self());
  }
  std::string ToString() const override {
    std::string out = "{ ";
    detail::RenderAllFields(out, self());
    out += '}';
    return out;
  }
  uint32_t GetTargetKey() const override { return self().TargetKey; }

  template <class Self, class Visitor>
  static void VisitFields(Self& self, Visitor&& visit) {
    Base::VisitFields(self, visit);
    Derived::VisitOwnFields(self, visit);
  }

 private:
  const Derived& self() const { return static_cast<const Derived&>(*this); }
};

}  // namespace qv

// The classes' members are compiled once, where the catalogue instantiates them
// (catalogue_requests.cpp and its siblings): every other file that uses a message refers to them.
// Compiled in every file that builds or reads a message, they were a third of the build's time.

// One operation: a request and a response class sharing a wire name and a type number.
//   VEKX_OPERATION_CLASSES(GetMemory, GET_MEMORY, 0x12faf61e, (request fields), (response fields))
#define VEKX_OPERATION_CLASSES(Camel, WIRE, number, request_fields, response_fields) \
  class C##Camel##Request final : public ::qv::RequestOf<C##Camel##Request> {        \
   public:                                                                           \
    static constexpr uint32_t kTypeNumber = number;                                  \
    static constexpr std::u16string_view kName = u"" #WIRE;                          \
    VEKX_FIELDS(request_fields)                                                      \
  };                                                                                 \
  class C##Camel##Response final : public ::qv::ResponseOf<C##Camel##Response> {     \
   public:                                                                           \
    static constexpr uint32_t kTypeNumber = number;                                  \
    static constexpr std::u16string_view kName = u"" #WIRE;                          \
    VEKX_FIELDS(response_fields)                                                     \
  };                                                                                 \
  extern template class ::qv::RequestOf<C##Camel##Request>;                          \
  extern template class ::qv::ResponseOf<C##Camel##Response>;

// One notification class over `Base` (CNotification or an intermediate base).
#define VEKX_NOTIFICATION_CLASS(Camel, WIRE, number, Base, fields)                                 \
  class C##Camel##Notification final : public ::qv::NotificationOf<C##Camel##Notification, Base> { \
   public:                                                                                         \
    static constexpr uint32_t kTypeNumber = number;                                                \
    static constexpr std::u16string_view kName = u"" #WIRE;                                        \
    VEKX_FIELDS(fields)                                                                            \
  };                                                                                               \
  extern template class ::qv::NotificationOf<C##Camel##Notification, Base>;
