"""The package against vesta-kx's built-in kits and the local target."""

import contextlib
import doctest
import os
import subprocess
import sys
import threading
import time

import pytest

import vekxapi
from conftest import PRELOAD, SERVER_DIR

DOC = os.path.join(os.path.dirname(__file__), "..", "..", "docs", "python.md")


def run_python(program, env=None):
    env = dict(env or os.environ, **({"LD_PRELOAD": PRELOAD} if PRELOAD else {}))
    return subprocess.run([sys.executable, "-c", program], env=env, capture_output=True,
                          text=True, timeout=60, check=False)


@pytest.mark.parametrize("spec", [2, "2", "devkit-beta"])
def test_a_target_is_found_by_handle_host_or_name(api, spec):
    assert api.target(spec).host == "devkit-beta"


def _disposed_root(_):
    root = vekxapi.connect()
    root.dispose()
    return root.targets


# call, exception class, code, a piece of the description
ERRORS = {
    "unknown target": (lambda api: api.target("no-such-kit"), vekxapi.NotFound, 0x80040203,
                       "no-such-kit"),
    "unreachable kit": (lambda api: api.target("192.168.40.99").power, vekxapi.TargetError,
                        0x80040246, "no kit answers"),
    "unknown group": (lambda api: api.subscribe(print, groups=["nope"]), vekxapi.InvalidArgument,
                      0x80070057, "nope"),
    "target by float": (lambda api: api.target(1.5), vekxapi.InvalidArgument, 0x80070057,
                        "handle"),
    "disposed root": (_disposed_root, vekxapi.ServerError, 0x80040202, "disposed"),
}


@pytest.mark.parametrize("call, kind, code, text", ERRORS.values(), ids=ERRORS.keys())
def test_failures_raise_their_class_with_code_name_and_text(api, call, kind, code, text):
    with pytest.raises(kind) as raised:
        call(api)
    assert raised.value.code == code
    assert raised.value.name == vekxapi._native._result_name(code) != f"0x{code:08X}"
    assert text in raised.value.description


@contextlib.contextmanager
def counting_thread():
    """A thread that counts while the block runs: the count stays near 0 if the block holds the
    GIL while it waits."""
    ticks = []
    done = threading.Event()

    def count():
        while not done.is_set():
            ticks.append(1)
            time.sleep(0.001)

    counter = threading.Thread(target=count)
    counter.start()
    try:
        yield ticks
    finally:
        done.set()
        counter.join()


@pytest.fixture
def beta(api):
    """devkit-beta, off at first."""
    kit = api.target("devkit-beta")
    if kit.power != "off":
        kit.power_off()
    return kit


@pytest.mark.parametrize("actions, power", [(["power_on"], "on"), (["power_on", "reboot"], "on"),
                                            (["power_on", "power_off"], "off")])
def test_a_power_action_changes_the_state_and_reports_its_progress(api, beta, actions, power):
    for action in actions[:-1]:
        getattr(beta, action)()
    action = actions[-1]
    with api.events(groups=["target"], target=beta, timeout=20) as events:
        with counting_thread() as ticks:
            getattr(beta, action)()  # a second or more: the kit's boot or shutdown
        assert len(ticks) > 100
        assert beta.power == power
        progress = []
        for event in events:
            assert event.target == beta.handle
            if event.event == "PowerState":
                progress.append(event.progress)
            if event.event == "Idle":
                break
    assert progress == [0, 1]  # started, completed


@pytest.mark.parametrize("bounded", ["with timeout()", "set_timeout()"])
def test_an_answer_limit_raises_and_the_next_call_gets_its_own_answer(api, beta, bounded):
    started = time.monotonic()
    with pytest.raises(vekxapi.TargetTimeout) as raised:
        if bounded == "set_timeout()":
            vekxapi.set_timeout(0.2)
            try:
                beta.power_on()  # the kit boots for longer than that
            finally:
                vekxapi.set_timeout(None)
        else:
            with vekxapi.timeout(0.2):
                beta.power_on()
    assert 0.2 <= time.monotonic() - started < 2
    assert raised.value.code == 0x80040209 and "within 0.2 s" in raised.value.description
    assert vekxapi.get_timeout() is None
    with vekxapi.timeout(30):
        deadline = time.monotonic() + 20
        while beta.power != "on" and time.monotonic() < deadline:
            time.sleep(0.05)
    assert beta.power == "on"
    with pytest.raises(vekxapi.InvalidArgument):
        vekxapi.timeout(0)


