# crash.py kill|powercut EXAMPLES STEPS DIRECTORY STRIDE - what stands on disk when a process or
# the power goes in the middle of a save of a configuration file, an added FSM name, log lines with
# rotations, or received files.
#
# kill: each step is killed before every STRIDEth of its system calls on files, descriptors and
# sockets; what it left is judged, and the step is taken again on top of it.
# powercut: the step is recorded once, and for each moment of it every state is judged that a disk
# may then show, see Disk.
import codecs
import shutil
from concurrent.futures import ThreadPoolExecutor

from hosts import *

TRACED = "%file,%desc,%network"
LINE = re.compile(r"\d+ +(\w+)\((.*)\) += (-?\d+|\?)(.*)", re.DOTALL)
PATH = r"(?:(?:AT_FDCWD|\d+)<([^>]*)>, )?\"((?:[^\"\\]|\\.)*)\""
FILLER = "".join(f"name{i} . {i}\n" for i in range(40))
TREE = {"a": b"first\n", "b": b"x" * 70000, "empty": b"", "c": b"1", "sub/d": b"below\n",
        **{f"file{i}": b"%d\n" % i for i in range(8)}}
OLDER = {"a": b"older\n", "sub/d": b"older too\n"}


def read(path):
    try:
        with open(path, "rb") as file:
            return file.read()
    except FileNotFoundError:
        return None


class Step:
    """A step to interrupt. `targets` tells for a name below the directory its old and new bytes."""
    begin = '"/begin"'
    tells = "pipe"

    def __init__(self, directory):
        self.dir = directory

    def run(self, strace=()):
        """Takes the step; the exit status, and what it acknowledged."""
        done = subprocess.run([*strace, STEPS, *self.arguments()], stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, check=False,
                              env=dict(os.environ, VORNROOT=self.dir))
        return done.returncode, done.stdout.decode()

    def judge(self, acknowledged):
        for name, (old, new) in self.targets.items():
            found = read(f"{self.dir}/{name}")
            if found != new and (acknowledged or found != old):
                return f"{name} is neither old nor new: {found and found[:200]}"
        return None

    def go_on(self):
        """Takes the step again after it was killed."""
        status, _ = self.run()
        return f"ends with {status}" if status != 0 else self.judge(True) or self.leftovers()

    def leftovers(self):
        stale = [name for name in os.listdir(self.dir + "/config") if "~" in name]
        return f"stale: {stale}" if len(stale) > 1 else None


class Save(Step):
    targets = {"config/settings": (f"generation 1\n{FILLER}".encode(),
                                   f"generation 2\n{FILLER}".encode())}

    def prepare(self):
        write_tree(self.dir, {name: old for name, (old, _) in self.targets.items()})

    def arguments(self):
        return ["save", self.dir + "/config/settings", "2"]


class AddName(Save):
    targets = {"config/fsmlist": (FILLER.encode(), f"{FILLER}newcomer\n".encode())}

    def arguments(self):
        return ["add", "newcomer"]


class Log(Step):
    targets = {}
    lines = (1, 60)

    def prepare(self):
        os.makedirs(self.dir)

    def arguments(self):
        return ["log", self.dir + "/log", "600", "3", *map(str, self.lines)]

    def judge(self, acknowledged, more=1):
        """Every line whole, none twice, none missing between those that rotation has left."""
        names = sorted(os.listdir(self.dir), reverse=True)
        text = "".join(read(f"{self.dir}/{name}").decode() for name in names)
        numbers = re.findall(r"\] line (\d+)\n", text)
        whole = re.sub(r"\(W\)\[[\d: .]+\] line \d+\n|Rotating Log File\n", "", text) == ""
        last = max([int(word) for word in acknowledged.split() if word.isdigit()], default=0)
        self.last = int(numbers[-1]) if numbers else 0
        expected = list(range(self.last - len(numbers) + 1, self.last + 1))
        good = whole and [int(number) for number in numbers] == expected
        if not good or not last <= self.last <= last + more or \
                len(names) > 4 or (self.last > 40 and len(numbers) < 20):
            return f"{names} hold {numbers}, acknowledged to {last}: {text[-100:]!r}"
        return None

    def go_on(self):
        self.lines = (self.last + 1, self.last + 20)
        status, acknowledged = self.run()
        return f"ends with {status}" if status != 0 else self.judge(acknowledged, 0)


