#include "kiv/cachefile/placementreport.h"

#include <cstdio>
#include <string>

namespace {

std::u16string ascii(const char* text) {
    std::u16string wide;
    for (; *text != '\0'; ++text) {
        wide.push_back(static_cast<char16_t>(static_cast<unsigned char>(*text)));
    }
    return wide;
}

std::u16string decimal(std::uint64_t value) {
    return ascii(std::to_string(value).c_str());
}

std::u16string hex(std::uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%x", value);
    return ascii(text);
}

// The removal with the detail that makes it checkable.
std::u16string verdictText(const PlacementCandidate& candidate) {
    if (candidate.removal == PlacementRemoval::kNone) {
        return u"kept";
    }
    std::u16string text = u"removed, " + placementRemovalText(candidate.removal);
    switch (candidate.removal) {
        case PlacementRemoval::kFileSystem:
            text += u" (error " + decimal(candidate.detail) + u")";
            break;
        case PlacementRemoval::kNotFixed:
            text += u" (drive type " + decimal(candidate.detail) + u")";
            break;
        case PlacementRemoval::kDriverOpen:
            text += u" (status " + decimal(candidate.detail) + u")";
            break;
        case PlacementRemoval::kDriverAttributes:
            text += u" (attributes " + hex(candidate.detail) + u")";
            break;
        default:
            break;
    }
    return text;
}

}  // namespace

std::u16string placementRemovalText(PlacementRemoval removal) {
    switch (removal) {
        case PlacementRemoval::kNone:
            return u"not removed";
        case PlacementRemoval::kExcluded:
            return u"excluded";
        case PlacementRemoval::kTarget:
            return u"a target volume";
        case PlacementRemoval::kFileSystem:
            return u"file system not recognised or no such volume";
        case PlacementRemoval::kNotFixed:
            return u"not a fixed disk";
        case PlacementRemoval::kNoPath:
            return u"no drive letter or mount point reaches it";
        case PlacementRemoval::kDriverOpen:
            return u"the snapshot driver cannot open it";
        case PlacementRemoval::kDriverAttributes:
            return u"the snapshot driver marks it unusable";
        default:
            return u"unknown reason";
    }
}

std::vector<std::u16string> describePlacement(const PlacementReport& report) {
    std::vector<std::u16string> lines;
    lines.push_back(u"cache placement for " + decimal(report.targets.size()) + u" target(s)");
    for (std::size_t i = 0; i < report.targets.size(); ++i) {
        lines.push_back(u"target " + decimal(i + 1) + u": " + report.targets[i]);
    }
    if (report.outcome == PlacementOutcome::kMutexNotObtained) {
        lines.push_back(u"provider mutex not obtained: nothing placed");
        return lines;
    }
    if (report.preferred.empty()) {
        lines.push_back(u"no preferred volumes");
    }
    for (const PlacementCandidate& candidate : report.preferred) {
        std::u16string line = u"preferred " + candidate.name;
        if (!candidate.configured.empty() && candidate.configured != candidate.name) {
            line += u" (configured as " + candidate.configured + u")";
        }
        lines.push_back(line + u": " + verdictText(candidate));
    }
    if (report.fallbackRan) {
        lines.push_back(u"no preferred volume usable: trying every volume of the machine");
        for (const PlacementCandidate& candidate : report.fallback) {
            lines.push_back(u"volume " + candidate.name + u": " + verdictText(candidate));
        }
    }
    for (std::size_t i = 0; i < report.order.size(); ++i) {
        const PlacementRank& rank = report.order[i];
        std::u16string line = u"free space rank " + decimal(i + 1) + u": " + rank.name;
        if (rank.freeBytes.has_value()) {
            line += u", " + decimal(*rank.freeBytes) + u" bytes free";
        } else {
            line += u", the only candidate";
        }
        lines.push_back(line);
    }
    switch (report.outcome) {
        case PlacementOutcome::kPreferred:
            lines.push_back(u"cache volume " + report.cacheVolume +
                            u": the preferred volume with the most free space");
            break;
        case PlacementOutcome::kFallback:
            lines.push_back(u"cache volume " + report.cacheVolume +
                            u": the usable volume with the most free space");
            break;
        case PlacementOutcome::kLastResort:
            lines.push_back(u"no usable cache volume: each target holds its own cache file");
            break;
        default:
            lines.push_back(u"placement did not finish");
            break;
    }
    return lines;
}
