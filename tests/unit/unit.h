#ifndef UNIT_H
#define UNIT_H

/* What the unit tests share: a context and its log, a card with a document, files. */

#include "../support/support.h"
#include "tpg_jsonmib.h"
#include "tpg_jsonmib_request.h"
#include "tpg_jsonmib_tomb.h"
#include "tpg_log.h"
#include "tpg_main_cardmib.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <regex>
#include <span>
#include <sstream>
#include <vector>

std::unique_ptr<tpg_context_t> new_context(uint8_t log_level = TPG_LOG_LEVEL_DEFAULT);

/* What action writes to standard error; of a message's prefix only the level is left. */
std::string log_of(const std::function<void()>& action);

/* The result of action and its log: "-1 Error ...\n". */
std::string outcome_of(const std::function<int()>& action);

/* The table record behind a registration. */
jsonmib_table_info_t* table_of(const netsnmp_handler_registration* registration);

/* The record of a card in a slot that is its family's master. */
tpg_jsonmib_register_info_t* new_card(tpg_context_t* ctx, uint8_t slot, const std::string& family);

/* Such a card in slot 3; gone at the end of its scope. */
struct card_t {
    std::unique_ptr<tpg_context_t> ctx = new_context();
    tpg_jsonmib_register_info_t* record = new_card(ctx.get(), 3, "fam");

    int load(const std::string& document);
    /* The outcome of it. */
    std::string loaded(const std::string& document);
    /* Leaves tombstones behind. */
    void withdraw();
    void unload();
    ~card_t();
};

#endif
