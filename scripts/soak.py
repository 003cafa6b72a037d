"""The run behind scripts/soak.sh; to be started inside scripts/world.sh.

soak.py BUILD-FOLDER SECONDS [valgrind]
"""

import json
import math
import os
import random
import re
import shutil
import subprocess
import sys
import threading
import time

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BASE = "1.3.6.1.4.1.32473"
ADDRESS = "udp:127.0.0.1:1161"
BOARD_CELL = f"{BASE}.10.232.4.5.0"
RACK = "rack 7"
AGENT_LOG = "/tmp/tpg.log"
# Slot: product, family, version, the family's number behind BASE.
CARDS = {
    3: ("line2", "LINE", "1.2.100", 2),
    5: ("line2", "LINE", "1.2.100", 2),
    7: ("line2", "LINE", "1.3.7", 2),
    8: ("fan1", "FAN", "1.0.1", 4),
    9: ("fan1", "FAN", "1.0.2", 4),
    12: ("psu4", "POWER", "2.0.1", 3),
    13: ("psu4", "POWER", "2.0.1", 3),
}
FAULTY = [slot for slot, card in CARDS.items() if card[0] != "psu4"]
FAMILIES = sorted({card[1] for card in CARDS.values()})
REST = 15  # seconds in which the cards of one family, or of all, are not moved
WELL_AFTER = 6  # seconds until nothing is left of a daemon's trouble, for no request is older
BACK_AFTER = 5  # seconds until the tables are back after the master's start, or a card's move

# Why each Error or Warn line of the agent is there.
EXPLAINED = {
    "a daemon hung": r"ipc timeout on slot_no \d+$",
    "a daemon is away": r"slot_no \d+ ipc is down$|connction to slot_no \d+ is not available$"
                        r"|connect slot_no \d+ failed, ",
    "a daemon closed the connection": r"(recv from|send to) slot_no \d+ failed\. ",
    "the master is away": r"(Warning|Error): Failed to .* the agentx master agent "
                          r"|AgentX master agent failed to respond to ping"
                          r"|snmpd: send_trap: Failure in sendto ",
    "the request that met it": r"jsonmib_ipc_(send|recv) failed$",
    "the state of a daemon": r"the daemon of slot_no \d+ is away: ",
    "many lines of one kind": r"\d+ more like this (and others )?\(",
    "a card came or went while one was asked":
        r"gave up a request to slot_no \d+: (tables are about to change|its card has gone)$",
    "a card was pulled": r"got event 0x11$",
    "a card was pulled while a message of it, or to it, was on its way":
        r"got event 0x2[12]$"
        r"|Got an error on the connection: (Connection reset by peer|Broken pipe)$",
    "what became of such a request": r"jsonmib_ctrl_(get|set) failed, instance \d+, var_id \d+, "
                                     r"|\s+hexval: [0-9a-f ]+$",
    "a switched-off trap was raised": r"xxxSendTrap\[0x[0-9a-f]+\] was disabled$",
    "a card that was pulled raised a fault":
        r"no card is registered at slot_no \d+, no trap for var-id 200$",
    "switches were loaded again for a new master":
        r"tpg_db_load_sendtrap_db_file\(\d+\): free target sendtrap_json_db ",
    "the board has no built-in document":
        r"Cannot find jsonmib file for non-generic product card on slot_no 0\.$",
    "a library without a document": r"tpg_snmp_register_jsonmib\(\): No json string is found in "
                                    r"lib\.so file, to try built-in$",
    "a text of a fault row was read": r"regular trap table param var_id 201 range\[0:31\] ,type=3$",
    "a card's master had forgotten it, and went":
        r"no fault table of slot_no \d+ has var-id 200, no trap$",
    "a card was pulled while a switch of it was set":
        r"NULL sendtrap_json_db for table \w+ of slot \d+!$",
    "a pulled card had unregistered before": r"target was not registered yet$",
}


