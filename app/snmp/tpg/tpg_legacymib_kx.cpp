/* The board's fixed tables: their data, and reading and writing by it. */
#include "tpg_legacymib_kx.h"

#include "tpg_jsonmib_cell.h"
#include "tpg_jsonmib_wait.h"
#include "tpg_log.h"
#include "uevgend_msg_i.h"

#include <net-snmp/agent/util_funcs/header_generic.h>
#include <net-snmp/agent/util_funcs/header_simple_table.h>

#include <algorithm>
#include <cstring>
#include <span>

struct legacymib_var_map_t;
struct legacymib_column_t;
struct legacymib_group_t;
struct legacymib_find_t;
struct legacymib_write_t;
union legacymib_value_t;

static int legacymib_register(const tpg_context_t* ctx, const legacymib_group_t& group);
static int legacymib_inject(const oid* base, size_t base_len, const variable2& registered);
static int legacymib_helper_handler(netsnmp_mib_handler*, netsnmp_handler_registration*,
                                    netsnmp_agent_request_info*, netsnmp_request_info*);
static int legacymib_serve(netsnmp_mib_handler*, netsnmp_handler_registration*,
                           netsnmp_agent_request_info*, netsnmp_request_info*);
static bool legacymib_find(netsnmp_mib_handler*, netsnmp_handler_registration*,
                           netsnmp_agent_request_info*, netsnmp_request_info*, int mode,
                           jsonmib_ask_t* ask);

static u_char* legacymib_read(FindVarMethod* reader, legacymib_value_t* value,
                              const legacymib_find_t& find);
static bool legacymib_match(const legacymib_find_t& find, uint32_t rows);
static u_char* legacymib_give_integer(const legacymib_find_t&, legacymib_value_t*,
                                      uint32_t integer);
static u_char* legacymib_get_integer(const legacymib_find_t&, legacymib_value_t*,
                                     legacymib_var_map_t, uint32_t index);
static u_char* legacymib_get_string(const legacymib_find_t&, legacymib_value_t*,
                                    legacymib_var_map_t, uint32_t index);

static int legacymib_write(WriteMethod* writer, const legacymib_write_t& write);
static int legacymib_set_integer(legacymib_var_map_t, uint32_t index, const legacymib_write_t&);
static bool legacymib_written_integer(const legacymib_write_t&, uint32_t* integer);
static int legacymib_set_string(legacymib_var_map_t, uint32_t index, const legacymib_write_t&);

constexpr uint32_t LEGACYMIB_SLOT = 1; /* whose daemon holds every value */
constexpr char LEGACYMIB_HANDLER_NAME[] = "tpg_legacymib";
/* The daemon's messages count their bytes in 16 bits. */
constexpr size_t LEGACYMIB_SET_MAX = UINT16_MAX - UEVGEND_DATA_OFS;

/* ---- what the library calls ---- */

/* What the library asks of a read function. */
struct legacymib_find_t {
    variable* vp;
    oid* name;
    size_t* length;
    int exact;
    size_t* var_len;
    WriteMethod** write_method;
};

/* What the library hands to a write function. */
struct legacymib_write_t {
    int action;
    const u_char* val;
    u_char type;
    size_t val_len;
    const oid* name;
    size_t name_len;
};

/* The library copies a value out of the read function's own memory. */
union legacymib_value_t {
    char string[LEGACYMIB_STRING_MAX]; /* not terminated when it fills the buffer */
    uint32_t integer;                  /* an ASN_INTEGER may be 4 bytes long on every host */
};

/*
 * The library does not tell a function which group it is called for: each
 * group has its own, and the group is found by it.
 */
#define KX_READ_FUNCTION(function)                                                                 \
    static u_char* function(variable* vp, oid* name, size_t* length, int exact, size_t* var_len,   \
                            WriteMethod** write_method)                                            \
    {                                                                                              \
        static legacymib_value_t value;                                                            \
        return legacymib_read(function, &value, {vp, name, length, exact, var_len, write_method}); \
    }

#define KX_WRITE_FUNCTION(function)                                                                \
    static int function(int action, u_char* var_val, u_char var_val_type, size_t var_val_len,      \
                        u_char* /*statP*/, oid* name, size_t name_len)                             \
    {                                                                                              \
        return legacymib_write(function,                                                           \
                               {action, var_val, var_val_type, var_val_len, name, name_len});      \
    }

