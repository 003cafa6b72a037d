/*
 * What the agent itself says to a document: its own code reads and registers it
 * here, with an SNMP library that has no master and no log.
 */

#include "author_agent.h"
#include "author_check.h"
#include "tpg_file.h"
#include "tpg_jsonmib.h"
#include "tpg_jsonmib_tomb.h"
#include "tpg_legacymib_kx.h"
#include "tpg_log.h"
#include "tpg_log_library.h"
#include "tpg_main.h"
#include "tpg_snmp.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

using lines_t = std::vector<std::string>;

static void take_line(void* lines, tpg_log_level level, const char* text)
{
    if (level == tpg_log_level::error) {
        static_cast<lines_t*>(lines)->emplace_back(text);
    }
}

author_agent_t* author_agent_start()
{
    constexpr const char* BOARDS[] = {"3100KX", "3101KX"}; /* a card may be plugged into either */
    /* What it holds stays to the end: to take out table by table takes longer than to check. */
    static author_agent_t& agent = *new author_agent_t{};
    if (agent.ctx.log_taker != nullptr) {
        return &agent;
    }
    agent.ctx.log_level = TPG_LOG_LEVEL_DEFAULT;
    agent.ctx.log_taker = take_line;
    agent.ctx.log_taker_arg = &agent.lines;
    tpg_log_library_take(&agent.ctx);
    setup_tree();
    for (const char* board : BOARDS) {
        tpg_board_select(&agent.ctx, board);
        tpg_legacymib_kx_init(&agent.ctx);
    }
    return &agent;
}

/* The agent reads files: this one has no name, and only this process has it. */
int author_agent_check(author_agent_t* agent, const std::string& name, const std::string& text,
                       bool* refused)
{
    const tpg_fd_t file = {memfd_create(AUTHOR_PROGRAM, MFD_CLOEXEC)};
    if (file.fd < 0 || tpg_file_write(file.fd, text.data(), text.size()) != 0) {
        author_say("cannot keep %s for the agent: %s", name.c_str(), strerror(errno));
        return -1;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(file.fd);
    agent->lines.clear();
    *refused = jsonmib_check_jsonfile(&agent->ctx, path.c_str()) != 0;
    for (std::string& line : agent->lines) {
        const size_t at = line.find(path);
        if (at != std::string::npos) {
            line.replace(at, path.size(), name);
        }
    }
    return 0;
}

/* Sets refused; the card's record is the agent's. Null when it could not be asked. */
static const tpg_jsonmib_register_info_t* ask(author_agent_t* agent, author_doc_t* doc)
{
    void* memory = calloc(1, sizeof(tpg_jsonmib_register_info_t));
    auto* card = static_cast<tpg_jsonmib_register_info_t*>(memory);
    if (card == nullptr || author_agent_check(agent, doc->file, doc->text, &doc->refused) != 0) {
        free(card);
        return nullptr;
    }
    agent->cards.push_back(card);
    doc->refused = doc->refused || jsonmib_proc_registration(&agent->ctx, doc->text.data(),
                                                             doc->text.size(), card) != 0;
    return card;
}

/* ---- which table, which line ---- */

/* The element at which the array's registration ended, or null. */
static const author_node_t* failed_element(const author_doc_t& doc, const char* key,
                                           netsnmp_handler_registration* const* made, uint32_t sum)
{
    const author_node_t* array = author_member(doc.root, key, json_type_array);
    for (uint32_t i = 0; array != nullptr && made != nullptr && i < sum; i++) {
        if (made[i] == nullptr && i < array->members.size()) {
            return &array->members[i];
        }
    }
    return nullptr;
}

static const author_node_t* failed_table(const author_doc_t& doc,
                                         const tpg_jsonmib_register_info_t& record)
{
    const author_node_t* table = failed_element(doc, "gen_table_array", record.gen_table_reginfo,
                                                record.gen_table_reginfo_sum);
    return table != nullptr ? table
                            : failed_element(doc, "fault_table_array", record.fault_table_reginfo,
                                             record.fault_table_reginfo_sum);
}

/*
 * The line that tells the cause: the last one that does not only say that
 * something failed because of the one before it.
 */
static std::string cause(const lines_t& lines)
{
    constexpr std::string_view CONSEQUENCES[] = {
        "jsonmib_proc_gen_table_array failed",    "jsonmib_proc_one_fault_table failed",
        "jsonmib_register_gen_table failed",      "jsonmib_register_fault_table failed",
        "jsonmib_check_jsonfile(): invalid json", "netsnmp_register_table_iterator failed"};
    for (size_t i = lines.size(); i-- > 0;) {
        const bool follows = i > 0 && std::ranges::any_of(CONSEQUENCES, [&](std::string_view text) {
                                 return lines[i].starts_with(text);
                             });
        if (!follows) {
            return lines[i];
        }
    }
    return "";
}

/* ---- agreeing ---- */

static const author_table_t* table_at(const author_doc_t& doc, const author_node_t* node)
{
    const auto table = std::ranges::find(doc.tables, node, &author_table_t::node);
    return table == doc.tables.end() ? nullptr : &*table;
}

/* The error to which the agent's line belongs, or null. */
static author_finding_t* error_of(author_doc_t* doc, const author_node_t* failed)
{
    const author_table_t* table = table_at(*doc, failed);
    author_finding_t* first = nullptr;
    for (author_finding_t& finding : doc->findings) {
        const bool fits = failed == nullptr || (table == nullptr ? finding.at == failed->at
                                                                 : finding.table == table->label);
        if (finding.severity == author_severity::error && fits &&
            (first == nullptr || finding.at < first->at)) {
            first = &finding;
        }
    }
    return first;
}

/* An error that no rule has foreseen. */
static author_finding_t* add_error(author_doc_t* doc, const author_node_t* failed,
                                   const std::string& line)
{
    const author_table_t* table = table_at(*doc, failed);
    const size_t at = failed == nullptr ? doc->root.at : author_member_at(*failed, "oid");
    author_error(doc, at, {table == nullptr ? "" : table->label, {}},
                 "the agent refuses it: " + line);
    return &doc->findings.back();
}

static void agree(author_doc_t* doc, const author_node_t* failed, const std::string& line)
{
    if (!doc->refused) {
        for (author_finding_t& finding : doc->findings) {
            finding.severity = author_severity::warning;
        }
        return;
    }
    author_finding_t* error = error_of(doc, failed);
    (error == nullptr ? add_error(doc, failed, line) : error)->agent = line;
}

int author_ask_agent(std::span<author_doc_t> docs)
{
    author_agent_t* agent = author_agent_start();
    for (author_doc_t& doc : docs) {
        const tpg_jsonmib_register_info_t* card = ask(agent, &doc);
        if (card == nullptr) {
            return -1;
        }
        agree(&doc, failed_table(doc, *card), cause(agent->lines));
    }
    return 0;
}

void author_forget_cards()
{
    author_agent_t* agent = author_agent_start();
    for (tpg_jsonmib_register_info_t* card : agent->cards) {
        jsonmib_release(&agent->ctx, card);
        free(card);
    }
    agent->cards.clear();
    jsonmib_tomb_sweep(&agent->ctx);
}
