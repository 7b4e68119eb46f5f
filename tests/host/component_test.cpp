// The DLL as the component system and script hosts see it: its registry entries, creation by
// class and ProgID in both kinds of apartment, and late binding through the type library that
// the DLL carries. The build copies vekxapix64.dll next to this program.

#include <windows.h>
// windows.h must come first.
#include <gtest/gtest.h>
#include <oleauto.h>

#include <cwchar>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "vekxapi/vekxapi.h"

namespace {

constexpr wchar_t kClsid[] = L"{5537F693-E42C-4e9b-B82F-4846591B6A45}";
constexpr wchar_t kLibid[] = L"{3AB104BA-4C16-4fb5-B16B-D60E390DCD3F}";
// The automation marshaller, which registering the type library assigns to dual interfaces.
constexpr wchar_t kAutomationMarshaller[] = L"{00020424-0000-0000-C000-000000000046}";

std::wstring ThisDirectory() {
  wchar_t path[MAX_PATH] = {};
  const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring directory(path, length);
  return directory.substr(0, directory.find_last_of(L'\\') + 1);
}

std::wstring DllPath() {
  return ThisDirectory() + L"vekxapix64.dll";
}

bool SameText(const std::wstring& a, const std::wstring& b) {
  return _wcsicmp(a.c_str(), b.c_str()) == 0;
}

std::wstring GuidText(REFGUID guid) {
  wchar_t text[39] = {};
  StringFromGUID2(guid, text, 39);
  return text;
}

// The text value `name` (nullptr: the default value) of `root`\`path`, if the key exists.
std::optional<std::wstring> RegistryText(HKEY root, const std::wstring& path,
                                         const wchar_t* name = nullptr) {
  wchar_t value[1024] = {};
  DWORD bytes = sizeof(value);
  if (RegGetValueW(root, path.c_str(), name, RRF_RT_REG_SZ, nullptr, value, &bytes) !=
      ERROR_SUCCESS) {
    return std::nullopt;
  }
  return std::wstring(value);
}

bool KeyExists(HKEY root, const std::wstring& path) {
  HKEY key = nullptr;
  if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
  RegCloseKey(key);
  return true;
}

// The DLL, loaded as regsvr32 loads it, with its registration exports.
class Dll {
 public:
  Dll() : module_(LoadLibraryW(DllPath().c_str())) {}
  ~Dll() {
    if (module_ != nullptr) FreeLibrary(module_);
  }
  Dll(const Dll&) = delete;
  Dll& operator=(const Dll&) = delete;

  HRESULT Register() const { return Call<HRESULT(STDAPICALLTYPE*)()>("DllRegisterServer")(); }
  HRESULT Unregister() const { return Call<HRESULT(STDAPICALLTYPE*)()>("DllUnregisterServer")(); }
  HRESULT Install(BOOL install, const wchar_t* command_line) const {
    return Call<HRESULT(STDAPICALLTYPE*)(BOOL, LPCWSTR)>("DllInstall")(install, command_line);
  }
  bool Loaded() const { return module_ != nullptr; }

 private:
  template <class Function>
  Function Call(const char* name) const {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module_, name)));
  }

  HMODULE module_;
};

// Runs `command_line` and gives its exit code.
DWORD RunProgram(std::wstring command_line) {
  STARTUPINFOW startup = {sizeof(startup)};
  PROCESS_INFORMATION process = {};
  if (!CreateProcessW(nullptr, command_line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                      &startup, &process)) {
    return GetLastError();
  }
  WaitForSingleObject(process.hProcess, INFINITE);
  DWORD code = 1;
  GetExitCodeProcess(process.hProcess, &code);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return code;
}

struct ExpectedValue {
  std::wstring path;
  const wchar_t* name;
  std::wstring value;
};

