/* The agent's state as a table. */

#include "tpgctl.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <vector>

using row_t = std::vector<std::string>;

constexpr char NONE[] = "-";

static std::string text_of(json_object* object, const char* key)
{
    json_object* value = ctl_member(object, key);
    const std::string text = value == nullptr ? "" : json_object_get_string(value);
    return text.empty() ? NONE : text;
}

/* Seconds in the largest unit that they fill, such as "3h". */
static std::string age_of(int64_t seconds)
{
    constexpr struct {
        int64_t seconds;
        char name;
    } UNITS[] = {{86400, 'd'}, {3600, 'h'}, {60, 'm'}};
    seconds = std::max<int64_t>(seconds, 0);
    for (const auto& unit : UNITS) {
        if (seconds >= unit.seconds) {
            return std::to_string(seconds / unit.seconds) + unit.name;
        }
    }
    return std::to_string(seconds) + 's';
}

/* How long ago a date of the agent's was. */
static std::string age_of(json_object* object, const char* key)
{
    tm parts = {};
    const std::string date = text_of(object, key);
    if (strptime(date.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts) == nullptr) {
        return NONE;
    }
    return age_of(static_cast<int64_t>(time(nullptr) - timegm(&parts)));
}

/* Milliseconds with as many digits as tell something. */
static std::string ms_of(json_object* daemon, const char* key)
{
    json_object* value = ctl_member(daemon, key);
    if (value == nullptr) {
        return NONE;
    }
    const double ms = json_object_get_double(value);
    char text[32];
    snprintf(text, sizeof(text), "%.*f", ms < 1 ? 2 : ms < 100 ? 1 : 0, ms);
    return text;
}

static std::string role_of(json_object* slot)
{
    const std::string role = text_of(slot, "role");
    return role == "reference" ? "of " + text_of(slot, "master_slot")
           : role == NONE      ? "failed"
                               : role;
}

static row_t row_of(json_object* slot)
{
    json_object* daemon = ctl_member(slot, "daemon");
    json_object* traps = ctl_member(slot, "traps");
    return {text_of(slot, "slot"),
            text_of(slot, "product"),
            text_of(slot, "family"),
            text_of(slot, "version"),
            text_of(slot, "serial"),
            role_of(slot),
            text_of(slot, "source"),
            text_of(slot, "tables") + "/" + text_of(slot, "rows"),
            text_of(daemon, "state") + " " + age_of(daemon, "since"),
            text_of(daemon, "requests"),
            text_of(daemon, "failures"),
            text_of(daemon, "waiting"),
            ms_of(daemon, "ms_median"),
            ms_of(daemon, "ms_max"),
            text_of(traps, "sent"),
            text_of(traps, "kept_back")};
}

/* The first columns are words, the others numbers, but for the daemon's. */
static std::string table_of(const std::vector<row_t>& rows)
{
    std::vector<size_t> widths(rows[0].size());
    for (const row_t& row : rows) {
        for (size_t i = 0; i < row.size(); i++) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    constexpr size_t SLOT = 0;
    constexpr size_t TABLES = 7;
    constexpr size_t DAEMON = 8;
    std::string text;
    for (const row_t& row : rows) {
        for (size_t i = 0; i < row.size(); i++) {
            const std::string gap(widths[i] - row[i].size(), ' ');
            const bool number = i == SLOT || (i >= TABLES && i != DAEMON);
            text += i == 0 ? "" : " ";
            text += number ? gap + row[i] : row[i] + gap;
        }
        text.erase(text.find_last_not_of(' ') + 1);
        text += '\n';
    }
    return text;
}

std::string ctl_status_text(json_object* status)
{
    json_object* master = ctl_member(status, "master");
    json_object* slots = ctl_member(status, "slots");
    const bool connected = json_object_get_boolean(ctl_member(master, "connected")) != 0;
    std::string text = "board " + text_of(status, "board") + ", tpg " + text_of(status, "version") +
                       ", up " + age_of(json_object_get_int64(ctl_member(status, "uptime_s"))) +
                       ", log level " + text_of(status, "log_level") + "\n" + "master " +
                       (connected ? "connected" : "not connected") + " since " +
                       text_of(master, "since") + "\n\n";
    std::vector<row_t> rows = {{"SLOT", "PRODUCT", "FAMILY", "VERSION", "SERIAL", "ROLE", "SOURCE",
                                "TAB/ROWS", "DAEMON", "ASKED", "FAILED", "WAIT", "MS MED", "MAX",
                                "TRAPS", "KEPT"}};
    std::string errors;
    for (size_t i = 0; i < json_object_array_length(slots); i++) {
        json_object* slot = json_object_array_get_idx(slots, i);
        rows.push_back(row_of(slot));
        const std::string error = text_of(ctl_member(slot, "daemon"), "last_error");
        if (error != NONE) {
            errors += "slot " + text_of(slot, "slot") + " failed last: " + error + "\n";
        }
    }
    text += rows.size() == 1 ? "no cards\n" : table_of(rows);
    return text + (errors.empty() ? "" : "\n" + errors);
}
