// Reading a machine description: the file, its JSON and the checks that make
// a well-formed JSON document a machine (known fields, volume GUIDs, paths,
// sizes, backing directories, faults). Every problem is reported as one
// MachineError "<file>:<line>: <field>: <problem>".
#include "sim/machine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <map>
#include <memory>
#include <optional>
#include <system_error>

#include <nlohmann/json.hpp>

#include "json_lines.h"
#include "machine_paths.h"
#include "sim/hooks.h"
#include "sim/text.h"

namespace sim {
namespace {

using nlohmann::json;

// Bounds on what a description may be: far above any real machine (a
// thousand volumes take about 300 KB and four levels of nesting), low enough
// that a hostile file cannot exhaust memory or the stack.
constexpr std::size_t kMaxFileBytes = 16u << 20;
constexpr int kMaxNesting = 32;

// `text` with control characters (C0, DEL and C1, the stuff of terminal
// escape sequences and line breaks) written as \xNN or \u00NN, so that a
// message never carries them to a terminal.
std::string printable(std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7F) {
            result += "\\x";
            result += kHex[c >> 4];
            result += kHex[c & 0xF];
        } else if (c == 0xC2 && i + 1 < text.size() &&
                   static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                   static_cast<unsigned char>(text[i + 1]) <= 0x9F) {
            const auto next = static_cast<unsigned char>(text[++i]);
            result += "\\u00";
            result += kHex[next >> 4];
            result += kHex[next & 0xF];
        } else {
            result.push_back(static_cast<char>(c));
        }
    }
    return result;
}

// The first control character of `text` (C0, DEL or C1), or 0.
char16_t controlCharacterIn(std::u16string_view text) {
    for (char16_t c : text) {
        if (c < 0x20 || (c >= 0x7F && c <= 0x9F)) {
            return c;
        }
    }
    return 0;
}

std::string codePointName(char16_t c) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string name = "U+";
    for (int shift = 12; shift >= 0; shift -= 4) {
        name += kHex[(c >> shift) & 0xF];
    }
    return name;
}

// Reads one description, throwing MachineError "<file>:<line>: <field>: <problem>".
class Reader {
  public:
    Reader(const std::string& text, const std::filesystem::path& file) : text_(text), file_(file) {}

    json parse() {
        if (const int line = lineOfDeepNesting(text_, kMaxNesting); line != 0) {
            throw MachineError(printable(file_.string()) + ":" + std::to_string(line) +
                               ": nesting deeper than " + std::to_string(kMaxNesting) +
                               " levels (a machine description needs four)");
        }
        try {
            json document = json::parse(text_);
            lines_ = std::make_unique<JsonLines>(text_);
            return document;
        } catch (const json::parse_error& error) {
            std::string detail = error.what();
            const std::size_t colon = detail.find(": ");
            if (colon != std::string::npos) {
                detail = detail.substr(colon + 2);
            }
            malformed(error.byte == 0 ? 0 : error.byte - 1, detail);
        } catch (const json::out_of_range& error) {
            // A number beyond the range of a double ("9e999") fails the parse
            // without a position: name the line of the first such number.
            std::string detail = error.what();
            const std::size_t end = detail.find(']');
            if (end != std::string::npos) {
                detail = detail.substr(end + 2);
            }
            const std::size_t open = detail.find('\'');
            const std::size_t close = detail.rfind('\'');
            const std::size_t at =
                open < close ? text_.find(detail.substr(open + 1, close - open - 1)) : 0;
            malformed(at == std::string::npos ? 0 : at, detail);
        }
    }

    [[noreturn]] void malformed(std::size_t byte, const std::string& detail) const {
        const std::string field = lastKeyBefore(text_, byte);
        throw MachineError(
            printable(file_.string() + ":" + std::to_string(lineAt(text_, byte)) + ": " +
                      (field.empty() ? std::string() : "after field \"" + field + "\": ") +
                      "malformed JSON: " + detail));
    }

