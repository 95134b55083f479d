"""A simulated device for the tests of programs written on the IP client library.

``Device`` starts ``ipsimd`` as a process of its own (on a scenario file, a scenario given
as YAML text, or a mirrored Linux network namespace), waits for its ready line, and stops
it when closed (SIGTERM, then SIGKILL after two seconds). Everything it makes (state
directory, log, capture, scenario file) is in one temporary directory of its own, removed
with it; it kills no process but its own simulator::

    with Device(yaml=SCENARIO) as dev:
        subprocess.run(["./my-agent"], env=dev.environment, check=True)
        dev.control({"op": "link.set", "interface": 2, "state": "down"})
        dev.set_fault(kernel="0x380001", error="0x40010001")
        requests = dev.capture()

Standard library only. Control operations go through ``ipsimd --control``. Which ipsimd
runs: the ``ipsimd`` argument, else the IPSIMD environment variable, else ``ipsimd`` on
PATH. The pytest fixtures are in ``ipsim.pytest_plugin``.
"""

import itertools
import json
import os
import shutil
import signal
import subprocess
import tempfile
import time

__all__ = ["Device", "DeviceError", "Lab"]

_made = itertools.count(1)


class DeviceError(RuntimeError):
    """What a Device could not do, with the simulator's words where it said some."""


class Device:
    """One simulated device: a running ipsimd and its directory."""

    def __init__(self, scenario=None, *, yaml=None, netns=None, writable=False, ipsimd=None,
                 instance=None, capture=True, args=(), ready_timeout=10.0):
        if sum(x is not None for x in (scenario, yaml, netns)) > 1:
            raise ValueError("one of scenario, yaml and netns")
        self.program = ipsimd or os.environ.get("IPSIMD") or "ipsimd"
        self.instance = instance or "p%d-%d" % (os.getpid(), next(_made))
        self.directory = tempfile.mkdtemp(prefix="ipsim-")
        self._capture = capture
        self.ready_line = ""
        self._proc = None
        argv = [self.program, "--instance", self.instance, "--state",
                os.path.join(self.directory, "state")]
        if scenario is not None:
            argv += ["--scenario", os.fspath(scenario)]
        elif yaml is not None:
            path = os.path.join(self.directory, "scenario.yaml")
            with open(path, "w", encoding="utf-8") as f:
                f.write(yaml)
            argv += ["--scenario", path]
        elif netns is not None:
            argv += ["--source", "linux"]
            if netns:
                argv += ["--netns", netns]
            if writable:
                argv.append("--writable")
        if capture:
            argv += ["--capture", os.path.join(self.directory, "capture.jsonl")]
        argv += list(args)
        try:
            self._start(argv, ready_timeout)
        except BaseException:
            self.close()
            raise

    def _start(self, argv, ready_timeout):
        os.mkdir(os.path.join(self.directory, "state"), 0o700)
        with open(os.path.join(self.directory, "ipsimd.log"), "ab") as log:
            try:
                self._proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                              stderr=log)
            except OSError as e:
                raise DeviceError("cannot run %s: %s" % (self.program, e)) from e
        line = _read_line(self._proc.stdout, ready_timeout)
        self._proc.stdout.close()
        self.ready_line = line
        if not line.startswith("ready "):
            self.stop(0.5)
            why = self.log()[-2000:] or line
            raise DeviceError("ipsimd did not become ready (%s): %s" % (self.program, why))

    # -- what a program needs to reach it ------------------------------------------------------

    @property
    def environment(self):
        """The environment of a child program that reaches the device."""
        env = dict(os.environ)
        env["IPCLIENT_INSTANCE"] = self.instance
        return env

    def use_here(self):
        """Makes this process's library calls (ctypes) and children reach the device."""
        os.environ["IPCLIENT_INSTANCE"] = self.instance

    def run(self, argv, **kwargs):
        """subprocess.run with the device's environment; output captured as text."""
        kwargs.setdefault("capture_output", True)
        kwargs.setdefault("text", True)
        kwargs.setdefault("timeout", 30)
        return subprocess.run(argv, env=self.environment, **kwargs)

    @property
    def pid(self):
        return self._proc.pid if self._proc is not None else None

    @property
    def running(self):
        return self._proc is not None and self._proc.poll() is None

    # -- control ------------------------------------------------------------------------------

    def control_any(self, request):
        """One control operation (a dict or JSON text): the answer as a dict, whatever it says."""
        text = request if isinstance(request, str) else json.dumps(request)
        done = subprocess.run([self.program, "--instance", self.instance, "--control", text],
                              capture_output=True, text=True, timeout=60)
        out = done.stdout.strip()
        try:
            return json.loads(out)
        except ValueError:
            return {"ok": False, "error": out or done.stderr.strip() or "no answer"}

    def control(self, request):
        """One control operation; raises DeviceError unless the answer is ok."""
        answer = self.control_any(request)
        if answer.get("ok") is not True:
            raise DeviceError("ipsimd control %s: %s" % (request, answer.get("error", answer)))
        return answer

    def set_fault(self, **fields):
        """fault.set with these fields (kernel=, module=, port=, call=; error=, drop=, ...)."""
        return self.control(dict({"op": "fault.set"}, **fields))

    def clear_faults(self, **fields):
        """fault.clear: every fault, or one (id=N)."""
        return self.control(dict({"op": "fault.clear"}, **fields))

    def faults(self):
        """The faults set, as fault.list gives them."""
        return self.control({"op": "fault.list"})["faults"]

    # -- what it recorded ---------------------------------------------------------------------

    def capture_text(self):
        """The capture as written: one JSON line per request and answer ("" without a capture)."""
        if not self._capture:
            return ""
        try:
            with open(os.path.join(self.directory, "capture.jsonl"), encoding="utf-8") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def capture(self):
        """The capture's records, each a dict."""
        return [json.loads(line) for line in self.capture_text().splitlines() if line.strip()]

    def log(self):
        """What the simulator wrote on its standard error so far."""
        try:
            with open(os.path.join(self.directory, "ipsimd.log"), encoding="utf-8", errors="replace") as f:
                return f.read()
        except (FileNotFoundError, TypeError):
            return ""

    # -- the end --------------------------------------------------------------------------------

    def stop(self, within=2.0):
        """Stops the simulator: its exit status (128 + signal when killed), None when not running."""
        if self._proc is None:
            return None
        proc, self._proc = self._proc, None
        if proc.poll() is None:
            proc.send_signal(signal.SIGTERM)
            try:
                proc.wait(within)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
        rc = proc.returncode
        return 128 - rc if rc < 0 else rc

    def close(self):
        """Stops the simulator and removes the device's directory."""
        self.stop()
        if self.directory:
            shutil.rmtree(self.directory, ignore_errors=True)
            self.directory = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        try:
            self.close()
        except Exception:  # pylint: disable=broad-except
            pass


