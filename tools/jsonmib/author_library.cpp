/* What embed and extract share: the product's name, and a context for the agent's functions. */

#include "author_library.h"

#include "tpg_main_mibsource.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

/* The product in the name of a file. */
static std::string product_in(const std::string& file)
{
    std::string name = std::filesystem::path(file).filename();
    name.resize(std::min(name.find('.'), name.size()));
    for (const char* prefix : {"libmib_", "libmib"}) {
        if (name.starts_with(prefix)) {
            return name.substr(strlen(prefix));
        }
    }
    return name;
}

static bool fits_a_symbol(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

int author_find_product(const std::string& file, std::string* product)
{
    if (product->empty() && file != "-") {
        *product = product_in(file);
    }
    if (product->empty()) {
        author_say("whose document is it? Say --product=NAME");
    } else if (!std::ranges::all_of(*product, fits_a_symbol)) {
        author_say("the product \"%s\" cannot be in a symbol of C: letters, digits and _ can; "
                   "--product=NAME names another",
                   product->c_str());
    } else if (product->size() >= TPG_PROD_STRING_MAX) {
        author_say("the product \"%s\" is too long: a card's has at most %zu characters",
                   product->c_str(), TPG_PROD_STRING_MAX - 1);
    } else if (*product == TPG_NEVER_FROM_LIBRARY) {
        author_say("the agent never takes the document of %s from its library", product->c_str());
    } else {
        return 0;
    }
    return -1;
}

std::string author_symbol(const std::string& product)
{
    return TPG_SYMBOL_PREFIX + product;
}
