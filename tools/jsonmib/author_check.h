#ifndef AUTHOR_CHECK_H
#define AUTHOR_CHECK_H

/* Checking documents: the rules, the agent's word on them, and what is printed. */

#include "author.h"
#include "author_doc.h"

#include <span>

/*
 * Rules for one document, of which the tables have been read. Each adds what it
 * finds; an error is what makes the agent refuse the card.
 */
void author_rules_keys(author_doc_t* doc);
void author_rules_columns(author_doc_t* doc);
void author_rules_indexes(author_doc_t* doc);
void author_rules_oids(author_doc_t* doc);
void author_rules_traps(author_doc_t* doc);
void author_rules_names(author_doc_t* doc);

/* Rules for the documents of one chassis together. */
void author_rules_oids_apart(std::span<author_doc_t> docs);
void author_rules_traps_apart(std::span<author_doc_t> docs);

/* Applies all rules to the documents of one chassis, whose file and text are set. */
void author_apply_rules(std::span<author_doc_t> docs);

/*
 * Has the agent's own code register the documents of one chassis, in their order,
 * beside those that it has. Sets refused, and makes the errors among the findings
 * agree with it: the line that the agent logs is added to the error that caused
 * it, or becomes an error of its own. 0, or -1 when the agent cannot be asked.
 */
int author_ask_agent(std::span<author_doc_t> docs);

/* Takes all documents out of the agent again. */
void author_forget_cards();

/* How findings are written. */
enum class author_format {
    plain,
    colour,
    json,
};

/* All findings, in the order of the documents and of their texts, to standard output. */
void author_print(std::span<author_doc_t> docs, author_format format);

/* The commands. */
void author_add_check(CLI::App& line, int* status);
void author_add_schema(CLI::App& line, int* status);

#endif