LATE_KIT = """kits:
  - host: kit-one
  - host: kit-late
    registered: false
    timings: {boot_ms: 30, power_off_ms: 20, connect_ms: 10}
"""
LATE_SCRIPT = """
import threading, vekxapi
api = vekxapi.connect()
seen, added, idle = [], threading.Event(), threading.Event()
def heard(ev):
    seen.append((ev.target, ev.event))
    added.set() if ev.event == "TargetAdded" else idle.set() if ev.event == "Idle" else None
with api.subscribe(heard, groups=["server", "target"]):
    late = api.add_target("kit-late")
    added.wait(10)  # told once its events are covered
    late.power_on()
    idle.wait(10)
print(sorted({event for target, event in seen if target == late.handle}))
"""


def test_a_subscription_without_a_target_hears_targets_added_later(tmp_path):
    (tmp_path / "kits.yaml").write_text(LATE_KIT)
    env = dict(os.environ, XDG_RUNTIME_DIR=str(tmp_path))
    with subprocess.Popen([os.path.join(SERVER_DIR, "vesta-kx"), "--scenario",
                           str(tmp_path / "kits.yaml"), "--log-level", "3"],
                          env=env, stderr=subprocess.PIPE, text=True) as server:
        try:
            assert "serving" in server.stderr.readline()  # written once it is ready
            threading.Thread(target=server.stderr.read, daemon=True).start()
            ran = run_python(LATE_SCRIPT, env)
        finally:
            server.terminate()
    assert ran.stdout == "['Busy', 'Idle', 'PowerState']\n", ran.stderr


def test_a_raising_callback_is_reported_and_later_events_still_arrive(api, beta, monkeypatch):
    reported, calls = [], []
    monkeypatch.setattr(sys, "unraisablehook", reported.append)

    def callback(event):
        calls.append(event)
        raise RuntimeError("callback failed")

    with api.subscribe(callback, groups=["target"], target=beta):
        beta.power_on()
        beta.power_off()
        deadline = time.monotonic() + 10
        while sum(e.event == "Idle" for e in calls) < 2 and time.monotonic() < deadline:
            time.sleep(0.01)
    assert sum(e.event == "Idle" for e in calls) == 2
    assert len(reported) == len(calls)
    assert all(str(r.exc_value) == "callback failed" for r in reported)


def test_console_follow_gives_every_piece_once_and_in_order(api, debuggee):
    local = api.target("localhost")
    start = local.console_index
    # Its output lands before the subscription or after it, racing it.
    local.load(debuggee, args=["exit", "0"])
    with local.console(follow=True, since=start, timeout=20) as stream:
        local.load(debuggee, args=["exit", "0"])
        pieces = []
        for piece in stream:
            pieces.append(piece)
            if sum("from debuggee" in p.text for p in pieces) == 4:
                break
    indexes = [p.index for p in pieces]
    assert indexes == list(range(indexes[0], indexes[0] + len(pieces)))
    assert sorted(p.text for p in pieces if "from debuggee" in p.text) == [
        "err from debuggee\n"] * 2 + ["out from debuggee\n"] * 2


