#ifndef TPG_H
#define TPG_H

/*
 * The agent's records: the one context that holds its whole state, a slot's
 * registration, a card's tables, a connected client. Data only; what may be
 * called stands in the header of the module that does it.
 */

#include "linux_list.h"
#include "tpg_limits.h"
#include "tpg_msg_i.h"

#include <cstddef>
#include <cstdint>
#include <ctime>

struct bufferevent;
struct evconnlistener;
struct event;
struct event_base;
struct json_object;
struct netsnmp_handler_registration_s;
struct netsnmp_tdata_row_s;
struct netsnmp_tdata_s;

struct tpg_context_t;
struct tpg_jsonmib_register_info_t;

/* Built-in documents, named after the product. */
constexpr char TPG_BUILT_IN_DIR[] = "/var/built_in_jsonmib";
/* Send-trap switches, one directory a card slot. */
constexpr char TPG_FLASH_DIR[] = "/mnt/flash0/cards";
/* Its presence at start raises the log level. */
constexpr char TPG_DEBUG_MARKER[] = "/tmp/.tpg_debug";

/* A card's identity is kept as its update message carried it. */
using tpg_libmib_register_info_t = tpg_libmib_update_t;

enum class tpg_board_t : int32_t {
    kx3100 = 0,
    kx3101 = 1,
};

/* ---- tables of a card ---- */

/* jsonmib_index_info_t.flags */
constexpr uint32_t JSONMIB_INDEX_SLOT = 1U << 0; /* the value is a card slot */

struct jsonmib_index_info_t {
    uint32_t range[2]; /* lowest and highest value */
    uint32_t flags;
};

/* jsonmib_table_param_info_t.type; every other code is read like a string and never written */
constexpr uint8_t JSONMIB_TYPE_INT = 1;
constexpr uint8_t JSONMIB_TYPE_INT_SHIFTED = 2; /* card value v is SNMP value v + 1 */
constexpr uint8_t JSONMIB_TYPE_STRING = 3;

/* jsonmib_table_param_info_t.access */
constexpr uint8_t JSONMIB_ACCESS_RO = 1;
constexpr uint8_t JSONMIB_ACCESS_RW = 2;

/* jsonmib_table_param_info_t.flags */
constexpr uint8_t JSONMIB_PARAM_INDEX = 1U << 0; /* served from the row's index values */

/* What stands behind a column's cells. */
enum class jsonmib_kind_t : uint8_t {
    variable,    /* one of the card's */
    fault_state, /* of a fault table: the card's, counted from 0 */
    send_trap,   /* of a fault table: the agent's own switch */
};

/* How a column's values are read and written. */
struct jsonmib_coding_t {
    uint8_t served;     /* ASN_INTEGER, 4 bytes on the card, or ASN_OCTET_STR */
    uint8_t accepted;   /* of these two, what a manager may write; ASN_NULL: neither */
    int32_t shift;      /* what the SNMP value is above the card's */
    int32_t shift_from; /* written values below this go to the card as they are */
};

/* One column of a table: what its document says, and what that makes it. */
struct jsonmib_table_param_info_t {
    uint8_t type;
    uint8_t access;
    uint8_t flags;
    uint32_t var_id;  /* the card's number of the variable */
    int32_t range[2]; /* integers: lowest, highest; strings: [1] is the longest length */
    jsonmib_kind_t kind;
    jsonmib_coding_t coding;
};

/* How a fault table's rows become trap numbers. */
struct jsonmib_table_trap_info_t {
    uint32_t fault_present_var_id;
    uint32_t specific_start;
    uint32_t index_ofs_1;
    uint32_t index_ofs_2;
};

/* jsonmib_table_info_t.flags */
constexpr uint32_t JSONMIB_TABLE_FAULT = 1U << 0;

/* The row that answers a request, and what else the iterator is shown meanwhile. */
struct jsonmib_seek_t {
    bool active;
    bool found;            /* false: no row answers */
    uint32_t aloud;        /* rows that are stepped through on the way to it, with debug texts */
    uint32_t stepped;      /* of them */
    uint32_t passed_slots; /* bit n: the rows of slot n are not there */
    uint32_t values[JSONMIB_INDEX_MAX + 1];
};

