#ifndef WORLD_H
#define WORLD_H

/*
 * The world of an end-to-end test: a real master agent, trap receiver and agent, and played cards,
 * all in private namespaces. A test starts what it needs; the fixture ends and wipes everything.
 */

#include "../support/runner.h"
#include "../support/support.h"

#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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
};

/* What a command line tool said: variables, or the bare name of the error ("genError"). */
struct snmp_t {
    std::vector<var_t> vars;
    std::string error;
};

constexpr int SECONDS = 20; /* patience for whatever must happen */
constexpr char CARDS[] = "/tmp/cards";
constexpr char BUILT_IN[] = "/var/built_in_jsonmib";
constexpr char MODULES[] = "/tmp/mibs";
constexpr char FLASH[] = "/mnt/flash0/cards";
constexpr char SNMPD[] = "udp:127.0.0.1:1161";

/* Starts a program with its output in /tmp/run/NAME.out and .log. piped: its input is a pipe. */
proc_t proc_start(const std::string& name, const words_t& command, bool piped = false);
/* Sends a signal unless it is 0, waits for the end, checks the log for sanitizer reports. Returns
 * the exit status, or minus the signal that ended the program. */
int proc_end(proc_t* proc, int signal_no = SIGTERM);
bool running(const proc_t& proc);
/* Runs a program to its end; returns both of its outputs. */
std::string run(const words_t& command);
/* In front of a command line tool: what lets it know a MIB module of MODULES or of a board. */
words_t knowing(const std::string& module);

/* The master agent. */
void snmpd_start(world_t* world);
void snmptrapd_start(world_t* world);
/* All traps so far, each as "OID NAME=TYPE: VALUE NAME=TYPE: VALUE". */
words_t traps();
/* Waits for as many traps as expected, and compares. */
void expect_traps(const words_t& expected);
/* The agent; an empty board leaves BASE_BOARD unset, up = false does not wait. */
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
/* The same in two steps. */
proc_t snmp_start(const std::string& tool, const words_t& args);
snmp_t snmp_end(proc_t* tool);
/* What was said: each variable as "TYPE: VALUE" or an exception, with commas, or the error. */
std::string said(const snmp_t& answer);
/* One variable. */
std::string get(const std::string& oid);
/* Several of them, one request each: the cells' ends in words, the answers with commas. */
std::string gets(const std::string& base, const std::string& ends);
/* Type is snmpset's (i, s, x, ...). Returns "" or the name of the error. */
std::string set(const std::string& oid, const std::string& type, const std::string& value);
/* What is below an OID, as "REST=VALUE REST=VALUE"; the second waits until it is as expected. */
std::string cells(const std::string& oid);
void expect_cells(const std::string& oid, const std::string& expected);

/* Managers that ask again and again; a request is a tool and an OID. */
std::vector<proc_t> managers_start(const words_t& requests);
void managers_end(std::vector<proc_t>* managers);

/* A document of the folder tests/cards. */
std::string document(const std::string& name);
/* Builds CARDS/libmib_NAME.so, a card's library whose symbol jsonmib_SYMBOL holds a document (no
 * such symbol if it is empty); returns its path. */
std::string card_library(const std::string& name, const std::string& symbol,
                         const std::string& text);
/* A document whose one table BASE.NUMBER has its first index as its only column, which needs no
 * daemon; that is the slot, unless there is one up to last before it. */
std::string numbered_document(const std::string& base, int number, int last = 0);
/* A card of the scenario, whose library and document card_files made. */
std::string played_card(int slot, const std::string& product, const std::string& family,
                        const std::string& more = "");
void card_files(const std::string& product, const std::string& text);
/* The folder of a card's send-trap file; returns the file's path. */
std::string flash_folder(const std::string& family, int slot);

/* A card client without the simulator. */
int client_connect();
/* Writes in one piece. */
void client_send(int fd, const std::string& bytes);
/* Sends an update and reads the acknowledgement; false if none comes. */
bool client_update_acked(int fd, const tpg_msg_libmib_update_t& msg);

class World : public ::testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;
    world_t w;
};

#endif
