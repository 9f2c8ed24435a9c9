#include "settings_file.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <vector>

#include "host/text.h"
#include "kiv/kivconfig/setconfiginfo.h"

namespace fihost {
namespace {

std::optional<std::uint32_t> numberOf(const std::string& value) {
    if (value.empty() || value.size() > 10 ||
        value.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    const std::uint64_t number = std::stoull(value);
    if (number > 0xFFFFFFFFull) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(number);
}

std::vector<std::string> listOf(const std::string& value) {
    std::vector<std::string> items;
    std::istringstream in(value);
    std::string item;
    while (std::getline(in, item, ',')) {
        if (!item.empty()) {
            items.push_back(item);
        }
    }
    return items;
}

}  // namespace

std::string mergeSettingsFile(const std::string& file, PlacementOptions& placement,
                              QuiesceOptions& quiesce) {
    std::ifstream in(file);
    if (!in) {
        return "cannot read the settings file " + file + ": " + std::strerror(errno);
    }
    std::string document;
    std::string line;
    while (std::getline(in, line)) {
        if (line.find_first_not_of(" \t\r") != std::string::npos &&
            line[line.find_first_not_of(" \t\r")] == '#') {
            continue;
        }
        for (char& c : line) {
            if (c == '\t' || c == '\r') {
                c = ' ';
            }
        }
        document += line + " ";
    }
    std::vector<std::u16string> entries;
    if (parseSetConfigInfo(host::toUtf16(document).c_str(), entries) != 0) {
        return "the settings file " + file +
               " does not parse; it reads <SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=KEY "
               "value=VALUE /> ... </SET_CONFIG_INFO_LIST>, blanks between the parts";
    }
    const std::string where = " in the settings file " + file;
    for (const std::u16string& wide : entries) {
        const std::string entry = host::toUtf8(wide);
        const std::size_t equals = entry.find('=');
        const std::string key = entry.substr(0, equals);
        const std::string value = entry.substr(equals + 1);
        const std::optional<std::uint32_t> number = numberOf(value);
        auto setNumber = [&](std::optional<std::uint32_t>& field, const char* option,
                             std::uint32_t maximum) -> std::string {
            if (!number || *number > maximum) {
                return key + "=" + value + where + ": the value must be a whole number from 0 to " +
                       std::to_string(maximum);
            }
            if (field.has_value()) {
                return key + where + " conflicts with " + option + "; set it in one place";
            }
            field = number;
            return {};
        };
        std::string problem;
        if (key == "quiesceWait") {
            problem = setNumber(quiesce.wait, "--quiesce-wait", 0xFFFFFFFFu);
        } else if (key == "quiesceTimeout") {
            problem = setNumber(quiesce.timeout, "--quiesce-timeout", 0xFFFFFFFFu);
        } else if (key == "cachefileInitSizeinMB") {
            problem = setNumber(placement.initialMb, "--initial-mb", 0xFFFFFFFFu);
        } else if (key == "cachefileMaxSizeInMB") {
            problem = setNumber(placement.maxMb, "--max-mb", 0xFFFFFFFFu);
        } else if (key == "cachefileInitSizePercentage") {
            problem = setNumber(placement.initialPercent, "--initial-percent", 100);
        } else if (key == "cachefileMaxSizePercentage") {
            problem = setNumber(placement.maxPercent, "--max-percent", 100);
        } else if (key == "cachefileAllowedVolumes" || key == "cachefileDisallowedVolumes") {
            const bool allowed = key == "cachefileAllowedVolumes";
            std::vector<std::string>& list =
                allowed ? placement.cacheVolumes : placement.excludedVolumes;
            if (!list.empty()) {
                problem = key + where + " conflicts with " +
                          (allowed ? "--cache-volume" : "--exclude") + "; set it in one place";
            } else {
                list = listOf(value);
            }
        } else if (key == "cachefileDir") {
            if (!placement.cacheDirectory.empty()) {
                problem = key + where + " conflicts with --cache-dir; set it in one place";
            } else {
                placement.cacheDirectory = value;
            }
        } else if (key == "snapshotVolumeName" || key == "cacheFileName" ||
                   key == "initialCacheFileSize" || key == "maximumCacheFileSize") {
            problem = key + where +
                      " is a per-volume split setting; fihost snapshot prepares each volume "
                      "automatically, so leave it out";
        } else {
            problem = "unknown key " + key + where +
                      " ('fihost config-info' lists the quiesce and cache keys)";
        }
        if (!problem.empty()) {
            return problem;
        }
    }
    return {};
}

}  // namespace fihost
