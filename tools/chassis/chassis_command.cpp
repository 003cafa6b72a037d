#include "chassis_command.h"

#include "chassis_client.h"
#include "chassis_daemon.h"
#include "chassis_text.h"
#include "uevgend_msg_i.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <unistd.h>

using words_t = std::span<const chassis_word_t>;

/* What the first argument must name. */
enum class command_on : uint8_t {
    chassis,  /* nothing */
    any_slot, /* a slot with a card or the board */
    card_slot,
};

struct command_t {
    std::string_view name;
    const char* args;
    const char* help;
    size_t args_min; /* behind the slot */
    size_t args_max;
    command_on on;
    chassis_mode mode; /* of the commands that set one */
    void (*run)(chassis_slot_t* slot, const command_t* command, words_t args);
};

static void input_readable_cb(int fd, short what, void* arg);
static void input_settled_cb(int fd, short what, void* arg);
static void input_deadline_cb(int fd, short what, void* arg);
static void input_run(chassis_t* chassis);
static void input_hold(chassis_t* chassis, std::string answer, std::vector<unsigned> slots,
                       bool show_slots);
static bool input_settled(const chassis_t* chassis);
static void input_release(chassis_t* chassis);
static void line_run(chassis_t* chassis, std::string_view line);
static chassis_slot_t* slot_arg(chassis_t* chassis, const command_t* command,
                                const std::string& text);
static int number_arg(const chassis_word_t& word, const char* what, int64_t low, int64_t high,
                      int64_t* number);
static int row_args(words_t args, uint32_t* var, uint32_t* index);
static void hold_for(chassis_slot_t* slot, const command_t* command);
static void command_plug(chassis_slot_t* slot, const command_t* command, words_t args);
static void command_unplug(chassis_slot_t* slot, const command_t* command, words_t args);
static void command_unregister(chassis_slot_t* slot, const command_t* command, words_t args);
static void command_get(chassis_slot_t* slot, const command_t* command, words_t args);
static void command_set(chassis_slot_t* slot, const command_t* command, words_t args);
static void command_requests(chassis_slot_t* slot, const command_t* command, words_t args);
static void request_print(const chassis_request_t& request);
static void command_mode(chassis_slot_t* slot, const command_t* command, words_t args);
static void command_fault(chassis_slot_t* slot, const command_t* command, words_t args);
static int fault_data(const chassis_slot_t* slot, words_t args, std::string* data);
static std::string big_endian(uint32_t number);
static void command_status(chassis_slot_t* slot, const command_t* command, words_t args);
static void slot_print(const chassis_slot_t* slot);
static void command_help(chassis_slot_t* slot, const command_t* command, words_t args);
static void command_quit(chassis_slot_t* slot, const command_t* command, words_t args);

constexpr timeval ANSWER_DEADLINE = {5, 0};
constexpr int READ_MAX = 4096;
constexpr int64_t SLOW_MS_MAX = 3600000;
constexpr size_t FAULT_TEXT_MAX = UINT8_MAX;

