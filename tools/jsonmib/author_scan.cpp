/*
 * Where everything stands in a document. The agent's JSON library reads the text,
 * and has the last word; this goes over what it has accepted once more, and finds
 * the places, and the notations that only this library takes for JSON.
 */

#include "author_doc.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

namespace
{
struct scan_t {
    author_doc_t* doc;
    size_t at;
    bool quotes_told; /* a document is mostly written in one kind of quotes */
};
} // namespace

static void scan_value(scan_t*, author_node_t*, json_object*);

/* ---- places ---- */

static void find_lines(author_doc_t* doc)
{
    doc->line_starts = {0};
    for (size_t at = doc->text.find('\n'); at != std::string::npos;
         at = doc->text.find('\n', at + 1)) {
        doc->line_starts.push_back(at + 1);
    }
}

author_place_t author_place(const author_doc_t& doc, size_t at)
{
    const auto& starts = doc.line_starts;
    const auto next = std::upper_bound(starts.begin(), starts.end(), at);
    const auto line = static_cast<size_t>(next - starts.begin());
    return {line, at - starts[line - 1] + 1};
}

std::string author_place_text(const author_doc_t& doc, size_t at)
{
    const author_place_t place = author_place(doc, at);
    return std::to_string(place.line) + ":" + std::to_string(place.column);
}

/* ---- what is accepted ---- */

static char peek(const scan_t* scan)
{
    return scan->at < scan->doc->text.size() ? scan->doc->text[scan->at] : '\0';
}

static bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

static void warn(scan_t* scan, size_t at, const char* text)
{
    author_warn(scan->doc, at, {}, text);
}

/* Moves behind a comment. */
static void skip_comment(scan_t* scan)
{
    const std::string& text = scan->doc->text;
    const bool block = text.compare(scan->at, 2, "/*") == 0;
    const size_t end = text.find(block ? "*/" : "\n", scan->at + 2);
    warn(scan, scan->at, "a comment, which JSON does not have");
    scan->at = end == std::string::npos ? text.size() : end + (block ? 2 : 1);
}

static void skip_blanks(scan_t* scan)
{
    while (is_blank(peek(scan)) || peek(scan) == '/') {
        if (peek(scan) == '/') {
            skip_comment(scan);
        } else {
            scan->at++;
        }
    }
}

/* Moves behind a string and returns it as it stands, with its quotes. */
static std::string_view skip_string(scan_t* scan)
{
    const std::string& text = scan->doc->text;
    const size_t begin = scan->at++;
    const char quote = text[begin];
    if (quote == '\'' && !scan->quotes_told) {
        warn(scan, begin, "single quotes, from here on; JSON has double ones only");
        scan->quotes_told = true;
    }
    while (scan->at < text.size() && text[scan->at] != quote) {
        scan->at += text[scan->at] == '\\' ? 2 : 1;
    }
    scan->at = std::min(scan->at + 1, text.size());
    return std::string_view(text).substr(begin, scan->at - begin);
}

/* The key as the agent has it. */
static std::string key_of(std::string_view raw)
{
    if (raw.find('\\') == std::string_view::npos) {
        return std::string(raw.substr(1, raw.size() - 2));
    }
    const tpg_json_tokener_t tokener(json_tokener_new());
    const tpg_json_t key(
        json_tokener_parse_ex(tokener.get(), raw.data(), static_cast<int>(raw.size())));
    return key == nullptr ? std::string(raw) : json_object_get_string(key.get());
}

/* Moves behind a number or a literal. */
static void skip_word(scan_t* scan)
{
    const std::string& text = scan->doc->text;
    const size_t begin = scan->at;
    while (scan->at < text.size() && !is_blank(text[scan->at]) &&
           strchr(",:]}/\"'", text[scan->at]) == nullptr) {
        scan->at++;
    }
    const std::string_view word = std::string_view(text).substr(begin, scan->at - begin);
    const bool number = word.find_first_not_of("0123456789+-.eE") == std::string_view::npos;
    if (!number && word != "true" && word != "false" && word != "null") {
        warn(scan, begin, "no JSON, though the agent takes it: true, false, null, or a number");
    }
}

/*
 * Behind a member: true when a comma stood there, and another member follows. The
 * agent lets a comma pass in front of the closing bracket.
 */
static bool another(scan_t* scan, char closing)
{
    skip_blanks(scan);
    const size_t comma = scan->at;
    if (peek(scan) == ',') {
        scan->at++;
        skip_blanks(scan);
        if (peek(scan) != closing) {
            return peek(scan) != '\0';
        }
        warn(scan, comma, "a comma behind the last member, which JSON does not allow");
    }
    scan->at++;
    return false;
}

/* True when the container that begins here has a member. */
static bool has_members(scan_t* scan, char closing)
{
    scan->at++;
    skip_blanks(scan);
    if (peek(scan) == closing) {
        scan->at++;
        return false;
    }
    return peek(scan) != '\0';
}

