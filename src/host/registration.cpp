#include "host/registration.h"

#include <oleauto.h>

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "vekxapi/vekxapi.h"

// In oleaut32 since Windows Vista, and in MinGW's import library, but not in its headers.
EXTERN_C DECLSPEC_IMPORT HRESULT STDAPICALLTYPE RegisterTypeLibForUser(ITypeLib* library,
                                                                       OLECHAR* path,
                                                                       OLECHAR* help_directory);
EXTERN_C DECLSPEC_IMPORT HRESULT STDAPICALLTYPE UnRegisterTypeLibForUser(REFGUID library,
                                                                         WORD major, WORD minor,
                                                                         LCID locale,
                                                                         SYSKIND system);

namespace qv::host {
namespace {

// The AppID is ours alone (the interfaces, class and library are named in the IDL); the 64-bit
// build registers it under the x86 names, which clients of earlier builds look up.
// {75902986-E4C2-4C90-BDCC-AA7705B819DC}
constexpr GUID kAppId = {
    0x75902986, 0xe4c2, 0x4c90, {0xbd, 0xcc, 0xaa, 0x77, 0x05, 0xb8, 0x19, 0xdc}};

// What unregistering does with a key, and whether registering clears it first.
enum class Removal {
  kKeep,         // shared with other components (CLSID, AppID): never deleted
  kDelete,       // deleted with everything under it
  kForceDelete,  // as kDelete, and deleted before it is written, so no stale subkey survives
};

// One key under the classes root, with its default value and at most one named value; an empty
// text means "no such value". %CLSID%, %LIBID%, %APPID% and %MODULE% are replaced when written.
// Parents come before their children: registering walks forwards, unregistering backwards.
struct KeyEntry {
  std::wstring_view path;
  Removal removal;
  std::wstring_view default_value;
  std::wstring_view value_name;
  std::wstring_view value;
};

constexpr KeyEntry kKeys[] = {
    {L"AppID", Removal::kKeep, L"", L"", L""},
    {L"AppID\\%APPID%", Removal::kDelete, L"VEKXAPIx86", L"", L""},
    {L"AppID\\VEKXAPIx86.DLL", Removal::kDelete, L"", L"AppID", L"%APPID%"},

    {L"vekxapi.VEKXAPI.1", Removal::kDelete, L"VEKXAPI Class", L"", L""},
    {L"vekxapi.VEKXAPI.1\\CLSID", Removal::kDelete, L"%CLSID%", L"", L""},
    {L"vekxapi.VEKXAPI", Removal::kDelete, L"VEKXAPI Class", L"", L""},
    {L"vekxapi.VEKXAPI\\CLSID", Removal::kDelete, L"%CLSID%", L"", L""},
    {L"vekxapi.VEKXAPI\\CurVer", Removal::kDelete, L"vekxapi.VEKXAPI.1", L"", L""},
    {L"CLSID", Removal::kKeep, L"", L"", L""},
    {L"CLSID\\%CLSID%", Removal::kForceDelete, L"VEKXAPI Class", L"", L""},
    {L"CLSID\\%CLSID%\\ProgID", Removal::kDelete, L"vekxapi.VEKXAPI.1", L"", L""},
    {L"CLSID\\%CLSID%\\VersionIndependentProgID", Removal::kDelete, L"vekxapi.VEKXAPI", L"", L""},
    {L"CLSID\\%CLSID%\\Programmable", Removal::kForceDelete, L"", L"", L""},
    {L"CLSID\\%CLSID%\\InprocServer32", Removal::kDelete, L"%MODULE%", L"ThreadingModel", L"Free"},
    {L"CLSID\\%CLSID%\\TypeLib", Removal::kDelete, L"%LIBID%", L"", L""},
};

struct KeyCloser {
  void operator()(HKEY key) const noexcept { RegCloseKey(key); }
};
using UniqueKey = std::unique_ptr<std::remove_pointer_t<HKEY>, KeyCloser>;

struct TypeLibReleaser {
  void operator()(ITypeLib* library) const noexcept { library->Release(); }
};
using UniqueTypeLib = std::unique_ptr<ITypeLib, TypeLibReleaser>;

// The values of the placeholders of kKeys.
class Placeholders {
 public:
  explicit Placeholders(std::wstring module_path)
      : values_{{{L"%CLSID%", GuidText(CLSID_VEKXAPI)},
                 {L"%LIBID%", GuidText(LIBID_VEKXAPILib)},
                 {L"%APPID%", GuidText(kAppId)},
                 {L"%MODULE%", std::move(module_path)}}} {}

  std::wstring Expand(std::wstring_view text) const {
    std::wstring out(text);
    for (const auto& [name, value] : values_) {
      for (size_t at = out.find(name); at != std::wstring::npos;
           at = out.find(name, at + value.size())) {
        out.replace(at, name.size(), value);
      }
    }
    return out;
  }

 private:
  static std::wstring GuidText(const GUID& guid) {
    wchar_t text[39] = {};
    StringFromGUID2(guid, text, 39);
    return text;
  }

  std::array<std::pair<std::wstring_view, std::wstring>, 4> values_;
};

HRESULT FromWin32(LONG error) {
  return HRESULT_FROM_WIN32(static_cast<DWORD>(error));
}

std::wstring ModulePath(HMODULE module) {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0) return {};
    if (length < path.size()) {
      path.resize(length);
      return path;
    }
    path.resize(path.size() * 2);
  }
}