KX_READ_FUNCTION(var_kx_networksetuptable)
KX_WRITE_FUNCTION(kx_networksetuptable_write)
KX_READ_FUNCTION(var_kx_productlocationtable)
KX_READ_FUNCTION(var_kx_hardwaretable)
KX_WRITE_FUNCTION(kx_hardwaretable_write)
KX_READ_FUNCTION(var_kx_ledtable)
KX_READ_FUNCTION(var_kx_softwaretable)
KX_WRITE_FUNCTION(kx_softwaretable_write)
KX_READ_FUNCTION(var_kx_slotiptable)
KX_WRITE_FUNCTION(kx_slotiptable_write)
KX_READ_FUNCTION(var_kx_timemanagementtable)
KX_WRITE_FUNCTION(kx_timemanagementtable_write)
KX_READ_FUNCTION(var_kx_mgmfaulttable)
static WriteMethod kx_ledtable_write;
static WriteMethod kx_mgmsendtrap_write;

/* ---- the groups ---- */

/* How a column's value is kept by the control daemon. */
struct legacymib_var_map_t {
    uint32_t varid;   /* the daemon's number of the variable */
    uint32_t is_enum; /* 1: the daemon counts from 0, SNMP from 1; 0 otherwise */
};

/* Where a column's values come from. */
enum class legacymib_source : uint8_t {
    daemon,
    row,      /* the number of the row */
    next_row, /* that plus 1 */
};

struct legacymib_column_t {
    u_char type;
    u_short acl;
    legacymib_source source;
    legacymib_var_map_t var; /* source daemon */
    const char* label;       /* in the debug output; null: none */
};

constexpr u_short UNREGISTERED = 0; /* acl of a column that managers do not see */

static constexpr legacymib_column_t text(u_short acl, uint32_t varid, const char* label = nullptr)
{
    return {ASN_OCTET_STR, acl, legacymib_source::daemon, {varid, 0}, label};
}

static constexpr legacymib_column_t integer(u_short acl, uint32_t varid,
                                            const char* label = nullptr)
{
    return {ASN_INTEGER, acl, legacymib_source::daemon, {varid, 0}, label};
}

/* The daemon counts from 0, SNMP from 1. */
static constexpr legacymib_column_t enumeration(u_short acl, uint32_t varid,
                                                const char* label = nullptr)
{
    return {ASN_INTEGER, acl, legacymib_source::daemon, {varid, 1}, label};
}

static constexpr legacymib_column_t row_number(legacymib_source source, const char* label)
{
    return {ASN_INTEGER, RONLY, source, {}, label};
}

constexpr size_t KX_ARCS_MAX = 3;
constexpr size_t KX_COLUMNS_MAX = 15;

constexpr uint32_t SCALARS = 0; /* rows of a group that is no table */
constexpr uint32_t MGM_SEND_TRAP = 52;

struct legacymib_group_t {
    const char* name;
    size_t arc_total;
    oid arcs[KX_ARCS_MAX]; /* behind the node */
    uint32_t rows;         /* SCALARS, or rows of the table */
    bool rows_alike;       /* every row is read at index 0, though each is written on its own */
    FindVarMethod* read;
    WriteMethod* write;                         /* of the writable columns */
    legacymib_column_t columns[KX_COLUMNS_MAX]; /* column - 1; type 0: there are no more */
};

