/* The tree of named OIDs. */

#include "author_mib.h"

#include <algorithm>

mib_places_t mib_places_standard()
{
    static const struct {
        mib_oid_t oid;
        const char* name;
    } NODES[] = {
        {{0}, "ccitt"},
        {{0, 0}, "zeroDotZero"},
        {{1}, "iso"},
        {{1, 3}, "org"},
        {{1, 3, 6}, "dod"},
        {{1, 3, 6, 1}, "internet"},
        {{1, 3, 6, 1, 1}, "directory"},
        {{1, 3, 6, 1, 2}, "mgmt"},
        {{1, 3, 6, 1, 2, 1}, "mib-2"},
        {{1, 3, 6, 1, 2, 1, 10}, "transmission"},
        {{1, 3, 6, 1, 3}, "experimental"},
        {{1, 3, 6, 1, 4}, "private"},
        {{1, 3, 6, 1, 4, 1}, "enterprises"},
        {{1, 3, 6, 1, 5}, "security"},
        {{1, 3, 6, 1, 6}, "snmpV2"},
        {{1, 3, 6, 1, 6, 1}, "snmpDomains"},
        {{1, 3, 6, 1, 6, 2}, "snmpProxys"},
        {{1, 3, 6, 1, 6, 3}, "snmpModules"},
        {{2}, "joint-iso-ccitt"},
    };
    mib_places_t places;
    for (const auto& node : NODES) {
        places[node.oid] = {node.name, mib_kind::node, true};
    }
    return places;
}

mib_oid_t mib_oid(const uint32_t* subids, size_t length)
{
    return {subids, subids + length};
}

mib_oid_t mib_below(mib_oid_t oid, uint32_t subid)
{
    oid.push_back(subid);
    return oid;
}

mib_oid_t mib_above(mib_oid_t oid)
{
    oid.pop_back();
    return oid;
}

bool mib_is_within(const mib_oid_t& oid, const mib_oid_t& top)
{
    return oid.size() >= top.size() && std::equal(top.begin(), top.end(), oid.begin());
}

/* True below a row but not below one of its columns: all that a row has are columns. */
static bool is_between_columns(const mib_places_t& places, const mib_oid_t& oid)
{
    for (size_t length = 1; length < oid.size(); length++) {
        const auto above = places.find(mib_oid(oid.data(), length));
        if (above != places.end() && above->second.kind == mib_kind::row &&
            !places.contains(mib_oid(oid.data(), length + 1))) {
            return true;
        }
    }
    return false;
}

const char* mib_place_fault(const mib_places_t& places, const mib_oid_t& oid)
{
    constexpr uint32_t LAST_ROOT = 2;
    if (oid.size() < 2 || oid[0] > LAST_ROOT) {
        return "its OID is in no tree";
    }
    if (oid.size() > TPG_OID_MAX) {
        return "its OID is too long";
    }
    if (oid.back() == 0) {
        return "the OID of an object cannot end in 0";
    }
    if (places.contains(oid)) {
        return "its OID has a name already";
    }
    const auto above = places.find(mib_above(oid));
    if (above != places.end() && above->second.kind != mib_kind::node) {
        return "it stands directly below another object";
    }
    return is_between_columns(places, oid) ? "it stands in another table's row" : nullptr;
}

bool mib_place_holds(const mib_places_t& places, const mib_oid_t& oid)
{
    const auto next = places.upper_bound(oid);
    return next != places.end() && mib_is_within(next->first, oid);
}

std::string mib_place_text(const mib_places_t& places, const mib_oid_t& oid,
                           std::set<std::string>* imports)
{
    mib_oid_t above = mib_above(oid);
    while (!places.contains(above)) {
        above.pop_back();
    }
    const mib_place_t& place = places.at(above);
    if (place.standard && above.size() > 1) {
        imports->insert(place.name);
    }
    std::string text = "{ " + place.name;
    for (size_t i = above.size(); i < oid.size(); i++) {
        text += " " + std::to_string(oid[i]);
    }
    return text + " }";
}
