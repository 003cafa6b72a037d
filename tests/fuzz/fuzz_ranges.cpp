/* Trap-specific number ranges of a binding, and the bindings that a notify gets by them. */

#include "fuzz.h"

#include "tpg_jsonmib_parse.h"
#include "tpg_main_trap.h"

#include <span>

void fuzz_one(tpg_context_t* ctx, std::string_view in)
{
    static jsonmib_table_info_t table;
    tpg_jsonmib_register_info_t* card = &ctx->jsonmib_reg_info[1];
    table.jsonmib_reginfo = card;
    card->trap_bindings_info =
        static_cast<jsonmib_trap_bindings_info_t*>(calloc(1, sizeof(jsonmib_trap_bindings_info_t)));
    card->trap_bindings_len = 1;
    jsonmib_trap_bindings_info_t* binding = card->trap_bindings_info;
    while (!in.empty()) {
        const std::string text(fuzz_part(&in));
        FUZZ_REQUIRE(jsonmib_parse_specific_string(ctx, binding, text.c_str()) == 0);
        FUZZ_REQUIRE(binding->specific_list_len <= strlen(text.c_str()) / 2 + 1);
        for (const auto& range : std::span(binding->specific_list, binding->specific_list_len)) {
            tpg_trap_notify_t notify = {};
            notify.data_len = 12;
            notify.data[8] = 3;
            netsnmp_variable_list* vars =
                tpg_msg_trap_var_bindings(ctx, range.low, &table, &notify);
            FUZZ_REQUIRE(range.low > range.high || vars != nullptr);
            snmp_free_varbind(vars);
        }
    }
}
