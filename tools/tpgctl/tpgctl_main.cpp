/* The operator's program: the command line. */

#include "tpgctl.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>
#include <vector>

using words_t = std::vector<std::string_view>;

constexpr char USAGE[] = "usage: tpgctl status [--json] [--watch]\n"
                         "       tpgctl log LEVEL\n"
                         "       tpgctl trace [LIST]\n"
                         "       tpgctl reload SLOT\n"
                         "       tpgctl --help | --version\n";

constexpr char HELP[] = "\n"
                        "  status         what the agent, its cards and their daemons do\n"
                        "    --json       as a JSON document\n"
                        "    --watch      again every two seconds, until q or Ctrl-C\n"
                        "  log LEVEL      log up to error, warn, info or debug (3, 4, 6, 7)\n"
                        "  trace LIST     trace readcb, snmpread, snmptimeout, mibregister, trap\n"
                        "                 (with commas between them); nothing without LIST\n"
                        "  reload SLOT    take a card out and in again; its library is read anew\n"
                        "\n"
                        "Exit status: 0 done, 1 refused, 2 wrong usage, 3 no agent is running.\n";

/* Names of log levels. */
constexpr struct {
    std::string_view name;
    int level;
} LEVELS[] = {{"error", 3}, {"warn", 4}, {"info", 6}, {"debug", 7}};

static int usage()
{
    fputs(USAGE, stderr);
    return EXIT_USAGE;
}

static int complain(const reply_t& reply)
{
    fprintf(stderr, "tpgctl: %s\n", reply.error.c_str());
    return reply.status;
}

/* ---- commands ---- */

int ctl_status(bool json, std::string* text)
{
    const reply_t reply = ctl_ask(R"({"do":"status"})");
    if (reply.status != EXIT_DONE) {
        *text = "tpgctl: " + reply.error + "\n";
        return reply.status;
    }
    json_object* status = ctl_member(reply.answer.get(), "status");
    *text = json ? json_object_to_json_string_ext(status, JSON_C_TO_STRING_PLAIN |
                                                              JSON_C_TO_STRING_NOSLASHESCAPE) +
                       std::string("\n")
                 : ctl_status_text(status);
    return EXIT_DONE;
}

static int status(const words_t& options)
{
    const bool json = std::count(options.begin(), options.end(), "--json") > 0;
    const bool watch = std::count(options.begin(), options.end(), "--watch") > 0;
    if (options.size() != size_t{json} + size_t{watch}) {
        return usage();
    }
    if (watch) {
        return ctl_watch(json);
    }
    std::string text;
    const int result = ctl_status(json, &text);
    fputs(text.c_str(), result == EXIT_DONE ? stdout : stderr);
    return result;
}

/* A number that is the whole word, or -1. */
static int number_of(std::string_view word)
{
    int number = -1;
    const char* end = word.data() + word.size();
    const auto [stopped, error] = std::from_chars(word.data(), end, number);
    return error == std::errc() && stopped == end ? number : -1;
}

static int log_level(const words_t& words)
{
    if (words.size() != 1) {
        return usage();
    }
    int level = number_of(words[0]);
    for (const auto& known : LEVELS) {
        level = words[0] == known.name ? known.level : level;
    }
    if (level < 0) {
        return usage();
    }
    const reply_t reply = ctl_ask(R"({"do":"log","level":)" + std::to_string(level) + "}");
    return reply.status == EXIT_DONE ? EXIT_DONE : complain(reply);
}

static int trace(const words_t& words)
{
    if (words.size() > 1) {
        return usage();
    }
    const std::string list(words.empty() ? "" : words[0]);
    const json_t request(json_object_new_object());
    json_object_object_add(request.get(), "do", json_object_new_string("trace"));
    json_object_object_add(request.get(), "list", json_object_new_string(list.c_str()));
    const reply_t reply =
        ctl_ask(json_object_to_json_string_ext(request.get(), JSON_C_TO_STRING_PLAIN));
    return reply.status == EXIT_DONE ? EXIT_DONE : complain(reply);
}

static int reload(const words_t& words)
{
    const int slot = words.size() == 1 ? number_of(words[0]) : -1;
    if (slot < 0) {
        return usage();
    }
    const reply_t reply = ctl_ask(R"({"do":"reload","slot":)" + std::to_string(slot) + "}");
    if (reply.status != EXIT_DONE) {
        return complain(reply);
    }
    json_object* card = ctl_member(reply.answer.get(), "slot");
    json_object* source = ctl_member(card, "source");
    printf("slot %d: %s of slot %d, tables: %d, document: %s\n", slot,
           json_object_get_string(ctl_member(card, "role")),
           json_object_get_int(ctl_member(card, "master_slot")),
           json_object_get_int(ctl_member(card, "tables")),
           source == nullptr ? "none" : json_object_get_string(source));
    return EXIT_DONE;
}

static int help(const words_t& words)
{
    (void)words;
    printf("%s%s", USAGE, HELP);
    return EXIT_DONE;
}

static int version(const words_t& words)
{
    (void)words;
    printf("tpgctl %s\n", TPG_VERSION);
    return EXIT_DONE;
}

constexpr struct {
    std::string_view name;
    int (*carry_out)(const words_t& words);
} COMMANDS[] = {{"status", status}, {"log", log_level}, {"trace", trace},      {"reload", reload},
                {"--help", help},   {"-h", help},       {"--version", version}};

int main(int argc, char** argv)
{
    const words_t words(argv + std::min(argc, 1), argv + argc);
    for (const auto& command : COMMANDS) {
        if (!words.empty() && words[0] == command.name) {
            return command.carry_out({words.begin() + 1, words.end()});
        }
    }
    return usage();
}