constexpr legacymib_group_t groups[] = {
    {
        "kx_networksetuptable",
        1,
        {2},
        SCALARS,
        false,
        var_kx_networksetuptable,
        kx_networksetuptable_write,
        {text(RWRITE, 56), text(RWRITE, 57), text(RONLY, 58), text(RONLY, 59), text(RONLY, 60),
         text(RONLY, 61), text(RONLY, 62), text(RONLY, 63), text(RONLY, 64), text(RONLY, 65),
         text(RONLY, 66), text(RONLY, 67), integer(RONLY, 68), text(RWRITE, 69),
         integer(RWRITE, 70)},
    },
    {
        "kx_productlocationtable",
        3,
        {3, 1, 1},
        TPG_SLOT_MAX,
        false,
        var_kx_productlocationtable,
        nullptr,
        {row_number(legacymib_source::row, "LOCINSTANCE"), integer(RONLY, 34, "INSERTIONCOUNTER"),
         integer(RONLY, 35, "REMOVALCOUNTER"), text(RONLY, 36, "PRODUCTNAME"),
         row_number(legacymib_source::next_row, "PRODUCTSLOTSTART"),
         row_number(legacymib_source::next_row, "PRODUCTSLOTEND")},
    },
    {
        /* Column 6 has no variable of its own; arc 7 is the LED table. */
        "kx_hardwaretable",
        1,
        {4},
        SCALARS,
        false,
        var_kx_hardwaretable,
        kx_hardwaretable_write,
        {integer(RWRITE, 39), enumeration(RONLY, 40), enumeration(RONLY, 41),
         enumeration(RONLY, 42), text(RWRITE, 43), integer(RWRITE, 0), integer(UNREGISTERED, 45),
         integer(RWRITE, 54), integer(RWRITE, 55), integer(RWRITE, 75)},
    },
    {
        /* The second label is the product location table's; whoever reads the output knows it so.
         */
        "kx_ledtable",
        3,
        {4, 7, 1},
        8,
        false,
        var_kx_ledtable,
        kx_ledtable_write,
        {row_number(legacymib_source::row, "LOCINSTANCE"),
         enumeration(RWRITE, 44, "INSERTIONCOUNTER")},
    },
    {
        /* Arc 7 is the slot IP table. */
        "kx_softwaretable",
        1,
        {5},
        SCALARS,
        false,
        var_kx_softwaretable,
        kx_softwaretable_write,
        {text(RONLY, 46), text(RONLY, 47), text(RONLY, 48), text(RONLY, 49), text(RONLY, 50),
         enumeration(RWRITE, 83)},
    },
    {
        "kx_slotiptable",
        3,
        {5, 7, 1},
        TPG_SLOT_MAX,
        true,
        var_kx_slotiptable,
        kx_slotiptable_write,
        {text(RWRITE, 81), text(RWRITE, 82), text(RWRITE, 84), enumeration(RWRITE, 85)},
    },
    {
        "kx_timemanagementtable",
        1,
        {8},
        SCALARS,
        false,
        var_kx_timemanagementtable,
        kx_timemanagementtable_write,
        {text(RWRITE, 76), enumeration(RWRITE, 71), integer(RWRITE, 72), enumeration(RWRITE, 73),
         text(RWRITE, 74)},
    },
    {
        "kx_mgmfaulttable",
        3,
        {6, 1, 1},
        21,
        false,
        var_kx_mgmfaulttable,
        kx_mgmsendtrap_write,
        {row_number(legacymib_source::row, "FAULTNAME"),
         enumeration(RWRITE, MGM_SEND_TRAP, "SENDTRAP"), enumeration(RONLY, 51, "TRAPPRESENT")},
    },
};

constexpr oid KX_PREFIX[] = {1, 3, 6, 1, 4, 1, 32473, 10}; /* the board's node follows */

/* The column of that number, or null. */
static const legacymib_column_t* legacymib_column(const legacymib_group_t& group, oid number)
{
    const bool is_one =
        number >= 1 && number <= KX_COLUMNS_MAX && group.columns[number - 1].type != 0;
    return is_one ? &group.columns[number - 1] : nullptr;
}

/* Where a row's values are on the daemon. */
static uint32_t legacymib_index(const legacymib_group_t& group, oid row)
{
    return group.rows == SCALARS ? 0 : static_cast<uint32_t>(row - 1);
}

/* ---- registration ---- */

void tpg_legacymib_kx_init(tpg_context_t* ctx)
{
    for (const legacymib_group_t& group : groups) {
        if (legacymib_register(ctx, group) != MIB_REGISTERED_OK) {
            DEBUGMSGTL(("register_mib", "%s registration failed\n", group.name));
        }
    }
}

