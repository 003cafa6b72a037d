#ifndef TPG_JSONMIB_CELL_H
#define TPG_JSONMIB_CELL_H

/*
 * A cell as a request meets it: what it asks its card, and what the answer
 * means to the SNMP library, which gets it at once or later.
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
    /* Logs that the card did not do it; returns the SNMP error status, or JSONMIB_CELL_ABSENT. */
    int (*failed)(tpg_context_t* ctx, const jsonmib_ask_t* ask, int result);
};

/* The manager is told that there is no such cell. */
constexpr int JSONMIB_CELL_ABSENT = -1;

/*
 * Has the directive "skipUnreadable yes" understood in the sub-agent's
 * configuration file, name and ".conf": a walk then goes past cells that cannot
 * be read. To be called before the file is read.
 */
void jsonmib_cells_read_config(const char* name);

/* True in the pass of a GETNEXT that looks for the very name: whatever is found, the next pass
 * finds it too, and only there can an answer come later. */
bool jsonmib_cell_is_first_look(const netsnmp_agent_request_info* reqinfo);

/*
 * True when a GETNEXT has come to or past the end of what the master asked for:
 * var is given a value that the library throws away, and no card need be asked.
 */
bool jsonmib_cell_is_beyond(const netsnmp_agent_request_info* reqinfo,
                            const netsnmp_request_info* request);

/*
 * Has the cell answered with its card's value, or with the failure, at once or
 * later. request may be null: then the answer is waited for. Returns an SNMP
 * error status to be set on the request.
 */
int jsonmib_cell_read(tpg_context_t* ctx, const netsnmp_agent_request_info* reqinfo,
                      netsnmp_request_info* request, netsnmp_variable_list* var,
                      const jsonmib_ask_t* ask);

/* Tells the library of the requests that have been completed since; false when there were none. */
bool jsonmib_cells_answer(tpg_context_t* ctx);

/*
 * Leaves nothing outstanding in the library, as must be before anything is
 * registered with it or withdrawn: what waits gets a short time, the rest fails.
 */
void jsonmib_cells_settle(tpg_context_t* ctx);

/* The next settling has its full time again. */
void jsonmib_cells_turn_over(tpg_context_t* ctx);

/* ---- what generic and fault tables share ---- */

/* Serves an index column; an SNMP error status. */
int jsonmib_cell_serve_index(const jsonmib_cell_t* cell);

/* Gives the cell an integer; 0. */
int jsonmib_cell_serve_integer(const jsonmib_cell_t* cell, int32_t value);

/* The question for length bytes of the column's value, bounded by what a cell can hold. */
jsonmib_ask_t jsonmib_cell_ask(const jsonmib_cell_t* cell, int32_t length);

/* The written value as an integer, whatever its type: the leading bytes of it that a long can hold.
 */
int32_t jsonmib_cell_written_integer(const jsonmib_cell_t* cell);

/*
 * Writes what the manager wrote to the card: the integer as the card counts, or
 * the bytes, cut to what a cell can hold. string_unwritten is as failed of
 * jsonmib_ask_t. An SNMP error status.
 */
int jsonmib_cell_write(const jsonmib_cell_t* cell,
                       int (*string_unwritten)(tpg_context_t* ctx, const jsonmib_ask_t* ask,
                                               int result));

#endif
