#ifndef TPG_MAIN_H
#define TPG_MAIN_H

/* The agent's life: start-up, event loop, stop. */

#include "tpg.h"

/* Runs the agent; its result is the process's exit status (0, or -1 when it could not start). */
int tpg_main(int argc, char** argv);

/* Event callback of the stopping signals; arg is the context. */
void tpg_levent_stop(int fd, short what, void* arg);

/* Clean-up after the loop. */
void tpg_exit(tpg_context_t* ctx);

/* Takes the board's name ("3100KX" or "3101KX"); aborts when there is none or it is another. */
void tpg_board_select(tpg_context_t* ctx, const char* board);

#endif
