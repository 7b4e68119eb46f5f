// The GDB bridge's packet layer under arbitrary bytes: the framing reader over the input cut
// into pieces, every framed payload decoded, and the decoder on the raw input too. Nothing a
// debugger sends may crash it, hang it or make it allocate beyond the packet size.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "packet_framing.h"
#include "request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  vesta_gdb::PacketReader reader(4096);
  std::vector<vesta_gdb::FramingEvent> events;
  // The first byte decides how the rest arrives: in pieces of 1 to 256 bytes.
  const size_t piece = size == 0 ? 1 : static_cast<size_t>(data[0]) + 1;
  for (size_t at = 0; at < bytes.size(); at += piece)
    reader.Feed(bytes.substr(at, piece), events);
  for (const auto& event : events) {
    if (event.payload.size() > 4096) __builtin_trap();
    const vesta_gdb::Request request = vesta_gdb::Decode(event.payload);
    if (request.kind == vesta_gdb::RequestKind::kWriteMemory &&
        request.data.size() != request.length) {
      __builtin_trap();
    }
  }
  vesta_gdb::Decode(bytes);
  // Escaping and hex round-trips hold for any bytes.
  std::string back;
  if (!vesta_gdb::UnescapeBinary(vesta_gdb::EscapeBinary(bytes), back) || back != bytes)
    __builtin_trap();
  if (!vesta_gdb::HexDecode(vesta_gdb::HexEncode(bytes), back) || back != bytes) __builtin_trap();
  return 0;
}
