"""bench.py PEERS PROGRAM [--quick]: measures the tables of docs/performance.md and prints them as Markdown.

PEERS is the program of peers.cpp, PROGRAM one that exits at once. Belongs into the simulated appliance, where the daemon
can be started and a platform program replaced; bench/run brings it there.

Times change with the machine from minute to minute. So the columns of one row take turns in short slices, and whatever
disturbs one of them disturbs them all; what counts is the ratios.
"""

import array
import contextlib
import math
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

KIB, MIB = 1 << 10, 1 << 20
PEERS, PROGRAM = sys.argv[1:3]
QUICK = "--quick" in sys.argv
# Seconds of a turn, number of turns, and the seconds after which a column that makes long calls gets no more of them.
TURN, TURNS, MOST = (0.02, 3, 0.3) if QUICK else (0.1, 6, 1.5)
BODIES = [0, 200, 4 * KIB, 64 * KIB, MIB] + ([] if QUICK else [16 * MIB, 64 * MIB])
PLACEMENTS = [(1, 1), (1, 2), (8, 2)]  # clients, cores

COLUMNS = {  # what peers.cpp calls it, and the table
    "floor": "floor",
    "conversation": "conversation",
    "ks_call": "`ks_call`",
    "ks_ez_call": "`ks_ez_call`",
    "test": "`test`",
    "broker": "D-Bus broker",
    "daemon": "D-Bus daemon",
    "kept": "D-Bus kept",
}
TARGETS = [  # columns to compare, limit, bodies, cores
    ("ks_call", "conversation", 1.15, range(0, 64 * KIB + 1), [1]),
    ("ks_call", "conversation", 1.3, range(0, 64 * KIB + 1), [2]),
    ("ks_call", "floor", 1.1, range(MIB, 64 * MIB + 1), [1, 2]),
    ("ks_ez_call", "broker", 1.0, range(0, 64 * KIB + 1), [1, 2]),
    ("ks_ez_call", "broker", 1.0, range(16 * MIB, 64 * MIB + 1), [1, 2]),
    ("ks_ez_call", "daemon", 1.0, range(0, 64 * MIB + 1), [1, 2]),
]
COMMAND_TARGET = 1.1  # of a plain fork and exec

DBUS_DAEMON = """<busconfig>
  <type>bench</type>
  <listen>unix:path={}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*"/> <allow receive_sender="*"/> <allow own="*"/> <allow user="*"/>
  </policy>
  <limit name="max_message_size">134217728</limit>
  <limit name="max_incoming_bytes">2000000000</limit>
  <limit name="max_outgoing_bytes">2000000000</limit>
</busconfig>
"""


@contextlib.contextmanager
def process(*command, ready=True):
    """A process that ends with the block; it says with a line when it is ready."""
    running = subprocess.Popen(
        command,
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE if ready else subprocess.DEVNULL,
        stderr=None if command[0] == PEERS else subprocess.DEVNULL,
    )
    try:
        if ready and not running.stdout.readline():
            sys.exit(f"{command} did not start")
        yield running
    finally:
        running.terminate()
        running.communicate()


def turn(clients, contender, size=0, seconds=0.0):
    """One turn of all clients at once: the seconds of each of their calls."""
    each = array.array("d")
    for client in clients:
        client.stdin.write(f"{contender} {size} {seconds}\n".encode())
        client.stdin.flush()
    for client in clients:
        count = client.stdout.readline()
        if not count:
            sys.exit(f"{contender} with {size} bytes failed")
        each.fromfile(client.stdout, int(count))
    return each


def compare(clients, contenders, size=0):
    """The seconds of every call of each contender."""
    results = {contender: array.array("d") for contender in contenders}
    spent = dict.fromkeys(contenders, 0.0)
    for _ in range(TURNS):
        for contender in contenders:
            if spent[contender] < MOST:
                if size < MIB:  # the first call after a pause finds cold caches; a large body drowns that
                    turn(clients, contender, size)
                each = turn(clients, contender, size, TURN)
                results[contender] += each
                spent[contender] += sum(each) / len(clients)
    return results


def quantile(values, share):
    return sorted(values)[max(math.ceil(share * len(values)), 1) - 1]


def median(values):
    return quantile(values, 0.5)


def size_text(size):
    return f"{size // MIB} MiB" if size >= MIB else f"{size // KIB} KiB" if size >= KIB else f"{size} B"