static int legacymib_register(const tpg_context_t* ctx, const legacymib_group_t& group)
{
    variable2 columns[KX_COLUMNS_MAX];
    size_t total = 0;
    for (u_char number = 1; number <= KX_COLUMNS_MAX; number++) {
        const legacymib_column_t* column = legacymib_column(group, number);
        if (column != nullptr && column->acl != UNREGISTERED) {
            columns[total++] = {number, column->type, column->acl, group.read, 1, {number}};
        }
    }
    oid base[TPG_OID_MAX];
    const size_t base_len = tpg_legacymib_kx_oid(ctx, {group.arcs, group.arc_total}, base);
    /* The library takes every width of its records by this pointer. */
    const int result = register_mib(group.name, reinterpret_cast<const variable*>(columns),
                                    sizeof(variable2), total, base, base_len);
    for (size_t i = 0; i < total; i++) {
        if (result == MIB_REGISTERED_OK && legacymib_inject(base, base_len, columns[i]) != 0) {
            TPG_ERROR(&ctx_local, "%s: no memory, its column %u makes the agent wait", group.name,
                      columns[i].magic);
        }
    }
    return result;
}

/* Puts the agent's handler in front of the library's for one column; -1 without memory. */
static int legacymib_inject(const oid* base, size_t base_len, const variable2& registered)
{
    oid name[TPG_OID_MAX];
    oid* end = std::copy_n(registered.name, registered.namelen, std::copy_n(base, base_len, name));
    const netsnmp_subtree* tree =
        netsnmp_subtree_find(name, static_cast<size_t>(end - name), nullptr, nullptr);
    netsnmp_mib_handler* handler =
        netsnmp_create_handler(LEGACYMIB_HANDLER_NAME, legacymib_helper_handler);
    if (tree == nullptr || handler == nullptr ||
        netsnmp_inject_handler(tree->reginfo, handler) != SNMPERR_SUCCESS) {
        netsnmp_handler_free(handler);
        return -1;
    }
    return 0;
}

size_t tpg_legacymib_kx_oid(const tpg_context_t* ctx, std::span<const oid> arcs, oid* name)
{
    oid* end = std::copy(std::begin(KX_PREFIX), std::end(KX_PREFIX), name);
    *end++ = ctx->mib_kx_node_oid;
    end = std::copy(arcs.begin(), arcs.end(), end);
    return static_cast<size_t>(end - name);
}

/* ---- requests ---- */

/*
 * Where the read functions leave what they would ask the daemon, while the
 * agent's handler has them called to learn just that; null: they ask it. They
 * give some value then, or the library would forget the name that they found.
 */
static jsonmib_ask_t* legacymib_learns;

/* Reads are answered later; a write waits, and what is read for it too. */
static int legacymib_helper_handler(netsnmp_mib_handler* handler,
                                    netsnmp_handler_registration* reginfo,
                                    netsnmp_agent_request_info* reqinfo,
                                    netsnmp_request_info* requests)
{
    if (reqinfo->mode != MODE_GET && reqinfo->mode != MODE_GETNEXT) {
        return netsnmp_call_next_handler(handler, reginfo, reqinfo, requests);
    }
    if (jsonmib_cell_is_first_look(reqinfo)) {
        return SNMP_ERR_NOERROR;
    }
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
        netsnmp_request_info* const others = request->next;
        request->next = nullptr;
        const int status =
            request->processed != 0 ? 0 : legacymib_serve(handler, reginfo, reqinfo, request);
        request->next = others;
        if (status != SNMP_ERR_NOERROR) {
            netsnmp_set_request_error(reqinfo, request, status);
            return status;
        }
    }
    return SNMP_ERR_NOERROR;
}

static int legacymib_serve(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                           netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request)
{
    jsonmib_ask_t ask = {};
    const bool very_name = reqinfo->mode == MODE_GETNEXT && request->inclusive != 0;
    if ((!very_name || !legacymib_find(handler, reginfo, reqinfo, request, MODE_GET, &ask)) &&
        !legacymib_find(handler, reginfo, reqinfo, request, reqinfo->mode, &ask)) {
        return SNMP_ERR_NOERROR;
    }
    if (ask.failed == nullptr || jsonmib_cell_is_beyond(reqinfo, request)) {
        return SNMP_ERR_NOERROR; /* a value of the agent's own, or one that nobody wants */
    }
    return jsonmib_cell_read(&ctx_local, reqinfo, request, request->requestvb, &ask);
}

