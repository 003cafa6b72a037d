/* The SNMP library's messages as lines of the log. */

#include "tpg_log_library.h"

#include "tpg_log.h"
#include "tpg_snmp.h"

#include <net-snmp/agent/agent_callbacks.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <syslog.h>

static int message_cb(int, int, void*, void*);
static int master_cb(int, int, void*, void*);
static void take_line(tpg_context_t*, int, std::string_view);
static bool is_news(std::string_view);

/* Part of each message that the master cannot be reached. */
constexpr std::string_view NO_MASTER = " the agentx master agent ";

/* The last message that the master cannot be reached; empty once it was. */
static char no_master_text[256];

void tpg_log_library_take(tpg_context_t* ctx)
{
    if (get_logh_head() != nullptr) {
        return;
    }
    snmp_enable_calllog();
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, message_cb, ctx);
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, master_cb, ctx);
}

/* Debug output, which only option -D asks for, comes in pieces and in masses: as it is. */
static int message_cb(int major, int minor, void* server_arg, void* client_arg)
{
    (void)major;
    (void)minor;
    const auto* message = static_cast<const snmp_log_message*>(server_arg);
    if (message->priority >= LOG_DEBUG) {
        fputs(message->msg, stderr);
        return SNMPERR_SUCCESS;
    }
    std::string_view rest = message->msg;
    while (!rest.empty()) {
        const size_t length = std::min(rest.find('\n'), rest.size());
        if (length > 0) {
            take_line(static_cast<tpg_context_t*>(client_arg), message->priority,
                      rest.substr(0, length));
        }
        rest.remove_prefix(std::min(length + 1, rest.size()));
    }
    return SNMPERR_SUCCESS;
}

static void take_line(tpg_context_t* ctx, int priority, std::string_view line)
{
    const auto length = static_cast<int>(line.size());
    if (line.find(NO_MASTER) != std::string_view::npos && !is_news(line)) {
        return;
    }
    if (priority <= LOG_ERR) {
        TPG_ERROR(ctx, "%.*s", length, line.data());
    } else if (priority == LOG_WARNING) {
        TPG_WARN(ctx, "%.*s", length, line.data());
    } else {
        TPG_INFO(ctx, "%.*s", length, line.data());
    }
}

/* False for a message about the missing master that repeats the last one. */
static bool is_news(std::string_view line)
{
    const std::string_view begin = line.substr(0, sizeof(no_master_text) - 1);
    if (begin == no_master_text) {
        return false;
    }
    memcpy(no_master_text, begin.data(), begin.size());
    no_master_text[begin.size()] = '\0';
    return true;
}

static int master_cb(int major, int minor, void* server_arg, void* client_arg)
{
    (void)major;
    (void)minor;
    (void)server_arg;
    (void)client_arg;
    no_master_text[0] = '\0';
    return SNMPERR_SUCCESS;
}