class Receive(Step):
    begin = "/out\""
    tells = "socket"
    targets = {"out/" + name: (OLDER.get(name), data) for name, data in TREE.items()}

    def prepare(self):
        write_tree(self.dir + "/out", OLDER)

    def run(self, strace=()):
        receiver = subprocess.Popen([*strace, EXAMPLES + "/replicate", "receive", "-t", "5",
                                     self.dir + "/out", "0"], stdout=subprocess.PIPE,
                                    stderr=subprocess.DEVNULL)
        reply = b""
        with receiver:
            try:
                port = int(receiver.stdout.readline().split()[-1])
                with connect("127.0.0.1", port) as sock:
                    sock.sendall(self.stream)
                    sock.shutdown(socket.SHUT_WR)
                    reply = read_to_end(sock)
            except (OSError, IndexError):
                pass  # it was killed before that
        return receiver.returncode, reply

    def leftovers(self):
        found = {os.path.relpath(f"{where}/{name}", self.dir) for where, _, names in
                 os.walk(self.dir) for name in names}
        return f"stale: {found - set(self.targets)}" if found != set(self.targets) else None


def trace(step, *options):
    """The step's calls from its beginning on: name, arguments, result; and the place of each."""
    path = f"{step.dir}.trace"
    status, _ = step.run(["strace", "-f", "-qq", "-o", path, "-e", "trace=" + TRACED,
                                     *options])
    check(status == 0, type(step).__name__, "ends with", status)
    with open(path, encoding="latin1") as file:
        lines = file.read().splitlines()
    seen, calls = {}, []
    for line in lines:
        match = re.match(r"\d+ +(\w+)\(", line)
        if match:
            seen[match[1]] = seen.get(match[1], 0) + 1
            if calls or step.begin in line:
                calls.append((match[1], seen[match[1]], line))
    return calls[1:]


def kill_all(make, stride):
    step = make(f"{WORK}/{make.__name__}")
    step.prepare()
    calls = trace(step)

    def kill_at(number):
        name, count, line = calls[number]
        step = make(f"{WORK}/{make.__name__}.{number}")
        step.prepare()
        status, acknowledged = step.run(["strace", "-f", "-qq", "-o", "/dev/null",
                                         "-e", "trace=" + name,
                                         "-e", f"inject={name}:signal=KILL:when={count}"])
        problem = step.judge(acknowledged) or step.go_on()
        check(problem is None, f"{make.__name__} killed before {line[:120]}: {problem}")
        shutil.rmtree(step.dir, ignore_errors=True)
        return status != 0
    with ThreadPoolExecutor(2) as pool:
        return sum(pool.map(kill_at, range(0, len(calls), stride)))


def pile_up(make):
    """Kills at one place again and again: what is left behind has an end, and does not disturb."""
    step = make(f"{WORK}/{make.__name__}.pile")
    step.prepare()
    for _ in range(40):
        step.run(["strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=/^(rename|renameat)$",
                  "-e", "inject=/^(rename|renameat)$:signal=KILL"])
        check(step.judge("") is None, "after many kills:", step.judge(""))
    stale = sum("~" in name for _, _, names in os.walk(step.dir) for name in names)
    status, _ = step.run()
    check(status == 0 and step.judge("all") is None and stale <= 27, make.__name__, "leaves", stale)


