/* The command line: each option is a row of a table. */

#include "tpg_main_options.h"

#include "tpg_log.h"
#include "tpg_snmp.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <getopt.h>
#include <iterator>

/* The command line as it is being read. */
struct command_line_t {
    tpg_context_t* ctx;
    int argc;
    char** argv;
    tpg_options_t* options; /* what it asks for */
};

/* An option of one letter, which has an argument. */
struct letter_t {
    char letter;
    const char* argument; /* its name in the help */
    const char* help;
    int (*take)(command_line_t*, char*); /* 0, or -1 (logged): the agent is not to start */
};

/* An option of one word, which is all that the agent then does. */
struct word_t {
    const char* word;
    const char* help;
    void (*tell)();
};

static int take_traces(command_line_t*, char*);
static int take_debug_tokens(command_line_t*, char*);
static int take_log_options(command_line_t*, char*);
static int take_test_card(command_line_t*, char*);
static void tell_help();
static void tell_version();
static void warn_of_option(tpg_context_t*, int, char**);

constexpr letter_t LETTERS[] = {
    {'d', "LIST", "traces: readcb, snmpread, snmptimeout, mibregister, trap (with commas)",
     take_traces},
    {'D', "TOKENS", "debug output of the SNMP library", take_debug_tokens},
    {'L', "OPTIONS", "where the SNMP library logs, as in snmpcmd(1)", take_log_options},
    {'t', "PATH", "test mode: a card in slot 8 whose library is PATH", take_test_card},
};
constexpr word_t WORDS[] = {
    {"help", "print this and end", tell_help},
    {"version", "print the version and end", tell_version},
};

/*
 * What getopt is given. The sign in front keeps all words in their places: the
 * SNMP library may take the one behind -L for itself. The colon has a missing
 * argument told apart from an unknown option.
 */
constexpr auto ORDERED_OPTIONS = [] {
    std::array<char, 2 + 2 * std::size(LETTERS) + 1> text = {'-', ':'};
    size_t end = 2;
    for (const letter_t& known : LETTERS) {
        text[end++] = known.letter;
        text[end++] = ':';
    }
    return text;
}();
constexpr const char* SHORT_OPTIONS = ORDERED_OPTIONS.data() + 1;
constexpr int FIRST_WORD = UINT8_MAX + 1; /* above all letters */

bool tpg_options_tell(int argc, char** argv)
{
    option words[std::size(WORDS) + 1] = {};
    for (size_t i = 0; i < std::size(WORDS); i++) {
        words[i] = {WORDS[i].word, no_argument, nullptr, FIRST_WORD + static_cast<int>(i)};
    }
    int told = 0;
    while (told < FIRST_WORD && told != -1) {
        told = getopt_long(argc, argv, ORDERED_OPTIONS.data(), words, nullptr); // NOLINT
    }
    optind = 0; /* the command line is read again, from its beginning */
    if (told == -1) {
        return false;
    }
    WORDS[told - FIRST_WORD].tell();
    fflush(stdout);
    return true;
}

static void tell_help()
{
    printf("Usage: BASE_BOARD=3100KX|3101KX tpg [OPTION...]\n"
           "Serves the cards of a chassis over SNMP, as a sub-agent of the local master agent.\n"
           "\n");
    for (const letter_t& known : LETTERS) {
        printf("  -%c %-10s%s\n", known.letter, known.argument, known.help);
    }
    for (const word_t& known : WORDS) {
        printf("  --%-11s%s\n", known.word, known.help);
    }
    printf("\nSIGINT, SIGTERM and SIGQUIT end it. SIGHUP looks for %s again: while it\n"
           "exists, debug lines are logged. The manual page is tpg(8).\n",
           TPG_DEBUG_MARKER);
}

static void tell_version()
{
    printf("tpg %s\n", TPG_VERSION);
}

int tpg_options_parse(tpg_context_t* ctx, int argc, char** argv, tpg_options_t* options)
{
    constexpr option NO_WORDS[] = {{nullptr, 0, nullptr, 0}};
    command_line_t line = {ctx, argc, argv, options};
    int letter = 0;
    while ((letter = getopt_long(argc, argv, SHORT_OPTIONS, NO_WORDS, nullptr)) != // NOLINT
           -1) {
        const letter_t* known = std::ranges::find(LETTERS, letter, &letter_t::letter);
        if (known == std::end(LETTERS)) {
            warn_of_option(ctx, letter, argv);
        } else if (known->take(&line, optarg) != 0) {
            return -1;
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

/* What was taken stands on standard output, in the form that test benches read. */
static int take_traces(command_line_t* line, char* list)
{
    (void)line;
    printf("option -d: %s\n", list);
    tpg_debug_tokens_set(list);
    printf("Debug tokens total=%d\n", tpg_debug_tokens_total);
    for (int i = 0; i < tpg_debug_tokens_total; i++) {
        printf("kk=%d, %s\n", i, tpg_debug_tokens[i]);
    }
    fflush(stdout);
    return 0;
}

static int take_debug_tokens(command_line_t* line, char* tokens)
{
    debug_register_tokens(tokens);
    snmp_set_do_debugging(1);
    TPG_INFO(line->ctx, "Registering net-snmp debug tokens %s", tokens);
    return 0;
}

static int take_log_options(command_line_t* line, char* log_options)
{
    if (snmp_log_options(log_options, line->argc, line->argv) < 0) {
        TPG_ERROR(line->ctx, "snmp_log_options %s failed!", log_options);
        return -1;
    }
    return 0;
}

static int take_test_card(command_line_t* line, char* library)
{
    line->options->test_card = library;
    TPG_INFO(line->ctx, "Tpg Agent is running in test mode!");
    return 0;
}
