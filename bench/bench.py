"""bench.py PEERS PROGRAM [--quick]: measures the tables of docs/performance.md and prints them as Markdown.

PEERS is the program of peers.cpp, PROGRAM one that exits at once. Runs in the simulated appliance, where the daemon can
be started and a platform program replaced.

Other load on the machine changes the times from minute to minute. The columns of one row therefore take short turns: a
disturbance affects all of them, and the ratios stay valid. Two starts of the same program differ by some 8 %, so there
are many rounds with new processes, and in each of them every column of a row has one turn.
"""

import array
import collections
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
# Bodies that are measured in the same rounds, the number of these rounds, and the seconds of a turn. A turn has several
# calls even with large bodies, because what a server does after its reply delays only the next call.
Series = collections.namedtuple("Series", "bodies rounds seconds")
SMALL = Series([0, 200, 4 * KIB, 64 * KIB, MIB], 3 if QUICK else 30, 0.02 if QUICK else 0.05)
SERIES = [SMALL] if QUICK else [SMALL, Series([16 * MIB, 64 * MIB], 4, 0.5)]
SUMMARY = [200, 64 * KIB, MIB if QUICK else 16 * MIB]  # bodies in the first table
PLACEMENTS = [(1, 1), (1, 2), (8, 2)]  # clients, cores