EXIT_SCRIPTS = {
    "callback subscription": "s = api.subscribe(lambda event: None)",
    "event iterator": "s = api.events(groups=['target'])",
    "console follow": "s = api.target('localhost').console(follow=True)",
    "callback running": "s = api.subscribe(lambda event: time.sleep(0.2), groups=['target'])\n"
                        "api.target('devkit-alpha').reboot()",
    "call waiting in a daemon thread": "threading.Thread(target=api.target('devkit-alpha').reboot,"
                                       " daemon=True).start()\ntime.sleep(0.1)",
    "console read in a daemon thread": "c = api.target('localhost').console(follow=True)\n"
                                       "threading.Thread(target=list, args=(c,), daemon=True)"
                                       ".start()\ntime.sleep(0.3)",
}


@pytest.mark.parametrize("script", EXIT_SCRIPTS.values(), ids=EXIT_SCRIPTS.keys())
def test_the_interpreter_exits_with_a_subscription_open(script):
    program = ("import os, threading, time\nos.environ.pop('LD_PRELOAD', None)\nimport vekxapi\n"
               f"api = vekxapi.connect()\n{script}\nprint('end')\n")
    ended = run_python(program)
    assert (ended.returncode, ended.stdout) == (0, "end\n"), ended.stderr


@pytest.fixture
def process(api, debuggee):
    started = api.target("localhost").load(debuggee, args=["spin"], stop_at_entry=True)
    yield started
    started.kill()


def test_a_process_stops_at_a_breakpoint_with_its_memory_and_registers(process, symbols):
    marker, tick = symbols["vekx_marker"], symbols["vekx_tick"]
    assert process.memory[marker:marker + 8] == (0x5EED).to_bytes(8, "little")
    process.memory[marker:marker + 2] = b"\x34\x12"
    assert process.memory[marker:marker + 8] == (0x1234).to_bytes(8, "little")
    process.break_at(tick)
    stop = process.resume(wait=True, timeout=20)
    assert (stop.kind, stop.pid, stop.rip) == ("stop", process.pid, tick)
    (thread,) = [t for t in process.threads if t.tid == stop.tid]
    # A wide register is one integer: the upper half of a YMM register survives the round trip
    # (zero without AVX, which keeps only the lower half).
    wide = (3 << 192) | (2 << 128) | (1 << 64) | 0x1122334455667788
    thread.registers["ymm3"] = wide
    assert thread.registers["ymm3"] in (wide, wide & ((1 << 128) - 1))
    assert {"ymm15", "st7", "dr7", "mxcsr"} <= set(thread.registers.keys())


DEBUG_ERRORS = {
    "unmapped memory": (lambda p: p.memory[0:16], vekxapi.TargetError, 0x80040214),
    "open slice": (lambda p: p.memory[0x1000:], vekxapi.InvalidArgument, 0x80070057),
    "slice of another size": (lambda p: p.memory.__setitem__(slice(0x1000, 0x1004), b"ab"),
                              vekxapi.InvalidArgument, 0x80070057),
    "unknown register": (lambda p: p.threads[0].registers["xmm99"], vekxapi.InvalidArgument,
                         0x80070057),
    "value wider than the register": (lambda p: p.threads[0].registers.__setitem__("rax", 1 << 64),
                                      vekxapi.InvalidArgument, 0x80070057),
}


@pytest.mark.parametrize("call, kind, code", DEBUG_ERRORS.values(), ids=DEBUG_ERRORS.keys())
def test_debug_failures_raise_their_class(process, call, kind, code):
    with pytest.raises(kind) as raised:
        call(process)
    assert raised.value.code == code


def test_a_wait_ends_at_its_timeout_and_lets_other_threads_run(process):
    started = time.monotonic()
    with counting_thread() as ticks, pytest.raises(vekxapi.TargetTimeout) as raised:
        process.resume(wait=True, timeout=0.5)
    assert raised.value.code == 0x80040209 and 0.5 <= time.monotonic() - started < 5
    assert len(ticks) > 100


def test_the_tour_in_the_docs_runs(debuggee, symbols):
    names = {"program": debuggee, "tick": symbols["vekx_tick"]}
    failed, tried = doctest.testfile(DOC, module_relative=False, globs=names,
                                     optionflags=doctest.ELLIPSIS)
    assert tried > 0 and failed == 0
