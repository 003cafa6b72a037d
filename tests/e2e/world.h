#ifndef WORLD_H
#define WORLD_H

/*
 * The world of an end-to-end test: a real master agent, trap receiver and agent, and played cards,
 * all in private namespaces. A test starts what it needs; the fixture ends and wipes everything.
 */

#include "tpg_msg_i.h"

#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

using words_t = std::vector<std::string>;

/* A started program; in is the pipe to it, if any. */
struct proc_t {
    pid_t pid = -1;
    int in = -1;
    std::string log, output; /* files with its standard error and output */
};

struct world_t {
    proc_t snmpd, snmptrapd, tpg, chassis;
};

/* A variable as the command line tools print it; type is empty for exceptions. */
struct var_t {
    std::string oid, type, value;
    bool operator==(const var_t&) const = default;
};

/* What a command line tool said: variables, or the bare name of the error ("genError"). */
struct snmp_t {
    std::vector<var_t> vars;
    std::string error;
};

/* The documents that cards bring. */
struct column_t {
    int var, type, lo, hi;
    std::string more = {}; /* further members, such as "read_only": true */
};
struct table_t {
    std::string name, oid; /* OID with dots */
    std::vector<std::pair<int, int>> indexes;
    std::vector<column_t> columns;
    std::string more = {}; /* further members, such as "trap_info": {...} */
};

constexpr int SECONDS = 20; /* patience for whatever must happen */
constexpr char CARDS[] = "/tmp/cards";
constexpr char BUILT_IN[] = "/var/built_in_jsonmib";
constexpr char FLASH[] = "/mnt/flash0/cards";
constexpr char SNMPD[] = "udp:127.0.0.1:1161";

/* Enters the world for a program that is not in it yet; returns only inside. */
void world_enter(char** argv);
/* Makes the folders and settings that every world has. */
void world_begin();
/* Ends all programs, expects the agent to stop cleanly, wipes the world's files. */
void world_end(world_t* world);

/* Starts a program with its output in /tmp/run/NAME.out and .log; a word of more holds NAME=VALUE
 * for its environment. piped: its input is a
 * pipe. */
proc_t proc_start(const std::string& name, const words_t& command, const words_t& more = {},
                  bool piped = false);
/* Sends a signal unless it is 0, waits for the end, checks the log for sanitizer reports. Returns
 * the exit status, or minus the signal that ended the program. */
int proc_end(proc_t* proc, int signal_no = SIGTERM);
/* Runs a program to its end; returns both of its outputs. */
std::string run(const words_t& command);

/* The master agent, with more lines for its configuration. */
void snmpd_start(world_t* world, const std::string& more = "");
void snmptrapd_start(world_t* world);
/* All traps so far, each as "OID NAME=TYPE: VALUE NAME=TYPE: VALUE". */
words_t traps();
/* Waits for as many traps as expected, and compares. */
void expect_traps(const words_t& expected);
/* The agent; waits until it is up. An empty board leaves BASE_BOARD unset, up = false does not
 * wait. */
void tpg_start(world_t* world, const words_t& options = {}, const std::string& board = "3100KX",
               bool up = true);
/* snmpd and tpg. */
void agents_start(world_t* world, const words_t& options = {});
/* The simulator with a scenario; waits until it is ready. cards is a list of JSON objects. */
void chassis_start(world_t* world, const std::string& cards, const std::string& more = "");
/* Gives it a command; returns the lines up to the one with "ok", or the one with the error. */
std::string chassis(world_t* world, const std::string& command);

/* Waits until the condition holds, or a file holds a text; false after the deadline. */
bool wait_for(const std::function<bool()>& condition, int seconds = SECONDS);
bool wait_for_text(const std::string& path, std::string_view text);
/* The agent's log so far: how often a text stands in it; waits until it does. */
int log_count(const world_t& world, std::string_view text);
bool log_has(const world_t& world, std::string_view text, int count = 1);

/* snmpget, snmpset, snmpwalk and so on with words after the address. */
snmp_t snmp(const std::string& tool, const words_t& args);
/* One variable: "TYPE: VALUE", an exception or the name of the error. */
std::string get(const std::string& oid);
/* Type is snmpset's (i, s, x, ...). Returns "" or the name of the error. */
std::string set(const std::string& oid, const std::string& type, const std::string& value);
std::vector<var_t> walk(const std::string& oid);
/* What is below an OID, as "REST=VALUE REST=VALUE"; the second waits until it is as expected. */
std::string cells(const std::string& oid);
void expect_cells(const std::string& oid, const std::string& expected);

std::string read_file(const std::string& path);
void write_file(const std::string& path, std::string_view text, int mode = 0644);
std::string table_json(const table_t& table);
/* more: further members in front of the tables, each with a comma behind it. */
std::string document(const std::vector<table_t>& gen, const std::vector<table_t>& fault = {},
                     const std::string& more = "");
/* Builds CARDS/libmib_NAME.so, a card's library whose symbol jsonmib_SYMBOL holds a document (no
 * such symbol if it is empty); returns its path. */
std::string card_library(const std::string& name, const std::string& symbol,
                         const std::string& text);
/* A document whose one table BASE.NUMBER has the slot as its index and its only column, which needs
 * no daemon. */
std::string numbered_document(const std::string& base, int number);
/* A card of the scenario, whose library and document card_files made. */
std::string played_card(int slot, const std::string& product, const std::string& family,
                        const std::string& more = "");
void card_files(const std::string& product, const std::string& text);
/* The folder of a card's send-trap file; returns the file's path. */
std::string flash_folder(const std::string& family, int slot);

/* A card client without the simulator. */
int client_connect();
com_msg_head_t client_head(uint16_t type, size_t length);
/* A register or unregister message of major.minor.build = 1.minor.0. */
tpg_msg_libmib_update_t client_update(tpg_msg_type type, int slot, const std::string& product,
                                      const std::string& family, int minor,
                                      const std::string& library);
/* A notify of a fault variable, with data; the last bytes of the message may be cut off. */
std::string notify(int slot, uint32_t var, uint32_t index, const std::string& data = "",
                   size_t cut = 0);
/* A number as four bytes of such data. */
std::string big_endian(uint32_t number);
/* Writes in one piece. */
void client_send(int fd, const void* data, size_t length);
void client_send(int fd, const std::string& bytes);
/* Sends an update and reads the acknowledgement; false if none comes. */
bool client_update_acked(int fd, const tpg_msg_libmib_update_t& msg);

class World : public ::testing::Test
{
  protected:
    void TearDown() override
    {
        world_end(&w);
    }
    world_t w;
};

#endif
