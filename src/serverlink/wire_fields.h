#pragma once
// The field encodings of the wire, one codec per C++ field type:
//
//   integers            little-endian at their own width
//   bool, enumerations  u32 (a reader takes any non-zero value as true)
//   std::optional<T>    u32 presence flag, then T only when the flag is 1
//   std::u16string      u32 count N = units + 1, then N UTF-16LE units, the last one zero
//   std::string         u32 count N = bytes + 1, then N bytes, the last one zero
//   std::vector<T>      u32 element count, then either the elements' memory image in one piece
//                       (integers and plain records) or each element encoded in turn
//   plain record        its memory image, padding included (declared as explicit members)
//   record              its fields in declaration order, no length prefix
//
// Every Write returns false only when the buffer cannot grow or a count does not fit 32 bits;
// every Read returns false at the first short read and never allocates more than the bytes left
// in the buffer can justify. Nothing here throws.

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "serverlink/message_buffer.h"
#include "serverlink/wire_record.h"

namespace qv {

static_assert(std::endian::native == std::endian::little,
              "the wire is little-endian and is copied as memory images");

template <class T, class = void>
struct WireCodec;

// Encodes one field; false when the buffer cannot take it.
template <class T>
bool WriteField(MessageBuffer& buffer, const T& value) {
  return WireCodec<T>::Write(buffer, value);
}

// Decodes one field; false at the first short read.
template <class T>
bool ReadField(MessageBuffer& buffer, T& value) {
  return WireCodec<T>::Read(buffer, value);
}

// Appends the one-line rendering of a field value used by the packet log.
template <class T>
void RenderField(std::string& out, const T& value) {
  WireCodec<T>::Render(out, value);
}

// The fewest bytes a value of T can occupy on the wire (at least 1), used to bound element
// counts against the bytes actually present before anything is allocated.
template <class T>
constexpr size_t MinWireSize() {
  return WireCodec<T>::kMinSize;
}

// Types whose arrays travel as one memory image.
template <class T>
inline constexpr bool kIsPlainWireType =
    (std::is_integral_v<T> && !std::is_same_v<T, bool>) || IsPlainWireRecord<T>;

void RenderUtf16(std::string& out, std::u16string_view text);
void RenderUnsigned(std::string& out, uint64_t value);
void RenderSigned(std::string& out, int64_t value);

template <class T>
struct WireCodec<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> {
  static constexpr size_t kMinSize = sizeof(T);
  static bool Write(MessageBuffer& buffer, T value) { return buffer.Write(&value, sizeof value); }
  static bool Read(MessageBuffer& buffer, T& value) { return buffer.Read(&value, sizeof value); }
  static void Render(std::string& out, T value) {
    if constexpr (std::is_signed_v<T>) {
      RenderSigned(out, value);
    } else {
      RenderUnsigned(out, value);
    }
  }
};

template <>
struct WireCodec<bool> {
  static constexpr size_t kMinSize = 4;
  static bool Write(MessageBuffer& buffer, bool value) {
    return WriteField<uint32_t>(buffer, value ? 1u : 0u);
  }
  static bool Read(MessageBuffer& buffer, bool& value) {
    uint32_t word = 0;
    if (!ReadField(buffer, word)) return false;
    value = word != 0;
    return true;
  }
  static void Render(std::string& out, bool value) { out += value ? "true" : "false"; }
};

template <class T>
struct WireCodec<T, std::enable_if_t<std::is_enum_v<T>>> {
  static_assert(sizeof(T) == 4, "enumerations travel as u32");
  static constexpr size_t kMinSize = 4;
  static bool Write(MessageBuffer& buffer, T value) {
    return WriteField(buffer, static_cast<uint32_t>(value));
  }
  static bool Read(MessageBuffer& buffer, T& value) {
    uint32_t word = 0;
    if (!ReadField(buffer, word)) return false;
    value = static_cast<T>(word);
    return true;
  }
  static void Render(std::string& out, T value) {
    RenderUnsigned(out, static_cast<uint32_t>(value));
  }
};

template <class T>
struct WireCodec<std::optional<T>> {
  static constexpr size_t kMinSize = 4;
  static bool Write(MessageBuffer& buffer, const std::optional<T>& value) {
    if (!WriteField<uint32_t>(buffer, value.has_value() ? 1u : 0u)) return false;
    return !value.has_value() || WriteField(buffer, *value);
  }
  static bool Read(MessageBuffer& buffer, std::optional<T>& value) {
    uint32_t present = 0;
    if (!ReadField(buffer, present)) return false;
    if (present == 0) {
      value.reset();
      return true;
    }
    return ReadField(buffer, value.emplace());
  }
  static void Render(std::string& out, const std::optional<T>& value) {
    if (value.has_value()) {
      RenderField(out, *value);
    } else {
      out += "<none>";
    }
  }
};

// Strings: count = units + 1, then the units and one zero unit. The reader drops the last unit
// without looking at it, and refuses a count of zero.
template <class Char>
struct TerminatedStringCodec {
  using String = std::basic_string<Char>;
  static constexpr size_t kMinSize = 4;
  static bool Write(MessageBuffer& buffer, const String& value) {
    if (value.size() >= UINT32_MAX) return false;
    const Char terminator{};
    return WriteField(buffer, static_cast<uint32_t>(value.size() + 1)) &&
           buffer.Write(value.data(), value.size() * sizeof(Char)) &&
           buffer.Write(&terminator, sizeof terminator);
  }
  static bool Read(MessageBuffer& buffer, String& value) {
    uint32_t count = 0;
    if (!ReadField(buffer, count)) return false;
    if (count == 0 || uint64_t{count} * sizeof(Char) > buffer.Available()) return false;
    value.resize(count - 1);
    return buffer.Read(value.data(), (count - 1) * sizeof(Char)) && buffer.Skip(sizeof(Char));
  }
};

template <>
struct WireCodec<std::u16string> : TerminatedStringCodec<char16_t> {
  static void Render(std::string& out, const std::u16string& value) { RenderUtf16(out, value); }
};

template <>
struct WireCodec<std::string> : TerminatedStringCodec<char> {
  static void Render(std::string& out, const std::string& value) { out += value; }
};

// A list renders as its count, "{ ", at most its first eight elements each followed by a blank,
// " ..." when there are more, and "}".
template <class T>
void RenderList(std::string& out, std::span<const T> values) {
  constexpr size_t kShown = 8;
  RenderUnsigned(out, values.size());
  out += "{ ";
  const size_t shown = std::min(values.size(), kShown);
  for (size_t i = 0; i < shown; ++i) {
    RenderField(out, values[i]);
    out += ' ';
  }
  if (values.size() > kShown) out += " ...";
  out += '}';
}

template <class T>
struct WireCodec<std::vector<T>> {
  static_assert(!std::is_same_v<T, bool>, "std::vector<bool> has no memory image");
  static constexpr size_t kMinSize = 4;

