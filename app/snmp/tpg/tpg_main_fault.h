#ifndef TPG_MAIN_FAULT_H
#define TPG_MAIN_FAULT_H

/* A crash ends the agent: signals that a faulting instruction raises, as against sent ones. */

/*
 * To be called after the event loop's own handlers stand. From then on a
 * genuine SIGSEGV, SIGBUS, SIGILL or SIGFPE removes the client socket, leaves
 * one line in the log and ends the process with that signal; one that somebody
 * sent still reaches the handler that stood before.
 */
void tpg_fault_handler_install();

#endif
