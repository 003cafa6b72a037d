/* embed: the source in C of a library that carries a document. */

#include "author_agent.h"
#include "author_library.h"

#include <CLI/CLI.hpp>
#include <charconv>

/* What the agent would not read out of a library in its place is not put into one. */
static int check(const std::string& file, const std::string& text)
{
    author_agent_t* agent = author_agent_start();
    bool refused = false;
    if (author_agent_check(agent, file, text, &refused) != 0) {
        return AUTHOR_MISUSE;
    }
    if (!refused) {
        return AUTHOR_FINE;
    }
    author_say("the agent would not take %s: %s", file.c_str(), agent->lines.front().c_str());
    return AUTHOR_ERRORS;
}

/*
 * Numbers, because a text of C++ would have a zero at its end. The agent looks
 * for a local symbol in .data, which C++ would decorate: hence its name by hand.
 */
static std::string source_of(const std::string& symbol, const std::string& text)
{
    constexpr size_t NUMBERS_A_LINE = 24;
    std::string source = "/* Made by tpg-jsonmib: the document of a card, " +
                         std::to_string(text.size()) + " bytes. */\n\nstatic unsigned char " +
                         symbol + "[" + std::to_string(text.size()) + "] __asm__(\"" + symbol +
                         "\") __attribute__((used)) = {";
    source.reserve(source.size() + text.size() * sizeof("255,"));
    for (size_t i = 0; i < text.size(); i++) {
        char number[sizeof("255")];
        const auto byte = static_cast<unsigned char>(text[i]);
        source += i % NUMBERS_A_LINE == 0 ? "\n" : "";
        source.append(number, std::to_chars(number, number + sizeof(number), byte).ptr);
        source += ',';
    }
    source.back() = '\n';
    return source + "};\n";
}

static int embed(const std::string& file, std::string product)
{
    std::string text;
    if (author_find_product(file, &product) != 0 || author_read(file, &text) != 0) {
        return AUTHOR_MISUSE;
    }
    const int status = check(author_file_name(file), text);
    return status == AUTHOR_FINE ? author_write(source_of(author_symbol(product), text)) : status;
}

void author_add_embed(CLI::App& line, int* status)
{
    static std::string file, product;
    CLI::App* command =
        line.add_subcommand("embed", "Prints C source that carries the document in a library");
    command->add_option("FILE", file, "The document, or -")->required();
    command->add_option("--product", product, "The card's product; else from the file's name");
    command->callback([status] { *status = embed(file, product); });
}
