/* The command "mib": a document's MIB module on standard output. */

#include "author_mib.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

struct options_t {
    std::string file, module;
};

/* Now, or the time that builds are to have so that they can be repeated. */
static time_t module_time()
{
    constexpr long long FIRST = 925000000, LAST = 4102444800; /* 1999, with SMIv2; 2100 */
    const char* text = getenv("SOURCE_DATE_EPOCH");
    const long long seconds = text == nullptr ? 0 : strtoll(text, nullptr, 10);
    return seconds >= FIRST && seconds < LAST ? static_cast<time_t>(seconds) : time(nullptr);
}

static int make_module(const options_t& options)
{
    std::string text;
    mib_t mib;
    mib.module = mib_module_name(options.module, options.file);
    if (mib.module.empty()) {
        author_say("%s: a module's name has at most %zu letters, digits and single hyphens, a "
                   "capital in front",
                   options.module.c_str(), MIB_NAME_MAX - 4);
        return AUTHOR_MISUSE;
    }
    if (author_read(options.file, &text) != 0) {
        return AUTHOR_MISUSE;
    }
    mib_source_t source;
    if (mib_load(text, &source) != 0 || mib_build(source, &mib) != 0) {
        author_say("%s: no module", author_file_name(options.file).c_str());
        return AUTHOR_ERRORS;
    }
    const std::string module = mib_text(source, mib, module_time());
    if (fwrite(module.data(), 1, module.size(), stdout) != module.size() || fflush(stdout) != 0) {
        author_say("cannot write the module: %s", strerror(errno));
        return AUTHOR_MISUSE;
    }
    return AUTHOR_FINE;
}

void author_add_mib(CLI::App& line, int* status)
{
    static options_t options;
    CLI::App* command =
        line.add_subcommand("mib", "Makes the MIB module that managers know the cards by");
    command->add_option("--module", options.module,
                        "The module's name; from the file's name if missing");
    command->add_option("FILE", options.file, "The document, - for standard input")->required();
    command->callback([status] { *status = make_module(options); });
}
