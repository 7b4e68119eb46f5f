#pragma once
// An owning pointer to a COM interface: it holds one reference and releases it when it goes, so
// that code using the library never calls AddRef or Release by hand.
//
//   vekx::ComPtr<ITarget> target;
//   HRESULT hr = api->AddTarget(host.Get(), target.Put());   // Put: the out-argument slot
//   vekx::ComPtr<ITarget2> later;
//   hr = target.QueryInto(IID_ITarget2, later);               // a later generation, if offered

#include <cstddef>
#include <utility>

#include "vekxapi/automation.h"

namespace vekx {

template <class Interface>
class ComPtr {
 public:
  ComPtr() noexcept = default;
  ComPtr(std::nullptr_t) noexcept {}
  // Shares `pointer`: takes a reference of its own.
  explicit ComPtr(Interface* pointer) noexcept : pointer_(pointer) {
    if (pointer_ != nullptr) pointer_->AddRef();
  }
  ComPtr(const ComPtr& other) noexcept : ComPtr(other.pointer_) {}
  ComPtr(ComPtr&& other) noexcept : pointer_(std::exchange(other.pointer_, nullptr)) {}
  ~ComPtr() { Reset(); }

  ComPtr& operator=(ComPtr other) noexcept {
    std::swap(pointer_, other.pointer_);
    return *this;
  }

  // Takes over a reference the caller already owns (from a creation function, say).
  static ComPtr Adopt(Interface* owned) noexcept {
    ComPtr result;
    result.pointer_ = owned;
    return result;
  }

  Interface* Get() const noexcept { return pointer_; }
  Interface* operator->() const noexcept { return pointer_; }
  explicit operator bool() const noexcept { return pointer_ != nullptr; }

  // Releases what it holds and hands out the slot for an out-argument to fill.
  Interface** Put() noexcept {
    Reset();
    return &pointer_;
  }
  // Gives up the reference without releasing it; the caller owns it now.
  Interface* Detach() noexcept { return std::exchange(pointer_, nullptr); }
  void Reset() noexcept {
    if (Interface* old = std::exchange(pointer_, nullptr)) old->Release();
  }

  // Asks the object for another of its interfaces; `out` is empty when it has none.
  template <class Other>
  HRESULT QueryInto(REFIID iid, ComPtr<Other>& out) const noexcept {
    if (pointer_ == nullptr) {
      out.Reset();
      return E_POINTER;
    }
    return pointer_->QueryInterface(iid, reinterpret_cast<void**>(out.Put()));
  }

 private:
  Interface* pointer_ = nullptr;
};

}  // namespace vekx