constexpr command_t commands[] = {
    {"plug", "SLOT", "connect to the agent and register the card; if plugged, register again", 0, 0,
     command_on::card_slot, chassis_mode::normal, command_plug},
    {"unplug", "SLOT", "close the connection to the agent; the daemon stays", 0, 0,
     command_on::card_slot, chassis_mode::normal, command_unplug},
    {"unregister", "SLOT", "withdraw the card, keep the connection", 0, 0, command_on::card_slot,
     chassis_mode::normal, command_unregister},
    {"set", "SLOT VAR INDEX VALUE", "give a variable a value: a number or a text", 3, 3,
     command_on::any_slot, chassis_mode::normal, command_set},
    {"get", "SLOT VAR INDEX", "show a variable's value", 2, 2, command_on::any_slot,
     chassis_mode::normal, command_get},
    {"requests", "SLOT [clear]", "show the requests seen by the daemon (and forget them)", 0, 1,
     command_on::any_slot, chassis_mode::normal, command_requests},
    {"hang", "SLOT", "the daemon reads requests and never answers", 0, 0, command_on::any_slot,
     chassis_mode::hang, command_mode},
    {"slow", "SLOT MS", "the daemon answers so many milliseconds late", 1, 1, command_on::any_slot,
     chassis_mode::slow, command_mode},
    {"refuse", "SLOT CODE", "the daemon answers with this result code, -128 to 127", 1, 1,
     command_on::any_slot, chassis_mode::refuse, command_mode},
    {"close", "SLOT", "the daemon closes the connection on each request", 0, 0,
     command_on::any_slot, chassis_mode::close, command_mode},
    {"down", "SLOT", "the daemon is gone: no socket, no connections", 0, 0, command_on::any_slot,
     chassis_mode::down, command_mode},
    {"resume", "SLOT", "the daemon is there and answers normally", 0, 0, command_on::any_slot,
     chassis_mode::normal, command_mode},
    {"fault", "SLOT VAR INDEX [OFFSET [FIRST-INDEX TEXT]]", "send a trap notify message", 2, 5,
     command_on::any_slot, chassis_mode::normal, command_fault},
    {"status", "", "show every slot in use", 0, 0, command_on::chassis, chassis_mode::normal,
     command_status},
    {"help", "", "show the commands", 0, 0, command_on::chassis, chassis_mode::normal,
     command_help},
    {"quit", "", "end the simulation", 0, 0, command_on::chassis, chassis_mode::normal,
     command_quit},
};

/* ---- lines in, answers out ---- */

int chassis_command_start(chassis_t* chassis)
{
    chassis_input_t* input = &chassis->input;
    event_base* base = chassis->base.get();
    chassis->settled.reset(evtimer_new(base, input_settled_cb, chassis));
    input->deadline.reset(evtimer_new(base, input_deadline_cb, chassis));
    input->buf.reset(evbuffer_new());
    if (!chassis->settled || !input->deadline || !input->buf) {
        return -1;
    }
    input->readable.reset(
        event_new(base, STDIN_FILENO, EV_READ | EV_PERSIST, input_readable_cb, chassis));
    if (!input->readable || event_add(input->readable.get(), nullptr) != 0) {
        return -1;
    }
    std::vector<unsigned> plugged;
    for (chassis_slot_t& slot : chassis->slots) {
        if (slot.board || (slot.card && slot.plugged)) {
            chassis_client_plug(&slot);
            plugged.push_back(slot.slot_no);
        }
    }
    input_hold(chassis, "ready", std::move(plugged), true);
    return 0;
}

static void input_readable_cb(int fd, short what, void* arg)
{
    (void)what;
    auto* chassis = static_cast<chassis_t*>(arg);
    chassis_input_t* input = &chassis->input;
    const int count = evbuffer_read(input->buf.get(), fd, READ_MAX);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (count <= 0) {
        input->eof = true;
        event_del(input->readable.get());
    }
    input_run(chassis);
}

/* Runs the commands that are there, up to one whose answer has to wait. */
static void input_run(chassis_t* chassis)
{
    chassis_input_t* input = &chassis->input;
    while (!input->held) {
        size_t len = 0;
        char* line = evbuffer_readln(input->buf.get(), &len, EVBUFFER_EOL_CRLF);
        if (line == nullptr) {
            break;
        }
        line_run(chassis, {line, len});
        free(line);
    }
    if (input->held || !input->eof) {
        return;
    }
    if (evbuffer_get_length(input->buf.get()) > 0) { /* a last line without its end */
        evbuffer_add(input->buf.get(), "\n", 1);
        input_run(chassis);
    } else {
        event_base_loopbreak(chassis->base.get());
    }
}

/* Answers with the words and the slots' states as soon as these are settled. */
static void input_hold(chassis_t* chassis, std::string answer, std::vector<unsigned> slots,
                       bool show_slots)
{
    chassis_input_t* input = &chassis->input;
    input->answer = std::move(answer);
    input->slots = std::move(slots);
    input->show_slots = show_slots;
    input->held = true;
    if (input_settled(chassis)) {
        input_release(chassis);
        return;
    }
    event_del(input->readable.get());
    evtimer_add(input->deadline.get(), &ANSWER_DEADLINE);
}

static bool input_settled(const chassis_t* chassis)
{
    return std::ranges::all_of(chassis->input.slots, [&](unsigned slot_no) {
        return chassis_client_settled(&chassis->slots[slot_no - 1]);
    });
}

