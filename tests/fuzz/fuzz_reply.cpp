/* A control daemon that answers with right and with any bytes, in pieces, late or not at all, and
 * ends its connections, while requests wait. */

#include "../support/daemon.h"
#include "fuzz.h"
#include "tpg_jsonmib_ctrl.h"
#include "tpg_jsonmib_queue.h"

#include <deque>
#include <fcntl.h>
#include <utility>

constexpr uint32_t SLOT = 2;

struct request_t {
    jsonmib_exchange_t exchange;
    std::string value; /* no longer than it must be */
};

static std::deque<request_t> requests;

static void ask(tpg_context_t* ctx, bool set, uint32_t length)
{
    request_t* request = &requests.emplace_back();
    request->value.resize(std::max<size_t>(length, UEVGEND_DATA_FIXED));
    jsonmib_exchange_t* exchange = &request->exchange;
    exchange->slot_no = SLOT;
    exchange->asked = {UEVGEND_MSG_GET, length % 7, 0, jsonmib_ctrl_get_reply_len(length)};
    exchange->length = length;
    exchange->walk = length % 2 != 0;
    if (set) {
        exchange->asked = {UEVGEND_MSG_SET, length % 7, 0, sizeof(uevgend_set_reply_msg_t)};
        exchange->written = request->value.data();
    } else {
        exchange->value = reinterpret_cast<uint8_t*>(request->value.data());
    }
    jsonmib_queue_start(ctx, exchange);
}

static void time_passes(jsonmib_queue_t* queue, int64_t us)
{
    queue->sent_at -= us;
    queue->heard_at -= us;
    for (request_t& request : requests) {
        request.exchange.born -= us;
        request.exchange.queued -= us;
    }
}

/* What the daemon has read: requests as they were made. */
static void read_requests(int peer, std::string* arrived, std::deque<question_t>* asked)
{
    char bytes[1024];
    for (ssize_t n = 0; (n = recv(peer, bytes, sizeof(bytes), MSG_DONTWAIT)) > 0;) {
        arrived->append(bytes, static_cast<size_t>(n));
    }
    for (question_t question; take_question(arrived, &question);) {
        FUZZ_REQUIRE(question.index == 0 && question.var < 7);
        asked->push_back(question);
    }
}

void fuzz_one(tpg_context_t* ctx, std::string_view in)
{
    constexpr size_t REQUESTS_MAX = 64;
    jsonmib_queue_t* queue = &ctx->jsonmib_queue[SLOT - 1];
    unlink(daemon_path(SLOT).c_str());
    const int listener = unix_socket(daemon_path(SLOT), true);
    fcntl(listener, F_SETFL, O_NONBLOCK);
    int peer = -1;
    std::string arrived, answer;
    std::deque<question_t> asked;
    while (!in.empty() && requests.size() < REQUESTS_MAX) {
        const uint32_t kind = fuzz_number(&in) % 8;
        if (kind < 2) {
            ask(ctx, kind == 1, fuzz_number(&in, 2) % 400);
        } else if (kind == 2) {
            time_passes(queue, int64_t{fuzz_number(&in)} * 100000);
        } else if (kind == 3) {
            close(std::exchange(peer, -1));
        } else if (kind < 6) {
            answer += fuzz_bytes(&in, fuzz_number(&in));
        } else if (!asked.empty()) { /* perhaps a part of it */
            answer += answer_to(asked.front(), std::string(asked.front().length, 'y'));
            answer.resize(std::min<size_t>(answer.size(), kind == 6 ? SIZE_MAX : 30));
            asked.pop_front();
        }
        send(peer, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        answer.clear();
        jsonmib_queue_drive(ctx, jsonmib_now());
        if (const int fd = accept(listener, nullptr, nullptr); fd >= 0) {
            close(std::exchange(peer, fd));
            arrived.clear();
            asked.clear();
        }
        read_requests(peer, &arrived, &asked);
    }
    jsonmib_queue_release(ctx);
    for (const request_t& request : requests) {
        FUZZ_REQUIRE(request.exchange.done);
    }
    requests.clear();
    close(peer);
    close(listener);
}
