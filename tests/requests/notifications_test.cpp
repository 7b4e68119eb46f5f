// The notification catalogue: every notification the factory makes, its encoding, and the layouts
// that more than one end of the wire depends on.
#include "requests/notifications.h"
#include "support/field_filler.h"
#include "support/wire_bytes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

namespace qv {
namespace {

using testing::ByteVector;
using testing::DecodeAll;
using testing::Encode;
using testing::HandBytes;

// The notification catalogue as the protocol document lists it, one "WIRE_NAME 0xNUMBER" line
// each (eight upper-case hex digits) in the order of the numbers, transcribed independently of
// notifications.def and kept as this digest: a name or number that differs anywhere changes it.
constexpr size_t kDocumentedNotificationCount = 94;
constexpr uint64_t kDocumentedNotificationsDigest = 0xfcbe544cddf36389u;

TEST(NotificationCatalogueTest, FactoryHoldsExactlyTheCatalogue) {
  const auto& factory = NotificationFactory();
  ASSERT_EQ(factory.Entries().size(), kDocumentedNotificationCount);
  std::map<uint32_t, std::string> by_number;
  for (const auto& entry : factory.Entries()) {
    const std::string name(entry.name.begin(), entry.name.end());
    SCOPED_TRACE(name);
    const auto made = factory.Create(entry.type_number);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->GetTypeNumber(), entry.type_number);
    EXPECT_EQ(made->GetName(), entry.name);
    EXPECT_EQ(factory.NameOf(entry.type_number), entry.name);
    by_number[entry.type_number] = name;
  }
  std::string rows;
  for (const auto& [number, name] : by_number) {
    char line[80];
    std::snprintf(line, sizeof line, "%s 0x%08X\n", name.c_str(), number);
    rows += line;
  }
  EXPECT_EQ(testing::Fnv1a64(rows), kDocumentedNotificationsDigest)
      << "compare these rows with the document's catalogue:\n"
      << rows;
  EXPECT_EQ(factory.Create(0x12345678), nullptr);
}

// Hand-written bodies decode field by field (shown by the rendering) and encode back to the same
// bytes. The intermediate bases lay down their fields before the derived class's own.
TEST(NotificationLayoutTest, HandWrittenBodiesDecodeInTheirFieldOrder) {
  using namespace std::string_literals;
  const struct {
    uint32_t type_number;
    ByteVector wire;
    std::string rendered;
  } kCases[] = {
      // 24 bytes: target key, total size, copied size, copy operation id.
      {CFileCopyOverallProgressNotification::kTypeNumber,
       HandBytes()
           .U32(0xA1A2A3A4)
           .U64(0x0102030405060708, 0x1112131415161718)
           .U32(0xB1B2B3B4)
           .bytes(),
       "{ TargetKey:2711790500 TotalSize:72623859790382856 CopiedSize:1230066625199609624 "
       "Id:2981278644 }"},
      // The text keeps what follows an embedded zero.
      {CConsoleOutputNotification::kTypeNumber,
       HandBytes()
           .U32(3, 144, 129, 0x51, 0x52)
           .U64(0x0000000900000008)
           .Text(std::u16string(u"ab\0cd", 5))
           .bytes(),
       "{ TargetKey:3 Port:144 Category:129 ProcessId:81 ThreadId:82 Timestamp:38654705672 "
       "Text:ab\0cd }"s},
      // Target key, description, phase, number of phases, percentage (passed through above 100),
      // flags, estimated duration, copy operation id.
      {CFileCopyProgressNotification::kTypeNumber,
       HandBytes().U32(7).Text(u"Copying").U32(2, 3, 140, 0x10, 90, 0xC0FE).bytes(),
       "{ TargetKey:7 Description:Copying Phase:2 NumberOfPhases:3 Percentage:140 Flags:16 "
       "EstimatedDuration:90 Id:49406 }"},
      // UpdateError's event lists PowerRequest and State first, but the result pair leads on the
      // wire: target key, result, raw result, power request, state.
      {CUpdateErrorNotification::kTypeNumber, HandBytes().U32(5, 0x80040215, 0x2A, 1, 4).bytes(),
       "{ TargetKey:5 Result:2147746325 RawResult:42 PowerRequest:1 State:4 }"},
  };
  for (const auto& c : kCases) {
    const auto notification = NotificationFactory().Create(c.type_number);
    ASSERT_NE(notification, nullptr);
    ASSERT_TRUE(DecodeAll(c.wire, *notification)) << notification->ToString();
    EXPECT_EQ(notification->ToString(), c.rendered);
    EXPECT_EQ(Encode(*notification), c.wire) << notification->ToString();
  }
}

template <class Notification>
bool Populate(CNotification& message) {
  auto* notification = dynamic_cast<Notification*>(&message);
  if (notification == nullptr) return false;
  testing::FieldFiller filler;
  Notification::VisitFields(*notification, filler);
  return true;
}

std::map<uint32_t, bool (*)(CNotification&)> Populators() {
  return {
#define VEKX_NOTIFICATION(Camel, WIRE, number, Base, Group, Slot, SinkInterface, SinkMethod, \
                          DispId, fields)                                                    \
  {number, &Populate<C##Camel##Notification>},
#include "requests/notifications.def"
  };
}

TEST(NotificationCatalogueTest, EveryNotificationRoundTrips) {
  const auto& factory = NotificationFactory();
  const auto populators = Populators();
  for (const auto& entry : factory.Entries()) {
    SCOPED_TRACE(std::string(entry.name.begin(), entry.name.end()));
    const auto populator = populators.find(entry.type_number);
    ASSERT_NE(populator, populators.end());

    const auto empty = factory.Create(entry.type_number);
    const auto full = factory.Create(entry.type_number);
    ASSERT_TRUE(populator->second(*full));
    const ByteVector empty_wire = Encode(*empty);
    const ByteVector full_wire = Encode(*full);
    EXPECT_NE(empty_wire, full_wire);

    for (const auto& [original, wire] : {std::pair{empty, empty_wire}, {full, full_wire}}) {
      // The key is the body's first field, whichever base declares it.
      ASSERT_GE(wire.size(), 4u);
      uint32_t leading_word = 0;
      std::memcpy(&leading_word, wire.data(), 4);
      EXPECT_EQ(original->GetTargetKey(), leading_word);

      const auto decoded = factory.Create(entry.type_number);
      ASSERT_TRUE(DecodeAll(wire, *decoded));
      EXPECT_EQ(Encode(*decoded), wire);
      EXPECT_EQ(decoded->ToString(), original->ToString());
      EXPECT_EQ(decoded->GetTargetKey(), original->GetTargetKey());
    }

    for (size_t length = 0; length < full_wire.size(); ++length) {
      MessageBuffer shorter(full_wire.data(), length);
      EXPECT_FALSE(factory.Create(entry.type_number)->Deserialize(shorter)) << length;
    }
  }
}

}  // namespace
}  // namespace qv
