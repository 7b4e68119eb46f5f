#pragma once
// An owning automation string (BSTR): freed when it goes, so that code using the library never
// calls SysFreeString by hand. Its text is UTF-16; embedded zeros are kept.
//
//   vekx::Bstr name;
//   target->get_Name(name.Put());
//   std::string utf8 = name.Utf8();

#include <string>
#include <string_view>
#include <utility>

#include "vekxapi/automation.h"
#include "vekxapi/wide_string.h"

namespace vekx {

class Bstr {
 public:
  Bstr() noexcept = default;
  // A copy of `text`. An allocation failure leaves the string null (check with IsNull).
  explicit Bstr(std::u16string_view text) noexcept : bstr_(qv::platform::AllocBstr(text)) {}
  static Bstr FromUtf8(std::string_view text) noexcept {
    return Bstr(qv::platform::Utf8ToUtf16(text));
  }
  // Takes over a string the caller owns.
  static Bstr Adopt(BSTR owned) noexcept {
    Bstr result;
    result.bstr_ = owned;
    return result;
  }
  Bstr(const Bstr& other) noexcept : Bstr(other.View()) {}
  Bstr(Bstr&& other) noexcept : bstr_(std::exchange(other.bstr_, nullptr)) {}
  Bstr& operator=(Bstr other) noexcept {
    std::swap(bstr_, other.bstr_);
    return *this;
  }
  ~Bstr() { SysFreeString(bstr_); }

  // For an [in] argument: the string stays owned here.
  BSTR Get() const noexcept { return bstr_; }
  // For an [out] argument: frees what it holds and hands out the slot.
  BSTR* Put() noexcept {
    SysFreeString(std::exchange(bstr_, nullptr));
    return &bstr_;
  }
  BSTR Detach() noexcept { return std::exchange(bstr_, nullptr); }

  bool IsNull() const noexcept { return bstr_ == nullptr; }
  // The text; a null string reads as empty, as automation treats it.
  std::u16string_view View() const noexcept { return qv::platform::BstrView(bstr_); }
  std::string Utf8() const { return qv::platform::Utf16ToUtf8(View()); }

 private:
  BSTR bstr_ = nullptr;
};

}  // namespace vekx
