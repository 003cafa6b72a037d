#ifndef TPGCTL_H
#define TPGCTL_H

/* The operator's program: a request to the agent, and what is shown of the answer. */

#include <json-c/json.h>
#include <memory>
#include <string>

struct json_put_t {
    void operator()(json_object* object) const
    {
        json_object_put(object);
    }
};
using json_t = std::unique_ptr<json_object, json_put_t>;

/* Exit statuses. */
constexpr int EXIT_DONE = 0;
constexpr int EXIT_REFUSED = 1;
constexpr int EXIT_USAGE = 2;
constexpr int EXIT_NO_AGENT = 3;

/* What came of a request: its exit status; the answer, or a line that says why there is none. */
struct reply_t {
    int status;
    json_t answer;
    std::string error;
};

/* Asks the agent and waits for its answer. */
reply_t ctl_ask(const std::string& request);

/* A member of an object; null when it is not there. */
json_object* ctl_member(json_object* object, const char* key);

/* The state as text: a line for each slot, and what failed last. */
std::string ctl_status_text(json_object* status);

/* Shows the state every two seconds until q or a signal. */
int ctl_watch(bool json);

/* One look at the state, as text or JSON; its exit status. */
int ctl_status(bool json, std::string* text);

#endif
