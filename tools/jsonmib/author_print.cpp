/* Findings for people and for programs. */

#include "author_check.h"

#include <algorithm>
#include <cstdio>

constexpr char BOLD[] = "\033[1m";
constexpr char RED[] = "\033[1;31m";
constexpr char MAGENTA[] = "\033[1;35m";
constexpr char PLAIN[] = "\033[0m";

static const char* severity_name(const author_finding_t& finding)
{
    return finding.severity == author_severity::error ? "error" : "warning";
}

/* How many bytes the UTF-8 character has that begins the text; 0 when it does not begin with one.
 */
static size_t utf8_length(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    const size_t length = first < 0x80   ? 1
                          : first < 0xc2 ? 0
                          : first < 0xe0 ? 2
                          : first < 0xf0 ? 3
                          : first < 0xf5 ? 4
                                         : 0;
    if (length > text.size()) {
        return 0;
    }
    const bool whole = std::ranges::all_of(text.substr(std::min<size_t>(length, 1), length - 1),
                                           [](char c) { return (c & 0xc0) == 0x80; });
    return whole ? length : 0;
}

/* Names come from a document: what a terminal would obey is shown as \xNN. */
static std::string printable(std::string_view text)
{
    std::string out;
    while (!text.empty()) {
        const auto first = static_cast<unsigned char>(text[0]);
        const size_t length = utf8_length(text);
        if (length == 0 || first < ' ' || first == 0x7f) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\x%02x", first);
            out += escaped;
            text.remove_prefix(1);
        } else {
            out += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    return out;
}

static std::string whole_text(const author_finding_t& finding)
{
    std::string text = finding.table.empty() ? "" : "table " + finding.table;
    text += finding.column.empty() ? "" : ", column " + finding.column;
    text += (text.empty() ? "" : ": ") + finding.text;
    return text + (finding.agent.empty() ? "" : " (agent: " + finding.agent + ")");
}

static void print_line(const author_doc_t& doc, const author_finding_t& finding, bool colour)
{
    const bool error = finding.severity == author_severity::error;
    printf("%s%s:%s:%s %s%s:%s %s\n", colour ? BOLD : "", printable(doc.file).c_str(),
           author_place_text(doc, finding.at).c_str(), colour ? PLAIN : "",
           colour ? (error ? RED : MAGENTA) : "", severity_name(finding), colour ? PLAIN : "",
           printable(whole_text(finding)).c_str());
}

static void put(json_object* object, const char* key, const std::string& text)
{
    json_object_object_add(object, key, json_object_new_string(printable(text).c_str()));
}

static json_object* object_of(const author_doc_t& doc, const author_finding_t& finding)
{
    const author_place_t place = author_place(doc, finding.at);
    json_object* object = json_object_new_object();
    put(object, "file", doc.file);
    json_object_object_add(object, "line", json_object_new_int64(static_cast<int64_t>(place.line)));
    json_object_object_add(object, "column",
                           json_object_new_int64(static_cast<int64_t>(place.column)));
    put(object, "severity", severity_name(finding));
    put(object, "table", finding.table);
    put(object, "column_name", finding.column);
    put(object, "text", finding.text);
    put(object, "agent", finding.agent);
    return object;
}

static void print_json(std::span<author_doc_t> docs)
{
    const tpg_json_t all(json_object_new_array());
    for (const author_doc_t& doc : docs) {
        for (const author_finding_t& finding : doc.findings) {
            json_object_array_add(all.get(), object_of(doc, finding));
        }
    }
    constexpr int FLAGS = JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE;
    puts(json_object_to_json_string_ext(all.get(), FLAGS));
}

void author_print(std::span<author_doc_t> docs, author_format format)
{
    for (author_doc_t& doc : docs) {
        std::ranges::stable_sort(doc.findings, {}, &author_finding_t::at);
    }
    if (format == author_format::json) {
        print_json(docs);
        return;
    }
    for (const author_doc_t& doc : docs) {
        for (const author_finding_t& finding : doc.findings) {
            print_line(doc, finding, format == author_format::colour);
        }
    }
}
