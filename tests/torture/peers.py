# peers.py EXAMPLES DIRECTORY quick|full - peers of the example daemon and of both ends of a
# replication stream that are slow, cut, reset, lie, or come in thousands, over IPv4 and IPv6.
# Every wait must end when its time-out says, the good ones get right answers all the while, and
# descriptors and memory return to where they were.
import shutil
import threading

from hosts import *

EXAMPLES, WORK, FULL = sys.argv[1], sys.argv[2], sys.argv[3] == "full"
PATIENCE = 2 if FULL else 1
GRACE = 2.5  # a check each second, and a busy machine
MANY = 3000 if FULL else 600
check = Check()
longest = {}


def timed(name, seconds, limit=PATIENCE):
    longest[name] = round(max(seconds, longest.get(name, 0)), 1)
    check(seconds <= limit + GRACE, name, "took", seconds)


def together(*calls):
    threads = [threading.Thread(target=call[0], args=call[1:]) for call in calls]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


# ---- the daemon


def slow(daemon, address, name, piece):
    """Sends `piece` now and then; how long the daemon bears that."""
    with connect(address, daemon.port, 0, 0.05 * PATIENCE) as sock:
        start = time.monotonic()
        while time.monotonic() - start < PATIENCE + GRACE + 1:
            try:
                sock.sendall(piece)
                if not sock.recv(1):
                    break
            except TimeoutError:
                pass
            except ConnectionError:
                break
        timed("daemon: " + name, time.monotonic() - start)


def deaf(daemon, address, taking):
    """Asks for much and takes nothing, or little: the daemon ends with much of it unsent."""
    with connect(address, daemon.port, 2048) as sock:
        sock.sendall(b"GET 1\n" * 2000)
        for _ in range(20):
            time.sleep((PATIENCE + GRACE) / 20)
            sock.recv(taking)
        start = time.monotonic()
        taken = len(read_to_end(sock))
        timed("daemon: hardly reads", time.monotonic() - start, 0)
        check(taken < 2000 * BLOCK, "all was sent to a peer that did not read")


def cuts(daemon, address):
    request = b"GET 77\n"
    for size in range(len(request) + 1):
        for end in (socket.socket.close, reset, lambda sock: sock.shutdown(socket.SHUT_WR)):
            sock = connect(address, daemon.port)
            sock.sendall(request[:size])
            end(sock)
            if sock.fileno() != -1:
                answer = b"OK 4096\n" + daemon.block(77) if size == len(request) else b""
                check(read_to_end(sock) == answer, "half closed after", request[:size])
                sock.close()
    for junk, answer in ((b"x" * 1_000_000, b"ERR request too long\n"),
                         (b"\xba\xad\xf0\x0d" * 20 + b"\n", b"ERR what is that?\n"),
                         (b"GET 99999999999999999999\n", b"ERR what is that?\n"),
                         (b"\n" * 50, b"ERR what is that?\n" * 50),
                         (request * 100, (b"OK 4096\n" + daemon.block(77)) * 100)):
        with connect(address, daemon.port) as sock:
            try:
                sock.sendall(junk)
                sock.shutdown(socket.SHUT_WR)
            except OSError:
                pass
            found = read_to_end(sock)
            check(found == answer or (len(junk) > 9999 and answer.startswith(found)), junk[:40],
                  found[:60])


def crowd(daemon, address):
    with Client(daemon, address) as good:
        socks = []
        for number in range(MANY):
            socks.append(connect(address, daemon.port))
            if number % 50 == 0:
                check(good.ask("GET 3") == daemon.block(3), "a good client in a crowd")
        start = time.monotonic()
        last = b""
        while time.monotonic() - start < PATIENCE and last is not None:
            check((last := good.ask("GET 3")) == daemon.block(3), "a good client, kept waiting")
            time.sleep(0.1)
    for sock in socks:
        check(read_to_end(sock) in (b"", b"ERR busy\n"), "one of a crowd")
        sock.close()
    timed("daemon: a crowd", time.monotonic() - start)

    def answered():
        with Client(daemon, address) as client:
            return client.ask("GET 4") == daemon.block(4)
    check(wait_for(answered, 5) is not None, "no answer after a crowd")


def torture_daemon():
    daemon = Daemon(EXAMPLES, WORK + "/daemon", PATIENCE, "cached=64,logsize=64k,logfiles=3")
    time.sleep(0.3)
    idle = holdings(daemon.pid)[0]
    held = []
    for _ in range(4 if FULL else 2):
        together(*((call, daemon, address, *rest) for address in LOCALS for call, *rest in (
            (slow, "silent", b""), (slow, "a byte now and then", b"E"), (deaf, 0), (deaf, 1),
            (cuts,))))
        for address in LOCALS:
            crowd(daemon, address)
        check(wait_for(lambda: holdings(daemon.pid)[0] == idle, 3) is not None, "descriptors left:",
              os.listdir(f"/proc/{daemon.pid}/fd"))
        held.append(holdings(daemon.pid))
    check(all(b <= a + 1024 for a, b in zip(held[0], held[-1])), "the daemon grew:", held)
    check(daemon.stop() == 0, "the watcher did not end well")
    return f"daemon holds {held[0]} then {held[-1]}"


# ---- the receiver of a stream


