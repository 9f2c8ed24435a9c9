// Loading, checking and querying the machine description.
//
// The JSON text is parsed by nlohmann::json; a second, small scan of the same
// text remembers the line where each value starts, so that a field that is
// well-formed JSON but wrong for a machine (a drive type "fixd", free space
// above the total) is reported with its line, as a syntax error is.
#include "sim/machine.h"

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <system_error>

#include <nlohmann/json.hpp>

#include "sim/hooks.h"
#include "sim/text.h"

namespace sim {
namespace {

using nlohmann::json;

// Line of every value of a JSON text, by field name ("volumes[2].type").
// The text must already have parsed; the scan trusts its structure.
class LineMap {
  public:
    explicit LineMap(const std::string& text) : text_(text) {
        skipSpace();
        if (at_ < text_.size()) {
            value("");
        }
    }

    // Line of `field`, else of the nearest enclosing field that has one.
    int lineOf(std::string field) const {
        while (true) {
            auto found = lines_.find(field);
            if (found != lines_.end()) {
                return found->second;
            }
            const std::size_t cut = field.find_last_of(".[");
            if (cut == std::string::npos || field.empty()) {
                return 1;
            }
            field.resize(cut);
        }
    }

  private:
    void skipSpace() {
        while (at_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[at_]))) {
            if (text_[at_] == '\n') {
                ++line_;
            }
            ++at_;
        }
    }

    std::string stringToken() {
        std::string result;
        ++at_;  // opening quote
        while (at_ < text_.size() && text_[at_] != '"') {
            if (text_[at_] == '\\' && at_ + 1 < text_.size()) {
                ++at_;
            }
            result.push_back(text_[at_++]);
        }
        ++at_;  // closing quote
        return result;
    }

    void value(const std::string& field) {
        skipSpace();
        if (at_ >= text_.size()) {
            return;
        }
        lines_.emplace(field, line_);
        const char c = text_[at_];
        if (c == '{') {
            ++at_;
            skipSpace();
            while (at_ < text_.size() && text_[at_] != '}') {
                const std::string key = stringToken();
                skipSpace();
                ++at_;  // ':'
                value(field.empty() ? key : field + "." + key);
                skipSpace();
                if (at_ < text_.size() && text_[at_] == ',') {
                    ++at_;
                    skipSpace();
                }
            }
            ++at_;
        } else if (c == '[') {
            ++at_;
            skipSpace();
            for (int index = 0; at_ < text_.size() && text_[at_] != ']'; ++index) {
                value(field + "[" + std::to_string(index) + "]");
                skipSpace();
                if (at_ < text_.size() && text_[at_] == ',') {
                    ++at_;
                    skipSpace();
                }
            }
            ++at_;
        } else if (c == '"') {
            stringToken();
        } else {
            while (at_ < text_.size() && text_[at_] != ',' && text_[at_] != '}' &&
                   text_[at_] != ']' && !std::isspace(static_cast<unsigned char>(text_[at_]))) {
                ++at_;
            }
        }
    }

    const std::string& text_;
    std::size_t at_ = 0;
    int line_ = 1;
    std::map<std::string, int> lines_;
};

// Reads one description, throwing MachineError "<file>:<line>: <field>: <problem>".
class Reader {
  public:
    Reader(const std::string& text, const std::filesystem::path& file) : text_(text), file_(file) {}

    json parse() {
        try {
            json document = json::parse(text_);
            lines_ = std::make_unique<LineMap>(text_);
            return document;
        } catch (const json::parse_error& error) {
            const std::size_t byte = error.byte == 0 ? 0 : error.byte - 1;
            int line = 1;
            for (std::size_t i = 0; i < byte && i < text_.size(); ++i) {
                line += text_[i] == '\n' ? 1 : 0;
            }
            std::string detail = error.what();
            const std::size_t colon = detail.find(": ");
            if (colon != std::string::npos) {
                detail = detail.substr(colon + 2);
            }
            const std::string field = lastKeyBefore(byte);
            throw MachineError(file_.string() + ":" + std::to_string(line) + ": " +
                               (field.empty() ? std::string() : "after field \"" + field + "\": ") +
                               "malformed JSON: " + detail);
        }
    }

    [[noreturn]] void fail(const std::string& field, const std::string& problem) const {
        const int line = lines_ ? lines_->lineOf(field) : 1;
        throw MachineError(file_.string() + ":" + std::to_string(line) + ": " +
                           (field.empty() ? std::string("(top level)") : field) + ": " + problem);
    }

