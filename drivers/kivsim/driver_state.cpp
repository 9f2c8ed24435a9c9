#include "driver_state.h"

#include <limits>

#include <nlohmann/json.hpp>

#include "library_object.h"
#include "sim/text.h"

namespace kivsim {
namespace {

using nlohmann::json;

const char* kindOf(const json& value) {
    switch (value.type()) {
        case json::value_t::null:
            return "null";
        case json::value_t::object:
            return "an object";
        case json::value_t::array:
            return "a list";
        case json::value_t::string:
            return "a text";
        case json::value_t::boolean:
            return "true or false";
        case json::value_t::number_float:
            return "a fraction";
        case json::value_t::number_integer:
        case json::value_t::number_unsigned:
            return "a number";
        default:
            return "something else";
    }
}

// Reads the fields of one document, naming the field of every problem.
class Reader {
  public:
    explicit Reader(const std::string& file) : file_(file) {}

    [[noreturn]] void fail(const std::string& where, const std::string& problem) const {
        throw DriverStateError(file_ + ": " + (where.empty() ? "" : where + ": ") + problem);
    }

    // `object[key]` when present, else null.
    const json* field(const json& object, const char* key) const {
        auto found = object.find(key);
        return found == object.end() ? nullptr : &*found;
    }

    std::uint64_t unsignedNumber(const json& object, const char* key, const std::string& where,
                                 std::uint64_t maximum) const {
        const json* value = field(object, key);
        if (value == nullptr) {
            return 0;
        }
        if (!value->is_number_unsigned() &&
            !(value->is_number_integer() && value->get<std::int64_t>() >= 0)) {
            fail(where + key,
                 std::string("expected a number of 0 or more, found ") + kindOf(*value));
        }
        const std::uint64_t number = value->get<std::uint64_t>();
        if (number > maximum) {
            fail(where + key, "expected at most " + std::to_string(maximum) + ", found " +
                                  std::to_string(number));
        }
        return number;
    }

    std::int64_t signedNumber(const json& object, const char* key, const std::string& where) const {
        const json* value = field(object, key);
        if (value == nullptr) {
            return 0;
        }
        if (!value->is_number_integer()) {
            fail(where + key, std::string("expected a number, found ") + kindOf(*value));
        }
        if (value->is_number_unsigned() &&
            value->get<std::uint64_t>() >
                static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            fail(where + key, "the number is too large");
        }
        return value->get<std::int64_t>();
    }

    bool flag(const json& object, const char* key, const std::string& where) const {
        const json* value = field(object, key);
        if (value == nullptr) {
            return false;
        }
        if (!value->is_boolean()) {
            fail(where + key, std::string("expected true or false, found ") + kindOf(*value));
        }
        return value->get<bool>();
    }

    std::string text(const json& object, const char* key, const std::string& where) const {
        const json* value = field(object, key);
        if (value == nullptr) {
            return {};
        }
        if (!value->is_string()) {
            fail(where + key, std::string("expected a text, found ") + kindOf(*value));
        }
        return value->get<std::string>();
    }

    // The entries of the list `object[key]`, each an object; empty when absent.
    const json& objects(const json& object, const char* key, const std::string& where) const {
        struct NoEntries {
            const json list = json::array();
        };
        const json* value = field(object, key);
        if (value == nullptr) {
            return libraryObject<NoEntries>().list;
        }
        if (!value->is_array()) {
            fail(where + key, std::string("expected a list, found ") + kindOf(*value));
        }
        for (std::size_t i = 0; i < value->size(); ++i) {
            if (!(*value)[i].is_object()) {
                fail(where + key + "[" + std::to_string(i) + "]",
                     std::string("expected an object, found ") + kindOf((*value)[i]));
            }
        }
        return *value;
    }

