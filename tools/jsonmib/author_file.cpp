/* Files and standard input, and the program's own messages. */

#include "author.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

void author_say(const char* format, ...)
{
    va_list args;
    fprintf(stderr, "%s: ", AUTHOR_PROGRAM);
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
}

std::string author_file_name(const std::string& file)
{
    return file == "-" ? "<stdin>" : file;
}

/* Appends all that a stream still has. 0, or -1 with errno set. */
static int read_stream(FILE* stream, std::string* text)
{
    char piece[65536];
    size_t length;
    while ((length = fread(piece, 1, sizeof piece, stream)) > 0) {
        text->append(piece, length);
    }
    return ferror(stream) ? -1 : 0;
}

int author_read(const std::string& file, std::string* text)
{
    bool is_stdin = file == "-";
    std::unique_ptr<FILE, int (*)(FILE*)> stream(is_stdin ? stdin : fopen(file.c_str(), "rb"),
                                                 is_stdin ? fflush : fclose);
    text->clear();
    if (stream && read_stream(stream.get(), text) == 0) {
        return 0;
    }
    author_say("cannot read %s: %s", author_file_name(file).c_str(), strerror(errno));
    return -1;
}

int author_write(const std::string& text)
{
    if (fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0) {
        return AUTHOR_FINE;
    }
    author_say("cannot write: %s", strerror(errno));
    return AUTHOR_MISUSE;
}