    void onlyKeys(const json& object, const std::string& field,
                  std::initializer_list<const char*> allowed) const {
        for (const auto& [key, value] : object.items()) {
            bool known = key == "comment";
            for (const char* name : allowed) {
                known = known || key == name;
            }
            if (!known) {
                std::string list;
                for (const char* name : allowed) {
                    list += list.empty() ? name : std::string(", ") + name;
                }
                fail(join(field, key), "unknown field (expected one of " + list + ")");
            }
        }
    }

    static std::string join(const std::string& field, const std::string& key) {
        return field.empty() ? key : field + "." + key;
    }

    std::uint64_t unsignedNumber(const json& value, const std::string& field,
                                 std::uint64_t maximum) const {
        if (!value.is_number_unsigned() &&
            !(value.is_number_integer() && value.get<std::int64_t>() >= 0)) {
            fail(field, "expected a whole number of at least 0, found " + describe(value));
        }
        const std::uint64_t number = value.get<std::uint64_t>();
        if (number > maximum) {
            fail(field,
                 "number " + std::to_string(number) + " is above " + std::to_string(maximum));
        }
        return number;
    }

    std::string text(const json& value, const std::string& field) const {
        if (!value.is_string()) {
            fail(field, "expected a string, found " + describe(value));
        }
        return value.get<std::string>();
    }

    static std::string describe(const json& value) {
        std::string shown = value.dump();
        if (shown.size() > 40) {
            shown = shown.substr(0, 37) + "...";
        }
        return std::string(value.type_name()) + " " + shown;
    }

  private:
    // The key of the last "name": pair that starts before `byte`, to say
    // where a syntax error sits in a long file.
    std::string lastKeyBefore(std::size_t byte) const {
        std::string key;
        bool inString = false;
        std::string current;
        for (std::size_t i = 0; i < byte && i < text_.size(); ++i) {
            const char c = text_[i];
            if (inString) {
                if (c == '\\') {
                    ++i;
                } else if (c == '"') {
                    inString = false;
                    std::size_t next = i + 1;
                    while (next < text_.size() &&
                           std::isspace(static_cast<unsigned char>(text_[next]))) {
                        ++next;
                    }
                    if (next < text_.size() && text_[next] == ':') {
                        key = current;
                    }
                } else {
                    current.push_back(c);
                }
            } else if (c == '"') {
                inString = true;
                current.clear();
            }
        }
        return key;
    }

    const std::string& text_;
    std::filesystem::path file_;
    std::unique_ptr<LineMap> lines_;
};

constexpr std::u16string_view kGuidPrefix = u"\\\\?\\Volume";

bool isHex(char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

// "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}" including the braces.
bool isGuidText(std::string_view text) {
    if (text.size() != 38 || text.front() != '{' || text.back() != '}') {
        return false;
    }
    for (std::size_t i = 1; i < 37; ++i) {
        const bool dash = i == 9 || i == 14 || i == 19 || i == 24;
        if (dash ? text[i] != '-' : !isHex(text[i])) {
            return false;
        }
    }
    return true;
}

bool isDriveLetter(char16_t c) {
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z');
}

bool isBadNameCharacter(char16_t c) {
    return c < 0x20 || c == u'<' || c == u'>' || c == u':' || c == u'"' || c == u'|' || c == u'?' ||
           c == u'*' || c == u'/';
}

std::u16string folded(std::u16string_view text) {
    std::u16string result(text);
    for (char16_t& c : result) {
        c = foldCase(c);
    }
    return result;
}

std::vector<std::u16string> splitComponents(std::u16string_view text) {
    std::vector<std::u16string> parts;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find(u'\\', start);
        if (end == std::u16string_view::npos) {
            end = text.size();
        }
        if (end > start) {
            parts.emplace_back(text.substr(start, end - start));
        }
        start = end + 1;
    }
    return parts;
}

std::uint32_t serialFromGuid(std::string_view guid) {
    std::uint32_t hash = 2166136261u;
    for (char c : guid) {
        hash = (hash ^ static_cast<unsigned char>(lowerAscii(c))) * 16777619u;
    }
    return hash;
}