static void input_release(chassis_t* chassis)
{
    chassis_input_t* input = &chassis->input;
    std::string line = input->answer;
    for (const unsigned slot_no : input->slots) {
        line += ' ';
        if (input->show_slots) {
            line += std::to_string(slot_no) + "=";
        }
        line += chassis_client_state(&chassis->slots[slot_no - 1]);
    }
    printf("%s\n", line.c_str());
    input->held = false;
    evtimer_del(input->deadline.get());
    if (!input->eof) {
        event_add(input->readable.get(), nullptr);
    }
}

static void input_settled_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* chassis = static_cast<chassis_t*>(arg);
    if (chassis->input.held && input_settled(chassis)) {
        input_release(chassis);
        input_run(chassis);
    }
}

static void input_deadline_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* chassis = static_cast<chassis_t*>(arg);
    input_release(chassis);
    input_run(chassis);
}

/* ---- one line ---- */

static void line_run(chassis_t* chassis, std::string_view line)
{
    std::vector<chassis_word_t> words;
    if (chassis_text_split(line, &words) != 0) {
        printf("error: a quoted text is not closed or holds a wrong escape\n");
        return;
    }
    if (words.empty() || words[0].text.starts_with('#')) {
        return;
    }
    const auto* command =
        std::ranges::find_if(commands, [&](const command_t& c) { return c.name == words[0].text; });
    if (command == std::end(commands)) {
        printf("error: no command %s (try help)\n", words[0].text.c_str());
        return;
    }
    const size_t skip = command->on == command_on::chassis ? 1 : 2;
    if (words.size() < skip + command->args_min || words.size() > skip + command->args_max) {
        printf("error: usage: %s %s\n", command->name.data(), command->args);
        return;
    }
    chassis_slot_t* slot = chassis->slots.data();
    if (command->on != command_on::chassis) {
        slot = slot_arg(chassis, command, words[1].text);
    }
    if (slot != nullptr) {
        command->run(slot, command, words_t(words).subspan(skip));
    }
}

/* The slot that a command is for; null, with the error printed, when it does not fit. */
static chassis_slot_t* slot_arg(chassis_t* chassis, const command_t* command,
                                const std::string& text)
{
    int64_t slot_no = 0;
    if (chassis_parse_number(text, 1, TPG_SLOT_MAX, &slot_no) != 0) {
        printf("error: SLOT must be a number from 1 to %u\n", TPG_SLOT_MAX);
        return nullptr;
    }
    chassis_slot_t* slot = &chassis->slots[static_cast<size_t>(slot_no - 1)];
    if (command->on == command_on::card_slot ? !slot->card : !chassis_slot_used(slot)) {
        printf("error: slot %u has no card\n", slot->slot_no);
        return nullptr;
    }
    return slot;
}

static int number_arg(const chassis_word_t& word, const char* what, int64_t low, int64_t high,
                      int64_t* number)
{
    if (chassis_parse_number(word.text, low, high, number) != 0) {
        printf("error: %s must be a number from %" PRId64 " to %" PRId64 "\n", what, low, high);
        return -1;
    }
    return 0;
}

/* VAR and INDEX; 0, or -1 with the error printed. */
static int row_args(words_t args, uint32_t* var, uint32_t* index)
{
    int64_t var_no = 0;
    int64_t index_no = 0;
    if (number_arg(args[0], "VAR", 0, UINT32_MAX, &var_no) != 0 ||
        number_arg(args[1], "INDEX", 0, UINT32_MAX, &index_no) != 0) {
        return -1;
    }
    *var = static_cast<uint32_t>(var_no);
    *index = static_cast<uint32_t>(index_no);
    return 0;
}

/* ---- commands to the client ---- */

/* Answers with the state that the slot comes to. */
static void hold_for(chassis_slot_t* slot, const command_t* command)
{
    input_hold(slot->chassis,
               "ok " + std::string(command->name) + " " + std::to_string(slot->slot_no),
               {slot->slot_no}, false);
}

static void command_plug(chassis_slot_t* slot, const command_t* command, words_t args)
{
    (void)args;
    chassis_client_plug(slot);
    hold_for(slot, command);
}