class Run:
    """The programs, and when the disturbances stop."""

    def __init__(self, build, seconds, valgrind):
        self.build = build
        self.seconds = seconds
        self.valgrind = valgrind
        self.env = dict(os.environ, MIBS="", SNMPCONFPATH=f"{TOP}/packaging",
                        SNMP_PERSISTENT_DIR="/var/lib/snmp", BASE_BOARD="3100KX")
        self.busy = threading.Event()
        self.over = False
        self.chassis_lock = threading.Lock()
        self.trouble_lock = threading.Lock()
        self.well_since = dict.fromkeys(CARDS, 0.0)  # slot: None while its daemon has trouble
        self.moved_at = dict.fromkeys(FAMILIES, 0.0)  # infinite during a move
        self.resting = []  # families
        self.master_at = time.monotonic()  # the last start; None while there is none
        self.counts = {}
        self.slowest = 0.0  # in seconds, of the values read
        self.values = {}  # slot: what its cell holds
        self.failures = []
        self.master = self.traps = self.agent = self.chassis = None

    def count(self, what):
        self.counts[what] = self.counts.get(what, 0) + 1

    def fail(self, text):
        self.failures.append(text)
        print("soak: failed:", text, flush=True)


# --- programs ---


def build_library(product, document):
    """A card's library; the document, if any, is a static object in it."""
    source = f"int {product}_card = 1;\n"
    if document:
        bytes_of = ",".join(str(byte) for byte in document.encode())
        source += f"static char jsonmib_{product}[] __attribute__((used)) = {{{bytes_of}}};\n"
    path = f"/tmp/cards/libmib{product}"
    with open(path + ".c", "w", encoding="ascii") as out:
        out.write(source)
    subprocess.check_call(["gcc", "-shared", "-fPIC", "-o", path + ".so", path + ".c"])


def write_cards():
    os.makedirs("/tmp/cards", exist_ok=True)
    with open(f"{TOP}/doc/examples/line2.json", encoding="ascii") as text:
        line = text.read()
    with open(f"{TOP}/doc/examples/psu4.json", encoding="ascii") as text:
        power = text.read()
    documents = {"line2": line, "psu4": power, "fan1": line.replace("32473, 2", "32473, 4")}
    for product, document in documents.items():
        with open(f"/tmp/cards/{product}.json", "w", encoding="ascii") as out:
            out.write(document)
        build_library(product, document if product != "psu4" else "")
    with open("/var/built_in_jsonmib/libmibpsu4.so.json", "w", encoding="ascii") as out:
        out.write(power)
    cards = []
    for slot, (product, family, version, _) in CARDS.items():
        os.makedirs(f"/mnt/flash0/cards/{family}_slot{slot:02}", exist_ok=True)
        cards.append({"slot": slot, "product": product, "family": family, "version": version,
                      "library": f"/tmp/cards/libmib{product}.so", "jsonmib": f"{product}.json"})
    scenario = {"board": {"type": "3100KX", "values": {"43": RACK}}, "cards": cards}
    with open("/tmp/cards/scenario.json", "w", encoding="ascii") as out:
        json.dump(scenario, out)


def agent_command(run):
    if not run.valgrind:
        return [f"{run.build}/tpg"]
    return ["valgrind", "--quiet", "--error-exitcode=99", "--num-callers=24", f"{run.build}/tpg"]


def start_master(run):
    run.master = subprocess.Popen(
        ["snmpd", "-f", "-Lf", "/tmp/snmpd.log", "-C", "-c",
         f"/tmp/snmpd.conf,{TOP}/packaging/snmpd-agentx.conf",
         "-I", "-smux,mteTrigger,mteTriggerConf", ADDRESS], env=run.env)


def start(run):
    write_cards()
    with open("/tmp/snmpd.conf", "w", encoding="ascii") as out:
        out.write("rwcommunity rw\ntrap2sink 127.0.0.1:1162 rw\n")
    with open("/tmp/snmptrapd.conf", "w", encoding="ascii") as out:
        out.write("disableAuthorization yes\n")
    run.traps = subprocess.Popen(["snmptrapd", "-f", "-On", "-Lf", "/tmp/traps.log", "-C", "-c",
                                  "/tmp/snmptrapd.conf", "udp:127.0.0.1:1162"], env=run.env)
    start_master(run)
    with open(AGENT_LOG, "w", encoding="ascii") as log:
        run.agent = subprocess.Popen(agent_command(run), env=run.env, stderr=log)
    run.chassis = subprocess.Popen([f"{run.build}/tpg-chassis", "/tmp/cards/scenario.json"],
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                   bufsize=1)
    while not run.chassis.stdout.readline().startswith("ready"):
        pass


def chassis(run, command):
    """One command to the simulator; the line with its result."""
    with run.chassis_lock:
        run.chassis.stdin.write(command + "\n")
        while True:
            line = run.chassis.stdout.readline().strip()
            if line.startswith(("ok", "error")) or not line:
                return line


