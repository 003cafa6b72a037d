/* Cells that are asked of a card: the exchange, its value, and the library's request. */
#include "tpg_jsonmib_cell.h"

#include "tpg_jsonmib_queue.h"
#include "tpg_jsonmib_wait.h"
#include "tpg_log.h"
#include "uevgend_msg_i.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>

struct late_cell_t;
struct request_history_t;

static void prepare(late_cell_t*, netsnmp_request_info*, const jsonmib_ask_t*, bool next);
static void cell_is_complete(tpg_context_t*, jsonmib_exchange_t*);
static int conclude(tpg_context_t*, const late_cell_t*);
static int serve_value(tpg_context_t*, const jsonmib_ask_t*, const uint8_t*,
                       netsnmp_variable_list*);
static request_history_t* history_of(netsnmp_request_info*);
static request_history_t* note_age(netsnmp_request_info* request, int64_t born);
static void set_transaction_aside(netsnmp_request_info*, request_history_t*);
static void bring_transaction_back(netsnmp_request_info*, request_history_t*);
static int pass_by(netsnmp_request_info* request, int64_t born);

constexpr char HISTORY_NAME[] = "tpg_request_history";

/* A cell whose card has been asked. */
struct late_cell_t {
    jsonmib_exchange_t exchange; /* first: a pointer to it is one to the record */
    jsonmib_ask_t ask;
    netsnmp_request_info* request;
    bool next; /* a GETNEXT */
    uint8_t value[JSONMIB_CELL_MAX];
};
static_assert(offsetof(late_cell_t, exchange) == 0);
static_assert(JSONMIB_CELL_MAX >= UEVGEND_DATA_FIXED);

/* What must be known of a manager's request beyond one cell. The library's record of the request
 * owns it. */
struct request_history_t {
    int64_t born;
    uint32_t passed;  /* unreadable cells that the walk has gone past */
    uint32_t waiting; /* cells of a GETNEXT whose cards have yet to answer */
    long transaction; /* the master's transaction ID while some are waiting */
};

/* ---- configuration ---- */

static void read_skip_unreadable(const char* token, char* line)
{
    const bool yes = strcasecmp(line, "yes") == 0;
    if (!yes && strcasecmp(line, "no") != 0) {
        TPG_WARN(&ctx_local, "%s is \"yes\" or \"no\", not \"%s\"", token, line);
        return;
    }
    ctx_local.jsonmib_later.skip_unreadable = yes;
}

void jsonmib_cells_read_config(const char* name)
{
    register_config_handler(name, "skipUnreadable", read_skip_unreadable, nullptr, "yes|no");
}

/* ---- what the master wants to know ---- */

static bool is_getnext(const netsnmp_agent_request_info* reqinfo)
{
    return reqinfo->asp != nullptr && reqinfo->asp->pdu != nullptr &&
           reqinfo->asp->pdu->command == SNMP_MSG_GETNEXT;
}

bool jsonmib_cell_is_first_look(const netsnmp_agent_request_info* reqinfo)
{
    return is_getnext(reqinfo) && reqinfo->asp->mode == MODE_GET;
}

/* AgentX writes "no end" as 0.0. */
static bool has_end(const netsnmp_variable_list* asked)
{
    const size_t len = asked->val_len / sizeof(oid);
    return (asked->type == ASN_PRIV_INCL_RANGE || asked->type == ASN_PRIV_EXCL_RANGE) && len > 0 &&
           !std::all_of(asked->val.objid, asked->val.objid + len,
                        [](oid subid) { return subid == 0; });
}

bool jsonmib_cell_is_beyond(const netsnmp_agent_request_info* reqinfo,
                            const netsnmp_request_info* request)
{
    if (!is_getnext(reqinfo) || reqinfo->asp->orig_pdu == nullptr) {
        return false;
    }
    const netsnmp_variable_list* asked = reqinfo->asp->orig_pdu->variables;
    for (int i = 1; i < request->index && asked != nullptr; i++) {
        asked = asked->next_variable;
    }
    netsnmp_variable_list* var = request->requestvb;
    if (asked == nullptr || !has_end(asked) ||
        snmp_oid_compare(var->name, var->name_length, asked->val.objid,
                         asked->val_len / sizeof(oid)) < 0) {
        return false;
    }
    constexpr long THROWN_AWAY = 0;
    snmp_set_var_typed_value(var, ASN_INTEGER, &THROWN_AWAY, sizeof(THROWN_AWAY));
    return true;
}

/* ---- reading ---- */

