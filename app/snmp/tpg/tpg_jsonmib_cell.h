#ifndef TPG_JSONMIB_CELL_H
#define TPG_JSONMIB_CELL_H

/*
 * A request on a cell: what its card is asked, and how the card's answer gets
 * into the SNMP library's request, at once or later.
 */

#include "tpg_jsonmib_ctrl.h"
#include "tpg_snmp.h"

/* One cell and what is asked of it. */
struct jsonmib_cell_t {
    tpg_context_t* ctx;
    jsonmib_table_info_t* table;
    const jsonmib_table_param_info_t* param;
    netsnmp_variable_list* var;
    const netsnmp_table_request_info* row; /* its index values */
    int mode;
    uint32_t colnum;
    uint32_t instance; /* card slot */
    uint32_t index;    /* of the variable, as the card counts */
};

/* What a cell asks its card. */
struct jsonmib_ask_t {
    uint32_t slot_no;
    uint32_t var_id;
    uint32_t index;
    uint32_t length;     /* data bytes asked for, at most JSONMIB_CELL_MAX, or written */
    u_char type;         /* of the value for the manager: ASN_INTEGER or ASN_OCTET_STR */
    int32_t shift;       /* is added to an integer */
    int32_t range_max;   /* of the column, for the log */
    const uint8_t* data; /* a SET's */
    size_t written_len;  /* what the manager wrote, before it was cut */
    /* Logs that the exchange failed; returns the SNMP error status, or JSONMIB_CELL_ABSENT. */
    int (*failed)(tpg_context_t* ctx, const jsonmib_ask_t* ask, int result);
};

/* In place of an error status: the manager is told that there is no such cell. */
constexpr int JSONMIB_CELL_ABSENT = -1;

/*
 * Registers the directive skipUnreadable for the configuration file called
 * name with ".conf". With "yes", a walk goes past cells that cannot be read. To
 * be called before the file is read.
 */
void jsonmib_cells_read_config(const char* name);

/*
 * True in the first pass of a GETNEXT, in which the library looks for the very
 * name. No card need be asked there: the next pass finds the same cell, and
 * only in that pass can a cell be answered later.
 */
bool jsonmib_cell_is_first_look(const netsnmp_agent_request_info* reqinfo);

/*
 * True when a GETNEXT has reached the end of the range that the master asked
 * for. The varbind then has a value that the library throws away, and no card
 * need be asked.
 */
bool jsonmib_cell_is_beyond(const netsnmp_agent_request_info* reqinfo,
                            const netsnmp_request_info* request);

/*
 * Asks the card and puts its value, or the failure, into var. With a request
 * this may be done later; the request is marked as delegated then. Where
 * request is null the answer is waited for. Returns an SNMP error status to be
 * set on the request.
 */
int jsonmib_cell_read(tpg_context_t* ctx, const netsnmp_agent_request_info* reqinfo,
                      netsnmp_request_info* request, netsnmp_variable_list* var,
                      const jsonmib_ask_t* ask);

/* Has the library send the answers of requests whose cells have been completed; false when there
 * were none. */
bool jsonmib_cells_answer(tpg_context_t* ctx);

/*
 * Completes all requests that are outstanding in the library, which must be
 * done before a table is registered or unregistered. Cards have up to
 * JSONMIB_SETTLE_US to answer, then the rest fails.
 */
void jsonmib_cells_settle(tpg_context_t* ctx);

/* To be called in each turn of the event loop: the next settling has its full time again. */
void jsonmib_cells_turn_over(tpg_context_t* ctx);

/* ---- what generic and fault tables share ---- */

/* Gives the cell of an index column its value; an SNMP error status. */
int jsonmib_cell_serve_index(const jsonmib_cell_t* cell);

/* Gives the cell an integer; 0. */
int jsonmib_cell_serve_integer(const jsonmib_cell_t* cell, int32_t value);

/* What the card is asked for the cell: its integer, or length bytes of its string, at most
 * JSONMIB_CELL_MAX. */
jsonmib_ask_t jsonmib_cell_ask(const jsonmib_cell_t* cell, int32_t length);

/* The value of a SET as an integer, whatever its type: its first bytes, as many as a long has. */
int32_t jsonmib_cell_written_integer(const jsonmib_cell_t* cell);

/*
 * Sends the value of a SET to the card: the integer as the card counts, or the
 * bytes, at most JSONMIB_CELL_MAX. When a string could not be written,
 * string_unwritten is called as jsonmib_ask_t's failed. Returns an SNMP error
 * status.
 */
int jsonmib_cell_write(const jsonmib_cell_t* cell,
                       int (*string_unwritten)(tpg_context_t* ctx, const jsonmib_ask_t* ask,
                                               int result));

#endif
