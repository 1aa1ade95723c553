# What the harnesses of the example programs share: an installation with a running daemon, its
# clients, and what a process holds.
import atexit
import glob
import os
import re
import resource
import signal
import socket
import struct
import subprocess
import sys
import time

BLOCK = 4096
LOCALS = {"127.0.0.1": socket.AF_INET, "::1": socket.AF_INET6}


def connect(address, port, receive_buffer=0, timeout=20):
    sock = socket.socket(LOCALS[address], socket.SOCK_STREAM)
    if receive_buffer:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    sock.settimeout(timeout)
    sock.connect((address, port))
    return sock


def reset(sock):
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()


def read_to_end(sock):
    """What comes until the peer closes or resets."""
    text = b""
    try:
        while more := sock.recv(65536):
            text += more
    except ConnectionError:
        pass
    return text


def holdings(pid):
    """Descriptors, resident KiB, data KiB of a process."""
    with open(f"/proc/{pid}/status") as status:
        figures = dict(re.findall(r"(VmRSS|VmData):\s+(\d+)", status.read()))
    return len(os.listdir(f"/proc/{pid}/fd")), int(figures["VmRSS"]), int(figures["VmData"])


def wait_for(condition, seconds):
    """Seconds until the condition held, or None."""
    start = time.monotonic()
    while True:
        if condition():
            return time.monotonic() - start
        if time.monotonic() - start > seconds:
            return None
        time.sleep(0.02)


class Check:
    """Counts what was tried and tells what was found."""

    def __init__(self):
        self.tried = 0
        self.found = 0

    def __call__(self, good, *what):
        self.tried += 1
        if not good:
            self.found += 1
            print("FOUND:", *what, file=sys.stderr, flush=True)
        return good


class Daemon:
    """fsmd with its watcher, a child of this process, in a directory of its own."""

    def __init__(self, programs, directory, patience, options, blocks=256):
        self.dir = directory
        os.makedirs(directory + "/config")
        self.write("fsports", "minport 24000\nmaxport 24999\n")
        self.write("vars", f"FSMD_PATIENCE={patience}\n")
        self.write("fsmlist", "data1 . 5\n")
        self.watcher = subprocess.Popen(
            [programs + "/fsmd", "-o", f"blocks={blocks},{options}", "data1"],
            env=dict(os.environ, VORNROOT=directory, WATCHER_NODETACH="1"))
        # After a fault: a watcher that is told to end takes the daemon with it.
        atexit.register(lambda: self.watcher.poll() is None and
                        (self.watcher.terminate(), self.watcher.wait()))
        self.meet()
        with open(directory + "/data/data1.img", "rb") as image:
            self.image = image.read()
        self.blocks = blocks

    def write(self, name, text):
        with open(f"{self.dir}/config/{name}", "w") as file:
            file.write(text)

    def meet(self):
        """Waits until the daemon answers, and notes who it is."""
        def answers():
            try:
                with open(self.dir + "/data/data1.port") as file:
                    self.port = int(file.read())
                with Client(self) as client:
                    self.pid = int(re.search(rb"\npid (\d+)\n", client.ask("STATE")).group(1))
                return True
            except (OSError, ValueError, AttributeError):
                return False
        if wait_for(answers, 30) is None:
            sys.exit("the daemon does not answer")

    def stop(self):
        os.kill(self.pid, signal.SIGTERM)
        return self.watcher.wait(15)

    def block(self, number):
        return self.image[number * BLOCK:(number + 1) * BLOCK]

    def log_lines(self):
        """All lines of the log and its older files, oldest first; a last one without end counts."""
        names = glob.glob(self.dir + "/fsmd-data1.log*")
        lines = []
        for name in sorted(names, key=lambda name: -int((name.split(".log_") + ["0"])[1])):
            with open(name, errors="replace") as log:
                lines += log.read().splitlines(keepends=True)
        return lines


class Client:
    """A client that keeps to the rules. Answers are bytes; None when the connection has gone."""

    def __init__(self, daemon, address="127.0.0.1"):
        self.sock = connect(address, daemon.port)
        self.file = self.sock.makefile("rb")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.file.close()
        self.sock.close()

    def ask(self, request):
        try:
            self.sock.sendall(request.encode() + b"\n")
            return self.answer()
        except OSError:
            return None

    def answer(self):
        head = self.file.readline()
        if not head.startswith(b"OK "):
            return head if head.endswith(b"\n") else None
        body = self.file.read(int(head[3:]))
        return body if len(body) == int(head[3:]) else None


def write_tree(directory, tree):
    for name, data in tree.items():
        os.makedirs(os.path.dirname(f"{directory}/{name}"), exist_ok=True)
        with open(f"{directory}/{name}", "wb") as file:
            file.write(data)


def record_stream(programs, tree):
    """What a sender of a tree sends, taken by a receiver that never replies."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        with subprocess.Popen([programs + "/replicate", "send", "-t", "1", tree,
                               f"127.0.0.1:{server.getsockname()[1]}"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL):
            with server.accept()[0] as sock:
                return read_to_end(sock)


def allow_descriptors():
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
