"""The Python module against C++ processes of the library, on both back ends."""
import os
import pwd
import subprocess
import sys

import numpy as np
import pytest

import spf_sharedmemory as spf
from spf_sharedmemory import Backend, SharedMemory

BACKENDS = [Backend.POSIX, Backend.SYSV]
STAFF = pytest.param("staff", marks=pytest.mark.skipif(os.geteuid() != 0, reason="needs root"))


def sysv(backend):
    return ["--sysv"] if backend == Backend.SYSV else []


def snapshot():
    with open("/proc/sysvipc/shm") as table:
        return set(os.listdir("/dev/shm")), {line.split()[0] for line in list(table)[1:]}


@pytest.fixture(autouse=True)
def leaves_nothing_behind():
    before = snapshot()
    yield
    assert snapshot() == before


@pytest.mark.parametrize("backend", BACKENDS)
@pytest.mark.parametrize("trustee", ["", STAFF])
def test_python_reads_and_writes_what_cpp_created(backend, trustee):
    peer = subprocess.Popen([os.environ["SPF_PYTHON_PEER"], *sysv(backend), "samples", trustee],
                            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    assert peer.stdout.readline() == "ready\n"
    with SharedMemory.find("samples", 8192, trustee, backend) as segment:
        assert (segment.is_attached, segment.is_creator, segment.owner, segment.trustee) == (
            True, False, pwd.getpwuid(os.geteuid()).pw_name, trustee)
        segment.reserve()  # changes no byte the C++ side wrote
        values = np.frombuffer(segment, dtype=np.float64)
        assert values.sum() == 1023 * 1024 / 2
        values *= 2
        del values
    assert float(peer.communicate("done\n")[0]) == 1023 * 1024 and peer.returncode == 0
    assert not SharedMemory.find("samples", 8192, trustee, backend).is_attached


@pytest.mark.parametrize("backend", BACKENDS)
@pytest.mark.parametrize("let_go", ["close", "del", "persist"])
def test_cpp_finds_what_python_created_until_the_creator_lets_go(backend, let_go):
    def found():
        command = [os.environ["SPF_SHM"], "find", "--derive", *sysv(backend), "made", "4096"]
        return subprocess.run(command, capture_output=True).returncode == 0

    segment = SharedMemory.create("made", 4096, "", backend)
    assert found()
    if let_go == "persist":
        segment.make_persistent()
        segment.close()
        assert found()
        segment = SharedMemory.find("made", 4096, "", backend)
        segment.mark_for_deletion()
    del segment
    assert not found()


@pytest.mark.parametrize("backend, size, trustee, error, text", [
    (Backend.POSIX, 4096, "spf-no-group", ValueError,
     "SystemError:SharedMemory:getgrnam:trustee=spf-no-group:error= -1"),
    (Backend.SYSV, 4096, "spf-no-group", ValueError,
     "SystemError:SharedMemory:getgrnam:trustee=spf-no-group:error= 0"),
    (Backend.POSIX, 8192, "", RuntimeError, "SystemError:SharedMemory:attach:st_size/{name}:"
     "error=17"),
    (Backend.SYSV, 8192, "", RuntimeError,
     "SystemError:SharedMemory:find:shmget: name=</{name}>, owning group=<>, owning user=<{user}>, "
     "selected group=<>, current username=<{euid}>, error=22"),
])
def test_failures_raise_the_library_texts(backend, size, trustee, error, text):
    with SharedMemory.create("taken", 4096, "", backend):
        with pytest.raises(error) as raised:
            SharedMemory.create_or_find("taken", size, trustee, backend)
    assert str(raised.value) == text.format(name=spf.derive_segment_name("taken"),
                                            user=pwd.getpwuid(os.geteuid()).pw_name,
                                            euid=spf.current_user_name())


@pytest.mark.parametrize("backend", BACKENDS)
def test_buffers_are_the_segment_and_no_close_outlives_them(backend):
    with SharedMemory("lent", 4096, "", backend, create=True) as creator:
        view = memoryview(creator)
        assert (len(view), view.readonly) == (4096, False)
        view[100] = 42
        with SharedMemory("lent", 4096, "", backend) as finder:
            assert not finder.is_creator and np.frombuffer(finder, np.uint8)[100] == 42
        with pytest.raises(BufferError):
            creator.close()
        assert creator.is_attached and view[100] == 42
        view.release()
    for unattached in [creator, SharedMemory("lent", 4096, "", backend, create=False)]:
        with pytest.raises(BufferError):
            memoryview(unattached)


def test_records_go_to_stderr_and_an_exiting_interpreter_tears_down():
    script = ("import spf_sharedmemory as spf; spf.log_to_stderr(); "
              "kept = spf.SharedMemory.create('at-exit', 4096); "
              "spf.SharedMemory.create('x', 1, 'spf-no-group')")
    run = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True)
    assert run.stdout == ""
    assert ("spf_sharedmemory: setTrustee(): Failed to find the specified group: <spf-no-group>. "
            "(Error -1)\n") in run.stderr