/* True when there is such an instance: it has its value then, or *ask tells where that is. */
static bool legacymib_find(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                           netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request,
                           int mode, jsonmib_ask_t* ask)
{
    const int asked_mode = reqinfo->mode;
    reqinfo->mode = mode;
    legacymib_learns = ask;
    netsnmp_call_next_handler(handler, reginfo, reqinfo, request);
    legacymib_learns = nullptr;
    reqinfo->mode = asked_mode;
    if (ask->failed != nullptr) {
        request->requestvb->type = ASN_NULL; /* only the name counts so far */
    }
    return ask->failed != nullptr || request->requestvb->type != ASN_NULL;
}

/* A board that does not answer has no such instance, as the library would say of a read function
 * that gives nothing. */
static int legacymib_absent(tpg_context_t* ctx, const jsonmib_ask_t* ask, int result)
{
    (void)ctx;
    (void)ask;
    (void)result;
    return JSONMIB_CELL_ABSENT;
}

static jsonmib_ask_t legacymib_ask(legacymib_var_map_t var, uint32_t index, u_char type,
                                   uint32_t length)
{
    jsonmib_ask_t ask = {};
    ask.slot_no = LEGACYMIB_SLOT;
    ask.var_id = var.varid;
    ask.index = index;
    ask.length = length;
    ask.type = type;
    ask.shift = type == ASN_INTEGER ? static_cast<int32_t>(var.is_enum) : 0;
    ask.failed = legacymib_absent;
    return ask;
}

/* ---- reading ---- */

static u_char* legacymib_read(FindVarMethod* reader, legacymib_value_t* value,
                              const legacymib_find_t& find)
{
    const legacymib_group_t& group = *std::ranges::find(groups, reader, &legacymib_group_t::read);
    if (!legacymib_match(find, group.rows)) {
        return nullptr;
    }
    const legacymib_column_t* column = legacymib_column(group, find.vp->magic);
    if (column == nullptr) { /* a variable was registered with another group's function */
        snmp_set_detail("Unknown magic number!\n");
        return nullptr;
    }
    if (column->label != nullptr) {
        DEBUGMSGTL(("legacymib", "VP Magic Number %s %d\n", column->label, find.vp->magic));
    }
    *find.write_method = column->acl == RWRITE ? group.write : nullptr;
    const auto row = static_cast<uint32_t>(find.name[*find.length - 1]);
    if (column->source != legacymib_source::daemon) {
        const bool next = column->source == legacymib_source::next_row;
        return legacymib_give_integer(find, value, next ? row + 1 : row);
    }
    const uint32_t index = group.rows_alike ? 0 : legacymib_index(group, row);
    return column->type == ASN_INTEGER ? legacymib_get_integer(find, value, column->var, index)
                                       : legacymib_get_string(find, value, column->var, index);
}

/* Completes the name to the instance asked for; false when there is none. */
static bool legacymib_match(const legacymib_find_t& find, uint32_t rows)
{
    const int result =
        rows == SCALARS
            ? header_generic(find.vp, find.name, find.length, find.exact, find.var_len,
                             find.write_method)
            : header_simple_table(find.vp, find.name, find.length, find.exact, find.var_len,
                                  find.write_method, static_cast<int>(rows));
    return result == MATCH_SUCCEEDED;
}

static u_char* legacymib_give_integer(const legacymib_find_t& find, legacymib_value_t* value,
                                      uint32_t integer)
{
    value->integer = integer;
    *find.var_len = sizeof(value->integer);
    return reinterpret_cast<u_char*>(&value->integer);
}

static u_char* legacymib_get_integer(const legacymib_find_t& find, legacymib_value_t* value,
                                     legacymib_var_map_t var, uint32_t index)
{
    uint32_t integer = 0;
    if (legacymib_learns != nullptr) {
        *legacymib_learns = legacymib_ask(var, index, ASN_INTEGER, sizeof(integer));
        return legacymib_give_integer(find, value, 0);
    }
    if (jsonmib_ctrl_get(&ctx_local, LEGACYMIB_SLOT, var.varid, index, &integer, sizeof(integer)) !=
        0) {
        return nullptr;
    }
    return legacymib_give_integer(find, value, integer + var.is_enum);
}