// Every key and value the class's registration consists of, under a classes root.
std::vector<ExpectedValue> ClassEntries(const std::wstring& appid) {
  const std::wstring clsid_key = std::wstring(L"CLSID\\") + kClsid;
  return {
      {L"vekxapi.VEKXAPI.1", nullptr, L"VEKXAPI Class"},
      {L"vekxapi.VEKXAPI.1\\CLSID", nullptr, kClsid},
      {L"vekxapi.VEKXAPI", nullptr, L"VEKXAPI Class"},
      {L"vekxapi.VEKXAPI\\CLSID", nullptr, kClsid},
      {L"vekxapi.VEKXAPI\\CurVer", nullptr, L"vekxapi.VEKXAPI.1"},
      {clsid_key, nullptr, L"VEKXAPI Class"},
      {clsid_key + L"\\ProgID", nullptr, L"vekxapi.VEKXAPI.1"},
      {clsid_key + L"\\VersionIndependentProgID", nullptr, L"vekxapi.VEKXAPI"},
      {clsid_key + L"\\InprocServer32", nullptr, DllPath()},
      {clsid_key + L"\\InprocServer32", L"ThreadingModel", L"Free"},
      {clsid_key + L"\\TypeLib", nullptr, kLibid},
      {L"AppID\\" + appid, nullptr, L"VEKXAPIx86"},
  };
}

void ExpectRegisteredUnder(HKEY root) {
  const auto appid = RegistryText(root, L"AppID\\VEKXAPIx86.DLL", L"AppID");
  ASSERT_TRUE(appid.has_value());
  for (const auto& entry : ClassEntries(*appid)) {
    const auto value = RegistryText(root, entry.path, entry.name);
    ASSERT_TRUE(value.has_value()) << entry.path.c_str();
    EXPECT_TRUE(SameText(*value, entry.value)) << entry.path.c_str();
  }
  EXPECT_TRUE(KeyExists(root, std::wstring(L"CLSID\\") + kClsid + L"\\Programmable"));
}

void ExpectNotRegisteredUnder(HKEY root) {
  for (const auto& entry : ClassEntries(L"")) {
    if (entry.path == L"AppID\\") continue;
    EXPECT_FALSE(KeyExists(root, entry.path)) << entry.path.c_str();
  }
  EXPECT_FALSE(KeyExists(root, L"AppID\\VEKXAPIx86.DLL"));
}

TEST(Resources, CarryTheVersion) {
  DWORD unused = 0;
  const DWORD size = GetFileVersionInfoSizeW(DllPath().c_str(), &unused);
  ASSERT_GT(size, 0u);
  std::vector<BYTE> block(size);
  ASSERT_TRUE(GetFileVersionInfoW(DllPath().c_str(), 0, size, block.data()));
  VS_FIXEDFILEINFO* fixed = nullptr;
  UINT length = 0;
  ASSERT_TRUE(VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&fixed), &length));
  EXPECT_EQ(fixed->dwFileVersionMS, 0x00050000u);
  EXPECT_EQ(fixed->dwFileVersionLS, 0x0000000Au);
  wchar_t* text = nullptr;
  ASSERT_TRUE(VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\FileVersion",
                             reinterpret_cast<void**>(&text), &length));
  EXPECT_STREQ(text, L"5.0.0.10");
}

TEST(Registration, MachineWideWritesEveryKeyAndUnregisteringRemovesThemAll) {
  Dll dll;
  ASSERT_TRUE(dll.Loaded());
  // A leftover of an older registration under the class key goes: it is rewritten whole.
  const std::wstring stale = std::wstring(L"CLSID\\") + kClsid + L"\\LocalServer32";
  HKEY key = nullptr;
  ASSERT_EQ(RegCreateKeyW(HKEY_CLASSES_ROOT, stale.c_str(), &key), ERROR_SUCCESS);
  RegCloseKey(key);

  ASSERT_EQ(dll.Register(), S_OK);
  ExpectRegisteredUnder(HKEY_CLASSES_ROOT);
  EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, stale));
  const auto appid = RegistryText(HKEY_CLASSES_ROOT, L"AppID\\VEKXAPIx86.DLL", L"AppID");
  ASSERT_TRUE(appid.has_value());

  BSTR library_path = nullptr;
  ASSERT_EQ(QueryPathOfRegTypeLib(LIBID_VEKXAPILib, 1, 0, 0, &library_path), S_OK);
  EXPECT_TRUE(SameText(library_path, DllPath()));
  SysFreeString(library_path);
  // Dual interfaces get the automation marshaller, for callers in other apartments.
  const std::wstring interface_key = L"Interface\\" + GuidText(IID_IVEKXAPI12);
  EXPECT_TRUE(
      SameText(RegistryText(HKEY_CLASSES_ROOT, interface_key + L"\\ProxyStubClsid32").value_or(L""),
               kAutomationMarshaller));

  ASSERT_EQ(dll.Unregister(), S_OK);
  ExpectNotRegisteredUnder(HKEY_CLASSES_ROOT);
  EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, L"AppID\\" + *appid));
  EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, interface_key));
  library_path = nullptr;
  EXPECT_NE(QueryPathOfRegTypeLib(LIBID_VEKXAPILib, 1, 0, 0, &library_path), S_OK);
  // Keys other components share stay.
  EXPECT_TRUE(KeyExists(HKEY_CLASSES_ROOT, L"CLSID"));
  EXPECT_TRUE(KeyExists(HKEY_CLASSES_ROOT, L"AppID"));

  // Unregistering what is not registered is not an error.
  EXPECT_EQ(dll.Unregister(), S_OK);
}

