#ifndef FAULT_CALLS_H
#define FAULT_CALLS_H

/* The linker sends the agent's calls here: each goes on to the real function, or fails. */

#include "tpg_snmp.h"

#include <cerrno>
#include <cstdio>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <json-c/json.h>
#include <poll.h>
#include <sys/socket.h>
#include <type_traits>

enum class fault_kind {
    none,
    alloc,
    file,
    socket,
    library,
};

/* What fails: the call of the kind that brings left to 0, and no other. */
static struct {
    fault_kind kind;
    int left;
    bool agent; /* the agent runs; the test's own calls never fail */
    int in_loop;
} fault_state;

/* What follows this in the log belongs to the failure. */
constexpr char FAULT_MARK[] = "FAULT ";

/* Runs action as the agent. */
template <typename action_t> void as_agent(action_t action)
{
    fault_state.agent = true;
    action();
    fault_state.agent = false;
}

/* True when this call is the one that fails; it is then marked in the log, and errno set. */
static bool fault_strikes(fault_kind kind, const char* name, const char* subject)
{
    if (!fault_state.agent || kind != fault_state.kind || --fault_state.left != 0) {
        return false;
    }
    fprintf(stderr, "%s%s %s\n", FAULT_MARK, name, subject);
    errno = kind == fault_kind::file ? EIO : kind == fault_kind::socket ? ENOBUFS : ENOMEM;
    return true;
}

/* The path, command or name that a call is about. */
template <typename first_t = int, typename... rest_t>
static const char* fault_subject(first_t first = {}, rest_t...)
{
    if constexpr (std::is_same_v<first_t, const char*>) {
        return first;
    }
    return "";
}

/* A row of switches is 1024 such calls: some of them stand for all. */
static bool fault_sample()
{
    constexpr int STEP = 101;
    return fault_state.agent && fault_state.in_loop++ % STEP == 0;
}

// NOLINTBEGIN(bugprone-macro-parentheses): types and lists in parentheses
#define FAULT_OR(instead, condition, kind, name, type, failed, params, args)                       \
    extern "C" __attribute__((weak)) type __real_##name params;                                    \
    extern "C" type __wrap_##name params;                                                          \
    extern "C" type __wrap_##name params                                                           \
    {                                                                                              \
        if ((condition) && fault_strikes(fault_kind::kind, #name, fault_subject args)) {           \
            return failed;                                                                         \
        }                                                                                          \
        instead;                                                                                   \
        return __real_##name args;                                                                 \
    }
// NOLINTEND(bugprone-macro-parentheses)
#define FAULT_IF(...) FAULT_OR(, __VA_ARGS__)
#define FAULT(...)    FAULT_IF(true, __VA_ARGS__)
/* Nothing has come yet when the agent looks without waiting, so that it goes on to wait. */
#define FAULT_IN_LOOP(...) FAULT_IF(fault_sample(), __VA_ARGS__)
/* A value that fits the variable takes no memory. */
#define FAULT_LARGE(...) FAULT_IF(size > sizeof(netsnmp_variable_list::buf), __VA_ARGS__)
#include "fault_calls.inc"

#endif
