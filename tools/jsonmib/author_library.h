#ifndef AUTHOR_LIBRARY_H
#define AUTHOR_LIBRARY_H

/* Documents into libraries and out of them. */

#include "author.h"

#include <string_view>

void author_add_embed(CLI::App& line, int* status);
void author_add_extract(CLI::App& line, int* status);

/*
 * Where *product is empty it comes from the name of a document or library:
 * libmibNAME.so, libmib_NAME.so, libmibNAME.so.json or NAME.json. 0, or -1 with
 * one line on standard error when no card can have a document under it.
 */
int author_find_product(const std::string& file, std::string* product);

/* The symbol of the product's document. */
std::string author_symbol(const std::string& product);

/*
 * Why the agent does not find the symbol, by what objdump -t says of the
 * library; empty when nothing is wrong with it.
 */
std::string author_symbol_fault(std::string_view symbols, const std::string& symbol);

#endif
