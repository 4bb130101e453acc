"""Changes a tree under `ovra-manifest watch`, and checks that each change is reported once."""

import hashlib
import os
import random
import signal
import socket
import subprocess
import threading

FILES = 1000
PERIOD = "0.5"  # Seconds from round to round.
MOST_NEW = 20   # Unlisted files at a time: each is a finding, which takes memory.


class Tree:
    """Files, most of which are listed, and what is to be reported when they change."""

    def __init__(self, directory):
        self.directory = directory
        self.random = random.Random(int(os.environ.get("OVRA_TEST_SEED", "1")))
        self.listed = {f"tree/{number // 50:02}/{number:04}": b"file %d" % number
                       for number in range(FILES)}
        self.present = {}
        lines = []
        for name, content in self.listed.items():
            self.write(name, content)
            lines.append(f"{hashlib.sha256(content).hexdigest()}  {name}\n")
        (directory / "manifest").write_text("".join(lines))

    def write(self, name, content):
        """In one step, so that nobody sees half of it."""
        path = self.directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        part = self.directory / "part"
        part.write_bytes(content)
        part.rename(path)
        self.present[name] = content

    def remove(self, name):
        (self.directory / name).unlink()
        del self.present[name]

    def change(self, name):
        """Changes a listed file. Returns the line that is to be reported."""
        content = self.present.get(name)
        if content is not None and self.random.random() < 0.3:
            self.remove(name)
            return f"{name}: MISSING"
        if content != self.listed[name] and self.random.random() < 0.7:
            self.write(name, self.listed[name])
            return f"{name}: OK"
        self.write(name, b"changed %d" % self.random.getrandbits(64))
        return f"{name}: CHANGED"

    def change_some(self):
        """Changes a few files, each once. Returns the lines that are to be reported."""
        expected = [self.change(name)
                    for name in self.random.sample(sorted(self.listed), self.random.randint(0, 20))]
        new = [name for name in self.present if name not in self.listed]
        if len(new) > MOST_NEW or (new and self.random.random() < 0.5):
            self.remove(new[0])
            expected.append(f"{new[0]}: REMOVED")
        name = f"tree/new/{self.random.getrandbits(64):x}"
        self.write(name, b"new")
        expected.append(f"{name}: NEW")
        return expected


class Watch:
    """The program, what it prints, and the end of its rounds."""

    def __init__(self, program, directory):
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.manager.bind(str(directory / "notify"))
        self.manager.settimeout(300)
        self.process = subprocess.Popen(
            [program, "watch", "manifest", "--every", PERIOD, "--new", "tree", "--status", "status",
             "--log", "log", "--max-bytes", "20000", "--keep", "2"],
            cwd=directory, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
            env={**os.environ, "NOTIFY_SOCKET": str(directory / "notify")})
        self.lines = []
        self.reader = threading.Thread(target=lambda: self.lines.extend(
            line.rstrip("\n") for line in iter(self.process.stdout.readline, "")))
        self.reader.start()
        self.rounds = 0

    def wait_for_round(self):
        """Returns at the end of a round that has begun after the call."""
        self.manager.setblocking(False)
        try:
            while True:
                self.manager.recv(4096)
        except BlockingIOError:
            pass
        self.manager.settimeout(300)
        for _ in range(2):
            while not self.manager.recv(4096).startswith(b"STATUS="):
                pass
            self.rounds += 1

    def end(self):
        self.process.terminate()
        code = self.process.wait()
        self.reader.join()
        return code


def soak_watch(program, directory, clock, seconds, sample):
    """The samples, what was wrong, and a sentence on what was done."""
    tree = Tree(directory)
    watch = Watch(program, directory)
    watch.wait_for_round()
    samples, wrong, expected, begin = [], [], [], clock()
    while clock() - begin < seconds:
        lines = tree.change_some()
        watch.process.send_signal(tree.random.choice((signal.SIGUSR1, signal.SIGUSR2, signal.SIGHUP)))
        watch.wait_for_round()
        expected += lines
        taken = sample(watch.process.pid)
        taken["changes in the batch"] = len(lines)
        samples.append(taken)
    code = watch.end()
    if code != 0:
        wrong.append(f"it ended with {code}")
    counted = {}
    for line in expected:
        counted[line] = counted.get(line, 0) + 1
    for line in watch.lines:
        counted[line] = counted.get(line, 0) - 1
    wrong += [f"missed: {line}" for line, count in counted.items() if count > 0]
    wrong += [f"too often: {line}" for line, count in counted.items() if count < 0]
    return samples, wrong, (f"{len(expected)} changes, {len(watch.lines)} reports, "
                            f"{watch.rounds} rounds awaited, {FILES} files")
