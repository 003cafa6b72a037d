/* What comes over the operators' socket, in pieces, to an agent with cards; a byte 0 behind a byte
 * 1 is the end of a piece. */

#include "fuzz.h"

#include "tpg_ctl_i.h"
#include "tpg_main_control.h"
#include "tpg_main_registry.h"

#include <event2/event.h>

static void plug(tpg_context_t* ctx, int slot, const std::string& document)
{
    auto card =
        client_update(TPG_MSG_LIBMIB_REGISTER, slot, document, "family", slot, "/tmp/" + document)
            .libmib_update;
    tpg_proc_libmib_register(ctx, &card);
}

void fuzz_one(tpg_context_t* ctx, std::string_view in)
{
    for (const std::string name : {"card", "newer"}) {
        write_file("/tmp/" + name + ".json", fuzz_seed("document/" + name + ".json"));
    }
    tpg_control_open(ctx);
    FUZZ_REQUIRE(ctx->control.listener != nullptr);
    plug(ctx, 2, "card");
    plug(ctx, 3, "newer");
    const int peer = unix_socket(ctx->control.path);
    FUZZ_REQUIRE(peer >= 0);
    while (!in.empty()) {
        const size_t length = in.find(std::string_view("\1\0", 2));
        const std::string_view piece = in.substr(0, length);
        in.remove_prefix(length == std::string_view::npos ? in.size() : length + 2);
        send(peer, piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        fuzz_turn(ctx, EVLOOP_NONBLOCK);
    }
    shutdown(peer, SHUT_WR);
    for (int turn = 0; turn < 8; turn++) {
        fuzz_turn(ctx, EVLOOP_NONBLOCK);
    }
    char answer[65536];
    ssize_t n = 0;
    while ((n = recv(peer, answer, sizeof(answer), MSG_DONTWAIT)) > 0) {
        fuzz_turn(ctx, EVLOOP_NONBLOCK);
    }
    close(peer);
    tpg_control_close(ctx);
}
