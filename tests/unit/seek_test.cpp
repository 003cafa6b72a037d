/* A table with and without the handler that seeks: the same answer to every request. */

#include "tpg_jsonmib_rows.h"
#include "tpg_jsonmib_seek.h"
#include "unit.h"

#include <random>

constexpr size_t BASE_LEN = 8; /* of the OID of either table */

/* Takes the two handlers that know the rows out of the chain. */
static void stop_seeking(netsnmp_handler_registration* registration)
{
    int taken = 0;
    for (netsnmp_mib_handler* above = registration->handler; above->next != nullptr;) {
        netsnmp_mib_handler* handler = above->next;
        if (handler->access_method != jsonmib_seek_helper_handler &&
            handler->access_method != jsonmib_row_helper_handler) {
            above = handler;
            continue;
        }
        above->next = handler->next;
        handler->next->prev = above;
        handler->next = nullptr;
        netsnmp_handler_free(handler);
        taken++;
    }
    ASSERT_EQ(taken, 2);
}

/* The name behind the table's OID, type and value that a request ends with. */
static std::string answer(netsnmp_handler_registration* registration, int mode,
                          const std::vector<oid>& suffix)
{
    std::vector<oid> name(registration->rootoid, registration->rootoid + registration->rootoid_len);
    name.insert(name.end(), suffix.begin(), suffix.end());
    netsnmp_variable_list* var = nullptr;
    snmp_varlist_add_variable(&var, name.data(), name.size(), ASN_NULL, nullptr, 0);
    netsnmp_agent_request_info reqinfo = {};
    reqinfo.mode = mode;
    netsnmp_request_info request = {};
    request.requestvb = var;
    request.agent_req_info = &reqinfo;
    if (mode == MODE_SET_RESERVE1) {
        const long value = 1;
        snmp_set_var_typed_value(var, ASN_INTEGER, &value, sizeof(value));
    }
    netsnmp_call_handlers(registration, &reqinfo, &request);
    std::string text = std::to_string(request.status) + " " + std::to_string(request.processed) +
                       " " + std::to_string(var->type);
    if (var->type == ASN_INTEGER) {
        text += "=" + std::to_string(*var->val.integer);
    }
    for (size_t i = BASE_LEN; i < var->name_length; i++) {
        text += "." + std::to_string(var->name[i]);
    }
    netsnmp_free_request_data_sets(&request);
    snmp_free_varbind(var);
    return text;
}

using random_t = std::mt19937;

static int number(random_t* random, int low, int high)
{
    return std::uniform_int_distribution<int>(low, high)(*random);
}

/* One table's members, but for its OID: up to three indexes of all kinds of ranges. */
static std::string random_table(random_t* random)
{
    std::string indexes;
    for (int i = number(random, 0, 3); i > 0; i--) {
        const bool at_the_end = number(random, 0, 9) == 0; /* 4294967295 is read as -1 */
        const int low = at_the_end ? number(random, -3, -1) : number(random, 0, 4);
        const int high = at_the_end ? number(random, low, -1) : number(random, 0, 5);
        indexes.append(indexes.empty() ? "" : ",")
            .append(R"({"range0":)" + std::to_string(low))
            .append(R"(,"range1":)" + std::to_string(high) + "}");
    }
    return R"("index_array":[)" + indexes +
           R"(],"param_array":[{"table_index":true},{"table_index":true},{"var_id":7,"type":3}]})";
}

/* Behind the table's OID: often a cell, sometimes less, more, or numbers that no index takes. */
static std::vector<oid> random_suffix(random_t* random)
{
    std::vector<oid> suffix;
    const int length = number(random, 0, 7);
    for (int i = 0; i < length; i++) {
        const bool odd = number(random, 0, 9) == 0;
        if (i == 0) {
            suffix.push_back(odd ? static_cast<oid>(number(random, 0, 2)) : 1);
        } else if (odd) {
            /* A manager's 4294967295 becomes the last of them. */
            static constexpr oid HIGH[] = {1UL << 31U, 0xfffffffeUL, 0xffffffffUL, ~oid{0} - 1,
                                           ~oid{0}};
            suffix.push_back(HIGH[number(random, 0, 4)]);
        } else {
            suffix.push_back(static_cast<oid>(number(random, 0, i == 1 ? 4 : 7)));
        }
    }
    if (sizeof(oid) > 4 && length > 3 && number(random, 0, 20) == 0) {
        suffix.back() = static_cast<oid>(0x100000001ULL);
    }
    return suffix;
}

/* Cards of the family and of others in random slots, at times with a second record of it. */
static void random_slots(random_t* random, tpg_context_t* ctx)
{
    for (auto& record : ctx->jsonmib_reg_info) {
        record.actual_reginfo = number(random, 0, 1) == 0 ? nullptr : &record;
        record.slot_ref_mask = 0;
        if (&record != &ctx->jsonmib_reg_info[2]) {
            set_text(record.libmib_reginfo.prod_family, number(random, 0, 1) == 0 ? "" : "other");
        }
    }
    ctx->jsonmib_reg_info[2].slot_ref_mask =
        static_cast<uint32_t>(number(random, 0, 0xfffe)) & 0xfffeU;
    if (number(random, 0, 3) == 0) {
        set_text(ctx->jsonmib_reg_info[9].libmib_reginfo.prod_family, "fam");
        ctx->jsonmib_reg_info[9].slot_ref_mask =
            static_cast<uint32_t>(number(random, 0, 0xffff)) & 0xfffeU;
    }
    set_text(ctx->jsonmib_reg_info_cardmib.libmib_reginfo.prod_family,
             number(random, 0, 3) == 0 ? "family" : "card");
}

TEST(seek, answers_like_the_plain_iterator)
{
    random_t random(20260);
    int rows_found = 0;
    for (int round = 0; round < 150; round++) {
        card_t card;
        card.ctx->log_level = 0;
        const std::string table = random_table(&random);
        ASSERT_EQ(card.load(R"({"gen_table_array":[{"oid":[1,3,6,1,4,1,32473,3],)" + table +
                            R"(,{"oid":[1,3,6,1,4,1,32473,4],)" + table + "]}"),
                  0);
        netsnmp_handler_registration** registrations = card.record->gen_table_reginfo;
        stop_seeking(registrations[1]);
        for (int i = 0; i < 120; i++) {
            if (i % 40 == 0) {
                random_slots(&random, card.ctx.get());
            }
            static constexpr int MODES[] = {MODE_GET, MODE_GETNEXT, MODE_GETNEXT,
                                            MODE_SET_RESERVE1};
            const int mode = MODES[number(&random, 0, 3)];
            const std::vector<oid> suffix = random_suffix(&random);
            const std::string sought = answer(registrations[0], mode, suffix);
            ASSERT_EQ(sought, answer(registrations[1], mode, suffix)) << table << " mode " << mode;
            rows_found += has(sought, "=") ? 1 : 0;
        }
        card.unload();
    }
    EXPECT_GT(rows_found, 1000);
}