static void scan_array(scan_t* scan, author_node_t* node)
{
    /* What stands under a key that comes again later is no longer in the agent's tree. */
    const bool known = json_object_is_type(node->value, json_type_array) != 0;
    size_t i = 0;
    for (bool more = has_members(scan, ']'); more; more = another(scan, ']'), i++) {
        author_node_t& member = node->members.emplace_back();
        member.key_at = scan->at;
        scan_value(scan, &member, known ? json_object_array_get_idx(node->value, i) : nullptr);
    }
}

/* The agent has the later value in the earlier one's place. */
static void tell_repeated(scan_t* scan, author_node_t* node)
{
    std::unordered_map<std::string_view, size_t> later;
    for (size_t i = node->members.size(); i-- > 0;) {
        author_node_t& member = node->members[i];
        const auto [place, is_new] = later.emplace(member.key, i);
        if (!is_new) {
            const author_node_t& last = node->members[place->second];
            member.overridden = true;
            author_warn(scan->doc, last.key_at, {},
                        "key " + author_quoted(member.key) + " again, first at " +
                            author_place_text(*scan->doc, member.key_at) +
                            "; only the last one counts");
        }
    }
}

static void scan_object(scan_t* scan, author_node_t* node)
{
    for (bool more = has_members(scan, '}'); more; more = another(scan, '}')) {
        author_node_t& member = node->members.emplace_back();
        member.key_at = scan->at;
        member.key = key_of(skip_string(scan)).c_str(); /* the agent's keys end at a zero */
        skip_blanks(scan);
        scan->at++; /* the colon */
        skip_blanks(scan);
        json_object* value = nullptr;
        json_object_object_get_ex(node->value, member.key.c_str(), &value);
        scan_value(scan, &member, value);
    }
    tell_repeated(scan, node);
}

static void scan_value(scan_t* scan, author_node_t* node, json_object* value)
{
    node->at = scan->at;
    node->value = value;
    switch (peek(scan)) {
    case '{':
        scan_object(scan, node);
        break;
    case '[':
        scan_array(scan, node);
        break;
    case '"':
    case '\'':
        skip_string(scan);
        break;
    default:
        skip_word(scan);
        break;
    }
}

/* ---- what is not ---- */

/* The place of the innermost bracket that is still open, or npos. */
static size_t innermost_open(const std::string& text)
{
    std::vector<size_t> open;
    for (size_t at = 0; at < text.size(); at++) {
        const char c = text[at];
        if (c == '{' || c == '[') {
            open.push_back(at);
        } else if ((c == '}' || c == ']') && !open.empty()) {
            open.pop_back();
        } else if (c == '"' || c == '\'') {
            while (++at < text.size() && text[at] != c) {
                at += text[at] == '\\' ? 1 : 0;
            }
        }
    }
    return open.empty() ? std::string::npos : open.back();
}

static void tell_broken_off(author_doc_t* doc)
{
    const size_t open = innermost_open(doc->text);
    const size_t last = doc->text.find_last_not_of(" \t\r\n");
    const size_t end = last == std::string::npos ? 0 : last + 1;
    if (open == std::string::npos) {
        author_error(doc, end, {}, "the document breaks off");
        return;
    }
    author_error(doc, end, {},
                 std::string("the document breaks off inside the ") +
                     (doc->text[open] == '{' ? "object" : "array") + " that begins at " +
                     author_place_text(*doc, open));
}

static void tell_no_json(author_doc_t* doc, json_tokener* tokener)
{
    if (json_tokener_get_error(tokener) == json_tokener_continue) {
        tell_broken_off(doc);
        return;
    }
    const size_t at = std::min(json_tokener_get_parse_end(tokener), doc->text.size());
    const bool mark = doc->text.compare(0, 3, "\xef\xbb\xbf") == 0;
    if (at == 0 && mark) {
        author_error(doc, at, {}, "a byte order mark in front of the document");
    } else if (json_tokener_get_error(tokener) == json_tokener_success) {
        author_error(doc, at, {}, "the document is null, it has to be an object");
    } else {
        author_error(doc, at, {}, std::string("no JSON: ") + tpg_json_error(tokener));
    }
}

bool author_doc_scan(author_doc_t* doc)
{
    find_lines(doc);
    if (doc->text.empty() || doc->text.size() > TPG_FILE_MAX) {
        author_error(doc, 0, {},
                     doc->text.empty() ? "the file is empty"
                                       : "above " + std::to_string(TPG_FILE_MAX) +
                                             " bytes, the largest document");
        return false;
    }
    const tpg_json_tokener_t tokener(json_tokener_new());
    doc->json.reset(
        json_tokener_parse_ex(tokener.get(), doc->text.data(), static_cast<int>(doc->text.size())));
    if (doc->json == nullptr) {
        tell_no_json(doc, tokener.get());
        return false;
    }
    scan_t scan = {doc, 0, false};
    skip_blanks(&scan);
    scan_value(&scan, &doc->root, doc->json.get());
    skip_blanks(&scan);
    if (scan.at < doc->text.size()) {
        warn(&scan, scan.at, "text behind the document, which the agent does not read");
    }
    return true;
}