Volume readVolume(const Reader& reader, const json& entry, const std::string& field,
                  const std::filesystem::path& baseDirectory,
                  const std::filesystem::path& stateDirectory) {
    if (!entry.is_object()) {
        reader.fail(field,
                    "expected an object describing a volume, found " + Reader::describe(entry));
    }
    reader.onlyKeys(entry, field,
                    {"guid", "paths", "type", "fileSystem", "label", "serial", "totalBytes",
                     "freeBytes", "mediaPresent", "driver", "backingDirectory"});
    Volume volume;
    if (!entry.contains("guid")) {
        reader.fail(Reader::join(field, "guid"), "missing (every volume needs its GUID)");
    }
    std::string guid = reader.text(entry["guid"], Reader::join(field, "guid"));
    {
        std::string braces = guid;
        if (braces.rfind("\\\\?\\Volume", 0) == 0) {
            braces = braces.substr(10);
            if (!braces.empty() && braces.back() == '\\') {
                braces.pop_back();
            }
        }
        if (!isGuidText(braces)) {
            reader.fail(Reader::join(field, "guid"),
                        "\"" + guid +
                            "\" is not a GUID of the form {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}");
        }
        guid = braces;
    }
    volume.guidName = std::u16string(kGuidPrefix) + fromUtf8(guid) + u"\\";

    if (entry.contains("paths")) {
        const json& paths = entry["paths"];
        const std::string pathsField = Reader::join(field, "paths");
        if (!paths.is_array()) {
            reader.fail(pathsField, "expected a list of paths, found " + Reader::describe(paths));
        }
        for (std::size_t i = 0; i < paths.size(); ++i) {
            const std::string pathField = pathsField + "[" + std::to_string(i) + "]";
            std::u16string path = fromUtf8(reader.text(paths[i], pathField));
            for (char16_t& c : path) {
                c = c == u'/' ? u'\\' : c;
            }
            if (path.size() < 2 || !isDriveLetter(path[0]) || path[1] != u':' ||
                (path.size() > 2 && path[2] != u'\\')) {
                reader.fail(pathField, "\"" + toUtf8(path) +
                                           "\" is neither a drive root (C:\\) nor a folder "
                                           "below one (C:\\mnt\\data\\)");
            }
            if (path.back() != u'\\') {
                path.push_back(u'\\');
            }
            path[0] = foldCase(path[0]);
            for (const std::u16string& component : splitComponents(path.substr(3))) {
                bool bad = component == u"." || component == u"..";
                for (char16_t c : component) {
                    bad = bad || isBadNameCharacter(c);
                }
                if (bad) {
                    reader.fail(pathField, "\"" + toUtf8(component) +
                                               "\" is not a valid folder name in a Windows path");
                }
            }
            if (path.find(u"\\\\", 2) != std::u16string::npos) {
                reader.fail(pathField, "\"" + toUtf8(path) + "\" has an empty folder name");
            }
            volume.paths.push_back(path);
        }
    }

    if (entry.contains("type")) {
        const std::string name = reader.text(entry["type"], Reader::join(field, "type"));
        const std::optional<std::uint32_t> type = driveTypeFromName(name);
        volume.type = static_cast<DriveType>(type.value_or(0));
        if (!type) {
            reader.fail(Reader::join(field, "type"),
                        "unknown drive type \"" + name +
                            "\" (expected fixed, removable, cdrom, remote, ramdisk or unknown)");
        }
    }
    volume.fileSystem = u"NTFS";
    if (entry.contains("fileSystem")) {
        const std::string name =
            reader.text(entry["fileSystem"], Reader::join(field, "fileSystem"));
        if (name.empty() || name.size() > 31) {
            reader.fail(Reader::join(field, "fileSystem"),
                        "a file-system name has 1 to 31 characters (\"RAW\" for none)");
        }
        volume.fileSystem = fromUtf8(name);
    }
    if (entry.contains("label")) {
        volume.label = fromUtf8(reader.text(entry["label"], Reader::join(field, "label")));
        if (volume.label.size() > 32) {
            reader.fail(Reader::join(field, "label"), "a volume label has at most 32 characters");
        }
    }
    volume.serialNumber = serialFromGuid(guid);
    if (entry.contains("serial")) {
        const json& serial = entry["serial"];
        const std::string serialField = Reader::join(field, "serial");
        if (serial.is_string()) {
            // The "1A2B-3C4D" form that dir prints.
            std::string digits = serial.get<std::string>();
            if (digits.size() == 9 && digits[4] == '-') {
                digits.erase(4, 1);
            }
            bool valid = digits.size() == 8;
            for (char c : digits) {
                valid = valid && isHex(c);
            }
            if (!valid) {
                reader.fail(serialField, "expected a number or \"XXXX-XXXX\" in hexadecimal");
            }
            volume.serialNumber = static_cast<std::uint32_t>(std::stoul(digits, nullptr, 16));
        } else {
            volume.serialNumber =
                static_cast<std::uint32_t>(reader.unsignedNumber(serial, serialField, 0xFFFFFFFFu));
        }
    }
    volume.totalBytes = 64ull << 30;
    volume.freeBytes = 32ull << 30;
    if (entry.contains("totalBytes")) {
        volume.totalBytes =
            reader.unsignedNumber(entry["totalBytes"], Reader::join(field, "totalBytes"), ~0ull);
        volume.freeBytes = std::min(volume.freeBytes, volume.totalBytes);
    }
    if (entry.contains("freeBytes")) {
        volume.freeBytes =
            reader.unsignedNumber(entry["freeBytes"], Reader::join(field, "freeBytes"), ~0ull);
        if (volume.freeBytes > volume.totalBytes) {
            reader.fail(Reader::join(field, "freeBytes"),
                        std::to_string(volume.freeBytes) + " free bytes exceed the " +
                            std::to_string(volume.totalBytes) + " total bytes");
        }
    }
    if (entry.contains("mediaPresent")) {
        if (!entry["mediaPresent"].is_boolean()) {
            reader.fail(Reader::join(field, "mediaPresent"),
                        "expected true or false, found " + Reader::describe(entry["mediaPresent"]));
        }
        volume.mediaPresent = entry["mediaPresent"].get<bool>();
    }
    volume.driverAttributes = 0x1;
    if (entry.contains("driver")) {
        const json& driver = entry["driver"];
        const std::string driverField = Reader::join(field, "driver");
        if (!driver.is_object()) {
            reader.fail(driverField, "expected {\"attributes\": ..., \"value\": ...}, found " +
                                         Reader::describe(driver));
        }
        reader.onlyKeys(driver, driverField, {"attributes", "value"});
        if (driver.contains("attributes")) {
            volume.driverAttributes = static_cast<std::uint32_t>(reader.unsignedNumber(
                driver["attributes"], Reader::join(driverField, "attributes"), 0xFFFFFFFFu));
        }
        if (driver.contains("value")) {
            volume.driverValue = static_cast<std::uint32_t>(reader.unsignedNumber(
                driver["value"], Reader::join(driverField, "value"), 0xFFFFFFFFu));
        }
    }
    if (entry.contains("backingDirectory")) {
        const std::string directory =
            reader.text(entry["backingDirectory"], Reader::join(field, "backingDirectory"));
        if (directory.empty()) {
            reader.fail(Reader::join(field, "backingDirectory"), "must not be empty");
        }
        volume.backingDirectory = baseDirectory / directory;
    } else {
        volume.backingDirectory = stateDirectory / "volumes" / guid;
    }
    return volume;
}

