#include "serverlink/handshake.h"

#include <exception>

#include "serverlink/wire_fields.h"

namespace qv {

bool ConnectRequest::Encode(MessageBuffer& buffer) const {
  return WriteField(buffer, magic) && WriteField(buffer, process_id) &&
         WriteField(buffer, client_number);
}

bool ConnectRequest::Decode(MessageBuffer& buffer) {
  return buffer.Size() == 3 * sizeof(uint32_t) && ReadField(buffer, magic) &&
         magic == kConnectRequestMagic && ReadField(buffer, process_id) &&
         ReadField(buffer, client_number);
}

bool ConnectResponse::Encode(MessageBuffer& buffer) const {
  if (!WriteField(buffer, status) || !WriteField(buffer, private_pipe) ||
      !WriteField(buffer, second_word)) {
    return false;
  }
  for (uint32_t word : version) {
    if (!WriteField(buffer, word)) return false;
  }
  return true;
}

bool ConnectResponse::Decode(MessageBuffer& buffer) {
  try {
    if (!ReadField(buffer, status) || !ReadField(buffer, private_pipe) ||
        !ReadField(buffer, second_word)) {
      return false;
    }
  } catch (const std::exception&) {
    return false;
  }
  for (uint32_t& word : version) {
    if (!ReadField(buffer, word)) return false;
  }
  return true;
}

}  // namespace qv
