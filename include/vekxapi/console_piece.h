#pragma once
// One piece of console output as plain values, read from a cached piece (IConsoleOutput) or a
// live one (IConsoleOutputEvent): the two have the same getters.
//
//   vekx::ConsolePiece piece;
//   HRESULT hr = vekx::ReadConsolePiece(*event, piece);

#include <cstdint>
#include <cstring>
#include <new>
#include <string>

#include "vekxapi/bstr.h"
#include "vekxapi/vekxapi.h"

namespace vekx {

struct ConsolePiece {
  std::uint32_t port = 0;      // eConsoleOutputPort's bits
  std::uint32_t category = 0;  // eConsoleOutputCategory's bits
  std::uint32_t process_id = 0;
  std::uint32_t thread_id = 0;
  std::uint64_t timestamp = 0;
  std::string text;  // UTF-8
  bool operator==(const ConsolePiece&) const = default;
};

template <class Source>
HRESULT ReadConsolePiece(Source& source, ConsolePiece& piece) noexcept {
  eConsoleOutputPort port{};
  eConsoleOutputCategory category{};
  ULONG process_id = 0;
  ULONG thread_id = 0;
  ULONGLONG timestamp = 0;
  Bstr text;
  HRESULT hr = source.get_Port(&port);
  if (SUCCEEDED(hr)) hr = source.get_Category(&category);
  if (SUCCEEDED(hr)) hr = source.get_ProcessId(&process_id);
  if (SUCCEEDED(hr)) hr = source.get_ThreadId(&thread_id);
  if (SUCCEEDED(hr)) hr = source.get_Timestamp(&timestamp);
  if (SUCCEEDED(hr)) hr = source.get_Text(text.Put());
  if (FAILED(hr)) return hr;
  static_assert(sizeof port == sizeof piece.port && sizeof category == sizeof piece.category);
  std::memcpy(&piece.port, &port, sizeof piece.port);
  std::memcpy(&piece.category, &category, sizeof piece.category);
  piece.process_id = process_id;
  piece.thread_id = thread_id;
  piece.timestamp = timestamp;
  try {
    piece.text = text.Utf8();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

}  // namespace vekx
