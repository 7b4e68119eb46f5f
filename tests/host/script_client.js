// A script client of the registered DLL: creates the root object by ProgID and calls it late
// bound, through the type library. Says "all checks passed" only when they did: Wine's cscript
// exits with 0 and prints nothing on an uncaught script error.

var failures = 0;
function check(condition, what) {
  if (!condition) {
    WScript.Echo("FAILED: " + what);
    failures++;
  }
}
// The number a failed call throws, as the unsigned 32-bit code the method returned.
function errorOf(call) {
  try {
    call();
  } catch (e) {
    return e.number < 0 ? e.number + 0x100000000 : e.number;
  }
  return 0;
}

try {
  var api = new ActiveXObject("vekxapi.VEKXAPI");
  check(new ActiveXObject("vekxapi.VEKXAPI.1") !== null, "the versioned ProgID creates the object");

  check(api.GetErrorDescription(0) === "Success.", "GetErrorDescription(0) is \"Success.\"");
  // A code without a text: E_INVALIDARG. Passed as a signed long, as the type library declares it.
  check(errorOf(function () { api.GetErrorDescription(0x80070057 | 0); }) === 0x80070057,
        "GetErrorDescription of a code without a text throws E_INVALIDARG");

  // Too old and too new clients are refused; the library's codes reach the script as exceptions,
  // with the library's texts.
  var refused = null;
  try {
    api.CheckCompatibility(20);
  } catch (e) {
    refused = e;
  }
  check(refused !== null && refused.number + 0x100000000 === 0x8004027E,
        "CheckCompatibility(20) throws KXAPI_INCOMPATIBLE_CLIENT_TOO_OLD");
  check(refused !== null && refused.description.length > 0, "the failure has a description");
  check(errorOf(function () { api.CheckCompatibility(22); }) === 0x8004027F,
        "CheckCompatibility(22) throws KXAPI_INCOMPATIBLE_CLIENT_TOO_NEW");
  check(errorOf(function () { api.CheckCompatibility(21); }) === 0, "CheckCompatibility(21) passes");

  // A name the type library does not know is the script engine's own error, not a call.
  check(errorOf(function () { api.NoSuchMethod(); }) === 0x800A01B6,
        "an unknown method is an unsupported property or method");
} catch (e) {
  check(false, "uncaught " + e.number + ": " + e.description);
}

if (failures === 0) WScript.Echo("all checks passed");
WScript.Quit(failures === 0 ? 0 : 1);