class Lab:
    """A lab of devices (``ipsimd lab``, docs/lab.md), up until closed.

    ``Lab(topology_file)`` runs ``ipsimd lab up``; ``devices`` names its devices (each an
    instance: ``environment(device)`` reaches it from the host, ``run(device, argv)`` runs a
    program in the device's namespace that reaches it), ``link(end, state)`` takes a link
    down or up, ``show()`` gives what ``lab show --json`` says, and ``close()`` runs
    ``lab down``.
    Making namespaces needs root.
    """

    def __init__(self, topology, *, ipsimd=None, state_dir=None):
        self.program = ipsimd or os.environ.get("IPSIMD") or "ipsimd"
        self.topology = os.fspath(topology)
        self._env = dict(os.environ)
        if state_dir is not None:
            self._env["IPSIMD_LAB_DIR"] = os.fspath(state_dir)
        self.name = None
        done = self._lab("up", self.topology, "--json")
        if done.returncode != 0:
            raise DeviceError("ipsimd lab up %s: %s" % (self.topology, done.stderr.strip()))
        self.state = json.loads(done.stdout)
        self.name = self.state["lab"]

    def _lab(self, *args):
        return subprocess.run([self.program, "lab"] + list(args), capture_output=True, text=True,
                              timeout=120, env=self._env, check=False)

    @property
    def devices(self):
        return [d["name"] for d in self.state["devices"]]

    def environment(self, device):
        """The environment of a child program that reaches one of the lab's devices."""
        env = dict(os.environ)
        env["IPCLIENT_INSTANCE"] = device
        return env

    def run(self, device, argv, timeout=60):
        """Runs a program on a device (``ipsimd lab exec``): in its namespace, talking to its
        simulator. The finished process (``subprocess.CompletedProcess``, text output)."""
        return subprocess.run([self.program, "lab", "exec", self.name, device, "--"] + list(argv),
                              capture_output=True, text=True, timeout=timeout, env=self._env, check=False)

    def show(self):
        done = self._lab("show", self.name, "--json")
        if done.returncode != 0:
            raise DeviceError("ipsimd lab show %s: %s" % (self.name, done.stderr.strip()))
        self.state = json.loads(done.stdout)
        return self.state

    def link(self, end, state):
        """Takes the link with the end DEVICE:IF "down" or "up"."""
        done = self._lab("link", self.name, end, state)
        if done.returncode != 0:
            raise DeviceError("ipsimd lab link %s %s: %s" % (end, state, done.stderr.strip()))

    def close(self):
        """Takes the lab down: no namespace, link or process of it is left."""
        if self.name is None:
            return
        name, self.name = self.name, None
        done = self._lab("down", name)
        if done.returncode != 0:
            raise DeviceError("ipsimd lab down %s: %s" % (name, done.stderr.strip()))

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def _read_line(stream, timeout):
    """The first line of a pipe within the time ("" when none came)."""
    import selectors  # pylint: disable=import-outside-toplevel
    end = time.monotonic() + timeout
    line = b""
    with selectors.DefaultSelector() as sel:
        sel.register(stream, selectors.EVENT_READ)
        while time.monotonic() < end:
            if not sel.select(max(0.0, end - time.monotonic())):
                break
            c = os.read(stream.fileno(), 1)
            if not c or c == b"\n":
                break
            line += c
    return line.decode("utf-8", "replace")
