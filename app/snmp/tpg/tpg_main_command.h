#ifndef TPG_MAIN_COMMAND_H
#define TPG_MAIN_COMMAND_H

/*
 * External commands. A tool may hang, hang on to what it is given, or come
 * when the agent is to end: each has a time limit, descriptors 0, 1 and 2, a
 * process group and an environment of its own, and the signals' defaults.
 */

#include "tpg_limits.h"

#include <cerrno>
#include <cstring>

/*
 * Runs a line of the shell, and ends what it leaves behind. 0 when the shell
 * has come to its end, whatever its status, which goes to *status unless that
 * is null: the exit status, or 128 and the signal that killed it. -1 with errno
 * set: ETIMEDOUT when it took too long, ECANCELED when the agent is to end.
 */
int tpg_command_run(const char* command, int* status = nullptr);

/*
 * From now on a signal that asks the agent to end ends a command, too. What
 * handled it before is called as well; call it again when that has changed.
 */
void tpg_command_watch_stop();

/* True when such a signal has come: no further command will run. */
bool tpg_command_stop_asked();

/* Why tpg_command_run failed. */
inline const char* tpg_command_error(int error)
{
    switch (error) {
    case ETIMEDOUT:
        return TPG_COMMAND_TOO_LONG;
    case ECANCELED:
        return "the agent is to end";
    default:
        return strerror(error);
    }
}

#endif
