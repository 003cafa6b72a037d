/* The command that checks documents. */

#include "author_check.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <unistd.h>

namespace
{
struct options_t {
    std::vector<std::string> files;
    std::string format = "text";
    bool strict = false;
};
} // namespace

static void apply_rules(author_doc_t* doc)
{
    if (!author_doc_scan(doc)) {
        return;
    }
    if (json_object_is_type(doc->root.value, json_type_object) == 0) {
        author_error(doc, doc->root.at, {}, "the document has to be an object");
        return;
    }
    author_doc_model(doc);
    author_rules_keys(doc);
    author_rules_columns(doc);
    author_rules_indexes(doc);
    author_rules_oids(doc);
    author_rules_traps(doc);
    author_rules_names(doc);
}

void author_apply_rules(std::span<author_doc_t> docs)
{
    for (author_doc_t& doc : docs) {
        apply_rules(&doc);
    }
    author_rules_oids_apart(docs);
    author_rules_traps_apart(docs);
}

static size_t count(const std::vector<author_doc_t>& docs, author_severity severity)
{
    size_t total = 0;
    for (const author_doc_t& doc : docs) {
        total += static_cast<size_t>(
            std::ranges::count(doc.findings, severity, &author_finding_t::severity));
    }
    return total;
}

static std::string counted(size_t number, const char* what)
{
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

/* The last line, as compilers have it. */
static void tell_counts(size_t errors, size_t warnings)
{
    if (errors + warnings > 0) {
        fprintf(stderr, "%s and %s found.\n", counted(errors, "error").c_str(),
                counted(warnings, "warning").c_str());
    }
}

static author_format format_of(const options_t& options)
{
    if (options.format == "json") {
        return author_format::json;
    }
    return isatty(STDOUT_FILENO) == 1 ? author_format::colour : author_format::plain;
}

static int run(const options_t& options)
{
    std::vector<author_doc_t> docs(options.files.size());
    for (size_t i = 0; i < docs.size(); i++) {
        docs[i].file = author_file_name(options.files[i]);
        if (author_read(options.files[i], &docs[i].text) != 0) {
            return AUTHOR_MISUSE;
        }
    }
    author_apply_rules(docs);
    if (author_ask_agent(docs) != 0) {
        return AUTHOR_MISUSE;
    }
    author_print(docs, format_of(options));
    const size_t errors = count(docs, author_severity::error);
    const size_t warnings = count(docs, author_severity::warning);
    fflush(stdout);
    if (options.format != "json") {
        tell_counts(errors, warnings);
    }
    return errors > 0 || (options.strict && warnings > 0) ? AUTHOR_ERRORS : AUTHOR_FINE;
}

void author_add_check(CLI::App& line, int* status)
{
    auto options = std::make_shared<options_t>();
    CLI::App* command = line.add_subcommand(
        "check", "Tells what is wrong with documents; several are those of one chassis");
    command->add_flag("--strict", options->strict, "Warnings make the exit status 1, too");
    command->add_option("--format", options->format, "text or json")
        ->check(CLI::IsMember({"text", "json"}));
    command->add_option("FILE", options->files, "Documents; - is standard input")->required();
    command->callback([options, status] { *status = run(*options); });
}