/* An absent cell is no error: the request stays as it is. */
static int error_status(int status)
{
    return status == JSONMIB_CELL_ABSENT ? SNMP_ERR_NOERROR : status;
}

int jsonmib_cell_read(tpg_context_t* ctx, const netsnmp_agent_request_info* reqinfo,
                      netsnmp_request_info* request, netsnmp_variable_list* var,
                      const jsonmib_ask_t* ask)
{
    const tpg_log_slot_t served = tpg_log_serve(ctx, ask->slot_no);
    if (request == nullptr) {
        uint8_t value[JSONMIB_CELL_MAX] = {};
        const int result =
            jsonmib_ctrl_get(ctx, ask->slot_no, ask->var_id, ask->index, value, ask->length);
        return result == 0 ? serve_value(ctx, ask, value, var)
                           : error_status(ask->failed(ctx, ask, result));
    }
    /* malloc takes the record that the last cell gave back; calloc would search for another. */
    auto* cell = static_cast<late_cell_t*>(malloc(sizeof(late_cell_t)));
    if (cell == nullptr) {
        TPG_ERROR(ctx, "jsonmib_ctrl_get calloc failed, %s", strerror(errno));
        return error_status(ask->failed(ctx, ask, JSONMIB_CTRL_NOMEM));
    }
    *cell = {};
    prepare(cell, request, ask, is_getnext(reqinfo));
    request->delegated = 1;
    if (!jsonmib_queue_start(ctx, &cell->exchange)) {
        request_history_t* history = note_age(request, cell->exchange.born);
        if (cell->next && history != nullptr) {
            set_transaction_aside(request, history);
        }
        return SNMP_ERR_NOERROR;
    }
    request->delegated = 0;
    const int status = conclude(ctx, cell);
    free(cell);
    return error_status(status);
}

static void prepare(late_cell_t* cell, netsnmp_request_info* request, const jsonmib_ask_t* ask,
                    bool next)
{
    const request_history_t* history = history_of(request);
    cell->ask = *ask;
    cell->request = request;
    cell->next = next;
    cell->exchange = {};
    cell->exchange.slot_no = ask->slot_no;
    cell->exchange.asked = {UEVGEND_MSG_GET, ask->var_id, ask->index,
                            jsonmib_ctrl_get_reply_len(ask->length)};
    cell->exchange.length = ask->length;
    cell->exchange.value = cell->value;
    cell->exchange.walk = next;
    cell->exchange.born = history == nullptr ? 0 : history->born;
    cell->exchange.patient = history != nullptr && history->passed > JSONMIB_PASSED_MAX;
    cell->exchange.complete = cell_is_complete;
}

static void cell_is_complete(tpg_context_t* ctx, jsonmib_exchange_t* exchange)
{
    auto* cell = reinterpret_cast<late_cell_t*>(exchange);
    cell->request->delegated = 0;
    request_history_t* history = history_of(cell->request);
    if (cell->next && history != nullptr) {
        bring_transaction_back(cell->request, history);
    }
    const int status = conclude(ctx, cell);
    if (status > SNMP_ERR_NOERROR) {
        netsnmp_request_set_error(cell->request, status);
        if (cell->next) {
            /* Without a value in the varbind the library would go on searching. */
            snmp_set_var_typed_value(cell->request->requestvb, SNMP_NOSUCHINSTANCE, nullptr, 0);
        }
    }
    ctx->jsonmib_later.answered = true;
    free(cell);
}

/* Puts the value or the failure into the request, or has a walk go past the cell. Returns an SNMP
 * error status, or JSONMIB_CELL_ABSENT. */
static int conclude(tpg_context_t* ctx, const late_cell_t* cell)
{
    const int result = cell->exchange.result;
    const jsonmib_ask_t* ask = &cell->ask;
    if (result == 0) {
        return serve_value(ctx, ask, cell->value, cell->request->requestvb);
    }
    const int status = ask->failed(ctx, ask, result);
    const jsonmib_later_t* later = &ctx->jsonmib_later;
    if (status == JSONMIB_CELL_ABSENT || !cell->next || !later->skip_unreadable || later->closed ||
        jsonmib_now() >= cell->exchange.born + JSONMIB_CELL_US) {
        return status;
    }
    return pass_by(cell->request, cell->exchange.born) == 0 ? SNMP_ERR_NOERROR : status;
}

