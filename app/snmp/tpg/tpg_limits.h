#ifndef TPG_LIMITS_H
#define TPG_LIMITS_H

/*
 * How much there may be of anything, and how long the agent waits for others.
 * What follows from a message's layout stands with the layout, in lib/include.
 */

#include "common_msg.h"

#include <cstddef>
#include <cstdint>

/* ---- names ---- */

constexpr uint32_t TPG_OID_MAX = 128; /* sub-identifiers of any OID */

/* Paths and commands are formatted into buffers of this size. */
constexpr size_t TPG_CMD_MAX = 256;
constexpr char TPG_CMD_TOO_LONG[] = "File name too long: a command has at most 255 characters";
static_assert(TPG_CMD_MAX == 256, "the text above has this number");

/* ---- a card's document and library ---- */

/* Documents above this size are refused. */
constexpr size_t TPG_FILE_MAX = size_t{4} * 1024 * 1024;
constexpr uint32_t JSONMIB_INDEX_MAX = 5;    /* indexes a table may list */
constexpr uint32_t JSONMIB_CARD_INDEXES = 2; /* of them, those that a card can be asked for */
constexpr uint32_t JSONMIB_NAME_MAX = 64;    /* characters of a table's name */

constexpr size_t TPG_SYMBOL_NAME_MAX = 64; /* of a library, with its terminating zero */
/* Libraries with a larger data section are refused. */
constexpr uint32_t TPG_DATA_SECTION_MAX = 64U * 1024 * 1024;
constexpr int TPG_COMMAND_SECONDS = 5; /* that a command may take */
constexpr char TPG_COMMAND_TOO_LONG[] = "it took more than 5 s";
static_assert(TPG_COMMAND_SECONDS == 5, "the text above has this number");
/* Milliseconds for a killed command to go; one that hangs in the kernel takes longer. */
constexpr int64_t TPG_COMMAND_KILL_MS = 200;

/* ---- cells ---- */

constexpr uint32_t JSONMIB_CELL_MAX = 256; /* longest string value of a card's table, in bytes */
/* The same of the board's fixed tables, which may not be terminated then. */
constexpr size_t LEGACYMIB_STRING_MAX = 128;

/* What a manager's request has in all, in microseconds: the master gives up after 12 s. */
constexpr int64_t JSONMIB_CELL_US = 10000000;
/* A daemon has so long for its reply, or for more of it, in microseconds. */
constexpr int64_t JSONMIB_REPLY_US = 5000000;
/* What waits for a card may take so long to be complete before the registry changes. */
constexpr int64_t JSONMIB_SETTLE_US = 250000;

/* Cells that a walk goes past in one request, as they cannot be read, without a turn of the event
 * loop between any two. */
constexpr uint32_t JSONMIB_PASSED_MAX = 16;
/* Rows whose debug texts lead to the one that is sought: of a small table every row, of the
 * largest not more than somebody can read. */
constexpr uint32_t JSONMIB_ALOUD_MAX = 128;

/* ---- send-trap switches ---- */

/* Of a table and a slot, in bytes; each byte holds four, in its low bits. */
constexpr uint32_t JSONMIB_SENDTRAP_ROW = 1024;
constexpr uint32_t JSONMIB_SENDTRAP_PER_BYTE = 4;
constexpr uint32_t JSONMIB_SENDTRAP_POSITIONS = JSONMIB_SENDTRAP_ROW * JSONMIB_SENDTRAP_PER_BYTE;
/* A notify for a row whose position is above this one is refused. */
constexpr uint32_t TPG_TRAP_FLAT_INDEX_MAX = 4099;

/* ---- connections ---- */

/* Requests of a daemon's connection that were never answered; with one more it is given up. */
constexpr uint32_t JSONMIB_DEAD_MAX = 16;

/* Clients beyond this many are refused. */
constexpr uint32_t TPG_CLIENTS_MAX = 256;
/* What a client may have waiting in the agent, in bytes; the rest waits in its socket. */
constexpr size_t TPG_CLIENT_INPUT_MAX = size_t{64} * 1024;
constexpr size_t TPG_CLIENT_OUTPUT_MAX = size_t{16} * 1024;
/* Descriptors that clients leave to the SNMP library, the control channels and files. */
constexpr uint32_t TPG_RESERVED_FDS = 64;
/* One turn of serving what a connection that has ended left behind, in microseconds. */
constexpr int64_t TPG_CLIENT_REST_US = 1000;

constexpr uint32_t TPG_CONTROL_PEERS = 4; /* operators that are served at a time */
constexpr int TPG_CONTROL_BACKLOG = 8;    /* that wait to be */
constexpr int TPG_CONTROL_DEPTH = 4;      /* objects inside one another in a request */
constexpr long TPG_CONTROL_IDLE_S = 30;   /* seconds without a request */
constexpr long TPG_CONTROL_SEND_S = 5;    /* seconds until an answer is taken */
/* Answers that an operator may leave unread, in bytes. */
constexpr size_t TPG_CONTROL_OUTPUT_MAX = size_t{64} * 1024;

/* Tables that have gone, but not yet from the master's view. */
constexpr uint32_t JSONMIB_TOMB_MAX = 512;

/* ---- log ---- */

constexpr size_t TPG_LOG_TEXT_MAX = 2048; /* longer texts are cut */
constexpr int64_t TPG_LOG_SUM_MS = 1000;  /* from the first line that is left out to the sum */
constexpr uint32_t TPG_LOG_SETS = 64;     /* a place has its set, and in it room for some */
constexpr uint32_t TPG_LOG_WAYS = 8;
constexpr size_t TPG_LOG_LAST_MAX = 96;
/*
 * A place may write so many lines about a slot at once: 64 tables of a card, or
 * what is wrong with one document, are told of in full. Each line is made up for
 * in the time that follows.
 */
constexpr int64_t TPG_LOG_BURST = 512;
constexpr int64_t TPG_LOG_LINE_MS = 200;

constexpr int TPG_DEBUG_TOKENS = 8;        /* of option -d */
constexpr size_t TPG_DEBUG_TOKEN_LEN = 32; /* with its terminating zero */

#endif
