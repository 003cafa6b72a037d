#include "tpg_legacymib_kx.h"

#include "tpg_jsonmib_cell.h"
#include "tpg_jsonmib_queue.h"
#include "tpg_log.h"
#include "uevgend_msg_i.h"

#include <net-snmp/agent/util_funcs/header_generic.h>
#include <net-snmp/agent/util_funcs/header_simple_table.h>

#include <algorithm>
#include <cstring>

struct legacymib_group_t;
struct legacymib_mapped_t;
struct legacymib_fixed_t;
struct legacymib_find_t;
struct legacymib_write_t;
union legacymib_value_t;

static int legacymib_register(const tpg_context_t*, const legacymib_group_t&);
static int legacymib_inject(const oid*, size_t, const variable2&);
static int legacymib_helper_handler(netsnmp_mib_handler*, netsnmp_handler_registration*,
                                    netsnmp_agent_request_info*, netsnmp_request_info*);
static int legacymib_serve(netsnmp_mib_handler*, netsnmp_handler_registration*,
                           netsnmp_agent_request_info*, netsnmp_request_info*);
static bool legacymib_find(netsnmp_mib_handler*, netsnmp_handler_registration*,
                           netsnmp_agent_request_info*, netsnmp_request_info*, int, jsonmib_ask_t*);

static u_char* legacymib_read_mapped(const legacymib_mapped_t&, legacymib_value_t*,
                                     const legacymib_find_t&);
static u_char* legacymib_read_fixed(const legacymib_fixed_t&, legacymib_value_t*,
                                    const legacymib_find_t&);
static bool legacymib_match(const legacymib_find_t&, uint32_t);
static u_char* legacymib_give_integer(const legacymib_find_t&, legacymib_value_t*, uint32_t);
static u_char* legacymib_get_integer(const legacymib_find_t&, legacymib_value_t*,
                                     legacymib_var_map_t, uint32_t);
static u_char* legacymib_get_string(const legacymib_find_t&, legacymib_value_t*,
                                    legacymib_var_map_t, uint32_t);

static int legacymib_write_mapped(const legacymib_mapped_t&, const legacymib_write_t&);
static int legacymib_set_integer(legacymib_var_map_t, uint32_t, const legacymib_write_t&);
static bool legacymib_written_integer(const legacymib_write_t&, uint32_t*);
static int legacymib_set_string(legacymib_var_map_t, uint32_t, const legacymib_write_t&);

constexpr uint32_t LEGACYMIB_SLOT = 1; /* whose daemon holds every value */
constexpr char LEGACYMIB_HANDLER_NAME[] = "tpg_legacymib";
/* The daemon's messages count their bytes in 16 bits. */
constexpr size_t LEGACYMIB_SET_MAX = UINT16_MAX - UEVGEND_DATA_OFS;

constexpr uint32_t SCALARS = 0; /* rows of a group that is no table */
constexpr uint32_t LED_ROWS = 8;
constexpr uint32_t MGMFAULT_ROWS = 21;

/* ---- columns as SNMP sees them ---- */

static constexpr variable2 column(u_char number, u_char type, u_short acl, FindVarMethod* find)
{
    return {number, type, acl, find, 1, {number}};
}

constexpr variable2 networksetup_columns[] = {
    column(1, ASN_OCTET_STR, RWRITE, var_kx_networksetuptable),
    column(2, ASN_OCTET_STR, RWRITE, var_kx_networksetuptable),
    column(3, ASN_OCTET_STR, RONLY, var_kx_networksetuptable),
    column(4, ASN_OCTET_STR, RONLY, var_kx_networksetuptable),
    column(5, ASN_OCTET_STR, RONLY, var_kx_networksetuptable),
    column(6, ASN_OCTET_STR, RONLY, var_kx_networksetuptable),
    column(7, ASN_OCTET_STR, RONLY, var_kx_networksetuptable),
    column(8, ASN_OCTET_STR, RONLY, var_kx_networksetuptable),
    column(9, ASN_OCTET_STR, RONLY, var_kx_networksetuptable),
    column(10, ASN_OCTET_STR, RONLY, var_kx_networksetuptable),
    column(11, ASN_OCTET_STR, RONLY, var_kx_networksetuptable),
    column(12, ASN_OCTET_STR, RONLY, var_kx_networksetuptable),
    column(13, ASN_INTEGER, RONLY, var_kx_networksetuptable),
    column(14, ASN_OCTET_STR, RWRITE, var_kx_networksetuptable),
    column(15, ASN_INTEGER, RWRITE, var_kx_networksetuptable),
};