FaultSpec readFault(const Reader& reader, const json& entry, const std::string& field) {
    if (!entry.is_object()) {
        reader.fail(field,
                    "expected an object describing a fault, found " + Reader::describe(entry));
    }
    FaultSpec fault;
    if (entry.contains("unbindable")) {
        reader.onlyKeys(entry, field, {"unbindable"});
        const json& target = entry["unbindable"];
        const std::string targetField = Reader::join(field, "unbindable");
        if (!target.is_object() || !target.contains("module") || !target.contains("export")) {
            reader.fail(targetField,
                        "expected {\"module\": \"kivapi.dll\", \"export\": \"KIV_...\"}");
        }
        reader.onlyKeys(target, targetField, {"module", "export"});
        fault.kind = FaultSpec::Kind::Unbindable;
        fault.module = reader.text(target["module"], Reader::join(targetField, "module"));
        fault.exportName = reader.text(target["export"], Reader::join(targetField, "export"));
        return fault;
    }
    if (entry.contains("missingLibrary")) {
        reader.onlyKeys(entry, field, {"missingLibrary"});
        fault.kind = FaultSpec::Kind::MissingLibrary;
        fault.module = reader.text(entry["missingLibrary"], Reader::join(field, "missingLibrary"));
        return fault;
    }
    reader.onlyKeys(entry, field, {"function", "error", "skip", "count"});
    if (!entry.contains("function") || !entry.contains("error")) {
        reader.fail(field,
                    "expected {\"function\", \"error\"[, \"skip\", \"count\"]}, {\"unbindable\"} "
                    "or {\"missingLibrary\"}");
    }
    fault.function = reader.text(entry["function"], Reader::join(field, "function"));
    fault.error = static_cast<std::uint32_t>(
        reader.unsignedNumber(entry["error"], Reader::join(field, "error"), 0xFFFFFFFFu));
    if (entry.contains("skip")) {
        fault.skip = static_cast<std::uint32_t>(
            reader.unsignedNumber(entry["skip"], Reader::join(field, "skip"), 0xFFFFFFFEu));
    }
    if (entry.contains("count")) {
        const json& count = entry["count"];
        if (count.is_string() && count.get<std::string>() == "always") {
            fault.count = kAlways;
        } else {
            fault.count = static_cast<std::uint32_t>(
                reader.unsignedNumber(count, Reader::join(field, "count"), 0xFFFFFFFFu));
        }
    }
    return fault;
}

