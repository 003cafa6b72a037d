/* The card author's program: its command line. */

#include "author_check.h"
#include "author_library.h"

#include <CLI/CLI.hpp>
#include <vector>

/* The commands, in the order in which --help lists them. */
static const std::vector<author_add_t> commands = {author_add_check, author_add_schema,
                                                   author_add_mib, author_add_embed,
                                                   author_add_extract};

int main(int argc, char** argv)
{
    int status = AUTHOR_FINE;
    CLI::App line("Checks a card's jsonmib document and makes things from it", AUTHOR_PROGRAM);
    line.set_version_flag("-V,--version", std::string(AUTHOR_PROGRAM) + " " TPG_VERSION);
    line.require_subcommand(1);
    for (author_add_t add : commands) {
        add(line, &status);
    }
    try {
        line.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        /* Help and the version come this way too, with status 0. */
        return line.exit(error) == 0 ? AUTHOR_FINE : AUTHOR_MISUSE;
    }
    return status;
}
