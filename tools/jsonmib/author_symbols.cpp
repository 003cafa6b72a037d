/* Why the agent does not find a document's symbol in a library. */

#include "author_library.h"
#include "tpg_main_mibsource.h"

#include <algorithm>

namespace
{
/* A line of the table that objdump -t prints. */
struct symbol_t {
    std::string_view flags, section, size, name;
};
} // namespace

constexpr char DATA_SECTION[] = ".data";
constexpr char UNDEFINED[] = "*UND*";
constexpr size_t FLAGS = 7; /* characters; the first is the scope */

/* False for a line that is none of the table. */
static bool read_symbol(std::string_view line, symbol_t* symbol)
{
    const size_t flags = line.find(' ') + 1, tab = line.find('\t'), name = line.rfind(' ') + 1;
    const size_t section = flags + FLAGS + 1;
    if (flags == 0 || tab == line.npos || section > tab || name < tab) {
        return false;
    }
    *symbol = {line.substr(flags, FLAGS), line.substr(section, tab - section), {}, {}};
    symbol->size = line.substr(tab + 1, line.find(' ', tab) - tab - 1);
    symbol->name = line.substr(name);
    return true;
}

/* What is wrong with where the symbol is. */
static std::string section_fault(std::string_view section)
{
    static const struct {
        std::string_view section, fault;
    } faults[] = {
        {DATA_SECTION, ""},
        {".rodata", "is const: it must be writable"},
        {".data.rel.ro", "is const: it must be writable"},
        {".bss", "has no value, or only zeros: it must be initialised with the document"},
        {UNDEFINED, "is only declared"},
    };
    for (const auto& [name, fault] : faults) {
        if (section == name ||
            (section.starts_with(name) && section[name.size()] == '.' && name != DATA_SECTION)) {
            return std::string(fault);
        }
    }
    return "lies in the section " + std::string(section) + ": it must be in " + DATA_SECTION;
}

static std::string fault_of(const symbol_t& symbol)
{
    std::string fault = section_fault(symbol.section);
    if (symbol.flags.front() != 'l' && symbol.section != UNDEFINED) {
        fault += fault.empty() ? "is global: it must be static" : ", and static";
    }
    if (fault.empty() && symbol.size.find_first_not_of('0') == symbol.size.npos) {
        fault = "has no size: it must be an array with the document in it";
    }
    return fault;
}

/* What stands in the table in front of the symbol, or all if it is not there. */
struct others_t {
    bool any;
    std::string first;     /* that the agent would take for the symbol */
    std::string decorated; /* the symbol's name as C++ has it */
    std::string products;  /* symbols of other products, with commas */
};

static void note(others_t* others, std::string_view name, std::string_view symbol)
{
    const bool holds = name.find(symbol) != name.npos;
    others->any = true;
    if (holds && name.starts_with("_Z")) {
        others->decorated = name;
    } else if (name.starts_with(TPG_SYMBOL_PREFIX)) {
        others->products.append(others->products.empty() ? "" : ", ").append(name);
    }
    if (holds && others->first.empty()) {
        others->first = name;
    }
}

/* The symbol is not there: what else is. */
static std::string absence(const others_t& others, const std::string& symbol)
{
    const std::string none = "there is no symbol " + symbol;
    if (!others.any) {
        return none + ", nor any other: the library is stripped";
    }
    if (!others.decorated.empty()) {
        return none + ", but " + others.decorated +
               ": C++ decorates names; give it its own by __asm__(\"" + symbol + "\")";
    }
    return others.products.empty() ? none
                                   : none + ", but " + others.products + ": of another product?";
}

std::string author_symbol_fault(std::string_view symbols, const std::string& symbol)
{
    others_t others = {};
    for (size_t end = 0; !symbols.empty(); symbols.remove_prefix(end)) {
        end = std::min(symbols.find('\n'), symbols.size() - 1) + 1;
        symbol_t one = {};
        if (!read_symbol(symbols.substr(0, end - 1), &one)) {
            continue;
        }
        if (one.name != symbol) {
            note(&others, one.name, symbol);
        } else if (!others.first.empty()) {
            return others.first + " stands in front of " + symbol +
                   ", and the agent looks at the first of them only";
        } else {
            const std::string fault = fault_of(one);
            return fault.empty() ? "" : symbol + " " + fault;
        }
    }
    return absence(others, symbol);
}
