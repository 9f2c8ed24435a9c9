#include "kiv/cachefile/placementreport.h"

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