def snmp(run, tool, *words, timeout=15):
    done = subprocess.run([tool, "-v2c", "-c", "rw", "-Onqe", "-t", str(timeout), "-r", "0",
                           ADDRESS, *words], env=run.env, capture_output=True, text=True,
                          check=False)
    return done.stdout.strip()


# --- disturbances, each called again and again by a thread of its own ---


def at_rest():
    """The families whose cards are not moved for a while: each in turn, then all of them."""
    turn = int(time.monotonic() / REST) % (len(FAMILIES) + 1)
    return FAMILIES[turn:turn + 1] or FAMILIES


def plug_anew(run, families):
    """Brings all their cards back: a master of its family that registered twice has forgotten the
    others."""
    slots = [slot for slot, card in CARDS.items() if card[1] in families]
    for family in families:
        run.moved_at[family] = math.inf
    for command in ("unplug", "plug"):
        for slot in slots:
            chassis(run, f"{command} {slot}")
    for family in families:
        run.moved_at[family] = time.monotonic()


def move_cards(run):
    resting = at_rest()
    if resting != run.resting:
        plug_anew(run, resting)
        run.resting = resting
    slots = [slot for slot, card in CARDS.items() if card[1] not in resting]
    if not slots:
        time.sleep(0.2)
        return
    slot = random.choice(slots)
    command = random.choice(["unplug", "unplug", "unregister", "plug"])
    run.moved_at[CARDS[slot][1]] = math.inf
    chassis(run, f"{command} {slot}")
    time.sleep(random.uniform(0.05, 0.5))
    chassis(run, f"plug {slot}")
    run.moved_at[CARDS[slot][1]] = time.monotonic()
    run.count("card moves")


def raise_faults(run):
    slot = random.choice(FAULTY)
    row = random.randrange(4)
    chassis(run, f"set {slot} 200 {row} {random.randrange(2)}")
    chassis(run, f'fault {slot} 200 {row} 0 {random.randrange(2)} "soak {row}"')
    run.count("faults")
    time.sleep(random.uniform(0.01, 0.2))


def trouble_daemon(run, commands, seconds):
    """Some daemon that is well is in trouble for so long."""
    with run.trouble_lock:
        slot = random.choice([slot for slot, since in run.well_since.items() if since is not None])
        run.well_since[slot] = None
    chassis(run, random.choice(commands).format(slot))
    time.sleep(seconds)
    chassis(run, f"resume {slot}")
    # A connection that ended while nothing was asked costs the next request, whenever that comes.
    snmp(run, "snmpget", value_cell(slot)[0])
    run.well_since[slot] = time.monotonic()
    run.count("daemon troubles")


def trouble_daemons(run):
    trouble_daemon(run, ["hang {}", "slow {} 300", "refuse {} -3", "close {}", "down {}"],
                   random.uniform(0.2, 1))
    time.sleep(random.uniform(0.5, 3))


def hang_daemon(run):
    trouble_daemon(run, ["hang {}"], random.uniform(2, 12))


def slow_daemon(run):
    trouble_daemon(run, [f"slow {{}} {random.choice([5, 50, 400, 2000])}"], random.uniform(2, 6))


def undisturbed(run, slot, begin):
    """True when the slot's daemon has been well, its family at rest and the master there from begin
    on, and what was before is over."""
    since = run.well_since[slot]
    return (since is not None and since + WELL_AFTER < begin
            and run.moved_at[CARDS[slot][1]] + BACK_AFTER < begin
            and run.master_at is not None and run.master_at + BACK_AFTER < begin)


def read_all(run):
    """A walk goes past the cards that are in trouble, and misses no other."""
    begin = time.monotonic()
    quiet = at_rest() == FAMILIES
    slots = [slot for slot in CARDS if quiet and undisturbed(run, slot, begin)]
    rows = snmp(run, "snmpbulkwalk", BASE).split("\n")
    seen = {int(row.split(" ")[0].split(".")[-1]) for row in rows if row.startswith(".")}
    run.count("walks" if len(rows) > 1 else "walks cut short")
    if at_rest() == FAMILIES and run.busy.is_set():
        run.count("walks that were looked at" if slots else "other walks")
        for slot in slots:
            if slot not in seen and undisturbed(run, slot, begin):
                run.fail(f"a walk of {time.monotonic() - begin:.1f} s misses slot {slot}; it ends "
                         f"\"{rows[-1]}\"")