/* A card table; owned by the handlers of its registration, which count their references. */
struct jsonmib_table_info_t {
    tpg_jsonmib_register_info_t* jsonmib_reginfo; /* the card it belongs to */
    char name[JSONMIB_NAME_MAX];                  /* not terminated when 64 characters long */
    uint32_t oid[TPG_OID_MAX];
    uint32_t oid_len;
    uint32_t flags;
    uint8_t index_total;                                    /* listed indexes; fault tables only */
    jsonmib_index_info_t index_info[JSONMIB_INDEX_MAX + 1]; /* listed ones, then the slot */
    uint32_t param_total;
    jsonmib_table_param_info_t* param_info;
    jsonmib_table_trap_info_t trap_info;                           /* fault tables only */
    uint8_t send_trap_storage[TPG_SLOT_MAX][JSONMIB_SENDTRAP_ROW]; /* row: slot - 1 */
    tpg_context_t* tpg_context;
    uint8_t index_used;                       /* SNMP indexes of the registered table */
    uint8_t index_pos[JSONMIB_INDEX_MAX + 1]; /* their positions in index_info */
    uint32_t refcnt;                          /* handlers that share the record */
    jsonmib_seek_t seek;
};

/* ---- withdrawn tables ---- */

/* Registrations that have outlived their tables. */
struct jsonmib_tombs_t {
    netsnmp_handler_registration_s* registration[JSONMIB_TOMB_MAX]; /* oldest first */
    uint32_t total;
    uint32_t alarm;    /* the library's number of the sweep; 0 for none */
    uint32_t requests; /* that the agent had served at the last look */
};

/* ---- trap bindings of a card ---- */

/* Trap-specific numbers, both ends inclusive. */
struct specific_range_t {
    uint16_t low;
    uint16_t high;
};

struct jsonmib_trap_bindings_info_t {
    uint32_t oid_len;
    uint32_t oid[TPG_OID_MAX];
    uint32_t specific_list_len;
    specific_range_t* specific_list;
};

/* ---- registration of a slot ---- */

/* What the flash has of a slot's send-trap document. */
enum class tpg_db_state : uint8_t {
    saved,
    unsaved, /* some changes are missing */
    fresh,   /* it has never been saved */
};

/*
 * All zero when the slot is empty. On a master slot_ref_mask has bit n set for
 * every slot n it serves and actual_reginfo is the record itself; a card that
 * only references a master has mask 0 and actual_reginfo set to the master.
 */
struct tpg_jsonmib_register_info_t {
    tpg_libmib_register_info_t libmib_reginfo;
    uint32_t slot_ref_mask;
    tpg_jsonmib_register_info_t* actual_reginfo;
    uint32_t gen_table_reginfo_sum;
    netsnmp_handler_registration_s** gen_table_reginfo;
    uint32_t fault_table_reginfo_sum;
    netsnmp_handler_registration_s** fault_table_reginfo;
    jsonmib_table_info_t** fault_json_table; /* same order as fault_table_reginfo */
    uint32_t enterprise_oid[TPG_OID_MAX];
    uint32_t enterprise_oid_len;
    uint32_t instslot_oid[TPG_OID_MAX];
    uint32_t instslot_oid_len;
    json_object* sendtrap_json_db; /* owned */
    tpg_db_state sendtrap_state;
    uint32_t trap_bindings_len;
    jsonmib_trap_bindings_info_t* trap_bindings_info; /* owned, with every specific_list */
};

/* ---- control channel ---- */

struct jsonmib_ipc_info_t {
    uint8_t connected;
    uint16_t reserved;
    int32_t fd;   /* 0 or less: the slot has no socket */
    event* watch; /* reports what comes on fd; null outside the event loop */
};

/* A request as its reply tells of it. */
struct jsonmib_asked_t {
    uint16_t type; /* of the request */
    uint32_t var_id;
    uint32_t index;
    uint32_t reply_len; /* in bytes */
};

/* What a connection's replies are told apart by. */
struct jsonmib_replies_t {
    uint32_t dead_total;
    jsonmib_asked_t dead[JSONMIB_DEAD_MAX]; /* timed out, in the order sent */
    uint16_t get_type;                      /* of the replies to GETs and to SETs; 0: none came */
    uint16_t set_type;
    bool no_echo; /* a reply did not name the variable that was asked for */
    bool astray;  /* an answer may have been taken for another request's */
};

struct jsonmib_exchange_t;

/* What a slot's daemon is asked: one request at a time, the others wait. */
struct jsonmib_queue_t {
    jsonmib_exchange_t* first; /* waiting to be sent, in their order; each is its owner's */
    jsonmib_exchange_t* last;
    bool in_flight;            /* a request is out; its answer, or 5 s, end that */
    jsonmib_asked_t flight;    /* what it asked for */
    jsonmib_exchange_t* owner; /* whose it is; null: nobody waits for the answer any more */
    int64_t sent_at;           /* times are in microseconds of the monotonic clock */
    int64_t heard_at;          /* the last byte came */
    bool heard;                /* some byte has come since sent_at */
    bool ate_dead;             /* a dead request's answer has come since sent_at */
    jsonmib_replies_t replies;
    alignas(uint32_t) uint8_t head[24]; /* the beginning of the reply that is being read */
    uint32_t got;                       /* bytes of that reply */
    int32_t reading;                    /* whose it is */
    bool silent;                        /* the daemon let 5 s pass without a byte */
    bool down;                          /* there is no daemon */
    bool quick;                         /* its last answer took no time worth speaking of */
    int64_t connecting_since;           /* its backlog is full; 0: it is not */
    int64_t walked_at;                  /* when a walk last asked an unreadable slot */
    int64_t away_since;                 /* the daemon has given no answer; 0: it is there */
    uint32_t away_failed;               /* requests that have failed meanwhile */
    event* timer;
    int64_t timer_at; /* 0: not running */
};

