"""The Python harness (ipsim, ipsim.pytest_plugin) as applications' tests use it."""

import atexit
import json
import os
import signal
import subprocess

import pytest

from ipsim import Device, DeviceError

SMALL = """nodes:
  - {number: 1, chassis: 1, slot: 0, cpu: 0, role: master, state: up}
interfaces:
  - {index: 7, name: GigabitEthernet1/0/7, node: 1, type: ethernet}
"""

IPCTL = os.environ.get("IPCTL", "ipctl")


def test_the_device_fixture_runs_the_bundled_scenario(device):
    assert device.ready_line == "ready instance=%s nodes=2" % device.instance
    assert device.running


@pytest.mark.ipsim_device(yaml=SMALL)
def test_the_mark_gives_the_device_a_scenario(device):
    assert device.ready_line == "ready instance=%s nodes=1" % device.instance


def test_a_scenario_file(tmp_path, make_device):
    path = tmp_path / "small.yaml"
    path.write_text(SMALL)
    assert make_device(scenario=path).ready_line.endswith("nodes=1")


def test_a_bad_scenario_raises_with_the_simulators_words(make_device):
    with pytest.raises(DeviceError, match=r"scenario.yaml:1: nodes\[0\].number"):
        make_device(yaml="nodes: [{number: 0}]\n")


def test_a_missing_simulator_raises(make_device):
    with pytest.raises(DeviceError, match="cannot run"):
        make_device(ipsimd="/nonexistent/ipsimd")


@pytest.mark.ipsim_device(yaml=SMALL)
def test_the_environment_lets_a_child_program_reach_the_device(device):
    assert device.environment["IPCLIENT_INSTANCE"] == device.instance
    done = device.run([IPCTL, "-j", "link", "show"])
    assert done.returncode == 0, done.stderr
    assert [link["ifname"] for link in json.loads(done.stdout)] == ["GigabitEthernet1/0/7"]


def test_use_here_sets_this_processs_instance(device, monkeypatch):
    monkeypatch.delenv("IPCLIENT_INSTANCE", raising=False)
    device.use_here()
    assert os.environ["IPCLIENT_INSTANCE"] == device.instance


def test_control_returns_the_answer_and_raises_on_a_refusal(device):
    assert device.control({"op": "fault.list"}) == {"faults": [], "ok": True}
    with pytest.raises(DeviceError, match="unknown operation"):
        device.control({"op": "no.such"})
    assert device.control_any('{"op": "no.such"}') == {"error": 'unknown operation "no.such"', "ok": False}


@pytest.mark.ipsim_device(yaml=SMALL)
def test_a_fault_set_fails_the_programs_call_and_clearing_it_mends_it(device):
    assert device.run([IPCTL, "-j", "route", "show"]).returncode == 0
    device.set_fault(call="dump-request", error="0x40010001")
    assert [f.get("call") for f in device.faults()] == ["dump-request"]
    failed = device.run([IPCTL, "-j", "route", "show"])
    assert failed.returncode == 1, failed.stdout
    device.clear_faults()
    assert device.faults() == []
    assert device.run([IPCTL, "-j", "route", "show"]).returncode == 0


@pytest.mark.ipsim_device(yaml=SMALL)
def test_the_capture_holds_the_requests_and_answers(device):
    assert device.run([IPCTL, "link", "show"]).returncode == 0
    records = device.capture()
    assert records, "something was captured"
    assert all(isinstance(r, dict) for r in records)
    assert "if-next" in device.capture_text()


def test_without_a_capture_there_is_none(make_device):
    assert make_device(capture=False).capture() == []


def test_when_the_device_closes_nothing_is_left(make_device):
    dev = make_device(yaml=SMALL)
    pid, directory, instance, program = dev.pid, dev.directory, dev.instance, dev.program
    dev.close()
    with pytest.raises(ProcessLookupError):
        os.kill(pid, 0)
    assert not os.path.exists(directory)
    done = subprocess.run([program, "--instance", instance, "--control", '{"op":"fault.list"}', "--timeout", "0.2"],
                          capture_output=True, text=True, check=False)
    assert done.returncode != 0