constexpr variable2 productlocation_columns[] = {
    column(1, ASN_INTEGER, RONLY, var_kx_productlocationtable),
    column(2, ASN_INTEGER, RONLY, var_kx_productlocationtable),
    column(3, ASN_INTEGER, RONLY, var_kx_productlocationtable),
    column(4, ASN_OCTET_STR, RONLY, var_kx_productlocationtable),
    column(5, ASN_INTEGER, RONLY, var_kx_productlocationtable),
    column(6, ASN_INTEGER, RONLY, var_kx_productlocationtable),
};

/* Arc 7 is the LED table. */
constexpr variable2 hardware_columns[] = {
    column(1, ASN_INTEGER, RWRITE, var_kx_hardwaretable),
    column(2, ASN_INTEGER, RONLY, var_kx_hardwaretable),
    column(3, ASN_INTEGER, RONLY, var_kx_hardwaretable),
    column(4, ASN_INTEGER, RONLY, var_kx_hardwaretable),
    column(5, ASN_OCTET_STR, RWRITE, var_kx_hardwaretable),
    column(6, ASN_INTEGER, RWRITE, var_kx_hardwaretable),
    column(8, ASN_INTEGER, RWRITE, var_kx_hardwaretable),
    column(9, ASN_INTEGER, RWRITE, var_kx_hardwaretable),
    column(10, ASN_INTEGER, RWRITE, var_kx_hardwaretable),
};

constexpr variable2 led_columns[] = {
    column(1, ASN_INTEGER, RONLY, var_kx_ledtable),
    column(2, ASN_INTEGER, RWRITE, var_kx_ledtable),
};

/* Arc 7 is the slot IP table. */
constexpr variable2 software_columns[] = {
    column(1, ASN_OCTET_STR, RONLY, var_kx_softwaretable),
    column(2, ASN_OCTET_STR, RONLY, var_kx_softwaretable),
    column(3, ASN_OCTET_STR, RONLY, var_kx_softwaretable),
    column(4, ASN_OCTET_STR, RONLY, var_kx_softwaretable),
    column(5, ASN_OCTET_STR, RONLY, var_kx_softwaretable),
    column(6, ASN_INTEGER, RWRITE, var_kx_softwaretable),
};

constexpr variable2 slotip_columns[] = {
    column(1, ASN_OCTET_STR, RWRITE, var_kx_slotiptable),
    column(2, ASN_OCTET_STR, RWRITE, var_kx_slotiptable),
    column(3, ASN_OCTET_STR, RWRITE, var_kx_slotiptable),
    column(4, ASN_INTEGER, RWRITE, var_kx_slotiptable),
};

constexpr variable2 timemanagement_columns[] = {
    column(1, ASN_OCTET_STR, RWRITE, var_kx_timemanagementtable),
    column(2, ASN_INTEGER, RWRITE, var_kx_timemanagementtable),
    column(3, ASN_INTEGER, RWRITE, var_kx_timemanagementtable),
    column(4, ASN_INTEGER, RWRITE, var_kx_timemanagementtable),
    column(5, ASN_OCTET_STR, RWRITE, var_kx_timemanagementtable),
};

constexpr variable2 mgmfault_columns[] = {
    column(1, ASN_INTEGER, RONLY, var_kx_mgmfaulttable),
    column(2, ASN_INTEGER, RWRITE, var_kx_mgmfaulttable),
    column(3, ASN_INTEGER, RONLY, var_kx_mgmfaulttable),
};

/* ---- groups in the tree ---- */

constexpr oid KX_PREFIX[] = {1, 3, 6, 1, 4, 1, 32473, 10}; /* the board's node follows */
constexpr size_t KX_ARCS_MAX = 3;

struct legacymib_group_t {
    const char* name;
    size_t arc_total;
    oid arcs[KX_ARCS_MAX]; /* behind the node */
    std::span<const variable2> columns;
};

constexpr legacymib_group_t groups[] = {
    {"kx_networksetuptable", 1, {2}, networksetup_columns},
    {"kx_productlocationtable", 3, {3, 1, 1}, productlocation_columns},
    {"kx_hardwaretable", 1, {4}, hardware_columns},
    {"kx_ledtable", 3, {4, 7, 1}, led_columns},
    {"kx_softwaretable", 1, {5}, software_columns},
    {"kx_slotiptable", 3, {5, 7, 1}, slotip_columns},
    {"kx_timemanagementtable", 1, {8}, timemanagement_columns},
    {"kx_mgmfaulttable", 3, {6, 1, 1}, mgmfault_columns},
};

/* ---- groups whose columns map one to one to the daemon's variables ---- */

