// Volume and mount point enumeration, and volume GUID names <-> paths.
#include "fiprovlib/volumeiterator/volumeiterator.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "os/error.h"
#include "os/types.h"
#include "sim/hooks.h"
#include "support/temp_machine.h"
#include "support/wide_text.h"

namespace {

using testsupport::TempMachine;
using testsupport::utf8;

// C: holds volumes at C:\mnt\data\ (holding C:\mnt\data\inner\) and C:\second\;
// volume 4 has no path; E: is removable, F: a CD-ROM, G: a network drive.
nlohmann::json nestedMachine(int major = 10) {
    return {
        {"majorVersion", major},
        {"volumes",
         {TempMachine::volume(1, {"C:\\"}), TempMachine::volume(2, {"C:\\mnt\\data\\"}),
          TempMachine::volume(3, {"C:\\mnt\\data\\inner\\"}), TempMachine::volume(4, {}),
          TempMachine::volume(5, {"E:\\"}, "removable"), TempMachine::volume(6, {"F:\\"}, "cdrom"),
          TempMachine::volume(7, {"G:\\"}, "remote"), TempMachine::volume(8, {"C:\\second\\"})}}};
}

std::vector<std::u16string> listVolumes() {
    std::vector<std::u16string> names;
    for (VolumeIterator it = VolumeIterator::begin(); it != VolumeIterator::end(); ++it) {
        names.push_back(*it);
    }
    return names;
}

// The code `call` throws, or 0 when it throws nothing.
template <typename Call>
os::DWORD thrownCode(Call call) {
    try {
        call();
    } catch (os::DWORD code) {
        return code;
    }
    return 0;
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

    // Iterators are equal only when both are at their end.
    EXPECT_FALSE(first == first);
    EXPECT_TRUE(VolumeIterator::end() == VolumeIterator::end());
}

// A failing call mid-listing throws its code; so does an unbindable volume
// function, even one the iterator does not call.
TEST(VolumeIteratorTest, FailuresThrowTheirCode) {
    TempMachine machine(nestedMachine());
    sim::injectFault("FindNextVolumeW", os::ERROR_NOT_READY, /*skip=*/1);
    VolumeIterator volumes = VolumeIterator::begin();
    ++volumes;
    EXPECT_EQ(*volumes, TempMachine::guidName(2));
    EXPECT_EQ(thrownCode([&] { ++volumes; }), os::ERROR_NOT_READY);

    sim::injectFault("FindNextVolumeMountPointW", os::ERROR_NOT_READY);
    MountPointIterator mountPoints = MountPointIterator::begin(TempMachine::guidName(1));
    EXPECT_EQ(*mountPoints, u"mnt\\data\\");
    EXPECT_EQ(thrownCode([&] { ++mountPoints; }), os::ERROR_NOT_READY);

    sim::makeUnbindable("kernel32.dll", "GetVolumePathNameW");
    EXPECT_EQ(thrownCode([] { VolumeIterator::begin(); }), os::ERROR_PROC_NOT_FOUND);
}

TEST(VolumeIteratorTest, OlderSystemListsLocalDriveRootsInLetterOrder) {
    TempMachine machine(nestedMachine(/*major=*/4));
    // The network drive G: and the volumes without a letter are not listed.
    EXPECT_EQ(listVolumes(), (std::vector<std::u16string>{u"C:\\", u"E:\\", u"F:\\"}));
    EXPECT_TRUE(MountPointIterator::begin(TempMachine::guidName(1)) == MountPointIterator::end());
    EXPECT_FALSE(isVolumeApiAvailable());
    std::u16string name = TempMachine::guidName(1);
    replaceByVolumePath(name);
    EXPECT_EQ(name, TempMachine::guidName(1));
}

// findVolumePath, and replaceByVolumePath with one string for both.
TEST(VolumeIteratorTest, FindVolumePath) {
    TempMachine machine(nestedMachine());
    // clang-format off
    struct Row { int volume; bool found; std::u16string path; };
    const Row rows[] = {
        {1, true,  u"C:\\"},
        // A mount point within a mount point.
        {3, true,  u"C:\\mnt\\data\\inner\\"},
        // Reachable only through a removable letter: only fixed drives count.
        {5, false, u"unchanged"},
        {4, false, u"unchanged"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE("volume " + std::to_string(row.volume));
        std::u16string path = u"unchanged";
        EXPECT_EQ(findVolumePath(TempMachine::guidName(row.volume), path), row.found);
        EXPECT_EQ(utf8(path), utf8(row.path));
        // The same search, in place: the name stays when no path is found.
        std::u16string name = TempMachine::guidName(row.volume);
        replaceByVolumePath(name);
        EXPECT_EQ(utf8(name), utf8(row.found ? row.path : TempMachine::guidName(row.volume)));
    }
}

}  // namespace
