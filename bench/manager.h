#ifndef BENCH_MANAGER_H
#define BENCH_MANAGER_H

/* What the manager's parts share: requests, cards, traps and the tables of results. */

#include "table.h"

#include <map>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <string>
#include <vector>

using samples_t = std::vector<double>;

/* The result: one row a measure, one column a subject. */
struct row_t {
    std::string name;
    std::map<int, samples_t> samples;
    samples_t ratios; /* how many times as fast as the other subject, the live limit mostly */
};

/* The row of that name, made at the first call. */
row_t* row(const std::string& name);
double now_us();
double percentile(samples_t samples, double part);
/* A table's cell: the median, with the lowest and the highest. */
std::string cell_text(const samples_t& samples);
/* Tells that a figure is missing; the run then ends as failed. */
void miss(const std::string& what);

netsnmp_session* open_session(long timeout_us, int retries = 0);
/* The answer to a request, to be freed; null on a time-out or an error status. */
netsnmp_pdu* ask(void* session, netsnmp_pdu* request);
/* The same for one name. */
netsnmp_pdu* ask(void* session, int type, const oid* name, size_t len, long repetitions = 0);
/* True when var is that cell with its value. */
bool is_cell(const netsnmp_variable_list* var, int subject, size_t table, uint32_t cell);
/* True when a GET of the cell is answered with its value. */
bool get_cell(void* session, int subject, size_t table, uint32_t cell);

/* Registers a card, waits until its first cell is answered, and returns its connection. */
int plug(void* session, int subject, uint32_t slot, const char* product, size_t table);
/* Ends a card's connection; its tables are gone then. */
void unplug(int card);
void measure_registration(void* session, int rounds);

/* A socket that gets the master's traps. */
int open_sink();
/* Notifies a fault of the slot's card. */
void notify(int card, uint32_t slot);
/* Waits for a trap; false when none came in time. */
bool trap_came(int sink, int limit_ms);
void measure_traps(void* session, const std::vector<int>& cards, int rounds);

/* Requests, SETs and traps beside slow and hung cards; cards[i] is the one in slot i + 1. */
void measure_slow(void* session, const std::vector<int>& cards, int rounds);
void print_slow();

#endif