  static bool Write(MessageBuffer& buffer, const std::vector<T>& values) {
    if (values.size() > UINT32_MAX) return false;
    if (!WriteField(buffer, static_cast<uint32_t>(values.size()))) return false;
    if constexpr (kIsPlainWireType<T>) {
      return buffer.Write(values.data(), values.size() * sizeof(T));
    } else {
      for (const T& value : values) {
        if (!WriteField(buffer, value)) return false;
      }
      return true;
    }
  }

  static bool Read(MessageBuffer& buffer, std::vector<T>& values) {
    uint32_t count = 0;
    if (!ReadField(buffer, count)) return false;
    // The count is checked against the bytes left before anything is allocated, so a count of
    // four billion in a short body fails at once.
    if (uint64_t{count} * MinWireSize<T>() > buffer.Available()) return false;
    if constexpr (kIsPlainWireType<T> && sizeof(T) == 1) {
      // Bytes (memory, files) are copied once: from the buffer without first zeroing what they
      // will fill, or, when the body's rest is still in the pipe, from there straight into place.
      if (count > buffer.Size()) {
        values.resize(count);
        return buffer.Read(values.data(), count);
      }
      const auto* first = reinterpret_cast<const T*>(buffer.Data());
      values.assign(first, first + count);
      return buffer.Skip(count);
    } else if constexpr (kIsPlainWireType<T>) {
      values.resize(count);
      return buffer.Read(values.data(), size_t{count} * sizeof(T));
    } else {
      values.clear();
      for (uint32_t i = 0; i < count; ++i) {
        if (!ReadField(buffer, values.emplace_back())) return false;
      }
      return true;
    }
  }

  static void Render(std::string& out, const std::vector<T>& values) { RenderList<T>(out, values); }
};

// Records: the fields that their declaration lists, in order.
template <class T>
struct WireCodec<T, std::enable_if_t<IsWireRecord<T>>> {
  static constexpr size_t kMinSize = RecordMinWireSize<T>();

  static bool Write(MessageBuffer& buffer, const T& record) {
    if constexpr (IsPlainWireRecord<T>) {
      return buffer.Write(&record, sizeof record);
    } else {
      bool ok = true;
      T::VisitFields(record,
                     [&](const char*, const auto& field) { ok = ok && WriteField(buffer, field); });
      return ok;
    }
  }

  static bool Read(MessageBuffer& buffer, T& record) {
    if constexpr (IsPlainWireRecord<T>) {
      return buffer.Read(&record, sizeof record);
    } else {
      bool ok = true;
      T::VisitFields(record,
                     [&](const char*, auto& field) { ok = ok && ReadField(buffer, field); });
      return ok;
    }
  }

  static void Render(std::string& out, const T& record) {
    out += "{ ";
    RenderRecordFields(out, record);
    out += '}';
  }

  // "Label:value " for every field, as the packet log shows a message.
  static void RenderRecordFields(std::string& out, const T& record) {
    T::VisitFields(record, [&](const char* label, const auto& field) {
      if (*label == '\0') return;  // padding
      out += label;
      RenderField(out, field);
      out += ' ';
    });
  }
};

}  // namespace qv
