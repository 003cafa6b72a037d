/* tpg-chassis: a chassis on the desk, for everybody who has none. */

#include "chassis.h"
#include "chassis_command.h"
#include "chassis_daemon.h"
#include "chassis_scenario.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unistd.h>

static void print_help();
static int leave_input_alone();
static int run(chassis_t* chassis, const char* scenario);
static event_base* new_base();
static int start_daemons(chassis_t* chassis);
static void stop_daemons(chassis_t* chassis);
static void signal_cb(int signo, short what, void* arg);

constexpr char USAGE[] =
    "Usage: tpg-chassis [--no-input] SCENARIO.json\n       tpg-chassis --help\n";

constexpr char HELP[] = R"(
Plays the cards of a chassis and their control daemons for an agent on this
machine: it listens on the daemons' sockets, connects to the agent's socket and
registers the cards, again and again if the agent is away.

The scenario is a JSON object:

  {
    "board": { "type": "3100KX", "values": { "43": "rack 7" } },
    "cards": [
      { "slot": 3, "product": "demo", "family": "DEMO", "version": "1.2.566",
        "serial": "SN0003", "library": "/lib/libmib_demo.so",
        "jsonmib": "demo.json", "plugged": true,
        "values": { "101": 2, "102:0": "uplink" } }
    ]
  }

Of a card, "slot", "product", "family" and "version" (MAJOR.MINOR.BUILD) are
required. "library" is the path told to the agent. "jsonmib" is the document (or
a list of documents, relative to the scenario) that says which variables there
are. "board" puts the controller board's own variables into slot 1, beside a
card or alone. A "description" may stand everywhere.

"values" are the start values: an object keyed "VAR:INDEX", or "VAR" for every
index. Numbers are 32-bit integers as the card holds them: where SNMP counts an
enumeration from 1, the card counts from 0. Variables of the documents without a
value hold the low end of their range, or the text NAME-SLOT-INDEX. The board
shows plugged cards under the variables 34 to 36, by slot number - 1.

INDEX is the one on the wire: I1 - 1 in a table with one index beside the slot,
(I1 - 1) * 256 + (I2 - 1) with two, else 0. Numbers may be written 0x102.

Requests for what is not there are answered with -1 (variable), -2 (index) or
-3 (length of an integer).

The line "ready", with the state of each slot, says that everything is up. Then
each command line gets one answer: a line with "ok" or "error: REASON" in front,
before it the lines of a list. A text with blanks stands in double quotes, with
\", \\ and \xNN. The end of the input means quit. With --no-input none is read:
the chassis plays, in the background for instance, until SIGTERM or SIGINT.

)";

constexpr char HELP_BEHIND_COMMANDS[] = R"(
fault sends no data, or OFFSET, or OFFSET, FIRST-INDEX and TEXT; from slot 1
always OFFSET (0), which is the notify value there.

After plug and in "ready" and status, a slot is unplugged, agent-absent,
unacknowledged, sent (the agent has the message, which says nothing of what it
makes of it), registered (it has asked the card since, so it serves it), or
connected (nothing is registered).
)";

int main(int argc, char** argv)
{
    const bool with_input = argc != 3 || strcmp(argv[1], "--no-input") != 0;
    const std::string_view word = argc == 2 || !with_input ? argv[argc - 1] : "";
    if (word == "--help") {
        print_help();
        return EXIT_SUCCESS;
    }
    if (word.empty() || word.starts_with('-')) {
        fputs(USAGE, stderr);
        return EXIT_FAILURE;
    }
    if (!with_input && leave_input_alone() != 0) {
        perror("tpg-chassis: pipe");
        return EXIT_FAILURE;
    }
    auto chassis = std::make_unique<chassis_t>();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    signal(SIGPIPE, SIG_IGN);
    return run(chassis.get(), word.data()) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

static void print_help()
{
    fputs(USAGE, stdout);
    fputs(HELP, stdout);
    chassis_command_help("  ");
    fputs(HELP_BEHIND_COMMANDS, stdout);
}

/* Instead of standard input, a pipe into which nothing is written and that does not end. */
static int leave_input_alone()
{
    int ends[2];
    return pipe(ends) != 0 || dup2(ends[0], STDIN_FILENO) < 0 ? -1 : 0;
}

static int run(chassis_t* chassis, const char* scenario)
{
    std::string error;
    if (chassis_scenario_load(chassis, scenario, &error) != 0) {
        fprintf(stderr, "tpg-chassis: %s: %s\n", scenario, error.c_str());
        return -1;
    }
    chassis->base.reset(new_base());
    event_base* base = chassis->base.get();
    const chassis_ptr_t<event> sigterm(
        base != nullptr ? evsignal_new(base, SIGTERM, signal_cb, chassis) : nullptr);
    const chassis_ptr_t<event> sigint(
        base != nullptr ? evsignal_new(base, SIGINT, signal_cb, chassis) : nullptr);
    if (!sigterm || !sigint || evsignal_add(sigterm.get(), nullptr) != 0 ||
        evsignal_add(sigint.get(), nullptr) != 0) {
        fprintf(stderr, "tpg-chassis: cannot set up the event loop\n");
        return -1;
    }
    int ret = start_daemons(chassis);
    if (ret == 0) {
        ret = chassis_command_start(chassis);
    }
    if (ret == 0) {
        ret = event_base_dispatch(base);
    }
    stop_daemons(chassis);
    return ret;
}

/* A loop that takes a file on standard input as well. */
static event_base* new_base()
{
    const std::unique_ptr<event_config, decltype(&event_config_free)> config(event_config_new(),
                                                                             event_config_free);
    if (!config || event_config_require_features(config.get(), EV_FEATURE_FDS) != 0) {
        return nullptr;
    }
    return event_base_new_with_config(config.get());
}

static int start_daemons(chassis_t* chassis)
{
    for (chassis_slot_t& slot : chassis->slots) {
        std::string error;
        if (chassis_slot_used(&slot) && chassis_daemon_up(&slot, &error) != 0) {
            fprintf(stderr, "tpg-chassis: slot %u: %s\n", slot.slot_no, error.c_str());
            return -1;
        }
    }
    return 0;
}

/* Also takes the sockets away. */
static void stop_daemons(chassis_t* chassis)
{
    for (chassis_slot_t& slot : chassis->slots) {
        chassis_daemon_down(&slot);
    }
}

static void signal_cb(int signo, short what, void* arg)
{
    (void)signo;
    (void)what;
    event_base_loopbreak(static_cast<chassis_t*>(arg)->base.get());
}
