#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>

#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "support/wire_bytes.h"

namespace qv {
namespace {

using testing::ByteVector;
using testing::DecodeAll;
using testing::Encode;

// The operations as the protocol document lists them, one "NAME 0xNUMBER" line each (eight
// upper-case hex digits) in the order of the names, transcribed independently of the .def rows and
// kept as this digest: a name or number that differs from the document anywhere changes it.
constexpr size_t kDocumentedOperationCount = 289;
constexpr uint64_t kDocumentedOperationsDigest = 0x798dfa05ea8fc305u;

TEST(CatalogueTest, FactoriesHoldExactlyTheDocumentedOperations) {
  std::map<std::string, uint32_t> requests;
  std::map<std::string, uint32_t> responses;
  for (const auto& entry : RequestFactory().Entries())
    requests[platform::Utf16ToUtf8(entry.name)] = entry.type_number;
  for (const auto& entry : ResponseFactory().Entries())
    responses[platform::Utf16ToUtf8(entry.name)] = entry.type_number;
  EXPECT_EQ(responses, requests);
  ASSERT_EQ(requests.size(), kDocumentedOperationCount);
  std::string rows;
  for (const auto& [name, number] : requests) {
    char line[80];
    std::snprintf(line, sizeof line, "%s 0x%08X\n", name.c_str(), number);
    rows += line;
  }
  EXPECT_EQ(testing::Fnv1a64(rows), kDocumentedOperationsDigest)
      << "compare these rows with the document's table:\n"
      << rows;
}

TEST(CatalogueTest, BuildingAFactoryFindsATypeNumberUsedTwice) {
  using Entry = MessageFactoryEntry<CRequest>;
  constexpr auto unique = SortByTypeNumber(std::to_array<Entry>({{3, u"C"}, {1, u"A"}, {2, u"B"}}));
  constexpr auto twice = SortByTypeNumber(std::to_array<Entry>({{3, u"C"}, {1, u"A"}, {3, u"D"}}));
  static_assert(!HasDuplicateTypeNumbers(unique));
  static_assert(HasDuplicateTypeNumbers(twice));
  EXPECT_EQ(unique[0].name, u"A");
  EXPECT_EQ(MessageFactory<CRequest>(unique).NameOf(2), u"B");
}

TEST(CatalogueTest, HandComputedEncodings) {
  CAddTargetRequest add;
  add.TargetType = u"VE";
  add.HostName = u"kit1";
  EXPECT_EQ(Encode(add), (ByteVector{3, 0, 0, 0, 'V', 0, 'E', 0, 0,   0,  // target type
                                     5, 0, 0, 0, 'k', 0, 'i', 0, 't', 0, '1', 0, 0, 0}));
  EXPECT_EQ(add.ToString(), "{ TargetType:VE HostName:kit1 }");
  EXPECT_EQ(add.GetTypeNumber(), 0x2c3903b5u);

  CGetTargetListResponse list;
  list.Sequence = 7;
  list.Targets = {1, 2};
  EXPECT_EQ(Encode(list), (ByteVector{0, 0, 0, 0,              // Result
                                      1, 0, 0, 0, 0, 0,        // empty ResultText
                                      7, 0, 0, 0,              // Sequence
                                      2, 0, 0, 0, 1, 0, 0, 0,  // Targets
                                      2, 0, 0, 0}));

  // A failed response carries only the head, whatever its fields hold.
  list.Result = 0x8004021B;
  list.ResultText = u"x";
  EXPECT_EQ(Encode(list),
            (ByteVector{0x1B, 0x02, 0x04, 0x80, 2, 0, 0, 0, 'x', 0, 0, 0, 7, 0, 0, 0}));

  CRequestProcessLockRequest lock;
  lock.ProcessId = 12;
  lock.Requester = u"tool";
  EXPECT_EQ(lock.ToString(), "{ ProcessId:12 Requester:tool }");
  EXPECT_EQ(lock.GetName(), u"REQUEST_PROCESS_LOCK");
  EXPECT_EQ(lock.GetTypeNumber(), 394069046u);
}

TEST(CatalogueTest, AFailedResponseDecodesFromItsHeadAlone) {
  const ByteVector bytes{5, 0, 0, 0, 3, 0, 0, 0, 'n', 0, 'o', 0, 0, 0, 9, 0, 0, 0};
  MessageBuffer buffer(bytes.data(), bytes.size());
  CFetchConsoleCacheResponse response;
  ASSERT_TRUE(response.Deserialize(buffer));
  EXPECT_EQ(response.Result, 5u);
  EXPECT_EQ(response.ResultText, u"no");
  EXPECT_EQ(response.Sequence, 9u);
  EXPECT_TRUE(response.Records.empty());
}

TEST(CatalogueTest, ABrokenHeadLeavesAnEmptyHead) {
  const ByteVector bytes{5, 0, 0, 0, 3, 0, 0, 0, 'n', 0};  // text cut short
  MessageBuffer buffer(bytes.data(), bytes.size());
  CGetDefaultTargetResponse response;
  response.Sequence = 3;
  EXPECT_FALSE(response.Deserialize(buffer));
  EXPECT_EQ(response.Result, 0u);
  EXPECT_EQ(response.Sequence, 0u);
  EXPECT_TRUE(response.ResultText.empty());
}

TEST(CatalogueTest, TruncatedResponsesNeverDecode) {
  CFetchConsoleCacheResponse full;
  full.Sequence = 4;
  full.NextIndex = 10;
  full.Records = {{0, 1, 99, 1234, 5, u"hello"}, {1, 0, 100, 1, 1, u""}};
  const ByteVector bytes = Encode(full);
  for (size_t n = 0; n < bytes.size(); ++n) {
    MessageBuffer buffer(bytes.data(), n);
    CFetchConsoleCacheResponse response;
    EXPECT_FALSE(response.Deserialize(buffer)) << n;
  }
  MessageBuffer buffer(bytes.data(), bytes.size());
  CFetchConsoleCacheResponse response;
  ASSERT_TRUE(response.Deserialize(buffer));
  EXPECT_EQ(response.Records, full.Records);
  EXPECT_EQ(response.NextIndex, 10u);
}

// Each message of both factories round-trips, and a response takes over only one of its own class
// (another class's answer is the link's test).
TEST(CatalogueTest, EveryMessageRoundTripsThroughItsFactory) {
  for (const auto& entry : RequestFactory().Entries()) {
    auto request = RequestFactory().Create(entry.type_number);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->GetTypeNumber(), entry.type_number);
    EXPECT_EQ(request->GetName(), entry.name);
    MessageBuffer buffer;
    ASSERT_TRUE(request->Serialize(buffer));
    auto decoded = RequestFactory().Create(entry.type_number);
    EXPECT_TRUE(decoded->Deserialize(buffer)) << platform::Utf16ToUtf8(entry.name);
    EXPECT_EQ(buffer.Size(), 0u);
    EXPECT_EQ(decoded->ToString(), request->ToString());
  }
  for (const auto& entry : ResponseFactory().Entries()) {
    auto response = ResponseFactory().Create(entry.type_number);
    ASSERT_NE(response, nullptr);
    uint32_t number = 0;
    response->GetTypeNumber(number);
    EXPECT_EQ(number, entry.type_number);
    response->Sequence = 77;
    MessageBuffer buffer;
    ASSERT_TRUE(response->Serialize(buffer));
    auto decoded = ResponseFactory().Create(entry.type_number);
    EXPECT_TRUE(decoded->Deserialize(buffer)) << platform::Utf16ToUtf8(entry.name);
    EXPECT_EQ(decoded->Sequence, 77u);
    EXPECT_EQ(buffer.Size(), 0u);
    EXPECT_TRUE(decoded->Assign(response));
  }
  EXPECT_EQ(RequestFactory().Create(0x12345678), nullptr);
  EXPECT_EQ(ResponseFactory().Create(0), nullptr);
  EXPECT_TRUE(ResponseFactory().NameOf(0).empty());
  EXPECT_EQ(ResponseFactory().NameOf(0x2afebdb8), u"ACK_CONSOLE_OUTPUT");
}

}  // namespace
}  // namespace qv
