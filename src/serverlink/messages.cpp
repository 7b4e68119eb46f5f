#include "serverlink/messages.h"

#include <cstdio>

#include "platform/wide_string.h"

namespace qv {

void RenderUtf16(std::string& out, std::u16string_view text) {
  out += platform::Utf16ToUtf8(text);
}

void RenderUnsigned(std::string& out, uint64_t value) {
  char digits[24];
  const int n =
      std::snprintf(digits, sizeof digits, "%llu", static_cast<unsigned long long>(value));
  out.append(digits, static_cast<size_t>(n));
}

void RenderSigned(std::string& out, int64_t value) {
  char digits[24];
  const int n = std::snprintf(digits, sizeof digits, "%lld", static_cast<long long>(value));
  out.append(digits, static_cast<size_t>(n));
}

bool CResponse::Assign(const std::shared_ptr<CResponse>& other) {
  if (other == nullptr) return false;
  const CResponse& arrived = *other;
  if (typeid(arrived) != typeid(CResponse)) return false;
  Result = other->Result;
  ResultText = other->ResultText;
  Sequence = other->Sequence;
  return true;
}

bool CResponse::Deserialize(MessageBuffer& buffer) {
  return DeserializeHead(buffer);
}

bool CResponse::Serialize(MessageBuffer& buffer) const {
  return SerializeHead(buffer);
}

bool CResponse::DeserializeHead(MessageBuffer& buffer) {
  if (ReadField(buffer, Result) && ReadField(buffer, ResultText) && ReadField(buffer, Sequence)) {
    return true;
  }
  Result = 0;
  ResultText.clear();
  Sequence = 0;
  return false;
}

bool CResponse::SerializeHead(MessageBuffer& buffer) const {
  return WriteField(buffer, Result) && WriteField(buffer, ResultText) &&
         WriteField(buffer, Sequence);
}

void CResponse::RenderHead(std::string& out) const {
  char result[16];
  std::snprintf(result, sizeof result, "0x%08X", static_cast<unsigned>(Result));
  out += "Result:";
  out += result;
  out += " ResultText:";
  RenderUtf16(out, ResultText);
  out += " Sequence:";
  RenderUnsigned(out, Sequence);
  out += ' ';
}

}  // namespace qv
