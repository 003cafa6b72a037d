#ifndef TPG_JSONMIB_LATE_H
#define TPG_JSONMIB_LATE_H

/*
 * Tells which request a reply answers. A request that was given up stays on
 * its connection's list as dead, because its answer may still come; that
 * answer is then matched with the dead request and thrown away.
 */

#include "tpg.h"

/* Which request a reply answers: not known yet, the one that is out, or, from JSONMIB_READS_DEAD
 * on, the dead request dead[value - JSONMIB_READS_DEAD]. */
constexpr int32_t JSONMIB_READS_UNKNOWN = 0;
constexpr int32_t JSONMIB_READS_FLIGHT = 1;
constexpr int32_t JSONMIB_READS_DEAD = 2;

/*
 * Returns which request (JSONMIB_READS_...) the reply that begins with head
 * answers. flight is the request that is out, or null. To be called only while
 * there are dead requests.
 */
int32_t jsonmib_late_whose(const jsonmib_replies_t* replies, const jsonmib_asked_t* flight,
                           const uint8_t* head);

/* Notes the type that this daemon answers with, and whether it repeats the variable: head is the
 * head of the reply to asked. */
void jsonmib_late_learn(jsonmib_replies_t* replies, const jsonmib_asked_t* asked,
                        const uint8_t* head);

/* True when the answer to asked could not be told from that of a dead request. */
bool jsonmib_late_confusable(const jsonmib_replies_t* replies, const jsonmib_asked_t* asked);

/* Adds a dead request; 0, or -1 when there are JSONMIB_DEAD_MAX already. */
int jsonmib_late_add(jsonmib_replies_t* replies, const jsonmib_asked_t* asked);

/* Removes the dead request at place (below dead_total), whose answer has come. */
void jsonmib_late_remove(jsonmib_replies_t* replies, uint32_t place);

#endif