class Disk:
    """What a disk may show after a power cut. A file's bytes are certain up to its last sync; of
    what was written since, any number of calls may have arrived, the last of them by half, or the
    file may have its size and zeros. Of the changes of a name since its folder was synced, any
    may have arrived without the others, and before any bytes. A rename changes both names."""

    def __init__(self, targets):
        self.names = {}  # path: changes since the last sync of its folder, behind the certain one
        self.files = {}  # inode: bytes that are certain, writes since
        for path, (old, _) in targets.items():
            inode = self.new_file(old) if old is not None else None
            self.names[path] = [inode]

    def new_file(self, data=b""):
        self.files[len(self.files)] = (data, [])
        return len(self.files) - 1

    def now(self, path):
        return self.names.get(path, [None])[-1]

    def change(self, path, inode):
        self.names.setdefault(path, [None]).append(inode)

    def write(self, inode, data):
        self.files[inode][1].append(data)

    def sync(self, inode):
        data, writes = self.files[inode]
        self.files[inode] = (data + b"".join(writes), [])

    def sync_folder(self, folder):
        for path in self.names:
            if os.path.dirname(path) == folder:
                self.names[path] = self.names[path][-1:]

    def states(self, path):
        for inode in set(self.names.get(path, [None])):
            if inode is None:
                yield None
                continue
            data, writes = self.files[inode]
            for number in range(len(writes) + 1):
                arrived = data + b"".join(writes[:number])
                yield arrived
                if number < len(writes):
                    yield arrived + writes[number][:len(writes[number]) // 2]
            yield data + bytes(sum(map(len, writes)))


def unquote(text):
    return codecs.escape_decode(text.encode("latin1"))[0]


def replay(disk, files, line):
    """Does to the disk what a traced call did; returns where it told something, if it did."""
    match = LINE.fullmatch(line)
    if not match or match[3].startswith(("-", "?")):
        return ""
    name, arguments, result, _ = match.groups()
    paths = [os.path.join(folder or "", unquote(path).decode("latin1"))
             for folder, path in re.findall(PATH, arguments)]
    fd = re.match(r"(\d+)<([^>]*)>?", arguments)
    if name in ("open", "openat") and "O_DIRECTORY" not in arguments:
        if disk.now(paths[0]) is None and "O_CREAT" in arguments:
            disk.change(paths[0], disk.new_file())
        files[result] = disk.now(paths[0])
    elif name == "close":
        files.pop(fd[1], None)
    elif name in ("write", "sendto", "sendmsg"):
        if files.get(fd[1]) is not None:
            disk.write(files[fd[1]], unquote(re.search(r", \"(.*)\", \d+$", arguments)[1]))
        else:
            return fd[2].split(":")[0]
    elif name in ("fsync", "fdatasync"):
        if files.get(fd[1]) is not None:
            disk.sync(files[fd[1]])
        else:
            disk.sync_folder(fd[2])
    elif name.startswith("rename"):
        disk.change(paths[1], disk.now(paths[0]))
        disk.change(paths[0], None)
    elif name.startswith("unlink"):
        disk.change(paths[0], None)
    return ""


def cut_power(make):
    step = make(f"{WORK}/{make.__name__}.recorded")
    step.prepare()
    calls = trace(step, "-y", "-s", "1000000")
    disk = Disk({f"{step.dir}/{name}": texts for name, texts in step.targets.items()})
    files, told, states = {}, False, 0
    for _, _, line in calls:
        told |= replay(disk, files, line) == step.tells
        if make is Log:  # nothing is promised but that a log is synced when it is closed
            states += len(list(disk.states(step.dir + "/log")))
            unsynced = '"closed' in line and disk.files[disk.now(step.dir + "/log")][1]
            check(not unsynced, "Log: closed, but not synced:", unsynced)
        for name, (old, new) in step.targets.items():
            for state in set(disk.states(f"{step.dir}/{name}")):
                states += 1
                check(state == new or (state == old and not told), f"{make.__name__}: {name} may "
                      f"hold {state and state[:80]} of {new[:80]} after {line[:120]}")
    check(told or make is Log, make.__name__, "tells nothing")
    return states


mode, EXAMPLES, STEPS, WORK = sys.argv[1:5]
check = Check()
write_tree(WORK + "/tree", TREE)
Receive.stream = record_stream(EXAMPLES, WORK + "/tree")
if mode == "kill":
    killed = {make.__name__: kill_all(make, int(sys.argv[5]))
              for make in (Save, AddName, Log, Receive)}
    pile_up(Save)
    pile_up(Receive)
    print(f"{sum(killed.values())} points ({killed}), {check.found} found")
else:
    states = {make.__name__: cut_power(make) for make in (Save, AddName, Log, Receive)}
    print(f"{sum(states.values())} states ({states}), {check.found} found")
sys.exit(check.found > 0)
