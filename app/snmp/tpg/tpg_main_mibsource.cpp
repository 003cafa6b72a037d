/* Where a card's document comes from: library, built-in copy, full reverse. */

#include "tpg_main_mibsource.h"

#include "tpg_file.h"
#include "tpg_jsonmib.h"
#include "tpg_jsonmib_stats.h"
#include "tpg_log.h"
#include "tpg_main_command.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

struct stream_close {
    void operator()(FILE* stream) const
    {
        fclose(stream);
    }
};
using stream_t = std::unique_ptr<FILE, stream_close>;

/* A path or a command. */
struct text_t {
    char text[TPG_CMD_MAX];
};

/* One line of a tool's output, in a buffer that grows with it. */
struct line_t {
    tpg_heap_chars text;
    size_t size;
};

static int format(text_t*, const char*, ...) __attribute__((format(printf, 2, 3)));
static const char* why(int);
static int remove_file(const char*);
static int run_command(tpg_context_t*, const text_t*);
static int run_tool(tpg_context_t*, const text_t*, const char*);
static void tell_why_empty(tpg_context_t*, const char*);
static stream_t open_output(tpg_context_t*, const char*);
static bool read_line(FILE*, line_t*);
static const char* next_token(char**);
static uint32_t parse_hex(const char*);
static bool parse_symbol_line(char* line, uint32_t* offset, uint32_t* length, char* name,
                              size_t name_size);
static uint32_t data_section_size(tpg_context_t*, const char*);
static uint32_t find_data_size(tpg_context_t*, FILE*);
static int read_dump(tpg_context_t*, const char*, uint8_t*, size_t);
static void convert_dump(FILE*, uint8_t*, size_t);
static void store_group(const char*, uint8_t*);
static int write_jsonmib(tpg_context_t*, const char*, const uint8_t*, uint32_t);
static bool lies_in(const char* folder, const char* guarded);
static const char* guarded_folder(const char*);
static bool is_only_read(const tpg_libmib_register_info_t*);
static int link_built_in(tpg_context_t*, const tpg_libmib_register_info_t*, text_t*);
static int locate_non_generic(tpg_context_t*, const tpg_libmib_register_info_t*);
static bool locate_in_library(tpg_context_t*, tpg_libmib_register_info_t*);
static bool locate_built_in(tpg_context_t*, const tpg_libmib_register_info_t*);
static int reverse_library(tpg_context_t*, const tpg_libmib_register_info_t*);

constexpr size_t WORD = sizeof(uint32_t);
constexpr char BUILT_IN_FMT[] = "%s/libmib%s.so.json";
constexpr char LINK_BUILT_IN_FMT[] = "ln -sf %s/libmib%s.so.json %s.json";

/* ---- commands and their output ---- */

