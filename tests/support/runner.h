#ifndef RUNNER_H
#define RUNNER_H

/* Programs as lists of words. */

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

using words_t = std::vector<std::string>;

inline words_t operator+(words_t a, const words_t& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/* The words of a text. */
inline words_t words_of(const std::string& text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

/* What starts a program of the board: nothing, or the emulator that TPG_RUNNER names. */
inline words_t runner()
{
    const char* const text = getenv("TPG_RUNNER");
    return words_of(text == nullptr ? "" : text);
}

/* The words as execvp takes them. */
inline std::vector<char*> argv_of(const words_t& command)
{
    std::vector<char*> argv;
    for (const std::string& word : command) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    return argv;
}

/* Runs the program in place of this one. */
[[noreturn]] inline void become(const words_t& command)
{
    const std::vector<char*> argv = argv_of(command);
    execvp(argv[0], argv.data());
    perror(argv[0]);
    _exit(127);
}

#endif
