#include "unit.h"

#include "tpg_jsonmib_table.h"

std::unique_ptr<tpg_context_t> new_context(uint8_t log_level)
{
    auto ctx = std::make_unique<tpg_context_t>();
    ctx->log_level = log_level;
    ctx->log_console = 1;
    return ctx;
}

std::string log_of(const std::function<void()>& action)
{
    testing::internal::CaptureStderr();
    action();
    return std::regex_replace(testing::internal::GetCapturedStderr(),
                              std::regex(R"(\|(\w+) \(tpg:\d+\)\|(\w+\.cpp:\d+)?: )"), "$1 ");
}

std::string outcome_of(const std::function<int()>& action)
{
    int ret = 0;
    const std::string log = log_of([&] { ret = action(); });
    return std::to_string(ret) + " " + log;
}

jsonmib_table_info_t* table_of(const netsnmp_handler_registration* registration)
{
    const netsnmp_mib_handler* handler = registration->handler;
    while (handler->data_free != jsonmib_table_free) {
        handler = handler->next;
    }
    return static_cast<jsonmib_table_info_t*>(handler->myvoid);
}

tpg_jsonmib_register_info_t* new_card(tpg_context_t* ctx, uint8_t slot, const std::string& family)
{
    tpg_jsonmib_register_info_t* record = &ctx->jsonmib_reg_info[slot - 1];
    record->libmib_reginfo.slot_no = slot;
    set_text(record->libmib_reginfo.prod_family, family);
    record->slot_ref_mask = 1U << slot;
    record->actual_reginfo = record;
    return record;
}

int card_t::load(const std::string& document)
{
    return loaded(document).front() == '0' ? 0 : -1;
}

std::string card_t::loaded(const std::string& document)
{
    return outcome_of([&] {
        return jsonmib_proc_registration(ctx.get(), document.data(), document.size(), record);
    });
}

void card_t::withdraw()
{
    ctx->log_level = 0;
    tpg_snmp_unregister_jsonmib(ctx.get(), record);
    ctx->log_level = TPG_LOG_LEVEL_DEFAULT;
}

void card_t::unload()
{
    withdraw();
    jsonmib_tomb_sweep(ctx.get());
}

card_t::~card_t()
{
    unload();
}
