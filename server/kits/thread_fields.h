#pragma once
// The fields of the debug records that name a kernel thread of the process or the process
// itself. A program image cannot know the ids its process will get: it writes threads by name,
// keeps their position (plus one, 0 for none), and the process puts its own ids in when it is
// made (virtual_process.cpp). One list serves both sides.

#include <optional>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "requests/debug_records.h"

namespace qv::server {

// u32 fields and u32 lists ("OwnerThreadID:", "WaitingThreads:", ...).
inline bool NamesKernelThread(std::string_view label) {
  for (std::string_view known :
       {"OwnerThreadID:", "WaitingThreads:", "WaitingReadThreads:", "WaitingWriteThreads:",
        "WorkerThreadId:", "WorkerThreads:", "CallerThreadId:"}) {
    if (label == known) return true;
  }
  return false;
}

// u32 fields that are the process's own id unless the image gives another.
inline bool NamesOwnProcess(std::string_view label) {
  return label == "CreationProcessID:" || label == "ProcessId:";
}

namespace detail {
// Lists of numbers are leaves; lists of anything else are walked.
template <class T>
inline constexpr bool kIsList = false;
template <class T>
inline constexpr bool kIsList<std::vector<T>> = !std::is_arithmetic_v<T>;
template <class T>
inline constexpr bool kIsMaybe = false;
template <class T>
inline constexpr bool kIsMaybe<std::optional<T>> = true;
}  // namespace detail

// Calls visit(label, field) for every field of `value` that is not itself a record, list or
// optional, descending into those (and into a synchronisation object's record).
template <class T, class Visitor>
void VisitLeafFields(T& value, Visitor&& visit, const char* label = "") {
  using Plain = std::remove_const_t<T>;
  if constexpr (std::is_same_v<Plain, SyncObjectRecord>) {
    std::visit([&](auto& record) { VisitLeafFields(record, visit); }, value.Object);
  } else if constexpr (IsWireRecord<Plain>) {
    Plain::VisitFields(
        value, [&](const char* inner, auto& field) { VisitLeafFields(field, visit, inner); });
  } else if constexpr (detail::kIsMaybe<Plain>) {
    if (value) VisitLeafFields(*value, visit, label);
  } else if constexpr (detail::kIsList<Plain>) {
    for (auto& item : value)
      VisitLeafFields(item, visit, label);
  } else {
    visit(label, value);
  }
}

}  // namespace qv::server