class Receiver:
    def __init__(self):
        self.process = subprocess.Popen(
            [EXAMPLES + "/replicate", "receive", "-t", str(PATIENCE), WORK + "/out", "0"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.port = int(self.line().split()[-1])

    def line(self):
        return self.process.stdout.readline()

    def end(self):
        self.process.stdout.close()
        return self.process.wait()


def torture_receiver(stream):
    receiver, held, turn = Receiver(), [], 0

    def meet(name, expected, data, end=None, pause=0.0):
        """Sends `data`, and takes what the receiver prints about it; without `end` just waits."""
        nonlocal receiver, turn
        turn += 1
        sock = connect(list(LOCALS)[turn % 2], receiver.port)
        try:
            for byte in (data[i:i + 16] for i in range(0, len(data) if pause else 0, 16)):
                sock.sendall(byte)
                time.sleep(pause)
            sock.sendall(b"" if pause else data)
            if end is not None:
                end(sock)
        except ConnectionError:
            pass  # it has seen enough
        start = time.monotonic()
        outcome = receiver.line()
        timed("receiver: " + name, time.monotonic() - start)
        check(outcome.startswith(expected), name, "of", len(data), "bytes:", outcome)
        sock.close()
        if outcome.startswith("broken off"):
            held.append(holdings(receiver.process.pid))
        else:
            check(receiver.end() == (0 if outcome.startswith("complete") else 1), outcome)
            receiver = Receiver()

    def half_close(sock):
        sock.shutdown(socket.SHUT_WR)
    any_end = ("broken off", "failed", "complete")
    for size in range(0, len(stream) - 1, 1 if FULL else 19):
        meet("cut", "broken off", stream[:size], (socket.socket.close, reset, half_close)[size % 3])
    half, last = ([min(figure) for figure in zip(*held[at:at + 5])]  # it may just have been busy
                  for at in (len(held) // 2, len(held) - 5))
    check(all(b <= a + 512 for a, b in zip(half, last)), "the receiver grew:",
          half, last)
    figures = f"receiver holds {half} then {last} after {len(held)} streams"
    for size in range(0, len(stream), len(stream) // (12 if FULL else 3)):
        meet("falls silent", "broken off", stream[:size])
    for at in range(0, len(stream) - 4, 4 if FULL else 36):
        for lie in (b"\xff\xff\xff\xff", b"\0\0\0\0"):
            meet("lies", any_end, stream[:at] + lie + stream[at + 4:], half_close)
    meet("wrong magic", "broken off", b"\xba\xad\xf0\x0e" + stream[4:])
    for sock in [connect(list(LOCALS)[0], receiver.port) for _ in range(5)]:
        reset(sock)
        check(receiver.line().startswith("broken off"), "one of a crowd")
    meet("a little now and then", "complete", stream, pause=0.02)
    meet("the stream twice", "complete", stream + stream, half_close)
    meet("replay", "complete", stream, half_close)
    receiver.process.kill()
    receiver.end()
    with open(WORK + "/out/b", "rb") as copy:
        check(copy.read() == b"below\n" * 9, "the copy is another")
    return figures


# ---- the sender of a stream


def torture_sender():
    """Receivers that do not do as they should: the sender says so, and in time."""
    def deaf_one(sock):
        time.sleep(5 * PATIENCE)

    def mute(sock):
        read_to_end(sock)
        time.sleep(2 * PATIENCE + GRACE)

    def liar(reply, pause):
        def answer(sock):
            read_to_end(sock)
            try:
                for byte in reply:
                    sock.send(bytes([byte]))
                    time.sleep(pause)
            except ConnectionError:
                pass  # the sender has heard enough
        return answer
    kinds = {"does not read": deaf_one, "does not reply": mute, "goes": socket.socket.close,
             "goes by a reset": reset, "goes half way": lambda sock: reset(sock) if
             sock.recv(9) else None, "replies nonsense": liar(b"\xff" * 90, 0),
             "replies half": liar(b"\xba\xad\xf0\x0d\0\x65\0\x40", 0.2)}

    def meet(address, name, behave):
        with socket.create_server((address, 0), family=LOCALS[address]) as server:
            if behave == deaf_one:
                server.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            tree = WORK + ("/big" if behave == deaf_one else "/tree")
            where = f"{f'[{address}]' if ':' in address else address}:{server.getsockname()[1]}"
            with subprocess.Popen([EXAMPLES + "/replicate", "send", "-t", str(PATIENCE), tree, where],
                                  stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as sender:
                with server.accept()[0] as sock:
                    start = time.monotonic()
                    together((behave, sock), (lambda: check(
                        b"no reply" in sender.stdout.read(), "sender: said another thing"),),
                        (lambda: timed("sender: peer " + name, sender.wait() and
                                       time.monotonic() - start, 4 * PATIENCE),))
            check(sender.returncode == 1, "sender: peer", name, "ends with", sender.returncode)
    together(*((meet, address, *kind) for address in LOCALS for kind in kinds.items()))


allow_descriptors()
shutil.rmtree(WORK, ignore_errors=True)
write_tree(WORK + "/tree", {"a/x": b"", "b": b"below\n" * 9})
write_tree(WORK + "/big", {"big": b"", "small": b"1"})
os.truncate(WORK + "/big/big", 16 << 20)
os.makedirs(WORK + "/out")
held = []
together((lambda: held.append(torture_daemon()),), (torture_sender,),
         (lambda: held.append(torture_receiver(record_stream(EXAMPLES, WORK + "/tree"))),))
check(len(held) == 2, "a thread ended early")
print(f"{check.tried} checks, {check.found} found; {'; '.join(held)}; longest waits at a time-out "
      f"of {PATIENCE} s: {longest}")
sys.exit(check.found > 0)
