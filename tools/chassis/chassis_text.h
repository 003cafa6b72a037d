#ifndef CHASSIS_TEXT_H
#define CHASSIS_TEXT_H

/* How the operator writes numbers and texts, and how they are shown to him. */

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct chassis_word_t {
    std::string text;
    bool quoted;
};

/*
 * Cuts a line at blanks. A word in double quotes may hold blanks, \xNN for any
 * byte, and a backslash in front of any other character. 0, or -1 when a quoted
 * word is not closed or holds a wrong escape.
 */
int chassis_text_split(std::string_view line, std::vector<chassis_word_t>* words);

/* Any bytes as a quoted word that chassis_text_split takes back. */
std::string chassis_text_quote(std::string_view text);

/* Reads a whole decimal or 0x number into *number; 0, or -1 when text is none or out of range. */
int chassis_parse_number(std::string_view text, int64_t low, int64_t high, int64_t* number);

#endif