/* Entry: column - 1. */
constexpr legacymib_var_map_t networksetup_map[] = {
    {56, 0}, {57, 0}, {58, 0}, {59, 0}, {60, 0}, {61, 0}, {62, 0}, {63, 0},
    {64, 0}, {65, 0}, {66, 0}, {67, 0}, {68, 0}, {69, 0}, {70, 0},
};

/* Column 6 has no variable of its own; column 7 is not registered. */
constexpr legacymib_var_map_t hardware_map[] = {
    {39, 0}, {40, 1}, {41, 1}, {42, 1}, {43, 0}, {0, 0}, {45, 0}, {54, 0}, {55, 0}, {75, 0},
};

constexpr legacymib_var_map_t software_map[] = {{46, 0}, {47, 0}, {48, 0},
                                                {49, 0}, {50, 0}, {83, 1}};

constexpr legacymib_var_map_t slotip_map[] = {{81, 0}, {82, 0}, {84, 0}, {85, 1}};

constexpr legacymib_var_map_t timemanagement_map[] = {{76, 0}, {71, 1}, {72, 0}, {73, 1}, {74, 0}};

struct legacymib_mapped_t {
    std::span<const legacymib_var_map_t> map;
    uint32_t rows; /* SCALARS, or rows of the table */
    WriteMethod* write;
};

constexpr legacymib_mapped_t networksetup = {networksetup_map, SCALARS, kx_networksetuptable_write};
constexpr legacymib_mapped_t hardware = {hardware_map, SCALARS, kx_hardwaretable_write};
constexpr legacymib_mapped_t software = {software_map, SCALARS, kx_softwaretable_write};
constexpr legacymib_mapped_t slotip = {slotip_map, TPG_SLOT_MAX, kx_slotiptable_write};
constexpr legacymib_mapped_t timemanagement = {timemanagement_map, SCALARS,
                                               kx_timemanagementtable_write};

/* ---- tables with columns of several sources ---- */

enum class legacymib_source : uint8_t {
    row,      /* number of the row */
    next_row, /* that plus 1 */
    integer,  /* asked of the daemon, as is string */
    string,
};

struct legacymib_fixed_column_t {
    const char* label; /* in the debug output */
    legacymib_source source;
    legacymib_var_map_t var; /* sources integer and string */
    WriteMethod* write;      /* null: read-only */
};

struct legacymib_fixed_t {
    std::span<const legacymib_fixed_column_t> columns;
    uint32_t rows;
};

constexpr legacymib_var_map_t MGM_SEND_TRAP = {52, 1};

constexpr legacymib_fixed_column_t productlocation_sources[] = {
    {"LOCINSTANCE", legacymib_source::row, {}, nullptr},
    {"INSERTIONCOUNTER", legacymib_source::integer, {34, 0}, nullptr},
    {"REMOVALCOUNTER", legacymib_source::integer, {35, 0}, nullptr},
    {"PRODUCTNAME", legacymib_source::string, {36, 0}, nullptr},
    {"PRODUCTSLOTSTART", legacymib_source::next_row, {}, nullptr},
    {"PRODUCTSLOTEND", legacymib_source::next_row, {}, nullptr},
};

/* The second label is the product location table's; whoever reads the output knows it so. */
constexpr legacymib_fixed_column_t led_sources[] = {
    {"LOCINSTANCE", legacymib_source::row, {}, nullptr},
    {"INSERTIONCOUNTER", legacymib_source::integer, {44, 1}, kx_ledtable_write},
};

constexpr legacymib_fixed_column_t mgmfault_sources[] = {
    {"FAULTNAME", legacymib_source::row, {}, nullptr},
    {"SENDTRAP", legacymib_source::integer, MGM_SEND_TRAP, kx_mgmsendtrap_write},
    {"TRAPPRESENT", legacymib_source::integer, {51, 1}, nullptr},
};