/* Requests of managers that are answered later, as a whole. */
struct jsonmib_later_t {
    bool loop_busy;        /* what runs must not enter the event loop: that called it, or the
                              registry is being changed */
    uint32_t waiting;      /* SETs that wait for their card, each inside the one before */
    bool answered;         /* some cells are complete, the library has not been told */
    bool closed;           /* no cell may ask a card: the registry is about to change */
    bool skip_unreadable;  /* a walk goes past the cells that cannot be read */
    int64_t settled_until; /* what is left of the time for settling; 0: all of it */
};

/* ---- what operators are told of a slot ---- */

/* Where a card's document came from, and what operators read of it. */
enum class jsonmib_source_t : uint8_t { none, library, built_in, reverse, file };
constexpr const char* JSONMIB_SOURCE_NAMES[] = {nullptr, "library", "built-in", "reverse", "file"};

enum class jsonmib_daemon_t : uint8_t { idle, connected, down, silent };

constexpr uint32_t JSONMIB_TIMES_COLUMNS = 6; /* of 10 s: a minute */
constexpr uint32_t JSONMIB_TIMES_STEPS = 176; /* eight in each doubling, up to 2^24 us */

/* Answers that came in one stretch of 10 s, by the time they took. */
struct jsonmib_times_t {
    int64_t stretch;  /* its number */
    uint32_t largest; /* in microseconds */
    uint32_t count[JSONMIB_TIMES_STEPS];
};

/* Counted from the agent's start on, whatever card is in the slot. */
struct jsonmib_stats_t {
    uint64_t asked;  /* exchanges with the daemon */
    uint64_t failed; /* those that came to nothing, or to the daemon's refusal */
    uint64_t traps_sent;
    uint64_t traps_kept_back; /* by a switch */
    const char* why;          /* what may be the reason of the next failure */
    const char* failed_why;   /* the last failure: its reason, its result, when */
    int failed_result;
    time_t failed_at;
    bool hung_up; /* the last connection was ended by the daemon */
    jsonmib_daemon_t daemon;
    time_t daemon_since; /* 0: from the start */
    jsonmib_source_t source;
    jsonmib_times_t times[JSONMIB_TIMES_COLUMNS];
};

/* The session with the master agent. */
struct tpg_master_link_t {
    bool connected;
    time_t since;
};

/* ---- operators ---- */

struct tpg_control_peer_t {
    tpg_context_t* ctx;
    bufferevent* bev; /* owns the descriptor; null: nobody is connected */
    bool ended;       /* it sends nothing more */
    bool closing;     /* it gets what is left of its answer, and is not listened to */
};

struct tpg_control_t {
    evconnlistener* listener;
    const char* path; /* where it listens */
    tpg_control_peer_t peers[TPG_CONTROL_PEERS];
};

/* ---- clients ---- */

/* What a client did while a SET was being carried out, or while an earlier connection of its card
 * was being ended; it is seen to afterwards. */
struct tpg_held_t {
    bool message; /* it sent update, of which it has been told that it came */
    tpg_msg_libmib_update_t update;
    bool end; /* its connection has ended, and all that came over it has been served */
};

struct tpg_ipc_clnt_t {
    list_head node; /* in ipc_clnt_list */
    int32_t acc_fd;
    uint32_t clnt_pid;        /* from its first message; 0 until then */
    uint32_t libmib_reg_slot; /* first card registered; 0 for none */
    bufferevent* bev;         /* owns the descriptor */
    tpg_context_t* ctx;
    event* rdcb_timer;
    int32_t remote;
    tpg_held_t held;
    short end_events; /* of the connection's end, before which what came is served; 0: it goes on */
    int end_error;    /* errno that came with them */
};

/* tpg_read_st.state */
constexpr int32_t TPG_READ_HEADER = 0;
constexpr int32_t TPG_READ_PAYLOAD = 1;

/* The message being read; one for all connections, since clients write each message whole. */
struct tpg_read_st {
    alignas(uint64_t) uint8_t buf[TPG_MSG_MAX];
    int32_t wr_idx;
    int32_t rd_idx;
    int32_t sum;
    int32_t state;
};

/* ---- SNMP library's descriptors on the event loop ---- */

