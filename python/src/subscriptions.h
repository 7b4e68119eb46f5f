#pragma once
// Event callbacks. A Subscription holds one sink for the server's group and one per target, each
// calling a Python callable with a vekxapi.Event on the library's notification thread, the GIL
// taken. A callback that raises is reported through sys.unraisablehook and the next event is
// delivered as usual.
//
// Closing unsubscribes and waits for the callbacks under way with the GIL released, since they
// may be waiting for it. At interpreter exit every open subscription is closed before Python
// goes away, and from then on no sink touches Python.

#include <pybind11/pybind11.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace vekx_python {

class CallbackSink;

class Subscription {
 public:
  // Subscribes `callback` to `groups` (empty: every group) of the server (`api`) and of
  // `targets`. Raises InvalidArgument for a group it does not know.
  Subscription(IVEKXAPI12& api, const std::vector<vekx::ComPtr<ITarget>>& targets,
               const std::vector<std::string>& groups, pybind11::object callback);
  ~Subscription();
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  // Unsubscribes and waits for the callbacks under way (but one on this thread); once closed no
  // callback runs. Needs the GIL; closing twice is fine.
  void Close();
  bool closed() const { return undo_.empty(); }

  // At interpreter exit: stops every sink from calling Python and closes every subscription.
  static void CloseAll();

 private:
  void CloseWaiting(std::chrono::milliseconds wait);
  void Add(vekx::ComPtr<CallbackSink> sink, std::function<HRESULT()> undo);

  std::vector<vekx::ComPtr<CallbackSink>> sinks_;
  std::vector<std::function<HRESULT()>> undo_;
  // Kept alive until Close, so that the server's group can be left.
  vekx::ComPtr<IVEKXAPI12> api_;
};

// The group names subscriptions take, in the order they are tried.
std::vector<std::string> GroupNames();

}  // namespace vekx_python
