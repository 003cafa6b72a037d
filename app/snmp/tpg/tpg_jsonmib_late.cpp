/* Matches late replies with requests: by the variable that they name, then by their type. */
#include "tpg_jsonmib_late.h"

#include "uevgend_msg_i.h"

#include <algorithm>
#include <cstring>

static bool same_cell(const jsonmib_asked_t* a, const jsonmib_asked_t* b);
static bool names(const uint8_t* head, const jsonmib_asked_t* asked);
static bool types_differ(const jsonmib_replies_t*);
static bool of_type(const jsonmib_replies_t*, const jsonmib_asked_t*, const uint8_t*);
static int32_t whose_by_type(const jsonmib_replies_t*, const jsonmib_asked_t*, const uint8_t*,
                             bool named);

/* The beginning of every reply. */
struct reply_head_t {
    com_msg_head_t head;
    uint32_t ulVarId;
    uint32_t ulIndex;
};
static_assert(offsetof(reply_head_t, ulVarId) ==
              offsetof(uevgend_get_reply_msg_t, ctrl_get_reply.ulVarId));
static_assert(offsetof(reply_head_t, ulIndex) ==
              offsetof(uevgend_set_reply_msg_t, ctrl_set_reply.ulIndex));
static_assert(sizeof(reply_head_t) <= UEVGEND_DATA_OFS);

static reply_head_t head_of(const uint8_t* bytes)
{
    reply_head_t head;
    memcpy(&head, bytes, sizeof(head));
    return head;
}

static bool same_cell(const jsonmib_asked_t* a, const jsonmib_asked_t* b)
{
    return a->var_id == b->var_id && a->index == b->index;
}

/* True when the reply names the variable that was asked for. */
static bool names(const uint8_t* head, const jsonmib_asked_t* asked)
{
    const reply_head_t reply = head_of(head);
    return reply.ulVarId == asked->var_id && reply.ulIndex == asked->index;
}

/* True when a reply's type tells whether it answers a GET or a SET. */
static bool types_differ(const jsonmib_replies_t* replies)
{
    return replies->get_type != 0 && replies->set_type != 0 &&
           replies->get_type != replies->set_type;
}

/* True when the reply has the type that this daemon answers such requests with. */
static bool of_type(const jsonmib_replies_t* replies, const jsonmib_asked_t* asked,
                    const uint8_t* head)
{
    const uint16_t type = head_of(head).head.usMsgType;
    return type == (asked->type == UEVGEND_MSG_GET ? replies->get_type : replies->set_type);
}

int32_t jsonmib_late_whose(const jsonmib_replies_t* replies, const jsonmib_asked_t* flight,
                           const uint8_t* head)
{
    const bool mine = flight != nullptr && names(head, flight);
    bool theirs = false;
    bool only_reads = true;
    for (uint32_t i = 0; i < replies->dead_total; i++) {
        if (names(head, &replies->dead[i])) {
            theirs = true;
            only_reads = only_reads && replies->dead[i].type == UEVGEND_MSG_GET;
        }
    }
    if (mine && !theirs) {
        return JSONMIB_READS_FLIGHT;
    }
    if (mine && flight->type == UEVGEND_MSG_GET &&
        (only_reads || (types_differ(replies) && of_type(replies, flight, head)))) {
        return JSONMIB_READS_FLIGHT; /* an answer to an earlier GET of the cell would do as well */
    }
    return whose_by_type(replies, mine == theirs ? flight : nullptr, head, theirs);
}

/*
 * Picks the request by the reply's type: the oldest dead one of that type,
 * else flight (null when it is out of the question), else the oldest dead one.
 * named: only dead requests whose variable the reply names come into question.
 */
static int32_t whose_by_type(const jsonmib_replies_t* replies, const jsonmib_asked_t* flight,
                             const uint8_t* head, bool named)
{
    int32_t oldest = JSONMIB_READS_UNKNOWN;
    for (uint32_t i = 0; i < replies->dead_total; i++) {
        if (named && !names(head, &replies->dead[i])) {
            continue;
        }
        const int32_t place = JSONMIB_READS_DEAD + static_cast<int32_t>(i);
        if (!types_differ(replies) || of_type(replies, &replies->dead[i], head)) {
            return place;
        }
        oldest = oldest == JSONMIB_READS_UNKNOWN ? place : oldest;
    }
    return flight != nullptr && of_type(replies, flight, head) ? JSONMIB_READS_FLIGHT : oldest;
}

void jsonmib_late_learn(jsonmib_replies_t* replies, const jsonmib_asked_t* asked,
                        const uint8_t* head)
{
    const uint16_t type = head_of(head).head.usMsgType;
    (asked->type == UEVGEND_MSG_GET ? replies->get_type : replies->set_type) = type;
    replies->no_echo = replies->no_echo || !names(head, asked);
}

bool jsonmib_late_confusable(const jsonmib_replies_t* replies, const jsonmib_asked_t* asked)
{
    for (uint32_t i = 0; i < replies->dead_total; i++) {
        const jsonmib_asked_t* dead = &replies->dead[i];
        const bool both_read = dead->type == UEVGEND_MSG_GET && asked->type == UEVGEND_MSG_GET;
        const bool told_by_type = dead->type != asked->type && types_differ(replies);
        if (replies->astray || replies->no_echo ||
            (same_cell(dead, asked) &&
             (both_read ? dead->reply_len != asked->reply_len : !told_by_type))) {
            return true;
        }
    }
    return false;
}

int jsonmib_late_add(jsonmib_replies_t* replies, const jsonmib_asked_t* asked)
{
    if (replies->dead_total == JSONMIB_DEAD_MAX) {
        return -1;
    }
    replies->dead[replies->dead_total++] = *asked;
    return 0;
}

void jsonmib_late_remove(jsonmib_replies_t* replies, uint32_t place)
{
    std::copy(replies->dead + place + 1, replies->dead + replies->dead_total,
              replies->dead + place);
    replies->dead_total--;
}