struct tpg_lev_snmpfd_t {
    list_head ev_node;
    event* ev;
    tpg_context_t* ctx;
    bool pipe;   /* one of those on which the library sends messages to itself */
    bool ready;  /* there is something to read */
    bool paused; /* not watched until it has been read */
};

/* ---- log ---- */

/* A place in the source, as the lines about one slot come from it. */
struct tpg_log_place_t {
    const char* file; /* null: never used */
    int32_t line;
    uint8_t slot;       /* 0: about none */
    uint8_t level;      /* of what was left out */
    bool shared;        /* by others, which found no room */
    uint32_t left_out;  /* lines that no sum has told of */
    int64_t paid_until; /* in milliseconds; every line written moves it on, time catches up */
    char last[TPG_LOG_LAST_MAX]; /* the beginning of the last line left out */
};

enum class tpg_log_level : int;

/* Takes the text of a message from the agent, which is printable, with the context's argument. */
using tpg_log_taker_t = void (*)(void* arg, tpg_log_level level, const char* text);

/* How much each of them may write. */
struct tpg_log_limit_t {
    tpg_log_place_t places[TPG_LOG_SETS][TPG_LOG_WAYS];
    uint32_t slot;  /* that is being served; 0 for none */
    int64_t sum_at; /* when the lines left out are summed up; 0: there are none */
    event* timer;
    bool timer_runs;
};

/* ---- inventory ---- */

/* One row of the inventory; what its texts and numbers mean, ENTITY-MIB tells. */
struct tpg_entity_row_t {
    netsnmp_tdata_row_s* entry; /* the library's; null: the row is not there */
    long index;
    long kind;
    long contained_in;
    long position;
    bool replaceable;
    char descr[64];
    char name[16];
    char software[32];
    char serial[24];
    char model[24];
};

struct tpg_entity_t {
    bool wanted; /* by the configuration */
    netsnmp_tdata_s* table;
    tpg_entity_row_t chassis;
    tpg_entity_row_t slots[TPG_SLOT_MAX]; /* slot - 1 */
    tpg_entity_row_t cards[TPG_SLOT_MAX]; /* slot - 1 */
    unsigned long last_change;            /* the agent's uptime then, in hundredths of a second */
    event* timer;                         /* runs while no change may be told */
    bool untold;                          /* there has been one since */
};

/* ---- the agent ---- */

/* What the service manager is told. */
struct tpg_notify_t {
    bool wanted, ready, due;  /* somebody listens, was told so, waits for a sign of life */
    bool master, told_master; /* the master is connected; as it was last told */
    uint32_t slots;           /* with a card, as was last told; bit n-1 for slot n */
    event* life;              /* lets the loop turn, as often as the watchdog wants */
    event* status;            /* tells a change, with those that come with it */
};

struct tpg_context_t {
    uint8_t log_level;
    uint8_t log_console;
    char reserved[2];
    tpg_log_taker_t log_taker; /* gets every message, which then goes nowhere else; may be null */
    void* log_taker_arg;
    tpg_board_t base_board_type;
    uint32_t mib_kx_node_oid;
    const char* board_name;
    event_base* levent_base;
    list_head lev_snmp_fd_list;
    event* lev_snmp_timeout;
    evconnlistener* svr_listener;
    list_head ipc_clnt_list;
    jsonmib_ipc_info_t jsonmib_ipc_info[TPG_SLOT_MAX]; /* slot - 1 */
    jsonmib_queue_t jsonmib_queue[TPG_SLOT_MAX];       /* slot - 1 */
    jsonmib_later_t jsonmib_later;
    jsonmib_stats_t jsonmib_stats[TPG_SLOT_MAX]; /* slot - 1 */
    tpg_jsonmib_register_info_t jsonmib_reg_info_cardmib;
    tpg_jsonmib_register_info_t jsonmib_reg_info[TPG_SLOT_MAX]; /* slot - 1 */
    jsonmib_tombs_t jsonmib_tombs;
    tpg_read_st read_proc;
    int snmp_fds_dropped;    /* from lev_snmp_fd_list, since the last summary */
    bool snmp_talked;        /* to the master, in this turn of the loop, unasked */
    timeval snmp_timer_at;   /* when the SNMP timer runs out, of the monotonic clock; 0: not set */
    bool snmp_timer_due;     /* the SNMP timer has run out and waits for the loop's turn */
    uint32_t ipc_clnt_total; /* entries of ipc_clnt_list */
    uint32_t ipc_clnt_held;  /* those among them with something held */
    event* svr_retry_timer;  /* opens the listener again after it ran out of descriptors */
    tpg_entity_t entity;
    tpg_log_limit_t log_limit;
    tpg_notify_t notify;
    time_t started;
    int64_t started_us; /* of the monotonic clock */
    tpg_master_link_t master_link;
    tpg_control_t control;
};

/* The one instance. */
extern tpg_context_t ctx_local;

#endif