def value_cell(slot):
    """A cell of the slot, and the daemon's name of the value behind it."""
    family = CARDS[slot][3]
    if CARDS[slot][0] == "psu4":
        return f"{BASE}.{family}.10.1.1.3.1.1.{slot}", "300 0"
    return f"{BASE}.{family}.10.1.1.2.2.{slot}", "101 1"


def ended_unasked(slot):
    """True when the agent has just met the end of a connection that came while nothing was asked,
    which costs one request: also of a card that was away when its daemon had been in trouble."""
    with open(AGENT_LOG, "rb") as log:
        log.seek(max(0, os.path.getsize(AGENT_LOG) - 65536))
        return f"slot_no {slot} is away: it takes no request".encode() in log.read()


def read_one(run):
    """A value of a card that has no part in the troubles: it comes, whatever the others do."""
    begin = time.monotonic()
    slots = [slot for slot in CARDS
             if CARDS[slot][1] in at_rest() and undisturbed(run, slot, begin)]
    if not slots:
        time.sleep(0.1)
        return
    slot = random.choice(slots)
    answer = snmp(run, "snmpget", value_cell(slot)[0])
    seconds = time.monotonic() - begin
    if answer.endswith(f" {run.values[slot]}"):
        run.count("values read")
        run.slowest = max(run.slowest, seconds)
    elif (undisturbed(run, slot, begin) and CARDS[slot][1] in at_rest() and run.busy.is_set()
          and not ended_unasked(slot)):
        run.count("values lost")
        run.fail(f"slot {slot} has no part in the troubles, its value {run.values[slot]} is read "
                 f"as \"{answer}\" after {seconds:.1f} s")
    time.sleep(0.02)


def write_values(run):
    slot = random.choice(FAULTY)
    family = CARDS[slot][3]
    snmp(run, "snmpset", f"{BASE}.{family}.10.1.1.4.{random.randint(1, 2)}.{slot}", "s",
         f"label {random.randrange(1000)}", timeout=8)
    snmp(run, "snmpset", f"{BASE}.{family}.11.1.1.3.{random.randint(1, 4)}.{slot}", "i",
         str(random.randint(1, 2)), timeout=8)
    run.count("writes")
    time.sleep(random.uniform(0.1, 1))  # while one waits for a daemon, so do all other requests


def kill_master(run):
    time.sleep(random.uniform(10, 40))
    if run.busy.is_set():
        run.master_at = None
        run.master.kill()
        run.count("masters killed")


def disturb(run, action):
    while not run.over:
        run.busy.wait()
        if not run.over:
            action(run)


def supervise_master(run):
    """Starts a master again that has ended, as systemd does."""
    while not run.over:
        status = run.master.poll()
        if status is not None and not run.over:
            run.master_at = None
            if status != -9:
                run.count("masters that died of themselves")
            time.sleep(1)
            start_master(run)
            run.master_at = time.monotonic()
            run.count("masters started again")
        time.sleep(0.1)


# --- checks ---


def settle(run):
    """Ends all disturbances and plugs every card anew."""
    run.busy.clear()
    time.sleep(14)  # as long as a request or a trouble can last
    for slot in CARDS:
        chassis(run, f"resume {slot}")
    plug_anew(run, FAMILIES)


def eventually(condition, patience=30):
    deadline = time.monotonic() + patience
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.1)
    return True


def slot_answers(run, slot):
    """A value, a text, a write and a switch of the slot; of a power supply a value."""
    product, _, _, family = CARDS[slot]
    cell, value = value_cell(slot)
    number = random.randrange(1, 400)
    chassis(run, f"set {slot} {value} {number}")
    run.values[slot] = number
    if product == "psu4":
        return snmp(run, "snmpget", cell).endswith(f" {number}")
    port = f"{BASE}.{family}.10.1.1"
    switch = f"{BASE}.{family}.11.1.1.3.2.{slot}"
    snmp(run, "snmpset", f"{port}.4.2.{slot}", "s", f"port {number}")
    snmp(run, "snmpset", switch, "i", "1")
    return (snmp(run, "snmpget", cell).endswith(f" {number}")
            and f"port {number}" in chassis(run, f"get {slot} 103 1")
            and snmp(run, "snmpget", switch).endswith(" 1"))