TEST(Registration, InstallSwitchesToTheCurrentUserOnlyForUser) {
  Dll dll;
  ASSERT_TRUE(dll.Loaded());
  // Five characters, terminator included: "users" is not the switch, so this goes machine-wide.
  ASSERT_EQ(dll.Install(TRUE, L"users"), S_OK);
  ExpectRegisteredUnder(HKEY_CLASSES_ROOT);
  ASSERT_EQ(dll.Install(FALSE, L"users"), S_OK);
  ExpectNotRegisteredUnder(HKEY_CLASSES_ROOT);

  // regsvr32 /n /i:user calls DllInstall(TRUE, L"user") in a process of its own, so the switch
  // does not stay on in this one.
  const std::wstring regsvr = L"regsvr32.exe /s /n /i:USER \"" + DllPath() + L"\"";
  ASSERT_EQ(RunProgram(regsvr), 0u);
  HKEY user_classes = nullptr;
  ASSERT_EQ(RegOpenKeyExW(HKEY_CURRENT_USER, L"Software\\Classes", 0, KEY_READ, &user_classes),
            ERROR_SUCCESS);
  ExpectRegisteredUnder(user_classes);
  // Nothing of the class went machine-wide.
  HKEY machine_classes = nullptr;
  ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Classes", 0, KEY_READ, &machine_classes),
            ERROR_SUCCESS);
  ExpectNotRegisteredUnder(machine_classes);

  ASSERT_EQ(RunProgram(L"regsvr32.exe /s /u /n /i:user \"" + DllPath() + L"\""), 0u);
  ExpectNotRegisteredUnder(user_classes);
  RegCloseKey(machine_classes);
  RegCloseKey(user_classes);
}

// The class registered machine-wide for the tests of the suite, and removed after them.
class Component : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dll_ = new Dll();
    ASSERT_EQ(dll_->Register(), S_OK);
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(dll_->Unregister(), S_OK);
    delete dll_;
    dll_ = nullptr;
  }

  // Runs `body` on a new thread that has joined an apartment of kind `model`.
  template <class Body>
  static void InApartment(DWORD model, Body body) {
    std::thread thread([&] {
      ASSERT_EQ(CoInitializeEx(nullptr, model), S_OK);
      body();
      CoUninitialize();
    });
    thread.join();
  }

  static inline Dll* dll_ = nullptr;
};

// Checks the root object behind `api` across its interface generations and through IDispatch.
void ExpectRootObject(IVEKXAPI* api) {
  IVEKXAPI12* latest = nullptr;
  ASSERT_EQ(api->QueryInterface(IID_IVEKXAPI12, reinterpret_cast<void**>(&latest)), S_OK);
  IVEKXAPI6* middle = nullptr;
  ASSERT_EQ(latest->QueryInterface(IID_IVEKXAPI6, reinterpret_cast<void**>(&middle)), S_OK);
  ITarget* target = nullptr;
  EXPECT_EQ(api->QueryInterface(IID_ITarget, reinterpret_cast<void**>(&target)), E_NOINTERFACE);
  EXPECT_EQ(target, nullptr);

  // One object: every generation gives the same identity.
  IUnknown* first = nullptr;
  IUnknown* second = nullptr;
  ASSERT_EQ(api->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&first)), S_OK);
  ASSERT_EQ(middle->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&second)), S_OK);
  EXPECT_EQ(first, second);
  first->Release();
  second->Release();

  UINT count = 0;
  ASSERT_EQ(latest->GetTypeInfoCount(&count), S_OK);
  EXPECT_EQ(count, 1u);
  ITypeInfo* info = nullptr;
  ASSERT_EQ(latest->GetTypeInfo(0, 0, &info), S_OK);
  TYPEATTR* attributes = nullptr;
  ASSERT_EQ(info->GetTypeAttr(&attributes), S_OK);
  EXPECT_TRUE(IsEqualGUID(attributes->guid, IID_IVEKXAPI12));
  info->ReleaseTypeAttr(attributes);
  info->Release();
  middle->Release();
  latest->Release();
}