def test_stop_gives_the_exit_status(make_device):
    dev = make_device(yaml=SMALL)
    assert dev.stop() == 0
    assert not dev.running
    assert dev.stop() is None


def test_a_device_mirrors_a_namespace(make_device):
    if os.geteuid() != 0 or not shutil_which("ip"):
        pytest.skip("namespaces need root and ip")
    ns = "ipsim-pyharness-%d" % os.getpid()
    if subprocess.run(["ip", "netns", "add", ns], check=False).returncode != 0:
        pytest.skip("cannot make a namespace")
    try:
        subprocess.run(["ip", "-n", ns, "link", "add", "h0", "type", "veth", "peer", "name", "h1"], check=True)
        dev = make_device(netns=ns)
        names = [link["ifname"] for link in json.loads(dev.run([IPCTL, "-j", "link", "show"]).stdout)]
        assert "h0" in names and "h1" in names
        dev.close()
    finally:
        subprocess.run(["ip", "netns", "del", ns], check=False)


def shutil_which(name):
    import shutil  # pylint: disable=import-outside-toplevel
    return shutil.which(name)


def test_a_killed_simulator_is_reported_by_stop(make_device):
    dev = make_device(yaml=SMALL)
    os.kill(dev.pid, signal.SIGKILL)
    assert dev.stop() == 128 + signal.SIGKILL


LINE = """lab: pl{id}
devices:
  - name: pa{id}
    interfaces:
      - {{name: eth1, addresses: [10.0.12.1/24]}}
  - name: pb{id}
    interfaces:
      - {{name: eth1, addresses: [10.0.12.2/24]}}
links:
  - {{a: "pa{id}:eth1", b: "pb{id}:eth1"}}
""".format(id=os.getpid() % 100000)

LINE_FILE = os.path.join(os.environ.get("TMPDIR", "/tmp"), "ipsim-pytest-line-%d.yaml" % os.getpid())
with open(LINE_FILE, "w", encoding="utf-8") as _f:
    _f.write(LINE)
atexit.register(lambda: os.path.exists(LINE_FILE) and os.remove(LINE_FILE))


@pytest.mark.ipsim_lab(LINE_FILE)
def test_the_lab_fixture_brings_up_devices_that_answer_by_name(lab):
    assert len(lab.devices) == 2
    a, b = lab.devices
    done = subprocess.run([IPCTL, "-j", "neigh", "resolve", "10.0.12.2", "dev", "eth1"], env=lab.environment(a),
                          capture_output=True, text=True, timeout=30, check=False)
    assert done.returncode == 0, done.stderr
    assert json.loads(done.stdout)[0]["state"] == "reachable"
    assert all(d["running"] for d in lab.show()["devices"])
    # A program in a's namespace, on the library: a's FIB, and the data plane to b.
    done = lab.run(a, [IPCTL, "-j", "route", "show"])
    assert done.returncode == 0, done.stderr
    assert any(r["dst"] == "10.0.12.0/24" and r.get("dev") == "eth1" for r in json.loads(done.stdout))
    assert lab.run(a, ["ping", "-c", "1", "-W", "2", "10.0.12.2"]).returncode == 0
    lab.link(a + ":eth1", "down")
    assert lab.show()["links"][0]["up"] is False
    names = subprocess.run(["ip", "netns", "list"], capture_output=True, text=True, check=False).stdout
    assert lab.name + "-" + b in names


def test_a_lab_taken_down_leaves_no_namespace(tmp_path):
    if os.geteuid() != 0:
        pytest.skip("a lab makes network namespaces: root only")
    from ipsim import Lab  # pylint: disable=import-outside-toplevel
    made = Lab(LINE_FILE, state_dir=tmp_path / "state")
    pids = [p["pid"] for p in made.show()["processes"]]
    made.close()
    names = subprocess.run(["ip", "netns", "list"], capture_output=True, text=True, check=False).stdout
    assert made.state["lab"] + "-" not in names
    for pid in pids:
        try:
            os.kill(pid, 0)
        except ProcessLookupError:
            continue
        with open("/proc/%d/stat" % pid, encoding="utf-8") as f:
            assert f.read().rsplit(")", 1)[1].split()[0] == "Z", "process %d is gone" % pid
