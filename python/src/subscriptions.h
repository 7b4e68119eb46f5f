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
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace vekx_python {

class CallbackSink;

class Subscription {
 public:
  // Subscribes `callback` to `groups` (empty: every group) of the server (`api`) and of
  // `targets`; with no targets, of every target, those added later included (each as the
  // server reports it). Raises InvalidArgument for a group it does not know.
  Subscription(IVEKXAPI12& api, const std::vector<vekx::ComPtr<ITarget>>& targets,
               const std::vector<std::string>& groups, pybind11::object callback);
  ~Subscription();
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  // Unsubscribes and waits for the callbacks under way (but one on this thread); once closed no
  // callback runs. Needs the GIL; closing twice is fine.
  void Close();
  bool closed() const {
    std::lock_guard lock(mutex_);
    return closed_;
  }

  // At interpreter exit: stops every sink from calling Python and closes every subscription.
  static void CloseAll();

 private:
  void CloseWaiting(std::chrono::milliseconds wait);
  void AddLocked(vekx::ComPtr<CallbackSink> sink, std::vector<std::function<HRESULT()>> undo);
  // Subscribes a target the server has just added. Notification thread, no GIL.
  void Cover(ULONG handle) noexcept;

  // Kept alive until Close, so that the server's group can be left.
  vekx::ComPtr<IVEKXAPI12> api_;
  pybind11::object callback_;          // None once closed; touched with the GIL only
  std::vector<size_t> target_groups_;  // indices of the target groups wanted; set once
  mutable std::mutex mutex_;  // guards what follows: Cover adds from the notification thread
  bool closed_ = false;
  std::set<ULONG> covered_;  // the targets' handles
  std::vector<vekx::ComPtr<CallbackSink>> sinks_;
  std::vector<std::function<HRESULT()>> undo_;
};

// The group names subscriptions take, in the order they are tried.
std::vector<std::string> GroupNames();

}  // namespace vekx_python