static u_char* legacymib_get_string(const legacymib_find_t& find, legacymib_value_t* value,
                                    legacymib_var_map_t var, uint32_t index)
{
    if (legacymib_learns != nullptr) {
        *legacymib_learns = legacymib_ask(var, index, ASN_OCTET_STR, LEGACYMIB_STRING_MAX);
        *find.var_len = 0;
        return reinterpret_cast<u_char*>(value->string);
    }
    memset(value->string, 0, sizeof(value->string));
    if (jsonmib_ctrl_get(&ctx_local, LEGACYMIB_SLOT, var.varid, index, value->string,
                         sizeof(value->string)) != 0) {
        return nullptr;
    }
    *find.var_len = strnlen(value->string, sizeof(value->string));
    return reinterpret_cast<u_char*>(value->string);
}

/* ---- writing ---- */

static int legacymib_write(WriteMethod* writer, const legacymib_write_t& write)
{
    const legacymib_group_t& group = *std::ranges::find(groups, writer, &legacymib_group_t::write);
    if (write.name_len < 2) { /* the next lines look at the last two arcs */
        return SNMP_ERR_NOSUCHNAME;
    }
    const oid row = write.name[write.name_len - 1];
    const legacymib_column_t* column = legacymib_column(group, write.name[write.name_len - 2]);
    const bool is_table = group.rows != SCALARS;
    /* The library finds the cell with the read function first, which has refused these already;
     * they must not be written even if it should call this one by itself. */
    if (column == nullptr || (is_table && (row == 0 || row > group.rows))) {
        return SNMP_ERR_NOSUCHNAME;
    }
    if (write.action != ACTION) {
        return SNMP_ERR_NOERROR;
    }
    const uint32_t index = legacymib_index(group, row);
    switch (write.type) {
    case ASN_OCTET_STR:
        return legacymib_set_string(column->var, index, write);
    case ASN_INTEGER:
        return legacymib_set_integer(column->var, index, write);
    default:
        return SNMP_ERR_NOERROR;
    }
}

/* The LEDs show the board's state: a write is accepted and changes nothing. */
static int kx_ledtable_write(int /*action*/, u_char* /*var_val*/, u_char /*var_val_type*/,
                             size_t /*var_val_len*/, u_char* /*statP*/, oid* /*name*/,
                             size_t /*name_len*/)
{
    return SNMP_ERR_NOERROR;
}

static int kx_mgmsendtrap_write(int action, u_char* var_val, u_char var_val_type,
                                size_t var_val_len, u_char* /*statP*/, oid* name, size_t name_len)
{
    if (action != ACTION) {
        return SNMP_ERR_NOERROR;
    }
    if (var_val_type != ASN_INTEGER) {
        return SNMP_ERR_GENERR;
    }
    return legacymib_write(kx_mgmsendtrap_write,
                           {action, var_val, var_val_type, var_val_len, name, name_len});
}

static int legacymib_set_integer(legacymib_var_map_t var, uint32_t index,
                                 const legacymib_write_t& write)
{
    uint32_t integer = 0;
    if (!legacymib_written_integer(write, &integer)) {
        return SNMP_ERR_WRONGLENGTH;
    }
    const uint32_t stored = integer - var.is_enum;
    if (jsonmib_ctrl_set(&ctx_local, LEGACYMIB_SLOT, var.varid, index, &stored, sizeof(stored)) !=
        0) {
        return SNMP_ERR_GENERR;
    }
    return SNMP_ERR_NOERROR;
}

/* The library keeps an integer as a long; the daemon's have 32 bits on every host. */
static bool legacymib_written_integer(const legacymib_write_t& write, uint32_t* integer)
{
    long wide = 0;
    if (write.val_len != sizeof(wide)) {
        return false;
    }
    memcpy(&wide, write.val, sizeof(wide));
    *integer = static_cast<uint32_t>(wide);
    return true;
}

static int legacymib_set_string(legacymib_var_map_t var, uint32_t index,
                                const legacymib_write_t& write)
{
    if (write.val_len > LEGACYMIB_SET_MAX) {
        return SNMP_ERR_WRONGLENGTH;
    }
    if (jsonmib_ctrl_set(&ctx_local, LEGACYMIB_SLOT, var.varid, index, write.val,
                         static_cast<uint32_t>(write.val_len)) != 0) {
        return SNMP_ERR_GENERR;
    }
    return SNMP_ERR_NOERROR;
}
