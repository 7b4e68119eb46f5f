#pragma once
// The handshake on the server's well-known pipe, both directions, shared by the server and by
// test stand-ins for it. Neither message has a request header or a kind word: each is the whole
// body of one frame.
//
//   connect request:   u32 32768, u32 client process id, u32 client number
//   connect response:  u32 status, wide string private pipe name, u32 second word,
//                      four u32 protocol version

#include <array>
#include <cstdint>
#include <string>

#include "serverlink/message_buffer.h"

namespace qv {

// The first word of the connect request.
inline constexpr uint32_t kConnectRequestMagic = 32768;
// The protocol version both ends speak.
inline constexpr std::array<uint32_t, 4> kProtocolVersionWords{5, 0, 10, 0};
// The prefix of the well-known pipe's name; the user name follows.
inline constexpr std::u16string_view kWellKnownPipeNamePrefix = u"qv_ve_svr_";

struct ConnectRequest {
  uint32_t magic = kConnectRequestMagic;
  uint32_t process_id = 0;
  uint32_t client_number = 0;

  bool Encode(MessageBuffer& buffer) const;
  // False when the body is not exactly three words or the first is not the magic word.
  bool Decode(MessageBuffer& buffer);
};

struct ConnectResponse {
  uint32_t status = 0;
  std::u16string private_pipe;
  uint32_t second_word = 0;
  std::array<uint32_t, 4> version = kProtocolVersionWords;

  bool Encode(MessageBuffer& buffer) const;
  bool Decode(MessageBuffer& buffer);
};

}  // namespace qv
