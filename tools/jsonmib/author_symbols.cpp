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

/* The symbol is not there: what else is. */
static std::string absence(const std::string& symbol, const std::string& decorated,
                           const std::string& others, bool any)
{
    const std::string none = "there is no symbol " + symbol;
    if (!any) {
        return none + ", nor any other: the library is stripped";
    }
    if (!decorated.empty()) {
        return none + ", but " + decorated +
               ": C++ decorates names; give it its own by __asm__(\"" + symbol + "\")";
    }
    return others.empty() ? none : none + ", but " + others + ": of another product?";
}

std::string author_symbol_fault(std::string_view symbols, const std::string& symbol)
{
    std::string first, decorated, others;
    bool any = false;
    for (size_t end = 0; !symbols.empty(); symbols.remove_prefix(end)) {
        end = std::min(symbols.find('\n'), symbols.size() - 1) + 1;
        symbol_t one = {};
        if (!read_symbol(symbols.substr(0, end - 1), &one)) {
            continue;
        }
        any = true;
        const std::string name(one.name);
        if (name == symbol && !first.empty()) {
            return first + " stands in front of " + symbol +
                   ", and the agent looks at the first of them only";
        }
        if (name == symbol) {
            const std::string fault = fault_of(one);
            return fault.empty() ? "" : symbol + " " + fault;
        }
        if (name.starts_with("_Z") && name.find(symbol) != name.npos) {
            decorated = name;
        } else if (name.starts_with(TPG_SYMBOL_PREFIX)) {
            others += (others.empty() ? "" : ", ") + name;
        }
        if (name.find(symbol) != name.npos) {
            first = name;
        }
    }
    return absence(symbol, decorated, others, any);
}
