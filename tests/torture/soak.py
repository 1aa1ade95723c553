# soak.py PROGRAMS DIRECTORY SECONDS - the example daemon under mixed load for a long time: good
# clients over IPv4 and IPv6 whose every answer is checked, bad ones, reloads, rotations, crashes.
# After the first part of the time neither the daemon nor its watcher may hold more than it did
# until then, and in the end every log line is whole and every answer has one.
import random
import re
import threading

from hosts import *

SLACK = (2, 1024, 1024)  # descriptors, KiB resident, KiB of data

programs, directory, seconds = sys.argv[1], sys.argv[2], float(sys.argv[3])
# Shares of the time: crashes, and what is early.
CRASHES, EARLY = ((0.03, 0.08, 0.15, 0.55), 1 / 6) if seconds > 300 else ((0.05,), 2 / 3)
check = Check()
threading.excepthook = lambda fault: check(False, fault.exc_type, fault.exc_value)
daemon = Daemon(programs, directory, 3,
                f"cached=64,logsize={max(16384, int(seconds * 600))},logfiles=99,debug=request")
start = time.monotonic()
over = threading.Event()
crashing = threading.Event()
lists = {b"data1 5\n"}
lock = threading.Lock()
counts = {"answers": 0, "requests": 1, "reloads": 0, "crashes": 0}


def count(name, number=1):
    with lock:
        counts[name] += number


def right(request, answer):
    if request == "GET x":
        return answer == b"ERR what is that?\n"
    if request.startswith("GET "):
        return answer == daemon.block(int(request[4:]))
    if request == "LIST":
        return answer in lists
    return answer.startswith(b"file_system data1\n" if request == "STATE" else b"requests ")


def good_client(seed):
    """Asks at its leisure; now and then a burst, and a new connection."""
    chance = random.Random(seed)
    while not over.is_set():
        try:
            client = Client(daemon, list(LOCALS)[seed % 2])
        except OSError:
            check(crashing.is_set(), "no connection")
            time.sleep(0.3)
            continue
        with client:
            for _ in range(chance.randrange(5, 300)):
                burst = [chance.choice(["STATE", "STATS", "LIST", "GET x"])
                         if chance.random() < 0.1 else f"GET {chance.randrange(daemon.blocks)}"
                         for _ in range(20 if chance.random() < 0.02 else 1)]
                count("requests", len(burst))
                answers = [client.ask("\n".join(burst))]
                while answers[-1] is not None and len(answers) < len(burst):
                    try:
                        answers.append(client.answer())
                    except OSError:
                        answers.append(None)
                if answers[-1] is None:
                    check(crashing.is_set(), "an answer is missing", burst)
                    break
                count("answers", len(answers))
                for request, answer in zip(burst, answers):
                    if not right(request, answer):
                        check(False, "wrong answer to", request, answer[:60])
                time.sleep(chance.random() * 0.04)
                if over.is_set():
                    break


def bad_client():
    """Connections that are silent, cut, reset, endless, or do not read."""
    chance = random.Random(0)
    while not over.is_set():
        try:
            sock = connect(chance.choice(list(LOCALS)), daemon.port, 2048)
            kind = chance.randrange(5)
            if kind == 0:
                sock.send(b"GET 1\n"[:chance.randrange(1, 5)])
            elif kind == 1:
                sock.send(b"x" * 5000)
            elif kind == 2:
                sock.setblocking(False)
                count("requests", 300)
                sock.send(b"GET 1\n" * 300)
            time.sleep(chance.random() * (4 if kind == 2 else 0.5))
            (reset if kind % 2 else socket.socket.close)(sock)
        except OSError:
            time.sleep(0.2)


def reload(number):
    priority = 1 + number % 90
    with lock:
        lists.add(f"data1 {priority}\n".encode())
    daemon.write("fsmlist", f"data1 . {priority}\n")
    os.utime(daemon.dir + "/config/fsmlist", (number, 1_600_000_000 + number))
    daemon.watcher.send_signal(signal.SIGHUP)
    count("reloads")

    def shown():
        with Client(daemon) as client:
            count("requests")
            count("answers")
            return client.ask("LIST") == f"data1 {priority}\n".encode()
    check(wait_for(shown, 10) is not None, "a reload is not seen")


def crash():
    crashing.set()
    count("crashes")
    killed = daemon.pid
    os.kill(killed, signal.SIGKILL)
    wait_for(lambda: not os.path.exists(f"/proc/{killed}/fd/0"), 10)
    os.remove(daemon.dir + "/data/data1.port")
    daemon.meet()
    count("requests")
    time.sleep(1)  # until the clients have met it, too
    crashing.clear()


threads = [threading.Thread(target=good_client, args=(i,)) for i in range(4)]
threads.append(threading.Thread(target=bad_client))
for thread in threads:
    thread.start()
early = {"daemon": (0, 0, 0), "watcher": (0, 0, 0)}
late = dict(early)
crashes = list(CRASHES)
while (share := (time.monotonic() - start) / seconds) < 1:
    if crashes and share > crashes[0]:
        crashes.pop(0)
        crash()
    reload(counts["reloads"] + 1)
    peaks = early if share < EARLY else late
    for name, pid in (("daemon", daemon.pid), ("watcher", daemon.watcher.pid)):
        peaks[name] = tuple(map(max, peaks[name], holdings(pid)))
    time.sleep(min(5, seconds / 30))
over.set()
for thread in threads:
    thread.join()
check(daemon.stop() == 0, "the watcher did not end well")
for name in early:
    check(all(b <= a + slack for a, b, slack in zip(early[name], late[name], SLACK)),
          name, "has grown from", early[name], "to", late[name])
lines = daemon.log_lines()
stamp = r"[( ][DIWEFC][) ]\[\d{8} \d\d:\d\d:\d\d\.\d{6} \d+\] "
whole = re.compile(rf"(?:{stamp}.+|Rotating Log File)\n")
broken = [line for line in lines if not whole.fullmatch(line)]
check(not broken, "lines that are not whole:", broken[:3])
rotations = lines.count("Rotating Log File\n")
logged = sum(": \"" in line for line in lines)
check(rotations < 99 and counts["answers"] <= logged <= counts["requests"] + 20,
      "answers without a line:", counts, logged)
print(f"{counts['answers']} answers right in {seconds:.0f} s, {counts['reloads']} reloads, "
      f"{rotations} rotations, {counts['crashes']} crashes, {len(lines)} log lines whole; "
      f"daemon {early['daemon']} then {late['daemon']}, watcher {early['watcher']} then "
      f"{late['watcher']} descriptors, KiB resident, KiB data; {check.found} found")
sys.exit(check.found > 0)
