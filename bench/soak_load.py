"""soak_load.py MINUTES: puts a mixed load on the daemon, inside the booted appliance.

Several client processes call random commands of docs/commands.md as shown there; some clients are killed meanwhile.
Records go through both message queues. Hostile clients connect to both services, and each must be hung up on. In each
phase of some seconds, the stand-in of every platform program and library succeeds at once, succeeds slowly, or fails in
a given way. So the reply to each call is known: the one that the page shows, or that command's failure. A posted record
must be delivered once and in order.

Prints counts of calls, and the daemon's memory, descriptors and threads after the warm-up and at the end. Exit status 1
if a reply or record was lost or wrong, or if the daemon has grown.
"""

import collections
import fcntl
import glob
import hashlib
import itertools
import json
import os
import pathlib
import random
import re
import socket
import subprocess
import sys
import threading
import time

CLIENTS = 6
PHASE_SECONDS = 3
WARM_UP_PHASES = 5
# More than the allocator's arenas vary; a leak of 100 bytes per request exceeds it.
GROWTH_KIB = 2048
KILLED = 0.05  # the share of clients that are killed
STAND_INS = pathlib.Path("/tmp/stand_in")
STAGING = pathlib.Path("/tmp/vistalsurveillance_sendmail")
LOST = 15  # ksctl: the connection ended without a reply

PRINTED = {  # by a program that succeeds; the others print nothing
    "/sbin/hwctl_app": "name=VS-8480",
    "/sbin/kcli": r"done\nsid is s1",
    "/sbin/read_hwsn": r"Q234I00001\n",
    "/usr/sbin/get_kcloud_host": r"eu\n",
    "/usr/sbin/kesh": r'{"state":"up"}\n',
    "/share/CayinMediaViewer/bin/rdconf": r"2.0.3\n",
}
PRINTED = {os.path.realpath(path): text for path, text in PRINTED.items()}  # stand-ins use paths without links
FAILURES = {"exit 3": 3 << 8, "signal 9": 9}  # steps and their raw wait statuses
RESULTS = {"exit 3": 3, "signal 9": 128 + 9}  # of the mail program
# Replies if the program or library fails; STATUS stands for the raw wait status. Other commands reply with USUAL.
FAILED = {
    "sendmail": '{"result":RESULT}',
    "system_call_vistalpro_disable": '{"error_msg":"nos_system_system_call_vistalpro_disable_handler fail","result":-1}',
    "system_connrec_tool": '{"error_msg":"nos_system_call_evrec_tool_handler fail","result":-1}',
    "notify_return": '{"error_msg":"nos_return_handler fail","result":-1}',
    "get_vpd_ext_area": '{"result":0,"vpd_ext_area":""}',
    "get_sess_id": '{"error_code":-2,"error_msg":"get_sess_id fail"}',
    "update_ip_ban_list": '{"result":0}',
    "reverse_proxy": LOST,
    "web_booth": LOST,
    "install_app": LOST,
    "system_call_cloud_get_device_status": '{"device_status":"","error_msg":"nos_system_call_cloud_get_device_status_handler fail","result":STATUS}',
    "cmv_cli": '{"cli_ret":STATUS,"is_enabled":1,"is_installed":1,"result":0,"result_out":""}',
    "vistal_agent_cli": '{"cli_ret":STATUS,"result":0,"result_out":""}',
}
USUAL = '{"error_msg":"nos_%s_handler fail","result":-1}'

SERVICES = "VistalServer-vistalprod", "VistalServer_send_mail-vistalprod"
REQUEST = bytes([8, 0]) + b"test".ljust(257, b"\0")
TWO_FILES = bytes([8, 1]) + REQUEST[2:]


def hand_over(peer, fd):
    socket.send_fds(peer, [b"x"], [fd])
    os.close(fd)


