/* extract: what the agent would read out of a card's library, by its own functions. */

#include "author_agent.h"
#include "author_library.h"
#include "tpg_file.h"
#include "tpg_jsonmib.h"
#include "tpg_log.h"
#include "tpg_main_command.h"
#include "tpg_main_mibsource.h"
#include "tpg_main_registry.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{
/* A folder of the program's own, which goes with its scope. */
struct folder_t {
    std::string path;
    ~folder_t()
    {
        std::error_code error;
        if (!path.empty()) {
            fs::remove_all(path, error);
        }
    }
};
} // namespace

/* All that the agent's tools leave goes to the working folder, and so nothing beside the library.
 */
static int enter_folder(folder_t* folder, const std::string& library)
{
    std::error_code error;
    const fs::path target = fs::canonical(library, error);
    std::string path = fs::temp_directory_path(error) / "tpg-jsonmib-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        author_say("cannot make the folder %s: %s", path.c_str(), strerror(errno));
        return -1;
    }
    folder->path = path;
    fs::current_path(path, error);
    if (!error) {
        fs::create_symlink(target, fs::path(library).filename(), error);
    }
    if (error) {
        author_say("cannot use the folder %s: %s", path.c_str(), error.message().c_str());
    }
    return error ? -1 : 0;
}

/* The card whose library is in the working folder. 0, or -1 when the agent would take no such. */
static int make_card(tpg_context_t* ctx, const std::string& library, const std::string& product,
                     tpg_libmib_register_info_t* card)
{
    const std::string path = "./" + fs::path(library).filename().string();
    path.copy(card->libmib_path, sizeof(card->libmib_path)); /* too long a one is refused */
    product.copy(card->prod_string, sizeof(card->prod_string));
    return tpg_check_update(ctx, card);
}

/* What a command prints; its complaints too. */
static int output_of(const std::string& command, std::string* output)
{
    constexpr char OUTPUT[] = "output";
    if (tpg_command_run((command + " >" + OUTPUT + " 2>&1").c_str()) != 0) {
        author_say("%s: %s", command.c_str(), tpg_command_error(errno));
        return -1;
    }
    return author_read(OUTPUT, output);
}

/* Why the agent finds nothing in a library that objdump can read. */
static std::string reason(const tpg_libmib_register_info_t& card, const std::string& symbols,
                          const std::vector<std::string>& errors)
{
    const std::string symbol = author_symbol(card.prod_string);
    const std::string fault = author_symbol_fault(symbols, symbol);
    if (fault.empty() && std::string_view(card.libmib_path).find(symbol) != std::string::npos) {
        return "its own name holds " + symbol + ", which the agent takes for the symbol";
    }
    return !fault.empty() || errors.empty() ? fault : errors.front();
}

/* Prints the document that lies in the working folder, also one that the agent would not use. */
static int print_document(author_agent_t* agent, const char* library,
                          const tpg_libmib_register_info_t& card)
{
    const tpg_json_path_t json = tpg_jsonmib_path(&card);
    std::string text;
    if (author_read(json.path, &text) != 0 || author_write(text) != AUTHOR_FINE) {
        return AUTHOR_MISUSE;
    }
    if (jsonmib_check_jsonfile(&agent->ctx, json.path) == 0) {
        return AUTHOR_FINE;
    }
    author_say("%s: the agent would not use this: %s", library, agent->lines.front().c_str());
    return AUTHOR_ERRORS;
}

/* In the working folder. */
static int extract_card(author_agent_t* agent, const char* library,
                        tpg_libmib_register_info_t* card)
{
    std::string symbols;
    if (output_of(std::string("objdump -t ") + card->libmib_path, &symbols) != 0) {
        return AUTHOR_MISUSE;
    }
    if (symbols.find("SYMBOL TABLE:") == symbols.npos) {
        author_say("%s: no library of any machine that objdump knows", library);
        return AUTHOR_ERRORS;
    }
    uint32_t offset = 0, length = 0;
    if (tpg_get_jsonmib_string(&agent->ctx, card, &offset, &length) != 0 ||
        tpg_parse_jsonmib_string(&agent->ctx, card, offset, length) < 0) {
        author_say("%s: %s", library, reason(*card, symbols, agent->lines).c_str());
        return AUTHOR_ERRORS;
    }
    return print_document(agent, library, *card);
}

static bool can_read(const std::string& library)
{
    off_t size = 0;
    const tpg_fd_t file = {tpg_file_open_read(library.c_str(), tpg_links::follow, &size)};
    if (file.fd < 0) {
        author_say("cannot read %s: %s", library.c_str(),
                   errno == EINVAL ? "it is no file" : strerror(errno));
    }
    return file.fd >= 0;
}

static int extract(const std::string& library, std::string product)
{
    std::string tool;
    folder_t folder;
    if (author_find_product(library, &product) != 0 || !can_read(library) ||
        enter_folder(&folder, library) != 0 || output_of("command -v objdump", &tool) != 0) {
        return AUTHOR_MISUSE;
    }
    if (tool.empty()) {
        author_say("there is no objdump, with which the agent reads libraries (Debian: binutils)");
        return AUTHOR_MISUSE;
    }
    author_agent_t* agent = author_agent_start();
    tpg_libmib_register_info_t card = {};
    if (make_card(&agent->ctx, library, product, &card) != 0) {
        author_say("%s: %s", library.c_str(), agent->lines.front().c_str());
        return AUTHOR_ERRORS;
    }
    return extract_card(agent, library.c_str(), &card);
}

void author_add_extract(CLI::App& line, int* status)
{
    static std::string library, product;
    CLI::App* command =
        line.add_subcommand("extract", "Prints the document that the agent finds in a library");
    command->add_option("LIBRARY", library, "The card's library")->required();
    command->add_option("--product", product, "The card's product; else from the library's name");
    command->callback([status] {
        tpg_command_watch_stop(); /* so that nothing is left behind */
        *status = extract(library, product);
    });
}
