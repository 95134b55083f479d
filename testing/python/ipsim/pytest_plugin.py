"""pytest fixtures for tests of programs on the IP client library.

Load with ``pytest -p ipsim.pytest_plugin`` or ``pytest_plugins = ["ipsim.pytest_plugin"]``
in a conftest.py.

``device``
    A simulated device for the test, stopped and removed after it. It runs the bundled
    scenario unless the test says otherwise with the ``ipsim_device`` mark, whose keywords
    are Device's: ``@pytest.mark.ipsim_device(yaml=TEXT)``, ``(scenario=PATH)``,
    ``(netns=NAME, writable=True)``.
``make_device``
    Makes devices (Device's arguments) for the test; all are closed after it.
``lab``
    A lab for the test (``ipsimd lab up``), taken down after it, from the topology file of its
    ``ipsim_lab`` mark: ``@pytest.mark.ipsim_lab("line3.yaml")``. Skipped unless root.
"""

import pytest

import os

from ipsim import Device, Lab


def pytest_configure(config):
    config.addinivalue_line("markers", "ipsim_device(**kwargs): how the device fixture's device is made")
    config.addinivalue_line("markers", "ipsim_lab(topology, **kwargs): the lab fixture's topology file")


@pytest.fixture
def make_device():
    made = []

    def make(*args, **kwargs):
        dev = Device(*args, **kwargs)
        made.append(dev)
        return dev

    yield make
    for dev in reversed(made):
        dev.close()


@pytest.fixture
def device(request, make_device):
    mark = request.node.get_closest_marker("ipsim_device")
    return make_device(**(mark.kwargs if mark else {}))


@pytest.fixture
def lab(request, tmp_path):
    mark = request.node.get_closest_marker("ipsim_lab")
    if mark is None or not mark.args:
        raise pytest.UsageError("the lab fixture needs @pytest.mark.ipsim_lab(TOPOLOGY_FILE)")
    if os.geteuid() != 0:
        pytest.skip("a lab makes network namespaces: root only")
    kwargs = dict(mark.kwargs)
    kwargs.setdefault("state_dir", tmp_path / "lab-state")
    made = Lab(mark.args[0], **kwargs)
    yield made
    made.close()