def sealed_file():
    fd = os.memfd_create("sealed", os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
    fcntl.fcntl(fd, fcntl.F_ADD_SEALS, fcntl.F_SEAL_SHRINK)
    return fd


# Each function sends something after the ask. If it returns true, the client shuts down its sending side. Then it waits
# until it is hung up on; a silent client leaves.
HOSTILE = {
    "half a record": lambda peer: peer.send(REQUEST[:100]),
    "an unknown record": lambda peer: peer.send(bytes(len(REQUEST))),
    "no descriptor": lambda peer: peer.send(REQUEST + b"x"),
    "a file of a disk": lambda peer: peer.send(REQUEST) and hand_over(peer, os.open(__file__, os.O_RDONLY)),
    "a socket for a file": lambda peer: peer.send(REQUEST) and hand_over(peer, os.dup(peer.fileno())),
    "a sealed file": lambda peer: peer.send(REQUEST) and hand_over(peer, sealed_file()),
    "half of two files": lambda peer: peer.send(TWO_FILES) and not hand_over(peer, os.memfd_create("first")),
    "silence": lambda peer: time.sleep(random.random() * 0.05),
}

Command = collections.namedtuple("Command", "service name body shown")
numbers = itertools.count()
served, killed, turned_away, posted = collections.Counter(), collections.Counter(), collections.Counter(), []
wrong = []


def read_commands():
    page = (pathlib.Path(__file__).parent.parent / "docs/commands.md").read_text()
    calls = re.findall(r"^\$ ksctl call (\w+) (\w+)(?: '(.*)')?\n((?:[^$`].*\n)+)", page, re.MULTILINE)
    return [Command(*call[:3], call[3].rstrip("\n")) for call in calls]


def client(command):
    """Starts a client. Each mail gets its own files."""
    body = command.body
    if command.name == "sendmail":
        number = next(numbers)
        body = body.replace("a.conf", f"{number}.conf").replace("a.mail", f"{number}.mail")
        for kind in "conf", "mail":
            (STAGING / f"{number}.{kind}").touch()
    arguments = ["ksctl", "call", "-t", "60", command.service, command.name] + ([body] if body else [])
    return subprocess.Popen(arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def outcome(command):
    running = client(command)
    text = running.communicate()[0]
    return text.rstrip("\n") if running.returncode == 0 else running.returncode


def set_stand_in(path, step):
    if step in FAILURES:
        script = f"{step}\nreturn -1\n"
    else:
        script = step + (f"stdout {PRINTED[path]}\n" if path in PRINTED else "")
    file = STAND_INS / (path[1:] + ".outcome")
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text(script)


def called():
    """The stand-ins that were called since the last time."""
    records = [pathlib.Path(at, name) for at, _, names in os.walk(STAND_INS) for name in names if name.endswith(".calls")]
    for record in records:
        record.unlink()
    return {"/" + str(record.relative_to(STAND_INS))[: -len(".calls")] for record in records}


def right(command, steps, result):
    """Whether `result` is a correct reply if the command's programs carry out these steps."""
    failed = [step for step in steps if step in FAILURES]
    replies = [command.shown] if len(failed) < len(steps) or not steps else []
    for step in failed:
        reply = FAILED.get(command.name, USUAL % command.name)
        if reply != LOST:
            reply = reply.replace("STATUS", str(FAILURES[step])).replace("RESULT", str(RESULTS[step]))
        replies.append(reply)
    return result in replies


class Load:
    def __init__(self):
        self.commands = read_commands()
        self.steps = {}
        self.uses = {}
        self.over = False
        self.barrier = threading.Barrier(CLIENTS + 1)
        for path in PRINTED:
            set_stand_in(path, "")
        called()
        for command in self.commands:  # one at a time, to learn which programs each command runs
            result = outcome(command)
            self.uses[command] = called()
            if result != command.shown:
                wrong.append((command, [], result))
        self.tools = sorted(set().union(*self.uses.values()))

    def deal(self):
        """Writes a new script for every stand-in."""
        for path in self.tools:
            kind = random.choice(["", "", "delay 20\n", *FAILURES])
            self.steps[path] = kind
            set_stand_in(path, kind)
        called()  # records would fill the memory
        for left in glob.glob("/tmp/file??????"):  # failed programs leave their outputs behind, as documented
            os.unlink(left)

    def request(self):
        command = random.choice(self.commands)
        if random.random() < KILLED:
            unknown = random.random() < 0.2
            running = client(command._replace(name="no_such_command") if unknown else command)
            time.sleep(random.random() * 0.02)
            running.kill()
            running.communicate()
            killed["waiting without a reply" if unknown else "during a request"] += 1
            return
        result = outcome(command)
        steps = [self.steps[path] for path in self.uses[command]]
        served["as shown" if result == command.shown else "cut off" if result == LOST else "a failure"] += 1
        if not right(command, steps, result):
            wrong.append((command, steps, result))

    def run_client(self):
        while True:
            self.barrier.wait()
            if self.over:
                return
            end = time.monotonic() + PHASE_SECONDS
            while time.monotonic() < end:
                self.request()
            self.barrier.wait()


def post(stop):
    """Posts numbered records into both queues in turn."""
    while not stop.is_set():
        number = len(posted)
        if number % 2:
            command = ["ksctl", "post-log", random.choice(["event", "connection"]), "--content", str(number)]
        else:
            command = ["ksctl", "post-notify", "--info", str(number)]
        if subprocess.run(command, stderr=subprocess.DEVNULL).returncode == 0:
            posted.append(number)
        stop.wait(0.01)


def attack(stop):
    """Runs one hostile client after another."""
    while not stop.wait(0.02):
        kind = random.choice(list(HOSTILE))
        digest = hashlib.sha1(random.choice(SERVICES).encode()).hexdigest()
        with socket.socket(socket.AF_UNIX) as peer:
            peer.settimeout(60)
            peer.connect(f"/var/run/ks/{int(digest[:8], 16):X}.sock")
            try:
                peer.recv(len(REQUEST), socket.MSG_WAITALL)
                if HOSTILE[kind](peer):
                    peer.shutdown(socket.SHUT_WR)
                answer = peer.recv(1) if kind != "silence" else b""
            except ConnectionError:
                answer = b""
            except TimeoutError:
                answer = "kept waiting"
        turned_away[kind] += 1
        if answer != b"":
            wrong.append((kind, [], answer))


def state(daemon):
    status = pathlib.Path(f"/proc/{daemon}/status").read_text()
    resident = int(re.search(r"VmRSS:\s*(\d+)", status)[1])
    threads = int(re.search(r"Threads:\s*(\d+)", status)[1])
    return resident, len(os.listdir(f"/proc/{daemon}/fd")), threads


def at_rest(daemon, wanted=None):
    """The daemon's state once it has no children and, within 10 s, no more descriptors and threads than `wanted`."""
    deadline = time.monotonic() + 10
    while True:
        subprocess.run(["ksctl", "call", "main", "test"], stdout=subprocess.DEVNULL)
        now = state(daemon)
        children = subprocess.run(["pgrep", "-P", daemon], stdout=subprocess.DEVNULL).returncode == 0
        if time.monotonic() > deadline or (not children and (wanted is None or now[1:] <= wanted[1:])):
            return now
        time.sleep(0.05)


def received(file):
    """The numbers of the records that the notification service has received."""
    found = []
    for line in file.read_text().splitlines():
        record = json.loads(line.split(" ", 1)[1].removesuffix("\\n"))
        found.append(int(record.get("kbus_extra_info", record.get("content", -1))))
    return found


def main():
    minutes = float(sys.argv[1])
    daemon = subprocess.run(["pgrep", "-x", "vistalprod"], stdout=subprocess.PIPE, text=True).stdout.strip()
    events = pathlib.Path("/tmp/soak.events")
    notify = subprocess.Popen(["ksctl", "serve", "notify"], stdout=events.open("w"))
    subprocess.run(["ksctl", "wait", "notify"], check=True)
    load = Load()
    threads = [threading.Thread(target=load.run_client) for _ in range(CLIENTS)]
    stop = threading.Event()
    threads += [threading.Thread(target=target, args=(stop,)) for target in (post, attack)]
    for thread in threads:
        thread.start()
    start, end = None, time.monotonic() + minutes * 60
    for phase in itertools.count():
        load.deal()
        if phase == WARM_UP_PHASES:
            start = at_rest(daemon)
        load.over = phase > WARM_UP_PHASES and time.monotonic() >= end
        load.barrier.wait()
        if load.over:
            break
        load.barrier.wait()
    stop.set()
    for thread in threads:
        thread.join()
    deadline = time.monotonic() + 20
    while len(received(events)) < len(posted) and time.monotonic() < deadline:
        time.sleep(0.1)
    finish = at_rest(daemon, start)
    notify.terminate()
    notify.wait()

    arrived = received(events)
    queues_right = all([n for n in arrived if n % 2 == odd] == [n for n in posted if n % 2 == odd] for odd in (0, 1))
    print(f"requests answered: {sum(served.values())} ({', '.join(f'{n} {what}' for what, n in served.most_common())})")
    print(f"clients killed: {sum(killed.values())} ({', '.join(f'{n} {what}' for what, n in killed.most_common())})")
    print(f"hostile clients: {sum(turned_away.values())} ({', '.join(f'{n} {what}' for what, n in turned_away.most_common())})")
    print(f"records: {len(posted)} posted, {len(arrived)} delivered{'' if queues_right else ', NOT as posted'}")
    print(f"lost or wrong replies: {len(wrong)}")
    for what, steps, result in wrong[:10]:
        print(f"  {' '.join(what[:2]) if isinstance(what, Command) else what} with {steps}: {result!r}")
    for when, (resident, descriptors, running) in ("start", start), ("end", finish):
        print(f"{when}: {resident} KiB resident, {descriptors} descriptors, {running} threads")
    grown = finish[0] > start[0] + GROWTH_KIB or finish[1] > start[1] or finish[2] > start[2]
    if grown:
        print("the daemon has grown")
    return 1 if wrong or grown or not queues_right else 0


sys.exit(main())