// By ProgID, in both kinds of apartment. A free-threaded class lives in the multithreaded
// apartment; a single-threaded one reaches it through a proxy that the type library's
// registration makes possible.
TEST_F(Component, CreatesByProgIdInBothApartmentKinds) {
  for (const COINIT model : {COINIT_MULTITHREADED, COINIT_APARTMENTTHREADED}) {
    InApartment(model, [model] {
      // Both ProgIDs' keys are the registration test's; the script client creates by each.
      CLSID clsid = {};
      ASSERT_EQ(CLSIDFromProgID(L"vekxapi.VEKXAPI", &clsid), S_OK);
      IVEKXAPI* api = nullptr;
      ASSERT_EQ(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IVEKXAPI,
                                 reinterpret_cast<void**>(&api)),
                S_OK);
      IUnknown* proxy_manager = nullptr;
      EXPECT_EQ(api->QueryInterface(IID_IClientSecurity, reinterpret_cast<void**>(&proxy_manager)),
                model == COINIT_APARTMENTTHREADED ? S_OK : E_NOINTERFACE);
      if (proxy_manager != nullptr) proxy_manager->Release();
      ExpectRootObject(api);
      api->Release();
    });
  }
}

// The DISPID of `name` on `object`.
DISPID IdOf(IDispatch* object, const wchar_t* name) {
  std::wstring text(name);
  LPOLESTR names[] = {text.data()};
  DISPID id = DISPID_UNKNOWN;
  EXPECT_EQ(object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id), S_OK) << name;
  return id;
}

// Late binding as a script host does it, from a single-threaded apartment through the proxy:
// names to DISPIDs, then Invoke with variants.
TEST_F(Component, DispatchCallsByNameAndCarriesFailures) {
  InApartment(COINIT_APARTMENTTHREADED, [] {
    IDispatch* api = nullptr;
    ASSERT_EQ(CoCreateInstance(CLSID_VEKXAPI, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch,
                               reinterpret_cast<void**>(&api)),
              S_OK);
    VARIANTARG argument;
    VariantInit(&argument);
    V_VT(&argument) = VT_I4;
    V_I4(&argument) = 20;
    DISPPARAMS params = {&argument, nullptr, 1, 0};
    EXCEPINFO exception = {};
    UINT bad_argument = 0;
    const DISPID check = IdOf(api, L"CheckCompatibility");
    EXPECT_EQ(api->Invoke(check, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, nullptr,
                          &exception, &bad_argument),
              DISP_E_EXCEPTION);
    // The library's code and its text (the table's, not a generic one) reach the caller.
    EXPECT_EQ(exception.scode, KXAPI_INCOMPATIBLE_CLIENT_TOO_OLD);
    ASSERT_NE(exception.bstrDescription, nullptr);
    EXPECT_NE(std::wstring(exception.bstrDescription).find(L"IVEKXAPI.CheckCompatibility"),
              std::wstring::npos)
        << exception.bstrDescription;
    SysFreeString(exception.bstrDescription);
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrHelpFile);

    // Version(major, minor, patch, build): four out-arguments, by reference, in reverse order.
    ULONG parts[4] = {};
    VARIANTARG outputs[4];
    for (int i = 0; i < 4; ++i) {
      VariantInit(&outputs[i]);
      V_VT(&outputs[i]) = VT_UI4 | VT_BYREF;
      V_UI4REF(&outputs[i]) = &parts[3 - i];
    }
    DISPPARAMS version_params = {outputs, nullptr, 4, 0};
    ASSERT_EQ(api->Invoke(IdOf(api, L"Version"), IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD,
                          &version_params, nullptr, &exception, &bad_argument),
              S_OK);
    EXPECT_EQ(std::vector<ULONG>(parts, parts + 4), (std::vector<ULONG>{5, 0, 0, 10}));

    // The type library, not the object, checks the arguments.
    params.cArgs = 0;
    EXPECT_EQ(api->Invoke(check, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, nullptr,
                          &exception, &bad_argument),
              DISP_E_BADPARAMCOUNT);
    api->Release();
  });
}

}  // namespace