constexpr legacymib_fixed_t productlocation = {productlocation_sources, TPG_SLOT_MAX};
constexpr legacymib_fixed_t led = {led_sources, LED_ROWS};
constexpr legacymib_fixed_t mgmfault = {mgmfault_sources, MGMFAULT_ROWS};

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
    oid base[TPG_OID_MAX];
    const size_t base_len = tpg_legacymib_kx_oid(ctx, {group.arcs, group.arc_total}, base);
    /* The library takes every width of its records by this pointer. */
    const auto* columns = reinterpret_cast<const variable*>(group.columns.data());
    const int result =
        register_mib(group.name, columns, sizeof(variable2), group.columns.size(), base, base_len);
    for (const variable2& registered : group.columns) {
        if (result == MIB_REGISTERED_OK && legacymib_inject(base, base_len, registered) != 0) {
            TPG_ERROR(&ctx_local, "%s: no memory, its column %u makes the agent wait", group.name,
                      registered.magic);
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
    ask.shift = type == ASN_INTEGER ? var.is_enum : 0;
    ask.failed = legacymib_absent;
    return ask;
}

/* ---- reading ---- */

/* What the library asks of a read function. */
struct legacymib_find_t {
    variable* vp;
    oid* name;
    size_t* length;
    int exact;
    size_t* var_len;
    WriteMethod** write_method;
};

/* The library copies a value out of the read function's own memory. */
union legacymib_value_t {
    char string[LEGACYMIB_STRING_MAX]; /* not terminated when it fills the buffer */
    uint32_t integer;                  /* an ASN_INTEGER may be 4 bytes long on every host */
};

u_char* var_kx_networksetuptable(variable* vp, oid* name, size_t* length, int exact,
                                 size_t* var_len, WriteMethod** write_method)
{
    static legacymib_value_t value;
    return legacymib_read_mapped(networksetup, &value,
                                 {vp, name, length, exact, var_len, write_method});
}

u_char* var_kx_hardwaretable(variable* vp, oid* name, size_t* length, int exact, size_t* var_len,
                             WriteMethod** write_method)
{
    static legacymib_value_t value;
    return legacymib_read_mapped(hardware, &value,
                                 {vp, name, length, exact, var_len, write_method});
}

u_char* var_kx_softwaretable(variable* vp, oid* name, size_t* length, int exact, size_t* var_len,
                             WriteMethod** write_method)
{
    static legacymib_value_t value;
    return legacymib_read_mapped(software, &value,
                                 {vp, name, length, exact, var_len, write_method});
}

u_char* var_kx_slotiptable(variable* vp, oid* name, size_t* length, int exact, size_t* var_len,
                           WriteMethod** write_method)
{
    static legacymib_value_t value;
    return legacymib_read_mapped(slotip, &value, {vp, name, length, exact, var_len, write_method});
}

u_char* var_kx_timemanagementtable(variable* vp, oid* name, size_t* length, int exact,
                                   size_t* var_len, WriteMethod** write_method)
{
    static legacymib_value_t value;
    return legacymib_read_mapped(timemanagement, &value,
                                 {vp, name, length, exact, var_len, write_method});
}

u_char* var_kx_productlocationtable(variable* vp, oid* name, size_t* length, int exact,
                                    size_t* var_len, WriteMethod** write_method)
{
    static legacymib_value_t value;
    return legacymib_read_fixed(productlocation, &value,
                                {vp, name, length, exact, var_len, write_method});
}

u_char* var_kx_ledtable(variable* vp, oid* name, size_t* length, int exact, size_t* var_len,
                        WriteMethod** write_method)
{
    static legacymib_value_t value;
    return legacymib_read_fixed(led, &value, {vp, name, length, exact, var_len, write_method});
}

u_char* var_kx_mgmfaulttable(variable* vp, oid* name, size_t* length, int exact, size_t* var_len,
                             WriteMethod** write_method)
{
    static legacymib_value_t value;
    return legacymib_read_fixed(mgmfault, &value, {vp, name, length, exact, var_len, write_method});
}

static u_char* legacymib_read_mapped(const legacymib_mapped_t& group, legacymib_value_t* value,
                                     const legacymib_find_t& find)
{
    const size_t number = find.vp->magic;
    if (!legacymib_match(find, group.rows) || number == 0 || number > group.map.size()) {
        return nullptr;
    }
    *find.write_method = find.vp->acl == RWRITE ? group.write : nullptr;

    /* The rows of a table share the values of index 0, though each is written on its own. */
    constexpr uint32_t INDEX = 0;
    const legacymib_var_map_t var = group.map[number - 1];
    switch (find.vp->type) {
    case ASN_OCTET_STR:
        return legacymib_get_string(find, value, var, INDEX);
    case ASN_INTEGER:
        return legacymib_get_integer(find, value, var, INDEX);
    default:
        return nullptr;
    }
}

static u_char* legacymib_read_fixed(const legacymib_fixed_t& table, legacymib_value_t* value,
                                    const legacymib_find_t& find)
{
    if (!legacymib_match(find, table.rows)) {
        return nullptr;
    }
    const size_t number = find.vp->magic;
    if (number == 0 || number > table.columns.size()) {
        snmp_set_detail("Unknown magic number!\n");
        return nullptr;
    }
    const legacymib_fixed_column_t& column = table.columns[number - 1];
    DEBUGMSGTL(("legacymib", "VP Magic Number %s %d\n", column.label, find.vp->magic));
    *find.write_method = column.write;

    const auto row = static_cast<uint32_t>(find.name[*find.length - 1]);
    switch (column.source) {
    case legacymib_source::row:
        return legacymib_give_integer(find, value, row);
    case legacymib_source::next_row:
        return legacymib_give_integer(find, value, row + 1);
    case legacymib_source::integer:
        return legacymib_get_integer(find, value, column.var, row - 1);
    case legacymib_source::string:
        return legacymib_get_string(find, value, column.var, row - 1);
    }
    return nullptr;
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

/* What the library hands to a write function. */
struct legacymib_write_t {
    int action;
    const u_char* val;
    u_char type;
    size_t val_len;
    const oid* name;
    size_t name_len;
};

int kx_networksetuptable_write(int action, u_char* var_val, u_char var_val_type, size_t var_val_len,
                               u_char* /*statP*/, oid* name, size_t name_len)
{
    return legacymib_write_mapped(networksetup,
                                  {action, var_val, var_val_type, var_val_len, name, name_len});
}

int kx_hardwaretable_write(int action, u_char* var_val, u_char var_val_type, size_t var_val_len,
                           u_char* /*statP*/, oid* name, size_t name_len)
{
    return legacymib_write_mapped(hardware,
                                  {action, var_val, var_val_type, var_val_len, name, name_len});
}

int kx_softwaretable_write(int action, u_char* var_val, u_char var_val_type, size_t var_val_len,
                           u_char* /*statP*/, oid* name, size_t name_len)
{
    return legacymib_write_mapped(software,
                                  {action, var_val, var_val_type, var_val_len, name, name_len});
}

int kx_slotiptable_write(int action, u_char* var_val, u_char var_val_type, size_t var_val_len,
                         u_char* /*statP*/, oid* name, size_t name_len)
{
    return legacymib_write_mapped(slotip,
                                  {action, var_val, var_val_type, var_val_len, name, name_len});
}

int kx_timemanagementtable_write(int action, u_char* var_val, u_char var_val_type,
                                 size_t var_val_len, u_char* /*statP*/, oid* name, size_t name_len)
{
    return legacymib_write_mapped(timemanagement,
                                  {action, var_val, var_val_type, var_val_len, name, name_len});
}

/* The LEDs show the board's state: a write is accepted and changes nothing. */
int kx_ledtable_write(int /*action*/, u_char* /*var_val*/, u_char /*var_val_type*/,
                      size_t /*var_val_len*/, u_char* /*statP*/, oid* /*name*/, size_t /*name_len*/)
{
    return SNMP_ERR_NOERROR;
}

int kx_mgmsendtrap_write(int action, u_char* var_val, u_char var_val_type, size_t var_val_len,
                         u_char* /*statP*/, oid* name, size_t name_len)
{
    if (action != ACTION) {
        return SNMP_ERR_NOERROR;
    }
    if (var_val_type != ASN_INTEGER) {
        return SNMP_ERR_GENERR;
    }
    const oid row = name_len > 0 ? name[name_len - 1] : 0;
    if (row == 0 || row > mgmfault.rows) {
        return SNMP_ERR_NOSUCHNAME;
    }
    return legacymib_set_integer(MGM_SEND_TRAP, static_cast<uint32_t>(row - 1),
                                 {action, var_val, var_val_type, var_val_len, name, name_len});
}

static int legacymib_write_mapped(const legacymib_mapped_t& group, const legacymib_write_t& write)
{
    if (write.name_len < 2) {
        return SNMP_ERR_NOSUCHNAME;
    }
    const oid number = write.name[write.name_len - 2];
    const oid row = write.name[write.name_len - 1];
    const bool is_table = group.rows != SCALARS;
    if (number == 0 || number > group.map.size() || (is_table && (row == 0 || row > group.rows))) {
        return SNMP_ERR_NOSUCHNAME;
    }
    if (write.action != ACTION) {
        return SNMP_ERR_NOERROR;
    }
    const legacymib_var_map_t var = group.map[number - 1];
    const uint32_t index = is_table ? static_cast<uint32_t>(row - 1) : 0;
    switch (write.type) {
    case ASN_OCTET_STR:
        return legacymib_set_string(var, index, write);
    case ASN_INTEGER:
        return legacymib_set_integer(var, index, write);
    default:
        return SNMP_ERR_NOERROR;
    }
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
    if (write.val_len == sizeof(wide)) {
        memcpy(&wide, write.val, sizeof(wide));
        *integer = static_cast<uint32_t>(wide);
        return true;
    }
    if (write.val_len == sizeof(*integer)) {
        memcpy(integer, write.val, sizeof(*integer));
        return true;
    }
    return false;
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
