#ifndef TPG_MAIN_OPTIONS_H
#define TPG_MAIN_OPTIONS_H

/* The command line. */

#include "tpg.h"

/* What the command line asks for. */
struct tpg_options_t {
    const char* test_card; /* library path of the test card, or null */
};

/* Prints the help or the version if the command line asks for one; true if it does. */
bool tpg_options_tell(int argc, char** argv);

/* Takes the options, and warns of what it does not know; -1 (logged) on failure. */
int tpg_options_parse(tpg_context_t* ctx, int argc, char** argv, tpg_options_t* options);

#endif
