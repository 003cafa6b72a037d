#ifndef AUTHOR_AGENT_H
#define AUTHOR_AGENT_H

/* The agent's own code in this program, for its word on documents. */

#include "tpg.h"

#include <string>
#include <vector>

/* The agent, with the errors that it said last and the cards that it has. */
struct author_agent_t {
    tpg_context_t ctx;
    std::vector<std::string> lines;
    std::vector<tpg_jsonmib_register_info_t*> cards;
};

/*
 * The program's one agent, with all that it has registered before the first card
 * comes, for either board; it has no master and no log. Never null.
 */
author_agent_t* author_agent_start();

/*
 * Has the agent check a text as the file that it would read, which its errors call
 * name; only they are in lines then. Sets *refused. 0, or -1 with one line on
 * standard error when it could not be asked.
 */
int author_agent_check(author_agent_t* agent, const std::string& name, const std::string& text,
                       bool* refused);

#endif