static int serve_value(tpg_context_t* ctx, const jsonmib_ask_t* ask, const uint8_t* value,
                       netsnmp_variable_list* var)
{
    if (ask->type == ASN_INTEGER) {
        uint32_t integer = 0;
        memcpy(&integer, value, sizeof(integer));
        integer += static_cast<uint32_t>(ask->shift);
        snmp_set_var_typed_value(var, ASN_INTEGER, &integer, sizeof(integer));
        return SNMP_ERR_NOERROR;
    }
    /* The text up to its first zero byte, or all bytes when it has none. */
    const size_t used = strnlen(reinterpret_cast<const char*>(value), ask->length);
    if (snmp_set_var_typed_value(var, ASN_OCTET_STR, value, used) != 0) {
        TPG_ERROR(ctx, "no memory for a string of %zu bytes, instance %u, var_id %u", used,
                  ask->slot_no, ask->var_id);
        return SNMP_ERR_GENERR;
    }
    return SNMP_ERR_NOERROR;
}

/* ---- a request's history ---- */

static request_history_t* history_of(netsnmp_request_info* request)
{
    return static_cast<request_history_t*>(
        netsnmp_agent_get_list_data(request->agent_req_info, HISTORY_NAME));
}

/* The request's history, made now if it has none; null without memory. */
static request_history_t* note_age(netsnmp_request_info* request, int64_t born)
{
    request_history_t* history = history_of(request);
    if (history != nullptr) {
        return history;
    }
    history = static_cast<request_history_t*>(calloc(1, sizeof(request_history_t)));
    netsnmp_data_list* node =
        history == nullptr ? nullptr : netsnmp_create_data_list(HISTORY_NAME, history, free);
    if (node == nullptr) {
        free(history);
        return nullptr;
    }
    history->born = born;
    netsnmp_agent_add_list_data(request->agent_req_info, node);
    return history;
}

/*
 * A request that the master repeats has the transaction ID of the first one.
 * Of outstanding GETNEXTs with one ID the library goes on with a single one
 * and never answers the others. So each has an ID that no master gives while
 * its cards are asked.
 */
static void set_transaction_aside(netsnmp_request_info* request, request_history_t* history)
{
    static long last = 0;
    netsnmp_pdu* pdu = request->agent_req_info->asp->pdu;
    if (history->waiting++ == 0) {
        history->transaction = pdu->transid;
        pdu->transid = --last;
    }
}

static void bring_transaction_back(netsnmp_request_info* request, request_history_t* history)
{
    if (history->waiting > 0 && --history->waiting == 0) {
        request->agent_req_info->asp->pdu->transid = history->transaction;
    }
}

/* Has the library search again behind the cell that could not be read; -1 without memory. */
static int pass_by(netsnmp_request_info* request, int64_t born)
{
    request_history_t* history = note_age(request, born);
    if (history == nullptr) {
        return -1;
    }
    history->passed++;
    request->inclusive = 0; /* the cell's own name must not be found again */
    snmp_set_var_typed_value(request->requestvb, ASN_PRIV_RETRY, nullptr, 0);
    return 0;
}

/* ---- what is outstanding in the library ---- */

bool jsonmib_cells_answer(tpg_context_t* ctx)
{
    const bool answered = ctx->jsonmib_later.answered;
    while (ctx->jsonmib_later.answered) {
        ctx->jsonmib_later.answered = false;
        netsnmp_check_outstanding_agent_requests();
    }
    return answered;
}

/*
 * For every outstanding GETNEXT the library keeps pointers into its tree of
 * registrations, and they would dangle when the tree changes.
 */
void jsonmib_cells_settle(tpg_context_t* ctx)
{
    jsonmib_later_t* later = &ctx->jsonmib_later;
    if (later->settled_until == 0) {
        later->settled_until = jsonmib_now() + JSONMIB_SETTLE_US;
    }
    jsonmib_cells_answer(ctx);
    while (jsonmib_queue_busy(ctx) && jsonmib_now() < later->settled_until) {
        jsonmib_queue_drive(ctx, later->settled_until);
        jsonmib_cells_answer(ctx);
    }
    later->closed = true;
    while (jsonmib_queue_busy(ctx)) {
        jsonmib_queue_fail_all(ctx);
        jsonmib_cells_answer(ctx);
    }
    later->closed = false;
}

void jsonmib_cells_turn_over(tpg_context_t* ctx)
{
    ctx->jsonmib_later.settled_until = 0;
}

/* ---- what generic and fault tables share ---- */