// The classes root of `scope`, or a failure.
HRESULT OpenClassesRoot(RegistrationScope scope, UniqueKey& root) {
  HKEY key = nullptr;
  const LONG error = scope == RegistrationScope::kMachine
                         ? RegOpenKeyExW(HKEY_CLASSES_ROOT, nullptr, 0, KEY_ALL_ACCESS, &key)
                         : RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\Classes", 0, nullptr, 0,
                                           KEY_ALL_ACCESS, nullptr, &key, nullptr);
  if (error != ERROR_SUCCESS) return FromWin32(error);
  root.reset(key);
  return S_OK;
}

HRESULT DeleteTree(HKEY root, const std::wstring& path) {
  const LONG error = RegDeleteTreeW(root, path.c_str());
  return error == ERROR_SUCCESS || error == ERROR_FILE_NOT_FOUND ? S_OK : FromWin32(error);
}

HRESULT SetText(HKEY key, const wchar_t* name, const std::wstring& text) {
  const auto bytes = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
  return FromWin32(
      RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()), bytes));
}

HRESULT WriteKeys(HKEY root, const Placeholders& placeholders) {
  for (const KeyEntry& entry : kKeys) {
    const std::wstring path = placeholders.Expand(entry.path);
    if (entry.removal == Removal::kForceDelete) {
      if (const HRESULT hr = DeleteTree(root, path); FAILED(hr)) return hr;
    }
    HKEY created = nullptr;
    const LONG error = RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr,
                                       &created, nullptr);
    if (error != ERROR_SUCCESS) return FromWin32(error);
    const UniqueKey key(created);
    if (!entry.default_value.empty()) {
      if (const HRESULT hr = SetText(key.get(), nullptr, placeholders.Expand(entry.default_value));
          FAILED(hr)) {
        return hr;
      }
    }
    if (!entry.value_name.empty()) {
      const std::wstring name(entry.value_name);
      if (const HRESULT hr = SetText(key.get(), name.c_str(), placeholders.Expand(entry.value));
          FAILED(hr)) {
        return hr;
      }
    }
  }
  return S_OK;
}

HRESULT DeleteKeys(HKEY root, const Placeholders& placeholders) {
  for (auto entry = std::rbegin(kKeys); entry != std::rend(kKeys); ++entry) {
    if (entry->removal == Removal::kKeep) continue;
    if (const HRESULT hr = DeleteTree(root, placeholders.Expand(entry->path)); FAILED(hr)) {
      return hr;
    }
  }
  return S_OK;
}

HRESULT LoadModuleTypeLib(const std::wstring& module_path, UniqueTypeLib& library) {
  ITypeLib* loaded = nullptr;
  if (const HRESULT hr = LoadTypeLibEx(module_path.c_str(), REGKIND_NONE, &loaded); FAILED(hr)) {
    return hr;
  }
  library.reset(loaded);
  return S_OK;
}

HRESULT RegisterTypeLibrary(const std::wstring& module_path, RegistrationScope scope) {
  UniqueTypeLib library;
  if (const HRESULT hr = LoadModuleTypeLib(module_path, library); FAILED(hr)) return hr;
  // The API takes non-const strings that it does not change.
  std::wstring path = module_path;
  return scope == RegistrationScope::kMachine
             ? RegisterTypeLib(library.get(), path.data(), nullptr)
             : RegisterTypeLibForUser(library.get(), path.data(), nullptr);
}

HRESULT UnregisterTypeLibrary(const std::wstring& module_path, RegistrationScope scope) {
  UniqueTypeLib library;
  if (const HRESULT hr = LoadModuleTypeLib(module_path, library); FAILED(hr)) return hr;
  TLIBATTR* attributes = nullptr;
  if (const HRESULT hr = library->GetLibAttr(&attributes); FAILED(hr)) return hr;
  const TLIBATTR attr = *attributes;
  library->ReleaseTLibAttr(attributes);

  // Nothing registered under this version is nothing to remove; the system would call it a
  // failure.
  BSTR registered = nullptr;
  if (FAILED(QueryPathOfRegTypeLib(attr.guid, attr.wMajorVerNum, attr.wMinorVerNum, attr.lcid,
                                   &registered))) {
    return S_OK;
  }
  SysFreeString(registered);
  return scope == RegistrationScope::kMachine
             ? UnRegisterTypeLib(attr.guid, attr.wMajorVerNum, attr.wMinorVerNum, attr.lcid,
                                 attr.syskind)
             : UnRegisterTypeLibForUser(attr.guid, attr.wMajorVerNum, attr.wMinorVerNum, attr.lcid,
                                        attr.syskind);
}

}  // namespace

HRESULT RegisterServer(HMODULE module, RegistrationScope scope) noexcept {
  try {
    const std::wstring module_path = ModulePath(module);
    if (module_path.empty()) return HRESULT_FROM_WIN32(GetLastError());
    UniqueKey root;
    if (const HRESULT hr = OpenClassesRoot(scope, root); FAILED(hr)) return hr;
    if (const HRESULT hr = WriteKeys(root.get(), Placeholders(module_path)); FAILED(hr)) {
      return hr;
    }
    return RegisterTypeLibrary(module_path, scope);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT UnregisterServer(HMODULE module, RegistrationScope scope) noexcept {
  try {
    const std::wstring module_path = ModulePath(module);
    if (module_path.empty()) return HRESULT_FROM_WIN32(GetLastError());
    UniqueKey root;
    if (const HRESULT hr = OpenClassesRoot(scope, root); FAILED(hr)) return hr;
    if (const HRESULT hr = DeleteKeys(root.get(), Placeholders(module_path)); FAILED(hr)) {
      return hr;
    }
    return UnregisterTypeLibrary(module_path, scope);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

}  // namespace qv::host
