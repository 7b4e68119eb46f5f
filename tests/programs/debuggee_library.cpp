// A shared library the debuggee opens and closes (its `dlopen` mode): one that no build of the
// debuggee has loaded already, so that the local target's tests see a library come and go.
extern "C" int vekx_library_value() {
  return 42;
}
