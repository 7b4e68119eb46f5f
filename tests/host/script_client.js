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

  // A refused call reaches the script as an exception carrying the library's code and text.
  var refused = null;
  try {
    api.CheckCompatibility(20);
  } catch (e) {
    refused = e;
  }
  check(refused !== null && refused.number < 0, "CheckCompatibility(20) throws a failure");
  check(refused !== null && refused.description.length > 0, "the failure has a description");

  // A name the type library does not know is the script engine's own error, not a call.
  check(errorOf(function () { api.NoSuchMethod(); }) === 0x800A01B6,
        "an unknown method is an unsupported property or method");
} catch (e) {
  check(false, "uncaught " + e.number + ": " + e.description);
}

if (failures === 0) WScript.Echo("all checks passed");
WScript.Quit(failures === 0 ? 0 : 1);
