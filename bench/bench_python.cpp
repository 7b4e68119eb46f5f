// ITarget::PowerStatus from Python (`t.power` through the vekxapi package, in an interpreter
// embedded in this process) beside the same call from C++ through the public objects, in the same
// run against the same real vesta-kx.
//
//   BM_PowerStatusCpp     target->get_PowerStatus(&status), the C++ host's call
//   BM_PowerFromPython    `t.power` in a Python loop; each benchmark iteration runs 16 reads, and
//                         calls/s count the reads
//
// Both report calls/s as items_per_second; the ratio Python / C++ is printed at the end (to
// stderr with --benchmark_format=json). Both go through the public entry point, so the library
// starts vesta-kx from PATH in a runtime directory of this run's own; vesta-ctrl stops it at the
// end.

#include <pybind11/embed.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench_floor.h"
#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/library.h"
#include "vekxapi/status.h"
#include "vekxapi/vekxapi.h"

// The embedded interpreter keeps some of its allocations to the end of the process.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libpython3";
}

namespace {

namespace py = pybind11;

constexpr int kReadsPerIteration = 16;

vekx::ComPtr<ITarget> g_target;
py::object g_reads;  // a Python function reading t.power kReadsPerIteration times

void BM_PowerStatusCpp(benchmark::State& state) {
  ePowerStatus status = POWER_STATUS_UNKNOWN;
  for (auto _ : state) {
    if (g_target->get_PowerStatus(&status) != S_OK) {
      state.SkipWithError("PowerStatus failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_PowerFromPython(benchmark::State& state) {
  for (auto _ : state) {
    try {
      g_reads();
    } catch (const py::error_already_set& failure) {
      state.SkipWithError(failure.what());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kReadsPerIteration);
}

BENCHMARK(BM_PowerStatusCpp)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PowerFromPython)->UseRealTime()->Unit(benchmark::kMicrosecond);

void PrintRatio(const qv::bench::FigureReporter& reporter) {
  const auto* cpp = reporter.Find("BM_PowerStatusCpp/real_time");
  const auto* python = reporter.Find("BM_PowerFromPython/real_time");
  if (cpp == nullptr || python == nullptr || cpp->calls_per_second <= 0) return;
  std::fprintf(reporter.out(),
               "ratio t.power from Python calls/s / PowerStatus from C++ calls/s = %.2f "
               "(%.0f / %.0f)\n",
               python->calls_per_second / cpp->calls_per_second, python->calls_per_second,
               cpp->calls_per_second);
}

// The same kit for both sides: the built-in scenario's default one.
bool Run(std::string_view format) {
  vekx::ComPtr<IVEKXAPI12> api;
  HRESULT hr = VekxCreateRoot(IID_IVEKXAPI12, reinterpret_cast<void**>(api.Put()));
  if (SUCCEEDED(hr)) hr = api->CheckCompatibility(21);
  if (SUCCEEDED(hr)) hr = api->get_DefaultTarget(g_target.Put());
  if (FAILED(hr)) {
    std::fprintf(stderr, "cannot reach the server's default target: %s\n",
                 vekx::Status::Of(hr).message().c_str());
    return false;
  }
  vekx::Bstr host;
  if (g_target->get_HostName(host.Put()) != S_OK) return false;
  bool ok = true;
  try {
    py::module_::import("sys").attr("path").attr("insert")(0, VEKX_PYTHON_DIR);
    py::dict names;
    names["host"] = host.Utf8();
    names["count"] = kReadsPerIteration;
    py::exec(R"(
import vekxapi
root = vekxapi.connect()
kit = root.target(host)
def reads():
    for _ in range(count):
        kit.power
)",
             names);
    g_reads = names["reads"];
    qv::bench::FigureReporter reporter(format);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    PrintRatio(reporter);
    g_reads = py::object();
    py::exec("root.dispose()", names);
  } catch (const py::error_already_set& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    ok = false;
  }
  g_target.Reset();
  api->Dispose();
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view format = qv::bench::OutputFormat(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  // A runtime directory of this run's own, and the tree's server first along PATH.
  std::string run_dir = (std::filesystem::temp_directory_path() / "vekx-bench-python-XXXXXX");
  if (mkdtemp(run_dir.data()) == nullptr) return 1;
  setenv("XDG_RUNTIME_DIR", run_dir.c_str(), 1);
  const char* path = std::getenv("PATH");
  setenv("PATH", (std::string(VEKX_SERVER_DIR) + ":" + (path ? path : "")).c_str(), 1);

  bool ok;
  {
    py::scoped_interpreter python;
    ok = Run(format);
  }
  const std::string stop = std::string(VEKX_CTRL) + " server stop >/dev/null";
  ok = std::system(stop.c_str()) == 0 && ok;
  std::error_code ignored;
  std::filesystem::remove_all(run_dir, ignored);
  benchmark::Shutdown();
  return ok ? 0 : 1;
}
