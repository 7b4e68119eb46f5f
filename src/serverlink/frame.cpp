#include "serverlink/frame.h"

#include <cstring>

#include "serverlink/wire_fields.h"

namespace qv {

std::array<uint8_t, kFrameHeaderBytes> EncodeFrameHeader(uint32_t body_length) {
  std::array<uint8_t, kFrameHeaderBytes> header{};
  std::memcpy(header.data() + 4, &body_length, sizeof body_length);
  return header;
}

FrameHeaderCheck ParseFrameHeader(const uint8_t (&header)[kFrameHeaderBytes],
                                  uint32_t& body_length) {
  uint32_t reserved = 0;
  std::memcpy(&reserved, header, sizeof reserved);
  std::memcpy(&body_length, header + 4, sizeof body_length);
  if (reserved != 0) return FrameHeaderCheck::kBadReservedWord;
  if (body_length > kMaxFrameBodyBytes) return FrameHeaderCheck::kTooLarge;
  return FrameHeaderCheck::kOk;
}

bool WriteRequestHeader(MessageBuffer& buffer, uint32_t type_number, uint32_t target_handle,
                        uint32_t sequence) {
  return WriteField(buffer, type_number) && WriteField(buffer, target_handle) &&
         WriteField(buffer, sequence);
}

}  // namespace qv
