// The native half of the Python package vekxapi: the public objects as Python classes. The pure
// Python half (vekxapi/__init__.py) adds connect(), the exceptions and the event iterator.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "answer_limit.h"
#include "api_object.h"
#include "console_stream.h"
#include "debug_objects.h"
#include "errors.h"
#include "subscriptions.h"
#include "target_object.h"

namespace vekx_python {
namespace {

namespace py = pybind11;

std::string Hex(std::uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

// p.memory: bytes by address, p.memory[a:b] and p.memory[a].
class Memory {
 public:
  explicit Memory(Process process) : process_(std::move(process)) {}

  py::object Read(const py::object& key) {
    if (py::isinstance<py::slice>(key)) {
      const auto [start, count] = Range(key);
      return process_.Read(start, count);
    }
    const std::string byte = process_.Read(key.cast<std::uint64_t>(), 1);
    return py::int_(static_cast<unsigned char>(byte[0]));
  }
  void Write(const py::object& key, const py::object& value) {
    if (!py::isinstance<py::slice>(key)) {
      const auto byte = static_cast<char>(value.cast<std::uint8_t>());
      process_.Write(key.cast<std::uint64_t>(), std::string(1, byte));
      return;
    }
    const auto [start, count] = Range(key);
    const std::string data = py::bytes(value);
    if (data.size() != count) {
      Raise(Kind::kInvalidArgument, E_INVALIDARG,
            "the slice holds " + std::to_string(count) + " bytes, the value " +
                std::to_string(data.size()));
    }
    process_.Write(start, data);
  }

 private:
  // A slice with a start and a stop, and no step but 1.
  static std::pair<std::uint64_t, std::uint32_t> Range(const py::object& key) {
    const py::object start = key.attr("start");
    const py::object stop = key.attr("stop");
    const py::object step = key.attr("step");
    if (start.is_none() || stop.is_none() || !(step.is_none() || step.cast<long>() == 1)) {
      Raise(Kind::kInvalidArgument, E_INVALIDARG,
            "memory is sliced by start and end address, as memory[0x1000:0x1010]");
    }
    const auto from = start.cast<std::uint64_t>();
    const auto to = stop.cast<std::uint64_t>();
    if (to < from || to - from > UINT32_MAX)
      Raise(Kind::kInvalidArgument, E_INVALIDARG,
            "the end must lie from 0 to 4 GiB past the start");
    return {from, static_cast<std::uint32_t>(to - from)};
  }

  Process process_;
};

// th.registers: registers by name.
class Registers {
 public:
  explicit Registers(Thread thread) : thread_(std::move(thread)) {}
  py::int_ Read(const std::string& name) { return thread_.Register(name); }
  void Write(const std::string& name, const py::int_& value) { thread_.SetRegister(name, value); }

 private:
  Thread thread_;
};

template <class Method>
auto Action(Method method) {
  return [method](const Target& target) { target.Act(method); };
}

}  // namespace
}  // namespace vekx_python

PYBIND11_MODULE(_native, m) {
  using namespace vekx_python;
  namespace py = pybind11;
  m.doc() = "The vekxapi library's objects; use the vekxapi package rather than this module.";

  py::class_<Stop>(m, "Stop", "How a run of a process ended: a stop, its exit or its kill.")
      .def_readonly("kind", &Stop::kind)
      .def_readonly("pid", &Stop::pid)
      .def_readonly("tid", &Stop::tid)
      .def_readonly("reason", &Stop::reason)
      .def_readonly("rip", &Stop::rip)
      .def_readonly("exit_code", &Stop::exit_code)
      .def("__repr__", [](const Stop& s) {
        std::string text = "<Stop " + s.kind + " pid=" + std::to_string(s.pid);
        if (s.tid) text += " tid=" + std::to_string(*s.tid);
        if (s.rip) text += " rip=" + Hex(*s.rip);
        if (s.reason) text += " reason=" + std::to_string(*s.reason);
        if (s.exit_code) text += " exit_code=" + std::to_string(*s.exit_code);
        return text + ">";
      });

  py::class_<ConsolePiece>(m, "ConsolePiece", "One piece of console output; str() is its text.")
      .def_readonly("index", &ConsolePiece::index)
      .def_readonly("port", &ConsolePiece::port)
      .def_readonly("category", &ConsolePiece::category)
      .def_readonly("pid", &ConsolePiece::process_id)
      .def_readonly("tid", &ConsolePiece::thread_id)
      .def_readonly("timestamp", &ConsolePiece::timestamp)
      .def_readonly("text", &ConsolePiece::text)
      .def("__str__", [](const ConsolePiece& p) { return p.text; })
      .def("__repr__", [](const ConsolePiece& p) {
        return "<ConsolePiece " + std::to_string(p.index) + " port=" + std::to_string(p.port) +
               " " + py::repr(py::str(p.text)).cast<std::string>() + ">";
      });

  py::class_<ConsoleStream>(m, "ConsoleStream", "A target's console output as an iterator.")
      .def("__iter__", [](ConsoleStream& s) -> ConsoleStream& { return s; })
      .def("__next__", &ConsoleStream::Next)
      .def("close", &ConsoleStream::Close)
      .def("__enter__", [](ConsoleStream& s) -> ConsoleStream& { return s; })
      .def("__exit__", [](ConsoleStream& s, const py::args&) { s.Close(); });

  py::class_<Subscription>(m, "Subscription", "Event callbacks; close() ends them.")
      .def("close", &Subscription::Close)
      .def_property_readonly("closed", &Subscription::closed)
      .def("__enter__", [](Subscription& s) -> Subscription& { return s; })
      .def("__exit__", [](Subscription& s, const py::args&) { s.Close(); });

  py::class_<Registers>(m, "Registers",
                        "A thread's registers by name: rax ... r15, rip, rflags, fsbase, the FP "
                        "environment, st0 ... st7, ymm0 ... ymm15, dr0 ... dr15.")
      .def("__getitem__", &Registers::Read)
      .def("__setitem__", &Registers::Write)
      .def("keys", [](const Registers&) { return Thread::RegisterNames(); });

  py::class_<Thread>(m, "Thread")
      .def_property_readonly("tid", &Thread::tid)
      .def_property_readonly("registers", [](const Thread& t) { return Registers(t); })
      .def("__repr__", [](const Thread& t) { return "<Thread " + std::to_string(t.tid()) + ">"; });

  py::class_<Memory>(m, "Memory", "A process's memory: memory[start:end] as bytes.")
      .def("__getitem__", &Memory::Read)
      .def("__setitem__", &Memory::Write);

  py::class_<Process>(m, "Process")
      .def_property_readonly("pid", &Process::pid)
      .def_property_readonly("memory", [](const Process& p) { return Memory(p); })
      .def_property_readonly("threads", &Process::Threads)
      .def("break_at", &Process::BreakAt, py::arg("address"), py::arg("thread") = 0,
           "Sets a software breakpoint; returns its id.")
      .def("clear_break", &Process::ClearBreak, py::arg("id"))
      .def("resume", &Process::Resume, py::arg("wait") = false, py::arg("timeout") = 30.0,
           "Lets the process run; with wait=True returns its next Stop.")
      .def("suspend", &Process::Suspend)
      .def("kill", &Process::Kill)
      .def("__repr__",
           [](const Process& p) { return "<Process " + std::to_string(p.pid()) + ">"; });

  py::class_<Target>(m, "Target")
      .def_property_readonly("handle", &Target::handle)
      .def_property_readonly("name", &Target::name)
      .def_property_readonly("host", &Target::host)
      .def_property_readonly("power", &Target::power)
      .def_property_readonly("connection", &Target::connection)
      .def_property_readonly("info", &Target::info)
      .def_property_readonly("console_index", &Target::console_index)
      .def("power_on", Action(&ITarget::PowerOn))
      .def("power_off", Action(&ITarget::PowerOff))
      .def("reboot", Action(&ITarget::Reboot))
      .def("suspend", Action(&ITarget::Suspend))
      .def("connect", Action(&ITarget::Connect))
      .def("disconnect", Action(&ITarget::Disconnect))
      .def("console", &Target::Console, py::arg("follow") = false, py::arg("since") = 0,
           py::arg("timeout") = py::none(),
           "The cached console output from `since`; with follow=True then the live output, "
           "until `timeout` seconds have passed (None: until closed).")
      .def("send_console", &Target::SendConsole, py::arg("text"), py::arg("port") = 0)
      .def("load", &Target::Load, py::arg("path"), py::arg("args") = std::vector<std::string>(),
           py::arg("stop_at_entry") = false, py::arg("cwd") = "")
      .def_property_readonly("processes", &Target::Processes)
      .def(
          "__eq__", [](const Target& a, const Target& b) { return a.handle() == b.handle(); },
          py::is_operator())
      .def("__hash__", [](const Target& t) { return t.handle(); })
      .def("__repr__", [](const Target& t) {
        return "<Target " + std::to_string(t.handle()) + " " + t.host() + ">";
      });

  py::class_<Api>(m, "Api", "The root object: a connection to the server.")
      .def(py::init<>())
      .def_property_readonly("targets", &Api::Targets)
      .def("target", &Api::Find, py::arg("spec"), "A target by handle, host name or name.")
      .def("add_target", &Api::Add, py::arg("host"))
      .def("subscribe", &Api::Subscribe, py::arg("callback"), py::arg("groups") = py::none(),
           py::arg("target") = py::none())
      .def_property_readonly("version", &Api::Version)
      .def_property_readonly("server_version", &Api::ServerVersion)
      .def("describe", &Api::Describe, py::arg("code"), "The library's text for a result code.")
      .def("dispose", &Api::Dispose)
      .def_property_readonly("disposed", &Api::disposed)
      .def("__enter__", [](Api& a) -> Api& { return a; })
      .def("__exit__", [](Api& a, const py::args&) { a.Dispose(); });

  py::class_<TimeoutScope>(m, "timeout",
                           "with vekxapi.timeout(seconds): the calls this thread makes in the "
                           "block wait at most `seconds` for the server's answer (None: no limit), "
                           "then raise TargetTimeout.")
      .def(py::init<std::optional<double>>(), py::arg("seconds"))
      .def("__enter__",
           [](TimeoutScope& scope) -> TimeoutScope& {
             scope.Enter();
             return scope;
           })
      .def("__exit__", [](TimeoutScope& scope, const py::args&) { scope.Exit(); });
  m.def("set_timeout", &SetDefaultTimeout, py::arg("seconds"),
        "How long every call waits for the server's answer unless a `with timeout()` block says "
        "otherwise; None (the default) waits as long as the server takes.");
  m.def("get_timeout", &DefaultTimeout, "The default set by set_timeout, or None.");

  m.attr("GROUPS") = GroupNames();
  m.def("_close_all", &Subscription::CloseAll);
  m.def("_result_name", [](std::int64_t code) { return ResultName(static_cast<HRESULT>(code)); });
}