def print_row(*cells):
    print("|", " | ".join(cells), "|", flush=True)


def print_head(*cells, left=1):
    print_row(*cells)
    print_row(*["---"] * left, *["--:"] * (len(cells) - left))


# ---- What a call costs

worst = {}  # of each target: measured ratio and row


def hold(target, limit, measured, row):
    worst[target] = max(worst.get(target, (0, limit, "")), (measured, limit, row))


def measure_placement(clients, cores):
    with contextlib.ExitStack() as stack:
        directory = stack.enter_context(tempfile.TemporaryDirectory())
        configuration = pathlib.Path(directory, "daemon.conf")
        configuration.write_text(DBUS_DAEMON.format(f"{directory}/daemon"))
        stack.enter_context(process("dbus-daemon", "--nofork", "--print-address", f"--config-file={configuration}"))
        stack.enter_context(process("vistalprod", ready=False))
        for role in "broker", "on_broker", "on_daemon", "floor", "conversation", "echo":
            stack.enter_context(process(PEERS, role, directory))
        callers = [stack.enter_context(process(PEERS, "client", directory)) for _ in range(clients)]
        turn(callers, "test")  # the daemon is up
        for size in BODIES:
            results = compare(callers, COLUMNS, size)
            ours, floor = results["ks_call"], median(results["floor"])
            print_row(
                f"{clients} on {cores}",
                size_text(size),
                f"{floor * 1e6:.1f}",
                f"{median(ours) * 1e6:.1f}",
                f"{quantile(ours, 0.99) * 1e6:.1f}",
                f"{clients * len(ours) / sum(ours):.0f}",
                *(f"{median(results[column]) / floor:.2f}" for column in list(COLUMNS)[1:]),
            )
            for own, other, limit, bodies, where in TARGETS:
                if size in bodies and cores in where:
                    name = f"{COLUMNS[own]} ÷ {COLUMNS[other]}, {size_text(bodies[0])} to {size_text(bodies[-1])}"
                    name += f", {where[0]} core{'s' if where[0] > 1 else ''}" if len(where) == 1 else ""
                    ratio = median(results[own]) / median(results[other])
                    hold(name, limit, ratio, f"{clients} on {cores}, {size_text(size)}")


def measure_calls():
    print_head("clients on cores", "body", "floor µs", "`ks_call` µs", "99 % µs", "calls per second",
               *list(COLUMNS.values())[1:])
    allowed = sorted(os.sched_getaffinity(0))
    for clients, cores in PLACEMENTS:
        os.sched_setaffinity(0, allowed[-cores:])  # all that is started from here on keeps to them
        measure_placement(clients, min(cores, len(allowed)))
    os.sched_setaffinity(0, allowed)


# ---- What the daemon costs around a call


def resident(pid):
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return [int(re.search(rf"{label}:\s*(\d+)", status)[1]) for label in ("VmRSS", "RssAnon")]


def measure_costs():
    shutil.copy(PROGRAM, "/sbin/share_guard")
    print_head("what", "figure", "against")
    with process("vistalprod", ready=False) as daemon, process(PEERS, "client", "/") as client:
        turn([client], "test")
        idle, own = resident(daemon.pid)
        requests = len(turn([client], "test", 200, 0.5 if QUICK else 10))
        after = resident(daemon.pid)[0]
        print_row("resident size, idle", f"{idle} KiB", f"of that its own: {own} KiB")
        print_row(f"resident size, after {requests} requests", f"{after} KiB", f"grown by {after - idle} KiB")
        results = compare([client], ["fork", "command", "relay", "test"])
    for what, contender, base, against in (
        ("command `system_call_share_guard_add`, whole call", "command", "fork", "plain fork and exec"),
        ("event, from posting to the notification service", "relay", "test", "call of `test`"),
    ):
        ratio = median(results[contender]) / median(results[base])
        print_row(what, f"{median(results[contender]) * 1e6:.0f} µs",
                  f"{against} {median(results[base]) * 1e6:.0f} µs: {ratio:.2f}")
        if contender == "command":
            hold("command that runs a program ÷ plain fork and exec", COMMAND_TARGET, ratio, "below")


def print_targets():
    print_head("target", "at most", "worst", "in the row", "")
    for target, (measured, limit, row) in worst.items():
        print_row(target, f"{limit:.2f}", f"{measured:.2f}", row, "met" if measured <= limit else "**missed**")


measure_calls()
print()
measure_costs()
print()
print_targets()