  private:
    const std::string& file_;
};

constexpr std::uint64_t kMaxUint64 = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kMaxUint32 = std::numeric_limits<std::uint32_t>::max();

SnapshotElement elementFrom(const Reader& reader, const json& entry, const std::string& where) {
    SnapshotElement element;
    element.snapshotId = reader.unsignedNumber(entry, "snapshotId", where, kMaxUint64);
    element.snapshotName = reader.text(entry, "snapshotName", where);
    element.sourceGuid = reader.text(entry, "source", where);
    element.cacheFileName = reader.text(entry, "cacheFileName", where);
    element.cacheKey = reader.text(entry, "cacheKey", where);
    element.cacheHostPath = reader.text(entry, "cacheHostPath", where);
    element.initialSizeMb = static_cast<std::uint32_t>(
        reader.unsignedNumber(entry, "initialSizeMb", where, kMaxUint32));
    element.maximumSizeMb = static_cast<std::uint32_t>(
        reader.unsignedNumber(entry, "maximumSizeMb", where, kMaxUint32));
    return element;
}

SnapshotSet setFrom(const Reader& reader, const json& entry, const std::string& where) {
    SnapshotSet set;
    set.id = reader.unsignedNumber(entry, "id", where, kMaxUint64);
    set.ownerPid = reader.signedNumber(entry, "ownerPid", where);
    set.created = reader.flag(entry, "created", where);
    set.quiesceWait =
        static_cast<std::uint32_t>(reader.unsignedNumber(entry, "quiesceWait", where, kMaxUint32));
    set.quiesceTimeout = static_cast<std::uint32_t>(
        reader.unsignedNumber(entry, "quiesceTimeout", where, kMaxUint32));
    const json& elements = reader.objects(entry, "elements", where);
    for (std::size_t i = 0; i < elements.size(); ++i) {
        set.elements.push_back(
            elementFrom(reader, elements[i], where + "elements[" + std::to_string(i) + "]."));
    }
    return set;
}

json toJson(const SnapshotElement& element) {
    return {{"snapshotId", element.snapshotId},       {"snapshotName", element.snapshotName},
            {"source", element.sourceGuid},           {"cacheFileName", element.cacheFileName},
            {"cacheKey", element.cacheKey},           {"cacheHostPath", element.cacheHostPath},
            {"initialSizeMb", element.initialSizeMb}, {"maximumSizeMb", element.maximumSizeMb}};
}

// The "\\?\Volume{...}\" start of a cache key, or empty.
std::string_view volumeOfCacheKey(std::string_view cacheKey) {
    const std::size_t end = cacheKey.find("}\\");
    return end == std::string_view::npos ? std::string_view() : cacheKey.substr(0, end + 2);
}

}  // namespace

SnapshotSet* DriverState::findSet(std::uint64_t id) {
    for (SnapshotSet& set : sets) {
        if (set.id == id) {
            return &set;
        }
    }
    return nullptr;
}

const SnapshotElement* DriverState::findElement(std::uint64_t snapshotId,
                                                const SnapshotSet** owner) const {
    for (const SnapshotSet& set : sets) {
        for (const SnapshotElement& element : set.elements) {
            if (element.snapshotId == snapshotId) {
                if (owner != nullptr) {
                    *owner = &set;
                }
                return &element;
            }
        }
    }
    return nullptr;
}

const SnapshotElement* DriverState::findCreatedSnapshot(std::string_view name) const {
    const std::string wanted = comparableSnapshotName(name);
    for (const SnapshotSet& set : sets) {
        if (!set.created) {
            continue;
        }
        for (const SnapshotElement& element : set.elements) {
            if (comparableSnapshotName(element.snapshotName) == wanted) {
                return &element;
            }
        }
    }
    return nullptr;
}

bool DriverState::holdsActiveCache(std::u16string_view guidName) const {
    const auto sameGuid = [guidName](std::string_view volume) {
        if (volume.size() != guidName.size()) {
            return false;
        }
        for (std::size_t i = 0; i < volume.size(); ++i) {
            if (static_cast<char16_t>(static_cast<unsigned char>(volume[i])) !=
                sim::lowerAscii(guidName[i])) {
                return false;
            }
        }
        return true;
    };
    for (const SnapshotSet& set : sets) {
        if (!set.created) {
            continue;
        }
        for (const SnapshotElement& element : set.elements) {
            if (sameGuid(volumeOfCacheKey(element.cacheKey))) {
                return true;
            }
        }
    }
    return false;
}

std::string comparableSnapshotName(std::string_view name) {
    std::string text = sim::lowerAscii(name);
    if (text.rfind("\\\\.\\", 0) == 0) {
        text[2] = '?';
    }
    text.resize(sim::withoutTrailingBackslashes(text).size());
    return text;
}

DriverState parseDriverState(std::string_view text, const std::string& file) {
    const Reader reader(file);
    json document;
    try {
        document = json::parse(text);
    } catch (const json::exception&) {
        reader.fail("", "not a JSON document");
    }
    if (!document.is_object()) {
        reader.fail("", std::string("expected an object, found ") + kindOf(document));
    }
    DriverState state;
    state.lastId = reader.unsignedNumber(document, "lastId", "", kMaxUint64);
    state.lastName = reader.unsignedNumber(document, "lastName", "", kMaxUint64);
    const json& sets = reader.objects(document, "sets", "");
    for (std::size_t i = 0; i < sets.size(); ++i) {
        state.sets.push_back(setFrom(reader, sets[i], "sets[" + std::to_string(i) + "]."));
    }
    return state;
}

std::string serializeDriverState(const DriverState& state) {
    json sets = json::array();
    for (const SnapshotSet& set : state.sets) {
        json elements = json::array();
        for (const SnapshotElement& element : set.elements) {
            elements.push_back(toJson(element));
        }
        sets.push_back({{"id", set.id},
                        {"ownerPid", set.ownerPid},
                        {"created", set.created},
                        {"quiesceWait", set.quiesceWait},
                        {"quiesceTimeout", set.quiesceTimeout},
                        {"elements", elements}});
    }
    const json document = {{"lastId", state.lastId}, {"lastName", state.lastName}, {"sets", sets}};
    return document.dump(2) + "\n";
}

}  // namespace kivsim