static void command_unplug(chassis_slot_t* slot, const command_t* command, words_t args)
{
    (void)args;
    chassis_client_unplug(slot);
    hold_for(slot, command);
}

static void command_unregister(chassis_slot_t* slot, const command_t* command, words_t args)
{
    (void)args;
    if (chassis_client_unregister(slot) != 0) {
        printf("error: slot %u has no connection to the agent\n", slot->slot_no);
        return;
    }
    hold_for(slot, command);
}

static void command_fault(chassis_slot_t* slot, const command_t* command, words_t args)
{
    uint32_t var = 0;
    uint32_t index = 0;
    std::string data;
    if (row_args(args, &var, &index) != 0 || fault_data(slot, args.subspan(2), &data) != 0) {
        return;
    }
    if (chassis_client_fault(slot, var, index, data) != 0) {
        printf("error: slot %u has no connection to the agent\n", slot->slot_no);
        return;
    }
    printf("ok %s %u %" PRIu32 " %" PRIu32 "\n", command->name.data(), slot->slot_no, var, index);
}

/* What a notify carries: the offset, and behind it a first index and a text; 0 or -1. */
static int fault_data(const chassis_slot_t* slot, words_t args, std::string* data)
{
    const bool board_slot = slot->slot_no == CHASSIS_BOARD_SLOT;
    int64_t offset = 0;
    if (!args.empty() && number_arg(args[0], "OFFSET", 0, UINT32_MAX, &offset) != 0) {
        return -1;
    }
    if (board_slot || !args.empty()) {
        *data = big_endian(static_cast<uint32_t>(offset));
    }
    if (args.size() <= 1) {
        return 0;
    }
    int64_t first_index = 0;
    if (board_slot || args.size() != 3 || args[2].text.size() > FAULT_TEXT_MAX) {
        printf("error: FIRST-INDEX goes with a TEXT of up to %zu bytes, and not with slot %u\n",
               FAULT_TEXT_MAX, CHASSIS_BOARD_SLOT);
        return -1;
    }
    if (number_arg(args[1], "FIRST-INDEX", 0, UINT32_MAX, &first_index) != 0) {
        return -1;
    }
    *data += big_endian(static_cast<uint32_t>(first_index));
    *data += static_cast<char>(args[2].text.size());
    *data += args[2].text;
    return 0;
}

static std::string big_endian(uint32_t number)
{
    std::string bytes;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        bytes += static_cast<char>(number >> shift);
    }
    return bytes;
}

/* ---- commands to the daemon ---- */

static void command_get(chassis_slot_t* slot, const command_t* command, words_t args)
{
    (void)command;
    uint32_t var = 0;
    uint32_t index = 0;
    chassis_value_t value = {};
    if (row_args(args, &var, &index) != 0) {
        return;
    }
    const chassis_code code = chassis_vars_get(&slot->vars, var, index, &value);
    if (code != CHASSIS_OK) {
        printf("error: %s\n", chassis_code_text(code));
        return;
    }
    printf("ok %s\n", chassis_value_format(value).c_str());
}

/* A number stays a text for a variable that holds a text, and in quotes. */
static void command_set(chassis_slot_t* slot, const command_t* command, words_t args)
{
    uint32_t var = 0;
    uint32_t index = 0;
    int64_t number = 0;
    chassis_value_t old = {};
    if (row_args(args, &var, &index) != 0) {
        return;
    }
    const bool known = chassis_vars_get(&slot->vars, var, index, &old) == CHASSIS_OK;
    const bool is_number =
        !args[2].quoted && chassis_parse_number(args[2].text, INT32_MIN, INT32_MAX, &number) == 0;
    if (known && old.kind == chassis_kind::integer && !is_number) {
        printf("error: variable %" PRIu32 " holds a 32-bit number\n", var);
        return;
    }
    const bool as_text = !is_number || (known && old.kind == chassis_kind::text);
    chassis_vars_put(&slot->vars, var, index,
                     as_text ? chassis_value_text(args[2].text)
                             : chassis_value_int(static_cast<int32_t>(number)));
    printf("ok %s %u %" PRIu32 " %" PRIu32 "\n", command->name.data(), slot->slot_no, var, index);
}