/* 0, or -1 with errno set when the text does not fit. */
static int format(text_t* out, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf(out->text, sizeof(out->text), fmt, args);
    va_end(args);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(out->text)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

/* The text for why a command failed, or what has to be done before it. */
static const char* why(int error)
{
    return error == ENAMETOOLONG ? TPG_CMD_TOO_LONG : tpg_command_error(error);
}

/* Removes what stands under the name; 0 also when there was nothing. */
static int remove_file(const char* path)
{
    return unlink(path) != 0 && errno != ENOENT ? -1 : 0;
}

/*
 * 0 when the command has come to its end. Its exit status is only told of: a
 * tool may complain after a good output. Whether it has done its work is seen by
 * the file that it leaves.
 */
static int run_command(tpg_context_t* ctx, const text_t* command)
{
    int status = 0;
    if (tpg_command_run(command->text, &status) != 0) {
        return -1;
    }
    if (status != 0) {
        TPG_WARN(ctx, "command %s ended with exit status %d", command->text, status);
    }
    return 0;
}

/* Runs a command that leaves its output in a file; what stood under that name goes first. */
static int run_tool(tpg_context_t* ctx, const text_t* command, const char* output)
{
    if (remove_file(output) != 0 || run_command(ctx, command) != 0) {
        TPG_ERROR(ctx, "command %s failed, %s", command->text, why(errno));
        return -1;
    }
    return 0;
}

static stream_t open_output(tpg_context_t* ctx, const char* path)
{
    off_t size = 0;
    const int fd = tpg_file_open_read(path, tpg_links::refuse, &size);
    stream_t stream(fd < 0 ? nullptr : fdopen(fd, "r"));
    if (stream == nullptr) {
        TPG_ERROR(ctx, "open %s failed, %s", path, strerror(errno));
        if (fd >= 0) {
            close(fd);
        }
    }
    return stream;
}

static bool read_line(FILE* stream, line_t* line)
{
    char* text = line->text.release();
    const ssize_t length = getline(&text, &line->size, stream);
    line->text.reset(text);
    return length >= 0;
}

/* The next piece of *rest between blanks and line feeds, or null. */
static const char* next_token(char** rest)
{
    return strtok_r(nullptr, " \n", rest);
}

static uint32_t parse_hex(const char* digits)
{
    return static_cast<uint32_t>(strtoul(digits, nullptr, 16));
}

/* ---- symbol ---- */

/* False when the line lacks the address, the size or the name. */
static bool parse_symbol_line(char* line, uint32_t* offset, uint32_t* length, char* name,
                              size_t name_size)
{
    char* rest = line;
    const char* token = next_token(&rest);
    if (token == nullptr) {
        return false;
    }
    *offset = parse_hex(token);
    token = next_token(&rest);
    if (token == nullptr) {
        return false;
    }
    *length = parse_hex(*token == '\t' ? token + 1 : token);
    token = next_token(&rest);
    if (token == nullptr) {
        return false;
    }
    snprintf(name, name_size, "%s", token);
    return true;
}

/* A pipe's exit status is that of its last command: whether objdump had failed is found out here.
 */
static void tell_why_empty(tpg_context_t* ctx, const char* path)
{
    text_t command = {};
    if (format(&command, "objdump -h %s > /dev/null", path) != 0 ||
        run_command(ctx, &command) != 0) {
        TPG_WARN(ctx, "command %s failed, %s", command.text, why(errno));
    }
    TPG_INFO(ctx, "Empty jsonmib symbol file.");
}

int tpg_get_jsonmib_string(tpg_context_t* ctx, tpg_libmib_register_info_t* libmib_reginfo,
                           uint32_t* offset, uint32_t* length)
{
    const char* path = libmib_reginfo->libmib_path;
    *offset = 0;
    *length = 0;
    text_t command = {};
    text_t output = {};
    if (format(&command,
               "objdump -t %s | grep jsonmib_%s | sed -e 's/l//' -e 's/O//' -e 's/.data//' > "
               "%s_jsonmib_sym",
               path, libmib_reginfo->prod_string, path) != 0 ||
        format(&output, "%s_jsonmib_sym", path) != 0) {
        TPG_ERROR(ctx, "command %s failed, %s", command.text, why(errno));
        return -1;
    }
    if (run_tool(ctx, &command, output.text) != 0) {
        return -1;
    }
    const stream_t stream = open_output(ctx, output.text);
    if (stream == nullptr) {
        return -1;
    }
    char line[TPG_CMD_MAX];
    if (fgets(line, sizeof(line), stream.get()) == nullptr) {
        tell_why_empty(ctx, path);
        return -1;
    }
    char name[TPG_SYMBOL_NAME_MAX] = {};
    parse_symbol_line(line, offset, length, name, sizeof(name));
    constexpr size_t PREFIX_LEN = sizeof(TPG_SYMBOL_PREFIX) - 1;
    if (strlen(name) < PREFIX_LEN || strcmp(name + PREFIX_LEN, libmib_reginfo->prod_string) != 0) {
        TPG_ERROR(ctx, "Mismatched jsonmib symbol name[%s] and prod_string[%s]", name,
                  libmib_reginfo->prod_string);
        return -1;
    }
    if (*offset == 0 || *length == 0) {
        TPG_ERROR(ctx, "parser error: missing offset or length!");
        return -1;
    }
    TPG_INFO(ctx, "%s offset %d, length %d", name, *offset, *length);
    return 0;
}

/* ---- extraction ---- */

/* The size in the first line that names .data, be it of .data.rel.ro: cards are built with that. 0
 * for none. */
static uint32_t find_data_size(tpg_context_t* ctx, FILE* stream)
{
    line_t line = {};
    while (read_line(stream, &line)) {
        if (strstr(line.text.get(), ".data") == nullptr) {
            continue;
        }
        char* rest = line.text.get();
        next_token(&rest); /* number */
        next_token(&rest); /* name */
        const char* size = next_token(&rest);
        if (size == nullptr) {
            return 0;
        }
        const uint32_t data_size = parse_hex(size);
        TPG_DEBUG(ctx, ".data section data_size 0x%x", data_size);
        return data_size;
    }
    return 0;
}

/* A group of hexadecimal digits into four bytes; the section's last group may be shorter. */
static void store_group(const char* digits, uint8_t* bytes)
{
    constexpr size_t DIGITS = 2 * WORD;
    char group[DIGITS + 1];
    memset(group, '0', DIGITS);
    group[DIGITS] = '\0';
    memcpy(group, digits, strnlen(digits, DIGITS));
    const uint32_t word = parse_hex(group);
    for (size_t i = 0; i < WORD; i++) {
        bytes[i] = static_cast<uint8_t>(word >> (8 * (WORD - 1 - i)));
    }
}

/* Each line holds an address, up to four groups and the bytes as text. */
static void convert_dump(FILE* stream, uint8_t* bytes, size_t size)
{
    constexpr int GROUPS = 4;
    line_t line = {};
    size_t done = 0;
    while (done < size && read_line(stream, &line)) {
        char* rest = line.text.get();
        next_token(&rest); /* address */
        for (int i = 0; i < GROUPS && done < size; i++) {
            const char* group = next_token(&rest);
            if (group == nullptr) {
                break;
            }
            store_group(group, bytes + done);
            done += WORD;
        }
    }
}

/* The size of the library's data section in bytes; 0 when it cannot be told (logged). */
static uint32_t data_section_size(tpg_context_t* ctx, const char* path)
{
    text_t command = {};
    text_t output = {};
    if (format(&command, "objdump -h %s > %s_section_head", path, path) != 0 ||
        format(&output, "%s_section_head", path) != 0) {
        TPG_ERROR(ctx, "command %s failed, %s", command.text, why(errno));
        return 0;
    }
    if (run_tool(ctx, &command, output.text) != 0) {
        return 0;
    }
    const stream_t heads = open_output(ctx, output.text);
    if (heads == nullptr) {
        return 0;
    }
    const uint32_t size = find_data_size(ctx, heads.get());
    if (size == 0) {
        TPG_ERROR(ctx, "parsing .data section size failed! data_size is %d", 0);
    }
    return size;
}

/* Converts the dump that the tool left beside the library; 0 or -1 (logged). */
static int read_dump(tpg_context_t* ctx, const char* path, uint8_t* bytes, size_t size)
{
    text_t output = {};
    if (format(&output, "%s_data", path) != 0) {
        TPG_ERROR(ctx, "open %s failed, %s", output.text, strerror(errno));
        return -1;
    }
    const stream_t dump = open_output(ctx, output.text);
    if (dump == nullptr) {
        return -1;
    }
    line_t line = {};
    do {
        if (!read_line(dump.get(), &line)) {
            TPG_ERROR(ctx, "cannot find start line of data section file");
            return -1;
        }
    } while (strstr(line.text.get(), "Contents of section") == nullptr);
    convert_dump(dump.get(), bytes, size);
    return 0;
}

int tpg_proc_data_section(tpg_context_t* ctx, char* libmib_so_dir, uint32_t** data_record,
                          size_t* data_bytes)
{
    const uint32_t data_size = data_section_size(ctx, libmib_so_dir);
    if (data_size == 0) {
        return -1;
    }
    if (data_size > TPG_DATA_SECTION_MAX) {
        TPG_ERROR(ctx, "calloc failed, %s: a .data section of %u bytes, the limit is %u",
                  strerror(EFBIG), data_size, TPG_DATA_SECTION_MAX);
        return -1;
    }
    /* A section that ends inside a word still gives up its last bytes. */
    const size_t words = (static_cast<size_t>(data_size) + WORD - 1) / WORD;
    *data_record = static_cast<uint32_t*>(calloc(words, WORD));
    if (*data_record == nullptr) {
        TPG_ERROR(ctx, "calloc failed, %s", strerror(errno));
        return -1;
    }
    if (data_bytes != nullptr) {
        *data_bytes = words * WORD;
    }
    return read_dump(ctx, libmib_so_dir, reinterpret_cast<uint8_t*>(*data_record), words * WORD);
}

/* Returns the byte count of the last write, or -1 (logged). */
static int write_jsonmib(tpg_context_t* ctx, const char* path, const uint8_t* bytes,
                         uint32_t length)
{
    /* A link that an earlier registration left leads to the built-in copy. */
    if (remove_file(path) != 0) {
        TPG_ERROR(ctx, "open %s failed, %s", path, strerror(errno));
        return -1;
    }
    const tpg_fd_t file = {tpg_file_open_write(path)};
    if (file.fd < 0) {
        TPG_ERROR(ctx, "open %s failed, %s", path, strerror(errno));
        return -1;
    }
    ssize_t written = 0;
    for (uint32_t done = 0; done < length; done += static_cast<uint32_t>(written)) {
        written = write(file.fd, bytes + done, length - done);
        if (written < 1) {
            TPG_ERROR(ctx, "write %s failed, %s", path, strerror(errno));
            return -1;
        }
        TPG_DEBUG(ctx, "Written %zd bytes", written);
    }
    return static_cast<int>(written);
}

int tpg_parse_jsonmib_string(tpg_context_t* ctx, tpg_libmib_register_info_t* libmib_reginfo,
                             uint32_t offset, uint32_t length)
{
    const char* path = libmib_reginfo->libmib_path;
    text_t command = {};
    text_t output = {};
    if (format(&command, "objdump -s -j .data --start-address=0x%x %s > %s_data", offset, path,
               path) != 0 ||
        format(&output, "%s_data", path) != 0) {
        TPG_ERROR(ctx, "command %s failed, %s", command.text, why(errno));
        return -1;
    }
    if (run_tool(ctx, &command, output.text) != 0) {
        return -1;
    }
    uint32_t* data_record = nullptr;
    size_t data_bytes = 0;
    const int ret =
        tpg_proc_data_section(ctx, libmib_reginfo->libmib_path, &data_record, &data_bytes);
    const tpg_heap_bytes owner(reinterpret_cast<uint8_t*>(data_record));
    if (ret != 0) {
        TPG_ERROR(ctx, "tpg_proc_data_section failed");
        return -1;
    }
    if (length > data_bytes) {
        TPG_ERROR(ctx, "a section of %zu bytes cannot hold the %u bytes of the document",
                  data_bytes, length);
        return -1;
    }
    return write_jsonmib(ctx, tpg_jsonmib_path(libmib_reginfo).path, owner.get(), length);
}

/* ---- folders in which no card may write ---- */

/* True when a real folder is the guarded one or below it. */
static bool lies_in(const char* folder, const char* guarded)
{
    char real[PATH_MAX];
    if (realpath(guarded, real) == nullptr) {
        return false;
    }
    const size_t length = strlen(real);
    return strncmp(folder, real, length) == 0 && (folder[length] == '/' || folder[length] == '\0');
}

/* The guarded folder in which files beside the library would really lie, past all links; or null.
 */
static const char* guarded_folder(const char* library)
{
    const char* slash = strrchr(library, '/');
    const int length = slash == nullptr ? 0 : static_cast<int>(slash - library) + 1;
    text_t beside = {};
    char folder[PATH_MAX];
    if (format(&beside, "%.*s.", length, library) != 0 ||
        realpath(beside.text, folder) == nullptr) {
        return nullptr; /* nothing can be written there either */
    }
    for (const char* guarded : {TPG_FLASH_DIR, TPG_BUILT_IN_DIR}) {
        if (lies_in(folder, guarded)) {
            return guarded;
        }
    }
    return nullptr;
}

/* True when the JSON file of a card without a library stays where it is found: that of slot 1, and
 * one that is the product's built-in document already. */
static bool is_only_read(const tpg_libmib_register_info_t* libmib_reginfo)
{
    text_t built_in = {};
    char real_built_in[PATH_MAX];
    char real_json[PATH_MAX];
    return libmib_reginfo->slot_no <= 1 ||
           (format(&built_in, BUILT_IN_FMT, TPG_BUILT_IN_DIR, libmib_reginfo->prod_string) == 0 &&
            realpath(built_in.text, real_built_in) != nullptr &&
            realpath(tpg_jsonmib_path(libmib_reginfo).path, real_json) != nullptr &&
            strcmp(real_built_in, real_json) == 0);
}

int tpg_check_libmib_path(tpg_context_t* ctx, const tpg_libmib_register_info_t* libmib_reginfo)
{
    const char* path = libmib_reginfo->libmib_path;
    const char* guarded = guarded_folder(path);
    if (guarded == nullptr || (!tpg_file_exists(path) && is_only_read(libmib_reginfo))) {
        return 0;
    }
    TPG_ERROR(ctx, "refused a card: libmib_path \"%s\" lies in %s, where no card may write", path,
              guarded);
    return -1;
}

/* ---- choice of the source ---- */

tpg_json_path_t tpg_jsonmib_path(const tpg_libmib_register_info_t* libmib_reginfo)
{
    tpg_json_path_t json = {};
    snprintf(json.path, sizeof(json.path), "%s.json", libmib_reginfo->libmib_path);
    return json;
}

int tpg_locate_jsonmib(tpg_context_t* ctx, tpg_libmib_register_info_t* libmib_reginfo)
{
    if (tpg_check_libmib_path(ctx, libmib_reginfo) != 0) {
        return -1;
    }
    if (!tpg_file_exists(libmib_reginfo->libmib_path)) {
        return locate_non_generic(ctx, libmib_reginfo);
    }
    if (locate_in_library(ctx, libmib_reginfo) || locate_built_in(ctx, libmib_reginfo)) {
        return 0;
    }
    return reverse_library(ctx, libmib_reginfo);
}

/* The old file goes first: were it a link to a folder, the new link would be put in there. */
static int link_built_in(tpg_context_t* ctx, const tpg_libmib_register_info_t* libmib_reginfo,
                         text_t* command)
{
    if (format(command, LINK_BUILT_IN_FMT, TPG_BUILT_IN_DIR, libmib_reginfo->prod_string,
               libmib_reginfo->libmib_path) != 0 ||
        remove_file(tpg_jsonmib_path(libmib_reginfo).path) != 0) {
        return -1;
    }
    return run_command(ctx, command);
}

/* A product without a library on this board. */
static int locate_non_generic(tpg_context_t* ctx, const tpg_libmib_register_info_t* libmib_reginfo)
{
    const char* product = libmib_reginfo->prod_string;
    const uint32_t slot = libmib_reginfo->slot_no;
    const tpg_json_path_t json = tpg_jsonmib_path(libmib_reginfo);
    TPG_INFO(ctx, "non-generic product %s on slot_no %d.", product, slot);
    if (!tpg_file_exists(json.path)) {
        TPG_ERROR(ctx, "Cannot find jsonmib file for non-generic product %s on slot_no %d.",
                  product, slot);
        return -1;
    }
    jsonmib_stats_source(ctx, slot, jsonmib_source_t::file);
    TPG_INFO(ctx, "Found built-in jsonmib file at %s.", json.path);
    if (is_only_read(libmib_reginfo)) {
        return 0;
    }
    text_t command = {};
    if (link_built_in(ctx, libmib_reginfo, &command) != 0) {
        TPG_ERROR(ctx, "Failed to execute command %s, %s", command.text, why(errno));
        return -1;
    }
    return 0;
}

static bool locate_in_library(tpg_context_t* ctx, tpg_libmib_register_info_t* libmib_reginfo)
{
    constexpr char CALLER[] = "tpg_snmp_register_jsonmib";
    const char* product = libmib_reginfo->prod_string;
    const uint32_t slot = libmib_reginfo->slot_no;
    uint32_t offset = 0;
    uint32_t length = 0;
    if (tpg_get_jsonmib_string(ctx, libmib_reginfo, &offset, &length) != 0 ||
        strcmp(product, TPG_NEVER_FROM_LIBRARY) == 0) {
        TPG_ERROR(ctx, "%s(): No json string is found in lib.so file, to try built-in", CALLER);
        return false;
    }
    TPG_INFO(ctx, "Successfully find jsonmib symbol for product %s on slot_no %d.", product, slot);
    if (tpg_parse_jsonmib_string(ctx, libmib_reginfo, offset, length) < 0) {
        TPG_ERROR(ctx, "Cannot parse jsonmib string for product %s on slot_no %d; to try built-in",
                  product, slot);
        return false;
    }
    if (jsonmib_check_jsonfile(ctx, tpg_jsonmib_path(libmib_reginfo).path) != 0) {
        TPG_ERROR(ctx, "%s(): Bad libmib.so.json format, to use built-in", CALLER);
        return false;
    }
    jsonmib_stats_source(ctx, slot, jsonmib_source_t::library);
    return true;
}

static bool locate_built_in(tpg_context_t* ctx, const tpg_libmib_register_info_t* libmib_reginfo)
{
    const char* product = libmib_reginfo->prod_string;
    const uint32_t slot = libmib_reginfo->slot_no;
    TPG_INFO(ctx, "No jsonmib symbol for product %s on slot_no %d.", product, slot);
    text_t built_in = {};
    if (format(&built_in, BUILT_IN_FMT, TPG_BUILT_IN_DIR, product) != 0 ||
        !tpg_file_exists(built_in.text)) {
        TPG_ERROR(ctx, "Cannot find %s for product %s on slot_no %d, to conduct full-reverse.",
                  built_in.text, product, slot);
        return false;
    }
    TPG_INFO(ctx, "Found built-in jsonmib file at %s.", built_in.text);
    if (jsonmib_check_jsonfile(ctx, built_in.text) != 0) {
        TPG_ERROR(ctx, "tpg_snmp_register_jsonmib(): Bad libmib.so.json format, to conduct "
                       "full-reverse.");
        return false;
    }
    text_t command = {};
    if (link_built_in(ctx, libmib_reginfo, &command) != 0) {
        TPG_ERROR(ctx, "Failed to execute command %s, %s, conduct full-reverse.", command.text,
                  why(errno));
        return false;
    }
    jsonmib_stats_source(ctx, slot, jsonmib_source_t::built_in);
    return true;
}

/* The external tool is expected to leave the JSON file. */
static int reverse_library(tpg_context_t* ctx, const tpg_libmib_register_info_t* libmib_reginfo)
{
    TPG_WARN(ctx, "Fully reversing libmib file %s ...", libmib_reginfo->libmib_path);
    jsonmib_stats_source(ctx, libmib_reginfo->slot_no, jsonmib_source_t::reverse);
    text_t command = {};
    if (format(&command, "libmib_reverse %s", libmib_reginfo->libmib_path) != 0 ||
        run_command(ctx, &command) != 0) {
        TPG_ERROR(ctx, "command %s failed, %s", command.text, why(errno));
        return -1;
    }
    return 0;
}
