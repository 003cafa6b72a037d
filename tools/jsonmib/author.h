#ifndef AUTHOR_H
#define AUTHOR_H

/* What the commands of the card author's program share. */

#include <string>

namespace CLI
{
class App;
}

constexpr const char* AUTHOR_PROGRAM = "tpg-jsonmib";

/* Exit statuses. */
enum author_status_t : int {
    AUTHOR_FINE = 0,   /* nothing wrong; warnings are allowed */
    AUTHOR_ERRORS = 1, /* errors were found (with --strict: or warnings) */
    AUTHOR_MISUSE = 2, /* wrong use, or a file that cannot be read */
};

/*
 * A command adds itself to the command line with its options. When it is the one
 * that was asked for, it runs behind the parsing and leaves its exit status in
 * *status, which outlives the command line.
 */
using author_add_t = void (*)(CLI::App& line, int* status);

/* A document's MIB module. */
void author_add_mib(CLI::App& line, int* status);

/*
 * Reads a whole file, or standard input when the name is "-", into *text.
 * 0, or -1 with one line on standard error.
 */
int author_read(const std::string& file, std::string* text);

/* Writes to standard output. AUTHOR_FINE, or AUTHOR_MISUSE with one line on standard error. */
int author_write(const std::string& text);

/* The name to call a file by in messages: "-" is "<stdin>". */
std::string author_file_name(const std::string& file);

/* Says one line on standard error, with the program's name in front, as printf does. */
void author_say(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
