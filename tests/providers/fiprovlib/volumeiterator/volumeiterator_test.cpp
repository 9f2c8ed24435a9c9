// Volume and mount point enumeration and the conversions between volume GUID
// names and the paths that reach them, on small simulated machines.
#include "fiprovlib/volumeiterator/volumeiterator.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "os/error.h"
#include "os/types.h"
#include "os/volume.h"
#include "sim/hooks.h"
#include "support/temp_machine.h"

namespace {

using testsupport::TempMachine;

// C: holds a volume mounted at C:\mnt\data\, which holds one at
// C:\mnt\data\inner\; one volume has no path; E: is removable, F: a CD-ROM,
// G: a network drive.
nlohmann::json nestedMachine(int major = 10) {
    return {
        {"majorVersion", major},
        {"volumes",
         {TempMachine::volume(1, {"C:\\"}), TempMachine::volume(2, {"C:\\mnt\\data\\"}),
          TempMachine::volume(3, {"C:\\mnt\\data\\inner\\"}), TempMachine::volume(4, {}),
          TempMachine::volume(5, {"E:\\"}, "removable"), TempMachine::volume(6, {"F:\\"}, "cdrom"),
          TempMachine::volume(7, {"G:\\"}, "remote")}}};
}

std::vector<std::u16string> listVolumes() {
    std::vector<std::u16string> names;
    for (VolumeIterator it = VolumeIterator::begin(); it != VolumeIterator::end(); ++it) {
        names.push_back(*it);
    }
    return names;
}

std::vector<std::u16string> listMountPoints(const std::u16string& volume) {
    std::vector<std::u16string> names;
    for (MountPointIterator it = MountPointIterator::begin(volume); it != MountPointIterator::end();
         ++it) {
        names.push_back(*it);
    }
    return names;
}

std::string narrow(const std::u16string& text) {
    return std::string(text.begin(), text.end());
}

TEST(VolumeIteratorTest, ListsEveryVolumeInSystemOrderIncludingThoseWithoutPath) {
    TempMachine machine(nestedMachine());
    std::vector<std::u16string> expected;
    for (int number = 1; number <= 7; ++number) {
        expected.push_back(TempMachine::guidName(number));
    }
    EXPECT_EQ(listVolumes(), expected);
}

TEST(VolumeIteratorTest, CopiesShareOnePosition) {
    TempMachine machine(nestedMachine());
    VolumeIterator first = VolumeIterator::begin();
    VolumeIterator copy = first;
    ++copy;
    EXPECT_EQ(*first, TempMachine::guidName(2));
    EXPECT_EQ(copy++, TempMachine::guidName(2));
    EXPECT_EQ(*first, TempMachine::guidName(3));

    // An assigned iterator joins the other's position and lets go of its own.
    VolumeIterator other = VolumeIterator::begin();
    other = first;
    ++other;
    EXPECT_EQ(*first, TempMachine::guidName(4));
}

TEST(VolumeIteratorTest, IteratorNotAtItsEndEqualsNothing) {
    TempMachine machine(nestedMachine());
    VolumeIterator it = VolumeIterator::begin();
    EXPECT_FALSE(it == it);
    EXPECT_TRUE(VolumeIterator::end() == VolumeIterator::end());
    EXPECT_TRUE(MountPointIterator::begin(TempMachine::guidName(4)) == MountPointIterator::end());
}

TEST(VolumeIteratorTest, MountPointsOfEachVolume) {
    TempMachine machine(nestedMachine());
    EXPECT_EQ(listMountPoints(TempMachine::guidName(1)),
              std::vector<std::u16string>{u"mnt\\data\\"});
    EXPECT_EQ(listMountPoints(TempMachine::guidName(2)), std::vector<std::u16string>{u"inner\\"});
    // No mount points, or no such volume: an empty sequence, not an error.
    EXPECT_TRUE(listMountPoints(TempMachine::guidName(4)).empty());
    EXPECT_TRUE(listMountPoints(TempMachine::guidName(99)).empty());
}

TEST(VolumeIteratorTest, FailureMidEnumerationThrowsItsCode) {
    TempMachine machine(nestedMachine());
    sim::injectFault("FindNextVolumeW", os::ERROR_NOT_READY, /*skip=*/1);
    VolumeIterator it = VolumeIterator::begin();
    ++it;
    EXPECT_EQ(*it, TempMachine::guidName(2));
    try {
        ++it;
        ADD_FAILURE() << "the failing FindNextVolumeW was not reported";
    } catch (os::DWORD code) {
        EXPECT_EQ(code, os::ERROR_NOT_READY);
    }
}

TEST(VolumeIteratorTest, MountPointFailureOtherThanEndThrows) {
    nlohmann::json description = nestedMachine();
    description["volumes"].push_back(TempMachine::volume(8, {"C:\\second\\"}));
    TempMachine machine(description);
    sim::injectFault("FindNextVolumeMountPointW", os::ERROR_NOT_READY);
    MountPointIterator it = MountPointIterator::begin(TempMachine::guidName(1));
    EXPECT_EQ(*it, u"mnt\\data\\");
    try {
        ++it;
        ADD_FAILURE() << "the failing FindNextVolumeMountPointW was not reported";
    } catch (os::DWORD code) {
        EXPECT_EQ(code, os::ERROR_NOT_READY);
    }
}

TEST(VolumeIteratorTest, EveryVolumeFunctionMustBeBindable) {
    TempMachine machine(nestedMachine());
    // Not called by the iterator, but still required.
    sim::makeUnbindable("kernel32.dll", "GetVolumePathNameW");
    try {
        VolumeIterator::begin();
        ADD_FAILURE() << "begin() bound an incomplete set of volume functions";
    } catch (os::DWORD code) {
        EXPECT_EQ(code, os::ERROR_PROC_NOT_FOUND);
    }
}

TEST(VolumeIteratorTest, OlderSystemListsLocalDriveRootsInLetterOrder) {
    TempMachine machine(nestedMachine(/*major=*/4));
    // The network drive G: and the volumes without a letter are not listed.
    EXPECT_EQ(listVolumes(), (std::vector<std::u16string>{u"C:\\", u"E:\\", u"F:\\"}));
    EXPECT_TRUE(listMountPoints(TempMachine::guidName(1)).empty());
    EXPECT_FALSE(isVolumeApiAvailable());
}

TEST(VolumeIteratorTest, FindVolumePath) {
    TempMachine machine(nestedMachine());
    // The mount point step asks the system for the volume behind "<holder's
    // GUID path><mount point>", which Windows answers like any mount point.
    const std::u16string below = TempMachine::guidName(1) + u"mnt\\data\\";
    char16_t buffer[51] = {};
    EXPECT_TRUE(os::GetVolumeNameForVolumeMountPointW(below.c_str(), buffer, 51))
        << "the machine does not resolve a mount point below a volume GUID path, error "
        << os::GetLastError();
    struct Row {
        int volume;
        bool found;
        std::u16string path;
    };
    const Row rows[] = {
        {1, true, u"C:\\"},
        {2, true, u"C:\\mnt\\data\\"},
        {3, true, u"C:\\mnt\\data\\inner\\"},
        // Reachable only through a removable or CD-ROM letter: the drive step
        // looks at fixed drives only, and no mount point leads there.
        {5, false, u"unchanged"},
        {6, false, u"unchanged"},
        {4, false, u"unchanged"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("volume " + std::to_string(row.volume));
        std::u16string path = u"unchanged";
        EXPECT_EQ(findVolumePath(TempMachine::guidName(row.volume), path), row.found);
        EXPECT_EQ(narrow(path), narrow(row.path));
    }
}

TEST(VolumeIteratorTest, ReplaceByVolumePath) {
    TempMachine machine(nestedMachine());
    std::u16string mounted = TempMachine::guidName(2);
    replaceByVolumePath(mounted);
    EXPECT_EQ(narrow(mounted), "C:\\mnt\\data\\");

    std::u16string pathless = TempMachine::guidName(4);
    replaceByVolumePath(pathless);
    EXPECT_EQ(pathless, TempMachine::guidName(4));
}

TEST(VolumeIteratorTest, ReplaceByVolumePathDoesNothingOnOlderSystem) {
    TempMachine machine(nestedMachine(/*major=*/4));
    std::u16string name = TempMachine::guidName(1);
    replaceByVolumePath(name);
    EXPECT_EQ(name, TempMachine::guidName(1));
}

TEST(VolumeIteratorTest, VolumeNameOf) {
    TempMachine machine(nestedMachine());
    std::u16string folder = u"C:\\mnt\\data";  // the missing backslash is added
    EXPECT_TRUE(volumeNameOf(folder));
    EXPECT_EQ(folder, TempMachine::guidName(2));

    std::u16string unknown = u"Q:\\";
    EXPECT_FALSE(volumeNameOf(unknown));
    EXPECT_EQ(narrow(unknown), "Q:\\");
}

TEST(VolumeIteratorTest, VolumeNameOfOnOlderSystemIsTheDriveRoot) {
    TempMachine machine(nestedMachine(/*major=*/4));
    const std::pair<std::u16string, std::u16string> rows[] = {
        {u"d:", u"d:\\"},
        {u"D:\\x\\y", u"D:\\"},
        {u"D:\\", u"D:\\"},
    };
    for (const auto& [input, expected] : rows) {
        SCOPED_TRACE(narrow(input));
        std::u16string path = input;
        EXPECT_TRUE(volumeNameOf(path));
        EXPECT_EQ(narrow(path), narrow(expected));
    }
}

}  // namespace
