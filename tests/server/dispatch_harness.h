#pragma once
// The server's parts in this process: scenarios read by each reader, what the registry posts to
// a client, decoded, and a request dispatched as a client's with its answer decoded.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/wide_string.h"
#include "requests/notifications.h"
#include "server/core/request_dispatcher.h"
#include "server/kits/scenario_document.h"
#include "server/targets/target_registry.h"
#include "server_harness.h"
#include "serverlink/frame.h"
#include "serverlink/wire_fields.h"

namespace qv::server {

using servertest::Code;

// The scenario readers of this build: the subset reader, and yaml-cpp where the build has it.
inline std::vector<DocumentReader> Readers() {
#ifdef VEKX_SERVER_HAVE_YAML
  return {ReadYamlSubset, ReadYamlWithYamlCpp};
#else
  return {ReadYamlSubset};
#endif
}

// The kits of the scenario `text`, their changes taking no time.
inline Scenario InstantKits(const char* text) {
  Scenario scenario = *ParseScenario(text, "instant.yaml").scenario;
  for (Kit& kit : scenario.kits)
    kit.timings = {0, 0, 0};
  return scenario;
}

// Each of `readers` refuses the scenario `text` with an error that starts with `error`.
inline void ExpectRefused(const std::string& text, const std::string& error,
                          const std::vector<DocumentReader>& readers = Readers()) {
  for (const DocumentReader reader : readers) {
    const ScenarioResult result = ParseScenarioWith(reader, text, "s.yaml");
    EXPECT_FALSE(result.scenario.has_value()) << text;
    EXPECT_EQ(result.error.rfind(error, 0), 0u) << text << "\n  got: " << result.error;
  }
}

// Keeps every notification posted to it, each of which must decode whole; a kit's clock posts
// from a thread of its own.
class DecodingSink : public ClientSink {
 public:
  void Post(SharedBody body) override {
    MessageBuffer in(body->Data(), body->Size());
    uint32_t kind = 0;
    uint32_t type_number = 0;
    ASSERT_TRUE(ReadField(in, kind) && ReadField(in, type_number));
    EXPECT_EQ(kind, 1u);
    auto notification = NotificationFactory().Create(type_number);
    ASSERT_NE(notification, nullptr);
    ASSERT_TRUE(notification->Deserialize(in));
    EXPECT_EQ(in.Size(), 0u);
    std::lock_guard lock(mutex_);
    received_.push_back(std::move(notification));
    arrived_.notify_all();
  }
  std::vector<std::shared_ptr<CNotification>> All() {
    std::lock_guard lock(mutex_);
    return received_;
  }
  // The wire names of all received so far.
  std::vector<std::string> Names() { return servertest::NamesOf(All()); }
  void Clear() {
    std::lock_guard lock(mutex_);
    received_.clear();
    taken_ = 0;
  }
  // The next notification after those already taken; null after `wait` without one.
  std::shared_ptr<CNotification> Next(std::chrono::milliseconds wait = std::chrono::seconds(5)) {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, wait, [this] { return received_.size() > taken_; });
    return received_.size() > taken_ ? received_[taken_++] : nullptr;
  }
  // The names of the next `count` notifications, and of any that follow at once after them.
  std::vector<std::string> NextNames(size_t count) {
    std::vector<std::shared_ptr<CNotification>> next;
    while (auto one = Next(std::chrono::milliseconds(next.size() < count ? 5000 : 50)))
      next.push_back(std::move(one));
    return servertest::NamesOf(next);
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::shared_ptr<CNotification>> received_;
  size_t taken_ = 0;
};

// `request` about `target` dispatched as client 1's, and its answer decoded.
template <class Request, class Response = typename servertest::ResponseOf<Request>::type>
Response Dispatch(RequestDispatcher& dispatcher, const Request& request, uint32_t target) {
  MessageBuffer body;
  EXPECT_TRUE(WriteRequestHeader(body, request.GetTypeNumber(), target, 1) &&
              request.Serialize(body));
  const auto answer = dispatcher.Dispatch(1, 100, body.Data(), body.Size());
  Response response;
  if (!answer.has_value()) {
    ADD_FAILURE() << "no answer to " << platform::Utf16ToUtf8(request.GetName());
    return response;
  }
  MessageBuffer in(answer->Data(), answer->Size());
  uint32_t kind = 0;
  uint32_t type_number = 0;
  EXPECT_TRUE(ReadField(in, kind) && ReadField(in, type_number) && response.Deserialize(in))
      << platform::Utf16ToUtf8(request.GetName());
  return response;
}

}  // namespace qv::server