// Path components with "." dropped and ".." applied (never above the root).
std::vector<std::u16string> normalisedComponents(std::u16string_view text) {
    std::vector<std::u16string> parts;
    for (std::u16string& part : splitComponents(text)) {
        if (part == u"..") {
            if (!parts.empty()) {
                parts.pop_back();
            }
        } else if (part != u".") {
            parts.push_back(std::move(part));
        }
    }
    return parts;
}

// The Linux path of parts[begin..] below `host`. Windows names ignore case:
// an entry that exists is used as it is spelled on disk. `relative` receives
// the Windows form of the same components.
std::filesystem::path matchHostPath(std::filesystem::path host,
                                    const std::vector<std::u16string>& parts, std::size_t begin,
                                    std::u16string* relative) {
    bool missing = false;
    for (std::size_t i = begin; i < parts.size(); ++i) {
        if (i > begin) {
            relative->push_back(u'\\');
        }
        relative->append(parts[i]);
        const std::string name = toUtf8(parts[i]);
        std::filesystem::path next = host / name;
        std::error_code error;
        if (!missing && !std::filesystem::exists(next, error)) {
            missing = true;
            for (const auto& entry : std::filesystem::directory_iterator(host, error)) {
                if (equalsIgnoreCaseUtf8(entry.path().filename().string(), name)) {
                    next = entry.path();
                    missing = false;
                    break;
                }
            }
        }
        host = std::move(next);
    }
    return host;
}

// The loaded machine of this process.
struct CurrentState {
    std::mutex mutex;
    std::unique_ptr<Machine> machine;
    std::string error;
    std::atomic<const Machine*> loaded{nullptr};
    std::atomic<bool> attempted{false};
};

CurrentState& currentState() {
    static CurrentState* instance = new CurrentState;
    return *instance;
}

void registerFaults(const Machine& machine) {
    for (const FaultSpec& fault : machine.faults()) {
        switch (fault.kind) {
            case FaultSpec::Kind::Function:
                injectFault(fault.function, fault.error, fault.skip, fault.count);
                break;
            case FaultSpec::Kind::Unbindable:
                makeUnbindable(fault.module, fault.exportName);
                break;
            case FaultSpec::Kind::MissingLibrary:
                makeLibraryMissing(fault.module);
                break;
            default:
                break;
        }
    }
}

}  // namespace

Machine Machine::load(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        std::error_code code(errno, std::generic_category());
        throw MachineError("machine file " + file.string() + ": cannot be read: " + code.message());
    }
    std::ostringstream text;
    text << stream.rdbuf();
    return parse(text.str(), file);
}