/* Index columns must be columns 1 and 2, in the order of the row index. */
int jsonmib_cell_serve_index(const jsonmib_cell_t* cell)
{
    const auto first = static_cast<unsigned long>(*cell->row->indexes->val.integer);
    DEBUGMSGTL(("jsonmib", "MODE_GET: table index: number_indexes %d, index %lu\n",
                cell->row->number_indexes, first));
    TPG_DEBUG(cell->ctx, "MODE_GET: table index: number_indexes %d, index %lu",
              cell->row->number_indexes, first);
    const netsnmp_variable_list* index = cell->row->indexes;
    if (cell->colnum == 2 && index != nullptr) {
        index = index->next_variable;
    }
    if (cell->colnum > 2 || index == nullptr) {
        TPG_ERROR(cell->ctx, "invalid colnum %d for a index parameter!", cell->colnum);
        return SNMP_ERR_NOACCESS;
    }
    snmp_set_var_typed_value(cell->var, ASN_INTEGER, index->val.integer, sizeof(long));
    return SNMP_ERR_NOERROR;
}

int jsonmib_cell_serve_integer(const jsonmib_cell_t* cell, int32_t value)
{
    snmp_set_var_typed_value(cell->var, ASN_INTEGER, &value, sizeof(value));
    return SNMP_ERR_NOERROR;
}

jsonmib_ask_t jsonmib_cell_ask(const jsonmib_cell_t* cell, int32_t length)
{
    const jsonmib_table_param_info_t* param = cell->param;
    jsonmib_ask_t ask = {};
    ask.slot_no = cell->instance;
    ask.var_id = param->var_id;
    ask.index = cell->index;
    ask.range_max = param->range[1];
    ask.type = param->coding.served;
    ask.shift = param->coding.shift;
    ask.length = ask.type == ASN_INTEGER
                     ? sizeof(int32_t)
                     : static_cast<uint32_t>(std::clamp<int32_t>(length, 0, JSONMIB_CELL_MAX));
    return ask;
}

int32_t jsonmib_cell_written_integer(const jsonmib_cell_t* cell)
{
    const netsnmp_variable_list* var = cell->var;
    long value = 0;
    if (var->val.string != nullptr) {
        memcpy(&value, var->val.string, std::min(var->val_len, sizeof(value)));
    }
    return static_cast<int32_t>(value);
}

/* ---- writing ---- */

static int integer_unwritten(tpg_context_t* ctx, const jsonmib_ask_t* ask, int result)
{
    (void)result;
    int32_t value = 0;
    memcpy(&value, ask->data, sizeof(value));
    TPG_ERROR(ctx, "jsonmib_ctrl_set failed, instance %d, var_id %d, index 0x%x, value %d",
              ask->slot_no, ask->var_id, ask->index, value);
    return SNMP_ERR_GENERR;
}

static int write_data(const jsonmib_cell_t* cell, const uint8_t* data, uint32_t length,
                      int (*failed)(tpg_context_t*, const jsonmib_ask_t*, int))
{
    jsonmib_ask_t ask = jsonmib_cell_ask(cell, 0);
    ask.data = data;
    ask.length = length;
    ask.written_len = cell->var->val_len;
    const int result =
        jsonmib_ctrl_set(cell->ctx, ask.slot_no, ask.var_id, ask.index, ask.data, ask.length);
    return result == 0 ? SNMP_ERR_NOERROR : failed(cell->ctx, &ask, result);
}

/* Sends the integer as the card counts. */
static int write_integer(const jsonmib_cell_t* cell)
{
    const jsonmib_coding_t* coding = &cell->param->coding;
    const int32_t written = jsonmib_cell_written_integer(cell);
    auto value = static_cast<uint32_t>(written);
    if (written >= coding->shift_from) {
        value -= static_cast<uint32_t>(coding->shift);
    }
    uint8_t data[sizeof(value)];
    memcpy(data, &value, sizeof(value));
    return write_data(cell, data, sizeof(data), integer_unwritten);
}

int jsonmib_cell_write(const jsonmib_cell_t* cell,
                       int (*string_unwritten)(tpg_context_t*, const jsonmib_ask_t*, int))
{
    if (cell->param->coding.served == ASN_INTEGER) {
        return write_integer(cell);
    }
    uint8_t text[JSONMIB_CELL_MAX] = {};
    const netsnmp_variable_list* var = cell->var;
    size_t length = 0;
    if (var->val.string != nullptr) {
        length = std::min<size_t>(var->val_len, sizeof(text));
        memcpy(text, var->val.string, length);
    }
    return write_data(cell, text, static_cast<uint32_t>(length), string_unwritten);
}
