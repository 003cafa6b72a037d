/* A control daemon's replies through GET and SET; it has sent them all, and hangs up. */

#include "fuzz.h"

#include "tpg_jsonmib.h"
#include "tpg_jsonmib_queue.h"
#include "tpg_legacymib_kx.h"
#include "uevgend_msg_i.h"

#include <algorithm>
#include <memory>

/* What one step asks for: the channel itself, or cells of the board's tables and a card's. */
enum kind : uint32_t { CTRL_GET, CTRL_SET, BOARD_CELL, GEN_CELL, FAULT_CELL, KINDS };

constexpr uint32_t LENGTH_MAX = 600;
constexpr size_t STEP = 10; /* bytes of an input that describe one step */
constexpr uint32_t CARD_SLOT = 2;

static void request_value(tpg_context_t* ctx, uint32_t slot, bool writes, std::string_view in)
{
    const uint32_t length = fuzz_number(&in, 2) % (LENGTH_MAX + 1);
    const uint32_t var = fuzz_number(&in);
    const uint32_t index = fuzz_number(&in, 4);
    const std::unique_ptr<uint8_t[]> value(new uint8_t[length]);
    memset(value.get(), 0xa5, length);
    if (writes) {
        jsonmib_ctrl_set(ctx, slot, var, index, value.get(), length);
    } else if (jsonmib_ctrl_get(ctx, slot, var, index, value.get(), length) != 0) {
        FUZZ_REQUIRE(std::count(value.get(), value.get() + length, 0) == length);
    }
}

/* Command, a number (or so many bytes), and what stands behind the root in the cell's name. */
static void request_cell(const name_t& root, std::string_view in)
{
    const uint32_t command = fuzz_number(&in);
    const auto number = static_cast<long>(fuzz_number(&in));
    name_t name = root;
    for (uint32_t arcs = fuzz_number(&in) % 7; arcs > 0; arcs--) {
        name.push_back(fuzz_number(&in));
    }
    switch (command % 4) {
    case 0:
        fuzz_walk(root, name, 8);
        break;
    case 1:
        fuzz_ask(SNMP_MSG_GET, name, name);
        break;
    case 2:
        fuzz_ask(SNMP_MSG_SET, name, {}, ASN_INTEGER, bytes_of(number));
        break;
    default:
        fuzz_ask(SNMP_MSG_SET, name, {}, ASN_OCTET_STR,
                 std::string(static_cast<size_t>(number) * 3, 'x'));
    }
}

void fuzz_one(tpg_context_t* ctx, std::string_view in)
{
    static const std::string document = fuzz_seed("document/columns.json");
    static const bool registered = (tpg_legacymib_kx_init(ctx), true);
    (void)registered;
    tpg_jsonmib_register_info_t* card = &ctx->jsonmib_reg_info[CARD_SLOT - 1];
    card->libmib_reginfo.slot_no = CARD_SLOT;
    card->slot_ref_mask = 1U << CARD_SLOT;
    card->actual_reginfo = card;
    FUZZ_REQUIRE(jsonmib_proc_registration(ctx, document.data(), document.size(), card) == 0);
    const uint32_t slot = fuzz_number(&in) % 3 + 1;
    const uint32_t owed = fuzz_number(&in);
    const size_t steps = fuzz_number(&in) % 8;
    std::string_view described = fuzz_bytes(&in, steps * STEP);
    int ends[2];
    FUZZ_REQUIRE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    FUZZ_REQUIRE(send(ends[1], in.data(), in.size(), MSG_DONTWAIT) ==
                 static_cast<ssize_t>(in.size()));
    shutdown(ends[1], SHUT_WR);
    jsonmib_ipc_info_t* info = &ctx->jsonmib_ipc_info[slot - 1];
    *info = {1, 0, ends[0], nullptr};
    jsonmib_replies_t* replies = &ctx->jsonmib_queue[slot - 1].replies;
    replies->dead_total = owed % (JSONMIB_DEAD_MAX + 1);
    for (uint32_t i = 0; i < replies->dead_total; i++) { /* none is shorter than its head */
        const uint32_t length = i % 2 == 0 ? sizeof(uevgend_get_reply_msg_t) : LENGTH_MAX;
        replies->dead[i] = {UEVGEND_MSG_GET, i, i / 3, length};
    }
    oid board[MAX_OID_LEN];
    const size_t board_len = tpg_legacymib_kx_oid(ctx, {}, board);
    const name_t roots[] = {{board, board + board_len},
                            {1, 3, 6, 1, 4, 1, 32473, 8, 1, 1},
                            {1, 3, 6, 1, 4, 1, 32473, 8, 2, 1}};
    while (!described.empty()) {
        std::string_view step = fuzz_bytes(&described, STEP);
        const uint32_t kind = fuzz_number(&step) % KINDS;
        if (kind < BOARD_CELL) {
            request_value(ctx, slot, kind == CTRL_SET, step);
        } else {
            request_cell(roots[kind - BOARD_CELL], step);
        }
    }
    close(ends[1]);
}
