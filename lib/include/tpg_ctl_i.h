#ifndef TPG_CTL_I_H
#define TPG_CTL_I_H

/*
 * The operators' socket: where it is, and how long a line on it may be. A
 * request is one JSON object in a line, and so is its answer.
 */

#include <cstddef>

/* The second serves where the first cannot be made. */
constexpr char TPG_CTL_PATH[] = "/run/tpg.ctl";
constexpr char TPG_CTL_PATH_TMP[] = "/tmp/.tpg_ctl";

/* A request, with its line feed. */
constexpr size_t TPG_CTL_REQUEST_MAX = 1024;

#endif