static void command_requests(chassis_slot_t* slot, const command_t* command, words_t args)
{
    chassis_daemon_t* daemon = &slot->daemon;
    if (!args.empty() && args[0].text != "clear") {
        printf("error: usage: %s %s\n", command->name.data(), command->args);
        return;
    }
    std::ranges::for_each(daemon->requests, request_print);
    const uint64_t lost = daemon->requests_total - daemon->requests.size();
    printf("ok requests %u count=%" PRIu64, slot->slot_no, daemon->requests_total);
    if (lost != 0) {
        printf(" (the first %" PRIu64 " are not kept)", lost);
    }
    printf("\n");
    if (!args.empty()) {
        daemon->requests.clear();
        daemon->requests_total = 0;
    }
}

static void request_print(const chassis_request_t& request)
{
    const bool get = request.type == UEVGEND_MSG_GET;
    if (request.bad) {
        printf("bad type=%u length=%u\n", request.type, request.length);
        return;
    }
    printf("%s var=%" PRIu32 " index=%" PRIu32 " length=%u", get ? "get" : "set", request.var,
           request.index, request.length);
    if (!get) {
        printf(" data=");
        for (const char c : request.data) {
            printf("%02x", static_cast<unsigned char>(c));
        }
        printf("%s", request.data.size() < request.length ? "..." : "");
    }
    printf("\n");
}

static void command_mode(chassis_slot_t* slot, const command_t* command, words_t args)
{
    int64_t mode_arg = 0;
    const bool refuse = command->mode == chassis_mode::refuse;
    if (!args.empty() && number_arg(args[0], refuse ? "CODE" : "MS", refuse ? INT8_MIN : 0,
                                    refuse ? INT8_MAX : SLOW_MS_MAX, &mode_arg) != 0) {
        return;
    }
    std::string error;
    if (chassis_daemon_mode(slot, command->mode, static_cast<int>(mode_arg), &error) != 0) {
        printf("error: %s\n", error.c_str());
        return;
    }
    printf("ok %s %u\n", command->name.data(), slot->slot_no);
}

/* ---- commands to the chassis ---- */

static void command_status(chassis_slot_t* slot, const command_t* command, words_t args)
{
    (void)args;
    int used = 0;
    for (const chassis_slot_t& each : slot->chassis->slots) {
        if (chassis_slot_used(&each)) {
            slot_print(&each);
            used++;
        }
    }
    printf("ok %s slots=%d\n", command->name.data(), used);
}

static void slot_print(const chassis_slot_t* slot)
{
    const tpg_libmib_update_t* identity = &slot->identity;
    printf("slot %u", slot->slot_no);
    if (slot->board) {
        printf(" board=%s", slot->chassis->board_type.c_str());
    }
    if (slot->card) {
        printf(" product=%s family=%s version=%u.%u.%" PRIu32, identity->prod_string,
               identity->prod_family, identity->major_rev, identity->minor_rev,
               identity->build_number);
    }
    const auto* mode = std::ranges::find_if(commands, [&](const command_t& c) {
        return c.run == command_mode && c.mode == slot->daemon.mode;
    });
    const bool normal = slot->daemon.mode == chassis_mode::normal;
    printf(" client=%s daemon=%s", chassis_client_state(slot),
           normal ? "normal" : mode->name.data());
    if (mode->args_max != 0) {
        printf(":%d", slot->daemon.mode_arg);
    }
    printf(" connections=%zu requests=%" PRIu64 "\n", slot->daemon.conns.size(),
           slot->daemon.requests_total);
}

void chassis_command_help(const char* indent)
{
    for (const command_t& command : commands) {
        const std::string usage = std::string(command.name) + " " + command.args;
        printf("%s%-28s %s\n", indent, usage.c_str(), command.help);
    }
}

static void command_help(chassis_slot_t* slot, const command_t* command, words_t args)
{
    (void)slot;
    (void)args;
    chassis_command_help("");
    printf("ok %s\n", command->name.data());
}

/* Commands behind this one are dropped. */
static void command_quit(chassis_slot_t* slot, const command_t* command, words_t args)
{
    (void)args;
    chassis_input_t* input = &slot->chassis->input;
    printf("ok %s\n", command->name.data());
    evbuffer_drain(input->buf.get(), evbuffer_get_length(input->buf.get()));
    input->eof = true;
}