    [[noreturn]] void fail(const std::string& field, const std::string& problem) const {
        const int line = lines_ ? lines_->lineOf(field) : 1;
        throw MachineError(printable(file_.string() + ":" + std::to_string(line) + ": " +
                                     (field.empty() ? std::string("(top level)") : field) + ": " +
                                     problem));
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
    const std::string& text_;
    std::filesystem::path file_;
    std::unique_ptr<JsonLines> lines_;
};

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

bool isBadNameCharacter(char16_t c) {
    return c < 0x20 || c == u'<' || c == u'>' || c == u':' || c == u'"' || c == u'|' || c == u'?' ||
           c == u'*' || c == u'/';
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
        if (const char16_t c = controlCharacterIn(volume.fileSystem); c != 0) {
            reader.fail(Reader::join(field, "fileSystem"),
                        "control character " + codePointName(c) + " in a file-system name");
        }
    }
    if (entry.contains("label")) {
        volume.label = fromUtf8(reader.text(entry["label"], Reader::join(field, "label")));
        if (volume.label.size() > 32) {
            reader.fail(Reader::join(field, "label"), "a volume label has at most 32 characters");
        }
        // Labels are printed by the tools; a terminal escape sequence or a
        // line break in one would be played or would forge a line.
        if (const char16_t c = controlCharacterIn(volume.label); c != 0) {
            reader.fail(Reader::join(field, "label"),
                        "control character " + codePointName(c) + " in a volume label");
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
        const std::string directoryField = Reader::join(field, "backingDirectory");
        if (directory.empty()) {
            reader.fail(directoryField, "must not be empty");
        }
        const std::filesystem::path named(directory);
        if (named.is_absolute()) {
            // The user's explicit choice: used as it is, never made.
            std::error_code error;
            if (!std::filesystem::is_directory(named, error)) {
                reader.fail(directoryField, "\"" + directory +
                                                "\" is not an existing directory (an absolute "
                                                "backing directory is used, never made)");
            }
            volume.backingDirectory = named.lexically_normal();
            volume.ownBackingDirectory = false;
        } else {
            // A relative one stays inside the machine's directory.
            const std::filesystem::path inside = named.lexically_normal();
            if (inside.empty() || inside == "." || *inside.begin() == "..") {
                reader.fail(directoryField,
                            "\"" + directory +
                                "\" leads out of the machine's directory (a relative backing "
                                "directory names a folder inside it)");
            }
            volume.backingDirectory = baseDirectory / inside;
        }
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
    if (!isKnownFunction(fault.function)) {
        reader.fail(Reader::join(field, "function"),
                    "unknown function \"" + fault.function +
                        "\" (expected an os:: function by its Win32 name, such as "
                        "GetDiskFreeSpaceExW, or a driver entry point, such as KIV_Destroy)");
    }
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

}  // namespace

Machine Machine::load(const std::filesystem::path& file) {
    // Opened without blocking, so that a FIFO does not wait for a writer; only
    // a regular file of bounded size is read.
    const int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        std::error_code code(errno, std::generic_category());
        throw MachineError("machine file " + printable(file.string()) +
                           ": cannot be read: " + code.message());
    }
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        throw MachineError(printable(file.string()) +
                           ":1: not a regular file (a machine description is a JSON file)");
    }
    const auto tooLarge = [&file](std::uint64_t bytes) {
        return MachineError(printable(file.string()) + ":1: " + std::to_string(bytes) +
                            " bytes are more than the " + std::to_string(kMaxFileBytes) +
                            " a machine description may have");
    };
    if (static_cast<std::uint64_t>(status.st_size) > kMaxFileBytes) {
        throw tooLarge(static_cast<std::uint64_t>(status.st_size));
    }
    std::string text;
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            std::error_code code(errno, std::generic_category());
            throw MachineError("machine file " + printable(file.string()) +
                               ": cannot be read: " + code.message());
        }
        if (got == 0) {
            break;
        }
        text.append(buffer, static_cast<std::size_t>(got));
        // The file may grow while it is read.
        if (text.size() > kMaxFileBytes) {
            throw tooLarge(text.size());
        }
    }
    return parse(text, file);
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
    // Two volumes answering from one directory would each see the other's
    // files, and the driver could not tell their handles apart.
    std::map<std::filesystem::path, std::size_t> directories;
    for (std::size_t v = 0; v < machine.volumes_.size(); ++v) {
        std::filesystem::path directory = machine.volumes_[v].backingDirectory.lexically_normal();
        if (!directory.has_filename()) {
            directory = directory.parent_path();
        }
        auto [earlier, fresh] = directories.emplace(directory, v);
        if (!fresh) {
            reader.fail("volumes[" + std::to_string(v) + "].backingDirectory",
                        "volumes[" + std::to_string(earlier->second) +
                            "] already keeps its files in \"" + directory.string() + "\"");
        }
    }
    machine.index();
    std::vector<std::vector<std::u16string>> mountPoints(machine.volumes_.size());
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
            mountPoints[static_cast<std::size_t>(holder - machine.volumes_.data())].push_back(
                relative);
            std::u16string key = holder->guidName + relative;
            key.pop_back();  // keys have no trailing backslash
            machine.mountIndex_.emplace(std::move(key), v);
        }
    }
    machine.mountPoints_.clear();
    for (std::vector<std::u16string>& list : mountPoints) {
        machine.mountPoints_.push_back(
            std::make_shared<std::vector<std::u16string>>(std::move(list)));
    }
    return machine;
}

}  // namespace sim
