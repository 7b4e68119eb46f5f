// The frame every public object shares: identity across an interface family, reference counts
// that end the object and let the module unload, and the class object's refusals.

#include <gtest/gtest.h>

#include "api/class_factory.h"
#include "api/object_count.h"
#include "api/target_object.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/library.h"
#include "vekxapi/vekxapi.h"

namespace qv {
namespace {

TEST(ObjectFrame, EveryGenerationOfAFamilyIsOneObject) {
  ASSERT_TRUE(ModuleIsIdle());
  {
    vekx::ComPtr<ITarget> target;
    ASSERT_EQ(CreateTargetObject(nullptr, 7, IID_ITarget, reinterpret_cast<void**>(target.Put())),
              S_OK);
    const IID* generations[] = {&IID_ITarget2,  &IID_ITarget8,  &IID_ITarget29,
                                &IID_ITarget47, &IID_IDispatch, &IID_IUnknown};
    for (const IID* iid : generations) {
      vekx::ComPtr<IUnknown> other;
      ASSERT_EQ(target.QueryInto(*iid, other), S_OK);
      EXPECT_EQ(static_cast<void*>(other.Get()), static_cast<void*>(target.Get()));
    }
    vekx::ComPtr<ISupportErrorInfo> errors;
    ASSERT_EQ(target.QueryInto(IID_ISupportErrorInfo, errors), S_OK);
    EXPECT_EQ(errors->InterfaceSupportsErrorInfo(IID_ITarget12), S_OK);
    EXPECT_EQ(errors->InterfaceSupportsErrorInfo(IID_IVEKXAPI), S_FALSE);

    vekx::ComPtr<IVEKXAPI> wrong_family;
    EXPECT_EQ(target.QueryInto(IID_IVEKXAPI, wrong_family), E_NOINTERFACE);
    EXPECT_FALSE(wrong_family);

    // The handle is the object's own: it needs no private client.
    ULONG handle = 0;
    EXPECT_EQ(target->get_Handle(&handle), S_OK);
    EXPECT_EQ(handle, 7u);
    EXPECT_EQ(target->get_Handle(nullptr), E_POINTER);
    EXPECT_FALSE(ModuleIsIdle());
  }
  EXPECT_TRUE(ModuleIsIdle());
}

TEST(ObjectFrame, ClassObjectMakesOnlyTheRootAndRefusesAggregation) {
  vekx::ComPtr<IClassFactory> factory;
  const auto class_object = [&](REFCLSID clsid) {
    return DllGetClassObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.Put()));
  };
  EXPECT_EQ(class_object(IID_ITarget), CLASS_E_CLASSNOTAVAILABLE);
  ASSERT_EQ(class_object(CLSID_VEKXAPI), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);

  vekx::ComPtr<IUnknown> outer;
  ASSERT_EQ(CreateTargetObject(nullptr, 1, IID_IUnknown, reinterpret_cast<void**>(outer.Put())),
            S_OK);
  void* made = reinterpret_cast<void*>(1);
  EXPECT_EQ(factory->CreateInstance(outer.Get(), IID_IVEKXAPI, &made), CLASS_E_NOAGGREGATION);
  EXPECT_EQ(made, nullptr);
  outer.Reset();

  // A lock keeps the module loaded after the last object has gone.
  EXPECT_EQ(factory->LockServer(TRUE), S_OK);
  factory.Reset();
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  ASSERT_EQ(class_object(CLSID_VEKXAPI), S_OK);
  EXPECT_EQ(factory->LockServer(FALSE), S_OK);
  factory.Reset();
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

}  // namespace
}  // namespace qv