Machine Machine::parse(const std::string& text, const std::filesystem::path& file) {
    Reader reader(text, file);
    const json document = reader.parse();
    if (!document.is_object()) {
        reader.fail("",
                    "a machine description is a JSON object, found " + Reader::describe(document));
    }
    reader.onlyKeys(
        document, "",
        {"os", "majorVersion", "minorVersion", "buildNumber", "volumes", "faults", "generator"});
    Machine machine;
    machine.file_ = file;
    std::filesystem::path stateName = file.stem();
    stateName += ".state";
    machine.stateDirectory_ = file.parent_path() / stateName;
    machine.buildNumber_ = 17763;

    if (document.contains("os")) {
        const json& system = document["os"];
        if (!system.is_object()) {
            reader.fail("os", "expected {\"major\": 10, \"minor\": 0, \"build\": 17763}, found " +
                                  Reader::describe(system));
        }
        reader.onlyKeys(system, "os", {"major", "minor", "build"});
        if (system.contains("major")) {
            machine.majorVersion_ = static_cast<std::uint32_t>(
                reader.unsignedNumber(system["major"], "os.major", 0xFFFFFFFFu));
        }
        if (system.contains("minor")) {
            machine.minorVersion_ = static_cast<std::uint32_t>(
                reader.unsignedNumber(system["minor"], "os.minor", 0xFFFFFFFFu));
        }
        if (system.contains("build")) {
            machine.buildNumber_ = static_cast<std::uint32_t>(
                reader.unsignedNumber(system["build"], "os.build", 0xFFFFFFFFu));
        }
    }
    // Short forms of the same three numbers.
    if (document.contains("majorVersion")) {
        machine.majorVersion_ = static_cast<std::uint32_t>(
            reader.unsignedNumber(document["majorVersion"], "majorVersion", 0xFFFFFFFFu));
    }
    if (document.contains("minorVersion")) {
        machine.minorVersion_ = static_cast<std::uint32_t>(
            reader.unsignedNumber(document["minorVersion"], "minorVersion", 0xFFFFFFFFu));
    }
    if (document.contains("buildNumber")) {
        machine.buildNumber_ = static_cast<std::uint32_t>(
            reader.unsignedNumber(document["buildNumber"], "buildNumber", 0xFFFFFFFFu));
    }

    if (document.contains("volumes")) {
        const json& volumes = document["volumes"];
        if (!volumes.is_array()) {
            reader.fail("volumes",
                        "expected a list of volumes, found " + Reader::describe(volumes));
        }
        for (std::size_t i = 0; i < volumes.size(); ++i) {
            machine.volumes_.push_back(readVolume(reader, volumes[i],
                                                  "volumes[" + std::to_string(i) + "]",
                                                  file.parent_path(), machine.stateDirectory_));
        }
    }
    if (document.contains("faults")) {
        const json& faults = document["faults"];
        if (!faults.is_array()) {
            reader.fail("faults", "expected a list of faults, found " + Reader::describe(faults));
        }
        for (std::size_t i = 0; i < faults.size(); ++i) {
            machine.faults_.push_back(
                readFault(reader, faults[i], "faults[" + std::to_string(i) + "]"));
        }
    }

    // Names and paths must be unique, and a folder mount point must sit on
    // another volume that is itself reachable.
    std::map<std::u16string, std::string> seen;
    for (std::size_t v = 0; v < machine.volumes_.size(); ++v) {
        const Volume& volume = machine.volumes_[v];
        const std::string volumeField = "volumes[" + std::to_string(v) + "]";
        auto [guidAt, guidNew] = seen.emplace(folded(volume.guidName), volumeField + ".guid");
        if (!guidNew) {
            reader.fail(volumeField + ".guid",
                        "the same GUID is already used by " + guidAt->second);
        }
        for (std::size_t p = 0; p < volume.paths.size(); ++p) {
            const std::string pathField = volumeField + ".paths[" + std::to_string(p) + "]";
            auto [pathAt, pathNew] = seen.emplace(folded(volume.paths[p]), pathField);
            if (!pathNew) {
                reader.fail(pathField, "\"" + toUtf8(volume.paths[p]) + "\" is already used by " +
                                           pathAt->second);
            }
        }
    }
    machine.index();
    for (std::size_t v = 0; v < machine.volumes_.size(); ++v) {
        const Volume& volume = machine.volumes_[v];
        for (std::size_t p = 0; p < volume.paths.size(); ++p) {
            const std::u16string& path = volume.paths[p];
            if (path.size() == 3) {
                continue;
            }
            const std::string pathField =
                "volumes[" + std::to_string(v) + "].paths[" + std::to_string(p) + "]";
            // The parent folder's volume: the longest other root before this one.
            std::u16string parent = path.substr(0, path.size() - 1);
            parent.resize(parent.find_last_of(u'\\') + 1);
            const Volume* holder = nullptr;
            std::u16string holderRoot;
            while (holder == nullptr && parent.size() >= 3) {
                holder = machine.volumeAtRoot(parent);
                if (holder == nullptr) {
                    parent.pop_back();
                    parent.resize(parent.find_last_of(u'\\') + 1);
                } else {
                    holderRoot = parent;
                }
            }
            if (holder == nullptr) {
                reader.fail(pathField, "no volume holds the folder \"" + toUtf8(path) +
                                           "\" (its drive letter belongs to no volume)");
            }
            if (holder == &volume) {
                reader.fail(pathField, "\"" + toUtf8(path) + "\" lies on the volume itself");
            }
            const std::u16string relative = path.substr(holderRoot.size());
            machine.mountPoints_[static_cast<std::size_t>(holder - machine.volumes_.data())]
                .push_back(relative);
            machine.mountIndex_.emplace(folded(holder->guidName + relative), v);
        }
    }
    return machine;
}

