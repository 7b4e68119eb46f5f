// Per-thread error information, against real OLE on Windows and our implementation on POSIX.
#include <gtest/gtest.h>

#include <thread>

#include "platform/automation.h"
#include "platform/wide_string.h"
#include "test_support.h"

namespace qv::platform {
namespace {

using test_support::CountedErrorInfo;
using test_support::MutableOle;
using test_support::UniqueBstr;

class ErrorInfoTest : public ::testing::Test {
 protected:
  // Each test starts and ends with an empty slot on the main thread.
  void SetUp() override { SetErrorInfo(0, nullptr); }
  void TearDown() override { SetErrorInfo(0, nullptr); }
};

TEST_F(ErrorInfoTest, WhatIsWrittenIsReadBackThroughTheSameObject) {
  ICreateErrorInfo* writer = nullptr;
  ASSERT_EQ(CreateErrorInfo(&writer), S_OK);
  ASSERT_NE(writer, nullptr);
  const GUID kGuid = {0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};
  EXPECT_EQ(writer->SetGUID(kGuid), S_OK);
  EXPECT_EQ(writer->SetSource(MutableOle(u"Vesta.Target")), S_OK);
  EXPECT_EQ(writer->SetDescription(MutableOle(u"Kit \u00e9teint \U0001F50C")), S_OK);
  EXPECT_EQ(writer->SetHelpFile(MutableOle(u"vesta.chm")), S_OK);
  EXPECT_EQ(writer->SetHelpContext(42), S_OK);

  IErrorInfo* reader = nullptr;
  ASSERT_EQ(writer->QueryInterface(IID_IErrorInfo, reinterpret_cast<void**>(&reader)), S_OK);

  // Both interfaces share one identity.
  ICreateErrorInfo* writer_again = nullptr;
  ASSERT_EQ(reader->QueryInterface(IID_ICreateErrorInfo, reinterpret_cast<void**>(&writer_again)),
            S_OK);
  EXPECT_EQ(writer_again, writer);
  IUnknown* identity_from_writer = nullptr;
  IUnknown* identity_from_reader = nullptr;
  ASSERT_EQ(writer->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity_from_writer)),
            S_OK);
  ASSERT_EQ(reader->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity_from_reader)),
            S_OK);
  EXPECT_EQ(identity_from_writer, identity_from_reader);
  void* other = reinterpret_cast<void*>(1);
  EXPECT_EQ(reader->QueryInterface(IID_IDispatch, &other), E_NOINTERFACE);
  EXPECT_EQ(other, nullptr);
  identity_from_reader->Release();
  identity_from_writer->Release();
  writer_again->Release();
  writer->Release();

  GUID guid{};
  EXPECT_EQ(reader->GetGUID(&guid), S_OK);
  EXPECT_TRUE(IsEqualGUID(guid, kGuid));
  BSTR text = nullptr;
  ASSERT_EQ(reader->GetSource(&text), S_OK);
  EXPECT_EQ(BstrView(UniqueBstr(text).get()), u"Vesta.Target");
  ASSERT_EQ(reader->GetDescription(&text), S_OK);
  EXPECT_EQ(BstrView(UniqueBstr(text).get()), u"Kit \u00e9teint \U0001F50C");
  ASSERT_EQ(reader->GetHelpFile(&text), S_OK);
  EXPECT_EQ(BstrView(UniqueBstr(text).get()), u"vesta.chm");
  DWORD context = 0;
  EXPECT_EQ(reader->GetHelpContext(&context), S_OK);
  EXPECT_EQ(context, 42u);
  reader->Release();
}

// Get hands the slot's reference over and empties the slot; Set replaces and releases.
TEST_F(ErrorInfoTest, TheSlotHoldsOneReferenceUntilTakenOrReplaced) {
  CountedErrorInfo info;
  CountedErrorInfo replaced;
  IErrorInfo* taken = reinterpret_cast<IErrorInfo*>(1);
  EXPECT_EQ(GetErrorInfo(0, &taken), S_FALSE);
  EXPECT_EQ(taken, nullptr);

  ASSERT_EQ(SetErrorInfo(0, &replaced), S_OK);
  ASSERT_EQ(SetErrorInfo(0, &info), S_OK);
  EXPECT_EQ(replaced.refs(), 1u);
  EXPECT_EQ(info.refs(), 2u) << "the slot holds a reference";
  ASSERT_EQ(GetErrorInfo(0, &taken), S_OK);
  EXPECT_EQ(taken, &info);
  EXPECT_EQ(info.refs(), 2u) << "now held by the caller";
  taken->Release();
  EXPECT_EQ(GetErrorInfo(0, &taken), S_FALSE);
  EXPECT_EQ(taken, nullptr);

  ASSERT_EQ(SetErrorInfo(0, &info), S_OK);
  ASSERT_EQ(SetErrorInfo(0, nullptr), S_OK);
  EXPECT_EQ(info.refs(), 1u);
}

TEST_F(ErrorInfoTest, EachThreadHasItsOwnSlotReleasedWhenTheThreadExits) {
  CountedErrorInfo main_info;
  CountedErrorInfo left_by_other;
  ASSERT_EQ(SetErrorInfo(0, &main_info), S_OK);
  HRESULT seen_by_other = E_FAIL;
  IErrorInfo* other_taken = reinterpret_cast<IErrorInfo*>(1);
  std::thread([&] {
    seen_by_other = GetErrorInfo(0, &other_taken);
    SetErrorInfo(0, &left_by_other);
  }).join();
  EXPECT_EQ(seen_by_other, S_FALSE);
  EXPECT_EQ(other_taken, nullptr);
  EXPECT_EQ(left_by_other.refs(), 1u);

  IErrorInfo* taken = nullptr;
  ASSERT_EQ(GetErrorInfo(0, &taken), S_OK);
  EXPECT_EQ(taken, &main_info);
  taken->Release();
}

}  // namespace
}  // namespace qv::platform
