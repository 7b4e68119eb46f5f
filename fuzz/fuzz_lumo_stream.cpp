// Drives a Lumo input stream over arbitrary bytes with an arbitrary sequence of block and
// aligned-region operations and field reads. The stream must stay inside its buffer, and once
// failed it must stay failed.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "serverlink/lumo_stream.h"
#include "serverlink/wire_fields.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  // The first byte says how many of the following bytes are operations; the rest is the stream.
  const size_t op_count = std::min<size_t>(data[0], size - 1);
  const uint8_t* ops = data + 1;
  qv::MessageBuffer buffer(ops + op_count, size - 1 - op_count);
  qv::CLumoIStream in(buffer);

  bool failed = false;
  for (size_t i = 0; i < op_count; ++i) {
    uint32_t word = 0;
    std::u16string text;
    switch (ops[i] % 7) {
      case 0:
        in.BeginBlock();
        break;
      case 1:
        in.EndBlock();
        break;
      case 2:
        in.BeginAligned();
        break;
      case 3:
        in.EndAligned();
        break;
      case 4:
        qv::ReadField(buffer, word);
        break;
      case 5:
        qv::ReadField(buffer, text);
        break;
      default:
        buffer.Skip(ops[i] / 7);
        break;
    }
    if (failed && !in.Failed()) std::abort();  // the flag is sticky
    failed = in.Failed();
    if (buffer.ReadOffset() > buffer.WriteOffset()) std::abort();
  }
  return 0;
}
