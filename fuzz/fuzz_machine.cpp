// Fuzzes the machine description reader. Checks that a description is either
// read or refused with one MachineError naming the file and a line, that no
// message carries a control character to a terminal, and that a description
// it accepts is one the machine can answer from: unique GUID names and roots
// that find their own volume, free space within the total, printable labels,
// and backing directories of their own inside the machine's directory.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>

#include "fuzz_support.h"
#include "sim/machine.h"

namespace {

using fuzzsupport::check;
using fuzzsupport::printable;

const std::filesystem::path kFile = "/fuzz/machine/machine.json";

bool printable(const std::u16string& text) {
    for (char16_t c : text) {
        if (c < 0x20 || (c >= 0x7F && c <= 0x9F)) {
            return false;
        }
    }
    return true;
}

void checkAccepted(const sim::Machine& machine) {
    std::set<std::filesystem::path> directories;
    for (const sim::Volume& volume : machine.volumes()) {
        check(volume.guidName.size() == 49 && volume.guidName.rfind(u"\\\\?\\Volume{", 0) == 0 &&
                  volume.guidName.back() == u'\\',
              "a GUID name has the form \\\\?\\Volume{...}\\");
        check(machine.findVolume(volume.guidName) == &volume, "a GUID name finds its volume");
        for (const std::u16string& path : volume.paths) {
            check(machine.volumeAtRoot(path) == &volume, "a path finds its volume");
            check(machine.volumeAtMountPoint(path) == &volume, "a mount point finds its volume");
        }
        check(volume.freeBytes <= volume.totalBytes, "free space within the total");
        check(printable(volume.label) && printable(volume.fileSystem),
              "labels and file-system names are printable");
        check(directories.insert(volume.backingDirectory.lexically_normal()).second,
              "every volume has a backing directory of its own");
        if (volume.ownBackingDirectory) {
            const std::filesystem::path inside =
                volume.backingDirectory.lexically_relative(kFile.parent_path());
            check(!inside.empty() && *inside.begin() != "..",
                  "a made backing directory lies inside the machine's directory");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        checkAccepted(sim::Machine::parse(text, kFile));
    } catch (const sim::MachineError& error) {
        const std::string message = error.what();
        check(message.rfind(kFile.string() + ":", 0) == 0, "a refusal names the file first");
        check(printable(message), "a refusal carries no control character");
    }
    return 0;
}
