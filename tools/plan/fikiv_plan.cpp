// fikiv-plan: places the cache files for a group of target volumes on the
// current machine, exactly as snapshot preparation would, and prints the
// chosen paths and sizes with the reasons: every candidate, what removed it,
// and the order by free space. The provider's own messages and trace lines are
// printed as they arrive.
//
//   fikiv-plan [--prefer VOL]... [--exclude VOL]... [--dir DIR]
//              [--init-mb N] [--max-mb N] [--init-pct N] [--max-pct N]
//              [--traces] TARGET...
//
// Targets are named as a user would (C:, D:\, a mount-point path, or a GUID
// name); like preparation, the placement compares them by GUID name.
#include <CLI/CLI.hpp>

#include <iostream>
#include <string>
#include <vector>

#include "fiprovlib/TraceMethod.h"
#include "fiprovlib/volumeiterator/volumeiterator.h"
#include "kiv/cachefile/cachefilehints.h"
#include "kiv/cachefile/cachefileplacement.h"
#include "kiv/cachefile/placementreport.h"
#include "kiv/cachefile/providermutex.h"
#include "kiv/kivficoordinator.h"
#include "os/codepage.h"
#include "os/types.h"
#include "string_helper.h"
#include "tarn/records.h"

namespace {

bool showTraces = false;

std::string narrow(const char16_t* text) {
    return text != nullptr ? toNarrow(text, os::CP_UTF8) : std::string();
}

int printMessage(tarn_context*, const char16_t* text, const char16_t* secondText,
                 std::uint32_t level) {
    if (level == 4 && !showTraces) {
        return 0;
    }
    std::string line = secondText != nullptr ? narrow(secondText) : narrow(text);
    while (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    std::cout << "  [" << level << "] " << line << "\n";
    return 0;
}

std::vector<std::u16string> wide(const std::vector<std::string>& names) {
    std::vector<std::u16string> result;
    for (const std::string& name : names) {
        result.push_back(toWide(name, os::CP_UTF8));
    }
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Show where the provider would place the cache files of a snapshot, and why"};
    std::vector<std::string> targets;
    std::vector<std::string> preferred;
    std::vector<std::string> excluded;
    std::string directory;
    CacheFileHints hints;
    app.add_option("targets", targets, "Volumes to snapshot")->required();
    app.add_option("--prefer", preferred, "Preferred cache volume (cachefileAllowedVolumes)");
    app.add_option("--exclude", excluded, "Excluded cache volume (cachefileDisallowedVolumes)");
    app.add_option("--dir", directory, "Cache directory below the volume root (cachefileDir)");
    app.add_option("--init-mb", hints.initialCacheFileSizeMB, "cachefileInitSizeinMB");
    app.add_option("--max-mb", hints.maxCacheFileSizeMB, "cachefileMaxSizeInMB");
    app.add_option("--init-pct", hints.initialCacheFileSizePct, "cachefileInitSizePercentage");
    app.add_option("--max-pct", hints.maxCacheFileSizePct, "cachefileMaxSizePercentage");
    app.add_flag("--traces", showTraces, "Print the provider's trace lines too");
    CLI11_PARSE(app, argc, argv);

    hints.preferredVolumes = wide(preferred);
    hints.excludedVolumes = wide(excluded);
    hints.cacheFileDir = toWide(directory, os::CP_UTF8);

    tarn_context context{};
    context.msg_callback = &printMessage;
    try {
        KivFiCoordinator::instance().setFrameworkContext(&context);
        setLogContext(&context);
        setPluginName(u"fikiv");

        std::vector<std::u16string> targetNames = wide(targets);
        for (std::u16string& target : targetNames) {
            volumeNameOf(target);
        }
        std::vector<std::u16string> paths;
        std::vector<CacheFileSizes> sizes;
        PlacementReport report;
        std::cout << "placing cache files:\n";
        bool placed = placeCacheFiles(ProviderMutex(), targetNames, hints, paths, sizes, &report);
        std::cout << "\nwhy:\n";
        for (const std::u16string& line : describePlacement(report)) {
            std::cout << "  " << narrow(line.c_str()) << "\n";
        }
        if (!placed) {
            std::cout << "\nno placement: the provider mutex could not be obtained\n";
            return 1;
        }
        std::cout << "\nresult:\n";
        for (std::size_t index = 0; index < paths.size(); ++index) {
            std::cout << "  " << narrow(targetNames[index].c_str()) << " -> "
                      << narrow(paths[index].c_str()) << ", initial " << sizes[index].first
                      << " MB, maximum " << sizes[index].second << " MB\n";
        }
    } catch (os::DWORD error) {
        std::cerr << "fikiv-plan: the placement failed with system error " << error << "\n";
        return 1;
    }
    return 0;
}