void Machine::index() {
    rootIndex_.clear();
    mountIndex_.clear();
    mountPoints_.assign(volumes_.size(), {});
    for (std::size_t v = 0; v < volumes_.size(); ++v) {
        rootIndex_.emplace(folded(volumes_[v].guidName), v);
        for (const std::u16string& path : volumes_[v].paths) {
            rootIndex_.emplace(folded(path), v);
        }
    }
}

void Machine::prepareDirectories() const {
    std::error_code error;
    std::filesystem::create_directories(stateDirectory_, error);
    if (error) {
        throw MachineError("machine file " + file_.string() +
                           ": cannot create the state directory " + stateDirectory_.string() +
                           ": " + error.message());
    }
    for (std::size_t v = 0; v < volumes_.size(); ++v) {
        std::filesystem::create_directories(volumes_[v].backingDirectory, error);
        if (error) {
            throw MachineError("machine file " + file_.string() + ": volumes[" + std::to_string(v) +
                               "]: cannot create the backing directory " +
                               volumes_[v].backingDirectory.string() + ": " + error.message());
        }
    }
    // The folders that mount points sit in must exist on their volume, so
    // that listing the parent folder shows them.
    for (std::size_t v = 0; v < volumes_.size(); ++v) {
        for (const std::u16string& mountPoint : mountPoints_[v]) {
            std::u16string relative;
            const std::filesystem::path folder = matchHostPath(
                volumes_[v].backingDirectory, splitComponents(mountPoint), 0, &relative);
            std::filesystem::create_directories(folder, error);
            if (error) {
                throw MachineError("machine file " + file_.string() +
                                   ": cannot create the mount folder " + folder.string() + ": " +
                                   error.message());
            }
        }
    }
}

const Machine& Machine::current() {
    std::string error;
    const Machine* machine = currentOrNull(&error);
    if (machine == nullptr) {
        throw MachineError(error);
    }
    return *machine;
}

const Machine* Machine::currentOrNull(std::string* error) {
    CurrentState& state = currentState();
    if (const Machine* loaded = state.loaded.load(std::memory_order_acquire)) {
        return loaded;
    }
    std::lock_guard lock(state.mutex);
    if (!state.attempted.load()) {
        // A failed load is remembered until reset(), so that a broken file is
        // read once and every later call fails the same way, quickly.
        try {
            const std::filesystem::path file = currentFile();
            if (std::getenv("FIKIV_MACHINE") == nullptr ||
                std::getenv("FIKIV_MACHINE")[0] == '\0') {
                writeDefault(file);
            }
            auto machine = std::make_unique<Machine>(load(file));
            machine->prepareDirectories();
            state.machine = std::move(machine);
            state.error.clear();
        } catch (const MachineError& failure) {
            state.error = failure.what();
        } catch (const std::exception& failure) {
            state.error = std::string("machine description: ") + failure.what();
        }
        state.attempted.store(true);
        if (state.machine) {
            registerFaults(*state.machine);
            state.loaded.store(state.machine.get(), std::memory_order_release);
        }
    }
    if (!state.machine && error != nullptr) {
        *error = state.error;
    }
    return state.machine.get();
}

void Machine::ensureLoadAttempted() {
    if (!currentState().attempted.load(std::memory_order_acquire)) {
        currentOrNull();
    }
}

void Machine::reset() {
    CurrentState& state = currentState();
    std::lock_guard lock(state.mutex);
    state.loaded.store(nullptr);
    state.machine.reset();
    state.error.clear();
    state.attempted.store(false);
}