def check_slots(run, when):
    # The board answers, too; and the agent is connected to its daemon whenever descriptors are
    # counted, whether or not a walk has come as far as its tables.
    if not eventually(lambda: RACK in snmp(run, "snmpget", BOARD_CELL)):
        run.fail(f"{when}: the board does not answer correctly")
    for slot in CARDS:
        if not eventually(lambda slot=slot: slot_answers(run, slot)):
            run.fail(f"{when}: slot {slot} does not answer correctly")


def descriptors_of(run):
    """What the agent's descriptors are, sorted; numbers of sockets and pipes are left out."""
    kinds = []
    for number in os.listdir(f"/proc/{run.agent.pid}/fd"):
        try:
            kinds.append(re.sub(r":\[\d+\]", "", os.readlink(f"/proc/{run.agent.pid}/fd/{number}")))
        except FileNotFoundError:  # closed meanwhile
            pass
    return sorted(kinds)


def use_of(run):
    """Resident memory in KB, and descriptors."""
    with open(f"/proc/{run.agent.pid}/status", encoding="ascii") as status:
        memory = int(re.search(r"VmRSS:\s+(\d+)", status.read()).group(1))
    return memory, descriptors_of(run)


def check_log(run):
    reasons = {}
    with open(AGENT_LOG, encoding="ascii") as log:
        for line in log:
            message = re.match(r"\|(Error|Warn) \(tpg:\d+\)\|[\w.]+:\d+: (.*)", line)
            if not message:
                continue
            why = [why for why, known in EXPLAINED.items() if re.match(known, message.group(2))]
            reasons[why[0] if why else None] = reasons.get(why[0] if why else None, 0) + 1
            if not why and reasons[None] <= 20:
                run.fail("unexplained: " + line.strip())
    for why, lines in sorted(reasons.items(), key=lambda item: -item[1]):
        print(f"soak: {lines} Error and Warn lines: {why or 'unexplained'}")


def main():
    run = Run(sys.argv[1], float(sys.argv[2]), "valgrind" in sys.argv[3:])
    start(run)
    check_slots(run, "at the start")
    actions = [move_cards, raise_faults, trouble_daemons, hang_daemon, slow_daemon,
               read_all, read_all, read_all, read_one, read_one, write_values, kill_master]
    for action in actions:
        threading.Thread(target=disturb, args=(run, action), daemon=True).start()
    threading.Thread(target=supervise_master, args=(run,), daemon=True).start()
    begin = time.monotonic()
    first = min(60, run.seconds / 3)
    use = []
    for when, end in (("after the first minute", first), ("at the end", run.seconds)):
        run.busy.set()
        while time.monotonic() < begin + end and run.agent.poll() is None:
            time.sleep(0.5)
        if run.agent.poll() is not None:
            run.fail(f"the agent ended with status {run.agent.returncode}")
            break
        settle(run)
        check_slots(run, when)
        if use:  # a connection that is just being served is no leak
            eventually(lambda: descriptors_of(run) == use[0][1])
        use.append(use_of(run))
        print(f"soak: {when} ({time.monotonic() - begin:.0f} s):", f"{use[-1][0]} KB resident,",
              f"{len(use[-1][1])} descriptors", flush=True)
    run.over = True
    run.busy.set()
    if len(use) == 2:
        if use[1][0] > use[0][0] + 512 and not run.valgrind:
            run.fail(f"resident memory grew by {use[1][0] - use[0][0]} KB")
        if use[1][1] != use[0][1]:
            run.fail(f"descriptors went from {use[0][1]} to {use[1][1]}")
    check_log(run)
    with open("/tmp/traps.log", encoding="ascii", errors="replace") as traps:
        run.counts["traps received"] = traps.read().count("1.3.6.1.6.3.1.1.4.1.0")
    print("soak:", ", ".join(f"{number} {what}" for what, number in run.counts.items()),
          f"(the slowest after {run.slowest:.1f} s)")
    run.agent.terminate()
    if not run.failures and run.agent.wait(20) != 0:
        run.fail(f"the agent's exit status is {run.agent.returncode}")
    if run.failures:
        shutil.copy(AGENT_LOG, f"{run.build}/soak-agent.log")
        print(f"soak: the agent's log: {run.build}/soak-agent.log")
    print("soak: passed" if not run.failures else f"soak: {len(run.failures)} failures")
    sys.stdout.flush()
    os._exit(1 if run.failures else 0)  # threads may still wait for their last request


main()