COLUMNS = {  # names in peers.cpp and in the tables
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


@contextlib.contextmanager
def process(*command, ready=True):
    """A process that is ended with the block. It prints a line when it is ready."""
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


def compare(clients, contenders, seconds, size=0):
    """One turn of each contender."""
    results = {}
    for contender in contenders:
        if size <= MIB:  # warms the caches up; with a large body this makes no difference
            turn(clients, contender, size)
        results[contender] = turn(clients, contender, size, seconds)
    return results


def quantile(values, share):
    return sorted(values)[max(math.ceil(share * len(values)), 1) - 1]


def medians(rounds):
    """For each contender the median of its turns' medians: a fast turn, with more calls, counts no more than others."""
    return {contender: quantile([quantile(each[contender], 0.5) for each in rounds], 0.5) for contender in rounds[0]}


# ---- Measurements

Row = collections.namedtuple("Row", "clients cores size median slowest rate")  # the last two of ks_call


def measure_round(clients, series):
    """For each size of a body, a turn of each column."""
    with contextlib.ExitStack() as stack:
        directory = stack.enter_context(tempfile.TemporaryDirectory())
        bus = f"unix:path={directory}/daemon"
        stack.enter_context(process("dbus-daemon", "--session", "--nofork", "--print-address", f"--address={bus}"))
        stack.enter_context(process("vistalprod", ready=False))
        for role in "broker", "on_broker", "on_daemon", "floor", "conversation", "echo":
            stack.enter_context(process(PEERS, role, directory))
        callers = [stack.enter_context(process(PEERS, "client", directory)) for _ in range(clients)]
        turn(callers, "test")  # the daemon is up
        return {size: compare(callers, COLUMNS, series.seconds, size) for size in series.bodies}


def measure_placement(clients, cores):
    for series in SERIES:
        print(f"{clients} on {cores}, from {size_text(series.bodies[0])}", file=sys.stderr)
        rounds = [measure_round(clients, series) for _ in range(series.rounds)]
        for size in series.bodies:
            results = [each[size] for each in rounds]
            ours = [seconds for each in results for seconds in each["ks_call"]]
            yield Row(clients, cores, size, medians(results), quantile(ours, 0.99), clients * len(ours) / sum(ours))


def measure_calls():
    allowed = sorted(os.sched_getaffinity(0))
    for clients, cores in PLACEMENTS:
        os.sched_setaffinity(0, allowed[-cores:])  # processes started from now on inherit this
        yield from measure_placement(clients, min(cores, len(allowed)))
    os.sched_setaffinity(0, allowed)


def resident(pid):
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return [int(re.search(rf"{label}:\s*(\d+)", status)[1]) for label in ("VmRSS", "RssAnon")]


def measure_costs():
    """The costs of the daemon that calls do not show: medians of a command with a program, and rows about memory."""
    shutil.copy(PROGRAM, "/sbin/share_guard")
    os.sched_setaffinity(0, {max(os.sched_getaffinity(0))})  # wake-ups across cores vary more than what is compared
    with process("vistalprod", ready=False) as daemon, process(PEERS, "client", "/") as client:
        turn([client], "test")
        idle, own = resident(daemon.pid)
        requests = len(turn([client], "test", 200, 0.5 if QUICK else 10))
        after = resident(daemon.pid)[0]
    rounds = []
    for _ in range(SMALL.rounds):
        with process("vistalprod", ready=False), process(PEERS, "client", "/") as client:
            turn([client], "test")
            rounds.append(compare([client], ["fork", "command"], SMALL.seconds))
    return medians(rounds), [
        ("resident size, idle", f"{idle} KiB", f"of that its own: {own} KiB"),
        (f"resident size, after {requests} requests", f"{after} KiB", f"grown by {after - idle} KiB"),
    ]


# ---- Tables


def size_text(size):
    return f"{size // MIB} MiB" if size >= MIB else f"{size // KIB} KiB" if size >= KIB else f"{size} B"


def time_text(seconds):
    return f"{seconds * 1e6:.0f} µs" if seconds < 1e-3 else f"{seconds * 1e3:.1f} ms"


def row_text(row):
    return f"{row.clients} on {row.cores}, {size_text(row.size)}"


def print_table(head, rows, text_columns=2):
    for cells in head, ["---"] * text_columns + ["--:"] * (len(head) - text_columns), *rows:
        print("|", " | ".join(cells), "|")
    print()


def print_summary(rows):
    columns = ["ks_ez_call", "broker", "daemon", "kept"]
    print_table(
        ["body", "clients", *(COLUMNS[column] for column in columns)],
        (
            [size_text(row.size), str(row.clients), *(time_text(row.median[column]) for column in columns)]
            for size in SUMMARY
            for row in rows
            if row.size == size and row.cores > 1
        ),
    )


def print_targets(rows, costs):
    table = []
    for own, other, limit, bodies, cores in TARGETS:
        held = [row for row in rows if row.size in bodies and row.cores in cores]
        if held:
            worst = max(held, key=lambda row: row.median[own] / row.median[other])
            name = f"{COLUMNS[own]} ÷ {COLUMNS[other]}, {size_text(bodies[0])} to {size_text(bodies[-1])}"
            name += {1: ", one core", 2: ", two cores"}[cores[0]] if len(cores) == 1 else ""
            table.append((name, row_text(worst), limit, worst.median[own] / worst.median[other]))
    ratio = costs["command"] / costs["fork"]
    table.append(("command that runs a program ÷ plain fork and exec, one core", "", COMMAND_TARGET, ratio))
    print_table(
        ["target", "worst row", "at most", "measured", ""],
        (
            [target, worst, f"{limit:.2f}", f"{ratio:.2f}", "met" if round(ratio, 2) <= limit else "missed"]
            for target, worst, limit, ratio in table
        ),
    )


def print_calls(rows):
    print_table(
        ["clients on cores", "body", "floor", "`ks_call`", "99 %", "calls per second", *list(COLUMNS.values())[1:]],
        (
            [f"{row.clients} on {row.cores}", size_text(row.size), time_text(row.median["floor"])]
            + [time_text(row.median["ks_call"]), time_text(row.slowest), f"{row.rate:.0f}"]
            + [f"{row.median[column] / row.median['floor']:.2f}" for column in list(COLUMNS)[1:]]
            for row in rows
        ),
    )


def print_costs(costs, memory):
    command = "command `system_call_share_guard_add`, whole call", time_text(costs["command"])
    against = f"plain fork and exec {time_text(costs['fork'])}"
    print_table(["what", "figure", "against"], [*memory, (*command, against)], text_columns=1)


all_rows = list(measure_calls())
daemon_costs, daemon_memory = measure_costs()
print_summary(all_rows)
print_targets(all_rows, daemon_costs)
print_calls(all_rows)
print_costs(daemon_costs, daemon_memory)
