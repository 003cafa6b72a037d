#ifndef TPG_JSONMIB_LATE_H
#define TPG_JSONMIB_LATE_H

/*
 * Whose answer is it? A request that was given up stays behind as dead on its
 * connection and eats its answer, which may come late or never.
 */

#include "tpg.h"

/* Whose reply is being read; beyond JSONMIB_READS_DEAD, that of dead[value - JSONMIB_READS_DEAD].
 */
constexpr int32_t JSONMIB_READS_UNKNOWN = 0;
constexpr int32_t JSONMIB_READS_FLIGHT = 1;
constexpr int32_t JSONMIB_READS_DEAD = 2;

/* Whose reply begins with head; flight is the request that is out, or null. Some request is dead.
 */
int32_t jsonmib_late_whose(const jsonmib_replies_t* replies, const jsonmib_asked_t* flight,
                           const uint8_t* head);

/* Takes note of how this daemon answers: head is that of the reply to asked. */
void jsonmib_late_learn(jsonmib_replies_t* replies, const jsonmib_asked_t* asked,
                        const uint8_t* head);

/* True when the answer to asked could not be told from that of a dead request. */
bool jsonmib_late_confusable(const jsonmib_replies_t* replies, const jsonmib_asked_t* asked);

/* Adds a dead request; 0, or -1 when there are too many. */
int jsonmib_late_add(jsonmib_replies_t* replies, const jsonmib_asked_t* asked);

/* The dead request at place has had its answer. */
void jsonmib_late_remove(jsonmib_replies_t* replies, uint32_t place);

#endif