const Volume* Machine::findVolume(std::u16string_view guidName) const {
    if (!startsWithIgnoreCase(guidName, kGuidPrefix)) {
        return nullptr;
    }
    return volumeAtRoot(guidName);
}

const Volume* Machine::volumeAtRoot(std::u16string_view root) const {
    std::u16string key = folded(root);
    if (key.size() >= 4 &&
        (key.compare(0, 4, u"\\\\?\\") == 0 || key.compare(0, 4, u"\\\\.\\") == 0) &&
        key.size() >= 6 && key[5] == u':') {
        key.erase(0, 4);
    }
    if (key.empty()) {
        return nullptr;
    }
    if (key.back() != u'\\') {
        key.push_back(u'\\');
    }
    auto found = rootIndex_.find(key);
    return found == rootIndex_.end() ? nullptr : &volumes_[found->second];
}

const std::vector<std::u16string>& Machine::mountPointsOn(const Volume& volume) const {
    return mountPoints_[static_cast<std::size_t>(&volume - volumes_.data())];
}

std::optional<ResolvedPath> Machine::resolve(std::u16string_view path) const {
    std::u16string text(path);
    for (char16_t& c : text) {
        c = c == u'/' ? u'\\' : c;
    }
    std::u16string prefix;
    if (text.size() >= 4 &&
        (text.compare(0, 4, u"\\\\?\\") == 0 || text.compare(0, 4, u"\\\\.\\") == 0)) {
        if (startsWithIgnoreCase(std::u16string_view(text).substr(4), u"Volume{")) {
            // "\\?\Volume{36 characters}" is 48 characters; a separator or the end follows.
            if (text.size() < 48 || (text.size() > 48 && text[48] != u'\\')) {
                return std::nullopt;
            }
            const Volume* volume = volumeAtRoot(std::u16string_view(text).substr(0, 48));
            if (volume == nullptr) {
                return std::nullopt;
            }
            ResolvedPath resolved;
            resolved.rootPath = text.substr(0, 48) + u"\\";
            const auto parts = normalisedComponents(std::u16string_view(text).substr(48));
            // Follow mount points below the GUID root, longest first at each
            // volume, so "\\?\Volume{C}\mnt\data\x" is on the volume
            // mounted at mnt\data\ of C.
            std::size_t consumed = 0;
            for (bool descended = true; descended;) {
                descended = false;
                for (std::size_t depth = parts.size(); depth > consumed; --depth) {
                    std::u16string key = folded(volume->guidName);
                    for (std::size_t i = consumed; i < depth; ++i) {
                        key += folded(parts[i]);
                        key += u'\\';
                    }
                    auto mounted = mountIndex_.find(key);
                    if (mounted != mountIndex_.end()) {
                        for (std::size_t i = consumed; i < depth; ++i) {
                            resolved.rootPath += parts[i] + u"\\";
                        }
                        volume = &volumes_[mounted->second];
                        consumed = depth;
                        descended = true;
                        break;
                    }
                }
            }
            resolved.volume = volume;
            resolved.hostPath =
                matchHostPath(volume->backingDirectory, parts, consumed, &resolved.relative);
            return resolved;
        }
        prefix = text.substr(0, 4);
        text.erase(0, 4);
    }
    if (text.size() < 2 || !isDriveLetter(text[0]) || text[1] != u':') {
        return std::nullopt;
    }
    const auto parts = normalisedComponents(std::u16string_view(text).substr(2));
    // Longest root first: C:\mnt\data\x is on the volume mounted at
    // C:\mnt\data\, not on C:.
    const std::u16string drive = text.substr(0, 2) + u"\\";
    for (std::size_t depth = parts.size() + 1; depth-- > 0;) {
        std::u16string root = drive;
        for (std::size_t i = 0; i < depth; ++i) {
            root += parts[i];
            root += u'\\';
        }
        auto found = rootIndex_.find(folded(root));
        if (found == rootIndex_.end()) {
            continue;
        }
        ResolvedPath resolved;
        resolved.volume = &volumes_[found->second];
        resolved.rootPath = prefix + root;
        resolved.hostPath =
            matchHostPath(resolved.volume->backingDirectory, parts, depth, &resolved.relative);
        return resolved;
    }
    return std::nullopt;
}

}  // namespace sim
