#include "tpg_main_options.h"

#include "tpg_log.h"
#include "tpg_snmp.h"

#include <cstdio>
#include <getopt.h>

static void set_debug_tokens(char*);
static void warn_of_option(tpg_context_t*, int, char**);

constexpr option NO_WORDS[] = {{nullptr, 0, nullptr, 0}};
constexpr option WORDS[] = {
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {nullptr, 0, nullptr, 0},
};

constexpr char HELP[] = R"(Usage: BASE_BOARD=3100KX|3101KX tpg [OPTION...]
Serves the cards of a chassis over SNMP, as a sub-agent of the master at 127.0.0.1:705.

  -d LIST      traces: readcb, snmpread, snmptimeout, mibregister, trap (with commas)
  -D TOKENS    debug output of the SNMP library
  -L OPTIONS   where the SNMP library logs, as in snmpcmd(1)
  -t PATH      test mode: a card in slot 8 whose library is PATH
  --help       print this and end
  --version    print the version and end

SIGINT, SIGTERM and SIGQUIT end it. SIGHUP looks for /tmp/.tpg_debug again: while it
exists, debug lines are logged. The manual page is tpg(8).
)";

bool tpg_options_tell(int argc, char** argv)
{
    int told = 0;
    /* The leading sign keeps the words in their places: -L may take the next one for itself. */
    while (told != 'h' && told != 'v' && told != -1) {
        told = getopt_long(argc, argv, "-:t:D:L:d:", WORDS, nullptr); // NOLINT
    }
    optind = 0; /* the words are read again, from the first one */
    if (told == -1) {
        return false;
    }
    fputs(told == 'h' ? HELP : "tpg " TPG_VERSION "\n", stdout);
    fflush(stdout);
    return true;
}

int tpg_options_parse(tpg_context_t* ctx, int argc, char** argv, tpg_options_t* options)
{
    int option = 0;
    while ((option = getopt_long(argc, argv, ":t:D:L:d:", NO_WORDS, nullptr)) != -1) { // NOLINT
        switch (option) {
        case 't':
            options->test_card = optarg;
            TPG_INFO(ctx, "Tpg Agent is running in test mode!");
            break;
        case 'D':
            debug_register_tokens(optarg);
            snmp_set_do_debugging(1);
            TPG_INFO(ctx, "Registering net-snmp debug tokens %s", optarg);
            break;
        case 'L':
            if (snmp_log_options(optarg, argc, argv) < 0) {
                TPG_ERROR(ctx, "snmp_log_options %s failed!", optarg);
                return -1;
            }
            break;
        case 'd':
            set_debug_tokens(optarg);
            break;
        default:
            warn_of_option(ctx, option, argv);
            break;
        }
    }
    for (int i = optind; i < argc; i++) {
        TPG_WARN(ctx, "argument %s is ignored", argv[i]);
    }
    return 0;
}

/* An agent that has run for years goes on running with whatever it was started with. */
static void warn_of_option(tpg_context_t* ctx, int problem, char** argv)
{
    if (problem == ':') {
        TPG_WARN(ctx, "option -%c is ignored: its argument is missing", optopt);
    } else if (optopt == 0) {
        TPG_WARN(ctx, "option %s is ignored: there is none of this name", argv[optind - 1]);
    } else {
        TPG_WARN(ctx, "option -%c is ignored: there is none of this name", optopt);
    }
}

static void set_debug_tokens(char* list)
{
    printf("option -d: %s\n", list);
    tpg_debug_tokens_set(list);
    printf("Debug tokens total=%d\n", tpg_debug_tokens_total);
    for (int i = 0; i < tpg_debug_tokens_total; i++) {
        printf("kk=%d, %s\n", i, tpg_debug_tokens[i]);
    }
    fflush(stdout);
}
