#ifndef UNIT_H
#define UNIT_H

/* What the unit tests share: a context and its log, a card with a document, files. */

#include "tpg_jsonmib.h"
#include "tpg_jsonmib_request.h"
#include "tpg_jsonmib_tomb.h"
#include "tpg_log.h"
#include "tpg_main_cardmib.h"

#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

inline std::unique_ptr<tpg_context_t> new_context(uint8_t log_level = TPG_LOG_LEVEL_DEFAULT)
{
    auto ctx = std::make_unique<tpg_context_t>();
    ctx->log_level = log_level;
    ctx->log_console = 1;
    return ctx;
}

/* What action writes to standard error; of a message's prefix only the level is left. */
template <typename action_t> std::string log_of(action_t action)
{
    testing::internal::CaptureStderr();
    action();
    return std::regex_replace(testing::internal::GetCapturedStderr(),
                              std::regex(R"(\|(\w+) \(tpg:\d+\)\|(\w+\.cpp:\d+)?: )"), "$1 ");
}

/* The result of action and its log: "-1 Error ...\n". */
template <typename action_t> std::string outcome_of(action_t action)
{
    int ret = 0;
    const std::string log = log_of([&] { ret = action(); });
    return std::to_string(ret) + " " + log;
}

inline bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

/* Fills a text field, which is then terminated when the text is shorter. */
template <size_t size> void set_text(char (&field)[size], const std::string& text)
{
    memset(field, 0, size);
    text.copy(field, size);
}

inline void write_file(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string read_file(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/* The table record behind a registration. */
inline jsonmib_table_info_t* table_of(const netsnmp_handler_registration* registration)
{
    const netsnmp_mib_handler* handler = registration->handler;
    while (strncmp(handler->handler_name, "tpg_", 4) != 0) {
        handler = handler->next;
    }
    return static_cast<jsonmib_table_info_t*>(handler->myvoid);
}

/* The record of a card in slot 3 that is its family's master; gone at the end of its scope. */
struct card_t {
    std::unique_ptr<tpg_context_t> ctx = new_context();
    tpg_jsonmib_register_info_t* record = &ctx->jsonmib_reg_info[2];

    card_t()
    {
        record->libmib_reginfo.slot_no = 3;
        set_text(record->libmib_reginfo.prod_family, "fam");
        record->slot_ref_mask = 1U << 3U;
        record->actual_reginfo = record;
    }
    int load(const std::string& document)
    {
        return loaded(document).front() == '0' ? 0 : -1;
    }
    std::string loaded(const std::string& document)
    {
        return outcome_of([&] {
            return jsonmib_proc_registration(ctx.get(), document.data(), document.size(), record);
        });
    }
    /* Leaves tombstones behind. */
    void withdraw()
    {
        ctx->log_level = 0;
        tpg_snmp_unregister_jsonmib(ctx.get(), record);
        ctx->log_level = TPG_LOG_LEVEL_DEFAULT;
    }
    void unload()
    {
        withdraw();
        jsonmib_tomb_sweep(ctx.get());
    }
    ~card_t()
    {
        unload();
    }
};

#endif
