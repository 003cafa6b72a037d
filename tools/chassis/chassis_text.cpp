#include "chassis_text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

static int word_take(std::string_view* line, chassis_word_t* word);
static int escape_take(std::string_view* line, std::string* text);

constexpr char BLANKS[] = " \t";

int chassis_text_split(std::string_view line, std::vector<chassis_word_t>* words)
{
    for (;;) {
        line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
        if (line.empty()) {
            return 0;
        }
        chassis_word_t word = {};
        if (word_take(&line, &word) != 0) {
            return -1;
        }
        words->push_back(std::move(word));
    }
}

/* A bare word, or a text in double quotes with the escapes that answers use. */
static int word_take(std::string_view* line, chassis_word_t* word)
{
    if (line->front() != '"') {
        const size_t len = std::min(line->find_first_of(BLANKS), line->size());
        word->text = line->substr(0, len);
        line->remove_prefix(len);
        return 0;
    }
    word->quoted = true;
    line->remove_prefix(1);
    while (!line->empty() && line->front() != '"') {
        if (line->front() == '\\') {
            if (escape_take(line, &word->text) != 0) {
                return -1;
            }
            continue;
        }
        word->text += line->front();
        line->remove_prefix(1);
    }
    if (line->empty()) {
        return -1;
    }
    line->remove_prefix(1);
    return 0;
}

/* \xNN, or a backslash in front of any other character. */
static int escape_take(std::string_view* line, std::string* text)
{
    constexpr size_t HEX_LEN = 4;
    if (line->size() < 2) {
        return -1;
    }
    if ((*line)[1] != 'x') {
        *text += (*line)[1];
        line->remove_prefix(2);
        return 0;
    }
    int64_t byte = 0;
    const std::string hex = std::string("0x").append(line->substr(2, 2));
    if (line->size() < HEX_LEN || chassis_parse_number(hex, 0, UINT8_MAX, &byte) != 0) {
        return -1;
    }
    *text += static_cast<char>(byte);
    line->remove_prefix(HEX_LEN);
    return 0;
}

std::string chassis_text_quote(std::string_view text)
{
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c >= ' ' && c <= '~') {
            out += c;
        } else {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02x", static_cast<unsigned char>(c));
            out += hex;
        }
    }
    return out + "\"";
}

int chassis_parse_number(std::string_view text, int64_t low, int64_t high, int64_t* number)
{
    constexpr int DECIMAL = 10;
    constexpr int HEXADECIMAL = 16;
    int base = DECIMAL;
    if (text.starts_with("0x")) {
        text.remove_prefix(2);
        base = text.starts_with('-') ? 0 : HEXADECIMAL;
    }
    if (base == 0) {
        return -1;
    }
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, *number, base);
    return error == std::errc() && stop == end && *number >= low && *number <= high ? 0 : -1;
}
